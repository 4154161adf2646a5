// Series analytics: differences, trends, sign changes, turning points,
// division by the Euclidean norm and equal-width histograms. Each operator
// keeps its parameters and running state in a small struct that a pull loads
// from the record's state words and stores back when it delivers, so the
// loops work on locals.
#include "frame/construct.hpp"
#include "frame/numeric.hpp"

#include <algorithm>
#include <cmath>
#include <type_traits>

namespace qmo {
namespace {

template <class S>
S load(const Iter *it) noexcept {
    static_assert(std::is_trivially_copyable_v<S> && sizeof(S) <= sizeof it->state);
    S s;
    std::memcpy(&s, it->state, sizeof s);
    return s;
}

template <class S>
void store(Iter *it, const S &s) noexcept {
    std::memcpy(it->state, &s, sizeof s);
}

// A null among the elements of the tile (bits past its count do not matter).
inline bool nulls_in_tile(const Iter *in) noexcept {
    const unsigned n = in->tile_count;
    return ((in->null_bitmap[0] & tile_mask(n, 0)) | (in->null_bitmap[1] & tile_mask(n, 1))) != 0;
}

// Ordinal of element 0 of the operand's current tile.
inline uint64_t tile_base(const Iter *in) noexcept { return in->pos - in->tile_count; }

// 1, -1 or 0 by the side of zero; NaN and -0.0 count as 0.
template <class T>
inline int sign_of(T x) noexcept {
    if constexpr (std::is_unsigned_v<T>) return x != 0;
    else return (x > 0) - (x < 0);
}

// 1 when b is above a, -1 below, 0 otherwise (equal or unordered).
template <class T>
inline int step_of(T a, T b) noexcept {
    return (b > a) - (a > b);
}

// ---- diff and trend ---------------------------------------------------------------

// Both pull one operand tile, refuse nulls and, on the first tile since
// construction or reset, take its first element as the previous one.
template <class T>
int pull_dense(Iter *it, Iter *in, T &previous) noexcept {
    if (int rc = in->next(in)) return rc;
    if (nulls_in_tile(in)) return QMO_SEQ_NULL_VALUE;
    if (it->pos == 0) previous = tile<T>(in)[0];
    return QMO_SEQ_OK;
}

template <class E>
struct DiffState {
    value_t<E> previous;
};

template <class E>
int diff_next(Iter *it) noexcept {
    using T = value_t<E>;
    Iter *in = it->operand1;
    auto s = load<DiffState<E>>(it);
    if (int rc = pull_dense(it, in, s.previous)) return rc;
    const unsigned n = in->tile_count;
    if (n > 0) {
        const T *__restrict x = tile<T>(in);
        T *__restrict out = tile<T>(it);
        out[0] = wrap_sub(x[0], s.previous);
        for (unsigned i = 1; i < n; ++i) out[i] = wrap_sub(x[i], x[i - 1]);
        s.previous = x[n - 1];
    }
    store(it, s);
    clear_nulls(it);
    return deliver(it, n);
}

template <class E>
struct TrendState {
    value_t<E> previous;
    int8_t last;
};

template <class E>
int trend_next(Iter *it) noexcept {
    using T = value_t<E>;
    Iter *in = it->operand1;
    auto s = load<TrendState<E>>(it);
    if (int rc = pull_dense(it, in, s.previous)) return rc;
    if (it->pos == 0) s.last = 0;
    const unsigned n = in->tile_count;
    if (n > 0) {
        const T *__restrict x = tile<T>(in);
        int8_t *__restrict out = tile<int8_t>(it);
        // Steps in a loop that vectorises, then flats take the direction before them.
        out[0] = static_cast<int8_t>(step_of(s.previous, x[0]));
        for (unsigned i = 1; i < n; ++i) out[i] = static_cast<int8_t>(step_of(x[i - 1], x[i]));
        int8_t last = s.last;
        for (unsigned i = 0; i < n; ++i) out[i] = last = out[i] ? out[i] : last;
        s.last = last;
        s.previous = x[n - 1];
    }
    store(it, s);
    clear_nulls(it);
    return deliver(it, n);
}

// ---- cross and extrema ------------------------------------------------------------

// Both gather positions from as many operand tiles as it takes to fill a
// tile. A scan step reads the operand from `cursor`, appends positions to
// out[k..] and stops at the end of the operand tile or with the tile full.
// Returns 0 with the tile to deliver (the end flag set when the operand
// ended), or the status to return.
template <class State, class Scan>
int gather_positions(Iter *it, State &s, Scan scan) noexcept {
    Iter *in = it->operand1;
    unsigned k = 0;
    while (k < kTile) {
        if (s.cursor >= in->tile_count) {
            const int rc = in->next(in);
            if (rc == QMO_SEQ_END && k > 0) {
                s.end = 1;
                break;
            }
            if (rc) return rc;
            if (nulls_in_tile(in)) return QMO_SEQ_NULL_VALUE;
            s.cursor = 0;
        }
        scan(in, k);
    }
    store(it, s);
    clear_nulls(it);
    return deliver(it, k);
}

struct CrossState {
    int32_t kind;  // 1 upward, -1 downward, 0 both
    int32_t last_sign;
    uint32_t zero_run;
    uint32_t end;
    uint64_t cursor;
};

template <class E>
int cross_next(Iter *it) noexcept {
    using T = value_t<E>;
    auto s = load<CrossState>(it);
    if (s.end) return QMO_SEQ_END;
    // Deliberate: the kind filters only the first tile delivered.
    const int32_t only = it->pos == 0 ? s.kind : 0;
    uint64_t *out = tile<uint64_t>(it);
    return gather_positions(it, s, [&](const Iter *in, unsigned &k) {
        const T *x = tile<T>(in);
        const uint64_t base = tile_base(in);
        const unsigned n = in->tile_count;
        auto i = static_cast<unsigned>(s.cursor);
        for (; i < n && k < kTile; ++i) {
            const int sign = sign_of(x[i]);
            if (sign == s.last_sign) continue;
            if (sign == 0) {  // touching zero: the crossing, if any, begins here
                ++s.zero_run;
                continue;
            }
            // Deliberate: a run of zeros that returned to the same sign was
            // never cleared, so it still moves this crossing back.
            if (s.last_sign != 0 && (only == 0 || sign == only)) out[k++] = base + i - s.zero_run;
            s.zero_run = 0;
            s.last_sign = sign;
        }
        s.cursor = i;
    });
}

template <class E>
struct ExtremaState {
    int32_t kind;  // 1 maxima, -1 minima, 0 both
    int32_t direction;
    uint32_t end;
    uint64_t cursor;
    value_t<E> previous;
};

template <class E>
int extrema_next(Iter *it) noexcept {
    using T = value_t<E>;
    auto s = load<ExtremaState<E>>(it);
    if (s.end) return QMO_SEQ_END;
    bool first = it->pos == 0;
    // Deliberate: the kind filters only the first tile delivered.
    const int32_t only = it->pos == 0 ? s.kind : 0;
    uint64_t *out = tile<uint64_t>(it);
    return gather_positions(it, s, [&](const Iter *in, unsigned &k) {
        const T *x = tile<T>(in);
        const uint64_t base = tile_base(in);
        const unsigned n = in->tile_count;
        auto i = static_cast<unsigned>(s.cursor);
        if (first && i < n) {
            first = false;
            s.previous = x[i++];
        }
        for (; i < n && k < kTile; ++i) {
            const int step = step_of(s.previous, x[i]);
            s.previous = x[i];
            if (step == 0 || step == s.direction) continue;
            // A turn: the previous element ends the plateau at the top or bottom.
            if (s.direction != 0 && (only == 0 || s.direction == only)) out[k++] = base + i - 1;
            s.direction = step;
        }
        s.cursor = i;
    });
}

// ---- norm ---------------------------------------------------------------------

struct NormState {
    double norm;
};

// Sum of squares of the elements whose bit is clear in `skip`, left to right
// so that the sum does not depend on how the input is cut into tiles.
template <class T>
double sum_squares(double sum, const T *x, unsigned n, const uint64_t (&skip)[2]) noexcept {
    if (((skip[0] & tile_mask(n, 0)) | (skip[1] & tile_mask(n, 1))) == 0) {
        for (unsigned i = 0; i < n; ++i) {
            const auto d = static_cast<double>(x[i]);
            sum += d * d;
        }
        return sum;
    }
    for (unsigned i = 0; i < n; ++i) {
        const auto d = static_cast<double>(x[i]);
        if (!((skip[i >> 6] >> (i & 63)) & 1)) sum += d * d;
    }
    return sum;
}

template <class E>
int norm_next(Iter *it) noexcept {
    using T = value_t<E>;
    Iter *in = it->operand1;
    auto s = load<NormState>(it);
    if (it->pos == 0) {
        // Deliberate: elements are skipped by this record's bitmap, not the operand's.
        double sum = 0;
        int rc;
        while ((rc = in->next(in)) == 0) sum = sum_squares(sum, tile<T>(in), in->tile_count, it->null_bitmap);
        if (rc != QMO_SEQ_END) return rc;
        s.norm = std::sqrt(sum);
        store(it, s);
        if (int r = in->reset(in)) return r;
    }
    if (int rc = in->next(in)) return rc;
    const unsigned n = in->tile_count;
    const T *__restrict x = tile<T>(in);
    double *__restrict out = tile<double>(it);
    for (unsigned i = 0; i < n; ++i) out[i] = static_cast<double>(x[i]) / s.norm;
    copy_nulls(it, in);
    return deliver(it, n);
}

// ---- histogram ------------------------------------------------------------------

template <class E>
struct HistogramState {
    value_t<E> low, high;
    int64_t bins;
};

// Bin of x in [low, high): floor((x - low) * bins / (high - low)). Integers
// take the difference in their own width, unsigned, so it is exact whatever
// the signs. Up to 4 bytes the quotient is taken in double, where it is
// exact (the product is below 2^39, the quotient below 128) and far cheaper
// than a 64-bit division; 8-byte ranges whose product with bins would not
// fit in 64 bits multiply in 128 bits.
template <class E>
struct Binner {
    using T = value_t<E>;
    T low, high;
    uint64_t bins;
    double dlow, drange, dbins, dlast;  // converted once, not per element

