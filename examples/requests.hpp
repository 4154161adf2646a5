// Typical requests over a trade tape, each once as an iterator tree of the
// library and once as a plain loop over the columns. The demo and the peer
// comparison (bench/peers) run this very code.
#pragma once

#include "trade_tape.hpp"

#include <cstdint>
#include <span>

namespace requests {

constexpr int32_t kLargeTrade = 1000;     // total size of trades above this
constexpr int32_t kSmallTrade = 100;      // trades of at most this many shares
constexpr uint16_t kTopSymbols = 10;      // symbol ids below this
constexpr double kPriceLevel = 100.0;     // trades priced above this; the level prices cross
constexpr uint64_t kMovingTrades = 20;    // moving average and EMA window, in trades
constexpr uint64_t kGridTrades = 30000;   // grid averages: runs of this many trades
constexpr unsigned kTopTrades = 10;       // the largest trades listed
constexpr uint64_t kSecond = 1000000;     // step of the closing-price series, in microseconds
constexpr int64_t kSizeBins = 64;         // bins of the size histogram
constexpr uint64_t kSampleEvery = 10;     // symbol runs: every this many trades
constexpr uint64_t kQuoteWithin = 5000;   // forward bids: at most this many microseconds after the trade
constexpr const char *kSymbolPattern = "SYM1_%";  // ids of two or more digits starting with 1

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
