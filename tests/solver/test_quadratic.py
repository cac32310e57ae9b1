"""Quadratic rows and objectives: how terms are stored, what is refused, attributes, removal and what changed."""

import ctypes as c
import itertools

import numpy as np
import pytest

from solver.store import (
    ATTRIBUTE_KIND,
    INF,
    INVALID,
    NO_DATA,
    NOT_IN_MODEL,
    NOT_SOLVED,
    OPTIMAL,
    QCONSTR,
    SIZE_LIMIT,
    VAR,
    Data,
    Store,
    StoreError,
    lib,
)

NAN = float("nan")
NONE_I, NONE_F = np.empty(0, np.int32), np.empty(0)


@pytest.fixture
def store():
    m = Store()
    m.addvars(4)
    m.update()
    return m


def merged(var1, var2, coef):
    """Sums by unordered pair in the order of first occurrence, zeros dropped: the slow way."""
    sums = {}
    for v, w, a in zip(var1.tolist(), var2.tolist(), coef.tolist(), strict=True):
        key = (min(v, w), max(v, w))
        sums[key] = sums.get(key, 0.0) + a
    return [(*key, a) for key, a in sums.items() if a]


@pytest.mark.parametrize("nvars", [4, 60, 5000])
@pytest.mark.parametrize("lengths", [[9, 0, 3, 700], [5000], [2] * 500])
def test_equal_pairs_are_summed_whatever_their_order(nvars, lengths):
    rng = np.random.default_rng(nvars)
    n = sum(lengths)
    var1, var2 = rng.integers(0, nvars, (2, n), dtype=np.int32)
    coef = rng.integers(-2, 3, n).astype(float)
    m = Store()
    m.addvars(nvars)
    qptr = np.concatenate([[0], np.cumsum(lengths)])
    m.addqrowarrays(None, None, None, qptr, var1, var2, coef)
    for i, (begin, end) in enumerate(itertools.pairwise(qptr)):
        part = slice(begin, end)
        assert m.qrow(i) == ([], merged(var1[part], var2[part], coef[part]))
    m.setqobjectivearrays(NONE_I, NONE_F, var1, var2, coef)
    expected = sorted(merged(var1, var2, coef), key=lambda term: (term[1], term[0]))
    assert m.qobjective() == expected


def test_a_pair_that_meets_many_variables_is_merged_in_linear_time():
    """A star: every term shares its first variable. Quadratic work would be 10^11 steps."""
    n = 300_000
    m = Store()
    m.addvars(n)
    hub, others = np.zeros(2 * n, np.int32), np.tile(np.arange(n, dtype=np.int32)[::-1], 2)
    m.addqrowarrays(None, None, None, [0, 2 * n], hub, others, np.ones(2 * n))
    m.update()
    *_, qstart, var1, var2, qcoef = m.qmatrix()
    assert qstart.tolist() == [0, n]
    assert not var1.any()
    assert (var2 == np.arange(n)[::-1]).all()
    assert (qcoef == 2.0).all()


def test_rows_whose_quadratic_terms_cancel_stay_quadratic_rows(store):
    store.addqrows([([(0, 1.0), (0, 2.0)], [(1, 2, 3.0), (2, 1, -3.0)]), ([], [(3, 3, 1.0)])], "=<", [1.0, 1e25])
    assert store.qrow(0) == ([(0, 3.0)], [])
    store.update()
    data = store.data()
    assert [data[key] for key in ("nqrows", "nqlinear", "nqterms", "nqlinterms", "qsense")] == [2, 1, 1, 1, "=<"]
    assert data["qrhs"].tolist() == [1.0, INF]
    assert (store.int("NumQConstrs"), store.int("NumConstrs"), store.int("NumNZs")) == (2, 0, 0)


def test_setobjective_drops_the_quadratic_terms(store):
    store.setqobjective([(0, 1.0)], [(0, 1, 1.0)])
    store.setobjective([(1, 2.0)])
    assert store.qobjective() == []
    assert store.evalobjective([1, 1, 1, 1]) == 2.0


# ---- what is refused changes nothing -------------------------------------------------------------------------------

