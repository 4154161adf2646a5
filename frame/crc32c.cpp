#include "frame/crc32c.hpp"

#include "frame/isa.hpp"

#include <array>
#include <cstring>

#if QMO_SEQ_DISPATCH
#include <nmmintrin.h>
#endif

namespace qmo {
namespace {

constexpr uint32_t kPolynomial = 0x82F63B78u;

// Table k gives the CRC of a byte followed by k zero bytes.
constexpr auto kTables = [] {
    std::array<std::array<uint32_t, 256>, 8> t{};
    for (uint32_t b = 0; b < 256; ++b) {
        uint32_t c = b;
        for (int k = 0; k < 8; ++k) c = c & 1 ? (c >> 1) ^ kPolynomial : c >> 1;
        t[0][b] = c;
    }
    for (uint32_t b = 0; b < 256; ++b)
        for (int k = 1; k < 8; ++k) t[k][b] = (t[k - 1][b] >> 8) ^ t[0][t[k - 1][b] & 0xFF];
    return t;
}();

#if QMO_SEQ_DISPATCH
__attribute__((target("sse4.2"))) uint32_t crc32c_sse42(uint32_t crc, const void *data, size_t n) noexcept {
    const auto *p = static_cast<const unsigned char *>(data);
    uint64_t c = ~crc;
    for (; n >= 8; n -= 8, p += 8) {
        uint64_t word;
        std::memcpy(&word, p, 8);
        c = _mm_crc32_u64(c, word);
    }
    auto c32 = static_cast<uint32_t>(c);
    for (; n; --n) c32 = _mm_crc32_u8(c32, *p++);
    return ~c32;
}
#endif

}  // namespace

uint32_t crc32c_portable(uint32_t crc, const void *data, size_t n) noexcept {
    const auto *p = static_cast<const unsigned char *>(data);
    uint32_t c = ~crc;
    const auto &t = kTables;
    for (; n >= 8; n -= 8, p += 8) {
        uint32_t lo, hi;
        std::memcpy(&lo, p, 4);
        std::memcpy(&hi, p + 4, 4);
        lo ^= c;
        c = t[7][lo & 0xFF] ^ t[6][lo >> 8 & 0xFF] ^ t[5][lo >> 16 & 0xFF] ^ t[4][lo >> 24] ^
            t[3][hi & 0xFF] ^ t[2][hi >> 8 & 0xFF] ^ t[1][hi >> 16 & 0xFF] ^ t[0][hi >> 24];
    }
    for (; n; --n) c = (c >> 8) ^ t[0][(c ^ *p++) & 0xFF];
    return ~c;
}

// Every AVX2 CPU has SSE4.2, and QMO_SEQ_ISA=baseline caps this choice as it
// caps the other kernels'.
#if QMO_SEQ_DISPATCH
const Crc32cFn crc32c_hardware = detect_isa() == Isa::avx2 ? crc32c_sse42 : nullptr;
#else
const Crc32cFn crc32c_hardware = nullptr;
#endif

uint32_t crc32c(uint32_t crc, const void *data, size_t n) noexcept {
    static const Crc32cFn chosen = crc32c_hardware ? crc32c_hardware : crc32c_portable;
    return chosen(crc, data, n);
}

}  // namespace qmo
