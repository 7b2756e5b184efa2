"""qz from Python: learn, query and sample discrete undirected graphical models.

A Context wraps one context of libqz.so: it takes programs of the library's
text language, reads and writes its registers with their kinds, loads tables
from files, pandas DataFrames or numpy arrays, and returns marginals,
predictions and samples labelled with the table's names:

    import qz, pandas as pd
    df = pd.read_csv("votes.csv", dtype=str, na_values="?", keep_default_na=False)
    with qz.Context(seed=1984) as ctx:
        ctx.load_table(df)
        ctx.run("GRA CHOWLIU;\\nLDX GPT;\\nMODEL;\\nALG JT;\\nALG FL1;\\nSTP 1\\nESTIMATE;")
        print(ctx["RES"])                   # the objective, nats per row
        print(ctx.infer()["Class"])         # a marginal, indexed by state
        qz.plot.graph(ctx, path="graph.png")
        ctx.save_model("votes.qzm")

help(qz.Context) is the manual. qz.plot draws (matplotlib, networkx) and
qz.dask counts tables on a Dask cluster; each is imported when first used.
The library is looked up through QZ_LIBRARY, next to this package, and in the
build/ directory of the source tree (see qz.candidate_paths).
"""

import importlib

from ._discretize import discretize
from ._lib import candidate_paths, find_library, library_path, version
from ._progress import TqdmProgress
from .context import (
    KIND_NAMES,
    MISSING,
    Context,
    ContextBusy,
    ContextWedged,
    Marginals,
    Model,
    QZError,
    QZWarning,
    Statistics,
    Trace,
    registers,
)

__version__ = "1.0.0"

__all__ = [
    "Context",
    "ContextBusy",
    "ContextWedged",
    "KIND_NAMES",
    "MISSING",
    "Marginals",
    "Model",
    "QZError",
    "QZWarning",
    "Statistics",
    "Trace",
    "TqdmProgress",
    "candidate_paths",
    "discretize",
    "find_library",
    "library_path",
    "registers",
    "version",
]

# Submodules with dependencies of their own, imported on first use.
_LAZY = ("plot", "dask")


def __getattr__(name):
    if name in _LAZY:
        return importlib.import_module("." + name, __name__)
    raise AttributeError("module 'qz' has no attribute %r" % name)
