// Stretch over every (time-stamp, value) type pair: a model that applies the
// advance rule to plain arrays, the rule's deliberate consequences as named
// rows, random axes (finer, equal, coarser, with repeats) in odd tiles, and
// the statuses of construction, pulling and reset.
#include "support.hpp"

#include <random>

using namespace test;

namespace {

template <class P>
class Stretch : public ::testing::Test {};
TYPED_TEST_SUITE(Stretch, StretchTypes);

template <class T>
struct Expected {
    std::vector<T> values;
    std::vector<bool> nulls;
};

// The advance rule on plain arrays: the boundary starts at 0; a target at or
// past it moves the source on by one element, whose stamp becomes the boundary.
template <class S, class T>
Expected<T> model(const std::vector<S> &target, const std::vector<S> &stamps, const std::vector<T> &values,
                  const std::vector<size_t> &value_nulls, T filler) {
    std::vector<bool> null_at(values.size());
    for (size_t i : value_nulls) null_at[i] = true;
    Expected<T> e;
    S boundary = 0;
    size_t next = 0;
    bool ended = false, null = false;
    T current{};
    for (S t : target) {
        if (!ended && t >= boundary) {
            if (next == stamps.size()) {
                ended = true, current = filler, null = false;
            } else {
                boundary = stamps[next], current = values[next], null = null_at[next];
                ++next;
            }
        }
        e.values.push_back(current);
        e.nulls.push_back(null);
    }
    return e;
}

// The three operands of one stretch, as scripted sources.
template <class P>
struct Operands {
    using S = V<typename P::ts>;
    using T = V<typename P::tag>;
    std::vector<S> target_stamps, source_stamps;
    std::vector<T> source_values;
    std::vector<size_t> value_nulls;
    Source<typename P::ts> target, stamps;
    Source<typename P::tag> values;
    Iter out{};

    Operands(const std::vector<S> &t, const std::vector<S> &s, const std::vector<T> &v,
             const std::vector<size_t> &nulls = {}, std::vector<unsigned> target_tiles = {128},
             std::vector<unsigned> source_tiles = {128})
        : target_stamps(t), source_stamps(s), source_values(v), value_nulls(nulls),
          target(t, {}, target_tiles), stamps(s, {}, source_tiles), values(v, nulls, source_tiles) {}

    int build(T filler = T(99)) {
        return fn::stretch<typename P::ts, typename P::tag>(&out, &target.it, &stamps.it, &values.it, filler);
    }
};

template <class S>
std::vector<S> stamps_of(std::initializer_list<int> v) {
    return std::vector<S>(v.begin(), v.end());
}

// Builds the stretch, drains it (twice, across a reset) and compares with the model.
template <class P>
void expect_model(Operands<P> &o, V<typename P::tag> filler) {
    using T = V<typename P::tag>;
    ASSERT_EQ(o.build(filler), 0);
    const Drained<T> d = drain_replayed<T>(&o.out);
    const Expected<T> e = model(o.target_stamps, o.source_stamps, o.source_values, o.value_nulls, filler);
    EXPECT_EQ(d.status, QMO_SEQ_END);
    ASSERT_EQ(d.values.size(), e.values.size());
    EXPECT_EQ(d.nulls, e.nulls);
    for (size_t i = 0; i < e.values.size(); ++i)
        if (!e.nulls[i]) {
            ASSERT_EQ(d.values[i], e.values[i]) << "element " << i;
        }
    EXPECT_EQ(o.out.pos, e.values.size());
}

}  // namespace

// ---- the rule on small axes ------------------------------------------------------------

struct RuleRow {
    const char *name;
    std::initializer_list<int> target, stamps, values;
    std::initializer_list<size_t> value_nulls;
    std::initializer_list<int> expected;  // -1: null
};

// Values 10, 20, ...; filler 99.
const RuleRow kRules[] = {
    {"finer target, source ends in the middle", {1, 2, 3, 4, 5, 6}, {2, 4}, {10, 20}, {}, {10, 20, 20, 99, 99, 99}},
    {"first target takes element 0 whatever the stamps", {1, 2}, {50, 60}, {10, 20}, {}, {10, 10}},
    {"first target at 0 still advances", {0, 0, 0}, {5, 9}, {10, 20}, {}, {10, 10, 10}},
    {"a target equal to stamp k moves on to value k + 1", {0, 3, 3, 7}, {3, 7, 9}, {10, 20, 30}, {}, {10, 20, 20, 30}},
    {"coarser target: the source lags one element per target", {1, 100, 101, 102, 103}, {2, 3, 4}, {10, 20, 30},
     {}, {10, 20, 30, 99, 99}},
    {"equal axes", {1, 2, 3}, {1, 2, 3}, {10, 20, 30}, {}, {10, 20, 30}},
    {"empty source: the filler from the first target", {1, 2, 3}, {}, {}, {}, {99, 99, 99}},
    {"filler, not null, after the end", {1, 5, 9}, {1}, {10}, {0}, {-1, 99, 99}},
    {"a null value is null for every target holding it", {1, 2, 3, 4, 5}, {1, 4, 6}, {10, 20, 30}, {1},
     {10, -1, -1, 30, 30}},
    {"the result ends with the target, not the source", {1}, {1, 2, 3}, {10, 20, 30}, {}, {10}},
};

