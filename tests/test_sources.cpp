// Array sources and sinks, and the plumbing between them: tee, concat, cat,
// limit, NaN skipping and the meta iterator.
#include "support.hpp"

#include <cmath>
#include <numeric>

using namespace test;

namespace {

// Element i is i (wrapped to the type), every seventh element null.
template <class T>
struct Column {
    std::vector<T> values;
    std::vector<uint64_t> nulls;
    explicit Column(size_t n) : values(n), nulls((n + 63) / 64 + 1) {
        for (size_t i = 0; i < n; ++i) {
            values[i] = static_cast<T>(i % 1000);
            if (i % 7 == 3) nulls[i / 64] |= uint64_t{1} << (i % 64);
        }
    }
    bool null(size_t i) const { return (nulls[i / 64] >> (i % 64)) & 1; }
};

std::vector<int32_t> iota_column(size_t n) {
    std::vector<int32_t> v(n);
    std::iota(v.begin(), v.end(), 0);
    return v;
}

const std::vector<size_t> kLengths = {0, 1, 127, 128, 129, 300, 100000};

}  // namespace

// ---- array in, array out --------------------------------------------------------

template <class Tag>
class RoundTrip : public ::testing::Test {};
TYPED_TEST_SUITE(RoundTrip, NumericTypes);

TYPED_TEST(RoundTrip, NullableArrayThroughNullableSinkKeepsValuesAndNulls) {
    using T = V<TypeParam>;
    for (size_t n : kLengths) {
        SCOPED_TRACE(n);
        Column<T> in(n);
        Iter src;
        ASSERT_EQ(NumApi<TypeParam>::unget_nullable(&src, in.values.data(), n, in.nulls.data()), 0);
        EXPECT_EQ(src.last_pos, n - 1);
        std::vector<T> out(n + 5);
        std::vector<uint64_t> nulls((n + 5 + 63) / 64, ~uint64_t{0});
        uint64_t count = out.size();
        ASSERT_EQ(Api<TypeParam>::get_nullable(&src, out.data(), &count, nulls.data()),
                  n ? QMO_SEQ_OK : QMO_SEQ_END);
        ASSERT_EQ(count, n);
        for (size_t i = 0; i < n; ++i) {
            ASSERT_EQ(out[i], in.values[i]) << i;
            ASSERT_EQ((nulls[i / 64] >> (i % 64)) & 1, uint64_t{in.null(i)}) << i;
        }
        for (size_t i = n; i < out.size(); ++i) ASSERT_EQ((nulls[i / 64] >> (i % 64)) & 1, 0u) << "cleared";
    }
}

TYPED_TEST(RoundTrip, PlainSinkDropsNullsInOrder) {
    using T = V<TypeParam>;
    Column<T> in(300);
    Iter src;
    NumApi<TypeParam>::unget_nullable(&src, in.values.data(), 300, in.nulls.data());
    std::vector<T> out(300);
    uint64_t count = out.size();
    ASSERT_EQ(Api<TypeParam>::get(&src, out.data(), &count), 0);
    std::vector<T> expected;
    for (size_t i = 0; i < 300; ++i)
        if (!in.null(i)) expected.push_back(in.values[i]);
    out.resize(count);
    EXPECT_EQ(out, expected);
}

TEST(ArraySource, TilesOf128UntilTheLastThenEnd) {
    const auto values = iota_column(300);
    Iter src;
    ASSERT_EQ(qmo_seq_unget_int4(&src, values.data(), 300), 0);
    EXPECT_EQ(src.reset, qmo_seq_unget_reset);
    EXPECT_EQ(src.buf, values.data());
    EXPECT_EQ(src.buf_size, 1200u);
    auto d = drain<int32_t>(&src);
    EXPECT_EQ(d.tiles, (std::vector<unsigned>{128, 128, 44}));
    EXPECT_EQ(d.values, values);
    EXPECT_EQ(src.next(&src), QMO_SEQ_END) << "stays ended";
    ASSERT_EQ(src.reset(&src), 0);
    EXPECT_EQ(drain<int32_t>(&src).values, values);

    Iter empty;
    qmo_seq_unget_int4(&empty, nullptr, 0);
    EXPECT_EQ(empty.next(&empty), QMO_SEQ_END);
}

