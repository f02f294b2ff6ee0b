// The single-ray k-d tree walk and ray/triangle test that every intersection query shares.
#pragma once

#include <xmmintrin.h>

#include <cstddef>
#include <cstdint>

#include "constants.h"
#include "frame/lanes.h"
#include "kdtree_node.h"
#include "vlkr.h"

namespace vlkr::raytrace {

constexpr float kNodeEpsilon = 9.99999975e-06f;  // slack when deciding near/far children
constexpr float kLayerEpsilon = 0.00019f;        // wider slack for the layered query
constexpr float kSegmentPad = 0.0001f;           // the box segment's far end grows by this

// A direction component no larger than one float ulp at 1 counts as zero: it does not narrow
// the box segment, and a large finite stand-in replaces its inverse so split distances stay
// ordered without infinities. The stand-in is 2^23 * 100 for the box-clipped queries and
// 2^23 / 100 for occlusion rays; the two differ on purpose and either changes which child a
// ray visits first at such a component, so neither may be tidied into the other.
constexpr float kTinyDirection = kFloatEpsilon;
constexpr float kTinyInverse = 8.388608e8f;
constexpr float kOcclusionTinyInverse = 83886.078125f;

// Occlusion rays run from the point (t = 0) to the light (t = 1) and are not clipped to the
// box; their segment's far end sits just past 1, padded as the box segments are, while hits
// still count only below 1.
constexpr float kOcclusionFar = 1.0001f;

// One ray as the walk sees it: the segment [tnear, tfar] inside the box, the inverses and
// the sign flags that pick the near child.
struct Ray {
    float o[3];
    float d[3];
    float inv[3];
    int sign[3];
    float tnear;
    float tfar;
};

inline float minOf(float a, float b) { return a < b ? a : b; }
inline float maxOf(float a, float b) { return a > b ? a : b; }
inline float absOf(float a) { return a < 0.0f ? -a : a; }

// Ray set-up, written once for one ray or four. A direction component counts as tiny when
// its size is at most kTinyDirection. `negative` holds the sign flags as lane masks.

// The inverses and sign flags of the box-clipped queries: a tiny component has the stand-in
// inverse and sign flag 0.
template <class V>
void boxInverses(const V d[3], V inv[3], typename V::Mask negative[3]) noexcept
{
    for (int k = 0; k < 3; ++k) {
        const auto tiny = V(kTinyDirection) >= lanes::abs(d[k]);
        inv[k] = lanes::select(tiny, V(kTinyInverse), V(1.0f) / d[k]);
        negative[k] = lanes::andNot(tiny, d[k] < V(0.0f));
    }
}

// The inverses and sign flags of occlusion rays: the sign flag whatever the size, and the
// occlusion stand-in for tiny components.
template <class V>
void occlusionInverses(const V d[3], V inv[3], typename V::Mask negative[3]) noexcept
{
    for (int k = 0; k < 3; ++k) {
        const auto tiny = V(kTinyDirection) >= lanes::abs(d[k]);
        inv[k] = lanes::select(tiny, V(kOcclusionTinyInverse), V(1.0f) / d[k]);
        negative[k] = d[k] < V(0.0f);
    }
}

// Sets the rays up and clips each segment [0, maxDist] to the box, axis by axis; tiny
// components do not narrow it. Returns the lanes that enter the box: a lane misses once its
// near end passes its far end after any axis.
template <class V>
typename V::Mask enterBox(const float* box, const V o[3], const V d[3], V maxDist, V inv[3],
                          typename V::Mask negative[3], V& tnear, V& tfar) noexcept
{
    boxInverses(d, inv, negative);
    typename V::Mask missed{_mm_setzero_ps()};
    tnear = V(0.0f);
    tfar = maxDist;
    for (int k = 0; k < 3; ++k) {
        const auto tiny = V(kTinyDirection) >= lanes::abs(d[k]);
        const V t1 = (V(box[3 + k]) - o[k]) / d[k];
        const V t2 = (V(box[k]) - o[k]) / d[k];
        tnear = lanes::select(tiny, tnear, lanes::max(tnear, lanes::min(t1, t2)));
        tfar = lanes::select(tiny, tfar, lanes::min(tfar, lanes::max(t1, t2)));
        missed = missed | (tnear > tfar);
    }
    tfar = tfar + V(kSegmentPad);
    return lanes::andNot(missed, lanes::allLanes<V::kLanes>());
}

// The one-ray forms, on a Ray with its origin and direction filled in.
inline void setUpInverses(Ray& r) noexcept
{
    lanes::Float1 d[3] = {r.d[0], r.d[1], r.d[2]}, inv[3];
    lanes::Mask1 negative[3];
    boxInverses(d, inv, negative);
    for (int k = 0; k < 3; ++k) r.inv[k] = inv[k].first(), r.sign[k] = lanes::bits(negative[k]);
}

// False when the ray misses the box.
inline bool enterBox(const float* box, float maxDist, Ray& r) noexcept
{
    const lanes::Float1 o[3] = {r.o[0], r.o[1], r.o[2]}, d[3] = {r.d[0], r.d[1], r.d[2]};
    lanes::Float1 inv[3], tnear, tfar;
    lanes::Mask1 negative[3];
    const auto inside = enterBox(box, o, d, lanes::Float1(maxDist), inv, negative, tnear, tfar);
    for (int k = 0; k < 3; ++k) r.inv[k] = inv[k].first(), r.sign[k] = lanes::bits(negative[k]);
    r.tnear = tnear.first();
    r.tfar = tfar.first();
    return lanes::any(inside);
}

// The layered query's later segments: from the new origin to where the ray leaves the box,
// reusing the first layer's inverses and sign flags.
inline void reenterBox(const float* box, Ray& r) noexcept
{
    float tfar = kFloatMax;
    for (int k = 0; k < 3; ++k) {
        const float a = (box[k] - r.o[k]) * r.inv[k];
        const float b = (box[3 + k] - r.o[k]) * r.inv[k];
        tfar = minOf(tfar, maxOf(a, b));
    }
    r.tnear = 0.0f;
    r.tfar = tfar + kSegmentPad;
}

// Occlusion rays test 0 < t < 1 without the box.
inline void setUpOcclusion(Ray& r) noexcept
{
    lanes::Float1 d[3] = {r.d[0], r.d[1], r.d[2]}, inv[3];
    lanes::Mask1 negative[3];
    occlusionInverses(d, inv, negative);
    for (int k = 0; k < 3; ++k) r.inv[k] = inv[k].first(), r.sign[k] = lanes::bits(negative[k]);
    r.tnear = 0.0f;
    r.tfar = kOcclusionFar;
}

/*
 * Projected ray/triangle test, written once for one ray or four. The record stores the plane
 * as w = C[w] - nu (u - C[u]) - nv (v - C[v]) and the edge functions scaled by 1 / N[w], so
 * the hit needs one division. P and Q are the barycentric weights of corners A and B times D;
 * a point on an edge counts. Returns the lanes (of `lanes`) that hit closer than `best`, with
 * their t, P / D and Q / D. The record must have a nonzero axis word.
 */
template <class V>
inline typename V::Mask hitTriangle(const TriangleAccel& a, const V o[3], const V d[3], V best,
                                    typename V::Mask lanes, V& t, V& p, V& q) noexcept
{
    const std::uint32_t axes = a.axes;
    const int u = (axes >> 2) & 3, v = axes & 3, w = (axes >> 4) & 3;
    const V nu(a.nu), nv(a.nv), zero(0.0f);
    const V D = (nu * d[u] + nv * d[v]) + d[w];
    const V eu = V(a.cu) - o[u], ev = V(a.cv) - o[v];
    const V nt = ((V(a.cw) + nu * eu) + nv * ev) - o[w];
    const V x1 = d[u] * nt - eu * D;
    const V x2 = d[v] * nt - ev * D;
    const V P = V(a.e2v) * x1 - V(a.e2u) * x2;
    const V Q = V(a.e1u) * x2 - V(a.e1v) * x1;
    const V R = (D - P) - Q;
    const auto inside = lanes & (R * P >= zero) & (P * Q >= zero) & (R * Q >= zero);
    if (!lanes::any(inside)) return inside;
    t = nt / D;
    const auto hit = inside & (best > t) & (t > zero);
    if (!lanes::any(hit)) return hit;
    p = P / D;
    q = Q / D;
    return hit;
}

/*
 * Front-to-back walk of one ray. At an inner node the ray visits the near child first and
 * keeps the far child on a stack with the segment's far end; it skips a child its segment
 * cannot reach, with an epsilon of slack. After each leaf the walk stops once the segment
 * lies wholly beyond the best hit. The build keeps depth <= kMaxTreeDepth, which bounds
 * the stack.
 * The policy decides which triangles count and what a hit does (returns true to stop).
 *
 * The walk advances one node per step, so a caller may run several walks in turn and let the
 * fetch of one ray's next node overlap the work of the others; each step asks the cache for
 * the node it moves to. Run alone, the steps are the plain loop.
 */
template <class Policy>
class TreeWalk {
   public:
    Policy hits;

