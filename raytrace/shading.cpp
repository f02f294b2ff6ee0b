// Masked per-ray shading arithmetic: accumulate, divide, multiply, dot products, normal
// flipping and distance attenuation. Each scalar form below is the definition; the four-ray
// SSE2 bodies repeat it operation for operation.
#include "shading.h"

#include <cmath>
#include <cstring>

#include "ray_loops.h"

namespace vlkr::raytrace {
namespace {

constexpr std::uint32_t kDivZeroNaN = 0xFFC00000u;  // 0 / 0 and NaN / 0 give this quiet NaN

float divZeroNaN()
{
    float f;
    std::memcpy(&f, &kDivZeroNaN, 4);
    return f;
}

}  // namespace

void addMulMul(const float k[3], const float* s, const float* const a[3], const int* mask,
               float* const d[3], int len) noexcept
{
    auto one = [&](int i) {
        if (mask[i] < 0) return;
        for (int c = 0; c < 3; ++c) d[c][i] += a[c][i] * k[c] * s[i];
    };
    const __m128 kv[3] = {_mm_set1_ps(k[0]), _mm_set1_ps(k[1]), _mm_set1_ps(k[2])};
    // Passed-over rays add +0.0 here, which turns a -0.0 destination into +0.0.
    auto four = [&](int i) {
        const __m128 take = loadMaskTakes(mask + i);
        const __m128 sv = _mm_load_ps(s + i);
        for (int c = 0; c < 3; ++c) {
            const __m128 term = _mm_mul_ps(_mm_mul_ps(_mm_loadu_ps(a[c] + i), kv[c]), sv);
            _mm_storeu_ps(d[c] + i, _mm_add_ps(_mm_loadu_ps(d[c] + i), _mm_and_ps(take, term)));
        }
    };
    forEachRayAlignedTo(s, len, one, four);
}

vlkStatus divide(const float* q, const int* mask, float* d, int len) noexcept
{
    int zeroDivisors = 0;
    auto one = [&](int i) {
        if (mask[i] < 0) {
            d[i] = 0.0f;
        } else if (q[i] != 0.0f) {
            d[i] = d[i] / q[i];
        } else {
            ++zeroDivisors;
            d[i] = d[i] > 0.0f ? INFINITY : d[i] < 0.0f ? -INFINITY : divZeroNaN();
        }
    };
    const __m128 zero = _mm_setzero_ps();
    auto four = [&](int i) {
        const __m128 take = loadMaskTakes(mask + i);
        const __m128 qv = _mm_loadu_ps(q + i), dv = _mm_loadu_ps(d + i);
        const __m128 byZero = _mm_and_ps(take, _mm_cmpeq_ps(qv, zero));
        const __m128 special = selectPs(_mm_cmpgt_ps(dv, zero), _mm_set1_ps(INFINITY),
                                        selectPs(_mm_cmplt_ps(dv, zero), _mm_set1_ps(-INFINITY),
                                                 _mm_set1_ps(divZeroNaN())));
        const __m128 result = selectPs(byZero, special, _mm_div_ps(dv, qv));
        _mm_storeu_ps(d + i, _mm_and_ps(take, result));
        zeroDivisors += _mm_movemask_ps(byZero);
    };
    forEachRay(len, one, four);
    return zeroDivisors ? vlkStatusDivByZero : vlkStatusOk;
}

// Passed-over rays are multiplied by 0.0 rather than cleared, so an infinite or NaN product
// becomes NaN and a negative one -0.0. Kept on purpose.
void multiply(const float* f, const int* mask, float* d, int len) noexcept
{
    auto one = [&](int i) { d[i] = d[i] * f[i] * (mask[i] < 0 ? 0.0f : 1.0f); };
    auto four = [&](int i) {
        const __m128 factor = _mm_and_ps(loadMaskTakes(mask + i), _mm_set1_ps(1.0f));
        _mm_store_ps(d + i, _mm_mul_ps(_mm_mul_ps(_mm_load_ps(d + i), _mm_loadu_ps(f + i)), factor));
    };
    forEachRayAlignedTo(d, len, one, four);
}

void multiplyPlanes(const float* f, const int* mask, float* const d[3], int len) noexcept
{
    auto one = [&](int i) {
        const float factor = mask[i] < 0 ? 0.0f : 1.0f;
        for (int c = 0; c < 3; ++c) d[c][i] = d[c][i] * f[i] * factor;
    };
    auto four = [&](int i) {
        const __m128 factor = _mm_and_ps(loadMaskTakes(mask + i), _mm_set1_ps(1.0f));
        const __m128 fv = _mm_load_ps(f + i);
        for (int c = 0; c < 3; ++c)
            _mm_storeu_ps(d[c] + i, _mm_mul_ps(_mm_mul_ps(_mm_loadu_ps(d[c] + i), fv), factor));
    };
    forEachRayAlignedTo(f, len, one, four);
}

void dot(const float* const a[3], const float* const b[3], const int* mask, float* r,
         int len) noexcept
{
    auto one = [&](int i) {
        r[i] = mask[i] < 0 ? 0.0f : (a[0][i] * b[0][i] + a[1][i] * b[1][i]) + a[2][i] * b[2][i];
    };
    auto four = [&](int i) {
        __m128 sum = _mm_add_ps(_mm_mul_ps(_mm_loadu_ps(a[0] + i), _mm_loadu_ps(b[0] + i)),
                                _mm_mul_ps(_mm_loadu_ps(a[1] + i), _mm_loadu_ps(b[1] + i)));
        sum = _mm_add_ps(sum, _mm_mul_ps(_mm_loadu_ps(a[2] + i), _mm_loadu_ps(b[2] + i)));
        _mm_storeu_ps(r + i, _mm_and_ps(loadMaskTakes(mask + i), sum));
    };
    forEachRay(len, one, four);
}

// Turns each taking ray's normal against v, so that afterwards v . n <= 0 and r = -|v . n|.
void dotChangeNorm(const float* const v[3], const int* mask, float* const n[3], float* r,
                   int len) noexcept
{
    auto one = [&](int i) {
        if (mask[i] < 0) {
            r[i] = 0.0f;
            return;
        }
        const float t = v[0][i] * n[0][i] + v[1][i] * n[1][i] + v[2][i] * n[2][i];
        const float sigma = t > 0.0f ? -1.0f : 1.0f;  // NaN keeps the normal as it is
        for (int c = 0; c < 3; ++c) n[c][i] = n[c][i] * sigma;
        r[i] = t * sigma;
    };
    auto four = [&](int i) {
        const __m128 take = loadMaskTakes(mask + i);
        __m128 nv[3], t = _mm_setzero_ps();
        for (int c = 0; c < 3; ++c) {
            nv[c] = _mm_loadu_ps(n[c] + i);
            const __m128 term = _mm_mul_ps(_mm_loadu_ps(v[c] + i), nv[c]);
            t = c == 0 ? term : _mm_add_ps(t, term);
        }
        const __m128 sigma =
            selectPs(_mm_cmpgt_ps(t, _mm_setzero_ps()), _mm_set1_ps(-1.0f), _mm_set1_ps(1.0f));
        for (int c = 0; c < 3; ++c)
            _mm_storeu_ps(n[c] + i, selectPs(take, _mm_mul_ps(nv[c], sigma), nv[c]));
        _mm_storeu_ps(r + i, _mm_and_ps(take, _mm_mul_ps(t, sigma)));
    };
    forEachRay(len, one, four);
}

// Distance from p, clamped below at 1 so that callers may divide by it; passed over: 1.
void distAttenuation(const float p[3], const float* const h[3], const int* mask, float* r,
                     int len) noexcept
{
    auto one = [&](int i) {
        if (mask[i] < 0) {
            r[i] = 1.0f;
            return;
        }
        const float x = h[0][i] - p[0], y = h[1][i] - p[1], z = h[2][i] - p[2];
        const float e = (x * x + y * y) + z * z;
        r[i] = e < 1.0f ? 1.0f : std::sqrt(e);
    };
    const __m128 pv[3] = {_mm_set1_ps(p[0]), _mm_set1_ps(p[1]), _mm_set1_ps(p[2])};
    const __m128 unit = _mm_set1_ps(1.0f);
    auto four = [&](int i) {
        __m128 e = _mm_setzero_ps();
        for (int c = 0; c < 3; ++c) {
            const __m128 delta = _mm_sub_ps(_mm_loadu_ps(h[c] + i), pv[c]);
            const __m128 sq = _mm_mul_ps(delta, delta);
            e = c == 0 ? sq : _mm_add_ps(e, sq);
        }
        const __m128 near = _mm_or_ps(_mm_cmplt_ps(e, unit), _mm_andnot_ps(loadMaskTakes(mask + i),
                                                                          _mm_castsi128_ps(_mm_set1_epi32(-1))));
        _mm_storeu_ps(r + i, selectPs(near, unit, _mm_sqrt_ps(e)));
    };
    forEachRay(len, one, four);
}

}  // namespace vlkr::raytrace
