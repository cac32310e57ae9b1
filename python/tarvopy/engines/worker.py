"""A run on a thread of Python's own, for engines whose packages release the interpreter's lock while they solve.

    worker = Worker(function)          runs it at once
    worker.wait(0.05)                  True when it is over; what it raised is then in worker.error
    worker.result()                    what it returned; raises what it raised

The thread is a daemon: who ends the program while an engine runs need not wait for it (flight.py stops the runs that
are under way).
"""

from __future__ import annotations

import threading
import time
from collections.abc import Callable
from typing import Any


class Worker:
    def __init__(self, function: Callable[[], Any], name: str = "tarvopy-engine") -> None:
        self.error: BaseException | None = None
        self._value: Any = None
        self._over = threading.Event()
        self._function: Callable[[], Any] | None = function
        self._began = time.monotonic()
        self._ended: float | None = None
        threading.Thread(target=self._run, name=name, daemon=True).start()

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
            self._over.set()
