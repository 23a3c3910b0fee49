// QIMRA_ARM_FORMS is the one switch for the forms written for 32-bit ARM
// itself rather than through NEON intrinsics: hand-scheduled Thumb-2 loops
// for the stages NEON cannot vectorise (table look-ups without a gather).
// They are compiled only where they run and rank at the NEON level of the
// dispatch (simd/dispatch.h), so QIMRA_ISA=c still runs the per-pixel forms.
#pragma once

// Little-endian only: the forms take pixels out of words by byte position.
#if defined(__arm__) && defined(__ARMEL__) && defined(__ARM_ARCH_ISA_THUMB) && __ARM_ARCH_ISA_THUMB >= 2 && \
    defined(__ARM_ARCH) && __ARM_ARCH >= 7
#define QIMRA_ARM_FORMS 1
#define QIMRA_ARM_FORM(fn) fn
#else
#define QIMRA_ARM_FORMS 0
#define QIMRA_ARM_FORM(fn) nullptr
#endif
