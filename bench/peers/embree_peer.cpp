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

const char* deviceConfig(EmbreeIsa isa)
{
    return isa == EmbreeIsa::Sse2 ? "threads=1,isa=sse2" : "threads=1";
}

struct DeviceHolder {
    RTCDevice device = nullptr;
    explicit DeviceHolder(EmbreeIsa isa)
    {
        device = rtcNewDevice(deviceConfig(isa));
        if (!device) {
            std::fprintf(stderr, "embree: cannot create device \"%s\" (error %d)\n",
                         deviceConfig(isa), int(rtcGetDeviceError(nullptr)));
            std::abort();
        }
        rtcSetDeviceErrorFunction(device, onEmbreeError, nullptr);
        // Embree takes an ISA name it does not know without an error, so each run shows which
        // packet widths the device really traces natively (8 and 16 need AVX and AVX-512).
        auto native = [&](RTCDeviceProperty p) { return rtcGetDeviceProperty(device, p) ? 1 : 0; };
        std::fprintf(stderr, "embree device \"%s\": native packets 4/8/16 = %d/%d/%d\n",
                     deviceConfig(isa), native(RTC_DEVICE_PROPERTY_NATIVE_RAY4_SUPPORTED),
                     native(RTC_DEVICE_PROPERTY_NATIVE_RAY8_SUPPORTED),
                     native(RTC_DEVICE_PROPERTY_NATIVE_RAY16_SUPPORTED));
    }
    ~DeviceHolder() { rtcReleaseDevice(device); }
};

RTCScene buildScene(const Mesh& s, RTCBuildQuality quality, EmbreeIsa isa)
{
    RTCDevice device = embreeDevice(isa);
    RTCScene scene = rtcNewScene(device);
    rtcSetSceneBuildQuality(scene, quality);

    RTCGeometry geom = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
    rtcSetGeometryBuildQuality(geom, quality);

    // Embree's own vertex buffer is over-allocated for its 16-byte loads past the last vertex,
    // which our packed array is not; the copy also drops the unused fourth index word.
    const size_t nv = size_t(s.vertexCount()), nt = size_t(s.triangleCount());
    auto* v = static_cast<float*>(rtcSetNewGeometryBuffer(
        geom, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, 3 * sizeof(float), nv));
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

const char* embreeIsaName(EmbreeIsa isa) { return isa == EmbreeIsa::Sse2 ? "sse2" : "native"; }

RTCDevice embreeDevice(EmbreeIsa isa)
{
    if (isa == EmbreeIsa::Sse2) {
        static DeviceHolder sse2(EmbreeIsa::Sse2);
        return sse2.device;
    }
    static DeviceHolder native(EmbreeIsa::Native);
    return native.device;
}

EmbreeScene::EmbreeScene(const Mesh& mesh, RTCBuildQuality quality, EmbreeIsa isa)
    : scene_(buildScene(mesh, quality, isa))
{
}

EmbreeScene::~EmbreeScene() { rtcReleaseScene(scene_); }

void embreeBuildAndRelease(const Mesh& mesh, RTCBuildQuality quality, EmbreeIsa isa)
{
    rtcReleaseScene(buildScene(mesh, quality, isa));
}

}  // namespace vlkr::bench
