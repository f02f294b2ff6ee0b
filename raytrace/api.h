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
vlkStatus intersectAnySO(const float origin[3], const float* const dir[3], int* triangle, int* mask,
                         PacketSize block, const IntersectContext* ctx) noexcept;

vlkStatus castEye(const float corner[3], const float columnStep[3], const float rowStep[3],
                  int blockColumn, int blockRow, PacketSize blockSize, float* const dir[3],
                  PacketSize packetSize) noexcept;
vlkStatus castReflectionRay(const float* const incident[3], const int* mask,
                            const float* const normal[3], float* const reflected[3],
                            int len) noexcept;
vlkStatus castShadowSO(const float light[3], const float* factor, const float* const normal[3],
                       const float* const hitPoint[3], int* mask, float* cosine,
                       float* const shadowDir[3], int len) noexcept;
vlkStatus hitPoint3DEpsS0(const float origin[3], const float* const dir[3], const float* dist,
                          const int* mask, float* const hitPoint[3], int len, float eps) noexcept;
vlkStatus hitPoint3DEpsM0(const float* const origin[3], const float* const dir[3],
                          const float* dist, const int* mask, float* const hitPoint[3], int len,
                          float eps) noexcept;

vlkStatus triangleNormal(const float* vertices, const int* triangles, float* normals,
                         int triangleCount) noexcept;
vlkStatus surfFlatNormal(const float* triangleNormals, const int* triangle, float* const normal[3],
                         int len) noexcept;
vlkStatus surfSmoothNormal(const float* vertexNormals, const int* normalIndices,
                           const int* triangle, const float* const hit[2], float* const normal[3],
                           int len, int stride) noexcept;

vlkStatus addMulMulAC1P3IM(const float k[3], const float* factor, const float* const src[3],
                           const int* mask, float* const srcDst[3], int len) noexcept;
vlkStatus divC1IM(const float* divisor, const int* mask, float* srcDst, int len) noexcept;
vlkStatus mulC1IM(const float* factor, const int* mask, float* srcDst, int len) noexcept;
vlkStatus mulC1P3IM(const float* factor, const int* mask, float* const srcDst[3], int len) noexcept;
vlkStatus dotP3C1M(const float* const a[3], const float* const b[3], const int* mask, float* dst,
                   int len) noexcept;
vlkStatus dotChangeNormIM(const float* const v[3], const int* mask, float* const normal[3],
                          float* dot, int len) noexcept;
vlkStatus distAttenuationSOM(const float point[3], const float* const surface[3], const int* mask,
                             float* dist, int len) noexcept;

}  // namespace vlkr::raytrace