TEST(ArraySource, NullBitsComeFromTheCallersBitmapAtAnyOffset) {
    const auto values = iota_column(300);
    uint64_t nulls[5] = {0, 0, uint64_t{1} << 2, 0, 0};  // element 130
    Iter src;
    qmo_seq_unget_nullable_int4(&src, values.data(), 300, nulls);
    ASSERT_EQ(src.next(&src), 0);
    EXPECT_EQ(src.null_bitmap[0] | src.null_bitmap[1], 0u);
    ASSERT_EQ(src.next(&src), 0);
    EXPECT_EQ(src.null_bitmap[0], uint64_t{1} << 2);
    EXPECT_EQ(src.null_bitmap[1], 0u);
}

TEST(ArraySource, CharElementsKeepTheirWidth) {
    const char text[] = "ab\0\0cdefgh\0\0";  // three elements of width 4
    Iter src;
    EXPECT_EQ(qmo_seq_unget_char(&src, text, 3, 0), QMO_SEQ_INVALID_ARGUMENT);
    ASSERT_EQ(qmo_seq_unget_char(&src, text, 3, 4), 0);
    EXPECT_EQ(src.elem_size, 4);
    EXPECT_EQ(drain_chars(&src), (std::vector<std::string>{std::string("ab\0\0", 4), "cdef", std::string("gh\0\0", 4)}));
    uint64_t nulls = 2;
    char out[12];
    uint64_t got_nulls = 0, count = 3;
    ASSERT_EQ(qmo_seq_unget_nullable_char(&src, text, 3, &nulls, 4), 0);
    ASSERT_EQ(qmo_seq_get_nullable_char(&src, out, &count, &got_nulls), 0);
    EXPECT_EQ(std::string(out, 12), std::string(text, 12));
    EXPECT_EQ(got_nulls, 2u);
}

TEST(NullableSink, RoomBeyondTheSequenceStoresWhatThereIs) {
    const auto values = iota_column(3);
    Iter src;
    qmo_seq_unget_int4(&src, values.data(), 3);
    int32_t out[5];
    uint64_t nulls = ~uint64_t{0}, count = 5;
    ASSERT_EQ(qmo_seq_get_nullable_int4(&src, out, &count, &nulls), 0);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(nulls, 0u);
    count = 0;
    EXPECT_EQ(qmo_seq_get_nullable_int4(&src, out, &count, &nulls), 0);
}

TEST(NullableSink, SmallRoomResumesMidTile) {
    Column<int16_t> in(300);
    Iter src;
    qmo_seq_unget_nullable_int2(&src, in.values.data(), 300, in.nulls.data());
    std::vector<int16_t> got;
    std::vector<bool> got_nulls;
    int rc;
    do {
        int16_t chunk[50];
        uint64_t nulls = 0, count = 50;
        rc = qmo_seq_get_nullable_int2(&src, chunk, &count, &nulls);
        for (uint64_t i = 0; i < count; ++i) {
            got.push_back(chunk[i]);
            got_nulls.push_back((nulls >> i) & 1);
        }
    } while (rc == 0);
    EXPECT_EQ(rc, QMO_SEQ_END);
    ASSERT_EQ(got, in.values);
    for (size_t i = 0; i < 300; ++i) ASSERT_EQ(got_nulls[i], in.null(i)) << i;
}

// ---- tee ------------------------------------------------------------------------

TEST(Tee, ReadersAlternatingOrOneTileApartSeeTheSameTiles) {
    const auto values = iota_column(300);
    Iter src, a, b;
    qmo_seq_unget_int4(&src, values.data(), 300);
    ASSERT_EQ(qmo_seq_tee(&a, &b, &src), 0);
    EXPECT_EQ(a.operand2, &b);
    EXPECT_EQ(b.operand2, &a);
    EXPECT_EQ(src.bound, 1);
    // Alternating, then b one tile behind a.
    ASSERT_EQ(a.next(&a), 0);
    ASSERT_EQ(b.next(&b), 0);
    EXPECT_EQ(std::memcmp(a.values.i4, b.values.i4, 128 * 4), 0);
    ASSERT_EQ(a.next(&a), 0);
    EXPECT_EQ(a.values.i4[0], 128);
    ASSERT_EQ(b.next(&b), 0);
    EXPECT_EQ(b.values.i4[0], 128);
    EXPECT_EQ(b.pos, 256u);
    ASSERT_EQ(b.next(&b), 0) << "b leads now";
    ASSERT_EQ(a.next(&a), 0);
    EXPECT_EQ(a.tile_count, 44);
    EXPECT_EQ(a.values.i4[43], 299);
    EXPECT_EQ(a.next(&a), QMO_SEQ_END);
    EXPECT_EQ(b.next(&b), QMO_SEQ_END);
}

