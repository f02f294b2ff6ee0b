// K-d tree build: argument checks, the one-leaf tree, SAH tree validity, and the memory budget.
#include <climits>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kdtree_decode.h"
#include "test_mesh.h"
#include "vlkcore_testing.h"
#include "vlkr.h"

namespace {

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

vlkStatus build(const Mesh& m, const KDTreeBuildContext& p, KDTreeNode** tree, int* size)
{
    return vlkrKDTreeBuildAlloc(tree, m.vertices.data(), m.triangles.data(), m.vertexCount(),
                                m.triangleCount(), size, &p);
}

Mesh smallMesh()
{
    std::mt19937 rng(5);
    return vlkr::test::randomSoup(rng, 40);
}

// ------------------------------------------------------------------------- argument checks

TEST(KDTreeChecks, EachBadArgumentInOrder)
{
    const Mesh m = smallMesh();
    const float* v = m.vertices.data();
    const int* t = m.triangles.data();
    KDTreeNode* tree = reinterpret_cast<KDTreeNode*>(0x1234);
    int size = -77;
    const KDTreeBuildContext ok = sah(), bad = sah(0, 2.0f, 99);
    const KDTreeBuildContext unknown{0x12345678u, 50, 1.0f, 256, nullptr};
    const struct {
        const char* what;
        KDTreeNode** tree;
        const float* v;
        const int* t;
        int nv, nt;
        int* size;
        const KDTreeBuildContext* p;
        vlkStatus want;
    } rows[] = {
        {"null tree out, negative counts", nullptr, v, t, -1, -1, &size, &bad, vlkStatusNullPtr},
        {"null vertices", &tree, nullptr, t, 3, 1, &size, &ok, vlkStatusNullPtr},
        {"null triangles", &tree, v, nullptr, 3, 1, &size, &ok, vlkStatusNullPtr},
        {"null size out", &tree, v, t, 3, 1, nullptr, &ok, vlkStatusNullPtr},
        {"negative vertices before null params", &tree, v, t, -1, 1, &size, nullptr,
         vlkStatusSize},
        {"negative triangles", &tree, v, t, 3, -1, &size, &ok, vlkStatusSize},
        {"null params", &tree, v, t, 3, 1, &size, nullptr, vlkStatusNullPtr},
        {"unknown mode", &tree, v, t, 3, 1, &size, &unknown, vlkStatusBadArg},
        {"depth before quality and memory", &tree, v, t, 3, 1, &size, &bad,
         vlkStatusOutOfRange},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(vlkrKDTreeBuildAlloc(r.tree, r.v, r.t, r.nv, r.nt, r.size, r.p), r.want)
            << r.what;
        EXPECT_EQ(tree, reinterpret_cast<KDTreeNode*>(0x1234)) << r.what;
        EXPECT_EQ(size, -77) << r.what;
    }
}

TEST(KDTreeChecks, DepthAndQualityLimits)
{
    const Mesh m = smallMesh();
    KDTreeNode* tree = nullptr;
    int size = 0;
    for (unsigned depth : {51u, 0x80000000u}) {
        EXPECT_EQ(build(m, simple(depth), &tree, &size), vlkStatusOutOfRange);
        EXPECT_EQ(build(m, sah(256, 1.0f, depth), &tree, &size), vlkStatusOutOfRange);
    }
    for (float q : {-0.0001f, 1.0001f, -INFINITY, INFINITY})
        EXPECT_EQ(build(m, sah(256, q), &tree, &size), vlkStatusOutOfRange) << q;
    for (float q : {0.0f, 1.0f, 0.5f, NAN}) {
        ASSERT_EQ(build(m, sah(256, q), &tree, &size), vlkStatusOk) << q;
        vlkrKDTreeFree(tree);
    }
    ASSERT_EQ(build(m, sah(256, 1.0f, 50), &tree, &size), vlkStatusOk);
    vlkrKDTreeFree(tree);
    ASSERT_EQ(build(m, simple(50), &tree, &size), vlkStatusOk);
    vlkrKDTreeFree(tree);
}

TEST(KDTreeChecks, MemoryBudgetEdges)
{
    const Mesh m = smallMesh();
    KDTreeNode* tree = nullptr;
    int size = 0;
    // 31 MB fails the 32 MB floor; 32 MB fails the size formula (33,554,912 bytes at least);
    // 4096 and 8192 MB wrap to 0 in 32 bits.
    for (unsigned mb : {0u, 31u, 32u, 4096u, 8192u})
        EXPECT_EQ(build(m, sah(mb), &tree, &size), vlkStatusNoMemory) << mb;
    ASSERT_EQ(build(m, sah(33), &tree, &size), vlkStatusOk);
    vlkrKDTreeFree(tree);

    // The formula grows with the mesh: 52 bytes a triangle and 12 a vertex.
    std::mt19937 rng(1);
    const Mesh big = vlkr::test::randomSoup(rng, 20000);  // needs 35,314,912 bytes
    EXPECT_EQ(build(big, sah(33), &tree, &size), vlkStatusNoMemory);
    ASSERT_EQ(build(big, sah(34), &tree, &size), vlkStatusOk);
    vlkrKDTreeFree(tree);
}

// ------------------------------------------------------------------------- one-leaf tree

TEST(KDTreeSimple, LayoutIsExact)
{
    for (int t : {0, 1, 2, 7, 1000}) {
        std::vector<int> tri(4 * std::max(t, 1), 0);
        const float v[3] = {0, 0, 0};
        KDTreeNode* tree = nullptr;
        int size = -1;
        const KDTreeBuildContext p = simple();
        ASSERT_EQ(vlkrKDTreeBuildAlloc(&tree, v, tri.data(), 1, t, &size, &p), vlkStatusOk);
        EXPECT_EQ(size, 4 * t + 16);
        const int* words = reinterpret_cast<const int*>(tree);
        EXPECT_EQ(static_cast<unsigned>(words[0]), 0xFFFFFFF0u);
        EXPECT_EQ(words[1], t);
        EXPECT_EQ(words[2], 0);
        EXPECT_EQ(words[3], 0);
        for (int i = 0; i < t; ++i) ASSERT_EQ(words[4 + i], i);
        EXPECT_EQ(vlkrKDTreeFree(tree), vlkStatusOk);
    }
}

TEST(KDTreeSimple, EmptyMeshIsOneEmptyLeaf)
{
    const float v[3] = {0, 0, 0};
    const int tri[4] = {0, 0, 0, 0};
    KDTreeNode* tree = nullptr;
    int size = 0;
    const KDTreeBuildContext p = simple();
    ASSERT_EQ(vlkrKDTreeBuildAlloc(&tree, v, tri, 0, 0, &size, &p), vlkStatusOk);
    const float box[6] = {0, 0, 0, 1, 1, 1};
    const auto info = vlkr::test::decodeTree(tree, size, box, 0);
    EXPECT_TRUE(info.valid) << info.error;
    EXPECT_EQ(size, 16);
    EXPECT_EQ(info.emptyLeaves, 1);
    vlkrKDTreeFree(tree);
}

// ------------------------------------------------------------------------- SAH trees

struct NamedMesh {
    std::string name;
    Mesh mesh;
};

std::vector<NamedMesh> variedMeshes()
{
    std::mt19937 rng(31337);
    std::vector<NamedMesh> out;
    out.push_back({"soup", vlkr::test::randomSoup(rng, 3000, 20.0f)});
    out.push_back({"terrain", vlkr::test::randomTerrain(rng, 40)});
    out.push_back({"sphere", vlkr::test::sphere(24, 48)});
    out.push_back({"flats", vlkr::test::axisAlignedFlats(rng, 2000)});
    Mesh mixed = vlkr::test::randomTerrain(rng, 20);
    vlkr::test::addDuplicatesAndDegenerates(rng, mixed, 300);
    out.push_back({"duplicates", std::move(mixed)});
    return out;
}

void expectSoundTree(const Mesh& m, const KDTreeBuildContext& p, const std::string& what)
{
    KDTreeNode* tree = nullptr;
    int size = 0;
    ASSERT_EQ(build(m, p, &tree, &size), vlkStatusOk) << what;
    float box[6];
    if (p.pBound)
        std::memcpy(box, p.pBound, sizeof box);
    else
        vlkrSetBoundBox_32f(m.vertices.data(), m.vertexCount(), box);
    const auto info = vlkr::test::decodeTree(tree, size, box, m.triangleCount(), int(p.depth));
    EXPECT_TRUE(info.valid) << what << ": " << info.error;
    std::string why;
    if (info.valid) {
        EXPECT_TRUE(vlkr::test::everyTriangleReachable(info, m.vertices.data(), m.triangles.data(),
                                                       m.triangleCount(), &why))
            << what << ": " << why;
    }
    vlkrKDTreeFree(tree);
}

TEST(KDTreeSah, TreesAreValidAndListEveryCrossedTriangle)
{
    for (const auto& nm : variedMeshes()) {
        for (float q : {1.0f, 0.5f, 0.0f})
            expectSoundTree(nm.mesh, sah(256, q), nm.name + " q=" + std::to_string(q));
        expectSoundTree(nm.mesh, sah(256, 1.0f, 6), nm.name + " depth 6");
    }
}

TEST(KDTreeSah, CallerBoxTrimsTheTriangles)
{
    std::mt19937 rng(8);
    const Mesh m = vlkr::test::randomSoup(rng, 2000, 10.0f);
    const float box[6] = {-4.0f, -3.0f, -10.0f, 5.0f, 2.5f, 1.0f};
    expectSoundTree(m, sah(256, 1.0f, 50, box), "trimmed soup");
}

TEST(KDTreeSah, DepthLimitIsHonoured)
{
    std::mt19937 rng(77);
    const Mesh m = vlkr::test::randomSoup(rng, 4000, 50.0f);
    for (unsigned depth : {0u, 1u, 3u, 12u, 50u}) {
        KDTreeNode* tree = nullptr;
        int size = 0;
        ASSERT_EQ(build(m, sah(256, 1.0f, depth), &tree, &size), vlkStatusOk);
        float box[6];
        vlkrSetBoundBox_32f(m.vertices.data(), m.vertexCount(), box);
        const auto info = vlkr::test::decodeTree(tree, size, box, m.triangleCount(), 50);
        ASSERT_TRUE(info.valid) << info.error;
        EXPECT_LE(info.maxDepth, int(depth));
        if (depth == 0) {
            EXPECT_EQ(info.leaves, 1);
        }
        vlkrKDTreeFree(tree);
    }
}

TEST(KDTreeSah, DegenerateTrianglesAreLeftOut)
{
    // Two real triangles and one with a repeated corner: only the real ones are listed.
    const float v[] = {0, 0, 0, 1, 0, 0, 0, 1, 0, 5, 5, 5, 6, 5, 5, 5, 6, 5};
    const int tri[] = {0, 1, 2, 0, 3, 3, 4, 0, 3, 4, 5, 0};
    KDTreeNode* tree = nullptr;
    int size = 0;
    const KDTreeBuildContext p = sah();
    ASSERT_EQ(vlkrKDTreeBuildAlloc(&tree, v, tri, 6, 3, &size, &p), vlkStatusOk);
    float box[6];
    vlkrSetBoundBox_32f(v, 6, box);
    const auto info = vlkr::test::decodeTree(tree, size, box, 3);
    ASSERT_TRUE(info.valid) << info.error;
    for (const auto& leaf : info.leafList)
        for (int t : leaf.triangles) EXPECT_NE(t, 1);
    vlkrKDTreeFree(tree);
}

// ------------------------------------------------------------------------- memory budget

TEST(KDTreeBudget, PeakLiveBytesStayWithinTheBudget)
{
    std::mt19937 rng(4);
    for (int n : {10, 200, 5000, 40000}) {
        const Mesh m = vlkr::test::randomSoup(rng, n, 30.0f);
        const unsigned needed = 52u * unsigned(n) + 12u * unsigned(m.vertexCount()) + 33554912u;
        for (unsigned mb : {needed / kMiB + 1, needed / kMiB + 40}) {
            vlkTestResetAllocations();
            const long long base = vlkTestLiveBytes();
            KDTreeNode* tree = nullptr;
            int size = 0;
            const vlkStatus st = build(m, sah(mb), &tree, &size);
            EXPECT_TRUE(st == vlkStatusOk || st == vlkStatusMemAlloc) << st;
            EXPECT_LE(vlkTestPeakBytes() - base, (long long)mb * kMiB) << n << " tris, " << mb;
            if (st == vlkStatusOk) {
                EXPECT_EQ(vlkTestLiveBytes() - base, size) << "only the tree stays";
                vlkrKDTreeFree(tree);
            }
            EXPECT_EQ(vlkTestLiveBytes(), base);
        }
    }
}

// Builds expecting `want`, with the allocation call `failAt` made to fail (0: none).
void expectFailureLeavesNothing(const Mesh& m, const KDTreeBuildContext& p, vlkStatus want,
                                const std::string& what, long long failAt = 0)
{
    vlkTestResetAllocations();
    vlkTestFailAllocationAt(failAt);
    const long long base = vlkTestLiveBytes();
    KDTreeNode* untouched = reinterpret_cast<KDTreeNode*>(0x99);
    int sizeOut = -5;
    EXPECT_EQ(build(m, p, &untouched, &sizeOut), want) << what;
    EXPECT_EQ(untouched, reinterpret_cast<KDTreeNode*>(0x99)) << what;
    EXPECT_EQ(sizeOut, -5) << what;
    EXPECT_EQ(vlkTestLiveBytes(), base) << what;
    EXPECT_LE(vlkTestPeakBytes() - base, (long long)p.memory * kMiB) << what;
}

TEST(KDTreeBudget, ExhaustedAccountIsMemAlloc)
{
    // Needles need several growth steps: too little budget for them fails mid-build.
    std::mt19937 rng(3);
    const Mesh m = vlkr::test::needles(rng, 12000);  // a tree of about 21 MB
    for (unsigned mb : {34u})
        expectFailureLeavesNothing(m, sah(mb), vlkStatusMemAlloc, std::to_string(mb) + " MB");
    KDTreeNode* tree = nullptr;
    int size = 0;
    vlkTestResetAllocations();
    const long long base = vlkTestLiveBytes();
    ASSERT_EQ(build(m, sah(68), &tree, &size), vlkStatusOk);
    EXPECT_LE(vlkTestPeakBytes() - base, 68LL * kMiB);
    EXPECT_GT(vlkTestAllocationCalls(), 7) << "the build grew its storage";
    vlkrKDTreeFree(tree);
}

TEST(KDTreeBudget, EveryAllocationFailureReleasesEverything)
{
    // The soup makes each first allocation once: four candidate lists, the reference arena,
    // the node storage and the finished tree. The needles also grow their storage, so their
    // last calls are a growth step and the finished tree; the earlier ones repeat the soup's.
    std::mt19937 rng(12);
    const Mesh soup = vlkr::test::randomSoup(rng, 3000, 20.0f);
    std::mt19937 rng3(3);
    const Mesh needles = vlkr::test::needles(rng3, 12000);
    const struct {
        const Mesh& mesh;
        unsigned mb;
        long long firstCall;
    } cases[] = {{soup, 40, 1}, {needles, 68, 7}};
    long long total = 0;
    for (const auto& c : cases) {
        KDTreeNode* tree = nullptr;
        int size = 0;
        vlkTestResetAllocations();
        ASSERT_EQ(build(c.mesh, sah(c.mb), &tree, &size), vlkStatusOk);
        const long long calls = vlkTestAllocationCalls();
        vlkrKDTreeFree(tree);
        ASSERT_GE(calls, 7);
        for (long long fail = c.firstCall; fail <= calls; ++fail, ++total)
            expectFailureLeavesNothing(c.mesh, sah(c.mb), vlkStatusMemAlloc,
                                       "call " + std::to_string(fail), fail);
    }
    vlkTestResetAllocations();
    std::printf("failure injected at %lld allocation calls\n", total);

    // The one-leaf tree makes one allocation, and its failure is NoMemory.
    expectFailureLeavesNothing(soup, simple(), vlkStatusNoMemory, "one-leaf tree", 1);
    vlkTestResetAllocations();
}

}  // namespace
