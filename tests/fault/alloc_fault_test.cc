// The engine's memory, watched by interposing the C allocator in this
// executable (the library carries no test hook; the binary is its own so
// that no other test runs on this allocator): every allocation failure of
// engine creation is handled without a leak; frames allocate nothing, on
// either thread, in every mode; teardown keeps exactly the one buffer the
// design leaves behind. The frame test also drives every parallel stage
// over many frames, which is what the thread-sanitizer build runs; there,
// as under the address sanitizer, the allocator is the sanitizer's own and
// only the comparison of two engines remains.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <qimra/qimra.hpp>
#include <string>

#include "support/engine_helpers.h"
#include "support/media.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QIMRA_FAULT_INTERPOSE 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define QIMRA_FAULT_INTERPOSE 0
#endif
#endif
#ifndef QIMRA_FAULT_INTERPOSE
#define QIMRA_FAULT_INTERPOSE 1
#endif

namespace {

constexpr int kMaxTracked = 512;

// Failures and tracking concern the thread that armed the window only: the
// worker and the test framework allocate on their own schedules. Counting
// (for frames) sees every thread.
thread_local bool t_armed = false;
long t_calls = 0;    // allocations of the armed thread in the window
long t_fail_at = 0;  // 1-based index of the allocation to fail, 0 for none
std::atomic<void*> g_live[kMaxTracked];
std::atomic<size_t> g_live_size[kMaxTracked];
std::atomic<bool> g_counting{false};
std::atomic<long> g_counted{0};

}  // namespace

#if QIMRA_FAULT_INTERPOSE
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);

void* malloc(size_t n) {
    if (g_counting) ++g_counted;
    if (!t_armed) return __libc_malloc(n);
    if (++t_calls == t_fail_at) return nullptr;
    void* p = __libc_malloc(n);
    for (int i = 0; p != nullptr && i < kMaxTracked; ++i) {
        void* expected = nullptr;
        if (g_live[i].compare_exchange_strong(expected, p)) {
            g_live_size[i] = n;
            break;
        }
    }
    return p;
}
void free(void* p) {
    if (p == nullptr) return;
    if (g_counting) ++g_counted;
    for (int i = 0; i < kMaxTracked; ++i) {
        void* expected = p;
        if (g_live[i].compare_exchange_strong(expected, nullptr)) break;
    }
    __libc_free(p);
}
void* calloc(size_t count, size_t n) {
    if (g_counting) ++g_counted;
    return __libc_calloc(count, n);
}
void* realloc(void* p, size_t n) {
    if (g_counting) ++g_counted;
    return __libc_realloc(p, n);
}
void* aligned_alloc(size_t alignment, size_t n) {
    if (g_counting) ++g_counted;
    return __libc_memalign(alignment, n);
}
int posix_memalign(void** out, size_t alignment, size_t n) {
    if (g_counting) ++g_counted;
    *out = __libc_memalign(alignment, n);
    return *out == nullptr ? ENOMEM : 0;
}
}
#endif

