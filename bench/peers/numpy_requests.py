"""The trade-tape requests in numpy, vectorised as a user would write them.
Prints each result and its best time as JSON; loading the tape is not timed.

    /usr/bin/python3 numpy_requests.py TAPE_DIR LIBRARY_JSON [RUNS]

The tape is the raw columns of `qmo_seq_demo --write-columns`; the request
parameters (thresholds, time range) come from the library's JSON results.
"""
import json
import math
import sys
import time
import warnings

import numpy as np


def main():
    if len(sys.argv) < 3:
        sys.exit("usage: numpy_requests.py TAPE_DIR LIBRARY_JSON [RUNS]")
    tape, library_json = sys.argv[1], sys.argv[2]
    runs = int(sys.argv[3]) if len(sys.argv) > 3 else 5
    with open(library_json) as f:
        p = json.load(f)["params"]

    ts = np.fromfile(f"{tape}/ts.u64", dtype="<u8").view("datetime64[us]")
    price = np.fromfile(f"{tape}/price.f64", dtype="<f8")
    size = np.fromfile(f"{tape}/size.i32", dtype="<i4")
    symbol = np.fromfile(f"{tape}/symbol.u16", dtype="<u2")
    rows = len(ts)
    for name, column in (("price", price), ("size", size), ("symbol", symbol)):
        if len(column) != rows:
            sys.exit(f"{tape}: {name} has {len(column)} values, ts has {rows}")

    range_from = np.datetime64(p["range_from_us"], "us")
    range_till = np.datetime64(p["range_till_us"], "us")

    def in_range():
        # The stamps are sorted: the range is a slice found by binary search.
        lo, hi = np.searchsorted(ts, [range_from, range_till])
        return price[lo:hi]

    requests = {
        "large_size": lambda: int(size[size > p["large_trade"]].sum(dtype=np.int64)),
        "notional": lambda: float((price * size).sum()),
        "price_mean": lambda: float(in_range().mean()),
        "price_dev": lambda: float(in_range().std()),
        "small_trades": lambda: int(np.count_nonzero(size <= p["small_trade"])),
        "top_symbols": lambda: int(np.count_nonzero(symbol < p["top_symbols"])),
        "above_100": lambda: int(np.count_nonzero(price > p["price_level"])),
    }

    results = {}
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", RuntimeWarning)  # mean of an empty range is nan
        for key, request in requests.items():
            best = math.inf
            for _ in range(runs):
                start = time.perf_counter()
                value = request()
                best = min(best, time.perf_counter() - start)
            results[key] = {"value": None if isinstance(value, float) and math.isnan(value) else value,
                            "seconds": best}
    json.dump({"tool": f"numpy {np.__version__}", "rows": rows, "results": results}, sys.stdout, indent=2)
    print()


if __name__ == "__main__":
    main()
