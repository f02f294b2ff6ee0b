// The k-d tree walk for four rays at once in SSE2 lanes, giving each ray exactly what the
// single-ray walk gives it.
#pragma once

#include <emmintrin.h>

#include "frame/lanes.h"
#include "kdtree_walk.h"

namespace vlkr::raytrace {

// Four rays whose sign flags agree on every axis, so that they share the near/far order.
struct Packet4 {
    lanes::Float4 o[3];
    lanes::Float4 d[3];
    __m128 inv[3];
    int sign[3];
    __m128 tnear;
    __m128 tfar;
};

// Gathers the rays of `lanes` (all with the sign pattern of `rays[first]`) into a packet; idle
// lanes repeat the first ray so that they compute harmless numbers.
inline Packet4 gatherPacket(const Ray rays[4], int lanes, int first)
{
    alignas(16) float v[5][3][4];
    alignas(16) float seg[2][4];
    for (int l = 0; l < 4; ++l) {
        const Ray& r = rays[(lanes >> l & 1) ? l : first];
        for (int k = 0; k < 3; ++k) {
            v[0][k][l] = r.o[k];
            v[1][k][l] = r.d[k];
            v[2][k][l] = r.inv[k];
        }
        seg[0][l] = r.tnear;
        seg[1][l] = r.tfar;
    }
    Packet4 p;
    for (int k = 0; k < 3; ++k) {
        p.o[k] = _mm_load_ps(v[0][k]);
        p.d[k] = _mm_load_ps(v[1][k]);
        p.inv[k] = _mm_load_ps(v[2][k]);
        p.sign[k] = rays[first].sign[k];
    }
    p.tnear = _mm_load_ps(seg[0]);
    p.tfar = _mm_load_ps(seg[1]);
    return p;
}

inline __m128 laneMask4(int bits)
{
    alignas(16) static constexpr std::uint32_t kMasks[16][4] = {
        {0, 0, 0, 0},     {~0u, 0, 0, 0},     {0, ~0u, 0, 0},     {~0u, ~0u, 0, 0},
        {0, 0, ~0u, 0},   {~0u, 0, ~0u, 0},   {0, ~0u, ~0u, 0},   {~0u, ~0u, ~0u, 0},
        {0, 0, 0, ~0u},   {~0u, 0, 0, ~0u},   {0, ~0u, 0, ~0u},   {~0u, ~0u, 0, ~0u},
        {0, 0, ~0u, ~0u}, {~0u, 0, ~0u, ~0u}, {0, ~0u, ~0u, ~0u}, {~0u, ~0u, ~0u, ~0u}};
    return _mm_load_ps(reinterpret_cast<const float*>(kMasks[bits]));
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
    } stack[kMaxTreeDepth];  // as in walkTree: one entry at most per inner node on the path
    int depth = 0;
    const __m128 eps = _mm_set1_ps(epsilon);
    const KDTreeNode* node = root;
    int alive = lanes, active = lanes;
    __m128 tnear = r.tnear, tfar = r.tfar;
    for (;;) {
        while (isInner(node)) {
            const int axis = splitAxis(node);
            const __m128 t =
                _mm_mul_ps(_mm_sub_ps(_mm_set1_ps(splitOf(node)), r.o[axis].v), r.inv[axis]);
            const KDTreeNode* pair = childPair(node);
            const KDTreeNode* nearChild = pair + r.sign[axis];
            const KDTreeNode* farChild = pair + (1 - r.sign[axis]);
            const int farOnly = _mm_movemask_ps(_mm_cmpgt_ps(_mm_sub_ps(tnear, t), eps)) & active;
            const int toNear = active & ~farOnly;
            if (toNear == 0) {
                node = farChild;
                continue;
            }
            const int pushed = toNear & ~_mm_movemask_ps(_mm_cmpgt_ps(_mm_sub_ps(t, tfar), eps));
            if (pushed | farOnly) {
                stack[depth++] = {farChild, tfar, pushed, farOnly};
                const __m128 clipped = _mm_max_ps(tnear, _mm_min_ps(t, tfar));
                tfar = lanes::select(lanes::Mask4{laneMask4(pushed)}, lanes::Float4(clipped),
                                     lanes::Float4(tfar))
                           .v;
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
            lanes::Float4 t, p, q;
            const lanes::Mask4 hit =
                hitTriangle(accel[n], r.o, r.d, hits.best, {laneMask4(active)}, t, p, q);
            const int hitLanes = lanes::bits(hit);
            if (hitLanes == 0) continue;
            const int finished = hits.onHit(n, hit, hitLanes, t, p, q);
            alive &= ~finished;
            active &= ~finished;
        }
        // Rays whose segment lies wholly beyond their best hit are done.
        alive &= ~(active & _mm_movemask_ps(_mm_cmpge_ps(tfar, hits.best.v)));
        for (;;) {
            if (depth == 0) return;
            const Entry& e = stack[--depth];
            const int pushed = e.pushed & alive, farOnly = e.farOnly & alive;
            if ((pushed | farOnly) == 0) continue;
            const lanes::Mask4 m{laneMask4(pushed)};
            tnear = lanes::select(m, lanes::Float4(tfar), lanes::Float4(tnear)).v;
            tfar = lanes::select(m, lanes::Float4(e.tfar), lanes::Float4(tfar)).v;
            active = pushed | farOnly;
            node = e.node;
            break;
        }
    }
}

}  // namespace vlkr::raytrace
