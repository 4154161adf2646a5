// Arithmetic with the library's defined results: integers wrap in their own
// width (computed through unsigned types, since signed overflow is undefined
// in C++), and double -> 64-bit conversions behave as the machine's
// truncating conversion does, also out of range.
#pragma once

#include <cstdint>
#include <type_traits>

namespace qmo {

// Unsigned type at least as wide as int, so that promotions of small types
// cannot turn unsigned arithmetic into signed (and overflowing) arithmetic.
template <class T>
using wide_unsigned_t =
    std::conditional_t<(sizeof(T) < sizeof(unsigned)), unsigned, std::make_unsigned_t<T>>;

template <class T>
constexpr T wrap_add(T a, T b) noexcept {
    if constexpr (std::is_integral_v<T>) {
        using U = wide_unsigned_t<T>;
        return static_cast<T>(static_cast<U>(a) + static_cast<U>(b));
    } else {
        return a + b;
    }
}

template <class T>
constexpr T wrap_sub(T a, T b) noexcept {
    if constexpr (std::is_integral_v<T>) {
        using U = wide_unsigned_t<T>;
        return static_cast<T>(static_cast<U>(a) - static_cast<U>(b));
    } else {
        return a - b;
    }
}

template <class T>
constexpr T wrap_mul(T a, T b) noexcept {
    if constexpr (std::is_integral_v<T>) {
        using U = wide_unsigned_t<T>;
        return static_cast<T>(static_cast<U>(a) * static_cast<U>(b));
    } else {
        return a * b;
    }
}

// Two's complement negation; the most negative value maps to itself.
template <class T>
constexpr T wrap_neg(T a) noexcept {
    static_assert(std::is_integral_v<T>);
    using U = wide_unsigned_t<T>;
    return static_cast<T>(U{0} - static_cast<U>(a));
}

inline constexpr double kTwo63 = 9223372036854775808.0;

// double -> int64 truncating toward zero; NaN and out-of-range values give the
// most negative value, as the hardware conversion does.
constexpr int64_t double_to_i64(double d) noexcept {
    if (d >= -kTwo63 && d < kTwo63) return static_cast<int64_t>(d);
    return INT64_MIN;
}

// double -> uint64: values at or above 2^63 go through the 2^63 offset.
constexpr uint64_t double_to_u64(double d) noexcept {
    if (d >= kTwo63)
        return static_cast<uint64_t>(double_to_i64(d - kTwo63)) | (uint64_t{1} << 63);
    return static_cast<uint64_t>(double_to_i64(d));
}

}  // namespace qmo
