// Grid aggregates: one result per interval of L consecutive input elements,
// nulls skipped; an interval of nulls only gives a null, and the last,
// shorter interval is delivered when the input ends.
#include "aggregate/families.hpp"
#include "aggregate/series.hpp"

#include <algorithm>

namespace qmo::grid {

using series::Double;

// State words: the interval length, the open interval's non-null and
// consumed counts, the resume index into the operand's tile (the three that
// qmo_seq_reset_unary_agg_iterator clears), then the accumulators.
enum Word : unsigned { kLength, kLive, kConsumed, kResume, kAcc };
static_assert(cleared_by_agg_reset(kLive) && cleared_by_agg_reset(kConsumed) && cleared_by_agg_reset(kResume));

// Op protocol: K accumulator words of type A, seeded by an interval's first
// non-null element, folded with each further one, finished with the count.

template <class E>
struct sum {
    using in = E;
    using out = wide_t<E>;
    using A = value_t<out>;
    static constexpr unsigned K = 1;
    static void seed(A (&w)[K], value_t<E> x) { w[0] = static_cast<A>(x); }
    static void add(A (&w)[K], value_t<E> x) { w[0] = wrap_add(w[0], static_cast<A>(x)); }
    static A result(const A (&w)[K], uint64_t) { return w[0]; }
};

template <class E>
struct avg {
    using in = E;
    using out = series::double_or_datetime<E>;
    using A = value_t<out>;
    static constexpr unsigned K = 1;
    static void seed(A (&w)[K], value_t<E> x) { w[0] = static_cast<A>(x); }
    static void add(A (&w)[K], value_t<E> x) { w[0] += static_cast<A>(x); }
    static A result(const A (&w)[K], uint64_t n) {
        if constexpr (E::is_datetime) return w[0] / n;
        else return w[0] / static_cast<double>(n);
    }
};

template <class E, bool Max>
struct extreme {
    using in = E;
    using out = E;
    using A = value_t<E>;
    static constexpr unsigned K = 1;
    static void seed(A (&w)[K], A x) { w[0] = x; }
    static void add(A (&w)[K], A x) {
        if (Max ? x > w[0] : x < w[0]) w[0] = x;
    }
    static A result(const A (&w)[K], uint64_t) { return w[0]; }
};
template <class E>
struct min : extreme<E, false> {};
template <class E>
struct max : extreme<E, true> {};

// The variance family: sums of x and x squared in double, finished by a
// formula of the sums and the interval's non-null count.
template <class E, class Out, class Formula>
struct moments {
    using in = E;
    using out = Out;
    using A = double;
    static constexpr unsigned K = 2;
    static void seed(A (&w)[K], value_t<E> x) {
        const double d = series::to_double<E>(x);
        w[0] = d;
        w[1] = d * d;
    }
    static void add(A (&w)[K], value_t<E> x) {
        const double d = series::to_double<E>(x);
        w[0] += d;
        w[1] += d * d;
    }
    static value_t<Out> result(const A (&w)[K], uint64_t n) {
        return series::from_double<value_t<Out>>(Formula::of(w[0], w[1], n));
    }
};

// An interval finishes as a whole sequence does: the scalar aggregates' formulas.
using agg::population;
using agg::root;
using agg::sample;

template <class E>
struct var : moments<E, series::double_or_datetime<E>, population> {};
template <class E>
struct var_samp : moments<E, Double, sample> {};
template <class E>
struct dev : moments<E, Double, root<population>> {};
template <class E>
struct dev_samp : moments<E, Double, root<sample>> {};

// ---- the kernel ---------------------------------------------------------------------

// The open interval and where the operand's tile is taken up again.
template <class Op>
struct Interval {
    series::Words<typename Op::A, Op::K> acc;
    uint64_t live, consumed;
    unsigned resume;

