// Exported chroma variants with no caller in the frame path: the scalar
// 4:1:0 scaler and the vector self-test routine.
#include "filters/scale_uv_variants.h"

#include <cstddef>

#include "filters/cheap_clamp.h"
#include "qimra/qimra.h"
#include "simd/dispatch.h"

namespace qimra {

void test_asm_bytes_c(const uint8_t* in, uint8_t* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = static_cast<uint8_t>(3u * (2u * in[i] + 233u));
}

}  // namespace qimra

namespace {

void test_asm_bytes(const uint8_t* in, uint8_t* out, int n) {
    using Form = decltype(&qimra::test_asm_bytes_neon);
    static const Form form = qimra::select_form<Form>({.neon = QIMRA_NEON_FORM(qimra::test_asm_bytes_neon)});
    const int vec = form != nullptr ? n & ~15 : 0;
    if (vec > 0) form(in, out, vec);
    qimra::test_asm_bytes_c(in + vec, out + vec, n - vec);
}

}  // namespace

// Height / 4 row groups of width / 4 chroma pairs. The component pointers
// step by two (interleaved pairs), the gain is read at the first component's
// index, and after each group every pointer moves on by a further width / 2.
// Unlike the vector chroma scalers there is no rounding term: the shift
// floors, and the cheap clamp replaces saturation.
extern "C" void blc_scale_uv_nv_410(const uint8_t* in_c1, const uint8_t* in_c2, uint8_t* out_c1, uint8_t* out_c2,
                                    const uint8_t* gain, int width, int height) {
    const int pairs = width / 4;
    const ptrdiff_t group_advance = 2 * pairs + width / 2;
    for (int r = 0; r < height / 4; ++r) {
        for (int i = 0; i < pairs; ++i) {
            const int j = 2 * i;
            out_c1[j] = qimra::scale_chroma_cheap_clamp(in_c1[j], gain[j]);
            out_c2[j] = qimra::scale_chroma_cheap_clamp(in_c2[j], gain[j]);
        }
        in_c1 += group_advance;
        in_c2 += group_advance;
        out_c1 += group_advance;
        out_c2 += group_advance;
        gain += group_advance;
    }
}

// Loop shape of the vector routines it checks: 16 bytes a step until the
// width counter is no longer positive (so at least one step, and whole steps
// only; width is meant to be a multiple of 16), then every pointer skips one
// further row of `width` bytes while the row counter drops by two, so rows
// 0, 2, 4, ... of planes `width` bytes wide are processed, at least one.
extern "C" void test_asm(const uint8_t* in1, const uint8_t* in2, uint8_t* out1, uint8_t* out2, int width, int height) {
    int steps = 1;
    for (int w = width - 16; w > 0; w -= 16) ++steps;
    const int row_bytes = 16 * steps;
    const ptrdiff_t row_advance = static_cast<ptrdiff_t>(row_bytes) + width;
    int h = height;
    do {
        test_asm_bytes(in1, out1, row_bytes);
        test_asm_bytes(in2, out2, row_bytes);
        in1 += row_advance;
        in2 += row_advance;
        out1 += row_advance;
        out2 += row_advance;
        h -= 2;
    } while (h > 0);
}
