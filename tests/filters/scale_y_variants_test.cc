// The luma-scaling variants without a caller in the frame path: quarter-size
// base over 4 x 4 blocks, half-size base with interleaved chroma in the same
// pass, and the upscale by four with the tone curve on the fly.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "filters/cheap_clamp_reference.h"
#include "support/engine_helpers.h"

namespace qimra::test {
namespace {

// A context whose table holds random entries, so every output byte depends
// on the right index.
struct TableCtx {
    std::unique_ptr<ctx> c{new ctx{}};
    std::vector<uint16_t> lut = std::vector<uint16_t>(32768);
    explicit TableCtx(uint32_t seed = 99) {
        fill_random(reinterpret_cast<uint8_t*>(lut.data()), lut.size() * 2, seed);
        c->chroma_lut16 = lut.data();
    }
    uint16_t entry(uint8_t y, uint8_t base) const { return lut[(y << 7) | (base >> 1)]; }
};

std::vector<uint8_t> random_bytes(size_t n, uint32_t seed) {
    std::vector<uint8_t> v(n);
    fill_random(v.data(), n, seed);
    return v;
}

TEST(ScaleYVariantsQuarter, BlocksMatchTheTableAndLeftoversStayUntouched) {
    TableCtx t;
    uint32_t seed = 10;
    for (int w : {4, 8, 36, 64})
        for (int h : {4, 9, 14, 16}) {
            const auto src = random_bytes(size_t(w) * h, ++seed);
            const auto base = random_bytes(size_t(w / 4) * (h / 4), ++seed);
            std::vector<uint8_t> dst(src.size(), 0x3C), gain(size_t(w / 2) * (h / 2), 0xC3);
            blc_scale_y(src.data(), w, dst.data(), w, base.data(), gain.data(), w, h, t.c.get());
            const int rows = h / 4 * 4;
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) {
                    const bool inside = y < rows;
                    const uint16_t e =
                        inside ? t.entry(src[size_t(y) * w + x], base[size_t(y / 4) * (w / 4) + x / 4]) : 0xC33C;
                    ASSERT_EQ(dst[size_t(y) * w + x], e & 0xFF) << w << "x" << h << " " << x << "," << y;
                    if (x % 2 == 0 && y % 2 == 0 && y / 2 < h / 2) {
                        ASSERT_EQ(gain[size_t(y / 2) * (w / 2) + x / 2], e >> 8)
                            << w << "x" << h << " gain " << x << "," << y;
                    }
                }
        }
}

TEST(ScaleYVariantsQuarter, BlockRowsAdvanceByTheRoundedWidth) {
    // Width 10 with strides 10: block row i starts at 38 * i (8 rounded
    // columns plus three strides), not at 40 * i, so beyond the first block
    // row a leftover width shifts the tiling rather than leaving the right
    // columns alone.
    TableCtx t;
    const int w = 10, h = 8;
    const auto src = random_bytes(size_t(w) * h, 21);
    const auto base = random_bytes(size_t(w / 4) * (h / 4), 22);
    std::vector<uint8_t> dst(src.size(), 0x3C), gain(size_t(w / 2) * (h / 2), 0xC3);
    blc_scale_y(src.data(), w, dst.data(), w, base.data(), gain.data(), w, h, t.c.get());
    std::vector<uint8_t> want(dst.size(), 0x3C), want_gain(gain.size(), 0xC3);
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j < 2; ++j)
            for (int ry = 0; ry < 4; ++ry)
                for (int rx = 0; rx < 4; ++rx) {
                    const size_t k = size_t(38 * i + 10 * ry + 4 * j + rx);
                    const uint16_t e = t.entry(src[k], base[size_t(2 * i + j)]);
                    want[k] = uint8_t(e);
                    if (ry % 2 == 0 && rx % 2 == 0)
                        want_gain[size_t((2 * i + ry / 2) * 5 + 2 * j + rx / 2)] = uint8_t(e >> 8);
                }
    EXPECT_EQ(dst, want);
    EXPECT_EQ(gain, want_gain);
}

// One 2 x 2 block whose bottom-right pixel (luma 1) carries gain g in the
// table while the others (luma 0) carry 77.
uint8_t yuv12_block_chroma(uint8_t c, uint8_t g, uint8_t* plane_gain) {
    TableCtx t;
    for (int b = 0; b < 128; ++b) {
        t.lut[(0 << 7) | b] = uint16_t(77 << 8);
        t.lut[(1 << 7) | b] = uint16_t(g << 8);
    }
    const uint8_t src[4] = {0, 0, 0, 1}, base[1] = {0};
    const uint8_t in[2] = {c, c};
    uint8_t dst[4], out[2];
    blc_scale_yuv12_2x2nn(src, 2, dst, 2, base, plane_gain, 2, 2, t.c.get(), in, in + 1, out, out + 1);
    EXPECT_EQ(out[0], out[1]);
    return out[0];
}

