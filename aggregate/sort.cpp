// Sorting into permutations, and the iterator that delivers a sequence in the
// order of one. Which permutation a sort yields, ties included, is fixed by
// its algorithm, so the steps below are kept exactly: the pivot seeds, the
// median of three, the partition, insertion sort up to 50, heap sort when
// the depth budget is spent, and the linear answers for sorted input.
#include "aggregate/sort.hpp"
#include "frame/construct.hpp"
#include "frame/readers.hpp"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cmath>
#include <utility>

namespace qmo {
namespace {

// ---- keys ---------------------------------------------------------------------

template <unsigned Bytes>
struct uint_of;
template <> struct uint_of<1> { using type = uint8_t; };
template <> struct uint_of<2> { using type = uint16_t; };
template <> struct uint_of<4> { using type = uint32_t; };
template <> struct uint_of<8> { using type = uint64_t; };

template <class E>
using key_t = typename uint_of<E::size>::type;

// An unsigned key whose order is the sort's order of the values, so every
// comparison is one unsigned compare. Signed integers flip the sign bit.
// Floats map onto a total order: -0.0 equals 0.0 and every NaN is one key
// above +infinity, which keeps the sentinels of the partition valid.
template <class E>
inline key_t<E> sort_key(value_t<E> v) noexcept {
    using K = key_t<E>;
    constexpr K top = static_cast<K>(K{1} << (8 * sizeof(K) - 1));
    if constexpr (E::is_float) {
        // Negative values have all bits flipped, others only the sign bit;
        // selects rather than branches, as signs of real data are unpredictable.
        using S = std::make_signed_t<K>;
        const K bits = std::bit_cast<K>(v);
        const K flip = static_cast<K>(static_cast<S>(bits) >> (8 * sizeof(K) - 1)) | top;
        return std::isnan(v) ? static_cast<K>(~K{0}) : v == 0 ? top : static_cast<K>(bits ^ flip);
    } else if constexpr (E::is_signed) {
        return static_cast<K>(static_cast<K>(v) ^ top);
    } else {
        return v;
    }
}

// The same order on the values themselves, for comparisons that read them
// directly: cheaper than mapping both sides to keys.
template <class T>
struct Ordered {
    T v;
    friend bool operator<(Ordered a, Ordered b) {
        if constexpr (std::is_floating_point_v<T>) return a.v < b.v || (std::isnan(b.v) && !std::isnan(a.v));
        else return a.v < b.v;
    }
};

template <class T>
inline Ordered<T> ordered(T v) noexcept {
    return {v};
}

// ---- layouts: what the sort moves ---------------------------------------------
//
// The algorithm moves whole slots and reads keys through the layout, so
// every layout yields the same permutation; they differ in how far a
// comparison reaches into memory.

// Positions only; each key is read through its position from the values.
template <class E>
struct ByPosition {
    using Slot = uint64_t;
    const value_t<E> *values;
    Slot make(uint64_t i) const { return i; }
    Ordered<value_t<E>> key(Slot s) const { return ordered(values[s]); }
    static uint64_t position(Slot s) { return s; }
};

// Key in the high half of a word and position in the low half, built in the
// permutation array itself (keys up to 4 bytes, fewer than 2^32 positions).
template <class E>
struct Packed {
    using Slot = uint64_t;
    const value_t<E> *values;
    Slot make(uint64_t i) const { return uint64_t{sort_key<E>(values[i])} << 32 | i; }
    key_t<E> key(Slot s) const { return static_cast<key_t<E>>(s >> 32); }
    static uint64_t position(Slot s) { return s & 0xFFFFFFFFu; }
};

// Key beside position in a borrowed array (8-byte keys).
template <class E>
struct Paired {
    struct Slot {
        key_t<E> key;
        uint64_t pos;
    };
    const value_t<E> *values;
    Slot make(uint64_t i) const { return {sort_key<E>(values[i]), i}; }
    key_t<E> key(const Slot &s) const { return s.key; }
    static uint64_t position(const Slot &s) { return s.pos; }
};

// ---- the algorithm ------------------------------------------------------------

inline constexpr uint64_t kInsertionMax = 50;
// 8-byte keys are paired with their positions unless fewer than one in this
// many values is below its predecessor.
inline constexpr uint64_t kLocalDisorder = 8;

// One seed per element type, shared by every sort of that type in the process.
// Relaxed atomics: sorts of one type on several threads may interleave their
// steps (only the pivots they pick change), but they do not race; on one
// thread the sequence is the plain one.
template <class E>
std::atomic<uint32_t> seed_of{123456789u};

template <class L>
struct Quicksort {
    using Slot = typename L::Slot;
    L layout;
    // values[0 .. sorted_prefix) of the whole array are non-decreasing.
    uint64_t sorted_prefix;
    std::atomic<uint32_t> &seed;

