// Intersection queries against brute force: exactly through the one-leaf tree, and in what
// they find through SAH trees; misses, masks, layers and degenerate blocks.
#include <cfloat>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "reference/intersect_reference.h"
#include "test_mesh.h"
#include "vlkr.h"

namespace {

using vlkr::reference::RefHit;
using vlkr::test::bitsOf;
using vlkr::test::Mesh;

constexpr float kUnset = -123.0f;  // what untouched outputs keep

// A mesh with its records and a tree, ready to intersect.
class Scene {
public:
    Scene(Mesh mesh, unsigned mode) : mesh_(std::move(mesh))
    {
        accel_.resize(mesh_.triangleCount());
        vlkrTriangleAccelInit(accel_.data(), mesh_.vertices.data(), mesh_.triangles.data(),
                              mesh_.triangleCount());
        vlkrSetBoundBox_32f(mesh_.vertices.data(), mesh_.vertexCount(), box_);
        const KDTreeBuildContext p{mode, 50, 1.0f, 256, nullptr};
        int size = 0;
        EXPECT_EQ(vlkrKDTreeBuildAlloc(&tree_, mesh_.vertices.data(), mesh_.triangles.data(),
                                       mesh_.vertexCount(), mesh_.triangleCount(), &size, &p),
                  vlkStatusOk);
        ctx_ = IntersectContext{box_, accel_.data(), tree_};
    }
    ~Scene() { vlkrKDTreeFree(tree_); }
    const IntersectContext* ctx() const { return &ctx_; }
    const float* box() const { return box_; }
    const std::vector<TriangleAccel>& accel() const { return accel_; }

private:
    Mesh mesh_;
    std::vector<TriangleAccel> accel_;
    float box_[6];
    KDTreeNode* tree_ = nullptr;
    IntersectContext ctx_;
};

// Planar rays and result arrays for a width x height block.
struct Rays {
    int width, height;
    std::vector<float> dx, dy, dz, ox, oy, oz, dist, p, q;
    std::vector<int> tri, mask;
    Rays(int w, int h) : width(w), height(h)
    {
        const std::size_t n = std::size_t(w) * h;
        for (auto* v : {&dx, &dy, &dz, &ox, &oy, &oz, &dist, &p, &q}) v->assign(n, 0.0f);
        tri.assign(n, 7);
        mask.assign(n, 0);
        std::fill(p.begin(), p.end(), kUnset);
        std::fill(q.begin(), q.end(), kUnset);
    }
    std::size_t size() const { return dx.size(); }
    const float* dir[3] = {};
    float* hit[2] = {};
    const float* orig[3] = {};
    void bind()
    {
        dir[0] = dx.data(), dir[1] = dy.data(), dir[2] = dz.data();
        hit[0] = p.data(), hit[1] = q.data();
        orig[0] = ox.data(), orig[1] = oy.data(), orig[2] = oz.data();
    }
    PacketSize block() const { return PacketSize{width, height}; }
};

// Eye rays from `eye` through random points of the box grown by half, so some miss; a few
// have zero direction components, and some are cut short by a small distance.
Rays randomRays(std::mt19937& rng, const float eye[3], const float box[6], int w, int h)
{
    Rays r(w, h);
    std::uniform_real_distribution<float> unit(-0.25f, 1.25f), len(0.0f, 1.0f);
    for (std::size_t i = 0; i < r.size(); ++i) {
        float target[3];
        for (int k = 0; k < 3; ++k) target[k] = box[k] + unit(rng) * (box[3 + k] - box[k]);
        float d[3] = {target[0] - eye[0], target[1] - eye[1], target[2] - eye[2]};
        if (i % 17 == 3) d[i % 3] = 0.0f;
        r.dx[i] = d[0], r.dy[i] = d[1], r.dz[i] = d[2];
        r.ox[i] = eye[0], r.oy[i] = eye[1], r.oz[i] = eye[2];
        r.dist[i] = i % 11 == 5 ? len(rng) : FLT_MAX;
    }
    return r;
}

Mesh testSoup(std::mt19937& rng, int n) { return vlkr::test::randomSoup(rng, n, 5.0f); }

void expectSameHit(const Rays& r, std::size_t i, const RefHit& want, float distIn)
{
    ASSERT_EQ(r.tri[i], want.tri) << "ray " << i;
    if (want.hit) {
        EXPECT_EQ(bitsOf(r.dist[i]), bitsOf(want.t)) << "ray " << i;
        EXPECT_EQ(bitsOf(r.p[i]), bitsOf(want.p)) << "ray " << i;
        EXPECT_EQ(bitsOf(r.q[i]), bitsOf(want.q)) << "ray " << i;
    } else {
        EXPECT_EQ(bitsOf(r.dist[i]), bitsOf(distIn)) << "a miss keeps its distance, ray " << i;
        EXPECT_EQ(r.p[i], kUnset);
        EXPECT_EQ(r.q[i], kUnset);
    }
}

// ------------------------------------------------------------------ nearest hit

TEST(IntersectNearest, OneLeafTreeMatchesBruteForceExactly)
{
    std::mt19937 rng(101);
    const Scene s(testSoup(rng, 300), KDTreeBuildSimple);
    const float eye[3] = {1.0f, -2.0f, -30.0f};
    Rays r = randomRays(rng, eye, s.box(), 37, 29);
    r.bind();
    const std::vector<float> distIn = r.dist;
    ASSERT_EQ(vlkrIntersectEyeSO_32f(eye, r.dir, r.dist.data(), r.hit, r.tri.data(), s.ctx(),
                                     r.block()),
              vlkStatusOk);
    int hits = 0;
    for (std::size_t i = 0; i < r.size(); ++i) {
        const float d[3] = {r.dx[i], r.dy[i], r.dz[i]};
        const RefHit want = vlkr::reference::nearest(s.box(), s.accel(), eye, d, distIn[i]);
        expectSameHit(r, i, want, distIn[i]);
        hits += want.hit;
    }
    EXPECT_GT(hits, int(r.size()) / 4);
    EXPECT_LT(hits, int(r.size()));
}

TEST(IntersectNearest, SahTreeFindsTheSameHits)
{
    std::mt19937 rng(202);
    Mesh meshes[] = {testSoup(rng, 3000), vlkr::test::randomTerrain(rng, 30),
                     vlkr::test::sphere(20, 40), vlkr::test::axisAlignedFlats(rng, 800)};
    for (Mesh& m : meshes) {
        const Scene s(m, KDTreeBuildSAH);
        const float eye[3] = {s.box()[3] + 7.0f, s.box()[4] + 3.0f, s.box()[2] - 9.0f};
        Rays r = randomRays(rng, eye, s.box(), 64, 48);
    r.bind();
        const std::vector<float> distIn = r.dist;
        vlkrIntersectEyeSO_32f(eye, r.dir, r.dist.data(), r.hit, r.tri.data(), s.ctx(),
                               r.block());
        for (std::size_t i = 0; i < r.size(); ++i) {
            const float d[3] = {r.dx[i], r.dy[i], r.dz[i]};
            const RefHit want = vlkr::reference::nearest(s.box(), s.accel(), eye, d, distIn[i]);
            // Two triangles at exactly the same distance may come in either order.
            if (want.hit && r.tri[i] != want.tri && r.dist[i] == want.t) continue;
            expectSameHit(r, i, want, distIn[i]);
        }
    }
}

TEST(IntersectNearest, PerRayOriginsMatchBruteForce)
{
    std::mt19937 rng(303);
    for (unsigned mode : {KDTreeBuildSimple, KDTreeBuildSAH}) {
        const Scene s(testSoup(rng, 1500), mode);
        Rays r(40, 40);
        std::uniform_real_distribution<float> pos(-8.0f, 8.0f), dirc(-1.0f, 1.0f);
        for (std::size_t i = 0; i < r.size(); ++i) {
            r.ox[i] = pos(rng), r.oy[i] = pos(rng), r.oz[i] = pos(rng);  // inside and outside
            r.dx[i] = dirc(rng), r.dy[i] = dirc(rng), r.dz[i] = dirc(rng);
            r.dist[i] = FLT_MAX;
        }
        r.bind();
        ASSERT_EQ(vlkrIntersectMO_32f(r.orig, r.dir, r.dist.data(), r.hit, r.tri.data(), s.ctx(),
                                      r.block()),
                  vlkStatusOk);
        for (std::size_t i = 0; i < r.size(); ++i) {
            const float o[3] = {r.ox[i], r.oy[i], r.oz[i]}, d[3] = {r.dx[i], r.dy[i], r.dz[i]};
            const RefHit want = vlkr::reference::nearest(s.box(), s.accel(), o, d, FLT_MAX);
            if (want.hit && r.tri[i] != want.tri && r.dist[i] == want.t) continue;
            expectSameHit(r, i, want, FLT_MAX);
        }
    }
}

TEST(IntersectNearest, SharedOriginEqualsPerRayOriginsBitForBit)
{
    // One origin lets rays share a walk in fours; the same rays with the origin given per ray
    // walk one by one. Both must give every ray the same triangle, distance and weights.
    std::mt19937 rng(321);
    const Scene s(vlkr::test::sphere(40, 80), KDTreeBuildSAH);
    const float eye[3] = {1.0f, 2.0f, -9.0f};
    Rays a = randomRays(rng, eye, s.box(), 64, 64);
    Rays b = a;
    a.bind();
    b.bind();
    vlkrIntersectEyeSO_32f(eye, a.dir, a.dist.data(), a.hit, a.tri.data(), s.ctx(), a.block());
    vlkrIntersectMO_32f(b.orig, b.dir, b.dist.data(), b.hit, b.tri.data(), s.ctx(), b.block());
    int hits = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        ASSERT_EQ(a.tri[i], b.tri[i]) << i;
        EXPECT_EQ(bitsOf(a.dist[i]), bitsOf(b.dist[i])) << i;
        EXPECT_EQ(bitsOf(a.p[i]), bitsOf(b.p[i])) << i;
        EXPECT_EQ(bitsOf(a.q[i]), bitsOf(b.q[i])) << i;
        hits += a.tri[i] >= 0;
    }
    EXPECT_GT(hits, 500);
}

