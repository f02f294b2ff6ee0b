// Masked per-ray shading arithmetic: accumulate, divide, multiply, dot products, normal
// flipping and distance attenuation. Each body is written once over a lane type and runs four
// rays at a time where it can and one ray at a time elsewhere.
#include "shading.h"

#include <cmath>
#include <cstring>

#include "frame/lanes.h"

namespace vlkr::raytrace {
namespace {

using namespace vlkr::lanes;

constexpr std::uint32_t kDivZeroNaN = 0xFFC00000u;  // 0 / 0 and NaN / 0 give this quiet NaN

float divZeroNaN()
{
    float f;
    std::memcpy(&f, &kDivZeroNaN, 4);
    return f;
}

}  // namespace

// Passed-over rays are left alone, in the four-ray groups as in the single steps.
void addMulMul(Three<float> k, const float* factor, Three<const float*> src, const int* mask,
               Three<float*> srcDst, int len) noexcept
{
    forEachLaneAlignedTo(factor, len, [&](auto lane, int i) {
        using V = decltype(lane);
        const auto take = takes(mask + i, lane);
        const V s = V::load(factor + i);
        for (int c = 0; c < 3; ++c) {
            const V d = V::load(srcDst[c] + i);
            const V term = V::load(src[c] + i) * V(k[c]) * s;
            select(take, d + term, d).store(srcDst[c] + i);
        }
    });
}

vlkStatus divide(const float* divisor, const int* mask, float* srcDst, int len) noexcept
{
    int zeroDivisors = 0;
    forEachLane(len, [&](auto lane, int i) {
        using V = decltype(lane);
        const auto take = takes(mask + i, lane);
        const V q = V::load(divisor + i), d = V::load(srcDst + i);
        const auto byZero = take & (q == V(0.0f));
        const V signOfZeroQuotient =
            select(d > V(0.0f), V(INFINITY), select(d < V(0.0f), V(-INFINITY), V(divZeroNaN())));
        zeroUnless(take, select(byZero, signOfZeroQuotient, d / q)).store(srcDst + i);
        zeroDivisors |= bits(byZero);
    });
    return zeroDivisors ? vlkStatusDivByZero : vlkStatusOk;
}

// Passed-over rays are multiplied by 0.0 rather than cleared, so an infinite or NaN product
// becomes NaN and a negative one -0.0. Kept on purpose.
void multiply(const float* factor, const int* mask, float* srcDst, int len) noexcept
{
    forEachLaneAlignedTo(srcDst, len, [&](auto lane, int i) {
        using V = decltype(lane);
        const V keep = zeroUnless(takes(mask + i, lane), V(1.0f));
        (V::load(srcDst + i) * V::load(factor + i) * keep).store(srcDst + i);
    });
}

void multiplyPlanes(const float* factor, const int* mask, Three<float*> srcDst, int len) noexcept
{
    forEachLaneAlignedTo(factor, len, [&](auto lane, int i) {
        using V = decltype(lane);
        const V keep = zeroUnless(takes(mask + i, lane), V(1.0f));
        const V f = V::load(factor + i);
        for (int c = 0; c < 3; ++c) (V::load(srcDst[c] + i) * f * keep).store(srcDst[c] + i);
    });
}

void dot(Three<const float*> a, Three<const float*> b, const int* mask, float* dst,
         int len) noexcept
{
    forEachLane(len, [&](auto lane, int i) {
        using V = decltype(lane);
        const V product = dotXYZ(loadPlanes<V>(a, i), loadPlanes<V>(b, i));
        zeroUnless(takes(mask + i, lane), product).store(dst + i);
    });
}

// Turns each taking ray's normal against v, so that afterwards v . n <= 0 and dot = -|v . n|.
// A NaN product keeps the normal as it is.
void dotChangeNorm(Three<const float*> v, const int* mask, Three<float*> normal, float* dot,
                   int len) noexcept
{
    forEachLane(len, [&](auto lane, int i) {
        using V = decltype(lane);
        const auto take = takes(mask + i, lane);
        const auto n = loadPlanes<V>(normal, i);
        const V t = dotXYZ(loadPlanes<V>(v, i), n);
        const V sigma = select(t > V(0.0f), V(-1.0f), V(1.0f));
        for (int c = 0; c < 3; ++c) select(take, n[c] * sigma, n[c]).store(normal[c] + i);
        zeroUnless(take, t * sigma).store(dot + i);
    });
}

// Distance from the point, clamped below at 1 so that callers may divide by it; passed over: 1.
void distAttenuation(Three<float> point, Three<const float*> surface, const int* mask, float* dist,
                     int len) noexcept
{
    forEachLane(len, [&](auto lane, int i) {
        using V = decltype(lane);
        auto delta = loadPlanes<V>(surface, i);
        for (int c = 0; c < 3; ++c) delta[c] = delta[c] - V(point[c]);
        const V e = dotXYZ(delta, delta);
        const V one(1.0f);
        const auto passedOver = andNot(takes(mask + i, lane), allLanes<V::kLanes>());
        select((e < one) | passedOver, one, sqrt(e)).store(dist + i);
    });
}

}  // namespace vlkr::raytrace
