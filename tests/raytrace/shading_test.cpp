// Masked shading arithmetic against its scalar model at every length and alignment, with edge
// values; the passed-over and zero-divisor rules by example; the argument checks.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "reference/per_ray_reference.h"
#include "vlkr.h"

namespace {

namespace ref = vlkr::reference;
using ref::Bits;
using ref::Count;
using ref::Role;
using ref::Trial;

const float kInf = INFINITY, kNaN = ref::floatOf(ref::kDefaultNaN);
const float kPayloadNaN = ref::floatOf(0x7FC0BEEF);

// ------------------------------------------------------------------ against the model

TEST(ShadingAddMulMul, MatchesModelBitForBit)
{
    const std::string fault = ref::everyLength(101, [](Trial& t) {
        const auto k = t.values(3, Role::Shared), s = t.values(t.n);
        const auto a = t.triple(), d = t.triple(Role::InOut);
        const auto m = t.masks();
        // The four-ray body adds +0.0 to a passed-over ray: -0.0 may come back as +0.0 (and a
        // signalling NaN quiet); nothing else may change.
        auto same = [&](int p, int e, std::uint32_t want, std::uint32_t got) {
            if (int(t.old(m.k, e)) < 0) return got == ref::wordOf(ref::floatOf(t.old(p, e)) + 0.0f);
            return t.fedNaN(e, want, got);
        };
        return t.run(vlkrAddMulMul_32f_AC1P3IM, ref::addMulMul, same, k, s, a, m, d, t.n);
    });
    EXPECT_EQ(fault, "");
}

TEST(ShadingDiv, MatchesModelBitForBit)
{
    const std::string fault = ref::everyLength(102, [](Trial& t) {
        const auto q = t.values(t.n), d = t.values(t.n, Role::InOut);
        const auto m = t.masks();
        // A zero divisor's answers are stored, not computed: those NaNs must match exactly.
        auto same = [&](int, int e, std::uint32_t want, std::uint32_t got) {
            const bool stored = int(t.old(m.k, e)) >= 0 && ref::floatOf(t.old(q.k, e)) == 0.0f;
            return !stored && t.fedNaN(e, want, got);
        };
        return t.run(vlkrDiv_32f_C1IM, ref::divC1, same, q, m, d, t.n);
    });
    EXPECT_EQ(fault, "");
}

TEST(ShadingMul, C1MatchesModelBitForBit)
{
    const std::string fault = ref::everyLength(103, [](Trial& t) {
        const auto f = t.values(t.n), d = t.values(t.n, Role::InOut);
        return t.run(vlkrMul_32f_C1IM, ref::mulC1, ref::fedNaNs(t), f, t.masks(), d, t.n);
    });
    EXPECT_EQ(fault, "");
}

TEST(ShadingMul, C1P3MatchesModelBitForBit)
{
    const std::string fault = ref::everyLength(104, [](Trial& t) {
        const auto f = t.values(t.n), m = t.masks(), d = t.triple(Role::InOut);
        return t.run(vlkrMul_32f_C1P3IM, ref::mulC1P3, ref::fedNaNs(t), f, m, d, t.n);
    });
    EXPECT_EQ(fault, "");
}

TEST(ShadingDot, MatchesModelBitForBit)
{
    const std::string fault = ref::everyLength(105, [](Trial& t) {
        const auto a = t.triple(), b = t.triple(), m = t.masks(), r = t.values(t.n, Role::Out);
        return t.run(vlkrDot_32f_P3C1M, ref::dot, ref::fedNaNs(t), a, b, m, r, t.n);
    });
    EXPECT_EQ(fault, "");
}

TEST(ShadingDotChangeNorm, MatchesModelBitForBit)
{
    const std::string fault = ref::everyLength(106, [](Trial& t) {
        const auto v = t.triple(), m = t.masks(), n = t.triple(Role::InOut);
        const auto r = t.values(t.n, Role::Out);
        // A passed-over normal is left alone, so it keeps its bits even when it is a NaN.
        auto same = [&](int, int e, std::uint32_t want, std::uint32_t got) {
            return int(t.old(m.k, e)) >= 0 && t.fedNaN(e, want, got);
        };
        return t.run(vlkrDotChangeNorm_32f_IM, ref::dotChangeNorm, same, v, m, n, r, t.n);
    });
    EXPECT_EQ(fault, "");
}

TEST(ShadingDistAttenuation, MatchesModelBitForBit)
{
    const std::string fault = ref::everyLength(107, [](Trial& t) {
        const auto p = t.values(3, Role::Shared), r = t.values(t.n, Role::Out);
        const auto h = t.triple();
        // Some points within reach of p, where the clamp at 1 decides.
        for (int e = 0; e < t.n; ++e)
            for (int c = 0; c < 3 && t.chance(0.3); ++c)
                t.set(h.k + c, e, t.value(p.k, c) + t.uniform(-0.7f, 0.7f));
        return t.run(vlkrDistAttenuationSO_32f_M, ref::distAttenuation, ref::fedNaNs(t), p, h,
                     t.masks(), r, t.n);
    });
    EXPECT_EQ(fault, "");
}

// ------------------------------------------------------------------ by example

TEST(ShadingDiv, ZeroDivisorGivesSignedInfinityOrDefaultNaN)
{
    const float q[] = {0, 0, 0, 2};
    float d[] = {3, -3, 0, 4};
    const int mask[] = {0, 0, 0, 0};
    EXPECT_EQ(vlkrDiv_32f_C1IM(q, mask, d, 4), vlkStatusDivByZero);
    EXPECT_EQ(Bits(d, 4), Bits({kInf, -kInf, kNaN, 2}));
}

TEST(ShadingDiv, ZeroOfEitherSignWarnsAfterEveryRayButNaNDivides)
{
    // -0.0 counts as zero; a NaN divisor divides; a passed-over ray gets +0.0 and never warns.
    const float q[] = {-0.0f, -0.0f, kPayloadNaN, 4, 0, 0};
    float d[] = {3, kPayloadNaN, 6, 8, 5, 5};
    const int mask[] = {0, 1, 2, 3, -1, -7};
    EXPECT_EQ(vlkrDiv_32f_C1IM(q, mask, d, 4), vlkStatusDivByZero);
    EXPECT_EQ(vlkrDiv_32f_C1IM(q + 4, mask + 4, d + 4, 2), vlkStatusOk);
    EXPECT_EQ(Bits(d, 6), Bits({kInf, kNaN, kPayloadNaN, 2, 0, 0}));
}

TEST(ShadingMul, PassedOverInfinityBecomesNaNAndNegativeBecomesMinusZero)
{
    // Eight aligned rays, so the four-ray body runs.
    alignas(16) const float f[8] = {2, -1, 3, 1, 2, -1, 3, 1};
    alignas(16) const int mask[8] = {-1, -1, -1, -1, -1, -1, -1, 0};
    const Bits want({kNaN, -0.0f, 0, 0, kNaN, -0.0f, 0, 7});
    alignas(16) float d[3][8];
    auto reset = [&] {
        const float start[8] = {kInf, 5, 2, 7, -kInf, 5, 2, 7};
        for (float* plane : d) std::copy(start, start + 8, plane);
    };
    reset();
    ASSERT_EQ(vlkrMul_32f_C1IM(f, mask, d[0], 8), vlkStatusOk);
    EXPECT_EQ(Bits(d[0], 8), want);
    reset();
    float* const planes[3] = {d[0], d[1], d[2]};
    ASSERT_EQ(vlkrMul_32f_C1P3IM(f, mask, planes, 8), vlkStatusOk);
    for (float* plane : d) EXPECT_EQ(Bits(plane, 8), want);
}

TEST(ShadingDotChangeNorm, NormalTurnsToFaceTheRay)
{
    // Facing along v (turned), perpendicular (kept), facing v (kept), passed over (r = 0).
    const float vx[] = {0, 1, 0, 0}, vy[] = {0, 0, 0, 0}, vz[] = {-1, 0, 1, -1};
    float nx[] = {0, 0, 0, 0}, ny[] = {0, 1, 0, 0}, nz[] = {-1, 0, -2, -1}, r[] = {9, 9, 9, 9};
    const int mask[] = {0, 0, 0, -1};
    const float* const v[3] = {vx, vy, vz};
    float* const n[3] = {nx, ny, nz};
    ASSERT_EQ(vlkrDotChangeNorm_32f_IM(v, mask, n, r, 4), vlkStatusOk);
    EXPECT_EQ(Bits(r, 4), Bits({-1, 0, -2, 0}));
    EXPECT_EQ(Bits(nx, 4), Bits({-0.0f, 0, 0, 0}));
    EXPECT_EQ(Bits(ny, 4), Bits({-0.0f, 1, 0, 0}));
    EXPECT_EQ(Bits(nz, 4), Bits({1, 0, -2, -1}));
}

TEST(ShadingDistAttenuation, DistanceIsClampedBelowAtOne)
{
    // 0.5 away, 3 away, passed over, NaN.
    const float p[3] = {1, 2, 3}, hx[] = {1.5f, 1, 10, kPayloadNaN}, hy[] = {2, 2, 10, 2},
                hz[] = {3, 6, 10, 3};
    float r[] = {9, 9, 9, 9};
    const int mask[] = {0, 0, -1, 0};
    const float* const h[3] = {hx, hy, hz};
    ASSERT_EQ(vlkrDistAttenuationSO_32f_M(p, h, mask, r, 4), vlkStatusOk);
    EXPECT_EQ(Bits(r, 4), Bits({1, 3, 1, kPayloadNaN}));
}

// ------------------------------------------------------------------ argument checks

TEST(ShadingArguments, AddMulMulLeavesTheConstantTripleUnchecked)
{
    Trial t(1, 8);
    const auto k = t.values(3), s = t.values(8), a = t.triple(), m = t.masks(), d = t.triple();
    EXPECT_EQ(t.argumentFaults(vlkrAddMulMul_32f_AC1P3IM, {s, a, m, d}, k, s, a, m, d, Count{}),
              "");
}

TEST(ShadingArguments, DivLeavesTheMaskUnchecked)
{
    Trial t(2, 8);
    const auto q = t.values(8), m = t.masks(), d = t.values(8);
    EXPECT_EQ(t.argumentFaults(vlkrDiv_32f_C1IM, {q, d}, q, m, d, Count{}), "");
}

TEST(ShadingArguments, MulC1)
{
    Trial t(3, 8);
    const auto f = t.values(8), m = t.masks(), d = t.values(8);
    EXPECT_EQ(t.argumentFaults(vlkrMul_32f_C1IM, {f, m, d}, f, m, d, Count{}), "");
}

TEST(ShadingArguments, MulC1P3)
{
    Trial t(4, 8);
    const auto f = t.values(8), m = t.masks(), d = t.triple();
    EXPECT_EQ(t.argumentFaults(vlkrMul_32f_C1P3IM, {f, m, d}, f, m, d, Count{}), "");
}

TEST(ShadingArguments, Dot)
{
    Trial t(5, 8);
    const auto a = t.triple(), b = t.triple(), m = t.masks(), r = t.values(8);
    EXPECT_EQ(t.argumentFaults(vlkrDot_32f_P3C1M, {a, b, m, r}, a, b, m, r, Count{}), "");
}

TEST(ShadingArguments, DotChangeNorm)
{
    Trial t(6, 8);
    const auto v = t.triple(), m = t.masks(), n = t.triple(), r = t.values(8);
    EXPECT_EQ(t.argumentFaults(vlkrDotChangeNorm_32f_IM, {v, m, n, r}, v, m, n, r, Count{}), "");
}

TEST(ShadingArguments, DistAttenuationLeavesThePointUnchecked)
{
    Trial t(7, 8);
    const auto p = t.values(3), h = t.triple(), m = t.masks(), r = t.values(8);
    EXPECT_EQ(t.argumentFaults(vlkrDistAttenuationSO_32f_M, {h, m, r}, p, h, m, r, Count{}), "");
}

}  // namespace
