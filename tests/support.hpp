// Test support: tags and per-type function tables stamped from the header's
// own lists, a scripted source with chosen tiles, nulls and failures, helpers
// that build and drain sequences, and counting allocator hooks.
#pragma once

#include "qmo_seq.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

namespace test {

using Iter = qmo_seq_iterator_t;
using Unary = int (*)(Iter *, Iter *);
using Binary = int (*)(Iter *, Iter *, Iter *);

// One tag per suffix (datetime and uint8 share a C type, so tags tell them apart).
#define TEST_TAG_(a, t, ctype, code) struct t_##t { using type = ctype; static constexpr int code_ = code; };
QMO_SEQ_ALL_TYPES(TEST_TAG_, )
#undef TEST_TAG_

template <class Tag>
using V = typename Tag::type;
template <class Tag>
constexpr bool is_float_v = std::is_floating_point_v<V<Tag>>;
template <class Tag>
constexpr bool is_signed_v = std::is_signed_v<V<Tag>> && !is_float_v<Tag>;

// fn::<family><Tag>: the family's exported function for the tag's type, for
// every row of the registry with typed members (hash aggregates as
// fn::hash_agg_<op>, time-stamped families as fn::<family><TsTag, Tag>).
// Families named by a C++ keyword (if, const, union) get a trailing underscore.
namespace fn {
#define TEST_SECOND_(a, b, ...) b
#define TEST_SECOND_I_(...) TEST_SECOND_(__VA_ARGS__)
#define TEST_KEYWORD_if ~, 1
#define TEST_KEYWORD_const ~, 1
#define TEST_KEYWORD_union ~, 1
#define TEST_IS_KEYWORD_(family) TEST_SECOND_I_(TEST_KEYWORD_##family, 0, ~)

#define TEST_FN_(a, t, ctype, code) TEST_FN_I_(QMO_SEQ_EXPAND a, t)
#define TEST_FN_I_(...) TEST_FN_II_(__VA_ARGS__)
#define TEST_FN_II_(name, family, t) template <> inline constexpr auto name<t_##t> = qmo_seq_##family##_##t;
#define TEST_TABLE_(name, family, types)                                                                     \
    template <class Tag>                                                                                     \
    inline constexpr auto name = nullptr;                                                                    \
    types(TEST_FN_, (name, family))
#define TEST_HASH_FN_(op, t, ctype, code) \
    template <> inline constexpr auto hash_agg_##op<t_##t> = qmo_seq_hash_agg_##op##_##t;
#define TEST_PAIR_FN_(family, pair, ctype, code) TEST_PAIR_FN_I_(family, QMO_SEQ_EXPAND pair)
#define TEST_PAIR_FN_I_(...) TEST_PAIR_FN_II_(__VA_ARGS__)
#define TEST_PAIR_FN_II_(family, first, t, fcode) \
    template <> inline constexpr auto family<t_##first, t_##t> = qmo_seq_##family##_##first##_##t;

#define TEST_ROW_(family, shape, types, partial, statuses, doc) TEST_ROW_I_(QMO_SEQ_KIND_##shape, shape, family, types)
#define TEST_ROW_I_(kind, shape, family, types) TEST_ROW_II_(kind, shape, family, types)
#define TEST_ROW_II_(kind, shape, family, types) TEST_KIND_##kind(shape, family, types)
#define TEST_KIND_SINGLE(shape, family, types)
#define TEST_KIND_TYPED(shape, family, types) TEST_TYPED_I_(TEST_IS_KEYWORD_(family), family, types)
#define TEST_TYPED_I_(keyword, family, types) TEST_TYPED_II_(keyword, family, types)
#define TEST_TYPED_II_(keyword, family, types) TEST_TYPED_##keyword(family, types)
#define TEST_TYPED_0(family, types) TEST_TABLE_(family, family, types)
#define TEST_TYPED_1(family, types) TEST_TABLE_(family##_, family, types)
#define TEST_KIND_HASHED(shape, family, types) \
    template <class Tag>                        \
    inline constexpr auto hash_agg_##family = nullptr; \
    types(TEST_HASH_FN_, family)
// Pairs: conversions are named qmo_seq_<t>_to_<u> and are tested by name.
#define TEST_KIND_PAIRED(shape, family, types) TEST_PAIRED_##shape(family, types)
#define TEST_PAIRED_CONVERSION(family, types)
#define TEST_PAIRED_STRETCH(family, types)               \
    template <class TsTag, class Tag>                     \
    inline constexpr auto family = nullptr;               \
    types(TEST_PAIR_FN_, family)
#define TEST_PAIRED_ASOF TEST_PAIRED_STRETCH
#define TEST_PAIRED_STRETCH0 TEST_PAIRED_STRETCH

QMO_SEQ_FAMILIES(TEST_ROW_)
// The sort family's ordering iterators.
TEST_TABLE_(order_by, order_by, QMO_SEQ_NUMERIC_TYPES)
}  // namespace fn

// The eleven numeric tags as gtest types (a dummy first entry eats the comma).
#define TEST_TAG_LIST_(a, t, ctype, code) , t_##t
template <class First, class... Rest>
struct DropFirst {
    using type = ::testing::Types<Rest...>;
};
using NumericTypes = DropFirst<void QMO_SEQ_NUMERIC_TYPES(TEST_TAG_LIST_, )>::type;
#undef TEST_TAG_LIST_

// ---- scripted sources ---------------------------------------------------------

// Delivers its elements in tiles of the given lengths (the last repeats), with
// nulls where marked; counts pulls and resets. From pull `fail_from` (counted
// from 1) on, a non-zero `fail_with` is returned instead.
struct Script {
    Iter it{};
    std::vector<unsigned char> bytes;
    std::vector<bool> nulls;
    std::vector<unsigned> tiles{QMO_SEQ_TILE_SIZE};
    size_t width, count = 0, at = 0, tile_index = 0;
    int pulls = 0, resets = 0, fail_with = 0, fail_from = 1;

