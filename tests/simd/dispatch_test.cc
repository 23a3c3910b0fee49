// The level QIMRA_ISA asks for, on processors of every level, and which form
// a level picks from a kernel's forms.
#include "simd/dispatch.h"

#include <gtest/gtest.h>

#include <string>

namespace qimra::test {
namespace {

struct Case {
    const char* requested;
    Isa best;
    Isa level;
    const char* note;
};

#if QIMRA_X86_FORMS
const Case kCases[] = {
    {nullptr, Isa::avx512, Isa::avx512, ""},
    {"", Isa::avx2, Isa::avx2, ""},
    {"c", Isa::avx512, Isa::c, ""},
    {"sse4.1", Isa::avx512, Isa::sse41, ""},
    {"AVX2", Isa::avx512, Isa::avx2, ""},
    {"avx512", Isa::avx512, Isa::avx512, ""},
    {"avx512", Isa::sse41, Isa::sse41, "QIMRA_ISA=avx512 is more than this processor has; using sse4.1"},
    {"avx2", Isa::sse41, Isa::sse41, "QIMRA_ISA=avx2 is more than this processor has; using sse4.1"},
    {"neon", Isa::avx2, Isa::avx2,
     "QIMRA_ISA=\"neon\" is not an instruction set (accepted: c, sse4.1, avx2, avx512); using avx2"},
    {"sse41", Isa::avx512, Isa::avx512,
     "QIMRA_ISA=\"sse41\" is not an instruction set (accepted: c, sse4.1, avx2, avx512); using avx512"},
};
#else
const Case kCases[] = {
    {nullptr, Isa::neon, Isa::neon, ""},
    {"c", Isa::neon, Isa::c, ""},
    {"NEON", Isa::neon, Isa::neon, ""},
    {"neon", Isa::c, Isa::c, "QIMRA_ISA=neon is more than this processor has; using c"},
    {"avx2", Isa::neon, Isa::neon, "QIMRA_ISA=\"avx2\" is not an instruction set (accepted: c, neon); using neon"},
};
#endif

TEST(Dispatch, RequestedLevelIsCappedAndUnknownValuesAreNamed) {
    for (const Case& c : kCases) {
        const IsaChoice choice = choose_isa(c.requested, c.best);
        const std::string label = c.requested != nullptr ? c.requested : "(unset)";
        EXPECT_EQ(choice.level, c.level) << label << " on " << isa_name(c.best);
        EXPECT_EQ(choice.note, c.note) << label << " on " << isa_name(c.best);
    }
}

int form_c() { return 0; }
int form_neon() { return 1; }
int form_avx2() { return 3; }

TEST(Dispatch, LevelPicksTheHighestFormAtOrBelowIt) {
    // A kernel with NEON and AVX2 forms only: SSE4.1 falls back to the NEON
    // form, AVX-512 to the AVX2 one.
    const Forms<int (*)()> forms{.c = form_c, .neon = form_neon, .avx2 = form_avx2};
    const std::pair<Isa, int> expected[] = {
        {Isa::c, 0}, {Isa::neon, 1}, {Isa::sse41, 1}, {Isa::avx2, 3}, {Isa::avx512, 3}};
    for (const auto& [level, form] : expected) EXPECT_EQ(select_form(forms, level)(), form) << isa_name(level);
    EXPECT_EQ(select_form(Forms<int (*)()>{.neon = form_neon}, Isa::c), nullptr);
}

}  // namespace
}  // namespace qimra::test
