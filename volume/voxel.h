// VoxelTraits<T>: how each voxel type is read into float arithmetic and written back, four
// lanes at a time, with the rounding bias and saturation of the integer types.
#pragma once

#include <emmintrin.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

#include "frame/unaligned.h"

namespace vlkr::volume {

// Float to integer voxel: truncate(v + kStoreBias) in double, saturated to the type.
constexpr double kStoreBias = 0.5000001;

// One value to a voxel: floats as they are, integers truncate(v + kStoreBias) saturated.
template <class T>
inline T roundToVoxel(double v)
{
    if constexpr (std::is_same_v<T, float>) {
        return float(v);
    } else {
        // Saturate before truncating, so one int conversion does it (SSE2 has no trunc);
        // the selects become maxsd and minsd, and NaN becomes 0.
        constexpr double kMax = std::numeric_limits<T>::max();
        double r = v + kStoreBias;
        r = r > 0.0 ? r : 0.0;
        r = r < kMax ? r : kMax;
        return T(int(r));
    }
}

// Voxel x of a row as the sampler's arithmetic type (float or double), exactly.
template <class Real, class T>
inline Real voxelAs(const T* row, int x)
{
    return Real(loadUnaligned(row + x));
}

// The integer voxel types share one rounding, truncate(double(v) + kStoreBias) saturated,
// done here in float: the whole part plus one when the fraction reaches kRoundUpFraction,
// the smallest float f with double(f) + kStoreBias >= 1. No float lies close enough to a
// rounding edge for the double sum's own rounding to matter, so the results are the same
// for every float (the tests sweep the floats around every half up to 65535.5).
constexpr float kRoundUpFraction = 0.49999991059303284f;

inline __m128i roundToRange(__m128 v, float maxValue)
{
    const __m128 clamped = _mm_min_ps(_mm_max_ps(v, _mm_setzero_ps()), _mm_set1_ps(maxValue));
    const __m128i whole = _mm_cvttps_epi32(clamped);
    const __m128 fraction = _mm_sub_ps(clamped, _mm_cvtepi32_ps(whole));
    const __m128 up = _mm_cmpge_ps(fraction, _mm_set1_ps(kRoundUpFraction));
    return _mm_sub_epi32(whole, _mm_castps_si128(up));  // all ones is -1
}

template <class T>
struct VoxelTraits;

template <>
struct VoxelTraits<std::uint8_t> {
    static float load(const std::uint8_t* p) { return float(*p); }
    static __m128 load4(const std::uint8_t* p)
    {
        std::int32_t bytes;
        std::memcpy(&bytes, p, 4);
        const __m128i zero = _mm_setzero_si128();
        const __m128i b = _mm_unpacklo_epi8(_mm_cvtsi32_si128(bytes), zero);
        return _mm_cvtepi32_ps(_mm_unpacklo_epi16(b, zero));
    }
    static __m128 gather4(const std::uint8_t* row, const int* i)
    {
        return _mm_cvtepi32_ps(_mm_setr_epi32(row[i[0]], row[i[1]], row[i[2]], row[i[3]]));
    }
    static void store4(std::uint8_t* p, __m128 v) { storeInts4(p, roundToRange(v, 255.0f)); }
    // Four 32-bit integers, saturated to bytes.
    static void storeInts4(std::uint8_t* p, __m128i i)
    {
        const __m128i b = _mm_packus_epi16(_mm_packs_epi32(i, i), _mm_setzero_si128());
        const std::uint32_t bytes = std::uint32_t(_mm_cvtsi128_si32(b));
        std::memcpy(p, &bytes, 4);
    }
};

template <>
struct VoxelTraits<std::uint16_t> {
    static float load(const std::uint16_t* p) { return float(loadUnaligned(p)); }
    static __m128 load4(const std::uint16_t* p)
    {
        const __m128i h = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
        return _mm_cvtepi32_ps(_mm_unpacklo_epi16(h, _mm_setzero_si128()));
    }
    static __m128 gather4(const std::uint16_t* row, const int* i)
    {
        return _mm_cvtepi32_ps(_mm_setr_epi32(loadUnaligned(row + i[0]), loadUnaligned(row + i[1]),
                                              loadUnaligned(row + i[2]),
                                              loadUnaligned(row + i[3])));
    }
    static void store4(std::uint16_t* p, __m128 v)
    {
        // No unsigned 32-to-16 pack in SSE2: shift into the signed range and back.
        const __m128i offset = _mm_set1_epi32(32768);
        const __m128i i = _mm_sub_epi32(roundToRange(v, 65535.0f), offset);
        const __m128i h = _mm_xor_si128(_mm_packs_epi32(i, i), _mm_set1_epi16(-32768));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(p), h);
    }
};

