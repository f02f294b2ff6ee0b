// Triangle and surface normals (arguments already checked, counts positive).
#pragma once

#include "vlkr.h"

namespace vlkr::raytrace {

void triangleNormals(const float* vertices, const int* triangles, float* normals,
                     int triangleCount) noexcept;
void flatNormals(const float* triangleNormals, const int* triangle, float* const normal[3],
                 int len) noexcept;
void smoothNormals(const float* vertexNormals, const int* normalIndices, const int* triangle,
                   const float* const hit[2], float* const normal[3], int len, int stride) noexcept;

}  // namespace vlkr::raytrace
