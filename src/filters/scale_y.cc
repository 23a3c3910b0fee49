// blc_scale_y_fs and blc_scale_y_2x2nn. The table look-up cannot be
// vectorised on NEON (no gather), so these are tight scalar loops over two
// rows at a time; on 32-bit ARM the half-size form has a hand-scheduled
// Thumb-2 loop (scale_y_arm.cc).
//
// Pointer walk: inside a block, rows are src_stride / dst_stride apart; from
// one block row to the next the source and destination both advance by the
// width rounded down to whole blocks plus (block height - 1) * src_stride.
// That is exactly one block row when both strides equal the width and the
// width is whole blocks, which is how the frame calls them; any other layout
// gets the same walk and its rows drift accordingly. The base and the gain
// plane are addressed by their own row lengths (width or width / 2).
#include "filters/scale_y.h"

#include <cstddef>

#include "engine/ctx.h"
#include "simd/arm.h"
#include "simd/dispatch.h"

namespace qimra {
namespace {

// Two rows of full-size luma against a full-size base; the entry of every
// even column of the upper (even) row also gives its 2 x 2 block's gain.
inline void scale_row_pair_fs(const uint8_t* s0, const uint8_t* s1, uint8_t* d0, uint8_t* d1, const uint8_t* b0,
                              const uint8_t* b1, uint8_t* gain, int32_t width, const uint16_t* lut) {
    for (int32_t x = 0; x < width; x += 2) {
        const uint16_t e00 = lut[tone_index(s0[x], b0[x])];
        const uint16_t e01 = lut[tone_index(s0[x + 1], b0[x + 1])];
        const uint16_t e10 = lut[tone_index(s1[x], b1[x])];
        const uint16_t e11 = lut[tone_index(s1[x + 1], b1[x + 1])];
        d0[x] = static_cast<uint8_t>(e00);
        d0[x + 1] = static_cast<uint8_t>(e01);
        d1[x] = static_cast<uint8_t>(e10);
        d1[x + 1] = static_cast<uint8_t>(e11);
        gain[x >> 1] = static_cast<uint8_t>(e00 >> 8);
    }
}

}  // namespace

void scale_y_fs_c(const uint8_t* src, int32_t src_stride, uint8_t* dst, int32_t dst_stride, const uint8_t* base,
                  uint8_t* gain, int32_t width, int32_t height, const uint16_t* lut) {
    const int32_t blocks_w = width / 4;
    const int32_t blocks_h = height / 4;
    if (blocks_w <= 0 || blocks_h <= 0) return;
    const int32_t cols = 4 * blocks_w;
    const std::ptrdiff_t ss = src_stride, ds = dst_stride, bs = width, gs = width / 2;
    const std::ptrdiff_t luma_advance = cols + 3 * ss;
    for (int32_t k = 0; k < blocks_h; ++k) {
        // Rows 0 and 2 of the block are the even rows; they carry the gains.
        scale_row_pair_fs(src, src + ss, dst, dst + ds, base, base + bs, gain, cols, lut);
        scale_row_pair_fs(src + 2 * ss, src + 3 * ss, dst + 2 * ds, dst + 3 * ds, base + 2 * bs, base + 3 * bs,
                          gain + gs, cols, lut);
        src += luma_advance;
        dst += luma_advance;
        base += 4 * bs;
        gain += 2 * gs;
    }
}

void scale_y_2x2nn_c(const uint8_t* src, int32_t src_stride, uint8_t* dst, int32_t dst_stride, const uint8_t* base,
                     uint8_t* gain, int32_t width, int32_t height, const uint16_t* lut) {
    walk_block_rows_2x2nn(
        src, src_stride, dst, dst_stride, base, gain, width, height,
        [lut](const uint8_t* s0, const uint8_t* s1, uint8_t* d0, uint8_t* d1, const uint8_t* b, uint8_t* g,
              int32_t blocks) { scale_blocks_2x2nn(s0, s1, d0, d1, b, g, lut, 0, blocks); });
}

}  // namespace qimra

using namespace qimra;

extern "C" void blc_scale_y_fs(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride, const uint8_t* base,
                               uint8_t* gain, int width, int height, qimra_ctx* c) {
    using Form = decltype(&scale_y_fs_c);
    static const Form form = select_form<Form>({.c = scale_y_fs_c});
    form(src, src_stride, dst, dst_stride, base, gain, width, height, c->chroma_lut16);
}

extern "C" void blc_scale_y_2x2nn(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride, const uint8_t* base,
                                  uint8_t* gain, int width, int height, qimra_ctx* c) {
    using Form = decltype(&scale_y_2x2nn_c);
    static const Form form = select_form<Form>({.c = scale_y_2x2nn_c, .neon = QIMRA_ARM_FORM(scale_y_2x2nn_arm)});
    form(src, src_stride, dst, dst_stride, base, gain, width, height, c->chroma_lut16);
}
