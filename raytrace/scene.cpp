// Scene preparation: the padded bounding box and the per-triangle acceleration records.
#include "scene.h"

#include <emmintrin.h>

#include <cmath>
#include <cstring>

#include "constants.h"
#include "frame/unaligned.h"

namespace vlkr::raytrace {
namespace {

constexpr float kBoxPad = 9.9999997e-05f;        // pad = kBoxPad * largest |coordinate|
constexpr float kBoxPadFloor = 1.17549435e-38f;  // keeps the pad non-zero for a point at 0
constexpr double kAxisTiny = kDoubleEpsilon;     // below this N[u], N[v] count as zero

// Both folds pick the stored value unless the new one is strictly better, so a NaN
// coordinate is passed over, exactly as the SSE2 minps/maxps with the vertex first do.
inline float foldMin(float v, float acc) { return v < acc ? v : acc; }
inline float foldMax(float v, float acc) { return v > acc ? v : acc; }

// Folds eight vertices (six registers) a step. Each register holds four consecutive floats,
// so the x, y and z lanes rotate with a period of three registers.
int foldEightVertices(const float* vertices, int vertexCount, float lo[3], float hi[3])
{
    const int blocks = vertexCount / 8;
    if (blocks == 0) return 0;
    __m128 lo3[3], hi3[3];
    for (int k = 0; k < 3; ++k) {
        lo3[k] = _mm_set1_ps(lo[0]);
        hi3[k] = _mm_set1_ps(hi[0]);
    }
    for (int b = 0; b < blocks; ++b) {
        const float* p = vertices + 24 * b;
        for (int k = 0; k < 6; ++k) {
            const __m128 v = _mm_loadu_ps(p + 4 * k);
            lo3[k % 3] = _mm_min_ps(v, lo3[k % 3]);
            hi3[k % 3] = _mm_max_ps(v, hi3[k % 3]);
        }
    }
    alignas(16) float l[12], h[12];
    for (int k = 0; k < 3; ++k) {
        _mm_store_ps(l + 4 * k, lo3[k]);
        _mm_store_ps(h + 4 * k, hi3[k]);
    }
    // Float j of the 12-float period belongs to axis j % 3.
    for (int j = 0; j < 12; ++j) {
        lo[j % 3] = foldMin(l[j], lo[j % 3]);
        hi[j % 3] = foldMax(h[j], hi[j % 3]);
    }
    return blocks * 8;
}

}  // namespace

void computeBoundBox(const float* vertices, int vertexCount, float box[6]) noexcept
{
    float lo[3] = {kFloatMax, kFloatMax, kFloatMax};
    float hi[3] = {-kFloatMax, -kFloatMax, -kFloatMax};
    for (int i = foldEightVertices(vertices, vertexCount, lo, hi); i < vertexCount; ++i) {
        for (int c = 0; c < 3; ++c) {
            const float v = loadUnaligned(vertices + 3 * std::size_t(i) + c);
            lo[c] = foldMin(v, lo[c]);
            hi[c] = foldMax(v, hi[c]);
        }
    }
    float largest = kBoxPadFloor;
    for (int c = 0; c < 3; ++c) {
        largest = foldMax(std::fabs(lo[c]), largest);
        largest = foldMax(std::fabs(hi[c]), largest);
    }
    const float pad = kBoxPad * largest;
    for (int c = 0; c < 3; ++c) {
        storeUnaligned(box + c, lo[c] - pad);
        storeUnaligned(box + 3 + c, hi[c] + pad);
    }
}

/*
 * Each record prepares the projected ray/triangle test: the triangle is seen along the
 * dominant axis w of its normal N = (A - C) x (B - C), so a hit needs only the plane
 * equation in (u, v) and two edge functions scaled by 1 / N[w]. Everything is formed in
 * double and rounded once per stored word.
 */
void buildTriangleAccel(TriangleAccel* accel, const float* vertices, const int* triangles,
                        int triangleCount) noexcept
{
    for (int t = 0; t < triangleCount; ++t) {
        float a[3], b[3], c[3];
        const int* idx = triangles + 4 * std::size_t(t);
        for (int k = 0; k < 3; ++k) {
            a[k] = loadUnaligned(vertices + 3 * std::ptrdiff_t(loadUnaligned(idx)) + k);
            b[k] = loadUnaligned(vertices + 3 * std::ptrdiff_t(loadUnaligned(idx + 1)) + k);
            c[k] = loadUnaligned(vertices + 3 * std::ptrdiff_t(loadUnaligned(idx + 2)) + k);
        }
        const double cx = c[0], cy = c[1], cz = c[2];
        const double e1x = a[0] - cx, e1y = a[1] - cy, e1z = a[2] - cz;
        const double e2x = b[0] - cx, e2y = b[1] - cy, e2z = b[2] - cz;
        const double nx = e1y * e2z - e1z * e2y;
        const double ny = e1z * e2x - e1x * e2z;
        const double nz = e1x * e2y - e1y * e2x;

        // Dominant axis w with (u, v) the other two; ties keep the earlier axis. Selects
        // rather than indexed arrays keep the values in registers.
        const bool yOverX = std::fabs(nx) < std::fabs(ny);
        double nw = yOverX ? ny : nx;
        const bool zWins = std::fabs(nz) > std::fabs(nw);
        unsigned axes;
        double nu, nv, e1u, e1v, e2u, e2v, s;
        float cw, cu, cv;
        if (zWins) {  // w = z, u = x, v = y
            axes = 2u << 4 | 0u << 2 | 1u;
            nw = nz, nu = nx, nv = ny, s = 1.0;
            e1u = e1x, e1v = e1y, e2u = e2x, e2v = e2y;
            cw = c[2], cu = c[0], cv = c[1];
        } else if (yOverX) {  // w = y, u = x, v = z
            axes = 1u << 4 | 0u << 2 | 2u;
            nu = nx, nv = nz, s = -1.0;
            e1u = e1x, e1v = e1z, e2u = e2x, e2v = e2z;
            cw = c[1], cu = c[0], cv = c[2];
        } else {  // w = x, u = y, v = z
            axes = 0u << 4 | 1u << 2 | 2u;
            nu = ny, nv = nz, s = 1.0;
            e1u = e1y, e1v = e1z, e2u = e2y, e2v = e2z;
            cw = c[0], cu = c[1], cv = c[2];
        }

        TriangleAccel r{};  // degenerate: the all-zero record is skipped
        if (nw == 0.0) {
            storeUnaligned(accel + t, r);
            continue;
        }
        const double inv = 1.0 / nw;
        if (std::fabs(nv) < kAxisTiny && std::fabs(nu) < kAxisTiny) {
            r.axes = axes | kAxisAlongW;
            r.nu = 0.0f;
            r.nv = 0.0f;
        } else {
            r.axes = axes;
            r.nu = static_cast<float>(nu * inv);
            r.nv = static_cast<float>(nv * inv);
        }
        r.cw = cw;
        r.cu = cu;
        r.cv = cv;
        const double q = inv * s;
        r.e2u = static_cast<float>(e2u * q);
        r.e2v = static_cast<float>(e2v * q);
        r.e1u = static_cast<float>(e1u * q);
        r.e1v = static_cast<float>(e1v * q);
        storeUnaligned(accel + t, r);
    }
}

}  // namespace vlkr::raytrace
