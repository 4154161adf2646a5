// Partial results as bytes: partitions folded here and merged through bytes
// give what merging the records in process gives, and bytes that are cut
// short, corrupted or of another family are refused with a status.
#include "support.hpp"

#include "frame/crc32c.hpp"

#include <functional>
#include <memory>

namespace {

using namespace test;

std::vector<unsigned char> export_bytes(const Iter *it) {
    uint64_t size = 0;
    EXPECT_EQ(qmo_seq_export_partial(it, nullptr, &size), 0);
    std::vector<unsigned char> bytes(size);
    EXPECT_EQ(qmo_seq_export_partial(it, bytes.data(), &size), 0);
    EXPECT_EQ(size, bytes.size());
    return bytes;
}

// One partition's record (a hash aggregate's two outputs) and its sources.
struct Part {
    Iter agg{}, grp{};
    std::vector<std::unique_ptr<Script>> sources;
    Part() = default;
    Part(const Part &) = delete;
    ~Part() {
        if (qmo_seq_is_hash_aggreate(&agg)) qmo_seq_release_hash(&agg);
    }
    template <class S, class... Args>
    Iter *source(Args &&...args) {
        sources.push_back(std::make_unique<S>(std::forward<Args>(args)...));
        return &sources.back()->it;
    }
};

// Builds partition `part` of `parts` into p; part == parts builds it over empty sources.
using Build = std::function<void(Part &p, size_t part, size_t parts)>;

std::string drained(Iter *it) {
    const auto d = drain<std::string>(it);
    std::string all;
    for (size_t i = 0; i < d.values.size(); ++i) all += (d.nulls[i] ? "null" : d.values[i]) + "|";
    return all + std::to_string(d.status);
}

// Merged in process and merged through bytes: equal bytes and equal results.
void expect_bytes_merge_like_records(const Build &build, size_t parts) {
    std::vector<std::unique_ptr<Part>> direct, shipped, imported;
    std::vector<std::vector<unsigned char>> bytes;
    for (size_t i = 0; i < parts; ++i) {
        for (auto *side : {&direct, &shipped, &imported}) side->push_back(std::make_unique<Part>());
        build(*direct[i], i, parts);
        build(*shipped[i], i, parts);
        build(*imported[i], parts, parts);
        direct[i]->agg.prepare(&direct[i]->agg);
        shipped[i]->agg.prepare(&shipped[i]->agg);
        bytes.push_back(export_bytes(&shipped[i]->agg));
        ASSERT_EQ(qmo_seq_import_partial(&imported[i]->agg, bytes[i].data(), bytes[i].size()), 0);
        EXPECT_EQ(export_bytes(&imported[i]->agg), bytes[i]) << "partition " << i << " round trip";
    }
    for (size_t i = 1; i < parts; ++i) {
        ASSERT_EQ(direct[0]->agg.merge(&direct[0]->agg, &direct[i]->agg), 0);
        ASSERT_EQ(imported[0]->agg.merge(&imported[0]->agg, &imported[i]->agg), 0);
    }
    EXPECT_EQ(export_bytes(&direct[0]->agg), export_bytes(&imported[0]->agg));
    EXPECT_EQ(drained(&direct[0]->agg), drained(&imported[0]->agg));
    if (qmo_seq_is_hash_aggreate(&direct[0]->agg)) {
        EXPECT_EQ(drained(&direct[0]->grp), drained(&imported[0]->grp));
    }
}

// Rows 0..n-1, small values and a null every seventh row, cut into `parts`
// partitions of growing lengths (the first one empty when there are three or more).
constexpr size_t kRows = 700;
std::pair<size_t, size_t> slice(size_t part, size_t parts) {
    if (part == parts) return {0, 0};
    auto edge = [parts](size_t k) {
        if (k == 1 && parts >= 3) return size_t{0};
        return k == parts ? kRows : k * k * kRows / (parts * parts);
    };
    return {edge(part), edge(part + 1) - edge(part)};
}

template <class Tag>
Iter *column(Part &p, size_t part, size_t parts, int salt = 0) {
    const auto [from, n] = slice(part, parts);
    std::vector<V<Tag>> v(n);
    std::vector<size_t> nulls;
    for (size_t i = 0; i < n; ++i) {
        v[i] = static_cast<V<Tag>>((from + i) * (3 + salt) % 23 + 1);
        if ((from + i) % 7 == 3) nulls.push_back(i);
    }
    return p.source<Source<Tag>>(v, nulls, std::vector<unsigned>{100, 128});
}

template <class Tag>
struct Partials : ::testing::Test {};
TYPED_TEST_SUITE(Partials, NumericTypes);

TYPED_TEST(Partials, ScalarAggregatesMergeThroughBytesAsInProcess) {
// Every mergeable fold of the registry.
#define TEST_ONE_(family, shape, types, partial, statuses, doc) TEST_ONE_##shape(family)
#define TEST_ONE_AGGREGATE(family) fn::family<TypeParam>,
#define TEST_ONE_PAIR_AGGREGATE(family) fn::family<TypeParam>,
#define TEST_ONE_UNARY(family)
#define TEST_ONE_SINGLE(family)
#define TEST_ONE_MERGED_SINGLE(family)
    for (Unary make : {QMO_SEQ_SCALAR_FAMILIES(TEST_ONE_)})
        for (size_t parts : {1, 2, 5})
            expect_bytes_merge_like_records([&](Part &p, size_t i, size_t k) {
                ASSERT_EQ(make(&p.agg, column<TypeParam>(p, i, k)), 0);
            }, parts);
    for (Binary make : {QMO_SEQ_PAIR_FAMILIES(TEST_ONE_)})
        expect_bytes_merge_like_records([&](Part &p, size_t i, size_t k) {
            ASSERT_EQ(make(&p.agg, column<TypeParam>(p, i, k), column<TypeParam>(p, i, k, 2)), 0);
        }, 4);
#undef TEST_ONE_
#undef TEST_ONE_AGGREGATE
#undef TEST_ONE_PAIR_AGGREGATE
#undef TEST_ONE_UNARY
#undef TEST_ONE_SINGLE
#undef TEST_ONE_MERGED_SINGLE
    using Top = int (*)(Iter *, Iter *, uint64_t);
    for (Top make : {fn::top_max<TypeParam>, fn::top_min<TypeParam>})
        for (uint64_t n : {1, 10, 128})
            expect_bytes_merge_like_records([&](Part &p, size_t i, size_t k) {
                ASSERT_EQ(make(&p.agg, column<TypeParam>(p, i, k), n), 0);
            }, 5);
}

TYPED_TEST(Partials, HashAggregatesMergeThroughBytesAsInProcess) {
    using Make = int (*)(Iter *, Iter *, Iter *, Iter *, uint64_t);
    for (Make make : {fn::hash_agg_max<TypeParam>, fn::hash_agg_min<TypeParam>, fn::hash_agg_sum<TypeParam>,
                      fn::hash_agg_avg<TypeParam>})
        // Few buckets: the import grows its table as the build did.
        expect_bytes_merge_like_records([&](Part &p, size_t i, size_t k) {
            ASSERT_EQ(make(&p.agg, &p.grp, column<TypeParam>(p, i, k), column<TypeParam>(p, i, k, 4), 3), 0);
        }, 4);
}

// Keys wider than 8 bytes live in key blocks; approxdc slots are registers.
Iter *long_keys(Part &p, size_t part, size_t parts) {
    const auto [from, n] = slice(part, parts);
    std::vector<std::string> keys;
    for (size_t i = 0; i < n; ++i) keys.push_back("key-" + std::to_string((from + i) % 37) + "-long");
    return p.source<CharSource>(12, keys, n ? std::vector<size_t>{n / 2} : std::vector<size_t>{});
}

TEST(PartialsUntyped, CountsSketchesFirstPositionsAndHashCountsMergeThroughBytes) {
    using Make1 = int (*)(Iter *, Iter *);
    for (Make1 make : {qmo_seq_agg_count, qmo_seq_agg_count_not_null, qmo_seq_agg_approxdc})
        expect_bytes_merge_like_records([&](Part &p, size_t i, size_t k) {
            ASSERT_EQ(make(&p.agg, column<t_int4>(p, i, k)), 0);
        }, 3);
    for (uint64_t n : {0, 5, 128})
        expect_bytes_merge_like_records([&](Part &p, size_t i, size_t k) {
            Iter *cond = column<t_uint1>(p, i, k);
            cond->first_pos = slice(i, k).first;  // each partition's column starts where it lies
            ASSERT_EQ(qmo_seq_filter_first_pos(&p.agg, cond, n), 0);
        }, 4);
    expect_bytes_merge_like_records([&](Part &p, size_t i, size_t k) {
        ASSERT_EQ(qmo_seq_hash_agg_count(&p.agg, &p.grp, long_keys(p, i, k), 0), 0);
    }, 3);
    expect_bytes_merge_like_records([&](Part &p, size_t i, size_t k) {
        ASSERT_EQ(qmo_seq_hash_agg_approxdc(&p.agg, &p.grp, column<t_double>(p, i, k), long_keys(p, i, k), 0), 0);
    }, 3);
}

// ---- refusals ---------------------------------------------------------------------------

struct Sample {
    const char *name;
    Build build;
};

const Sample kSamples[] = {
    {"sum", [](Part &p, size_t i, size_t k) { qmo_seq_agg_sum_int4(&p.agg, column<t_int4>(p, i, k)); }},
    {"cov", [](Part &p, size_t i, size_t k) {
         qmo_seq_cov_double(&p.agg, column<t_double>(p, i, k), column<t_double>(p, i, k, 1));
     }},
    {"count", [](Part &p, size_t i, size_t k) { qmo_seq_agg_count(&p.agg, column<t_int2>(p, i, k)); }},
    {"approxdc", [](Part &p, size_t i, size_t k) { qmo_seq_agg_approxdc(&p.agg, column<t_int2>(p, i, k)); }},
    {"first_pos", [](Part &p, size_t i, size_t k) { qmo_seq_filter_first_pos(&p.agg, column<t_uint1>(p, i, k), 9); }},
    {"hash_sum", [](Part &p, size_t i, size_t k) {
         qmo_seq_hash_agg_sum_int4(&p.agg, &p.grp, column<t_int4>(p, i, k), column<t_int2>(p, i, k, 1), 0);
     }},
    {"hash_approxdc", [](Part &p, size_t i, size_t k) {
         qmo_seq_hash_agg_approxdc(&p.agg, &p.grp, column<t_int4>(p, i, k), long_keys(p, i, k), 0);
     }},
    {"sum of int8", [](Part &p, size_t i, size_t k) { qmo_seq_agg_sum_int8(&p.agg, column<t_int8>(p, i, k)); }},
// Every other family once: the mergeable folds of the registry, then the rest.
#define TEST_SAMPLE_(family, shape, ...) TEST_SAMPLE_##shape(family)
#define TEST_SAMPLE_AGGREGATE(family) TEST_ONE_(family)
#define TEST_SAMPLE_PAIR_AGGREGATE(family) TEST_PAIR_(family)
#define TEST_SAMPLE_UNARY(family)
#define TEST_SAMPLE_SINGLE(family)
#define TEST_SAMPLE_MERGED_SINGLE(family)
#define TEST_ONE_(op) {#op, [](Part &p, size_t i, size_t k) { fn::op<t_int4>(&p.agg, column<t_int4>(p, i, k)); }},
#define TEST_PAIR_(op)                                                                         \
    {#op, [](Part &p, size_t i, size_t k) {                                                    \
         fn::op<t_float>(&p.agg, column<t_float>(p, i, k), column<t_float>(p, i, k, 3));       \
     }},
#define TEST_HASH_(op)                                                                                       \
    {#op, [](Part &p, size_t i, size_t k) {                                                                  \
         fn::op<t_uint2>(&p.agg, &p.grp, column<t_uint2>(p, i, k), column<t_int8>(p, i, k, 1), 0);           \
     }},
    QMO_SEQ_SCALAR_FAMILIES(TEST_SAMPLE_) QMO_SEQ_PAIR_FAMILIES(TEST_SAMPLE_)
    TEST_HASH_(hash_agg_max) TEST_HASH_(hash_agg_min) TEST_HASH_(hash_agg_avg)
