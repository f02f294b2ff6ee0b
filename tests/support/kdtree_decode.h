// Decoder and checker for k-d tree blocks from vlkrKDTreeBuildAlloc, shared by the tests and
// the benchmarks: structural validity, leaf boxes, SAH cost, and whether each triangle is
// listed in every leaf it crosses. Plain C++17, no test framework.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "vlkr.h"

namespace vlkr::test {

struct TreeLeaf {
    float box[6];                // min x, y, z, max x, y, z
    std::vector<int> triangles;  // in stored order
    int depth;                   // inner nodes above the leaf
    int offset;                  // byte offset of the leaf node from the root
};

// Decoded shape of the tree, so the reachability check can descend without the raw block.
struct TreeNodeRef {
    int axis;     // split axis; -1 for a leaf
    float split;  // split position
    int below;    // index in TreeInfo::nodes of the child below the plane
    int above;    // and of the one above it
    int leaf;     // index in TreeInfo::leafList; -1 for an inner node
};

struct TreeInfo {
    bool valid = false;
    std::string error;  // first problem found when !valid
    int innerNodes = 0, leaves = 0, emptyLeaves = 0, maxDepth = 0;
    long long triangleRefs = 0;
    double sahCost = 0.0;
    std::vector<TreeLeaf> leafList;  // depth first, the child below the plane first
    std::vector<TreeNodeRef> nodes;  // root first; complete only when valid
    float rootBox[6] = {};
};

namespace kdtree_detail {

inline double boxArea(const float b[6])
{
    const double dx = std::max(0.0, double(b[3]) - b[0]);
    const double dy = std::max(0.0, double(b[4]) - b[1]);
    const double dz = std::max(0.0, double(b[5]) - b[2]);
    return 2.0 * (dx * dy + dy * dz + dz * dx);
}

inline std::string boxText(const float b[6])
{
    char s[160];
    std::snprintf(s, sizeof s, "[%g %g %g .. %g %g %g]", b[0], b[1], b[2], b[3], b[4], b[5]);
    return s;
}

// Whether the closed triangle p meets the open box (lo, hi): separating-axis test with
// touching counted as separated, so contact along a face or edge alone does not count.
inline bool triangleCrossesOpenBox(const double p[3][3], const double lo[3], const double hi[3])
{
    double h[3], v[3][3];
    for (int a = 0; a < 3; ++a) {
        if (!(lo[a] < hi[a])) return false;
        h[a] = 0.5 * (hi[a] - lo[a]);
        const double c = 0.5 * (hi[a] + lo[a]);
        for (int i = 0; i < 3; ++i) v[i][a] = p[i][a] - c;
    }
    auto separates = [&](const double ax[3]) {
        const double r =
            h[0] * std::fabs(ax[0]) + h[1] * std::fabs(ax[1]) + h[2] * std::fabs(ax[2]);
        if (r == 0.0) return false;  // a zero axis (parallel edges) proves nothing
        double mn = 0.0, mx = 0.0;
        for (int i = 0; i < 3; ++i) {
            const double d = v[i][0] * ax[0] + v[i][1] * ax[1] + v[i][2] * ax[2];
            mn = i ? std::min(mn, d) : d;
            mx = i ? std::max(mx, d) : d;
        }
        return mn >= r || mx <= -r;
    };
    double e[3][3];
    for (int i = 0; i < 3; ++i)
        for (int a = 0; a < 3; ++a) e[i][a] = v[(i + 1) % 3][a] - v[i][a];
    for (int a = 0; a < 3; ++a) {
        const double unit[3] = {a == 0 ? 1.0 : 0.0, a == 1 ? 1.0 : 0.0, a == 2 ? 1.0 : 0.0};
        if (separates(unit)) return false;
    }
    const double n[3] = {e[0][1] * e[1][2] - e[0][2] * e[1][1],
                         e[0][2] * e[1][0] - e[0][0] * e[1][2],
                         e[0][0] * e[1][1] - e[0][1] * e[1][0]};
    if (separates(n)) return false;
    for (int i = 0; i < 3; ++i) {
        const double x[3] = {0.0, -e[i][2], e[i][1]};  // e x unit x
        const double y[3] = {e[i][2], 0.0, -e[i][0]};  // e x unit y
        const double z[3] = {-e[i][1], e[i][0], 0.0};  // e x unit z
        if (separates(x) || separates(y) || separates(z)) return false;
    }
    return true;
}

}  // namespace kdtree_detail

// Walks the tree block [root, root + treeSize bytes) from the root with rootBox, checking the
// structure; stops at the first problem with valid == false and a readable error. sahCost is
// the expected cost per ray relative to the root box area; with a zero-area root box every node
// counts as always visited (inner nodes * traversalCost + references * intersectCost).
inline TreeInfo decodeTree(const KDTreeNode* root, int treeSize, const float rootBox[6],
                            int triangleCount, int maxDepth = 50, double traversalCost = 1.0,
                            double intersectCost = 1.0)
{
    TreeInfo info;
    auto fail = [&info](std::string msg) {
        info.valid = false;
        info.error = std::move(msg);
        return info;
    };
    if (!root || !rootBox) return fail("null root or root box");
    std::copy(rootBox, rootBox + 6, info.rootBox);
    if (treeSize < 8) return fail("tree size " + std::to_string(treeSize) + " holds no node");

    const char* base = reinterpret_cast<const char*>(root);
    const std::string sizeText = " the " + std::to_string(treeSize) + "-byte tree";
    const double rootArea = kdtree_detail::boxArea(rootBox);
    const bool flatRoot = !(rootArea > 0.0) || !std::isfinite(rootArea);

    struct Item {
        long long off;
        int index, depth;
        float box[6];
    };
    std::vector<Item> stack;
    Item first{0, 0, 0, {}};
    std::copy(rootBox, rootBox + 6, first.box);
    stack.push_back(first);
    info.nodes.push_back({-1, 0.0f, -1, -1, -1});
    std::vector<unsigned char> seen(static_cast<size_t>(treeSize) / 8 + 1, 0);
    std::vector<long long> nodeOffsets;
    std::vector<std::pair<long long, long long>> lists;  // byte ranges of out-of-node lists
    double cost = 0.0;

    while (!stack.empty()) {
        const Item it = stack.back();
        stack.pop_back();
        auto at = [&it] { return "node at byte " + std::to_string(it.off); };
        if (it.off + 8 > treeSize) return fail(at() + " lies outside" + sizeText);
        if (seen[it.off / 8]) return fail(at() + " is reached twice (the links are not a tree)");
        seen[it.off / 8] = 1;
        nodeOffsets.push_back(it.off);
        if (it.depth > maxDepth)
            return fail(at() + " is at depth " + std::to_string(it.depth) + ", deeper than " +
                        std::to_string(maxDepth));
        info.maxDepth = std::max(info.maxDepth, it.depth);
        KDTreeNode n;
        std::memcpy(&n, base + it.off, sizeof n);
        const double weight = flatRoot ? 1.0 : kdtree_detail::boxArea(it.box) / rootArea;

        if (n.link >= 0) {
            const int axis = n.link & 3;
            if (axis == 3) return fail(at() + " has split axis 3");
            const long long child = it.off + (n.link & ~7);
            if (child == it.off) return fail(at() + " links to itself");
            if (child + 16 > treeSize)
                return fail(at() + " has children at byte " + std::to_string(child) +
                            ", past the end of" + sizeText);
            float split;
            std::memcpy(&split, &n.data, 4);
            if (!std::isfinite(split)) return fail(at() + " has a non-finite split position");
            if (split < it.box[axis] || split > it.box[axis + 3]) {
                char s[64];
                std::snprintf(s, sizeof s, " splits axis %d at %g, outside its box ", axis, split);
                return fail(at() + s + kdtree_detail::boxText(it.box));
            }
            ++info.innerNodes;
            cost += traversalCost * weight;
            const int below = static_cast<int>(info.nodes.size());
            info.nodes.push_back({-1, 0.0f, -1, -1, -1});
            info.nodes.push_back({-1, 0.0f, -1, -1, -1});
            info.nodes[it.index] = {axis, split, below, below + 1, -1};
            Item lo = it, hi = it;
            lo.off = child;
            hi.off = child + 8;
            lo.index = below;
            hi.index = below + 1;
            lo.depth = hi.depth = it.depth + 1;
            lo.box[axis + 3] = split;
            hi.box[axis] = split;
            stack.push_back(hi);  // popped after the lower subtree, so leaves come out in order
            stack.push_back(lo);
            continue;
        }

        TreeLeaf leaf;
        std::copy(it.box, it.box + 6, leaf.box);
        leaf.depth = it.depth;
        leaf.offset = static_cast<int>(it.off);
        if (n.data > 0) {
            // link & ~3 is minus the distance to the list, which follows the node.
            const long long start = it.off - static_cast<long long>(n.link & ~3);
            const long long end = start + 4LL * n.data;
            if (start < it.off + 8) return fail(at() + " has its triangle list inside itself");
            if (end > treeSize)
                return fail(at() + " lists " + std::to_string(n.data) + " triangles from byte " +
                            std::to_string(start) + ", past the end of" + sizeText);
            leaf.triangles.resize(n.data);
            std::memcpy(leaf.triangles.data(), base + start, 4 * static_cast<size_t>(n.data));
            lists.emplace_back(start, end);
        } else if (n.data < 0) {
            const int count = n.data & 3;
            const long long m = (n.data & 0x7FFFFFFC) >> 2;
            const long long k = n.link & 0x7FFFFFFF;
            long long t[3] = {k, m, 0};
            if (count == 0) return fail(at() + " is a compact leaf of zero triangles");
            if (count == 3) {
                t[0] = m - (k >> 16);
                t[2] = m + (k & 0xFFFF);
            }
            for (int i = 0; i < count; ++i) leaf.triangles.push_back(static_cast<int>(t[i]));
        } else {
            ++info.emptyLeaves;
        }
        for (int t : leaf.triangles)
            if (t < 0 || t >= triangleCount)
                return fail(at() + " lists triangle " + std::to_string(t) + " of " +
                            std::to_string(triangleCount));
        info.triangleRefs += static_cast<long long>(leaf.triangles.size());
        cost += intersectCost * static_cast<double>(leaf.triangles.size()) * weight;
        info.nodes[it.index].leaf = static_cast<int>(info.leafList.size());
        info.leafList.push_back(std::move(leaf));
    }

    // A list written over a live node means the builder placed two things at one address.
    std::sort(nodeOffsets.begin(), nodeOffsets.end());
    for (const auto& r : lists) {
        auto o = std::upper_bound(nodeOffsets.begin(), nodeOffsets.end(), r.first - 8);
        if (o != nodeOffsets.end() && *o < r.second)
            return fail("triangle list at bytes " + std::to_string(r.first) + ".." +
                        std::to_string(r.second) + " overlaps the node at byte " +
                        std::to_string(*o));
    }
    info.leaves = static_cast<int>(info.leafList.size());
    info.sahCost = cost;
    info.valid = true;
    return info;
}

// Number of (triangle, leaf) pairs where a non-degenerate triangle crosses the interior of a leaf
// box that does not list it; -1 for an invalid tree or null input. Leaf boxes shrink by 1e-6 of
// the largest root extent first, so contact along a face, and float rounding in a builder's
// clipping, are not counted. A triangle flat in axis a lying on a leaf face in axis a is never
// required there: it may sit in either child of that split. Triangles with non-finite corners
// are skipped. *firstMiss names the first miss found.
inline long long countMissing(const TreeInfo& info, const float* vertices, const int* triangles,
                              int triangleCount, std::string* firstMiss = nullptr)
{
    auto failWith = [&](const std::string& msg) {
        if (firstMiss) *firstMiss = msg;
        return -1LL;
    };
    if (!info.valid) return failWith("the tree is invalid: " + info.error);
    if (triangleCount > 0 && (!vertices || !triangles)) return failWith("null mesh");

    std::vector<std::vector<int>> listed(info.leafList.size());
    for (size_t i = 0; i < listed.size(); ++i) {
        listed[i] = info.leafList[i].triangles;
        std::sort(listed[i].begin(), listed[i].end());
    }
    double extent = 0.0;
    for (int a = 0; a < 3; ++a)
        extent = std::max(extent, double(info.rootBox[a + 3]) - info.rootBox[a]);
    const double eps = std::isfinite(extent) ? 1e-6 * extent : 0.0;

    long long missing = 0;
    std::vector<int> candidates, stack;
    for (int t = 0; t < triangleCount; ++t) {
        double p[3][3], tmin[3], tmax[3];
        bool finite = true;
        for (int i = 0; i < 3; ++i)
            for (int a = 0; a < 3; ++a) {
                p[i][a] = vertices[3 * static_cast<long long>(
                                           triangles[4 * static_cast<long long>(t) + i]) +
                                   a];
                finite = finite && std::isfinite(p[i][a]);
            }
        if (!finite) continue;
        double u[3], w[3];
        for (int a = 0; a < 3; ++a) {
            u[a] = p[0][a] - p[2][a];
            w[a] = p[1][a] - p[2][a];
            tmin[a] = std::min({p[0][a], p[1][a], p[2][a]});
            tmax[a] = std::max({p[0][a], p[1][a], p[2][a]});
        }
        if (u[1] * w[2] - u[2] * w[1] == 0.0 && u[2] * w[0] - u[0] * w[2] == 0.0 &&
            u[0] * w[1] - u[1] * w[0] == 0.0)
            continue;  // degenerate: no ray can hit it, so no leaf needs it

        candidates.clear();
        if (info.nodes.empty()) {
            for (size_t i = 0; i < info.leafList.size(); ++i)
                candidates.push_back(static_cast<int>(i));
        } else {
            stack.assign(1, 0);
            while (!stack.empty()) {
                const TreeNodeRef& n = info.nodes[stack.back()];
                stack.pop_back();
                if (n.axis < 0) {
                    if (n.leaf >= 0) candidates.push_back(n.leaf);
                    continue;
                }
                if (tmin[n.axis] <= n.split) stack.push_back(n.below);
                if (tmax[n.axis] >= n.split) stack.push_back(n.above);
            }
        }

        for (int li : candidates) {
            const TreeLeaf& leaf = info.leafList[li];
            double lo[3], hi[3];
            bool inside = true;
            for (int a = 0; a < 3 && inside; ++a) {
                const bool flat = tmin[a] == tmax[a];
                if (flat && (tmin[a] == leaf.box[a] || tmin[a] == leaf.box[a + 3])) inside = false;
                lo[a] = leaf.box[a] + eps;
                hi[a] = leaf.box[a + 3] - eps;
                if (!(lo[a] < hi[a] && tmin[a] < hi[a] && tmax[a] > lo[a])) inside = false;
            }
            if (!inside || !kdtree_detail::triangleCrossesOpenBox(p, lo, hi)) continue;
            if (std::binary_search(listed[li].begin(), listed[li].end(), t)) continue;
            if (missing++ == 0 && firstMiss)
                *firstMiss = "triangle " + std::to_string(t) + " crosses leaf " +
                             std::to_string(li) + " (node at byte " + std::to_string(leaf.offset) +
                             ", depth " + std::to_string(leaf.depth) + ", box " +
                             kdtree_detail::boxText(leaf.box) + ") but is not listed there";
        }
    }
    return missing;
}

// True when countMissing finds nothing; otherwise *why names the first miss and the total.
inline bool everyTriangleReachable(const TreeInfo& info, const float* vertices,
                                   const int* triangles, int triangleCount, std::string* why)
{
    std::string first;
    const long long missing = countMissing(info, vertices, triangles, triangleCount, &first);
    if (missing == 0) return true;
    if (why)
        *why = missing < 0 ? first : first + " (" + std::to_string(missing) + " misses in all)";
    return false;
}

}  // namespace vlkr::test
