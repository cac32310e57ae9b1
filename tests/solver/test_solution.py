"""The life of a solution, what the next solve may start from, and the check of its residuals."""

import math

import numpy as np
import pytest

from solver.store import CONSTR, INF, INFEASIBLE, INVALID, NO_DATA, NOT_SOLVED, OPTIMAL, VAR, Store, StoreError

NAN = float("nan")


@pytest.fixture
def store():
    """max 3x + 2y: x + y <= 4, x + 3y <= 6, 0 <= x <= 3. Optimum x = 3, y = 1, 11; Pi = (2, 0), RC = (1, 0)."""
    m = Store()
    m.addvars(2, ub=[3.0, INF])
    m.addrows([{0: 1.0, 1: 1.0}, {0: 1.0, 1: 3.0}], upper=[4.0, 6.0])
    m.setobjective([(0, 3.0), (1, 2.0)], sense=-1)
    m.update()
    return m


def solve(m):
    m.solved([3.0, 1.0], rc=[1.0, 0.0], pi=[2.0, 0.0], objval=11.0, bound=11.0)


def nodata(message, call):
    with pytest.raises(StoreError) as caught:
        call()
    assert (caught.value.code, str(caught.value)) == (NO_DATA, message)


def test_a_committed_solution_is_read_by_id(store):
    solve(store)
    assert store.int("Status") == OPTIMAL
    assert [store.dbls(a, [1, 0]).tolist() for a in ("X", "RC", "Pi", "Slack")] == [[1, 3], [0, 1], [0, 2], [0, 0]]
    assert [store.dbl(a) for a in ("ObjVal", "ObjBound", "Gap", "Runtime", "IterCount", "NodeCount")] == [
        11,
        11,
        0,
        0.5,
        3,
        1,
    ]
    assert store.str("EngineName") == "E 1"


def test_the_gap_is_relative_to_the_value(store):
    store.solved([0, 0], objval=-8.0, bound=-10.0)
    assert store.dbl("Gap") == 0.25
    store.solved([0, 0], objval=-8.0, bound=-10.0, gap=0.5)
    assert store.dbl("Gap") == 0.5
    store.solved([0, 0], objval=3.0)
    nodata("Gap: the last solve ended with Status OPTIMAL and left no value", lambda: store.dbl("Gap"))


def test_a_solution_stays_readable_until_an_update_applies_a_change(store):
    solve(store)
    store.update()
    assert store.dbls("X", range(2)).tolist() == [3, 1]
    store.setdbls("UB", [0], 2.0)
    assert store.dbls("X", range(2)).tolist() == [3, 1]
    store.update()
    assert store.int("Status") == NOT_SOLVED
    for name in ("X", "RC"):
        message = f"{name}: the model has changed since the last solve (Status NOT_SOLVED); call optimize() first"
        nodata(message, lambda name=name: store.dbls(name, [0]))
    nodata(
        "EngineName: the model has changed since the last solve (Status NOT_SOLVED); call optimize() first",
        lambda: store.str("EngineName"),
    )
    assert store.data()["start"].tolist() == [3, 1]


CHANGES = {
    "bound": lambda m: m.setdbls("LB", [1], 1.0),
    "cost": lambda m: m.setdbls("Obj", [1], 1.0),
    "side": lambda m: m.setdbls("RHS", [1], 1.0),
    "sense": lambda m: m.setchars("Sense", [1], ">"),
    "type": lambda m: m.setchars("VType", [1], "I"),
    "coefficient": lambda m: m.setcoefs([0], [0], [5.0]),
    "objective": lambda m: m.setobjective([(0, 3.0), (1, 2.0)], constant=1.0),
    "direction": lambda m: m.setobjective([(0, 3.0), (1, 2.0)], sense=1),
    "variable": lambda m: m.addvars(1),
    "row": lambda m: m.addrows([{}]),
    "removal": lambda m: m.remove(CONSTR, [0]),
}