TEST(Tee, ResetRewindsBothReadersAndTheSource) {
    const auto values = iota_column(200);
    Iter src, a, b;
    qmo_seq_unget_int4(&src, values.data(), 200);
    qmo_seq_tee(&a, &b, &src);
    drain<int32_t>(&a);
    ASSERT_EQ(a.reset(&a), 0);
    EXPECT_EQ(b.pos, 0u);
    for (int k = 0; k < 2; ++k) {
        ASSERT_EQ(b.next(&b), 0);
        ASSERT_EQ(a.next(&a), 0);
        EXPECT_EQ(a.values.i4[0], 128 * k);
        EXPECT_EQ(std::memcmp(a.values.i4, b.values.i4, size_t{a.tile_count} * 4), 0);
    }
}

TEST(Tee, BoundSourceIsRefused) {
    BindingChecks on(1);
    Source<t_int4> s({1});
    s.it.bound = 1;
    Iter a, b;
    EXPECT_EQ(qmo_seq_tee(&a, &b, &s.it), QMO_SEQ_ALREADY_BOUND);
}

// ---- concat ---------------------------------------------------------------------

TEST(Concat, PacksFullTilesAcrossTheSeam) {
    const auto first = iota_column(100), second = iota_column(230);
    Iter a, b, c;
    qmo_seq_unget_int4(&a, first.data(), 100);
    qmo_seq_unget_int4(&b, second.data(), 230);
    ASSERT_EQ(qmo_seq_concat(&c, &a, &b), 0);
    auto expected = first;
    expected.insert(expected.end(), second.begin(), second.end());
    auto d = drain<int32_t>(&c);
    EXPECT_EQ(d.tiles, (std::vector<unsigned>{128, 128, 74}));
    EXPECT_EQ(d.values, expected);
    ASSERT_EQ(c.reset(&c), 0);
    EXPECT_EQ(drain<int32_t>(&c).values, expected) << "reset reads the first stream again";
}

TEST(Concat, LengthsAroundTheTileSize) {
    struct Row {
        size_t first, second;
        std::vector<unsigned> tiles;
    };
    for (const Row &row : std::vector<Row>{{100, 100, {128, 72}},
                                           {0, 5, {5}},
                                           {5, 0, {5}},
                                           {0, 0, {}},
                                           {128, 128, {128, 128}},
                                           {256, 1, {128, 128, 1}}}) {
        SCOPED_TRACE(::testing::Message() << row.first << "+" << row.second);
        const auto x = iota_column(row.first), y = iota_column(row.second);
        Iter a, b, c;
        qmo_seq_unget_int4(&a, x.data(), x.size());
        qmo_seq_unget_int4(&b, y.data(), y.size());
        ASSERT_EQ(qmo_seq_concat(&c, &a, &b), 0);
        const auto d = drain<int32_t>(&c);
        EXPECT_EQ(d.tiles, row.tiles);
        EXPECT_EQ(d.status, QMO_SEQ_END);
    }
}

TEST(Concat, NullBitsFollowTheirElements) {
    Source<t_int4> a({1, 2, 3}, {1}), b({4, 5}, {0});
    Iter c;
    ASSERT_EQ(qmo_seq_concat(&c, &a.it, &b.it), 0);
    const auto d = drain<int32_t>(&c);
    EXPECT_EQ(d.values, (std::vector<int32_t>{1, 2, 3, 4, 5}));
    EXPECT_EQ(d.nulls, (std::vector<bool>{false, true, false, true, false}));
}

