// Luma enhancement through the tone-and-gain table: one 16-bit look-up per
// pixel, indexed (Y << 7) | (B >> 1) by input luma Y and base value B. The
// low byte is the output luma; the high byte the chroma gain (1/32 units)
// that the gain plane receives once per 2 x 2 block.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qimra {

// Look-up index of a pixel against its base value: base values 2k and
// 2k + 1 share an entry.
inline uint32_t tone_index(uint8_t y, uint8_t base) { return (uint32_t{y} << 7) | (uint32_t{base} >> 1); }

// Blocks [first, last) of one row of 2 x 2 blocks against a half-size base:
// rows s0 / s1 into d0 / d1, one base sample and one gain (the top-left
// pixel's) per block.
inline void scale_blocks_2x2nn(const uint8_t* s0, const uint8_t* s1, uint8_t* d0, uint8_t* d1, const uint8_t* base,
                               uint8_t* gain, const uint16_t* lut, int32_t first, int32_t last) {
    for (int32_t j = first; j < last; ++j) {
        // One half-size base sample serves the whole 2 x 2 block.
        const uint8_t b = base[j];
        const uint16_t e00 = lut[tone_index(s0[2 * j], b)];
        const uint16_t e01 = lut[tone_index(s0[2 * j + 1], b)];
        const uint16_t e10 = lut[tone_index(s1[2 * j], b)];
        const uint16_t e11 = lut[tone_index(s1[2 * j + 1], b)];
        d0[2 * j] = static_cast<uint8_t>(e00);
        d0[2 * j + 1] = static_cast<uint8_t>(e01);
        d1[2 * j] = static_cast<uint8_t>(e10);
        d1[2 * j + 1] = static_cast<uint8_t>(e11);
        gain[j] = static_cast<uint8_t>(e00 >> 8);
    }
}

// The walk of blc_scale_y_2x2nn over whole 2 x 2 blocks (see scale_y.cc):
// row(s0, s1, d0, d1, base, gain, blocks) scales one row of blocks.
template <typename Row>
inline void walk_block_rows_2x2nn(const uint8_t* src, int32_t src_stride, uint8_t* dst, int32_t dst_stride,
                                  const uint8_t* base, uint8_t* gain, int32_t width, int32_t height, Row row) {
    const int32_t blocks_w = width / 2;
    const int32_t blocks_h = height / 2;
    if (blocks_w <= 0 || blocks_h <= 0) return;
    const std::ptrdiff_t ss = src_stride, ds = dst_stride;
    const std::ptrdiff_t luma_advance = 2 * blocks_w + ss;
    for (int32_t k = 0; k < blocks_h; ++k) {
        row(src, src + ss, dst, dst + ds, base, gain, blocks_w);
        src += luma_advance;
        dst += luma_advance;
        base += blocks_w;
        gain += blocks_w;
    }
}

// Per-pixel forms of blc_scale_y_fs and blc_scale_y_2x2nn, given the table
// (the engine's chroma_lut16) rather than the engine.
void scale_y_fs_c(const uint8_t* src, int32_t src_stride, uint8_t* dst, int32_t dst_stride, const uint8_t* base,
                  uint8_t* gain, int32_t width, int32_t height, const uint16_t* lut);
void scale_y_2x2nn_c(const uint8_t* src, int32_t src_stride, uint8_t* dst, int32_t dst_stride, const uint8_t* base,
                     uint8_t* gain, int32_t width, int32_t height, const uint16_t* lut);
// The Thumb-2 form of scale_y_2x2nn_c, built where QIMRA_ARM_FORMS holds
// (simd/arm.h).
void scale_y_2x2nn_arm(const uint8_t* src, int32_t src_stride, uint8_t* dst, int32_t dst_stride, const uint8_t* base,
                       uint8_t* gain, int32_t width, int32_t height, const uint16_t* lut);

}  // namespace qimra
