// Both routes from a value to an integer voxel against their definition, truncate(double(v) +
// 0.5000001) saturated: the four-lane float route of resize and the one-value route of warp
// and remap, on every float near each rounding edge up to 65535.5, and at the type's ends.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>

#include "volume/voxel.h"

namespace {

using vlkr::volume::roundToVoxel;

int byDefinition(double v, double maxValue)
{
    return int(std::fmin(std::fmax(std::trunc(v + 0.5000001), 0.0), maxValue));
}

// The four-lane store on one value broadcast to every lane.
template <class T>
int byLanes(float v)
{
    T out[4];
    vlkr::volume::VoxelTraits<T>::store4(out, _mm_set1_ps(v));
    return int(out[0]);
}

// 40 floats on each side of every edge k + 0.4999999, then the exact half and beyond; the
// ends of the types, infinity and NaN.
TEST(VoxelRounding, BothRoutesMatchTheDefinitionAndSaturate)
{
    int mismatches = 0;
    for (int k = -2; k <= 65536 && mismatches < 10; ++k) {
        float v = float(k) + 0.4999999f;
        for (int i = 0; i < 40; ++i) v = std::nextafter(v, -1e9f);
        for (int i = 0; i < 100; ++i, v = std::nextafter(v, 1e9f)) {
            const int want16 = byDefinition(v, 65535), want8 = byDefinition(v, 255);
            if (byLanes<std::uint16_t>(v) != want16 || byLanes<std::uint8_t>(v) != want8 ||
                roundToVoxel<std::uint16_t>(v) != want16 ||
                roundToVoxel<std::uint8_t>(v) != want8) {
                ADD_FAILURE() << "v = " << v << " (k = " << k << ")";
                ++mismatches;
            }
        }
    }
    const float ends[][3] = {{-1e30f, 0, 0},        {-0.5f, 0, 0},      {255.49f, 255, 255},
                             {255.5f, 255, 256},    {1e9f, 255, 65535}, {65535.4f, 255, 65535},
                             {INFINITY, 255, 65535}};  // value, 8u, 16u
    for (const auto& e : ends) {
        EXPECT_EQ(byLanes<std::uint8_t>(e[0]), int(e[1])) << e[0];
        EXPECT_EQ(byLanes<std::uint16_t>(e[0]), int(e[2])) << e[0];
        EXPECT_EQ(int(roundToVoxel<std::uint8_t>(e[0])), int(e[1])) << e[0];
        EXPECT_EQ(int(roundToVoxel<std::uint16_t>(e[0])), int(e[2])) << e[0];
    }
    EXPECT_EQ(int(roundToVoxel<std::uint16_t>(NAN)), 0);
}

}  // namespace
