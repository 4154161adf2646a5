// Duplicate and distinct counts per group key: the number of distinct values
// that occur at least n times in a group. A build keeps the group table and a
// table of (group key, value) pairs with their occurrences.
//
// Deliberately, a build does not publish its group table: pulled directly,
// both outputs end with the status the keys ended with, and the groups reach
// the outputs only through a merge.
#include "aggregate/hash_table.hpp"
#include "frame/construct.hpp"

namespace qmo::hash {

namespace {

// The aggregate output: the group's count, never null.
struct dup_count {
    using out = Elem<QMO_SEQ_TYPE_UINT8>;
    static constexpr bool nullable = false;
    static void combine(Entry &, const Entry &) {}
    static uint64_t result(const Entry &e) { return e.count; }
};

PairTable *pairs(const Iter *it) { return word_ptr<PairTable>(it, kPairTable); }

inline bool same(uint64_t a, uint64_t b, unsigned width) {
    return width > 8 ? qmo_memcmp(as_ptr<const void>(a), as_ptr<const void>(b), width) == 0 : a == b;
}

DupEntry *find_pair(const Buckets<DupEntry> &b, uint32_t pair_hash, uint64_t key, uint64_t value, unsigned key_width,
                    unsigned value_width) {
    for (DupEntry *d = *b.head(pair_hash); d; d = d->next)
        if (d->pair_hash == pair_hash && same(d->value, value, value_width) && same(d->key, key, key_width)) return d;
    return nullptr;
}

// Pair chains are unordered: a pair goes to the front of its chain, also when the table grows.
void push_front(const Buckets<DupEntry> &b, DupEntry *d) {
    DupEntry **head = b.head(d->pair_hash);
    d->next = *head;
    *head = d;
}

int add_pair(Iter *ctx, Buckets<DupEntry> &b, DupEntry *d) {
    push_front(b, d);
    if (++b.t->entry_count < b.threshold) return QMO_SEQ_OK;
    return grow(ctx, b, push_front);
}

bool no_slot(Carver<Entry> &, Entry &) { return true; }

template <bool Long>
int build(Iter *it) {
    Iter *values = it->operand1;
    Iter *keys = it->operand2;
    const unsigned kw = keys->elem_size, vw = values->elem_size;
    const uint64_t n_min = it->state[kDupMinimum];
    if (PairTable *old = pairs(it)) free_hash(it, old);
    it->state[kPairTable] = 0;
    Table *t = start_build(it);
    if (!t) return QMO_SEQ_NO_MEMORY;
    PairTable *p = new_table<DupEntry>(it, it->state[kPairBucketCount]);
    if (!p) return QMO_SEQ_NO_MEMORY;
    it->state[kPairTable] = as_word(p);
    Buckets<Entry> gb(t);
    Buckets<DupEntry> pb(p);
    Carver<Entry> gc{it, t};
    Carver<DupEntry> pc{it, p};
    uint32_t gk[kTile], pk[kTile];
    uint64_t key_words[kTile], value_words[kTile];
    for (;;) {
        if (int rc = keys->next(keys)) return rc;
        if (values->next(values) != QMO_SEQ_OK || values->tile_count != keys->tile_count)
            return QMO_SEQ_LENGTH_MISMATCH;
        const unsigned n = keys->tile_count;
        hash_elements(tile<char>(keys), kw, n, [](unsigned) { return kHashSeed; }, gk);
        hash_elements(tile<char>(values), vw, n, [&gk](unsigned i) { return gk[i]; }, pk);
        element_words(tile<char>(keys), kw, n, key_words);
        element_words(tile<char>(values), vw, n, value_words);
        for (unsigned i = 0; i < n; ++i) {
            if (is_null(keys, i)) continue;
            Entry *g = find_or_add<Long>(gc, gb, key_words[i], gk[i], kw, no_slot);
            if (!g) return QMO_SEQ_NO_MEMORY;
            // A null value is skipped, in a known group as in a new one.
            if (is_null(values, i)) continue;
            DupEntry *d = find_pair(pb, pk[i], g->key, value_words[i], kw, vw);
            if (!d) {
                d = pc.entry();
                if (!d || !pc.keep(value_words[i], vw)) return QMO_SEQ_NO_MEMORY;
                *d = DupEntry{g->key, value_words[i], nullptr, 0, gk[i], pk[i]};
                if (add_pair(it, pb, d)) return QMO_SEQ_NO_MEMORY;
            }
            if (++d->occurrences == n_min) ++g->count;
        }
    }
}

// src's pairs join dst's. A pair both sides saw counts for its group once its
// summed occurrences reach n, so the group counts (added by the group merge
// that follows) are corrected by the difference.
template <bool Long>
int merge_pairs(Iter *dst, Iter *src) {
    PairTable *d = pairs(dst);
    PairTable *s = pairs(src);
    src->state[kPairTable] = 0;
    if (!s) return QMO_SEQ_OK;
    Table *groups = built(dst);
    if (!d || !groups) {
        if (d) free_hash(dst, s);
        else dst->state[kPairTable] = as_word(s);
        return QMO_SEQ_OK;
    }
    const unsigned kw = dst->operand2->elem_size, vw = dst->operand1->elem_size;
    const uint64_t n_min = dst->state[kDupMinimum];
    auto reached = [n_min](uint64_t occurrences) { return n_min != 0 && occurrences >= n_min; };
    Buckets<DupEntry> pb(d);
    const Buckets<Entry> gb(groups);
    int rc = QMO_SEQ_OK;
    for (uint64_t i = 0; i < s->bucket_count && !rc; ++i)
        for (DupEntry *e = s->buckets[i], *next; e && !rc; e = next) {
            next = e->next;
            DupEntry *q = find_pair(pb, e->pair_hash, e->key, e->value, kw, vw);
            if (!q) {
                rc = add_pair(dst, pb, e);
                continue;
            }
            const uint64_t before = q->occurrences;
            q->occurrences += e->occurrences;
            const int delta = reached(q->occurrences) - reached(before) - reached(e->occurrences);
            const Seek g = seek<Long>(gb, e->key, e->group_hash, kw);
            if (delta && g.found) (*g.link)->count += static_cast<uint64_t>(int64_t{delta});
        }
    absorb(dst, d, s);
    return rc;
}

// The pair tables go right after a build, whatever it returned.
template <bool Group>
int dup_next(Iter *it) {
    const Shared *s = shared_of(it);
    int rc = QMO_SEQ_OK;
    if (s && !s->table) {
        rc = qmo_seq_dup_hash_prepare(it);
        drop_pairs(it);
    }
    if (rc) return rc;
    if constexpr (Group) return group_next(it, qmo_seq_dup_hash_prepare);
    else return aggregate_next<dup_count>(it, qmo_seq_dup_hash_prepare);
}

}  // namespace

void drop_pairs(Iter *it) {
    Shared *s = shared_of(it);
    if (!s) return;
    for (uint64_t *params : {s->agg_params, s->grp_params}) {
        if (auto *p = as_ptr<PairTable>(params[kPairTable])) free_hash(it, p);
        params[kPairTable] = 0;
    }
}

}  // namespace qmo::hash

