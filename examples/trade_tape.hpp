// A trade tape: time stamps, prices, sizes and symbols as columns, either
// generated (deterministically from a seed) or loaded from CSV.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tape {

struct Tape {
    std::vector<uint64_t> ts;      // datetime: microseconds since the epoch, increasing
    std::vector<double> price;     // a random walk
    std::vector<int32_t> size;     // heavy-tailed
    std::vector<uint16_t> symbol;  // skewed towards low ids
    std::vector<char> name;        // each symbol as char(8) text "SYM<id>", derived from symbol
    size_t rows() const { return ts.size(); }
};

// Derives the name column from the symbols (the loaders and generate do).
void name_symbols(Tape &t);

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
