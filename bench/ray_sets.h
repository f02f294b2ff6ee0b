// The benchmark ray sets: pinhole eye rays, shadow rays to a point light and random rays.
#pragma once

#include <cfloat>
#include <cmath>
#include <random>
#include <vector>

#include "scenes.h"
#include "test_mesh.h"
#include "vlkr.h"

namespace vlkr::bench {

using test::Scene;

// Planar rays; a set with one shared origin keeps it in `eye` and leaves ox/oy/oz empty.
struct RaySet {
    int width = 0, height = 0;
    float eye[3] = {0, 0, 0};
    std::vector<float> ox, oy, oz, dx, dy, dz;
    std::vector<int> mask;  // shadow rays: 0 where the eye ray hit, -1 elsewhere
    std::size_t size() const { return dx.size(); }
};

// The memory budget of the benchmark scenes' trees, in megabytes: ample for the largest.
constexpr unsigned kSceneMemory = 2048;

// A pinhole camera looking at the box centre from outside, the view filling the frame.
inline RaySet eyeRays(const float box[6], int width, int height)
{
    RaySet r;
    r.width = width;
    r.height = height;
    const float c[3] = {0.5f * (box[0] + box[3]), 0.5f * (box[1] + box[4]), 0.5f * (box[2] + box[5])};
    const float ext[3] = {box[3] - box[0], box[4] - box[1], box[5] - box[2]};
    const float radius = 0.5f * std::sqrt(ext[0] * ext[0] + ext[1] * ext[1] + ext[2] * ext[2]);
    // Look from the front, up and to the side, like a person standing before the scene.
    const float view[3] = {0.45f, 0.55f, -0.70f};
    for (int k = 0; k < 3; ++k) r.eye[k] = c[k] + view[k] * 2.2f * radius;
    float fwd[3] = {c[0] - r.eye[0], c[1] - r.eye[1], c[2] - r.eye[2]};
    const float fl = std::sqrt(fwd[0] * fwd[0] + fwd[1] * fwd[1] + fwd[2] * fwd[2]);
    for (float& f : fwd) f /= fl;
    float right[3] = {fwd[2], 0.0f, -fwd[0]};
    const float rl = std::sqrt(right[0] * right[0] + right[2] * right[2]);
    for (float& x : right) x /= rl;
    const float up[3] = {right[1] * fwd[2] - right[2] * fwd[1], right[2] * fwd[0] - right[0] * fwd[2],
                         right[0] * fwd[1] - right[1] * fwd[0]};
    const float halfWidth = 0.5f;  // about 53 degrees across
    r.dx.resize(std::size_t(width) * height);
    r.dy.resize(r.dx.size());
    r.dz.resize(r.dx.size());
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const float sx = (2.0f * (x + 0.5f) / width - 1.0f) * halfWidth;
            const float sy = (1.0f - 2.0f * (y + 0.5f) / height) * halfWidth;
            const std::size_t i = std::size_t(y) * width + x;
            r.dx[i] = fwd[0] + sx * right[0] + sy * up[0];
            r.dy[i] = fwd[1] + sx * right[1] + sy * up[1];
            r.dz[i] = fwd[2] + sx * right[2] + sy * up[2];
        }
    return r;
}

// Rays from a light above the scene to the points the eye rays hit, pulled 0.1% towards the
// eye so the surface itself does not occlude them; eye rays that missed are masked out.
inline RaySet shadowRays(const Scene& scene, const RaySet& eye)
{
    RaySet r;
    r.width = eye.width;
    r.height = eye.height;
    const float* box = scene.box;
    r.eye[0] = box[0] + 0.3f * (box[3] - box[0]);
    r.eye[1] = box[4] + 1.5f * (box[4] - box[1]);
    r.eye[2] = box[2] + 0.2f * (box[5] - box[2]);
    std::vector<float> dist(eye.size(), FLT_MAX), u(eye.size()), v(eye.size());
    std::vector<int> tri(eye.size());
    const float* dir[3] = {eye.dx.data(), eye.dy.data(), eye.dz.data()};
    float* hit[2] = {u.data(), v.data()};
    vlkrIntersectEyeSO_32f(eye.eye, dir, dist.data(), hit, tri.data(), &scene.ctx,
                           PacketSize{eye.width, eye.height});
    r.dx.resize(eye.size());
    r.dy.resize(eye.size());
    r.dz.resize(eye.size());
    r.mask.resize(eye.size());
    for (std::size_t i = 0; i < eye.size(); ++i) {
        r.mask[i] = tri[i] >= 0 ? 0 : -1;
        const float t = tri[i] >= 0 ? 0.999f * dist[i] : 0.0f;
        r.dx[i] = eye.eye[0] + eye.dx[i] * t - r.eye[0];
        r.dy[i] = eye.eye[1] + eye.dy[i] * t - r.eye[1];
        r.dz[i] = eye.eye[2] + eye.dz[i] * t - r.eye[2];
    }
    return r;
}

// Rays from random points in the box in random directions (uniform on the sphere).
inline RaySet randomRays(const float box[6], std::size_t count, unsigned seed = 99)
{
    RaySet r;
    r.width = int(count);
    r.height = 1;
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f), sym(-1.0f, 1.0f);
    for (auto* v : {&r.ox, &r.oy, &r.oz, &r.dx, &r.dy, &r.dz}) v->resize(count);
    for (std::size_t i = 0; i < count; ++i) {
        r.ox[i] = box[0] + unit(rng) * (box[3] - box[0]);
        r.oy[i] = box[1] + unit(rng) * (box[4] - box[1]);
        r.oz[i] = box[2] + unit(rng) * (box[5] - box[2]);
        float d[3], len2;
        do {
            d[0] = sym(rng), d[1] = sym(rng), d[2] = sym(rng);
            len2 = d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
        } while (len2 > 1.0f || len2 < 1e-4f);
        r.dx[i] = d[0], r.dy[i] = d[1], r.dz[i] = d[2];
    }
    return r;
}

}  // namespace vlkr::bench
