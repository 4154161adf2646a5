"""The trade-tape requests in numpy, vectorised as a user would write them.
Prints each result and its best time as JSON; loading the tape is not timed.

    /usr/bin/python3 numpy_requests.py TAPE_DIR LIBRARY_JSON [RUNS]

The tape is the raw columns of `qmo_seq_demo --write-columns`; the request
parameters (thresholds, time range, windows, pattern) come from the library's
JSON results. The symbol names ("SYM<id>" as char(8) bytes) are built at load.
"""
import math
import sys
import warnings

import numpy as np

import timing


def ema(x, a, block=32):
    """The exponential moving average seeded with x[0], e_i = (1-a) e_(i-1) + a x_i.

    With b = 1 - a, inside a block that starts after carry c the values are
    e_k = b^(k+1) c + a b^k sum_(j<=k) b^-j x_j: a cumulative sum, exact to a
    few ulps while b^-block stays small (22 for a window of 20). The carry
    into a block is its predecessors' zero-carry ends damped by b^block per
    block back, and after `reach` blocks that weight is below 2^-53.
    """
    n, b = len(x), 1 - a
    # In place where it can be: fresh 80 MB temporaries cost more than the
    # arithmetic. And empty, not zeros: numpy takes zeroed memory from calloc
    # without asking for huge pages, and faulting it in 4 KB at a time costs
    # more than the whole EMA.
    e = np.empty(-(-n // block) * block)
    e[:n] = x
    e[n:] = 0
    e = e.reshape(-1, block)
    k = np.arange(block)
    e *= b**-k
    np.cumsum(e, axis=1, out=e)
    e *= a * b**k  # each block's EMA from a zero carry
    damping = b**block
    reach = int(math.log(2.0**-53) / math.log(damping)) + 1
    # A carry of x[0] into the first block makes e_0 = x[0].
    ends = np.append(x[0], e[:-1, -1])
    carries = np.convolve(ends, damping ** np.arange(reach))[: len(e)]
    e += np.multiply.outer(carries, b ** (k + 1))
    return e.ravel()[:n]


def like_prefix(pattern):
    """A LIKE pattern of the form literal, '_'s, '%' as (literal bytes, '_' count)."""
    literal = pattern.rstrip("%").rstrip("_")
    least = len(pattern.rstrip("%")) - len(literal)
    if "%" in literal or "_" in literal or not pattern.endswith("%"):
        sys.exit(f"numpy_requests.py: cannot match the pattern {pattern!r}, only literal, then _s, then %")
    return literal.encode(), least


def main():
    tape, p, runs = timing.arguments()

    stamps = np.fromfile(f"{tape}/ts.u64", dtype="<i8")  # microseconds, far below 2^63
    ts = stamps.view("datetime64[us]")
    price = np.fromfile(f"{tape}/price.f64", dtype="<f8")
    size = np.fromfile(f"{tape}/size.i32", dtype="<i4")
    symbol = np.fromfile(f"{tape}/symbol.u16", dtype="<u2")
    rows = len(ts)
    for name, column in (("price", price), ("size", size), ("symbol", symbol)):
        if len(column) != rows:
            sys.exit(f"{tape}: {name} has {len(column)} values, ts has {rows}")

    quotes = np.fromfile(f"{tape}/quote_ts.u64", dtype="<i8")
    bid = np.fromfile(f"{tape}/bid.f64", dtype="<f8")
    within = p["quote_within_us"]

    # Fixed-width bytes, NUL-padded, as the library holds them.
    names = np.char.add(b"SYM", np.arange(65536).astype("S5"))[symbol]

    range_from = np.datetime64(p["range_from_us"], "us")
    range_till = np.datetime64(p["range_till_us"], "us")

    def in_range():
        # The stamps are sorted: the range is a slice found by binary search.
        lo, hi = np.searchsorted(ts, [range_from, range_till])
        return price[lo:hi]

    def moving_price():
        w, n = p["moving_trades"], rows
        if n == 0:
            return 0.0
        # The window starts as w zeros: a running sum minus the sum w trades back.
        running = np.cumsum(price)
        window = running.copy()
        window[w:] -= running[:-w]
        window /= w
        starts = np.arange(0, n, p["grid_trades"])
        grid = np.add.reduceat(price, starts) / np.diff(np.append(starts, n))
        return float(window.sum() + ema(price, 2 / (w + 1)).sum() + grid.sum())

    def top_trades():
        k = min(p["top_trades"], rows)
        if k == 0:
            return 0
        # Every trade at least as large as the k-th largest is a candidate,
        # all of a tie included; only the candidates are sorted.
        kth = np.partition(size, rows - k)[rows - k]
        candidates = np.flatnonzero(size >= kth)
        top = candidates[np.lexsort((candidates, -size[candidates]))[:k]]
        return sum((r + 1) * (int(size[i]) + int(i)) for r, i in enumerate(top))

    def second_close():
        step = p["second_us"]
        if rows == 0:
            return 0.0
        first = stamps[0] // step
        ends = np.arange(first + 1, stamps[-1] // step + 2) * step
        closes = price[np.maximum(np.searchsorted(stamps, ends) - 1, 0)]
        # The close each trade gets advances by at most one second per trade:
        # c_i = min(c_(i-1) + 1, t_i) for the second t_i the trade is in, whose
        # solution is i + min over j <= i of (t_j - j). Without empty seconds
        # it is t_i. It never passes the last second, so the filler 0 is unused.
        i = np.arange(rows)
        carried = i + np.minimum.accumulate(stamps // step - first - i)
        return float(closes[carried].sum())

    def direction():
        if rows == 0:
            return 0
        moved = np.sign(np.diff(price))
        moved = moved[moved != 0]
        turns = int(len(moved) > 0) + np.count_nonzero(moved[1:] != moved[:-1])  # the first move is a turn
        side = np.sign(price - p["price_level"])
        side = side[side != 0]
        crossings = np.count_nonzero(side[1:] != side[:-1])
        bins = p["size_bins"]
        low, high = int(size.min()), int(size.max())
        counts = np.bincount((size - low).astype(np.int64) * bins // (high + 1 - low), minlength=bins)
        return int(turns + crossings + counts @ np.arange(1, bins + 1))

    def sampled_symbol_runs():
        sample = symbol[::p["sample_every"]]
        return int(len(sample) > 0) + int(np.count_nonzero(sample[1:] != sample[:-1]))

    prefix, least = like_prefix(p["symbol_pattern"])

    def symbol_match():
        # One byte column at a time: comparing the (rows, 4) block and
        # reducing along its short rows is ten times slower.
        chars = names.view(np.uint8).reshape(rows, names.itemsize)
        matched = np.ones(rows, dtype=bool)
        for j, c in enumerate(prefix):
            matched &= chars[:, j] == c
        if least:  # a NUL pads the end of a shorter name
            matched &= chars[:, len(prefix) + least - 1] != 0
        return int(np.count_nonzero(matched))

    def symbol_average():
        if rows == 0:
            return math.nan
        counts = np.bincount(symbol)
        sums = np.bincount(symbol, weights=size)  # exact: the sums stay far below 2^53
        traded = counts > 0
        return float((sums[traded] / counts[traded]).max())

    # Alignment of trades and quotes: binary searches of one sorted column in another.
    def bid_before():
        j = np.searchsorted(quotes, stamps, "right")  # quotes at or before each trade
        return float(bid[j[j > 0] - 1].sum())

    def bid_after():
        j = np.searchsorted(quotes, stamps, "left")  # the first quote at or after each trade
        has = j < len(quotes)
        j, at = j[has], stamps[has]
        return float(bid[j[quotes[j] - at <= within]].sum())

    def spread_on_axis():
        axis = np.union1d(stamps, quotes)
        i, j = np.searchsorted(stamps, axis, "right"), np.searchsorted(quotes, axis, "right")
        both = (i > 0) & (j > 0)
        return float((price[i[both] - 1] + bid[j[both] - 1]).sum())

    def at_quote():
        # Stamps are distinct within each tape, so pairs are single matches.
        _, i, j = np.intersect1d(stamps, quotes, assume_unique=True, return_indices=True)
        return float((price[i] + bid[j]).sum())

    def quotes_per_second():
        if rows == 0:
            return 0
        step = p["second_us"]
        first, last = stamps[0] // step, stamps[-1] // step
        seconds = quotes // step
        seconds = seconds[(seconds >= first) & (seconds <= last)] - first
        counts = np.bincount(seconds, minlength=last - first + 1)
        return int(counts @ np.arange(1, len(counts) + 1))

    requests = {
        "large_size": lambda: int(size[size > p["large_trade"]].sum(dtype=np.int64)),
        "notional": lambda: float((price * size).sum()),
        "price_mean": lambda: float(in_range().mean()),
        "price_dev": lambda: float(in_range().std()),
        "small_trades": lambda: int(np.count_nonzero(size <= p["small_trade"])),
        "top_symbols": lambda: int(np.count_nonzero(symbol < p["top_symbols"])),
        "above_100": lambda: int(np.count_nonzero(price > p["price_level"])),
        "moving_price": moving_price,
        "top_trades": top_trades,
        "second_close": second_close,
        "direction": direction,
        "sampled_symbol_runs": sampled_symbol_runs,
        "symbol_match": symbol_match,
        "symbol_average": symbol_average,
        "bid_before": bid_before,
        "bid_after_5ms": bid_after,
        "spread_on_axis": spread_on_axis,
        "at_quote": at_quote,
        "quotes_per_second": quotes_per_second,
    }

    with warnings.catch_warnings():
        warnings.simplefilter("ignore", RuntimeWarning)  # mean of an empty range is nan
        results = timing.best_of(requests, runs)
    timing.dump(f"numpy {np.__version__}", rows, results)


if __name__ == "__main__":
    main()
