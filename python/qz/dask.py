"""Sufficient statistics of tables larger than one machine, counted on a Dask cluster.

A pairwise model is trained on its sufficient statistics: the counts of each
vertex state and of each edge's joint states, sums over the rows. Sums can
be formed where the rows lie and added up. load_statistics does that with
Dask (dask and distributed) and leaves in a context what MODEL would have
left after reading the whole table, so that ESTIMATE, CLOSEDFORM, INFER and
STORE MPT run on the client as after a MODEL on one machine:

    import dask.dataframe as dd, qz, qz.dask
    from distributed import Client
    client = Client("scheduler:8786")                     # or Client() on this machine
    df = dd.read_csv("data/part-*.csv", dtype=str)        # categorical columns
    with qz.Context(seed=7) as ctx:
        qz.dask.load_statistics(ctx, df, graph="CHAIN")  # or CHOWLIU, an edge list, ...
        ctx.run("ALG FL1;\\nESTIMATE;")                # FL1: FISTA
        ctx.save_model("big.qzm")

How it runs, in two passes over the partitions:

1. Dictionary. Each partition lists the distinct values of each column in
   order of first appearance (one list for the whole row-major table with
   YYC true). The client merges the lists in partition order, so that a
   state's code is the one the library would give it reading the whole
   table in order, on one machine. Only distinct values travel.
2. Counting. Each partition is coded with that dictionary and counted by
   libqz itself (MODEL on the partition as a host table), on the worker. Only
   the count arrays travel; they are added in a tree (split_every at a time)
   as whole numbers, so the sum is exact and independent of the order.
   Missing cells are completed per partition, as MODEL completes them, from
   the seed SeedSequence((SEED, partition number)) (numpy), where SEED is the
   context's register (0 when never written): a table with missing cells
   therefore gets other draws than one machine would make, with the same law.

The client then builds the model container with MODEL over a small table of
the dictionary's states, replaces its counts by the sum, and, for CHOWLIU and
ELEMGM, runs the library's own learner on the counts of the complete graph.
For a table without missing cells the container, and the model file after
the same estimation, are byte for byte those of one machine reading the
concatenated table. (With VAL FLT32 a count is a whole number only up to
2^24: the client rounds the exact 64-bit sum once, where one machine adding
one row at a time in single precision stops growing at 2^24, so beyond it
the two differ; FLT64 is exact up to 2^53.) The client never holds the table: its memory is the
dictionary and one count array (a few MB for a pairwise model, however many
rows there are).

A worker needs qz importable and its libraries (pip install the package on
every worker, or set PYTHONPATH and QZ_LIBRARY in the workers' environment).
A worker that dies is replaced by Dask and its partitions counted again: the
count of a partition depends only on the partition, so the sum stays exact.
"""

from typing import Any, Sequence, Tuple, Union

import numpy as np

import dask
from dask import delayed

from . import _frame
from .context import Context, QZError, Statistics

# The graph kinds that need no other input than the table, by GRA's name, and
# the kind counted on the workers for each: the structure learners start from
# the counts of the complete graph.
GRAPH_KINDS = {"CHAIN": 1, "GRID": 2, "STAR": 3, "FULL": 5, "CHOWLIU": 6, "ELEMGM": 7}
_COUNTED_AS = {1: 1, 2: 2, 3: 3, 5: 5, 6: 5, 7: 5}
_LEARNERS = (6, 7)
_FILE = 0
_INDEX_DTYPES = {0: np.uint8, 1: np.uint16, 2: np.uint32, 3: np.uint64}


def partition_seed(seed: int, number: int) -> int:
    """The seed of the context that counts partition number: SeedSequence((seed, number)), 32 bits."""
    return int(np.random.SeedSequence([int(seed), int(number)]).generate_state(1, dtype=np.uint32)[0])


class _Job:
    """What a worker needs to count a partition as the client's context would: picklable and small."""

    def __init__(self, labels, kinds, shared, limit, registers, gra, edges):
        self.labels = labels
        self.kinds = kinds
        self.shared = shared
        self.limit = limit
        self.registers = registers  # IDX, VAL, CEN, REP, TXX and SEED of the client's context
        self.gra = gra  # GRA value counted on the workers
        self.edges = edges  # for GRA FILE: an (m, 2) array of vertex numbers


