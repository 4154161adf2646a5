"""The trade-tape requests through the library's Python package, written as
its user would: the same trees as the C++ demo, built and pulled from Python
over numpy arrays. Prints each result and its best time as JSON; loading the
tape is not timed, building each expression is.

    PYTHONPATH=BUILD/python /usr/bin/python3 python_requests.py TAPE_DIR LIBRARY_JSON [RUNS]

The tape is the raw columns of `qmo_seq_demo --write-columns`; the request
parameters come from the library's JSON results. Results are read with the
package's defaults: a mergeable request (an aggregate or a group-by over
arrays through element-wise operators and filters) runs on every core.
"""

import os

import numpy as np

import qmo_seq as q
import timing


def main():
    tape, p, runs = timing.arguments()

    # Stamps as datetime64: the library reads them as its datetime, whatever the unit.
    ts = np.fromfile(f"{tape}/ts.u64", dtype="<u8").view("M8[ns]")
    price = np.fromfile(f"{tape}/price.f64", dtype="<f8")
    size = np.fromfile(f"{tape}/size.i32", dtype="<i4")
    symbol = np.fromfile(f"{tape}/symbol.u16", dtype="<u2")
    names = np.char.add(b"SYM", symbol.astype("S5"))  # char(8) text, as the demo's tape holds it
    rows = len(ts)
    stamps = ts.view("<u8")

    def in_range():
        # Bounds of the stamps' own dtype: mixed ones would convert the whole column first.
        lo, hi = np.searchsorted(stamps, np.array([p["range_from_us"], p["range_till_us"]], dtype=stamps.dtype))
        return q.array(price[lo:hi])

    def zero_if_none(value):
        return 0 if value is None else value

    def moving_price():
        x = q.array(price)
        return (x.window("avg", p["moving_trades"]).sum().item() + x.window("ema", p["moving_trades"]).sum().item()
                + x.grid("avg", p["grid_trades"]).sum().item())

    def top_trades():
        positions = q.array(size).top_pos_max(params=[p["top_trades"]]).evaluate()
        return sum((r + 1) * (int(size[i]) + int(i)) for r, i in enumerate(positions))

    def second_close():
        if rows == 0:
            return 0.0
        second = p["second_us"]
        ends = np.arange(stamps[0] // second * second + second, stamps[-1] + second + 1, second, dtype="<u8")
        after = np.searchsorted(stamps, ends)
        closes = price[np.maximum(after.astype(np.int64) - 1, 0)]
        carried = q.array(closes).stretch(q.array(ends.view("M8[ns]")), q.array(ts), 0.0)
        return zero_if_none(carried.sum().item())

    def direction():
        x = q.array(price)
        turns = zero_if_none((x.trend().diff() != 0).sum().item())
        crossings = (x - p["price_level"]).cross(0).agg_count().item()
        total = turns + crossings
        if rows == 0:
            return total
        low, high = q.array(size).agg_min_max().evaluate().tolist()
        counts = q.array(size).histogram(low, high + 1, p["size_bins"]).evaluate()
        return total + int((counts * np.arange(1, len(counts) + 1)).sum())

    quotes = np.fromfile(f"{tape}/quote_ts.u64", dtype="<u8").view("M8[ns]")
    bid = np.fromfile(f"{tape}/bid.f64", dtype="<f8")
    within = np.timedelta64(p["quote_within_us"], "ns")  # stamps read as datetime64[ns]: one unit per microsecond

    def spread_on_axis():
        axis = q.union(q.array(ts), q.array(quotes))
        return zero_if_none((q.array(price).asof(q.array(ts), axis) + q.array(bid).asof(q.array(quotes), axis)).sum().item())

    def at_quote():
        left, right = q.join(q.array(ts), q.array(quotes)).evaluate()
        return float((price[left] + bid[right]).sum())

    def quotes_per_second():
        step = p["second_us"]
        if rows == 0:
            return 0
        seconds = q.array(quotes.view("<u8")) / step  # integer division, as the library divides integers
        first, last = stamps[0] // step, stamps[-1] // step
        axis = np.arange(first, last + 1, dtype=np.uint64)
        placed = seconds.group_runs(seconds).count().place(seconds.unique(), q.array(axis)).evaluate()
        return int(placed.astype(np.int64) @ np.arange(1, len(axis) + 1))

    requests = {
        "large_size": lambda: zero_if_none(q.array(size)[q.array(size) > p["large_trade"]].sum().item()),
        "notional": lambda: zero_if_none((q.array(price) * q.array(size)).sum().item()),
        "price_mean": lambda: in_range().mean().item(),
        "price_dev": lambda: in_range().std().item(),
        "small_trades": lambda: zero_if_none((q.array(size) <= p["small_trade"]).sum().item()),
        "top_symbols": lambda: zero_if_none((q.array(symbol) < p["top_symbols"]).sum().item()),
        "above_100": lambda: zero_if_none((q.array(price) > p["price_level"]).sum().item()),
        "moving_price": moving_price,
        "top_trades": top_trades,
        "second_close": second_close,
        "direction": direction,
        "sampled_symbol_runs": lambda: q.array(symbol).thin(p["sample_every"]).unique().agg_count().item(),
        "symbol_match": lambda: zero_if_none(q.array(names).match(p["symbol_pattern"]).sum().item()),
        "symbol_average": lambda: q.array(size).group_by(q.array(symbol)).mean().max().item(),
        "bid_before": lambda: zero_if_none(q.array(bid).asof(q.array(quotes), q.array(ts)).sum().item()),
        "bid_after_5ms": lambda: zero_if_none(
            q.array(bid).asof(q.array(quotes), q.array(ts), direction="forward", tolerance=within).sum().item()),
        "spread_on_axis": spread_on_axis,
        "at_quote": at_quote,
        "quotes_per_second": quotes_per_second,
    }

    timing.dump(f"qmo_seq from Python, mergeable requests on {os.cpu_count()} threads (numpy {np.__version__})",
                rows, timing.best_of(requests, runs))


if __name__ == "__main__":
    main()
