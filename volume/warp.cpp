// Affine warp. Each destination row walks its source point incrementally (one column of the
// inverse per voxel, in double, so every row repeats the same sums bit for bit), tests it
// against the closed source box, and samples the source there with the row's kernel.
#include "warp.h"

#include <algorithm>

#include "kernels.h"
#include "vlkcore.h"
#include "voxel.h"

namespace vlkr::volume {
namespace {

// Index guards: trilinear and cubic take trunc(s + kTapGuard) so a point a hair below a
// voxel lands on it; nearest rounds with kNearestRound.
constexpr double kTapGuard = 1e-7;
constexpr double kNearestRound = 0.5000001;
// Coordinates of one row are walked in chunks of this many voxels on the stack.
constexpr int kChunk = 256;

// Nearest neighbour: the voxel at trunc(s + 0.5000001) per axis, copied unchanged.
struct WarpNearest {
    template <class T, int kAxes>
    static T sample(const PlaneLayout<const T>& src, const double s[3], const VoxelBox&)
    {
        const int x = int(s[0] + kNearestRound), y = int(s[1] + kNearestRound);
        const int z = kAxes == 3 ? int(s[2] + kNearestRound) : 0;
        return loadUnaligned(src.row(src.plane(z), y) + x);
    }
};

// Two taps on one axis: lo, hi and the weight f of hi. A point on the last voxel takes
// last - 1 and last with f = 1, never reading past the box; a box one voxel wide at 0
// clamps that lower tap to 0, where its weight is 0.
struct LinearTaps {
    int lo, hi;
    double f;
    LinearTaps(double s, int last)
    {
        const int i = int(s + kTapGuard);  // s >= 0 inside the box: truncation is the floor
        if (i < last) {
            lo = i, hi = i + 1, f = s - i;
        } else {
            lo = std::max(last - 1, 0), hi = last, f = 1.0;
        }
    }
};

// Trilinear (bilinear on a plane): a + (b - a) f along x on the rows, then y, then z.
struct WarpLinear {
    template <class T, int kAxes>
    static T sample(const PlaneLayout<const T>& planes, const double s[3], const VoxelBox& box)
    {
        const PlaneRows<T, kAxes> src{planes};
        const LinearTaps x(s[0], box.last[0]), y(s[1], box.last[1]);
        auto row = [&](int yi, int zi) {
            const T* r = src.row(yi, zi);
            const double a = voxelAs<double>(r, x.lo), b = voxelAs<double>(r, x.hi);
            return a + (b - a) * x.f;
        };
        auto plane = [&](int zi) {
            const double a = row(y.lo, zi), b = row(y.hi, zi);
            return a + (b - a) * y.f;
        };
        if constexpr (kAxes == 2) {
            return roundToVoxel<T>(plane(0));
        } else {
            const LinearTaps z(s[2], box.last[2]);
            const double a = plane(z.lo), b = plane(z.hi);
            return roundToVoxel<T>(a + (b - a) * z.f);
        }
    }
};

// Cubic: four taps i - 1 .. i + 2 per axis around i = trunc(s + 1e-7), weighted by the
// kernel of their distance from s in double, each tap clamped to the source box.
template <class Kernel>
struct WarpCubic {
    struct Taps {
        int index[4];
        double w[4];
        Taps(double s, int first, int last)
        {
            const int i = int(s + kTapGuard);
            Kernel::weights(s - i, w);
            const bool inside = i - 1 >= first && i + 2 <= last;
            for (int k = 0; k < 4; ++k)
                index[k] = inside ? i - 1 + k : std::clamp(i - 1 + k, first, last);
        }
    };
    // The 4 x 4 (x 4) taps in two double lanes: x taps 0 and 2 in one, 1 and 3 in the other,
    // weighted by y and z as they go, and the two lanes added last.
    template <class T, int kAxes>
    static T sample(const PlaneLayout<const T>& planes, const double s[3], const VoxelBox& box)
    {
        const PlaneRows<T, kAxes> src{planes};
        const Taps x(s[0], box.first[0], box.last[0]), y(s[1], box.first[1], box.last[1]);
        const __m128d wx01 = _mm_loadu_pd(x.w), wx23 = _mm_loadu_pd(x.w + 2);
        auto plane = [&](int zi) {
            __m128d sum = _mm_setzero_pd();
            for (int ky = 0; ky < 4; ++ky) {
                const __m128 v = loadTaps4(src.row(y.index[ky], zi), x.index);
                const __m128d row = _mm_add_pd(_mm_mul_pd(_mm_cvtps_pd(v), wx01),
                                               _mm_mul_pd(_mm_cvtps_pd(_mm_movehl_ps(v, v)), wx23));
                sum = _mm_add_pd(sum, _mm_mul_pd(row, _mm_set1_pd(y.w[ky])));
            }
            return sum;
        };
        __m128d sum;
        if constexpr (kAxes == 2) {
            sum = plane(0);
        } else {
            const Taps z(s[2], box.first[2], box.last[2]);
            sum = _mm_setzero_pd();
            for (int kz = 0; kz < 4; ++kz)
                sum = _mm_add_pd(sum, _mm_mul_pd(plane(z.index[kz]), _mm_set1_pd(z.w[kz])));
        }
        return roundToVoxel<T>(_mm_cvtsd_f64(_mm_add_sd(sum, _mm_unpackhi_pd(sum, sum))));
    }
};

// Walks the target box row by row. `coords` holds room for three rows of `capacity` source
// coordinates (x, y, z), filled in chunks: first the incremental walk, then the samples.
template <class T, class Sampler, int kAxes>
void warpRows(const WarpJob<T>& job, double* coords, int capacity)
{
    // Local copies: the voxel stores go through memcpy, which may alias anything the
    // compiler cannot prove local, and would make it reload every bound per voxel.
    const AffineInverse inv = job.inverse;
    const VoxelBox box = job.source, target = job.target;
    const PlaneLayout<const T> src = job.src;
    double lo[3], hi[3];
    for (int r = 0; r < 3; ++r) lo[r] = box.first[r], hi[r] = box.last[r];
    double* const walk[3] = {coords, coords + capacity, coords + 2 * capacity};
    const int x0 = target.first[0];
    for (int z = target.first[2]; z <= target.last[2]; ++z) {
        T* plane = job.dst.plane(z);
        for (int y = target.first[1]; y <= target.last[1]; ++y) {
            T* row = job.dst.row(plane, y);
            double s[3];
            for (int r = 0; r < 3; ++r)
                s[r] = inv.m[r][0] * x0 + inv.m[r][1] * y + inv.m[r][2] * z + inv.t[r];
            for (int begin = x0; begin <= target.last[0]; begin += capacity) {
                const int n = std::min(capacity, target.last[0] - begin + 1);
                for (int i = 0; i < n; ++i)
                    for (int r = 0; r < 3; ++r) walk[r][i] = s[r], s[r] += inv.m[r][0];
                for (int i = 0; i < n; ++i) {
                    const double p[3] = {walk[0][i], walk[1][i], walk[2][i]};
                    // Closed interval, compared in double; NaN fails.
                    bool inside = true;
                    for (int r = 0; r < 3; ++r) inside = inside && p[r] >= lo[r] && p[r] <= hi[r];
                    if (inside)
                        storeUnaligned(row + begin + i,
                                       Sampler::template sample<T, kAxes>(src, p, box));
                }
            }
        }
    }
}

template <class T, int kAxes>
using WarpFn = void (*)(const WarpJob<T>&, double*, int);

// Indexed by the interpolation selector; the front end refuses the empty slots.
template <class T, int kAxes>
constexpr WarpFn<T, kAxes> kWarpRows[8] = {
    nullptr,
    warpRows<T, WarpNearest, kAxes>,
    warpRows<T, WarpLinear, kAxes>,
    nullptr,
    warpRows<T, WarpCubic<Lagrange4>, kAxes>,
    warpRows<T, WarpCubic<BSpline>, kAxes>,
    warpRows<T, WarpCubic<CatmullRom>, kAxes>,
    warpRows<T, WarpCubic<CubicC03>, kAxes>,
};

// RAII owner of a block from the core library; null when the allocation fails or the size
// does not fit the allocator's int.
class ScopedBlock {
   public:
    explicit ScopedBlock(std::size_t bytes)
        : p_(bytes <= 0x7FFFFFFF ? vlkMalloc(static_cast<int>(bytes)) : nullptr)
    {
    }
    ~ScopedBlock() { vlkFree(p_); }
    ScopedBlock(const ScopedBlock&) = delete;
    ScopedBlock& operator=(const ScopedBlock&) = delete;
    void* get() const { return p_; }

   private:
    void* p_;
};

}  // namespace

template <class T>
void runWarp(const WarpJob<T>& job, int interpolation) noexcept
{
    double coords[3 * kChunk];
    kWarpRows<T, 3>[interpolation](job, coords, kChunk);
}

template <class T>
vlkStatus runPlanarWarp(const WarpJob<T>& job, int interpolation) noexcept
{
    const int width = job.target.last[0] - job.target.first[0] + 1;
    ScopedBlock coords(3 * sizeof(double) * std::size_t(width));
    if (!coords.get()) return vlkStatusNoMemory;
    kWarpRows<T, 2>[interpolation](job, static_cast<double*>(coords.get()), width);
    return vlkStatusOk;
}

#define VLKR_INSTANTIATE_WARP(T)                               \
    template void runWarp<T>(const WarpJob<T>&, int) noexcept; \
    template vlkStatus runPlanarWarp<T>(const WarpJob<T>&, int) noexcept;
VLKR_FOR_EACH_WARP_TYPE(VLKR_INSTANTIATE_WARP)
#undef VLKR_INSTANTIATE_WARP

}  // namespace vlkr::volume