TEST(IntersectNearest, EdgesAndCornersCount)
{
    // A unit quad in z = 0 split along its diagonal; rays straight down on the shared edge,
    // on a corner and on an outer edge all hit, the first tested triangle winning ties.
    Mesh m;
    m.vertices = {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0};
    m.triangles = {0, 1, 2, 0, 0, 2, 3, 0};
    const Scene s(m, KDTreeBuildSimple);
    const float targets[][2] = {{0.5f, 0.5f}, {0.0f, 0.0f}, {1.0f, 0.25f}, {0.25f, 0.75f}};
    for (int i = 0; i < 4; ++i) {
        const float eye[3] = {targets[i][0], targets[i][1], 2.0f};
        Rays one(1, 1);
        one.dz[0] = -1;
        one.dist[0] = FLT_MAX;
        one.bind();
        vlkrIntersectEyeSO_32f(eye, one.dir, one.dist.data(), one.hit, one.tri.data(), s.ctx(),
                               one.block());
        EXPECT_EQ(one.tri[0], i == 3 ? 1 : 0) << i;
        EXPECT_EQ(one.dist[0], 2.0f) << i;
    }
}

TEST(IntersectNearest, NonPositiveDistanceNeverHits)
{
    std::mt19937 rng(9);
    const Scene s(testSoup(rng, 200), KDTreeBuildSAH);
    const float eye[3] = {0, 0, -30};
    Rays r = randomRays(rng, eye, s.box(), 16, 16);
    r.bind();
    for (std::size_t i = 0; i < r.size(); ++i) r.dist[i] = i % 2 ? 0.0f : -1.0f;
    vlkrIntersectEyeSO_32f(eye, r.dir, r.dist.data(), r.hit, r.tri.data(), s.ctx(), r.block());
    for (std::size_t i = 0; i < r.size(); ++i) {
        EXPECT_EQ(r.tri[i], -1);
        EXPECT_EQ(r.dist[i], i % 2 ? 0.0f : -1.0f);
    }
}

