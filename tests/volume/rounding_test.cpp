// The float route of the integer voxel store against its definition, truncate(double(v) +
// 0.5000001) saturated, on every float near each rounding edge up to 65535.5.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>

#include "volume/voxel.h"

namespace {

int storedByDefinition(float v, double maxValue)
{
    const double t = std::trunc(double(v) + 0.5000001);
    return int(std::fmin(std::fmax(t, 0.0), maxValue));
}

// Runs the four-lane store on one value broadcast to every lane.
template <class T>
int storedByLanes(float v)
{
    T out[4];
    vlkr::volume::VoxelTraits<T>::store4(out, _mm_set1_ps(v));
    return int(out[0]);
}

TEST(VoxelRounding, FloatRouteMatchesDoubleDefinitionAtEveryEdge)
{
    int mismatches = 0;
    for (int k = -2; k <= 65536 && mismatches < 10; ++k) {
        // 40 floats on each side of the edge k + 0.4999999, then the exact half and neighbours.
        float v = float(k) + 0.4999999f;
        for (int i = 0; i < 40; ++i) v = std::nextafter(v, -1e9f);
        for (int i = 0; i < 100; ++i, v = std::nextafter(v, 1e9f)) {
            const int want16 = storedByDefinition(v, 65535.0);
            const int got16 = storedByLanes<std::uint16_t>(v);
            const int want8 = storedByDefinition(v, 255.0);
            const int got8 = storedByLanes<std::uint8_t>(v);
            if (want16 != got16 || want8 != got8) {
                ADD_FAILURE() << "v = " << v << " (k = " << k << "): 16u " << got16 << " vs "
                              << want16 << ", 8u " << got8 << " vs " << want8;
                ++mismatches;
            }
        }
    }
}

// Both routes to a voxel, the four-lane store of resize and the one-value rounding of warp
// and remap, saturate exactly at the type's ends.
TEST(VoxelRounding, SaturatesAndTreatsSpecialValues)
{
    const float cases[][3] = {
        // value, 8u, 16u
        {-1e30f, 0, 0},     {-0.6f, 0, 0},      {-0.5f, 0, 0},          {255.49f, 255, 255},
        {255.5f, 255, 256}, {1e9f, 255, 65535}, {65535.4f, 255, 65535}, {INFINITY, 255, 65535},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(storedByLanes<std::uint8_t>(c[0]), int(c[1])) << c[0];
        EXPECT_EQ(storedByLanes<std::uint16_t>(c[0]), int(c[2])) << c[0];
        EXPECT_EQ(int(vlkr::volume::roundToVoxel<std::uint8_t>(c[0])), int(c[1])) << c[0];
        EXPECT_EQ(int(vlkr::volume::roundToVoxel<std::uint16_t>(c[0])), int(c[2])) << c[0];
    }
    EXPECT_EQ(int(vlkr::volume::roundToVoxel<std::uint16_t>(NAN)), 0);
}

}  // namespace
