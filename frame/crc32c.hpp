// CRC-32C (Castagnoli, reflected polynomial 0x82F63B78), the checksum of
// bytes that leave the process. Portable slicing-by-8 tables, and the SSE4.2
// crc32 instruction where the CPU has it, chosen once when the library loads.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qmo {

// The CRC of bytes that follow those whose CRC is crc (0 for none), so a
// range can be summed in pieces: crc32c(crc32c(0, a, n), b, m) is the CRC of
// a then b.
uint32_t crc32c(uint32_t crc, const void *data, size_t n) noexcept;

// The two variants themselves, for tests; hardware is null without SSE4.2
// support in this build or on this CPU.
uint32_t crc32c_portable(uint32_t crc, const void *data, size_t n) noexcept;
using Crc32cFn = uint32_t (*)(uint32_t, const void *, size_t) noexcept;
extern const Crc32cFn crc32c_hardware;

}  // namespace qmo