QMO_EXPORT int qmo_seq_dup_hash_prepare(qmo_seq_iterator_t *it) {
    return it->operand2->elem_size > 8 ? qmo::hash::build<true>(it) : qmo::hash::build<false>(it);
}

QMO_EXPORT int qmo_seq_dup_hash_merge(qmo_seq_iterator_t *dst, qmo_seq_iterator_t *src) {
    using namespace qmo::hash;
    const bool is_long = dst->operand2->elem_size > 8;
    const int rc = is_long ? merge_pairs<true>(dst, src) : merge_pairs<false>(dst, src);
    const int groups = is_long ? merge_with<dup_count, true>(dst, src) : merge_with<dup_count, false>(dst, src);
    return rc ? rc : groups;
}

QMO_EXPORT int qmo_seq_dup_hash_next_count(qmo_seq_iterator_t *it) { return qmo::hash::dup_next<false>(it); }
QMO_EXPORT int qmo_seq_dup_hash_next_grp(qmo_seq_iterator_t *it) { return qmo::hash::dup_next<true>(it); }

// No type checks; both operands are checked before either is bound.
QMO_EXPORT int qmo_seq_hash_agg_dup_count(qmo_seq_iterator_t *agg, qmo_seq_iterator_t *grp,
                                          qmo_seq_iterator_t *values, qmo_seq_iterator_t *keys, uint64_t group_size,
                                          uint64_t pair_size, uint64_t n) {
    using namespace qmo::hash;
    if (qmo::bindings_checked() && (values->bound || keys->bound)) return QMO_SEQ_ALREADY_BOUND;
    values->bound = keys->bound = 1;
    if (int rc = construct_outputs(agg, grp, values, keys, creation_buckets(group_size), QMO_SEQ_TYPE_UINT8, 8,
                                   {qmo_seq_dup_hash_next_count, qmo_seq_dup_hash_next_grp,
                                    qmo_seq_dup_hash_prepare, qmo_seq_dup_hash_merge}))
        return rc;
    for (qmo_seq_iterator_t *out : {agg, grp}) {
        out->state[kPairBucketCount] = creation_buckets(pair_size);
        out->state[kDupMinimum] = n;
    }
    return QMO_SEQ_OK;
}

QMO_EXPORT int qmo_seq_hash_agg_distinct_count(qmo_seq_iterator_t *agg, qmo_seq_iterator_t *grp,
                                               qmo_seq_iterator_t *values, qmo_seq_iterator_t *keys,
                                               uint64_t group_size, uint64_t pair_size) {
    return qmo_seq_hash_agg_dup_count(agg, grp, values, keys, group_size, pair_size, 1);
}
