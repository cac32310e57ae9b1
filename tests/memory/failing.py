"""Makes this package's requests for memory fail, one after the other, in operations that are given by a table.

An operation is `name: (prepare, operate)`. prepare() makes the operands, a list; operate(*operands) runs with the
failure and ends in MemoryError or in what it gives without one. `state(operands)` says what must then be as before,
and `outcome(result, operands)` what must be equal whether or not a failure came first. Further words of a row
say what it need not do, see below.
"""

import ctypes
import gc
import random
import subprocess
import sysconfig
import tempfile
from pathlib import Path

import numpy as np

import tarvopy
from tarvopy import _core

# Enough for every table here; an operation that asks for more is not met to its end, which is an error.
LIMIT = 5000

ONCE = "cannot be tried again, or has other ids then"
ALONE = "needs memory to take back what it did, so only one request fails"
TEXTS = "runs an engine in this thread, whose texts come from the C++ library like ours, so those do not fail"


def _compiled(folder: str) -> ctypes.PyDLL:
    source, library = Path(__file__).with_name("failing_allocations.cpp"), Path(folder) / "failing_allocations.so"
    headers = [f"-I{sysconfig.get_path('include')}", f"-I{np.get_include()}"]
    options = ["-std=c++20", "-O1", "-g", "-fPIC", "-shared"]
    subprocess.run(["c++", *options, *headers, str(source), "-o", str(library)], check=True)
    return ctypes.PyDLL(str(library))


class Requests:
    """The requests for memory of the libraries beside tarvopy._core."""

    def __init__(self) -> None:
        with tempfile.TemporaryDirectory() as folder:
            self.library = _compiled(folder)
        names = ("MVar", "MConstr", "MLinExpr", "MQuadExpr", "MNLExpr", "Model")
        types = [getattr(tarvopy, name) for name in names]  # loads all libraries: later ones would not be met
        self.folder = str(Path(_core.__file__).parent).encode()
        assert self.library.install(self.folder) > 0, "no library was found"
        for each in types:
            self.library.install_type(ctypes.py_object(each))
        get = ctypes.pythonapi.PyCapsule_GetPointer
        get.restype, get.argtypes = ctypes.c_void_p, [ctypes.py_object, ctypes.c_char_p]
        self.table = ctypes.c_void_p(get(np._core._multiarray_umath._ARRAY_API, None))
        self.array_libraries = 0

    def bind_arrays(self) -> None:
        """The libraries that meet their first array bind NumPy's functions then."""
        self.array_libraries += self.library.install_arrays(self.folder, self.table)

    def fail(self, operate, operands, number: int, forever: bool, texts: bool = True):
        """(what was returned or raised, how many requests failed)."""
        self.library.arm(ctypes.c_long(number), forever, texts)
        try:
            result = operate(*operands)
        except Exception as error:
            failed = self.library.disarm()
            return error.with_traceback(None), failed
        return result, self.library.disarm()


def difference(now: str, then: str) -> str:
    """Where two texts part."""
    same = next((i for i, (a, b) in enumerate(zip(now, then, strict=False)) if a != b), min(len(now), len(then)))
    at = max(same - 60, 0)
    return f"...{now[at : at + 160]}... was ...{then[at : at + 160]}..."


def walk(requests: Requests, numbers, prepare, operate, state, outcome, *words: str) -> int:
    """Runs the operation with each of its requests failing in turn, alone and with all that come after it; returns how
    many failed. Raises AssertionError at what must not be."""
    operands = prepare()
    expected = outcome(operate(*operands), operands)
    requests.bind_arrays()
    for tried, number in enumerate(numbers):
        for forever in (False,) if ALONE in words else (False, True):
            operands = prepare()
            before = state(operands)
            result, failed = requests.fail(operate, operands, number, forever, TEXTS not in words)
            if not failed:
                return tried
            where = f"request {number}{' and later' if forever else ''}"
            if isinstance(result, Exception):
                assert isinstance(result, MemoryError), f"{where}: {result!r}"
                assert state(operands) == before, f"{where}: {difference(state(operands), before)}"
                if ONCE in words:
                    continue
                result = operate(*operands)
            met = outcome(result, operands)
            assert met == expected, f"{where}: {difference(met, expected)}"
    raise AssertionError(f"more than {LIMIT} requests")


def run(table, state, outcome, every: int = 1, seed: int = 0) -> None:
    """Walks through the table, with every k-th request from a random one on; the name of each operation is printed
    before it runs, so that a crash has a name."""
    requests, first = Requests(), random.Random(seed)
    print("every", every, "seed", seed)
    faults = total = 0
    for name, (prepare, operate, *words) in table.items():
        print(name, end=" ", flush=True)
        try:
            numbers = range(first.randint(1, every), LIMIT, every)
            tried = walk(requests, numbers, prepare, operate, state, outcome, *words)
            print(tried, flush=True)
            total += tried
        except Exception as error:
            faults += 1
            print("FAULT", repr(error), flush=True)
        gc.collect()
    print(total, "requests;", requests.array_libraries, "libraries call NumPy through the failing table")
    assert not faults, f"{faults} operations"
