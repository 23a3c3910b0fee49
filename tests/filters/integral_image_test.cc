#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include "filters/integral_image.h"
#include "filters/integral_reference.h"
#include "qimra/qimra.h"
#include "support/engine_helpers.h"
#include "support/forms.h"

namespace qimra::test {
namespace {

constexpr uint32_t kUntouched = 0xDEADBEEFu;

struct Image {
    int32_t w, h, stride;
    std::vector<uint8_t> px;
};

// Random pixels; the bytes between rows (stride > width) are random too, so a
// builder reading them would show.
Image random_image(int32_t w, int32_t h, int32_t extra, uint32_t seed) {
    Image im{w, h, w + extra, {}};
    im.px.resize(static_cast<size_t>(im.stride) * h);
    fill_random(im.px.data(), im.px.size(), seed);
    return im;
}

SummedTables build_padded(const Image& im, int ii_stride_arg) {
    SummedTables t;
    t.stride = im.w + 17;
    // Sized exactly, so a write past the table is an address-sanitizer error.
    t.sum.assign(static_cast<size_t>(t.stride) * (im.h + 17), kUntouched);
    t.sq.assign(t.sum.size(), kUntouched);
    blc_gen_ii_pad(im.px.data(), im.stride, ii_stride_arg, im.w, im.h, t.sum.data(), t.sq.data());
    return t;
}

TEST(IntegralPadded, MatchesDefinitionOverManySizes) {
    const int32_t sizes[][2] = {{1, 1}, {1, 7}, {7, 1}, {2, 2}, {3, 5}, {16, 9}, {31, 17}, {64, 40}, {97, 3}};
    uint32_t seed = 1;
    for (const auto& s : sizes) {
        for (int32_t extra : {0, 5}) {
            const Image im = random_image(s[0], s[1], extra, seed++);
            const SummedTables got = build_padded(im, im.stride + 1);
            const SummedTables want = reference_tables(im.px.data(), im.stride, im.w, im.h, 8);
            ASSERT_EQ(got.sum, want.sum) << s[0] << "x" << s[1] << " stride +" << extra;
            ASSERT_EQ(got.sq, want.sq) << s[0] << "x" << s[1] << " stride +" << extra;
        }
    }
}

TEST(IntegralPadded, TableStrideArgumentHasNoEffect) {
    const Image im = random_image(13, 6, 3, 77);
    const SummedTables ref = build_padded(im, im.stride + 1);
    for (int arg : {-1, 0, 7, 1 << 20}) {
        const SummedTables t = build_padded(im, arg);
        EXPECT_EQ(t.sum, ref.sum) << arg;
        EXPECT_EQ(t.sq, ref.sq) << arg;
    }
}

// The square table of a bright image wraps many times over; every 17 x 17
// window difference must still come out exact.
TEST(IntegralPadded, WindowDifferencesExactAfterWrap) {
    const int32_t w = 1200, h = 300;
    Image im = random_image(w, h, 0, 9);
    for (uint8_t& p : im.px) p = static_cast<uint8_t>(200 + p % 56);
    const SummedTables t = build_padded(im, 0);

    // The last entry holds the whole padded image, modulo 2^32: it wrapped.
    uint64_t total_sq = 0;
    for (int32_t y = 0; y < h + 16; ++y) {
        for (int32_t x = 0; x < w + 16; ++x) {
            const uint64_t p = padded_pixel(im.px.data(), w, w, h, 8, y, x);
            total_sq += p * p;
        }
    }
    ASSERT_GT(total_sq, uint64_t{1} << 34);
    EXPECT_EQ(t.sq.back(), static_cast<uint32_t>(total_sq));

    auto window = [&](const std::vector<uint32_t>& tab, int32_t y, int32_t x) {
        auto at = [&](int32_t i, int32_t j) { return tab[static_cast<size_t>(i) * t.stride + j]; };
        return at(y + 17, x + 17) + at(y, x) - at(y + 17, x) - at(y, x + 17);
    };
    std::mt19937 rng(5);
    std::uniform_int_distribution<int32_t> pick_y(0, h - 1), pick_x(0, w - 1);
    for (int n = 0; n < 300; ++n) {
        // Windows anywhere, corners and borders included.
        const int32_t y = n < 4 ? (n & 1) * (h - 1) : pick_y(rng);
        const int32_t x = n < 4 ? (n >> 1) * (w - 1) : pick_x(rng);
        uint64_t sum = 0, sq = 0;
        for (int32_t dy = 0; dy < 17; ++dy) {
            for (int32_t dx = 0; dx < 17; ++dx) {
                const uint64_t p = padded_pixel(im.px.data(), w, w, h, 8, y + dy, x + dx);
                sum += p;
                sq += p * p;
            }
        }
        ASSERT_EQ(window(t.sum, y, x), sum) << y << "," << x;
        ASSERT_EQ(window(t.sq, y, x), sq) << y << "," << x;
    }
}

TEST(IntegralUnpadded, MatchesDefinitionAndLeavesRowTailAlone) {
    const int32_t sizes[][2] = {{1, 1}, {5, 1}, {1, 6}, {9, 4}, {40, 23}};
    uint32_t seed = 100;
    for (const auto& s : sizes) {
        const Image im = random_image(s[0], s[1], 3, seed++);
        const int32_t ii_stride = im.w + 4;  // three entries per row the builder must not touch
        std::vector<uint32_t> sum(static_cast<size_t>(ii_stride) * (im.h + 1), kUntouched);
        std::vector<uint32_t> sq(sum.size(), kUntouched);
        blc_gen_ii(im.px.data(), im.stride, ii_stride, im.w, im.h, sum.data(), sq.data());
        const SummedTables want = reference_tables(im.px.data(), im.stride, im.w, im.h, 0);
        for (int32_t i = 0; i <= im.h; ++i) {
            for (int32_t j = 0; j < ii_stride; ++j) {
                const size_t k = static_cast<size_t>(i) * ii_stride + j;
                const uint32_t ws = j <= im.w ? want.sum[static_cast<size_t>(i) * want.stride + j] : kUntouched;
                const uint32_t wq = j <= im.w ? want.sq[static_cast<size_t>(i) * want.stride + j] : kUntouched;
                ASSERT_EQ(sum[k], ws) << s[0] << "x" << s[1] << " at " << i << "," << j;
                ASSERT_EQ(sq[k], wq) << s[0] << "x" << s[1] << " at " << i << "," << j;
            }
        }
    }
}

// Degenerate sizes write exactly the zero row and zero column they cover.
TEST(IntegralUnpadded, DegenerateSizesWriteOnlyTheZeroBorder) {
    struct Case {
        int32_t w, h;
    };
    const int32_t ii_stride = 8, rows = 4;
    const uint8_t src[4] = {1, 2, 3, 4};
    for (const Case c : {Case{5, 0}, Case{5, -1}, Case{5, -7}, Case{0, 3}, Case{-2, 2}}) {
        std::vector<uint32_t> sum(static_cast<size_t>(ii_stride) * rows, kUntouched);
        std::vector<uint32_t> sq(sum.size(), kUntouched);
        blc_gen_ii(src, 4, ii_stride, c.w, c.h, sum.data(), sq.data());
        for (int32_t i = 0; i < rows; ++i) {
            for (int32_t j = 0; j < ii_stride; ++j) {
                const bool row_zero = i == 0 && c.w >= 0 && j <= c.w;
                const bool col_zero = j == 0 && c.h >= 0 && i <= c.h;
                const uint32_t want = row_zero || col_zero ? 0 : kUntouched;
                ASSERT_EQ(sum[static_cast<size_t>(i) * ii_stride + j], want)
                    << c.w << "x" << c.h << " " << i << "," << j;
                ASSERT_EQ(sq[static_cast<size_t>(i) * ii_stride + j], want)
                    << c.w << "x" << c.h << " " << i << "," << j;
            }
        }
    }
}

// The vector row form against the per-pixel form: the same entries and the
// same run for every width, from runs that start near the wrap, over a row
// above of arbitrary words; bright rows make the square sums large.
TEST(IntegralRow, VectorFormMatchesPerPixelForm) {
    uint32_t seed = 40;
    for (int32_t w : {1, 7, 8, 9, 15, 16, 17, 63, 64, 100, 497}) {
        for (const RowRun start : {RowRun{0, 0}, RowRun{0xFFFFFF00u, 0xFFFF0000u}}) {
            std::vector<uint8_t> row(static_cast<size_t>(w));
            fill_random(row.data(), row.size(), ++seed);
            for (size_t i = 0; i < row.size(); i += 3) row[i] = 255;
            std::vector<uint32_t> above(static_cast<size_t>(w));
            fill_random(reinterpret_cast<uint8_t*>(above.data()), above.size() * 4, ++seed);
            // Table rows: the row above, then the row written.
            std::vector<uint32_t> want_sum(2 * above.size()), want_sq(2 * above.size());
            std::copy(above.begin(), above.end(), want_sum.begin());
            std::copy(above.begin(), above.end(), want_sq.begin());
            const std::vector<uint32_t> start_rows = want_sum;  // the same for both tables
            const ptrdiff_t up = -static_cast<ptrdiff_t>(w);
            RowRun want = start;
            integral_row_c(row.data(), w, want_sum.data() + w, want_sq.data() + w, up, want);
            using Form = int32_t (*)(const uint8_t*, int32_t, uint32_t*, uint32_t*, ptrdiff_t, RowRun&);
            for (const auto& [name, form] : vector_forms<Form>(
                     {.neon = QIMRA_NEON_FORM(integral_row_neon), .sse41 = QIMRA_X86_FORM(integral_row_sse41)})) {
                std::vector<uint32_t> got_sum = start_rows, got_sq = start_rows;
                RowRun got = start;
                const int32_t done = form(row.data(), w, got_sum.data() + w, got_sq.data() + w, up, got);
                EXPECT_EQ(done, w / 8 * 8) << name;
                integral_row_c(row.data() + done, w - done, got_sum.data() + w + done, got_sq.data() + w + done, up,
                               got);
                ASSERT_EQ(got_sum, want_sum) << name << " w=" << w;
                ASSERT_EQ(got_sq, want_sq) << name << " w=" << w;
                EXPECT_EQ(got.sum, want.sum) << name;
                EXPECT_EQ(got.sq, want.sq) << name;
            }
        }
    }
}
}  // namespace
}  // namespace qimra::test
