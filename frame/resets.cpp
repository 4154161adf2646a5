// Resets of stateful operators: clear the operator's own state words, then
// rewind through the core's reset that matches the operand count.
#include "frame/record.hpp"

#include <initializer_list>

namespace {

// State words are numbered from 1 in the operators' descriptions.
void clear_words(qmo::Iter *it, unsigned first, unsigned last) {
    for (unsigned w = first; w <= last; ++w) it->state[w - 1] = 0;
}

}  // namespace

QMO_EXPORT int qmo_seq_reset_unary_agg_iterator(qmo_seq_iterator_t *it) {
    clear_words(it, QMO_SEQ_AGG_RESET_FIRST_WORD, QMO_SEQ_AGG_RESET_LAST_WORD);
    return qmo_seq_reset_unary_iterator(it);
}

QMO_EXPORT int qmo_seq_reset_binary_agg_iterator(qmo_seq_iterator_t *it) {
    clear_words(it, QMO_SEQ_AGG_RESET_FIRST_WORD, QMO_SEQ_AGG_RESET_LAST_WORD);
    return qmo_seq_reset_binary_iterator(it);
}

QMO_EXPORT int qmo_seq_reset_ternary_agg_iterator(qmo_seq_iterator_t *it) {
    clear_words(it, QMO_SEQ_AGG_RESET_FIRST_WORD, QMO_SEQ_AGG_RESET_LAST_WORD);
    int first_error = QMO_SEQ_OK;
    for (qmo::Iter *o : {it->operand1, it->operand2, it->operand3}) {
        if (!o) continue;
        const int rc = o->reset(o);
        if (rc && !first_error) first_error = rc;
    }
    const int rc = qmo_seq_reset_iterator(it);
    return first_error ? first_error : rc;
}

QMO_EXPORT int qmo_seq_reset_union_iterator(qmo_seq_iterator_t *it) {
    clear_words(it, 1, 3);  // word 3 holds two 32-bit halves, both cleared
    return qmo_seq_reset_binary_iterator(it);
}

QMO_EXPORT int qmo_seq_reset_repeat_iterator(qmo_seq_iterator_t *it) {
    clear_words(it, 2, 2);
    return qmo_seq_reset_unary_iterator(it);
}

QMO_EXPORT int qmo_seq_reset_parse_iterator(qmo_seq_iterator_t *it) {
    it->state[0] = it->state[1];  // current text position = start of the text
    return qmo_seq_reset_iterator(it);
}

QMO_EXPORT int qmo_seq_reset_custom_parse_iterator(qmo_seq_iterator_t *it) {
    return qmo_seq_reset_parse_iterator(it);
}
