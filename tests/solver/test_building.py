"""Adding variables and rows: what is stored, what is refused, and that a refusal leaves nothing behind."""

import ctypes as c

import numpy as np
import pytest

from solver.store import CONSTR, INF, INVALID, NOT_IN_MODEL, SIZE_LIMIT, VAR, Store, StoreError
from solver.store_library import lib

NAN = float("nan")


@pytest.fixture
def store():
    """Three variables x0..x2 and the row x0 + 2 x1 <= 8, in the model."""
    m = Store()
    m.addvars(3, ub=[4.0, INF, 1.0])
    m.addrows([{0: 1.0, 1: 2.0}], upper=8.0)
    m.update()
    return m


def whole(m):
    """All that a failed call must leave as it was."""
    data = {k: v.tolist() if isinstance(v, np.ndarray) else v for k, v in m.data().items()}
    return data, [a.tolist() for a in m.matrix(1)], m.idcount(VAR), m.idcount(CONSTR)


def refused(m, code, message, call):
    before = whole(m)
    with pytest.raises(StoreError) as caught:
        call()
    assert (caught.value.code, str(caught.value)) == (code, message)
    assert whole(m) == before


def test_ids_count_up_and_positions_come_with_the_update(store):
    assert store.addvars(2) == 3
    assert store.addvars(0) == 5
    assert store.positions(VAR, [0, 3, 4, 5, -1]) == [0, -1, -1, -2, -2]
    assert store.int("NumVars") == 3
    store.update()
    assert store.positions(VAR, [3, 4]) == [3, 4]
    assert store.int("NumVars") == 5


def test_single_values_spread_and_large_ones_mean_none():
    m = Store()
    m.addvars(3, lb=[-1e20, 0.0, -5.0], ub=1e25, obj=2.0, vtype="CIS")
    m.update()
    data = m.data()
    assert data["lb"].tolist() == [-INF, 0.0, -5.0]
    assert data["ub"].tolist() == [INF] * 3
    assert (data["obj"].tolist(), data["vtype"], data["nintegral"]) == ([2.0] * 3, "CIS", 2)


@pytest.mark.parametrize("seed", range(12))
def test_zeros_of_later_calls_are_zeros_whatever_their_memory_held(seed):
    """Blocks of the C heap, of new pages and of those that others gave back; failures and removals in between."""
    rng = np.random.default_rng(seed)
    m, want = Store(), np.zeros(0)
    for _ in range(12):
        n = int(rng.choice([1, 500, 30_000, 200_000])) if len(want) else 500  # small blocks first
        lb = float(rng.choice([0.0, -1.0])) if rng.random() < 0.8 else -np.ones(n)
        given_back = 8 * (len(want) + n)  # what the next block may be
        memory = lib.TRVmalloc(given_back)
        c.memset(memory, 0x42, given_back)
        lib.TRVfree(memory)
        if rng.random() < 0.5:
            with pytest.raises(StoreError):
                m.addvars(n, lb=-7.0, ub=NAN)
        m.addvars(n, lb=lb)
        want = np.r_[want, np.broadcast_to(lb, n)]
        if rng.random() < 0.3:
            m.update()
            gone = rng.choice(len(want), min(len(want), 1000), replace=False)
            m.remove(VAR, m.idsat(VAR, gone))
            m.update()
            want = np.delete(want, gone)
    m.update()
    assert np.array_equal(m.data()["lb"], want)


def test_bounds_of_binaries_are_cut_and_crossed_bounds_kept():
    m = Store()
    m.addvars(4, lb=[-INF, 0.5, -1.0, 3.0], ub=[INF, 0.7, 1.0, 2.0], vtype="BBBC")
    m.update()
    assert m.data()["lb"].tolist() == [0.0, 0.5, 0.0, 3.0]
    assert m.data()["ub"].tolist() == [1.0, 0.7, 1.0, 2.0]


def test_bounds_of_one_value_are_cut_for_binaries_alone():
    m = Store()
    m.addvars(3, lb=-2.0, ub=3.0, vtype="BCB")
    m.addvars(2, vtype="BB")
    m.update()
    assert m.data()["lb"].tolist() == [0.0, -2.0, 0.0, 0.0, 0.0]
    assert m.data()["ub"].tolist() == [1.0, 3.0, 1.0, 1.0, 1.0]


@pytest.mark.parametrize(
    ("arguments", "message"),
    [
        ({"lb": [0.0, NAN]}, "LB of the variable C4 (element 1 of 2) is nan"),
        ({"lb": INF}, "LB of the variable C3 (element 0 of 2) is inf: no value meets it"),
        ({"ub": [-1e30, 0.0]}, "UB of the variable C3 (element 0 of 2) is -1e+30: no value meets it"),
        ({"obj": [1.0, -INF]}, "Obj of the variable C4 (element 1 of 2) is -inf: it must be finite"),
        ({"obj": 1e20}, "Obj of the variable C3 (element 0 of 2) is 1e+20: it must be finite"),
        ({"vtype": "CX"}, "VType of the variable C4 (element 1 of 2) is 'X', not one of 'C', 'B', 'I', 'S'"),
        ({"names": ("x", (3,))}, "names: the shape has 3 elements where 2 are added"),
    ],
)
def test_bad_variables_are_refused_whole(store, arguments, message):
    refused(store, INVALID, message, lambda: store.addvars(2, **arguments))
    assert store.addvars(1) == 3


