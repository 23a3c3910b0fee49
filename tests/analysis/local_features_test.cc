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

std::unique_ptr<ctx> zeroed_ctx() { return std::make_unique<ctx>(); }

void mark_regions_unvisited(ctx* c) {
    for (feature_vect& f : c->region_features) f.region = -7;
}

std::vector<int> visited_regions(const ctx* c) {
    std::vector<int> out;
    for (int r = 0; r < kRegionCount; ++r)
        if (c->region_features[r].region == r) out.push_back(r);
    return out;
}

// Every pixel of a 10 x 7 image holds its own index; the segment's stride is
// deliberately wrong, since regions are addressed with the width as pitch.
TEST(LocalFeatures, TenBySevenCellsCoverTheImageOnWidthPitch) {
    std::vector<uint8_t> img(70);
    for (int i = 0; i < 70; ++i) img[i] = static_cast<uint8_t>(i);
    segment seg{img.data(), nullptr, 10, 7, 37, 7};
    auto c = zeroed_ctx();
    blc_local_hist_features(c.get(), &seg, 0, 1);

    const int col_x[4] = {0, 2, 4, 6}, col_w[4] = {2, 2, 2, 4};
    const int row_y[3] = {0, 2, 4}, row_h[3] = {2, 2, 3};
    for (int r = 0; r < kRegionCount; ++r) {
        const int cx = col_x[r % 4], cw = col_w[r % 4], ry = row_y[r / 4], rh = row_h[r / 4];
        for (int v = 0; v < 256; ++v) {
            const int x = v % 10, y = v / 10;
            const bool inside = v < 70 && x >= cx && x < cx + cw && y >= ry && y < ry + rh;
            ASSERT_EQ(c->region_hist[r][v], inside ? 1u : 0u) << "region " << r << " value " << v;
        }
        EXPECT_EQ(c->region_features[r].region, r);
    }
}

