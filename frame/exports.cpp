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
