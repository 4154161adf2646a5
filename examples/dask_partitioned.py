"""The trade-tape requests over a tape split into partitions on a Dask cluster.

The tape is a set of Dask arrays whose partitions are generated (as they
would be read) in the worker processes. The requests go through
qmo_seq.dask: aggregates prepare each partition on its worker and merge the
partial results as bytes in a tree on the workers, so only final results
reach the client; the moving average and the EMA run across partitions
(a halo of the previous partition, or its carried state). Every result must
equal the one-process evaluation of the same requests, bit for bit.

    PYTHONPATH=build/python /usr/bin/python3 examples/dask_partitioned.py [--rows N] [--partitions P]

Prints the time of the whole evaluation (generating the tape included,
starting the cluster not) in one process and on 1 and 2 worker processes.
"""
import argparse
import logging
import time

import dask
import dask.array as da
import distributed
import numpy as np

import qmo_seq as q
import qmo_seq.dask as qd

SESSION_START_US = 1_795_426_200_000_000  # 2026-11-23 09:30 UTC
HALF_HOUR_US = 30 * 60 * 1_000_000
HOUR = np.array([SESSION_START_US + HALF_HOUR_US, SESSION_START_US + 3 * HALF_HOUR_US], dtype="M8[ns]")


def partition(index, rows, parts):
    """Rows [lo, hi) of the tape: stamps 1 ms apart with jitter, a price walk, sizes, symbols."""
    lo, hi = index * rows // parts, (index + 1) * rows // parts
    rng = np.random.default_rng(index)
    n = hi - lo
    ts = (SESSION_START_US + np.arange(lo, hi, dtype=np.uint64) * 1000 + rng.integers(0, 1000, n, dtype=np.uint64))
    price = 100.0 + np.cumsum(rng.normal(0, 0.01, n)) + rng.normal(0, 1.0)
    size = rng.pareto(1.5, n).astype(np.int32) * 100 + 1
    # Skewed towards low ids, as the demo's tape (cheaper to draw than a Zipf law).
    symbol = np.minimum(499, 500 * rng.random(n) * rng.random(n)).astype(np.uint16)
    return ts.view("M8[ns]"), price, size, symbol


def tape(rows, parts):
    """The tape's columns as Dask arrays; each partition is generated once, by one task."""
    pieces = [dask.delayed(partition, pure=True)(i, rows, parts) for i in range(parts)]
    lengths = [(i + 1) * rows // parts - i * rows // parts for i in range(parts)]
    dtypes = ["M8[ns]", "f8", "i4", "u2"]
    return [da.concatenate([da.from_delayed(p[k], shape=(n,), dtype=dtype) for p, n in zip(pieces, lengths)])
            for k, dtype in enumerate(dtypes)]


def in_hour(ts):
    return (ts >= HOUR[0]) & (ts < HOUR[1])


def requests(ts, price, size, symbol):
    """Each request as a Dask object over the whole tape."""
    moving = qd.window(price, "avg", 20)
    ema = qd.window(price, "ema", 26)
    return {
        "total size of trades above 1000": qd.reduce(lambda s: s[s > 1000].sum(), size),
        "notional, sum of price x size": qd.reduce(lambda p, s: (p * s).sum(), price, size),
        "average price, second half hour": qd.reduce(lambda t, p: p[in_hour(t)].mean(), ts, price),
        "price deviation, second half hour": qd.reduce(lambda t, p: p[in_hour(t)].std(), ts, price),
        "trades of at most 100 shares": qd.reduce(lambda s: (s <= 100).sum(), size),
        "trades in the ten busiest symbols": qd.reduce(lambda k: (k < 10).sum(), symbol),
        "trades above 100.00": qd.reduce(lambda p: (p > 100.0).sum(), price),
        "first trade after half an hour": qd.reduce(lambda t: (t >= HOUR[0]).first_positions(1), ts, offsets=True),
        "total size per symbol": qd.group_by(size, symbol, "sum"),
        "average trade size per symbol": qd.group_by(size, symbol, "mean"),
        "highest 20-trade moving average": qd.max(moving),
        "lowest 26-trade EMA": qd.min(ema),
        "EMA above the moving average": qd.reduce(lambda m, e: (e > m).sum(), moving, ema),
    }


def same(a, b):
    if isinstance(a, tuple):
        return all(same(x, y) for x, y in zip(a, b))
    a, b = np.ma.asarray(a), np.ma.asarray(b)
    return a.dtype == b.dtype and np.array_equal(np.ma.getmaskarray(a), np.ma.getmaskarray(b)) and \
        np.ma.getdata(a).tobytes() == np.ma.getdata(b).tobytes()


def timed(compute):
    start = time.perf_counter()
    results = compute()
    return results, time.perf_counter() - start


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rows", type=int, default=2_000_000, help="rows of the tape (100000000 for the full run)")
    parser.add_argument("--partitions", type=int, default=8)
    args = parser.parse_args()
    rows, parts = args.rows, args.partitions
    columns = tape(rows, parts)
    work = requests(*columns)
    names = list(work)

    reference, seconds = timed(lambda: dask.compute(*work.values(), scheduler="synchronous"))
    reference = dict(zip(names, reference))
    print(f"{rows} rows in {parts} partitions, one process: {seconds:.2f} s")
    if rows <= 20_000_000:  # the whole tape at once, without Dask, where it fits in memory easily
        ts, price, size, symbol = (q.array(np.asarray(c)) for c in dask.compute(*columns, scheduler="synchronous"))
        whole = {
            "total size per symbol": size.group_by(symbol).sum().evaluate(),
            "highest 20-trade moving average": price.window("avg", 20).max().evaluate(),
            "lowest 26-trade EMA": price.window("ema", 26).min().evaluate(),
            "first trade after half an hour": (ts >= HOUR[0]).first_positions(1).evaluate(),
        }
        for name, value in whole.items():
            assert same(reference[name], value) or name == "total size per symbol" and all(
                np.array_equal(np.sort(np.ma.getdata(x)), np.sort(np.ma.getdata(y)))
                for x, y in zip(reference[name], value)), name
        moving = qd.window(columns[1], "avg", 20).compute(scheduler="synchronous")
        ema = qd.window(columns[1], "ema", 26).compute(scheduler="synchronous")
        assert same(moving, price.window("avg", 20).evaluate()), "moving average"
        assert same(ema, price.window("ema", 26).evaluate()), "EMA"

    for workers in (1, 2):
        with distributed.LocalCluster(n_workers=workers, threads_per_worker=1, processes=True, dashboard_address=None,
                                      silence_logs=logging.ERROR) as cluster, distributed.Client(cluster) as client:
            results, seconds = timed(lambda: client.compute(list(work.values()), sync=True))
        for name, value in zip(names, results):
            assert same(value, reference[name]), name
        print(f"{workers} worker{'s' if workers > 1 else ''}: {seconds:.2f} s, results equal to one process")

    for name, value in reference.items():
        if isinstance(value, tuple):
            keys, aggregates = value
            largest = np.argsort(aggregates)[-3:][::-1]
            value = ", ".join(f"{k}: {a:.6g}" for k, a in zip(keys[largest], aggregates[largest]))
        else:
            value = value[0] if len(value) else None
        print(f"  {name}: {value}")


if __name__ == "__main__":
    main()
