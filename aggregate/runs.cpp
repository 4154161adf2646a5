// Group aggregates over runs of equal keys. One kernel walks the key tiles
// run by run; a member is a small struct that folds a stretch of values into
// its accumulators and emits a run's result.
//
// Member protocol:
//   using out = Elem<...>;                 result element type
//   static constexpr unsigned values;      value operands before the keys (0-2)
//   static constexpr int in;               their required type code (-1: any)
//   struct acc;                            trivially copyable, at most 16 words
//   static void fold(acc &, uint64_t &present, Iter *const *v, unsigned i, unsigned j, bool dense);
//       folds elements i..j-1 of the value tiles (dense: no nulls among them);
//       present counts the values folded, and a fold that finds it 0 starts
//       the accumulators afresh
//   static bool emit(const acc &, uint64_t present, uint64_t length, value_t<out> *r);
//       the run's result into *r, false for a null element
#include "aggregate/distinct.hpp"
#include "aggregate/families.hpp"
#include "aggregate/fold.hpp"
#include "frame/bits.hpp"
#include "frame/numeric.hpp"

#include <cmath>
#include <type_traits>

namespace qmo::runs {

using agg::Acc;

// State word indexes (from 0). The run's counters sit in words 2-4 (indexes
// 1-3), which the aggregate resets clear: a reset closes the open run and
// sends the next pull back to the keys.
inline constexpr unsigned kPresentWord = 1;
inline constexpr unsigned kLengthWord = 2;
inline constexpr unsigned kCursorWord = 3;
inline constexpr unsigned kAccWord = 4;
// A reset closes the open run: its counts and cursor are what the aggregate resets clear.
static_assert(cleared_by_agg_reset(kPresentWord) && cleared_by_agg_reset(kLengthWord) &&
              cleared_by_agg_reset(kCursorWord));
inline constexpr unsigned kAccWords = 16;
inline constexpr unsigned kLastKeyWord = kAccWord + kAccWords;
inline constexpr unsigned kStartsWord = kLastKeyWord + QMO_SEQ_MAX_CHAR_WIDTH / 8;
static_assert(kStartsWord + 2 <= QMO_SEQ_STATE_WORDS);

// ---- where runs start --------------------------------------------------------

// Bit i set where key i differs from the key before it (for i = 0, from
// `last`, the previous tile's last key). Keys compare as integers of their width.
template <class K>
inline Mask starts_of(const K *key, unsigned n, K last) noexcept {
    uint8_t differs[kTile] = {};
    differs[0] = key[0] != last;
    for (unsigned i = 1; i < n; ++i) differs[i] = key[i] != key[i - 1];
    return nonzero_mask(differs);
}

inline Mask starts_of_bytes(const char *key, unsigned n, unsigned width, const char *last) noexcept {
    Mask m = std::memcmp(key, last, width) != 0;
    for (unsigned i = 1; i < n; ++i)
        m |= Mask{std::memcmp(key + i * width, key + (i - 1) * width, width) != 0} << i;
    return m;
}

template <class K>
inline Mask starts_of_width(const Iter *keys, uint64_t *last_key) noexcept {
    const K *key = tile<K>(keys);
    const unsigned n = keys->tile_count;
    K last;
    std::memcpy(&last, last_key, sizeof last);
    std::memcpy(last_key, key + n - 1, sizeof last);
    return starts_of(key, n, last);
}

// The run starts of a non-empty key tile; its last key becomes `last_key`.
inline Mask run_starts(const Iter *keys, uint64_t *last_key) noexcept {
    switch (keys->elem_size) {
    case 1: return starts_of_width<uint8_t>(keys, last_key);
    case 2: return starts_of_width<uint16_t>(keys, last_key);
    case 4: return starts_of_width<uint32_t>(keys, last_key);
    case 8: return starts_of_width<uint64_t>(keys, last_key);
    default: {
        const unsigned width = keys->elem_size;
        const unsigned n = keys->tile_count;
        const char *key = tile<char>(keys);
        const Mask m = starts_of_bytes(key, n, width, reinterpret_cast<const char *>(last_key));
        std::memcpy(last_key, key + (n - 1) * width, width);
        return m;
    }
    }
}

// ---- the kernel ------------------------------------------------------------------

inline Mask range_mask(unsigned i, unsigned j) noexcept { return low_bits(j) & ~low_bits(i); }

// Runs shorter than this on average are walked element by element.
inline constexpr unsigned kShortRun = 8;

// The value operands come first, the keys last.
template <class F>
inline Iter *keys_of(Iter *it) noexcept {
    if constexpr (F::values == 0) return it->operand1;
    else if constexpr (F::values == 1) return it->operand2;
    else return it->operand3;
}

// The open run, its fold and where the walk stands in the key tile.
template <class F>
struct Walk {
    uint64_t present, length, cursor;
    Mask starts;  // where the key tile's runs start
    typename F::acc acc;