TYPED_TEST(Stretch, AdvanceRule) {
    using S = V<typename TypeParam::ts>;
    using T = V<typename TypeParam::tag>;
    for (const RuleRow &r : kRules) {
        SCOPED_TRACE(r.name);
        Operands<TypeParam> o(stamps_of<S>(r.target), stamps_of<S>(r.stamps), std::vector<T>(r.values.begin(), r.values.end()),
                              r.value_nulls);
        ASSERT_EQ(o.build(T(99)), 0);
        const Drained<T> d = drain<T>(&o.out);
        EXPECT_EQ(d.status, QMO_SEQ_END);
        ASSERT_EQ(d.values.size(), r.expected.size());
        for (size_t i = 0; i < d.values.size(); ++i) {
            const int want = r.expected.begin()[i];
            EXPECT_EQ(d.nulls[i], want < 0) << "element " << i;
            if (want >= 0) {
                EXPECT_EQ(d.values[i], T(want)) << "element " << i;
            }
        }
    }
}

TYPED_TEST(Stretch, EmptyTargetEndsAtOnceWithoutPullingTheSource) {
    using S = V<typename TypeParam::ts>;
    using T = V<typename TypeParam::tag>;
    Operands<TypeParam> o({}, {S(1)}, {T(1)});
    ASSERT_EQ(o.build(), 0);
    EXPECT_EQ(o.out.next(&o.out), QMO_SEQ_END);
    EXPECT_EQ(o.stamps.pulls + o.values.pulls, 0);
}

// ---- random axes in odd tiles --------------------------------------------------------------

enum class Axis { finer, equal, coarser, mixed };

template <class S>
std::vector<S> axis(std::mt19937_64 &rng, size_t n, unsigned min_gap, unsigned max_gap) {
    std::vector<S> v(n);
    uint64_t t = rng() % 50;
    for (auto &x : v) x = static_cast<S>(t += min_gap + rng() % (max_gap - min_gap + 1));
    return v;
}

std::vector<unsigned> tiles(std::mt19937_64 &rng, bool allow_empty) {
    static const unsigned kLengths[] = {1, 2, 7, 63, 64, 65, 127, 128, 128, 128};
    std::vector<unsigned> v(8);
    for (auto &x : v) x = kLengths[rng() % std::size(kLengths)];
    if (allow_empty) v[rng() % v.size()] = 0;  // passed over, as any source may deliver one
    return v;
}

TYPED_TEST(Stretch, MatchesTheModelOnRandomAxes) {
    using S = V<typename TypeParam::ts>;
    using T = V<typename TypeParam::tag>;
    std::mt19937_64 rng(20);
    for (Axis kind : {Axis::finer, Axis::equal, Axis::coarser, Axis::mixed}) {
        for (int round = 0; round < 12; ++round) {
            SCOPED_TRACE(testing::Message() << "axis " << int(kind) << " round " << round);
            const size_t ns = rng() % 300, nt = kind == Axis::finer ? rng() % 1200 : rng() % 400;
            std::vector<S> stamps = axis<S>(rng, ns, kind == Axis::mixed ? 0 : 4, 12), target;
            switch (kind) {
                case Axis::finer: target = axis<S>(rng, nt, 0, 3); break;
                case Axis::equal: target = stamps; break;
                case Axis::coarser: target = axis<S>(rng, nt, 10, 40); break;
                case Axis::mixed: target = axis<S>(rng, nt, 0, 20); break;
            }
            std::vector<T> values(ns);
            std::vector<size_t> nulls;
            for (size_t i = 0; i < ns; ++i) {
                values[i] = T(1 + rng() % 90);
                if (rng() % 7 == 0) nulls.push_back(i);
            }
            Operands<TypeParam> o(target, stamps, values, nulls, tiles(rng, false), tiles(rng, round % 3 == 0));
            expect_model(o, T(round % 2 ? 99 : 0));
        }
    }
}

