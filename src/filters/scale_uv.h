// Chroma scaling by the per-block gain of the luma table, around 128.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qimra {

// One chroma sample: (c - 128) * g + 4096 in 16-bit arithmetic that wraps
// (large gains on saturated colours read as negative and give 0), then a
// rounding shift by 5 saturated to 0..255.
inline uint8_t scale_chroma(uint8_t c, uint8_t g) {
    const auto v = static_cast<int16_t>(static_cast<uint16_t>((uint32_t{c} - 128u) * g + 4096u));
    const int32_t r = (int32_t{v} + 16) >> 5;
    return static_cast<uint8_t>(r < 0 ? 0 : r > 255 ? 255 : r);
}

// Groups of 8 chroma pairs the routines process for a band: the inner loop
// steps 16 luma columns and the outer 2 luma rows, each at least once.
inline std::size_t scale_uv_groups(int32_t width, int32_t height) {
    const std::size_t steps = width > 0 ? static_cast<std::size_t>(width - 1) / 16 + 1 : 1;
    const std::size_t rows = height > 0 ? static_cast<std::size_t>(height - 1) / 2 + 1 : 1;
    return steps * rows;
}

void scale_uv_planar_c(const uint8_t* in_u, const uint8_t* in_v, uint8_t* out_u, uint8_t* out_v, const uint8_t* gain,
                       int32_t width, int32_t height);
void scale_uv_nv_c(const uint8_t* in_uv, uint8_t* out_uv, const uint8_t* gain, int32_t width, int32_t height);

// Lane-for-lane NEON: 8 pairs per step, two steps at a time.
void scale_uv_planar_neon(const uint8_t* in_u, const uint8_t* in_v, uint8_t* out_u, uint8_t* out_v, const uint8_t* gain,
                          int32_t width, int32_t height);
void scale_uv_nv_neon(const uint8_t* in_uv, uint8_t* out_uv, const uint8_t* gain, int32_t width, int32_t height);

// x86-64 has its own vector forms: translated, the NEON widening and
// narrowing of 8-lane halves costs several shuffles each. The AVX2 forms
// take 32-byte steps and finish with the SSE4.1 steps from pair `first` on.
void scale_uv_planar_sse41(const uint8_t* in_u, const uint8_t* in_v, uint8_t* out_u, uint8_t* out_v,
                           const uint8_t* gain, int32_t width, int32_t height);
void scale_uv_nv_sse41(const uint8_t* in_uv, uint8_t* out_uv, const uint8_t* gain, int32_t width, int32_t height);
void scale_uv_planar_sse41_from(const uint8_t* in_u, const uint8_t* in_v, uint8_t* out_u, uint8_t* out_v,
                                const uint8_t* gain, std::size_t first, std::size_t pairs);
void scale_uv_nv_sse41_from(const uint8_t* in_uv, uint8_t* out_uv, const uint8_t* gain, std::size_t first,
                            std::size_t pairs);
void scale_uv_planar_avx2(const uint8_t* in_u, const uint8_t* in_v, uint8_t* out_u, uint8_t* out_v, const uint8_t* gain,
                          int32_t width, int32_t height);
void scale_uv_nv_avx2(const uint8_t* in_uv, uint8_t* out_uv, const uint8_t* gain, int32_t width, int32_t height);

}  // namespace qimra
