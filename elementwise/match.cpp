// Pattern matching of char elements: "%" any run, "_" any one character,
// backslash escapes. The constructor picks the cheapest matcher that is exact
// for the pattern (plain comparison, Horspool substring search, or the
// general backtracking walk) and keeps it in the record; next runs the chosen
// matcher inline over the tile.
//
// Record: state[0] matcher, state[1] pattern (not copied), state[2] pattern
// length (low half) and element width (high half), state[3..34] the skip
// table of the substring matcher.
#include "frame/construct.hpp"

namespace qmo {
namespace {

constexpr unsigned kSkipWord = 3;

struct Pattern {
    const unsigned char *text;
    uint32_t length;
    uint32_t width;
};

Pattern pattern_of(const Iter *m) noexcept {
    return {reinterpret_cast<const unsigned char *>(static_cast<uintptr_t>(m->state[1])),
            static_cast<uint32_t>(m->state[2]), static_cast<uint32_t>(m->state[2] >> 32)};
}

const uint8_t *skip_table(const Iter *m) noexcept {
    return reinterpret_cast<const uint8_t *>(m->state + kSkipWord);
}

// A pattern without wildcards or escapes: the element equals it up to its
// width or first NUL.
inline int exact(const Iter *m, const char *element) noexcept {
    const Pattern p = pattern_of(m);
    if (p.length > p.width) return 0;
    return std::memcmp(element, p.text, p.length) == 0 && (p.length == p.width || element[p.length] == '\0');
}

// "%inner%": Horspool search for inner, which must end before the element's
// first NUL. The skip table holds, per byte, how far the window may move when
// that byte is under its last position.
inline int substring(const Iter *m, const char *element) noexcept {
    const Pattern p = pattern_of(m);
    const size_t len = p.length - 2, w = p.width;
    if (len == 0) return 1;  // "%%": every element
    const auto *e = reinterpret_cast<const unsigned char *>(element);
    const unsigned char *inner = p.text + 1;
    if (w < len || e[len - 1] == 0) return 0;
    const uint8_t *skip = skip_table(m);
    for (size_t j = len - 1;;) {
        size_t i = 0;
        while (i < len && e[j - i] == inner[len - 1 - i]) ++i;
        // Skips may jump a NUL: a window found past one lies beyond the element.
        if (i == len) return std::memchr(e, 0, j + 1 - len) == nullptr;
        j += skip[e[j]];
        if (j >= w || e[j] == 0) return 0;
    }
}

// The general walk: "%" records a restart point; on a mismatch the walk
// restarts from it one element character later.
inline int general(const Iter *m, const char *element) noexcept {
    const Pattern p = pattern_of(m);
    const unsigned char *pat = p.text;
    const auto *e = reinterpret_cast<const unsigned char *>(element);
    const size_t len = p.length, w = p.width;
    constexpr size_t kNone = ~size_t{0};
    size_t pi = 0, ei = 0, restart_p = kNone, restart_e = 0;
    for (;;) {
        if (pi < len && pat[pi] == '%') {
            while (pi < len && pat[pi] == '%') ++pi;
            if (pi >= len) return 1;  // a trailing "%" takes the rest of any element
            restart_p = pi;
            restart_e = ei;
            continue;
        }
        if (ei >= w || e[ei] == 0) return pi >= len;
        if (pi < len) {
            unsigned char c = pat[pi];
            size_t step = 1;
            if (c == '\\' && pi + 1 < len) {  // a trailing backslash stands for itself
                c = pat[pi + 1];
                step = 2;
            }
            if (c == e[ei] || (step == 1 && c == '_')) {
                pi += step;
                ++ei;
                continue;
            }
        }
        if (restart_p == kNone) return 0;
        ei = ++restart_e;
        pi = restart_p;
        // A plain character after the "%" must be met first: skip to it.
        if (pi < len && pat[pi] != '_' && pat[pi] != '\\') {
            while (ei < w && e[ei] != pat[pi] && e[ei] != 0) ++ei;
            restart_e = ei;
        }
    }
}

// Patterns of fixed shape, literals and "_" with only "%" after them (SYM1_%),
// ask the same of every element: those bytes in place, and the element no
// longer (no "%") or not shorter. For elements of at most 8 bytes that is a
// few word operations instead of a walk.
struct FixedShape {
    uint64_t literal_mask, literal_bits;  // bytes that must equal the pattern's
    uint64_t any_mask;                    // bytes that must not be NUL ("_")
    unsigned length;                      // pattern bytes before any "%"
    bool open_end;                        // a trailing "%"
};

inline bool fixed_shape(const Iter *m, FixedShape &f) noexcept {
    const Pattern p = pattern_of(m);
    if (p.width > 8) return false;
    f = FixedShape{0, 0, 0, 0, false};
    for (uint32_t i = 0; i < p.length; ++i) {
        const unsigned char c = p.text[i];
        if (c == '%') {
            f.open_end = true;
        } else if (f.open_end || c == '\\' || i >= 8) {
            return false;
        } else {
            const uint64_t byte = uint64_t{0xFF} << (8 * i);
            if (c == '_') f.any_mask |= byte;
            else f.literal_mask |= byte, f.literal_bits |= uint64_t{c} << (8 * i);
            ++f.length;
        }
    }
    return true;
}

void match_fixed(const FixedShape &f, const char *values, unsigned w, unsigned n, uint8_t *out) noexcept {
    constexpr uint64_t kOnes = 0x0101010101010101u, kHighs = 0x8080808080808080u;
    if (f.length > w) {  // the literals cannot fit
        std::memset(out, 0, n);
        return;
    }
    // No "%": the byte after the pattern ends the element, unless the width does.
    const uint64_t end_mask = !f.open_end && f.length < w ? uint64_t{0xFF} << (8 * f.length) : 0;
    with_width(w, [&](auto width) {
        for (unsigned i = 0; i < n; ++i) {
            uint64_t x = 0;
            std::memcpy(&x, values + size_t{i} * width, width);
            const uint64_t present = x | ~f.any_mask;  // a zero byte here is a NUL under "_"
            const uint64_t nul_bits = (present - kOnes) & ~present & kHighs;
            // One expression without branches: whether elements match is data, not a pattern to predict.
            out[i] = static_cast<uint8_t>((((x & f.literal_mask) ^ f.literal_bits) | nul_bits | (x & end_mask)) == 0);
        }
    });
}

template <int (*Match)(const Iter *, const char *)>
void match_all(const Iter *m, const char *values, unsigned w, unsigned n, uint8_t *out) noexcept {
    for (unsigned i = 0; i < n; ++i) out[i] = static_cast<uint8_t>(Match(m, values + size_t{i} * w));
}

int match_next(Iter *it) noexcept {
    Iter *in = it->operand1;
    if (int rc = in->next(in)) return rc;
    const unsigned n = in->tile_count, w = in->elem_size;
    const char *values = tile<char>(in);
    uint8_t *out = tile<uint8_t>(it);
    const auto chosen = reinterpret_cast<qmo_seq_matcher_fn>(static_cast<uintptr_t>(it->state[0]));
    if (chosen == qmo_seq_exact_match) match_all<exact>(it, values, w, n, out);
    else if (chosen == qmo_seq_match_substring) match_all<substring>(it, values, w, n, out);
    else if (FixedShape f; chosen == qmo_seq_match_regex && fixed_shape(it, f)) match_fixed(f, values, w, n, out);
    else if (chosen == qmo_seq_match_regex) match_all<general>(it, values, w, n, out);
    else
        for (unsigned i = 0; i < n; ++i) out[i] = static_cast<uint8_t>(chosen(it, values + size_t{i} * w));
    copy_nulls(it, in);
    if (has_nulls(in))
        for (unsigned i = 0; i < n; ++i)
            if (is_null(in, i)) out[i] = 0;
    return deliver(it, n);
}

// Counts wildcards (escaped characters are not) and notes escapes; a
// backslash before the NUL is a literal and the scan stops at the NUL.
qmo_seq_matcher_fn choose(const char *pattern, size_t length) noexcept {
    unsigned wildcards = 0;
    bool escapes = false;
    for (size_t i = 0; i < length; ++i) {
        if (pattern[i] == '\\') {
            escapes = true;
            i += i + 1 < length;
        } else if (pattern[i] == '%' || pattern[i] == '_') {
            ++wildcards;
        }
    }
    if (escapes) return qmo_seq_match_regex;
    if (wildcards == 0) return qmo_seq_exact_match;
    if (wildcards == 2 && pattern[0] == '%' && pattern[length - 1] == '%') return qmo_seq_match_substring;
    return qmo_seq_match_regex;
}

void build_skip_table(Iter *m, const char *pattern, size_t length) noexcept {
    const auto *inner = reinterpret_cast<const unsigned char *>(pattern) + 1;
    const size_t len = length - 2;
    uint8_t *skip = reinterpret_cast<uint8_t *>(m->state + kSkipWord);
    // Inner lengths above 255 do not fit a byte; a skip of 255 is still safe,
    // only shorter than it could be.
    std::memset(skip, static_cast<int>(len > 255 ? 255 : len), 256);
    for (size_t i = 0; i + 1 < len; ++i) {
        const size_t d = len - 1 - i;
        skip[inner[i]] = static_cast<uint8_t>(d > 255 ? 255 : d);
    }
}

}  // namespace
}  // namespace qmo

