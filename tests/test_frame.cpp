// The record, constants, element readers, bindings, allocation hooks and the
// library's resets.
#include "support.hpp"

#include <cstddef>
#include <map>

using namespace test;

// ---- the record is ABI: field order, widths and offsets ---------------------

static_assert(offsetof(qmo_seq_iterator_t, next) == 0);
static_assert(offsetof(qmo_seq_iterator_t, reset) == 8);
static_assert(offsetof(qmo_seq_iterator_t, prepare) == 16);
static_assert(offsetof(qmo_seq_iterator_t, merge) == 24);
static_assert(offsetof(qmo_seq_iterator_t, elem_size) == 32);
static_assert(offsetof(qmo_seq_iterator_t, tile_count) == 34);
static_assert(offsetof(qmo_seq_iterator_t, cursor) == 36);
static_assert(offsetof(qmo_seq_iterator_t, prepared) == 39);
static_assert(offsetof(qmo_seq_iterator_t, first_pos) == 40);
static_assert(offsetof(qmo_seq_iterator_t, pos) == 48);
static_assert(offsetof(qmo_seq_iterator_t, last_pos) == 56);
static_assert(offsetof(qmo_seq_iterator_t, operand1) == 64);
static_assert(offsetof(qmo_seq_iterator_t, operand2) == 72);
static_assert(offsetof(qmo_seq_iterator_t, operand3) == 80);
static_assert(offsetof(qmo_seq_iterator_t, buf) == 88);
static_assert(offsetof(qmo_seq_iterator_t, buf_size) == 96);
static_assert(offsetof(qmo_seq_iterator_t, elem_type) == 104);
static_assert(offsetof(qmo_seq_iterator_t, bound) == 105);
static_assert(offsetof(qmo_seq_iterator_t, state) == 112);
static_assert(offsetof(qmo_seq_iterator_t, null_bitmap) == 112 + 36 * 8);
static_assert(offsetof(qmo_seq_iterator_t, values) == 416);
static_assert(sizeof(qmo_seq_iterator_t) == 416 + 128 * 32);

// ---- constants ----------------------------------------------------------------

TEST(Constant, FillsOneFullTileAndNeverEnds) {
    Iter c;
    ASSERT_EQ(qmo_seq_const_int4(&c, -7), 0);
    EXPECT_EQ(c.elem_type, QMO_SEQ_TYPE_INT4);
    EXPECT_EQ(c.elem_size, 4);
    EXPECT_EQ(c.last_pos, ~uint64_t{0});
    for (int pull = 1; pull <= 3; ++pull) {
        ASSERT_EQ(c.next(&c), 0);
        EXPECT_EQ(c.tile_count, 128);
        EXPECT_EQ(c.pos, uint64_t(128 * pull));
        EXPECT_EQ(c.null_bitmap[0] | c.null_bitmap[1], 0u);
        EXPECT_EQ(c.values.i4[0], -7);
        EXPECT_EQ(c.values.i4[127], -7);
    }
}

TEST(Constant, CharCopiesWidthBytesIntoEverySlot) {
    Iter c;
    const char bytes[5] = {'a', 'b', 'c', 0, 'z'};  // every width byte is copied, after the NUL too
    ASSERT_EQ(qmo_seq_const_char(&c, bytes, 5), 0);
    EXPECT_EQ(c.elem_size, 5);
    ASSERT_EQ(c.next(&c), 0);
    EXPECT_EQ(std::string(c.values.bytes + 127 * 5, 5), std::string(bytes, 5));
    EXPECT_EQ(qmo_seq_const_char(&c, "x", 0), QMO_SEQ_INVALID_ARGUMENT);
    EXPECT_EQ(qmo_seq_const_char(&c, "x", QMO_SEQ_MAX_CHAR_WIDTH + 1), QMO_SEQ_INVALID_ARGUMENT);
}

TEST(Constant, ResetRefillsAfterTheTileWasOverwritten) {
    Iter c;
    qmo_seq_const_double(&c, 2.5);
    ASSERT_EQ(c.next(&c), 0);
    c.values.f8[0] = 0;  // a reset empties the tile, so the next pull refills it
    ASSERT_EQ(c.reset(&c), 0);
    EXPECT_EQ(c.pos, 0u);
    ASSERT_EQ(c.next(&c), 0);
    EXPECT_EQ(c.values.f8[0], 2.5);
}

// ---- element readers ------------------------------------------------------------

TEST(ReadOne, DeliversEveryElementThenEnd) {
    Source<t_int4> s({1, 2, 3}, {}, {2});
    int32_t v = 0;
    std::vector<int32_t> seen;
    int rc;
    while ((rc = qmo_seq_next_int4(&s.it, &v)) == 0) seen.push_back(v);
    EXPECT_EQ(rc, QMO_SEQ_END);
    EXPECT_EQ(seen, (std::vector<int32_t>{1, 2, 3}));
}

