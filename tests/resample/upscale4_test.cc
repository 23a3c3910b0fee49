// Enlarging by four: horizontal phases, the 16.16 vertical walk, the four
// trailing rows, and the vector row kernel against the per-pixel one.
#include <gtest/gtest.h>

#include <vector>

#include "resample/upscale4.h"
#include "support/engine_helpers.h"

namespace qimra::test {
namespace {

// A source whose row r is filled with values[r]; exactly that many rows, so
// reading one row further runs off the allocation.
std::vector<uint8_t> row_constant(const std::vector<int>& values, int width) {
    std::vector<uint8_t> img;
    for (int v : values) img.insert(img.end(), width, static_cast<uint8_t>(v));
    return img;
}

std::vector<uint8_t> run_upscale4(std::vector<uint8_t>& src, int ws, int hs, int hb) {
    std::vector<uint8_t> dst(static_cast<size_t>(4 * ws) * (hb + 4));
    qimra_job job{};
    job.rs_src = src.data();
    job.rs_src_width = ws;
    job.rs_src_height = hs;
    job.rs_src_stride = ws;
    job.rs_dst = dst.data();
    job.rs_dst_height = hb;
    ReSizeImage_upscale4_mc(&job);
    return dst;
}

// Every destination row must be uniform with the given value.
void expect_rows(const std::vector<uint8_t>& dst, int ws, const std::vector<int>& expected) {
    ASSERT_EQ(dst.size(), static_cast<size_t>(4 * ws) * expected.size());
    for (size_t r = 0; r < expected.size(); ++r) {
        for (int x = 0; x < 4 * ws; ++x) {
            ASSERT_EQ(dst[r * 4 * ws + x], expected[r]) << "row " << r << " column " << x;
        }
    }
}

TEST(Upscale4Row, PhasesAreOffCentreAndTruncated) {
    const uint8_t a[2] = {0, 255};
    const uint8_t b[2] = {255, 255};
    uint8_t out[8];
    upscale4_row_c(a, a, out, 0, 2, 0);
    // 3, 7, 11, 15 sixteenths of 255, truncated; the last column repeats.
    const uint8_t unblended[8] = {47, 111, 175, 239, 255, 255, 255, 255};
    EXPECT_EQ(std::vector<uint8_t>(out, out + 8), std::vector<uint8_t>(unblended, unblended + 8));
    upscale4_row_c(a, b, out, 0, 2, 8);
    // (8 * 3*255 + 8 * 16*255) >> 8 = 151 (151.4); last column (8*255 + 8*255) >> 4.
    const uint8_t blended[8] = {151, 183, 215, 247, 255, 255, 255, 255};
    EXPECT_EQ(std::vector<uint8_t>(out, out + 8), std::vector<uint8_t>(blended, blended + 8));
}

#if QIMRA_HAVE_NEON
TEST(Upscale4Row, VectorFormMatchesPerPixelForm) {
    for (int ws = 1; ws <= 70; ++ws) {
        std::vector<uint8_t> a(ws), b(ws), expect(4 * ws), got(4 * ws);
        fill_random(a.data(), a.size(), 11u + ws);
        fill_random(b.data(), b.size(), 97u * ws);
        for (uint32_t f = 0; f < 16; f += 5) {
            upscale4_row_c(a.data(), b.data(), expect.data(), 0, ws, f);
            const int done = upscale4_row_neon(a.data(), b.data(), got.data(), ws, f);
            ASSERT_EQ(done, (ws - 1) / 16 * 16);
            upscale4_row_c(a.data(), b.data(), got.data(), done, ws, f);
            ASSERT_EQ(expect, got) << "ws " << ws << " f " << f;
        }
    }
}
#endif

TEST(Upscale4Image, EqualHeightsMixRowsHalfAndHalfThenFourPlainRows) {
    // Step 65536, start fraction 32768: f = 8 on every blended row, so row r
    // is (v[r] + v[r + 1]) >> 1; the trailing rows are source rows 5..8.
    const std::vector<int> v = {10, 21, 40, 3, 200, 100, 50, 7, 9};
    const int ws = 37;  // vector blocks plus a per-pixel tail
    std::vector<uint8_t> src = row_constant(v, ws);
    expect_rows(run_upscale4(src, ws, 5, 5), ws, {15, 30, 21, 101, 150, 100, 50, 7, 9});
}

TEST(Upscale4Image, EnlargingStartsExactlyOnTheFirstSourceRow) {
    // Hs 3 to Hb 5: step 32768 from fraction 0, rows 0, 0|1, 1, 1|2, 2, and
    // the walk goes on through the trailing rows: 2|, 3, 3|, 4.
    const std::vector<int> v = {0, 160, 32, 64, 99};
    std::vector<uint8_t> src = row_constant(v, 20);
    expect_rows(run_upscale4(src, 20, 3, 5), 20, {0, 80, 160, 96, 32, 32, 64, 64, 99});
}

TEST(Upscale4Image, ReducingStartsHalfAFractionalStepIn) {
    // Hs 8 to Hb 3: step 0x2AAAA, start fraction 0x5555. Blended rows: source
    // 0 with f 5, source 2 with f 15, source 5 with f 10; trailing rows at
    // sources 8, 10, 13, 16. Row r holds 15 r + 1.
    std::vector<int> v;
    for (int r = 0; r < 17; ++r) v.push_back(15 * r + 1);
    std::vector<uint8_t> src = row_constant(v, 18);
    // (11*1 + 5*16) >> 4, (1*31 + 15*46) >> 4, (6*76 + 10*91) >> 4.
    expect_rows(run_upscale4(src, 18, 8, 3), 18, {5, 45, 85, 121, 151, 196, 241});
}

}  // namespace
}  // namespace qimra::test