LINEAR, SQUARE = [(0, 1.0)], [(0, 0, 1.0)]


Q1 = "the quadratic row Q1"


@pytest.mark.parametrize(
    ("arguments", "code", "message"),
    [
        (
            {"rows": [(LINEAR, SQUARE), ([], [(0, 4, 1.0)])]},
            NOT_IN_MODEL,
            "the quadratic row Q2 (element 1 of 2): the model has no variable with id 4",
        ),
        (
            {"rows": [([], [(-1, 0, 1.0)])]},
            NOT_IN_MODEL,
            "the quadratic row Q1: the model has no variable with id -1",
        ),
        (
            {"rows": [(LINEAR, [(2, 1, NAN)])]},
            INVALID,
            "the quadratic row Q1: the coefficient of the product of the variable C1 and the variable C2 is nan",
        ),
        (
            {"rows": [(LINEAR, [(2, 1, 9e19), (1, 2, 9e19)])]},
            INVALID,
            "the quadratic row Q1: the coefficient of the product of the variable C1 and the variable C2 is 1.8e+20",
        ),
        (
            {"rows": [([(3, INF)], SQUARE)]},
            INVALID,
            "the quadratic row Q1: the coefficient of the variable C3 is inf",
        ),
        (
            {"rows": [(LINEAR, SQUARE)], "sense": "R"},
            INVALID,
            f"QSense of {Q1} is 'R', not one of '<', '>', '='",
        ),
        ({"rows": [(LINEAR, SQUARE)], "rhs": NAN}, INVALID, f"the right-hand side of {Q1} is nan"),
        (
            {"rows": [(LINEAR, SQUARE)], "sense": "=", "rhs": INF},
            INVALID,
            f"the right-hand side of {Q1} is inf: no value meets it",
        ),
        (
            {"rows": [(LINEAR, SQUARE)], "rhs": -1e20},
            INVALID,
            f"the right-hand side of {Q1} is -1e+20: no value meets it",
        ),
        ({"rows": [(LINEAR, SQUARE)], "names": ["a\0b"]}, INVALID, "names: a name holds a null character"),
    ],
)
def test_bad_rows_are_refused_and_leave_no_trace(store, arguments, code, message):
    store.addqrows([([(2, 5.0)], [(1, 2, 7.0)])])
    with pytest.raises(StoreError) as caught:
        store.addqrows(**arguments)
    assert (caught.value.code, str(caught.value)) == (code, message)
    assert store.idcount(QCONSTR) == 1
    assert store.addqrows([(LINEAR, SQUARE)]) == 1
    assert [store.qrow(i) for i in range(2)] == [([(2, 5.0)], [(1, 2, 7.0)]), (LINEAR, SQUARE)]


@pytest.mark.parametrize(
    ("qptr", "code", "message"),
    [
        ([1, 1], INVALID, "row pointers begin with 1, not with 0"),
        ([0, 2, 1], INVALID, "row pointers decrease from 2 to 1 at row 1"),
        ([0, -1], INVALID, "quadratic terms: a negative count, -1"),
        ([0, 2**31], SIZE_LIMIT, "2147483648 quadratic terms exceed the limit of 2147483647 for one block of rows"),
    ],
)
def test_bad_row_pointers_are_refused(store, qptr, code, message):
    two = np.zeros(2, np.int32)
    with pytest.raises(StoreError) as caught:
        store.addqrowarrays(None, None, None, qptr, two, two, np.ones(2))
    assert (caught.value.code, str(caught.value)) == (code, message)


def test_removed_variables_are_refused_in_new_terms(store):
    store.remove(VAR, [2])
    for call in (lambda: store.addqrows([([], [(0, 2, 1.0)])]), lambda: store.setqobjective([], [(2, 0, 1.0)])):
        with pytest.raises(StoreError, match="the variable C2 was removed from the model") as caught:
            call()
        assert caught.value.code == NOT_IN_MODEL


