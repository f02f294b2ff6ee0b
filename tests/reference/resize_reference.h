// Plain per-voxel volume resize. Each axis maps destination index d back to the source
// position (d + 0.5) / factor - shift / factor, takes its taps (clamped to the volume) and
// float weights; the value is the separable float sum over those taps: x, then y (y first
// when x shrinks and y does not grow), then z, each sum in tap order.
#pragma once

#include <algorithm>
#include <cmath>

#include "vlkr.h"

namespace vlkr::reference {

// The cubic kernels by selector at distance x: 4 the Lagrange cubic through the knots 0, 1,
// 2, 3 (as products, so that it is exactly 0 and 1 on them); 5, 6 and 7 the Mitchell-Netravali
// cubics with (B, C) = (1, 0), (0, 1/2) and (1/2, 3/10), coefficients of a^3 .. a^0.
inline double cubicKernel(int selector, double x)
{
    const double a = std::fabs(x);
    if (a >= 2) return 0;
    if (selector == 4)
        return a < 1 ? 0.5 * (a - 1) * (a + 1) * (a - 2) : (a - 1) * (a - 2) * (a - 3) / -6.0;
    static const double kPieces[3][2][4] = {
        {{0.5, -1.0, 0.0, 2.0 / 3}, {-1.0 / 6, 1.0, -2.0, 4.0 / 3}},
        {{1.5, -2.5, 0.0, 1.0}, {-0.5, 2.5, -4.0, 2.0}},
        {{0.95, -1.7, 0.0, 5.0 / 6}, {-23.0 / 60, 2.0, -3.4, 28.0 / 15}}};
    const double* c = kPieces[selector - 5][a < 1 ? 0 : 1];
    return c[0] * (a * a * a) + c[1] * (a * a) + c[2] * a + c[3];
}

struct Taps {
    int count, index[4];
    float weight[4];
};

inline Taps resizeTaps(int selector, int d, double factor, double shift, int size)
{
    const double inv = 1.0 / factor, off = (0.0 - shift) / factor;
    auto clamp = [size](double i) { return int(std::clamp(i, 0.0, size - 1.0)); };
    Taps taps{selector == vlkInterNearest ? 1 : selector == vlkInterLinear ? 2 : 4, {}, {}};
    if (taps.count == 1) {  // the voxel holding the position; on a boundary, the lower one
        taps.index[0] = clamp(std::trunc((d + 0.5) * inv + (off - 1e-10)));
        return taps;
    }
    const double s = (d + 0.5) * inv + off - 0.5, i = std::floor(s);
    const float t = float(s - i);
    for (int k = 0; k < taps.count; ++k) {
        const int first = taps.count == 4 ? -1 : 0;
        taps.index[k] = clamp(i + first + k);
        taps.weight[k] = taps.count == 2 ? (k ? t : 1.0f - t)
                                         : float(cubicKernel(selector, double(t) - first - k));
    }
    return taps;
}

// Destination voxel d before conversion; read(x, y, z) gives a source voxel as float.
template <class Read>
float resizeVoxel(const Read& read, const VolumeSize& vol, int selector, const int d[3],
                  const double factor[3], const double shift[3])
{
    const int size[3] = {vol.width, vol.height, vol.depth};
    Taps t[3];
    for (int a = 0; a < 3; ++a) t[a] = resizeTaps(selector, d[a], factor[a], shift[a], size[a]);
    if (selector == vlkInterNearest) return read(t[0].index[0], t[1].index[0], t[2].index[0]);
    const bool yFirst = factor[0] < 1 && factor[1] <= 1;
    const Taps &inner = yFirst ? t[1] : t[0], &outer = yFirst ? t[0] : t[1];
    float sum = 0;
    for (int k = 0; k < t[2].count; ++k) {
        float plane = 0;
        for (int j = 0; j < outer.count; ++j) {
            float row = 0;
            for (int i = 0; i < inner.count; ++i) {
                const int x = yFirst ? outer.index[j] : inner.index[i];
                const int y = yFirst ? inner.index[i] : outer.index[j];
                row += read(x, y, t[2].index[k]) * inner.weight[i];
            }
            plane += row * outer.weight[j];
        }
        sum += plane * t[2].weight[k];
    }
    return sum;
}

// Destination voxels [begin, end) per axis that a resize writes: the source cuboid trimmed
// to the volume and mapped, cut to the destination cuboid; a start on a half rounds down, an
// end on a half rounds up.
struct Region {
    int begin[3], end[3];
    bool empty() const { return begin[0] >= end[0] || begin[1] >= end[1] || begin[2] >= end[2]; }
};

inline Region resizeRegion(const VolumeSize& vol, const Cuboid& src, const Cuboid& dst,
                           const double factor[3], const double shift[3])
{
    const int size[3] = {vol.width, vol.height, vol.depth}, at[3] = {src.x, src.y, src.z};
    const int extent[3] = {src.width, src.height, src.depth}, dstAt[3] = {dst.x, dst.y, dst.z};
    const int dstExtent[3] = {dst.width, dst.height, dst.depth};
    Region r{};
    for (int a = 0; a < 3; ++a) {
        const int n = std::min(size[a] - at[a], extent[a]);
        const double from = std::max(at[a] * factor[a] + shift[a], double(dstAt[a]));
        const double to =
            std::min((at[a] + n) * factor[a] + shift[a], double(dstAt[a] + dstExtent[a]));
        r.begin[a] = int(std::trunc(from + 0.4999999999));
        r.end[a] = int(std::trunc(to + 0.5000000001));
    }
    return r;
}

}  // namespace vlkr::reference
