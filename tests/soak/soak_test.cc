// The soak run (`make soak`; minutes long, not part of the suite): QIMRA_SOAK_FRAMES (10,000) frames at
// 1280x720 through each of modes 0, 1 and 2 of a clip panning over six photographs, fading from each into the
// next, twice: every frame bit for bit again, the heap and resident memory flat after the first frames. Then
// QIMRA_SOAK_CYCLES (1,000) init/teardown cycles leak exactly the second analysis buffer each.
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <qimra/qimra.hpp>

#include "support/engine_helpers.h"
#include "support/media.h"

namespace qimra::test {
namespace {

int env_count(const char* name, int fallback) { return getenv(name) ? std::max(atoi(getenv(name)), 1) : fallback; }

long resident_kib() {
    long pages = 0, resident = 0;
    if (FILE* f = fopen("/proc/self/statm", "r")) {
        if (fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
        fclose(f);
    }
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

long heap_in_use() { return static_cast<long>(mallinfo2().uordblks + mallinfo2().hblkhd); }

TEST(Soak, FramesAreReproducibleAndMemoryStaysFlat) {
    std::vector<std::vector<uint8_t>> scenes;
    for (const char* name : {"autumn", "path", "evening", "darkest", "pier", "water"})
        scenes.push_back(load_i420(name, 1920, 1080));
    const int frames = std::max(env_count("QIMRA_SOAK_FRAMES", 10000), 101);
    for (const int mode : {0, 1, 2}) {
        std::vector<uint64_t> sums[2];
        for (auto& pass : sums) {
            CEngine e(1280, 720, mode, 0);
            pass.reserve(frames);
            std::vector<uint8_t> out(frame_bytes(1280, 720));
            long rss0 = 0, heap0 = 0, rss_peak = 0, switches = 0;
            for (int n = 0, last = 0; n < frames; ++n) {
                if (n == 100) rss0 = resident_kib(), heap0 = heap_in_use();
                if (n >= 100 && n % 100 == 0) rss_peak = std::max(rss_peak, resident_kib());
                // The window pans back and forth over 640 x 360; the last 32 of a scene's 240 frames fade.
                const int scene = n / 240 % 6, px = n * 4 % 1280, py = n * 2 % 720;
                std::vector<uint8_t> in =
                    blend_window(scenes[scene], scenes[(scene + 1) % 6], 1920, 1080, (px < 640 ? px : 1280 - px) & ~1,
                                 (py < 360 ? py : 720 - py) & ~1, 1280, 720, std::max(0, n % 240 - 208) / 2);
                e.process(in.data(), out.data());
                qimra_frame_report r{};
                qimra_get_frame_report(e.get(), &r);
                switches += n > 0 && r.decision != last;
                last = r.decision;
                pass.push_back(fnv1a(out.data(), out.size()));
            }
            // Resident memory may grow once by engine buffers the first enhanced frames touch (in mode 2 well
            // after frame 100), never by more than a couple of frames' worth.
            EXPECT_EQ(heap_in_use() - heap0, 0) << "mode " << mode;
            EXPECT_LE(std::max(rss_peak, resident_kib()) - rss0, 2 * 1350) << "mode " << mode;
            EXPECT_TRUE(mode == 0 || switches > 1) << "the scenes must move the decision both ways";
            printf("[soak] mode %d: %d frames, %ld decision switches\n", mode, frames, switches);
        }
        const auto diff = std::mismatch(sums[0].begin(), sums[0].end(), sums[1].begin());
        EXPECT_TRUE(diff.first == sums[0].end()) << "mode " << mode << ": frame " << diff.first - sums[0].begin();
    }
}

TEST(Soak, InitTeardownLeaksOnlyTheSecondAnalysisBuffer) {
    const int cycles = env_count("QIMRA_SOAK_CYCLES", 1000);
    for (const auto& [w, h] : {std::pair{1280, 720}, std::pair{640, 480}}) {
        const long kept = w >= 1280 && h >= 720 ? w * h / 16 : w * h;
        quietly([&] { qimra_deinit(qimra_init(w, h, 0.5f, 0, 0, 0, 0, 0, 2, 0)); });  // the stack cache settles
        const int threads = thread_count();
        const long heap0 = heap_in_use();
        quietly([&] {
            for (int i = 0; i < cycles; ++i)
                ASSERT_EQ(qimra_deinit(qimra_init(w, h, 0.5f, 0, 0, 0, 0, 0, i % 3, i % 4)), 0);
        });
        const long leaked = heap_in_use() - heap0;
        EXPECT_EQ(thread_count(), threads);
        // Each kept block costs the allocator's header and rounding: under 32 bytes, up to a page when mapped.
        EXPECT_GE(leaked, cycles * kept);
        EXPECT_LE(leaked, cycles * (kept + (kept >= 128 * 1024 ? 4096 + 32 : 32)));
        printf("[soak] %dx%d: %d cycles leaked %ld bytes (kept buffer %ld)\n", w, h, cycles, leaked, kept);
    }
}

}  // namespace
}  // namespace qimra::test
