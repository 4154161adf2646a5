"""pandas in and out, and the documented public API."""

import inspect
import types

import numpy as np
import pandas as pd
import pytest

import qmo_seq as q

NULLABLE = ["Int8", "Int16", "Int32", "Int64", "UInt8", "UInt16", "UInt32", "UInt64", "Float32", "Float64", "boolean"]


@pytest.mark.parametrize("dtype", NULLABLE)
def test_nullable_series_come_back_with_pd_na_in_their_own_dtype(dtype):
    s = pd.Series([1, None, 0, 1, None] * 60, dtype=dtype, index=np.arange(300) * 3)  # the index is not read
    back = q.array(s).to_pandas()
    pd.testing.assert_series_equal(back, s.reset_index(drop=True))
    assert back.isna().sum() == 120
    if dtype != "boolean":
        assert q.array(s).sum().item() == 120
        assert (q.array(s) + 1).to_pandas().isna().sum() == 120


@pytest.mark.parametrize("dtype", ["i1", "i2", "i4", "i8", "u1", "u2", "u4", "u8", "f4", "f8", "?"])
def test_numpy_backed_series_and_indexes_round_trip_in_their_dtype(dtype):
    values = (np.arange(300) % 7).astype(dtype)
    for column in (pd.Series(values, index=np.arange(300)[::-1]), pd.Index(values)):
        back = q.array(column).to_pandas()
        pd.testing.assert_series_equal(back, pd.Series(column.to_numpy()))  # pandas 1 widens an Index


def test_a_series_or_array_operand_is_read_as_a_column():
    a = np.arange(300, dtype=np.int32)
    s = pd.Series(a * 10, dtype="Int64")
    s[5] = pd.NA
    got = (q.array(a) + s).to_pandas()
    pd.testing.assert_series_equal(got, a + s)
    np.testing.assert_array_equal(q.where(q.array(a) > 100, a * 2, q.array(a)).evaluate(), np.where(a > 100, a * 2, a))
    with pytest.raises(TypeError):
        q.array(a) + [1, 2]


def test_float_nan_stays_a_value_as_in_numpy():
    s = pd.Series([1.0, np.nan, 2.0])
    assert not np.ma.isMaskedArray(q.array(s).evaluate())
    assert np.isnan(q.array(s).sum().item())


def test_datetimes_from_series_and_index_with_nat_as_null():
    stamps = pd.Series(pd.date_range("2026-01-01", periods=300, freq="s"))
    stamps[::7] = pd.NaT
    x = q.array(stamps)
    pd.testing.assert_series_equal(x.to_pandas(), stamps)
    assert x.count(nulls=False).item() == 300 - 43
    assert pd.Timestamp(x.max().item()) == stamps.max()
    index = pd.DatetimeIndex(stamps[1:7])
    pd.testing.assert_series_equal(q.array(index).to_pandas(), pd.Series(index.to_numpy()))
    with pytest.raises(TypeError):
        q.array(stamps.dt.tz_localize("UTC"))


def test_a_series_and_an_explicit_mask_combine():
    s = pd.Series([1, None, 3, 4], dtype="Int32")
    back = q.array(s, mask=[False, False, True, False]).to_pandas()
    assert back.isna().tolist() == [False, True, True, False]


@pytest.mark.parametrize("column", [pd.Series(["a", "b"]), pd.Series([1j]),
                                    pd.DataFrame({"a": [1]})])
def test_columns_without_an_element_type_raise_type_error(column):
    with pytest.raises(TypeError):
        q.array(column)


def test_group_by_comes_back_as_a_series_indexed_by_key():
    keys = pd.Series([3, 1, 3, 2] * 50, dtype="int16")
    vals = pd.Series(np.arange(200), dtype="Int32")
    vals[vals % 4 == 3] = pd.NA                     # key 2 has only nulls
    sums = q.array(vals).group_by(q.array(keys)).sum().to_pandas().sort_index()
    pd.testing.assert_series_equal(sums, vals.groupby(keys).sum(min_count=1).astype("Int64"), check_names=False)
    pd.testing.assert_series_equal(q.array(vals).group_by(keys).sum().to_pandas().sort_index(), sums)  # keys as a Series
    names = q.array(np.array([b"x", b"y", b"x"], "S1"))
    counts = names.group_by(names).count().to_pandas()
    assert counts.to_dict() == {b"x": 2, b"y": 1}
    parts = [q.array(vals[lo:lo + 100]).group_by(q.array(keys[lo:lo + 100])).max().partial() for lo in (0, 100)]
    merged = q.to_pandas(q.result(parts)).sort_index()
    pd.testing.assert_series_equal(merged, q.array(vals).group_by(q.array(keys)).max().to_pandas().sort_index())


def test_masked_text_and_datetime_results_take_pd_na_and_nat():
    text = q.to_pandas(np.ma.MaskedArray(np.array([b"ab", b"c"], "S2"), [False, True]))
    assert text.tolist()[0] == b"ab" and text.tolist()[1] is pd.NA
    stamps = q.to_pandas(np.ma.MaskedArray(np.array([1, 2], "M8[ns]"), [True, False]))
    assert stamps.dtype == "M8[ns]" and stamps.isna().tolist() == [True, False]


def _public_names():
    for name in q.__all__:
        yield name, getattr(q, name)
        if inspect.isclass(getattr(q, name)):
            cls = getattr(q, name)
            yield from ((f"{name}.{n}", v) for n, v in vars(cls).items() if not n.startswith("_"))


def test_every_public_name_has_a_docstring_and_its_functions_type_hints():
    names = [(n, v) for n, v in _public_names()
             if callable(v) or isinstance(v, (property, types.MemberDescriptorType))]
    assert len(names) > 60
    assert [n for n, v in names if not inspect.getdoc(v)] == []
    assert [n for n, v in names if inspect.isfunction(v) and "return" not in v.__annotations__] == []


def test_help_on_window_names_its_ops_and_what_n_means():
    text = inspect.getdoc(q.Expr.window)
    for op in ["sum", "avg", "min", "max", "var", "var_samp", "dev", "dev_samp", "ema", "atr"]:
        assert op in text
    assert "the last n elements" in text and "208" in text
