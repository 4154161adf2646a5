"""qmo_seq over Dask arrays and Dask DataFrame columns.

Reductions (scalar aggregates, approximate distinct counts, top-N, first
positions, group-by aggregates) prepare each partition on its worker and
merge the partial results as bytes in a tree on the workers
(``dask.array.reduction`` with ``split_every``): only the final merged bytes
leave the workers, to the task that turns them into the result.

Order-dependent operators give, partition after partition, what one process
gives over the whole column, bit for bit: a moving window whose outputs
depend only on the last N elements reads a halo of the previous partition's
last N - 1 elements (``map_overlap``); cumulative aggregates, EMA, ATR and
windows over floating sums carry the previous partition's final state into
the next (a short chain of small tasks; the partitions' outputs are then
computed in parallel).

    import qmo_seq.dask as qd
    total = qd.sum(x)                        # a dask Delayed
    by_symbol = qd.group_by(size, symbol, "avg")
    ema = qd.window(price, "ema", 20)        # a dask array like price
    dask.compute(total, by_symbol, ema.sum())
"""
import dask
import dask.array as da
import numpy as np

import qmo_seq as q
from qmo_seq import _core

__all__ = ["reduce", "sum", "prod", "min", "max", "mean", "var", "std", "count", "approx_distinct", "top",
           "first_positions", "group_by", "window", "cumulative"]

_builtin_min = min


def _column(x, lengths=False):
    """A one-dimensional dask array from a dask array or a Dask DataFrame column."""
    if isinstance(x, da.Array):
        if x.ndim != 1:
            raise ValueError("qmo_seq.dask takes one-dimensional arrays")
        return x
    if hasattr(x, "to_dask_array"):  # a Dask DataFrame column (Series)
        return x.to_dask_array(lengths=True if lengths else None)
    raise TypeError(f"qmo_seq.dask takes dask arrays or Dask DataFrame columns, not {type(x).__name__}")


def _q(block, offset=0):
    """A partition as a qmo_seq sequence; a masked partition's mask marks its nulls."""
    return q.array(block if isinstance(block, np.ma.MaskedArray) else np.asarray(block), offset=offset)


# ---- reductions --------------------------------------------------------------------------------


def _prepare(*blocks, request, block_info=None):
    """In a worker: one partition's partial result as bytes, in a one-element object array."""
    offset = block_info[0]["array-location"][0][0] if block_info else 0
    offset = 0 if offset != offset else int(offset)  # unknown (NaN) where no request reads positions
    part = np.empty(1, dtype=object)
    part[0] = request(*(_q(b, offset) for b in blocks)).partial()
    return part


def _keep(parts, axis, keepdims):
    return parts


def _merge(parts, axis, keepdims):
    merged = np.empty(1, dtype=object)
    merged[0] = q.merge(list(parts.ravel()))
    return merged


def _final(parts, axis, keepdims):
    merged = np.empty((1,) if keepdims else (), dtype=object)
    merged[...] = q.merge(list(parts.ravel()))
    return merged


def _result(merged):
    return q.result(merged.item() if isinstance(merged, np.ndarray) else merged)


def reduce(request, *columns, split_every=None, offsets=False):
    """request(*columns as qmo_seq expressions over one partition) -> a mergeable aggregate.

    Returns a dask Delayed of the aggregate over the whole columns (numpy
    array; (keys, aggregates) for group-by). offsets: the request reads
    positions (first_positions), so the columns' chunk sizes must be known.
    """
    arrays = [_column(c, lengths=offsets) for c in columns]
    if len(arrays) > 1:
        arrays = list(da.core.unify_chunks(*(a for pair in zip(arrays, ["i"] * len(arrays)) for a in pair))[1])
    nblocks = arrays[0].numblocks[0]
    parts = da.map_blocks(_prepare, *arrays, request=request, dtype=object, chunks=((1,) * nblocks,),
                          name="qmo-prepare-" + dask.base.tokenize(request, *arrays), meta=np.empty(0, object))
    merged = da.reduction(parts, _keep, _final, combine=_merge, split_every=split_every, dtype=object,
                          concatenate=True, meta=np.empty((), object), name="qmo-merge")
    return dask.delayed(_result, pure=True)(merged)


def _method(name, **kw):
    return lambda x: getattr(x, name)(**kw)


def sum(x, split_every=None):
    return reduce(_method("sum"), x, split_every=split_every)


def prod(x, split_every=None):
    return reduce(_method("prod"), x, split_every=split_every)


def min(x, split_every=None):
    return reduce(_method("min"), x, split_every=split_every)


