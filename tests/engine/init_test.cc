// Engine creation and teardown: sizes, the memory report, the constant
// tables, the log lines and the worker's lifetime.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>

#include "simd/dispatch.h"
#include "support/engine_helpers.h"

namespace qimra::test {
namespace {

qimra_ctx* quiet_init(int32_t w, int32_t h, int32_t mode = 0, int32_t format = 0) {
    qimra_ctx* c = nullptr;
    capture_stderr([&] { capture_stdout([&] { c = qimra_init(w, h, 0.5f, 0, 0, 0, 0, 0, mode, format); }); });
    return c;
}

void quiet_deinit(qimra_ctx* c) {
    capture_stderr([&] { EXPECT_EQ(qimra_deinit(c), 0); });
}

TEST(AnalysisSize, QuarterModeNeedsBothDimensionsAt720p) {
    EXPECT_EQ(analysis_size(1280, 720).quarter_mode, 1);
    EXPECT_EQ(analysis_size(1280, 719).quarter_mode, 0);
    EXPECT_EQ(analysis_size(1279, 1080).quarter_mode, 0);
    EXPECT_EQ(analysis_size(3840, 2160).quarter_mode, 1);
}

TEST(AnalysisSize, BandBuffersFollowTheAnalysisImage) {
    const AnalysisSize hd = analysis_size(1920, 1080);
    EXPECT_EQ(hd.aw, 480);
    EXPECT_EQ(hd.ah, 270);
    EXPECT_EQ(slot_stride(hd.aw), 499);
    EXPECT_EQ(slot_rows(hd.ah, 0), 174);
    EXPECT_EQ(slot_rows(hd.ah, 1), 174);

    const AnalysisSize vga = analysis_size(640, 480);
    EXPECT_EQ(vga.aw, 640);
    EXPECT_EQ(vga.ah, 480);
    EXPECT_EQ(slot_rows(vga.ah, 0), 279);

    qimra_ctx* c = quiet_init(1920, 1080);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->quarter_mode, 1);
    EXPECT_EQ(c->analyse_ds, 1);
    quiet_deinit(c);
}

// The allocations of one init, in order, for a frame size.
std::vector<int> expected_allocations(int w, int h) {
    const AnalysisSize a = analysis_size(w, h);
    std::vector<int> sizes = {27292, 32768, 65536, a.aw * a.ah, a.aw * a.ah, 256};
    for (int i = 0; i < 2; ++i) {
        const int sw = a.aw + 19;
        const int rows = 50 * a.ah / 100 + 39;
        for (int k = 0; k < 4; ++k) sizes.push_back(4 * sw * rows);
        sizes.push_back(sw * rows);
        sizes.push_back(w * h);
    }
    for (int s : {1024, 1024, 256, w * h / 2}) sizes.push_back(s);
    return sizes;
}

TEST(MemoryReport, EveryAllocationIsReportedAndCounted) {
    for (auto [w, h] : {std::pair{640, 480}, std::pair{1920, 1080}}) {
        const int32_t before = total_mem;
        qimra_ctx* c = nullptr;
        const std::string out =
            capture_stdout([&] { capture_stderr([&] { c = qimra_init(w, h, 0.5f, 0, 0, 0, 0, 0, 0, 0); }); });
        ASSERT_NE(c, nullptr);
        const std::vector<int> sizes = expected_allocations(w, h);
        const std::vector<std::string> lines = lines_of(out);
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
        quiet_deinit(c);
    }
}

TEST(MemoryReport, TotalNeverShrinksAcrossTeardown) {
    const int32_t start = total_mem;
    qimra_ctx* c = quiet_init(640, 480);
    const int32_t after_first = total_mem;
    EXPECT_GT(after_first, start);
    quiet_deinit(c);
    EXPECT_EQ(total_mem, after_first);
    c = quiet_init(640, 480);
    EXPECT_EQ(total_mem - after_first, after_first - start);
    quiet_deinit(c);
}

TEST(ConstantTables, MatchTheirDefinitions) {
    qimra_ctx* c = quiet_init(640, 480);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->recip16_a[0], 65536);
    EXPECT_EQ(c->recip16_a[299], 65536 / 300);
    EXPECT_EQ(c->recip16_b[0], 8192);
    EXPECT_EQ(c->recip16_b[299], 65536 / 307);
    EXPECT_EQ(c->recip_f[0], 0.0f);
    EXPECT_EQ(c->recip_f[1], 1.0f);
    EXPECT_EQ(c->recip_f[2], 0.5f);
    EXPECT_EQ(c->recip_f[3], 1.0f / 3.0f);
    for (float g : c->gain_f) EXPECT_EQ(g, 1.0f);
    EXPECT_EQ(c->prev_top_level, 255);
    EXPECT_EQ(c->hist_index, 0);
    EXPECT_EQ(c->frame_count, 0);

    // Sigmoids: 128 at the far dark end falls to 64 at the centre (50) and
    // to 0 in the highlights; the boosted form runs from 2x down to 1x.
    EXPECT_EQ(c->sigmoid_lut[0], 127);  // 128 / (1 + e^-10) = 127.994
    EXPECT_EQ(c->sigmoid_lut[50], 64);
    EXPECT_EQ(c->sigmoid_lut[55], 34);  // 128 / (1 + e) = 34.43
    EXPECT_EQ(c->sigmoid_lut[255], 0);
    EXPECT_EQ(c->sig50p1_lut[0], 255);  // 128 * 1.99995 = 255.99
    EXPECT_EQ(c->sig50p1_lut[50], 192);
    EXPECT_EQ(c->sig50p1_lut[60], 143);  // 128 * (1 + 1 / (1 + e^2)) = 143.34
    EXPECT_EQ(c->sig50p1_lut[255], 128);
    EXPECT_FLOAT_EQ(c->sig45_f[45], 0.5f);
    EXPECT_FLOAT_EQ(c->sig45_f[50], static_cast<float>(1.0 / (1.0 + std::exp(1.0))));
    EXPECT_FLOAT_EQ(c->sig50p1_f[50], 1.5f);
    quiet_deinit(c);
}

