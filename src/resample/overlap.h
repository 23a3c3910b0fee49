// Whether two byte ranges meet: vector paths that load ahead of their
// stores run only when the destination does not overlap what they read.
#pragma once

#include <cstdint>

namespace qimra {

inline bool ranges_overlap(const void* a, long a_bytes, const void* b, long b_bytes) {
    const auto pa = reinterpret_cast<uintptr_t>(a);
    const auto pb = reinterpret_cast<uintptr_t>(b);
    return pa < pb + static_cast<uintptr_t>(b_bytes) && pb < pa + static_cast<uintptr_t>(a_bytes);
}

}  // namespace qimra
