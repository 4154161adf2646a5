// Typical requests over a trade tape, each once as an iterator tree of the
// library and once as a plain loop over the columns. The demo and the peer
// comparison (bench/peers) run this very code.
#pragma once

#include "trade_tape.hpp"

#include <cstdint>
#include <span>

namespace requests {

constexpr int32_t kLargeTrade = 1000;  // total size of trades above this
constexpr int32_t kSmallTrade = 100;   // trades of at most this many shares
constexpr uint16_t kTopSymbols = 10;   // symbol ids below this
constexpr double kPriceLevel = 100.0;  // trades priced above this

// The time range of the price requests, [from, till) in microseconds: the
// hour that starts half an hour after the first trade.
struct TimeRange {
    uint64_t from, till;
};
TimeRange price_range(const tape::Tape &t);

struct Request {
    const char *key;   // short identifier shared with the peers' scripts
    const char *name;  // what the demo prints
    double (*library)(const tape::Tape &);
    double (*loop)(const tape::Tape &);
    bool exact;  // integer results, which must match exactly
};

// In the order the demo prints them.
std::span<const Request> all();

}  // namespace requests
