"""Bounds and sides of one value throughout stand nowhere until somebody writes another one or asks for an array: a
store that has had them written out all the time says the same.
"""

import ctypes as c

import numpy as np
import pytest

from solver.store import CONSTR, INF, VAR, Store, StoreError, lib

BOUNDS, SIDES = ("LB", "UB"), ("Lower", "Upper", "RHS")


class Pair:
    """Two stores to which the same is done, one of which is asked for arrays after each action."""

    def __init__(self):
        self.stores = self.lazy, self.eager = Store(), Store()
        self.present = {VAR: [], CONSTR: []}

    def both(self, kind, act):
        """act(store) gives the first id and the count of what came; what one refuses the other refuses."""
        said = []
        for store in self.stores:
            try:
                said.append(act(store))
            except StoreError as error:
                said.append(str(error))
        self.eager.data()
        assert said[0] == said[1]
        if isinstance(said[0], tuple):
            first, n = said[0]
            self.present[kind] += range(first, first + n)

    def compare(self):
        for kind, doubles, letters in ((VAR, BOUNDS, "VType"), (CONSTR, SIDES, "Sense")):
            ids = self.present[kind]
            assert self.lazy.chars(letters, ids) == self.eager.chars(letters, ids)
            for name in doubles:
                got, want = (store.dbls(name, ids) for store in self.stores)
                assert np.array_equal(got, want)
                assert np.array_equal(np.signbit(got), np.signbit(want))

    def update(self):
        for store in self.stores:
            store.update()
        view, data = self.lazy.view(), self.eager.data()
        for name, got in view.items():
            assert np.array_equal(np.full(len(data[name]), got), data[name])


def numbers(rng, n, usual):
    """One number for all, an array of one number, or several."""
    value = float(rng.choice([*usual, -1.0, 2.0, 0.0, -0.0], p=[0.3, 0.3, 0.1, 0.1, 0.1, 0.1]))
    kind = rng.integers(4)
    return value if kind < 2 else np.full(n, value) if kind == 2 else rng.choice([*usual, value], n)


def letters(rng, n, letters):
    return "".join(rng.choice(list(letters), n)) if rng.random() < 0.5 else str(rng.choice(list(letters)))


def add_variables(rng, pair):
    n = int(rng.integers(0, 5))
    lb, ub, vtype = numbers(rng, n, (0.0, -INF)), numbers(rng, n, (INF, 1.0)), letters(rng, n, "CCCBI") or "C"
    pair.both(VAR, lambda store: (store.addvars(n, lb, ub, vtype=vtype), n))


def add_rows(rng, pair):
    n = int(rng.integers(0, 5))
    lower, upper = numbers(rng, n, (-INF, 1.0)), numbers(rng, n, (1.0, INF))
    pair.both(CONSTR, lambda store: (store.addrows([{}] * n, lower, upper), n))


def chosen(rng, ids):
    return [int(i) for i in rng.choice(ids, rng.integers(1, 4))] if ids else []


def set_numbers(rng, pair):
    name = str(rng.choice([*BOUNDS, *SIDES]))
    kind = VAR if name in BOUNDS else CONSTR
    ids = pair.present[kind] if rng.random() < 0.3 else chosen(rng, pair.present[kind])
    values = numbers(rng, len(ids), (1.0, rng.choice([-INF, INF])))
    pair.both(kind, lambda store: store.setdbls(name, ids, values))


def set_letters(rng, pair):
    kind, name, among = (VAR, "VType", "CBI") if rng.random() < 0.5 else (CONSTR, "Sense", "<>=")
    ids = chosen(rng, pair.present[kind])
    wanted = letters(rng, len(ids), among)
    pair.both(kind, lambda store: store.setchars(name, ids, wanted))


def remove(rng, pair):
    kind = int(rng.choice([VAR, CONSTR]))
    ids = sorted(set(chosen(rng, pair.present[kind])))
    pair.both(kind, lambda store: store.remove(kind, ids))
    pair.update()  # what is marked shows until then
    pair.present[kind] = [i for i in pair.present[kind] if i not in ids]


def copy(rng, pair):
    pair.update()
    copies = Pair()
    for store, other in zip(pair.stores, copies.stores, strict=True):
        lib.TRVfreemodel(other.handle)
        other.handle = c.c_void_p()
        store.call("TRVcopymodel", 1, c.byref(other.handle))
    copies.present = {kind: list(range(len(ids))) for kind, ids in pair.present.items()}
    copies.compare()


ACTIONS = [add_variables, add_rows, set_numbers, set_letters, remove, copy, lambda rng, pair: pair.update()]


@pytest.mark.parametrize("seed", range(5))
def test_what_stands_nowhere_reads_and_changes_like_an_array(seed):
    rng = np.random.default_rng(seed)
    for _ in range(60):
        pair = Pair()
        for _ in range(int(rng.integers(1, 25))):
            ACTIONS[rng.choice(len(ACTIONS), p=[0.25, 0.25, 0.15, 0.1, 0.1, 0.05, 0.1])](rng, pair)
            pair.compare()
        pair.update()


def test_only_another_value_or_a_call_for_arrays_writes_them_out():
    m = Store()
    for _ in range(3):
        m.addvars(2, ub=1.0)
    m.addrows([{}] * 4, upper=[1.0, 2.0, 3.0, 4.0])
    m.update()
    m.setdbls("UB", [1, 2], 1.0)
    m.setchars("VType", [4], "B")
    m.setdbls("RHS", [2], 7.0)
    m.remove(VAR, [0])
    m.update()
    view = m.view()
    assert (view["lb"], view["ub"], view["lower"]) == (0.0, 1.0, -INF)
    assert view["upper"].tolist() == [1.0, 2.0, 7.0, 4.0]
    m.setdbls("UB", [3], 2.0)
    m.setchars("Sense", [0], ">")
    assert m.view()["ub"].tolist() == [1.0, 1.0, 2.0, 1.0, 1.0]
    assert m.view()["lower"].tolist() == [1.0, -INF, -INF, -INF]
    assert m.view()["lb"] == 0.0
    assert m.data()["lb"].tolist() == m.view()["lb"].tolist() == [0.0] * 5
