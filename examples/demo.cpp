// qmo_seq_demo: typical requests over a trade tape, each evaluated through
// iterator trees of the library and cross-checked against a plain loop.
//
//   qmo_seq_demo [--rows N] [--seed S] [--csv FILE] [--write-csv FILE]
#include "qmo_seq.h"
#include "trade_tape.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

using Iter = qmo_seq_iterator_t;
using Clock = std::chrono::steady_clock;

// Building a tree with correct types cannot fail; a status here is a bug.
void check(int status, const char *what) {
    if (status != QMO_SEQ_OK) {
        std::fprintf(stderr, "%s failed with status %d\n", what, status);
        std::exit(2);
    }
}

// The one element an aggregate delivers.
int64_t read_int8(Iter *it) {
    int64_t v = 0;
    check(qmo_seq_next_int8(it, &v), "reading the result");
    return v;
}
uint64_t read_uint8(Iter *it) {
    uint64_t v = 0;
    check(qmo_seq_next_uint8(it, &v), "reading the result");
    return v;
}
double read_double(Iter *it) {
    double v = 0;
    check(qmo_seq_next_double(it, &v), "reading the result");
    return v;
}

// ---- the requests ---------------------------------------------------------------

constexpr int32_t kLargeTrade = 1000;

// Total size of trades above a size threshold: the typical request.
double large_size_library(const tape::Tape &t) {
    Iter sizes, sizes_again, threshold, above, kept, sum;
    qmo_seq_unget_int4(&sizes, t.size.data(), t.rows());
    qmo_seq_unget_int4(&sizes_again, t.size.data(), t.rows());
    qmo_seq_const_int4(&threshold, kLargeTrade);
    check(qmo_seq_gt_int4(&above, &sizes, &threshold), "gt");
    check(qmo_seq_filter_int4(&kept, &above, &sizes_again), "filter");
    check(qmo_seq_agg_sum_int4(&sum, &kept), "agg_sum");
    return static_cast<double>(read_int8(&sum));
}
double large_size_loop(const tape::Tape &t) {
    int64_t sum = 0;
    for (int32_t s : t.size)
        if (s > kLargeTrade) sum += s;
    return static_cast<double>(sum);
}

// Notional: sum of price x size.
double notional_library(const tape::Tape &t) {
    Iter prices, sizes, sizes_d, product, sum;
    qmo_seq_unget_double(&prices, t.price.data(), t.rows());
    qmo_seq_unget_int4(&sizes, t.size.data(), t.rows());
    check(qmo_seq_int4_to_double(&sizes_d, &sizes), "int4_to_double");
    check(qmo_seq_mul_double(&product, &prices, &sizes_d), "mul");
    check(qmo_seq_agg_sum_double(&sum, &product), "agg_sum");
    return read_double(&sum);
}
double notional_loop(const tape::Tape &t) {
    double sum = 0;
    for (size_t i = 0; i < t.rows(); ++i) sum += t.price[i] * t.size[i];
    return sum;
}

// Positions of the trades stamped in [from, till): the first position whose
// stamp reaches each bound, found by the library.
uint64_t first_at_or_after(const tape::Tape &t, uint64_t stamp) {
    Iter stamps, bound, reached, first;
    qmo_seq_unget_datetime(&stamps, t.ts.data(), t.rows());
    qmo_seq_const_datetime(&bound, stamp);
    check(qmo_seq_ge_datetime(&reached, &stamps, &bound), "ge");
    check(qmo_seq_filter_first_pos(&first, &reached, 1), "filter_first_pos");
    uint64_t at = 0;
    return qmo_seq_next_uint8(&first, &at) == QMO_SEQ_OK ? at : t.rows();
}

struct Window {
    uint64_t from, till;  // inclusive positions; empty when from > till
};
Window hour_window(const tape::Tape &t) {
    const uint64_t start = t.ts.empty() ? 0 : t.ts.front() + 1800ull * 1000000;  // 30 minutes in
    const uint64_t from = first_at_or_after(t, start);
    const uint64_t end = first_at_or_after(t, start + 3600ull * 1000000);
    return {from, end == 0 ? 0 : end - 1};
}

