// Embree 3 as a peer: the benchmark scenes turned into Embree scenes on one thread, and our
// ray sets traced through them.
#pragma once

#include <cstddef>
#include <vector>

#include <embree3/rtcore.h>

#include "ray_sets.h"
#include "scenes.h"

namespace vlkr::bench {

// The Embree kernels a peer benchmark runs on: SSE2 only, the floor of every x86-64 machine
// and so the fairest match for our own code, or the widest this machine has.
enum class EmbreeIsa { Sse2, Native };
constexpr EmbreeIsa kEmbreeIsas[] = {EmbreeIsa::Sse2, EmbreeIsa::Native};

// "sse2" or "native", the suffix of the benchmark names.
const char* embreeIsaName(EmbreeIsa isa);

// One device per kind, configured for a single thread so that builds and traversals compare
// with our own single-threaded code. Created on first use, which reports on stderr the packet
// widths Embree runs natively on it, and kept until exit.
RTCDevice embreeDevice(EmbreeIsa isa);

// An Embree scene holding one triangle geometry (geometry id 0) built from a benchmark mesh on
// the given device, committed and ready for rtcIntersect*/rtcOccluded* on return.
class EmbreeScene {
   public:
    EmbreeScene(const Mesh& mesh, RTCBuildQuality quality, EmbreeIsa isa);
    ~EmbreeScene();
    EmbreeScene(const EmbreeScene&) = delete;
    EmbreeScene& operator=(const EmbreeScene&) = delete;

    RTCScene handle() const { return scene_; }

   private:
    RTCScene scene_ = nullptr;
};

// One full build from the packed arrays, then the release: the unit a build benchmark times.
void embreeBuildAndRelease(const Mesh& mesh, RTCBuildQuality quality, EmbreeIsa isa);

// Registers BM_EmbreeBuild/<scene>/<quality>/<isa> for the four standard scenes, the qualities
// high and medium and both devices.
void registerEmbreeBuildBenchmarks();

// Ray queries over our ray sets. Rays start at their own origin when the set has ox/oy/oz,
// else at its shared eye; directions are used as given, not normalised.

// Nearest hits of every ray with rtcIntersect1, one ray at a time; returns the hit count and,
// if `tOut` is given, fills it with the hit distance per ray (+inf for misses) and `primOut` with
// primID (-1 miss).
std::size_t embreeIntersect1(const EmbreeScene&, const RaySet&, std::vector<float>* tOut = nullptr,
                             std::vector<int>* primOut = nullptr);

// The same with rtcIntersect4 / 8 / 16 on packetW x packetH pixel tiles (2x2, 4x2, 4x4) of the
// width x height image; partial tiles at the image edge use the valid mask. Same outputs.
// A one-row set (random rays) is cut into runs of packetW * packetH rays instead, so that
// no lanes go empty. Any tile of 4, 8 or 16 rays is accepted; other sizes abort.
std::size_t embreeIntersectPackets(const EmbreeScene&, const RaySet&, int packetW, int packetH,
                                   std::vector<float>* tOut = nullptr,
                                   std::vector<int>* primOut = nullptr);

// Occlusion with rtcOccluded1 for rays whose mask is >= 0 (every ray when the set has no
// mask), segment tnear = 0, tfar = 1 (use the largest float below 1.0f for tfar so that a
// blocker exactly at t = 1 is not counted); returns the occluded count.
std::size_t embreeOccluded1(const EmbreeScene&, const RaySet&);

// The same occlusion with rtcOccluded4 / 8 / 16 on packetW x packetH pixel tiles, masked rays
// leaving their lanes empty; a tile with no ray to trace is skipped.
std::size_t embreeOccludedPackets(const EmbreeScene&, const RaySet&, int packetW, int packetH);

// Up to `layers` successive hits per ray (rtcIntersect1 repeatedly, restarting from the hit point
// with a small tnear, like a layered query); returns the total number of hits.
std::size_t embreeLayers(const EmbreeScene&, const RaySet&, int layers);

}  // namespace vlkr::bench
