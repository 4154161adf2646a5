// Record access shared by every operator: element traits keyed by type code,
// typed views of the tile, null bitmap helpers and the export macro.
#pragma once

#include "qmo_seq.h"

#include <cstdint>
#include <cstring>
#include <type_traits>

// Definition side of an exported name. extern "C" makes a signature that
// drifts from the header's declaration a compile error, not a new overload.
#define QMO_EXPORT extern "C" QMO_SEQ_API

// Defines a registry group: QMO_SEQ_<GROUP>_FAMILIES(QMO_STAMP_FAMILY) expands
// QMO_STAMP_<shape>(family, t, ctype, code) for every member of every row, and
// the file that defines the group defines the stamps of its shapes (a shape
// it does not define fails to compile). Single families are written out.
#define QMO_STAMP_FAMILY(family, shape, types, partial, statuses, doc) types(QMO_STAMP_##shape, family)
#define QMO_STAMP_SINGLE(family, t, ctype, code)
#define QMO_STAMP_MERGED_SINGLE(family, t, ctype, code)

namespace qmo {

using Iter = qmo_seq_iterator_t;

inline constexpr unsigned kTile = QMO_SEQ_TILE_SIZE;
inline constexpr uint64_t kUnbounded = ~uint64_t{0};

// The state words (indices from 0) that the generic aggregate resets clear:
// a layout that relies on them being cleared asserts it is inside.
constexpr bool cleared_by_agg_reset(unsigned word) {
    return word + 1 >= QMO_SEQ_AGG_RESET_FIRST_WORD && word + 1 <= QMO_SEQ_AGG_RESET_LAST_WORD;
}
// How far ahead streaming sources and sinks prefetch caller arrays.
inline constexpr size_t kPrefetchBytes = 2048;

// ---- element traits -------------------------------------------------------

template <int Code, class T>
struct ElemOf {
    using type = T;
    static constexpr int code = Code;
    static constexpr uint16_t size = sizeof(T);
    static constexpr bool is_char = false;
    static constexpr bool is_float = std::is_floating_point_v<T>;
    static constexpr bool is_signed = std::is_signed_v<T> && !is_float;
    static constexpr bool is_datetime = Code == QMO_SEQ_TYPE_DATETIME;
};

// Elem<code>: the element type with that type code.
template <int Code>
struct Elem;

#define QMO_DEFINE_ELEM_(a, t, ctype, code) \
    template <>                             \
    struct Elem<code> : ElemOf<code, ctype> {};
QMO_SEQ_NUMERIC_TYPES(QMO_DEFINE_ELEM_, )
#undef QMO_DEFINE_ELEM_

// Char elements have no fixed size: the width lives in each record.
template <>
struct Elem<QMO_SEQ_TYPE_CHAR> {
    using type = char;
    static constexpr int code = QMO_SEQ_TYPE_CHAR;
    static constexpr bool is_char = true;
    static constexpr bool is_float = false;
    static constexpr bool is_signed = false;
    static constexpr bool is_datetime = false;
};

using Bool = Elem<QMO_SEQ_TYPE_UINT1>;
using CharElem = Elem<QMO_SEQ_TYPE_CHAR>;

template <class E>
using value_t = typename E::type;

// What sums and products of E's elements are kept in: 64-bit of E's
// signedness, double for floats; datetime stays datetime.
template <class E>
using wide_t = Elem<E::is_float      ? QMO_SEQ_TYPE_DOUBLE
                    : E::is_datetime ? QMO_SEQ_TYPE_DATETIME
                    : E::is_signed   ? QMO_SEQ_TYPE_INT8
                                     : QMO_SEQ_TYPE_UINT8>;

// ---- typed views of the tile ---------------------------------------------

template <class T>
inline T *tile(Iter *it) noexcept {
    if constexpr (std::is_same_v<T, uint8_t>) return it->values.u1;
    else if constexpr (std::is_same_v<T, uint16_t>) return it->values.u2;
    else if constexpr (std::is_same_v<T, uint32_t>) return it->values.u4;
    else if constexpr (std::is_same_v<T, uint64_t>) return it->values.u8;
    else if constexpr (std::is_same_v<T, int8_t>) return it->values.i1;
    else if constexpr (std::is_same_v<T, int16_t>) return it->values.i2;
    else if constexpr (std::is_same_v<T, int32_t>) return it->values.i4;
    else if constexpr (std::is_same_v<T, int64_t>) return it->values.i8;
    else if constexpr (std::is_same_v<T, float>) return it->values.f4;
    else if constexpr (std::is_same_v<T, double>) return it->values.f8;
    else {
        static_assert(std::is_same_v<T, char>, "not an element type");
        return it->values.bytes;
    }
}

template <class T>
inline const T *tile(const Iter *it) noexcept {
    return tile<T>(const_cast<Iter *>(it));
}

// Bytes per element of a record of element type E.
template <class E>
inline unsigned elem_width(const Iter *it) noexcept {
    if constexpr (E::is_char) return it->elem_size;
    else return E::size;
}

// Calls f with an element width as a constant for the power-of-two widths up
// to 8, so that loads and loops specialise; other widths pass through as they are.
template <class F>
inline void with_width(unsigned width, F f) {
    switch (width) {
    case 1: return f(std::integral_constant<unsigned, 1>{});
    case 2: return f(std::integral_constant<unsigned, 2>{});
    case 4: return f(std::integral_constant<unsigned, 4>{});
    case 8: return f(std::integral_constant<unsigned, 8>{});
    default: return f(width);
    }
}

// Element j of `from`'s tile into slot i of `to`'s (same element type).
template <class E>
inline void copy_elem(Iter *to, unsigned i, const Iter *from, unsigned j) noexcept {
    if constexpr (E::is_char) {
        const size_t w = to->elem_size;
        std::memcpy(tile<char>(to) + i * w, tile<char>(from) + j * w, w);
    } else {
        tile<value_t<E>>(to)[i] = tile<value_t<E>>(from)[j];
    }
}

// ---- null bitmap ----------------------------------------------------------

inline bool is_null(const Iter *it, unsigned i) noexcept {
    return (it->null_bitmap[i >> 6] >> (i & 63)) & 1u;
}
inline void set_null(Iter *it, unsigned i) noexcept {
    it->null_bitmap[i >> 6] |= uint64_t{1} << (i & 63);
}
inline void set_null_bit(Iter *it, unsigned i, bool null) noexcept {
    it->null_bitmap[i >> 6] |= uint64_t{null} << (i & 63);
}
// Overwrites bit i, where set_null_bit can only add.
inline void put_null_bit(Iter *it, unsigned i, bool null) noexcept {
    uint64_t &word = it->null_bitmap[i >> 6];
    word = (word & ~(uint64_t{1} << (i & 63))) | (uint64_t{null} << (i & 63));
}
// A condition element is true when non-zero and not null.
inline bool is_true(const Iter *cond, unsigned i) noexcept {
    return cond->values.u1[i] != 0 && !is_null(cond, i);
}
// Mask of the bits below n in word w of a tile bitmap.
inline uint64_t tile_mask(unsigned n, unsigned w) noexcept {
    const unsigned bits = n > 64 * w ? n - 64 * w : 0;
    return bits >= 64 ? ~uint64_t{0} : (uint64_t{1} << bits) - 1;
}
// Null bits among the tile's first n elements (bits past the count are stale).
inline bool any_null(const Iter *it, unsigned n) noexcept {
    return ((it->null_bitmap[0] & tile_mask(n, 0)) | (it->null_bitmap[1] & tile_mask(n, 1))) != 0;
}

inline bool has_nulls(const Iter *it) noexcept {
    return (it->null_bitmap[0] | it->null_bitmap[1]) != 0;
}
inline void clear_nulls(Iter *it) noexcept {
    it->null_bitmap[0] = 0;
    it->null_bitmap[1] = 0;
}
inline void copy_nulls(Iter *to, const Iter *from) noexcept {
    to->null_bitmap[0] = from->null_bitmap[0];
    to->null_bitmap[1] = from->null_bitmap[1];
}

// ---- delivery ---------------------------------------------------------------

// Ends a next call that produced n elements: count and position, status 0.
// ---- state words ------------------------------------------------------------------

// The low-order bytes of state word k, as an A.
template <class A>
inline A load_word(const Iter *it, unsigned k) noexcept {
    A a;
    std::memcpy(&a, &it->state[k], sizeof a);
    return a;
}

// Stores a into state word k, its unused high bytes zero.
template <class A>
inline void store_word(Iter *it, unsigned k, A a) noexcept {
    it->state[k] = 0;
    std::memcpy(&it->state[k], &a, sizeof a);
}

inline int deliver(Iter *it, unsigned n) noexcept {
    it->tile_count = static_cast<uint16_t>(n);
    it->pos += n;
    return QMO_SEQ_OK;
}

// Asks for the `bytes` that follow the next `max(kPrefetchBytes, bytes)` of
// a caller array, if they lie within its `bytes_left`: sources and sinks
// stream arrays in tile-sized bursts with computation in between.
template <bool Write>
inline void prefetch_ahead(const void *at, size_t bytes, size_t bytes_left) noexcept {
    const size_t ahead = bytes > kPrefetchBytes ? bytes : kPrefetchBytes;
    if (ahead + bytes > bytes_left) return;
    const char *from = static_cast<const char *>(at) + ahead;
    for (size_t b = 0; b < bytes; b += 64) __builtin_prefetch(from + b, Write);
}

// ---- bindings -------------------------------------------------------------

inline bool bindings_checked() noexcept { return qmo_seq_check_bindings != 0; }

// A consumer may not read a record that an operator owns.
inline int check_readable(const Iter *it, int code) noexcept {
    if (it->elem_type != code) return QMO_SEQ_TYPE_MISMATCH;
    if (bindings_checked() && it->bound) return QMO_SEQ_ALREADY_BOUND;
    return QMO_SEQ_OK;
}

}  // namespace qmo
