// Storage layout of the hash aggregates' table, in a header of its own so
// that other operators can read it (a count over a hash aggregate output
// reads the number of groups). Internal: nothing here is exported.
//
// The two outputs of one hash aggregate (groups and aggregates) share one
// table through a shared record. Each output keeps its hash parameters in
// the first state words of its record.
#pragma once

#include "frame/record.hpp"

namespace qmo::hash {

inline constexpr size_t kBlockBytes = 40960;  // payload of one storage block
inline constexpr size_t kBlockEntries = 1024; // entries per entry block

// One group: the key (bytes zero-extended into the word, or a pointer to the
// key's bytes when it is longer than 8), the running aggregate, the chain
// link, the number of values folded in (0: the aggregate is null) and the
// key's hash, kept for regrowth.
struct Entry {
    uint64_t key;
    uint64_t value;
    Entry *next;
    uint64_t count;
    uint32_t hash;
};
static_assert(sizeof(Entry) * kBlockEntries == kBlockBytes, "entry blocks are filled exactly");

// One (group key, value) pair of a duplicate count: the group's key word, the
// value's word (bytes zero-extended, or a pointer when longer than 8), the
// chain link, how often the pair occurred, and both hashes.
struct DupEntry {
    uint64_t key;
    uint64_t value;
    DupEntry *next;
    uint64_t occurrences;
    uint32_t group_hash;
    uint32_t pair_hash;
};
static_assert(sizeof(DupEntry) * kBlockEntries == kBlockBytes, "pair blocks are filled exactly");

// Storage block: a link to the next (older) block, then the payload of
// entries or of packed key bytes.
struct Block {
    Block *next;
    unsigned char payload[kBlockBytes];
};
static_assert(sizeof(Block) == 8 + kBlockBytes);

// One built table; head is the newest block, tail the first.
template <class E>
struct TableOf {
    uint64_t bucket_count;  // a prime from qmo_int_get_prime_number
    uint64_t entry_count;   // distinct keys, written when the build ends
    Block *head;
    Block *tail;
    E **buckets;            // bucket_count chains (group chains in ascending key order)
};
using Table = TableOf<Entry>;
using PairTable = TableOf<DupEntry>;
static_assert(sizeof(Table) == 5 * sizeof(uint64_t));

// Allocated by the constructor and shared by both outputs.
struct Shared {
    Table *table;            // null until built
    uint64_t *agg_params;    // the aggregate output's hash parameters
    uint64_t *grp_params;    // the group output's hash parameters
};
static_assert(sizeof(Shared) == 3 * sizeof(uint64_t));

// Hash parameters: state word indexes (from 0) in each output's record.
enum Param : unsigned {
    kBucketCount = 0,   // chosen by the constructor
    kCursorBucket = 1,  // buckets already left behind
    kCursorEntry = 2,   // next entry to emit, null when a new bucket must be sought
    kShared = 3,        // the Shared record
    kBuiltTable = 4,    // the table this output built (read by the merge)
    // Duplicate counts only:
    kPairBucketCount = 5,
    kDupMinimum = 6,    // n: a value counts once it occurred n times in its group
    kPairTable = 7,     // the pair table of this output's build, until it is dropped
};

inline Shared *shared_of(const Iter *it) noexcept {
    return reinterpret_cast<Shared *>(static_cast<uintptr_t>(it->state[kShared]));
}

// The published table of an output, or null while none is built.
inline const Table *table_of(const Iter *it) noexcept {
    const Shared *s = shared_of(it);
    return s ? s->table : nullptr;
}

}  // namespace qmo::hash
