// Plain per-voxel remap: the inside test and index choice in the library's own precision, the
// trilinear blend in exactly its float operations (the tests build without fused
// multiply-add), the cubic sum in double over float weights.
#pragma once

#include <algorithm>
#include <cmath>

#include "reference/warp_reference.h"

namespace vlkr::reference {

// Tap columns of a cubic: only column 0 guards the lower side, the box end the upper side.
inline void remapCubicTaps(int i, int hi, int tap[4])
{
    const int c[4][4] = {
        {0, 0, 1, 2}, {i - 1, i, i + 1, i + 1}, {i - 1, i, i, i}, {i - 1, i, i + 1, i + 2}};
    const int row = i <= 0 ? 0 : i == hi - 1 ? 1 : i >= hi ? 2 : 3;
    std::copy(c[row], c[row] + 4, tap);
}

// Samples the source at map point p if it lies in the box [lo, hi] (inclusive, compared in
// float); dims 2 reads plane 0 alone. value receives the result before conversion, magnitude
// the sum of |weight * voxel|. read(x, y, z) gives a source voxel as double.
template <class Read>
bool remapSample(const Read& read, const int lo[3], const int hi[3], int dims, int selector,
                 const float p[3], double* value, double* magnitude)
{
    for (int a = 0; a < dims; ++a)
        if (!(float(lo[a]) <= p[a] && p[a] <= float(hi[a]))) return false;
    int i[3] = {0, 0, 0};
    if (selector == vlkInterNearest) {
        for (int a = 0; a < dims; ++a) i[a] = int(std::trunc(double(p[a]) + 0.5000001));
        *value = read(i[0], i[1], i[2]);
        *magnitude = std::fabs(*value);
        return true;
    }
    if (selector == vlkInterLinear) {
        int up[3] = {0, 0, 0};
        float f[3] = {0, 0, 0};
        for (int a = 0; a < dims; ++a) {
            i[a] = int(std::trunc(double(p[a]) + 1e-7));
            if (i[a] >= hi[a]) {
                i[a] = hi[a] - 1, f[a] = 1.0f;
            } else {
                f[a] = p[a] - float(i[a]);
            }
            up[a] = i[a] + 1;
            i[a] = std::max(i[a], 0);
        }
        auto s = [&](int x, int y, int z) {
            return float(read(x ? up[0] : i[0], y ? up[1] : i[1], z ? up[2] : i[2]));
        };
        const float fx = f[0], fy = f[1], fz = f[2];
        const float p0 = s(0, 0, 0) + (s(1, 0, 0) - s(0, 0, 0)) * fx;
        const float q0 = (s(0, 1, 0) + (s(1, 1, 0) - s(0, 1, 0)) * fx - p0) * fy + p0;
        const float p1 = s(0, 0, 1) + (s(1, 0, 1) - s(0, 0, 1)) * fx;
        const float q1 = s(0, 1, 1) + (s(1, 1, 1) - s(0, 1, 1)) * fx;
        const float v = dims == 2 ? q0 : q0 + ((q1 - p1) * fy + p1 - q0) * fz;
        *value = v;
        *magnitude = 0;
        for (int c = 0; c < 8; ++c) *magnitude += std::fabs(s(c & 1, c >> 1 & 1, c >> 2 & 1));
        return true;
    }
    int tap[3][4] = {};
    float w[3][4] = {{1}, {1}, {1}};
    for (int a = 0; a < dims; ++a) {
        i[a] = int(std::trunc(double(p[a]) + 1e-7));
        const double f = p[a] - float(i[a]), at[4] = {1 + f, f, 1 - f, 2 - f};
        remapCubicTaps(i[a], hi[a], tap[a]);
        for (int k = 0; k < 4; ++k) w[a][k] = float(resizeKernel(selector, at[k]));
    }
    const int nz = dims == 2 ? 1 : 4;
    *value = *magnitude = 0;
    for (int z = 0; z < nz; ++z)
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 4; ++x) {
                const double term =
                    double(w[0][x]) * w[1][y] * w[2][z] * read(tap[0][x], tap[1][y], tap[2][z]);
                *value += term, *magnitude += std::fabs(term);
            }
    return true;
}

}  // namespace vlkr::reference
