// Remap. Every destination voxel reads its source point from the three maps, is passed over
// unless the point lies inside the sampling box (ordered float comparisons, so NaN and
// infinities fail before any source access), and is sampled in single precision.
#include "remap.h"

#include <algorithm>

#include "kernels.h"
#include "voxel.h"

namespace vlkr::volume {
namespace {

constexpr double kTapGuard = 1e-7;           // trunc(s + kTapGuard): a hair below a voxel is on it
constexpr double kNearestRound = 0.5000001;  // nearest: trunc(s + kNearestRound)

// Nearest neighbour: the voxel at trunc(s + 0.5000001) per axis, copied unchanged.
struct RemapNearest {
    template <class T, int kAxes>
    static T sample(const RemapJob<T>& job, const float s[3])
    {
        const int x = int(s[0] + kNearestRound), y = int(s[1] + kNearestRound);
        const int z = kAxes == 3 ? int(s[2] + kNearestRound) : 0;
        return loadUnaligned(job.src.row(job.src.plane(z), y) + x);
    }
};

// Two taps on one axis and the weight f of the upper one, in float. A point at or past
// index max - 1 reads max - 1 and max with f = 1; for a box one voxel wide at 0 the lower
// tap is clamped to 0, where its weight is 0.
struct LinearTaps {
    int lo, hi;
    float f;
    LinearTaps(float s, int max)
    {
        const int i = int(s + kTapGuard);  // s >= 0 inside the box: truncation is the floor
        if (i >= max) {
            lo = std::max(max - 1, 0), hi = max, f = 1.0f;
        } else {
            lo = i, hi = i + 1, f = s - float(i);
        }
    }
};

// Trilinear in single precision, in exactly this order of operations; on a plane the
// bilinear part q0 alone.
struct RemapLinear {
    template <class T, int kAxes>
    static T sample(const RemapJob<T>& job, const float s[3])
    {
        const PlaneRows<T, kAxes> src{job.src};
        const LinearTaps x(s[0], job.max[0]), y(s[1], job.max[1]);
        auto blendX = [&](int yi, int zi) {
            const T* row = src.row(yi, zi);
            const float a = voxelAs<float>(row, x.lo);
            return a + (voxelAs<float>(row, x.hi) - a) * x.f;
        };
        const LinearTaps z = kAxes == 3 ? LinearTaps(s[2], job.max[2]) : LinearTaps(0.0f, 1);
        const float p0 = blendX(y.lo, z.lo);
        const float q0 = (blendX(y.hi, z.lo) - p0) * y.f + p0;
        if constexpr (kAxes == 2) {
            return roundToVoxel<T>(q0);
        } else {
            const float p1 = blendX(y.lo, z.hi);
            const float q1 = blendX(y.hi, z.hi);
            return roundToVoxel<T>(q0 + ((q1 - p1) * y.f + p1 - q0) * z.f);
        }
    }
};

// Cubic: weights of the distances 1 + f, f, 1 - f, 2 - f in double, kept as float, and the
// tap columns guarded against column 0 below and the box's last column above. Kept on
// purpose: the lower guard is the volume's first column, not the box's, so a point in the
// box's first column reads the column before it.
template <class Kernel>
struct RemapCubic {
    struct Taps {
        int index[4];
        float w[4];
        Taps(float s, int max)
        {
            const int i = int(s + kTapGuard);
            Kernel::weights(s - float(i), w);
            const int columns[4][4] = {
                {0, 0, 1, 2},              // at or below column 0: the -1 tap repeats it
                {i - 1, i, i + 1, i + 1},  // one before the box's last column
                {i - 1, i, i, i},          // on (or past) the box's last column
                {i - 1, i, i + 1, i + 2},
            };
            const int rule = i <= 0 ? 0 : i == max - 1 ? 1 : i >= max ? 2 : 3;
            for (int k = 0; k < 4; ++k) index[k] = columns[rule][k];
        }
    };
    // The 4 x 4 (x 4) taps in four float lanes, one per x tap, weighted by y and z as they
    // go, then by x, and the lanes added last.
    template <class T, int kAxes>
    static T sample(const RemapJob<T>& job, const float s[3])
    {
        const PlaneRows<T, kAxes> src{job.src};
        const Taps x(s[0], job.max[0]), y(s[1], job.max[1]);
        auto plane = [&](int zi) {
            __m128 sum = _mm_setzero_ps();
            for (int ky = 0; ky < 4; ++ky) {
                const __m128 v = loadTaps4(src.row(y.index[ky], zi), x.index);
                sum = _mm_add_ps(sum, _mm_mul_ps(v, _mm_set1_ps(y.w[ky])));
            }
            return sum;
        };
        __m128 sum;
        if constexpr (kAxes == 2) {
            sum = plane(0);
        } else {
            const Taps z(s[2], job.max[2]);
            sum = _mm_setzero_ps();
            for (int kz = 0; kz < 4; ++kz)
                sum = _mm_add_ps(sum, _mm_mul_ps(plane(z.index[kz]), _mm_set1_ps(z.w[kz])));
        }
        float lanes[4];
        _mm_storeu_ps(lanes, _mm_mul_ps(sum, _mm_loadu_ps(x.w)));
        return roundToVoxel<T>((lanes[0] + lanes[1]) + (lanes[2] + lanes[3]));
    }
};

template <class T>
const T* byteOffset(const T* p, std::ptrdiff_t bytes)
{
    return reinterpret_cast<const T*>(reinterpret_cast<const char*>(p) + bytes);
}
template <class T>
T* byteOffset(T* p, std::ptrdiff_t bytes)
{
    return reinterpret_cast<T*>(reinterpret_cast<char*>(p) + bytes);
}

// Destination planes and rows in order; map and destination rows are byte offsets from
// their planes, so they may sit at any address.
template <class T, class Sampler, int kAxes>
void remapRows(const RemapJob<T>& caller)
{
    // A local copy: the voxel stores go through memcpy, which may alias anything the
    // compiler cannot prove local, and would make it reload the box per voxel.
    const RemapJob<T> job = caller;
    float lo[3], hi[3];
    for (int a = 0; a < 3; ++a) lo[a] = float(job.min[a]), hi[a] = float(job.max[a]);
    for (int z = 0; z < job.size[2]; ++z)
        for (int y = 0; y < job.size[1]; ++y) {
            const std::ptrdiff_t mapRow = std::ptrdiff_t(y) * job.mapStep;
            const float* xs = byteOffset(job.map[0][z], mapRow);
            const float* ys = byteOffset(job.map[1][z], mapRow);
            const float* zs = kAxes == 3 ? byteOffset(job.map[2][z], mapRow) : nullptr;
            T* out = byteOffset(job.dst[z], std::ptrdiff_t(y) * job.dstStep);
            for (int x = 0; x < job.size[0]; ++x) {
                const float s[3] = {loadUnaligned(xs + x), loadUnaligned(ys + x),
                                    kAxes == 3 ? loadUnaligned(zs + x) : 0.0f};
                bool inside = true;
                for (int a = 0; a < kAxes; ++a) inside = inside && s[a] >= lo[a] && s[a] <= hi[a];
                if (inside) storeUnaligned(out + x, Sampler::template sample<T, kAxes>(job, s));
            }
        }
}

template <class T>
using RemapFn = void (*)(const RemapJob<T>&);

// Indexed by the interpolation selector; the front end refuses the empty slots, and the
// plane form has no kernels for 5 and 7.
template <class T, int kAxes>
constexpr RemapFn<T> kRemapRows[8] = {
    nullptr,
    remapRows<T, RemapNearest, kAxes>,
    remapRows<T, RemapLinear, kAxes>,
    nullptr,
    remapRows<T, RemapCubic<Lagrange4>, kAxes>,
    kAxes == 3 ? remapRows<T, RemapCubic<BSpline>, kAxes> : nullptr,
    remapRows<T, RemapCubic<CatmullRom>, kAxes>,
    kAxes == 3 ? remapRows<T, RemapCubic<CubicC03>, kAxes> : nullptr,
};

}  // namespace

template <class T, int kAxes>
void runRemap(const RemapJob<T>& job, int interpolation) noexcept
{
    kRemapRows<T, kAxes>[interpolation](job);
}

VLKR_FOR_EACH_REMAP(VLKR_REMAP_INSTANCE)

}  // namespace vlkr::volume