#undef TEST_ONE_
#undef TEST_PAIR_
#undef TEST_HASH_
#undef TEST_SAMPLE_
#undef TEST_SAMPLE_AGGREGATE
#undef TEST_SAMPLE_PAIR_AGGREGATE
#undef TEST_SAMPLE_UNARY
#undef TEST_SAMPLE_SINGLE
#undef TEST_SAMPLE_MERGED_SINGLE
    {"count_not_null", [](Part &p, size_t i, size_t k) { qmo_seq_agg_count_not_null(&p.agg, column<t_int2>(p, i, k)); }},
    {"top_max", [](Part &p, size_t i, size_t k) { qmo_seq_top_max_double(&p.agg, column<t_double>(p, i, k), 7); }},
    {"top_min", [](Part &p, size_t i, size_t k) { qmo_seq_top_min_uint1(&p.agg, column<t_uint1>(p, i, k), 3); }},
    {"hash_count", [](Part &p, size_t i, size_t k) { qmo_seq_hash_agg_count(&p.agg, &p.grp, long_keys(p, i, k), 0); }},
};

// The bytes with their checksum made to match them again.
std::vector<unsigned char> sealed(std::vector<unsigned char> b) {
    const uint32_t crc = qmo::crc32c(qmo::crc32c(0, b.data(), 12), b.data() + 16, b.size() - 16);
    std::memcpy(b.data() + 12, &crc, 4);
    return b;
}

