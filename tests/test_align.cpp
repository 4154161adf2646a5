// Alignment of ascending sequences: union, join, as-of join and stretch0,
// each against a brute-force reference over random inputs in random tiles.
#include "support.hpp"

#include <random>
#include <set>

using namespace test;

namespace {

// Tile lengths for a scripted source, the empty one included when asked.
std::vector<unsigned> random_tiles(std::mt19937_64 &rng, bool with_empty) {
    static const unsigned kLengths[] = {1, 7, 63, 64, 65, 127, 128, 128};
    std::vector<unsigned> v(8);
    for (auto &x : v) x = kLengths[rng() % std::size(kLengths)];
    if (with_empty) v[rng() % 8] = 0;
    return v;
}

// n ascending values of the tag's type with repeats, at most `top`.
template <class Tag>
std::vector<V<Tag>> ascending(std::mt19937_64 &rng, size_t n, unsigned top) {
    if (sizeof(V<Tag>) == 1) top = std::min(top, 120u);
    std::vector<V<Tag>> v(n);
    for (auto &x : v) x = V<Tag>(rng() % (top + 1));
    std::sort(v.begin(), v.end());
    return v;
}

// Every tile full but the last, which is not empty.
void expect_packed(const std::vector<unsigned> &tiles) {
    for (size_t i = 0; i + 1 < tiles.size(); ++i) EXPECT_EQ(tiles[i], 128u) << "tile " << i;
    if (!tiles.empty()) {
        EXPECT_GT(tiles.back(), 0u);
    }
}

// ---- union ------------------------------------------------------------------------

template <class Tag>
class Union : public ::testing::Test {};
TYPED_TEST_SUITE(Union, NumericTypes);

template <class Tag>
void check_union(const std::vector<V<Tag>> &a, const std::vector<V<Tag>> &b, std::vector<unsigned> at = {128},
                 std::vector<unsigned> bt = {128}) {
    std::set<V<Tag>> all(a.begin(), a.end());
    all.insert(b.begin(), b.end());
    Source<Tag> l(a, {}, at), r(b, {}, bt);
    Iter out;
    ASSERT_EQ(fn::union_<Tag>(&out, &l.it, &r.it), 0);
    out.next(&out);
    ASSERT_EQ(out.reset(&out), 0);
    const auto d = drain_replayed<V<Tag>>(&out);
    EXPECT_EQ(d.status, QMO_SEQ_END);
    EXPECT_EQ(d.values, std::vector<V<Tag>>(all.begin(), all.end()));
    EXPECT_EQ(std::count(d.nulls.begin(), d.nulls.end(), true), 0);
    expect_packed(d.tiles);
}

// Two ascending inputs of 300 (each value three times) with one fault: a null
// or a descent on either side, or an operand's status; body(left, right, the
// status the operator must end with).
struct OrderFault {
    const char *name;
    int side, null_at, drop_at, fail_with, status;
};
constexpr OrderFault kOrderFaults[] = {
    {"null on the left", 0, 200, -1, 0, QMO_SEQ_NULL_VALUE},
    {"null on the right", 1, 0, -1, 0, QMO_SEQ_NULL_VALUE},
    {"descent inside a tile", 0, -1, 5, 0, QMO_SEQ_INVALID_ARGUMENT},
    {"descent across tiles", 1, -1, 128, 0, QMO_SEQ_INVALID_ARGUMENT},
    {"status passed on", 1, -1, -1, QMO_SEQ_UNSUPPORTED, QMO_SEQ_UNSUPPORTED},
};
template <class Tag, class Body>
void for_each_order_fault(Body body) {
    using T = V<Tag>;
    std::vector<T> up(300);
    for (size_t i = 0; i < up.size(); ++i) up[i] = T(i / 3);
    for (const OrderFault &row : kOrderFaults) {
        SCOPED_TRACE(row.name);
        std::vector<T> a = up, b = up;
        std::vector<T> &side = row.side ? b : a;
        if (row.drop_at >= 0) side[row.drop_at] = T(side[row.drop_at - 1] - 1);
        Source<Tag> l(a), r(b);
        Script &s = row.side ? r : l;
        if (row.null_at >= 0) s.nulls[row.null_at] = true;
        if (row.fail_with) s.fail_with = row.fail_with, s.fail_from = 2;
        body(l, r, row.status);
    }
}

}  // namespace

