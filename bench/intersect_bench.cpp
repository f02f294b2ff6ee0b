// Intersection benchmarks on the standard scenes: eye, shadow, random and layered rays, in
// millions of rays per second, beside Embree 3 on one thread with the same rays, once on its
// SSE2 kernels and once on the widest this machine has.
#include <cfloat>
#include <iterator>
#include <memory>
#include <set>
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
    RaySet eye, shadow, random, eyeOwnOrigins;
#ifdef VLKR_HAVE_EMBREE
    std::unique_ptr<EmbreeScene> embree[std::size(kEmbreeIsas)];
    const EmbreeScene& embreeScene(EmbreeIsa isa) const { return *embree[int(isa)]; }
#endif
    explicit Workload(Mesh m) : scene(std::move(m), KDTreeBuildSAH, kSceneMemory)
    {
        eye = eyeRays(scene.box, kImage, kImage);
        eyeOwnOrigins = eye;
        eyeOwnOrigins.ox.assign(eye.size(), eye.eye[0]);
        eyeOwnOrigins.oy.assign(eye.size(), eye.eye[1]);
        eyeOwnOrigins.oz.assign(eye.size(), eye.eye[2]);
        shadow = shadowRays(scene, eye);
        random = randomRays(scene.box, kRandomRays);
#ifdef VLKR_HAVE_EMBREE
        for (EmbreeIsa isa : kEmbreeIsas)
            embree[int(isa)] =
                std::make_unique<EmbreeScene>(scene.mesh, RTC_BUILD_QUALITY_HIGH, isa);
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

// Rays with their own origins: the random set, or the eye rays given per ray (coherent rays
// as secondary rays often are, which the library walks one after another).
void BM_MO(benchmark::State& state, Workload* w, const RaySet& r)
{
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
        vlkrIntersectMultipleSO_32f(r.eye, dir, dist.data(), hit, tri.data(), &vol, &w->scene.ctx);
        benchmark::ClobberMemory();
    }
    std::size_t hits = 0;
    for (int t : tri) hits += t >= 0;
    state.counters["hits/ray"] = double(hits) / double(r.size());
    countRays(state, r.size());
}

#ifdef VLKR_HAVE_EMBREE
std::size_t tracedShadowRays(const Workload* w)
{
    std::size_t traced = 0;
    for (int m : w->shadow.mask) traced += m >= 0;
    return traced;
}

void BM_EmbreeIntersect1(benchmark::State& state, Workload* w, EmbreeIsa isa)
{
    for (auto _ : state) benchmark::DoNotOptimize(embreeIntersect1(w->embreeScene(isa), w->eye));
    countRays(state, w->eye.size());
}

template <int PW, int PH>
void BM_EmbreePackets(benchmark::State& state, Workload* w, EmbreeIsa isa)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(embreeIntersectPackets(w->embreeScene(isa), w->eye, PW, PH));
    countRays(state, w->eye.size());
}

void BM_EmbreeOccluded1(benchmark::State& state, Workload* w, EmbreeIsa isa)
{
    for (auto _ : state) benchmark::DoNotOptimize(embreeOccluded1(w->embreeScene(isa), w->shadow));
    countRays(state, tracedShadowRays(w));
}

void BM_EmbreeOccluded4(benchmark::State& state, Workload* w, EmbreeIsa isa)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(embreeOccludedPackets(w->embreeScene(isa), w->shadow, 2, 2));
    countRays(state, tracedShadowRays(w));
}

void BM_EmbreeRandom1(benchmark::State& state, Workload* w, EmbreeIsa isa)
{
    for (auto _ : state) benchmark::DoNotOptimize(embreeIntersect1(w->embreeScene(isa), w->random));
    countRays(state, w->random.size());
}

void BM_EmbreeRandom4(benchmark::State& state, Workload* w, EmbreeIsa isa)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(embreeIntersectPackets(w->embreeScene(isa), w->random, 4, 1));
    countRays(state, w->random.size());
}

