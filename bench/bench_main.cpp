// Runs the benchmarks, then prints library/loop time ratios per case: each
// case is registered as "<case>/library" and "<case>/loop" (plus arguments),
// and may add a second baseline, "<case>/open_addressing_loop".
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
            for (const char *side : {"library", "loop", "open_addressing_loop"}) {
                const std::string tag = std::string("/") + side;
                const size_t at = name.find(tag);
                if (at == std::string::npos) continue;
                if (at + tag.size() != name.size() && name[at + tag.size()] != '/') continue;
                const std::string key = name.substr(0, at) + name.substr(at + tag.size());
                times_[key][side] = run.GetAdjustedRealTime();
            }
        }
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-40s %12s %24s\n", "case", "library/loop", "library/open_addressing");
        for (const auto &[name, sides] : times_) {
            const auto lib = sides.find("library"), loop = sides.find("loop"), open = sides.find("open_addressing_loop");
            if (lib == sides.end() || loop == sides.end()) continue;
            std::printf("%-40s %12.2f", name.c_str(), lib->second / loop->second);
            if (open != sides.end()) std::printf(" %24.2f", lib->second / open->second);
            std::printf("\n");
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
