// Masked per-ray shading arithmetic (arguments already checked, len > 0).
#pragma once

#include "vlkr.h"

namespace vlkr::raytrace {

void addMulMul(const float k[3], const float* s, const float* const a[3], const int* mask,
               float* const d[3], int len) noexcept;
vlkStatus divide(const float* q, const int* mask, float* d, int len) noexcept;
void multiply(const float* f, const int* mask, float* d, int len) noexcept;
void multiplyPlanes(const float* f, const int* mask, float* const d[3], int len) noexcept;
void dot(const float* const a[3], const float* const b[3], const int* mask, float* r,
         int len) noexcept;
void dotChangeNorm(const float* const v[3], const int* mask, float* const n[3], float* r,
                   int len) noexcept;
void distAttenuation(const float p[3], const float* const h[3], const int* mask, float* r,
                     int len) noexcept;

}  // namespace vlkr::raytrace
