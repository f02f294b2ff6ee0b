// Scene preparation: bounding boxes and acceleration records against the reference, bit for bit.
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "reference/scene_reference.h"
#include "test_mesh.h"
#include "vlkr.h"

namespace {

using vlkr::test::bitsOf;
using vlkr::test::Mesh;

void expectSameRecord(const TriangleAccel& got, const TriangleAccel& want, int t)
{
    std::uint32_t g[10], w[10];
    std::memcpy(g, &got, 40);
    std::memcpy(w, &want, 40);
    for (int k = 0; k < 10; ++k) EXPECT_EQ(g[k], w[k]) << "triangle " << t << " word " << k;
}

std::vector<TriangleAccel> accelOf(const Mesh& m)
{
    std::vector<TriangleAccel> out(m.triangleCount());
    EXPECT_EQ(vlkrTriangleAccelInit(out.data(), m.vertices.data(), m.triangles.data(),
                                    m.triangleCount()),
              vlkStatusOk);
    return out;
}

TEST(BoundBox, MatchesReferenceForEveryTailLength)
{
    std::mt19937 rng(12111);
    std::uniform_real_distribution<float> coord(-1000.0f, 1000.0f);
    for (int n = 1; n <= 70; ++n) {
        std::vector<float> v(3 * n);
        for (float& x : v) x = coord(rng);
        float got[6], want[6];
        ASSERT_EQ(vlkrSetBoundBox_32f(v.data(), n, got), vlkStatusOk);
        vlkr::reference::boundBox(v.data(), n, want);
        for (int k = 0; k < 6; ++k) EXPECT_EQ(bitsOf(got[k]), bitsOf(want[k])) << n << " " << k;
    }
}

TEST(BoundBox, ExtremeOnEachAxisInEveryLaneIsFound)
{
    // Put the single extreme value at every position of a 24-vertex array so that each
    // register lane and each block of the eight-vertex fold has to report it.
    for (int pos = 0; pos < 72; ++pos) {
        std::vector<float> v(72, 1.0f);
        v[pos] = -5.0f;
        float box[6];
        ASSERT_EQ(vlkrSetBoundBox_32f(v.data(), 24, box), vlkStatusOk);
        const float pad = 1e-4f * 5.0f;
        for (int c = 0; c < 3; ++c) {
            EXPECT_EQ(box[c], (c == pos % 3 ? -5.0f : 1.0f) - pad) << pos;
            EXPECT_EQ(box[3 + c], 1.0f + pad) << pos;
        }
    }
}

TEST(BoundBox, PointAtOriginGetsTheSubnormalPad)
{
    const float origin[3] = {0.0f, 0.0f, 0.0f};
    float box[6];
    ASSERT_EQ(vlkrSetBoundBox_32f(origin, 1, box), vlkStatusOk);
    for (int c = 0; c < 3; ++c) {
        EXPECT_EQ(bitsOf(box[c]), 0x80000347u);  // -839 * 2^-149
        EXPECT_EQ(bitsOf(box[3 + c]), 0x00000347u);
    }
}

TEST(BoundBox, NoVerticesGiveTheInvertedStartBox)
{
    const float dummy[3] = {1.0f, 2.0f, 3.0f};
    for (int n : {0, -1, std::numeric_limits<int>::min()}) {
        float box[6];
        ASSERT_EQ(vlkrSetBoundBox_32f(dummy, n, box), vlkStatusOk);
        for (int c = 0; c < 3; ++c) {
            EXPECT_EQ(box[c], 3.4024831e38f);
            EXPECT_EQ(box[3 + c], -3.4024831e38f);
        }
    }
}

TEST(BoundBox, NullVerticesIsNullPtrAndWritesNothing)
{
    float box[6] = {7, 7, 7, 7, 7, 7};
    EXPECT_EQ(vlkrSetBoundBox_32f(nullptr, 3, box), vlkStatusNullPtr);
    EXPECT_EQ(vlkrSetBoundBox_32f(nullptr, 0, box), vlkStatusNullPtr);
    for (float b : box) EXPECT_EQ(b, 7.0f);
}

TEST(TriangleAccel, SizeIsForty)
{
    int size = 0;
    EXPECT_EQ(vlkrTriangleAccelGetSize(&size), vlkStatusOk);
    EXPECT_EQ(size, 40);
    EXPECT_EQ(vlkrTriangleAccelGetSize(nullptr), vlkStatusNullPtr);
}

TEST(TriangleAccel, RandomSoupMatchesReference)
{
    std::mt19937 rng(2024);
    const Mesh m = vlkr::test::randomSoup(rng, 5000);
    const auto got = accelOf(m);
    for (int t = 0; t < m.triangleCount(); ++t)
        expectSameRecord(got[t], vlkr::reference::accelRecord(m.vertices.data(), &m.triangles[4 * t]), t);
}

TEST(TriangleAccel, TerrainWithSharedVerticesMatchesReference)
{
    std::mt19937 rng(7);
    const Mesh m = vlkr::test::randomTerrain(rng, 40);
    const auto got = accelOf(m);
    for (int t = 0; t < m.triangleCount(); ++t)
        expectSameRecord(got[t], vlkr::reference::accelRecord(m.vertices.data(), &m.triangles[4 * t]), t);
}

TEST(TriangleAccel, AxisTiesAndOrientationsMatchReference)
{
    // Small integer corners produce many normals with equal components on two or three axes.
    std::mt19937 rng(99);
    std::uniform_int_distribution<int> small(-2, 2);
    Mesh m;
    for (int t = 0; t < 4000; ++t) {
        for (int k = 0; k < 9; ++k) m.vertices.push_back(float(small(rng)));
        m.triangles.insert(m.triangles.end(), {3 * t, 3 * t + 1, 3 * t + 2, 0});
    }
    const auto got = accelOf(m);
    for (int t = 0; t < m.triangleCount(); ++t)
        expectSameRecord(got[t], vlkr::reference::accelRecord(m.vertices.data(), &m.triangles[4 * t]), t);
}

TEST(TriangleAccel, RepeatedCornerGivesAllZeroRecord)
{
    const float v[] = {1, 2, 3, 1, 2, 3, 4, 5, 6};
    const int tri[] = {0, 1, 2, 0};
    TriangleAccel r;
    std::memset(&r, 0xAB, sizeof r);
    ASSERT_EQ(vlkrTriangleAccelInit(&r, v, tri, 1), vlkStatusOk);
    std::uint32_t words[10];
    std::memcpy(words, &r, 40);
    for (std::uint32_t w : words) EXPECT_EQ(w, 0u);
}

TEST(TriangleAccel, FlatInZIsSeenAlongZWithBit31)
{
    const float v[] = {0, 0, 5, 2, 0, 5, 0, 3, 5};
    const int tri[] = {0, 1, 2, 0};
    TriangleAccel r;
    ASSERT_EQ(vlkrTriangleAccelInit(&r, v, tri, 1), vlkStatusOk);
    EXPECT_EQ(r.axes, 0x80000000u | (2u << 4) | (0u << 2) | 1u);
    EXPECT_EQ(bitsOf(r.nu), 0u);
    EXPECT_EQ(bitsOf(r.nv), 0u);
    EXPECT_EQ(r.cw, 5.0f);
    // N = (A - C) x (B - C) = (0,-3,0) x (2,-3,0) = (0, 0, 6): e2[u] * s / N[w] = 2 / 6.
    EXPECT_EQ(r.e2u, float(2.0 * (1.0 / 6.0)));
    EXPECT_EQ(r.e1v, float(-3.0 * (1.0 / 6.0)));
}

TEST(TriangleAccel, EqualXAndYComponentsPickX)
{
    // N = (1, 1, 0) up to scale: |N.x| = |N.y| > |N.z| keeps x.
    const float v[] = {0, 0, 0, 1, -1, 0, 0, 0, 1};
    const int tri[] = {0, 1, 2, 0};
    TriangleAccel r;
    ASSERT_EQ(vlkrTriangleAccelInit(&r, v, tri, 1), vlkStatusOk);
    EXPECT_EQ((r.axes >> 4) & 3u, 0u);
    EXPECT_EQ((r.axes >> 2) & 3u, 1u);
    EXPECT_EQ(r.axes & 3u, 2u);
    EXPECT_EQ(r.axes & 0x80000000u, 0u);
}

TEST(TriangleAccel, NonPositiveCountWritesNothing)
{
    const float v[] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    const int tri[] = {0, 1, 2, 0};
    for (int n : {0, -5}) {
        TriangleAccel r;
        std::memset(&r, 0x5A, sizeof r);
        EXPECT_EQ(vlkrTriangleAccelInit(&r, v, tri, n), vlkStatusOk);
        const unsigned char* p = reinterpret_cast<const unsigned char*>(&r);
        for (int k = 0; k < 40; ++k) EXPECT_EQ(p[k], 0x5A);
    }
}

TEST(TriangleAccel, PointerChecksComeBeforeTheCount)
{
    const float v[] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    const int tri[] = {0, 1, 2, 0};
    TriangleAccel r;
    for (int n : {1, 0, -5}) {
        EXPECT_EQ(vlkrTriangleAccelInit(nullptr, v, tri, n), vlkStatusNullPtr);
        EXPECT_EQ(vlkrTriangleAccelInit(&r, nullptr, tri, n), vlkStatusNullPtr);
        EXPECT_EQ(vlkrTriangleAccelInit(&r, v, nullptr, n), vlkStatusNullPtr);
    }
}

}  // namespace
