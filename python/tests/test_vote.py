"""The main example through Python: the same registers as qzrun, and the README's snippet."""

import ctypes
import math
import os
import re
import subprocess

import numpy as np

import qz
from conftest import REPO, qzrun_path

PRINTED = ["NXX", "GVX", "GEX", "DIM", "GP0", "LNZ"]


def vote_program(tmp_path):
    """examples/vote.qz with its output files moved into tmp_path."""
    with open(os.path.join(REPO, "examples", "vote.qz")) as f:
        text = f.read()
    return text.replace("/tmp/qz_vote", str(tmp_path / "qz_vote"))


def test_vote_example_gives_qzruns_registers(repo_root, tmp_path):
    text = vote_program(tmp_path)
    program = tmp_path / "vote.qz"
    program.write_text(text)
    args = [qzrun_path(), str(program)]
    for name in PRINTED:
        args += ["-p", name]
    r = subprocess.run(args, capture_output=True, text=True, cwd=repo_root)
    assert r.returncode == 0, r.stderr
    expected = dict(line.split("=", 1) for line in r.stdout.split())

    with qz.Context(progress=False) as ctx:
        ctx.run(text)
        for name in ("NXX", "GVX", "GEX", "DIM"):
            assert ctx[name] == int(expected[name]), name
        for name in ("GP0", "LNZ"):
            assert math.isclose(ctx[name], float(expected[name]), rel_tol=1e-9, abs_tol=0.0), name
        assert ctx["NXX"] == 434 and ctx["DIM"] == 328

        # The marginals array that INFER left in PPT, read by its address,
        # is what infer() returns for the same model and no table.
        states = ctx.model().states
        size = int(states.sum()) + ctx["DIM"]
        published = np.ctypeslib.as_array((ctypes.c_double * size).from_address(ctx["PPT"])).copy()
        lnz = ctx["LNZ"]
        m = ctx.infer()
        assert np.array_equal(m.array, published)
        assert m.log_z == lnz
        assert len(m.vertex) == 17 and len(m.edge) == 82
        pos = 0
        for v, p in enumerate(m.vertex):
            assert np.array_equal(p, published[pos : pos + states[v]])
            assert math.isclose(p.sum(), 1.0, rel_tol=1e-9)
            pos += states[v]
        for e, (s, t) in enumerate(m.edges):
            assert m.edge[e].shape == (states[s], states[t])
            assert np.array_equal(m.edge[e].ravel(), published[pos : pos + states[s] * states[t]])
            pos += states[s] * states[t]
        assert pos == size

        saved = tmp_path / "again.qzm"
        ctx.save_model(saved)
        fitted = ctx.model()

    # qzrun's model file holds the same model as the one Python wrote.
    for path in (saved, tmp_path / "qz_vote.qzm"):
        with qz.Context(progress=False) as other:
            other.load_model(path)
            again = other.model()
            assert np.array_equal(again.edges, fitted.edges)
            np.testing.assert_allclose(again.weights, fitted.weights, rtol=1e-9, atol=1e-12)


def readme_python_snippet():
    with open(os.path.join(REPO, "README.md")) as f:
        text = f.read()
    blocks = re.findall(r"```python\n(.*?)```", text, re.S)
    assert blocks, "the README has a Python snippet"
    return blocks[0]


def test_readme_snippet_runs(repo_root, capsys):
    snippet = readme_python_snippet()
    exec(compile(snippet, "README.md", "exec"), {})
    out = capsys.readouterr().out.split()
    # It prints the objective of the fitted model and the log partition function.
    assert len(out) >= 2
    res = float(out[0])
    assert 8.0 < res < 10.0
