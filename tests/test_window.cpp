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

using Values = std::vector<double>;  // NaN: a null element, in and out
using WithParam = int (*)(Iter *, Iter *, uint64_t);
using Reduce = std::function<double(const Values &)>;
const double null = std::nan("");

double total(const Values &v) { return std::accumulate(v.begin(), v.end(), 0.0); }
double squares(const Values &v) { return std::inner_product(v.begin(), v.end(), v.begin(), 0.0); }
double lowest(const Values &v) { return *std::min_element(v.begin(), v.end()); }
double highest(const Values &v) { return *std::max_element(v.begin(), v.end()); }
double var_of(const Values &v, double d) { return (squares(v) - total(v) * total(v) / d) / d; }
Values live(const Values &x, size_t from, size_t till) {
    Values v;
    std::copy_if(x.begin() + from, x.begin() + till, std::back_inserter(v), [](double e) { return !std::isnan(e); });
    return v;
}

// f of each interval's non-null values; null for an interval without any.
Values grid_model(const Values &x, size_t length, const Reduce &f) {
    Values out;
    for (size_t s = 0; s < x.size(); s += length) {
        const Values v = live(x, s, std::min(s + length, x.size()));
        out.push_back(v.empty() ? null : f(v));
    }
    return out;
}

// f of the last n elements and n, zeros standing in for those before the first.
Values window_model(const Values &x, size_t n, const std::function<double(const Values &, double)> &f) {
    Values out;
    for (size_t i = 0; i < x.size(); ++i) {
        Values w(n, 0.0);
        for (size_t k = 0; k < n; ++k) w[k] = i + k + 1 >= n ? x[i + k + 1 - n] : 0;
        out.push_back(f(w, double(n)));
    }
    return out;
}

// For element j: f of the non-null values up to it and j; null while none
// was seen; a null after the first value gives carry of them.
Values cum_model(const Values &x, const std::function<double(const Values &, size_t)> &f, const Reduce &carry) {
    Values out;
    for (size_t j = 0; j < x.size(); ++j) {
        const Values v = live(x, 0, j + 1);
        out.push_back(v.empty() ? null : std::isnan(x[j]) ? carry(v) : f(v, j));
    }
    return out;
}

// The recurrences: ema, atr, and the cumulative mean weighted by position.
Values ema_model(const Values &x, size_t n) {
    Values out;
    const double a = 2.0 / (n + 1.0);
    for (size_t i = 0; i < x.size(); ++i) out.push_back(i == 0 ? x[0] : (1 - a) * out.back() + a * x[i]);
    return out;
}
Values atr_model(const Values &x, size_t n) {
    Values out;
    for (size_t i = 0; i < x.size(); ++i) {
        const double m = double(std::min(n, i + 1));
        out.push_back(((i ? out.back() : 0) * (m - 1) + x[i]) / m);
    }
    return out;
}
Values cum_avg_model(const Values &x, size_t) {
    Values out;
    double e = null;
    for (size_t j = 0; j < x.size(); ++j) {
        if (!std::isnan(x[j])) e = std::isnan(e) ? x[j] : (e * double(j + 1) + x[j]) / double(j + 2);
        out.push_back(e);
    }
    return out;
}

struct Row {
    std::string name;
    std::function<int(Iter *, Iter *, uint64_t)> make;
    int type;
    std::vector<uint64_t> params;
    bool nulls;  // windows take none
    std::function<Values(const Values &, size_t)> model;
};

