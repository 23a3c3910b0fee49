// The one place that chooses where NEON intrinsics come from: the compiler's
// own on ARM, SIMD Everywhere's exact translation elsewhere, so the same
// vector source is built and tested on both platforms. QIMRA_SCALAR_ONLY
// builds the per-pixel forms everywhere.
#pragma once

#if !defined(QIMRA_SCALAR_ONLY)
#define QIMRA_HAVE_NEON 1
#if defined(__ARM_NEON) || defined(__ARM_NEON__)
#include <arm_neon.h>
#else
#define SIMDE_ENABLE_NATIVE_ALIASES
#include <simde/arm/neon.h>
#endif
#else
#define QIMRA_HAVE_NEON 0
#endif
