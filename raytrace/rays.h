// Ray generation and hit points (arguments already checked, counts positive).
#pragma once

#include "vlkr.h"

namespace vlkr::raytrace {

void makeEyeRays(const float corner[3], const float columnStep[3], const float rowStep[3],
                 int blockColumn, int blockRow, PacketSize blockSize, float* const dir[3],
                 PacketSize packetSize) noexcept;
void reflectRays(const float* const incident[3], const int* mask, const float* const normal[3],
                 float* const reflected[3], int len) noexcept;
void makeShadowRays(const float light[3], const float* factor, const float* const normal[3],
                    const float* const hitPoint[3], int* mask, float* cosine,
                    float* const shadowDir[3], int len) noexcept;
// One shared origin (sharedOrigin != nullptr) or one per ray.
void makeHitPoints(const float* sharedOrigin, const float* const origin[3],
                   const float* const dir[3], const float* dist, const int* mask,
                   float* const hitPoint[3], int len, float eps) noexcept;

}  // namespace vlkr::raytrace
