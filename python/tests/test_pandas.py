"""pandas DataFrames in, labelled results out: coding, names, errors, marginals, predictions, samples."""

import itertools
import os

import numpy as np
import pandas as pd
import pytest

import qz
from conftest import REPO, enumerate_model

VOTE = os.path.join(REPO, "examples", "data", "vote.csv")
FIT = "ALG JT;\nALG FL1;\nSTP 1\nMIO 60\nESTIMATE;"


def vote_frame():
    """The voting table as pandas reads it, without the line that the library's reader drops."""
    df = pd.read_csv(VOTE, dtype=str, na_values="?", keep_default_na=False)
    return df.iloc[1:].reset_index(drop=True)


def text_of(df):
    """The CSV text of df as the library's reader expects it: header, one dropped line, the rows, '?' missing."""
    def cell(v):
        return "?" if v is None or v is pd.NA or (isinstance(v, float) and np.isnan(v)) else str(v)

    rows = [",".join(cell(v) for v in row) for row in df.astype(object).itertuples(index=False)]
    return "\n".join([",".join(map(str, df.columns)), rows[0]] + rows) + "\n"


def first_appearance(values):
    """Codes by first appearance, computed here with a dictionary: (codes, distinct values)."""
    seen, codes = {}, []
    for v in values:
        if v is None or v is pd.NA or (isinstance(v, float) and np.isnan(v)):
            codes.append(qz.MISSING)
            continue
        codes.append(seen.setdefault(v, len(seen)))
    return codes, list(seen)


def model_file(source, program, tmp_path, name, yyc=False, seed=11):
    with qz.Context(seed=seed, progress=False) as ctx:
        ctx["YYC"] = yyc
        ctx.load_table(source)
        ctx.run(program)
        path = tmp_path / name
        ctx.save_model(path)
        return path.read_bytes()


def test_vote_frame_gives_the_model_file_of_the_library_reading_the_file(tmp_path):
    # Same codes, names and column names, the same draws for the unknown
    # votes from the same seed: the same bytes.
    program = "GRA CHOWLIU;\nLDX GPT;\nMODEL;\n" + FIT
    a = model_file(VOTE, program, tmp_path, "file.qzm")
    b = model_file(vote_frame(), program, tmp_path, "frame.qzm")
    assert a == b


def mixed_frame():
    rng = np.random.default_rng(5)
    n = 80
    df = pd.DataFrame(
        {
            "colour": pd.Categorical(rng.choice(["red", "green", "blue"], n), categories=["blue", "green", "red", "cyan"]),
            "word": rng.choice(["x", "y", "z", "w"], n).astype(object),
            "text": pd.array(rng.choice(["a b", "c;d", "e"], n), dtype="string"),
            "flag": rng.random(n) < 0.3,
            "maybe": pd.array(list(rng.random(n) < 0.6), dtype="boolean"),
            "count": rng.integers(-2, 3, n),
            "small": rng.integers(7, 10, n).astype(np.uint8),
            "nullable": pd.array(rng.integers(100, 103, n), dtype="Int64"),
        }
    )
    holes = rng.random((n, df.shape[1])) < 0.08
    holes[:2] = False
    for j, col in enumerate(df.columns):
        if col in ("flag", "count", "small"):
            continue  # plain numpy columns have no missing cell
        df.loc[holes[:, j], col] = None
    return df


def test_each_dtype_is_coded_by_first_appearance_with_its_text_as_state_names():
    df = mixed_frame()
    with qz.Context(progress=False) as ctx:
        assert ctx.load_table(df) == len(df)
        for j, col in enumerate(df.columns):
            codes, values = first_appearance(list(df[col].astype(object)))
            assert ctx.table[:, j].tolist() == codes, col
            assert ctx.coding.columns[j].names == [str(v) for v in values]
        ctx.run("GRA CHAIN;\nLDX GPT;\nMODEL;")
        model = ctx.model()
        assert model.names == list(df.columns)
        # The labels are the column's own values, of its own type.
        assert model.labels[df.columns.get_loc("count")] == first_appearance(list(df["count"]))[1]
        assert all(isinstance(x, bool) for x in model.labels[df.columns.get_loc("flag")])


