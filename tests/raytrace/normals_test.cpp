// Triangle, flat and smooth surface normals: each against its scalar model at every length and
// alignment together with its pointer checks, and the worked examples that pin the numbers.
#include <climits>
#include <cstdint>

#include <gtest/gtest.h>

#include "reference/per_ray_reference.h"

namespace {

using namespace vlkr::reference;

TEST(TriangleNormals, MatchModelAndCheckEveryArray)
{
    everyLength(301, [](Trial& t) {
        // Ten vertices: seven shrunk by chance so their triangles fall either side of the
        // zero-area bound, three on one line. Picking any three often repeats a corner.
        const auto vertices = t.shared(30);
        const int v = vertices.k;
        for (int e = 0; e < 21; e += 3) {
            const float scale[] = {1.0f, 1e-4f, 1e-8f}, f = scale[t.below(3)];
            for (int c = 0; c < 3; ++c) t.set(v, e + c, t.value(v, e + c) * f);
        }
        const float line[] = {1, 1, 1, 2, 3, 4, 3, 5, 7};
        for (int e = 0; e < 9; ++e) t.set(v, 21 + e, line[e]);
        const auto tri = t.indices(4 * t.n, 0, 10), out = t.values(3 * t.n, Role::Out);
        for (int k = 0; k < t.n; ++k) t.setWord(tri.k, 4 * k + 3, t.rng());  // never read
        return t.run(vlkrTriangleNormal_32f, triangleNormal, {vertices, tri, out}, vertices, tri,
                     out, Count{});
    });
}

TEST(FlatNormals, MatchModelAndLeaveTheOutputUnchecked)
{
    everyLength(302, [](Trial& t) {
        const int triangles = 1 + t.below(6);
        const auto normals = t.shared(3 * triangles), tri = t.indices(t.n, -2, triangles);
        for (int e = 0; e < t.n; ++e)
            if (t.chance(0.1)) t.setWord(tri.k, e, std::uint32_t(INT_MIN));
        t.accept = nullptr;  // normals are copied, NaNs and all
        return t.run(vlkrSurfFlatNormal_32f, surfFlatNormal, {normals, tri}, normals, tri,
                     t.triple(Role::Out), Count{});
    });
}

TEST(SmoothNormals, MatchModelAndCheckEveryArray)
{
    everyLength(303, [](Trial& t) {
        // Eight vertex normals: a zero one, a pair that cancels, a tiny one, one whose squared
        // length is the float epsilon exactly, three random.
        const auto normals = t.shared(24);
        const int N = normals.k;
        for (int c = 0; c < 3; ++c) {
            t.set(N, c, 0.0f);
            t.set(N, 3 + c, -t.value(N, 6 + c));
            t.set(N, 9 + c, t.value(N, 9 + c) * 1e-4f);
            t.set(N, 12 + c, c < 2 ? 1.0f / 4096 : 0.0f);
        }
        const int strides[] = {3, 4, 6}, stride = strides[t.below(3)], triangles = 1 + t.below(5);
        const auto index = t.indices(triangles * stride, 0, 8);
        for (int e = 0; e < triangles * stride; ++e)
            if (e % stride > 2) t.setWord(index.k, e, t.rng());  // never read
        const auto tri = t.indices(t.n, -2, triangles), hit = t.values(t.n, Role::In, 2);
        const auto out = t.triple(Role::Out);
        return t.run(vlkrSurfSmoothNormal_32f, surfSmoothNormal, {normals, index, tri, hit, out},
                     normals, index, tri, hit, out, Count{}, stride);
    });
}

TEST(TriangleNormals, CounterClockwiseUnitTriangleFacesPlusZAndCollinearGivesZero)
{
    const float vertices[] = {0, 0, 0, 1, 0, 0, 0, 1, 0, 2, 0, 0};
    const int triangles[] = {0, 1, 2, -9, 0, 1, 3, -9};
    float n[6] = {9, 9, 9, 9, 9, 9};
    ASSERT_EQ(vlkrTriangleNormal_32f(vertices, triangles, n, 2), vlkStatusOk);
    EXPECT_EQ(bits(n[0], n[1], n[2], n[3], n[4], n[5]), bits(0, 0, 1, 0, 0, 0));
}

TEST(SmoothNormals, CornerWeightsGiveTheVertexNormalNormalisedAndCancellingGivesZero)
{
    // u weighs the first corner's normal, v the second, 1 - u - v the third. Rays: u = 1, v = 0;
    // u = v = 0; halfway between two opposite normals.
    const float normals[] = {1, 2, 2, 7, 7, 7, 0, 3, 4, 1, 2, 3, -1, -2, -3};
    const int index[] = {0, 1, 2, 3, 4, 2}, tri[] = {0, 0, 1};
    const float u[] = {1, 0, 0.5f}, v[] = {0, 0, 0.5f};
    float x[3], y[3], z[3];
    const float* const hit[2] = {u, v};
    float* const out[3] = {x, y, z};
    ASSERT_EQ(vlkrSurfSmoothNormal_32f(normals, index, tri, hit, out, 3, 3), vlkStatusOk);
    EXPECT_EQ(bits(x[0], y[0], z[0]), bits(1.0f / 3, 2.0f / 3, 2.0f / 3));
    EXPECT_EQ(bits(x[1], y[1], z[1]), bits(0, 3.0f / 5, 4.0f / 5));
    EXPECT_EQ(bits(x[2], y[2], z[2]), bits(0, 0, 0));
}

}  // namespace
