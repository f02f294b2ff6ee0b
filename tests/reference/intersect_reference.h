// Brute-force intersection: every triangle in index order, with the library's float formulas.
// Through a one-leaf tree the library must match it exactly; through any tree, in what it finds.
#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

#include "vlkr.h"

namespace vlkr::reference {

struct RefHit {
    bool hit = false;
    float t = 0, p = 0, q = 0;
    int tri = -1;
};

// The triangle test on one record, in the order of operations the records are made for.
inline bool rayTriangle(const TriangleAccel& a, const float o[3], const float d[3], float best,
                        float& t, float& p, float& q)
{
    if (a.axes == 0) return false;
    const int u = (a.axes >> 2) & 3, v = a.axes & 3, w = (a.axes >> 4) & 3;
    const float D = a.nu * d[u] + a.nv * d[v] + d[w];
    const float nt = a.cw + a.nu * (a.cu - o[u]) + a.nv * (a.cv - o[v]) - o[w];
    const float x1 = d[u] * nt - (a.cu - o[u]) * D;
    const float x2 = d[v] * nt - (a.cv - o[v]) * D;
    const float P = a.e2v * x1 - a.e2u * x2;
    const float Q = a.e1u * x2 - a.e1v * x1;
    const float R = D - P - Q;
    if (!(R * P >= 0 && P * Q >= 0 && R * Q >= 0)) return false;
    t = nt / D;
    if (!(best > t && t > 0)) return false;
    p = P / D;
    q = Q / D;
    return true;
}

// The slab test of the nearest-hit queries: false when the ray misses the box.
inline bool boxSegment(const float box[6], const float o[3], const float d[3], float maxDist)
{
    float tnear = 0, tfar = maxDist;
    for (int k = 0; k < 3; ++k) {
        if (std::fabs(d[k]) <= 1.1920929e-7f) continue;
        const float t1 = (box[3 + k] - o[k]) / d[k], t2 = (box[k] - o[k]) / d[k];
        tnear = std::max(tnear, std::min(t1, t2));
        tfar = std::min(tfar, std::max(t1, t2));
        if (tnear > tfar) return false;
    }
    return true;
}

// The nearest hit closer than `best` in index order, or with `first` the first such hit, among
// the triangles not in `skip`.
inline RefHit scan(const std::vector<TriangleAccel>& accel, const float o[3], const float d[3],
                   float best, bool first = false, const std::vector<int>& skip = {})
{
    RefHit h;
    for (int n = 0; n < int(accel.size()) && !(first && h.hit); ++n) {
        float t, p, q;
        if (std::find(skip.begin(), skip.end(), n) == skip.end() &&
            rayTriangle(accel[n], o, d, best, t, p, q)) {
            h = {true, t, p, q, n};
            best = t;
        }
    }
    return h;
}

}  // namespace vlkr::reference
