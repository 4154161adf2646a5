// The families of the scalar aggregates (how one element folds, how two
// partial results join, what is delivered), shared by every aggregate that
// folds groups of elements: whole sequences and runs of equal keys.
#pragma once

#include "aggregate/fold.hpp"
#include "frame/numeric.hpp"

#include <cmath>
#include <type_traits>

namespace qmo::agg {

// Integer sums add modulo 2^64 in unsigned arithmetic: the same bits as a
// wrapping signed sum, without signed overflow.
template <class E>
using sum_word_t = std::conditional_t<E::is_float, double, uint64_t>;

template <class E>
struct agg_sum {
    using in = E;
    using out = wide_t<E>;
    using A = sum_word_t<E>;
    using acc = Acc<A, 1>;
    static void terms(value_t<E> x, A (&t)[1]) { t[0] = static_cast<A>(x); }
    static void finish(const acc &s, uint64_t, value_t<out> *r) { r[0] = static_cast<value_t<out>>(s.w[0]); }

    // Narrow integers (counts of conditions above all) add a tile in a lane
    // twice their width: 128 of them cannot overflow it, the 64-bit sum
    // modulo 2^64 is the same, and twice as many lanes fit a vector.
    using T = value_t<E>;
    using Part = std::conditional_t<sizeof(T) == 1, std::conditional_t<std::is_signed_v<T>, int16_t, uint16_t>,
                                    std::conditional_t<std::is_signed_v<T>, int32_t, uint32_t>>;
    static void fold_tile(acc &s, const T *x, unsigned n)
        requires(std::is_integral_v<T> && sizeof(T) <= 2)
    {
        Part part = 0;
        for (unsigned i = 0; i < n; ++i) part = static_cast<Part>(part + x[i]);
        s.w[0] += static_cast<A>(static_cast<int64_t>(part));
    }
};

template <class E>
struct agg_prd {
    using in = E;
    using out = wide_t<E>;
    using A = value_t<out>;
    using acc = Acc<A, 1>;
    static acc seed(value_t<E> x) { return {{static_cast<A>(x)}}; }
    static void step(acc &s, value_t<E> x) { s.w[0] = wrap_mul(s.w[0], static_cast<A>(x)); }
    static void join(acc &s, const acc &o) { s.w[0] = wrap_mul(s.w[0], o.w[0]); }
    static void finish(const acc &s, uint64_t, A *r) { r[0] = s.w[0]; }
};

// Running extremes in the input type: min replaces when x < acc, max unless
// acc > x, so the two treat NaN differently.
struct keep_min {
    template <class T>
    static void apply(T &acc, T x) {
        if (x < acc) acc = x;
    }
};
struct keep_max {
    template <class T>
    static void apply(T &acc, T x) {
        if (!(acc > x)) acc = x;
    }
};

template <class E, class Keep>
struct extreme {
    using in = E;
    using out = E;
    using acc = Acc<value_t<E>, 1>;
    static acc seed(value_t<E> x) { return {{x}}; }
    static void step(acc &s, value_t<E> x) { Keep::apply(s.w[0], x); }
    static void join(acc &s, const acc &o) { Keep::apply(s.w[0], o.w[0]); }
    static void finish(const acc &s, uint64_t, value_t<E> *r) { r[0] = s.w[0]; }
};
template <class E>
struct agg_min : extreme<E, keep_min> {};
template <class E>
struct agg_max : extreme<E, keep_max> {};

// Both extremes in one pass: an element below the minimum is not compared
// with the maximum. Datetime extremes are delivered as doubles.
template <class E>
struct agg_min_max {
    using in = E;
    using out = std::conditional_t<E::is_datetime, Elem<QMO_SEQ_TYPE_DOUBLE>, E>;
    using acc = Acc<value_t<E>, 2>;
    static constexpr unsigned outputs = 2;
    static acc seed(value_t<E> x) { return {{x, x}}; }
    static void step(acc &s, value_t<E> x) {
        if (x < s.w[0]) s.w[0] = x;
        else keep_max::apply(s.w[1], x);
    }
    static void finish(const acc &s, uint64_t, value_t<out> *r) {
        r[0] = static_cast<value_t<out>>(s.w[0]);
        r[1] = static_cast<value_t<out>>(s.w[1]);
    }
};

// Mean in double; datetime keeps an unsigned 64-bit sum and truncates.
template <class E>
struct agg_avg {
    using in = E;
    using out = std::conditional_t<E::is_datetime, E, Elem<QMO_SEQ_TYPE_DOUBLE>>;
    using A = std::conditional_t<E::is_datetime, uint64_t, double>;
    using acc = Acc<A, 1>;
    static void terms(value_t<E> x, A (&t)[1]) { t[0] = static_cast<A>(x); }
    static void finish(const acc &s, uint64_t n, value_t<out> *r) {
        if constexpr (E::is_datetime) r[0] = s.w[0] / n;
        else r[0] = s.w[0] / static_cast<double>(n);
    }
};

// The variance family: plain sums of x and x squared, finished by a formula.
template <class E, class Formula>
struct moments {
    using in = E;
    using out = Elem<QMO_SEQ_TYPE_DOUBLE>;
    using acc = Acc<double, 2>;
    static void terms(value_t<E> x, double (&t)[2]) {
        const double d = static_cast<double>(x);
        t[0] = d;
        t[1] = d * d;
    }
    static void finish(const acc &s, uint64_t n, double *r) { r[0] = Formula::of(s.w[0], s.w[1], n); }
};

struct population {
    static double of(double s1, double s2, uint64_t n) {
        const double d = static_cast<double>(n);
        return (s2 - s1 * s1 / d) / d;
    }
};
// Deliberately n - 1 in both places, (s2 - s1^2 / (n - 1)) / (n - 1): not the
// textbook estimator (1, 2, 3 gives -2.0), and kept so that results do not change.
struct sample {
    static double of(double s1, double s2, uint64_t n) {
        if (n == 1) return 0.0;
        const double d = static_cast<double>(n - 1);
        return (s2 - s1 * s1 / d) / d;
    }
};
template <class Variance>
struct root {
    static double of(double s1, double s2, uint64_t n) { return std::sqrt(Variance::of(s1, s2, n)); }
};

template <class E>
struct agg_var : moments<E, population> {};
template <class E>
struct agg_var_samp : moments<E, sample> {};
template <class E>
struct agg_dev : moments<E, root<population>> {};
template <class E>
struct agg_dev_samp : moments<E, root<sample>> {};

}  // namespace qmo::agg
