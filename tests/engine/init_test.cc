// Engine creation and teardown: sizes, the memory report, the constant
// tables, the log lines, the worker's lifetime and the one-engine claim.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

#include "simd/dispatch.h"
#include "support/engine_helpers.h"

namespace qimra::test {
namespace {

qimra_ctx* quiet_init(int32_t w, int32_t h, int32_t mode = 0, std::string* out = nullptr, std::string* err = nullptr) {
    qimra_ctx* c = nullptr;
    const std::string e = capture_stderr([&] {
        const std::string o = capture_stdout([&] { c = qimra_init(w, h, 0.75f, 7, 0, 0, 0, 0, mode, 3); });
        if (out) *out = o;
    });
    if (err) *err = e;
    return c;
}

void quiet_deinit(qimra_ctx* c) {
    capture_stderr([&] { EXPECT_EQ(qimra_deinit(c), 0); });
}

// Every allocation reported in order, the total, and the tables it leaves.
TEST(InitLog, ReportsAllocationsConfigurationAndInstructionSet) {
    const int32_t before = total_mem;
    std::string out, err;
    qimra_ctx* c = quiet_init(1280, 720, 2, &out, &err);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->quarter_mode, 1);  // 1280 x 720 itself is analysed at a quarter
    const int a = 320 * 180, sw = 320 + 19, rows = 50 * 180 / 100 + 39, frame = 1280 * 720;
    std::vector<int> sizes = {27292, 32768, 65536, a, a, 256};
    for (int k = 0; k < 2; ++k)
        sizes.insert(sizes.end(), {4 * sw * rows, 4 * sw * rows, 4 * sw * rows, 4 * sw * rows, sw * rows, frame});
    sizes.insert(sizes.end(), {1024, 1024, 256, frame / 2});
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
    EXPECT_EQ(std::tuple(c->recip16_a[0], c->recip16_a[299]), std::tuple(65536, 218));
    EXPECT_EQ(std::tuple(c->recip16_b[0], c->recip16_b[299]), std::tuple(8192, 213));  // 65536 / 8 .. / 307
    EXPECT_EQ(std::tuple(c->recip_f[0], c->recip_f[2]), std::tuple(0.0f, 0.5f));
    EXPECT_EQ(std::tuple(c->sigmoid_lut[0], c->sigmoid_lut[50], c->sigmoid_lut[55]), std::tuple(127, 64, 34));
    EXPECT_EQ(std::tuple(c->sig50p1_lut[0], c->sig50p1_lut[60], c->sig50p1_lut[255]), std::tuple(255, 143, 128));
    EXPECT_EQ(std::tuple(c->sig45_f[45], c->sig50p1_f[50]), std::tuple(0.5f, 1.5f));
    EXPECT_EQ(std::tuple(c->gain_f[255], c->prev_top_level, c->hist_index), std::tuple(1.0f, 255, 0));
    quiet_deinit(c);
}

// A joined thread can linger in the list for a moment (under qemu-user for
// tens of milliseconds), and sanitizer runtimes start threads of their own
// on first use: count once the list has held still for 50 ms.
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
    EXPECT_EQ(c->quarter_mode, 0);
    EXPECT_EQ(thread_count(), threads_before + 1);
    err = capture_stderr([&] { result = qimra_deinit(c); });
    EXPECT_EQ(std::tuple(result, err), std::tuple(0, std::string("V/qimra: deinit called \nV/qimra: deinit done \n")));
    for (int i = 0; i < 10; ++i) quiet_deinit(quiet_init(320, 240));
    EXPECT_EQ(settled_thread_count(), threads_before);
}

// A refused init must leave the live engine's process-wide inputs alone: a
// CDS request registered before it keeps switching the chroma off, so every
// later frame matches a run without the refused call.
TEST(OneEngine, SecondInitIsRefusedAndTheLiveEngineRunsOn) {
    auto run = [&](bool try_second) {
        reset_globals();
        Frame420 src(64, 64);
        std::vector<uint8_t> outs;
        qimra_ctx* c = quiet_init(64, 64, 0);
        EXPECT_EQ(qimra_engine_alive(), 1);
        const int32_t cds_on = 1;
        capture_stderr([&] { qimra_register_cds_params(c, &cds_on); });
        for (int f = 0; f < 8; ++f) {
            if (try_second && f == 3) {
                const int32_t mem_before = total_mem;
                std::string out, err;
                EXPECT_EQ(quiet_init(64, 64, 2, &out, &err), nullptr);
                EXPECT_NE(err.find("an engine already exists"), std::string::npos) << err;
                EXPECT_EQ(std::tuple(out, total_mem), std::tuple(std::string(), mem_before));
            }
            fill_random(src.y(), src.bytes.size(), 77 + f);
            Frame420 dst(64, 64);
            qimra_process(c, src.y(), 64, 64, dst.y(), 64, 64);
            outs.insert(outs.end(), dst.bytes.begin(), dst.bytes.end());
        }
        quiet_deinit(c);
        EXPECT_EQ(qimra_engine_alive(), 0);
        return outs;
    };
    EXPECT_EQ(run(true), run(false));
    quiet_deinit(quiet_init(64, 64));  // the claim went with the engine
}

}  // namespace
}  // namespace qimra::test
