#include "simd/dispatch.h"

#include <strings.h>

#include <cstdlib>

#include "engine/log.h"

namespace qimra {
namespace {

#if QIMRA_X86_FORMS
constexpr Isa kLevels[] = {Isa::c, Isa::sse41, Isa::avx2, Isa::avx512};
#elif QIMRA_HAVE_NEON
constexpr Isa kLevels[] = {Isa::c, Isa::neon};
#else
constexpr Isa kLevels[] = {Isa::c};
#endif

std::string accepted_names() {
    std::string names;
    for (const Isa level : kLevels) {
        if (!names.empty()) names += ", ";
        names += isa_name(level);
    }
    return names;
}

}  // namespace

const char* isa_name(Isa level) {
    switch (level) {
        case Isa::c: return "c";
        case Isa::neon: return "neon";
        case Isa::sse41: return "sse4.1";
        case Isa::avx2: return "avx2";
        case Isa::avx512: return "avx512";
    }
    return "?";
}

Isa cpu_isa() {
#if QIMRA_X86_FORMS
    // __builtin_cpu_supports also honours the kernel's view of the processor
    // (whether it saves the wide registers). The AVX-512 forms use the
    // foundation only.
    if (__builtin_cpu_supports("avx512f")) return Isa::avx512;
    if (__builtin_cpu_supports("avx2")) return Isa::avx2;
    return Isa::sse41;  // the build's baseline (x86-64-v2)
#elif QIMRA_HAVE_NEON
    // ARMv7 builds require NEON; elsewhere its forms run translated.
    return Isa::neon;
#else
    return Isa::c;
#endif
}

IsaChoice choose_isa(const char* requested, Isa best) {
    if (requested == nullptr || *requested == '\0') return {best, {}};
    for (const Isa level : kLevels) {
        if (strcasecmp(requested, isa_name(level)) != 0) continue;
        if (level <= best) return {level, {}};
        return {best,
                std::string("QIMRA_ISA=") + requested + " is more than this processor has; using " + isa_name(best)};
    }
    return {best, std::string("QIMRA_ISA=\"") + requested +
                      "\" is not an instruction set (accepted: " + accepted_names() + "); using " + isa_name(best)};
}

const IsaChoice& isa_choice() {
    static const IsaChoice choice = choose_isa(std::getenv("QIMRA_ISA"), cpu_isa());
    return choice;
}

void log_isa_choice() {
    const IsaChoice& choice = isa_choice();
    if (!choice.note.empty()) log_line("%s", choice.note.c_str());
    log_line("instruction set: %s", isa_name(choice.level));
}

}  // namespace qimra
