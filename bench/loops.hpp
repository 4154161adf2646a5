// The handwritten loops the library is measured against, as plain kernels
// over arrays. Internal linkage: native_loops.cpp compiles the same loops
// for the build machine's own instruction set without clashing with these.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace bench {
namespace {
namespace loops {

template <class T>
using sum_t = std::conditional_t<std::is_integral_v<T>, int64_t, double>;

template <class T>
void add(T *out, const T *a, const T *b, size_t n) {
    for (size_t i = 0; i < n; ++i) out[i] = a[i] + b[i];
}

template <class T>
void add_gt(uint8_t *out, const T *a, const T *b, const T *c, size_t n) {
    for (size_t i = 0; i < n; ++i) out[i] = (a[i] + b[i]) > c[i];
}

// The values below `bound`, compacted branch-free; returns how many.
template <class T>
size_t filter_below(T *out, const T *in, size_t n, T bound) {
    size_t k = 0;
    for (size_t i = 0; i < n; ++i) {
        out[k] = in[i];
        k += in[i] < bound;
    }
    return k;
}

template <class T>
sum_t<T> sum_below(const T *in, size_t n, T bound) {
    sum_t<T> s = 0;
    for (size_t i = 0; i < n; ++i)
        if (in[i] < bound) s += in[i];
    return s;
}

template <class T>
sum_t<T> sum(const T *in, size_t n) {
    sum_t<T> s = 0;
    for (size_t i = 0; i < n; ++i) s += in[i];
    return s;
}

template <class T>
double mean(const T *in, size_t n) {
    double s = 0;
    for (size_t i = 0; i < n; ++i) s += static_cast<double>(in[i]);
    return s / static_cast<double>(n);
}

}  // namespace loops
}  // namespace
}  // namespace bench
