// The record, constants, element readers, bindings, allocation hooks, the
// library's resets, and the stand-ins for the database core's functions.
#include "support.hpp"

#include "frame/isa.hpp"

#include <cstddef>
#include <random>

using namespace test;

// The record is ABI: field order, widths and offsets.
#define TEST_AT_(field, offset) static_assert(offsetof(qmo_seq_iterator_t, field) == (offset));
TEST_AT_(next, 0) TEST_AT_(reset, 8) TEST_AT_(prepare, 16) TEST_AT_(merge, 24) TEST_AT_(elem_size, 32)
TEST_AT_(tile_count, 34) TEST_AT_(cursor, 36) TEST_AT_(prepared, 39) TEST_AT_(first_pos, 40) TEST_AT_(pos, 48)
TEST_AT_(last_pos, 56) TEST_AT_(operand1, 64) TEST_AT_(operand2, 72) TEST_AT_(operand3, 80) TEST_AT_(buf, 88)
TEST_AT_(buf_size, 96) TEST_AT_(elem_type, 104) TEST_AT_(bound, 105) TEST_AT_(state, 112)
TEST_AT_(null_bitmap, 112 + 36 * 8) TEST_AT_(values, 416)
#undef TEST_AT_
static_assert(sizeof(qmo_seq_iterator_t) == 416 + 128 * 32);

// ---- constants ----------------------------------------------------------------

TEST(Constant, FillsOneFullTileNeverEndsAndRefillsAfterReset) {
    Iter c;
    ASSERT_EQ(qmo_seq_const_int4(&c, -7), 0);
    EXPECT_EQ(c.elem_type, QMO_SEQ_TYPE_INT4);
    EXPECT_EQ(c.elem_size, 4);
    for (uint64_t pos : {128, 256, 384, 0, 128}) {
        if (pos == 0) {
            c.values.i4[0] = 0;  // a reset empties the tile, so the next pull refills it
            ASSERT_EQ(c.reset(&c), 0);
            continue;
        }
        c.null_bitmap[1] = 1;
        ASSERT_EQ(c.next(&c), 0);
        EXPECT_TRUE(c.tile_count == 128 && c.pos == pos);
        EXPECT_EQ(c.null_bitmap[0] | c.null_bitmap[1], 0u);
        EXPECT_TRUE(c.values.i4[0] == -7 && c.values.i4[127] == -7);
    }
    const char bytes[5] = {'a', 'b', 'c', 0, 'z'};  // every width byte, after the NUL too
    ASSERT_EQ(qmo_seq_const_char(&c, bytes, 5), 0);
    EXPECT_EQ(c.elem_size, 5);
    ASSERT_EQ(c.next(&c), 0);
    EXPECT_EQ(std::string(c.values.bytes + 127 * 5, 5), std::string(bytes, 5));
    EXPECT_EQ(qmo_seq_const_char(&c, "x", 0), QMO_SEQ_INVALID_ARGUMENT);
    EXPECT_EQ(qmo_seq_const_char(&c, "x", QMO_SEQ_MAX_CHAR_WIDTH + 1), QMO_SEQ_INVALID_ARGUMENT);
}

// ---- element readers ------------------------------------------------------------

