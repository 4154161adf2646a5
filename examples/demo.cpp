// qmo_seq_demo: typical requests over a trade tape, each evaluated through
// iterator trees of the library and cross-checked against a plain loop.
//
//   qmo_seq_demo [--rows N] [--seed S] [--csv FILE | --columns DIR]
//                [--write-csv FILE] [--write-columns DIR] [--runs N] [--json]
//                [--print FILE]
#include "requests.hpp"
#include "trade_tape.hpp"

#include "qmo_seq.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// Best of `runs`: the requests take milliseconds, so one run is noisy.
double timed(double (*f)(const tape::Tape &), const tape::Tape &t, int runs, double &seconds) {
    double v = 0;
    seconds = 1e30;
    for (int run = 0; run < runs; ++run) {
        const auto start = Clock::now();
        v = f(t);
        seconds = std::min(seconds, std::chrono::duration<double>(Clock::now() - start).count());
    }
    return v;
}

std::string shown(double v, bool exact) {
    char text[64];
    std::snprintf(text, sizeof text, exact ? "%.0f" : "%.6f", v);
    return text;
}

// Every digit a double has; JSON has no NaN, so an empty range reads null.
std::string json_number(double v, bool exact) {
    if (std::isnan(v)) return "null";
    char text[64];
    std::snprintf(text, sizeof text, exact ? "%.0f" : "%.17g", v);
    return text;
}

bool agree(double a, double b, bool exact) {
    if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b);
    if (exact) return a == b;
    return std::fabs(a - b) <= 1e-9 * std::max(1.0, std::fabs(b));
}

struct Outcome {
    const requests::Request *request;
    double library, loop;          // results
    double library_s, loop_s;      // best times in seconds
    bool agree;
};

void print_table(const std::vector<Outcome> &outcomes, size_t rows) {
    std::printf("\n%-36s %20s %20s %6s %12s %12s\n", "request", "library", "plain loop", "agree", "library",
                "plain loop");
    std::printf("%-36s %20s %20s %6s %12s %12s\n", "", "", "", "", "Mrows/s", "Mrows/s");
    for (const Outcome &o : outcomes) {
        const bool exact = o.request->exact;
        std::printf("%-36s %20s %20s %6s %12.0f %12.0f\n", o.request->name, shown(o.library, exact).c_str(),
                    shown(o.loop, exact).c_str(), o.agree ? "yes" : "NO", rows / o.library_s / 1e6,
                    rows / o.loop_s / 1e6);
    }
    std::printf("\nRows per second count the whole tape (%zu rows) for every request.\n", rows);
}

// For bench/peers: the parameters the peers need to ask the same questions,
// then each request's results and best times.
void print_json(const std::vector<Outcome> &outcomes, const tape::Tape &t, int runs) {
    const requests::TimeRange range = requests::price_range(t);
    const auto in_range = std::lower_bound(t.ts.begin(), t.ts.end(), range.till) -
                          std::lower_bound(t.ts.begin(), t.ts.end(), range.from);
    std::printf("{\n  \"rows\": %zu,\n  \"runs\": %d,\n", t.rows(), runs);
    std::printf("  \"params\": {\"large_trade\": %d, \"small_trade\": %d, \"top_symbols\": %u, "
                "\"price_level\": %.17g, \"range_from_us\": %llu, \"range_till_us\": %llu, \"range_rows\": %lld,\n",
                requests::kLargeTrade, requests::kSmallTrade, unsigned{requests::kTopSymbols}, requests::kPriceLevel,
                static_cast<unsigned long long>(range.from), static_cast<unsigned long long>(range.till),
                static_cast<long long>(in_range));
    std::printf("             \"moving_trades\": %llu, \"grid_trades\": %llu, \"top_trades\": %u, \"second_us\": %llu, "
                "\"size_bins\": %lld, \"sample_every\": %llu, \"symbol_pattern\": \"%s\", \"quote_within_us\": %llu},\n",
                static_cast<unsigned long long>(requests::kMovingTrades),
                static_cast<unsigned long long>(requests::kGridTrades), requests::kTopTrades,
                static_cast<unsigned long long>(requests::kSecond), static_cast<long long>(requests::kSizeBins),
                static_cast<unsigned long long>(requests::kSampleEvery), requests::kSymbolPattern,
                static_cast<unsigned long long>(requests::kQuoteWithin));
    std::printf("  \"requests\": [\n");
    for (size_t i = 0; i < outcomes.size(); ++i) {
        const Outcome &o = outcomes[i];
        const bool exact = o.request->exact;
        std::printf("    {\"key\": \"%s\", \"name\": \"%s\", \"exact\": %s, \"value\": %s, \"loop_value\": %s, "
                    "\"agree\": %s, \"seconds\": %.9f, \"loop_seconds\": %.9f}%s\n",
                    o.request->key, o.request->name, exact ? "true" : "false", json_number(o.library, exact).c_str(),
                    json_number(o.loop, exact).c_str(), o.agree ? "true" : "false", o.library_s, o.loop_s,
                    i + 1 < outcomes.size() ? "," : "");
    }
    std::printf("  ]\n}\n");
}

