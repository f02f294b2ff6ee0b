// Pieces shared by the volume benchmarks (resize, warp and remap): the reporter that keeps each
// run's time, the memory-floor copy, the --scipy flag, the SciPy scripts' rates and the table
// columns that compare them.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "ratio_reporter.h"

namespace vlkr::bench {

// The ratio reporter, also keeping each run's time per call for the SciPy table; names drop
// the "/iterations:N" suffix so that they read, and pair, as registered.
class TimingReporter : public RatioReporter {
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

// Takes "--scipy=..." out of the arguments before Google Benchmark sees them, which would reject
// it, then initialises the library; returns whether the SciPy comparison is wanted.
inline bool initialize(int& argc, char** argv)
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
    return withScipy;
}

// Registers a benchmark with a fixed number of calls, since a few calls of a whole volume
// already give a steady time.
template <typename Fn, typename... Args>
void registerFixed(const std::string& name, int iterations, Fn fn, Args... args)
{
    benchmark::RegisterBenchmark(name.c_str(), fn, args...)
        ->Unit(benchmark::kMillisecond)
        ->Iterations(iterations);
}

// Registers a benchmark and pairs it with its copy floor in the ratio table.
template <typename Fn, typename... Args>
void registerAgainstFloor(TimingReporter& reporter, const std::string& name,
                          const std::string& floor, int iterations, Fn fn, Args... args)
{
    registerFixed(name, iterations, fn, args...);
    reporter.compare(name, floor, "time / copy floor");
}

inline void setRates(benchmark::State& st, std::int64_t outVoxels, std::int64_t bytes)
{
    st.SetItemsProcessed(st.iterations() * outVoxels);
    st.SetBytesProcessed(st.iterations() * bytes);
}

// Moves every byte the operation must read or write once, as a copy, so that the ratio says
// how far the sampling is from being bound by memory alone.
inline void copyFloor(benchmark::State& st, std::size_t bytes, std::int64_t outVoxels)
{
    std::vector<unsigned char> from(bytes, 1), to(bytes);
    for (auto _ : st) {
        std::memcpy(to.data(), from.data(), bytes);
        benchmark::ClobberMemory();
    }
    setRates(st, outVoxels, std::int64_t(bytes));
}

// A SciPy script prints "<first> <second> <order> <rate>" lines; the second field is a type
// name for one script and a scale factor for the other.
template <typename Second>
using ScipyKey = std::tuple<std::string, Second, int>;
template <typename Second>
using ScipyRates = std::map<ScipyKey<Second>, double>;

// Output voxels per second that the script at `script` reports for the cases in `args`; empty,
// with a note, when Debian's Python or SciPy is missing, and untouched unless wanted.
template <typename Second>
ScipyRates<Second> scipyRates(bool wanted, const char* script, const std::string& args,
                              const char* what)
{
    ScipyRates<Second> rates;
    if (!wanted || args.empty()) return rates;
    std::printf("\nTiming %s...\n", what);
    std::fflush(stdout);
    const std::string cmd = std::string("/usr/bin/python3 ") + script + args + " 2>/dev/null";
    if (FILE* p = popen(cmd.c_str(), "r")) {
        char first[8], second[32];
        double rate = 0;
        int order = 0;
        while (std::fscanf(p, "%7s %31s %d %lf", first, second, &order, &rate) == 4) {
            if constexpr (std::is_same<Second, double>::value)
                rates[{first, std::strtod(second, nullptr), order}] = rate;
            else
                rates[{first, second, order}] = rate;
        }
        pclose(p);
    }
    if (rates.empty()) std::printf("(no /usr/bin/python3 with scipy: SciPy columns skipped)\n");
    return rates;
}

// One row of the comparison table, as printed; `ours` stays 0 when our run failed or was
// filtered out, so the row is left out.
struct Row {
    double ours = 0;  // Mvox/s
    char scipy[32] = "-", ratio[32] = "-", floor[32] = "-";
};

template <typename Second>
Row row(const TimingReporter& reporter, const std::string& name, const std::string& floorName,
        std::int64_t voxels, const ScipyRates<Second>& scipy, const ScipyKey<Second>& key,
        int floorDigits)
{
    Row r;
    const double ours = reporter.ms(name);
    if (ours <= 0) return r;
    r.ours = double(voxels) / (ours * 1e3);  // voxels per ms -> Mvox/s
    const double floor = reporter.ms(floorName);
    auto it = scipy.find(key);
    if (it != scipy.end()) {
        std::snprintf(r.scipy, sizeof r.scipy, "%.1f", it->second / 1e6);
        std::snprintf(r.ratio, sizeof r.ratio, "%.2f", r.ours / (it->second / 1e6));
    }
    if (floor > 0) std::snprintf(r.floor, sizeof r.floor, "%.*f", floorDigits, floor / ours);
    return r;
}

// A side^3 block, x fastest, of voxel(x, y, z, noise) with noise in [-0.05, 0.05) from one fixed
// xorshift stream, so that no branch on equal neighbours can pay off.
template <typename T, typename Fn>
std::vector<T> noisyVolume(int side, Fn voxel)
{
    std::vector<T> v(std::size_t(side) * side * side);
    std::uint32_t s = 12345;
    std::size_t i = 0;
    for (int z = 0; z < side; ++z)
        for (int y = 0; y < side; ++y)
            for (int x = 0; x < side; ++x) {
                s ^= s << 13, s ^= s >> 17, s ^= s << 5;
                v[i++] = voxel(x, y, z, float(s >> 8) * (0.1f / 16777216.0f) - 0.05f);
            }
    return v;
}

// Rates from a shared machine mean little without the processor they ran on.
inline std::string cpuModel()
{
    std::string model = "unknown";
    char line[256];
    FILE* f = std::fopen("/proc/cpuinfo", "r");
    while (f && std::fgets(line, sizeof line, f) && model == "unknown")
        if (std::strncmp(line, "model name", 10) == 0 && std::strchr(line, ':'))
            model.assign(std::strchr(line, ':') + 2,
                         std::strcspn(std::strchr(line, ':') + 2, "\n"));
    if (f) std::fclose(f);
    return model;
}

}  // namespace vlkr::bench
