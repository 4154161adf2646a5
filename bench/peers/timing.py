"""What the Python peers share: each request's best time over some runs, as JSON."""
import json
import math
import sys
import time


def best_of(requests, runs):
    """{key: {"value", "seconds"}} for each request (a function of nothing), NaN as null."""
    results = {}
    for key, request in requests.items():
        best = math.inf
        for _ in range(runs):
            start = time.perf_counter()
            value = request()
            best = min(best, time.perf_counter() - start)
        results[key] = {"value": None if isinstance(value, float) and math.isnan(value) else value,
                        "seconds": best}
    return results


def dump(tool, rows, results):
    json.dump({"tool": tool, "rows": rows, "results": results}, sys.stdout, indent=2)
    print()
