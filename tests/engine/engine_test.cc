// The engine: colour helpers and the colour table, the frame spine (job protocol, band seams, CDS, side
// inputs) and creation and teardown.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "engine/colour_lut.h"
#include "engine/tables.h"
#include "simd/dispatch.h"
#include "support/engine_helpers.h"
#include "support/forms.h"
#include "support/media.h"

namespace qimra::test {
namespace {

TEST(ColourHelpers, IntensityAndHueSaturation) {
    // 7 x 2 luma, three blocks, the odd last column left alone. Block 1: 84 * 1.164 + 72 * 0.261 - 68 * 0.541
    // = 79.78 with V and U centred on 128; 254.9 and 116.4 truncate, 278.2 clamps to 255 and -18.6 to 0.
    const uint8_t y[14] = {16, 235, 100, 0, 116, 9, 9, 255, 0, 17, 255, 116, 9, 9}, u[3] = {128, 60, 128},
                  v[3] = {128, 200, 128}, want[14] = {0, 254, 79, 0, 116, 0, 7, 255, 0, 0, 255, 116, 0, 7};
    uint8_t out[14];
    std::fill_n(out, 14, 7);
    conv_yuv_intensity(y, u, v, out, 7, 2);
    EXPECT_EQ(std::vector(out, out + 14), std::vector(want, want + 14));
    std::vector<uint8_t> f = load_i420("astronaut", 512, 512), real(512 * 512);
    conv_yuv_intensity(f.data(), f.data() + 512 * 512, f.data() + 512 * 512 * 5 / 4, real.data(), 512, 512);
    EXPECT_EQ(fnv1a(real.data(), real.size()), 4272987483389877003u);

    const float third = 1 / 3.0f;
    const float rows[][6] = {
        {1, 0, 0, 0, 1, third},                  // acos(1)
        {0, 1, 0, 2.0943951f, 1, third},         // acos(-1/2)
        {0, 0, 1, 4.1887902f, 1, third},         // g < b: reflected
        {.5f, .5f, .5f, 0, -.5f, .5f},           // grey: hue 0, saturation not divided by the sum
        {.2f, .3f, .5f, 3.855317f, .4f, third},  // d = sqrt(0.01 + 0.06)
    };
    for (const auto& r : rows) {
        float h, s, i;
        qimra_rgb2hsi_pix(r[0], r[1], r[2], &h, &s, &i);
        EXPECT_FLOAT_EQ(h, r[3]) << r[0] << " " << r[1] << " " << r[2];
        EXPECT_FLOAT_EQ(s, r[4]);
        EXPECT_FLOAT_EQ(i, r[5]);
    }
}

// A zeroed context with just the tables the colour table reads.
struct LutContext {
    std::unique_ptr<ctx> c = std::make_unique<ctx>();
    std::vector<uint16_t> lut = std::vector<uint16_t>(256 * 128);
    float sig45[256], sig50p1[256];
    uint8_t sig50p1_lut[256];
    LutContext(float gamma, int mid, float sigma) {
        fill_sigmoid_float_tables(sig45, sig50p1, sig50p1_lut);
        fill_reciprocal_tables(c->recip16_a, c->recip16_b);
        c->sig45_f = sig45;
        c->sig50p1_f = sig50p1;
        c->chroma_lut16 = lut.data();
        c->chroma_sigma = sigma;
        if (mid > 0) create_gamma_tab(c->gamma_lut, nullptr, gamma, static_cast<uint8_t>(mid), 230);
        if (mid == 0) fill_random(c->gamma_lut, 256, 2024);  // tone steps far steeper than any curve
        if (mid < 0) std::fill_n(c->gamma_lut, 256, 255);    // black to white: ratios past the curve's end
    }
    uint64_t checksum() const {
        return fnv1a(reinterpret_cast<const uint8_t*>(lut.data()), 2 * lut.size()) ^
               fnv1a(reinterpret_cast<const uint8_t*>(c->chroma_gain_lut), sizeof c->chroma_gain_lut);
    }
};

// Both builders on a decision's curve, a random tone table and one mapping everything to white (the gain
// index clamped to the curve's last entry, 70); three cores, the last taking rows 170..255, and two at once.
TEST(ColourLut, GoldenTablesOfBothBuildersAndTheirCoreSplit) {
    const std::tuple<float, int, float, uint64_t, uint64_t> rows[] = {
        {0.5f, 128, 4.0f, 11311327276957122757u, 8546624839817010567u},
        {1.4f, 200, 8.0f, 16347510321819418771u, 9171696150550242235u},
        {0.0f, 0, 2.5f, 5364965951698576574u, 6643138796824446376u},
        {0.0f, -1, 100.0f, 17571382421746923142u, 12141377084222741360u},
    };
    for (const auto& [gamma, mid, sigma, one_core, single_threaded] : rows) {
        LutContext a(gamma, mid, sigma), b(gamma, mid, sigma), two(gamma, mid, sigma);
        qimra_col_conv_create_lut_mc(a.c.get(), 0, 1);
        std::fill_n(b.c->recip16_a, 300, 0);  // the single-threaded builder keeps its own reciprocals
        EXPECT_EQ(qimra_col_conv_create_lut(b.c.get()), 256);
        EXPECT_EQ(std::tuple(a.checksum(), b.checksum()), std::tuple(one_core, single_threaded)) << mid;
        EXPECT_EQ(std::tuple(a.lut[0] & 0xFF, a.lut[0] >> 8 == 70), std::tuple(16, mid < 0)) << "luma 16 below 16";
        const auto [lo, hi] = std::minmax_element(a.c->chroma_gain_lut, a.c->chroma_gain_lut + 700);
        EXPECT_TRUE(*lo == 32 && *hi <= 70) << "the bounded curve keeps the chroma gain within 1 .. 70 / 32";
        std::thread worker([&] { qimra_col_conv_create_lut_mc(two.c.get(), 1, 2); });
        qimra_col_conv_create_lut_mc(two.c.get(), 0, 2);
        worker.join();
        EXPECT_EQ(two.checksum(), a.checksum());
        std::fill(two.lut.begin(), two.lut.end(), 0);
        for (int core = 2; core >= 0; --core) qimra_col_conv_create_lut_mc(two.c.get(), core, 3);
        EXPECT_EQ(two.lut, a.lut);
    }
}

TEST(ColourLut, VectorRowsMatchPerPixelRow) {
    using Form = void (*)(const ColourLutInputs&, const ColourLutVectorTables&, int32_t, uint16_t*, int32_t, int32_t);
    const auto forms =
        vector_forms<Form>({.neon = QIMRA_NEON_FORM(colour_lut_row_neon), .avx2 = QIMRA_X86_FORM(colour_lut_row_avx2)});
    for (int mid : {128, 0, -1}) {
        LutContext c(0.6f, mid, 4.0f);
        std::vector<int32_t> gain(700);
        build_bounded_gain_curve(1.0f + static_cast<float>(mid & 7) * 2.5f, gain.data());
        const ColourLutInputs in{c.c->gamma_lut, c.sig45, c.sig50p1, c.c->recip16_a, gain.data()};
        ColourLutVectorTables v;
        prepare_colour_lut_vector_tables(in, &v);
        for (int32_t i = 0; i < 256; ++i)
            for (const auto& [begin, end] : {std::pair{0, 128}, {8, 120}, {40, 48}}) {
                std::vector<uint16_t> want(end, 0x5A5A);  // the row ends exactly at the end of its allocation
                colour_lut_row_c(in, i, want.data(), begin, end);
                for (const auto& [name, form] : forms) {
                    std::vector<uint16_t> got(end, 0x5A5A);
                    form(in, v, i, got.data(), begin, end);
                    ASSERT_EQ(got, want) << name << " row " << i << " entries " << begin << ".." << end;
                }
            }
    }
}

qimra_ctx* quiet_init(int32_t w, int32_t h, int32_t mode = 0, std::string* out = nullptr, std::string* err = nullptr) {
    qimra_ctx* c = nullptr;
    std::string o;
    const std::string e =
        capture_stderr([&] { o = capture_stdout([&] { c = qimra_init(w, h, 0.75f, 7, 0, 0, 0, 0, mode, 3); }); });
    if (out) *out = o;
    if (err) *err = e;
    return c;
}

void quiet_deinit(qimra_ctx* c) {
    capture_stderr([&] { EXPECT_EQ(qimra_deinit(c), 0); });
}

struct Engine {
    qimra_ctx* c;
    Engine(int32_t w, int32_t h, int32_t mode) { reset_globals(), c = quiet_init(w, h, mode); }
    ~Engine() { quiet_deinit(c), reset_globals(); }
    void process(Frame420& in, Frame420& out) {
        qimra_process(c, in.y(), in.width, in.height, out.y(), in.width, in.height);
    }
};

// The stage returns only once both halves are done, the worker's last row included.
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
        for (int y : {0, 134, 135, 269})
            for (int x : {0, 241, 479}) {
                const uint8_t* s = luma.data() + 4 * y * 1920 + 4 * x;
                ASSERT_EQ(e.c->ds_luma[y * 480 + x], (s[0] + s[1] + s[1920] + s[1921]) >> 2) << round << " " << y;
            }
    }
}

