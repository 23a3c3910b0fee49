// Every vector form of every kernel family against its per-pixel form, byte
// for byte: widths with odd remainders of each vector width, random and
// photographic content, inputs that end exactly at a page end. The exported
// functions (dispatch and remainder) are held to the per-pixel forms by the
// Golden* suites, which run under every instruction-set level.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "filters/guided_filter.h"
#include "filters/guided_filter_variants.h"
#include "filters/integral_image.h"
#include "filters/scale_uv.h"
#include "filters/scale_uv_variants.h"
#include "filters/scale_y.h"
#include "qimra/qimra.h"
#include "resample/downscale4.h"
#include "resample/u_mat.h"
#include "resample/upscale2.h"
#include "resample/upscale4.h"
#include "simd/arm.h"
#include "support/buffers.h"
#include "support/forms.h"

namespace qimra::test {
namespace {

const int kWidths[] = {1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 31, 32, 33, 63, 64, 65, 127, 129, 1283};
const uint32_t kSeeds[] = {2, 3};  // random, photograph

std::string label(const char* form, int w, uint32_t seed) {
    return std::string(form) + " width " + std::to_string(w) + (seed % 2 ? " photo" : " random");
}

TEST(KernelForms, ScaleUv) {
    using Planar = decltype(&scale_uv_planar_c);
    using Nv = decltype(&scale_uv_nv_c);
    const auto planar = vector_forms<Planar>({.neon = QIMRA_NEON_FORM(scale_uv_planar_neon),
                                              .sse41 = QIMRA_X86_FORM(scale_uv_planar_sse41),
                                              .avx2 = QIMRA_X86_FORM(scale_uv_planar_avx2)});
    const auto nv = vector_forms<Nv>({.neon = QIMRA_NEON_FORM(scale_uv_nv_neon),
                                      .sse41 = QIMRA_X86_FORM(scale_uv_nv_sse41),
                                      .avx2 = QIMRA_X86_FORM(scale_uv_nv_avx2)});
    ASSERT_EQ(planar.size(), nv.size());
    // Width 16 over 16384 rows: all 65536 (sample, gain) pairs once, so every
    // wrap, rounding and saturation case meets every form.
    struct Size {
        int w, h;
    } const sizes[] = {{16, 16384}, {0, 0}, {-16, 3}, {17, 2}, {48, 7}, {1936, 4}, {960, 1}};
    for (const Size s : sizes)
        for (uint32_t seed : kSeeds) {
            const size_t n = 8 * scale_uv_groups(s.w, s.h);
            PageEnd u(n, seed), v(n, seed + 2), uv(2 * n, seed + 4), gain(n, seed + 6);
            if (s.w == 16)
                for (size_t i = 0; i < n; ++i) {
                    u.data()[i] = uv.data()[2 * i] = uint8_t(i);
                    v.data()[i] = uv.data()[2 * i + 1] = uint8_t(~i);
                    gain.data()[i] = uint8_t(i >> 8);
                }
            std::vector<uint8_t> wu(n), wv(n), wuv(2 * n);
            scale_uv_planar_c(u.data(), v.data(), wu.data(), wv.data(), gain.data(), s.w, s.h);
            scale_uv_nv_c(uv.data(), wuv.data(), gain.data(), s.w, s.h);
            for (size_t f = 0; f < planar.size(); ++f) {
                const std::string at = label(planar[f].first, s.w, seed) + " height " + std::to_string(s.h);
                std::vector<uint8_t> gu(n), gv(n), guv(2 * n);
                planar[f].second(u.data(), v.data(), gu.data(), gv.data(), gain.data(), s.w, s.h);
                nv[f].second(uv.data(), guv.data(), gain.data(), s.w, s.h);
                ASSERT_TRUE(gu == wu && gv == wv && guv == wuv) << at;
                std::vector<uint8_t> iu = u.bytes(), iv = v.bytes(), iuv = uv.bytes();
                planar[f].second(iu.data(), iv.data(), iu.data(), iv.data(), gain.data(), s.w, s.h);
                nv[f].second(iuv.data(), iuv.data(), gain.data(), s.w, s.h);
                ASSERT_TRUE(iu == wu && iv == wv && iuv == wuv) << at << " in place";
            }
        }
}

#if QIMRA_ARM_FORMS
TEST(KernelForms, ScaleY2x2Thumb2) {
    std::vector<uint16_t> lut(32768);
    fill_content(reinterpret_cast<uint8_t*>(lut.data()), 65536, 5);
    for (int w : kWidths)
        for (int h : {2, 3, 6})
            for (uint32_t seed : kSeeds) {
                PageEnd src(size_t(w) * h, seed), base(size_t(w / 2) * (h / 2), seed + 2);
                std::vector<uint8_t> want(src.size(), 1), got = want, wg(base.size() + 1, 2), gg = wg;
                scale_y_2x2nn_c(src.data(), w, want.data(), w, base.data(), wg.data(), w, h, lut.data());
                scale_y_2x2nn_arm(src.data(), w, got.data(), w, base.data(), gg.data(), w, h, lut.data());
                ASSERT_TRUE(got == want && gg == wg) << label("thumb-2", w, seed) << " height " << h;
            }
}
#endif

TEST(KernelForms, IntegralRows) {
    using Row = decltype(&integral_row_neon);
    const auto forms =
        vector_forms<Row>({.neon = QIMRA_NEON_FORM(integral_row_neon), .sse41 = QIMRA_X86_FORM(integral_row_sse41)});
    for (int w : kWidths)
        for (uint32_t seed : kSeeds) {
            // The row above holds sums near 2^32, so the vector lanes must wrap as the scalar sums do.
            PageEnd row(size_t(w), seed), above(8 * size_t(w), seed + 2);
            for (size_t k = 0; k < 2 * size_t(w); ++k) above.as<uint32_t>()[k] |= 0xFFF00000u;
            std::vector<uint32_t> want(4 * size_t(w));
            std::memcpy(want.data(), above.data(), above.size());
            RowRun wrun{0xFFFFFF00u, 0xFFFF0000u};
            integral_row_c(row.data(), w, want.data() + w, want.data() + 3 * w, -w, wrun);
            for (const auto& [name, fn] : forms) {
                std::vector<uint32_t> got(4 * size_t(w));
                std::memcpy(got.data(), above.data(), above.size());
                RowRun run{0xFFFFFF00u, 0xFFFF0000u};
                const int done = fn(row.data(), w, got.data() + w, got.data() + 3 * w, -w, run);
                integral_row_c(row.data() + done, w - done, got.data() + w + done, got.data() + 3 * w + done, -w, run);
                ASSERT_TRUE(got == want && run.sum == wrun.sum && run.sq == wrun.sq) << label(name, w, seed);
            }
        }
}

// Padded tables of radius r (border r, stride width + 2r + 1) in buffers that
// end at a page end: the summed-area tables of the edge-replicated image.
struct Tables {
    int w, h, r, stride;
    PageEnd src, sum, sq;
    Tables(int w_, int h_, int r_, uint32_t seed)
        : w(w_), h(h_), r(r_), stride(w_ + 2 * r_ + 1), src(size_t(w_) * h_, seed),
          sum(4 * size_t(stride) * (h_ + 2 * r_ + 1)), sq(sum.size()) {
        if (seed % 4 == 1)  // bright windows: square sums beyond 2^24 round on conversion to float
            for (size_t i = 0; i < src.size(); ++i) src.data()[i] = uint8_t(200 + src.data()[i] % 56);
        std::vector<uint8_t> padded(size_t(stride - 1) * (h + 2 * r));
        for (int y = 0; y < h + 2 * r; ++y)
            for (int x = 0; x < w + 2 * r; ++x)
                padded[size_t(y) * (stride - 1) + x] =
                    src.data()[size_t(std::clamp(y - r, 0, h - 1)) * w + std::clamp(x - r, 0, w - 1)];
        blc_gen_ii(padded.data(), stride - 1, stride, stride - 1, h + 2 * r, sum.as<uint32_t>(), sq.as<uint32_t>());
    }
};

// Far from the frame path's 0.04: a above 1 (outputs wrap), zero and huge
// denominators, infinities, NaN and denormals through the estimate.
const float kEps[] = {0.04f, 0.001f,  0.5f,  0.0f,     -0.1f,     -0.2f, 1e-40f, -1e-40f,
                      1e25f, FLT_MAX, 1e37f, INFINITY, -INFINITY, NAN,   1e-30f};

TEST(KernelForms, GuidedFilter) {
    using OnePass = decltype(&self_guided_filter_1pass_neon);
    const auto one = vector_forms<OnePass>({.neon = QIMRA_NEON_FORM(self_guided_filter_1pass_neon),
                                            .sse41 = QIMRA_X86_FORM(self_guided_filter_1pass_sse41),
                                            .avx2 = QIMRA_X86_FORM(self_guided_filter_1pass_avx2),
                                            .avx512 = QIMRA_X86_FORM(self_guided_filter_1pass_avx512)});
    using TwoPass = decltype(&guided_2pass_coefficients_neon);
    const auto two = vector_forms<TwoPass>({.neon = QIMRA_NEON_FORM(guided_2pass_coefficients_neon)});
    for (int r : {8, 1, 3, 0})
        for (int w : {4, 8, 12, 20, 36, 100, 484, 5, 67})
            for (uint32_t seed : {2u, 3u, 5u}) {
                const int h = r == 8 ? 7 : 3;
                Tables t(w, h, r, seed + w);
                const uint32_t *sum = t.sum.as<uint32_t>(), *sq = t.sq.as<uint32_t>();
                for (float eps : kEps) {
                    const std::string at =
                        label("", w, seed) + " r " + std::to_string(r) + " eps " + std::to_string(eps);
                    std::vector<uint8_t> want(t.src.size() + 4, 0xAA);
                    self_guided_filter_1pass_c(t.src.data(), sum, sq, r, eps, want.data(), w, h, 0);
                    for (const auto& [name, fn] : one) {
                        std::vector<uint8_t> got(want.size(), 0x55);
                        const int done = fn(t.src.data(), sum, sq, r, eps, got.data(), w, h);
                        EXPECT_EQ(done, w / 4 * 4) << name << at;
                        self_guided_filter_1pass_c(t.src.data(), sum, sq, r, eps, got.data(), w, h, done);
                        ASSERT_EQ(got, want) << name << at;
                    }
                    const float inv_n = 1.0f / float((2 * r + 1) * (2 * r + 1));
                    for (int y = 0; y < h; y += 2) {
                        const PaddedWindows win{sum + y * t.stride, sq + y * t.stride, t.stride, 2 * r + 1};
                        std::vector<float> wa(w), wb(w);
                        guided_2pass_coefficients_c(win, inv_n, eps, wa.data(), wb.data(), w);
                        for (const auto& [name, fn] : two) {
                            std::vector<float> a(w), b(w);
                            const int done = fn(win, inv_n, eps, a.data(), b.data(), w);
                            const PaddedWindows rest{win.sum_top + done, win.sq_top + done, t.stride, 2 * r + 1};
                            guided_2pass_coefficients_c(rest, inv_n, eps, a.data() + done, b.data() + done, w - done);
                            ASSERT_EQ(std::memcmp(a.data(), wa.data(), 4 * size_t(w)), 0) << name << " a" << at;
                            ASSERT_EQ(std::memcmp(b.data(), wb.data(), 4 * size_t(w)), 0) << name << " b" << at;
                        }
                    }
                }
            }
}

// Row kernels of the resamplers: vector forms do a leading part, the
// per-pixel form finishes from where they stopped.
TEST(KernelForms, ResampleRows) {
    using Down4 = decltype(&downscale4_row_neon);
    using Up2 = decltype(&upscale2_rows_neon);
    using Up4 = decltype(&upscale4_row_neon);
    using VLinear = decltype(&vresizeLinear_neon);
    using Area = decltype(&area_mean_2x2_neon);
    using Bytes = decltype(&test_asm_bytes_c);
    const auto down4 = vector_forms<Down4>({.neon = QIMRA_NEON_FORM(downscale4_row_neon)});
    const auto up2 = vector_forms<Up2>({.neon = QIMRA_NEON_FORM(upscale2_rows_neon),
                                        .sse41 = QIMRA_X86_FORM(upscale2_rows_sse41),
                                        .avx2 = QIMRA_X86_FORM(upscale2_rows_avx2)});
    const auto up4 = vector_forms<Up4>({.neon = QIMRA_NEON_FORM(upscale4_row_neon)});
    const auto vlin = vector_forms<VLinear>({.neon = QIMRA_NEON_FORM(vresizeLinear_neon)});
    const auto area = vector_forms<Area>({.neon = QIMRA_NEON_FORM(area_mean_2x2_neon)});
    const auto bytes = vector_forms<Bytes>({.neon = QIMRA_NEON_FORM(test_asm_bytes_neon)});
    for (int w : kWidths)
        for (uint32_t seed : kSeeds) {
            const std::string at = label("", w, seed);
            const size_t n = size_t(w);
            PageEnd a(4 * n, seed), b(4 * n, seed + 2), r0(4 * n), r1(4 * n);
            for (size_t x = 0; x < n; ++x) {  // buffered rows of the linear resize: pixel << 11 plus a fraction
                r0.as<int>()[x] = a.data()[x] << 11 | b.data()[x] << 3;
                r1.as<int>()[x] = b.data()[n + x] << 11 | a.data()[n + x] << 3;
            }
            std::vector<uint8_t> want(8 * n), got;
            const auto fresh = [&] { want.assign(8 * n, 0); };
            downscale4_row_c(a.data(), b.data(), want.data(), w);
            for (const auto& [name, fn] : down4) {
                got.assign(want.size(), 0);
                const int done = fn(a.data(), b.data(), got.data(), w);
                downscale4_row_c(a.data() + 4 * done, b.data() + 4 * done, got.data() + done, w - done);
                ASSERT_EQ(got, want) << name << at;
            }
            const uint8_t *s0 = a.data() + 3 * n, *s1 = b.data() + 3 * n;  // w bytes before the page end
            fresh();
            upscale2_rows_c(s0, s1, want.data(), want.data() + 2 * n, w, 0);
            for (const auto& [name, fn] : up2) {
                got.assign(want.size(), 0);
                const int done = fn(s0, s1, got.data(), got.data() + 2 * n, w);
                upscale2_rows_c(s0, s1, got.data(), got.data() + 2 * n, w, done);
                ASSERT_EQ(got, want) << name << at;
            }
            for (uint32_t f : {0u, 5u, 8u, 15u}) {
                fresh();
                upscale4_row_c(s0, s1, want.data(), 0, w, f);
                for (const auto& [name, fn] : up4) {
                    got.assign(want.size(), 0);
                    upscale4_row_c(s0, s1, got.data(), fn(s0, s1, got.data(), w, f), w, f);
                    ASSERT_EQ(got, want) << name << at << " f " << f;
                }
            }
            for (const auto& [b0, b1] : {std::pair{2048, 0}, {1024, 1024}, {1, 2047}, {1365, 683}}) {
                fresh();
                vresizeLinear_c(r0.as<int>(), r1.as<int>(), want.data(), b0, b1, 0, w);
                for (const auto& [name, fn] : vlin) {
                    got.assign(want.size(), 0);
                    const int done = fn(r0.as<int>(), r1.as<int>(), got.data(), b0, b1, w);
                    vresizeLinear_c(r0.as<int>(), r1.as<int>(), got.data(), b0, b1, done, w);
                    ASSERT_EQ(got, want) << name << at << " beta " << b0;
                }
            }
            fresh();
            area_mean_2x2_c(a.data() + 2 * n, b.data() + 2 * n, want.data(), 0, w);
            for (const auto& [name, fn] : area) {
                got.assign(want.size(), 0);
                const int done = fn(a.data() + 2 * n, b.data() + 2 * n, got.data(), w);
                area_mean_2x2_c(a.data() + 2 * n, b.data() + 2 * n, got.data(), done, w);
                ASSERT_EQ(got, want) << name << at;
            }
            fresh();
            test_asm_bytes_c(a.data() + 4 * (n - n / 16 * 4), want.data(), 16 * (w / 16));
            for (const auto& [name, fn] : bytes) {
                got.assign(want.size(), 0);
                fn(a.data() + 4 * (n - n / 16 * 4), got.data(), 16 * (w / 16));
                ASSERT_EQ(got, want) << name << at;
            }
        }
}

// Destinations that overlap their source rows (the frame path's in-place
// resizes): the exported row routines keep the per-pixel order.
TEST(KernelForms, OverlappingRowsKeepThePerPixelOrder) {
    std::vector<uint8_t> a(4 * 48 + 4), row1(4 * 48);
    fill_content(a.data(), a.size(), 3);
    fill_content(row1.data(), row1.size(), 4);
    std::vector<uint8_t> b = a;
    downscale4_row_c(a.data(), row1.data(), a.data() + 4, 48);
    downscale4_row(b.data(), row1.data(), b.data() + 4, 48);
    EXPECT_EQ(b, a);
    std::vector<uint8_t> c(200), d;
    fill_content(c.data(), c.size(), 5);
    d = c;
    upscale2_rows_c(c.data() + 100, c.data() + 150, c.data(), c.data() + 98, 49, 0);
    upscale2_rows(d.data() + 100, d.data() + 150, d.data(), d.data() + 98, 49);
    EXPECT_EQ(d, c);
}

}  // namespace
}  // namespace qimra::test
