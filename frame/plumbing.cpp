// Operators that shape a stream without computing on it: tee, concat, limit,
// NaN skipping and the meta iterator. Those that gather across input tiles
// deliver a partial tile with 0 when the input ends and 11 on the next call.
#include "frame/construct.hpp"

#include <algorithm>
#include <cmath>

namespace qmo {
namespace {

// Appends k elements of `from`'s tile, starting at `offset`, after the first
// `at` elements of `to`'s tile, with their null bits.
void append(Iter *to, unsigned at, const Iter *from, unsigned offset, unsigned k) {
    const size_t width = to->elem_size;
    std::memcpy(tile<char>(to) + at * width, tile<char>(from) + offset * width, k * width);
    qmo_seq_copy_bitmap(to->null_bitmap, at, from->null_bitmap, offset, k);
}

// End of input while gathering: what was gathered goes out with 0.
int deliver_at_end(Iter *it, unsigned gathered, int status) {
    return gathered > 0 && status == QMO_SEQ_END ? deliver(it, gathered) : status;
}

// State words of the operators below, numbered from 0.
constexpr unsigned kConcatOffset = 0;     // read offset in the second stream's tile
constexpr unsigned kConcatFirst = 1;      // 1 while the first stream is read
constexpr unsigned kGatherOffset = 3;     // limit, skip_nan: offset in the input tile
static_assert(cleared_by_agg_reset(kGatherOffset), "their reset clears it");
constexpr unsigned kMetaObject = 0;
constexpr unsigned kMetaPhase = 1;

// ---- concat ---------------------------------------------------------------

// The second stream's part of a concat tile, after `gathered` elements.
int concat_from_second(Iter *it, unsigned gathered) {
    Iter *second = it->operand2;
    uint64_t &offset = it->state[kConcatOffset];
    if (offset < second->tile_count) {
        const unsigned left = second->tile_count - static_cast<unsigned>(offset);
        append(it, gathered, second, static_cast<unsigned>(offset), left);
        gathered += left;
        offset = second->tile_count;
    }
    if (int rc = second->next(second)) return gathered > 0 ? deliver(it, gathered) : rc;
    const unsigned take = std::min<unsigned>(second->tile_count, kTile - gathered);
    append(it, gathered, second, 0, take);
    offset = take;
    return deliver(it, gathered + take);
}

int concat_next(Iter *it) {
    if (!it->state[kConcatFirst]) {
        clear_nulls(it);
        return concat_from_second(it, 0);
    }
    Iter *first = it->operand1;
    const int rc = first->next(first);
    if (rc && rc != QMO_SEQ_END) return rc;
    // A short tile is the first stream's last by design.
    const unsigned k = rc ? 0 : first->tile_count;
    if (k == kTile) {
        std::memcpy(tile<char>(it), tile<char>(first), size_t{k} * it->elem_size);
        copy_nulls(it, first);
        return deliver(it, k);
    }
    it->state[kConcatFirst] = 0;
    clear_nulls(it);
    append(it, 0, first, 0, k);
    return concat_from_second(it, k);
}

// ---- limit ----------------------------------------------------------------

int limit_next(Iter *it) {
    Iter *in = it->operand1;
    const uint64_t from = it->first_pos, till = it->last_pos;
    uint64_t &offset = it->state[kGatherOffset];
    clear_nulls(it);
    if (it->pos < from) {
        // Skip whole tiles up to the one holding `from`.
        do {
            if (int rc = in->next(in)) return rc;
            it->pos += in->tile_count;
        } while (it->pos <= from);
        offset = in->tile_count - (it->pos - from);
        it->pos = from;
    }
    if (it->pos > till) return QMO_SEQ_END;
    unsigned gathered = 0;
    for (;;) {
        if (offset >= in->tile_count) {
            if (int rc = in->next(in)) {
                if (gathered > 0 && rc == QMO_SEQ_END) break;
                return rc;
            }
            offset = 0;
        }
        // till - pos + 1 overflows for an unbounded till; cap before adding.
        const uint64_t wanted = std::min<uint64_t>(till - it->pos, kTile - 1) + 1;
        const unsigned k = static_cast<unsigned>(
            std::min<uint64_t>({wanted, kTile - gathered, in->tile_count - offset}));
        append(it, gathered, in, static_cast<unsigned>(offset), k);
        gathered += k;
        offset += k;
        it->pos += k;
        if (it->pos > till || gathered == kTile) break;
    }
    it->tile_count = static_cast<uint16_t>(gathered);
    return gathered > 0 ? QMO_SEQ_OK : QMO_SEQ_END;
}

// ---- skip_nan -------------------------------------------------------------

template <class T>
int skip_nan_next(Iter *it) {
    Iter *in = it->operand1;
    uint64_t &offset = it->state[kGatherOffset];
    T *out = tile<T>(it);
    unsigned kept = 0;
    clear_nulls(it);
    while (kept < kTile) {
        if (offset >= in->tile_count) {
            if (int rc = in->next(in)) return deliver_at_end(it, kept, rc);
            offset = 0;
            continue;  // an empty tile is skipped
        }
        const T *x = tile<T>(in);
        const unsigned end = std::min<unsigned>(in->tile_count, static_cast<unsigned>(offset) + kTile - kept);
        // Branch-free compaction: every element is written, only kept ones advance.
        for (unsigned i = static_cast<unsigned>(offset); i < end; ++i) {
            out[kept] = x[i];
            kept += static_cast<unsigned>(!is_null(in, i)) & static_cast<unsigned>(!std::isnan(x[i]));
        }
        offset = end;
    }
    it->pos += kept;
    it->tile_count = static_cast<uint16_t>(kept);
    return QMO_SEQ_OK;
}

// ---- meta iterator ----------------------------------------------------------

int meta_next(Iter *it) {
    auto *meta = reinterpret_cast<qmo_seq_meta_t *>(static_cast<uintptr_t>(it->state[kMetaObject]));
    uint64_t &phase = it->state[kMetaPhase];
    Iter *inner = &meta->inner;
    int status = QMO_SEQ_OK;
    if (phase == 2) return QMO_SEQ_END;
    if (phase == 0) {
        if (int rc = meta->start(meta)) return rc;
        phase = 1;
        inner->cursor = 0;
        status = inner->next(inner);
        clear_nulls(it);
    } else if (inner->cursor >= inner->tile_count) {
        inner->cursor = 0;
        status = inner->next(inner);
        clear_nulls(it);
    }
    unsigned gathered = 0;
    for (;;) {
        while (status == QMO_SEQ_END) {
            const int rc = meta->advance(meta);
            if (rc == QMO_SEQ_END) {
                phase = 2;
                return gathered > 0 ? deliver(it, gathered) : QMO_SEQ_END;
            }
            if (rc) return rc;
            inner->cursor = 0;
            status = inner->next(inner);
        }
        if (status) return status;
        const unsigned k = std::min<unsigned>(inner->tile_count - inner->cursor, kTile - gathered);
        append(it, gathered, inner, inner->cursor, k);
        inner->cursor = static_cast<uint16_t>(inner->cursor + k);
        gathered += k;
        if (gathered == kTile) return deliver(it, gathered);  // the rest waits in the inner tile
        inner->cursor = 0;
        status = inner->next(inner);
    }
}

}  // namespace
}  // namespace qmo

