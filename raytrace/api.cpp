// Argument checks of the ray-tracing operations, in argument order, before any work.
#include "api.h"

#include <cstdint>

#include "intersect.h"
#include "kdtree_build.h"
#include "normals.h"
#include "rays.h"
#include "scene.h"
#include "shading.h"
#include "vlkcore.h"

namespace vlkr::raytrace {

vlkStatus setBoundBox(const float* vertices, int vertexCount, float box[6]) noexcept
{
    if (!vertices) return vlkStatusNullPtr;
    // Kept on purpose: box is not checked, and any count is accepted (<= 0 writes the
    // padded start values).
    computeBoundBox(vertices, vertexCount, box);
    return vlkStatusOk;
}

vlkStatus triangleAccelGetSize(int* pSize) noexcept
{
    if (!pSize) return vlkStatusNullPtr;
    *pSize = static_cast<int>(sizeof(TriangleAccel));
    return vlkStatusOk;
}

vlkStatus triangleAccelInit(TriangleAccel* accel, const float* vertices, const int* triangles,
                            int triangleCount) noexcept
{
    if (!accel) return vlkStatusNullPtr;
    if (!vertices) return vlkStatusNullPtr;
    if (!triangles) return vlkStatusNullPtr;
    if (triangleCount <= 0) return vlkStatusOk;
    buildTriangleAccel(accel, vertices, triangles, triangleCount);
    return vlkStatusOk;
}

vlkStatus kdTreeBuildAlloc(KDTreeNode** tree, const float* vertices, const int* triangles,
                           int vertexCount, int triangleCount, int* treeSize,
                           const KDTreeBuildContext* params) noexcept
{
    // Kept on purpose: the counts are tested before the parameter record that precedes them.
    if (!tree || !vertices || !triangles || !treeSize) return vlkStatusNullPtr;
    if (vertexCount < 0 || triangleCount < 0) return vlkStatusSize;
    if (!params) return vlkStatusNullPtr;
    if (params->mode == KDTreeBuildSimple) {
        if (params->depth > kMaxTreeDepth) return vlkStatusOutOfRange;
        return buildSimpleTree(tree, triangleCount, treeSize);
    }
    if (params->mode == KDTreeBuildSAH) {
        if (params->depth > kMaxTreeDepth) return vlkStatusOutOfRange;
        // Written so that a quality that is not a number passes.
        if (params->quality < 0.0f || params->quality > 1.0f) return vlkStatusOutOfRange;
        // Megabytes to bytes in 32-bit unsigned arithmetic: large values wrap on purpose.
        constexpr std::uint32_t kMinBudgetHalfMegabytes = 1u << 24;  // 32 MB, in 2^19 units
        if ((params->memory << 19) < kMinBudgetHalfMegabytes) return vlkStatusNoMemory;
        return buildSahTree(tree, vertices, triangles, vertexCount, triangleCount, treeSize,
                            *params, params->memory << 20);
    }
    return vlkStatusBadArg;
}

vlkStatus kdTreeFree(KDTreeNode* tree) noexcept
{
    // Kept on purpose: a null tree is handed to vlkFree like any other.
    vlkFree(tree);
    return vlkStatusOk;
}

// The intersection queries check only the arrays they write or must read; origins, the
// triangle array of the nearest-hit queries and the context are used unchecked on purpose.

namespace {

vlkStatus nearestHits(Origins origin, const float* const dir[3], float* dist, float* const hit[2],
                      int* triangle, const IntersectContext* ctx, PacketSize block) noexcept
{
    if (block.height < 1 || block.width < 1) return vlkStatusOk;
    intersectNearest(origin, dir, dist, hit, triangle, *ctx, block);
    return vlkStatusOk;
}

}  // namespace

vlkStatus intersectEyeSO(const float origin[3], const float* const dir[3], float* dist,
                         float* const hit[2], int* triangle, const IntersectContext* ctx,
                         PacketSize block) noexcept
{
    if (!dir || !dist || !hit) return vlkStatusNullPtr;
    return nearestHits({origin, nullptr}, dir, dist, hit, triangle, ctx, block);
}

vlkStatus intersectMO(const float* const origin[3], const float* const dir[3], float* dist,
                      float* const hit[2], int* triangle, const IntersectContext* ctx,
                      PacketSize block) noexcept
{
    if (!origin || !dir || !dist) return vlkStatusNullPtr;
    return nearestHits({nullptr, origin}, dir, dist, hit, triangle, ctx, block);
}

vlkStatus intersectMultipleSO(const float origin[3], const float* const dir[3], float* dist,
                              float* const hit[2], int* triangle, const VolumeSize* volume,
                              const IntersectContext* ctx) noexcept
{
    if (!dir || !dist || !hit) return vlkStatusNullPtr;
    if (volume->width < 1 || volume->height < 1 || volume->depth < 1) return vlkStatusOk;
    intersectLayers(origin, dir, dist, hit, triangle, *volume, *ctx);
    return vlkStatusOk;
}

vlkStatus intersectAnySO(const float origin[3], const float* const dir[3], int* triangle, int* mask,
                         PacketSize block, const IntersectContext* ctx) noexcept
{
    if (!dir || !triangle || !mask) return vlkStatusNullPtr;
    if (block.height < 1 || block.width < 1) return vlkStatusOk;
    intersectAny(origin, dir, triangle, mask, block, *ctx);
    return vlkStatusOk;
}

// The per-ray operations check the arrays named below, in this order, then the count; each
// comment names what stays unchecked on purpose. Plane pointers inside triples are never
// checked.

vlkStatus castEye(const float corner[3], const float columnStep[3], const float rowStep[3],
                  int blockColumn, int blockRow, PacketSize blockSize, float* const dir[3],
                  PacketSize packetSize) noexcept
{
    if (!dir) return vlkStatusNullPtr;  // corner and the steps are unchecked
    if (packetSize.height <= 0 || packetSize.width <= 0) return vlkStatusOk;
    makeEyeRays(corner, columnStep, rowStep, blockColumn, blockRow, blockSize, dir, packetSize);
    return vlkStatusOk;
}

vlkStatus castReflectionRay(const float* const incident[3], const int* mask,
                            const float* const normal[3], float* const reflected[3],
                            int len) noexcept
{
    if (!incident || !mask || !normal || !reflected) return vlkStatusNullPtr;
    if (len <= 0) return vlkStatusOk;
    reflectRays(incident, mask, normal, reflected, len);
    return vlkStatusOk;
}

vlkStatus castShadowSO(const float light[3], const float* factor, const float* const normal[3],
                       const float* const hitPoint[3], int* mask, float* cosine,
                       float* const shadowDir[3], int len) noexcept
{
    // Kept on purpose: the cosine output is tested last, after the directions that follow it;
    // the light position is not tested.
    if (!factor || !normal || !hitPoint || !mask || !shadowDir || !cosine) return vlkStatusNullPtr;
    if (len <= 0) return vlkStatusOk;
    makeShadowRays(light, factor, normal, hitPoint, mask, cosine, shadowDir, len);
    return vlkStatusOk;
}

vlkStatus hitPoint3DEpsS0(const float origin[3], const float* const dir[3], const float* dist,
                          const int* mask, float* const hitPoint[3], int len, float eps) noexcept
{
    // Kept on purpose: distances and mask are tested before the directions that precede them;
    // the origin is not tested.
    if (!dist || !mask || !dir || !hitPoint) return vlkStatusNullPtr;
    if (len <= 0) return vlkStatusOk;
    makeHitPoints(origin, nullptr, dir, dist, mask, hitPoint, len, eps);
    return vlkStatusOk;
}

vlkStatus hitPoint3DEpsM0(const float* const origin[3], const float* const dir[3],
                          const float* dist, const int* mask, float* const hitPoint[3], int len,
                          float eps) noexcept
{
    // Kept on purpose: as the shared-origin form, with the origins tested last.
    if (!dist || !mask || !dir || !hitPoint || !origin) return vlkStatusNullPtr;
    if (len <= 0) return vlkStatusOk;
    makeHitPoints(nullptr, origin, dir, dist, mask, hitPoint, len, eps);
    return vlkStatusOk;
}

vlkStatus triangleNormal(const float* vertices, const int* triangles, float* normals,
                         int triangleCount) noexcept
{
    if (!vertices || !triangles || !normals) return vlkStatusNullPtr;
    if (triangleCount <= 0) return vlkStatusOk;
    triangleNormals(vertices, triangles, normals, triangleCount);
    return vlkStatusOk;
}

vlkStatus surfFlatNormal(const float* triangleNormals, const int* triangle, float* const normal[3],
                         int len) noexcept
{
    if (!triangleNormals || !triangle) return vlkStatusNullPtr;  // the output is unchecked
    if (len <= 0) return vlkStatusOk;
    flatNormals(triangleNormals, triangle, normal, len);
    return vlkStatusOk;
}

vlkStatus surfSmoothNormal(const float* vertexNormals, const int* normalIndices,
                           const int* triangle, const float* const hit[2], float* const normal[3],
                           int len, int stride) noexcept
{
    if (!vertexNormals || !normalIndices || !triangle || !hit || !normal) return vlkStatusNullPtr;
    if (len <= 0) return vlkStatusOk;
    smoothNormals(vertexNormals, normalIndices, triangle, hit, normal, len, stride);
    return vlkStatusOk;
}

vlkStatus addMulMulAC1P3IM(const float k[3], const float* factor, const float* const src[3],
                           const int* mask, float* const srcDst[3], int len) noexcept
{
    if (!factor || !src || !mask || !srcDst) return vlkStatusNullPtr;  // k unchecked
    if (len <= 0) return vlkStatusOk;
    addMulMul(k, factor, src, mask, srcDst, len);
    return vlkStatusOk;
}

vlkStatus divC1IM(const float* divisor, const int* mask, float* srcDst, int len) noexcept
{
    if (!divisor || !srcDst) return vlkStatusNullPtr;  // the mask is unchecked
    if (len <= 0) return vlkStatusOk;
    return divide(divisor, mask, srcDst, len);
}

vlkStatus mulC1IM(const float* factor, const int* mask, float* srcDst, int len) noexcept
{
    if (!factor || !mask || !srcDst) return vlkStatusNullPtr;
    if (len <= 0) return vlkStatusOk;
    multiply(factor, mask, srcDst, len);
    return vlkStatusOk;
}

vlkStatus mulC1P3IM(const float* factor, const int* mask, float* const srcDst[3], int len) noexcept
{
    if (!factor || !mask || !srcDst) return vlkStatusNullPtr;
    if (len <= 0) return vlkStatusOk;
    multiplyPlanes(factor, mask, srcDst, len);
    return vlkStatusOk;
}

vlkStatus dotP3C1M(const float* const a[3], const float* const b[3], const int* mask, float* dst,
                   int len) noexcept
{
    if (!a || !b || !mask || !dst) return vlkStatusNullPtr;
    if (len <= 0) return vlkStatusOk;
    dot(a, b, mask, dst, len);
    return vlkStatusOk;
}

vlkStatus dotChangeNormIM(const float* const v[3], const int* mask, float* const normal[3],
                          float* dotOut, int len) noexcept
{
    if (!v || !mask || !normal || !dotOut) return vlkStatusNullPtr;
    if (len <= 0) return vlkStatusOk;
    dotChangeNorm(v, mask, normal, dotOut, len);
    return vlkStatusOk;
}

vlkStatus distAttenuationSOM(const float point[3], const float* const surface[3], const int* mask,
                             float* dist, int len) noexcept
{
    if (!surface || !mask || !dist) return vlkStatusNullPtr;  // the point is unchecked
    if (len <= 0) return vlkStatusOk;
    distAttenuation(point, surface, mask, dist, len);
    return vlkStatusOk;
}

}  // namespace vlkr::raytrace
