// Kernel test buffers: bytes that end exactly at a page followed by an
// inaccessible one (a read or write one byte too far faults at once), and
// their content, random or cut from real photographs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qimra::test {

class PageEnd {
public:
    explicit PageEnd(size_t bytes);
    PageEnd(size_t bytes, uint32_t seed) : PageEnd(bytes) { fill(seed); }
    PageEnd(const PageEnd&) = delete;
    PageEnd& operator=(const PageEnd&) = delete;
    ~PageEnd();
    uint8_t* data() { return p_; }
    template <class T>
    T* as() {
        return reinterpret_cast<T*>(p_);
    }
    size_t size() const { return n_; }
    std::vector<uint8_t> bytes() const { return {p_, p_ + n_}; }
    void fill(uint32_t seed);

private:
    uint8_t* map_ = nullptr;
    size_t map_bytes_ = 0;
    uint8_t* p_ = nullptr;
    size_t n_ = 0;
};

// Even seeds: random bytes; odd seeds: consecutive bytes of a real
// photograph (its luma, then its chroma), starting at a seed-chosen place.
void fill_content(uint8_t* p, size_t n, uint32_t seed);

// The luma plane of a real photograph, cut to w x h from its top left.
std::vector<uint8_t> photo_luma(int w, int h, const char* name = "pier");

}  // namespace qimra::test