@pytest.mark.parametrize("change", CHANGES)
def test_every_change_outdates_the_solution(store, change):
    solve(store)
    CHANGES[change](store)
    store.update()
    assert store.int("Status") == NOT_SOLVED


def test_what_changes_nothing_keeps_the_solution(store):
    solve(store)
    store.setdbls("UB", [0], 3.0)
    store.setdbls("RHS", [0], 4.0)
    store.setcoefs([0], [0], [1.0])
    store.setobjective([(0, 3.0), (1, 2.0)])
    store.setdbls("Start", [0], 1.0)
    store.setstrs("VarName", [0], ["x"])
    store.remove(VAR, [store.addvars(1)])
    store.update()
    assert store.int("Status") == OPTIMAL


def test_elements_added_after_the_solve_have_no_values(store):
    solve(store)
    store.addvars(1)
    store.addrows([{0: 1.0}])
    message = "{}: the {} was added after the last solve; call optimize() first"
    nodata(message.format("X", "variable C2"), lambda: store.dbls("X", range(3)))
    nodata(message.format("Pi", "row R2"), lambda: store.dbls("Pi", [0, 2]))
    nodata(message.format("Slack", "row R2"), lambda: store.dbls("Slack", [0, 2]))


def test_models_with_integers_have_no_duals(store):
    store.setchars("VType", [0], "I")
    store.update()
    nodata(
        "Pi: the model has no solution yet (Status NOT_SOLVED); call optimize() first", lambda: store.dbls("Pi", [0])
    )
    store.solved([3.0, 1.0], objval=11.0)
    nodata(
        "Pi: there are no duals of a model with integer variables; "
        "those of fixed(), the model with these fixed at their values, can be asked for once that is solved",
        lambda: store.dbls("Pi", [0]),
    )


def test_slack_follows_the_coefficients_and_sides_of_now(store):
    solve(store)
    assert store.dbls("Slack", [0]).tolist() == [0.0]
    store.setcoefs([0], [1], [2.0])
    store.setdbls("RHS", [0], 9.0)
    assert store.dbls("Slack", [0]).tolist() == [4.0]


def test_a_solve_without_values_leaves_its_status(store):
    solve(store)
    store.commitsolution(status=INFEASIBLE)
    assert store.int("Status") == INFEASIBLE
    nodata("X: the last solve ended with Status INFEASIBLE and left no value", lambda: store.dbls("X", [0]))
    assert store.data()["start"].tolist() == [3, 1]


def test_an_open_solution_does_not_disturb_the_last_one(store):
    solve(store)
    store.opensolution([7.0, 7.0])
    assert store.dbls("X", [0]).tolist() == [3.0]
    store.commitsolution(has_x=True)
    assert store.dbls("X", [0]).tolist() == [7.0]


@pytest.mark.parametrize(
    ("before", "arguments", "message"),
    [
        (lambda m: None, {"has_x": True}, "no solution is open"),
        (lambda m: None, {"status": 0}, "status 0 is not the outcome of a solve"),
        (
            lambda m: (m.opensolution(), m.addvars(1), m.update()),
            {"has_x": True},
            "the solution was opened for 2 variables, 2 rows and 0 quadratic rows; the model has 3, 2 and 0",
        ),
    ],
)
def test_what_cannot_be_committed_is_refused(store, before, arguments, message):
    before(store)
    with pytest.raises(StoreError) as caught:
        store.commitsolution(**arguments)
    assert (caught.value.code, str(caught.value)) == (INVALID, message)
    assert store.int("Status") == NOT_SOLVED


def test_start_is_merged_with_the_last_solution(store):
    assert store.data()["start"] is None
    store.setdbls("Start", [1], 9.0)
    np.testing.assert_equal(store.data()["start"], [NAN, 9.0])
    np.testing.assert_equal(store.dbls("Start", range(2)), [NAN, 9.0])
    solve(store)
    store.remove(VAR, [0])
    v = store.addvars(2)
    store.setdbls("Start", [v], 5.0)
    store.update()
    np.testing.assert_equal(store.data()["start"], [9.0, 5.0, NAN])
    store.setdbls("Start", [1], NAN)
    np.testing.assert_equal(store.data()["start"], [1.0, 5.0, NAN])


