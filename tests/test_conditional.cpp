// Conditionals, callbacks, filters, position lists and maps.
#include "support.hpp"

#include <numeric>
#include <random>

using namespace test;

namespace {
std::vector<uint64_t> positions(size_t n, uint64_t from = 0) {
    std::vector<uint64_t> v(n);
    std::iota(v.begin(), v.end(), from);
    return v;
}
}  // namespace

// ---- if (lazy) and iif (positional) --------------------------------------------

TEST(If, EachBranchIsReadAsACompactSequence) {
    Cond c({1, 0, 1, 1, 0, 1}, {5});  // a null condition takes else
    Source<t_double> then_branch({1.5, 2.5, 3.5}, {1}), else_branch({-1, -2, -3});
    Iter out;
    ASSERT_EQ(qmo_seq_if_double(&out, &c.it, &then_branch.it, &else_branch.it), 0);
    const auto d = drain_replayed<double>(&out);
    EXPECT_EQ(d.values, (std::vector<double>{1.5, -1, 2.5, 3.5, -2, -3}));
    EXPECT_EQ(d.nulls, (std::vector<bool>{0, 0, 1, 0, 0, 0}));
    EXPECT_EQ(then_branch.resets + else_branch.resets + c.resets, 3);
}

TEST(If, AllFalseNeverPullsThenAndAnExhaustedBranchEndsTheResult) {
    Cond none({0, 0, 0}), all(std::vector<uint8_t>(300, 1));
    Source<t_int4> unused({10}), else_branch({5, 6, 7}), then_branch(iota_column(299), {}, {7}), empty({});
    EXPECT_EQ(run<int32_t>(qmo_seq_if_int4, &none.it, &unused.it, &else_branch.it).values,
              (std::vector<int32_t>{5, 6, 7}));
    EXPECT_EQ(unused.pulls, 0);
    const auto d = run<int32_t>(qmo_seq_if_int4, &all.it, &then_branch.it, &empty.it);  // tiles need not line up
    EXPECT_EQ(d.values, iota_column(256));
    EXPECT_EQ(d.status, QMO_SEQ_END) << "then ends one element short";
}

TEST(Iif, AllThreeAdvanceTogetherInTilesOfTheShortest) {
    std::vector<uint8_t> c(200);
    for (size_t i = 0; i < c.size(); ++i) c[i] = i % 2;
    Cond cond(c, {3}), c2({1, 0});
    Source<t_int4> then_branch(iota_column(200, 1000), {}, {100}), else_branch(iota_column(200), {1, 2, 3});
    const auto d = run<int32_t>(qmo_seq_iif_int4, &cond.it, &then_branch.it, &else_branch.it);
    // Index 1 takes then's bit, 3 (null condition) else's element and bit. The rest of each longer
    // tile is dropped: the second call starts at cond 128, then 100, else 128.
    EXPECT_EQ(d.tiles, (std::vector<unsigned>{100, 72}));
    EXPECT_EQ((std::vector<int32_t>(d.values.begin(), d.values.begin() + 4)), (std::vector<int32_t>{0, 1001, 2, 3}));
    EXPECT_EQ((std::vector<bool>(d.nulls.begin(), d.nulls.begin() + 4)), (std::vector<bool>{0, 0, 1, 1}));
    EXPECT_TRUE(d.values[100] == 128 && d.values[101] == 1101);
    CharSource a(3, {"abc", "def"}), b(3, {"xyz", "uvw"});
    EXPECT_EQ(run<std::string>(qmo_seq_iif_char, &c2.it, &a.it, &b.it).values,
              (std::vector<std::string>{"abc", "uvw"}));
}

TEST(Conditionals, TypesAndCharWidths) {
    Cond c({1});
    Source<t_int4> i4({1});
    Source<t_int8> i8({1});
    CharSource w4(4, {"a"}), w5(5, {"b"});
    const std::initializer_list<Iter *> all = {&c.it, &i4.it, &w4.it};
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_if_int4(o, &i4.it, &i4.it, &i4.it); }, all);
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_if_int4(o, &c.it, &i4.it, &i8.it); }, all);
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_iif_char(o, &c.it, &w4.it, &w5.it); }, all);
}

// ---- callbacks ------------------------------------------------------------------

