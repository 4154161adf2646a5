// What the database core supplies to the sequence library: the binding flag,
// the generic resets, bitmap copy, the prime table and byte helpers. Built as
// its own library so that qmo_seq links unchanged against a real core.
#include "qmo_seq.h"

#include <cstring>

#define QMO_CORE_EXPORT extern "C" QMO_SEQ_CORE_API

QMO_SEQ_CORE_API int32_t qmo_seq_check_bindings = 0;

QMO_CORE_EXPORT int qmo_seq_reset_iterator(qmo_seq_iterator_t *it) {
    it->tile_count = 0;
    it->cursor = 0;
    it->pos = 0;
    return QMO_SEQ_OK;
}

QMO_CORE_EXPORT int qmo_seq_reset_unary_iterator(qmo_seq_iterator_t *it) {
    const int rc = it->operand1->reset(it->operand1);
    const int own = qmo_seq_reset_iterator(it);
    return rc ? rc : own;
}

QMO_CORE_EXPORT int qmo_seq_reset_binary_iterator(qmo_seq_iterator_t *it) {
    const int rc1 = it->operand1->reset(it->operand1);
    const int rc2 = it->operand2->reset(it->operand2);
    const int own = qmo_seq_reset_iterator(it);
    return rc1 ? rc1 : rc2 ? rc2 : own;
}

// Word at a time: each destination word is spliced from at most two source words.
QMO_CORE_EXPORT void qmo_seq_copy_bitmap(uint64_t *dst, uint64_t dst_bit, const uint64_t *src,
                                         uint64_t src_bit, uint64_t nbits) {
    while (nbits > 0) {
        const uint64_t d_word = dst_bit >> 6, d_off = dst_bit & 63;
        const uint64_t s_word = src_bit >> 6, s_off = src_bit & 63;
        const uint64_t take = nbits < 64 - d_off ? nbits : 64 - d_off;
        uint64_t bits = src[s_word] >> s_off;
        if (s_off != 0 && take > 64 - s_off) bits |= src[s_word + 1] << (64 - s_off);
        const uint64_t mask = (take == 64 ? ~uint64_t{0} : (uint64_t{1} << take) - 1) << d_off;
        dst[d_word] = (dst[d_word] & ~mask) | ((bits << d_off) & mask);
        dst_bit += take;
        src_bit += take;
        nbits -= take;
    }
}

// Roughly doubling primes, each far from a power of two.
static const uint32_t kPrimes[29] = {
    7,        13,       31,        53,        97,        193,       389,      769,
    1543,     3079,     6151,      12289,     24593,     49157,     98317,    196613,
    393241,   786433,   1572869,   3145739,   6291469,   12582917,  25165843, 50331653,
    100663319, 201326611, 402653189, 805306457, 1610612741};

QMO_CORE_EXPORT uint32_t qmo_int_get_prime_number(int index) {
    if (index < 0) index = 0;
    if (index > 28) index = 28;
    return kPrimes[index];
}

QMO_CORE_EXPORT int qmo_memcmp(const void *a, const void *b, size_t n) { return std::memcmp(a, b, n); }

QMO_CORE_EXPORT void qmo_memnull(void *p, size_t n) { std::memset(p, 0, n); }

QMO_CORE_EXPORT void qmo_memmove(void *dst, const void *src, size_t n) { std::memmove(dst, src, n); }

QMO_CORE_EXPORT char *qmo_strchr(const char *s, int c) { return const_cast<char *>(std::strchr(s, c)); }
