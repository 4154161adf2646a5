// Parse sources whose values a caller's scan function reads, in the list
// syntax of the built-in ones (frame/list.hpp). state[2] holds the scan
// function, state[3] its context.
#include "frame/construct.hpp"
#include "frame/list.hpp"
#include "frame/scan.hpp"

namespace qmo {
namespace {

unsigned size_of_type(int code) noexcept {
    switch (code) {
#define QMO_SIZE_OF_(a, t, ctype, c) \
    case c: return sizeof(ctype);
        QMO_SEQ_NUMERIC_TYPES(QMO_SIZE_OF_, )
#undef QMO_SIZE_OF_
    case QMO_SEQ_TYPE_CHAR: return 1;
    default: return 0;
    }
}

list::Read read_token(Iter *it, unsigned k, const char *p) noexcept {
    const auto scan = reinterpret_cast<qmo_seq_scan_fn>(static_cast<uintptr_t>(it->state[2]));
    void *context = reinterpret_cast<void *>(static_cast<uintptr_t>(it->state[3]));
    while (scan::is_blank(*p)) ++p;
    char *slot = it->values.bytes + size_t{k} * it->elem_size;
    std::memset(slot, 0, it->elem_size);
    uint64_t used = 0;
    const int rc = scan(context, p, slot, &used);
    if (rc != QMO_SEQ_OK && rc != QMO_SEQ_NULL_VALUE) return {nullptr, rc};
    // A token is at least one character of this text: never past its NUL.
    if (used == 0) return {nullptr, QMO_SEQ_INVALID_ARGUMENT};
    for (uint64_t j = 0; j < used; ++j)
        if (p[j] == '\0') return {nullptr, QMO_SEQ_INVALID_ARGUMENT};
    return {p + used, rc};
}

}  // namespace
}  // namespace qmo

QMO_EXPORT int qmo_seq_custom_parse_next(qmo_seq_iterator_t *it) {
    return qmo::list::next_tile(it, it->elem_size, [it](unsigned k, const char *p) { return qmo::read_token(it, k, p); });
}

QMO_EXPORT int qmo_seq_custom_parse(qmo_seq_iterator_t *result, const char *text, int elem_type, size_t elem_size,
                                    qmo_seq_scan_fn scan, void *context) {
    using namespace qmo;
    const unsigned size = size_of_type(elem_type);
    if (size == 0) return QMO_SEQ_TYPE_MISMATCH;
    const bool width_ok = elem_type == QMO_SEQ_TYPE_CHAR ? elem_size >= 1 && elem_size <= QMO_SEQ_MAX_CHAR_WIDTH
                                                         : elem_size == size;
    if (!width_ok || !scan) return QMO_SEQ_INVALID_ARGUMENT;
    text = list::list_start(text);
    fill(result, Setup{elem_type, static_cast<unsigned>(elem_size), qmo_seq_custom_parse_next,
                       qmo_seq_reset_custom_parse_iterator});
    result->state[0] = result->state[1] = list::text_word(text);
    result->state[2] = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(scan));
    result->state[3] = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(context));
    return QMO_SEQ_OK;
}
