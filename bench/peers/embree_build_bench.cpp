// Embree build times on the standard scenes, the peer for our own k-d tree builder.
#include <string>

#include <benchmark/benchmark.h>

#include "peers/embree_peer.h"

namespace vlkr::bench {

namespace {

// Scenes are made on first use, so a filtered run only pays for the ones it times.
const Mesh& terrain512()
{
    static const Mesh s = terrain(512);
    return s;
}
const Mesh& spheres()
{
    static const Mesh s = sphereCluster();
    return s;
}
const Mesh& soup100k()
{
    static const Mesh s = randomSoup(100000);
    return s;
}
const Mesh& bunnyMesh()
{
    static const Mesh s = bunny();
    return s;
}

void BM_EmbreeBuild(benchmark::State& state, const Mesh& (*scene)(), RTCBuildQuality quality,
                    EmbreeIsa isa)
{
    const Mesh& s = scene();
    embreeDevice(isa);  // device start-up stays out of the timed loop
    for (auto _ : state) embreeBuildAndRelease(s, quality, isa);
    state.SetItemsProcessed(int64_t(state.iterations()) * s.triangleCount());
}

}  // namespace

void registerEmbreeBuildBenchmarks()
{
    static bool registered = false;
    if (registered) return;
    registered = true;

    struct SceneEntry {
        const char* name;
        const Mesh& (*get)();
    };
    const SceneEntry scenes[] = {{"terrain512", terrain512},
                                 {"spheres", spheres},
                                 {"soup100k", soup100k},
                                 {"bunny", bunnyMesh}};
    struct QualityEntry {
        const char* name;
        RTCBuildQuality quality;
    };
    const QualityEntry qualities[] = {{"high", RTC_BUILD_QUALITY_HIGH},
                                      {"medium", RTC_BUILD_QUALITY_MEDIUM}};

    for (const SceneEntry& s : scenes)
        for (const QualityEntry& q : qualities)
            for (EmbreeIsa isa : kEmbreeIsas) {
                const std::string name = std::string("BM_EmbreeBuild/") + s.name + "/" + q.name +
                                         "/" + embreeIsaName(isa);
                benchmark::RegisterBenchmark(name.c_str(), BM_EmbreeBuild, s.get, q.quality, isa)
                    ->Unit(benchmark::kMillisecond);
            }
}

}  // namespace vlkr::bench
