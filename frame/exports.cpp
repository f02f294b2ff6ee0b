// The exported C entry points: each forwards to its family's checked front end.
#include "vlkr.h"

#include "../raytrace/api.h"
#include "../sh/api.h"
#include "../volume/api.h"
#include "version.h"

extern "C" {

VLKR_API const LibVersion* vlkrGetLibVersion(void) { return &vlkr::frame::kLibVersion; }

VLKR_API vlkStatus vlkrSetBoundBox_32f(const float* vertices, int vertexCount, float box[6])
{
    return vlkr::raytrace::setBoundBox(vertices, vertexCount, box);
}

VLKR_API vlkStatus vlkrTriangleAccelGetSize(int* pSize)
{
    return vlkr::raytrace::triangleAccelGetSize(pSize);
}

VLKR_API vlkStatus vlkrTriangleAccelInit(TriangleAccel* accel, const float* vertices,
                                         const int* triangles, int triangleCount)
{
    return vlkr::raytrace::triangleAccelInit(accel, vertices, triangles, triangleCount);
}

VLKR_API vlkStatus vlkrIntersectAnySO_32f(const float origin[3], const float* const dir[3],
                                          int* triangle, int* mask, PacketSize block,
                                          const IntersectContext* ctx)
{
    return vlkr::raytrace::intersectAnySO(origin, dir, triangle, mask, block, ctx);
}

VLKR_API vlkStatus vlkrIntersectEyeSO_32f(const float origin[3], const float* const dir[3],
                                          float* dist, float* const hit[2], int* triangle,
                                          const IntersectContext* ctx, PacketSize block)
{
    return vlkr::raytrace::intersectEyeSO(origin, dir, dist, hit, triangle, ctx, block);
}

VLKR_API vlkStatus vlkrIntersectMO_32f(const float* const origin[3], const float* const dir[3],
                                       float* dist, float* const hit[2], int* triangle,
                                       const IntersectContext* ctx, PacketSize block)
{
    return vlkr::raytrace::intersectMO(origin, dir, dist, hit, triangle, ctx, block);
}

VLKR_API vlkStatus vlkrIntersectMultipleSO_32f(const float origin[3], const float* const dir[3],
                                               float* dist, float* const hit[2], int* triangle,
                                               const VolumeSize* volume,
                                               const IntersectContext* ctx)
{
    return vlkr::raytrace::intersectMultipleSO(origin, dir, dist, hit, triangle, volume, ctx);
}

VLKR_API vlkStatus vlkrKDTreeBuildAlloc(KDTreeNode** tree, const float* vertices,
                                        const int* triangles, int vertexCount, int triangleCount,
                                        int* treeSize, const KDTreeBuildContext* params)
{
    return vlkr::raytrace::kdTreeBuildAlloc(tree, vertices, triangles, vertexCount, triangleCount,
                                            treeSize, params);
}

VLKR_API vlkStatus vlkrKDTreeFree(KDTreeNode* tree) { return vlkr::raytrace::kdTreeFree(tree); }

VLKR_API vlkStatus vlkrAddMulMul_32f_AC1P3IM(const float k[3], const float* factor,
                                             const float* const src[3], const int* mask,
                                             float* const srcDst[3], int len)
{
    return vlkr::raytrace::addMulMulAC1P3IM(k, factor, src, mask, srcDst, len);
}

VLKR_API vlkStatus vlkrCastEye_32f(const float corner[3], const float columnStep[3],
                                   const float rowStep[3], int blockColumn, int blockRow,
                                   PacketSize blockSize, float* const dir[3], PacketSize packetSize)
{
    return vlkr::raytrace::castEye(corner, columnStep, rowStep, blockColumn, blockRow, blockSize,
                                   dir, packetSize);
}

VLKR_API vlkStatus vlkrCastReflectionRay_32f(const float* const incident[3], const int* mask,
                                             const float* const normal[3],
                                             float* const reflected[3], int len)
{
    return vlkr::raytrace::castReflectionRay(incident, mask, normal, reflected, len);
}

VLKR_API vlkStatus vlkrCastShadowSO_32f(const float light[3], const float* factor,
                                        const float* const normal[3],
                                        const float* const hitPoint[3], int* mask, float* cosine,
                                        float* const shadowDir[3], int len)
{
    return vlkr::raytrace::castShadowSO(light, factor, normal, hitPoint, mask, cosine, shadowDir,
                                        len);
}

VLKR_API vlkStatus vlkrDistAttenuationSO_32f_M(const float point[3], const float* const surface[3],
                                               const int* mask, float* dist, int len)
{
    return vlkr::raytrace::distAttenuationSOM(point, surface, mask, dist, len);
}

VLKR_API vlkStatus vlkrDiv_32f_C1IM(const float* divisor, const int* mask, float* srcDst, int len)
{
    return vlkr::raytrace::divC1IM(divisor, mask, srcDst, len);
}

VLKR_API vlkStatus vlkrDotChangeNorm_32f_IM(const float* const v[3], const int* mask,
                                            float* const normal[3], float* dot, int len)
{
    return vlkr::raytrace::dotChangeNormIM(v, mask, normal, dot, len);
}

VLKR_API vlkStatus vlkrDot_32f_P3C1M(const float* const a[3], const float* const b[3],
                                     const int* mask, float* dst, int len)
{
    return vlkr::raytrace::dotP3C1M(a, b, mask, dst, len);
}

VLKR_API vlkStatus vlkrHitPoint3DEpsM0_32f_M(const float* const origin[3],
                                             const float* const dir[3], const float* dist,
                                             const int* mask, float* const hitPoint[3], int len,
                                             float eps)
{
    return vlkr::raytrace::hitPoint3DEpsM0(origin, dir, dist, mask, hitPoint, len, eps);
}

VLKR_API vlkStatus vlkrHitPoint3DEpsS0_32f_M(const float origin[3], const float* const dir[3],
                                             const float* dist, const int* mask,
                                             float* const hitPoint[3], int len, float eps)
{
    return vlkr::raytrace::hitPoint3DEpsS0(origin, dir, dist, mask, hitPoint, len, eps);
}

VLKR_API vlkStatus vlkrMul_32f_C1IM(const float* factor, const int* mask, float* srcDst, int len)
{
    return vlkr::raytrace::mulC1IM(factor, mask, srcDst, len);
}

VLKR_API vlkStatus vlkrMul_32f_C1P3IM(const float* factor, const int* mask, float* const srcDst[3],
                                      int len)
{
    return vlkr::raytrace::mulC1P3IM(factor, mask, srcDst, len);
}

VLKR_API vlkStatus vlkrSurfFlatNormal_32f(const float* triangleNormals, const int* triangle,
                                          float* const normal[3], int len)
{
    return vlkr::raytrace::surfFlatNormal(triangleNormals, triangle, normal, len);
}

VLKR_API vlkStatus vlkrSurfSmoothNormal_32f(const float* vertexNormals, const int* normalIndices,
                                            const int* triangle, const float* const hit[2],
                                            float* const normal[3], int len, int stride)
{
    return vlkr::raytrace::surfSmoothNormal(vertexNormals, normalIndices, triangle, hit, normal,
                                            len, stride);
}

VLKR_API vlkStatus vlkrTriangleNormal_32f(const float* vertices, const int* triangles,
                                          float* normals, int triangleCount)
{
    return vlkr::raytrace::triangleNormal(vertices, triangles, normals, triangleCount);
}

VLKR_API vlkStatus vlkrSHGetSize_32f(int maxL, int shType, int* pSize)
{
    return vlkr::sh::getSize(maxL, shType, pSize);
}

VLKR_API vlkStatus vlkrSHInit_32f(SHContext* state, int maxL, int shType)
{
    return vlkr::sh::init(state, maxL, shType);
}

VLKR_API vlkStatus vlkrSH_32f(const float* x, const float* y, const float* z, int n, float* dst,
                              int L, const SHContext* state)
{
    return vlkr::sh::basisAll(x, y, z, n, dst, L, state);
}

VLKR_API vlkStatus vlkrSHBand_32f(const float* x, const float* y, const float* z, int n, float* dst,
                                  int L)
{
    return vlkr::sh::basisBand(x, y, z, n, dst, L);
}

VLKR_API vlkStatus vlkrSHTFwd_32f_C1I(const float* x, const float* y, const float* z,
                                      const float* src, int n, float* coeffs, int L,
                                      const SHContext* state)
{
    return vlkr::sh::forwardC1I(x, y, z, src, n, coeffs, L, state);
}

VLKR_API vlkStatus vlkrSHTFwd_32f_C3P3I(const float* x, const float* y, const float* z,
                                        const float* src, int n, float* const coeffs[3], int L,
                                        const SHContext* state)
{
    return vlkr::sh::forwardC3P3I(x, y, z, src, n, coeffs, L, state);
}

VLKR_API vlkStatus vlkrSHTFwd_32f_P3I(const float* x, const float* y, const float* z,
                                      const float* const src[3], int n, float* const coeffs[3],
                                      int L, const SHContext* state)
{
    return vlkr::sh::forwardP3I(x, y, z, src, n, coeffs, L, state);
}

VLKR_API vlkStatus vlkrSHTInv_32f_C1(const float* coeffs, int L, const float* x, const float* y,
                                     const float* z, float* dst, int n, const SHContext* state)
{
    return vlkr::sh::inverseC1(coeffs, L, x, y, z, dst, n, state);
}

VLKR_API vlkStatus vlkrSHTInv_32f_P3(const float* const coeffs[3], int L, const float* x,
                                     const float* y, const float* z, float* const dst[3], int n,
                                     const SHContext* state)
{
    return vlkr::sh::inverseP3(coeffs, L, x, y, z, dst, n, state);
}

VLKR_API vlkStatus vlkrSHTInv_32f_P3C3(const float* const coeffs[3], int L, const float* x,
                                       const float* y, const float* z, float* dst, int n,
                                       const SHContext* state)
{
    return vlkr::sh::inverseP3C3(coeffs, L, x, y, z, dst, n, state);
}

VLKR_API vlkStatus vlkrGetResizeCuboid(const Cuboid* srcVoi, Cuboid* dstVoi, double xFactor,
                                       double yFactor, double zFactor, double xShift, double yShift,
                                       double zShift, int interpolation)
{
    return vlkr::volume::getResizeCuboid(srcVoi, dstVoi, xFactor, yFactor, zFactor, xShift, yShift,
                                         zShift, interpolation);
}

VLKR_API vlkStatus vlkrResizeGetBufSize(const Cuboid* srcVoi, const Cuboid* dstVoi, int nChannel,
                                        int interpolation, int* pSize)
{
    return vlkr::volume::resizeGetBufSize(srcVoi, dstVoi, nChannel, interpolation, pSize);
}

VLKR_API vlkStatus vlkrWarpAffineGetBufSize(const Cuboid* srcVoi, const Cuboid* dstVoi,
                                            int nChannel, int interpolation, int* pSize)
{
    return vlkr::volume::warpAffineGetBufSize(srcVoi, dstVoi, nChannel, interpolation, pSize);
}

// The resize, warp and remap entry points of one voxel type, each forwarding to the family's
// template for that type.
#define VLKR_VOLUME_EXPORTS(T, tag)                                                               \
    VLKR_API vlkStatus vlkrResize_##tag##_C1V(                                                    \
        const T* src, const VolumeSize* srcVolume, int srcRowStep, int srcPlaneStep,              \
        const Cuboid* srcVoi, T* dst, int dstRowStep, int dstPlaneStep, const Cuboid* dstVoi,     \
        double xFactor, double yFactor, double zFactor, double xShift, double yShift,             \
        double zShift, int interpolation, unsigned char* buffer)                                  \
    {                                                                                             \
        return vlkr::volume::resizeBlock(src, srcVolume, srcRowStep, srcPlaneStep, srcVoi, dst,   \
                                         dstRowStep, dstPlaneStep, dstVoi, xFactor, yFactor,      \
                                         zFactor, xShift, yShift, zShift, interpolation, buffer); \
    }                                                                                             \
    VLKR_API vlkStatus vlkrResize_##tag##_C1PV(                                                   \
        const T* const src[], const VolumeSize* srcVolume, int srcStep, const Cuboid* srcVoi,     \
        T* const dst[], int dstStep, const Cuboid* dstVoi, double xFactor, double yFactor,        \
        double zFactor, double xShift, double yShift, double zShift, int interpolation,           \
        unsigned char* buffer)                                                                    \
    {                                                                                             \
        return vlkr::volume::resizePlanes(src, srcVolume, srcStep, srcVoi, dst, dstStep, dstVoi,  \
                                          xFactor, yFactor, zFactor, xShift, yShift, zShift,      \
                                          interpolation, buffer);                                 \
    }                                                                                             \
    VLKR_API vlkStatus vlkrWarpAffine_##tag##_C1PV(                                               \
        const T* const src[], const VolumeSize* srcVolume, int srcStep, const Cuboid* srcVoi,     \
        T* const dst[], int dstStep, const Cuboid* dstVoi, const double coeffs[3][4],             \
        int interpolation)                                                                        \
    {                                                                                             \
        return vlkr::volume::warpAffine(src, srcVolume, srcStep, srcVoi, dst, dstStep, dstVoi,    \
                                        coeffs, interpolation);                                   \
    }                                                                                             \
    VLKR_API vlkStatus vlkrRemap_##tag##_C1PV(                                                    \
        const T* const src[], const VolumeSize* srcVolume, int srcStep, Cuboid* srcVoi,           \
        const float* const xMap[], const float* const yMap[], const float* const zMap[],          \
        int mapStep, T* const dst[], int dstStep, const VolumeSize* dstVolume, int interpolation) \
    {                                                                                             \
        return vlkr::volume::remap(src, srcVolume, srcStep, srcVoi, xMap, yMap, zMap, mapStep,    \
                                   dst, dstStep, dstVolume, interpolation);                       \
    }

VLKR_VOLUME_EXPORTS(Vlk8u, 8u)
VLKR_VOLUME_EXPORTS(Vlk16u, 16u)
VLKR_VOLUME_EXPORTS(Vlk32f, 32f)

#undef VLKR_VOLUME_EXPORTS

VLKR_API vlkStatus vlkrFilterGetBufSize(const VolumeSize* region, const VolumeSize* kernelVolume,
                                        int nChannel, int* pSize)
{
    return vlkr::volume::filterGetBufSize(region, kernelVolume, nChannel, pSize);
}

VLKR_API vlkStatus vlkrFilter_16s_C1PV(const Vlk16s* const src[], int srcStep, Vlk16s* const dst[],
                                       int dstStep, const VolumeSize* region, const int* kernel,
                                       const VolumeSize* kernelVolume, const int anchor[3],
                                       int divisor, unsigned char* buffer)
{
    return vlkr::volume::filter(src, srcStep, dst, dstStep, region, kernel, kernelVolume, anchor,
                                divisor, buffer);
}
}  // extern "C"