TEST(ReadOne, NullIsCopiedOutWith703AndTheCursorMoves) {
    Source<t_int8> s({5, 6, 7}, {1});
    int64_t v = 0;
    EXPECT_EQ(qmo_seq_next_int8(&s.it, &v), 0);
    EXPECT_EQ(qmo_seq_next_int8(&s.it, &v), QMO_SEQ_NULL_VALUE);
    EXPECT_EQ(v, 6);
    EXPECT_EQ(qmo_seq_next_int8(&s.it, &v), 0);
    EXPECT_EQ(v, 7);
}

TEST(ReadOne, WrongTypeIs61AndLeavesTheOutputAlone) {
    Source<t_int8> s({5});
    int32_t v = 42;
    EXPECT_EQ(qmo_seq_next_int4(&s.it, &v), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(v, 42);
    EXPECT_EQ(s.pulls, 0);
}

TEST(ReadOne, BoundRecordIsRefusedOnlyWhileChecksAreOn) {
    Source<t_int4> s({1});
    s.it.bound = 1;
    int32_t v = 0;
    {
        BindingChecks on(1);
        EXPECT_EQ(qmo_seq_next_int4(&s.it, &v), QMO_SEQ_ALREADY_BOUND);
    }
    EXPECT_EQ(qmo_seq_next_int4(&s.it, &v), 0);
}

TEST(ReadOne, CharCopiesTheWholeWidth) {
    CharSource s(4, {"ab", "wxyz"});
    char out[4];
    ASSERT_EQ(qmo_seq_next_char(&s.it, out), 0);
    EXPECT_EQ(std::string(out, 4), std::string("ab\0\0", 4));
    ASSERT_EQ(qmo_seq_next_char(&s.it, out), 0);
    EXPECT_EQ(std::string(out, 4), "wxyz");
}

TEST(ReadMany, ZeroRoomPullsNothing) {
    Source<t_int4> s({1, 2});
    uint64_t count = 0;
    EXPECT_EQ(qmo_seq_get_int4(&s.it, nullptr, &count), 0);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(s.pulls, 0);
}

TEST(ReadMany, EndWithNothingStoredIs11AndSomethingStoredIs0) {
    Source<t_int4> empty({});
    int32_t out[4];
    uint64_t count = 4;
    EXPECT_EQ(qmo_seq_get_int4(&empty.it, out, &count), QMO_SEQ_END);
    EXPECT_EQ(count, 0u);

    Source<t_int4> two({8, 9});
    count = 4;
    EXPECT_EQ(qmo_seq_get_int4(&two.it, out, &count), 0);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(out[1], 9);
}

TEST(ReadMany, SkipsNullsAndResumesWhereTheArrayFilledUp) {
    std::vector<int16_t> values(300);
    for (int i = 0; i < 300; ++i) values[i] = static_cast<int16_t>(i);
    Source<t_int2> s(values, {0, 129, 200});  // nulls in the first and second tile only
    std::vector<int16_t> got;
    int16_t chunk[100];
    for (;;) {
        uint64_t count = 100;
        const int rc = qmo_seq_get_int2(&s.it, chunk, &count);
        got.insert(got.end(), chunk, chunk + count);
        if (rc) {
            EXPECT_EQ(rc, QMO_SEQ_END);
            break;
        }
    }
    ASSERT_EQ(got.size(), 297u);
    EXPECT_EQ(got.front(), 1);
    EXPECT_EQ(got[127], 128);
    EXPECT_EQ(got[128], 130);
    EXPECT_EQ(got.back(), 299);
}

TEST(ReadMany, KeepsReturningEndOnceTheSequenceIsDrained) {
    Source<t_int4> s({1, 2, 3});
    int32_t out[8];
    uint64_t count = 8;
    ASSERT_EQ(qmo_seq_get_int4(&s.it, out, &count), 0);
    EXPECT_EQ(count, 3u);
    count = 8;
    EXPECT_EQ(qmo_seq_get_int4(&s.it, out, &count), QMO_SEQ_END);
    EXPECT_EQ(count, 0u);
}

TEST(ReadMany, PassesErrorsOnWithTheCountStoredSoFar) {
    Source<t_double> s({1.0, 2.0});
    s.fail_with = 999;
    double out[4];
    uint64_t count = 4;
    EXPECT_EQ(qmo_seq_get_double(&s.it, out, &count), 999);
    EXPECT_EQ(count, 0u);
}

// ---- bindings -------------------------------------------------------------------

TEST(Bindings, EnableReturnsThePreviousSetting) {
    const int before = qmo_seq_enable_check_bindings(1);
    EXPECT_EQ(qmo_seq_enable_check_bindings(0), 1);
    EXPECT_EQ(qmo_seq_enable_check_bindings(before), 0);
}

TEST(Bindings, SecondOperatorOnOneOperandNeedsChecksOff) {
    Source<t_int4> a({1, 2}), b({3, 4});
    Iter first, second;
    {
        BindingChecks on(1);
        ASSERT_EQ(qmo_seq_add_int4(&first, &a.it, &b.it), 0);
        EXPECT_EQ(a.it.bound, 1);
        EXPECT_EQ(qmo_seq_sub_int4(&second, &a.it, &b.it), QMO_SEQ_ALREADY_BOUND);
    }
    ASSERT_EQ(qmo_seq_sub_int4(&second, &a.it, &b.it), 0);
    // Both pull the same records: the first takes the only tile.
    EXPECT_EQ(first.next(&first), 0);
    EXPECT_EQ(second.next(&second), QMO_SEQ_END);
}

// ---- allocation hooks and buffers -------------------------------------------

namespace {
std::map<void *, size_t> live;
int frees = 0;
void *counting_malloc(void *, size_t size) {
    void *p = std::malloc(size);
    live[p] = size;
    return p;
}
void counting_free(void *, void *p, size_t size) {
    EXPECT_EQ(live[p], size) << "freed with another size than allocated";
    live.erase(p);
    ++frees;
    std::free(p);
}
}  // namespace

TEST(Buffer, AllocatesThroughTheHooksAndFreesOnce) {
    qmo_seq_redefine_allocator(counting_malloc, counting_free);
    Iter it{};
    void *p = qmo_seq_alloc_buffer(&it, 100);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(it.buf, p);
    EXPECT_EQ(it.buf_size, 100u);
    EXPECT_EQ(live.size(), 1u);
    frees = 0;
    qmo_seq_free_buffer(&it);
    qmo_seq_free_buffer(&it);
    EXPECT_EQ(frees, 1);
    EXPECT_EQ(it.buf, nullptr);
    EXPECT_TRUE(live.empty());
    qmo_seq_redefine_allocator(qmo_seq_sys_malloc, qmo_seq_sys_free);
}

TEST(Buffer, FailingHookYieldsNull) {
    qmo_seq_redefine_allocator([](void *, size_t) -> void * { return nullptr; }, qmo_seq_sys_free);
    Iter it{};
    EXPECT_EQ(qmo_seq_alloc_buffer(&it, 64), nullptr);
    EXPECT_EQ(it.buf, nullptr);
    qmo_seq_free_buffer(&it);  // nothing to free
    qmo_seq_redefine_allocator(qmo_seq_sys_malloc, qmo_seq_sys_free);
}

// ---- resets ---------------------------------------------------------------------

namespace {
Iter record_with_state() {
    Iter it{};
    for (int w = 0; w < QMO_SEQ_STATE_WORDS; ++w) it.state[w] = 100 + w;
    it.tile_count = 5;
    it.cursor = 3;
    it.pos = 77;
    return it;
}
}  // namespace

TEST(Reset, LibraryResetsClearTheirWordsAndRewind) {
    struct Row {
        const char *name;
        int (*reset)(Iter *);
        std::vector<int> cleared;  // state words, counted from 1
        int operand_resets;
    };
    const std::vector<Row> rows = {
        {"unary_agg", qmo_seq_reset_unary_agg_iterator, {2, 3, 4}, 1},
        {"binary_agg", qmo_seq_reset_binary_agg_iterator, {2, 3, 4}, 2},
        {"ternary_agg", qmo_seq_reset_ternary_agg_iterator, {2, 3, 4}, 3},
        {"union", qmo_seq_reset_union_iterator, {1, 2, 3}, 2},
        {"repeat", qmo_seq_reset_repeat_iterator, {2}, 1},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Source<t_int4> a({1}), b({2}), c({3});
        Iter it = record_with_state();
        it.operand1 = &a.it;
        it.operand2 = &b.it;
        it.operand3 = row.operand_resets == 3 ? &c.it : nullptr;
        EXPECT_EQ(row.reset(&it), 0);
        for (int w = 1; w <= QMO_SEQ_STATE_WORDS; ++w) {
            const bool cleared = std::find(row.cleared.begin(), row.cleared.end(), w) != row.cleared.end();
            EXPECT_EQ(it.state[w - 1], cleared ? 0u : uint64_t(99 + w)) << "word " << w;
        }
        EXPECT_EQ(it.tile_count, 0);
        EXPECT_EQ(it.cursor, 0);
        EXPECT_EQ(it.pos, 0u);
        EXPECT_EQ(a.resets + b.resets + c.resets, row.operand_resets);
    }
}

TEST(Reset, TernarySkipsMissingOperandsAndReportsTheFirstError) {
    struct Failing : Script {
        Failing() : Script(QMO_SEQ_TYPE_INT4, 4) { it.reset = [](Iter *) { return 57; }; }
    } bad;
    Source<t_int4> c({3});
    Iter it = record_with_state();
    it.operand1 = nullptr;
    it.operand2 = &bad.it;
    it.operand3 = &c.it;
    EXPECT_EQ(qmo_seq_reset_ternary_agg_iterator(&it), 57);
    EXPECT_EQ(c.resets, 1);
    EXPECT_EQ(it.pos, 0u);
}

TEST(Reset, ParseResetsRewindTheTextPointer) {
    for (auto reset : {qmo_seq_reset_parse_iterator, qmo_seq_reset_custom_parse_iterator}) {
        Iter it = record_with_state();
        EXPECT_EQ(reset(&it), 0);
        EXPECT_EQ(it.state[0], it.state[1]);
        EXPECT_EQ(it.pos, 0u);
    }
}
