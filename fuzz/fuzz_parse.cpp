// Parse sources of every type and the matchers over random texts, patterns
// and elements of width 0-64. Every text, pattern and element lives in a
// buffer of exactly its size, so the sanitizer sees any read past a NUL or a
// width. The matcher chosen for a pattern must agree with the general one.
//
// Input: byte 0 picks the mode. Parse: byte 1 picks the type, the rest is the
// text. Match: byte 1 the width, byte 2 the pattern length, then the
// pattern, then the elements.
#include "qmo_seq.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

using Iter = qmo_seq_iterator_t;
using Parse = int (*)(Iter *, const char *);

const Parse kParsers[] = {
#define FUZZ_PARSER_(a, t, ctype, code) qmo_seq_parse_##t,
    QMO_SEQ_ALL_TYPES(FUZZ_PARSER_, )
#undef FUZZ_PARSER_
};

void check(bool ok) {
    if (!ok) std::abort();
}

void fuzz_parse(const uint8_t *data, size_t size) {
    if (size < 1) return;
    const Parse parse = kParsers[data[0] % (sizeof kParsers / sizeof *kParsers)];
    std::vector<char> text(data + 1, data + size);
    text.push_back('\0');
    static Iter it;
    check(parse(&it, text.data()) == 0);
    int rc = 0;
    for (int pulls = 0; pulls < 4096 && (rc = it.next(&it)) == 0; ++pulls)
        check(it.tile_count >= 1 && it.tile_count <= QMO_SEQ_TILE_SIZE);
    if (rc == QMO_SEQ_INVALID_ARGUMENT) {
        const uint64_t at = it.state[0], pos = it.pos;
        check(it.next(&it) == QMO_SEQ_INVALID_ARGUMENT && it.state[0] == at && it.pos == pos);
    } else {
        check(rc == QMO_SEQ_END || rc == 0);
    }
    check(it.reset(&it) == 0 && it.pos == 0);
    rc = it.next(&it);
    check(rc == 0 || rc == QMO_SEQ_END || rc == QMO_SEQ_INVALID_ARGUMENT);
}

void fuzz_match(const uint8_t *data, size_t size) {
    if (size < 2) return;
    const unsigned width = data[0] % 65;
    const size_t plen = data[1] < size - 2 ? data[1] : size - 2;
    data += 2;
    size -= 2;
    std::vector<char> pattern(data, data + plen);
    pattern.push_back('\0');
    data += plen;
    size -= plen;

    Iter input{};
    input.elem_type = QMO_SEQ_TYPE_CHAR;
    input.elem_size = static_cast<uint16_t>(width);
    static Iter m;
    check(qmo_seq_match(&m, &input, pattern.data()) == 0);
    const auto chosen = reinterpret_cast<qmo_seq_matcher_fn>(static_cast<uintptr_t>(m.state[0]));
    const size_t count = width ? size / width : 4;
    for (size_t k = 0; k < count; ++k) {
        char *element = static_cast<char *>(std::malloc(width ? width : 1)) ;
        std::memcpy(element, data + k * width, width);
        const int answer = chosen(&m, element);
        check(answer == 0 || answer == 1);
        check(answer == qmo_seq_match_regex(&m, element));
        std::free(element);
    }
    if (width < 1 || width > QMO_SEQ_MAX_CHAR_WIDTH || count == 0) return;
    // Through the operator, over a source of those elements.
    static Iter source, match;
    check(qmo_seq_unget_char(&source, reinterpret_cast<const char *>(data), count, width) == 0);
    check(qmo_seq_match(&match, &source, pattern.data()) == 0);
    size_t seen = 0;
    while (match.next(&match) == 0) {
        for (unsigned i = 0; i < match.tile_count; ++i)
            check(match.values.u1[i] == chosen(&m, reinterpret_cast<const char *>(data) + (seen + i) * width));
        seen += match.tile_count;
    }
    check(seen == count);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    if (data[0] & 1) fuzz_parse(data + 1, size - 1);
    else fuzz_match(data + 1, size - 1);
    return 0;
}
