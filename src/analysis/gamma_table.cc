// The tone table built for each enhanced frame.
#include "analysis/gamma_table.h"

#include <cmath>
#include <cstdint>

#include "engine/ctx.h"
#include "simd/convert.h"
#include "simd/dispatch.h"

namespace qimra {

void gamma_line_c(uint8_t* out, int32_t b, int64_t d, int32_t k_begin, int32_t k_end) {
    for (int32_t k = k_begin; k < k_end; ++k) {
        const int64_t q = (k * d) / 191;  // C++ division truncates toward zero
        out[64 + k] = static_cast<uint8_t>(static_cast<uint64_t>(b) + static_cast<uint64_t>(q));
    }
}

namespace {

// P(s) = pow(s / M, gamma): float arguments, double power, rounded back to
// float. P(0) is inv * 0.0 rather than pow(0, gamma): 0 whatever the gamma,
// NaN when M is 0 (inv infinite).
float power_knot(int32_t s, float inv, float gamma) {
    if (s == 0) return inv * 0.0f;
    const float base = static_cast<float>(s) * inv;
    return static_cast<float>(std::pow(static_cast<double>(base), static_cast<double>(gamma)));
}

// Blocks s = 0, 8, ... while s < s_limit, each interpolated linearly between
// its two knots; input 0 is never written here. The last block may run past
// s_limit up to the next multiple of 8 minus one.
void power_segment(uint8_t* out, float gamma, float mid, float inv, int32_t s_limit) {
    for (int32_t s = 0; s < s_limit; s += 8) {
        const float p0 = power_knot(s, inv, gamma);
        const float p1 = power_knot(s + 8, inv, gamma);
        const float step = p1 - p0;
        for (int32_t i = (s == 0 ? 1 : s); i <= s + 7; ++i) {
            const float v = (p0 + (static_cast<float>(i - s) * step) * 0.125f) * mid;
            // Entries of 256 or more keep their low 8 bits (they wrap).
            out[i] = low_byte_of_u32(v);
        }
    }
}

void straight_part(uint8_t* out, int32_t b, int64_t d) {
    using Form = decltype(&gamma_line_neon);
    static const Form form = select_form<Form>({.neon = QIMRA_NEON_FORM(gamma_line_neon)});
    int32_t k = 1;
    if (form != nullptr && d >= -255 && d <= 255) {
        const int32_t first_aligned =
            k + static_cast<int32_t>((16 - (reinterpret_cast<uintptr_t>(out + 64 + k) & 15)) & 15);
        gamma_line_c(out, b, d, k, first_aligned);
        const int32_t vector_end = first_aligned + ((192 - first_aligned) & ~15);
        form(out, b, static_cast<int32_t>(d), first_aligned, vector_end);
        k = vector_end;
    }
    gamma_line_c(out, b, d, k, 192);
}

}  // namespace
}  // namespace qimra

using namespace qimra;

extern "C" void create_gamma_tab(uint8_t* out, int32_t* /*table: accepted, never read*/, float gamma, uint8_t mid,
                                 int top) {
    const float m = static_cast<float>(mid);
    const float inv = 1.0f / m;

    out[0] = 0;
    power_segment(out, gamma, m, inv, mid);
    for (int32_t j = mid; j < 256; ++j) out[j] = static_cast<uint8_t>(j);
    // The power curve always covers inputs 1-63, even above a mid point
    // below 64; passes 1 and 2 only decide out[64], where the line starts.
    power_segment(out, gamma, m, inv, 64);

    const int32_t b = out[64];
    straight_part(out, b, static_cast<int64_t>(top) - b);
}