TEST(IntersectNearest, DegenerateBlocksWriteNothing)
{
    std::mt19937 rng(10);
    const Scene s(testSoup(rng, 50), KDTreeBuildSAH);
    const float eye[3] = {0, 0, -30};
    Rays r = randomRays(rng, eye, s.box(), 8, 8);
    r.bind();
    for (PacketSize b : {PacketSize{8, 0}, PacketSize{8, -3}, PacketSize{0, 8}, PacketSize{-2, 8}}) {
        EXPECT_EQ(vlkrIntersectEyeSO_32f(eye, r.dir, r.dist.data(), r.hit, r.tri.data(), s.ctx(), b),
                  vlkStatusOk);
        EXPECT_EQ(vlkrIntersectMO_32f(r.orig, r.dir, r.dist.data(), r.hit, r.tri.data(), s.ctx(), b),
                  vlkStatusOk);
        EXPECT_EQ(vlkrIntersectAnySO_32f(eye, r.dir, r.tri.data(), r.mask.data(), b, s.ctx()),
                  vlkStatusOk);
        for (int t : r.tri) ASSERT_EQ(t, 7);
    }
}

TEST(IntersectChecks, NullPointersInArgumentOrder)
{
    float f[1] = {1}, *fp[3] = {f, f, f};
    const float* cf[3] = {f, f, f};
    int n[1] = {0};
    const PacketSize b{1, 1};
    const VolumeSize v{1, 1, 1};
    const IntersectContext* noCtx = nullptr;  // never read once a check fails
    EXPECT_EQ(vlkrIntersectEyeSO_32f(f, nullptr, nullptr, nullptr, n, noCtx, b), vlkStatusNullPtr);
    EXPECT_EQ(vlkrIntersectEyeSO_32f(f, cf, nullptr, fp, n, noCtx, b), vlkStatusNullPtr);
    EXPECT_EQ(vlkrIntersectEyeSO_32f(f, cf, f, nullptr, n, noCtx, b), vlkStatusNullPtr);
    EXPECT_EQ(vlkrIntersectMO_32f(nullptr, cf, f, fp, n, noCtx, b), vlkStatusNullPtr);
    EXPECT_EQ(vlkrIntersectMO_32f(cf, nullptr, f, fp, n, noCtx, b), vlkStatusNullPtr);
    EXPECT_EQ(vlkrIntersectMO_32f(cf, cf, nullptr, fp, n, noCtx, b), vlkStatusNullPtr);
    EXPECT_EQ(vlkrIntersectMultipleSO_32f(f, nullptr, f, fp, n, &v, noCtx), vlkStatusNullPtr);
    EXPECT_EQ(vlkrIntersectMultipleSO_32f(f, cf, nullptr, fp, n, &v, noCtx), vlkStatusNullPtr);
    EXPECT_EQ(vlkrIntersectMultipleSO_32f(f, cf, f, nullptr, n, &v, noCtx), vlkStatusNullPtr);
    EXPECT_EQ(vlkrIntersectAnySO_32f(f, nullptr, n, n, b, noCtx), vlkStatusNullPtr);
    EXPECT_EQ(vlkrIntersectAnySO_32f(f, cf, nullptr, n, b, noCtx), vlkStatusNullPtr);
    EXPECT_EQ(vlkrIntersectAnySO_32f(f, cf, n, nullptr, b, noCtx), vlkStatusNullPtr);
    EXPECT_EQ(n[0], 0);
    EXPECT_EQ(f[0], 1.0f);
}