TYPED_TEST(Union, MergesWithoutRepeats) {
    using T = V<TypeParam>;
    using v = std::vector<T>;
    check_union<TypeParam>({1, 2, 2, 5}, {2, 3, 5, 5, 9});
    check_union<TypeParam>({}, {4, 4, 6});
    check_union<TypeParam>({4, 4, 6}, {});
    check_union<TypeParam>({}, {});
    check_union<TypeParam>(v(300, 7), v(200, 7), {1, 0, 64}, {0, 127});  // one value in every tile
    std::mt19937_64 rng(29);
    Hooks refuse_all(1);
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(testing::Message() << "round " << round);
        check_union<TypeParam>(ascending<TypeParam>(rng, rng() % 400, 1000), ascending<TypeParam>(rng, rng() % 400, 1000),
                               random_tiles(rng, round % 2), random_tiles(rng, round % 3 == 0));
    }
    EXPECT_EQ(Hooks::calls, 0);
}

TYPED_TEST(Union, RefusesNullsAndDescentsWhereverTheyStand) {
    for_each_order_fault<TypeParam>([](Source<TypeParam> &l, Source<TypeParam> &r, int status) {
        EXPECT_EQ(run<V<TypeParam>>(fn::union_<TypeParam>, &l.it, &r.it).status, status);
    });
}

// ---- as-of join and stretch0 ---------------------------------------------------------

namespace {

template <class P>
class Asof : public ::testing::Test {};
TYPED_TEST_SUITE(Asof, StretchTypes);

template <class P, class S = V<typename P::ts>, class T = V<typename P::tag>>
struct AsofCase {
    std::vector<S> left, stamps;
    std::vector<T> values;
    std::vector<size_t> nulls{};  // of the values
    std::vector<unsigned> left_tiles{128}, right_tiles{128};

    // The match by definition: scan every right element for each left stamp.
    // filler: stretch0 (an exact backward match only, the filler otherwise).
    Drained<T> model(int direction, uint64_t tolerance, bool exact, const T *filler) const {
        Drained<T> e;
        for (S at : left) {
            long b = -1, f = -1;
            for (size_t k = 0; k < stamps.size(); ++k)
                if (exact ? stamps[k] <= at : stamps[k] < at) b = long(k);
            for (size_t k = stamps.size(); k-- > 0;)
                if (exact ? stamps[k] >= at : stamps[k] > at) f = long(k);
            const uint64_t db = b < 0 ? 0 : uint64_t(at) - stamps[b], df = f < 0 ? 0 : uint64_t(stamps[f]) - at;
            long pick = direction == QMO_SEQ_ASOF_BACKWARD ? b : direction == QMO_SEQ_ASOF_FORWARD ? f
                        : b >= 0 && (f < 0 || db <= df)   ? b : f;
            if (pick >= 0 && (pick == b ? db : df) > tolerance) pick = -1;
            const bool null_value = pick >= 0 && std::count(nulls.begin(), nulls.end(), size_t(pick));
            e.values.push_back(pick >= 0 ? values[pick] : filler ? *filler : T(0));
            e.nulls.push_back(null_value || (pick < 0 && !filler));
        }
        return e;
    }

    // One tile pulled and reset away first, then a drain and its replay must match the model.
    void check(int direction, uint64_t tolerance, bool exact, const T *filler = nullptr) const {
        Source<typename P::ts> l(left, {}, left_tiles), s(stamps, {}, right_tiles);
        Source<typename P::tag> v(values, nulls, right_tiles);
        Iter out;
        const int built = filler ? fn::stretch0<typename P::ts, typename P::tag>(&out, &l.it, &s.it, &v.it, *filler)
                                 : fn::asof_join<typename P::ts, typename P::tag>(&out, &l.it, &s.it, &v.it, direction,
                                                                                  tolerance, exact);
        ASSERT_EQ(built, 0);
        expect_rewound_pass<T>(&out, model(direction, tolerance, exact, filler));
    }
};

}  // namespace