def test_room_for_removals_that_is_given_back_leaves_those_that_are_marked(store):
    store.remove(VAR, [1])
    for n in (4, 0):
        store.call("TRVexpectremoval", VAR, c.c_int64(n))
    store.update()
    assert [store.int("NumVars"), *store.idsat(VAR, range(2))] == [2, 0, 2]


def test_more_elements_than_ids_are_refused(store):
    message = "2147483647 more variables on top of 3 exceed the limit of 2147483647"
    refused(store, SIZE_LIMIT, message, lambda: store.addvars(2**31 - 1))
    refused(store, INVALID, "variables: a negative count, -1", lambda: store.addvars(-1))


# ---- rows ----------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("given", "stored"),
    [
        ([(0, 1.0), (1, 2.0)], [(0, 1.0), (1, 2.0)]),
        ([(2, 1.0), (0, 2.0), (1, 3.0)], [(2, 1.0), (0, 2.0), (1, 3.0)]),
        ([(2, 1.0), (0, 2.0), (2, 3.0)], [(2, 4.0), (0, 2.0)]),
        ([(1, 1.0), (1, 1.0)], [(1, 2.0)]),
        ([(1, 1.0), (0, 5.0), (1, -1.0)], [(0, 5.0)]),
        ([(0, 0.0), (1, 1.0)], [(1, 1.0)]),
        ([(0, 0.0)], []),
        ([], []),
    ],
)
def test_duplicates_are_summed_in_place_and_zeros_dropped(store, given, stored):
    first = store.addrows([given, [(2, 7.0)]])
    assert store.row(first) == stored
    assert store.row(first + 1) == [(2, 7.0)]


@pytest.mark.parametrize("nrows", [40, 4000])
def test_large_blocks_are_tidied_like_small_ones(nrows):
    """Long unordered rows with duplicates and zeros, in a block that is copied and in one that is adopted."""
    rng, m, n = np.random.default_rng(1), Store(), 50
    m.addvars(n)
    rows = [
        [(int(v), float(a)) for v, a in zip(rng.integers(0, n, 12), rng.integers(-2, 3, 12), strict=False)]
        for _ in range(nrows)
    ]
    m.addrows(rows)
    for i, row in enumerate(rows):
        terms = {}
        for v, a in row:
            terms[v] = terms.get(v, 0.0) + a
        assert m.row(i) == [(v, a) for v, a in terms.items() if a]


@pytest.mark.parametrize(
    ("ptr", "var", "coef", "code", "message"),
    [
        ([0, 1, 2], [0, 9], [1, 1], NOT_IN_MODEL, "the row R2 (element 1 of 2): the model has no variable with id 9"),
        ([0, 2], [0, -1], [1, 1], NOT_IN_MODEL, "the row R1: the model has no variable with id -1"),
        ([0, 2], [0, 1], [1, NAN], INVALID, "the row R1: the coefficient of the variable C1 is nan"),
        ([0, 2], [0, 1], [INF, 1], INVALID, "the row R1: the coefficient of the variable C0 is inf"),
        (
            [0, 2],
            [1, 1],
            [9e19, 9e19],
            INVALID,
            "the row R1: the coefficient of the variable C1 is 1.8e+20",
        ),
        ([1, 2], [0, 1], [1, 1], INVALID, "row pointers begin with 1, not with 0"),
        ([0, 2, 1, 2], [0, 1], [1, 1], INVALID, "row pointers decrease from 2 to 1 at row 1"),
        ([0, 5, 2], [0, 1], [1, 1], INVALID, "row pointer 5 at row 0 is beyond the 2 terms"),
    ],
)
def test_bad_rows_are_refused_whole(store, ptr, var, coef, code, message):
    refused(store, code, message, lambda: store.addcsr(ptr, var, coef))
    assert store.addrows([{2: 1.0}]) == 1


@pytest.mark.parametrize(
    ("sides", "message"),
    [
        ({"lower": NAN}, "the lower side of the row R1 (element 0 of 2) is nan"),
        ({"lower": [0.0, INF]}, "the lower side of the row R2 (element 1 of 2) is inf: no value meets it"),
        ({"upper": [-1e20, 0.0]}, "the upper side of the row R1 (element 0 of 2) is -1e+20: no value meets it"),
    ],
)
def test_bad_sides_are_refused_whole(store, sides, message):
    refused(store, INVALID, message, lambda: store.addrows([{0: 1.0}, {1: 1.0}], **sides))