    bool less(const Slot &a, const Slot &b) const { return layout.key(a) < layout.key(b); }

    // qloop_<t>: recurse into the right part, loop on the left.
    void qloop(Slot *s, uint64_t n, int depth) {
        for (;;) {
            if (n <= kInsertionMax) return insertion(s, n);
            --depth;
            // Deliberately the start of the whole array, not of the slice: when
            // its first n values are non-decreasing the slice stays as it is.
            if (n <= sorted_prefix) return;
            if (depth == -1) return heap(s, n);
            const uint32_t next = seed.load(std::memory_order_relaxed) * 69069u + 362437u;
            seed.store(next, std::memory_order_relaxed);
            std::swap(s[0], s[next % (n - 1)]);
            median_of_three(s, n);
            const uint64_t j = partition(s, n);
            qloop(s + j + 1, n - 1 - j, depth);
            n = j;
        }
    }

    // Afterwards s[1] <= s[0] <= s[n-1]: the pivot in s[0], sentinels around it.
    void median_of_three(Slot *s, uint64_t n) {
        if (less(s[0], s[1])) std::swap(s[0], s[1]);
        if (less(s[n - 1], s[0])) {
            std::swap(s[0], s[n - 1]);
            if (less(s[0], s[1])) std::swap(s[0], s[1]);
        }
    }

    uint64_t partition(Slot *s, uint64_t n) {
        const auto pivot = layout.key(s[0]);
        uint64_t i = 1, j = n - 1;
        for (;;) {
            while (layout.key(s[++i]) < pivot) {
            }
            while (pivot < layout.key(s[--j])) {
            }
            if (i >= j) break;
            std::swap(s[i], s[j]);
        }
        std::swap(s[0], s[j]);
        return j;
    }

    // The smallest (its first occurrence) goes to the front as a sentinel; the
    // rest are inserted behind strictly greater ones, so ties keep their order.
    // Two slots get the plain swap-if-less.
    void insertion(Slot *s, uint64_t n) {
        if (n < 2) return;
        uint64_t m = 1;
        for (uint64_t k = 2; k < n; ++k)
            if (less(s[k], s[m])) m = k;
        if (less(s[m], s[0])) std::swap(s[0], s[m]);
        for (uint64_t k = 2; k < n; ++k) {
            const Slot x = s[k];
            uint64_t h = k;
            for (; less(x, s[h - 1]); --h) s[h] = s[h - 1];
            s[h] = x;
        }
    }

    // Of two children the right one only when strictly greater; stop when the
    // larger child is not greater than the sifted slot.
    void sift(Slot *s, uint64_t root, uint64_t end) {
        const Slot x = s[root];
        for (;;) {
            uint64_t c = 2 * root + 1;
            if (c >= end) break;
            if (c + 1 < end && less(s[c], s[c + 1])) ++c;
            if (!less(x, s[c])) break;
            s[root] = s[c];
            root = c;
        }
        s[root] = x;
    }

