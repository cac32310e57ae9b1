"""optimize(): statuses, values, duals, limits, starts; one model of each kind that a modeller can get wrong."""

import threading
import time

import numpy as np
import pytest

import tarvopy
from mps_text import market_split
from tarvopy import TRV, TarvoError

INF = np.inf
STEP = 1e-5  # of a perturbation


def build(A, lower, upper, obj, *, lb=0.0, ub=INF, vtype="C", sense=1):
    """A silent model of lower <= A x <= upper with its variables and rows."""
    A = np.atleast_2d(np.asarray(A, dtype=float))
    m = tarvopy.Model()
    m.params.LogLevel = 0
    x = m.addMVar(A.shape[1], lb=lb, ub=ub, obj=obj, vtype=vtype, name="x")
    rows = m.addRange(A @ x, lower, upper, name="r")
    m.update()
    m.ModelSense = sense
    return m, x, rows


def random_lp(sense, seed, nrows=12, ncols=9):
    """Feasible and bounded, with two-sided rows, equations and free variables."""
    rng = np.random.default_rng(seed)
    A = rng.normal(size=(nrows, ncols)) * (rng.random((nrows, ncols)) < 0.6)
    inside = rng.normal(size=ncols)
    activity = A @ inside
    lower = np.where(rng.random(nrows) < 0.3, -INF, activity - rng.random(nrows))
    upper = np.where(rng.random(nrows) < 0.3, INF, activity + rng.random(nrows))
    lower[0] = upper[0] = activity[0]
    lb, ub = inside - 1 - rng.random(ncols), inside + 1 + rng.random(ncols)
    return build(A, lower, upper, rng.normal(size=ncols), lb=lb, ub=ub, sense=sense)


def objective_with(m, handle, attribute, position, value):
    """The optimum with one number changed; the model is as before afterwards."""
    values = np.array(getattr(handle, attribute))
    changed = values.copy()
    changed[position] = value
    setattr(handle, attribute, changed)
    m.optimize()
    assert m.Status == TRV.OPTIMAL
    optimum = m.ObjVal
    setattr(handle, attribute, values)
    return optimum


# ---- values and duals ----------------------------------------------------------------------------------------------


@pytest.mark.parametrize("sense", [TRV.MINIMIZE, TRV.MAXIMIZE])
@pytest.mark.parametrize("seed", range(4))
def test_pi_is_the_change_of_the_objective_per_unit_of_right_hand_side(sense, seed):
    m, x, rows = random_lp(sense, seed)
    m.optimize()
    pi, at = rows.Pi, m.ObjVal
    activity = m.getA() @ x.X
    assert (np.abs(pi) > 1e-9).sum() >= 2
    for i in np.flatnonzero(np.abs(pi) > 1e-9):
        sides = [s for s in ("Lower", "Upper") if abs(getattr(rows, s)[i] - activity[i]) < 1e-7]
        assert sides, "a row with a price rests on a side"
        lower, upper = rows.Lower, rows.Upper
        shift = np.where(np.arange(len(pi)) == i, STEP, 0.0)
        rows.Lower = lower + shift * ("Lower" in sides)
        rows.Upper = upper + shift * ("Upper" in sides)
        m.optimize()
        slope = (m.ObjVal - at) / STEP
        rows.Lower, rows.Upper = lower, upper
        assert slope == pytest.approx(pi[i], rel=1e-4, abs=1e-6)


@pytest.mark.parametrize("sense", [TRV.MINIMIZE, TRV.MAXIMIZE])
def test_reduced_costs_are_the_change_per_unit_of_the_bound(sense):
    m, x, rows = random_lp(sense, 7)
    m.optimize()
    rc, at, values = x.RC, m.ObjVal, x.X
    assert rc == pytest.approx(x.Obj - m.getA().T @ rows.Pi, abs=1e-9)
    assert (np.abs(rc) > 1e-9).sum() >= 2
    for j in np.flatnonzero(np.abs(rc) > 1e-9):
        bound = "LB" if abs(values[j] - x.LB[j]) < 1e-7 else "UB"
        there = getattr(x, bound)[j]
        assert (objective_with(m, x, bound, j, there + STEP) - at) / STEP == pytest.approx(rc[j], rel=1e-4, abs=1e-6)


