// Lane types for arithmetic written once: Lanes<4> holds four floats in an SSE2 register and
// Lanes<1> the same register capped to its first lane. A body templated on the lane type runs
// at full width over groups of four and capped to one lane for heads and tails, with the same
// IEEE operations in the same order, so every element gets the same bits whichever path it
// takes. Only loads, stores and broadcasts depend on the width; a capped value keeps zeros
// (or numbers derived from them) in its unused lanes, which nothing ever reads.
//
// Caller arrays may sit at any byte address, so every load and store is an unaligned move.
#pragma once

#include <emmintrin.h>

#include <cstdint>
#include <cstring>

#include "frame/unaligned.h"

namespace vlkr::lanes {

template <int kN>
struct Mask {
    __m128 bits;
};

template <int kN>
struct Lanes {
    static_assert(kN == 1 || kN == 4, "one lane or four");
    using Mask = lanes::Mask<kN>;
    static constexpr int kLanes = kN;

    __m128 v;
    Lanes() = default;
    Lanes(__m128 x) : v(x) {}
    Lanes(float x) : v(kN == 4 ? _mm_set1_ps(x) : _mm_set_ss(x)) {}  // broadcast

    static Lanes load(const void* p)
    {
        if constexpr (kN == 4) return _mm_loadu_ps(static_cast<const float*>(p));
        return _mm_set_ss(loadUnaligned(static_cast<const float*>(p)));
    }
    void store(void* p) const
    {
        if constexpr (kN == 4) {
            _mm_storeu_ps(static_cast<float*>(p), v);
        } else {
            storeUnaligned(static_cast<float*>(p), _mm_cvtss_f32(v));
        }
    }
    static Lanes indices(int first)  // first, first + 1, ... as floats
    {
        return _mm_cvtepi32_ps(_mm_add_epi32(_mm_set1_epi32(first), _mm_setr_epi32(0, 1, 2, 3)));
    }
    float first() const { return _mm_cvtss_f32(v); }
};

using Float1 = Lanes<1>;
using Float4 = Lanes<4>;
using Mask1 = Mask<1>;
using Mask4 = Mask<4>;

// clang-format off
template <int kN> Lanes<kN> operator+(Lanes<kN> a, Lanes<kN> b) { return _mm_add_ps(a.v, b.v); }
template <int kN> Lanes<kN> operator-(Lanes<kN> a, Lanes<kN> b) { return _mm_sub_ps(a.v, b.v); }
template <int kN> Lanes<kN> operator*(Lanes<kN> a, Lanes<kN> b) { return _mm_mul_ps(a.v, b.v); }
template <int kN> Lanes<kN> operator/(Lanes<kN> a, Lanes<kN> b) { return _mm_div_ps(a.v, b.v); }
template <int kN> Mask<kN> operator<(Lanes<kN> a, Lanes<kN> b) { return {_mm_cmplt_ps(a.v, b.v)}; }
template <int kN> Mask<kN> operator>(Lanes<kN> a, Lanes<kN> b) { return {_mm_cmpgt_ps(a.v, b.v)}; }
template <int kN> Mask<kN> operator>=(Lanes<kN> a, Lanes<kN> b) { return {_mm_cmpge_ps(a.v, b.v)}; }
template <int kN> Mask<kN> operator==(Lanes<kN> a, Lanes<kN> b) { return {_mm_cmpeq_ps(a.v, b.v)}; }
template <int kN> Mask<kN> operator&(Mask<kN> a, Mask<kN> b) { return {_mm_and_ps(a.bits, b.bits)}; }
template <int kN> Mask<kN> operator|(Mask<kN> a, Mask<kN> b) { return {_mm_or_ps(a.bits, b.bits)}; }
// clang-format on

// The lanes of b that are not in a.
template <int kN>
Mask<kN> allLanes()
{
    return {_mm_castsi128_ps(_mm_set1_epi32(-1))};
}

template <int kN>
Mask<kN> andNot(Mask<kN> a, Mask<kN> b)
{
    return {_mm_andnot_ps(a.bits, b.bits)};
}

template <int kN>
Lanes<kN> select(Mask<kN> m, Lanes<kN> a, Lanes<kN> b)
{
    return _mm_or_ps(_mm_and_ps(m.bits, a.v), _mm_andnot_ps(m.bits, b.v));
}

template <int kN>
Lanes<kN> zeroUnless(Mask<kN> m, Lanes<kN> a)
{
    return _mm_and_ps(m.bits, a.v);
}

// a < b ? a : b and a > b ? a : b, lane by lane, as the scalar comparisons pick.
template <int kN>
Lanes<kN> min(Lanes<kN> a, Lanes<kN> b)
{
    return _mm_min_ps(a.v, b.v);
}

template <int kN>
Lanes<kN> max(Lanes<kN> a, Lanes<kN> b)
{
    return _mm_max_ps(a.v, b.v);
}

template <int kN>
Lanes<kN> sqrt(Lanes<kN> a)
{
    return _mm_sqrt_ps(a.v);
}

template <int kN>
Lanes<kN> abs(Lanes<kN> a)  // clears the sign bit
{
    return _mm_andnot_ps(_mm_set1_ps(-0.0f), a.v);
}

// Bit l set when lane l is in the mask; unused lanes never count.
template <int kN>
int bits(Mask<kN> m)
{
    return _mm_movemask_ps(m.bits) & ((1 << kN) - 1);
}

template <int kN>
bool any(Mask<kN> m)
{
    return bits(m) != 0;
}

// The rays that take part: those whose mask element is not negative.
template <int kN>
Mask<kN> takes(const int* mask, Lanes<kN>)
{
    __m128i m;
    if constexpr (kN == 4) {
        m = _mm_loadu_si128(reinterpret_cast<const __m128i*>(mask));
    } else {
        m = _mm_cvtsi32_si128(loadUnaligned(mask));
    }
    return {_mm_castsi128_ps(_mm_cmpgt_epi32(m, _mm_set1_epi32(-1)))};
}

// Sets the mask element to -1 where m holds.
template <int kN>
void passOver(int* mask, Mask<kN> m)
{
    if constexpr (kN == 4) {
        __m128i* p = reinterpret_cast<__m128i*>(mask);
        _mm_storeu_si128(p, _mm_or_si128(_mm_loadu_si128(p), _mm_castps_si128(m.bits)));
    } else if (any(m)) {
        storeUnaligned(mask, -1);
    }
}

// Three plane pointers or three constants from the caller, taken by value. As far as the
// compiler can tell, a store through a caller's array may change anything else the caller
// passed by pointer, but never the callee's own copy, so loops keep these in registers instead
// of reloading them (and re-broadcasting constants) at every step.
template <class T>
struct Three {
    T at[3];
    template <class U>
    Three(const U* p)  // from the caller's array of three
        : at{T(loadUnaligned(p)), T(loadUnaligned(p + 1)), T(loadUnaligned(p + 2))}
    {
    }
    Three() = default;
    T operator[](int c) const { return at[c]; }
    T& operator[](int c) { return at[c]; }
};

// Element i of each of three planes (x, y, z components).
template <class V, class Planes>
Three<V> loadPlanes(const Planes& planes, int i)
{
    Three<V> out;
    for (int c = 0; c < 3; ++c) out[c] = V::load(planes[c] + i);
    return out;
}

// Dot products of three-component lanes in the two summation orders the operations define:
// x, y, then z; or y and z first, x last.
template <class V>
V dotXYZ(const Three<V>& a, const Three<V>& b)
{
    return (a[0] * b[0] + a[1] * b[1]) + a[2] * b[2];
}

template <class V>
V dotYZX(const Three<V>& a, const Three<V>& b)
{
    return (a[1] * b[1] + a[2] * b[2]) + a[0] * b[0];
}

// ------------------------------------------------------------------------ loop skeletons

// Runs body(Float4{}, i) on groups of four elements and body(Float1{}, i) on the rest.
template <class Body>
inline void forEachLane(int len, Body body)
{
    int i = 0;
    for (; i + 4 <= len; i += 4) body(Float4{}, i);
    for (; i < len; ++i) body(Float1{}, i);
}

// As forEachLane, with the groups of four starting where `key` (an array of 4-byte elements)
// is 16-byte aligned: a one-lane head reaches that point, and an array that is not even
// 4-byte aligned runs one lane at a time throughout.
template <class Body>
inline void forEachLaneAlignedTo(const void* key, int len, Body body)
{
    const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(key);
    int i = 0;
    if (address % 4 == 0) {
        const int head = static_cast<int>((16 - address % 16) % 16 / 4);
        for (; i < head && i < len; ++i) body(Float1{}, i);
        for (; i + 4 <= len; i += 4) body(Float4{}, i);
    }
    for (; i < len; ++i) body(Float1{}, i);
}

}  // namespace vlkr::lanes