def test_rows_over_removed_variables_are_refused(store):
    pending = store.addvars(1)
    store.remove(VAR, [0, pending])
    for v in (0, pending):
        message = f"the row R1: the variable C{v} was removed from the model"
        refused(store, NOT_IN_MODEL, message, lambda v=v: store.addrows([{v: 1.0}]))
    store.update()
    message = "the row R1: the variable C0 was removed from the model"
    refused(store, NOT_IN_MODEL, message, lambda: store.addrows([{0: 1.0}]))


@pytest.mark.parametrize("nnz", [4, 100_000])
def test_terms_are_written_where_they_stay(store, nnz):
    rows = store.openrows(2, nnz)
    for i, p in enumerate([0, 1, 3]):
        rows.ptr[i] = p
    for k, (v, a) in enumerate([(2, 5.0), (1, 6.0), (0, 7.0)]):
        rows.var[k], rows.coef[k] = v, a
    assert store.row(0) == [(0, 1.0), (1, 2.0)]  # reading between the steps
    assert store.commitrows(upper=3.0) == 1
    assert [store.row(i) for i in (1, 2)] == [[(2, 5.0)], [(1, 6.0), (0, 7.0)]]
    refused(store, INVALID, "no block of rows is open", store.commitrows)


def test_a_failed_commit_closes_the_block(store):
    rows = store.openrows(1, 1)
    rows.ptr[0], rows.ptr[1], rows.var[0], rows.coef[0] = 0, 1, 77, 1.0
    refused(store, NOT_IN_MODEL, "the row R1: the model has no variable with id 77", store.commitrows)
    refused(store, INVALID, "no block of rows is open", store.commitrows)


# ---- objective and coefficients ------------------------------------------------------------------------------------


def test_setobjective_replaces_and_sums(store):
    store.setdbls("Obj", [0, 1, 2], [7.0, 7.0, 7.0])
    store.setobjective([(1, 2.0), (2, 1.0), (1, 3.0)], constant=4.0, sense=-1)
    assert store.dbls("Obj", range(3)).tolist() == [0.0, 5.0, 1.0]
    assert (store.dbl("ObjConstant"), store.int("ModelSense")) == (4.0, -1)
    store.setobjective([])
    assert (store.dbl("ObjConstant"), store.int("ModelSense")) == (0.0, -1)


def test_bad_objectives_are_refused_whole(store):
    store.setobjective([(0, 1.0)], constant=2.0)
    refused(
        store, NOT_IN_MODEL, "objective: the model has no variable with id 5", lambda: store.setobjective([(5, 1.0)])
    )
    message = "objective: the coefficient of the variable C1 is nan"
    refused(store, INVALID, message, lambda: store.setobjective([(0, 9.0), (1, NAN)]))
    message = "the constant of the objective is inf"
    refused(store, INVALID, message, lambda: store.setobjective([(0, 9.0)], constant=INF))
    message = "sense 2 is not 1 (minimize), -1 (maximize) or 0 (as it is)"
    refused(store, INVALID, message, lambda: store.setobjective([(0, 9.0)], sense=2))


def test_coefficients_are_set_all_or_none(store):
    store.setcoefs([0, 0, 0, 0], [2, 0, 2, 1], [1.0, 0.0, 4.0, 3.0])
    assert store.row(0) == [(1, 3.0), (2, 4.0)]
    assert store.coefs([0, 0, 0], [0, 1, 2]) == [0.0, 3.0, 4.0]
    message = "the coefficient of the variable C1 in the row R0 is nan"
    refused(store, INVALID, message, lambda: store.setcoefs([0, 0], [0, 1], [8.0, NAN]))
    message = "coefficient: the model has no row with id 3"
    refused(store, NOT_IN_MODEL, message, lambda: store.setcoefs([0, 3], [0, 0], [8.0, 1.0]))
    message = "coefficient: the model has no variable with id 3"
    refused(store, NOT_IN_MODEL, message, lambda: store.coefs([0], [3]))


def test_filling_rows_term_by_term_keeps_every_term():
    m, n = Store(), 60
    m.addvars(n)
    m.addrows([{}] * n)
    for v in range(n):
        m.setcoefs(range(n), [v] * n, np.arange(n) + 100.0 * v + 1)
    m.addrows([{5: 1.0}])
    m.update()
    start, _index, value = m.matrix(csc=1)
    assert start.tolist() == [n * v + (v > 5) for v in range(n + 1)]
    expected = [r + 100.0 * v + 1 for v in range(n) for r in range(n)]
    expected.insert(6 * n, 1.0)
    assert value.tolist() == expected


def test_many_coefficients_of_long_rows_are_read_right():
    m, n = Store(), 500
    m.addvars(n)
    m.addcsr([0, n // 2, n // 2 + 1], [*range(1, n, 2), 3], np.arange(n // 2 + 1) + 1.0)
    rows, vars = [0] * n + [1, 0], [*range(n), 3, 3]
    expected = [0.0 if v % 2 == 0 else (v + 1) / 2 for v in range(n)]
    assert m.coefs(rows, vars) == [*expected, n // 2 + 1.0, 2.0]
