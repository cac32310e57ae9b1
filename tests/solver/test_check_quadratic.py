"""The check of residuals with quadratic rows and objectives, and the lists of the worst offenders."""

import numpy as np
import pytest

from solver.store import BOUND, COMPLEMENTARITY, DUAL, INF, INVALID, ROW, VAR, Store, StoreError


def dense(pairs, n):
    """The matrix Q of x'Qx."""
    q = np.zeros((n, n))
    for v, w, a in pairs:
        q[v, w] += a
    return q


@pytest.mark.parametrize("sense", [1, -1])
def test_stationarity_is_the_gradient_of_the_lagrangian(sense):
    """Against central differences, which are exact for quadratic functions but for rounding."""
    rng = np.random.default_rng(3 + sense)
    n, nrows, nqrows = 12, 5, 4
    m = Store()
    m.addvars(n + 2, lb=-INF)
    m.remove(VAR, [3, 7])  # so that ids are no positions
    keep = np.delete(np.arange(n + 2), [3, 7])
    a, qa = rng.normal(size=(nrows, n)), rng.normal(size=(nqrows, n))
    cost = rng.normal(size=n)
    pairs = [[(*rng.integers(0, n, 2), rng.normal()) for _ in range(25)] for _ in range(nqrows + 1)]
    byid = [[(keep[v], keep[w], c) for v, w, c in terms] for terms in pairs]
    for row in a:
        m.addrows([dict(zip(keep, row, strict=True))], lower=0.0, upper=0.0)
    m.addqrows([(list(zip(keep, row, strict=True)), q) for row, q in zip(qa, byid[1:], strict=True)], "=", 0.0)
    m.setqobjective(list(zip(keep, cost, strict=True)), byid[0], constant=5.0, sense=sense)
    m.update()
    matrices = [dense(terms, n) for terms in pairs]
    x, pi, qpi = rng.normal(size=n), rng.normal(size=nrows), rng.normal(size=nqrows)
    activity = [row @ x + x @ q @ x for row, q in zip(qa, matrices[1:], strict=True)]

    def lagrangian(x):
        rows = sum(y * (row @ x + x @ q @ x) for y, row, q in zip(qpi, qa, matrices[1:], strict=True))
        return m.evalobjective(x) - pi @ (a @ x) - rows

    step = 1e-3
    gradient = [(lagrangian(x + e) - lagrangian(x - e)) / (2 * step) for e in step * np.eye(n)]
    assert m.evalobjective(x) == pytest.approx(5.0 + cost @ x + x @ matrices[0] @ x)

    m.opensolution(x, np.zeros(n), pi, qpi)
    found = {v: violation for v, violation, _ in m.offenders(DUAL, 100, has_duals=True)}
    assert sorted(found) == list(range(n))
    np.testing.assert_allclose([found[v] for v in range(n)], np.abs(gradient), rtol=1e-8, atol=1e-8)
    violated = {r: violation for r, violation, _ in m.offenders(ROW, 100)}
    np.testing.assert_allclose([violated[nrows + q] for q in range(nqrows)], np.abs(activity), rtol=1e-12)

    m.opensolution(x, gradient, pi, qpi)  # free variables: such reduced costs have the wrong sign, and nothing is left
    worst = m.check(has_duals=True)
    assert worst.dual == pytest.approx(abs(gradient[worst.worstdual]))


@pytest.fixture(params=[1, -1], ids=["min", "max"])
def ball(request):
    """x + y over x^2 + y^2 <= 2: x = y = -sense, and the optimum moves by -sense / 2 per unit of the side."""
    m = Store()
    m.addvars(2, lb=-INF)
    m.addrows([{0: 1.0}], upper=5.0)
    m.addqrows([([], [(0, 0, 1.0), (1, 1, 1.0)])], "<", 2.0)
    m.setobjective([(0, 1.0), (1, 1.0)], sense=request.param)
    m.update()
    return m, request.param


def residuals(m, x, qpi):
    m.opensolution(x, [0.0, 0.0], [0.0], [qpi])
    return m.check(has_duals=True)


def test_multipliers_are_the_change_of_the_objective(ball):
    m, sense = ball
    at, qpi = [-sense, -sense], -sense / 2
    r = residuals(m, at, qpi)
    assert [r.row, r.bound, r.dual, r.complementarity] == [0.0] * 4
    r = residuals(
        m, at, -qpi
    )  # 1 - 2x qpi = 2 in both variables, on a scale of 2; the sign itself is wrong by 1/2 of 3/2
    assert (r.dual, r.dualscale, r.worstdual) == (2.0, 2.0, 0)
    assert (2 + 1, 0.5, 1.5) in m.offenders(DUAL, 9, has_duals=True)
    r = residuals(m, [0.0, -sense], 2 * qpi)
    assert (r.complementarity, r.worstcomplementarity, r.complementarityscale) == (1.0, 2 + 1, 2.0)


def test_a_violated_quadratic_row_counts_on_after_the_linear_ones(ball):
    m, _ = ball
    r = residuals(m, [3.0, 1.0], 0.0)
    assert (r.row, r.worstrow, r.rowscale) == (8.0, 1, 10.0)  # 10 <= 2, with 9 as the largest term
    r = residuals(m, [float("nan"), 1.0], 0.0)
    assert (r.row, r.worstrow) == (INF, 0)


def test_the_scale_of_an_objective_knows_its_quadratic_terms():
    m = Store()
    m.addvars(2)
    m.setqobjective([(0, 1.0)], [(0, 1, -2.0)])
    m.update()
    m.opensolution([3.0, 4.0], [0.0, 0.0], [])
    r = m.check(has_duals=True)
    assert r.complementarityscale == 25.0
    assert (r.dual, r.worstdual, r.dualscale) == (6.0, 1, 7.0)  # worse than 1 - 8 of a scale of 9


@pytest.mark.parametrize("n", [0, 1, 4, 50])
def test_offenders_come_worst_first_by_their_own_scale(n):
    rng = np.random.default_rng(n)
    m, count = Store(), 40
    upper = rng.integers(1, 5, count).astype(float)
    m.addvars(count, ub=upper)
    m.update()
    x = upper + rng.integers(-1, 4, count) / 4  # many ties: the first element comes first
    x = np.maximum(x, 0.0)
    m.opensolution(x)
    expected = [(v, x[v] - upper[v], 1 + upper[v]) for v in range(count) if x[v] > upper[v]]
    expected.sort(key=lambda e: -e[1] / e[2])
    got = m.offenders(BOUND, n)
    assert got == expected[:n]
    if n:
        worst = m.check()
        assert got[0] == (worst.worstbound, worst.bound, worst.boundscale)


def test_offenders_name_each_element_once():
    """A variable may be off by its gradient and by the sign of its reduced cost."""
    m = Store()
    m.addvars(2, lb=-INF)
    m.update()
    m.opensolution([0.0, 0.0], [1.0, -2.0], [])
    assert m.offenders(DUAL, 9, has_duals=True) == [(1, 2.0, 3.0), (0, 1.0, 2.0)]
    assert m.offenders(COMPLEMENTARITY, 9, has_duals=True) == []


@pytest.mark.parametrize(
    ("figure", "n", "message"), [(5, 1, "5 is not a figure of the check"), (ROW, -1, "offenders: a negative count, -1")]
)
def test_bad_questions_for_offenders_are_refused(figure, n, message):
    m = Store()
    m.opensolution()
    with pytest.raises(StoreError) as caught:
        m.offenders(figure, n)
    assert (caught.value.code, str(caught.value)) == (INVALID, message)
