"""Quadratic rows and objectives: what comes back, what arrives in the store, what is refused."""

import numpy as np
import pytest

import tarvopy
from model_arrays import arrays
from tarvopy import MQConstr, QConstr, QuadExpr, TarvoError
from tarvopy.problem import Problem

INF = float("inf")


def stored(m):
    """(sense, rhs, linear terms, quadratic terms) of each quadratic row, terms as dictionaries by position."""
    m.update()
    p = Problem.of(m._cmodel)
    start, index, value, qstart, qvar1, qvar2, qvalue = p.qmatrix()
    rows = []
    for i in range(p.nqrows):
        linear, quad = slice(start[i], start[i + 1]), slice(qstart[i], qstart[i + 1])
        pairs = zip(qvar1[quad].tolist(), qvar2[quad].tolist(), strict=True)
        rows.append(
            (
                p.qsense[i].decode(),
                float(p.qrhs[i]),
                dict(zip(index[linear].tolist(), value[linear].tolist(), strict=True)),
                dict(zip(pairs, qvalue[quad].tolist(), strict=True)),
            )
        )
    return rows


def objective(m):
    """(H, linear, constant, sense) with H symmetric: objective = linear x + x'Hx/2 + constant."""
    a = arrays(m)
    start, index, value = Problem.of(m._cmodel).hessian()
    H = np.zeros((len(a.obj), len(a.obj)))
    for column in range(len(a.obj)):
        for k in range(start[column], start[column + 1]):
            H[index[k], column] = H[column, index[k]] = value[k]
    return H.tolist(), a.obj.tolist(), a.constant, a.sense


def test_scalar_rows_by_hand(m):
    x, y = m.addVar(name="x"), m.addVar(name="y")
    rows = [
        m.addConstr(x * x + 2 * x * y + 3 * x - 1 <= 4 - y, name="a"),
        m.addConstr(y * x - x * y + x * x >= 1 + 2 * (x * x)),
        m.addConstr(QuadExpr(x) == x * x),
        m.addConstr(tarvopy.TempConstr(0.0, "<", x * y)),
    ]
    assert [type(row) for row in rows] == [QConstr] * 4
    assert stored(m) == [
        ("<", 5.0, {0: 3.0, 1: 1.0}, {(0, 0): 1.0, (0, 1): 2.0}),
        (">", 1.0, {}, {(0, 0): -1.0}),
        ("=", 0.0, {0: 1.0}, {(0, 0): -1.0}),
        ("<", 0.0, {}, {(0, 1): -1.0}),
    ]
    assert m.getQConstrs() == rows
    assert [row.QName for row in rows] == ["a", "Q1", "Q2", "Q3"]
    assert ([row.QRHS for row in rows], [row.QSense for row in rows]) == ([5, 1, 0, 0], ["<", ">", "=", "<"])


def test_matrix_rows_by_hand(mode, m):
    z, y = m.addMVar((2, 3), name="z"), m.addMVar(3, name="y")
    rows = m.addConstr(z * z <= y * y + 2 * y + np.arange(1, 4), name="cone")
    assert (type(rows), rows.shape) == (MQConstr, (2, 3))
    expected = [
        ("<", float(1 + j), {6 + j: -2.0}, {(3 * i + j, 3 * i + j): 1.0, (6 + j, 6 + j): -1.0})
        for i in range(2)
        for j in range(3)
    ]
    assert stored(m) == expected
    assert rows.QName.tolist()[1] == ["cone[1,0]", "cone[1,1]", "cone[1,2]"]
    assert m.NumQConstrs == 6
    assert m.NumConstrs == 0


def test_compact_and_full_forms_give_the_same_rows(mode, m):
    x = m.addMVar(3)
    Q = np.array([[1.0, 2, 0], [0, 0, 3], [4, 0, -1]])
    c = m.addConstr(x @ Q @ x + x.sum() <= 7)
    assert (type(c), c.shape) == (MQConstr, ())
    assert stored(m) == [("<", 7.0, {0: 1, 1: 1, 2: 1}, {(0, 0): 1, (0, 1): 2, (1, 2): 3, (0, 2): 4, (2, 2): -1})]


def test_what_comes_back_tells_scalars_from_arrays(mode, m):
    x, z = m.addVar(), m.addMVar(2)
    for comparison, shape in (
        (x * x <= 1, None),
        (z * z <= 1, (2,)),
        (x * x <= z, (2,)),
        (z @ z <= 1, ()),
        (x * x <= np.ones((3, 1)), (3, 1)),
        (z[0] * x <= 1, ()),
    ):
        handle = m.addConstr(comparison)
        assert getattr(handle, "shape", None) == shape
        assert type(handle) is (QConstr if shape is None else MQConstr)


def test_terms_that_cancel_leave_a_quadratic_row(m):
    x, y = m.addVar(), m.addVar()
    assert type(m.addConstr(x * y + x <= y * x)) is QConstr
    assert stored(m) == [("<", 0.0, {0: 1.0}, {})]


def test_objective_replaces_everything_before(mode, m):
    x, z = m.addVar(obj=7), m.addMVar(2, obj=1)
    m.setObjective(3 * x * x + 2 * z[0] * x + x + 5, sense=-1)
    assert objective(m) == ([[6, 2, 0], [2, 0, 0], [0, 0, 0]], [1, 0, 0], 5, -1)
    m.setObjective(z @ np.array([[1.0, 2], [3, 4]]) @ z + z.sum() - 1)
    assert objective(m) == ([[0, 0, 0], [0, 2, 5], [0, 5, 8]], [0, 1, 1], -1, -1)
    z.Obj = [4, 5]  # the objective's linear terms
    assert objective(m)[1] == [0, 4, 5]
    m.setObjective(x, sense=1)
    assert objective(m) == (np.zeros((3, 3)).tolist(), [1, 0, 0], 0, 1)
    assert not Problem.of(m._cmodel).is_quadratic


