// The fold skeletons behind every scalar aggregate: one for a single operand,
// one for pairs advanced in step, the prepared-flag protocol and the merge of
// partial results. A family is a small struct; the skeleton owns pulling,
// nulls, seeding, the state words and delivery.
//
// Family protocol:
//   using in  = Elem<...>;     operand element type (constructors check it)
//   using out = Elem<...>;     result element type
//   using acc = Acc<A, K>;     K accumulator words of type A
//   static void finish(const acc &, uint64_t n, value_t<out> *result);
// and either, for families that only add up per-element terms,
//   static void terms(T x, A (&t)[K]);          (pairs: terms(T x, T y, t))
// or, for the others,
//   static acc seed(T x);                        accumulators of x alone
//   static void step(acc &, T x);                fold one more element
//   static void join(acc &into, const acc &from);   merge (omitted: not mergeable)
// A family that delivers two elements says `static constexpr unsigned outputs = 2`.
#pragma once

#include "frame/construct.hpp"
#include "frame/isa.hpp"

#include <algorithm>
#include <bit>
#include <iterator>

namespace qmo::agg {

template <class A, unsigned K>
struct Acc {
    A w[K];
};

// State word indexes (from 0) of the count: one-operand and pair aggregates.
inline constexpr unsigned kCountWord = 2;
inline constexpr unsigned kPairCountWord = 5;

template <class F>
concept Sums = requires { &F::terms; };

template <class F>
constexpr unsigned outputs_of() {
    if constexpr (requires { F::outputs; }) return F::outputs;
    else return 1;
}

// ---- tiles and null bitmaps ----------------------------------------------------

// Calls visit(i) for every element below len whose bit in nulls is clear.
template <class Visit>
inline void for_each_live(const uint64_t (&nulls)[2], unsigned len, Visit visit) {
    for (unsigned w = 0; w < 2; ++w)
        for (uint64_t live = ~nulls[w] & tile_mask(len, w); live; live &= live - 1)
            visit(w * 64 + static_cast<unsigned>(std::countr_zero(live)));
}

inline unsigned live_count(const Iter *it) noexcept {
    const unsigned len = it->tile_count;
    return len - static_cast<unsigned>(std::popcount(it->null_bitmap[0] & tile_mask(len, 0)) +
                                       std::popcount(it->null_bitmap[1] & tile_mask(len, 1)));
}

// ---- accumulation ----------------------------------------------------------------

// Adds K terms of elements 0..n-1 into w, strictly left to right, so that a
// floating sum does not depend on how the input was cut into tiles (integer
// sums vectorise as they are).
template <class A, unsigned K, class Terms>
inline void sum_terms(A (&w)[K], unsigned n, Terms terms) {
    for (unsigned i = 0; i < n; ++i) {
        A t[K];
        terms(i, t);
        for (unsigned k = 0; k < K; ++k) w[k] += t[k];
    }
}

template <class F, class T>
inline typename F::acc seed_of(T x) {
    if constexpr (Sums<F>) {
        typename F::acc s;
        F::terms(x, s.w);
        return s;
    } else {
        return F::seed(x);
    }
}

template <class F, class T>
inline void step_of(typename F::acc &s, T x) {
    if constexpr (Sums<F>) {
        typename F::acc t;
        F::terms(x, t.w);
        for (unsigned k = 0; k < std::size(s.w); ++k) s.w[k] += t.w[k];
    } else {
        F::step(s, x);
    }
}

template <class F>
inline void join_of(typename F::acc &into, const typename F::acc &from) {
    if constexpr (Sums<F>) {
        for (unsigned k = 0; k < std::size(into.w); ++k) into.w[k] += from.w[k];
    } else {
        F::join(into, from);
    }
}

// Folds n (at most a tile) elements without nulls.
template <class F, class T>
inline void fold_dense(typename F::acc &s, const T *x, unsigned n) {
    if constexpr (requires { F::fold_tile(s, x, n); }) {
        F::fold_tile(s, x, n);
    } else if constexpr (Sums<F>) {
        sum_terms(s.w, n, [x](unsigned i, auto &t) { F::terms(x[i], t); });
    } else {
        for (unsigned i = 0; i < n; ++i) F::step(s, x[i]);
    }
}

// ---- state words and delivery --------------------------------------------------

// Accumulator k goes to state word k (its low-order bytes), the count to count_word.
template <class A, unsigned K>
inline void store_state(Iter *it, const Acc<A, K> &s, unsigned count_word, uint64_t n) {
    for (unsigned k = 0; k < K; ++k) {
        it->state[k] = 0;
        std::memcpy(&it->state[k], &s.w[k], sizeof(A));
    }
    it->state[count_word] = n;
}

template <class Accumulators>
inline Accumulators load_state(const Iter *it) {
    Accumulators s;
    for (unsigned k = 0; k < std::size(s.w); ++k) std::memcpy(&s.w[k], &it->state[k], sizeof s.w[k]);
    return s;
}

// The result tile: k elements, no nulls, position k.
template <class R>
inline void put_result(Iter *it, const R *values, unsigned k) {
    std::memcpy(tile<R>(it), values, k * sizeof(R));
    clear_nulls(it);
    it->tile_count = static_cast<uint16_t>(k);
    it->pos = k;
}

template <class F>
inline void deliver(Iter *it, const typename F::acc &s, uint64_t n) {
    using R = value_t<typename F::out>;
    R r[outputs_of<F>()];
    F::finish(s, n, r);
    put_result(it, r, outputs_of<F>());
}

// A prepared record hands out the result its prepare call computed (and any
// merges updated) once, or ends when that partition had none.
inline int hand_out_prepared(Iter *it) {
    if (it->pos == 0) return QMO_SEQ_END;
    it->prepared = 0;
    return QMO_SEQ_OK;
}

// ---- the skeletons ---------------------------------------------------------------

// One operand. Element 0 of the first tile seeds the accumulators whether or
// not it is null, and a tile without nulls is folded whole; so a seed from a
// null slot is dropped at the first counted element of a tile with nulls, but
// kept when the whole first tile is null and a later tile has no nulls.
template <class F>
int fold_next(Iter *it) {
    constexpr bool mergeable = outputs_of<F>() == 1;
    if (mergeable && it->prepared) return hand_out_prepared(it);
    if (it->pos != 0) return QMO_SEQ_END;
    it->state[kCountWord] = 0;  // a partition that delivers nothing merges as empty
    Iter *op = it->operand1;
    int rc = op->next(op);
    if (rc) return rc;
    using T = value_t<typename F::in>;
    typename F::acc s = seed_of<F>(tile<T>(op)[0]);
    uint64_t n = 0;
    unsigned start = 1;
    do {
        const T *x = tile<T>(op);
        const unsigned len = op->tile_count;
        if (!has_nulls(op)) {
            n += len;
            if (len > start) fold_dense<F>(s, x + start, len - start);
        } else {
            for_each_live(op->null_bitmap, len, [&](unsigned i) {
                if (n++ == 0) s = seed_of<F>(x[i]);
                else step_of<F>(s, x[i]);
            });
        }
        start = 0;
    } while ((rc = op->next(op)) == 0);
    if (n == 0 || rc != QMO_SEQ_END) return rc;
    store_state(it, s, kCountWord, n);
    deliver<F>(it, s, n);
    return QMO_SEQ_OK;
}

// Pairs: x is operand 1, y operand 2, pulled in that order; the shorter tile
// rules and a pair counts when neither element is null. Zeros seed the sums.
template <class F>
int pair_next(Iter *it) {
    if (it->prepared) return hand_out_prepared(it);
    if (it->pos != 0) return QMO_SEQ_END;
    it->state[kPairCountWord] = 0;
    Iter *xs = it->operand1;
    Iter *ys = it->operand2;
    using T = value_t<typename F::in>;
    typename F::acc s = {};
    uint64_t n = 0;
    int rc;
    while ((rc = xs->next(xs)) == 0 && (rc = ys->next(ys)) == 0) {
        const unsigned len = std::min(xs->tile_count, ys->tile_count);
        const T *x = tile<T>(xs);
        const T *y = tile<T>(ys);
        const uint64_t nulls[2] = {xs->null_bitmap[0] | ys->null_bitmap[0],
                                   xs->null_bitmap[1] | ys->null_bitmap[1]};
        if ((nulls[0] | nulls[1]) == 0) {
            n += len;
            sum_terms(s.w, len, [x, y](unsigned i, auto &t) { F::terms(x[i], y[i], t); });
        } else {
            for_each_live(nulls, len, [&](unsigned i) {
                typename F::acc t;
                F::terms(x[i], y[i], t.w);
                join_of<F>(s, t);
                ++n;
            });
        }
    }
    if (n == 0 || rc != QMO_SEQ_END) return rc;
    store_state(it, s, kPairCountWord, n);
    deliver<F>(it, s, n);
    return QMO_SEQ_OK;
}

// Folds from's partial result into into's and refreshes into's result tile.
// A side that counted nothing contributes nothing (its words were never
// written), so an empty partition cannot zero a product or a minimum.
template <class F, unsigned CountWord>
int merge(Iter *into, const Iter *from) {
    const uint64_t from_n = from->state[CountWord];
    if (from_n == 0) return QMO_SEQ_OK;
    const uint64_t into_n = into->state[CountWord];
    auto s = load_state<typename F::acc>(from);
    if (into_n != 0) {
        auto mine = load_state<typename F::acc>(into);
        join_of<F>(mine, s);
        s = mine;
    }
    store_state(into, s, CountWord, into_n + from_n);
    deliver<F>(into, s, into_n + from_n);
    return QMO_SEQ_OK;
}

// Type checks (every operand), binding, then the record; a merge function
// also installs qmo_seq_prepare_aggregate.
inline int construct_aggregate(Iter *result, const Setup &setup, int in_code, qmo_seq_merge_fn merge_fn) {
    for (const Iter *o : {setup.operand1, setup.operand2})
        if (o && expect_type(o, in_code)) return QMO_SEQ_TYPE_MISMATCH;
    if (int rc = construct(result, setup)) return rc;
    if (merge_fn) {
        result->prepare = qmo_seq_prepare_aggregate;
        result->merge = merge_fn;
    }
    return QMO_SEQ_OK;
}

}  // namespace qmo::agg

