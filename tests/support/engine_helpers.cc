#include "support/engine_helpers.h"

#include <filesystem>
#include <sstream>

namespace qimra::test {

void fill_random(uint8_t* p, size_t n, uint32_t seed) {
    uint32_t s = seed ? seed : 0x9E3779B9u;
    for (size_t i = 0; i < n; ++i) {
        s ^= s << 13;
        s ^= s >> 17;
        s ^= s << 5;
        p[i] = static_cast<uint8_t>(s >> 24);
    }
}

void reset_globals() {
    cds_count_down = 3;
    prev_cds_flag = 0;
    global_cds_params[0] = global_cds_params[1] = 0;
    global_cam_params[0] = global_cam_params[1] = 0;
}

CEngine::CEngine(int32_t w, int32_t h, int32_t mode, int32_t format, float gamma) : w_(w), h_(h) {
    reset_globals();
    quietly([&] { c_ = qimra_init(w, h, gamma, 0, 0, 0, 0, 0, mode, format); });
    EXPECT_NE(c_, nullptr);
}

CEngine::~CEngine() {
    quietly([&] { qimra_deinit(c_); });
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

int thread_count() {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

uint64_t fnv1a(const uint8_t* p, size_t n) {
    uint64_t h = 1469598103934665603ull;
    for (size_t i = 0; i < n; ++i) {
        h ^= p[i];
        h *= 1099511628211ull;
    }
    return h;
}

}  // namespace qimra::test
