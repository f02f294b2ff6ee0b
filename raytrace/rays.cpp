// Ray generation and hit points: eye rays of a pixel block, mirror reflections, shadow rays
// with the same-side test, and hit points pulled back along the ray. Each body is written once
// over a lane type and runs four rays at a time, then one at a time for the tail.
#include "rays.h"

#include <cstdint>

#include "frame/lanes.h"

namespace vlkr::raytrace {
namespace {

using namespace vlkr::lanes;

// A light closer to the surface plane than this counts as lying in it. The test compares the
// unnormalised dot product of the normal with the point-to-light vector, so with a unit
// normal it is a distance from the plane, in scene units; the value is pi / 1800.
constexpr float kInPlane = 0.0017453292f;

}  // namespace

// Expects packetSize.width > 0 and packetSize.height > 0.
void makeEyeRays(Three<float> corner, Three<float> columnStep, Three<float> rowStep,
                 int blockColumn, int blockRow, PacketSize blockSize, Three<float*> dir,
                 PacketSize packetSize) noexcept
{
    // The block offsets are 32-bit products (wrapping like the integers they are), then floats.
    const float xOffset =
        float(std::int32_t(std::uint32_t(blockColumn) * std::uint32_t(blockSize.width)));
    const float yOffset =
        float(std::int32_t(std::uint32_t(blockRow) * std::uint32_t(blockSize.height)));
    const int width = packetSize.width;
    for (int j = 0; j < packetSize.height; ++j) {
        const float y = float(j) + yOffset;
        const std::size_t rowBase = std::size_t(j) * std::size_t(width);
        for (int c = 0; c < 3; ++c) {
            const float rowStart = rowStep[c] * y + corner[c];
            forEachLane(width, [&](auto lane, int i) {
                using V = decltype(lane);
                const V column = V::indices(i) + V(xOffset);
                (V(rowStart) + V(columnStep[c]) * column).store(dir[c] + rowBase + i);
            });
        }
    }
}

void reflectRays(Three<const float*> incident, const int* mask, Three<const float*> normal,
                 Three<float*> reflected, int len) noexcept
{
    forEachLane(len, [&](auto lane, int i) {
        using V = decltype(lane);
        const auto take = takes(mask + i, lane);
        const auto d = loadPlanes<V>(incident, i), n = loadPlanes<V>(normal, i);
        const V t = dotYZX(d, n);
        const V twice = t + t;
        for (int c = 0; c < 3; ++c) zeroUnless(take, d[c] - n[c] * twice).store(reflected[c] + i);
    });
}

// Lit rays get the light-to-point vector and the cosine numerator |n . v|; the others a
// mask of -1 and zeros. The factor's sign says on which side of the surface the eye is.
// Every cosine and direction element is written, lit or not.
void makeShadowRays(Three<float> light, const float* factor, Three<const float*> normal,
                    Three<const float*> hitPoint, int* mask, float* cosine, Three<float*> shadowDir,
                    int len) noexcept
{
    forEachLane(len, [&](auto lane, int i) {
        using V = decltype(lane);
        const auto take = takes(mask + i, lane);
        auto v = loadPlanes<V>(hitPoint, i);
        const auto n = loadPlanes<V>(normal, i);
        for (int c = 0; c < 3; ++c) v[c] = v[c] - V(light[c]);
        V t = dotYZX(v, n);
        t = select(abs(t) < V(kInPlane), V(0.0f), t);
        const auto lit = take & (V::load(factor + i) * t > V(0.0f));
        zeroUnless(lit, abs(t)).store(cosine + i);
        for (int c = 0; c < 3; ++c) zeroUnless(lit, v[c]).store(shadowDir[c] + i);
        passOver(mask + i, andNot(lit, take));
    });
}

void makeHitPoints(const float* sharedOrigin, const float* const origin[3], Three<const float*> dir,
                   const float* dist, const int* mask, Three<float*> hitPoint, int len,
                   float eps) noexcept
{
    forEachLane(len, [&](auto lane, int i) {
        using V = decltype(lane);
        const auto take = takes(mask + i, lane);
        const V t = V::load(dist + i);
        for (int c = 0; c < 3; ++c) {
            const V o = sharedOrigin ? V(loadUnaligned(sharedOrigin + c)) : V::load(origin[c] + i);
            zeroUnless(take, o + (V::load(dir[c] + i) * V(eps)) * t).store(hitPoint[c] + i);
        }
    });
}

}  // namespace vlkr::raytrace
