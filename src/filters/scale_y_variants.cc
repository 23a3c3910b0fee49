// Exported luma-scaling variants with no caller in the frame path: a
// quarter-size base spread over 4 x 4 blocks, a half-size base with the
// interleaved chroma scaled in the same pass, and the one-pass upscale by four
// with the tone curve applied on the fly.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "engine/ctx.h"
#include "filters/cheap_clamp.h"
#include "filters/scale_y.h"
#include "qimra/qimra.h"

namespace {

inline uint16_t table_entry(const uint16_t* lut, uint8_t y, uint8_t base) { return lut[qimra::tone_index(y, base)]; }

inline uint8_t luma_of(uint16_t entry) { return static_cast<uint8_t>(entry & 0xFF); }
inline uint8_t gain_of(uint16_t entry) { return static_cast<uint8_t>(entry >> 8); }

// Horizontal phases of the upscale by four, in sixteenths on the current and
// the next base sample (output positions 3/16, 7/16, 11/16, 15/16).
constexpr uint32_t kQuarterPhase[4][2] = {{13, 3}, {9, 7}, {5, 11}, {1, 15}};

}  // namespace

// Whole 4 x 4 blocks only. Inside a block rows are src_stride / dst_stride
// apart; from one block row to the next both pointers move by the rounded
// width plus three source strides, so the result is the plain 4 x 4 tiling
// only when both strides equal the width and the width is a multiple of 4
// (how every caller uses it). The base has one sample per block (stride
// width / 4); the gain plane (stride width / 2) takes the gains of the
// pixels at rows 0, 2 and columns 0, 2 of each block.
extern "C" void blc_scale_y(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride, const uint8_t* base,
                            uint8_t* gain, int width, int height, qimra_ctx* c) {
    const uint16_t* lut = c->chroma_lut16;
    const int blocks_x = width / 4;
    const int blocks_y = height / 4;
    const ptrdiff_t row_advance = 4 * static_cast<ptrdiff_t>(blocks_x) + 3 * static_cast<ptrdiff_t>(src_stride);
    const ptrdiff_t gain_stride = width / 2;
    for (int i = 0; i < blocks_y; ++i) {
        const uint8_t* s = src + i * row_advance;
        uint8_t* d = dst + i * row_advance;
        const uint8_t* b = base + static_cast<ptrdiff_t>(i) * blocks_x;
        uint8_t* g = gain + 2 * i * gain_stride;
        for (int j = 0; j < blocks_x; ++j) {
            const uint8_t bv = b[j];
            for (int ry = 0; ry < 4; ++ry) {
                const uint8_t* srow = s + static_cast<ptrdiff_t>(ry) * src_stride + 4 * j;
                uint8_t* drow = d + static_cast<ptrdiff_t>(ry) * dst_stride + 4 * j;
                uint8_t* grow = g + (ry / 2) * gain_stride + 2 * j;
                for (int rx = 0; rx < 4; ++rx) {
                    const uint16_t e = table_entry(lut, srow[rx], bv);
                    drow[rx] = luma_of(e);
                    if (ry % 2 == 0 && rx % 2 == 0) grow[rx / 2] = gain_of(e);
                }
            }
        }
    }
}

// Whole 2 x 2 blocks against a half-size base (stride width / 2), with the
// same block-row walk as blc_scale_y (rounded width plus one source stride).
// The interleaved chroma pair of each block (row stride the rounded width)
// is scaled by the gain of the block's bottom-right pixel, while the gain
// plane receives the top-left pixel's gain; the two choices differ on
// purpose and are kept.
extern "C" void blc_scale_yuv12_2x2nn(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride,
                                      const uint8_t* base, uint8_t* gain, int width, int height, qimra_ctx* c,
                                      const uint8_t* in_c1, const uint8_t* in_c2, uint8_t* out_c1, uint8_t* out_c2) {
    const uint16_t* lut = c->chroma_lut16;
    const int blocks_x = width / 2;
    const int blocks_y = height / 2;
    const ptrdiff_t rounded_width = 2 * static_cast<ptrdiff_t>(blocks_x);
    const ptrdiff_t row_advance = rounded_width + src_stride;
    for (int i = 0; i < blocks_y; ++i) {
        const uint8_t* s0 = src + i * row_advance;
        const uint8_t* s1 = s0 + src_stride;
        uint8_t* d0 = dst + i * row_advance;
        uint8_t* d1 = d0 + dst_stride;
        const uint8_t* b = base + static_cast<ptrdiff_t>(i) * blocks_x;
        uint8_t* g = gain + static_cast<ptrdiff_t>(i) * blocks_x;
        const ptrdiff_t chroma_row = i * rounded_width;
        for (int j = 0; j < blocks_x; ++j) {
            const uint8_t bv = b[j];
            const uint16_t e00 = table_entry(lut, s0[2 * j], bv);
            const uint16_t e01 = table_entry(lut, s0[2 * j + 1], bv);
            const uint16_t e10 = table_entry(lut, s1[2 * j], bv);
            const uint16_t e11 = table_entry(lut, s1[2 * j + 1], bv);
            d0[2 * j] = luma_of(e00);
            d0[2 * j + 1] = luma_of(e01);
            d1[2 * j] = luma_of(e10);
            d1[2 * j + 1] = luma_of(e11);
            g[j] = gain_of(e00);

            const uint8_t chroma_gain = gain_of(e11);
            const ptrdiff_t k = chroma_row + 2 * j;
            out_c1[k] = qimra::scale_chroma_cheap_clamp(in_c1[k], chroma_gain);
            out_c2[k] = qimra::scale_chroma_cheap_clamp(in_c2[k], chroma_gain);
        }
    }
}