TEST(ScaleYVariantsYuv12, ChromaClampTable) {
    struct Case {
        uint8_t c, g, expected;
    } const cases[] = {
        {0, 255, 4},      // t = -892: three 256s below, stored 4, not 0
        {100, 32, 100},   // unity
        {128, 250, 128},  // neutral stays
        {127, 33, 126},   // flooring shift: -33 >> 5 = -2
        {200, 64, 255},   // t = 272
        {255, 160, 254},  // t = 763
        {255, 255, 252},  // t = 1140
        {60, 100, 1},     // t = -85
        {0, 128, 2},      // t = -384
    };
    for (const Case& k : cases) {
        uint8_t plane_gain = 0;
        EXPECT_EQ(yuv12_block_chroma(k.c, k.g, &plane_gain), k.expected) << int(k.c) << " * " << int(k.g);
        EXPECT_EQ(plane_gain, 77) << "the gain plane takes the top-left pixel's gain";
    }
}

TEST(ScaleYVariantsYuv12, LumaGainAndChromaFollowTheBlockWalk) {
    TableCtx t(5);
    uint32_t seed = 30;
    for (int w : {2, 6, 16, 30})
        for (int h : {2, 5, 8}) {
            const int bw = w / 2, bh = h / 2;
            const auto src = random_bytes(size_t(w) * h, ++seed);
            const auto base = random_bytes(size_t(bw) * bh, ++seed);
            const auto uv = random_bytes(size_t(2 * bw) * bh, ++seed);
            std::vector<uint8_t> dst(src.size(), 0x3C), gain(size_t(bw) * bh, 0xC3), out_uv(uv.size(), 0x99);
            blc_scale_yuv12_2x2nn(src.data(), w, dst.data(), w, base.data(), gain.data(), w, h, t.c.get(), uv.data(),
                                  uv.data() + 1, out_uv.data(), out_uv.data() + 1);
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) {
                    if (y >= 2 * bh) {
                        ASSERT_EQ(dst[size_t(y) * w + x], 0x3C) << w << "x" << h << " leftover row";
                        continue;
                    }
                    const uint8_t b = base[size_t(y / 2) * bw + x / 2];
                    const uint16_t e = t.entry(src[size_t(y) * w + x], b);
                    ASSERT_EQ(dst[size_t(y) * w + x], e & 0xFF) << w << "x" << h << " " << x << "," << y;
                    if (x % 2 == 0 && y % 2 == 0) {
                        ASSERT_EQ(gain[size_t(y / 2) * bw + x / 2], e >> 8);
                        const uint8_t g = uint8_t(t.entry(src[size_t(y + 1) * w + x + 1], b) >> 8);
                        const size_t k = size_t(y / 2) * (2 * bw) + x;
                        ASSERT_EQ(out_uv[k], cheap_clamp_reference(uv[k], g)) << w << "x" << h << " uv " << k;
                        ASSERT_EQ(out_uv[k + 1], cheap_clamp_reference(uv[k + 1], g)) << w << "x" << h << " uv " << k;
                    }
                }
        }
}

// Tables of the upscale by four: random tone table and slope table unless a
// test sets them; recip16_b as init builds it (entry n - 8 = 65536 / n).
struct EnhCtx {
    std::unique_ptr<ctx> c{new ctx{}};
    std::vector<uint8_t> sig = std::vector<uint8_t>(256);
    explicit EnhCtx(uint32_t seed) {
        fill_random(c->gamma_lut, 256, seed);
        fill_random(sig.data(), 256, seed + 1);
        c->sig50p1_lut = sig.data();
        for (int n = 8; n < 308; ++n) c->recip16_b[n - 8] = 65536 / n;
    }
    // Output luma = Y - b2 (mod 256), so b2 can be read back from the output.
    void reveal_base() {
        for (int i = 0; i < 256; ++i) {
            c->gamma_lut[i] = 0;
            sig[i] = 128;
        }
    }
};

struct Upscale {
    int ws, hs, hd, height;
    std::vector<uint8_t> base, src, dst, gain;
    Upscale(int ws_, int hs_, int hd_, int height_, uint8_t luma)
        : ws(ws_), hs(hs_), hd(hd_), height(height_), base(size_t(ws_) * hs_), src(size_t(4 * ws_) * height_, luma),
          dst(src.size(), 0x3C), gain(size_t(2 * ws_) * (height_ / 2 + 1), 0xC3) {}
    void run(EnhCtx& e) {
        qimra_job job{};
        job.rs_src_width = ws;
        job.rs_src_stride = ws;
        job.rs_src_height = hs;
        job.rs_dst_height = hd;
        qimra_upscale4_y_enh_mc(&job, src.data(), 4 * ws, dst.data(), 4 * ws, base.data(), gain.data(), 4 * ws, height,
                                e.c.get());
    }
    uint8_t out(int x, int y) const { return dst[size_t(y) * 4 * ws + x]; }
};

