// Eye, reflection and shadow rays and hit points against their scalar models at every length
// and alignment, with edge values; worked examples; the argument checks.
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

// ------------------------------------------------------------------ against the model

TEST(EyeRays, MatchModelBitForBit)
{
    const std::string fault = ref::everyLength(201, [](Trial& t) {
        // Block sizes past 2^24 make the pixel offsets round when they turn into floats.
        auto size = [&] {
            const int big[] = {16777217, 100000001};
            return t.chance(0.2) ? big[t.below(2)] : t.below(18) - 1;
        };
        const PacketSize block{size(), size()}, packet{t.below(9) - 1, t.n % 9 - 1};
        const int column = t.below(8) - 3, row = t.below(8) - 3;
        const int rays = packet.width > 0 && packet.height > 0 ? packet.width * packet.height : 0;
        const auto corner = t.values(3, Role::Shared), cs = t.values(3, Role::Shared),
                   rs = t.values(3, Role::Shared);
        const auto d = t.values(rays, Role::Out);
        t.values(rays, Role::Out), t.values(rays, Role::Out);
        return t.run(vlkrCastEye_32f, ref::castEye, ref::fedNaNs(t), corner, cs, rs, column, row,
                     block, d, packet);
    });
    EXPECT_EQ(fault, "");
}

TEST(ReflectionRays, MatchModelBitForBit)
{
    const std::string fault = ref::everyLength(202, [](Trial& t) {
        const auto d = t.triple(), n = t.triple(), r = t.triple(Role::Out);
        const auto m = t.masks();
        return t.run(vlkrCastReflectionRay_32f, ref::castReflectionRay, ref::fedNaNs(t), d, m, n, r,
                     t.n);
    });
    EXPECT_EQ(fault, "");
}

TEST(ShadowRays, MatchModelBitForBit)
{
    const std::string fault = ref::everyLength(203, [](Trial& t) {
        const auto light = t.values(3, Role::Shared), s = t.values(t.n),
                   c = t.values(t.n, Role::Out);
        const auto n = t.triple(), h = t.triple(), d = t.triple(Role::Out);
        // Some rays hit next to the light's plane along one axis, where the one-degree
        // tolerance decides; with the light at the origin their v . n is exactly +-offset.
        if (t.chance(0.3))
            for (int k = 0; k < 3; ++k) t.set(light.k, k, 0.0f);
        for (int e = 0; e < t.n; ++e) {
            if (!t.chance(0.3)) continue;
            const float offsets[] = {0, 0.001f, 0.0017453291f, ref::kShadowTolerance, 0.0018f};
            const float offset = offsets[t.below(5)] * (t.chance(0.5) ? 1 : -1);
            const int axis = t.below(3);
            for (int k = 0; k < 3; ++k) {
                t.set(h.k + k, e, t.value(light.k, k) + (k == axis ? offset : 0.0f));
                t.set(n.k + k, e, k != axis ? 0.0f : t.chance(0.5) ? 1.0f : -1.0f);
            }
        }
        return t.run(vlkrCastShadowSO_32f, ref::castShadow, ref::exact, light, s, n, h, t.masks(),
                     c, d, t.n);
    });
    EXPECT_EQ(fault, "");
}

TEST(HitPoints, SharedOriginMatchesModelBitForBit)
{
    const std::string fault = ref::everyLength(204, [](Trial& t) {
        const auto o = t.values(3, Role::Shared), dist = t.values(t.n);
        const auto d = t.triple(), p = t.triple(Role::Out);
        return t.run(vlkrHitPoint3DEpsS0_32f_M, ref::hitPointS0, ref::fedNaNs(t), o, d, dist,
                     t.masks(), p, t.n, t.scalar());
    });
    EXPECT_EQ(fault, "");
}

TEST(HitPoints, PerRayOriginsMatchModelBitForBit)
{
    const std::string fault = ref::everyLength(205, [](Trial& t) {
        const auto o = t.triple(), d = t.triple(), p = t.triple(Role::Out);
        return t.run(vlkrHitPoint3DEpsM0_32f_M, ref::hitPointM0, ref::fedNaNs(t), o, d,
                     t.values(t.n), t.masks(), p, t.n, t.scalar());
    });
    EXPECT_EQ(fault, "");
}

// ------------------------------------------------------------------ by example

const float kCorner[3] = {0, 0, 1}, kColumnStep[3] = {1, 0, 0}, kRowStep[3] = {0, 1, 0};

TEST(EyeRays, BlockTwoOneOfEightByEightStartsAtPixelSixteenEight)
{
    std::vector<float> x(64), y(64), z(64);
    float* const dir[3] = {x.data(), y.data(), z.data()};
    ASSERT_EQ(vlkrCastEye_32f(kCorner, kColumnStep, kRowStep, 2, 1, {8, 8}, dir, {8, 8}),
              vlkStatusOk);
    for (int e : {0, 9, 63})
        EXPECT_EQ(Bits({x[e], y[e], z[e]}), Bits({16.0f + e % 8, 8.0f + e / 8, 1})) << e;
}

TEST(EyeRays, EmptyPacketWritesNothing)
{
    for (PacketSize packet :
         {PacketSize{0, 4}, PacketSize{-3, 4}, PacketSize{4, 0}, PacketSize{4, -1}}) {
        std::vector<float> x(16, 42.0f), y = x, z = x;
        float* const dir[3] = {x.data(), y.data(), z.data()};
        EXPECT_EQ(vlkrCastEye_32f(kCorner, kColumnStep, kRowStep, 1, 1, {4, 4}, dir, packet),
                  vlkStatusOk);
        EXPECT_EQ(x, std::vector<float>(16, 42.0f));
        EXPECT_EQ(y, x);
        EXPECT_EQ(z, x);
    }
}

