"""Creating, resetting and releasing contexts, and finding the library."""

import gc
import os

import pytest

import qz
from qz import _lib


@pytest.fixture
def destroyed(monkeypatch):
    """The handles that destroy_ctx receives from now on."""
    lib = _lib.load()
    real = lib.qz.destroy_ctx
    seen = []

    def spy(handle):
        seen.append(handle)
        real(handle)

    monkeypatch.setattr(lib.qz, "destroy_ctx", spy)
    return seen


def test_context_is_released_when_the_object_goes(destroyed):
    ctx = qz.Context(progress=lambda *r: None)  # the callback holds no strong reference back
    handle = ctx.handle
    del ctx
    assert destroyed == [handle]


def test_with_block_and_close(destroyed):
    with qz.Context(progress=False) as ctx:
        handle = ctx.handle
        ctx["KXX"] = 3
    assert destroyed == [handle]
    assert ctx.closed and ctx.handle is None
    ctx.close()  # twice is harmless
    assert destroyed == [handle]
    with pytest.raises(ValueError, match="closed"):
        ctx["KXX"]
    with pytest.raises(ValueError, match="closed"):
        ctx.run("KXX 1")


def test_a_wedged_context_is_released_too(destroyed):
    ctx = qz.Context(progress=False)
    with pytest.raises(qz.QZError):
        ctx.run("ESTIMATE;")
    handle = ctx.handle
    del ctx
    gc.collect()
    assert destroyed == [handle]


def test_reset_restores_defaults_and_keeps_the_program():
    with qz.Context(progress=False) as ctx:
        ctx.run("KXX 7\nINC KXX;")
        ctx["LAM"] = 2.0
        assert ctx["KXX"] == 8
        ctx.reset()
        assert ctx["KXX"] == 4 and ctx["LAM"] == 0.0 and ctx["LNN"] == 0
        ctx.run()  # the same program from its first line
        assert ctx["KXX"] == 8
        ctx.run()  # at the end: nothing more runs
        assert ctx["KXX"] == 8


def test_library_search_order(tmp_path):
    pkg = os.path.dirname(os.path.abspath(qz.__file__))
    repo = os.path.dirname(os.path.dirname(pkg))
    paths = _lib.candidate_paths({})
    assert paths == [os.path.join(pkg, "libqz.so"), os.path.join(repo, "build", "libqz.so")]
    lib = tmp_path / "libqz.so"
    lib.write_bytes(b"")
    assert _lib.candidate_paths({"QZ_LIBRARY": str(lib)})[0] == str(lib)
    assert _lib.candidate_paths({"QZ_LIBRARY": str(tmp_path)})[0] == str(lib)
    found = _lib.find_library({"QZ_LIBRARY": str(tmp_path)})
    assert found == (str(lib), str(tmp_path / "libqzhost.so"))
    with pytest.raises(OSError, match="QZ_LIBRARY"):
        _lib.find_library({"QZ_LIBRARY": str(tmp_path / "none.so")})


def test_loaded_library_and_version():
    assert qz.version() == 10068
    assert os.path.isfile(qz.library_path())
    if "QZ_LIBRARY" in os.environ:
        assert os.path.samefile(qz.library_path(), os.environ["QZ_LIBRARY"])


def test_every_public_function_has_a_docstring():
    import inspect

    missing = []
    for name in qz.__all__:
        obj = getattr(qz, name)
        if not (inspect.isclass(obj) or inspect.isfunction(obj)):
            continue
        if not inspect.getdoc(obj):
            missing.append(name)
        if inspect.isclass(obj):
            for attr, member in vars(obj).items():
                if attr.startswith("_") and attr not in ("__init__", "__getitem__", "__setitem__", "__enter__", "__exit__"):
                    continue
                if callable(member) or isinstance(member, (property, staticmethod)):
                    if not inspect.getdoc(getattr(obj, attr)):
                        missing.append(name + "." + attr)
    assert missing == []