// ---- exporting a result as text and reading it back ----------------------------------

// The 20-trade moving average of the price (a series of the moving_price
// request), built afresh for each reader.
struct MovingAverage {
    qmo_seq_iterator_t prices, series;
    explicit MovingAverage(const tape::Tape &t) {
        qmo_seq_unget_double(&prices, t.price.data(), t.rows());
        qmo_seq_window_agg_avg_double(&series, &prices, requests::kMovingTrades);
    }
};

int write_piece(void *file, const char *text, uint64_t length) {
    return std::fwrite(text, 1, length, static_cast<FILE *>(file)) == length ? 0 : QMO_SEQ_INVALID_ARGUMENT;
}

// Writes the moving average to `path` as text, reads the file back through the
// parser and checks every value bit for bit against the series itself.
int print_and_read_back(const tape::Tape &t, const std::string &path, FILE *info) {
    FILE *out = std::fopen(path.c_str(), "wb");
    if (!out) return std::fprintf(stderr, "qmo_seq_demo: cannot open %s\n", path.c_str()), 1;
    MovingAverage written(t);
    auto start = Clock::now();
    int rc = qmo_seq_print_stream_double(&written.series, nullptr, write_piece, out);
    const double print_s = std::chrono::duration<double>(Clock::now() - start).count();
    if (std::fclose(out) != 0 && rc == 0) rc = QMO_SEQ_INVALID_ARGUMENT;
    if (rc != 0) return std::fprintf(stderr, "qmo_seq_demo: printing to %s failed (%d)\n", path.c_str(), rc), 1;

    std::string text;
    FILE *in = std::fopen(path.c_str(), "rb");
    if (!in) return std::fprintf(stderr, "qmo_seq_demo: cannot read %s back\n", path.c_str()), 1;
    char chunk[1 << 16];
    for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, in)) > 0;) text.append(chunk, n);
    std::fclose(in);

    MovingAverage expected(t);
    qmo_seq_iterator_t parsed;
    qmo_seq_parse_double(&parsed, text.c_str());
    start = Clock::now();
    std::vector<double> back(t.rows() + 1);
    uint64_t count = back.size();
    rc = qmo_seq_get_double(&parsed, back.data(), &count);
    const double parse_s = std::chrono::duration<double>(Clock::now() - start).count();
    if (rc != 0 && !(rc == QMO_SEQ_END && t.rows() == 0))
        return std::fprintf(stderr, "qmo_seq_demo: reading %s back failed (%d)\n", path.c_str(), rc), 1;
    std::vector<double> want(t.rows() + 1);
    uint64_t want_count = want.size();
    qmo_seq_get_double(&expected.series, want.data(), &want_count);
    const bool same = count == want_count && std::memcmp(back.data(), want.data(), count * sizeof(double)) == 0;
    std::fprintf(info, "%s: %llu moving averages of the price as %zu bytes of text; printed in %.3f s, parsed in %.3f s\n",
                 path.c_str(), static_cast<unsigned long long>(count), text.size(), print_s, parse_s);
    std::fprintf(info, "read back through the parser: %s\n", same ? "every value identical" : "VALUES DIFFER");
    return same ? 0 : 3;
}