TEST(ShadowRays, SameSideTestWithOneDegreeTolerance)
{
    // Light at the origin, surface facing +z. Rays: light in the surface plane; lit (s < 0);
    // the same with s > 0; v . n just inside the tolerance; at it; at it from the other side
    // (s < 0); passed over (mask kept); s NaN.
    const float tol = ref::kShadowTolerance, below = std::nextafter(tol, 0.0f), light[3] = {};
    const float s[] = {1, -1, 1, 1, 1, -1, -1, NAN}, hx[] = {1, 1, 1, 0, 0, 0, 1, 1},
                hy[] = {2, 0, 0, 0, 0, 0, 0, 0}, hz[] = {0, -5, -5, below, tol, -tol, -5, -5};
    const float zero[8] = {}, one[] = {1, 1, 1, 1, 1, 1, 1, 1};
    int mask[] = {0, 0, 3, 0, 0, 0, -5, 0};
    std::vector<float> c(8, 9.0f), dx = c, dy = c, dz = c;
    const float* const n[3] = {zero, zero, one};
    const float* const h[3] = {hx, hy, hz};
    float* const d[3] = {dx.data(), dy.data(), dz.data()};
    ASSERT_EQ(vlkrCastShadowSO_32f(light, s, n, h, mask, c.data(), d, 8), vlkStatusOk);
    EXPECT_EQ(std::vector<int>(mask, mask + 8), (std::vector<int>{-1, 0, -1, -1, 0, 0, -5, -1}));
    EXPECT_EQ(Bits(c.data(), 8), Bits({0, 5, 0, 0, tol, tol, 0, 0}));
    EXPECT_EQ(Bits(dx.data(), 8), Bits({0, 1, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(Bits(dy.data(), 8), Bits(zero, 8));
    EXPECT_EQ(Bits(dz.data(), 8), Bits({0, -5, 0, 0, tol, -tol, 0, 0}));
}

TEST(HitPoints, EpsOneGivesOriginPlusDistanceAlongDirection)
{
    const float origin[3] = {1, 2, 3}, ox[] = {1, 1}, oy[] = {2, 2}, oz[] = {3, 3}, dx[] = {1, 1},
                dy[] = {0, 0}, dz[] = {-2, -2}, t[] = {2, 2};
    const int mask[] = {0, -1};
    const float* const o[3] = {ox, oy, oz};
    const float* const d[3] = {dx, dy, dz};
    for (bool perRay : {false, true}) {
        float px[] = {7, 7}, py[] = {7, 7}, pz[] = {7, 7};
        float* const p[3] = {px, py, pz};
        ASSERT_EQ(perRay ? vlkrHitPoint3DEpsM0_32f_M(o, d, t, mask, p, 2, 1.0f)
                         : vlkrHitPoint3DEpsS0_32f_M(origin, d, t, mask, p, 2, 1.0f),
                  vlkStatusOk);
        EXPECT_EQ(Bits({px[0], py[0], pz[0]}), Bits({3, 2, -1})) << perRay;
        EXPECT_EQ(Bits({px[1], py[1], pz[1]}), Bits({0, 0, 0})) << "passed over " << perRay;
    }
}

// ------------------------------------------------------------------ argument checks

TEST(RayArguments, CastEyeChecksOnlyTheDirections)
{
    // The count is the packet height; the three camera vectors are not checked.
    Trial t(1, 8);
    const auto corner = t.values(3), cs = t.values(3), rs = t.values(3), d = t.triple();
    EXPECT_EQ(t.argumentFaults(vlkrCastEye_32f, {d}, corner, cs, rs, 1, 1, PacketSize{2, 2}, d,
                               ref::PacketRows{1}),
              "");
}

TEST(RayArguments, CastReflectionRay)
{
    Trial t(2, 8);
    const auto d = t.triple(), m = t.masks(), n = t.triple(), r = t.triple();
    EXPECT_EQ(t.argumentFaults(vlkrCastReflectionRay_32f, {d, m, n, r}, d, m, n, r, Count{}), "");
}

TEST(RayArguments, CastShadowSOLeavesTheLightUnchecked)
{
    Trial t(3, 8);
    const auto light = t.values(3), s = t.values(8), n = t.triple(), h = t.triple(), m = t.masks(),
               c = t.values(8), d = t.triple();
    EXPECT_EQ(t.argumentFaults(vlkrCastShadowSO_32f, {s, n, h, m, d, c}, light, s, n, h, m, c, d,
                               Count{}),
              "");
}

TEST(RayArguments, HitPoint3DEpsS0LeavesTheOriginUnchecked)
{
    Trial t(4, 8);
    const auto o = t.values(3), d = t.triple(), dist = t.values(8), m = t.masks(), p = t.triple();
    EXPECT_EQ(t.argumentFaults(vlkrHitPoint3DEpsS0_32f_M, {dist, m, d, p}, o, d, dist, m, p,
                               Count{}, 0.99f),
              "");
}

TEST(RayArguments, HitPoint3DEpsM0)
{
    Trial t(5, 8);
    const auto o = t.triple(), d = t.triple(), dist = t.values(8), m = t.masks(), p = t.triple();
    EXPECT_EQ(t.argumentFaults(vlkrHitPoint3DEpsM0_32f_M, {dist, m, d, p, o}, o, d, dist, m, p,
                               Count{}, 0.99f),
              "");
}

}  // namespace
