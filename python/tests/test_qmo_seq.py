"""The Python module against numpy: types in and out, nulls, errors, and
partial results merged over random partitionings."""

import gc

import numpy as np
import pytest
from hypothesis import given, settings, strategies as st

import qmo_seq as q

NUMERIC = ["i1", "i2", "i4", "i8", "u1", "u2", "u4", "u8", "f4", "f8", "M8[ns]"]


def values_of(dtype, n=300):
    v = (np.arange(n) * 7919 % 97).astype("u8")
    return v.astype(dtype) if dtype != "M8[ns]" else v.view("M8[ns]")


@pytest.mark.parametrize("dtype", NUMERIC + ["?", "S5", "S32"])
def test_each_dtype_goes_in_without_a_copy_and_comes_back_alike(dtype):
    a = values_of(dtype) if dtype[0] != "S" else np.array([b"ab", b"cdefg", b""] * 100, dtype=dtype)
    if dtype == "?":
        a = a.astype(bool)
    out = q.array(a).evaluate()
    assert out.dtype == a.dtype and not np.ma.isMaskedArray(out)
    np.testing.assert_array_equal(out, a)


def test_nulls_from_a_mask_or_a_masked_array_come_back_masked():
    a = np.arange(200, dtype=np.int32)
    mask = a % 3 == 0
    for x in (q.array(a, mask=mask), q.array(np.ma.MaskedArray(a, mask))):
        out = (x + 1).evaluate()
        np.testing.assert_array_equal(out.mask, mask)
        np.testing.assert_array_equal(out.data[~mask], a[~mask] + 1)
        assert x.sum().item() == a[~mask].sum()


def test_the_expression_keeps_the_array_alive():
    x = q.array(np.arange(1000, dtype=np.float64) * 2)
    gc.collect()
    assert x.sum().item() == 999000.0


@pytest.mark.parametrize("bad", [np.zeros(3, np.complex128), np.zeros(3, np.float16), np.array(["a"]),
                                 np.zeros(3, "M8[s]"), [1, 2, 3]])
def test_wrong_dtypes_raise_type_error(bad):
    with pytest.raises(TypeError):
        q.array(bad)


@pytest.mark.parametrize("build, status", [
    (lambda x: x & x, 61),                       # logic wants booleans
    (lambda x: (x > 0).first_positions(129), 62),
    (lambda x: q.array(np.zeros(3, "S40")), 62),  # wider than a record holds
])
def test_library_statuses_raise_error_with_the_code(build, status):
    with pytest.raises(q.Error) as raised:
        build(q.array(np.arange(5, dtype=np.int32))).evaluate()
    assert raised.value.status == status


def test_operators_and_methods_match_numpy():
    a = np.arange(1, 301, dtype=np.int32)
    b = (a * 37 % 101 + 1).astype(np.float64)
    x, y = q.array(a), q.array(b)
    np.testing.assert_array_equal((x * 2 - 1).evaluate(), a * 2 - 1)
    np.testing.assert_array_equal((x * 2.5).evaluate(), a * 2.5)     # promoted by the scalar's value
    np.testing.assert_allclose((x / y).evaluate(), a / b)            # int4 promoted to double
    np.testing.assert_array_equal(((x < 100) | ~(y == 5)).evaluate(), (a < 100) | ~(b == 5))
    np.testing.assert_array_equal(x[x % 7 == 0].evaluate(), a[a % 7 == 0])
    np.testing.assert_array_equal(q.where(x > 150, x, 0).evaluate(), np.where(a > 150, a, 0))
    np.testing.assert_array_equal(x.astype("i8").evaluate(), a.astype("i8"))
    np.testing.assert_array_equal((x > 290).nonzero().evaluate(), np.nonzero(a > 290)[0])
    np.testing.assert_array_equal(b[y.argsort()], np.sort(b))
    assert (abs(-x)).evaluate().tolist() == a.tolist()
    assert x.sum().item() == a.sum() and x.min().item() == 1 and x.max().item() == 300
    assert x.count().item() == 300 and x.mean().item() == pytest.approx(a.mean())
    assert y.var().item() == pytest.approx(b.var()) and y.std().item() == pytest.approx(b.std())
    assert x.approx_distinct().item() == pytest.approx(300, rel=0.3)
    assert y.corr(x).item() == pytest.approx(np.corrcoef(a, b)[0, 1])
    assert x.agg_min_max().evaluate().tolist() == [1, 300]           # any family by its name
    assert q.array(a[:0]).sum().item() is None


