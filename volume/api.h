// Checked front ends of the volume operations, called by the exported entry points.
#pragma once

#include "vlkr.h"

namespace vlkr::volume {

vlkStatus getResizeCuboid(const Cuboid* srcVoi, Cuboid* dstVoi, double xFactor, double yFactor,
                          double zFactor, double xShift, double yShift, double zShift,
                          int interpolation) noexcept;
vlkStatus resizeGetBufSize(const Cuboid* srcVoi, const Cuboid* dstVoi, int nChannel,
                           int interpolation, int* pSize) noexcept;

// T is Vlk8u, Vlk16u or Vlk32f.
template <class T>
vlkStatus resizeBlock(const T* src, const VolumeSize* srcVolume, int srcRowStep, int srcPlaneStep,
                      const Cuboid* srcVoi, T* dst, int dstRowStep, int dstPlaneStep,
                      const Cuboid* dstVoi, double xFactor, double yFactor, double zFactor,
                      double xShift, double yShift, double zShift, int interpolation,
                      unsigned char* buffer) noexcept;
template <class T>
vlkStatus resizePlanes(const T* const src[], const VolumeSize* srcVolume, int srcStep,
                       const Cuboid* srcVoi, T* const dst[], int dstStep, const Cuboid* dstVoi,
                       double xFactor, double yFactor, double zFactor, double xShift, double yShift,
                       double zShift, int interpolation, unsigned char* buffer) noexcept;

vlkStatus warpAffineGetBufSize(const Cuboid* srcVoi, const Cuboid* dstVoi, int nChannel,
                               int interpolation, int* pSize) noexcept;
template <class T>
vlkStatus warpAffine(const T* const src[], const VolumeSize* srcVolume, int srcStep,
                     const Cuboid* srcVoi, T* const dst[], int dstStep, const Cuboid* dstVoi,
                     const double coeffs[3][4], int interpolation) noexcept;
template <class T>
vlkStatus remap(const T* const src[], const VolumeSize* srcVolume, int srcStep, Cuboid* srcVoi,
                const float* const xMap[], const float* const yMap[], const float* const zMap[],
                int mapStep, T* const dst[], int dstStep, const VolumeSize* dstVolume,
                int interpolation) noexcept;

vlkStatus filterGetBufSize(const VolumeSize* region, const VolumeSize* kernelVolume, int nChannel,
                           int* pSize) noexcept;
vlkStatus filter(const Vlk16s* const src[], int srcStep, Vlk16s* const dst[], int dstStep,
                 const VolumeSize* region, const int* kernel, const VolumeSize* kernelVolume,
                 const int anchor[3], int divisor, unsigned char* buffer) noexcept;

}  // namespace vlkr::volume
