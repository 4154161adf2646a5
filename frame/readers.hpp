// The bulk reader behind qmo_seq_get_nullable_<t>, for operators that drain
// their own operand: no type or binding test (the operand is bound to them).
#pragma once

#include "frame/record.hpp"

namespace qmo {

// Reads up to *count elements of `width` bytes into values, nulls kept in
// place and flagged in nulls (ceil(*count / 64) words, cleared first);
// *count becomes the number read. 0, or the status that ended the input
// (11 only when nothing was read).
int read_nullable(Iter *it, void *values, unsigned width, uint64_t *count, uint64_t *nulls);

}  // namespace qmo
