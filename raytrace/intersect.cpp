// Ray/scene intersection over the k-d tree: nearest hit, layered hits and occlusion.
#include "intersect.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "frame/unaligned.h"
#include "hit_policies.h"
#include "kdtree_walk.h"
#include "packet_walk.h"

namespace vlkr::raytrace {
namespace {

// How many single-ray walks take turns; enough to keep several node fetches in flight.
constexpr int kInterleavedRays = 16;

void loadRay(const float* const dir[3], std::size_t i, float d[3]) noexcept
{
    for (int k = 0; k < 3; ++k) d[k] = loadUnaligned(dir[k] + i);
}

// Component k of ray i's origin.
float originOf(Origins origin, int k, std::size_t i) noexcept
{
    return origin.shared ? origin.shared[k] : loadUnaligned(origin.perRay[k] + i);
}

// Rays from one origin walk in packets of four rows by four columns of the block, a register
// a row: a tile is more alike in direction than a run of sixteen along one row.
constexpr int kPacketRegs = 4;
using TilePacket = Packet<kPacketRegs>;
constexpr int kTileRays = TilePacket::kRays;

// Four rays of a tile row as a query sets them up, in the packet's registers.
struct RowRays {
    lanes::Float4 o[3], d[3], inv[3], tnear, tfar;
    lanes::Mask4 negative[3];
};

// Ray l of a tile packet alone, with its own sign flags.
Ray laneRay(const TilePacket& p, int l, int pattern)
{
    const int g = l / 4, lane = l % 4;
    alignas(16) float v[4];
    auto pick = [&](lanes::Float4 x) {
        x.store(v);
        return v[lane];
    };
    Ray r;
    for (int k = 0; k < 3; ++k) {
        r.o[k] = pick(p.o[g][k]);
        r.d[k] = pick(p.d[g][k]);
        r.inv[k] = pick(p.inv[g][k]);
        r.sign[k] = pattern >> k & 1;
    }
    r.tnear = pick(p.tnear[g]);
    r.tfar = pick(p.tfar[g]);
    return r;
}

// Calls tile(index, valid) for each 4 x 4 tile of the block: index[l] is the block element of
// lane l, and `valid` has the bits of the lanes inside the block.
template <class Tile>
void forEachTile(PacketSize block, Tile tile)
{
    for (int y = 0; y < block.height; y += kPacketRegs)
        for (int x = 0; x < block.width; x += 4) {
            std::size_t index[kTileRays] = {};
            unsigned valid = 0;
            for (int l = 0; l < kTileRays; ++l) {
                const int row = y + l / 4, col = x + l % 4;
                if (row >= block.height || col >= block.width) continue;
                index[l] = std::size_t(row) * std::size_t(block.width) + std::size_t(col);
                valid |= 1u << l;
            }
            tile(index, valid);
        }
}

// The sign pattern of each lane of `lanes`, from the sign masks of its register.
void lanePatterns(const lanes::Mask4 negative[3], int g, unsigned lanes, int pattern[])
{
    const int neg[3] = {lanes::bits(negative[0]), lanes::bits(negative[1]),
                        lanes::bits(negative[2])};
    for (int l = 0; l < 4; ++l)
        if (lanes >> l & 1)
            pattern[4 * g + l] =
                (neg[0] >> l & 1) | (neg[1] >> l & 1) << 1 | (neg[2] >> l & 1) << 2;
}

// Walks the lanes of `ready` in the packet: every sign pattern that two or more share walks
// as a packet of its own (packet(p, lanes)), and a lane whose pattern no other shares walks
// alone (single(ray, l)).
template <class Single, class PacketFn>
void walkTile(TilePacket& p, unsigned ready, const int pattern[], Single single, PacketFn packet)
{
    unsigned group[8] = {};
    for (int l = 0; l < kTileRays; ++l)
        if (ready >> l & 1) group[pattern[l]] |= 1u << l;
    for (int q = 0; q < 8; ++q) {
        const unsigned lanes = group[q];
        if (__builtin_popcount(lanes) < 2) continue;
        for (int k = 0; k < 3; ++k) p.sign[k] = q >> k & 1;
        packet(p, lanes);
        ready &= ~lanes;
    }
    for (int l = 0; l < kTileRays; ++l) {
        if (!(ready >> l & 1)) continue;
        Ray r = laneRay(p, l, pattern[l]);
        single(r, l);
    }
}

// Calls take(l, triangle, t, p, q) with the outcome of each lane l of `lanes` in the packet's
// nearest-hit policies; the tile's other lanes, walked in other groups, are left alone.
template <class Hits, class Take>
void takeResults(const Hits h[kPacketRegs], unsigned lanes, Take take)
{
    for (int g = 0; g < kPacketRegs; ++g) {
        alignas(16) float t[4], p[4], q[4];
        alignas(16) int tri[4];
        h[g].best.store(t);
        h[g].p.store(p);
        h[g].q.store(q);
        h[g].triangle.store(tri);
        for (int l = 0; l < 4; ++l)
            if (lanes >> (4 * g + l) & 1) take(4 * g + l, tri[l], t[l], p[l], q[l]);
    }
}

// The rays of a tile into the packet's registers, lane l from rays[l].
void gatherRays(const Ray rays[kTileRays], TilePacket& p)
{
    alignas(16) float v[3][3][kTileRays], seg[2][kTileRays];
    for (int l = 0; l < kTileRays; ++l) {
        for (int k = 0; k < 3; ++k) {
            v[0][k][l] = rays[l].o[k];
            v[1][k][l] = rays[l].d[k];
            v[2][k][l] = rays[l].inv[k];
        }
        seg[0][l] = rays[l].tnear;
        seg[1][l] = rays[l].tfar;
    }
    for (int g = 0; g < kPacketRegs; ++g) {
        for (int k = 0; k < 3; ++k) {
            p.o[g][k] = lanes::Float4::load(v[0][k] + 4 * g);
            p.d[g][k] = lanes::Float4::load(v[1][k] + 4 * g);
            p.inv[g][k] = lanes::Float4::load(v[2][k] + 4 * g);
        }
        p.tnear[g] = lanes::Float4::load(seg[0] + 4 * g);
        p.tfar[g] = lanes::Float4::load(seg[1] + 4 * g);
    }
}

/*
 * Sets up every ray of the block tile by tile, four rays at a time, and walks them:
 * setUpRow(index, valid, row) sets up the rays of `valid` (lane bits) at block elements index[]
 * and returns those with something to walk; then walkTile runs packet(p, lanes, index) and
 * single(ray, i).
 */
template <class SetUpRow, class Single, class PacketFn>
void traceTiles(PacketSize block, SetUpRow setUpRow, Single single, PacketFn packet)
{
    TilePacket p;
    forEachTile(block, [&](const std::size_t* index, unsigned valid) {
        unsigned ready = 0;
        int pattern[kTileRays] = {};
        for (int g = 0; g < kPacketRegs; ++g) {
            RowRays r{};
            const unsigned rowValid = valid >> (4 * g) & 15u;
            const unsigned rowReady = rowValid ? setUpRow(index + 4 * g, rowValid, r) : 0u;
            for (int k = 0; k < 3; ++k)
                p.o[g][k] = r.o[k], p.d[g][k] = r.d[k], p.inv[g][k] = r.inv[k];
            p.tnear[g] = r.tnear;
            p.tfar[g] = r.tfar;
            lanePatterns(r.negative, g, rowReady, pattern);
            ready |= rowReady << (4 * g);
        }
        if (ready == 0) return;  // a masked or missed tile needs no grouping
        walkTile(
            p, ready, pattern, [&](Ray& ray, int l) { single(ray, index[l]); },
            [&](TilePacket& q, unsigned lanes) { packet(q, lanes, index); });
    });
}

// Whether the block's rays go separate ways: most neighbours among its first rays differ in
// the signs of their directions. Random rays differ seven times in eight; rays bounced off
// one surface or aimed through a grid rarely do.
bool raysLookScattered(const float* const dir[3], std::size_t count) noexcept
{
    const std::size_t sample = std::min<std::size_t>(count, 64);
    auto pattern = [&](std::size_t i) {
        auto negative = [&](int k) { return int(loadUnaligned(dir[k] + i) < 0.0f); };
        return negative(0) | negative(1) << 1 | negative(2) << 2;
    };
    std::size_t changes = 0;
    for (std::size_t i = 1; i < sample; ++i) changes += pattern(i) != pattern(i - 1);
    return 2 * changes > sample;
}

/*
 * Walks scattered rays one after another, or interleaved through a tree larger than the
 * caches; the results are the same either way. Interleaving gains 10 to 40% on scattered rays
 * through a large tree, and loses on a small one, whose nodes stay cached anyway.
 */
template <class Policy, class Start, class Finish>
void walkRays(const IntersectContext& ctx, float epsilon, std::size_t count, Start start,
              Finish finish) noexcept
{
    if (treeLooksLarge(ctx.pRootNode))
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
        storeUnaligned(dist + i, h.best);
        storeUnaligned(hit[0] + i, h.p);
        storeUnaligned(hit[1] + i, h.q);
        storeUnaligned(triangle + i, h.triangle);
    };
    auto single = [&](Ray& ray, std::size_t i) {
        NearestHit h{loadUnaligned(dist + i)};
        walkTree(ctx.pRootNode, ctx.pAccel, epsilon, ray, h);
        store(i, h);
    };
    auto setUp = [&](Ray& ray, std::size_t i) {
        storeUnaligned(triangle + i, -1);
        for (int k = 0; k < 3; ++k) ray.o[k] = originOf(origin, k, i);
        loadRay(dir, i, ray.d);
        return enterBox(ctx.pBound, loadUnaligned(dist + i), ray);
    };

