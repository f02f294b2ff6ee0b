// The resize kernel behind the checked front ends: nearest, trilinear and cubic resampling
// of a checked frame, for each voxel type and layout.
#pragma once

#include <cstdint>

#include "geometry.h"
#include "layout.h"

namespace vlkr::volume {

// Runs a resize whose arguments passed every check; `buffer` is the caller's work buffer of
// at least the queried size, at any alignment.
template <class T, template <class> class Layout>
void runResize(const ResizeFrame& frame, const Layout<const T>& src, const Layout<T>& dst,
               int interpolation, unsigned char* buffer) noexcept;

#define VLKR_DECLARE_RESIZE(T, Layout)                                                    \
    extern template void runResize<T, Layout>(const ResizeFrame&, const Layout<const T>&, \
                                              const Layout<T>&, int, unsigned char*) noexcept;
VLKR_DECLARE_RESIZE(std::uint8_t, BlockLayout)
VLKR_DECLARE_RESIZE(std::uint16_t, BlockLayout)
VLKR_DECLARE_RESIZE(float, BlockLayout)
VLKR_DECLARE_RESIZE(std::uint8_t, PlaneLayout)
VLKR_DECLARE_RESIZE(std::uint16_t, PlaneLayout)
VLKR_DECLARE_RESIZE(float, PlaneLayout)
#undef VLKR_DECLARE_RESIZE

}  // namespace vlkr::volume
