"""Sufficient statistics counted on a Dask cluster of two worker processes, against one machine."""

import os
import signal
import sys
import threading
import time

import cloudpickle
import dask
import dask.dataframe as dd
import distributed
import numpy as np
import pandas as pd
import pytest

import qz
import qz.dask
from test_pandas import vote_frame

# The workers cannot import this file: the functions it hands them travel by value.
cloudpickle.register_pickle_by_value(sys.modules[__name__])

FIT = "ALG JT;\nALG FL1;\nSTP 1\nMIO 40\nESTIMATE;"


def start_cluster():
    cluster = distributed.LocalCluster(
        n_workers=2, threads_per_worker=1, processes=True, dashboard_address=":0", silence_logs=40
    )
    return cluster, distributed.Client(cluster)


@pytest.fixture(scope="module")
def client():
    cluster, client = start_cluster()
    yield client
    client.close()
    cluster.close()


def one_machine(frame, gra, tmp_path, seed=5, pel=0.6):
    """Statistics and model file of MODEL and ESTIMATE on the whole table in one context."""
    with qz.Context(seed=seed, progress=False) as ctx:
        ctx["PEL"] = pel
        ctx.load_table(frame)
        ctx.run("GRA %s;\nLDX GPT;\nMODEL;\n" % gra + FIT)
        stats = ctx.statistics()
        ctx.save_model(tmp_path / "one.qzm")
        return stats, (tmp_path / "one.qzm").read_bytes(), ctx.model().edges


def distributed_run(ddf, graph, tmp_path, seed=5, pel=0.6):
    with qz.Context(seed=seed, progress=False) as ctx:
        ctx["PEL"] = pel
        stats = qz.dask.load_statistics(ctx, ddf, graph=graph)
        assert ctx["DPT"] == 0 and ctx["NXX"] == stats.rows
        ctx.run(FIT)
        ctx.save_model(tmp_path / "two.qzm")
        return stats, (tmp_path / "two.qzm").read_bytes(), ctx.model().edges


def split(frame, cuts):
    """A Dask DataFrame over consecutive slices of frame (cuts are the slice bounds)."""
    parts = [dask.delayed(frame.iloc[a:b]) for a, b in zip(cuts[:-1], cuts[1:])]
    return dd.from_delayed(parts, meta=frame.iloc[:0], verify_meta=False)


@pytest.fixture(scope="module")
def complete_votes():
    """The voting table with its unknown votes drawn once by MODEL: a table without missing cells."""
    with qz.Context(seed=1, progress=False) as ctx:
        ctx.load_table(vote_frame())
        ctx.run("GRA CHAIN;\nLDX GPT;\nMODEL;")
        return ctx.coding.frame(ctx.table)


@pytest.mark.parametrize("gra", ["CHAIN", "STAR", "CHOWLIU", "ELEMGM"])
def test_uneven_partitions_count_exactly_what_one_machine_counts(client, complete_votes, tmp_path, gra):
    ddf = split(complete_votes, [0, 10, 10, 200, 201, 434])  # the second partition is empty
    s1, file1, edges1 = one_machine(complete_votes, gra, tmp_path)
    s2, file2, edges2 = distributed_run(ddf, gra, tmp_path)
    assert s1.rows == s2.rows == 434
    assert np.array_equal(s1.counts, s2.counts)
    # The structure learners find the same graph, and the fit is the same to the bit.
    assert np.array_equal(edges1, edges2)
    assert file1 == file2


def test_an_edge_list_of_column_names(client, complete_votes, tmp_path):
    names = list(complete_votes.columns)
    pairs = [(names[16], names[k]) for k in range(0, 16, 3)] + [(2, 5)]
    with qz.Context(seed=5, progress=False) as ctx:
        ctx.load_table(complete_votes)
        ctx["GRA"] = 0
        ctx["GVX"] = 17
        ctx["GEX"] = len(pairs)
        edges = np.array([[names.index(a) if isinstance(a, str) else a for a in p] for p in pairs], dtype=np.uint64)
        ctx["EAP"] = edges
        ctx.run("LDX GPT;\nMODEL;")
        expected = ctx.statistics()
    # With one partition its counts come to the client as the worker sent them,
    # in a buffer that need not be aligned for the library's 64-bit reads.
    for cuts in ([0, 100, 434], [0, 434]):
        with qz.Context(seed=5, progress=False) as ctx:
            got = qz.dask.load_statistics(ctx, split(complete_votes, cuts), graph=pairs)
            assert ctx.model().edges.tolist() == edges.tolist()
        assert np.array_equal(expected.counts, got.counts)


def generated(rows, cols, seed):
    """A table of small integer columns, each leaning on the one before it."""
    rng = np.random.default_rng(seed)
    x = np.empty((rows, cols), dtype=np.int64)
    x[:, 0] = rng.integers(0, 3, rows)
    for j in range(1, cols):
        y = 3 + j % 3
        x[:, j] = np.where(rng.random(rows) < 0.6, x[:, j - 1] % y, rng.integers(0, y, rows))
    return pd.DataFrame({"c%d" % j: x[:, j].astype(np.int8) for j in range(cols)})


