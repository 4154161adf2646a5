// Printing a sequence as the text its parse source reads: "{1,null,3}".
// Default formats round-trip: integers in decimal, floats with 9 and doubles
// with 17 significant digits; a caller's printf format is checked and rewritten before it reaches
// snprintf, so printf only ever sees a conversion it is given the right
// argument for, with width and precision bounded.
#include "frame/record.hpp"

#include <cmath>
#include <cstdio>

namespace qmo {
namespace {

constexpr size_t kFormatMax = 128;
// Room for one element and its comma: a bounded format's longest output
// (%f of the largest double at precision 99 is 410 characters, plus up to
// kFormatMax of literal text) fits with margin.
constexpr size_t kElementMax = 1024;

enum class Kind { signed_int, unsigned_int, floating, text };

template <class E>
constexpr Kind kind_of() {
    if constexpr (E::is_char) return Kind::text;
    else if constexpr (E::is_float) return Kind::floating;
    else if constexpr (E::is_signed) return Kind::signed_int;
    else return Kind::unsigned_int;
}

// A checked format rewritten with the length modifier of the argument it
// will get; as_unsigned: a signed element printed by an unsigned conversion.
struct Conversion {
    char text[kFormatMax + 8];
    bool as_unsigned = false;
};

bool has(const char *set, char c) noexcept { return c != '\0' && std::strchr(set, c) != nullptr; }

// At most two digits at f[i]; false when a third follows.
bool bounded_number(const char *f, size_t &i) noexcept {
    for (int digits = 0; f[i] >= '0' && f[i] <= '9'; ++i)
        if (++digits > 2) return false;
    return true;
}

bool check_format(const char *f, Kind kind, Conversion &conversion) noexcept {
    // The rewrite adds at most two bytes ("ll" where no modifier was given).
    if (strnlen(f, kFormatMax + 1) > kFormatMax) return false;
    size_t i = 0, o = 0;
    int conversions = 0;
    while (f[i] != '\0') {
        if (f[i] != '%') {
            conversion.text[o++] = f[i++];
            continue;
        }
        if (f[i + 1] == '%') {
            conversion.text[o++] = '%';
            conversion.text[o++] = '%';
            i += 2;
            continue;
        }
        if (++conversions > 1) return false;
        const size_t start = i++;
        bool alternate = false, flags_ok = true;
        while (has("-+ #0", f[i])) {
            alternate |= f[i] == '#';
            if (kind == Kind::text && f[i] != '-') flags_ok = false;
            ++i;
        }
        if (!flags_ok || !bounded_number(f, i)) return false;
        if (f[i] == '.' && !bounded_number(f, ++i)) return false;
        const size_t body_end = i;
        // Length modifiers: accepted, then replaced by the argument's own.
        if (kind == Kind::signed_int || kind == Kind::unsigned_int) {
            if ((f[i] == 'h' && f[i + 1] == 'h') || (f[i] == 'l' && f[i + 1] == 'l')) i += 2;
            else if (has("hljzt", f[i])) ++i;
        } else if (kind == Kind::floating && f[i] == 'l') {
            ++i;
        }
        const char c = f[i++];
        switch (kind) {
        case Kind::signed_int:
        case Kind::unsigned_int:
            if (!has("diuoxX", c) || (alternate && !has("oxX", c))) return false;
            conversion.as_unsigned = kind == Kind::signed_int && !has("di", c);
            break;
        case Kind::floating:
            if (!has("fFeEgGaA", c)) return false;
            break;
        case Kind::text:
            if (c != 's') return false;
            break;
        }
        std::memcpy(conversion.text + o, f + start, body_end - start);
        o += body_end - start;
        if (kind == Kind::signed_int || kind == Kind::unsigned_int) {
            conversion.text[o++] = 'l';
            conversion.text[o++] = 'l';
        }
        conversion.text[o++] = c;
    }
    if (conversions != 1) return false;
    conversion.text[o] = '\0';
    return true;
}

// ---- where the text goes ------------------------------------------------------

// The caller's buffer: text beyond the capacity is only counted. An element
// that may not fit is written to scratch and copied as far as it fits.
struct BufferSink {
    char *buffer;
    uint64_t capacity, total = 0;
    char scratch[kElementMax];
    bool scratched = false;

    BufferSink(char *b, uint64_t c) noexcept : buffer(b), capacity(c) {}

