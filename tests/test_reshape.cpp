// Reshaping: thin, repeat, reverse and unique against array-walking models
// over lengths around the tile size, scripted tiles and nulls, with resets
// midway; the named rows; reverse's memory under refused allocations.
#include "support.hpp"

#include <functional>

using namespace test;

namespace {

template <class T>
struct Seq {
    std::vector<T> values;
    std::vector<bool> nulls;
    void push(const Seq &from, size_t i) { values.push_back(from.values[i]), nulls.push_back(from.nulls[i]); }
    bool operator==(const Seq &) const = default;
};

// Values 0..112 over and over, or random runs of 0..5; nulls: none, every
// fifth, or the first 130.
template <class T>
Seq<T> input(size_t n, bool runs, int nulls) {
    Seq<T> s;
    for (uint32_t i = 0, x = 7; i < n; ++i) {
        x = x * 1103515245 + 12345;
        s.values.push_back(static_cast<T>(runs ? (i && (x >> 16) % 3 ? s.values.back() : T((x >> 8) % 6)) : i % 113));
        s.nulls.push_back(nulls == 1 ? i % 5 == 2 : nulls == 2 && i < 130);
    }
    return s;
}

template <class Tag>
struct Row {
    std::string name;
    std::function<int(Iter *, Iter *)> make;
    std::function<void(const Seq<V<Tag>> &, Seq<V<Tag>> &)> model;
};

template <class Tag>
std::vector<Row<Tag>> rows() {
    using S = Seq<V<Tag>>;
    std::vector<Row<Tag>> r;
    for (auto [from, step] : {std::pair{0, 1}, {2, 3}, {5, 7}, {130, 1}, {0, 200}, {1000, 1}})
        r.push_back({"thin " + std::to_string(from) + "/" + std::to_string(step),
                     [=](Iter *o, Iter *in) { return fn::thin<Tag>(o, in, from, step); },
                     [=](const S &in, S &out) {
                         for (size_t i = from; i < in.values.size(); i += step) out.push(in, i);
                     }});
    for (size_t n : {0, 1, 3, 129})
        r.push_back({"repeat " + std::to_string(n), [=](Iter *o, Iter *in) { return fn::repeat<Tag>(o, in, n); },
                     [=](const S &in, S &out) {
                         for (size_t i = 0; i < in.values.size() * n; ++i) out.push(in, i / n);
                     }});
    r.push_back({"reverse", fn::reverse<Tag>, [](const S &in, S &out) {
                     for (size_t i = in.values.size(); i-- > 0;) out.push(in, i);
                 }});
    r.push_back({"unique", fn::unique<Tag>, [](const S &in, S &out) {
                     std::vector<V<Tag>> live;
                     for (size_t i = 0; i < in.values.size(); ++i)
                         if (!in.nulls[i]) live.push_back(in.values[i]);
                     std::unique_copy(live.begin(), live.end(), std::back_inserter(out.values));
                     out.nulls.assign(out.values.size(), false);
                 }});
    return r;
}

}  // namespace

template <class Tag>
class Reshape : public ::testing::Test {};
TYPED_TEST_SUITE(Reshape, NumericTypes);

// Full tiles but the last, then 11 and 11 again; the same after a reset taken
// one tile in, and after a reset at the end.
TYPED_TEST(Reshape, MatchTheModelsAcrossTilesWithNulls) {
    using T = V<TypeParam>;
    for (const Row<TypeParam> &row : rows<TypeParam>())
        for (size_t n : {0, 1, 5, 127, 128, 129, 255, 256, 257, 300, 700})
            for (int nulls : {0, 1, 2})
                for (std::vector<unsigned> tiles : {std::vector<unsigned>{128}, {37, 0, 90, 1, 128}}) {
                    SCOPED_TRACE(row.name + ", n " + std::to_string(n) + ", nulls " + std::to_string(nulls));
                    const Seq<T> in = input<T>(n, row.name == "unique", nulls);
                    Source<TypeParam> src(in.values, {}, tiles);
                    src.nulls = in.nulls;
                    Iter op;
                    ASSERT_EQ(row.make(&op, &src.it), 0);
                    op.next(&op);
                    ASSERT_EQ(op.reset(&op), 0);
                    const Drained<T> d = drain_replayed<T>(&op);
                    Seq<T> expected;
                    row.model(in, expected);
                    EXPECT_EQ((Seq<T>{d.values, d.nulls}), expected);
                    for (size_t t = 0; t < d.tiles.size(); ++t) EXPECT_TRUE(d.tiles[t] == 128 || t + 1 == d.tiles.size());
                    EXPECT_TRUE(d.status == QMO_SEQ_END && op.next(&op) == QMO_SEQ_END);
                    EXPECT_EQ(op.reset(&op), 0) << "gives a reversed copy back";
                }
}