def _check_partition(part, number, job):
    labels = list(part.columns)
    if len(labels) != len(job.labels):
        raise QZError(
            "partition %d has %d columns, but the table has %d (%s)"
            % (number, len(labels), len(job.labels), ", ".join(map(str, job.labels)))
        )
    if labels != job.labels:
        raise QZError("partition %d has the columns %s, but the table has %s" % (number, labels, job.labels))


def _distinct(part, number, job):
    """The distinct values of a partition's columns, at most limit + 1 each (more are an error anyway)."""
    _check_partition(part, number, job)
    _frame.column_kinds(part)
    values = _frame.distinct_values(part, job.shared)
    return [v[: job.limit + 1] for v in values]


def _count(part, number, dictionaries, job):
    """(rows, counts) of one partition, counted by MODEL in a context of its own; (0, None) if it is empty."""
    _check_partition(part, number, job)
    if len(part) == 0:
        return 0, None
    coding = _frame.coding_of(part, dictionaries, _frame.column_kinds(part), job.shared)
    codes = _frame.encode(part, coding)
    regs = job.registers
    with Context(seed=partition_seed(regs["SEED"], number), progress=None) as ctx:
        for name in ("IDX", "VAL", "TXX", "CEN", "REP"):
            ctx[name] = regs[name]
        ctx._install_table(codes, coding)
        _set_graph(ctx, job.gra, job.edges, len(job.labels))
        ctx.run("LDX GPT;\nMODEL;")
        counts = ctx.statistics().counts
    return len(part), counts


def _add(*parts):
    """The sum of partial (rows, counts), exact in 64-bit whole numbers."""
    rows = sum(p[0] for p in parts)
    arrays = [p[1] for p in parts if p[1] is not None]
    if not arrays:
        return rows, None
    total = np.array(arrays[0], dtype=np.uint64, copy=True)
    for a in arrays[1:]:
        if a.shape != total.shape:
            raise QZError("two partitions were counted into %d and %d statistics" % (total.size, a.size))
        total += a
    return rows, total


def _set_graph(ctx, gra, edges, columns):
    if gra == _FILE:
        ctx["GRA"] = _FILE
        ctx["GVX"] = columns
        ctx["GEX"] = len(edges)
        ctx["EAP"] = np.require(edges, dtype=_INDEX_DTYPES[int(ctx["IDX"])], requirements=["C", "A"])
    else:
        ctx["EAP"] = None
        ctx["GRA"] = gra


def _graph_kind(graph, labels):
    """(GRA value asked for, GRA value counted, edges or None) for load_statistics's graph argument."""
    if isinstance(graph, str):
        name = graph.upper()
        if name not in GRAPH_KINDS:
            raise QZError(
                "graph %r: qz.dask counts the graphs %s, or an edge list" % (graph, ", ".join(sorted(GRAPH_KINDS)))
            )
        kind = GRAPH_KINDS[name]
        return kind, _COUNTED_AS[kind], None
    if isinstance(graph, (int, np.integer)):
        if int(graph) not in _COUNTED_AS:
            raise QZError("graph kind %d: qz.dask counts the graphs %s" % (graph, ", ".join(sorted(GRAPH_KINDS))))
        return int(graph), _COUNTED_AS[int(graph)], None
    pairs = list(graph)
    names = [str(x) for x in labels]
    edges = np.zeros((len(pairs), 2), dtype=np.int64)
    for e, pair in enumerate(pairs):
        if len(pair) != 2:
            raise QZError("edge %d of the graph is %r, not a pair of columns" % (e, pair))
        for k, end in enumerate(pair):
            if isinstance(end, (int, np.integer)) and not isinstance(end, bool) and end not in labels:
                v = int(end)
            elif end in labels:
                v = labels.index(end)
            elif str(end) in names:
                v = names.index(str(end))
            else:
                raise QZError("edge %d names the column %r, which the table does not have" % (e, end))
            if not 0 <= v < len(labels):
                raise QZError("edge %d names the vertex %d, but the table has %d columns" % (e, v, len(labels)))
            edges[e, k] = v
        if edges[e, 0] == edges[e, 1]:
            raise QZError("edge %d joins the column %r to itself" % (e, labels[edges[e, 0]]))
    return _FILE, _FILE, edges


def _tree(items, split_every):
    level = list(items)
    while len(level) > 1:
        level = [delayed(_add, pure=True)(*level[i : i + split_every]) for i in range(0, len(level), split_every)]
    return level[0]


