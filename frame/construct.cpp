#include "frame/construct.hpp"

namespace qmo {

int check_unbound(const Setup &s) noexcept {
    if (!bindings_checked()) return QMO_SEQ_OK;
    for (const Iter *o : {s.operand1, s.operand2, s.operand3})
        if (o && o->bound) return QMO_SEQ_ALREADY_BOUND;
    return QMO_SEQ_OK;
}

void bind_operands(const Setup &s) noexcept {
    for (Iter *o : {s.operand1, s.operand2, s.operand3})
        if (o) o->bound = 1;
}

void fill(Iter *r, const Setup &s) noexcept {
    r->next = s.next;
    r->reset = s.reset;
    r->prepare = nullptr;
    r->merge = nullptr;
    r->elem_size = static_cast<uint16_t>(s.size);
    r->tile_count = 0;
    r->cursor = 0;
    r->reserved = 0;
    r->prepared = 0;
    r->first_pos = 0;
    r->pos = 0;
    r->last_pos = kUnbounded;
    r->operand1 = s.operand1;
    r->operand2 = s.operand2;
    r->operand3 = s.operand3;
    r->buf = nullptr;
    r->buf_size = 0;
    r->elem_type = static_cast<uint8_t>(s.type);
    r->bound = 0;
    std::memset(r->state, 0, sizeof r->state);
    clear_nulls(r);
}

}  // namespace qmo
