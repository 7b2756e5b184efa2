"""Finding and loading libqz.so and its host helper libqzhost.so.

The search goes, in order: the path in the environment variable QZ_LIBRARY
(the library file itself or its directory), the package's own directory (a
copy of the libraries put next to the package), the build/ directory of the
source tree that holds this package, and last the system's loader search
(LD_LIBRARY_PATH, the installed prefix). libqzhost.so is taken from the
directory where libqz.so was found.
"""

import ctypes
import os
from typing import List, Mapping, Optional, Tuple

LIBRARY_NAME = "libqz.so"
HOST_NAME = "libqzhost.so"

_PACKAGE_DIR = os.path.dirname(os.path.abspath(__file__))


def candidate_paths(environ: Optional[Mapping[str, str]] = None) -> List[str]:
    """Return the places searched for libqz.so, in the order they are tried.

    A QZ_LIBRARY that is set comes first; it may name the library file or the
    directory that holds it. The system loader's own search, tried after
    these, is not listed.
    """
    environ = os.environ if environ is None else environ
    paths = []
    given = environ.get("QZ_LIBRARY")
    if given:
        paths.append(os.path.join(given, LIBRARY_NAME) if os.path.isdir(given) else given)
    paths.append(os.path.join(_PACKAGE_DIR, LIBRARY_NAME))
    source_root = os.path.dirname(os.path.dirname(_PACKAGE_DIR))
    paths.append(os.path.join(source_root, "build", LIBRARY_NAME))
    return paths


def find_library(environ: Optional[Mapping[str, str]] = None) -> Tuple[str, str]:
    """Return the paths (libqz, libqzhost) that the package would load.

    A QZ_LIBRARY that names no file is an error rather than a reason to look
    elsewhere: the user asked for that library. When no candidate exists the
    bare file names are returned, for the system loader to resolve.
    """
    environ = os.environ if environ is None else environ
    paths = candidate_paths(environ)
    if environ.get("QZ_LIBRARY") and not os.path.isfile(paths[0]):
        raise OSError("QZ_LIBRARY names no library file: %s" % environ["QZ_LIBRARY"])
    for path in paths:
        if os.path.isfile(path):
            return path, os.path.join(os.path.dirname(path), HOST_NAME)
    return LIBRARY_NAME, HOST_NAME


_c_char_pp = ctypes.POINTER(ctypes.c_char_p)
_size_p = ctypes.POINTER(ctypes.c_size_t)
_double_p = ctypes.POINTER(ctypes.c_double)
_int_p = ctypes.POINTER(ctypes.c_int)

_u16_p = ctypes.POINTER(ctypes.c_uint16)
_u64_p = ctypes.POINTER(ctypes.c_uint64)

# Progress callback of the register CBP: void(size_t done, size_t total, const char* text).
PROGRESS_CALLBACK = ctypes.CFUNCTYPE(None, ctypes.c_size_t, ctypes.c_size_t, ctypes.c_char_p)

# Hook of the register CBO, called by the optimizer once per iteration with its state record.
OPTIMIZER_HOOK = ctypes.CFUNCTYPE(None, ctypes.c_void_p)


class DiscretizationModel(ctypes.Structure):
    """The bins that the library's discretize fitted, returned by value."""

    _fields_ = [
        ("num_intervals", ctypes.c_size_t),
        ("num_moments", ctypes.c_size_t),
        ("intervals", ctypes.POINTER(ctypes.c_double)),
        ("moments", ctypes.POINTER(ctypes.c_double)),
        ("mean", ctypes.c_double),
        ("sdev", ctypes.c_double),
    ]


def _declare(lib, name, restype, argtypes):
    fn = getattr(lib, name)
    fn.restype = restype
    fn.argtypes = argtypes


