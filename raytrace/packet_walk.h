// The k-d tree walk for four rays at once in SSE2 lanes, giving each ray exactly what the
// single-ray walk gives it.
#pragma once

#include <emmintrin.h>

#include "kdtree_walk.h"

namespace vlkr::raytrace {

// Four rays whose sign flags agree on every axis, so that they share the near/far order.
struct Packet4 {
    __m128 o[3];
    __m128 d[3];
    __m128 inv[3];
    int sign[3];
    __m128 tnear;
    __m128 tfar;
};

inline __m128 select4(__m128 mask, __m128 a, __m128 b)
{
    return _mm_or_ps(_mm_and_ps(mask, a), _mm_andnot_ps(mask, b));
}

inline __m128 laneMask4(int bits)
{
    alignas(16) static constexpr std::uint32_t kMasks[16][4] = {
        {0, 0, 0, 0},          {~0u, 0, 0, 0},        {0, ~0u, 0, 0},        {~0u, ~0u, 0, 0},
        {0, 0, ~0u, 0},        {~0u, 0, ~0u, 0},      {0, ~0u, ~0u, 0},      {~0u, ~0u, ~0u, 0},
        {0, 0, 0, ~0u},        {~0u, 0, 0, ~0u},      {0, ~0u, 0, ~0u},      {~0u, ~0u, 0, ~0u},
        {0, 0, ~0u, ~0u},      {~0u, 0, ~0u, ~0u},    {0, ~0u, ~0u, ~0u},    {~0u, ~0u, ~0u, ~0u}};
    return _mm_load_ps(reinterpret_cast<const float*>(kMasks[bits]));
}

// The ray/triangle test of hitTriangle on four lanes, operation for operation. Returns the
// lanes (of `lanes`) that hit closer than `best`, with their t, P / D and Q / D.
inline __m128 hitTriangle4(const TriangleAccel& a, const Packet4& r, __m128 best, __m128 lanes,
                           __m128& t, __m128& p, __m128& q) noexcept
{
    const std::uint32_t axes = a.axes;
    const int u = (axes >> 2) & 3, v = axes & 3, w = (axes >> 4) & 3;
    const __m128 nu = _mm_set1_ps(a.nu), nv = _mm_set1_ps(a.nv);
    const __m128 D = _mm_add_ps(_mm_add_ps(_mm_mul_ps(nu, r.d[u]), _mm_mul_ps(nv, r.d[v])), r.d[w]);
    const __m128 eu = _mm_sub_ps(_mm_set1_ps(a.cu), r.o[u]);
    const __m128 ev = _mm_sub_ps(_mm_set1_ps(a.cv), r.o[v]);
    const __m128 nt = _mm_sub_ps(
        _mm_add_ps(_mm_add_ps(_mm_set1_ps(a.cw), _mm_mul_ps(nu, eu)), _mm_mul_ps(nv, ev)), r.o[w]);
    const __m128 x1 = _mm_sub_ps(_mm_mul_ps(r.d[u], nt), _mm_mul_ps(eu, D));
    const __m128 x2 = _mm_sub_ps(_mm_mul_ps(r.d[v], nt), _mm_mul_ps(ev, D));
    const __m128 P = _mm_sub_ps(_mm_mul_ps(_mm_set1_ps(a.e2v), x1), _mm_mul_ps(_mm_set1_ps(a.e2u), x2));
    const __m128 Q = _mm_sub_ps(_mm_mul_ps(_mm_set1_ps(a.e1u), x2), _mm_mul_ps(_mm_set1_ps(a.e1v), x1));
    const __m128 R = _mm_sub_ps(_mm_sub_ps(D, P), Q);
    const __m128 zero = _mm_setzero_ps();
    __m128 inside = _mm_and_ps(_mm_cmpge_ps(_mm_mul_ps(R, P), zero),
                               _mm_cmpge_ps(_mm_mul_ps(P, Q), zero));
    inside = _mm_and_ps(_mm_and_ps(inside, _mm_cmpge_ps(_mm_mul_ps(R, Q), zero)), lanes);
    if (_mm_movemask_ps(inside) == 0) return inside;
    t = _mm_div_ps(nt, D);
    const __m128 hit = _mm_and_ps(inside, _mm_and_ps(_mm_cmpgt_ps(best, t), _mm_cmpgt_ps(t, zero)));
    if (_mm_movemask_ps(hit) == 0) return hit;
    p = _mm_div_ps(P, D);
    q = _mm_div_ps(Q, D);
    return hit;
}

/*
 * The walk of walkTree for four rays. The packet visits the nodes in the single-ray order
 * with a mask of the rays that visit each one: a ray joins a node exactly when its own walk
 * would go there, with its own segment, and so tests the same triangles in the same order.
 * A stack entry remembers which rays pushed the far child (they resume with tnear = tfar)
 * and which went to it alone (they resume with their segment unchanged).
 */
template <class Policy>
void walkPacket(const KDTreeNode* root, const TriangleAccel* accel, float epsilon, Packet4& r,
                int lanes, Policy& hits) noexcept
{
    struct Entry {
        const KDTreeNode* node;
        __m128 tfar;
        int pushed;
        int farOnly;
    } stack[50];
    int depth = 0;
    const __m128 eps = _mm_set1_ps(epsilon);
    const KDTreeNode* node = root;
    int alive = lanes, active = lanes;
    __m128 tnear = r.tnear, tfar = r.tfar;
    for (;;) {
        while (node->link >= 0) {
            const int axis = node->link & 3;
            const __m128 t =
                _mm_mul_ps(_mm_sub_ps(_mm_set1_ps(splitOf(node)), r.o[axis]), r.inv[axis]);
            const KDTreeNode* pair = childPair(node);
            const KDTreeNode* nearChild = pair + r.sign[axis];
            const KDTreeNode* farChild = pair + (1 - r.sign[axis]);
            const int farOnly = _mm_movemask_ps(_mm_cmpgt_ps(_mm_sub_ps(tnear, t), eps)) & active;
            const int toNear = active & ~farOnly;
            if (toNear == 0) {
                node = farChild;
                continue;
            }
            const int pushed =
                toNear & ~_mm_movemask_ps(_mm_cmpgt_ps(_mm_sub_ps(t, tfar), eps));
            if (pushed | farOnly) {
                stack[depth++] = {farChild, tfar, pushed, farOnly};
                const __m128 clipped = _mm_max_ps(tnear, _mm_min_ps(t, tfar));
                tfar = select4(laneMask4(pushed), clipped, tfar);
            }
            active = toNear;
            node = nearChild;
        }
        int local[3];
        const int* list = nullptr;
        const int count = leafTriangles(node, local, &list);
        for (int k = 0; k < count && active; ++k) {
            const int n = list[k];
            if (accel[n].axes == 0) continue;
            __m128 t, p, q;
            const __m128 hit = hitTriangle4(accel[n], r, hits.best, laneMask4(active), t, p, q);
            const int hitLanes = _mm_movemask_ps(hit);
            if (hitLanes == 0) continue;
            const int finished = hits.onHit(n, hit, hitLanes, t, p, q);
            alive &= ~finished;
            active &= ~finished;
        }
        // Rays whose segment lies wholly beyond their best hit are done.
        alive &= ~(active & _mm_movemask_ps(_mm_cmpge_ps(tfar, hits.best)));
        for (;;) {
            if (depth == 0) return;
            const Entry& e = stack[--depth];
            const int pushed = e.pushed & alive, farOnly = e.farOnly & alive;
            if ((pushed | farOnly) == 0) continue;
            const __m128 m = laneMask4(pushed);
            tnear = select4(m, tfar, tnear);
            tfar = select4(m, e.tfar, tfar);
            active = pushed | farOnly;
            node = e.node;
            break;
        }
    }
}

}  // namespace vlkr::raytrace
