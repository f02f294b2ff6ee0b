// Eye, reflection and shadow rays and hit points: each against its scalar model at every length
// and alignment together with its pointer checks, and the worked examples that pin the numbers.
#include <algorithm>
#include <vector>

#include <gtest/gtest.h>

#include "reference/per_ray_reference.h"

namespace {

using namespace vlkr::reference;

TEST(EyeRays, MatchModelAndCheckOnlyTheDirections)
{
    everyLength(201, [](Trial& t) {
        // Block sizes past 2^24 make the pixel offsets round when they turn into floats.
        auto size = [&] {
            return t.chance(0.2) ? (t.chance(0.5) ? 16777217 : 100000001) : t.below(18) - 1;
        };
        const PacketSize block{size(), size()};
        const int width = t.below(9) - 1, column = t.below(8) - 3, row = t.below(8) - 3;
        t.count = t.n % 9 - 1;  // the packet's rows
        const auto corner = t.shared(3), cs = t.shared(3), rs = t.shared(3);
        const auto d = t.values(std::max(width, 0) * std::max(t.count, 0), Role::Out, 3);
        return t.run(vlkrCastEye_32f, castEye, {d}, corner, cs, rs, column, row, block, d,
                     Rows{width});
    });
}

TEST(ReflectionRays, MatchModelAndCheckEveryArray)
{
    everyLength(202, [](Trial& t) {
        const auto d = t.triple(), n = t.triple(), r = t.triple(Role::Out), m = t.masks();
        return t.run(vlkrCastReflectionRay_32f, castReflectionRay, {d, m, n, r}, d, m, n, r,
                     Count{});
    });
}

TEST(ShadowRays, MatchModelAndLeaveTheLightUnchecked)
{
    everyLength(203, [](Trial& t) {
        const auto light = t.shared(3), s = t.values(t.n), c = t.values(t.n, Role::Out);
        const auto n = t.triple(), h = t.triple(), d = t.triple(Role::Out), m = t.masks();
        // Some rays hit next to the light's plane along one axis, where the in-plane
        // tolerance decides; with the light at the origin their v . n is exactly +-offset.
        if (t.chance(0.3))
            for (int k = 0; k < 3; ++k) t.set(light.k, k, 0.0f);
        for (int e = 0; e < t.n; ++e) {
            if (!t.chance(0.3)) continue;
            const float offsets[] = {0, 0.001f, 0.0017453291f, kShadowTolerance, 0.0018f};
            const float offset = offsets[t.below(5)] * (t.chance(0.5) ? 1 : -1);
            const int axis = t.below(3);
            for (int k = 0; k < 3; ++k) {
                t.set(h.k + k, e, t.value(light.k, k) + (k == axis ? offset : 0.0f));
                t.set(n.k + k, e, k != axis ? 0.0f : t.chance(0.5) ? 1.0f : -1.0f);
            }
        }
        t.accept = nullptr;  // no arithmetic NaN reaches a result
        return t.run(vlkrCastShadowSO_32f, castShadow, {s, n, h, m, d, c}, light, s, n, h, m, c, d,
                     Count{});
    });
}

TEST(HitPoints, SharedOriginMatchesModelAndIsUnchecked)
{
    everyLength(204, [](Trial& t) {
        const auto o = t.shared(3), dist = t.values(t.n), d = t.triple(), m = t.masks();
        const auto p = t.triple(Role::Out);
        return t.run(vlkrHitPoint3DEpsS0_32f_M, hitPoint<const float*>, {dist, m, d, p}, o, d,
                     dist, m, p, Count{}, t.shared(1));
    });
}

TEST(HitPoints, PerRayOriginsMatchModelAndAreChecked)
{
    everyLength(205, [](Trial& t) {
        const auto o = t.triple(), d = t.triple(), dist = t.values(t.n), m = t.masks();
        const auto p = t.triple(Role::Out);
        return t.run(vlkrHitPoint3DEpsM0_32f_M, hitPoint<const float* const*>, {dist, m, d, p, o},
                     o, d, dist, m, p, Count{}, t.shared(1));
    });
}

TEST(EyeRays, BlockTwoOneOfEightByEightStartsAtPixelSixteenEight)
{
    const float corner[3] = {0, 0, 1}, columnStep[3] = {1, 0, 0}, rowStep[3] = {0, 1, 0};
    std::vector<float> x(64), y(64), z(64);
    float* const dir[3] = {x.data(), y.data(), z.data()};
    ASSERT_EQ(vlkrCastEye_32f(corner, columnStep, rowStep, 2, 1, {8, 8}, dir, {8, 8}), vlkStatusOk);
    EXPECT_EQ(bits(x[0], y[0], z[0]), bits(16, 8, 1));
    EXPECT_EQ(bits(x[9], y[9], z[9]), bits(17, 9, 1));
}

}  // namespace
