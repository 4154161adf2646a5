// The distinct-count sketch: MurmurHash3 against published vectors, register
// updates, the estimator's branches, and the approximate distinct count
// aggregates built on them.
#include "support.hpp"

#include "aggregate/distinct.hpp"

#include <cmath>
#include <numeric>

using namespace test;

TEST(Murmur3, PublishedVectors) {
    struct Row {
        std::string data;
        uint32_t seed;
        uint32_t hash;
    };
    const std::vector<Row> rows = {
        {"", 0, 0},
        {"", 1, 0x514E28B7},
        {"", 0xFFFFFFFF, 0x81F16F39},
        {std::string(4, '\0'), 0, 0x2362F9DE},
        {"test", 0, 0xBA6BD213},
        {"aaaa", 0x9747B28C, 0x5A97808A},
        {"abc", 0, 0xB3DD93FA},  // a three-byte tail
        {"Hello, world!", 1234, 0xFAF6CDB3},
        {"Hello, world!", 0x9747B28C, 0x24884CBA},
        {"The quick brown fox jumps over the lazy dog", 0, 0x2E4FF723},
    };
    for (const Row &row : rows)
        EXPECT_EQ(qmo::murmur_hash3_32(row.data.data(), row.data.size(), row.seed), row.hash)
            << '"' << row.data << "\" seed " << row.seed;
}

// Index: the top 7 bits. Rank: 1 + trailing zeros of the whole hash, at most 26.
TEST(DistinctRegisters, IndexAndRankOfAHash) {
    struct Row {
        uint32_t hash;
        unsigned index;
        uint8_t rank;
    };
    const std::vector<Row> rows = {
        {0x00000001, 0, 1},  {0x00000008, 0, 4},   {0xFE000001, 127, 1}, {0x01000000, 0, 25},
        {0x02000000, 1, 26}, {0x80000000, 64, 26}, {0x00000000, 0, 26},
    };
    for (const Row &row : rows) {
        uint8_t registers[qmo::kDistinctRegisters] = {};
        qmo::distinct_add(registers, row.hash);
        EXPECT_EQ(registers[row.index], row.rank) << std::hex << row.hash;
        EXPECT_EQ(std::accumulate(registers, registers + 128, 0u), row.rank) << "one register changes";
        qmo::distinct_add(registers, row.hash | (row.index << 25));  // a lower rank never lowers it
        qmo::distinct_add(registers, (row.index << 25) | 1);
        EXPECT_EQ(registers[row.index], row.rank);
    }
}

TEST(DistinctRegisters, EstimatorBranches) {
    uint8_t r[128] = {};
    EXPECT_EQ(qmo::approximate_distinct_count(r), 0) << "empty: 128 ln(128/128)";
    r[5] = 3;
    EXPECT_EQ(qmo::approximate_distinct_count(r), static_cast<int64_t>(128 * std::log(128.0 / 127)));
    std::fill(r, r + 128, 1);
    EXPECT_EQ(qmo::approximate_distinct_count(r), 183) << "no zero register: the raw 11718.99 / 64 stands";
    std::fill(r, r + 128, 2);
    EXPECT_EQ(qmo::approximate_distinct_count(r), 366) << "above 320: raw";
    std::fill(r, r + 128, 21);
    const double raw = 11718.991761634348 * (1 << 21) / 128;  // above 143165576.5
    EXPECT_EQ(qmo::approximate_distinct_count(r), static_cast<int64_t>(-4294967295.0 * std::log(1 - raw / 4294967295.0)));
    std::fill(r, r + 128, 26);
    EXPECT_EQ(qmo::approximate_distinct_count(r), INT64_MIN) << "raw beyond 2^32 - 1: the log of a negative, NaN";
}

namespace {

Iter approxdc_of(Iter *source) {
    Iter agg;
    EXPECT_EQ(qmo_seq_agg_approxdc(&agg, source), 0);
    return agg;
}

uint32_t estimate(Iter *agg) {
    EXPECT_EQ(agg->next(agg), 0);
    EXPECT_EQ(agg->tile_count, 1);
    EXPECT_EQ(agg->elem_type, QMO_SEQ_TYPE_UINT4);
    const uint32_t e = agg->values.u4[0];
    EXPECT_EQ(agg->next(agg), QMO_SEQ_END);
    return e;
}

}  // namespace

