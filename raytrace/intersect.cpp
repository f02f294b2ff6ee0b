// Ray/scene intersection over the k-d tree: nearest hit, layered hits and occlusion.
#include "intersect.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "hit_policies.h"
#include "kdtree_walk.h"
#include "packet_walk.h"

namespace vlkr::raytrace {
namespace {

// How many single-ray walks take turns; enough to keep several node fetches in flight.
constexpr int kInterleavedRays = 16;

void loadRay(const float* const dir[3], std::size_t i, float d[3]) noexcept
{
    for (int k = 0; k < 3; ++k) d[k] = dir[k][i];
}

int signPattern(const Ray& r) { return r.sign[0] | r.sign[1] << 1 | r.sign[2] << 2; }

// Splits the rays of `ready` into the largest group sharing one sign pattern, returned as a
// lane mask with its first lane; the rest go through the single-ray walk.
int packetLanes(const Ray rays[4], int ready, int& first)
{
    int best = 0;
    for (int l = 0; l < 4; ++l) {
        if (!(ready >> l & 1)) continue;
        int group = 0;
        for (int m = 0; m < 4; ++m)
            if ((ready >> m & 1) && signPattern(rays[m]) == signPattern(rays[l])) group |= 1 << m;
        if (__builtin_popcount(group) > __builtin_popcount(best)) {
            best = group;
            first = l;
        }
    }
    return best;
}

// Sets up every ray of the block; in each group of four, the rays sharing a sign pattern walk
// together (packet(p, lanes, i)) and the rest alone (single(ray, i)), as do all rays when
// inFours is false.
template <class SetUp, class Single, class PacketFn>
void traceBlock(std::size_t count, bool inFours, SetUp setUp, Single single, PacketFn packet)
{
    std::size_t i = 0;
    for (; inFours && i + 4 <= count; i += 4) {
        Ray rays[4];
        int ready = 0;
        for (int l = 0; l < 4; ++l) ready |= setUp(rays[l], i + l) ? 1 << l : 0;
        int first = 0;
        const int lanes = packetLanes(rays, ready, first);
        if (__builtin_popcount(lanes) > 1) {
            Packet4 p = gatherPacket(rays, lanes, first);
            packet(p, lanes, i);
            ready &= ~lanes;
        }
        for (int l = 0; l < 4; ++l)
            if (ready >> l & 1) single(rays[l], i + l);
    }
    for (; i < count; ++i) {
        Ray ray;
        if (setUp(ray, i)) single(ray, i);
    }
}

}  // namespace

void intersectNearest(Origins origin, const float* const dir[3], float* dist, float* const hit[2],
                      int* triangle, const IntersectContext& ctx, PacketSize block) noexcept
{
    const std::size_t count = std::size_t(block.width) * std::size_t(block.height);
    auto store = [&](std::size_t i, const NearestHit& h) {
        if (h.triangle < 0) return;
        dist[i] = h.best;
        hit[0][i] = h.p;
        hit[1][i] = h.q;
        triangle[i] = h.triangle;
    };
    auto single = [&](Ray& ray, std::size_t i) {
        NearestHit h{dist[i]};
        walkTree(ctx.pRootNode, ctx.pAccel, kNodeEpsilon, ray, h);
        store(i, h);
    };
    auto setUp = [&](Ray& ray, std::size_t i) {
        triangle[i] = -1;
        for (int k = 0; k < 3; ++k)
            ray.o[k] = origin.shared ? origin.shared[k] : origin.perRay[k][i];
        loadRay(dir, i, ray.d);
        return enterBox(ctx.pBound, dist[i], ray);
    };

    // Per-ray origins are rarely coherent enough to share a walk; their walks take turns
    // instead, so that their node fetches overlap.
    if (!origin.shared) {
        walkInterleaved<kInterleavedRays, NearestHit>(
            ctx.pRootNode, ctx.pAccel, kNodeEpsilon, count,
            [&](std::size_t i, Ray& ray, NearestHit& h) {
                h.best = dist[i];
                return setUp(ray, i);
            },
            store);
        return;
    }

    // Rays from one origin travel together in fours.
    auto packet = [&](Packet4& p, int lanes, std::size_t i) {
        alignas(16) float best[4];
        for (int l = 0; l < 4; ++l) best[l] = dist[i + l];
        NearestHit4 h{_mm_load_ps(best)};
        walkPacket(ctx.pRootNode, ctx.pAccel, kNodeEpsilon, p, lanes, h);
        alignas(16) float t[4], u[4], v[4];
        alignas(16) int tri[4];
        h.best.store(t);
        h.p.store(u);
        h.q.store(v);
        h.triangle.store(tri);
        for (int l = 0; l < 4; ++l) {
            if (!(lanes >> l & 1) || tri[l] < 0) continue;
            dist[i + l] = t[l];
            hit[0][i + l] = u[l];
            hit[1][i + l] = v[l];
            triangle[i + l] = tri[l];
        }
    };
    traceBlock(count, true, setUp, single, packet);
}

void intersectLayers(const float origin[3], const float* const dir[3], float* dist,
                     float* const hit[2], int* triangle, const VolumeSize& volume,
                     const IntersectContext& ctx) noexcept
{
    const int layers = volume.depth;
    const std::size_t plane = std::size_t(volume.width) * std::size_t(volume.height);
    std::fill(triangle, triangle + plane * std::size_t(layers), -1);
    for (std::size_t i = 0; i < plane; ++i) {
        Ray ray;
        for (int k = 0; k < 3; ++k) ray.o[k] = origin[k];
        loadRay(dir, i, ray.d);
        if (!enterBox(ctx.pBound, dist[i], ray)) continue;
        int ring[kRecentTriangles];
        int previous = -1;
        for (int layer = 1;; ++layer) {
            const std::size_t at = std::size_t(layer - 1) * plane + i;
            LayerHit h;
            h.best = dist[at];
            h.ring = ring;
            h.ringSlots = (layer - 1) % kRecentTriangles;
            h.previous = previous;
            walkTree(ctx.pRootNode, ctx.pAccel, kLayerEpsilon, ray, h);
            if (h.triangle < 0) break;
            const float t = h.best;
            triangle[at] = h.triangle;
            hit[0][at] = h.p;
            hit[1][at] = h.q;
            dist[at] = layer > 1 ? t + dist[at - plane] : t;
            for (int k = 0; k < 3; ++k) ray.o[k] = ray.o[k] + ray.d[k] * t;
            ring[(layer - 1) % kRecentTriangles] = h.triangle;
            previous = h.triangle;
            if (layer == layers) break;

            // The next layer starts at the hit and runs to where the ray leaves the box.
            dist[at + plane] = kFloatMax;
            reenterBox(ctx.pBound, ray);
        }
    }
}

void intersectAny(const float origin[3], const float* const dir[3], int* triangle, int* mask,
                  PacketSize block, const IntersectContext& ctx) noexcept
{
    const std::size_t count = std::size_t(block.width) * std::size_t(block.height);
    auto setUp = [&](Ray& ray, std::size_t i) {
        triangle[i] = -1;
        if (mask[i] < 0) return false;
        for (int k = 0; k < 3; ++k) ray.o[k] = origin[k];
        loadRay(dir, i, ray.d);
        setUpOcclusion(ray);
        return true;
    };
    auto single = [&](Ray& ray, std::size_t i) {
        AnyHit h;
        walkTree(ctx.pRootNode, ctx.pAccel, kNodeEpsilon, ray, h);
        if (h.triangle < 0) return;
        triangle[i] = h.triangle;
        mask[i] = -1;
    };
    auto packet = [&](Packet4& p, int lanes, std::size_t i) {
        AnyHit4 h;
        walkPacket(ctx.pRootNode, ctx.pAccel, kNodeEpsilon, p, lanes, h);
        for (int l = 0; l < 4; ++l) {
            if (!(lanes >> l & 1) || h.triangle[l] < 0) continue;
            triangle[i + l] = h.triangle[l];
            mask[i + l] = -1;
        }
    };
    traceBlock(count, true, setUp, single, packet);
}

}  // namespace vlkr::raytrace
