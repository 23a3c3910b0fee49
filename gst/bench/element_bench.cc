// qimra-gst-bench: what qimraenhance adds to each buffer over qimra_process
// alone, at 1280x720 and 1920x1080 (sizes the core takes, so the element
// passes the buffer's planes straight through).
//
// Both sides enhance the same real frame in place, in fixed mode (every
// frame enhanced) and in adaptive mode, on a set of buffers used in turn
// and refilled with the frame before each use (untimed), so that both see
// the same scene and make the same decisions.
// The element is driven through a GstHarness (pad push, the base class's
// checks, the frame map, the engine, the pull on the other side). The two
// are timed in alternating rounds, so that the load of a shared machine
// falls on both alike, and the medians are compared.
//
//   qimra-gst-bench [--rounds N] [--frames-per-round N]
#include <fcntl.h>
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "qimra/qimra.h"

namespace {

using Clock = std::chrono::steady_clock;

// The library reports its allocations on standard output and its set-up on
// standard error at each engine creation; neither belongs among the results.
template <class Fn>
void silenced(Fn&& fn) {
    fflush(stdout);
    fflush(stderr);
    const int out = dup(STDOUT_FILENO), err = dup(STDERR_FILENO), null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    fn();
    fflush(stdout);
    fflush(stderr);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    close(out);
    close(err);
    close(null);
}

std::vector<uint8_t> load_frame(int w, int h) {
    std::vector<uint8_t> f(static_cast<size_t>(w) * h * 3 / 2, 60);
    const std::string path =
        std::string(QIMRA_BENCH_MEDIA_DIR) + "/yuv/path_" + std::to_string(w) + "x" + std::to_string(h) + ".yuv";
    std::ifstream in(path, std::ios::binary);
    if (!in.read(reinterpret_cast<char*>(f.data()), static_cast<std::streamsize>(f.size())))
        fprintf(stderr, "note: %s missing (make media); timing a flat grey frame\n", path.c_str());
    return f;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

constexpr int kBuffers = 4;

struct Result {
    double bare_ms, element_ms;
};

// A harness around a fresh qimraenhance for w x h I420 in `mode`.
GstHarness* element_harness(int w, int h, int mode) {
    GstHarness* harness = gst_harness_new("qimraenhance");
    gst_util_set_object_arg(G_OBJECT(harness->element), "mode", mode == 0 ? "fixed" : "adaptive");
    const std::string caps =
        "video/x-raw,format=I420,width=" + std::to_string(w) + ",height=" + std::to_string(h) + ",framerate=30/1";
    gst_harness_set_src_caps_str(harness, caps.c_str());
    return harness;
}

// One buffer through the element in place: pushed, enhanced, pulled back.
// The caller owns it in between, so it stays writable and the base class
// never copies it.
void through(GstHarness* harness, GstBuffer*& b) {
    if (gst_harness_push(harness, b) != GST_FLOW_OK) {
        fprintf(stderr, "qimraenhance refused a buffer\n");
        exit(1);
    }
    b = gst_harness_pull(harness);
}

Result measure(int w, int h, int mode, int rounds, int per_round) {
    const std::vector<uint8_t> frame = load_frame(w, h);
    std::vector<std::vector<uint8_t>> bare(kBuffers, frame);
    std::vector<GstBuffer*> buffers;
    for (int i = 0; i < kBuffers; ++i) {
        buffers.push_back(gst_buffer_new_allocate(nullptr, frame.size(), nullptr));
        gst_buffer_fill(buffers.back(), 0, frame.data(), frame.size());
    }
    std::vector<double> bare_times, element_times;
    // One engine at a time in a process: each round makes the bare engine,
    // then the element's, each held over the round's frames. Creation and
    // each engine's first frame are not timed.
    for (int r = 0; r < rounds; ++r) {
        qimra_ctx* c = nullptr;
        silenced([&] { c = qimra_init(w, h, 0.5f, 0, 0, 0, 0, 0, mode, 0); });
        std::memcpy(bare[0].data(), frame.data(), frame.size());
        qimra_process(c, bare[0].data(), w, h, bare[0].data(), w, h);
        for (int i = 0; i < per_round; ++i) {
            uint8_t* p = bare[i % kBuffers].data();
            std::memcpy(p, frame.data(), frame.size());
            const auto t0 = Clock::now();
            qimra_process(c, p, w, h, p, w, h);
            bare_times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
        }
        silenced([&] { qimra_deinit(c); });

        GstHarness* harness = nullptr;
        silenced([&] {
            harness = element_harness(w, h, mode);
            through(harness, buffers[0]);
        });
        for (int i = 0; i < per_round; ++i) {
            gst_buffer_fill(buffers[i % kBuffers], 0, frame.data(), frame.size());
            const auto t0 = Clock::now();
            through(harness, buffers[i % kBuffers]);
            element_times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
        }
        silenced([&] { gst_harness_teardown(harness); });
    }
    for (GstBuffer* b : buffers) gst_buffer_unref(b);
    return {median(bare_times), median(element_times)};
}

}  // namespace

int main(int argc, char** argv) {
    int rounds = 20, per_round = 10;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string a = argv[i];
        if (a == "--rounds")
            rounds = std::max(1, atoi(argv[i + 1]));
        else if (a == "--frames-per-round")
            per_round = std::max(1, atoi(argv[i + 1]));
    }
    gst_init(&argc, &argv);
    gst_registry_scan_path(gst_registry_get(), QIMRA_GST_PLUGIN_DIR);
    printf("qimraenhance against qimra_process alone, I420 in place, medians of %d frames\n", rounds * per_round);
    printf("%-10s %-9s %18s %14s %8s\n", "size", "mode", "qimra_process ms", "element ms", "added");
    for (auto [w, h] : {std::pair{1280, 720}, std::pair{1920, 1080}})
        for (int mode : {0, 2}) {
            const Result r = measure(w, h, mode, rounds, per_round);
            printf("%-10s %-9s %18.3f %14.3f %7.1f%%\n", (std::to_string(w) + "x" + std::to_string(h)).c_str(),
                   mode == 0 ? "fixed" : "adaptive", r.bare_ms, r.element_ms,
                   100.0 * (r.element_ms - r.bare_ms) / r.bare_ms);
        }
    return 0;
}
