"""The C callbacks that a context installs: progress reports and the optimizer's hook."""

import ctypes

from . import _lib
from ._results import Trace


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


_INDEX_C = {0: ctypes.c_uint8, 1: ctypes.c_uint16, 2: ctypes.c_uint32, 3: ctypes.c_uint64}
_VALUE_C = {
    0: ctypes.c_uint8,
    1: ctypes.c_uint16,
    2: ctypes.c_uint32,
    3: ctypes.c_uint64,
    4: ctypes.c_float,
    5: ctypes.c_double,
}
_opt_state_types = {}


def _opt_state_type(itype, vtype):
    """The ctypes layout of the optimizer's state record for one instantiation (None for another pair)."""
    key = (itype, vtype)
    if key not in _opt_state_types:
        if itype not in _INDEX_C or vtype not in _VALUE_C:
            return None
        I, V, P = _INDEX_C[itype], _VALUE_C[vtype], ctypes.c_void_p
        fields = [("itype", ctypes.c_uint8), ("vtype", ctypes.c_uint8)]
        fields += [(f, V) for f in ("fval", "norm", "stp", "stp_min", "lam1", "lam2")]
        fields += [(f, I) for f in ("iter", "maxIter", "dim")]
        fields += [("weights", P), ("gradient", P), ("extra", P), ("integer", ctypes.c_bool)]
        fields += [("best_fval", V), ("best_norm", V), ("best_weights", P), ("val_bytes", I), ("payload", P)]
        fields += [("converged", ctypes.c_bool)]
        _opt_state_types[key] = type("OptState", (ctypes.Structure,), {"_fields_": fields})
    return _opt_state_types[key]


def _optimizer_trampoline(ref, run_flag):
    # Records the objective of each iteration of ESTIMATE. The optimizer
    # calls its hook after every iteration and once more after the loop with
    # the last iteration's values; that last call (the loop ended by the
    # limit, by convergence or by an interrupt) adds nothing new.
    def hook(address):
        ctx = ref()
        if ctx is None or not address:
            return
        try:
            head = (ctypes.c_uint8 * 2).from_address(address)
            layout = _opt_state_type(head[0], head[1])
            if layout is None:
                return
            o = layout.from_address(address)
            if o.converged or o.iter >= o.maxIter or not run_flag.value:
                return
            if o.iter == 0 or not ctx._traces:
                ctx._traces.append(Trace())
            ctx._traces[-1]._add(int(o.iter), float(o.fval), float(o.norm))
        except BaseException as e:  # reported after the run, like the progress callback's
            if ctx._progress_error is None:
                ctx._progress_error = e

    return _lib.OPTIMIZER_HOOK(hook)