// Standard error 1.04 / sqrt(128); three of them allowed.
TEST(ApproximateDistinctCount, WithinThreeStandardErrors) {
    const double allowed = 3 * 1.04 / std::sqrt(128.0);
    for (int64_t n : {1000, 10000, 100000, 1000000}) {
        std::vector<int64_t> values(static_cast<size_t>(n) * 2);
        for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<int64_t>(i % n) * 7919 - 123456;
        Iter src;
        qmo_seq_unget_int8(&src, values.data(), values.size());
        Iter agg = approxdc_of(&src);
        const double e = estimate(&agg);
        EXPECT_LT(std::fabs(e - n) / n, allowed) << n << " distinct, estimate " << e;
    }
}

TEST(ApproximateDistinctCount, HashesEachElementsBytesWithTheLibrarySeed) {
    // A few hundred values: the zero-register (linear counting) branch.
    std::vector<int32_t> values(300);
    std::vector<uint32_t> hashes(values.size());
    for (size_t i = 0; i < values.size(); ++i) {
        values[i] = static_cast<int32_t>(i * 31);
        hashes[i] = qmo::murmur_hash3_32(&values[i], 4, QMO_SEQ_HASH_SEED);
    }
    uint8_t registers[128] = {};
    for (uint32_t h : hashes) qmo::distinct_add(registers, h);
    const auto expected = static_cast<uint32_t>(qmo::approximate_distinct_count(registers));

    Source<t_int4> direct(values);
    Iter agg = approxdc_of(&direct.it);
    EXPECT_EQ(estimate(&agg), expected);
    EXPECT_EQ(std::memcmp(agg.state, registers, 128), 0) << "registers kept for the merge";
    Source<t_uint4> hashed(hashes);
    ASSERT_EQ(qmo_seq_agg_approxdc_hash(&agg, &hashed.it), 0);
    EXPECT_EQ(estimate(&agg), expected);
}

TEST(ApproximateDistinctCount, CharElementsHashTheirWholeWidth) {
    CharSource a(5, {"ab", "ab", std::string("ab\0z", 4)}), b(5, {"ab"});
    Iter agg = approxdc_of(&a.it);
    EXPECT_EQ(estimate(&agg), 2u) << "bytes after the NUL count";
    uint8_t registers[128] = {};
    qmo::distinct_add(registers, qmo::murmur_hash3_32("ab\0\0\0", 5, QMO_SEQ_HASH_SEED));
    Iter one = approxdc_of(&b.it);
    estimate(&one);
    EXPECT_EQ(std::memcmp(one.state, registers, 128), 0);
}

TEST(ApproximateDistinctCount, NullsAreSkippedAndOnlyErrorsDeliverNothing) {
    Source<t_int8> nulls({1, 2, 3}, {0, 1, 2}), empty(std::vector<int64_t>{}), some({1, 2, 1, 3}, {3});
    for (Source<t_int8> *in : {&nulls, &empty}) {
        Iter agg = approxdc_of(&in->it);
        EXPECT_EQ(estimate(&agg), 0u);
    }
    Iter agg = approxdc_of(&some.it);
    EXPECT_EQ(estimate(&agg), 2u);
    Source<t_int8> broken({1});
    broken.fail_with = QMO_SEQ_NULL_VALUE;
    agg = approxdc_of(&broken.it);
    EXPECT_EQ(agg.next(&agg), QMO_SEQ_NULL_VALUE);
    EXPECT_EQ(agg.pos, 0u);
}

// The union of sketches is exact: merged partitions estimate exactly as one pass.
TEST(ApproximateDistinctCount, PartitionsMergeRegisterWise) {
    std::vector<int64_t> values(5000);
    std::iota(values.begin(), values.end(), 0);
    Iter whole_src;
    qmo_seq_unget_int8(&whole_src, values.data(), values.size());
    Iter whole = approxdc_of(&whole_src);
    const uint32_t single = estimate(&whole);

    Iter srcs[3], parts[3];
    const size_t cut[4] = {0, 1000, 1000, 5000};  // the middle partition is empty
    for (int p = 0; p < 3; ++p) {
        qmo_seq_unget_int8(&srcs[p], values.data() + cut[p], cut[p + 1] - cut[p]);
        parts[p] = approxdc_of(&srcs[p]);
        ASSERT_EQ(parts[p].prepare(&parts[p]), 0);
    }
    ASSERT_EQ(parts[0].merge(&parts[0], &parts[1]), 0);
    ASSERT_EQ(parts[0].merge(&parts[0], &parts[2]), 0);
    EXPECT_EQ(estimate(&parts[0]), single);
    EXPECT_EQ(std::memcmp(parts[0].state, whole.state, 128), 0);
}
