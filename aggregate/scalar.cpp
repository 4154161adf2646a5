// Scalar aggregates of one operand: sum, prd, min, max, min_max, avg and the
// variance family over the numeric types, the counts, the approximate
// distinct count, and the prepare step of partitioned evaluation.
#include "aggregate/distinct.hpp"
#include "aggregate/families.hpp"
#include "aggregate/fold.hpp"
#include "aggregate/hash_layout.hpp"
#include "frame/numeric.hpp"

#include <cmath>

namespace qmo::agg {


// ---- counts ----------------------------------------------------------------------

// Null bits among the first n of a caller's bitmap (64 per word).
inline uint64_t nulls_in(const uint64_t *bitmap, uint64_t n) {
    uint64_t nulls = 0;
    for (uint64_t w = 0; w < n / 64; ++w) nulls += static_cast<uint64_t>(std::popcount(bitmap[w]));
    if (n % 64) nulls += static_cast<uint64_t>(std::popcount(bitmap[n / 64] & ((uint64_t{1} << (n % 64)) - 1)));
    return nulls;
}

// An array source knows its length without being pulled.
template <bool NotNull>
uint64_t array_length(const Iter *source) {
    const uint64_t n = source->last_pos + 1;
    if constexpr (NotNull) {
        const auto *bitmap = reinterpret_cast<const uint64_t *>(static_cast<uintptr_t>(source->state[0]));
        if (bitmap) return n - nulls_in(bitmap, n);
    }
    return n;
}

// A hash aggregate output builds its table on its first pull (11 only means
// this output has no groups left to deliver).
inline uint64_t hash_groups(Iter *output) {
    const int rc = output->next(output);
    if (rc != QMO_SEQ_OK && rc != QMO_SEQ_END) return 0;
    const hash::Table *table = hash::table_of(output);
    return table ? table->entry_count : 0;
}

template <bool NotNull>
int count_next(Iter *it) {
    if (it->prepared) return hand_out_prepared(it);
    if (it->pos != 0) return QMO_SEQ_END;
    Iter *op = it->operand1;
    uint64_t n = 0;
    if (op->reset == qmo_seq_hash_agg_reset) {
        n = hash_groups(op);
    } else if (op->reset == qmo_seq_unget_reset) {
        n = array_length<NotNull>(op);
    } else {
        // Any status ends the count, errors included: what was counted stands.
        while (op->next(op) == QMO_SEQ_OK) n += NotNull ? live_count(op) : op->tile_count;
    }
    put_result(it, &n, 1);
    return QMO_SEQ_OK;
}

// Neither type-checked nor bound. Counts over array sources and hash
// aggregates are answered from their records and are never prepared or merged.
int make_count(Iter *result, Iter *input, qmo_seq_next_fn next) {
    fill(result, Setup{QMO_SEQ_TYPE_UINT8, 8, next, qmo_seq_reset_unary_iterator, input});
    if (input->reset != qmo_seq_hash_agg_reset && input->reset != qmo_seq_unget_reset) {
        result->prepare = qmo_seq_prepare_aggregate;
        result->merge = qmo_seq_count_merge;
    }
    return QMO_SEQ_OK;
}

// ---- approximate distinct count ---------------------------------------------------

template <class Hash>
inline void sketch_tile(uint8_t *registers, const Iter *op, Hash hash) {
    if (!has_nulls(op)) {
        for (unsigned i = 0; i < op->tile_count; ++i) distinct_add(registers, hash(i));
    } else {
        for_each_live(op->null_bitmap, op->tile_count, [&](unsigned i) { distinct_add(registers, hash(i)); });
    }
}

// Fixed widths get a hash specialised for their size.
inline void sketch_elements(uint8_t *registers, const Iter *op) {
    const char *bytes = tile<char>(op);
    with_width(op->elem_size, [&](auto w) {
        sketch_tile(registers, op, [&](unsigned i) { return murmur_hash3_32(bytes + size_t{i} * w, w, kHashSeed); });
    });
}

inline void sketch_hashes(uint8_t *registers, const Iter *op) {
    const uint32_t *hashes = tile<uint32_t>(op);
    sketch_tile(registers, op, [hashes](unsigned i) { return hashes[i]; });
}

inline void deliver_estimate(Iter *it, const uint8_t *registers) {
    const auto estimate = static_cast<uint32_t>(approximate_distinct_count(registers));
    put_result(it, &estimate, 1);
}

// The registers are kept in state words 1-16 for the merge; cleared first so
// that a partition ending in an error merges as empty.
template <bool Hashed>
int approxdc_next(Iter *it) {
    if (it->prepared) return hand_out_prepared(it);
    if (it->pos != 0) return QMO_SEQ_END;
    if constexpr (!Hashed) std::memset(it->state, 0, kDistinctRegisters);
    Iter *op = it->operand1;
    uint8_t registers[kDistinctRegisters] = {};
    int rc;
    while ((rc = op->next(op)) == QMO_SEQ_OK) {
        if constexpr (Hashed) sketch_hashes(registers, op);
        else sketch_elements(registers, op);
    }
    if (rc != QMO_SEQ_END) return rc;
    if constexpr (!Hashed) std::memcpy(it->state, registers, kDistinctRegisters);
    deliver_estimate(it, registers);
    return QMO_SEQ_OK;
}

}  // namespace qmo::agg

