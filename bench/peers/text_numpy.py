"""Text out and back in beside numpy: 10 million int32 and float64 values
written with numpy.savetxt and read with numpy.loadtxt, against
qmo_seq's Expr.to_text and parse of the same columns (one value per line for
numpy, the library's list form for qmo_seq; both round-trip: "%d" and
"%.17g" for numpy). Best of RUNS (default 3) seconds, as JSON.

    PYTHONPATH=build/python python3 bench/peers/text_numpy.py [ROWS] [RUNS]
"""
import io
import json
import sys
import time

import numpy as np

import qmo_seq as q


def best(f, runs):
    seconds = float("inf")
    for _ in range(runs):
        start = time.perf_counter()
        result = f()
        seconds = min(seconds, time.perf_counter() - start)
    return seconds, result


def main():
    rows = int(sys.argv[1]) if len(sys.argv) > 1 else 10_000_000
    runs = int(sys.argv[2]) if len(sys.argv) > 2 else 3
    rng = np.random.default_rng(31)
    columns = {"int4": (rng.integers(-2**31, 2**31, rows, dtype=np.int64).astype(np.int32), "%d"),
               "double": (rng.uniform(-1e6, 1e6, rows), "%.17g")}
    results = {}
    for name, (values, fmt) in columns.items():
        def savetxt():
            out = io.StringIO()
            np.savetxt(out, values, fmt=fmt)
            return out.getvalue()

        save_s, numpy_text = best(savetxt, runs)
        load_s, loaded = best(lambda: np.loadtxt(io.StringIO(numpy_text), dtype=values.dtype), runs)
        assert loaded.tobytes() == values.tobytes()
        print_s, text = best(lambda: q.array(values).to_text(), runs)
        parse_s, parsed = best(lambda: q.parse(text, values.dtype).evaluate(), runs)
        assert parsed.tobytes() == values.tobytes()
        results[name] = {"numpy_savetxt": save_s, "numpy_loadtxt": load_s, "qmo_to_text": print_s,
                         "qmo_parse": parse_s, "print_ratio": print_s / save_s, "parse_ratio": parse_s / load_s}
    json.dump({"rows": rows, "runs": runs, "results": results}, sys.stdout, indent=2)
    print()


if __name__ == "__main__":
    main()
