"""Sequence expressions over numpy arrays, evaluated tile by tile by qmo_seq.

    import numpy as np, qmo_seq as q
    x = q.array(np.arange(10, dtype=np.int32))
    ((x * 2)[x > 3]).sum().item()            # 84

Arrays go in without a copy (the expression keeps them alive); nulls come
from a boolean mask or a numpy.ma array. Results come back as numpy arrays,
masked where null. Aggregates also give their partial result as bytes
(``partial()``); ``merge`` and ``result`` combine such bytes from any number
of partitions, in this process or another.
"""

import numpy as np

from . import _core

__all__ = ["Error", "Expr", "array", "parse", "where", "merge", "result", "union", "join"]


class Error(Exception):
    """A status of the library; ``status`` holds its code (61, 62, 52, ...)."""

    NAMES = {52: "no memory", 57: "unsupported", 61: "type mismatch", 62: "invalid argument",
             701: "already bound", 702: "length mismatch", 703: "null value"}

    def __init__(self, status):
        super().__init__(f"{self.NAMES.get(status, 'status')} ({status})")
        self.status = status


_core._set_error(Error)

CHAR = 13
_CODES = {np.dtype(k): v for k, v in [("u1", 0), ("u2", 1), ("u4", 2), ("u8", 3), ("i1", 4), ("i2", 5),
                                      ("i4", 6), ("i8", 7), ("f4", 8), ("f8", 9), ("M8[ns]", 12)]}
_DTYPES = {v: k for k, v in _CODES.items()}


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


_STAMPS = {2: "uint4", 3: "uint8", 12: "datetime"}
_DIRECTIONS = {"backward": 0, "forward": 1, "nearest": 2}


def _unpack(raw, mask, code, width, boolean=False):
    values = raw.view(_dtype_of(code, width, boolean))
    return values if mask is None else np.ma.MaskedArray(values, mask)


def _output(pulled, boolean=False):
    if isinstance(pulled[0], tuple):  # groups and aggregates, or a join's two position arrays
        return tuple(_unpack(*part) for part in pulled)
    return _unpack(*pulled, boolean=boolean)


