// Plain per-voxel affine warp in double precision: the inverse mapping of the coefficients,
// the selector fallback for small sources and the value sampled at one source point.
#pragma once

#include <algorithm>
#include <cmath>

#include "reference/resize_reference.h"

namespace vlkr::reference {

// Source point of destination voxel d: m * d + t.
struct WarpInverse {
    double m[3][3], t[3];
};

inline double warpDet(const double c[3][4])
{
    return c[0][0] * (c[1][1] * c[2][2] - c[1][2] * c[2][1]) -
           c[0][1] * (c[1][0] * c[2][2] - c[1][2] * c[2][0]) +
           c[0][2] * (c[1][0] * c[2][1] - c[1][1] * c[2][0]);
}

// Adjugate times 1 / det (the cyclic cofactors carry their signs), then t = -inverse * shift.
inline WarpInverse warpInverse(const double c[3][4])
{
    const double r = 1.0 / warpDet(c);
    WarpInverse w{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            const int a = (j + 1) % 3, b = (j + 2) % 3, p = (i + 1) % 3, q = (i + 2) % 3;
            w.m[i][j] = (c[a][p] * c[b][q] - c[a][q] * c[b][p]) * r;
        }
    for (int i = 0; i < 3; ++i)
        w.t[i] = -(w.m[i][0] * c[0][3] + w.m[i][1] * c[1][3] + w.m[i][2] * c[2][3]);
    return w;
}

// A single-plane source uses the x and y rows only; every point lands on z = 0.
inline WarpInverse warpInversePlanar(const double c[3][4])
{
    const double d = c[0][0] * c[1][1] - c[0][1] * c[1][0];
    WarpInverse w{{{c[1][1] / d, -c[0][1] / d, 0}, {-c[1][0] / d, c[0][0] / d, 0}, {0, 0, 0}},
                  {0, 0, 0}};
    for (int i = 0; i < 2; ++i) w.t[i] = -(w.m[i][0] * c[0][3] + w.m[i][1] * c[1][3]);
    return w;
}

// Sources too small for a kernel's reach fall back: below 4 voxels cubic becomes trilinear,
// below 2 everything becomes nearest.
inline int fallbackSelector(int selector, int smallest)
{
    if (smallest < 2) return vlkInterNearest;
    return smallest < 4 && selector >= 4 ? vlkInterLinear : selector;
}

// Value at source point s inside the box [lo, hi] (inclusive), before conversion; dims 2 reads
// plane 0 alone. read(x, y, z) gives a source voxel as double; magnitude receives the sum of
// |weight * voxel| over the taps.
template <class Read>
double warpSample(const Read& read, const int lo[3], const int hi[3], int dims, int selector,
                  const double s[3], double* magnitude)
{
    int i[3] = {0, 0, 0};
    if (selector == vlkInterNearest) {
        for (int a = 0; a < dims; ++a) i[a] = int(std::trunc(s[a] + 0.5000001));
        const double v = read(i[0], i[1], i[2]);
        *magnitude = std::fabs(v);
        return v;
    }
    if (selector == vlkInterLinear) {
        // The last voxel is reached from the one before with weight 1.
        int up[3] = {0, 0, 0};
        double f[3] = {0, 0, 0};
        for (int a = 0; a < dims; ++a) {
            i[a] = int(std::trunc(s[a] + 1e-7));
            f[a] = i[a] < hi[a] ? s[a] - i[a] : 1.0;
            if (i[a] >= hi[a]) i[a] = hi[a] - 1;
            up[a] = i[a] + 1;
            i[a] = std::max(i[a], 0);
        }
        double row[2][2], plane[2];
        *magnitude = 0;
        for (int c = 0; c < 4; ++c) {
            const int y = c & 1 ? up[1] : i[1], z = c & 2 ? up[2] : i[2];
            const double a = read(i[0], y, z), b = read(up[0], y, z);
            row[c >> 1][c & 1] = a + (b - a) * f[0];
            const double wyz = (c & 1 ? f[1] : 1 - f[1]) * (c & 2 ? f[2] : 1 - f[2]);
            *magnitude += std::fabs(wyz) * (std::fabs(a * (1 - f[0])) + std::fabs(b * f[0]));
        }
        for (int z = 0; z < 2; ++z) plane[z] = row[z][0] + (row[z][1] - row[z][0]) * f[1];
        return dims == 2 ? plane[0] : plane[0] + (plane[1] - plane[0]) * f[2];
    }
    int tap[3][4] = {};
    double w[3][4] = {{1}, {1}, {1}};
    for (int a = 0; a < dims; ++a) {
        i[a] = int(std::trunc(s[a] + 1e-7));
        const double f = s[a] - i[a], at[4] = {1 + f, f, 1 - f, 2 - f};
        for (int k = 0; k < 4; ++k) {
            tap[a][k] = std::clamp(i[a] - 1 + k, lo[a], hi[a]);
            w[a][k] = resizeKernel(selector, at[k]);
        }
    }
    const int nz = dims == 2 ? 1 : 4;
    double sum = 0;
    *magnitude = 0;
    for (int z = 0; z < nz; ++z)
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 4; ++x) {
                const double term =
                    w[0][x] * w[1][y] * w[2][z] * read(tap[0][x], tap[1][y], tap[2][z]);
                sum += term, *magnitude += std::fabs(term);
            }
    return sum;
}

}  // namespace vlkr::reference
