// Every family at once from eight threads over shared read-only inputs. Each call must give,
// bit for bit, what the same call gave when it ran alone before the threads started, and the
// shared inputs must come through byte for byte unchanged: the library keeps no mutable state
// between calls, so nothing one thread does can show in another thread's results.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "test_mesh.h"
#include "vlkr.h"
#include "volume_ops.h"

namespace vlkr::test {
namespace {

constexpr int kThreads = 8;
constexpr int kRounds = 4;
constexpr int kW = 16, kH = 16, kN = kW * kH, kLayers = 4;
constexpr int kDirections = 64;
constexpr int kShMax = 15, kShCoeffs = (kShMax + 1) * (kShMax + 1);

using Bytes = std::vector<unsigned char>;

// What one call produced: its statuses, and the bytes of every status, size and output.
struct Result {
    Bytes bytes;
    std::vector<vlkStatus> statuses;
    void raw(const void* p, std::size_t n)
    {
        const std::size_t at = bytes.size();
        bytes.resize(at + n);
        if (n) std::memcpy(bytes.data() + at, p, n);
    }
    void status(vlkStatus s)
    {
        statuses.push_back(s);
        raw(&s, sizeof s);
    }
    void value(int v) { raw(&v, sizeof v); }
    template <class T>
    void add(const std::vector<T>& v)
    {
        raw(v.data(), v.size() * sizeof(T));
    }
};

// A planar triple that owns its three arrays; copies point at their own arrays.
struct P3 {
    std::vector<float> v[3];
    float* w[3];
    const float* r[3];
    explicit P3(int n = 0, float fill = 0.0f)
    {
        for (auto& c : v) c.assign(n, fill);
        point();
    }
    P3(const P3& o)
    {
        for (int c = 0; c < 3; ++c) v[c] = o.v[c];
        point();
    }
    P3& operator=(const P3&) = delete;
    void point()
    {
        for (int c = 0; c < 3; ++c) w[c] = v[c].data(), r[c] = v[c].data();
    }
    void addTo(Result& res) const
    {
        for (const auto& c : v) res.add(c);
    }
};

// The two barycentric planes of a hit.
struct Pair {
    std::vector<float> u, v;
    float* w[2];
    const float* r[2];
    explicit Pair(int n = 0) : u(n, -7.0f), v(n, -7.0f)
    {
        w[0] = u.data(), w[1] = v.data(), r[0] = u.data(), r[1] = v.data();
    }
    Pair(const Pair&) = delete;
};

// 64-byte-aligned storage for state blocks.
struct alignas(64) Line {
    unsigned char b[64];
};

// A one-channel volume in one block of rows padded by a few voxels, with its plane addresses.
template <class T>
struct Volume {
    VolumeSize size;
    int rowStep, planeStep;  // bytes
    std::vector<T> data;
    std::vector<T*> planes;
    std::vector<const T*> cplanes;
    Volume(VolumeSize s, int padX, std::mt19937* rng)
        : size(s),
          rowStep((s.width + padX) * int(sizeof(T))),
          planeStep(rowStep * s.height),
          data(std::size_t(s.width + padX) * s.height * s.depth)
    {
        if (rng)
            for (T& v : data)
                if constexpr (std::is_same_v<T, float>)
                    v = std::uniform_real_distribution<float>(-100.0f, 100.0f)(*rng);
                else
                    v = T(std::uniform_int_distribution<int>(0, 65535)(*rng));
        else
            std::memset(data.data(), kCanary, data.size() * sizeof(T));
        for (int z = 0; z < s.depth; ++z) {
            planes.push_back(data.data() + std::size_t(z) * planeStep / sizeof(T));
            cplanes.push_back(planes.back());
        }
    }
    Volume(const Volume&) = delete;
};

// The source volumes of one voxel type: a block, a single plane and the maps of remap.
template <class T>
struct Sources {
    Volume<T> vol, flat;
    Sources(std::mt19937& rng) : vol({14, 12, 10}, 3, &rng), flat({14, 12, 1}, 2, &rng) {}
};

// Everything the threads share, built once and only read afterwards.
struct Shared {
    std::mt19937 rng{20261124};
    Mesh mesh;
    std::vector<TriangleAccel> accel;
    float box[6];
    KDTreeNode* sahTree = nullptr;
    KDTreeNode* simpleTree = nullptr;
    int sahSize = 0, simpleSize = 0;
    IntersectContext sah, simple;

    const float eye[3] = {0.25f, 0.5f, -12.0f};
    const float corner[3] = {-0.35f, -0.3f, 1.0f};
    const float colStep[3] = {0.7f / kW, 0.0f, 0.01f};
    const float rowStep[3] = {0.0f, 0.65f / kH, -0.005f};
    const float light[3] = {5.0f, 8.0f, -6.0f};
    const float k[3] = {0.5f, 0.25f, 2.0f};