class Expr:
    """A sequence: an array, a constant, or an operator over sequences."""

    __slots__ = ("node", "boolean")

    def __init__(self, node, boolean=False):
        self.node = node
        self.boolean = boolean

    @property
    def dtype(self):
        return _dtype_of(self.node.type, self.node.width, self.boolean)

    # ---- building ---------------------------------------------------------------
    def _op(self, name, *operands, params=(), boolean=False):
        return Expr(_core.op(name, [self.node] + [o.node for o in operands], list(params)), boolean)

    def _pair(self, other):
        """Both sides as sequences of one type, promoted as numpy promotes (a scalar by its value)."""
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

    def astype(self, dtype):
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

    def where(self, cond, other):
        """This sequence where cond holds, else other (positionally)."""
        return where(cond, self, other)

    def filter(self, cond):
        """The elements whose condition holds."""
        return cond._op("filter", self, boolean=self.boolean)

    def __getitem__(self, cond):
        if not isinstance(cond, Expr):
            raise TypeError("index with a condition expression")
        return self.filter(cond)

    def nonzero(self):
        """Positions (uint64) of the true elements of a condition."""
        return self._op("filter_pos")

    def first_positions(self, n):
        """The first n (at most 128) positions whose condition holds; mergeable."""
        return self._op("filter_first_pos", params=[n])

    # ---- aggregates -------------------------------------------------------------
    def sum(self):
        return self._op("agg_sum")

    def prod(self):
        return self._op("agg_prd")

    def min(self):
        return self._op("agg_min")

    def max(self):
        return self._op("agg_max")

    def mean(self):
        return self._op("agg_avg")

    def var(self, ddof=0):
        """ddof=1 divides by n - 1 in both places: (s2 - s1^2/(n-1)) / (n-1)."""
        return self._op("agg_var_samp" if ddof else "agg_var")

    def std(self, ddof=0):
        return self._op("agg_dev_samp" if ddof else "agg_dev")

    def count(self, nulls=True):
        # Over an array source itself the library answers from its length and
        # cannot merge; through a range of every position the count is mergeable.
        every = self._op("limit", params=[0, 2**64 - 1], boolean=self.boolean)
        return every._op("agg_count" if nulls else "agg_count_not_null")

    def approx_distinct(self):
        return self._op("agg_approxdc")

    def cov(self, other):
        return self._binary("cov", other)

    def corr(self, other):
        return self._binary("corr", other)

    def wsum(self, values):
        return self._binary("wsum", values)

    def wavg(self, values):
        """Weighted mean of values with this sequence as the weights."""
        return self._binary("wavg", values)

    def group_by(self, keys, buckets=0):
        return GroupBy(self, keys, buckets)

    def top(self, n, largest=True):
        return self._op("top_max" if largest else "top_min", params=[n])

    def window(self, op, n):
        """Moving aggregate over the last n elements (op: sum, avg, min, max, var, ..., ema, atr)."""
        return self._op("window_agg_" + op, params=[n])

    def grid(self, op, n):
        """One aggregate per n consecutive elements."""
        return self._op("grid_agg_" + op, params=[n])

    def cumulative(self, op):
        """Running aggregate up to each element."""
        return self._op("cum_agg_" + op)

    def group_runs(self, keys):
        """Aggregates per run of equal consecutive keys (sorted keys: per key)."""
        return RunGroupBy(self, keys)

    # ---- reshaping and analytics ------------------------------------------------
    def thin(self, step, origin=0):
        """Elements origin, origin + step, ..."""
        return self._op("thin", params=[origin, step])

    def repeat(self, n):
        return self._op("repeat", params=[n])

    def reverse(self):
        return self._op("reverse")

    def unique(self):
        """Runs of equal consecutive elements collapsed to their first; nulls dropped."""
        return self._op("unique")

    def diff(self):
        return self._op("diff")

    def trend(self):
        """-1, 0 or 1: the sign of each change from the previous element."""
        return self._op("trend")

    def norm(self):
        return self._op("norm")

    def cross(self, kind=0):
        """Positions where the sign changes (kind 1: upwards, -1: downwards, 0: both)."""
        return self._op("cross", params=[_bits(kind, "i4")])

    def extrema(self, kind=0):
        """Positions of local maxima (1), minima (-1) or both (0)."""
        return self._op("extrema", params=[_bits(kind, "i4")])

    def histogram(self, low, high, bins):
        """Counts of bins equal bins over [low, high)."""
        return self._op("histogram", params=[_bits(low, self.dtype), _bits(high, self.dtype), _bits(bins, "i8")])

    def stretch(self, stamps, onto, filler=0):
        """This sequence, stamped by stamps, carried onto the stamps onto (filler before the first)."""
        kind = _STAMPS.get(stamps.node.type)
        if kind is None or onto.node.type != stamps.node.type:
            raise TypeError("stretch takes stamps of one type: uint32, uint64 or datetime64[ns]")
        return Expr(_core.op("stretch_" + kind, [onto.node, stamps.node, self.node], [_bits(filler, self.dtype)]))

    def asof(self, stamps, onto, direction="backward", tolerance=None, allow_exact=True):
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

    def place(self, stamps, onto, filler=0):
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

    def match(self, pattern):
        """Whether each char element matches a pattern (% any run, _ any one, backslash escapes)."""
        return Expr(_core.match(self.node, pattern), True)

    def argsort(self, descending=False):
        """The permutation (uint64) that orders the evaluated values."""
        values = np.ma.getdata(self.evaluate())
        return _core.argsort(values, self.node.type, descending)

    def __getattr__(self, name):
        """Any other family of this build, by its name in the library: x.agg_min_max()."""
        if not _core.has_op(name):
            raise AttributeError(name)
        return lambda *operands, params=(): self._op(name, *operands, params=params)

    # ---- results ----------------------------------------------------------------
    def evaluate(self):
        """A numpy array, masked where null (plain when nothing is null)."""
        return _output(_core.evaluate(self.node), self.boolean)

    to_numpy = evaluate

    def __array__(self, dtype=None):
        return np.asarray(self.evaluate(), dtype=dtype)

    def item(self):
        """The single element of an aggregate, or None when it delivered none or a null."""
        values = self.evaluate()
        if len(values) == 0 or np.ma.is_masked(values):
            return None
        return values[0].item() if len(values) == 1 else values.tolist()

    def partial(self):
        """This aggregate's partial result over its inputs, as bytes."""
        return _core.partial(self.node)

    def __repr__(self):
        return f"qmo_seq.Expr({self.dtype})"


