// Triangle normals of a mesh, and per-ray flat or smooth surface normals at the hits.
#include "normals.h"

#include <cmath>
#include <cstdint>
#include <cstring>

#include <emmintrin.h>

#include "constants.h"
#include "frame/lanes.h"

namespace vlkr::raytrace {
namespace {

constexpr double kMinSquaredLength = kDoubleEpsilon;  // shorter normals count as zero
constexpr float kMinSmoothSquared = kFloatEpsilon;    // likewise for blended normals

void setZero(float* const normal[3], int i)
{
    for (int c = 0; c < 3; ++c) storeUnaligned(normal[c] + i, 0.0f);
}

}  // namespace

// (A - C) x (B - C), normalised in double: counter-clockwise corners face the viewer. Two
// triangles share each SSE2 double operation; both halves run the scalar formula exactly.
void triangleNormals(const float* vertices, const int* triangles, float* normals,
                     int triangleCount) noexcept
{
    auto corner = [&](int k, int c, int axis) {
        const int vertex = loadUnaligned(triangles + 4 * std::size_t(k) + c);
        return double(loadUnaligned(vertices + 3 * std::ptrdiff_t(vertex) + axis));
    };
    auto one = [&](int k) {
        double e1[3], e2[3];
        for (int j = 0; j < 3; ++j) {
            e1[j] = corner(k, 1, j) - corner(k, 2, j);
            e2[j] = corner(k, 0, j) - corner(k, 2, j);
        }
        const double m[3] = {e2[1] * e1[2] - e2[2] * e1[1], e2[2] * e1[0] - e1[2] * e2[0],
                             e1[1] * e2[0] - e2[1] * e1[0]};
        const double squared = m[0] * m[0] + m[1] * m[1] + m[2] * m[2];
        float* out = normals + 3 * std::size_t(k);
        if (squared < kMinSquaredLength) {
            for (int j = 0; j < 3; ++j) storeUnaligned(out + j, 0.0f);
            return;
        }
        const double length = std::sqrt(squared);
        for (int j = 0; j < 3; ++j) storeUnaligned(out + j, static_cast<float>(m[j] / length));
    };
    int k = 0;
    for (; k + 2 <= triangleCount; k += 2) {
        __m128d e1[3], e2[3];
        for (int j = 0; j < 3; ++j) {
            const __m128d c = _mm_setr_pd(corner(k, 2, j), corner(k + 1, 2, j));
            e1[j] = _mm_sub_pd(_mm_setr_pd(corner(k, 1, j), corner(k + 1, 1, j)), c);
            e2[j] = _mm_sub_pd(_mm_setr_pd(corner(k, 0, j), corner(k + 1, 0, j)), c);
        }
        const __m128d m[3] = {_mm_sub_pd(_mm_mul_pd(e2[1], e1[2]), _mm_mul_pd(e2[2], e1[1])),
                              _mm_sub_pd(_mm_mul_pd(e2[2], e1[0]), _mm_mul_pd(e1[2], e2[0])),
                              _mm_sub_pd(_mm_mul_pd(e1[1], e2[0]), _mm_mul_pd(e2[1], e1[0]))};
        const __m128d squared = _mm_add_pd(
            _mm_add_pd(_mm_mul_pd(m[0], m[0]), _mm_mul_pd(m[1], m[1])), _mm_mul_pd(m[2], m[2]));
        const __m128d tiny = _mm_cmplt_pd(squared, _mm_set1_pd(kMinSquaredLength));
        const __m128d length = _mm_sqrt_pd(squared);
        alignas(16) float out[3][4];
        for (int j = 0; j < 3; ++j)
            _mm_store_ps(out[j], _mm_cvtpd_ps(_mm_andnot_pd(tiny, _mm_div_pd(m[j], length))));
        for (int t = 0; t < 2; ++t)
            for (int j = 0; j < 3; ++j)
                storeUnaligned(normals + 3 * std::size_t(k + t) + j, out[j][t]);
    }
    for (; k < triangleCount; ++k) one(k);
}

void flatNormals(const float* triangleNormals, const int* triangle, float* const normal[3],
                 int len) noexcept
{
    for (int i = 0; i < len; ++i) {
        const int t = loadUnaligned(triangle + i);
        if (t < 0) {
            setZero(normal, i);
            continue;
        }
        const float* n = triangleNormals + 3 * std::size_t(t);
        for (int c = 0; c < 3; ++c) std::memcpy(normal[c] + i, n + c, 4);  // bits unchanged
    }
}

// Barycentric blend of the three vertex normals (u weighs the first vertex, v the second),
// renormalised in single precision.
void smoothNormals(const float* vertexNormals, const int* normalIndices, const int* triangle,
                   const float* const hit[2], float* const normal[3], int len, int stride) noexcept
{
    for (int i = 0; i < len; ++i) {
        const int t = loadUnaligned(triangle + i);
        if (t < 0) {
            setZero(normal, i);
            continue;
        }
        const float u = loadUnaligned(hit[0] + i), v = loadUnaligned(hit[1] + i);
        const float w = (1.0f - u) - v;
        const int* entry = normalIndices + std::int64_t(t) * std::int64_t(stride);
        const lanes::Three<float> n0(vertexNormals + 3 * std::size_t(loadUnaligned(entry)));
        const lanes::Three<float> n1(vertexNormals + 3 * std::size_t(loadUnaligned(entry + 1)));
        const lanes::Three<float> n2(vertexNormals + 3 * std::size_t(loadUnaligned(entry + 2)));
        float n[3];
        for (int c = 0; c < 3; ++c) n[c] = w * n2[c] + (v * n1[c] + u * n0[c]);
        const float s = (n[0] * n[0] + n[1] * n[1]) + n[2] * n[2];
        if (s < kMinSmoothSquared) {
            setZero(normal, i);
            continue;
        }
        const float root = std::sqrt(s);
        for (int c = 0; c < 3; ++c) storeUnaligned(normal[c] + i, n[c] / root);
    }
}

}  // namespace vlkr::raytrace
