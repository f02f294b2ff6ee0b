// Ray generation and hit points (arguments already checked, counts positive).
#pragma once

#include "frame/lanes.h"
#include "vlkr.h"

namespace vlkr::raytrace {

using lanes::Three;

void makeEyeRays(Three<float> corner, Three<float> columnStep, Three<float> rowStep,
                 int blockColumn, int blockRow, PacketSize blockSize, Three<float*> dir,
                 PacketSize packetSize) noexcept;
void reflectRays(Three<const float*> incident, const int* mask, Three<const float*> normal,
                 Three<float*> reflected, int len) noexcept;
void makeShadowRays(Three<float> light, const float* factor, Three<const float*> normal,
                    Three<const float*> hitPoint, int* mask, float* cosine, Three<float*> shadowDir,
                    int len) noexcept;
// One shared origin (sharedOrigin != nullptr) or one per ray.
void makeHitPoints(const float* sharedOrigin, const float* const origin[3], Three<const float*> dir,
                   const float* dist, const int* mask, Three<float*> hitPoint, int len,
                   float eps) noexcept;

}  // namespace vlkr::raytrace