TEST(InitLog, ReportsTheBuiltInConfiguration) {
    qimra_ctx* c = nullptr;
    const std::string err =
        capture_stderr([&] { capture_stdout([&] { c = qimra_init(640, 480, 0.75f, 7, 0, 0, 0, 0, 2, 3); }); });
    ASSERT_NE(c, nullptr);
    const std::vector<std::string> expected = {"V/qimra: BLC init with 2 cores ht 480 wd 640",
                                               "V/qimra: V11- CDS supported for 410 chroma format",
                                               "V/qimra: Adaptive mode:2",
                                               "V/qimra: USE_1PASS_GUIDED_FILTER:1",
                                               "V/qimra: UPSCALE_BY_4:0",
                                               "V/qimra: gamma :0.750000\tcolour_format:3"};
    std::vector<std::string> lines = lines_of(err);
    // Then the instruction set, after a line on QIMRA_ISA where it was lowered
    // or not understood.
    ASSERT_GE(lines.size(), expected.size() + 1);
    EXPECT_EQ(lines.back(), std::string("V/qimra: instruction set: ") + isa_name(active_isa()));
    EXPECT_EQ(lines.size() - expected.size(), isa_choice().note.empty() ? 1u : 2u);
    lines.resize(expected.size());
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(c->param4, 7u);
    EXPECT_EQ(c->adaptive_mode, 2);
    EXPECT_EQ(c->colour_format, 3);
    quiet_deinit(c);
}

TEST(Teardown, NullContextIsRefusedWithItsLogLine) {
    int result = 0;
    const std::string err = capture_stderr([&] { result = qimra_deinit(nullptr); });
    EXPECT_EQ(result, 1);
    EXPECT_EQ(err, "V/qimra: deinit called \n");
}

// A joined thread can still be listed for a moment while it is taken apart
// (under qemu-user for tens of milliseconds): wait up to a second for the
// count to come down to `expected`.
int thread_count_settling_to(int expected) {
    int n = thread_count();
    for (int i = 0; i < 100 && n > expected; ++i) {
        usleep(10 * 1000);
        n = thread_count();
    }
    return n;
}

// Sanitizer runtimes start helper threads of their own on first use; count
// after one full cycle so that only the engine's worker is measured, once
// the count has held still for 50 ms (the cycle's worker gone from the list).
int settled_thread_count() {
    quiet_deinit(quiet_init(64, 64));
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
    const int threads_before = settled_thread_count();
    qimra_ctx* c = quiet_init(640, 480);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(thread_count(), threads_before + 1);
    int result = -1;
    const std::string err = capture_stderr([&] { result = qimra_deinit(c); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(err, "V/qimra: deinit called \nV/qimra: deinit done \n");
    EXPECT_EQ(thread_count_settling_to(threads_before), threads_before);
}

TEST(Teardown, ManyCyclesLeaveNoThreadBehind) {
    const int threads_before = settled_thread_count();
    for (int i = 0; i < 20; ++i) quiet_deinit(quiet_init(320, 240));
    EXPECT_EQ(thread_count_settling_to(threads_before), threads_before);
}

// The library admits one engine per process. A refused init must leave the
// live engine's process-wide inputs alone: a CDS request registered before
// it keeps switching the chroma off, so every later frame matches a run
// without the refused call.
TEST(OneEngine, SecondInitIsRefusedAndTheLiveEngineRunsOn) {
    constexpr int kW = 64, kH = 64, kFrames = 8, kRefuseAfter = 3;
    auto run = [&](bool try_second) {
        reset_globals();
        Frame420 src(kW, kH);
        std::vector<std::vector<uint8_t>> outs;
        qimra_ctx* c = quiet_init(kW, kH, 0, 2);
        EXPECT_EQ(qimra_engine_alive(), 1);
        const int32_t cds_on = 1;
        capture_stderr([&] { qimra_register_cds_params(c, &cds_on); });
        for (int f = 0; f < kFrames; ++f) {
            if (try_second && f == kRefuseAfter) {
                const int32_t mem_before = total_mem;
                qimra_ctx* second = c;
                const std::string out = capture_stdout([&] {
                    const std::string err =
                        capture_stderr([&] { second = qimra_init(kW, kH, 0.5f, 0, 0, 0, 0, 0, 2, 0); });
                    EXPECT_NE(err.find("an engine already exists"), std::string::npos) << err;
                });
                EXPECT_EQ(second, nullptr);
                EXPECT_EQ(out, "");
                EXPECT_EQ(total_mem, mem_before);
            }
            fill_random(src.y(), src.bytes.size(), 77 + f);
            Frame420 dst(kW, kH);
            qimra_process(c, src.y(), kW, kH, dst.y(), kW, kH);
            outs.push_back(dst.bytes);
        }
        quiet_deinit(c);
        EXPECT_EQ(qimra_engine_alive(), 0);
        return outs;
    };
    const auto plain = run(false);
    const auto refused = run(true);
    for (int f = 0; f < kFrames; ++f) EXPECT_EQ(refused[f], plain[f]) << "frame " << f;
    // The claim went with the engine: the next init is admitted.
    qimra_ctx* again = quiet_init(kW, kH);
    EXPECT_NE(again, nullptr);
    quiet_deinit(again);
}

}  // namespace
}  // namespace qimra::test
