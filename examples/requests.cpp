#include "requests.hpp"

#include "qmo_seq.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace requests {

namespace {

using Iter = qmo_seq_iterator_t;

// Building a tree with correct types cannot fail; a status here is a bug.
void check(int status, const char *what) {
    if (status != QMO_SEQ_OK) {
        std::fprintf(stderr, "%s failed with status %d\n", what, status);
        std::exit(2);
    }
}

// The one element an aggregate delivers. A sum over no element delivers
// nothing; the total of no trades is 0.
template <class T, int (*Next)(Iter *, T *)>
T read(Iter *it) {
    T v = 0;
    const int status = Next(it, &v);
    if (status != QMO_SEQ_END) check(status, "reading the result");
    return v;
}
constexpr auto read_int8 = read<int64_t, qmo_seq_next_int8>;
constexpr auto read_uint8 = read<uint64_t, qmo_seq_next_uint8>;
constexpr auto read_double = read<double, qmo_seq_next_double>;

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

// The first position whose stamp reaches `stamp`, found by the library.
uint64_t first_at_or_after(const tape::Tape &t, uint64_t stamp) {
    Iter stamps, bound, reached, first;
    qmo_seq_unget_datetime(&stamps, t.ts.data(), t.rows());
    qmo_seq_const_datetime(&bound, stamp);
    check(qmo_seq_ge_datetime(&reached, &stamps, &bound), "ge");
    check(qmo_seq_filter_first_pos(&first, &reached, 1), "filter_first_pos");
    uint64_t at = 0;
    return qmo_seq_next_uint8(&first, &at) == QMO_SEQ_OK ? at : t.rows();
}

// Positions of the trades stamped within the price range.
struct Window {
    uint64_t from, till;  // inclusive positions; empty when from > till
};
Window price_window(const tape::Tape &t) {
    const TimeRange range = price_range(t);
    const uint64_t from = first_at_or_after(t, range.from);
    const uint64_t end = first_at_or_after(t, range.till);
    return {from, end == 0 ? 0 : end - 1};
}

template <int (*Aggregate)(Iter *, Iter *)>
double price_over_window(const tape::Tape &t) {
    const Window w = price_window(t);
    if (w.from > w.till || w.from >= t.rows()) return NAN;
    Iter prices, range, result;
    qmo_seq_unget_double(&prices, t.price.data(), t.rows());
    check(qmo_seq_limit(&range, &prices, w.from, w.till), "limit");
    check(Aggregate(&result, &range), "aggregate");
    return read_double(&result);
}

// Plain-loop mean and (population, sum of squares) deviation over the range.
struct Moments {
    double mean, dev;
};
Moments price_moments_loop(const tape::Tape &t) {
    const TimeRange range = price_range(t);
    double s1 = 0, s2 = 0;
    uint64_t n = 0;
    for (size_t i = 0; i < t.rows(); ++i)
        if (t.ts[i] >= range.from && t.ts[i] < range.till) {
            s1 += t.price[i];
            s2 += t.price[i] * t.price[i];
            ++n;
        }
    if (n == 0) return {NAN, NAN};
    return {s1 / double(n), std::sqrt((s2 - s1 * s1 / double(n)) / double(n))};
}
double price_mean_loop(const tape::Tape &t) { return price_moments_loop(t).mean; }
double price_dev_loop(const tape::Tape &t) { return price_moments_loop(t).dev; }

// Number of trades whose `column` value compares true with `bound`: the
// condition is a uint1 sequence of 0s and 1s, so its sum is the count.
template <class T, int (*Unget)(Iter *, const T *, uint64_t), int (*Const)(Iter *, T),
          int (*Compare)(Iter *, Iter *, Iter *)>
double count_where(const tape::Tape &t, const std::vector<T> &column, T bound) {
    Iter values, threshold, cond, count;
    Unget(&values, column.data(), column.size());
    Const(&threshold, bound);
    check(Compare(&cond, &values, &threshold), "comparison");
    check(qmo_seq_agg_sum_uint1(&count, &cond), "agg_sum");
    if (t.rows() == 0) return 0;  // a sum of nothing is an empty sequence
    return static_cast<double>(read_uint8(&count));
}

double small_trades_library(const tape::Tape &t) {
    return count_where<int32_t, qmo_seq_unget_int4, qmo_seq_const_int4, qmo_seq_le_int4>(t, t.size, kSmallTrade);
}
double small_trades_loop(const tape::Tape &t) {
    return static_cast<double>(
        std::count_if(t.size.begin(), t.size.end(), [](int32_t s) { return s <= kSmallTrade; }));
}

double top_symbols_library(const tape::Tape &t) {
    return count_where<uint16_t, qmo_seq_unget_uint2, qmo_seq_const_uint2, qmo_seq_lt_uint2>(t, t.symbol, kTopSymbols);
}
double top_symbols_loop(const tape::Tape &t) {
    return static_cast<double>(
        std::count_if(t.symbol.begin(), t.symbol.end(), [](uint16_t s) { return s < kTopSymbols; }));
}

double above_level_library(const tape::Tape &t) {
    return count_where<double, qmo_seq_unget_double, qmo_seq_const_double, qmo_seq_gt_double>(t, t.price, kPriceLevel);
}
double above_level_loop(const tape::Tape &t) {
    return static_cast<double>(
        std::count_if(t.price.begin(), t.price.end(), [](double p) { return p > kPriceLevel; }));
}

// The tape sorted by symbol (by time within a symbol): sizes and symbols.
struct BySymbol {
    std::vector<int32_t> size;
    std::vector<uint16_t> symbol;
};
BySymbol by_symbol(const tape::Tape &t) {
    std::vector<uint32_t> order(t.rows());
    for (uint32_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) { return t.symbol[a] < t.symbol[b]; });
    BySymbol s;
    for (uint32_t i : order) s.size.push_back(t.size[i]), s.symbol.push_back(t.symbol[i]);
    return s;
}

