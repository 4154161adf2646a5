// Conversion between every ordered pair of numeric element types: an
// element-wise unary operator, so it lives beside the element-wise kernels.
#include "elementwise/kernels.hpp"
#include "frame/numeric.hpp"

namespace qmo {
namespace {

// double -> int32 as the hardware truncates: out of range and NaN give the
// most negative value.
constexpr int32_t double_to_i32(double d) noexcept {
    if (d > -2147483649.0 && d < 2147483648.0) return static_cast<int32_t>(d);
    return INT32_MIN;
}

template <class From, class To>
struct convert {
    using in = From;
    using out = To;
    using T = value_t<From>;
    using R = value_t<To>;
    static R apply(T x) {
        if constexpr (!From::is_float || To::is_float) {
            // Integer widening, narrowing (low bits) and anything to floating.
            return static_cast<R>(x);
        } else if constexpr (sizeof(R) < 4 || (To::is_signed && sizeof(R) == 4)) {
            return static_cast<R>(double_to_i32(x));
        } else if constexpr (To::is_signed || std::is_same_v<To, Elem<QMO_SEQ_TYPE_UINT4>>) {
            return static_cast<R>(double_to_i64(x));
        } else {
            return double_to_u64(x);
        }
    }
};

}  // namespace
}  // namespace qmo

// One ordered pair: `pair` is the parenthesised (from, to, from code).
#define QMO_STAMP_CONVERSION(family, pair, uctype, ucode) QMO_STAMP_CONVERSION_I_(QMO_SEQ_EXPAND pair, ucode)
#define QMO_STAMP_CONVERSION_I_(...) QMO_STAMP_CONVERSION_II_(__VA_ARGS__)
#define QMO_STAMP_CONVERSION_II_(t, u, code, ucode)                                                  \
    QMO_EXPORT int qmo_seq_##t##_to_##u##_next(qmo_seq_iterator_t *it) {                             \
        return qmo::unary_entry<qmo::convert<qmo::Elem<code>, qmo::Elem<ucode>>>(it);               \
    }                                                                                                \
    QMO_EXPORT int qmo_seq_##t##_to_##u(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input) {     \
        return qmo::construct_unary<qmo::convert<qmo::Elem<code>, qmo::Elem<ucode>>>(                \
            result, input, qmo_seq_##t##_to_##u##_next);                                             \
    }                                                                                                \
    QMO_EXPORT int qmo_seq_##u##_from_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input) {   \
        return qmo_seq_##t##_to_##u(result, input);                                                  \
    }
QMO_SEQ_CONVERSION_FAMILIES(QMO_STAMP_FAMILY)
