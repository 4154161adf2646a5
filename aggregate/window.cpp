// Window aggregates: for every input element, the aggregate of the last N,
// updated in O(1) from a running value and a ring of the last N elements.
// The ring starts as N zeros, which take part until they are overwritten.
#include "aggregate/series.hpp"

#include <algorithm>

namespace qmo::window {

using series::Double;

// State words: N, the running value, a second running word (the sum of
// squares), then the ring of N elements in the input type.
enum Word : unsigned { kLength, kRun, kRun2, kRing };
inline constexpr unsigned kRingBytes = QMO_SEQ_WINDOW_RING_BYTES;
static_assert(kRing * 8 + kRingBytes <= sizeof(qmo_seq_iterator_t::state));

// What a step may read besides its running words: the ring (after the new
// element has replaced the leaving one) and N.
template <class T>
struct View {
    const T *ring;
    unsigned n;
    double nd;  // N as a double
    double a;   // ema's smoothing factor 2 / (N + 1)
};

// Op protocol: K running words of type A; push(w, old, x, i, view) takes
// element x at global index i, `old` leaving the ring, and returns the
// output. Ops that keep no ring say uses_ring = false (old is then 0).

template <class E>
struct sum {
    using in = E;
    using out = wide_t<E>;
    using A = value_t<out>;
    static constexpr unsigned K = 1;
    static constexpr bool uses_ring = true;
    static A push(A (&w)[K], value_t<E> old, value_t<E> x, uint64_t, const View<value_t<E>> &) {
        w[0] = wrap_add(wrap_sub(w[0], static_cast<A>(old)), static_cast<A>(x));
        return w[0];
    }
};

// The running sum over N from the first element on, kept in the result
// type: a double, which cannot wrap near the 64-bit limits as an integer
// sum would; a datetime mean stays an integer quotient.
template <class E>
struct avg {
    using in = E;
    using out = series::double_or_datetime<E>;
    using A = std::conditional_t<E::is_datetime, value_t<wide_t<E>>, double>;
    static constexpr unsigned K = 1;
    static constexpr bool uses_ring = true;
    static value_t<out> push(A (&w)[K], value_t<E> old, value_t<E> x, uint64_t i, const View<value_t<E>> &v) {
        if constexpr (E::is_datetime) {
            sum<E>::push(w, old, x, i, v);
            return w[0] / v.n;
        } else if constexpr (!E::is_float && sizeof(value_t<E>) < 8) {
            // Narrow integers: the step is exact in 64 bits and every sum of
            // the window stays below 2^53, so one conversion gives the same sum.
            w[0] += static_cast<double>(static_cast<int64_t>(x) - static_cast<int64_t>(old));
            return w[0] / v.nd;
        } else {
            w[0] = w[0] - series::to_double<E>(old) + series::to_double<E>(x);
            return w[0] / v.nd;
        }
    }
};

// A new extreme replaces the old; when the extreme leaves, the whole ring
// is scanned again, zero slots included.
template <class E, bool Max>
struct extreme {
    using in = E;
    using out = E;
    using A = value_t<E>;
    static constexpr unsigned K = 1;
    static constexpr bool uses_ring = true;
    static bool beats(A x, A m) { return Max ? x > m : x < m; }
    static A push(A (&w)[K], A old, A x, uint64_t, const View<A> &v) {
        if (beats(x, w[0])) {
            w[0] = x;
        } else if (old == w[0]) {
            A m = v.ring[0];
            for (unsigned j = 1; j < v.n; ++j)
                if (beats(v.ring[j], m)) m = v.ring[j];
            w[0] = m;
        }
        return w[0];
    }
};
template <class E>
struct min : extreme<E, false> {};
template <class E>
struct max : extreme<E, true> {};

// Sums of x and x squared over the ring, in double; the divisors are N and
// N - 1 whatever the number of elements seen.
template <class E, class Out, class Formula>
struct moments {
    using in = E;
    using out = Out;
    using A = double;
    static constexpr unsigned K = 2;
    static constexpr bool uses_ring = true;
    static value_t<Out> push(A (&w)[K], value_t<E> old, value_t<E> x, uint64_t, const View<value_t<E>> &v) {
        const double o = series::to_double<E>(old), d = series::to_double<E>(x);
        w[0] = w[0] - o + d;
        w[1] = w[1] - o * o + d * d;
        return series::from_double<value_t<Out>>(Formula::of(w[0], w[1], v.nd));
    }
};

struct population {
    static double of(double s1, double s2, double n) { return series::variance(s1, s2, n); }
};
struct sample {
    static double of(double s1, double s2, double n) { return series::variance(s1, s2, n - 1); }
};
template <class Variance>
struct root {
    static double of(double s1, double s2, double n) { return std::sqrt(Variance::of(s1, s2, n)); }
};

template <class E>
struct var : moments<E, series::double_or_datetime<E>, population> {};
template <class E>
struct var_samp : moments<E, Double, sample> {};
template <class E>
struct dev : moments<E, Double, root<population>> {};
template <class E>
struct dev_samp : moments<E, Double, root<sample>> {};

// Exponential moving average: the first element, then a blend with a = 2 / (N + 1).
template <class E>
struct ema {
    using in = E;
    using out = Double;
    using A = double;
    static constexpr unsigned K = 1;
    static constexpr bool uses_ring = false;
    static double push(A (&w)[K], value_t<E>, value_t<E> x, uint64_t i, const View<value_t<E>> &v) {
        const double d = series::to_double<E>(x);
        w[0] = i == 0 ? d : (1 - v.a) * w[0] + v.a * d;
        return w[0];
    }
};

// Wilder's smoothing: the period grows from 1 to N, then stays N.
template <class E>
struct atr {
    using in = E;
    using out = Double;
    using A = double;
    static constexpr unsigned K = 1;
    static constexpr bool uses_ring = false;
    static double push(A (&w)[K], value_t<E>, value_t<E> x, uint64_t i, const View<value_t<E>> &v) {
        const double m = i < v.n ? static_cast<double>(i + 1) : v.nd;
        w[0] = (w[0] * (m - 1) + series::to_double<E>(x)) / m;
        return w[0];
    }
};

// ---- the kernel ---------------------------------------------------------------------

// Slot i mod N of the ring takes element i; the position word is i.
template <class Op>
int next(Iter *it) {
    using T = value_t<typename Op::in>;
    using R = value_t<typename Op::out>;
    using Run = series::Words<typename Op::A, Op::K>;
    Iter *in = it->operand1;
    if (int rc = in->next(in)) return rc;
    const unsigned len = in->tile_count;
    if (series::nulls_within(in, len)) return QMO_SEQ_NULL_VALUE;
    const unsigned n = static_cast<unsigned>(it->state[kLength]);
    const uint64_t i0 = it->pos;
    const T *x = tile<T>(in);
    R *out = tile<R>(it);
    Run run = Run::load(it, kRun);
    if constexpr (Op::uses_ring) {
        T ring[kRingBytes / sizeof(T)];
        std::memcpy(ring, &it->state[kRing], n * sizeof(T));
        const View<T> v{ring, n, static_cast<double>(n), 0};
        unsigned slot = static_cast<unsigned>(i0 % n);
        for (unsigned k = 0; k < len; slot = 0) {
            // Up to the end of the ring without a wrap test per element.
            const unsigned stop = k + std::min(len - k, n - slot);
            for (; k < stop; ++k, ++slot) {
                const T old = ring[slot];
                ring[slot] = x[k];
                out[k] = Op::push(run.w, old, x[k], 0, v);
            }
            if (slot != n) break;
        }
        std::memcpy(&it->state[kRing], ring, n * sizeof(T));
    } else {
        const View<T> v{nullptr, n, static_cast<double>(n), 2.0 / (n + 1.0)};
        for (unsigned k = 0; k < len; ++k) out[k] = Op::push(run.w, T{}, x[k], i0 + k, v);
    }
    run.store(it, kRun);
    clear_nulls(it);
    return deliver(it, len);
}

// Checks, binds the input, and only then refuses a window the ring cannot hold.
template <class Op>
int construct(Iter *result, Iter *input, uint64_t n, qmo_seq_next_fn next_fn, qmo_seq_reset_fn reset_fn) {
    if (int rc = expect_type(input, Op::in::code)) return rc;
    const Setup setup{Op::out::code, Op::out::size, next_fn, reset_fn, input};
    if (int rc = check_unbound(setup)) return rc;
    bind_operands(setup);
    if (n == 0 || n > kRingBytes / sizeof(value_t<typename Op::in>)) return QMO_SEQ_INVALID_ARGUMENT;
    fill(result, setup);
    result->state[kLength] = n;
    return QMO_SEQ_OK;
}

// A new pass: the ring back to zeros, and the running values with it, so
// that a reset sequence repeats its first pass.
inline int reset(Iter *it) {
    std::memset(&it->state[kRun], 0, (kRing - kRun) * 8 + kRingBytes);
    return qmo_seq_reset_unary_iterator(it);
}

// The registry's names of the operations.
template <class E> using window_agg_sum = sum<E>;
template <class E> using window_agg_avg = avg<E>;
template <class E> using window_agg_min = min<E>;
template <class E> using window_agg_max = max<E>;
template <class E> using window_agg_var = var<E>;
template <class E> using window_agg_var_samp = var_samp<E>;
template <class E> using window_agg_dev = dev<E>;
template <class E> using window_agg_dev_samp = dev_samp<E>;
template <class E> using window_agg_ema = ema<E>;
template <class E> using window_agg_atr = atr<E>;

}  // namespace qmo::window

#define QMO_STAMP_COUNTED_RESET(family, t, ctype, code)                                                        \
    QMO_STAMP_SERIES_NEXT_(window, family, t, code)                                                            \
    QMO_EXPORT int qmo_seq_##family##_##t##_reset(qmo_seq_iterator_t *it) { return qmo::window::reset(it); }   \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input, uint64_t n) { \
        return qmo::window::construct<QMO_SERIES_OP_(window, family, code)>(                                   \
            result, input, n, qmo_seq_##family##_##t##_next, qmo_seq_##family##_##t##_reset);                  \
    }
QMO_SEQ_WINDOW_FAMILIES(QMO_STAMP_FAMILY)