    P3 eyeDir{kN}, origins{kN}, dirs{kN};
    std::vector<float> farDist = std::vector<float>(std::size_t(kN) * kLayers, 1000.0f);
    std::vector<float> eyeDist = std::vector<float>(kN, 1000.0f);
    Pair eyeHit{kN};
    std::vector<int> eyeTri = std::vector<int>(kN), mask = std::vector<int>(kN);
    P3 hitPoint{kN}, flatNormal{kN}, smoothNormal{kN}, shadowDir{kN};
    std::vector<float> triNormals, vertexNormals, factor = std::vector<float>(kN),
                                                  divisor = std::vector<float>(kN),
                                                  cosine = std::vector<float>(kN);
    std::vector<int> shadowMask;

    std::vector<float> shX, shY, shZ, shValue, shValue3;
    P3 shPlanes{kDirections};
    std::vector<float> coeffs[3];
    std::vector<Line> shDirect, shRecurrence;

    Sources<Vlk8u> v8{rng};
    Sources<Vlk16u> v16{rng};
    Sources<Vlk32f> v32{rng};
    Volume<float> xMap{{10, 9, 7}, 1, nullptr}, yMap{{10, 9, 7}, 1, nullptr},
        zMap{{10, 9, 7}, 1, nullptr};

    static constexpr int kFw = 12, kFh = 10, kFd = 6, kPad = 2;
    std::vector<Vlk16s> filterSrc;
    std::vector<const Vlk16s*> filterPlanes;
    std::vector<int> kernel333, kernel231;

    struct Watch {
        const char* what;
        const void* at;
        Bytes copy;
    };
    std::vector<Watch> watched;

    float uniform(float lo, float hi) { return std::uniform_real_distribution<float>(lo, hi)(rng); }

    Shared()
    {
        // A sphere with a random soup of triangles through it, some degenerate.
        mesh = sphere(16, 24, 3.0f);
        Mesh soup = randomSoup(rng, 160, 4.0f);
        addDuplicatesAndDegenerates(rng, soup, 12);
        const int base = mesh.vertexCount();
        mesh.vertices.insert(mesh.vertices.end(), soup.vertices.begin(), soup.vertices.end());
        for (std::size_t i = 0; i < soup.triangles.size(); ++i)
            mesh.triangles.push_back(i % 4 == 3 ? 0 : soup.triangles[i] + base);
        const int nt = mesh.triangleCount(), nv = mesh.vertexCount();
        accel.resize(nt);
        vlkrTriangleAccelInit(accel.data(), mesh.vertices.data(), mesh.triangles.data(), nt);
        vlkrSetBoundBox_32f(mesh.vertices.data(), nv, box);
        const KDTreeBuildContext sahParams{KDTreeBuildSAH, 50, 1.0f, 64, nullptr};
        const KDTreeBuildContext simpleParams{KDTreeBuildSimple, 50, 0.0f, 32, nullptr};
        if (buildTree(mesh, sahParams, &sahTree, &sahSize) != vlkStatusOk ||
            buildTree(mesh, simpleParams, &simpleTree, &simpleSize) != vlkStatusOk)
            throw std::runtime_error("tree build failed");
        sah = IntersectContext{box, accel.data(), sahTree};
        simple = IntersectContext{box, accel.data(), simpleTree};

        // One traced frame: eye rays, their hits, hit points, normals, a light.
        vlkrCastEye_32f(corner, colStep, rowStep, 0, 0, {kW, kH}, eyeDir.w, {kW, kH});
        vlkrIntersectEyeSO_32f(eye, eyeDir.r, eyeDist.data(), eyeHit.w, eyeTri.data(), &sah,
                               {kW, kH});
        for (int i = 0; i < kN; ++i) {
            mask[i] = eyeTri[i] < 0 ? -1 : (i % 7 == 3 ? -2 : i % 3);
            factor[i] = uniform(-1.0f, 1.0f);
            divisor[i] = i % 9 == 4 ? 0.0f : uniform(-3.0f, 3.0f);
            for (int c = 0; c < 3; ++c) {
                origins.v[c][i] = uniform(-6.0f, 6.0f);
                dirs.v[c][i] = uniform(-1.0f, 1.0f);
            }
        }
        vlkrHitPoint3DEpsS0_32f_M(eye, eyeDir.r, eyeDist.data(), mask.data(), hitPoint.w, kN,
                                  0.999f);
        triNormals.resize(3 * std::size_t(nt));
        vlkrTriangleNormal_32f(mesh.vertices.data(), mesh.triangles.data(), triNormals.data(), nt);
        vertexNormals = mesh.vertices;
        for (int v = 0; v < nv; ++v) {
            float* n = &vertexNormals[3 * std::size_t(v)];
            const float len = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]) + 1e-3f;
            for (int c = 0; c < 3; ++c) n[c] /= len;
        }
        vlkrSurfFlatNormal_32f(triNormals.data(), eyeTri.data(), flatNormal.w, kN);
        vlkrSurfSmoothNormal_32f(vertexNormals.data(), mesh.triangles.data(), eyeTri.data(),
                                 eyeHit.r, smoothNormal.w, kN, 4);
        shadowMask = mask;
        vlkrCastShadowSO_32f(light, factor.data(), smoothNormal.r, hitPoint.r, shadowMask.data(),
                             cosine.data(), shadowDir.w, kN);

