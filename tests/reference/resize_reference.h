// Plain per-voxel resize in double precision: the oracle for every selector, voxel type and
// layout. Only the tap weights are rounded to float, as the library stores them.
#pragma once

#include <algorithm>
#include <cmath>
#include <type_traits>

#include "vlkr.h"

namespace vlkr::reference {

// Destination voxels [begin, end) per axis (x, y, z) that a resize writes.
struct ResizeRegion {
    int begin[3], end[3];
    bool empty() const { return begin[0] >= end[0] || begin[1] >= end[1] || begin[2] >= end[2]; }
};

// The source cuboid is trimmed to the volume, mapped by factor and shift, cut by the
// destination cuboid and rounded inwards at halves on the start, outwards on the end.
inline ResizeRegion resizeRegion(const VolumeSize& vol, const Cuboid& src, const Cuboid& dst,
                                 const double factor[3], const double shift[3])
{
    const int size[3] = {vol.width, vol.height, vol.depth};
    const int srcAt[3] = {src.x, src.y, src.z}, srcExtent[3] = {src.width, src.height, src.depth};
    const int dstAt[3] = {dst.x, dst.y, dst.z}, dstExtent[3] = {dst.width, dst.height, dst.depth};
    ResizeRegion r{};
    for (int a = 0; a < 3; ++a) {
        const int extent = std::min(size[a] - srcAt[a], srcExtent[a]);
        const double from = std::max(srcAt[a] * factor[a] + shift[a], double(dstAt[a]));
        const double to =
            std::min((srcAt[a] + extent) * factor[a] + shift[a], double(dstAt[a] + dstExtent[a]));
        r.begin[a] = int(std::trunc(from + 0.4999999999));
        r.end[a] = int(std::trunc(to + 0.5000000001));
    }
    return r;
}

// Cubic kernels by selector: 4 Lagrange, 5 B-spline, 6 Catmull-Rom, 7 B = 1/2, C = 3/10.
inline double resizeKernel(int selector, double x)
{
    const double a = std::fabs(x), a2 = a * a, a3 = a2 * a;
    if (a >= 2) return 0;
    const bool inner = a < 1;
    switch (selector) {
        case 4:
            return inner ? 0.5 * a3 - a2 - 0.5 * a + 1 : -a3 / 6 + a2 - 11.0 / 6 * a + 1;
        case 5:
            return inner ? 0.5 * a3 - a2 + 2.0 / 3 : -a3 / 6 + a2 - 2 * a + 4.0 / 3;
        case 6:
            return inner ? 1.5 * a3 - 2.5 * a2 + 1 : -0.5 * a3 + 2.5 * a2 - 4 * a + 2;
        case 7:
            return inner ? 0.95 * a3 - 1.7 * a2 + 5.0 / 6
                         : -23.0 / 60 * a3 + 2 * a2 - 3.4 * a + 28.0 / 15;
    }
    return NAN;
}

// Source indices (clamped to the whole volume axis) and weights for destination index d.
struct ResizeTaps {
    int count;
    int index[4];
    double weight[4];
};

inline ResizeTaps resizeTaps(int selector, int d, double factor, double shift, int size)
{
    const double inv = 1.0 / factor, off = (0.0 - shift) / factor;
    ResizeTaps taps{};
    auto clamp = [size](double i) { return int(std::clamp(i, 0.0, double(size - 1))); };
    if (selector == vlkInterNearest) {
        taps.count = 1;
        taps.index[0] = clamp(std::trunc((d + 0.5) * inv + (off - 1e-10)));
        taps.weight[0] = 1;
        return taps;
    }
    const double s = (d + 0.5) * inv + off - 0.5, i = std::floor(s);
    const float t = float(s - i);
    if (selector == vlkInterLinear) {
        taps.count = 2;
        taps.index[0] = clamp(i), taps.index[1] = clamp(i + 1);
        taps.weight[0] = 1.0f - t, taps.weight[1] = t;
        return taps;
    }
    const double u = t, at[4] = {1 + u, u, 1 - u, 2 - u};
    taps.count = 4;
    for (int k = 0; k < 4; ++k) {
        taps.index[k] = clamp(i - 1 + k);
        taps.weight[k] = float(resizeKernel(selector, at[k]));
    }
    return taps;
}

// Value of destination voxel d = (x, y, z) before conversion; read(x, y, z) gives a source
// voxel as double. magnitude, when given, receives the sum of |weight * voxel| over the taps.
template <class Read>
double resizeVoxel(const Read& read, const VolumeSize& vol, int selector, const int d[3],
                   const double factor[3], const double shift[3], double* magnitude = nullptr)
{
    const ResizeTaps x = resizeTaps(selector, d[0], factor[0], shift[0], vol.width);
    const ResizeTaps y = resizeTaps(selector, d[1], factor[1], shift[1], vol.height);
    const ResizeTaps z = resizeTaps(selector, d[2], factor[2], shift[2], vol.depth);
    double sum = 0, size = 0;
    for (int k = 0; k < z.count; ++k)
        for (int j = 0; j < y.count; ++j)
            for (int i = 0; i < x.count; ++i) {
                const double term = z.weight[k] * y.weight[j] * x.weight[i] *
                                    read(x.index[i], y.index[j], z.index[k]);
                sum += term, size += std::fabs(term);
            }
    if (magnitude) *magnitude = size;
    return sum;
}

// Conversion to the voxel type: floats as they are, integers rounded half up and clamped.
template <class T>
T resizeStore(double v)
{
    if constexpr (std::is_floating_point_v<T>) {
        return T(v);
    } else {
        const double top = sizeof(T) == 1 ? 255.0 : 65535.0;
        return T(std::clamp(std::trunc(v + 0.5000001), 0.0, top));
    }
}

}  // namespace vlkr::reference