template <class Tag>
std::vector<Row> rows() {
    constexpr bool fl = is_float_v<Tag>, dt = std::is_same_v<Tag, t_datetime>;
    const int dbl = QMO_SEQ_TYPE_DOUBLE, code = Tag::code_, mean = dt ? QMO_SEQ_TYPE_DATETIME : dbl;
    const int wide = fl ? dbl : dt ? QMO_SEQ_TYPE_DATETIME : is_signed_v<Tag> ? QMO_SEQ_TYPE_INT8 : QMO_SEQ_TYPE_UINT8;
    const std::vector<uint64_t> lengths = {1, 5, 130}, windows = {1, 3, 208 / sizeof(V<Tag>)}, none = {0};
    auto grid = [&](std::string op, WithParam make, int type, Reduce f) {
        return Row{"grid " + op, make, type, lengths, true,
                   [f](const Values &x, size_t l) { return grid_model(x, l, f); }};
    };
    auto window = [&](std::string op, WithParam make, int type, std::function<double(const Values &, double)> f) {
        return Row{"window " + op, make, type, windows, false, [f](const Values &x, size_t n) {
                       return window_model(x, n, f);
                   }};
    };
    auto drop = [](Unary make) { return [make](Iter *r, Iter *x, uint64_t) { return make(r, x); }; };
    auto cum = [&](std::string op, Unary make, int type, std::function<double(const Values &, size_t)> f,
                   Reduce carry) {
        return Row{"cum " + op, drop(make), type, none, true,
                   [f, carry](const Values &x, size_t) { return cum_model(x, f, carry); }};
    };
    // Datetime means and variances truncate; products wrap in 64 bits of the input's signedness.
    auto dt_cut = [](double v) { return dt ? std::trunc(v) : v; };
    auto mean_of = [=](const Values &v, double n) { return dt_cut(total(v) / n); };
    auto samp = [](const Values &v) { return v.size() == 1 ? 0.0 : var_of(v, v.size() - 1.0); };
    auto product = [](const Values &v) {
        double p = 1;
        uint64_t w = 1;
        for (double x : v) p *= x, w *= uint64_t(int64_t(x));
        return fl ? p : is_signed_v<Tag> ? double(int64_t(w)) : double(w);
    };
    // Cumulative variances: integer sums and quotient, divisor d = j + 2 (sample: j + 1), truncated.
    auto cum_var = [](bool sample, bool root) {
        return [=](const Values &v, size_t j) {
            const double d = double(sample ? j + 1 : j + 2);
            const double var = fl ? var_of(v, d) : (squares(v) - std::trunc(total(v) * total(v) / d)) / d;
            const double r = root ? std::sqrt(var) : var;
            return v.size() == 1 ? 0.0 : fl ? r : std::trunc(r);
        };
    };
    auto first = [](Reduce f) { return [f](const Values &v, size_t) { return f(v); }; };
    auto within = [](Reduce f) { return [f](const Values &w, double) { return f(w); }; };
    return {
        grid("sum", fn::grid_agg_sum<Tag>, wide, total),
        grid("avg", fn::grid_agg_avg<Tag>, mean, [=](const Values &v) { return mean_of(v, double(v.size())); }),
        grid("min", fn::grid_agg_min<Tag>, code, lowest),
        grid("max", fn::grid_agg_max<Tag>, code, highest),
        grid("var", fn::grid_agg_var<Tag>, mean, [=](const Values &v) { return dt_cut(var_of(v, v.size())); }),
        grid("var_samp", fn::grid_agg_var_samp<Tag>, dbl, samp),
        grid("dev", fn::grid_agg_dev<Tag>, dbl, [](const Values &v) { return std::sqrt(var_of(v, v.size())); }),
        grid("dev_samp", fn::grid_agg_dev_samp<Tag>, dbl, [=](const Values &v) { return std::sqrt(samp(v)); }),
        window("sum", fn::window_agg_sum<Tag>, wide, within(total)),
        window("avg", fn::window_agg_avg<Tag>, mean, mean_of),
        window("min", fn::window_agg_min<Tag>, code, within(lowest)),
        window("max", fn::window_agg_max<Tag>, code, within(highest)),
        window("var", fn::window_agg_var<Tag>, mean, [=](const Values &w, double n) { return dt_cut(var_of(w, n)); }),
        window("var_samp", fn::window_agg_var_samp<Tag>, dbl,
               [](const Values &w, double n) { return var_of(w, n - 1); }),
        window("dev", fn::window_agg_dev<Tag>, dbl, [](const Values &w, double n) { return std::sqrt(var_of(w, n)); }),
        window("dev_samp", fn::window_agg_dev_samp<Tag>, dbl,
               [](const Values &w, double n) { return std::sqrt(var_of(w, n - 1)); }),
        Row{"window ema", fn::window_agg_ema<Tag>, dbl, windows, false, ema_model},
        Row{"window atr", fn::window_agg_atr<Tag>, dbl, windows, false, atr_model},
        Row{"cum avg", drop(fn::cum_agg_avg<Tag>), dbl, none, true, cum_avg_model},
        cum("sum", fn::cum_agg_sum<Tag>, fl || dt ? dbl : wide, first(total), total),
        cum("prd", fn::cum_agg_prd<Tag>, wide, first(product), product),
        cum("min", fn::cum_agg_min<Tag>, code, first(lowest), lowest),
        cum("max", fn::cum_agg_max<Tag>, code, first(highest), highest),
        cum("var", fn::cum_agg_var<Tag>, wide, cum_var(false, false), total),
        cum("var_samp", fn::cum_agg_var_samp<Tag>, wide, cum_var(true, false), total),
        cum("dev", fn::cum_agg_dev<Tag>, wide, cum_var(false, true), total),
        cum("dev_samp", fn::cum_agg_dev_samp<Tag>, wide, cum_var(true, true), total),
    };
}

