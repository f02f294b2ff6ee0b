// K-d tree build: argument checks, the one-leaf tree, SAH tree soundness, and the memory budget.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kdtree_decode.h"
#include "test_mesh.h"
#include "vlkcore_testing.h"
#include "vlkr.h"

namespace {

using vlkr::test::buildTree;
using vlkr::test::Mesh;

constexpr unsigned kMiB = 1u << 20;

KDTreeBuildContext sah(unsigned memory = 256, float quality = 1.0f, unsigned depth = 50,
                       const float* box = nullptr)
{
    return KDTreeBuildContext{KDTreeBuildSAH, depth, quality, memory, box};
}

KDTreeBuildContext simple(unsigned depth = 50)
{
    return KDTreeBuildContext{KDTreeBuildSimple, depth, 0.0f, 0, nullptr};
}

// Builds with allocation call `failAt` made to fail (0: none) and checks the accounting: a SAH
// build peaks within its budget and on success leaves only the tree, which is freed; a failure
// leaves the outputs untouched and nothing allocated. *calls gets the allocation calls made.
vlkStatus trackedBuild(const Mesh& m, const KDTreeBuildContext& p, long long failAt = 0,
                       long long* calls = nullptr)
{
    vlkTestResetAllocations();
    vlkTestFailAllocationAt(failAt);
    const long long base = vlkTestLiveBytes();
    KDTreeNode* tree = reinterpret_cast<KDTreeNode*>(0x99);
    int size = -5;
    const vlkStatus st = buildTree(m, p, &tree, &size);
    if (calls) *calls = vlkTestAllocationCalls();
    const bool budgeted = p.mode == KDTreeBuildSAH;
    EXPECT_LE(vlkTestPeakBytes() - base, budgeted ? p.memory * (long long)kMiB : LLONG_MAX);
    if (st == vlkStatusOk) {
        EXPECT_TRUE(!budgeted || vlkTestLiveBytes() - base == size) << "only the tree stays";
        vlkrKDTreeFree(tree);
    } else {
        EXPECT_EQ(tree, reinterpret_cast<KDTreeNode*>(0x99)) << "failing call " << failAt;
        EXPECT_EQ(size, -5) << "failing call " << failAt;
    }
    EXPECT_EQ(vlkTestLiveBytes(), base) << "failing call " << failAt;
    vlkTestResetAllocations();
    return st;
}

// ------------------------------------------------------------------------- argument checks

TEST(KDTreeChecks, EachBadArgumentInOrderAndTheLimits)
{
    std::mt19937 rng(5);
    const Mesh m = vlkr::test::randomSoup(rng, 40);
    const float* v = m.vertices.data();
    const int* t = m.triangles.data();
    KDTreeNode* tree = reinterpret_cast<KDTreeNode*>(0x1234);
    int size = -77;
    const KDTreeBuildContext ok = sah(), bad = sah(0, 2.0f, 99);
    const KDTreeBuildContext unknown{0x12345678u, 50, 1.0f, 256, nullptr};
    // Each call fails with `want` and writes nothing.
    auto expect = [&](const char* what, KDTreeNode** tr, const float* vv, const int* tt, int nv,
                      int nt, int* sz, const KDTreeBuildContext* p, vlkStatus want) {
        EXPECT_EQ(vlkrKDTreeBuildAlloc(tr, vv, tt, nv, nt, sz, p), want) << what;
        EXPECT_EQ(tree, reinterpret_cast<KDTreeNode*>(0x1234)) << what;
        EXPECT_EQ(size, -77) << what;
    };
    expect("null tree out, negative counts", nullptr, v, t, -1, -1, &size, &bad, vlkStatusNullPtr);
    expect("null vertices", &tree, nullptr, t, 3, 1, &size, &ok, vlkStatusNullPtr);
    expect("null triangles", &tree, v, nullptr, 3, 1, &size, &ok, vlkStatusNullPtr);
    expect("null size out", &tree, v, t, 3, 1, nullptr, &ok, vlkStatusNullPtr);
    expect("negative vertices before null params", &tree, v, t, -1, 1, &size, nullptr,
           vlkStatusSize);
    expect("negative triangles", &tree, v, t, 3, -1, &size, &ok, vlkStatusSize);
    expect("null params", &tree, v, t, 3, 1, &size, nullptr, vlkStatusNullPtr);
    expect("unknown mode", &tree, v, t, 3, 1, &size, &unknown, vlkStatusBadArg);
    expect("depth before quality and memory", &tree, v, t, 3, 1, &size, &bad, vlkStatusOutOfRange);

    // The limits on depth, quality and memory.
    for (unsigned depth : {51u, 0x80000000u}) {
        EXPECT_EQ(trackedBuild(m, simple(depth)), vlkStatusOutOfRange);
        EXPECT_EQ(trackedBuild(m, sah(256, 1.0f, depth)), vlkStatusOutOfRange);
    }
    for (float q : {-0.0001f, 1.0001f, -INFINITY, INFINITY})
        EXPECT_EQ(trackedBuild(m, sah(256, q)), vlkStatusOutOfRange) << q;
    for (float q : {0.0f, 1.0f, 0.5f, NAN}) EXPECT_EQ(trackedBuild(m, sah(256, q)), vlkStatusOk);
    EXPECT_EQ(trackedBuild(m, simple(50)), vlkStatusOk);

    // 31 MB fails the 32 MB floor; 32 MB fails the size formula (33,554,912 bytes at least);
    // 4096 and 8192 MB wrap to 0 in 32 bits.
    for (unsigned mb : {0u, 31u, 32u, 4096u, 8192u})
        EXPECT_EQ(trackedBuild(m, sah(mb)), vlkStatusNoMemory) << mb;
    EXPECT_EQ(trackedBuild(m, sah(33)), vlkStatusOk);
    // The formula grows with the mesh: 52 bytes a triangle and 12 a vertex.
    rng.seed(1);
    const Mesh big = vlkr::test::randomSoup(rng, 20000);  // needs 35,314,912 bytes
    EXPECT_EQ(trackedBuild(big, sah(33)), vlkStatusNoMemory);
    EXPECT_EQ(trackedBuild(big, sah(34)), vlkStatusOk);
}

// ------------------------------------------------------------------------- one-leaf tree

TEST(KDTreeSimple, LayoutIsExact)
{
    for (int t : {0, 1, 2, 7, 1000}) {
        const std::vector<int> tri(4 * std::max(t, 1), 0);
        const float v[3] = {0, 0, 0};
        KDTreeNode* tree = nullptr;
        int size = -1;
        const KDTreeBuildContext p = simple();
        ASSERT_EQ(vlkrKDTreeBuildAlloc(&tree, v, tri.data(), t ? 1 : 0, t, &size, &p), vlkStatusOk);
        ASSERT_EQ(size, 4 * t + 16);
        std::vector<int> want = {int(0xFFFFFFF0u), t, 0, 0};  // the leaf, its list after it
        for (int i = 0; i < t; ++i) want.push_back(i);
        const int* words = reinterpret_cast<const int*>(tree);
        EXPECT_EQ(std::vector<int>(words, words + size / 4), want);
        EXPECT_EQ(vlkrKDTreeFree(tree), vlkStatusOk);
    }
}

// ------------------------------------------------------------------------- SAH trees

// Builds m with p and decodes the tree against the mesh: valid within p's depth, and every
// triangle listed in every leaf it crosses. *hash gets a hash of the tree's bytes.
vlkr::test::TreeInfo soundTree(const Mesh& m, const KDTreeBuildContext& p, const std::string& what,
                               std::uint32_t* hash = nullptr)
{
    KDTreeNode* tree = nullptr;
    int size = 0;
    EXPECT_EQ(buildTree(m, p, &tree, &size), vlkStatusOk) << what;
    if (!tree) return {};
    float box[6];
    vlkrSetBoundBox_32f(m.vertices.data(), m.vertexCount(), box);
    if (p.pBound) std::copy(p.pBound, p.pBound + 6, box);
    const auto info = vlkr::test::decodeTree(tree, size, box, m.triangleCount(), int(p.depth),
                                             m.vertices.data(), m.triangles.data());
    EXPECT_TRUE(info.valid) << what << ": " << info.error;
    const auto* bytes = reinterpret_cast<const unsigned char*>(tree);
    for (int i = 0; hash && i < size; ++i) *hash = (*hash ^ bytes[i]) * 16777619u;
    vlkrKDTreeFree(tree);
    return info;
}

TEST(KDTreeSah, TreesAreValidListEveryCrossedTriangleAndGiveTheirRecordedBytes)
{
    // Every plane, leaf and list of the build is fixed by its costs and rules, so one hash of
    // all the trees' bytes pins them (the meshes come from libstdc++'s distributions).
    std::mt19937 rng(31337);
    std::pair<const char*, Mesh> meshes[] = {
        {"soup", vlkr::test::randomSoup(rng, 3000, 20.0f)},
        {"terrain", vlkr::test::randomTerrain(rng, 40)},
        {"sphere", vlkr::test::sphere(24, 48)},
        {"flats", vlkr::test::axisAlignedFlats(rng, 2000)},
        {"duplicates", vlkr::test::randomTerrain(rng, 20)},
    };
    vlkr::test::addDuplicatesAndDegenerates(rng, meshes[4].second, 300);
    std::uint32_t hash = 2166136261u;
    for (const auto& [name, mesh] : meshes) {
        for (float q : {1.0f, 0.5f, 0.0f})
            soundTree(mesh, sah(256, q), std::string(name) + " q=" + std::to_string(q), &hash);
        soundTree(mesh, sah(256, 1.0f, 6), std::string(name) + " depth 6", &hash);
        EXPECT_EQ(soundTree(mesh, sah(256, 1.0f, 0), std::string(name) + " depth 0").leaves, 1);
    }
    // A caller's box that cuts through a soup trims the triangles to it.
    std::mt19937 rng8(8);
    const float box[6] = {-4.0f, -3.0f, -10.0f, 5.0f, 2.5f, 1.0f};
    soundTree(vlkr::test::randomSoup(rng8, 2000), sah(256, 1.0f, 50, box), "trimmed", &hash);
    EXPECT_EQ(hash, 1861356542u);
}

TEST(KDTreeSah, EmptySpaceIsCutOffFirstAndDegeneratesLeftOut)
{
    // The caller's box leaves 12% of its x extent empty below the soup: the root cuts it off.
    std::mt19937 rng(6);
    const Mesh m = vlkr::test::randomSoup(rng, 500, 10.0f);
    float box[6], lowest = INFINITY;
    vlkrSetBoundBox_32f(m.vertices.data(), m.vertexCount(), box);
    for (int i = 0; i < m.vertexCount(); ++i) lowest = std::min(lowest, m.vertices[3 * i]);
    box[0] = (lowest - 0.12f * box[3]) / 0.88f;
    const auto info = soundTree(m, sah(256, 1.0f, 50, box), "12% empty");
    ASSERT_GT(info.leaves, 1);
    EXPECT_TRUE(info.leafList[0].triangles.empty());
    EXPECT_EQ(info.leafList[0].box[3], lowest);

    // Two real triangles and one with a repeated corner: only the real ones are listed.
    Mesh three;
    three.vertices = {0, 0, 0, 1, 0, 0, 0, 1, 0, 5, 5, 5, 6, 5, 5, 5, 6, 5};
    three.triangles = {0, 1, 2, 0, 3, 3, 4, 0, 3, 4, 5, 0};
    for (const auto& leaf : soundTree(three, sah(), "degenerate").leafList)
        for (int t : leaf.triangles) EXPECT_NE(t, 1);
}

// A triangle with a corner that is not a number can never be hit: it is left out like a
// degenerate one, and no plane lands at an infinite position because of it (found by fuzzing:
// its clipped bounds came out NaN and were kept).
TEST(KDTreeSah, TrianglesWithANaNCornerAreLeftOut)
{
    Mesh m;
    m.vertices = {NAN, NAN, NAN, -10.0f, -7.25f, 6.75f, -7.0f, 4.5f, 7.75f, -8.0f, 0.0f, 7.0f};
    m.triangles = {0, 1, 2, 0, 2, 2, 1, 0, 1, 2, 2, 0};
    for (const auto& leaf : soundTree(m, sah(33, 0.75f, 23), "NaN corner only").leafList)
        EXPECT_TRUE(leaf.triangles.empty());
    m.triangles.insert(m.triangles.end(), {1, 2, 3, 0});
    for (const auto& leaf : soundTree(m, sah(33, 0.75f, 23), "NaN corner and one").leafList)
        for (int t : leaf.triangles) EXPECT_EQ(t, 3);
}

// ------------------------------------------------------------------------- memory budget

TEST(KDTreeBudget, PeakLiveBytesStayWithinTheBudgetAndAnExhaustedAccountIsMemAlloc)
{
    std::mt19937 rng(4);
    for (int n : {10, 200, 5000, 40000}) {
        const Mesh m = vlkr::test::randomSoup(rng, n, 30.0f);
        const unsigned needed = 52u * unsigned(n) + 12u * unsigned(m.vertexCount()) + 33554912u;
        for (unsigned mb : {needed / kMiB + 1, needed / kMiB + 40}) {
            const vlkStatus st = trackedBuild(m, sah(mb));
            EXPECT_TRUE(st == vlkStatusOk || st == vlkStatusMemAlloc) << n << " tris, " << mb;
        }
    }
    // Needles need several growth steps: too little budget for them fails mid-build.
    rng.seed(3);
    const Mesh m = vlkr::test::needles(rng, 36000);  // a tree of about 20 MB
    EXPECT_EQ(trackedBuild(m, sah(36)), vlkStatusMemAlloc);
}

// Builds m with a budget of `mb` megabytes and returns the hash of the tree's bytes; *calls
// gets the allocation calls made.
std::uint32_t treeHash(const Mesh& m, unsigned mb, long long* calls)
{
    vlkTestResetAllocations();
    KDTreeNode* tree = nullptr;
    int size = 0;
    EXPECT_EQ(buildTree(m, sah(mb), &tree, &size), vlkStatusOk) << mb << " MB";
    *calls = vlkTestAllocationCalls();
    std::uint32_t hash = 2166136261u;
    const auto* bytes = reinterpret_cast<const unsigned char*>(tree);
    for (int i = 0; tree && i < size; ++i) hash = (hash ^ bytes[i]) * 16777619u;
    vlkrKDTreeFree(tree);
    vlkTestResetAllocations();
    return hash;
}

TEST(KDTreeBudget, SortedListsAndPerNodeSortsGiveTheSameTree)
{
    // 20,000 triangles need 35,314,912 bytes. At 34 MB the budget has no room for the sorted
    // lists and every node sorts its own; one megabyte more opens the list arena, which the
    // finished tree's allocation count shows.
    std::mt19937 rng(21);
    const Mesh soup = vlkr::test::randomSoup(rng, 20000, 30.0f);
    long long perNodeCalls = 0, listCalls = 0, bigCalls = 0;
    const std::uint32_t perNode = treeHash(soup, 34, &perNodeCalls);
    EXPECT_EQ(treeHash(soup, 35, &listCalls), perNode);
    EXPECT_EQ(listCalls, perNodeCalls + 1) << "the list arena is one more block";
    EXPECT_EQ(treeHash(soup, 256, &bigCalls), perNode);
    EXPECT_EQ(bigCalls, listCalls);

    // Needles straddle many planes: their subtrees outgrow the list arena and go on sorting
    // per node, and at 55 MB the arena leaves the nodes too little, so the build starts again
    // without it. All three trees are the same.
    std::mt19937 rng3(3);
    const Mesh needles = vlkr::test::needles(rng3, 36000);
    long long calls = 0;
    const std::uint32_t restarted = treeHash(needles, 55, &calls);
    EXPECT_EQ(treeHash(needles, 68, &calls), restarted);
    EXPECT_EQ(treeHash(needles, 256, &calls), restarted);
}

TEST(KDTreeBudget, EveryAllocationFailureReleasesEverything)
{
    // The soup makes each first allocation once: four candidate lists, the reference arena,
    // the node storage, the sorted-list arena and the finished tree. The needles also grow
    // their storage, so their last calls are a growth step and the finished tree; the earlier
    // ones repeat the soup's.
    std::mt19937 rng(12);
    const Mesh soup = vlkr::test::randomSoup(rng, 3000, 20.0f);
    std::mt19937 rng3(3);
    const Mesh needles = vlkr::test::needles(rng3, 36000);
    const struct {
        const Mesh& mesh;
        unsigned mb;
        long long firstCall, leastCalls;
    } cases[] = {{soup, 40, 1, 8}, {needles, 68, 7, 9}};
    for (const auto& c : cases) {
        long long calls = 0;
        ASSERT_EQ(trackedBuild(c.mesh, sah(c.mb), 0, &calls), vlkStatusOk);
        ASSERT_GE(calls, c.leastCalls) << "the needles grow their storage";
        for (long long fail = c.firstCall; fail <= calls; ++fail)
            EXPECT_EQ(trackedBuild(c.mesh, sah(c.mb), fail), vlkStatusMemAlloc) << "call " << fail;
    }
    // The one-leaf tree makes one allocation, and its failure is NoMemory.
    EXPECT_EQ(trackedBuild(soup, simple(), 1), vlkStatusNoMemory);
    // A one-leaf tree of 2^31 bytes or more cannot be allocated at all: NoMemory, with no
    // allocation tried and nothing written. 536870906 triangles are the fewest that need it.
    for (int t : {536870906, INT_MAX}) {
        const float v[3] = {};
        const int tri[4] = {};
        KDTreeNode* tree = reinterpret_cast<KDTreeNode*>(0x99);
        int size = -5;
        const KDTreeBuildContext p = simple();
        vlkTestResetAllocations();
        EXPECT_EQ(vlkrKDTreeBuildAlloc(&tree, v, tri, 1, t, &size, &p), vlkStatusNoMemory) << t;
        EXPECT_EQ(vlkTestAllocationCalls(), 0);
        EXPECT_EQ(tree, reinterpret_cast<KDTreeNode*>(0x99));
        EXPECT_EQ(size, -5);
    }
}

}  // namespace
