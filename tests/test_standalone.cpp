// The stand-alone versions of the database core's functions.
#include "support.hpp"

#include <random>

using namespace test;

namespace {
bool bit(const uint64_t *words, uint64_t i) { return (words[i / 64] >> (i % 64)) & 1; }
}  // namespace

TEST(CopyBitmap, MatchesABitByBitCopyAtEveryAlignment) {
    std::mt19937_64 rng(7);
    uint64_t src[4], dst[4], expected[4];
    for (int round = 0; round < 5000; ++round) {
        for (int w = 0; w < 4; ++w) {
            src[w] = rng();
            dst[w] = expected[w] = rng();
        }
        const uint64_t src_bit = rng() % 256, dst_bit = rng() % 256;
        const uint64_t n = rng() % (257 - std::max(src_bit, dst_bit));
        for (uint64_t i = 0; i < n; ++i) {
            const uint64_t d = dst_bit + i;
            expected[d / 64] = (expected[d / 64] & ~(uint64_t{1} << (d % 64))) |
                               (uint64_t{bit(src, src_bit + i)} << (d % 64));
        }
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

TEST(CoreReset, RecordRewindsAndOperandsResetInOrder) {
    Source<t_int4> a({1, 2}), b({3, 4});
    Iter r;
    ASSERT_EQ(qmo_seq_add_int4(&r, &a.it, &b.it), 0);
    ASSERT_EQ(r.next(&r), 0);
    r.cursor = 1;
    EXPECT_EQ(qmo_seq_reset_binary_iterator(&r), 0);
    EXPECT_EQ(a.resets, 1);
    EXPECT_EQ(b.resets, 1);
    EXPECT_EQ(r.tile_count, 0);
    EXPECT_EQ(r.cursor, 0);
    EXPECT_EQ(r.pos, 0u);
}

TEST(CoreReset, FirstOperandErrorIsReportedAfterEverythingWasReset) {
    Source<t_int4> a({1}), b({2});
    a.it.reset = [](Iter *) { return 57; };
    Iter r;
    ASSERT_EQ(qmo_seq_mul_int4(&r, &a.it, &b.it), 0);
    r.pos = 9;
    EXPECT_EQ(qmo_seq_reset_binary_iterator(&r), 57);
    EXPECT_EQ(b.resets, 1);
    EXPECT_EQ(r.pos, 0u);
}

TEST(MemHelpers, BehaveAsTheirStandardNamesakes) {
    EXPECT_GT(qmo_memcmp("ab\x80", "ab\x01", 3), 0) << "bytes compare unsigned";
    EXPECT_EQ(qmo_memcmp("abc", "abd", 2), 0);
    char buf[8] = "abcdefg";
    qmo_memmove(buf + 1, buf, 5);
    EXPECT_STREQ(buf, "aabcdeg");
    qmo_memnull(buf, 3);
    EXPECT_EQ(buf[2], 0);
    const char *s = "hello";
    EXPECT_EQ(qmo_strchr(s, 'l'), s + 2);
    EXPECT_EQ(qmo_strchr(s, 'z'), nullptr);
}

TEST(CheckBindings, StartsOff) {
    // The stand-alone core starts with checks off; tests restore what they change.
    EXPECT_EQ(qmo_seq_check_bindings, 0);
}
