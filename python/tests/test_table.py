"""Tables from numpy arrays, with missing cells, and from files."""

import numpy as np
import pytest

import qz
from conftest import csv_text, random_table

FIT = "GRA CHAIN;\nLDX GPT;\nMODEL;\nALG GD;\nSTP 0.5\nMIO 30\nESTIMATE;"


def with_missing(seed):
    a = random_table(60, 5, 3, seed).astype(np.int64)
    rng = np.random.default_rng(seed + 1)
    holes = rng.random(a.shape) < 0.1
    holes[:3, :] = False  # keep the rows that fix the coding
    a[holes] = -1
    return a


def fit(source, seed=7):
    with qz.Context(seed=seed, progress=False) as ctx:
        rows = ctx.load_table(source)
        ctx.run(FIT)
        return rows, ctx["RES"], ctx.model().weights, ctx.table


def test_numpy_table_with_missing_cells_fits_like_the_same_csv_file(tmp_path):
    a = with_missing(3)
    assert (a < 0).sum() > 10
    path = tmp_path / "t.csv"
    path.write_text(csv_text(a))
    rows_csv, res_csv, w_csv, _ = fit(str(path))
    rows_np, res_np, w_np, table = fit(a)
    assert rows_csv == rows_np == 60
    # The same codes, the same draws for the missing cells from the same
    # seed: the same statistics, so the same fit.
    assert res_np == res_csv
    assert np.array_equal(w_np, w_csv)
    # The converted array is the table, and MODEL wrote its draws into it.
    assert table.dtype == np.uint16
    assert np.array_equal(table[a >= 0], a[a >= 0])
    assert table[a < 0].max() <= 2


def test_uint16_array_is_used_in_place():
    a = with_missing(4)
    b = np.where(a < 0, qz.MISSING, a).astype(np.uint16)
    with qz.Context(seed=1, progress=False) as ctx:
        ctx.load_table(b)
        assert ctx.table is b
        assert ctx["NXX"] == 60 and ctx["GPX"] == b.nbytes
        assert ctx["EDP"] == 0  # a later file load must not read the array
        ctx.run("GRA CHAIN;\nLDX GPT;\nMODEL;")
        # MODEL drew the missing cells and wrote them into the host's array.
        assert (b == qz.MISSING).sum() == 0
        assert np.array_equal(b[a >= 0], a[a >= 0])


def test_every_missing_marker_gives_the_same_table():
    a = with_missing(5)
    expected = np.where(a < 0, qz.MISSING, a).astype(np.uint16)
    marked = {
        "negative": a,
        "nan": np.where(a < 0, np.nan, a.astype(float)),
        "masked": np.ma.masked_array(np.where(a < 0, 0, a), mask=a < 0),
        "65535": expected.astype(np.int32),
        "fortran order": np.asfortranarray(expected),
    }
    for name, source in marked.items():
        with qz.Context(progress=False) as ctx:
            ctx.load_table(source)
            assert np.array_equal(ctx.table, expected), name
            assert ctx.table.flags.c_contiguous


def test_bad_arrays_are_refused_before_the_library_sees_them():
    with qz.Context(progress=False) as ctx:
        for bad, error in (
            (np.zeros(5, dtype=np.uint16), ValueError),
            (np.zeros((0, 3), dtype=np.uint16), ValueError),
            (np.array([[1.5, 2.0]]), ValueError),
            (np.array([[70000, 1]]), ValueError),
            (np.array([["a", "b"]]), TypeError),
        ):
            with pytest.raises(error):
                ctx.load_table(bad)
        assert not ctx.wedged


def test_predict_completes_an_in_place_table():
    with qz.Context(seed=2, progress=False) as ctx:
        ctx.load_table(random_table(50, 4, 2, 9).astype(np.uint16))
        ctx.run(FIT)
        query = np.array([[1, qz.MISSING, 0, qz.MISSING]], dtype=np.uint16)
        ctx.load_table(query)
        ctx["PPX"] = True
        ctx.run("PREDICT;")
        # Observed cells keep their state; a floating model gives missing
        # cells state 0 (the maximum marginals go to the cell text).
        assert query.tolist() == [[1, 0, 0, 0]]


def test_a_file_table_replaces_an_array_table(tmp_path):
    path = tmp_path / "t.csv"
    path.write_text(csv_text(random_table(8, 3, 2, 1)))
    with qz.Context(progress=False) as ctx:
        ctx.load_table(np.zeros((4, 2), dtype=np.uint16))
        assert ctx.load_table(path) == 8
        assert ctx.table is None
        assert ctx["DFN"] == str(path)
        ctx.run("GRA CHAIN;\nLDX GPT;")
        assert ctx["GVX"] == 3


def test_a_ragged_text_table_is_an_error_not_a_crash(tmp_path):
    # One short row and one long row would shift every cell between them, or
    # stop the process in the reader's check: the package looks first.
    f = tmp_path / "ragged.csv"
    f.write_text("a,b,c\nskip\nx,y,z\nx,y\nx,y,z,w\n")
    with qz.Context(progress=False) as ctx:
        ctx["HED"] = True
        with pytest.raises(qz.QZError, match=r"line 4 has 2 cells, expected 3 \(as line 3\)"):
            ctx.load_table(str(f))
        assert not ctx.wedged
        assert ctx["DPT"] is None or ctx["DPT"] == 0
        good = tmp_path / "good.csv"
        good.write_text("a,b,c\nskip\nx,y,z\n\nx,q,z\n")
        assert ctx.load_table(str(good)) == 2
