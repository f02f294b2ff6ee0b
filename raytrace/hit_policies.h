// What a walk does at a triangle: the leaf policies of the nearest-hit, layered and occlusion
// queries, for one ray and for four lanes.
#pragma once

#include <emmintrin.h>

#include "frame/lanes.h"

namespace vlkr::raytrace {

// Nearest hit: keeps the closest triangle, the first tested on equal distances.
struct NearestHit {
    float best;
    float p = 0.0f, q = 0.0f;
    int triangle = -1;
    bool onHit(int n, float t, float pp, float qq) noexcept
    {
        best = t;
        p = pp;
        q = qq;
        triangle = n;
        return false;
    }
    static bool skip(int) noexcept { return false; }
};

// The layered query remembers the triangles of the last eight layers and passes over them, so
// a ray leaving through a shared edge or a fold does not report the same surface twice. Layer
// l consults slots 0 .. (l - 1) mod 8 - 1, so layers 9, 17, ... consult none; that wrap is
// intended.
constexpr int kRecentTriangles = 8;

// Layered hits: as NearestHit, but passes over the previous layer's triangle and those in the
// ring of recent ones that this layer consults.
struct LayerHit : NearestHit {
    const int* ring;
    int ringSlots;
    int previous;
    bool skip(int n) const noexcept
    {
        if (n == previous) return true;
        for (int s = 0; s < ringSlots; ++s)
            if (ring[s] == n) return true;
        return false;
    }
};

// Occlusion: any hit ends the ray.
struct AnyHit {
    float best = 1.0f;
    int triangle = -1;
    bool onHit(int n, float, float, float) noexcept
    {
        triangle = n;
        return true;
    }
    static bool skip(int) noexcept { return false; }
};

// The packet forms of the policies, lane for lane the same decisions; skipLanes(n) gives the
// lanes that pass over triangle n.
struct NearestHit4 {
    static unsigned skipLanes(int) noexcept { return 0; }
    lanes::Float4 best;
    lanes::Float4 p = 0.0f, q = 0.0f;
    lanes::Float4 triangle = _mm_castsi128_ps(_mm_set1_epi32(-1));  // int lanes, as float bits
    int onHit(int n, lanes::Mask4 hit, int, lanes::Float4 t, lanes::Float4 pp,
              lanes::Float4 qq) noexcept
    {
        best = select(hit, t, best);
        p = select(hit, pp, p);
        q = select(hit, qq, q);
        triangle = select(hit, lanes::Float4(_mm_castsi128_ps(_mm_set1_epi32(n))), triangle);
        return 0;
    }
};

// The layered query's packet form: per lane, the previous layer's triangle and the ring of
// recent ones, slot s of the four lanes in ring[s]; lanes that hold n skip it.
struct LayerHit4 : NearestHit4 {
    __m128i previous;
    __m128i ring[kRecentTriangles];
    int ringSlots;
    unsigned skipLanes(int n) const noexcept
    {
        const __m128i v = _mm_set1_epi32(n);
        __m128i same = _mm_cmpeq_epi32(previous, v);
        for (int s = 0; s < ringSlots; ++s) same = _mm_or_si128(same, _mm_cmpeq_epi32(ring[s], v));
        return unsigned(_mm_movemask_ps(_mm_castsi128_ps(same)));
    }
};

struct AnyHit4 {
    static unsigned skipLanes(int) noexcept { return 0; }
    lanes::Float4 best = 1.0f;
    int triangle[4] = {-1, -1, -1, -1};
    int onHit(int n, lanes::Mask4, int hitLanes, lanes::Float4, lanes::Float4,
              lanes::Float4) noexcept
    {
        for (int l = 0; l < 4; ++l)
            if (hitLanes >> l & 1) triangle[l] = n;
        return hitLanes;  // an occluded ray is finished
    }
};

}  // namespace vlkr::raytrace
