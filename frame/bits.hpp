// Bit masks over a tile: which condition bytes hold, as two 64-bit words.
#pragma once

#include "frame/record.hpp"

#include <bit>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qmo {

__extension__ typedef unsigned __int128 Mask;

inline Mask mask_of(uint64_t low, uint64_t high) noexcept { return (Mask{high} << 64) | low; }
inline Mask mask_of(const uint64_t (&words)[2]) noexcept { return mask_of(words[0], words[1]); }
inline Mask low_bits(unsigned n) noexcept { return n >= 128 ? ~Mask{0} : (Mask{1} << n) - 1; }
inline unsigned lowest_bit(Mask m) noexcept {
    const auto low = static_cast<uint64_t>(m);
    return low ? std::countr_zero(low) : 64 + std::countr_zero(static_cast<uint64_t>(m >> 64));
}
inline unsigned bit_count(Mask m) noexcept {
    return std::popcount(static_cast<uint64_t>(m)) + std::popcount(static_cast<uint64_t>(m >> 64));
}

// Index of the set bit that has r set bits below it (r < bit_count(m)).
inline unsigned select_bit(Mask m, unsigned r) noexcept {
    auto word = static_cast<uint64_t>(m);
    unsigned base = 0;
    if (const auto low = static_cast<unsigned>(std::popcount(word)); r >= low) {
        r -= low;
        word = static_cast<uint64_t>(m >> 64);
        base = 64;
    }
    for (unsigned step = 32; step >= 8; step /= 2) {
        const auto below = static_cast<unsigned>(std::popcount(word & ((uint64_t{1} << step) - 1)));
        if (r >= below) {
            r -= below;
            word >>= step;
            base += step;
        }
    }
    for (;; word >>= 1, ++base)
        if ((word & 1) && r-- == 0) return base;
}

// Bit i set where byte i of the tile is non-zero, for all 128 slots.
inline Mask nonzero_mask(const uint8_t *bytes) noexcept {
#if defined(__SSE2__)
    uint64_t words[2] = {0, 0};
    const __m128i zero = _mm_setzero_si128();
    for (unsigned chunk = 0; chunk < 8; ++chunk) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(bytes + 16 * chunk));
        const auto zeros = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, zero)));
        words[chunk / 4] |= uint64_t{~zeros & 0xFFFFu} << (16 * (chunk % 4));
    }
    return mask_of(words);
#else
    Mask m = 0;
    for (unsigned i = 0; i < kTile; ++i) m |= Mask{bytes[i] != 0} << i;
    return m;
#endif
}

// The true elements of a condition tile: non-zero, not null, below its count.
inline Mask true_mask(const Iter *cond) noexcept {
    return nonzero_mask(cond->values.u1) & ~mask_of(cond->null_bitmap) & low_bits(cond->tile_count);
}

}  // namespace qmo
