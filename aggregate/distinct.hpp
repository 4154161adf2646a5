// The distinct-count sketch shared by the scalar, run-grouped and hash
// aggregates: MurmurHash3 (x86, 32-bit) and 128 one-byte HyperLogLog
// registers. Internal: nothing here is exported.
#pragma once

#include "qmo_seq.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qmo {

inline constexpr uint32_t kHashSeed = QMO_SEQ_HASH_SEED;
inline constexpr unsigned kDistinctRegisters = 128;

namespace murmur {

inline constexpr uint32_t kC1 = 0xcc9e2d51u;
inline constexpr uint32_t kC2 = 0x1b873593u;

inline uint32_t mix_key(uint32_t k) noexcept { return std::rotl(k * kC1, 15) * kC2; }

inline uint32_t mix_block(uint32_t h, uint32_t k) noexcept {
    return std::rotl(h ^ mix_key(k), 13) * 5 + 0xe6546b64u;
}

inline uint32_t load_block(const unsigned char *p) noexcept {
    uint32_t k;
    std::memcpy(&k, p, 4);
    if constexpr (std::endian::native == std::endian::big) k = __builtin_bswap32(k);
    return k;
}

inline uint32_t finalize(uint32_t h, size_t len) noexcept {
    h ^= static_cast<uint32_t>(len);
    h ^= h >> 16;
    h *= 0x85ebca6bu;
    h ^= h >> 13;
    h *= 0xc2b2ae35u;
    return h ^ (h >> 16);
}

}  // namespace murmur

// MurmurHash3 x86 32-bit of len bytes. Inline so that hot loops over
// fixed-width elements get a version specialised for their width.
[[gnu::always_inline]] inline uint32_t murmur_hash3_32(const void *data, size_t len, uint32_t seed) noexcept {
    const auto *p = static_cast<const unsigned char *>(data);
    uint32_t h = seed;
    const size_t blocks = len / 4;
    for (size_t i = 0; i < blocks; ++i) h = murmur::mix_block(h, murmur::load_block(p + 4 * i));
    const unsigned char *tail = p + 4 * blocks;
    uint32_t k = 0;
    switch (len & 3) {
    case 3: k ^= uint32_t{tail[2]} << 16; [[fallthrough]];
    case 2: k ^= uint32_t{tail[1]} << 8; [[fallthrough]];
    case 1: k ^= tail[0]; h ^= murmur::mix_key(k);
    }
    return murmur::finalize(h, len);
}

// Register index: the top 7 bits. Rank: 1 + trailing zeros of the whole
// hash, at most 26 (bit 25 stops the count; it also covers h = 0).
inline void distinct_add(uint8_t *registers, uint32_t h) noexcept {
    const unsigned j = h >> 25;
    const auto rank = static_cast<uint8_t>(std::countr_zero(h | (uint32_t{1} << 25)) + 1);
    if (rank > registers[j]) registers[j] = rank;
}

inline void distinct_merge(uint8_t *into, const uint8_t *from) noexcept {
    for (unsigned j = 0; j < kDistinctRegisters; ++j)
        if (from[j] > into[j]) into[j] = from[j];
}

// The HyperLogLog estimate of 128 registers, truncated toward zero.
int64_t approximate_distinct_count(const uint8_t *registers) noexcept;

}  // namespace qmo
