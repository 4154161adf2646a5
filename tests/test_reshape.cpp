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
    bool operator==(const Seq &) const = default;
    void push(const Seq &from, size_t i) { values.push_back(from.values[i]), nulls.push_back(from.nulls[i]); }
};

template <class Tag>
struct Row {
    std::string name;
    std::function<int(Iter *, Iter *)> make;
    std::function<Seq<V<Tag>>(const Seq<V<Tag>> &)> model;
};

template <class Tag>
std::vector<Row<Tag>> rows() {
    using S = Seq<V<Tag>>;
    std::vector<Row<Tag>> r;
    for (auto [origin, step] : {std::pair{0, 1}, {2, 3}, {5, 7}, {130, 1}, {0, 200}, {1000, 1}})
        r.push_back({"thin " + std::to_string(origin) + "/" + std::to_string(step),
                     [=](Iter *o, Iter *in) { return fn::thin<Tag>(o, in, origin, step); }, [=](const S &in) {
                         S out;
                         for (size_t i = origin; i < in.values.size(); i += step) out.push(in, i);
                         return out;
                     }});
    for (size_t n : {0, 1, 3, 129})
        r.push_back({"repeat " + std::to_string(n), [=](Iter *o, Iter *in) { return fn::repeat<Tag>(o, in, n); },
                     [=](const S &in) {
                         S out;
                         for (size_t i = 0; i < in.values.size() * n; ++i) out.push(in, i / n);
                         return out;
                     }});
    r.push_back({"reverse", fn::reverse<Tag>, [](const S &in) {
                     S out;
                     for (size_t i = in.values.size(); i-- > 0;) out.push(in, i);
                     return out;
                 }});
    r.push_back({"unique", fn::unique<Tag>, [](const S &in) {
                     std::vector<V<Tag>> live;
                     for (size_t i = 0; i < in.values.size(); ++i)
                         if (!in.nulls[i]) live.push_back(in.values[i]);
                     S out;
                     std::unique_copy(live.begin(), live.end(), std::back_inserter(out.values));
                     out.nulls.assign(out.values.size(), false);
                     return out;
                 }});
    return r;
}

// Values 0..112 over and over, or random runs of 0..5 (for unique).
template <class T>
Seq<T> input(size_t n, bool runs, int nulls) {
    Seq<T> s;
    uint32_t x = 7;
    for (size_t i = 0; i < n; ++i) {
        x = x * 1103515245 + 12345;
        s.values.push_back(static_cast<T>(runs ? (i && (x >> 16) % 3 ? s.values.back() : T((x >> 8) % 6)) : i % 113));
        s.nulls.push_back(nulls == 1 ? i % 5 == 2 : nulls == 2 && i < 130);
    }
    return s;
}

template <class T>
Seq<T> seq_of(const Drained<T> &d) {
    return {d.values, d.nulls};
}

template <class T>
std::vector<T> tile_values(const Iter &it) {
    return {reinterpret_cast<const T *>(it.values.bytes), reinterpret_cast<const T *>(it.values.bytes) + it.tile_count};
}

std::vector<size_t> null_positions(const std::vector<bool> &nulls) {
    std::vector<size_t> at;
    for (size_t i = 0; i < nulls.size(); ++i)
        if (nulls[i]) at.push_back(i);
    return at;
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
                    SCOPED_TRACE(row.name + ", " + std::to_string(n) + " elements, nulls " + std::to_string(nulls) +
                                 ", tiles " + std::to_string(tiles.size()));
                    const Seq<T> in = input<T>(n, row.name == "unique", nulls);
                    Source<TypeParam> src(in.values, null_positions(in.nulls), tiles);
                    Iter op;
                    ASSERT_EQ(row.make(&op, &src.it), 0);
                    op.next(&op);
                    ASSERT_EQ(op.reset(&op), 0);
                    const Drained<T> d = drain_replayed<T>(&op);
                    EXPECT_EQ(seq_of(d), row.model(in));
                    for (size_t t = 0; t + 1 < d.tiles.size(); ++t) EXPECT_EQ(d.tiles[t], 128u);
                    EXPECT_TRUE(d.tiles.empty() || d.tiles.back() > 0);
                    EXPECT_EQ(d.status, QMO_SEQ_END);
                    EXPECT_EQ(op.next(&op), QMO_SEQ_END);
                }
}