TEST(Concat, AShortTileEndsTheFirstStream) {
    // The first stream delivers 50 then 50 more: the second 50 are never read.
    Source<t_int4> a(iota_column(100), {}, {50}), b({7});
    Iter c;
    ASSERT_EQ(qmo_seq_concat(&c, &a.it, &b.it), 0);
    EXPECT_EQ(drain<int32_t>(&c).values.size(), 51u);
}

TEST(Concat, TypesAndWidthsMustMatch) {
    Source<t_int4> i4({1});
    Source<t_int8> i8({1});
    CharSource w4(4, {"a"}), w5(5, {"b"});
    Iter c;
    EXPECT_EQ(qmo_seq_concat(&c, &i4.it, &i8.it), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(qmo_seq_concat(&c, &w4.it, &w5.it), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(i4.it.bound, 0);
}

// ---- cat ------------------------------------------------------------------------

TEST(Cat, JoinsWholeElementsKeepingTheLeftPadding) {
    CharSource l(3, {"a", "xyz"}, {1}), r(2, {"bc", "q"});
    Iter out;
    ASSERT_EQ(qmo_seq_cat(&out, &l.it, &r.it), 0);
    EXPECT_EQ(out.elem_size, 5);
    ASSERT_EQ(out.next(&out), 0);
    EXPECT_EQ(std::string(out.values.bytes, 10), std::string("a\0\0bcxyzq\0", 10));
    EXPECT_EQ(out.null_bitmap[0], 2u);
    CharSource w20(20, {"a"}), w13(13, {"b"});
    EXPECT_EQ(qmo_seq_cat(&out, &w20.it, &w13.it), QMO_SEQ_TYPE_MISMATCH);
}

// ---- limit ----------------------------------------------------------------------

TEST(Limit, BoundsAtInsideAndPastTheEnds) {
    struct Row {
        uint64_t from, till;
        std::vector<unsigned> tiles;
        int32_t first;
    };
    const std::vector<Row> rows = {
        {5, 9, {5}, 5},
        {0, 299, {128, 128, 44}, 0},
        {0, ~uint64_t{0}, {128, 128, 44}, 0},
        {100, 299, {128, 72}, 100},
        {128, 128, {1}, 128},
        {127, 1000, {128, 45}, 127},
        {299, 299, {1}, 299},
        {300, 400, {}, 0},
        {1000, 2000, {}, 0},
    };
    const auto values = iota_column(300);
    for (const Row &row : rows) {
        SCOPED_TRACE(::testing::Message() << row.from << ".." << row.till);
        Iter src, lim;
        qmo_seq_unget_int4(&src, values.data(), 300);
        ASSERT_EQ(qmo_seq_limit(&lim, &src, row.from, row.till), 0);
        EXPECT_EQ(lim.first_pos, row.from);
        EXPECT_EQ(lim.last_pos, row.till);
        const auto d = drain<int32_t>(&lim);
        EXPECT_EQ(d.tiles, row.tiles);
        EXPECT_EQ(d.status, QMO_SEQ_END);
        if (!d.values.empty()) {
            EXPECT_EQ(d.values.front(), row.first);
            EXPECT_EQ(d.values.back(), row.first + int32_t(d.values.size()) - 1);
        }
    }
}

TEST(Limit, CarriesNullBitsAndReplaysAfterReset) {
    Source<t_int4> s(iota_column(300), {130, 131});
    Iter lim;
    ASSERT_EQ(qmo_seq_limit(&lim, &s.it, 129, 135), 0);
    auto d = drain<int32_t>(&lim);
    EXPECT_EQ(d.nulls, (std::vector<bool>{false, true, true, false, false, false, false}));
    ASSERT_EQ(lim.reset(&lim), 0);
    EXPECT_EQ(drain<int32_t>(&lim).values, d.values);
}

TEST(Limit, ATileBoundaryAtTheLowerBoundCostsOneMorePull) {
    Source<t_int4> s(iota_column(300));
    Iter lim;
    qmo_seq_limit(&lim, &s.it, 128, 130);
    ASSERT_EQ(lim.next(&lim), 0);
    EXPECT_EQ(s.pulls, 2);
    EXPECT_EQ(lim.values.i4[0], 128);
}

// ---- skip_nan -------------------------------------------------------------------

TEST(SkipNaN, DropsNaNAndNullsAndNeverEmitsNulls) {
    const double nan = std::nan("");
    Source<t_double> s({1, nan, 99, 2}, {2});
    Iter out;
    ASSERT_EQ(qmo_seq_skip_nan_double(&out, &s.it), 0);
    const auto d = drain<double>(&out);
    EXPECT_EQ(d.values, (std::vector<double>{1, 2}));
    EXPECT_EQ(d.nulls, (std::vector<bool>{false, false}));
    EXPECT_EQ(out.pos, 2u);
}

TEST(SkipNaN, GathersFullTilesAcrossInputTilesAndSkipsEmptyOnes) {
    std::vector<float> v(1000);
    size_t kept = 0;
    for (size_t i = 0; i < v.size(); ++i) {
        v[i] = i % 3 == 0 ? std::nanf("") : float(i);
        kept += i % 3 != 0;
    }
    Source<t_float> s(v, {}, {50, 0, 100, 128});
    Iter out;
    ASSERT_EQ(qmo_seq_skip_nan_float(&out, &s.it), 0);
    const auto d = drain<float>(&out);
    EXPECT_EQ(d.values.size(), kept);
    for (size_t k = 0; k + 1 < d.tiles.size(); ++k) EXPECT_EQ(d.tiles[k], 128u);
    EXPECT_EQ(d.values[1], 2.0f);
}

TEST(SkipNaN, OnlyFloatingTypesAndAllNaNEndsAtOnce) {
    Source<t_double> s({std::nan(""), std::nan("")});
    Source<t_int4> i4({1});
    Iter out;
    EXPECT_EQ(qmo_seq_skip_nan_float(&out, &s.it), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(qmo_seq_skip_nan_double(&out, &i4.it), QMO_SEQ_TYPE_MISMATCH);
    ASSERT_EQ(qmo_seq_skip_nan_double(&out, &s.it), 0);
    EXPECT_EQ(out.next(&out), QMO_SEQ_END);
}

// ---- meta iterator ----------------------------------------------------------------

namespace {

// A core-side meta object over a list of arrays; empty ones included.
struct ArrayList {
    qmo_seq_meta_t meta{};
    std::vector<std::vector<int32_t>> parts;
    size_t current = 0;
    int starts = 0;

    static ArrayList *self(qmo_seq_meta_t *m) { return reinterpret_cast<ArrayList *>(m); }
    static int start(qmo_seq_meta_t *m) {
        ++self(m)->starts;
        self(m)->current = 0;
        return qmo_seq_unget_int4(&m->inner, self(m)->parts[0].data(), self(m)->parts[0].size());
    }
    static int advance(qmo_seq_meta_t *m) {
        ArrayList *l = self(m);
        if (++l->current >= l->parts.size()) return QMO_SEQ_END;
        return qmo_seq_unget_int4(&m->inner, l->parts[l->current].data(), l->parts[l->current].size());
    }
    void attach(Iter *it) {
        meta.start = start;
        meta.advance = advance;
        std::memset(it, 0, sizeof *it);
        it->next = qmo_seq_meta_iterator_next;
        it->reset = qmo_seq_meta_iterator_reset;
        it->elem_type = QMO_SEQ_TYPE_INT4;
        it->elem_size = 4;
        it->state[0] = reinterpret_cast<uintptr_t>(&meta);
    }
};
static_assert(offsetof(ArrayList, meta) == 0);

}  // namespace

TEST(MetaIterator, FlattensSubSequencesIntoFullTiles) {
    ArrayList list;
    list.parts = {iota_column(100), {}, iota_column(200), iota_column(0), iota_column(29)};
    Iter it;
    list.attach(&it);
    std::vector<int32_t> expected;
    for (const auto &p : list.parts) expected.insert(expected.end(), p.begin(), p.end());
    auto d = drain<int32_t>(&it);
    EXPECT_EQ(d.tiles, (std::vector<unsigned>{128, 128, 73}));
    EXPECT_EQ(d.values, expected);
    EXPECT_EQ(it.next(&it), QMO_SEQ_END) << "finished stays finished";
    ASSERT_EQ(it.reset(&it), 0);
    EXPECT_EQ(drain<int32_t>(&it).values, expected);
    EXPECT_EQ(list.starts, 2);
}