// qmo_seq_next_<t>: nulls are copied out with 703; nothing is read from a record
// of another type (61) or, while checks are on, from a bound one (701).
TEST(Readers, OneAtATimeAndTheirChecks) {
    Source<t_int8> s({5, 6, 7}, {1}, {2});
    int64_t v = 42;
    int32_t w = 42;
    uint64_t count = 1, nulls = 0;
    EXPECT_EQ(qmo_seq_next_int4(&s.it, &w), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(qmo_seq_get_uint8(&s.it, nullptr, &count), QMO_SEQ_TYPE_MISMATCH);
    EXPECT_EQ(qmo_seq_get_nullable_datetime(&s.it, nullptr, &count, &nulls), QMO_SEQ_TYPE_MISMATCH);
    s.it.bound = 1;
    {
        BindingChecks on(1);
        EXPECT_EQ(qmo_seq_next_int8(&s.it, &v), QMO_SEQ_ALREADY_BOUND);
        EXPECT_EQ(qmo_seq_get_int8(&s.it, &v, &count), QMO_SEQ_ALREADY_BOUND);
        EXPECT_EQ(qmo_seq_get_nullable_int8(&s.it, &v, &count, &nulls), QMO_SEQ_ALREADY_BOUND);
    }
    EXPECT_TRUE(s.pulls == 0 && v == 42 && w == 42) << "nothing pulled, nothing written";
    std::vector<int> statuses;
    std::vector<int64_t> seen;
    while (statuses.size() < 5) statuses.push_back(qmo_seq_next_int8(&s.it, &v)), seen.push_back(v);
    EXPECT_EQ(statuses, (std::vector<int>{0, QMO_SEQ_NULL_VALUE, 0, QMO_SEQ_END, QMO_SEQ_END}));
    EXPECT_EQ(seen, (std::vector<int64_t>{5, 6, 7, 7, 7}));
    CharSource c(4, {"ab", "wxyz"});
    char out[4];
    ASSERT_EQ(qmo_seq_next_char(&c.it, out), 0);
    EXPECT_EQ(std::string(out, 4), std::string("ab\0\0", 4)) << "the whole width";
}

// Reads a whole source in calls with room for `room` (at most 128) elements.
template <class Tag>
Drained<V<Tag>> read_chunks(Iter *src, uint64_t room, bool nullable) {
    Drained<V<Tag>> d;
    std::vector<V<Tag>> chunk(room);
    while (d.values.size() <= 100000) {
        uint64_t count = room, nulls[2] = {~uint64_t{0}, ~uint64_t{0}};
        d.status = nullable ? fn::get_nullable<Tag>(src, chunk.data(), &count, nulls)
                            : fn::get<Tag>(src, chunk.data(), &count);
        for (uint64_t i = count; nullable && i < (room + 63) / 64 * 64; ++i)
            EXPECT_EQ((nulls[i / 64] >> (i % 64)) & 1, 0u) << "bit " << i << " left set";
        for (uint64_t i = 0; i < count; ++i) {
            d.values.push_back(chunk[i]);
            d.nulls.push_back(nullable && ((nulls[i / 64] >> (i % 64)) & 1));
        }
        if (d.status) return d;
        d.tiles.push_back(static_cast<unsigned>(count));
    }
    ADD_FAILURE() << "more elements than the source holds";
    return d;
}

template <class Tag>
class Readers : public ::testing::Test {};
TYPED_TEST_SUITE(Readers, NumericTypes);

// Array sources (every seventh element null) through both sinks, in calls
// that end inside tiles: the nullable sink keeps slots and bits, the plain
// one drops nulls; a partial last call returns 0, the next 11 with count 0.
TYPED_TEST(Readers, ArraysRoundTripThroughBothSinks) {
    using T = V<TypeParam>;
    for (size_t n : {0, 1, 127, 128, 129, 300, 100000}) {
        SCOPED_TRACE(n);
        std::vector<T> values(n), kept;
        std::vector<uint64_t> bitmap(n / 64 + 1);
        std::vector<bool> nulls(n);
        for (size_t i = 0; i < n; ++i) {
            values[i] = static_cast<T>(i % 1000);
            nulls[i] = i % 7 == 3;
            bitmap[i / 64] |= uint64_t{nulls[i]} << (i % 64);
            if (!nulls[i]) kept.push_back(values[i]);
        }
        Iter src;
        ASSERT_EQ(fn::unget_nullable<TypeParam>(&src, values.data(), n, bitmap.data()), 0);
        EXPECT_EQ(src.last_pos, n - 1);
        for (uint64_t room : {5, 100}) {
            const auto all = read_chunks<TypeParam>(&src, room, true);
            EXPECT_EQ(all.status, QMO_SEQ_END);
            ASSERT_EQ(all.values, values);
            ASSERT_EQ(all.nulls, nulls);
            EXPECT_EQ(all.tiles.size(), (n + room - 1) / room);
            ASSERT_EQ(src.reset(&src), 0);
            EXPECT_EQ(read_chunks<TypeParam>(&src, room, false).values, kept);
            ASSERT_EQ(src.reset(&src), 0);
        }
    }
}

TEST(Readers, ZeroRoomPullsNothingAndErrorsKeepTheCountSoFar) {
    Source<t_double> s({1.0, 2.0});
    double out[4];
    uint64_t count = 0, nulls = ~uint64_t{0};
    EXPECT_EQ(qmo_seq_get_double(&s.it, nullptr, &count), 0);
    EXPECT_EQ(qmo_seq_get_nullable_double(&s.it, nullptr, &count, &nulls), 0);
    EXPECT_TRUE(count == 0 && s.pulls == 0);
    s.fail_with = 999;
    count = 4;
    EXPECT_EQ(qmo_seq_get_double(&s.it, out, &count), 999);
    EXPECT_EQ(count, 0u);
}

// ---- bindings -------------------------------------------------------------------

TEST(Bindings, SecondOperatorOnOneOperandNeedsChecksOff) {
    const int before = qmo_seq_enable_check_bindings(1);
    EXPECT_EQ(qmo_seq_enable_check_bindings(0), 1) << "returns the previous setting";
    EXPECT_EQ(qmo_seq_enable_check_bindings(before), 0);
    Source<t_int4> a({1, 2}), b({3, 4});
    Iter first, second;
    {
        BindingChecks on(1);
        ASSERT_EQ(qmo_seq_add_int4(&first, &a.it, &b.it), 0);
        EXPECT_EQ(a.it.bound, 1);
        EXPECT_EQ(qmo_seq_sub_int4(&second, &a.it, &b.it), QMO_SEQ_ALREADY_BOUND);
    }
    ASSERT_EQ(qmo_seq_sub_int4(&second, &a.it, &b.it), 0);
    EXPECT_EQ(first.next(&first), 0) << "both pull the same records: the first takes the only tile";
    EXPECT_EQ(second.next(&second), QMO_SEQ_END);
}

// ---- allocation hooks and buffers -------------------------------------------

TEST(Buffer, TakenThroughTheHooksFreedOnceAndNullWhenRefused) {
    Iter it{};
    {
        Hooks hooks;
        void *p = qmo_seq_alloc_buffer(&it, 100);
        EXPECT_TRUE(p != nullptr && it.buf == p && it.buf_size == 100 && Hooks::live.size() == 1);
        qmo_seq_free_buffer(&it);
        qmo_seq_free_buffer(&it);  // a second call frees nothing
        EXPECT_TRUE(Hooks::live.empty() && it.buf == nullptr);
    }
    Hooks refuse(1);
    EXPECT_EQ(qmo_seq_alloc_buffer(&it, 64), nullptr);
    EXPECT_EQ(it.buf, nullptr);
    qmo_seq_free_buffer(&it);
}

// ---- resets ---------------------------------------------------------------------

// State words 1-5 after a reset from 100, 101, ...; the words after them are
// untouched. The core's resets (last rows) keep every word.
TEST(Reset, ResetsClearTheirWordsResetTheirOperandsAndRewind) {
    using Row = std::tuple<const char *, int (*)(Iter *), std::vector<uint64_t>, int>;
    for (const auto &[name, reset, words, operands] : std::vector<Row>{
             {"unary_agg", qmo_seq_reset_unary_agg_iterator, {100, 0, 0, 0, 104}, 1},
             {"binary_agg", qmo_seq_reset_binary_agg_iterator, {100, 0, 0, 0, 104}, 2},
             {"ternary_agg", qmo_seq_reset_ternary_agg_iterator, {100, 0, 0, 0, 104}, 3},
             {"union", qmo_seq_reset_union_iterator, {0, 0, 0, 103, 104}, 2},
             {"repeat", qmo_seq_reset_repeat_iterator, {100, 0, 102, 103, 104}, 1},
             {"parse", qmo_seq_reset_parse_iterator, {101, 101, 102, 103, 104}, 0},
             {"custom_parse", qmo_seq_reset_custom_parse_iterator, {101, 101, 102, 103, 104}, 0},
             {"core", qmo_seq_reset_iterator, {100, 101, 102, 103, 104}, 0},
             {"core unary", qmo_seq_reset_unary_iterator, {100, 101, 102, 103, 104}, 1},
             {"core binary", qmo_seq_reset_binary_iterator, {100, 101, 102, 103, 104}, 2}}) {
        SCOPED_TRACE(name);
        Source<t_int4> a({1}), b({2}), c({3});
        Iter it{};
        for (int w = 0; w < QMO_SEQ_STATE_WORDS; ++w) it.state[w] = 100 + w;
        it.tile_count = 5, it.cursor = 3, it.pos = 77;
        it.operand1 = &a.it, it.operand2 = &b.it, it.operand3 = operands == 3 ? &c.it : nullptr;
        EXPECT_EQ(reset(&it), 0);
        EXPECT_EQ(std::vector<uint64_t>(it.state, it.state + 5), words);
        EXPECT_EQ(it.state[QMO_SEQ_STATE_WORDS - 1], 99u + QMO_SEQ_STATE_WORDS);
        EXPECT_EQ(it.tile_count + it.cursor + it.pos, 0u);
        EXPECT_EQ(a.resets + b.resets + c.resets, operands);
    }
    // Every operand is reset and the record rewound; the first error is reported.
    Source<t_int4> bad({1}), c({3});
    bad.it.reset = [](Iter *) { return 57; };
    Iter it{};
    it.operand1 = &bad.it, it.operand2 = &c.it, it.pos = 9;
    EXPECT_EQ(qmo_seq_reset_binary_iterator(&it), 57);
    EXPECT_TRUE(c.resets == 1 && it.pos == 0);
    it.operand1 = nullptr, it.operand2 = &bad.it, it.operand3 = &c.it, it.pos = 9;  // a missing operand is skipped
    EXPECT_EQ(qmo_seq_reset_ternary_agg_iterator(&it), 57);
    EXPECT_TRUE(c.resets == 2 && it.pos == 0);
}

// ---- the core's functions, stand-alone ----------------------------------------

TEST(CopyBitmap, MatchesABitByBitCopyAtEveryAlignment) {
    std::mt19937_64 rng(7);
    auto bit = [](const uint64_t *words, uint64_t i) { return (words[i / 64] >> (i % 64)) & 1; };
    uint64_t src[4], dst[4], expected[4];
    for (int round = 0; round < 5000; ++round) {
        for (int w = 0; w < 4; ++w) src[w] = rng(), dst[w] = expected[w] = rng();
        const uint64_t src_bit = rng() % 256, dst_bit = rng() % 256;
        const uint64_t n = rng() % (257 - std::max(src_bit, dst_bit));
        for (uint64_t i = 0, d = dst_bit; i < n; ++i, ++d)
            expected[d / 64] = (expected[d / 64] & ~(uint64_t{1} << (d % 64))) | (bit(src, src_bit + i) << (d % 64));
        qmo_seq_copy_bitmap(dst, dst_bit, src, src_bit, n);
        for (int w = 0; w < 4; ++w)
            ASSERT_EQ(dst[w], expected[w]) << "src_bit " << src_bit << " dst_bit " << dst_bit << " n " << n;
    }
}

TEST(Primes, TwentyNineGrowingPrimes) {
    uint32_t previous = 1;
    for (int i = 0; i <= 28; ++i) {
        const uint32_t p = qmo_int_get_prime_number(i);
        EXPECT_GT(p, previous);
        for (uint32_t d = 2; uint64_t{d} * d <= p; ++d) ASSERT_NE(p % d, 0u) << p << " is not prime";
        previous = p;
    }
}

TEST(MemHelpers, CompareUnsignedBytesAndStartWithChecksOff) {
    EXPECT_GT(qmo_memcmp("ab\x80", "ab\x01", 3), 0);
    EXPECT_EQ(qmo_memcmp("abc", "abd", 2), 0);
    EXPECT_EQ(qmo_seq_check_bindings, 0) << "tests restore what they change";
}

// Kernels are picked once at load; QMO_SEQ_ISA=baseline forces the portable ones.
TEST(Dispatch, TheEnvironmentCapsTheInstructionSet) {
    const char *cap = std::getenv("QMO_SEQ_ISA");
    if (cap && std::string(cap) == "baseline") {
        EXPECT_EQ(qmo::g_isa, qmo::Isa::baseline);
    }
    const std::string saved = cap ? cap : "";
    setenv("QMO_SEQ_ISA", "baseline", 1);
    EXPECT_EQ(qmo::detect_isa(), qmo::Isa::baseline);
    if (cap) setenv("QMO_SEQ_ISA", saved.c_str(), 1);
    else unsetenv("QMO_SEQ_ISA");
    EXPECT_EQ(qmo::detect_isa(), qmo::g_isa) << "the same answer as at load";
}