def load_statistics(
    ctx: Context,
    df: Any,
    graph: Union[str, int, Sequence[Tuple[Any, Any]]] = "CHAIN",
    *,
    split_every: int = 8,
) -> Statistics:
    """Count the sufficient statistics of a Dask DataFrame on the cluster into ctx's model.

    ctx: the context that gets the model (MPT) and its graph (GPT); its
        table, model and graph are released first. Its registers IDX, VAL,
        YYC, CEN, REP, PEL and SEED apply as to MODEL on one machine.
    df: a dask.dataframe.DataFrame of categorical, string, object, boolean
        or integer columns (floating-point columns are refused: bin them
        first); its partitions are the table's rows in order.
    graph: a graph kind of GRA that needs nothing but the table: "CHAIN",
        "GRID", "STAR", "FULL", or a structure learner, "CHOWLIU" or
        "ELEMGM" (the counts of all column pairs, then the library's
        learner on the client); or an edge list, pairs of column names or
        numbers (GRA FILE over the host edge list EAP, which the context
        keeps).
    split_every: how many partial counts each step of the tree adds up.

    Uses the current Dask client (or Dask's default scheduler). Afterwards
    the context holds the model with the state names of the dictionary and
    the column names, NXX the number of rows, and no table (DPT is null);
    predictions and marginals are labelled as after load_table(DataFrame).
    Returns the Statistics of the whole table.

    Raises QZError for a partition with other columns, a column with more
    states than IDX's index type holds or with no value, duplicate column
    names, an unknown graph kind, and a value that a second pass over a
    changing source finds outside the dictionary.
    """
    # Any Dask DataFrame: its partitions as delayed objects, and an empty pandas frame of its columns.
    meta = getattr(df, "_meta", None)
    if not hasattr(df, "to_delayed") or not _frame.is_dataframe(meta):
        raise TypeError("load_statistics takes a dask.dataframe.DataFrame, not %s" % type(df).__name__)
    if int(split_every) < 2:
        raise ValueError("split_every adds at least 2 partial counts at a time, not %r" % (split_every,))
    ctx._check_changeable()
    labels = list(meta.columns)
    _frame.check_columns(meta)
    kinds = _frame.column_kinds(meta)
    gra, counted, edges = _graph_kind(graph, labels)
    if int(ctx["TXX"]) != 1:
        raise QZError("qz.dask counts models of one time slice (TXX 1), not %d" % ctx["TXX"])
    if gra == 7 and not 0.0 <= ctx["PEL"] <= 1.0:
        raise QZError("ELEMGM requires PEL between 0 and 1")
    shared = bool(ctx["YYC"])
    limit = _frame.max_states(ctx["IDX"])
    registers = {name: ctx[name] for name in ("IDX", "VAL", "TXX", "CEN", "REP", "SEED")}
    job = _Job(labels, kinds, shared, limit, registers, counted, edges)

    parts = df.to_delayed()
    distinct = dask.compute(*[delayed(_distinct, pure=True)(p, i, job) for i, p in enumerate(parts)])
    dictionaries = _frame.merge(list(distinct), limit, _frame.message_labels(meta, shared))
    coding = _frame.coding_of(meta, dictionaries, kinds, shared)

    shipped = delayed(dictionaries, pure=True, traverse=False)
    partial = [delayed(_count, pure=True)(p, i, shipped, job) for i, p in enumerate(parts)]
    rows, counts = _tree(partial, int(split_every)).compute()

    _build_container(ctx, coding, gra, counted, edges, rows, counts)
    return ctx.statistics()


def _build_container(ctx, coding, gra, counted, edges, rows, counts):
    """Make ctx's model over the dictionary's states, then give it the counts (and learn its graph)."""
    sizes = [len(c.names) for c in coding.columns]
    # A small table in which every state of every column appears, in code
    # order: MODEL over it lays the container out as over the whole table.
    states = np.minimum(np.arange(max(sizes))[:, None], np.array(sizes)[None, :] - 1).astype(np.uint16)
    ctx.run("DEL MPT;\nDEL GPT;")
    ctx._install_table(np.ascontiguousarray(states), coding)
    _set_graph(ctx, counted, edges, len(sizes))
    ctx.run("LDX GPT;\nMODEL;")
    if counts is None:  # no rows at all: the counts of an empty table
        counts = np.zeros(ctx.statistics().counts.size, dtype=np.uint64)
    ctx._set_statistics(counts, rows)
    if gra in _LEARNERS:
        ctx._learn_structure(gra)
        ctx["GRA"] = gra
    ctx.run("DEL DPT;")
    ctx._table = None
    ctx["NXX"] = rows
