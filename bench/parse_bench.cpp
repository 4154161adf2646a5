// Pattern matching over 10 million char(16) elements (exact, substring and
// general patterns) beside memcmp, std::boyer_moore_horspool_searcher and a
// handwritten scan; parsing int4 and double lists of 1 and 10 million values
// beside strtol / strtod loops (two sizes, to show the cost is linear).
#include "bench_support.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

namespace {

constexpr size_t kWidth = 16;

// Ticker-like elements: "SYM" and up to 7 digits, NUL-padded to 16 bytes.
const std::vector<char> &symbols() {
    static const std::vector<char> made = [] {
        std::vector<char> v(bench::kRows * kWidth, '\0');
        std::mt19937_64 rng(5);
        for (size_t i = 0; i < bench::kRows; ++i)
            std::snprintf(v.data() + i * kWidth, kWidth, "SYM%u", static_cast<unsigned>(rng() % 10'000'000));
        return v;
    }();
    return made;
}

uint64_t count_matches(const char *pattern) {
    const auto &in = symbols();
    qmo_seq_iterator_t source, match;
    qmo_seq_unget_char(&source, in.data(), bench::kRows, kWidth);
    qmo_seq_match(&match, &source, pattern);
    uint64_t hits = 0;
    while (match.next(&match) == 0)
        for (unsigned i = 0; i < match.tile_count; ++i) hits += match.values.u1[i];
    return hits;
}

void match_library(benchmark::State &state, const char *pattern) {
    symbols();  // made before the clock runs
    for (auto _ : state) benchmark::DoNotOptimize(count_matches(pattern));
    bench::per_element(state, bench::kRows);
}

template <class Matches>
void match_loop(benchmark::State &state, Matches matches) {
    const auto &in = symbols();
    for (auto _ : state) {
        uint64_t hits = 0;
        for (size_t i = 0; i < bench::kRows; ++i) hits += matches(in.data() + i * kWidth);
        benchmark::DoNotOptimize(hits);
    }
    bench::per_element(state, bench::kRows);
}

const char kExact[] = "SYM4242";
const std::string kInner = "4242";

void exact_loop(benchmark::State &state) {
    match_loop(state, [](const char *e) {
        constexpr size_t n = sizeof kExact - 1;
        return std::memcmp(e, kExact, n) == 0 && e[n] == '\0';
    });
}

void substring_loop(benchmark::State &state) {
    const std::boyer_moore_horspool_searcher searcher(kInner.begin(), kInner.end());
    match_loop(state, [&](const char *e) {
        const char *end = e + strnlen(e, kWidth);
        return std::search(e, end, searcher) != end;
    });
}

// "%4_2%": a 4, any character, a 2.
void general_loop(benchmark::State &state) {
    match_loop(state, [](const char *e) {
        const size_t n = strnlen(e, kWidth);
        for (size_t s = 0; s + 3 <= n; ++s)
            if (e[s] == '4' && e[s + 2] == '2') return true;
        return false;
    });
}

// ---- parsing ----------------------------------------------------------------

template <class T>
const std::string &list_text(size_t n) {
    static std::map<size_t, std::string> made;
    auto it = made.find(n);
    if (it != made.end()) return it->second;
    const auto &values = bench::column<T>(9, -1e6, 1e6);
    std::string text = "{";
    char item[40];
    for (size_t i = 0; i < n; ++i) {
        if constexpr (std::is_integral_v<T>) std::snprintf(item, sizeof item, "%d,", static_cast<int>(values[i]));
        else std::snprintf(item, sizeof item, "%.10g,", static_cast<double>(values[i]));
        text += item;
    }
    text.back() = '}';
    return made.emplace(n, std::move(text)).first->second;
}

template <class T, int (*Parse)(qmo_seq_iterator_t *, const char *), int (*Get)(qmo_seq_iterator_t *, T *, uint64_t *)>
void parse_library(benchmark::State &state) {
    const size_t n = static_cast<size_t>(state.range(0));
    const std::string &text = list_text<T>(n);
    std::vector<T> out(n);
    for (auto _ : state) {
        qmo_seq_iterator_t it;
        Parse(&it, text.c_str());
        uint64_t count = n;
        Get(&it, out.data(), &count);
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, n);
}

template <class T>
void parse_loop(benchmark::State &state) {
    const size_t n = static_cast<size_t>(state.range(0));
    const std::string &text = list_text<T>(n);
    std::vector<T> out(n);
    for (auto _ : state) {
        const char *p = text.c_str() + 1;
        size_t k = 0;
        while (*p != '}' && *p != '\0') {
            char *end;
            if constexpr (std::is_integral_v<T>) out[k++] = static_cast<T>(std::strtol(p, &end, 0));
            else out[k++] = std::strtod(p, &end);
            p = end + (*end == ',');
        }
        benchmark::DoNotOptimize(out.data());
    }
    bench::per_element(state, n);
}

}  // namespace

BENCHMARK_CAPTURE(match_library, exact, kExact)->Name("match_exact_char16/library")->Unit(benchmark::kMillisecond);
BENCHMARK(exact_loop)->Name("match_exact_char16/loop")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(match_library, substring, "%4242%")->Name("match_substring_char16/library")->Unit(benchmark::kMillisecond);
BENCHMARK(substring_loop)->Name("match_substring_char16/loop")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(match_library, general, "%4_2%")->Name("match_general_char16/library")->Unit(benchmark::kMillisecond);
BENCHMARK(general_loop)->Name("match_general_char16/loop")->Unit(benchmark::kMillisecond);

BENCHMARK(parse_library<int32_t, qmo_seq_parse_int4, qmo_seq_get_int4>)
    ->Name("parse_int4/library")->Arg(1'000'000)->Arg(10'000'000)->Unit(benchmark::kMillisecond);
BENCHMARK(parse_loop<int32_t>)->Name("parse_int4/loop")->Arg(1'000'000)->Arg(10'000'000)->Unit(benchmark::kMillisecond);
BENCHMARK(parse_library<double, qmo_seq_parse_double, qmo_seq_get_double>)
    ->Name("parse_double/library")->Arg(1'000'000)->Arg(10'000'000)->Unit(benchmark::kMillisecond);
BENCHMARK(parse_loop<double>)->Name("parse_double/loop")->Arg(1'000'000)->Arg(10'000'000)->Unit(benchmark::kMillisecond);