def test_top_windows_and_running_aggregates_match_numpy():
    b = (np.arange(300) * 37 % 101 + 1).astype(np.float64)
    y = q.array(b)
    np.testing.assert_array_equal(y.top(5).evaluate(), np.sort(b)[::-1][:5])
    ring = np.concatenate([np.zeros(9), b])                          # the window starts as zeros
    np.testing.assert_allclose(y.window("sum", 10).evaluate(), np.convolve(ring, np.ones(10), "valid"))
    np.testing.assert_allclose(y.grid("max", 100).evaluate(), b.reshape(3, 100).max(axis=1))
    np.testing.assert_allclose(y.cumulative("sum").evaluate(), np.cumsum(b))


def test_reshaping_analytics_runs_stretch_and_text_reach_their_members():
    # The binding's part: parameters, typed bounds and operand order.
    a = np.array([3, 1, 4, 1, 5, 9, 2, 6, 5, 3] * 30, dtype=np.int16)
    x = q.array(a)
    np.testing.assert_array_equal(x.thin(7, origin=2).evaluate(), a[2::7])
    np.testing.assert_array_equal(x.repeat(3).evaluate(), np.repeat(a, 3))
    np.testing.assert_array_equal(x.reverse().evaluate(), a[::-1])
    np.testing.assert_array_equal(q.array(np.repeat(a[:10], 20)).unique().evaluate(), a[:10])
    np.testing.assert_array_equal(x.diff().evaluate()[1:], np.diff(a))
    moved = np.diff(a) != 0                                            # a flat step keeps the trend
    np.testing.assert_array_equal(x.trend().evaluate()[1:][moved], np.sign(np.diff(a))[moved])
    side = a * 2 - 7 > 0                                               # never zero
    changes = np.flatnonzero(side[1:] != side[:-1]) + 1
    np.testing.assert_array_equal((x * 2 - 7).cross().evaluate(), changes)
    assert (x * 2 - 7).cross(-1).evaluate()[0] == changes[~side[changes]][0]
    np.testing.assert_array_equal(x.histogram(-2, 10, 3).evaluate(), np.histogram(a, 3, (-2, 10))[0])
    with pytest.raises(q.Error) as raised:
        x.histogram(10, -2, 3)
    assert raised.value.status == 62
    keys = q.array(np.repeat(np.arange(30, dtype=np.uint8), 10))
    np.testing.assert_array_equal(x.group_runs(keys).sum().evaluate(), a.reshape(30, 10).sum(axis=1))
    np.testing.assert_array_equal(x.group_runs(keys).count().evaluate(), np.full(30, 10))
    stamps = np.arange(1, 300, 10).astype("M8[ns]")                  # 1, 11, 21, ...
    onto = np.arange(0, 300, 5).astype("M8[ns]")
    carried = q.array(np.arange(30.0)).stretch(q.array(stamps), q.array(onto), filler=-1.5).evaluate()
    model, k, boundary, current = [], 0, 0, None                        # a value holds until its stamp
    for t in onto.astype("i8"):
        if k <= len(stamps) and t >= boundary:
            current, boundary = (float(k), int(stamps[k].astype("i8"))) if k < len(stamps) else (-1.5, 0)
            k += 1
        model.append(current)
    np.testing.assert_array_equal(carried, model)
    names = np.array([b"SYM1", b"SYM12", b"SYM2", b"SYM107"], dtype="S8")
    np.testing.assert_array_equal(q.array(names).match("SYM1_%").evaluate(), [False, True, False, True])
    np.testing.assert_array_equal(q.parse("{1,2,null,-4}", "i8").evaluate(), np.ma.MaskedArray([1, 2, 0, -4], [0, 0, 1, 0]))


@pytest.mark.parametrize("dtype", NUMERIC + ["S6"])
def test_text_round_trip(dtype):
    if dtype == "S6":
        values = np.array([b'a"b', b"\\", b"x, y", b"", b"null", b"\xff\xfe"], dtype="S6")
    elif dtype in ("f4", "f8"):
        values = np.array([0.1, -0.0, np.inf, -np.inf, np.nan, np.finfo(dtype).max, np.finfo(dtype).tiny], dtype=dtype)
    else:
        values = values_of(dtype, 200)
    mask = np.arange(len(values)) % 5 == 2
    text = q.array(values, mask).to_text()
    back = q.parse(text, dtype).evaluate()
    np.testing.assert_array_equal(np.ma.getmaskarray(back), mask)
    # char comes back at the width of its longest element
    assert np.ma.getdata(back).astype(values.dtype)[~mask].tobytes() == values[~mask].tobytes()