@pytest.mark.parametrize("yyc", [False, True])
def test_frame_fits_like_its_text_read_by_the_library(tmp_path, yyc):
    # The library reads the same values written as text (under YYC with one
    # dictionary for all columns, met row by row): the model files agree.
    df = mixed_frame()
    path = tmp_path / "t.csv"
    path.write_text(text_of(df))
    program = "GRA CHAIN;\nLDX GPT;\nMODEL;\nALG GD;\nSTP 0.5\nMIO 20\nESTIMATE;"
    a = model_file(str(path), program, tmp_path, "file.qzm", yyc)
    b = model_file(df, program, tmp_path, "frame.qzm", yyc)
    assert a == b


def test_a_state_is_its_text():
    # As in a text table: 1 and "1" are one state, True and 1 two.
    df = pd.DataFrame({"o": pd.Series([1, "1", True, None, "True", 1.0], dtype=object)})
    with qz.Context(progress=False) as ctx:
        ctx.load_table(df)
        assert ctx.table[:, 0].tolist() == [0, 0, 1, qz.MISSING, 1, 2]
        assert ctx.coding.columns[0].names == ["1", "True", "1.0"]
        assert ctx.coding.columns[0].values == [1, True, 1.0]


def test_shared_dictionary_codes_row_by_row():
    df = pd.DataFrame({"a": ["b", "a", "c"], "b": ["a", "c", "d"]})
    with qz.Context(progress=False) as ctx:
        ctx["YYC"] = True
        ctx.load_table(df)
        assert ctx.table.tolist() == [[0, 1], [1, 2], [2, 3]]
        assert ctx.coding.columns[1].names == ["b", "a", "c", "d"]


def test_bad_frames_are_refused_before_anything_runs():
    good = pd.DataFrame({"a": ["x", "y"], "b": [1, 2]})
    cases = [
        (pd.DataFrame([[1, 2]], columns=["a", "a"]), qz.QZError, "'a'"),
        (pd.DataFrame({1: ["x"], "1": ["y"]}), qz.QZError, "'1'"),
        (pd.DataFrame({"a": ["x"], "f": [0.5]}), TypeError, "'f'"),
        (pd.DataFrame({"a": ["x"], "t": pd.to_datetime(["2020-01-01"])}), TypeError, "'t'"),
        (pd.DataFrame({"a": ["x", None], "e": [None, None]}, dtype=object), qz.QZError, "'e'"),
        (pd.DataFrame({"a": ["x" * 65]}), qz.QZError, "64 bytes"),
    ]
    with qz.Context(progress=False) as ctx:
        ctx.load_table(good)
        table, pointer = ctx.table, ctx["DPT"]
        for frame, error, text in cases:
            with pytest.raises(error) as e:
                ctx.load_table(frame)
            assert text in str(e.value)
            # The loaded table is still there, and the context still works.
            assert ctx["DPT"] == pointer and ctx.table is table and not ctx.wedged
        assert "qz.discretize" in str(pytest.raises(TypeError, ctx.load_table, cases[2][0]).value)


def test_more_states_than_the_index_type_holds():
    df = pd.DataFrame({"a": ["x"] * 300, "wide": [str(i) for i in range(300)]})
    with qz.Context(progress=False) as ctx:
        ctx["IDX"] = 0  # UINT8: at most 255 states
        with pytest.raises(qz.QZError, match="'wide' has more than 255 states"):
            ctx.load_table(df)
        ctx["IDX"] = 1
        assert ctx.load_table(df) == 300