    // Rays with their own origins that go separate ways share no walk; the rest walk in tiles.
    // Rays that follow each other down the same paths keep the nodes in the cache and the
    // branches predicted, which taking turns would lose: it halves the speed of coherent rays
    // (leaves a fifth of it on shadow rays).
    if (!origin.shared && raysLookScattered(dir, count)) {
        walkRays<NearestHit>(
            ctx, epsilon, count,
            [&](std::size_t i, int, Ray& ray, NearestHit& h) {
                h.best = loadUnaligned(dist + i);
                return setUp(ray, i);
            },
            [&](std::size_t i, int, Ray&, NearestHit& h) { store(i, h); });
        return;
    }

    // Tile rays are set up four at a time.
    auto setUpRow = [&](const std::size_t* index, unsigned valid, RowRays& r) {
        alignas(16) float o[3][4] = {}, d[3][4] = {}, maxDist[4] = {};
        for (int l = 0; l < 4; ++l) {
            if (!(valid >> l & 1)) continue;
            const std::size_t i = index[l];
            storeUnaligned(triangle + i, -1);
            for (int k = 0; k < 3; ++k) {
                o[k][l] = originOf(origin, k, i);
                d[k][l] = loadUnaligned(dir[k] + i);
            }
            maxDist[l] = loadUnaligned(dist + i);
        }
        for (int k = 0; k < 3; ++k) {
            r.o[k] = lanes::Float4::load(o[k]);
            r.d[k] = lanes::Float4::load(d[k]);
        }
        const lanes::Mask4 inside = enterBox(ctx.pBound, r.o, r.d, lanes::Float4::load(maxDist),
                                             r.inv, r.negative, r.tnear, r.tfar);
        return unsigned(lanes::bits(inside)) & valid;
    };
    auto packet = [&](TilePacket& p, unsigned lanes, const std::size_t* index) {
        alignas(16) float best[kTileRays];
        for (int l = 0; l < kTileRays; ++l)
            best[l] = (lanes >> l & 1) ? loadUnaligned(dist + index[l]) : 0.0f;
        NearestHit4 h[kPacketRegs];
        for (int g = 0; g < kPacketRegs; ++g) h[g].best = lanes::Float4::load(best + 4 * g);
        walkPacket(ctx.pRootNode, ctx.pAccel, epsilon, p, lanes, h, origin.shared);
        takeResults(h, lanes, [&](int l, int tri, float t, float u, float v) {
            if (tri < 0) return;
            const std::size_t i = index[l];
            storeUnaligned(dist + i, t);
            storeUnaligned(hit[0] + i, u);
            storeUnaligned(hit[1] + i, v);
            storeUnaligned(triangle + i, tri);
        });
    };
    traceTiles(block, setUpRow, single, packet);
}

// The caller's box and shared origin may sit at any byte address, so the walks read copies.
IntersectContext withBoxCopy(const IntersectContext& ctx, float box[6]) noexcept
{
    for (int k = 0; k < 6; ++k) box[k] = loadUnaligned(ctx.pBound + k);
    return {box, ctx.pAccel, ctx.pRootNode};
}

using Point = lanes::Three<float>;

}  // namespace