// The largest average trade size of a symbol: the average per run of equal
// symbols in the sorted tape, then the largest of those averages.
double symbol_average_library(const tape::Tape &t) {
    const BySymbol s = by_symbol(t);
    Iter sizes, symbols, averages, largest;
    qmo_seq_unget_int4(&sizes, s.size.data(), s.size.size());
    qmo_seq_unget_uint2(&symbols, s.symbol.data(), s.symbol.size());
    check(qmo_seq_group_agg_avg_int4(&averages, &sizes, &symbols), "group_agg_avg");
    check(qmo_seq_agg_max_double(&largest, &averages), "agg_max");
    if (t.rows() == 0) return NAN;
    return read_double(&largest);
}
double symbol_average_loop(const tape::Tape &t) {
    const BySymbol s = by_symbol(t);
    double largest = NAN, sum = 0;
    uint64_t n = 0;
    for (size_t i = 0; i < s.size.size(); ++i) {
        sum += s.size[i];
        ++n;
        if (i + 1 == s.size.size() || s.symbol[i + 1] != s.symbol[i]) {
            const double average = sum / double(n);
            if (!(largest >= average)) largest = average;
            sum = 0;
            n = 0;
        }
    }
    return largest;
}

const Request kAll[] = {
    {"large_size", "total size of trades above 1000", large_size_library, large_size_loop, true},
    {"notional", "notional, sum of price x size", notional_library, notional_loop, false},
    {"price_mean", "average price, second half hour", price_over_window<qmo_seq_agg_avg_double>, price_mean_loop,
     false},
    {"price_dev", "price deviation, second half hour", price_over_window<qmo_seq_agg_dev_double>, price_dev_loop,
     false},
    {"small_trades", "trades of at most 100 shares", small_trades_library, small_trades_loop, true},
    {"top_symbols", "trades in the ten busiest symbols", top_symbols_library, top_symbols_loop, true},
    {"above_100", "trades above 100.00", above_level_library, above_level_loop, true},
    {"symbol_average", "largest average trade size of a symbol", symbol_average_library, symbol_average_loop, true},
};

}  // namespace

TimeRange price_range(const tape::Tape &t) {
    const uint64_t from = t.ts.empty() ? 0 : t.ts.front() + 1800ull * 1000000;  // 30 minutes in
    return {from, from + 3600ull * 1000000};
}

std::span<const Request> all() { return kAll; }

}  // namespace requests
