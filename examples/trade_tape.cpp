#include "trade_tape.hpp"

#include <algorithm>

#include <bit>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <random>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace tape {

namespace {
constexpr size_t kHugePage = size_t{2} << 20;
constexpr size_t kLargeColumn = size_t{4} << 20;  // where numpy starts to ask for huge pages
}  // namespace

void *allocate_column(size_t bytes) {
    if (bytes < kLargeColumn) return ::operator new(bytes);
    const size_t rounded = (bytes + kHugePage - 1) / kHugePage * kHugePage;
    void *p = std::aligned_alloc(kHugePage, rounded);
    if (!p) throw std::bad_alloc();
#if defined(__linux__) && defined(MADV_HUGEPAGE)
    madvise(p, rounded, MADV_HUGEPAGE);  // advice only: a refusal changes nothing but speed
#endif
    return p;
}

void free_column(void *p, size_t bytes) noexcept {
    if (bytes < kLargeColumn) ::operator delete(p);
    else std::free(p);
}

Tape generate(size_t rows, uint64_t seed) {
    Tape t;
    t.ts.resize(rows);
    t.price.resize(rows);
    t.size.resize(rows);
    t.symbol.resize(rows);
    std::mt19937_64 rng(seed);
    std::exponential_distribution<double> gap_us(1.0 / 2000.0);  // a trade every 2 ms on average
    std::normal_distribution<double> step(0.0, 0.01);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    uint64_t now = 1795426200ull * 1000000ull;  // 2026-11-23 09:30:00 UTC
    double price = 100.0;
    for (size_t i = 0; i < rows; ++i) {
        now += 1 + static_cast<uint64_t>(gap_us(rng));
        price = std::max(0.01, price + step(rng));
        // Pareto sizes (alpha 1.2) in lots of 10, capped at a million shares.
        const double pareto = 1.0 / std::pow(1.0 - unit(rng), 1.0 / 1.2);
        t.ts[i] = now;
        t.price[i] = std::round(price * 100.0) / 100.0;
        t.size[i] = static_cast<int32_t>(std::min(1e6, 10.0 * std::floor(pareto)));
        t.symbol[i] = static_cast<uint16_t>(std::min(499.0, std::floor(500.0 * unit(rng) * unit(rng))));
    }
    name_symbols(t);
    add_quotes(t);
    return t;
}

void name_symbols(Tape &t) {
    constexpr size_t kWidth = 8;
    t.name.assign(t.rows() * kWidth, '\0');
    char name[16];
    for (size_t i = 0; i < t.rows(); ++i) {
        const int n = std::snprintf(name, sizeof name, "SYM%u", unsigned{t.symbol[i]});  // at most 8: no NUL then
        std::memcpy(t.name.data() + i * kWidth, name, static_cast<size_t>(n));
    }
}

void add_quotes(Tape &t) {
    const size_t n = t.rows() / 5;
    t.quote_ts.resize(n);
    t.bid.resize(n);
    if (n == 0) return;
    std::mt19937_64 rng(t.rows());
    // Exponential gaps with the mean that spreads n quotes over the trades' span.
    const double span = double(t.ts.back() - t.ts.front());
    std::exponential_distribution<double> gap(double(n) / std::max(1.0, span));
    std::normal_distribution<double> noise(0.0, 0.005);
    uint64_t now = t.ts.front();
    size_t k = 0;
    for (size_t i = 0; i < n; ++i) {
        now += 1 + static_cast<uint64_t>(gap(rng));
        while (k + 1 < t.rows() && t.ts[k + 1] <= now) ++k;
        t.quote_ts[i] = now;
        t.bid[i] = std::round((t.price[k] - 0.01 + noise(rng)) * 100.0) / 100.0;
    }
}

