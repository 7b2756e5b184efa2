"""Contexts of the qz library: programs, typed registers, tables, models, marginals."""

import ctypes
import os
import signal
import sys
import threading
import warnings
import weakref
from typing import Any, Callable, List, Optional, Sequence, Union

import numpy as np

from . import _lib
from ._progress import TqdmProgress, tqdm_progress

from ._errors import ContextBusy, ContextWedged, QZError, QZWarning
# The names of the package's modules that users have imported from here.
from ._registers import (  # noqa: F401
    BOOL,
    CHAR,
    INTEGER,
    KIND_NAMES,
    MISSING,
    POINTER,
    REAL,
    STRING,
    _bits_of_double,
    _double_of_bits,
    _kind_number,
    _kinds,
    _pointer_value,
    _unsigned,
    registers,
)
from ._results import Marginals, Model, Statistics, Trace
from ._callbacks import _optimizer_trampoline, _progress_trampoline
from ._tables import _as_table, _check_table_shape, _pandas_available, _parse_max_marginals, _program_lines

_MSG_CAP = 4096


class Context:
    """One context of the library: a program, typed registers, and what it has loaded.

    A context holds at most one table (DPT), graph (GPT) and model (MPT), as
    the library's programs see them. Use it as a context manager, or call
    close(); it is also released when the object goes.

    Tables:
        ctx.load_table("data.csv")   a file, read by the library's readers
                                     (registers HED, MIS, YYC)
        ctx.load_table(df)           a pandas DataFrame: categorical, string,
                                     object, boolean and integer columns; each
                                     value a state named by its text, coded by
                                     first appearance; NaN/None/pd.NA missing
        ctx.load_table(codes)        a 2-D array of category codes
        ctx.table, ctx.coding        the codes in host memory, the DataFrame's coding

    Programs and registers:
        ctx.run("GRA CHOWLIU;\\nLDX GPT;\\nMODEL;\\nALG JT;\\nALG FL1;\\nESTIMATE;")
        ctx["MIO"] = 100; ctx["RES"]  registers by name, typed by their kind:
            REAL float, INTEGER int, BOOL bool, CHAR one character,
            STRING str (None when unset), POINTER int address (0 for null)

    Results (labelled with the table's column names and values):
        ctx.infer()                  Marginals: m["Class"] a Series by state
        ctx.predict()                the table with its missing cells completed
        ctx.sample(100)              rows drawn from the model
        ctx.model(), ctx.statistics()  layout, weights, names; sufficient statistics
        ctx.trace, ctx.traces        the objective of each ESTIMATE, per iteration
        ctx.save_model(path), ctx.load_model(path)

    Pictures: qz.plot.graph(ctx), qz.plot.marginals(ctx), qz.plot.objective(ctx).
    Tables larger than memory: qz.dask.load_statistics(ctx, ddf, graph="CHAIN").

    Failures: a run that fails raises QZError ("error at line N: MESSAGE")
    and leaves the context wedged: it can still be read, but every later run
    or write raises ContextWedged. Registers may be read from another thread
    while a run goes on; everything else then raises ContextBusy.
    """

    def __init__(self, seed: Optional[int] = None, progress: Any = "auto") -> None:
        """Create a context.

        seed: written to SEED when given, for reproducible draws (the library
            seeds from the clock otherwise).
        progress: "auto" draws tqdm bars when tqdm is importable and standard
            error is a terminal; True draws them whenever tqdm is importable;
            False or None reports nothing; a callable receives
            (done, total, label) for every report.
        """
        self._lib = _lib.load()
        self._kinds = _kinds()
        self._ctx = None
        self._keep = {}
        self._table = None
        self._coding = None
        self._traces = []
        self._failure = None
        self._progress = None
        self._progress_error = None
        self._callback = _progress_trampoline(weakref.ref(self))
        self._callback_address = ctypes.cast(self._callback, ctypes.c_void_p).value
        self._relay_address = ctypes.cast(self._lib.host.qzhost_progress, ctypes.c_void_p).value
        self._hook = _optimizer_trampoline(weakref.ref(self), self._lib.run_flag)
        self._hook_address = ctypes.cast(self._hook, ctypes.c_void_p).value
        handle = self._lib.qz.create_ctx()
        if not handle:
            raise MemoryError("the library could not create a context")
        self._ctx = handle
        self.progress = progress
        if seed is not None:
            self["SEED"] = seed

    # -- life cycle -------------------------------------------------------

    @property
    def handle(self) -> Optional[int]:
        """The library's context handle as an int (for other C hosts); None once closed."""
        return self._ctx

    @property
    def closed(self) -> bool:
        """True once close() has released the context."""
        return self._ctx is None

    @property
    def running(self) -> bool:
        """True while a run goes on (on any thread), and for ever after a failed run."""
        return bool(self._lib.host.qzhost_running(self._handle()))

    @property
    def wedged(self) -> bool:
        """True after a run of this context failed; it then only reads registers."""
        return self._failure is not None

    @property
    def failure(self) -> Optional["QZError"]:
        """The QZError of the run that wedged the context, or None."""
        return self._failure

    def close(self) -> None:
        """Release the context and everything it holds. Closing twice does nothing.

        Raises ContextBusy while a run goes on. A wedged context is released
        too, but the library then keeps what it had loaded.
        """
        if self._ctx is None:
            return
        if self._failure is None and self._lib.host.qzhost_running(self._ctx):
            raise ContextBusy("the context is running: it is closed when the run has ended")
        handle, self._ctx = self._ctx, None
        self._lib.qz.destroy_ctx(handle)
        self._keep.clear()
        self._table = None
        self._coding = None

    def __enter__(self) -> "Context":
        """Use the context in a with block; it is closed at the block's end."""
        return self

    def __exit__(self, *exc: Any) -> bool:
        """Close the context; exceptions of the block pass on."""
        self.close()
        return False

    def __del__(self):
        try:
            self.close()
        except Exception:
            pass

    def __repr__(self):
        state = "closed" if self.closed else ("wedged" if self.wedged else "open")
        return "<qz.Context %s>" % state

    def _handle(self):
        if self._ctx is None:
            raise ValueError("the context is closed")
        return self._ctx

    def _check_changeable(self):
        self._handle()
        if self._failure is not None:
            raise ContextWedged(self._failure)

    def _refused(self):
        if self._failure is not None:
            return ContextWedged(self._failure)
        return ContextBusy("the context is running on another thread")

    # -- registers --------------------------------------------------------

    @staticmethod
    def kind(name: str) -> str:
        """Return the kind of register name ("INTEGER", "REAL", ...); KeyError if there is none."""
        return KIND_NAMES[_kind_number(name)]

    def __getitem__(self, name: str) -> Any:
        """Read register name by its kind; see the class docstring. KeyError for an unknown name."""
        kind = _kind_number(name)
        bits = self._lib.qz.ctx_read_reg(self._handle(), name.encode("ascii"))
        if kind == REAL:
            return _double_of_bits(bits)
        if kind == BOOL:
            return bool(bits & 0xFF)
        if kind == CHAR:
            return chr(bits & 0xFF)
        if kind == STRING:
            if bits == 0:
                return None
            n = ctypes.c_size_t()
            data = self._lib.host.qzhost_string_data(bits, ctypes.byref(n))
            return ctypes.string_at(data, n.value).decode("utf-8", "surrogateescape")
        return bits

    def __setitem__(self, name: str, value: Any) -> None:
        """Write register name by its kind; see the class docstring.

        Raises KeyError for an unknown name, TypeError or ValueError for a value
        the kind cannot take, QZError when the library refuses the value (SEP
        '|'), ContextBusy during a run and ContextWedged after a failed one.
        A POINTER register takes an int, None, a numpy array or a ctypes
        object; the object is kept alive until the register is written again
        or the context is closed. A STRING register takes str, bytes, a path
        or None; the library owns the string it receives.
        """
        kind = _kind_number(name)
        self._check_changeable()
        keep = None
        owned = None
        if kind == REAL:
            bits = _bits_of_double(float(value))
        elif kind == BOOL:
            if isinstance(value, (bool, np.bool_)) or value in (0, 1):
                bits = 1 if value else 0
            else:
                raise TypeError("register %s takes a bool, not %r" % (name, value))
        elif kind == CHAR:
            if isinstance(value, bytes) and len(value) == 1:
                bits = value[0]
            elif isinstance(value, str) and len(value) == 1 and ord(value) < 256:
                bits = ord(value)
            else:
                raise TypeError("register %s takes one character, not %r" % (name, value))
        elif kind == STRING:
            if value is None:
                bits = 0
            else:
                raw = value if isinstance(value, bytes) else os.fsencode(value)
                owned = self._lib.host.qzhost_string_new(raw, len(raw))
                bits = owned
        elif kind == POINTER:
            bits, keep = _pointer_value(value, name)
        else:
            bits = _unsigned(value, name)
        # The old string of a STRING register is not freed: a program may
        # still hold it on its value stack.
        status, msg, etype = self._write_bits(name, bits)
        if status != 1:
            if owned is not None:
                self._lib.host.qzhost_string_free(owned)
            if status == 0:
                raise self._refused()
            raise QZError(msg, None, etype)
        if kind == POINTER:
            if keep is None:
                self._keep.pop(name, None)
            else:
                self._keep[name] = keep

    def _write_bits(self, name, bits):
        msg = ctypes.create_string_buffer(_MSG_CAP)
        etype = ctypes.create_string_buffer(256)
        status = self._lib.host.qzhost_write_reg(
            self._handle(), name.encode("ascii"), bits, msg, _MSG_CAP, etype, 256
        )
        return status, msg.value.decode("utf-8", "replace"), etype.value.decode("ascii", "replace")

    def __contains__(self, name: str) -> bool:
        """True if name is a register of the library."""
        return name in self._kinds

    def get(self, name: str, default: Any = None) -> Any:
        """Read register name, or return default if there is no such register."""
        return self[name] if name in self._kinds else default

    # -- progress ---------------------------------------------------------

    @property
    def progress(self) -> Optional[Callable[[int, int, str], Any]]:
        """The progress callback (done, total, label), or None. See __init__ for what it accepts."""
        return self._progress

    @progress.setter
    def progress(self, value: Any) -> None:
        if value == "auto":
            value = tqdm_progress(force=False)
        elif value is True:
            value = tqdm_progress(force=True)
        elif value is False:
            value = None
        if value is not None and not callable(value):
            raise TypeError("progress takes a callable, True, False, None or 'auto'")
        self._progress = value
        self._install_progress()

    def _install_progress(self):
        # CBP is the host helper's C function, which keeps the library's
        # warnings and forwards the other reports to Python only when a
        # callback is set (qzhost_set_forward, before each run): without one,
        # the library makes no calls into Python at all.
        status, msg, etype = self._write_bits("CBP", self._relay_address)
        if status == 0:
            raise self._refused()
        # The optimizer's hook records the objective of ESTIMATE (traces);
        # it costs one call per iteration. A host that writes CBO replaces it.
        status, msg, etype = self._write_bits("CBO", self._hook_address)
        if status == 0:
            raise self._refused()

    # -- the objective of ESTIMATE ------------------------------------------

    @property
    def traces(self) -> List[Trace]:
        """The Trace of every ESTIMATE this context ran, oldest first (see clear_traces)."""
        return list(self._traces)

    @property
    def trace(self) -> Optional[Trace]:
        """The Trace of the last ESTIMATE (objective and gradient norm per iteration), or None."""
        return self._traces[-1] if self._traces else None

    def clear_traces(self) -> None:
        """Forget the recorded traces."""
        self._traces = []

    # -- programs ---------------------------------------------------------

    def set_program(self, program: Union[str, Sequence[str]]) -> None:
        """Hand over a program (text with one instruction a line, or a list of lines); rewinds LNN to 0."""
        self._check_changeable()
        lines = [line.encode("utf-8") for line in _program_lines(program)]
        array = (ctypes.c_char_p * max(1, len(lines)))(*lines)
        if not self._lib.qz.ctx_set_code(self._handle(), array, len(lines)):
            raise self._refused()

    def run(self, program: Union[str, Sequence[str], None] = None) -> None:
        """Run program, or the program already set from the line in LNN when program is None.

        A failing program raises QZError with the library's message and the
        line (counted from 1) and wedges the context. Ctrl-C on the main
        thread asks the library to stop its long loops; the run then ends
        normally and KeyboardInterrupt is raised. An exception raised by the
        progress callback is raised after the run.
        """
        if program is not None:
            self.set_program(program)
        self._check_changeable()
        # Only the main thread's runs take over Ctrl-C: that is where Python
        # itself delivers KeyboardInterrupt, and an ignored SIGINT stays ignored.
        catch = threading.current_thread() is threading.main_thread() and signal.getsignal(
            signal.SIGINT
        ) not in (signal.SIG_IGN, None)
        msg = ctypes.create_string_buffer(_MSG_CAP)
        etype = ctypes.create_string_buffer(256)
        self._progress_error = None
        self._lib.host.qzhost_set_forward(self._callback_address if self._progress is not None else None)
        try:
            status = self._lib.host.qzhost_run(self._handle(), 1 if catch else 0, msg, _MSG_CAP, etype, 256)
        finally:
            self._lib.host.qzhost_set_forward(None)
            if isinstance(self._progress, TqdmProgress):
                self._progress.close()
            self._warn_from_run()
        interrupted = catch and not self._lib.run_flag.value
        if interrupted:
            # The library never sets the flag back; an interactive session goes
            # on after the interrupt, and its next run must not stop at once.
            self._lib.run_flag.value = True
        if status == 0:
            raise self._refused()
        if status < 0:
            line = self._lib.qz.ctx_read_reg(self._ctx, b"LNN") + 1
            self._failure = QZError(msg.value.decode("utf-8", "replace"), line, etype.value.decode("ascii", "replace"))
            raise self._failure
        error, self._progress_error = self._progress_error, None
        if error is not None:
            raise error
        if interrupted:
            raise KeyboardInterrupt

    def _warn_from_run(self):
        # The warnings the library gave during the run on this thread, each
        # as a QZWarning naming its program line.
        size = self._lib.host.qzhost_take_warnings(None, 0)
        if size == 0:
            return
        buf = ctypes.create_string_buffer(size + 1)
        self._lib.host.qzhost_take_warnings(buf, size + 1)
        for row in buf.value.decode("utf-8", "replace").splitlines():
            line, _, text = row.partition("\t")
            warnings.warn(QZWarning("line %s: %s" % (line, text)), stacklevel=3)

    def reset(self) -> None:
        """Release the context's table, graph, model and strings and restore all register defaults.

        The program stays and runs again from its first line; the progress
        callback is installed again.
        """
        self._check_changeable()
        msg = ctypes.create_string_buffer(_MSG_CAP)
        etype = ctypes.create_string_buffer(256)
        status = self._lib.host.qzhost_reset(self._handle(), msg, _MSG_CAP, etype, 256)
        if status == 0:
            raise self._refused()
        if status < 0:
            raise QZError(msg.value.decode("utf-8", "replace"), None, etype.value.decode("ascii", "replace"))
        self._keep.clear()
        self._table = None
        self._coding = None
        self._install_progress()

    # -- tables ---------------------------------------------------------------

    @property
    def table(self) -> Optional[np.ndarray]:
        """The uint16 codes of the table that load_table loaded from an array or a DataFrame, else None.

        The library reads and writes these cells in place: MODEL writes its
        draws for missing cells into them, PREDICT and SAMPLE their results.
        65535 marks a missing cell.
        """
        return self._table

    @property
    def coding(self) -> Any:
        """How the DataFrame of the last load_table was coded (a TableCoding), or None.

        coding.columns[j].values are the values of the states of column j in
        code order, coding.columns[j].names their names in the model, and
        coding.frame(codes) turns codes back into a DataFrame.
        """
        return self._coding

    def load_table(self, source: Any) -> int:
        """Load a table into DPT from a file, a pandas DataFrame or a 2-D array; return the number of rows.

        source:
            a path of a CSV or binary table file, read by the library's
            readers with HED, MIS and the other registers as they stand (a
            CSV file has a header line when HED is true and then one line
            that the reader drops);
            a pandas DataFrame: categorical, object, string, boolean and
            integer columns. Each distinct value of a column is a state, named
            by its text (str) and coded in the order of first appearance, as
            the library's reader codes the same values written as text (with
            YYC true, one dictionary for all columns, met row by row). NaN,
            None, pd.NA and NaT are missing cells. The column names become
            the vertex names of the model and its exports. With a model
            loaded, the values are coded by that model's state names instead
            (a value it has no state for is an error), as the library codes
            a file read against a model. Floating-point columns are refused
            with TypeError (bin them with qz.discretize or pandas.cut); a
            column with more states than IDX's index type holds, or with no
            value, duplicate column names and names that a model file cannot
            hold are refused with QZError, before anything runs;
            an array of category codes, rows by columns. Missing cells of an
            array are 65535, negative numbers, NaN or masked cells. A
            C-contiguous writable uint16 array is used in place, without a
            copy; any other array is converted into a new one.

        A DataFrame or array stays in host memory (see the table property),
        where MODEL's draws for missing cells and PREDICT's results appear.
        Replaces the earlier table; a file or array is loaded by the program
        "DEL DPT;" and "LDX DPT;" (writing DFN or EDP, NXX and GPX), a
        DataFrame by "DEL DPT;" and a table with names written into DPT.
        """
        self._check_changeable()
        if "pandas" in sys.modules and isinstance(source, sys.modules["pandas"].DataFrame):
            return self._load_frame(source)
        if isinstance(source, (str, bytes, os.PathLike)):
            path = os.fsdecode(source)
            if not os.path.isfile(path):
                raise FileNotFoundError("no table file %s" % path)
            self["EDP"] = None
            _check_table_shape(path, bool(self["HED"]))
            self["DFN"] = path
            self.run("DEL DPT;\nLDX DPT;")
            self._table = None
            self._coding = None
            return self["NXX"]
        array, _ = _as_table(source)
        self["EDP"] = array
        self["NXX"] = array.shape[0]
        self["GPX"] = array.nbytes
        try:
            self.run("DEL DPT;\nLDX DPT;")
        finally:
            if not self.wedged:
                # A later LDX DPT of a file must not find the array in EDP.
                self["EDP"] = None
        self._table = array
        self._coding = None
        return self["NXX"]

    def _load_frame(self, frame):
        from . import _frame

        names = None
        if self["MPT"]:
            try:
                names = self._model_names()
            except QZError:  # a container with no graph, or under another IDX and VAL: nothing to code by
                names = None
        if names is not None:
            coding, codes = _frame.code_frame_for_model(frame, names)
        else:
            coding, codes = _frame.code_frame(frame, bool(self["YYC"]), _frame.max_states(self["IDX"]))
        self._install_table(codes, coding)
        return self["NXX"]

    def _install_table(self, codes, coding):
        """Make DPT a table over codes (rows by columns, uint16, C order) with coding's names."""
        rows, cols = codes.shape
        shared = bool(coding.shared)
        lists = [coding.columns[0].names] if shared else [c.names for c in coding.columns]
        columns = (ctypes.c_char_p * max(1, cols))(*[c.name.encode("utf-8") for c in coding.columns])
        counts = (ctypes.c_size_t * max(1, cols))(*[len(c.names) for c in coding.columns])
        flat = [n.encode("utf-8") for names in lists for n in names]
        names = (ctypes.c_char_p * max(1, len(flat)))(*flat)
        self.run("DEL DPT;")
        table = self._new_table(codes, columns, counts, names, shared)
        try:
            self["DPT"] = table
            self["NXX"] = rows
        except BaseException:
            self._lib.host.qzhost_table_free(table)
            raise
        self._table = codes
        self._coding = coding

    def _new_table(self, codes, columns, counts, names, shared):
        rows, cols = codes.shape
        table = self._lib.host.qzhost_table_new(
            codes.ctypes.data_as(_lib._u16_p),
            rows,
            cols,
            columns,
            counts,
            names,
            1 if shared else 0,
            self["MIS"].encode("latin-1"),
        )
        if not table:
            raise MemoryError("the library could not make a table of %d rows and %d columns" % (rows, cols))
        return table

    @staticmethod
    def _name_arrays(model_names):
        cols = len(model_names)
        columns = (ctypes.c_char_p * max(1, cols))(*[v.encode("utf-8") for v, _ in model_names])
        counts = (ctypes.c_size_t * max(1, cols))(*[len(states) for _, states in model_names])
        flat = [x.encode("utf-8") for _, states in model_names for x in states]
        return columns, counts, (ctypes.c_char_p * max(1, len(flat)))(*flat)

    # -- models -----------------------------------------------------------------

    def save_model(self, path: Union[str, os.PathLike], overwrite: bool = True) -> None:
        """Store the loaded model in a model file (writes MFN, runs "STORE MPT;").

        With overwrite False an existing file raises FileExistsError. OVW is
        left as it was.
        """
        self._check_changeable()
        path = os.fsdecode(path)
        if not self["MPT"]:
            raise QZError("no model loaded")
        if not overwrite and os.path.exists(path):
            raise FileExistsError("model file %s exists" % path)
        self["MFN"] = path
        self._run_with("STORE MPT;", {"OVW": True})

    def _run_with(self, program, registers):
        """Run program with registers written for the run only: they are restored unless it failed."""
        old = {name: self[name] for name in registers}
        for name, value in registers.items():
            self[name] = value
        try:
            self.run(program)
        finally:
            if not self.wedged:
                for name, value in old.items():
                    self[name] = value

    def load_model(self, path: Union[str, os.PathLike]) -> None:
        """Load a model file into MPT and its graph into GPT, replacing both.

        IDX and VAL are set from the type codes at the start of the file, so
        that the instantiation that wrote the model reads it.
        """
        self._check_changeable()
        path = os.fsdecode(path)
        with open(path, "rb") as f:
            head = f.read(2)
        if len(head) < 2 or head[0] > 3 or head[1] > 5 or (head[1] < 4 and head[1] != head[0]):
            raise ValueError("%s is no model file of this library" % path)
        self.run("DEL MPT;\nDEL GPT;")
        self["IDX"] = head[0]
        self["VAL"] = head[1]
        self["MFN"] = path
        self.run("LDX MPT;")

    def _layout(self):
        """(states, edges, weights) of the loaded model, as model() returns them."""
        self._check_changeable()
        n, m, dim = ctypes.c_size_t(), ctypes.c_size_t(), ctypes.c_size_t()
        layout = self._lib.host.qzhost_model_layout
        if not layout(self._ctx, ctypes.byref(n), ctypes.byref(m), ctypes.byref(dim), None, None, None):
            if self.running and not self.wedged:
                raise ContextBusy("the context is running on another thread")
            raise QZError("no model loaded")
        states = np.zeros(n.value, dtype=np.uintp)
        edges = np.zeros((m.value, 2), dtype=np.uintp)
        weights = np.zeros(dim.value, dtype=np.float64)
        ok = layout(
            self._ctx,
            ctypes.byref(n),
            ctypes.byref(m),
            ctypes.byref(dim),
            states.ctypes.data_as(_lib._size_p),
            edges.ctypes.data_as(_lib._size_p),
            weights.ctypes.data_as(_lib._double_p),
        )
        if not ok:
            raise QZError("no model loaded")
        return states.astype(np.int64), edges.astype(np.int64), weights

    def _model_names(self, states=None):
        """Per vertex (name, [state names]) of the loaded model; None if it has no names."""
        if states is None:
            states = self._layout()[0]
        names = self._lib.host.qzhost_model_names
        size = names(self._handle(), None, 0)
        if size == 0:
            return None
        buf = ctypes.create_string_buffer(size)
        names(self._ctx, buf, size)
        parts = [p.decode("utf-8", "surrogateescape") for p in buf.raw[:size].split(b"\0")[:-1]]
        out, pos = [], 0
        for y in states:
            y = int(y)
            out.append((parts[pos], parts[pos + 1 : pos + 1 + y]))
            pos += 1 + y
        return out

    def _labels(self, states):
        """(vertex names, state labels) of the loaded model, or (None, None)."""
        names = self._model_names(states)
        if names is None:
            return None, None
        if self._coding is not None:
            from . import _frame

            labels = _frame.labels_for(self._coding, names)
        else:
            labels = [list(x) for _, x in names]
        return [v for v, _ in names], labels

    def model(self) -> Model:
        """Return the loaded model's layout, a copy of its weights, and its names as a Model."""
        # A failed run may have left the container's weights decoded.
        states, edges, weights = self._layout()
        names, labels = self._labels(states)
        return Model(states, edges, weights, names, labels)

    def statistics(self) -> Statistics:
        """Return the sufficient statistics of the loaded model (see Statistics) as whole numbers.

        Raises QZError for a model whose statistics are laid out for the
        clique search (GRA CLIQUES), whose subsets are no vertices and edges.
        """
        self._check_changeable()
        sdim, rows = ctypes.c_size_t(), ctypes.c_size_t()
        read = self._lib.host.qzhost_model_statistics
        status = read(self._ctx, ctypes.byref(sdim), ctypes.byref(rows), None)
        if status == 0:
            if self.running:
                raise ContextBusy("the context is running on another thread")
            raise QZError("no model loaded")
        if status < 0:
            raise QZError("the model's statistics are not laid out by vertices and edges (a clique search's)")
        counts = np.zeros(sdim.value, dtype=np.uint64)
        read(self._ctx, ctypes.byref(sdim), ctypes.byref(rows), counts.ctypes.data_as(_lib._u64_p))
        return Statistics(counts, int(rows.value))

    def _set_statistics(self, counts, rows):
        """Replace the statistics of the loaded model by counts (uint64) counted from rows rows."""
        self._check_changeable()
        # The library reads whole 64-bit words: an array unpickled from a buffer may sit at any offset.
        counts = np.require(counts, dtype=np.uint64, requirements=["C", "A"])
        status = self._lib.host.qzhost_set_statistics(self._ctx, counts.ctypes.data_as(_lib._u64_p), counts.size, rows)
        if status == 0:
            raise self._refused() if self.running else QZError("no model loaded")
        if status < 0:
            raise QZError("%d counts do not fit the model's statistics" % counts.size)

    def _learn_structure(self, kind):
        """Run the library's structure learner of GRA value kind (CHOWLIU, ELEMGM) on the model's counts."""
        self._check_changeable()
        msg = ctypes.create_string_buffer(_MSG_CAP)
        etype = ctypes.create_string_buffer(256)
        status = self._lib.host.qzhost_learn_structure(self._ctx, kind, msg, _MSG_CAP, etype, 256)
        if status == 0:
            raise self._refused() if self.running else QZError("no model loaded")
        if status < 0:
            raise QZError(msg.value.decode("utf-8", "replace"), None, etype.value.decode("ascii", "replace"))

    # -- queries ----------------------------------------------------------------

    def infer(self, unconditional: bool = False) -> Marginals:
        """Run INFER and return its Marginals (vertex and edge marginals, log Z, names and labels).

        The first row of a loaded table gives the observations (missing cells
        are unobserved); with no table, or with unconditional true (the table
        is set aside for the run), the marginals are unconditional. SLW true
        enumerates all joint states instead of running the engine.
        """
        self._check_changeable()
        if not self["GPT"]:
            raise QZError("no graph loaded")
        if not self["MPT"]:
            raise QZError("no model loaded")
        # Writing a pointer register frees nothing: the table comes back after the run.
        self._run_with("INFER;", {"DPT": 0} if unconditional else {})
        states, edges, _ = self._layout()
        size = int(states.sum()) + sum(int(states[s]) * int(states[t]) for s, t in edges)
        address = self["PPT"]
        if not address:
            raise QZError("INFER published no marginals: IDX and VAL name no instantiation")
        flat = np.ctypeslib.as_array((ctypes.c_double * size).from_address(address)).copy()
        names, labels = self._labels(states)
        return Marginals(flat, states, edges, self["LNZ"], names, labels)

    def predict(self, probabilities: bool = False) -> Any:
        """Complete the missing cells of the loaded table with the model's most probable states.

        Runs PREDICT with PPX true. Each missing cell gets the state of largest
        max-marginal that PREDICT publishes for it (in a floating-point model
        the library itself leaves state 0 in such a cell; in an integer model
        its cell is taken as it is). The engine of INF conditions on the
        row's present cells; the junction tree (ALG JT) does not, and a
        warning says so. The table must be in host memory (loaded
        from a DataFrame or an array); it keeps its missing cells, so that
        predict may be asked again.

        Returns a DataFrame with the original index, column labels, values
        and dtypes when the table came from a DataFrame, else the completed
        uint16 codes. With probabilities true, returns (completed, p), p of
        the same shape holding the max-marginal of each predicted cell and
        NaN where the cell was observed.
        """
        self._check_changeable()
        if self._table is None:
            raise QZError("predict() completes a table in host memory: load it from a DataFrame or an array")
        if not self["MPT"]:
            raise QZError("no model loaded")
        codes = self._table
        missing = codes == MISSING
        if missing.any() and self["INF"] == 1 and self["VAL"] >= 4:
            warnings.warn(
                "the junction tree (ALG JT) ignores the observed cells of a row, so that PREDICT gives "
                "every row the unconditional states: use ALG LBP for predictions",
                RuntimeWarning,
                stacklevel=2,
            )
        self._run_with("PREDICT;", {"PPX": True})
        states = self._layout()[0]
        names = self._model_names(states)
        integer = self["VAL"] < 4
        done = codes.copy()
        prob = np.full(codes.shape, np.nan)
        for r, c in zip(*np.nonzero(missing)):
            if c >= len(states):
                continue
            text = self._cell_text(r, c)
            state_names = names[c][1] if names is not None else [str(x) for x in range(int(states[c]))]
            p = _parse_max_marginals(text, state_names) if text is not None else None
            if p is None:
                done[r, c] = MISSING  # a row the run did not reach (interrupted)
                continue
            k = int(done[r, c]) if integer else int(np.argmax(p))
            done[r, c] = k
            prob[r, c] = p[k]
        codes[missing] = MISSING
        result = self._frame_or_codes(done)
        if probabilities:
            if self._coding is not None:
                import pandas as pd

                prob = pd.DataFrame(prob, index=self._coding.index, columns=[c.label for c in self._coding.columns])
            return result, prob
        return result

    def _cell_text(self, row, col):
        text = self._lib.host.qzhost_table_text
        buf = ctypes.create_string_buffer(256)
        n = text(self._ctx, int(row), int(col), buf, 256)
        if n < 0:
            return None
        if n >= 256:
            buf = ctypes.create_string_buffer(n + 1)
            text(self._ctx, int(row), int(col), buf, n + 1)
        return buf.raw[:n].decode("utf-8", "surrogateescape")

    def _frame_or_codes(self, codes, coding=None):
        coding = coding if coding is not None else self._coding
        if coding is None:
            return codes
        index = coding.index if len(coding.index) == codes.shape[0] else None
        return coding.frame(codes, index)

    def sample(self, n: Optional[int] = None, given: Any = None) -> Any:
        """Draw rows from the loaded model with SAMPLE and return them labelled.

        n: the number of rows, all cells unobserved (default GNU).
        given: instead, a DataFrame (or array of codes) whose present cells
            each drawn row keeps; its missing cells are drawn.

        The loaded table stays as it was: the rows are drawn into a table of
        their own. PAM chooses the sampler (0.0 Gibbs, else perturb-and-MAP
        with that noise scale), SEED makes the draws reproducible. The
        library draws unobserved cells in integer models (VAL UINT8 to
        UINT64) only: in a floating-point model they come back as the first
        state, and a warning says so. Returns a DataFrame with the model's
        names and labels (pandas needed), or codes without pandas.
        """
        self._check_changeable()
        if not self["MPT"]:
            raise QZError("no model loaded")
        states = self._layout()[0]
        names = self._model_names(states)
        if names is None:
            names = [("X%d" % v, [str(x) for x in range(int(y))]) for v, y in enumerate(states)]
        coding = None
        if given is not None:
            if "pandas" in sys.modules and isinstance(given, sys.modules["pandas"].DataFrame):
                from . import _frame

                coding, codes = _frame.code_frame_for_model(given, names)
            else:
                codes = np.array(_as_table(given)[0], copy=True)
        else:
            rows = int(self["GNU"] if n is None else n)
            if rows < 0:
                raise ValueError("n is a number of rows, not %d" % rows)
            codes = np.full((rows, len(states)), MISSING, dtype=np.uint16)
        if codes.shape[1] != len(states):
            raise QZError("the rows have %d columns, but the model has %d variables" % (codes.shape[1], len(states)))
        unobserved = bool((codes == MISSING).any())
        columns, counts, flat = self._name_arrays(names)
        table = self._new_table(codes, columns, counts, flat, False)
        kept = self["DPT"]
        try:
            self["DPT"] = table
        except BaseException:
            self._lib.host.qzhost_table_free(table)
            raise
        try:
            self.run("SAMPLE;")
        finally:
            if not self.wedged:
                self.run("DEL DPT;")
                self["DPT"] = kept
        if unobserved and self["VAL"] >= 4:
            warnings.warn(
                "SAMPLE draws unobserved cells in integer models only (VAL UINT8 to UINT64): "
                "in this floating-point model they hold the first state",
                RuntimeWarning,
                stacklevel=2,
            )
        if coding is None and self._coding is not None:
            from . import _frame

            coding = _frame.coding_for_model(self._coding, names)
        if coding is not None:
            return coding.frame(codes, coding.index)
        if _pandas_available():
            from . import _frame

            return _frame.frame_of_codes(codes, [v for v, _ in names], [x for _, x in names])
        return codes
