// Grid, window and cumulative aggregates: every member over every type
// against a model that recomputes each output from the input array (zeros in
// the slots of an unfilled window, divisors N and N - 1 from the start, the
// position as divisor and weight, nulls carried forward), across tile
// boundaries and after resets; then the quirks one row each, and the statuses.
#include "support.hpp"

#include <functional>
#include <numeric>
#include <optional>

using namespace test;

namespace {

using Out = std::vector<std::optional<double>>;  // nullopt: a null element
using Values = std::vector<double>;
using Make = std::function<int(Iter *, Iter *, uint64_t)>;
using WithParam = int (*)(Iter *, Iter *, uint64_t);

struct Input {
    Values x;
    std::vector<bool> null;
};

double var_of(double s1, double s2, double d) { return (s2 - s1 * s1 / d) / d; }

// f of each interval's non-null values; null for an interval without any.
Out grid_model(const Input &in, size_t length, const std::function<double(const Values &)> &f) {
    Out out;
    for (size_t s = 0; s < in.x.size(); s += length) {
        Values live;
        for (size_t i = s; i < std::min(s + length, in.x.size()); ++i)
            if (!in.null[i]) live.push_back(in.x[i]);
        out.push_back(live.empty() ? std::nullopt : std::optional(f(live)));
    }
    return out;
}

// f of the last n elements, zeros standing in for those before the first.
Out window_model(const Input &in, size_t n, const std::function<double(const Values &)> &f) {
    Out out;
    for (size_t i = 0; i < in.x.size(); ++i) {
        Values w(n, 0.0);
        for (size_t k = 0; k < n; ++k)
            if (i + k + 1 >= n) w[k] = in.x[i + k + 1 - n];
        out.push_back(f(w));
    }
    return out;
}

// For element j: f of the non-null values up to it and j; null while none
// was seen; a null after the first value gives carry of them.
Out cum_model(const Input &in, const std::function<double(const Values &, size_t)> &f,
              const std::function<double(const Values &)> &carry) {
    Out out;
    Values live;
    for (size_t j = 0; j < in.x.size(); ++j) {
        if (!in.null[j]) live.push_back(in.x[j]);
        if (live.empty()) out.push_back(std::nullopt);
        else out.push_back(in.null[j] ? carry(live) : f(live, j));
    }
    return out;
}

// The recurrences: ema, atr and the cumulative mean weighted by position.
Out ema_model(const Input &in, size_t n) {
    Out out;
    double e = 0;
    const double a = 2.0 / (n + 1.0);
    for (size_t i = 0; i < in.x.size(); ++i) out.push_back(e = i == 0 ? in.x[i] : (1 - a) * e + a * in.x[i]);
    return out;
}

Out atr_model(const Input &in, size_t n) {
    Out out;
    double r = 0;
    for (size_t i = 0; i < in.x.size(); ++i) {
        const double m = double(std::min(n, i + 1));
        out.push_back(r = (r * (m - 1) + in.x[i]) / m);
    }
    return out;
}

Out cum_avg_model(const Input &in, size_t) {
    Out out;
    std::optional<double> e;
    for (size_t j = 0; j < in.x.size(); ++j) {
        if (!in.null[j]) e = e ? (*e * double(j + 1) + in.x[j]) / double(j + 2) : in.x[j];
        out.push_back(e);
    }
    return out;
}

double total(const Values &v) { return std::accumulate(v.begin(), v.end(), 0.0); }
double squares(const Values &v) { return std::inner_product(v.begin(), v.end(), v.begin(), 0.0); }
double lowest(const Values &v) { return *std::min_element(v.begin(), v.end()); }
double highest(const Values &v) { return *std::max_element(v.begin(), v.end()); }

struct Row {
    std::string name;
    Make make;
    int type;
    std::vector<uint64_t> params;
    bool nulls;  // windows take none
    std::function<Out(const Input &, size_t)> model;
};

template <class Tag>
std::vector<Row> rows() {
    constexpr bool fl = is_float_v<Tag>, dt = std::is_same_v<Tag, t_datetime>;
    const int dbl = QMO_SEQ_TYPE_DOUBLE, code = Tag::code_;
    const int wide = fl ? dbl : dt ? QMO_SEQ_TYPE_DATETIME : is_signed_v<Tag> ? QMO_SEQ_TYPE_INT8 : QMO_SEQ_TYPE_UINT8;
    const int mean = dt ? QMO_SEQ_TYPE_DATETIME : dbl;
    const std::vector<uint64_t> lengths = {1, 5, 130}, windows = {1, 3, 208 / sizeof(V<Tag>)}, none = {0};
    auto whole = [](double v) { return fl ? v : std::trunc(v); };      // integer results truncate
    auto dt_whole = [](double v) { return dt ? std::trunc(v) : v; };   // datetime means and variances
    auto grid = [&](std::string op, WithParam make, int type, std::function<double(const Values &)> f) {
        return Row{"grid " + op, make, type, lengths, true, [f](const Input &in, size_t l) { return grid_model(in, l, f); }};
    };
    auto window = [&](std::string op, WithParam make, int type, std::function<double(const Values &, double)> f) {
        return Row{"window " + op, make, type, windows, false, [f](const Input &in, size_t n) {
                       return window_model(in, n, [&](const Values &w) { return f(w, double(n)); });
                   }};
    };
    auto drop = [](Unary make) { return [make](Iter *r, Iter *x, uint64_t) { return make(r, x); }; };
    auto cum = [&](std::string op, Unary make, int type, std::function<double(const Values &, size_t)> f,
                   std::function<double(const Values &)> carry) {
        return Row{"cum " + op, drop(make), type, none, true,
                   [f, carry](const Input &in, size_t) { return cum_model(in, f, carry); }};
    };
    // Products wrap in 64 bits of the input's signedness.
    auto product = [](const Values &v) {
        double p = 1;
        uint64_t w = 1;
        for (double x : v) p *= x, w *= uint64_t(int64_t(x));
        return fl ? p : is_signed_v<Tag> ? double(int64_t(w)) : double(w);
    };
    // Cumulative variances: integer sums, an integer quotient, divisor d = j + 2 (sample: j + 1).
    auto cum_var = [&](bool sample, bool root) {
        return [=](const Values &v, size_t j) {
            const double d = double(sample ? j + 1 : j + 2), s1 = total(v), s2 = squares(v);
            const double var = fl ? var_of(s1, s2, d) : (s2 - std::trunc(s1 * s1 / d)) / d;
            return v.size() == 1 ? 0.0 : whole(root ? std::sqrt(var) : var);
        };
    };
    auto samp = [](const Values &v) { return v.size() == 1 ? 0.0 : var_of(total(v), squares(v), v.size() - 1.0); };
    auto mean_of = [=](const Values &v, double n) { return dt ? std::floor(total(v) / n) : total(v) / n; };
    return {
        grid("sum", fn::grid_agg_sum<Tag>, wide, total),
        grid("avg", fn::grid_agg_avg<Tag>, mean, [=](const Values &v) { return mean_of(v, double(v.size())); }),
        grid("min", fn::grid_agg_min<Tag>, code, lowest),
        grid("max", fn::grid_agg_max<Tag>, code, highest),
        grid("var", fn::grid_agg_var<Tag>, mean, [=](const Values &v) { return dt_whole(var_of(total(v), squares(v), v.size())); }),
        grid("var_samp", fn::grid_agg_var_samp<Tag>, dbl, samp),
        grid("dev", fn::grid_agg_dev<Tag>, dbl, [](const Values &v) { return std::sqrt(var_of(total(v), squares(v), v.size())); }),
        grid("dev_samp", fn::grid_agg_dev_samp<Tag>, dbl, [=](const Values &v) { return std::sqrt(samp(v)); }),
        window("sum", fn::window_agg_sum<Tag>, wide, [](const Values &w, double) { return total(w); }),
        window("avg", fn::window_agg_avg<Tag>, mean, mean_of),
        window("min", fn::window_agg_min<Tag>, code, [](const Values &w, double) { return lowest(w); }),
        window("max", fn::window_agg_max<Tag>, code, [](const Values &w, double) { return highest(w); }),
        window("var", fn::window_agg_var<Tag>, mean, [=](const Values &w, double n) { return dt_whole(var_of(total(w), squares(w), n)); }),
        window("var_samp", fn::window_agg_var_samp<Tag>, dbl, [](const Values &w, double n) { return var_of(total(w), squares(w), n - 1); }),
        window("dev", fn::window_agg_dev<Tag>, dbl, [](const Values &w, double n) { return std::sqrt(var_of(total(w), squares(w), n)); }),
        window("dev_samp", fn::window_agg_dev_samp<Tag>, dbl, [](const Values &w, double n) { return std::sqrt(var_of(total(w), squares(w), n - 1)); }),
        Row{"window ema", fn::window_agg_ema<Tag>, dbl, windows, false, ema_model},
        Row{"window atr", fn::window_agg_atr<Tag>, dbl, windows, false, atr_model},
        Row{"cum avg", drop(fn::cum_agg_avg<Tag>), dbl, none, true, cum_avg_model},
        cum("prd", fn::cum_agg_prd<Tag>, wide, [=](const Values &v, size_t) { return product(v); }, product),
        cum("sum", fn::cum_agg_sum<Tag>, fl || dt ? dbl : wide, [](const Values &v, size_t) { return total(v); }, total),
        cum("min", fn::cum_agg_min<Tag>, code, [](const Values &v, size_t) { return lowest(v); }, lowest),
        cum("max", fn::cum_agg_max<Tag>, code, [](const Values &v, size_t) { return highest(v); }, highest),
        cum("var", fn::cum_agg_var<Tag>, wide, cum_var(false, false), total),
        cum("var_samp", fn::cum_agg_var_samp<Tag>, wide, cum_var(true, false), total),
        cum("dev", fn::cum_agg_dev<Tag>, wide, cum_var(false, true), total),
        cum("dev_samp", fn::cum_agg_dev_samp<Tag>, wide, cum_var(true, true), total),
    };
}

// The test's input: 300 small whole numbers (negative ones for signed and
// floating types), with nulls at the start, every ninth and in a run of 16.
template <class Tag>
Input input(bool nulls) {
    Input in;
    for (size_t i = 0; i < 300; ++i) {
        in.x.push_back(double((i * 7 + 3) % 12) - (is_signed_v<Tag> || is_float_v<Tag> ? 5 : 0));
        in.null.push_back(nulls && (i == 0 || i % 9 == 4 || (i >= 40 && i < 56)));
    }
    return in;
}

// A source of the tag's type over the values (NaN for a null) in tiles of the given lengths.
template <class Tag>
struct SeriesSource : Source<Tag> {
    SeriesSource(const Values &x, const std::vector<bool> &null, std::vector<unsigned> lengths)
        : Source<Tag>(typed(x, null), positions(null), std::move(lengths)) {}
    static std::vector<V<Tag>> typed(const Values &x, const std::vector<bool> &null) {
        std::vector<V<Tag>> v;
        for (size_t i = 0; i < x.size(); ++i) v.push_back(null[i] ? V<Tag>{} : static_cast<V<Tag>>(x[i]));
        return v;
    }
    static std::vector<size_t> positions(const std::vector<bool> &null) {
        std::vector<size_t> at;
        for (size_t i = 0; i < null.size(); ++i)
            if (null[i]) at.push_back(i);
        return at;
    }
};

bool same(double got, double want) {
    return got == want || (std::isnan(got) && std::isnan(want)) || std::abs(got - want) <= 1e-9 * std::abs(want);
}

void expect_model(Iter *agg, const Out &want) {
    const Drained<double> got = drain_numbers(agg);
    EXPECT_EQ(got.status, QMO_SEQ_END);
    ASSERT_EQ(got.values.size(), want.size());
    for (size_t i = 0; i < want.size(); ++i)
        ASSERT_TRUE(got.nulls[i] == !want[i] && (!want[i] || same(got.values[i], *want[i])))
            << "element " << i << ": " << got.values[i] << (got.nulls[i] ? " (null)" : "") << ", expected "
            << want[i].value_or(0) << (want[i] ? "" : " (null)");
}

}  // namespace

