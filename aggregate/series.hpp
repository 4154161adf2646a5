// What the grid, window and cumulative aggregates share: their result types,
// the variance formula, typed access to state words, the constructor and the
// stamping of the exported names. Each family's kernel and op structs live
// in grid.cpp, window.cpp and cumulative.cpp.
#pragma once

#include "frame/construct.hpp"
#include "frame/numeric.hpp"

#include <cmath>

namespace qmo::series {

using Double = Elem<QMO_SEQ_TYPE_DOUBLE>;

// Means and variances are doubles, but a datetime input keeps its type.
template <class E>
using double_or_datetime = std::conditional_t<E::is_datetime, E, Double>;

template <class E>
inline double to_double(value_t<E> x) noexcept {
    return static_cast<double>(x);
}

// A double result in the result element type R: integers truncate the way
// the machine's conversion does (NaN and overflow included).
template <class R>
inline R from_double(double d) noexcept {
    if constexpr (std::is_floating_point_v<R>) return static_cast<R>(d);
    else if constexpr (std::is_signed_v<R>) return static_cast<R>(double_to_i64(d));
    else return static_cast<R>(double_to_u64(d));
}

// The plain sum-of-squares variance with divisor d: (s2 - s1 * s1 / d) / d.
inline double variance(double s1, double s2, double d) noexcept {
    return (s2 - s1 * s1 / d) / d;
}

// Accumulator words k0, k0 + 1, ... of a record, loaded into and stored from
// an array that the compiler keeps in registers while a tile is folded.
template <class A, unsigned K>
struct Words {
    A w[K];

    static Words load(const Iter *it, unsigned k0) noexcept {
        Words s;
        for (unsigned k = 0; k < K; ++k) s.w[k] = load_word<A>(it, k0 + k);
        return s;
    }
    void store(Iter *it, unsigned k0) const noexcept {
        for (unsigned k = 0; k < K; ++k) store_word(it, k0 + k, w[k]);
    }
};

// The null bits of the first n elements of a tile.
inline bool nulls_within(const Iter *it, unsigned n) noexcept {
    return ((it->null_bitmap[0] & tile_mask(n, 0)) | (it->null_bitmap[1] & tile_mask(n, 1))) != 0;
}

// ---- construction -------------------------------------------------------------------

// Type check of the operand (61), then binding (701), then the record.
template <class Op>
inline int construct(Iter *result, Iter *input, qmo_seq_next_fn next, qmo_seq_reset_fn reset) {
    if (int rc = expect_type(input, Op::in::code)) return rc;
    return qmo::construct(result, Setup{Op::out::code, Op::out::size, next, reset, input});
}

}  // namespace qmo::series

// Stamping: `family` is grid, window or cum, the op struct is
// qmo::<family>::<op><Elem<code>>, and the kernel qmo::<family>::next<Op>.
// The operation of a registry family, qmo::<kind>::<family>, e.g. qmo::grid::grid_agg_sum.
#define QMO_SERIES_OP_(kind, family, code) qmo::kind::family<qmo::Elem<code>>

#define QMO_STAMP_SERIES_NEXT_(kind, family, t, code)                           \
    QMO_EXPORT int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it) {      \
        return qmo::kind::next<QMO_SERIES_OP_(kind, family, code)>(it);         \
    }
