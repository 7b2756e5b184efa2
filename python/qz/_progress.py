"""Progress reports of the library (register CBP) as progress bars."""

import sys
from typing import Any, Optional


class TqdmProgress:
    """A progress callback that draws the library's reports as tqdm bars.

    The library reports (done, total, label) from MODEL, PREDICT, SCORE,
    SAMPLE and the building of complete graphs. Each change of label or total
    starts a new bar; close() ends the current one, which the context does at
    the end of every run.
    """

    def __init__(self, tqdm_class: Any, **options: Any) -> None:
        """Draw bars with tqdm_class (tqdm.tqdm or a look-alike); options go to each bar."""
        self._tqdm = tqdm_class
        self._options = dict(options)
        self._options.setdefault("leave", False)
        self._bar = None
        self._key = None

    def __call__(self, done: int, total: int, label: str) -> None:
        """Move the bar of this label to done out of total."""
        if self._bar is None or self._key != (label, total):
            self.close()
            self._bar = self._tqdm(total=total, desc=label, **self._options)
            self._key = (label, total)
        step = done - self._bar.n
        if step >= 0:
            self._bar.update(step)
        else:
            self._bar.n = done
            self._bar.refresh()

    def close(self) -> None:
        """End the current bar, if any."""
        if self._bar is not None:
            self._bar.close()
            self._bar = None
            self._key = None


def tqdm_progress(force: bool = False) -> Optional["TqdmProgress"]:
    """Return a TqdmProgress when tqdm can be imported, else None.

    Without force a bar is only drawn when standard error is a terminal, as
    qzrun does.
    """
    try:
        import tqdm
    except ImportError:
        return None
    if not force:
        stream = sys.stderr
        if stream is None or not hasattr(stream, "isatty") or not stream.isatty():
            return None
    return TqdmProgress(tqdm.tqdm)
