// The one place that decides which form of every kernel runs. The level is
// decided once per process from what the processor has, capped by the
// environment variable QIMRA_ISA so that tests (and users chasing a
// difference) can run every lower level on one machine. Kernels keep a
// function pointer chosen from their forms by select_form(); forms this
// build cannot compile are left out with QIMRA_NEON_FORM / QIMRA_X86_FORM.
#pragma once

#include <cstdint>
#include <string>

#include "simd/neon.h"
#include "simd/x86.h"

namespace qimra {

// Ordered: a level runs every form at or below it. On x86-64 the NEON forms
// (translated by SIMD Everywhere into SSE4.1) rank below the native SSE4.1
// ones, so they serve every x86 vector level a kernel has no native form for.
enum class Isa : uint8_t { c, neon, sse41, avx2, avx512 };

// "c", "neon", "sse4.1", "avx2", "avx512": the names QIMRA_ISA accepts.
const char* isa_name(Isa level);

// The best level this processor runs, whatever QIMRA_ISA says.
Isa cpu_isa();

// The outcome of a QIMRA_ISA value: the level to use and, when the value was
// lowered or not understood, the line that says so (empty otherwise).
struct IsaChoice {
    Isa level;
    std::string note;
};

// The level for `requested` (QIMRA_ISA's value, null or empty when unset) on
// a processor whose best level is `best`.
IsaChoice choose_isa(const char* requested, Isa best);

// The process's choice: decided on first use, then fixed.
const IsaChoice& isa_choice();
inline Isa active_isa() { return isa_choice().level; }

// Logs the choice on the engine's log (see qimra_init).
void log_isa_choice();

// A kernel's forms by level; a null entry is a form the kernel (or this
// build) does not have.
template <class Fn>
struct Forms {
    Fn c = nullptr;
    Fn neon = nullptr;
    Fn sse41 = nullptr;
    Fn avx2 = nullptr;
    Fn avx512 = nullptr;
};

// The highest form at or below `level`; for kernels whose vector forms do a
// leading part of the work, a null result means the per-pixel form does it all.
template <class Fn>
Fn select_form(const Forms<Fn>& forms, Isa level = active_isa()) {
    if (level >= Isa::avx512 && forms.avx512 != nullptr) return forms.avx512;
    if (level >= Isa::avx2 && forms.avx2 != nullptr) return forms.avx2;
    if (level >= Isa::sse41 && forms.sse41 != nullptr) return forms.sse41;
    if (level >= Isa::neon && forms.neon != nullptr) return forms.neon;
    return forms.c;
}

}  // namespace qimra

#if QIMRA_HAVE_NEON
#define QIMRA_NEON_FORM(fn) fn
#else
#define QIMRA_NEON_FORM(fn) nullptr
#endif

#if QIMRA_X86_FORMS
#define QIMRA_X86_FORM(fn) fn
#else
#define QIMRA_X86_FORM(fn) nullptr
#endif