namespace {
int calls = 0;
int32_t twice(int32_t x) { return ++calls, 2 * x; }
void upper(char *out, const char *in, size_t w) {
    for (size_t i = 0; i < w; ++i) out[i] = static_cast<char>(in[i] >= 'a' && in[i] <= 'z' ? in[i] - 32 : in[i]);
}
void swap_halves(char *out, const char *l, const char *r, size_t w) {
    std::memcpy(out, r, w / 2);
    std::memcpy(out + w / 2, l + w / 2, w - w / 2);
}
}  // namespace

TEST(Callbacks, UnaryFamiliesCallOncePerElementIncludingNulls) {
    Source<t_int4> in({1, 2, 3}, {1}), in2({1, 2}), in3({1, 2, 3});
    Source<t_double> in4({1, 2});
    int32_t ten = 10;
    double limit = 1.5;
    calls = 0;
    const auto d = run<int32_t>(qmo_seq_func_int4, &in.it, twice);
    EXPECT_EQ(d.values, (std::vector<int32_t>{2, 4, 6}));
    EXPECT_EQ(d.nulls, (std::vector<bool>{0, 1, 0}));
    EXPECT_EQ(calls, 3);
    in.reset(&in.it);
    in.fail_with = 57;
    EXPECT_EQ(run<int32_t>(qmo_seq_func_int4, &in.it, twice).status, 57) << "operand statuses pass unchanged";
    auto plus = [](int32_t x, void *ctx) { return x + *static_cast<int32_t *>(ctx); };
    EXPECT_EQ(run<int32_t>(qmo_seq_func_ctx_int4, &in2.it, +plus, &ten).values, (std::vector<int32_t>{11, 12}));
    EXPECT_EQ(run<uint8_t>(qmo_seq_cond_int4, &in3.it, [](int32_t x) -> uint8_t { return x & 1; }).values,
              (std::vector<uint8_t>{1, 0, 1}));
    auto above = [](double x, void *ctx) -> uint8_t { return x > *static_cast<double *>(ctx); };
    EXPECT_EQ(run<uint8_t>(qmo_seq_cond_ctx_double, &in4.it, +above, &limit).values, (std::vector<uint8_t>{0, 1}));
}

TEST(Callbacks, BinaryFamiliesTakeTheShorterLengthAndOrTheBitmaps) {
    Source<t_int8> l(std::vector<int64_t>(128, 10), {60, 100}), r(std::vector<int64_t>(50, 3), {7}), l2({5}), r2({1});
    int64_t factor = -2;
    auto scaled = [](int64_t a, int64_t b, void *ctx) { return (a - b) * *static_cast<int64_t *>(ctx); };
    Iter out;
    ASSERT_EQ(qmo_seq_func2_ctx_int8(&out, &l.it, &r.it, scaled, &factor), 0);
    ASSERT_EQ(out.next(&out), 0);
    EXPECT_EQ(out.tile_count, 50);
    EXPECT_EQ(out.values.i8[0], -14);
    EXPECT_EQ(out.null_bitmap[0], (uint64_t{1} << 7) | (uint64_t{1} << 60));
    EXPECT_EQ(out.null_bitmap[1], uint64_t{1} << 36);
    auto diff = [](int64_t a, int64_t b) { return a - b; };
    EXPECT_EQ(run<int64_t>(qmo_seq_func2_int8, &l2.it, &r2.it, +diff).values, std::vector<int64_t>{4});
}

TEST(Callbacks, CharMembersHandOverPointersAndTheWidth) {
    CharSource in(3, {"ab", "xyz"}), l(4, {"abcd"}), r(4, {"wxyz"}), w5(5, {"a"});
    char x = 'x';
    EXPECT_EQ(run<std::string>(qmo_seq_func_char, &in.it, upper).values,
              (std::vector<std::string>{{"AB\0", 3}, "XYZ"}));
    in.reset(&in.it);
    auto starts = [](const char *s, size_t, void *ctx) -> uint8_t { return s[0] == *static_cast<char *>(ctx); };
    EXPECT_EQ(run<uint8_t>(qmo_seq_cond_ctx_char, &in.it, +starts, &x).values, (std::vector<uint8_t>{0, 1}));
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_func2_char(o, &l.it, &w5.it, swap_halves); },
                   {&l.it});
    EXPECT_EQ(run<std::string>(qmo_seq_func2_char, &l.it, &r.it, swap_halves).values, std::vector<std::string>{"wxcd"});
}

