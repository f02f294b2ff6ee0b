// Argument checks of the volume operations, in the documented order: pointers, sizes and
// cuboids, factors, the interpolation selector; then the geometry decides the warnings.
#include "api.h"

#include <cstdint>

#include "geometry.h"
#include "resize.h"

namespace vlkr::volume {
namespace {

// NaN is not greater than zero either.
bool positive(double v)
{
    return v > 0;
}

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
    // Kept on purpose: the output pointer is tested first although it comes last.
    if (!pSize || !srcVoi || !dstVoi) return vlkStatusNullPtr;
    // The source box is only validated; the size depends on the destination box alone.
    if (!validCuboid(*srcVoi) || !validCuboid(*dstVoi)) return vlkStatusSize;
    if (nChannel != 1) return vlkStatusNumChannels;
    if (!knownInterpolation(interpolation)) return vlkStatusInterpolation;
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
#undef VLKR_INSTANTIATE_RESIZE

}  // namespace vlkr::volume
