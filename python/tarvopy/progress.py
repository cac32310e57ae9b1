"""What a solve says while it runs, by params.LogLevel: 0 nothing, 1 a status line, 2 the engine's own log.

On a terminal the status line is one line, written over about once a second; elsewhere (a file, a notebook's log) lines
come at doubling distances, so that a day's run leaves some twenty of them. Everything is printed by the thread that
called optimize().
"""

from __future__ import annotations

import sys
import time
from typing import TYPE_CHECKING, TextIO

from tarvopy._trv import TRV

if TYPE_CHECKING:
    from tarvopy.engines.base import Engine, Outcome, Progress

#: A solve that is over by then leaves its last line alone.
_FIRST_LINE = 1.0
_STATUS_WORDS = {
    getattr(TRV, name): name.lower().replace("_", " ")
    for name in (
        *("NOT_SOLVED", "OPTIMAL", "INFEASIBLE", "UNBOUNDED", "INFEASIBLE_OR_UNBOUNDED", "TIME_LIMIT"),
        *("ITERATION_LIMIT", "NODE_LIMIT", "SOLUTION_LIMIT", "INTERRUPTED", "IMPRECISE", "FAILED"),
    )
}


def status_word(status: int) -> str:
    """ "optimal", "time limit", ..."""
    return _STATUS_WORDS.get(status, f"status {status}")


class Reporter:
    """Prints for one solve. A closed or broken standard output never stops it."""

    def __init__(self, level: float, stream: TextIO | None = None) -> None:
        self.level = level
        self.engine: Engine | None = None  # None where a solve needs none
        self.stream = sys.stdout if stream is None else stream
        self.tty = _is_terminal(self.stream)
        self.began = time.monotonic()
        self.due = self.began + _FIRST_LINE
        self.shown = 0  # characters of the status line that stands on the terminal

    def show(self) -> None:
        """Called in short steps while the engine runs."""
        if self.engine is None:
            return
        if self.level >= 2:
            self._write(self.engine.take_log())
        elif self.level >= 1:
            now = time.monotonic()
            if now >= self.due:
                self.due = now + 1.0 if self.tty else now + (now - self.began)
                self._status_line(status_text(self.engine.name, self.engine.progress()))

    def line(self, text: str) -> None:
        """A line of its own, whatever stands on the terminal."""
        self._clear()
        self._write(text + "\n")

    def note(self, text: str) -> None:
        """A line between two runs, but not in a silent solve."""
        if self.level >= 2 and self.engine is not None:
            self._write(self.engine.take_log())
        if self.level >= 1:
            self.line(text)

    def finish(self, outcome: Outcome) -> None:
        if self.level >= 2 and self.engine is not None:
            self._write(self.engine.take_log())
        if self.level >= 1:
            self.line(outcome_text(self.engine.name if self.engine else "tarvopy", outcome))

    def _status_line(self, text: str) -> None:
        if not self.tty:
            self._write(text + "\n")
            return
        self._write("\r" + text.ljust(self.shown))
        self.shown = len(text)

    def _clear(self) -> None:
        if self.shown:
            self._write("\r" + " " * self.shown + "\r")
            self.shown = 0

    def _write(self, text: str) -> None:
        if not text or self.stream is None:
            return
        try:
            self.stream.write(text)
            self.stream.flush()
        except (OSError, ValueError):  # a closed pipe, a closed file
            self.stream = None


def _is_terminal(stream: TextIO | None) -> bool:
    try:
        return bool(stream is not None and stream.isatty())
    except (AttributeError, ValueError):
        return False


def _number(value: float) -> str:
    return f"{value:.8g}"


def status_text(name: str, progress: Progress) -> str:
    """The status line: "HiGHS  12 s  nodes 304  best 37  bound 30.5  gap 17.6%  iterations 5817"."""
    parts = [name, f"{progress.seconds:.0f} s"]
    if progress.nodes is not None:
        parts.append(f"nodes {progress.nodes:.0f}")
        parts.append("best " + ("none yet" if progress.incumbent is None else _number(progress.incumbent)))
        if progress.bound is not None:
            parts.append(f"bound {_number(progress.bound)}")
            if progress.incumbent is not None:
                gap = abs(progress.bound - progress.incumbent) / max(abs(progress.incumbent), 1e-10)
                parts.append(f"gap {100 * gap:.3g}%")
    if progress.iterations is not None:
        parts.append(f"iterations {progress.iterations:.0f}")
    return "  ".join(parts)


def outcome_text(name: str, outcome: Outcome) -> str:
    """The last line: "HiGHS: optimal, objective 12.5, bound 12.5, 0.03 s"."""
    parts = [status_word(outcome.status)]
    if outcome.has_x:
        parts.append(f"objective {_number(outcome.objval)}")
    if outcome.bound == outcome.bound and outcome.bound != outcome.objval:
        parts.append(f"bound {_number(outcome.bound)}")
    parts.append(f"{outcome.runtime:.2f} s")
    return f"{name}: {', '.join(parts)}" + (f" ({outcome.message})" if outcome.message else "")
