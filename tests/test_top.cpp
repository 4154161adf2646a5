// Top-N: every operator and type against a stable sort of (value, arrival),
// prepared partitions against the merge rule, the quirks and the statuses.
#include "support.hpp"

#include <deque>
#include <tuple>

using namespace test;

namespace {

using Make = int (*)(Iter *, Iter *, uint64_t);

// Non-null (value, position) pairs stably sorted best first, cut to n.
template <class T>
std::vector<std::pair<T, uint64_t>> ranked(const std::vector<T> &x, const std::vector<size_t> &nulls, bool max,
                                           size_t n) {
    std::vector<std::pair<T, uint64_t>> r;
    for (size_t i = 0; i < x.size(); ++i)
        if (std::find(nulls.begin(), nulls.end(), i) == nulls.end()) r.push_back({x[i], i});
    std::stable_sort(r.begin(), r.end(), [max](auto a, auto b) { return max ? a.first > b.first : a.first < b.first; });
    r.resize(std::min(r.size(), n));
    return r;
}

// The merge rule: from's values that into holds are dropped, the others join in rank order, cut to n.
template <class T>
std::vector<T> merged(const std::vector<T> &into, const std::vector<T> &from, bool max, size_t n) {
    std::vector<T> r = into;
    for (T v : from)
        if (std::find(into.begin(), into.end(), v) == into.end()) r.push_back(v);
    std::stable_sort(r.begin(), r.end(), [max](T a, T b) { return max ? a > b : a < b; });
    r.resize(std::min(r.size(), n));
    return r;
}

// Values with many ties (extremes hidden under nulls), ascending and descending runs.
template <class T>
std::vector<T> column(size_t len, int shape) {
    std::vector<T> x(len);
    for (size_t i = 0; i < len; ++i)
        x[i] = static_cast<T>(shape == 0 ? (i % 7 == 3 ? (i % 2) * 120 : (i * 7919 + 13) % 37)
                              : shape == 1 ? i * 100 / len : 100 - i * 100 / len);
    return x;
}

// The first pull's status and elements; a list comes once, then 11.
struct List {
    int status;
    std::vector<double> values;
    bool operator==(const List &) const = default;
};

List pull(Iter *it) {
    List r{it->next(it), {}};
    if (r.status != 0) return r;
    for (unsigned i = 0; i < it->tile_count; ++i) r.values.push_back(element(it, i));
    EXPECT_TRUE(it->pos == it->tile_count && !it->null_bitmap[0] && !it->null_bitmap[1] && it->tile_count);
    EXPECT_EQ(it->next(it), QMO_SEQ_END);
    return r;
}

}  // namespace

template <class Tag>
class TopN : public ::testing::Test {};
TYPED_TEST_SUITE(TopN, NumericTypes);

// Ties, nulls over extremes, every value entering (ascending for max) or
// none after the first n; tiles of odd lengths; replayed after a reset.
TYPED_TEST(TopN, RankedAsAStableSortOfValueAndArrival) {
    using T = V<TypeParam>;
    const std::tuple<Make, bool, bool> ops[] = {{fn::top_max<TypeParam>, true, false},
                                                {fn::top_min<TypeParam>, false, false},
                                                {fn::top_pos_max<TypeParam>, true, true},
                                                {fn::top_pos_min<TypeParam>, false, true}};
    for (size_t len : {0, 1, 100, 129, 300})
        for (int shape : {0, 1, 2})
            for (size_t n : {0, 1, 2, 127, 128})
                for (const auto &[make, max, positions] : ops) {
                    SCOPED_TRACE(testing::Message() << len << " of shape " << shape << ", n " << n << " max " << max
                                                    << " positions " << positions);
                    const std::vector<T> x = column<T>(len, shape);
                    std::vector<size_t> nulls;
                    for (size_t i = 3; shape == 0 && i < len; i += 7) nulls.push_back(i);
                    Source<TypeParam> in(x, nulls, {37, 128, 5});
                    Iter out;
                    ASSERT_EQ(make(&out, &in.it, n), 0);
                    List want{QMO_SEQ_OK, {}};
                    for (auto [v, at] : ranked(x, nulls, max, n)) want.values.push_back(positions ? at : double(v));
                    if (want.values.empty()) want.status = QMO_SEQ_END;
                    EXPECT_EQ(pull(&out), want);
                    ASSERT_EQ(out.reset(&out), 0);
                    EXPECT_EQ(pull(&out), want) << "after a reset";
                }
}