def test_figures_of_an_lp_and_of_a_mip():
    m, _, _ = build([[1, 2]], 3, INF, [1, 1])
    m.ObjConstant = 4.0
    m.optimize()
    assert (m.Status, m.ObjVal, m.ObjBound, m.Gap, m.NodeCount) == (TRV.OPTIMAL, 5.5, 5.5, 0.0, 0)
    assert m.EngineName.startswith("HiGHS 1.")
    assert m.why_engine == "HiGHS: linear, all variables continuous"
    m, x, rows = build([[1, 2]], 3, INF, [2, 3], vtype="I", sense=TRV.MINIMIZE)
    m.optimize()
    assert (m.Status, m.ObjVal, m.ObjBound, m.Gap) == (TRV.OPTIMAL, 5.0, 5.0, 0.0)
    assert pytest.approx([1, 1]) == x.X
    assert m.why_engine == "HiGHS: linear with 2 integer variables"
    for handle, attribute in ((rows, "Pi"), (x, "RC")):
        with pytest.raises(AttributeError):
            getattr(handle, attribute)


def test_semi_continuous_variables_are_zero_or_within_their_bounds():
    m, x, _ = build([[1, 1]], 1, INF, [1, 1.5], lb=[2, 0], ub=[5, 0.5], vtype=["S", "C"])
    m.optimize()
    assert (m.ObjVal, x.X.tolist()) == (2.0, [2.0, 0.0])
    assert m.why_engine == "HiGHS: linear with 1 semi-continuous variable"
    m.params.Engine = "highs"
    for lb, ub, text in (
        (2, INF, "a semi-continuous variable needs a finite upper bound"),
        (-1, 5, "a semi-continuous variable has the negative lower bound -1"),
        (1, 1e6, "a semi-continuous variable has the upper bound 1e+06, above 100000"),
    ):
        x.LB, x.UB = [lb, 0], [ub, 0.5]
        for call in (m.optimize, m.prepare):
            with pytest.raises(TarvoError) as caught:
                call()
            assert str(caught.value) == f"HiGHS cannot take this model: {text}"
    x.LB, x.UB = [2, 0], [3, 0.5]
    m.optimize()  # a refusal leaves the model usable
    assert m.Status == TRV.OPTIMAL


# ---- statuses ------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("vtype", ["C", "I"])
def test_infeasible_and_unbounded(vtype):
    m, x, _ = build([[1, 1]], -1, -1, [1, 1], vtype=vtype)
    m.optimize()
    assert m.Status == TRV.INFEASIBLE
    for name in ("ObjVal", "ObjBound", "Gap"):
        with pytest.raises(AttributeError):
            getattr(m, name)
    with pytest.raises(AttributeError):
        x.X
    m, x, _ = build([[1, -1]], 0, 0, [1, 1], vtype=["I" if vtype == "I" else "C", "C"], sense=TRV.MAXIMIZE)
    m.optimize()
    assert m.Status == TRV.UNBOUNDED
    m.ModelSense = TRV.MINIMIZE  # the second look left nothing behind
    m.optimize()
    assert (m.Status, m.ObjVal) == (TRV.OPTIMAL, 0.0)


def test_bounds_and_sides_that_cross_are_infeasible_at_the_solve():
    m, x, rows = build([[1, 1]], 0, 1, [1, 1], ub=5)
    x.LB, x.UB = [0, 1], [1, 0]
    m.optimize()
    assert (m.Status, m.why_engine) == (TRV.INFEASIBLE, "tarvopy: the bounds of variable 'x[1]' cross")
    x.LB, x.UB = 0, 5
    rows.Lower = 2
    m.optimize()
    assert (m.Status, m.why_engine) == (TRV.INFEASIBLE, "tarvopy: the sides of row 'r[0]' cross")
    rows.Upper = 3
    m.optimize()
    assert (m.Status, m.ObjVal) == (TRV.OPTIMAL, 2.0)


