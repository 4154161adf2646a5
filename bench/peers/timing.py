"""What the Python peers share: their arguments, and each request's best time
over some runs, as JSON."""
import json
import math
import os
import sys
import time


def arguments():
    """TAPE_DIR, the request parameters from LIBRARY_JSON, and RUNS (default 5)."""
    if len(sys.argv) < 3:
        sys.exit(f"usage: {os.path.basename(sys.argv[0])} TAPE_DIR LIBRARY_JSON [RUNS]")
    with open(sys.argv[2]) as f:
        params = json.load(f)["params"]
    return sys.argv[1], params, int(sys.argv[3]) if len(sys.argv) > 3 else 5


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
