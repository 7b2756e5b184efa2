"""The register table of the library: kinds, names, and the bit patterns of values."""

import ctypes
import struct
from typing import Dict

import numpy as np

from . import _lib

# Register kinds, in the numbering of the library's register table.
INTEGER, REAL, STRING, BOOL, POINTER, CHAR = range(6)
KIND_NAMES = ("INTEGER", "REAL", "STRING", "BOOL", "POINTER", "CHAR")

# The category code of a missing cell in a table.
MISSING = 65535


def registers() -> Dict[str, str]:
    """Return every register name with its kind name, in the library's table order."""
    return {name: KIND_NAMES[kind] for name, kind in _lib.load().register_table()}


def _kinds():
    lib = _lib.load()
    if not hasattr(lib, "kinds"):
        lib.kinds = dict(lib.register_table())
    return lib.kinds


def _bits_of_double(x):
    return struct.unpack("<Q", struct.pack("<d", x))[0]


def _double_of_bits(b):
    return struct.unpack("<d", struct.pack("<Q", b))[0]


def _unsigned(value, name):
    import operator

    try:
        v = operator.index(value)
    except TypeError:
        raise TypeError("register %s takes an integer, not %s" % (name, type(value).__name__)) from None
    if v < 0 or v >= 1 << 64:
        raise ValueError("register %s takes an integer from 0 to 2**64-1, not %d" % (name, v))
    return v


def _pointer_value(value, name):
    """The address that value stands for, and the object to keep alive for it."""
    if value is None:
        return 0, None
    if isinstance(value, np.ndarray):
        return value.ctypes.data, value
    if isinstance(value, ctypes._CFuncPtr):
        return ctypes.cast(value, ctypes.c_void_p).value or 0, value
    if isinstance(value, ctypes._Pointer):
        return ctypes.cast(value, ctypes.c_void_p).value or 0, value
    if isinstance(value, (ctypes._SimpleCData, ctypes.Array, ctypes.Structure, ctypes.Union)):
        if isinstance(value, ctypes.c_void_p):
            return value.value or 0, value
        return ctypes.addressof(value), value
    return _unsigned(value, name), None




def _kind_number(name):
    if not isinstance(name, str):
        raise TypeError("register names are strings, not %s" % type(name).__name__)
    try:
        return _kinds()[name]
    except KeyError:
        raise KeyError("no register named %r" % name) from None
