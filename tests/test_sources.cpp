// Array sources and the plumbing between sources and sinks: tee, concat,
// cat, limit, NaN skipping and the meta iterator.
#include "support.hpp"

#include <cmath>

using namespace test;

// ---- array sources ----------------------------------------------------------------

TEST(ArraySource, TilesOf128UntilTheLastThenEndWithTheCallersNullBits) {
    const auto values = iota_column(300);
    uint64_t nulls[5] = {0, 0, uint64_t{1} << 2, 0, 0};  // element 130: tile 2, index 2
    Iter src;
    ASSERT_EQ(qmo_seq_unget_nullable_int4(&src, values.data(), 300, nulls), 0);
    EXPECT_TRUE(src.reset == qmo_seq_unget_reset && src.buf == values.data() && src.buf_size == 1200);
    const auto d = drain_replayed<int32_t>(&src);
    EXPECT_EQ(d.tiles, (std::vector<unsigned>{128, 128, 44}));
    EXPECT_EQ(d.values, values);
    EXPECT_TRUE(std::count(d.nulls.begin(), d.nulls.end(), true) == 1 && d.nulls[130]);
    EXPECT_EQ(src.next(&src), QMO_SEQ_END) << "stays ended";
    qmo_seq_unget_int4(&src, nullptr, 0);
    EXPECT_EQ(src.next(&src), QMO_SEQ_END);
}

TEST(ArraySource, CharElementsKeepTheirWidth) {
    const char text[] = "ab\0\0cdefgh\0\0";  // three elements of width 4
    uint64_t nulls = 2, got_nulls = 0, count = 3;
    char out[12];
    Iter src;
    EXPECT_EQ(qmo_seq_unget_char(&src, text, 3, 0), QMO_SEQ_INVALID_ARGUMENT);
    EXPECT_EQ(qmo_seq_unget_nullable_char(&src, text, 3, &nulls, QMO_SEQ_MAX_CHAR_WIDTH + 1), QMO_SEQ_INVALID_ARGUMENT);
    ASSERT_EQ(qmo_seq_unget_char(&src, text, 3, 4), 0);
    EXPECT_EQ(drain<std::string>(&src).values, (std::vector<std::string>{{"ab\0\0", 4}, "cdef", {"gh\0\0", 4}}));
    ASSERT_EQ(qmo_seq_unget_nullable_char(&src, text, 3, &nulls, 4), 0);
    ASSERT_EQ(qmo_seq_get_nullable_char(&src, out, &count, &got_nulls), 0);
    EXPECT_EQ(std::string(out, 12), std::string(text, 12));
    EXPECT_EQ(got_nulls, 2u);
}

// ---- tee, concat, cat -------------------------------------------------------------

TEST(Tee, ReadersAlternatingOrOneTileApartSeeTheSameTiles) {
    const auto values = iota_column(300);
    Iter src, a, b, c, d;
    qmo_seq_unget_int4(&src, values.data(), 300);
    ASSERT_EQ(qmo_seq_tee(&a, &b, &src), 0);
    EXPECT_EQ(src.bound, 1);
    for (int pass = 0; pass < 2; ++pass) {
        // Alternating, then b one tile behind a, then b ahead: each sees tiles 0, 1, 2.
        int k = 0;
        for (Iter *r : {&a, &b, &a, &b, &b, &a}) {
            ASSERT_EQ(r->next(r), 0);
            EXPECT_EQ(r->values.i4[0], 128 * (k++ / 2));
        }
        EXPECT_TRUE(a.tile_count == 44 && a.values.i4[43] == 299);
        EXPECT_EQ(std::memcmp(a.values.i4, b.values.i4, 44 * 4), 0);
        EXPECT_EQ(a.next(&a) + b.next(&b), 2 * QMO_SEQ_END);
        ASSERT_EQ(b.reset(&b), 0);  // rewinds the twin and the source too
        EXPECT_EQ(a.pos, 0u);
    }
    BindingChecks on(1);
    EXPECT_EQ(qmo_seq_tee(&c, &d, &src), QMO_SEQ_ALREADY_BOUND);
}

TEST(Concat, PacksFullTilesAcrossTheSeamWithTheirNulls) {
    // Lengths of both streams, the first's tile length (a short tile ends it), the tiles delivered.
    using Row = std::tuple<size_t, size_t, unsigned, std::vector<unsigned>>;
    for (const auto &[first, second, first_tiles, tiles] : std::vector<Row>{
             {100, 100, 128, {128, 72}}, {100, 230, 128, {128, 128, 74}}, {0, 5, 128, {5}}, {5, 0, 128, {5}},
             {0, 0, 128, {}}, {128, 128, 128, {128, 128}}, {256, 1, 128, {128, 128, 1}}, {100, 1, 50, {51}}}) {
        SCOPED_TRACE(::testing::Message() << first << "+" << second << " in " << first_tiles);
        Source<t_int4> a(iota_column(first), std::vector<size_t>(first > 1, 1), {first_tiles});
        Source<t_int4> b(iota_column(second, 1000), std::vector<size_t>(second > 0, 0));
        Iter c;
        ASSERT_EQ(qmo_seq_concat(&c, &a.it, &b.it), 0);
        auto expected = iota_column(first_tiles < 128 ? std::min<size_t>(first, first_tiles) : first);
        const size_t seam = expected.size();
        for (int32_t v : iota_column(second, 1000)) expected.push_back(v);
        const auto d = drain_replayed<int32_t>(&c);
        EXPECT_EQ(d.tiles, tiles);
        EXPECT_EQ(d.status, QMO_SEQ_END);
        ASSERT_EQ(d.values, expected);
        for (size_t i = 0; i < d.nulls.size(); ++i) EXPECT_EQ(d.nulls[i], (i == 1 && seam > 1) || i == seam) << i;
    }
    Source<t_int4> i4({1});
    Source<t_int8> i8({1});
    CharSource w4(4, {"a"}), w5(5, {"b"});
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_concat(o, &i4.it, &i8.it); }, {&i4.it});
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_concat(o, &w4.it, &w5.it); }, {&w4.it});
}

