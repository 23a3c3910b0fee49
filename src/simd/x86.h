// Which x86 vector forms this build carries and which the processor runs.
// QIMRA_X86_FORMS is the one switch for every kernel's x86 forms: the
// baseline build targets SSE4.1 (x86-64-v2), and the wider forms are
// compiled per function (target attributes) and chosen at run time, so one
// library serves every x86-64 machine with the fastest form it can execute.
// A wide form hands its remainder back to its caller rather than running
// SSE code itself: the compiler clears the upper register halves on return,
// and SSE code that meets them dirty runs several times slower.
#pragma once

#include "simd/neon.h"

#if QIMRA_HAVE_NEON && defined(__x86_64__) && defined(__SSE4_1__)
#define QIMRA_X86_FORMS 1
#else
#define QIMRA_X86_FORMS 0
#endif

namespace qimra {

#if QIMRA_X86_FORMS
// Asked once; __builtin_cpu_supports also honours the kernel's view of the
// processor (XSAVE state for the wide registers).
inline bool cpu_has_avx2() {
    static const bool has = __builtin_cpu_supports("avx2") != 0;
    return has;
}
// The AVX-512 foundation: 16-lane forms, unsigned conversions, narrowing
// moves.
inline bool cpu_has_avx512f() {
    static const bool has = __builtin_cpu_supports("avx512f") != 0;
    return has;
}
#else
inline bool cpu_has_avx2() { return false; }
inline bool cpu_has_avx512f() { return false; }
#endif

}  // namespace qimra