template <>
struct VoxelTraits<float> {
    static float load(const float* p) { return loadUnaligned(p); }
    static __m128 load4(const float* p) { return _mm_loadu_ps(p); }
    static __m128 gather4(const float* row, const int* i)
    {
        return _mm_setr_ps(loadUnaligned(row + i[0]), loadUnaligned(row + i[1]),
                           loadUnaligned(row + i[2]), loadUnaligned(row + i[3]));
    }
    static void store4(float* p, __m128 v) { _mm_storeu_ps(p, v); }  // as is, no clamping
};

// Four voxels row[index[0..3]] as floats: one load when the indices run consecutively,
// else a gather.
template <class T>
inline __m128 loadTaps4(const T* row, const int index[4])
{
    const bool consecutive = index[3] - index[0] == 3;
    return consecutive ? VoxelTraits<T>::load4(row + index[0])
                       : VoxelTraits<T>::gather4(row, index);
}

// Access to a run of four lanes. FullLanes moves four elements; PartialLanes moves the
// first `count` through a small local block, so a row's tail runs the same arithmetic as
// its body without touching memory past the row's end.
struct FullLanes {
    static constexpr int count = 4;
    template <class T>
    static __m128 load(const T* p)
    {
        return VoxelTraits<T>::load4(p);
    }
    // Voxels row[index[i]] as floats.
    template <class T>
    static __m128 gather(const T* row, const int* index)
    {
        return VoxelTraits<T>::gather4(row, index);
    }
    template <class T>
    static void store(T* p, __m128 v)
    {
        VoxelTraits<T>::store4(p, v);
    }
    static void storeBytes(std::uint8_t* p, __m128i v)
    {
        VoxelTraits<std::uint8_t>::storeInts4(p, v);
    }
};

struct PartialLanes {
    int count;  // 1 to 3
    template <class T>
    __m128 load(const T* p) const
    {
        T lanes[4] = {0, 0, 0, 0};
        std::memcpy(lanes, p, sizeof(T) * count);
        return VoxelTraits<T>::load4(lanes);
    }
    template <class T>
    __m128 gather(const T* row, const int* index) const
    {
        int lanes[4] = {index[0], index[0], index[0], index[0]};  // unused lanes reread voxel 0
        std::memcpy(lanes, index, sizeof(int) * count);
        return VoxelTraits<T>::gather4(row, lanes);
    }
    template <class T>
    void store(T* p, __m128 v) const
    {
        T lanes[4];
        VoxelTraits<T>::store4(lanes, v);
        std::memcpy(p, lanes, sizeof(T) * count);
    }
    void storeBytes(std::uint8_t* p, __m128i v) const
    {
        std::uint8_t lanes[4];
        VoxelTraits<std::uint8_t>::storeInts4(lanes, v);
        std::memcpy(p, lanes, count);
    }
};

// Runs body(i, lanes) over [0, n) in runs of four, the last run partial.
template <class Body>
inline void forEachLaneRun(int n, Body&& body)
{
    int i = 0;
    for (; i + 4 <= n; i += 4) body(i, FullLanes{});
    if (i < n) body(i, PartialLanes{n - i});
}

}  // namespace vlkr::volume
