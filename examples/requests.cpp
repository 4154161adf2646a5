#include "requests.hpp"

#include "qmo_seq.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

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

// Positions of the trades stamped within the price range, found by binary
// search on the time-ordered stamps: the caller's business, as it would be
// with any column store. Both the library and the loop aggregate that slice.
struct Slice {
    size_t from, count;
};
Slice price_slice(const tape::Tape &t) {
    const TimeRange range = price_range(t);
    const auto from = std::lower_bound(t.ts.begin(), t.ts.end(), range.from);
    const auto till = std::lower_bound(from, t.ts.end(), range.till);
    return {static_cast<size_t>(from - t.ts.begin()), static_cast<size_t>(till - from)};
}

template <int (*Aggregate)(Iter *, Iter *)>
double price_over_window(const tape::Tape &t) {
    const Slice w = price_slice(t);
    if (w.count == 0) return NAN;
    Iter prices, result;
    qmo_seq_unget_double(&prices, t.price.data() + w.from, w.count);
    check(Aggregate(&result, &prices), "aggregate");
    return read_double(&result);
}

// Plain-loop mean and (population, sum of squares) deviation over the range.
struct Moments {
    double mean, dev;
};
Moments price_moments_loop(const tape::Tape &t) {
    const Slice w = price_slice(t);
    double s1 = 0, s2 = 0;
    for (size_t i = w.from; i < w.from + w.count; ++i) {
        s1 += t.price[i];
        s2 += t.price[i] * t.price[i];
    }
    const size_t n = w.count;
    if (n == 0) return {NAN, NAN};
    return {s1 / double(n), std::sqrt((s2 - s1 * s1 / double(n)) / double(n))};
}
double price_mean_loop(const tape::Tape &t) { return price_moments_loop(t).mean; }
double price_dev_loop(const tape::Tape &t) { return price_moments_loop(t).dev; }

// Number of trades whose `column` value compares true with `bound`: the
// condition is a uint1 sequence of 0s and 1s, so its sum is the count.
template <class T, int (*Unget)(Iter *, const T *, uint64_t), int (*Const)(Iter *, T),
          int (*Compare)(Iter *, Iter *, Iter *)>
