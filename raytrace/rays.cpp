// Ray generation and hit points: eye rays of a pixel block, mirror reflections, shadow rays
// with the same-side test, and hit points pulled back along the ray.
#include "rays.h"

#include <cstdint>

#include "ray_loops.h"

namespace vlkr::raytrace {
namespace {

// Below this the light lies in the surface plane as far as the shadow test is concerned.
constexpr float kInPlane = 0.0017453292f;

}  // namespace

void makeEyeRays(const float corner[3], const float columnStep[3], const float rowStep[3],
             int blockColumn, int blockRow, PacketSize blockSize, float* const dir[3],
             PacketSize packetSize) noexcept
{
    // The block offsets are 32-bit products (wrapping like the integers they are), then floats.
    const float xOffset = float(std::int32_t(std::uint32_t(blockColumn) * std::uint32_t(blockSize.width)));
    const float yOffset = float(std::int32_t(std::uint32_t(blockRow) * std::uint32_t(blockSize.height)));
    const int width = packetSize.width;
    if (width <= 0) return;
    for (int j = 0; j < packetSize.height; ++j) {
        const float y = float(j) + yOffset;
        float rowStart[3];
        for (int c = 0; c < 3; ++c) rowStart[c] = rowStep[c] * y + corner[c];
        const std::size_t base = std::size_t(j) * std::size_t(width);
        for (int c = 0; c < 3; ++c) {
            float* out = dir[c] + base;
            const __m128 start = _mm_set1_ps(rowStart[c]), step = _mm_set1_ps(columnStep[c]);
            auto one = [&](int i) { out[i] = rowStart[c] + columnStep[c] * (float(i) + xOffset); };
            auto four = [&](int i) {
                const __m128 x = _mm_add_ps(_mm_cvtepi32_ps(_mm_add_epi32(_mm_set1_epi32(i),
                                                                           _mm_setr_epi32(0, 1, 2, 3))),
                                            _mm_set1_ps(xOffset));
                _mm_storeu_ps(out + i, _mm_add_ps(start, _mm_mul_ps(step, x)));
            };
            forEachRay(width, one, four);
        }
    }
}

void reflectRays(const float* const incident[3], const int* mask,
                    const float* const normal[3], float* const reflected[3], int len) noexcept
{
    auto one = [&](int i) {
        if (mask[i] < 0) {
            for (int c = 0; c < 3; ++c) reflected[c][i] = 0.0f;
            return;
        }
        const float* d[3] = {incident[0] + i, incident[1] + i, incident[2] + i};
        const float* n[3] = {normal[0] + i, normal[1] + i, normal[2] + i};
        const float t = (*d[1] * *n[1] + *d[2] * *n[2]) + *n[0] * *d[0];
        const float t2 = t + t;
        for (int c = 0; c < 3; ++c) reflected[c][i] = *d[c] - *n[c] * t2;
    };
    auto four = [&](int i) {
        const __m128 take = loadMaskTakes(mask + i);
        __m128 d[3], n[3];
        for (int c = 0; c < 3; ++c) {
            d[c] = _mm_loadu_ps(incident[c] + i);
            n[c] = _mm_loadu_ps(normal[c] + i);
        }
        const __m128 t = _mm_add_ps(_mm_add_ps(_mm_mul_ps(d[1], n[1]), _mm_mul_ps(d[2], n[2])),
                                    _mm_mul_ps(n[0], d[0]));
        const __m128 t2 = _mm_add_ps(t, t);
        for (int c = 0; c < 3; ++c)
            _mm_storeu_ps(reflected[c] + i, _mm_and_ps(take, _mm_sub_ps(d[c], _mm_mul_ps(n[c], t2))));
    };
    forEachRay(len, one, four);
}

// Lit rays get the light-to-point vector and the cosine numerator |n . v|; the others a
// mask of -1 and zeros. The factor's sign says on which side of the surface the eye is.
void makeShadowRays(const float light[3], const float* factor, const float* const normal[3],
                const float* const hitPoint[3], int* mask, float* cosine,
                float* const shadowDir[3], int len) noexcept
{
    for (int i = 0; i < len; ++i) cosine[i] = 0.0f;
    for (int i = 0; i < len; ++i) {
        for (int c = 0; c < 3; ++c) shadowDir[c][i] = 0.0f;
        if (mask[i] < 0) continue;
        float v[3];
        for (int c = 0; c < 3; ++c) v[c] = hitPoint[c][i] - light[c];
        float t = (v[1] * normal[1][i] + v[2] * normal[2][i]) + v[0] * normal[0][i];
        if ((t < 0.0f ? -t : t) < kInPlane) t = 0.0f;
        if (factor[i] * t > 0.0f) {
            cosine[i] = t < 0.0f ? -t : t;
            for (int c = 0; c < 3; ++c) shadowDir[c][i] = v[c];
        } else {
            mask[i] = -1;
        }
    }
}

void makeHitPoints(const float* shared, const float* const perRay[3], const float* const dir[3],
               const float* dist, const int* mask, float* const hitPoint[3], int len,
               float eps) noexcept
{
    auto origin = [&](int c, int i) { return shared ? shared[c] : perRay[c][i]; };
    auto one = [&](int i) {
        for (int c = 0; c < 3; ++c)
            hitPoint[c][i] = mask[i] < 0 ? 0.0f : origin(c, i) + (dir[c][i] * eps) * dist[i];
    };
    const __m128 e = _mm_set1_ps(eps);
    auto four = [&](int i) {
        const __m128 take = loadMaskTakes(mask + i);
        const __m128 t = _mm_loadu_ps(dist + i);
        for (int c = 0; c < 3; ++c) {
            const __m128 o = shared ? _mm_set1_ps(shared[c]) : _mm_loadu_ps(perRay[c] + i);
            const __m128 p = _mm_add_ps(o, _mm_mul_ps(_mm_mul_ps(_mm_loadu_ps(dir[c] + i), e), t));
            _mm_storeu_ps(hitPoint[c] + i, _mm_and_ps(take, p));
        }
    };
    forEachRay(len, one, four);
}

}  // namespace vlkr::raytrace
