// Hash aggregates: the outputs' reset.
#include "aggregate/hash_layout.hpp"

// The table is kept: a reset output replays the same groups in the same order
// without a rebuild.
QMO_EXPORT int qmo_seq_hash_agg_reset(qmo_seq_iterator_t *it) {
    it->state[qmo::hash::kCursorBucket] = 0;
    it->state[qmo::hash::kCursorEntry] = 0;
    return qmo_seq_reset_iterator(it);
}

QMO_EXPORT int qmo_seq_is_hash_aggreate(const qmo_seq_iterator_t *it) {
    return it->reset == qmo_seq_hash_agg_reset;
}
