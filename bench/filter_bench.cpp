// Volume filter benchmarks, single thread: 3x3x3 and 5x5x5 integer kernels over a 256^3 int16
// region, divided by 1 (sums as is), 8 (shift) and 27 (division in double). Each runs beside a
// memcpy of the source and destination bytes (the memory floor), a plain scalar six-loop
// convolution compiled here (divisor 27 only, as it is slow) and, when Debian's Python with SciPy
// is present, scipy.ndimage.convolve followed by the same division in numpy. Pass --scipy=0 to
// leave SciPy out.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "vlkr.h"
#include "volume_bench_support.h"

namespace {

using namespace vlkr::bench;

constexpr int kSide = 256;
constexpr std::int64_t kVoxels = std::int64_t(kSide) * kSide * kSide;
constexpr int kIterations = 3, kFloorIterations = 12, kPlainIterations = 1;
constexpr int kSizes[] = {3, 5};
constexpr int kDivisors[] = {1, 8, 27};
constexpr int kPlainDivisor = 27;  // the slowest of our three divisions, so ours/plain is not flattered

const char* divisionMode(int divisor)
{
    return divisor == 1 ? "as is" : (divisor & (divisor - 1)) == 0 ? "shift" : "double";
}

// K(i, j, k) = 1 + (i + 2j + 4k) mod 3, x fastest: asymmetric, so that a correlation in place of
// the convolution would not give the same sums.
std::vector<int> kernel(int n)
{
    std::vector<int> w;
    for (int k = 0; k < n; ++k)
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < n; ++i) w.push_back(1 + (i + 2 * j + 4 * k) % 3);
    return w;
}

// Source voxel at region position (x, y, z) >= -8, from integers alone so that the SciPy script
// builds the very same volume: a sawtooth ramp plus hashed noise, within [-528, 525].
Vlk16s voxel(int x, int y, int z)
{
    const std::uint32_t u = x + 8, v = y + 8, w = z + 8;
    std::uint32_t h = (u * 73856093u) ^ (v * 19349663u) ^ (w * 83492791u);
    h ^= h >> 15;
    h *= 0x2c1b3c6du;
    h ^= h >> 12;
    return Vlk16s(2 * (int((u * 3 + v * 5 + w * 7) % 400) - 200) + int(h >> 24) - 128);
}

// The region with the kernel's margin c = n / 2 on every side (anchor at the centre); its plane
// pointers start at each plane's first region voxel.
struct Source {
    int n, c, side, step;
    std::vector<Vlk16s> data;
    std::vector<const Vlk16s*> planes;
    explicit Source(int size)
        : n(size), c(size / 2), side(kSide + size - 1), step(side * int(sizeof(Vlk16s))),
          data(std::size_t(side) * side * side)
    {
        std::size_t i = 0;
        for (int z = 0; z < side; ++z)
            for (int y = 0; y < side; ++y)
                for (int x = 0; x < side; ++x) data[i++] = voxel(x - c, y - c, z - c);
        for (int z = 0; z < side; ++z)
            planes.push_back(data.data() + (std::size_t(z) * side + c) * side + c);
    }
    // The filter indexes planes from az - (kd - 1) = -c, so the array it gets starts c in.
    const Vlk16s* const* in() const { return planes.data() + c; }
    Vlk16s at(int x, int y, int z) const { return planes[c + z][std::ptrdiff_t(y) * side + x]; }
    std::int64_t bytes() const { return std::int64_t(data.size() * sizeof(Vlk16s)); }
};

const Source& source(int n)
{
    static const Source s3(3), s5(5);
    return n == 3 ? s3 : s5;
}

struct Destination {
    static constexpr int step = kSide * sizeof(Vlk16s);
    std::vector<Vlk16s> data = std::vector<Vlk16s>(kVoxels);  // zero-filled, so pages are mapped
    std::vector<Vlk16s*> planes;
    Destination()
    {
        for (int z = 0; z < kSide; ++z) planes.push_back(data.data() + std::size_t(z) * kSide * kSide);
    }
    Destination(const Destination&) = delete;  // a copy would keep pointers into the original
};

std::int64_t movedBytes(int n)
{
    return source(n).bytes() + kVoxels * std::int64_t(sizeof(Vlk16s));
}

vlkStatus filter(const Source& src, const std::vector<int>& w, int divisor, Destination& dst,
                 unsigned char* buffer)
{
    const VolumeSize region{kSide, kSide, kSide}, kernelVolume{src.n, src.n, src.n};
    const int anchor[3] = {src.c, src.c, src.c};
    return vlkrFilter_16s_C1PV(src.in(), src.step, dst.planes.data(), Destination::step, &region,
                               w.data(), &kernelVolume, anchor, divisor, buffer);
}

// What a caller would write first: every tap in scalar int32, then the quotient in double (exact
// for 1 and 8, so the same as a shift) clamped and rounded half to even by lrint.
void plainFilter(const Source& src, const std::vector<int>& w, int divisor, Destination& dst)
{
    const int n = src.n, c = src.c;
    for (int z = 0; z < kSide; ++z)
        for (int y = 0; y < kSide; ++y)
            for (int x = 0; x < kSide; ++x) {
                std::int32_t sum = 0;
                for (int k = 0; k < n; ++k)
                    for (int j = 0; j < n; ++j)
                        for (int i = 0; i < n; ++i)
                            sum += w[(k * n + j) * n + i] * src.at(x + c - i, y + c - j, z + c - k);
                const double q = std::clamp(double(sum) / divisor, -32768.0, 32767.0);
                dst.planes[z][std::ptrdiff_t(y) * kSide + x] = Vlk16s(std::lrint(q));
            }
}

