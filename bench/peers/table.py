"""Checks that the library (from C++ and from Python), DuckDB, numpy, pandas and
Polars agree on every request, then prints the time per row of each, the best
peer on one thread and on every core, and the library's time ratios to them.

    /usr/bin/python3 table.py LIBRARY PYTHON DUCKDB DUCKDB_ALL NUMPY PANDAS POLARS POLARS_ALL [...]

The files (JSON) come in rounds of eight, in that order (the library from C++
on one thread, from Python on every core, DuckDB on one thread and on every
core, numpy, pandas, Polars on one thread and on every core), each round
a fresh run of every tool on the same tape; a request's time is its best over
all rounds. Exits with 1 after printing the values when results disagree.
A peer may report a request as not run (with the reason, printed below the
table); its cells show "-".
"""
import json
import math
import sys

U = 2.0**-53  # unit roundoff of double


def tolerance(key, rows, params, library):
    """Relative tolerance of the floating result of request `key`.

    The library sums strictly left to right, numpy pairwise and DuckDB in
    its own order. Any order lands within (n-1)u sum|x| of the exact sum of
    n terms (to first order), so two orders differ by at most 2(n-1)u sum|x|;
    every term here is positive (prices and sizes are), so sum|x| = |sum x|
    and the bound is relative. A mean divides such a sum by a count. The
    second closes carried onto the trades are such a sum too, of prices.
    The symbol averages divide exact integer sums by counts: one rounding,
    the same in every tool.

    The deviation also differs in formula: the library's (s2 - s1^2/n)/n
    loses up to 3nu k of the variance to the rounding of s1 and s2, with
    condition number k = 1 + mean^2/var, where DuckDB's streaming update and
    numpy's two passes lose far less; a square root halves relative errors.

    The moving averages add three sums of positive terms (the bound above)
    whose terms differ too. The library keeps the window sum running (two
    roundings per trade, so after i trades it is off by up to 2iu times the
    largest window); numpy differences a cumulative sum (off by the rounding
    of the additions between the window's ends, each up to u times the
    whole tape's sum). Both total about n^2 u times the largest price,
    against a total of about 2n times the mean price: with prices within a
    factor 2 of their mean (a random walk in cents from 100.00), 2nu. Each
    EMA term is within a few dozen u in either tool, and so is each grid
    average.
    """
    n = params["range_rows"] if key in ("price_mean", "price_dev") else rows
    if key == "spread_on_axis":
        n = rows + rows // 5  # the common axis of trades and quotes: two terms at each stamp
        n *= 2
    bound = 2 * max(n - 1, 0) * U
    if key == "moving_price":
        bound += 2 * n * U + 100 * U
    if key == "price_dev":
        mean, dev = library["price_mean"], library["price_dev"]
        if mean is not None and dev:
            bound += 1.5 * n * U * (1 + (mean / dev) ** 2)
    return max(1e-9, bound)


def agree(a, b, exact, tol):
    if a is None or b is None:
        return a is None and b is None
    if exact:
        return int(a) == int(b)
    return abs(a - b) <= tol * max(abs(a), abs(b))


def merged(paths, tool):
    """One tool's rounds as one document whose times are the best of all."""
    docs = []
    for path in paths:
        with open(path) as f:
            docs.append(json.load(f))
    first = docs[0]
    for doc in docs[1:]:
        if tool == "library":
            for mine, other in zip(first["requests"], doc["requests"]):
                if mine["value"] != other["value"]:
                    sys.exit(f"the library gave {mine['key']} as {mine['value']!r} and {other['value']!r}")
                mine["seconds"] = min(mine["seconds"], other["seconds"])
                mine["loop_seconds"] = min(mine["loop_seconds"], other["loop_seconds"])
        else:
            for key, mine in first["results"].items():
                other = doc["results"][key]
                # On every core, a peer's float sums may add in another order each time.
                varies = tool.endswith("*") and isinstance(mine["value"], float)
                if mine["value"] != other["value"] and not varies:
                    sys.exit(f"{tool} gave {key} as {mine['value']!r} and {other['value']!r}")
                if "not_run" not in mine:
                    mine["seconds"] = min(mine["seconds"], other["seconds"])
    first["rounds"] = len(docs)
    return first


