// Constant tables of the context, computed once at init.
#pragma once

#include "engine/ctx.h"

namespace qimra {

void fill_sigmoid_lut(uint8_t* lut);
void fill_sigmoid_float_tables(float* sig45, float* sig50p1, uint8_t* sig50p1_lut);
void fill_reciprocal_tables(int32_t* recip16_a, int32_t* recip16_b);
void fill_recip_f(float* recip_f);

}  // namespace qimra
