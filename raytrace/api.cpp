// Argument checks of the ray-tracing operations, in argument order, before any work.
#include "api.h"

#include "scene.h"

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

}  // namespace vlkr::raytrace