        // Directions, samples and coefficients for the spherical harmonics, and both contexts.
        for (int i = 0; i < kDirections; ++i) {
            float d[3], len = 0.0f;
            do {
                len = 0.0f;
                for (float& c : d) c = uniform(-1.0f, 1.0f), len += c * c;
            } while (len < 0.01f || len > 1.0f);
            len = std::sqrt(len);
            shX.push_back(d[0] / len), shY.push_back(d[1] / len), shZ.push_back(d[2] / len);
            shValue.push_back(i % 5 == 0 ? 0.0f : (i % 5 == 1 ? 1.0f : uniform(-2.0f, 2.0f)));
            for (int c = 0; c < 3; ++c) {
                shValue3.push_back(uniform(-2.0f, 2.0f));
                shPlanes.v[c][i] = uniform(-2.0f, 2.0f);
            }
        }
        for (auto& c : coeffs)
            for (int i = 0; i < kShCoeffs; ++i) c.push_back(uniform(-1.0f, 1.0f));
        for (auto [block, type] : {std::pair{&shDirect, int(SHTypeDirect)},
                                   std::pair{&shRecurrence, int(SHTypeRecurrence)}}) {
            int size = 0;
            vlkrSHGetSize_32f(kShMax, type, &size);
            block->resize(std::size_t(size) / sizeof(Line) + 1);
            if (vlkrSHInit_32f(reinterpret_cast<SHContext*>(block->data()), kShMax, type) !=
                vlkStatusOk)
                throw std::runtime_error("SH init failed");
        }

        // Remap coordinates reaching a little past every side of the sources.
        for (auto [map, hi] :
             {std::pair{&xMap, 15.0f}, std::pair{&yMap, 13.0f}, std::pair{&zMap, 11.0f}})
            for (float& v : map->data) v = uniform(-1.5f, hi);

        // A signed 16-bit volume with a border of two voxels on every side for the filter.
        const int fw = kFw + 2 * kPad, fh = kFh + 2 * kPad;
        filterSrc.resize(std::size_t(fw) * fh * (kFd + 2 * kPad));
        for (auto& v : filterSrc)
            v = Vlk16s(std::uniform_int_distribution<int>(-32768, 32767)(rng));
        for (int z = 0; z < kFd + 2 * kPad; ++z)
            filterPlanes.push_back(&filterSrc[(std::size_t(z) * fh + kPad) * fw + kPad]);
        for (int i = 0; i < 27; ++i) kernel333.push_back(int(rng() % 17) - 8);
        for (int i = 0; i < 6; ++i) kernel231.push_back(int(rng() % 2001) - 1000);

        watchAll();
    }
    Shared(const Shared&) = delete;
    ~Shared()
    {
        vlkrKDTreeFree(sahTree);
        vlkrKDTreeFree(simpleTree);
    }

    void watch(const char* what, const void* at, std::size_t n)
    {
        const auto* b = static_cast<const unsigned char*>(at);
        watched.push_back({what, at, Bytes(b, b + n)});
    }
    template <class T>
    void watch(const char* what, const std::vector<T>& v)
    {
        watch(what, v.data(), v.size() * sizeof(T));
    }
    void watch(const char* what, const P3& p)
    {
        for (const auto& c : p.v) watch(what, c);
    }
    void watchAll()
    {
        watch("vertices", mesh.vertices), watch("triangles", mesh.triangles);
        watch("accel", accel), watch("box", box, sizeof box);
        watch("SAH tree", sahTree, std::size_t(sahSize));
        watch("simple tree", simpleTree, std::size_t(simpleSize));
        watch("contexts", &sah, sizeof sah), watch("contexts", &simple, sizeof simple);
        watch("eye rays", eyeDir), watch("origins", origins), watch("dirs", dirs);
        watch("far", farDist), watch("eye distances", eyeDist);
        watch("eye hits", eyeHit.u), watch("eye hits", eyeHit.v), watch("eye hits", eyeTri);
        watch("mask", mask), watch("hit points", hitPoint), watch("normals", flatNormal);
        watch("normals", smoothNormal), watch("shadow rays", shadowDir);
        watch("shadow mask", shadowMask), watch("normals", triNormals);
        watch("normals", vertexNormals), watch("factor", factor), watch("divisor", divisor);
        watch("cosine", cosine);
        watch("SH directions", shX), watch("SH directions", shY), watch("SH directions", shZ);
        watch("SH samples", shValue), watch("SH samples", shValue3);
        watch("SH samples", shPlanes);
        for (const auto& c : coeffs) watch("SH coefficients", c);
        watch("SH direct context", shDirect), watch("SH recurrence context", shRecurrence);
        watch("8u volume", v8.vol.data), watch("8u plane", v8.flat.data);
        watch("16u volume", v16.vol.data), watch("16u plane", v16.flat.data);
        watch("32f volume", v32.vol.data), watch("32f plane", v32.flat.data);
        watch("maps", xMap.data), watch("maps", yMap.data), watch("maps", zMap.data);
        for (const auto* planes : {&v8.vol.cplanes, &v8.flat.cplanes})
            watch("8u plane addresses", *planes);
        for (const auto* planes : {&v16.vol.cplanes, &v16.flat.cplanes})
            watch("16u plane addresses", *planes);
        for (const auto* planes :
             {&v32.vol.cplanes, &v32.flat.cplanes, &xMap.cplanes, &yMap.cplanes, &zMap.cplanes})
            watch("32f plane addresses", *planes);
        watch("filter source", filterSrc), watch("filter planes", filterPlanes);
        watch("kernels", kernel333), watch("kernels", kernel231);
    }
    const SHContext* context(bool recurrence) const
    {
        return reinterpret_cast<const SHContext*>((recurrence ? shRecurrence : shDirect).data());
    }
};