// Where the cores split a full-size frame must not show: each band filters with ten rows of the other's side,
// and the second reads its base past them.
TEST(BandSeams, EnhancedFramesDoNotDependOnTheSplit) {
    for (const char* name : {"path", "pier"}) {
        std::vector<uint8_t> in = load_i420(name, 640, 480), outs[2];
        for (int k : {0, 1}) {
            coreload[0] = k ? 38 : 50;
            coreload[1] = 100 - coreload[0];
            Engine e(640, 480, 2);
            outs[k].resize(in.size());
            for (int f = 0; f < 2; ++f) qimra_process(e.c, in.data(), 640, 480, outs[k].data(), 640, 480);
        }
        coreload[0] = coreload[1] = 50;
        EXPECT_NE(outs[0], in) << "the frame was not enhanced";
        EXPECT_EQ(outs[0], outs[1]) << name;
    }
}

// One frame's CDS update with the request given (registered, value); the flag and countdown after it.
TEST(CdsHysteresis, SwitchesAtTheThirdFrameAndCarriesTheCountdown) {
    const int steps[][4] = {{1, 1, 0, 2}, {1, 1, 0, 1}, {1, 0, 0, 1},  // off without request: countdown kept
                            {1, 1, 1, 3}, {1, 1, 1, 3}, {1, 0, 1, 2},  // the carried countdown switches on at once
                            {1, 1, 1, 2}, {1, 0, 1, 1}, {1, 0, 0, 3},  // on with request: countdown kept
                            {0, 1, 0, 3}, {0, 1, 0, 3}, {2, 1, 0, 3}, {2, 1, 0, 3}};  // unregistered: no request
    reset_globals();
    for (const auto& s : steps) {
        global_cds_params[0] = s[1];
        global_cds_params[1] = s[0];
        update_cds_state();
        EXPECT_EQ(std::tuple(prev_cds_flag, cds_count_down), std::tuple(s[2], s[3])) << &s - steps;
    }
    reset_globals();
}

