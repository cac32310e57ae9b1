"""Nonlinear rows and objectives on the face of the model: what is added, refused, removed, read and solved."""

import math

import numpy as np
import pytest

import tarvopy
from tarvopy import TRV, MNLConstr, NLConstr, NLExpr, NoDataError, TarvoError, nlfunc
from tarvopy.problem import Changes, Problem


@pytest.fixture
def m():
    with tarvopy.Model() as model:
        model.params.LogLevel = 0
        yield model


@pytest.fixture
def xy(m):
    return m.addVar(lb=-3, ub=3, name="x"), m.addVar(lb=-3, ub=3, name="y")


def refused(call, text, code=TRV.ERROR_INVALID_ARGUMENT):
    with pytest.raises(TarvoError) as caught:
        call()
    assert (str(caught.value), caught.value.code) == (text, code)


def problem(m):
    m.update()
    return Problem.of(m._cmodel)


# ---- rows


def test_every_side_may_be_the_nonlinear_one(m, xy):
    """Rows in all senses: what is a constant goes to the side, whichever it came from."""
    x, y = xy
    rows = [
        m.addConstr(nlfunc.exp(x) + 1 <= 3, name="a"),
        m.addConstr(x >= nlfunc.sin(y) + 2),
        m.addConstr(nlfunc.cos(x) == x * y + 4),
        m.addConstr(y * y * y >= 5 - 0 * x),
        m.addRange(nlfunc.exp(x) - 1, -2, 6),
    ]
    assert all(type(row) is NLConstr for row in rows)
    p = problem(m)
    assert (p.nnlrows, p.nrows, p.nqrows, m.NumNLConstrs) == (5, 0, 0, 5)
    inf = np.inf
    assert (p.nllower.tolist(), p.nlupper.tolist()) == ([-inf, 2, 4, 5, -1], [2, inf, 4, inf, 7])
    assert [row.NLName for row in rows] == ["a", "N1", "N2", "N3", "N4"]
    assert m.getNLConstrs() == rows
    rows[1].NLName = "renamed"
    assert p.nlrow_name(1) == "renamed"


def test_linear_rows_beside_nonlinear_ones_stay_linear(m, xy):
    x, y = xy
    m.addConstr(x + y <= 1)
    m.addConstr(x * y <= 1)
    m.addConstr(x * y * y <= 1)
    assert (m.NumConstrs, m.NumQConstrs, m.NumNLConstrs) == (1, 1, 1)


def test_an_infinite_side_is_none_or_can_never_hold(m, xy):
    x, _ = xy
    m.addConstr(nlfunc.exp(x) <= np.inf)
    m.addRange(nlfunc.exp(x), -np.inf, 1e20)
    p = problem(m)
    assert (p.nllower.tolist(), p.nlupper.tolist()) == ([-np.inf] * 2, [np.inf] * 2)
    side = "side of the nonlinear constraint N2 is"
    refused(lambda: m.addConstr(nlfunc.exp(x) <= -np.inf), f"the upper {side} -inf: no value meets it")
    refused(lambda: m.addRange(x**3, np.inf, np.inf), f"the lower {side} inf: no value meets it")
    with pytest.raises(TarvoError, match="is nan"):
        m.addConstr(nlfunc.exp(x) >= np.nan)
    assert m.NumNLConstrs == 2


def constant(value):
    return NLExpr(float(value))


BROKEN = [
    (lambda: nlfunc.log(constant(-1)), "log of the constant -1 has no finite value"),
    (lambda: nlfunc.sqrt(constant(2) - 3), "sqrt of the constant -1 has no finite value"),
    (lambda: constant(-8) ** 0.5, "pow of the constants -8 and 0.5 has no finite value"),
    (lambda: nlfunc.exp(constant(1000)), "exp of the constant 1000 has no finite value"),
]


