"""Sequence expressions over numpy arrays, evaluated tile by tile by qmo_seq.

    import numpy as np, qmo_seq as q
    x = q.array(np.arange(10, dtype=np.int32))
    ((x * 2)[x > 3]).sum().item()            # 78

Arrays go in without a copy (the expression keeps them alive); nulls come
from a boolean mask or a numpy.ma array. pandas Series and Index go in too,
nullable dtypes and NaT as nulls. Results come back as numpy arrays, masked
where null, or with ``to_pandas()`` as a Series. Aggregates also give their
partial result as bytes (``partial()``); ``merge`` and ``result`` combine such
bytes from any number of partitions, in this process or another.
"""

from __future__ import annotations

import os

from typing import TYPE_CHECKING, Any, Callable, Iterable, Optional, Tuple, Union

import numpy as np

from . import _core

if TYPE_CHECKING:
    import pandas as pd

__all__ = ["Error", "Expr", "GroupBy", "RunGroupBy", "array", "parse", "where", "merge", "result", "to_pandas", "PARTITION_ROWS",
           "union", "join"]

#: What ``evaluate`` gives: one array, or (keys, aggregates) of a group-by.
Output = Union[np.ndarray, Tuple[np.ndarray, np.ndarray]]
#: What ``array`` reads: a one-dimensional numpy array, a pandas Series or Index.
Column = Union[np.ndarray, "pd.Series", "pd.Index"]

PARTITION_ROWS = _core.PARTITION_ROWS  # rows per partition of a threaded evaluation


class Error(Exception):
    """A status of the library; ``status`` holds its code (61, 62, 52, ...)."""

    # Names and texts come from the library's own table of status codes.
    NAMES = {code: text for code, (name, text) in _core.statuses.items()}

    def __init__(self, status: int) -> None:
        super().__init__(f"{self.NAMES.get(status, 'status')} ({status})")
        self.status = status


_core._set_error(Error)

CHAR = _core.types["CHAR"]
_CODES = {np.dtype(k): _core.types[name] for k, name in [
    ("u1", "UINT1"), ("u2", "UINT2"), ("u4", "UINT4"), ("u8", "UINT8"), ("i1", "INT1"), ("i2", "INT2"),
    ("i4", "INT4"), ("i8", "INT8"), ("f4", "FLOAT"), ("f8", "DOUBLE"), ("M8[ns]", "DATETIME")]}
_DTYPES = {v: k for k, v in _CODES.items()}
# One line of description per library family, from the library's registry.
_FAMILIES = {row["name"]: row for row in _core.families()}


def _code_of(dtype):
    dtype = np.dtype(dtype)
    if dtype == np.bool_:
        return 0
    if dtype.kind == "S":
        return CHAR
    if dtype not in _CODES:
        raise TypeError(f"qmo_seq has no element type for {dtype}")
    return _CODES[dtype]


def _dtype_of(code, width, boolean=False):
    if boolean:
        return np.dtype(np.bool_)
    return np.dtype(f"S{width}") if code == CHAR else _DTYPES[code]


def _bits(value, dtype):
    """A typed scalar parameter: its little-endian bytes as an unsigned 64-bit word."""
    return int.from_bytes(np.array(value, dtype=dtype).tobytes(), "little")


_STAMPS = {_core.types["UINT4"]: "uint4", _core.types["UINT8"]: "uint8", _core.types["DATETIME"]: "datetime"}
_DIRECTIONS = {"backward": 0, "forward": 1, "nearest": 2}


def _unpack(raw, mask, code, width, boolean=False):
    values = raw.view(_dtype_of(code, width, boolean))
    return values if mask is None else np.ma.MaskedArray(values, mask)


def _output(pulled, boolean=False):
    if isinstance(pulled[0], tuple):  # groups and aggregates, or a join's two position arrays
        return tuple(_unpack(*part) for part in pulled)
    return _unpack(*pulled, boolean=boolean)