// Stamp the constructor, next and merge of one aggregate member. `op` names
// both the C family and the family struct template in qmo::agg.
#define QMO_AGG_FAMILY_(op, tc) qmo::agg::op<qmo::Elem<tc>>

#define QMO_STAMP_AGGREGATE(op, t, ctype, tc)                                                       \
    QMO_STAMP_AGGREGATE_NEXT_(op, t, tc, fold_next)                                                 \
    QMO_STAMP_AGGREGATE_MERGE_(op, t, tc, kCountWord)                                               \
    QMO_STAMP_AGGREGATE_CONSTRUCTOR_(op, t, tc, qmo_seq_##op##_##t##_merge)

// Not mergeable: no merge function, no prepare.
#define QMO_STAMP_AGGREGATE_UNMERGED(op, t, ctype, tc)                                              \
    QMO_STAMP_AGGREGATE_NEXT_(op, t, tc, fold_next)                                                 \
    QMO_STAMP_AGGREGATE_CONSTRUCTOR_(op, t, tc, nullptr)

#define QMO_STAMP_PAIR_AGGREGATE(op, t, ctype, tc)                                                  \
    QMO_STAMP_AGGREGATE_NEXT_(op, t, tc, pair_next)                                                 \
    QMO_STAMP_AGGREGATE_MERGE_(op, t, tc, kPairCountWord)                                           \
    QMO_EXPORT int qmo_seq_##op##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *x,            \
                                      qmo_seq_iterator_t *y) {                                      \
        using F = QMO_AGG_FAMILY_(op, tc);                                                          \
        return qmo::agg::construct_aggregate(                                                       \
            result,                                                                                 \
            qmo::Setup{F::out::code, F::out::size, qmo_seq_##op##_##t##_next,                       \
                       qmo_seq_reset_binary_iterator, x, y},                                        \
            F::in::code, qmo_seq_##op##_##t##_merge);                                               \
    }

#define QMO_STAMP_AGGREGATE_NEXT_(op, t, tc, skeleton)                                              \
    QMO_EXPORT int qmo_seq_##op##_##t##_next(qmo_seq_iterator_t *it) {                              \
        using F = QMO_AGG_FAMILY_(op, tc);                                                          \
        return qmo::dispatch<qmo::agg::skeleton<F>, qmo::agg::skeleton<F>>(it);                     \
    }

#define QMO_STAMP_AGGREGATE_MERGE_(op, t, tc, count_word)                                           \
    QMO_EXPORT int qmo_seq_##op##_##t##_merge(qmo_seq_iterator_t *into, qmo_seq_iterator_t *from) { \
        return qmo::agg::merge<QMO_AGG_FAMILY_(op, tc), qmo::agg::count_word>(into, from);          \
    }

#define QMO_STAMP_AGGREGATE_CONSTRUCTOR_(op, t, tc, merge_fn)                                       \
    QMO_EXPORT int qmo_seq_##op##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input) {      \
        using F = QMO_AGG_FAMILY_(op, tc);                                                          \
        return qmo::agg::construct_aggregate(                                                       \
            result,                                                                                 \
            qmo::Setup{F::out::code, F::out::size, qmo_seq_##op##_##t##_next,                       \
                       qmo_seq_reset_unary_iterator, input},                                        \
            F::in::code, merge_fn);                                                                 \
    }