void intersectNearest(Origins origin, const float* const dir[3], float* dist, float* const hit[2],
                      int* triangle, const IntersectContext& ctx, PacketSize block) noexcept
{
    float box[6];
    const Point shared = origin.shared ? Point(origin.shared) : Point{};
    if (origin.shared) origin.shared = shared.at;
    nearestHits(origin, dir, dist, hit, triangle, withBoxCopy(ctx, box), block, kNodeEpsilon);
}

void intersectLayers(const float callerOrigin[3], const float* const dir[3], float* dist,
                     float* const hit[2], int* triangle, const VolumeSize& volume,
                     const IntersectContext& callerCtx) noexcept
{
    float box[6];
    const IntersectContext ctx = withBoxCopy(callerCtx, box);
    const Point shared(callerOrigin);
    const float* origin = shared.at;
    const int layers = volume.depth;
    const std::size_t plane = std::size_t(volume.width) * std::size_t(volume.height);
    std::memset(triangle, 0xFF, sizeof(int) * plane * std::size_t(layers));  // every entry -1

    // The first layer has no previous triangle and consults no ring slot: it is the nearest
    // hit with the layered query's node epsilon, and walks in tiles as eye rays do.
    const PacketSize block{volume.width, volume.height};
    nearestHits(Origins{origin, nullptr}, dir, dist, hit, triangle, ctx, block, kLayerEpsilon);
    if (layers == 1) return;

    // Later layers go tile by tile, layer after layer: each ray with a hit goes on from it with
    // the inverses and sign flags of its first layer, and the rays of the tile that still walk
    // and share a sign pattern walk each layer as one packet.
    forEachTile(block, [&](const std::size_t* index, unsigned valid) {
        Ray rays[kTileRays] = {};
        int pattern[kTileRays] = {};
        struct Recent {
            int ring[kRecentTriangles];
            int previous;
        } recent[kTileRays];

        // Records lane l's hit of `layer` and moves the ray to it; true when it walks again.
        auto advance = [&](int l, int layer, int tri, float t, float p, float q) {
            const std::size_t i = index[l], at = std::size_t(layer - 1) * plane + i;
            storeUnaligned(triangle + at, tri);
            storeUnaligned(hit[0] + at, p);
            storeUnaligned(hit[1] + at, q);
            storeUnaligned(dist + at, layer > 1 ? t + loadUnaligned(dist + at - plane) : t);
            Ray& ray = rays[l];
            for (int k = 0; k < 3; ++k) ray.o[k] = ray.o[k] + ray.d[k] * t;
            recent[l].ring[(layer - 1) % kRecentTriangles] = recent[l].previous = tri;
            if (layer == layers) return false;

            // The next layer starts at the hit and runs to where the ray leaves the box.
            storeUnaligned(dist + at + plane, kFloatMax);
            reenterBox(ctx.pBound, ray);
            return true;
        };
        unsigned alive = 0;
        for (int l = 0; l < kTileRays; ++l) {
            const std::size_t i = index[l];
            const int first = (valid >> l & 1) ? loadUnaligned(triangle + i) : -1;
            if (first < 0) continue;
            Ray& ray = rays[l];
            for (int k = 0; k < 3; ++k) ray.o[k] = origin[k];
            loadRay(dir, i, ray.d);
            setUpInverses(ray);
            pattern[l] = ray.sign[0] | ray.sign[1] << 1 | ray.sign[2] << 2;
            if (advance(l, 1, first, loadUnaligned(dist + i), loadUnaligned(hit[0] + i),
                        loadUnaligned(hit[1] + i)))
                alive |= 1u << l;
        }
        TilePacket p;
        for (int layer = 2; alive; ++layer) {
            const int ringSlots = (layer - 1) % kRecentTriangles;
            const std::size_t layerAt = std::size_t(layer - 1) * plane;
            int tri[kTileRays];
            float t[kTileRays], u[kTileRays], v[kTileRays];
            gatherRays(rays, p);
            walkTile(
                p, alive, pattern,
                [&](Ray& ray, int l) {
                    LayerHit h;
                    h.best = loadUnaligned(dist + layerAt + index[l]);
                    h.ring = recent[l].ring;
                    h.ringSlots = ringSlots;
                    h.previous = recent[l].previous;
                    walkTree(ctx.pRootNode, ctx.pAccel, kLayerEpsilon, ray, h);
                    tri[l] = h.triangle, t[l] = h.best, u[l] = h.p, v[l] = h.q;
                },
                [&](TilePacket& q, unsigned lanes) {
                    LayerHit4 h[kPacketRegs];
                    for (int g = 0; g < kPacketRegs; ++g) {
                        alignas(16) float best[4] = {};
                        alignas(16) int previous[4] = {}, ring[kRecentTriangles][4] = {};
                        for (int l = 0; l < 4; ++l) {
                            const int lane = 4 * g + l;
                            if (!(lanes >> lane & 1)) continue;
                            best[l] = loadUnaligned(dist + layerAt + index[lane]);
                            previous[l] = recent[lane].previous;
                            for (int s = 0; s < ringSlots; ++s) ring[s][l] = recent[lane].ring[s];
                        }
                        h[g].best = lanes::Float4::load(best);
                        h[g].previous = _mm_load_si128(reinterpret_cast<const __m128i*>(previous));
                        for (int s = 0; s < ringSlots; ++s)
                            h[g].ring[s] =
                                _mm_load_si128(reinterpret_cast<const __m128i*>(ring[s]));
                        h[g].ringSlots = ringSlots;
                    }
                    walkPacket(ctx.pRootNode, ctx.pAccel, kLayerEpsilon, q, lanes, h, nullptr);
                    takeResults(h, lanes,
                                [&](int l, int hitTri, float hitT, float hitP, float hitQ) {
                                    tri[l] = hitTri, t[l] = hitT, u[l] = hitP, v[l] = hitQ;
                                });
                });
            for (int l = 0; l < kTileRays; ++l) {
                if (!(alive >> l & 1)) continue;
                if (tri[l] < 0 || !advance(l, layer, tri[l], t[l], u[l], v[l])) alive &= ~(1u << l);
            }
        }
    });
}