struct Job {
    std::string name;
    std::function<Result()> run;
};

void rayJobs(const Shared& s, std::vector<Job>& jobs)
{
    const PacketSize packet{kW, kH};
    for (auto [col, row] : {std::pair{0, 0}, std::pair{1, 2}, std::pair{3, 1}})
        jobs.push_back({"CastEye block " + std::to_string(col) + "," + std::to_string(row),
                        [&s, col = col, row = row] {
                            P3 dir(kN, -1.0f);
                            Result r;
                            r.status(vlkrCastEye_32f(s.corner, s.colStep, s.rowStep, col, row,
                                                     {kW, kH}, dir.w, {kW, kH}));
                            dir.addTo(r);
                            return r;
                        }});
    for (bool useSah : {true, false}) {
        const IntersectContext* ctx = useSah ? &s.sah : &s.simple;
        const std::string tree = useSah ? " SAH" : " simple";
        jobs.push_back({"IntersectEyeSO" + tree, [&s, ctx, packet] {
                            std::vector<float> dist = s.eyeDist;
                            std::fill(dist.begin(), dist.end(), 1000.0f);
                            Pair hit(kN);
                            std::vector<int> tri(kN, 7);
                            Result r;
                            r.status(vlkrIntersectEyeSO_32f(s.eye, s.eyeDir.r, dist.data(), hit.w,
                                                            tri.data(), ctx, packet));
                            r.add(dist), r.add(hit.u), r.add(hit.v), r.add(tri);
                            return r;
                        }});
        jobs.push_back({"IntersectMO" + tree, [&s, ctx, packet] {
                            std::vector<float> dist(kN, 50.0f);
                            Pair hit(kN);
                            std::vector<int> tri(kN, 7);
                            Result r;
                            r.status(vlkrIntersectMO_32f(s.origins.r, s.dirs.r, dist.data(), hit.w,
                                                         tri.data(), ctx, packet));
                            r.add(dist), r.add(hit.u), r.add(hit.v), r.add(tri);
                            return r;
                        }});
        jobs.push_back({"IntersectMultipleSO" + tree, [&s, ctx] {
                            std::vector<float> dist = s.farDist;
                            Pair hit(kN * kLayers);
                            std::vector<int> tri(kN * kLayers, 7);
                            const VolumeSize layers{kW, kH, kLayers};
                            Result r;
                            r.status(vlkrIntersectMultipleSO_32f(s.eye, s.eyeDir.r, dist.data(),
                                                                 hit.w, tri.data(), &layers, ctx));
                            r.add(dist), r.add(hit.u), r.add(hit.v), r.add(tri);
                            return r;
                        }});
        jobs.push_back({"IntersectAnySO" + tree, [&s, ctx, packet] {
                            std::vector<int> mask = s.shadowMask, tri(kN, 7);
                            Result r;
                            r.status(vlkrIntersectAnySO_32f(s.light, s.shadowDir.r, tri.data(),
                                                            mask.data(), packet, ctx));
                            r.add(mask), r.add(tri);
                            return r;
                        }});
    }
    jobs.push_back({"CastReflectionRay", [&s] {
                        P3 out(kN, -1.0f);
                        Result r;
                        r.status(vlkrCastReflectionRay_32f(s.eyeDir.r, s.mask.data(),
                                                           s.smoothNormal.r, out.w, kN));
                        out.addTo(r);
                        return r;
                    }});
    jobs.push_back({"CastShadowSO", [&s] {
                        std::vector<int> mask = s.mask;
                        std::vector<float> cosine(kN, -1.0f);
                        P3 dir(kN, -1.0f);
                        Result r;
                        r.status(vlkrCastShadowSO_32f(s.light, s.factor.data(), s.smoothNormal.r,
                                                      s.hitPoint.r, mask.data(), cosine.data(),
                                                      dir.w, kN));
                        r.add(mask), r.add(cosine), dir.addTo(r);
                        return r;
                    }});
    jobs.push_back({"HitPoint3DEpsS0", [&s] {
                        P3 out(kN, -1.0f);
                        Result r;
                        r.status(vlkrHitPoint3DEpsS0_32f_M(s.eye, s.eyeDir.r, s.eyeDist.data(),
                                                           s.mask.data(), out.w, kN, 0.999f));
                        out.addTo(r);
                        return r;
                    }});
    jobs.push_back({"HitPoint3DEpsM0", [&s] {
                        P3 out(kN, -1.0f);
                        Result r;
                        r.status(vlkrHitPoint3DEpsM0_32f_M(s.origins.r, s.dirs.r, s.eyeDist.data(),
                                                           s.mask.data(), out.w, kN, 1.001f));
                        out.addTo(r);
                        return r;
                    }});
    jobs.push_back({"TriangleNormal", [&s] {
                        std::vector<float> n(s.triNormals.size(), -1.0f);
                        Result r;
                        r.status(vlkrTriangleNormal_32f(s.mesh.vertices.data(),
                                                        s.mesh.triangles.data(), n.data(),
                                                        s.mesh.triangleCount()));
                        r.add(n);
                        return r;
                    }});
    jobs.push_back(
        {"SurfFlatNormal", [&s] {
             P3 out(kN, -1.0f);
             Result r;
             r.status(vlkrSurfFlatNormal_32f(s.triNormals.data(), s.eyeTri.data(), out.w, kN));
             out.addTo(r);
             return r;
         }});
    jobs.push_back({"SurfSmoothNormal", [&s] {
                        P3 out(kN, -1.0f);
                        Result r;
                        r.status(vlkrSurfSmoothNormal_32f(s.vertexNormals.data(),
                                                          s.mesh.triangles.data(), s.eyeTri.data(),
                                                          s.eyeHit.r, out.w, kN, 4));
                        out.addTo(r);
                        return r;
                    }});
    jobs.push_back({"scene data and version", [&s] {
                        std::vector<TriangleAccel> accel(s.accel.size());
                        std::vector<float> box(6, -1.0f);
                        int size = 0;
                        Result r;
                        r.status(vlkrTriangleAccelGetSize(&size));
                        r.value(size);
                        r.status(vlkrTriangleAccelInit(accel.data(), s.mesh.vertices.data(),
                                                       s.mesh.triangles.data(),
                                                       s.mesh.triangleCount()));
                        r.status(vlkrSetBoundBox_32f(s.mesh.vertices.data(), s.mesh.vertexCount(),
                                                     box.data()));
                        r.add(accel), r.add(box);
                        const LibVersion* version = vlkrGetLibVersion();
                        r.raw(&version, sizeof version), r.raw(version, sizeof *version);
                        return r;
                    }});
    // Tree builds of every thread at once, each with its own working storage.
    for (auto params : {KDTreeBuildContext{KDTreeBuildSAH, 50, 1.0f, 64, nullptr},
                        KDTreeBuildContext{KDTreeBuildSAH, 20, 0.5f, 48, nullptr},
                        KDTreeBuildContext{KDTreeBuildSAH, 30, 0.8f, 64, s.box},
                        KDTreeBuildContext{KDTreeBuildSimple, 50, 0.0f, 32, nullptr}})
        jobs.push_back({"KDTreeBuild depth " + std::to_string(params.depth) + " quality " +
                            std::to_string(params.quality),
                        [&s, params] {
                            KDTreeNode* tree = nullptr;
                            int size = 0;
                            Result r;
                            r.status(buildTree(s.mesh, params, &tree, &size));
                            r.value(size);
                            if (tree) r.raw(tree, std::size_t(size));
                            r.status(vlkrKDTreeFree(tree));
                            return r;
                        }});

    // Shading arithmetic on copies of the frame's arrays.
    jobs.push_back({"AddMulMul", [&s] {
                        P3 acc(s.hitPoint);
                        Result r;
                        r.status(vlkrAddMulMul_32f_AC1P3IM(s.k, s.factor.data(), s.flatNormal.r,
                                                           s.mask.data(), acc.w, kN));
                        acc.addTo(r);
                        return r;
                    }});
    jobs.push_back({"Div", [&s] {
                        std::vector<float> d = s.cosine;
                        Result r;
                        r.status(vlkrDiv_32f_C1IM(s.divisor.data(), s.mask.data(), d.data(), kN));
                        r.add(d);
                        return r;
                    }});
    jobs.push_back({"Mul C1", [&s] {
                        std::vector<float> d = s.eyeDist;
                        Result r;
                        r.status(vlkrMul_32f_C1IM(s.factor.data(), s.mask.data(), d.data(), kN));
                        r.add(d);
                        return r;
                    }});
    jobs.push_back({"Mul P3", [&s] {
                        P3 d(s.smoothNormal);
                        Result r;
                        r.status(vlkrMul_32f_C1P3IM(s.divisor.data(), s.mask.data(), d.w, kN));
                        d.addTo(r);
                        return r;
                    }});
    jobs.push_back(
        {"Dot", [&s] {
             std::vector<float> d(kN, -1.0f);
             Result r;
             r.status(vlkrDot_32f_P3C1M(s.eyeDir.r, s.smoothNormal.r, s.mask.data(), d.data(), kN));
             r.add(d);
             return r;
         }});
    jobs.push_back({"DotChangeNorm", [&s] {
                        P3 n(s.flatNormal);
                        std::vector<float> d(kN, -1.0f);
                        Result r;
                        r.status(
                            vlkrDotChangeNorm_32f_IM(s.eyeDir.r, s.mask.data(), n.w, d.data(), kN));
                        n.addTo(r), r.add(d);
                        return r;
                    }});
    jobs.push_back({"DistAttenuation", [&s] {
                        std::vector<float> d(kN, -1.0f);
                        Result r;
                        r.status(vlkrDistAttenuationSO_32f_M(s.light, s.hitPoint.r, s.mask.data(),
                                                             d.data(), kN));
                        r.add(d);
                        return r;
                    }});
}

