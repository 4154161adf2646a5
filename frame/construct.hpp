// The constructor protocol every operator follows: type checks (61), then the
// binding check (701), then binding the operands and filling the result.
// Nothing is written before the checks pass.
#pragma once

#include "frame/record.hpp"

#include <initializer_list>

namespace qmo {

// What a constructor writes into its result record besides the zeroed fields.
struct Setup {
    int type;
    unsigned size;
    qmo_seq_next_fn next;
    qmo_seq_reset_fn reset;
    Iter *operand1 = nullptr;
    Iter *operand2 = nullptr;
    Iter *operand3 = nullptr;
};

inline int expect_type(const Iter *operand, int code) noexcept {
    return operand->elem_type == code ? QMO_SEQ_OK : QMO_SEQ_TYPE_MISMATCH;
}

// 61 unless every operand has the given type code; operands are tested in order.
inline int expect_types(std::initializer_list<const Iter *> operands, int code) noexcept {
    for (const Iter *o : operands)
        if (int rc = expect_type(o, code)) return rc;
    return QMO_SEQ_OK;
}

// 701 when checks are on and any of the setup's operands is bound.
int check_unbound(const Setup &s) noexcept;
void bind_operands(const Setup &s) noexcept;
// Writes the result: type, size, functions, operands, cleared counters and state.
void fill(Iter *result, const Setup &s) noexcept;

// Binding check, bind, fill: the tail of every ordinary constructor.
inline int construct(Iter *result, const Setup &s) noexcept {
    if (int rc = check_unbound(s)) return rc;
    bind_operands(s);
    fill(result, s);
    return QMO_SEQ_OK;
}

}  // namespace qmo
