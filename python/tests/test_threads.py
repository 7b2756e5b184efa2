"""One context, two Python threads: reads go on during a run, changes are refused."""

import threading

import numpy as np
import pytest

import qz
from conftest import random_table


def test_reads_during_a_run_on_another_thread():
    started = threading.Event()
    checked = threading.Event()

    def progress(done, total, label):
        # The first report holds the run until the other thread has looked.
        if label == "PREDICT" and not started.is_set():
            started.set()
            assert checked.wait(120)

    ctx = qz.Context(seed=3, progress=progress)
    ctx.load_table(random_table(30, 4, 2, 2).astype(np.uint16))
    ctx.run("GRA CHAIN;\nLDX GPT;\nMODEL;")
    outcome = {}

    def worker():
        try:
            ctx.run("KXX 9\nPREDICT;\nKXX 10")
            outcome["ok"] = True
        except BaseException as e:  # reported to the main thread
            outcome["error"] = e

    t = threading.Thread(target=worker)
    t.start()
    try:
        assert started.wait(120)
        # The run stands inside PREDICT on line 1.
        assert ctx.running and not ctx.wedged
        assert ctx["LNN"] == 1
        assert ctx["KXX"] == 9
        assert ctx["NXX"] == 30
        assert ctx["GVX"] == 4
        with pytest.raises(qz.ContextBusy):
            ctx["KXX"] = 1
        with pytest.raises(qz.ContextBusy):
            ctx.run("KXX 1")
        with pytest.raises(qz.ContextBusy):
            ctx.reset()
        with pytest.raises(qz.ContextBusy):
            ctx.close()
        with pytest.raises(qz.ContextBusy):
            ctx.model()
    finally:
        checked.set()
        t.join(120)
    assert outcome == {"ok": True}
    assert not ctx.running
    assert ctx["KXX"] == 10
    ctx.close()


def test_two_contexts_run_side_by_side():
    results = {}

    def fit(key, seed):
        with qz.Context(seed=seed, progress=False) as ctx:
            ctx.load_table(random_table(60, 5, 3, seed).astype(np.uint16))
            ctx.run("GRA CHAIN;\nLDX GPT;\nMODEL;\nALG GD;\nSTP 0.5\nMIO 40\nESTIMATE;")
            results[key] = (ctx["RES"], ctx.model().weights)

    threads = [threading.Thread(target=fit, args=(k, 20 + k)) for k in range(2)]
    for t in threads:
        t.start()
    for t in threads:
        t.join(120)
    fit("alone", 20)
    assert results[0][0] == results["alone"][0]
    assert np.array_equal(results[0][1], results["alone"][1])
    assert results[1][0] != results[0][0]