void usage() {
    std::fprintf(stderr,
                 "usage: qmo_seq_demo [--rows N] [--seed S] [--csv FILE | --columns DIR]\n"
                 "                    [--write-csv FILE] [--write-columns DIR] [--runs N] [--json]\n"
                 "                    [--print FILE]\n"
                 "  --rows N             generate N trades (default 10000000)\n"
                 "  --seed S             seed of the generated tape (default 42)\n"
                 "  --csv FILE           read the tape from FILE (header ts,price,size,symbol)\n"
                 "  --columns DIR        read the tape from raw columns written by --write-columns\n"
                 "  --write-csv FILE     write the tape to FILE and exit\n"
                 "  --write-columns DIR  write the tape as raw little-endian columns (ts.u64,\n"
                 "                       price.f64, size.i32, symbol.u16) into DIR and exit\n"
                 "  --runs N             time each request as the best of N runs (default 3)\n"
                 "  --json               print results and times as JSON instead of a table\n"
                 "  --print FILE         write the moving average of the price to FILE as text,\n"
                 "                       read it back through the parser, compare, and exit\n");
}

bool parse_count(const char *text, unsigned long long &value) {
    char *end = nullptr;
    value = std::strtoull(text, &end, 10);
    return end != text && *end == 0;
}

}  // namespace

int main(int argc, char **argv) {
    unsigned long long rows = 10'000'000, runs = 3;
    uint64_t seed = 42;
    std::string csv, columns, write_csv, write_columns, print_file;
    bool json = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == "--rows" && has_value) {
            if (!parse_count(argv[++i], rows)) return usage(), 1;
        } else if (arg == "--seed" && has_value) {
            seed = std::strtoull(argv[++i], nullptr, 10);
        } else if (arg == "--csv" && has_value) {
            csv = argv[++i];
        } else if (arg == "--columns" && has_value) {
            columns = argv[++i];
        } else if (arg == "--write-csv" && has_value) {
            write_csv = argv[++i];
        } else if (arg == "--write-columns" && has_value) {
            write_columns = argv[++i];
        } else if (arg == "--runs" && has_value) {
            if (!parse_count(argv[++i], runs) || runs == 0 || runs > 1000) return usage(), 1;
        } else if (arg == "--print" && has_value) {
            print_file = argv[++i];
        } else if (arg == "--json") {
            json = true;
        } else {
            usage();
            return arg == "--help" || arg == "-h" ? 0 : 1;
        }
    }
    if (!csv.empty() && !columns.empty()) return usage(), 1;

    // In JSON mode stdout carries the JSON alone.
    FILE *info = json ? stderr : stdout;
    tape::Tape t;
    std::string error;
    const std::string &source = csv.empty() ? columns : csv;
    if (!source.empty()) {
        if (!(csv.empty() ? tape::load_columns(columns, t, error) : tape::load_csv(csv, t, error))) {
            std::fprintf(stderr, "qmo_seq_demo: %s\n", error.c_str());
            return 1;
        }
        std::fprintf(info, "trade tape: %zu rows from %s\n", t.rows(), source.c_str());
    } else {
        t = tape::generate(rows, seed);
        std::fprintf(info, "trade tape: %zu generated rows (seed %llu)\n", t.rows(),
                     static_cast<unsigned long long>(seed));
    }
    if (!write_csv.empty() || !write_columns.empty()) {
        const bool ok = (write_csv.empty() || tape::write_csv(write_csv, t, error)) &&
                        (write_columns.empty() || tape::write_columns(write_columns, t, error));
        if (!ok) {
            std::fprintf(stderr, "qmo_seq_demo: %s\n", error.c_str());
            return 1;
        }
        for (const std::string *target : {&write_csv, &write_columns})
            if (!target->empty()) std::fprintf(info, "written to %s\n", target->c_str());
        return 0;
    }

    if (!print_file.empty()) return print_and_read_back(t, print_file, info);

    std::vector<Outcome> outcomes;
    bool all_agree = true;
    for (const requests::Request &r : requests::all()) {
        Outcome &o = outcomes.emplace_back();
        o.request = &r;
        o.library = timed(o.request->library, t, int(runs), o.library_s);
        o.loop = timed(o.request->loop, t, int(runs), o.loop_s);
        o.agree = agree(o.library, o.loop, o.request->exact);
        all_agree &= o.agree;
    }
    if (json)
        print_json(outcomes, t, int(runs));
    else
        print_table(outcomes, t.rows());
    if (!all_agree) {
        std::fprintf(stderr, "qmo_seq_demo: the library and the plain loop disagree\n");
        return 3;
    }
    return 0;
}