# The order of the files in a round; a * marks a tool on every core.
TOOLS = ("library", "Python*", "DuckDB", "DuckDB*", "numpy", "pandas", "Polars", "Polars*")


def main():
    paths = sys.argv[1:]
    if not paths or len(paths) % len(TOOLS):
        sys.exit("usage: table.py LIBRARY PYTHON DUCKDB DUCKDB_ALL NUMPY PANDAS POLARS POLARS_ALL [...]")
    library = merged(paths[0::len(TOOLS)], "library")
    peers = [(name, merged(paths[i::len(TOOLS)], name)) for i, name in enumerate(TOOLS) if i]
    rows = library["rows"]
    for name, doc in peers:
        if doc["rows"] != rows:
            sys.exit(f"{name} loaded {doc['rows']} rows, the library {rows}")
    values = {r["key"]: r["value"] for r in library["requests"]}

    failed = False
    spreads = []  # per floating request: how far each peer is from the library
    not_run = []  # "peer, request: reason"
    for r in library["requests"]:
        key, exact = r["key"], r["exact"]
        tol = 0 if exact else tolerance(key, rows, library["params"], values)
        diffs = []
        for name, doc in peers:
            if key not in doc["results"]:
                print(f"{name} did not run {key}", file=sys.stderr)
                failed = True
                continue
            if "not_run" in doc["results"][key]:
                not_run.append(f"{name}, {r['name']}: {doc['results'][key]['not_run']}")
                continue
            theirs = doc["results"][key]["value"]
            if not agree(r["value"], theirs, exact, tol):
                print(f"DISAGREE {r['name']}: library {r['value']!r}, {name} {theirs!r}"
                      + ("" if exact else f" (relative tolerance {tol:.2g})"), file=sys.stderr)
                failed = True
            elif not exact and r["value"] is not None:
                diff = abs(r["value"] - theirs) / max(abs(r["value"]), abs(theirs), 1e-300)
                diffs.append(f"{name} {diff:.1e}")
        if diffs:
            spreads.append(f"{r['name']}: {', '.join(diffs)} (tolerance {tol:.1e})")
    if failed:
        sys.exit(1)

    def ns(seconds):
        return seconds * 1e9 / rows if rows else math.nan

    def peer_ns(doc, key):
        result = doc["results"][key]
        return math.nan if "not_run" in result else ns(result["seconds"])

    def best(key, all_cores):
        """The fastest peer (not the library from Python) on one thread or on every core."""
        times = [(peer_ns(doc, key), name) for name, doc in peers
                 if name != "Python*" and name.endswith("*") == all_cores and not math.isnan(peer_ns(doc, key))]
        return min(times) if times else (math.nan, "-")

    rounds = library["rounds"]
    runs = f"best of {library['runs']} runs" + (f" in each of {rounds} rounds" if rounds > 1 else "")
    print(f"{rows} rows; {runs}; " + "; ".join(doc["tool"] for _, doc in peers) + " (* every core)\n")
    names = [name for name, _ in peers]
    print(f"{'request':<40} {'library':>8} {'loop':>8}" + "".join(f" {n:>8}" for n in names)
          + f" {'best 1':>8} {'lib/best':>8} {'best *':>8} {'Py*/best*':>9}")
    print(f"{'':<40} {'ns/row':>8} {'ns/row':>8}" + f" {'ns/row':>8}" * len(names))
    for r in library["requests"]:
        lib = ns(r["seconds"])
        cells = "".join(f" {'-':>8}" if math.isnan(t) else f" {t:>8.3f}" for t in (peer_ns(d, r["key"]) for _, d in peers))
        one_time, one_name = best(r["key"], False)
        all_time, all_name = best(r["key"], True)
        python = peer_ns(dict(peers)["Python*"], r["key"])
        print(f"{r['name']:<40} {lib:>8.3f} {ns(r['loop_seconds']):>8.3f}{cells}"
              + f" {one_name:>8} {lib / one_time:>8.2f} {all_name:>8} {python / all_time:>9.2f}")
    print("\nAll agree: integers exactly; floating results differ from the library's by")
    for spread in spreads:
        print("  " + spread)
    if not_run:
        print("Not run (\"-\" above):")
        for line in not_run:
            print("  " + line)


if __name__ == "__main__":
    main()
