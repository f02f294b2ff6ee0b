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

// Rays from one origin walk in packets of four rows by four columns of the block, a register
// a row: a tile is more alike in direction than a run of sixteen along one row.
constexpr int kPacketRegs = 4;
using TilePacket = Packet<kPacketRegs>;
constexpr int kTileRays = TilePacket::kRays;

// The largest group of the rays of `ready` that share one sign pattern, as a lane mask, with
// its first lane; the rest go through the single-ray walk.
unsigned packetLanes(const Ray rays[kTileRays], unsigned ready, int& first)
{
    unsigned group[8] = {};
    for (int l = 0; l < kTileRays; ++l)
        if (ready >> l & 1) group[signPattern(rays[l])] |= 1u << l;
    unsigned best = 0;
    for (unsigned g : group)
        if (__builtin_popcount(g) > __builtin_popcount(best)) best = g;
    first = 0;
    while (best && !(best >> first & 1)) ++first;  // a plain loop: tzcnt is beyond SSE2
    return best;
}

// Sets up every ray of the block tile by tile; in each tile the rays sharing a sign pattern
// walk together (packet(p, lanes, index)) and the rest alone (single(ray, i)).
template <class SetUp, class Single, class PacketFn>
void traceTiles(PacketSize block, SetUp setUp, Single single, PacketFn packet)
{
    for (int y = 0; y < block.height; y += kPacketRegs)
        for (int x = 0; x < block.width; x += 4) {
            Ray rays[kTileRays];
            std::size_t index[kTileRays] = {};
            unsigned ready = 0;
            for (int l = 0; l < kTileRays; ++l) {
                const int row = y + l / 4, col = x + l % 4;
                if (row >= block.height || col >= block.width) continue;
                index[l] = std::size_t(row) * std::size_t(block.width) + std::size_t(col);
                if (setUp(rays[l], index[l])) ready |= 1u << l;
            }
            int first = 0;
            const unsigned lanes = packetLanes(rays, ready, first);
            if (__builtin_popcount(lanes) > 1) {
                TilePacket p = gatherPacket<kPacketRegs>(rays, lanes, first);
                packet(p, lanes, index);
                ready &= ~lanes;
            }
            for (int l = 0; l < kTileRays; ++l)
                if (ready >> l & 1) single(rays[l], index[l]);
        }
}

// Whether the block's rays go separate ways: most neighbours among its first rays differ in
// the signs of their directions. Random rays differ seven times in eight; rays bounced off
// one surface or aimed through a grid rarely do.
bool raysLookScattered(const float* const dir[3], std::size_t count) noexcept
{
    const std::size_t sample = std::min<std::size_t>(count, 64);
    auto pattern = [&](std::size_t i) {
        return int(dir[0][i] < 0.0f) | int(dir[1][i] < 0.0f) << 1 | int(dir[2][i] < 0.0f) << 2;
    };
    std::size_t changes = 0;
    for (std::size_t i = 1; i < sample; ++i) changes += pattern(i) != pattern(i - 1);
    return 2 * changes > sample;
}

/*
 * Walks the rays of a block one after another, or interleaved when they go separate ways
 * through a tree larger than the caches; the results are the same either way. Rays that
 * follow each other down the same paths keep the nodes in the cache and the branches
 * predicted, which interleaving would lose: it halves the speed of coherent rays (a quarter
 * of it on shadow rays), while on scattered rays through a large tree it gains 10 to 40%.
 */
template <class Policy, class Start, class Finish>
void walkRays(const IntersectContext& ctx, const float* const dir[3], float epsilon,
              std::size_t count, Start start, Finish finish) noexcept
{
    if (treeLooksLarge(ctx.pRootNode) && raysLookScattered(dir, count))
        walkInterleaved<kInterleavedRays, Policy>(ctx.pRootNode, ctx.pAccel, epsilon, count, start,
                                                  finish);
    else
        walkInterleaved<1, Policy>(ctx.pRootNode, ctx.pAccel, epsilon, count, start, finish);
}

// The nearest hits of a block, walking with the given node epsilon.
void nearestHits(Origins origin, const float* const dir[3], float* dist, float* const hit[2],
                 int* triangle, const IntersectContext& ctx, PacketSize block,
                 float epsilon) noexcept
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
        walkTree(ctx.pRootNode, ctx.pAccel, epsilon, ray, h);
        store(i, h);
    };
    auto setUp = [&](Ray& ray, std::size_t i) {
        triangle[i] = -1;
        for (int k = 0; k < 3; ++k)
            ray.o[k] = origin.shared ? origin.shared[k] : origin.perRay[k][i];
        loadRay(dir, i, ray.d);
        return enterBox(ctx.pBound, dist[i], ray);
    };

    // Per-ray origins do not share a walk; scattered ones take turns instead, so that their
    // node fetches overlap.
    if (!origin.shared) {
        walkRays<NearestHit>(
            ctx, dir, epsilon, count,
            [&](std::size_t i, int, Ray& ray, NearestHit& h) {
                h.best = dist[i];
                return setUp(ray, i);
            },
            [&](std::size_t i, int, Ray&, NearestHit& h) {
                store(i, h);
                return false;
            });
        return;
    }

    // Rays from one origin walk in tiles.
    auto packet = [&](TilePacket& p, unsigned lanes, const std::size_t* index) {
        alignas(16) float best[kTileRays];
        for (int l = 0; l < kTileRays; ++l) best[l] = (lanes >> l & 1) ? dist[index[l]] : 0.0f;
        NearestHit4 h[kPacketRegs];
        for (int g = 0; g < kPacketRegs; ++g) h[g].best = lanes::Float4::load(best + 4 * g);
        walkPacket(ctx.pRootNode, ctx.pAccel, epsilon, p, lanes, h);
        for (int g = 0; g < kPacketRegs; ++g) {
            alignas(16) float t[4], u[4], v[4];
            alignas(16) int tri[4];
            h[g].best.store(t);
            h[g].p.store(u);
            h[g].q.store(v);
            h[g].triangle.store(tri);
            for (int l = 0; l < 4; ++l) {
                if (!(lanes >> (4 * g + l) & 1) || tri[l] < 0) continue;
                const std::size_t i = index[4 * g + l];
                dist[i] = t[l];
                hit[0][i] = u[l];
                hit[1][i] = v[l];
                triangle[i] = tri[l];
            }
        }
    };
    traceTiles(block, setUp, single, packet);
}

}  // namespace