void shJobs(const Shared& s, std::vector<Job>& jobs)
{
    const float *x = s.shX.data(), *y = s.shY.data(), *z = s.shZ.data();
    for (bool rec : {false, true}) {
        const SHContext* ctx = s.context(rec);
        const std::string type = rec ? " recurrence" : " direct";
        for (int L : {2, 9, 15})
            jobs.push_back({"SH L" + std::to_string(L) + type, [=] {
                                std::vector<float> dst(std::size_t(kDirections) * (L + 1) * (L + 1),
                                                       -1.0f);
                                Result r;
                                r.status(vlkrSH_32f(x, y, z, kDirections, dst.data(), L, ctx));
                                r.add(dst);
                                return r;
                            }});
        for (int L : {4, 15}) {
            const std::string tag = " L" + std::to_string(L) + type;
            const int n = (L + 1) * (L + 1);
            jobs.push_back({"SHTFwd C1I" + tag, [=, &s] {
                                std::vector<float> c(s.coeffs[0].begin(), s.coeffs[0].begin() + n);
                                Result r;
                                r.status(vlkrSHTFwd_32f_C1I(x, y, z, s.shValue.data(), kDirections,
                                                            c.data(), L, ctx));
                                r.add(c);
                                return r;
                            }});
            jobs.push_back({"SHTFwd C3P3I" + tag, [=, &s] {
                                P3 c(n);
                                for (int k = 0; k < 3; ++k)
                                    std::copy_n(s.coeffs[k].begin(), n, c.v[k].begin());
                                Result r;
                                r.status(vlkrSHTFwd_32f_C3P3I(x, y, z, s.shValue3.data(),
                                                              kDirections, c.w, L, ctx));
                                c.addTo(r);
                                return r;
                            }});
            jobs.push_back(
                {"SHTFwd P3I" + tag, [=, &s] {
                     P3 c(n);
                     for (int k = 0; k < 3; ++k)
                         std::copy_n(s.coeffs[k].begin(), n, c.v[k].begin());
                     Result r;
                     r.status(vlkrSHTFwd_32f_P3I(x, y, z, s.shPlanes.r, kDirections, c.w, L, ctx));
                     c.addTo(r);
                     return r;
                 }});
            jobs.push_back({"SHTInv C1" + tag, [=, &s] {
                                std::vector<float> d(kDirections, -1.0f);
                                Result r;
                                r.status(vlkrSHTInv_32f_C1(s.coeffs[0].data(), L, x, y, z, d.data(),
                                                           kDirections, ctx));
                                r.add(d);
                                return r;
                            }});
            jobs.push_back({"SHTInv P3" + tag, [=, &s] {
                                const float* c[3] = {s.coeffs[0].data(), s.coeffs[1].data(),
                                                     s.coeffs[2].data()};
                                P3 d(kDirections, -1.0f);
                                Result r;
                                r.status(vlkrSHTInv_32f_P3(c, L, x, y, z, d.w, kDirections, ctx));
                                d.addTo(r);
                                return r;
                            }});
            jobs.push_back({"SHTInv P3C3" + tag, [=, &s] {
                                const float* c[3] = {s.coeffs[0].data(), s.coeffs[1].data(),
                                                     s.coeffs[2].data()};
                                std::vector<float> d(3 * kDirections, -1.0f);
                                Result r;
                                r.status(
                                    vlkrSHTInv_32f_P3C3(c, L, x, y, z, d.data(), kDirections, ctx));
                                r.add(d);
                                return r;
                            }});
        }
    }
    for (int L : {0, 3, 15})
        jobs.push_back({"SHBand L" + std::to_string(L), [=] {
                            std::vector<float> dst(std::size_t(kDirections) * (2 * L + 1), -1.0f);
                            Result r;
                            r.status(vlkrSHBand_32f(x, y, z, kDirections, dst.data(), L));
                            r.add(dst);
                            return r;
                        }});
}