template <class Tag>
class SeriesAggregates : public ::testing::Test {};
TYPED_TEST_SUITE(SeriesAggregates, NumericTypes);

TYPED_TEST(SeriesAggregates, EveryMemberAgainstTheModel) {
    for (const Row &row : rows<TypeParam>()) {
        const Input in = input<TypeParam>(row.nulls);
        for (uint64_t param : row.params) {
            const Out want = row.model(in, param);
            for (const std::vector<unsigned> &tiles : {std::vector<unsigned>{128}, {3, 128, 1, 60}, {100, 7}}) {
                SCOPED_TRACE(row.name + " of " + std::to_string(param) + ", tiles from " + std::to_string(tiles[0]));
                SeriesSource<TypeParam> src(in.x, in.null, tiles);
                Iter agg;
                ASSERT_EQ(row.make(&agg, &src.it, param), 0);
                ASSERT_EQ(agg.elem_type, row.type);
                EXPECT_TRUE(agg.prepare == nullptr && agg.merge == nullptr && src.it.bound == 1);
                expect_model(&agg, want);
                // Reset after the end and in mid-pass: each starts the same pass again.
                ASSERT_EQ(agg.reset(&agg), 0);
                ASSERT_EQ(agg.next(&agg), 0);
                ASSERT_EQ(agg.reset(&agg), 0);
                expect_model(&agg, want);
            }
        }
    }
}