TYPED_TEST(Asof, MatchesTheDefinitionInEveryDirection) {
    using S = V<typename TypeParam::ts>;
    using T = V<typename TypeParam::tag>;
    using C = AsofCase<TypeParam>;
    auto s = [](std::initializer_list<int> v) { return std::vector<S>(v.begin(), v.end()); };
    // By hand: right 2 2 5 (values 1 2 3), left 1 2 4 5 9.
    const C hand{s({1, 2, 4, 5, 9}), s({2, 2, 5}), {1, 2, 3}};
    const T filler = T(7);
    struct Row {
        int direction;
        uint64_t tolerance;
        bool exact;
        std::vector<int> expected;  // -1: null
    } rows[] = {
        {QMO_SEQ_ASOF_BACKWARD, ~uint64_t{0}, true, {-1, 2, 2, 3, 3}},  // the last of equal stamps
        {QMO_SEQ_ASOF_BACKWARD, ~uint64_t{0}, false, {-1, -1, 2, 2, 3}},
        {QMO_SEQ_ASOF_FORWARD, ~uint64_t{0}, true, {1, 1, 3, 3, -1}},  // the first of equal stamps
        {QMO_SEQ_ASOF_FORWARD, ~uint64_t{0}, false, {1, 3, 3, -1, -1}},
        {QMO_SEQ_ASOF_NEAREST, ~uint64_t{0}, true, {1, 2, 3, 3, 3}},
        {QMO_SEQ_ASOF_NEAREST, ~uint64_t{0}, false, {1, 3, 3, 2, 3}},  // at 4: 5 is nearer than 2
        {QMO_SEQ_ASOF_BACKWARD, 1, true, {-1, 2, -1, 3, -1}},          // tolerance inclusive
        {QMO_SEQ_ASOF_NEAREST, 0, true, {-1, 2, -1, 3, -1}},
    };
    for (const Row &r : rows) {
        std::vector<T> want;
        for (int x : r.expected) want.push_back(T(x < 0 ? 0 : x));
        const Drained<T> e = hand.model(r.direction, r.tolerance, r.exact, nullptr);
        for (size_t i = 0; i < want.size(); ++i) {
            EXPECT_EQ(e.nulls[i], r.expected[i] < 0) << "direction " << r.direction << " element " << i;
            if (r.expected[i] >= 0) {
                EXPECT_EQ(e.values[i], want[i]) << "direction " << r.direction << " element " << i;
            }
        }
        hand.check(r.direction, r.tolerance, r.exact);
    }
    // stretch0: 7 where no source stamp equals the target.
    EXPECT_EQ(hand.model(0, 0, true, &filler).values, (std::vector<T>{7, 2, 7, 3, 7}));
    hand.check(0, 0, true, &filler);
    // Strict nearest at 5 over 1 5 5 9: 1 and 9 equally near, the 5s left
    // behind a tile boundary; the 1 first in the tile, in a tile of its own, each in its own.
    for (std::vector<unsigned> tiles : {std::vector<unsigned>{3}, {1, 2}, {1}}) {
        const C across{s({5, 5, 6}), s({1, 5, 5, 9}), {1, 2, 3, 4}, {}, {128}, tiles};
        EXPECT_EQ(across.model(QMO_SEQ_ASOF_NEAREST, ~uint64_t{0}, false, nullptr).values, (std::vector<T>{1, 1, 3}));
        across.check(QMO_SEQ_ASOF_NEAREST, ~uint64_t{0}, false);
    }
    // Equally near: the earlier one.
    const C tie{s({4}), s({2, 6}), {1, 2}};
    EXPECT_EQ(tie.model(QMO_SEQ_ASOF_NEAREST, ~uint64_t{0}, true, nullptr).values, std::vector<T>{1});
    tie.check(QMO_SEQ_ASOF_NEAREST, ~uint64_t{0}, true);
}