@pytest.mark.parametrize(("make", "text"), BROKEN, ids=[text for _, text in BROKEN])
def test_constants_without_a_value_are_refused_with_the_row_named(m, xy, make, text):
    x, _ = xy
    broken = make()
    refused(lambda: m.addConstr(nlfunc.sin(x) + broken <= 1, name="r"), f"the nonlinear constraint r: {text}")
    refused(lambda: m.addConstr(x * broken <= 1), f"the nonlinear constraint N0: {text}")
    refused(lambda: m.setObjective(nlfunc.sin(x) + broken), f"objective: {text}")
    assert (m.NumNLConstrs, problem(m).nnlobj) == (0, 0)


def test_a_division_by_a_constant_zero_is_refused_with_the_row_named(m, xy):
    x, _ = xy
    zero = constant(1) - 1
    text = "the nonlinear constraint r: a division by the constant 0"
    refused(lambda: m.addConstr(nlfunc.exp(x) / zero <= 1, name="r"), text)


def test_bad_comparisons_change_nothing(m, xy):
    x, _ = xy
    with tarvopy.Model() as other:
        z = other.addVar()
        for bad in (nlfunc.exp(z) <= 1, nlfunc.exp(x) <= z, nlfunc.exp(x) + nlfunc.exp(z) >= 0):
            with pytest.raises(TarvoError) as caught:
                m.addConstr(bad)
            assert caught.value.code == TRV.ERROR_NOT_IN_MODEL
        with pytest.raises(TarvoError):
            m.setObjective(nlfunc.exp(z))
    with pytest.raises(TypeError, match="an expression alone is no constraint"):
        m.addConstr(nlfunc.exp(x))
    with pytest.raises(ValueError, match="name"):
        m.addConstr(nlfunc.exp(x) <= 1, name=["a", "b"])
    m.remove(x)
    with pytest.raises(TarvoError, match="removed"):
        m.addConstr(nlfunc.exp(x) <= 1)
    assert m.NumNLConstrs == 0


def test_depth_is_no_matter(m, xy):
    x, _ = xy
    deep = nlfunc.sin(x)
    for _ in range(20_000):
        deep = -nlfunc.abs(deep)
    row = m.addConstr(deep <= 1)
    assert problem(m).nnlcodes == 40_002
    m.remove(row)
    assert problem(m).nnlcodes == 0


# ---- arrays


def test_arrays_give_matrix_handles_of_the_broadcast_shape(m):
    x = m.addMVar((2, 3), ub=3, name="x")
    for comparison, shape in (
        (nlfunc.exp(x) <= 3, (2, 3)),
        (nlfunc.exp(x[0]) + x >= np.ones((4, 2, 1)), (4, 2, 3)),
        (nlfunc.sin(x[0, 0]) == x[1], (3,)),  # scalar and array
        (nlfunc.exp(x).sum() <= 8, ()),
        (x * x <= nlfunc.exp(x), (2, 3)),
    ):
        handle = m.addConstr(comparison)
        assert (type(handle), handle.shape) == (MNLConstr, shape)
    assert m.NumNLConstrs == 6 + 24 + 3 + 1 + 6
    with pytest.raises(ValueError, match=r"\(2,3\) \(4,\)"):
        m.addConstr(nlfunc.exp(x) <= np.ones(4))
    handle = m.addConstr(nlfunc.exp(x) <= [[1], [np.inf]], name="cap")
    m.update()
    assert handle.NLName.tolist() == [[f"cap[{i},{j}]" for j in range(3)] for i in range(2)]
    assert problem(m).nlupper[-6:].tolist() == [1] * 3 + [np.inf] * 3
    assert m.getNLConstrs()[-1] is handle[1, 2]
    m.remove(handle[0])
    m.update()
    assert [row.NLName for row in m.getNLConstrs()[-3:]] == ["cap[1,0]", "cap[1,1]", "cap[1,2]"]


def test_ranges_of_arrays(m):
    x = m.addMVar(3, name="x")
    handle = m.addRange(nlfunc.exp(x) + 1, [1, 2, 3], 9)
    assert (type(handle), handle.shape) == (MNLConstr, (3,))
    assert m.addRange(nlfunc.exp(x[0].item()), [0, 1], 2).shape == (2,)
    p = problem(m)
    assert (p.nllower.tolist(), p.nlupper.tolist()) == ([0, 1, 2, 0, 1], [8, 8, 8, 2, 2])


