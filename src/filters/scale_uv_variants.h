// Kernels of the exported chroma variants (4:1:0 scaler, vector self-test).
#pragma once

#include <cstdint>

namespace qimra {

// The self-test arithmetic out = 3 * (2 * in + 233) mod 256 on n bytes.
void test_asm_bytes_c(const uint8_t* in, uint8_t* out, int n);
// Whole 16-byte steps only: n must be a multiple of 16.
void test_asm_bytes_neon(const uint8_t* in, uint8_t* out, int n);

}  // namespace qimra
