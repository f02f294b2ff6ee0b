// Argument checks of the ray-tracing operations, in argument order, before any work.
#include "api.h"

#include <cstdint>

#include "intersect.h"
#include "kdtree_build.h"
#include "scene.h"
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

vlkStatus intersectEyeSO(const float origin[3], const float* const dir[3], float* dist,
                         float* const hit[2], int* triangle, const IntersectContext* ctx,
                         PacketSize block) noexcept
{
    if (!dir || !dist || !hit) return vlkStatusNullPtr;
    if (block.height < 1) return vlkStatusOk;
    Origins o;
    o.shared = origin;
    intersectNearest(o, dir, dist, hit, triangle, *ctx, block);
    return vlkStatusOk;
}

vlkStatus intersectMO(const float* const origin[3], const float* const dir[3], float* dist,
                      float* const hit[2], int* triangle, const IntersectContext* ctx,
                      PacketSize block) noexcept
{
    if (!origin || !dir || !dist) return vlkStatusNullPtr;
    if (block.height < 1) return vlkStatusOk;
    Origins o;
    o.perRay = origin;
    intersectNearest(o, dir, dist, hit, triangle, *ctx, block);
    return vlkStatusOk;
}

vlkStatus intersectMultipleSO(const float origin[3], const float* const dir[3], float* dist,
                              float* const hit[2], int* triangle, const VolumeSize* volume,
                              const IntersectContext* ctx) noexcept
{
    if (!dir || !dist || !hit) return vlkStatusNullPtr;
    intersectLayers(origin, dir, dist, hit, triangle, *volume, *ctx);
    return vlkStatusOk;
}

vlkStatus intersectAnySO(const float origin[3], const float* const dir[3], int* triangle,
                         int* mask, PacketSize block, const IntersectContext* ctx) noexcept
{
    if (!dir || !triangle || !mask) return vlkStatusNullPtr;
    if (block.height < 1) return vlkStatusOk;
    intersectAny(origin, dir, triangle, mask, block, *ctx);
    return vlkStatusOk;
}

}  // namespace vlkr::raytrace