// ---- the quirks, one row each -----------------------------------------------------------

namespace {

// Drains make over the values (NaN: null) in tiles of two; nulls come back as NaN.
template <class Tag>
Values series(std::function<int(Iter *, Iter *)> make, const Values &x) {
    std::vector<bool> null;
    for (double v : x) null.push_back(std::isnan(v));
    SeriesSource<Tag> src(x, null, {2});
    Iter agg;
    EXPECT_EQ(make(&agg, &src.it), 0);
    const Drained<double> d = drain_numbers(&agg);
    Values out;
    for (size_t i = 0; i < d.values.size(); ++i) out.push_back(d.nulls[i] ? std::nan("") : d.values[i]);
    return out;
}

template <auto F>
auto with(uint64_t param) {
    return [param](Iter *r, Iter *x) { return F(r, x, param); };
}

}  // namespace

TEST(SeriesAggregateQuirks, OneRowEach) {
    const double null = std::nan("");
    struct Quirk {
        const char *what;
        Values got, want;
    };
    for (const Quirk &q : std::vector<Quirk>{
             {"window sum: zeros stand in", series<t_int4>(with<qmo_seq_window_agg_sum_int4>(3), {1, 2, 3}), {1, 3, 6}},
             {"window avg: N from the start", series<t_int4>(with<qmo_seq_window_agg_avg_int4>(3), {1, 2, 3}), {1.0 / 3, 1, 2}},
             {"window max: zero slots count", series<t_int4>(with<qmo_seq_window_agg_max_int4>(3), {-5, -6, -7, -8}), {0, 0, -5, -6}},
             {"window min: mirror", series<t_int2>(with<qmo_seq_window_agg_min_int2>(3), {5, 6, 7, 8}), {0, 0, 5, 6}},
             {"window var: N from the start", series<t_double>(with<qmo_seq_window_agg_var_double>(2), {2, 4}), {1, 1}},
             {"window var_samp: N - 1 = 0", series<t_double>(with<qmo_seq_window_agg_var_samp_double>(1), {0, 2}), {null, -INFINITY}},
             {"window sum of 1: identity", series<t_uint1>(with<qmo_seq_window_agg_sum_uint1>(1), {7, 9, 4}), {7, 9, 4}},
             {"window ema of 1: identity", series<t_int4>(with<qmo_seq_window_agg_ema_int4>(1), {3, 8, -2}), {3, 8, -2}},
             {"window ema: a = 2 / (N + 1)", series<t_int4>(with<qmo_seq_window_agg_ema_int4>(3), {4, 8, 0}), {4, 6, 3}},
             {"window atr: period grows to N", series<t_int4>(with<qmo_seq_window_agg_atr_int4>(2), {4, 8, 2}), {4, 6, 4}},
             {"cum sum: carried over a null", series<t_int4>(qmo_seq_cum_agg_sum_int4, {1, null, 2}), {1, 1, 3}},
             {"cum sum: null before a value", series<t_int4>(qmo_seq_cum_agg_sum_int4, {null, 1}), {null, 1}},
             {"cum avg: weighted by position", series<t_int4>(qmo_seq_cum_agg_avg_int4, {1, 2}), {1, 4.0 / 3}},
             {"cum avg: nulls count in it", series<t_int4>(qmo_seq_cum_agg_avg_int4, {null, 3, 6}), {null, 3, 3.75}},
             {"cum var: d = k + 1, integer quotient", series<t_int4>(qmo_seq_cum_agg_var_int4, {2, 4, 9}), {0, 2, 11}},
             {"cum var_samp: d - 1", series<t_int4>(qmo_seq_cum_agg_var_samp_int4, {2, 4, 9}), {0, 1, 8}},
             {"cum dev: truncated", series<t_int4>(qmo_seq_cum_agg_dev_int4, {1, 2, 3}), {0, 0, 1}},
             {"cum var: a null gives the sum", series<t_int4>(qmo_seq_cum_agg_var_int4, {5, null, 7}), {0, 5, 9}},
             {"cum var: int1 squares wrap", series<t_int1>(qmo_seq_cum_agg_var_int1, {12, 12}), {0, -138}},
             {"cum var: double", series<t_double>(qmo_seq_cum_agg_var_double, {2, 4}), {0, (20 - 36.0 / 3) / 3}},
             {"grid: short last interval", series<t_int4>(with<qmo_seq_grid_agg_sum_int4>(3), {1, 2, 3, 4, 5, 6, 7}), {6, 15, 7}},
             {"grid: no empty tail", series<t_int4>(with<qmo_seq_grid_agg_sum_int4>(2), {1, 2, 3, 4}), {3, 7}},
             {"grid: nulls only give null", series<t_int4>(with<qmo_seq_grid_agg_avg_int4>(2), {1, 2, null, null, 5}), {1.5, null, 5}},
             {"grid var_samp: n - 1 twice", series<t_int4>(with<qmo_seq_grid_agg_var_samp_int4>(2), {3, null, 1, 5}), {0, -10}},
             {"grid avg of datetime truncates", series<t_datetime>(with<qmo_seq_grid_agg_avg_datetime>(2), {3, 4}), {3}},
         }) {
        ASSERT_EQ(q.got.size(), q.want.size()) << q.what;
        for (size_t i = 0; i < q.want.size(); ++i) EXPECT_TRUE(same(q.got[i], q.want[i])) << q.what << " at " << i << ": " << q.got[i];
    }
}

