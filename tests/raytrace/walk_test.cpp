// The queries walk rays from one origin in packets and rays with their own origins in
// interleaved turns; every ray must still get, bit for bit, what its own single-ray walk gives.
#include <cfloat>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#define VLKR_DATA_DIR VLKR_SOURCE_DIR "/data"
#include "bench/scenes.h"
#include "raytrace/hit_policies.h"
#include "raytrace/kdtree_walk.h"
#include "test_mesh.h"
#include "vlkr.h"

namespace {

using namespace vlkr::raytrace;
using vlkr::test::bitsOf;
using vlkr::test::Mesh;
using vlkr::test::Scene;

// One block of rays and room for what a query writes.
struct Block {
    int width, height;
    std::vector<float> o[3], d[3], dist, p, q;
    std::vector<int> tri, mask;
    Block(int w, int h) : width(w), height(h)
    {
        const std::size_t n = std::size_t(w) * h;
        for (int k = 0; k < 3; ++k) o[k].resize(n), d[k].resize(n);
        dist.assign(n, FLT_MAX), p.assign(n, -5.0f), q.assign(n, -5.0f);
        tri.assign(n, 7), mask.assign(n, 0);
    }
    std::size_t size() const { return d[0].size(); }  // rays, not results
    std::vector<std::uint32_t> words() const
    {
        std::vector<std::uint32_t> w;
        for (std::size_t i = 0; i < tri.size(); ++i)
            w.insert(w.end(), {std::uint32_t(tri[i]), bitsOf(dist[i]), bitsOf(p[i]), bitsOf(q[i]),
                               std::uint32_t(mask[i])});
        return w;
    }
};

// The nearest hits as the single-ray walk finds them, one ray at a time.
Block nearestAlone(const Scene& s, Block b)
{
    for (std::size_t i = 0; i < b.size(); ++i) {
        b.tri[i] = -1;
        Ray r;
        for (int k = 0; k < 3; ++k) r.o[k] = b.o[k][i], r.d[k] = b.d[k][i];
        if (!enterBox(s.box, b.dist[i], r)) continue;
        NearestHit h{b.dist[i]};
        walkTree(s.ctx.pRootNode, s.ctx.pAccel, kNodeEpsilon, r, h);
        if (h.triangle < 0) continue;
        b.tri[i] = h.triangle, b.dist[i] = h.best, b.p[i] = h.p, b.q[i] = h.q;
    }
    return b;
}

// The occlusion answers as the single-ray walk finds them.
Block occlusionAlone(const Scene& s, Block b)
{
    for (std::size_t i = 0; i < b.size(); ++i) {
        b.tri[i] = -1;
        if (b.mask[i] < 0) continue;
        Ray r;
        for (int k = 0; k < 3; ++k) r.o[k] = b.o[k][i], r.d[k] = b.d[k][i];
        setUpOcclusion(r);
        AnyHit h;
        walkTree(s.ctx.pRootNode, s.ctx.pAccel, kNodeEpsilon, r, h);
        if (h.triangle >= 0) b.tri[i] = h.triangle, b.mask[i] = -1;
    }
    return b;
}

// The layered hits as single-ray walks find them, layer after layer.
Block layersAlone(const Scene& s, Block b, int layers)
{
    const std::size_t plane = b.size();
    for (std::size_t i = 0; i < plane; ++i) {
        Ray r;
        for (int k = 0; k < 3; ++k) r.o[k] = b.o[k][0], r.d[k] = b.d[k][i];
        if (!enterBox(s.box, b.dist[i], r)) continue;
        int ring[kRecentTriangles], previous = -1;
        for (int layer = 1; layer <= layers; ++layer) {
            const std::size_t at = std::size_t(layer - 1) * plane + i;
            LayerHit h;
            h.best = b.dist[at], h.ring = ring, h.previous = previous;
            h.ringSlots = (layer - 1) % kRecentTriangles;
            walkTree(s.ctx.pRootNode, s.ctx.pAccel, kLayerEpsilon, r, h);
            if (h.triangle < 0) break;
            b.tri[at] = h.triangle, b.p[at] = h.p, b.q[at] = h.q;
            b.dist[at] = layer > 1 ? h.best + b.dist[at - plane] : h.best;
            for (int k = 0; k < 3; ++k) r.o[k] = r.o[k] + r.d[k] * h.best;
            ring[(layer - 1) % kRecentTriangles] = previous = h.triangle;
            if (layer == layers) break;
            b.dist[at + plane] = FLT_MAX;
            reenterBox(s.box, r);
        }
    }
    return b;
}

Block layersQuery(const Scene& s, Block b, int layers)
{
    const float* dir[3] = {b.d[0].data(), b.d[1].data(), b.d[2].data()};
    float* hit[2] = {b.p.data(), b.q.data()};
    const float eye[3] = {b.o[0][0], b.o[1][0], b.o[2][0]};
    const VolumeSize v{b.width, b.height, layers};
    EXPECT_EQ(vlkrIntersectMultipleSO_32f(eye, dir, b.dist.data(), hit, b.tri.data(), &v, &s.ctx),
              vlkStatusOk);
    return b;
}

// A block whose result planes hold `layers` layers, every triangle number -1 to start with.
Block withLayers(const Block& rays, int layers)
{
    Block b = rays;
    const std::size_t n = rays.size() * std::size_t(layers);
    for (auto* v : {&b.dist, &b.p, &b.q}) v->resize(n, -5.0f);
    b.tri.assign(n, -1);
    b.mask.resize(n, 0);
    return b;
}

Block nearestQuery(const Scene& s, Block b, bool shared)
{
    const float* dir[3] = {b.d[0].data(), b.d[1].data(), b.d[2].data()};
    const float* org[3] = {b.o[0].data(), b.o[1].data(), b.o[2].data()};
    float* hit[2] = {b.p.data(), b.q.data()};
    const float eye[3] = {b.o[0][0], b.o[1][0], b.o[2][0]};
    const PacketSize block{b.width, b.height};
    const vlkStatus st =
        shared ? vlkrIntersectEyeSO_32f(eye, dir, b.dist.data(), hit, b.tri.data(), &s.ctx, block)
               : vlkrIntersectMO_32f(org, dir, b.dist.data(), hit, b.tri.data(), &s.ctx, block);
    EXPECT_EQ(st, vlkStatusOk);
    return b;
}

Block occlusionQuery(const Scene& s, Block b)
{
    const float* dir[3] = {b.d[0].data(), b.d[1].data(), b.d[2].data()};
    const float from[3] = {b.o[0][0], b.o[1][0], b.o[2][0]};
    EXPECT_EQ(vlkrIntersectAnySO_32f(from, dir, b.tri.data(), b.mask.data(),
                                     PacketSize{b.width, b.height}, &s.ctx),
              vlkStatusOk);
    return b;
}

// Rays of three kinds over a block whose sides are not multiples of the packet tile:
// coherent rays from an eye through a grid over the box, incoherent rays from one point in
// random directions, and rays from random points in random directions. Some have a zero
// component, some a short or non-positive distance, and a few are masked out of occlusion.
enum class Kind { Coherent, Scattered, OwnOrigins };

Block makeRays(const Scene& s, Kind kind, std::mt19937& rng)
{
    Block b(45, 37);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f), sym(-1.0f, 1.0f);
    const float* box = s.box;
    float centre[3], size = 0.0f;
    for (int k = 0; k < 3; ++k) {
        centre[k] = 0.5f * (box[k] + box[3 + k]);
        size = std::max(size, box[3 + k] - box[k]);
    }
    const float eye[3] = {box[3] + 0.6f * size, box[4] + 0.3f * size, box[2] - 0.8f * size};
    for (std::size_t i = 0; i < b.size(); ++i) {
        const int col = int(i % std::size_t(b.width)), row = int(i / std::size_t(b.width));
        for (int k = 0; k < 3; ++k) {
            if (kind == Kind::Coherent) {
                b.o[k][i] = eye[k];
                const float target = k == 0   ? box[0] + (box[3] - box[0]) * (col + 0.5f) / b.width
                                     : k == 1 ? box[1] + (box[4] - box[1]) * (row + 0.5f) / b.height
                                              : centre[2];
                b.d[k][i] = target - eye[k];
            } else {
                b.o[k][i] = kind == Kind::Scattered ? centre[k]
                                                    : box[k] + (box[3 + k] - box[k]) * unit(rng);
                b.d[k][i] = size * sym(rng);
            }
        }
        if (i % 23 == 4) b.d[i % 3][i] = 0.0f;
        if (i % 19 == 7) b.dist[i] = i % 2 ? 0.3f * unit(rng) : (i % 3 ? 0.0f : -1.0f);
        if (i % 17 == 2) b.mask[i] = -1;
    }
    return b;
}