// Registrations last as long as they should: chroma planes, histogram and capture value one frame, the CDS
// request for good; in place nothing is written, not even a chroma plane registered apart.
TEST(SideInputs, RegistrationsLastAsLongAsTheyShould) {
    Engine e(64, 48, 2);
    Frame420 in(64, 48), out(64, 48);
    memset(in.y(), 128, in.luma_size());  // mid-grey: every analysis mode leaves it alone, so it is copied
    fill_random(in.chroma(), in.luma_size() / 2, 3);
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
    EXPECT_EQ(out_chroma, in_chroma);
    EXPECT_TRUE(std::all_of(out.chroma(), out.chroma() + 64 * 24, [](uint8_t v) { return v == 0x22; }));
    EXPECT_EQ(std::tuple(e.c->in_chroma, e.c->out_chroma, e.c->ext_hist, global_cam_params[1]),
              std::tuple(nullptr, nullptr, nullptr, 0));
    for (int i = 0; i < 299; ++i) e.process(in, out);
    EXPECT_EQ(out.bytes, in.bytes);
    EXPECT_EQ(std::tuple(global_cds_params[1], prev_cds_flag, e.c->frame_count, int{e.c->hist_index}),
              std::tuple(1, 1, 300, 300 % 256));
    const std::vector<uint8_t> before = in.bytes, kept = out_chroma;
    qimra_register_chroma_bufs(e.c, in.chroma(), out_chroma.data());
    e.process(in, in);
    EXPECT_EQ(std::tuple(in.bytes, out_chroma), std::tuple(before, kept));
}

