"""pandas tables as coded tables of the library, and coded tables back as pandas tables.

A column of a DataFrame becomes a column of 16-bit category codes and a list
of state names. The codes follow the first appearance of each value, from
the top of the column down, which is how the library's text reader codes the
same values written as text; with one shared dictionary (YYC) the values are
met row by row, left to right, as that reader meets them. The names are the
values' text (str). Missing cells (NaN, None, pd.NA, NaT) get the code 65535.
What a column held goes back into its dtype when a coded table comes back.

pandas is imported here at module level: this module is only imported once a
DataFrame has been handed over, or by code that needs pandas anyway.
"""

import numpy as np
import pandas as pd

from ._errors import QZError
from ._registers import MISSING

# A model file keeps a name in 64 bytes and its terminating zero.
MAX_NAME_BYTES = 64

# The widths of the index types that IDX selects, by its value.
_INDEX_BITS = {0: 8, 1: 16, 2: 32, 3: 64}


def max_states(idx):
    """The most states a column may have under IDX value idx (a code is 16 bits, 65535 is missing)."""
    return min(MISSING, (1 << _INDEX_BITS.get(int(idx), 64)) - 1)


def is_dataframe(x):
    """True if x is a pandas DataFrame (without importing pandas when it is not loaded)."""
    return isinstance(x, pd.DataFrame)


class ColumnCoding:
    """How one column was coded: its label, its states' names and values, its dtype."""

    def __init__(self, label, name, kind, dtype, values, names):
        self.label = label  # the column label of the DataFrame
        self.name = name  # the vertex name in the model: str(label)
        self.kind = kind  # "category", "bool", "int", "string" or "object"
        self.dtype = dtype  # the column's dtype
        self.values = values  # the value of each code, in code order
        self.names = names  # the state name of each code: str(value)

    def __repr__(self):
        return "ColumnCoding(%r, %d states)" % (self.label, len(self.names))


class TableCoding:
    """The coding of a DataFrame: one ColumnCoding per column, and its row index."""

    def __init__(self, columns, index, shared):
        self.columns = columns
        self.index = index
        self.shared = shared

    @property
    def names(self):
        """The vertex names, one per column."""
        return [c.name for c in self.columns]

    def frame(self, codes, index=None):
        """Decode a rows-by-columns array of codes into a DataFrame with the original labels and dtypes.

        65535 becomes a missing cell (NaN, None or pd.NA, as the dtype holds it).
        """
        codes = np.asarray(codes)
        data = {}
        for j, col in enumerate(self.columns):
            data[col.label] = decode_column(col, codes[:, j])
        frame = pd.DataFrame(data, index=index if index is not None else pd.RangeIndex(codes.shape[0]))
        frame.columns = pd.Index([c.label for c in self.columns])
        return frame

    def state_labels(self, v):
        """The values of the states of column v, in code order."""
        return list(self.columns[v].values)


def _kind(series, label):
    dtype = series.dtype
    if isinstance(dtype, pd.CategoricalDtype):
        return "category"
    if pd.api.types.is_bool_dtype(dtype):
        return "bool"
    if pd.api.types.is_integer_dtype(dtype):
        return "int"
    if isinstance(dtype, pd.StringDtype):
        return "string"
    if pd.api.types.is_float_dtype(dtype):
        raise TypeError(
            "column %r holds floating-point numbers (%s), and a qz table holds categories: "
            "bin it first, with the library's equal-frequency discretization "
            "(df[%r] = qz.discretize(df[%r], bins=5)) or pandas.cut, or make whole numbers "
            "with missing cells an integer column (astype('Int64'))" % (label, dtype, label, label)
        )
    if pd.api.types.is_object_dtype(dtype):
        return "object"
    raise TypeError(
        "column %r has the dtype %s, which qz cannot take as categories: use categorical, "
        "string, object, boolean or integer columns" % (label, dtype)
    )


def _check_names(label, names):
    seen = {}
    for name in names:
        if name in seen:
            raise QZError(
                "column %r holds two values with the same text %r: the model names states by their text" % (label, name)
            )
        seen[name] = True
        _check_name("column %r: the state name %r" % (label, name), name)


def _check_name(what, name):
    if "\0" in name:
        raise QZError("%s holds a NUL character, which model files cannot hold" % what)
    if len(name.encode("utf-8")) > MAX_NAME_BYTES:
        raise QZError("%s is longer than the %d bytes a model file holds" % (what, MAX_NAME_BYTES))


def check_columns(frame):
    """Check the labels of a DataFrame's columns: unique, also as text, and fit for a model file.

    Returns the vertex names (the labels' text).
    """
    labels = list(frame.columns)
    if len(labels) == 0:
        raise QZError("a table needs at least one column")
    dup = pd.Index(labels)[pd.Index(labels).duplicated()]
    if len(dup):
        raise QZError("the table has two columns named %r: the model names its variables by them" % (dup[0],))
    names = [str(label) for label in labels]
    if len(set(names)) != len(names):
        first = next(n for n in names if names.count(n) > 1)
        raise QZError("two columns have the name %r as text: the model names its variables by them" % first)
    for label, name in zip(labels, names):
        _check_name("the column name %r" % (label,), name)
    return names


