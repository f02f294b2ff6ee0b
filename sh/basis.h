// Spherical-harmonic basis: the state block and the two evaluation methods.
#pragma once

#include <cstddef>

#include "vlkr.h"

namespace vlkr::sh {

constexpr unsigned kMaxBand = 15;  // both methods evaluate bands 0..15
constexpr int kMaxCoefficients = (kMaxBand + 1) * (kMaxBand + 1);

// Bytes of a state block for bands 0..maxL, or -1 when that does not fit an int.
long long stateSize(int maxL, int shType) noexcept;
void initState(SHContext* state, int maxL, int shType) noexcept;

// (L + 1)^2 values per direction for n directions, L <= 15, by the block's method.
void evaluate(const float* x, const float* y, const float* z, std::size_t n, float* dst, int L,
              const SHContext& state) noexcept;
// Band L only (2L + 1 values per direction) by the closed forms.
void evaluateBand(const float* x, const float* y, const float* z, std::size_t n, float* dst,
                  int L) noexcept;

}  // namespace vlkr::sh
