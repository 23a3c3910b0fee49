// Chroma scaling: the 16-bit wrap and rounding shift on every (sample, gain)
// pair, the run-at-least-once loops, and the vector forms against the
// per-pixel forms.
#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <vector>

#include "filters/scale_uv.h"
#include "support/engine_helpers.h"
#include "support/forms.h"

namespace qimra::test {
namespace {

// Written independently of the kernels: the product taken modulo 2^16 as a
// signed value, then round-half-up division by 32 clamped to a byte.
int expected(int c, int g) {
    int v = ((c - 128) * g + 4096) & 0xFFFF;
    if (v >= 32768) v -= 65536;
    const int r = (v + 16) >> 5;
    return r < 0 ? 0 : r > 255 ? 255 : r;
}

struct Buffers {
    size_t pairs;
    std::vector<uint8_t> u, v, uv, gain;
    explicit Buffers(size_t n, uint32_t seed) : pairs(n), u(n), v(n), uv(2 * n), gain(n) {
        fill_random(u.data(), n, seed);
        fill_random(v.data(), n, seed + 1);
        fill_random(uv.data(), 2 * n, seed + 2);
        fill_random(gain.data(), n, seed + 3);
    }
};

using PlanarFn = void (*)(const uint8_t*, const uint8_t*, uint8_t*, uint8_t*, const uint8_t*, int32_t, int32_t);
using InterleavedFn = void (*)(const uint8_t*, uint8_t*, const uint8_t*, int32_t, int32_t);

void exported_nv(const uint8_t* in_uv, uint8_t* out_uv, const uint8_t* gain, int32_t width, int32_t height) {
    blc_scale_uv_nv(in_uv, nullptr, out_uv, nullptr, gain, width, height);
}

struct Form {
    const char* name;
    PlanarFn planar;
    InterleavedFn nv;
};

// The exported functions and every vector form this processor runs.
std::vector<Form> forms() {
    std::vector<Form> all = {{"exported", blc_scale_uv_planar, exported_nv}};
    const auto planar = vector_forms<PlanarFn>({.neon = QIMRA_NEON_FORM(scale_uv_planar_neon),
                                                .sse41 = QIMRA_X86_FORM(scale_uv_planar_sse41),
                                                .avx2 = QIMRA_X86_FORM(scale_uv_planar_avx2)});
    const auto nv = vector_forms<InterleavedFn>({.neon = QIMRA_NEON_FORM(scale_uv_nv_neon),
                                                 .sse41 = QIMRA_X86_FORM(scale_uv_nv_sse41),
                                                 .avx2 = QIMRA_X86_FORM(scale_uv_nv_avx2)});
    for (size_t i = 0; i < planar.size(); ++i) all.push_back({planar[i].first, planar[i].second, nv[i].second});
    return all;
}

TEST(ScaleUv, EverySampleAndGainPairMatchesTheWrappingFormula) {
    // 65536 pairs: width 16 and 16384 luma rows give 8192 rows of 8 pairs.
    Buffers b(65536, 1);
    for (size_t i = 0; i < b.pairs; ++i) {
        b.u[i] = b.uv[2 * i] = uint8_t(i);
        b.v[i] = b.uv[2 * i + 1] = uint8_t(255 - (i & 0xFF));
        b.gain[i] = uint8_t(i >> 8);
    }
    std::vector<Form> all = forms();
    all.push_back({"per-pixel", scale_uv_planar_c, scale_uv_nv_c});
    for (const Form& f : all) {
        std::vector<uint8_t> ou(b.pairs), ov(b.pairs), ouv(2 * b.pairs);
        f.planar(b.u.data(), b.v.data(), ou.data(), ov.data(), b.gain.data(), 16, 16384);
        f.nv(b.uv.data(), ouv.data(), b.gain.data(), 16, 16384);
        for (size_t i = 0; i < b.pairs; ++i) {
            ASSERT_EQ(ou[i], expected(b.u[i], b.gain[i])) << f.name << " c=" << int(b.u[i]) << " g=" << int(b.gain[i]);
            ASSERT_EQ(ov[i], expected(b.v[i], b.gain[i])) << f.name << " c=" << int(b.v[i]) << " g=" << int(b.gain[i]);
            ASSERT_EQ(ouv[2 * i], ou[i]) << f.name;
            ASSERT_EQ(ouv[2 * i + 1], ov[i]) << f.name;
        }
    }
}

TEST(ScaleUv, NamedValues) {
    EXPECT_EQ(scale_chroma(255, 255), 0);  // 127 * 255 + 4096 wraps negative
    EXPECT_EQ(scale_chroma(0, 255), 0);
    EXPECT_EQ(scale_chroma(200, 64), 255);
    EXPECT_EQ(scale_chroma(129, 16), 129);  // 128.5 rounds up
    EXPECT_EQ(scale_chroma(127, 16), 128);  // 127.5 rounds up
    for (int g = 0; g < 256; ++g) EXPECT_EQ(scale_chroma(128, uint8_t(g)), 128) << g;
    for (int c = 0; c < 256; ++c) EXPECT_EQ(scale_chroma(uint8_t(c), 32), c) << c;
}

TEST(ScaleUv, VectorFormsMatchPerPixelFormsInPlaceToo) {
    uint32_t seed = 10;
    for (int32_t width : {-16, 0, 1, 8, 16, 17, 31, 32, 48, 960})
        for (int32_t height : {-1, 0, 1, 2, 3, 4, 7}) {
            // Buffers hold exactly what the loops visit.
            const Buffers b(8 * scale_uv_groups(width, height), seed += 5);
            std::vector<uint8_t> wu(b.pairs), wv(b.pairs), wuv(2 * b.pairs);
            scale_uv_planar_c(b.u.data(), b.v.data(), wu.data(), wv.data(), b.gain.data(), width, height);
            scale_uv_nv_c(b.uv.data(), wuv.data(), b.gain.data(), width, height);

            for (const Form& f : forms()) {
                std::vector<uint8_t> gu(b.pairs), gv(b.pairs), guv(2 * b.pairs);
                f.planar(b.u.data(), b.v.data(), gu.data(), gv.data(), b.gain.data(), width, height);
                f.nv(b.uv.data(), guv.data(), b.gain.data(), width, height);
                ASSERT_EQ(gu, wu) << f.name << " " << width << "x" << height;
                ASSERT_EQ(gv, wv) << f.name << " " << width << "x" << height;
                ASSERT_EQ(guv, wuv) << f.name << " " << width << "x" << height;

                std::vector<uint8_t> u = b.u, v = b.v, uv = b.uv;
                f.planar(u.data(), v.data(), u.data(), v.data(), b.gain.data(), width, height);
                f.nv(uv.data(), uv.data(), b.gain.data(), width, height);
                ASSERT_EQ(u, wu) << f.name << " in place " << width << "x" << height;
                ASSERT_EQ(v, wv) << f.name << " in place " << width << "x" << height;
                ASSERT_EQ(uv, wuv) << f.name << " in place " << width << "x" << height;
            }
        }
}

TEST(ScaleUv, LoopsRunAtLeastOnceAndPointersRunOn) {
    EXPECT_EQ(scale_uv_groups(0, 0), 1u);
    EXPECT_EQ(scale_uv_groups(-40, 6), 3u);
    EXPECT_EQ(scale_uv_groups(16, 0), 1u);
    EXPECT_EQ(scale_uv_groups(17, 2), 2u);  // a width of 17 over-runs by a group
    EXPECT_EQ(scale_uv_groups(64, 5), 12u);

    // A zero-sized band still writes one group of 8 pairs and nothing more.
    const uint8_t kUntouched = 0x77;
    std::vector<uint8_t> in(8, 255), gain(8, 64), out(16, kUntouched), out_uv(32, kUntouched), in_uv(16, 0);
    blc_scale_uv_planar(in.data(), in.data(), out.data(), out.data() + 8, gain.data(), 0, 0);
    blc_scale_uv_nv(in_uv.data(), nullptr, out_uv.data(), nullptr, gain.data(), 0, 0);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(out[i], 255) << i;   // 128 + 127 * 2 saturates
    for (int i = 0; i < 16; ++i) EXPECT_EQ(out_uv[i], 0) << i;  // 128 - 128 * 2 saturates
    for (int i = 16; i < 32; ++i) EXPECT_EQ(out_uv[i], kUntouched) << i;
}

}  // namespace
}  // namespace qimra::test
