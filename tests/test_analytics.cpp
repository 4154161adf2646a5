// Series analytics: every operator against a plain model over a random walk
// with plateaus and zero runs, cut into odd tiles and replayed after a reset;
// the deliberate quirks as named rows; the statuses.
#include "support.hpp"

#include <functional>
#include <random>

using namespace test;

namespace {

using Make = std::function<int(Iter *, Iter *)>;

// Steps of -1, 0 or 1 within [-3, 3], so plateaus and zero runs; unsigned
// types see it shifted to [0, 6].
template <class Tag>
constexpr int kLow = is_signed_v<Tag> || is_float_v<Tag> ? -3 : 0;

template <class Tag>
std::vector<V<Tag>> walk(size_t n) {
    std::mt19937 rng(17);
    std::vector<V<Tag>> v;
    for (int x = 0; v.size() < n;) {
        x = std::clamp(x + static_cast<int>(rng() % 3) - 1, -3, 3);
        v.push_back(static_cast<V<Tag>>(x + 3 + kLow<Tag>));
    }
    return v;
}

// Sign changes (cross) or turns (extrema) as positions; a kind filters
// only the first 128, deliberately.
template <class T>
std::vector<double> model_positions(const std::vector<T> &v, int kind, bool cross) {
    std::vector<double> out;
    int last = 0;  // sign or direction
    for (size_t i = !cross, run = 0; i < v.size(); ++i) {
        const T base = cross ? T(0) : v[i - 1];
        const int s = (v[i] > base) - (base > v[i]);
        if (s == last || (s == 0 && !cross)) continue;
        if (s == 0) {
            ++run;
            continue;
        }
        if (last != 0 && (kind == 0 || (cross ? s : last) == kind || out.size() >= 128))
            out.push_back(double(cross ? i - run : i - 1));
        run = 0, last = s;
    }
    return out;
}

struct Case {
    std::string name;
    Make make;
    std::vector<double> expected;
};

template <class Tag>
std::vector<Case> cases(const std::vector<V<Tag>> &v) {
    using T = V<Tag>;
    std::vector<double> diff, trend, norm, hist(7);
    double sum = 0;
    for (T x : v) sum += double(x) * double(x);
    for (size_t i = 0, t = 0; i < v.size(); ++i) {
        const T prev = v[i ? i - 1 : 0];
        diff.push_back(double(static_cast<T>(v[i] - prev)));
        if (v[i] != prev) t = v[i] > prev ? 1 : 2;
        trend.push_back(t == 2 ? -1 : double(t));
        norm.push_back(double(v[i]) / std::sqrt(sum));
        ++hist[size_t(double(v[i]) - kLow<Tag>) * 7 / 9];
    }
    const T low = T(kLow<Tag>);
    std::vector<Case> out = {
        {"diff", fn::diff<Tag>, diff},
        {"trend", fn::trend<Tag>, trend},
        {"norm", fn::norm<Tag>, norm},
        {"histogram", [low](Iter *r, Iter *in) { return fn::histogram<Tag>(r, in, low, T(low + 9), 7); }, hist},
    };
    for (int kind : {0, 1, -1}) {
        out.push_back({"extrema " + std::to_string(kind), [kind](Iter *r, Iter *in) { return fn::extrema<Tag>(r, in, kind); },
                       model_positions(v, kind, false)});
        if (!std::is_unsigned_v<T> || std::is_same_v<Tag, t_datetime>)
            out.push_back({"cross " + std::to_string(kind), [kind](Iter *r, Iter *in) { return fn::cross<Tag>(r, in, kind); },
                           model_positions(v, kind, true)});
    }
    return out;
}

// Every element of every tile until a non-zero status, which is returned too.
std::pair<std::vector<double>, int> pull_all(Iter *it) {
    std::vector<double> got;
    int rc;
    while ((rc = it->next(it)) == 0)
        for (unsigned i = 0; i < it->tile_count; ++i) got.push_back(element(it, i));
    return {got, rc};
}

void expect_near(const std::vector<double> &got, const std::vector<double> &want) {
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) ASSERT_NEAR(got[i], want[i], 1e-12 * std::fabs(want[i])) << "at " << i;
}

// A source of the given values (nulls at null_at) run through make.
template <class Tag>
std::pair<std::vector<double>, int> run_over(const Make &make, std::vector<V<Tag>> v, std::vector<size_t> null_at = {}) {
    Source<Tag> in(v, null_at);
    Iter out;
    EXPECT_EQ(make(&out, &in.it), 0);
    return pull_all(&out);
}

}  // namespace

template <class Tag>
class Analytics : public ::testing::Test {};
TYPED_TEST_SUITE(Analytics, NumericTypes);

