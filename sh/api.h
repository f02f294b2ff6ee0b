// Checked front ends of the spherical-harmonics operations.
#pragma once

#include "vlkr.h"

namespace vlkr::sh {

vlkStatus getSize(int maxL, int shType, int* pSize) noexcept;
vlkStatus init(SHContext* state, int maxL, int shType) noexcept;
vlkStatus basisAll(const float* x, const float* y, const float* z, int n, float* dst, int L,
                   const SHContext* state) noexcept;
vlkStatus basisBand(const float* x, const float* y, const float* z, int n, float* dst,
                    int L) noexcept;
vlkStatus forwardC1I(const float* x, const float* y, const float* z, const float* src, int n,
                     float* coeffs, int L, const SHContext* state) noexcept;
vlkStatus forwardC3P3I(const float* x, const float* y, const float* z, const float* src, int n,
                       float* const coeffs[3], int L, const SHContext* state) noexcept;
vlkStatus forwardP3I(const float* x, const float* y, const float* z, const float* const src[3],
                     int n, float* const coeffs[3], int L, const SHContext* state) noexcept;
vlkStatus inverseC1(const float* coeffs, int L, const float* x, const float* y, const float* z,
                    float* dst, int n, const SHContext* state) noexcept;
vlkStatus inverseP3(const float* const coeffs[3], int L, const float* x, const float* y,
                    const float* z, float* const dst[3], int n, const SHContext* state) noexcept;
vlkStatus inverseP3C3(const float* const coeffs[3], int L, const float* x, const float* y,
                      const float* z, float* dst, int n, const SHContext* state) noexcept;

}  // namespace vlkr::sh
