// Hash aggregates: group-by over keys in any order of arrival. Two outputs
// (groups, aggregates) share one table; whichever is pulled first builds it
// from the whole key and value sequences, and both walk it in bucket order.
// One policy per op says how a value folds into a group's slot, how two slots
// merge and what the output element is; the skeletons below do the rest.
// Also: the element-wise hash, the outputs' reset and the release functions.
#include "aggregate/hash_table.hpp"
#include "frame/construct.hpp"

QMO_SEQ_API uint64_t qmo_seq_hash_table_init_size = 1361;
QMO_SEQ_API double qmo_seq_hash_table_load_factor = 1.0;

namespace qmo::hash {

// ---- policies -------------------------------------------------------------------------------
//
//   in, out            the values' element type (kAny: not checked) and the output's
//   fold(e, values, i) fold value i into e; e.count is the count before it
//   combine(e, from)   merge another table's group (from.count > 0) into e
//   result(e)          the output element of a group with a non-zero count
//   nullable           a group without values gives a null element
//   registers          the slot points at 128 distinct-count registers
//   needs_values       the constructor refuses an absent values operand

inline constexpr int kAny = -1;

template <class S>
inline S slot(const Entry &e) {
    S s;
    std::memcpy(&s, &e.value, sizeof s);
    return s;
}
template <class S>
inline void set_slot(Entry &e, S s) {
    e.value = 0;
    std::memcpy(&e.value, &s, sizeof s);
}

struct larger {
    template <class S>
    static void join(S &acc, S v) {
        if (v > acc) acc = v;
    }
};
struct smaller {
    template <class S>
    static void join(S &acc, S v) {
        if (v < acc) acc = v;
    }
};
struct plus {
    template <class S>
    static void join(S &acc, S v) {
        acc = wrap_add(acc, v);
    }
};
struct as_is {
    template <class R, class S>
    static R of(S s, uint64_t) {
        return static_cast<R>(s);
    }
};
struct mean {
    template <class R, class S>
    static R of(S s, uint64_t n) {
        if constexpr (std::is_floating_point_v<S>) return s / static_cast<double>(n);
        else return s / n;
    }
};

// A running value of type S in the slot: the first value is taken, later ones
// joined; merging joins the other slot the same way.
template <class E, class Out, class S, class Join, class Finish = as_is>
struct slot_policy {
    using out = Out;
    static constexpr int in = E::code;
    static constexpr bool nullable = true, registers = false, needs_values = true;
    // A group's slot starts at zero, so a sum of integers need not look at the
    // count: 0 + v is v. (Floats do: -0.0 must stay -0.0.)
    static constexpr bool adds_from_zero = std::is_same_v<Join, plus> && !E::is_float;
    static void join(Entry &e, S v) {
        if (!adds_from_zero && e.count == 0) return set_slot(e, v);
        S acc = slot<S>(e);
        Join::join(acc, v);
        set_slot(e, acc);
    }
    static void fold(Entry &e, const Iter *values, unsigned i) {
        join(e, static_cast<S>(tile<value_t<E>>(values)[i]));
    }
    static void combine(Entry &e, const Entry &from) { join(e, slot<S>(from)); }
    static value_t<Out> result(const Entry &e) { return Finish::template of<value_t<Out>>(slot<S>(e), e.count); }
};

// Sums: 64-bit of the values' signedness, double for floats; datetime stays datetime.
template <class E>
using sum_out = Elem<E::is_float      ? QMO_SEQ_TYPE_DOUBLE
                     : E::is_datetime ? QMO_SEQ_TYPE_DATETIME
                     : E::is_signed   ? QMO_SEQ_TYPE_INT8
                                      : QMO_SEQ_TYPE_UINT8>;
template <class E>
using avg_out = std::conditional_t<E::is_datetime, E, Elem<QMO_SEQ_TYPE_DOUBLE>>;

template <class E>
struct max : slot_policy<E, E, value_t<E>, larger> {};
template <class E>
struct min : slot_policy<E, E, value_t<E>, smaller> {};
template <class E>
struct sum : slot_policy<E, sum_out<E>, value_t<sum_out<E>>, plus> {};
// Datetime means are unsigned integer quotients.
template <class E>
struct avg : slot_policy<E, avg_out<E>, std::conditional_t<E::is_datetime, uint64_t, double>, plus, mean> {};

// Occurrences: the slot is not read, the count is the result.
struct count {
    using out = Elem<QMO_SEQ_TYPE_UINT8>;
    static constexpr int in = QMO_SEQ_TYPE_UINT8;
    static constexpr bool nullable = true, registers = false, needs_values = false;
    static void fold(Entry &e, const Iter *, unsigned) {
        if (e.count == 0) e.value = 0;
    }
    static void combine(Entry &, const Entry &) {}
    static uint64_t result(const Entry &e) { return e.count; }
};

struct approxdc {
    using out = Elem<QMO_SEQ_TYPE_UINT4>;
    static constexpr int in = kAny;
    static constexpr bool nullable = false, registers = true, needs_values = true;
    static uint8_t *regs(const Entry &e) { return as_ptr<uint8_t>(e.value); }
    static void fold(Entry &e, const Iter *values, unsigned i) {
        const unsigned w = values->elem_size;
        distinct_add(regs(e), murmur_hash3_32(tile<char>(values) + size_t{i} * w, w, kHashSeed));
    }
    static void combine(Entry &e, const Entry &from) { distinct_merge(regs(e), regs(from)); }
    static uint32_t result(const Entry &e) { return static_cast<uint32_t>(approximate_distinct_count(regs(e))); }
};

// A new group's slot: zeroed registers carved from the key blocks, or nothing yet.
template <class P>
inline bool init_slot(Carver<Entry> &c, Entry &e) {
    if constexpr (P::registers) {
        unsigned char *r = c.take(kDistinctRegisters);
        if (!r) return false;
        std::memset(r, 0, kDistinctRegisters);
        e.value = as_word(r);
    }
    return true;
}

// ---- build ----------------------------------------------------------------------------------

// Once a table outgrows the caches, a tile's bucket slots are prefetched as
// soon as its hashes are known, chain heads kLookahead elements ahead of the
// fold and their successors half as far: without it every probe waits on two
// or three dependent misses.
inline constexpr uint64_t kPrefetchBuckets = 1 << 14;
inline constexpr unsigned kLookahead = 16;

inline void prefetch_chains(const Buckets<Entry> &b, const uint32_t *h, unsigned i, unsigned n) {
    if (i + kLookahead < n) __builtin_prefetch(*b.head(h[i + kLookahead]));
    if (i + kLookahead / 2 < n)
        if (const Entry *e = *b.head(h[i + kLookahead / 2])) __builtin_prefetch(e->next);
}

// The entry each of 2,048 slots last led to, a slot chosen by a multiplicative
// hash of the key word. While the table has no more groups than slots, most
// keys find their group here without MurmurHash, modulo or chain walk; a key
// of another slot's owner takes the table's path and then owns the slot.
// Entries never move, so the cache stays valid through growth. 16 KiB of
// stack, nothing allocated; not used for keys longer than 8 bytes.
struct EntryCache {
    static constexpr unsigned kBits = 11;
    static constexpr uint64_t kSlots = uint64_t{1} << kBits;
    Entry *slot[kSlots] = {};
    Entry *&of(uint64_t word) { return slot[(word * 0x9E3779B97F4A7C15u) >> (64 - kBits)]; }
};

// Chains of 8-byte keys that lie further apart than 2^63 are ordered by
// wrapped differences, and a walk can stop before the equal entry (the table
// then holds the key twice). The cache would find that entry regardless, so
// it serves 8-byte keys only while every key seen so far, null ones
// included, lies within 2^63 of every other: then the chain order is the
// plain order of the words and the walk finds what the cache finds.
struct KeySpan {
    uint64_t lo = ~uint64_t{0}, hi = 0;
    // True once the words seen span 2^63 or more.
    bool widen(const uint64_t *words, unsigned n) {
        for (unsigned i = 0; i < n; ++i) {
            lo = words[i] < lo ? words[i] : lo;
            hi = words[i] > hi ? words[i] : hi;
        }
        return n && hi - lo >= uint64_t{1} << 63;
    }
};

// One element of a tile: a null key is skipped, a null value only finds or
// makes its group. False when memory runs out.
template <class P, class Find>
inline bool fold_one(const Iter *keys, const Iter *values, unsigned i, Find find) {
    if (is_null(keys, i)) return true;
    Entry *e = find(i);
    if (!e) return false;
    if (values && is_null(values, i)) return true;
    P::fold(*e, values, i);
    ++e->count;
    return true;
}

template <class U>
inline U load(const char *bytes, unsigned i) {
    U u;
    std::memcpy(&u, bytes + size_t{i} * sizeof u, sizeof u);
    return u;
}

// The key word of element i of a tile of W-byte keys.
template <class W>
inline uint64_t key_word(const char *bytes, unsigned i, W w) {
    if constexpr (std::is_same_v<W, std::integral_constant<unsigned, 8>>) return load<uint64_t>(bytes, i);
    else if constexpr (std::is_same_v<W, std::integral_constant<unsigned, 4>>) return load<uint32_t>(bytes, i);
    else if constexpr (std::is_same_v<W, std::integral_constant<unsigned, 2>>) return load<uint16_t>(bytes, i);
    else if constexpr (std::is_same_v<W, std::integral_constant<unsigned, 1>>) return load<uint8_t>(bytes, i);
    uint64_t word = 0;
    std::memcpy(&word, bytes + size_t{i} * w, w);
    return word;
}

// A tile of keys of W bytes (W at most 8) through the entry cache; tiles
// without nulls skip the null tests.
template <class P, class W>
inline bool fold_cached(Carver<Entry> &c, Buckets<Entry> &b, EntryCache &cache, const Iter *keys,
                        const Iter *values, unsigned n, W w) {
    const char *bytes = tile<char>(keys);
    auto find = [&](unsigned i) {
        const uint64_t word = key_word(bytes, i, w);
        Entry *&owner = cache.of(word);
        if (owner && owner->key == word) [[likely]]
            return owner;
        Entry *e = find_or_add<false>(c, b, word, murmur_hash3_32(&word, w, kHashSeed), w, init_slot<P>);
        if (e) owner = e;
        return e;
    };
    if (!has_nulls(keys) && (!values || !has_nulls(values))) {
        for (unsigned i = 0; i < n; ++i) {
            Entry *e = find(i);
            if (!e) return false;
            P::fold(*e, values, i);
            ++e->count;
        }
        return true;
    }
    for (unsigned i = 0; i < n; ++i)
        if (!fold_one<P>(keys, values, i, find)) return false;
    return true;
}

// A tile hashed whole first, bucket slots prefetched when the table is far.
template <class P, bool Long>
inline bool fold_hashed(Carver<Entry> &c, Buckets<Entry> &b, const Iter *keys, const Iter *values, unsigned n) {
    const unsigned width = keys->elem_size;
    uint32_t h[kTile];
    uint64_t words[kTile];
    hash_elements(tile<char>(keys), width, n, [](unsigned) { return kHashSeed; }, h);
    element_words(tile<char>(keys), width, n, words);
    const bool far = b.t->bucket_count >= kPrefetchBuckets;
    if (far)
        for (unsigned i = 0; i < n; ++i) __builtin_prefetch(b.head(h[i]));
    for (unsigned i = 0; i < n; ++i) {
        if (far) prefetch_chains(b, h, i, n);
        if (!fold_one<P>(keys, values, i,
                         [&](unsigned j) { return find_or_add<Long>(c, b, words[j], h[j], width, init_slot<P>); }))
            return false;
    }
    return true;
}

template <class P, bool Long>
int build_with(Iter *it) {
    Iter *values = it->operand1;
    Iter *keys = it->operand2;
    const unsigned width = keys->elem_size;
    Table *t = start_build(it);
    if (!t) return QMO_SEQ_NO_MEMORY;
    Buckets<Entry> b(t);
    Carver<Entry> carve{it, t};
    EntryCache cache;
    KeySpan span;
    bool wraps = false;
    for (;;) {
        if (int rc = keys->next(keys)) {
            if (rc != QMO_SEQ_END) return rc;
            publish(it, t);
            return QMO_SEQ_OK;
        }
        if (values && (values->next(values) != QMO_SEQ_OK || values->tile_count != keys->tile_count))
            return QMO_SEQ_LENGTH_MISMATCH;
        const unsigned n = keys->tile_count;
        if (width == 8 && !wraps) wraps = span.widen(tile<uint64_t>(keys), n);
        bool ok;
        if (!Long && !wraps && t->entry_count <= EntryCache::kSlots) {
            if constexpr (!Long)
                with_width(width, [&](auto w) { ok = fold_cached<P>(carve, b, cache, keys, values, n, w); });
        } else {
            ok = fold_hashed<P, Long>(carve, b, keys, values, n);
        }
        if (!ok) return QMO_SEQ_NO_MEMORY;
    }
}

template <class P>
int build(Iter *it) {
    return it->operand2->elem_size > 8 ? build_with<P, true>(it) : build_with<P, false>(it);
}

// ---- outputs and constructors ---------------------------------------------------------------

int group_next(Iter *it, qmo_seq_prepare_fn build_fn) {
    if (int rc = ensure_built(it, build_fn)) return rc;
    const unsigned w = it->elem_size;
    char *out = tile<char>(it);
    return walk(it, [&](unsigned i, const Entry &e) { std::memcpy(out + size_t{i} * w, word_bytes(e.key, w), w); });
}

int construct_outputs(Iter *agg, Iter *grp, Iter *values, Iter *keys, uint64_t buckets, int agg_type,
                      unsigned agg_size, const Functions &f) {
    auto *shared = static_cast<Shared *>(qmo_seq_malloc(agg, sizeof(Shared)));
    if (!shared) return QMO_SEQ_NO_MEMORY;
    fill(agg, Setup{agg_type, agg_size, f.agg_next, qmo_seq_hash_agg_reset, values, keys});
    agg->prepare = f.build;
    agg->merge = f.merge;
    fill(grp, Setup{keys->elem_type, keys->elem_size, f.grp_next, qmo_seq_hash_agg_reset, values, keys});
    for (Iter *out : {agg, grp}) {
        out->state[kBucketCount] = buckets;
        out->state[kShared] = as_word(shared);
    }
    *shared = Shared{nullptr, agg->state, grp->state};
    return QMO_SEQ_OK;
}

// Values are checked and bound before keys, and stay bound when the keys fail.
template <class P>
int construct(Iter *agg, Iter *grp, Iter *values, Iter *keys, uint64_t init_size, const Functions &f) {
    if (values) {
        if (P::in != kAny && values->elem_type != P::in) return QMO_SEQ_TYPE_MISMATCH;
        if (bindings_checked() && values->bound) return QMO_SEQ_ALREADY_BOUND;
        values->bound = 1;
    } else if (P::needs_values) {
        return QMO_SEQ_INVALID_ARGUMENT;
    }
    if (bindings_checked() && keys->bound) return QMO_SEQ_ALREADY_BOUND;
    keys->bound = 1;
    return construct_outputs(agg, grp, values, keys, creation_buckets(init_size), P::out::code, P::out::size, f);
}

// ---- release --------------------------------------------------------------------------------

// Frees the published table, any table an output built and did not publish,
// pair tables, and the shared record; both outputs are detached.
bool release(Iter *it) {
    Shared *s = shared_of(it);
    if (!s) return false;
    drop_pairs(it);
    for (uint64_t *params : {s->agg_params, s->grp_params}) {
        Table *own = as_ptr<Table>(params[kBuiltTable]);
        if (own && own != s->table) free_hash(it, own);
        params[kBuiltTable] = 0;
        params[kShared] = 0;
    }
    if (s->table) free_hash(it, s->table);
    qmo_seq_free(it, s, sizeof *s);
    return true;
}

// ---- element-wise hash ---------------------------------------------------------------------

int hash_next(Iter *it) {
    Iter *input = it->operand1;
    Iter *seeds = it->operand2;
    if (int rc = input->next(input)) return rc;
    if (seeds)
        if (int rc = seeds->next(seeds)) return rc;
    const unsigned n = input->tile_count;
    const char *bytes = tile<char>(input);
    uint32_t *out = tile<uint32_t>(it);
    copy_nulls(it, input);
    if (seeds) {
        const uint32_t *seed = tile<uint32_t>(seeds);
        hash_elements(bytes, input->elem_size, n, [seed](unsigned i) { return seed[i]; }, out);
        it->null_bitmap[0] |= seeds->null_bitmap[0];
        it->null_bitmap[1] |= seeds->null_bitmap[1];
    } else {
        hash_elements(bytes, input->elem_size, n, [](unsigned) { return kHashSeed; }, out);
    }
    it->null_bitmap[0] &= tile_mask(n, 0);
    it->null_bitmap[1] &= tile_mask(n, 1);
    return deliver(it, n);
}

}  // namespace qmo::hash

