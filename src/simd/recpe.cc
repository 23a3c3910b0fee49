#include "simd/recpe.h"

#include <array>
#include <bit>

namespace qimra {
namespace {

// The architecture's estimate: the operand, scaled into [0.5, 1), is cut to
// units of 1/512 (q = 256..511); the reciprocal of the midpoint of that
// interval, 512 / (q + 0.5), is rounded to units of 1/256 (256..511). In
// integers: floor((floor(2^19 / (2q + 1)) + 1) / 2).
constexpr std::array<uint8_t, 256> make_fraction_table() {
    std::array<uint8_t, 256> table{};
    for (uint32_t lead = 0; lead < 256; ++lead) {
        const uint32_t q = 256 + lead;
        const uint32_t estimate = ((1u << 19) / (2 * q + 1) + 1) >> 1;
        table[lead] = static_cast<uint8_t>(estimate - 256);
    }
    return table;
}

static_assert(make_fraction_table()[0] == 255 && make_fraction_table()[255] == 0,
              "the estimate spans 511/256 down to 256/256");

constexpr uint32_t kSignBit = 0x80000000u;
constexpr uint32_t kInfinity = 0x7F800000u;
constexpr uint32_t kDefaultNaN = 0x7FC00000u;

}  // namespace

constinit const std::array<uint8_t, 256> recpe_fraction_table = make_fraction_table();

float recpe_f32(float x) {
    const uint32_t bits = std::bit_cast<uint32_t>(x);
    const uint32_t sign = bits & kSignBit;
    const uint32_t exponent = (bits >> 23) & 0xFFu;
    if (exponent == 0xFFu) {
        const bool nan = (bits & 0x007FFFFFu) != 0;
        return std::bit_cast<float>(nan ? kDefaultNaN : sign);
    }
    if (exponent == 0) return std::bit_cast<float>(sign | kInfinity);  // zero or flushed denormal
    if (exponent >= 253) return std::bit_cast<float>(sign);            // reciprocal below the normal range
    const uint32_t fraction = recpe_fraction_table[(bits >> 15) & 0xFFu];
    return std::bit_cast<float>(sign | ((253u - exponent) << 23) | (fraction << 15));
}

}  // namespace qimra
