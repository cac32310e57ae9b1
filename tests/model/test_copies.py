"""relax() and fixed(): new models from a model, whose files and answers say whether they are the same."""

import numpy as np
import pytest

import tarvopy
from tarvopy import TRV, NoDataError, TarvoError, genfunc


@pytest.fixture
def m():
    model = tarvopy.Model("origin")
    model.params.LogLevel = 0
    return model


def text(model, path):
    model.write(path)
    return path.read_text()


def fill(m, seed):
    """Rows of all kinds over continuous variables, some elements removed, renamed or without a name."""
    rng = np.random.default_rng(seed)
    x, y = m.addMVar((3, 4), lb=-1, ub=rng.uniform(1, 9, (3, 4)), name="x"), m.addMVar(5, obj=2.0)
    z = m.addVar(lb=-np.inf, name="alone")
    A = rng.integers(-3, 4, (40, 5)) * (rng.random((40, 5)) < 0.5)
    rows = m.addConstr(A @ y <= rng.integers(0, 9, 40).astype(float))
    named = m.addConstr(x.sum(axis=0) + z >= 1, name="column")
    m.addConstr(2 * z + y[0] == 3, name="pair")
    m.addRange(x[0] - y[0], -4, 4)
    quadratic = m.addConstr(x[0] * x[1] + y[0] <= 7, name="q")
    m.addConstr(z * z - y[1] >= -8)
    m.setObjective(x.sum() + 3 * y[2] * y[2] - z * x[0, 0] + 5, TRV.MAXIMIZE)
    m.update()
    free = m.addConstr(x[1] >= -np.inf, name="free")
    m.remove([x[1, 1], y[3], rows[4:9], named[1], quadratic[0]])
    m.addVar(ub=4.0)
    m.update()
    free[0].ConstrName, x[2, 2].VarName, x[2, 3].Start = "renamed", "also_renamed", 0.5
    m.update()
    return free


@pytest.mark.parametrize("ending", ["lp", "mps"])
@pytest.mark.parametrize("seed", range(3))
def test_a_continuous_model_is_its_own_relaxation(m, tmp_path, ending, seed):
    free = fill(m, seed)
    copy = m.relax()
    assert text(copy, tmp_path / f"copy.{ending}") == text(m, tmp_path / f"origin.{ending}")
    assert (copy.ModelName, copy.ModelSense, copy.ObjConstant) == ("origin", TRV.MAXIMIZE, 5.0)
    for kind, attribute in (("Vars", "VarName"), ("Constrs", "ConstrName"), ("QConstrs", "QName")):
        names = [[getattr(e, attribute) for e in getattr(model, "get" + kind)()] for model in (m, copy)]
        assert names[0] == names[1]
    row = copy.getConstrByName("renamed")
    assert (row.Sense, row.RHS, free[0].Sense) == (">", -np.inf, ">")
    starts = [[v.Start for v in model.getVars()] for model in (m, copy)]
    np.testing.assert_array_equal(starts[0], starts[1])


def test_a_copy_has_nothing_in_common_with_its_origin(m):
    x = m.addMVar(3, vtype="I", ub=5, name="x")
    row = m.addConstr(np.ones(3) @ x <= 4)
    m.params.TimeLimit, m.params.EngineOptions = 7, {"presolve": "off"}
    copy = m.relax()
    copy.params.EngineOptions["parallel"] = "off"
    assert (copy.params.TimeLimit, m.params.EngineOptions) == (7, {"presolve": "off"})
    copy.getVarByName("x[0]").UB = 1
    copy.getConstrs()[0].RHS = 1
    assert (x[0].UB, row.RHS) == (5, 4)
    with pytest.raises(TarvoError, match="another model"):
        copy.addConstr(x[0] <= 1)
    m.close()
    copy.optimize()
    assert copy.Status == TRV.OPTIMAL
    with pytest.raises(TarvoError) as caught:
        m.relax()
    assert caught.value.code == TRV.ERROR_CLOSED


def test_relaxation_of_each_type_of_variable(m):
    for vtype, lb, ub in (("B", 0, 1), ("I", -2.5, 2.5), ("S", 2, 6), ("S", -6, -2), ("S", -1, 1), ("C", 1, 2)):
        m.addVar(lb, ub, vtype=vtype)
    relaxed = m.relax()
    assert [(v.VType, v.LB, v.UB) for v in relaxed.getVars()] == [
        *[("C", 0, 1), ("C", -2.5, 2.5), ("C", 0, 6), ("C", -6, 0), ("C", -1, 1), ("C", 1, 2)]
    ]