// Partitions, two of them empty, prepared and merged into the first, against
// the merge rule folded over the partitions' own lists.
TYPED_TEST(TopN, PreparedPartitionsMergeByTheRule) {
    using T = V<TypeParam>;
    const std::vector<T> x = column<T>(300, 0);
    const size_t cuts[] = {0, 0, 90, 90, 300};
    for (auto [make, max] : {std::pair{fn::top_max<TypeParam>, true}, std::pair{fn::top_min<TypeParam>, false}})
        for (size_t n : {1, 3, 128}) {
            std::deque<Source<TypeParam>> parts;
            Iter out[4];
            std::vector<T> want;
            for (size_t p = 0; p < 4; ++p) {
                const std::vector<T> part(x.begin() + cuts[p], x.begin() + cuts[p + 1]);
                ASSERT_EQ(make(&out[p], &parts.emplace_back(part).it, n), 0);
                ASSERT_EQ(out[p].prepare(&out[p]), 0);
                std::vector<T> list;
                for (auto [v, at] : ranked(part, {}, max, n)) list.push_back(v);
                want = p ? merged(want, list, max, n) : list;
                if (p) {
                    ASSERT_EQ(out[0].merge(&out[0], &out[p]), 0);
                }
            }
            EXPECT_EQ(pull(&out[0]).values, std::vector<double>(want.begin(), want.end())) << n << " max " << max;
            EXPECT_EQ(parts[3].pulls, 3) << "handed out, not recomputed";
        }
}

TEST(TopNQuirks, EqualValuesRankByArrivalInAPassButMergeOnce) {
    Source<t_int4> a({5, 7, 7}), b({5, 7, 7}), nine_five({9, 5}), nine_four({9, 4});
    Iter top, at, into, from;
    ASSERT_EQ(qmo_seq_top_max_int4(&top, &a.it, 2) | qmo_seq_top_pos_max_int4(&at, &b.it, 2), 0);
    EXPECT_EQ(pull(&top).values, (std::vector<double>{7, 7}));
    EXPECT_EQ(pull(&at).values, (std::vector<double>{1, 2}));
    ASSERT_EQ(qmo_seq_top_max_int4(&into, &nine_five.it, 3) | qmo_seq_top_max_int4(&from, &nine_four.it, 3), 0);
    qmo_seq_prepare_aggregate(&into), qmo_seq_prepare_aggregate(&from);
    ASSERT_EQ(qmo_seq_top_max_int4_merge(&into, &from), 0);
    EXPECT_EQ(pull(&into).values, (std::vector<double>{9, 5, 4}));
    // A NaN is never better than a kept value: it takes the last place of a list with room, then holds it.
    Source<t_double> nan({1, std::nan(""), 3});
    ASSERT_EQ(qmo_seq_top_max_double(&top, &nan.it, 2), 0);
    const List r = pull(&top);
    EXPECT_TRUE(r.values.size() == 2 && r.values[0] == 1 && std::isnan(r.values[1]));
}

TEST(TopNProtocol, ChecksInOrderAndNothingWrittenBeyondTheBinding) {
    BindingChecks on(1);
    Source<t_int4> i4({1, 2}), bound({1});
    Source<t_int8> i8({1});
    bound.it.bound = 1;
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_top_min_int4(o, &i8.it, 200); }, {&i8.it});
    expect_refused(QMO_SEQ_ALREADY_BOUND, [&](Iter *o) { return qmo_seq_top_pos_max_int4(o, &bound.it, 200); }, {});
    Iter out;
    std::memset(&out, 0xAB, sizeof out);
    const Iter before = out;
    EXPECT_EQ(qmo_seq_top_max_int4(&out, &i4.it, 129), QMO_SEQ_INVALID_ARGUMENT);
    EXPECT_TRUE(i4.it.bound == 1 && std::memcmp(&out, &before, sizeof out) == 0) << "input bound, result untouched";
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
    const std::vector<int32_t> x = iota_column(300);
    for (Make make : {Make{qmo_seq_top_min_int4}, Make{qmo_seq_top_pos_min_int4}})
        for (int fail_from : {1, 3}) {
            Source<t_int4> in(x, {}, {100});
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
    EXPECT_EQ(out.next(&out), QMO_SEQ_END) << "prepared, with nothing to hand out";
    EXPECT_EQ(out.prepared, 0);
    EXPECT_EQ(Hooks::calls, 0);
}
