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

// Every voxel type in every layout: one instance each, compiled in resize.cpp.
#define VLKR_FOR_EACH_RESIZE(X)   \
    X(std::uint8_t, BlockLayout)  \
    X(std::uint16_t, BlockLayout) \
    X(float, BlockLayout)         \
    X(std::uint8_t, PlaneLayout)  \
    X(std::uint16_t, PlaneLayout) \
    X(float, PlaneLayout)
#define VLKR_RESIZE_INSTANCE(T, Layout)                                            \
    template void runResize<T, Layout>(const ResizeFrame&, const Layout<const T>&, \
                                       const Layout<T>&, int, unsigned char*) noexcept;
#define VLKR_DECLARE_RESIZE(T, Layout) extern VLKR_RESIZE_INSTANCE(T, Layout)
VLKR_FOR_EACH_RESIZE(VLKR_DECLARE_RESIZE)
#undef VLKR_DECLARE_RESIZE

}  // namespace vlkr::volume
