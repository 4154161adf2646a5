// The hash aggregates' table machinery, shared by the group-by builds and the
// duplicate counts: key words and hashes of a tile, block storage, sorted
// chains, growth, publishing and release. Internal.
#pragma once

#include "aggregate/distinct.hpp"
#include "aggregate/hash_layout.hpp"
#include "frame/numeric.hpp"

#include <bit>
#include <type_traits>

namespace qmo::hash {

// Key words hold a short key's bytes in their low-order bytes.
static_assert(std::endian::native == std::endian::little, "key words assume little-endian");

template <class T>
inline T *as_ptr(uint64_t word) noexcept {
    return reinterpret_cast<T *>(static_cast<uintptr_t>(word));
}
inline uint64_t as_word(const void *p) noexcept { return reinterpret_cast<uintptr_t>(p); }

// The bytes a key or value word stands for.
inline const void *word_bytes(const uint64_t &word, unsigned width) noexcept {
    return width > 8 ? as_ptr<const void>(word) : &word;
}

// MurmurHash3 of each of n elements, element i with seed(i).
template <class Seed>
inline void hash_elements(const char *bytes, unsigned width, unsigned n, Seed seed, uint32_t *out) {
    with_width(width, [&](auto w) {
        for (unsigned i = 0; i < n; ++i) out[i] = murmur_hash3_32(bytes + size_t{i} * w, w, seed(i));
    });
}

// The word of each element: up to 8 bytes zero-extended, else a pointer into the tile.
inline void element_words(const char *bytes, unsigned width, unsigned n, uint64_t *words) {
    if (width > 8) {
        for (unsigned i = 0; i < n; ++i) words[i] = as_word(bytes + size_t{i} * width);
        return;
    }
    with_width(width, [&](auto w) {
        for (unsigned i = 0; i < n; ++i) {
            words[i] = 0;
            std::memcpy(&words[i], bytes + size_t{i} * w, w);
        }
    });
}

// ---- bucket counts --------------------------------------------------------------------------

inline uint64_t prime(int i) { return qmo_int_get_prime_number(i); }

// At creation only the even indexes are tried, on purpose; 0 asks for the setting.
inline uint64_t creation_buckets(uint64_t requested) {
    if (requested == 0) requested = qmo_seq_hash_table_init_size;
    for (int i = 0; i <= 26; i += 2)
        if (prime(i) >= requested) return prime(i);
    return prime(28);
}

inline uint64_t grown_buckets(uint64_t current) {
    for (int i = 0; i <= 27; ++i)
        if (prime(i) > current) return prime(i);
    return prime(28);
}

__extension__ typedef unsigned __int128 u128;

// A table with its growth threshold and a reciprocal that turns "hash mod
// bucket count" into two multiplications: with M = ceil(2^64 / d), the high
// word of (M * h mod 2^64) * d is h mod d for every 32-bit h and every d below
// 2^32 (Lemire, Kaser and Kurz, "Faster remainder by direct computation",
// 2019, theorem 1 with F = 64 >= N + L = 32 + 32). M is recomputed whenever
// the bucket count changes.
template <class E>
struct Buckets {
    TableOf<E> *t;
    uint64_t magic = 0;
    uint64_t threshold = 0;

    explicit Buckets(TableOf<E> *table) : t(table) { refresh(); }
    void refresh() {
        magic = reciprocal(t->bucket_count);
        threshold = double_to_u64(static_cast<double>(t->bucket_count) * qmo_seq_hash_table_load_factor) - 1;
    }
    static uint64_t reciprocal(uint64_t d) { return ~uint64_t{0} / d + 1; }
    static uint64_t index(uint32_t h, uint64_t magic, uint64_t d) {
        return static_cast<uint64_t>((static_cast<u128>(magic * h) * d) >> 64);
    }
    E **head(uint32_t h) const { return &t->buckets[index(h, magic, t->bucket_count)]; }
};

// ---- storage --------------------------------------------------------------------------------

template <class E>
TableOf<E> *new_table(Iter *ctx, uint64_t bucket_count) {
    auto *t = static_cast<TableOf<E> *>(qmo_seq_malloc(ctx, sizeof(TableOf<E>)));
    if (!t) return nullptr;
    auto **buckets = static_cast<E **>(qmo_seq_malloc(ctx, bucket_count * sizeof(E *)));
    if (!buckets) {
        qmo_seq_free(ctx, t, sizeof *t);
        return nullptr;
    }
    qmo_memnull(buckets, bucket_count * sizeof(E *));
    *t = TableOf<E>{bucket_count, 0, nullptr, nullptr, buckets};
    return t;
}

// Every block, the bucket array and the table record.
template <class E>
void free_hash(Iter *ctx, TableOf<E> *t) {
    for (Block *b = t->head, *older; b; b = older) {
        older = b->next;
        qmo_seq_free(ctx, b, sizeof(Block));
    }
    if (t->buckets) qmo_seq_free(ctx, t->buckets, t->bucket_count * sizeof(E *));
    qmo_seq_free(ctx, t, sizeof *t);
}

// Carves entries and key bytes from the blocks of one table being built.
template <class E>
struct Carver {
    Iter *ctx;
    TableOf<E> *t;
    E *entries = nullptr;
    unsigned used = kBlockEntries;
    unsigned char *bytes = nullptr;
    size_t filled = kBlockBytes;