// Random axes with repeated stamps on both sides, empty sides, null values
// and tiles of every length (empty right tiles too), for every direction,
// tolerance and exactness; nothing is allocated.
TYPED_TEST(Asof, MatchesTheDefinitionOnRandomAxes) {
    using S = V<typename TypeParam::ts>;
    using T = V<typename TypeParam::tag>;
    std::mt19937_64 rng(2029);
    auto axis = [&](size_t n, unsigned max_gap) {
        std::vector<S> a(n);
        uint64_t t = rng() % 20;
        for (auto &x : a) x = static_cast<S>(t += rng() % (max_gap + 1));
        return a;
    };
    Hooks refuse_all(1);
    for (int round = 0; round < 12; ++round) {
        AsofCase<TypeParam> c;
        const bool empty_left = round == 3, empty_right = round == 5;
        c.stamps = axis(empty_right ? 0 : rng() % 300, round % 2 ? 3 : 12);
        c.left = axis(empty_left ? 0 : rng() % 300, round % 3 ? 4 : 30);
        for (size_t i = 0; i < c.stamps.size(); ++i) {
            c.values.push_back(T(1 + rng() % 90));
            if (rng() % 7 == 0) c.nulls.push_back(i);
        }
        c.left_tiles = random_tiles(rng, false), c.right_tiles = random_tiles(rng, round % 2);
        for (int direction : {QMO_SEQ_ASOF_BACKWARD, QMO_SEQ_ASOF_FORWARD, QMO_SEQ_ASOF_NEAREST})
            for (uint64_t tolerance : {uint64_t{0}, uint64_t{5}, ~uint64_t{0}})
                for (bool exact : {true, false}) {
                    SCOPED_TRACE(testing::Message() << "round " << round << " direction " << direction << " tolerance "
                                                    << tolerance << " exact " << exact);
                    c.check(direction, tolerance, exact);
                }
        const T filler = T(0);
        c.check(0, 0, true, &filler);
    }
    EXPECT_EQ(Hooks::calls, 0);
}

TYPED_TEST(Asof, ConstructionChecksTypesBindingsThenDirection) {
    using Ts = typename TypeParam::ts;
    using Tag = typename TypeParam::tag;
    Source<std::conditional_t<std::is_same_v<Ts, t_uint8>, t_datetime, t_uint8>> wrong_ts({1});
    Source<std::conditional_t<std::is_same_v<Tag, t_uint8>, t_datetime, t_uint8>> wrong_v({1});
    Source<Ts> l({1}), s({1});
    Source<Tag> v({1});
    struct Row {
        int status, direction;
        Iter *left, *stamps, *values, *bound;
    } rows[] = {
        {QMO_SEQ_TYPE_MISMATCH, 7, &l.it, &wrong_ts.it, &v.it, &l.it},  // types before bindings and direction
        {QMO_SEQ_TYPE_MISMATCH, 0, &wrong_ts.it, &s.it, &v.it, nullptr},
        {QMO_SEQ_TYPE_MISMATCH, 0, &l.it, &s.it, &wrong_v.it, nullptr},
        {QMO_SEQ_ALREADY_BOUND, 7, &l.it, &s.it, &v.it, &v.it},  // bindings before the direction
        {QMO_SEQ_ALREADY_BOUND, 0, &l.it, &s.it, &v.it, &s.it},
        {QMO_SEQ_INVALID_ARGUMENT, 3, &l.it, &s.it, &v.it, nullptr},
        {QMO_SEQ_INVALID_ARGUMENT, -1, &l.it, &s.it, &v.it, nullptr},
    };
    BindingChecks on(1);
    for (const Row &r : rows) {
        l.it.bound = s.it.bound = v.it.bound = 0;
        if (r.bound) r.bound->bound = 1;
        expect_refused(r.status,
                       [&](Iter *o) { return fn::asof_join<Ts, Tag>(o, r.left, r.stamps, r.values, r.direction, 0, 1); },
                       {r.left, r.stamps, r.values});
        if (r.direction == 0)
            expect_refused(r.status, [&](Iter *o) { return fn::stretch0<Ts, Tag>(o, r.left, r.stamps, r.values, 0); },
                           {r.left, r.stamps, r.values});
    }
    l.it.bound = s.it.bound = v.it.bound = 0;
    Iter out;
    ASSERT_EQ((fn::asof_join<Ts, Tag>(&out, &l.it, &s.it, &v.it, QMO_SEQ_ASOF_NEAREST, 0, 1)), 0);
    EXPECT_TRUE(l.it.bound && s.it.bound && v.it.bound && !out.bound);
    EXPECT_EQ(out.elem_type, Tag::code_);
}

