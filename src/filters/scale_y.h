// Luma enhancement through the tone-and-gain table: one 16-bit look-up per
// pixel, indexed (Y << 7) | (B >> 1) by input luma Y and base value B. The
// low byte is the output luma; the high byte the chroma gain (1/32 units)
// that the gain plane receives once per 2 x 2 block.
#pragma once

#include <cstdint>

namespace qimra {

// Look-up index of a pixel against its base value: base values 2k and
// 2k + 1 share an entry.
inline uint32_t tone_index(uint8_t y, uint8_t base) { return (uint32_t{y} << 7) | (uint32_t{base} >> 1); }

// Per-pixel forms of blc_scale_y_fs and blc_scale_y_2x2nn, given the table
// (the engine's chroma_lut16) rather than the engine.
void scale_y_fs_c(const uint8_t* src, int32_t src_stride, uint8_t* dst, int32_t dst_stride, const uint8_t* base,
                  uint8_t* gain, int32_t width, int32_t height, const uint16_t* lut);
void scale_y_2x2nn_c(const uint8_t* src, int32_t src_stride, uint8_t* dst, int32_t dst_stride, const uint8_t* base,
                     uint8_t* gain, int32_t width, int32_t height, const uint16_t* lut);

}  // namespace qimra