template <int (*Aggregate)(Iter *, Iter *)>
double price_over_window(const tape::Tape &t) {
    const Window w = hour_window(t);
    if (w.from > w.till || w.from >= t.rows()) return NAN;
    Iter prices, range, result;
    qmo_seq_unget_double(&prices, t.price.data(), t.rows());
    check(qmo_seq_limit(&range, &prices, w.from, w.till), "limit");
    check(Aggregate(&result, &range), "aggregate");
    return read_double(&result);
}

// Plain-loop mean and (population, sum of squares) deviation over the hour.
struct Moments {
    double mean, dev;
};
Moments price_moments_loop(const tape::Tape &t) {
    const uint64_t start = t.ts.empty() ? 0 : t.ts.front() + 1800ull * 1000000;
    const uint64_t end = start + 3600ull * 1000000;
    double s1 = 0, s2 = 0;
    uint64_t n = 0;
    for (size_t i = 0; i < t.rows(); ++i)
        if (t.ts[i] >= start && t.ts[i] < end) {
            s1 += t.price[i];
            s2 += t.price[i] * t.price[i];
            ++n;
        }
    if (n == 0) return {NAN, NAN};
    return {s1 / double(n), std::sqrt((s2 - s1 * s1 / double(n)) / double(n))};
}

// Number of trades meeting a condition: the count of a filtered column.
template <class Make>
double count_library(const tape::Tape &t, Make make_condition) {
    Iter column, threshold, cond, sizes, kept, count;
    make_condition(&column, &threshold, &cond);
    qmo_seq_unget_int4(&sizes, t.size.data(), t.rows());
    check(qmo_seq_filter_int4(&kept, &cond, &sizes), "filter");
    check(qmo_seq_agg_count(&count, &kept), "agg_count");
    return static_cast<double>(read_uint8(&count));
}

double small_trades_library(const tape::Tape &t) {
    return count_library(t, [&](Iter *src, Iter *k, Iter *cond) {
        qmo_seq_unget_int4(src, t.size.data(), t.rows());
        qmo_seq_const_int4(k, 100);
        check(qmo_seq_le_int4(cond, src, k), "le");
    });
}
double small_trades_loop(const tape::Tape &t) {
    return static_cast<double>(std::count_if(t.size.begin(), t.size.end(), [](int32_t s) { return s <= 100; }));
}

double top_symbols_library(const tape::Tape &t) {
    return count_library(t, [&](Iter *src, Iter *k, Iter *cond) {
        qmo_seq_unget_uint2(src, t.symbol.data(), t.rows());
        qmo_seq_const_uint2(k, 10);
        check(qmo_seq_lt_uint2(cond, src, k), "lt");
    });
}
double top_symbols_loop(const tape::Tape &t) {
    return static_cast<double>(std::count_if(t.symbol.begin(), t.symbol.end(), [](uint16_t s) { return s < 10; }));
}

double above_100_library(const tape::Tape &t) {
    return count_library(t, [&](Iter *src, Iter *k, Iter *cond) {
        qmo_seq_unget_double(src, t.price.data(), t.rows());
        qmo_seq_const_double(k, 100.0);
        check(qmo_seq_gt_double(cond, src, k), "gt");
    });
}
double above_100_loop(const tape::Tape &t) {
    return static_cast<double>(std::count_if(t.price.begin(), t.price.end(), [](double p) { return p > 100.0; }));
}

struct Request {
    const char *name;
    std::function<double(const tape::Tape &)> library, loop;
    bool exact;  // integer results must match exactly
};