def test_the_element_of_an_array_that_has_no_value_is_named(m):
    x = m.addMVar(3)
    bad, text = nlfunc.exp(x) / np.array([1.0, 0.0, 0.0]), "a division by the constant 0"
    refused(lambda: m.addConstr(bad <= 1, name="r"), f"the nonlinear constraint r[1]: {text}")
    refused(lambda: m.addConstr(bad <= 1), f"the nonlinear constraint N1 (element 1 of 3): {text}")


def test_an_array_of_one_element_is_an_objective(m):
    x = m.addMVar(3, lb=1, ub=2)
    m.setObjective(nlfunc.exp(x).sum())
    assert problem(m).nnlobj > 0
    m.setObjective(nlfunc.exp(x[:1]) + 3)
    assert (problem(m).nnlobj, m.ObjConstant) == (2, 3.0)
    with pytest.raises(ValueError, match=r"an objective has one element, not shape \(3,\): sum it"):
        m.setObjective(nlfunc.exp(x))


def test_values_of_arrays_after_a_solve(m):
    """Minimum of the sum of exp(x) - 2 x in [0, 2]^3 at log 2, rows x_i + sin(x_i) <= 1.4 being slack."""
    x = m.addMVar(3, ub=2)
    row = m.addConstr(nlfunc.sin(x) + x <= 1.4)
    cost = nlfunc.exp(x) - 2 * x
    m.setObjective(cost.sum())
    m.optimize()
    np.testing.assert_allclose(x.X, np.log(2), atol=1e-2)
    np.testing.assert_allclose(cost.getValue(), np.exp(x.X) - 2 * x.X, rtol=1e-12)
    assert cost.getValue().sum() == pytest.approx(m.ObjVal, rel=1e-12)
    np.testing.assert_allclose(row.NLSlack, 1.4 - x.X - np.sin(x.X), rtol=1e-9)


# ---- removal


def test_a_variable_goes_after_what_it_stands_in(m, xy):
    x, y = xy
    row = m.addConstr(nlfunc.exp(x) + y <= 2, name="r")
    refused(lambda: m.remove(x), "remove: the variable x stands in the nonlinear constraint r; remove that first")
    m.setObjective(nlfunc.sin(x))
    m.remove(row)
    refused(lambda: m.remove(x), "remove: the variable x stands in the nonlinear objective; replace that first")
    m.setObjective(2 * y)
    m.remove([x, y])
    m.update()
    assert (m.NumVars, m.NumNLConstrs) == (0, 0)
    with pytest.raises(TarvoError, match="removed"):
        row.NLName


def test_a_list_of_removals_goes_together_or_not_at_all(m, xy):
    x, y = xy
    row, other = m.addConstr(nlfunc.exp(x) <= 2), m.addConstr(nlfunc.exp(x) + nlfunc.exp(y) <= 3, name="other")
    text = "remove: the variable x stands in the nonlinear constraint other; remove that first"
    refused(lambda: m.remove([x, row]), text)
    m.update()
    assert m.NumNLConstrs == 2
    m.remove([x, y, [row, other], row])
    m.update()
    assert (m.NumVars, m.NumNLConstrs) == (0, 0)


def test_a_linear_term_goes_with_its_variable(m, xy):
    x, y = xy
    m.addConstr(nlfunc.exp(x) + 5 * y >= 2)
    m.remove(y)
    m.setObjective(x)
    m.optimize()
    assert math.exp(x.X) == pytest.approx(2)


# ---- the objective


