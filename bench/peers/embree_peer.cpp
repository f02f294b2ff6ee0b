#include "peers/embree_peer.h"

#include <cstdio>
#include <cstdlib>

namespace vlkr::bench {

namespace {

// A peer that fails silently would time nothing, so any Embree error ends the run.
void onEmbreeError(void*, RTCError code, const char* message)
{
    std::fprintf(stderr, "embree error %d: %s\n", int(code), message ? message : "");
    std::abort();
}

struct DeviceHolder {
    RTCDevice device = nullptr;
    DeviceHolder()
    {
        device = rtcNewDevice("threads=1");
        if (!device) {
            std::fprintf(stderr, "embree: cannot create device (error %d)\n",
                         int(rtcGetDeviceError(nullptr)));
            std::abort();
        }
        rtcSetDeviceErrorFunction(device, onEmbreeError, nullptr);
    }
    ~DeviceHolder() { rtcReleaseDevice(device); }
};

RTCScene buildScene(const Mesh& s, RTCBuildQuality quality)
{
    RTCDevice device = embreeDevice();
    RTCScene scene = rtcNewScene(device);
    rtcSetSceneBuildQuality(scene, quality);

    RTCGeometry geom = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
    rtcSetGeometryBuildQuality(geom, quality);

    // Embree's own vertex buffer is over-allocated for its 16-byte loads past the last vertex,
    // which our packed array is not; the copy also drops the unused fourth index word.
    const size_t nv = size_t(s.vertexCount()), nt = size_t(s.triangleCount());
    auto* v = static_cast<float*>(rtcSetNewGeometryBuffer(geom, RTC_BUFFER_TYPE_VERTEX, 0,
                                                          RTC_FORMAT_FLOAT3, 3 * sizeof(float), nv));
    for (size_t i = 0; i < 3 * nv; ++i) v[i] = s.vertices[i];
    auto* idx = static_cast<unsigned*>(rtcSetNewGeometryBuffer(
        geom, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 3 * sizeof(unsigned), nt));
    for (size_t t = 0; t < nt; ++t)
        for (size_t k = 0; k < 3; ++k) idx[3 * t + k] = unsigned(s.triangles[4 * t + k]);

    rtcCommitGeometry(geom);
    rtcAttachGeometry(scene, geom);
    rtcReleaseGeometry(geom);  // the scene holds its own reference
    rtcCommitScene(scene);
    return scene;
}

}  // namespace

RTCDevice embreeDevice()
{
    static DeviceHolder holder;
    return holder.device;
}

EmbreeScene::EmbreeScene(const Mesh& mesh, RTCBuildQuality quality)
    : scene_(buildScene(mesh, quality))
{
}

EmbreeScene::~EmbreeScene() { rtcReleaseScene(scene_); }

void embreeBuildAndRelease(const Mesh& mesh, RTCBuildQuality quality)
{
    rtcReleaseScene(buildScene(mesh, quality));
}

}  // namespace vlkr::bench
