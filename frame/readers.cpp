// Element readers: how a consumer drains a sequence one element or one
// array at a time, through the record's read cursor.
#include "frame/readers.hpp"

#include <algorithm>

namespace qmo {
namespace {

template <class E>
int read_one(Iter *it, value_t<E> *out) {
    if (int rc = check_readable(it, E::code)) return rc;
    unsigned k;
    if (it->cursor >= it->tile_count) {
        if (int rc = it->next(it)) return rc;
        // A next that returns 0 never delivers an empty tile to a reader.
        k = 0;
        it->cursor = 1;
    } else {
        k = it->cursor++;
    }
    const unsigned width = elem_width<E>(it);
    std::memcpy(out, tile<char>(it) + size_t{k} * width, width);
    return is_null(it, k) ? QMO_SEQ_NULL_VALUE : QMO_SEQ_OK;
}

template <class E>
int read_many(Iter *it, value_t<E> *array, uint64_t *count) {
    if (int rc = check_readable(it, E::code)) return rc;
    const uint64_t room = *count;
    if (room == 0) return QMO_SEQ_OK;
    const unsigned width = elem_width<E>(it);
    char *out = reinterpret_cast<char *>(array);
    uint64_t stored = 0;
    for (;;) {
        if (it->cursor >= it->tile_count) {
            // The cursor stays put on failure, so the old tile is not read twice.
            if (const int rc = it->next(it)) {
                *count = stored;
                return rc == QMO_SEQ_END && stored > 0 ? QMO_SEQ_OK : rc;
            }
            it->cursor = 0;
        }
        const char *in = tile<char>(it);
        unsigned k = it->cursor;
        const unsigned end = it->tile_count;
        if (!has_nulls(it)) {
            const uint64_t take = std::min<uint64_t>(room - stored, end - k);
            prefetch_ahead<true>(out + stored * width, take * width, (room - stored) * width);
            std::memcpy(out + stored * width, in + size_t{k} * width, take * width);
            stored += take;
            k += static_cast<unsigned>(take);
        } else {
            for (; k < end && stored < room; ++k) {
                if (is_null(it, k)) continue;
                std::memcpy(out + stored * width, in + size_t{k} * width, width);
                ++stored;
            }
        }
        it->cursor = static_cast<uint16_t>(k);
        if (stored == room) {
            *count = stored;
            return QMO_SEQ_OK;
        }
    }
}

// Like read_many, but null elements keep their slots and bits.
template <class E>
int read_many_nullable(Iter *it, value_t<E> *array, uint64_t *count, uint64_t *nulls) {
    if (int rc = check_readable(it, E::code)) return rc;
    return read_nullable(it, array, elem_width<E>(it), count, nulls);
}

}  // namespace

int read_nullable(Iter *it, void *values, unsigned width, uint64_t *count, uint64_t *nulls) {
    const uint64_t room = *count;
    qmo_memnull(nulls, (room + 63) / 64 * sizeof(uint64_t));
    if (room == 0) return QMO_SEQ_OK;
    char *out = static_cast<char *>(values);
    uint64_t stored = 0;
    while (stored < room) {
        if (it->cursor >= it->tile_count) {
            if (const int rc = it->next(it)) {
                *count = stored;
                return rc == QMO_SEQ_END && stored > 0 ? QMO_SEQ_OK : rc;
            }
            it->cursor = 0;
        }
        const unsigned k = static_cast<unsigned>(std::min<uint64_t>(it->tile_count - it->cursor, room - stored));
        std::memcpy(out + stored * width, tile<char>(it) + size_t{it->cursor} * width, size_t{k} * width);
        qmo_seq_copy_bitmap(nulls, stored, it->null_bitmap, it->cursor, k);
        stored += k;
        it->cursor = static_cast<uint16_t>(it->cursor + k);
    }
    *count = stored;
    return QMO_SEQ_OK;
}

}  // namespace qmo

#define QMO_STAMP_ELEMENT_READER(family, t, ctype, code)                                  \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *it, ctype *element) {       \
        return qmo::read_one<qmo::Elem<code>>(it, element);                               \
    }
#define QMO_STAMP_BULK_READER(family, t, ctype, code)                                     \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *it, ctype *array, uint64_t *count) { \
        return qmo::read_many<qmo::Elem<code>>(it, array, count);                         \
    }
#define QMO_STAMP_NULLABLE_READER(family, t, ctype, code)                                 \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *it, ctype *array,           \
                                          uint64_t *count, uint64_t *nulls) {             \
        return qmo::read_many_nullable<qmo::Elem<code>>(it, array, count, nulls);         \
    }
QMO_SEQ_READER_FAMILIES(QMO_STAMP_FAMILY)