    explicit Binner(const HistogramState<E> &s) noexcept
        : low(s.low), high(s.high), bins(static_cast<uint64_t>(s.bins)), dlow(static_cast<double>(s.low)),
          drange(static_cast<double>(s.high) - dlow), dbins(static_cast<double>(s.bins)),
          dlast(static_cast<double>(s.bins - 1)) {}

    bool inside(T x) const noexcept { return (x >= low) & (x < high); }  // NaN is outside

    template <bool Wide>
    uint32_t operator()(T x) const noexcept {
        if constexpr (E::is_float) {
            const double q = (static_cast<double>(x) - dlow) * dbins / drange;
            // Rounding can land x just below high in bin `bins`; an infinite low gives NaN.
            return static_cast<uint32_t>(static_cast<int32_t>(q < dlast ? q : dlast));
        } else if constexpr (sizeof(T) <= 4) {
            const uint32_t d = static_cast<uint32_t>(x) - static_cast<uint32_t>(low);
            const uint32_t range = static_cast<uint32_t>(high) - static_cast<uint32_t>(low);
            const double q = static_cast<double>(d) * dbins / static_cast<double>(range);
            return static_cast<uint32_t>(static_cast<int32_t>(q));
        } else {
            const uint64_t d = static_cast<uint64_t>(x) - static_cast<uint64_t>(low);
            const uint64_t range = static_cast<uint64_t>(high) - static_cast<uint64_t>(low);
            __extension__ using U128 = unsigned __int128;
            if constexpr (Wide) return static_cast<uint32_t>(U128{d} * bins / range);
            else return static_cast<uint32_t>(d * bins / range);
        }
    }
    // Whether an 8-byte range needs the 128-bit product.
    bool wide() const noexcept {
        if constexpr (E::is_float || sizeof(T) <= 4) return false;
        else return static_cast<uint64_t>(high) - static_cast<uint64_t>(low) > ~uint64_t{0} / bins;
    }
};

// Four interleaved sets of counts: a run of equal bins, common in a series,
// then does not wait on one counter.
using Counts = uint64_t[4][kTile];

// Counts one tile; false when an element lies outside the range.
template <class E, bool Wide>
bool count_tile(const Binner<E> &bin, const Iter *in, Counts &counts) noexcept {
    using T = value_t<E>;
    const T *x = tile<T>(in);
    const unsigned n = in->tile_count;
    if (nulls_in_tile(in)) {
        for (unsigned i = 0; i < n; ++i) {
            if (is_null(in, i)) continue;
            if (!bin.inside(x[i])) return false;
            ++counts[0][bin.template operator()<Wide>(x[i])];
        }
        return true;
    }
    unsigned outside = 0;
    for (unsigned i = 0; i < n; ++i) outside |= !bin.inside(x[i]);
    if (outside) return false;
    uint32_t index[kTile];
    for (unsigned i = 0; i < n; ++i) index[i] = bin.template operator()<Wide>(x[i]);
    for (unsigned i = 0; i < n; ++i) ++counts[i & 3][index[i]];
    return true;
}

template <class E>
int histogram_next(Iter *it) noexcept {
    if (it->pos != 0) return QMO_SEQ_END;
    const auto s = load<HistogramState<E>>(it);
    const Binner<E> bin(s);
    const bool wide = bin.wide();
    Counts counts = {};
    Iter *in = it->operand1;
    int rc;
    while ((rc = in->next(in)) == 0) {
        const bool ok = wide ? count_tile<E, true>(bin, in, counts) : count_tile<E, false>(bin, in, counts);
        if (!ok) return QMO_SEQ_INVALID_ARGUMENT;
    }
    // The counts go out once, whatever ended the input; only its end is not an error.
    uint64_t *out = tile<uint64_t>(it);
    for (unsigned b = 0; b < bin.bins; ++b) out[b] = counts[0][b] + counts[1][b] + counts[2][b] + counts[3][b];
    clear_nulls(it);
    it->tile_count = static_cast<uint16_t>(bin.bins);
    it->pos = bin.bins;
    return rc == QMO_SEQ_END ? QMO_SEQ_OK : rc;
}

// ---- constructors and resets -------------------------------------------------------

template <class E>
int make_series(Iter *result, Iter *input, int type, unsigned size, qmo_seq_next_fn next) noexcept {
    if (int rc = expect_type(input, E::code)) return rc;
    return construct(result, Setup{type, size, next, qmo_seq_reset_unary_iterator, input});
}

template <class E, class State>
int make_positions(Iter *result, Iter *input, qmo_seq_next_fn next, qmo_seq_reset_fn reset,
                   int32_t kind) noexcept {
    if (int rc = expect_type(input, E::code)) return rc;
    using U8 = Elem<QMO_SEQ_TYPE_UINT8>;
    if (int rc = construct(result, Setup{U8::code, U8::size, next, reset, input})) return rc;
    State s{};
    s.kind = kind;
    store(result, s);
    return QMO_SEQ_OK;
}

template <class E>
int make_cross(Iter *result, Iter *input, int32_t kind, qmo_seq_next_fn next) noexcept {
    if (!E::is_signed && !E::is_float && !E::is_datetime) return QMO_SEQ_UNSUPPORTED;
    return make_positions<E, CrossState>(result, input, next, qmo_seq_cross_reset_iterator, kind);
}

template <class E>
int make_histogram(Iter *result, Iter *input, value_t<E> low, value_t<E> high, int64_t bins,
                   qmo_seq_next_fn next) noexcept {
    if (int rc = expect_type(input, E::code)) return rc;
    if (bins < 1 || bins > kTile || !(high > low)) return QMO_SEQ_INVALID_ARGUMENT;
    using U8 = Elem<QMO_SEQ_TYPE_UINT8>;
    if (int rc = construct(result, Setup{U8::code, U8::size, next, qmo_seq_reset_unary_iterator, input}))
        return rc;
    result->last_pos = static_cast<uint64_t>(bins - 1);
    store(result, HistogramState<E>{low, high, bins});
    return QMO_SEQ_OK;
}

// One constructor per family, named for the stamps below.
template <class E>
int make_diff(Iter *result, Iter *input, qmo_seq_next_fn next) noexcept {
    return make_series<E>(result, input, E::code, E::size, next);
}
template <class E>
int make_trend(Iter *result, Iter *input, qmo_seq_next_fn next) noexcept {
    return make_series<E>(result, input, QMO_SEQ_TYPE_INT1, 1, next);
}
template <class E>
int make_norm(Iter *result, Iter *input, qmo_seq_next_fn next) noexcept {
    return make_series<E>(result, input, QMO_SEQ_TYPE_DOUBLE, sizeof(double), next);
}
template <class E>
int make_extrema(Iter *result, Iter *input, int32_t kind, qmo_seq_next_fn next, qmo_seq_reset_fn reset) noexcept {
    return make_positions<E, ExtremaState<E>>(result, input, next, reset, kind);
}

template <class E>
int extrema_reset(Iter *it) noexcept {
    auto s = load<ExtremaState<E>>(it);
    s.cursor = 0;
    s.end = 0;
    s.direction = 0;
    store(it, s);
    return qmo_seq_reset_unary_iterator(it);
}

}  // namespace
}  // namespace qmo