// 300 small whole numbers (negative ones for signed and floating types),
// nulls at the start, every ninth and in a run of 16.
template <class Tag>
Values input(bool nulls) {
    Values x;
    for (size_t i = 0; i < 300; ++i) {
        const bool gap = nulls && (i == 0 || i % 9 == 4 || (i >= 40 && i < 56));
        x.push_back(gap ? null : double((i * 7 + 3) % 12) - (is_signed_v<Tag> || is_float_v<Tag> ? 5 : 0));
    }
    return x;
}

// A source of the tag's type over the values (NaN: null) in tiles of the given lengths.
template <class Tag>
struct SeriesSource : Source<Tag> {
    SeriesSource(const Values &x, std::vector<unsigned> lengths) : Source<Tag>({}, {}, std::move(lengths)) {
        std::vector<V<Tag>> v;
        std::vector<size_t> gaps;
        for (size_t i = 0; i < x.size(); ++i) {
            v.push_back(std::isnan(x[i]) ? V<Tag>{} : static_cast<V<Tag>>(x[i]));
            if (std::isnan(x[i])) gaps.push_back(i);
        }
        this->load(v.data(), v.size(), gaps);
    }
};

// The whole sequence, nulls as NaN.
Values drained(Iter *agg) {
    const Drained<double> d = drain_numbers(agg);
    EXPECT_EQ(d.status, QMO_SEQ_END);
    Values out;
    for (size_t i = 0; i < d.values.size(); ++i) out.push_back(d.nulls[i] ? null : d.values[i]);
    return out;
}

bool same(double got, double want) {
    return got == want || (std::isnan(got) && std::isnan(want)) || std::abs(got - want) <= 1e-9 * std::abs(want);
}

void expect_same(const Values &got, const Values &want, const std::string &what) {
    ASSERT_EQ(got.size(), want.size()) << what;
    for (size_t i = 0; i < want.size(); ++i)
        ASSERT_TRUE(same(got[i], want[i])) << what << ", element " << i << ": " << got[i] << ", expected " << want[i];
}

}  // namespace

template <class Tag>
class SeriesAggregates : public ::testing::Test {};
TYPED_TEST_SUITE(SeriesAggregates, NumericTypes);

TYPED_TEST(SeriesAggregates, EveryMemberAgainstTheModel) {
    for (const Row &row : rows<TypeParam>()) {
        const Values x = input<TypeParam>(row.nulls);
        for (uint64_t param : row.params) {
            const Values want = row.model(x, param);
            for (const std::vector<unsigned> &tiles : {std::vector<unsigned>{128}, {3, 128, 1, 60}, {100, 7}}) {
                const std::string what = row.name + " of " + std::to_string(param) + ", tiles of " +
                                         std::to_string(tiles[0]);
                SeriesSource<TypeParam> src(x, tiles);
                Iter agg;
                ASSERT_EQ(row.make(&agg, &src.it, param), 0) << what;
                ASSERT_EQ(agg.elem_type, row.type) << what;
                EXPECT_TRUE(agg.prepare == nullptr && agg.merge == nullptr && src.it.bound == 1) << what;
                expect_same(drained(&agg), want, what);
                // Reset after the end and in mid-pass: each starts the same pass again.
                ASSERT_EQ(agg.reset(&agg) | agg.next(&agg) | agg.reset(&agg), 0) << what;
                expect_same(drained(&agg), want, what + ", reset");
            }
        }
    }
}

// ---- the quirks, one row each -----------------------------------------------------------

namespace {

// make over the values in tiles of two.
template <class Tag>
Values series(std::function<int(Iter *, Iter *)> make, const Values &x) {
    SeriesSource<Tag> src(x, {2});
    Iter agg;
    EXPECT_EQ(make(&agg, &src.it), 0);
    return drained(&agg);
}
constexpr auto i4 = series<t_int4>;
constexpr auto f8 = series<t_double>;

template <auto F>
auto with(uint64_t param) {
    return [param](Iter *r, Iter *x) { return F(r, x, param); };
}

}  // namespace

