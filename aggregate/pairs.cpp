// Scalar aggregates of two operands advanced in step: cov, corr, wsum and
// wavg over the numeric types. x is operand 1, y operand 2; all accumulate
// plain double sums and deliver a double.
#include "aggregate/fold.hpp"
#include "frame/numeric.hpp"

#include <cmath>

namespace qmo::agg {

// Sum words: x, y, x squared, x times y, y squared (unused ones stay 0).
enum Word : unsigned { kSx, kSy, kSxx, kSxy, kSyy, kWords };

template <class E>
struct pair_family {
    using in = E;
    using out = Elem<QMO_SEQ_TYPE_DOUBLE>;
    using acc = Acc<double, kWords>;
    using T = value_t<E>;
    static double d(T v) { return static_cast<double>(v); }
};

template <class E>
struct corr : pair_family<E> {
    using B = pair_family<E>;
    static void terms(typename B::T x, typename B::T y, double (&t)[kWords]) {
        t[kSx] = B::d(x);
        t[kSy] = B::d(y);
        t[kSxx] = B::d(x) * B::d(x);
        t[kSxy] = B::d(x) * B::d(y);
        t[kSyy] = B::d(y) * B::d(y);
    }
    static void finish(const typename B::acc &s, uint64_t n, double *r) {
        const double dn = static_cast<double>(n);
        const double sx = s.w[kSx], sy = s.w[kSy];
        r[0] = (s.w[kSxy] - sy * sx / dn) / std::sqrt((s.w[kSyy] - sy * sy / dn) * (s.w[kSxx] - sx * sx / dn));
    }
};

// corr's sums without the squares.
template <class E>
struct cov : pair_family<E> {
    using B = pair_family<E>;
    static void terms(typename B::T x, typename B::T y, double (&t)[kWords]) {
        corr<E>::terms(x, y, t);
        t[kSxx] = t[kSyy] = 0;
    }
    static void finish(const typename B::acc &s, uint64_t n, double *r) {
        const double dn = static_cast<double>(n);
        r[0] = (s.w[kSxy] - s.w[kSy] * s.w[kSx] / dn) / dn;
    }
};

// Multiplied in double.
template <class E>
struct wsum : pair_family<E> {
    using B = pair_family<E>;
    static void terms(typename B::T x, typename B::T y, double (&t)[kWords]) {
        t[kSx] = t[kSy] = t[kSxx] = t[kSyy] = 0;
        t[kSxy] = B::d(x) * B::d(y);
    }
    static void finish(const typename B::acc &s, uint64_t, double *r) { r[0] = s.w[kSxy]; }
};

// x is the weight. Unlike wsum, products are formed in the element's own
// arithmetic before they become doubles: integers in 32 bits for 1- to 4-byte
// types, 64 for 8-byte ones, of the element's signedness, wrapping; floats
// as float products, rounded (or overflowing) in float.
template <class E>
struct wavg : pair_family<E> {
    using B = pair_family<E>;
    using T = typename B::T;
    using P = std::conditional_t<(sizeof(T) == 8), T, std::conditional_t<E::is_signed, int32_t, uint32_t>>;
    static double product(T x, T y) {
        if constexpr (E::is_float) return static_cast<double>(static_cast<T>(x * y));
        else return static_cast<double>(wrap_mul(static_cast<P>(x), static_cast<P>(y)));
    }
    static void terms(T x, T y, double (&t)[kWords]) {
        t[kSx] = B::d(x);
        t[kSy] = t[kSxx] = t[kSyy] = 0;
        t[kSxy] = product(x, y);
    }
    static void finish(const typename B::acc &s, uint64_t, double *r) { r[0] = s.w[kSxy] / s.w[kSx]; }
};

}  // namespace qmo::agg

QMO_SEQ_PAIR_FAMILIES(QMO_STAMP_FAMILY)
