// The soak run (`make soak`; minutes long, not part of the suite).
//
// 1. 10,000 frames at 1280x720 through each of modes 0, 1 and 2, built from
//    real photographs: a window panning over one scene, cross-fading into
//    the next, six scenes in turn. Resident memory must stay flat after the
//    first frames, and a second, fresh engine given the same sequence must
//    produce every frame bit for bit.
// 2. 1,000 init/teardown cycles leak exactly the second analysis buffer
//    (aw x ah bytes) each, and nothing else.
//
// QIMRA_SOAK_FRAMES and QIMRA_SOAK_CYCLES override the counts.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/engine_helpers.h"
#include "support/media.h"

namespace qimra::test {
namespace {

constexpr int kW = 1280;
constexpr int kH = 720;
constexpr int kSrcW = 1920;
constexpr int kSrcH = 1080;
constexpr int kSceneFrames = 240;  // frames per scene, the last 32 of them fading into the next
constexpr int kFade = 32;

int env_count(const char* name, int fallback) {
    const char* v = getenv(name);
    return v != nullptr && atoi(v) > 0 ? atoi(v) : fallback;
}

long resident_kib() {
    FILE* f = fopen("/proc/self/statm", "r");
    long pages = 0, resident = 0;
    if (f != nullptr) {
        if (fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
        fclose(f);
    }
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// The library's allocation and log lines go to /dev/null while in scope.
class Quiet {
public:
    Quiet() {
        fflush(stdout);
        fflush(stderr);
        out_ = dup(1);
        err_ = dup(2);
        const int null_fd = open("/dev/null", O_WRONLY);
        dup2(null_fd, 1);
        dup2(null_fd, 2);
        close(null_fd);
    }
    ~Quiet() {
        fflush(stdout);
        fflush(stderr);
        dup2(out_, 1);
        dup2(err_, 2);
        close(out_);
        close(err_);
    }

private:
    int out_, err_;
};

class Clip {
public:
    Clip() {
        for (const char* name : {"autumn", "path", "evening", "darkest", "pier", "water"})
            scenes_.push_back(load_i420(name, kSrcW, kSrcH));
    }
    bool ok() const {
        for (const auto& s : scenes_)
            if (s.empty()) return false;
        return true;
    }

    // Frame n into f (I420, 1280x720): the window pans back and forth over
    // 640 columns and 360 rows; the last kFade frames of a scene blend into
    // the next.
    void frame(int n, std::vector<uint8_t>& f) const {
        const int scene = n / kSceneFrames % static_cast<int>(scenes_.size());
        const int next = (scene + 1) % static_cast<int>(scenes_.size());
        const int in_scene = n % kSceneFrames;
        const int wt = std::max(0, in_scene - (kSceneFrames - kFade)) * 16 / kFade;  // 0..15, in 1/16
        const int px = (n * 4) % 1280;
        const int x0 = (px < 640 ? px : 1280 - px) & ~1;
        const int py = (n * 2) % 720;
        const int y0 = (py < 360 ? py : 720 - py) & ~1;
        const std::vector<uint8_t>& a = scenes_[scene];
        const std::vector<uint8_t>& b = scenes_[next];
        f.resize(static_cast<size_t>(kW) * kH * 3 / 2);
        auto blend = [wt](uint8_t p, uint8_t q) { return static_cast<uint8_t>((p * (16 - wt) + q * wt + 8) >> 4); };
        auto plane = [&](size_t src_off, size_t dst_off, int sw, int dw, int dh, int ox, int oy) {
            for (int y = 0; y < dh; ++y) {
                const size_t s = src_off + static_cast<size_t>(oy + y) * sw + ox;
                const size_t d = dst_off + static_cast<size_t>(y) * dw;
                for (int x = 0; x < dw; ++x) f[d + x] = blend(a[s + x], b[s + x]);
            }
        };
        const size_t src_luma = static_cast<size_t>(kSrcW) * kSrcH;
        const size_t dst_luma = static_cast<size_t>(kW) * kH;
        plane(0, 0, kSrcW, kW, kH, x0, y0);
        plane(src_luma, dst_luma, kSrcW / 2, kW / 2, kH / 2, x0 / 2, y0 / 2);
        plane(src_luma * 5 / 4, dst_luma * 5 / 4, kSrcW / 2, kW / 2, kH / 2, x0 / 2, y0 / 2);
    }

private:
    std::vector<std::vector<uint8_t>> scenes_;
};

struct Pass {
    std::vector<uint64_t> sums;
    int enhanced = 0;
    int switches = 0;
    long rss_after_warmup_kib = 0;
    long rss_peak_kib = 0;
    long rss_end_kib = 0;
    long heap_growth = 0;  // bytes in use by malloc, frame 100 to the end
    double seconds = 0;
};

Pass run_pass(const Clip& clip, int mode, int frames) {
    reset_globals();
    qimra_ctx* c = nullptr;
    {
        Quiet q;
        c = qimra_init(kW, kH, 0.5f, 0, 0, 0, 0, 0, mode, 0);
    }
    Pass p;
    EXPECT_NE(c, nullptr);
    if (c == nullptr) return p;
    std::vector<uint8_t> in, out(static_cast<size_t>(kW) * kH * 3 / 2);
    p.sums.reserve(static_cast<size_t>(frames));  // the heap is watched from frame 100 on
    const auto t0 = std::chrono::steady_clock::now();
    bool last = false;
    for (int n = 0; n < frames; ++n) {
        clip.frame(n, in);
        qimra_process(c, in.data(), kW, kH, out.data(), kW, kH);
        qimra_frame_report rep{};
        qimra_get_frame_report(c, &rep);
        const bool decided = (mode == 1 ? rep.decision : rep.enhanced) != 0;
        p.enhanced += decided;
        p.switches += n > 0 && decided != last;
        last = decided;
        p.sums.push_back(fnv1a(out.data(), out.size()) ^ static_cast<uint64_t>(n));
        if (n == 100) {
            p.rss_after_warmup_kib = resident_kib();
            p.heap_growth = -static_cast<long>(mallinfo2().uordblks + mallinfo2().hblkhd);
        }
        if (n >= 100 && n % 100 == 0) p.rss_peak_kib = std::max(p.rss_peak_kib, resident_kib());
    }
    p.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    p.rss_end_kib = resident_kib();
    p.heap_growth += static_cast<long>(mallinfo2().uordblks + mallinfo2().hblkhd);
    p.rss_peak_kib = std::max(p.rss_peak_kib, p.rss_end_kib);
    {
        Quiet q;
        EXPECT_EQ(qimra_deinit(c), 0);
    }
    return p;
}

class Soak : public testing::TestWithParam<int> {
protected:
    static void SetUpTestSuite() { clip_ = new Clip(); }
    static void TearDownTestSuite() {
        delete clip_;
        clip_ = nullptr;
    }
    static Clip* clip_;
};
Clip* Soak::clip_ = nullptr;

TEST_P(Soak, FramesAreReproducibleAndMemoryStaysFlat) {
    ASSERT_TRUE(clip_->ok());
    const int mode = GetParam();
    const int frames = env_count("QIMRA_SOAK_FRAMES", 10000);
    ASSERT_GT(frames, 100);
    const Pass first = run_pass(*clip_, mode, frames);
    const Pass second = run_pass(*clip_, mode, frames);
    ASSERT_EQ(first.sums.size(), static_cast<size_t>(frames));
    ASSERT_EQ(second.sums.size(), static_cast<size_t>(frames));
    int differing = 0, first_diff = -1;
    for (int n = 0; n < frames; ++n) {
        if (first.sums[n] == second.sums[n]) continue;
        if (first_diff < 0) first_diff = n;
        ++differing;
    }
    EXPECT_EQ(differing, 0) << "first differing frame " << first_diff;
    EXPECT_EQ(first.enhanced, second.enhanced);
    const long growth = first.rss_peak_kib - first.rss_after_warmup_kib;
    // Nothing is allocated per frame: the heap in use does not move by a
    // byte. Resident memory may still grow once by the engine buffers that
    // the first enhanced frames touch for the first time (in mode 2 well
    // after frame 100), never by more than a couple of frames' worth.
    EXPECT_EQ(first.heap_growth, 0);
    EXPECT_EQ(second.heap_growth, 0);
    EXPECT_LE(growth, 2 * 1350) << "resident memory grew by " << growth << " KiB after frame 100";
    printf(
        "[soak] mode %d: %d frames x 2 passes, %d enhanced, %d decision switches, %.0f frames/s; "
        "RSS after frame 100 %ld KiB, peak %ld KiB, end %ld KiB (growth %ld KiB); second pass growth %ld KiB; "
        "%d differing frames; heap growth %ld bytes\n",
        mode, frames, first.enhanced, first.switches, frames / first.seconds, first.rss_after_warmup_kib,
        first.rss_peak_kib, first.rss_end_kib, growth, second.rss_peak_kib - second.rss_after_warmup_kib, differing,
        first.heap_growth);
    if (mode == 0) {
        EXPECT_EQ(first.enhanced, frames);
    } else {
        EXPECT_GT(first.switches, 1) << "the scenes must move the decision both ways";
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, Soak, testing::Values(0, 1, 2),
                         [](const auto& i) { return "Mode" + std::to_string(i.param); });

TEST(SoakCycles, InitTeardownLeaksOnlyTheSecondAnalysisBuffer) {
    const int cycles = env_count("QIMRA_SOAK_CYCLES", 1000);
    for (auto [w, h] : {std::pair{1280, 720}, std::pair{640, 480}}) {
        const bool quarter = w >= 1280 && h >= 720;
        const size_t kept = static_cast<size_t>(quarter ? w / 4 : w) * static_cast<size_t>(quarter ? h / 4 : h);
        // One cycle first: the thread stack cache and stdio settle.
        {
            Quiet q;
            qimra_deinit(qimra_init(w, h, 0.5f, 0, 0, 0, 0, 0, 2, 0));
        }
        const int threads = thread_count();
        const size_t heap0 = mallinfo2().uordblks;
        const size_t mmap0 = mallinfo2().hblkhd;
        const long rss0 = resident_kib();
        {
            Quiet q;
            for (int i = 0; i < cycles; ++i) {
                qimra_ctx* c = qimra_init(w, h, 0.5f, 0, 0, 0, 0, 0, i % 3, i % 4);
                ASSERT_NE(c, nullptr);
                ASSERT_EQ(qimra_deinit(c), 0);
            }
        }
        const size_t heap = mallinfo2().uordblks - heap0;
        const size_t mapped = mallinfo2().hblkhd - mmap0;
        const long rss = resident_kib() - rss0;
        EXPECT_EQ(thread_count(), threads);
        // Each kept block costs its bytes plus the allocator's chunk header
        // and rounding: at most 31 bytes on the heap, or up to a page when
        // glibc maps a large block on its own.
        const size_t leaked = heap + mapped;
        const size_t slack = kept >= 128 * 1024 ? 4096 + 32 : 32;
        EXPECT_GE(leaked, cycles * kept);
        EXPECT_LE(leaked, cycles * (kept + slack)) << "more than the kept buffer leaks per cycle";
        printf(
            "[soak] %dx%d: %d init/teardown cycles leaked %zu heap bytes (%.2f per cycle; kept buffer %zu bytes), "
            "RSS growth %ld KiB (%.0f bytes per cycle)\n",
            w, h, cycles, leaked, static_cast<double>(leaked) / cycles, kept, rss, rss * 1024.0 / cycles);
    }
}

}  // namespace
}  // namespace qimra::test