TEST(SeriesAggregateQuirks, OneRowEach) {
    const double two63 = 9223372036854775808.0;
    for (const auto &[what, got, want] : std::vector<std::tuple<const char *, Values, Values>>{
             {"window sum: zeros stand in", i4(with<qmo_seq_window_agg_sum_int4>(3), {1, 2, 3}), {1, 3, 6}},
             {"window avg: N from the start", i4(with<qmo_seq_window_agg_avg_int4>(3), {1, 2, 3}), {1.0 / 3, 1, 2}},
             {"window max: zeros count", i4(with<qmo_seq_window_agg_max_int4>(3), {-5, -6, -7, -8}), {0, 0, -5, -6}},
             {"window var: N from the start", f8(with<qmo_seq_window_agg_var_double>(2), {2, 4}), {1, 1}},
             {"window var_samp: N - 1 = 0", f8(with<qmo_seq_window_agg_var_samp_double>(1), {0, 2}), {null, -INFINITY}},
             {"window ema: a = 2 / (N + 1)", i4(with<qmo_seq_window_agg_ema_int4>(3), {4, 8, 0}), {4, 6, 3}},
             {"window atr: period grows to N", i4(with<qmo_seq_window_agg_atr_int4>(2), {4, 8, 2}), {4, 6, 4}},
             {"window sum: wraps in 64 bits", series<t_uint8>(with<qmo_seq_window_agg_sum_uint8>(3), {two63, two63}),
              {two63, 0}},
             {"window avg: a double sum", series<t_uint8>(with<qmo_seq_window_agg_avg_uint8>(2), {two63, two63}),
              {two63 / 2, two63}},
             {"window avg: a double sum, signed", series<t_int8>(with<qmo_seq_window_agg_avg_int8>(2), {-two63, -two63}),
              {-two63 / 2, -two63}},
             {"cum sum: carried over a null", i4(qmo_seq_cum_agg_sum_int4, {1, null, 2}), {1, 1, 3}},
             {"cum sum: null before a value", i4(qmo_seq_cum_agg_sum_int4, {null, 1}), {null, 1}},
             {"cum prd: wraps in 64 bits", i4(qmo_seq_cum_agg_prd_int4, {65536, 65536, 65536, 65536}),
              {65536, 65536.0 * 65536, 65536.0 * 65536 * 65536, 0}},
             {"cum avg: weighted by position", i4(qmo_seq_cum_agg_avg_int4, {1, 2}), {1, 4.0 / 3}},
             {"cum avg: nulls count in it", i4(qmo_seq_cum_agg_avg_int4, {null, 3, 6}), {null, 3, 3.75}},
             {"cum var: d = k + 1, integer quotient", i4(qmo_seq_cum_agg_var_int4, {2, 4, 9}), {0, 2, 11}},
             {"cum var_samp: d - 1", i4(qmo_seq_cum_agg_var_samp_int4, {2, 4, 9}), {0, 1, 8}},
             {"cum dev: truncated", i4(qmo_seq_cum_agg_dev_int4, {1, 2, 3}), {0, 0, 1}},
             {"cum var: a null gives the sum", i4(qmo_seq_cum_agg_var_int4, {5, null, 7}), {0, 5, 9}},
             {"cum var: int1 squares wrap", series<t_int1>(qmo_seq_cum_agg_var_int1, {12, 12}), {0, -138}},
             {"grid: short last interval", i4(with<qmo_seq_grid_agg_sum_int4>(3), {1, 2, 3, 4, 5, 6, 7}), {6, 15, 7}},
             {"grid: nulls give null", i4(with<qmo_seq_grid_agg_avg_int4>(2), {1, 2, null, null, 5}), {1.5, null, 5}},
             {"grid var_samp: n - 1 twice", i4(with<qmo_seq_grid_agg_var_samp_int4>(2), {3, null, 1, 5}), {0, -10}},
             {"grid avg: datetime", series<t_datetime>(with<qmo_seq_grid_agg_avg_datetime>(2), {3, 4}), {3}},
         })
        expect_same(got, want, what);
}

// ---- protocol --------------------------------------------------------------------------