def test_an_objective_takes_the_place_of_any_other(m, xy):
    x, y = xy
    m.setObjective(x * x + 3 * y + 1)
    m.setObjective(nlfunc.exp(x) + 2 * y + 7 - 4 * x, TRV.MAXIMIZE)
    p = problem(m)
    assert (p.nqobj, p.nnlobj > 0, m.ObjConstant, x.Obj, y.Obj, m.ModelSense) == (0, True, 7.0, -4.0, 2.0, -1)
    m.setObjective(x * y)
    p = problem(m)
    assert (p.nqobj, p.nnlobj, m.ObjConstant, x.Obj) == (1, 0, 0.0, 0.0)
    m.setObjective(nlfunc.exp(x))
    m.setObjective(3.0)
    assert problem(m).nnlobj == 0


def test_a_failed_objective_leaves_the_old_one(m, xy):
    x, _ = xy
    m.setObjective(nlfunc.exp(x) + x)
    before = problem(m).nnlobj
    for bad in (lambda: nlfunc.log(constant(0)), lambda: nlfunc.exp(tarvopy.Model().addVar())):
        with pytest.raises(TarvoError):
            m.setObjective(bad())
    assert (problem(m).nnlobj, x.Obj) == (before, 1.0)


# ---- engines and answers


def test_what_changes_makes_the_engine_load_anew(m, xy):
    x, _ = xy
    for change in (
        lambda: m.addConstr(nlfunc.exp(x) <= 2),
        lambda: m.setObjective(nlfunc.exp(x)),
        lambda: m.setObjective(nlfunc.exp(x) + nlfunc.sin(x)),
        lambda: m.remove(m.getNLConstrs()),
        lambda: m.setObjective(x),
    ):
        m.update()
        Changes.clear(m._cmodel)
        change()
        m.update()
        assert Changes.of(m._cmodel).structure


def test_scip_is_picked_and_says_why(m, xy):
    x, y = xy
    m.addConstr(nlfunc.exp(x) + y * y <= 5)
    m.addConstr(x * y <= 1)
    m.setObjective(x + nlfunc.sin(y), TRV.MAXIMIZE)
    m.optimize()
    assert m.why_engine == "SCIP: nonlinear objective, 1 nonlinear row, 1 quadratic row, all variables continuous"
    m.setObjective(x)
    m.addVar(vtype="I")
    m.prepare()
    assert m.why_engine == "SCIP: 1 nonlinear row, 1 quadratic row, 1 integer variable"


@pytest.mark.parametrize("engine", ["highs", "clarabel"])
def test_engines_of_linear_and_convex_models_refuse(m, xy, engine):
    x, _ = xy
    m.setObjective(nlfunc.exp(x))
    m.addConstr(nlfunc.sin(x) <= 1)
    m.addConstr(nlfunc.cos(x) <= 1)
    m.params.Engine = engine
    name = {"highs": "HiGHS", "clarabel": "Clarabel"}[engine]
    refused(
        m.optimize,
        f"{name} cannot take this model: nonlinear objective, 2 nonlinear rows",
        TRV.ERROR_UNSUPPORTED,
    )


def test_the_solution_of_a_nonlinear_model(m):
    """min (x - 2)^4 + exp(y): log(x) + y >= 1, x in [1, 4]: values of expressions, slack and objective agree."""
    x, y = m.addVar(lb=1, ub=4, name="x"), m.addVar(lb=-5, ub=5, name="y")
    row = m.addConstr(nlfunc.log(x) + y >= 1, name="r")
    cost = (x - 2) ** 4 + nlfunc.exp(y)
    m.setObjective(cost)
    m.optimize()
    assert m.Status == TRV.OPTIMAL
    # On the row y = 1 - log(x), so that the cost is (x - 2)^4 + e/x: bisection on its derivative.
    low, high = 2.0, 3.0
    for _ in range(60):
        middle = (low + high) / 2
        low, high = (middle, high) if 4 * (middle - 2) ** 3 < math.e / middle**2 else (low, middle)
    best = (low - 2) ** 4 + math.e / low
    assert pytest.approx(best, rel=1e-3) == m.ObjVal
    assert m.ObjVal == pytest.approx(cost.getValue(), rel=1e-12)
    assert row.NLSlack == pytest.approx(1 - math.log(x.X) - y.X, abs=1e-12)
    assert abs(row.NLSlack) < 1e-5
    report = m.report()
    assert report.holds
    assert {o.kind for o in report["rows"].offenders} <= {"nonlinear row"}
    for read in (lambda: x.RC, lambda: m.addConstr(x + y <= 9).Pi):
        with pytest.raises(NoDataError):
            read()
    with pytest.raises(NoDataError) as caught:
        x.RC
    text = "the model is nonlinear (nonlinear objective, 1 nonlinear row, all variables continuous)"
    assert str(caught.value) == f"RC: there are no duals: {text}"


