// Runs the benchmarks, then prints time ratios per case: each case is
// registered as "<case>/library" (plus arguments) beside one or more
// yardsticks "<case>/<side>": a handwritten "loop", the same loop compiled
// for the machine ("native_loop"), or a peer such as a standard algorithm.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

namespace {

class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            // One time per case: the median when repeated, else the single run.
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (!median && run.run_type != Run::RT_Iteration) continue;
            // "<case>/<side>[/<args>]": the side is dropped from the case's key.
            const std::string name = run.run_name.str();
            const size_t first = name.find('/');
            if (first == std::string::npos) continue;
            const size_t second = name.find('/', first + 1);
            const std::string side = name.substr(first + 1, second == std::string::npos ? second : second - first - 1);
            const std::string key = name.substr(0, first) + (second == std::string::npos ? "" : name.substr(second));
            times_[key][side] = run.GetAdjustedRealTime();
        }
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-44s %-28s %8s\n", "case", "library / yardstick", "ratio");
        for (const auto &[name, sides] : times_) {
            const auto lib = sides.find("library");
            if (lib == sides.end()) continue;
            for (const auto &[side, time] : sides)
                if (side != "library") std::printf("%-44s %-28s %8.2f\n", name.c_str(), side.c_str(), lib->second / time);
        }
    }

private:
    std::map<std::string, std::map<std::string, double>> times_;
};

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
