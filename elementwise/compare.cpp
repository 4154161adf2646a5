// Comparison (eq ne lt gt le ge, numeric and char, result uint1) and boolean
// logic on uint1 (and or xor not).
#include "elementwise/kernels.hpp"

namespace qmo::ops {

// A relation is written once; char comparison applies it to the sign of
// qmo_memcmp, since "a rel b" for bytes is "memcmp(a, b) rel 0".
struct rel_eq { template <class T> static bool holds(T a, T b) { return a == b; } };
struct rel_ne { template <class T> static bool holds(T a, T b) { return a != b; } };
struct rel_lt { template <class T> static bool holds(T a, T b) { return a < b; } };
struct rel_gt { template <class T> static bool holds(T a, T b) { return a > b; } };
struct rel_le { template <class T> static bool holds(T a, T b) { return a <= b; } };
struct rel_ge { template <class T> static bool holds(T a, T b) { return a >= b; } };

// IEEE for float and double: every relation but ne is false with a NaN.
template <class E, class Rel>
struct compare {
    using in = E;
    using out = Bool;
    static uint8_t apply(value_t<E> a, value_t<E> b) { return Rel::holds(a, b); }
};

// Char operands must have equal widths; every byte of the width takes part.
template <class Rel>
struct compare<CharElem, Rel> {
    using in = CharElem;
    using out = Bool;
    static int check_widths(const Iter *l, const Iter *r) {
        return l->elem_size == r->elem_size ? QMO_SEQ_OK : QMO_SEQ_TYPE_MISMATCH;
    }
    static unsigned out_width(const Iter *, const Iter *) { return 1; }
    static void apply_bytes(char *out, const char *a, unsigned wa, const char *b, unsigned, unsigned) {
        *out = Rel::holds(qmo_memcmp(a, b, wa), 0);
    }
};

template <class E> using eq = compare<E, rel_eq>;
template <class E> using ne = compare<E, rel_ne>;
template <class E> using lt = compare<E, rel_lt>;
template <class E> using gt = compare<E, rel_gt>;
template <class E> using le = compare<E, rel_le>;
template <class E> using ge = compare<E, rel_ge>;

// Logic works bitwise on whole bytes; operands are expected to hold 0 or 1.
struct logic_and { using in = Bool; using out = Bool; static uint8_t apply(uint8_t a, uint8_t b) { return a & b; } };
struct logic_or { using in = Bool; using out = Bool; static uint8_t apply(uint8_t a, uint8_t b) { return a | b; } };
struct logic_xor { using in = Bool; using out = Bool; static uint8_t apply(uint8_t a, uint8_t b) { return a ^ b; } };
struct logic_not { using in = Bool; using out = Bool; static uint8_t apply(uint8_t a) { return a == 0; } };

}  // namespace qmo::ops

#define QMO_STAMP_COMPARISON_(op) QMO_SEQ_ALL_TYPES(QMO_STAMP_BINARY, op)
QMO_SEQ_COMPARISON_OPS(QMO_STAMP_COMPARISON_)

// The logic members have no type suffix and their own next names.
#define QMO_STAMP_LOGIC_(op)                                                                 \
    QMO_EXPORT int qmo_seq_##op##_qmo_seq_bool_next(qmo_seq_iterator_t *it) {                \
        return qmo::binary_next<qmo::ops::logic_##op>(it);                                   \
    }                                                                                        \
    QMO_EXPORT int qmo_seq_##op(qmo_seq_iterator_t *result, qmo_seq_iterator_t *left,        \
                                qmo_seq_iterator_t *right) {                                 \
        return qmo::construct_binary<qmo::ops::logic_##op>(result, left, right,              \
                                                           qmo_seq_##op##_qmo_seq_bool_next); \
    }
QMO_STAMP_LOGIC_(and)
QMO_STAMP_LOGIC_(or)
QMO_STAMP_LOGIC_(xor)

QMO_EXPORT int qmo_seq_not_qmo_seq_bool_next(qmo_seq_iterator_t *it) {
    return qmo::unary_next<qmo::ops::logic_not>(it);
}
QMO_EXPORT int qmo_seq_not(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input) {
    return qmo::construct_unary<qmo::ops::logic_not>(result, input, qmo_seq_not_qmo_seq_bool_next);
}