TEST(SeriesAggregateQuirks, IntegerSumsAndProductsWrapIn64Bits) {
    Source<t_int8> a({INT64_MAX, 1}), b({INT64_MAX, 1}, {}, {1});
    Source<t_int4> c({65536, 65536, 65536, 65536});
    Iter w, g, p;
    ASSERT_EQ(qmo_seq_window_agg_sum_int8(&w, &a.it, 2) | qmo_seq_grid_agg_sum_int8(&g, &b.it, 2), 0);
    ASSERT_EQ(qmo_seq_cum_agg_prd_int4(&p, &c.it), 0);
    EXPECT_EQ(drain<int64_t>(&w).values, (std::vector<int64_t>{INT64_MAX, INT64_MIN}));
    EXPECT_EQ(drain<int64_t>(&g).values, (std::vector<int64_t>{INT64_MIN}));
    EXPECT_EQ(drain<int64_t>(&p).values, (std::vector<int64_t>{65536, int64_t{1} << 32, int64_t{1} << 48, 0}));
}

// ---- protocol --------------------------------------------------------------------------

TEST(SeriesAggregateProtocol, TypeThenBindingThenTheWindowLimit) {
    BindingChecks on(1);
    Source<t_int4> i4({1});
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_grid_agg_sum_double(o, &i4.it, 3); }, {&i4.it});
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_window_agg_ema_int8(o, &i4.it, 3); }, {&i4.it});
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_cum_agg_sum_uint4(o, &i4.it); }, {&i4.it});
    expect_refused(QMO_SEQ_INVALID_ARGUMENT, [&](Iter *o) { return qmo_seq_grid_agg_avg_int4(o, &i4.it, 0); }, {&i4.it});
    // A window the ring cannot hold is refused after the input was bound.
    for (auto [make, type, n, status] : std::vector<std::tuple<WithParam, int, uint64_t, int>>{
             {qmo_seq_window_agg_sum_int4, QMO_SEQ_TYPE_INT4, 53, QMO_SEQ_INVALID_ARGUMENT},
             {qmo_seq_window_agg_sum_int4, QMO_SEQ_TYPE_INT4, 52, 0},
             {qmo_seq_window_agg_max_double, QMO_SEQ_TYPE_DOUBLE, 27, QMO_SEQ_INVALID_ARGUMENT},
             {qmo_seq_window_agg_max_double, QMO_SEQ_TYPE_DOUBLE, 26, 0},
             {qmo_seq_window_agg_atr_uint1, QMO_SEQ_TYPE_UINT1, 209, QMO_SEQ_INVALID_ARGUMENT},
             {qmo_seq_window_agg_atr_uint1, QMO_SEQ_TYPE_UINT1, 208, 0},
             {qmo_seq_window_agg_var_uint2, QMO_SEQ_TYPE_UINT2, 105, QMO_SEQ_INVALID_ARGUMENT},
             {qmo_seq_window_agg_var_int4, QMO_SEQ_TYPE_INT4, 0, QMO_SEQ_INVALID_ARGUMENT}}) {
        Script in(type, 1);
        Iter out;
        std::memset(&out, 0xAB, sizeof out);
        const Iter before = out;
        EXPECT_EQ(make(&out, &in.it, n), status) << n;
        EXPECT_EQ(in.it.bound, 1) << n;
        if (status) {
            EXPECT_EQ(std::memcmp(&out, &before, sizeof out), 0) << "result written for " << n;
        }
    }
    i4.it.bound = 1;
    expect_refused(QMO_SEQ_ALREADY_BOUND, [&](Iter *o) { return qmo_seq_grid_agg_sum_int4(o, &i4.it, 3); }, {});
    expect_refused(QMO_SEQ_ALREADY_BOUND, [&](Iter *o) { return qmo_seq_window_agg_sum_int4(o, &i4.it, 60); }, {});
    expect_refused(QMO_SEQ_ALREADY_BOUND, [&](Iter *o) { return qmo_seq_cum_agg_sum_int4(o, &i4.it); }, {});
}

