// The run-time AVX2 forms leave the wide registers' upper halves clean.
// Legacy SSE code that runs while they are dirty (the rest of the library's
// x86 forms, and the caller's) is several times slower: a chroma form that
// left them dirty made the next frame's integral images three times slower.
// The processor reports the state directly: XGETBV with ECX = 1 gives the
// state components in use, bit 2 being the upper halves of ymm0-15.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "simd/dispatch.h"
#include "support/engine_helpers.h"
#include "support/media.h"

#if QIMRA_X86_FORMS

#include <cpuid.h>
#include <immintrin.h>

namespace qimra::test {
namespace {

bool can_read_in_use() {
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (!__get_cpuid_count(0x0D, 1, &a, &b, &c, &d)) return false;
    return (a & (1u << 2)) != 0;  // XGETBV with ECX = 1
}

__attribute__((target("xsave"))) bool upper_halves_in_use() { return (_xgetbv(1) & (1u << 2)) != 0; }

__attribute__((target("avx"))) void clean() { _mm256_zeroupper(); }
// A 256-bit write the compiler does not see (it would clean up after its
// own): what a form that forgot to clean up leaves behind.
void dirty() { __asm__ volatile("vpcmpeqd %%ymm0, %%ymm0, %%ymm0" ::: "xmm0"); }

class AvxState : public testing::Test {
protected:
    void SetUp() override {
        if (cpu_isa() < Isa::avx2) GTEST_SKIP() << "this processor has no AVX2";
        if (!can_read_in_use()) GTEST_SKIP() << "this processor cannot report the registers' state";
    }
};

// The probe itself: it sees a dirty state and a clean one.
TEST_F(AvxState, TheProbeSeesDirtyAndCleanStates) {
    dirty();
    EXPECT_TRUE(upper_halves_in_use());
    clean();
    EXPECT_FALSE(upper_halves_in_use());
}

TEST_F(AvxState, ExportedFunctionsReturnWithCleanUpperHalves) {
    // Sizes with vector steps and per-pixel or SSE tails.
    const int w = 1928 / 4 * 4, h = 36;
    std::vector<uint8_t> a(static_cast<size_t>(w) * h * 2), b(a.size()), gain(a.size());
    fill_random(a.data(), a.size(), 1);
    fill_random(gain.data(), gain.size(), 2);
    std::vector<uint32_t> sum(static_cast<size_t>(w + 17) * (h + 17)), sq(sum.size());
    std::vector<float> fa(sum.size()), fb(sum.size());

    clean();
    blc_scale_uv_planar(a.data(), a.data() + 5000, b.data(), b.data() + 5000, gain.data(), 1936, 6);
    EXPECT_FALSE(upper_halves_in_use()) << "planar chroma";
    clean();
    blc_scale_uv_nv(a.data(), a.data() + 1, b.data(), b.data() + 1, gain.data(), 1936, 6);
    EXPECT_FALSE(upper_halves_in_use()) << "interleaved chroma";
    clean();
    blc_gen_ii_pad(a.data(), w, w + 1, w, h, sum.data(), sq.data());
    blc_self_guided_filter_1pass(a.data(), w, sum.data(), sq.data(), 8, 0.04f, b.data(), w, h, fb.data(), fa.data(),
                                 nullptr, nullptr);
    EXPECT_FALSE(upper_halves_in_use()) << "guided filter";
    clean();
    qimra_job job{};
    job.rs_src = a.data();
    job.rs_src_width = job.rs_src_stride = 75;  // 64 columns in wide steps, the rest in SSE and per pixel
    job.rs_src_height = 8;
    job.rs_dst = b.data();
    job.rs_dst_width = job.rs_dst_stride = 150;
    job.rs_dst_height = 16;
    ReSizeImage_upscale2_mc(&job);
    EXPECT_FALSE(upper_halves_in_use()) << "upscale by two";
}

// A whole enhanced frame, on the calling thread (core 0's share of every
// stage runs there).
TEST_F(AvxState, AnEnhancedFrameReturnsWithCleanUpperHalves) {
    std::vector<uint8_t> frame = load_i420("path", 1280, 720);
    ASSERT_FALSE(frame.empty());
    for (const int format : {0, 2}) {
        reset_globals();
        std::vector<uint8_t> in = format == 2 ? i420_to_nv12(frame, 1280, 720) : frame, out(in.size());
        qimra_ctx* c = nullptr;
        capture_stderr([&] { capture_stdout([&] { c = qimra_init(1280, 720, 0.5f, 0, 0, 0, 0, 0, 0, format); }); });
        ASSERT_NE(c, nullptr);
        clean();
        qimra_process(c, in.data(), 1280, 720, out.data(), 1280, 720);
        EXPECT_FALSE(upper_halves_in_use()) << "format " << format;
        capture_stderr([&] { qimra_deinit(c); });
    }
}

}  // namespace
}  // namespace qimra::test

#endif  // QIMRA_X86_FORMS