double count_where(const tape::Tape &t, const tape::Column<T> &column, T bound) {
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

// Moving views of the price: a 20-trade moving average and EMA, and the
// average of each run of 30,000 trades (about a minute on the generated
// tape: grid intervals count trades, not time). The checksum adds up all
// three result sequences.
template <int (*Make)(Iter *, Iter *, uint64_t)>
double price_series_total(const tape::Tape &t, uint64_t param) {
    Iter prices, series, total;
    qmo_seq_unget_double(&prices, t.price.data(), t.rows());
    check(Make(&series, &prices, param), "price series");
    check(qmo_seq_agg_sum_double(&total, &series), "agg_sum");
    return read_double(&total);
}
double moving_price_library(const tape::Tape &t) {
    return price_series_total<qmo_seq_window_agg_avg_double>(t, kMovingTrades) +
           price_series_total<qmo_seq_window_agg_ema_double>(t, kMovingTrades) +
           price_series_total<qmo_seq_grid_agg_avg_double>(t, kGridTrades);
}
// The window starts as 20 zeros, so the first 19 averages divide by 20 too.
double moving_price_loop(const tape::Tape &t) {
    const double a = 2.0 / (kMovingTrades + 1.0);
    double ring[kMovingTrades] = {}, sum = 0, ema = 0, total = 0;
    for (size_t i = 0; i < t.rows(); ++i) {
        const double x = t.price[i];
        double &slot = ring[i % kMovingTrades];
        sum = sum - slot + x;
        slot = x;
        ema = i == 0 ? x : (1 - a) * ema + a * x;
        total += sum / kMovingTrades + ema;
    }
    for (size_t from = 0; from < t.rows(); from += kGridTrades) {
        const size_t till = std::min(t.rows(), from + kGridTrades);
        double s = 0;
        for (size_t i = from; i < till; ++i) s += t.price[i];
        total += s / double(till - from);
    }
    return total;
}

// The ten largest trades by size and their positions, earlier trades first
// among equal sizes. Checksum: the sum over ranks r = 1..10 of r x (size +
// position), so that both lists and their order count.
double top_trades_checksum(const int32_t *sizes, const uint64_t *positions, size_t n) {
    double sum = 0;
    for (size_t r = 0; r < n; ++r) sum += double(r + 1) * (double(sizes[r]) + double(positions[r]));
    return sum;
}

// One pass for the positions; the sizes are then read from the column.
double top_trades_library(const tape::Tape &t) {
    Iter sizes, top;
    qmo_seq_unget_int4(&sizes, t.size.data(), t.rows());
    check(qmo_seq_top_pos_max_int4(&top, &sizes, kTopTrades), "top_pos_max");
    uint64_t positions[kTopTrades], n = kTopTrades;
    const int status = qmo_seq_get_uint8(&top, positions, &n);
    if (status != QMO_SEQ_END) check(status, "reading the positions");
    int32_t largest[kTopTrades];
    for (size_t r = 0; r < n; ++r) largest[r] = t.size[positions[r]];
    return top_trades_checksum(largest, positions, n);
}
double top_trades_loop(const tape::Tape &t) {
    int32_t largest[kTopTrades];
    uint64_t positions[kTopTrades];
    size_t k = 0;
    for (size_t i = 0; i < t.rows(); ++i) {
        const int32_t s = t.size[i];
        if (k == kTopTrades && s <= largest[k - 1]) continue;
        size_t j = k < kTopTrades ? k++ : k - 1;
        for (; j > 0 && largest[j - 1] < s; --j) {
            largest[j] = largest[j - 1];
            positions[j] = positions[j - 1];
        }
        largest[j] = s;
        positions[j] = i;
    }
    return top_trades_checksum(largest, positions, k);
}

// A one-second price series (each second's closing price: the last trade
// before the second's end) carried back onto the trade time stamps, summed.
// The series is sampled from the tape by binary search, so it costs little
// next to the carrying; after its last second the filler 0 applies.
struct Seconds {
    std::vector<uint64_t> ts;
    std::vector<double> close;
};
Seconds closing_prices(const tape::Tape &t) {
    Seconds s;
    if (t.rows() == 0) return s;
    for (uint64_t end = t.ts.front() / kSecond * kSecond + kSecond; end <= t.ts.back() + kSecond; end += kSecond) {
        const size_t after = std::lower_bound(t.ts.begin(), t.ts.end(), end) - t.ts.begin();
        s.ts.push_back(end);
        s.close.push_back(t.price[after ? after - 1 : 0]);
    }
    return s;
}
double second_close_library(const tape::Tape &t) {
    const Seconds s = closing_prices(t);
    Iter trades, seconds, closes, carried, sum;
    qmo_seq_unget_datetime(&trades, t.ts.data(), t.rows());
    qmo_seq_unget_datetime(&seconds, s.ts.data(), s.ts.size());
    qmo_seq_unget_double(&closes, s.close.data(), s.close.size());
    check(qmo_seq_stretch_datetime_double(&carried, &trades, &seconds, &closes, 0.0), "stretch");
    check(qmo_seq_agg_sum_double(&sum, &carried), "agg_sum");
    return t.rows() ? read_double(&sum) : 0;
}
// The same advance rule by two pointers: a trade at or past the current
// second's end moves on by one second (at most one per trade).
double second_close_loop(const tape::Tape &t) {
    const Seconds s = closing_prices(t);
    uint64_t boundary = 0;
    size_t k = 0;
    double current = 0, sum = 0;
    for (uint64_t ts : t.ts) {
        if (k <= s.ts.size() && ts >= boundary) {
            current = k < s.ts.size() ? s.close[k] : 0.0;
            boundary = k < s.ts.size() ? s.ts[k] : 0;
            ++k;
        }
        sum += current;
    }
    return sum;
}

// Price direction changes and the spread of sizes, as one checksum: the
// turns of the price's trend, its crossings of the 100.00 level, and a
// 64-bin histogram of sizes between their extremes (bin b weighted b + 1).
double direction_library(const tape::Tape &t) {
    const uint64_t n = t.rows();
    Iter prices, trend, changes, still, changed, turns;
    qmo_seq_unget_double(&prices, t.price.data(), n);
    qmo_seq_const_int1(&still, 0);
    check(qmo_seq_trend_double(&trend, &prices), "trend");
    check(qmo_seq_diff_int1(&changes, &trend), "diff");
    check(qmo_seq_ne_int1(&changed, &changes, &still), "ne");
    check(qmo_seq_agg_sum_uint1(&turns, &changed), "agg_sum");

    Iter prices_again, level, offset, crossings, crossing_count;
    qmo_seq_unget_double(&prices_again, t.price.data(), n);
    qmo_seq_const_double(&level, kPriceLevel);
    check(qmo_seq_sub_double(&offset, &prices_again, &level), "sub");
    check(qmo_seq_cross_double(&crossings, &offset, 0), "cross");
    check(qmo_seq_agg_count(&crossing_count, &crossings), "agg_count");
    double sum = static_cast<double>(read_uint8(&turns) + read_uint8(&crossing_count));

    Iter sizes, bounds, sizes_again, histogram;
    int32_t extremes[2];
    uint64_t found = 2, counts[kSizeBins], bins = kSizeBins;
    qmo_seq_unget_int4(&sizes, t.size.data(), n);
    check(qmo_seq_agg_min_max_int4(&bounds, &sizes), "agg_min_max");
    if (qmo_seq_get_int4(&bounds, extremes, &found) != QMO_SEQ_OK) return sum;  // no trades
    qmo_seq_unget_int4(&sizes_again, t.size.data(), n);
    check(qmo_seq_histogram_int4(&histogram, &sizes_again, extremes[0], extremes[1] + 1, kSizeBins), "histogram");
    check(qmo_seq_get_uint8(&histogram, counts, &bins), "reading the histogram");
    for (uint64_t b = 0; b < bins; ++b) sum += static_cast<double>(counts[b] * (b + 1));
    return sum;
}
double direction_loop(const tape::Tape &t) {
    uint64_t turns = 0, crossings = 0;
    int trend = 0, side = 0;
    for (size_t i = 0; i < t.rows(); ++i) {
        const double p = t.price[i];
        const int moved = i == 0 ? 0 : (p > t.price[i - 1]) - (p < t.price[i - 1]);
        if (moved != 0 && moved != trend) {  // the first movement changes the trend too
            ++turns;
            trend = moved;
        }
        const int now = (p > kPriceLevel) - (p < kPriceLevel);
        if (now != 0 && now != side) {
            crossings += side != 0;
            side = now;
        }
    }
    double sum = static_cast<double>(turns + crossings);
    if (t.rows() == 0) return sum;
    const auto [low, high] = std::minmax_element(t.size.begin(), t.size.end());
    uint64_t counts[kSizeBins] = {};
    const auto range = static_cast<uint64_t>(static_cast<int64_t>(*high) + 1 - *low);
    for (int32_t s : t.size) ++counts[static_cast<uint64_t>(static_cast<int64_t>(s) - *low) * kSizeBins / range];
    for (uint64_t b = 0; b < kSizeBins; ++b) sum += static_cast<double>(counts[b] * (b + 1));
    return sum;
}

// Symbol changes in a sample of the tape: every 10th trade, then the runs of
// one symbol collapsed, counted.
double sampled_symbol_changes_library(const tape::Tape &t) {
    Iter symbols, sample, changes, count;
    qmo_seq_unget_uint2(&symbols, t.symbol.data(), t.rows());
    check(qmo_seq_thin_uint2(&sample, &symbols, 0, kSampleEvery), "thin");
    check(qmo_seq_unique_uint2(&changes, &sample), "unique");
    check(qmo_seq_agg_count(&count, &changes), "agg_count");
    return static_cast<double>(read_uint8(&count));
}
double sampled_symbol_changes_loop(const tape::Tape &t) {
    uint64_t runs = 0;
    for (size_t i = 0; i < t.rows(); i += kSampleEvery)
        runs += i == 0 || t.symbol[i] != t.symbol[i - kSampleEvery];
    return static_cast<double>(runs);
}

// Trades whose symbol text matches a pattern: the tape's names, one char(8)
// column, matched and counted (the matches are a uint1 sequence).
constexpr size_t kNameWidth = 8;

double symbol_match_library(const tape::Tape &t) {
    Iter symbols, matches, count;
    check(qmo_seq_unget_char(&symbols, t.name.data(), t.rows(), kNameWidth), "unget_char");
    check(qmo_seq_match(&matches, &symbols, kSymbolPattern), "match");
    check(qmo_seq_agg_sum_uint1(&count, &matches), "agg_sum");
    if (t.rows() == 0) return 0;
    return static_cast<double>(read_uint8(&count));
}
double symbol_match_loop(const tape::Tape &t) {
    size_t count = 0;
    for (size_t i = 0; i < t.rows(); ++i) {
        const char *name = t.name.data() + i * kNameWidth;
        count += std::strncmp(name, "SYM1", 4) == 0 && name[4] != '\0';
    }
    return static_cast<double>(count);
}

// The largest average trade size of a symbol: a hash aggregate of the
// average size per symbol, then the largest of those averages.
double symbol_average_library(const tape::Tape &t) {
    Iter sizes, symbols, averages, groups, largest;
    qmo_seq_unget_int4(&sizes, t.size.data(), t.rows());
    qmo_seq_unget_uint2(&symbols, t.symbol.data(), t.rows());
    check(qmo_seq_hash_agg_avg_int4(&averages, &groups, &sizes, &symbols, 0), "hash_agg_avg");
    check(qmo_seq_agg_max_double(&largest, &averages), "agg_max");
    const double value = t.rows() ? read_double(&largest) : NAN;
    qmo_seq_release_hash(&averages);
    return value;
}
double symbol_average_loop(const tape::Tape &t) {
    std::vector<int64_t> sum(65536);
    std::vector<uint64_t> n(65536);
    for (size_t i = 0; i < t.rows(); ++i) {
        sum[t.symbol[i]] += t.size[i];
        ++n[t.symbol[i]];
    }
    double largest = NAN;
    for (size_t s = 0; s < n.size(); ++s)
        if (n[s] && !(largest >= double(sum[s]) / double(n[s]))) largest = double(sum[s]) / double(n[s]);
    return largest;
}

// ---- alignment of the trade and quote tapes ----------------------------------------------

// Sum of the bid prevailing at each trade (the last quote at or before it);
// trades before the first quote have none and add nothing.
double bid_before_library(const tape::Tape &t) {
    Iter trades, quotes, bids, matched, sum;
    qmo_seq_unget_datetime(&trades, t.ts.data(), t.rows());
    qmo_seq_unget_datetime(&quotes, t.quote_ts.data(), t.quote_ts.size());
    qmo_seq_unget_double(&bids, t.bid.data(), t.bid.size());
    check(qmo_seq_asof_join_datetime_double(&matched, &trades, &quotes, &bids, QMO_SEQ_ASOF_BACKWARD, ~uint64_t{0}, 1),
          "asof_join");
    check(qmo_seq_agg_sum_double(&sum, &matched), "agg_sum");
    return read_double(&sum);
}
double bid_before_loop(const tape::Tape &t) {
    double sum = 0;
    for (size_t i = 0, j = 0; i < t.rows(); ++i) {
        while (j < t.quote_ts.size() && t.quote_ts[j] <= t.ts[i]) ++j;
        if (j) sum += t.bid[j - 1];
    }
    return sum;
}

// Sum of the next bid at or after each trade, when it comes within 5 ms.
double bid_after_library(const tape::Tape &t) {
    Iter trades, quotes, bids, matched, sum;
    qmo_seq_unget_datetime(&trades, t.ts.data(), t.rows());
    qmo_seq_unget_datetime(&quotes, t.quote_ts.data(), t.quote_ts.size());
    qmo_seq_unget_double(&bids, t.bid.data(), t.bid.size());
    check(qmo_seq_asof_join_datetime_double(&matched, &trades, &quotes, &bids, QMO_SEQ_ASOF_FORWARD, kQuoteWithin, 1),
          "asof_join");
    check(qmo_seq_agg_sum_double(&sum, &matched), "agg_sum");
    return read_double(&sum);
}
double bid_after_loop(const tape::Tape &t) {
    double sum = 0;
    for (size_t i = 0, j = 0; i < t.rows(); ++i) {
        while (j < t.quote_ts.size() && t.quote_ts[j] < t.ts[i]) ++j;
        if (j < t.quote_ts.size() && t.quote_ts[j] - t.ts[i] <= kQuoteWithin) sum += t.bid[j];
    }
    return sum;
}

// The common time axis of trades and quotes, the last price and the last bid
// carried onto every stamp of it (backward as-of joins from the axis), and
// the sum of price + bid over the stamps where both exist (terms of one
// sign, so that sums in any order agree to a relative bound).
double spread_on_axis_library(const tape::Tape &t) {
    Iter ts, qs, common, axis[2], trade_ts, prices, quote_ts, bids, price_at, bid_at, spread, sum;
    qmo_seq_unget_datetime(&ts, t.ts.data(), t.rows());
    qmo_seq_unget_datetime(&qs, t.quote_ts.data(), t.quote_ts.size());
    check(qmo_seq_union_datetime(&common, &ts, &qs), "union");
    // Both joins read the axis a tile at a time, in step: one union, teed.
    check(qmo_seq_tee(&axis[0], &axis[1], &common), "tee");
    qmo_seq_unget_datetime(&trade_ts, t.ts.data(), t.rows());
    qmo_seq_unget_double(&prices, t.price.data(), t.rows());
    qmo_seq_unget_datetime(&quote_ts, t.quote_ts.data(), t.quote_ts.size());
    qmo_seq_unget_double(&bids, t.bid.data(), t.bid.size());
    check(qmo_seq_asof_join_datetime_double(&price_at, &axis[0], &trade_ts, &prices, QMO_SEQ_ASOF_BACKWARD,
                                            ~uint64_t{0}, 1), "asof_join");
    check(qmo_seq_asof_join_datetime_double(&bid_at, &axis[1], &quote_ts, &bids, QMO_SEQ_ASOF_BACKWARD, ~uint64_t{0},
                                            1), "asof_join");
    check(qmo_seq_add_double(&spread, &price_at, &bid_at), "add");
    check(qmo_seq_agg_sum_double(&sum, &spread), "agg_sum");
    return read_double(&sum);
}
double spread_on_axis_loop(const tape::Tape &t) {
    const uint64_t *a = t.ts.data(), *b = t.quote_ts.data();
    const size_t n = t.rows(), m = t.quote_ts.size();
    double sum = 0;
    for (size_t i = 0, j = 0; i < n || j < m;) {
        const uint64_t at = j == m || (i < n && a[i] <= b[j]) ? a[i] : b[j];
        while (i < n && a[i] == at) ++i;
        while (j < m && b[j] == at) ++j;
        if (i && j) sum += t.price[i - 1] + t.bid[j - 1];
    }
    return sum;
}

// Trades stamped exactly at a quote's stamp: the pairs of the join on equal
// stamps, their prices and bids gathered by position, summed as price + bid.
double at_quote_library(const tape::Tape &t) {
    Iter trades, quotes, left, right, prices, bids, price, bid, spread, sum;
    qmo_seq_unget_datetime(&trades, t.ts.data(), t.rows());
    qmo_seq_unget_datetime(&quotes, t.quote_ts.data(), t.quote_ts.size());
    check(qmo_seq_join_datetime(&left, &right, &trades, &quotes), "join");
    qmo_seq_unget_double(&prices, t.price.data(), t.rows());
    qmo_seq_unget_double(&bids, t.bid.data(), t.bid.size());
    check(qmo_seq_map_double(&price, &prices, &left), "map");
    check(qmo_seq_map_double(&bid, &bids, &right), "map");
    check(qmo_seq_add_double(&spread, &price, &bid), "add");
    check(qmo_seq_agg_sum_double(&sum, &spread), "agg_sum");
    const double v = read_double(&sum);
    left.reset(&left), right.reset(&right);  // gives the join's shared record back
    return v;
}
double at_quote_loop(const tape::Tape &t) {
    double sum = 0;
    for (size_t i = 0, j = 0; i < t.rows() && j < t.quote_ts.size();) {
        if (t.ts[i] < t.quote_ts[j]) ++i;
        else if (t.quote_ts[j] < t.ts[i]) ++j;
        else {
            for (size_t k = j; k < t.quote_ts.size() && t.quote_ts[k] == t.ts[i]; ++k) sum += t.price[i] + t.bid[k];
            ++i;
        }
    }
    return sum;
}

// Quotes per second placed on the axis of every second the trades span (0
// where a second has none); the result is sum of (k + 1) x count of second k.
std::vector<uint64_t> second_axis(const tape::Tape &t) {
    std::vector<uint64_t> axis;
    if (t.rows() == 0) return axis;
    for (uint64_t s = t.ts.front() / kSecond; s <= t.ts.back() / kSecond; ++s) axis.push_back(s);
    return axis;
}
double quotes_per_second_library(const tape::Tape &t) {
    const std::vector<uint64_t> axis = second_axis(t);
    Iter quotes[2], second[2], seconds[2], target, keys, counts, placed;
    for (int k = 0; k < 2; ++k) {
        qmo_seq_unget_datetime(&quotes[k], t.quote_ts.data(), t.quote_ts.size());
        qmo_seq_const_datetime(&second[k], kSecond);
        check(qmo_seq_div_datetime(&seconds[k], &quotes[k], &second[k]), "div");
    }
    check(qmo_seq_unique_datetime(&keys, &seconds[0]), "unique");
    check(qmo_seq_group_agg_count(&counts, &seconds[1]), "group_agg_count");
    qmo_seq_unget_datetime(&target, axis.data(), axis.size());
    check(qmo_seq_stretch0_datetime_uint8(&placed, &target, &keys, &counts, 0), "stretch0");
    double sum = 0;
    uint64_t k = 0, tile[QMO_SEQ_TILE_SIZE];
    for (;;) {
        uint64_t n = QMO_SEQ_TILE_SIZE;
        const int status = qmo_seq_get_uint8(&placed, tile, &n);
        if (status == QMO_SEQ_END) break;
        check(status, "reading the result");
        for (uint64_t i = 0; i < n; ++i) sum += double(++k) * double(tile[i]);
    }
    return sum;
}
double quotes_per_second_loop(const tape::Tape &t) {
    const std::vector<uint64_t> axis = second_axis(t);
    double sum = 0;
    size_t j = 0;
    for (size_t k = 0; k < axis.size(); ++k) {
        while (j < t.quote_ts.size() && t.quote_ts[j] / kSecond < axis[k]) ++j;
        uint64_t count = 0;
        while (j < t.quote_ts.size() && t.quote_ts[j] / kSecond == axis[k]) ++j, ++count;
        sum += double(k + 1) * double(count);
    }
    return sum;
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
    {"moving_price", "moving, EMA and grid averages of price", moving_price_library, moving_price_loop, false},
    {"top_trades", "ten largest trades and their positions", top_trades_library, top_trades_loop, true},
    {"second_close", "second closes carried onto the trades", second_close_library,
     second_close_loop, false},
    {"direction", "direction changes, size histogram", direction_library, direction_loop, true},
    {"sampled_symbol_runs", "symbol runs in every 10th trade", sampled_symbol_changes_library,
     sampled_symbol_changes_loop, true},
    {"symbol_match", "trades whose symbol matches SYM1_%", symbol_match_library, symbol_match_loop, true},
    {"symbol_average", "largest average trade size of a symbol", symbol_average_library, symbol_average_loop,
     false},
    {"bid_before", "bid prevailing at each trade, summed", bid_before_library, bid_before_loop, false},
    {"bid_after_5ms", "next bid within 5 ms of a trade, summed", bid_after_library, bid_after_loop, false},
    {"spread_on_axis", "price + bid carried onto all stamps", spread_on_axis_library, spread_on_axis_loop, false},
    {"at_quote", "trades at a quote's stamp, price + bid", at_quote_library, at_quote_loop, false},
    {"quotes_per_second", "quotes per second on the trades' seconds", quotes_per_second_library,
     quotes_per_second_loop, true},
};

}  // namespace

TimeRange price_range(const tape::Tape &t) {
    const uint64_t from = t.ts.empty() ? 0 : t.ts.front() + 1800ull * 1000000;  // 30 minutes in
    return {from, from + 3600ull * 1000000};
}

std::span<const Request> all() { return kAll; }

}  // namespace requests