    explicit Walk(const Iter *it) {
        present = it->state[kPresentWord];
        length = it->state[kLengthWord];
        cursor = it->state[kCursorWord];
        starts = mask_of(it->state[kStartsWord], it->state[kStartsWord + 1]);
        std::memcpy(&acc, &it->state[kAccWord], sizeof acc);
    }
    void save(Iter *it) const {
        it->state[kPresentWord] = present;
        it->state[kLengthWord] = length;
        it->state[kCursorWord] = cursor;
        it->state[kStartsWord] = static_cast<uint64_t>(starts);
        it->state[kStartsWord + 1] = static_cast<uint64_t>(starts >> 64);
        std::memcpy(&it->state[kAccWord], &acc, sizeof acc);
    }
};

// Pulls the next non-empty key tile and the value tiles that go with it.
// keys_status: the keys' own non-zero status (their end, or an error).
template <class F>
int refill(Iter *it, Iter *keys, Iter *const *v, Walk<F> &w, int &keys_status) {
    for (;;) {
        if ((keys_status = keys->next(keys)) != 0) return keys_status;
        if (mask_of(keys->null_bitmap) & low_bits(keys->tile_count)) return QMO_SEQ_NULL_VALUE;
        for (unsigned o = 0; o < F::values; ++o) {
            if (w.cursor != v[o]->tile_count) return QMO_SEQ_LENGTH_MISMATCH;
            if (int rc = v[o]->next(v[o])) return rc;
            if (keys->tile_count > v[o]->tile_count) return QMO_SEQ_LENGTH_MISMATCH;
        }
        w.cursor = 0;
        if (keys->tile_count == 0) continue;
        w.starts = run_starts(keys, &it->state[kLastKeyWord]);
        return QMO_SEQ_OK;
    }
}

template <class F>
int run_next(Iter *it) {
    using R = value_t<typename F::out>;
    Iter *keys = keys_of<F>(it);
    Iter *const v[] = {it->operand1, it->operand2};
    Walk<F> w(it);
    R *out = tile<R>(it);
    unsigned k = 0;
    clear_nulls(it);

    // Emits a run's result into slot k.
    auto close = [&](const typename F::acc &acc, uint64_t present, uint64_t length) {
        if (!F::emit(acc, present, length, &out[k])) {
            out[k] = R{};
            set_null(it, k);
        }
        ++k;
    };
    auto emit = [&] {
        close(w.acc, w.present, w.length);
        w.present = 0;
    };

    // The output is full: the run starting at key i waits for the next call.
    auto full = [&](unsigned i) {
        w.cursor = i;
        w.save(it);
        return deliver(it, kTile);
    };

    for (;;) {
        if (w.cursor >= keys->tile_count) {
            int keys_status = 0;
            if (int rc = refill(it, keys, v, w, keys_status)) {
                if (rc != keys_status || rc != QMO_SEQ_END || (w.length == 0 && k == 0)) {
                    w.save(it);
                    return rc;
                }
                if (w.length) emit();
                w.length = 0;
                w.save(it);
                return deliver(it, k);
            }
        }
        const unsigned n = keys->tile_count;
        bool dense = true;
        for (unsigned o = 0; o < F::values; ++o) dense &= !(mask_of(v[o]->null_bitmap) & low_bits(n));
        auto i = static_cast<unsigned>(w.cursor);
        // A start at the cursor may already have closed its run (length 0).
        Mask rest = w.starts & ~low_bits(i);
        if (dense && rest == range_mask(i, n)) {
            // Every key starts a run, which closes at the next key: a map.
            if (w.length) {
                emit();
                w.length = 0;
                if (k == kTile) return full(i);
            }
            const unsigned closed = std::min(n - 1 - i, kTile - k);
            for (unsigned l = i; l < i + closed; ++l) {
                typename F::acc acc;
                uint64_t present = 0;
                F::fold(acc, present, v, l, l + 1, true);
                close(acc, present, 1);
            }
            i += closed;
            if (k == kTile) return full(i);
            F::fold(w.acc, w.present, v, i, n, true);
            w.length = 1;
        } else if (dense && bit_count(rest) * kShortRun > n - i) {
            // Many short runs: element by element, as a handwritten loop would.
            // (The run's state in locals, which the compiler keeps in registers.)
            const uint64_t starts[2] = {static_cast<uint64_t>(rest), static_cast<uint64_t>(rest >> 64)};
            typename F::acc acc = w.acc;
            uint64_t present = w.present, length = w.length;
            for (; i < n; ++i) {
                if ((starts[i >> 6] >> (i & 63)) & 1 && length) {
                    close(acc, present, length);
                    present = length = 0;
                    if (k == kTile) break;
                }
                F::fold(acc, present, v, i, i + 1, true);
                ++length;
            }
            w.acc = acc;
            w.present = present;
            w.length = length;
            if (i < n) return full(i);
        } else {
            // Few long runs: each stretch between starts folded at once.
            for (;;) {
                const unsigned j = rest ? lowest_bit(rest) : n;
                if (j > i) {
                    F::fold(w.acc, w.present, v, i, j, dense);
                    w.length += j - i;
                }
                if (j == n) break;
                rest &= rest - 1;
                i = j;
                if (w.length) {
                    emit();
                    w.length = 0;
                    if (k == kTile) return full(i);
                }
            }
        }
        w.cursor = n;
    }
}

// ---- members ---------------------------------------------------------------------

// A member that folds one value operand element by element, told as a
// family of the scalar aggregates' kind (seed, step or terms, finish).
template <class E, class Family>
struct elementwise {
    using out = typename Family::out;
    static constexpr unsigned values = 1;
    static constexpr int in = E::code;
    using acc = typename Family::acc;
    using T = value_t<E>;