template <class T>
void volumeJobs(const Shared& s, const Sources<T>& src, const std::string& type,
                std::vector<Job>& jobs)
{
    for (int sel : kSelectors) {
        const std::string tag = " " + type + " selector " + std::to_string(sel);
        for (bool block : {true, false})
            jobs.push_back({(block ? "Resize C1V" : "Resize C1PV") + tag, [&src, sel, block] {
                                const Volume<T>& v = src.vol;
                                const Cuboid srcVoi{1, 0, 2, 12, 12, 8};
                                const double f[3] = {1.5, 1.25, 0.75}, sh[3] = {0.5, 0.0, 1.25};
                                Cuboid dstVoi{};
                                Result r;
                                r.status(vlkrGetResizeCuboid(&srcVoi, &dstVoi, f[0], f[1], f[2],
                                                             sh[0], sh[1], sh[2], sel));
                                r.raw(&dstVoi, sizeof dstVoi);
                                int size = 0;
                                r.status(vlkrResizeGetBufSize(&srcVoi, &dstVoi, 1, sel, &size));
                                r.value(size);
                                Bytes buffer(std::size_t(size) + 64);
                                Volume<T> dst({dstVoi.x + dstVoi.width, dstVoi.y + dstVoi.height,
                                               dstVoi.z + dstVoi.depth},
                                              2, nullptr);
                                if (block)
                                    r.status(Ops<T>::block(
                                        v.data.data(), &v.size, v.rowStep, v.planeStep, &srcVoi,
                                        dst.data.data(), dst.rowStep, dst.planeStep, &dstVoi, f[0],
                                        f[1], f[2], sh[0], sh[1], sh[2], sel, buffer.data() + 1));
                                else
                                    r.status(Ops<T>::planes(v.cplanes.data(), &v.size, v.rowStep,
                                                            &srcVoi, dst.planes.data(), dst.rowStep,
                                                            &dstVoi, f[0], f[1], f[2], sh[0], sh[1],
                                                            sh[2], sel, buffer.data() + 1));
                                r.add(dst.data);
                                return r;
                            }});
        jobs.push_back(
            {"WarpAffine" + tag, [&src, sel] {
                 const Volume<T>& v = src.vol;
                 const Cuboid srcVoi{0, 1, 0, 14, 11, 10};
                 const double coeffs[3][4] = {
                     {0.9, 0.2, 0.05, 1.0}, {-0.15, 1.1, 0.0, 0.5}, {0.02, -0.05, 0.95, 0.25}};
                 Volume<T> dst({16, 14, 11}, 1, nullptr);
                 const Cuboid dstVoi{1, 0, 1, 15, 14, 10};
                 int size = -1;
                 Result r;
                 r.status(vlkrWarpAffineGetBufSize(&srcVoi, &dstVoi, 1, sel, &size));
                 r.value(size);
                 r.status(Ops<T>::warp(v.cplanes.data(), &v.size, v.rowStep, &srcVoi,
                                       dst.planes.data(), dst.rowStep, &dstVoi, coeffs, sel));
                 r.add(dst.data);
                 return r;
             }});
        jobs.push_back({"Remap" + tag, [&s, &src, sel] {
                            const Volume<T>& v = src.vol;
                            Cuboid srcVoi{1, 1, 0, 20, 20, 20};
                            const VolumeSize dstSize{10, 9, 7};
                            Volume<T> dst(dstSize, 3, nullptr);
                            Result r;
                            r.status(Ops<T>::remap(v.cplanes.data(), &v.size, v.rowStep, &srcVoi,
                                                   s.xMap.cplanes.data(), s.yMap.cplanes.data(),
                                                   s.zMap.cplanes.data(), s.xMap.rowStep,
                                                   dst.planes.data(), dst.rowStep, &dstSize, sel));
                            r.raw(&srcVoi, sizeof srcVoi);
                            r.add(dst.data);
                            return r;
                        }});
    }
    // Single planes: the warp takes its path with working storage of its own here.
    for (int sel : {1, 2, 6}) {
        const std::string tag = " " + type + " selector " + std::to_string(sel);
        jobs.push_back(
            {"WarpAffine plane" + tag, [&src, sel] {
                 const Volume<T>& v = src.flat;
                 const Cuboid srcVoi{0, 0, 0, 14, 12, 1};
                 const double coeffs[3][4] = {
                     {0.8, -0.3, 0.0, 2.0}, {0.35, 0.9, 0.0, -1.0}, {0.0, 0.0, 1.0, 0.0}};
                 Volume<T> dst({17, 15, 3}, 2, nullptr);
                 const Cuboid dstVoi{0, 1, 1, 17, 13, 1};
                 Result r;
                 r.status(Ops<T>::warp(v.cplanes.data(), &v.size, v.rowStep, &srcVoi,
                                       dst.planes.data(), dst.rowStep, &dstVoi, coeffs, sel));
                 r.add(dst.data);
                 return r;
             }});
        jobs.push_back({"Remap plane" + tag, [&s, &src, sel] {
                            const Volume<T>& v = src.flat;
                            Cuboid srcVoi{0, 0, 0, 14, 12, 1};
                            const VolumeSize dstSize{10, 9, 1};
                            Volume<T> dst(dstSize, 1, nullptr);
                            Result r;
                            r.status(Ops<T>::remap(v.cplanes.data(), &v.size, v.rowStep, &srcVoi,
                                                   s.xMap.cplanes.data(), s.yMap.cplanes.data(),
                                                   s.zMap.cplanes.data(), s.xMap.rowStep,
                                                   dst.planes.data(), dst.rowStep, &dstSize, sel));
                            r.raw(&srcVoi, sizeof srcVoi);
                            r.add(dst.data);
                            return r;
                        }});
    }
}

