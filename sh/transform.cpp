// Spherical-harmonic transforms: each sample's basis is evaluated into a fixed local buffer,
// then scaled and added into the coefficients (forward) or dotted with them (inverse).
#include "transform.h"

#include <algorithm>
#include <cstring>

#include "basis.h"

namespace vlkr::sh {

// Samples are evaluated four at a time (the evaluation gives each direction the same values
// as alone) and then used one by one, in order.
constexpr std::size_t kBatch = 4;

void forward(const float* x, const float* y, const float* z, Channels src, std::size_t n,
             float* const coeffs[], int L, const SHContext& state) noexcept
{
    const int count = (L + 1) * (L + 1);
    alignas(16) float basis[kBatch * kMaxCoefficients];
    alignas(16) float scaled[kMaxCoefficients];
    // The sums build up in a local copy of the caller's coefficients, written back at the end.
    alignas(16) float sums[3][kMaxCoefficients];
    for (int c = 0; c < src.count; ++c)
        std::memcpy(sums[c], coeffs[c], sizeof(float) * std::size_t(count));
    for (std::size_t first = 0; first < n; first += kBatch) {
        const std::size_t batch = n - first < kBatch ? n - first : kBatch;
        evaluate(x + first, y + first, z + first, batch, basis, L, state);
        for (std::size_t j = 0; j < batch; ++j) {
            const float* b = basis + j * std::size_t(count);
            for (int c = 0; c < src.count; ++c) {
                // A value of exactly 0 or 1 is no multiplication: 0 gives zeros and 1 the basis
                // as it is, whatever the basis holds (NaN for a direction with NaN in it).
                const float v = src.value(c, first + j);
                if (v == 0.0f)
                    std::fill_n(scaled, count, 0.0f);
                else if (v == 1.0f)
                    std::copy_n(b, count, scaled);
                else
                    for (int k = 0; k < count; ++k) scaled[k] = b[k] * v;
                float* out = sums[c];
                for (int k = 0; k < count; ++k) out[k] = out[k] + scaled[k];
            }
        }
    }
    for (int c = 0; c < src.count; ++c)
        std::memcpy(coeffs[c], sums[c], sizeof(float) * std::size_t(count));
}

namespace {

// Dot product with eight interleaved partial sums, combined pairwise at the end.
float dot(const float* a, const float* b, int count)
{
    float part[8] = {};
    int k = 0;
    for (; k + 8 <= count; k += 8)
        for (int j = 0; j < 8; ++j) part[j] = part[j] + a[k + j] * b[k + j];
    for (int j = 0; k < count; ++k, ++j) part[j] = part[j] + a[k] * b[k];
    return ((part[0] + part[4]) + (part[1] + part[5])) +
           ((part[2] + part[6]) + (part[3] + part[7]));
}

}  // namespace

void inverse(const float* const coeffs[], int channels, int L, const float* x, const float* y,
             const float* z, float* const dstPlanes[], float* dstInterleaved, std::size_t n,
             const SHContext& state) noexcept
{
    const int count = (L + 1) * (L + 1);
    alignas(16) float basis[kBatch * kMaxCoefficients];
    alignas(16) float coefficients[3][kMaxCoefficients];  // the caller's, copied once
    for (int c = 0; c < channels; ++c)
        std::memcpy(coefficients[c], coeffs[c], sizeof(float) * std::size_t(count));
    for (std::size_t first = 0; first < n; first += kBatch) {
        const std::size_t batch = n - first < kBatch ? n - first : kBatch;
        evaluate(x + first, y + first, z + first, batch, basis, L, state);
        for (std::size_t j = 0; j < batch; ++j) {
            const std::size_t i = first + j;
            for (int c = 0; c < channels; ++c) {
                const float v = dot(basis + j * std::size_t(count), coefficients[c], count);
                storeUnaligned(
                    dstPlanes ? dstPlanes[c] + i : dstInterleaved + i * std::size_t(channels) + c,
                    v);
            }
        }
    }
}

}  // namespace vlkr::sh