def max(x, split_every=None):
    return reduce(_method("max"), x, split_every=split_every)


def mean(x, split_every=None):
    return reduce(_method("mean"), x, split_every=split_every)


def var(x, ddof=0, split_every=None):
    return reduce(_method("var", ddof=ddof), x, split_every=split_every)


def std(x, ddof=0, split_every=None):
    return reduce(_method("std", ddof=ddof), x, split_every=split_every)


def count(x, nulls=True, split_every=None):
    return reduce(_method("count", nulls=nulls), x, split_every=split_every)


def approx_distinct(x, split_every=None):
    return reduce(_method("approx_distinct"), x, split_every=split_every)


def top(x, n, largest=True, split_every=None):
    return reduce(_method("top", n=n, largest=largest), x, split_every=split_every)


def first_positions(cond, n, split_every=None):
    """The first n positions (in the whole column) where cond holds."""
    return reduce(_method("first_positions", n=n), cond, split_every=split_every, offsets=True)


def _grouped(op, buckets):
    return lambda values, keys: getattr(values.group_by(keys, buckets), op)()


def group_by(values, keys, op, buckets=0, split_every=None):
    """(keys, aggregates) of values per distinct key; op: sum, min, max, mean, count, approx_distinct."""
    return reduce(_grouped(op, buckets), values, keys, split_every=split_every)


# ---- order-dependent operators ------------------------------------------------------------------

# Windows whose every output is a function of the last N elements alone
# (integer sums wrap exactly; extremes rescan the ring) take a halo; the
# others carry their running state, in which rounding accumulates.
def _halo_suffices(op, dtype):
    return op in ("min", "max") or (op in ("sum", "avg") and np.dtype(dtype).kind in "iumM")


def _window_halo(block, op, n, block_info=None):
    halo = 0 if block_info[None]["chunk-location"][0] == 0 else n - 1
    out = _q(block).window(op, n).evaluate()
    return np.ma.getdata(out)[halo:]


def _advance(state, block, expr):
    """The state after a partition, from the state before it (None: the column's start)."""
    return _core.carried(expr(_q(block)).node, state, False)[1]


def _run(state, block, expr):
    return q._output(_core.carried(expr(_q(block)).node, state, True)[0])


def _carried(x, expr, dtype, name):
    """expr over every partition of x, each started from the state its predecessors left."""
    token = dask.base.tokenize(x, name)
    states, outputs = f"qmo-state-{name}-{token}", f"qmo-{name}-{token}"
    layer = {(states, 0): None}
    keys = list(dask.core.flatten(x.__dask_keys__()))
    for i, key in enumerate(keys):
        layer[(states, i + 1)] = (_advance, (states, i), key, expr)
        layer[(outputs, i)] = (_run, (states, i), key, expr)
    graph = dask.highlevelgraph.HighLevelGraph.from_collections(outputs, layer, dependencies=[x])
    return da.Array(graph, outputs, x.chunks, dtype=dtype)


def _result_dtype(expr, dtype):
    return expr(q.array(np.zeros(0, dtype))).dtype


def window(x, op, n):
    """The moving aggregate of the last n elements (op: sum, avg, min, max, var, ..., ema, atr)."""
    x = _column(x, lengths=True)
    expr = lambda e: e.window(op, n)
    dtype = _result_dtype(expr, x.dtype)
    if not _halo_suffices(op, x.dtype):
        return _carried(x, expr, dtype, f"window-{op}-{n}")
    if n == 1:
        return x.map_blocks(_window_halo, op=op, n=n, dtype=dtype)
    x = _chunks_of_at_least(x, n - 1)
    return da.map_overlap(_window_halo, x, op=op, n=n, depth={0: (n - 1, 0)}, boundary="none", trim=False,
                          dtype=dtype, chunks=x.chunks)


def _chunks_of_at_least(x, m):
    """x, its partitions merged with their successors until each holds m elements."""
    chunks, run = [], 0
    for c in x.chunks[0]:
        run += c
        if run >= m:
            chunks.append(run)
            run = 0
    if run:
        if chunks:
            chunks[-1] += run
        else:
            chunks.append(run)
    return x if tuple(chunks) == x.chunks[0] else x.rechunk((tuple(chunks),))


def cumulative(x, op):
    """The running aggregate up to each element (op: sum, avg, prd, min, max, var, ...)."""
    x = _column(x, lengths=True)
    expr = lambda e: e.cumulative(op)
    return _carried(x, expr, _result_dtype(expr, x.dtype), f"cumulative-{op}")