@pytest.mark.parametrize(
    ("terms", "qterms", "options"),
    [
        ([], [(0, 1, INF)], {}),
        ([], [(0, 9, 1.0)], {}),
        ([], [(3, 2, 6e19), (2, 3, 6e19)], {}),
        ([(0, NAN)], SQUARE, {}),
        ([], SQUARE, {"constant": NAN}),
        ([], SQUARE, {"sense": 2}),
    ],
)
def test_a_bad_objective_is_refused_whole(store, terms, qterms, options):
    store.setqobjective([(1, 2.0)], [(0, 3, 5.0)], constant=1.0)
    with pytest.raises(StoreError):
        store.setqobjective(terms, qterms, **options)
    assert store.qobjective() == [(0, 3, 5.0)]
    assert store.evalobjective([1, 1, 1, 1]) == 8.0


# ---- attributes and identity ---------------------------------------------------------------------------------------


@pytest.mark.parametrize("committed", [False, True])
def test_attributes_of_quadratic_rows(store, committed):
    store.addqrows([(LINEAR, SQUARE)] * 3, "<=>", [1.0, 2.0, 3.0], names=("q", (3,)))
    store.addqrows([([], SQUARE)])
    if committed:
        store.update()
    assert store.positions(QCONSTR, range(4)) == ([0, 1, 2, 3] if committed else [-1] * 4)
    assert store.chars("QSense", range(4)) == "<=><"
    store.setdbls("QRHS", [2, 0], [-INF, 1e20])
    assert store.dbls("QRHS", range(4)).tolist() == [INF, 2.0, -INF, 0.0]
    assert store.strs("QName", range(4)) == ["q[0]", "q[1]", "q[2]", "Q3"]
    store.setstrs("QName", [1], ["ball"])
    assert store.findname(QCONSTR, "ball") == 1
    assert store.findname(QCONSTR, "Q3") == 3
    with pytest.raises(StoreError, match="QSense cannot be set") as caught:
        store.setchars("QSense", [0], "<")
    assert caught.value.code == ATTRIBUTE_KIND
    for id, value in ((1, INF), (0, -INF), (2, INF), (3, NAN)):
        with pytest.raises(StoreError, match="QRHS of the quadratic row") as caught:
            store.setdbls("QRHS", [1, id], [5.0, value])
    assert store.dbls("QRHS", [1]).tolist() == [2.0]


def test_removed_rows_are_gone_at_update_and_pending_ones_at_once(store):
    store.addqrows([([], [(0, i, 1.0)]) for i in range(3)], rhs=[0.0, 1.0, 2.0])
    store.remove(QCONSTR, [1])
    assert store.positions(QCONSTR, range(3)) == [-1, -2, -1]
    store.update()
    store.remove(QCONSTR, [0])
    assert store.qrow(0) == ([], [(0, 0, 1.0)])
    store.update()
    assert store.positions(QCONSTR, range(3)) == [-2, -2, 0]
    assert store.dbls("QRHS", [2]).tolist() == [2.0]
    with pytest.raises(StoreError, match="quadratic row: the quadratic row Q0 was removed from the model"):
        store.qrow(0)


def test_terms_go_with_their_variables(store):
    store.addqrows([([(1, 1.0), (2, 1.0)], [(1, 2, 1.0), (3, 3, 1.0), (2, 2, 1.0)])])
    store.setqobjective([], [(1, 1, 1.0), (0, 2, 1.0)])
    store.update()
    pending = store.addvars(1)
    store.addqrows([([(pending, 1.0)], [(pending, 0, 1.0), (0, 0, 1.0)])])
    store.setqobjective([], [(1, 1, 1.0), (0, 2, 1.0), (pending, 0, 1.0)])
    assert store.data()["nqobj"] == 2
    store.remove(VAR, [1, pending])
    assert store.qrow(1) == ([], [(0, 0, 1.0)])
    assert store.qobjective() == [(1, 1, 1.0), (0, 2, 1.0)]
    store.update()
    assert store.qrow(0) == ([(2, 1.0)], [(3, 3, 1.0), (2, 2, 1.0)])
    start, index, _, qstart, qvar1, qvar2, _ = store.qmatrix()
    assert [a.tolist() for a in (start, index, qstart)] == [[0, 1, 1], [1], [0, 2, 3]]
    assert [qvar1.tolist(), qvar2.tolist()] == [[2, 1, 0], [2, 1, 0]]
    assert [a.tolist() for a in store.hessian()] == [[0, 0, 1, 1], [0], [1.0]]