class Library:
    """The two loaded libraries with the prototypes of the functions used.

    run_ctx, ctx_write_reg and reset_ctx are reached only through libqzhost,
    which catches the C++ exceptions that they throw.
    """

    def __init__(self, qz_path, host_path):
        """Load libqz from qz_path and libqzhost from host_path."""
        try:
            self.qz = ctypes.CDLL(qz_path, mode=ctypes.RTLD_GLOBAL)
        except OSError as e:
            raise OSError(
                "cannot load %s (%s); build the library or set QZ_LIBRARY to its path" % (qz_path, e)
            ) from e
        try:
            self.host = ctypes.CDLL(host_path)
        except OSError as e:
            raise OSError("cannot load the host helper %s next to %s (%s)" % (host_path, qz_path, e)) from e
        self.qz_path = qz_path
        self.host_path = host_path
        vp, sz, cp = ctypes.c_void_p, ctypes.c_size_t, ctypes.c_char_p
        _declare(self.qz, "create_ctx", vp, [])
        _declare(self.qz, "ctx_set_code", ctypes.c_bool, [vp, _c_char_pp, sz])
        _declare(self.qz, "ctx_read_reg", sz, [vp, cp])
        _declare(self.qz, "destroy_ctx", None, [vp])
        _declare(self.qz, "version", sz, [])
        _declare(self.host, "qzhost_run", ctypes.c_int, [vp, ctypes.c_int, cp, sz, cp, sz])
        _declare(self.host, "qzhost_write_reg", ctypes.c_int, [vp, cp, sz, cp, sz, cp, sz])
        _declare(self.host, "qzhost_reset", ctypes.c_int, [vp, cp, sz, cp, sz])
        _declare(self.host, "qzhost_running", ctypes.c_int, [vp])
        _declare(self.host, "qzhost_set_forward", None, [vp])
        _declare(self.host, "qzhost_take_warnings", sz, [cp, sz])
        _declare(self.host, "qzhost_register_count", sz, [])
        _declare(self.host, "qzhost_register_name", cp, [sz, _int_p])
        _declare(self.host, "qzhost_register_kind", ctypes.c_int, [cp])
        _declare(self.host, "qzhost_string_new", vp, [cp, sz])
        _declare(self.host, "qzhost_string_free", None, [vp])
        _declare(self.host, "qzhost_string_data", ctypes.POINTER(ctypes.c_char), [vp, _size_p])
        _declare(self.host, "qzhost_model_layout", ctypes.c_int, [vp, _size_p, _size_p, _size_p, _size_p, _size_p, _double_p])
        _declare(self.qz, "discretize", DiscretizationModel, [_u16_p, _double_p, sz, sz])
        _declare(
            self.host,
            "qzhost_table_new",
            vp,
            [_u16_p, sz, sz, _c_char_pp, _size_p, _c_char_pp, ctypes.c_int, ctypes.c_char],
        )
        _declare(self.host, "qzhost_table_free", None, [vp])
        _declare(self.host, "qzhost_table_text", ctypes.c_long, [vp, sz, sz, cp, sz])
        _declare(self.host, "qzhost_model_statistics", ctypes.c_int, [vp, _size_p, _size_p, _u64_p])
        _declare(self.host, "qzhost_set_statistics", ctypes.c_int, [vp, _u64_p, sz, sz])
        _declare(self.host, "qzhost_learn_structure", ctypes.c_int, [vp, ctypes.c_int, cp, sz, cp, sz])
        _declare(self.host, "qzhost_model_names", sz, [vp, cp, sz])
        # The process-wide stop flag that ctrlchandler clears.
        self.run_flag = ctypes.c_bool.in_dll(self.qz, "__run")

    def register_table(self):
        """Return the register table as a list of (name, kind number) in search order."""
        rows = []
        kind = ctypes.c_int()
        for i in range(self.host.qzhost_register_count()):
            name = self.host.qzhost_register_name(i, ctypes.byref(kind))
            rows.append((name.decode("ascii"), kind.value))
        return rows


_loaded = None


def load():
    """Return the process's Library, loading it on first use."""
    global _loaded
    if _loaded is None:
        _loaded = Library(*find_library())
    return _loaded


def library_path() -> str:
    """Return the path of the libqz.so that the package uses (loading it if needed)."""
    return load().qz_path


def version() -> int:
    """Return the library's version number (10068 for this interface)."""
    return int(load().qz.version())
