// Fuzz target for the ray-tracing operations and the version record: the first byte picks the
// operation, the rest choose counts, packets, meshes, trees, rays, masks and misalignments.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "fuzz_support.h"
#include "kdtree_decode.h"
#include "vlkr.h"

namespace {

using namespace vlkr_fuzz;

constexpr int kMaxVertices = 12;
constexpr int kMaxTriangles = 10;

// A P3 triple: three planes of n floats behind an array of three pointers.
float** triple(Memory& m, Input& in, std::size_t n, bool fill = true)
{
    float** planes = m.records<float*>(in, 3);
    for (int c = 0; c < 3; ++c) planes[c] = fill ? m.floats<float>(in, n) : m.array<float>(in, n);
    return planes;
}

void allowTriple(Memory& m, float* const* planes, std::size_t n)
{
    for (int c = 0; c < 3; ++c) m.allow(planes[c], n * sizeof(float));
}

int maskValue(Input& in)
{
    const std::uint8_t b = in.byte();
    if (b < 64) return -1;
    if (b < 144) return 0;
    if (b < 160) return INT_MIN;
    if (b < 208) return int(b);
    return in.raw<int>();
}

int* masks(Memory& m, Input& in, std::size_t n)
{
    int* p = m.array<int>(in, n);
    for (std::size_t i = 0; i < n; ++i) put<int>(p, i, maskValue(in));
    return p;
}

std::vector<unsigned char> copyOf(const void* p, std::size_t bytes)
{
    const auto* c = static_cast<const unsigned char*>(p);
    return std::vector<unsigned char>(c, c + bytes);
}

bool sameElement(const void* p, const std::vector<unsigned char>& before, std::size_t i,
                 std::size_t size)
{
    return std::memcmp(static_cast<const unsigned char*>(p) + i * size, before.data() + i * size,
                       size) == 0;
}

std::size_t rays(PacketSize b)
{
    return b.width > 0 && b.height > 0 ? std::size_t(b.width) * b.height : 0;
}

PacketSize packet(Input& in) { return {in.count(9), in.count(6)}; }

// The mesh arrays: vertices and four index words per triangle, indices in range.
struct Mesh {
    int vertexCount;
    int triangleCount;
    float* vertices;
    int* triangles;
};

Mesh makeMesh(Memory& m, Input& in, int minTriangles = 0)
{
    Mesh mesh;
    mesh.vertexCount = in.range(1, kMaxVertices);
    mesh.triangleCount = in.range(minTriangles, kMaxTriangles);
    mesh.vertices = m.floats<float>(in, 3 * std::size_t(mesh.vertexCount));
    mesh.triangles = m.array<int>(in, 4 * std::size_t(mesh.triangleCount));
    for (int i = 0; i < 4 * mesh.triangleCount; ++i)
        put<int>(mesh.triangles, i, i % 4 == 3 ? in.raw<int>() : in.range(0, mesh.vertexCount - 1));
    return mesh;
}

// Frees a tree block however the call that uses it ends.
struct TreeOwner {
    KDTreeNode* tree = nullptr;
    ~TreeOwner() { vlkrKDTreeFree(tree); }
};

// A whole scene for the intersection queries: mesh, records, box, tree and context.
struct Scene {
    Mesh mesh;
    IntersectContext* ctx;
};

bool makeScene(Memory& m, Input& in, TreeOwner& owner, Scene* scene)
{
    Mesh mesh = makeMesh(m, in);
    auto* accel = m.records<TriangleAccel>(in, std::size_t(mesh.triangleCount));
    require(vlkrTriangleAccelInit(accel, mesh.vertices, mesh.triangles, mesh.triangleCount) ==
                vlkStatusOk,
            "scene", "vlkrTriangleAccelInit refused a valid mesh");
    float* box = m.array<float>(in, 6);
    if (in.oneIn(8)) {
        for (int i = 0; i < 6; ++i) put<float>(box, i, in.value());
    } else {
        require(vlkrSetBoundBox_32f(mesh.vertices, mesh.vertexCount, box) == vlkStatusOk, "scene",
                "vlkrSetBoundBox_32f refused a mesh");
    }
    KDTreeBuildContext params{KDTreeBuildSimple, 0, 0.0f, 0, nullptr};
    if (in.oneIn(3)) {  // a surface-area build costs tens of megabytes of working storage
        params.mode = KDTreeBuildSAH;
        params.depth = unsigned(in.range(0, 50));
        params.quality = float(in.range(0, 4)) / 4.0f;
        params.memory = unsigned(in.range(33, 40));  // 32 MB is below the size formula
    }
    int size = 0;
    const vlkStatus s = vlkrKDTreeBuildAlloc(&owner.tree, mesh.vertices, mesh.triangles,
                                             mesh.vertexCount, mesh.triangleCount, &size, &params);
    expectStatus("scene tree", s, {vlkStatusOk, vlkStatusMemAlloc});
    if (s != vlkStatusOk) return false;
    auto* ctx = m.records<IntersectContext>(in, 1);
    *ctx = {box, accel, owner.tree};
    *scene = {mesh, ctx};
    return true;
}

// Per ray: -1 or a triangle of the scene; a miss leaves distance and hit pair alone, a hit
// lies strictly between 0 and the distance the ray brought in.
void checkNearest(const char* op, const Scene& scene, std::size_t n, const float* dist,
                  const std::vector<unsigned char>& distBefore, float* const* hit,
                  const std::vector<unsigned char>& hit0Before,
                  const std::vector<unsigned char>& hit1Before, const int* triangle)
{
    for (std::size_t i = 0; i < n; ++i) {
        const int t = get<int>(triangle, i);
        require(t >= -1 && t < scene.mesh.triangleCount, op, "triangle number out of range");
        if (t == -1) {
            require(sameElement(dist, distBefore, i, 4), op, "a miss changed its distance");
            require(sameElement(hit[0], hit0Before, i, 4) && sameElement(hit[1], hit1Before, i, 4),
                    op, "a miss changed its hit pair");
        } else {
            const float d = get<float>(dist, i), before = get<float>(distBefore.data(), i);
            require(d > 0.0f && d < before, op, "a hit outside (0, the given distance)");
        }
    }
}

enum Op {
    kGetLibVersion,
    kSetBoundBox,
    kTriangleAccelGetSize,
    kTriangleAccelInit,
    kKDTreeBuildAlloc,
    kKDTreeFree,
    kIntersectEyeSO,
    kIntersectMO,
    kIntersectMultipleSO,
    kIntersectAnySO,
    kCastEye,
    kCastReflectionRay,
    kCastShadowSO,
    kHitPointS0,
    kHitPointM0,
    kTriangleNormal,
    kSurfFlatNormal,
    kSurfSmoothNormal,
    kAddMulMul,
    kDiv,
    kMulC1,
    kMulC1P3,
    kDot,
    kDotChangeNorm,
    kDistAttenuation,
    kOpCount
};

void getLibVersion()
{
    const LibVersion* v = vlkrGetLibVersion();
    require(v && v == vlkrGetLibVersion(), "vlkrGetLibVersion", "not one constant record");
    require(v->major == 8 && v->minor == 1 && v->majorBuild == 1 && v->build > 0,
            "vlkrGetLibVersion", "wrong version numbers");
    require(std::memcmp(v->targetCpu, "mx\0\0", 4) == 0, "vlkrGetLibVersion", "wrong variant");
}

// The per-ray operations either succeed or refuse a null pointer, which decides the status;
// a refusal writes nothing, a success only what the operation may write.
void expectOkOrNull(const char* op, vlkStatus s, const Nulls& nulls, Memory& m)
{
    expectStatus(op, s, {vlkStatusOk, vlkStatusNullPtr});
    expectNullDecides(op, nulls, s);
    m.verify(op, s == vlkStatusOk);
}

// Rays with a negative mask get (0, 0, 0), bit for bit.
void expectPassedOverZero(const char* op, const int* mask, float* const* planes, std::size_t n)
{
    for (std::size_t i = 0; i < n; ++i)
        if (get<int>(mask, i) < 0)
            for (int c = 0; c < 3; ++c)
                require(get<std::uint32_t>(planes[c], i) == 0, op,
                        "a passed-over ray is not (0, 0, 0)");
}

void setBoundBox(Input& in)
{
    const char* op = "vlkrSetBoundBox_32f";
    Memory m;
    const int n = in.range(0, kMaxVertices);
    const int count = in.oneIn(8) ? std::min(in.count(kMaxVertices), n) : n;
    float* vertices = m.floats<float>(in, 3 * std::size_t(n));
    float* box = m.array<float>(in, 6);
    Nulls nulls(in);
    vertices = nulls(vertices);
    m.allow(box, 6 * sizeof(float));
    m.snapshot();
    const vlkStatus s = vlkrSetBoundBox_32f(vertices, count, box);
    expectOkOrNull(op, s, nulls, m);
}

void triangleAccelGetSize(Input& in)
{
    const char* op = "vlkrTriangleAccelGetSize";
    Memory m;
    int* size = m.records<int>(in, 1);
    Nulls nulls(in);
    size = nulls(size);
    m.allow(size, sizeof(int));
    m.snapshot();
    const vlkStatus s = vlkrTriangleAccelGetSize(size);
    expectOkOrNull(op, s, nulls, m);
    if (s == vlkStatusOk) require(*size == int(sizeof(TriangleAccel)), op, "size is not 40");
}

void triangleAccelInit(Input& in)
{
    const char* op = "vlkrTriangleAccelInit";
    Memory m;
    Mesh mesh = makeMesh(m, in);
    const int count =
        in.oneIn(8) ? std::min(in.count(kMaxTriangles), mesh.triangleCount) : mesh.triangleCount;
    auto* accel = m.records<TriangleAccel>(in, std::size_t(mesh.triangleCount));
    Nulls nulls(in);
    accel = nulls(accel);
    mesh.vertices = nulls(mesh.vertices);
    mesh.triangles = nulls(mesh.triangles);
    if (accel && count > 0) m.allow(accel, std::size_t(count) * sizeof(TriangleAccel));
    m.snapshot();
    const vlkStatus s = vlkrTriangleAccelInit(accel, mesh.vertices, mesh.triangles, count);
    expectOkOrNull(op, s, nulls, m);
}

void kdTreeBuildAlloc(Input& in)
{
    const char* op = "vlkrKDTreeBuildAlloc";
    Memory m;
    Mesh mesh = makeMesh(m, in);
    int vertexCount = mesh.vertexCount, triangleCount = mesh.triangleCount;
    if (in.oneIn(8)) vertexCount = std::min(in.count(kMaxVertices), vertexCount);
    if (in.oneIn(8)) triangleCount = std::min(in.count(kMaxTriangles), triangleCount);
    auto* params = m.records<KDTreeBuildContext>(in, 1);
    static constexpr unsigned kModes[] = {
        KDTreeBuildSimple, KDTreeBuildSAH, KDTreeBuildSAH, 0u,
        KDTreeBuildSimple, KDTreeBuildSAH, 0x2D07705Au,    KDTreeBuildSAH};
    static constexpr unsigned kMemory[] = {32, 33, 40, 31, 0, 4096, 0x2001, 0xFFFFFFFFu};
    params->mode = kModes[in.byte() & 7];
    params->depth = in.oneIn(16) ? in.raw<unsigned>() : unsigned(in.range(0, 51));
    params->quality = in.oneIn(4) ? in.value() : float(in.range(0, 8)) / 8.0f;
    params->memory = in.oneIn(8) ? kMemory[in.byte() & 7] : 33;
    params->pBound = nullptr;
    if (in.oneIn(4)) params->pBound = m.floats<float>(in, 6);
    // A triangle past vertexCount would read vertices the caller did not promise; keep only
    // the triangles whose corners lie below it.
    if (vertexCount < mesh.vertexCount && vertexCount > 0)
        for (int i = 0; i < 4 * mesh.triangleCount; ++i)
            if (i % 4 != 3) put<int>(mesh.triangles, i, get<int>(mesh.triangles, i) % vertexCount);
    if (vertexCount == 0) triangleCount = std::min(triangleCount, 0);
    auto** treeOut = m.records<KDTreeNode*>(in, 1);
    int* sizeOut = m.records<int>(in, 1);
    Nulls nulls(in);
    treeOut = nulls(treeOut);
    mesh.vertices = nulls(mesh.vertices);
    mesh.triangles = nulls(mesh.triangles);
    sizeOut = nulls(sizeOut);
    const bool paramsNull = in.oneIn(32);
    m.allow(treeOut, sizeof(KDTreeNode*));
    m.allow(sizeOut, sizeof(int));
    m.snapshot();
    const vlkStatus s = vlkrKDTreeBuildAlloc(treeOut, mesh.vertices, mesh.triangles, vertexCount,
                                             triangleCount, sizeOut, paramsNull ? nullptr : params);
    TreeOwner owner;
    if (s == vlkStatusOk) owner.tree = *treeOut;
    expectStatus(op, s,
                 {vlkStatusOk, vlkStatusNullPtr, vlkStatusSize, vlkStatusOutOfRange,
                  vlkStatusNoMemory, vlkStatusMemAlloc, vlkStatusBadArg});
    expectNullDecides(op, nulls, s);
    if (!nulls.any() && (vertexCount < 0 || triangleCount < 0))
        require(s == vlkStatusSize, op, "a negative count passed");
    else if (!nulls.any() && paramsNull)
        require(s == vlkStatusNullPtr, op, "a null parameter record passed");
    m.verify(op, s == vlkStatusOk);
    if (s != vlkStatusOk) return;
    require(owner.tree != nullptr && *sizeOut >= 8, op, "no tree on success");
    if (params->mode == KDTreeBuildSimple)
        require(*sizeOut == 4 * triangleCount + 16, op, "simple tree of the wrong size");
    const float everywhere[6] = {-INFINITY, -INFINITY, -INFINITY, INFINITY, INFINITY, INFINITY};
    const vlkr::test::TreeInfo info = vlkr::test::decodeTree(
        owner.tree, *sizeOut, everywhere, triangleCount, int(std::min(params->depth, 50u)));
    if (!info.valid) fail(op, info.error.c_str());
}

void kdTreeFree(Input& in)
{
    const char* op = "vlkrKDTreeFree";
    if (in.oneIn(2)) {
        require(vlkrKDTreeFree(nullptr) == vlkStatusOk, op, "a null tree is not freed quietly");
        return;
    }
    Memory m;
    Mesh mesh = makeMesh(m, in);
    const KDTreeBuildContext params{KDTreeBuildSimple, 0, 0.0f, 0, nullptr};
    KDTreeNode* tree = nullptr;
    int size = 0;
    require(vlkrKDTreeBuildAlloc(&tree, mesh.vertices, mesh.triangles, mesh.vertexCount,
                                 mesh.triangleCount, &size, &params) == vlkStatusOk,
            op, "simple build failed");
    require(vlkrKDTreeFree(tree) == vlkStatusOk, op, "freeing a tree failed");
}

void intersectNearest(Input& in, bool multipleOrigins)
{
    const char* op = multipleOrigins ? "vlkrIntersectMO_32f" : "vlkrIntersectEyeSO_32f";
    Memory m;
    TreeOwner owner;
    Scene scene;
    if (!makeScene(m, in, owner, &scene)) return;
    const PacketSize block = packet(in);
    const std::size_t n = rays(block);
    const float* origin = multipleOrigins ? nullptr : m.floats<float>(in, 3);
    float** origins = multipleOrigins ? triple(m, in, n) : nullptr;
    float** dir = triple(m, in, n);
    float* dist = m.floats<float>(in, n);
    float** hit = m.records<float*>(in, 2);
    hit[0] = m.array<float>(in, n);
    hit[1] = m.array<float>(in, n);
    int* triangle = m.array<int>(in, n);
    Nulls nulls(in);
    if (multipleOrigins) origins = nulls(origins);
    float* const* dirArg = nulls(dir);
    float* distArg = nulls(dist);
    float* const* hitArg = multipleOrigins ? hit : nulls(hit);
    m.allow(dist, 4 * n);
    m.allow(hit[0], 4 * n);
    m.allow(hit[1], 4 * n);
    m.allow(triangle, 4 * n);
    const auto distBefore = copyOf(dist, 4 * n);
    const auto hit0Before = copyOf(hit[0], 4 * n), hit1Before = copyOf(hit[1], 4 * n);
    m.snapshot();
    const vlkStatus s =
        multipleOrigins
            ? vlkrIntersectMO_32f(origins, dirArg, distArg, hitArg, triangle, scene.ctx, block)
            : vlkrIntersectEyeSO_32f(origin, dirArg, distArg, hitArg, triangle, scene.ctx, block);
    expectOkOrNull(op, s, nulls, m);
    if (s == vlkStatusOk)
        checkNearest(op, scene, n, dist, distBefore, hit, hit0Before, hit1Before, triangle);
}

void intersectMultiple(Input& in)
{
    const char* op = "vlkrIntersectMultipleSO_32f";
    Memory m;
    TreeOwner owner;
    Scene scene;
    if (!makeScene(m, in, owner, &scene)) return;
    auto* volume = m.records<VolumeSize>(in, 1);
    *volume = {in.count(6), in.count(5), in.count(4)};
    const std::size_t layer = rays({volume->width, volume->height});
    const std::size_t n = volume->depth > 0 ? layer * std::size_t(volume->depth) : 0;
    const float* origin = m.floats<float>(in, 3);
    float** dir = triple(m, in, layer);
    float* dist = m.floats<float>(in, n);
    float** hit = m.records<float*>(in, 2);
    hit[0] = m.array<float>(in, n);
    hit[1] = m.array<float>(in, n);
    int* triangle = m.array<int>(in, n);
    Nulls nulls(in);
    dir = nulls(dir);
    dist = nulls(dist);
    float* const* hitArg = nulls(hit);
    m.allow(dist, 4 * n);
    m.allow(hit[0], 4 * n);
    m.allow(hit[1], 4 * n);
    m.allow(triangle, 4 * n);
    m.snapshot();
    const vlkStatus s =
        vlkrIntersectMultipleSO_32f(origin, dir, dist, hitArg, triangle, volume, scene.ctx);
    expectOkOrNull(op, s, nulls, m);
    // A ray ends at its first layer without a hit: every later layer keeps -1.
    for (std::size_t r = 0; s == vlkStatusOk && r < layer; ++r) {
        bool ended = false;
        for (std::size_t i = r; i < n; i += layer) {
            const int t = get<int>(triangle, i);
            require(t >= -1 && t < scene.mesh.triangleCount, op, "triangle number out of range");
            require(!ended || t == -1, op, "a hit in a layer after one without");
            ended = ended || t == -1;
        }
    }
}

void intersectAny(Input& in)
{
    const char* op = "vlkrIntersectAnySO_32f";
    Memory m;
    TreeOwner owner;
    Scene scene;
    if (!makeScene(m, in, owner, &scene)) return;
    const PacketSize block = packet(in);
    const std::size_t n = rays(block);
    const float* origin = m.floats<float>(in, 3);
    float** dir = triple(m, in, n);
    int* triangle = m.array<int>(in, n);
    int* mask = masks(m, in, n);
    Nulls nulls(in);
    float* const* dirArg = nulls(dir);
    int* triangleArg = nulls(triangle);
    int* maskArg = nulls(mask);
    m.allow(triangle, 4 * n);
    m.allow(mask, 4 * n);
    const auto maskBefore = copyOf(mask, 4 * n);
    m.snapshot();
    const vlkStatus s =
        vlkrIntersectAnySO_32f(origin, dirArg, triangleArg, maskArg, block, scene.ctx);
    expectOkOrNull(op, s, nulls, m);
    for (std::size_t i = 0; s == vlkStatusOk && i < n; ++i) {
        const int t = get<int>(triangle, i), before = get<int>(maskBefore.data(), i);
        const int after = get<int>(mask, i);
        require(t >= -1 && t < scene.mesh.triangleCount, op, "triangle number out of range");
        if (before < 0)
            require(t == -1 && after == before, op, "a passed-over ray was traced");
        else
            require(t == -1 ? after == before : after == -1, op, "mask and triangle disagree");
    }
}

void castEye(Input& in)
{
    const char* op = "vlkrCastEye_32f";
    Memory m;
    const float* corner = m.floats<float>(in, 3);
    const float* columnStep = m.floats<float>(in, 3);
    const float* rowStep = m.floats<float>(in, 3);
    const int blockColumn = in.oneIn(8) ? in.raw<int>() : in.range(-3, 6);
    const int blockRow = in.oneIn(8) ? in.raw<int>() : in.range(-3, 6);
    PacketSize blockSize{in.range(-2, 16), in.range(-2, 16)};
    if (in.oneIn(8)) blockSize = {in.raw<int>(), in.raw<int>()};
    const PacketSize packetSize = packet(in);
    const std::size_t n = rays(packetSize);
    float** dir = triple(m, in, n, false);
    Nulls nulls(in);
    float* const* dirArg = nulls(dir);
    allowTriple(m, dir, n);
    m.snapshot();
    const vlkStatus s = vlkrCastEye_32f(corner, columnStep, rowStep, blockColumn, blockRow,
                                        blockSize, dirArg, packetSize);
    expectOkOrNull(op, s, nulls, m);
    if (s != vlkStatusOk) return;
    // Whole-pixel coordinates offset by the block's, in the documented order of operations;
    // the offsets are 32-bit products that wrap.
    const float xOffset = float(int(unsigned(blockColumn) * unsigned(blockSize.width)));
    const float yOffset = float(int(unsigned(blockRow) * unsigned(blockSize.height)));
    for (std::size_t i = 0; i < n; ++i) {
        const float x = float(int(i % std::size_t(packetSize.width))) + xOffset;
        const float y = float(int(i / std::size_t(packetSize.width))) + yOffset;
        for (int c = 0; c < 3; ++c) {
            const float want = (get<float>(rowStep, c) * y + get<float>(corner, c)) +
                               get<float>(columnStep, c) * x;
            const float got = get<float>(dir[c], i);
            require(std::memcmp(&want, &got, 4) == 0 || (want != want && got != got), op,
                    "a direction differs from its formula");
        }
    }
}

void castReflectionRay(Input& in)
{
    const char* op = "vlkrCastReflectionRay_32f";
    Memory m;
    const int len = in.count(12);
    const std::size_t n = std::size_t(std::max(len, 0));
    float** incident = triple(m, in, n);
    int* mask = masks(m, in, n);
    float** normal = triple(m, in, n);
    float** reflected = triple(m, in, n, false);
    Nulls nulls(in);
    float* const* incidentArg = nulls(incident);
    const int* maskArg = nulls(mask);
    float* const* normalArg = nulls(normal);
    float* const* reflectedArg = nulls(reflected);
    allowTriple(m, reflected, n);
    m.snapshot();
    const vlkStatus s =
        vlkrCastReflectionRay_32f(incidentArg, maskArg, normalArg, reflectedArg, len);
    expectOkOrNull(op, s, nulls, m);
    if (s == vlkStatusOk) expectPassedOverZero(op, mask, reflected, n);
}

void castShadow(Input& in)
{
    const char* op = "vlkrCastShadowSO_32f";
    Memory m;
    const int len = in.count(12);
    const std::size_t n = std::size_t(std::max(len, 0));
    const float* light = m.floats<float>(in, 3);
    float* factor = m.floats<float>(in, n);
    float** normal = triple(m, in, n);
    float** hitPoint = triple(m, in, n);
    int* mask = masks(m, in, n);
    float* cosine = m.array<float>(in, n);
    float** shadowDir = triple(m, in, n, false);
    Nulls nulls(in);
    factor = nulls(factor);
    float* const* normalArg = nulls(normal);
    float* const* hitArg = nulls(hitPoint);
    int* maskArg = nulls(mask);
    float* const* shadowArg = nulls(shadowDir);
    float* cosineArg = nulls(cosine);
    m.allow(mask, 4 * n);
    m.allow(cosine, 4 * n);
    allowTriple(m, shadowDir, n);
    const auto maskBefore = copyOf(mask, 4 * n);
    m.snapshot();
    const vlkStatus s =
        vlkrCastShadowSO_32f(light, factor, normalArg, hitArg, maskArg, cosineArg, shadowArg, len);
    expectOkOrNull(op, s, nulls, m);
    for (std::size_t i = 0; s == vlkStatusOk && i < n; ++i) {
        const int after = get<int>(mask, i);
        require(after == get<int>(maskBefore.data(), i) || after == -1, op,
                "the mask took a value other than -1");
    }
}

void hitPoints(Input& in, bool multipleOrigins)
{
    const char* op = multipleOrigins ? "vlkrHitPoint3DEpsM0_32f_M" : "vlkrHitPoint3DEpsS0_32f_M";
    Memory m;
    const int len = in.count(12);
    const std::size_t n = std::size_t(std::max(len, 0));
    const float* origin = multipleOrigins ? nullptr : m.floats<float>(in, 3);
    float** origins = multipleOrigins ? triple(m, in, n) : nullptr;
    float** dir = triple(m, in, n);
    float* dist = m.floats<float>(in, n);
    int* mask = masks(m, in, n);
    float** hit = triple(m, in, n, false);
    const float eps = in.value();
    Nulls nulls(in);
    dist = nulls(dist);
    mask = nulls(mask);
    dir = nulls(dir);
    float* const* hitArg = nulls(hit);
    if (multipleOrigins) origins = nulls(origins);
    allowTriple(m, hit, n);
    m.snapshot();
    const vlkStatus s = multipleOrigins
                            ? vlkrHitPoint3DEpsM0_32f_M(origins, dir, dist, mask, hitArg, len, eps)
                            : vlkrHitPoint3DEpsS0_32f_M(origin, dir, dist, mask, hitArg, len, eps);
    expectOkOrNull(op, s, nulls, m);
    if (s == vlkStatusOk) expectPassedOverZero(op, mask, hit, n);
}

void triangleNormal(Input& in)
{
    const char* op = "vlkrTriangleNormal_32f";
    Memory m;
    Mesh mesh = makeMesh(m, in);
    const int count =
        in.oneIn(8) ? std::min(in.count(kMaxTriangles), mesh.triangleCount) : mesh.triangleCount;
    float* normals = m.array<float>(in, 3 * std::size_t(mesh.triangleCount));
    Nulls nulls(in);
    mesh.vertices = nulls(mesh.vertices);
    mesh.triangles = nulls(mesh.triangles);
    float* normalsArg = nulls(normals);
    m.allow(normals, 12 * std::size_t(std::max(count, 0)));
    m.snapshot();
    const vlkStatus s = vlkrTriangleNormal_32f(mesh.vertices, mesh.triangles, normalsArg, count);
    expectOkOrNull(op, s, nulls, m);
}

// A per-ray triangle number: -1, another negative, or one of `count` triangles.
int rayTriangle(Input& in, int count)
{
    const std::uint8_t b = in.byte();
    if (b < 48 || count == 0) return b < 16 ? INT_MIN : -1 - (b & 3);
    return b % count;
}

void surfFlatNormal(Input& in)
{
    const char* op = "vlkrSurfFlatNormal_32f";
    Memory m;
    const int triangles = in.range(0, kMaxTriangles);
    const int len = in.count(12);
    const std::size_t n = std::size_t(std::max(len, 0));
    float* triangleNormals = m.floats<float>(in, 3 * std::size_t(triangles));
    int* triangle = m.array<int>(in, n);
    for (std::size_t i = 0; i < n; ++i) put<int>(triangle, i, rayTriangle(in, triangles));
    float** normal = triple(m, in, n, false);
    Nulls nulls(in);
    triangleNormals = nulls(triangleNormals);
    triangle = nulls(triangle);
    allowTriple(m, normal, n);
    m.snapshot();
    const vlkStatus s = vlkrSurfFlatNormal_32f(triangleNormals, triangle, normal, len);
    expectOkOrNull(op, s, nulls, m);
}

void surfSmoothNormal(Input& in)
{
    const char* op = "vlkrSurfSmoothNormal_32f";
    Memory m;
    const int normals = in.range(1, kMaxVertices);
    const int triangles = in.range(0, kMaxTriangles);
    const int stride = in.range(3, 6);
    const int len = in.count(12);
    const std::size_t n = std::size_t(std::max(len, 0));
    float* vertexNormals = m.floats<float>(in, 3 * std::size_t(normals));
    int* normalIndices = m.array<int>(in, std::size_t(triangles) * stride);
    for (int i = 0; i < triangles * stride; ++i)
        put<int>(normalIndices, i, i % stride < 3 ? in.range(0, normals - 1) : in.raw<int>());
    int* triangle = m.array<int>(in, n);
    for (std::size_t i = 0; i < n; ++i) put<int>(triangle, i, rayTriangle(in, triangles));
    float** hit = m.records<float*>(in, 2);
    hit[0] = m.floats<float>(in, n);
    hit[1] = m.floats<float>(in, n);
    float** normal = triple(m, in, n, false);
    Nulls nulls(in);
    vertexNormals = nulls(vertexNormals);
    normalIndices = nulls(normalIndices);
    triangle = nulls(triangle);
    float* const* hitArg = nulls(hit);
    float* const* normalArg = nulls(normal);
    allowTriple(m, normal, n);
    m.snapshot();
    const vlkStatus s = vlkrSurfSmoothNormal_32f(vertexNormals, normalIndices, triangle, hitArg,
                                                 normalArg, len, stride);
    expectOkOrNull(op, s, nulls, m);
}

// The seven masked shading operations share one frame: len rays, a mask, arrays by operation.
void shading(Input& in, Op which)
{
    Memory m;
    const int len = in.count(23);
    const std::size_t n = std::size_t(std::max(len, 0));
    vlkStatus s = vlkStatusOk;
    const char* op = "";
    int* mask = masks(m, in, n);
    switch (which) {
        case kAddMulMul: {
            op = "vlkrAddMulMul_32f_AC1P3IM";
            const float* k = m.floats<float>(in, 3);
            float* factor = m.floats<float>(in, n);
            float** src = triple(m, in, n);
            float** srcDst = triple(m, in, n);
            Nulls ns(in);
            factor = ns(factor);
            float* const* srcArg = ns(src);
            int* maskArg = ns(mask);
            float* const* dstArg = ns(srcDst);
            allowTriple(m, srcDst, n);
            m.snapshot();
            s = vlkrAddMulMul_32f_AC1P3IM(k, factor, srcArg, maskArg, dstArg, len);
            expectNullDecides(op, ns, s);
            break;
        }
        case kDiv: {
            op = "vlkrDiv_32f_C1IM";
            float* divisor = m.floats<float>(in, n);
            float* srcDst = m.floats<float>(in, n);
            Nulls ns(in);
            divisor = ns(divisor);
            float* dstArg = ns(srcDst);
            m.allow(srcDst, 4 * n);
            m.snapshot();
            s = vlkrDiv_32f_C1IM(divisor, mask, dstArg, len);
            expectNullDecides(op, ns, s);
            for (std::size_t i = 0; s >= 0 && i < n; ++i)
                if (get<int>(mask, i) < 0)
                    require(get<std::uint32_t>(srcDst, i) == 0, op, "a passed-over ray is not 0.0");
            break;
        }
        case kMulC1: {
            op = "vlkrMul_32f_C1IM";
            float* factor = m.floats<float>(in, n);
            float* srcDst = m.floats<float>(in, n);
            Nulls ns(in);
            factor = ns(factor);
            int* maskArg = ns(mask);
            float* dstArg = ns(srcDst);
            m.allow(srcDst, 4 * n);
            m.snapshot();
            s = vlkrMul_32f_C1IM(factor, maskArg, dstArg, len);
            expectNullDecides(op, ns, s);
            break;
        }
        case kMulC1P3: {
            op = "vlkrMul_32f_C1P3IM";
            float* factor = m.floats<float>(in, n);
            float** srcDst = triple(m, in, n);
            Nulls ns(in);
            factor = ns(factor);
            int* maskArg = ns(mask);
            float* const* dstArg = ns(srcDst);
            allowTriple(m, srcDst, n);
            m.snapshot();
            s = vlkrMul_32f_C1P3IM(factor, maskArg, dstArg, len);
            expectNullDecides(op, ns, s);
            break;
        }
        case kDot: {
            op = "vlkrDot_32f_P3C1M";
            float** a = triple(m, in, n);
            float** b = triple(m, in, n);
            float* dst = m.array<float>(in, n);
            Nulls ns(in);
            float* const* aArg = ns(a);
            float* const* bArg = ns(b);
            int* maskArg = ns(mask);
            float* dstArg = ns(dst);
            m.allow(dst, 4 * n);
            m.snapshot();
            s = vlkrDot_32f_P3C1M(aArg, bArg, maskArg, dstArg, len);
            expectNullDecides(op, ns, s);
            for (std::size_t i = 0; s == vlkStatusOk && i < n; ++i)
                if (get<int>(mask, i) < 0)
                    require(get<std::uint32_t>(dst, i) == 0, op, "a passed-over ray is not 0.0");
            break;
        }
        case kDotChangeNorm: {
            op = "vlkrDotChangeNorm_32f_IM";
            float** v = triple(m, in, n);
            float** normal = triple(m, in, n);
            float* dot = m.array<float>(in, n);
            Nulls ns(in);
            float* const* vArg = ns(v);
            int* maskArg = ns(mask);
            float* const* normalArg = ns(normal);
            float* dotArg = ns(dot);
            allowTriple(m, normal, n);
            m.allow(dot, 4 * n);
            m.snapshot();
            s = vlkrDotChangeNorm_32f_IM(vArg, maskArg, normalArg, dotArg, len);
            expectNullDecides(op, ns, s);
            break;
        }
        default: {
            op = "vlkrDistAttenuationSO_32f_M";
            const float* point = m.floats<float>(in, 3);
            float** surface = triple(m, in, n);
            float* dist = m.array<float>(in, n);
            Nulls ns(in);
            float* const* surfaceArg = ns(surface);
            int* maskArg = ns(mask);
            float* distArg = ns(dist);
            m.allow(dist, 4 * n);
            m.snapshot();
            s = vlkrDistAttenuationSO_32f_M(point, surfaceArg, maskArg, distArg, len);
            expectNullDecides(op, ns, s);
            for (std::size_t i = 0; s == vlkStatusOk && i < n; ++i)
                if (get<int>(mask, i) < 0)
                    require(get<float>(dist, i) == 1.0f, op, "a passed-over ray is not 1.0");
            break;
        }
    }
    if (which == kDiv)
        expectStatus(op, s, {vlkStatusOk, vlkStatusDivByZero, vlkStatusNullPtr});
    else
        expectStatus(op, s, {vlkStatusOk, vlkStatusNullPtr});
    m.verify(op, s >= 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input in(data, size);
    const Op op = Op(in.byte() % kOpCount);
    switch (op) {
        case kGetLibVersion:
            getLibVersion();
            break;
        case kSetBoundBox:
            setBoundBox(in);
            break;
        case kTriangleAccelGetSize:
            triangleAccelGetSize(in);
            break;
        case kTriangleAccelInit:
            triangleAccelInit(in);
            break;
        case kKDTreeBuildAlloc:
            kdTreeBuildAlloc(in);
            break;
        case kKDTreeFree:
            kdTreeFree(in);
            break;
        case kIntersectEyeSO:
            intersectNearest(in, false);
            break;
        case kIntersectMO:
            intersectNearest(in, true);
            break;
        case kIntersectMultipleSO:
            intersectMultiple(in);
            break;
        case kIntersectAnySO:
            intersectAny(in);
            break;
        case kCastEye:
            castEye(in);
            break;
        case kCastReflectionRay:
            castReflectionRay(in);
            break;
        case kCastShadowSO:
            castShadow(in);
            break;
        case kHitPointS0:
            hitPoints(in, false);
            break;
        case kHitPointM0:
            hitPoints(in, true);
            break;
        case kTriangleNormal:
            triangleNormal(in);
            break;
        case kSurfFlatNormal:
            surfFlatNormal(in);
            break;
        case kSurfSmoothNormal:
            surfSmoothNormal(in);
            break;
        default:
            shading(in, op);
            break;
    }
    return 0;
}