def small_model(ctx, seed=3):
    """A fitted chain over three labelled columns; returns the training frame."""
    rng = np.random.default_rng(seed)
    n = 400
    a = rng.integers(0, 2, n)
    b = (a + (rng.random(n) < 0.2)) % 3
    c = np.where(rng.random(n) < 0.7, b, rng.integers(0, 3, n))
    df = pd.DataFrame(
        {
            "a": np.where(a == 1, "yes", "no").astype(object),
            "b": pd.array(b + 10, dtype="Int64"),
            "c": pd.Categorical(np.array(["lo", "mid", "hi"])[c]),
        }
    )
    ctx.load_table(df)
    ctx.run("GRA CHAIN;\nLDX GPT;\nMODEL;\nALG JT;\nALG FL1;\nSTP 1\nMIO 200\nESTIMATE;")
    return df


def test_marginals_are_labelled_and_agree_with_enumeration():
    with qz.Context(seed=1, progress=False) as ctx:
        df = small_model(ctx)
        model = ctx.model()
        m = ctx.infer(unconditional=True)
        _, vertex, edge = enumerate_model(model.states, model.edges, model.weights)
        for v, col in enumerate(df.columns):
            series = m[col]
            assert list(series.index) == ctx.coding.columns[v].values
            np.testing.assert_allclose(series.to_numpy(), vertex[v], atol=1e-9)
        assert list(m["b"].index) == first_appearance(list(df["b"]))[1]
        assert isinstance(m["b"].index[0], (int, np.integer))
        frame = m.to_frame()
        assert frame.loc[("a", "yes"), "probability"] == pytest.approx(vertex[0][ctx.coding.columns[0].names.index("yes")])
        e = m.edge_frame(0)
        np.testing.assert_allclose(e.to_numpy(), edge[0], atol=1e-9)
        assert e.index.name == "a" and e.columns.name == "b"
        assert set(m.to_dict()) == {"a", "b", "c"}


def test_predict_fills_missing_cells_with_the_most_probable_state():
    with qz.Context(seed=1, progress=False) as ctx:
        df = small_model(ctx)
        model = ctx.model()
        test = df.head(12).copy()
        test.index = [f"r{i}" for i in range(12)]
        holes = [(0, "a"), (1, "b"), (2, "c"), (3, "a"), (4, "b"), (5, "c")]
        for r, col in holes:
            test.iloc[r, test.columns.get_loc(col)] = None
        ctx.load_table(test)
        before = ctx.table.copy()
        # Loopy belief propagation is exact on the chain, and takes the
        # observed cells into account (the junction tree ignores them).
        ctx.run("ALG LBP;")
        done, p = ctx.predict(probabilities=True)
        assert list(done.index) == list(test.index) and list(done.columns) == list(test.columns)
        assert done["b"].dtype == df["b"].dtype and done["c"].dtype == df["c"].dtype
        # The table keeps its missing cells: predict can be asked again.
        assert np.array_equal(ctx.table, before)
        for r, col in holes:
            v = list(test.columns).index(col)
            observed = {u: int(before[r, u]) for u in range(3) if u != v}
            _, vertex, _ = enumerate_model(model.states, model.edges, model.weights, observed)
            best = int(np.argmax(vertex[v]))
            assert done.iloc[r, v] == ctx.coding.columns[v].values[best], (r, col)
            assert p.iloc[r, v] == pytest.approx(vertex[v][best], abs=1e-5)
        observed_cells = test.notna()
        assert done[observed_cells].equals(test[observed_cells].astype(done.dtypes.to_dict()))
        assert p[observed_cells].isna().all().all()


def test_predict_with_the_junction_tree_warns_that_it_observes_nothing():
    with qz.Context(seed=1, progress=False) as ctx:
        df = small_model(ctx)
        test = df.head(3).copy()
        test.iloc[0, 1] = None
        ctx.load_table(test)
        with pytest.warns(RuntimeWarning, match="ALG LBP"):
            done = ctx.predict()
        assert done.notna().all().all()


