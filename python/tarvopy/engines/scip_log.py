"""SCIP's log: the one place where its figures can be read while it runs, since asking SCIP itself from another thread
would meet data that it is changing.

    log = ScipLog(model)         SCIP writes to a file that lies in memory from here on
    log.take()                   what was added since the last call
    log.figures()                {"node": 12.0, "LP iter": 3975.0, "dualbound": -1316.57, "primalbound": -89.1, ...}

The figures stand in a table that gets a line at each new solution, round of cuts and hundredth node:

     time | node  | left  |LP iter|...|  dualbound   | primalbound  |  gap   | compl.
    t 0.8s|    19 |     0 |  3975 |...|-1.367003e+03 |      --      |   Inf  | unknown
"""

from __future__ import annotations

import os
import tempfile
from typing import Any

_SUFFIXES = {"k": 1e3, "M": 1e6, "G": 1e9, "T": 1e12}


class ScipLog:
    def __init__(self, model: Any) -> None:
        self._file = tempfile.NamedTemporaryFile(  # noqa: SIM115 - open as long as SCIP writes to it
            "r", prefix="tarvopy-", suffix=".log", encoding="utf-8", errors="replace", dir=memory_folder()
        )
        self._columns: list[str] = []
        self._figures: dict[str, float] = {}
        self._rest = ""
        model.setLogfile(self._file.name)

    def __del__(self) -> None:
        if hasattr(self, "_file"):
            self._file.close()

    def take(self) -> str:
        return self._file.read()

    def figures(self) -> dict[str, float]:
        """Of the last line of the table, by the heads of its columns; those that are no number are left out."""
        *lines, self._rest = (self._rest + self.take()).split("\n")
        for line in lines:
            cells = [cell.strip() for cell in line.split("|")]
            if cells[0] == "time":
                self._columns = cells
            elif self._columns and len(cells) == len(self._columns):
                found = {head: _number(cell) for head, cell in zip(self._columns, cells, strict=True)}
                self._figures = {head: value for head, value in found.items() if value is not None}
        return self._figures


def _number(cell: str) -> float | None:
    try:
        return float(cell[:-1]) * _SUFFIXES[cell[-1:]] if cell[-1:] in _SUFFIXES else float(cell)
    except ValueError:
        return None


def memory_folder() -> str | None:
    """A folder that lies in memory, None (the system's temporary one) where there is none."""
    folder = "/dev/shm"
    return folder if os.path.isdir(folder) and os.access(folder, os.W_OK | os.X_OK) else None
