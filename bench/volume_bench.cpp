// Volume resize benchmarks, single thread: a 256^3 volume to 512^3 and to 128^3 in 8u, 16u and
// 32f with nearest, trilinear, Catmull-Rom and B-spline sampling, beside a memcpy of the source
// plus destination bytes (the memory floor) and, when Debian's Python with SciPy is present,
// scipy.ndimage.zoom at the matching order. Pass --scipy=0 to leave SciPy out.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "ratio_reporter.h"
#include "vlkr.h"

namespace {

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
    std::vector<T> v(std::size_t(kSide) * kSide * kSide);
    std::uint32_t s = 12345;
    std::size_t i = 0;
    for (int z = 0; z < kSide; ++z)
        for (int y = 0; y < kSide; ++y)
            for (int x = 0; x < kSide; ++x) {
                s ^= s << 13, s ^= s >> 17, s ^= s << 5;
                const float noise = float(s >> 8) * (0.1f / 16777216.0f) - 0.05f;
                float f = 0.5f + 0.15f * (axis[0][x] + axis[1][y] + axis[2][z]) + noise;
                f = std::fmin(std::fmax(f, 0.0f), 1.0f) * Voxel<T>::scale;
                v[i++] = std::is_integral<T>::value ? T(f + 0.5f) : T(f);
            }
    return v;
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

void setRates(benchmark::State& st, std::int64_t outVoxels, std::int64_t bytes)
{
    st.SetItemsProcessed(st.iterations() * outVoxels);
    st.SetBytesProcessed(st.iterations() * bytes);
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

// Moves every byte the resize must read or write once, as a copy, so that the ratio says how
// far the sampling is from being bound by memory alone.
template <typename T>
void BM_CopyFloor(benchmark::State& st, Shape shape)
{
    const std::size_t bytes = std::size_t(cube(kSide) + cube(shape.side())) * sizeof(T);
    std::vector<unsigned char> from(bytes, 1), to(bytes);
    for (auto _ : st) {
        std::memcpy(to.data(), from.data(), bytes);
        benchmark::ClobberMemory();
    }
    setRates(st, cube(shape.side()), std::int64_t(bytes));
}

// The ratio reporter, also keeping each run's time per call for the SciPy table; names drop
// the "/iterations:N" suffix so that they read, and pair, as registered.
class Reporter : public vlkr::bench::RatioReporter {
   public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        std::vector<Run> named, failed;  // a failed run would enter the ratio table as zero
        for (Run r : runs) {
            r.run_name.iterations.clear();
            if (r.error_occurred) {
                failed.push_back(r);
                continue;
            }
            if (r.run_type == Run::RT_Iteration) ms_[r.run_name.str()] = r.GetAdjustedCPUTime();
            named.push_back(r);
        }
        if (!named.empty()) RatioReporter::ReportRuns(named);
        if (!failed.empty()) ConsoleReporter::ReportRuns(failed);
    }
    double ms(const std::string& name) const
    {
        auto it = ms_.find(name);
        return it == ms_.end() ? 0.0 : it->second;
    }

   private:
    std::map<std::string, double> ms_;
};

std::string floorName(const Shape& shape, const char* type)
{
    return std::string("BM_CopyFloor/") + shape.tag + "/" + type;
}

std::string resizeName(const Shape& shape, const char* type, const Interp& in)
{
    return std::string("BM_Resize_C1V/") + shape.tag + "/" + type + "/" + in.name;
}

template <typename T>
void registerType(const Shape& shape, Reporter& reporter)
{
    const std::string floor = floorName(shape, Voxel<T>::name);
    benchmark::RegisterBenchmark(floor.c_str(), BM_CopyFloor<T>, shape)
        ->Unit(benchmark::kMillisecond)
        ->Iterations(4 * shape.iterations);
    for (const Interp& in : kInterps) {
        const std::string name = resizeName(shape, Voxel<T>::name, in);
        benchmark::RegisterBenchmark(name.c_str(), BM_Resize<T>, shape, in.selector)
            ->Unit(benchmark::kMillisecond)
            ->Iterations(shape.iterations);
        reporter.compare(name, floor, "time / copy floor");
    }
}

// Output voxels per second of scipy.ndimage.zoom for each (type, factor, order), from the
// script beside this program; empty when Debian's Python or SciPy is missing.
using ScipyKey = std::tuple<std::string, double, int>;
std::map<ScipyKey, double> scipyRates(const std::string& args)
{
    std::map<ScipyKey, double> rates;
    const std::string cmd =
        "/usr/bin/python3 " VLKR_BENCH_DIR "/resize_scipy_bench.py" + args + " 2>/dev/null";
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return rates;
    char type[8];
    double factor = 0, rate = 0;
    int order = 0;
    while (std::fscanf(p, "%7s %lf %d %lf", type, &factor, &order, &rate) == 4)
        rates[{type, factor, order}] = rate;
    pclose(p);
    return rates;
}

}  // namespace

int main(int argc, char** argv)
{
    bool withScipy = true;
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--scipy=", 8) == 0)
            withScipy =
                std::strcmp(argv[i] + 8, "0") != 0 && std::strcmp(argv[i] + 8, "false") != 0;
        else
            argv[kept++] = argv[i];
    }
    argc = kept;
    benchmark::Initialize(&argc, argv);
    Reporter reporter;
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
    std::map<ScipyKey, double> scipy;
    if (withScipy && !args.empty()) {
        std::printf(
            "\nTiming scipy.ndimage.zoom (upsampling at order 3 takes over half a minute per "
            "type)...\n");
        std::fflush(stdout);
        scipy = scipyRates(args);
        if (scipy.empty()) std::printf("(no /usr/bin/python3 with scipy: SciPy columns skipped)\n");
    }

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
                const double ours = reporter.ms(resizeName(shape, type, in));
                if (ours <= 0) continue;
                const double oursRate =
                    double(cube(shape.side())) / (ours * 1e3);  // voxels per ms -> Mvox/s
                const double floor = reporter.ms(floorName(shape, type));
                auto it = scipy.find(ScipyKey{type, shape.factor, in.scipyOrder});
                char scipyCol[32] = "-", ratioCol[32] = "-", floorCol[32] = "-";
                if (it != scipy.end()) {
                    std::snprintf(scipyCol, sizeof scipyCol, "%.1f", it->second / 1e6);
                    std::snprintf(ratioCol, sizeof ratioCol, "%.2f", oursRate / (it->second / 1e6));
                }
                if (floor > 0) std::snprintf(floorCol, sizeof floorCol, "%.2f", floor / ours);
                std::printf("%-14s %-4s %-12s %12.1f %13s %11s %15s\n", shape.label, type, in.name,
                            oursRate, scipyCol, ratioCol, floorCol);
            }
    return 0;
}