TYPED_TEST(Reshape, NamedRows) {
    using T = V<TypeParam>;
    const std::vector<T> ten = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    auto run_over = [](auto make, std::vector<T> values, std::vector<size_t> nulls = {}) {
        Source<TypeParam> src(values, nulls);
        return run<T>(make, &src.it).values;
    };
    EXPECT_EQ(run_over([](Iter *o, Iter *i) { return fn::thin<TypeParam>(o, i, 2, 3); }, ten), (std::vector<T>{2, 5, 8}));
    EXPECT_EQ(run_over([](Iter *o, Iter *i) { return fn::repeat<TypeParam>(o, i, 3); }, {4, 5}),
              (std::vector<T>{4, 4, 4, 5, 5, 5}));
    EXPECT_EQ(run_over(fn::unique<TypeParam>, {7, 7, 0, 7, 8, 8, 7}, {2}), (std::vector<T>{7, 8, 7}));
    EXPECT_EQ(run_over(fn::unique<TypeParam>, {1, 1, 2, 1}), (std::vector<T>{1, 2, 1}));
    EXPECT_EQ(run_over(fn::unique<TypeParam>, {1, 2, 1}, {1}), (std::vector<T>{1})) << "a null does not break a run";
    if constexpr (is_float_v<TypeParam>) {
        const T nan = std::numeric_limits<T>::quiet_NaN();
        const std::vector<T> u = run_over(fn::unique<TypeParam>, {nan, nan, 1, T(-0.0), 0, 0});
        ASSERT_EQ(u.size(), 4u) << "NaNs all differ; -0.0 and 0.0 are equal";
        EXPECT_TRUE(std::isnan(u[0]) && std::isnan(u[1]) && u[2] == 1 && std::signbit(u[3]));
    }

    // Step 0 repeats the origin without end, reading the input once.
    Source<TypeParam> src(ten);
    Iter thin;
    ASSERT_EQ(fn::thin<TypeParam>(&thin, &src.it, 3, 0), 0);
    for (int t = 0; t < 3; ++t) {
        ASSERT_EQ(thin.next(&thin), 0);
        EXPECT_TRUE(thin.tile_count == 128 && tile_values<T>(thin) == std::vector<T>(128, 3));
    }
    EXPECT_EQ(src.pulls, 1);

    // Skipped tiles are read and dropped, never rewound.
    Source<TypeParam> long_src(std::vector<T>(1000, 1));
    ASSERT_EQ(fn::thin<TypeParam>(&thin, &long_src.it, 300, 1), 0);
    ASSERT_EQ(thin.next(&thin), 0);
    EXPECT_TRUE(long_src.pulls == 4 && long_src.resets == 0 && thin.tile_count == 128);
}

// 61 and 701 before anything is written; input errors pass through, the
// elements gathered before them dropped.
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
            EXPECT_EQ(d.values.size(), row.name == "repeat 129" && fail_from == 2 ? 640u : 0u) << "5 x 129: full tiles only";
        }
    }
}

// One tile comes back mirrored without memory; a longer input is read three
// times and the record becomes an array source over a copy that its reset
// gives back, so the next pull reads the input afresh.
TYPED_TEST(Reshape, ReverseCopiesLongInputsAndItsResetGivesTheCopyBack) {
    using T = V<TypeParam>;
    Hooks hooks;
    Iter op;
    Source<TypeParam> one(std::vector<T>(128, 1), {0, 100});
    ASSERT_EQ(fn::reverse<TypeParam>(&op, &one.it), 0);
    std::vector<bool> mirrored(128);
    mirrored[127] = mirrored[27] = true;
    EXPECT_EQ(drain<T>(&op).nulls, mirrored);
    EXPECT_TRUE(Hooks::calls == 0 && op.reset == qmo_seq_reset_unary_iterator && one.resets == 0);

    Source<TypeParam> src(input<T>(300, false, 0).values, {0, 130, 299});
    ASSERT_EQ(fn::reverse<TypeParam>(&op, &src.it), 0);
    const qmo_seq_next_fn reverse_next = op.next;
    ASSERT_EQ(op.next(&op), 0);
    EXPECT_TRUE(src.resets == 2 && src.pulls == 9 && Hooks::live.size() == 2);
    EXPECT_TRUE(op.next != reverse_next && op.reset != qmo_seq_reset_unary_iterator && op.operand1 == &src.it);
    EXPECT_TRUE(op.last_pos == 299 && op.state[0] != 0 && op.buf_size == 300 * sizeof(T));
    ASSERT_EQ(op.reset(&op), 0);
    EXPECT_TRUE(Hooks::live.empty() && op.next == reverse_next && op.reset == qmo_seq_reset_unary_iterator);
    EXPECT_TRUE(src.resets == 3 && op.last_pos == ~uint64_t{0} && op.buf == nullptr && op.state[0] == 0);
}

