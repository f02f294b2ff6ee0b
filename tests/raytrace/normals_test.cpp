// Triangle, flat and smooth surface normals against their scalar models at every length and
// alignment, with edge values; degenerate and corner cases by example; the argument checks.
#include <climits>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "reference/per_ray_reference.h"
#include "vlkr.h"

namespace {

namespace ref = vlkr::reference;
using ref::Bits;
using ref::Count;
using ref::Role;
using ref::Trial;

constexpr float kEpsilonRoot = 1.0f / 4096;  // two of these squared add up to the float epsilon

// ------------------------------------------------------------------ against the model

TEST(TriangleNormals, MatchModelBitForBit)
{
    const std::string fault = ref::everyLength(301, [](Trial& t) {
        // Ten vertices: seven shrunk by chance so their triangles fall either side of the
        // zero-area bound, three on one line. Picking any three often repeats a corner.
        const auto vertices = t.values(30, Role::Shared);
        const int v = vertices.k;
        for (int e = 0; e < 21; e += 3) {
            const float scale[] = {1.0f, 1e-4f, 1e-8f}, f = scale[t.below(3)];
            for (int c = 0; c < 3; ++c) t.set(v, e + c, t.value(v, e + c) * f);
        }
        const float line[] = {1, 1, 1, 2, 3, 4, 3, 5, 7};
        for (int e = 0; e < 9; ++e) t.set(v, 21 + e, line[e]);
        const auto tri = t.indices(4 * t.n, 0, 10);
        for (int k = 0; k < t.n; ++k) t.setWord(tri.k, 4 * k + 3, t.rng());  // never read
        return t.run(vlkrTriangleNormal_32f, ref::triangleNormal, ref::fedNaNs(t), vertices, tri,
                     t.values(3 * t.n, Role::Out), t.n);
    });
    EXPECT_EQ(fault, "");
}

TEST(FlatNormals, MatchModelBitForBit)
{
    const std::string fault = ref::everyLength(302, [](Trial& t) {
        const int triangles = 1 + t.below(6);
        const auto normals = t.values(3 * triangles, Role::Shared);
        const auto tri = t.indices(t.n, -2, triangles);
        for (int e = 0; e < t.n; ++e)
            if (t.chance(0.1)) t.setWord(tri.k, e, std::uint32_t(INT_MIN));
        return t.run(vlkrSurfFlatNormal_32f, ref::surfFlatNormal, ref::exact, normals, tri,
                     t.triple(Role::Out), t.n);
    });
    EXPECT_EQ(fault, "");
}

TEST(SmoothNormals, MatchModelBitForBit)
{
    const std::string fault = ref::everyLength(303, [](Trial& t) {
        // Eight vertex normals: a zero one, a pair that cancels, a tiny one, one whose squared
        // length is the float epsilon exactly, three random.
        const auto normals = t.values(24, Role::Shared);
        const int N = normals.k;
        for (int c = 0; c < 3; ++c) {
            t.set(N, c, 0.0f);
            t.set(N, 3 + c, -t.value(N, 6 + c));
            t.set(N, 9 + c, t.value(N, 9 + c) * 1e-4f);
            t.set(N, 12 + c, c < 2 ? kEpsilonRoot : 0.0f);
        }
        const int strides[] = {3, 4, 6}, stride = strides[t.below(3)], triangles = 1 + t.below(5);
        const auto index = t.indices(triangles * stride, 0, 8);
        for (int e = 0; e < triangles * stride; ++e)
            if (e % stride > 2) t.setWord(index.k, e, t.rng());  // never read
        return t.run(vlkrSurfSmoothNormal_32f, ref::surfSmoothNormal, ref::fedNaNs(t), normals,
                     index, t.indices(t.n, -2, triangles), t.pair(), t.triple(Role::Out), t.n,
                     stride);
    });
    EXPECT_EQ(fault, "");
}

// ------------------------------------------------------------------ by example

Bits triangleNormals(const std::vector<float>& vertices, const std::vector<int>& triangles)
{
    const int count = int(triangles.size() / 4);
    std::vector<float> n(3 * count, 9.0f);
    EXPECT_EQ(vlkrTriangleNormal_32f(vertices.data(), triangles.data(), n.data(), count),
              vlkStatusOk);
    return Bits(n.data(), 3 * count);
}

TEST(TriangleNormals, CounterClockwiseUnitTriangleFacesPlusZ)
{
    EXPECT_EQ(triangleNormals({0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2, -9, 0, 2, 1, -9}),
              Bits({0, 0, 1, 0, 0, -1}));
}

TEST(TriangleNormals, DegenerateTrianglesGiveZero)
{
    // On one line; two corners coincident; a cross product of length 1e-9, whose square is
    // below 2.2e-16 (the bound applies to the square); one of length 2e-8, whose square is not.
    EXPECT_EQ(triangleNormals(
                  {0, 0, 0, 1, 1, 1, 2, 2, 2, 1e-4f, 0, 0, 0, 1e-5f, 0, 2e-4f, 0, 0, 0, 1e-4f, 0},
                  {0, 1, 2, 0, 0, 0, 1, 0, 3, 4, 0, 0, 5, 6, 0, 0}),
              Bits({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
}

TEST(FlatNormals, NoHitGivesZeroAndHitsCopyBits)
{
    const float sNaN = ref::floatOf(0x7F800001), normals[] = {1, 2, 3, sNaN, -0.0f, 5};
    const int tri[] = {-1, 1, INT_MIN, 0};
    std::vector<float> x(4, 9.0f), y = x, z = x;
    float* const out[3] = {x.data(), y.data(), z.data()};
    ASSERT_EQ(vlkrSurfFlatNormal_32f(normals, tri, out, 4), vlkStatusOk);
    EXPECT_EQ(Bits(x.data(), 4), Bits({0, sNaN, 0, 1}));
    EXPECT_EQ(Bits(y.data(), 4), Bits({0, -0.0f, 0, 2}));
    EXPECT_EQ(Bits(z.data(), 4), Bits({0, 5, 0, 3}));
}

// Smooth normals, packed per ray, of the triangle at entry 1 of a five-word index table (normals
// 0, 1, 2; entry 0 points at normal 3) for hits (u, v) on triangle tri.
Bits smooth(const std::vector<float>& vertexNormals, std::vector<float> u, std::vector<float> v,
            std::vector<int> tri)
{
    const int index[] = {3, 3, 3, 3, 3, 0, 1, 2, 3, 3}, n = int(tri.size());
    std::vector<float> x(n, 9.0f), y = x, z = x, packed;
    const float* const hit[2] = {u.data(), v.data()};
    float* const normal[3] = {x.data(), y.data(), z.data()};
    EXPECT_EQ(vlkrSurfSmoothNormal_32f(vertexNormals.data(), index, tri.data(), hit, normal, n, 5),
              vlkStatusOk);
    for (int i = 0; i < n; ++i) packed.insert(packed.end(), {x[i], y[i], z[i]});
    return Bits(packed.data(), 3 * n);
}

TEST(SmoothNormals, CornerWeightsGiveTheVertexNormalNormalised)
{
    // u weighs the first vertex, v the second, 1 - u - v the third; a miss gives zero.
    const std::vector<float> N = {1, 2, 2, 7, 7, 7, 0, 3, 4, 7, 7, 7};
    const float r = 7 / std::sqrt(147.0f);
    EXPECT_EQ(smooth(N, {1, 0, 0, 1}, {0, 1, 0, 0}, {1, 1, 1, -1}),
              Bits({1.0f / 3, 2.0f / 3, 2.0f / 3, r, r, r, 0, 3.0f / 5, 4.0f / 5, 0, 0, 0}));
}

TEST(SmoothNormals, BlendsBelowFloatEpsilonGiveZero)
{
    // N0 = -N1 halved each; a blend of squared length 3e-8; one of squared length 2^-23
    // exactly, which is not below the bound and is normalised.
    const std::vector<float> N = {1, 2, 3, -1, -2, -3, 5, 5, 5, 7, 7, 7};
    EXPECT_EQ(smooth(N, {0.5f}, {0.5f}, {1}), Bits({0, 0, 0}));
    const std::vector<float> tiny = {1e-4f, 1e-4f, 1e-4f, kEpsilonRoot, kEpsilonRoot, 0, 1, 1, 1,
                                     7,     7,     7};
    const float half = kEpsilonRoot / std::sqrt(ref::kFloatEpsilon);
    EXPECT_EQ(smooth(tiny, {1, 0}, {0, 1}, {1, 1}), Bits({0, 0, 0, half, half, 0}));
}

// ------------------------------------------------------------------ argument checks

TEST(NormalArguments, TriangleNormal)
{
    Trial t(1, 8);
    const auto vertices = t.values(9), triangles = t.indices(32, 0, 3), normals = t.values(24);
    EXPECT_EQ(t.argumentFaults(vlkrTriangleNormal_32f, {vertices, triangles, normals}, vertices,
                               triangles, normals, Count{}),
              "");
}

TEST(NormalArguments, SurfFlatNormalLeavesTheOutputUnchecked)
{
    Trial t(2, 8);
    const auto normals = t.values(9), tri = t.indices(8, -1, 3), out = t.triple();
    EXPECT_EQ(t.argumentFaults(vlkrSurfFlatNormal_32f, {normals, tri}, normals, tri, out, Count{}),
              "");
}

TEST(NormalArguments, SurfSmoothNormal)
{
    Trial t(3, 8);
    const auto normals = t.values(9), index = t.indices(12, 0, 3), tri = t.indices(8, -1, 3),
               hit = t.pair(), out = t.triple();
    EXPECT_EQ(t.argumentFaults(vlkrSurfSmoothNormal_32f, {normals, index, tri, hit, out}, normals,
                               index, tri, hit, out, Count{}, 4),
              "");
}

}  // namespace
