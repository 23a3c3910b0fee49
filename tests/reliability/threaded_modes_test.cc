// Every parallel stage of modes 0, 1 and 2 over many frames, at a size with
// quarter-size analysis (1280x720) and one with full-size analysis
// (640x480), planar and interleaved chroma. Cheap enough for every build; in
// the thread-sanitizer build it is what drives the worker through each
// stage. Two engines given the same frames must agree on every byte: a race
// between the two cores shows up as a difference even where the sanitizer
// is not running.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "support/engine_helpers.h"
#include "support/media.h"

namespace qimra::test {
namespace {

constexpr int kFrames = 60;

struct Config {
    int w, h;
    int format;  // 0 planar (I420), 2 interleaved (NV12)
    int mode;
};

std::string name_of(const testing::TestParamInfo<Config>& info) {
    const Config& c = info.param;
    return std::to_string(c.w) + "x" + std::to_string(c.h) + (c.format == 0 ? "_I420" : "_NV12") + "_Mode" +
           std::to_string(c.mode);
}

// Frame n: a bright scene panning right by n pixels, cross-fading into a
// dark one from frame 4 to 20 and holding it (weights in 1/16).
std::vector<uint8_t> clip_frame(const std::vector<uint8_t>& bright, const std::vector<uint8_t>& dark, int w, int h,
                                int n) {
    const int wt = std::clamp(n - 4, 0, 16);
    std::vector<uint8_t> f(static_cast<size_t>(w) * h * 3 / 2);
    auto blend = [wt](uint8_t a, uint8_t b) { return static_cast<uint8_t>((a * (16 - wt) + b * wt + 8) >> 4); };
    auto plane = [&](size_t off, int pw, int ph, int shift) {
        for (int y = 0; y < ph; ++y)
            for (int x = 0; x < pw; ++x) {
                const size_t s = off + static_cast<size_t>(y) * pw + std::min(x + shift, pw - 1);
                f[off + static_cast<size_t>(y) * pw + x] = blend(bright[s], dark[s]);
            }
    };
    const size_t luma = static_cast<size_t>(w) * h;
    plane(0, w, h, n);
    plane(luma, w / 2, h / 2, n / 2);
    plane(luma + luma / 4, w / 2, h / 2, n / 2);
    return f;
}

struct EngineRun {
    std::vector<uint64_t> sums;
    std::string decisions;
};

class SoakThreadedModes : public testing::TestWithParam<Config> {
protected:
    EngineRun run(const std::vector<std::vector<uint8_t>>& clip) {
        const Config& p = GetParam();
        reset_globals();
        qimra_ctx* c = nullptr;
        capture_stderr(
            [&] { capture_stdout([&] { c = qimra_init(p.w, p.h, 0.5f, 0, 0, 0, 0, 0, p.mode, p.format); }); });
        EXPECT_NE(c, nullptr);
        EngineRun r;
        if (c == nullptr) return r;
        std::vector<uint8_t> out(clip[0].size());
        for (int n = 0; n < kFrames; ++n) {
            std::vector<uint8_t> in = clip[n];
            qimra_process(c, in.data(), p.w, p.h, out.data(), p.w, p.h);
            EXPECT_EQ(in, clip[n]) << "the input is read only, frame " << n;
            qimra_frame_report rep{};
            EXPECT_EQ(qimra_get_frame_report(c, &rep), 0);
            EXPECT_EQ(rep.frame, n);
            r.decisions += rep.decision ? '1' : '0';
            r.sums.push_back(fnv1a(out.data(), out.size()));
            check(clip[n], out, rep, n);
        }
        capture_stderr([&] { EXPECT_EQ(qimra_deinit(c), 0); });
        return r;
    }

    void check(const std::vector<uint8_t>& in, const std::vector<uint8_t>& out, const qimra_frame_report& rep, int n) {
        const Config& p = GetParam();
        if (p.mode == 0) {
            ASSERT_EQ(rep.enhanced, 1) << "mode 0 enhances every frame, frame " << n;
            ASSERT_NE(out, in) << "frame " << n;
        } else if (p.mode == 2) {
            ASSERT_EQ(rep.enhanced, rep.decision) << "frame " << n;
            if (!rep.enhanced) {
                ASSERT_EQ(out, in) << "a frame left alone is copied exactly, frame " << n;
            }
        } else if (p.mode == 1) {
            ASSERT_EQ(rep.enhanced, 0) << "mode 1 only marks, frame " << n;
            // Only the 64 x 64 decision square (and its chroma) changes.
            for (int y : {0, p.h / 2 - 33, p.h / 2 + 32, p.h - 1})
                ASSERT_EQ(0, memcmp(&in[static_cast<size_t>(y) * p.w], &out[static_cast<size_t>(y) * p.w],
                                    static_cast<size_t>(p.w)))
                    << "row " << y << ", frame " << n;
        }
    }
};

TEST_P(SoakThreadedModes, TwoEnginesAgreeOnEveryFrame) {
    const Config& p = GetParam();
    const std::vector<uint8_t> bright = load_i420("autumn", p.w, p.h);
    const std::vector<uint8_t> dark = load_i420("path", p.w, p.h);
    ASSERT_FALSE(bright.empty());
    ASSERT_FALSE(dark.empty());
    std::vector<std::vector<uint8_t>> clip;
    for (int n = 0; n < kFrames; ++n) {
        std::vector<uint8_t> f = clip_frame(bright, dark, p.w, p.h, n);
        clip.push_back(p.format == 0 ? f : i420_to_nv12(f, p.w, p.h));
    }
    const EngineRun first = run(clip);
    const EngineRun second = run(clip);
    ASSERT_EQ(first.sums.size(), static_cast<size_t>(kFrames));
    EXPECT_EQ(first.decisions, second.decisions);
    for (int n = 0; n < kFrames; ++n) EXPECT_EQ(first.sums[n], second.sums[n]) << "frame " << n;
    if (p.mode != 0) {
        // The fade into the dark scene switches the decision on part way.
        EXPECT_EQ(first.decisions[0], '0') << first.decisions;
        EXPECT_NE(first.decisions.find('1'), std::string::npos) << first.decisions;
    }
}

std::vector<Config> configs() {
    std::vector<Config> v;
    for (auto [w, h] : {std::pair{1280, 720}, std::pair{640, 480}})
        for (int format : {0, 2})
            for (int mode : {0, 1, 2}) v.push_back({w, h, format, mode});
    return v;
}

INSTANTIATE_TEST_SUITE_P(All, SoakThreadedModes, testing::ValuesIn(configs()), name_of);

}  // namespace
}  // namespace qimra::test
