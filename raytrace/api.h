// Checked front ends of the ray-tracing operations, called by the exported entry points.
#pragma once

#include "vlkr.h"

namespace vlkr::raytrace {

vlkStatus setBoundBox(const float* vertices, int vertexCount, float box[6]) noexcept;
vlkStatus triangleAccelGetSize(int* pSize) noexcept;
vlkStatus triangleAccelInit(TriangleAccel* accel, const float* vertices, const int* triangles,
                            int triangleCount) noexcept;
vlkStatus kdTreeBuildAlloc(KDTreeNode** tree, const float* vertices, const int* triangles,
                           int vertexCount, int triangleCount, int* treeSize,
                           const KDTreeBuildContext* params) noexcept;
vlkStatus kdTreeFree(KDTreeNode* tree) noexcept;

}  // namespace vlkr::raytrace
