// The free-ratio fixed-point resize: the copy shortcut, the 4-bit weights,
// the start fractions and the two-core row split.
#include <gtest/gtest.h>

#include <vector>

#include "support/engine_helpers.h"

namespace qimra::test {
namespace {

qimra_job resize_job(uint8_t* src, int sw, int sh, int stride, uint8_t* dst, int dw, int dh, int dst_stride = 0) {
    qimra_job job{};
    job.rs_src = src;
    job.rs_src_width = sw;
    job.rs_src_height = sh;
    job.rs_src_stride = stride;
    job.rs_dst = dst;
    job.rs_dst_width = dw;
    job.rs_dst_height = dh;
    job.rs_dst_stride = dst_stride == 0 ? dw : dst_stride;
    return job;
}

TEST(ResizeMcImage, EqualSizesCopyPackedBytesIgnoringTheStride) {
    std::vector<uint8_t> src(4 * 9);
    fill_random(src.data(), src.size(), 5);
    std::vector<uint8_t> dst(4 * 5);
    qimra_resize_rec rec{4, 5, 9, 5, 4};
    ReSizeImage(&rec, src.data(), dst.data());
    EXPECT_EQ(dst, std::vector<uint8_t>(src.begin(), src.begin() + 20));
}

TEST(ResizeMcImage, EqualSizesThroughTheJobFormsAverageEachTwoByTwo) {
    // Steps of exactly 65536 start at one half on both axes: fx = fy = 8,
    // so each pixel is the truncated mean of its 2 x 2 neighbourhood; the
    // column and row after the image are read.
    const int w = 4, h = 3, stride = 5;
    std::vector<uint8_t> src(stride * (h + 1));
    fill_random(src.data(), src.size(), 8);
    std::vector<uint8_t> dst(w * h);
    qimra_job job = resize_job(src.data(), w, h, stride, dst.data(), w, h);
    ReSizeImage_upscale_mc(&job);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const uint8_t* p = &src[y * stride + x];
            EXPECT_EQ(dst[y * w + x], (p[0] + p[1] + p[stride] + p[stride + 1]) >> 2) << y << "," << x;
        }
    }
}

TEST(ResizeMcImage, EnlargingHitsTheFirstAndLastSourceColumnsExactly) {
    // 5 to 9 across: step 32768 from fraction 0. 2 to 3 down: the first
    // destination row is the first source row.
    const int stride = 6;
    std::vector<uint8_t> src(stride * 3);
    fill_random(src.data(), src.size(), 21);
    std::vector<uint8_t> dst(9 * 3);
    qimra_resize_rec rec{2, 5, stride, 9, 3};
    ReSizeImage(&rec, src.data(), dst.data());
    for (int i = 0; i < 5; ++i) EXPECT_EQ(dst[2 * i], src[i]) << i;
    for (int i = 0; i < 4; ++i) EXPECT_EQ(dst[2 * i + 1], (src[i] + src[i + 1]) >> 1) << i;
}

// Source whose row r holds v[r] across the whole stride.
std::vector<uint8_t> row_constant(const std::vector<int>& v, int stride) {
    std::vector<uint8_t> img;
    for (int x : v) img.insert(img.end(), stride, static_cast<uint8_t>(x));
    return img;
}

TEST(ResizeMcSplit, EightRowsToTwoGiveOneRowToEachCoreInQuarters) {
    // G for core 1 is (50 * 8 / 100 + 3) >> 2 = 1; core 1 starts at source
    // row 4 with the fraction still at one half.
    std::vector<uint8_t> src = row_constant({0, 100, 7, 7, 50, 61, 9, 9}, 5);
    const int dst_stride = 8;
    std::vector<uint8_t> dst(dst_stride * 2, 0xEE);
    qimra_job job = resize_job(src.data(), 4, 8, 5, dst.data(), 4, 2, dst_stride);
    job.core = 0;
    ReSizeImage_mc(&job);
    std::vector<uint8_t> expect(dst_stride * 2, 0xEE);
    for (int x = 0; x < 4; ++x) expect[x] = 50;
    EXPECT_EQ(dst, expect);
    job.core = 1;
    ReSizeImage_mc(&job);
    for (int x = 0; x < 4; ++x) expect[dst_stride + x] = 55;
    EXPECT_EQ(dst, expect);
}

TEST(ResizeMcSplit, CoreOneAdvancesOnlyTheFraction) {
    // 10 rows to 3: step 0x35555, start 0x2AAA, G = 2. Core 1 starts at
    // source row 8 with fraction (0x2AAA + 8 * 0x35555) & 0xFFFF = 0xD552,
    // so fy = 13: (3 * 0 + 13 * 160) >> 4 = 130 (20 if not advanced).
    std::vector<uint8_t> src = row_constant({1, 1, 1, 1, 1, 1, 1, 1, 0, 160}, 3);
    std::vector<uint8_t> dst(2 * 3, 0xEE);
    qimra_job job = resize_job(src.data(), 2, 10, 3, dst.data(), 2, 3);
    job.core = 1;
    ReSizeImage_mc(&job);
    EXPECT_EQ(dst, (std::vector<uint8_t>{0xEE, 0xEE, 0xEE, 0xEE, 130, 130}));
}

TEST(ResizeMcSplit, TwoCoresAtFourToOneEqualOneWholeImageResize) {
    for (int dh : {2, 7, 10, 13}) {
        const int sh = 4 * dh, sw = 23, dw = 11, stride = 24;
        std::vector<uint8_t> src(stride * (sh + 1));
        fill_random(src.data(), src.size(), 3u * dh);
        std::vector<uint8_t> whole(dw * dh), split(dw * dh), plain(dw * dh);
        qimra_job job = resize_job(src.data(), sw, sh, stride, whole.data(), dw, dh);
        ReSizeImage_upscale_mc(&job);
        job.rs_dst = split.data();
        for (int core = 0; core < 2; ++core) {
            job.core = core;
            ReSizeImage_mc(&job);
        }
        EXPECT_EQ(whole, split) << "dh " << dh;
        qimra_resize_rec rec{sh, sw, stride, dw, dh};
        ReSizeImage(&rec, src.data(), plain.data());
        EXPECT_EQ(whole, plain) << "dh " << dh;
    }
}

}  // namespace
}  // namespace qimra::test
