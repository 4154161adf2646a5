// Test support: per-type tables of the public API (stamped from the header's
// own type lists), a scripted source with chosen tile lengths and nulls, and
// helpers to drain a sequence.
#pragma once

#include "qmo_seq.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <algorithm>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

namespace test {

using Iter = qmo_seq_iterator_t;

// Tag per suffix (datetime and uint8 share a C type, so tags tell them apart).
#define TEST_TAG_(a, t, ctype, code) \
    struct t_##t {};
QMO_SEQ_ALL_TYPES(TEST_TAG_, )
#undef TEST_TAG_

// Api<tag>: the exported functions of one element type.
template <class Tag>
struct Api;

#define TEST_API_(a, t, ctype, code)                          \
    template <>                                               \
    struct Api<t_##t> {                                       \
        using type = ctype;                                   \
        static constexpr int code_ = code;                    \
        static constexpr auto next = qmo_seq_next_##t;        \
        static constexpr auto get = qmo_seq_get_##t;          \
        static constexpr auto get_nullable = qmo_seq_get_nullable_##t; \
        static constexpr auto eq = qmo_seq_eq_##t;            \
        static constexpr auto ne = qmo_seq_ne_##t;            \
        static constexpr auto lt = qmo_seq_lt_##t;            \
        static constexpr auto gt = qmo_seq_gt_##t;            \
        static constexpr auto le = qmo_seq_le_##t;            \
        static constexpr auto ge = qmo_seq_ge_##t;            \
    };
QMO_SEQ_ALL_TYPES(TEST_API_, )
#undef TEST_API_

// NumApi<tag>: the numeric-only members besides those of Api<tag>.
template <class Tag>
struct NumApi;

#define TEST_NUM_API_(a, t, ctype, code)                      \
    template <>                                               \
    struct NumApi<t_##t> : Api<t_##t> {                       \
        static constexpr auto constant = qmo_seq_const_##t;   \
        static constexpr auto unget = qmo_seq_unget_##t;      \
        static constexpr auto unget_nullable = qmo_seq_unget_nullable_##t; \
        static constexpr auto add = qmo_seq_add_##t;          \
        static constexpr auto sub = qmo_seq_sub_##t;          \
        static constexpr auto mul = qmo_seq_mul_##t;          \
        static constexpr auto div = qmo_seq_div_##t;          \
        static constexpr auto mod = qmo_seq_mod_##t;          \
        static constexpr auto max = qmo_seq_max_##t;          \
        static constexpr auto min = qmo_seq_min_##t;          \
        static constexpr auto abs = qmo_seq_abs_##t;          \
        static constexpr auto neg = qmo_seq_neg_##t;          \
    };
QMO_SEQ_NUMERIC_TYPES(TEST_NUM_API_, )
#undef TEST_NUM_API_

// AggApi<tag>: the scalar aggregate constructors of one numeric type (each
// record then carries its own merge function).
template <class Tag>
struct AggApi;

#define TEST_AGG_API_(a, t, ctype, code)                                    \
    template <>                                                             \
    struct AggApi<t_##t> {                                                  \
        static constexpr auto sum = qmo_seq_agg_sum_##t;                    \
        static constexpr auto prd = qmo_seq_agg_prd_##t;                    \
        static constexpr auto min = qmo_seq_agg_min_##t;                    \
        static constexpr auto max = qmo_seq_agg_max_##t;                    \
        static constexpr auto avg = qmo_seq_agg_avg_##t;                    \
        static constexpr auto var = qmo_seq_agg_var_##t;                    \
        static constexpr auto var_samp = qmo_seq_agg_var_samp_##t;          \
        static constexpr auto dev = qmo_seq_agg_dev_##t;                    \
        static constexpr auto dev_samp = qmo_seq_agg_dev_samp_##t;          \
        static constexpr auto min_max = qmo_seq_agg_min_max_##t;            \
        static constexpr auto cov = qmo_seq_cov_##t;                        \
        static constexpr auto corr = qmo_seq_corr_##t;                      \
        static constexpr auto wsum = qmo_seq_wsum_##t;                      \
        static constexpr auto wavg = qmo_seq_wavg_##t;                      \
    };
