// The reciprocal estimate and Newton step against the instruction's recorded
// results, the instruction-set choice, and the register state the wide x86
// forms leave behind.
// GCC 12's AVX-512 intrinsics build an "undefined" pass-through operand from
// an uninitialised variable; the value is never used.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <cmath>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "qimra/qimra.h"
#include "simd/dispatch.h"
#include "simd/ftz.h"
#include "simd/recpe.h"
#include "simd/recpe_x86.h"
#include "simd/recps.h"
#include "support/buffers.h"

#if QIMRA_X86_FORMS
#include <cpuid.h>
#endif

namespace qimra::test {
namespace {

using Words = std::vector<uint32_t>;
// A lane form run over a whole list of operand bits, `lanes` at a time.
using LaneForm = std::function<void(const uint32_t* in, uint32_t* out)>;

#if QIMRA_X86_FORMS
QIMRA_AVX2 void eight_lanes(const uint32_t* in, uint32_t* out) {
    const __m256 x = _mm256_castsi256_ps(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(in)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), _mm256_castps_si256(recpe_f32x8_avx2(x)));
}
QIMRA_AVX512 void sixteen_lanes(const uint32_t* in, uint32_t* out) {
    _mm512_storeu_si512(out, _mm512_castps_si512(recpe_f32x16_avx512(_mm512_castsi512_ps(_mm512_loadu_si512(in)))));
}
#endif

// The scalar estimate and every lane form this processor runs.
std::vector<std::pair<int, LaneForm>> recpe_forms() {
    std::vector<std::pair<int, LaneForm>> forms = {{1, [](const uint32_t* in, uint32_t* out) {
                                                        *out = std::bit_cast<uint32_t>(
                                                            recpe_f32(std::bit_cast<float>(*in)));
                                                    }}};
#if QIMRA_HAVE_NEON
    forms.emplace_back(4, [](const uint32_t* in, uint32_t* out) {
        vst1q_u32(out, vreinterpretq_u32_f32(recpe_f32x4(vreinterpretq_f32_u32(vld1q_u32(in)))));
    });
#endif
#if QIMRA_X86_FORMS
    forms.emplace_back(4, [](const uint32_t* in, uint32_t* out) {
        const __m128 x = _mm_castsi128_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_castps_si128(recpe_f32x4_sse(x)));
    });
    if (cpu_isa() >= Isa::avx2) forms.emplace_back(8, eight_lanes);
    if (cpu_isa() >= Isa::avx512) forms.emplace_back(16, sixteen_lanes);
#endif
    return forms;
}

Words run(const std::pair<int, LaneForm>& form, Words in) {
    in.resize((in.size() + 15) / 16 * 16);
    Words out(in.size());
    for (size_t i = 0; i < in.size(); i += size_t(form.first)) form.second(&in[i], &out[i]);
    return out;
}

// The instruction's results (recorded under qemu-arm) on every sign and
// exponent, every leading fraction pattern at many exponents, random low
// bits, zeros, infinities, NaNs and denormals.
TEST(Recpe, EveryFormMatchesTheRecordedInstruction) {
    Words in, want;
    std::ifstream file(QIMRA_TEST_DATA_DIR "/recpe_f32.txt");
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        uint32_t a = 0, b = 0;
        fields >> std::hex >> a >> b;
        in.push_back(a);
        want.push_back(b);
    }
    ASSERT_GT(in.size(), 8000u);
    // Every sign, exponent and leading pattern, for the lane forms against the scalar one.
    Words sweep;
    for (uint32_t top = 0; top < 512; ++top)
        for (uint32_t lead = 0; lead < 256; ++lead) sweep.push_back(top << 23 | lead << 15 | ((top * lead) & 0x7FFF));
    const auto forms = recpe_forms();
    const Words scalar = run(forms[0], sweep);
    for (const auto& form : forms) {
        Words got = run(form, in);
        got.resize(in.size());
        for (size_t i = 0; i < in.size(); ++i)
            ASSERT_EQ(got[i], want[i]) << form.first << " lanes, operand 0x" << std::hex << in[i];
        ASSERT_EQ(run(form, sweep), scalar) << form.first << " lanes";
    }
}

TEST(Recps, NewtonStepDefinesZeroTimesInfinityAsTwo) {
    const float inf = INFINITY;
    EXPECT_EQ(recps_f32(0.0f, inf), 2.0f);
    EXPECT_EQ(recps_f32(-inf, 1e-40f), 2.0f);  // a denormal operand counts as zero
    EXPECT_EQ(recps_f32(1.5f, 0.5f), 1.25f);
#if QIMRA_HAVE_NEON
    float out[4];
    const float a[4] = {0.0f, inf, -0.0f, 3.0f}, b[4] = {inf, 0.0f, -inf, 0.25f};
    vst1q_f32(out, recps_f32x4(vld1q_f32(a), vld1q_f32(b)));
    EXPECT_EQ(std::vector<float>(out, out + 4), (std::vector<float>{2.0f, 2.0f, 2.0f, 1.25f}));
#endif
}

