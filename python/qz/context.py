"""Contexts of the qz library: programs, typed registers, tables, models, marginals."""

import ctypes
import os
import signal
import struct
import threading
import weakref

import numpy as np

from . import _lib
from ._progress import TqdmProgress, tqdm_progress

# Register kinds, in the numbering of the library's register table.
INTEGER, REAL, STRING, BOOL, POINTER, CHAR = range(6)
KIND_NAMES = ("INTEGER", "REAL", "STRING", "BOOL", "POINTER", "CHAR")

# The category code of a missing cell in a table.
MISSING = 65535

_MSG_CAP = 4096


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


class QZError(RuntimeError):
    """A failure reported by the library.

    str() of a failed run reads "error at line N: MESSAGE", as qzrun prints it,
    with N counted from 1. The parts are in the attributes message (the
    library's own text), line (None for failures outside a run) and
    error_type (the C++ exception type, such as "std::logic_error").
    """

    def __init__(self, message, line=None, error_type=""):
        """Make the error of a library message, with the program line it came from."""
        self.message = message
        self.line = line
        self.error_type = error_type
        text = message if line is None else "error at line %d: %s" % (line, message)
        super().__init__(text)


class ContextWedged(QZError):
    """Raised by every call that would change a context after one of its runs failed.

    The library leaves such a context readable but refuses everything else for
    ever. The failure that wedged it is in the attribute failure.
    """

    def __init__(self, failure):
        """Make the error for a context wedged by the QZError failure."""
        self.failure = failure
        QZError.__init__(
            self,
            "the context is wedged by the failed run (%s): it can only be read and closed; make a new Context"
            % failure,
            None,
            failure.error_type,
        )


class ContextBusy(RuntimeError):
    """Raised when a context is asked to change while it runs on another thread."""


class Marginals:
    """The result of INFER: vertex and edge marginals and the log partition function.

    Attributes:
        array: the flat array that INFER publishes, copied: all vertex
            marginals vertex by vertex, then all edge marginals in the layout
            of the weights.
        vertex: one array per vertex, its state probabilities (views of array).
        edge: one 2-D array per edge (s, t), indexed [state of s, state of t].
        edges: the edges as an (m, 2) array of end vertices, in the graph's order.
        states: the number of states of each vertex.
        log_z: the log partition function (natural logarithm) of the run.
    """

    def __init__(self, array, states, edges, log_z):
        """Cut the flat INFER array into vertex and edge tables."""
        self.array = array
        self.states = states
        self.edges = edges
        self.log_z = log_z
        self.vertex = []
        pos = 0
        for y in states:
            self.vertex.append(array[pos : pos + y])
            pos += y
        self.edge = []
        for s, t in edges:
            size = states[s] * states[t]
            self.edge.append(array[pos : pos + size].reshape(states[s], states[t]))
            pos += size

    def __repr__(self):
        return "Marginals(%d vertices, %d edges, log_z=%r)" % (len(self.vertex), len(self.edge), self.log_z)


class Model:
    """The layout and weights of the model loaded in a context.

    Attributes:
        states: the number of states of each vertex.
        edges: the edges as an (m, 2) array, in the order of the weight blocks.
        weights: a copy of the weights as doubles; edge e = (s, t) holds a
            states[s] by states[t] block, the state of s the slow index.
    """

    def __init__(self, states, edges, weights):
        """Hold the layout and a copy of the weights."""
        self.states = states
        self.edges = edges
        self.weights = weights

    def edge_weights(self, e):
        """Return the weights of edge e as a states[s] by states[t] array (a view)."""
        offsets = np.concatenate(([0], np.cumsum([self.states[s] * self.states[t] for s, t in self.edges])))
        s, t = self.edges[e]
        return self.weights[offsets[e] : offsets[e + 1]].reshape(self.states[s], self.states[t])


def registers():
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


def _progress_trampoline(ref):
    # The callback holds the context weakly: a strong reference would make a
    # cycle, and the context would only be released by the garbage collector
    # instead of when its last reference goes.
    def report(done, total, text):
        ctx = ref()
        if ctx is None or ctx._progress is None:
            return
        try:
            ctx._progress(int(done), int(total), text.decode("utf-8", "replace") if text else "")
        except BaseException as e:  # reported after the run; an exception cannot cross the library
            if ctx._progress_error is None:
                ctx._progress_error = e

    return _lib.PROGRESS_CALLBACK(report)


