// As-of join and stretch0: for every left (target) stamp, the right
// (source) value whose stamp matches it backward, forward or nearest, within
// a tolerance. stretch0 is the backward exact match at distance 0, with a
// filler where there is none. Only the stamps' and values' widths matter
// here, so one loop serves every pair of types of those widths.
#include "align/ordered.hpp"

namespace qmo {
namespace {


// Operator state words: the parameters, then the running state that reset clears.
enum : unsigned {
    kDirection,
    kTolerance,
    kExact,
    kFiller,
    kRunning,                  // first word reset clears
    kIndex = kRunning,         // right cursor inside the right tile
    kEnded,                    // the right stamps have ended
    kLeftPrev, kLeftHas,       // the last left stamp, for the order check
    kRightPrev, kRightHas,     // the last right stamp pulled
    kLastHas, kLastStamp, kLastValue, kLastNull,          // the last right element of used-up tiles
    kBeforeHas, kBeforeStamp, kBeforeValue, kBeforeNull,  // the last one with a smaller stamp than that
    kEnd,
};

template <unsigned Bytes>
using bits_t = std::conditional_t<Bytes == 1, uint8_t,
                                  std::conditional_t<Bytes == 2, uint16_t, std::conditional_t<Bytes == 4, uint32_t, uint64_t>>>;

// A right element held past its tile.
template <class S, class W>
struct Held {
    bool has;
    S stamp;
    W value;
    bool null;
};

template <class S, class W>
Held<S, W> load_held(const Iter *it, unsigned word) noexcept {
    return {it->state[word] != 0, load_word<S>(it, word + 1), load_word<W>(it, word + 2), it->state[word + 3] != 0};
}

template <class S, class W>
void store_held(Iter *it, unsigned word, const Held<S, W> &h) noexcept {
    it->state[word] = h.has;
    store_word(it, word + 1, h.stamp);
    store_word(it, word + 2, h.value);
    it->state[word + 3] = h.null;
}

// The right tile is used up: hold its last element (and, when strict
// nearest matches need it, the last one below that), then pull the next
// tile of stamps and values. Returns 11 at the stamps' end.
template <class S, class W, bool Before>
[[gnu::noinline]] int refill(Iter *it, unsigned m) noexcept {
    Iter *stamps = it->operand2, *values = it->operand3;
    if (m) {
        const S *r = tile<S>(stamps);
        const W *v = tile<W>(values);
        const Held<S, W> last = load_held<S, W>(it, kLastHas);
        if constexpr (Before) {
            int k = static_cast<int>(m) - 2;
            while (k >= 0 && r[k] == r[m - 1]) --k;
            if (k >= 0) store_held<S, W>(it, kBeforeHas, {true, r[k], v[k], is_null(values, k)});
            else if (last.has && last.stamp < r[m - 1]) store_held(it, kBeforeHas, last);
        }
        store_held<S, W>(it, kLastHas, {true, r[m - 1], v[m - 1], is_null(values, m - 1)});
    }
    S prev = load_word<S>(it, kRightPrev);
    bool has = it->state[kRightHas] != 0;
    if (int rc = align::pull_ascending(stamps, prev, has)) return rc;
    store_word(it, kRightPrev, prev);
    it->state[kRightHas] = has;
    // The values' own status is not passed on: they must keep step with the stamps.
    if (values->next(values) != QMO_SEQ_OK || values->tile_count != stamps->tile_count)
        return QMO_SEQ_LENGTH_MISMATCH;
    return QMO_SEQ_OK;
}

template <class S, class W, int Dir, bool Exact, bool Fill>
int asof_next(Iter *it) noexcept {
    // Backward exact, forward strict and nearest move the right cursor past
    // stamps equal to the left one; the others stop before them.
    constexpr bool kPastEqual = (Dir == QMO_SEQ_ASOF_BACKWARD && Exact) || (Dir == QMO_SEQ_ASOF_FORWARD && !Exact) ||
                                Dir == QMO_SEQ_ASOF_NEAREST;
    // Strict nearest looks back past the equal stamps it moved over.
    constexpr bool kBefore = Dir == QMO_SEQ_ASOF_NEAREST && !Exact;
    Iter *left = it->operand1, *stamps = it->operand2, *values = it->operand3;
    if (int rc = left->next(left)) return rc;
    const unsigned n = left->tile_count;
    if (any_null(left, n)) return QMO_SEQ_NULL_VALUE;
    const S *l = tile<S>(left);
    // The left stamps' order is checked in the loop that reads them anyway;
    // a tile that fails is not delivered.
    S left_prev = it->state[kLeftHas] ? load_word<S>(it, kLeftPrev) : n ? l[0] : S{0};
    bool ordered = true;
    const S *r = tile<S>(stamps);
    const W *v = tile<W>(values);
    W *out = tile<W>(it);
    uint64_t nulls0 = 0, nulls1 = 0;
    const uint64_t tolerance = it->state[kTolerance];
    const W filler = load_word<W>(it, kFiller);
    bool ended = it->state[kEnded] != 0;
    unsigned j = static_cast<unsigned>(it->state[kIndex]);
    unsigned m = ended ? 0 : stamps->tile_count;
    // The values' null words in locals: stores to the output may alias the record's.
    uint64_t vn[2] = {values->null_bitmap[0], values->null_bitmap[1]};
    auto value_null = [&vn](unsigned k) { return ((vn[k >> 6] >> (k & 63)) & 1) != 0; };
    Held<S, W> last = load_held<S, W>(it, kLastHas);
    [[maybe_unused]] Held<S, W> before{};
    if constexpr (kBefore) before = load_held<S, W>(it, kBeforeHas);
    int rc = QMO_SEQ_OK;
    for (unsigned i = 0; i < n; ++i) {
        const S at = l[i];
        ordered &= left_prev <= at;
        left_prev = at;
        for (;;) {
            if constexpr (kPastEqual) {
                while (j < m && r[j] <= at) ++j;
            } else {
                while (j < m && r[j] < at) ++j;
            }
            if (j < m || ended) break;
            rc = refill<S, W, kBefore>(it, m);
            if (rc == QMO_SEQ_END) {
                ended = true, m = 0, rc = QMO_SEQ_OK;
            } else if (rc) {
                it->state[kIndex] = j;
                return rc;
            } else {
                m = stamps->tile_count;
            }
            j = 0;
            vn[0] = values->null_bitmap[0], vn[1] = values->null_bitmap[1];
            last = load_held<S, W>(it, kLastHas);
            if constexpr (kBefore) before = load_held<S, W>(it, kBeforeHas);
        }
        Held<S, W> match{};
        uint64_t distance = 0;
        if constexpr (Dir != QMO_SEQ_ASOF_FORWARD) {
            // The backward candidate: the last element passed (strict nearest:
            // the last one below the left stamp).
            int k = static_cast<int>(j) - 1;
            if constexpr (kBefore) {
                while (k >= 0 && !(r[k] < at)) --k;
            }
            if (k >= 0) match = {true, r[k], v[k], value_null(unsigned(k))};
            else if (!kBefore || (last.has && last.stamp < at)) match = last;
            else match = before;
            distance = uint64_t{at} - uint64_t{match.stamp};
        }
        if constexpr (Dir != QMO_SEQ_ASOF_BACKWARD) {
            if (j < m) {
                const uint64_t ahead = uint64_t{r[j]} - uint64_t{at};
                // Equally near: the earlier one.
                if (Dir == QMO_SEQ_ASOF_FORWARD || !match.has || ahead < distance) {
                    match = {true, r[j], v[j], value_null(j)};
                    distance = ahead;
                }
            }
        }
        const bool hit = match.has && distance <= tolerance;
        bool null;
        if constexpr (Fill) {
            out[i] = hit ? match.value : filler;
            null = hit && match.null;
        } else {
            out[i] = hit ? match.value : W{0};
            null = !hit || match.null;
        }
        const uint64_t bit = uint64_t{null} << (i & 63);
        if (i < 64) nulls0 |= bit;
        else nulls1 |= bit;
    }
    it->state[kIndex] = j;
    it->state[kEnded] = ended;
    if (!ordered) return QMO_SEQ_INVALID_ARGUMENT;
    if (n) store_word(it, kLeftPrev, left_prev), it->state[kLeftHas] = 1;
    it->null_bitmap[0] = nulls0;
    it->null_bitmap[1] = nulls1;
    return deliver(it, n);
}

template <class S, class W>
int asof_dispatch(Iter *it) noexcept {
    const bool exact = it->state[kExact] != 0;
    switch (it->state[kDirection]) {
    case QMO_SEQ_ASOF_BACKWARD:
        return exact ? asof_next<S, W, QMO_SEQ_ASOF_BACKWARD, true, false>(it)
                     : asof_next<S, W, QMO_SEQ_ASOF_BACKWARD, false, false>(it);
    case QMO_SEQ_ASOF_FORWARD:
        return exact ? asof_next<S, W, QMO_SEQ_ASOF_FORWARD, true, false>(it)
                     : asof_next<S, W, QMO_SEQ_ASOF_FORWARD, false, false>(it);
    default:
        return exact ? asof_next<S, W, QMO_SEQ_ASOF_NEAREST, true, false>(it)
                     : asof_next<S, W, QMO_SEQ_ASOF_NEAREST, false, false>(it);
    }
}

template <class TS, class E>
int asof_member_next(Iter *it) noexcept {
    return asof_dispatch<value_t<TS>, bits_t<E::size>>(it);
}

template <class TS, class E>
int stretch0_member_next(Iter *it) noexcept {
    return asof_next<value_t<TS>, bits_t<E::size>, QMO_SEQ_ASOF_BACKWARD, true, true>(it);
}

template <class TS, class E>
int construct_asof(Iter *result, Iter *left, Iter *stamps, Iter *values, int32_t direction, uint64_t tolerance,
                   bool exact, const value_t<E> *filler, qmo_seq_next_fn next) noexcept {
    if (int rc = expect_types({left, stamps}, TS::code)) return rc;
    if (int rc = expect_type(values, E::code)) return rc;
    const Setup s{E::code, E::size, next, qmo_seq_asof_reset, left, stamps, values};
    if (int rc = check_unbound(s)) return rc;
    if (direction < QMO_SEQ_ASOF_BACKWARD || direction > QMO_SEQ_ASOF_NEAREST) return QMO_SEQ_INVALID_ARGUMENT;
    construct(result, s);
    result->state[kDirection] = static_cast<uint64_t>(direction);
    result->state[kTolerance] = tolerance;
    result->state[kExact] = exact;
    if (filler) store_word(result, kFiller, *filler);
    return QMO_SEQ_OK;
}

}  // namespace
}  // namespace qmo

