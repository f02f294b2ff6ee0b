// The four-lane walk against the single-ray walk it must reproduce, lane for lane and bit for
// bit, on SAH trees with coherent and incoherent rays, for nearest and any hits.
#include <cfloat>
#include <random>

#include <gtest/gtest.h>

#include "raytrace/kdtree_walk.h"
#include "raytrace/packet_walk.h"
#include "test_mesh.h"
#include "vlkr.h"

namespace {

using namespace vlkr::raytrace;
using vlkr::test::bitsOf;
using vlkr::test::Scene;

// Hit policies for one ray and for four lanes; with `any` a hit ends the ray's walk.
struct One {
    float best;
    bool any;
    float p = 0, q = 0;
    int triangle = -1;
    bool onHit(int n, float t, float pp, float qq)
    {
        best = t, p = pp, q = qq, triangle = n;
        return any;
    }
    static bool skip(int) { return false; }
};

struct Four {
    __m128 best;
    bool any;
    __m128 p = _mm_setzero_ps(), q = _mm_setzero_ps();
    int triangle[4] = {-1, -1, -1, -1};
    int onHit(int n, __m128 hit, int lanes, __m128 t, __m128 pp, __m128 qq)
    {
        best = select4(hit, t, best), p = select4(hit, pp, p), q = select4(hit, qq, q);
        for (int l = 0; l < 4; ++l)
            if (lanes >> l & 1) triangle[l] = n;
        return any ? lanes : 0;
    }
};

// Walks 2000 packets (1000 for occlusion) of four rays from `eye` towards nearby points of the
// box (coherent in every other packet) both ways and compares every lane. Some rays are cut
// short and some have zero components; nearest-hit rays walk the lanes that enter the box,
// occlusion rays random lanes. Counts the packets walked and the lanes hit.
void compareWalks(const Scene& s, const float eye[3], bool any, std::mt19937& rng,
                  long long& packets, long long& lanesHit)
{
    const float* box = s.box;
    std::uniform_real_distribution<float> unit(-0.1f, 1.1f), cut(0, 1);
    for (int n = 0; n < (any ? 1000 : 2000); ++n) {
        const float spread = n % 2 ? 0.01f : 0.3f;
        std::uniform_real_distribution<float> jitter(-spread, spread);
        Ray r[4] = {};
        float maxDist[4], target[3];
        for (int k = 0; k < 3; ++k) target[k] = box[k] + unit(rng) * (box[3 + k] - box[k]);
        int lanes = 0;
        bool sameSigns = true;
        for (int l = 0; l < 4; ++l) {
            for (int k = 0; k < 3; ++k) {
                r[l].o[k] = eye[k];
                r[l].d[k] = target[k] + jitter(rng) * (box[3 + k] - box[k]) - eye[k];
            }
            if (rng() % 23 == 0) r[l].d[rng() % 3] = 0.0f;
            maxDist[l] = rng() % 9 == 0 ? cut(rng) : FLT_MAX;
            if (any)
                setUpOcclusion(r[l]);
            else
                lanes |= enterBox(box, maxDist[l], r[l]) ? 1 << l : 0;
            for (int k = 0; k < 3; ++k) sameSigns = sameSigns && r[l].sign[k] == r[0].sign[k];
        }
        if (any) lanes = int(rng() % 15) + 1;
        if (!sameSigns || lanes == 0) continue;
        ++packets;
        Packet4 p;
        for (int k = 0; k < 3; ++k) {
            p.o[k] = _mm_setr_ps(r[0].o[k], r[1].o[k], r[2].o[k], r[3].o[k]);
            p.d[k] = _mm_setr_ps(r[0].d[k], r[1].d[k], r[2].d[k], r[3].d[k]);
            p.inv[k] = _mm_setr_ps(r[0].inv[k], r[1].inv[k], r[2].inv[k], r[3].inv[k]);
            p.sign[k] = r[0].sign[k];
        }
        p.tnear = _mm_setr_ps(r[0].tnear, r[1].tnear, r[2].tnear, r[3].tnear);
        p.tfar = _mm_setr_ps(r[0].tfar, r[1].tfar, r[2].tfar, r[3].tfar);
        const __m128 best = _mm_setr_ps(maxDist[0], maxDist[1], maxDist[2], maxDist[3]);
        Four h4{any ? _mm_set1_ps(1.0f) : best, any};
        walkPacket(s.tree, s.accel.data(), kNodeEpsilon, p, lanes, h4);
        float t4[4], p4[4], q4[4];
        _mm_storeu_ps(t4, h4.best), _mm_storeu_ps(p4, h4.p), _mm_storeu_ps(q4, h4.q);
        for (int l = 0; l < 4; ++l) {
            if (!(lanes >> l & 1)) continue;
            One h1{any ? 1.0f : maxDist[l], any};
            walkTree(s.tree, s.accel.data(), kNodeEpsilon, r[l], h1);
            ASSERT_EQ(h4.triangle[l], h1.triangle) << "packet " << n << " lane " << l;
            if (h1.triangle < 0) continue;
            ++lanesHit;
            ASSERT_EQ(bitsOf(t4[l]), bitsOf(h1.best));
            ASSERT_EQ(bitsOf(p4[l]), bitsOf(h1.p));
            ASSERT_EQ(bitsOf(q4[l]), bitsOf(h1.q));
        }
    }
}

TEST(PacketWalk, NearestHitsAndOccludersEqualTheSingleRayWalkBitForBit)
{
    std::mt19937 rng(777);
    const Scene scenes[] = {Scene(vlkr::test::randomSoup(rng, 4000, 10.0f)),
                            Scene(vlkr::test::randomTerrain(rng, 40)),
                            Scene(vlkr::test::sphere(30, 60)),
                            Scene(vlkr::test::axisAlignedFlats(rng, 1500))};
    long long packets = 0, lanesHit = 0, occluded = 0, unused = 0;
    for (const Scene& s : scenes) {
        const float eye[3] = {s.box[0] - 5.0f, s.box[4] + 4.0f, s.box[2] - 7.0f};
        const float light[3] = {0.5f * (s.box[0] + s.box[3]), s.box[4] + 6.0f, s.box[2]};
        compareWalks(s, eye, false, rng, packets, lanesHit);
        compareWalks(s, light, true, rng, unused, occluded);
    }
    EXPECT_GT(packets, 3000);
    EXPECT_GT(lanesHit, 3000);
    EXPECT_GT(occluded, 1000);
}

}  // namespace
