"""A failed run: the library's message with its line, and the wedged context after it."""

import subprocess

import numpy as np
import pytest

import qz
from conftest import qzrun_path

BAD = "INC KXX;\n# a comment\nFOO 3\nINC KXX;\n"


def test_failed_run_raises_the_message_with_the_line_counted_from_one():
    with qz.Context(progress=False) as ctx:
        with pytest.raises(qz.QZError) as e:
            ctx.run(BAD)
        assert str(e.value) == "error at line 3: unknown syntax error"
        assert e.value.message == "unknown syntax error"
        assert e.value.line == 3
        assert e.value.error_type == "std::logic_error"


def test_python_error_text_is_qzruns_error_line(tmp_path):
    program = tmp_path / "bad.qz"
    program.write_text(BAD)
    r = subprocess.run([qzrun_path(), str(program)], capture_output=True, text=True)
    assert r.returncode == 1
    with qz.Context(progress=False) as ctx:
        with pytest.raises(qz.QZError) as e:
            ctx.run(BAD)
    assert r.stderr == str(e.value) + "\n"


def test_standard_conversion_failures_keep_their_type():
    with qz.Context(progress=False) as ctx:
        with pytest.raises(qz.QZError) as e:
            ctx.run("KXX 3\nSEP ,\n")
        assert e.value.line == 2
        assert e.value.error_type == "std::out_of_range"
        with pytest.raises(qz.QZError) as e:
            qz.Context(progress=False).run("KXX abc")
        assert e.value.error_type == "std::invalid_argument"


def test_a_failed_run_wedges_the_context_which_stays_readable():
    ctx = qz.Context(progress=False)
    with pytest.raises(qz.QZError) as first:
        ctx.run("KXX 5\nESTIMATE;\n")
    assert first.value.message == "no model loaded"
    assert ctx.wedged and ctx.running
    assert ctx.failure is first.value
    # Reads still answer, with LNN at the failing line.
    assert ctx["KXX"] == 5
    assert ctx["LNN"] == 1
    for action in (
        lambda: ctx.run("KXX 6"),
        lambda: ctx.run(),
        lambda: ctx.set_program("KXX 6"),
        ctx.reset,
        lambda: ctx.__setitem__("KXX", 6),
        lambda: ctx.load_table(np.zeros((2, 2), dtype=np.uint16)),
        ctx.infer,
        ctx.model,
    ):
        with pytest.raises(qz.ContextWedged) as e:
            action()
        assert e.value.failure is first.value
        assert "make a new Context" in str(e.value)
    assert ctx["KXX"] == 5
    ctx.close()
    assert ctx.closed


def test_helpers_check_what_the_library_would_wedge_on():
    with qz.Context(progress=False) as ctx:
        with pytest.raises(qz.QZError) as e:
            ctx.infer()
        assert str(e.value) == "no graph loaded"
        with pytest.raises(qz.QZError):
            ctx.save_model("/nonexistent/m.qzm")
        with pytest.raises(qz.QZError):
            ctx.model()
        with pytest.raises(FileNotFoundError):
            ctx.load_table("/nonexistent/table.csv")
        assert not ctx.wedged
        ctx.run("KXX 2")
        assert ctx["KXX"] == 2


def test_program_lines_are_checked_before_they_reach_the_library():
    with qz.Context(progress=False) as ctx:
        with pytest.raises(ValueError):
            ctx.run("KXX 1\0")
        with pytest.raises(TypeError):
            ctx.run(["KXX 1", 3])
        ctx.run(["KXX 4\r", "INC KXX;"])  # a list of lines; Windows line ends are cut
        assert ctx["KXX"] == 5
