// Scene preparation: bounding boxes and acceleration records against the reference, bit for bit.
#include <climits>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "reference/scene_reference.h"
#include "test_mesh.h"
#include "vlkr.h"

namespace {

using vlkr::test::bitsOf;
using vlkr::test::Mesh;

std::vector<std::uint32_t> wordsOf(const TriangleAccel& r)
{
    std::vector<std::uint32_t> w(10);
    std::memcpy(w.data(), &r, 40);
    return w;
}

TEST(BoundBox, MatchesReferenceForEveryTailLengthAndLane)
{
    // Random vertices at every length to 70, and 24 vertices with one extreme value at each
    // position, so that each register lane and each block of the eight-vertex fold reports it.
    std::mt19937 rng(12111);
    std::uniform_real_distribution<float> coord(-1000.0f, 1000.0f);
    std::vector<std::vector<float>> inputs;
    for (int n = 1; n <= 70; ++n) {
        inputs.emplace_back(3 * n);
        for (float& x : inputs.back()) x = coord(rng);
    }
    for (int pos = 0; pos < 72; ++pos) {
        inputs.emplace_back(72, 1.0f);
        inputs.back()[pos] = -5.0f;
    }
    for (const auto& v : inputs) {
        const int n = int(v.size() / 3);
        float got[6], want[6];
        ASSERT_EQ(vlkrSetBoundBox_32f(v.data(), n, got), vlkStatusOk);
        vlkr::reference::boundBox(v.data(), n, want);
        for (int k = 0; k < 6; ++k) EXPECT_EQ(bitsOf(got[k]), bitsOf(want[k])) << n << " " << k;
    }
}

TEST(BoundBox, SubnormalPadInvertedStartBoxAndNullVertices)
{
    const float origin[3] = {0.0f, 0.0f, 0.0f};
    float box[6];
    ASSERT_EQ(vlkrSetBoundBox_32f(origin, 1, box), vlkStatusOk);
    for (int c = 0; c < 3; ++c) {
        EXPECT_EQ(bitsOf(box[c]), 0x80000347u);  // -839 * 2^-149
        EXPECT_EQ(bitsOf(box[3 + c]), 0x00000347u);
    }
    for (int n : {0, -1, INT_MIN}) {
        ASSERT_EQ(vlkrSetBoundBox_32f(origin, n, box), vlkStatusOk);
        for (int c = 0; c < 3; ++c) {
            EXPECT_EQ(box[c], 3.4024831e38f);
            EXPECT_EQ(box[3 + c], -3.4024831e38f);
        }
    }
    float untouched[6] = {7, 7, 7, 7, 7, 7};
    EXPECT_EQ(vlkrSetBoundBox_32f(nullptr, 3, untouched), vlkStatusNullPtr);
    EXPECT_EQ(vlkrSetBoundBox_32f(nullptr, 0, untouched), vlkStatusNullPtr);
    for (float b : untouched) EXPECT_EQ(b, 7.0f);
}

TEST(TriangleAccel, MeshesMatchReference)
{
    // A soup, a terrain with shared vertices, and small integer corners, which give many
    // normals with equal components on two or three axes and many repeated corners.
    std::mt19937 rng(2024);
    Mesh meshes[3] = {vlkr::test::randomSoup(rng, 5000), vlkr::test::randomTerrain(rng, 40), {}};
    std::uniform_int_distribution<int> small(-2, 2);
    for (int t = 0; t < 4000; ++t) {
        float c[9];
        for (float& x : c) x = float(small(rng));
        meshes[2].add(c);
    }
    for (const Mesh& m : meshes) {
        TriangleAccel filler;
        std::memset(&filler, 0xAB, sizeof filler);
        std::vector<TriangleAccel> got(m.triangleCount(), filler);
        ASSERT_EQ(vlkrTriangleAccelInit(got.data(), m.vertices.data(), m.triangles.data(),
                                        m.triangleCount()),
                  vlkStatusOk);
        for (int t = 0; t < m.triangleCount(); ++t)
            ASSERT_EQ(wordsOf(got[t]),
                      wordsOf(vlkr::reference::accelRecord(m.vertices.data(), &m.triangles[4 * t])))
                << "triangle " << t;
    }
}

TEST(TriangleAccel, SizeChecksAndCornerCases)
{
    int size = 0;
    EXPECT_EQ(vlkrTriangleAccelGetSize(&size), vlkStatusOk);
    EXPECT_EQ(size, 40);
    EXPECT_EQ(vlkrTriangleAccelGetSize(nullptr), vlkStatusNullPtr);
    // Pointer checks come before the count, and a count of zero or less writes nothing.
    const float repeated[] = {1, 2, 3, 1, 2, 3, 4, 5, 6};
    const int tri[] = {0, 1, 2, 0};
    TriangleAccel r;
    std::memset(&r, 0x5A, sizeof r);
    for (int n : {1, 0, -5}) {
        EXPECT_EQ(vlkrTriangleAccelInit(nullptr, repeated, tri, n), vlkStatusNullPtr);
        EXPECT_EQ(vlkrTriangleAccelInit(&r, nullptr, tri, n), vlkStatusNullPtr);
        EXPECT_EQ(vlkrTriangleAccelInit(&r, repeated, nullptr, n), vlkStatusNullPtr);
    }
    for (int n : {0, -5}) EXPECT_EQ(vlkrTriangleAccelInit(&r, repeated, tri, n), vlkStatusOk);
    EXPECT_EQ(wordsOf(r), std::vector<std::uint32_t>(10, 0x5A5A5A5Au)) << "nothing written";

    // A repeated corner gives the all-zero record.
    ASSERT_EQ(vlkrTriangleAccelInit(&r, repeated, tri, 1), vlkStatusOk);
    EXPECT_EQ(wordsOf(r), std::vector<std::uint32_t>(10, 0u));
}

}  // namespace
