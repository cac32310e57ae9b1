"""setObjective: what arrives in Obj, ObjConstant and ModelSense."""

import numpy as np
import pytest

import tarvopy
from model_arrays import arrays
from tarvopy import TRV, TarvoError


def test_objective_replaces_everything_before(mode, m):
    x, X = m.addVar(obj=7), m.addMVar(3, obj=1)
    m.setObjective(2 * x + 3, TRV.MAXIMIZE)
    a = arrays(m)
    assert (a.obj.tolist(), a.constant, a.sense) == ([2, 0, 0, 0], 3, -1)
    m.setObjective(np.arange(3.0) @ X + 2 * X.sum() - 1)
    a = arrays(m)
    assert (a.obj.tolist(), a.constant, a.sense) == ([0, 2, 3, 4], -1, -1)
    m.setObjective(4, sense=TRV.MINIMIZE)
    a = arrays(m)
    assert (a.obj.tolist(), a.constant, a.sense) == ([0, 0, 0, 0], 4, 1)


def test_objective_takes_every_form_of_one_element(mode, m):
    x, X = m.addVar(), m.addMVar((1, 1))
    for expression in (x, 1 * x, X, X[0, 0], 2 * X + x - X.sum(), X.sum(), (3 * X).sum()):
        m.setObjective(expression)
    assert arrays(m).obj.tolist() == [0, 3]


def test_Obj_set_later_changes_the_objective(m):
    X = m.addMVar(2)
    m.setObjective(X.sum())
    X.Obj = [5, 6]
    m.addVar(obj=1)
    assert arrays(m).obj.tolist() == [5, 6, 1]


@pytest.mark.parametrize(
    ("make", "error"),
    [
        (lambda x, X: (X,), ValueError),
        (lambda x, X: (X[:0],), ValueError),
        (lambda x, X: (float("nan"),), TarvoError),
        (lambda x, X: (float("inf"),), TarvoError),
        (lambda x, X: (x <= 1,), TypeError),
        (lambda x, X: (None,), TypeError),
        (lambda x, X: ("x",), TypeError),
        (lambda x, X: (x, 0), ValueError),
        (lambda x, X: (x, "max"), ValueError),
        (lambda x, X: (x, 1.0), ValueError),
        (lambda x, X: (tarvopy.Model().addVar(),), TarvoError),
    ],
)
def test_refused_objectives_keep_the_old_one(m, make, error):
    x, X = m.addVar(obj=3), m.addMVar(3, obj=4)
    m.ObjConstant = 5
    with pytest.raises(error):
        m.setObjective(*make(x, X))
    a = arrays(m)
    assert (a.obj.tolist(), a.constant, a.sense) == ([3, 4, 4, 4], 5, 1)
