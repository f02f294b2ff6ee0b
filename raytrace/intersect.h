// Ray/scene intersection over the k-d tree: nearest hit, layered hits and occlusion.
#pragma once

#include "vlkr.h"

namespace vlkr::raytrace {

// The planar origins of one call: either one shared point or one point per ray.
struct Origins {
    const float* shared = nullptr;         // three floats, or null
    const float* const* perRay = nullptr;  // three planes, or null
};

// Nearest hit of every ray of a width x height block (arguments already checked).
void intersectNearest(Origins origin, const float* const dir[3], float* dist, float* const hit[2],
                      int* triangle, const IntersectContext& ctx, PacketSize block) noexcept;

// Successive hits along each ray, one per layer.
void intersectLayers(const float origin[3], const float* const dir[3], float* dist,
                     float* const hit[2], int* triangle, const VolumeSize& volume,
                     const IntersectContext& ctx) noexcept;

// Occlusion within 0 < t < 1 for the rays whose mask is not negative.
void intersectAny(const float origin[3], const float* const dir[3], int* triangle, int* mask,
                  PacketSize block, const IntersectContext& ctx) noexcept;

}  // namespace vlkr::raytrace