def test_the_relaxation_of_a_knapsack_is_its_bound(m):
    """max 8 a + 11 b + 6 c + 4 d: 5 a + 7 b + 4 c + 3 d <= 14: 21 with b, c, d; relaxed 22, with half of c."""
    x = m.addMVar(4, vtype="B")
    row = m.addConstr(np.array([5.0, 7, 4, 3]) @ x <= 14)
    m.setObjective(np.array([8.0, 11, 6, 4]) @ x, TRV.MAXIMIZE)
    m.optimize()
    assert m.ObjVal == pytest.approx(21)
    with pytest.raises(NoDataError, match=r"^Pi: there are no duals of a model with integer variables; those of fixed"):
        row.Pi
    relaxed = m.relax()
    relaxed.optimize()
    assert relaxed.ObjVal == pytest.approx(22)
    assert relaxed.getConstrs()[0].Pi == pytest.approx(1.5)


def test_fixed_models_have_multipliers(m):
    """min 3 y + s + 0.1 n + 5 idle: y + s + 4 n + idle >= 7, n <= 1 integral, s, idle 0 or in [2, 9]: n = 1, s = 3."""
    n, idle = m.addVar(ub=1, vtype="I", name="n"), m.addVar(2, 9, vtype="S", obj=5.0, name="idle")
    y, s = m.addVar(obj=3.0, name="y"), m.addVar(2, 9, vtype="S", obj=1.0, name="s")
    n.Obj = 0.1
    row = m.addConstr(y + s + 4 * n + idle >= 7)
    m.optimize()
    assert (m.ObjVal, n.X, s.X) == (pytest.approx(3.1), 1, pytest.approx(3))
    fixed = m.fixed()
    assert [(v.VType, v.LB, v.UB) for v in fixed.getVars()] == [
        *[("C", 1, 1), ("C", 0, 0), ("C", 0, np.inf), ("C", 2, 9)]
    ]
    fixed.optimize()
    assert fixed.ObjVal == pytest.approx(3.1)
    assert [fixed.getConstrs()[0].Pi, fixed.getVars()[0].RC] == [pytest.approx(1.0), pytest.approx(-3.9)]
    row.RHS = 8
    with pytest.raises(NoDataError, match=r"the model has changed since the last solve \(Status NOT_SOLVED\)"):
        m.fixed()


def test_fixed_convex_quadratics_have_multipliers_too(m):
    """min (x - 2.5)^2 + (y - n)^2: x + y <= 2, n integral in [1, 3]. With n = 1 the point (2.5, 1) is 1.5 beyond the
    row, so that x and y give way by 0.75 each: 2 * 0.75^2, Pi -1.5.
    """
    x, y, n = m.addVar(lb=-9), m.addVar(lb=-9), m.addVar(lb=1, ub=3, vtype="I")
    m.addConstr(x + y <= 2)
    m.setObjective((x - 2.5) * (x - 2.5) + (y - n) * (y - n))
    m.optimize()
    assert m.ObjVal == pytest.approx(1.125, abs=1e-5)
    fixed = m.fixed()
    fixed.optimize()
    assert fixed.ObjVal == pytest.approx(1.125, abs=1e-6)
    assert fixed.getConstrs()[0].Pi == pytest.approx(-1.5, abs=1e-5)


def test_without_a_solution_nothing_can_be_fixed(m):
    x = m.addVar(vtype="I", ub=3)
    with pytest.raises(NoDataError, match=r"fixed\(\): the model has no solution yet \(Status NOT_SOLVED\)"):
        m.fixed()
    m.addConstr(2 * x == 1)
    m.optimize()
    with pytest.raises(NoDataError, match=r"fixed\(\): the last solve ended with Status INFEASIBLE and left no value"):
        m.fixed()


def test_the_native_half_writes_into_empty_models_only(m):
    m.addVar()
    other = tarvopy.Model()
    other.addVar()
    with pytest.raises(ValueError, match="the model to copy into is not empty"):
        m._relax_into(other)
    for wrong in (None, 3, m._cmodel):
        with pytest.raises(AttributeError):
            m._relax_into(wrong)


# ---- general constraints


def solved_fixed(m):
    """The fixed model, solved: it has linear rows only, and the optimum of its origin."""
    m.optimize()
    assert m.Status == TRV.OPTIMAL
    fixed = m.fixed()
    fixed.optimize()
    assert (fixed.Status, fixed.NumGenConstrs) == (TRV.OPTIMAL, 0)
    assert fixed.ObjVal == pytest.approx(m.ObjVal, abs=1e-5)
    return fixed


