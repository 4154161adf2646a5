// Stretch over every (time-stamp, value) type pair: hand rows and random axes
// against a model of the advance rule, then construction, statuses and reset.
#include "support.hpp"

#include <random>

using namespace test;

namespace {

template <class P>
class Stretch : public ::testing::Test {};
TYPED_TEST_SUITE(Stretch, StretchTypes);

template <class P, class S = V<typename P::ts>, class T = V<typename P::tag>>
struct Case {
    std::vector<S> target, stamps;
    std::vector<T> values;
    std::vector<size_t> nulls{};  // of the values
    std::vector<unsigned> target_tiles{128}, source_tiles{128};
    T filler = T(99);

    // The rule itself: the boundary starts at 0, and a target at or past it
    // takes the next source element, whose stamp becomes the boundary.
    Drained<T> model() const {
        Drained<T> e;
        S boundary = 0;
        size_t k = 0;
        for (S t : target) {
            if (k <= stamps.size() && t >= boundary) ++k, boundary = k <= stamps.size() ? stamps[k - 1] : 0;
            const bool ended = k > stamps.size();
            e.values.push_back(ended ? filler : values[k - 1]);
            e.nulls.push_back(!ended && std::count(nulls.begin(), nulls.end(), k - 1));
        }
        return e;
    }

    // One tile pulled and reset away first, then a drain and its replay must match the model.
    void check() const {
        Source<typename P::ts> t(target, {}, target_tiles), s(stamps, {}, source_tiles);
        Source<typename P::tag> v(values, nulls, source_tiles);
        Iter out;
        ASSERT_EQ((fn::stretch<typename P::ts, typename P::tag>(&out, &t.it, &s.it, &v.it, filler)), 0);
        expect_rewound_pass<T>(&out, model());
    }
};

}  // namespace

TYPED_TEST(Stretch, TheRuleAndItsDeliberateConsequences) {
    using S = V<typename TypeParam::ts>;
    using T = V<typename TypeParam::tag>;
    using C = Case<TypeParam>;
    auto s = [](std::initializer_list<int> v) { return std::vector<S>(v.begin(), v.end()); };
    const std::vector<T> v{10, 20, 30};
    // The rule as worked by hand: 10 (first target), 20 (T = 2), 20, filler from T = 4.
    C example{s({1, 2, 3, 4, 5, 6}), s({2, 4}), {10, 20}, {}, {128}, {128}, T(0)};
    EXPECT_EQ(example.model().values, (std::vector<T>{10, 20, 20, 0, 0, 0}));
    example.check();
    for (const C &c : {
             C{s({0, 0, 1}), s({50, 60, 70}), v},             // the first target takes element 0 whatever the stamps
             C{s({0, 3, 3, 7}), s({3, 7, 9}), v},             // a target equal to stamp k moves on to value k + 1
             C{s({1, 100, 101, 102, 103}), s({2, 3, 4}), v},  // a coarser target: the source lags
             C{s({1, 2, 3, 4, 5}), s({1, 4, 6}), v, {1}},     // a null value stays null while held
             C{s({1, 5, 9}), s({1}), {10}, {0}},              // after the end the filler, not null
             C{s({1, 2}), {}, {}},                            // empty source: the filler throughout
             C{{}, s({1}), {10}},                             // empty target: 11 at once
         })
        c.check();
}

// Finer, equal, coarser and mixed axes (repeated stamps), in tiles that
// straddle the bitmap words, some source tiles empty; nothing is allocated.
TYPED_TEST(Stretch, MatchesTheModelOnRandomAxes) {
    using S = V<typename TypeParam::ts>;
    std::mt19937_64 rng(20);
    auto axis = [&](size_t n, unsigned min_gap, unsigned max_gap) {
        std::vector<S> a(n);
        uint64_t t = rng() % 50;
        for (auto &x : a) x = static_cast<S>(t += min_gap + rng() % (max_gap - min_gap + 1));
        return a;
    };
    auto tiles = [&](bool with_empty) {
        static const unsigned kLengths[] = {1, 7, 63, 64, 65, 127, 128, 128};
        std::vector<unsigned> v(8);
        for (auto &x : v) x = kLengths[rng() % std::size(kLengths)];
        if (with_empty) v[rng() % 8] = 0;
        return v;
    };
    Hooks refuse_all(1);
    for (int round = 0; round < 48; ++round) {
        const int kind = round % 4;
        Case<TypeParam> c;
        c.stamps = axis(rng() % 300, kind == 3 ? 0 : 4, 12);
        const size_t nt = kind == 0 ? rng() % 1200 : rng() % 400;
        c.target = kind == 1 ? c.stamps : axis(nt, kind == 2 ? 10 : 0, kind == 0 ? 3 : kind == 2 ? 40 : 20);
        for (size_t i = 0; i < c.stamps.size(); ++i) {
            c.values.push_back(V<typename TypeParam::tag>(1 + rng() % 90));
            if (rng() % 7 == 0) c.nulls.push_back(i);
        }
        c.target_tiles = tiles(false), c.source_tiles = tiles(round % 3 == 0);
        SCOPED_TRACE(testing::Message() << "round " << round);
        c.check();
    }
    EXPECT_EQ(Hooks::calls, 0);
}

