// Partial results as bytes: a mergeable record's partial result written out
// in a versioned, self-describing format and read back into a record of the
// same family, so that partitions can be folded in other processes. Each
// family is one kind (how its payload is laid out and checked); the table of
// members that maps a record to its family and kind is stamped from the
// header's lists.
#include "aggregate/fold.hpp"
#include "aggregate/hash_table.hpp"
#include "frame/crc32c.hpp"

#include <bit>
#include <string_view>

namespace qmo::partial {

static_assert(std::endian::native == std::endian::little, "the format is written in native order");

inline constexpr size_t kHeader = QMO_SEQ_PARTIAL_HEADER_BYTES;
inline constexpr uint8_t kAny = QMO_SEQ_PARTIAL_ANY_TYPE;
inline constexpr size_t kCrcAt = 12;

// The checksum covers every byte but its own four.
uint32_t checksum(const unsigned char *bytes, uint64_t size) {
    const uint32_t head = crc32c(0, bytes, kCrcAt);
    return crc32c(head, bytes + kCrcAt + 4, size - kCrcAt - 4);
}

// Bounds-checked little-endian reads and writes over a byte range.
struct Reader {
    const unsigned char *at;
    uint64_t left;
    bool take(void *to, uint64_t n) {
        if (n > left) return false;
        std::memcpy(to, at, n);
        at += n;
        left -= n;
        return true;
    }
    template <class T>
    bool take(T &v) {
        return take(&v, sizeof v);
    }
};

struct Writer {
    unsigned char *at;
    void put(const void *from, size_t n) {
        std::memcpy(at, from, n);
        at += n;
    }
    template <class T>
    void put(T v) {
        put(&v, sizeof v);
    }
};

// ---- kinds -------------------------------------------------------------------------------
//
// Each kind says how long its payload is for a record (size), writes it
// (save), and reads it into the record (load) after checking all of it:
// 62 for a payload that cannot be one of this kind, 0 after replacing the
// record's partial result.

struct Kind {
    uint64_t (*size)(const Iter *it);
    void (*save)(const Iter *it, Writer &w);
    int (*load)(Iter *it, Reader r);
    bool keyed;  // hash aggregates: keys' type and width in the header
};

// Scalar folds: the state words through the count, zero when nothing was counted.
template <unsigned CountWord>
struct fold {
    static constexpr unsigned kWords = CountWord + 1;
    static uint64_t size(const Iter *) { return kWords * 8; }
    static void save(const Iter *it, Writer &w) {
        const bool empty = it->state[CountWord] == 0;
        for (unsigned k = 0; k < kWords; ++k) w.put<uint64_t>(empty ? 0 : it->state[k]);
    }
    // The merge function fills the record from a stand-in that holds the words.
    static int load(Iter *it, Reader r) {
        if (r.left != kWords * 8) return QMO_SEQ_INVALID_ARGUMENT;
        Iter from{};
        for (unsigned k = 0; k < kWords; ++k) r.take(from.state[k]);
        it->state[CountWord] = 0;
        it->tile_count = 0;
        it->pos = 0;
        clear_nulls(it);
        it->merge(it, &from);
        it->prepared = 1;
        return QMO_SEQ_OK;
    }
};

struct count {
    static uint64_t size(const Iter *) { return 8; }
    static void save(const Iter *it, Writer &w) { w.put<uint64_t>(it->pos ? it->values.u8[0] : 0); }
    static int load(Iter *it, Reader r) {
        uint64_t n;
        if (r.left != 8 || !r.take(n)) return QMO_SEQ_INVALID_ARGUMENT;
        agg::put_result(it, &n, 1);
        it->prepared = 1;
        return QMO_SEQ_OK;
    }
};

struct approxdc {
    static uint64_t size(const Iter *) { return kDistinctRegisters; }
    static void save(const Iter *it, Writer &w) { w.put(it->state, kDistinctRegisters); }
    static int load(Iter *it, Reader r) {
        if (r.left != kDistinctRegisters) return QMO_SEQ_INVALID_ARGUMENT;
        Iter from{};
        r.take(from.state, kDistinctRegisters);
        std::memset(it->state, 0, kDistinctRegisters);
        it->merge(it, &from);
        it->prepared = 1;
        return QMO_SEQ_OK;
    }
};

// The limit, then the ranked list in the tile: filter_first_pos's ascending
// positions (its limit in last_pos) or top-N's values (its limit in state
// word 0). Lists merge only under the same limit.
template <uint64_t (*Limit)(const Iter *)>
struct ranked {
    static uint64_t size(const Iter *it) { return 16 + uint64_t{it->tile_count} * it->elem_size; }
    static void save(const Iter *it, Writer &w) {
        w.put<uint64_t>(Limit(it));
        w.put<uint64_t>(it->tile_count);
        w.put(it->values.u8, size_t{it->tile_count} * it->elem_size);
    }
    static int load(Iter *it, Reader r) {
        uint64_t limit, n;
        if (!r.take(limit) || !r.take(n)) return QMO_SEQ_INVALID_ARGUMENT;
        if (limit != Limit(it)) return QMO_SEQ_TYPE_MISMATCH;
        if (n > limit || r.left != n * it->elem_size) return QMO_SEQ_INVALID_ARGUMENT;
        r.take(it->values.u8, n * it->elem_size);
        clear_nulls(it);
        it->tile_count = static_cast<uint16_t>(n);
        it->pos = n;
        it->prepared = 1;
        return QMO_SEQ_OK;
    }
};
inline uint64_t limit_in_last_pos(const Iter *it) { return it->last_pos; }
inline uint64_t limit_in_state(const Iter *it) { return it->state[0]; }
using first_positions = ranked<limit_in_last_pos>;
using top_list = ranked<limit_in_state>;

// Hash aggregates: the published table's groups in bucket order. A load
// builds a fresh table and swaps it in only when every group went in.
template <bool Registers>
struct hashed {
    static constexpr uint64_t kSlot = Registers ? kDistinctRegisters : 8;
    static unsigned width(const Iter *it) { return it->operand2->elem_size; }
    static uint64_t groups(const hash::Table *t) {
        uint64_t g = 0;
        for (uint64_t b = 0; t && b < t->bucket_count; ++b)
            for (const hash::Entry *e = t->buckets[b]; e; e = e->next) ++g;
        return g;
    }
    static uint64_t size(const Iter *it) { return 8 + groups(hash::table_of(it)) * (width(it) + 8 + kSlot); }
    static void save(const Iter *it, Writer &w) {
        const hash::Table *t = hash::table_of(it);
        const unsigned kw = width(it);
        w.put<uint64_t>(groups(t));
        for (uint64_t b = 0; t && b < t->bucket_count; ++b)
            for (const hash::Entry *e = t->buckets[b]; e; e = e->next) {
                w.put(hash::word_bytes(e->key, kw), kw);
                w.put<uint64_t>(e->count);
                if constexpr (Registers) w.put(hash::as_ptr<const void>(e->value), kDistinctRegisters);
                else w.put<uint64_t>(e->value);
            }
    }
    static int load(Iter *it, Reader r) {
        hash::Shared *shared = hash::shared_of(it);
        const unsigned kw = width(it);
        uint64_t g;
        if (!shared || !r.take(g) || g > r.left / (kw + 8 + kSlot) || r.left != g * (kw + 8 + kSlot))
            return QMO_SEQ_INVALID_ARGUMENT;
        hash::Table *t = hash::new_table<hash::Entry>(it, it->state[hash::kBucketCount]);
        if (!t) return QMO_SEQ_NO_MEMORY;
        const int rc = kw > 8 ? fill<true>(it, t, r, g, kw) : fill<false>(it, t, r, g, kw);
        if (rc) {
            hash::free_hash(it, t);
            return rc;
        }
        t->entry_count = g;
        if (hash::Table *old = hash::built(it)) {
            if (shared->table == old) shared->table = nullptr;
            hash::free_hash(it, old);
        }
        it->state[hash::kBuiltTable] = hash::as_word(t);
        hash::publish(it, t);
        for (uint64_t *params : {shared->agg_params, shared->grp_params}) {
            params[hash::kCursorBucket] = 0;
            params[hash::kCursorEntry] = 0;
        }
        return QMO_SEQ_OK;
    }
    template <bool Long>
    static int fill(Iter *it, hash::Table *t, Reader &r, uint64_t g, unsigned kw) {
        hash::Buckets<hash::Entry> b(t);
        hash::Carver<hash::Entry> carve{it, t};
        for (uint64_t i = 0; i < g; ++i) {
            const unsigned char *key = r.at;
            uint64_t word = 0;
            if (kw > 8) word = hash::as_word(key);
            else std::memcpy(&word, key, kw);
            r.at += kw;
            r.left -= kw;
            const uint32_t h = murmur_hash3_32(key, kw, kHashSeed);
            if (hash::seek<Long>(b, word, h, kw).found) return QMO_SEQ_INVALID_ARGUMENT;
            const unsigned char *slot = r.at + 8;
            hash::Entry *e = hash::find_or_add<Long>(carve, b, word, h, kw, [&](hash::Carver<hash::Entry> &c,
                                                                               hash::Entry &entry) {
                if constexpr (Registers) {
                    unsigned char *regs = c.take(kDistinctRegisters);
                    if (!regs) return false;
                    std::memcpy(regs, slot, kDistinctRegisters);
                    entry.value = hash::as_word(regs);
                } else {
                    std::memcpy(&entry.value, slot, 8);
                }
                return true;
            });
            if (!e) return QMO_SEQ_NO_MEMORY;
            r.take(e->count);
            r.at += kSlot;
            r.left -= kSlot;
        }
        return QMO_SEQ_OK;
    }
};

template <class K>
inline constexpr Kind kind_of{K::size, K::save, K::load, false};
template <bool Registers>
inline constexpr Kind hashed_kind{hashed<Registers>::size, hashed<Registers>::save, hashed<Registers>::load, true};

// ---- members -------------------------------------------------------------------------------

// A record is told by its next function (the aggregate output's, for hash
// aggregates).
struct Member {
    qmo_seq_next_fn next;
    uint16_t family;
    uint8_t elem_type;
    const Kind *kind;
};

// The members, expanded from the registry: each row whose shape holds a
// partial result (QMO_SEQ_MERGE_<shape> other than NONE) gives one member per
// type, tagged with the row's partial code.
#define QMO_PARTIAL_ROW_(family, shape, types, partial, statuses, doc) \
    QMO_PARTIAL_ROW_I_(QMO_SEQ_MERGE_##shape, family, types, partial)
#define QMO_PARTIAL_ROW_I_(merge, family, types, partial) QMO_PARTIAL_ROW_II_(merge, family, types, partial)
#define QMO_PARTIAL_ROW_II_(merge, family, types, partial) QMO_PARTIAL_##merge(family, types, partial)

#define QMO_PARTIAL_TYPED_(a, t, ctype, code) QMO_PARTIAL_TYPED_I_(QMO_SEQ_EXPAND a, t, code)
#define QMO_PARTIAL_TYPED_I_(...) QMO_PARTIAL_TYPED_II_(__VA_ARGS__)
#define QMO_PARTIAL_TYPED_II_(family, partial, kind, t, code) Member{qmo_seq_##family##_##t##_next, partial, code, &kind},
#define QMO_PARTIAL_HASHED_(a, t, ctype, code) QMO_PARTIAL_HASHED_I_(QMO_SEQ_EXPAND a, t, code)
#define QMO_PARTIAL_HASHED_I_(...) QMO_PARTIAL_HASHED_II_(__VA_ARGS__)
#define QMO_PARTIAL_HASHED_II_(family, partial, t, code) \
    Member{qmo_seq_hash_agg_##family##_##t##_next_agg, partial, code, &hashed_kind<false>},

#define QMO_PARTIAL_NONE(family, types, partial)
#define QMO_PARTIAL_FOLD(family, types, partial) \
    types(QMO_PARTIAL_TYPED_, (family, partial, kind_of<fold<agg::kCountWord>>))
#define QMO_PARTIAL_PAIR_FOLD(family, types, partial) \
    types(QMO_PARTIAL_TYPED_, (family, partial, kind_of<fold<agg::kPairCountWord>>))
#define QMO_PARTIAL_TOP(family, types, partial) types(QMO_PARTIAL_TYPED_, (family, partial, kind_of<top_list>))
#define QMO_PARTIAL_HASH(family, types, partial) types(QMO_PARTIAL_HASHED_, (family, partial))
#define QMO_PARTIAL_HASH_SKETCH(family, types, partial) \
    Member{qmo_seq_hash_agg_##family##_next_agg, partial, kAny, &hashed_kind<true>},
// Single families name their next function themselves.
#define QMO_PARTIAL_SINGLE(family, types, partial) QMO_PARTIAL_SINGLE_##family(partial)
#define QMO_PARTIAL_SINGLE_agg_count(partial) Member{qmo_seq_count_next, partial, kAny, &kind_of<count>},
#define QMO_PARTIAL_SINGLE_agg_count_not_null(partial) \
    Member{qmo_seq_count_not_null_next, partial, kAny, &kind_of<count>},
#define QMO_PARTIAL_SINGLE_agg_approxdc(partial) Member{qmo_seq_agg_approxdc_next, partial, kAny, &kind_of<approxdc>},
#define QMO_PARTIAL_SINGLE_filter_first_pos(partial) \
    Member{qmo_seq_filter_first_pos_next, partial, kAny, &kind_of<first_positions>},

const Member kMembers[] = {QMO_SEQ_FAMILIES(QMO_PARTIAL_ROW_)};

// A row carries a partial code exactly when its shape holds a partial result,
// and every code of the format belongs to exactly one row.
#define QMO_PARTIAL_HOLDS_(merge) QMO_PARTIAL_HOLDS_I_(merge)
#define QMO_PARTIAL_HOLDS_I_(merge) QMO_PARTIAL_HOLDS_##merge
#define QMO_PARTIAL_HOLDS_NONE false
#define QMO_PARTIAL_HOLDS_FOLD true
#define QMO_PARTIAL_HOLDS_PAIR_FOLD true
#define QMO_PARTIAL_HOLDS_TOP true
#define QMO_PARTIAL_HOLDS_HASH true
#define QMO_PARTIAL_HOLDS_HASH_SKETCH true
#define QMO_PARTIAL_HOLDS_SINGLE true

struct Row {
    const char *family;
    uint16_t code;
    bool holds;
};
#define QMO_PARTIAL_CHECK_ROW_(family, shape, types, partial, statuses, doc) \
    Row{#family, partial, QMO_PARTIAL_HOLDS_(QMO_SEQ_MERGE_##shape)},
constexpr Row kRows[] = {QMO_SEQ_FAMILIES(QMO_PARTIAL_CHECK_ROW_)};

constexpr bool codes_match_shapes() {
    for (const Row &r : kRows)
        if ((r.code != 0) != r.holds) return false;
    return true;
}
static_assert(codes_match_shapes(), "a registry row's partial code disagrees with its shape");

constexpr int rows_with(uint16_t code) {
    int n = 0;
    for (const Row &r : kRows) n += r.code == code;
    return n;
}
#define QMO_PARTIAL_ONE_ROW_(family, NAME, code) \
    static_assert(rows_with(code) == 1, "partial code " #NAME " needs exactly one registry row");
QMO_SEQ_PARTIAL_FAMILIES(QMO_PARTIAL_ONE_ROW_)

// Only records that can be merged hold a partial result.
inline const Member *member_of(const Iter *it) {
    if (!it->merge) return nullptr;
    for (const Member &m : kMembers)
        if (m.next == it->next) return &m;
    return nullptr;
}

inline qmo_seq_partial_header_t header_of(const Iter *it, const Member &m) {
    qmo_seq_partial_header_t h{QMO_SEQ_PARTIAL_VERSION, m.family, m.elem_type, kAny, 0, m.kind->size(it)};
    if (m.kind->keyed) {
        h.key_type = it->operand2->elem_type;
        h.key_width = it->operand2->elem_size;
    }
    return h;
}

int read_header(const void *bytes, uint64_t size, qmo_seq_partial_header_t *h) {
    const auto *at = static_cast<const unsigned char *>(bytes);
    if (!bytes || size < kHeader) return QMO_SEQ_INVALID_ARGUMENT;
    // Damaged bytes are refused before any field of them is believed.
    uint32_t magic = 0, crc = 0;
    std::memcpy(&crc, at + kCrcAt, 4);
    if (crc != checksum(at, size)) return QMO_SEQ_INVALID_ARGUMENT;
    Reader r{at, size};
    qmo_seq_partial_header_t got;
    r.take(magic);
    r.take(got.version);
    r.take(got.family);
    r.take(got.elem_type);
    r.take(got.key_type);
    r.take(got.key_width);
    r.take(crc);
    r.take(got.payload_bytes);
    if (magic != QMO_SEQ_PARTIAL_MAGIC || got.version != QMO_SEQ_PARTIAL_VERSION) return QMO_SEQ_INVALID_ARGUMENT;
    *h = got;
    return QMO_SEQ_OK;
}

int export_partial(const Iter *it, void *bytes, uint64_t *size) {
    const Member *m = member_of(it);
    if (!m) return QMO_SEQ_TYPE_MISMATCH;
    const qmo_seq_partial_header_t h = header_of(it, *m);
    const uint64_t room = *size;
    *size = kHeader + h.payload_bytes;
    if (!bytes) return QMO_SEQ_OK;
    if (room < *size) return QMO_SEQ_INVALID_ARGUMENT;
    Writer w{static_cast<unsigned char *>(bytes)};
    w.put<uint32_t>(QMO_SEQ_PARTIAL_MAGIC);
    w.put(h.version);
    w.put(h.family);
    w.put(h.elem_type);
    w.put(h.key_type);
    w.put(h.key_width);
    w.put<uint32_t>(0);
    w.put(h.payload_bytes);
    m->kind->save(it, w);
    auto *out = static_cast<unsigned char *>(bytes);
    const uint32_t crc = checksum(out, *size);
    std::memcpy(out + kCrcAt, &crc, 4);
    return QMO_SEQ_OK;
}

int import_partial(Iter *it, const void *bytes, uint64_t size) {
    const Member *m = member_of(it);
    if (!m) return QMO_SEQ_TYPE_MISMATCH;
    qmo_seq_partial_header_t h;
    if (int rc = read_header(bytes, size, &h)) return rc;
    const qmo_seq_partial_header_t mine = header_of(it, *m);
    if (h.family != mine.family || h.elem_type != mine.elem_type || h.key_type != mine.key_type ||
        h.key_width != mine.key_width)
        return QMO_SEQ_TYPE_MISMATCH;
    if (h.payload_bytes != size - kHeader) return QMO_SEQ_INVALID_ARGUMENT;
    return m->kind->load(it, Reader{static_cast<const unsigned char *>(bytes) + kHeader, h.payload_bytes});
}

// ---- carried state ---------------------------------------------------------------------------
//
// Not a partial result but the same envelope: the position word and the
// first state words of a window or cumulative aggregate.

struct Carried {
    qmo_seq_next_fn next;
    uint16_t family;
    uint8_t elem_type;
    uint8_t words;  // state words carried after the position word
};

constexpr uint16_t carry_code(std::string_view family) {
#define QMO_CARRY_CODE_(name, NAME, code) \
    if (family == #name) return code;
    QMO_SEQ_CARRY_FAMILIES(QMO_CARRY_CODE_)
#undef QMO_CARRY_CODE_
    return 0;
}

// Window: N, two running words, the ring; cumulative: the count, two accumulators.
inline constexpr uint8_t kWindowWords = 3 + QMO_SEQ_WINDOW_RING_BYTES / 8;
inline constexpr uint8_t kCumWords = 3;
inline constexpr uint64_t kMostCarried = uint64_t{1} << 62;

// Every row of the window and cumulative groups carries its state; a row
// without a code of QMO_SEQ_CARRY_FAMILIES fails to compile.
template <uint16_t Code>
constexpr uint16_t carried_code() {
    static_assert(Code != 0, "a window or cumulative family without a carried-state code");
    return Code;
}
#define QMO_CARRY_MEMBER_(a, t, ctype, code) QMO_CARRY_MEMBER_I_(QMO_SEQ_EXPAND a, t, code)
#define QMO_CARRY_MEMBER_I_(...) QMO_CARRY_MEMBER_II_(__VA_ARGS__)
#define QMO_CARRY_MEMBER_II_(family, words, t, code) \
    Carried{qmo_seq_##family##_##t##_next, carried_code<carry_code(#family)>(), code, words},
#define QMO_CARRY_WINDOW_(family, shape, types, partial, statuses, doc) types(QMO_CARRY_MEMBER_, (family, kWindowWords))
#define QMO_CARRY_CUM_(family, shape, types, partial, statuses, doc) types(QMO_CARRY_MEMBER_, (family, kCumWords))

const Carried kCarried[] = {QMO_SEQ_WINDOW_FAMILIES(QMO_CARRY_WINDOW_) QMO_SEQ_CUMULATIVE_FAMILIES(QMO_CARRY_CUM_)};

inline const Carried *carried_of(const Iter *it) {
    for (const Carried &c : kCarried)
        if (c.next == it->next) return &c;
    return nullptr;
}

int export_state(const Iter *it, void *bytes, uint64_t *size) {
    const Carried *c = carried_of(it);
    if (!c) return QMO_SEQ_TYPE_MISMATCH;
    const uint64_t payload = 8 + uint64_t{c->words} * 8, room = *size;
    *size = kHeader + payload;
    if (!bytes) return QMO_SEQ_OK;
    if (room < *size) return QMO_SEQ_INVALID_ARGUMENT;
    auto *out = static_cast<unsigned char *>(bytes);
    Writer w{out};
    w.put<uint32_t>(QMO_SEQ_PARTIAL_MAGIC);
    w.put<uint16_t>(QMO_SEQ_PARTIAL_VERSION);
    w.put(c->family);
    w.put(c->elem_type);
    w.put(kAny);
    w.put<uint16_t>(0);
    w.put<uint32_t>(0);
    w.put(payload);
    w.put(it->pos);
    w.put(it->state, uint64_t{c->words} * 8);
    const uint32_t crc = checksum(out, *size);
    std::memcpy(out + kCrcAt, &crc, 4);
    return QMO_SEQ_OK;
}

int import_state(Iter *it, const void *bytes, uint64_t size) {
    const Carried *c = carried_of(it);
    if (!c) return QMO_SEQ_TYPE_MISMATCH;
    qmo_seq_partial_header_t h;
    if (int rc = read_header(bytes, size, &h)) return rc;
    if (h.family != c->family || h.elem_type != c->elem_type || h.key_type != kAny || h.key_width != 0)
        return QMO_SEQ_TYPE_MISMATCH;
    if (h.payload_bytes != size - kHeader || h.payload_bytes != 8 + uint64_t{c->words} * 8)
        return QMO_SEQ_INVALID_ARGUMENT;
    Reader r{static_cast<const unsigned char *>(bytes) + kHeader, h.payload_bytes};
    uint64_t pos = 0, words[kWindowWords] = {};
    r.take(pos);
    r.take(words, uint64_t{c->words} * 8);
    // A window's length is its constructor's: the ring only fits that one.
    if (c->words == kWindowWords && words[0] != it->state[0]) return QMO_SEQ_TYPE_MISMATCH;
    // Cumulative divisors grow from the position word: refuse one no sequence leaves (more
    // values counted than elements seen, or so many elements that a divisor would wrap to 0).
    if (c->words == kCumWords && (pos > kMostCarried || (pos == 0 ? words[0] != 0 : words[0] > pos - 1)))
        return QMO_SEQ_INVALID_ARGUMENT;
    it->pos = pos;
    std::memcpy(it->state, words, uint64_t{c->words} * 8);
    return QMO_SEQ_OK;
}

}  // namespace qmo::partial

QMO_EXPORT int qmo_seq_export_state(const qmo_seq_iterator_t *it, void *bytes, uint64_t *size) {
    return qmo::partial::export_state(it, bytes, size);
}

QMO_EXPORT int qmo_seq_import_state(qmo_seq_iterator_t *it, const void *bytes, uint64_t size) {
    return qmo::partial::import_state(it, bytes, size);
}

QMO_EXPORT int qmo_seq_export_partial(const qmo_seq_iterator_t *it, void *bytes, uint64_t *size) {
    return qmo::partial::export_partial(it, bytes, size);
}

QMO_EXPORT int qmo_seq_import_partial(qmo_seq_iterator_t *it, const void *bytes, uint64_t size) {
    return qmo::partial::import_partial(it, bytes, size);
}

QMO_EXPORT int qmo_seq_read_partial_header(const void *bytes, uint64_t size, qmo_seq_partial_header_t *header) {
    return qmo::partial::read_header(bytes, size, header);
}
