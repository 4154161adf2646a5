// Top-N: every operator and type against a stable sort of (value, arrival),
// prepared partitions against the merge rule, the quirks and the statuses.
#include "support.hpp"

#include <deque>

using namespace test;

namespace {

// Non-null values (or their positions) stably sorted best first, cut to n.
template <class T>
std::vector<double> ranked(const std::vector<T> &x, const std::vector<size_t> &nulls, bool max, size_t n,
                           bool positions = false) {
    std::vector<size_t> at;
    for (size_t i = 0; i < x.size(); ++i)
        if (std::find(nulls.begin(), nulls.end(), i) == nulls.end()) at.push_back(i);
    std::stable_sort(at.begin(), at.end(), [&](size_t a, size_t b) { return max ? x[a] > x[b] : x[a] < x[b]; });
    std::vector<double> r;
    for (size_t i = 0; i < std::min(at.size(), n); ++i) r.push_back(positions ? at[i] : double(x[at[i]]));
    return r;
}

// Values with many ties (nulls over extremes), or an ascending or descending run.
template <class T>
std::vector<T> column(size_t len, int shape) {
    std::vector<T> x(len);
    for (size_t i = 0; i < len; ++i)
        x[i] = T(shape == 0 ? (i % 7 == 3 ? (i % 2) * 120 : (i * 7919 + 13) % 37) : shape == 1 ? i * 100 / len : 99 - i % 100);
    return x;
}

// The first pull's elements (none unless it returns 0); a list comes once, then 11.
std::vector<double> pull(Iter *it, int status = QMO_SEQ_OK) {
    std::vector<double> r;
    EXPECT_EQ(it->next(it), status);
    for (unsigned i = 0; status == 0 && i < it->tile_count; ++i) r.push_back(element(it, i));
    EXPECT_TRUE(it->pos == it->tile_count && !it->null_bitmap[0] && !it->null_bitmap[1]);
    if (status == 0) {
        EXPECT_EQ(it->next(it), QMO_SEQ_END);
    }
    return r;
}

}  // namespace

template <class Tag>
class TopN : public ::testing::Test {};
TYPED_TEST_SUITE(TopN, NumericTypes);

// Tiles of odd lengths; the same list again after a reset.
TYPED_TEST(TopN, RankedAsAStableSortOfValueAndArrival) {
    using T = V<TypeParam>;
    for (size_t len : {0, 1, 100, 129, 300})
        for (int shape : {0, 1, 2})
            for (size_t n : {0, 1, 2, 127, 128})
                for (int op = 0; op < 4; ++op) {
                    const bool max = op % 2 == 0, positions = op >= 2;
                    SCOPED_TRACE(testing::Message() << len << " of shape " << shape << ", n " << n << ", op " << op);
                    const auto make = positions ? (max ? fn::top_pos_max<TypeParam> : fn::top_pos_min<TypeParam>)
                                                : (max ? fn::top_max<TypeParam> : fn::top_min<TypeParam>);
                    const std::vector<T> x = column<T>(len, shape);
                    std::vector<size_t> nulls;
                    for (size_t i = 3; shape == 0 && i < len; i += 7) nulls.push_back(i);
                    Source<TypeParam> in(x, nulls, {37, 128, 5});
                    Iter out;
                    ASSERT_EQ(make(&out, &in.it, n), 0);
                    const std::vector<double> want = ranked(x, nulls, max, n, positions);
                    const int status = want.empty() ? QMO_SEQ_END : QMO_SEQ_OK;
                    EXPECT_EQ(pull(&out, status), want);
                    ASSERT_EQ(out.reset(&out), 0);
                    EXPECT_EQ(pull(&out, status), want) << "after a reset";
                }
}

// Partitions, two of them empty, prepared and merged into the first: from's
// values that into holds are dropped, the others join in rank order.
TYPED_TEST(TopN, PreparedPartitionsMergeByTheRule) {
    using T = V<TypeParam>;
    const std::vector<T> x = column<T>(300, 0);
    const size_t cuts[] = {0, 0, 90, 90, 300};
    for (bool max : {true, false})
        for (size_t n : {1, 3, 128}) {
            std::deque<Source<TypeParam>> parts;
            Iter out[4];
            std::vector<double> want;
            for (size_t p = 0; p < 4; ++p) {
                const std::vector<T> part(x.begin() + cuts[p], x.begin() + cuts[p + 1]);
                ASSERT_EQ((max ? fn::top_max<TypeParam> : fn::top_min<TypeParam>)(&out[p], &parts.emplace_back(part).it, n), 0);
                ASSERT_EQ(out[p].prepare(&out[p]), 0);
                std::vector<double> both = want;
                for (double v : ranked(part, {}, max, n))
                    if (std::find(want.begin(), want.end(), v) == want.end()) both.push_back(v);
                want = ranked(both, {}, max, n);
                EXPECT_EQ(p ? out[0].merge(&out[0], &out[p]) : 0, 0);
            }
            EXPECT_EQ(pull(&out[0]), want) << n << " max " << max;
            EXPECT_EQ(parts[3].pulls, 3) << "handed out, not recomputed";
        }
}

