// Lane types for arithmetic written once: Float1 holds one float, Float4 four in an SSE2
// register. A body templated on the lane type runs at full width over groups of four and
// capped to one lane for heads and tails, with the same IEEE operations in the same order, so
// every element gets the same bits whichever path it takes.
//
// Caller arrays may sit at any byte address, so loads and stores go through memcpy (one
// unaligned move each) rather than through float or int lvalues.
#pragma once

#include <emmintrin.h>

#include <cmath>
#include <cstdint>
#include <cstring>

namespace vlkr::lanes {

// -------------------------------------------------------------------------- one lane

struct Mask1 {
    bool on;
};

struct Float1 {
    using Mask = Mask1;
    static constexpr int kLanes = 1;

    float v;
    Float1() = default;
    Float1(float x) : v(x) {}  // broadcast, as for Float4

    static Float1 load(const void* p)
    {
        float x;
        std::memcpy(&x, p, 4);
        return x;
    }
    void store(void* p) const { std::memcpy(p, &v, 4); }
    static Float1 indices(int first) { return float(first); }  // first, as a float
};

inline Float1 operator+(Float1 a, Float1 b) { return a.v + b.v; }
inline Float1 operator-(Float1 a, Float1 b) { return a.v - b.v; }
inline Float1 operator*(Float1 a, Float1 b) { return a.v * b.v; }
inline Float1 operator/(Float1 a, Float1 b) { return a.v / b.v; }
inline Mask1 operator<(Float1 a, Float1 b) { return {a.v < b.v}; }
inline Mask1 operator>(Float1 a, Float1 b) { return {a.v > b.v}; }
inline Mask1 operator>=(Float1 a, Float1 b) { return {a.v >= b.v}; }
inline Mask1 operator==(Float1 a, Float1 b) { return {a.v == b.v}; }
inline Mask1 operator&(Mask1 a, Mask1 b) { return {a.on && b.on}; }
inline Mask1 operator|(Mask1 a, Mask1 b) { return {a.on || b.on}; }
inline Mask1 andNot(Mask1 a, Mask1 b) { return {!a.on && b.on}; }  // b and not a

inline Float1 select(Mask1 m, Float1 a, Float1 b) { return m.on ? a : b; }
inline Float1 zeroUnless(Mask1 m, Float1 a) { return m.on ? a : Float1(0.0f); }
inline Float1 sqrt(Float1 a) { return std::sqrt(a.v); }
inline Float1 abs(Float1 a)  // clears the sign bit, as the four-lane form does
{
    std::uint32_t u;
    std::memcpy(&u, &a.v, 4);
    u &= 0x7FFFFFFFu;
    std::memcpy(&a.v, &u, 4);
    return a;
}
inline bool any(Mask1 m) { return m.on; }
inline int bits(Mask1 m) { return m.on ? 1 : 0; }

// A ray takes part where its mask element is not negative.
inline Mask1 takes(const int* mask, Float1)
{
    std::int32_t m;
    std::memcpy(&m, mask, 4);
    return {m >= 0};
}
// Sets the mask element to -1 where m holds.
inline void passOver(int* mask, Mask1 m)
{
    if (!m.on) return;
    const std::int32_t minusOne = -1;
    std::memcpy(mask, &minusOne, 4);
}

// ------------------------------------------------------------------------- four lanes

struct Mask4 {
    __m128 bits;
};

struct Float4 {
    using Mask = Mask4;
    static constexpr int kLanes = 4;

    __m128 v;
    Float4() = default;
    Float4(__m128 x) : v(x) {}
    Float4(float x) : v(_mm_set1_ps(x)) {}

    static Float4 load(const void* p) { return _mm_loadu_ps(static_cast<const float*>(p)); }
    void store(void* p) const { _mm_storeu_ps(static_cast<float*>(p), v); }
    static Float4 indices(int first)  // first .. first + 3, as floats
    {
        return _mm_cvtepi32_ps(_mm_add_epi32(_mm_set1_epi32(first), _mm_setr_epi32(0, 1, 2, 3)));
    }
};

inline Float4 operator+(Float4 a, Float4 b) { return _mm_add_ps(a.v, b.v); }
inline Float4 operator-(Float4 a, Float4 b) { return _mm_sub_ps(a.v, b.v); }
inline Float4 operator*(Float4 a, Float4 b) { return _mm_mul_ps(a.v, b.v); }
inline Float4 operator/(Float4 a, Float4 b) { return _mm_div_ps(a.v, b.v); }
inline Mask4 operator<(Float4 a, Float4 b) { return {_mm_cmplt_ps(a.v, b.v)}; }
inline Mask4 operator>(Float4 a, Float4 b) { return {_mm_cmpgt_ps(a.v, b.v)}; }
inline Mask4 operator>=(Float4 a, Float4 b) { return {_mm_cmpge_ps(a.v, b.v)}; }
inline Mask4 operator==(Float4 a, Float4 b) { return {_mm_cmpeq_ps(a.v, b.v)}; }
inline Mask4 operator&(Mask4 a, Mask4 b) { return {_mm_and_ps(a.bits, b.bits)}; }
inline Mask4 operator|(Mask4 a, Mask4 b) { return {_mm_or_ps(a.bits, b.bits)}; }
inline Mask4 andNot(Mask4 a, Mask4 b) { return {_mm_andnot_ps(a.bits, b.bits)}; }

inline Float4 select(Mask4 m, Float4 a, Float4 b)
{
    return _mm_or_ps(_mm_and_ps(m.bits, a.v), _mm_andnot_ps(m.bits, b.v));
}
inline Float4 zeroUnless(Mask4 m, Float4 a) { return _mm_and_ps(m.bits, a.v); }
inline Float4 sqrt(Float4 a) { return _mm_sqrt_ps(a.v); }
inline Float4 abs(Float4 a) { return _mm_andnot_ps(_mm_set1_ps(-0.0f), a.v); }
inline bool any(Mask4 m) { return _mm_movemask_ps(m.bits) != 0; }
inline int bits(Mask4 m) { return _mm_movemask_ps(m.bits); }

inline Mask4 takes(const int* mask, Float4)
{
    const __m128i m = _mm_loadu_si128(reinterpret_cast<const __m128i*>(mask));
    return {_mm_castsi128_ps(_mm_cmpgt_epi32(m, _mm_set1_epi32(-1)))};
}
inline void passOver(int* mask, Mask4 m)
{
    __m128i* p = reinterpret_cast<__m128i*>(mask);
    _mm_storeu_si128(p, _mm_or_si128(_mm_loadu_si128(p), _mm_castps_si128(m.bits)));
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
