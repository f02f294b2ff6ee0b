// Embree's ray queries over our ray sets: single rays, packets, occlusion and layered hits.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "peers/embree_peer.h"

namespace vlkr::bench {

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();

// The far end of a shadow segment: Embree accepts a hit at t <= tfar, and one step below 1
// leaves a blocker at t = 1 out.
const float kShadowFar = std::nextafter(1.0f, 0.0f);

// Successive layers start this far past the previous hit, relative to the size of the hit
// point's coordinates: well above the rounding of the new origin, so the surface just left is
// not found again unless the ray grazes it.
constexpr float kLayerRelativeNear = 1e-5f;

// Ray origins: per ray when the set has them, else the shared eye.
struct Origins {
    const float* x = nullptr;
    const float* y = nullptr;
    const float* z = nullptr;
    float eye[3] = {0, 0, 0};

    explicit Origins(const RaySet& r)
    {
        if (!r.ox.empty()) {
            x = r.ox.data();
            y = r.oy.data();
            z = r.oz.data();
        }
        for (int k = 0; k < 3; ++k) eye[k] = r.eye[k];
    }
    bool perRay() const { return x != nullptr; }
};

void setRay(RTCRay& ray, const Origins& o, const RaySet& r, std::size_t i, float tnear, float tfar)
{
    ray.org_x = o.perRay() ? o.x[i] : o.eye[0];
    ray.org_y = o.perRay() ? o.y[i] : o.eye[1];
    ray.org_z = o.perRay() ? o.z[i] : o.eye[2];
    ray.tnear = tnear;
    ray.dir_x = r.dx[i];
    ray.dir_y = r.dy[i];
    ray.dir_z = r.dz[i];
    ray.time = 0.0f;
    ray.tfar = tfar;
    ray.mask = 0xFFFFFFFFu;
    ray.id = unsigned(i);
    ray.flags = 0;
}

// Outputs sized up front so the loops only store; misses keep +inf and -1.
void prepareOutputs(std::size_t n, std::vector<float>* tOut, std::vector<int>* primOut)
{
    if (tOut) tOut->assign(n, kInf);
    if (primOut) primOut->assign(n, -1);
}

template <class RayHitN>
using PacketQuery = void (*)(const int*, RTCScene, RTCIntersectContext*, RayHitN*);
template <class RayN>
using OcclusionQuery = void (*)(const int*, RTCScene, RTCIntersectContext*, RayN*);

// Walks the tiles of the image with one packet type, loading each tile into `ray` and calling
// trace(valid, index) for every tile with a ray to trace. The fields Embree does not write
// (tnear, time, mask, flags, and the origins of a shared-eye set) are filled once; each tile
// reloads the directions and tfar. Rays outside the image, and with `masked` those whose mask
// is negative, leave their lane empty.
template <int N, class RayN, class Trace>
void forEachTile(const RaySet& r, bool masked, int tileW, int tileH, float tfar, RayN& ray,
                 Trace&& trace)
{
    const int* mask = masked && !r.mask.empty() ? r.mask.data() : nullptr;
    const int width = r.width, height = r.height;
    const Origins o(r);
    for (int l = 0; l < N; ++l) {
        ray.org_x[l] = o.eye[0];
        ray.org_y[l] = o.eye[1];
        ray.org_z[l] = o.eye[2];
        ray.tnear[l] = 0.0f;
        ray.dir_x[l] = ray.dir_y[l] = ray.dir_z[l] = 1.0f;
        ray.time[l] = 0.0f;
        ray.mask[l] = 0xFFFFFFFFu;
        ray.id[l] = unsigned(l);
        ray.flags[l] = 0;
    }
    alignas(64) int valid[N];
    std::size_t index[N];
    for (int ty = 0; ty < height; ty += tileH)
        for (int tx = 0; tx < width; tx += tileW) {
            const int cw = width - tx < tileW ? width - tx : tileW;
            const int ch = height - ty < tileH ? height - ty : tileH;
            int live = 0;
            for (int row = 0; row < tileH; ++row) {
                const std::size_t base = std::size_t(ty + row) * std::size_t(width) + tx;
                for (int col = 0; col < tileW; ++col) {
                    const int l = row * tileW + col;
                    ray.tfar[l] = tfar;
                    // Empty lanes keep whatever they held; Embree ignores them.
                    const std::size_t i = base + col;
                    if (row >= ch || col >= cw || (mask && mask[i] < 0)) {
                        valid[l] = 0;
                        continue;
                    }
                    valid[l] = -1;
                    index[l] = i;
                    ++live;
                    if (o.perRay()) {
                        ray.org_x[l] = o.x[i];
                        ray.org_y[l] = o.y[i];
                        ray.org_z[l] = o.z[i];
                    }
                    ray.dir_x[l] = r.dx[i];
                    ray.dir_y[l] = r.dy[i];
                    ray.dir_z[l] = r.dz[i];
                }
            }
            if (live) trace(static_cast<const int*>(valid), static_cast<const std::size_t*>(index));
        }
}

template <int N, class RayHitN>
std::size_t intersectTiles(PacketQuery<RayHitN> query, const EmbreeScene& scene, const RaySet& r,
                           int tileW, int tileH, float* tOut, int* primOut)
{
    RTCIntersectContext ctx;
    rtcInitIntersectContext(&ctx);
    RayHitN rh;  // the Embree type carries its own 16/32/64-byte alignment
    for (int l = 0; l < N; ++l) rh.hit.instID[0][l] = RTC_INVALID_GEOMETRY_ID;
    std::size_t hits = 0;
    forEachTile<N>(r, false, tileW, tileH, kInf, rh.ray,
                   [&](const int* valid, const std::size_t* index) {
                       for (int l = 0; l < N; ++l) rh.hit.geomID[l] = RTC_INVALID_GEOMETRY_ID;
                       query(valid, scene.handle(), &ctx, &rh);
                       for (int l = 0; l < N; ++l) {
                           if (!valid[l] || rh.hit.geomID[l] == RTC_INVALID_GEOMETRY_ID) continue;
                           ++hits;
                           if (tOut) tOut[index[l]] = rh.ray.tfar[l];
                           if (primOut) primOut[index[l]] = int(rh.hit.primID[l]);
                       }
                   });
    return hits;
}

template <int N, class RayN>
std::size_t occludeTiles(OcclusionQuery<RayN> query, const EmbreeScene& scene, const RaySet& r,
                         int tileW, int tileH)
{
    RTCIntersectContext ctx;
    rtcInitIntersectContext(&ctx);
    RayN ray;
    std::size_t occluded = 0;
    forEachTile<N>(r, true, tileW, tileH, kShadowFar, ray,
                   [&](const int* valid, const std::size_t*) {
                       query(valid, scene.handle(), &ctx, &ray);
                       for (int l = 0; l < N; ++l) occluded += valid[l] && ray.tfar[l] < 0.0f;
                   });
    return occluded;
}

// The packet width for a tile, a one-row set (random rays) taking runs of the same number of
// rays instead, since square tiles of a single row would leave lanes empty in every packet.
int packetLanes(const RaySet& r, int& packetW, int& packetH, const char* caller)
{
    if (r.height == 1) {
        packetW *= packetH;
        packetH = 1;
    }
    const int lanes = packetW > 0 && packetH > 0 ? packetW * packetH : 0;
    if (lanes != 4 && lanes != 8 && lanes != 16) {
        std::fprintf(stderr, "%s: no packet of %d x %d rays\n", caller, packetW, packetH);
        std::abort();
    }
    return lanes;
}

}  // namespace