TYPED_TEST(Analytics, MatchModelAcrossTilesAndAfterReset) {
    const auto v = walk<TypeParam>(5000);
    // Filtered, still more than one tile: where the kind stops filtering shows.
    ASSERT_GT(model_positions(v, 1, false).size(), 128u);
    ASSERT_TRUE(std::is_unsigned_v<V<TypeParam>> || model_positions(v, 1, true).size() > 128);
    for (const Case &c : cases<TypeParam>(v)) {
        for (const std::vector<unsigned> &tiles : {std::vector<unsigned>{128}, {5, 128, 1, 77, 127}}) {
            SCOPED_TRACE(c.name + (tiles.size() > 1 ? ", odd tiles" : ""));
            Source<TypeParam> in(v, {}, tiles);
            Iter out;
            ASSERT_EQ(c.make(&out, &in.it), 0);
            for (int pass = 0; pass < 2; ++pass) {
                const auto [got, rc] = pull_all(&out);
                EXPECT_EQ(rc, QMO_SEQ_END);
                expect_near(got, c.expected);
                ASSERT_EQ(out.reset(&out), 0);
            }
        }
    }
}

TYPED_TEST(Analytics, Statuses) {
    using T = V<TypeParam>;
    const bool cross_ok = !std::is_unsigned_v<T> || std::is_same_v<TypeParam, t_datetime>;
    Source<TypeParam> in(std::vector<T>{1, 2}), bound(std::vector<T>{1, 2});
    Source<t_int1> other(std::vector<int8_t>{1});
    Source<t_int2> other2(std::vector<int16_t>{1});
    Iter *wrong = TypeParam::code_ == QMO_SEQ_TYPE_INT1 ? &other2.it : &other.it;
    bound.it.bound = 1;
    const BindingChecks on(1);
    for (const Case &c : cases<TypeParam>({1, 2})) {
        SCOPED_TRACE(c.name);
        const bool positions = c.name.rfind("cross", 0) == 0 || c.name.rfind("extrema", 0) == 0;
        expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *r) { return c.make(r, wrong); }, {wrong});
        expect_refused(QMO_SEQ_ALREADY_BOUND, [&](Iter *r) { return c.make(r, &bound.it); }, {&bound.it});
        // Nulls refused where a value is needed: in a later tile, dropping what was gathered.
        const auto nulls = run_over<TypeParam>(c.make, walk<TypeParam>(200), {130});
        const bool skips = c.name == "norm" || c.name == "histogram";
        EXPECT_EQ(nulls.second, skips ? QMO_SEQ_END : QMO_SEQ_NULL_VALUE);
        if (!skips) {
            EXPECT_EQ(nulls.first.size(), positions ? 0u : 128u);
        }
    }
    if (!cross_ok) {
        expect_refused(QMO_SEQ_UNSUPPORTED, [&](Iter *r) { return fn::cross<TypeParam>(r, wrong, 0); }, {wrong});
    }
    // Histogram arguments: after the type check, before the binding check.
    for (auto [low, high, bins] : {std::tuple{T(0), T(10), 0}, {T(0), T(10), 129}, {T(5), T(5), 1}, {T(6), T(5), 1}}) {
        expect_refused(QMO_SEQ_INVALID_ARGUMENT, [&](Iter *r) { return fn::histogram<TypeParam>(r, &bound.it, low, high, bins); }, {&bound.it});
        expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *r) { return fn::histogram<TypeParam>(r, wrong, low, high, bins); }, {wrong});
    }
    // A value outside [low, high) stops the count with nothing delivered.
    const auto hist = [](Iter *r, Iter *x) { return fn::histogram<TypeParam>(r, x, 0, 10, 5); };
    EXPECT_EQ(run_over<TypeParam>(hist, {0, 1, 9, 10}), (std::pair<std::vector<double>, int>{{}, QMO_SEQ_INVALID_ARGUMENT}));
    EXPECT_EQ(run_over<TypeParam>(hist, {0, 1, 9}).first, (std::vector<double>{2, 0, 0, 0, 1}));
    if constexpr (is_float_v<TypeParam>) {
        EXPECT_EQ(run_over<TypeParam>(hist, {1, T(NAN)}).second, QMO_SEQ_INVALID_ARGUMENT);
    }
}

// ---- the quirks, one row each -----------------------------------------------------

