// Array sources: a caller's array (and null bitmap) delivered tile by tile.
// The record's position is the index of the next element to deliver.
#include "frame/construct.hpp"

namespace qmo {
namespace {

// Elements the next tile takes, 0 at the end. last_pos is count - 1, so an
// empty array (all ones, -1 when signed) ends at once.
inline unsigned next_take(const Iter *it) {
    if (static_cast<int64_t>(it->pos + kTile - 1) < static_cast<int64_t>(it->last_pos)) return kTile;
    if (it->last_pos + 1 == it->pos) return 0;
    return static_cast<unsigned>(it->last_pos + 1 - it->pos);
}

template <bool Nullable>
int unget_next(Iter *it) {
    const unsigned k = next_take(it);
    if (k == 0) return QMO_SEQ_END;
    const size_t width = it->elem_size;
    const char *from = static_cast<const char *>(it->buf) + it->pos * width;
    prefetch_ahead<false>(from, k * width, (it->last_pos + 1 - it->pos) * width);
    std::memcpy(tile<char>(it), from, k * width);
    clear_nulls(it);
    if constexpr (Nullable) {
        const auto *nulls = reinterpret_cast<const uint64_t *>(static_cast<uintptr_t>(it->state[0]));
        qmo_seq_copy_bitmap(it->null_bitmap, 0, nulls, it->pos, k);
    }
    return deliver(it, k);
}

int make_unget(Iter *result, int type, size_t width, const void *array, uint64_t count,
               const uint64_t *nulls, qmo_seq_next_fn next) {
    fill(result, Setup{type, static_cast<unsigned>(width), next, qmo_seq_unget_reset});
    result->buf = const_cast<void *>(array);
    result->buf_size = count * width;
    result->last_pos = count - 1;
    result->state[0] = reinterpret_cast<uintptr_t>(nulls);
    return QMO_SEQ_OK;
}

inline bool valid_char_width(size_t width) { return width >= 1 && width <= QMO_SEQ_MAX_CHAR_WIDTH; }

}  // namespace
}  // namespace qmo

QMO_EXPORT int qmo_seq_unget_reset(qmo_seq_iterator_t *it) { return qmo_seq_reset_iterator(it); }

#define QMO_STAMP_UNGET(family, t, ctype, code)                                                      \
    QMO_EXPORT int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it) { return qmo::unget_next<false>(it); } \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, const ctype *array, uint64_t count) { \
        return qmo::make_unget(result, code, sizeof(ctype), array, count, nullptr,                   \
                               qmo_seq_##family##_##t##_next);                                       \
    }
#define QMO_STAMP_UNGET_NULLABLE(family, t, ctype, code)                                             \
    QMO_EXPORT int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it) { return qmo::unget_next<true>(it); } \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, const ctype *array,            \
                                          uint64_t count, const uint64_t *nulls) {                   \
        return qmo::make_unget(result, code, sizeof(ctype), array, count, nulls,                     \
                               qmo_seq_##family##_##t##_next);                                       \
    }
QMO_SEQ_SOURCE_FAMILIES(QMO_STAMP_FAMILY)

QMO_EXPORT int qmo_seq_unget_char_next(qmo_seq_iterator_t *it) { return qmo::unget_next<false>(it); }
QMO_EXPORT int qmo_seq_unget_nullable_char_next(qmo_seq_iterator_t *it) { return qmo::unget_next<true>(it); }

QMO_EXPORT int qmo_seq_unget_char(qmo_seq_iterator_t *result, const char *array, uint64_t count,
                                  size_t width) {
    if (!qmo::valid_char_width(width)) return QMO_SEQ_INVALID_ARGUMENT;
    return qmo::make_unget(result, QMO_SEQ_TYPE_CHAR, width, array, count, nullptr, qmo_seq_unget_char_next);
}

QMO_EXPORT int qmo_seq_unget_nullable_char(qmo_seq_iterator_t *result, const char *array, uint64_t count,
                                           const uint64_t *nulls, size_t width) {
    if (!qmo::valid_char_width(width)) return QMO_SEQ_INVALID_ARGUMENT;
    return qmo::make_unget(result, QMO_SEQ_TYPE_CHAR, width, array, count, nulls,
                           qmo_seq_unget_nullable_char_next);
}