// Three tiles of 128 targets over 128 stamps: the source ends inside the
// second target tile, on a tile boundary of its own.
TYPED_TEST(Stretch, AcrossTileBoundaries) {
    using S = V<typename TypeParam::ts>;
    using T = V<typename TypeParam::tag>;
    for (size_t ns : {127, 128, 129, 256}) {
        std::vector<S> target(384), stamps(ns);
        std::vector<T> values(ns);
        for (size_t i = 0; i < target.size(); ++i) target[i] = S(i);
        for (size_t i = 0; i < ns; ++i) stamps[i] = S(i + 1), values[i] = T(i % 100);
        Operands<TypeParam> o(target, stamps, values, {0, 127});
        expect_model(o, T(7));
    }
}

// ---- statuses ---------------------------------------------------------------------------------

TYPED_TEST(Stretch, RefusesOperandsOfAnotherType) {
    using Ts = typename TypeParam::ts;
    using Tag = typename TypeParam::tag;
    using S = V<Ts>;
    using T = V<Tag>;
    auto make = fn::stretch<Ts, Tag>;
    // A stamp type that is not this member's, and a value type that is not.
    // Same-width neighbours included: uint8 and datetime share a C type, not a type code.
    using OtherTs = std::conditional_t<std::is_same_v<Ts, t_uint8>, t_datetime, t_uint8>;
    using OtherTag = std::conditional_t<std::is_same_v<Tag, t_uint8>, t_datetime,
                     std::conditional_t<std::is_same_v<Tag, t_datetime>, t_uint8,
                     std::conditional_t<std::is_same_v<Tag, t_int4>, t_int8, t_int4>>>;
    Source<Ts> target({S(1)}), stamps({S(1)});
    Source<Tag> values({T(1)});
    Source<OtherTs> wrong_stamps({V<OtherTs>(1)});
    Source<OtherTag> wrong_values({V<OtherTag>(1)});
    Source<t_int8> int8_stamps({1});
    BindingChecks on(1);
    target.it.bound = 1;  // type failures come before the binding check
    for (Iter *t : {&wrong_stamps.it, &int8_stamps.it}) {
        expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *r) { return make(r, t, &stamps.it, &values.it, T(0)); },
                       {t, &stamps.it, &values.it});
        expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *r) { return make(r, &target.it, t, &values.it, T(0)); },
                       {&target.it, t, &values.it});
    }
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *r) { return make(r, &target.it, &stamps.it, &wrong_values.it, T(0)); },
                   {&target.it, &stamps.it, &wrong_values.it});
}

TYPED_TEST(Stretch, BindingRule) {
    using S = V<typename TypeParam::ts>;
    using T = V<typename TypeParam::tag>;
    for (int which = 0; which < 3; ++which) {
        Operands<TypeParam> o({S(1)}, {S(1)}, {T(1)});
        Iter *operands[] = {&o.target.it, &o.stamps.it, &o.values.it};
        operands[which]->bound = 1;
        {
            BindingChecks on(1);
            expect_refused(QMO_SEQ_ALREADY_BOUND, [&](Iter *r) {
                return fn::stretch<typename TypeParam::ts, typename TypeParam::tag>(r, operands[0], operands[1], operands[2], T(0));
            }, {operands[0], operands[1], operands[2]});
        }
        BindingChecks off(0);
        ASSERT_EQ(o.build(), 0);
        for (Iter *x : operands) EXPECT_EQ(x->bound, 1);
        EXPECT_EQ(o.out.bound, 0);
        EXPECT_EQ(o.out.elem_type, TypeParam::tag::code_);
        EXPECT_EQ(o.out.elem_size, sizeof(T));
        EXPECT_EQ(o.out.last_pos, ~uint64_t{0});
        EXPECT_EQ(o.out.prepare, nullptr);
    }
}

struct FaultRow {
    const char *name;
    int stamp_null = -1, target_null = -1;  // element made null
    int fail = 0, fail_pull = 1;            // which operand fails (1 target, 2 stamps, 3 values), from which pull
    int fail_with = QMO_SEQ_INVALID_ARGUMENT;
    bool short_values = false;  // the values deliver tiles of another length
    int status;
    int good_tiles = 0;  // tiles delivered before the fault
};

