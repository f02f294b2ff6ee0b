// Spherical-harmonic benchmarks on 1M random unit directions: basis evaluation by both methods
// and the transforms, beside a memset of the same output (the store floor) and, when Debian's
// Python with SciPy is present, scipy.special's harmonics converted to the real basis.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "ratio_reporter.h"
#include "vlkr.h"

namespace {

constexpr int kDirections = 1 << 20;

struct Data {
    std::vector<float> x, y, z, values;
    std::vector<float> out;  // room for band 15 of every direction
    Data() : x(kDirections), y(kDirections), z(kDirections), values(kDirections), out(std::size_t(256) * kDirections)
    {
        std::mt19937 rng(2);
        std::normal_distribution<double> g;
        for (int i = 0; i < kDirections; ++i) {
            const double v[3] = {g(rng), g(rng), g(rng)};
            const double n = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
            x[i] = float(v[0] / n), y[i] = float(v[1] / n), z[i] = float(v[2] / n);
            values[i] = float(std::sin(3 * v[0] / n));
        }
    }
};

Data& data()
{
    static Data d;
    return d;
}

std::vector<char> stateBlock(int type)
{
    int size = 0;
    vlkrSHGetSize_32f(15, type, &size);
    std::vector<char> block(size + 16);
    return block;
}

SHContext* prepared(int type)
{
    static std::vector<char> blocks[2] = {stateBlock(0), stateBlock(1)};
    auto* ctx = reinterpret_cast<SHContext*>((reinterpret_cast<std::uintptr_t>(blocks[type].data()) + 15) &
                                             ~std::uintptr_t(15));
    vlkrSHInit_32f(ctx, 15, type);
    return ctx;
}

void setRates(benchmark::State& st, std::int64_t dirs, std::int64_t bytes)
{
    st.SetItemsProcessed(st.iterations() * dirs);
    st.SetBytesProcessed(st.iterations() * bytes);
}

void BM_SH(benchmark::State& st, int type, int L)
{
    Data& d = data();
    const SHContext* ctx = prepared(type);
    for (auto _ : st) {
        vlkrSH_32f(d.x.data(), d.y.data(), d.z.data(), kDirections, d.out.data(), L, ctx);
        benchmark::ClobberMemory();
    }
    setRates(st, kDirections, std::int64_t(kDirections) * (L + 1) * (L + 1) * 4);
}

void BM_StoreFloor(benchmark::State& st, int L)
{
    Data& d = data();
    const std::size_t bytes = std::size_t(kDirections) * (L + 1) * (L + 1) * 4;
    for (auto _ : st) {
        std::memset(d.out.data(), 0, bytes);
        benchmark::ClobberMemory();
    }
    setRates(st, kDirections, std::int64_t(bytes));
}

void BM_Forward(benchmark::State& st, int type, int L)
{
    Data& d = data();
    const SHContext* ctx = prepared(type);
    std::vector<float> coeffs(256);
    for (auto _ : st) {
        vlkrSHTFwd_32f_C1I(d.x.data(), d.y.data(), d.z.data(), d.values.data(), kDirections,
                           coeffs.data(), L, ctx);
        benchmark::DoNotOptimize(coeffs.data());
    }
    setRates(st, kDirections, std::int64_t(kDirections) * 16);
}

void BM_Inverse(benchmark::State& st, int type, int L)
{
    Data& d = data();
    const SHContext* ctx = prepared(type);
    std::vector<float> coeffs(256, 0.01f);
    for (auto _ : st) {
        vlkrSHTInv_32f_C1(coeffs.data(), L, d.x.data(), d.y.data(), d.z.data(), d.values.data(),
                          kDirections, ctx);
        benchmark::ClobberMemory();
    }
    setRates(st, kDirections, std::int64_t(kDirections) * 16);
}

// Directions per second of the SciPy route at band L, from the script beside this program.
double scipyRate(int L)
{
    const std::string cmd = "/usr/bin/python3 " VLKR_BENCH_DIR "/sh_scipy_bench.py " + std::to_string(L) + " 2>/dev/null";
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return 0;
    double rate = 0;
    if (std::fscanf(p, "%lf", &rate) != 1) rate = 0;
    pclose(p);
    return rate;
}

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    vlkr::bench::RatioReporter reporter;
    const char* methods[2] = {"direct", "recurrence"};
    for (int L : {3, 7, 15}) {
        const std::string floor = "BM_StoreFloor/L" + std::to_string(L);
        benchmark::RegisterBenchmark(floor.c_str(), BM_StoreFloor, L)->Unit(benchmark::kMillisecond);
        for (int type : {0, 1}) {
            const std::string name = std::string("BM_SH/") + methods[type] + "/L" + std::to_string(L);
            benchmark::RegisterBenchmark(name.c_str(), BM_SH, type, L)->Unit(benchmark::kMillisecond);
            reporter.compare(name, floor, "time / store floor");
        }
    }
    for (int L : {7, 15})
        for (int type : {0, 1}) {
            const std::string suffix = std::string("/") + methods[type] + "/L" + std::to_string(L);
            benchmark::RegisterBenchmark(("BM_SHTFwd_C1I" + suffix).c_str(), BM_Forward, type, L)
                ->Unit(benchmark::kMillisecond);
            benchmark::RegisterBenchmark(("BM_SHTInv_C1" + suffix).c_str(), BM_Inverse, type, L)
                ->Unit(benchmark::kMillisecond);
            reporter.compare("BM_SHTFwd_C1I" + suffix, "BM_SH" + suffix, "time / basis alone");
            reporter.compare("BM_SHTInv_C1" + suffix, "BM_SH" + suffix, "time / basis alone");
        }
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    // The SciPy route, measured by its own script in the same run.
    std::printf("\n%-12s %16s %16s %10s\n", "band", "scipy dirs/s", "ours dirs/s", "ours/scipy");
    for (int L : {3, 7, 15}) {
        const double scipy = scipyRate(L);
        if (scipy <= 0) {
            std::printf("L=%-10d (no /usr/bin/python3 with scipy: skipped)\n", L);
            continue;
        }
        std::vector<float> out(std::size_t(256) * 65536);
        Data& d = data();
        const SHContext* ctx = prepared(1);
        const auto t0 = std::chrono::steady_clock::now();
        vlkrSH_32f(d.x.data(), d.y.data(), d.z.data(), 65536, out.data(), L, ctx);
        const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        const double ours = 65536 / secs;
        std::printf("L=%-10d %16.0f %16.0f %10.0f\n", L, scipy, ours, ours / scipy);
    }
    return 0;
}
