// The frame spine: the two-core job protocol, the CDS hysteresis, the side
// inputs and the copy of frames that are not enhanced.
#include <gtest/gtest.h>

#include <cstring>

#include "support/engine_helpers.h"

namespace qimra::test {
namespace {

class Engine {
public:
    Engine(int32_t w, int32_t h, int32_t mode, int32_t format = 0) {
        reset_globals();
        capture_stderr([&] { capture_stdout([&] { c_ = qimra_init(w, h, 0.5f, 0, 0, 0, 0, 0, mode, format); }); });
    }
    ~Engine() {
        capture_stderr([&] { qimra_deinit(c_); });
        reset_globals();
    }
    qimra_ctx* get() { return c_; }

private:
    qimra_ctx* c_ = nullptr;
};

// A mid-grey scene: every analysis mode leaves it alone, so the frame path
// copies it.
Frame420 grey_frame(int32_t w, int32_t h, uint32_t seed) {
    Frame420 f(w, h);
    memset(f.y(), 128, f.luma_size());
    fill_random(f.chroma(), f.luma_size() / 2, seed);
    return f;
}

TEST(JobProtocol, BothHalvesAreDoneWhenTheStageReturns) {
    Engine e(1920, 1080, 0);
    qimra_ctx* c = e.get();
    std::vector<uint8_t> luma(1920 * 1080);
    for (int round = 0; round < 200; ++round) {
        fill_random(luma.data(), luma.size(), 1000 + round);
        memset(c->ds_luma, 0xA5, 480 * 270);
        for (int i = 0; i < 2; ++i) {
            qimra_job& job = c->slot[i].job;
            job.op = kOpDownscale4;
            job.core = i;
            job.rs_src = luma.data();
            job.rs_src_height = 1080;
            job.rs_src_width = 1920;
            job.rs_src_stride = 1920;
            job.rs_dst = c->ds_luma;
            job.rs_dst_width = 480;
            job.rs_dst_height = 270;
            job.rs_dst_stride = 480;
        }
        run_on_both_cores(c);
        // Spot-check rows of both halves, the worker's last row included.
        for (int y : {0, 134, 135, 269})
            for (int x : {0, 241, 479}) {
                const uint8_t* s = luma.data() + 4 * y * 1920 + 4 * x;
                const int mean = (s[0] + s[1] + s[1920] + s[1921]) >> 2;
                ASSERT_EQ(c->ds_luma[y * 480 + x], mean) << "round " << round << " row " << y;
            }
    }
}

// One frame's CDS update with the request registered as given; the state after it.
int32_t step(bool request) {
    global_cds_params[0] = request ? 1 : 0;
    global_cds_params[1] = 1;
    update_cds_state();
    return prev_cds_flag;
}

TEST(CdsHysteresis, SwitchesOnAndOffAtTheThirdFrame) {
    reset_globals();
    EXPECT_EQ(step(true), 0);
    EXPECT_EQ(step(true), 0);
    EXPECT_EQ(step(true), 1);
    EXPECT_EQ(cds_count_down, 3);
    EXPECT_EQ(step(true), 1);  // stays on, countdown untouched
    EXPECT_EQ(cds_count_down, 3);
    EXPECT_EQ(step(false), 1);
    EXPECT_EQ(step(false), 1);
    EXPECT_EQ(step(false), 0);
    EXPECT_EQ(cds_count_down, 3);
    EXPECT_EQ(step(false), 0);
    reset_globals();
}

TEST(CdsHysteresis, CountdownCarriesAcrossAFlipOfTheRequest) {
    reset_globals();
    EXPECT_EQ(step(true), 0);   // 3 -> 2
    EXPECT_EQ(step(true), 0);   // 2 -> 1
    EXPECT_EQ(step(false), 0);  // off without request: countdown kept at 1
    EXPECT_EQ(cds_count_down, 1);
    EXPECT_EQ(step(true), 1);   // the carried countdown switches on at once
    EXPECT_EQ(step(false), 1);  // 3 -> 2
    EXPECT_EQ(step(true), 1);   // on with request: countdown kept at 2
    EXPECT_EQ(cds_count_down, 2);
    EXPECT_EQ(step(false), 1);  // 2 -> 1
    EXPECT_EQ(step(false), 0);  // 1 -> 0: off
    reset_globals();
}

TEST(CdsHysteresis, AnUnregisteredOrOtherValueIsNoRequest) {
    reset_globals();
    global_cds_params[0] = 1;
    global_cds_params[1] = 0;
    for (int i = 0; i < 5; ++i) update_cds_state();
    EXPECT_EQ(prev_cds_flag, 0);
    global_cds_params[0] = 2;
    global_cds_params[1] = 1;
    for (int i = 0; i < 5; ++i) update_cds_state();
    EXPECT_EQ(prev_cds_flag, 0);
    reset_globals();
}

TEST(SideInputs, CdsRegistrationPersistsAndIsLogged) {
    Engine e(64, 64, 2);
    Frame420 f = grey_frame(64, 64, 1);
    Frame420 out(64, 64);
    const int32_t request = 1;
    const std::string err = capture_stderr([&] { qimra_register_cds_params(e.get(), &request); });
    EXPECT_EQ(err, "V/qimra: qimra_register_cds_params with 1\n");
    for (int i = 0; i < 3; ++i) {
        qimra_process(e.get(), f.y(), 64, 64, out.y(), 64, 64);
        EXPECT_EQ(global_cds_params[1], 1);
    }
    EXPECT_EQ(prev_cds_flag, 1);
}

TEST(SideInputs, CaptureRegistrationLastsOneFrame) {
    Engine e(64, 64, 2);
    Frame420 f = grey_frame(64, 64, 2);
    const float value = 0.25f;
    int32_t* params = qimra_register_capture_params(e.get(), &value);
    EXPECT_EQ(params, global_cam_params);
    float stored;
    memcpy(&stored, &global_cam_params[0], sizeof stored);
    EXPECT_EQ(stored, 0.25f);
    EXPECT_EQ(global_cam_params[1], 1);
    qimra_process(e.get(), f.y(), 64, 64, f.y(), 64, 64);
    EXPECT_EQ(global_cam_params[1], 0);
}

TEST(SideInputs, ChromaPlanesApplyToOneFrameOnly) {
    Engine e(64, 48, 2);
    Frame420 in = grey_frame(64, 48, 3);
    Frame420 out(64, 48);
    std::vector<uint8_t> in_chroma(64 * 48 / 2), out_chroma(64 * 48 / 2, 0x11);
    fill_random(in_chroma.data(), in_chroma.size(), 4);

    qimra_register_chroma_bufs(e.get(), in_chroma.data(), out_chroma.data());
    memset(out.bytes.data(), 0x22, out.bytes.size());
    qimra_process(e.get(), in.y(), 64, 48, out.y(), 64, 48);
    EXPECT_EQ(out_chroma, in_chroma);
    EXPECT_TRUE(std::all_of(out.chroma(), out.chroma() + 64 * 24, [](uint8_t v) { return v == 0x22; }));
    EXPECT_EQ(e.get()->in_chroma, nullptr);
    EXPECT_EQ(e.get()->out_chroma, nullptr);

    // The next frame is back to the chroma behind each luma plane.
    std::vector<uint8_t> kept = out_chroma;
    qimra_process(e.get(), in.y(), 64, 48, out.y(), 64, 48);
    EXPECT_EQ(out.bytes, in.bytes);
    EXPECT_EQ(out_chroma, kept);
}

TEST(CopyThrough, SeparateBuffersAreCopiedInPlaceOnesUntouched) {
    Engine e(96, 64, 2);
    Frame420 in = grey_frame(96, 64, 5);
    Frame420 out(96, 64);
    qimra_process(e.get(), in.y(), 96, 64, out.y(), 96, 64);
    EXPECT_EQ(out.bytes, in.bytes);

    // In place, nothing is written, not even a chroma plane registered apart.
    std::vector<uint8_t> other_chroma(96 * 64 / 2, 0x33);
    const std::vector<uint8_t> before = in.bytes;
    qimra_register_chroma_bufs(e.get(), in.chroma(), other_chroma.data());
    qimra_process(e.get(), in.y(), 96, 64, in.y(), 96, 64);
    EXPECT_EQ(in.bytes, before);
    EXPECT_TRUE(std::all_of(other_chroma.begin(), other_chroma.end(), [](uint8_t v) { return v == 0x33; }));
}

TEST(WholeImageHistogram, CountsEveryPixelOfTheReducedImageInEveryMode) {
    // Mode 0 counts while downscaling, the analysing modes add up the region
    // histograms: either way, one count per pixel of ds_luma.
    for (int32_t mode : {0, 1, 2}) {
        Engine e(1280, 720, mode);
        Frame420 f(1280, 720);
        fill_random(f.y(), f.bytes.size(), 40 + mode);
        // A skewed, uneven picture, so that a region missed or counted twice
        // changes bins.
        for (size_t i = 0; i < f.luma_size(); ++i) f.y()[i] = uint8_t(f.y()[i] * (i % 1280) / 1280);
        qimra_process(e.get(), f.y(), 1280, 720, f.y(), 1280, 720);
        uint32_t want[256] = {};
        for (int32_t i = 0; i < 320 * 180; ++i) ++want[e.get()->ds_luma[i]];
        EXPECT_EQ(memcmp(want, e.get()->global_hist, sizeof want), 0) << "mode " << mode;
        EXPECT_EQ(e.get()->hist_pixel_count, 320 * 180) << "mode " << mode;
    }
}

TEST(FrameCounters, AdvanceEveryFrameAndWrapTheHistoryIndex) {
    Engine e(32, 32, 2);
    Frame420 f = grey_frame(32, 32, 6);
    int32_t hist[256];
    for (int i = 0; i < 300; ++i) {
        qimra_register_hist(e.get(), hist);
        qimra_process(e.get(), f.y(), 32, 32, f.y(), 32, 32);
        EXPECT_EQ(e.get()->ext_hist, nullptr);
    }
    EXPECT_EQ(e.get()->frame_count, 300);
    EXPECT_EQ(e.get()->hist_index, 300 % 256);
}

}  // namespace
}  // namespace qimra::test