std::map<int, std::int64_t> plainMismatches;  // per kernel size, for the final table

void BM_Filter(benchmark::State& st, int n, int divisor)
{
    const Source& src = source(n);
    const std::vector<int> w = kernel(n);
    Destination dst;
    const VolumeSize region{kSide, kSide, kSide}, kernelVolume{n, n, n};
    int bufSize = 0;
    vlkrFilterGetBufSize(&region, &kernelVolume, 1, &bufSize);
    std::vector<unsigned char> buffer(std::size_t(std::max(bufSize, 0)));
    for (auto _ : st) {
        if (const vlkStatus s = filter(src, w, divisor, dst, buffer.data())) {
            st.SkipWithError(("filter returned status " + std::to_string(s)).c_str());
            break;
        }
        benchmark::ClobberMemory();
    }
    setRates(st, kVoxels, movedBytes(n));
}

// Also checks, untimed, that the plain loop and the filter write the same voxels.
void BM_Plain(benchmark::State& st, int n, int divisor)
{
    const Source& src = source(n);
    const std::vector<int> w = kernel(n);
    Destination dst, ours;
    for (auto _ : st) {
        plainFilter(src, w, divisor, dst);
        benchmark::ClobberMemory();
    }
    setRates(st, kVoxels, movedBytes(n));
    std::int64_t bad = filter(src, w, divisor, ours, nullptr) == vlkStatusOk ? 0 : kVoxels;
    for (std::size_t i = 0; i < dst.data.size(); ++i) bad += dst.data[i] != ours.data[i];
    plainMismatches[n] = bad;
    st.counters["mismatches"] = double(bad);
}

void BM_CopyFloor(benchmark::State& st, int n)
{
    copyFloor(st, std::size_t(movedBytes(n)), kVoxels);
}

std::string shape(int n)
{
    const std::string s = std::to_string(n);
    return s + "x" + s + "x" + s;
}

// E.g. "BM_Filter_16s_C1PV/5x5x5/div27"; without a divisor, the kernel size's copy floor.
std::string benchName(const char* what, int n, int divisor = 0)
{
    return std::string("BM_") + what + "/" + shape(n) +
           (divisor ? "/div" + std::to_string(divisor) : "");
}

}  // namespace

int main(int argc, char** argv)
{
    const bool withScipy = initialize(argc, argv);
    TimingReporter reporter;
    for (int n : kSizes) {
        const std::string floor = benchName("CopyFloor", n);
        registerFixed(floor, kFloorIterations, BM_CopyFloor, n);
        for (int d : kDivisors)
            registerAgainstFloor(reporter, benchName("Filter_16s_C1PV", n, d), floor, kIterations,
                                 BM_Filter, n, d);
        registerFixed(benchName("PlainLoop", n, kPlainDivisor), kPlainIterations, BM_Plain, n,
                      kPlainDivisor);
    }
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    std::string args;
    for (int n : kSizes)
        for (int d : kDivisors)
            if (reporter.ms(benchName("Filter_16s_C1PV", n, d)) > 0)
                args += " " + std::to_string(n) + " " + std::to_string(d);
    const ScipyRates<std::string> scipy = scipyRates<std::string>(
        withScipy, VLKR_BENCH_DIR "/filter_scipy_bench.py", args,
        "scipy.ndimage.convolve with the division in numpy (5x5x5 takes a few seconds a call)");

    std::printf(
        "\nCPU: %s, one thread, 256^3 int16 output voxels, int weights 1..3, anchor at the "
        "centre.\nours/scipy = our voxels per second / scipy's (ndimage.convolve of the same "
        "int16 source\ninto int32, then np.rint(sum / divisor) clipped to int16; scipy convolves "
        "the margin\ntoo, and its rate counts every voxel it writes). ours/plain = the same "
        "against a scalar\nsix-loop convolution built here. share of floor = copy-floor time / "
        "our time, the copy\nmoving the source with its margin and the destination.\n\n",
        cpuModel().c_str());
    std::printf("%-6s %-7s %-7s %11s %14s %12s %10s %12s %10s %9s\n", "kernel", "divisor", "mode",
                "ours Mvox/s", "share of floor", "scipy Mvox/s", "ours/scipy", "plain Mvox/s",
                "ours/plain", "plain!=us");
    for (int n : kSizes)
        for (int d : kDivisors) {
            const std::string name = benchName("Filter_16s_C1PV", n, d);
            const Row r = row(reporter, name, benchName("CopyFloor", n), kVoxels, scipy,
                              {shape(n), "16s", d}, 3);
            if (r.ours <= 0) continue;
            const double plain = reporter.ms(benchName("PlainLoop", n, d));
            char plainRate[32] = "-", plainRatio[32] = "-", bad[32] = "-";
            if (plain > 0) {
                std::snprintf(plainRate, sizeof plainRate, "%.2f", double(kVoxels) / (plain * 1e3));
                std::snprintf(plainRatio, sizeof plainRatio, "%.1f", plain / reporter.ms(name));
                std::snprintf(bad, sizeof bad, "%lld", (long long)plainMismatches[n]);
            }
            std::printf("%-6s %-7d %-7s %11.1f %14s %12s %10s %12s %10s %9s\n", shape(n).c_str(), d,
                        divisionMode(d), r.ours, r.floor, r.scipy, r.ratio, plainRate, plainRatio,
                        bad);
        }
    return 0;
}
