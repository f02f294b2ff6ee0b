// Masked per-ray shading arithmetic (arguments already checked, len > 0).
#pragma once

#include "vlkr.h"

namespace vlkr::raytrace {

void addMulMul(const float k[3], const float* factor, const float* const src[3], const int* mask,
               float* const srcDst[3], int len) noexcept;
vlkStatus divide(const float* divisor, const int* mask, float* srcDst, int len) noexcept;
void multiply(const float* factor, const int* mask, float* srcDst, int len) noexcept;
void multiplyPlanes(const float* factor, const int* mask, float* const srcDst[3], int len) noexcept;
void dot(const float* const a[3], const float* const b[3], const int* mask, float* dst,
         int len) noexcept;
void dotChangeNorm(const float* const v[3], const int* mask, float* const normal[3], float* dot,
                   int len) noexcept;
void distAttenuation(const float point[3], const float* const surface[3], const int* mask,
                     float* dist, int len) noexcept;

}  // namespace vlkr::raytrace