// Windows: the own reset; the position counts input elements. Grids: the
// aggregate reset; the position counts outputs. Cumulative: the core's
// reset; the position is 1 + the input elements.
TEST(SeriesAggregateProtocol, ResetsAndPositions) {
    Source<t_int4> a({1, 2, 3}), b({1, 2, 3}), c({1, 2, 3});
    Iter w, g, k;
    ASSERT_EQ(qmo_seq_window_agg_sum_int4(&w, &a.it, 2) | qmo_seq_grid_agg_sum_int4(&g, &b.it, 2), 0);
    ASSERT_EQ(qmo_seq_cum_agg_sum_int4(&k, &c.it), 0);
    EXPECT_TRUE(w.reset == qmo_seq_window_agg_sum_int4_reset && g.reset == qmo_seq_reset_unary_agg_iterator &&
                k.reset == qmo_seq_reset_unary_iterator);
    drain_numbers(&w), drain_numbers(&g), drain_numbers(&k);
    EXPECT_EQ(std::vector<uint64_t>({w.pos, g.pos, k.pos}), (std::vector<uint64_t>{3, 2, 4}));
}

// A null in a window's input: 703, and the tile is passed over as if it never came.
TEST(SeriesAggregateProtocol, WindowRefusesATileWithANull) {
    Source<t_int4> in({1, 2, 3, 4, 5, 6, 7}, {3}, {3, 2, 2});
    Iter w;
    ASSERT_EQ(qmo_seq_window_agg_sum_int4(&w, &in.it, 2), 0);
    ASSERT_EQ(w.next(&w), 0);
    EXPECT_EQ(w.next(&w), QMO_SEQ_NULL_VALUE);
    const Drained<int64_t> rest = drain<int64_t>(&w);
    EXPECT_EQ(rest.values, (std::vector<int64_t>{9, 13})) << "1 2 3 then 6 7";
    EXPECT_EQ(w.pos, 5u);
}

