// Volume resize benchmarks, single thread: a 256^3 volume to 512^3 and to 128^3 in 8u, 16u and
// 32f with nearest, trilinear, Catmull-Rom and B-spline sampling, beside a memcpy of the source
// plus destination bytes (the memory floor) and, when Debian's Python with SciPy is present,
// scipy.ndimage.zoom at the matching order. Pass --scipy=0 to leave SciPy out.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "vlkr.h"
#include "volume_bench_support.h"

namespace {

using namespace vlkr::bench;

constexpr int kSide = 256;

struct Interp {
    int selector;
    const char* name;
    int scipyOrder;  // -1: scipy.ndimage has no matching kernel
};
constexpr Interp kInterps[] = {{vlkInterNearest, "nearest", 0},
                               {vlkInterLinear, "trilinear", 1},
                               {vlkInterCatmullRom, "catmull-rom", -1},
                               {vlkInterBSpline, "bspline", 3}};

struct Shape {
    double factor;
    const char* tag;
    const char* label;
    int iterations;  // upsampling writes 134M voxels per call, so few rounds are enough
    int side() const { return int(std::lround(kSide * factor)); }
};
constexpr Shape kShapes[] = {{2.0, "up2", "256^3->512^3", 2}, {0.5, "down2", "256^3->128^3", 5}};

template <typename T>
struct Voxel;
template <>
struct Voxel<Vlk8u> {
    static constexpr const char* name = "8u";
    static constexpr float scale = 255.0f;
    static constexpr auto resize = vlkrResize_8u_C1V;
};
template <>
struct Voxel<Vlk16u> {
    static constexpr const char* name = "16u";
    static constexpr float scale = 65535.0f;
    static constexpr auto resize = vlkrResize_16u_C1V;
};
template <>
struct Voxel<Vlk32f> {
    static constexpr const char* name = "32f";
    static constexpr float scale = 1.0f;
    static constexpr auto resize = vlkrResize_32f_C1V;
};

// Sinusoids along each axis plus a little noise: smooth enough to look like a scan, varied
// enough that no branch on equal neighbours can pay off.
template <typename T>
std::vector<T> makeSource()
{
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> phase(0.0f, 6.283f);
    float axis[3][kSide];
    for (auto& a : axis) {
        const float p = phase(rng), q = phase(rng);
        for (int i = 0; i < kSide; ++i)
            a[i] = 0.5f * std::sin(i * 0.05f + p) + 0.5f * std::sin(i * 0.13f + q);
    }
    return noisyVolume<T>(kSide, [&axis](int x, int y, int z, float noise) {
        float f = 0.5f + 0.15f * (axis[0][x] + axis[1][y] + axis[2][z]) + noise;
        f = std::fmin(std::fmax(f, 0.0f), 1.0f) * Voxel<T>::scale;
        return std::is_integral<T>::value ? T(f + 0.5f) : T(f);
    });
}

template <typename T>
const std::vector<T>& source()
{
    static const std::vector<T> v = makeSource<T>();
    return v;
}

std::int64_t cube(int n)
{
    return std::int64_t(n) * n * n;
}

template <typename T>
void BM_Resize(benchmark::State& st, Shape shape, int sel)
{
    const std::vector<T>& src = source<T>();
    const int n = shape.side();
    const double f = shape.factor;
    const VolumeSize srcSize{kSide, kSide, kSide};
    const Cuboid srcVoi{0, 0, 0, kSide, kSide, kSide};
    Cuboid dstVoi{};
    if (vlkrGetResizeCuboid(&srcVoi, &dstVoi, f, f, f, 0, 0, 0, sel) != vlkStatusOk ||
        dstVoi.x < 0 || dstVoi.y < 0 || dstVoi.z < 0 || dstVoi.x + dstVoi.width > n ||
        dstVoi.y + dstVoi.height > n || dstVoi.z + dstVoi.depth > n) {
        st.SkipWithError("destination cuboid query failed or left the destination volume");
        return;
    }
    int bufSize = 0;
    if (vlkrResizeGetBufSize(&srcVoi, &dstVoi, 1, sel, &bufSize) != vlkStatusOk || bufSize < 0) {
        st.SkipWithError("work-buffer size query failed");
        return;
    }
    std::vector<unsigned char> buffer(std::size_t(bufSize) + 1);
    std::vector<T> dst(std::size_t(cube(n)));  // zero-filled, so its pages are mapped before timing
    const int srcRow = int(kSide * sizeof(T)), dstRow = int(n * sizeof(T));
    for (auto _ : st) {
        const vlkStatus s =
            Voxel<T>::resize(src.data(), &srcSize, srcRow, srcRow * kSide, &srcVoi, dst.data(),
                             dstRow, dstRow * n, &dstVoi, f, f, f, 0, 0, 0, sel, buffer.data());
        if (s != vlkStatusOk) {
            st.SkipWithError(("resize returned status " + std::to_string(s)).c_str());
            break;
        }
        benchmark::ClobberMemory();
    }
    setRates(st, std::int64_t(dstVoi.width) * dstVoi.height * dstVoi.depth,
             (cube(kSide) + cube(n)) * sizeof(T));
}

template <typename T>
void BM_CopyFloor(benchmark::State& st, Shape shape)
{
    copyFloor(st, std::size_t(cube(kSide) + cube(shape.side())) * sizeof(T), cube(shape.side()));
}

std::string floorName(const Shape& shape, const char* type)
{
    return std::string("BM_CopyFloor/") + shape.tag + "/" + type;
}

std::string resizeName(const Shape& shape, const char* type, const Interp& in)
{
    return std::string("BM_Resize_C1V/") + shape.tag + "/" + type + "/" + in.name;
}

template <typename T>
void registerType(const Shape& shape, TimingReporter& reporter)
{
    const std::string floor = floorName(shape, Voxel<T>::name);
    registerFixed(floor, 4 * shape.iterations, BM_CopyFloor<T>, shape);
    for (const Interp& in : kInterps)
        registerAgainstFloor(reporter, resizeName(shape, Voxel<T>::name, in), floor,
                             shape.iterations, BM_Resize<T>, shape, in.selector);
}

}  // namespace