void filterJobs(const Shared& s, std::vector<Job>& jobs)
{
    struct Kernel {
        const std::vector<int>* weights;
        VolumeSize size;
        int anchor[3];
    };
    const Kernel kernels[] = {{&s.kernel333, {3, 3, 3}, {1, 1, 1}},
                              {&s.kernel231, {2, 3, 1}, {0, 2, 0}}};
    for (const Kernel& kernel : kernels)
        for (int divisor : {1, 4, 7, -3})
            jobs.push_back(
                {"Filter " + std::to_string(kernel.size.width) + "x" +
                     std::to_string(kernel.size.height) + " divisor " + std::to_string(divisor),
                 [&s, kernel, divisor] {
                     const VolumeSize region{Shared::kFw, Shared::kFh, Shared::kFd};
                     const int step = (Shared::kFw + 2 * Shared::kPad) * 2;
                     int size = 0;
                     Result r;
                     r.status(vlkrFilterGetBufSize(&region, &kernel.size, 1, &size));
                     r.value(size);
                     Bytes buffer(static_cast<std::size_t>(size));
                     std::vector<Vlk16s> dst(std::size_t(region.width + 1) * region.height *
                                             region.depth);
                     std::vector<Vlk16s*> planes;
                     for (int z = 0; z < region.depth; ++z)
                         planes.push_back(
                             &dst[std::size_t(z) * (region.width + 1) * region.height]);
                     r.status(vlkrFilter_16s_C1PV(s.filterPlanes.data() + Shared::kPad, step,
                                                  planes.data(), (region.width + 1) * 2, &region,
                                                  kernel.weights->data(), &kernel.size,
                                                  kernel.anchor, divisor, buffer.data()));
                     r.add(dst);
                     return r;
                 }});
}

