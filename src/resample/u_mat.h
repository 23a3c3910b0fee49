// The matrix resize: nearest, bilinear and area interpolation of one 8-bit
// channel. The records (u_mat, zent_Size, DecimateAlpha) and the exported
// entry points are in the public header; these are the internals that the
// dispatch, the linear and the area files share.
#pragma once

#include <cstdint>

#include "qimra/qimra.h"

namespace qimra {

// Floor and ceiling through round_Double2Int: the remainder is judged in
// single precision, so a value a float-rounding below an integer counts as
// that integer.
int floor_Double2Int(double v);
int ceil_Double2Int(double v);

// Fixed point of the linear coefficients: 2048 = 1.0.
constexpr int kLinearOne = 2048;

// Vertical blend of two buffered rows into destination pixels x_begin ..
// width - 1 (b0, b1: the row pair's weights).
void vresizeLinear_c(const int* row0, const int* row1, uint8_t* dst, int b0, int b1, int x_begin, int width);

// Rounded mean of 2 x 2 blocks (halves upward) for destination pixels
// x_begin .. w - 1 of one channel; s0, s1 are two source rows.
void area_mean_2x2_c(const uint8_t* s0, const uint8_t* s1, uint8_t* dst, int x_begin, int w);

// The same in blocks of 16 pixels; return the pixels done.
int vresizeLinear_neon(const int* row0, const int* row1, uint8_t* dst, int b0, int b1, int width);
int area_mean_2x2_neon(const uint8_t* s0, const uint8_t* s1, uint8_t* dst, int w);

}  // namespace qimra
