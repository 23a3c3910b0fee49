// The frame spine: the two-core job protocol and band seams, the CDS
// hysteresis, the side inputs and the copy of frames that are not enhanced.
#include <gtest/gtest.h>

#include <cstring>

#include "support/engine_helpers.h"
#include "support/media.h"

namespace qimra::test {
namespace {

struct Engine {
    qimra_ctx* c = nullptr;
    Engine(int32_t w, int32_t h, int32_t mode) {
        reset_globals();
        capture_stderr([&] { capture_stdout([&] { c = qimra_init(w, h, 0.5f, 0, 0, 0, 0, 0, mode, 0); }); });
    }
    ~Engine() {
        capture_stderr([&] { qimra_deinit(c); });
        reset_globals();
    }
    // A mid-grey frame: every analysis mode leaves it alone, so it is copied.
    Frame420 grey(uint32_t seed) const {
        Frame420 f(c->width, c->height);
        memset(f.y(), 128, f.luma_size());
        fill_random(f.chroma(), f.luma_size() / 2, seed);
        return f;
    }
    void process(Frame420& in, Frame420& out) {
        qimra_process(c, in.y(), in.width, in.height, out.y(), in.width, in.height);
    }
};

TEST(JobProtocol, BothHalvesAreDoneWhenTheStageReturns) {
    Engine e(1920, 1080, 0);
    std::vector<uint8_t> luma(1920 * 1080);
    for (int round = 0; round < 100; ++round) {
        fill_random(luma.data(), luma.size(), 1000 + round);
        memset(e.c->ds_luma, 0xA5, 480 * 270);
        for (int i = 0; i < 2; ++i) {
            qimra_job& job = e.c->slot[i].job;
            job.op = kOpDownscale4;
            job.core = i;
            job.rs_src = luma.data();
            job.rs_src_height = 1080;
            job.rs_src_width = job.rs_src_stride = 1920;
            job.rs_dst = e.c->ds_luma;
            job.rs_dst_width = job.rs_dst_stride = 480;
            job.rs_dst_height = 270;
        }
        run_on_both_cores(e.c);
        for (int y : {0, 134, 135, 269})  // both halves, the worker's last row included
            for (int x : {0, 241, 479}) {
                const uint8_t* s = luma.data() + 4 * y * 1920 + 4 * x;
                ASSERT_EQ(e.c->ds_luma[y * 480 + x], (s[0] + s[1] + s[1920] + s[1921]) >> 2) << round << " " << y;
            }
    }
}

// Where the cores split a full-size frame must not show: each band filters
// with ten rows of the other's side, and the second reads its base past them.
TEST(BandSeams, EnhancedFramesDoNotDependOnTheSplit) {
    for (auto [name, w, h] : {std::tuple{"path", 640, 480}, {"pier", 640, 480}}) {
        std::vector<std::vector<uint8_t>> outs;
        for (int share : {50, 38}) {
            coreload[0] = share;
            coreload[1] = 100 - share;
            Engine e(w, h, 2);
            std::vector<uint8_t> in = load_i420(name, w, h), out(in.size());
            for (int f = 0; f < 2; ++f) qimra_process(e.c, in.data(), w, h, out.data(), w, h);
            outs.push_back(out);
        }
        coreload[0] = coreload[1] = 50;
        EXPECT_NE(outs[0], load_i420(name, w, h)) << "the frame was not enhanced";
        EXPECT_EQ(outs[0], outs[1]) << w << "x" << h;
    }
}

// One frame's CDS update with the request given; the state after it.
TEST(CdsHysteresis, SwitchesAtTheThirdFrameAndCarriesTheCountdown) {
    const struct {
        int registered, value, flag, countdown;
    } steps[] = {{1, 1, 0, 2}, {1, 1, 0, 1}, {1, 0, 0, 1},  // off without request: countdown kept
                 {1, 1, 1, 3}, {1, 1, 1, 3}, {1, 0, 1, 2},  // the carried countdown switches on at once
                 {1, 1, 1, 2}, {1, 0, 1, 1}, {1, 0, 0, 3},  // on with request: countdown kept
                 {0, 1, 0, 3}, {0, 1, 0, 3}, {0, 1, 0, 3},  // unregistered: no request
                 {2, 1, 0, 3}, {2, 1, 0, 3}, {2, 1, 0, 3}};
    reset_globals();
    for (const auto& s : steps) {
        global_cds_params[0] = s.value;
        global_cds_params[1] = s.registered;
        update_cds_state();
        EXPECT_EQ(std::tuple(prev_cds_flag, cds_count_down), std::tuple(s.flag, s.countdown)) << &s - steps;
    }
    reset_globals();
}

TEST(SideInputs, RegistrationsLastAsLongAsTheyShould) {
    Engine e(64, 48, 2);
    Frame420 in = e.grey(3), out(64, 48);
    const int32_t request = 1;
    EXPECT_EQ(capture_stderr([&] { qimra_register_cds_params(e.c, &request); }),
              "V/qimra: qimra_register_cds_params with 1\n");
    const float value = 0.25f;
    EXPECT_EQ(qimra_register_capture_params(e.c, &value), global_cam_params);
    EXPECT_EQ(std::tuple(global_cam_params[0], global_cam_params[1]), std::tuple(0x3E800000, 1));
    std::vector<uint8_t> in_chroma(64 * 24), out_chroma(64 * 24, 0x11);
    fill_random(in_chroma.data(), in_chroma.size(), 4);
    qimra_register_chroma_bufs(e.c, in_chroma.data(), out_chroma.data());
    int32_t hist[256];
    qimra_register_hist(e.c, hist);
    memset(out.bytes.data(), 0x22, out.bytes.size());
    e.process(in, out);
    EXPECT_EQ(out_chroma, in_chroma);  // the registered planes, not those behind the luma
    EXPECT_TRUE(std::all_of(out.chroma(), out.chroma() + 64 * 24, [](uint8_t v) { return v == 0x22; }));
    EXPECT_EQ(std::tuple(e.c->in_chroma, e.c->out_chroma, e.c->ext_hist, global_cam_params[1]),
              std::tuple(nullptr, nullptr, nullptr, 0));  // one frame each
    for (int i = 0; i < 299; ++i) e.process(in, out);
    EXPECT_EQ(out.bytes, in.bytes);                                                // separate buffers are copied
    EXPECT_EQ(std::tuple(global_cds_params[1], prev_cds_flag), std::tuple(1, 1));  // the request persists
    EXPECT_EQ(std::tuple(e.c->frame_count, int{e.c->hist_index}), std::tuple(300, 300 % 256));

    // In place nothing is written, not even a chroma plane registered apart.
    const std::vector<uint8_t> before = in.bytes, kept = out_chroma;
    qimra_register_chroma_bufs(e.c, in.chroma(), out_chroma.data());
    e.process(in, in);
    EXPECT_EQ(in.bytes, before);
    EXPECT_EQ(out_chroma, kept);
}

TEST(WholeImageHistogram, CountsEveryPixelOfTheReducedImageInEveryMode) {
    // Mode 0 counts while downscaling, the analysing modes add up the region
    // histograms: either way, one count per pixel of ds_luma.
    for (int32_t mode : {0, 1, 2}) {
        Engine e(1280, 720, mode);
        std::vector<uint8_t> f = load_i420("pier", 1280, 720);
        qimra_process(e.c, f.data(), 1280, 720, f.data(), 1280, 720);
        uint32_t want[256] = {};
        for (int32_t i = 0; i < 320 * 180; ++i) ++want[e.c->ds_luma[i]];
        EXPECT_EQ(memcmp(want, e.c->global_hist, sizeof want), 0) << "mode " << mode;
        EXPECT_EQ(e.c->hist_pixel_count, 320 * 180) << "mode " << mode;
    }
}

}  // namespace
}  // namespace qimra::test