std::vector<unsigned char> prepared_bytes(const Sample &s) {
    Part p;
    s.build(p, 0, 1);
    p.agg.prepare(&p.agg);
    return export_bytes(&p.agg);
}

// An import that must fail with one of the statuses and leave the record as it was.
void expect_import_refused(const Sample &s, const std::vector<unsigned char> &bytes, uint64_t size,
                           std::initializer_list<int> statuses, const std::string &what) {
    Part p;
    s.build(p, 1, 1);
    p.agg.prepare(&p.agg);
    const Iter before = p.agg;
    const int rc = qmo_seq_import_partial(&p.agg, bytes.data(), size);
    EXPECT_NE(std::find(statuses.begin(), statuses.end(), rc), statuses.end()) << s.name << " " << what << ": " << rc;
    EXPECT_EQ(std::memcmp(&p.agg, &before, sizeof before), 0) << s.name << " " << what << ": record changed";
}

TEST(PartialsRefused, EveryCutAppendedByteAndBitFlipGivesAStatus) {
    for (const Sample &s : kSamples) {
        auto bytes = prepared_bytes(s);
        for (uint64_t n = 0; n < bytes.size(); ++n)
            expect_import_refused(s, bytes, n, {QMO_SEQ_INVALID_ARGUMENT}, "cut at " + std::to_string(n));
        for (unsigned char extra : {0x00, 0x5C}) {
            bytes.push_back(extra);
            expect_import_refused(s, bytes, bytes.size(), {QMO_SEQ_INVALID_ARGUMENT}, "appended byte");
            bytes.pop_back();
        }
        for (size_t bit = 0; bit < bytes.size() * 8; ++bit) {
            auto bad = bytes;
            bad[bit / 8] ^= static_cast<unsigned char>(1u << bit % 8);
            expect_import_refused(s, bad, bad.size(), {QMO_SEQ_INVALID_ARGUMENT}, "bit " + std::to_string(bit));
        }
    }
}