def test_objective_takes_every_form_of_one_element(mode, m):
    x, z = m.addVar(), m.addMVar((1, 1))
    for expression in (x * x, z * z, (z * z)[0, 0], z[0] @ z[0], (z * x).sum(), QuadExpr(x)):
        m.setObjective(expression)
        H, linear, *_ = objective(m)
        assert np.abs(H).sum() + np.abs(linear).sum() > 0
    for many in (m.addMVar(3) * x, m.addMVar(0) * x):
        with pytest.raises(ValueError, match="an objective has one element, not shape"):
            m.setObjective(many)
    assert objective(m)[1][0] == 1  # of the last one taken


def test_rows_read_back_as_expressions(m):
    x, y = m.addVar(name="x"), m.addVar(name="y")
    row = m.addConstr(2 * x * y + x * x + 3 * y - 8 <= 1, name="q")
    array = m.addConstr(m.addMVar(1) * x >= 1)
    for read in (m.getRow(row), (m.update(), m.getRow(row))[1]):
        assert type(read) is QuadExpr
        assert list(read.terms()) == [(2.0, x, y), (1.0, x, x)]
        assert list(read.getLinExpr().terms()) == [(3.0, y)]
        assert read.getLinExpr().getConstant() == 0
    assert m.getRow(array).size() == 1
    assert m.getQConstrByName("q") is row
    assert m.getConstrByName("q") is None
    assert m.getQConstrByName("r") is None


def test_removal(mode, m):
    z = m.addMVar(4)
    rows, single = m.addConstr(z * z <= 1), m.addConstr(z[0] * z[1] >= 1)
    m.update()
    m.remove(rows[:2])
    m.remove([single, rows[3]])
    assert m.NumQConstrs == 1
    assert stored(m) == [("<", 1.0, {}, {(2, 2): 1.0})]
    m.remove(z[2])  # takes its terms along
    assert stored(m) == [("<", 1.0, {}, {})]


def test_infinite_sides_mean_none_or_are_refused(m):
    x = m.addVar()
    rows = [m.addConstr(x * x <= INF), m.addConstr(x * x >= -INF)]
    assert [(row.QSense, row.QRHS) for row in rows] == [("<", INF), (">", -INF)]
    for comparison in (x * x >= INF, x * x <= -INF, x * x == INF):
        with pytest.raises(TarvoError, match=r"of the quadratic row Q\d is -?inf: no value meets it"):
            m.addConstr(comparison)
    with pytest.raises(TarvoError, match="is nan"):
        m.addConstr(x * x <= np.array([1.0, np.nan]))
    assert m.NumQConstrs == 2


@pytest.mark.parametrize(
    ("act", "error", "message"),
    [
        (lambda m, x, z, q: m.addRange(x * x, 0, 1), TypeError, "a quadratic row has one side"),
        (lambda m, x, z, q: m.addRange(z * z, 0, 1), TypeError, "a quadratic row has one side"),
        (lambda m, x, z, q: m.setCoeff(q, x, 1.0), TypeError, r"setCoeff\(\) works on linear rows: getRow\(\) shows"),
        (lambda m, x, z, q: m.getCoeff(q, x), TypeError, r"getCoeff\(\) works on linear rows"),
        (lambda m, x, z, q: m.addConstr(x * x), TypeError, "an expression alone is no constraint"),
        (lambda m, x, z, q: m.addConstr(z * z), TypeError, "an expression alone is no constraint"),
        (lambda m, x, z, q: m.addConstr(z * z <= np.ones(4)), ValueError, r"\(3,\).*\(4,\)"),
        (lambda m, x, z, q: m.addConstr(x * x <= "1"), TypeError, "str"),
        (lambda m, x, z, q: m.addConstr(x * x <= tarvopy.Model().addVar()), TarvoError, "two models meet"),
        (lambda m, x, z, q: tarvopy.Model().addConstr(x * x <= 1), TarvoError, "of another model"),
        (lambda m, x, z, q: tarvopy.Model().setObjective(x * x), TarvoError, "of another model"),
        (lambda m, x, z, q: m.setObjective(x * x, sense=2), ValueError, "sense is"),
        (lambda m, x, z, q: m.addConstr(z * z <= 1, name=["a", "b"]), ValueError, "name"),
        (lambda m, x, z, q: m.getRow(m.addConstr(z * z <= 1)), ValueError, "one row"),
    ],
)
def test_what_is_refused_changes_nothing(m, act, error, message):
    x, z = m.addVar(obj=1.0), m.addMVar(3)
    q = m.addConstr(x * x <= 1)
    before = (objective(m), stored(m))
    with pytest.raises(error, match=message):
        act(m, x, z, q)
    assert objective(m) == before[0]
    assert stored(m)[:1] == before[1]


def test_a_refused_size_names_both_shapes(m):
    x = m.addMVar((50_000, 1))
    with pytest.raises(ValueError, match=r"\(50000, 1\).*\(50000,\)"):
        m.addConstr(x * x <= np.zeros(50_000))


def test_removed_variables_are_refused(m):
    x, y = m.addVar(), m.addVar()
    q, e = x * y <= 1, x * x
    m.update()
    m.remove(x)
    m.update()
    for act in (lambda: m.addConstr(q), lambda: m.setObjective(e)):
        with pytest.raises(TarvoError) as caught:
            act()
        assert caught.value.code == tarvopy.TRV.Error.NOT_IN_MODEL
    assert m.NumQConstrs == 0