// The unit calls a product tiny by its exact value: 2^-126 (1 - 2^-46) and
// -2^-126 (1 - 2^-24) would round to +-FLT_MIN yet become zeros of their
// sign; 2^-126 (1 + 2^-24 - 2^-47) is not tiny and rounds to FLT_MIN. On ARM
// the vector lanes are the instruction itself.
TEST(Ftz, ProductIsJudgedTinyBeforeRounding) {
    const float a[4] = {0x1.fffffcp-1f, 0x1.fffffep-1f, 0x1.000002p-1f, 3.0f};
    const float b[4] = {0x1.000002p-126f, -0x1p-126f, 0x1.fffffep-126f, 1e-40f};
    const uint32_t want[4] = {0u, 0x80000000u, std::bit_cast<uint32_t>(FLT_MIN), 0u};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(std::bit_cast<uint32_t>(ftz_mul(a[i], b[i])), want[i]) << "lane " << i;
#if QIMRA_HAVE_NEON
    float out[4];
    vst1q_f32(out, ftz_mul_f32x4(vld1q_f32(a), vld1q_f32(b)));
    for (int i = 0; i < 4; ++i) EXPECT_EQ(std::bit_cast<uint32_t>(out[i]), want[i]) << "vector lane " << i;
#endif
}

TEST(Dispatch, LevelIsCappedByTheRequestAndPicksTheHighestFormAtOrBelowIt) {
    struct Case {
        const char* requested;
        Isa best, level;
        const char* note;
    };
#if QIMRA_X86_FORMS
    const Case cases[] = {
        {nullptr, Isa::avx512, Isa::avx512, ""},
        {"c", Isa::avx512, Isa::c, ""},
        {"AVX2", Isa::avx512, Isa::avx2, ""},
        {"avx512", Isa::sse41, Isa::sse41, "QIMRA_ISA=avx512 is more than this processor has; using sse4.1"},
        {"sse41", Isa::avx2, Isa::avx2,
         "QIMRA_ISA=\"sse41\" is not an instruction set (accepted: c, sse4.1, avx2, avx512); using avx2"},
    };
#else
    const Case cases[] = {
        {nullptr, Isa::neon, Isa::neon, ""},
        {"c", Isa::neon, Isa::c, ""},
        {"neon", Isa::c, Isa::c, "QIMRA_ISA=neon is more than this processor has; using c"},
        {"avx2", Isa::neon, Isa::neon, "QIMRA_ISA=\"avx2\" is not an instruction set (accepted: c, neon); using neon"},
    };
#endif
    for (const Case& c : cases) {
        const IsaChoice choice = choose_isa(c.requested, c.best);
        EXPECT_EQ(choice.level, c.level) << (c.requested ? c.requested : "(unset)");
        EXPECT_EQ(choice.note, c.note) << (c.requested ? c.requested : "(unset)");
    }
    // Translated NEON forms serve the x86 levels that have no native form.
    using Fn = int (*)();
    const Forms<Fn> forms{.c = [] { return 0; }, .neon = [] { return 1; }, .avx2 = [] { return 3; }};
    const int want[] = {0, 1, 1, 3, 3};
    for (Isa level : {Isa::c, Isa::neon, Isa::sse41, Isa::avx2, Isa::avx512})
        EXPECT_EQ(select_form(forms, level)(), want[int(level)]) << isa_name(level);
}

#if QIMRA_X86_FORMS
// Legacy SSE code run while the wide registers' upper halves are dirty is
// several times slower: a chroma form that left them dirty made the next
// frame's integral images three times slower. XGETBV with ECX = 1 reports
// the state (bit 2: upper halves of ymm0-15 in use).
__attribute__((target("xsave"))) bool upper_halves_in_use() { return (_xgetbv(1) & (1u << 2)) != 0; }
__attribute__((target("avx"))) void clean() { _mm256_zeroupper(); }

TEST(AvxState, WideFormsReturnWithCleanUpperHalves) {
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (cpu_isa() < Isa::avx2 || !__get_cpuid_count(0x0D, 1, &a, &b, &c, &d) || !(a & (1u << 2))) return;
    // The probe sees a 256-bit write the compiler does not know about.
    __asm__ volatile("vpcmpeqd %%ymm0, %%ymm0, %%ymm0" ::: "xmm0");
    ASSERT_TRUE(upper_halves_in_use());
    const int w = 1928, h = 36;
    std::vector<uint8_t> in(size_t(w) * h * 2), out(in.size());
    fill_content(in.data(), in.size(), 3);
    std::vector<uint32_t> sum(size_t(w + 17) * (h + 17)), sq(sum.size());
    qimra_job job{};
    job.rs_src = in.data();
    job.rs_src_width = job.rs_src_stride = 75;  // wide steps, then SSE and per-pixel columns
    job.rs_src_height = 8;
    job.rs_dst = out.data();
    job.rs_dst_width = job.rs_dst_stride = 150;
    job.rs_dst_height = 16;
    const std::pair<const char*, std::function<void()>> calls[] = {
        {"planar chroma", [&] { blc_scale_uv_planar(&in[0], &in[5000], &out[0], &out[5000], &in[9000], 1936, 6); }},
        {"interleaved chroma", [&] { blc_scale_uv_nv(&in[0], nullptr, &out[0], nullptr, &in[9000], 1936, 6); }},
        {"guided filter",
         [&] {
             blc_gen_ii_pad(in.data(), w, w + 1, w, h, sum.data(), sq.data());
             blc_self_guided_filter_1pass(in.data(), w, sum.data(), sq.data(), 8, 0.04f, out.data(), w, h, nullptr,
                                          nullptr, nullptr, nullptr);
         }},
        {"upscale by two", [&] { ReSizeImage_upscale2_mc(&job); }},
    };
    for (const auto& [name, call] : calls) {
        clean();
        call();
        EXPECT_FALSE(upper_halves_in_use()) << name;
    }
}
#endif

}  // namespace
}  // namespace qimra::test
