// The C++ layer: what it refuses and with which message, the size the core runs at, and that every layout of a
// frame gives the bits of the C ABI run on the frame extended to that size by replicating its edges.
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <optional>
#include <qimra/qimra.hpp>

#include "support/engine_helpers.h"
#include "support/media.h"

namespace qimra::test {
namespace {

std::string error_of(const std::function<void()>& fn) {
    try {
        quietly(fn);
    } catch (const Error& e) {
        return e.what();
    }
    return "";
}

// One 64x64 frame after `edit` has changed the views of its input and output (the first and second frames of
// the buffer; a third frame's bytes are spare).
std::function<void()> frame64(ColourFormat format,
                              std::function<void(std::span<uint8_t>, ConstFrameView&, FrameView&)> edit) {
    return [format, edit] {
        std::vector<uint8_t> all(3 * frame_bytes(64, 64), 100);
        const std::span<uint8_t> s(all);
        Engine e(64, 64, 0.5f, Mode::adaptive, format);
        ConstFrameView in = packed_frame(s.first(6144), 64, 64, format);
        FrameView out = packed_frame(s.subspan(6144, 6144), 64, 64, format);
        edit(s, in, out);
        e.process(in, out);
    };
}

TEST(CppApiErrors, EachInputGetsItsExactOutcome) {
    using F = ColourFormat;
    const auto engine = [](int w, int h, float gamma = 0.5f, int mode = 2, int format = 0) {
        return [=] { Engine e(w, h, gamma, static_cast<Mode>(mode), static_cast<F>(format)); };
    };
    const struct {
        std::function<void()> fn;
        const char* message;  // how the message starts; "" for no error
    } cases[] = {
        {engine(641, 480), "width 641 is odd; 4:2:0 frames need an even width and height"},
        {engine(640, 0), "height 0 is not positive"},
        {engine(kMaxDimension + 2, 480), "width 16386 is too large; at most 16384 is accepted"},
        {engine(kMaxDimension, 2, 4.0f, 0), ""},
        {engine(64, 64, 0.0f), "gamma 0.000000 is out of range; it must be a number greater than 0"},
        {engine(64, 64, 4.001f), "gamma 4.001000 is out of range"},
        {engine(64, 64, std::numeric_limits<float>::quiet_NaN()), "gamma nan is out of range"},
        {engine(64, 64, 0.5f, 3), "adaptive mode 3 is unknown"},
        {engine(64, 64, 0.5f, 2, 4), "colour format 4 is unknown"},
        {[] { (void)packed_frame(std::span<uint8_t>(), 64, 64, F::i420); }, "a packed 64x64 frame needs 6144 bytes"},
        {[] { (void)Engine(64, 64).report(); }, "no frame has been processed yet"},
        {frame64(F::i420, [](auto, auto&, auto&) {}), ""},
        {frame64(F::i420, [](auto, auto& in, auto&) { in.y.stride = 63; }),
         "input luma plane stride 63 is less than its row of 64 bytes"},
        {frame64(F::nv12, [](auto, auto&, auto& out) { out.c1.stride = 32; }),
         "output interleaved chroma plane stride 32"},
        {frame64(F::i420, [](auto, auto& in, auto&) { in.c2.data = in.c2.data.first(1023); }),
         "input second chroma plane holds 1023 bytes; 32 rows at stride 32 need 1024"},
        {frame64(F::yv12,
                 [](auto s, auto& in, auto&) {
                     in.y = {s.subspan(12288, 63 * 80 + 64), 80};
                 }),
         ""},
        {frame64(F::i420, [](auto, auto&, auto& out) { out.y.stride = 80; }),
         "output luma plane holds 4096 bytes; 64 rows at stride 80 need 5104"},
        {frame64(F::i420, [](auto, auto& in, auto&) { in.y.stride = PTRDIFF_MAX / 8; }), "input luma plane holds"},
        {frame64(F::i420, [](auto, auto& in, auto&) { in.c1 = {}; }), "input first chroma plane is empty"},
        {frame64(F::nv21,
                 [](auto s, auto& in, auto&) {
                     in.c2 = {s.subspan(5120, 1024), 32};
                 }),
         "the input frame has a second chroma plane, but nv21"},
        {frame64(F::i420, [](auto s, auto&, auto& out) { out = packed_frame(s.subspan(64), 64, 64, F::i420); }),
         "the output luma plane overlaps the input luma plane"},
        {frame64(F::i420, [](auto, auto&, auto& out) { out.c2 = out.c1; }),
         "the output first chroma and second chroma planes overlap"},
        {frame64(F::nv12, [](auto, auto& in, auto& out) { in = out; }), ""},
        {[] {
             Engine e(64, 64), moved = std::move(e);
             std::vector<uint8_t> f(frame_bytes(64, 64));
             e.process(packed_frame(std::span<uint8_t>(f), 64, 64, F::i420));
         },
         "this engine was moved from"},
    };
    for (const auto& k : cases) {
        const std::string got = error_of(k.fn), want = *k.message ? std::string("qimra: ") + k.message : "";
        EXPECT_EQ(*k.message ? got.substr(0, want.size()) : got, want);
    }
}

// The library, not this layer, holds the one-engine rule: an engine made through the C ABI (as by another
// module of the process) counts as well; failed attempts leave no claim behind.
TEST(CppApiErrors, OneEngineAtATime) {
    const char* const alive = "qimra: another engine is alive in this process";
    const auto second = [] { return error_of([] { Engine second(64, 64); }); };
    std::optional<Engine> first, moved;
    quietly([&] { first.emplace(64, 64); });
    EXPECT_EQ(second().rfind(alive, 0), 0u);
    moved.emplace(std::move(*first));
    EXPECT_EQ(second().rfind(alive, 0), 0u);
    first.reset();
    quietly([&] { moved.reset(); });
    qimra_ctx* c = nullptr;
    quietly([&] { c = qimra_init(64, 64, 0.5f, 0, 0, 0, 0, 0, 2, 0); });
    EXPECT_EQ(second().rfind(alive, 0), 0u);
    quietly([&] { qimra_deinit(c); });
    EXPECT_EQ(second(), "");
}

// A frame cut to W x H, or extended by repeating its last column (chroma pair) and row: the working frame.
std::vector<uint8_t> reframe(const std::vector<uint8_t>& f, int w, int h, ColourFormat format, int W, int H) {
    std::vector<uint8_t> out(frame_bytes(W, H));
    const bool planar = is_planar(format);
    size_t from = 0, to = 0;
    for (int p = 0; p < (planar ? 3 : 2); ++p) {
        const int d = p == 0 ? 1 : 2, unit = p == 0 || planar ? 1 : 2;
        const int row = planar && p > 0 ? w / 2 : w, drow = planar && p > 0 ? W / 2 : W;
        for (int y = 0; y < H / d; ++y)
            for (int x = 0; x < drow; ++x) {
                const int sx = x < row ? x : row - unit + x % unit, sy = std::min(y, h / d - 1);
                out[to + static_cast<size_t>(y) * drow + x] = f[from + static_cast<size_t>(sy) * row + sx];
            }
        from += static_cast<size_t>(row) * (h / d);
        to += static_cast<size_t>(drow) * (H / d);
    }
    return out;
}

// A frame through the engine from planes of their own: the luma, then the chroma planes back to back, rows `pad`
// bytes longer than the plane's row, each plane exactly as long as its rows. With no padding the frame is
// enhanced in place and, at sizes the core takes, goes straight to it (with 4 bytes of slack behind the luma).
std::vector<uint8_t> through_planes(Engine& e, std::vector<uint8_t> f, int pad) {
    const int w = e.width(), h = e.height(), crow = is_planar(e.format()) ? w / 2 : w, planes = w / crow;
    const std::ptrdiff_t ys = w + pad, cs = crow + pad, cb = cs * (h / 2 - 1) + crow;
    std::vector<uint8_t> y(ys * (h - 1) + w + (pad ? 0 : 4)), c(planes * cb), oy(y.size()), oc(c.size());
    const auto rows = [&](bool in, std::vector<uint8_t>& py, std::vector<uint8_t>& pc) {
        for (int r = 0; r < h + planes * h / 2; ++r) {
            const int q = r - h, n = r < h ? w : crow;  // q: row of the chroma planes
            uint8_t *packed = f.data() + (r < h ? r * w : w * h + q * crow),
                    *own = r < h ? py.data() + r * ys : pc.data() + q / (h / 2) * cb + q % (h / 2) * cs;
            memcpy(in ? own : packed, in ? packed : own, n);
        }
    };
    const auto view = [&](std::vector<uint8_t>& vy, std::vector<uint8_t>& vc) {
        const std::span<uint8_t> sc(vc);
        return FrameView{{vy, ys}, {sc.first(cb), cs}, planes == 2 ? Plane{sc.subspan(cb), cs} : Plane{}};
    };
    rows(true, y, c);
    pad ? e.process(view(y, c), view(oy, oc)) : e.process(view(y, c));
    pad ? rows(false, oy, oc) : rows(false, y, c);
    return f;
}

// The core takes widths in steps of 16 from 16 (from 64 in mark mode, for its 64 x 64 square) and heights in
// steps of 4 from 24 (each half of its band split needs 10 rows); other sizes run in the next size it takes.
TEST(CppApiSizes, EveryLayoutGivesTheCAbiBitsOnTheReplicatedFrame) {
    using F = ColourFormat;
    const struct {
        int w, h;
        Mode mode;
        F format;
        int cw, ch;  // the size the core runs at
    } cases[] = {
        {640, 480, Mode::fixed, F::i420, 640, 480},
        {640, 480, Mode::adaptive, F::nv12, 640, 480},
        {640, 480, Mode::mark, F::i420, 640, 480},
        {1280, 720, Mode::adaptive, F::i420, 1280, 720},
        {1280, 720, Mode::fixed, F::nv21, 1280, 720},
        {16, 24, Mode::fixed, F::yv12, 16, 24},
        {1366, 768, Mode::fixed, F::i420, 1376, 768},
        {642, 482, Mode::adaptive, F::nv12, 656, 484},
        {1918, 1080, Mode::adaptive, F::i420, 1920, 1080},
        {642, 482, Mode::mark, F::nv21, 656, 484},
        {2, 2, Mode::fixed, F::i420, 16, 24},
        {30, 18, Mode::adaptive, F::yv12, 32, 24},
        {30, 18, Mode::mark, F::i420, 64, 64},
    };
    static const std::vector<uint8_t> photos[] = {load_i420("path", 1920, 1080), load_i420("evening", 1920, 1080)};
    for (const auto& k : cases) {
        SCOPED_TRACE(testing::Message() << k.w << "x" << k.h << " mode " << int(k.mode) << format_name(k.format));
        std::vector<std::vector<uint8_t>> frames, want;
        for (const auto& photo : photos) {
            frames.push_back(reframe(photo, 1920, 1080, F::i420, k.w, k.h));
            if (!is_planar(k.format)) frames.back() = i420_to_nv12(frames.back(), k.w, k.h);
        }
        {
            CEngine c(k.cw, k.ch, static_cast<int32_t>(k.mode), static_cast<int32_t>(k.format), 0.6f);
            for (const auto& f : frames) {
                std::vector<uint8_t> work = reframe(f, k.w, k.h, k.format, k.cw, k.ch);
                c.process(work.data(), work.data());
                want.push_back(reframe(work, k.cw, k.ch, k.format, k.w, k.h));
            }
        }
        // Packed to a buffer, packed in place, planes in place, padded planes.
        for (int layout = 0; layout < 4; ++layout) {
            reset_globals();
            quietly([&] {
                Engine e(k.w, k.h, 0.6f, k.mode, k.format);
                EXPECT_EQ(e.core_width(), k.cw);
                EXPECT_EQ(e.core_height(), k.ch);
                EXPECT_EQ(e.takes_size_directly(), k.cw == k.w && k.ch == k.h);
                for (size_t i = 0; i < frames.size(); ++i) {
                    std::vector<uint8_t> in = frames[i], out(in.size());
                    const auto packed = [&](auto& v) { return packed_frame(std::span(v), k.w, k.h, k.format); };
                    if (layout == 0) e.process(packed(std::as_const(in)), packed(out));
                    if (layout == 1) e.process(packed(in));
                    if (layout >= 2) out = through_planes(e, in, layout == 2 ? 0 : 48);
                    EXPECT_TRUE((layout == 1 ? in : out) == want[i]) << "layout " << layout << ", frame " << i;
                    // Fixed mode reports its curve (its top level at once at the floor); mark mode never enhances.
                    const FrameReport& r = e.report();
                    EXPECT_EQ(r.frame, static_cast<int>(i));
                    EXPECT_TRUE(k.mode != Mode::mark || (!r.enhanced && r.top_level >= 230 && r.top_level <= 255));
                    EXPECT_TRUE(k.mode != Mode::fixed || (r.decision && r.enhanced && r.mid == 128 && r.gamma == 0.6f &&
                                                          r.top_level == 230 && r.chroma_sigma == 4.0f));
                }
            });
        }
    }
    qimra_frame_report raw{};
    EXPECT_EQ(qimra_get_frame_report(nullptr, &raw), 1);
}

}  // namespace
}  // namespace qimra::test