const FaultRow kFaults[] = {
    {"null target stamp", -1, 130, 0, 1, 0, false, QMO_SEQ_NULL_VALUE, 1},
    {"null source stamp", 140, -1, 0, 1, 0, false, QMO_SEQ_NULL_VALUE, 1},
    {"target status passed on", -1, -1, 1, 2, QMO_SEQ_INVALID_ARGUMENT, false, QMO_SEQ_INVALID_ARGUMENT, 1},
    {"source stamps status passed on", -1, -1, 2, 2, QMO_SEQ_INVALID_ARGUMENT, false, QMO_SEQ_INVALID_ARGUMENT, 1},
    {"values failure becomes 702", -1, -1, 3, 2, QMO_SEQ_INVALID_ARGUMENT, false, QMO_SEQ_LENGTH_MISMATCH, 1},
    {"values ending before the stamps: 702", -1, -1, 3, 2, QMO_SEQ_END, false, QMO_SEQ_LENGTH_MISMATCH, 1},
    {"values tiles of another length: 702", -1, -1, 0, 1, 0, true, QMO_SEQ_LENGTH_MISMATCH, 0},
};

// 300 targets 0..299 over 300 stamps 0..299 (each target passes one stamp), so
// the source's second tile is pulled inside the target's second.
TYPED_TEST(Stretch, Faults) {
    using S = V<typename TypeParam::ts>;
    using T = V<typename TypeParam::tag>;
    for (const FaultRow &r : kFaults) {
        SCOPED_TRACE(r.name);
        std::vector<S> axis_(300);
        for (size_t i = 0; i < axis_.size(); ++i) axis_[i] = S(i);
        Operands<TypeParam> o(axis_, axis_, std::vector<T>(300, T(5)));
        if (r.target_null >= 0) o.target.nulls[r.target_null] = true;
        if (r.stamp_null >= 0) o.stamps.nulls[r.stamp_null] = true;
        if (r.short_values) o.values.tiles = {100};
        Script *failing[] = {nullptr, &o.target, &o.stamps, &o.values};
        if (r.fail) failing[r.fail]->fail_with = r.fail_with, failing[r.fail]->fail_from = r.fail_pull;
        ASSERT_EQ(o.build(), 0);
        const Drained<T> d = drain<T>(&o.out);
        EXPECT_EQ(d.status, r.status);
        EXPECT_EQ(d.tiles.size(), size_t(r.good_tiles));
    }
}

// ---- reset ----------------------------------------------------------------------------------------

TYPED_TEST(Stretch, ResetMidwayRepeatsTheFirstPass) {
    using S = V<typename TypeParam::ts>;
    using T = V<typename TypeParam::tag>;
    std::vector<S> target(500), stamps(60);
    std::vector<T> values(60);
    for (size_t i = 0; i < target.size(); ++i) target[i] = S(i);
    for (size_t i = 0; i < stamps.size(); ++i) stamps[i] = S(7 * i + 3), values[i] = T(i + 1);
    Operands<TypeParam> o(target, stamps, values, {4}, {100}, {17});
    ASSERT_EQ(o.build(), 0);
    const Drained<T> first = drain<T>(&o.out);
    ASSERT_EQ(o.out.reset(&o.out), 0);
    ASSERT_EQ(o.out.next(&o.out), 0);
    ASSERT_EQ(o.out.next(&o.out), 0);
    ASSERT_EQ(o.out.reset(&o.out), 0);
    EXPECT_EQ(o.out.pos, 0u);
    EXPECT_EQ(o.out.tile_count, 0u);
    const Drained<T> again = drain<T>(&o.out);
    EXPECT_EQ(again.values, first.values);
    EXPECT_EQ(again.nulls, first.nulls);
    EXPECT_EQ(o.target.resets, 2);
    EXPECT_EQ(o.stamps.resets, 2);
    EXPECT_EQ(o.values.resets, 2);
}

namespace {
int refusing_reset(Iter *) { return QMO_SEQ_INVALID_ARGUMENT; }
}  // namespace

TYPED_TEST(Stretch, ResetStopsAtAValuesResetFailure) {
    using S = V<typename TypeParam::ts>;
    using T = V<typename TypeParam::tag>;
    Operands<TypeParam> o({S(1), S(2)}, {S(1)}, {T(3)});
    ASSERT_EQ(o.build(), 0);
    drain<T>(&o.out);
    o.values.it.reset = refusing_reset;
    EXPECT_EQ(o.out.reset(&o.out), QMO_SEQ_INVALID_ARGUMENT);
    EXPECT_EQ(o.target.resets + o.stamps.resets, 0) << "the stamps are rewound only after the values";
}

TYPED_TEST(Stretch, AllocatesNothing) {
    using S = V<typename TypeParam::ts>;
    using T = V<typename TypeParam::tag>;
    Hooks refuse_all(1);
    Operands<TypeParam> o({S(1), S(2), S(3)}, {S(2)}, {T(3)});
    ASSERT_EQ(o.build(), 0);
    EXPECT_EQ(drain_replayed<T>(&o.out).values.size(), 3u);
    EXPECT_EQ(Hooks::calls, 0);
}