// Small trees walk one ray at a time and large ones interleaved, so both sizes are here.
std::vector<std::pair<std::string, Mesh>> scenes()
{
    std::mt19937 rng(5);
    return {{"terrain", vlkr::bench::terrain(40)},
            {"large terrain", vlkr::bench::terrain(200)},
            {"spheres", vlkr::bench::sphereCluster(16, 32)},
            {"soup", vlkr::test::randomSoup(rng, 3000, 8.0f)},
            {"bunny", vlkr::bench::bunny()}};
}

TEST(IntersectWalks, PacketsAndInterleavedWalksGiveEveryRayItsSingleWalk)
{
    std::mt19937 rng(77);
    for (const auto& [name, mesh] : scenes()) {
        ASSERT_GT(mesh.triangleCount(), 1000) << name;
        const Scene s(mesh);
        EXPECT_EQ(treeLooksLarge(s.ctx.pRootNode), name == "large terrain") << name;
        for (Kind kind : {Kind::Coherent, Kind::Scattered, Kind::OwnOrigins}) {
            const Block rays = makeRays(s, kind, rng);
            const std::string what = name + " kind " + std::to_string(int(kind));
            const Block alone = nearestAlone(s, rays);
            std::size_t hits = 0;
            for (int t : alone.tri) hits += t >= 0;
            EXPECT_GT(hits, rays.size() / 10) << what;
            if (kind != Kind::OwnOrigins) {
                EXPECT_EQ(nearestQuery(s, rays, true).words(), alone.words()) << what;
            }
            EXPECT_EQ(nearestQuery(s, rays, false).words(), alone.words()) << what << " MO";
            if (kind == Kind::OwnOrigins) continue;

            // Four layers; rays that come back to a surface find it again in later layers.
            const Block layered = withLayers(rays, 4);
            EXPECT_EQ(layersQuery(s, layered, 4).words(), layersAlone(s, layered, 4).words())
                << what;

            // Occlusion over the first half of each ray: some reach a surface, some do not.
            Block shadow = rays;
            for (int k = 0; k < 3; ++k)
                for (float& d : shadow.d[k]) d *= 0.5f;
            EXPECT_EQ(occlusionQuery(s, shadow).words(), occlusionAlone(s, shadow).words()) << what;
        }
    }
}

}  // namespace