    static void fold(acc &s, uint64_t &present, Iter *const *v, unsigned i, unsigned j, bool dense) {
        const T *x = tile<T>(v[0]);
        if (dense) {
            const uint64_t before = present;
            present += j - i;
            if (before == 0) s = agg::seed_of<Family>(x[i++]);
            agg::fold_dense<Family>(s, x + i, j - i);
            return;
        }
        for (Mask live = ~mask_of(v[0]->null_bitmap) & range_mask(i, j); live; live &= live - 1) {
            const T xi = x[lowest_bit(live)];
            if (present++ == 0) s = agg::seed_of<Family>(xi);
            else agg::step_of<Family>(s, xi);
        }
    }
    static bool emit(const acc &s, uint64_t present, uint64_t, value_t<out> *r) {
        if (present == 0) return false;
        Family::finish(s, present, r);
        return true;
    }
};

// The run's first or last value: kept as the extremes are, by a rule.
struct keep_first {
    template <class T>
    static void apply(T &, T) {}
};
struct keep_last {
    template <class T>
    static void apply(T &acc, T x) {
        acc = x;
    }
};

template <class E> struct run_sum : elementwise<E, agg::agg_sum<E>> {};
template <class E> struct run_avg : elementwise<E, agg::agg_avg<E>> {};
template <class E> struct run_min : elementwise<E, agg::agg_min<E>> {};
template <class E> struct run_max : elementwise<E, agg::agg_max<E>> {};
template <class E> struct run_first : elementwise<E, agg::extreme<E, keep_first>> {};
template <class E> struct run_last : elementwise<E, agg::extreme<E, keep_last>> {};
template <class E> struct run_var : elementwise<E, agg::agg_var<E>> {};
template <class E> struct run_var_samp : elementwise<E, agg::agg_var_samp<E>> {};
template <class E> struct run_dev : elementwise<E, agg::agg_dev<E>> {};
template <class E> struct run_dev_samp : elementwise<E, agg::agg_dev_samp<E>> {};

// Weighted mean over the positions where neither weight (operand 1) nor value
// is null. Products in double; integer weights add up as 64-bit integers
// (modulo 2^64, read with the input's signedness). A run's first pair sets
// the sums rather than being added to zeros: 0 + -0 would lose the sign of a
// first product of -0.
template <class E>
struct run_wavg {
    using out = Elem<QMO_SEQ_TYPE_DOUBLE>;
    static constexpr unsigned values = 2;
    static constexpr int in = E::code;
    using T = value_t<E>;
    using W = std::conditional_t<E::is_float, double, uint64_t>;
    struct acc {
        double products;
        W weights;
    };

