"""Counting a table on a Dask cluster: the voting records read in parts, a Chow-Liu tree learned from them.

Run it from the repository root (with qz installed, or PYTHONPATH=python):

    python3 examples/distributed.py                      # a cluster of 2 worker processes on this machine
    python3 examples/distributed.py scheduler:8786       # a running cluster (qz installed on its workers)

Dask reads examples/data/vote.csv in parts of about 4 KB, as it would read
the parts of a table spread over many files or machines, and keeps the rows
without an unknown vote. The workers list the distinct votes of their parts
and then count the states and pairs of states of their rows with libqz; the
client adds the counts, learns the Chow-Liu tree from the counts of all
pairs, and fits its weights. The same rows on one machine give the same
model file, byte for byte. (Unknown votes would be drawn per part, from
seeds derived from SEED, and so differ from one machine's draws.)
"""

import os
import sys

# This file has the name of the package it uses: its folder stays out of the
# import path, so that "distributed" is the package and not this file.
HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:] = [p for p in sys.path if os.path.abspath(p or os.curdir) != HERE]

import dask.dataframe as dd
import pandas as pd
from distributed import Client, LocalCluster

import qz
import qz.dask

TABLE = os.path.join("examples", "data", "vote.csv")
FIT = "ALG JT;\nALG FL1;\nSTP 1\nMIO 300\nESTIMATE;"


def main(address):
    if address:
        client, cluster = Client(address), None
    else:
        cluster = LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=":0")
        client = Client(cluster)
    try:
        votes = dd.read_csv(TABLE, dtype=str, na_values="?", keep_default_na=False, blocksize=4000).dropna()
        print("partitions:", votes.npartitions)
        with qz.Context(seed=1984, progress=False) as ctx:
            stats = qz.dask.load_statistics(ctx, votes, graph="CHOWLIU")
            ctx.run(FIT)
            model = ctx.model()
            print("rows counted: %d, statistics: %d counts" % (stats.rows, stats.counts.size))
            print("objective on the cluster's counts: %.6f nats per row" % ctx["RES"])
            ctx.save_model("/tmp/qz_distributed.qzm")

        # The same rows on one machine, for comparison.
        with qz.Context(seed=1984, progress=False) as ctx:
            ctx.load_table(pd.read_csv(TABLE, dtype=str, na_values="?", keep_default_na=False).dropna())
            ctx.run("GRA CHOWLIU;\nLDX GPT;\nMODEL;\n" + FIT)
            print("objective on one machine:          %.6f nats per row" % ctx["RES"])
            ctx.save_model("/tmp/qz_one_machine.qzm")
        with open("/tmp/qz_distributed.qzm", "rb") as a, open("/tmp/qz_one_machine.qzm", "rb") as b:
            print("the same model file:", a.read() == b.read())
        print()
        print("the tree:")
        for s, t in model.edges:
            print("  %s -- %s" % (model.names[s], model.names[t]))
    finally:
        client.close()
        if cluster is not None:
            cluster.close()


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else None)
