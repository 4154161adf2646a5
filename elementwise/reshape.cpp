// Reshaping: thin (every step-th element), repeat (each element n times),
// reverse (last element first) and unique (runs collapsed to one element).
// They move elements by position and never compute on them, so each is one
// template over the element type; the members differ only in width and, for
// unique, in the equality used.
#include "frame/construct.hpp"
#include "frame/readers.hpp"

#include <algorithm>
#include <bit>

namespace qmo {
namespace {

// State words, numbered from 0.
constexpr unsigned kOrigin = 0, kStep = 1;   // thin
constexpr unsigned kTimes = 0, kCursor = 1;  // repeat: its reset clears the cursor
constexpr unsigned kCopyNulls = 0;           // reverse: the copy's bitmap, as the array source keeps it
constexpr unsigned kAt = 0, kLast = 1;       // unique: input cursor, last value kept

// An input status met after k elements were gathered: the end delivers what
// was gathered, anything else is returned and the gathered elements dropped.
inline int end_gather(Iter *it, unsigned k, int status) {
    return status == QMO_SEQ_END && k > 0 ? deliver(it, k) : status;
}

template <class E>
int construct_reshape(Iter *result, Iter *input, qmo_seq_next_fn next, qmo_seq_reset_fn reset) {
    if (int rc = expect_type(input, E::code)) return rc;
    return construct(result, Setup{E::code, E::size, next, reset, input});
}

// ---- thin ------------------------------------------------------------------------

// Output element j is input ordinal origin + j * step; the input's position
// word is the ordinal just past its current tile.
template <class E>
int thin_next(Iter *it) {
    using T = value_t<E>;
    Iter *in = it->operand1;
    const uint64_t step = it->state[kStep];
    uint64_t want = it->state[kOrigin] + step * it->pos;
    T *out = tile<T>(it);
    clear_nulls(it);
    unsigned k = 0;
    while (k < kTile) {
        // Skipped tiles are pulled and dropped: the input is never rewound.
        while (want >= in->pos || in->tile_count == 0)
            if (int rc = in->next(in)) return end_gather(it, k, rc);
        const uint64_t first = in->pos - in->tile_count;
        // An input whose position runs ahead of what it delivered (a range,
        // say) lacks the ordinals below its tile; its first element stands in.
        const unsigned at = want < first ? 0 : static_cast<unsigned>(want - first);
        const unsigned left = in->tile_count - at;
        const unsigned m = step == 0 ? kTile - k
                                     : static_cast<unsigned>(std::min<uint64_t>(kTile - k, (left - 1) / step + 1));
        const T *src = tile<T>(in) + at;
        if (step == 1) {
            std::memcpy(out + k, src, m * sizeof(T));
        } else {
            const size_t s = static_cast<size_t>(step);
            for (unsigned j = 0; j < m; ++j) out[k + j] = src[j * s];
        }
        if (has_nulls(in))
            for (unsigned j = 0; j < m; ++j) set_null_bit(it, k + j, is_null(in, static_cast<unsigned>(at + j * step)));
        k += m;
        want += m * step;
    }
    return deliver(it, k);
}

template <class E>
int make_thin(Iter *result, Iter *input, uint64_t origin, uint64_t step, qmo_seq_next_fn next) {
    if (int rc = construct_reshape<E>(result, input, next, qmo_seq_reset_unary_iterator)) return rc;
    result->state[kOrigin] = origin;
    result->state[kStep] = step;
    return QMO_SEQ_OK;
}

// ---- repeat ------------------------------------------------------------------------

// Places copies from `src`, element e of which `done` copies are out, into
// slots k .. k + m - 1 of the output: a running index, no division.
template <class T, bool Nulls>
void repeat_copies(Iter *it, unsigned k, unsigned m, const Iter *in, unsigned &e, uint64_t &done, uint64_t n) {
    const T *src = tile<T>(in);
    T *out = tile<T>(it);
    for (const unsigned end = k + m; k < end; ++k) {
        out[k] = src[e];
        if constexpr (Nulls) set_null_bit(it, k, is_null(in, e));
        const bool next = ++done == n;
        e += next;
        done = next ? 0 : done;
    }
}

// The cursor runs over 0 .. n * (input tile length) - 1; slot k takes input
// element cursor / n.
template <class E>
int repeat_next(Iter *it) {
    using T = value_t<E>;
    Iter *in = it->operand1;
    const uint64_t n = it->state[kTimes];
    uint64_t cursor = it->state[kCursor];
    clear_nulls(it);
    unsigned k = 0;
    while (k < kTile) {
        const uint64_t total = n * in->tile_count;
        if (cursor >= total) {
            if (int rc = in->next(in)) {
                it->state[kCursor] = cursor;
                return end_gather(it, k, rc);
            }
            cursor = 0;
            continue;
        }
        const auto m = static_cast<unsigned>(std::min<uint64_t>(kTile - k, total - cursor));
        auto e = static_cast<unsigned>(cursor / n);
        uint64_t done = cursor % n;
        if (has_nulls(in)) repeat_copies<T, true>(it, k, m, in, e, done, n);
        else repeat_copies<T, false>(it, k, m, in, e, done, n);
        k += m;
        cursor += m;
    }
    it->state[kCursor] = cursor;
    return deliver(it, k);
}

template <class E>
int make_repeat(Iter *result, Iter *input, uint64_t n, qmo_seq_next_fn next) {
    if (int rc = construct_reshape<E>(result, input, next, qmo_seq_reset_repeat_iterator)) return rc;
    result->state[kTimes] = n;
    return QMO_SEQ_OK;
}

// ---- reverse -----------------------------------------------------------------------

inline uint64_t reverse_bits(uint64_t x) {
    x = ((x >> 1) & 0x5555555555555555u) | ((x & 0x5555555555555555u) << 1);
    x = ((x >> 2) & 0x3333333333333333u) | ((x & 0x3333333333333333u) << 2);
    x = ((x >> 4) & 0x0F0F0F0F0F0F0F0Fu) | ((x & 0x0F0F0F0F0F0F0F0Fu) << 4);
    return __builtin_bswap64(x);
}

// Bit i of a bitmap of n bits (n bits in `words`, packed 64 per word) moves
// to bit n - 1 - i: words swap ends and mirror, then the whole run shifts
// down over the unused top bits of the last word.
inline void mirror_bits(uint64_t *words, uint64_t n) {
    const uint64_t count = (n + 63) / 64;
    if (count == 0) return;
    std::reverse(words, words + count);
    for (uint64_t w = 0; w < count; ++w) words[w] = reverse_bits(words[w]);
    const unsigned shift = static_cast<unsigned>(count * 64 - n);
    if (shift == 0) return;
    for (uint64_t w = 0; w + 1 < count; ++w) words[w] = (words[w] >> shift) | (words[w + 1] << (64 - shift));
    words[count - 1] >>= shift;
}

template <class E>
void mirror_tile(Iter *it, const Iter *in) {
    using T = value_t<E>;
    const unsigned n = in->tile_count;
    const T *src = tile<T>(in);
    T *out = tile<T>(it);
    for (unsigned i = 0; i < n; ++i) out[i] = src[n - 1 - i];
    copy_nulls(it, in);
    it->null_bitmap[0] &= tile_mask(n, 0);
    it->null_bitmap[1] &= tile_mask(n, 1);
    mirror_bits(it->null_bitmap, n);
}

inline size_t bitmap_bytes(uint64_t n) { return (n + 63) / 64 * sizeof(uint64_t); }

inline uint64_t *copy_nulls_of(const Iter *it) {
    return reinterpret_cast<uint64_t *>(static_cast<uintptr_t>(it->state[kCopyNulls]));
}

using MakeSource = int (*)(Iter *, const void *, uint64_t, const uint64_t *);

// The input is longer than a tile: count it, copy it whole (values into the
// record's buffer, null bits into a bitmap of its own), reverse the copy and
// turn the record into an array source over it. What was taken is given
// back on every failure, so a failed pull leaves nothing for a reset to free.
template <class E>
int materialise(Iter *it, MakeSource make_source, qmo_seq_reset_fn reverse_reset) {
    using T = value_t<E>;
    Iter *in = it->operand1;
    if (int rc = in->reset(in)) return rc;
    uint64_t count = 0;
    {
        Iter counter;
        qmo_seq_agg_count(&counter, in);
        if (int rc = qmo_seq_next_uint8(&counter, &count)) return rc;
    }
    if (int rc = in->reset(in)) return rc;

    auto *values = static_cast<T *>(qmo_seq_alloc_buffer(it, count * sizeof(T)));
    if (!values) return QMO_SEQ_NO_MEMORY;
    auto *nulls = static_cast<uint64_t *>(qmo_seq_malloc(it, bitmap_bytes(count)));
    if (!nulls) {
        qmo_seq_free_buffer(it);
        return QMO_SEQ_NO_MEMORY;
    }
    uint64_t got = count;
    const int rc = read_nullable(in, values, sizeof(T), &got, nulls);
    if (rc || got != count) {
        qmo_seq_free(it, nulls, bitmap_bytes(count));
        qmo_seq_free_buffer(it);
        return rc ? rc : QMO_SEQ_LENGTH_MISMATCH;
    }
    std::reverse(values, values + count);
    mirror_bits(nulls, count);

    // The source constructor fills the whole record; the links to the input
    // and to the consumer are this operator's and stay.
    const uint8_t bound = it->bound;
    make_source(it, values, count, nulls);
    it->operand1 = in;
    it->bound = bound;
    it->reset = reverse_reset;
    return it->next(it);
}

template <class E>
int reverse_next(Iter *it, MakeSource make_source, qmo_seq_reset_fn reverse_reset) {
    if (it->pos != 0) return QMO_SEQ_END;  // the single tile went out
    Iter *in = it->operand1;
    if (int rc = in->next(in)) return rc;
    mirror_tile<E>(it, in);
    const unsigned n = in->tile_count;
    const int rc = in->next(in);
    if (rc == QMO_SEQ_END) return n ? deliver(it, n) : QMO_SEQ_END;
    if (rc) return rc;
    return materialise<E>(it, make_source, reverse_reset);
}

int reverse_reset(Iter *it, qmo_seq_next_fn next) {
    if (uint64_t *nulls = copy_nulls_of(it)) qmo_seq_free(it, nulls, bitmap_bytes(it->buf_size / it->elem_size));
    qmo_seq_free_buffer(it);
    it->state[kCopyNulls] = 0;
    it->buf_size = 0;
    it->last_pos = kUnbounded;
    it->next = next;
    it->reset = qmo_seq_reset_unary_iterator;
    return qmo_seq_reset_unary_iterator(it);
}

// ---- unique ------------------------------------------------------------------------

// keep ? a : b, without a branch for floating values too (runs make the
// choice unpredictable).
template <class T>
inline T pick(bool keep, T a, T b) {
    if constexpr (std::is_floating_point_v<T>) {
        using U = std::conditional_t<sizeof(T) == 8, uint64_t, uint32_t>;
        const U mask = U{0} - U{keep};
        return std::bit_cast<T>((std::bit_cast<U>(a) & mask) | (std::bit_cast<U>(b) & ~mask));
    } else {
        return keep ? a : b;
    }
}

// Looks at no more than 128 - k elements from `j`, so k stays inside the
// tile: every element is written to slot k, and only one that is not null and
// differs from the last value kept advances k.
template <class T, bool Nulls>
unsigned collapse(T *out, unsigned k, const Iter *in, unsigned &j, T &last) {
    const T *src = tile<T>(in);
    const unsigned stop = j + std::min(in->tile_count - j, kTile - k);
    if constexpr (Nulls) {
        for (; j < stop; ++j) {
            const T v = src[j];
            const bool keep = v != last && !is_null(in, j);
            out[k] = v;
            k += keep;
            last = pick(keep, v, last);
        }
    } else if (j < stop) {
        // Without nulls the element before is equal to the last value kept
        // (or, as NaN, unequal to everything), so the comparison needs no
        // chain through the kept values.
        out[k] = src[j];
        k += src[j] != last;
        for (++j; j < stop; ++j) {
            out[k] = src[j];
            k += src[j] != src[j - 1];
        }
        last = src[stop - 1];
    }
    return k;
}

template <class E>
int unique_next(Iter *it) {
    using T = value_t<E>;
    Iter *in = it->operand1;
    uint64_t cursor = it->state[kAt];
    T last;
    std::memcpy(&last, &it->state[kLast], sizeof last);
    T *out = tile<T>(it);
    clear_nulls(it);
    unsigned k = 0;
    while (k < kTile) {
        if (cursor >= in->tile_count) {
            int rc;
            do rc = in->next(in);
            while (rc == QMO_SEQ_OK && in->tile_count == 0);
            if (rc) {
                it->state[kAt] = cursor;
                return end_gather(it, k, rc);
            }
            cursor = 0;
        }
        auto j = static_cast<unsigned>(cursor);
        if (it->pos + k == 0) {  // nothing kept yet: the first non-null element opens a run
            while (j < in->tile_count && is_null(in, j)) ++j;
            if (j < in->tile_count) {
                last = tile<T>(in)[j++];
                out[k++] = last;
            }
        }
        k = has_nulls(in) ? collapse<T, true>(out, k, in, j, last) : collapse<T, false>(out, k, in, j, last);
        cursor = j;
    }
    it->state[kAt] = cursor;
    std::memcpy(&it->state[kLast], &last, sizeof last);
    return deliver(it, k);
}

}  // namespace
}  // namespace qmo

