// Region histograms and features split over cores, and the feature sort.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "analysis/peaks.h"
#include "engine/ctx.h"
#include "support/engine_helpers.h"

namespace qimra {
namespace {

// Every pixel of a 10 x 7 image holds its own index; the segment's stride is
// deliberately wrong, since regions are addressed with the width as pitch.
// The last column and row of regions take what the division leaves over.
TEST(LocalFeatures, TenBySevenCellsCoverTheImageOnWidthPitch) {
    std::vector<uint8_t> img(70);
    for (int i = 0; i < 70; ++i) img[i] = static_cast<uint8_t>(i);
    segment seg{img.data(), nullptr, 10, 7, 37, 7};
    auto c = std::make_unique<ctx>();
    blc_local_hist_features(c.get(), &seg, 0, 1);
    const int col_x[5] = {0, 2, 4, 6, 10}, row_y[4] = {0, 2, 4, 7};
    for (int r = 0; r < kRegionCount; ++r) {
        for (int v = 0; v < 256; ++v) {
            const int x = v % 10, y = v / 10;
            const bool in =
                v < 70 && x >= col_x[r % 4] && x < col_x[r % 4 + 1] && y >= row_y[r / 4] && y < row_y[r / 4 + 1];
            ASSERT_EQ(c->region_hist[r][v], in ? 1u : 0u) << "region " << r << " value " << v;
        }
        EXPECT_EQ(c->region_features[r].region, r);
    }
}

TEST(LocalFeatures, RegionsAreSplitAmongCoresTheLastTakingTheRest) {
    std::vector<uint8_t> img(64 * 48, 90);
    segment seg{img.data(), nullptr, 64, 48, 64, 48};
    auto c = std::make_unique<ctx>();
    for (auto [core, ncores, first, end] : {std::tuple{0, 1, 0, 12},
                                            {0, 2, 0, 6},
                                            {1, 2, 6, 12},
                                            {3, 5, 6, 8},
                                            {4, 5, 8, 12},
                                            {11, 13, 0, 0},
                                            {12, 13, 0, 12}}) {
        for (feature_vect& f : c->region_features) f.region = -7;
        blc_local_hist_features(c.get(), &seg, core, ncores);
        for (int r = 0; r < kRegionCount; ++r)
            EXPECT_EQ(c->region_features[r].region, r >= first && r < end ? r : -7) << core << " of " << ncores;
    }
}

TEST(LocalFeatures, TwoCoresAtOnceMatchOneCore) {
    std::vector<uint8_t> img(96 * 60);
    test::fill_random(img.data(), img.size(), 1234);
    for (size_t i = 0; i < img.size(); ++i) img[i] = static_cast<uint8_t>(img[i] / 3 + (i % 96));
    segment seg{img.data(), nullptr, 96, 60, 96, 60};
    auto one = std::make_unique<ctx>(), two = std::make_unique<ctx>();
    blc_local_hist_features(one.get(), &seg, 0, 1);
    std::thread worker([&] { blc_local_hist_features(two.get(), &seg, 1, 2); });
    blc_local_hist_features(two.get(), &seg, 0, 2);
    worker.join();
    EXPECT_EQ(memcmp(one->region_hist, two->region_hist, sizeof one->region_hist), 0);
    EXPECT_EQ(memcmp(one->region_features, two->region_features, sizeof one->region_features), 0);
}

// Every region holds the comb with the most peaks detection allows; the
// last region's share of the scratch must still hold all of them.
TEST(LocalFeatures, MaximalPeaksInRegionElevenStayInsideScratch) {
    std::vector<uint8_t> comb;
    for (int j = 0; j < 256; ++j)
        if (j % 7 < 4) comb.push_back(static_cast<uint8_t>(j));
    const int width = 4 * static_cast<int>(comb.size());
    std::vector<uint8_t> img;
    for (int k = 0; k < 12; ++k) img.insert(img.end(), comb.begin(), comb.end());
    segment seg{img.data(), nullptr, width, 3, width, 3};
    auto c = std::make_unique<ctx>();
    blc_local_hist_features(c.get(), &seg, 0, 1);
    EXPECT_FLOAT_EQ(c->region_features[11].peak_count_log, std::log(0.01f + 86.0f / 64.0f));
}

TEST(FeatureSort, AscendingByExchangesNanNeverMoved) {
    auto sorted = [](std::vector<float> weights) {
        std::vector<feature_vect> src(weights.size()), dst(weights.size());
        for (size_t i = 0; i < src.size(); ++i) {
            src[i].posn_wt = weights[i];
            src[i].region = static_cast<int32_t>(i);
        }
        sort_feature_vect(src.data(), dst.data(), static_cast<int>(src.size()), compare_peak_posn_wt);
        std::vector<int> regions;
        for (const feature_vect& f : dst) regions.push_back(f.region);
        return regions;
    };
    using V = std::vector<int>;
    EXPECT_EQ(sorted({3, 1, 2, 4, 5, 6, 7, 8, 9, 10, 11, 12}), (V{1, 2, 0, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
    EXPECT_EQ(sorted({2, 1, 2, 1}), (V{1, 3, 2, 0}));    // a stable sort would give 1, 3, 0, 2
    EXPECT_EQ(sorted({NAN, 1, 2, 0}), (V{0, 3, 1, 2}));  // NaN compares greater than nothing
    EXPECT_EQ(sorted({5}), V{0});
}

}  // namespace
}  // namespace qimra
