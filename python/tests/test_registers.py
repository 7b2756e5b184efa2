"""Registers read and write with their kinds."""

import ctypes
import math
import struct

import numpy as np
import pytest

import qz


@pytest.fixture
def ctx():
    with qz.Context(progress=False) as c:
        yield c


def raw(ctx, name):
    """The register's 64 bits as the C interface returns them."""
    lib = ctx._lib.qz
    return lib.ctx_read_reg(ctx.handle, name.encode())


def test_register_table_names_every_register_with_its_kind():
    regs = qz.registers()
    assert len(regs) == 110
    assert regs["LAM"] == "REAL"
    assert regs["MIO"] == "INTEGER"
    assert regs["DFN"] == "STRING"
    assert regs["HED"] == "BOOL"
    assert regs["EDP"] == "POINTER"
    assert regs["SEP"] == "CHAR"
    assert set(regs.values()) == set(qz.KIND_NAMES)
    assert qz.Context.kind("LNZ") == "REAL"


def test_defaults_read_by_kind(ctx):
    assert ctx["MIO"] == 1000 and isinstance(ctx["MIO"], int)
    assert ctx["EPO"] == 0.000001 and isinstance(ctx["EPO"], float)
    assert ctx["SEP"] == ","
    assert ctx["MIS"] == "?"
    assert ctx["HED"] is True
    assert ctx["OVW"] is False
    assert ctx["DFN"] is None
    assert ctx["EDP"] == 0
    assert ctx["ONE"] == 1
    assert ctx["MVA"] == struct.unpack("<d", struct.pack("<Q", 255))[0]  # integer bits under a REAL kind


def test_real_crosses_as_double_bits(ctx):
    ctx["LAM"] = -2.75
    assert ctx["LAM"] == -2.75
    assert raw(ctx, "LAM") == struct.unpack("<Q", struct.pack("<d", -2.75))[0]
    ctx["GP0"] = 3  # an int is taken as a number
    assert ctx["GP0"] == 3.0
    ctx["GP1"] = float("inf")
    assert math.isinf(ctx["GP1"])


def test_integer_bounds_and_types(ctx):
    ctx["KXX"] = 2**64 - 1
    assert ctx["KXX"] == 2**64 - 1
    ctx["KXX"] = np.int32(7)
    assert ctx["KXX"] == 7
    with pytest.raises(ValueError):
        ctx["KXX"] = -1
    with pytest.raises(ValueError):
        ctx["KXX"] = 2**64
    with pytest.raises(TypeError):
        ctx["KXX"] = 2.5


def test_bool_char_and_their_refusals(ctx):
    ctx["HED"] = False
    assert ctx["HED"] is False
    ctx["PPX"] = np.bool_(True)
    assert ctx["PPX"] is True
    with pytest.raises(TypeError):
        ctx["HED"] = "yes"
    ctx["SEP"] = ";"
    assert ctx["SEP"] == ";"
    assert raw(ctx, "SEP") == ord(";")
    ctx["MIS"] = b"-"
    assert ctx["MIS"] == "-"
    with pytest.raises(TypeError):
        ctx["SEP"] = ";;"


def test_strings_are_heap_strings_owned_by_the_context(ctx):
    ctx["DFN"] = "a b/ünï.csv"
    assert ctx["DFN"] == "a b/ünï.csv"
    ctx["GPS"] = b"bytes\x00inside"
    assert ctx["GPS"] == "bytes\x00inside"  # a std::string keeps its NUL
    ctx["MFN"] = None
    assert ctx["MFN"] is None and raw(ctx, "MFN") == 0
    # The library frees it on DEL like a string that a program assigned.
    ctx.run("DEL DFN;")
    assert ctx["DFN"] is None


def test_pointers_stay_opaque_addresses(ctx):
    a = np.zeros(4, dtype=np.uint16)
    ctx["EDP"] = a
    assert ctx["EDP"] == a.ctypes.data
    buf = (ctypes.c_double * 3)()
    ctx["HPT"] = buf
    assert ctx["HPT"] == ctypes.addressof(buf)
    ctx["EIP"] = 12345
    assert ctx["EIP"] == 12345
    ctx["EDP"] = None
    assert ctx["EDP"] == 0


def test_values_written_by_a_program_read_back_by_kind(ctx):
    ctx.run("GP0 2.5\nKXX 7\nMFN 'a b.qzm'\nSEP ';'\nHED false\nMOV GP1 KXX;")
    assert ctx["GP0"] == 2.5
    assert ctx["KXX"] == 7
    assert ctx["MFN"] == "a b.qzm"
    assert ctx["SEP"] == ";"
    assert ctx["HED"] is False
    assert ctx["GP1"] == 7.0


def test_unknown_register_and_wrong_name_type(ctx):
    with pytest.raises(KeyError):
        ctx["DEVICE"]  # exact names only: DEV is the register
    with pytest.raises(KeyError):
        ctx["NOPE"] = 1
    with pytest.raises(TypeError):
        ctx[3]
    assert "DEV" in ctx and "DEVICE" not in ctx
    assert ctx.get("NOPE", 5) == 5


def test_refused_separator_is_an_error_without_wedging(ctx):
    with pytest.raises(qz.QZError) as e:
        ctx["SEP"] = "|"
    assert e.value.message == "separator | not supported"
    assert e.value.error_type == "std::out_of_range"
    assert e.value.line is None
    assert ctx["SEP"] == ","
    assert not ctx.wedged
    ctx["SEP"] = ";"  # the context still takes writes
    assert ctx["SEP"] == ";"


def test_seed_makes_draws_reproducible():
    values = []
    for _ in range(2):
        with qz.Context(seed=42, progress=False) as c:
            c.run("MOV GP0 UNI;\nMOV GP1 RND;")
            values.append((c["GP0"], c["GP1"]))
    assert values[0] == values[1]
    assert 0.0 <= values[0][0] < 1.0
