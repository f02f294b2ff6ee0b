// Console reporter that also prints, after the run, each benchmark's time as a ratio to a
// chosen baseline measured in the same run (a memory floor or a peer library).
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

namespace vlkr::bench {

class RatioReporter : public benchmark::ConsoleReporter {
public:
    // Pairs of (benchmark name, baseline name); ratio = time of the first / time of the second.
    void compare(std::string name, std::string baseline, std::string label)
    {
        pairs_.push_back({std::move(name), std::move(baseline), std::move(label)});
    }

    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& r : runs)
            if (r.run_type == Run::RT_Iteration || r.aggregate_name == "mean")
                times_[r.run_name.str()] = r.GetAdjustedCPUTime();
        ConsoleReporter::ReportRuns(runs);
    }

    void Finalize() override
    {
        ConsoleReporter::Finalize();
        std::printf("\n%-48s %-40s %8s\n", "benchmark", "baseline", "ratio");
        for (const auto& p : pairs_) {
            auto a = times_.find(p.name), b = times_.find(p.baseline);
            if (a == times_.end() || b == times_.end()) continue;
            std::printf("%-48s %-40s %8.2f  %s\n", p.name.c_str(), p.baseline.c_str(),
                        a->second / b->second, p.label.c_str());
        }
    }

private:
    struct Pair {
        std::string name, baseline, label;
    };
    std::vector<Pair> pairs_;
    std::map<std::string, double> times_;
};

}  // namespace vlkr::bench
