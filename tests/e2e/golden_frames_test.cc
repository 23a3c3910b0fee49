// Whole frames of real photographs against golden checksums that every build,
// platform and instruction-set level must reproduce: in place and to a
// separate buffer, in each colour format, with rows between the luma and the
// chroma planes, and through the C++ layer's working frame. The adaptive
// modes run on a clip that pans and fades from a bright scene into a backlit
// one and back.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <qimra/qimra.hpp>

#include "support/engine_helpers.h"
#include "support/media.h"

namespace qimra::test {
namespace {

struct Golden {
    const char* name;
    int sw, sh;  // the photograph, of which the frame is the top-left w x h
    int w, h;
    ColourFormat format;
    int scanlines;  // rows of the luma buffer before the chroma (C ABI); 0: through the C++ layer
    uint64_t sum;
};

// The engine tells the formats apart only by planar or interleaved chroma,
// so yv12 and nv21 rows give the bytes of i420 and nv12. 720p and 1080p run
// the analysis at a quarter of the size, the rest at full size.
const Golden kGolden[] = {
    {"evening", 1280, 720, 1280, 720, ColourFormat::i420, 720, 0xda451c5840e7b4a1ull},
    {"evening", 1280, 720, 1280, 720, ColourFormat::yv12, 736, 0xda451c5840e7b4a1ull},
    {"evening", 1280, 720, 1280, 720, ColourFormat::nv12, 720, 0xbc2fb5e678c9c48full},
    {"path", 1920, 1080, 1920, 1080, ColourFormat::i420, 1088, 0xe427eec53a25638eull},
    {"water", 1920, 1080, 1920, 1080, ColourFormat::nv12, 1080, 0xb1e83bb9a317a5deull},
    {"water", 1920, 1080, 1920, 1080, ColourFormat::nv21, 1096, 0xb1e83bb9a317a5deull},
    {"darkest", 640, 480, 640, 480, ColourFormat::i420, 488, 0x1d267f53acdce728ull},
    {"pier", 640, 480, 640, 480, ColourFormat::nv12, 480, 0x46881addd1004f19ull},
    {"pier", 640, 480, 640, 480, ColourFormat::nv21, 484, 0x46881addd1004f19ull},
    {"astronaut", 512, 512, 512, 512, ColourFormat::i420, 512, 0xa78b2da08832c0c1ull},
    {"coffee", 592, 400, 592, 400, ColourFormat::nv12, 400, 0x2a5a09b62702e3f5ull},
    {"pier", 1920, 1080, 1918, 1080, ColourFormat::i420, 0, 0xe54d4df79e941a0dull},
    {"path", 640, 480, 626, 478, ColourFormat::nv12, 0, 0xda17b0894cff9edbull},
};

// Copies the planes of a packed frame to a frame whose chroma starts after
// `scanlines` luma rows (each planar chroma plane after scanlines / 2 rows),
// or back.
void move_planes(const uint8_t* from, uint8_t* to, int w, int h, int scanlines, bool planar, bool to_padded) {
    const size_t wh = static_cast<size_t>(w) * h, ws = static_cast<size_t>(w) * scanlines;
    const size_t planes[3][3] = {{0, 0, wh}, {wh, ws, planar ? wh / 4 : wh / 2}, {wh * 5 / 4, ws * 5 / 4, wh / 4}};
    for (int p = 0; p < (planar ? 3 : 2); ++p)
        memcpy(to + planes[p][to_padded ? 1 : 0], from + planes[p][to_padded ? 0 : 1], planes[p][2]);
}

// Mode 0, gamma 0.5, in place or to a separate buffer; returns the output packed.
std::vector<uint8_t> enhance(const Golden& k, const std::vector<uint8_t>& frame, bool in_place) {
    std::vector<uint8_t> out(frame.size(), 0x5A);
    if (k.scanlines == 0) {
        std::vector<uint8_t> in = frame;
        quietly([&] {
            Engine e(k.w, k.h, 0.5f, Mode::fixed, k.format);
            if (in_place) e.process(packed_frame(std::span<uint8_t>(in), k.w, k.h, k.format));
            if (!in_place)
                e.process(packed_frame(std::span<const uint8_t>(in), k.w, k.h, k.format),
                          packed_frame(std::span<uint8_t>(out), k.w, k.h, k.format));
        });
        EXPECT_TRUE(in_place || in == frame) << "the input of a separate-buffer frame must not change";
        return in_place ? in : out;
    }
    const bool planar = is_planar(k.format);
    const size_t padded = frame_bytes(k.w, k.scanlines);
    std::vector<uint8_t> in(padded, 0xA5), to(padded, 0x5A);
    move_planes(frame.data(), in.data(), k.w, k.h, k.scanlines, planar, true);
    const std::vector<uint8_t> before = in;
    CEngine e(k.w, k.h, 0, static_cast<int32_t>(k.format));
    uint8_t* target = in_place ? in.data() : to.data();
    qimra_process(e.get(), in.data(), k.w, k.scanlines, target, k.w, k.scanlines);
    EXPECT_TRUE(in_place || in == before) << "the input of a separate-buffer frame must not change";
    move_planes(target, out.data(), k.w, k.h, k.scanlines, planar, false);
    return out;
}

TEST(GoldenFrames, PhotographsKeepTheirChecksumsInPlaceAndToABuffer) {
    for (const Golden& k : kGolden) {
        // A window of weight 0 over a photograph is its top-left corner.
        const std::vector<uint8_t> i420 = load_i420(k.name, k.sw, k.sh);
        std::vector<uint8_t> frame = blend_window(i420, i420, k.sw, k.sh, 0, 0, k.w, k.h, 0);
        if (!is_planar(k.format)) frame = i420_to_nv12(frame, k.w, k.h);
        for (const bool in_place : {false, true}) {
            const std::vector<uint8_t> out = enhance(k, frame, in_place);
            EXPECT_EQ(fnv1a(out.data(), out.size()), k.sum)
                << k.name << " " << k.w << "x" << k.h << " " << format_name(k.format) << " scanlines " << k.scanlines
                << (in_place ? " in place" : " to a buffer") << ": 0x" << std::hex << fnv1a(out.data(), out.size());
        }
    }
}

constexpr int kW = 1280, kH = 720, kFrames = 128;

// Weight of the backlit scene in frame n, in 1/16: bright for 16 frames,
// fading in over 16, backlit for 32, fading out over 16, bright again.
int backlit_weight(int n) { return std::clamp(std::min(n - 16, 80 - n), 0, 16); }

struct ClipRun {
    std::string decisions;  // per frame: '1' decided to enhance, '0' not
    uint64_t checksum = 1469598103934665603ull;
    int largest_tone_step = 0;  // between consecutive frames that both enhance
};

// The clip, a 1280x720 window panning right by 4 pixels a frame over two
// 1920x1080 photographs, through mode `mode`; `check` sees each input and its
// output and the engine's decision.
template <class Check>
ClipRun run_clip(int mode, Check&& check) {
    static const std::vector<uint8_t> bright = load_i420("autumn", 1920, 1080);
    static const std::vector<uint8_t> backlit = load_i420("path", 1920, 1080);
    CEngine e(kW, kH, mode, 0);
    ClipRun r;
    std::vector<uint8_t> out(frame_bytes(kW, kH)), tone(256);
    for (int n = 0; n < kFrames; ++n) {
        const std::vector<uint8_t> in =
            blend_window(bright, backlit, 1920, 1080, 4 * n, 180, kW, kH, backlit_weight(n));
        std::vector<uint8_t> src = in;
        const int32_t enhanced_before = e.get()->frames_enhanced;
        e.process(src.data(), out.data());
        const bool decided = e.get()->frames_enhanced != enhanced_before;
        for (int i = 0; n >= 2 && decided && r.decisions.back() == '1' && i < 256; ++i)
            r.largest_tone_step = std::max(r.largest_tone_step, std::abs(e.get()->gamma_lut[i] - tone[i]));
        tone.assign(e.get()->gamma_lut, e.get()->gamma_lut + 256);
        r.decisions += decided ? '1' : '0';
        r.checksum ^= fnv1a(out.data(), out.size()) + static_cast<uint64_t>(n);
        check(in, out, decided);
    }
    return r;
}

// Bright scene: left alone; the backlit scene switches the enhancement on
// after the hold-off, and the bright scene relaxes it again until the curve
// is back at the identity.
const std::string kMode2Decisions = std::string(45, '0') + std::string(52, '1') + std::string(31, '0');

TEST(GoldenAdaptiveClip, Mode2FollowsTheSceneWithHysteresis) {
    const ClipRun r = run_clip(2, [](const std::vector<uint8_t>& in, const std::vector<uint8_t>& out, bool decided) {
        EXPECT_TRUE(decided || out == in) << "a frame left alone must be copied exactly";
    });
    EXPECT_EQ(r.decisions, kMode2Decisions);
    EXPECT_EQ(r.checksum, 0xbae0e42d6ddd2f6aull) << std::hex << r.checksum;
    // Mid, gamma and top level move by one step a frame, which moves no
    // entry of the tone table by more than a few levels.
    EXPECT_LE(r.largest_tone_step, 4);
}

// Mode 1 only marks its decision: a 64 x 64 square in the middle of the
// luma, dark (0.75 Y) when it would enhance, bright (63.75 + 0.75 Y) when
// not. It builds no curve to relax, so it lets go as soon as the hold-off of
// the bright scene has run out.
TEST(GoldenAdaptiveClip, Mode1MarksExactlyWhatItDecided) {
    const ClipRun r = run_clip(1, [](const std::vector<uint8_t>& in, const std::vector<uint8_t>& out, bool decided) {
        int wrong = 0;
        for (int y = 0; y < kH; ++y)
            for (int x = 0; x < kW; ++x) {
                const size_t i = static_cast<size_t>(y) * kW + x;
                const bool square = y >= kH / 2 - 32 && y < kH / 2 + 32 && x >= kW / 2 - 32 && x < kW / 2 + 32;
                const float o_y = decided ? 0.0f : 63.75f;
                wrong += out[i] != (square ? static_cast<uint8_t>(static_cast<int>(o_y + 0.75f * in[i])) : in[i]);
            }
        EXPECT_EQ(wrong, 0) << "luma samples off the mark";
    });
    EXPECT_EQ(r.decisions, std::string(45, '0') + std::string(37, '1') + std::string(46, '0'));
}

// A CDS request (a registered value of 1) takes effect on the third
// requesting frame and ends on the third frame without one, counting on
// across a flip of the request. While it is in force, or while any value
// other than 0 is registered, the interleaved chroma of the output is left
// unwritten.
TEST(FrameSideInputs, CdsRequestHoldsForThreeFramesEachWay) {
    const struct {
        const char* values;   // registered before each frame
        const char* written;  // whether that frame's chroma was written
    } cases[] = {
        {"110000", "001111"},
        {"1110000", "0000011"},
        {"1101000", "0010001"},
        {"2000", "0111"},
    };
    const std::vector<uint8_t> in = load_frame("pier", 640, 480, true);
    const size_t luma = 640 * 480;
    for (const auto& k : cases) {
        CEngine e(640, 480, 0, 2);
        std::string written;
        for (const char* v = k.values; *v != '\0'; ++v) {
            const int32_t value = *v - '0';
            std::vector<uint8_t> src = in, out(in.size(), 0);
            quietly([&] { qimra_register_cds_params(e.get(), &value); });
            e.process(src.data(), out.data());
            written += std::any_of(out.begin() + luma, out.end(), [](uint8_t b) { return b != 0; }) ? '1' : '0';
        }
        EXPECT_EQ(written, k.written) << "registered " << k.values;
    }
}

}  // namespace
}  // namespace qimra::test