class GroupBy:
    """Aggregates per distinct key; evaluate() gives (keys, aggregates)."""

    def __init__(self, values, keys, buckets=0):
        self.values, self.keys, self.buckets = values, keys, buckets

    def _agg(self, op, with_values=True):
        operands = [self.values.node, self.keys.node] if with_values else [self.keys.node]
        return Expr(_core.op("hash_agg_" + op, operands, [self.buckets]))

    def sum(self):
        return self._agg("sum")

    def min(self):
        return self._agg("min")

    def max(self):
        return self._agg("max")

    def mean(self):
        return self._agg("avg")

    def approx_distinct(self):
        return self._agg("approxdc")

    def count(self):
        """Occurrences of each key."""
        return self._agg("count", with_values=False)


class RunGroupBy:
    """Aggregates per run of equal consecutive keys, in order of the runs."""

    def __init__(self, values, keys):
        self.values, self.keys = values, keys

    def _agg(self, op):
        return Expr(_core.op("group_agg_" + op, [self.values.node, self.keys.node]))

    sum = lambda self: self._agg("sum")
    mean = lambda self: self._agg("avg")
    min = lambda self: self._agg("min")
    max = lambda self: self._agg("max")
    first = lambda self: self._agg("first")
    last = lambda self: self._agg("last")
    var = lambda self, ddof=0: self._agg("var_samp" if ddof else "var")
    std = lambda self, ddof=0: self._agg("dev_samp" if ddof else "dev")
    approx_distinct = lambda self: self._agg("approxdc")

    def count(self):
        return Expr(_core.op("group_agg_count", [self.keys.node]))

    def wavg(self, weights):
        """Weighted mean of the values per run."""
        return Expr(_core.op("group_agg_wavg", [weights.node, self.values.node, self.keys.node]))


def parse(text, dtype):
    """A sequence of dtype read from text such as "{1,2,null}" (the library's text form)."""
    code = _code_of(dtype)
    return Expr(_core.parse(code, text), np.dtype(dtype) == np.bool_)


def array(values, mask=None, offset=0):
    """A sequence over a numpy array, read in place.

    mask: booleans, True where null (a numpy.ma array brings its own).
    offset: the position of the array's first element in a longer column
    (for partitions of first_positions).
    """
    if isinstance(values, np.ma.MaskedArray):
        if mask is None:
            mask = np.ma.getmaskarray(values)
        values = values.data
    if not isinstance(values, np.ndarray):
        raise TypeError("qmo_seq.array takes a numpy array")
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


def where(cond, x, y):
    """x where cond holds, else y, element by element."""
    x, y = x._pair(y) if isinstance(x, Expr) else y._pair(x)[::-1]
    return cond._op("iif", x, y, boolean=x.boolean)


def merge(parts):
    """One partial result (bytes) from the partial results of partitions."""
    return _core.merge([bytes(p) for p in parts])


def result(parts):
    """What the whole input's aggregate gives, from its partitions' partial results."""
    if isinstance(parts, (bytes, bytearray)):
        parts = [parts]
    pulled = _core.result([bytes(p) for p in parts])
    return _output(pulled)


def union(a, b):
    """The ascending values of two ascending sequences, each once (their common axis)."""
    left, right = a._pair(b)
    return left._op("union", right)


def join(a, b):
    """The inner join of two ascending sequences on equal values: evaluate() gives the positions
    (uint64) of every equal pair in a and in b, ordered by a's position, then b's."""
    left, right = a._pair(b)
    return left._op("join", right)