class Expr:
    """A sequence: an array, a constant, or an operator over sequences.

    Nothing is evaluated until ``evaluate()``, ``to_pandas()``, ``item()`` or
    ``partial()``; each of them evaluates the whole tree again.
    """

    __slots__ = {"node": "The library's operator tree this expression evaluates.",
                 "boolean": "Whether the elements are booleans (uint1 values read as bool)."}

    def __init__(self, node: Any, boolean: bool = False) -> None:
        self.node = node
        self.boolean = boolean

    @property
    def dtype(self) -> np.dtype:
        """The numpy dtype of the elements."""
        return _dtype_of(self.node.type, self.node.width, self.boolean)

    # ---- building ---------------------------------------------------------------
    def _op(self, name, *operands, params=(), boolean=False):
        return Expr(_core.op(name, [self.node] + [o.node for o in operands], list(params)), boolean)

    def _pair(self, other):
        """Both sides as sequences of one type, promoted as numpy promotes (a scalar by its value)."""
        if not isinstance(other, Expr) and (np.ndim(other) > 0 or _is_pandas(other)):
            other = array(other)  # a column, not a constant of its first element
        if not isinstance(other, Expr):
            common = np.result_type(self.dtype, other)
            left = self if common == self.dtype else self.astype(common)
            value = np.array(other, dtype=common)
            return left, Expr(_core.constant(_code_of(common), value.tobytes()), left.boolean)
        if self.node.type == other.node.type:
            return self, other
        common = np.result_type(self.dtype, other.dtype)
        return self.astype(common), other.astype(common)

    def _binary(self, name, other, boolean=False, reflected=False):
        left, right = self._pair(other)
        if reflected:
            left, right = right, left
        return left._op(name, right, boolean=boolean)

    def astype(self, dtype: Any) -> Expr:
        """The elements converted to dtype (numeric, bool or datetime64[ns])."""
        code = _code_of(dtype)
        if code == self.node.type:
            return Expr(self.node, np.dtype(dtype) == np.bool_)
        return Expr(_core.convert(self.node, code))

    __add__ = lambda self, o: self._binary("add", o)
    __radd__ = lambda self, o: self._binary("add", o, reflected=True)
    __sub__ = lambda self, o: self._binary("sub", o)
    __rsub__ = lambda self, o: self._binary("sub", o, reflected=True)
    __mul__ = lambda self, o: self._binary("mul", o)
    __rmul__ = lambda self, o: self._binary("mul", o, reflected=True)
    __truediv__ = lambda self, o: self._binary("div", o)
    __rtruediv__ = lambda self, o: self._binary("div", o, reflected=True)
    __mod__ = lambda self, o: self._binary("mod", o)
    __lt__ = lambda self, o: self._binary("lt", o, True)
    __le__ = lambda self, o: self._binary("le", o, True)
    __gt__ = lambda self, o: self._binary("gt", o, True)
    __ge__ = lambda self, o: self._binary("ge", o, True)
    __eq__ = lambda self, o: self._binary("eq", o, True)
    __ne__ = lambda self, o: self._binary("ne", o, True)
    __and__ = lambda self, o: self._binary("and", o, True)
    __or__ = lambda self, o: self._binary("or", o, True)
    __xor__ = lambda self, o: self._binary("xor", o, True)
    __invert__ = lambda self: self._op("not", boolean=True)
    __neg__ = lambda self: self._op("neg")
    __abs__ = lambda self: self._op("abs")
    __hash__ = None

    def where(self, cond: Expr, other: Union[Expr, Any]) -> Expr:
        """This sequence where cond holds, else other (positionally)."""
        return where(cond, self, other)

    def filter(self, cond: Expr) -> Expr:
        """The elements whose condition holds."""
        return cond._op("filter", self, boolean=self.boolean)

    def __getitem__(self, cond: Expr) -> Expr:
        if not isinstance(cond, Expr):
            raise TypeError("index with a condition expression")
        return self.filter(cond)

    def nonzero(self) -> Expr:
        """Positions (uint64) of the true elements of a condition."""
        return self._op("filter_pos")

    def first_positions(self, n: int) -> Expr:
        """The first n (at most 128) positions whose condition holds; mergeable."""
        return self._op("filter_first_pos", params=[n])

    # ---- aggregates -------------------------------------------------------------
    def sum(self) -> Expr:
        """The sum of the non-null elements (integers in 64 bits); mergeable."""
        return self._op("agg_sum")

    def prod(self) -> Expr:
        """The product of the non-null elements; mergeable."""
        return self._op("agg_prd")

    def min(self) -> Expr:
        """The smallest non-null element; mergeable."""
        return self._op("agg_min")

    def max(self) -> Expr:
        """The largest non-null element; mergeable."""
        return self._op("agg_max")

    def mean(self) -> Expr:
        """The mean of the non-null elements; mergeable."""
        return self._op("agg_avg")

    def var(self, ddof: int = 0) -> Expr:
        """The variance; ddof=1 divides by n - 1 in both places: (s2 - s1^2/(n-1)) / (n-1)."""
        return self._op("agg_var_samp" if ddof else "agg_var")

    def std(self, ddof: int = 0) -> Expr:
        """The root of ``var(ddof)``; mergeable."""
        return self._op("agg_dev_samp" if ddof else "agg_dev")

    def count(self, nulls: bool = True) -> Expr:
        """The number of elements, or of non-null ones with nulls=False; mergeable."""
        # Over an array source itself the library answers from its length and
        # cannot merge; through a range of every position the count is mergeable.
        every = self._op("limit", params=[0, 2**64 - 1], boolean=self.boolean)
        return every._op("agg_count" if nulls else "agg_count_not_null")

    def approx_distinct(self) -> Expr:
        """An estimate of the number of distinct non-null elements; mergeable."""
        return self._op("agg_approxdc")

    def cov(self, other: Expr) -> Expr:
        """The covariance of the pairs (this, other); mergeable."""
        return self._binary("cov", other)

    def corr(self, other: Expr) -> Expr:
        """The correlation of the pairs (this, other); mergeable."""
        return self._binary("corr", other)

    def wsum(self, values: Expr) -> Expr:
        """Sum of values weighted by this sequence; mergeable."""
        return self._binary("wsum", values)

    def wavg(self, values: Expr) -> Expr:
        """Weighted mean of values with this sequence as the weights."""
        return self._binary("wavg", values)

    def group_by(self, keys: Union[Expr, Column], buckets: int = 0) -> GroupBy:
        """Aggregates of this sequence per distinct key (buckets: the table's initial size, 0 default)."""
        return GroupBy(self, keys if isinstance(keys, Expr) else array(keys), buckets)

    def top(self, n: int, largest: bool = True) -> Expr:
        """The n largest (or smallest) elements, best first; mergeable."""
        return self._op("top_max" if largest else "top_min", params=[n])

    def window(self, op: str, n: int) -> Expr:
        """Moving aggregate: for every element, op over the last n elements.

        op: sum, avg, min, max, var, var_samp, dev, dev_samp, ema or atr.
        n: the window's length in elements, 1 up to 208 / itemsize (208 for
        1-byte elements, 104, 52, 26 for 8-byte ones); otherwise Error 62.
        The window starts as n zeros, so the first n - 1 results count zeros
        for the missing elements (avg divides by n from the start). ema
        weighs the newest element by 2 / (n + 1); atr averages over
        min(n, elements so far). A null element raises Error 703.
        """
        return self._op("window_agg_" + op, params=[n])

    def grid(self, op: str, n: int) -> Expr:
        """One aggregate per n consecutive elements, nulls skipped; the last group may be shorter.

        op: sum, avg, min, max, var, var_samp, dev or dev_samp.
        """
        return self._op("grid_agg_" + op, params=[n])

    def cumulative(self, op: str) -> Expr:
        """Running aggregate up to each element.

        op: sum, avg, prd, min, max, var, var_samp, dev or dev_samp.
        """
        return self._op("cum_agg_" + op)

    def group_runs(self, keys: Union[Expr, Column]) -> RunGroupBy:
        """Aggregates per run of equal consecutive keys (sorted keys: per key)."""
        return RunGroupBy(self, keys if isinstance(keys, Expr) else array(keys))

    # ---- reshaping and analytics ------------------------------------------------
    def thin(self, step: int, origin: int = 0) -> Expr:
        """Elements origin, origin + step, ..."""
        return self._op("thin", params=[origin, step])

    def repeat(self, n: int) -> Expr:
        """Every element n times."""
        return self._op("repeat", params=[n])

    def reverse(self) -> Expr:
        """The elements in reverse order."""
        return self._op("reverse")

    def unique(self) -> Expr:
        """Runs of equal consecutive elements collapsed to their first; nulls dropped."""
        return self._op("unique")

    def diff(self) -> Expr:
        """Each element minus the one before it."""
        return self._op("diff")

    def trend(self) -> Expr:
        """-1, 0 or 1: the sign of each change from the previous element."""
        return self._op("trend")

    def norm(self) -> Expr:
        """The elements scaled to unit length."""
        return self._op("norm")

    def cross(self, kind: int = 0) -> Expr:
        """Positions where the sign changes (kind 1: upwards, -1: downwards, 0: both)."""
        return self._op("cross", params=[_bits(kind, "i4")])

    def extrema(self, kind: int = 0) -> Expr:
        """Positions of local maxima (1), minima (-1) or both (0)."""
        return self._op("extrema", params=[_bits(kind, "i4")])

    def histogram(self, low: Any, high: Any, bins: int) -> Expr:
        """Counts of bins equal bins over [low, high)."""
        return self._op("histogram", params=[_bits(low, self.dtype), _bits(high, self.dtype), _bits(bins, "i8")])

    def stretch(self, stamps: Expr, onto: Expr, filler: Any = 0) -> Expr:
        """This sequence, stamped by stamps, carried onto the stamps onto (filler before the first)."""
        kind = _STAMPS.get(stamps.node.type)
        if kind is None or onto.node.type != stamps.node.type:
            raise TypeError("stretch takes stamps of one type: uint32, uint64 or datetime64[ns]")
        return Expr(_core.op("stretch_" + kind, [onto.node, stamps.node, self.node], [_bits(filler, self.dtype)]))

    def asof(self, stamps: Expr, onto: Expr, direction: str = "backward", tolerance: Any = None,
             allow_exact: bool = True) -> Expr:
        """This sequence, stamped by ascending stamps, matched to each ascending stamp of onto.

        direction: "backward" (the last stamp <= it), "forward" (the first >=)
        or "nearest" (backward unless forward is strictly nearer). tolerance:
        the largest distance accepted (in the stamps' unit; a numpy
        timedelta64 for datetime stamps); None accepts any. allow_exact=False
        makes the comparisons strict. Null where nothing qualifies.
        """
        kind = self._stamp_kind(stamps, onto)
        code = _DIRECTIONS.get(direction)
        if code is None:
            raise ValueError(f"direction is one of {', '.join(_DIRECTIONS)}")
        if tolerance is None:
            limit = (1 << 64) - 1
        elif isinstance(tolerance, np.timedelta64):
            limit = int(tolerance.astype("m8[ns]").astype(np.int64))
        else:
            limit = int(tolerance)
        if limit < 0:
            raise ValueError("tolerance is not negative")
        return Expr(_core.op("asof_join_" + kind, [onto.node, stamps.node, self.node], [code, limit, int(bool(allow_exact))]))

    def place(self, stamps: Expr, onto: Expr, filler: Any = 0) -> Expr:
        """This sequence, stamped by ascending stamps, placed on the ascending stamps onto: the value at an
        equal stamp (the last of several), filler elsewhere."""
        kind = self._stamp_kind(stamps, onto)
        return Expr(_core.op("stretch0_" + kind, [onto.node, stamps.node, self.node], [_bits(filler, self.dtype)]))

    @staticmethod
    def _stamp_kind(stamps, onto):
        kind = _STAMPS.get(stamps.node.type)
        if kind is None or onto.node.type != stamps.node.type:
            raise TypeError("stamps of one type: uint32, uint64 or datetime64[ns]")
        return kind

    def match(self, pattern: Union[str, bytes]) -> Expr:
        """Whether each char element matches a pattern (% any run, _ any one, backslash escapes)."""
        return Expr(_core.match(self.node, pattern), True)

    def argsort(self, descending: bool = False) -> np.ndarray:
        """The permutation (uint64) that orders the evaluated values."""
        values = np.ma.getdata(self.evaluate())
        return _core.argsort(values, self.node.type, descending)

    def __getattr__(self, name: str) -> Callable[..., Expr]:
        """Any other family of this build, by its name in the library: x.agg_min_max()."""
        if not _core.has_op(name):
            raise AttributeError(name)

        def call(*operands, params=()):
            return self._op(name, *operands, params=params)
        row = _FAMILIES.get(name)
        call.__name__ = name
        if row:
            call.__doc__ = f"{row['doc']} (library family {name}; statuses {row['statuses']})"
        return call

    # ---- results ----------------------------------------------------------------
    def evaluate(self, threads: Optional[int] = None) -> Output:
        """A numpy array, masked where null (plain when nothing is null); a group-by gives (keys, aggregates).

        threads: how many threads may evaluate a mergeable request (an
        aggregate, top-N, first positions or a group-by over arrays through
        element-wise operators and filters); None for every core, 1 for one
        pass on this thread. Such a request over more than PARTITION_ROWS
        rows is split into ceil(rows / PARTITION_ROWS) partitions whatever
        the number of threads, each prepared on its own, and merged in
        partition order: the answer is that of the partitions' partial
        results merged (a float sum rounds by partition, top-N keeps a value
        found in two partitions once), the same for any threads > 1.
        """
        if threads is None:
            threads = os.cpu_count() or 1
        return _output(_core.evaluate(self.node, max(1, int(threads))), self.boolean)

    to_numpy = evaluate

    def to_pandas(self) -> pd.Series:
        """The result as a pandas Series (see ``qmo_seq.to_pandas``)."""
        return to_pandas(self.evaluate())

    def to_text(self, format: Optional[str] = None) -> str:
        """The sequence as text that parse() reads back to the same values: "{1,null,3}".

        format: a printf format of one element ("%.2f", "%08x", "[%s]"); None
        gives each type's round-tripping default.
        """
        return _core.to_text(self.node, format)

    def __array__(self, dtype=None):
        return np.asarray(self.evaluate(), dtype=dtype)

    def item(self) -> Any:
        """The single element of an aggregate, or None when it delivered none or a null."""
        values = self.evaluate()
        if len(values) == 0 or np.ma.is_masked(values):
            return None
        return values[0].item() if len(values) == 1 else values.tolist()

    def partial(self) -> bytes:
        """This aggregate's partial result over its inputs, as bytes."""
        return _core.partial(self.node)

    def __repr__(self):
        return f"qmo_seq.Expr({self.dtype})"


