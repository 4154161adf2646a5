// A trade tape: time stamps, prices, sizes and symbols as columns, either
// generated (deterministically from a seed) or loaded from CSV.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tape {

// Large columns are allocated as numpy allocates large arrays: 2 MiB aligned
// and, on Linux, advised to live on huge pages, so that streaming them costs
// fewer TLB misses and hardware prefetch is not cut at every 4 KiB page.
void *allocate_column(size_t bytes);
void free_column(void *p, size_t bytes) noexcept;

template <class T>
struct ColumnAllocator {
    using value_type = T;
    ColumnAllocator() = default;
    template <class U>
    ColumnAllocator(const ColumnAllocator<U> &) noexcept {}
    T *allocate(size_t n) { return static_cast<T *>(allocate_column(n * sizeof(T))); }
    void deallocate(T *p, size_t n) noexcept { free_column(p, n * sizeof(T)); }
    template <class U>
    bool operator==(const ColumnAllocator<U> &) const noexcept { return true; }
};
template <class T>
using Column = std::vector<T, ColumnAllocator<T>>;

struct Tape {
    Column<uint64_t> ts;      // datetime: microseconds since the epoch, increasing
    Column<double> price;     // a random walk
    Column<int32_t> size;     // heavy-tailed
    Column<uint16_t> symbol;  // skewed towards low ids
    Column<char> name;        // each symbol as char(8) text "SYM<id>", derived from symbol
    // The quote tape beside it: bid stamps at their own pace (datetime,
    // microseconds, increasing) and the bids, derived from the trades.
    Column<uint64_t> quote_ts;
    Column<double> bid;
    size_t rows() const { return ts.size(); }
};

// Derives the name column from the symbols (the loaders and generate do).
void name_symbols(Tape &t);

// Derives the quote tape from the trades (the loaders and generate do): one
// quote for every five trades on average, over the trades' time span, bids a
// random walk a cent or so below the trade price of the moment.
void add_quotes(Tape &t);

// `rows` trades from one session starting at 2026-11-23 09:30 UTC.
Tape generate(size_t rows, uint64_t seed);

// Loads "ts,price,size,symbol" CSV. On failure returns false with a message
// naming the file or the line. Reports progress on stderr for slow loads.
bool load_csv(const std::string &path, Tape &out, std::string &error);

// Writes the same CSV format.
bool write_csv(const std::string &path, const Tape &t, std::string &error);

// The columns as raw little-endian files in `dir` (created if missing):
// ts.u64, price.f64, size.i32 and symbol.u16, for tools that map arrays.
bool write_columns(const std::string &dir, const Tape &t, std::string &error);
bool load_columns(const std::string &dir, Tape &out, std::string &error);

}  // namespace tape
