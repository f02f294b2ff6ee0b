// Embree 3 as a peer: the benchmark scenes turned into Embree scenes on one thread.
#pragma once

#include <embree3/rtcore.h>

#include "scenes.h"

namespace vlkr::bench {

// One device per process, configured for a single thread so that builds and traversals
// compare with our own single-threaded code. Created on first use and kept until exit.
RTCDevice embreeDevice();

// An Embree scene holding one triangle geometry (geometry id 0) built from a benchmark scene,
// committed and ready for rtcIntersect*/rtcOccluded* on return.
class EmbreeScene {
public:
    EmbreeScene(const Scene& scene, RTCBuildQuality quality);
    ~EmbreeScene();
    EmbreeScene(const EmbreeScene&) = delete;
    EmbreeScene& operator=(const EmbreeScene&) = delete;

    RTCScene handle() const { return scene_; }

private:
    RTCScene scene_ = nullptr;
};

// One full build from the packed arrays, then the release: the unit a build benchmark times.
void embreeBuildAndRelease(const Scene& scene, RTCBuildQuality quality);

// Registers BM_EmbreeBuild/<scene>/high and .../medium for the four standard scenes.
void registerEmbreeBuildBenchmarks();

}  // namespace vlkr::bench
