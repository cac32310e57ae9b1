"""Which engine solves what, and what is said about it."""

import pytest

import tarvopy
from engine_doubles import double, use
from tarvopy import TRV, TarvoError, engines
from tarvopy.problem import Problem


def model(*, integers=0, semi=0, objective=None, rows=()):
    """Two continuous variables x, y and others as told; rows are (name, sense, expression of x, y)."""
    m = tarvopy.Model()
    m.params.LogLevel = 0
    x, y = m.addVar(ub=2.0, name="x"), m.addVar(ub=2.0, name="y")
    for vtype, count in (("I", integers), ("S", semi)):
        for _ in range(count):
            m.addVar(ub=3.0, vtype=vtype)
    m.setObjective(objective(x, y) if objective else x + y)
    for name, make in rows:
        m.addConstr(make(x, y), name=name)
    m.update()
    return m


def why(m, key="auto"):
    return engines.pick(Problem.of(m._cmodel), key)[1]


@pytest.fixture
def all_three(monkeypatch):
    classes = {key: double(name) for key, name in (("highs", "HiGHS"), ("clarabel", "Clarabel"), ("scip", "SCIP"))}
    use(monkeypatch, **classes)
    return classes


SAID = [
    (model, "HiGHS: linear, all variables continuous"),
    (lambda: model(integers=1), "HiGHS: linear with 1 integer variable"),
    (lambda: model(integers=3, semi=1), "HiGHS: linear with 3 integer variables and 1 semi-continuous variable"),
    (
        lambda: model(rows=[("q", lambda x, y: x * y - y * x + x <= 1)]),
        "HiGHS: linear (all terms of 1 quadratic row cancel), all variables continuous",
    ),
    (
        lambda: model(objective=lambda x, y: x * x - x * y + y * y),
        "Clarabel: convex quadratic objective, all variables continuous",
    ),
    (
        lambda: model(rows=[("q", lambda x, y: x * x <= 1), ("c", lambda x, y: x * x <= y * y)]),
        "Clarabel: 1 convex quadratic row, 1 second-order cone row, all variables continuous",
    ),
    (lambda: model(objective=lambda x, y: x * y), "SCIP: the quadratic objective is not convex"),
    (
        lambda: model(rows=[("r", lambda x, y: x * x <= 1), *((f"cap[{i}]", lambda x, y: x * x == 1) for i in (3, 4))]),
        "SCIP: quadratic row 'cap[3]' and 1 other are not convex",
    ),
    (
        lambda: model(integers=2, objective=lambda x, y: x * x, rows=[("r", lambda x, y: x * x <= 1)]),
        "SCIP: quadratic objective, 1 quadratic row, 2 integer variables",
    ),
]


@pytest.mark.parametrize(("make", "said"), SAID, ids=[said for _, said in SAID])
def test_what_a_model_holds_decides(all_three, make, said):
    assert why(make()) == said


def test_a_maximised_concave_objective_is_convex(all_three):
    m = model(objective=lambda x, y: -(x * x) - y * y)
    assert why(m) == "SCIP: the quadratic objective is not convex"
    m.ModelSense = TRV.MAXIMIZE
    assert why(m).startswith("Clarabel: ")


def test_a_chosen_engine_is_taken_or_refused_before_anything_is_built(all_three):
    m = model(objective=lambda x, y: x * x)
    assert why(m, "scip") == "SCIP: chosen by params.Engine, convex quadratic objective, all variables continuous"
    all_three["clarabel"].refusal = classmethod(lambda cls, problem: "3 integer variables")
    m.params.Engine = "clarabel"
    for call in (m.optimize, m.prepare):
        with pytest.raises(TarvoError, match="Clarabel cannot take this model: 3 integer variables") as caught:
            call()
        assert caught.value.code == TRV.ERROR_UNSUPPORTED
    assert all_three["clarabel"].log == []


@pytest.mark.parametrize(
    ("objective", "text"),
    [(lambda x, y: x * x, "the objective is quadratic"), (lambda x, y: x + y, "2 quadratic rows")],
)
def test_highs_refuses_quadratic_models(objective, text):
    m = model(objective=objective, rows=[("q", lambda x, y: x * x <= 1)] * 2)
    m.params.Engine = "highs"
    with pytest.raises(TarvoError, match=f"^HiGHS cannot take this model: {text}$"):
        m.optimize()
    assert m.why_engine is None


