// The 8-byte k-d tree node: how the builder writes each kind of node and how the walks and
// the tree checks read it back, side by side so that the two sides cannot drift apart.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "vlkr.h"

namespace vlkr::raytrace {

// The largest depth a build accepts, the root being at depth 0, so no path from the root
// passes more inner nodes than this. The walks push at most one stack entry per inner node
// on their path, and size their stacks by it.
constexpr unsigned kMaxTreeDepth = 50;

// Inner nodes keep the split axis in the low bits of link: the child offset is a multiple of
// the 8-byte node, so those bits are free.
constexpr std::int32_t kAxisMask = 3;
// What is left of an inner node's link once the axis is masked off: the byte offset of the
// child pair.
constexpr std::int32_t kChildOffsetMask = ~7;
// A list leaf's link is minus the byte offset of its list, read with the two low bits
// cleared, as the public header documents it.
constexpr std::int32_t kListOffsetMask = ~3;
// Compact leaves set the sign bit of both words: link < 0 marks a leaf, data < 0 the form.
constexpr std::uint32_t kCompactBit = 0x80000000u;
// A compact leaf's triangle count, 1 to 3, sits in the two low bits of data.
constexpr int kCompactCountBits = 2;
constexpr std::int32_t kCompactCountMask = (1 << kCompactCountBits) - 1;
// The rest of data below the sign bit holds the second triangle number, the middle one of
// three; the first of one or two takes link's 31 bits.
constexpr std::uint32_t kCompactMiddleMask = 0x7FFFFFFFu & ~std::uint32_t(kCompactCountMask);
constexpr std::uint32_t kCompactMiddleLimit = 1u << (31 - kCompactCountBits);
// Three triangles share link's 31 bits as the distances below and above the middle one.
constexpr int kCompactAboveBits = 16;
constexpr std::uint32_t kCompactBelowLimit = 1u << (31 - kCompactAboveBits);
constexpr std::uint32_t kCompactAboveLimit = 1u << kCompactAboveBits;
constexpr std::uint32_t kCompactAboveMask = kCompactAboveLimit - 1;

// ---------------------------------------------------------------------------------------
// Encoding, as the builders write the nodes

// A leaf that lists nothing; the link marks it a leaf and is never followed.
inline KDTreeNode emptyLeaf() noexcept { return KDTreeNode{INT_MIN, 0}; }

// An inner node whose children lie `pairOffset` bytes on, a multiple of the node size.
inline KDTreeNode innerNode(std::int32_t pairOffset, int axis, float split) noexcept
{
    KDTreeNode node;
    node.link = pairOffset | axis;
    std::memcpy(&node.data, &split, 4);
    return node;
}

// A leaf whose `count` triangle numbers start `listOffset` bytes after it.
inline KDTreeNode listLeaf(std::int32_t listOffset, int count) noexcept
{
    return KDTreeNode{-listOffset, count};
}

// Two triangle numbers of a leaf's list, stored as one node's worth of words.
inline KDTreeNode listPair(int first, int second) noexcept { return KDTreeNode{first, second}; }

// Packs one to three sorted triangle numbers into the leaf itself; false when they do not
// fit and the leaf needs a list.
inline bool compactLeaf(const int* tris, std::size_t n, KDTreeNode& node) noexcept
{
    auto compact = [&node](std::uint32_t link, std::uint32_t data) {
        node = KDTreeNode{static_cast<int>(link), static_cast<int>(data)};
        return true;
    };
    const std::uint32_t t0 = std::uint32_t(tris[0]);
    if (n == 1) return compact(kCompactBit | t0, kCompactBit | 1u);
    if (n == 2 && std::uint32_t(tris[1]) < kCompactMiddleLimit)
        return compact(kCompactBit | t0,
                       kCompactBit | std::uint32_t(tris[1]) << kCompactCountBits | 2u);
    if (n == 3) {
        const std::uint32_t m = std::uint32_t(tris[1]);
        const std::uint32_t below = m - t0, above = std::uint32_t(tris[2]) - m;
        if (m < kCompactMiddleLimit && below < kCompactBelowLimit && above < kCompactAboveLimit)
            return compact(kCompactBit | below << kCompactAboveBits | above,
                           kCompactBit | m << kCompactCountBits | 3u);
    }
    return false;
}

// ---------------------------------------------------------------------------------------
// Decoding, as the walks and the tree checks read the nodes

inline bool isInner(const KDTreeNode* node) noexcept { return node->link >= 0; }
inline int splitAxis(const KDTreeNode* node) noexcept { return node->link & kAxisMask; }

inline float splitOf(const KDTreeNode* node) noexcept
{
    float s;
    std::memcpy(&s, &node->data, 4);
    return s;
}

// Byte offset from an inner node to its pair of children.
inline std::int32_t childPairOffset(const KDTreeNode* node) noexcept
{
    return node->link & kChildOffsetMask;
}

// A list leaf's list lies this many bytes before the node: the number is negative, as the
// list follows it.
inline std::int32_t listBackOffset(const KDTreeNode* node) noexcept
{
    return node->link & kListOffsetMask;
}

// The triangle numbers of a compact leaf (data < 0) into `tris`; returns how many.
inline int compactLeafTriangles(const KDTreeNode* node, int tris[3]) noexcept
{
    const std::uint32_t k = std::uint32_t(node->link) & ~kCompactBit;
    const std::uint32_t m = (std::uint32_t(node->data) & kCompactMiddleMask) >> kCompactCountBits;
    const int count = node->data & kCompactCountMask;
    if (count == 1) {
        tris[0] = int(k);
    } else if (count == 2) {
        tris[0] = int(k);
        tris[1] = int(m);
    } else if (count == 3) {
        tris[0] = int(m - (k >> kCompactAboveBits));
        tris[1] = int(m);
        tris[2] = int(m + (k & kCompactAboveMask));
    }
    return count;
}

inline const KDTreeNode* childPair(const KDTreeNode* node) noexcept
{
    return reinterpret_cast<const KDTreeNode*>(reinterpret_cast<const char*>(node) +
                                               childPairOffset(node));
}

// The triangle numbers of a leaf: a pointer into the tree, or into `local` for the forms
// that hold up to three numbers in the node itself.
inline int leafTriangles(const KDTreeNode* node, int local[3], const int** list) noexcept
{
    const int data = node->data;
    if (data == 0) return 0;
    if (data > 0) {
        *list = reinterpret_cast<const int*>(reinterpret_cast<const char*>(node) -
                                             listBackOffset(node));
        return data;
    }
    const int count = compactLeafTriangles(node, local);
    *list = local;
    return count;
}

}  // namespace vlkr::raytrace