// ------------------------------------------------------------------ occlusion

TEST(IntersectAny, FirstOccluderInIndexOrderThroughOneLeafTree)
{
    std::mt19937 rng(404);
    for (unsigned mode : {KDTreeBuildSimple, KDTreeBuildSAH}) {
        const Scene s(testSoup(rng, 800), mode);
        const float light[3] = {2.0f, 9.0f, -3.0f};
        Rays r(32, 32);
        std::uniform_real_distribution<float> pos(-6.0f, 6.0f);
        std::uniform_int_distribution<int> maskValue(-2, 3);
        for (std::size_t i = 0; i < r.size(); ++i) {
            // From the light to a random point: occluded when a triangle lies strictly between.
            r.dx[i] = pos(rng) - light[0], r.dy[i] = pos(rng) - light[1];
            r.dz[i] = pos(rng) - light[2];
            if (i % 13 == 0) r.dx[i] = 0.0f;
            if (i % 29 == 0) r.dy[i] = 1e-8f;
            r.mask[i] = maskValue(rng);
        }
        r.bind();
        const std::vector<int> maskIn = r.mask;
        ASSERT_EQ(vlkrIntersectAnySO_32f(light, r.dir, r.tri.data(), r.mask.data(), r.block(),
                                         s.ctx()),
                  vlkStatusOk);
        int occluded = 0;
        for (std::size_t i = 0; i < r.size(); ++i) {
            const float d[3] = {r.dx[i], r.dy[i], r.dz[i]};
            const int want = maskIn[i] < 0 ? -1 : vlkr::reference::firstOccluder(s.accel(), light, d);
            if (mode == KDTreeBuildSimple)
                EXPECT_EQ(r.tri[i], want) << i;
            else
                EXPECT_EQ(r.tri[i] >= 0, want >= 0) << i;
            EXPECT_EQ(r.mask[i], want >= 0 ? -1 : maskIn[i]) << i;
            occluded += want >= 0;
        }
        EXPECT_GT(occluded, 20);
    }
}

