// Halving with the binomial and Lanczos kernels: edge folding, rounding,
// clamping, taps, and the padded and unpadded Lanczos forms agreeing.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "resample/downscale2.h"
#include "support/engine_helpers.h"

namespace qimra::test {
namespace {

// An image of w x h bytes at `stride`, surrounded by `pad` writable bytes on
// each side of every row (none above or below).
struct SidePadded {
    int w, h, pad, stride;
    std::vector<uint8_t> bytes;
    SidePadded(int w_, int h_, int pad_) : w(w_), h(h_), pad(pad_), stride(w_ + 2 * pad_), bytes(stride * h_) {}
    uint8_t* img() { return bytes.data() + pad; }
};

// Destination with one guard column and one guard row, to see the output size.
struct Guarded {
    int w, h, stride;
    std::vector<uint8_t> bytes;
    Guarded(int w_, int h_) : w(w_), h(h_), stride(w_ + 1), bytes((w_ + 1) * (h_ + 1), 0xEE) {}
    std::vector<uint8_t> image() const {
        std::vector<uint8_t> out;
        for (int y = 0; y < h; ++y) out.insert(out.end(), bytes.begin() + y * stride, bytes.begin() + y * stride + w);
        return out;
    }
    bool guards_intact() const {
        for (int y = 0; y <= h; ++y)
            if (bytes[y * stride + w] != 0xEE) return false;
        for (int x = 0; x < stride; ++x)
            if (bytes[h * stride + x] != 0xEE) return false;
        return true;
    }
};

using Downscale = void (*)(const uint8_t*, uint8_t*, uint8_t*, int, int, int, int);

std::vector<uint8_t> halve(Downscale fn, SidePadded& src, size_t work_bytes, bool* guards_ok) {
    Guarded dst(src.w / 2, src.h / 2);
    std::vector<uint8_t> work(work_bytes);
    fn(src.img(), dst.bytes.data(), work.data(), src.w, src.h, src.stride, dst.stride);
    *guards_ok = dst.guards_intact();
    return dst.image();
}

size_t gaussian_work(int w, int h) { return static_cast<size_t>(w / 2) * h; }
size_t padded_work(int w, int h) { return static_cast<size_t>(w / 2 + 16) * (h + 16); }

TEST(Downscale2Lanczos, CoefficientsAreTheWindowedSinc) {
    float c[9];
    gen_lanczos_coeffs(c, 9, 0.4f);
    EXPECT_EQ(c[4], 1.0f);
    const double pi = std::acos(-1.0);
    auto sinc = [&](double x) { return std::sin(pi * x) / (pi * x); };
    for (int k = 1; k <= 4; ++k) {
        const double expected = sinc(0.8 * k) * sinc(0.8 * k / 4.0);
        EXPECT_NEAR(c[4 + k], expected, 1e-6) << k;
        EXPECT_EQ(c[4 - k], c[4 + k]) << k;
    }
    float one[2] = {0.0f, -7.0f};
    gen_lanczos_coeffs(one, 1, 0.4f);
    EXPECT_EQ(one[0], 1.0f);
    EXPECT_EQ(one[1], -7.0f);
}

TEST(Downscale2Lanczos, FixedPointTapsRoundNegativeTapsTowardZero) {
    // From the float taps over their single-precision sum: -358.14 becomes
    // -357 (truncation after adding one half), and the sum is 32773.
    int32_t q[9];
    lanczos_q15_taps(q);
    EXPECT_EQ(std::vector<int32_t>(q, q + 9),
              (std::vector<int32_t>{-357, 1667, -3749, 5730, 26191, 5730, -3749, 1667, -357}));
}

TEST(Downscale2Gaussian, EdgesFoldIntoTheNearestPixelAndSumsRound) {
    const uint8_t line[6] = {0, 16, 160, 255, 7, 100};
    // (11*0 + 4*16 + 160 + 8) >> 4, the interior tap, and the right fold.
    const std::vector<uint8_t> expected = {14, 128, 108};
    bool guards_ok = false;
    SidePadded across(6, 2, 0);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 6; ++x) across.img()[y * 6 + x] = line[x];
    EXPECT_EQ(halve(downscale_by_2_gaussian, across, gaussian_work(6, 2), &guards_ok), expected);
    EXPECT_TRUE(guards_ok);
    SidePadded down(2, 6, 0);
    for (int y = 0; y < 6; ++y) down.img()[2 * y] = down.img()[2 * y + 1] = line[y];
    EXPECT_EQ(halve(downscale_by_2_gaussian, down, gaussian_work(2, 6), &guards_ok), expected);
    EXPECT_TRUE(guards_ok);
}

TEST(Downscale2Lanczos, LobesClampToTheByteRange) {
    // A bright line on black rings below 0 and a dark line on white above
    // 255; both clamp. Edges take the nearest pixel.
    SidePadded spike(16, 4, 0), dip(16, 4, 0);
    for (int y = 0; y < 4; ++y) {
        for (int x = 0; x < 16; ++x) {
            spike.img()[y * 16 + x] = x == 6 ? 255 : 0;
            dip.img()[y * 16 + x] = x == 6 ? 0 : 255;
        }
    }
    bool guards_ok = false;
    std::vector<uint8_t> row = {0, 0, 0, 204, 0, 0, 0, 0};
    std::vector<uint8_t> two_rows(row);
    two_rows.insert(two_rows.end(), row.begin(), row.end());
    EXPECT_EQ(halve(downscale_by_2_lanczos, spike, gaussian_work(16, 4), &guards_ok), two_rows);
    row = {255, 255, 255, 51, 255, 255, 255, 255};
    two_rows = row;
    two_rows.insert(two_rows.end(), row.begin(), row.end());
    EXPECT_EQ(halve(downscale_by_2_lanczos, dip, gaussian_work(16, 4), &guards_ok), two_rows);
}

TEST(Downscale2All, ConstantImagesStayConstant) {
    for (int v : {0, 137, 255}) {
        SidePadded src(13, 9, 4);
        std::fill(src.bytes.begin(), src.bytes.end(), static_cast<uint8_t>(v));
        const std::vector<uint8_t> expected(6 * 4, static_cast<uint8_t>(v));
        bool ok = false;
        EXPECT_EQ(halve(downscale_by_2_gaussian, src, gaussian_work(13, 9), &ok), expected) << v;
        EXPECT_EQ(halve(downscale_by_2_lanczos, src, gaussian_work(13, 9), &ok), expected) << v;
        EXPECT_EQ(halve(downscale_by_2_lanczos_w_pad, src, padded_work(13, 9), &ok), expected) << v;
        EXPECT_EQ(halve(downscale_by_2, src, padded_work(13, 9), &ok), expected) << v;
    }
}

TEST(Downscale2Lanczos, UnpaddedFormEqualsPaddedFormOnAReplicatedBorder) {
    for (auto [w, h] : {std::pair{7, 5}, {16, 9}, {33, 20}, {2, 2}, {9, 1}}) {
        SidePadded src(w, h, 4);
        fill_random(src.bytes.data(), src.bytes.size(), static_cast<uint32_t>(w * 100 + h));
        pad_with_replication(src.img(), w, h, 4, 0, src.stride);
        bool clamped_ok = false, padded_ok = false, generic_ok = false;
        const auto clamped = halve(downscale_by_2_lanczos, src, gaussian_work(w, h), &clamped_ok);
        const auto padded = halve(downscale_by_2_lanczos_w_pad, src, padded_work(w, h), &padded_ok);
        const auto generic = halve(downscale_by_2, src, padded_work(w, h), &generic_ok);
        EXPECT_EQ(clamped, padded) << w << "x" << h;
        EXPECT_EQ(generic, padded) << w << "x" << h;
        // (w / 2) x (h / 2): an odd last row or column is never an output.
        EXPECT_TRUE(clamped_ok && padded_ok && generic_ok) << w << "x" << h;
    }
}

}  // namespace
}  // namespace qimra::test
