// Plain point sampling of the affine warp (in double) and the remap (in float): the source
// box, the small-source fallback, the inverse of the warp's matrix and the value at a point.
#pragma once

#include <algorithm>
#include <cmath>
#include <type_traits>

#include "reference/resize_reference.h"

namespace vlkr::reference {

// The source cuboid trimmed to the volume, as first and last indices per axis. A single-plane
// source samples in two dimensions, z pinned to plane 0.
struct Box {
    int lo[3], hi[3], dims;
};

inline Box trimmedBox(const VolumeSize& v, const Cuboid& c)
{
    const int size[3] = {v.width, v.height, v.depth}, at[3] = {c.x, c.y, c.z};
    const int extent[3] = {c.width, c.height, c.depth};
    Box b{{}, {}, v.depth == 1 ? 2 : 3};
    for (int a = 0; a < b.dims; ++a)
        b.lo[a] = at[a], b.hi[a] = at[a] + std::min(size[a] - at[a], extent[a]) - 1;
    return b;
}

// Below 4 voxels on a sampled axis cubic becomes trilinear, below 2 everything nearest.
inline int fallbackSelector(int selector, const VolumeSize& v)
{
    const int smallest = std::min({v.width, v.height, v.depth == 1 ? v.width : v.depth});
    if (smallest < 2) return vlkInterNearest;
    return smallest < 4 && selector >= 4 ? vlkInterLinear : selector;
}

// Source point m * d + t of destination voxel d under the inverse of the 3 x 4 map c (adjugate
// over the determinant, cyclic cofactors). `planar` uses the x and y rows and columns alone.
struct Inverse {
    double m[3][3], t[3];
};

inline Inverse invert(const double coeffs[3][4], bool planar)
{
    double c[3][4];
    std::copy(&coeffs[0][0], &coeffs[0][0] + 12, &c[0][0]);
    if (planar) c[0][2] = c[1][2] = c[2][0] = c[2][1] = c[2][3] = 0, c[2][2] = 1;
    Inverse w{};
    const double det = c[0][0] * (c[1][1] * c[2][2] - c[1][2] * c[2][1]) -
                       c[0][1] * (c[1][0] * c[2][2] - c[1][2] * c[2][0]) +
                       c[0][2] * (c[1][0] * c[2][1] - c[1][1] * c[2][0]);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            const int a = (j + 1) % 3, b = (j + 2) % 3, p = (i + 1) % 3, q = (i + 2) % 3;
            w.m[i][j] = (c[a][p] * c[b][q] - c[a][q] * c[b][p]) / det;
        }
    for (int i = 0; i < 3; ++i)
        w.t[i] = -(w.m[i][0] * c[0][3] + w.m[i][1] * c[1][3] + w.m[i][2] * c[2][3]);
    return w;
}

// The value at point s of the box b, before conversion, in Real arithmetic (double for the
// warp, float for the remap); read(x, y, z) gives a source voxel. Index i = trunc(s + 1e-7)
// (nearest: the voxel at trunc(s + 0.5000001)). Trilinear blends a + (b - a) f along x, y, z;
// a point on the box's last voxel blends the two last ones with f = 1. Cubic takes taps i - 1
// .. i + 2, clamped to the box for the warp; the remap guards column 0 below and the box end
// above. magnitude receives the sum of |weight * voxel| (trilinear: of |voxel|).
template <class Real, class Read>
double sample(const Read& read, const Box& b, int selector, const Real s[3], double* magnitude)
{
    constexpr bool kRemap = std::is_same_v<Real, float>;
    int i[3] = {0, 0, 0}, tap[3][4] = {};
    Real f[3] = {0, 0, 0}, w[3][4] = {{1}, {1}, {1}};
    for (int a = 0; a < b.dims; ++a) {
        i[a] = int(double(s[a]) + (selector == vlkInterNearest ? 0.5000001 : 1e-7));
        f[a] = s[a] - Real(i[a]);
        const bool last = i[a] >= b.hi[a];
        if (selector == vlkInterLinear) {
            tap[a][0] = std::max(last ? b.hi[a] - 1 : i[a], 0);
            tap[a][1] = last ? b.hi[a] : i[a] + 1;
            f[a] = last ? 1 : f[a];
        }
        for (int k = 0; k < 4 && selector >= 4; ++k) {
            tap[a][k] = kRemap ? (i[a] <= 0 ? std::max(k - 1, 0) : std::min(i[a] - 1 + k, b.hi[a]))
                               : std::clamp(i[a] - 1 + k, b.lo[a], b.hi[a]);
            const double t = double(f[a]), at[4] = {1 + t, t, 1 - t, 2 - t};
            w[a][k] = Real(cubicKernel(selector, at[k]));
        }
    }
    if (selector == vlkInterNearest) {
        const double v = read(i[0], i[1], i[2]);
        *magnitude = std::fabs(v);
        return v;
    }
    if (selector == vlkInterLinear) {
        auto v = [&](int c) {
            return Real(read(tap[0][c & 1], tap[1][c >> 1 & 1], tap[2][c >> 2 & 1]));
        };
        auto lerp = [](Real lo, Real hi, Real t) { return lo + (hi - lo) * t; };
        Real row[4];
        *magnitude = 0;
        for (int c = 0; c < 4; ++c) row[c] = lerp(v(2 * c), v(2 * c + 1), f[0]);
        for (int c = 0; c < 8; ++c) *magnitude += std::fabs(double(v(c)));
        const Real p0 = lerp(row[0], row[1], f[1]), p1 = lerp(row[2], row[3], f[1]);
        return b.dims == 2 ? p0 : lerp(p0, p1, f[2]);
    }
    double sum = 0;
    *magnitude = 0;
    for (int z = 0; z < (b.dims == 2 ? 1 : 4); ++z)
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 4; ++x) {
                const double term =
                    double(w[0][x]) * w[1][y] * w[2][z] * read(tap[0][x], tap[1][y], tap[2][z]);
                sum += term, *magnitude += std::fabs(term);
            }
    return sum;
}

}  // namespace vlkr::reference