@pytest.mark.parametrize(("sense", "rhs", "holds"), [("<", -4, 0), ("<", 4, 1), (">", 4, 0), (">", -4, 1), ("=", 4, 0)])
def test_quadratic_rows_outlive_their_variables(sense, rhs, holds):
    m = tarvopy.Model()
    m.params.LogLevel = 0
    x = m.addVar()
    m.addConstr(tarvopy.TempConstr(x * x, sense, rhs))
    m.update()
    m.remove(x)
    m.optimize()
    assert m.Status == (TRV.OPTIMAL if holds else TRV.INFEASIBLE)


def test_models_without_rows_or_columns():
    m = tarvopy.Model()
    m.params.LogLevel = 0
    m.ObjConstant = 3.5
    m.optimize()
    assert (m.Status, m.ObjVal, m.ObjBound) == (TRV.OPTIMAL, 3.5, 3.5)
    assert m.prepare() == {"vars": 0, "rows": 0, "nz": 0, "qnz": 0}
    x = m.addMVar(2, lb=[1, 2], ub=9, obj=[1, -1])
    m.optimize()
    assert (m.ObjVal, x.RC.tolist()) == (3.5 + 1 - 9, [1, -1])
    row = m.addConstr(x.sum() <= 100)
    m.remove(x)
    m.optimize()  # a row without terms: 0 <= 100
    assert (m.Status, m.ObjVal) == (TRV.OPTIMAL, 3.5)
    row.Upper = -1
    m.optimize()
    assert m.Status == TRV.INFEASIBLE


def test_limits_keep_the_best_solution(tmp_path):
    path = tmp_path / "split.mps"
    path.write_text(market_split())
    for name, values, status in (
        ("TimeLimit", (0.5, 4, 30), TRV.TIME_LIMIT),  # the later ones where others keep the processors busy
        ("NodeLimit", (20,), TRV.NODE_LIMIT),
        ("SolutionLimit", (1,), TRV.SOLUTION_LIMIT),
    ):
        m = tarvopy.read(path)
        m.params.LogLevel = 0
        for value in values:
            setattr(m.params, name, value)
            m.optimize()
            if hasattr(m, "ObjVal"):
                break
        assert m.Status == status, name
        x = np.array([v.X for v in m.getVars()])
        assert m.ObjVal == pytest.approx(x[-12:].sum())
        assert m.getA() @ x == pytest.approx([r.RHS for r in m.getConstrs()], abs=1e-5)
        assert m.ObjBound <= m.ObjVal
        assert m.Gap > 0


def test_iteration_and_time_limits_of_an_lp(instances):
    m = tarvopy.read(instances / "netlib" / "25fv47.mps")
    m.params.LogLevel = 0
    m.params.IterationLimit = 20
    m.optimize()
    assert m.Status == TRV.ITERATION_LIMIT
    assert not hasattr(m, "ObjVal")  # no feasible point yet
    del m.params.IterationLimit
    m.params.TimeLimit = 0
    m.optimize()
    assert m.Status == TRV.TIME_LIMIT
    del m.params.TimeLimit
    m.optimize()
    assert m.Status == TRV.OPTIMAL
    assert m.IterCount > 20


@pytest.mark.parametrize("engine", ["highs", "scip"])
def test_iterations_of_all_relaxations_of_a_tree_search_count(engine, tmp_path):
    path = tmp_path / "split.mps"
    path.write_text(market_split())
    m = tarvopy.read(path)
    m.params.LogLevel, m.params.Engine, m.params.TimeLimit = 0, engine, 30
    iterations = []
    for limit in (0, 50, 500):
        m.params.IterationLimit = limit
        m.optimize()
        assert m.Status == TRV.ITERATION_LIMIT
        assert m.IterCount >= limit
        iterations.append(m.IterCount)
    assert iterations[0] <= 50 < iterations[2] < 5000