void intersectNearest(Origins origin, const float* const dir[3], float* dist, float* const hit[2],
                      int* triangle, const IntersectContext& ctx, PacketSize block) noexcept
{
    nearestHits(origin, dir, dist, hit, triangle, ctx, block, kNodeEpsilon);
}

void intersectLayers(const float origin[3], const float* const dir[3], float* dist,
                     float* const hit[2], int* triangle, const VolumeSize& volume,
                     const IntersectContext& ctx) noexcept
{
    const int layers = volume.depth;
    const std::size_t plane = std::size_t(volume.width) * std::size_t(volume.height);
    std::fill(triangle, triangle + plane * std::size_t(layers), -1);

    // What a ray carries from layer to layer.
    struct Recent {
        int ring[kRecentTriangles];
        int layer;
    } recent;
    auto nextLayer = [&](int previous, std::size_t at, LayerHit& h) {
        h.best = dist[at];
        h.ring = recent.ring;
        h.ringSlots = (recent.layer - 1) % kRecentTriangles;
        h.previous = previous;
    };
    auto finish = [&](std::size_t i, int, Ray& ray, LayerHit& h) {
        const int layer = recent.layer;
        const std::size_t at = std::size_t(layer - 1) * plane + i;
        if (h.triangle < 0) return false;
        const float t = h.best;
        triangle[at] = h.triangle;
        hit[0][at] = h.p;
        hit[1][at] = h.q;
        dist[at] = layer > 1 ? t + dist[at - plane] : t;
        for (int k = 0; k < 3; ++k) ray.o[k] = ray.o[k] + ray.d[k] * t;
        recent.ring[(layer - 1) % kRecentTriangles] = h.triangle;
        if (layer == layers) return false;

        // The next layer starts at the hit and runs to where the ray leaves the box.
        dist[at + plane] = kFloatMax;
        reenterBox(ctx.pBound, ray);
        recent.layer = layer + 1;
        nextLayer(h.triangle, at + plane, h);
        h.triangle = -1;
        return true;
    };

    // The first layer has no previous triangle and consults no ring slot: it is the nearest
    // hit with the layered query's node epsilon, and walks in tiles as eye rays do.
    nearestHits(Origins{origin, nullptr}, dir, dist, hit, triangle, ctx,
                PacketSize{volume.width, volume.height}, kLayerEpsilon);
    if (layers == 1) return;

    // Each ray with a first hit goes on from there, set up as it was for the first layer.
    auto start = [&](std::size_t i, int slot, Ray& ray, LayerHit& h) {
        if (triangle[i] < 0) return false;
        for (int k = 0; k < 3; ++k) ray.o[k] = origin[k];
        loadRay(dir, i, ray.d);
        setUpInverses(ray);
        recent.layer = 1;
        h.triangle = triangle[i];
        h.best = dist[i];
        h.p = hit[0][i];
        h.q = hit[1][i];
        return finish(i, slot, ray, h);
    };
    // The rays share an origin and run through the block in order, so each walk finds the
    // nodes of its neighbour's in the cache and its branches taken the same way; taking turns
    // would lose both (measured: half the speed on the large scenes).
    walkInterleaved<1, LayerHit>(ctx.pRootNode, ctx.pAccel, kLayerEpsilon, plane, start, finish);
}

void intersectAny(const float origin[3], const float* const dir[3], int* triangle, int* mask,
                  PacketSize block, const IntersectContext& ctx) noexcept
{
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
    auto packet = [&](TilePacket& p, unsigned lanes, const std::size_t* index) {
        AnyHit4 h[kPacketRegs];
        walkPacket(ctx.pRootNode, ctx.pAccel, kNodeEpsilon, p, lanes, h);
        for (int l = 0; l < kTileRays; ++l) {
            const int tri = h[l / 4].triangle[l % 4];
            if (!(lanes >> l & 1) || tri < 0) continue;
            triangle[index[l]] = tri;
            mask[index[l]] = -1;
        }
    };
    traceTiles(block, setUp, single, packet);
}

}  // namespace vlkr::raytrace
