// Embree build times on the standard scenes, the peer for our own k-d tree builder.
#include <string>

#include <benchmark/benchmark.h>

#include "peers/embree_peer.h"

namespace vlkr::bench {

namespace {

// Scenes are made on first use, so a filtered run only pays for the ones it times.
const Scene& terrain512()
{
    static const Scene s = terrain(512);
    return s;
}
const Scene& spheres()
{
    static const Scene s = sphereCluster();
    return s;
}
const Scene& soup100k()
{
    static const Scene s = randomSoup(100000);
    return s;
}
const Scene& bunnyMesh()
{
    static const Scene s = bunny();
    return s;
}

void BM_EmbreeBuild(benchmark::State& state, const Scene& (*scene)(), RTCBuildQuality quality)
{
    const Scene& s = scene();
    embreeDevice();  // device start-up stays out of the timed loop
    for (auto _ : state) embreeBuildAndRelease(s, quality);
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
        const Scene& (*get)();
    };
    const SceneEntry scenes[] = {
        {"terrain512", terrain512}, {"spheres", spheres}, {"soup100k", soup100k}, {"bunny", bunnyMesh}};
    struct QualityEntry {
        const char* name;
        RTCBuildQuality quality;
    };
    const QualityEntry qualities[] = {{"high", RTC_BUILD_QUALITY_HIGH},
                                      {"medium", RTC_BUILD_QUALITY_MEDIUM}};

    for (const SceneEntry& s : scenes)
        for (const QualityEntry& q : qualities) {
            const std::string name = std::string("BM_EmbreeBuild/") + s.name + "/" + q.name;
            benchmark::RegisterBenchmark(name.c_str(), BM_EmbreeBuild, s.get, q.quality)
                ->Unit(benchmark::kMillisecond);
        }
}

}  // namespace vlkr::bench