// ---- filter -----------------------------------------------------------------------

TEST(Filter, SelectivitiesAgainstAPlainLoop) {
    std::mt19937 rng(5);
    for (int percent : {0, 1, 30, 50, 100}) {
        SCOPED_TRACE(percent);
        std::vector<uint8_t> c(10000);
        std::vector<int32_t> expected;
        const auto values = iota_column(c.size());
        for (size_t i = 0; i < c.size(); ++i)
            if ((c[i] = static_cast<int>(rng() % 100) < percent)) expected.push_back(values[i]);
        Cond cond(c, {}, {100});
        Source<t_int4> v(values, {}, {77});
        const auto d = run<int32_t>(qmo_seq_filter_int4, &cond.it, &v.it);
        EXPECT_EQ(d.values, expected);
        for (size_t k = 0; k + 1 < d.tiles.size(); ++k) ASSERT_EQ(d.tiles[k], 128u) << "full tiles until the last";
        EXPECT_EQ(d.status, QMO_SEQ_END);
        EXPECT_TRUE(percent || (cond.pulls == 101 && v.pulls >= 130)) << "both read to their end, then 11";
    }
}

// Null conditions are false. Every pass clears the bitmap, so a null value
// gathered in an earlier pass of the same output tile arrives as non-null.
TEST(Filter, NullsAndOperandsOfDifferentLengths) {
    using Row = std::tuple<std::vector<uint8_t>, std::vector<size_t>, std::vector<size_t>, unsigned,
                           std::vector<int32_t>, std::vector<bool>>;
    for (const auto &[c, cond_nulls, value_nulls, tiles, values, nulls] :
         std::vector<Row>{{{1, 1, 1, 0}, {1}, {2}, 128, {1, 3}, {0, 1}},
                          {{1, 1, 1, 1}, {}, {0, 3}, 2, {1, 2, 3, 4}, {0, 0, 0, 1}},
                          {std::vector<uint8_t>(10, 1), {}, {}, 128, {1, 2, 3, 4}, {0, 0, 0, 0}},
                          {{1, 0}, {}, {}, 128, {1}, {0}}}) {
        Cond cond(c, cond_nulls, {tiles});
        Source<t_int4> v({1, 2, 3, 4}, value_nulls, {tiles});
        const auto d = run<int32_t>(qmo_seq_filter_int4, &cond.it, &v.it);
        EXPECT_EQ(d.values, values);
        EXPECT_EQ(d.nulls, nulls);
    }
    Cond cond({0, 1, 1});
    CharSource v(2, {"ab", "cd", "ef"});
    Iter out;
    ASSERT_EQ(qmo_seq_filter_char(&out, &cond.it, &v.it), 0);
    EXPECT_EQ(drain<std::string>(&out).values, (std::vector<std::string>{"cd", "ef"}));
    out.bound = 1;
    ASSERT_EQ(out.reset(&out), 0);
    EXPECT_EQ(out.bound, 0) << "the reset clears the filter's own binding";
    EXPECT_EQ(drain<std::string>(&out).values, (std::vector<std::string>{"cd", "ef"}));
}

// ---- position lists ------------------------------------------------------------------

TEST(FilterPos, CountsEveryConditionElementFromTheFirstPosition) {
    Cond all(std::vector<uint8_t>(300, 1), {}, {100}), mixed({0, 1, 1, 0, 1}, {2});
    const auto d = run<uint64_t>(qmo_seq_filter_pos, &all.it);
    EXPECT_EQ(d.tiles, (std::vector<unsigned>{128, 128, 44}));
    EXPECT_EQ(d.values, positions(300));
    // filter_search counts from the largest first_pos in the source's tree.
    const auto values = iota_column(2000);
    Iter src, lim, cmp, threshold, pos, search;
    qmo_seq_unget_int4(&src, values.data(), values.size());
    qmo_seq_limit(&lim, &src, 1000, 1999);
    qmo_seq_const_int4(&threshold, 1004);
    qmo_seq_gt_int4(&cmp, &lim, &threshold);
    ASSERT_EQ(qmo_seq_filter_pos(&pos, &mixed.it), 0);
    ASSERT_EQ(qmo_seq_filter_search(&search, &cmp, &cmp), 0);
    EXPECT_EQ(drain_replayed<uint64_t>(&pos).values, (std::vector<uint64_t>{1, 4}));
    EXPECT_EQ(drain_replayed<uint64_t>(&search).values, positions(995, 1005));
}