# ---- changes and the solution --------------------------------------------------------------------------------------


@pytest.fixture
def solved():
    """min x^2 + y^2: x + x*y >= 2, with values that an engine might have left."""
    m = Store()
    m.addvars(2)
    m.addqrows([([(0, 1.0)], [(0, 1, 1.0)])], ">", 2.0)
    m.setqobjective([], [(0, 0, 1.0), (1, 1, 1.0)])
    m.update()
    m.clearchanges()
    m.solved([3.0, 1.0], rc=[0.0, 0.0], qpi=[1.5], objval=10.0)
    return m


CHANGES = {
    "side": (lambda m: m.setdbls("QRHS", [0], 1.0), "quadratic"),
    "objective": (lambda m: m.setqobjective([], [(0, 0, 1.0), (1, 1, 2.0)]), "quadratic"),
    "linear objective": (lambda m: m.setobjective([]), "quadratic"),
    "row": (lambda m: m.addqrows([([], [])]), "structure"),
    "removal": (lambda m: m.remove(QCONSTR, [0]), "structure"),
}


@pytest.mark.parametrize("change", CHANGES)
def test_every_change_is_told_and_outdates_the_solution(solved, change):
    make, flag = CHANGES[change]
    make(solved)
    solved.update()
    told = solved.changes()
    assert [key for key, value in told.items() if value] == [flag]
    assert solved.int("Status") == NOT_SOLVED
    assert solved.data()["start"].tolist() == [3.0, 1.0]


def test_what_changes_nothing_keeps_the_solution(solved):
    solved.setqobjective([], [(1, 1, 0.5), (0, 0, 1.0), (1, 1, 0.5)])
    solved.setdbls("QRHS", [0], 2.0)
    solved.remove(QCONSTR, [solved.addqrows([([], [])])])
    solved.update()
    assert solved.int("Status") == OPTIMAL
    assert not solved.changes()["quadratic"]


def test_results_of_quadratic_rows(solved):
    assert solved.dbls("QPi", [0]).tolist() == [1.5]
    assert solved.dbls("QSlack", [0]).tolist() == [2.0 - (3.0 + 3.0)]
    solved.setdbls("QRHS", [0], 7.0)
    assert solved.dbls("QSlack", [0]).tolist() == [1.0]
    solved.addqrows([([], [])])
    message = "QPi: the quadratic row Q1 was added after the last solve; call optimize\\(\\) first"
    with pytest.raises(StoreError, match=message) as caught:
        solved.dbls("QPi", range(2))
    assert caught.value.code == NO_DATA


def test_multipliers_that_nobody_writes_are_zero(solved):
    solved.solved([3.0, 1.0], rc=[0.0, 0.0])
    assert solved.dbls("QPi", [0]).tolist() == [0.0]


def test_a_solution_opened_before_rows_came_is_refused(solved):
    solved.opensolution([0.0, 0.0])
    solved.addqrows([([], [])])
    solved.update()
    with pytest.raises(StoreError, match="2 variables, 0 rows and 1 quadratic rows; the model has 2, 0 and 2"):
        solved.commitsolution(has_x=True)


def test_views_of_sides_outlive_the_model():
    m = Store()
    n = 100_000
    m.addvars(1)
    m.addqrowarrays([0] * (n + 1), None, None, None, None, None, NONE_F, ">", np.arange(float(n)))
    m.update()
    data, pin = Data(), c.c_void_p()
    m.call("TRVgetdata", c.byref(data))
    m.call("TRVpin", c.byref(pin))
    rhs, sense = np.ctypeslib.as_array(data.qrhs, (n,)), data.qsense
    m.addqrows([([], [])] * 3)
    m.remove(QCONSTR, np.arange(5))
    m.update()
    del m
    assert rhs[-1] in (n - 1.0, 0.0)  # old values or new ones, but readable
    assert sense[n - 1] in b"<>"
    lib.TRVunpin(pin)