class Context:
    """One context of the library: registers, a program, and what it has loaded.

    Use it as a context manager, or call close(); it is also released when the
    object goes. Registers read and write by name with their kinds:

        ctx["LAM"] = 0.5          # REAL: float
        ctx["MIO"] = 100          # INTEGER: int
        ctx["HED"] = False        # BOOL: bool
        ctx["SEP"] = ";"          # CHAR: one character
        ctx["DFN"] = "data.csv"   # STRING: str (None for unset)
        ctx["EDP"]                # POINTER: int, the address (0 for null)

    A run that fails raises QZError ("error at line N: MESSAGE") and leaves the
    context wedged: it can still be read, but every later run or write raises
    ContextWedged. Registers may be read from another thread while a run goes
    on; everything else then raises ContextBusy.
    """

    def __init__(self, seed=None, progress="auto"):
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
        self._failure = None
        self._progress = None
        self._progress_error = None
        self._callback = _progress_trampoline(weakref.ref(self))
        self._callback_address = ctypes.cast(self._callback, ctypes.c_void_p).value
        handle = self._lib.qz.create_ctx()
        if not handle:
            raise MemoryError("the library could not create a context")
        self._ctx = handle
        self.progress = progress
        if seed is not None:
            self["SEED"] = seed

    # -- life cycle -------------------------------------------------------

    @property
    def handle(self):
        """The library's context handle as an int (for other C hosts); None once closed."""
        return self._ctx

    @property
    def closed(self):
        """True once close() has released the context."""
        return self._ctx is None

    @property
    def running(self):
        """True while a run goes on (on any thread), and for ever after a failed run."""
        return bool(self._lib.host.qzhost_running(self._handle()))

    @property
    def wedged(self):
        """True after a run of this context failed; it then only reads registers."""
        return self._failure is not None

    @property
    def failure(self):
        """The QZError of the run that wedged the context, or None."""
        return self._failure

    def close(self):
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

    def __enter__(self):
        """Use the context in a with block; it is closed at the block's end."""
        return self

    def __exit__(self, *exc):
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
    def kind(name):
        """Return the kind of register name ("INTEGER", "REAL", ...); KeyError if there is none."""
        return KIND_NAMES[_kind_number(name)]

    def __getitem__(self, name):
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

    def __setitem__(self, name, value):
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

    def __contains__(self, name):
        """True if name is a register of the library."""
        return name in self._kinds

    def get(self, name, default=None):
        """Read register name, or return default if there is no such register."""
        return self[name] if name in self._kinds else default

    # -- progress ---------------------------------------------------------

    @property
    def progress(self):
        """The progress callback (done, total, label), or None. See __init__ for what it accepts."""
        return self._progress

    @progress.setter
    def progress(self, value):
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
        # Without a callback CBP stays null, so that the library makes no
        # calls into Python at all.
        address = self._callback_address if self._progress is not None else 0
        status, msg, etype = self._write_bits("CBP", address)
        if status == 0:
            raise self._refused()

    # -- programs ---------------------------------------------------------

    def set_program(self, program):
        """Hand over a program (text with one instruction a line, or a list of lines); rewinds LNN to 0."""
        self._check_changeable()
        lines = [line.encode("utf-8") for line in _program_lines(program)]
        array = (ctypes.c_char_p * max(1, len(lines)))(*lines)
        if not self._lib.qz.ctx_set_code(self._handle(), array, len(lines)):
            raise self._refused()

    def run(self, program=None):
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
        try:
            status = self._lib.host.qzhost_run(self._handle(), 1 if catch else 0, msg, _MSG_CAP, etype, 256)
        finally:
            if isinstance(self._progress, TqdmProgress):
                self._progress.close()
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

    def reset(self):
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
        self._install_progress()

    # -- tables, models, marginals ----------------------------------------

    @property
    def table(self):
        """The uint16 array behind the table that load_table loaded from an array, else None.

        MODEL writes its draws for missing cells into it, PREDICT its predictions.
        """
        return self._table

    def load_table(self, source):
        """Load a table into DPT from a file or from a 2-D array; return the number of rows.

        source: a path of a CSV or binary table file (read by the library's
            readers with HED, MIS and the other registers as they stand; a CSV
            file has a header line when HED is true and then one line that
            the reader drops), or an array of category codes, rows by columns.
            Missing cells of an array are 65535, negative numbers, NaN or
            masked cells. A C-contiguous writable uint16 array is used in
            place, without a copy, so that MODEL's draws and PREDICT's results
            appear in it; any other array is converted into a new one (see
            the table property).

        Writes DFN or EDP, NXX and GPX, replaces the earlier table, and runs
        "DEL DPT;" and "LDX DPT;" as the context's program.
        """
        self._check_changeable()
        if isinstance(source, (str, bytes, os.PathLike)):
            path = os.fsdecode(source)
            if not os.path.isfile(path):
                raise FileNotFoundError("no table file %s" % path)
            self["EDP"] = None
            _check_table_shape(path, bool(self["HED"]))
            self["DFN"] = path
            self.run("DEL DPT;\nLDX DPT;")
            self._table = None
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
        return self["NXX"]

    def save_model(self, path, overwrite=True):
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
        old = self["OVW"]
        self["MFN"] = path
        self["OVW"] = True
        try:
            self.run("STORE MPT;")
        finally:
            if not self.wedged:
                self["OVW"] = old

    def load_model(self, path):
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

    def model(self):
        """Return the loaded model's layout and a copy of its weights as a Model."""
        # A failed run may have left the container's weights decoded.
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
        return Model(states.astype(np.int64), edges.astype(np.int64), weights)

    def infer(self):
        """Run INFER and return its Marginals (vertex and edge marginals, log Z).

        The first row of a loaded table gives the observations (missing cells
        are unobserved); with no table the marginals are unconditional. SLW
        true enumerates all joint states instead of running the engine.
        """
        self._check_changeable()
        if not self["GPT"]:
            raise QZError("no graph loaded")
        if not self["MPT"]:
            raise QZError("no model loaded")
        self.run("INFER;")
        model = self.model()
        states, edges = model.states, model.edges
        size = int(states.sum()) + len(model.weights)
        address = self["PPT"]
        if not address:
            raise QZError("INFER published no marginals: IDX and VAL name no instantiation")
        flat = np.ctypeslib.as_array((ctypes.c_double * size).from_address(address)).copy()
        return Marginals(flat, states, edges, self["LNZ"])


def _kind_number(name):
    if not isinstance(name, str):
        raise TypeError("register names are strings, not %s" % type(name).__name__)
    try:
        return _kinds()[name]
    except KeyError:
        raise KeyError("no register named %r" % name) from None