TEST(ScaleYVariantsUpscale4, UniformBaseAppliesTheToneFormulaAndGainRows) {
    EnhCtx e(7);
    Upscale u(5, 3, 12, 12, 0);
    std::fill(u.base.begin(), u.base.end(), 143);  // b2 = 71 everywhere
    fill_random(u.src.data(), u.src.size(), 8);
    u.run(e);
    const int w = 20;
    auto level = [&](int x, int y) {
        const int yv = u.src[size_t(y) * w + x];
        return uint32_t(int32_t(e.c->gamma_lut[71]) + e.sig[yv] * (yv - 71)) >> 7;
    };
    for (int y = 0; y < 12; ++y)
        for (int x = 0; x < w; ++x) ASSERT_EQ(u.out(x, y), uint8_t(level(x, y))) << x << "," << y;
    // Gain row k keeps output row 2k's values (row 0 for k = 0; the last,
    // odd output row 11 writes row 6); columns 0 and 2 of each group of four.
    for (int k = 0; k <= 6; ++k) {
        const int y = k == 0 ? 0 : (2 * k < 12 ? 2 * k : 2 * k - 1);
        for (int gx = 0; gx < 10; ++gx) {
            const int x = 4 * (gx / 2) + 2 * (gx % 2);
            const uint32_t want = (uint32_t(e.c->recip16_b[u.src[size_t(y) * w + x]]) * (level(x, y) & 0xFFFF)) >> 11;
            ASSERT_EQ(u.gain[size_t(k) * 10 + gx], uint8_t(want)) << "gain row " << k << " col " << gx;
        }
    }
}

TEST(ScaleYVariantsUpscale4, HorizontalPhasesAndLastColumn) {
    EnhCtx e(1);
    e.reveal_base();
    Upscale u(2, 3, 9, 9, 200);
    for (int r = 0; r < 3; ++r) {
        u.base[size_t(r) * 2] = 0;
        u.base[size_t(r) * 2 + 1] = 255;
    }
    u.run(e);
    // (3, 7, 11, 15) / 16 of 255, halved and truncated; the last base column
    // pairs with itself: 255 >> 1 = 127.
    const int b2[8] = {23, 55, 87, 119, 127, 127, 127, 127};
    for (int y = 0; y < 9; ++y)
        for (int x = 0; x < 8; ++x) ASSERT_EQ(u.out(x, y), 200 - b2[x]) << x << "," << y;
}

TEST(ScaleYVariantsUpscale4, VerticalStepPhaseAndLastRow) {
    struct Geometry {
        int hs, hd, height;
        std::vector<std::pair<int, int>> first_rows;  // (base row, f) of output rows 0, 1, 2, ...
    } const cases[] = {
        // Enlarging: step ((4 - 1) << 16) / 15 = 13107, start 0.
        {4, 16, 16, {{0, 0}, {0, 3}, {0, 6}, {0, 9}, {0, 12}, {0, 15}, {1, 3}}},
        // Equal: step exactly 1.0, start one half; the last row pairs with itself.
        {6, 6, 6, {{0, 8}, {1, 8}, {2, 8}, {3, 8}, {4, 8}, {5, 8}}},
        // Reducing by two: step 2.0, start one half.
        {8, 4, 4, {{0, 8}, {2, 8}, {4, 8}, {6, 8}}},
        // Reducing by 7/3: step 152917, start (152917 & 0xFFFF) >> 1 = 10922.
        {7, 3, 3, {{0, 2}, {2, 7}, {4, 13}}},
    };
    for (const Geometry& g : cases) {
        EnhCtx e(2);
        e.reveal_base();
        Upscale u(3, g.hs, g.hd, g.height, 200);
        for (int r = 0; r < g.hs; ++r)
            for (int x = 0; x < 3; ++x) u.base[size_t(r) * 3 + x] = uint8_t(20 * r + 5);
        u.run(e);
        const uint64_t step = g.hs > g.hd ? (uint64_t(g.hs) << 16) / g.hd : (uint64_t(g.hs - 1) << 16) / (g.hd - 1);
        const uint64_t start = step < 65536 ? 0 : ((step & 0xFFFF) ? (step & 0xFFFF) >> 1 : 32768);
        for (int y = 0; y < g.height; ++y) {
            const uint64_t p = start + y * step;
            const int row = int(p >> 16), f = int((p & 0xFFFF) >> 12);
            if (size_t(y) < g.first_rows.size()) {
                ASSERT_EQ(row, g.first_rows[size_t(y)].first) << "hs " << g.hs << " row " << y;
                ASSERT_EQ(f, g.first_rows[size_t(y)].second) << "hs " << g.hs << " row " << y;
            }
            const int top = 20 * row + 5, bottom = 20 * std::min(row + 1, g.hs - 1) + 5;
            const int want_b2 = ((16 - f) * top + f * bottom) >> 5;
            for (int x = 0; x < 12; ++x)
                ASSERT_EQ(u.out(x, y), 200 - want_b2) << "hs " << g.hs << " at " << x << "," << y;
        }
    }
}

}  // namespace
}  // namespace qimra::test
