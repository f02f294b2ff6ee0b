// Row routines of the resize: the x pass that gathers source taps, the weighted blend of
// float rows (the y and z passes), the 8u fixed-point z blend, and the nearest gather.
#pragma once

#include <emmintrin.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "voxel.h"

namespace vlkr::volume {

inline int clampTap(int i, int size) { return std::min(std::max(i, 0), size - 1); }

// Tap positions of one axis: the first tap per destination position and kTaps weight
// arrays. Positions in [fastBegin, fastEnd) have all their taps inside the source; the
// others replicate the edge voxel per tap.
struct AxisTaps {
    const int* first;
    const float* weights;  // weight of tap k at position p: weights[k * stride + p]
    std::ptrdiff_t stride;
    int size;  // source voxels on the axis
    int fastBegin;
    int fastEnd;
    const float* weight(int k) const { return weights + k * stride; }
};

// One x-resampled row over destination positions [begin, end), four positions at a time:
// out[p] = sum over k of weight(k)[p] * row[first[p] + k], summed in tap order.
template <class T, int kTaps, bool kEdge, class Out>
inline void resampleSpanX(const T* row, const AxisTaps& x, int begin, int end, Out* out)
{
    forEachLaneRun(end - begin, [&](int j, auto lanes) {
        const int p = begin + j;
        auto tap = [&](int k) {
            int index[4];
            for (int i = 0; i < lanes.count; ++i)
                index[i] = kEdge ? clampTap(x.first[p + i] + k, x.size) : x.first[p + i] + k;
            return _mm_mul_ps(lanes.gather(row, index), lanes.load(x.weight(k) + p));
        };
        __m128 acc = tap(0);
        for (int k = 1; k < kTaps; ++k) acc = _mm_add_ps(acc, tap(k));
        lanes.store(out + p, acc);
    });
}

template <class T, int kTaps, class Out>
inline void resampleRowX(const T* row, const AxisTaps& x, int n, Out* out)
{
    resampleSpanX<T, kTaps, true>(row, x, 0, x.fastBegin, out);
    resampleSpanX<T, kTaps, false>(row, x, x.fastBegin, x.fastEnd, out);
    resampleSpanX<T, kTaps, true>(row, x, x.fastEnd, n, out);
}

// out[i] = sum over k of rows[k][i] * w[k], summed in tap order, stored through Out's
// conversion (float as is, integers rounded and saturated). Rows are float planes or, when
// y goes first, source rows.
template <int kTaps, class In, class Out>
inline void blendRows(const In* const* rows, const float* w, Out* out, int n)
{
    __m128 weight[kTaps];
    for (int k = 0; k < kTaps; ++k) weight[k] = _mm_set1_ps(w[k]);
    forEachLaneRun(n, [&](int i, auto lanes) {
        __m128 acc = _mm_mul_ps(lanes.load(rows[0] + i), weight[0]);
        for (int k = 1; k < kTaps; ++k)
            acc = _mm_add_ps(acc, _mm_mul_ps(lanes.load(rows[k] + i), weight[k]));
        lanes.store(out + i, acc);
    });
}

// Weight of the second tap in 14-bit fixed point, t * 16384 rounded to nearest.
constexpr int kFixedOne = 1 << 14;
inline int fixedWeight(float t) { return int(t * float(kFixedOne) + 0.5f); }

// A plane value of the 8u trilinear path: the in-plane float result with 6 fractional bits,
// rounded, so that the z blend runs on 16-bit integers.
struct Fixed6 {
    std::int16_t bits;
};
constexpr int kFixed6Bits = 6;

template <>
struct VoxelTraits<Fixed6> {
    static void store4(Fixed6* p, __m128 v)
    {
        // In-plane results blend voxels with non-negative weights, so truncating v + 0.5 rounds.
        const __m128 scaled = _mm_mul_ps(v, _mm_set1_ps(float(1 << kFixed6Bits)));
        const __m128i i = _mm_cvttps_epi32(_mm_add_ps(scaled, _mm_set1_ps(0.5f)));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(p), _mm_packs_epi32(i, i));
    }
};

// The 8u trilinear z blend in 14-bit fixed point, (a * (16384 - w) + b * w + half) >> 14 on
// values that carry 6 more fractional bits, eight voxels at a time: one pmaddwd forms both
// products, and the only rounding of note is the final one.
inline void blendRowsFixed(const Fixed6* a, const Fixed6* b, int w, std::uint8_t* out, int n)
{
    constexpr int kShift = 14 + kFixed6Bits;
    const __m128i weights = _mm_set1_epi32((w << 16) | (kFixedOne - w));  // int16 pairs
    const __m128i half = _mm_set1_epi32(1 << (kShift - 1));
    auto blend8 = [&](const Fixed6* pa, const Fixed6* pb, std::uint8_t* po) {
        const __m128i va = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pa));
        const __m128i vb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pb));
        const __m128i lo = _mm_madd_epi16(_mm_unpacklo_epi16(va, vb), weights);
        const __m128i hi = _mm_madd_epi16(_mm_unpackhi_epi16(va, vb), weights);
        const __m128i sums = _mm_packs_epi32(_mm_srai_epi32(_mm_add_epi32(lo, half), kShift),
                                             _mm_srai_epi32(_mm_add_epi32(hi, half), kShift));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(po), _mm_packus_epi16(sums, sums));
    };
    int i = 0;
    for (; i + 8 <= n; i += 8) blend8(a + i, b + i, out + i);
    if (i < n) {  // the tail through local blocks, never past the row's end
        Fixed6 ta[8] = {}, tb[8] = {};
        std::uint8_t to[8];
        std::memcpy(ta, a + i, sizeof(Fixed6) * (n - i));
        std::memcpy(tb, b + i, sizeof(Fixed6) * (n - i));
        blend8(ta, tb, to);
        std::memcpy(out + i, to, n - i);
    }
}

// Asks for the cache lines of row[first..last] ahead of their use: rows read a few voxels
// apart, a plane apart from the last one, are not ones the hardware prefetcher guesses.
template <class T>
inline void prefetchSpan(const T* row, int first, int last)
{
    const char* p = reinterpret_cast<const char*>(row + first);
    const char* end = reinterpret_cast<const char*>(row + last);
    for (; p <= end; p += 64) _mm_prefetch(p, _MM_HINT_T0);
    _mm_prefetch(end, _MM_HINT_T0);
}

// Nearest neighbour: out[p] = row[index[p]], no conversion.
template <class T>
inline void gatherRow(const T* row, const int* index, int n, T* out)
{
    for (int p = 0; p < n; ++p) storeUnaligned(out + p, loadUnaligned(row + index[p]));
}

// Slots of kSlots cached rows or planes, keyed by source index. A key missing from the
// cache takes a slot whose key no tap of the current position needs; with as many slots as
// taps there is always one.
template <int kSlots>
class SlotCache {
   public:
    SlotCache() { std::fill(key_, key_ + kSlots, -1); }

    // Slot of `key`, one of the kSlots keys `needed` at the current position; `fresh` says
    // whether the caller must fill it.
    int acquire(int key, const int* needed, bool* fresh)
    {
        for (int s = 0; s < kSlots; ++s)
            if (key_[s] == key) return *fresh = false, s;
        // The slots hold distinct keys and `key` is needed but not among them, so at most
        // kSlots - 1 slots hold needed keys: the search stops on a slot.
        int s = 0;
        while (std::find(needed, needed + kSlots, key_[s]) != needed + kSlots) ++s;
        key_[s] = key;
        *fresh = true;
        return s;
    }

   private:
    int key_[kSlots];
};

}  // namespace vlkr::volume