// Errors pass through; a grid keeps its open interval over one, and a reset
// drops it; an empty operand ends every family at once.
TEST(SeriesAggregateProtocol, ErrorsPassThroughAndTheGridKeepsItsOpenInterval) {
    Source<t_int4> in({1, 2, 3, 4, 5}, {}, {2});
    in.fail_with = 4242, in.fail_from = 2;
    Iter g;
    ASSERT_EQ(qmo_seq_grid_agg_sum_int4(&g, &in.it, 4), 0);
    EXPECT_EQ(g.next(&g), 4242);
    in.fail_with = 0;
    EXPECT_EQ(drain<int64_t>(&g).values, (std::vector<int64_t>{10, 5})) << "1 2 | error | 3 4 | 5";
    in.fail_with = 4242, in.fail_from = in.pulls + 2;
    ASSERT_EQ(g.reset(&g), 0);
    EXPECT_EQ(g.next(&g), 4242);
    in.fail_with = 0;
    ASSERT_EQ(g.reset(&g), 0);
    EXPECT_EQ(drain<int64_t>(&g).values, (std::vector<int64_t>{10, 5})) << "the open 1 2 is dropped by the reset";

    Source<t_double> broken({1.0}), empty(std::vector<double>{}), none(std::vector<double>{});
    broken.fail_with = 4242;
    Iter w, k, e;
    ASSERT_EQ(qmo_seq_window_agg_ema_double(&w, &broken.it, 3) | qmo_seq_cum_agg_avg_double(&k, &empty.it), 0);
    ASSERT_EQ(qmo_seq_grid_agg_max_double(&e, &none.it, 3), 0);
    EXPECT_EQ(w.next(&w), 4242);
    EXPECT_EQ(k.next(&k), QMO_SEQ_END);
    EXPECT_EQ(e.next(&e), QMO_SEQ_END);
}
