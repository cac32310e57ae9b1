"""A run on a thread of Python's own, for engines whose packages release the interpreter's lock while they solve.

    worker = Worker(function)          runs it at once
    worker.wait(0.05)                  True when it is over; what it raised is then in worker.error

The thread is a daemon: who ends the program while an engine runs need not wait for it (flight.py stops the runs that
are under way).
"""

from __future__ import annotations

import threading
from collections.abc import Callable


class Worker:
    def __init__(self, function: Callable[[], object], name: str = "tarvopy-engine") -> None:
        self.error: BaseException | None = None
        self._over = threading.Event()
        self._function = function
        threading.Thread(target=self._run, name=name, daemon=True).start()

    @property
    def running(self) -> bool:
        return not self._over.is_set()

    def wait(self, seconds: float) -> bool:
        return self._over.wait(seconds)

    def _run(self) -> None:
        try:
            self._function()
        except BaseException as error:  # the thread that waits raises or reports it
            self.error = error
        finally:
            self._over.set()
