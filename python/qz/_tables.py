"""Tables as the library reads them: text files checked before loading, arrays
of codes, program texts, and the cells that PREDICT writes."""

import numpy as np

from ._errors import QZError
from ._registers import MISSING


def _check_table_shape(path, header):
    """Raise QZError if a text table has a row of another length than the first.

    The library's reader takes every row to be as long as the first and stops
    the whole process on an internal check otherwise; the file is read here
    as the reader will see it (a header line when HED is true, then one line
    that it skips, empty lines ignored). Binary tables are not looked at.
    """
    with open(path, "rb") as f:
        if f.read(8) == b"qzbin$\0#":
            return
        f.seek(0)
        expected = first = None
        for no, raw in enumerate(f, start=1):
            if no <= (2 if header else 1):
                continue
            line = raw.rstrip(b"\n")
            if not line:
                continue
            cells = line.count(b",") + 1
            if first is None:
                first, expected = no, cells
            elif cells != expected:
                raise QZError("table %s: line %d has %d cells, expected %d (as line %d)"
                              % (path, no, cells, expected, first))


def _as_table(source):
    """A C-contiguous, writable uint16 array of the table, and whether it is source itself.

    Missing cells: 65535, negative numbers, NaN and masked cells.
    """
    mask = None
    if isinstance(source, np.ma.MaskedArray):
        mask = np.ma.getmaskarray(source)
        source = source.filled(0)
    a = np.asarray(source)
    if a.ndim != 2:
        raise ValueError("a table is a 2-D array of rows by columns, not %d-D" % a.ndim)
    if a.shape[0] == 0 or a.shape[1] == 0:
        raise ValueError("a table needs at least one row and one column")
    if (
        mask is None
        and a is source
        and a.dtype == np.uint16
        and a.flags.c_contiguous
        and a.flags.aligned
        and a.flags.writeable
    ):
        return a, True
    if a.dtype.kind == "f":
        missing = np.isnan(a)
        present = a[~missing]
        if not np.all(np.floor(present) == present):
            raise ValueError("table cells are category codes: whole numbers, NaN for missing")
    elif a.dtype.kind in "iub":
        missing = a < 0 if a.dtype.kind == "i" else np.zeros(a.shape, dtype=bool)
    else:
        raise TypeError("a table holds integer category codes, not %s" % a.dtype)
    if mask is not None:
        missing = missing | mask
    present = a[~missing]
    if present.size and present.max() > MISSING:
        raise ValueError("category codes go up to 65534 (65535 marks a missing cell)")
    out = np.empty(a.shape, dtype=np.uint16)
    out[...] = np.where(missing, MISSING, a).astype(np.uint16)
    return out, False


def _program_lines(program):
    if isinstance(program, str):
        lines = program.split("\n")
    else:
        lines = list(program)
    out = []
    for line in lines:
        if not isinstance(line, str):
            raise TypeError("program lines are strings, not %s" % type(line).__name__)
        if line.endswith("\r"):  # programs written on Windows
            line = line[:-1]
        if "\0" in line:
            raise ValueError("a program line holds a NUL character")
        out.append(line)
    return out


def _pandas_available():
    try:
        import pandas  # noqa: F401
    except ImportError:
        return False
    return True


def _parse_max_marginals(text, names):
    """The probabilities in a PREDICT cell text "[a:0.25;b:0.75]", read by the known state names.

    None for a text of another form.
    """
    if not text.startswith("["):
        return None
    out = np.empty(len(names))
    pos = 1
    for j, name in enumerate(names):
        if not text.startswith(name + ":", pos):
            return None
        pos += len(name) + 1
        end = text.find(";" if j + 1 < len(names) else "]", pos)
        if end < 0:
            return None
        try:
            out[j] = float(text[pos:end])
        except ValueError:
            return None
        pos = end + 1
    return out