// 300 left and right stamps 0..299: the right's second tile is pulled inside
// the left's second tile. Descents are placed where every direction reads them.
TYPED_TEST(Asof, Faults) {
    using T = V<typename TypeParam::tag>;
    using S = V<typename TypeParam::ts>;
    std::vector<S> ticks(300);
    for (size_t i = 0; i < ticks.size(); ++i) ticks[i] = S(2 * i);
    struct Row {
        const char *name;
        int operand, null_at, drop_at, fail_with, status;  // operand 0 left, 1 right stamps, 2 values
    } rows[] = {
        {"null left stamp", 0, 200, -1, 0, QMO_SEQ_NULL_VALUE},
        {"null right stamp", 1, 210, -1, 0, QMO_SEQ_NULL_VALUE},
        {"left descent", 0, -1, 130, 0, QMO_SEQ_INVALID_ARGUMENT},
        {"right descent inside a tile", 1, -1, 20, 0, QMO_SEQ_INVALID_ARGUMENT},
        {"right descent across tiles", 1, -1, 128, 0, QMO_SEQ_INVALID_ARGUMENT},
        {"left status passed on", 0, -1, -1, QMO_SEQ_UNSUPPORTED, QMO_SEQ_UNSUPPORTED},
        {"right status passed on", 1, -1, -1, QMO_SEQ_UNSUPPORTED, QMO_SEQ_UNSUPPORTED},
        {"values failure: 702, not its status", 2, -1, -1, QMO_SEQ_UNSUPPORTED, QMO_SEQ_LENGTH_MISMATCH},
        {"values ending before the stamps: 702", 2, -1, -1, QMO_SEQ_END, QMO_SEQ_LENGTH_MISMATCH},
        {"values tiles of another length: 702", 2, -1, -1, -1, QMO_SEQ_LENGTH_MISMATCH},
    };
    for (int direction : {QMO_SEQ_ASOF_BACKWARD, QMO_SEQ_ASOF_FORWARD, QMO_SEQ_ASOF_NEAREST})
        for (const Row &row : rows) {
            SCOPED_TRACE(testing::Message() << row.name << ", direction " << direction);
            std::vector<S> left = ticks, right = ticks;
            std::vector<S> &side = row.operand ? right : left;
            if (row.drop_at >= 0) side[row.drop_at] = S(side[row.drop_at - 1] - 1);
            Source<typename TypeParam::ts> l(left), s(right);
            Source<typename TypeParam::tag> v(std::vector<T>(300, T(5)));
            Script *o[] = {&l, &s, &v};
            if (row.null_at >= 0) o[row.operand]->nulls[row.null_at] = true;
            if (row.fail_with > 0) o[row.operand]->fail_with = row.fail_with, o[row.operand]->fail_from = 2;
            if (row.fail_with < 0) v.tiles = {100};
            Iter out;
            ASSERT_EQ((fn::asof_join<typename TypeParam::ts, typename TypeParam::tag>(&out, &l.it, &s.it, &v.it,
                                                                                        direction, ~uint64_t{0}, 1)),
                      0);
            EXPECT_EQ(drain<T>(&out).status, row.status);
        }
}

// ---- join ---------------------------------------------------------------------------