TEST(PartialsRefused, NamedMalformations) {
    auto sum = prepared_bytes(kSamples[0]);
    auto hash = prepared_bytes(kSamples[5]);
    auto first = prepared_bytes(kSamples[4]);
    struct Row {
        const char *what;
        const Sample &sample;
        std::vector<unsigned char> bytes;
        int status;
    };
    // A field rewritten, and the checksum made to match, so that the field itself is refused.
    auto with = [](std::vector<unsigned char> b, size_t at, uint64_t v, size_t width = 8) {
        std::memcpy(b.data() + at, &v, width);
        return sealed(b);
    };
    const size_t payload = QMO_SEQ_PARTIAL_HEADER_BYTES;
    // Ten positions where the limit is nine, with the bytes and the length to match.
    auto ten = first;
    ten.resize(ten.size() + 8);
    ten = with(with(ten, payload + 8, 10), 16, ten.size() - payload);
    // A hash partial whose second group repeats the first one's key.
    auto twice = hash;
    const size_t group = 2 + 8 + 8;
    std::memcpy(twice.data() + payload + 8 + group, twice.data() + payload + 8, 2);
    twice = sealed(twice);
    auto unsealed = sum;
    std::memset(unsealed.data() + 12, 0, 4);
    const Row rows[] = {
        {"version 1 (no checksum)", kSamples[0], with(unsealed, 4, 1, 2), QMO_SEQ_INVALID_ARGUMENT},
        {"version 3", kSamples[0], with(sum, 4, 3, 2), QMO_SEQ_INVALID_ARGUMENT},
        {"another magic", kSamples[0], with(sum, 0, 0x52505352, 4), QMO_SEQ_INVALID_ARGUMENT},
        {"unknown family", kSamples[0], with(sum, 6, 99, 2), QMO_SEQ_TYPE_MISMATCH},
        {"payload length off by one", kSamples[0], with(sum, 16, 25), QMO_SEQ_INVALID_ARGUMENT},
        {"more groups than bytes", kSamples[5], with(hash, payload, 1'000'000), QMO_SEQ_INVALID_ARGUMENT},
        {"group count wrapping the size", kSamples[5], with(hash, payload, ~uint64_t{0} / 2), QMO_SEQ_INVALID_ARGUMENT},
        {"a key twice", kSamples[5], twice, QMO_SEQ_INVALID_ARGUMENT},
        {"more positions than the limit", kSamples[4], ten, QMO_SEQ_INVALID_ARGUMENT},
        {"another limit", kSamples[4], with(first, payload, 8), QMO_SEQ_TYPE_MISMATCH},
        {"another family", kSamples[2], sum, QMO_SEQ_TYPE_MISMATCH},
        {"another element type", kSamples[7], sum, QMO_SEQ_TYPE_MISMATCH},
        {"another hash family", kSamples[5], prepared_bytes(kSamples[6]), QMO_SEQ_TYPE_MISMATCH},
    };
    for (const Row &r : rows) expect_import_refused(r.sample, r.bytes, r.bytes.size(), {r.status}, r.what);
}

