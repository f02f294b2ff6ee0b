// Loop skeletons and SSE2 helpers shared by the per-ray operations.
#pragma once

#include <emmintrin.h>

#include <cstdint>

namespace vlkr::raytrace {

// Runs `four(i)` on groups of four rays and `one(i)` on the rest.
template <class One, class Four>
inline void forEachRay(int len, One one, Four four)
{
    int i = 0;
    for (; i + 4 <= len; i += 4) four(i);
    for (; i < len; ++i) one(i);
}

// As forEachRay, with the groups of four starting where `key` (an array of 4-byte elements)
// is 16-byte aligned: a scalar lead-in reaches that point, and an array that is not even
// 4-byte aligned runs scalar throughout.
template <class One, class Four>
inline void forEachRayAlignedTo(const void* key, int len, One one, Four four)
{
    const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(key);
    int i = 0;
    if (address % 4 == 0) {
        const int lead = static_cast<int>((16 - address % 16) % 16 / 4);
        for (; i < lead && i < len; ++i) one(i);
        for (; i + 4 <= len; i += 4) four(i);
    }
    for (; i < len; ++i) one(i);
}

inline __m128 loadMaskTakes(const int* mask)  // all ones where the ray takes part
{
    const __m128i m = _mm_loadu_si128(reinterpret_cast<const __m128i*>(mask));
    return _mm_castsi128_ps(_mm_cmpgt_epi32(m, _mm_set1_epi32(-1)));
}

inline __m128 selectPs(__m128 mask, __m128 a, __m128 b)
{
    return _mm_or_ps(_mm_and_ps(mask, a), _mm_andnot_ps(mask, b));
}

inline __m128 absPs(__m128 v) { return _mm_andnot_ps(_mm_set1_ps(-0.0f), v); }

}  // namespace vlkr::raytrace
