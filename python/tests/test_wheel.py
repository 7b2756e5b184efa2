"""The package as a user installs it: a wheel built offline, in a fresh virtual environment.

The wheel is built from a copy of the package with QZ_LIBRARY naming the
libraries already built (so that nothing is compiled again, and a sanitizer
build tests its own libraries), installed with pip into a venv that sees the
system's packages (numpy, pandas, matplotlib), and used from another
directory with neither PYTHONPATH nor QZ_LIBRARY set.
"""

import glob
import os
import re
import shutil
import subprocess
import sys

import pytest

import qz
from conftest import REPO

PACKAGE = os.path.join(REPO, "python")


def run(args, env, cwd):
    done = subprocess.run(args, env=env, cwd=cwd, capture_output=True, text=True, timeout=180)
    assert done.returncode == 0, "%s\n%s\n%s" % (" ".join(map(str, args)), done.stdout, done.stderr)
    return done.stdout


@pytest.fixture(scope="module")
def venv(tmp_path_factory):
    tmp = tmp_path_factory.mktemp("wheel")
    source = tmp / "source"
    shutil.copytree(os.path.join(PACKAGE, "qz"), source / "qz", ignore=shutil.ignore_patterns("__pycache__", "*.so"))
    for name in ("pyproject.toml", "setup.py"):
        shutil.copy(os.path.join(PACKAGE, name), source / name)
    env = {k: v for k, v in os.environ.items() if k not in ("PYTHONPATH", "QZ_LIBRARY")}
    env["PIP_NO_INDEX"] = "1"  # offline: nothing may come from the network
    env["PIP_DISABLE_PIP_VERSION_CHECK"] = "1"
    build_env = dict(env, QZ_LIBRARY=os.path.dirname(qz.library_path()))
    run([sys.executable, "-m", "pip", "wheel", "--no-build-isolation", "--no-deps", "-w", str(tmp / "dist"), str(source)],
        build_env, str(tmp))
    wheels = glob.glob(str(tmp / "dist" / "qz-*.whl"))
    assert len(wheels) == 1
    # The system's pip, seen through --system-site-packages, installs into the venv.
    run([sys.executable, "-m", "venv", "--system-site-packages", "--without-pip", str(tmp / "venv")], env, str(tmp))
    python = str(tmp / "venv" / "bin" / "python")
    run([python, "-m", "pip", "install", wheels[0]], env, str(tmp))
    elsewhere = tmp / "elsewhere"
    elsewhere.mkdir()
    return python, env, str(elsewhere), os.path.basename(wheels[0]), str(tmp / "venv")


def test_the_wheel_is_for_any_python_3_on_this_platform(venv):
    _, _, _, wheel, _ = venv
    assert re.fullmatch(r"qz-1\.0\.0-py3-none-linux_\w+\.whl", wheel)


def test_installed_package_runs_from_another_directory(venv):
    python, env, elsewhere, _, prefix = venv
    code = (
        "import os, qz, pandas as pd\n"
        "assert qz.__file__.startswith(%r), qz.__file__\n"
        "here = os.path.dirname(qz.__file__)\n"
        "assert qz.library_path() == os.path.join(here, 'libqz.so')\n"
        "assert os.path.isfile(os.path.join(here, 'py.typed'))\n"
        "df = pd.DataFrame({'a': list('xyxyxx'), 'b': [1, 2, 1, 2, 2, 1]})\n"
        "with qz.Context(seed=1, progress=False) as ctx:\n"
        "    ctx.load_table(df)\n"
        "    ctx.run('GRA CHAIN;\\nLDX GPT;\\nMODEL;')\n"
        "    m = ctx.infer(unconditional=True)\n"
        "    print(qz.version(), ctx['NXX'], ctx['DIM'], list(m['b'].index))\n"
    ) % prefix
    out = run([python, "-c", code], env, elsewhere)
    assert out.split() == ["10068", "6", "4", "[1,", "2]"]


def test_main_example_runs_from_the_installed_package(venv, tmp_path):
    python, env, elsewhere, _, _ = venv
    picture = tmp_path / "vote.png"
    out = run([python, os.path.join(REPO, "examples", "vote.py"), str(picture)], env, elsewhere)
    values = dict(line.split("=", 1) for line in out.splitlines() if "=" in line)
    assert values["NXX"] == "434" and values["GVX"] == "17" and values["GEX"] == "82" and values["DIM"] == "328"
    # The objective of vote.qz, whose README gives it as 7.93111...
    assert float(values["GP0"]) == pytest.approx(7.931110114537184, abs=1e-9)
    assert picture.stat().st_size > 10000
    with open(picture, "rb") as f:
        assert f.read(8) == b"\x89PNG\r\n\x1a\n"


def test_versions_agree():
    with open(os.path.join(PACKAGE, "pyproject.toml")) as f:
        pyproject = re.search(r'^version = "([^"]+)"', f.read(), re.M).group(1)
    with open(os.path.join(REPO, "CMakeLists.txt")) as f:
        cmake = re.search(r"project\(qz VERSION (\S+)", f.read()).group(1)
    assert pyproject == cmake == qz.__version__