    static acc first(T w, T x) { return {static_cast<double>(w) * static_cast<double>(x), static_cast<W>(w)}; }
    static void add(acc &s, T w, T x) {
        s.products += static_cast<double>(w) * static_cast<double>(x);
        s.weights += static_cast<W>(w);
    }
    static void fold(acc &s, uint64_t &present, Iter *const *v, unsigned i, unsigned j, bool dense) {
        const T *w = tile<T>(v[0]);
        const T *x = tile<T>(v[1]);
        if (dense) {
            unsigned l = i;
            if (present == 0 && l < j) s = first(w[l], x[l]), ++l;
            for (; l < j; ++l) add(s, w[l], x[l]);
            present += j - i;
            return;
        }
        const Mask nulls = mask_of(v[0]->null_bitmap) | mask_of(v[1]->null_bitmap);
        for (Mask live = ~nulls & range_mask(i, j); live; live &= live - 1) {
            const unsigned l = lowest_bit(live);
            if (present++ == 0) s = first(w[l], x[l]);
            else add(s, w[l], x[l]);
        }
    }
    static bool emit(const acc &s, uint64_t present, uint64_t, double *r) {
        if (present == 0) return false;
        using Signed = std::conditional_t<E::is_signed, int64_t, W>;
        r[0] = s.products / static_cast<double>(static_cast<Signed>(s.weights));
        return true;
    }
};

// The run's length; never null, whatever the values would have been.
struct run_count {
    using out = Elem<QMO_SEQ_TYPE_UINT8>;
    static constexpr unsigned values = 0;
    static constexpr int in = -1;
    struct acc {};
    static void fold(acc &, uint64_t &, Iter *const *, unsigned, unsigned, bool) {}
    static bool emit(const acc &, uint64_t, uint64_t length, uint64_t *r) {
        *r = length;
        return true;
    }
};

// Distinct values per run in the 128 registers of the scalar sketch. Hashed:
// the values are uint4 hash codes already.
template <bool Hashed>
struct run_approxdc {
    using out = Elem<QMO_SEQ_TYPE_UINT4>;
    static constexpr unsigned values = 1;
    static constexpr int in = Hashed ? QMO_SEQ_TYPE_UINT4 : -1;
    struct acc {
        uint8_t registers[kDistinctRegisters];
    };

    template <class Hash>
    static void add_all(acc &s, uint64_t &present, const Iter *op, unsigned i, unsigned j, bool dense, Hash hash) {
        if (dense) {
            for (unsigned l = i; l < j; ++l) distinct_add(s.registers, hash(l));
            present += j - i;
            return;
        }
        for (Mask live = ~mask_of(op->null_bitmap) & range_mask(i, j); live; live &= live - 1, ++present)
            distinct_add(s.registers, hash(lowest_bit(live)));
    }
    // Fixed widths get a hash specialised for their size.
    static void fold(acc &s, uint64_t &present, Iter *const *v, unsigned i, unsigned j, bool dense) {
        if (present == 0) s = acc{};
        const Iter *op = v[0];
        if constexpr (Hashed) {
            const uint32_t *h = tile<uint32_t>(op);
            add_all(s, present, op, i, j, dense, [h](unsigned l) { return h[l]; });
        } else {
            fold_bytes(s, present, op, i, j, dense);
        }
    }
    static void fold_bytes(acc &s, uint64_t &present, const Iter *op, unsigned i, unsigned j, bool dense) {
        const char *bytes = tile<char>(op);
        with_width(op->elem_size, [&](auto w) {
            add_all(s, present, op, i, j, dense,
                    [&](unsigned l) { return murmur_hash3_32(bytes + size_t{l} * w, w, kHashSeed); });
        });
    }
    static bool emit(const acc &s, uint64_t present, uint64_t, uint32_t *r) {
        if (present == 0) return false;
        *r = static_cast<uint32_t>(approximate_distinct_count(s.registers));
        return true;
    }
};

// ---- constructors ----------------------------------------------------------------

// Type checks of the value operands (61), then binding: every operand, or
// the values alone for `values_only`; then the record.
template <class F>
int make(Iter *result, std::initializer_list<Iter *> operands, qmo_seq_next_fn next, bool values_only = false) {
    static_assert(std::is_trivially_copyable_v<typename F::acc> && sizeof(typename F::acc) <= 8 * kAccWords);
    const Iter *const *o = operands.begin();
    if constexpr (F::in >= 0)
        for (unsigned i = 0; i < F::values; ++i)
            if (int rc = expect_type(o[i], F::in)) return rc;
    qmo_seq_reset_fn reset = F::values == 0   ? qmo_seq_reset_unary_agg_iterator
                             : F::values == 1 ? qmo_seq_reset_binary_agg_iterator
                                              : qmo_seq_reset_ternary_agg_iterator;
    Iter *ops[3] = {};
    std::copy(operands.begin(), operands.end(), ops);
    const Setup setup{F::out::code, F::out::size, next, reset, ops[0], ops[1], ops[2]};
    if (values_only) {
        if (int rc = check_unbound(Setup{0, 0, nullptr, nullptr, ops[0]})) return rc;
        ops[0]->bound = 1;
        fill(result, setup);
        return QMO_SEQ_OK;
    }
    return construct(result, setup);
}

// The registry's names of the run folds.
template <class E> using group_agg_sum = run_sum<E>;
template <class E> using group_agg_avg = run_avg<E>;
template <class E> using group_agg_min = run_min<E>;
template <class E> using group_agg_max = run_max<E>;
template <class E> using group_agg_first = run_first<E>;
template <class E> using group_agg_last = run_last<E>;
template <class E> using group_agg_var = run_var<E>;
template <class E> using group_agg_var_samp = run_var_samp<E>;
template <class E> using group_agg_dev = run_dev<E>;
template <class E> using group_agg_dev_samp = run_dev_samp<E>;
template <class E> using group_agg_wavg = run_wavg<E>;

}  // namespace qmo::runs