TEST(Cat, JoinsWholeElementsKeepingTheLeftPadding) {
    CharSource l(3, {"a", "xyz"}, {1}), r(2, {"bc", "q"}), w20(20, {"a"}), w13(13, {"b"});
    const auto d = run<std::string>(qmo_seq_cat, &l.it, &r.it);
    EXPECT_EQ(d.values, (std::vector<std::string>{{"a\0\0bc", 5}, {"xyzq\0", 5}}));
    EXPECT_EQ(d.nulls, (std::vector<bool>{0, 1}));
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_cat(o, &w20.it, &w13.it); }, {&w20.it});
}

// ---- limit, skip_nan -----------------------------------------------------------------

TEST(Limit, BoundsAtInsideAndPastTheEnds) {
    for (const auto &[from, till, tiles] : std::vector<std::tuple<uint64_t, uint64_t, std::vector<unsigned>>>{
             {5, 9, {5}}, {0, 299, {128, 128, 44}}, {0, ~uint64_t{0}, {128, 128, 44}}, {100, 299, {128, 72}},
             {128, 128, {1}}, {127, 1000, {128, 45}}, {129, 135, {7}}, {299, 299, {1}}, {300, 400, {}},
             {1000, 2000, {}}}) {
        SCOPED_TRACE(::testing::Message() << from << ".." << till);
        Source<t_int4> src(iota_column(300), {130, 131});
        Iter lim;
        ASSERT_EQ(qmo_seq_limit(&lim, &src.it, from, till), 0);
        EXPECT_TRUE(lim.first_pos == from && lim.last_pos == till);
        const auto d = drain_replayed<int32_t>(&lim);
        EXPECT_EQ(d.tiles, tiles);
        EXPECT_EQ(d.status, QMO_SEQ_END);
        for (size_t i = 0; i < d.values.size(); ++i) {
            ASSERT_EQ(d.values[i], int32_t(from + i));
            ASSERT_EQ(d.nulls[i], d.values[i] == 130 || d.values[i] == 131);
        }
        EXPECT_TRUE(from != 128 || src.pulls == 2 * 2) << "a tile boundary at the lower bound costs one more pull";
    }
}

TEST(SkipNaN, DropsNaNAndNullsIntoFullTilesWithoutNulls) {
    const double nan = std::nan("");
    Source<t_double> s({1, nan, 99, 2}, {2}), all_nan({nan, nan});
    Source<t_int4> i4({1});
    const auto d = run<double>(qmo_seq_skip_nan_double, &s.it);
    EXPECT_EQ(d.values, (std::vector<double>{1, 2}));
    EXPECT_EQ(d.nulls, (std::vector<bool>{0, 0}));
    std::vector<float> v(1000);
    for (size_t i = 0; i < v.size(); ++i) v[i] = i % 3 == 0 ? std::nanf("") : float(i);
    Source<t_float> f(v, {}, {50, 0, 100, 128});  // an empty tile among them
    const auto e = run<float>(qmo_seq_skip_nan_float, &f.it);
    EXPECT_TRUE(e.values.size() == 666 && e.values[1] == 2.0f);
    EXPECT_EQ(e.tiles, (std::vector<unsigned>{128, 128, 128, 128, 128, 26}));
    Iter out;
    EXPECT_EQ(qmo_seq_skip_nan_float(&out, &all_nan.it), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(qmo_seq_skip_nan_double(&out, &i4.it), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(run<double>(qmo_seq_skip_nan_double, &all_nan.it).tiles.size(), 0u);
}

// ---- meta iterator ----------------------------------------------------------------

namespace {

// A core-side meta object over a list of arrays, empty ones included.
struct ArrayList {
    qmo_seq_meta_t meta{};
    std::vector<std::vector<int32_t>> parts;
    size_t current = 0;
    int starts = 0;

    static int open(qmo_seq_meta_t *m, size_t part) {
        auto *l = reinterpret_cast<ArrayList *>(m);
        if ((l->current = part) >= l->parts.size()) return QMO_SEQ_END;
        return qmo_seq_unget_int4(&m->inner, l->parts[part].data(), l->parts[part].size());
    }
    void attach(Iter *it) {
        meta.start = [](qmo_seq_meta_t *m) { return ++reinterpret_cast<ArrayList *>(m)->starts, open(m, 0); };
        meta.advance = [](qmo_seq_meta_t *m) { return open(m, reinterpret_cast<ArrayList *>(m)->current + 1); };
        *it = Iter{};
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
    const auto d = drain_replayed<int32_t>(&it);
    EXPECT_EQ(d.tiles, (std::vector<unsigned>{128, 128, 73}));
    EXPECT_EQ(d.values, expected);
    EXPECT_EQ(it.next(&it), QMO_SEQ_END) << "finished stays finished";
    EXPECT_EQ(list.starts, 2);
}
