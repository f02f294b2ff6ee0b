// Ray-tracing benchmarks: scene preparation on a 1M-triangle mesh beside the memcpy floor.
#include <cstring>
#include <vector>

#include <benchmark/benchmark.h>

#include "ratio_reporter.h"
#include "scenes.h"
#include "vlkr.h"

namespace {

using vlkr::bench::Mesh;

// 708 x 708 quads: 1,002,528 triangles over 502,681 vertices.
const Mesh& millionTriangles()
{
    static const Mesh mesh = vlkr::bench::terrain(708);
    return mesh;
}

void copyFloor(benchmark::State& state, size_t bytes)
{
    std::vector<char> src(bytes, 1), dst(bytes);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), bytes);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
}

void BM_SetBoundBox(benchmark::State& state)
{
    const Mesh& s = millionTriangles();
    float box[6];
    for (auto _ : state) {
        vlkrSetBoundBox_32f(s.vertices.data(), s.vertexCount(), box);
        benchmark::DoNotOptimize(box);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * s.vertexCount());
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(s.vertices.size() * 4));
}
BENCHMARK(BM_SetBoundBox);

// The box reads every vertex once: the floor is a copy of the vertex bytes.
void BM_MemcpyVertexBytes(benchmark::State& state)
{
    copyFloor(state, millionTriangles().vertices.size() * 4);
}
BENCHMARK(BM_MemcpyVertexBytes);

void BM_TriangleAccelInit(benchmark::State& state)
{
    const Mesh& s = millionTriangles();
    std::vector<TriangleAccel> accel(s.triangleCount());
    for (auto _ : state) {
        vlkrTriangleAccelInit(accel.data(), s.vertices.data(), s.triangles.data(),
                              s.triangleCount());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * s.triangleCount());
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(s.triangleCount()) * (16 + 40));
}
BENCHMARK(BM_TriangleAccelInit)->Unit(benchmark::kMillisecond);

// The records read 16 index bytes and write 40 record bytes per triangle (vertex reads are
// shared between neighbours and mostly hit the cache).
void BM_MemcpyAccelBytes(benchmark::State& state)
{
    copyFloor(state, size_t(millionTriangles().triangleCount()) * (16 + 40));
}
BENCHMARK(BM_MemcpyAccelBytes)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    vlkr::bench::RatioReporter reporter;
    reporter.compare("BM_SetBoundBox", "BM_MemcpyVertexBytes", "time / memory floor");
    reporter.compare("BM_TriangleAccelInit", "BM_MemcpyAccelBytes", "time / memory floor");
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
