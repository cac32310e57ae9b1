"""A run on a thread of Python's own, for engines whose packages release the interpreter's lock while they solve.

    worker = Worker(function)          runs it at once
    worker.wait(0.05)                  True when it is over; what it raised is then in worker.error
    worker.result()                    what it returned; raises what it raised

The threads serve one run after another, since SCIP's derivatives count every thread that ever used them and write past
their tables at the 65th. They are daemons: who ends the program while an engine runs need not wait for it (flight.py
stops the runs that are under way).
"""

from __future__ import annotations

import os
import queue
import threading
import time
from collections.abc import Callable
from typing import Any

#: Runs at once; further ones wait for their turn. Leaves SCIP's count some for threads that are not ours.
_MOST_THREADS = 48


class Worker:
    def __init__(self, function: Callable[[], Any]) -> None:
        self.error: BaseException | None = None
        self._value: Any = None
        self._over = threading.Event()
        self._function: Callable[[], Any] | None = function
        self._began = time.monotonic()
        self._ended: float | None = None
        _crew.take(self)

    @property
    def running(self) -> bool:
        return not self._over.is_set()

    @property
    def seconds(self) -> float:
        """How long the run took, or has taken so far."""
        return (time.monotonic() if self._ended is None else self._ended) - self._began

    def wait(self, seconds: float) -> bool:
        return self._over.wait(seconds)

    def result(self) -> Any:
        """Waits for the end."""
        self._over.wait()
        if self.error is not None:
            raise self.error
        return self._value

    def _run(self) -> None:
        try:
            self._value = self._function()
        except BaseException as error:  # the thread that waits raises or reports it
            self.error = error
        finally:
            self._function = None  # and what it holds
            self._ended = time.monotonic()


class _Crew:
    """As many threads as runs were ever under way at once."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._runs: queue.SimpleQueue[Worker] = queue.SimpleQueue()
        self._threads = self._open = 0

    def take(self, run: Worker) -> None:
        with self._lock:
            if self._open == self._threads < _MOST_THREADS:
                threading.Thread(target=self._serve, name=f"tarvopy-engine-{self._threads}", daemon=True).start()
                self._threads += 1
            self._open += 1
        self._runs.put(run)

    def _serve(self) -> None:
        while True:
            run = self._runs.get()
            run._run()
            with self._lock:  # first, so that whoever waits for this run finds the thread free
                self._open -= 1
            run._over.set()
            del run  # its answer may be large


_crew = _Crew()
os.register_at_fork(after_in_child=_crew.__init__)  # a child process has none of the threads
