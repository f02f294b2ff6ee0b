// Slow, plain versions of the scene preparation used as oracles.
#pragma once

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>

#include "vlkr.h"

namespace vlkr::reference {

// Vertex-by-vertex fold; NaN coordinates never win a comparison, so they are ignored.
inline void boundBox(const float* v, int n, float box[6])
{
    float lo[3] = {FLT_MAX, FLT_MAX, FLT_MAX}, hi[3] = {-FLT_MAX, -FLT_MAX, -FLT_MAX};
    for (int i = 0; i < n; ++i)
        for (int c = 0; c < 3; ++c)
            lo[c] = std::min(lo[c], v[3 * i + c]), hi[c] = std::max(hi[c], v[3 * i + c]);
    float largest = FLT_MIN;
    for (int c = 0; c < 3; ++c) largest = std::max({largest, std::fabs(lo[c]), std::fabs(hi[c])});
    const float pad = 1e-4f * largest;
    for (int c = 0; c < 3; ++c) {
        box[c] = lo[c] - pad;
        box[c + 3] = hi[c] + pad;
    }
}

// The dominant axis w is the first axis of largest |N|; (u, v) are the other two axes in the
// order that makes (u, v, w) a permutation of sign s, with u = x unless w = x.
inline TriangleAccel accelRecord(const float* vertices, const int* idx)
{
    const float* a = vertices + 3 * idx[0];
    const float* b = vertices + 3 * idx[1];
    const float* c = vertices + 3 * idx[2];
    double e1[3], e2[3], n[3];
    for (int k = 0; k < 3; ++k) e1[k] = double(a[k]) - c[k], e2[k] = double(b[k]) - c[k];
    for (int k = 0; k < 3; ++k)
        n[k] = e1[(k + 1) % 3] * e2[(k + 2) % 3] - e1[(k + 2) % 3] * e2[(k + 1) % 3];
    int w = 0;
    for (int k = 1; k < 3; ++k)
        if (std::fabs(n[k]) > std::fabs(n[w])) w = k;
    const int u = w == 0 ? 1 : 0, v = 3 - u - w;
    const double s = ((w - u + 3) % 3 == 2) ? 1.0 : -1.0;  // (u, v, w) cyclic: even

    TriangleAccel r;
    std::memset(&r, 0, sizeof r);
    if (n[w] == 0.0) return r;
    const double inv = 1.0 / n[w];
    const double tiny = 2.220446049250313e-16;
    const bool along = std::fabs(n[u]) < tiny && std::fabs(n[v]) < tiny;
    r.axes = unsigned(w) << 4 | unsigned(u) << 2 | unsigned(v) | (along ? 0x80000000u : 0u);
    r.nu = along ? 0.0f : float(n[u] * inv);
    r.nv = along ? 0.0f : float(n[v] * inv);
    r.cw = c[w], r.cu = c[u], r.cv = c[v];
    r.e2u = float(e2[u] * (inv * s)), r.e2v = float(e2[v] * (inv * s));
    r.e1u = float(e1[u] * (inv * s)), r.e1v = float(e1[v] * (inv * s));
    return r;
}

}  // namespace vlkr::reference