TEST(SeriesAggregateProtocol, TypeThenBindingThenTheWindowLimit) {
    BindingChecks on(1);
    Source<t_int4> i4({1});
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_grid_agg_sum_double(o, &i4.it, 3); }, {&i4.it});
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_window_agg_ema_int8(o, &i4.it, 3); }, {&i4.it});
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_cum_agg_sum_uint4(o, &i4.it); }, {&i4.it});
    expect_refused(QMO_SEQ_INVALID_ARGUMENT, [&](Iter *o) { return qmo_seq_grid_agg_avg_int4(o, &i4.it, 0); },
                   {&i4.it});
    // A window of 0 or one the ring cannot hold is refused after the input was bound.
    for (auto [make, type, largest] : std::vector<std::tuple<WithParam, int, uint64_t>>{
             {qmo_seq_window_agg_sum_int4, QMO_SEQ_TYPE_INT4, 52},
             {qmo_seq_window_agg_max_double, QMO_SEQ_TYPE_DOUBLE, 26},
             {qmo_seq_window_agg_atr_uint1, QMO_SEQ_TYPE_UINT1, 208}}) {
        Script in(type, 1);
        for (uint64_t n : {uint64_t{0}, largest + 1}) {
            in.it.bound = 0;
            expect_refused(QMO_SEQ_INVALID_ARGUMENT, [&](Iter *o) { return make(o, &in.it, n); }, {&in.it}, true);
        }
        Iter out;
        in.it.bound = 0;
        EXPECT_EQ(make(&out, &in.it, largest), 0) << largest;
    }
    i4.it.bound = 1;
    expect_refused(QMO_SEQ_ALREADY_BOUND, [&](Iter *o) { return qmo_seq_grid_agg_sum_int4(o, &i4.it, 3); }, {});
    expect_refused(QMO_SEQ_ALREADY_BOUND, [&](Iter *o) { return qmo_seq_window_agg_sum_int4(o, &i4.it, 60); }, {});
    expect_refused(QMO_SEQ_ALREADY_BOUND, [&](Iter *o) { return qmo_seq_cum_agg_sum_int4(o, &i4.it); }, {});
}

// Windows have their own reset, and their position counts input elements;
// grids reset as aggregates and count outputs; cumulative positions start at 1.
TEST(SeriesAggregateProtocol, ResetsAndPositions) {
    Source<t_int4> a({1, 2, 3}), b({1, 2, 3}), c({1, 2, 3});
    Iter w, g, k;
    ASSERT_EQ(qmo_seq_window_agg_sum_int4(&w, &a.it, 2) | qmo_seq_grid_agg_sum_int4(&g, &b.it, 2), 0);
    ASSERT_EQ(qmo_seq_cum_agg_sum_int4(&k, &c.it), 0);
    EXPECT_TRUE(w.reset == qmo_seq_window_agg_sum_int4_reset && g.reset == qmo_seq_reset_unary_agg_iterator &&
                k.reset == qmo_seq_reset_unary_iterator);
    drained(&w), drained(&g), drained(&k);
    EXPECT_EQ(std::vector<uint64_t>({w.pos, g.pos, k.pos}), (std::vector<uint64_t>{3, 2, 4}));
}

// A null in a window's input (here in the tile's second bitmap word): 703,
// and the tile is passed over as if it never came.
TEST(SeriesAggregateProtocol, WindowRefusesATileWithANull) {
    Source<t_int4> in(iota_column(300), {170}, {100});
    Iter w;
    ASSERT_EQ(qmo_seq_window_agg_sum_int4(&w, &in.it, 2), 0);
    ASSERT_EQ(w.next(&w), 0);
    EXPECT_EQ(w.next(&w), QMO_SEQ_NULL_VALUE);
    EXPECT_EQ(drained(&w)[0], 99 + 200) << "0..99, then 200..299";
    EXPECT_EQ(w.pos, 200u);
}

// Errors pass through; a grid keeps its open interval over one, a reset
// drops it; an empty operand ends every family at once.
TEST(SeriesAggregateProtocol, ErrorsPassThroughAndTheGridKeepsItsOpenInterval) {
    Source<t_int4> in({1, 2, 3, 4, 5}, {}, {2});
    Iter g;
    ASSERT_EQ(qmo_seq_grid_agg_sum_int4(&g, &in.it, 4), 0);
    for (bool reset : {false, true}) {
        in.fail_with = 4242, in.fail_from = in.pulls + 2;
        EXPECT_EQ(g.next(&g), 4242);
        in.fail_with = 0;
        EXPECT_EQ(reset ? g.reset(&g) : 0, 0);
        EXPECT_EQ(drained(&g), (Values{10, 5})) << "1 2, error, then 3 4 | 5";
        ASSERT_EQ(g.reset(&g), 0);
    }
    Source<t_double> broken({1.0}), empty(std::vector<double>{}), none(std::vector<double>{});
    broken.fail_with = 4242;
    Iter w, k, e;
    ASSERT_EQ(qmo_seq_window_agg_ema_double(&w, &broken.it, 3) | qmo_seq_cum_agg_avg_double(&k, &empty.it), 0);
    ASSERT_EQ(qmo_seq_grid_agg_max_double(&e, &none.it, 3), 0);
    EXPECT_EQ(std::vector<int>({w.next(&w), k.next(&k), e.next(&e)}), (std::vector<int>{4242, 11, 11}));
}
