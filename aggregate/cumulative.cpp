// Cumulative aggregates: for every input element, the aggregate of all
// non-null elements up to it. The position word starts at 1 and grows by one
// per input element; the running average and the variances divide by it.
#include "aggregate/series.hpp"

namespace qmo::cum {

using series::Double;

// State words: the count of non-null elements seen, then the accumulators.
enum Word : unsigned { kCount, kAcc };

// Op protocol: K accumulator words of type A.
//   first(w, x)     seeds them from the first non-null element; its output
//   step(w, x, p)   folds a later one; p is the position word before it
//                   (the element's global index + 1); the output
//   carry(w)        the output for a null element after the first value

// Sums and products: 64-bit of the input's signedness, double for floats;
// a datetime sum is a double, a datetime product stays datetime.
template <class E>
using sum_out = std::conditional_t<E::is_datetime, Double, wide_t<E>>;

template <class E, class Out, class Combine>
struct running {
    using in = E;
    using out = Out;
    using A = value_t<Out>;
    static constexpr unsigned K = 1;
    static A first(A (&w)[K], value_t<E> x) { return w[0] = static_cast<A>(x); }
    static A step(A (&w)[K], value_t<E> x, uint64_t) { return w[0] = Combine::of(w[0], static_cast<A>(x)); }
    static A carry(const A (&w)[K]) { return w[0]; }
};

struct plus {
    template <class A>
    static A of(A a, A b) { return wrap_add(a, b); }
};
struct times {
    template <class A>
    static A of(A a, A b) { return wrap_mul(a, b); }
};
struct smaller {
    template <class A>
    static A of(A a, A b) { return b < a ? b : a; }
};
struct larger {
    template <class A>
    static A of(A a, A b) { return b > a ? b : a; }
};

template <class E>
struct sum : running<E, sum_out<E>, plus> {};
template <class E>
struct prd : running<E, wide_t<E>, times> {};
template <class E>
struct min : running<E, E, smaller> {};
template <class E>
struct max : running<E, E, larger> {};

// The running mean weighted by the position: e = (e * p + x) / (p + 1).
template <class E>
struct avg {
    using in = E;
    using out = Double;
    using A = double;
    static constexpr unsigned K = 1;
    static double first(A (&w)[K], value_t<E> x) { return w[0] = series::to_double<E>(x); }
    static double step(A (&w)[K], value_t<E> x, uint64_t p) {
        const double j1 = static_cast<double>(p);
        return w[0] = (w[0] * j1 + series::to_double<E>(x)) / (j1 + 1);
    }
    static double carry(const A (&w)[K]) { return w[0]; }
};

// Sums of x and x squared with divisor d = p + 1 (Sample: d - 1 = p).
// Integers: 64-bit sums, squares formed in the element's own width,
// wrapping, an integer quotient s1 * s1 / d, the rest in double, and the
// result truncated. A null after the first value outputs s1.
template <class E, bool Sample, bool Root>
struct moments {
    using in = E;
    using out = wide_t<E>;
    using A = value_t<out>;
    using T = value_t<E>;
    static constexpr unsigned K = 2;

    static A square(T x) {
        if constexpr (E::is_float) return static_cast<double>(x) * static_cast<double>(x);
        else return static_cast<A>(wrap_mul(x, x));
    }
    static A first(A (&w)[K], T x) {
        w[0] = static_cast<A>(x);
        w[1] = square(x);
        return A{};
    }
    static A step(A (&w)[K], T x, uint64_t p) {
        w[0] = wrap_add(w[0], static_cast<A>(x));
        w[1] = wrap_add(w[1], square(x));
        const A d = static_cast<A>(Sample ? p : p + 1);
        double v;
        if constexpr (E::is_float) v = series::variance(w[0], w[1], d);
        else v = static_cast<double>(wrap_sub(w[1], wrap_mul(w[0], w[0]) / d)) / static_cast<double>(d);
        if constexpr (Root) v = std::sqrt(v);
        return series::from_double<A>(v);
    }
    static A carry(const A (&w)[K]) { return w[0]; }
};

template <class E>
struct var : moments<E, false, false> {};
template <class E>
struct var_samp : moments<E, true, false> {};
template <class E>
struct dev : moments<E, false, true> {};
template <class E>
struct dev_samp : moments<E, true, true> {};

// ---- the kernel ---------------------------------------------------------------------

template <class Op>
int next(Iter *it) {
    using T = value_t<typename Op::in>;
    using R = value_t<typename Op::out>;
    using Acc = series::Words<typename Op::A, Op::K>;
    Iter *in = it->operand1;
    if (it->pos == 0) {  // a new pass, after construction or a reset
        it->pos = 1;
        it->state[kCount] = 0;
    }
    if (int rc = in->next(in)) return rc;
    const unsigned len = in->tile_count;
    const T *x = tile<T>(in);
    R *out = tile<R>(it);
    const uint64_t p0 = it->pos;
    uint64_t count = it->state[kCount];
    Acc acc = Acc::load(it, kAcc);
    clear_nulls(it);
    unsigned k = 0;
    if (!series::nulls_within(in, len)) {
        if (count == 0 && len > 0) out[k++] = Op::first(acc.w, x[0]);
        for (; k < len; ++k) out[k] = Op::step(acc.w, x[k], p0 + k);
        count += len;
    } else {
        for (; k < len; ++k) {
            if (is_null(in, k)) {
                if (count) {
                    out[k] = Op::carry(acc.w);
                } else {
                    out[k] = R{};
                    set_null(it, k);
                }
            } else if (count++ == 0) {
                out[k] = Op::first(acc.w, x[k]);
            } else {
                out[k] = Op::step(acc.w, x[k], p0 + k);
            }
        }
    }
    it->state[kCount] = count;
    acc.store(it, kAcc);
    return deliver(it, len);
}

// The registry's names of the operations.
template <class E> using cum_agg_sum = sum<E>;
template <class E> using cum_agg_avg = avg<E>;
template <class E> using cum_agg_prd = prd<E>;
template <class E> using cum_agg_min = min<E>;
template <class E> using cum_agg_max = max<E>;
template <class E> using cum_agg_var = var<E>;
template <class E> using cum_agg_var_samp = var_samp<E>;
template <class E> using cum_agg_dev = dev<E>;
template <class E> using cum_agg_dev_samp = dev_samp<E>;

}  // namespace qmo::cum

#define QMO_STAMP_UNARY(family, t, ctype, code)                                                          \
    QMO_STAMP_SERIES_NEXT_(cum, family, t, code)                                                         \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input) {        \
        return qmo::series::construct<QMO_SERIES_OP_(cum, family, code)>(                                \
            result, input, qmo_seq_##family##_##t##_next, qmo_seq_reset_unary_iterator);                 \
    }
QMO_SEQ_CUMULATIVE_FAMILIES(QMO_STAMP_FAMILY)
