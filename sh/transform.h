// Spherical-harmonic transforms: projection of samples and reconstruction from coefficients.
#pragma once

#include <cstddef>

#include "frame/unaligned.h"
#include "vlkr.h"

namespace vlkr::sh {

// Where the channel values of sample i are: value(c, i).
struct Channels {
    const float* interleaved = nullptr;  // C1 (one channel) or C3 layout
    const float* const* planes = nullptr;
    int count = 1;
    float value(int c, std::size_t i) const
    {
        return loadUnaligned(planes ? planes[c] + i
                                    : interleaved + i * std::size_t(count) + std::size_t(c));
    }
};

// coeffs[c] += sum over samples of value(c, i) * basis(direction i), channel by channel.
void forward(const float* x, const float* y, const float* z, Channels src, std::size_t n,
             float* const coeffs[], int L, const SHContext& state) noexcept;

// dst(c, i) = basis(direction i) . coeffs[c]; written to planes or interleaved.
void inverse(const float* const coeffs[], int channels, int L, const float* x, const float* y,
             const float* z, float* const dstPlanes[], float* dstInterleaved, std::size_t n,
             const SHContext& state) noexcept;

}  // namespace vlkr::sh
