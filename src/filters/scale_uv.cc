// blc_scale_uv_planar and blc_scale_uv_nv. There are no strides: every
// pointer runs on continuously, so the planes (and the gain plane) must hold
// their rows back to back, width / 2 pairs each, with width a multiple of 16.
// Both loops test after the step, so a zero width or height still processes
// one group of 8 pairs per row and one row.
#include "filters/scale_uv.h"

#include "qimra/qimra.h"
#include "simd/dispatch.h"

namespace qimra {

void scale_uv_planar_c(const uint8_t* in_u, const uint8_t* in_v, uint8_t* out_u, uint8_t* out_v, const uint8_t* gain,
                       int32_t width, int32_t height) {
    int32_t rows_left = height;
    do {
        int32_t cols_left = width;
        do {
            for (int i = 0; i < 8; ++i) {
                out_u[i] = scale_chroma(in_u[i], gain[i]);
                out_v[i] = scale_chroma(in_v[i], gain[i]);
            }
            in_u += 8;
            in_v += 8;
            out_u += 8;
            out_v += 8;
            gain += 8;
            cols_left -= 16;
        } while (cols_left > 0);
        rows_left -= 2;
    } while (rows_left > 0);
}

void scale_uv_nv_c(const uint8_t* in_uv, uint8_t* out_uv, const uint8_t* gain, int32_t width, int32_t height) {
    int32_t rows_left = height;
    do {
        int32_t cols_left = width;
        do {
            for (int i = 0; i < 8; ++i) {
                out_uv[2 * i] = scale_chroma(in_uv[2 * i], gain[i]);
                out_uv[2 * i + 1] = scale_chroma(in_uv[2 * i + 1], gain[i]);
            }
            in_uv += 16;
            out_uv += 16;
            gain += 8;
            cols_left -= 16;
        } while (cols_left > 0);
        rows_left -= 2;
    } while (rows_left > 0);
}

}  // namespace qimra

using namespace qimra;

extern "C" void blc_scale_uv_planar(const uint8_t* in_u, const uint8_t* in_v, uint8_t* out_u, uint8_t* out_v,
                                    const uint8_t* gain, int width, int height) {
    using Form = decltype(&scale_uv_planar_c);
    static const Form form =
        select_form<Form>({scale_uv_planar_c, QIMRA_NEON_FORM(scale_uv_planar_neon),
                           QIMRA_X86_FORM(scale_uv_planar_sse41), QIMRA_X86_FORM(scale_uv_planar_avx2)});
    form(in_u, in_v, out_u, out_v, gain, width, height);
}

extern "C" void blc_scale_uv_nv(const uint8_t* in_uv, const uint8_t*, uint8_t* out_uv, uint8_t*, const uint8_t* gain,
                                int width, int height) {
    using Form = decltype(&scale_uv_nv_c);
    static const Form form = select_form<Form>({scale_uv_nv_c, QIMRA_NEON_FORM(scale_uv_nv_neon),
                                                QIMRA_X86_FORM(scale_uv_nv_sse41), QIMRA_X86_FORM(scale_uv_nv_avx2)});
    form(in_uv, out_uv, gain, width, height);
}