# ---- residuals -----------------------------------------------------------------------------------------------------


def test_an_optimal_solution_has_no_residuals(store):
    solve(store)
    r = store.check(has_duals=True)
    assert [r.row, r.bound, r.integral, r.dual, r.complementarity] == [0.0] * 5
    assert [r.worstrow, r.worstbound, r.worstintegral, r.worstdual, r.worstcomplementarity] == [-1] * 5


def test_violations_name_the_worst_element(store):
    store.setchars("VType", [1], "I")
    store.update()
    store.opensolution([3.5, 1.25])
    r = store.check()
    assert (r.row, r.worstrow, r.rowscale) == (1.25, 1, 7.0)  # 7.25 > 6, against 4.75 > 4
    assert (r.bound, r.worstbound, r.boundscale) == (0.5, 0, 4.0)
    assert (r.integral, r.worstintegral) == (0.25, 1)


def test_violations_are_weighed_by_their_scale():
    m = Store()
    m.addvars(2, lb=-INF)
    m.addrows([{0: 1e6}, {1: 1.0}], lower=[1e9, 1.0], upper=INF)
    m.update()
    m.opensolution([1e3 - 1e-8, 1.0 - 1e-3])
    r = m.check()
    assert r.worstrow == 1
    assert r.row == pytest.approx(1e-3)
    assert r.rowscale == 2.0


def test_semicontinuous_variables_may_be_zero():
    m = Store()
    m.addvars(3, lb=2.0, ub=5.0, vtype="S")
    m.update()
    m.opensolution([0.0, 3.0, 0.5])
    r = m.check()
    assert (r.bound, r.worstbound) == (0.5, 2)


def test_what_is_not_a_number_is_infinitely_wrong(store):
    store.opensolution([NAN, 1.0], [0.0, 0.0], [0.0, 0.0])
    r = store.check(has_duals=True)
    assert [r.row, r.bound, r.complementarity] == [INF, INF, 0.0]
    assert (r.worstrow, r.worstbound) == (0, 0)


@pytest.mark.parametrize(
    ("rc", "pi", "dual", "worst"),
    [
        ([1.0, 0.0], [2.0, 0.0], 0.0, -1),
        ([2.0, 0.0], [2.0, 0.0], 1.0, 0),  # 3 - 2 - 2
        ([1.0, 4.0], [2.0, 0.0], 4.0, 1),  # y has no upper bound: the sign is wrong too
        ([5.0, 4.0], [-2.0, 0.0], 4.0, 1),  # the row has no lower side
    ],
)
def test_dual_residuals_in_a_maximisation(store, rc, pi, dual, worst):
    store.opensolution([3.0, 1.0], rc, pi)
    r = store.check(has_duals=True)
    assert (r.dual, r.worstdual) == (dual, worst)


def test_signs_of_duals_in_a_minimisation():
    """min 2x + y: x + y >= 3, y <= 2. x = 1, y = 2, Pi = 2, RC = (0, -1)."""
    m = Store()
    m.addvars(2, ub=[INF, 2.0], obj=[2.0, 1.0])
    m.addrows([{0: 1.0, 1: 1.0}], lower=3.0)
    m.update()
    m.opensolution([1.0, 2.0], [0.0, -1.0], [2.0])
    assert m.check(has_duals=True).dual == 0.0
    m.opensolution([1.5, 2.0], [0.0, -1.0], [2.0])
    r = m.check(has_duals=True)
    assert (r.complementarity, r.worstcomplementarity, r.complementarityscale) == (
        1.0,
        2,
        4.0,
    )  # 2 * 0.5; nvars + row 0


def test_check_wants_a_solution(store):
    nodata("check: there is no solution to check", store.check)
    store.solved([3.0, 1.0])
    nodata("check: the solution has no duals", lambda: store.check(has_duals=True))
    assert math.isnan(store.check().row) is False
