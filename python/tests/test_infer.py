"""infer(): marginals and log Z against enumeration, and against INFER's own array."""

import ctypes

import numpy as np
import pytest

import qz
from conftest import enumerate_model, random_table


def fitted_tree(ctx, seed=5):
    """A star of 4 vertices with 2 to 4 states, Gaussian weights, and no table."""
    table = random_table(40, 4, 3, seed)
    table[:, 0] %= 2
    table[0, 3] = 3
    ctx.load_table(table)
    ctx.run("GRA STAR;\nLDX GPT;\nMODEL;\nSDE 1.0\nINITGAUSS;\nDEL DPT;")
    return ctx.model()


def test_tree_marginals_equal_enumeration():
    with qz.Context(seed=11, progress=False) as ctx:
        model = fitted_tree(ctx)
        assert list(model.states) == [2, 3, 3, 4]
        m = ctx.infer()
        log_z, vm, em = enumerate_model(model.states, model.edges, model.weights)
        # Belief propagation is exact on a tree.
        assert m.log_z == pytest.approx(log_z, abs=1e-6)
        for v in range(4):
            np.testing.assert_allclose(m.vertex[v], vm[v], atol=1e-6)
        for e in range(len(m.edges)):
            np.testing.assert_allclose(m.edge[e], em[e], atol=1e-6)


def test_slow_mode_gives_the_enumerated_log_z_and_edge_marginals():
    with qz.Context(seed=12, progress=False) as ctx:
        model = fitted_tree(ctx)
        ctx["SLW"] = True
        m = ctx.infer()
        log_z, _, em = enumerate_model(model.states, model.edges, model.weights)
        assert m.log_z == pytest.approx(log_z, rel=1e-12)
        for e in range(len(m.edges)):
            np.testing.assert_allclose(m.edge[e], em[e], rtol=1e-10)


def test_first_table_row_gives_the_observations():
    with qz.Context(seed=13, progress=False) as ctx:
        model = fitted_tree(ctx)
        evidence = np.array([[1, -1, 2, -1]])
        ctx.load_table(evidence)
        m = ctx.infer()
        _, vm, _ = enumerate_model(model.states, model.edges, model.weights, observed={0: 1, 2: 2})
        for v in (1, 3):
            np.testing.assert_allclose(m.vertex[v], vm[v], atol=1e-6)
        # The observations matter: the unconditional marginals differ.
        _, free, _ = enumerate_model(model.states, model.edges, model.weights)
        assert np.abs(free[1] - vm[1]).max() > 1e-3


def test_infer_array_is_the_library_array_cut_by_the_layout():
    with qz.Context(seed=14, progress=False) as ctx:
        model = fitted_tree(ctx)
        ctx.run("INFER;")
        size = int(model.states.sum()) + len(model.weights)
        published = np.ctypeslib.as_array((ctypes.c_double * size).from_address(ctx["PPT"])).copy()
        m = ctx.infer()
        assert np.array_equal(m.array, published)
        assert np.array_equal(np.concatenate(m.vertex + [e.ravel() for e in m.edge]), published)
        # The array is a copy: the next INFER frees the library's.
        assert m.array.ctypes.data != ctx["PPT"]


def test_model_weights_follow_the_edge_layout():
    with qz.Context(seed=15, progress=False) as ctx:
        model = fitted_tree(ctx)
        # Star edges run from each vertex to the centre, vertex 0.
        assert model.edges.tolist() == [[1, 0], [2, 0], [3, 0]]
        assert len(model.weights) == 3 * 2 + 3 * 2 + 4 * 2
        block = model.edge_weights(2)
        assert block.shape == (4, 2)
        assert np.array_equal(block.ravel(), model.weights[12:20])


def test_saved_model_loads_with_its_own_types(tmp_path):
    path = tmp_path / "star.qzm"
    with qz.Context(seed=16, progress=False) as ctx:
        ctx["IDX"] = 2  # UINT32
        ctx["VAL"] = 4  # FLT32
        model = fitted_tree(ctx)
        ctx.save_model(path)
        with pytest.raises(FileExistsError):
            ctx.save_model(path, overwrite=False)
        before = ctx.infer()
    with qz.Context(progress=False) as other:
        other.load_model(path)  # IDX and VAL come from the file
        assert other["IDX"] == 2 and other["VAL"] == 4
        again = other.model()
        assert np.array_equal(again.weights, model.weights)
        assert np.array_equal(again.edges, model.edges)
        after = other.infer()
        assert np.array_equal(after.array, before.array)


def test_load_model_refuses_a_file_of_another_kind(tmp_path):
    path = tmp_path / "not.qzm"
    path.write_bytes(b"\x09\x09garbage")
    with qz.Context(progress=False) as ctx:
        with pytest.raises(ValueError):
            ctx.load_model(path)
        assert not ctx.wedged