class GroupBy:
    """Aggregates per distinct key; evaluate() gives (keys, aggregates), to_pandas() a Series indexed by key."""

    def __init__(self, values: Expr, keys: Expr, buckets: int = 0) -> None:
        self.values, self.keys, self.buckets = values, keys, buckets

    def _agg(self, op, with_values=True):
        operands = [self.values.node, self.keys.node] if with_values else [self.keys.node]
        return Expr(_core.op("hash_agg_" + op, operands, [self.buckets]))

    def sum(self) -> Expr:
        """The sum per key; mergeable."""
        return self._agg("sum")

    def min(self) -> Expr:
        """The smallest value per key; mergeable."""
        return self._agg("min")

    def max(self) -> Expr:
        """The largest value per key; mergeable."""
        return self._agg("max")

    def mean(self) -> Expr:
        """The mean per key; mergeable."""
        return self._agg("avg")

    def approx_distinct(self) -> Expr:
        """An estimate of the distinct values per key; mergeable."""
        return self._agg("approxdc")

    def count(self) -> Expr:
        """Occurrences of each key."""
        return self._agg("count", with_values=False)


class RunGroupBy:
    """Aggregates per run of equal consecutive keys, in order of the runs."""

    def __init__(self, values: Expr, keys: Expr) -> None:
        self.values, self.keys = values, keys

    def _agg(self, op):
        return Expr(_core.op("group_agg_" + op, [self.values.node, self.keys.node]))

    def sum(self) -> Expr:
        """The sum per run."""
        return self._agg("sum")

    def mean(self) -> Expr:
        """The mean per run."""
        return self._agg("avg")

    def min(self) -> Expr:
        """The smallest value per run."""
        return self._agg("min")

    def max(self) -> Expr:
        """The largest value per run."""
        return self._agg("max")

    def first(self) -> Expr:
        """The first value of each run."""
        return self._agg("first")

    def last(self) -> Expr:
        """The last value of each run."""
        return self._agg("last")

    def var(self, ddof: int = 0) -> Expr:
        """The variance per run (ddof=1: the sample variance)."""
        return self._agg("var_samp" if ddof else "var")

    def std(self, ddof: int = 0) -> Expr:
        """The root of ``var(ddof)`` per run."""
        return self._agg("dev_samp" if ddof else "dev")

    def approx_distinct(self) -> Expr:
        """An estimate of the distinct values per run."""
        return self._agg("approxdc")

    def count(self) -> Expr:
        """The length of each run."""
        return Expr(_core.op("group_agg_count", [self.keys.node]))

    def wavg(self, weights: Expr) -> Expr:
        """Weighted mean of the values per run."""
        return Expr(_core.op("group_agg_wavg", [weights.node, self.values.node, self.keys.node]))