std::size_t embreeIntersect1(const EmbreeScene& scene, const RaySet& r, std::vector<float>* tOut,
                             std::vector<int>* primOut)
{
    const std::size_t n = r.size();
    prepareOutputs(n, tOut, primOut);
    float* t = tOut ? tOut->data() : nullptr;
    int* prim = primOut ? primOut->data() : nullptr;
    const Origins o(r);
    RTCIntersectContext ctx;
    rtcInitIntersectContext(&ctx);
    RTCRayHit rh;
    std::size_t hits = 0;
    for (std::size_t i = 0; i < n; ++i) {
        setRay(rh.ray, o, r, i, 0.0f, kInf);
        rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
        rh.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
        rtcIntersect1(scene.handle(), &ctx, &rh);
        if (rh.hit.geomID == RTC_INVALID_GEOMETRY_ID) continue;
        ++hits;
        if (t) t[i] = rh.ray.tfar;
        if (prim) prim[i] = int(rh.hit.primID);
    }
    return hits;
}

std::size_t embreeIntersectPackets(const EmbreeScene& scene, const RaySet& r, int packetW,
                                   int packetH, std::vector<float>* tOut, std::vector<int>* primOut)
{
    prepareOutputs(r.size(), tOut, primOut);
    float* t = tOut ? tOut->data() : nullptr;
    int* prim = primOut ? primOut->data() : nullptr;
    switch (packetLanes(r, packetW, packetH, "embreeIntersectPackets")) {
        case 4:
            return intersectTiles<4, RTCRayHit4>(rtcIntersect4, scene, r, packetW, packetH, t,
                                                 prim);
        case 8:
            return intersectTiles<8, RTCRayHit8>(rtcIntersect8, scene, r, packetW, packetH, t,
                                                 prim);
        default:
            return intersectTiles<16, RTCRayHit16>(rtcIntersect16, scene, r, packetW, packetH, t,
                                                   prim);
    }
}

