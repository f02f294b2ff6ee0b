// Ray/scene intersection over the k-d tree: nearest hit, layered hits and occlusion.
#include "intersect.h"

#include <cstdint>
#include <cstring>

#include "kdtree_walk.h"

namespace vlkr::raytrace {
namespace {

// ------------------------------------------------------------------------ leaf policies

// Nearest hit: keeps the closest triangle, the first tested on equal distances.
struct NearestHit {
    float best;
    float p = 0.0f, q = 0.0f;
    int triangle = -1;
    bool onHit(int n, float t, float pp, float qq) noexcept
    {
        best = t;
        p = pp;
        q = qq;
        triangle = n;
        return false;
    }
    static bool skip(int) noexcept { return false; }
};

// Layered hits: as NearestHit, but passes over the previous layer's triangle and those in the
// ring of recent ones that this layer consults.
struct LayerHit : NearestHit {
    const int* ring;
    int ringSlots;
    int previous;
    bool skip(int n) const noexcept
    {
        if (n == previous) return true;
        for (int s = 0; s < ringSlots; ++s)
            if (ring[s] == n) return true;
        return false;
    }
};

// Occlusion: any hit ends the ray.
struct AnyHit {
    float best = 1.0f;
    int triangle = -1;
    bool onHit(int n, float, float, float) noexcept
    {
        triangle = n;
        return true;
    }
    static bool skip(int) noexcept { return false; }
};

void loadRay(const float* const dir[3], std::size_t i, float d[3]) noexcept
{
    for (int k = 0; k < 3; ++k) d[k] = dir[k][i];
}

}  // namespace

void intersectNearest(Origins origin, const float* const dir[3], float* dist,
                      float* const hit[2], int* triangle, const IntersectContext& ctx,
                      PacketSize block) noexcept
{
    const std::size_t width = block.width > 0 ? std::size_t(block.width) : 0;
    const std::size_t count = width * std::size_t(block.height);
    for (std::size_t i = 0; i < count; ++i) {
        triangle[i] = -1;
        Ray ray;
        for (int k = 0; k < 3; ++k) ray.o[k] = origin.shared ? origin.shared[k] : origin.perRay[k][i];
        loadRay(dir, i, ray.d);
        if (!enterBox(ctx.pBound, dist[i], ray)) continue;
        NearestHit h{dist[i]};
        walkTree(ctx.pRootNode, ctx.pAccel, kNodeEpsilon, ray, h);
        if (h.triangle < 0) continue;
        dist[i] = h.best;
        hit[0][i] = h.p;
        hit[1][i] = h.q;
        triangle[i] = h.triangle;
    }
}

void intersectLayers(const float origin[3], const float* const dir[3], float* dist,
                     float* const hit[2], int* triangle, const VolumeSize& volume,
                     const IntersectContext& ctx) noexcept
{
    const int width = volume.width, height = volume.height, layers = volume.depth;
    if (width > 0 && height > 0 && layers > 0)
        for (std::size_t i = 0, n = std::size_t(width) * height * layers; i < n; ++i)
            triangle[i] = -1;
    if (height < 1 || width < 1 || layers < 1) return;

    const std::size_t plane = std::size_t(width) * std::size_t(height);
    for (std::size_t i = 0; i < plane; ++i) {
        Ray ray;
        for (int k = 0; k < 3; ++k) ray.o[k] = origin[k];
        loadRay(dir, i, ray.d);
        if (!enterBox(ctx.pBound, dist[i], ray)) continue;
        int ring[8];
        int previous = -1;
        for (int layer = 1;; ++layer) {
            const std::size_t at = std::size_t(layer - 1) * plane + i;
            LayerHit h;
            h.best = dist[at];
            h.ring = ring;
            h.ringSlots = (layer - 1) % 8;
            h.previous = previous;
            walkTree(ctx.pRootNode, ctx.pAccel, kLayerEpsilon, ray, h);
            if (h.triangle < 0) break;
            const float t = h.best;
            triangle[at] = h.triangle;
            hit[0][at] = h.p;
            hit[1][at] = h.q;
            dist[at] = layer > 1 ? t + dist[at - plane] : t;
            for (int k = 0; k < 3; ++k) ray.o[k] = ray.o[k] + ray.d[k] * t;
            ring[(layer - 1) % 8] = h.triangle;
            previous = h.triangle;
            if (layer == layers) break;

            // The next layer starts at the hit and runs to where the ray leaves the box.
            dist[at + plane] = kFloatMax;
            reenterBox(ctx.pBound, ray);
        }
    }
}

void intersectAny(const float origin[3], const float* const dir[3], int* triangle, int* mask,
                  PacketSize block, const IntersectContext& ctx) noexcept
{
    const std::size_t width = block.width > 0 ? std::size_t(block.width) : 0;
    const std::size_t count = width * std::size_t(block.height);
    for (std::size_t i = 0; i < count; ++i) {
        triangle[i] = -1;
        if (mask[i] < 0) continue;
        Ray ray;
        for (int k = 0; k < 3; ++k) ray.o[k] = origin[k];
        loadRay(dir, i, ray.d);
        setUpOcclusion(ray);
        AnyHit h;
        walkTree(ctx.pRootNode, ctx.pAccel, kNodeEpsilon, ray, h);
        if (h.triangle < 0) continue;
        triangle[i] = h.triangle;
        mask[i] = -1;
    }
}

}  // namespace vlkr::raytrace