// Refused memory (the buffer, then the bitmap), a copy shorter than the
// count and an error while copying: each status, and nothing held after.
TYPED_TEST(Reshape, ReverseFailuresLeaveNothingBehind) {
    using T = V<TypeParam>;
    const Seq<T> in = input<T>(300, false, 1);
    std::vector<bool> reversed(in.nulls.rbegin(), in.nulls.rend());
    for (auto [refuse, fail_with, status] : std::vector<std::tuple<int, int, int>>{
             {1, 0, QMO_SEQ_NO_MEMORY}, {2, 0, QMO_SEQ_NO_MEMORY}, {3, 0, 0}, {0, QMO_SEQ_END, QMO_SEQ_LENGTH_MISMATCH},
             {0, 4242, 4242}}) {
        SCOPED_TRACE(std::to_string(refuse) + " " + std::to_string(fail_with));
        Hooks hooks(refuse);
        Source<TypeParam> src(in.values, null_positions(in.nulls));
        src.fail_with = fail_with, src.fail_from = 8;  // the copy's second pull
        Iter op;
        ASSERT_EQ(fn::reverse<TypeParam>(&op, &src.it), 0);
        EXPECT_EQ(op.next(&op), status);
        if (status) {
            EXPECT_TRUE(Hooks::live.empty() && op.buf == nullptr && op.reset == qmo_seq_reset_unary_iterator);
        }
        ASSERT_EQ(op.reset(&op), 0);
        EXPECT_TRUE(Hooks::live.empty());
        Hooks::refuse_from = src.fail_with = 0;
        EXPECT_EQ(drain<T>(&op).nulls, reversed) << "read afresh after the reset";
        ASSERT_EQ(op.reset(&op), 0);
        EXPECT_TRUE(Hooks::live.empty());
    }
}

// Turned into a source, reverse keeps its place in the tree: still bound to
// its consumer, still resetting its input; and it serves the bulk readers.
TYPED_TEST(Reshape, ReverseStaysInItsTree) {
    using T = V<TypeParam>;
    BindingChecks on(1);
    const Seq<T> in = input<T>(300, false, 1);
    uint64_t bits[5] = {};
    for (size_t i : null_positions(in.nulls)) bits[i / 64] |= uint64_t{1} << (i % 64);
    Iter src, rev, thin;
    ASSERT_EQ(fn::unget_nullable<TypeParam>(&src, in.values.data(), 300, bits), 0);
    ASSERT_EQ(fn::reverse<TypeParam>(&rev, &src) | fn::thin<TypeParam>(&thin, &rev, 1, 2), 0);
    Seq<T> expected;
    for (size_t i = 298; i < 300; i -= 2) expected.push(in, i);
    EXPECT_EQ(seq_of(drain_replayed<T>(&thin)), expected);
    EXPECT_TRUE(rev.bound == 1 && rev.operand1 == &src);

    Iter fresh_src, fresh;
    ASSERT_EQ(fn::unget_nullable<TypeParam>(&fresh_src, in.values.data(), 300, bits), 0);
    ASSERT_EQ(fn::reverse<TypeParam>(&fresh, &fresh_src), 0);
    std::vector<T> out(400);
    uint64_t count = out.size(), nulls[7];
    ASSERT_EQ(fn::get_nullable<TypeParam>(&fresh, out.data(), &count, nulls), 0);
    ASSERT_EQ(count, 300u);
    EXPECT_TRUE(std::equal(out.begin(), out.begin() + 300, in.values.rbegin()));
    for (size_t r = 0; r < 300; ++r) EXPECT_EQ((nulls[r / 64] >> (r % 64)) & 1, in.nulls[299 - r]) << r;
    ASSERT_EQ(fresh.reset(&fresh), 0);
}