QMO_EXPORT int qmo_seq_asof_reset(qmo_seq_iterator_t *it) {
    qmo::Iter *values = it->operand3;
    if (int rc = values->reset(values)) return rc;
    const int rc = qmo_seq_reset_binary_iterator(it);
    for (unsigned w = qmo::kRunning; w < qmo::kEnd; ++w) it->state[w] = 0;
    return rc;
}

// One member: `pair` is the parenthesised (stamp suffix, value suffix, stamp code).
#define QMO_STAMP_ASOF(family, pair, ctype, code) QMO_STAMP_ASOF_I_(family, QMO_SEQ_EXPAND pair, ctype, code)
#define QMO_STAMP_ASOF_I_(...) QMO_STAMP_ASOF_II_(__VA_ARGS__)
#define QMO_STAMP_ASOF_II_(family, ts, t, tscode, ctype, code)                                               \
    QMO_EXPORT int qmo_seq_##family##_##ts##_##t##_next(qmo_seq_iterator_t *it) {                            \
        return qmo::asof_member_next<qmo::Elem<tscode>, qmo::Elem<code>>(it);                                \
    }                                                                                                        \
    QMO_EXPORT int qmo_seq_##family##_##ts##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *left_stamps, \
                                                 qmo_seq_iterator_t *right_stamps,                           \
                                                 qmo_seq_iterator_t *right_values, int32_t direction,        \
                                                 uint64_t tolerance, int32_t allow_exact) {                  \
        return qmo::construct_asof<qmo::Elem<tscode>, qmo::Elem<code>>(                                      \
            result, left_stamps, right_stamps, right_values, direction, tolerance, allow_exact != 0, nullptr, \
            qmo_seq_##family##_##ts##_##t##_next);                                                           \
    }
#define QMO_STAMP_STRETCH0(family, pair, ctype, code) QMO_STAMP_STRETCH0_I_(family, QMO_SEQ_EXPAND pair, ctype, code)
#define QMO_STAMP_STRETCH0_I_(...) QMO_STAMP_STRETCH0_II_(__VA_ARGS__)
#define QMO_STAMP_STRETCH0_II_(family, ts, t, tscode, ctype, code)                                           \
    QMO_EXPORT int qmo_seq_##family##_##ts##_##t##_next(qmo_seq_iterator_t *it) {                            \
        return qmo::stretch0_member_next<qmo::Elem<tscode>, qmo::Elem<code>>(it);                            \
    }                                                                                                        \
    QMO_EXPORT int qmo_seq_##family##_##ts##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *target,     \
                                                 qmo_seq_iterator_t *source, qmo_seq_iterator_t *values,     \
                                                 ctype filler) {                                             \
        return qmo::construct_asof<qmo::Elem<tscode>, qmo::Elem<code>>(                                      \
            result, target, source, values, QMO_SEQ_ASOF_BACKWARD, 0, true, &filler,                        \
            qmo_seq_##family##_##ts##_##t##_next);                                                           \
    }
QMO_SEQ_ASOF_FAMILIES(QMO_STAMP_FAMILY)