// Mode 0 counts while downscaling, the analysing modes add up the region histograms: one count per pixel of
// the reduced image either way.
TEST(WholeImageHistogram, CountsEveryPixelOfTheReducedImageInEveryMode) {
    std::vector<uint8_t> f = load_i420("pier", 1280, 720);
    for (int32_t mode : {0, 1, 2}) {
        Engine e(1280, 720, mode);
        qimra_process(e.c, f.data(), 1280, 720, f.data(), 1280, 720);
        uint32_t want[256] = {};
        for (int32_t i = 0; i < 320 * 180; ++i) ++want[e.c->ds_luma[i]];
        EXPECT_EQ(memcmp(want, e.c->global_hist, sizeof want), 0) << "mode " << mode;
        EXPECT_EQ(e.c->hist_pixel_count, 320 * 180) << "mode " << mode;
    }
}

// Every allocation reported in order, the total, the configuration, the instruction set and the tables.
TEST(InitLog, ReportsAllocationsConfigurationAndInstructionSet) {
    const int32_t before = total_mem;
    std::string out, err;
    qimra_ctx* c = quiet_init(1280, 720, 2, &out, &err);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->quarter_mode, 1);  // 1280 x 720 itself is analysed at a quarter
    const int a = 320 * 180, b = 4 * (320 + 19) * (50 * 180 / 100 + 39), frame = 1280 * 720;
    std::vector<int> sizes = {27292, 32768, 65536, a, a, 256,   b,     b,    b,    b,   b / 4,
                              frame, b,     b,     b, b, b / 4, frame, 1024, 1024, 256, frame / 2};
    std::vector<std::string> lines = lines_of(out);
    ASSERT_EQ(lines.size(), sizes.size() + 1) << out;
    int64_t sum = 0;
    for (size_t i = 0; i < sizes.size(); ++i) {
        EXPECT_EQ(lines[i], "Allocated " + std::to_string(sizes[i]) + " bytes of memory");
        sum += sizes[i];
    }
    EXPECT_EQ(total_mem - before, sum);
    char total[64];
    snprintf(total, sizeof total, "Total Memory Allocated %f MB", static_cast<float>(total_mem) / 1048576.0f);
    EXPECT_EQ(lines.back(), total);
    lines = lines_of(err);
    const std::vector<std::string> expected = {"V/qimra: BLC init with 2 cores ht 720 wd 1280",
                                               "V/qimra: V11- CDS supported for 410 chroma format",
                                               "V/qimra: Adaptive mode:2",
                                               "V/qimra: USE_1PASS_GUIDED_FILTER:1",
                                               "V/qimra: UPSCALE_BY_4:0",
                                               "V/qimra: gamma :0.750000\tcolour_format:3"};
    // Then the instruction set, after a line on QIMRA_ISA where it was lowered or not understood.
    ASSERT_GE(lines.size(), expected.size() + 1);
    EXPECT_EQ(lines.back(), std::string("V/qimra: instruction set: ") + isa_name(active_isa()));
    EXPECT_EQ(lines.size() - expected.size(), isa_choice().note.empty() ? 1u : 2u);
    lines.resize(expected.size());
    EXPECT_EQ(lines, expected);
    // Constant tables, pinned where a truncation or an offset shows.
    EXPECT_EQ(std::tuple(c->recip16_a[0], c->recip16_a[299], c->recip16_b[0], c->recip16_b[299]),
              std::tuple(65536, 218, 8192, 213));
    EXPECT_EQ(std::tuple(c->recip_f[0], c->recip_f[2], c->sig45_f[45], c->sig50p1_f[50]),
              std::tuple(0.0f, 0.5f, 0.5f, 1.5f));
    EXPECT_EQ(std::tuple(c->sigmoid_lut[0], c->sigmoid_lut[50], c->sigmoid_lut[55]), std::tuple(127, 64, 34));
    EXPECT_EQ(std::tuple(c->sig50p1_lut[0], c->sig50p1_lut[60], c->sig50p1_lut[255]), std::tuple(255, 143, 128));
    EXPECT_EQ(std::tuple(c->gain_f[255], c->prev_top_level, c->hist_index), std::tuple(1.0f, 255, 0));
    quiet_deinit(c);
}