using namespace qmo;

QMO_EXPORT int qmo_seq_exact_match(const qmo_seq_iterator_t *match, const char *element) {
    return exact(match, element);
}

QMO_EXPORT int qmo_seq_match_substring(const qmo_seq_iterator_t *match, const char *element) {
    return substring(match, element);
}

QMO_EXPORT int qmo_seq_match_regex(const qmo_seq_iterator_t *match, const char *element) {
    return general(match, element);
}

QMO_EXPORT int qmo_seq_match_next(qmo_seq_iterator_t *it) { return match_next(it); }

QMO_EXPORT int qmo_seq_match(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input, const char *pattern) {
    if (int rc = expect_type(input, QMO_SEQ_TYPE_CHAR)) return rc;
    const Setup s{Bool::code, Bool::size, qmo_seq_match_next, qmo_seq_reset_unary_iterator, input};
    if (int rc = check_unbound(s)) return rc;
    if (!pattern) return QMO_SEQ_INVALID_ARGUMENT;
    const size_t length = std::strlen(pattern);
    if (length > UINT32_MAX) return QMO_SEQ_INVALID_ARGUMENT;
    bind_operands(s);
    fill(result, s);
    const qmo_seq_matcher_fn chosen = choose(pattern, length);
    result->state[0] = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(chosen));
    result->state[1] = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(pattern));
    result->state[2] = uint64_t{static_cast<uint32_t>(length)} | uint64_t{input->elem_size} << 32;
    if (chosen == qmo_seq_match_substring) build_skip_table(result, pattern, length);
    return QMO_SEQ_OK;
}
