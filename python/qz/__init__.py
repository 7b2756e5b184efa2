"""qz from Python: learn, query and sample discrete undirected graphical models.

A Context wraps one context of libqz.so: it takes programs of the library's
text language, reads and writes its registers with their kinds, loads tables
from files or numpy arrays, and returns marginals as numpy arrays:

    import qz, numpy as np
    with qz.Context() as ctx:
        ctx.load_table("examples/data/vote.csv")
        ctx.run("GRA FULL;\\nLDX GPT;\\nMODEL;\\nALG GD;\\nSTP 0.5\\nESTIMATE;")
        print(ctx["RES"])
        m = ctx.infer()
        ctx.save_model("vote.qzm")

The library is looked up through QZ_LIBRARY, next to this package, and in the
build/ directory of the source tree (see qz.candidate_paths).
"""

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
    registers,
)

__all__ = [
    "Context",
    "ContextBusy",
    "ContextWedged",
    "KIND_NAMES",
    "MISSING",
    "Marginals",
    "Model",
    "QZError",
    "TqdmProgress",
    "candidate_paths",
    "find_library",
    "library_path",
    "registers",
    "version",
]