// A joined thread can linger in the list for a moment (under qemu-user for tens of milliseconds), and
// sanitizer runtimes start threads of their own on first use: count once the list has held still for 50 ms.
int settled_thread_count() {
    int n = thread_count();
    for (int still = 0, i = 0; still < 5 && i < 200; ++i) {
        usleep(10 * 1000);
        const int m = thread_count();
        still = m == n ? still + 1 : 0;
        n = m;
    }
    return n;
}

TEST(Teardown, JoinsTheWorkerAndLogsBothEnds) {
    int result = 0;
    std::string err = capture_stderr([&] { result = qimra_deinit(nullptr); });
    EXPECT_EQ(std::tuple(result, err), std::tuple(1, std::string("V/qimra: deinit called \n")));
    quiet_deinit(quiet_init(64, 64));
    const int threads_before = settled_thread_count();
    qimra_ctx* c = quiet_init(640, 480);
    EXPECT_EQ(std::tuple(c->quarter_mode, thread_count()), std::tuple(0, threads_before + 1));
    err = capture_stderr([&] { result = qimra_deinit(c); });
    EXPECT_EQ(std::tuple(result, err), std::tuple(0, std::string("V/qimra: deinit called \nV/qimra: deinit done \n")));
    for (int i = 0; i < 10; ++i) quiet_deinit(quiet_init(320, 240));
    EXPECT_EQ(settled_thread_count(), threads_before);
}

// A refused init must leave the live engine's process-wide inputs alone: a CDS request registered before it
// keeps switching the chroma off, so every later frame matches a run without the refused call.
TEST(OneEngine, SecondInitIsRefusedAndTheLiveEngineRunsOn) {
    auto run = [&](bool try_second) {
        Engine e(64, 64, 0);
        Frame420 src(64, 64), dst(64, 64);
        std::vector<uint8_t> outs;
        EXPECT_EQ(qimra_engine_alive(), 1);
        const int32_t cds_on = 1;
        capture_stderr([&] { qimra_register_cds_params(e.c, &cds_on); });
        for (int f = 0; f < 8; ++f) {
            if (try_second && f == 3) {
                const int32_t mem_before = total_mem;
                std::string out, err;
                EXPECT_EQ(quiet_init(64, 64, 2, &out, &err), nullptr);
                EXPECT_NE(err.find("an engine already exists"), std::string::npos) << err;
                EXPECT_EQ(std::tuple(out, total_mem), std::tuple(std::string(), mem_before));
            }
            fill_random(src.y(), src.bytes.size(), 77 + f);
            e.process(src, dst);
            outs.insert(outs.end(), dst.bytes.begin(), dst.bytes.end());
        }
        return outs;
    };
    EXPECT_EQ(run(true), run(false));
    EXPECT_EQ(qimra_engine_alive(), 0);
    quiet_deinit(quiet_init(64, 64));  // the claim went with the engine
}

}  // namespace
}  // namespace qimra::test