    char *reserve() noexcept {
        scratched = total + kElementMax > capacity;
        return scratched ? scratch : buffer + total;
    }
    void commit(size_t n) noexcept {
        if (scratched && total < capacity) {
            const uint64_t room = capacity - total;
            std::memcpy(buffer + total, scratch, n < room ? n : room);
        }
        total += n;
    }
    int status() const noexcept { return QMO_SEQ_OK; }
};

// The caller's write function, fed in pieces of at most QMO_SEQ_PRINT_PIECE.
struct StreamSink {
    qmo_seq_write_fn write;
    void *context;
    int failed = QMO_SEQ_OK;
    size_t used = 0;
    char piece[QMO_SEQ_PRINT_PIECE];

    StreamSink(qmo_seq_write_fn w, void *c) noexcept : write(w), context(c) {}

    void flush() noexcept {
        if (used && failed == QMO_SEQ_OK) failed = write(context, piece, used);
        used = 0;
    }
    char *reserve() noexcept {
        if (used + kElementMax > sizeof piece) flush();
        return piece + used;
    }
    void commit(size_t n) noexcept { used += n; }
    int status() const noexcept { return failed; }
};

// ---- one element --------------------------------------------------------------

// "00" "01" ... "99": decimal digits two at a time.
struct DigitPairs {
    char d[200];
    constexpr DigitPairs() : d() {
        for (int i = 0; i < 100; ++i) {
            d[2 * i] = static_cast<char>('0' + i / 10);
            d[2 * i + 1] = static_cast<char>('0' + i % 10);
        }
    }
};
inline constexpr DigitPairs kPairs{};

// Here rather than std::to_chars, whose out-of-line helpers would be
// exported with default visibility from builds that do not inline them.
template <class U>
char *write_decimal(char *q, U v) noexcept {
    char digits[20];
    char *const end = digits + sizeof digits;
    char *p = end;
    while (v >= 100) {
        const unsigned r = static_cast<unsigned>(v % 100);
        v /= 100;
        p -= 2;
        std::memcpy(p, kPairs.d + 2 * r, 2);
    }
    if (v >= 10) {
        p -= 2;
        std::memcpy(p, kPairs.d + 2 * static_cast<unsigned>(v), 2);
    } else {
        *--p = static_cast<char>('0' + static_cast<unsigned>(v));
    }
    std::memcpy(q, p, static_cast<size_t>(end - p));
    return q + (end - p);
}

template <class T>
char *write_integer(char *q, T v) noexcept {
    using U = std::conditional_t<sizeof(T) <= 4, uint32_t, uint64_t>;
    if constexpr (std::is_signed_v<T>) {
        if (v < 0) {
            *q++ = '-';
            return write_decimal<U>(q, static_cast<U>(U{0} - static_cast<U>(v)));
        }
    }
    return write_decimal<U>(q, static_cast<U>(v));
}

template <class E>
char *write_default(char *q, const Iter *in, unsigned i) noexcept {
    if constexpr (E::is_char) {
        const unsigned w = in->elem_size;
        const char *e = tile<char>(in) + size_t{i} * w;
        *q++ = '"';
        for (unsigned j = 0; j < w && e[j] != '\0'; ++j) {
            if (e[j] == '"' || e[j] == '\\') *q++ = '\\';
            *q++ = e[j];
        }
        *q++ = '"';
        return q;
    } else {
        const value_t<E> v = tile<value_t<E>>(in)[i];
        if constexpr (E::is_float) {
            // The sign of a NaN reads back, its payload cannot ("%lf" stops at
            // "nan(").
            if (std::isnan(v)) {
                if (std::signbit(v)) *q++ = '-';
                std::memcpy(q, "nan", 3);
                return q + 3;
            }
            // Enough digits to round-trip every value. (std::to_chars would be
            // shortest, but its floating-point part lives in the compiled C++
            // runtime, which C programs linking the static library lack.)
            return q + std::snprintf(q, 32, sizeof v == 4 ? "%.9g" : "%.17g", static_cast<double>(v));
        } else {
            return write_integer(q, v);
        }
    }
}

template <class E>
char *write_formatted(char *q, size_t room, const Iter *in, unsigned i, const Conversion &conversion) noexcept {
    int n;
    if constexpr (E::is_char) {
        const unsigned w = in->elem_size;
        char copy[QMO_SEQ_MAX_CHAR_WIDTH + 1];
        std::memcpy(copy, tile<char>(in) + size_t{i} * w, w);
        copy[w] = '\0';
        n = std::snprintf(q, room, conversion.text, copy);
    } else {
        using T = value_t<E>;
        const T v = tile<T>(in)[i];
        if constexpr (E::is_float) n = std::snprintf(q, room, conversion.text, static_cast<double>(v));
        else if constexpr (E::is_signed)
            n = conversion.as_unsigned
                    ? std::snprintf(q, room, conversion.text, static_cast<unsigned long long>(static_cast<std::make_unsigned_t<T>>(v)))
                    : std::snprintf(q, room, conversion.text, static_cast<long long>(v));
        else n = std::snprintf(q, room, conversion.text, static_cast<unsigned long long>(v));
    }
    // The bounds make both impossible; never count bytes that were not written.
    if (n < 0) n = 0;
    if (static_cast<size_t>(n) >= room) n = static_cast<int>(room - 1);
    return q + n;
}

// Writes the whole text of `in` from its cursor to `sink`.
template <class E, class Sink>
int print_all(Iter *in, const Conversion *conversion, Sink &sink) noexcept {
    char *p = sink.reserve();
    *p = '{';
    sink.commit(1);
    bool first = true;
    unsigned i = in->cursor;
    for (;;) {
        if (i >= in->tile_count) {
            const int rc = in->next(in);
            if (rc == QMO_SEQ_END) break;
            if (rc != QMO_SEQ_OK) return rc;
            i = 0;
        }
        const unsigned count = in->tile_count;
        for (; i < count; ++i) {
            p = sink.reserve();
            char *q = p;
            if (!first) *q++ = ',';
            first = false;
            if (is_null(in, i)) {
                std::memcpy(q, "null", 4);
                q += 4;
            } else if (conversion) {
                q = write_formatted<E>(q, kElementMax - static_cast<size_t>(q - p), in, i, *conversion);
            } else {
                q = write_default<E>(q, in, i);
            }
            sink.commit(static_cast<size_t>(q - p));
        }
        in->cursor = static_cast<uint16_t>(count);
        if (int rc = sink.status()) return rc;
    }
    p = sink.reserve();
    *p = '}';
    sink.commit(1);
    return sink.status();
}

// Type and binding of the input, then the format.
template <class E>
int check_print(const Iter *in, const char *format, Conversion &conversion) noexcept {
    if (int rc = check_readable(in, E::code)) return rc;
    if (format && !check_format(format, kind_of<E>(), conversion)) return QMO_SEQ_INVALID_ARGUMENT;
    return QMO_SEQ_OK;
}

template <class E>
int print(Iter *in, char *buffer, uint64_t *size, const char *format) noexcept {
    Conversion conversion;
    if (int rc = check_print<E>(in, format, conversion)) return rc;
    if (!size || (!buffer && *size)) return QMO_SEQ_INVALID_ARGUMENT;
    BufferSink sink(buffer, *size);
    if (int rc = print_all<E>(in, format ? &conversion : nullptr, sink)) return rc;
    if (sink.total < sink.capacity) {
        buffer[sink.total] = '\0';
        *size = sink.total;
        return QMO_SEQ_OK;
    }
    if (sink.capacity) buffer[sink.capacity - 1] = '\0';
    *size = sink.total + 1;
    return QMO_SEQ_INVALID_ARGUMENT;
}

template <class E>
int print_stream(Iter *in, const char *format, qmo_seq_write_fn write, void *context) noexcept {
    Conversion conversion;
    if (int rc = check_print<E>(in, format, conversion)) return rc;
    if (!write) return QMO_SEQ_INVALID_ARGUMENT;
    StreamSink sink(write, context);
    if (int rc = print_all<E>(in, format ? &conversion : nullptr, sink)) return rc;
    sink.flush();
    return sink.status();
}

}  // namespace
}  // namespace qmo

#define QMO_STAMP_PRINT(family, t, ctype, code)                                                         \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *input, char *buffer, uint64_t *size,      \
                                          const char *format) {                                         \
        return qmo::family<qmo::Elem<code>>(input, buffer, size, format);                               \
    }
#define QMO_STAMP_PRINT_STREAM(family, t, ctype, code)                                                  \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *input, const char *format,                \
                                          qmo_seq_write_fn write, void *context) {                      \
        return qmo::family<qmo::Elem<code>>(input, format, write, context);                             \
    }
QMO_SEQ_TEXT_FAMILIES(QMO_STAMP_FAMILY)
#undef QMO_STAMP_PRINT_
