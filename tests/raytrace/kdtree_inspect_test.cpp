// The k-d tree inspector against hand-built tree blocks, so tree tests can trust what it decodes.
#include "kdtree_inspect.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "test_mesh.h"
#include "vlkr.h"

namespace {

using vlkr::test::bitsOf;
using vlkr::test::countMissing;
using vlkr::test::everyTriangleReachable;
using vlkr::test::TreeInfo;

const float kUnitBox[6] = {0, 0, 0, 1, 1, 1};

// Blocks are written as 32-bit words: two per node, one per listed triangle.
TreeInfo inspect(const std::vector<int>& w, int triangleCount, int maxDepth = 50,
                 const float* box = kUnitBox)
{
    return vlkr::test::inspectTree(reinterpret_cast<const KDTreeNode*>(w.data()),
                                   static_cast<int>(4 * w.size()), box, triangleCount, maxDepth);
}

int leafLink(int k)
{
    return static_cast<int>(0x80000000u | unsigned(k));
}
int compact(int count, int m)
{
    return static_cast<int>(0x80000000u | unsigned(m) << 2 | unsigned(count));
}
int splitWord(float s)
{
    return static_cast<int>(bitsOf(s));
}

// Split on y at 0.25: below, a compact leaf of triangle 7; above, one of 10 - 2, 10, 10 + 3.
std::vector<int> splitTree()
{
    return {8 | 1,         splitWord(0.25f),      leafLink(7),
            compact(1, 0), leafLink(2 << 16 | 3), compact(3, 10)};
}

TEST(KDTreeInspect, OneLeafTree)
{
    const std::vector<int> list = {4, 2, 0, 1, 3};
    std::vector<int> w = {-16, 5, 0, 0};  // the list starts 16 bytes after the root
    w.insert(w.end(), list.begin(), list.end());
    const TreeInfo info = inspect(w, 5);
    ASSERT_TRUE(info.valid) << info.error;
    EXPECT_EQ(info.innerNodes, 0);
    EXPECT_EQ(info.leaves, 1);
    EXPECT_EQ(info.emptyLeaves, 0);
    EXPECT_EQ(info.maxDepth, 0);
    EXPECT_EQ(info.triangleRefs, 5);
    EXPECT_DOUBLE_EQ(info.sahCost, 5.0);
    ASSERT_EQ(info.leafList.size(), 1u);
    EXPECT_EQ(info.leafList[0].triangles, list);
    for (int a = 0; a < 6; ++a) EXPECT_EQ(info.leafList[0].box[a], kUnitBox[a]);
    w.pop_back();  // one word short of the reported size
    EXPECT_FALSE(inspect(w, 5).valid);
}

TEST(KDTreeInspect, EmptyTreeUnderAnInvertedBox)
{
    const float inverted[6] = {FLT_MAX, FLT_MAX, FLT_MAX, -FLT_MAX, -FLT_MAX, -FLT_MAX};
    const TreeInfo info = inspect({-16, 0, 0, 0}, 0, 50, inverted);
    ASSERT_TRUE(info.valid) << info.error;
    EXPECT_EQ(info.leaves, 1);
    EXPECT_EQ(info.emptyLeaves, 1);
    EXPECT_EQ(info.triangleRefs, 0);
    EXPECT_EQ(info.sahCost, 0.0);
}

TEST(KDTreeInspect, SplitWithCompactLeaves)
{
    const TreeInfo info = inspect(splitTree(), 20);
    ASSERT_TRUE(info.valid) << info.error;
    EXPECT_EQ(info.innerNodes, 1);
    EXPECT_EQ(info.maxDepth, 1);
    ASSERT_EQ(info.leafList.size(), 2u);
    EXPECT_EQ(info.leafList[0].triangles, std::vector<int>({7}));
    EXPECT_EQ(info.leafList[1].triangles, std::vector<int>({8, 10, 13}));
    EXPECT_EQ(info.leafList[0].box[4], 0.25f);
    EXPECT_EQ(info.leafList[1].box[1], 0.25f);
    EXPECT_EQ(info.leafList[1].box[4], 1.0f);
    EXPECT_DOUBLE_EQ(info.sahCost, 1.0 + 1 * 3.0 / 6 + 3 * 5.0 / 6);  // areas 3 and 5 of 6
}

TEST(KDTreeInspect, PairLeafListLeafAndEmptyLeaf)
{
    // Split x; below it a split z (bit 2 of its link set, which is not read) over a compact
    // pair and an empty leaf; above it a list of two at byte 40.
    const std::vector<int> w = {8,           splitWord(0.5f),
                                16 | 4 | 2,  splitWord(0.5f),
                                -24,         2,
                                leafLink(5), compact(2, 6),
                                leafLink(0), 0,
                                11,          12};
    const TreeInfo info = inspect(w, 13);
    ASSERT_TRUE(info.valid) << info.error;
    ASSERT_EQ(info.leafList.size(), 3u);
    EXPECT_EQ(info.leafList[0].triangles, std::vector<int>({5, 6}));
    EXPECT_TRUE(info.leafList[1].triangles.empty());
    EXPECT_EQ(info.leafList[2].triangles, std::vector<int>({11, 12}));
    EXPECT_EQ(info.leafList[0].depth, 2);
    EXPECT_EQ(info.leafList[2].depth, 1);
    EXPECT_EQ(info.leafList[1].box[2], 0.5f);
    EXPECT_EQ(info.emptyLeaves, 1);
    EXPECT_EQ(info.triangleRefs, 4);
}

TEST(KDTreeInspect, MalformedTreesAreRejected)
{
    using Change = std::function<void(std::vector<int>&)>;
    const struct {
        const char* what;
        Change change;
        const char* says;
    } cases[] = {
        {"children out of range", [](auto& w) { w[0] = 64 | 1; }, "past the end"},
        {"split axis 3", [](auto& w) { w[0] = 8 | 3; }, "axis 3"},
        {"triangle out of range", [](auto& w) { w[2] = leafLink(20); }, "triangle 20"},
        {"negative triangle", [](auto& w) { w[4] = leafLink(11 << 16 | 3); }, "triangle -1"},
        {"compact leaf of none", [](auto& w) { w[5] = compact(0, 10); }, "zero triangles"},
        {"split outside the box", [](auto& w) { w[1] = splitWord(1.5f); }, "outside its box"},
        {"NaN split", [](auto& w) { w[1] = splitWord(NAN); }, "non-finite"},
        // Child offsets are positive, so the only possible loop is a node naming itself.
        {"cycle", [](auto& w) { w[0] = 0 | 1; }, "itself"},
        {"shared subtree",
         [](auto& w) {
             w[2] = 8 | 1;  // the node at 8 splits too, onto the nodes at 16 and 24
             w[3] = splitWord(0.1f);
             w.insert(w.end(), {leafLink(1), compact(1, 0)});
         },
         "reached twice"},
        {"list inside its node", [](auto& w) { w[2] = -4, w[3] = 1; }, "inside itself"},
        {"list over a node", [](auto& w) { w[2] = -12, w[3] = 1, w[5] = 0; }, "overlaps the node"},
    };
    for (const auto& c : cases) {
        std::vector<int> w = splitTree();
        c.change(w);
        const TreeInfo info = inspect(w, 20);
        EXPECT_FALSE(info.valid) << c.what;
        EXPECT_NE(info.error.find(c.says), std::string::npos) << c.what << ": " << info.error;
    }
    const TreeInfo shallow = inspect(splitTree(), 20, 0);
    EXPECT_FALSE(shallow.valid);
    EXPECT_NE(shallow.error.find("deeper than 0"), std::string::npos) << shallow.error;
}

TEST(KDTreeInspect, ReachabilityFollowsGeometry)
{
    const float box[6] = {-1, -1, -1, 1, 1, 1};
    vlkr::test::Mesh m;
    auto add = [&m](std::initializer_list<float> corners) {
        const int first = m.vertexCount();
        m.vertices.insert(m.vertices.end(), corners);
        m.triangles.insert(m.triangles.end(), {first, first + 1, first + 2, -1});
    };
    add({-.5f, -.5f, 0, .5f, -.5f, 0, 0, .5f, .2f});  // 0 crosses x = 0
    add({0, -.5f, -.5f, 0, .5f, -.5f, 0, 0, .5f});    // 1 lies in x = 0: either side will do
    add({0, 0, 0, .5f, .2f, .1f, .5f, -.2f, .3f});    // 2 touches x = 0 at a corner only
    add({-.5f, 0, 0, -.5f, 0, 0, -.5f, 0, 0});        // 3 degenerate: needed nowhere
    add({2, 2, 2, 3, 2, 2, 2, 3, 2});                 // 4 outside the root box
    // Split x at 0 into a list {0, 1} below and a list {0, 2} above.
    std::vector<int> w = {8, splitWord(0.0f), -16, 2, -16, 2, 0, 1, 0, 2};
    std::string why;
    TreeInfo info = inspect(w, 5, 50, box);
    ASSERT_TRUE(info.valid) << info.error;
    EXPECT_TRUE(everyTriangleReachable(info, m.vertices.data(), m.triangles.data(), 5, &why))
        << why;

    w[8] = 1;  // 0 left out above
    info = inspect(w, 5, 50, box);
    EXPECT_FALSE(everyTriangleReachable(info, m.vertices.data(), m.triangles.data(), 5, &why));
    EXPECT_NE(why.find("triangle 0 crosses leaf 1"), std::string::npos) << why;
    w[9] = 1;  // 2 left out above as well
    info = inspect(w, 5, 50, box);
    EXPECT_EQ(countMissing(info, m.vertices.data(), m.triangles.data(), 5), 2);
}

}  // namespace
