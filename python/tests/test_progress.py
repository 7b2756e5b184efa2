"""Progress reports reach a Python callback or a tqdm bar."""

import sys
import types

import numpy as np
import pytest

import qz
from conftest import random_table


class FakeBar:
    """Records what a tqdm bar is told."""

    made = []

    def __init__(self, total, desc, leave=True):
        self.total, self.desc, self.leave = total, desc, leave
        self.n = 0
        self.closed = False
        self.positions = []
        FakeBar.made.append(self)

    def update(self, k):
        self.n += k
        self.positions.append(self.n)

    def refresh(self):
        self.positions.append(self.n)

    def close(self):
        self.closed = True


def fitted(ctx, rows=12):
    ctx.load_table(random_table(rows, 3, 2, 4).astype(np.uint16))
    ctx.run("GRA CHAIN;\nLDX GPT;\nMODEL;")


def test_callback_receives_the_reports_of_predict_and_score():
    reports = []
    with qz.Context(seed=1, progress=lambda d, t, label: reports.append((d, t, label))) as ctx:
        fitted(ctx)
        reports.clear()
        ctx.run("PREDICT;\nSCORE;")
    predict = [r for r in reports if r[2] == "PREDICT"]
    score = [r for r in reports if r[2] == "SCORE"]
    assert predict == [(i, 12, "PREDICT") for i in range(13)]
    assert score == [(i, 12, "SCORE") for i in range(1, 13)]


def test_without_a_callback_no_report_reaches_python():
    # CBP holds the host helper's relay whatever the setting; it forwards to
    # Python only while a callback is set.
    reports = []
    with qz.Context(seed=1, progress=False) as ctx:
        relay = ctx["CBP"]
        assert relay != 0 and ctx.progress is None
        fitted(ctx)
        ctx.progress = lambda *r: reports.append(r)
        assert ctx["CBP"] == relay
        ctx.run("SCORE;")
        assert len(reports) == 12
        ctx.progress = None
        assert ctx["CBP"] == relay
        ctx.run("SCORE;")
        assert len(reports) == 12


def test_reset_installs_the_callback_again():
    reports = []
    with qz.Context(seed=1, progress=lambda *r: reports.append(r)) as ctx:
        ctx.reset()
        assert ctx["CBP"] != 0
        fitted(ctx)
        reports.clear()
        ctx.run("SCORE;")
        assert len(reports) == 12


def test_an_exception_in_the_callback_is_raised_after_the_run():
    def boom(done, total, label):
        raise RuntimeError("stop drawing")

    with qz.Context(seed=1, progress=False) as ctx:
        fitted(ctx)
        ctx.progress = boom
        with pytest.raises(RuntimeError, match="stop drawing"):
            ctx.run("SCORE;\nKXX 3")
        assert ctx["KXX"] == 3 and not ctx.wedged


def test_tqdm_bars_one_per_stage_closed_at_the_end_of_the_run():
    FakeBar.made = []
    with qz.Context(seed=1, progress=False) as ctx:
        fitted(ctx)
        ctx.progress = qz.TqdmProgress(FakeBar)
        ctx.run("PREDICT;\nSCORE;")
    bars = FakeBar.made
    assert [(b.desc, b.total) for b in bars] == [("PREDICT", 12), ("SCORE", 12)]
    assert all(b.closed for b in bars)
    assert bars[0].n == 12 and bars[1].n == 12
    assert bars[0].leave is False


def test_auto_uses_tqdm_only_when_it_imports_and_stderr_is_a_terminal(monkeypatch):
    fake = types.ModuleType("tqdm")
    fake.tqdm = FakeBar
    monkeypatch.setitem(sys.modules, "tqdm", fake)
    with qz.Context(progress="auto") as ctx:
        if sys.stderr.isatty():
            assert isinstance(ctx.progress, qz.TqdmProgress)
        else:
            assert ctx.progress is None
    with qz.Context(progress=True) as ctx:
        assert isinstance(ctx.progress, qz.TqdmProgress)
    monkeypatch.setitem(sys.modules, "tqdm", None)  # import fails
    with qz.Context(progress=True) as ctx:
        assert ctx.progress is None
