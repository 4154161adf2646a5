// Reading one number from text exactly as sscanf with the type's format
// ("%i", "%lli", "%u", "%llu", "%lf", each with "%n") reads it, but in time
// proportional to the number rather than to the rest of the text: glibc's
// sscanf measures the whole remaining text on every call.
//
// A scan stops at the first character that cannot continue a number, so it
// sees the same characters in a NUL-terminated copy of the token as in the
// text. Plain decimal tokens skip sscanf altogether; everything else (hex,
// octal, inf, nan, overflow, odd prefixes) goes through sscanf on the copy.
// Assumes the C locale's decimal point and blanks.
#pragma once

#include "frame/record.hpp"

#include <cstdio>
#include <cstdlib>

namespace qmo::scan {

// The C type a format scans into and the format itself.
template <class E>
struct Format {
    static constexpr bool floating = E::is_float;
    static constexpr bool wide = !E::is_char && E::size == 8;
    static constexpr bool is_signed = E::is_signed;
    using type = std::conditional_t<
        floating, double,
        std::conditional_t<is_signed, std::conditional_t<wide, long long, int>,
                           std::conditional_t<wide, unsigned long long, unsigned>>>;
    static constexpr const char *text = floating    ? "%lf%n"
                                        : is_signed ? (wide ? "%lli%n" : "%i%n")
                                                    : (wide ? "%llu%n" : "%u%n");
};

inline bool is_blank(char c) noexcept {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// Characters a numeric scan may take after its leading blanks: digits,
// letters (hex digits, x, exponents, inf, nan), signs, the point, and the
// parentheses and underscore of nan(...).
inline bool numeric_char(char ch) noexcept {
    const unsigned char c = static_cast<unsigned char>(ch);
    return (c >= '0' && c <= '9') || ((c | 0x20) >= 'a' && (c | 0x20) <= 'z') || c == '+' ||
           c == '-' || c == '.' || c == '(' || c == ')' || c == '_';
}

// Longest token copied; a longer one is scanned in place (correct, but then
// that token costs the rest of the text).
inline constexpr size_t kTokenMax = 512;

// [+-]digits with at most 18 digits and no leading zero (which would make
// %i read octal): the value, as the scan would store it. The scan reads
// into a 64-bit long and stores the low bits for int and unsigned, so a
// 10-digit int4 wraps here as there.
template <class W>
inline bool plain_integer(const char *s, size_t n, W &out) noexcept {
    constexpr unsigned max_digits = 18;
    size_t i = 0;
    bool negative = false;
    if (n && (s[0] == '+' || s[0] == '-')) {
        negative = s[0] == '-';
        if (negative && !std::is_signed_v<W>) return false;  // %u wraps negatives: leave to sscanf
        i = 1;
    }
    const size_t digits = n - i;
    if (digits == 0 || digits > max_digits || (s[i] == '0' && digits > 1)) return false;
    uint64_t v = 0;
    for (; i < n; ++i) {
        const unsigned d = static_cast<unsigned char>(s[i]) - '0';
        if (d > 9) return false;
        v = v * 10 + d;
    }
    out = negative ? static_cast<W>(-static_cast<int64_t>(v)) : static_cast<W>(v);
    return true;
}

// [+-]digits[.digits][e[+-]digits] making up the whole token: strtod reads
// it as the scan would.
inline bool plain_decimal(const char *s, size_t n, double &out) noexcept {
    if (n == 0) return false;
    for (size_t i = 0; i < n; ++i) {
        const char c = s[i];
        if (!((c >= '0' && c <= '9') || c == '.' || c == '+' || c == '-' || c == 'e' || c == 'E'))
            return false;
    }
    char *end = nullptr;
    out = std::strtod(s, &end);
    return end == s + n;
}

// Scans one value at p as sscanf(p, Format<E>::text, &value, &used) would;
// on success stores it and the number of characters used and returns true.
template <class E>
bool read(const char *p, typename Format<E>::type &value, size_t &used) noexcept {
    using W = typename Format<E>::type;
    size_t blanks = 0;
    while (is_blank(p[blanks])) ++blanks;
    const char *token = p + blanks;
    size_t n = 0;
    while (n < kTokenMax && numeric_char(token[n])) ++n;
    int consumed = 0;
    if (n == kTokenMax) {
        if (std::sscanf(p, Format<E>::text, &value, &consumed) != 1) return false;
        used = static_cast<size_t>(consumed);
        return true;
    }
    char copy[kTokenMax + 1];
    std::memcpy(copy, token, n);
    copy[n] = '\0';
    bool plain;
    if constexpr (Format<E>::floating) plain = plain_decimal(copy, n, value);
    else plain = plain_integer<W>(copy, n, value);
    if (plain) {
        used = blanks + n;
        return true;
    }
    if (std::sscanf(copy, Format<E>::text, &value, &consumed) != 1) return false;
    used = blanks + static_cast<size_t>(consumed);
    return true;
}

}  // namespace qmo::scan
