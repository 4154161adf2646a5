// Printing and caller-defined parsing over random input. Every buffer is
// exactly its size, so the sanitizer sees any write past a capacity or read
// past a NUL.
//
// Input: byte 0 picks the mode and byte 1 the type.
//   format:     the rest is a format; whatever the check accepts is printed
//               (measured, into exactly that size, into one byte less, and
//               streamed) over values that include each type's extremes.
//   round trip: the rest is elements' bytes; printed with the default
//               format, they must parse back to the same values.
//   custom:     byte 2 the script length, then a script of scanner answers
//               (status, consumed), then the text the custom parse walks.
#include "qmo_seq.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Iter = qmo_seq_iterator_t;
using Print = int (*)(Iter *, char *, uint64_t *, const char *);
using Stream = int (*)(Iter *, const char *, qmo_seq_write_fn, void *);
using Parse = int (*)(Iter *, const char *);

struct Member {
    int code;
    size_t size;
    Print print;
    Stream stream;
    Parse parse;
};
const Member kMembers[] = {
#define FUZZ_MEMBER_(a, t, ctype, c) {c, sizeof(ctype), qmo_seq_print_##t, qmo_seq_print_stream_##t, qmo_seq_parse_##t},
    QMO_SEQ_ALL_TYPES(FUZZ_MEMBER_, )
#undef FUZZ_MEMBER_
};
constexpr size_t kCharWidth = 5;

void check(bool ok) {
    if (!ok) std::abort();
}

