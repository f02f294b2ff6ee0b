// K-d tree construction: the one-leaf tree and the surface-area-heuristic build.
#pragma once

#include <cstdint>

#include "kdtree_node.h"
#include "vlkr.h"

namespace vlkr::raytrace {

// One leaf listing triangles 0..T-1; reports 4T + 16 bytes.
vlkStatus buildSimpleTree(KDTreeNode** tree, int triangleCount, int* treeSize) noexcept;

// Surface-area build within `budget` bytes (already checked to be at least 32 MB).
vlkStatus buildSahTree(KDTreeNode** tree, const float* vertices, const int* triangles,
                       int vertexCount, int triangleCount, int* treeSize,
                       const KDTreeBuildContext& params, std::uint32_t budget) noexcept;

}  // namespace vlkr::raytrace