TEST(FirstPos, TheFirstNTruePositionsInOneTile) {
    std::vector<uint8_t> c(50, 0);
    for (size_t i : {5, 9, 12, 40}) c[i] = 1;
    Cond cond(c, {}, {10}), none(c);
    expect_refused(QMO_SEQ_INVALID_ARGUMENT, [&](Iter *o) { return qmo_seq_filter_first_pos(o, &cond.it, 129); },
                   {&cond.it});
    Iter out;
    ASSERT_EQ(qmo_seq_filter_first_pos(&out, &cond.it, 3), 0);
    EXPECT_EQ(cond.it.bound, 0) << "the condition is not marked bound";
    EXPECT_TRUE(out.prepare == qmo_seq_prepare_aggregate && out.merge == qmo_seq_filter_first_pos_merge);
    const auto d = drain<uint64_t>(&out);
    EXPECT_EQ(d.values, (std::vector<uint64_t>{5, 9, 12}));
    EXPECT_EQ(d.tiles.size(), 1u);
    EXPECT_EQ(cond.pulls, 2) << "stops once n are found";
    EXPECT_EQ(run<uint64_t>(qmo_seq_filter_first_pos, &none.it, 0).tiles.size(), 0u);
    EXPECT_EQ(none.pulls, 0);
}

TEST(FirstPos, PartitionsPreparedAndMergedMatchOneScan) {
    // Ordinals 0..999 in four partitions; true where i % 37 == 5.
    std::vector<uint8_t> c(1000);
    for (size_t i = 0; i < c.size(); ++i) c[i] = i % 37 == 5;
    for (uint64_t n : {1u, 5u, 27u, 100u}) {
        SCOPED_TRACE(n);
        Iter whole, src[4], lim[4], part[4];
        qmo_seq_unget_uint1(&whole, c.data(), c.size());
        // Merged in a scrambled order: the block insert keeps the result ascending.
        for (int p : {2, 0, 3, 1}) {
            qmo_seq_unget_uint1(&src[p], c.data(), c.size());
            qmo_seq_limit(&lim[p], &src[p], 250 * p, 250 * p + 249);
            ASSERT_EQ(qmo_seq_filter_first_pos(&part[p], &lim[p], n), 0);
            part[p].prepare(&part[p]);
            EXPECT_EQ(part[p].prepared, 1);
            if (p != 2) {
                ASSERT_EQ(part[2].merge(&part[2], &part[p]), 0);
            }
        }
        const auto merged = drain<uint64_t>(&part[2]);
        EXPECT_EQ(merged.values, run<uint64_t>(qmo_seq_filter_first_pos, &whole, n).values);
        EXPECT_EQ(merged.tiles.size(), 1u);
    }
}

// ---- map ----------------------------------------------------------------------------

TEST(Map, GathersInAnyOrderRewindingWhenNeeded) {
    Source<t_uint8> at({7, 2, 7, 300, 1}, {}, {3, 1}), null_at({1, 2}, {1}), far({5});  // tiles {7, 2, 7}, {300}, {1}
    Source<t_int4> values(iota_column(400, 100), {2}), wrong({1});
    Source<t_double> v1({1, 2, 3}), v2({1, 2, 3});
    const auto d = run<int32_t>(qmo_seq_map_int4, &values.it, &at.it);
    EXPECT_EQ(d.values, (std::vector<int32_t>{107, 102, 107, 400, 101}));
    EXPECT_EQ(d.nulls, std::vector<bool>(5, false)) << "mapped nulls arrive as values";
    EXPECT_EQ(values.resets, 1) << "position 1 lies behind the tile that held 300";
    EXPECT_EQ(run<double>(qmo_seq_map_double, &v1.it, &null_at.it).status, QMO_SEQ_NULL_VALUE);
    EXPECT_EQ(run<double>(qmo_seq_map_double, &v2.it, &far.it).status, QMO_SEQ_END) << "past the end of the values";
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_map_double(o, &v2.it, &wrong.it); },
                   {&wrong.it});
}
