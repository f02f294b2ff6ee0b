// Intersection benchmarks on the standard scenes: eye, shadow, random and layered rays, in
// millions of rays per second, beside Embree 3 on one thread with the same rays.
#include <cfloat>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "ratio_reporter.h"
#include "ray_sets.h"
#include "scenes.h"
#include "vlkr.h"
#ifdef VLKR_HAVE_EMBREE
#include "peers/embree_peer.h"
#endif

namespace {

using namespace vlkr::bench;

constexpr int kImage = 1024;
constexpr std::size_t kRandomRays = 1000000;
constexpr int kLayers = 4;

// Everything one scene's benchmarks need, made once.
struct Workload {
    Scene scene;
    RaySet eye, shadow, random;
#ifdef VLKR_HAVE_EMBREE
    std::unique_ptr<EmbreeScene> embree;
#endif
    explicit Workload(Mesh m) : scene(std::move(m), KDTreeBuildSAH, kSceneMemory)
    {
        eye = eyeRays(scene.box, kImage, kImage);
        shadow = shadowRays(scene, eye);
        random = randomRays(scene.box, kRandomRays);
#ifdef VLKR_HAVE_EMBREE
        embree = std::make_unique<EmbreeScene>(scene.mesh, RTC_BUILD_QUALITY_HIGH);
#endif
    }
};

std::vector<std::unique_ptr<Workload>>& workloads()
{
    static std::vector<std::unique_ptr<Workload>> all;
    if (all.empty()) {
        all.push_back(std::make_unique<Workload>(terrain(512)));
        all.push_back(std::make_unique<Workload>(sphereCluster()));
        all.push_back(std::make_unique<Workload>(randomSoup(100000)));
        all.push_back(std::make_unique<Workload>(bunny()));
    }
    return all;
}

void countRays(benchmark::State& state, std::size_t rays)
{
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(rays));
}

void BM_EyeSO(benchmark::State& state, Workload* w)
{
    const RaySet& r = w->eye;
    std::vector<float> dist(r.size()), u(r.size()), v(r.size());
    std::vector<int> tri(r.size());
    const float* dir[3] = {r.dx.data(), r.dy.data(), r.dz.data()};
    float* hit[2] = {u.data(), v.data()};
    std::size_t hits = 0;
    for (auto _ : state) {
        std::fill(dist.begin(), dist.end(), FLT_MAX);
        vlkrIntersectEyeSO_32f(r.eye, dir, dist.data(), hit, tri.data(), &w->scene.ctx,
                               PacketSize{r.width, r.height});
        benchmark::ClobberMemory();
    }
    for (int t : tri) hits += t >= 0;
    state.counters["hit%"] = 100.0 * double(hits) / double(r.size());
    countRays(state, r.size());
}

void BM_AnySO(benchmark::State& state, Workload* w)
{
    const RaySet& r = w->shadow;
    std::vector<int> mask(r.size()), tri(r.size());
    const float* dir[3] = {r.dx.data(), r.dy.data(), r.dz.data()};
    std::size_t traced = 0, occluded = 0;
    for (int m : r.mask) traced += m >= 0;
    for (auto _ : state) {
        mask = r.mask;
        vlkrIntersectAnySO_32f(r.eye, dir, tri.data(), mask.data(), PacketSize{r.width, r.height},
                               &w->scene.ctx);
        benchmark::ClobberMemory();
    }
    for (int t : tri) occluded += t >= 0;
    state.counters["occluded%"] = 100.0 * double(occluded) / double(traced);
    countRays(state, traced);
}

void BM_MO(benchmark::State& state, Workload* w)
{
    const RaySet& r = w->random;
    std::vector<float> dist(r.size()), u(r.size()), v(r.size());
    std::vector<int> tri(r.size());
    const float* org[3] = {r.ox.data(), r.oy.data(), r.oz.data()};
    const float* dir[3] = {r.dx.data(), r.dy.data(), r.dz.data()};
    float* hit[2] = {u.data(), v.data()};
    for (auto _ : state) {
        std::fill(dist.begin(), dist.end(), FLT_MAX);
        vlkrIntersectMO_32f(org, dir, dist.data(), hit, tri.data(), &w->scene.ctx,
                            PacketSize{r.width, r.height});
        benchmark::ClobberMemory();
    }
    countRays(state, r.size());
}

