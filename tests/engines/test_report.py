"""m.report(): the figures of the check, the offenders by name, and the text."""

import dataclasses
import math

import numpy as np
import pytest

import tarvopy
from engine_doubles import double, point, use
from tarvopy import TRV, NoDataError

NAMES = ["rows", "bounds", "integrality", "stationarity", "complementarity"]


@pytest.fixture
def m():
    """max x0 + x1 + x2: x0 + x1 + x2 <= 4 ("cap"), x0 - x2 >= -1 ("diff"), x in [0, 3]."""
    model = tarvopy.Model("diet")
    model.params.LogLevel, model.params.Engine = 0, "highs"
    x = model.addMVar(3, ub=3.0, obj=1.0, name="x")
    model.addConstr(x.sum() <= 4, name="cap")
    model.addConstr(x[0] - x[2] >= -1, name="diff")
    model.ModelSense = TRV.MAXIMIZE
    return model


def answer(m, monkeypatch, *x, **multipliers):
    use(monkeypatch, highs=double("Double", [point(*x, objval=4.0, **multipliers)]))
    with pytest.warns(RuntimeWarning):
        m.optimize()


def test_a_solution_that_holds(m, capsys):
    m.optimize()
    report = m.report()
    assert capsys.readouterr().out == f"{report}\n"
    assert report.holds
    assert repr(report) == "<Report diet: optimal, holds>"
    assert [f.name for f in report.figures] == NAMES
    assert (report.model, report.status, report.objective, report.engine) == ("diet", TRV.OPTIMAL, 4.0, m.EngineName)
    assert (report.engine_objective, report.why_engine) == (4.0, m.why_engine)
    for figure in report.figures:
        assert figure.holds
        assert (figure.why_not_checked == "") == (figure.name != "integrality")
    with pytest.raises(dataclasses.FrozenInstanceError):
        report.status = 0


def test_offenders_are_named_worst_first(m, monkeypatch, capsys):
    answer(m, monkeypatch, 3.5, 1.0, 4.75, pi=[1.0, 0.0], rc=[0.0, 0.0, 0.25])
    report = m.report(worst=2)
    said = {f.name: [(o.kind, o.name, o.violation) for o in f.offenders] for f in report.figures}
    assert said["rows"] == [("row", "cap", 5.25), ("row", "diff", 0.25)]
    assert said["bounds"] == [("variable", "x[2]", 1.75), ("variable", "x[0]", 0.5)]
    assert said["stationarity"] == [("variable", "x[2]", 0.25)]
    assert said["complementarity"] == []  # beyond a bound is no distance to it
    assert not report.holds
    assert [report[name].holds for name in NAMES] == [False, False, True, False, True]
    rows = report["rows"]
    assert (rows.violation, rows.tolerance) == (5.25, m.params.FeasibilityTol)
    assert rows.allowed == pytest.approx(10 * m.params.FeasibilityTol * 5.75)  # largest term 4.75
    assert capsys.readouterr().out.splitlines() == [
        "diet: imprecise, objective 9.25 (the engine's own figure: 4), Double 1.0, 0.50 s",
        "Double: chosen by params.Engine, linear, all variables continuous",
        "                      worst   allowed  holds  at",
        "  rows                  5.2   5.8e-06  NO     row cap (5.2), row diff (0.25)",
        "  bounds                1.8     4e-06  NO     variable x[2] (1.8), variable x[0] (0.5)",
        "  integrality             -            -      no integer variables",
        "  stationarity         0.25     2e-06  NO     variable x[2] (0.25)",
        "  complementarity         0            yes",
    ]


def test_figures_equal_a_check_in_numpy(m, monkeypatch):
    rng = np.random.default_rng(3)
    A, low, up = np.array([[1.0, 1, 1], [1, 0, -1]]), np.array([-np.inf, -1]), np.array([4, np.inf])
    x, pi, rc = rng.normal(size=3) * 3, rng.normal(size=2), rng.normal(size=3)
    answer(m, monkeypatch, *x, pi=pi, rc=rc)
    report = m.report(worst=9)
    row = np.maximum(low - A @ x, 0) + np.maximum(A @ x - up, 0)
    bound = np.maximum(-x, 0) + np.maximum(x - 3, 0)
    for figure, expected, names in (("rows", row, ["cap", "diff"]), ("bounds", bound, ["x[0]", "x[1]", "x[2]"])):
        named = {o.name: o.violation for o in report[figure].offenders}
        assert named == pytest.approx({name: v for name, v in zip(names, expected, strict=True) if v > 0})
    gradient = np.abs(1 - A.T @ pi - rc)
    named = {}
    for o in report["stationarity"].offenders:  # a variable may offend as itself and by the sign of its price
        named.setdefault((o.kind, o.name), []).append(o.violation)
    for i in range(3):
        assert any(v == pytest.approx(gradient[i]) for v in named["variable", f"x[{i}]"])


def test_integer_models_have_no_multipliers_to_check(m, capsys):
    m.update()
    m.getVars()[0].VType = "I"
    m.optimize()
    report = m.report()
    assert report.holds
    assert [f.why_not_checked for f in report.figures][2:] == ["", *["the solution has no multipliers"] * 2]
    assert math.isnan(report["stationarity"].violation)


def test_quadratic_rows_are_offenders_like_others(monkeypatch):
    m = tarvopy.Model()
    m.params.LogLevel = 0
    x, y = m.addVar(ub=9.0, vtype="I"), m.addVar(ub=9.0, vtype="I")
    m.addConstr(x * y <= 6, name="q")
    m.addConstr(x + y <= 4, name="lin")
    use(monkeypatch, scip=double("Double", [point(4.0, 2.0)]))
    with pytest.warns(RuntimeWarning, match="violation of the sides of row lin by 2"):
        m.optimize()
    rows = m.report(worst=10**12)["rows"].offenders
    assert [(o.kind, o.name, o.violation) for o in rows] == [("row", "lin", 2.0), ("quadratic row", "q", 2.0)]


def test_without_a_solution_there_is_no_report(m):
    changed = lambda: (m.optimize(), m.getVars()[0].setAttr("LB", 9.0))  # noqa: E731
    for act, why in ((lambda: None, "call optimize"), (changed, "call optimize"), (m.optimize, "Status INFEASIBLE")):
        act()
        with pytest.raises(NoDataError, match=why):
            m.report()
    with pytest.raises(ValueError, match="0 or more"):
        m.report(-1)
