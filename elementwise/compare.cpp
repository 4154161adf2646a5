// Comparison (eq ne lt gt le ge, numeric and char, result uint1) and boolean
// logic on uint1 (and or xor not).
#include "elementwise/kernels.hpp"

#if defined(__SSE2__)
#include <emmintrin.h>
#define QMO_VECTOR_RELATION_(pd, ps)                                \
    static __m128d holds(__m128d a, __m128d b) { return pd(a, b); } \
    static __m128 holds(__m128 a, __m128 b) { return ps(a, b); }
#else
#define QMO_VECTOR_RELATION_(pd, ps)
#endif

namespace qmo::ops {

// A relation is written once; char comparison applies it to the sign of
// qmo_memcmp, since "a rel b" for bytes is "memcmp(a, b) rel 0". The vector
// forms give all-ones lanes where the relation holds (NaN as the scalar form).
#define QMO_RELATION_(name, op, pd, ps)                                                     \
    struct name {                                                                           \
        template <class T>                                                                  \
        static bool holds(T a, T b) {                                                       \
            return a op b;                                                                  \
        }                                                                                   \
        QMO_VECTOR_RELATION_(pd, ps)                                                        \
    };
QMO_RELATION_(rel_eq, ==, _mm_cmpeq_pd, _mm_cmpeq_ps)
QMO_RELATION_(rel_ne, !=, _mm_cmpneq_pd, _mm_cmpneq_ps)
QMO_RELATION_(rel_lt, <, _mm_cmplt_pd, _mm_cmplt_ps)
QMO_RELATION_(rel_gt, >, _mm_cmpgt_pd, _mm_cmpgt_ps)
QMO_RELATION_(rel_le, <=, _mm_cmple_pd, _mm_cmple_ps)
QMO_RELATION_(rel_ge, >=, _mm_cmpge_pd, _mm_cmpge_ps)
#undef QMO_RELATION_
#undef QMO_VECTOR_RELATION_

#if defined(__SSE2__)
// 16 float or double comparisons as 16 bytes of 0 or 1. Lanes are all ones or
// zero, so signed saturating packs halve them without changing their value.
template <class Rel>
inline __m128i compare16(const float *a, const float *b) {
    __m128i m[4];
    for (unsigned k = 0; k < 4; ++k) m[k] = _mm_castps_si128(Rel::holds(_mm_loadu_ps(a + 4 * k), _mm_loadu_ps(b + 4 * k)));
    return _mm_packs_epi16(_mm_packs_epi32(m[0], m[1]), _mm_packs_epi32(m[2], m[3]));
}
template <class Rel>
inline __m128i compare16(const double *a, const double *b) {
    __m128i m[8];
    for (unsigned k = 0; k < 8; ++k) m[k] = _mm_castpd_si128(Rel::holds(_mm_loadu_pd(a + 2 * k), _mm_loadu_pd(b + 2 * k)));
    // Each double is two equal 32-bit halves: after two packs it is two equal bytes, one 16-bit lane.
    const __m128i low = _mm_packs_epi16(_mm_packs_epi32(m[0], m[1]), _mm_packs_epi32(m[2], m[3]));
    const __m128i high = _mm_packs_epi16(_mm_packs_epi32(m[4], m[5]), _mm_packs_epi32(m[6], m[7]));
    return _mm_packs_epi16(low, high);
}

#endif

// IEEE for float and double: every relation but ne is false with a NaN.
template <class E, class Rel>
struct compare {
    using in = E;
    using out = Bool;
    static uint8_t apply(value_t<E> a, value_t<E> b) { return Rel::holds(a, b); }
};

#if defined(__SSE2__)
// The baseline compiler leaves a floating comparison narrowed to bytes
// scalar. Operands and result are record tiles of 128 slots, so whole
// 16-element steps stay inside them (slots past n are unspecified anyway).
template <class E, class Rel>
    requires E::is_float
struct compare<E, Rel> {
    using in = E;
    using out = Bool;
    using T = value_t<E>;
    static uint8_t apply(T a, T b) { return Rel::holds(a, b); }
    static void apply_sse2(uint8_t *out, const T *a, const T *b, unsigned n) {
        const __m128i one = _mm_set1_epi8(1);
        for (unsigned i = 0; i < n; i += 16)
            _mm_storeu_si128(reinterpret_cast<__m128i *>(out + i), _mm_and_si128(compare16<Rel>(a + i, b + i), one));
    }
};
#endif

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

QMO_SEQ_COMPARISON_FAMILIES(QMO_STAMP_FAMILY)

// The logic members have no type suffix and their own next names.
#define QMO_STAMP_LOGIC_(op)                                                                 \
    QMO_EXPORT int qmo_seq_##op##_qmo_seq_bool_next(qmo_seq_iterator_t *it) {                \
        return qmo::binary_entry<qmo::ops::logic_##op>(it);                                 \
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
    return qmo::unary_entry<qmo::ops::logic_not>(it);
}
QMO_EXPORT int qmo_seq_not(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input) {
    return qmo::construct_unary<qmo::ops::logic_not>(result, input, qmo_seq_not_qmo_seq_bool_next);
}
