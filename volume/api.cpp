// Argument checks of the volume operations, in the documented order: pointers, sizes and
// cuboids, factors, the interpolation selector; then the geometry decides the warnings.
#include "api.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "filter.h"
#include "frame/unaligned.h"
#include "geometry.h"
#include "remap.h"
#include "resize.h"
#include "warp.h"

namespace vlkr::volume {
namespace {

// NaN is not greater than zero either.
bool positive(double v) { return v > 0; }

// The checks all six resize operations share after their data pointers. The records are
// also tested for null, which the caller would otherwise learn about from a crash.
vlkStatus checkResize(const VolumeSize* srcVolume, const Cuboid* srcVoi, const Cuboid* dstVoi,
                      const double factor[3], int interpolation)
{
    if (!srcVolume || !srcVoi || !dstVoi) return vlkStatusNullPtr;
    if (!validVolume(*srcVolume) || !validCuboid(*srcVoi) || !validCuboid(*dstVoi))
        return vlkStatusSize;
    if (!positive(factor[0]) || !positive(factor[1]) || !positive(factor[2]))
        return vlkStatusResizeFactor;
    if (!knownInterpolation(interpolation)) return vlkStatusInterpolation;
    return vlkStatusOk;
}

template <class T, template <class> class Layout>
vlkStatus checkAndResize(const Layout<const T>& src, const VolumeSize* srcVolume,
                         const Cuboid* srcVoi, const Layout<T>& dst, const Cuboid* dstVoi,
                         const double factor[3], const double shift[3], int interpolation,
                         unsigned char* buffer)
{
    if (const vlkStatus s = checkResize(srcVolume, srcVoi, dstVoi, factor, interpolation)) return s;
    ResizeFrame frame;
    if (const vlkStatus s = buildResizeFrame(*srcVolume, *srcVoi, *dstVoi, factor, shift, &frame))
        return s;  // origin outside the volume, or nothing to write
    runResize<T, Layout>(frame, src, dst, interpolation, buffer);
    return vlkStatusOk;
}

// The checks of the resize and warp buffer-size queries. Kept on purpose: the output
// pointer is tested first although it comes last; the source box is only validated.
vlkStatus checkBufferQuery(const Cuboid* srcVoi, const Cuboid* dstVoi, int nChannel,
                           int interpolation, const int* pSize)
{
    if (!pSize || !srcVoi || !dstVoi) return vlkStatusNullPtr;
    if (!validCuboid(*srcVoi) || !validCuboid(*dstVoi)) return vlkStatusSize;
    if (nChannel != 1) return vlkStatusNumChannels;
    if (!knownInterpolation(interpolation)) return vlkStatusInterpolation;
    return vlkStatusOk;
}

// Small sources cannot feed four taps, or two: cubic falls back to trilinear when the
// smallest side is below 4 voxels, everything to nearest below 2.
int fallBackForSmallSource(int interpolation, int smallestSide)
{
    if (smallestSide < 2) return vlkInterNearest;
    if (smallestSide < 4 && interpolation >= vlkInterLagrange) return vlkInterLinear;
    return interpolation;
}

int smallestSide(const VolumeSize& v) { return std::min({v.width, v.height, v.depth}); }

// Inclusive last index of an extent starting at `first`, kept inside the int range.
int lastIndex(int first, int extent)
{
    return int(std::min<long long>(INT_MAX - 1, (long long)first + extent - 1));
}

// The affine warp of one plane: source plane 0 into destination plane dstVoi.z, with the
// x and y rows of the matrix. Called after the volume checks have passed.
template <class T>
vlkStatus warpPlane(const T* const src[], const VolumeSize& srcVolume, int srcStep,
                    const Cuboid& srcVoi, T* const dst[], int dstStep, const Cuboid& dstVoi,
                    const double coeffs[3][4], int interpolation)
{
    const double(*c)[4] = coeffs;
    const double det = c[0][0] * c[1][1] - c[0][1] * c[1][0];
    const double used[] = {c[0][0], c[0][1], c[0][3], c[1][0], c[1][1], c[1][3], det};
    for (double v : used)
        if (std::isnan(v)) return vlkStatusBadArg;
    if (!(det > 0) && !(det < 0)) return vlkStatusNoMemory;  // the sign test
    if (srcVoi.x >= srcVolume.width || srcVoi.y >= srcVolume.height || srcVoi.z != 0)
        return vlkStatusWrongIntersectVOI;
    const int width = std::min(srcVolume.width - srcVoi.x, srcVoi.width);
    const int height = std::min(srcVolume.height - srcVoi.y, srcVoi.height);

    // The region: the destination rectangle cut to the box around the image of the source
    // rectangle's corners.
    double lo[2] = {INFINITY, INFINITY}, hi[2] = {-INFINITY, -INFINITY};
    for (int corner = 0; corner < 4; ++corner) {
        const double x = srcVoi.x + (corner & 1 ? width - 1 : 0);
        const double y = srcVoi.y + (corner & 2 ? height - 1 : 0);
        for (int r = 0; r < 2; ++r) {
            const double v = c[r][0] * x + c[r][1] * y + c[r][3];
            lo[r] = std::isnan(v) ? INFINITY : std::min(lo[r], v);
            hi[r] = std::isnan(v) ? -INFINITY : std::max(hi[r], v);
        }
    }
    const int dstFirst[2] = {dstVoi.x, dstVoi.y};
    const int dstLast[2] = {lastIndex(dstVoi.x, dstVoi.width), lastIndex(dstVoi.y, dstVoi.height)};
    int first[2], last[2];
    for (int r = 0; r < 2; ++r) {
        const double from = std::max(std::ceil(lo[r]), double(dstFirst[r]));
        const double to = std::min(std::floor(hi[r]), double(dstLast[r]));
        if (!(to - from >= 1)) return vlkStatusRegionTooSmall;  // at most one voxel, or none
        first[r] = int(from), last[r] = int(to);
    }

    const WarpJob<T> job{
        PlaneLayout<const T>(src, srcStep),
        PlaneLayout<T>(dst, dstStep),
        invertPlanarAffine(coeffs, det),
        {{srcVoi.x, srcVoi.y, 0}, {srcVoi.x + width - 1, srcVoi.y + height - 1, 0}},
        {{first[0], first[1], dstVoi.z}, {last[0], last[1], dstVoi.z}}};
    const int planeSide = std::min(srcVolume.width, srcVolume.height);
    return runPlanarWarp(job, fallBackForSmallSource(interpolation, planeSide));
}

// The remap of plane 0 of every volume (source depth 1): its own selector and step checks,
// the box cut on a copy, so the caller's cuboid stays as it was.
template <class T>
vlkStatus remapPlane(const T* const src[], const VolumeSize& srcVolume, int srcStep,
                     const Cuboid& srcVoi, const float* const xMap[], const float* const yMap[],
                     int mapStep, T* const dst[], int dstStep, const VolumeSize& dstVolume,
                     int interpolation)
{
    if (interpolation != vlkInterNearest && interpolation != vlkInterLinear &&
        interpolation != vlkInterLagrange && interpolation != vlkInterCatmullRom)
        return vlkStatusInterpolation;
    if (srcStep <= 0 || dstStep <= 0 || mapStep < 1) return vlkStatusStep;
    if (srcVoi.x >= srcVolume.width || srcVoi.y >= srcVolume.height)
        return vlkStatusWrongIntersectROI;
    const int width = std::min(srcVolume.width - srcVoi.x, srcVoi.width);
    const int height = std::min(srcVolume.height - srcVoi.y, srcVoi.height);
    const RemapJob<T> job{PlaneLayout<const T>(src, srcStep),
                          {xMap, yMap, nullptr},
                          mapStep,
                          dst,
                          dstStep,
                          {dstVolume.width, dstVolume.height, 1},
                          {srcVoi.x, srcVoi.y, 0},
                          {srcVoi.x + width - 1, srcVoi.y + height - 1, 0}};
    runRemap<T, 2>(
        job, fallBackForSmallSource(interpolation, std::min(srcVolume.width, srcVolume.height)));
    return vlkStatusOk;
}

}  // namespace

vlkStatus getResizeCuboid(const Cuboid* srcVoi, Cuboid* dstVoi, double xFactor, double yFactor,
                          double zFactor, double xShift, double yShift, double zShift,
                          int interpolation) noexcept
{
    // Kept on purpose: the result pointer is tested before the source box it follows.
    if (!dstVoi || !srcVoi) return vlkStatusNullPtr;
    if (!validCuboid(*srcVoi)) return vlkStatusSize;
    if (!positive(xFactor) || !positive(yFactor) || !positive(zFactor))
        return vlkStatusResizeFactor;
    if (!knownInterpolation(interpolation)) return vlkStatusInterpolation;
    const double factor[3] = {xFactor, yFactor, zFactor}, shift[3] = {xShift, yShift, zShift};
    return resizeCuboid(*srcVoi, factor, shift, dstVoi);
}

vlkStatus resizeGetBufSize(const Cuboid* srcVoi, const Cuboid* dstVoi, int nChannel,
                           int interpolation, int* pSize) noexcept
{
    if (const vlkStatus s = checkBufferQuery(srcVoi, dstVoi, nChannel, interpolation, pSize))
        return s;
    const ResizeBufferPlan plan =
        resizeBufferPlan(std::uint32_t(dstVoi->width), std::uint32_t(dstVoi->height),
                         std::uint32_t(dstVoi->depth), std::uint32_t(nChannel), interpolation);
    *pSize = int(resizeBufferSize(plan));
    return vlkStatusOk;
}

template <class T>
vlkStatus resizeBlock(const T* src, const VolumeSize* srcVolume, int srcRowStep, int srcPlaneStep,
                      const Cuboid* srcVoi, T* dst, int dstRowStep, int dstPlaneStep,
                      const Cuboid* dstVoi, double xFactor, double yFactor, double zFactor,
                      double xShift, double yShift, double zShift, int interpolation,
                      unsigned char* buffer) noexcept
{
    if (!src || !dst || !buffer) return vlkStatusNullPtr;  // steps are not checked
    const double factor[3] = {xFactor, yFactor, zFactor}, shift[3] = {xShift, yShift, zShift};
    return checkAndResize<T, BlockLayout>(BlockLayout<const T>(src, srcRowStep, srcPlaneStep),
                                          srcVolume, srcVoi,
                                          BlockLayout<T>(dst, dstRowStep, dstPlaneStep), dstVoi,
                                          factor, shift, interpolation, buffer);
}

template <class T>
vlkStatus resizePlanes(const T* const src[], const VolumeSize* srcVolume, int srcStep,
                       const Cuboid* srcVoi, T* const dst[], int dstStep, const Cuboid* dstVoi,
                       double xFactor, double yFactor, double zFactor, double xShift, double yShift,
                       double zShift, int interpolation, unsigned char* buffer) noexcept
{
    // The plane arrays are tested, the plane pointers in them are not.
    if (!src || !dst || !buffer) return vlkStatusNullPtr;
    const double factor[3] = {xFactor, yFactor, zFactor}, shift[3] = {xShift, yShift, zShift};
    return checkAndResize<T, PlaneLayout>(PlaneLayout<const T>(src, srcStep), srcVolume, srcVoi,
                                          PlaneLayout<T>(dst, dstStep), dstVoi, factor, shift,
                                          interpolation, buffer);
}

vlkStatus warpAffineGetBufSize(const Cuboid* srcVoi, const Cuboid* dstVoi, int nChannel,
                               int interpolation, int* pSize) noexcept
{
    if (const vlkStatus s = checkBufferQuery(srcVoi, dstVoi, nChannel, interpolation, pSize))
        return s;
    *pSize = 0;  // the warp takes no work buffer
    return vlkStatusOk;
}

template <class T>
vlkStatus warpAffine(const T* const src[], const VolumeSize* srcVolume, int srcStep,
                     const Cuboid* srcVoi, T* const dst[], int dstStep, const Cuboid* dstVoi,
                     const double callerCoeffs[3][4], int interpolation) noexcept
{
    // Kept on purpose: coeffs is not tested. The records are, as for resize.
    if (!src || !dst) return vlkStatusNullPtr;
    double coeffs[3][4];  // the caller's matrix may sit at any byte address
    std::memcpy(coeffs, callerCoeffs, sizeof coeffs);
    if (!srcVolume || !srcVoi || !dstVoi) return vlkStatusNullPtr;
    if (!validVolume(*srcVolume) || !validCuboid(*srcVoi) || !validCuboid(*dstVoi))
        return vlkStatusSize;
    if (degenerateCoefficients(coeffs)) return vlkStatusCoeff;
    if (!knownInterpolation(interpolation)) return vlkStatusInterpolation;
    if (srcVolume->depth == 1)
        return warpPlane(src, *srcVolume, srcStep, *srcVoi, dst, dstStep, *dstVoi, coeffs,
                         interpolation);
    if (srcVoi->x >= srcVolume->width || srcVoi->y >= srcVolume->height ||
        srcVoi->z >= srcVolume->depth)
        return vlkStatusWrongIntersectVOI;
    const int volume[3] = {srcVolume->width, srcVolume->height, srcVolume->depth};
    const int origin[3] = {srcVoi->x, srcVoi->y, srcVoi->z};
    const int extent[3] = {srcVoi->width, srcVoi->height, srcVoi->depth};
    const int dstOrigin[3] = {dstVoi->x, dstVoi->y, dstVoi->z};
    const int dstExtent[3] = {dstVoi->width, dstVoi->height, dstVoi->depth};
    VoxelBox source, target;
    for (int a = 0; a < 3; ++a) {
        source.first[a] = origin[a];
        source.last[a] = origin[a] + std::min(volume[a] - origin[a], extent[a]) - 1;
        target.first[a] = dstOrigin[a];
        target.last[a] = lastIndex(dstOrigin[a], dstExtent[a]);
    }
    interpolation = fallBackForSmallSource(interpolation, smallestSide(*srcVolume));
    const double det = affineDeterminant(coeffs);
    // Kept on purpose: a nearly singular map is a silent success that writes nothing.
    if (det > -1e-10 && det < 1e-10) return vlkStatusOk;
    const WarpJob<T> job{PlaneLayout<const T>(src, srcStep), PlaneLayout<T>(dst, dstStep),
                         invertAffine(coeffs, det), source, target};
    runWarp(job, interpolation);
    return vlkStatusOk;
}

template <class T>
vlkStatus remap(const T* const src[], const VolumeSize* srcVolume, int srcStep, Cuboid* srcVoi,
                const float* const xMap[], const float* const yMap[], const float* const zMap[],
                int mapStep, T* const dst[], int dstStep, const VolumeSize* dstVolume,
                int interpolation) noexcept
{
    if (!src || !dst || !xMap || !yMap || !zMap) return vlkStatusNullPtr;
    // The records are tested too, which the caller would otherwise learn about from a crash.
    if (!srcVolume || !srcVoi || !dstVolume) return vlkStatusNullPtr;
    if (!validVolume(*srcVolume) || !validCuboid(*srcVoi) || !validVolume(*dstVolume))
        return vlkStatusSize;
    if (!knownInterpolation(interpolation)) return vlkStatusInterpolation;
    if (srcVolume->depth == 1)
        return remapPlane(src, *srcVolume, srcStep, *srcVoi, xMap, yMap, mapStep, dst, dstStep,
                          *dstVolume, interpolation);
    if (srcVoi->x >= srcVolume->width || srcVoi->y >= srcVolume->height ||
        srcVoi->z >= srcVolume->depth)
        return vlkStatusWrongIntersectVOI;
    // The trimmed extents go back to the caller; the origin is never written.
    srcVoi->width = std::min(srcVolume->width - srcVoi->x, srcVoi->width);
    srcVoi->height = std::min(srcVolume->height - srcVoi->y, srcVoi->height);
    srcVoi->depth = std::min(srcVolume->depth - srcVoi->z, srcVoi->depth);
    const RemapJob<T> job{PlaneLayout<const T>(src, srcStep),
                          {xMap, yMap, zMap},
                          mapStep,
                          dst,
                          dstStep,
                          {dstVolume->width, dstVolume->height, dstVolume->depth},
                          {srcVoi->x, srcVoi->y, srcVoi->z},
                          {srcVoi->x + srcVoi->width - 1, srcVoi->y + srcVoi->height - 1,
                           srcVoi->z + srcVoi->depth - 1}};
    runRemap<T, 3>(job, fallBackForSmallSource(interpolation, smallestSide(*srcVolume)));
    return vlkStatusOk;
}

vlkStatus filterGetBufSize(const VolumeSize* region, const VolumeSize* kernelVolume, int nChannel,
                           int* pSize) noexcept
{
    // Kept on purpose: the output pointer is tested first although it comes last.
    if (!pSize || !region || !kernelVolume) return vlkStatusNullPtr;
    if (!validVolume(*region) || !validVolume(*kernelVolume)) return vlkStatusSize;
    if (nChannel != 1) return vlkStatusNumChannels;
    // One row of 32-bit sums, plus room to align its start.
    *pSize = int(4u * std::uint32_t(region->width) + 64u);
    return vlkStatusOk;
}

vlkStatus filter(const Vlk16s* const src[], int srcStep, Vlk16s* const dst[], int dstStep,
                 const VolumeSize* region, const int* kernel, const VolumeSize* kernelVolume,
                 const int anchor[3], int divisor, unsigned char* buffer) noexcept
{
    // Kept on purpose: the work buffer and the anchor are not tested (a null buffer is
    // served without one). The records are, as elsewhere.
    if (!src || !dst || !kernel) return vlkStatusNullPtr;
    if (!region || !kernelVolume) return vlkStatusNullPtr;
    if (!validVolume(*region) || !validVolume(*kernelVolume)) return vlkStatusSize;
    if (divisor == 0) return vlkStatusSize;  // there is no status of its own for it
    const FilterJob job{
        src,
        elementStep<Vlk16s>(srcStep),
        dst,
        elementStep<Vlk16s>(dstStep),
        {region->width, region->height, region->depth},
        kernel,
        {kernelVolume->width, kernelVolume->height, kernelVolume->depth},
        {loadUnaligned(anchor), loadUnaligned(anchor + 1), loadUnaligned(anchor + 2)},
        divisor,
        buffer};
    runFilter(job);
    return vlkStatusOk;
}

#define VLKR_INSTANTIATE_RESIZE(T)                                                              \
    template vlkStatus resizeBlock<T>(const T*, const VolumeSize*, int, int, const Cuboid*, T*, \
                                      int, int, const Cuboid*, double, double, double, double,  \
                                      double, double, int, unsigned char*) noexcept;            \
    template vlkStatus resizePlanes<T>(const T* const[], const VolumeSize*, int, const Cuboid*, \
                                       T* const[], int, const Cuboid*, double, double, double,  \
                                       double, double, double, int, unsigned char*) noexcept;
VLKR_INSTANTIATE_RESIZE(Vlk8u)
VLKR_INSTANTIATE_RESIZE(Vlk16u)
VLKR_INSTANTIATE_RESIZE(Vlk32f)

#define VLKR_INSTANTIATE_WARP_REMAP(T)                                                            \
    template vlkStatus warpAffine<T>(const T* const[], const VolumeSize*, int, const Cuboid*,     \
                                     T* const[], int, const Cuboid*, const double[3][4],          \
                                     int) noexcept;                                               \
    template vlkStatus remap<T>(const T* const[], const VolumeSize*, int, Cuboid*,                \
                                const float* const[], const float* const[], const float* const[], \
                                int, T* const[], int, const VolumeSize*, int) noexcept;
VLKR_INSTANTIATE_WARP_REMAP(Vlk8u)
VLKR_INSTANTIATE_WARP_REMAP(Vlk16u)
VLKR_INSTANTIATE_WARP_REMAP(Vlk32f)
#undef VLKR_INSTANTIATE_WARP_REMAP
#undef VLKR_INSTANTIATE_RESIZE

}  // namespace vlkr::volume
