// The two volume layouts as row accessors: one block with row and plane steps (C1V), or an
// array of plane pointers sharing one row step (C1PV). Steps arrive in bytes.
#pragma once

#include <cstddef>

namespace vlkr::volume {

// Byte step to element step by arithmetic shift (so an odd negative byte step rounds down).
template <class T>
inline std::ptrdiff_t elementStep(int byteStep)
{
    constexpr int kShift = sizeof(T) == 1 ? 0 : sizeof(T) == 2 ? 1 : 2;
    return std::ptrdiff_t(byteStep >> kShift);
}

template <class T>  // T may be const for a source
struct BlockLayout {
    T* base;
    std::ptrdiff_t rowStep, planeStep;  // elements
    BlockLayout(T* block, int rowStepBytes, int planeStepBytes)
        : base(block),
          rowStep(elementStep<T>(rowStepBytes)),
          planeStep(elementStep<T>(planeStepBytes))
    {
    }
    T* plane(int z) const { return base + std::ptrdiff_t(z) * planeStep; }
    T* row(T* plane, int y) const { return plane + std::ptrdiff_t(y) * rowStep; }
};

template <class T>
struct PlaneLayout {
    T* const* planes;
    std::ptrdiff_t rowStep;  // elements
    PlaneLayout(T* const* planeArray, int rowStepBytes)
        : planes(planeArray), rowStep(elementStep<T>(rowStepBytes))
    {
    }
    T* plane(int z) const { return planes[z]; }
    T* row(T* plane, int y) const { return plane + std::ptrdiff_t(y) * rowStep; }
};

// Rows of a plane-array source for a sampler; a planar sampler (kAxes = 2) reads plane 0
// whatever z it is given.
template <class T, int kAxes>
struct PlaneRows {
    const PlaneLayout<const T>& planes;
    const T* row(int y, int z) const { return planes.row(planes.plane(kAxes == 3 ? z : 0), y); }
};

}  // namespace vlkr::volume
