// Filters (values whose condition holds), position lists (filter_pos,
// filter_search, filter_first_pos) and the positional gather map.
#include "elementwise/compress.hpp"
#include "frame/bits.hpp"
#include "frame/construct.hpp"
#include "frame/isa.hpp"

#include <algorithm>

namespace qmo {
namespace {

// State words, numbered from 0.
constexpr unsigned kCondCursor = 0, kValuesCursor = 1;  // filter
constexpr unsigned kBase = 1, kCounter = 2;              // filter_pos, filter_search (cursor in word 0)

// Pulls `in` when its cursor has run out: Ready to go on, Deliver when the
// input ended after something was gathered, Fail with `status` to return.
enum class Refill { Ready, Deliver, Fail };
Refill refill(Iter *in, uint64_t &cursor, unsigned gathered, int &status) {
    if (cursor < in->tile_count) return Refill::Ready;
    status = in->next(in);
    if (status == QMO_SEQ_END && gathered > 0) return Refill::Deliver;
    if (status) return Refill::Fail;
    cursor = 0;
    return Refill::Ready;
}

// ---- filter -------------------------------------------------------------------

// Appends the picked elements among values[v0, v0 + used) after slot k, with
// their null bits; returns the new count. Dense picks take a branch-free
// pass over every element, sparse ones visit only the set bits.
template <class E, bool Nulls>
unsigned gather(Iter *it, unsigned k, const Iter *values, unsigned v0, Mask pick, unsigned used) {
    if (pick == low_bits(used)) {  // everything: one block
        const size_t w = it->elem_size;
        std::memcpy(tile<char>(it) + k * w, tile<char>(values) + v0 * w, used * w);
        if constexpr (Nulls) qmo_seq_copy_bitmap(it->null_bitmap, k, values->null_bitmap, v0, used);
        return k + used;
    }
    if constexpr (!Nulls && !E::is_char && (sizeof(value_t<E>) == 4 || sizeof(value_t<E>) == 8)) {
        const CompressFn compress = sizeof(value_t<E>) == 4 ? compress_4byte : compress_8byte;
        if (compress) return k + compress(tile<value_t<E>>(it) + k, tile<value_t<E>>(values) + v0, pick);
    }
    if (bit_count(pick) * 4 < used) {
        for (; pick; pick &= pick - 1, ++k) {
            const unsigned j = v0 + lowest_bit(pick);
            copy_elem<E>(it, k, values, j);
            if constexpr (Nulls) put_null_bit(it, k, is_null(values, j));
        }
        return k;
    }
    // Every element is written; only kept ones advance k. The last element
    // written is a kept one, so nothing lands beyond the final count.
    for (unsigned base = 0; base < used; base += 64) {
        const auto bits = static_cast<uint64_t>(pick >> base);
        const unsigned end = std::min(used, base + 64);
        for (unsigned j = base; j < end; ++j) {
            copy_elem<E>(it, k, values, v0 + j);
            if constexpr (Nulls) put_null_bit(it, k, is_null(values, v0 + j));
            k += (bits >> (j - base)) & 1;
        }
    }
    return k;
}

template <class E>
int filter_next(Iter *it) {
    Iter *cond = it->operand1, *values = it->operand2;
    uint64_t &cc = it->state[kCondCursor], &vc = it->state[kValuesCursor];
    unsigned k = 0;
    for (;;) {
        int status = QMO_SEQ_OK;
        for (auto [in, cursor] : {std::pair{cond, &cc}, std::pair{values, &vc}}) {
            const Refill r = refill(in, *cursor, k, status);
            if (r == Refill::Deliver) return deliver(it, k);
            if (r == Refill::Fail) return status;
        }
        // Deliberate: every pass clears the bitmap, so null bits gathered in an
        // earlier pass of this output tile are lost.
        clear_nulls(it);
        const auto c0 = static_cast<unsigned>(cc), v0 = static_cast<unsigned>(vc);
        unsigned used = std::min(cond->tile_count - c0, values->tile_count - v0);
        Mask pick = (true_mask(cond) >> c0) & low_bits(used);
        const unsigned room = kTile - k;
        if (used > room && bit_count(pick) >= room) {  // the tile fills: stop after the room-th pick
            used = select_bit(pick, room - 1) + 1;
            pick &= low_bits(used);
        }
        k = has_nulls(values) ? gather<E, true>(it, k, values, v0, pick, used)
                              : gather<E, false>(it, k, values, v0, pick, used);
        cc += used;
        vc += used;
        if (k == kTile) return deliver(it, k);
    }
}

// ---- positions ----------------------------------------------------------------

int filter_pos_next(Iter *it) {
    Iter *cond = it->operand1;
    uint64_t &cursor = it->state[kCondCursor], &counter = it->state[kCounter];
    uint64_t *out = tile<uint64_t>(it);
    unsigned k = 0;
    clear_nulls(it);
    for (;;) {
        int status = QMO_SEQ_OK;
        const Refill r = refill(cond, cursor, k, status);
        if (r == Refill::Deliver) return deliver(it, k);
        if (r == Refill::Fail) return status;
        // Positions count every condition element, true or not.
        const auto s = static_cast<unsigned>(cursor);
        const unsigned end = cond->tile_count;
        for (Mask pick = true_mask(cond) >> s; pick; pick &= pick - 1) {
            const unsigned j = s + lowest_bit(pick);
            out[k++] = counter + (j - s);
            if (k == kTile) {
                cursor = j + 1;
                counter += j + 1 - s;
                return deliver(it, k);
            }
        }
        cursor = end;
        counter += end - s;
    }
}

// ---- first positions ----------------------------------------------------------------

int filter_first_pos_next(Iter *it) {
    if (it->prepared) {  // merged partitions: hand out what they left here
        if (it->pos == 0) return QMO_SEQ_END;
        it->prepared = 0;
        return QMO_SEQ_OK;
    }
    if (it->pos != 0) return QMO_SEQ_END;
    const uint64_t limit = it->last_pos;
    uint64_t p = qmo_seq_get_first_pos(it);
    clear_nulls(it);
    if (limit == 0) {
        it->tile_count = 0;
        it->pos = 0;
        return QMO_SEQ_END;
    }
    Iter *cond = it->operand1;
    uint64_t *out = tile<uint64_t>(it);
    unsigned k = 0;
    while (k < limit) {
        const int rc = cond->next(cond);
        if (rc == QMO_SEQ_END) break;
        if (rc) return rc;
        for (Mask pick = true_mask(cond); pick && k < limit; pick &= pick - 1) out[k++] = p + lowest_bit(pick);
        p += cond->tile_count;
    }
    it->tile_count = static_cast<uint16_t>(k);
    it->pos = k;
    clear_nulls(it);
    return k > 0 ? QMO_SEQ_OK : QMO_SEQ_END;
}

int filter_first_pos_merge(Iter *result, const Iter *other) {
    uint64_t *slot = tile<uint64_t>(result);
    const uint64_t r = result->tile_count, limit = result->last_pos;
    const uint64_t m = other->tile_count;
    if (m == 0) return QMO_SEQ_OK;
    const uint64_t f = tile<uint64_t>(other)[0];
    // First slot not below f. An empty result is not probed.
    uint64_t lo = 0, hi = r;
    while (lo < hi) {
        const uint64_t mid = (lo + hi) / 2;
        if (f > slot[mid]) lo = mid + 1;
        else hi = mid;
    }
    const uint64_t t = lo + m > limit ? limit - lo : m;
    if (t == 0) return QMO_SEQ_OK;
    const uint64_t u = std::min(r - lo, limit - lo - t);
    // The other block goes in whole at lo; the result's tail moves behind it.
    std::memmove(slot + lo + t, slot + lo, u * sizeof(uint64_t));
    std::memcpy(slot + lo, tile<uint64_t>(other), t * sizeof(uint64_t));
    result->tile_count = static_cast<uint16_t>(lo + t + u);
    result->pos = lo + t + u;
    return QMO_SEQ_OK;
}

// ---- map ------------------------------------------------------------------------

template <class E>
int map_next(Iter *it) {
    Iter *positions = it->operand1, *values = it->operand2;
    if (int rc = positions->next(positions)) return rc;
    if (has_nulls(positions)) return QMO_SEQ_NULL_VALUE;
    const unsigned n = positions->tile_count;
    const uint64_t *p = tile<uint64_t>(positions);
    uint64_t order[kTile];
    qmo_seq_sort_uint8(p, order, n, QMO_SEQ_ASCENDING);
    // Visiting positions in ascending order reads the values forward; a
    // position behind the current tile rewinds them.
    for (unsigned k = 0; k < n; ++k) {
        const unsigned slot = static_cast<unsigned>(order[k]);
        const uint64_t want = p[slot];
        for (;;) {
            const uint64_t end = values->pos, start = end - values->tile_count;
            if (want >= start && want < end) {
                copy_elem<E>(it, slot, values, static_cast<unsigned>(want - start));
                break;
            }
            const int rc = want < start ? values->reset(values) : values->next(values);
            if (rc) return rc;
        }
    }
    clear_nulls(it);  // deliberately: mapped nulls arrive as values
    return deliver(it, n);
}

}  // namespace
}  // namespace qmo