QMO_SEQ_NUMERIC_TYPES(TEST_AGG_API_, )
#undef TEST_AGG_API_
// SortApi<tag>: sorting and the ordering iterator of one numeric type.
template <class Tag>
struct SortApi;

#define TEST_SORT_API_(a, t, ctype, code)                                  \
    template <>                                                            \
    struct SortApi<t_##t> : NumApi<t_##t> {                                \
        static constexpr auto sort = qmo_seq_sort_##t;                     \
        static constexpr auto order_by = qmo_seq_order_by_##t;             \
        static constexpr auto order_by_next = qmo_seq_order_by_##t##_next; \
    };
QMO_SEQ_NUMERIC_TYPES(TEST_SORT_API_, )
#undef TEST_SORT_API_

// HashApi<tag>: the hash aggregate constructors over values of one numeric type.
template <class Tag>
struct HashApi;

#define TEST_HASH_API_(a, t, ctype, code)                                   \
    template <>                                                             \
    struct HashApi<t_##t> {                                                 \
        static constexpr auto max = qmo_seq_hash_agg_max_##t;               \
        static constexpr auto min = qmo_seq_hash_agg_min_##t;               \
        static constexpr auto sum = qmo_seq_hash_agg_sum_##t;               \
        static constexpr auto avg = qmo_seq_hash_agg_avg_##t;               \
    };
QMO_SEQ_NUMERIC_TYPES(TEST_HASH_API_, )
#undef TEST_HASH_API_

// The eleven numeric tags as gtest types (a dummy first entry eats the comma).
#define TEST_TAG_LIST_(a, t, ctype, code) , t_##t
template <class First, class... Rest>
struct DropFirst {
    using type = ::testing::Types<Rest...>;
};
using NumericTypes = DropFirst<void QMO_SEQ_NUMERIC_TYPES(TEST_TAG_LIST_, )>::type;
#undef TEST_TAG_LIST_

template <class Tag>
using V = typename Api<Tag>::type;

template <class Tag>
constexpr bool is_float_v = std::is_floating_point_v<V<Tag>>;
template <class Tag>
constexpr bool is_signed_v = std::is_signed_v<V<Tag>> && !is_float_v<Tag>;

// ---- scripted source --------------------------------------------------------

// Delivers `values` in tiles of the given lengths (the last length repeats),
// with nulls at the given indexes; counts pulls and resets. Element type and
// width are free, so it can stand in for any operand.
struct Script {
    Iter it{};
    std::vector<unsigned char> bytes;
    std::vector<bool> nulls;
    std::vector<unsigned> tiles{QMO_SEQ_TILE_SIZE};
    size_t width = 0;
    size_t count = 0;
    size_t at = 0;
    size_t tile_index = 0;
    int pulls = 0;
    int resets = 0;
    int fail_with = 0;  // non-zero: every pull returns this status

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
        ++s->pulls;
        if (s->fail_with) return s->fail_with;
        if (s->at >= s->count) return QMO_SEQ_END;
        const unsigned want = s->tiles[std::min(s->tile_index, s->tiles.size() - 1)];
        ++s->tile_index;
        const size_t n = std::min<size_t>(want, s->count - s->at);
        std::memcpy(it->values.bytes, s->bytes.data() + s->at * s->width, n * s->width);
        it->null_bitmap[0] = it->null_bitmap[1] = 0;
        for (size_t i = 0; i < n; ++i)
            if (s->nulls[s->at + i]) it->null_bitmap[i / 64] |= uint64_t{1} << (i % 64);
        s->at += n;
        it->tile_count = static_cast<uint16_t>(n);
        it->pos += n;
        return QMO_SEQ_OK;
    }
    static int reset(Iter *it) {
        Script *s = self(it);
        ++s->resets;
        s->at = 0;
        s->tile_index = 0;
        return qmo_seq_reset_iterator(it);
    }
};