def test_an_answer_that_breaks_a_nonlinear_row_is_imprecise(m, xy, monkeypatch):
    from tarvopy.engines.scip import ScipEngine

    x, _ = xy
    m.addConstr(nlfunc.exp(x) <= 1, name="cap")
    m.setObjective(x, TRV.MAXIMIZE)
    honest = ScipEngine.write_solution

    def write(self, outcome, values, *others):
        honest(self, outcome, values, *others)
        values[0] += 1.0

    monkeypatch.setattr(ScipEngine, "write_solution", write)
    with pytest.warns(RuntimeWarning, match="violation of the sides of nonlinear row cap by 1.72"):
        m.optimize()
    assert m.Status == TRV.IMPRECISE


def test_without_variables_rows_of_constants_hold_or_do_not(m):
    m.addConstr(nlfunc.exp(constant(1)) <= 2.7183)
    m.setObjective(nlfunc.exp(constant(0)) + 2)
    m.optimize()
    assert (m.Status, m.ObjVal, m.why_engine) == (TRV.OPTIMAL, 3.0, "tarvopy: the model has no variables")
    row = m.addConstr(constant(2) ** 3 >= 8.1)
    m.optimize()
    assert m.Status == TRV.INFEASIBLE
    m.remove(row)
    m.optimize()
    assert m.Status == TRV.OPTIMAL


def test_sides_that_cross_are_named(m, xy):
    x, _ = xy
    m.addRange(nlfunc.exp(x), 3, 2, name="r")
    m.optimize()
    assert (m.Status, m.why_engine) == (TRV.INFEASIBLE, "tarvopy: the sides of nonlinear row 'r' cross")


@pytest.mark.parametrize("ending", ["lp", "mps"])
def test_files_that_cannot_say_it_are_not_written(m, xy, tmp_path, ending):
    x, _ = xy
    m.addConstr(nlfunc.exp(x) <= 2, name="r")
    path = tmp_path / f"a.{ending}"
    with pytest.raises(TarvoError, match="nonlinear") as caught:
        m.write(path)
    assert (caught.value.code, path.exists()) == (TRV.ERROR_UNSUPPORTED, False)


# ---- copies


def test_copies_keep_nonlinear_parts(m):
    """Ids move, since a variable and its row are gone; the same answer once n, integral, is fixed."""
    gone, n = m.addVar(), m.addVar(lb=2, ub=5, vtype="I", name="n")
    x, y = m.addVar(lb=0.5, ub=4, name="x"), m.addVar(lb=0.5, ub=4, name="y")
    m.addConstr(nlfunc.sqrt(gone) <= 1)
    m.addConstr(nlfunc.exp(x) + 2 * n <= 12, name="r")
    m.addConstr(x * y * y <= 3)
    m.setObjective((x - n) ** 4 - nlfunc.log(y) + 3 * n)
    m.update()
    m.remove([gone, m.getNLConstrs()[0]])
    m.optimize()
    fixed, relaxed = m.fixed(), m.relax()
    assert [row.NLName for row in fixed.getNLConstrs()] == ["r", "N2"]
    for copy in (fixed, relaxed):
        copy.optimize()
        assert copy.Status == TRV.OPTIMAL
    assert fixed.ObjVal == pytest.approx(m.ObjVal, abs=1e-3)
    assert relaxed.ObjVal <= m.ObjVal + 1e-3
