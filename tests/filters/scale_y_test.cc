// Luma scaling through the tone-and-gain table against a full-size base
// (4 x 4 blocks) and a half-size base (2 x 2 blocks, nearest neighbour).
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "filters/scale_y.h"
#include "simd/arm.h"
#include "support/engine_helpers.h"

namespace qimra::test {
namespace {

using ScaleFn = void (*)(const uint8_t*, int, uint8_t*, int, const uint8_t*, uint8_t*, int, int, qimra_ctx*);

// A context whose only field in use is a table of random entries (so that
// every luma and gain byte of the result depends on the right index).
struct TableCtx {
    std::unique_ptr<ctx> c{new ctx{}};
    std::vector<uint16_t> lut = std::vector<uint16_t>(32768);
    TableCtx() {
        fill_random(reinterpret_cast<uint8_t*>(lut.data()), lut.size() * 2, 2024);
        c->chroma_lut16 = lut.data();
    }
};

struct Case {
    ScaleFn fn;
    int32_t block;  // 4 for the full-size base, 2 for the half-size base
    const char* name;
};
// blc_scale_y_2x2nn runs the form the dispatch chose; where that can be the
// Thumb-2 form, the per-pixel and the Thumb-2 form are listed too.
const Case kCases[] = {
    {blc_scale_y_fs, 4, "fs"},
    {blc_scale_y_2x2nn, 2, "2x2nn"},
#if QIMRA_ARM_FORMS
    {[](const uint8_t* s, int ss, uint8_t* d, int ds, const uint8_t* b, uint8_t* g, int w, int h, qimra_ctx* c) {
         scale_y_2x2nn_c(s, ss, d, ds, b, g, w, h, c->chroma_lut16);
     },
     2, "2x2nn per-pixel"},
    {[](const uint8_t* s, int ss, uint8_t* d, int ds, const uint8_t* b, uint8_t* g, int w, int h, qimra_ctx* c) {
         scale_y_2x2nn_arm(s, ss, d, ds, b, g, w, h, c->chroma_lut16);
     },
     2, "2x2nn thumb-2"},
#endif
};

struct Planes {
    int32_t width, height;
    std::vector<uint8_t> src, dst, base, gain;
    Planes(const Case& k, int32_t w, int32_t h, uint32_t seed)
        : width(w), height(h), src(size_t(w) * h), dst(size_t(w) * h, 0x3C),
          base(k.block == 4 ? size_t(w) * h : size_t(w / 2) * (h / 2)), gain(size_t(w / 2) * (h / 2), 0xC3) {
        fill_random(src.data(), src.size(), seed);
        fill_random(base.data(), base.size(), seed * 7 + 1);
    }
    void run(const Case& k, TableCtx& t) {
        k.fn(src.data(), width, dst.data(), width, base.data(), gain.data(), width, height, t.c.get());
    }
};

// Every pixel of whole blocks looks itself up against its base sample; the
// gain of each 2 x 2 block comes from its top-left pixel.
void expect_reference(const Case& k, const Planes& p, const uint8_t* dst, const uint8_t* gain, const TableCtx& t) {
    const int32_t w = p.width, cols = w / k.block * k.block, rows = p.height / k.block * k.block;
    for (int32_t y = 0; y < p.height; ++y)
        for (int32_t x = 0; x < w; ++x) {
            const bool has_gain = x % 2 == 0 && y % 2 == 0 && x / 2 < w / 2 && y / 2 < p.height / 2;
            const size_t gain_at = size_t(y / 2) * (w / 2) + x / 2;
            if (x >= cols || y >= rows) {
                ASSERT_EQ(dst[size_t(y) * w + x], 0x3C) << k.name << " " << x << "," << y;
                if (has_gain) {
                    ASSERT_EQ(gain[gain_at], 0xC3) << k.name << " gain " << x << "," << y;
                }
                continue;
            }
            const uint8_t b = k.block == 4 ? p.base[size_t(y) * w + x] : p.base[size_t(y / 2) * (w / 2) + x / 2];
            const uint16_t e = t.lut[(p.src[size_t(y) * w + x] << 7) | (b >> 1)];
            ASSERT_EQ(dst[size_t(y) * w + x], e & 0xFF) << k.name << " " << x << "," << y;
            if (has_gain) {
                ASSERT_EQ(gain[gain_at], e >> 8) << k.name << " gain " << x << "," << y;
            }
        }
}

TEST(ScaleY, WholeBlocksMatchTheTableAndLeftoversStayUntouched) {
    // A width that is not whole blocks is only a plain tiling within one
    // block row (see BlockRowsAdvanceByTheRoundedWidth), so those widths get
    // a single block row; whole-block widths get leftover rows.
    TableCtx t;
    uint32_t seed = 1;
    for (const Case& k : kCases) {
        for (int32_t w : {16, 24, 64, 96, 1920 / 8})
            for (int32_t h : {k.block, 3 * k.block, 3 * k.block + 1, 5 * k.block - 1}) {
                Planes p(k, w, h, ++seed);
                p.run(k, t);
                expect_reference(k, p, p.dst.data(), p.gain.data(), t);
            }
        for (int32_t w = k.block; w < 8 * k.block; ++w) {
            Planes p(k, w, k.block + 1, ++seed);
            p.run(k, t);
            expect_reference(k, p, p.dst.data(), p.gain.data(), t);
        }
    }
}

TEST(ScaleY, InPlaceEqualsSeparateOutput) {
    TableCtx t;
    for (const Case& k : kCases) {
        Planes p(k, 160, 36, 5);
        p.run(k, t);
        std::vector<uint8_t> frame = p.src, gain(p.gain.size(), 0xC3);
        k.fn(frame.data(), p.width, frame.data(), p.width, p.base.data(), gain.data(), p.width, p.height, t.c.get());
        EXPECT_EQ(frame, p.dst) << k.name;
        EXPECT_EQ(gain, p.gain) << k.name;
    }
}

TEST(ScaleY, BaseValuesTwoKAndTwoKPlusOneAreTheSame) {
    TableCtx t;
    for (const Case& k : kCases) {
        Planes p(k, 64, 24, 9);
        p.run(k, t);
        for (uint8_t& b : p.base) b ^= 1;
        std::vector<uint8_t> dst(p.dst.size(), 0x3C), gain(p.gain.size(), 0xC3);
        k.fn(p.src.data(), p.width, dst.data(), p.width, p.base.data(), gain.data(), p.width, p.height, t.c.get());
        EXPECT_EQ(dst, p.dst) << k.name;
        EXPECT_EQ(gain, p.gain) << k.name;
    }
}

TEST(ScaleY, BlockRowsAdvanceByTheRoundedWidth) {
    // Strides must equal the width; with a width that is not whole blocks
    // each block row starts (width mod block) bytes earlier than the plain
    // tiling would, while base and gain rows keep their own row lengths.
    TableCtx t;
    for (const Case& k : kCases) {
        const int32_t w = 4 * k.block + 1, h = 3 * k.block, cols = 4 * k.block;
        Planes p(k, w, h, 13);
        p.run(k, t);
        std::vector<uint8_t> want(p.dst.size(), 0x3C);
        for (int32_t by = 0; by < h / k.block; ++by)
            for (int32_t r = 0; r < k.block; ++r)
                for (int32_t x = 0; x < cols; ++x) {
                    const int32_t y = by * k.block + r;
                    const size_t at = size_t(by) * (cols + (k.block - 1) * w) + size_t(r) * w + x;
                    const uint8_t b =
                        k.block == 4 ? p.base[size_t(y) * w + x] : p.base[size_t(y / 2) * (w / 2) + x / 2];
                    want[at] = uint8_t(t.lut[(p.src[at] << 7) | (b >> 1)]);
                }
        EXPECT_EQ(p.dst, want) << k.name;
    }
}

}  // namespace
}  // namespace qimra::test
