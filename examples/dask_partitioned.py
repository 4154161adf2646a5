"""The trade-tape requests over a tape split into partitions on a Dask cluster.

Each partition is generated (as it would be read) and prepared in a worker
process; only the partial results travel, as bytes, and the driver merges
them. The merged results must equal the ones computed in this process.

    PYTHONPATH=build/python /usr/bin/python3 examples/dask_partitioned.py [--rows N] [--partitions P]

Prints the time of the whole partitioned evaluation for 1 and 2 workers
(generating the partitions included, starting the cluster not).
"""
import argparse
import logging
import time

import numpy as np
import distributed

import qmo_seq as q

SESSION_START_US = 1_795_426_200_000_000  # 2026-11-23 09:30 UTC
HALF_HOUR_US = 30 * 60 * 1_000_000


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
    return lo, ts.view("M8[ns]"), price, size, symbol


def requests(lo, ts, price, size, symbol):
    """Each request's aggregate over one partition (lo: its first row)."""
    # The stamps are sorted: the hour is a slice of the partition, found by binary search.
    hour = np.array([SESSION_START_US + HALF_HOUR_US, SESSION_START_US + 3 * HALF_HOUR_US], dtype="M8[ns]")
    first, last = np.searchsorted(ts, hour)
    in_hour = q.array(price[first:last])
    ts, price, size, symbol = (q.array(c, offset=lo) for c in (ts, price, size, symbol))
    return {
        "total size of trades above 1000": size[size > 1000].sum(),
        "notional, sum of price x size": (price * size).sum(),
        "average price, second half hour": in_hour.mean(),
        "price deviation, second half hour": in_hour.std(),
        "trades of at most 100 shares": (size <= 100).sum(),
        "trades in the ten busiest symbols": (symbol < 10).sum(),
        "trades above 100.00": (price > 100.0).sum(),
        "first trade after half an hour": (ts >= hour[0]).first_positions(1),
        "total size per symbol": size.group_by(symbol).sum(),
        "average trade size per symbol": size.group_by(symbol).mean(),
    }


def prepare(index, rows, parts):
    """In a worker: the partition's partial results as bytes, and the seconds the requests took."""
    columns = partition(index, rows, parts)
    start = time.perf_counter()
    partials = {name: agg.partial() for name, agg in requests(*columns).items()}
    return partials, time.perf_counter() - start


def merged(prepared):
    partials = [p for p, _ in prepared]
    return {name: q.result([p[name] for p in partials]) for name in partials[0]}, sum(s for _, s in prepared)


def same(a, b, exact):
    if isinstance(a, tuple):
        return all(same(x, y, exact) for x, y in zip(a, b))
    a, b = np.ma.getdata(a), np.ma.getdata(b)
    if exact or a.dtype.kind not in "f":
        return np.array_equal(a, b)
    return np.allclose(a, b, rtol=1e-9, atol=0)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rows", type=int, default=2_000_000, help="rows of the tape (100000000 for the full run)")
    parser.add_argument("--partitions", type=int, default=8)
    args = parser.parse_args()
    rows, parts = args.rows, args.partitions

    start = time.perf_counter()
    reference, in_requests = merged([prepare(i, rows, parts) for i in range(parts)])
    print(f"{rows} rows in {parts} partitions, one process: {time.perf_counter() - start:.2f} s "
          f"({in_requests:.2f} s in the requests, the rest generating the tape)")
    if rows <= 20_000_000:  # and the whole tape at once, where it fits in memory easily
        columns = [np.concatenate(c) for c in zip(*(partition(i, rows, parts)[1:] for i in range(parts)))]
        whole = {name: agg.evaluate() for name, agg in requests(0, *columns).items()}
        for name in reference:
            assert same(reference[name], whole[name], exact=False), name

    for workers in (1, 2):
        with distributed.LocalCluster(n_workers=workers, threads_per_worker=1, processes=True, dashboard_address=None,
                                      silence_logs=logging.ERROR) as cluster, distributed.Client(cluster) as client:
            start = time.perf_counter()
            futures = [client.submit(prepare, i, rows, parts, pure=False) for i in range(parts)]
            results, in_requests = merged(client.gather(futures))
            elapsed = time.perf_counter() - start
        for name in reference:
            assert same(results[name], reference[name], exact=True), name
        print(f"{workers} worker{'s' if workers > 1 else ''}: {elapsed:.2f} s ({in_requests:.2f} s in the requests, "
              f"summed over partitions), results equal to one process")

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
