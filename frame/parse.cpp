// Parse sources: a literal list such as {1, 2, null, 4} read as a sequence,
// 128 elements per pull, each element read by the type's scan format (char:
// a quoted string or a bare word). The list syntax is frame/list.hpp's.
#include "frame/construct.hpp"
#include "frame/list.hpp"
#include "frame/scan.hpp"

namespace qmo {
namespace {

using list::at_null_word;

bool ends_word(char c) noexcept {
    return c == '\0' || c == ',' || c == '{' || c == '}' || c == '"' || scan::is_blank(c);
}

// One char element at p (blanks before it skipped): a quoted string, in which
// a backslash takes the next character literally, or a bare word. Hands each
// byte to emit and returns the text after the element, or null when there is
// no element or the quote is not closed.
template <class Emit>
const char *read_word(const char *p, Emit &&emit) noexcept {
    while (scan::is_blank(*p)) ++p;
    if (*p == '"') {
        for (++p; *p != '"'; ++p) {
            if (*p == '\\') ++p;
            if (*p == '\0') return nullptr;
            emit(*p);
        }
        return p + 1;
    }
    const char *start = p;
    while (!ends_word(*p)) emit(*p++);
    return p == start ? nullptr : p;
}

// Reads the value of slot k at p.
template <class E>
list::Read read_element(Iter *it, unsigned k, const char *p) noexcept {
    if constexpr (E::is_char) {
        const unsigned w = it->elem_size;
        char *out = tile<char>(it) + size_t{k} * w;
        unsigned n = 0;
        bool fits = true;
        p = read_word(p, [&](char c) {
            if (n < w) out[n++] = c;
            else fits = false;
        });
        if (!p || !fits) return {nullptr, QMO_SEQ_INVALID_ARGUMENT};
        std::memset(out + n, 0, w - n);
        return {p, QMO_SEQ_OK};
    } else {
        typename scan::Format<E>::type wide;
        size_t used;
        if (!scan::read<E>(p, wide, used)) return {nullptr, QMO_SEQ_INVALID_ARGUMENT};
        tile<value_t<E>>(it)[k] = static_cast<value_t<E>>(wide);
        return {p + used, QMO_SEQ_OK};
    }
}

template <class E>
int parse_next(Iter *it) noexcept {
    return list::next_tile(it, elem_width<E>(it), [it](unsigned k, const char *p) { return read_element<E>(it, k, p); });
}

// The longest char element of the list, walking it as next will; stops at the
// end of the list or at the first element next will refuse.
unsigned longest_word(const char *p) noexcept {
    size_t longest = 0;
    while (*p != '}' && *p != '\0') {
        if (at_null_word(p)) {
            p += 4;
        } else {
            size_t n = 0;
            if (!(p = read_word(p, [&](char) { ++n; }))) break;
            longest = n > longest ? n : longest;
        }
        if (*p == ',') ++p;
    }
    if (longest < 1) return 1;
    return longest > QMO_SEQ_MAX_CHAR_WIDTH ? QMO_SEQ_MAX_CHAR_WIDTH : static_cast<unsigned>(longest);
}

template <class E>
int parse(Iter *result, const char *text, qmo_seq_next_fn next) noexcept {
    text = list::list_start(text);
    unsigned size;
    if constexpr (E::is_char) size = longest_word(text);
    else size = E::size;
    fill(result, Setup{E::code, size, next, qmo_seq_reset_parse_iterator});
    result->state[0] = result->state[1] = list::text_word(text);
    return QMO_SEQ_OK;
}

}  // namespace
}  // namespace qmo

#define QMO_STAMP_PARSE(family, t, ctype, code)                                              \
    QMO_EXPORT int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it) {                   \
        return qmo::family##_next<qmo::Elem<code>>(it);                                      \
    }                                                                                        \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, const char *text) {    \
        return qmo::family<qmo::Elem<code>>(result, text, qmo_seq_##family##_##t##_next);    \
    }
QMO_SEQ_PARSE_FAMILIES(QMO_STAMP_FAMILY)
