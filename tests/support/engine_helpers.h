// Helpers shared by the engine and whole-frame tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "engine/ctx.h"

namespace qimra::test {

// A YUV 4:2:0 frame packed at its width: luma then chroma (planar U, V or
// interleaved pairs), as the engine expects by default.
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

// Runs fn with standard output (or error) captured and returns what it wrote.
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

std::vector<std::string> lines_of(const std::string& text);

// Threads of this process as the kernel counts them.
int thread_count();

// FNV-1a over a byte range: golden checksums of whole frames.
uint64_t fnv1a(const uint8_t* p, size_t n);

}  // namespace qimra::test