std::size_t embreeOccluded1(const EmbreeScene& scene, const RaySet& r)
{
    const Origins o(r);
    RTCIntersectContext ctx;
    rtcInitIntersectContext(&ctx);
    RTCRay ray;
    std::size_t occluded = 0;
    for (std::size_t i = 0, n = r.size(); i < n; ++i) {
        if (!r.mask.empty() && r.mask[i] < 0) continue;
        setRay(ray, o, r, i, 0.0f, kShadowFar);
        rtcOccluded1(scene.handle(), &ctx, &ray);
        if (ray.tfar < 0.0f) ++occluded;  // Embree marks an occluded ray with tfar = -inf
    }
    return occluded;
}

std::size_t embreeOccludedPackets(const EmbreeScene& scene, const RaySet& r, int packetW,
                                  int packetH)
{
    switch (packetLanes(r, packetW, packetH, "embreeOccludedPackets")) {
        case 4:
            return occludeTiles<4, RTCRay4>(rtcOccluded4, scene, r, packetW, packetH);
        case 8:
            return occludeTiles<8, RTCRay8>(rtcOccluded8, scene, r, packetW, packetH);
        default:
            return occludeTiles<16, RTCRay16>(rtcOccluded16, scene, r, packetW, packetH);
    }
}

std::size_t embreeLayers(const EmbreeScene& scene, const RaySet& r, int layers)
{
    const Origins o(r);
    RTCIntersectContext ctx;
    rtcInitIntersectContext(&ctx);
    RTCRayHit rh;
    std::size_t hits = 0;
    for (std::size_t i = 0, n = r.size(); i < n && layers > 0; ++i) {
        setRay(rh.ray, o, r, i, 0.0f, kInf);
        const float dirLength =
            std::sqrt(r.dx[i] * r.dx[i] + r.dy[i] * r.dy[i] + r.dz[i] * r.dz[i]);
        for (int layer = 0; layer < layers; ++layer) {
            rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
            rh.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
            rtcIntersect1(scene.handle(), &ctx, &rh);
            if (rh.hit.geomID == RTC_INVALID_GEOMETRY_ID) break;
            ++hits;
            // Restart at the hit point, just past the surface, with the full segment again.
            const float t = rh.ray.tfar;
            rh.ray.org_x += rh.ray.dir_x * t;
            rh.ray.org_y += rh.ray.dir_y * t;
            rh.ray.org_z += rh.ray.dir_z * t;
            const float size =
                std::fmax(std::fabs(rh.ray.org_x),
                          std::fmax(std::fabs(rh.ray.org_y), std::fabs(rh.ray.org_z)));
            rh.ray.tnear = kLayerRelativeNear * std::fmax(size, 1e-30f) / dirLength;
            rh.ray.tfar = kInf;
        }
    }
    return hits;
}

}  // namespace vlkr::bench
