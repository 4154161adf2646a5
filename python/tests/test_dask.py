"""qmo_seq.dask on a local cluster of worker processes: tree-merged reductions and
order-dependent operators across partitions equal one process's results bit for bit."""
import numpy as np
import pytest

distributed = pytest.importorskip("distributed")
da = pytest.importorskip("dask.array")

import qmo_seq as q  # noqa: E402
import qmo_seq.dask as qd  # noqa: E402

# Uneven partitions, some shorter than the windows below, one empty.
CHUNKS = ((700, 3, 0, 260, 1, 1036),)
N = sum(CHUNKS[0])


@pytest.fixture(scope="module")
def client():
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None,
                                  silence_logs=50) as cluster, distributed.Client(cluster) as c:
        yield c


def columns():
    rng = np.random.default_rng(7)
    price = 100 + np.cumsum(rng.normal(0, 0.3, N))
    size = rng.integers(1, 500, N).astype(np.int32)
    symbol = rng.integers(0, 40, N).astype(np.uint16)
    return price, size, symbol


def same_bits(got, want):
    got, want = np.ma.asarray(got), np.ma.asarray(want)
    assert got.dtype == want.dtype
    np.testing.assert_array_equal(np.ma.getmaskarray(got), np.ma.getmaskarray(want))
    assert np.ma.getdata(got).tobytes() == np.ma.getdata(want).tobytes()


def test_reductions_merge_in_a_tree_as_one_process(client):
    price, size, symbol = columns()
    p, s, k = (da.from_array(c, chunks=CHUNKS) for c in (price, size, symbol))
    qp, qs, qk = (q.array(c) for c in (price, size, symbol))
    cases = [
        (qd.sum(s, split_every=2), qs.sum()),
        (qd.mean(p, split_every=3), qp.mean()),
        (qd.var(p, ddof=1), qp.var(ddof=1)),
        (qd.max(p), qp.max()),
        (qd.count(s > 250), (qs > 250).count()),
        (qd.approx_distinct(s, split_every=2), qs.approx_distinct()),
        (qd.top(p, 10, split_every=2), qp.top(10)),
        (qd.first_positions(s > 490, 5, split_every=2), (qs > 490).first_positions(5)),
        (qd.group_by(s, k, "sum", split_every=2), qs.group_by(qk).sum()),
        (qd.group_by(p, k, "mean"), qp.group_by(qk).mean()),
        (qd.group_by(s, k, "count"), qs.group_by(qk).count()),
    ]
    got = client.compute([c for c, _ in cases], sync=True)
    for g, (_, want) in zip(got, cases):
        want = want.evaluate()
        if isinstance(want, tuple):
            for a, b in zip(g, want):
                np.testing.assert_allclose(np.ma.getdata(a), np.ma.getdata(b), rtol=1e-12)
        elif want.dtype.kind == "f":  # floating sums merge in another order than one pass adds
            np.testing.assert_allclose(np.ma.getdata(g), np.ma.getdata(want), rtol=1e-12)
        else:
            same_bits(g, want)


@pytest.mark.parametrize("dtype", ["f8", "i4", "u2"])
def test_windows_and_cumulative_aggregates_across_partitions_are_bit_equal(client, dtype):
    price, size, _ = columns()
    values = (price if dtype == "f8" else size).astype(dtype)
    x = da.from_array(values, chunks=CHUNKS)
    whole = q.array(values)
    cases = [(qd.window(x, op, n), whole.window(op, n)) for op in ("sum", "avg", "min", "max", "var", "dev_samp",
                                                                   "ema", "atr") for n in (1, 5, 26)]
    cases += [(qd.cumulative(x, op), whole.cumulative(op)) for op in ("sum", "avg", "max", "var")]
    got = client.compute([c for c, _ in cases], sync=True)
    for g, (c, want) in zip(got, cases):
        same_bits(g, want.evaluate())


def test_cumulative_aggregates_carry_nulls_across_partitions(client):
    values = np.ma.MaskedArray(np.arange(N, dtype=np.float64) * 0.1, np.arange(N) % 5 == 0)
    values[:800] = np.ma.masked  # nothing seen before the third partition
    x = da.ma.masked_array(da.from_array(values.data, chunks=CHUNKS), da.from_array(values.mask, chunks=CHUNKS))
    for op in ("sum", "avg", "min"):
        same_bits(qd.cumulative(x, op).compute(), q.array(values).cumulative(op).evaluate())


def test_dataframe_columns():
    dd = pytest.importorskip("dask.dataframe")
    pd = pytest.importorskip("pandas")
    price, size, symbol = columns()
    frame = dd.from_pandas(pd.DataFrame({"price": price, "size": size, "symbol": symbol}), npartitions=4)
    same_bits(qd.sum(frame["size"]).compute(), q.array(size).sum().evaluate())
    same_bits(qd.window(frame["price"], "ema", 10).compute(), q.array(price).window("ema", 10).evaluate())
    keys, sums = qd.group_by(frame["size"], frame["symbol"], "sum").compute()
    want_keys, want_sums = q.array(size).group_by(q.array(symbol)).sum().evaluate()
    np.testing.assert_array_equal(np.sort(keys), np.sort(want_keys))
    assert dict(zip(keys.tolist(), sums.tolist())) == dict(zip(want_keys.tolist(), want_sums.tolist()))
