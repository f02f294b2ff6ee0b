// Per-ray operations on 1M rays: GB/s moved and the ratio to a memcpy moving as many bytes.
#include <cfloat>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "ratio_reporter.h"
#include "scenes.h"
#include "vlkr.h"

namespace {

constexpr int kRays = 1 << 20;

// One set of per-ray arrays shared by every benchmark: values near 1, and factors and divisors
// of exactly 1 (array 10), so that repeated in-place passes neither overflow nor sink into
// subnormals. Hit triangles run in order with gaps, as the hits of a rendered block do.
struct Arrays {
    std::vector<float> p[12];
    std::vector<int> mask, tri, normalIndex;
    std::vector<float> triNormals, vertexNormals;
    vlkr::bench::Mesh mesh = vlkr::bench::terrain(724);  // about 1M triangles
    Arrays()
    {
        std::mt19937 rng(5);
        std::uniform_real_distribution<float> near1(0.5f, 1.5f);
        std::uniform_int_distribution<int> m(-1, 2);
        for (auto& v : p) {
            v.resize(kRays);
            for (float& x : v) x = near1(rng);
        }
        std::fill(p[10].begin(), p[10].end(), 1.0f);
        mask.resize(kRays);
        for (int& x : mask) x = m(rng);
        tri.resize(kRays);
        for (int i = 0; i < kRays; ++i)
            tri[i] = i % 10 == 9 ? -1 : int((std::int64_t(i) * 7 / 8) % mesh.triangleCount());
        triNormals.resize(3 * std::size_t(mesh.triangleCount()));
        vlkrTriangleNormal_32f(mesh.vertices.data(), mesh.triangles.data(), triNormals.data(),
                               mesh.triangleCount());
        vertexNormals.assign(3 * std::size_t(mesh.vertexCount()), 0.577f);
    }
    float* f(int k) { return p[k].data(); }
};

Arrays& arrays()
{
    static Arrays a;
    return a;
}

struct Op {
    const char* name;
    int bytesPerRay;  // read plus written
    std::function<void()> run;
};

std::vector<Op> operations()
{
    Arrays& a = arrays();
    static float* t0[3] = {a.f(0), a.f(1), a.f(2)};
    static float* t1[3] = {a.f(3), a.f(4), a.f(5)};
    static float* t2[3] = {a.f(6), a.f(7), a.f(8)};
    static const float* c0[3] = {a.f(0), a.f(1), a.f(2)};
    static const float* c1[3] = {a.f(3), a.f(4), a.f(5)};
    static const float* uv[2] = {a.f(9), a.f(10)};
    static const float k[3] = {0.5f, 0.25f, 0.125f};
    static const float point[3] = {0.1f, 0.2f, 0.3f};
    static std::vector<int> shadowMask(kRays);
    const int n = kRays;
    a.normalIndex = a.mesh.triangles;
    return {
        {"CastEye", 12, [&a, n] {
             const float corner[3] = {-0.5f, -0.5f, 1}, col[3] = {1e-3f, 0, 0}, row[3] = {0, 1e-3f, 0};
             vlkrCastEye_32f(corner, col, row, 0, 0, PacketSize{1024, 1024}, t2, PacketSize{1024, 1024});
         }},
        {"CastReflectionRay", 40, [&a, n] { vlkrCastReflectionRay_32f(c0, a.mask.data(), c1, t2, n); }},
        {"CastShadowSO", 52, [&a, n] {
             std::memcpy(shadowMask.data(), a.mask.data(), sizeof(int) * n);
             vlkrCastShadowSO_32f(point, a.f(11), c0, c1, shadowMask.data(), a.f(9), t2, n);
         }},
        {"HitPoint3DEpsS0", 32, [&a, n] { vlkrHitPoint3DEpsS0_32f_M(point, c0, a.f(9), a.mask.data(), t2, n, 0.999f); }},
        {"HitPoint3DEpsM0", 44, [&a, n] { vlkrHitPoint3DEpsM0_32f_M(c1, c0, a.f(9), a.mask.data(), t2, n, 0.999f); }},
        {"TriangleNormal", 40, [&a, n] {
             vlkrTriangleNormal_32f(a.mesh.vertices.data(), a.mesh.triangles.data(), a.triNormals.data(),
                                    std::min(n, a.mesh.triangleCount()));
         }},
        {"SurfFlatNormal", 28, [&a, n] { vlkrSurfFlatNormal_32f(a.triNormals.data(), a.tri.data(), t2, n); }},
        {"SurfSmoothNormal", 76, [&a, n] {
             vlkrSurfSmoothNormal_32f(a.vertexNormals.data(), a.normalIndex.data(), a.tri.data(), uv, t2, n, 4);
         }},
        {"AddMulMul", 44, [&a, n] { vlkrAddMulMul_32f_AC1P3IM(k, a.f(9), c0, a.mask.data(), t2, n); }},
        {"Div", 16, [&a, n] { vlkrDiv_32f_C1IM(a.f(10), a.mask.data(), a.f(11), n); }},
        {"MulC1", 16, [&a, n] { vlkrMul_32f_C1IM(a.f(10), a.mask.data(), a.f(11), n); }},
        {"MulC1P3", 32, [&a, n] { vlkrMul_32f_C1P3IM(a.f(10), a.mask.data(), t2, n); }},
        {"Dot", 32, [&a, n] { vlkrDot_32f_P3C1M(c0, c1, a.mask.data(), a.f(11), n); }},
        {"DotChangeNorm", 44, [&a, n] { vlkrDotChangeNorm_32f_IM(c0, a.mask.data(), t1, a.f(11), n); }},
        {"DistAttenuation", 20, [&a, n] { vlkrDistAttenuationSO_32f_M(point, c0, a.mask.data(), a.f(11), n); }},
    };
}

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    vlkr::bench::RatioReporter reporter;
    static std::vector<Op> ops = operations();
    for (const Op& op : ops) {
        const std::string name = std::string("BM_") + op.name;
        const std::int64_t bytes = std::int64_t(op.bytesPerRay) * kRays;
        benchmark::RegisterBenchmark(name.c_str(), [&op, bytes](benchmark::State& st) {
            for (auto _ : st) {
                op.run();
                benchmark::ClobberMemory();
            }
            st.SetBytesProcessed(st.iterations() * bytes);
            st.SetItemsProcessed(st.iterations() * kRays);
        })->Unit(benchmark::kMicrosecond);
        // A memcpy of half the traffic reads and writes as many bytes as the operation moves.
        const std::string floor = "BM_MemoryFloor/" + std::string(op.name);
        benchmark::RegisterBenchmark(floor.c_str(), [bytes](benchmark::State& st) {
            static std::vector<char> src(std::size_t(76) * kRays / 2 + 64, 1), dst(src.size());
            for (auto _ : st) {
                std::memcpy(dst.data(), src.data(), std::size_t(bytes / 2));
                benchmark::ClobberMemory();
            }
            st.SetBytesProcessed(st.iterations() * bytes);
        })->Unit(benchmark::kMicrosecond);
        reporter.compare(name, floor, "time / memory floor");
    }
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
