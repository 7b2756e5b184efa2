"""Ctrl-C during a run: the library's loops stop, the run ends, Python gets KeyboardInterrupt."""

import math
import os
import signal
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import qz
from conftest import REPO, random_table

# Gradient descent that would go on for a billion iterations.
ENDLESS = "ALG GD;\nSTP 0.1\nEPO 0\nMIO 1000000000\nESTIMATE;\nKXX 77"


def interrupt_when_running(ctx, line):
    """From another thread: once the run stands on line, send SIGINT to the process."""

    def watch():
        deadline = time.monotonic() + 120
        while time.monotonic() < deadline:
            if ctx.running and ctx["LNN"] == line:
                time.sleep(0.2)  # let the optimizer take some steps
                os.kill(os.getpid(), signal.SIGINT)
                return
            time.sleep(0.01)

    t = threading.Thread(target=watch, daemon=True)
    t.start()
    return t


def test_ctrl_c_stops_a_long_estimate_cleanly():
    with qz.Context(seed=5, progress=False) as ctx:
        ctx.load_table(random_table(80, 6, 3, 5).astype(np.uint16))
        ctx.run("GRA CHAIN;\nLDX GPT;\nMODEL;")
        watcher = interrupt_when_running(ctx, 4)
        with pytest.raises(KeyboardInterrupt):
            ctx.run(ENDLESS)
        watcher.join()
        # The optimizer stopped with its best point, the program went on to its end.
        assert not ctx.wedged and not ctx.running
        assert ctx["KXX"] == 77
        assert math.isfinite(ctx["RES"])
        assert np.any(ctx.model().weights != 0)
        # The stop request was withdrawn: the next estimate runs its course.
        assert ctx._lib.run_flag.value
        ctx.run("MIO 5\nEPO 0.000001\nESTIMATE;\nKXX 78")
        assert ctx["KXX"] == 78
    # Python's own handling of Ctrl-C is back.
    assert signal.getsignal(signal.SIGINT) is signal.default_int_handler
    with pytest.raises(KeyboardInterrupt):
        os.kill(os.getpid(), signal.SIGINT)
        time.sleep(5)


def test_a_second_ctrl_c_ends_the_process():
    # Enumerating 2^26 joint states does not look at the stop flag: only the
    # second interrupt ends it, and with it the process.
    script = """
import os, signal, threading, time, numpy as np, qz
ctx = qz.Context(seed=1, progress=False)
ctx.load_table(np.zeros((3, 26), dtype=np.uint16) + np.arange(3, dtype=np.uint16)[:, None] % 2)
ctx.run("GRA CHAIN;\\nLDX GPT;\\nMODEL;\\nDEL DPT;\\nSDE 0.1\\nINITGAUSS;")
def kick():
    while not (ctx.running and ctx["LNN"] == 1):
        time.sleep(0.01)
    time.sleep(0.2)
    os.kill(os.getpid(), signal.SIGINT)
    time.sleep(0.5)
    os.kill(os.getpid(), signal.SIGINT)
threading.Thread(target=kick, daemon=True).start()
ctx.run("SLW true\\nINFER;")
print("not reached")
"""
    env = dict(os.environ)
    env["PYTHONPATH"] = os.path.join(REPO, "python")
    r = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, env=env, timeout=240)
    assert r.returncode == -signal.SIGABRT, r.stderr
    assert "qz: second interrupt, ending the process" in r.stderr
    assert "not reached" not in r.stdout