def column_kinds(frame):
    """The kind of each column (see ColumnCoding), raising TypeError for a dtype qz cannot code."""
    return [_kind(frame.iloc[:, j], label) for j, label in enumerate(frame.columns)]


def _texts(series):
    """The text of each cell of a column (str), None where it is missing."""
    mask = series.isna().to_numpy()
    values = series.to_numpy(dtype=object)
    out = np.empty(len(values), dtype=object)
    out[~mask] = [str(v) for v in values[~mask]]
    return out


def _keys(series, kind):
    """What identifies a cell's state: its value, or for object columns its text.

    A state is its text, as in a text table: in an object column 1 and "1"
    are one state, True and 1 two. In the other kinds a value and its text
    go together, and the values are compared as they are, which is faster.
    """
    return _texts(series) if kind == "object" else series


def _first_values(values, codes, count):
    """For codes 0..count-1 of a factorization, the value of the first cell with that code."""
    found, first = np.unique(codes, return_index=True)
    keep = found >= 0
    return [values[i] for i in first[keep]][:count]


def distinct_values(frame, shared, kinds=None):
    """The distinct values of each column in order of first appearance (NaN and the like left out).

    With shared, one list for the whole table, met row by row. Values are
    told apart by their text (see _keys); for each state the value of its
    first cell is listed. This is what a part of a table contributes to the
    dictionary of the whole (see merge).
    """
    kinds = kinds or column_kinds(frame)
    if shared:
        texts = np.empty(frame.shape, dtype=object)
        for j in range(frame.shape[1]):
            texts[:, j] = _texts(frame.iloc[:, j])
        codes, uniques = pd.factorize(texts.ravel())
        values = frame.to_numpy(dtype=object).ravel()
        return [_first_values(values, codes, len(uniques))]
    out = []
    for j in range(frame.shape[1]):
        series = frame.iloc[:, j]
        codes, uniques = pd.factorize(_keys(series, kinds[j]))
        if kinds[j] == "object":
            out.append(_first_values(series.to_numpy(dtype=object), codes, len(uniques)))
        else:
            out.append(list(uniques))
    return out


def merge(parts, limit, labels):
    """Merge the distinct values of consecutive parts of a table into one dictionary per column.

    parts is a list, in table order, of the results of distinct_values. A
    value keeps its place of first appearance in the whole table; values
    with the same text are one state, as in distinct_values. Raises
    QZError for a column with more than limit states or with none. labels
    names the columns in messages (one label for a shared dictionary).
    """
    if not parts:
        raise QZError("the table has no parts")
    width = len(parts[0])
    merged = [[] for _ in range(width)]
    seen = [dict() for _ in range(width)]
    for part in parts:
        for j, values in enumerate(part):
            known = seen[j]
            for v in values:
                key = str(v)
                if key not in known:
                    known[key] = len(merged[j])
                    merged[j].append(v)
            if len(merged[j]) > limit:
                raise QZError(
                    "column %r has more than %d states, more than the index type (IDX) holds" % (labels[j], limit)
                )
    for j, values in enumerate(merged):
        if not values:
            raise QZError("column %r has no value in any row: a variable needs at least one state" % (labels[j],))
    return merged


def message_labels(frame, shared):
    """How merge names the columns of frame in its messages."""
    return ["all columns (one dictionary, YYC)"] if shared else list(frame.columns)


def coding_of(frame, dictionaries, kinds, shared):
    """The TableCoding of frame's columns with the given dictionaries (values in code order)."""
    columns = []
    for j, label in enumerate(frame.columns):
        values = dictionaries[0 if shared else j]
        names = [str(v) for v in values]
        _check_names(label, names)
        columns.append(ColumnCoding(label, str(label), kinds[j], frame.dtypes.iloc[j], values, names))
    return TableCoding(columns, frame.index, shared)


def encode(frame, coding, out=None):
    """The codes of frame's cells under coding: a C-ordered uint16 array, rows by columns.

    A cell's state is found by its text among the coding's names. A value
    that the coding does not know raises QZError naming its column: it is
    never taken for a missing cell.
    """
    rows, cols = frame.shape
    if out is None:
        out = np.empty((rows, cols), dtype=np.uint16)
    for j, col in enumerate(coding.columns):
        codes, uniques = pd.factorize(_keys(frame.iloc[:, j], col.kind))
        lookup = np.empty(len(uniques) + 1, dtype=np.int64)
        by_name = {name: k for k, name in enumerate(col.names)}
        for k, u in enumerate(uniques):
            code = by_name.get(str(u))
            if code is None:
                raise QZError("column %r holds %r, which is not one of its states %s" % (col.label, u, _short(col.names)))
            lookup[k] = code
        lookup[-1] = MISSING  # factorize's -1 for a missing cell
        out[:, j] = lookup[codes]
    return out


