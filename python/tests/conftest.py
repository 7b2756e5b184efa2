"""Shared helpers of the Python package's tests."""

import itertools
import os
import sys

import numpy as np
import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(REPO, "python"))


@pytest.fixture
def repo_root(monkeypatch):
    """The source tree's root as the working directory, as the examples expect."""
    monkeypatch.chdir(REPO)
    return REPO


def qzrun_path():
    """The qzrun binary: QZ_QZRUN when CTest gives it, else the build tree's."""
    return os.environ.get("QZ_QZRUN", os.path.join(REPO, "build", "qzrun"))


def edge_offsets(states, edges):
    """Start of each edge's block in the weights, computed from the layout rule."""
    sizes = [int(states[s]) * int(states[t]) for s, t in edges]
    return np.concatenate(([0], np.cumsum(sizes))).astype(int)


def enumerate_model(states, edges, weights, observed=None):
    """Exact log partition function and marginals of a pairwise model by enumeration.

    The potential of a joint state is exp of the sum over edges (s, t) of the
    weight at the block's start plus x_s * Y[t] + x_t. observed maps vertices
    to states; only joint states that agree with it are summed. Returns
    (log Z, vertex marginals, edge marginals).
    """
    states = [int(y) for y in states]
    observed = observed or {}
    offs = edge_offsets(states, edges)
    total = 0.0
    vm = [np.zeros(y) for y in states]
    em = [np.zeros((states[s], states[t])) for s, t in edges]
    for x in itertools.product(*[range(y) for y in states]):
        if any(x[v] != s for v, s in observed.items()):
            continue
        lp = sum(weights[offs[e] + x[s] * states[t] + x[t]] for e, (s, t) in enumerate(edges))
        p = np.exp(lp)
        total += p
        for v in range(len(states)):
            vm[v][x[v]] += p
        for e, (s, t) in enumerate(edges):
            em[e][x[s], x[t]] += p
    return np.log(total), [a / total for a in vm], [a / total for a in em]


def random_table(rows, cols, states, seed):
    """A table in which every column holds every state, codes first met in order 0, 1, ...

    The first `states` rows are constant rows 0, 1, ..., so that the CSV
    reader's coding by first appearance equals the codes themselves.
    """
    rng = np.random.default_rng(seed)
    a = rng.integers(0, states, size=(rows, cols))
    for k in range(states):
        a[k, :] = k
    return a


def csv_text(array, names=None, missing="?"):
    """CSV text of an integer array as the library's reader expects it.

    A header line, then a sacrificial line (the reader drops the line behind
    the header), then the rows; negative cells are written as missing.
    """
    cols = array.shape[1]
    names = names or ["c%d" % j for j in range(cols)]

    def row(r):
        return ",".join(missing if v < 0 else str(int(v)) for v in r)

    lines = [",".join(names), row(array[0])] + [row(r) for r in array]
    return "\n".join(lines) + "\n"
