// Masked per-ray shading arithmetic (arguments already checked, len > 0).
#pragma once

#include "frame/lanes.h"
#include "vlkr.h"

namespace vlkr::raytrace {

using lanes::Three;

void addMulMul(Three<float> k, const float* factor, Three<const float*> src, const int* mask,
               Three<float*> srcDst, int len) noexcept;
vlkStatus divide(const float* divisor, const int* mask, float* srcDst, int len) noexcept;
void multiply(const float* factor, const int* mask, float* srcDst, int len) noexcept;
void multiplyPlanes(const float* factor, const int* mask, Three<float*> srcDst, int len) noexcept;
void dot(Three<const float*> a, Three<const float*> b, const int* mask, float* dst,
         int len) noexcept;
void dotChangeNorm(Three<const float*> v, const int* mask, Three<float*> normal, float* dot,
                   int len) noexcept;
void distAttenuation(Three<float> point, Three<const float*> surface, const int* mask, float* dist,
                     int len) noexcept;

}  // namespace vlkr::raytrace
