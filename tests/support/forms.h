// The vector forms of a kernel that this build has and this processor runs,
// named by level, for comparison with the per-pixel form (whatever
// QIMRA_ISA caps the dispatch to).
#pragma once

#include <utility>
#include <vector>

#include "simd/dispatch.h"

namespace qimra::test {

template <class Fn>
std::vector<std::pair<const char*, Fn>> vector_forms(const Forms<Fn>& forms) {
    const std::pair<Isa, Fn> all[] = {
        {Isa::neon, forms.neon}, {Isa::sse41, forms.sse41}, {Isa::avx2, forms.avx2}, {Isa::avx512, forms.avx512}};
    std::vector<std::pair<const char*, Fn>> runnable;
    for (const auto& [level, fn] : all)
        if (fn != nullptr && level <= cpu_isa()) runnable.emplace_back(isa_name(level), fn);
    return runnable;
}

}  // namespace qimra::test