// ---- exported names -------------------------------------------------------------------------

// One member: constructor, build, merge and both outputs of a policy.
#define QMO_STAMP_HASH_MEMBER_(name, policy)                                                          \
    QMO_EXPORT int qmo_seq_hash_initialize_##name(qmo_seq_iterator_t *it) {                           \
        return qmo::hash::build<policy>(it);                                                          \
    }                                                                                                 \
    QMO_EXPORT int qmo_seq_hash_merge_##name(qmo_seq_iterator_t *dst, qmo_seq_iterator_t *src) {      \
        return qmo::hash::merge<policy>(dst, src);                                                    \
    }                                                                                                 \
    QMO_EXPORT int qmo_seq_hash_agg_##name##_next_grp(qmo_seq_iterator_t *it) {                       \
        return qmo::hash::group_next(it, qmo_seq_hash_initialize_##name);                             \
    }                                                                                                 \
    QMO_EXPORT int qmo_seq_hash_agg_##name##_next_agg(qmo_seq_iterator_t *it) {                       \
        return qmo::hash::aggregate_next<policy>(it, qmo_seq_hash_initialize_##name);                 \
    }                                                                                                 \
    QMO_EXPORT int qmo_seq_hash_agg_##name(qmo_seq_iterator_t *agg, qmo_seq_iterator_t *grp,          \
                                           qmo_seq_iterator_t *values, qmo_seq_iterator_t *keys,      \
                                           uint64_t init_size) {                                      \
        return qmo::hash::construct<policy>(                                                          \
            agg, grp, values, keys, init_size,                                                        \
            {qmo_seq_hash_agg_##name##_next_agg, qmo_seq_hash_agg_##name##_next_grp,                  \
             qmo_seq_hash_initialize_##name, qmo_seq_hash_merge_##name});                             \
    }

// The family is the policy's name: qmo::hash::sum<E>, qmo::hash::count, qmo::hash::approxdc.
#define QMO_STAMP_HASH(op, t, ctype, tc) QMO_STAMP_HASH_MEMBER_(op##_##t, qmo::hash::op<qmo::Elem<tc>>)
#define QMO_STAMP_HASH_COUNT(op, t, ctype, tc) QMO_STAMP_HASH_MEMBER_(op##_##t, qmo::hash::op)
#define QMO_STAMP_HASH_SKETCH(op, t, ctype, tc) QMO_STAMP_HASH_MEMBER_(op, qmo::hash::op)
QMO_SEQ_HASH_FAMILIES(QMO_STAMP_FAMILY)

// Occurrences of each key.
QMO_EXPORT int qmo_seq_hash_agg_count(qmo_seq_iterator_t *agg, qmo_seq_iterator_t *grp, qmo_seq_iterator_t *keys,
                                      uint64_t init_size) {
    return qmo_seq_hash_agg_count_uint8(agg, grp, nullptr, keys, init_size);
}

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

QMO_EXPORT int qmo_seq_release_hash(qmo_seq_iterator_t *it) {
    qmo::hash::release(it);
    return QMO_SEQ_OK;
}

QMO_EXPORT int qmo_seq_free_hash(qmo_seq_iterator_t *it) {
    it->reset = nullptr;
    return qmo::hash::release(it) ? 1 : 0;
}

QMO_EXPORT int qmo_seq_hash_next(qmo_seq_iterator_t *it) { return qmo::hash::hash_next(it); }

// Seeds (uint4) are checked and bound before the input, and stay bound when it fails.
QMO_EXPORT int qmo_seq_hash(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input, qmo_seq_iterator_t *seeds) {
    if (seeds) {
        if (seeds->elem_type != QMO_SEQ_TYPE_UINT4) return QMO_SEQ_TYPE_MISMATCH;
        if (qmo::bindings_checked() && seeds->bound) return QMO_SEQ_ALREADY_BOUND;
        seeds->bound = 1;
    }
    if (qmo::bindings_checked() && input->bound) return QMO_SEQ_ALREADY_BOUND;
    input->bound = 1;
    qmo::fill(result, qmo::Setup{QMO_SEQ_TYPE_UINT4, 4, qmo_seq_hash_next,
                                 seeds ? qmo_seq_reset_binary_iterator : qmo_seq_reset_unary_iterator, input, seeds});
    return QMO_SEQ_OK;
}