def parse(text: Union[str, bytes], dtype: Any, scan: Optional[Callable[[str, int], Any]] = None) -> Expr:
    """A sequence of dtype read from text such as "{1,2,null}" (the library's text form).

    scan: reads tokens the built-in scans cannot (dates, currencies, names).
    scan(text, at) reads the token starting at text[at] and returns
    (value, consumed), with value None for a null, or None when there is no
    token there (the library's status 62). The list syntax (braces, commas,
    the word null) stays the library's.
    """
    dtype = np.dtype(dtype)
    code = _code_of(dtype)
    data = text.encode("utf-8", "surrogateescape") if isinstance(text, str) else bytes(text)
    if scan is None:
        return Expr(_core.parse(code, data), dtype == np.bool_)
    if isinstance(text, str) and len(data) != len(text):
        # Byte offsets of the library to character offsets of the text, and back.
        char_at = np.repeat(np.arange(len(text)), [len(c.encode("utf-8", "surrogateescape")) for c in text])
        byte_at = np.concatenate([[0], np.cumsum([len(c.encode("utf-8", "surrogateescape")) for c in text])])
    else:
        char_at = byte_at = None

    def token(offset):
        at = offset if char_at is None or offset >= len(char_at) else int(char_at[offset])
        if char_at is not None and offset >= len(char_at):
            at = len(text)
        found = scan(text, at)
        if found is None:
            return None
        value, used = found
        consumed = used if byte_at is None else int(byte_at[min(at + used, len(text))]) - offset
        return (None if value is None else np.array(value, dtype=dtype).tobytes(), consumed)

    return Expr(_core.custom_parse(code, dtype.itemsize, data, token), dtype == np.bool_)


