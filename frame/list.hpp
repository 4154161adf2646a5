// The list syntax of the parse sources, shared by the built-in parsers and
// caller-defined ones: an optional "{" (skipped at construction), elements
// separated by single commas, ended by "}" or NUL. The word null directly at
// an element's start is a null; anything else is handed to the element
// reader. The record keeps the current text position in state[0] and the
// start of the list in state[1]; the text is not copied.
#pragma once

#include "frame/record.hpp"

namespace qmo::list {

inline const char *text_at(const Iter *it) noexcept {
    return reinterpret_cast<const char *>(static_cast<uintptr_t>(it->state[0]));
}
inline uint64_t text_word(const char *p) noexcept {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(p));
}

// Byte by byte, so a text ending in "nu" is never read past its NUL.
inline bool at_null_word(const char *p) noexcept {
    return p[0] == 'n' && p[1] == 'u' && p[2] == 'l' && p[3] == 'l';
}

// What an element reader found: the text after the element, and 0 for a
// value, QMO_SEQ_NULL_VALUE for a null, or the status that refuses the token.
struct Read {
    const char *after;
    int status;
};

// Construction: the start of the list, after an optional brace.
inline const char *list_start(const char *text) noexcept {
    if (!text) return "";
    return *text == '{' ? text + 1 : text;
}

// One pull: up to a tile of elements, slot k read by read(k, p). A refused
// token loses the tile and leaves the position where the call began, so the
// next call fails at the same token. A null's slot is zeroed.
template <class ReadElement>
inline int next_tile(Iter *it, unsigned width, ReadElement &&read) noexcept {
    const char *p = text_at(it);
    clear_nulls(it);
    unsigned k = 0;
    for (; k < kTile && *p != '}' && *p != '\0'; ++k) {
        Read r;
        if (at_null_word(p)) r = {p + 4, QMO_SEQ_NULL_VALUE};
        else r = read(k, p);
        if (r.status == QMO_SEQ_NULL_VALUE) {
            set_null(it, k);
            std::memset(it->values.bytes + size_t{k} * width, 0, width);
        } else if (r.status != QMO_SEQ_OK) {
            it->tile_count = 0;
            return r.status;
        }
        p = r.after;
        if (*p == ',') ++p;
    }
    it->state[0] = text_word(p);
    if (k == 0) {
        it->tile_count = 0;
        return QMO_SEQ_END;
    }
    return deliver(it, k);
}

}  // namespace qmo::list
