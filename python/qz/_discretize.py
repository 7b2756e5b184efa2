"""Real-valued columns as category codes, by the library's equal-frequency discretization."""

import sys
from typing import Any

import numpy as np

from . import _lib
from ._registers import MISSING


def discretize(values: Any, bins: int = 5) -> Any:
    """Bin real numbers into at most `bins` equal-frequency categories with the library's discretize.

    Equal values always share a bin, so fewer bins may come out; a column
    with at most `bins` distinct values gets one bin per value. Codes count
    the bins from the smallest values up. NaN stays missing.

    values: a 1-D array or a pandas Series of numbers.
    Returns uint16 codes (65535 where the value was NaN) for an array, and for
    a Series a Series of nullable integers (Int64) with the same index, ready
    for a DataFrame that load_table takes.
    """
    if isinstance(bins, bool) or int(bins) != bins or bins < 1:
        raise ValueError("bins is a number of bins of at least 1, not %r" % (bins,))
    series = None
    if "pandas" in sys.modules and isinstance(values, sys.modules["pandas"].Series):
        series = values
        values = values.to_numpy(dtype=np.float64, na_value=np.nan)
    x = np.asarray(values, dtype=np.float64)
    if x.ndim != 1:
        raise ValueError("discretize takes one column of values, not a %d-D array" % x.ndim)
    codes = np.full(x.shape, MISSING, dtype=np.uint16)
    present = ~np.isnan(x)
    if present.any():
        data = np.ascontiguousarray(x[present])
        out = np.empty(data.shape, dtype=np.uint16)
        _lib.load().qz.discretize(
            out.ctypes.data_as(_lib._u16_p), data.ctypes.data_as(_lib._double_p), data.size, int(bins)
        )
        codes[present] = out
    if series is None:
        return codes
    import pandas as pd

    result = pd.array(codes.astype(np.int64), dtype="Int64")
    result[~present] = pd.NA
    return pd.Series(result, index=series.index, name=series.name)
