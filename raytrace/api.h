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
vlkStatus intersectEyeSO(const float origin[3], const float* const dir[3], float* dist,
                         float* const hit[2], int* triangle, const IntersectContext* ctx,
                         PacketSize block) noexcept;
vlkStatus intersectMO(const float* const origin[3], const float* const dir[3], float* dist,
                      float* const hit[2], int* triangle, const IntersectContext* ctx,
                      PacketSize block) noexcept;
vlkStatus intersectMultipleSO(const float origin[3], const float* const dir[3], float* dist,
                              float* const hit[2], int* triangle, const VolumeSize* volume,
                              const IntersectContext* ctx) noexcept;
vlkStatus intersectAnySO(const float origin[3], const float* const dir[3], int* triangle,
                         int* mask, PacketSize block, const IntersectContext* ctx) noexcept;

}  // namespace vlkr::raytrace
