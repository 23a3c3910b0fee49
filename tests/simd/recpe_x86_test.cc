// The x86 vector estimates (a division instead of the table; 4, 8 and 16
// lanes) against the scalar emulation: every fraction pattern at every exponent, both signs,
// plus a million random operands.
// GCC 12's AVX-512 intrinsics build their "undefined" pass-through operand
// from an uninitialised variable, which the uninitialised-use warnings report once
// they are inlined here; the value is never used.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#include "simd/recpe_x86.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <vector>

#include "simd/dispatch.h"
#include "simd/recpe.h"

#if QIMRA_X86_FORMS

namespace qimra::test {
namespace {

// All 2^9 sign-and-exponent combinations times all 2^8 leading fraction
// patterns, with varying low bits; then random words.
std::vector<uint32_t> operands() {
    std::vector<uint32_t> v;
    uint32_t s = 0x9E3779B9u;
    for (uint32_t top = 0; top < 512; ++top)
        for (uint32_t lead = 0; lead < 256; ++lead) {
            s ^= s << 13;
            s ^= s >> 17;
            s ^= s << 5;
            v.push_back(top << 23 | lead << 15 | (s & 0x7FFFu));
        }
    for (int i = 0; i < 1 << 20; ++i) {
        s ^= s << 13;
        s ^= s >> 17;
        s ^= s << 5;
        v.push_back(s);
    }
    return v;
}

TEST(RecpeX86, FourLanesMatchTheScalarEstimate) {
    const std::vector<uint32_t> in = operands();
    for (size_t i = 0; i + 4 <= in.size(); i += 4) {
        alignas(16) uint32_t out[4];
        _mm_store_si128(reinterpret_cast<__m128i*>(out),
                        _mm_castps_si128(recpe_f32x4_sse(
                            _mm_castsi128_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(&in[i]))))));
        for (size_t k = 0; k < 4; ++k)
            ASSERT_EQ(out[k], std::bit_cast<uint32_t>(recpe_f32(std::bit_cast<float>(in[i + k]))))
                << std::hex << "operand 0x" << in[i + k];
    }
}

QIMRA_AVX2 void eight_lanes(const uint32_t* in, uint32_t* out) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out),
                        _mm256_castps_si256(recpe_f32x8_avx2(
                            _mm256_castsi256_ps(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(in))))));
}

TEST(RecpeX86, EightLanesMatchTheScalarEstimate) {
    if (cpu_isa() < Isa::avx2) GTEST_SKIP() << "this processor has no AVX2";
    const std::vector<uint32_t> in = operands();
    for (size_t i = 0; i + 8 <= in.size(); i += 8) {
        uint32_t out[8];
        eight_lanes(&in[i], out);
        for (size_t k = 0; k < 8; ++k)
            ASSERT_EQ(out[k], std::bit_cast<uint32_t>(recpe_f32(std::bit_cast<float>(in[i + k]))))
                << std::hex << "operand 0x" << in[i + k];
    }
}

QIMRA_AVX512 void sixteen_lanes(const uint32_t* in, uint32_t* out) {
    _mm512_storeu_si512(out, _mm512_castps_si512(recpe_f32x16_avx512(_mm512_castsi512_ps(_mm512_loadu_si512(in)))));
}

TEST(RecpeX86, SixteenLanesMatchTheScalarEstimate) {
    if (cpu_isa() < Isa::avx512) GTEST_SKIP() << "this processor has no AVX-512";
    const std::vector<uint32_t> in = operands();
    for (size_t i = 0; i + 16 <= in.size(); i += 16) {
        uint32_t out[16];
        sixteen_lanes(&in[i], out);
        for (size_t k = 0; k < 16; ++k)
            ASSERT_EQ(out[k], std::bit_cast<uint32_t>(recpe_f32(std::bit_cast<float>(in[i + k]))))
                << std::hex << "operand 0x" << in[i + k];
    }
}

}  // namespace
}  // namespace qimra::test

#endif  // QIMRA_X86_FORMS