namespace {

struct FileCloser {
    void operator()(FILE *f) const { std::fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;

const char kHeader[] = "ts,price,size,symbol";

// Parses one field ending at a comma (or the line's end for the last field).
template <class T>
bool parse_field(char *&p, bool last, T &value) {
    char *end = nullptr;
    errno = 0;
    if constexpr (std::is_same_v<T, double>) {
        value = std::strtod(p, &end);
    } else if constexpr (std::is_signed_v<T>) {
        const long long v = std::strtoll(p, &end, 10);
        if (v < INT32_MIN || v > INT32_MAX) return false;
        value = static_cast<T>(v);
    } else {
        if (*p == '-') return false;
        const unsigned long long v = std::strtoull(p, &end, 10);
        if (v > std::numeric_limits<T>::max()) return false;
        value = static_cast<T>(v);
    }
    if (end == p || errno == ERANGE) return false;
    if (last ? (*end != '\0' && *end != '\n' && *end != '\r') : *end != ',') return false;
    p = end + 1;
    return true;
}

}  // namespace

bool load_csv(const std::string &path, Tape &out, std::string &error) {
    File f(std::fopen(path.c_str(), "rb"));
    if (!f) {
        error = "cannot open " + path + ": " + std::strerror(errno);
        return false;
    }
    char line[512];
    if (!std::fgets(line, sizeof line, f.get()) || std::strncmp(line, kHeader, sizeof kHeader - 1) != 0 ||
        (line[sizeof kHeader - 1] != '\n' && line[sizeof kHeader - 1] != '\r' && line[sizeof kHeader - 1] != 0)) {
        error = path + ":1: expected the header \"" + kHeader + "\"";
        return false;
    }
    out = Tape{};
    const auto start = std::chrono::steady_clock::now();
    auto last_report = start;
    static const char *const kColumns[] = {"ts", "price", "size", "symbol"};
    for (uint64_t number = 2; std::fgets(line, sizeof line, f.get()); ++number) {
        if (line[0] == '\n' || (line[0] == '\r' && line[1] == '\n')) continue;
        char *p = line;
        uint64_t ts;
        double price;
        int32_t size;
        uint16_t symbol;
        int column = 0;
        const bool ok = parse_field(p, false, ts) && ++column && parse_field(p, false, price) && ++column &&
                        parse_field(p, false, size) && ++column && parse_field(p, true, symbol);
        if (!ok) {
            line[std::strcspn(line, "\r\n")] = 0;
            error = path + ":" + std::to_string(number) + ": bad " + kColumns[column] + " value in \"" + line + "\"";
            return false;
        }
        if (!out.ts.empty() && ts < out.ts.back()) {  // requests find time ranges by binary search
            line[std::strcspn(line, "\r\n")] = 0;
            error = path + ":" + std::to_string(number) + ": time stamp before the previous one in \"" + line + "\"";
            return false;
        }
        out.ts.push_back(ts);
        out.price.push_back(price);
        out.size.push_back(size);
        out.symbol.push_back(symbol);
        if ((number & 0xFFFF) == 0) {
            const auto now = std::chrono::steady_clock::now();
            if (now - last_report >= std::chrono::seconds(1)) {
                std::fprintf(stderr, "\rloading %s: %.1f million rows", path.c_str(), out.rows() / 1e6);
                last_report = now;
            }
        }
    }
    if (last_report != start) std::fprintf(stderr, "\rloading %s: %.1f million rows, done\n", path.c_str(), out.rows() / 1e6);
    name_symbols(out);
    add_quotes(out);
    return true;
}

bool write_csv(const std::string &path, const Tape &t, std::string &error) {
    File f(std::fopen(path.c_str(), "wb"));
    if (!f) {
        error = "cannot create " + path + ": " + std::strerror(errno);
        return false;
    }
    std::fprintf(f.get(), "%s\n", kHeader);
    for (size_t i = 0; i < t.rows(); ++i)
        std::fprintf(f.get(), "%" PRIu64 ",%.2f,%" PRId32 ",%u\n", t.ts[i], t.price[i], t.size[i],
                     unsigned{t.symbol[i]});
    if (std::fflush(f.get()) != 0) {
        error = "cannot write " + path;
        return false;
    }
    return true;
}

namespace {

// The column files, in the order they are written and read.
template <class T, class F>
bool for_each_column(T &t, F &&f) {
    return f(t.ts, "ts.u64") && f(t.price, "price.f64") && f(t.size, "size.i32") && f(t.symbol, "symbol.u16");
}

// The files are memory images; a big-endian machine would need byte swaps.
bool little_endian(std::string &error) {
    if constexpr (std::endian::native == std::endian::little) return true;
    error = "raw columns are little-endian and this machine is not";
    return false;
}

}  // namespace

bool write_columns(const std::string &dir, const Tape &t, std::string &error) {
    if (!little_endian(error)) return false;
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec) {
        error = "cannot create " + dir + ": " + ec.message();
        return false;
    }
    // The quote tape too, for peers (the loaders derive it again).
    auto quotes = [&t](auto f) { return f(t.quote_ts, "quote_ts.u64") && f(t.bid, "bid.f64"); };
    const auto write = [&](const auto &column, const char *name) {
        const std::string path = dir + "/" + name;
        File f(std::fopen(path.c_str(), "wb"));
        if (!f) {
            error = "cannot create " + path + ": " + std::strerror(errno);
            return false;
        }
        if (std::fwrite(column.data(), sizeof column[0], column.size(), f.get()) != column.size() ||
            std::fflush(f.get()) != 0) {
            error = "cannot write " + path;
            return false;
        }
        return true;
    };
    return for_each_column(t, write) && quotes(write);
}

bool load_columns(const std::string &dir, Tape &out, std::string &error) {
    if (!little_endian(error)) return false;
    out = Tape{};
    const char *first = nullptr;  // the column that set the row count
    const bool read = for_each_column(out, [&](auto &column, const char *name) {
        const std::string path = dir + "/" + name;
        File f(std::fopen(path.c_str(), "rb"));
        if (!f) {
            error = "cannot open " + path + ": " + std::strerror(errno);
            return false;
        }
        std::error_code ec;
        const uintmax_t bytes = std::filesystem::file_size(path, ec);
        const size_t width = sizeof column[0];
        if (ec || bytes % width != 0) {
            error = path + ": not a whole number of " + std::to_string(width) + "-byte values";
            return false;
        }
        if (first && bytes / width != out.rows()) {
            error = path + ": " + std::to_string(bytes / width) + " values, but " + first + " has " +
                    std::to_string(out.rows());
            return false;
        }
        first = first ? first : name;
        column.resize(bytes / width);
        if (std::fread(column.data(), width, column.size(), f.get()) != column.size()) {
            error = "cannot read " + path;
            return false;
        }
        return true;
    });
    if (read && !std::is_sorted(out.ts.begin(), out.ts.end())) {  // requests find time ranges by binary search
        error = dir + "/ts: time stamps are not in order";
        return false;
    }
    if (read) name_symbols(out), add_quotes(out);
    return read;
}

}  // namespace tape
