// The four-lane walk against the single-ray walk it must reproduce, lane for lane and bit for
// bit, on SAH trees with coherent and incoherent rays, for nearest and any hits.
#include <cfloat>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "raytrace/kdtree_walk.h"
#include "raytrace/packet_walk.h"
#include "test_mesh.h"
#include "vlkr.h"

namespace {

using namespace vlkr::raytrace;
using vlkr::test::bitsOf;
using vlkr::test::Mesh;

struct Nearest1 {
    float best;
    float p = 0, q = 0;
    int triangle = -1;
    bool onHit(int n, float t, float pp, float qq)
    {
        best = t, p = pp, q = qq, triangle = n;
        return false;
    }
    static bool skip(int) { return false; }
};

struct Any1 {
    float best = 1.0f;
    int triangle = -1;
    bool onHit(int n, float, float, float)
    {
        triangle = n;
        return true;
    }
    static bool skip(int) { return false; }
};

struct Nearest4 {
    __m128 best;
    __m128 p = _mm_setzero_ps(), q = _mm_setzero_ps();
    int triangle[4] = {-1, -1, -1, -1};
    int onHit(int n, __m128 hit, int lanes, __m128 t, __m128 pp, __m128 qq)
    {
        best = select4(hit, t, best), p = select4(hit, pp, p), q = select4(hit, qq, q);
        for (int l = 0; l < 4; ++l)
            if (lanes >> l & 1) triangle[l] = n;
        return 0;
    }
};

struct Any4 {
    __m128 best = _mm_set1_ps(1.0f);
    int triangle[4] = {-1, -1, -1, -1};
    int onHit(int n, __m128, int lanes, __m128, __m128, __m128)
    {
        for (int l = 0; l < 4; ++l)
            if (lanes >> l & 1) triangle[l] = n;
        return lanes;
    }
};

struct Built {
    std::vector<TriangleAccel> accel;
    float box[6];
    KDTreeNode* tree = nullptr;
    explicit Built(const Mesh& m)
    {
        accel.resize(m.triangleCount());
        vlkrTriangleAccelInit(accel.data(), m.vertices.data(), m.triangles.data(), m.triangleCount());
        vlkrSetBoundBox_32f(m.vertices.data(), m.vertexCount(), box);
        const KDTreeBuildContext p{KDTreeBuildSAH, 50, 1.0f, 256, nullptr};
        int size;
        vlkrKDTreeBuildAlloc(&tree, m.vertices.data(), m.triangles.data(), m.vertexCount(),
                             m.triangleCount(), &size, &p);
    }
    ~Built() { vlkrKDTreeFree(tree); }
};

Packet4 pack(const Ray r[4])
{
    alignas(16) float v[5][3][4], s[2][4];
    for (int l = 0; l < 4; ++l) {
        for (int k = 0; k < 3; ++k) v[0][k][l] = r[l].o[k], v[1][k][l] = r[l].d[k], v[2][k][l] = r[l].inv[k];
        s[0][l] = r[l].tnear, s[1][l] = r[l].tfar;
    }
    Packet4 p;
    for (int k = 0; k < 3; ++k) {
        p.o[k] = _mm_load_ps(v[0][k]), p.d[k] = _mm_load_ps(v[1][k]), p.inv[k] = _mm_load_ps(v[2][k]);
        p.sign[k] = r[0].sign[k];
    }
    p.tnear = _mm_load_ps(s[0]), p.tfar = _mm_load_ps(s[1]);
    return p;
}

bool sameSigns(const Ray r[4])
{
    for (int l = 1; l < 4; ++l)
        for (int k = 0; k < 3; ++k)
            if (r[l].sign[k] != r[0].sign[k]) return false;
    return true;
}

// Four rays from `eye` towards nearby points (coherent when `spread` is small); some are cut
// short and some have zero components.
void makeRays(std::mt19937& rng, const float box[6], const float eye[3], float spread, Ray r[4],
              float maxDist[4])
{
    std::uniform_real_distribution<float> unit(-0.1f, 1.1f), jitter(-spread, spread), cut(0, 1);
    float target[3];
    for (int k = 0; k < 3; ++k) target[k] = box[k] + unit(rng) * (box[3 + k] - box[k]);
    for (int l = 0; l < 4; ++l) {
        for (int k = 0; k < 3; ++k) {
            r[l].o[k] = eye[k];
            r[l].d[k] = target[k] + jitter(rng) * (box[3 + k] - box[k]) - eye[k];
        }
        if (rng() % 23 == 0) r[l].d[rng() % 3] = 0.0f;
        maxDist[l] = rng() % 9 == 0 ? cut(rng) : FLT_MAX;
    }
}

TEST(PacketWalk, NearestHitsEqualTheSingleRayWalkBitForBit)
{
    std::mt19937 rng(777);
    Mesh meshes[] = {vlkr::test::randomSoup(rng, 4000, 10.0f), vlkr::test::randomTerrain(rng, 40),
                     vlkr::test::sphere(30, 60), vlkr::test::axisAlignedFlats(rng, 1500)};
    long long packets = 0, lanesHit = 0;
    for (const Mesh& m : meshes) {
        const Built b(m);
        const float eye[3] = {b.box[0] - 5.0f, b.box[4] + 4.0f, b.box[2] - 7.0f};
        for (int n = 0; n < 2000; ++n) {
            Ray r[4];
            float maxDist[4];
            makeRays(rng, b.box, eye, n % 2 ? 0.01f : 0.3f, r, maxDist);
            int lanes = 0;
            for (int l = 0; l < 4; ++l) lanes |= enterBox(b.box, maxDist[l], r[l]) ? 1 << l : 0;
            if (!sameSigns(r) || lanes == 0) continue;
            Packet4 p = pack(r);
            alignas(16) float best[4] = {maxDist[0], maxDist[1], maxDist[2], maxDist[3]};
            Nearest4 h4{_mm_load_ps(best)};
            walkPacket(b.tree, b.accel.data(), kNodeEpsilon, p, lanes, h4);
            alignas(16) float t4[4], p4[4], q4[4];
            _mm_store_ps(t4, h4.best), _mm_store_ps(p4, h4.p), _mm_store_ps(q4, h4.q);
            ++packets;
            for (int l = 0; l < 4; ++l) {
                if (!(lanes >> l & 1)) continue;
                Nearest1 h1{maxDist[l]};
                walkTree(b.tree, b.accel.data(), kNodeEpsilon, r[l], h1);
                ASSERT_EQ(h4.triangle[l], h1.triangle) << "packet " << n << " lane " << l;
                if (h1.triangle < 0) continue;
                ++lanesHit;
                ASSERT_EQ(bitsOf(t4[l]), bitsOf(h1.best));
                ASSERT_EQ(bitsOf(p4[l]), bitsOf(h1.p));
                ASSERT_EQ(bitsOf(q4[l]), bitsOf(h1.q));
            }
        }
    }
    EXPECT_GT(packets, 3000);
    EXPECT_GT(lanesHit, 3000);
}

TEST(PacketWalk, OccludersEqualTheSingleRayWalk)
{
    std::mt19937 rng(888);
    Mesh meshes[] = {vlkr::test::randomSoup(rng, 4000, 10.0f), vlkr::test::sphere(30, 60)};
    long long occluded = 0;
    for (const Mesh& m : meshes) {
        const Built b(m);
        const float light[3] = {0.5f * (b.box[0] + b.box[3]), b.box[4] + 6.0f, b.box[2]};
        for (int n = 0; n < 2000; ++n) {
            Ray r[4];
            float unused[4];
            makeRays(rng, b.box, light, n % 2 ? 0.01f : 0.3f, r, unused);
            for (int l = 0; l < 4; ++l) setUpOcclusion(r[l]);
            if (!sameSigns(r)) continue;
            const int lanes = int(rng() % 15) + 1;
            Packet4 p = pack(r);
            Any4 h4;
            walkPacket(b.tree, b.accel.data(), kNodeEpsilon, p, lanes, h4);
            for (int l = 0; l < 4; ++l) {
                if (!(lanes >> l & 1)) continue;
                Any1 h1;
                walkTree(b.tree, b.accel.data(), kNodeEpsilon, r[l], h1);
                ASSERT_EQ(h4.triangle[l], h1.triangle) << "packet " << n << " lane " << l;
                occluded += h1.triangle >= 0;
            }
        }
    }
    EXPECT_GT(occluded, 1000);
}

}  // namespace
