// The remap behind its checked front end: per destination voxel, the source sampled at the
// point three float maps give, in single precision, for the volume and for one plane.
#pragma once

#include <cstddef>
#include <cstdint>

#include "layout.h"

namespace vlkr::volume {

template <class T>
struct RemapJob {
    PlaneLayout<const T> src;    // row step in elements
    const float* const* map[3];  // x, y and z map planes
    std::ptrdiff_t mapStep;      // bytes
    T* const* dst;
    std::ptrdiff_t dstStep;  // bytes
    int size[3];             // destination width, height, depth
    int min[3], max[3];      // sampling box, inclusive
};

// Remaps a volume (kAxes = 3) or plane 0 (kAxes = 2: z map unused, box z 0..0) whose
// arguments passed every check. The planar form knows selectors 1, 2, 4 and 6 only.
template <class T, int kAxes>
void runRemap(const RemapJob<T>& job, int interpolation) noexcept;

#define VLKR_FOR_EACH_REMAP(X) \
    X(std::uint8_t, 3)         \
    X(std::uint16_t, 3) X(float, 3) X(std::uint8_t, 2) X(std::uint16_t, 2) X(float, 2)
#define VLKR_REMAP_INSTANCE(T, kAxes) \
    template void runRemap<T, kAxes>(const RemapJob<T>&, int) noexcept;
#define VLKR_DECLARE_REMAP(T, kAxes) extern VLKR_REMAP_INSTANCE(T, kAxes)
VLKR_FOR_EACH_REMAP(VLKR_DECLARE_REMAP)
#undef VLKR_DECLARE_REMAP

}  // namespace vlkr::volume
