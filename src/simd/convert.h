// Float-to-integer conversions with the processor's saturating semantics,
// written out so that x86-64 and ARM give the same bits (a plain C++ cast of
// an out-of-range float is undefined and differs between the two).
#pragma once

#include <cmath>
#include <cstdint>

namespace qimra {

// Truncate toward zero into 0..2^32-1: negative values and NaN give 0,
// values at or above 2^32 give 2^32-1 (ARM VCVT.U32.F32).
inline uint32_t sat_u32_from_float(float v) {
    if (!(v > 0.0f)) return 0;  // also NaN
    if (v >= 4294967296.0f) return 0xFFFFFFFFu;
    return static_cast<uint32_t>(v);
}

inline uint32_t sat_u32_from_double(double v) {
    if (!(v > 0.0)) return 0;
    if (v >= 4294967296.0) return 0xFFFFFFFFu;
    return static_cast<uint32_t>(v);
}

// Truncate toward zero into int32, saturating; NaN gives 0 (ARM VCVT.S32.F32).
inline int32_t sat_i32_from_float(float v) {
    if (std::isnan(v)) return 0;
    if (v >= 2147483648.0f) return INT32_MAX;
    if (v <= -2147483648.0f) return INT32_MIN;
    return static_cast<int32_t>(v);
}

inline int32_t sat_i32_from_double(double v) {
    if (std::isnan(v)) return 0;
    if (v >= 2147483648.0) return INT32_MAX;
    if (v <= -2147483648.0) return INT32_MIN;
    return static_cast<int32_t>(v);
}

// A byte table keeps the low eight bits of the saturated unsigned result.
inline uint8_t low_byte_of_u32(float v) { return static_cast<uint8_t>(sat_u32_from_float(v)); }

}  // namespace qimra
