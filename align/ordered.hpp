// Pulling ascending sequences for the alignment operators: every tile is
// checked as it arrives (703 for a null, 62 below its predecessor), so the
// merges themselves never meet a disordered element.
#pragma once

#include "frame/construct.hpp"

namespace qmo::align {

// a[0..n) ascending and not below prev. Written as <= so that a NaN fails
// wherever it stands; the comparisons fold into one flag so the loop vectorises.
template <class T>
inline bool ascending(const T *a, unsigned n, T prev) noexcept {
    if (n == 0) return true;
    bool ok = prev <= a[0];
    for (unsigned i = 1; i < n; ++i) ok &= a[i - 1] <= a[i];
    return ok;
}

// Pulls an ascending operand whose elements may not fall below `floor`
// (none yet: has_floor false, then the first is only tested against itself).
template <class T>
inline int pull_checked(Iter *src, T floor, bool has_floor) noexcept {
    if (int rc = src->next(src)) return rc;
    const unsigned n = src->tile_count;
    if (n == 0) return QMO_SEQ_OK;
    if (any_null(src, n)) return QMO_SEQ_NULL_VALUE;
    const T *a = tile<T>(src);
    return ascending(a, n, has_floor ? floor : a[0]) ? QMO_SEQ_OK : QMO_SEQ_INVALID_ARGUMENT;
}

// As pull_checked, against the operand's own last element, kept in prev.
template <class T>
inline int pull_ascending(Iter *src, T &prev, bool &has_prev) noexcept {
    if (int rc = pull_checked(src, prev, has_prev)) return rc;
    if (const unsigned n = src->tile_count) prev = tile<T>(src)[n - 1], has_prev = true;
    return QMO_SEQ_OK;
}

}  // namespace qmo::align
