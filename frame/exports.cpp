// The exported C entry points: each forwards to its family's checked front end.
#include "vlkr.h"

#include "../raytrace/api.h"
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
                                        const int* triangles, int vertexCount,
                                        int triangleCount, int* treeSize,
                                        const KDTreeBuildContext* params)
{
    return vlkr::raytrace::kdTreeBuildAlloc(tree, vertices, triangles, vertexCount,
                                            triangleCount, treeSize, params);
}

VLKR_API vlkStatus vlkrKDTreeFree(KDTreeNode* tree) { return vlkr::raytrace::kdTreeFree(tree); }

}  // extern "C"