def array(values: Column, mask: Optional[Any] = None, offset: int = 0) -> Expr:
    """A sequence over a numpy array, a pandas Series or an Index, read in place.

    mask: booleans, True where null (a numpy.ma array brings its own).
    offset: the position of the array's first element in a longer column
    (for partitions of first_positions).

    From pandas, the nullable dtypes (Int8..UInt64, Float32/64, boolean) give
    their missing elements as nulls, and so does NaT in datetime64[ns]; NaN in
    a float64 Series stays a value, as in numpy. A Series' index is not read:
    results are numbered from 0.
    """
    if not isinstance(values, np.ndarray) and _is_pandas(values):
        values, missing = _from_pandas(values)
        if missing is not None:
            mask = missing if mask is None else np.asarray(mask, dtype=bool) | missing
    if isinstance(values, np.ma.MaskedArray):
        if mask is None:
            mask = np.ma.getmaskarray(values)
        values = values.data
    if not isinstance(values, np.ndarray):
        raise TypeError("qmo_seq.array takes a numpy array, a pandas Series or an Index")
    code = _code_of(values.dtype)
    if values.ndim != 1:
        raise TypeError("qmo_seq.array takes a one-dimensional array")
    values = np.ascontiguousarray(values)
    nulls = None
    if mask is not None:
        mask = np.asarray(mask, dtype=bool)
        if mask.shape != values.shape:
            raise ValueError("mask and values differ in length")
        if mask.any():
            packed = np.packbits(mask, bitorder="little")
            nulls = np.zeros((len(packed) + 7) // 8 * 8, dtype=np.uint8)
            nulls[: len(packed)] = packed
            nulls = nulls.view(np.uint64)
    width = values.dtype.itemsize if code == CHAR else 0
    return Expr(_core.array(values, code, width, nulls, offset), values.dtype == np.bool_)


def where(cond: Expr, x: Union[Expr, Any], y: Union[Expr, Any]) -> Expr:
    """x where cond holds, else y, element by element."""
    x, y = x._pair(y) if isinstance(x, Expr) else y._pair(x)[::-1]
    return cond._op("iif", x, y, boolean=x.boolean)


def merge(parts: Iterable[bytes]) -> bytes:
    """One partial result (bytes) from the partial results of partitions."""
    return _core.merge([bytes(p) for p in parts])


def result(parts: Union[bytes, Iterable[bytes]]) -> Output:
    """What the whole input's aggregate gives, from its partitions' partial results."""
    if isinstance(parts, (bytes, bytearray)):
        parts = [parts]
    pulled = _core.result([bytes(p) for p in parts])
    return _output(pulled)


# ---- pandas (imported only when used) ------------------------------------------------------


def _is_pandas(obj):
    return type(obj).__module__.partition(".")[0] == "pandas"


def _from_pandas(column):
    """(values, mask or None) of a Series or Index, read in place where pandas keeps a numpy array."""
    import pandas as pd

    if not isinstance(column, (pd.Series, pd.Index)):
        raise TypeError(f"qmo_seq.array takes a Series or an Index, not {type(column).__name__}")
    values = column.array
    if isinstance(values, (pd.arrays.IntegerArray, pd.arrays.FloatingArray, pd.arrays.BooleanArray)):
        data, mask = values._data, values._mask  # the arrays the nullable dtype is made of
        return data, mask if mask.any() else None
    if isinstance(column.dtype, pd.DatetimeTZDtype):
        raise TypeError("qmo_seq takes datetime64[ns] without a time zone: convert with tz_convert(None)")
    data = column.to_numpy()
    if data.dtype.kind == "M":
        missing = np.isnat(data)
        return data, missing if missing.any() else None
    return data, None


def _pandas_values(values):
    import pandas as pd

    if not np.ma.isMaskedArray(values):
        return values
    data, mask = values.data, np.ma.getmaskarray(values)
    kind = data.dtype.kind
    if kind in "iu":
        return pd.arrays.IntegerArray(data, mask)
    if kind == "f":
        return pd.arrays.FloatingArray(data, mask)
    if kind == "b":
        return pd.arrays.BooleanArray(data, mask)
    if kind == "M":
        return np.where(mask, np.datetime64("NaT", "ns"), data)
    out = data.astype(object)
    out[mask] = pd.NA
    return out


def to_pandas(output: Output) -> pd.Series:
    """A pandas Series of what ``evaluate`` or ``result`` gave.

    Null elements become pd.NA in the nullable dtype of their kind (Int32,
    UInt8, Float64, boolean, ...) or NaT; without nulls the numpy dtype stays.
    A group-by's (keys, aggregates) becomes the aggregates indexed by key.
    """
    import pandas as pd

    if isinstance(output, tuple):
        keys, values = output
        return pd.Series(_pandas_values(values), index=pd.Index(_pandas_values(keys)))
    return pd.Series(_pandas_values(output))


def union(a: Expr, b: Expr) -> Expr:
    """The ascending values of two ascending sequences, each once (their common axis)."""
    left, right = a._pair(b)
    return left._op("union", right)


def join(a: Expr, b: Expr) -> Expr:
    """The inner join of two ascending sequences on equal values: evaluate() gives the positions
    (uint64) of every equal pair in a and in b, ordered by a's position, then b's."""
    left, right = a._pair(b)
    return left._op("join", right)
