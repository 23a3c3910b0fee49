// Global histogram equalisation in place: p -> cdf(p) * 255 / N with a
// truncating division and a 32-bit product.
#include <gtest/gtest.h>

#include <vector>

#include "support/engine_helpers.h"

namespace qimra::test {
namespace {

TEST(HistEqu, SingleGreyValueBecomes255) {
    for (int w : {1, 3, 64})
        for (int h : {1, 5}) {
            std::vector<uint8_t> img(size_t(w) * h, 37);
            blc_hist_equ(img.data(), w, h);
            for (uint8_t p : img) ASSERT_EQ(p, 255) << w << "x" << h;
        }
}

TEST(HistEqu, DarkestLevelMapsToItsShareAndDivisionTruncates) {
    // 3 pixels of 10, 2 of 50, 3 of 200, N = 8: 10 -> 3 * 255 / 8 = 95
    // (95.6), 50 -> 5 * 255 / 8 = 159 (159.4), 200 -> 255.
    std::vector<uint8_t> img = {200, 10, 50, 10, 200, 50, 10, 200};
    blc_hist_equ(img.data(), 4, 2);
    EXPECT_EQ(img, (std::vector<uint8_t>{255, 95, 159, 95, 255, 159, 95, 255}));
}

TEST(HistEqu, EmptySizesLeaveTheImageUnchanged) {
    const std::vector<uint8_t> before = {1, 2, 3, 4};
    for (auto [w, h] : {std::pair{0, 2}, {-3, 1}, {4, 0}, {4, -1}}) {
        std::vector<uint8_t> img = before;
        blc_hist_equ(img.data(), w, h);
        EXPECT_EQ(img, before) << w << "x" << h;
    }
}

TEST(HistEqu, ProductFitsUpToTheBoundAndWrapsBeyondIt) {
    // N = 8,421,504 is the largest image whose cdf * 255 fits in 31 bits:
    // one bright pixel, the rest 0 -> (N - 1) * 255 / N = 254.
    {
        const int w = 2, h = 4210752;
        std::vector<uint8_t> img(size_t(w) * h, 0);
        img.back() = 255;
        blc_hist_equ(img.data(), w, h);
        EXPECT_EQ(img.front(), 254);
        EXPECT_EQ(img.back(), 255);
    }
    // One pixel more and N * 255 = 2,147,483,775 wraps to -2,147,483,521 as
    // the plain 32-bit product does: the quotient -254 is stored as 2.
    {
        const int w = 5, h = 1684301;
        std::vector<uint8_t> img(size_t(w) * h, 0);
        img.back() = 255;
        blc_hist_equ(img.data(), w, h);
        EXPECT_EQ(img.front(), 254);
        EXPECT_EQ(img.back(), 2);
    }
}

}  // namespace
}  // namespace qimra::test
