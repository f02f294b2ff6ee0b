// Embree 3 as a peer: the benchmark scenes turned into Embree scenes on one thread, and our
// ray sets traced through them.
#pragma once

#include <cstddef>
#include <vector>

#include <embree3/rtcore.h>

#include "ray_sets.h"
#include "scenes.h"

namespace vlkr::bench {

// One device per process, configured for a single thread so that builds and traversals
// compare with our own single-threaded code. Created on first use and kept until exit.
RTCDevice embreeDevice();

// An Embree scene holding one triangle geometry (geometry id 0) built from a benchmark mesh,
// committed and ready for rtcIntersect*/rtcOccluded* on return.
class EmbreeScene {
public:
    EmbreeScene(const Mesh& mesh, RTCBuildQuality quality);
    ~EmbreeScene();
    EmbreeScene(const EmbreeScene&) = delete;
    EmbreeScene& operator=(const EmbreeScene&) = delete;

    RTCScene handle() const { return scene_; }

private:
    RTCScene scene_ = nullptr;
};

// One full build from the packed arrays, then the release: the unit a build benchmark times.
void embreeBuildAndRelease(const Mesh& mesh, RTCBuildQuality quality);

// Registers BM_EmbreeBuild/<scene>/high and .../medium for the four standard scenes.
void registerEmbreeBuildBenchmarks();

// Ray queries over our ray sets. Rays start at their own origin when the set has ox/oy/oz,
// else at its shared eye; directions are used as given, not normalised.

// Nearest hits of every ray with rtcIntersect1, one ray at a time; returns the hit count and,
// if `tOut` is given, fills it with the hit distance per ray (+inf for misses) and `primOut` with primID (-1 miss).
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

// Up to `layers` successive hits per ray (rtcIntersect1 repeatedly, restarting from the hit point
// with a small tnear, like a layered query); returns the total number of hits.
std::size_t embreeLayers(const EmbreeScene&, const RaySet&, int layers);

}  // namespace vlkr::bench
