// Arithmetic: add sub mul div mod max min over the numeric types, abs and neg,
// and the two ways of joining char elements (add_char, cat).
#include "elementwise/kernels.hpp"
#include "frame/numeric.hpp"

#include <cmath>

namespace qmo::ops {

// Result and operands share the suffix type.
template <class E>
struct same_type {
    using in = E;
    using out = E;
};

template <class E>
struct add : same_type<E> {
    static auto apply(value_t<E> a, value_t<E> b) { return wrap_add(a, b); }
};

template <class E>
struct sub : same_type<E> {
    static auto apply(value_t<E> a, value_t<E> b) { return wrap_sub(a, b); }
};

template <class E>
struct mul : same_type<E> {
    static auto apply(value_t<E> a, value_t<E> b) { return wrap_mul(a, b); }
};

// Narrow integers are divided after promotion to 32 bits and truncated back,
// so int1 -128 / -1 gives -128. Zero divisors are the caller's to avoid.
template <class E>
struct div : same_type<E> {
    static value_t<E> apply(value_t<E> a, value_t<E> b) { return static_cast<value_t<E>>(a / b); }
};

template <class E>
struct mod : same_type<E> {
    using T = value_t<E>;
    static T apply(T a, T b) {
        if constexpr (E::is_float) {
            return static_cast<T>(std::fmod(static_cast<double>(a), static_cast<double>(b)));
        } else if constexpr (E::is_datetime) {
            // Deliberately through double: remainders above 2^53 are rounded.
            return double_to_u64(std::fmod(static_cast<double>(a), static_cast<double>(b)));
        } else {
            return static_cast<T>(a % b);
        }
    }
};

// Float: b when either is NaN and b when equal, so max(0.0, -0.0) is -0.0.
template <class E>
struct max : same_type<E> {
    static value_t<E> apply(value_t<E> a, value_t<E> b) { return a > b ? a : b; }
};

template <class E>
struct min : same_type<E> {
    static value_t<E> apply(value_t<E> a, value_t<E> b) {
        if constexpr (E::is_float) return a < b ? a : b;
        else return b <= a ? b : a;
    }
};

// Unsigned types and datetime are unchanged; NaN and -0.0 pass unchanged.
template <class E>
struct abs : same_type<E> {
    using T = value_t<E>;
    static T apply(T a) {
        if constexpr (E::is_float) return 0 > a ? -a : a;
        else if constexpr (E::is_signed) return a < 0 ? wrap_neg(a) : a;
        else return a;
    }
};

// Deliberately asymmetric: uint1..uint8 are copied, datetime is negated mod 2^64.
template <class E>
struct neg : same_type<E> {
    using T = value_t<E>;
    static T apply(T a) {
        if constexpr (E::is_float) return -a;
        else if constexpr (E::is_signed || E::is_datetime) return wrap_neg(a);
        else return a;
    }
};

// Bytes before the first NUL, or the whole width.
inline unsigned text_length(const char *s, unsigned width) {
    const void *nul = std::memchr(s, 0, width);
    return nul ? static_cast<unsigned>(static_cast<const char *>(nul) - s) : width;
}

// add of char: left up to its first NUL, then right up to its first NUL,
// NUL-padded to the summed width.
template <>
struct add<CharElem> {
    using in = CharElem;
    using out = CharElem;
    static int check_widths(const Iter *l, const Iter *r) {
        return l->elem_size + r->elem_size > QMO_SEQ_MAX_CHAR_WIDTH ? QMO_SEQ_TYPE_MISMATCH : QMO_SEQ_OK;
    }
    static unsigned out_width(const Iter *l, const Iter *r) { return l->elem_size + r->elem_size; }
    static void apply_bytes(char *out, const char *a, unsigned wa, const char *b, unsigned wb, unsigned wo) {
        const unsigned la = text_length(a, wa);
        const unsigned lb = text_length(b, wb);
        std::memcpy(out, a, la);
        std::memcpy(out + la, b, lb);
        std::memset(out + la + lb, 0, wo - la - lb);
    }
};

// cat: both elements whole, the left padding kept. Any operand type is taken
// as bytes; only the summed width is checked.
struct cat {
    using in = CharElem;
    using out = CharElem;
    static void apply_bytes(char *out, const char *a, unsigned wa, const char *b, unsigned wb, unsigned) {
        std::memcpy(out, a, wa);
        std::memcpy(out + wa, b, wb);
    }
};

}  // namespace qmo::ops

QMO_SEQ_ARITHMETIC_FAMILIES(QMO_STAMP_FAMILY)

QMO_EXPORT int qmo_seq_cat_next(qmo_seq_iterator_t *it) { return qmo::binary_next<qmo::ops::cat>(it); }

QMO_EXPORT int qmo_seq_cat(qmo_seq_iterator_t *result, qmo_seq_iterator_t *left, qmo_seq_iterator_t *right) {
    const unsigned width = left->elem_size + right->elem_size;
    if (width > QMO_SEQ_MAX_CHAR_WIDTH) return QMO_SEQ_TYPE_MISMATCH;
    return qmo::construct(result, qmo::Setup{QMO_SEQ_TYPE_CHAR, width, qmo_seq_cat_next,
                                             qmo_seq_reset_binary_iterator, left, right});
}