def test_text_formats_and_custom_scans():
    assert q.array(np.array([1.5, 2.25])).to_text("%.1f") == "{1.5,2.2}"
    with pytest.raises(q.Error) as refused:
        q.array(np.array([1, 2])).to_text("%d %d")
    assert refused.value.status == 62

    def iso(text, at):  # ISO-8601 date-times; "-" is a null
        if text[at] == "-":
            return None, 1
        end = text.find("Z", at)
        return (None if end < 0 else (np.datetime64(text[at:end], "ns"), end + 1 - at))

    stamps = q.parse("{2026-11-25T16:51:38Z,-, 1970-01-01T00:00:00.5Z}", "M8[ns]", scan=iso).evaluate()
    np.testing.assert_array_equal(np.ma.getmaskarray(stamps), [False, True, False])
    assert stamps[0] == np.datetime64("2026-11-25T16:51:38", "ns") and stamps[2] == np.datetime64(500_000_000, "ns")

    prices = q.parse("{€1.50,€20,null}", "f8", scan=lambda t, at: (float(t[at + 1:].split(",")[0].rstrip("}")),
                                                                  len(t[at:].split(",")[0].rstrip("}"))))
    np.testing.assert_array_equal(prices.evaluate(), np.ma.MaskedArray([1.5, 20.0, 0], [0, 0, 1]))
    with pytest.raises(q.Error):
        q.parse("{x}", "i4", scan=lambda t, at: None).evaluate()
    with pytest.raises(ZeroDivisionError):
        q.parse("{1}", "i4", scan=lambda t, at: (1 // 0, 1)).evaluate()


def test_group_by_gives_keys_and_aggregates():
    keys = np.array([b"b", b"a", b"b", b"c"] * 50, dtype="S1")
    vals = np.arange(200, dtype=np.int16)
    got_keys, sums = q.array(vals).group_by(q.array(keys)).sum().evaluate()
    model = {k: vals[keys == k].sum() for k in set(keys)}
    assert dict(zip(got_keys.tolist(), sums.tolist())) == model
    _, counts = q.array(vals).group_by(q.array(keys)).count().evaluate()
    assert sorted(counts.tolist()) == [50, 50, 100]


# ---- partial results -----------------------------------------------------------------------

SCALAR = {
    "sum": lambda x, y: x.sum(), "prod": lambda x, y: x.prod(), "min": lambda x, y: x.min(),
    "max": lambda x, y: x.max(), "mean": lambda x, y: x.mean(), "var": lambda x, y: x.var(),
    "std": lambda x, y: x.std(ddof=1), "count": lambda x, y: x.count(nulls=False),
    "distinct": lambda x, y: x.approx_distinct(), "cov": lambda x, y: x.cov(y),
    "wavg": lambda x, y: x.wavg(y), "first": lambda x, y: (x > 0).first_positions(5),
    "group_sum": lambda x, y: x.group_by(y).sum(), "group_mean": lambda x, y: x.group_by(y).mean(),
    "group_max": lambda x, y: x.group_by(y).max(), "group_count": lambda x, y: x.group_by(y).count(),
    "group_distinct": lambda x, y: y.group_by(x).approx_distinct(),
}


@st.composite
def partitioned(draw):
    n = draw(st.integers(0, 400))
    rng = np.random.default_rng(draw(st.integers(0, 2**32)))
    values = rng.integers(-2, 3, n)
    mask = rng.random(n) < draw(st.sampled_from([0.0, 0.1, 0.9]))
    mask[::64] = False  # no tile entirely null: its seed would depend on where partitions start
    cuts = sorted(draw(st.lists(st.integers(0, n), max_size=5)))
    return values, mask, [0] + cuts + [n]


@pytest.mark.parametrize("family", sorted(SCALAR))
@pytest.mark.parametrize("dtype", ["i4", "f8"])
@settings(max_examples=10, deadline=None, database=None)
@given(data=partitioned())
def test_merged_partial_bytes_equal_the_whole_inputs(family, dtype, data):
    values, mask, cuts = data
    values = values.astype(dtype)
    keys = (values % 3).astype("i2")

    def partial(lo, hi):
        x = q.array(values[lo:hi], mask=mask[lo:hi], offset=lo)
        return SCALAR[family](x, q.array(keys[lo:hi])).partial()

    parts = [partial(lo, hi) for lo, hi in zip(cuts, cuts[1:])]
    assert q.merge(parts) == partial(0, len(values))
    whole = SCALAR[family](q.array(values, mask=mask), q.array(keys)).evaluate()
    merged = q.result(parts)
    for got, want in zip(merged if isinstance(merged, tuple) else [merged], whole if isinstance(whole, tuple) else [whole]):
        np.testing.assert_array_equal(np.ma.getdata(got), np.ma.getdata(want))


@pytest.mark.parametrize("largest", [True, False])
def test_merged_top_lists_equal_the_whole_inputs_top_but_keep_a_shared_value_once(largest):
    values = np.random.default_rng(7).permutation(1000).astype("f8")   # distinct: no value is shared
    parts = [q.array(values[lo:hi]).top(10, largest).partial() for lo, hi in [(0, 130), (130, 131), (131, 1000)]]
    np.testing.assert_array_equal(q.result(parts), q.array(values).top(10, largest).evaluate())
    nine_five, nine_four = (q.array(np.array(v, "i2")).top(3).partial() for v in ([9, 5], [9, 4]))
    assert q.result([nine_five, nine_four]).tolist() == [9, 5, 4]


def test_partials_of_another_family_or_cut_short_raise():
    x = q.array(np.arange(10, dtype=np.int32))
    with pytest.raises(q.Error) as raised:
        q.merge([x.sum().partial(), x.min().partial()])
    assert raised.value.status == 61
    with pytest.raises(q.Error) as raised:
        q.merge([x.sum().partial()[:-1]])
    assert raised.value.status == 62


def test_alignment_matches_numpy():
    rng = np.random.default_rng(29)
    quotes = np.sort(rng.integers(0, 10_000, 700)).astype("M8[ns]")     # repeats included
    trades = np.sort(rng.integers(0, 10_000, 900)).astype("M8[ns]")
    bids = rng.random(700)
    qs, qt, qb = q.array(quotes), q.array(trades), q.array(bids)
    back = np.searchsorted(quotes, trades, "right") - 1                 # the last quote <= each trade
    got = qb.asof(qs, qt).evaluate()
    np.testing.assert_array_equal(np.ma.getmaskarray(got), back < 0)
    np.testing.assert_array_equal(got[back >= 0], bids[back[back >= 0]])
    ahead = np.searchsorted(quotes, trades, "left")                      # the first quote >= each trade
    ok = ahead < len(quotes)
    ok[ok] &= (quotes[ahead[ok]] - trades[ok]) <= np.timedelta64(5, "ns")
    got = qb.asof(qs, qt, direction="forward", tolerance=np.timedelta64(5, "ns")).evaluate()
    np.testing.assert_array_equal(np.ma.getmaskarray(got), ~ok)
    np.testing.assert_array_equal(got[ok], bids[ahead[ok]])
    assert qb.asof(qs, qt, direction="nearest", allow_exact=False).evaluate().shape == trades.shape
    with pytest.raises(ValueError):
        qb.asof(qs, qt, direction="sideways")
    np.testing.assert_array_equal(q.union(qs, qt).evaluate(), np.union1d(quotes, trades))
    left, right = q.join(qt, qs).evaluate()
    pairs = [(i, j) for i in range(len(trades)) for j in np.flatnonzero(quotes == trades[i])]
    np.testing.assert_array_equal(np.stack([left, right], 1).reshape(-1, 2), np.array(pairs).reshape(-1, 2))
    counts = np.array([3, 1, 4], dtype=np.int64)
    seconds = np.array([2, 5, 9], dtype=np.uint32)
    axis = np.arange(12, dtype=np.uint32)
    placed = q.array(counts).place(q.array(seconds), q.array(axis)).evaluate()
    np.testing.assert_array_equal(placed, [0, 0, 3, 0, 0, 1, 0, 0, 0, 4, 0, 0])
    with pytest.raises(q.Error) as raised:
        q.union(q.array(np.array([2, 1], dtype=np.int32)), q.array(np.array([], dtype=np.int32))).evaluate()
    assert raised.value.status == 62


def _sealed(b):
    """The bytes with their checksum made to match (CRC-32C of all but bytes 12-15)."""
    def crc(data, c=0):
        c ^= 0xFFFFFFFF
        for byte in data:
            c ^= byte
            for _ in range(8):
                c = (c >> 1) ^ 0x82F63B78 if c & 1 else c >> 1
        return c ^ 0xFFFFFFFF
    b = bytearray(b)
    b[12:16] = crc(b[16:], crc(b[:12])).to_bytes(4, "little")
    return bytes(b)


def test_every_flipped_bit_and_unknown_type_raise_the_packages_error():
    x = q.array(np.arange(300, dtype=np.int16))
    keys = q.array(np.arange(300, dtype=np.uint8) % 7)
    for part in (x.sum().partial(), x.approx_distinct().partial(), x.group_by(keys).sum().partial()):
        for bit in range(len(part) * 8):
            bad = bytearray(part)
            bad[bit // 8] ^= 1 << bit % 8
            with pytest.raises(q.Error) as raised:
                q.result([bytes(bad)])
            assert raised.value.status == 62
        for at in (8, 9):  # an element or key type no record has, checksum intact
            bad = bytearray(part)
            bad[at] = 11
            with pytest.raises(q.Error) as raised:
                q.result([_sealed(bad)])
            assert raised.value.status in (57, 61)