    void heap(Slot *s, uint64_t n) {
        for (uint64_t i = n / 2; i-- > 0;) sift(s, i, n);
        for (uint64_t end = n - 1; end > 0; --end) {
            std::swap(s[0], s[end]);
            sift(s, 0, end);
        }
    }
};

void init_permutation(uint64_t *perm, uint64_t n, int order) {
    if (order == QMO_SEQ_DESCENDING) {
        for (uint64_t i = 0; i < n; ++i) perm[i] = n - 1 - i;
    } else {
        for (uint64_t i = 0; i < n; ++i) perm[i] = i;
    }
}

// Index of the first element below its predecessor, n if there is none.
template <class E>
uint64_t first_descent(const value_t<E> *v, uint64_t n) {
    for (uint64_t i = 1; i < n; ++i)
        if (ordered(v[i]) < ordered(v[i - 1])) return i;
    return n;
}

template <class E>
uint64_t descents(const value_t<E> *v, uint64_t n) {
    uint64_t d = 0;
    for (uint64_t i = 1; i < n; ++i) d += ordered(v[i]) < ordered(v[i - 1]);
    return d;
}

template <class E>
bool non_increasing(const value_t<E> *v, uint64_t n) {
    for (uint64_t i = 1; i < n; ++i)
        if (ordered(v[i - 1]) < ordered(v[i])) return false;
    return true;
}

// Slots made from the values, sorted ascending, positions written out.
template <class E, class L>
void sort_slots(L layout, typename L::Slot *slots, uint64_t *perm, uint64_t n, uint64_t prefix,
                int depth) {
    for (uint64_t i = 0; i < n; ++i) slots[i] = layout.make(i);
    Quicksort<L>{layout, prefix, seed_of<E>}.qloop(slots, n, depth);
    for (uint64_t i = 0; i < n; ++i) perm[i] = L::position(slots[i]);
}

// Ascending into perm, through the layout that suits the input.
template <class E>
void sort_ascending(const value_t<E> *values, uint64_t *perm, uint64_t n, uint64_t prefix, int depth) {
    if constexpr (E::size <= 4) {
        if (n <= uint64_t{1} << 32) return sort_slots<E>(Packed<E>{values}, perm, perm, n, prefix, depth);
    } else if (descents<E>(values, n) >= n / kLocalDisorder) {
        // Reading keys through positions costs a cache miss per comparison
        // unless the input is nearly in order; then borrowing memory for
        // pairs costs more than it saves.
        using Slot = typename Paired<E>::Slot;
        const size_t bytes = n * sizeof(Slot);
        if (auto *pairs = static_cast<Slot *>(qmo_seq_malloc(nullptr, bytes))) {
            sort_slots<E>(Paired<E>{values}, pairs, perm, n, prefix, depth);
            qmo_seq_free(nullptr, pairs, bytes);
            return;
        }
    }
    sort_slots<E>(ByPosition<E>{values}, perm, perm, n, prefix, depth);
}

template <class E>
int sort(const value_t<E> *values, uint64_t *perm, uint64_t n, int order) {
    if (n <= 1) {
        init_permutation(perm, n, order);
        return QMO_SEQ_OK;
    }
    const uint64_t prefix = first_descent<E>(values, n);
    if (prefix == n) {
        init_permutation(perm, n, order);
        return QMO_SEQ_OK;
    }
    if (non_increasing<E>(values, n)) {
        init_permutation(perm, n, order == QMO_SEQ_ASCENDING ? QMO_SEQ_DESCENDING : QMO_SEQ_ASCENDING);
        return QMO_SEQ_OK;
    }
    const uint64_t quarter = n / 4;
    const int depth = quarter == 0 ? 4 : 2 * (2 + static_cast<int>(std::bit_width(quarter)));
    sort_ascending<E>(values, perm, n, prefix, depth);
    if (order == QMO_SEQ_DESCENDING) std::reverse(perm, perm + n);
    return QMO_SEQ_OK;
}

// ---- the ordering iterator ----------------------------------------------------
//
// State words: 1 the permutation, 2 the null bitmap the iterator took (null
// when it holds none), 3 the element count n.

inline const uint64_t *permutation_of(const Iter *it) {
    return reinterpret_cast<const uint64_t *>(static_cast<uintptr_t>(it->state[0]));
}
inline uint64_t *owned_nulls(const Iter *it) {
    return reinterpret_cast<uint64_t *>(static_cast<uintptr_t>(it->state[1]));
}
inline size_t bitmap_bytes(uint64_t n) { return (n + 63) / 64 * sizeof(uint64_t); }

// Gives back what the iterator took. A buffer without an owned bitmap is the
// caller's and is left alone.
void release(Iter *it) {
    uint64_t *nulls = owned_nulls(it);
    if (!nulls) return;
    qmo_seq_free(it, nulls, bitmap_bytes(it->buf_size / it->elem_size));
    it->state[1] = 0;
    qmo_seq_free_buffer(it);
}

// Reads the whole input into a buffer and bitmap of its own.
template <class E>
int materialise(Iter *it) {
    const uint64_t n = it->state[2];
    if (!qmo_seq_alloc_buffer(it, n * it->elem_size)) return QMO_SEQ_NO_MEMORY;
    auto *nulls = static_cast<uint64_t *>(qmo_seq_malloc(it, bitmap_bytes(n)));
    if (!nulls) {
        qmo_seq_free_buffer(it);
        return QMO_SEQ_NO_MEMORY;
    }
    it->state[1] = reinterpret_cast<uintptr_t>(nulls);
    it->reset = qmo_seq_order_by_reset;
    uint64_t got = n;
    const int rc = read_nullable(it->operand1, it->buf, it->elem_size, &got, nulls);
    if (rc) {
        release(it);
        return rc;
    }
    // A short input leaves positions without a value: they read as null zeros.
    std::memset(static_cast<char *>(it->buf) + got * it->elem_size, 0, (n - got) * it->elem_size);
    for (uint64_t i = got; i < n; ++i) nulls[i >> 6] |= uint64_t{1} << (i & 63);
    it->state[2] = got;
    return QMO_SEQ_OK;
}

template <class E>
int order_by_next(Iter *it) {
    if (it->pos >= it->state[2]) return QMO_SEQ_END;
    if (!it->buf)
        if (int rc = materialise<E>(it)) return rc;
    if (it->pos >= it->state[2]) return QMO_SEQ_END;
    const unsigned count = static_cast<unsigned>(std::min<uint64_t>(kTile, it->state[2] - it->pos));
    const uint64_t *p = permutation_of(it) + it->pos;
    const auto *from = static_cast<const value_t<E> *>(it->buf);
    value_t<E> *out = tile<value_t<E>>(it);
    for (unsigned k = 0; k < count; ++k) out[k] = from[p[k]];
    clear_nulls(it);
    if (const uint64_t *nulls = owned_nulls(it))
        for (unsigned k = 0; k < count; ++k) set_null_bit(it, k, (nulls[p[k] >> 6] >> (p[k] & 63)) & 1);
    it->tile_count = static_cast<uint16_t>(count);
    it->pos += count;
    return QMO_SEQ_OK;
}

template <class E>
int order_by(Iter *result, Iter *input, const uint64_t *perm, uint64_t n, const value_t<E> *buffer,
             qmo_seq_next_fn next) {
    if (int rc = expect_type(input, E::code)) return rc;
    if (int rc = construct(result, Setup{E::code, E::size, next, qmo_seq_reset_unary_iterator, input}))
        return rc;
    result->last_pos = n - 1;
    result->state[0] = reinterpret_cast<uintptr_t>(perm);
    result->state[2] = n;
    result->buf = const_cast<value_t<E> *>(buffer);
    result->buf_size = n * E::size;
    return QMO_SEQ_OK;
}

}  // namespace

uint32_t pivot_seed(int code) noexcept {
    switch (code) {
#define QMO_SEED_CASE_(a, t, ctype, code) \
    case code:                            \
        return seed_of<Elem<code>>.load(std::memory_order_relaxed);
        QMO_SEQ_NUMERIC_TYPES(QMO_SEED_CASE_, )
#undef QMO_SEED_CASE_
    }
    return 0;
}

}  // namespace qmo

QMO_EXPORT int qmo_seq_order_by_reset(qmo_seq_iterator_t *it) {
    qmo::release(it);
    it->state[2] = it->last_pos + 1;  // as constructed: a short read is forgotten too
    return qmo_seq_reset_unary_iterator(it);
}

#define QMO_STAMP_SORT(family, t, ctype, code)                                                    \
    QMO_EXPORT int qmo_seq_##family##_##t(const ctype *values, uint64_t *permutation, uint64_t n, \
                                          int order) {                                            \
        return qmo::family<qmo::Elem<code>>(values, permutation, n, order);                       \
    }                                                                                             \
    QMO_EXPORT int qmo_seq_order_by_##t##_next(qmo_seq_iterator_t *it) {                          \
        return qmo::order_by_next<qmo::Elem<code>>(it);                 \
    }                                                                                             \
    QMO_EXPORT int qmo_seq_order_by_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input,    \
                                        const uint64_t *permutation, uint64_t n,                  \
                                        const ctype *buffer) {                                    \
        return qmo::order_by<qmo::Elem<code>>(result, input, permutation, n, buffer,              \
                                              qmo_seq_order_by_##t##_next);                       \
    }
QMO_SEQ_SORT_FAMILIES(QMO_STAMP_FAMILY)