void intersectAny(const float callerOrigin[3], const float* const dir[3], int* triangle, int* mask,
                  PacketSize block, const IntersectContext& ctx) noexcept
{
    const Point shared(callerOrigin);
    const float* origin = shared.at;
    auto setUpRow = [&](const std::size_t* index, unsigned valid, RowRays& r) {
        alignas(16) float d[3][4] = {};
        unsigned traced = 0;
        for (int l = 0; l < 4; ++l) {
            if (!(valid >> l & 1)) continue;
            const std::size_t i = index[l];
            storeUnaligned(triangle + i, -1);
            if (loadUnaligned(mask + i) < 0) continue;
            traced |= 1u << l;
            for (int k = 0; k < 3; ++k) d[k][l] = loadUnaligned(dir[k] + i);
        }
        if (traced == 0) return 0u;
        for (int k = 0; k < 3; ++k) r.o[k] = origin[k], r.d[k] = lanes::Float4::load(d[k]);
        occlusionInverses(r.d, r.inv, r.negative);
        r.tnear = 0.0f;
        r.tfar = kOcclusionFar;
        return traced;
    };
    auto single = [&](Ray& ray, std::size_t i) {
        AnyHit h;
        walkTree(ctx.pRootNode, ctx.pAccel, kNodeEpsilon, ray, h);
        if (h.triangle < 0) return;
        storeUnaligned(triangle + i, h.triangle);
        storeUnaligned(mask + i, -1);
    };
    auto packet = [&](TilePacket& p, unsigned lanes, const std::size_t* index) {
        AnyHit4 h[kPacketRegs];
        walkPacket(ctx.pRootNode, ctx.pAccel, kNodeEpsilon, p, lanes, h, origin);
        for (int l = 0; l < kTileRays; ++l) {
            const int tri = h[l / 4].triangle[l % 4];
            if (!(lanes >> l & 1) || tri < 0) continue;
            storeUnaligned(triangle + index[l], tri);
            storeUnaligned(mask + index[l], -1);
        }
    };
    traceTiles(block, setUpRow, single, packet);
}

}  // namespace vlkr::raytrace
