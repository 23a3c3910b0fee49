// The fuzzer's input read front to back: numbers from its first bytes,
// then image content from what is left (zeros when nothing is).
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace qimra::fuzz {

class Bytes {
public:
    Bytes(const uint8_t* d, size_t n) : d_(d), n_(n) {}
    bool empty() const { return n_ == 0; }
    uint8_t u8() { return n_ ? (--n_, *d_++) : 0; }
    int u16() { return u8() | u8() << 8; }

    // `n` bytes of content: the input's remaining bytes, repeated; a ramp
    // when none are left. Reads nothing.
    void fill(uint8_t* p, size_t n) const {
        if (n_ == 0) {
            for (size_t i = 0; i < n; ++i) p[i] = static_cast<uint8_t>(i * 31);
            return;
        }
        for (size_t done = 0; done < n;) {
            const size_t k = std::min(n - done, n_);
            std::memcpy(p + done, d_, k);
            done += k;
        }
    }
    std::vector<uint8_t> buf(size_t n) const {
        std::vector<uint8_t> v(n);
        fill(v.data(), n);
        return v;
    }

private:
    const uint8_t* d_;
    size_t n_;
};

}  // namespace qimra::fuzz