using qmo::Iter;

QMO_EXPORT uint64_t qmo_seq_get_first_pos(qmo_seq_iterator_t *it) {
    uint64_t first = it->first_pos;
    for (Iter *o : {it->operand1, it->operand2, it->operand3})
        if (o) first = std::max(first, qmo_seq_get_first_pos(o));
    return first;
}

// ---- filter -------------------------------------------------------------------

QMO_EXPORT int qmo_seq_filter_reset(qmo_seq_iterator_t *it) {
    it->state[qmo::kCondCursor] = 0;
    it->state[qmo::kValuesCursor] = 0;
    it->bound = 0;
    return qmo_seq_reset_binary_iterator(it);
}

#define QMO_STAMP_FILTER(family, t, ctype, code)                                                    \
    QMO_EXPORT int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it) {                          \
        using E = qmo::Elem<code>;                                                                  \
        return qmo::dispatch<qmo::family##_next<E>, qmo::family##_next<E>>(it);                     \
    }                                                                                               \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *cond,     \
                                      qmo_seq_iterator_t *values) {                                 \
        if (int rc = qmo::expect_type(cond, QMO_SEQ_TYPE_UINT1)) return rc;                         \
        if (int rc = qmo::expect_type(values, code)) return rc;                                     \
        return qmo::construct(result, qmo::Setup{code, values->elem_size, qmo_seq_##family##_##t##_next, \
                                                 qmo_seq_##family##_reset, cond, values});          \
    }

// ---- positions ----------------------------------------------------------------

QMO_EXPORT int qmo_seq_filter_pos_next(qmo_seq_iterator_t *it) { return qmo::filter_pos_next(it); }

QMO_EXPORT int qmo_seq_filter_pos(qmo_seq_iterator_t *result, qmo_seq_iterator_t *cond) {
    if (int rc = qmo::expect_type(cond, QMO_SEQ_TYPE_UINT1)) return rc;
    return qmo::construct(result, qmo::Setup{QMO_SEQ_TYPE_UINT8, 8, qmo_seq_filter_pos_next,
                                             qmo_seq_filter_pos_reset, cond});
}

QMO_EXPORT int qmo_seq_filter_search(qmo_seq_iterator_t *result, qmo_seq_iterator_t *cond,
                                     qmo_seq_iterator_t *source) {
    const int rc = qmo_seq_filter_pos(result, cond);
    result->state[qmo::kBase] = result->state[qmo::kCounter] = qmo_seq_get_first_pos(source);
    return rc;
}

QMO_EXPORT int qmo_seq_filter_pos_reset(qmo_seq_iterator_t *it) {
    it->state[qmo::kCondCursor] = 0;
    it->state[qmo::kCounter] = it->state[qmo::kBase];
    return qmo_seq_reset_unary_iterator(it);
}

// ---- first positions ----------------------------------------------------------

QMO_EXPORT int qmo_seq_filter_first_pos_next(qmo_seq_iterator_t *it) { return qmo::filter_first_pos_next(it); }

QMO_EXPORT int qmo_seq_filter_first_pos_merge(qmo_seq_iterator_t *result, qmo_seq_iterator_t *other) {
    return qmo::filter_first_pos_merge(result, other);
}

QMO_EXPORT int qmo_seq_filter_first_pos(qmo_seq_iterator_t *result, qmo_seq_iterator_t *cond, uint64_t n) {
    const qmo::Setup s{QMO_SEQ_TYPE_UINT8, 8, qmo_seq_filter_first_pos_next, qmo_seq_reset_unary_iterator, cond};
    if (int rc = qmo::expect_type(cond, QMO_SEQ_TYPE_UINT1)) return rc;
    if (int rc = qmo::check_unbound(s)) return rc;
    if (n > qmo::kTile) return QMO_SEQ_INVALID_ARGUMENT;
    qmo::fill(result, s);  // the condition is deliberately left unbound
    result->prepare = qmo_seq_prepare_aggregate;
    result->merge = qmo_seq_filter_first_pos_merge;
    result->last_pos = n;
    return QMO_SEQ_OK;
}

// ---- map ------------------------------------------------------------------------

#define QMO_STAMP_GATHER(family, t, ctype, code)                                                    \
    QMO_EXPORT int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it) {                          \
        return qmo::family##_next<qmo::Elem<code>>(it);                                             \
    }                                                                                               \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *values,   \
                                   qmo_seq_iterator_t *positions) {                                 \
        if (int rc = qmo::expect_type(values, code)) return rc;                                     \
        if (int rc = qmo::expect_type(positions, QMO_SEQ_TYPE_UINT8)) return rc;                    \
        return qmo::construct(result, qmo::Setup{code, sizeof(ctype), qmo_seq_##family##_##t##_next, \
                                                 qmo_seq_reset_binary_iterator, positions, values}); \
    }

QMO_SEQ_FILTER_FAMILIES(QMO_STAMP_FAMILY)