using qmo::Iter;

// ---- tee ----------------------------------------------------------------------

QMO_EXPORT int qmo_seq_tee_next(qmo_seq_iterator_t *it) {
    Iter *twin = it->operand2;
    const Iter *from = twin;
    if (twin->pos <= it->pos) {  // this reader leads: take a fresh tile
        Iter *source = it->operand1;
        if (int rc = source->next(source)) return rc;
        from = source;
    }
    std::memcpy(qmo::tile<char>(it), qmo::tile<char>(from), size_t{from->tile_count} * it->elem_size);
    qmo::copy_nulls(it, from);
    it->tile_count = from->tile_count;
    it->pos = from->pos;
    return QMO_SEQ_OK;
}

QMO_EXPORT int qmo_seq_tee(qmo_seq_iterator_t *a, qmo_seq_iterator_t *b, qmo_seq_iterator_t *source) {
    const qmo::Setup s{source->elem_type, source->elem_size, qmo_seq_tee_next, qmo_seq_reset_tee_iterator,
                       source};
    if (int rc = qmo::check_unbound(s)) return rc;
    qmo::bind_operands(s);
    qmo::fill(a, s);
    qmo::fill(b, s);
    a->operand2 = b;
    b->operand2 = a;
    return QMO_SEQ_OK;
}

