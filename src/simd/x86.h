// Which x86 vector forms this build carries. QIMRA_X86_FORMS is the one
// switch for every kernel's x86 forms: the baseline build targets SSE4.1
// (x86-64-v2), and the wider forms are compiled per function (the target
// attributes below) and chosen at run time by the dispatch, so one library
// serves every x86-64 machine with the fastest form it can execute. Per
// function rather than per file: an inline function from a shared header,
// compiled in a file built for AVX2, could be the copy the linker keeps for
// every caller.
// A wide form hands its remainder back to its caller rather than running
// SSE code itself: the compiler clears the upper register halves on return,
// and SSE code that meets them dirty runs several times slower.
#pragma once

#include "simd/neon.h"

#if defined(__x86_64__) && defined(__SSE4_1__)
#define QIMRA_X86_FORMS 1
#else
#define QIMRA_X86_FORMS 0
#endif

#define QIMRA_AVX2 __attribute__((target("avx2")))
#define QIMRA_AVX512 __attribute__((target("avx512f")))