namespace qimra::test {
namespace {

// Blocks allocated in the last window and not yet freed.
std::vector<size_t> live_blocks() {
    std::vector<size_t> sizes;
    for (int i = 0; i < kMaxTracked; ++i)
        if (g_live[i].load() != nullptr) sizes.push_back(g_live_size[i].load());
    return sizes;
}

// A worker that has been joined may still be listed for a moment.
int threads_settled_to(int expected) {
    int n = thread_count();
    for (int i = 0; i < 100 && n != expected; ++i, n = thread_count()) usleep(10 * 1000);
    return n;
}

// Runs fn with the `fail_at`th allocation of this thread failing (0: none)
// and its output (what the library logs) going to a file; returns that
// output. Nothing in the capture allocates inside the window.
template <typename Fn>
std::string run_armed(long fail_at, Fn&& fn) {
    FILE* log = tmpfile();
    fflush(stdout);
    fflush(stderr);
    const int saved_out = dup(1), saved_err = dup(2);
    dup2(fileno(log), 1);
    dup2(fileno(log), 2);
    for (auto& p : g_live) p = nullptr;
    t_calls = 0;
    t_fail_at = fail_at;
    t_armed = true;
    fn();
    fflush(stdout);
    fflush(stderr);
    t_armed = false;
    dup2(saved_out, 1);
    dup2(saved_err, 2);
    close(saved_out);
    close(saved_err);
    std::string text(static_cast<size_t>(ftell(log)), '\0');
    rewind(log);
    text.resize(fread(text.data(), 1, text.size(), log));
    fclose(log);
    return text;
}

int count_of(const std::string& text, const std::string& what) {
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

#define SKIP_WITHOUT_INTERPOSER() \
    if (!QIMRA_FAULT_INTERPOSE) GTEST_SKIP() << "the sanitizers own the allocator"

// Quarter-size (1280x720) and full-size analysis (640x480), through the C
// ABI (which logs each allocation and the failure) and through the C++
// layer (whose 1000x500 engine has a working frame of its own to allocate).
TEST(FaultAllocation, EveryAllocationOfEngineCreationFailsCleanly) {
    SKIP_WITHOUT_INTERPOSER();
    const int threads_before = thread_count();
    const struct {
        int w, h, mode;
        bool cpp;
    } cases[] = {{1280, 720, 0, false}, {1280, 720, 2, false}, {640, 480, 0, false},
                 {640, 480, 2, false},  {1280, 720, 2, true},  {1000, 500, 1, true}};
    for (const auto& k : cases) {
        std::string error;
        error.reserve(1024);  // no allocation of the test's own inside the window
        const std::string core = std::to_string((k.w + 15) / 16 * 16) + "x" + std::to_string(k.h);
        // Creates and destroys an engine; false when creation failed.
        const auto make = [&] {
            if (!k.cpp) {
                qimra_ctx* c = qimra_init(k.w, k.h, 0.5f, 0, 0, 0, 0, 0, k.mode, 0);
                return c != nullptr && qimra_deinit(c) == 0;
            }
            try {
                Engine e(k.w, k.h, 0.5f, static_cast<Mode>(k.mode));
                return true;
            } catch (const Error& err) {
                error = err.what();
                return false;
            }
        };
        bool made = false;
        const std::string clean = run_armed(0, [&] { made = make(); });
        const long allocations = t_calls;
        ASSERT_TRUE(made);
        ASSERT_GT(allocations, 20);
        EXPECT_TRUE(k.cpp || count_of(clean, " bytes of memory\n") == allocations) << "each allocation is logged";
        for (long n = 1; n <= allocations; ++n) {
            SCOPED_TRACE(testing::Message() << k.w << "x" << k.h << " mode " << k.mode << (k.cpp ? " C++" : " C")
                                            << ", allocation " << n << " of " << allocations << " fails");
            const std::string log = run_armed(n, [&] { made = make(); });
            EXPECT_FALSE(made);
            EXPECT_EQ(live_blocks().size(), 0u) << "bytes left behind";
            EXPECT_EQ(threads_settled_to(threads_before), threads_before) << "the worker outlived a failed creation";
            if (k.cpp) {
                EXPECT_EQ(error.rfind("qimra: out of memory", 0), 0u) << error;
                EXPECT_NE(error.find(core), std::string::npos) << error;
                continue;
            }
            EXPECT_EQ(count_of(log, "Failed to allocate memory\n"), 1) << log;
            EXPECT_EQ(count_of(log, " bytes of memory\n"), n - 1) << "nothing is allocated after the failure";
        }
        run_armed(0, [&] { made = make(); });
        EXPECT_TRUE(made) << "an engine can be made after the failures";
    }
}

// Every parallel stage of modes 0, 1 and 2, quarter- and full-size analysis,
// planar and interleaved chroma, over a clip that fades from a bright scene
// into a dark one: two engines must agree on every byte (a race between the
// two cores shows even where no sanitizer runs), frames in place or to a
// buffer call the allocator not once on any thread, and after an idle pause
// teardown keeps only the second analysis buffer (aw x ah bytes).
TEST(FaultFrames, TwoEnginesAgreeWithoutAllocatingAndTeardownKeepsOneBuffer) {
    constexpr int kFrames = 60;
    const int threads_before = thread_count();
    // The counter sees an allocation in its window; without this a broken
    // interposer would pass vacuously.
    g_counting = true;
    std::vector<int>* volatile probe = new std::vector<int>(100);
    delete probe;
    g_counting = false;
    EXPECT_GE(g_counted.exchange(0), 2 * QIMRA_FAULT_INTERPOSE);
    for (const auto& [w, h] : {std::pair{1280, 720}, std::pair{640, 480}})
        for (const bool interleaved : {false, true}) {
            const std::vector<uint8_t> bright = load_i420("autumn", w, h), dark = load_i420("path", w, h);
            std::vector<std::vector<uint8_t>> clip;
            for (int n = 0; n < kFrames; ++n) {
                clip.push_back(blend_window(bright, dark, w, h, 0, 0, w, h, std::clamp(n - 4, 0, 16)));
                if (interleaved) clip.back() = i420_to_nv12(clip.back(), w, h);
            }
            for (const int mode : {0, 1, 2}) {
                SCOPED_TRACE(testing::Message()
                             << w << "x" << h << (interleaved ? " nv12" : " i420") << " mode " << mode);
                std::string decisions[2];
                std::vector<uint64_t> sums[2];
                for (int pass = 0; pass < 2; ++pass) {
                    reset_globals();
                    long frame_calls = 0;
                    decisions[pass].reserve(kFrames);  // nothing of the test's own stays allocated
                    sums[pass].reserve(kFrames);
                    int threads_with_engine = 0;
                    run_armed(0, [&] {
                        qimra_ctx* c = qimra_init(w, h, 0.5f, 0, 0, 0, 0, 0, mode, interleaved ? 2 : 0);
                        threads_with_engine = thread_count();
                        std::vector<uint8_t> in, out(clip[0].size());
                        for (int n = 0; n < kFrames; ++n) {
                            in = clip[n];
                            uint8_t* target = n % 2 ? in.data() : out.data();
                            g_counting = true;
                            qimra_process(c, in.data(), w, h, target, w, h);
                            g_counting = false;
                            frame_calls += g_counted.exchange(0);
                            qimra_frame_report r{};
                            qimra_get_frame_report(c, &r);
                            decisions[pass] += r.decision ? '1' : '0';
                            sums[pass].push_back(fnv1a(target, in.size()));
                        }
                        usleep(50 * 1000);  // the worker sits idle on its semaphore
                        qimra_deinit(c);
                    });
                    EXPECT_EQ(threads_with_engine, threads_before + 1);
                    EXPECT_EQ(threads_settled_to(threads_before), threads_before);
                    if (!QIMRA_FAULT_INTERPOSE) continue;
                    EXPECT_EQ(frame_calls, 0) << "allocator calls inside qimra_process";
                    const bool quarter = w >= 1280 && h >= 720;
                    EXPECT_EQ(live_blocks(), std::vector<size_t>{static_cast<size_t>(quarter ? w * h / 16 : w * h)});
                }
                EXPECT_EQ(decisions[0], decisions[1]);
                EXPECT_TRUE(sums[0] == sums[1]) << "two engines disagree";
                // The fade into the dark scene switches the decision on part way.
                EXPECT_EQ(decisions[0].find('1') > 0, mode != 0) << decisions[0];
                EXPECT_NE(decisions[0].find('1'), std::string::npos) << decisions[0];
            }
        }
}

}  // namespace
}  // namespace qimra::test