void BM_EmbreeLayers(benchmark::State& state, Workload* w, EmbreeIsa isa)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(embreeLayers(w->embreeScene(isa), w->eye, kLayers));
    countRays(state, w->eye.size());
}

// The peer forms that trace each kind of ray, registered per scene and device; the table puts
// our row beside the fastest form on each device.
struct PeerForm {
    const char* label;
    const char* name;
    void (*run)(benchmark::State&, Workload*, EmbreeIsa);
};
struct RayKind {
    const char* label;
    const char* ours;
    std::vector<PeerForm> forms;
};
const std::vector<RayKind>& rayKinds()
{
    static const std::vector<RayKind> kinds = {
        {"eye",
         "BM_EyeSO",
         {{"rtcIntersect1", "BM_EmbreeIntersect1", BM_EmbreeIntersect1},
          {"rtcIntersect4", "BM_EmbreeIntersect4", BM_EmbreePackets<2, 2>},
          {"rtcIntersect8", "BM_EmbreeIntersect8", BM_EmbreePackets<4, 2>},
          {"rtcIntersect16", "BM_EmbreeIntersect16", BM_EmbreePackets<4, 4>}}},
        {"shadow",
         "BM_AnySO",
         {{"rtcOccluded1", "BM_EmbreeOccluded1", BM_EmbreeOccluded1},
          {"rtcOccluded4", "BM_EmbreeOccluded4", BM_EmbreeOccluded4}}},
        {"random",
         "BM_MO",
         {{"rtcIntersect1", "BM_EmbreeRandom1", BM_EmbreeRandom1},
          {"rtcIntersect4", "BM_EmbreeRandom4", BM_EmbreeRandom4}}},
        {"layers", "BM_Layers4", {{"rtcIntersect1", "BM_EmbreeLayers4", BM_EmbreeLayers}}},
        {"eye as MO",
         "BM_MOEye",
         {{"rtcIntersect1", "BM_EmbreeIntersect1", BM_EmbreeIntersect1},
          {"rtcIntersect4", "BM_EmbreeIntersect4", BM_EmbreePackets<2, 2>}}},
    };
    return kinds;
}
#endif

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    reporter.bestOfTable(RatioReporter::Measure::MItemsPerSecond, "Mrays/s",
                         {"Embree SSE2", "Embree native"});
    std::set<std::string> registered;
    for (auto& w : workloads()) {
        const std::string s = "/" + w->scene.mesh.name;
        auto reg = [&](const std::string& name, auto fn) {
            benchmark::RegisterBenchmark(name.c_str(), fn)->Unit(benchmark::kMillisecond);
        };
        Workload* p = w.get();
        reg("BM_EyeSO" + s, [p](benchmark::State& st) { BM_EyeSO(st, p); });
        reg("BM_AnySO" + s, [p](benchmark::State& st) { BM_AnySO(st, p); });
        reg("BM_MO" + s, [p](benchmark::State& st) { BM_MO(st, p, p->random); });
        reg("BM_MOEye" + s, [p](benchmark::State& st) { BM_MO(st, p, p->eyeOwnOrigins); });
        reg("BM_Layers4" + s, [p](benchmark::State& st) { BM_Layers(st, p); });
#ifdef VLKR_HAVE_EMBREE
        for (const RayKind& kind : rayKinds()) {
            std::vector<std::vector<RatioReporter::Form>> groups;
            for (EmbreeIsa isa : kEmbreeIsas) {
                groups.emplace_back();
                for (const PeerForm& f : kind.forms) {
                    const std::string name = f.name + s + "/" + embreeIsaName(isa);
                    if (registered.insert(name).second)  // rows may share a peer's run
                        reg(name, [p, isa, run = f.run](benchmark::State& st) { run(st, p, isa); });
                    groups.back().push_back({f.label, name});
                }
            }
            reporter.compareBest(w->scene.mesh.name + " " + kind.label, kind.ours + s, groups);
        }
#endif
    }
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
