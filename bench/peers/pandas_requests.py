"""The trade-tape requests in pandas, written as a pandas user would: one
DataFrame, boolean masks, rolling, ewm, resample and groupby, and for the
quotes merge_asof and merge. Prints each result and its best time as JSON;
loading the tape is not timed.

    /usr/bin/python3 pandas_requests.py TAPE_DIR LIBRARY_JSON [RUNS]

The tape is the raw columns of `qmo_seq_demo --write-columns`; the request
parameters come from the library's JSON results. The symbol names ("SYM<id>")
are Python strings in an object column, which is what pandas makes of text.
"""
import math
import re
import warnings

import numpy as np
import pandas as pd

import timing


def like_regex(pattern):
    """A LIKE pattern as a regular expression for str.fullmatch."""
    return "".join(".*" if c == "%" else "." if c == "_" else re.escape(c) for c in pattern)


def main():
    tape, p, runs = timing.arguments()

    stamps = np.fromfile(f"{tape}/ts.u64", dtype="<i8")  # microseconds
    df = pd.DataFrame({
        "ts": pd.to_datetime(stamps, unit="us"),
        "price": np.fromfile(f"{tape}/price.f64", dtype="<f8"),
        "size": np.fromfile(f"{tape}/size.i32", dtype="<i4"),
        "symbol": np.fromfile(f"{tape}/symbol.u16", dtype="<u2"),
    })
    df["name"] = "SYM" + df["symbol"].astype(str)
    rows = len(df)
    price, size, symbol = df["price"], df["size"], df["symbol"]
    range_from = pd.Timestamp(p["range_from_us"], unit="us")
    range_till = pd.Timestamp(p["range_till_us"], unit="us")

    def in_range():
        return price[(df["ts"] >= range_from) & (df["ts"] < range_till)]

    def moving_price():
        w = p["moving_trades"]
        if rows == 0:
            return 0.0
        # The window starts as w zeros: the first sums divide by w too.
        moving = price.rolling(w, min_periods=1).sum() / w
        ema = price.ewm(alpha=2 / (w + 1), adjust=False).mean()  # seeded with the first price
        grid = price.groupby(np.arange(rows) // p["grid_trades"]).mean()
        return float(moving.sum() + ema.sum() + grid.sum())

    def top_trades():
        top = size.nlargest(p["top_trades"], keep="first")  # ties: the earlier trade first
        return sum((r + 1) * (int(s) + int(i)) for r, (i, s) in enumerate(top.items()))

    def second_close():
        if rows == 0:
            return 0.0
        step = f"{p['second_us']}us"
        closes = df.set_index("ts")["price"].resample(step).last().ffill()
        # A trade advances the carried close by at most one second: close
        # number i + min over j <= i of (second_j - j), its own second
        # unless seconds without trades came before it.
        second = (df["ts"].dt.floor(step) - closes.index[0]) // pd.Timedelta(step)
        position = pd.Series(np.arange(rows))
        carried = (second - position).cummin() + position
        return float(closes.iloc[carried.to_numpy()].sum())

    def direction():
        if rows == 0:
            return 0
        moved = np.sign(price.diff().dropna())
        moved = moved[moved != 0]
        turns = int(moved.ne(moved.shift()).sum())  # the first move is a turn
        side = np.sign(price - p["price_level"])
        side = side[side != 0]
        crossings = int(side.ne(side.shift()).sum()) - int(len(side) > 0)
        low, high = int(size.min()), int(size.max())
        bins = (size - low).astype(np.int64) * p["size_bins"] // (high + 1 - low)
        counts = bins.value_counts()
        return int(turns + crossings + ((counts.index + 1) * counts).sum())

    def sampled_symbol_runs():
        sample = symbol.iloc[:: p["sample_every"]]
        return int(sample.ne(sample.shift()).sum())

    pattern = like_regex(p["symbol_pattern"])

    def symbol_average():
        if rows == 0:
            return math.nan
        return float(df.groupby("symbol")["size"].mean().max())

    # The alignment requests work on the stamps as integers (microseconds).
    trades = pd.DataFrame({"ts": stamps, "price": price.to_numpy()})
    quotes = pd.DataFrame({"ts": np.fromfile(f"{tape}/quote_ts.u64", dtype="<i8"),
                           "bid": np.fromfile(f"{tape}/bid.f64", dtype="<f8")})
    on_ts = trades[["ts"]]

    def spread_on_axis():
        axis = pd.DataFrame({"ts": pd.Index(stamps).union(pd.Index(quotes["ts"])).to_numpy()})
        carried = pd.merge_asof(pd.merge_asof(axis, trades, on="ts"), quotes, on="ts")
        return float((carried["price"] + carried["bid"]).sum())

    def quotes_per_second():
        if rows == 0:
            return 0
        step = p["second_us"]
        first, last = stamps[0] // step, stamps[-1] // step
        counts = (quotes["ts"] // step).value_counts().reindex(np.arange(first, last + 1), fill_value=0)
        return int(counts.to_numpy() @ np.arange(1, len(counts) + 1))

    requests = {
        "large_size": lambda: int(size[size > p["large_trade"]].sum()),
        "notional": lambda: float((price * size).sum()),
        "price_mean": lambda: float(in_range().mean()),
        "price_dev": lambda: float(in_range().std(ddof=0)),
        "small_trades": lambda: int((size <= p["small_trade"]).sum()),
        "top_symbols": lambda: int((symbol < p["top_symbols"]).sum()),
        "above_100": lambda: int((price > p["price_level"]).sum()),
        "moving_price": moving_price,
        "top_trades": top_trades,
        "second_close": second_close,
        "direction": direction,
        "sampled_symbol_runs": sampled_symbol_runs,
        "symbol_match": lambda: int(df["name"].str.fullmatch(pattern).sum()),
        "symbol_average": symbol_average,
        "bid_before": lambda: float(pd.merge_asof(on_ts, quotes, on="ts")["bid"].sum()),
        "bid_after_5ms": lambda: float(pd.merge_asof(on_ts, quotes, on="ts", direction="forward",
                                                     tolerance=p["quote_within_us"])["bid"].sum()),
        "spread_on_axis": spread_on_axis,
        "at_quote": lambda: float(trades.merge(quotes, on="ts").eval("price + bid").sum()),
        "quotes_per_second": quotes_per_second,
    }

    with warnings.catch_warnings():
        warnings.simplefilter("ignore", RuntimeWarning)
        results = timing.best_of(requests, runs)
    timing.dump(f"pandas {pd.__version__}", rows, results)


if __name__ == "__main__":
    main()