QMO_EXPORT int qmo_seq_cross_reset_iterator(qmo_seq_iterator_t *it) {
    auto s = qmo::load<qmo::CrossState>(it);
    s.last_sign = 0;
    s.zero_run = 0;
    s.end = 0;
    s.cursor = 0;
    qmo::store(it, s);
    return qmo_seq_reset_unary_iterator(it);
}

#define QMO_ANALYTICS_NEXT_(family, t, code)                                 \
    QMO_EXPORT int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it) {   \
        return qmo::family##_next<qmo::Elem<code>>(it);                      \
    }
#define QMO_STAMP_UNARY(family, t, ctype, code)                                                          \
    QMO_ANALYTICS_NEXT_(family, t, code)                                                                 \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input) {        \
        return qmo::make_##family<qmo::Elem<code>>(result, input, qmo_seq_##family##_##t##_next);          \
    }
#define QMO_STAMP_KIND(family, t, ctype, code)                                                           \
    QMO_ANALYTICS_NEXT_(family, t, code)                                                                 \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input, int32_t kind) { \
        return qmo::make_##family<qmo::Elem<code>>(result, input, kind, qmo_seq_##family##_##t##_next);    \
    }
#define QMO_STAMP_KIND_RESET(family, t, ctype, code)                                                     \
    QMO_ANALYTICS_NEXT_(family, t, code)                                                                 \
    QMO_EXPORT int qmo_seq_##family##_##t##_reset_iterator(qmo_seq_iterator_t *it) {                     \
        return qmo::family##_reset<qmo::Elem<code>>(it);                                                 \
    }                                                                                                    \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input, int32_t kind) { \
        return qmo::make_##family<qmo::Elem<code>>(result, input, kind, qmo_seq_##family##_##t##_next,     \
                                                   qmo_seq_##family##_##t##_reset_iterator);             \
    }
#define QMO_STAMP_HISTOGRAM(family, t, ctype, code)                                                      \
    QMO_ANALYTICS_NEXT_(family, t, code)                                                                 \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input, ctype low, \
                                          ctype high, int64_t bins) {                                    \
        return qmo::make_##family<qmo::Elem<code>>(result, input, low, high, bins,                       \
                                                   qmo_seq_##family##_##t##_next);                       \
    }
QMO_SEQ_ANALYTICS_FAMILIES(QMO_STAMP_FAMILY)