# ---- starts, parameters, engines -----------------------------------------------------------------------------------


def knapsack():
    rng = np.random.default_rng(5)
    weight = rng.integers(20, 60, 40).astype(float)
    m, x, _ = build(weight[None, :], -INF, 400, weight + rng.integers(0, 9, 40), ub=1, vtype="B", sense=TRV.MAXIMIZE)
    m.params.NodeLimit = 0
    m.params.EngineOptions = {"presolve": "off", "mip_heuristic_effort": 0.0}
    return m, x


def first_solution(m):
    """What the engine reports before its search: with a start it is the start, or better."""
    m.params.SolutionLimit = 1
    m.optimize()
    return m.ObjVal if hasattr(m, "ObjVal") else -INF


def test_complete_and_partial_starts_reach_the_engine():
    m, x = knapsack()
    m.params.NodeLimit = INF
    m.optimize()
    assert m.Status == TRV.OPTIMAL
    best, optimum = x.X, m.ObjVal
    m, x = knapsack()
    assert first_solution(m) < optimum
    for start in (best, np.where(np.arange(40) < 30, best, np.nan)):
        m, x = knapsack()
        x.Start = start
        assert first_solution(m) == optimum


def test_values_to_start_from_may_lie_beyond_the_bounds():
    """As those of the last solution do when a bound was moved and a variable is new."""
    for vtype, lb, start in [
        (["I", "C"], 0, [5, np.nan]),
        (["I", "S"], [0, 2], [np.nan, 0]),
        (["I", "C"], 0, [1e19, np.nan]),
        (["I", "C"], 0, [5, 9]),
    ]:
        m = tarvopy.Model()
        m.params.LogLevel = 0
        x = m.addMVar(2, lb=lb, ub=3, vtype=vtype, obj=-1)
        x.Start = np.array(start)
        m.optimize()
        assert (m.Status, m.ObjVal) == (TRV.OPTIMAL, -6)
    x.UB = 2
    m.addVar(ub=1.5, obj=-1.0)
    m.optimize()
    assert (m.Status, m.ObjVal) == (TRV.OPTIMAL, -5.5)


def test_parameters_reach_the_engine():
    m, _, _ = build([[1, 1]], 1, INF, [1, 1], vtype="I")
    wanted = {
        "TimeLimit": ("time_limit", 12.5),
        "RelGap": ("mip_rel_gap", 0.25),
        "AbsGap": ("mip_abs_gap", 0.5),
        "FeasibilityTol": ("primal_feasibility_tolerance", 1e-8),
        "OptimalityTol": ("dual_feasibility_tolerance", 1e-9),
        "IntegralityTol": ("mip_feasibility_tolerance", 1e-5),
        "Threads": ("threads", 2),
        "Seed": ("random_seed", 7),
        "NodeLimit": ("mip_max_nodes", 11),
        "SolutionLimit": ("mip_max_improving_sols", 13),
    }
    for name, (_, value) in wanted.items():
        setattr(m.params, name, value)
    m.params.EngineOptions = {"mip_rel_gap": 0.125, "presolve": False}
    m.optimize()
    read = m._engine._solver.get_option
    for name, (option, value) in wanted.items():
        assert read(option) == (0.125 if name == "RelGap" else value)
    assert read("presolve") == "off"
    m.params.reset()
    m.params.LogLevel = 0
    m.optimize()
    assert (read("presolve"), read("mip_max_nodes")) == ("choose", 2**31 - 1)