#define QMO_RESHAPE_NEXT_(family, t, code)                                   \
    QMO_EXPORT int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it) {   \
        return qmo::family##_next<qmo::Elem<code>>(it);                      \
    }
#define QMO_STAMP_THIN(family, t, ctype, code)                                                              \
    QMO_RESHAPE_NEXT_(family, t, code)                                                                      \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input, uint64_t origin, \
                                          uint64_t step) {                                                  \
        return qmo::make_##family<qmo::Elem<code>>(result, input, origin, step, qmo_seq_##family##_##t##_next); \
    }
#define QMO_STAMP_COUNTED(family, t, ctype, code)                                                           \
    QMO_RESHAPE_NEXT_(family, t, code)                                                                      \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input, uint64_t n) { \
        return qmo::make_##family<qmo::Elem<code>>(result, input, n, qmo_seq_##family##_##t##_next);         \
    }
// The reversed copy is read back through an array source of the member's type.
#define QMO_STAMP_UNARY_RESET(family, t, ctype, code)                                                       \
    QMO_EXPORT int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it) {                                 \
        return qmo::family##_next<qmo::Elem<code>>(                                                        \
            it,                                                                                            \
            [](qmo::Iter *r, const void *values, uint64_t n, const uint64_t *nulls) {                      \
                return qmo_seq_unget_nullable_##t(r, static_cast<const ctype *>(values), n, nulls);        \
            },                                                                                             \
            qmo_seq_##family##_##t##_reset);                                                               \
    }                                                                                                      \
    QMO_EXPORT int qmo_seq_##family##_##t##_reset(qmo_seq_iterator_t *it) {                                \
        return qmo::family##_reset(it, qmo_seq_##family##_##t##_next);                                     \
    }                                                                                                      \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input) {         \
        return qmo::construct_reshape<qmo::Elem<code>>(result, input, qmo_seq_##family##_##t##_next,       \
                                                       qmo_seq_reset_unary_iterator);                      \
    }
#define QMO_STAMP_UNARY(family, t, ctype, code)                                                             \
    QMO_RESHAPE_NEXT_(family, t, code)                                                                      \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input) {         \
        return qmo::construct_reshape<qmo::Elem<code>>(result, input, qmo_seq_##family##_##t##_next,       \
                                                       qmo_seq_reset_unary_iterator);                      \
    }
QMO_SEQ_RESHAPE_FAMILIES(QMO_STAMP_FAMILY)
