// qimra-frame-instructions: enhances real frames for `make
// bench-instructions`, which runs it under callgrind, and for `make
// bench-instructions-armhf`, which runs its static ARMv7 build under qemu-arm
// with a counting plugin. Instruction counts do not jitter the way times do,
// so they show small changes to the frame path that the timings would hide.
//
// Usage: qimra-frame-instructions [FRAME.yuv [WIDTH HEIGHT [FRAMES [MODE]]]]
// (default: the 1080p forest path of the media cache, one frame, adaptive
// mode 0). One frame is processed first with the instrumentation off (lazy
// symbol binding and first-touch effects stay out of the count); then FRAMES
// frames with it on, covering both threads. Every frame is preceded by a call
// of qimra_bench_frame_mark, where the qemu plugin cuts its count. Prints the
// number of measured frames.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "qimra/qimra.h"

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_START_INSTRUMENTATION
#define CALLGRIND_STOP_INSTRUMENTATION
#endif

// A function of its own that the counting plugin sees run before each frame.
extern "C" __attribute__((noinline)) void qimra_bench_frame_mark() { __asm__ __volatile__(""); }

int main(int argc, char** argv) {
    const std::string path = argc > 1 ? argv[1] : QIMRA_BENCH_MEDIA_DIR "/yuv/path_1920x1080.yuv";
    const int width = argc > 3 ? std::atoi(argv[2]) : 1920;
    const int height = argc > 3 ? std::atoi(argv[3]) : 1080;
    const int frames = argc > 4 ? std::atoi(argv[4]) : 1;
    const int mode = argc > 5 ? std::atoi(argv[5]) : 0;
    if (width <= 0 || height <= 0 || frames <= 0 || mode < 0) {
        std::fprintf(stderr, "usage: %s [FRAME.yuv [WIDTH HEIGHT [FRAMES [MODE]]]]\n", argv[0]);
        return 2;
    }
    const size_t bytes = static_cast<size_t>(width) * height * 3 / 2;
    std::vector<uint8_t> frame(bytes);
    std::ifstream in(path, std::ios::binary);
    if (!in.read(reinterpret_cast<char*>(frame.data()), static_cast<std::streamsize>(bytes))) {
        std::fprintf(stderr, "%s: cannot read one %dx%d I420 frame (make media fetches it)\n", path.c_str(), width,
                     height);
        return 1;
    }
    std::vector<uint8_t> out(bytes);
    qimra_ctx* c = qimra_init(width, height, 0.5f, 0, 0, 0, 0, 0, mode, 0);
    if (c == nullptr) return 1;
    qimra_bench_frame_mark();
    qimra_process(c, frame.data(), width, height, out.data(), width, height);
    CALLGRIND_START_INSTRUMENTATION;
    for (int k = 0; k < frames; ++k) {
        qimra_bench_frame_mark();
        qimra_process(c, frame.data(), width, height, out.data(), width, height);
    }
    qimra_bench_frame_mark();
    CALLGRIND_STOP_INSTRUMENTATION;
    qimra_deinit(c);
    std::printf("%d\n", frames);
    return 0;
}
