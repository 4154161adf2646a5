"""Threaded evaluation: a mergeable request over more than one partition's
rows equals its partitions' partial results merged in order, for any number
of threads; other requests, and threads=1, take the one-pass path."""

import numpy as np
import pytest

import qmo_seq as q

ROWS = 3 * q.PARTITION_ROWS + 12345
rng = np.random.default_rng(31)
X = rng.random(ROWS)
N = rng.integers(0, 1000, ROWS).astype(np.int32)
K = rng.integers(0, 500, ROWS).astype(np.uint16)
NULLS = rng.random(ROWS) < 0.01

REQUESTS = {
    "filtered float sum": lambda x, n, k: (x * 2.0)[x > 0.5].sum(),
    "mean with nulls": lambda x, n, k: x.mean(),
    "count of non-nulls": lambda x, n, k: x.count(nulls=False),
    "ten largest, shared values kept once": lambda x, n, k: n.top(10),
    "ten smallest": lambda x, n, k: (n - 3).top(10, largest=False),
    "first positions": lambda x, n, k: (x > 0.999).first_positions(40),
    "group-by mean": lambda x, n, k: n.group_by(k).mean(),
    "group-by count": lambda x, n, k: x.group_by(k).count(),
}


def arrays(lo=0, hi=ROWS):
    return (q.array(X[lo:hi], mask=NULLS[lo:hi], offset=lo), q.array(N[lo:hi], offset=lo),
            q.array(K[lo:hi], offset=lo))


def partitioned(request):
    cuts = range(0, ROWS, q.PARTITION_ROWS)
    return q.result([request(*arrays(lo, min(lo + q.PARTITION_ROWS, ROWS))).partial() for lo in cuts])


def same(a, b):
    if isinstance(a, tuple):  # groups come in table order: compare by key
        return dict(zip(a[0].tolist(), a[1].tolist())) == dict(zip(b[0].tolist(), b[1].tolist()))
    return np.ma.allequal(a, b) and np.array_equal(np.ma.getmaskarray(a), np.ma.getmaskarray(b))


@pytest.mark.parametrize("name", REQUESTS)
def test_threads_give_the_partitions_merged_in_order(name):
    request = REQUESTS[name](*arrays())
    expected = partitioned(REQUESTS[name])
    for threads in (2, 3, 8, None):
        assert same(request.evaluate(threads=threads), expected), threads


def test_one_thread_and_requests_that_do_not_merge_take_one_pass():
    x, n, k = arrays()
    assert n.sum().evaluate(threads=1)[0] == N.astype(np.int64).sum()
    top = n.top(10).evaluate(threads=1)
    assert top.tolist() == sorted(N.tolist(), reverse=True)[:10]  # equal values kept, unlike the merge
    moving = n.window("sum", 3).sum()
    assert moving.evaluate(threads=4)[0] == moving.evaluate(threads=1)[0]
    short = q.array(N[:1000]).sum()
    assert short.evaluate(threads=4)[0] == N[:1000].astype(np.int64).sum()
