// Whole frames in adaptive mode 0 on real photographs: the output is pinned
// by golden checksums that every build (x86-64, armhf, sanitizers, per-pixel
// forms only) must reproduce, in-place output equals separate output, and
// the dark regions are lifted without clipping the highlights.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "support/engine_helpers.h"
#include "support/media.h"

namespace qimra::test {
namespace {

struct Case {
    const char* name;
    int w;
    int h;
    int format;  // 0 planar (I420), 2 interleaved (NV12)
    uint64_t golden;
};

class Mode0Engine {
public:
    Mode0Engine(int w, int h, int format) {
        reset_globals();
        capture_stderr([&] { capture_stdout([&] { c_ = qimra_init(w, h, 0.5f, 0, 0, 0, 0, 0, 0, format); }); });
    }
    ~Mode0Engine() {
        capture_stderr([&] { qimra_deinit(c_); });
    }
    qimra_ctx* get() { return c_; }

private:
    qimra_ctx* c_ = nullptr;
};

std::vector<uint8_t> input_frame(const Case& k) {
    std::vector<uint8_t> frame = load_i420(k.name, k.w, k.h);
    return k.format == 2 ? i420_to_nv12(frame, k.w, k.h) : frame;
}

std::vector<uint8_t> enhance(const Case& k, const std::vector<uint8_t>& in) {
    Mode0Engine e(k.w, k.h, k.format);
    std::vector<uint8_t> src = in;
    std::vector<uint8_t> out(in.size(), 0);
    qimra_process(e.get(), src.data(), k.w, k.h, out.data(), k.w, k.h);
    EXPECT_EQ(src, in) << "the input of a separate-buffer frame must not change";
    return out;
}

// Mean of the darkest or brightest tenth of a luma plane.
double tenth_mean(const uint8_t* y, size_t n, bool darkest) {
    std::vector<uint8_t> v(y, y + n);
    std::sort(v.begin(), v.end());
    const size_t tenth = n / 10;
    double sum = 0;
    for (size_t i = 0; i < tenth; ++i) sum += darkest ? v[i] : v[n - 1 - i];
    return sum / static_cast<double>(tenth);
}

// Quarter mode (720p, 1080p) and full size (640x480 and the small
// photographs), planar and interleaved chroma.
const Case kCases[] = {
    {"evening", 1280, 720, 0, 0xda451c5840e7b4a1ull},  {"evening", 1280, 720, 2, 0xbc2fb5e678c9c48full},
    {"path", 1920, 1080, 0, 0xe427eec53a25638eull},    {"water", 1920, 1080, 2, 0xb1e83bb9a317a5deull},
    {"darkest", 640, 480, 0, 0x1d267f53acdce728ull},   {"pier", 640, 480, 2, 0x46881addd1004f19ull},
    {"astronaut", 512, 512, 0, 0xa78b2da08832c0c1ull}, {"coffee", 592, 400, 2, 0x2a5a09b62702e3f5ull},
};

void PrintTo(const Case& k, std::ostream* os) {
    *os << k.name << " " << k.w << "x" << k.h << (k.format == 2 ? " nv12" : " i420");
}

std::string case_name(const testing::TestParamInfo<Case>& info) {
    return std::string(info.param.name) + "_" + std::to_string(info.param.w) + "x" + std::to_string(info.param.h) +
           (info.param.format == 2 ? "_nv12" : "_i420");
}

class Mode0Frames : public testing::TestWithParam<Case> {};
// Dark and backlit scenes, whose shadows the enhancement exists to lift.
class Mode0DarkScenes : public testing::TestWithParam<Case> {};

TEST_P(Mode0Frames, GoldenChecksumHoldsOnEveryBuild) {
    const Case& k = GetParam();
    const std::vector<uint8_t> out = enhance(k, input_frame(k));
    EXPECT_EQ(fnv1a(out.data(), out.size()), k.golden)
        << "checksum of " << k.name << " " << k.w << "x" << k.h << " format " << k.format << ": 0x" << std::hex
        << fnv1a(out.data(), out.size());
}

TEST_P(Mode0Frames, InPlaceEqualsSeparateBuffers) {
    const Case& k = GetParam();
    const std::vector<uint8_t> in = input_frame(k);
    const std::vector<uint8_t> separate = enhance(k, in);
    Mode0Engine e(k.w, k.h, k.format);
    std::vector<uint8_t> frame = in;
    qimra_process(e.get(), frame.data(), k.w, k.h, frame.data(), k.w, k.h);
    EXPECT_EQ(frame, separate);
}

TEST_P(Mode0DarkScenes, LiftsTheDarkWithoutClippingTheHighlights) {
    const Case& k = GetParam();
    const std::vector<uint8_t> in = input_frame(k);
    const std::vector<uint8_t> out = enhance(k, in);
    const size_t n = static_cast<size_t>(k.w) * k.h;
    const double dark_in = tenth_mean(in.data(), n, true);
    const double dark_out = tenth_mean(out.data(), n, true);
    EXPECT_GT(dark_out, dark_in + 2.0) << "darkest tenth " << dark_in << " -> " << dark_out;
    const auto saturated = [n](const uint8_t* y) {
        return std::count_if(y, y + n, [](uint8_t v) { return v >= 250; });
    };
    EXPECT_LE(saturated(out.data()), saturated(in.data()) + static_cast<long>(n / 200))
        << "highlights pushed into saturation";
    const double bright_in = tenth_mean(in.data(), n, false);
    const double bright_out = tenth_mean(out.data(), n, false);
    EXPECT_GT(bright_out, bright_in - 40.0) << "brightest tenth " << bright_in << " -> " << bright_out;
}

INSTANTIATE_TEST_SUITE_P(RealPhotographs, Mode0Frames, testing::ValuesIn(kCases), case_name);

// The photographs above whose darkest tenth is not already video black.
const Case kDarkScenes[] = {
    {"evening", 1280, 720, 0, 0}, {"path", 1920, 1080, 0, 0}, {"water", 1920, 1080, 2, 0},
    {"darkest", 640, 480, 0, 0},  {"pier", 640, 480, 2, 0},
};
INSTANTIATE_TEST_SUITE_P(RealPhotographs, Mode0DarkScenes, testing::ValuesIn(kDarkScenes), case_name);

}  // namespace
}  // namespace qimra::test
