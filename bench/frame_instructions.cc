// qimra-frame-instructions: enhances real frames in adaptive mode 0 for
// `make bench-instructions`, which runs it under callgrind. Instruction
// counts do not jitter the way times do, so they show small changes to the
// frame path that the timings would hide.
//
// Usage: qimra-frame-instructions [FRAME.yuv [WIDTH HEIGHT [FRAMES]]]
// (default: the 1080p forest path of the media cache, one frame). One frame
// is processed first with the instrumentation off (lazy symbol binding and
// first-touch effects stay out of the count); then FRAMES frames with it on,
// covering both threads. Prints the number of measured frames.
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

int main(int argc, char** argv) {
    const std::string path = argc > 1 ? argv[1] : QIMRA_BENCH_MEDIA_DIR "/yuv/path_1920x1080.yuv";
    const int width = argc > 3 ? std::atoi(argv[2]) : 1920;
    const int height = argc > 3 ? std::atoi(argv[3]) : 1080;
    const int frames = argc > 4 ? std::atoi(argv[4]) : 1;
    if (width <= 0 || height <= 0 || frames <= 0) {
        std::fprintf(stderr, "usage: %s [FRAME.yuv [WIDTH HEIGHT [FRAMES]]]\n", argv[0]);
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
    qimra_ctx* c = qimra_init(width, height, 0.5f, 0, 0, 0, 0, 0, 0, 0);
    if (c == nullptr) return 1;
    qimra_process(c, frame.data(), width, height, out.data(), width, height);
    CALLGRIND_START_INSTRUMENTATION;
    for (int k = 0; k < frames; ++k) qimra_process(c, frame.data(), width, height, out.data(), width, height);
    CALLGRIND_STOP_INSTRUMENTATION;
    qimra_deinit(c);
    std::printf("%d\n", frames);
    return 0;
}
