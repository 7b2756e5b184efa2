"""The exceptions and warnings of the qz package."""

from typing import Optional


class QZWarning(UserWarning):
    """A warning of the library about a run that went on: a result that is not
    a finite number, loopy belief propagation over vertices without edges, a
    structure search that stopped early. The text starts with "line N: ", the
    program line (counted from 1) whose instruction gave it."""


class QZError(RuntimeError):
    """A failure reported by the library.

    str() of a failed run reads "error at line N: MESSAGE", as qzrun prints it,
    with N counted from 1. The parts are in the attributes message (the
    library's own text), line (None for failures outside a run) and
    error_type (the C++ exception type, such as "std::logic_error").
    """

    def __init__(self, message: str, line: Optional[int] = None, error_type: str = "") -> None:
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

    def __init__(self, failure: "QZError") -> None:
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
