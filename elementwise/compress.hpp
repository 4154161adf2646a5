// Compaction of the picked elements of a tile, vectorised where the CPU
// allows: the inner step of filters.
#pragma once

#include "frame/bits.hpp"

namespace qmo {

// Appends src[i] for every set bit i of pick to dst and returns how many
// were appended. Elements are 4 or 8 bytes. Reads up to 8 elements past the
// highest picked one and writes up to 8 past the new end, so both must lie
// inside a record's values area. Null when the CPU has no vector compaction.
using CompressFn = unsigned (*)(void *dst, const void *src, Mask pick);
extern const CompressFn compress_4byte;
extern const CompressFn compress_8byte;

}  // namespace qmo