TEST(PartialsRefused, RecordsWithoutPartialResults) {
    auto sum = prepared_bytes(kSamples[0]);
    Source<t_int4> ints({1, 2, 3}), more({1, 2, 3}), again({4});
    Iter minmax, counted, added, cond;
    uint64_t size = 0;
    const int32_t array[2] = {1, 2};
    ASSERT_EQ(qmo_seq_agg_min_max_int4(&minmax, &ints.it), 0);
    ASSERT_EQ(qmo_seq_unget_int4(&cond, array, 2), 0);
    ASSERT_EQ(qmo_seq_agg_count(&counted, &cond), 0);  // over an array source: not mergeable
    ASSERT_EQ(qmo_seq_add_int4(&added, &more.it, &again.it), 0);
    for (Iter *it : {&minmax, &counted, &added}) {
        EXPECT_EQ(qmo_seq_export_partial(it, nullptr, &size), QMO_SEQ_TYPE_MISMATCH);
        EXPECT_EQ(qmo_seq_import_partial(it, sum.data(), sum.size()), QMO_SEQ_TYPE_MISMATCH);
    }
}

TEST(PartialsExport, SizeQueryAndShortBuffer) {
    Part p;
    kSamples[0].build(p, 0, 1);
    p.agg.prepare(&p.agg);
    uint64_t size = 0;
    ASSERT_EQ(qmo_seq_export_partial(&p.agg, nullptr, &size), 0);
    EXPECT_EQ(size, QMO_SEQ_PARTIAL_HEADER_BYTES + 3 * 8);
    std::vector<unsigned char> bytes(size, 0xEE);
    uint64_t room = size - 1;
    EXPECT_EQ(qmo_seq_export_partial(&p.agg, bytes.data(), &room), QMO_SEQ_INVALID_ARGUMENT);
    EXPECT_EQ(room, size);
    EXPECT_EQ(bytes, std::vector<unsigned char>(size, 0xEE)) << "written into a short buffer";
    qmo_seq_partial_header_t h;
    ASSERT_EQ(qmo_seq_export_partial(&p.agg, bytes.data(), &room), 0);
    ASSERT_EQ(qmo_seq_read_partial_header(bytes.data(), bytes.size(), &h), 0);
    EXPECT_EQ(std::memcmp(bytes.data(), "QSPR", 4), 0);
    EXPECT_EQ(h.family, QMO_SEQ_PARTIAL_AGG_SUM);
    EXPECT_EQ(h.elem_type, QMO_SEQ_TYPE_INT4);
    EXPECT_EQ(h.key_type, QMO_SEQ_PARTIAL_ANY_TYPE);
    EXPECT_EQ(h.payload_bytes, 24u);
}

