// Console reporter that also prints, after the run, each benchmark's time as a ratio to a
// chosen baseline measured in the same run (a memory floor or a peer library), and optionally
// a table setting each of our benchmarks beside the best form of each peer group.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#include <benchmark/benchmark.h>

namespace vlkr::bench {

class RatioReporter : public benchmark::ConsoleReporter {
   public:
    // Colours only on a terminal, so that output piped into a file or report stays plain text.
    RatioReporter() : ConsoleReporter(isatty(fileno(stdout)) ? OO_ColorTabular : OO_Tabular) {}

    // Pairs of (benchmark name, baseline name); ratio = time of the first / time of the second.
    void compare(std::string name, std::string baseline, std::string label)
    {
        pairs_.push_back({std::move(name), std::move(baseline), std::move(label)});
    }

    // What the best-of table reads: the CPU time per iteration in milliseconds (best = least)
    // or the items_per_second counter in millions (best = most).
    enum class Measure { TimeMs, MItemsPerSecond };

    // One peer form: its short name in the table and its benchmark name.
    struct Form {
        std::string label, name;
    };

    // Sets up the best-of table: what it measures, the unit shown, and a title per peer group.
    void bestOfTable(Measure measure, std::string unit, std::vector<std::string> groupTitles)
    {
        measure_ = measure;
        unit_ = std::move(unit);
        groupTitles_ = std::move(groupTitles);
    }

    // A table row: our benchmark, then per group (in bestOfTable's order) the form measured
    // best and our value / its value.
    void compareBest(std::string row, std::string ours, std::vector<std::vector<Form>> groups)
    {
        rows_.push_back({std::move(row), std::move(ours), std::move(groups)});
    }

    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& r : runs) {
            if (r.error_occurred) continue;  // a failed run would enter the tables as zero
            if (r.run_type != Run::RT_Iteration && r.aggregate_name != "mean") continue;
            const std::string name = r.run_name.str();
            times_[name] = r.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(r.time_unit);
            auto rate = r.counters.find("items_per_second");
            if (rate != r.counters.end()) rates_[name] = rate->second.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void Finalize() override
    {
        ConsoleReporter::Finalize();
        if (!pairs_.empty()) std::printf("\n%-48s %-40s %8s\n", "benchmark", "baseline", "ratio");
        for (const auto& p : pairs_) {
            auto a = times_.find(p.name), b = times_.find(p.baseline);
            if (a == times_.end() || b == times_.end()) continue;
            std::printf("%-48s %-40s %8.2f  %s\n", p.name.c_str(), p.baseline.c_str(),
                        a->second / b->second, p.label.c_str());
        }
        printBestOfTable();
    }

   private:
    struct Pair {
        std::string name, baseline, label;
    };
    struct Row {
        std::string label, ours;
        std::vector<std::vector<Form>> groups;
    };

    // The measured value of a benchmark in the table's unit, or a negative number if not run.
    double value(const std::string& name) const
    {
        const bool time = measure_ == Measure::TimeMs;
        const auto& values = time ? times_ : rates_;
        auto it = values.find(name);
        return it == values.end() ? -1.0 : it->second * (time ? 1e3 : 1e-6);
    }

    static std::string number(double v)
    {
        char text[32] = "-";
        if (v >= 0.0) std::snprintf(text, sizeof text, "%.2f", v);
        return text;
    }

    void printBestOfTable() const
    {
        if (rows_.empty()) return;
        std::printf("\n%-20s %10s", "", "ours");
        for (const std::string& title : groupTitles_) std::printf(" | %-34s", title.c_str());
        std::printf("\n%-20s %10s", "", unit_.c_str());
        for (std::size_t g = 0; g < groupTitles_.size(); ++g)
            std::printf(" | %-16s %10s %6s", "best form", unit_.c_str(), "ratio");
        std::printf("\n");
        const bool time = measure_ == Measure::TimeMs;
        for (const Row& row : rows_) {
            const double ours = value(row.ours);
            std::vector<std::pair<const Form*, double>> best(row.groups.size(), {nullptr, -1.0});
            bool measured = ours >= 0.0;
            for (std::size_t g = 0; g < row.groups.size(); ++g)
                for (const Form& f : row.groups[g]) {
                    const double v = value(f.name);
                    if (v < 0.0) continue;
                    if (!best[g].first || (time ? v < best[g].second : v > best[g].second))
                        best[g] = {&f, v};
                    measured = true;
                }
            if (!measured) continue;  // filtered out of this run
            std::printf("%-20s %10s", row.label.c_str(), number(ours).c_str());
            for (const auto& [form, v] : best)
                std::printf(" | %-16s %10s %6s", form ? form->label.c_str() : "-",
                            number(v).c_str(),
                            number(form && ours >= 0.0 ? ours / v : -1.0).c_str());
            std::printf("\n");
        }
        std::printf("ratio = ours / best form: %s\n",
                    time ? "below 1 we are faster" : "above 1 we are faster");
    }

    std::vector<Pair> pairs_;
    std::map<std::string, double> times_;  // CPU seconds per iteration
    std::map<std::string, double> rates_;  // items per second
    Measure measure_ = Measure::TimeMs;
    std::string unit_;
    std::vector<std::string> groupTitles_;
    std::vector<Row> rows_;
};

}  // namespace vlkr::bench