def test_wrong_engine_options_are_named():
    m, _, _ = build([[1, 1]], 1, INF, [1, 1])
    for options, text in (
        ({"no_such": 1}, "HiGHS has no option 'no_such'"),
        ({"time_limit": "soon"}, "HiGHS' option 'time_limit' takes a number, not 'soon'"),
    ):
        m.params.EngineOptions = options
        with pytest.raises(TarvoError) as caught:
            m.optimize()
        assert str(caught.value) == text
    m.params.EngineOptions = {}
    m.params.Engine = "highs"
    m.optimize()
    assert (m.Status, m.why_engine) == (
        TRV.OPTIMAL,
        "HiGHS: chosen by params.Engine, linear, all variables continuous",
    )


def test_coefficients_beyond_the_engines_range_are_named():
    m, _, _ = build([[1e16, 1]], 1, INF, [1, 1])
    with pytest.raises(TarvoError, match="a coefficient of 1e\\+16 is beyond its limit of 1e\\+15"):
        m.optimize()
    assert (m.Status, m.NumVars) == (TRV.NOT_SOLVED, 2)


def test_engines_lists_versions_and_the_folder_still_imports():
    import tarvopy.engines.highs

    assert tarvopy.engines()["highs"].startswith("HiGHS 1.")
    assert tarvopy.engines.highs.HighsEngine.name == "HiGHS"


def test_models_may_be_solved_in_threads_of_their_own():
    models = [random_lp(1, seed)[0] for seed in range(4)]
    expected = []
    for m in models:
        m.optimize()
        expected.append(m.ObjVal)
        m.ObjConstant = 1.0
    threads = [threading.Thread(target=m.optimize) for m in models]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert [m.ObjVal - 1.0 for m in models] == pytest.approx(expected)


def test_a_model_that_is_being_solved_refuses_everything_else(tmp_path):
    path = tmp_path / "split.mps"
    path.write_text(market_split())
    m = tarvopy.read(path)
    m.params.LogLevel = 0
    solve = threading.Thread(target=m.optimize)
    solve.start()
    while m._engine is None or not m._engine.running:
        time.sleep(0.001)
    for call in (m.optimize, m.prepare, m.update, m.addVar, m.close, lambda: m.Status):
        with pytest.raises(TarvoError, match="the model is being solved"):
            call()
    m._engine.interrupt()
    solve.join()
    assert m.Status == TRV.INTERRUPTED


class Panic(BaseException):
    """As those of libraries in Rust, which are no exceptions."""


def gives_up(*args):
    raise Panic("an index is out of range")


@pytest.mark.parametrize(
    ("engine", "options", "said"),
    [
        ("highs", {"read_solution_file": "/nonexistent"}, "HiGHS ended with its model status 0"),
        ("scip", {"limits/memory": 0.0}, "SCIP ended with its status 'memlimit'"),
        ("clarabel", {}, "Clarabel: an index is out of range"),
        ("scip", {}, "SCIP failed: an index is out of range"),
    ],
)
def test_an_engine_that_gives_up_has_failed_and_can_be_asked_again(monkeypatch, engine, options, said):
    package = pytest.importorskip({"highs": "highsbox", "clarabel": "clarabel", "scip": "pyscipopt"}[engine])
    m, x, _ = build(np.arange(1.0, 21.0), 33.5, INF, 1.0, ub=4.0, vtype="C" if engine == "clarabel" else "I")
    m.setObjective(x.sum() if engine == "highs" else x @ x)
    m.params.Engine, m.params.EngineOptions = engine, options
    with monkeypatch.context() as broken:
        if not options:
            solver = {"clarabel": "DefaultSolver", "scip": "Model"}[engine]
            broken.setattr(package, solver, gives_up if engine == "clarabel" else failing_model(package))
        with pytest.warns(RuntimeWarning, match=f"^The solve failed: {said}$"):
            m.optimize()
        assert m.Status == TRV.FAILED
        with pytest.raises(tarvopy.NoDataError):
            m.getAttr("ObjVal")
    m.params.EngineOptions = {}
    m.optimize()
    assert m.Status == TRV.OPTIMAL


def failing_model(package):
    class Model(package.Model):
        optimizeNogil = gives_up

    return Model