TEST(TopNQuirks, EqualValuesRankByArrivalInAPassButMergeOnce) {
    Source<t_int4> a({5, 7, 7}), b({5, 7, 7}), nine_five({9, 5}), nine_four({9, 4}), five_three_one({5, 3, 1}), six({6});
    Iter top, at, into, from;
    ASSERT_EQ(qmo_seq_top_max_int4(&top, &a.it, 2) | qmo_seq_top_pos_max_int4(&at, &b.it, 2), 0);
    EXPECT_EQ(pull(&top), (std::vector<double>{7, 7}));
    EXPECT_EQ(pull(&at), (std::vector<double>{1, 2}));
    // A value both lists hold is kept once; a full list gives up its last.
    for (auto [x, y, want] : {std::tuple{&nine_five, &nine_four, std::vector<double>{9, 5, 4}},
                              std::tuple{&five_three_one, &six, std::vector<double>{6, 5, 3}}}) {
        ASSERT_EQ(qmo_seq_top_max_int4(&into, &x->it, 3) | qmo_seq_top_max_int4(&from, &y->it, 3), 0);
        qmo_seq_prepare_aggregate(&into), qmo_seq_prepare_aggregate(&from);
        ASSERT_EQ(qmo_seq_top_max_int4_merge(&into, &from), 0);
        EXPECT_EQ(pull(&into), want);
    }
    // A NaN is never better than a kept value: it takes the last place of a list with room, then holds it.
    Source<t_double> nan({1, std::nan(""), 3});
    ASSERT_EQ(qmo_seq_top_max_double(&top, &nan.it, 2), 0);
    EXPECT_TRUE(top.next(&top) == 0 && top.tile_count == 2 && top.values.f8[0] == 1 && std::isnan(top.values.f8[1]));
}

TEST(TopNProtocol, ChecksInOrderAndNothingWrittenBeyondTheBinding) {
    BindingChecks on(1);
    Source<t_int4> i4({1, 2}), bound({1});
    Source<t_int8> i8({1});
    bound.it.bound = 1;
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_top_min_int4(o, &i8.it, 200); }, {&i8.it});
    expect_refused(QMO_SEQ_ALREADY_BOUND, [&](Iter *o) { return qmo_seq_top_pos_max_int4(o, &bound.it, 200); }, {});
    expect_refused(QMO_SEQ_INVALID_ARGUMENT, [&](Iter *o) { return qmo_seq_top_max_int4(o, &i4.it, 129); }, {&i4.it}, true);
    Iter out;
    i4.it.bound = 0;
    ASSERT_EQ(qmo_seq_top_max_int4(&out, &i4.it, 128), 0);
    EXPECT_TRUE(out.prepare == qmo_seq_prepare_aggregate && out.merge == qmo_seq_top_max_int4_merge);
    EXPECT_TRUE(out.reset == qmo_seq_reset_unary_iterator && out.state[0] == 128 && out.elem_type == QMO_SEQ_TYPE_INT4);
    i4.it.bound = 0;
    ASSERT_EQ(qmo_seq_top_pos_min_int4(&out, &i4.it, 5), 0);
    EXPECT_TRUE(out.prepare == nullptr && out.merge == nullptr && out.elem_type == QMO_SEQ_TYPE_UINT8);
}

// An error after values were kept comes back with the partial list in the
// tile; an error before any gives an empty one. Nothing is ever allocated.
TEST(TopNProtocol, ErrorsKeepThePartialListAndNothingIsAllocated) {
    Hooks refuse_all(1);
    for (auto make : {qmo_seq_top_min_int4, qmo_seq_top_pos_min_int4})
        for (int fail_from : {1, 3}) {
            Source<t_int4> in(iota_column(300), {}, {100});
            in.fail_with = 4242, in.fail_from = fail_from;
            Iter out;
            ASSERT_EQ(make(&out, &in.it, 3), 0);
            EXPECT_EQ(out.next(&out), 4242);
            EXPECT_EQ(out.tile_count, fail_from == 1 ? 0 : 3);
            EXPECT_EQ(out.tile_count ? element(&out, 2) : 2, 2) << "0, 1, 2 as values and as positions";
        }
    Source<t_int4> nulls({1, 2}, {0, 1});
    Iter out;
    ASSERT_EQ(qmo_seq_top_max_int4(&out, &nulls.it, 5), 0);
    ASSERT_EQ(out.prepare(&out), 0);
    EXPECT_TRUE(out.prepared == 1 && out.next(&out) == QMO_SEQ_END && out.prepared == 0) << "nothing to hand out";
    EXPECT_EQ(Hooks::calls, 0);
}