// An array source of the member's type over `bytes` (whole elements), nulls from `nulls`.
size_t source(Iter *it, const Member &m, const std::vector<uint8_t> &bytes, const uint64_t *nulls) {
    const size_t w = m.code == QMO_SEQ_TYPE_CHAR ? kCharWidth : m.size;
    const size_t n = bytes.size() / w;
    switch (m.code) {
#define FUZZ_SOURCE_(a, t, ctype, c) \
    case c: check(qmo_seq_unget_nullable_##t(it, reinterpret_cast<const ctype *>(bytes.data()), n, nulls) == 0); break;
        QMO_SEQ_NUMERIC_TYPES(FUZZ_SOURCE_, )
#undef FUZZ_SOURCE_
    default: check(qmo_seq_unget_nullable_char(it, reinterpret_cast<const char *>(bytes.data()), n, nulls, w) == 0);
    }
    return n;
}

int append(void *out, const char *text, uint64_t length) {
    static_cast<std::string *>(out)->append(text, length);
    return 0;
}

// Prints into a buffer of exactly the measured size and one byte less, and
// streams; returns the text, or nothing when the format is refused.
bool print_checked(Iter *it, const Member &m, const char *format, std::string &text) {
    uint64_t size = 0;
    const int rc = m.print(it, nullptr, &size, format);
    check(rc == QMO_SEQ_INVALID_ARGUMENT);
    if (size == 0) return false;  // refused before anything was pulled
    for (const uint64_t capacity : {size, size - 1}) {
        check(it->reset(it) == 0);
        char *buffer = static_cast<char *>(std::malloc(capacity ? capacity : 1));
        uint64_t got = capacity;
        const int status = m.print(it, buffer, &got, format);
        if (capacity == size) {
            check(status == 0 && got + 1 == size && buffer[got] == '\0');
            text.assign(buffer, got);
        } else {
            check(status == QMO_SEQ_INVALID_ARGUMENT && got == size);
        }
        std::free(buffer);
    }
    check(it->reset(it) == 0);
    std::string streamed;
    check(m.stream(it, format, append, &streamed) == 0 && streamed == text);
    return true;
}

void fuzz_format(const Member &m, const uint8_t *data, size_t size) {
    std::vector<char> format(data, data + size);
    format.push_back('\0');
    std::vector<uint8_t> bytes(4 * 8, 0);
    const uint64_t extremes[] = {0, 0x8000000000000000ull, 0x7fefffffffffffffull, 0xffffffffffffffffull};
    std::memcpy(bytes.data(), extremes, sizeof extremes);
    if (m.size == 4) {
        const uint32_t narrow[] = {0x80000000u, 0x7f7fffffu, 0xffffffffu, 1};
        std::memcpy(bytes.data(), narrow, sizeof narrow);
    }
    const uint64_t nulls[1] = {0x4};
    static Iter it;
    source(&it, m, bytes, nulls);
    std::string text;
    print_checked(&it, m, format.data(), text);
}

void fuzz_round_trip(const Member &m, const uint8_t *data, size_t size) {
    if (size < 1) return;
    const uint64_t nulls[2] = {data[0] * 0x0101010101010101ull, data[0] * 0x0101010101010101ull};
    const size_t w = m.code == QMO_SEQ_TYPE_CHAR ? kCharWidth : m.size;
    std::vector<uint8_t> bytes(data + 1, data + size);
    if (bytes.size() > QMO_SEQ_TILE_SIZE * w) bytes.resize(QMO_SEQ_TILE_SIZE * w);  // as many as null bits
    static Iter it, back;
    const size_t n = source(&it, m, bytes, nulls);
    std::string text;
    check(print_checked(&it, m, nullptr, text));
    check(m.parse(&back, text.c_str()) == 0);
    size_t k = 0;
    while (back.next(&back) == 0) {
        for (unsigned i = 0; i < back.tile_count; ++i, ++k) {
            check(k < n);
            const bool null = (nulls[k / 64] >> (k % 64)) & 1;
            check(((back.null_bitmap[i / 64] >> (i % 64)) & 1) == null);
            if (null) continue;
            const uint8_t *want = bytes.data() + k * w;
            const uint8_t *got = reinterpret_cast<const uint8_t *>(back.values.bytes) + size_t{i} * back.elem_size;
            if (m.code == QMO_SEQ_TYPE_CHAR) {
                const size_t len = strnlen(reinterpret_cast<const char *>(want), w);
                check(len <= back.elem_size && std::memcmp(got, want, len) == 0);
                for (size_t j = len; j < back.elem_size; ++j) check(got[j] == 0);
            } else if (m.code == QMO_SEQ_TYPE_DOUBLE || m.code == QMO_SEQ_TYPE_FLOAT) {
                double a, b;
                if (m.size == 8) {
                    std::memcpy(&a, want, 8);
                    std::memcpy(&b, got, 8);
                } else {
                    float x, y;
                    std::memcpy(&x, want, 4);
                    std::memcpy(&y, got, 4);
                    a = x, b = y;
                }
                if (std::isnan(a)) check(std::isnan(b) && std::signbit(a) == std::signbit(b));
                else check(std::memcmp(got, want, m.size) == 0);
            } else {
                check(std::memcmp(got, want, m.size) == 0);
            }
        }
    }
    check(k == n);
}

// A scanner that answers from a script: each entry's first byte picks the
// status, its second the characters it claims to have read.
struct Script {
    const uint8_t *at, *end;
    size_t width;
};

int scripted(void *context, const char *token, void *value, uint64_t *consumed) {
    auto *s = static_cast<Script *>(context);
    if (s->end - s->at < 2) return QMO_SEQ_INVALID_ARGUMENT;
    const uint8_t how = s->at[0], used = s->at[1];
    s->at += 2;
    static const int kStatuses[] = {0, 0, 0, QMO_SEQ_NULL_VALUE, QMO_SEQ_INVALID_ARGUMENT, QMO_SEQ_UNSUPPORTED};
    // Reads what it claims to, up to the NUL, as a scanner would.
    for (size_t i = 0; i < used && token[i] != '\0'; ++i) static_cast<char *>(value)[i % s->width] ^= token[i];
    *consumed = used == 255 ? ~uint64_t{0} : used;
    return kStatuses[how % 6];
}

void fuzz_custom(const Member &m, const uint8_t *data, size_t size) {
    if (size < 1) return;
    const size_t script = data[0] * 2 < size - 1 ? data[0] * 2 : size - 1;
    std::vector<char> text(data + 1 + script, data + size);
    text.push_back('\0');
    const size_t w = m.code == QMO_SEQ_TYPE_CHAR ? kCharWidth : m.size;
    Script s{data + 1, data + 1 + script, w};
    static Iter it;
    check(qmo_seq_custom_parse(&it, text.data(), m.code, w, scripted, &s) == 0);
    int rc;
    for (int pulls = 0; pulls < 4096 && (rc = it.next(&it)) == 0; ++pulls)
        check(it.tile_count >= 1 && it.tile_count <= QMO_SEQ_TILE_SIZE);
    const char *at = reinterpret_cast<const char *>(static_cast<uintptr_t>(it.state[0]));
    check(at >= text.data() && at < text.data() + text.size());
    if (rc != 0 && rc != QMO_SEQ_END) {
        const uint64_t pos = it.pos;
        check(rc == QMO_SEQ_INVALID_ARGUMENT || rc == QMO_SEQ_UNSUPPORTED);
        const int again = it.next(&it);
        check(again != 0 || it.pos > pos);
    }
    check(it.reset(&it) == 0 && it.pos == 0 && it.state[0] == it.state[1]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    const Member &m = kMembers[data[1] % (sizeof kMembers / sizeof *kMembers)];
    switch (data[0] % 3) {
    case 0: fuzz_format(m, data + 2, size - 2); break;
    case 1: fuzz_round_trip(m, data + 2, size - 2); break;
    default: fuzz_custom(m, data + 2, size - 2); break;
    }
    return 0;
}