TYPED_TEST(Stretch, ConstructionChecksTypesThenBindings) {
    using Ts = typename TypeParam::ts;
    using Tag = typename TypeParam::tag;
    // Neighbours of the same C type included: uint8 and datetime differ only in their code.
    Source<std::conditional_t<std::is_same_v<Ts, t_uint8>, t_datetime, t_uint8>> wrong_ts({1});
    Source<std::conditional_t<std::is_same_v<Tag, t_uint8>, t_datetime, t_uint8>> wrong_v({1});
    Source<Ts> t({1}), s({1});
    Source<Tag> v({1});
    struct Row {
        int status;
        Iter *target, *stamps, *values, *bound;
    } rows[] = {
        {QMO_SEQ_TYPE_MISMATCH, &t.it, &wrong_ts.it, &v.it, &t.it},  // types are checked before bindings
        {QMO_SEQ_TYPE_MISMATCH, &wrong_ts.it, &s.it, &v.it, &s.it},
        {QMO_SEQ_TYPE_MISMATCH, &t.it, &s.it, &wrong_v.it, &t.it},
        {QMO_SEQ_ALREADY_BOUND, &t.it, &s.it, &v.it, &t.it},
        {QMO_SEQ_ALREADY_BOUND, &t.it, &s.it, &v.it, &s.it},
        {QMO_SEQ_ALREADY_BOUND, &t.it, &s.it, &v.it, &v.it},
    };
    BindingChecks on(1);
    for (const Row &r : rows) {
        t.it.bound = s.it.bound = v.it.bound = 0;
        if (r.bound) r.bound->bound = 1;
        expect_refused(r.status, [&](Iter *o) { return fn::stretch<Ts, Tag>(o, r.target, r.stamps, r.values, 0); },
                       {r.target, r.stamps, r.values});
    }
    BindingChecks off(0);
    Iter r;
    ASSERT_EQ((fn::stretch<Ts, Tag>(&r, &t.it, &s.it, &v.it, 0)), 0);
    EXPECT_TRUE(t.it.bound && s.it.bound && v.it.bound && !r.bound);
    EXPECT_EQ(r.elem_type, Tag::code_);
}

// 300 targets over 300 stamps, both 0..299: the source's second tile is
// pulled inside the target's second tile, nulls sit in its second bitmap word.
TYPED_TEST(Stretch, Faults) {
    using T = V<typename TypeParam::tag>;
    std::vector<V<typename TypeParam::ts>> ticks(300);
    for (size_t i = 0; i < ticks.size(); ++i) ticks[i] = V<typename TypeParam::ts>(i);
    struct Row {
        const char *name;
        int operand, null_at, fail_with, status;  // operand 0 target, 1 stamps, 2 values
    } rows[] = {
        {"null target stamp", 0, 200, 0, QMO_SEQ_NULL_VALUE},
        {"null source stamp", 1, 210, 0, QMO_SEQ_NULL_VALUE},
        {"target status passed on", 0, -1, QMO_SEQ_INVALID_ARGUMENT, QMO_SEQ_INVALID_ARGUMENT},
        {"stamps status passed on", 1, -1, QMO_SEQ_INVALID_ARGUMENT, QMO_SEQ_INVALID_ARGUMENT},
        {"values failure: 702, not its status", 2, -1, QMO_SEQ_INVALID_ARGUMENT, QMO_SEQ_LENGTH_MISMATCH},
        {"values ending before the stamps: 702", 2, -1, QMO_SEQ_END, QMO_SEQ_LENGTH_MISMATCH},
        {"values tiles of another length: 702", 2, -1, -1, QMO_SEQ_LENGTH_MISMATCH},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Source<typename TypeParam::ts> t(ticks), s(ticks);
        Source<typename TypeParam::tag> v(std::vector<T>(300, T(5)));
        Script *o[] = {&t, &s, &v};
        if (row.null_at >= 0) o[row.operand]->nulls[row.null_at] = true;
        if (row.fail_with > 0) o[row.operand]->fail_with = row.fail_with, o[row.operand]->fail_from = 2;
        if (row.fail_with < 0) v.tiles = {100};
        Iter out;
        ASSERT_EQ((fn::stretch<typename TypeParam::ts, typename TypeParam::tag>(&out, &t.it, &s.it, &v.it, T(0))), 0);
        const Drained<T> d = drain<T>(&out);
        EXPECT_EQ(d.status, row.status);
        EXPECT_EQ(d.tiles.size(), row.fail_with < 0 ? 0u : 1u);
    }
}

TYPED_TEST(Stretch, ResetRewindsTheValuesFirstAndStopsAtTheirFailure) {
    Source<typename TypeParam::ts> t({1, 2}), s({1});
    Source<typename TypeParam::tag> v({3});
    Iter out;
    ASSERT_EQ((fn::stretch<typename TypeParam::ts, typename TypeParam::tag>(&out, &t.it, &s.it, &v.it, 0)), 0);
    v.it.reset = [](Iter *) -> int { return QMO_SEQ_INVALID_ARGUMENT; };
    EXPECT_EQ(out.reset(&out), QMO_SEQ_INVALID_ARGUMENT);
    EXPECT_EQ(t.resets + s.resets, 0);
}
