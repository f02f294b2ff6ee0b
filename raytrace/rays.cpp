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
    const float xOffset =
        float(std::int32_t(std::uint32_t(blockColumn) * std::uint32_t(blockSize.width)));
    const float yOffset =
        float(std::int32_t(std::uint32_t(blockRow) * std::uint32_t(blockSize.height)));
    const int width = packetSize.width;
    if (width <= 0) return;
    for (int j = 0; j < packetSize.height; ++j) {
        const float y = float(j) + yOffset;
        const std::size_t base = std::size_t(j) * std::size_t(width);
        for (int c = 0; c < 3; ++c) {
            float* out = dir[c] + base;
            const float rowStart = rowStep[c] * y + corner[c];
            const __m128 start = _mm_set1_ps(rowStart), step = _mm_set1_ps(columnStep[c]);
            auto one = [&](int i) { out[i] = rowStart + columnStep[c] * (float(i) + xOffset); };
            auto columns = [&](int i) {
                const __m128i index = _mm_add_epi32(_mm_set1_epi32(i), _mm_setr_epi32(0, 1, 2, 3));
                return _mm_add_ps(start, _mm_mul_ps(step, _mm_add_ps(_mm_cvtepi32_ps(index),
                                                                       _mm_set1_ps(xOffset))));
            };
            forEachRay(width, one, [&](int i) { _mm_storeu_ps(out + i, columns(i)); });
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
// Every cosine and direction element is written, lit or not.
void makeShadowRays(const float light[3], const float* factor, const float* const normal[3],
                    const float* const hitPoint[3], int* mask, float* cosine,
                    float* const shadowDir[3], int len) noexcept
{
    auto one = [&](int i) {
        cosine[i] = 0.0f;
        for (int c = 0; c < 3; ++c) shadowDir[c][i] = 0.0f;
        if (mask[i] < 0) return;
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
    };
    const __m128 lightV[3] = {_mm_set1_ps(light[0]), _mm_set1_ps(light[1]), _mm_set1_ps(light[2])};
    auto four = [&](int i) {
        const __m128i m = _mm_loadu_si128(reinterpret_cast<const __m128i*>(mask + i));
        const __m128 take = _mm_castsi128_ps(_mm_cmpgt_epi32(m, _mm_set1_epi32(-1)));
        __m128 v[3], n[3];
        for (int c = 0; c < 3; ++c) {
            v[c] = _mm_sub_ps(_mm_loadu_ps(hitPoint[c] + i), lightV[c]);
            n[c] = _mm_loadu_ps(normal[c] + i);
        }
        __m128 t = _mm_add_ps(_mm_add_ps(_mm_mul_ps(v[1], n[1]), _mm_mul_ps(v[2], n[2])),
                              _mm_mul_ps(v[0], n[0]));
        t = _mm_andnot_ps(_mm_cmplt_ps(absPs(t), _mm_set1_ps(kInPlane)), t);
        const __m128 lit = _mm_and_ps(
            take, _mm_cmpgt_ps(_mm_mul_ps(_mm_loadu_ps(factor + i), t), _mm_setzero_ps()));
        _mm_storeu_ps(cosine + i, _mm_and_ps(lit, absPs(t)));
        for (int c = 0; c < 3; ++c) _mm_storeu_ps(shadowDir[c] + i, _mm_and_ps(lit, v[c]));
        const __m128i unlit = _mm_castps_si128(_mm_andnot_ps(lit, take));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(mask + i), _mm_or_si128(m, unlit));
    };
    forEachRay(len, one, four);
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
