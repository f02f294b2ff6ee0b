// Volume resize. Every destination position maps back to a source position per axis
// (s = d * inv + off); the kernel is separable, so each source plane a destination plane
// needs is resampled in-plane (x on source rows, then y) into a float plane once, kept while
// later destination planes still use it, and the destination plane is the z-weighted sum of
// those planes. All scratch is carved from the caller's work buffer.
#include "resize.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <type_traits>

#include "kernels.h"
#include "resize_rows.h"

namespace vlkr::volume {
namespace {

// Source positions are pinned to this distance from the origin before taking the floor, so
// absurd factors or shifts still give indices that the edge path clamps.
constexpr double kFarPosition = 1 << 30;
// Nearest neighbour subtracts this from the offset once, so an exact half picks the lower voxel.
constexpr double kNearestBias = 1e-10;

// The work buffer carved as the size query planned it, for the frame's extents.
struct Scratch {
    int* first[3];
    float* fraction[3];
    float* rows;
    float* planes;
    float* weights[3];
    float* spare;
    std::ptrdiff_t planePitch;  // floats per plane row
    std::ptrdiff_t rowPitch;    // floats per x-resampled row
    std::ptrdiff_t rowFloats;   // size of the row area
};

Scratch carve(unsigned char* buffer, const ResizeFrame& f, int interpolation)
{
    const ResizeBufferPlan plan =
        resizeBufferPlan(std::uint32_t(f.axis[0].extent()), std::uint32_t(f.axis[1].extent()),
                         std::uint32_t(f.axis[2].extent()), 1, interpolation);
    unsigned char* next = alignBuffer64(buffer);
    auto take = [&](std::uint32_t bytes) {
        unsigned char* piece = next;
        next += bytes;
        return reinterpret_cast<float*>(piece);
    };
    Scratch s{};
    for (int a = 0; a < 3; ++a) s.first[a] = reinterpret_cast<int*>(take(plan.index[a]));
    for (int a = 0; a < 3; ++a) s.fraction[a] = take(plan.fraction[a]);
    s.rows = take(plan.rows);
    s.planes = take(plan.planes);
    for (int a = 0; a < 3; ++a) s.weights[a] = take(plan.weights[a]);
    s.spare = take(plan.spare);
    s.planePitch = plan.planeRowFloats;
    s.rowPitch = (f.axis[0].extent() + 15) & ~15;
    s.rowFloats = plan.rows / sizeof(float);
    return s;
}

// First source index of each destination position for nearest neighbour, clamped to the
// volume (a safety net: the destination range already keeps them inside).
void nearestIndices(const ResizeAxis& axis, int* index)
{
    const double off = axis.off - kNearestBias;
    for (int p = 0; p < axis.extent(); ++p) {
        const double v = (axis.start + p + 0.5) * axis.inv + off;
        index[p] = v >= 0 ? (v < axis.size - 1 ? int(v) : axis.size - 1) : 0;
    }
}

// Tap positions of one axis; `weights` (kTaps arrays of `stride` floats) may be null when
// the caller forms the weights from the stored fractions itself.
template <class Kernel>
AxisTaps prepareAxis(const ResizeAxis& axis, int* first, float* fraction, float* weights,
                     std::ptrdiff_t stride)
{
    constexpr int kTaps = Kernel::kTaps;
    const int n = axis.extent();
    for (int p = 0; p < n; ++p) {
        double s = (axis.start + p + 0.5) * axis.inv + axis.off - 0.5;
        s = s > -kFarPosition ? std::fmin(s, kFarPosition) : -kFarPosition;  // NaN too
        const double i = std::floor(s);
        const float t = float(s - i);
        first[p] = int(i) + Kernel::kFirstTap;
        fraction[p] = t;
        if (weights) {
            float w[kTaps];
            Kernel::weights(t, w);
            for (int k = 0; k < kTaps; ++k) weights[k * stride + p] = w[k];
        }
    }
    // Positions map monotonically, so the ones with a tap outside the source form a
    // prefix and a suffix.
    int begin = 0, end = n;
    while (begin < n && first[begin] < 0) ++begin;
    while (end > begin && first[end - 1] + kTaps > axis.size) --end;
    return AxisTaps{first, weights, stride, axis.size, begin, end};
}

template <class T, template <class> class Layout>
void resizeNearest(const ResizeFrame& f, const Layout<const T>& src, const Layout<T>& dst,
                   unsigned char* buffer)
{
    const Scratch s = carve(buffer, f, vlkInterNearest);
    const ResizeAxis &ax = f.axis[0], &ay = f.axis[1], &az = f.axis[2];
    for (int a = 0; a < 3; ++a) nearestIndices(f.axis[a], s.first[a]);
    const int *ix = s.first[0], *iy = s.first[1], *iz = s.first[2];
    const std::size_t rowBytes = sizeof(T) * std::size_t(ax.extent());

    for (int z = 0; z < az.extent(); ++z) {
        T* plane = dst.plane(az.start + z);
        // A destination plane from the same source plane as the one before is a copy of it.
        if (z > 0 && iz[z] == iz[z - 1]) {
            T* previous = dst.plane(az.start + z - 1);
            for (int y = ay.start; y < ay.end; ++y)
                std::memmove(dst.row(plane, y) + ax.start, dst.row(previous, y) + ax.start,
                             rowBytes);
            continue;
        }
        const T* source = src.plane(iz[z]);
        for (int y = 0; y < ay.extent(); ++y) {
            T* out = dst.row(plane, ay.start + y) + ax.start;
            if (y > 0 && iy[y] == iy[y - 1]) {
                std::memmove(out, dst.row(plane, ay.start + y - 1) + ax.start, rowBytes);
                continue;
            }
            if (y + 1 < ay.extent() && iy[y + 1] != iy[y])
                prefetchSpan(src.row(source, iy[y + 1]), ix[0], ix[ax.extent() - 1]);
            gatherRow(src.row(source, iy[y]), ix, ax.extent(), out);
        }
    }
}

// One source plane resampled in x and y into a float plane of the destination's width and
// height; x-resampled rows are cached while the next destination rows still need them.
template <class T, class Kernel, template <class> class Layout, class PlaneValue>
void resamplePlane(const Layout<const T>& src, const T* plane, const AxisTaps& x, const AxisTaps& y,
                   int width, int height, const Scratch& s, PlaneValue* out)
{
    constexpr int kTaps = Kernel::kTaps;
    const int spanFirst = clampTap(x.first[0], x.size);
    const int spanLast = clampTap(x.first[width - 1] + kTaps - 1, x.size);
    SlotCache<kTaps> cache;
    for (int p = 0; p < height; ++p) {
        int keys[kTaps];
        const float* rows[kTaps];
        for (int k = 0; k < kTaps; ++k) keys[k] = clampTap(y.first[p] + k, y.size);
        if (p + 1 < height) {
            const int next = clampTap(y.first[p + 1] + kTaps - 1, y.size);
            if (next != keys[kTaps - 1]) prefetchSpan(src.row(plane, next), spanFirst, spanLast);
        }
        for (int k = 0; k < kTaps; ++k) {
            bool fresh;
            float* row = s.rows + cache.acquire(keys[k], keys, &fresh) * s.rowPitch;
            if (fresh) resampleRowX<T, kTaps>(src.row(plane, keys[k]), x, width, row);
            rows[k] = row;
        }
        float w[kTaps];
        for (int k = 0; k < kTaps; ++k) w[k] = y.weight(k)[p];
        blendRows<kTaps>(rows, w, out + p * s.planePitch, width);
    }
}

// The same plane with y first: the source rows of each destination row are blended over
// the x span the taps reach, then that one row is x-resampled. Cheaper when x shrinks and
// y does not grow, since each destination row then needs one x pass instead of kTaps.
template <class T, class Kernel, template <class> class Layout, class PlaneValue>
void resamplePlaneYFirst(const Layout<const T>& src, const T* plane, const AxisTaps& x,
                         const AxisTaps& y, int width, int height, const Scratch& s,
                         PlaneValue* out)
{
    constexpr int kTaps = Kernel::kTaps;
    const int spanFirst = clampTap(x.first[0], x.size);
    const int span = clampTap(x.first[width - 1] + kTaps - 1, x.size) - spanFirst + 1;
    const float* blended = s.rows - spanFirst;  // indexed by source x
    for (int p = 0; p < height; ++p) {
        const T* rows[kTaps];
        float w[kTaps];
        for (int k = 0; k < kTaps; ++k) {
            rows[k] = src.row(plane, clampTap(y.first[p] + k, y.size)) + spanFirst;
            w[k] = y.weight(k)[p];
        }
        if (p + 1 < height && y.first[p + 1] != y.first[p])
            for (int k = 0; k < kTaps; ++k)
                prefetchSpan(src.row(plane, clampTap(y.first[p + 1] + k, y.size)), spanFirst,
                             spanFirst + span - 1);
        blendRows<kTaps>(rows, w, s.rows, span);
        resampleRowX<float, kTaps>(blended, x, width, out + p * s.planePitch);
    }
}

template <class T, class Kernel, template <class> class Layout>
void resizeSeparable(const ResizeFrame& f, const Layout<const T>& src, const Layout<T>& dst,
                     unsigned char* buffer)
{
    constexpr int kTaps = Kernel::kTaps;
    constexpr bool kCubic = kTaps == 4;
    constexpr bool kFixedBlend = std::is_same_v<T, std::uint8_t> && !kCubic;
    // The four cubic selectors share one buffer plan.
    const Scratch s = carve(buffer, f, kCubic ? vlkInterCatmullRom : vlkInterLinear);
    const ResizeAxis &ax = f.axis[0], &ay = f.axis[1], &az = f.axis[2];
    const int width = ax.extent(), height = ay.extent();

    // Weight arrays are kTaps rows of a 16-float multiple each. Cubic weights have their own
    // areas; trilinear keeps its x and y weights in the spare area, which holds
    // 8 * (width + height) + 64 floats.
    const std::ptrdiff_t xStride = (width + 15) & ~15, yStride = (height + 15) & ~15;
    float* xWeights = kCubic ? s.weights[0] : s.spare;
    float* yWeights = kCubic ? s.weights[1] : s.spare + kTaps * xStride;
    const AxisTaps x = prepareAxis<Kernel>(ax, s.first[0], s.fraction[0], xWeights, xStride);
    const AxisTaps y = prepareAxis<Kernel>(ay, s.first[1], s.fraction[1], yWeights, yStride);
    const AxisTaps z = prepareAxis<Kernel>(az, s.first[2], s.fraction[2], nullptr, 0);

    const int span =
        clampTap(x.first[width - 1] + kTaps - 1, x.size) - clampTap(x.first[0], x.size) + 1;
    const bool yFirst = ax.inv > 1 && ay.inv >= 1 && span <= s.rowFloats;

    // Kept whole rather than in strips of rows: a strip walk over every destination plane
    // scatters the writes and measured slower than reading the planes from the last-level cache.
    using PlaneValue = std::conditional_t<kFixedBlend, Fixed6, float>;
    PlaneValue* slots = reinterpret_cast<PlaneValue*>(s.planes);
    const std::ptrdiff_t slotValues = s.planePitch * height;
    SlotCache<kTaps> cache;
    for (int p = 0; p < az.extent(); ++p) {
        int keys[kTaps];
        const PlaneValue* planes[kTaps];
        for (int k = 0; k < kTaps; ++k) keys[k] = clampTap(z.first[p] + k, z.size);
        for (int k = 0; k < kTaps; ++k) {
            bool fresh;
            PlaneValue* plane = slots + cache.acquire(keys[k], keys, &fresh) * slotValues;
            if (fresh && yFirst)
                resamplePlaneYFirst<T, Kernel>(src, src.plane(keys[k]), x, y, width, height, s,
                                               plane);
            else if (fresh)
                resamplePlane<T, Kernel>(src, src.plane(keys[k]), x, y, width, height, s, plane);
            planes[k] = plane;
        }
        float w[kTaps];
        Kernel::weights(s.fraction[2][p], w);
        T* out = dst.plane(az.start + p);
        for (int r = 0; r < height; ++r) {
            T* row = dst.row(out, ay.start + r) + ax.start;
            const PlaneValue* in[kTaps];
            for (int k = 0; k < kTaps; ++k) in[k] = planes[k] + r * s.planePitch;
            if constexpr (kFixedBlend)
                blendRowsFixed(in[0], in[1], fixedWeight(s.fraction[2][p]), row, width);
            else
                blendRows<kTaps>(in, w, row, width);
        }
    }
}

}  // namespace

template <class T, template <class> class Layout>
void runResize(const ResizeFrame& frame, const Layout<const T>& src, const Layout<T>& dst,
               int interpolation, unsigned char* buffer) noexcept
{
    using Run =
        void (*)(const ResizeFrame&, const Layout<const T>&, const Layout<T>&, unsigned char*);
    // Indexed by the interpolation selector; the front end has refused the empty slots.
    static constexpr Run kRuns[8] = {
        nullptr,
        resizeNearest<T, Layout>,
        resizeSeparable<T, Trilinear, Layout>,
        nullptr,
        resizeSeparable<T, Lagrange4, Layout>,
        resizeSeparable<T, BSpline, Layout>,
        resizeSeparable<T, CatmullRom, Layout>,
        resizeSeparable<T, CubicC03, Layout>,
    };
    kRuns[interpolation](frame, src, dst, buffer);
}

VLKR_FOR_EACH_RESIZE(VLKR_RESIZE_INSTANCE)

}  // namespace vlkr::volume
