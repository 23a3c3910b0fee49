#include "support/buffers.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>

#include "support/engine_helpers.h"
#include "support/media.h"

namespace qimra::test {

PageEnd::PageEnd(size_t bytes) : n_(bytes) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t pages = (bytes + page - 1) / page + 1;
    map_bytes_ = pages * page;
    void* m = mmap(nullptr, map_bytes_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED) abort();
    map_ = static_cast<uint8_t*>(m);
    // Without its guard page a buffer would let over-reads pass unseen.
    if (mprotect(map_ + map_bytes_ - page, page, PROT_NONE) != 0) abort();
    p_ = map_ + map_bytes_ - page - bytes;
}

PageEnd::~PageEnd() { munmap(map_, map_bytes_); }

void PageEnd::fill(uint32_t seed) { fill_content(p_, n_, seed); }

namespace {
// The 1920x1080 frames of the photographs, loaded once each.
const std::vector<uint8_t>& photo(const std::string& name) {
    static std::map<std::string, std::vector<uint8_t>> cache;
    auto& frame = cache[name];
    if (frame.empty()) frame = load_i420(name, 1920, 1080);
    return frame;
}
}  // namespace

void fill_content(uint8_t* p, size_t n, uint32_t seed) {
    if (seed % 2 == 0) return fill_random(p, n, seed + 1);
    const std::vector<uint8_t>& frame = photo("path");
    size_t at = (seed * 7919u) % frame.size();
    for (size_t done = 0; done < n;) {
        const size_t k = std::min(n - done, frame.size() - at);
        std::memcpy(p + done, frame.data() + at, k);
        done += k;
        at = 0;
    }
}

std::vector<uint8_t> photo_luma(int w, int h, const char* name) {
    const std::vector<uint8_t>& frame = photo(name);
    std::vector<uint8_t> out(static_cast<size_t>(w) * h);
    for (int y = 0; y < h; ++y)
        std::memcpy(out.data() + static_cast<size_t>(y) * w, frame.data() + static_cast<size_t>(y) * 1920, w);
    return out;
}

}  // namespace qimra::test