QMO_EXPORT int qmo_seq_reset_tee_iterator(qmo_seq_iterator_t *it) {
    Iter *twin = it->operand2;
    twin->cursor = 0;
    twin->tile_count = 0;
    twin->pos = 0;
    return qmo_seq_reset_unary_iterator(it);
}

// ---- concat -------------------------------------------------------------------

QMO_EXPORT int qmo_seq_concat_next(qmo_seq_iterator_t *it) { return qmo::concat_next(it); }

QMO_EXPORT int qmo_seq_concat(qmo_seq_iterator_t *result, qmo_seq_iterator_t *first,
                              qmo_seq_iterator_t *second) {
    // Equal sizes too: char streams of different widths cannot share a tile.
    if (first->elem_type != second->elem_type || first->elem_size != second->elem_size)
        return QMO_SEQ_TYPE_MISMATCH;
    const int rc = qmo::construct(result, qmo::Setup{first->elem_type, first->elem_size, qmo_seq_concat_next,
                                                     qmo_seq_concat_reset, first, second});
    if (rc == QMO_SEQ_OK) result->state[qmo::kConcatFirst] = 1;
    return rc;
}

QMO_EXPORT int qmo_seq_concat_reset(qmo_seq_iterator_t *it) {
    it->state[qmo::kConcatOffset] = 0;
    it->state[qmo::kConcatFirst] = 1;
    return qmo_seq_reset_binary_iterator(it);
}

// ---- limit --------------------------------------------------------------------

QMO_EXPORT int qmo_seq_limit_next(qmo_seq_iterator_t *it) { return qmo::limit_next(it); }

QMO_EXPORT int qmo_seq_limit(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input, uint64_t from,
                             uint64_t till) {
    const int rc = qmo::construct(result, qmo::Setup{input->elem_type, input->elem_size, qmo_seq_limit_next,
                                                     qmo_seq_reset_unary_agg_iterator, input});
    if (rc) return rc;
    result->first_pos = from;
    result->last_pos = till;
    return QMO_SEQ_OK;
}

// ---- skip_nan -----------------------------------------------------------------

#define QMO_STAMP_UNARY(family, t, ctype, code)                                                   \
    QMO_EXPORT int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it) {                        \
        return qmo::family##_next<ctype>(it);                                                     \
    }                                                                                             \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input) { \
        if (int rc = qmo::expect_type(input, code)) return rc;                                    \
        return qmo::construct(result, qmo::Setup{code, sizeof(ctype), qmo_seq_##family##_##t##_next, \
                                                 qmo_seq_reset_unary_agg_iterator, input});       \
    }
QMO_SEQ_PLUMBING_FAMILIES(QMO_STAMP_FAMILY)

// ---- meta iterator ------------------------------------------------------------

QMO_EXPORT int qmo_seq_meta_iterator_next(qmo_seq_iterator_t *it) { return qmo::meta_next(it); }

QMO_EXPORT int qmo_seq_meta_iterator_reset(qmo_seq_iterator_t *it) {
    it->state[qmo::kMetaPhase] = 0;
    return qmo_seq_reset_iterator(it);
}
