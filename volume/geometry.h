// Volume geometry shared by the resize front ends: record checks, the per-call resize frame,
// the destination box query and the work-buffer plan behind the size query.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vlkr.h"

namespace vlkr::volume {

inline bool validVolume(const VolumeSize& v) { return v.width > 0 && v.height > 0 && v.depth > 0; }

inline bool validCuboid(const Cuboid& c)
{
    return c.x >= 0 && c.y >= 0 && c.z >= 0 && c.width > 0 && c.height > 0 && c.depth > 0;
}

inline bool knownInterpolation(int interpolation)
{
    return interpolation == vlkInterNearest || interpolation == vlkInterLinear ||
           (interpolation >= vlkInterLagrange && interpolation <= vlkInterCubicC03);
}

// One axis of a resize: destination positions [start, end) and the inverse mapping
// s = d * inv + off back into a source axis of `size` voxels.
struct ResizeAxis {
    int start = 0;
    int end = 0;
    int size = 0;  // voxels of the whole source volume on this axis
    double inv = 0;
    double off = 0;
    int extent() const { return end - start; }
};

// Everything a resize needs after its checks: x, y and z axes in that order.
struct ResizeFrame {
    ResizeAxis axis[3];
};

// Finishes the checks that need the geometry (source origin inside the volume, empty
// destination range) and fills `frame`. Returns vlkStatusOk or the warning to report.
vlkStatus buildResizeFrame(const VolumeSize& srcVolume, const Cuboid& srcVoi, const Cuboid& dstVoi,
                           const double factor[3], const double shift[3],
                           ResizeFrame* frame) noexcept;

// The untrimmed destination box of srcVoi, or vlkStatusNoOperation when it is empty.
vlkStatus resizeCuboid(const Cuboid& srcVoi, const double factor[3], const double shift[3],
                       Cuboid* dstVoi) noexcept;

// Inverse of the warp's affine map: source point s = m * d + t of destination voxel d.
struct AffineInverse {
    double m[3][3];
    double t[3];
};

// The warp's two rejections of a coefficient matrix: a diagonal of zeros, or y and z rows
// that are proportional.
bool degenerateCoefficients(const double coeffs[3][4]) noexcept;

// Determinant of the linear part, expanded along the first row.
double affineDeterminant(const double coeffs[3][4]) noexcept;

// The inverse map: adjugate times 1 / det, translation -inverse * t.
AffineInverse invertAffine(const double coeffs[3][4], double det) noexcept;

// The same for the map of one plane (rows x and y, columns x, y and translation), with
// det = c00 c11 - c01 c10; the z row and column of the result are zero.
AffineInverse invertPlanarAffine(const double coeffs[3][4], double det) noexcept;

// Work-buffer pieces of a resize over a destination of width x height x depth voxels, in
// bytes, each a multiple of 64 so that pieces carved one after another from a 64-byte
// aligned start all stay 64-byte aligned.
struct ResizeBufferPlan {
    std::uint32_t index[3];        // first tap per destination position, one int each
    std::uint32_t fraction[3];     // fractional tap position per destination position
    std::uint32_t rows;            // x-resampled source rows
    std::uint32_t planes;          // in-plane resampled source planes
    std::uint32_t weights[3];      // cubic tap weights, four floats per destination position
    std::uint32_t spare;           // trilinear keeps its x and y weights here
    std::uint32_t planeRowFloats;  // row pitch of the planes
};

ResizeBufferPlan resizeBufferPlan(std::uint32_t width, std::uint32_t height, std::uint32_t depth,
                                  std::uint32_t nChannel, int interpolation) noexcept;

// The size query's answer: the plan's pieces plus 64 bytes for aligning the start.
// 32-bit arithmetic that wraps, as the query promises no overflow check.
std::uint32_t resizeBufferSize(const ResizeBufferPlan& plan) noexcept;

// Buffer start rounded up to the next 64-byte boundary (at most 63 bytes later).
inline unsigned char* alignBuffer64(unsigned char* buffer)
{
    const std::uintptr_t a = reinterpret_cast<std::uintptr_t>(buffer);
    return buffer + ((64 - a % 64) % 64);
}

}  // namespace vlkr::volume