def _short(names, n=8):
    shown = ", ".join(repr(x) for x in names[:n])
    return "[%s%s]" % (shown, ", ..." if len(names) > n else "")


def code_frame(frame, shared, limit):
    """Code a whole DataFrame by first appearance: (TableCoding, uint16 codes)."""
    check_columns(frame)
    kinds = column_kinds(frame)
    dictionaries = merge([distinct_values(frame, shared, kinds)], limit, message_labels(frame, shared))
    coding = coding_of(frame, dictionaries, kinds, shared)
    return coding, encode(frame, coding)


def code_frame_for_model(frame, model_names, labels_of=None):
    """Code a DataFrame against the state names of a loaded model: (TableCoding, uint16 codes).

    model_names: per vertex (name, [state names]). The table must have one
    column per vertex; a value whose text is no state name of its vertex is
    a QZError.
    """
    names = check_columns(frame)
    kinds = column_kinds(frame)
    if len(model_names) != frame.shape[1]:
        raise QZError(
            "the table has %d columns, but the loaded model has %d variables (run 'DEL MPT;' to learn a new one)"
            % (frame.shape[1], len(model_names))
        )
    vertex_names = [v for v, _ in model_names]
    default = all(v == "X%d" % i for i, v in enumerate(vertex_names))
    if not default and names != vertex_names:
        raise QZError(
            "the table's columns %s are not the loaded model's variables %s in this order "
            "(reorder the columns, or run 'DEL MPT;' to learn a new model)" % (_short(names), _short(vertex_names))
        )
    columns = []
    for j, label in enumerate(frame.columns):
        states = model_names[j][1]
        seen = {str(u): u for u in distinct_values(frame.iloc[:, [j]], False, [kinds[j]])[0]}
        values = [seen[s] if s in seen else _value_of_name(s, kinds[j]) for s in states]
        columns.append(ColumnCoding(label, str(label), kinds[j], frame.dtypes.iloc[j], values, list(states)))
    coding = TableCoding(columns, frame.index, False)
    return coding, encode(frame, coding)


def _value_of_name(name, kind):
    """The value a state name stands for in a column of this kind, when the column did not hold it."""
    if kind == "int":
        try:
            return int(name)
        except ValueError:
            return name
    if kind == "bool" and name in ("True", "False"):
        return name == "True"
    return name


def decode_column(col, codes):
    """One column of codes back as a pandas array of the column's dtype (missing cells as NA)."""
    codes = np.asarray(codes, dtype=np.int64)
    missing = codes == MISSING
    safe = np.where(missing, 0, codes)
    if col.kind == "category":
        # The column's own categories, in their declared order, when they hold every state.
        cats = col.dtype.categories
        place = cats.get_indexer(pd.Index(col.values, dtype=object))
        if (place >= 0).all():
            return pd.Categorical.from_codes(np.where(missing, -1, place[safe]), dtype=col.dtype)
        return pd.Categorical.from_codes(np.where(missing, -1, codes), categories=pd.Index(col.values))
    values = np.empty(len(col.values), dtype=object)
    values[:] = col.values
    cells = values[safe]
    if col.kind in ("int", "bool"):
        nullable = pd.api.types.is_extension_array_dtype(col.dtype)
        if not missing.any() and not nullable and all(not isinstance(v, str) for v in col.values):
            return cells.astype(col.dtype)
        cells[missing] = pd.NA
        target = ("Int64" if col.kind == "int" else "boolean") if not nullable else col.dtype
        try:
            return pd.array(list(cells), dtype=target)
        except (TypeError, ValueError):
            return pd.array(list(cells), dtype=object)
    if col.kind == "string":
        cells[missing] = pd.NA
        return pd.array(list(cells), dtype=col.dtype)
    cells[missing] = None
    return cells


def labels_for(coding, model_names):
    """The state labels of each vertex of a model: the coding's values where the coding is the model's, else the names."""
    out = []
    for v, (name, states) in enumerate(model_names):
        col = coding.columns[v] if coding is not None and v < len(coding.columns) else None
        if col is not None and col.name == name and col.names == list(states):
            out.append(list(col.values))
        else:
            out.append(list(states))
    return out


def coding_for_model(coding, model_names):
    """coding with a fresh row index when its columns are the model's variables and states, else None."""
    if len(coding.columns) != len(model_names):
        return None
    for col, (name, states) in zip(coding.columns, model_names):
        if col.name != name or col.names != list(states):
            return None
    return TableCoding(coding.columns, None, coding.shared)


def frame_of_codes(codes, names, state_names, index=None):
    """A DataFrame of codes under plain names (a table with no pandas coding): strings, None for missing."""
    data = {}
    for j, name in enumerate(names):
        values = np.empty(len(state_names[j]) + 1, dtype=object)
        values[:-1] = state_names[j]
        values[-1] = None
        col = np.asarray(codes[:, j], dtype=np.int64)
        data[name] = values[np.where(col == MISSING, len(state_names[j]), col)]
    return pd.DataFrame(data, index=index)
