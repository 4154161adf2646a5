// Top-N: the n best non-null values of a whole sequence (or their positions)
// in rank order, kept in the result's own tile while the input streams by.
//
// The list is kept sorted, best first, and a value enters by binary search
// and a shift, after every equal value already kept, so that the earlier
// arrival ranks first. Once the list is full almost every value of a long
// input loses to the last kept one; that test runs over a run of 64 values
// at a time in a loop the compiler vectorises, and only a run with a
// possible entrant is walked element by element.
#include "frame/construct.hpp"

#include <algorithm>
#include <bit>

namespace qmo::top {

// The four operators: which end ranks first, and whether positions are delivered.
struct top_max { static constexpr bool max = true, positions = false; };
struct top_min { static constexpr bool max = false, positions = false; };
struct top_pos_max { static constexpr bool max = true, positions = true; };
struct top_pos_min { static constexpr bool max = false, positions = true; };

inline constexpr unsigned kNWord = 0;  // state word of n
inline constexpr unsigned kRun = 64;   // values tested at once against the last kept one

// An unsigned counter as wide as T: counting compares then stays in one vector width.
template <class T>
using Counter = std::conditional_t<sizeof(T) == 1, uint8_t,
                                   std::conditional_t<sizeof(T) == 2, uint16_t,
                                                      std::conditional_t<sizeof(T) == 4, uint32_t, uint64_t>>>;

template <bool Max, class T>
inline bool better(T a, T b) {
    if constexpr (Max) return a > b;
    else return a < b;
}

// The ranked list being built: values best first and, for the position
// operators, each value's input position moved in step.
template <bool Max, class T, bool Positions>
struct Kept {
    T *values;
    uint64_t *at;  // Positions only
    unsigned k;    // kept so far
    unsigned n;    // room

    bool full() const { return k == n; }

    // v is worth a place: the list has room or v beats its last value.
    bool admits(T v) const { return k < n || better<Max>(v, values[n - 1]); }

    // Behind every kept value that v does not beat.
    unsigned place_of(T v) const {
        unsigned lo = 0, hi = k;
        while (lo < hi) {
            const unsigned mid = (lo + hi) / 2;
            if (better<Max>(v, values[mid])) hi = mid;
            else lo = mid + 1;
        }
        return lo;
    }

    // Inserts an admitted v; the last value falls off a full list.
    void insert(T v, uint64_t position) {
        const unsigned i = place_of(v);
        const unsigned moved = (full() ? n - 1 : k) - i;
        std::memmove(values + i + 1, values + i, moved * sizeof(T));
        values[i] = v;
        if constexpr (Positions) {
            std::memmove(at + i + 1, at + i, moved * sizeof(uint64_t));
            at[i] = position;
        }
        if (!full()) ++k;
    }

