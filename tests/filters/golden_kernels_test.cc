// Checksums of the exported image functions' output on real photographs,
// recorded once from the exact engine. tests/CMakeLists.txt runs every Golden*
// suite under each instruction-set level, so these also hold every dispatched
// form, remainder path included, to the same bytes. Sizes are odd where the
// function allows it so that every vector width leaves a remainder.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

#include "engine/tables.h"
#include "qimra/qimra.h"
#include "support/buffers.h"
#include "support/engine_helpers.h"

namespace qimra::test {
namespace {

using Bytes = std::vector<uint8_t>;

template <class T>
Bytes bytes_of(const std::vector<T>& v) {
    Bytes b(v.size() * sizeof(T));
    std::memcpy(b.data(), v.data(), b.size());
    return b;
}

Bytes cat(const Bytes& a, const Bytes& b) {
    Bytes out(a.size() + b.size());
    std::copy(b.begin(), b.end(), std::copy(a.begin(), a.end(), out.begin()));
    return out;
}

struct Golden {
    const char* name;
    uint64_t sum;
    std::function<Bytes()> run;
};

void expect_goldens(const std::vector<Golden>& table) {
    for (const Golden& g : table) {
        const Bytes out = g.run();
        EXPECT_EQ(fnv1a(out.data(), out.size()), g.sum) << g.name;
    }
}

// Blocks of two levels with noise whose strength grows across the image, so
// that the filter's a covers its range from flat to edge.
Bytes guided_scene(int w, int h, uint32_t seed) {
    Bytes src(size_t(w) * h);
    fill_random(src.data(), src.size(), seed);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            uint8_t& p = src[size_t(y) * w + x];
            const int level = ((x / 7 + y / 5) % 3 == 0) ? 30 : 200;
            const int amplitude = 1 + (x * 60) / std::max(w, 1);
            p = uint8_t(std::clamp(level + (p % (2 * amplitude + 1)) - amplitude, 0, 255));
        }
    return src;
}

TEST(GoldenKernels, GuidedOnePassOnSyntheticScene) {
    const int w = 120, h = 36;
    const Bytes src = guided_scene(w, h, 2024);
    std::vector<uint32_t> sum(size_t(w + 17) * (h + 17)), sq(sum.size());
    blc_gen_ii_pad(src.data(), w, w + 1, w, h, sum.data(), sq.data());
    uint64_t hash = 0;
    for (float eps : {0.04f, 0.0f, -0.1f, 1e30f}) {
        Bytes out(src.size() + 4, 0xAA);
        blc_self_guided_filter_1pass(src.data(), w, sum.data(), sq.data(), 8, eps, out.data(), w, h, nullptr, nullptr,
                                     nullptr, nullptr);
        hash = hash * 31 + fnv1a(out.data(), out.size());
    }
    EXPECT_EQ(hash, 14952126652868605499u);
}

// A context with the engine's fixed tables and a tone-and-gain table taken
// from a second photograph's bytes.
struct TableCtx {
    std::unique_ptr<ctx> c{new ctx{}};
    std::vector<uint16_t> lut = std::vector<uint16_t>(32768);
    Bytes sig = Bytes(256);
    TableCtx() {
        const Bytes bytes = photo_luma(256, 256, "autumn");
        std::memcpy(lut.data(), bytes.data(), 65536);
        c->chroma_lut16 = lut.data();
        for (int i = 0; i < 256; ++i) c->gamma_lut[i] = bytes[size_t(i) * 97];
        fill_sigmoid_lut(sig.data());
        c->sig50p1_lut = sig.data();
        fill_reciprocal_tables(c->recip16_a, c->recip16_b);
    }
};

TEST(GoldenKernels, Filters) {
    const int W = 203, H = 61, S = 211;  // odd sizes, rows S bytes apart
    const Bytes src = photo_luma(S, H, "path"), base = photo_luma(S, H, "water");
    const std::vector<Golden> table = {
        {"integral images", 101014916968650940u,
         [&] {
             std::vector<uint32_t> sum(size_t(W + 3) * (H + 1)), sq(sum.size());
             blc_gen_ii(src.data(), S, W + 3, W, H, sum.data(), sq.data());
             return cat(bytes_of(sum), bytes_of(sq));
         }},
        {"padded integral images", 11828471754570590071u,
         [&] {
             std::vector<uint32_t> sum(size_t(W + 17) * (H + 17)), sq(sum.size());
             blc_gen_ii_pad(src.data(), S, W + 1, W, H, sum.data(), sq.data());
             return cat(bytes_of(sum), bytes_of(sq));
         }},
        {"one-pass guided filter", 16736552263981378802u,
         [&] {
             const int w = 204;
             const Bytes packed = photo_luma(w, H, "path");
             std::vector<uint32_t> sum(size_t(w + 17) * (H + 17)), sq(sum.size());
             blc_gen_ii_pad(packed.data(), w, w + 1, w, H, sum.data(), sq.data());
             Bytes out;
             for (float eps : {0.04f, 0.002f, -0.1f}) {
                 Bytes o(packed.size() + 4);
                 blc_self_guided_filter_1pass(packed.data(), w, sum.data(), sq.data(), 8, eps, o.data(), w, H, nullptr,
                                              nullptr, nullptr, nullptr);
                 out = cat(out, o);
             }
             return out;
         }},
        {"clipped and two-pass guided filters", 3069383643348891780u,
         [&] {
             std::vector<uint32_t> sum(size_t(W + 1) * (H + 1)), sq(sum.size());
             blc_gen_ii(src.data(), S, W + 1, W, H, sum.data(), sq.data());
             Bytes out;
             for (int r : {0, 3, 8}) {
                 Bytes a(size_t(W) * H), b(a.size());
                 blc_self_guided_filter(src.data(), S, sum.data(), sq.data(), r, 0.01f, a.data(), W, H, nullptr,
                                        nullptr, nullptr, nullptr);
                 std::vector<uint32_t> ps(size_t(W + 17) * (H + 17)), pq(ps.size());
                 blc_self_guided_filter_2pass_pad(src.data(), S, ps.data(), pq.data(), r, 0.01f, b.data(), W, H,
                                                  nullptr, nullptr, nullptr);
                 out = cat(cat(out, a), b);
             }
             return out;
         }},
        {"luma scaling", 5653385896346143031u,
         [&] {
             TableCtx t;
             Bytes out;
             using Fn = decltype(&blc_scale_y);
             for (Fn fn : {blc_scale_y_fs, blc_scale_y_2x2nn, blc_scale_y})
                 for (int w : {W, 208}) {
                     Bytes dst(size_t(S) * H, 0x3C), gain(size_t(S) * H / 4 + S, 0xC3);
                     fn(src.data(), w == W ? S : w, dst.data(), w == W ? S : w, base.data(), gain.data(), w, H,
                        t.c.get());
                     out = cat(cat(out, dst), gain);
                 }
             Bytes dst(size_t(S) * H), gain(size_t(S) * H / 4), uv(size_t(W + 1) * H / 2);
             blc_scale_yuv12_2x2nn(src.data(), S, dst.data(), S, base.data(), gain.data(), W, H, t.c.get(), base.data(),
                                   base.data() + 1, uv.data(), uv.data() + 1);
             return cat(cat(cat(out, dst), gain), uv);
         }},
        {"upscale by four with the tone curve", 6827194645692530728u,
         [&] {
             TableCtx t;
             Bytes out;
             for (const auto& [ws, hs, hd] : {std::tuple{51, 15, 61}, {51, 61, 61}, {51, 140, 61}}) {
                 qimra_job job{};
                 job.rs_src_width = job.rs_src_stride = ws;
                 job.rs_src_height = hs;
                 job.rs_dst_height = hd;
                 Bytes dst(size_t(4 * ws) * H), gain(size_t(2 * ws) * (H / 2 + 1));
                 const Bytes small = photo_luma(ws, hs, "water");
                 qimra_upscale4_y_enh_mc(&job, src.data(), S, dst.data(), 4 * ws, small.data(), gain.data(), 4 * ws, H,
                                         t.c.get());
                 out = cat(cat(out, dst), gain);
             }
             return out;
         }},
        {"chroma scaling", 17839159410525210993u,
         [&] {
             const int w = 208, h = H - 1, n = w / 2 * (h / 2);
             const Bytes in = photo_luma(w, h / 2, "evening"), gain = photo_luma(w / 2, h / 2, "water");
             Bytes u(static_cast<size_t>(n)), v(u.size()), uv(2 * u.size()), nv410(size_t(w) * H), t1(nv410.size()),
                 t2(t1.size());
             blc_scale_uv_planar(in.data(), in.data() + n, u.data(), v.data(), gain.data(), w, h);
             blc_scale_uv_nv(in.data(), nullptr, uv.data(), nullptr, gain.data(), w, h);
             blc_scale_uv_nv_410(src.data(), src.data() + 1, nv410.data(), nv410.data() + 1, base.data(), W, H);
             test_asm(src.data(), base.data(), t1.data(), t2.data(), w, H);
             return cat(cat(cat(cat(cat(u, v), uv), nv410), t1), t2);
         }},
        {"noise filter", 16353539711295840117u,
         [&] {
             Bytes out;
             for (const auto& [kappa, step] : {std::pair{30, 4096}, {8, 16383}, {100, 1000}}) {
                 Bytes d(size_t(S) * H, 0xA5);
                 blc_noise_filt_ADF(src.data(), d.data(), W, H, S, S, kappa, step, 0);
                 out = cat(out, d);
             }
             return out;
         }},
        {"histogram equalisation", 102397758462212708u,
         [&] {
             Bytes img = photo_luma(W, H, "darkest");
             blc_hist_equ(img.data(), W, H);
             return img;
         }},
    };
    expect_goldens(table);
}

qimra_job resize_job(const Bytes& src, int sw, int sh, int ss, Bytes& dst, int dw, int dh, int ds, int core = 0) {
    qimra_job job{};
    job.core = core;
    job.rs_src = const_cast<uint8_t*>(src.data());
    job.rs_src_width = sw;
    job.rs_src_height = sh;
    job.rs_src_stride = ss;
    job.rs_dst = dst.data();
    job.rs_dst_width = dw;
    job.rs_dst_height = dh;
    job.rs_dst_stride = ds;
    return job;
}

TEST(GoldenKernels, Resamplers) {
    const int W = 203, H = 61, S = 211;
    const Bytes src = photo_luma(S, 2 * H, "pier");  // rows below the image feed the trailing taps
    const std::vector<Golden> table = {
        {"halvings", 16544663208030528861u,
         [&] {
             using Fn = decltype(&downscale_by_2);
             Bytes out;
             for (Fn fn :
                  {downscale_by_2_gaussian, downscale_by_2_lanczos, downscale_by_2_lanczos_w_pad, downscale_by_2})
                 for (const auto& [w, h] : {std::pair{W, H}, {W - 1, H - 1}, {5, 5}}) {
                     // The padded forms read 4 pixels beyond both ends of each row.
                     Bytes dst(size_t(W) * H, 0xEE), work(size_t(W / 2 + 16) * (H + 16));
                     fn(src.data() + 4, dst.data(), work.data(), w, h, S, W / 2);
                     out = cat(out, dst);
                 }
             std::vector<float> c(9);
             for (const auto& [n, s] : {std::pair{8, 0.5f}, {6, 0.25f}, {9, 0.7f}}) {
                 gen_lanczos_coeffs(c.data(), n, s);
                 out = cat(out, bytes_of(c));
             }
             return out;
         }},
        {"downscale by four, two cores", 136379342207859493u,
         [&] {
             Bytes dst(size_t(W / 4 + 3) * (H / 4), 0xEE);
             for (int core = 0; core < 2; ++core) {
                 qimra_job job = resize_job(src, W, H, S, dst, W / 4, H / 4, W / 4 + 3, core);
                 ReSizeImage_downscale4_mc(&job);
             }
             return dst;
         }},
        {"upscale by two and four", 4878949096471834648u,
         [&] {
             Bytes two(size_t(2 * W + 1) * (2 * H + 1), 0xEE), four(size_t(4 * 51) * (H + 4), 0xEE);
             qimra_job job = resize_job(src, W, H, S, two, 2 * W + 1, 2 * H + 1, 2 * W + 1);
             ReSizeImage_upscale2_mc(&job);
             for (const auto& [sh, dh] : {std::pair{15, 40}, {H, H - 1}, {H, 20}}) {
                 job = resize_job(src, 51, sh, S, four, 4 * 51, dh, 4 * 51);
                 ReSizeImage_upscale4_mc(&job);
                 two = cat(two, four);
             }
             return two;
         }},
        {"free-ratio bilinear", 4199089344767746349u,
         [&] {
             Bytes out;
             for (const auto& [dw, dh] : {std::pair{W / 4, H / 4}, {77, 13}, {2 * W, 3 * H}, {W, H}}) {
                 Bytes whole(size_t(dw + 2) * dh, 0xEE), split = whole, rec(size_t(dw) * dh, 0xEE);
                 qimra_job job = resize_job(src, W, H, S, whole, dw, dh, dw + 2);
                 ReSizeImage_upscale_mc(&job);
                 job.rs_dst = split.data();  // the two-core split serves reductions
                 for (job.core = 0; job.core < 2 && dw < W; ++job.core) ReSizeImage_mc(&job);
                 qimra_resize_rec r{H, W, S, dw, dh};
                 ReSizeImage(&r, src.data(), rec.data());
                 out = cat(cat(cat(out, whole), split), rec);
             }
             return out;
         }},
        {"border padding", 17817470356211799366u,
         [&] {
             Bytes a = src, b = src;
             pad_with_replication(a.data() + 3 * S + 5, W - 12, H - 6, 5, 3, S);
             pad_with_reflection(b.data() + 3 * S + 5, W - 12, H - 6, 5, 3, S);
             return cat(a, b);
         }},
        {"matrix resize", 9741405993343610518u,
         [&] {
             const Bytes packed = photo_luma(W, H, "pier");
             Bytes out;
             const std::pair<int, int> sizes[] = {{101, 30}, {67, 20}, {150, 45}, {50, 15}, {400, 130}, {203, 61}};
             for (const auto& [dw, dh] : sizes) {
                 for (int interpolation : {0, 1, 3}) {
                     Bytes dst(size_t(dw) * dh, 0xEE);
                     u_mat s{H, W, S, const_cast<uint8_t*>(src.data())}, d{dh, dw, dw, dst.data()};
                     resize_zent(&s, &d, zent_Size{dw, dh}, 0.0, 0.0, interpolation);
                     out = cat(out, dst);
                 }
                 Bytes dst(size_t(dw) * dh, 0xEE);
                 call_resize(packed.data(), dst.data(), W, H, dw, dh);
                 out = cat(out, dst);
             }
             return out;
         }},
    };
    expect_goldens(table);
}

}  // namespace
}  // namespace qimra::test
