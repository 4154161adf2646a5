// Stretch: a value sequence stamped by one time axis (the source), carried
// over a finer one (the target), with a filler once the source has ended.
#include "frame/construct.hpp"

namespace qmo {
namespace {

// Operator state words.
enum : unsigned {
    kFiller,       // value of the result type, delivered after the source's end
    kCurrent,      // the source value the target has reached
    kCurrentNull,  // its null bit
    kBoundary,     // source stamp at the current index: a target at or past it moves the source on
    kIndex,        // current element inside the source's tile
    kExhausted,    // the source stamps have ended
};

// The source's place, held in locals for the length of one target tile.
template <class TS, class E>
struct Place {
    value_t<TS> boundary;
    value_t<E> current;
    bool null;
    bool exhausted;
    unsigned index;

    explicit Place(const Iter *it) noexcept
        : boundary(load_word<value_t<TS>>(it, kBoundary)),
          current(load_word<value_t<E>>(it, kCurrent)),
          null(it->state[kCurrentNull] != 0),
          exhausted(it->state[kExhausted] != 0),
          index(static_cast<unsigned>(it->state[kIndex])) {}

    void save(Iter *it) const noexcept {
        store_word(it, kBoundary, boundary);
        store_word(it, kCurrent, current);
        it->state[kCurrentNull] = null;
        it->state[kExhausted] = exhausted;
        it->state[kIndex] = index;
    }
};

// The source's tile is used up: pull the next tile of stamps and, with it,
// the values, and move the state words onto their first element. Empty
// tiles are passed over. (The state words, not the caller's locals, so that
// those never have their address taken and stay in registers.)
template <class TS, class E>
[[gnu::noinline]] int refill(Iter *it) noexcept {
    Iter *stamps = it->operand2, *values = it->operand3;
    for (;;) {
        const int rc = stamps->next(stamps);
        if (rc == QMO_SEQ_END) {
            it->state[kExhausted] = 1;
            it->state[kCurrentNull] = 0;
            it->state[kCurrent] = it->state[kFiller];
            return QMO_SEQ_OK;
        }
        if (rc) return rc;
        const unsigned count = stamps->tile_count;
        if (any_null(stamps, count)) return QMO_SEQ_NULL_VALUE;
        // The values' own status is not passed on: they must keep step with the stamps.
        if (values->next(values) != QMO_SEQ_OK || values->tile_count != count) return QMO_SEQ_LENGTH_MISMATCH;
        if (count == 0) continue;
        it->state[kIndex] = 0;
        store_word(it, kBoundary, tile<value_t<TS>>(stamps)[0]);
        store_word(it, kCurrent, tile<value_t<E>>(values)[0]);
        it->state[kCurrentNull] = is_null(values, 0);
        return QMO_SEQ_OK;
    }
}

// Targets i.. of the tile while the source stays inside its tile: returns n,
// or the target that moved past the tile's last element.
template <bool Nulls, class At, class S, class T>
[[gnu::always_inline]] inline unsigned carry(At &at, const S *t, unsigned i, unsigned n, const S *ss,
                                             const T *vs, const Iter *values, unsigned count, T *out,
                                             uint64_t *nulls) noexcept {
    for (; i < n; ++i) {
        // At most one source element per target element, by design: a
        // target that skips source stamps leaves the source lagging.
        if (t[i] >= at.boundary) {
            if (++at.index >= count) return i;
            at.boundary = ss[at.index];
            at.current = vs[at.index];
            if constexpr (Nulls) at.null = is_null(values, at.index);
        }
        out[i] = at.current;
        if constexpr (Nulls) nulls[i >> 6] |= uint64_t{at.null} << (i & 63);
    }
    return n;
}

template <class TS, class E>
int stretch_next(Iter *it) noexcept {
    using S = value_t<TS>;
    using T = value_t<E>;
    Iter *target = it->operand1, *stamps = it->operand2, *values = it->operand3;
    if (int rc = target->next(target)) return rc;
    const unsigned n = target->tile_count;
    if (any_null(target, n)) return QMO_SEQ_NULL_VALUE;

    const S *t = tile<S>(target);
    const S *ss = tile<S>(stamps);
    const T *vs = tile<T>(values);
    T *out = tile<T>(it);
    uint64_t nulls[2] = {0, 0};
    Place<TS, E> at(it);
    unsigned i = 0;
    while (!at.exhausted && i < n) {
        // Null bits are tracked only while the values' tile has any.
        const unsigned count = stamps->tile_count;
        i = at.null || has_nulls(values) ? carry<true>(at, t, i, n, ss, vs, values, count, out, nulls)
                                         : carry<false>(at, t, i, n, ss, vs, values, count, out, nulls);
        if (i == n) break;
        // Target i has used up the source's tile.
        at.save(it);
        if (int rc = refill<TS, E>(it)) return rc;
        at = Place<TS, E>(it);
        if (at.exhausted) break;
        out[i] = at.current;
        nulls[i >> 6] |= uint64_t{at.null} << (i & 63);
        ++i;
    }
    // Past the source's end: the filler, never null.
    const T filler = load_word<T>(it, kFiller);
    for (; i < n; ++i) out[i] = filler;
    at.save(it);
    it->null_bitmap[0] = nulls[0];
    it->null_bitmap[1] = nulls[1];
    return deliver(it, n);
}

int stretch_reset(Iter *it) noexcept {
    Iter *values = it->operand3;
    if (int rc = values->reset(values)) return rc;
    const int rc = qmo_seq_reset_binary_iterator(it);
    // Boundary 0 makes the first target take the source's first element again.
    it->state[kIndex] = 0;
    it->state[kBoundary] = 0;
    it->state[kExhausted] = 0;
    return rc;
}

template <class TS, class E>
int construct_stretch(Iter *result, Iter *target, Iter *stamps, Iter *values, value_t<E> filler,
                      qmo_seq_next_fn next, qmo_seq_reset_fn reset) noexcept {
    if (int rc = expect_types({target, stamps}, TS::code)) return rc;
    if (int rc = expect_type(values, E::code)) return rc;
    if (int rc = construct(result, Setup{E::code, E::size, next, reset, target, stamps, values})) return rc;
    store_word(result, kFiller, filler);
    return QMO_SEQ_OK;
}

}  // namespace
}  // namespace qmo