TEST(AnalyticsQuirks, EdgeRows) {
    const auto ext = [](int kind) { return [kind](Iter *r, Iter *x) { return qmo_seq_extrema_int4(r, x, kind); }; };
    const auto crs = [](int kind) { return [kind](Iter *r, Iter *x) { return qmo_seq_cross_int4(r, x, kind); }; };
    using Row = std::tuple<const char *, Make, std::vector<int32_t>, std::vector<double>>;
    for (const auto &[name, make, in, want] : std::vector<Row>{
             {"diff starts at 0", qmo_seq_diff_int4, {5, 7, 4}, {0, 2, -3}},
             {"diff wraps", qmo_seq_diff_int4, {INT32_MIN, INT32_MAX}, {0, -1}},
             {"trend repeats on a flat", qmo_seq_trend_int4, {5, 5, 7, 7, 4}, {0, 0, 1, 1, -1}},
             {"cross where zeros began", crs(0), {1, 0, 0, -2}, {1}},
             {"cross both ways", crs(0), {1, -1, 1}, {1, 2}},
             {"cross upward", crs(1), {1, -1, 1}, {2}},
             {"cross keeps a zero run after returning to its sign", crs(0), {1, 0, 1, -1}, {2}},
             {"extrema at the plateau's last element", ext(0), {1, 3, 3, 2, 4}, {2, 3}},
             {"extrema maxima", ext(1), {1, 3, 3, 2, 4}, {2}},
             {"norm", qmo_seq_norm_int4, {3, 4}, {0.6, 0.8}},
         }) {
        EXPECT_EQ(run_over<t_int4>(make, in).first, want) << name;
    }
}

// With a kind, only the first tile is filtered: upward crossings at 2, 4,
// ..., 256, then every crossing; minima at 1, 3, ..., 255, then every turn.
TEST(AnalyticsQuirks, KindFiltersTheFirstTileOnly) {
    std::vector<int32_t> zigzag(600);
    for (size_t i = 0; i < zigzag.size(); ++i) zigzag[i] = i % 2 ? -1 : 1;
    const auto up = run_over<t_int4>([](Iter *r, Iter *x) { return qmo_seq_cross_int4(r, x, 1); }, zigzag).first;
    const auto minima = run_over<t_int4>([](Iter *r, Iter *x) { return qmo_seq_extrema_int4(r, x, -1); }, zigzag).first;
    ASSERT_EQ(up.size(), 128u + 599 - 256);
    ASSERT_EQ(minima.size(), 128u + 598 - 255);
    for (size_t i = 0; i < up.size(); ++i) ASSERT_EQ(up[i], i < 128 ? 2.0 * (i + 1) : double(i + 129)) << i;
    for (size_t i = 0; i < minima.size(); ++i) ASSERT_EQ(minima[i], i < 128 ? 2.0 * i + 1 : double(i + 128)) << i;
}

// The first pass skips by the record's own bitmap: clear at first, then the
// last tile delivered. Nulls keep their place in the results.
TEST(AnalyticsQuirks, NormSkipsByItsOwnBitmap) {
    Source<t_int4> in(std::vector<int32_t>{3, 4}, {1});
    Iter norm;
    ASSERT_EQ(qmo_seq_norm_int4(&norm, &in.it), 0);
    EXPECT_EQ(pull_all(&norm).first, (std::vector<double>{0.6, 0.8}));
    EXPECT_EQ(norm.null_bitmap[0], 2u);
    ASSERT_EQ(norm.reset(&norm), 0);
    EXPECT_EQ(pull_all(&norm).first, (std::vector<double>{1, 4.0 / 3}));
}

// Operand errors: the histogram still delivers its counts, with the error;
// cross and extrema deliver what they gathered only when the operand ends.
TEST(AnalyticsQuirks, OperandErrors) {
    Source<t_int4> h(iota_column(200)), c(std::vector<int32_t>{1, -1, 1, -1}, {}, {2});
    h.fail_with = c.fail_with = 52;
    h.fail_from = c.fail_from = 2;
    Iter hist, cross;
    ASSERT_EQ(qmo_seq_histogram_int4(&hist, &h.it, 0, 200, 2) | qmo_seq_cross_int4(&cross, &c.it, 0), 0);
    EXPECT_EQ(hist.last_pos, 1u);
    EXPECT_EQ(hist.next(&hist), 52);
    EXPECT_EQ(hist.tile_count, 2);
    EXPECT_EQ(std::vector<uint64_t>(hist.values.u8, hist.values.u8 + 2), (std::vector<uint64_t>{100, 28}));
    EXPECT_EQ(hist.next(&hist), QMO_SEQ_END);
    EXPECT_EQ(cross.next(&cross), 52);
    EXPECT_EQ(cross.tile_count, 0);
}

// Ranges as wide as the type: 32-bit differences, and 8-byte products with
// bins past 64 bits. Bins 0, 63, 64 and 127 of 128.
TEST(AnalyticsQuirks, HistogramOverTheWholeRange) {
    std::vector<double> want(128);
    want[0] = want[63] = want[64] = want[127] = 1;
    const auto h4 = [](Iter *r, Iter *x) { return qmo_seq_histogram_int4(r, x, INT32_MIN, INT32_MAX, 128); };
    const auto h8 = [](Iter *r, Iter *x) { return qmo_seq_histogram_int8(r, x, INT64_MIN, INT64_MAX, 128); };
    EXPECT_EQ(run_over<t_int4>(h4, {INT32_MIN, -1, 0, INT32_MAX - 1}).first, want);
    EXPECT_EQ(run_over<t_int8>(h8, {INT64_MIN, -1, 0, INT64_MAX - 1}).first, want);
}