// An import refused its k-th allocation, for every k, changes nothing and leaks nothing.
TEST(PartialsExport, EveryImportSurvivesRefusedMemory) {
    for (const Sample &s : kSamples) {
        const auto bytes = prepared_bytes(s);
        for (int k = 1;; ++k) {
            int rc;
            {
                Hooks hooks;
                Part p;
                s.build(p, 1, 1);
                p.agg.prepare(&p.agg);
                Hooks::calls = 0;
                Hooks::refuse_from = k;
                const Iter before = p.agg;
                rc = qmo_seq_import_partial(&p.agg, bytes.data(), bytes.size());
                if (rc == QMO_SEQ_NO_MEMORY) EXPECT_EQ(std::memcmp(&p.agg, &before, sizeof before), 0) << s.name;
                else EXPECT_EQ(rc, 0) << s.name;
                if (qmo_seq_is_hash_aggreate(&p.agg)) qmo_seq_release_hash(&p.agg);
                EXPECT_TRUE(Hooks::live.empty()) << s.name << ": refused from allocation " << k;
            }
            if (rc == 0) break;
        }
    }
}

// ---- carried state ---------------------------------------------------------------------

std::vector<unsigned char> exported_state(const Iter *it) {
    uint64_t size = 0;
    EXPECT_EQ(qmo_seq_export_state(it, nullptr, &size), 0);
    std::vector<unsigned char> bytes(size);
    EXPECT_EQ(qmo_seq_export_state(it, bytes.data(), &size), 0);
    return bytes;
}

// The column cut into partitions (empty ones, one shorter than a window,
// cuts inside tiles), each continued from the one before's state: the
// elements and null bits of one record over the whole, bit for bit.
template <class Tag>
void expect_carried_like_one_record(const std::function<int(Iter *, Iter *)> &make, bool with_nulls) {
    std::vector<V<Tag>> v(kRows);
    std::vector<size_t> nulls;
    for (size_t i = 0; i < kRows; ++i) {
        v[i] = static_cast<V<Tag>>(static_cast<double>(i * 37 % 101) - (is_float_v<Tag> || is_signed_v<Tag> ? 50 : 0) +
                                   (is_float_v<Tag> ? 0.1 * static_cast<double>(i) : 0));
        if (with_nulls && (i == 0 || i % 7 == 3)) nulls.push_back(i);
    }
    Source<Tag> whole(v, nulls, {100, 128});
    Iter one;
    ASSERT_EQ(make(&one, &whole.it), 0);
    const auto want = drain<std::string>(&one);
    Drained<std::string> got;
    std::vector<unsigned char> state;
    const size_t cuts[] = {0, 0, 1, 130, 131, 400, 400, kRows};
    for (size_t c = 0; c + 1 < std::size(cuts); ++c) {
        std::vector<size_t> part_nulls;
        for (size_t i : nulls)
            if (i >= cuts[c] && i < cuts[c + 1]) part_nulls.push_back(i - cuts[c]);
        Source<Tag> part({v.begin() + cuts[c], v.begin() + cuts[c + 1]}, part_nulls, {100, 128});
        Iter rec;
        ASSERT_EQ(make(&rec, &part.it), 0);
        if (!state.empty()) {
            ASSERT_EQ(qmo_seq_import_state(&rec, state.data(), state.size()), 0);
        }
        const auto d = drain<std::string>(&rec);
        got.values.insert(got.values.end(), d.values.begin(), d.values.end());
        got.nulls.insert(got.nulls.end(), d.nulls.begin(), d.nulls.end());
        state = exported_state(&rec);
    }
    EXPECT_EQ(got.values, want.values);
    EXPECT_EQ(got.nulls, want.nulls);
}

template <class Tag>
struct Carried : ::testing::Test {};
TYPED_TEST_SUITE(Carried, NumericTypes);

TYPED_TEST(Carried, WindowsAndCumulativeAggregatesContinueFromTheStateBitForBit) {
    using T = TypeParam;
#define TEST_WINDOW_(family, ...) fn::family<T>,
#define TEST_CUM_(family, ...) fn::family<T>,
    for (auto make : {QMO_SEQ_WINDOW_FAMILIES(TEST_WINDOW_)})
        for (uint64_t n : {size_t{1}, size_t{5}, QMO_SEQ_WINDOW_RING_BYTES / sizeof(V<T>)})
            expect_carried_like_one_record<T>([&](Iter *r, Iter *in) { return make(r, in, n); }, false);
    for (auto make : {QMO_SEQ_CUMULATIVE_FAMILIES(TEST_CUM_)}) expect_carried_like_one_record<T>(make, true);
#undef TEST_WINDOW_
#undef TEST_CUM_
}

