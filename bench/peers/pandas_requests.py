"""The alignment requests with pandas (merge_asof, merge), written as its user
would. Prints each result and its best time as JSON; loading the tape is not
timed. Requests without an alignment are not run here (numpy answers them).

    /usr/bin/python3 pandas_requests.py TAPE_DIR LIBRARY_JSON [RUNS]
"""
import numpy as np
import pandas as pd

import timing

ALIGNMENT = ("bid_before", "bid_after_5ms", "spread_on_axis", "at_quote", "quotes_per_second")


def main():
    tape, p, runs = timing.arguments()
    stamps = np.fromfile(f"{tape}/ts.u64", dtype="<i8")  # microseconds
    price = np.fromfile(f"{tape}/price.f64", dtype="<f8")
    trades = pd.DataFrame({"ts": stamps, "price": price})
    quotes = pd.DataFrame({"ts": np.fromfile(f"{tape}/quote_ts.u64", dtype="<i8"),
                           "bid": np.fromfile(f"{tape}/bid.f64", dtype="<f8")})
    rows = len(trades)
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
        "bid_before": lambda: float(pd.merge_asof(on_ts, quotes, on="ts")["bid"].sum()),
        "bid_after_5ms": lambda: float(pd.merge_asof(on_ts, quotes, on="ts", direction="forward",
                                                     tolerance=p["quote_within_us"])["bid"].sum()),
        "spread_on_axis": spread_on_axis,
        "at_quote": lambda: float(trades.merge(quotes, on="ts").eval("price + bid").sum()),
        "quotes_per_second": quotes_per_second,
    }
    results = timing.best_of(requests, runs)
    with open(timing.sys.argv[2]) as f:
        keys = [r["key"] for r in timing.json.load(f)["requests"]]
    for key in keys:
        if key not in results:
            results[key] = {"value": None, "seconds": None, "not_run": "run for the alignment requests only"}
    timing.dump(f"pandas {pd.__version__}", rows, results)


if __name__ == "__main__":
    main()