    TreeWalk() = default;
    TreeWalk(const KDTreeNode* root, const Ray& r, const Policy& h) noexcept { begin(root, r, h); }

    const Ray& ray() const noexcept { return ray_; }

    void begin(const KDTreeNode* root, const Ray& r, const Policy& h) noexcept
    {
        hits = h;
        ray_ = r;
        node_ = root;
        depth_ = 0;
        leafReady_ = false;
        tnear_ = r.tnear;
        tfar_ = r.tfar;
    }

    // Visits one inner node, or one leaf and the stack entry after it; false once the ray is
    // done.
    [[gnu::always_inline]] bool step(const TriangleAccel* accel, float epsilon) noexcept
    {
        const KDTreeNode* node = node_;
        if (isInner(node)) {
            node_ = innerStep(node, epsilon);
            prefetch(node_);
            return true;
        }
        if (!leafReady_) {
            // The triangle records are the other cache misses of a walk: ask for them now
            // and test them on the next step.
            leafReady_ = true;
            int local[3];
            const int* list = nullptr;
            const int count = leafTriangles(node, local, &list);
            for (int k = 0; k < count; ++k)
                _mm_prefetch(reinterpret_cast<const char*>(accel + list[k]), _MM_HINT_T0);
            if (count > 0) return true;
        }
        leafReady_ = false;
        if (testLeaf(node, accel)) return false;
        if (depth_ == 0 || tfar_ >= hits.best) return false;
        tnear_ = tfar_;
        --depth_;
        node_ = stack_[depth_].node;
        tfar_ = stack_[depth_].tfar;
        prefetch(node_);
        return true;
    }