// The one-operand aggregate that is not mergeable (agg_min_max).
#define QMO_STAMP_UNARY(family, t, ctype, tc) QMO_STAMP_AGGREGATE_UNMERGED(family, t, ctype, tc)
QMO_SEQ_SCALAR_FAMILIES(QMO_STAMP_FAMILY)

QMO_EXPORT int qmo_seq_prepare_aggregate(qmo_seq_iterator_t *it) {
    it->next(it);
    it->prepared = 1;
    return QMO_SEQ_OK;
}

QMO_EXPORT int qmo_seq_count_next(qmo_seq_iterator_t *it) { return qmo::agg::count_next<false>(it); }
QMO_EXPORT int qmo_seq_count_not_null_next(qmo_seq_iterator_t *it) { return qmo::agg::count_next<true>(it); }

QMO_EXPORT int qmo_seq_count_merge(qmo_seq_iterator_t *into, qmo_seq_iterator_t *from) {
    into->values.u8[0] += from->values.u8[0];
    return QMO_SEQ_OK;
}

QMO_EXPORT int qmo_seq_agg_count(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input) {
    return qmo::agg::make_count(result, input, qmo_seq_count_next);
}

QMO_EXPORT int qmo_seq_agg_count_not_null(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input) {
    return qmo::agg::make_count(result, input, qmo_seq_count_not_null_next);
}

QMO_EXPORT int qmo_seq_agg_approxdc_next(qmo_seq_iterator_t *it) { return qmo::agg::approxdc_next<false>(it); }
QMO_EXPORT int qmo_seq_agg_approxdc_hash_next(qmo_seq_iterator_t *it) { return qmo::agg::approxdc_next<true>(it); }

QMO_EXPORT int qmo_seq_agg_approxdc_merge(qmo_seq_iterator_t *into, qmo_seq_iterator_t *from) {
    uint8_t mine[qmo::kDistinctRegisters], theirs[qmo::kDistinctRegisters];
    std::memcpy(mine, into->state, sizeof mine);
    std::memcpy(theirs, from->state, sizeof theirs);
    qmo::distinct_merge(mine, theirs);
    std::memcpy(into->state, mine, sizeof mine);
    qmo::agg::deliver_estimate(into, mine);
    return QMO_SEQ_OK;
}

// Any element type; bound like any operand.
QMO_EXPORT int qmo_seq_agg_approxdc(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input) {
    return qmo::agg::construct_aggregate(
        result, qmo::Setup{QMO_SEQ_TYPE_UINT4, 4, qmo_seq_agg_approxdc_next, qmo_seq_reset_unary_iterator, input},
        input->elem_type, qmo_seq_agg_approxdc_merge);
}

QMO_EXPORT int qmo_seq_agg_approxdc_hash(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input) {
    return qmo::agg::construct_aggregate(
        result, qmo::Setup{QMO_SEQ_TYPE_UINT4, 4, qmo_seq_agg_approxdc_hash_next, qmo_seq_reset_unary_iterator, input},
        QMO_SEQ_TYPE_UINT4, nullptr);
}