    // Offers the live (non-null) elements of x[0..len); base is the input
    // position of x[0].
    void offer(const T *x, const uint64_t (&nulls)[2], unsigned len, uint64_t base) {
        for (unsigned from = 0; from < len; from += kRun) {
            const unsigned to = std::min(len, from + kRun);
            if (full()) {
                const T last = values[n - 1];
                Counter<T> entrants = 0;
                for (unsigned i = from; i < to; ++i) entrants += better<Max>(x[i], last);
                if (entrants == 0) continue;
            }
            for (uint64_t live = ~nulls[from / 64] & tile_mask(len, from / 64); live; live &= live - 1) {
                const unsigned i = from + static_cast<unsigned>(std::countr_zero(live));
                if (admits(x[i])) insert(x[i], base + i);
            }
        }
    }
};

template <class E, class Op>
int next(Iter *it) {
    using T = value_t<E>;
    if constexpr (!Op::positions) {
        // Prepared: hand out the list the prepare call built (and merges grew) once.
        if (it->prepared) {
            it->prepared = 0;
            return it->pos ? QMO_SEQ_OK : QMO_SEQ_END;
        }
    }
    if (it->pos != 0) return QMO_SEQ_END;
    T scratch[Op::positions ? kTile : 1];
    Kept<Op::max, T, Op::positions> list{Op::positions ? scratch : tile<T>(it),
                                         Op::positions ? tile<uint64_t>(it) : nullptr, 0,
                                         static_cast<unsigned>(it->state[kNWord])};
    Iter *in = it->operand1;
    uint64_t base = 0;  // input elements before the current tile
    int rc;
    while ((rc = in->next(in)) == QMO_SEQ_OK) {
        if (list.n) list.offer(tile<T>(in), in->null_bitmap, in->tile_count, base);
        base += in->tile_count;
    }
    clear_nulls(it);
    it->tile_count = static_cast<uint16_t>(list.k);
    it->pos = list.k;
    if (list.k == 0) return rc;
    return rc == QMO_SEQ_END ? QMO_SEQ_OK : rc;
}

// Walks both ranked lists together: a better value of from's enters into's
// list before its current place, a value both hold is kept once, and from's
// values past the end of into's list fill any room left.
template <class E, class Op>
int merge(Iter *into, const Iter *from) {
    using T = value_t<E>;
    T *d = tile<T>(into);
    const T *s = tile<T>(from);
    const unsigned n = static_cast<unsigned>(into->state[kNWord]);
    const unsigned from_k = from->tile_count;
    unsigned k = into->tile_count, i = 0, j = 0;
    while (i < k && j < from_k) {
        if (better<Op::max>(s[j], d[i])) {
            const unsigned moved = (k == n ? n - 1 : k) - i;
            std::memmove(d + i + 1, d + i, moved * sizeof(T));
            d[i++] = s[j++];
            if (k < n) ++k;
        } else if (s[j] == d[i]) {
            ++j;
        } else {
            ++i;
        }
    }
    if (i == k)
        while (j < from_k && k < n) d[k++] = s[j++];
    into->tile_count = static_cast<uint16_t>(k);
    into->pos = k;
    return QMO_SEQ_OK;
}

// Type (61), binding (701), then n (62): a refused n leaves the input bound
// but writes nothing into the result.
template <class E, class Op>
int construct_top(Iter *result, Iter *input, uint64_t n, qmo_seq_next_fn next_fn, qmo_seq_merge_fn merge_fn) {
    if (int rc = expect_type(input, E::code)) return rc;
    const Setup s = Op::positions
                        ? Setup{QMO_SEQ_TYPE_UINT8, sizeof(uint64_t), next_fn, qmo_seq_reset_unary_iterator, input}
                        : Setup{E::code, E::size, next_fn, qmo_seq_reset_unary_iterator, input};
    if (int rc = check_unbound(s)) return rc;
    bind_operands(s);
    if (n > kTile) return QMO_SEQ_INVALID_ARGUMENT;
    fill(result, s);
    result->state[kNWord] = n;
    if (merge_fn) {
        result->prepare = qmo_seq_prepare_aggregate;
        result->merge = merge_fn;
    }
    return QMO_SEQ_OK;
}

}  // namespace qmo::top

#define QMO_TOP_(op, tc) qmo::Elem<tc>, qmo::top::op

#define QMO_STAMP_TOP_NEXT_(op, t, tc)                               \
    QMO_EXPORT int qmo_seq_##op##_##t##_next(qmo_seq_iterator_t *it) { \
        return qmo::top::next<QMO_TOP_(op, tc)>(it);                  \
    }

#define QMO_STAMP_TOP_CONSTRUCTOR_(op, t, tc, merge_fn)                                                \
    QMO_EXPORT int qmo_seq_##op##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input, uint64_t n) { \
        return qmo::top::construct_top<QMO_TOP_(op, tc)>(result, input, n, qmo_seq_##op##_##t##_next,   \
                                                          merge_fn);                                   \
    }

#define QMO_STAMP_TOP(op, t, ctype, tc)                                                             \
    QMO_STAMP_TOP_NEXT_(op, t, tc)                                                                  \
    QMO_EXPORT int qmo_seq_##op##_##t##_merge(qmo_seq_iterator_t *into, qmo_seq_iterator_t *from) { \
        return qmo::top::merge<QMO_TOP_(op, tc)>(into, from);                                       \
    }                                                                                               \
    QMO_STAMP_TOP_CONSTRUCTOR_(op, t, tc, qmo_seq_##op##_##t##_merge)

// Positions are not mergeable.
#define QMO_STAMP_COUNTED(op, t, ctype, tc) \
    QMO_STAMP_TOP_NEXT_(op, t, tc)          \
    QMO_STAMP_TOP_CONSTRUCTOR_(op, t, tc, nullptr)

QMO_SEQ_TOP_FAMILIES(QMO_STAMP_FAMILY)