def test_samples_of_an_integer_model_are_labelled_rows():
    df = vote_frame().iloc[:, :6]
    with qz.Context(seed=4, progress=False) as ctx:
        ctx["IDX"] = 1
        ctx["VAL"] = 1
        ctx.load_table(df)
        ctx.run("GRA CHAIN;\nLDX GPT;\nMODEL;\nALG IGD;\nMIO 30\nESTIMATE;")
        table = ctx["DPT"]
        rows = ctx.sample(200)
        assert ctx["DPT"] == table  # the loaded table stays
        assert list(rows.columns) == list(df.columns) and len(rows) == 200
        assert set(rows.stack().unique()) <= {"y", "n"}
        assert rows.notna().all().all()
        assert (rows != rows.iloc[0]).any().any()  # drawn, not constant
        given = df.head(5).copy()
        given.iloc[:, 1:] = None
        out = ctx.sample(given=given)
        assert list(out.index) == list(given.index)
        kept = given.iloc[:, 0].notna()
        assert out.iloc[:, 0][kept].tolist() == given.iloc[:, 0][kept].tolist()
        assert out.notna().all().all()


def test_sampling_a_floating_point_model_warns():
    with qz.Context(seed=1, progress=False) as ctx:
        small_model(ctx)
        with pytest.warns(RuntimeWarning, match="integer models"):
            rows = ctx.sample(3)
        assert len(rows) == 3


def test_a_frame_loaded_against_a_model_is_coded_by_its_names():
    with qz.Context(seed=1, progress=False) as ctx:
        df = small_model(ctx)
        # Values in another order of appearance keep the model's codes.
        new = df.iloc[::-1].head(20).reset_index(drop=True)
        ctx.load_table(new)
        for j in range(3):
            names = ctx.coding.columns[j].names
            assert names == ctx.model().labels[j] or names == [str(x) for x in ctx.model().labels[j]]
            codes = ctx.table[:, j]
            assert [names[k] for k in codes] == [str(v) for v in new.iloc[:, j]]
        with pytest.raises(qz.QZError, match="'a' holds 'maybe'"):
            ctx.load_table(pd.DataFrame({"a": ["maybe"], "b": [10], "c": ["lo"]}))
        with pytest.raises(qz.QZError, match="in this order"):
            ctx.load_table(new[["b", "a", "c"]])


def test_traces_record_the_objective_of_each_iteration():
    with qz.Context(seed=1, progress=False) as ctx:
        ctx.load_table(vote_frame())
        ctx["EPO"] = 0.0  # no convergence: all iterations run
        ctx.run("GRA CHAIN;\nLDX GPT;\nMODEL;\nALG JT;\nALG FL1;\nSTP 1\nMIO 40\nESTIMATE;")
        t = ctx.trace
        assert len(t) == 40 and t.iteration.tolist() == list(range(40))
        # ESTIMATE returns the objective at the smallest gradient norm.
        assert t.objective[t.best] == ctx["RES"]
        assert t.gradient_norm[t.best] == t.gradient_norm.min()
        ctx.run("MIO 5\nESTIMATE;")
        assert len(ctx.traces) == 2 and len(ctx.trace) == 5


def test_discretize_bins_by_equal_frequency():
    x = np.array([5.0, 1, 2, 3, 4, 6, 7, 8, 9, 10, 11, 12, np.nan])
    codes = qz.discretize(x, bins=3)
    # 12 values in 3 bins of 4, counted from the smallest.
    expected = np.searchsorted([4.5, 8.5], x[:12])
    assert codes[:12].tolist() == expected.tolist() and codes[12] == qz.MISSING
    s = qz.discretize(pd.Series(x, index=list("abcdefghijklm"), name="v"), bins=3)
    assert s.dtype == "Int64" and s.isna().tolist() == [False] * 12 + [True]
    assert list(s.index) == list("abcdefghijklm")
    assert qz.discretize(np.array([2.0, 2, 7, 7, 9]), bins=5).tolist() == [0, 0, 1, 1, 2]
    with qz.Context(progress=False) as ctx:
        assert ctx.load_table(pd.DataFrame({"v": s, "w": ["a"] * 13})) == 13