#define QMO_RUN_MEMBER_(family, tc) qmo::runs::family<qmo::Elem<tc>>

#define QMO_STAMP_GROUP(family, t, ctype, tc)                                                               \
    QMO_EXPORT int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it) {                                  \
        return qmo::runs::run_next<QMO_RUN_MEMBER_(family, tc)>(it);                                        \
    }                                                                                                       \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *values,           \
                                          qmo_seq_iterator_t *keys) {                                       \
        return qmo::runs::make<QMO_RUN_MEMBER_(family, tc)>(result, {values, keys}, qmo_seq_##family##_##t##_next); \
    }
#define QMO_STAMP_WEIGHTED_GROUP(family, t, ctype, tc)                                                      \
    QMO_EXPORT int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it) {                                  \
        return qmo::runs::run_next<QMO_RUN_MEMBER_(family, tc)>(it);                                        \
    }                                                                                                       \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *weights,          \
                                          qmo_seq_iterator_t *values, qmo_seq_iterator_t *keys) {           \
        return qmo::runs::make<QMO_RUN_MEMBER_(family, tc)>(result, {weights, values, keys},                \
                                                            qmo_seq_##family##_##t##_next);                 \
    }
QMO_SEQ_RUN_FAMILIES(QMO_STAMP_FAMILY)

QMO_EXPORT int qmo_seq_group_agg_count_next(qmo_seq_iterator_t *it) {
    return qmo::runs::run_next<qmo::runs::run_count>(it);
}
QMO_EXPORT int qmo_seq_group_agg_count(qmo_seq_iterator_t *result, qmo_seq_iterator_t *keys) {
    return qmo::runs::make<qmo::runs::run_count>(result, {keys}, qmo_seq_group_agg_count_next);
}

QMO_EXPORT int qmo_seq_group_agg_approxdc_next(qmo_seq_iterator_t *it) {
    return qmo::runs::run_next<qmo::runs::run_approxdc<false>>(it);
}
QMO_EXPORT int qmo_seq_group_agg_approxdc(qmo_seq_iterator_t *result, qmo_seq_iterator_t *values,
                                          qmo_seq_iterator_t *keys) {
    return qmo::runs::make<qmo::runs::run_approxdc<false>>(result, {values, keys}, qmo_seq_group_agg_approxdc_next,
                                                           true);
}

QMO_EXPORT int qmo_seq_group_agg_approxdc_hash_next(qmo_seq_iterator_t *it) {
    return qmo::runs::run_next<qmo::runs::run_approxdc<true>>(it);
}
QMO_EXPORT int qmo_seq_group_agg_approxdc_hash(qmo_seq_iterator_t *result, qmo_seq_iterator_t *values,
                                               qmo_seq_iterator_t *keys) {
    return qmo::runs::make<qmo::runs::run_approxdc<true>>(result, {values, keys},
                                                          qmo_seq_group_agg_approxdc_hash_next, true);
}