   private:
    // Decides one inner node and returns the child to visit, keeping the far one on the stack.
    const KDTreeNode* innerStep(const KDTreeNode* node, float epsilon) noexcept
    {
        const int axis = splitAxis(node);
        const float t = (splitOf(node) - ray_.o[axis]) * ray_.inv[axis];
        const KDTreeNode* pair = childPair(node);
        const KDTreeNode* nearChild = pair + ray_.sign[axis];
        const KDTreeNode* farChild = pair + (1 - ray_.sign[axis]);
        if (tnear_ - t > epsilon) return farChild;
        if (!(t - tfar_ > epsilon)) {
            stack_[depth_++] = {farChild, tfar_};
            tfar_ = maxOf(tnear_, minOf(t, tfar_));
        }
        return nearChild;
    }

    static void prefetch(const KDTreeNode* node) noexcept
    {
        _mm_prefetch(reinterpret_cast<const char*>(node), _MM_HINT_T0);
    }

    // Tests the leaf's triangles in list order; true when the policy ends the ray.
    bool testLeaf(const KDTreeNode* node, const TriangleAccel* accel) noexcept
    {
        const lanes::Float1 o[3] = {ray_.o[0], ray_.o[1], ray_.o[2]};
        const lanes::Float1 d[3] = {ray_.d[0], ray_.d[1], ray_.d[2]};
        int local[3];
        const int* list = nullptr;
        const int count = leafTriangles(node, local, &list);
        for (int k = 0; k < count; ++k) {
            const int n = list[k];
            const TriangleAccel a = loadUnaligned(accel + n);  // the records may sit anywhere
            if (a.axes == 0 || hits.skip(n)) continue;
            lanes::Float1 t, p, q;
            const auto hit =
                hitTriangle(a, o, d, lanes::Float1(hits.best), lanes::allLanes<1>(), t, p, q);
            if (lanes::any(hit) && hits.onHit(n, t.first(), p.first(), q.first())) return true;
        }
        return false;
    }

