// Union: the ascending merge of two ascending sequences, each value once.
#include "align/ordered.hpp"

namespace qmo {
namespace {


// State words, as qmo_seq_reset_union_iterator clears them.
enum : unsigned {
    kLast,     // the last value delivered
    kFlags,    // what follows
    kCursors,  // left cursor in the low half, right cursor in the high half
};
enum : uint64_t { kHasLast = 1, kLeftEnded = 2, kRightEnded = 4 };

template <class E>
int union_next(Iter *it) noexcept {
    using T = value_t<E>;
    Iter *left = it->operand1, *right = it->operand2;
    T last = load_word<T>(it, kLast);
    uint64_t flags = it->state[kFlags];
    unsigned li = static_cast<uint32_t>(it->state[kCursors]), ri = static_cast<uint32_t>(it->state[kCursors] >> 32);
    T *out = tile<T>(it);
    const T *a = tile<T>(left), *b = tile<T>(right);
    unsigned k = 0;
    int rc = QMO_SEQ_OK;
    // Emits v unless it repeats the last value delivered.
    auto emit = [&](T v) {
        out[k] = v;
        k += !(flags & kHasLast) || v != last;
        last = v;
        flags |= kHasLast;
    };
    while (k < kTile) {
        // A side's tile is refilled before anything else is emitted, so the
        // last value delivered is its predecessor and checks the new tile.
        if (!(flags & kLeftEnded) && li >= left->tile_count) {
            rc = align::pull_checked(left, last, flags & kHasLast);
            if (rc == QMO_SEQ_END) flags |= kLeftEnded, rc = QMO_SEQ_OK;
            if (rc) break;
            li = 0;
            continue;
        }
        if (!(flags & kRightEnded) && ri >= right->tile_count) {
            rc = align::pull_checked(right, last, flags & kHasLast);
            if (rc == QMO_SEQ_END) flags |= kRightEnded, rc = QMO_SEQ_OK;
            if (rc) break;
            ri = 0;
            continue;
        }
        const bool lend = flags & kLeftEnded, rend = flags & kRightEnded;
        if (lend && rend) break;
        if (rend) {
            for (const unsigned ln = left->tile_count; k < kTile && li < ln;) emit(a[li++]);
        } else if (lend) {
            for (const unsigned rn = right->tile_count; k < kTile && ri < rn;) emit(b[ri++]);
        } else {
            const unsigned ln = left->tile_count, rn = right->tile_count;
            while (k < kTile && li < ln && ri < rn) {
                const T x = a[li], y = b[ri];
                const bool take_left = !(y < x);
                const T v = take_left ? x : y;
                li += take_left;
                ri += y == v;
                emit(v);
            }
        }
    }
    store_word(it, kLast, last);
    it->state[kFlags] = flags;
    it->state[kCursors] = uint64_t{li} | uint64_t{ri} << 32;
    if (rc) return rc;
    if (k == 0) return QMO_SEQ_END;
    clear_nulls(it);
    return deliver(it, k);
}

template <class E>
int construct_union(Iter *result, Iter *left, Iter *right, qmo_seq_next_fn next) noexcept {
    if (int rc = expect_types({left, right}, E::code)) return rc;
    return construct(result, Setup{E::code, E::size, next, qmo_seq_reset_union_iterator, left, right});
}

}  // namespace
}  // namespace qmo

#define QMO_STAMP_BINARY(family, t, ctype, code)                                                       \
    QMO_EXPORT int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it) {                             \
        return qmo::family##_next<qmo::Elem<code>>(it);                                                \
    }                                                                                                  \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *left,        \
                                          qmo_seq_iterator_t *right) {                                 \
        return qmo::construct_##family<qmo::Elem<code>>(result, left, right, qmo_seq_##family##_##t##_next); \
    }
QMO_SEQ_UNION_FAMILIES(QMO_STAMP_FAMILY)