// Best of three runs: the requests take milliseconds, so one run is noisy.
template <class F>
double timed(F &&f, const tape::Tape &t, double &seconds) {
    double v = 0;
    seconds = 1e30;
    for (int run = 0; run < 3; ++run) {
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

bool agree(double a, double b, bool exact) {
    if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b);
    if (exact) return a == b;
    return std::fabs(a - b) <= 1e-9 * std::max(1.0, std::fabs(b));
}

void usage() {
    std::fprintf(stderr,
                 "usage: qmo_seq_demo [--rows N] [--seed S] [--csv FILE] [--write-csv FILE]\n"
                 "  --rows N          generate N trades (default 10000000)\n"
                 "  --seed S          seed of the generated tape (default 42)\n"
                 "  --csv FILE        read the tape from FILE (header ts,price,size,symbol)\n"
                 "  --write-csv FILE  write the tape to FILE and exit\n");
}

}  // namespace

int main(int argc, char **argv) {
    size_t rows = 10'000'000;
    uint64_t seed = 42;
    std::string csv, write_csv;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == "--rows" && has_value) {
            char *end = nullptr;
            rows = std::strtoull(argv[++i], &end, 10);
            if (*end != 0) return usage(), 1;
        } else if (arg == "--seed" && has_value) {
            seed = std::strtoull(argv[++i], nullptr, 10);
        } else if (arg == "--csv" && has_value) {
            csv = argv[++i];
        } else if (arg == "--write-csv" && has_value) {
            write_csv = argv[++i];
        } else {
            usage();
            return arg == "--help" || arg == "-h" ? 0 : 1;
        }
    }

    tape::Tape t;
    std::string error;
    if (!csv.empty()) {
        if (!tape::load_csv(csv, t, error)) {
            std::fprintf(stderr, "qmo_seq_demo: %s\n", error.c_str());
            return 1;
        }
        std::printf("trade tape: %zu rows from %s\n", t.rows(), csv.c_str());
    } else {
        t = tape::generate(rows, seed);
        std::printf("trade tape: %zu generated rows (seed %llu)\n", t.rows(), static_cast<unsigned long long>(seed));
    }
    if (!write_csv.empty()) {
        if (!tape::write_csv(write_csv, t, error)) {
            std::fprintf(stderr, "qmo_seq_demo: %s\n", error.c_str());
            return 1;
        }
        std::printf("written to %s\n", write_csv.c_str());
        return 0;
    }

    const std::vector<Request> requests = {
        {"total size of trades above 1000", large_size_library, large_size_loop, true},
        {"notional, sum of price x size", notional_library, notional_loop, false},
        {"average price, second half hour", price_over_window<qmo_seq_agg_avg_double>,
         [](const tape::Tape &x) { return price_moments_loop(x).mean; }, false},
        {"price deviation, second half hour", price_over_window<qmo_seq_agg_dev_double>,
         [](const tape::Tape &x) { return price_moments_loop(x).dev; }, false},
        {"trades of at most 100 shares", small_trades_library, small_trades_loop, true},
        {"trades in the ten busiest symbols", top_symbols_library, top_symbols_loop, true},
        {"trades above 100.00", above_100_library, above_100_loop, true},
    };

    std::printf("\n%-36s %20s %20s %6s %12s %12s\n", "request", "library", "plain loop", "agree", "library",
                "plain loop");
    std::printf("%-36s %20s %20s %6s %12s %12s\n", "", "", "", "", "Mrows/s", "Mrows/s");
    bool all_agree = true;
    for (const Request &r : requests) {
        double lib_s = 0, loop_s = 0;
        const double lib = timed(r.library, t, lib_s);
        const double loop = timed(r.loop, t, loop_s);
        const bool ok = agree(lib, loop, r.exact);
        all_agree &= ok;
        std::printf("%-36s %20s %20s %6s %12.0f %12.0f\n", r.name, shown(lib, r.exact).c_str(),
                    shown(loop, r.exact).c_str(), ok ? "yes" : "NO", t.rows() / lib_s / 1e6, t.rows() / loop_s / 1e6);
    }
    std::printf("\nRows per second count the whole tape (%zu rows) for every request.\n", t.rows());
    if (!all_agree) {
        std::fprintf(stderr, "qmo_seq_demo: the library and the plain loop disagree\n");
        return 3;
    }
    return 0;
}