TEST(IntersectAny, OnlyStrictlyBetweenZeroAndOne)
{
    // A triangle at z = 1 seen from z = 0: direction lengths put it at t = 1, 0.5 and 2.
    Mesh m;
    m.vertices = {-1, -1, 1, 1, -1, 1, 0, 1, 1};
    m.triangles = {0, 1, 2, 0};
    const Scene s(m, KDTreeBuildSAH);
    const float origin[3] = {0, 0, 0};
    Rays r(3, 1);
    r.dz = {1.0f, 2.0f, 0.5f};
    r.bind();
    vlkrIntersectAnySO_32f(origin, r.dir, r.tri.data(), r.mask.data(), r.block(), s.ctx());
    EXPECT_EQ(r.tri[0], -1);
    EXPECT_EQ(r.tri[1], 0);
    EXPECT_EQ(r.tri[2], -1);
    EXPECT_EQ(r.mask[0], 0);
    EXPECT_EQ(r.mask[1], -1);
    const float behind[3] = {0, 0, 2};  // the plane at t = -1
    r.dz = {1.0f, 1.0f, 1.0f};
    r.mask = {0, 0, 0};
    vlkrIntersectAnySO_32f(behind, r.dir, r.tri.data(), r.mask.data(), r.block(), s.ctx());
    for (int i = 0; i < 3; ++i) EXPECT_EQ(r.tri[i], -1);
}

// ------------------------------------------------------------------ layers

// Layers by the rules, over all triangles in index order (what a one-leaf tree does).
void referenceLayers(const float box[6], const std::vector<TriangleAccel>& accel,
                     const float eye[3], const float d[3], int layers, std::size_t plane,
                     std::size_t i, std::vector<float>& dist, std::vector<float>& p,
                     std::vector<float>& q, std::vector<int>& tri)
{
    for (int l = 0; l < layers; ++l) tri[l * plane + i] = -1;
    if (!vlkr::reference::boxSegment(box, eye, d, dist[i])) return;
    float o[3] = {eye[0], eye[1], eye[2]};
    int ring[8], previous = -1;
    for (int layer = 1; layer <= layers; ++layer) {
        const std::size_t at = (layer - 1) * plane + i;
        float best = dist[at];
        int found = -1;
        float ft = 0, fp = 0, fq = 0;
        for (int n = 0; n < int(accel.size()); ++n) {
            bool skip = n == previous;
            for (int k = 0; k < (layer - 1) % 8; ++k) skip = skip || ring[k] == n;
            float t, pp, qq;
            if (!skip && vlkr::reference::rayTriangle(accel[n], o, d, best, t, pp, qq)) {
                best = t, found = n, ft = t, fp = pp, fq = qq;
            }
        }
        if (found < 0) return;
        tri[at] = found, p[at] = fp, q[at] = fq;
        dist[at] = layer > 1 ? ft + dist[at - plane] : ft;
        for (int k = 0; k < 3; ++k) o[k] = o[k] + d[k] * ft;
        ring[(layer - 1) % 8] = found;
        previous = found;
        if (layer == layers) return;
        dist[at + plane] = FLT_MAX;
    }
}

