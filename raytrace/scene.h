// Scene preparation: the padded bounding box and the per-triangle acceleration records.
#pragma once

#include "vlkr.h"

namespace vlkr::raytrace {

static_assert(sizeof(TriangleAccel) == 40, "TriangleAccel is ten 32-bit words");

// Axis word bit set when the triangle's normal lies along its dominant axis.
constexpr unsigned kAxisAlongW = 0x80000000u;

void computeBoundBox(const float* vertices, int vertexCount, float box[6]) noexcept;
void buildTriangleAccel(TriangleAccel* accel, const float* vertices, const int* triangles,
                        int triangleCount) noexcept;

}  // namespace vlkr::raytrace