@pytest.mark.parametrize(
    ("function", "sense", "value", "price"), [("max", TRV.MINIMIZE, 4.0, 1.0), ("min", TRV.MAXIMIZE, 3.0, 0.0)]
)
def test_the_argument_that_decides_goes_on_deciding(m, function, sense, value, price):
    """y is max(a, b, 3) or min(a, b, 3) with a = 4 by a row and b in [3.25, 3.5]: a decides, or the number."""
    y, a, b = m.addVar(lb=-9, ub=9, name="y"), m.addVar(ub=9), m.addVar(lb=3.25, ub=3.5)
    row = m.addConstr(1 * a == 4)
    m.addConstr(y == getattr(genfunc, function)(a, b, 3.0), name="top")
    m.setObjective(1 * y, sense)
    fixed = solved_fixed(m)
    assert m.ObjVal == pytest.approx(value)
    prices = [c.Pi for c in fixed.getConstrs()]
    assert prices[row.index] == pytest.approx(price)


def test_absolute_values_and_pieces_are_lines_at_the_solution(m):
    """min |x| + f(x), f through (0, 4), (1, 0), (1, 2), (3, 3) for x <= -2 + 3 = 1 as a row: at x = 1 the jump."""
    x = m.addVar(lb=-5, ub=5, name="x")
    size, f = m.addVar(ub=9), m.addVar(lb=-9, ub=9)
    m.addConstr(size == genfunc.abs(x), name="size")
    m.addConstr(f == genfunc.pwl(x, [0, 1, 1, 3], [4, 0, 2, 3]), name="f")
    m.setObjective(size + f)
    row = m.addConstr(1 * x <= 0.5)
    fixed = solved_fixed(m)
    assert m.ObjVal == pytest.approx(2.5)  # on the first piece, of slope -4
    assert fixed.getConstrs()[row.index].Pi == pytest.approx(-3)
    row.RHS = 9
    assert solved_fixed(m).ObjVal == pytest.approx(1)  # at the jump
    row.Sense, row.RHS = ">", 2
    assert solved_fixed(m).getConstrs()[row.index].Pi == pytest.approx(1.5)


def test_indicators_and_logic_are_decided(m):
    """max x + 3 b - c: b = 1 implies x <= 2, c = 0 implies x >= 7, x <= 8 otherwise: b and c, 2 + 3 - 1 against 8."""
    x, b, c, both = m.addVar(ub=8, name="x"), *(m.addVar(vtype="B") for _ in range(3))
    m.addConstr(genfunc.indicator(b, 1, x <= 2), name="low")
    m.addConstr(genfunc.indicator(c, 0, x >= 7), name="high")
    m.addConstr(both == genfunc.all(b, c))
    m.setObjective(x + 3 * b - c + both, TRV.MAXIMIZE)
    fixed = solved_fixed(m)
    assert m.ObjVal == pytest.approx(8)
    m.setObjective(x + 9 * b - c + both, TRV.MAXIMIZE)
    fixed = solved_fixed(m)
    assert sorted(r.Pi for r in fixed.getConstrs() if abs(r.Pi) > 1e-6) == [pytest.approx(1)]


@pytest.mark.parametrize(("kind", "free"), [(1, [2]), (2, [1, 2])])
def test_sets_leave_their_nonzeros_free(m, kind, free):
    x = m.addMVar(4, ub=[1, 2, 5, 1], name="x")
    m.addSOS(kind, x, [1, 2, 3, 4])
    m.addConstr(x.sum() <= 6.5)
    m.setObjective(np.array([1.0, 2, 3, 1]) @ x, TRV.MAXIMIZE)
    fixed = solved_fixed(m)
    assert fixed.getConstrs()[0].Pi == pytest.approx(0 if kind == 1 else 2)
    fixed.setObjective(sum(fixed.getVars()), TRV.MAXIMIZE)  # any other objective finds the same ones free
    fixed.optimize()
    assert [i for i, v in enumerate(fixed.getVars()) if v.X > 0.5] == free


def test_relaxations_leave_general_constraints_out(m):
    x, y = m.addVar(ub=3), m.addVar(ub=9)
    m.addConstr(y == genfunc.abs(x))
    m.setObjective(1 * y, TRV.MAXIMIZE)
    relaxed = m.relax()
    relaxed.optimize()
    assert (relaxed.NumGenConstrs, relaxed.ObjVal) == (0, 9)