// One member: `pair` is the parenthesised (stamp suffix, value suffix, stamp code).
#define QMO_STAMP_STRETCH(family, pair, ctype, code) QMO_STAMP_STRETCH_I_(QMO_SEQ_EXPAND pair, ctype, code)
#define QMO_STAMP_STRETCH_I_(...) QMO_STAMP_STRETCH_II_(__VA_ARGS__)
#define QMO_STAMP_STRETCH_II_(ts, t, tscode, ctype, code)                                           \
    QMO_EXPORT int qmo_seq_stretch_##ts##_##t##_next(qmo_seq_iterator_t *it) {                      \
        return qmo::stretch_next<qmo::Elem<tscode>, qmo::Elem<code>>(it);                           \
    }                                                                                               \
    QMO_EXPORT int qmo_seq_stretch_##ts##_##t##_reset(qmo_seq_iterator_t *it) {                     \
        return qmo::stretch_reset(it);                                                              \
    }                                                                                               \
    QMO_EXPORT int qmo_seq_stretch_##ts##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *target, \
                                              qmo_seq_iterator_t *source, qmo_seq_iterator_t *values, \
                                              ctype filler) {                                       \
        return qmo::construct_stretch<qmo::Elem<tscode>, qmo::Elem<code>>(                          \
            result, target, source, values, filler, qmo_seq_stretch_##ts##_##t##_next,             \
            qmo_seq_stretch_##ts##_##t##_reset);                                                    \
    }
QMO_SEQ_ALIGN_FAMILIES(QMO_STAMP_FAMILY)
