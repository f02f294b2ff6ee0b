// Masked shading arithmetic: each operation against its scalar model at every length and
// alignment together with its pointer checks, and the worked examples that pin the numbers.
#include <cmath>
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include "reference/per_ray_reference.h"

namespace {

using namespace vlkr::reference;

TEST(ShadingAddMulMul, MatchesModelAndLeavesTheConstantsUnchecked)
{
    everyLength(101, [](Trial& t) {
        const auto k = t.shared(3), s = t.values(t.n), a = t.triple(), m = t.masks();
        const auto d = t.triple(Role::InOut);
        // Passed-over rays are left alone in every path, signed zeros and NaNs included.
        return t.run(vlkrAddMulMul_32f_AC1P3IM, addMulMul, {s, a, m, d}, k, s, a, m, d, Count{});
    });
}

TEST(ShadingDiv, MatchesModelAndLeavesTheMaskUnchecked)
{
    everyLength(102, [](Trial& t) {
        const auto q = t.values(t.n), m = t.masks(), d = t.values(t.n, Role::InOut);
        // A zero divisor's answers are stored, not computed: those NaNs must match exactly.
        t.accept = [&](int, int e, std::uint32_t want, std::uint32_t got) {
            const bool stored = int(t.old(m.k, e)) >= 0 && floatOf(t.old(q.k, e)) == 0.0f;
            return !stored && t.fedNaN(e, want, got);
        };
        return t.run(vlkrDiv_32f_C1IM, divC1, {q, d}, q, m, d, Count{});
    });
}

TEST(ShadingMul, C1MatchesModelAndChecksEveryArray)
{
    everyLength(103, [](Trial& t) {
        const auto f = t.values(t.n), m = t.masks(), d = t.values(t.n, Role::InOut);
        return t.run(vlkrMul_32f_C1IM, mulC1, {f, m, d}, f, m, d, Count{});
    });
}

TEST(ShadingMul, C1P3MatchesModelAndChecksEveryArray)
{
    everyLength(104, [](Trial& t) {
        const auto f = t.values(t.n), m = t.masks(), d = t.triple(Role::InOut);
        return t.run(vlkrMul_32f_C1P3IM, mulC1P3, {f, m, d}, f, m, d, Count{});
    });
}

TEST(ShadingDot, MatchesModelAndChecksEveryArray)
{
    everyLength(105, [](Trial& t) {
        const auto a = t.triple(), b = t.triple(), m = t.masks(), r = t.values(t.n, Role::Out);
        return t.run(vlkrDot_32f_P3C1M, dot, {a, b, m, r}, a, b, m, r, Count{});
    });
}

TEST(ShadingDotChangeNorm, MatchesModelAndChecksEveryArray)
{
    everyLength(106, [](Trial& t) {
        const auto v = t.triple(), m = t.masks(), n = t.triple(Role::InOut);
        const auto r = t.values(t.n, Role::Out);
        // A passed-over normal is left alone, so it keeps its bits even when it is a NaN.
        t.accept = [&](int, int e, std::uint32_t want, std::uint32_t got) {
            return int(t.old(m.k, e)) >= 0 && t.fedNaN(e, want, got);
        };
        return t.run(vlkrDotChangeNorm_32f_IM, dotChangeNorm, {v, m, n, r}, v, m, n, r, Count{});
    });
}

TEST(ShadingDistAttenuation, MatchesModelAndLeavesThePointUnchecked)
{
    everyLength(107, [](Trial& t) {
        const auto p = t.shared(3), r = t.values(t.n, Role::Out), h = t.triple(), m = t.masks();
        // Some points within reach of p, where the clamp at 1 decides.
        for (int e = 0; e < t.n; ++e)
            for (int c = 0; c < 3 && t.chance(0.3); ++c)
                t.set(h.k + c, e, t.value(p.k, c) + t.uniform(-0.7f, 0.7f));
        return t.run(vlkrDistAttenuationSO_32f_M, distAttenuation, {h, m, r}, p, h, m, r, Count{});
    });
}

TEST(ShadingDiv, ZeroDivisorGivesSignedInfinityOrDefaultNaNAndWarns)
{
    const float q[] = {0, 0, 0, 2};
    float d[] = {3, -3, 0, 4};
    const int mask[] = {0, 0, 0, 0};
    EXPECT_EQ(vlkrDiv_32f_C1IM(q, mask, d, 4), vlkStatusDivByZero);
    EXPECT_EQ(bits(d[0], d[1], d[2], d[3]), bits(INFINITY, -INFINITY, floatOf(kDefaultNaN), 2));
}

}  // namespace