namespace {

template <class Tag>
class Join : public ::testing::Test {};
TYPED_TEST_SUITE(Join, NumericTypes);

using Pairs = std::vector<std::pair<uint64_t, uint64_t>>;

// Pulls both outputs step by step, in a random order within each step; they
// must agree on every step's status and tile length.
Pairs drain_pair(Iter *lp, Iter *rp, std::mt19937_64 &rng, int *status) {
    Pairs got;
    for (int step = 0; step < 1 << 12; ++step) {
        const bool left_first = rng() % 2;
        Iter *first = left_first ? lp : rp, *second = left_first ? rp : lp;
        const int s1 = first->next(first), s2 = second->next(second);
        EXPECT_EQ(s1, s2) << "step " << step;
        if ((*status = s1)) break;
        EXPECT_EQ(lp->tile_count, rp->tile_count) << "step " << step;
        EXPECT_TRUE(lp->tile_count > 0 && !(lp->null_bitmap[0] | lp->null_bitmap[1] | rp->null_bitmap[0] | rp->null_bitmap[1]));
        for (unsigned i = 0; i < lp->tile_count; ++i) got.emplace_back(lp->values.u8[i], rp->values.u8[i]);
    }
    return got;
}

template <class Tag>
Pairs join_model(const std::vector<V<Tag>> &a, const std::vector<V<Tag>> &b) {
    Pairs e;
    for (size_t i = 0; i < a.size(); ++i)
        for (size_t j = 0; j < b.size(); ++j)
            if (a[i] == b[j]) e.emplace_back(i, j);
    return e;
}

}  // namespace

// Random sides with long runs, in random tiles; drained, reset (which gives
// the shared record back) and drained again: one record at a time, whatever
// the runs' lengths.
TYPED_TEST(Join, EveryEqualPairOnceInLeftThenRightOrder) {
    using T = V<TypeParam>;
    std::mt19937_64 rng(29);
    Hooks hooks;
    for (int round = 0; round < 30; ++round) {
        SCOPED_TRACE(testing::Message() << "round " << round);
        const unsigned top = round % 3 == 0 ? 4 : 200;  // few values: runs across tiles
        const auto a = ascending<TypeParam>(rng, round == 1 ? 0 : rng() % 300, top);
        const auto b = ascending<TypeParam>(rng, round == 2 ? 0 : rng() % 300, top);
        Source<TypeParam> l(a, {}, random_tiles(rng, round % 2)), r(b, {}, random_tiles(rng, round % 3 == 1));
        Iter lp, rp;
        Hooks::calls = 0;
        ASSERT_EQ(fn::join<TypeParam>(&lp, &rp, &l.it, &r.it), 0);
        EXPECT_TRUE(lp.elem_type == QMO_SEQ_TYPE_UINT8 && rp.elem_type == QMO_SEQ_TYPE_UINT8 && l.it.bound && r.it.bound);
        const Pairs e = join_model<TypeParam>(a, b);
        for (int pass = 0; pass < 2; ++pass) {
            int status = 0;
            EXPECT_EQ(drain_pair(&lp, &rp, rng, &status), e) << "pass " << pass;
            EXPECT_EQ(status, QMO_SEQ_END);
            EXPECT_EQ(Hooks::live.size(), 1u);
            EXPECT_EQ(lp.reset(&lp), 0);
            EXPECT_EQ(Hooks::live.size(), 1u) << "released before both are reset";
            EXPECT_EQ(rp.reset(&rp), 0);
            EXPECT_EQ(Hooks::live.size(), 0u);
        }
        EXPECT_EQ(Hooks::calls, 2);
    }
    // One value throughout: 300 x 200 pairs from one record.
    Source<TypeParam> l(std::vector<T>(300, T(3))), r(std::vector<T>(200, T(3)), {}, {64});
    Iter lp, rp;
    Hooks::calls = 0;
    ASSERT_EQ(fn::join<TypeParam>(&lp, &rp, &l.it, &r.it), 0);
    int status = 0;
    const Pairs got = drain_pair(&lp, &rp, rng, &status);
    EXPECT_EQ(got.size(), 60000u);
    EXPECT_EQ(got, (join_model<TypeParam>(std::vector<T>(300, T(3)), std::vector<T>(200, T(3)))));
    lp.reset(&lp), rp.reset(&rp);
    EXPECT_EQ(Hooks::calls, 1);
    EXPECT_TRUE(Hooks::live.empty());
}

