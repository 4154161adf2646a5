// Text out and back in: printing 10 million int4 and double elements with
// the default (round-tripping) formats beside an snprintf loop ("%d",
// "%.17g"), and parsing what the library printed beside a strtol / strtod
// loop over the same text. numpy's savetxt / loadtxt of the same columns:
// bench/peers/text_numpy.py.
#include "bench_support.hpp"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

template <class T>
const std::vector<T> &text_column() {
    if constexpr (std::is_integral_v<T>) return bench::column<T>(31, -2e9, 2e9);
    else return bench::column<T>(31, -1e6, 1e6);
}

template <class T>
int print(qmo_seq_iterator_t *it, char *buffer, uint64_t *size) {
    if constexpr (std::is_integral_v<T>) return qmo_seq_print_int4(it, buffer, size, nullptr);
    else return qmo_seq_print_double(it, buffer, size, nullptr);
}

// The library's text of the column, and the room it needs.
template <class T>
const std::string &printed() {
    static const std::string text = [] {
        const auto &values = text_column<T>();
        qmo_seq_iterator_t it;
        bench::Api<T>::unget(&it, values.data(), values.size());
        uint64_t size = 0;
        print<T>(&it, nullptr, &size);
        std::string s(size, '\0');
        bench::Api<T>::unget(&it, values.data(), values.size());
        print<T>(&it, s.data(), &size);
        s.resize(size);
        return s;
    }();
    return text;
}

template <class T>
void print_library(benchmark::State &state) {
    const auto &values = text_column<T>();
    std::vector<char> buffer(printed<T>().size() + 1);
    for (auto _ : state) {
        qmo_seq_iterator_t it;
        bench::Api<T>::unget(&it, values.data(), values.size());
        uint64_t size = buffer.size();
        if (print<T>(&it, buffer.data(), &size) != 0) state.SkipWithError("print failed");
        benchmark::DoNotOptimize(buffer.data());
    }
    bench::per_element(state, values.size());
}

template <class T>
void print_loop(benchmark::State &state) {
    const auto &values = text_column<T>();
    std::vector<char> buffer(printed<T>().size() * 2 + 64);
    for (auto _ : state) {
        char *p = buffer.data(), *end = p + buffer.size();
        *p++ = '{';
        for (size_t i = 0; i < values.size(); ++i) {
            if (i) *p++ = ',';
            if constexpr (std::is_integral_v<T>) p += std::snprintf(p, end - p, "%d", static_cast<int>(values[i]));
            else p += std::snprintf(p, end - p, "%.17g", static_cast<double>(values[i]));
        }
        *p++ = '}';
        benchmark::DoNotOptimize(buffer.data());
    }
    bench::per_element(state, values.size());
}

template <class T>
void parse_library(benchmark::State &state) {
    const std::string &text = printed<T>();
    std::vector<T> out(text_column<T>().size());
    for (auto _ : state) {
        qmo_seq_iterator_t it;
        if constexpr (std::is_integral_v<T>) qmo_seq_parse_int4(&it, text.c_str());
        else qmo_seq_parse_double(&it, text.c_str());
        uint64_t count = out.size();
        bench::Api<T>::get(&it, out.data(), &count);
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, out.size());
}

template <class T>
void parse_loop(benchmark::State &state) {
    const std::string &text = printed<T>();
    std::vector<T> out(text_column<T>().size());
    for (auto _ : state) {
        const char *p = text.c_str() + 1;
        size_t k = 0;
        while (*p != '}' && *p != '\0') {
            char *end;
            if constexpr (std::is_integral_v<T>) out[k++] = static_cast<T>(std::strtol(p, &end, 10));
            else out[k++] = std::strtod(p, &end);
            p = end + (*end == ',');
        }
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, out.size());
}

}  // namespace

BENCHMARK(print_library<int32_t>)->Name("print_int4/library")->Unit(benchmark::kMillisecond);
BENCHMARK(print_loop<int32_t>)->Name("print_int4/loop")->Unit(benchmark::kMillisecond);
BENCHMARK(print_library<double>)->Name("print_double/library")->Unit(benchmark::kMillisecond);
BENCHMARK(print_loop<double>)->Name("print_double/loop")->Unit(benchmark::kMillisecond);
BENCHMARK(parse_library<int32_t>)->Name("parse_printed_int4/library")->Unit(benchmark::kMillisecond);
BENCHMARK(parse_loop<int32_t>)->Name("parse_printed_int4/loop")->Unit(benchmark::kMillisecond);
BENCHMARK(parse_library<double>)->Name("parse_printed_double/library")->Unit(benchmark::kMillisecond);
BENCHMARK(parse_loop<double>)->Name("parse_printed_double/loop")->Unit(benchmark::kMillisecond);