// Upscales a quarter-size base by four and enhances in the same pass. The
// job supplies the base geometry: rs_src_width base columns Ws (each yields
// four output pixels, so 4 * Ws output columns), rs_src_stride, and the
// vertical ratio from rs_src_height Hs to rs_dst_height Hd. `height` output
// rows are produced; luma rows are src_stride / dst_stride apart (this
// variant is not tied to packed planes); the gain plane has stride width / 2.
//
// Vertical step, as the by-four enlarger derives it: enlarging (Hs <= Hd)
// maps the first and last rows onto each other, step = ((Hs - 1) << 16) /
// (Hd - 1), so the position never passes the last base row; reducing uses
// step = (Hs << 16) / Hd. A single destination row (Hd = 1, Hs <= 1) takes
// step 0. The start phase is 0 below a step of 1.0, otherwise half the
// step's fraction, or one half when that fraction is 0.
//
// Base rows and the right neighbour are clamped to the base: the row below
// the last base row (and a row past the end, if `height` exceeds what Hd
// describes) repeats the last row, and the last base column pairs with
// itself, so nothing outside the Ws x Hs base is ever read.
//
// Gain rows: output row r writes gain row (r + 1) / 2, so row 0 gives gain
// row 0 and gain row k >= 1 is written by row 2k - 1 and then overwritten by
// row 2k. With an even `height` the last output row writes gain row
// height / 2: the gain plane needs height / 2 + 1 rows.
extern "C" void qimra_upscale4_y_enh_mc(void* job_ptr, const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride,
                                        const uint8_t* base, uint8_t* gain, int width, int height, qimra_ctx* c) {
    const qimra_job* job = static_cast<const qimra_job*>(job_ptr);
    const int ws = job->rs_src_width;
    const int hs = job->rs_src_height;
    const int hd = job->rs_dst_height;
    const ptrdiff_t base_stride = job->rs_src_stride;
    const ptrdiff_t gain_stride = width / 2;

    uint32_t step;
    if (hs > hd) {
        step = (static_cast<uint32_t>(hs) << 16) / static_cast<uint32_t>(hd);
    } else if (hd > 1) {
        step = (static_cast<uint32_t>(hs - 1) << 16) / static_cast<uint32_t>(hd - 1);
    } else {
        step = 0;
    }
    uint32_t frac = 0;
    if (step >= 65536) frac = (step & 0xFFFF) != 0 ? (step & 0xFFFF) >> 1 : 32768;

    const uint8_t* gamma_lut = c->gamma_lut;
    const uint8_t* sig = c->sig50p1_lut;
    const int32_t* recip = c->recip16_b;
    uint64_t row = 0;
    for (int r = 0; r < height; ++r) {
        const uint32_t f = frac >> 12;
        const uint64_t last = static_cast<uint64_t>(hs - 1);
        const uint8_t* top = base + static_cast<ptrdiff_t>(std::min(row, last)) * base_stride;
        const uint8_t* bottom = base + static_cast<ptrdiff_t>(std::min(row + 1, last)) * base_stride;
        const uint8_t* srow = src + static_cast<ptrdiff_t>(r) * src_stride;
        uint8_t* drow = dst + static_cast<ptrdiff_t>(r) * dst_stride;
        uint8_t* grow = gain + static_cast<ptrdiff_t>((r + 1) / 2) * gain_stride;

        for (int x = 0; x < ws; ++x) {
            const int xn = std::min(x + 1, ws - 1);
            for (int k = 0; k < 4; ++k) {
                const uint32_t h_top = kQuarterPhase[k][0] * top[x] + kQuarterPhase[k][1] * top[xn];
                const uint32_t h_bottom = kQuarterPhase[k][0] * bottom[x] + kQuarterPhase[k][1] * bottom[xn];
                // Weights sum to 256: b2 is half the interpolated base, 0..127.
                const int32_t b2 = static_cast<int32_t>(((16 - f) * h_top + f * h_bottom) >> 9);
                const int32_t y = srow[4 * x + k];
                const int32_t t = gamma_lut[b2] + sig[y] * (y - b2);
                const uint32_t level = static_cast<uint32_t>(t) >> 7;
                drow[4 * x + k] = static_cast<uint8_t>(level);
                if (k % 2 == 0) {
                    // 32 * output / (Y + 8) through the table of 65536 / n.
                    const uint32_t g = (static_cast<uint32_t>(recip[y]) * (level & 0xFFFF)) >> 11;
                    grow[2 * x + k / 2] = static_cast<uint8_t>(g);
                }
            }
        }

        const uint64_t sum = static_cast<uint64_t>(frac) + step;
        row += sum >> 16;
        frac = static_cast<uint32_t>(sum & 0xFFFF);
    }
}