void BM_Layers(benchmark::State& state, Workload* w)
{
    const RaySet& r = w->eye;
    const std::size_t n = r.size() * kLayers;
    std::vector<float> dist(n), u(n), v(n);
    std::vector<int> tri(n);
    const float* dir[3] = {r.dx.data(), r.dy.data(), r.dz.data()};
    float* hit[2] = {u.data(), v.data()};
    const VolumeSize vol{r.width, r.height, kLayers};
    for (auto _ : state) {
        std::fill(dist.begin(), dist.begin() + r.size(), FLT_MAX);
        vlkrIntersectMultipleSO_32f(r.eye, dir, dist.data(), hit, tri.data(), &vol,
                                    &w->scene.ctx);
        benchmark::ClobberMemory();
    }
    std::size_t hits = 0;
    for (int t : tri) hits += t >= 0;
    state.counters["hits/ray"] = double(hits) / double(r.size());
    countRays(state, r.size());
}

#ifdef VLKR_HAVE_EMBREE
void BM_EmbreeIntersect1(benchmark::State& state, Workload* w)
{
    for (auto _ : state) benchmark::DoNotOptimize(embreeIntersect1(*w->embree, w->eye));
    countRays(state, w->eye.size());
}

void BM_EmbreePackets(benchmark::State& state, Workload* w, int pw, int ph)
{
    for (auto _ : state) benchmark::DoNotOptimize(embreeIntersectPackets(*w->embree, w->eye, pw, ph));
    countRays(state, w->eye.size());
}

void BM_EmbreeOccluded1(benchmark::State& state, Workload* w)
{
    std::size_t traced = 0;
    for (int m : w->shadow.mask) traced += m >= 0;
    for (auto _ : state) benchmark::DoNotOptimize(embreeOccluded1(*w->embree, w->shadow));
    countRays(state, traced);
}

void BM_EmbreeRandom1(benchmark::State& state, Workload* w)
{
    for (auto _ : state) benchmark::DoNotOptimize(embreeIntersect1(*w->embree, w->random));
    countRays(state, w->random.size());
}

void BM_EmbreeLayers(benchmark::State& state, Workload* w)
{
    for (auto _ : state) benchmark::DoNotOptimize(embreeLayers(*w->embree, w->eye, kLayers));
    countRays(state, w->eye.size());
}
#endif

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    for (auto& w : workloads()) {
        const std::string s = "/" + w->scene.mesh.name;
        auto reg = [&](const std::string& name, auto fn) {
            benchmark::RegisterBenchmark((name + s).c_str(), fn)->Unit(benchmark::kMillisecond);
        };
        Workload* p = w.get();
        reg("BM_EyeSO", [p](benchmark::State& st) { BM_EyeSO(st, p); });
        reg("BM_AnySO", [p](benchmark::State& st) { BM_AnySO(st, p); });
        reg("BM_MO", [p](benchmark::State& st) { BM_MO(st, p); });
        reg("BM_Layers4", [p](benchmark::State& st) { BM_Layers(st, p); });
#ifdef VLKR_HAVE_EMBREE
        reg("BM_EmbreeIntersect1", [p](benchmark::State& st) { BM_EmbreeIntersect1(st, p); });
        reg("BM_EmbreeIntersect4", [p](benchmark::State& st) { BM_EmbreePackets(st, p, 2, 2); });
        reg("BM_EmbreeIntersect8", [p](benchmark::State& st) { BM_EmbreePackets(st, p, 4, 2); });
        reg("BM_EmbreeIntersect16", [p](benchmark::State& st) { BM_EmbreePackets(st, p, 4, 4); });
        reg("BM_EmbreeOccluded1", [p](benchmark::State& st) { BM_EmbreeOccluded1(st, p); });
        reg("BM_EmbreeRandom1", [p](benchmark::State& st) { BM_EmbreeRandom1(st, p); });
        reg("BM_EmbreeLayers4", [p](benchmark::State& st) { BM_EmbreeLayers(st, p); });
#endif
        const char* label = "our rays/s / Embree's";
        for (const char* peer : {"BM_EmbreeIntersect1", "BM_EmbreeIntersect4", "BM_EmbreeIntersect8",
                                 "BM_EmbreeIntersect16"})
            reporter.compare(peer + s, "BM_EyeSO" + s, label);
        reporter.compare("BM_EmbreeOccluded1" + s, "BM_AnySO" + s, label);
        reporter.compare("BM_EmbreeRandom1" + s, "BM_MO" + s, label);
        reporter.compare("BM_EmbreeLayers4" + s, "BM_Layers4" + s, label);
    }
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
