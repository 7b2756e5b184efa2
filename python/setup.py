"""Builds the qz wheel: the Python package with libqz.so and libqzhost.so inside it.

The metadata is in pyproject.toml; this file only adds the step that puts the
two libraries next to the package's modules, from the first of:

1. QZ_LIBRARY: a built libqz.so (the file, or the directory that holds it)
   with libqzhost.so beside it. Nothing is compiled; the tests and the
   sanitizer run take the libraries they have already built this way.
2. QZ_BUILD_FROM_SOURCE unset and an installed qz that pkg-config finds
   (cmake --install puts qz.pc and both libraries under the prefix).
3. A CMake build of the source tree that holds this directory: the targets
   qz and qzhost, Release, without tests and benchmarks, in the build
   directory of the wheel.

The wheel is tagged for the platform but for no Python version or ABI: the
libraries are plain shared objects that the package loads with ctypes.
"""

import os
import shutil
import subprocess

from setuptools import Distribution, setup
from setuptools.command.build_py import build_py

try:
    from wheel.bdist_wheel import bdist_wheel
except ImportError:  # building without the wheel package (an sdist, a plain install)
    bdist_wheel = None

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE_ROOT = os.path.dirname(HERE)
LIBRARIES = ("libqz.so", "libqzhost.so")


def _from_environment():
    given = os.environ.get("QZ_LIBRARY")
    if not given:
        return None
    folder = given if os.path.isdir(given) else os.path.dirname(given)
    missing = [name for name in LIBRARIES if not os.path.isfile(os.path.join(folder, name))]
    if missing:
        raise SystemExit("QZ_LIBRARY=%s: %s not found in %s" % (given, " and ".join(missing), folder))
    return folder


def _from_pkg_config():
    if os.environ.get("QZ_BUILD_FROM_SOURCE"):
        return None
    try:
        out = subprocess.run(
            ["pkg-config", "--variable=libdir", "qz"], check=True, capture_output=True, text=True
        ).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return None
    if out and all(os.path.isfile(os.path.join(out, name)) for name in LIBRARIES):
        return out
    return None


def _from_source(build_temp):
    lists = os.path.join(SOURCE_ROOT, "CMakeLists.txt")
    if not os.path.isfile(lists) or "project(qz" not in open(lists).read():
        raise SystemExit(
            "no qz source tree above %s: set QZ_LIBRARY to a built libqz.so, "
            "or install qz so that pkg-config finds it" % HERE
        )
    build = os.path.join(os.path.abspath(build_temp), "cmake")
    jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", str(min(2, os.cpu_count() or 1)))
    subprocess.run(
        [
            "cmake",
            "-S",
            SOURCE_ROOT,
            "-B",
            build,
            "-DCMAKE_BUILD_TYPE=Release",
            "-DQZ_BUILD_TESTS=OFF",
            "-DQZ_BUILD_BENCH=OFF",
        ],
        check=True,
    )
    subprocess.run(["cmake", "--build", build, "-j", jobs, "--target", "qz", "qzhost"], check=True)
    return build


class BuildWithLibraries(build_py):
    """build_py that also copies libqz.so and libqzhost.so into the package."""

    def run(self):
        super().run()
        folder = _from_environment() or _from_pkg_config() or _from_source(self.get_finalized_command("build").build_temp)
        target = os.path.join(self.build_lib, "qz")
        os.makedirs(target, exist_ok=True)
        for name in LIBRARIES:
            # Copies, not links: a wheel stores the file.
            shutil.copy2(os.path.realpath(os.path.join(folder, name)), os.path.join(target, name))


class WithLibraries(Distribution):
    """A distribution with binaries: it is built and installed as a platform's, not as pure Python."""

    def has_ext_modules(self):
        return True


commands = {"build_py": BuildWithLibraries}

if bdist_wheel is not None:

    class PlatformWheel(bdist_wheel):
        """A wheel for this platform that any Python 3 can install."""

        def get_tag(self):
            _, _, platform = super().get_tag()
            return "py3", "none", platform

    commands["bdist_wheel"] = PlatformWheel

setup(cmdclass=commands, distclass=WithLibraries)