    static Interval load(const Iter *it) {
        return {series::Words<typename Op::A, Op::K>::load(it, kAcc), it->state[kLive], it->state[kConsumed],
                static_cast<unsigned>(it->state[kResume])};
    }
    void store(Iter *it) const {
        acc.store(it, kAcc);
        it->state[kLive] = live;
        it->state[kConsumed] = consumed;
        it->state[kResume] = resume;
    }
    // Elements from..till of a tile; `dense`: the tile has no nulls.
    void fold(const Iter *in, unsigned from, unsigned till, bool dense) {
        const value_t<typename Op::in> *x = tile<value_t<typename Op::in>>(in);
        if (dense) {
            unsigned i = from;
            if (live == 0) Op::seed(acc.w, x[i++]);
            for (; i < till; ++i) Op::add(acc.w, x[i]);
            live += till - from;
        } else {
            for (unsigned i = from; i < till; ++i) {
                if (is_null(in, i)) continue;
                if (live++ == 0) Op::seed(acc.w, x[i]);
                else Op::add(acc.w, x[i]);
            }
        }
        consumed += till - from;
    }
    // The interval's result into element o of the output, then a new interval.
    void emit(Iter *it, unsigned o) {
        using R = value_t<typename Op::out>;
        if (live) {
            tile<R>(it)[o] = Op::result(acc.w, live);
        } else {
            tile<R>(it)[o] = R{};
            set_null(it, o);
        }
        live = consumed = 0;
    }
};

template <class Op>
int next(Iter *it) {
    Iter *in = it->operand1;
    const uint64_t length = it->state[kLength];
    Interval<Op> cur = Interval<Op>::load(it);
    clear_nulls(it);
    unsigned o = 0;
    for (;;) {
        if (cur.resume >= in->tile_count) {
            int rc;
            while ((rc = in->next(in)) == QMO_SEQ_OK && in->tile_count == 0) {
            }
            if (rc != QMO_SEQ_OK) {
                // Only the end closes the open interval; an error keeps it.
                if (rc == QMO_SEQ_END && cur.consumed) cur.emit(it, o++);
                cur.store(it);
                if (rc != QMO_SEQ_END || o == 0) return rc;
                return deliver(it, o);
            }
            cur.resume = 0;
        }
        const unsigned len = in->tile_count;
        const bool dense = !series::nulls_within(in, len);
        while (cur.resume < len) {
            const unsigned from = cur.resume;
            cur.resume += static_cast<unsigned>(std::min<uint64_t>(len - from, length - cur.consumed));
            cur.fold(in, from, cur.resume, dense);
            if (cur.consumed == length) {
                cur.emit(it, o++);
                if (o == kTile) {
                    cur.store(it);
                    return deliver(it, o);
                }
            }
        }
    }
}

template <class Op>
int construct(Iter *result, Iter *input, uint64_t length, qmo_seq_next_fn next_fn) {
    if (length == 0) return QMO_SEQ_INVALID_ARGUMENT;
    if (int rc = series::construct<Op>(result, input, next_fn, qmo_seq_reset_unary_agg_iterator)) return rc;
    result->state[kLength] = length;
    return QMO_SEQ_OK;
}

// The registry's names of the operations.
template <class E> using grid_agg_sum = sum<E>;
template <class E> using grid_agg_avg = avg<E>;
template <class E> using grid_agg_min = min<E>;
template <class E> using grid_agg_max = max<E>;
template <class E> using grid_agg_var = var<E>;
template <class E> using grid_agg_var_samp = var_samp<E>;
template <class E> using grid_agg_dev = dev<E>;
template <class E> using grid_agg_dev_samp = dev_samp<E>;

}  // namespace qmo::grid

#define QMO_STAMP_COUNTED(family, t, ctype, code)                                                           \
    QMO_STAMP_SERIES_NEXT_(grid, family, t, code)                                                           \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input, uint64_t n) { \
        return qmo::grid::construct<QMO_SERIES_OP_(grid, family, code)>(result, input, n,                   \
                                                                         qmo_seq_##family##_##t##_next);    \
    }
QMO_SEQ_GRID_FAMILIES(QMO_STAMP_FAMILY)