TYPED_TEST(Reshape, Quirks) {
    using T = V<TypeParam>;
    using Vs = std::vector<T>;
    auto run_over = [](auto make, Vs values, std::vector<size_t> nulls = {}) {
        Source<TypeParam> src(values, nulls);
        return run<T>(make, &src.it).values;
    };
    EXPECT_EQ(run_over(fn::unique<TypeParam>, {7, 7, 0, 7, 8, 8, 7}, {2}), (Vs{7, 8, 7})) << "nulls do not break runs";
    if constexpr (is_float_v<TypeParam>) {
        const T nan = std::numeric_limits<T>::quiet_NaN();
        const Vs u = run_over(fn::unique<TypeParam>, {nan, nan, 1, T(-0.0), 0, 0});
        ASSERT_EQ(u.size(), 4u) << "NaNs all differ; -0.0 and 0.0 are equal";
        EXPECT_TRUE(std::isnan(u[0]) && std::isnan(u[1]) && u[2] == 1 && std::signbit(u[3]));
    }

    // Step 0 repeats the origin without end, reading the input once; skipped
    // tiles are read and dropped, never rewound.
    Source<TypeParam> ten(Vs{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}), wide(Vs(1000, 1));
    Iter endless, far;
    ASSERT_EQ(fn::thin<TypeParam>(&endless, &ten.it, 3, 0) | fn::thin<TypeParam>(&far, &wide.it, 300, 1), 0);
    for (int t = 0; t < 3; ++t) {
        ASSERT_TRUE(endless.next(&endless) == 0 && endless.tile_count == 128);
        for (unsigned i = 0; i < 128; ++i) EXPECT_EQ(element(&endless, i), 3);
    }
    ASSERT_EQ(far.next(&far), 0);
    EXPECT_TRUE(ten.pulls == 1 && wide.pulls == 4 && wide.resets == 0);
}

// 61 and 701 before anything is written; input errors pass through and drop
// the elements gathered before them.
TYPED_TEST(Reshape, StatusesComeFirstAndErrorsPassThrough) {
    using T = V<TypeParam>;
    using Other = std::conditional_t<std::is_same_v<TypeParam, t_int4>, t_int8, t_int4>;
    Source<Other> other(std::vector<V<Other>>{1});
    Source<TypeParam> bound(std::vector<T>{1});
    bound.it.bound = 1;
    BindingChecks on(1);
    for (const Row<TypeParam> &row : rows<TypeParam>()) {
        SCOPED_TRACE(row.name);
        expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return row.make(o, &other.it); }, {&other.it});
        expect_refused(QMO_SEQ_ALREADY_BOUND, [&](Iter *o) { return row.make(o, &bound.it); }, {});
        for (int fail_from : {1, 2}) {
            Source<TypeParam> src(std::vector<T>(200, 1), {}, {5});
            src.fail_with = 4242, src.fail_from = fail_from;
            Iter op;
            ASSERT_EQ(row.make(&op, &src.it), 0);
            EXPECT_TRUE(src.it.bound == 1 && op.elem_type == TypeParam::code_ && op.elem_size == sizeof(T));
            const Drained<T> d = drain<T>(&op);
            EXPECT_EQ(d.status, 4242);
            EXPECT_EQ(d.values.size(), row.name == "repeat 129" && fail_from == 2 ? 640u : 0u) << "5 x 129: full tiles";
        }
    }
}

// Reverse of one tile takes no memory. A longer input is read three times,
// and the record becomes an array source over a copy, still its consumer's
// operand; its reset gives the copy back. Refused memory (the buffer, then
// the bitmap), a copy shorter than the count and an error while copying
// leave nothing held; after a reset the input is read afresh.
TYPED_TEST(Reshape, ReverseCopiesAndGivesBack) {
    using T = V<TypeParam>;
    Hooks none;
    Source<TypeParam> one(std::vector<T>(128, 1), {0, 100});
    Iter op, consumer;
    ASSERT_EQ(fn::reverse<TypeParam>(&op, &one.it), 0);
    EXPECT_EQ(drain<T>(&op).nulls, [] { std::vector<bool> n(128); n[127] = n[27] = true; return n; }());
    EXPECT_TRUE(Hooks::calls == 0 && op.reset == qmo_seq_reset_unary_iterator && one.resets == 0);

    const Seq<T> in = input<T>(300, false, 1);
    const std::vector<bool> reversed(in.nulls.rbegin(), in.nulls.rend());
    for (auto [refuse, fail_with, status] : std::vector<std::tuple<int, int, int>>{
             {0, 0, 0}, {1, 0, QMO_SEQ_NO_MEMORY}, {2, 0, QMO_SEQ_NO_MEMORY}, {0, QMO_SEQ_END, QMO_SEQ_LENGTH_MISMATCH},
             {0, 4242, 4242}}) {
        SCOPED_TRACE(std::to_string(refuse) + " " + std::to_string(fail_with));
        Hooks hooks(refuse);
        BindingChecks on(1);
        Source<TypeParam> src(in.values);
        src.nulls = in.nulls, src.fail_with = fail_with, src.fail_from = 8;  // the copy's second pull
        ASSERT_EQ(fn::reverse<TypeParam>(&op, &src.it) | fn::thin<TypeParam>(&consumer, &op, 0, 1), 0);
        const qmo_seq_next_fn reverse_next = op.next;
        EXPECT_EQ(op.next(&op), status);
        if (status == 0) {
            EXPECT_TRUE(src.resets == 2 && src.pulls == 9 && Hooks::live.size() == 2 && op.next != reverse_next);
            EXPECT_TRUE(op.operand1 == &src.it && op.bound == 1 && op.last_pos == 299 && op.state[0] != 0);
        }
        EXPECT_EQ(Hooks::live.empty(), status != 0);
        ASSERT_EQ(consumer.reset(&consumer), 0);
        EXPECT_TRUE(Hooks::live.empty() && op.next == reverse_next && op.reset == qmo_seq_reset_unary_iterator);
        EXPECT_TRUE(op.buf == nullptr && op.state[0] == 0 && op.last_pos == ~uint64_t{0});
        Hooks::refuse_from = src.fail_with = 0;
        EXPECT_EQ(drain<T>(&consumer).nulls, reversed) << "read afresh after the reset";
        ASSERT_EQ(consumer.reset(&consumer), 0);
        EXPECT_TRUE(Hooks::live.empty());
    }
}