    struct Entry {
        const KDTreeNode* node;
        float tfar;
    };
    Ray ray_;
    const KDTreeNode* node_;
    int depth_;
    bool leafReady_;  // the current leaf's records were asked for
    float tnear_, tfar_;
    Entry stack_[kMaxTreeDepth];  // one entry at most per inner node between the root and a leaf
};

// The whole walk of one ray at once; the policy holds the outcome.
template <class Policy>
void walkTree(const KDTreeNode* root, const TriangleAccel* accel, float epsilon, Ray& r,
              Policy& hits) noexcept
{
    TreeWalk<Policy> walk(root, r, hits);
    while (walk.step(accel, epsilon)) {
    }
    hits = walk.hits;
}

/*
 * Walks rays 0 .. count - 1 kSlots at a time, taking turns one step each, so that the cache
 * misses of rays that go separate ways overlap instead of queueing. start(i, slot, ray, hits)
 * sets ray i up in a slot and returns false when it has nothing to walk. finish(i, slot, ray,
 * hits) takes the outcome of a walk. Every walk takes exactly the steps it would take alone.
 */
template <int kSlots, class Policy, class Start, class Finish>
void walkInterleaved(const KDTreeNode* root, const TriangleAccel* accel, float epsilon,
                     std::size_t count, Start start, Finish finish) noexcept
{
    TreeWalk<Policy> walk[kSlots];
    std::size_t ray[kSlots];
    bool busy[kSlots];
    std::size_t next = 0;
    auto refill = [&](int s) {
        while (next < count) {
            const std::size_t i = next++;
            Ray r;
            Policy h;
            if (!start(i, s, r, h)) continue;
            walk[s].begin(root, r, h);
            ray[s] = i;
            return true;
        }
        return false;
    };
    int live = 0;
    for (int s = 0; s < kSlots; ++s) live += busy[s] = refill(s);
    while (live > 0)
        for (int s = 0; s < kSlots; ++s) {
            if (!busy[s] || walk[s].step(accel, epsilon)) continue;
            Ray r = walk[s].ray();
            Policy h = walk[s].hits;
            finish(ray[s], s, r, h);
            if (!refill(s)) busy[s] = false, --live;
        }
}

// The upper child of an inner node keeps its children past the whole subtree of the lower
// one, so its offset tells roughly how large the tree is without walking it. Trees of this
// size or more outgrow the core's own caches, and interleaved walks pay for themselves only
// there. A leaf child (an empty slab cut off, say) sends the look one level down the other.
constexpr std::int32_t kLargeTreeBytes = 512 * 1024;

inline bool treeLooksLarge(const KDTreeNode* root) noexcept
{
    const KDTreeNode* node = root;
    for (int level = 0; level < 8 && isInner(node); ++level) {
        const KDTreeNode* pair = childPair(node);
        if (!isInner(pair)) {
            node = pair + 1;
        } else if (!isInner(pair + 1)) {
            node = pair;
        } else {
            return childPairOffset(pair + 1) >= kLargeTreeBytes / 2;
        }
    }
    return false;
}

}  // namespace vlkr::raytrace
