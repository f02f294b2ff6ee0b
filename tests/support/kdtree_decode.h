// Checker for k-d tree blocks from vlkrKDTreeBuildAlloc, shared by the tests and the
// benchmarks: structural validity, leaf boxes, SAH cost and, given the mesh, whether each
// triangle is listed in every leaf it crosses. Nodes are read with the library's own node
// decoding (raytrace/kdtree_node.h). Plain C++17, no test framework.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "raytrace/kdtree_node.h"
#include "vlkr.h"

namespace vlkr::test {

struct TreeLeaf {
    float box[6];                // min x, y, z, max x, y, z
    std::vector<int> triangles;  // in stored order
};

struct TreeInfo {
    bool valid = false;
    std::string error;  // the first problem found when !valid
    int innerNodes = 0, leaves = 0, emptyLeaves = 0, maxDepth = 0;
    long long triangleRefs = 0;
    double sahCost = 0.0;
    std::vector<TreeLeaf> leafList;  // depth first, the child below the plane first
};

namespace kdtree_detail {

inline double boxArea(const float b[6])
{
    double d[3];
    for (int a = 0; a < 3; ++a) d[a] = std::max(0.0, double(b[a + 3]) - b[a]);
    return 2.0 * (d[0] * d[1] + d[1] * d[2] + d[2] * d[0]);
}

// Whether the closed triangle p meets the open box (lo, hi), lo < hi on every axis: the
// separating-axis test with touching counted as separated, so contact along a face or an edge
// alone does not count.
inline bool triangleCrossesOpenBox(const double p[3][3], const double lo[3], const double hi[3])
{
    double h[3], v[3][3], e[3][3];
    for (int a = 0; a < 3; ++a) {
        h[a] = 0.5 * (hi[a] - lo[a]);
        for (int i = 0; i < 3; ++i) v[i][a] = p[i][a] - 0.5 * (hi[a] + lo[a]);
    }
    for (int i = 0; i < 3; ++i)
        for (int a = 0; a < 3; ++a) e[i][a] = v[(i + 1) % 3][a] - v[i][a];
    auto separates = [&](double x, double y, double z) {
        const double r = h[0] * std::fabs(x) + h[1] * std::fabs(y) + h[2] * std::fabs(z);
        if (r == 0.0) return false;  // a zero axis (parallel edges) proves nothing
        double mn = INFINITY, mx = -INFINITY;
        for (const auto& c : v) {
            mn = std::min(mn, c[0] * x + c[1] * y + c[2] * z);
            mx = std::max(mx, c[0] * x + c[1] * y + c[2] * z);
        }
        return mn >= r || mx <= -r;
    };
    if (separates(1, 0, 0) || separates(0, 1, 0) || separates(0, 0, 1)) return false;
    if (separates(e[0][1] * e[1][2] - e[0][2] * e[1][1], e[0][2] * e[1][0] - e[0][0] * e[1][2],
                  e[0][0] * e[1][1] - e[0][1] * e[1][0]))
        return false;
    for (const auto& d : e)  // each edge crossed with each axis
        if (separates(0, -d[2], d[1]) || separates(d[2], 0, -d[0]) || separates(-d[1], d[0], 0))
            return false;
    return true;
}

// A triangle of the mesh in double, with its bounds.
struct Triangle {
    int index;
    double p[3][3], lo[3], hi[3];
};

}  // namespace kdtree_detail

// Walks the tree block [root, root + treeSize bytes) from the root with rootBox and stops at
// the first structural problem, with valid == false and a readable error. Given the mesh, the
// tree is also invalid when a non-degenerate triangle with finite corners crosses the inside
// of a leaf box that does not list it. sahCost counts the inner nodes and triangle tests a ray
// expects, each weighted by its box area over the root box area (over 1 for a flat root).
inline TreeInfo decodeTree(const KDTreeNode* root, int treeSize, const float rootBox[6],
                           int triangleCount, int maxDepth = int(raytrace::kMaxTreeDepth),
                           const float* vertices = nullptr, const int* triangles = nullptr)
{
    using namespace kdtree_detail;
    TreeInfo info;
    const char* base = reinterpret_cast<const char*>(root);
    const double rootArea = std::isfinite(boxArea(rootBox)) ? boxArea(rootBox) : 0.0;
    double eps = 0.0;  // leaf boxes shrink by 1e-6 of the largest root extent
    for (int a = 0; a < 3; ++a) eps = std::max(eps, 1e-6 * (rootBox[a + 3] - double(rootBox[a])));
    if (!std::isfinite(eps)) eps = 0.0;

    // The triangles to look for in the leaves they cross. A degenerate one (zero normal) can
    // never be hit, so no leaf needs it.
    std::vector<Triangle> meshed;
    for (int t = 0; vertices && triangles && t < triangleCount; ++t) {
        Triangle tri{t, {}, {}, {}};
        auto& p = tri.p;
        for (int i = 0; i < 9; ++i) p[i / 3][i % 3] = vertices[3LL * triangles[4LL * t + i / 3] + i % 3];
        bool finite = true, degenerate = true;
        for (int a = 0; a < 3; ++a) {
            const int b = (a + 1) % 3, c = (a + 2) % 3;
            tri.lo[a] = std::min({p[0][a], p[1][a], p[2][a]});
            tri.hi[a] = std::max({p[0][a], p[1][a], p[2][a]});
            finite = finite && std::isfinite(p[0][a] + p[1][a] + p[2][a]);
            degenerate = degenerate && (p[0][b] - p[2][b]) * (p[1][c] - p[2][c]) ==
                                           (p[0][c] - p[2][c]) * (p[1][b] - p[2][b]);
        }
        if (finite && !degenerate) meshed.push_back(tri);
    }

    std::vector<char> word(std::max(treeSize, 0) / 4 + 2, 0);  // 1: a node, 2: a triangle list
    long long misses = 0;
    auto fail = [&info](long long off, const std::string& what) {
        info.error = "node at byte " + std::to_string(off) + what;
        return false;
    };
    // Decodes the node at `off` with `box`; `crossing` holds the triangles whose bounds meet it.
    using Crossing = std::vector<const Triangle*>;
    std::function<bool(long long, int, const float*, const Crossing&)> visit =
        [&](long long off, int depth, const float* box, const Crossing& crossing) {
        if (off + 8 > treeSize) return fail(off, " lies past the end of the tree");
        if (word[off / 4] || word[off / 4 + 1]) return fail(off, " is reached twice or in a list");
        word[off / 4] = word[off / 4 + 1] = 1;
        if (depth > maxDepth) return fail(off, " is deeper than " + std::to_string(maxDepth));
        info.maxDepth = std::max(info.maxDepth, depth);
        KDTreeNode n;
        std::memcpy(&n, base + off, sizeof n);
        const double weight = rootArea > 0.0 ? boxArea(box) / rootArea : 1.0;
        if (raytrace::isInner(&n)) {
            const int axis = raytrace::splitAxis(&n);
            const float split = raytrace::splitOf(&n);
            if (axis == 3 || !std::isfinite(split) || split < box[axis] || split > box[axis + 3])
                return fail(off, " splits axis " + std::to_string(axis) + " outside its box");
            ++info.innerNodes;
            info.sahCost += weight;
            float below[6], above[6];
            std::copy(box, box + 6, below);
            std::copy(box, box + 6, above);
            below[axis + 3] = above[axis] = split;
            Crossing low, high;
            for (const Triangle* t : crossing) {
                if (t->lo[axis] <= split) low.push_back(t);
                if (t->hi[axis] >= split) high.push_back(t);
            }
            const long long child = off + raytrace::childPairOffset(&n);
            return visit(child, depth + 1, below, low) && visit(child + 8, depth + 1, above, high);
        }
        TreeLeaf leaf;
        std::copy(box, box + 6, leaf.box);
        if (n.data > 0) {  // a list of n.data numbers, which must lie past the node
            const long long start = off - raytrace::listBackOffset(&n), end = start + 4LL * n.data;
            if (start < off + 8 || end > treeSize) return fail(off, " lists outside the tree");
            for (long long w = start / 4; w < end / 4; ++w) {
                if (word[w] == 1) return fail(off, " has its triangle list over a node");
                word[w] = 2;
            }
            leaf.triangles.resize(n.data);
            std::memcpy(leaf.triangles.data(), base + start, 4 * static_cast<size_t>(n.data));
        } else if (n.data < 0) {  // one to three indices packed into the node
            int t[3];
            const int count = raytrace::compactLeafTriangles(&n, t);
            if (count == 0) return fail(off, " is a compact leaf of zero triangles");
            leaf.triangles.assign(t, t + count);
        } else {
            ++info.emptyLeaves;
        }
        for (int t : leaf.triangles)
            if (t < 0 || t >= triangleCount) return fail(off, " lists triangle " + std::to_string(t));
        info.triangleRefs += static_cast<long long>(leaf.triangles.size());
        info.sahCost += weight * double(leaf.triangles.size());

        // A triangle crossing the open leaf box, shrunk by eps against float rounding in the
        // builder's clipping, must be listed, except one flat in an axis lying on a face of
        // the box in that axis: it may sit in either child of that split.
        std::vector<int> listed = leaf.triangles;
        std::sort(listed.begin(), listed.end());
        double lo[3], hi[3];
        for (int a = 0; a < 3; ++a) lo[a] = box[a] + eps, hi[a] = box[a + 3] - eps;
        for (const Triangle* t : crossing) {
            bool inside = true;
            for (int a = 0; a < 3; ++a) {
                const bool onFace = t->lo[a] == box[a] || t->lo[a] == box[a + 3];
                inside = inside && !(onFace && t->lo[a] == t->hi[a]) && lo[a] < hi[a] &&
                         t->lo[a] < hi[a] && t->hi[a] > lo[a];
            }
            if (inside && triangleCrossesOpenBox(t->p, lo, hi) &&
                !std::binary_search(listed.begin(), listed.end(), t->index) && misses++ == 0)
                info.error = "triangle " + std::to_string(t->index) + " crosses the leaf at byte " +
                             std::to_string(off) + " but is not listed there";
        }
        info.leafList.push_back(std::move(leaf));
        return true;
    };

    Crossing all;
    for (const Triangle& t : meshed) all.push_back(&t);
    if (!visit(0, 0, rootBox, all)) return info;
    info.leaves = static_cast<int>(info.leafList.size());
    info.valid = misses == 0;
    return info;
}

}  // namespace vlkr::test
