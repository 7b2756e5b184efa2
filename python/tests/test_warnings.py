"""The library's warnings reach Python as qz.QZWarning, whatever the progress setting."""

import os
import warnings

import pytest

import qz
from conftest import REPO

VOTE = os.path.join(REPO, "examples", "data", "vote.csv")


def caught(ctx, program):
    with warnings.catch_warnings(record=True) as seen:
        warnings.simplefilter("always")
        ctx.run(program)
    return [w for w in seen if issubclass(w.category, qz.QZWarning)]


@pytest.mark.parametrize("progress", [None, "callback"])
def test_isolated_vertices_under_loopy_belief_propagation_are_named(progress):
    reports = []
    callback = (lambda *r: reports.append(r)) if progress else None
    with qz.Context(seed=3, progress=callback) as ctx:
        ctx.load_table(VOTE)
        assert caught(ctx, "GRA ELEMGM;\nPEL 0.05\nLDX GPT;\nMODEL;") == []
        found = caught(ctx, "ALG LBP;\nINFER;")
        assert len(found) == 1
        text = str(found[0].message)
        assert text.startswith("line 2: vertices 0 (handicapped-infants), ")
        assert "use ALG JT, or a graph that covers every column" in text
        # The exact engine has nothing to say, and the callback never sees warnings.
        assert caught(ctx, "ALG JT;\nINFER;") == []
        assert all(not r[2].startswith("warning") for r in reports)


def test_a_result_that_is_not_finite_is_reported():
    with qz.Context(seed=3, progress=False) as ctx:
        ctx.load_table(VOTE)
        found = caught(ctx, "GRA CLIQUES;\nLDX GPT;\nKXX 40\nMODEL;")
        assert [str(w.message) for w in found] == [
            "line 4: KXX is above the number of vertices: there is no clique of that size, so the graph has no "
            "edges and RES is not a number"
        ]
        assert ctx["GEX"] == 0
