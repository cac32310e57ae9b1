"""One run of an engine, from start to end: waiting in short steps, Ctrl-C, and what happens when the caller leaves
before the engine.

The first Ctrl-C is acknowledged at once and passed on; engines come back at their next check, which may take seconds.
The second one raises KeyboardInterrupt and leaves the engine alone with a caretaker, which gives the model free when
the engine has stopped.
"""

from __future__ import annotations

import atexit
import os
import signal
import threading
import time
from types import FrameType
from typing import TYPE_CHECKING, Any

from tarvopy import _modelapi
from tarvopy.engines.worker import Worker

if TYPE_CHECKING:
    from collections.abc import Callable

    from tarvopy.engines.base import Engine
    from tarvopy.progress import Reporter

#: Seconds between two looks: well below the half second in which Ctrl-C is answered, and nothing beside a solve.
STEP = 0.05
#: How long a program that ends waits for an engine that was told to stop.
PATIENCE_AT_EXIT = 10.0
ACKNOWLEDGEMENT = "Ctrl-C: stopping at the engine's next check (press again to leave at once)"

_in_flight: set[Engine] = set()
os.register_at_fork(after_in_child=_in_flight.clear)  # a child process has none of the threads that they run on


class CtrlC:
    """Counts Ctrl-C instead of raising KeyboardInterrupt somewhere in the middle; the second one raises.

    Takes the place of Python's own handler only, and only in the main thread, which is where signals arrive. A handler
    that a program has set stays: if it raises KeyboardInterrupt, that counts as well.
    """

    def __init__(self) -> None:
        self.count = 0
        self.answered = False
        self._acknowledged = False
        self._restore = False

    def __enter__(self) -> CtrlC:
        if threading.current_thread() is threading.main_thread():
            self._restore = signal.getsignal(signal.SIGINT) is signal.default_int_handler
        if self._restore:
            signal.signal(signal.SIGINT, self._handle)
        return self

    def __exit__(self, *_: object) -> None:
        if self._restore:
            signal.signal(signal.SIGINT, signal.default_int_handler)

    @property
    def unanswered(self) -> bool:
        return self.count > 0 and not self.answered

    def acknowledge(self, reporter: Reporter) -> None:
        """Says once that it was heard."""
        if not self._acknowledged:
            self._acknowledged = True
            reporter.line(ACKNOWLEDGEMENT)

    def _handle(self, _signal: int, _frame: FrameType | None) -> None:
        self.count += 1
        if self.count > 1:
            raise KeyboardInterrupt


def fly(engine: Engine, reporter: Reporter, ctrl_c: CtrlC) -> bool:
    """Waits until the run is over. True if Ctrl-C was passed on to the engine, which need not have taken notice."""
    _in_flight.add(engine)
    stopping = False
    while True:
        try:
            if engine.wait(STEP):
                _in_flight.discard(engine)
                return stopping
            reporter.show()
        except KeyboardInterrupt:
            if ctrl_c.count > 1 or stopping:
                raise
            ctrl_c.count = 1
        if ctrl_c.count and not stopping:
            stopping = True
            ctrl_c.answered = True
            engine.interrupt()
            ctrl_c.acknowledge(reporter)


def aside(step: Callable[[], Any], reporter: Reporter, ctrl_c: CtrlC) -> Any:
    """The result of a long step before the engine runs, which nothing can cut short: Ctrl-C is acknowledged meanwhile,
    and what comes next sees it. Also who leaves by the second one waits for the step, which reads the model.
    """
    worker, leave = Worker(step), False
    while True:
        try:
            if worker.wait(STEP):
                break
            if ctrl_c.count:
                ctrl_c.acknowledge(reporter)
        except KeyboardInterrupt:
            leave = leave or ctrl_c.count != 0
            ctrl_c.count = max(ctrl_c.count, 1)
    if leave:
        raise KeyboardInterrupt
    return worker.result()


def abandon(engine: Engine, handle: Any) -> None:
    """Leaves a run that is under way: it is told to stop, and the model stays marked as solving until it has."""
    engine.interrupt()
    threading.Thread(target=_take_care, args=(engine, handle), name="tarvopy-caretaker").start()


def _take_care(engine: Engine, handle: Any) -> None:
    """Waits for an abandoned run, and gives its model free.

    Not a daemon thread: those are cut off at exit wherever they are. It ends by itself when the program waits to end.
    """
    deadline = None
    while not engine.wait(0.1):
        if deadline is None and not threading.main_thread().is_alive():
            deadline = time.monotonic() + PATIENCE_AT_EXIT
        if deadline is not None and time.monotonic() > deadline:
            _in_flight.discard(engine)
            return
    _in_flight.discard(engine)
    _modelapi.set_solving(handle, False)


@atexit.register
def _land() -> None:
    """Runs of daemon threads and abandoned ones end before the interpreter does, as far as they come back in time."""
    deadline = time.monotonic() + PATIENCE_AT_EXIT
    for engine in list(_in_flight):
        engine.interrupt()
    for engine in list(_in_flight):
        engine.wait(max(0.0, deadline - time.monotonic()))
