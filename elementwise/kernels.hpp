// The two tile kernels behind every element-wise operator. An operator is a
// small struct; the kernel owns pulling, length handling, null bitmaps and
// position bookkeeping.
//
// Operator protocol (see docs/architecture.md):
//   using in  = Elem<...>;   operand element type (constructors check it)
//   using out = Elem<...>;   result element type
//   static value_t<out> apply(value_t<in> a, value_t<in> b);   binary
//   static value_t<out> apply(value_t<in> a);                  unary
// Char operators work on bytes instead and also say how wide the result is
// and which operand widths they accept:
//   static void apply_bytes(char *out, const char *a, unsigned wa,
//                           const char *b, unsigned wb, unsigned wout);
//   static int check_widths(const Iter *l, const Iter *r);   0 or 61
//   static unsigned out_width(const Iter *l, const Iter *r);
#pragma once

#include "frame/construct.hpp"
#include "frame/isa.hpp"

#include <algorithm>

namespace qmo {

// Apply a binary op over n elements. A full tile gets a constant trip count.
// An op may bring its own baseline loop (apply_sse2) where the compiler
// leaves the plain one scalar; the AVX2 build vectorises the plain one.
template <class Op, Isa isa, class T, class R>
inline void binary_loop(R *__restrict out, const T *__restrict a, const T *__restrict b,
                        unsigned n) noexcept {
    if constexpr (isa == Isa::baseline && requires { Op::apply_sse2(out, a, b, n); }) {
        Op::apply_sse2(out, a, b, n);
    } else if (n == kTile) {
        for (unsigned i = 0; i < kTile; ++i) out[i] = Op::apply(a[i], b[i]);
    } else {
        for (unsigned i = 0; i < n; ++i) out[i] = Op::apply(a[i], b[i]);
    }
}

template <class Op, Isa isa = Isa::baseline>
int binary_next(Iter *it) noexcept {
    Iter *left = it->operand1;
    if (int rc = left->next(left)) return rc;
    // Read before the second pull: one record may be both operands.
    const unsigned left_count = left->tile_count;
    Iter *right = it->operand2;
    if (int rc = right->next(right)) return rc;
    const unsigned n = std::min<unsigned>(left_count, right->tile_count);
    if constexpr (Op::in::is_char) {
        const unsigned wa = left->elem_size, wb = right->elem_size, wo = it->elem_size;
        const char *a = tile<char>(left);
        const char *b = tile<char>(right);
        char *out = tile<char>(it);
        for (unsigned i = 0; i < n; ++i) Op::apply_bytes(out + i * wo, a + i * wa, wa, b + i * wb, wb, wo);
    } else {
        using T = value_t<typename Op::in>;
        using R = value_t<typename Op::out>;
        binary_loop<Op, isa>(tile<R>(it), tile<T>(left), tile<T>(right), n);
    }
    it->null_bitmap[0] = left->null_bitmap[0] | right->null_bitmap[0];
    it->null_bitmap[1] = left->null_bitmap[1] | right->null_bitmap[1];
    return deliver(it, n);
}

template <class Op, class T, class R>
inline void unary_loop(R *__restrict out, const T *__restrict a, unsigned n) noexcept {
    if (n == kTile) {
        for (unsigned i = 0; i < kTile; ++i) out[i] = Op::apply(a[i]);
    } else {
        for (unsigned i = 0; i < n; ++i) out[i] = Op::apply(a[i]);
    }
}

template <class Op, Isa isa = Isa::baseline>
int unary_next(Iter *it) noexcept {
    Iter *input = it->operand1;
    if (int rc = input->next(input)) return rc;
    const unsigned n = input->tile_count;
    using T = value_t<typename Op::in>;
    using R = value_t<typename Op::out>;
    unary_loop<Op>(tile<R>(it), tile<T>(input), n);
    copy_nulls(it, input);
    return deliver(it, n);
}

// The exported next functions: the kernel for the instruction set chosen at load.
template <class Op>
int binary_entry(Iter *it) noexcept {
    return dispatch<binary_next<Op, Isa::baseline>, binary_next<Op, Isa::avx2>>(it);
}
template <class Op>
int unary_entry(Iter *it) noexcept {
    return dispatch<unary_next<Op, Isa::baseline>, unary_next<Op, Isa::avx2>>(it);
}

template <class Op>
int construct_binary(Iter *result, Iter *left, Iter *right, qmo_seq_next_fn next) noexcept {
    if (int rc = expect_types({left, right}, Op::in::code)) return rc;
    unsigned width;
    if constexpr (Op::in::is_char) {
        if (int rc = Op::check_widths(left, right)) return rc;
        width = Op::out_width(left, right);
    } else {
        width = Op::out::size;
    }
    return construct(result, Setup{Op::out::code, width, next, qmo_seq_reset_binary_iterator, left, right});
}

template <class Op>
int construct_unary(Iter *result, Iter *input, qmo_seq_next_fn next) noexcept {
    if (int rc = expect_type(input, Op::in::code)) return rc;
    return construct(result, Setup{Op::out::code, Op::out::size, next, qmo_seq_reset_unary_iterator, input});
}

}  // namespace qmo

// Stamp the exported constructor and next function of one operator member.
// `op` names both the C family and the op struct template in qmo::ops.
#define QMO_STAMP_BINARY(op, t, ctype, code)                                                     \
    QMO_EXPORT int qmo_seq_##op##_##t##_next(qmo_seq_iterator_t *it) {                           \
        return qmo::binary_entry<qmo::ops::op<qmo::Elem<code>>>(it);                             \
    }                                                                                            \
    QMO_EXPORT int qmo_seq_##op##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *left,      \
                                      qmo_seq_iterator_t *right) {                               \
        return qmo::construct_binary<qmo::ops::op<qmo::Elem<code>>>(result, left, right,         \
                                                                    qmo_seq_##op##_##t##_next);  \
    }

#define QMO_STAMP_UNARY(op, t, ctype, code)                                                      \
    QMO_EXPORT int qmo_seq_##op##_##t##_next(qmo_seq_iterator_t *it) {                           \
        return qmo::unary_entry<qmo::ops::op<qmo::Elem<code>>>(it);                              \
    }                                                                                            \
    QMO_EXPORT int qmo_seq_##op##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input) {   \
        return qmo::construct_unary<qmo::ops::op<qmo::Elem<code>>>(result, input,                \
                                                                   qmo_seq_##op##_##t##_next);   \
    }