def test_a_million_rows(client, tmp_path):
    frame = generated(10**6, 8, 1)
    # A state met only in the last partition is coded last, as one machine codes it.
    frame.iloc[-1, 3] = 9
    s1, file1, _ = one_machine(frame, "CHAIN", tmp_path)
    ddf = dd.from_pandas(frame, npartitions=7)
    with qz.Context(seed=5, progress=False) as ctx:
        s2 = qz.dask.load_statistics(ctx, ddf, graph="CHAIN")
        assert ctx.model().labels[3][-1] == 9
        ctx.run(FIT)
        ctx.save_model(tmp_path / "two.qzm")
    assert s2.rows == 10**6
    assert np.array_equal(s1.counts, s2.counts)
    assert file1 == (tmp_path / "two.qzm").read_bytes()


def test_missing_cells_are_drawn_per_partition_from_the_documented_seeds(client, tmp_path):
    frame = vote_frame()
    cuts = [0, 50, 51, 300, 434]
    with qz.Context(seed=9, progress=False) as ctx:
        got = qz.dask.load_statistics(ctx, split(frame, cuts), graph="CHAIN")
        ctx.save_model(tmp_path / "names.qzm")
    # Each partition counted on its own by one machine: coded by the whole
    # table's names (read against the model), its missing cells drawn by
    # MODEL from SeedSequence((SEED, partition number)).
    total = np.zeros_like(got.counts)
    for number, (a, b) in enumerate(zip(cuts[:-1], cuts[1:])):
        with qz.Context(seed=qz.dask.partition_seed(9, number), progress=False) as ctx:
            ctx.load_model(tmp_path / "names.qzm")
            ctx.load_table(frame.iloc[a:b])
            ctx.run("DEL MPT;\nDEL GPT;\nGRA CHAIN;\nLDX GPT;\nMODEL;")
            total += ctx.statistics().counts
    assert np.array_equal(total, got.counts)
    # Another SEED draws otherwise.
    with qz.Context(seed=10, progress=False) as ctx:
        other = qz.dask.load_statistics(ctx, split(frame, cuts), graph="CHAIN")
    assert not np.array_equal(other.counts, got.counts)


def test_bad_tables_are_clear_errors(client, complete_votes):
    bad = complete_votes.iloc[100:].drop(columns=["crime"])
    ragged = dd.from_delayed(
        [dask.delayed(complete_votes.iloc[:100]), dask.delayed(bad)], meta=complete_votes.iloc[:0], verify_meta=False
    )
    with qz.Context(progress=False) as ctx:
        with pytest.raises(qz.QZError, match="partition 1 has 16 columns, but the table has 17"):
            qz.dask.load_statistics(ctx, ragged)
        wide = pd.DataFrame({"a": ["x"] * 300, "wide": [str(i) for i in range(300)]})
        ctx["IDX"] = 0
        with pytest.raises(qz.QZError, match="'wide' has more than 255 states"):
            qz.dask.load_statistics(ctx, split(wide, [0, 150, 300]))
        ctx["IDX"] = 3
        with pytest.raises(qz.QZError, match="CLIQUES"):
            qz.dask.load_statistics(ctx, split(wide, [0, 300]), graph="CLIQUES")
        with pytest.raises(TypeError, match="'f'"):
            qz.dask.load_statistics(ctx, dd.from_pandas(pd.DataFrame({"f": [0.5, 1.5]}), npartitions=1))
        with pytest.raises(TypeError, match="dask.dataframe.DataFrame"):
            qz.dask.load_statistics(ctx, wide)
        with pytest.raises(qz.QZError, match="'nope'"):
            qz.dask.load_statistics(ctx, split(wide, [0, 300]), graph=[("a", "nope")])
        assert not ctx.wedged


def test_a_worker_killed_while_counting_changes_nothing(complete_votes):
    rows, parts = 200_000, 12
    expected = generated(rows * parts, 6, 2)

    def make_part(number):
        # Slow enough that a worker is caught counting.
        time.sleep(0.4)
        return expected.iloc[number * rows : (number + 1) * rows]

    with qz.Context(seed=5, progress=False) as ctx:
        ctx.load_table(expected)
        ctx.run("GRA CHAIN;\nLDX GPT;\nMODEL;")
        exact = ctx.statistics()

    cluster, client = start_cluster()
    try:
        ddf = dd.from_map(make_part, list(range(parts)), meta=expected.iloc[:0])
        killed = []

        def kill_a_counting_worker():
            deadline = time.time() + 60
            while time.time() < deadline and not killed:
                busy = {w: keys for w, keys in client.processing().items() if any("_count" in str(k) for k in keys)}
                if busy:
                    worker = sorted(busy)[0]
                    pid = client.run(os.getpid, workers=[worker])[worker]
                    os.kill(pid, signal.SIGKILL)
                    killed.append(worker)
                time.sleep(0.05)

        killer = threading.Thread(target=kill_a_counting_worker)
        killer.start()
        with qz.Context(seed=5, progress=False) as ctx:
            got = qz.dask.load_statistics(ctx, ddf, graph="CHAIN")
        killer.join()
        assert killed, "no worker was caught counting"
        assert got.rows == rows * parts
        assert np.array_equal(got.counts, exact.counts)
    finally:
        client.close()
        cluster.close()


def test_the_example_runs_from_the_repository_root(repo_root):
    import subprocess

    done = subprocess.run(
        [sys.executable, os.path.join("examples", "distributed.py")], capture_output=True, text=True, timeout=120
    )
    assert done.returncode == 0, done.stderr
    assert "the same model file: True" in done.stdout
    lines = dict(line.split(":", 1) for line in done.stdout.splitlines() if line.startswith("objective"))
    assert len(set(v.strip() for v in lines.values())) == 1
