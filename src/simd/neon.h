// The one place that chooses where NEON intrinsics come from: the compiler's
// own on ARM, SIMD Everywhere's exact translation elsewhere, so the same
// vector source is built and tested on both platforms. Without either, the
// NEON forms are left out of the build (QIMRA_HAVE_NEON 0).
#pragma once

#if defined(__ARM_NEON) || defined(__ARM_NEON__)
#define QIMRA_HAVE_NEON 1
#include <arm_neon.h>
#elif __has_include(<simde/arm/neon.h>)
#define QIMRA_HAVE_NEON 1
#define SIMDE_ENABLE_NATIVE_ALIASES
#include <simde/arm/neon.h>
#else
#define QIMRA_HAVE_NEON 0
#endif