TEST(CarriedRefused, OtherRecordsLengthsAndDamagedBytes) {
    Source<t_double> a({1, 2, 3}), b({1, 2, 3}), c({1}), d({1});
    Iter ema5, ema6, cum, sum;
    ASSERT_EQ(qmo_seq_window_agg_ema_double(&ema5, &a.it, 5), 0);
    ASSERT_EQ(qmo_seq_window_agg_ema_double(&ema6, &b.it, 6), 0);
    ASSERT_EQ(qmo_seq_cum_agg_sum_double(&cum, &c.it), 0);
    ASSERT_EQ(qmo_seq_agg_sum_double(&sum, &d.it), 0);
    drain<double>(&ema5);
    const auto state = exported_state(&ema5);
    auto flipped = state;
    flipped[40] ^= 4;
    uint64_t size = 0;
    EXPECT_EQ(qmo_seq_export_state(&sum, nullptr, &size), QMO_SEQ_TYPE_MISMATCH);
    // The cumulative record's own state with its position and count rewritten.
    auto cum_state = [&](uint64_t pos, uint64_t count) {
        auto bytes = exported_state(&cum);
        std::memcpy(bytes.data() + QMO_SEQ_PARTIAL_HEADER_BYTES, &pos, 8);
        std::memcpy(bytes.data() + QMO_SEQ_PARTIAL_HEADER_BYTES + 8, &count, 8);
        return sealed(bytes);
    };
    const struct {
        const char *what;
        Iter *into;
        std::vector<unsigned char> bytes;
        int status;
    } rows[] = {
        {"another window length", &ema6, state, QMO_SEQ_TYPE_MISMATCH},
        {"another family", &cum, state, QMO_SEQ_TYPE_MISMATCH},
        {"not a series record", &sum, state, QMO_SEQ_TYPE_MISMATCH},
        {"a flipped bit", &ema6, flipped, QMO_SEQ_INVALID_ARGUMENT},
        {"cut short", &ema6, {state.begin(), state.end() - 1}, QMO_SEQ_INVALID_ARGUMENT},
        {"a partial result", &ema6, prepared_bytes(kSamples[0]), QMO_SEQ_TYPE_MISMATCH},
        {"more counted than seen", &cum, cum_state(1, 1), QMO_SEQ_INVALID_ARGUMENT},
        {"a position that would wrap", &cum, cum_state(~uint64_t{0}, 0), QMO_SEQ_INVALID_ARGUMENT},
    };
    for (const auto &r : rows) {
        const Iter before = *r.into;
        EXPECT_EQ(qmo_seq_import_state(r.into, r.bytes.data(), r.bytes.size()), r.status) << r.what;
        EXPECT_EQ(std::memcmp(r.into, &before, sizeof before), 0) << r.what;
    }
}

// Known values of CRC-32C; both variants agree over every length and alignment.
TEST(PartialsChecksum, KnownValuesAndBothVariantsAgree) {
    const char *digits = "123456789";
    EXPECT_EQ(qmo::crc32c(0, digits, 9), 0xE3069283u);
    EXPECT_EQ(qmo::crc32c(qmo::crc32c(0, digits, 4), digits + 4, 5), 0xE3069283u);
    EXPECT_EQ(qmo::crc32c(0, std::vector<unsigned char>(32, 0).data(), 32), 0x8A9136AAu);
    EXPECT_EQ(qmo::crc32c(0, std::vector<unsigned char>(32, 0xFF).data(), 32), 0x62A8AB43u);
    if (!qmo::crc32c_hardware) GTEST_SKIP() << "no crc32 instruction here";
    std::vector<unsigned char> bytes(300);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i * 131 + 7);
    for (size_t from = 0; from < 9; ++from)
        for (size_t n = 0; from + n <= bytes.size(); n += 1 + n / 8)
            ASSERT_EQ(qmo::crc32c_hardware(7, bytes.data() + from, n), qmo::crc32c_portable(7, bytes.data() + from, n))
                << from << " " << n;
}

}  // namespace