int main(int argc, char** argv)
{
    const bool withScipy = initialize(argc, argv);
    TimingReporter reporter;
    for (const Shape& shape : kShapes) {
        registerType<Vlk8u>(shape, reporter);
        registerType<Vlk16u>(shape, reporter);
        registerType<Vlk32f>(shape, reporter);
    }
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    const char* types[] = {"8u", "16u", "32f"};
    std::string args;
    for (const Shape& shape : kShapes)
        for (const char* type : types)
            for (const Interp& in : kInterps)
                if (in.scipyOrder >= 0 && reporter.ms(resizeName(shape, type, in)) > 0)
                    args += std::string(" ") + type + " " + std::to_string(shape.factor) + " " +
                            std::to_string(in.scipyOrder);
    const ScipyRates<double> scipy = scipyRates<double>(
        withScipy, VLKR_BENCH_DIR "/resize_scipy_bench.py", args,
        "scipy.ndimage.zoom (upsampling at order 3 takes over half a minute per type)");

    std::printf(
        "\nours/scipy = our output voxels per second / scipy.ndimage.zoom's (order 0, 1, 3 for "
        "nearest,\n"
        "trilinear, bspline; prefilter=False, grid_mode=True, mode='nearest'); above 1 = we are "
        "faster.\n"
        "share of floor = copy-floor time / our time, i.e. our speed as a fraction of a memcpy of\n"
        "the source plus destination bytes; 1 = as fast as that copy.\n\n");
    std::printf("%-14s %-4s %-12s %12s %13s %11s %15s\n", "shape", "type", "interp", "ours Mvox/s",
                "scipy Mvox/s", "ours/scipy", "share of floor");
    for (const Shape& shape : kShapes)
        for (const char* type : types)
            for (const Interp& in : kInterps) {
                const Row r =
                    row(reporter, resizeName(shape, type, in), floorName(shape, type),
                        cube(shape.side()), scipy, {type, shape.factor, in.scipyOrder}, 2);
                if (r.ours > 0)
                    std::printf("%-14s %-4s %-12s %12.1f %13s %11s %15s\n", shape.label, type,
                                in.name, r.ours, r.scipy, r.ratio, r.floor);
            }
    return 0;
}