    unsigned char *push_block() {
        auto *b = static_cast<Block *>(qmo_seq_malloc(ctx, sizeof(Block)));
        if (!b) return nullptr;
        b->next = t->head;
        t->head = b;
        if (!t->tail) t->tail = b;
        return b->payload;
    }
    E *entry() {
        if (used == kBlockEntries) {
            unsigned char *p = push_block();
            if (!p) return nullptr;
            entries = reinterpret_cast<E *>(p);
            used = 0;
        }
        return entries + used++;
    }
    unsigned char *take(size_t n) {
        if (!bytes || filled + n > kBlockBytes) {
            if (!(bytes = push_block())) return nullptr;
            filled = 0;
        }
        unsigned char *p = bytes + filled;
        filled += n;
        return p;
    }
    // A word's bytes kept in the table: long ones are copied into a key block.
    bool keep(uint64_t &word, unsigned width) {
        if (width <= 8) return true;
        unsigned char *p = take(width);
        if (!p) return false;
        std::memcpy(p, as_ptr<const void>(word), width);
        word = as_word(p);
        return true;
    }
};

// src's blocks go behind dst's; src's table record and buckets are freed.
template <class E>
void absorb(Iter *ctx, TableOf<E> *dst, TableOf<E> *src) {
    if (src->head) {
        if (dst->tail) dst->tail->next = src->head;
        else dst->head = src->head;
        dst->tail = src->tail;
    }
    src->head = src->tail = nullptr;
    free_hash(ctx, src);
}

// Moves every entry of the table into a new bucket array of the next size,
// bucket by bucket and in chain order; place(buckets, entry) links one.
template <class E, class Place>
int grow(Iter *ctx, Buckets<E> &b, Place place) {
    TableOf<E> *t = b.t;
    const uint64_t count = grown_buckets(t->bucket_count);
    auto **fresh = static_cast<E **>(qmo_seq_malloc(ctx, count * sizeof(E *)));
    if (!fresh) return QMO_SEQ_NO_MEMORY;
    qmo_memnull(fresh, count * sizeof(E *));
    E **old = t->buckets;
    const uint64_t old_count = t->bucket_count;
    t->buckets = fresh;
    t->bucket_count = count;
    b.refresh();
    for (uint64_t i = 0; i < old_count; ++i)
        for (E *e = old[i], *next; e; e = next) {
            next = e->next;
            place(b, e);
        }
    qmo_seq_free(ctx, old, old_count * sizeof(E *));
    return QMO_SEQ_OK;
}

// ---- sorted group chains --------------------------------------------------------------------

// Chain order: the signed 64-bit difference of the zero-extended words (not a
// typed comparison, and wrapping for 8-byte keys far apart); memcmp of the
// bytes for longer keys. Negative: the entry comes first.
template <bool Long>
inline int64_t order(uint64_t entry, uint64_t probe, unsigned width) {
    if constexpr (Long) return qmo_memcmp(as_ptr<const void>(entry), as_ptr<const void>(probe), width);
    else return static_cast<int64_t>(entry - probe);
}

struct Seek {
    Entry **link;  // the matching entry, or where the probe belongs
    bool found;
};

template <bool Long>
inline Seek seek(const Buckets<Entry> &b, uint64_t probe, uint32_t h, unsigned width) {
    Entry **link = b.head(h);
    for (Entry *e; (e = *link); link = &e->next) {
        const int64_t d = order<Long>(e->key, probe, width);
        if (d >= 0) return {link, d == 0};
    }
    return {link, false};
}

template <bool Long>
inline void link_sorted(const Buckets<Entry> &b, Entry *e, unsigned width) {
    Entry **link = seek<Long>(b, e->key, e->hash, width).link;
    e->next = *link;
    *link = e;
}

template <bool Long>
inline int grow_groups(Iter *ctx, Buckets<Entry> &b, unsigned width) {
    return grow(ctx, b, [width](const Buckets<Entry> &nb, Entry *e) { link_sorted<Long>(nb, e, width); });
}

// The group of a key, created (count 0, slot from init) when it is new; null
// when memory runs out. The table grows once the new entry makes it reach its
// threshold.
template <bool Long, class Init>
inline Entry *find_or_add(Carver<Entry> &c, Buckets<Entry> &b, uint64_t word, uint32_t h, unsigned width, Init init) {
    const Seek s = seek<Long>(b, word, h, width);
    if (s.found) return *s.link;
    Entry *e = c.entry();
    if (!e || !c.keep(word, width)) return nullptr;
    *e = Entry{word, 0, *s.link, 0, h};
    if (!init(c, *e)) return nullptr;
    *s.link = e;
    if (++b.t->entry_count >= b.threshold && grow_groups<Long>(c.ctx, b, width)) return nullptr;
    return e;
}

// ---- the outputs' shared record -------------------------------------------------------------

template <class T>
inline T *word_ptr(const Iter *it, unsigned word) {
    return as_ptr<T>(it->state[word]);
}
inline Table *built(const Iter *it) { return word_ptr<Table>(it, kBuiltTable); }

inline void publish(Iter *it, Table *t) {
    if (Shared *s = shared_of(it)) s->table = t;
}

// Starts a build on this output: whatever it built before and did not publish
// (a build that ran out of memory) is discarded; a published table is
// replaced.
inline Table *start_build(Iter *it) {
    if (Table *old = built(it)) {
        Shared *s = shared_of(it);
        if (s && s->table == old) s->table = nullptr;
        free_hash(it, old);
    }
    Table *t = new_table<Entry>(it, it->state[kBucketCount]);
    it->state[kBuiltTable] = as_word(t);
    return t;
}

// Drops the pair tables of a duplicate count's builds (both outputs).
void drop_pairs(Iter *it);

// ---- merge ----------------------------------------------------------------------------------

// src's groups go into dst's table: a known key combines, a new one is
// relinked there as it is. src's blocks then belong to dst. A side that built
// nothing contributes nothing (dst adopts src's table whole).
template <class P, bool Long>
int merge_with(Iter *dst, Iter *src) {
    Table *d = built(dst);
    Table *s = built(src);
    if (s && shared_of(src) && shared_of(src)->table == s) shared_of(src)->table = nullptr;
    src->state[kBuiltTable] = 0;
    if (!d || !s) {
        if (!d) dst->state[kBuiltTable] = as_word(d = s);
        if (d) publish(dst, d);
        return QMO_SEQ_OK;
    }
    const unsigned width = dst->operand2->elem_size;
    Buckets<Entry> b(d);
    int rc = QMO_SEQ_OK;
    for (uint64_t i = 0; i < s->bucket_count && !rc; ++i)
        for (Entry *e = s->buckets[i], *next; e && !rc; e = next) {
            next = e->next;
            const Seek at = seek<Long>(b, e->key, e->hash, width);
            if (at.found) {
                if (e->count) {
                    P::combine(**at.link, *e);
                    (*at.link)->count += e->count;
                }
                continue;
            }
            e->next = *at.link;
            *at.link = e;
            if (++d->entry_count >= b.threshold) rc = grow_groups<Long>(dst, b, width);
        }
    absorb(dst, d, s);
    if (!rc) publish(dst, d);
    return rc;
}

template <class P>
int merge(Iter *dst, Iter *src) {
    return dst->operand2->elem_size > 8 ? merge_with<P, true>(dst, src) : merge_with<P, false>(dst, src);
}

// ---- output ---------------------------------------------------------------------------------

// Up to a tile of groups from the cursor on, in bucket order and chain order.
template <class Emit>
int walk(Iter *it, Emit emit) {
    const Table *t = shared_of(it)->table;
    clear_nulls(it);
    uint64_t bucket = it->state[kCursorBucket];
    const Entry *e = word_ptr<const Entry>(it, kCursorEntry);
    unsigned n = 0;
    while (n < kTile) {
        if (!e) {
            while (bucket < t->bucket_count && !t->buckets[bucket]) ++bucket;
            if (bucket == t->bucket_count) break;
            e = t->buckets[bucket++];
        }
        emit(n++, *e);
        e = e->next;
    }
    it->state[kCursorBucket] = bucket;
    it->state[kCursorEntry] = as_word(e);
    it->tile_count = static_cast<uint16_t>(n);
    it->pos += n;
    return n ? QMO_SEQ_OK : QMO_SEQ_END;
}

// Builds on the first pull of either output. A released output has nothing.
inline int ensure_built(Iter *it, qmo_seq_prepare_fn build_fn) {
    const Shared *s = shared_of(it);
    if (!s) return QMO_SEQ_END;
    if (!s->table)
        if (int rc = build_fn(it)) return rc;
    return s->table ? QMO_SEQ_OK : QMO_SEQ_END;
}

// The group output: each group's key bytes.
int group_next(Iter *it, qmo_seq_prepare_fn build_fn);

// After the operand checks: the shared record (52 when it cannot be had), then
// both outputs with their hash parameters.
struct Functions {
    qmo_seq_next_fn agg_next, grp_next;
    qmo_seq_prepare_fn build;
    qmo_seq_merge_fn merge;
};
int construct_outputs(Iter *agg, Iter *grp, Iter *values, Iter *keys, uint64_t buckets, int agg_type,
                      unsigned agg_size, const Functions &f);

template <class P>
int aggregate_next(Iter *it, qmo_seq_prepare_fn build_fn) {
    if (int rc = ensure_built(it, build_fn)) return rc;
    using R = value_t<typename P::out>;
    R *out = tile<R>(it);
    return walk(it, [&](unsigned i, const Entry &e) {
        if (P::nullable && e.count == 0) {
            out[i] = R{};
            set_null(it, i);
        } else {
            out[i] = static_cast<R>(P::result(e));
        }
    });
}

}  // namespace qmo::hash