template <class T>
void load(Script &s, const std::vector<T> &values, const std::vector<size_t> &null_at = {}) {
    s.count = values.size();
    s.bytes.assign(values.size() * sizeof(T), 0);
    if (!values.empty()) std::memcpy(s.bytes.data(), values.data(), s.bytes.size());
    s.nulls.assign(values.size(), false);
    for (size_t i : null_at) s.nulls[i] = true;
}

// A numeric source of the tag's type over the given values.
template <class Tag>
struct Source : Script {
    explicit Source(const std::vector<V<Tag>> &values, std::vector<size_t> null_at = {},
                    std::vector<unsigned> tile_lengths = {QMO_SEQ_TILE_SIZE})
        : Script(Api<Tag>::code_, sizeof(V<Tag>)) {
        load(*this, values, null_at);
        tiles = std::move(tile_lengths);
    }
};

// A char source of the given width; each string is NUL-padded to the width.
struct CharSource : Script {
    CharSource(size_t w, const std::vector<std::string> &strings, std::vector<size_t> null_at = {})
        : Script(QMO_SEQ_TYPE_CHAR, w) {
        count = strings.size();
        bytes.assign(count * w, 0);
        for (size_t i = 0; i < count; ++i)
            std::memcpy(bytes.data() + i * w, strings[i].data(), std::min(w, strings[i].size()));
        nulls.assign(count, false);
        for (size_t i : null_at) nulls[i] = true;
    }
};

// Element i of a tile as a double, whatever its numeric type.
inline double element(const Iter *it, unsigned i) {
    switch (it->elem_type) {
    case QMO_SEQ_TYPE_INT1: return it->values.i1[i];
    case QMO_SEQ_TYPE_INT2: return it->values.i2[i];
    case QMO_SEQ_TYPE_INT4: return it->values.i4[i];
    case QMO_SEQ_TYPE_INT8: return static_cast<double>(it->values.i8[i]);
    case QMO_SEQ_TYPE_UINT1: return it->values.u1[i];
    case QMO_SEQ_TYPE_UINT2: return it->values.u2[i];
    case QMO_SEQ_TYPE_UINT4: return it->values.u4[i];
    case QMO_SEQ_TYPE_FLOAT: return it->values.f4[i];
    case QMO_SEQ_TYPE_DOUBLE: return it->values.f8[i];
    default: return static_cast<double>(it->values.u8[i]);  // uint8, datetime
    }
}

// ---- draining ---------------------------------------------------------------

template <class T>
struct Drained {
    std::vector<T> values;
    std::vector<bool> nulls;
    std::vector<unsigned> tiles;  // length of every tile delivered
    int status = 0;               // the status that ended the drain
};

// Pulls until a non-zero status, collecting every element and its null bit.
template <class T>
Drained<T> drain(Iter *it, int max_tiles = 1 << 20) {
    Drained<T> d;
    for (int k = 0; k < max_tiles; ++k) {
        d.status = it->next(it);
        if (d.status) break;
        d.tiles.push_back(it->tile_count);
        for (unsigned i = 0; i < it->tile_count; ++i) {
            T v;
            std::memcpy(&v, it->values.bytes + size_t{i} * sizeof(T), sizeof(T));
            d.values.push_back(v);
            d.nulls.push_back((it->null_bitmap[i / 64] >> (i % 64)) & 1);
        }
    }
    return d;
}

// Char elements as strings of the record's full width (NULs included).
inline std::vector<std::string> drain_chars(Iter *it) {
    std::vector<std::string> out;
    while (it->next(it) == 0)
        for (unsigned i = 0; i < it->tile_count; ++i)
            out.emplace_back(it->values.bytes + size_t{i} * it->elem_size, it->elem_size);
    return out;
}

// Bindings off unless a test turns them on; restores the setting afterwards.
struct BindingChecks {
    int previous;
    explicit BindingChecks(int on) : previous(qmo_seq_enable_check_bindings(on)) {}
    ~BindingChecks() { qmo_seq_enable_check_bindings(previous); }
};

}  // namespace test
