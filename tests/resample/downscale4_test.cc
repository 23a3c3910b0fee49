// Downscale by four: the truncated 2 x 2 mean, the row split between the
// cores, the packed destination rows and the vector path against the
// per-pixel form.
#include <gtest/gtest.h>

#include <vector>

#include "resample/downscale4.h"
#include "support/engine_helpers.h"

namespace qimra::test {
namespace {

struct Image {
    int32_t width, height, stride;
    std::vector<uint8_t> px;
    Image(int32_t w, int32_t h, int32_t s, uint32_t seed) : width(w), height(h), stride(s), px(size_t(s) * h) {
        fill_random(px.data(), px.size(), seed);
    }
};

std::vector<uint8_t> reference(const Image& im) {
    const int32_t dw = im.width >> 2, dh = im.height >> 2;
    std::vector<uint8_t> out(size_t(dw) * dh);
    for (int32_t y = 0; y < dh; ++y)
        for (int32_t x = 0; x < dw; ++x) {
            const uint8_t* r0 = &im.px[size_t(4 * y) * im.stride + 4 * x];
            const uint8_t* r1 = r0 + im.stride;
            out[size_t(y) * dw + x] = uint8_t((r0[0] + r0[1] + r1[0] + r1[1]) / 4);
        }
    return out;
}

qimra_job job_for(int32_t core, Image& im, uint8_t* dst, int32_t dst_stride) {
    qimra_job job{};
    job.core = core;
    job.rs_src = im.px.data();
    job.rs_src_height = im.height;
    job.rs_src_width = im.width;
    job.rs_src_stride = im.stride;
    job.rs_dst = dst;
    job.rs_dst_width = im.width >> 2;
    job.rs_dst_height = im.height >> 2;
    job.rs_dst_stride = dst_stride;
    return job;
}

std::vector<uint8_t> run_both_cores(Image& im) {
    std::vector<uint8_t> dst(size_t(im.width >> 2) * (im.height >> 2));
    for (int32_t core = 0; core < 2; ++core) {
        qimra_job job = job_for(core, im, dst.data(), im.width >> 2);
        ReSizeImage_downscale4_mc(&job);
    }
    return dst;
}

TEST(Downscale4Row, VectorFormMatchesPerPixelForm) {
    for (int32_t n = 1; n <= 100; ++n) {
        // Each source row ends exactly at its allocation: the 4n bytes the
        // width guarantees are all a row may read.
        std::vector<uint8_t> r0(4 * n), r1(4 * n);
        fill_random(r0.data(), r0.size(), 11 + n);
        fill_random(r1.data(), r1.size(), 911 + n);
        std::vector<uint8_t> want(n), got(n);
        downscale4_row_c(r0.data(), r1.data(), want.data(), n);
        downscale4_row(r0.data(), r1.data(), got.data(), n);
        ASSERT_EQ(got, want) << "n=" << n;
    }
}

TEST(Downscale4Row, DestinationOverlappingTheSourceKeepsThePerPixelOrder) {
    // Writing 4 bytes ahead of the reads: the per-pixel form reads back what
    // it wrote; a vector path that loaded first would not.
    const int32_t n = 48;
    std::vector<uint8_t> a(4 * n + 4), row1(4 * n);
    fill_random(a.data(), a.size(), 5);
    fill_random(row1.data(), row1.size(), 6);
    std::vector<uint8_t> b = a;
    downscale4_row_c(a.data(), row1.data(), a.data() + 4, n);
    downscale4_row(b.data(), row1.data(), b.data() + 4, n);
    EXPECT_EQ(b, a);
}

TEST(Downscale4Frame, The1080pSplitGives135RowsToEachCore) {
    Image im(1920, 1080, 1920, 42);
    const std::vector<uint8_t> want = reference(im);
    ASSERT_EQ(want.size(), size_t(480) * 270);
    EXPECT_EQ(core0_quarter_rows(1080), 135);

    const uint8_t kUntouched = 0xA5;
    for (int32_t core = 0; core < 2; ++core) {
        std::vector<uint8_t> dst(want.size(), kUntouched);
        qimra_job job = job_for(core, im, dst.data(), 480);
        ReSizeImage_downscale4_mc(&job);
        const size_t split = size_t(135) * 480;
        for (size_t i = 0; i < dst.size(); ++i) {
            const bool mine = core == 0 ? i < split : i >= split;
            ASSERT_EQ(dst[i], mine ? want[i] : kUntouched) << "core " << core << " byte " << i;
        }
    }
    EXPECT_EQ(run_both_cores(im), want);
}

TEST(Downscale4Frame, AnySizeMatchesTheReference) {
    // Widths not a multiple of four drop their last columns; widths below 64
    // give rows shorter than one vector step.
    uint32_t seed = 1;
    for (int32_t w : {4, 5, 7, 13, 60, 63, 64, 65, 67, 127, 130, 1283})
        for (int32_t h : {4, 7, 9, 17, 30}) {
            Image im(w, h, w + 3, ++seed);
            ASSERT_EQ(run_both_cores(im), reference(im)) << w << "x" << h;
        }
}

TEST(Downscale4Frame, OnlyTheTopLeftTwoByTwoOfEachBlockIsRead) {
    Image im(198, 41, 200, 7);
    const std::vector<uint8_t> before = run_both_cores(im);
    std::vector<uint8_t> noise(im.px.size());
    fill_random(noise.data(), noise.size(), 99);
    for (int32_t y = 0; y < im.height; ++y)
        for (int32_t x = 0; x < im.stride; ++x)
            if (y % 4 >= 2 || x % 4 >= 2 || y >= 40 || x >= 196)
                im.px[size_t(y) * im.stride + x] = noise[y * im.stride + x];
    EXPECT_EQ(run_both_cores(im), before);
}

TEST(Downscale4Frame, DestinationStridePlacesOnlyTheFirstRowOfACore) {
    Image im(96, 64, 96, 3);  // 24 x 16 out; core 0 gets 8 rows
    const std::vector<uint8_t> want = reference(im);
    const int32_t dw = 24, pitch = 31, q0 = core0_quarter_rows(64);
    ASSERT_EQ(q0, 8);
    std::vector<uint8_t> dst(size_t(pitch) * 16, 0);
    for (int32_t core = 0; core < 2; ++core) {
        qimra_job job = job_for(core, im, dst.data(), pitch);
        ReSizeImage_downscale4_mc(&job);
    }
    for (int32_t y = 0; y < 16; ++y) {
        const size_t at = y < q0 ? size_t(y) * dw : size_t(q0) * pitch + size_t(y - q0) * dw;
        for (int32_t x = 0; x < dw; ++x) ASSERT_EQ(dst[at + x], want[size_t(y) * dw + x]) << y << "," << x;
    }
}

}  // namespace
}  // namespace qimra::test
