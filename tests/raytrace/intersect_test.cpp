// Intersection queries against a double-precision oracle on random rays, the walks of the
// different queries against each other bit for bit, recorded bits for fixed rays, masks,
// layers and degenerate blocks.
#include <algorithm>
#include <cfloat>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "reference/ray_oracle.h"
#include "test_mesh.h"
#include "vlkr.h"

namespace {

using vlkr::reference::Answer;
using vlkr::reference::RayOracle;
using vlkr::test::bitsOf;
using vlkr::test::Mesh;
using vlkr::test::Scene;

constexpr float kUnset = -123.0f;  // what untouched outputs keep

// A block of rays with per-ray origins, and `layers` planes of results.
struct Rays {
    PacketSize block;
    int layers;
    std::vector<float> d[3], o[3], dist, p, q;
    std::vector<int> tri, mask;
    Rays(int w, int h, int l = 1) : block{w, h}, layers(l)
    {
        const std::size_t n = std::size_t(w) * h;
        for (int k = 0; k < 3; ++k) d[k].assign(n, 0.0f), o[k].assign(n, 0.0f);
        for (auto* v : {&dist, &p, &q}) v->assign(n * l, kUnset);
        tri.assign(n * l, 7);
        mask.assign(n, 0);
    }
    std::size_t size() const { return d[0].size(); }
    const float* dir[3] = {};
    const float* orig[3] = {};
    float* hit[2] = {};
    Rays& bind()
    {
        for (int k = 0; k < 3; ++k) dir[k] = d[k].data(), orig[k] = o[k].data();
        hit[0] = p.data(), hit[1] = q.data();
        return *this;
    }
    vlkStatus eye(const float* e, const Scene& s)
    {
        bind();
        return e ? vlkrIntersectEyeSO_32f(e, dir, dist.data(), hit, tri.data(), &s.ctx, block)
                 : vlkrIntersectMO_32f(orig, dir, dist.data(), hit, tri.data(), &s.ctx, block);
    }
    vlkStatus any(const float from[3], const Scene& s)
    {
        return vlkrIntersectAnySO_32f(from, bind().dir, tri.data(), mask.data(), block, &s.ctx);
    }
    vlkStatus multiple(const float e[3], const Scene& s)
    {
        const VolumeSize v{block.width, block.height, layers};
        return vlkrIntersectMultipleSO_32f(e, bind().dir, dist.data(), hit, tri.data(), &v, &s.ctx);
    }
};

// Rays from `eye` through random points of the box grown by half, so some miss, or with a null
// eye from random points of [-8, 8]^3 in random directions. A few have zero or tiny direction
// components, and some are cut short by a small, a zero or a negative distance.
Rays randomRays(std::mt19937& rng, const float* eye, const float box[6], int w, int h,
                int layers = 1)
{
    Rays r(w, h, layers);
    std::uniform_real_distribution<float> unit(-0.25f, 1.25f), len(0, 1), pos(-8, 8), dirc(-1, 1);
    for (std::size_t i = 0; i < r.size(); ++i) {
        for (int k = 0; k < 3; ++k) {
            r.o[k][i] = eye ? eye[k] : pos(rng);
            r.d[k][i] = eye ? box[k] + unit(rng) * (box[3 + k] - box[k]) - eye[k] : dirc(rng);
        }
        if (i % 17 == 3) r.d[i % 3][i] = 0.0f;
        if (i % (eye ? 29 : 7) == 3) r.d[(i / 7) % 3][i] = (i / 21) % 2 ? -1e-8f : 1e-8f;
        r.dist[i] = i % 11 == 5 ? len(rng) : i % 13 == 7 ? (i % 2 ? 0.0f : -1.0f) : FLT_MAX;
    }
    return r;
}

// Triangles about a unit across around random centres in [-5, 5]^3: small enough that the
// tree splits them apart and every walk goes deep.
Mesh testSoup(std::mt19937& rng, int n)
{
    std::uniform_real_distribution<float> centre(-5.0f, 5.0f), offset(-0.6f, 0.6f);
    Mesh m;
    for (int t = 0; t < n; ++t) {
        const float c[3] = {centre(rng), centre(rng), centre(rng)};
        float v[9];
        for (int i = 0; i < 9; ++i) v[i] = c[i % 3] + offset(rng);
        m.add(v);
    }
    return m;
}

// The mesh with degenerate triangles after it, made of its own corners (one repeated, or one
// alone), whose all-zero records no walk may report.
Mesh withDegenerates(Mesh m)
{
    const int count = m.triangleCount();
    for (int t = 0; t < count; t += 5) {
        const int a = m.triangles[4 * t], c = m.triangles[4 * t + 2];
        m.triangles.insert(m.triangles.end(), {a, a, c, 0, c, c, c, 0});
    }
    return m;
}

// ------------------------------------------------------------------ nearest hit

// Every ray's triangle, distance and weights, in every layer, as words to compare.
std::vector<std::uint32_t> results(const Rays& r)
{
    std::vector<std::uint32_t> w;
    for (std::size_t i = 0; i < r.tri.size(); ++i)
        w.insert(w.end(),
                 {std::uint32_t(r.tri[i]), bitsOf(r.dist[i]), bitsOf(r.p[i]), bitsOf(r.q[i])});
    return w;
}

// How many rays the oracle decided, and how many of those hit.
struct Tally {
    int decided = 0, hits = 0;
};

// A nearest hit (or miss) against the oracle: exact triangle and close numbers where it is
// decided, a real crossing where it is not.
void expectNearest(const RayOracle& oracle, const Answer& want, const float o[3], const float d[3],
                   int tri, float t, float p, float q, Tally& tally)
{
    if (!want.decided) {
        EXPECT_TRUE(tri < 0 || oracle.isCrossing(o, d, tri, t, p, q)) << "undecided, " << tri;
        return;
    }
    ++tally.decided;
    ASSERT_EQ(tri, want.hit ? want.crossing.tri : -1);
    if (!want.hit) return;
    ++tally.hits;
    EXPECT_TRUE(RayOracle::near(want.crossing.t, t, 1e-4)) << want.crossing.t << " " << t;
    EXPECT_NEAR(p, want.crossing.a, 1e-3);
    EXPECT_NEAR(q, want.crossing.b, 1e-3);
}

TEST(IntersectNearest, AgreesWithTheOracleAndEveryWalkGivesTheSameBits)
{
    // Eye rays, or with perRay rays from origins inside and outside the mesh. The same eye rays
    // as one layer of the layered query must give the same bits (walk_test compares every
    // walk schedule with the single-ray walk).
    std::mt19937 rng(101);
    const struct {
        Mesh mesh;
        unsigned mode;
        bool perRay;
    } cases[] = {{withDegenerates(testSoup(rng, 300)), KDTreeBuildSimple, false},
                 {testSoup(rng, 2000), KDTreeBuildSAH, false},
                 {vlkr::test::randomTerrain(rng, 30), KDTreeBuildSAH, false},
                 {vlkr::test::sphere(20, 40), KDTreeBuildSAH, false},
                 {vlkr::test::axisAlignedFlats(rng, 800), KDTreeBuildSAH, false},
                 {testSoup(rng, 1500), KDTreeBuildSimple, true},
                 {testSoup(rng, 1500), KDTreeBuildSAH, true}};
    for (const auto& c : cases) {
        const Scene s(c.mesh, c.mode);
        const RayOracle oracle(c.mesh);
        const float eye[3] = {s.box[3] + 7.0f, s.box[4] + 3.0f, s.box[2] - 9.0f};
        Rays r = c.perRay ? randomRays(rng, nullptr, s.box, 40, 40)
                          : randomRays(rng, eye, s.box, 61, 47);
        const Rays in = r;
        Rays layer = r;
        ASSERT_EQ(r.eye(c.perRay ? nullptr : eye, s), vlkStatusOk);
        Tally tally;
        for (std::size_t i = 0; i < r.size(); ++i) {
            const float o[3] = {r.o[0][i], r.o[1][i], r.o[2][i]};
            const float d[3] = {r.d[0][i], r.d[1][i], r.d[2][i]};
            const float* from = c.perRay ? o : eye;
            expectNearest(oracle, oracle.nearest(from, d, 0.0, in.dist[i]), from, d, r.tri[i],
                          r.dist[i], r.p[i], r.q[i], tally);
            if (r.tri[i] < 0) {
                EXPECT_EQ(bitsOf(r.dist[i]), bitsOf(in.dist[i]));
            }
        }
        EXPECT_GT(tally.decided, int(r.size()) / 2);  // coplanar flats tie often
        EXPECT_GT(tally.hits, int(r.size()) / 16);
        EXPECT_LT(tally.hits, tally.decided);
        if (c.perRay) continue;
        layer.multiple(eye, s);
        EXPECT_EQ(results(layer), results(r)) << "one layer";
    }
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
    Rays r(4, 1);
    for (int i = 0; i < 4; ++i) {
        r.o[0][i] = targets[i][0], r.o[1][i] = targets[i][1], r.o[2][i] = 2.0f;
        r.d[2][i] = -1.0f, r.dist[i] = FLT_MAX;
    }
    ASSERT_EQ(r.eye(nullptr, s), vlkStatusOk);
    EXPECT_EQ(r.tri, (std::vector<int>{0, 0, 0, 1}));
    EXPECT_EQ(r.dist, std::vector<float>(4, 2.0f));

    // A block whose rays all leave the box, or are all passed over, walks nothing: no hit,
    // distances and masks as they were.
    for (int i = 0; i < 4; ++i) r.d[2][i] = 1.0f, r.dist[i] = FLT_MAX;
    const float above[3] = {0.5f, 0.5f, 2.0f};
    ASSERT_EQ(r.eye(above, s), vlkStatusOk);
    EXPECT_EQ(r.tri, std::vector<int>(4, -1));
    EXPECT_EQ(r.dist, std::vector<float>(4, FLT_MAX));
    for (int i = 0; i < 4; ++i) r.d[2][i] = -1.0f, r.mask[i] = -1 - i, r.tri[i] = 7;
    ASSERT_EQ(r.any(above, s), vlkStatusOk);
    EXPECT_EQ(r.tri, std::vector<int>(4, -1));
    EXPECT_EQ(r.mask, (std::vector<int>{-1, -2, -3, -4}));
}

TEST(IntersectNearest, AGridOfRaysGivesItsRecordedHash)
{
    // The triangle test's order of operations decides the last bits of every hit: a 32 x 32
    // grid of rays through three triangles, walked as packets (one origin) and one by one
    // (per-ray origins); one hash of every result bit pins them all.
    Mesh m;
    const float corners[3][9] = {{-1.3f, -0.7f, 2.1f, 0.2f, -0.9f, 2.6f, -0.5f, 1.9f, 1.7f},
                                 {-2.1f, 0.3f, 3.3f, 0.9f, -1.7f, 3.9f, 1.1f, 1.3f, 2.9f},
                                 {-0.6f, -1.1f, 4.7f, 2.3f, 0.1f, 5.2f, -0.4f, 2.2f, 4.4f}};
    for (const float* t : corners) m.add(t);
    const Scene s(m, KDTreeBuildSimple);
    const float eye[3] = {0.13f, 0.27f, -3.1f};
    for (bool perRay : {false, true}) {
        Rays r(32, 32);
        for (int i = 0; i < 1024; ++i) {
            for (int k = 0; k < 3; ++k) r.o[k][i] = eye[k];
            r.d[0][i] = -0.43f + 0.0271f * float(i % 32),
            r.d[1][i] = 0.41f - 0.0263f * float(i / 32);
            r.d[2][i] = 1.0f, r.dist[i] = 3.4e38f, r.p[i] = r.q[i] = 0.0f;
        }
        ASSERT_EQ(r.eye(perRay ? nullptr : eye, s), vlkStatusOk);
        std::uint32_t hash = 2166136261u;
        for (std::uint32_t w : results(r)) hash = (hash ^ w) * 16777619u;
        EXPECT_GT(std::count_if(r.tri.begin(), r.tri.end(), [](int t) { return t >= 0; }), 200);
        EXPECT_EQ(hash, 703656823u);
    }
}

TEST(IntersectChecks, NullPointersInArgumentOrderAndEmptyBlocks)
{
    float f[1] = {1}, *fp[3] = {f, f, f};
    const float* cf[3] = {f, f, f};
    int n[1] = {0};
    const PacketSize b{1, 1};
    const VolumeSize v{1, 1, 1};
    const IntersectContext* noCtx = nullptr;  // never read once a check fails
    // Each checked array alone null, in argument order.
    for (int null = 0; null < 3; ++null) {
        auto at = [null](int k, auto p) { return k == null ? nullptr : p; };
        EXPECT_EQ(vlkrIntersectEyeSO_32f(f, at(0, cf), at(1, f), at(2, fp), n, noCtx, b),
                  vlkStatusNullPtr);
        EXPECT_EQ(vlkrIntersectMO_32f(at(0, cf), at(1, cf), at(2, f), fp, n, noCtx, b),
                  vlkStatusNullPtr);
        EXPECT_EQ(vlkrIntersectMultipleSO_32f(f, at(0, cf), at(1, f), at(2, fp), n, &v, noCtx),
                  vlkStatusNullPtr);
        EXPECT_EQ(vlkrIntersectAnySO_32f(f, at(0, cf), at(1, n), at(2, n), b, noCtx),
                  vlkStatusNullPtr);
    }
    EXPECT_EQ(n[0], 0);
    EXPECT_EQ(f[0], 1.0f);

    // Blocks without rays are no error and write nothing.
    std::mt19937 rng(10);
    const Scene s(testSoup(rng, 50));
    const float eye[3] = {0, 0, -30};
    Rays r = randomRays(rng, eye, s.box, 8, 8);
    const PacketSize blocks[] = {{8, 0}, {8, -3}, {0, 8}, {-2, 8}};
    for (PacketSize b : blocks) {
        r.block = b;
        EXPECT_EQ(r.eye(eye, s), vlkStatusOk);
        EXPECT_EQ(r.eye(nullptr, s), vlkStatusOk);
        EXPECT_EQ(r.any(eye, s), vlkStatusOk);
        EXPECT_EQ(r.multiple(eye, s), vlkStatusOk);
        for (int t : r.tri) ASSERT_EQ(t, 7);
    }
    // Layered hits: a volume without layers is empty too.
    r.block = {8, 8};
    for (int layers : {0, -1}) {
        r.layers = layers;
        EXPECT_EQ(r.multiple(eye, s), vlkStatusOk);
        for (int t : r.tri) ASSERT_EQ(t, 7);
    }
}

// ------------------------------------------------------------------ occlusion

TEST(IntersectAny, FirstOccluderInIndexOrderOnlyStrictlyBetweenZeroAndOne)
{
    std::mt19937 rng(404);
    for (unsigned mode : {KDTreeBuildSimple, KDTreeBuildSAH}) {
        // From the light to random points: occluded when a triangle lies strictly between.
        const Scene s(withDegenerates(testSoup(rng, 800)), mode);
        const float light[3] = {2.0f, 9.0f, -3.0f};
        Rays r = randomRays(rng, light, s.box, 32, 32);
        std::uniform_int_distribution<int> maskValue(-2, 3);
        for (int& m : r.mask) m = maskValue(rng);
        const std::vector<int> maskIn = r.mask;
        Rays alone = r;  // ray by ray: a block of one walks without a packet
        ASSERT_EQ(r.any(light, s), vlkStatusOk);
        for (std::size_t i = 0; i < r.size(); ++i) {
            const float* d[3] = {&alone.d[0][i], &alone.d[1][i], &alone.d[2][i]};
            vlkrIntersectAnySO_32f(light, d, &alone.tri[i], &alone.mask[i], {1, 1}, &s.ctx);
        }
        EXPECT_EQ(alone.tri, r.tri);
        EXPECT_EQ(alone.mask, r.mask);
        // Through one leaf the first occluder in index order is reported; through a tree, any.
        const RayOracle oracle(s.mesh);
        int occluded = 0;
        for (std::size_t i = 0; i < r.size(); ++i) {
            const float d[3] = {r.d[0][i], r.d[1][i], r.d[2][i]};
            const Answer want = oracle.nearest(light, d, 0.0, 1.0, {}, mode == KDTreeBuildSimple);
            if (maskIn[i] >= 0 && !want.decided) continue;
            // A tiny negative component keeps its sign flag but takes the positive stand-in
            // inverse, so through a tree such a ray may walk into the side of a split on that
            // axis that it does not lie in: its answer is the walk's, not the geometry's.
            bool tinyNegative = false;
            for (float c : d) tinyNegative = tinyNegative || (c < 0.0f && c >= -1.1920929e-7f);
            if (mode != KDTreeBuildSimple && tinyNegative) continue;
            const int expected = maskIn[i] < 0 || !want.hit ? -1 : want.crossing.tri;
            if (mode == KDTreeBuildSimple)
                EXPECT_EQ(r.tri[i], expected) << i;
            else
                EXPECT_EQ(r.tri[i] >= 0, expected >= 0) << i;
            EXPECT_EQ(r.mask[i], expected >= 0 ? -1 : maskIn[i]) << i;
            occluded += expected >= 0;
        }
        EXPECT_GT(occluded, 20);
    }

    // A triangle at z = 1 seen from z = 0: direction lengths put it at t = 1, 0.5 and 2; from
    // z = 2 the plane is at t = -1.
    Mesh m;
    m.vertices = {-1, -1, 1, 1, -1, 1, 0, 1, 1};
    m.triangles = {0, 1, 2, 0};
    const Scene s(m);
    const float origin[3] = {0, 0, 0}, behind[3] = {0, 0, 2};
    Rays r(3, 1);
    r.d[2] = {1.0f, 2.0f, 0.5f};
    r.any(origin, s);
    EXPECT_EQ(r.tri, (std::vector<int>{-1, 0, -1}));
    EXPECT_EQ(r.mask, (std::vector<int>{0, -1, 0}));
    r.d[2] = {1.0f, 1.0f, 1.0f};
    r.mask = {0, 0, 0};
    r.any(behind, s);
    EXPECT_EQ(r.tri, (std::vector<int>{-1, -1, -1}));
}

// ------------------------------------------------------------------ layers

// Layers by the rules, against the oracle: each layer starts at the last hit and passes over
// it and the hits before it still in the ring of eight. Stops checking at the first layer the
// oracle leaves undecided, since every later one depends on it.
void expectLayers(const RayOracle& oracle, const Rays& in, const Rays& r, const float eye[3],
                  std::size_t i, Tally& tally)
{
    const std::size_t plane = r.size();
    const float d[3] = {r.d[0][i], r.d[1][i], r.d[2][i]};
    double lo = 0.0, hi = in.dist[i];
    int ring[8], previous = -1;
    for (int layer = 1; layer <= r.layers; ++layer) {
        const std::size_t at = (layer - 1) * plane + i;
        std::vector<int> skip(ring, ring + (layer - 1) % 8);
        skip.push_back(previous);
        const Answer want = oracle.nearest(eye, d, lo, hi, skip);
        if (!want.decided) return;
        expectNearest(oracle, want, eye, d, r.tri[at], r.dist[at], r.p[at], r.q[at], tally);
        if (!want.hit) {
            for (int rest = layer; rest < r.layers; ++rest) ASSERT_EQ(r.tri[rest * plane + i], -1);
            return;
        }
        lo = want.crossing.t, hi = HUGE_VAL;
        ring[(layer - 1) % 8] = previous = want.crossing.tri;
    }
}

TEST(IntersectLayers, AgreeWithTheOracleLayerByLayer)
{
    std::mt19937 rng(505);
    // Stacked parallel sheets so that rays cross many layers, some beyond the ring of eight.
    Mesh m;
    std::uniform_real_distribution<float> jitter(-0.2f, 0.2f);
    for (int sheet = 0; sheet < 12; ++sheet) {
        const float z = float(sheet) + jitter(rng);
        const float quad[2][9] = {{-3, -3, z, 3, -3, z + 0.1f, 3, 3, z},
                                  {-3, -3, z, 3, 3, z, -3, 3, z - 0.1f}};
        for (const float* t : quad) m.add(t);
    }
    const RayOracle oracle(m);
    const float eye[3] = {0.1f, -0.2f, -5.0f};
    for (unsigned mode : {KDTreeBuildSimple, KDTreeBuildSAH}) {
        const Scene s(m, mode);
        for (int layers : {1, 3, 10, 14}) {
            Rays r = randomRays(rng, eye, s.box, 12, 10, layers);
            const Rays in = r;
            ASSERT_EQ(r.multiple(eye, s), vlkStatusOk);
            Tally tally;
            for (std::size_t i = 0; i < r.size(); ++i) expectLayers(oracle, in, r, eye, i, tally);
            EXPECT_GT(tally.hits, int(r.size()) * std::min(layers, 4) / 2) << layers;
            if (layers >= 10) {  // hits past the ring of eight
                EXPECT_GT(std::count_if(r.tri.begin() + 9 * r.size(), r.tri.begin() + 10 * r.size(),
                                        [](int t) { return t >= 0; }),
                          10);
            }
        }
    }
}

// Twelve copies of one triangle give every ray the same t for all copies it may still take,
// so each layer reports the lowest-numbered copy that neither the previous layer nor a ring
// slot the layer consults holds, until no copy lies ahead. Far from the origin, the hit point
// often rounds back to where the ray already was, and such rays go on through many layers:
// layer 8 is the first that only a ring of eight passes over, layer 9 consults no slot.
TEST(IntersectLayers, RingOfEightRecentTrianglesOnCoincidentCopies)
{
    const float corners[9] = {5.469522f,    -1226.59082f, -1592.41565f, 0.587217808f, -1230.19141f,
                              -1590.42725f, 1.38698685f,  -1230.90955f, -1591.82727f};
    const float eye[3] = {-4.81312132f, -1248.89001f, -1601.36353f};
    constexpr int kCopies = 12, kLayers = 12;
    Mesh m;
    for (int c = 0; c < kCopies; ++c) m.add(corners);
    const Scene s(m, KDTreeBuildSimple);
    std::mt19937 rng(1);
    std::gamma_distribution<float> weight(1.0f);
    Rays r(64, 63, kLayers);
    std::fill(r.dist.begin(), r.dist.end(), FLT_MAX);
    for (std::size_t i = 0; i < r.size(); ++i) {
        // Through a random point of the triangle, from the eye, at twice the length.
        const float w[3] = {weight(rng), weight(rng), weight(rng)};
        for (int k = 0; k < 3; ++k) {
            const float on = (w[0] * corners[k] + w[1] * corners[3 + k] + w[2] * corners[6 + k]) /
                             (w[0] + w[1] + w[2]);
            r.d[k][i] = 2.0f * (on - eye[k]);
        }
    }
    ASSERT_EQ(r.multiple(eye, s), vlkStatusOk);
    int reached[kLayers + 1] = {};
    for (std::size_t i = 0; i < r.size(); ++i) {
        int ring[8], previous = -1, layer = 1;
        for (; layer <= kLayers; ++layer) {
            const int got = r.tri[(layer - 1) * r.size() + i];
            if (got < 0) break;
            int want = 0;
            auto passedOver = [&](int c) {
                if (c == previous) return true;
                for (int slot = 0; slot < (layer - 1) % 8; ++slot)
                    if (ring[slot] == c) return true;
                return false;
            };
            while (passedOver(want)) ++want;
            ASSERT_EQ(got, want) << "ray " << i << ", layer " << layer;
            ring[(layer - 1) % 8] = previous = got;
            ++reached[layer];
        }
        for (; layer <= kLayers; ++layer) ASSERT_EQ(r.tri[(layer - 1) * r.size() + i], -1);
    }
    EXPECT_GT(reached[1], int(r.size()) * 9 / 10);
    EXPECT_GE(reached[9], 4) << "rays through the wrap of the ring";
}

}  // namespace
