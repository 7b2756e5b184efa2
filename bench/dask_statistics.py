"""Benchmark (not a test): sufficient statistics counted on a Dask cluster, against one machine.

    PYTHONPATH=python QZ_LIBRARY=build/libqz.so python3 bench/dask_statistics.py [--rows N] [--columns C]

On a generated table (default 10^7 rows of 20 integer columns of 3 to 6
states, each leaning on the one before it, in partitions of 10^6 rows) it
measures:

- qz.dask.load_statistics over a CHAIN with a LocalCluster of 1 and of 2
  worker processes (one thread each): rows per second of the whole call
  (the dictionary pass and the counting pass, each generating its
  partitions on the workers, plus the container on the client), and the
  time of one pass that only generates the partitions, for comparison;
- the client's peak memory (maximum resident set) in a process of its own,
  for the full table and for a tenth of it: it must not grow with the rows,
  since only distinct values and count arrays reach the client;
- one machine: "LDX DPT; MODEL;" (CHAIN) on the same table, read from the
  library's binary table file, and that process's peak memory.

Each measurement runs in a fresh process. The figures go to standard output
as a table.
"""

import argparse
import json
import os
import resource
import subprocess
import sys
import tempfile
import time

import numpy as np

PART_ROWS = 10**6


def make_part(number, rows, columns, total):
    """Partition number of the generated table: deterministic, made where it is needed."""
    import pandas as pd

    start = number * rows
    n = max(0, min(rows, total - start))
    rng = np.random.default_rng([12345, number])
    x = np.empty((n, columns), dtype=np.int8)
    x[:, 0] = rng.integers(0, 3, n)
    for j in range(1, columns):
        y = 3 + j % 4
        lean = rng.random(n) < 0.6
        x[:, j] = np.where(lean, x[:, j - 1] % y, rng.integers(0, y, n))
    return pd.DataFrame({"c%02d" % j: x[:, j] for j in range(columns)})


def peak_mb():
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024.0


def child_dask(rows, columns, workers):
    import dask
    import dask.dataframe as dd
    import distributed

    import qz
    import qz.dask

    cluster = distributed.LocalCluster(
        n_workers=workers, threads_per_worker=1, processes=True, dashboard_address=":0", silence_logs=40
    )
    client = distributed.Client(cluster)
    parts = (rows + PART_ROWS - 1) // PART_ROWS
    ddf = dd.from_map(make_part, list(range(parts)), rows=PART_ROWS, columns=columns, total=rows,
                      meta=make_part(0, 0, columns, 0))
    t = time.perf_counter()
    assert sum(dask.compute(*[dask.delayed(len)(p) for p in ddf.to_delayed()])) == rows
    generate = time.perf_counter() - t
    before = peak_mb()
    with qz.Context(seed=1, progress=False) as ctx:
        t = time.perf_counter()
        stats = qz.dask.load_statistics(ctx, ddf, graph="CHAIN")
        elapsed = time.perf_counter() - t
        assert stats.rows == rows
        size = stats.counts.nbytes
    client.close()
    cluster.close()
    return {"seconds": elapsed, "generate": generate, "peak_mb": peak_mb(), "before_mb": before, "stats_bytes": size}


def child_one_machine(rows, columns):
    import qz

    with tempfile.TemporaryDirectory() as tmp:
        path = os.path.join(tmp, "table.bin")
        # The library's binary table: magic, rows, columns, states, one byte a cell.
        with open(path, "wb") as f:
            f.write(b"qzbin$\0#")
            f.write(np.array([rows, columns, 6], dtype="<u8").tobytes())
            for number in range((rows + PART_ROWS - 1) // PART_ROWS):
                f.write(make_part(number, PART_ROWS, columns, rows).to_numpy().astype(np.uint8).tobytes())
        before = peak_mb()
        with qz.Context(seed=1, progress=False) as ctx:
            ctx["DFN"] = path
            t = time.perf_counter()
            ctx.run("LDX DPT;")
            load = time.perf_counter() - t
            t = time.perf_counter()
            ctx.run("GRA CHAIN;\nLDX GPT;\nMODEL;")
            model = time.perf_counter() - t
            assert ctx["NXX"] == rows
    return {"load": load, "model": model, "peak_mb": peak_mb(), "before_mb": before}


def run_child(*args):
    out = subprocess.run([sys.executable, os.path.abspath(__file__), "--child", *map(str, args)],
                         check=True, capture_output=True, text=True)
    return json.loads(out.stdout.strip().splitlines()[-1])


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rows", type=int, default=10**7)
    parser.add_argument("--columns", type=int, default=20)
    parser.add_argument("--child", nargs="+", help=argparse.SUPPRESS)
    args = parser.parse_args()
    if args.child:
        kind, rows, columns = args.child[0], int(args.child[1]), int(args.child[2])
        if kind == "dask":
            result = child_dask(rows, columns, int(args.child[3]))
        else:
            result = child_one_machine(rows, columns)
        print(json.dumps(result))
        return

    rows, columns = args.rows, args.columns
    print("table: %d rows, %d columns, partitions of %d rows, CHAIN" % (rows, columns, PART_ROWS))
    print("%-42s %10s %12s %14s" % ("run", "seconds", "rows/s", "client peak MB"))
    for workers in (1, 2):
        r = run_child("dask", rows, columns, workers)
        print("%-42s %10.2f %12.0f %14.0f" % ("load_statistics, %d worker%s" % (workers, "s" if workers > 1 else ""),
                                              r["seconds"], rows / r["seconds"], r["peak_mb"]))
        print("%-42s %10.2f %12.0f" % ("  (one pass generating only)", r["generate"], rows / r["generate"]))
    small = max(PART_ROWS, rows // 10)
    r = run_child("dask", small, columns, 2)
    print("%-42s %10.2f %12.0f %14.0f" % ("load_statistics, 2 workers, %d rows" % small, r["seconds"],
                                          small / r["seconds"], r["peak_mb"]))
    print("%-42s %10s %12s %14.1f" % ("  statistics on the client (KB)", "", "", r["stats_bytes"] / 1024.0))
    r = run_child("one", rows, columns)
    total = r["load"] + r["model"]
    print("%-42s %10.2f %12.0f %14.0f" % ("one machine: LDX DPT; MODEL;", total, rows / total, r["peak_mb"]))
    print("%-42s %10.2f %12s" % ("  of which LDX DPT (binary file)", r["load"], ""))


if __name__ == "__main__":
    main()