TYPED_TEST(Join, LockstepConstructionAndFaults) {
    std::mt19937_64 rng(7);
    Source<TypeParam> l({1, 2, 2, 3}), r({2, 3, 3});
    Source<std::conditional_t<std::is_same_v<TypeParam, t_uint8>, t_datetime, t_uint8>> wrong({1});
    auto refused = [&](int status, Iter *left, Iter *right, bool same_output = false) {
        Iter lp, rp;
        std::memset(&lp, 0xAB, sizeof lp);
        std::memset(&rp, 0xAB, sizeof rp);
        const Iter before = lp;
        EXPECT_EQ(fn::join<TypeParam>(&lp, same_output ? &lp : &rp, left, right), status);
        EXPECT_EQ(std::memcmp(&lp, &before, sizeof lp), 0);
        EXPECT_EQ(std::memcmp(&rp, &before, sizeof rp), 0);
        EXPECT_TRUE(!l.it.bound && !r.it.bound);
    };
    {
        BindingChecks on(1);
        refused(QMO_SEQ_TYPE_MISMATCH, &wrong.it, &r.it);
        refused(QMO_SEQ_TYPE_MISMATCH, &l.it, &wrong.it);
        wrong.it.bound = 1;
        refused(QMO_SEQ_TYPE_MISMATCH, &l.it, &wrong.it);  // types before bindings
        refused(QMO_SEQ_INVALID_ARGUMENT, &l.it, &r.it, true);
        Hooks refuse(1);
        refused(QMO_SEQ_NO_MEMORY, &l.it, &r.it);
        EXPECT_TRUE(Hooks::live.empty());
    }
    // The record taken again after both resets: refused there, 52 from that pull.
    {
        Hooks second(2);
        Iter lp, rp;
        ASSERT_EQ(fn::join<TypeParam>(&lp, &rp, &l.it, &r.it), 0);
        EXPECT_EQ(lp.next(&lp), 0);
        EXPECT_EQ(lp.next(&lp), QMO_SEQ_LENGTH_MISMATCH);  // a step ahead of its twin
        EXPECT_EQ(rp.next(&rp), 0);
        EXPECT_EQ(std::vector<uint64_t>(rp.values.u8, rp.values.u8 + rp.tile_count), (std::vector<uint64_t>{0, 0, 1, 2}));
        lp.reset(&lp), rp.reset(&rp);
        EXPECT_TRUE(Hooks::live.empty());
        EXPECT_EQ(rp.next(&rp), QMO_SEQ_NO_MEMORY);
        l.it.bound = r.it.bound = 0;
    }
    for_each_order_fault<TypeParam>([&](Source<TypeParam> &fl, Source<TypeParam> &fr, int expected) {
        Iter lp, rp;
        ASSERT_EQ(fn::join<TypeParam>(&lp, &rp, &fl.it, &fr.it), 0);
        int status = 0;
        drain_pair(&lp, &rp, rng, &status);
        EXPECT_EQ(status, expected);
        lp.reset(&lp), rp.reset(&rp);
    });
}

TYPED_TEST(Union, ConstructionChecksTypesThenBindings) {
    Source<TypeParam> l({1}), r({2});
    Source<std::conditional_t<std::is_same_v<TypeParam, t_uint8>, t_datetime, t_uint8>> wrong({1});
    BindingChecks on(1);
    wrong.it.bound = 1;
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return fn::union_<TypeParam>(o, &l.it, &wrong.it); }, {&l.it});
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return fn::union_<TypeParam>(o, &wrong.it, &r.it); }, {&r.it});
    for (Iter *bound : {&l.it, &r.it}) {
        l.it.bound = r.it.bound = 0;
        bound->bound = 1;
        expect_refused(QMO_SEQ_ALREADY_BOUND, [&](Iter *o) { return fn::union_<TypeParam>(o, &l.it, &r.it); },
                       {&l.it, &r.it});
    }
    l.it.bound = r.it.bound = 0;
    Iter out;
    ASSERT_EQ(fn::union_<TypeParam>(&out, &l.it, &r.it), 0);
    EXPECT_TRUE(l.it.bound && r.it.bound && !out.bound && out.reset == qmo_seq_reset_union_iterator);
    EXPECT_EQ(out.elem_type, TypeParam::code_);
}