TEST(IntersectLayers, MatchBruteForceLayerByLayer)
{
    std::mt19937 rng(505);
    // Stacked parallel sheets so that rays cross many layers, some beyond the ring of eight.
    Mesh m;
    std::uniform_real_distribution<float> jitter(-0.2f, 0.2f);
    for (int sheet = 0; sheet < 12; ++sheet) {
        const int base = m.vertexCount();
        const float z = float(sheet) + jitter(rng);
        m.vertices.insert(m.vertices.end(), {-3, -3, z, 3, -3, z + 0.1f, 3, 3, z, -3, 3, z - 0.1f});
        m.triangles.insert(m.triangles.end(), {base, base + 1, base + 2, 0, base, base + 2, base + 3, 0});
    }
    const Scene s(m, KDTreeBuildSimple);
    const float eye[3] = {0.1f, -0.2f, -5.0f};
    for (int layers : {1, 3, 10, 14}) {
        Rays r = randomRays(rng, eye, s.box(), 12, 10);
    r.bind();
        const std::size_t plane = r.size();
        std::vector<float> dist(plane * layers, kUnset), p(plane * layers, kUnset),
            q(plane * layers, kUnset);
        std::vector<int> tri(plane * layers, 7);
        for (std::size_t i = 0; i < plane; ++i) dist[i] = r.dist[i];
        auto wantDist = dist, wantP = p, wantQ = q;
        auto wantTri = tri;
        float* hit[2] = {p.data(), q.data()};
        const VolumeSize vol{r.width, r.height, layers};
        ASSERT_EQ(vlkrIntersectMultipleSO_32f(eye, r.dir, dist.data(), hit, tri.data(), &vol,
                                              s.ctx()),
                  vlkStatusOk);
        for (std::size_t i = 0; i < plane; ++i) {
            const float d[3] = {r.dx[i], r.dy[i], r.dz[i]};
            referenceLayers(s.box(), s.accel(), eye, d, layers, plane, i, wantDist, wantP, wantQ,
                            wantTri);
        }
        if (layers >= 10) {
            int deep = 0;  // hits past the ring of eight
            for (std::size_t i = 0; i < plane; ++i) deep += tri[9 * plane + i] >= 0;
            EXPECT_GT(deep, 10);
        }
        for (std::size_t k = 0; k < plane * layers; ++k) {
            ASSERT_EQ(tri[k], wantTri[k]) << "layers " << layers << " element " << k;
            EXPECT_EQ(bitsOf(dist[k]), bitsOf(wantDist[k])) << k;
            EXPECT_EQ(bitsOf(p[k]), bitsOf(wantP[k])) << k;
            EXPECT_EQ(bitsOf(q[k]), bitsOf(wantQ[k])) << k;
        }
    }
}

TEST(IntersectLayers, OneLayerThroughSahTreeIsTheNearestHit)
{
    std::mt19937 rng(606);
    const Scene s(testSoup(rng, 2000), KDTreeBuildSAH);
    const float eye[3] = {3.0f, 4.0f, -25.0f};
    Rays eyeRays = randomRays(rng, eye, s.box(), 30, 30);
    Rays layerRays = eyeRays;
    eyeRays.bind();
    layerRays.bind();
    vlkrIntersectEyeSO_32f(eye, eyeRays.dir, eyeRays.dist.data(), eyeRays.hit, eyeRays.tri.data(),
                           s.ctx(), eyeRays.block());
    const VolumeSize vol{30, 30, 1};
    vlkrIntersectMultipleSO_32f(eye, layerRays.dir, layerRays.dist.data(), layerRays.hit,
                                layerRays.tri.data(), &vol, s.ctx());
    for (std::size_t i = 0; i < eyeRays.size(); ++i) {
        EXPECT_EQ(layerRays.tri[i], eyeRays.tri[i]) << i;
        EXPECT_EQ(bitsOf(layerRays.dist[i]), bitsOf(eyeRays.dist[i])) << i;
    }
}

}  // namespace