def test_the_next_engine_steps_in_and_says_for_whom(monkeypatch):
    missing = "The engine Clarabel is not installed: pip install clarabel"
    use(monkeypatch, highs=double("HiGHS"), clarabel=double("Clarabel", missing=missing), scip=double("SCIP"))
    m = model(objective=lambda x, y: x * x)
    assert why(m) == f"SCIP: convex quadratic objective, all variables continuous ({missing})"
    use(monkeypatch, highs=double("HiGHS", refusal=lambda problem: "too large"), scip=double("SCIP"))
    assert why(model(semi=1)).endswith(" with 1 semi-continuous variable (HiGHS cannot take this model: too large)")


def test_where_none_can_take_it_every_obstacle_is_named(monkeypatch):
    missing = "The engine SCIP is not installed: pip install pyscipopt"
    use(monkeypatch, scip=double("SCIP", missing=missing), highs=double("HiGHS", refusal=lambda problem: "too large"))
    with pytest.raises(TarvoError) as caught:
        model(integers=1, objective=lambda x, y: x * y).optimize()
    assert str(caught.value) == missing
    with pytest.raises(TarvoError) as caught:
        model(integers=1).optimize()
    assert str(caught.value) == f"HiGHS cannot take this model: too large; {missing}"


def test_all_cancelled_quadratics_are_rows_of_a_linear_model():
    """max x + 2 y: x + y <= 1.5 is a quadratic row whose quadratic terms cancel."""
    m = model(objective=lambda x, y: x * y + x + 2 * y - y * x)
    x, y = m.getVars()
    m.ModelSense = TRV.MAXIMIZE
    q = m.addConstr(x * y - y * x + x + y <= 1.5, name="q")
    r = m.addConstr(x <= 1)
    m.optimize()
    assert (m.Status, m.ObjVal, m.EngineName[:5]) == (TRV.OPTIMAL, 3.0, "HiGHS")
    assert (q.QPi, q.QSlack, r.Pi, x.RC) == (2.0, 0.0, 0.0, -1.0)
    q.QRHS = 1.0  # an engine that holds the model hears of it
    m.optimize()
    assert m.ObjVal == 2.0
    r.RHS = 0.5
    y.UB = 0.25
    m.optimize()
    assert m.ObjVal == 1.0
    assert m.prepare() == {"vars": 2, "rows": 2, "nz": 3, "qnz": 0}


def test_curvature_is_worked_out_once_and_again_when_it_may_have_changed(monkeypatch):
    from tarvopy import _modelapi

    asked = []
    honest = _modelapi.curvature
    monkeypatch.setattr(_modelapi, "curvature", lambda handle: asked.append(1) or honest(handle))
    use(monkeypatch, clarabel=double("Clarabel"), scip=double("SCIP"))
    m = model(objective=lambda x, y: x * x, rows=[("c", lambda x, y: x * x <= y * y)])
    m.prepare()
    m.getVars()[0].Obj = 3.0
    m.prepare()
    assert (len(asked), m.why_engine[:8]) == (1, "Clarabel")
    m.getVars()[1].LB = -1.0  # the cone's top may now be negative
    m.prepare()
    assert (len(asked), m.why_engine) == (2, "SCIP: quadratic row 'c' is not convex")
    m.remove(m.getQConstrs())
    m.prepare()
    assert (len(asked), m.why_engine[:8]) == (3, "Clarabel")


def test_problem_shows_quadratic_parts():
    m = model(objective=lambda x, y: 3 * x * x + 2 * y * x + y, rows=[("q", lambda x, y: x * y + 2 * x >= -1)])
    m.addConstr(m.getVars()[0] * m.getVars()[1] == 5)
    m.update()
    p = Problem.of(m._cmodel)
    assert (p.nqobj, p.nqrows, p.nqlinear, p.nqterms, p.nqlinterms, p.is_quadratic) == (2, 2, 0, 2, 1, True)
    assert (p.qsense.tolist(), p.qrhs.tolist()) == ([b">", b"="], [-1, 5])
    start, index, value = p.hessian()
    assert (start.tolist(), index.tolist(), value.tolist()) == ([0, 1, 2], [0, 0], [6, 2])
    start, index, value, qstart, qvar1, qvar2, qvalue = p.qmatrix()
    assert (start.tolist(), index.tolist(), value.tolist()) == ([0, 1, 1], [0], [2])
    assert [a.tolist() for a in (qstart, qvar1, qvar2, qvalue)] == [[0, 1, 2], [0, 0], [1, 1], [1, 1]]
    del m, p
    qvalue *= 2  # the caller's own
