// The k-d tree walk for a packet of rays, four to a register, giving each ray exactly what the
// single-ray walk gives it.
#pragma once

#include <emmintrin.h>

#include "frame/lanes.h"
#include "kdtree_walk.h"

namespace vlkr::raytrace {

// Up to 4 * kRegs rays; those that walk together agree with `sign` on every axis, so that
// they share the near/far order. Lane l of register g is ray 4 g + l of the packet; lanes
// outside the walk hold numbers of their own that nothing reads.
template <int kRegs>
struct Packet {
    static constexpr int kRays = 4 * kRegs;
    lanes::Float4 o[kRegs][3];
    lanes::Float4 d[kRegs][3];
    lanes::Float4 inv[kRegs][3];
    lanes::Float4 tnear[kRegs];
    lanes::Float4 tfar[kRegs];
    int sign[3];
};

inline lanes::Mask4 laneMask4(unsigned bits)
{
    alignas(16) static constexpr std::uint32_t kMasks[16][4] = {
        {0, 0, 0, 0},     {~0u, 0, 0, 0},     {0, ~0u, 0, 0},     {~0u, ~0u, 0, 0},
        {0, 0, ~0u, 0},   {~0u, 0, ~0u, 0},   {0, ~0u, ~0u, 0},   {~0u, ~0u, ~0u, 0},
        {0, 0, 0, ~0u},   {~0u, 0, 0, ~0u},   {0, ~0u, 0, ~0u},   {~0u, ~0u, 0, ~0u},
        {0, 0, ~0u, ~0u}, {~0u, 0, ~0u, ~0u}, {0, ~0u, ~0u, ~0u}, {~0u, ~0u, ~0u, ~0u}};
    return {_mm_load_ps(reinterpret_cast<const float*>(kMasks[bits & 15]))};
}

// The four lanes of register g in a packet's lane mask.
inline unsigned regLanes(unsigned mask, int g) { return mask >> (4 * g) & 15u; }

/*
 * The walk of walkTree for a packet. The packet visits the nodes in the single-ray order with
 * a mask of the rays that visit each one: a ray joins a node exactly when its own walk would
 * go there, with its own segment, and so tests the same triangles in the same order. A stack
 * entry remembers which rays pushed the far child (they resume with tnear = tfar) and which
 * went to it alone (they resume with their segment unchanged). A node is fetched and decoded
 * once for the whole packet; registers with no ray at a leaf test no triangles.
 * hits[g] is the policy of register g; sharedOrigin is the rays' one origin, or null when each
 * lane has its own.
 */
template <int kRegs, class Policy>
void walkPacket(const KDTreeNode* root, const TriangleAccel* accel, float epsilon, Packet<kRegs>& r,
                unsigned lanes, Policy hits[kRegs], const float* sharedOrigin) noexcept
{
    using lanes::Float4;
    struct Entry {
        const KDTreeNode* node;
        unsigned pushed;
        unsigned farOnly;
        Float4 tfar[kRegs];
    } stack[kMaxTreeDepth];  // as in walkTree: one entry at most per inner node on the path
    int depth = 0;
    const Float4 eps(epsilon);
    const KDTreeNode* node = root;
    unsigned alive = lanes, active = lanes;
    Float4 tnear[kRegs], tfar[kRegs];
    for (int g = 0; g < kRegs; ++g) tnear[g] = r.tnear[g], tfar[g] = r.tfar[g];
    for (;;) {
        while (isInner(node)) {
            const int axis = splitAxis(node);
            const float split = splitOf(node);
            const KDTreeNode* pair = childPair(node);
            const KDTreeNode* nearChild = pair + r.sign[axis];
            const KDTreeNode* farChild = pair + (1 - r.sign[axis]);
            Float4 t[kRegs];
            unsigned farOnly = 0, beyond = 0;
            // Rays from one origin share the split's offset from it.
            const Float4 offset(sharedOrigin ? split - sharedOrigin[axis] : 0.0f);
            for (int g = 0; g < kRegs; ++g) {
                t[g] = (sharedOrigin ? offset : Float4(split) - r.o[g][axis]) * r.inv[g][axis];
                farOnly |= unsigned(lanes::bits(tnear[g] - t[g] > eps)) << (4 * g);
                beyond |= unsigned(lanes::bits(t[g] - tfar[g] > eps)) << (4 * g);
            }
            farOnly &= active;
            const unsigned toNear = active & ~farOnly;
            if (toNear == 0) {
                node = farChild;
                continue;
            }
            const unsigned pushed = toNear & ~beyond;
            if (pushed | farOnly) {
                Entry& e = stack[depth++];
                e.node = farChild;
                e.pushed = pushed;
                e.farOnly = farOnly;
                for (int g = 0; g < kRegs; ++g) {
                    e.tfar[g] = tfar[g];
                    if (!regLanes(pushed, g)) continue;
                    const Float4 clipped = lanes::max(tnear[g], lanes::min(t[g], tfar[g]));
                    tfar[g] = lanes::select(laneMask4(regLanes(pushed, g)), clipped, tfar[g]);
                }
            }
            active = toNear;
            node = nearChild;
        }
        int local[3];
        const int* list = nullptr;
        const int count = leafTriangles(node, local, &list);
        for (int k = 0; k < count && active; ++k) {
            const int n = list[k];
            const TriangleAccel a = loadUnaligned(accel + n);  // the records may sit anywhere
            if (a.axes == 0) continue;
            for (int g = 0; g < kRegs; ++g) {
                const unsigned regActive = regLanes(active, g) & ~hits[g].skipLanes(n);
                if (!regActive) continue;
                Float4 t, p, q;
                const lanes::Mask4 hit =
                    hitTriangle(a, r.o[g], r.d[g], hits[g].best, laneMask4(regActive), t, p, q);
                const int hitLanes = lanes::bits(hit);
                if (hitLanes == 0) continue;
                const unsigned finished = unsigned(hits[g].onHit(n, hit, hitLanes, t, p, q));
                alive &= ~(finished << (4 * g));
                active &= ~(finished << (4 * g));
            }
        }
        // Rays whose segment lies wholly beyond their best hit are done.
        unsigned beyondBest = 0;
        for (int g = 0; g < kRegs; ++g)
            beyondBest |= unsigned(lanes::bits(tfar[g] >= hits[g].best)) << (4 * g);
        alive &= ~(active & beyondBest);
        for (;;) {
            if (depth == 0) return;
            const Entry& e = stack[--depth];
            const unsigned pushed = e.pushed & alive, farOnly = e.farOnly & alive;
            if ((pushed | farOnly) == 0) continue;
            for (int g = 0; g < kRegs; ++g) {
                if (!regLanes(pushed, g)) continue;
                const lanes::Mask4 m = laneMask4(regLanes(pushed, g));
                tnear[g] = lanes::select(m, tfar[g], tnear[g]);
                tfar[g] = lanes::select(m, e.tfar[g], tfar[g]);
            }
            active = pushed | farOnly;
            node = e.node;
            break;
        }
    }
}

}  // namespace vlkr::raytrace