    Script(int type, size_t elem_width) : width(elem_width) {
        it.elem_type = static_cast<uint8_t>(type);
        it.elem_size = static_cast<uint16_t>(elem_width);
        it.last_pos = ~uint64_t{0};
        it.next = &Script::next;
        it.reset = &Script::reset;
        it.state[QMO_SEQ_STATE_WORDS - 1] = reinterpret_cast<uintptr_t>(this);
    }
    Script(const Script &) = delete;
    Script &operator=(const Script &) = delete;

    static Script *self(Iter *it) {
        return reinterpret_cast<Script *>(static_cast<uintptr_t>(it->state[QMO_SEQ_STATE_WORDS - 1]));
    }
    static int next(Iter *it) {
        Script *s = self(it);
        if (++s->pulls >= s->fail_from && s->fail_with) return s->fail_with;
        if (s->at >= s->count) return QMO_SEQ_END;
        const size_t n = std::min<size_t>(s->tiles[std::min(s->tile_index++, s->tiles.size() - 1)], s->count - s->at);
        std::memcpy(it->values.bytes, s->bytes.data() + s->at * s->width, n * s->width);
        it->null_bitmap[0] = it->null_bitmap[1] = 0;
        for (size_t i = 0; i < n; ++i) it->null_bitmap[i / 64] |= uint64_t{s->nulls[s->at + i]} << (i % 64);
        s->at += n;
        it->tile_count = static_cast<uint16_t>(n);
        it->pos += n;
        return QMO_SEQ_OK;
    }
    static int reset(Iter *it) {
        ++self(it)->resets;
        self(it)->at = self(it)->tile_index = 0;
        return qmo_seq_reset_iterator(it);
    }
    void load(const void *data, size_t n, const std::vector<size_t> &null_at) {
        count = n;
        bytes.assign(n * width, 0);
        if (n) std::memcpy(bytes.data(), data, bytes.size());
        nulls.assign(n, false);
        for (size_t i : null_at) nulls[i] = true;
    }
};

// A numeric source of the tag's type.
template <class Tag>
struct Source : Script {
    explicit Source(const std::vector<V<Tag>> &values, const std::vector<size_t> &null_at = {},
                    std::vector<unsigned> tile_lengths = {QMO_SEQ_TILE_SIZE})
        : Script(Tag::code_, sizeof(V<Tag>)) {
        load(values.data(), values.size(), null_at);
        tiles = std::move(tile_lengths);
    }
};

// A char source of the given width; each string is NUL-padded to the width.
struct CharSource : Script {
    CharSource(size_t w, const std::vector<std::string> &strings, const std::vector<size_t> &null_at = {})
        : Script(QMO_SEQ_TYPE_CHAR, w) {
        std::string all;
        for (const std::string &s : strings) all += (s + std::string(w, '\0')).substr(0, w);
        load(all.data(), strings.size(), null_at);
    }
};

using Cond = Source<t_uint1>;

// from, from + 1, ..., as int32.
inline std::vector<int32_t> iota_column(size_t n, int32_t from = 0) {
    std::vector<int32_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = from + static_cast<int32_t>(i);
    return v;
}

// ---- draining -------------------------------------------------------------------

template <class T>
struct Drained {
    std::vector<T> values;  // std::string: char elements of the record's full width
    std::vector<bool> nulls;
    std::vector<unsigned> tiles;  // length of every tile delivered
    int status = 0;               // the status that ended the drain
};

// Pulls until a non-zero status (at most 2^16 tiles), collecting every element and its null bit.
template <class T>
Drained<T> drain(Iter *it) {
    Drained<T> d;
    for (int k = 0; k < 1 << 16 && (d.status = it->next(it)) == 0; ++k) {
        d.tiles.push_back(it->tile_count);
        for (unsigned i = 0; i < it->tile_count; ++i) {
            if constexpr (std::is_same_v<T, std::string>) {
                d.values.emplace_back(it->values.bytes + size_t{i} * it->elem_size, it->elem_size);
            } else {
                T v;
                std::memcpy(&v, it->values.bytes + size_t{i} * sizeof v, sizeof v);
                d.values.push_back(v);
            }
            d.nulls.push_back((it->null_bitmap[i / 64] >> (i % 64)) & 1);
        }
    }
    return d;
}

// Drains, resets and drains again: the replay must deliver the same tiles.
template <class T>
Drained<T> drain_replayed(Iter *it) {
    const Drained<T> d = drain<T>(it);
    EXPECT_EQ(it->reset(it), 0);
    const Drained<T> again = drain<T>(it);
    EXPECT_TRUE(again.values == d.values && again.nulls == d.nulls && again.tiles == d.tiles) << "replay differs";
    return d;
}

// A reset after a first pull rewinds to exactly the first pass, which must be
// `expected` wherever it is not null (values under nulls are unspecified).
template <class T>
void expect_rewound_pass(Iter *out, const Drained<T> &expected) {
    out->next(out);
    ASSERT_EQ(out->reset(out), 0);
    const Drained<T> d = drain_replayed<T>(out);
    EXPECT_EQ(d.status, QMO_SEQ_END);
    ASSERT_EQ(d.nulls, expected.nulls);
    for (size_t i = 0; i < expected.values.size(); ++i) {
        if (!expected.nulls[i]) {
            ASSERT_EQ(d.values[i], expected.values[i]) << "element " << i;
        }
    }
}

// Builds make(result, args...), which must succeed, and drains the result.
template <class T, class Make, class... Args>
Drained<T> run(Make make, Args... args) {
    Iter out;
    EXPECT_EQ(make(&out, args...), 0);
    return drain<T>(&out);
}

// ---- construction and settings ------------------------------------------------

// A constructor call that must fail with `status` and write nothing: neither
// the result record nor the given operands' bound flags (unless `binds_first`:
// constructors that refuse a parameter after binding leave them bound).
template <class Make>
void expect_refused(int status, Make make, std::initializer_list<Iter *> operands, bool binds_first = false) {
    Iter out;
    std::memset(&out, 0xAB, sizeof out);
    const Iter before = out;
    std::vector<uint8_t> bound;
    for (Iter *o : operands) bound.push_back(o->bound);
    EXPECT_EQ(make(&out), status);
    EXPECT_EQ(std::memcmp(&out, &before, sizeof out), 0) << "result written";
    for (size_t i = 0; i < bound.size(); ++i)
        EXPECT_EQ(operands.begin()[i]->bound, binds_first ? 1 : bound[i]) << "operand " << i;
}

// Bindings off unless a test turns them on; restores the setting afterwards.
struct BindingChecks {
    int previous;
    explicit BindingChecks(int on) : previous(qmo_seq_enable_check_bindings(on)) {}
    ~BindingChecks() { qmo_seq_enable_check_bindings(previous); }
};

// Allocation hooks while the object lives: live blocks are tracked, a free of
// anything else or with another size fails, and every request from the k-th
// on is refused (0: none).
struct Hooks {
    static inline std::map<void *, size_t> live;
    static inline int calls = 0, refuse_from = 0;
    static void *take(void *, size_t size) {
        if (++calls >= refuse_from && refuse_from > 0) return nullptr;
        void *p = std::malloc(size);
        live[p] = size;
        return p;
    }
    static void give(void *, void *p, size_t size) {
        EXPECT_EQ(live[p], size) << "freed with another size than taken";
        live.erase(p);
        std::free(p);
    }
    explicit Hooks(int refuse = 0) {
        calls = 0;
        refuse_from = refuse;
        qmo_seq_redefine_allocator(take, give);
    }
    ~Hooks() { qmo_seq_redefine_allocator(qmo_seq_sys_malloc, qmo_seq_sys_free); }
};

// Element i of a tile as a double, whatever its numeric type.
inline double element(const Iter *it, unsigned i) {
    switch (it->elem_type) {
#define TEST_ELEMENT_(a, t, ctype, code)                            \
    case code: {                                                    \
        ctype v;                                                    \
        std::memcpy(&v, it->values.bytes + i * sizeof v, sizeof v); \
        return static_cast<double>(v);                              \
    }
        QMO_SEQ_NUMERIC_TYPES(TEST_ELEMENT_, )
#undef TEST_ELEMENT_
    }
    return std::nan("");
}

// Drains a numeric sequence of any type, each element as a double.
inline Drained<double> drain_numbers(Iter *it) {
    Drained<double> d;
    for (int k = 0; k < 1 << 16 && (d.status = it->next(it)) == 0; ++k) {
        d.tiles.push_back(it->tile_count);
        for (unsigned i = 0; i < it->tile_count; ++i) {
            d.values.push_back(element(it, i));
            d.nulls.push_back((it->null_bitmap[i / 64] >> (i % 64)) & 1);
        }
    }
    return d;
}

// ---- stretch: two type parameters ---------------------------------------------------

// A (time-stamp type, value type) pair of tags.
template <class TsTag, class Tag>
struct Pair {
    using ts = TsTag;
    using tag = Tag;
};


// Every time-stamp type with every numeric value type (33 pairs).
#define TEST_PAIR_(ts, t, ctype, code) , Pair<t_##ts, t_##t>
#define TEST_PAIRS_OVER_(a, ts, tsctype, tscode) QMO_SEQ_NUMERIC_TYPES(TEST_PAIR_, ts)
using StretchTypes = DropFirst<void QMO_SEQ_TIMESTAMP_TYPES(TEST_PAIRS_OVER_, )>::type;
#undef TEST_PAIRS_OVER_
#undef TEST_PAIR_

}  // namespace test
