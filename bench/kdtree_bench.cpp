// K-d tree build benchmarks on the standard scenes, with tree quality and Embree's builds on
// its SSE2 and native devices beside them.
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "kdtree_decode.h"
#include "ratio_reporter.h"
#include "scenes.h"
#include "vlkr.h"
#ifdef VLKR_HAVE_EMBREE
#include "peers/embree_peer.h"
#endif

namespace {

using vlkr::bench::Mesh;

const std::vector<Mesh>& standardScenes()
{
    static const std::vector<Mesh> scenes = {vlkr::bench::terrain(512),
                                             vlkr::bench::sphereCluster(),
                                             vlkr::bench::randomSoup(100000), vlkr::bench::bunny()};
    return scenes;
}

KDTreeBuildContext sahParams(float quality)
{
    KDTreeBuildContext p{};
    p.mode = KDTreeBuildSAH;
    p.depth = 50;
    p.quality = quality;
    p.memory = 2048;
    p.pBound = nullptr;
    return p;
}

void buildTree(benchmark::State& state, const Mesh* s, float quality)
{
    const KDTreeBuildContext params = sahParams(quality);
    KDTreeNode* tree = nullptr;
    int size = 0;
    for (auto _ : state) {
        if (vlkrKDTreeBuildAlloc(&tree, s->vertices.data(), s->triangles.data(), s->vertexCount(),
                                 s->triangleCount(), &size, &params) != vlkStatusOk) {
            state.SkipWithError("build failed");
            return;
        }
        state.PauseTiming();
        vlkrKDTreeFree(tree);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * s->triangleCount());

    // Tree quality, from one more build.
    vlkrKDTreeBuildAlloc(&tree, s->vertices.data(), s->triangles.data(), s->vertexCount(),
                         s->triangleCount(), &size, &params);
    float box[6];
    vlkrSetBoundBox_32f(s->vertices.data(), s->vertexCount(), box);
    const vlkr::test::TreeInfo info = vlkr::test::decodeTree(tree, size, box, s->triangleCount());
    vlkrKDTreeFree(tree);
    state.counters["sah"] = info.sahCost;
    state.counters["MB"] = size / 1048576.0;
    state.counters["inner"] = info.innerNodes;
    state.counters["leaves"] = info.leaves;
    state.counters["empty"] = info.emptyLeaves;
    state.counters["refs/leaf"] = info.leaves > info.emptyLeaves
                                      ? double(info.triangleRefs) / (info.leaves - info.emptyLeaves)
                                      : 0.0;
    state.counters["depth"] = info.maxDepth;
    if (!info.valid) state.SkipWithError(info.error.c_str());
}

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    using Reporter = vlkr::bench::RatioReporter;
    Reporter reporter;
    reporter.bestOfTable(Reporter::Measure::TimeMs, "ms", {"Embree SSE2", "Embree native"});
    for (const Mesh& s : standardScenes()) {
        const std::string name = "BM_KDTreeBuild/" + s.name;
        benchmark::RegisterBenchmark(name.c_str(), buildTree, &s, 1.0f)
            ->Unit(benchmark::kMillisecond);
#ifdef VLKR_HAVE_EMBREE
        std::vector<std::vector<Reporter::Form>> groups;
        for (vlkr::bench::EmbreeIsa isa : vlkr::bench::kEmbreeIsas)
            groups.push_back({{"high", "BM_EmbreeBuild/" + s.name + "/high/" +
                                           vlkr::bench::embreeIsaName(isa)}});
        reporter.compareBest(s.name + " build", name, groups);
#endif
    }
#ifdef VLKR_HAVE_EMBREE
    vlkr::bench::registerEmbreeBuildBenchmarks();
#endif
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
