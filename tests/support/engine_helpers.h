// Helpers shared by the engine and whole-frame tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <exception>
#include <string>
#include <vector>

#include "engine/ctx.h"

namespace qimra::test {

// A YUV 4:2:0 frame packed at its width: luma then chroma (planar U, V or interleaved pairs).
struct Frame420 {
    int32_t width = 0;
    int32_t height = 0;
    std::vector<uint8_t> bytes;

    Frame420(int32_t w, int32_t h) : width(w), height(h), bytes(static_cast<size_t>(w) * h * 3 / 2) {}
    uint8_t* y() { return bytes.data(); }
    uint8_t* chroma() { return bytes.data() + static_cast<size_t>(width) * height; }
    size_t luma_size() const { return static_cast<size_t>(width) * height; }
};

// Deterministic pseudo-random bytes (xorshift), the same on every platform.
void fill_random(uint8_t* p, size_t n, uint32_t seed);

// Resets the process-wide side-input and CDS state between tests.
void reset_globals();

// Runs fn with standard output (or error) captured; returns what it wrote.
template <typename Fn>
std::string capture_stdout(Fn&& fn) {
    fflush(stdout);
    testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

template <typename Fn>
std::string capture_stderr(Fn&& fn) {
    fflush(stderr);
    testing::internal::CaptureStderr();
    fn();
    fflush(stderr);
    return testing::internal::GetCapturedStderr();
}

// Runs fn with the library's messages dropped; an exception passes through once the capture is closed.
template <typename Fn>
void quietly(Fn&& fn) {
    std::exception_ptr error;
    capture_stderr([&] {
        capture_stdout([&] {
            try {
                fn();
            } catch (...) {
                error = std::current_exception();
            }
        });
    });
    if (error) std::rethrow_exception(error);
}

// An engine through the C ABI for one test, made after a reset of the process-wide state, quietly.
class CEngine {
public:
    CEngine(int32_t w, int32_t h, int32_t mode, int32_t format, float gamma = 0.5f);
    ~CEngine();
    CEngine(const CEngine&) = delete;
    CEngine& operator=(const CEngine&) = delete;
    qimra_ctx* get() const { return c_; }
    // One packed frame; `out` may be `in` (in place).
    void process(uint8_t* in, uint8_t* out) const { qimra_process(c_, in, w_, h_, out, w_, h_); }

private:
    qimra_ctx* c_ = nullptr;
    int32_t w_, h_;
};

std::vector<std::string> lines_of(const std::string& text);

int thread_count();

// FNV-1a over a byte range: golden checksums of whole frames.
uint64_t fnv1a(const uint8_t* p, size_t n);

}  // namespace qimra::test