TEST(LocalFeatures, RegionsAreSplitAmongCores) {
    std::vector<uint8_t> img(64 * 48, 90);
    segment seg{img.data(), nullptr, 64, 48, 64, 48};
    auto c = zeroed_ctx();
    auto run = [&](int core, int ncores) {
        mark_regions_unvisited(c.get());
        blc_local_hist_features(c.get(), &seg, core, ncores);
        return visited_regions(c.get());
    };
    using V = std::vector<int>;
    EXPECT_EQ(run(0, 1), (V{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
    EXPECT_EQ(run(0, 2), (V{0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(run(1, 2), (V{6, 7, 8, 9, 10, 11}));
    EXPECT_EQ(run(0, 5), (V{0, 1}));
    EXPECT_EQ(run(3, 5), (V{6, 7}));
    EXPECT_EQ(run(4, 5), (V{8, 9, 10, 11}));
    for (int core = 0; core < 12; ++core) EXPECT_EQ(run(core, 13), V{}) << core;
    EXPECT_EQ(run(12, 13), (V{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
}

TEST(LocalFeatures, TwoCoresAtOnceMatchOneCore) {
    std::vector<uint8_t> img(96 * 60);
    test::fill_random(img.data(), img.size(), 1234);
    for (size_t i = 0; i < img.size(); ++i) img[i] = static_cast<uint8_t>(img[i] / 3 + (i % 96));
    segment seg{img.data(), nullptr, 96, 60, 96, 60};

    auto one = zeroed_ctx();
    blc_local_hist_features(one.get(), &seg, 0, 1);

    auto two = zeroed_ctx();
    std::thread worker([&] { blc_local_hist_features(two.get(), &seg, 1, 2); });
    blc_local_hist_features(two.get(), &seg, 0, 2);
    worker.join();

    EXPECT_EQ(memcmp(one->region_hist, two->region_hist, sizeof one->region_hist), 0);
    EXPECT_EQ(memcmp(one->region_features, two->region_features, sizeof one->region_features), 0);
}

// Every region holds the comb that has the most peaks detection allows; the
// last region's share of the scratch must still hold all of them.
TEST(LocalFeatures, MaximalPeaksInRegionElevenStayInsideScratch) {
    std::vector<uint8_t> comb;
    for (int j = 0; j < 256; ++j)
        if (j % 7 < 4) comb.push_back(static_cast<uint8_t>(j));
    const int cell = static_cast<int>(comb.size());
    const int width = 4 * cell;
    std::vector<uint8_t> img(static_cast<size_t>(width) * 3);
    for (int y = 0; y < 3; ++y)
        for (int col = 0; col < 4; ++col) memcpy(&img[y * width + col * cell], comb.data(), comb.size());
    segment seg{img.data(), nullptr, width, 3, width, 3};

    auto c = zeroed_ctx();
    blc_local_hist_features(c.get(), &seg, 0, 1);

    std::vector<peak_descr> scratch(kMaxPeaks);
    feature_vect direct{};
    blc_locate_hist_peaks(reinterpret_cast<const int32_t*>(c->region_hist[11]), &direct, scratch.data());
    direct.region = 11;
    EXPECT_EQ(memcmp(&direct, &c->region_features[11], sizeof direct), 0);
    EXPECT_FLOAT_EQ(c->region_features[11].peak_count_log, std::log(0.01f + 86.0f / 64.0f));
}

std::vector<feature_vect> records_with_weights(std::initializer_list<float> weights) {
    std::vector<feature_vect> v;
    for (float w : weights) {
        feature_vect f{};
        f.posn_wt = w;
        f.region = static_cast<int32_t>(v.size());
        v.push_back(f);
    }
    return v;
}

std::vector<int> regions_of(const std::vector<feature_vect>& v) {
    std::vector<int> out;
    for (const feature_vect& f : v) out.push_back(f.region);
    return out;
}

TEST(FeatureSort, AscendingByPositionWeight) {
    std::vector<feature_vect> src = records_with_weights({3, 1, 2, 4, 5, 6, 7, 8, 9, 10, 11, 12});
    std::vector<feature_vect> dst(12);
    sort_feature_vect(src.data(), dst.data(), 12, compare_peak_posn_wt);
    EXPECT_EQ(regions_of(dst), (std::vector<int>{1, 2, 0, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
    for (int i = 0; i < 12; ++i) EXPECT_EQ(dst[i].posn_wt, static_cast<float>(i + 1));
    EXPECT_EQ(src[0].posn_wt, 3.0f) << "the source is left as it was";
}

TEST(FeatureSort, TiesFollowTheExchangeOrder) {
    // A stable sort would give 1, 3, 0, 2; the exchanges give 1, 3, 2, 0.
    std::vector<feature_vect> v = records_with_weights({2, 1, 2, 1});
    std::vector<feature_vect> dst(4);
    sort_feature_vect(v.data(), dst.data(), 4, compare_peak_posn_wt);
    EXPECT_EQ(regions_of(dst), (std::vector<int>{1, 3, 2, 0}));
}

TEST(FeatureSort, NanNeverComparesGreaterAndShortInputsAreCopied) {
    std::vector<feature_vect> v = records_with_weights({NAN, 1, 2, 1});
    EXPECT_EQ(compare_peak_posn_wt(&v[2], &v[1]), 1);
    EXPECT_EQ(compare_peak_posn_wt(&v[1], &v[2]) + compare_peak_posn_wt(&v[1], &v[3]), 0);
    EXPECT_EQ(compare_peak_posn_wt(&v[0], &v[1]) + compare_peak_posn_wt(&v[1], &v[0]), 0);

    std::vector<feature_vect> dst = records_with_weights({9, 9});
    sort_feature_vect(v.data() + 2, dst.data(), 1, compare_peak_posn_wt);
    EXPECT_EQ(dst[0].region, 2);
    EXPECT_EQ(dst[1].posn_wt, 9.0f);
}

}  // namespace
}  // namespace qimra
