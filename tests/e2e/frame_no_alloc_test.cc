// The frame path allocates nothing: every buffer and table belongs to the
// engine from qimra_init on. The C allocator (and operator new on top of it)
// is interposed in this binary and counts calls made while a frame is in
// qimra_process, on either thread; frames in every adaptive mode, planar and
// interleaved chroma, quarter mode and full size, in place and to a separate
// buffer must leave the count at zero.
//
// Under the address or thread sanitizer the allocator belongs to the
// sanitizer runtime and cannot be replaced, so the interposition is not
// compiled and the tests skip.
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "support/engine_helpers.h"
#include "support/media.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QIMRA_COUNT_ALLOCATIONS 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define QIMRA_COUNT_ALLOCATIONS 0
#endif
#endif
#ifndef QIMRA_COUNT_ALLOCATIONS
#define QIMRA_COUNT_ALLOCATIONS 1
#endif

namespace {

std::atomic<bool> g_counting{false};
std::atomic<long> g_allocator_calls{0};

inline void note_call() {
    if (g_counting.load(std::memory_order_relaxed)) g_allocator_calls.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

#if QIMRA_COUNT_ALLOCATIONS
// glibc's own entry points, under the names it exports for exactly this use.
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);

void* malloc(size_t n) noexcept {
    note_call();
    return __libc_malloc(n);
}
void* calloc(size_t count, size_t n) noexcept {
    note_call();
    return __libc_calloc(count, n);
}
void* realloc(void* p, size_t n) noexcept {
    note_call();
    return __libc_realloc(p, n);
}
void free(void* p) noexcept {
    if (p != nullptr) note_call();
    __libc_free(p);
}
void* aligned_alloc(size_t alignment, size_t n) noexcept {
    note_call();
    return __libc_memalign(alignment, n);
}
int posix_memalign(void** out, size_t alignment, size_t n) noexcept {
    note_call();
    void* p = __libc_memalign(alignment, n);
    if (p == nullptr) return ENOMEM;
    *out = p;
    return 0;
}
}

// operator new and delete through the counted allocator, whatever the
// standard library would do by itself.
void* operator new(size_t n) {
    if (void* p = malloc(n == 0 ? 1 : n)) return p;
    throw std::bad_alloc();
}
void* operator new[](size_t n) { return operator new(n); }
void* operator new(size_t n, const std::nothrow_t&) noexcept { return malloc(n == 0 ? 1 : n); }
void* operator new[](size_t n, const std::nothrow_t&) noexcept { return malloc(n == 0 ? 1 : n); }
void operator delete(void* p) noexcept { free(p); }
void operator delete[](void* p) noexcept { free(p); }
void operator delete(void* p, size_t) noexcept { free(p); }
void operator delete[](void* p, size_t) noexcept { free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { free(p); }
#endif

namespace qimra::test {
namespace {

struct Scene {
    const char* name;
    int w;
    int h;
};

struct Case {
    Scene dark;    // a scene every mode enhances (mode 2 after its hysteresis)
    Scene bright;  // and one adaptive modes may leave alone
    int format;    // 0 planar (I420), 2 interleaved (NV12)
};

const Case kCases[] = {
    {{"path", 1280, 720}, {"autumn", 1280, 720}, 0},
    {{"path", 1280, 720}, {"autumn", 1280, 720}, 2},
    {{"path", 640, 480}, {"autumn", 640, 480}, 0},
    {{"path", 640, 480}, {"autumn", 640, 480}, 2},
};

void PrintTo(const Case& k, std::ostream* os) {
    *os << k.dark.name << " " << k.dark.w << "x" << k.dark.h << (k.format == 2 ? " nv12" : " i420");
}

std::vector<uint8_t> frame_of(const Scene& s, int format) {
    std::vector<uint8_t> f = load_i420(s.name, s.w, s.h);
    return format == 2 ? i420_to_nv12(f, s.w, s.h) : f;
}

// Allocator calls made inside one qimra_process call.
long calls_during_process(qimra_ctx* c, uint8_t* in, uint8_t* out, int w, int h) {
    g_allocator_calls.store(0);
    g_counting.store(true);
    qimra_process(c, in, w, h, out, w, h);
    g_counting.store(false);
    return g_allocator_calls.load();
}

class NoAllocFrames : public testing::TestWithParam<Case> {};

TEST_P(NoAllocFrames, NoAllocatorCallInsideProcessInAnyMode) {
    if (!QIMRA_COUNT_ALLOCATIONS)
        GTEST_SKIP() << "the address and thread sanitizers own the allocator: allocation counting is off in this "
                        "build (the plain x86-64 and armhf builds run it)";
    const Case& k = GetParam();
    const std::vector<uint8_t> dark = frame_of(k.dark, k.format);
    const std::vector<uint8_t> bright = frame_of(k.bright, k.format);
    ASSERT_FALSE(dark.empty());
    ASSERT_FALSE(bright.empty());
    for (const int mode : {0, 1, 2}) {
        reset_globals();
        qimra_ctx* c = nullptr;
        capture_stderr(
            [&] { capture_stdout([&] { c = qimra_init(k.dark.w, k.dark.h, 0.5f, 0, 0, 0, 0, 0, mode, k.format); }); });
        ASSERT_NE(c, nullptr);
        std::vector<uint8_t> in(dark.size()), out(dark.size());
        bool changed = false;
        // Dark frames (enough for mode 2's hysteresis to switch on), a bright
        // one, dark again; alternately to a separate buffer and in place.
        const std::vector<uint8_t>* sequence[] = {&dark, &dark, &dark, &dark, &bright, &dark, &dark};
        int n = 0;
        for (const std::vector<uint8_t>* source : sequence) {
            in = *source;
            const bool in_place = (n++ % 2) == 1;
            uint8_t* target = in_place ? in.data() : out.data();
            const long calls = calls_during_process(c, in.data(), target, k.dark.w, k.dark.h);
            EXPECT_EQ(calls, 0) << "mode " << mode << ", frame " << n << (in_place ? " in place" : " to buffer");
            changed |= std::memcmp(target, source->data(), source->size()) != 0;
        }
        capture_stderr([&] { qimra_deinit(c); });
        // The counted frames went through the enhancement (modes 0 and 2) or
        // at least drew the decision marker (mode 1).
        EXPECT_TRUE(changed) << "mode " << mode << " never changed a frame";
    }
}

std::string case_name(const testing::TestParamInfo<Case>& info) {
    return std::string(info.param.dark.name) + "_" + std::to_string(info.param.dark.w) + "x" +
           std::to_string(info.param.dark.h) + (info.param.format == 2 ? "_nv12" : "_i420");
}

INSTANTIATE_TEST_SUITE_P(Frames, NoAllocFrames, testing::ValuesIn(kCases), case_name);

// The counter itself works: an allocation inside the window is seen. Without
// this a broken interposition would pass the test above vacuously.
TEST(NoAllocCounter, SeesAnAllocationOnTheCountedWindow) {
    if (!QIMRA_COUNT_ALLOCATIONS) GTEST_SKIP() << "allocation counting is off under the sanitizers";
    g_allocator_calls.store(0);
    g_counting.store(true);
    void* volatile p = std::malloc(64);
    std::free(p);
    std::vector<int>* volatile q = new std::vector<int>(100);
    delete q;
    g_counting.store(false);
    EXPECT_GE(g_allocator_calls.load(), 4);
}

}  // namespace
}  // namespace qimra::test
