// The affine warp behind its checked front end: the row walk with its inside test and the
// nearest, trilinear and cubic samplers, for the volume and for a single plane.
#pragma once

#include <cstdint>

#include "geometry.h"
#include "layout.h"
#include "vlkr.h"

namespace vlkr::volume {

// First and last (inclusive) voxel per axis, x, y, z.
struct VoxelBox {
    int first[3];
    int last[3];
};

template <class T>
struct WarpJob {
    PlaneLayout<const T> src;
    PlaneLayout<T> dst;
    AffineInverse inverse;
    VoxelBox source;  // trimmed source cuboid: the inside test and the taps' limits
    VoxelBox target;  // destination voxels visited
};

// Warps a volume whose arguments passed every check; never fails.
template <class T>
void runWarp(const WarpJob<T>& job, int interpolation) noexcept;

// Warps one plane (target z range: the one destination plane; source z box 0..0). Its
// coordinate rows are allocated here: vlkStatusNoMemory when that fails, else vlkStatusOk.
template <class T>
vlkStatus runPlanarWarp(const WarpJob<T>& job, int interpolation) noexcept;

#define VLKR_FOR_EACH_WARP_TYPE(X) X(std::uint8_t) X(std::uint16_t) X(float)
#define VLKR_DECLARE_WARP(T)                                          \
    extern template void runWarp<T>(const WarpJob<T>&, int) noexcept; \
    extern template vlkStatus runPlanarWarp<T>(const WarpJob<T>&, int) noexcept;
VLKR_FOR_EACH_WARP_TYPE(VLKR_DECLARE_WARP)
#undef VLKR_DECLARE_WARP

}  // namespace vlkr::volume