TEST(Concurrency, AllFamiliesAtOnceMatchSerialRuns)
{
    const Shared s;
    std::vector<Job> jobs;
    rayJobs(s, jobs);
    shJobs(s, jobs);
    volumeJobs(s, s.v8, "8u", jobs);
    volumeJobs(s, s.v16, "16u", jobs);
    volumeJobs(s, s.v32, "32f", jobs);
    filterJobs(s, jobs);

    // The serial run first: every call alone, and again to make sure a call repeats itself.
    std::vector<Bytes> want;
    for (const Job& job : jobs) {
        const Result r = job.run();
        for (vlkStatus st : r.statuses) EXPECT_GE(st, 0) << job.name << " failed";
        want.push_back(r.bytes);
        ASSERT_TRUE(job.run().bytes == want.back()) << job.name << " differs between two runs";
    }

    // Then eight threads, each through every job in an order of its own, all starting at once.
    std::atomic<int> ready{0};
    std::vector<std::vector<std::string>> wrong(kThreads);
    std::vector<int> runs(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            std::mt19937 order(1000 + t);
            std::vector<std::size_t> index(jobs.size());
            ready.fetch_add(1);
            while (ready.load() < kThreads) std::this_thread::yield();
            for (int round = 0; round < kRounds; ++round) {
                for (std::size_t i = 0; i < index.size(); ++i) index[i] = i;
                std::shuffle(index.begin(), index.end(), order);
                if (t % 2 == 1 && round == 0) std::reverse(index.begin(), index.end());
                for (std::size_t i : index) {
                    if (jobs[i].run().bytes != want[i]) wrong[t].push_back(jobs[i].name);
                    ++runs[t];
                }
            }
        });
    for (auto& th : threads) th.join();

    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(runs[t], kRounds * int(jobs.size()));
        EXPECT_TRUE(wrong[t].empty()) << "thread " << t << ": " << wrong[t].size()
                                      << " calls differ from the serial run, first "
                                      << (wrong[t].empty() ? "" : wrong[t].front());
    }
    for (const auto& w : s.watched) {
        const auto* now = static_cast<const unsigned char*>(w.at);
        EXPECT_TRUE(std::equal(w.copy.begin(), w.copy.end(), now))
            << "shared input changed: " << w.what;
    }
}

// A sanity check on the inputs themselves: the frame must have hits, misses, masked rays and
// lit rays, or the threads above would mostly compare zeros.
TEST(Concurrency, SharedFrameIsNotTrivial)
{
    const Shared s;
    const auto hits = std::count_if(s.eyeTri.begin(), s.eyeTri.end(), [](int t) { return t >= 0; });
    EXPECT_GT(hits, kN / 4);
    EXPECT_LT(hits, kN);
    const auto lit =
        std::count_if(s.shadowMask.begin(), s.shadowMask.end(), [](int m) { return m >= 0; });
    EXPECT_GT(lit, 0);
    EXPECT_LT(lit, hits);
    EXPECT_GT(s.sahSize, 8 * 16);
}

}  // namespace
}  // namespace vlkr::test
