"""The main example in Python: learn a graph over the 1984 congressional voting records.

The same steps as examples/vote.qz, through the Python package and pandas,
with the same results: the table is read with pandas and handed over as a
DataFrame (each vote a column of "y"/"n", "?" missing), ELEMGM learns the
graph from it, the junction tree fits the weights exactly, and the learned
graph is saved as a picture. Run it from anywhere, once qz is installed
(pip install --no-build-isolation ./python) or with PYTHONPATH=python:

    python3 examples/vote.py [PICTURE.png]

It prints the same registers as vote.qz and writes the picture (default
/tmp/qz_vote_graph.png), the model file and the graph's Trivial Graph Format
export to /tmp.
"""

import os
import sys

import pandas as pd

import qz

HERE = os.path.dirname(os.path.abspath(__file__))


def main(picture):
    # The library's reader drops the line behind a CSV file's header (a file
    # carries one sacrificial line there); reading the file with pandas, the
    # same line is dropped, so that both see the same 434 rows.
    votes = pd.read_csv(os.path.join(HERE, "data", "vote.csv"), dtype=str, na_values="?", keep_default_na=False)
    votes = votes.iloc[1:].reset_index(drop=True)

    with qz.Context(seed=1984) as ctx:
        ctx.load_table(votes)
        # Learn the graph (the pairs with strong cells of pointwise mutual
        # information, up to 60% of them), then fit it exactly with the
        # junction tree and 500 accelerated gradient steps: see vote.qz.
        ctx.run(
            "GRA ELEMGM;\nPEL 0.6\nLDX GPT;\nMODEL;\n"
            "ALG JT;\nALG FL1;\nSTP 1\nMIO 500\nESTIMATE;\nMOV GP0 RES;"
        )
        ctx["OVW"] = True
        ctx.save_model("/tmp/qz_vote.qzm")
        ctx["GFN"] = "/tmp/qz_vote.tgf"
        ctx.run("FMT TGF;\nSTORE GPT;")

        marginals = ctx.infer(unconditional=True)
        for name in ("NXX", "GVX", "GEX", "DIM", "GP0"):
            print("%s=%s" % (name, ctx[name]))
        print("LNZ=%s" % marginals.log_z)
        print()
        print(marginals["Class"].to_string())

        qz.plot.graph(ctx, picture, size=(1200, 900))
        print()
        print("graph picture:", picture)


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else "/tmp/qz_vote_graph.png")
