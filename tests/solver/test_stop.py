"""Reading and writing that are stopped at each point where the store asks: nothing is half done or left behind."""

import os

import numpy as np
import pytest

from solver.model_file import read, snapshot, write
from solver.store import Store, StoreError
from solver.store_library import lib
from solver.test_lp import lp

INTERRUPTED = 12
LP = lp(" obj: x + y + z + [ x ^2 ] / 2\n", rest="Bounds\n x <= 3\nGeneral\n y\nSOS\n s: S1:: x:1 y:2\n").replace(
    "Subject To\n", "Subject To\n q: z + [ x * y ] <= 4\n i: y = 1 -> x - z <= 2\n"
)


def open_files():
    return len(os.listdir("/proc/self/fd"))


def stopped_everywhere(store, function, path, unchanged):
    """Stops the call at its first question, its second, ..., until it runs to its end; returns how many there were."""
    before = unchanged(), open_files(), sorted(os.listdir(path.parent))
    for last in range(1, 100):
        asked = []
        store.stop_when(lambda asked=asked, last=last: asked.append(None) or len(asked) == last)
        code = getattr(lib, function)(store.handle, os.fsencode(path))
        if code == 0:
            store.stop_when(lambda: False)
            return len(asked)
        assert (code, len(asked)) == (INTERRUPTED, last)  # not asked again
        store.update()
        assert (unchanged(), open_files(), sorted(os.listdir(path.parent))) == before
    raise AssertionError("the call has no end")


@pytest.mark.parametrize("name", ["m.lp", "m.mps", "m.lp.gz", "m.mps.gz"])
def test_models(tmp_path, name):
    (tmp_path / "given.lp").write_text(LP)
    model, path = read(tmp_path / "given.lp"), tmp_path / name
    path.write_bytes(b"old")
    assert stopped_everywhere(model, "TRVwritemodel", path, path.read_bytes) > 10
    assert path.read_bytes() != b"old"
    back = Store()
    assert stopped_everywhere(back, "TRVreadmodel", path, lambda: snapshot(back)) > 8
    write(back, tmp_path / "again.lp")
    assert snapshot(read(tmp_path / "again.lp")) == snapshot(back)
    assert {**snapshot(back), "gens": None} == {**snapshot(model), "gens": None}  # MPS has them in another order


def test_solutions(tmp_path):
    model, path = Store(), tmp_path / "m.sol"
    model.addvars(3)
    model.update()
    model.solved([1.0, 2.0, 3.0])
    path.write_bytes(b"old")
    assert stopped_everywhere(model, "TRVwritesolution", path, path.read_bytes) > 3
    starts = lambda: repr(model.dbls("Start", range(3)).tolist())  # noqa: E731
    assert stopped_everywhere(model, "TRVreadsolution", path, starts) == 1
    assert np.array_equal(model.dbls("Start", range(3)), [1, 2, 3])


def test_a_file_that_is_read_while_another_one_asks(tmp_path):
    (tmp_path / "m.lp").write_text(LP)
    outer, inner, asked = Store(), Store(), []

    def decide():
        asked.append(inner.int("NumVars"))
        if len(asked) == 1:
            inner.call("TRVreadmodel", os.fsencode(tmp_path / "m.lp"))
        return len(asked) == 3

    outer.stop_when(decide)
    with pytest.raises(StoreError, match="interrupted"):
        outer.call("TRVreadmodel", os.fsencode(tmp_path / "m.lp"))
    assert asked == [0, 3, 3]  # the inner call asked nobody, and the outer one went on asking afterwards
