// The distinct-count sketch: MurmurHash3 against published vectors, register
// updates, the estimator's branches, and the approximate distinct count
// aggregates built on them.
#include "support.hpp"

#include "aggregate/distinct.hpp"

#include <cmath>
#include <numeric>

using namespace test;

TEST(Murmur3, PublishedVectors) {
    for (const auto &[data, seed, hash] : std::vector<std::tuple<std::string, uint32_t, uint32_t>>{
             {"", 0, 0},
             {"", 1, 0x514E28B7},
             {"", 0xFFFFFFFF, 0x81F16F39},
             {std::string(4, '\0'), 0, 0x2362F9DE},
             {"test", 0, 0xBA6BD213},
             {"abc", 0, 0xB3DD93FA},
             {"Hello, world!", 1234, 0xFAF6CDB3},
             {"Hello, world!", 0x9747B28C, 0x24884CBA},
             {"The quick brown fox jumps over the lazy dog", 0, 0x2E4FF723}})
        EXPECT_EQ(qmo::murmur_hash3_32(data.data(), data.size(), seed), hash) << '"' << data << "\" seed " << seed;
}

// Index: the top 7 bits. Rank: 1 + trailing zeros of the whole hash, at most 26.
TEST(DistinctRegisters, IndexAndRankOfAHash) {
    for (const auto &[hash, index, rank] : std::vector<std::tuple<uint32_t, unsigned, unsigned>>{
             {0x00000001, 0, 1}, {0x00000008, 0, 4}, {0xFE000001, 127, 1}, {0x01000000, 0, 25},
             {0x02000000, 1, 26}, {0x80000000, 64, 26}, {0x00000000, 0, 26}}) {
        uint8_t r[128] = {};
        qmo::distinct_add(r, hash);
        qmo::distinct_add(r, (index << 25) | 1);  // a lower rank never lowers it
        EXPECT_EQ(r[index], rank) << std::hex << hash;
        EXPECT_EQ(std::accumulate(r, r + 128, 0u), rank) << "one register changes";
    }
}

TEST(DistinctRegisters, EstimatorBranches) {
    // `fill` everywhere, except `low` registers at fill - 1 and one at 3 if set_at is given.
    auto estimate = [](uint8_t fill, int set_at = -1, int low = 0) {
        uint8_t r[128];
        std::fill(r, r + 128, fill);
        std::fill(r, r + low, fill - 1);
        if (set_at >= 0) r[set_at] = 3;
        return qmo::approximate_distinct_count(r);
    };
    auto corrected = [](double raw) { return static_cast<int64_t>(-4294967295.0 * std::log(1 - raw / 4294967295.0)); };
    EXPECT_EQ(estimate(0), 0) << "128 ln(128 / 128)";
    EXPECT_EQ(estimate(0, 5), static_cast<int64_t>(128 * std::log(128.0 / 127))) << "linear counting";
    EXPECT_EQ(estimate(1), 183) << "no zero register: the raw 11718.99 / 64 stands at or below 320";
    EXPECT_EQ(estimate(2), 366);
    EXPECT_EQ(estimate(21), corrected(11718.991761634348 * (1 << 21) / 128)) << "above 143165576.5";
    // Close to 2^32 the correction is steep: 2^32 - 1 and 2^32 give results hundreds apart.
    double z = 0;
    for (int j = 0; j < 128; ++j) z += 1.0 / std::pow(2.0, j < 56 ? 25 : 26);
    EXPECT_EQ(estimate(26, -1, 56), corrected(11718.991761634348 / z));
    EXPECT_EQ(estimate(26), INT64_MIN) << "raw beyond 2^32 - 1: the log of a negative";
}

namespace {

uint32_t approxdc(Iter *source, Iter *agg) {
    EXPECT_EQ(qmo_seq_agg_approxdc(agg, source), 0);
    EXPECT_EQ(agg->elem_type, QMO_SEQ_TYPE_UINT4);
    EXPECT_EQ(agg->next(agg), 0);
    return agg->values.u4[0];
}

}  // namespace

template <class Tag>
class DistinctCount : public ::testing::Test {};
TYPED_TEST_SUITE(DistinctCount, NumericTypes);

// Each non-null element's bytes with the library's seed; the registers are
// kept in the state for the merge. The hash form takes uint4 hashes as they are.
TYPED_TEST(DistinctCount, HashesEachNonNullElementsBytes) {
    using T = V<TypeParam>;
    std::vector<T> values(300);
    std::vector<uint32_t> hashes(values.size());
    uint8_t registers[128] = {};
    for (size_t i = 0; i < values.size(); ++i) {
        values[i] = static_cast<T>(i * 31);
        hashes[i] = qmo::murmur_hash3_32(&values[i], sizeof(T), QMO_SEQ_HASH_SEED);
        if (i < 200) qmo::distinct_add(registers, hashes[i]);
    }
    std::vector<size_t> nulls(100);
    std::iota(nulls.begin(), nulls.end(), 200);
    Source<TypeParam> direct(values, nulls);
    Source<t_uint4> hashed(hashes, nulls);
    Iter agg;
    const auto expected = static_cast<uint32_t>(qmo::approximate_distinct_count(registers));
    EXPECT_EQ(approxdc(&direct.it, &agg), expected);
    EXPECT_EQ(std::memcmp(agg.state, registers, 128), 0);
    ASSERT_EQ(qmo_seq_agg_approxdc_hash(&agg, &hashed.it), 0);
    EXPECT_EQ(agg.merge, nullptr);
    ASSERT_EQ(agg.next(&agg), 0);
    EXPECT_EQ(agg.values.u4[0], expected);
}

TEST(DistinctCount, CharElementsHashEveryWidthByte) {
    CharSource text(5, {"ab", "ab", std::string("ab\0z", 4)});
    Iter agg;
    EXPECT_EQ(approxdc(&text.it, &agg), 2u) << "bytes after the NUL count";
}
