// Constant sources: an endless sequence of one value, meant to be paired
// with a finite operand whose end ends the pair.
#include "frame/construct.hpp"

#include <algorithm>

namespace qmo {
namespace {

// The value lives in state word 1 (a char constant's bytes from word 1 on).
template <class E>
int const_next(Iter *it) {
    if (it->tile_count == 0) {
        const unsigned width = elem_width<E>(it);
        char *out = tile<char>(it);
        if constexpr (E::is_char) {
            for (unsigned i = 0; i < kTile; ++i) std::memcpy(out + i * width, it->state, width);
        } else {
            value_t<E> v;
            std::memcpy(&v, it->state, sizeof v);
            std::fill_n(tile<value_t<E>>(it), kTile, v);
        }
        it->tile_count = kTile;
    }
    it->pos += kTile;
    clear_nulls(it);
    return QMO_SEQ_OK;
}

template <class E>
int make_const(Iter *result, const void *value, unsigned width, qmo_seq_next_fn next) {
    fill(result, Setup{E::code, width, next, qmo_seq_reset_iterator});
    std::memcpy(result->state, value, width);
    return QMO_SEQ_OK;
}

}  // namespace
}  // namespace qmo

#define QMO_STAMP_CONST(family, t, ctype, code)                                             \
    QMO_EXPORT int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it) {                  \
        return qmo::const_next<qmo::Elem<code>>(it);                                        \
    }                                                                                       \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, ctype value) {        \
        return qmo::make_const<qmo::Elem<code>>(result, &value, sizeof value,               \
                                                qmo_seq_##family##_##t##_next);             \
    }
QMO_SEQ_CONST_FAMILIES(QMO_STAMP_FAMILY)

QMO_EXPORT int qmo_seq_const_char_next(qmo_seq_iterator_t *it) { return qmo::const_next<qmo::CharElem>(it); }

QMO_EXPORT int qmo_seq_const_char(qmo_seq_iterator_t *result, const char *bytes, size_t width) {
    if (width == 0 || width > QMO_SEQ_MAX_CHAR_WIDTH) return QMO_SEQ_INVALID_ARGUMENT;
    return qmo::make_const<qmo::CharElem>(result, bytes, static_cast<unsigned>(width),
                                          qmo_seq_const_char_next);
}
