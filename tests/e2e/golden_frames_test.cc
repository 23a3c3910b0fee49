// Whole frames of real photographs against golden checksums that every build, platform and instruction-set
// level must reproduce, and the adaptive modes on a clip that pans and fades into a backlit scene and back.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <qimra/qimra.hpp>

#include "support/engine_helpers.h"
#include "support/media.h"

namespace qimra::test {
namespace {

// The engine tells formats apart only by planar or interleaved chroma, so yv12 and nv21 give the bytes of
// i420 and nv12. 720p and up run the analysis at a quarter of the size.
const struct Golden {
    const char* name;
    int sw, sh, w, h;  // the frame is the top-left w x h of the sw x sh photograph
    ColourFormat format;
    int scanlines;  // luma rows before the chroma (C ABI); 0: through the C++ layer's working frame
    uint64_t sum;
} kGolden[] = {
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

// Copies the planes of a packed frame to one whose chroma starts after `scanlines` luma rows, or back.
void move_planes(const uint8_t* from, uint8_t* to, int w, int h, int scanlines, bool planar, bool to_padded) {
    const size_t wh = static_cast<size_t>(w) * h, ws = static_cast<size_t>(w) * scanlines;
    const size_t planes[3][3] = {{0, 0, wh}, {wh, ws, planar ? wh / 4 : wh / 2}, {wh * 5 / 4, ws * 5 / 4, wh / 4}};
    for (int p = 0; p < (planar ? 3 : 2); ++p)
        memcpy(to + planes[p][to_padded], from + planes[p][!to_padded], planes[p][2]);
}

// Mode 0, gamma 0.5, in place or to a separate buffer (whose input must not change); the output packed.
std::vector<uint8_t> enhance(const Golden& k, const std::vector<uint8_t>& frame, bool in_place) {
    std::vector<uint8_t> out(frame.size(), 0x5A), in = frame;
    if (k.scanlines == 0) {
        quietly([&] {
            Engine e(k.w, k.h, 0.5f, Mode::fixed, k.format);
            const auto view = [&](auto& v) { return packed_frame(std::span(v), k.w, k.h, k.format); };
            in_place ? e.process(view(in)) : e.process(view(std::as_const(in)), view(out));
        });
        EXPECT_TRUE(in_place || in == frame);
        return in_place ? in : out;
    }
    in.assign(frame_bytes(k.w, k.scanlines), 0xA5);
    move_planes(frame.data(), in.data(), k.w, k.h, k.scanlines, is_planar(k.format), true);
    std::vector<uint8_t> before = in, to(in.size(), 0x5A);
    uint8_t* target = in_place ? in.data() : to.data();
    CEngine e(k.w, k.h, 0, static_cast<int32_t>(k.format));
    qimra_process(e.get(), in.data(), k.w, k.scanlines, target, k.w, k.scanlines);
    EXPECT_TRUE(in_place || in == before);
    move_planes(target, out.data(), k.w, k.h, k.scanlines, is_planar(k.format), false);
    return out;
}

TEST(GoldenFrames, PhotographsKeepTheirChecksumsInPlaceAndToABuffer) {
    for (const Golden& k : kGolden) {
        const std::vector<uint8_t> i420 = load_i420(k.name, k.sw, k.sh);
        std::vector<uint8_t> frame = blend_window(i420, i420, k.sw, k.sh, 0, 0, k.w, k.h, 0);
        if (!is_planar(k.format)) frame = i420_to_nv12(frame, k.w, k.h);
        for (const bool in_place : {false, true}) {
            const std::vector<uint8_t> out = enhance(k, frame, in_place);
            EXPECT_EQ(fnv1a(out.data(), out.size()), k.sum)
                << k.name << " " << k.w << "x" << k.h << " " << format_name(k.format) << " scanlines " << k.scanlines
                << (in_place ? " in place" : " to a buffer");
        }
    }
}

// A 1280x720 window panning right by 4 pixels a frame over two photographs, the backlit one's weight in 1/16
// rising over frames 16..32 and falling over 64..80. Mode 2 enhances the backlit scene after the hold-off and
// relaxes back to the identity curve, by steps that move no tone table entry by more than a few levels; mode 1
// lets go as soon as the hold-off has run out and only marks its decision: a 64 x 64
// square in the middle of the luma, 0.75 Y when it would enhance, 63.75 + 0.75 Y when not.
TEST(GoldenAdaptiveClip, ModesFollowTheSceneWithHysteresis) {
    constexpr int kW = 1280, kH = 720;
    const std::vector<uint8_t> bright = load_i420("autumn", 1920, 1080), backlit = load_i420("path", 1920, 1080);
    for (const int mode : {1, 2}) {
        CEngine e(kW, kH, mode, 0);
        std::string decisions;
        uint64_t checksum = 1469598103934665603ull;
        int largest_tone_step = 0, wrong = 0;
        std::vector<uint8_t> out(frame_bytes(kW, kH)), tone(256);
        for (int n = 0; n < 128; ++n) {
            const int wt = std::clamp(std::min(n - 16, 80 - n), 0, 16);
            const std::vector<uint8_t> in = blend_window(bright, backlit, 1920, 1080, 4 * n, 180, kW, kH, wt);
            std::vector<uint8_t> src = in;
            const int32_t enhanced_before = e.get()->frames_enhanced;
            e.process(src.data(), out.data());
            const bool decided = e.get()->frames_enhanced != enhanced_before;
            for (int i = 0; n >= 2 && decided && decisions.back() == '1' && i < 256; ++i)
                largest_tone_step = std::max(largest_tone_step, std::abs(e.get()->gamma_lut[i] - tone[i]));
            tone.assign(e.get()->gamma_lut, e.get()->gamma_lut + 256);
            decisions += decided ? '1' : '0';
            checksum ^= fnv1a(out.data(), out.size()) + static_cast<uint64_t>(n);
            if (mode == 2) wrong += !decided && out != in;
            for (int y = 0; mode == 1 && y < kH; ++y)
                for (int x = 0; x < kW; ++x) {
                    const size_t i = static_cast<size_t>(y) * kW + x;
                    const bool square = std::abs(2 * y + 1 - kH) < 64 && std::abs(2 * x + 1 - kW) < 64;
                    const float o_y = decided ? 0.0f : 63.75f;
                    wrong += out[i] != (square ? static_cast<uint8_t>(static_cast<int>(o_y + 0.75f * in[i])) : in[i]);
                }
        }
        EXPECT_EQ(wrong, 0) << "mode " << mode << (mode == 1 ? ": luma samples off the mark" : ": frames not copied");
        const int on = mode == 1 ? 37 : 52;  // frames decided; mode 1 with no curve to relax lets go sooner
        EXPECT_EQ(decisions, std::string(45, '0') + std::string(on, '1') + std::string(83 - on, '0'));
        if (mode == 1) continue;
        EXPECT_EQ(checksum, 0xbae0e42d6ddd2f6aull) << std::hex << checksum;
        EXPECT_LE(largest_tone_step, 4);
    }
}

// A CDS request (a registered 1) takes effect on the third requesting frame and ends on the third without one,
// counting on across a flip; while it holds, or any value but 0 is registered, the output chroma is left alone.
TEST(FrameSideInputs, CdsRequestHoldsForThreeFramesEachWay) {
    const char* const cases[][2] = {
        {"110000", "001111"}, {"1110000", "0000011"}, {"1101000", "0010001"}, {"2000", "0111"}};
    const std::vector<uint8_t> in = load_frame("pier", 640, 480, true);
    for (const auto& [values, want] : cases) {
        CEngine e(640, 480, 0, 2);
        std::string written;
        for (const char* v = values; *v != '\0'; ++v) {
            const int32_t value = *v - '0';
            std::vector<uint8_t> src = in, out(in.size(), 0);
            quietly([&] { qimra_register_cds_params(e.get(), &value); });
            e.process(src.data(), out.data());
            written += std::any_of(out.begin() + 640 * 480, out.end(), [](uint8_t b) { return b != 0; }) ? '1' : '0';
        }
        EXPECT_EQ(written, want) << "registered " << values;
    }
}

}  // namespace
}  // namespace qimra::test
