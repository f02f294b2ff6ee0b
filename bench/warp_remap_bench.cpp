// Affine warp and remap benchmarks, single thread, 256^3 to 256^3 in 8u and 32f with trilinear
// and Catmull-Rom sampling: the warp turns the volume 30 degrees about z and scales it by 1.1
// about its centre, the remap follows smooth random coordinate maps. Each runs beside a memcpy
// of the bytes it must move (the memory floor) and, when Debian's Python with SciPy is present,
// scipy.ndimage's affine_transform and map_coordinates. Pass --scipy=0 to leave SciPy out.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <type_traits>
#include <vector>

#include "vlkr.h"
#include "volume_bench_support.h"

namespace {

using namespace vlkr::bench;

constexpr int kSide = 256;
constexpr double kCentre = (kSide - 1) / 2.0;
constexpr std::int64_t kVoxels = std::int64_t(kSide) * kSide * kSide;
constexpr int kIterations = 3, kFloorIterations = 12;

struct Interp {
    int selector;
    const char* name;
    int scipyOrder;
    const char* scipyKernel;  // scipy.ndimage has no Catmull-Rom, so cubic pairs with its B-spline
};
constexpr Interp kInterps[] = {{vlkInterLinear, "trilinear", 1, "order 1 (linear)"},
                               {vlkInterCatmullRom, "catmull-rom", 3, "order 3 (cubic B-spline)"}};

enum class Op { Warp, Remap };
constexpr Op kOps[] = {Op::Warp, Op::Remap};
constexpr double kTurn = 30.0 * 3.14159265358979323846 / 180.0, kScale = 1.1;
const char* opTag(Op op)
{
    return op == Op::Warp ? "warp" : "remap";
}

template <typename T>
struct Voxel;
template <>
struct Voxel<Vlk8u> {
    static constexpr const char* name = "8u";
    static constexpr auto warp = vlkrWarpAffine_8u_C1PV;
    static constexpr auto remap = vlkrRemap_8u_C1PV;
};
template <>
struct Voxel<Vlk32f> {
    static constexpr const char* name = "32f";
    static constexpr auto warp = vlkrWarpAffine_32f_C1PV;
    static constexpr auto remap = vlkrRemap_32f_C1PV;
};

// One block with its plane pointers: the plane-pointer layout that both operations take.
template <typename T>
struct Planes {
    static constexpr int step = kSide * sizeof(T);
    std::vector<T> data;  // zero-filled, so its pages are mapped before timing
    std::vector<T*> planes;
    explicit Planes(std::vector<T> v = std::vector<T>(kVoxels)) : data(std::move(v))
    {
        for (int z = 0; z < kSide; ++z)
            planes.push_back(data.data() + std::size_t(z) * kSide * kSide);
    }
    Planes(const Planes&) = delete;  // a copy would keep pointers into the original
    Planes(Planes&&) = default;
    const T* const* in() const { return planes.data(); }
    T* const* out() { return planes.data(); }
};

// Sinusoids along each axis plus a little noise: smooth enough to look like a scan, varied
// enough that no branch on equal neighbours can pay off.
template <typename T>
const Planes<T>& source()
{
    static const Planes<T> p(noisyVolume<T>(kSide, [](int x, int y, int z, float noise) {
        const float scale = std::is_integral<T>::value ? 255.0f : 1.0f;
        const float f = 0.5f + noise +
                        0.1f * (std::sin(x * 0.05f + 1.0f) + std::sin(y * 0.07f + 2.0f) +
                                std::sin(z * 0.09f + 3.0f));
        return T(f * scale + (std::is_integral<T>::value ? 0.5f : 0.0f));
    }));
    return p;
}

// Two plane waves (kx, ky, kz, phase) of 1.5 voxels per axis displace each voxel's own position;
// the SciPy script holds the same table, so both sides sample the same coordinates.
constexpr double kWaves[3][2][4] = {{{0.061, 0.037, 0.023, 0.4}, {0.019, 0.052, 0.071, 2.1}},
                                    {{0.043, 0.066, 0.017, 1.3}, {0.058, 0.021, 0.049, 4.0}},
                                    {{0.027, 0.048, 0.063, 5.2}, {0.069, 0.031, 0.036, 3.1}}};

const std::vector<Planes<float>>& maps()
{
    static const std::vector<Planes<float>> m = [] {
        std::vector<Planes<float>> axes(3);
        for (int a = 0; a < 3; ++a) {
            float* out = axes[a].data.data();
            for (int z = 0; z < kSide; ++z)
                for (int y = 0; y < kSide; ++y)
                    for (int x = 0; x < kSide; ++x) {
                        double d = a == 0 ? x : a == 1 ? y : z;
                        for (const auto& w : kWaves[a])
                            d += 1.5 * std::sin(w[0] * x + w[1] * y + w[2] * z + w[3]);
                        *out++ = float(d);
                    }
        }
        return axes;
    }();
    return m;
}

// Source to destination, x' = C x + t: C is 1.1 times a 30-degree turn about z, t fixes the centre.
void warpCoeffs(double c[3][4])
{
    const double cs = kScale * std::cos(kTurn), sn = kScale * std::sin(kTurn);
    const double m[3][3] = {{cs, -sn, 0}, {sn, cs, 0}, {0, 0, kScale}};
    for (int r = 0; r < 3; ++r) {
        for (int k = 0; k < 3; ++k) c[r][k] = m[r][k];
        c[r][3] = kCentre - (m[r][0] + m[r][1] + m[r][2]) * kCentre;
    }
}

// Share of destination voxels whose sample point lies in the source cube: only those are
// written, where scipy writes every voxel (cval outside), so it qualifies the comparison.
double insideShare(Op op)
{
    const double ca = std::cos(kTurn) / kScale, sa = std::sin(kTurn) / kScale;
    const auto& m = maps();
    auto in = [](double v) { return v >= 0 && v <= kSide - 1; };
    std::int64_t inside = 0, i = 0;
    for (int z = 0; z < kSide; ++z)
        for (int y = 0; y < kSide; ++y)
            for (int x = 0; x < kSide; ++x, ++i) {
                const double dx = x - kCentre, dy = y - kCentre, dz = z - kCentre;
                inside += op == Op::Warp
                              ? in(kCentre + ca * dx + sa * dy) &&
                                    in(kCentre - sa * dx + ca * dy) && in(kCentre + dz / kScale)
                              : in(m[0].data[i]) && in(m[1].data[i]) && in(m[2].data[i]);
            }
    return double(inside) / double(kVoxels);
}

template <typename T>
std::int64_t movedBytes(Op op)
{
    return kVoxels * std::int64_t(2 * sizeof(T) + (op == Op::Remap ? 3 * sizeof(float) : 0));
}

template <typename T>
void BM_Transform(benchmark::State& st, Op op, int sel)
{
    const Planes<T>& src = source<T>();
    const auto& m = maps();
    Planes<T> dst;
    const VolumeSize size{kSide, kSide, kSide};
    const Cuboid whole{0, 0, 0, kSide, kSide, kSide};
    double coeffs[3][4];
    warpCoeffs(coeffs);
    for (auto _ : st) {
        Cuboid srcVoi = whole;  // the remap trims it in place, so every call starts afresh
        const vlkStatus s =
            op == Op::Warp
                ? Voxel<T>::warp(src.in(), &size, src.step, &srcVoi, dst.out(), dst.step, &whole,
                                 coeffs, sel)
                : Voxel<T>::remap(src.in(), &size, src.step, &srcVoi, m[0].in(), m[1].in(),
                                  m[2].in(), Planes<float>::step, dst.out(), dst.step, &size, sel);
        if (s != vlkStatusOk) {
            st.SkipWithError(
                (std::string(opTag(op)) + " returned status " + std::to_string(s)).c_str());
            break;
        }
        benchmark::ClobberMemory();
    }
    setRates(st, kVoxels, movedBytes<T>(op));
}

template <typename T>
void BM_CopyFloor(benchmark::State& st, Op op)
{
    copyFloor(st, std::size_t(movedBytes<T>(op)), kVoxels);
}

// "BM_CopyFloor/warp/8u" without an interpolation, else e.g. "BM_Remap_C1PV/32f/trilinear".
std::string benchName(Op op, const char* type, const Interp* in = nullptr)
{
    if (!in) return std::string("BM_CopyFloor/") + opTag(op) + "/" + type;
    return std::string(op == Op::Warp ? "BM_WarpAffine_C1PV/" : "BM_Remap_C1PV/") + type + "/" +
           in->name;
}

template <typename T>
void registerType(TimingReporter& reporter)
{
    for (Op op : kOps) {
        const std::string floor = benchName(op, Voxel<T>::name);
        registerFixed(floor, kFloorIterations, BM_CopyFloor<T>, op);
        for (const Interp& in : kInterps)
            registerAgainstFloor(reporter, benchName(op, Voxel<T>::name, &in), floor, kIterations,
                                 BM_Transform<T>, op, in.selector);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    const bool withScipy = initialize(argc, argv);
    TimingReporter reporter;
    registerType<Vlk8u>(reporter);
    registerType<Vlk32f>(reporter);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    const char* types[] = {"8u", "32f"};
    std::string args;
    for (Op op : kOps)
        for (const char* type : types)
            for (const Interp& in : kInterps)
                if (reporter.ms(benchName(op, type, &in)) > 0)
                    args += std::string(" ") + opTag(op) + " " + type + " " +
                            std::to_string(in.scipyOrder);
    const ScipyRates<std::string> scipy = scipyRates<std::string>(
        withScipy, VLKR_BENCH_DIR "/warp_remap_scipy_bench.py", args,
        "scipy.ndimage affine_transform and map_coordinates (order 3 takes several seconds a "
        "call)");

    std::printf(
        "\nCPU: %s, one thread. Rates count all 256^3 output voxels; the sample point "
        "lies in\nthe source for %.1f%% of them (warp) and %.1f%% (remap): we write only "
        "those, scipy all.\n",
        cpuModel().c_str(), 100 * insideShare(Op::Warp), 100 * insideShare(Op::Remap));
    std::printf(
        "ours/scipy = our voxels per second / scipy.ndimage's (affine_transform, "
        "map_coordinates;\nprefilter=False, mode='constant'); above 1 = we are faster. "
        "Catmull-Rom is paired with\nscipy's cubic B-spline: same 4^3 support, another "
        "kernel. share of floor = copy-floor time /\nour time, the copy moving source, "
        "destination and, for the remap, the three float maps.\n\n");
    std::printf("%-6s %-4s %-12s %12s %-26s %13s %11s %15s\n", "op", "type", "interp",
                "ours Mvox/s", "scipy kernel", "scipy Mvox/s", "ours/scipy", "share of floor");
    for (Op op : kOps)
        for (const char* type : types)
            for (const Interp& in : kInterps) {
                const Row r = row(reporter, benchName(op, type, &in), benchName(op, type), kVoxels,
                                  scipy, {opTag(op), type, in.scipyOrder}, 3);
                if (r.ours > 0)
                    std::printf("%-6s %-4s %-12s %12.1f %-26s %13s %11s %15s\n", opTag(op), type,
                                in.name, r.ours, in.scipyKernel, r.scipy, r.ratio, r.floor);
            }
    return 0;
}
