// Upscale by two: the 2 x 2 weights with truncation, the repeated last
// column and last row, packed destination rows, and the vector path against
// the per-pixel form.
#include <gtest/gtest.h>

#include <string_view>
#include <vector>

#include "resample/upscale2.h"
#include "support/engine_helpers.h"
#include "support/forms.h"

namespace qimra::test {
namespace {

// Weights on a, b, c, d (the sample, its right, lower and lower-right
// neighbours) for the four destination pixels of a source sample.
constexpr uint32_t kWeights[2][2][4] = {{{81, 63, 63, 49}, {9, 135, 7, 105}}, {{9, 7, 135, 105}, {1, 15, 15, 225}}};

// Destination image (W x H, untouched pixels keep `fill`) from a source of
// the given stride; neighbours are clamped to the last row and column.
std::vector<uint8_t> reference(const std::vector<uint8_t>& src, int32_t stride, int32_t W, int32_t H, uint8_t fill) {
    const int32_t w = W / 2, h = H / 2;
    std::vector<uint8_t> out(size_t(W) * H, fill);
    auto S = [&](int32_t y, int32_t x) -> uint32_t {
        return src[size_t(std::min(y, h - 1)) * stride + std::min(x, w - 1)];
    };
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x)
            for (int i = 0; i < 2; ++i)
                for (int j = 0; j < 2; ++j) {
                    const uint32_t* k = kWeights[i][j];
                    const uint32_t sum =
                        k[0] * S(y, x) + k[1] * S(y, x + 1) + k[2] * S(y + 1, x) + k[3] * S(y + 1, x + 1);
                    out[size_t(2 * y + i) * W + 2 * x + j] = uint8_t(sum >> 8);
                }
    return out;
}

std::vector<uint8_t> run(std::vector<uint8_t>& src, int32_t stride, int32_t W, int32_t H, uint8_t fill) {
    std::vector<uint8_t> dst(size_t(W) * H, fill);
    qimra_job job{};
    job.rs_src = src.data();
    job.rs_src_stride = stride;
    job.rs_src_width = stride;
    job.rs_src_height = H / 2;
    job.rs_dst = dst.data();
    job.rs_dst_width = W;
    job.rs_dst_stride = W;
    job.rs_dst_height = H;
    ReSizeImage_upscale2_mc(&job);
    return dst;
}

TEST(Upscale2Rows, VectorFormMatchesPerPixelForm) {
    for (int32_t w = 1; w <= 80; ++w)
        for (bool last_row : {false, true}) {
            // Each row in its own allocation of exactly w (or 2w) bytes.
            std::vector<uint8_t> s0(w), s1(w);
            fill_random(s0.data(), w, 100 + w);
            fill_random(s1.data(), w, 300 + w);
            const uint8_t* lower = last_row ? s0.data() : s1.data();
            std::vector<uint8_t> want0(2 * w), want1(2 * w), got0(2 * w), got1(2 * w);
            upscale2_rows_c(s0.data(), lower, want0.data(), want1.data(), w, 0);
            upscale2_rows(s0.data(), lower, got0.data(), got1.data(), w);
            ASSERT_EQ(got0, want0) << "w=" << w << " last_row=" << last_row;
            ASSERT_EQ(got1, want1) << "w=" << w << " last_row=" << last_row;
        }
}

// Each vector form directly (on x86-64 both the NEON form, translated, and
// the x86 form the dispatch prefers), finished by the per-pixel form.
TEST(Upscale2Rows, EveryVectorFormMatchesPerPixelForm) {
    using Form = int32_t (*)(const uint8_t*, const uint8_t*, uint8_t*, uint8_t*, int32_t);
    for (const auto& [name, form] : vector_forms<Form>({.neon = QIMRA_NEON_FORM(upscale2_rows_neon),
                                    .sse41 = QIMRA_X86_FORM(upscale2_rows_sse41),
                                    .avx2 = QIMRA_X86_FORM(upscale2_rows_avx2)}))
        for (int32_t w : {16, 17, 18, 31, 32, 33, 48, 49, 64, 65, 97, 480}) {
            std::vector<uint8_t> s0(w), s1(w);
            fill_random(s0.data(), w, 700 + w);
            fill_random(s1.data(), w, 900 + w);
            // Extremes where the 16-bit sums are largest.
            for (int32_t x = 0; x < w; x += 5) s0[x] = s1[x] = 255;
            std::vector<uint8_t> want0(2 * w), want1(2 * w), got0(2 * w), got1(2 * w);
            upscale2_rows_c(s0.data(), s1.data(), want0.data(), want1.data(), w, 0);
            const int32_t done = form(s0.data(), s1.data(), got0.data(), got1.data(), w);
            // The NEON form does the last columns too; the x86 forms leave them.
            const bool whole_row = std::string_view(name) == "neon";
            EXPECT_EQ(done, whole_row ? w : (w - 1) / 16 * 16) << name << " w=" << w;
            upscale2_rows_c(s0.data(), s1.data(), got0.data(), got1.data(), w, done);
            ASSERT_EQ(got0, want0) << name << " w=" << w;
            ASSERT_EQ(got1, want1) << name << " w=" << w;
        }
}

TEST(Upscale2Rows, DestinationOverlappingTheSourceKeepsThePerPixelOrder) {
    // In place on the upper row: the per-pixel form reads samples it has
    // already overwritten.
    const int32_t w = 40;
    std::vector<uint8_t> a(2 * w), lower(w), d1a(2 * w), d1b(2 * w);
    fill_random(a.data(), a.size(), 8);
    fill_random(lower.data(), lower.size(), 9);
    std::vector<uint8_t> b = a;
    upscale2_rows_c(a.data(), lower.data(), a.data(), d1a.data(), w, 0);
    upscale2_rows(b.data(), lower.data(), b.data(), d1b.data(), w);
    EXPECT_EQ(b, a);
    EXPECT_EQ(d1b, d1a);
}

TEST(Upscale2Image, MatchesTheWeightTableOnAnySize) {
    // Odd W and H leave the last column and row unwritten; the source rows
    // below the band hold other data that must never be blended in.
    uint32_t seed = 0;
    for (int32_t W : {2, 3, 4, 5, 30, 33, 34, 35, 64, 67, 960})
        for (int32_t H : {2, 3, 4, 9, 16}) {
            const int32_t stride = W / 2 + 5;
            std::vector<uint8_t> src(size_t(stride) * (H / 2 + 2));
            fill_random(src.data(), src.size(), ++seed);
            ASSERT_EQ(run(src, stride, W, H, 0x5A), reference(src, stride, W, H, 0x5A)) << W << "x" << H;
        }
}

TEST(Upscale2Image, StepEdgeTruncatesTo111And239) {
    const int32_t w = 40, W = 2 * w, H = 8;
    for (int32_t edge : {3, 20, 37}) {  // before, inside and after the vector columns
        std::vector<uint8_t> src(size_t(w) * (H / 2));
        for (int32_t y = 0; y < H / 2; ++y)
            for (int32_t x = 0; x < w; ++x) src[size_t(y) * w + x] = x <= edge ? 0 : 255;
        const std::vector<uint8_t> dst = run(src, w, W, H, 0);
        for (int32_t r = 0; r < H; ++r) {
            const uint8_t* row = &dst[size_t(r) * W];
            EXPECT_EQ(row[2 * edge - 1], 0);
            EXPECT_EQ(row[2 * edge], 111) << "row " << r;
            EXPECT_EQ(row[2 * edge + 1], 239) << "row " << r;
            EXPECT_EQ(row[2 * edge + 2], 255);
        }
    }
}

TEST(Upscale2Image, UniformStaysUniform) {
    for (uint8_t v : {0, 1, 77, 128, 254, 255}) {
        const int32_t W = 100, H = 12;
        std::vector<uint8_t> src(size_t(W / 2) * (H / 2), v);
        const std::vector<uint8_t> dst = run(src, W / 2, W, H, uint8_t(~v));
        for (uint8_t p : dst) ASSERT_EQ(p, v);
    }
}

TEST(Upscale2Image, SingleSourceColumnAndSingleSourceRow) {
    // W = 2 or 3: one source column, both pixels of each destination row
    // from the last-column formulas; with W = 3 the third column is spare.
    std::vector<uint8_t> column = {10, 200, 57};
    for (int32_t W : {2, 3}) {
        const std::vector<uint8_t> dst = run(column, 1, W, 6, 0xEE);
        for (int32_t y = 0; y < 3; ++y) {
            const uint32_t a = column[y], c = column[std::min(y + 1, 2)];
            for (int32_t j = 0; j < 2; ++j) {
                EXPECT_EQ(dst[size_t(2 * y) * W + j], (144 * a + 112 * c) >> 8);
                EXPECT_EQ(dst[size_t(2 * y + 1) * W + j], (16 * a + 240 * c) >> 8);
            }
            if (W == 3) {
                EXPECT_EQ(dst[size_t(2 * y) * W + 2], 0xEE);
                EXPECT_EQ(dst[size_t(2 * y + 1) * W + 2], 0xEE);
            }
        }
    }
    // H = 2: only the last-row pass; both destination rows equal.
    std::vector<uint8_t> row = {0, 255, 90, 91, 3, 250, 17, 18, 19, 200, 201, 0, 4, 8, 16, 32, 64, 128, 255, 1};
    const int32_t w = int32_t(row.size()), W = 2 * w;
    const std::vector<uint8_t> dst = run(row, w, W, 2, 0);
    for (int32_t x = 0; x < w; ++x) {
        const uint32_t a = row[x], b = row[std::min(x + 1, w - 1)];
        EXPECT_EQ(dst[2 * x], (144 * a + 112 * b) >> 8);
        EXPECT_EQ(dst[2 * x + 1], (16 * a + 240 * b) >> 8);
    }
    EXPECT_TRUE(std::equal(dst.begin(), dst.begin() + W, dst.begin() + W));
}

}  // namespace
}  // namespace qimra::test
