"""Pictures of a model: PNG files of the asked size, edge strengths, lazy imports, the manual."""

import os
import pydoc
import subprocess
import sys
import typing

import matplotlib
import numpy as np
import pandas as pd
import pytest

matplotlib.use("Agg")
import matplotlib.image

import qz
import qz.plot
from conftest import REPO
from test_pandas import vote_frame


@pytest.fixture(scope="module")
def fitted():
    ctx = qz.Context(seed=1984, progress=False)
    ctx.load_table(vote_frame())
    ctx.run("GRA CHOWLIU;\nLDX GPT;\nMODEL;\nALG JT;\nALG FL1;\nSTP 1\nMIO 80\nESTIMATE;")
    yield ctx
    ctx.close()


def check_png(path, width, height):
    image = matplotlib.image.imread(str(path))
    assert image.shape[:2] == (height, width)
    colours = np.unique(image.reshape(-1, image.shape[2]), axis=0)
    assert len(colours) > 1
    return image


@pytest.mark.parametrize("layout", ["circle", "spring"])
@pytest.mark.parametrize("strength", ["mi", "spread"])
def test_graph_picture(fitted, tmp_path, layout, strength):
    path = tmp_path / "graph.png"
    fig = qz.plot.graph(fitted, path, strength=strength, layout=layout, size=(640, 480))
    assert fig.get_size_inches() * fig.dpi == pytest.approx([640, 480])
    check_png(path, 640, 480)
    assert qz.plot.STRENGTHS[strength] in fig._suptitle.get_text()


def test_marginal_and_objective_pictures(fitted, tmp_path):
    qz.plot.marginals(fitted, tmp_path / "m.png", size=(700, 500))
    check_png(tmp_path / "m.png", 700, 500)
    qz.plot.marginals(fitted.infer(unconditional=True), tmp_path / "m2.png", vertices=["Class", 0], size=(300, 200))
    check_png(tmp_path / "m2.png", 300, 200)
    qz.plot.objective(fitted, tmp_path / "o.png", size=(500, 400))
    check_png(tmp_path / "o.png", 500, 400)
    with pytest.raises(qz.QZError, match="no ESTIMATE"):
        with qz.Context(progress=False) as empty:
            qz.plot.objective(empty)


def test_mutual_information_by_its_definition():
    p = np.array([[0.3, 0.1], [0.2, 0.4]])
    px, py = p.sum(1), p.sum(0)
    expected = sum(p[i, j] * np.log(p[i, j] / (px[i] * py[j])) for i in range(2) for j in range(2))
    assert qz.plot.mutual_information(p) == pytest.approx(expected)
    assert qz.plot.mutual_information(p * 7) == pytest.approx(expected)  # counts or probabilities
    assert qz.plot.mutual_information(np.outer([0.2, 0.8], [0.5, 0.25, 0.25])) == pytest.approx(0.0, abs=1e-15)


def test_edge_strengths(fitted):
    model, spread = qz.plot.edge_strengths(fitted, "spread")
    for e, (s, t) in enumerate(model.edges):
        y = model.states
        start = sum(int(y[a]) * int(y[b]) for a, b in model.edges[:e])
        block = model.weights[start : start + int(y[s]) * int(y[t])]
        assert spread[e] == block.max() - block.min()
    model, mi = qz.plot.edge_strengths(fitted, "mi")
    m = fitted.infer(unconditional=True)
    assert mi[3] == pytest.approx(qz.plot.mutual_information(m.edge[3]))
    # Chow-Liu keeps the tree of largest information: every edge carries some.
    assert (mi > 0).all()
    with pytest.raises(qz.QZError, match="spread"):
        qz.plot.edge_strengths(model, "mi")


def test_importing_qz_imports_no_optional_package():
    code = (
        "import sys, qz\n"
        "loaded = [m for m in ('pandas', 'matplotlib', 'networkx', 'dask', 'distributed') if m in sys.modules]\n"
        "assert not loaded, loaded\n"
        "qz.plot\n"
        "assert 'matplotlib' not in sys.modules\n"
    )
    subprocess.run([sys.executable, "-c", code], check=True, cwd=REPO)


def test_help_reads_as_a_manual_and_public_functions_are_typed():
    text = pydoc.render_doc(qz.Context, renderer=pydoc.plaintext)
    for words in ("load_table(df)", "ctx.infer()", "ctx.predict()", "qz.plot.graph", "QZError", "wedged"):
        assert words in text
    assert os.path.isfile(os.path.join(os.path.dirname(qz.__file__), "py.typed"))
    public = [getattr(qz.Context, n) for n in dir(qz.Context) if not n.startswith("_")]
    public += [qz.registers, qz.version, qz.library_path, qz.discretize, qz.find_library, qz.candidate_paths]
    public += [qz.plot.graph, qz.plot.marginals, qz.plot.objective, qz.plot.mutual_information]
    for f in public:
        f = f.fget if isinstance(f, property) else f
        if callable(f):
            assert "return" in typing.get_type_hints(f), f
