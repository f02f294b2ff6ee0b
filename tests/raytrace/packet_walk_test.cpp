// The four-lane walk against the single-ray walk it must reproduce, lane for lane and bit for
// bit, on SAH trees with coherent and incoherent rays, for nearest and any hits.
#include <algorithm>
#include <cfloat>
#include <random>

#include <gtest/gtest.h>

#include "raytrace/hit_policies.h"
#include "raytrace/kdtree_walk.h"
#include "raytrace/packet_walk.h"
#include "test_mesh.h"
#include "vlkr.h"

namespace {

using namespace vlkr::raytrace;
using vlkr::test::bitsOf;
using vlkr::test::Scene;

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
        int first = 0;
        while (!(lanes >> first & 1)) ++first;
        Packet4 p = gatherPacket(r, lanes, first);
        int triangle4[4];
        float t4[4], p4[4], q4[4];
        if (any) {
            AnyHit4 h4;
            walkPacket(s.tree, s.accel.data(), kNodeEpsilon, p, lanes, h4);
            std::copy(h4.triangle, h4.triangle + 4, triangle4);
        } else {
            NearestHit4 h4{_mm_setr_ps(maxDist[0], maxDist[1], maxDist[2], maxDist[3])};
            walkPacket(s.tree, s.accel.data(), kNodeEpsilon, p, lanes, h4);
            h4.triangle.store(triangle4), h4.best.store(t4), h4.p.store(p4), h4.q.store(q4);
        }
        for (int l = 0; l < 4; ++l) {
            if (!(lanes >> l & 1)) continue;
            if (any) {
                AnyHit h1;
                walkTree(s.tree, s.accel.data(), kNodeEpsilon, r[l], h1);
                ASSERT_EQ(triangle4[l], h1.triangle) << "packet " << n << " lane " << l;
                lanesHit += h1.triangle >= 0;
                continue;
            }
            NearestHit h1{maxDist[l]};
            walkTree(s.tree, s.accel.data(), kNodeEpsilon, r[l], h1);
            ASSERT_EQ(triangle4[l], h1.triangle) << "packet " << n << " lane " << l;
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
