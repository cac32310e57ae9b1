"""MLinExpr over data that others made: damaged matrices, foreign elements, objects that lie."""

import operator
import subprocess
import sys
import textwrap

import numpy as np
import pytest
import scipy.sparse as sp

import tarvopy
from linear_values import terms, variables
from tarvopy import nlfunc
from tarvopy._matrixapi import MLinExpr


@pytest.fixture
def model():
    return tarvopy.Model()


def broken(matrix, **arrays):
    for name, array in arrays.items():
        setattr(matrix, name, array)
    return matrix


def csr():
    return sp.csr_matrix(np.array([[1.0, 0.0, 2.0], [0.0, 3.0, 0.0]]))


BROKEN = {
    "column out of range": lambda: broken(csr(), indices=np.array([0, 3, 1])),
    "negative column": lambda: broken(csr(), indices=np.array([0, -1, 1])),
    "huge column": lambda: broken(csr(), indices=np.array([0, 2**32 + 1, 1])),
    "decreasing pointers": lambda: broken(csr(), indptr=np.array([0, 3, 2])),
    "negative pointer": lambda: broken(csr(), indptr=np.array([-1, 2, 3])),
    "pointer past the end": lambda: broken(csr(), indptr=np.array([0, 2, 9])),
    "too few pointers": lambda: broken(csr(), indptr=np.array([0, 3])),
    "too few values": lambda: broken(csr(), data=np.array([1.0])),
    "two-dimensional columns": lambda: broken(csr(), indices=np.zeros((3, 1), int)),
}


@pytest.mark.parametrize("case", BROKEN)
@pytest.mark.parametrize(
    "use", ["e[0]", "e.copy()", "repr(e)", "e.getValue()", "e + e", "model.addConstr(e <= 0)", "e.sum()"]
)
def test_a_damaged_csr_matrix_is_an_error(mode, model, case, use):
    x = variables(model, 3)
    e = MLinExpr(matmulparts=[(csr(), x)], b=np.zeros(2))
    e._matmulparts[0] = (BROKEN[case](), x)
    with pytest.raises(ValueError, match=r"sparse matrix|index|indices"):
        eval(use, {"e": e, "model": model})
    model.update()
    assert model.NumConstrs == 0
    assert e._is_compact()


def test_unusual_csr_matrices_give_right_answers(mode, model):
    x = variables(model, 3)
    wide = csr()
    wide.indices, wide.indptr = wide.indices.astype(np.int64), wide.indptr.astype(np.int64)
    unsorted = broken(csr(), indices=np.array([2, 0, 1], np.int32))
    doubled = broken(csr(), indices=np.array([2, 2, 1], np.int32))
    expected = [[(1.0, 0), (2.0, 2)], [(1.0, 2), (2.0, 0)], [(1.0, 2), (2.0, 2)]]
    for matrix, row in zip((wide, unsorted, doubled), expected, strict=True):
        e = MLinExpr(matmulparts=[(matrix, x)], b=np.zeros(2))
        assert terms(e) == [(0.0, row), (0.0, [(3.0, 1)])]


def run_child(program, *options):
    code = textwrap.dedent("""
        import numpy as np, scipy.sparse as sp, tarvopy, gc
        from tarvopy._core import LinExpr
        from tarvopy._matrixapi import MLinExpr, MVar
        model = tarvopy.Model()
        x = model.addMVar(4, name="x")
        model.update()
        def refused(function):
            try:
                function()
            except Exception:
                return True
            raise SystemExit("not refused")
    """) + textwrap.dedent(program)
    done = subprocess.run([sys.executable, *options, "-c", code], capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stderr


@pytest.mark.parametrize("learr", [
    "np.empty(3, object)", "np.array([None, 1, 'a'], object)", "np.zeros(3)", "np.array(['a', 'b', 'c'])",
    "np.array([x[0].item(), LinExpr(1.0), LinExpr(2.0)], object)", "np.ma.array([LinExpr(1.0)] * 3, mask=[1, 0, 0])",
    "np.zeros(3, [('a', object)])", "np.empty((3, 2), object)[:, 0]",
], ids=str)  # fmt: skip
def test_foreign_elements_end_in_exceptions_not_in_crashes(learr):
    run_child(f"""
        def use(work):
            e = MLinExpr({learr})
            try:
                work(e)
            except (TypeError, ValueError, AttributeError, IndexError, tarvopy.TarvoError):
                pass
        for work in (
            lambda e: e.sum(), lambda e: e + 1, lambda e: e.copy(), repr, lambda e: e.getValue(),
            lambda e: e.clear(),
            lambda e: e._normalize(), lambda e: e.__setitem__(0, 1), lambda e: e * 2,
            lambda e: e.__setitem__(slice(None), x[:3]),
            lambda e: MLinExpr.zeros(3).__setitem__(slice(None), e),
            lambda e: model.addConstr(e <= 1), lambda e: e[0].item(),
            lambda e: e.__iadd__(x[:3]), lambda e: np.ones((2, 3)) @ e, lambda e: e.getConstant(), list,
        ):
            use(work)
        model.update()
    """)


def test_evil_objects_end_in_exceptions_not_in_crashes():
    run_child("""
        class Evil(np.ndarray):
            def __getitem__(self, key):
                return np.ones(7)
        e = MLinExpr(np.array([LinExpr(1.0)] * 3).view(Evil))
        refused(lambda: e.__setitem__(0, 3))
        e[0], e.sum(), e + 1
        class Key:
            def __index__(self):
                target._learr = None
                return 0
        target = x + 1
        refused(lambda: (target.__setitem__(Key(), 5), target.sum()))
        class Swaps(sp.csr_matrix):
            @property
            def shape(self):
                host._convert_to_full() if armed else None
                return (4, 4)
            @shape.setter
            def shape(self, value):
                pass
        armed = False
        host = MLinExpr(matmulparts=[(Swaps(np.eye(4)), x)], b=np.zeros(4))
        armed = True
        try:
            host.sum()
        except RecursionError:
            pass
        for method in (MLinExpr.sum, MLinExpr.copy, MLinExpr.getValue, MLinExpr._to_full, MLinExpr.clear):
            refused(lambda: method(x))
        refused(lambda: MLinExpr.sum(3))
        refused(lambda: MLinExpr._from_mvar(3))
        refused(lambda: MLinExpr._from_linexprs([object()]))
        e = x + 1
        e._const.resize(2, refcheck=False)
        refused(lambda: e.sum())
        refused(lambda: repr(e))
        refused(lambda: model.addConstr(e <= 1))
        e = x + 1
        e._const = np.matrix(np.zeros((1, 4)))
        refused(lambda: e.shape)
        f = MLinExpr(np.array([LinExpr(1.0)]))
        f.__dict__ = {"_learr": f, "_matmulparts": f, "_const": f}
        refused(lambda: f.sum())
        refused(lambda: setattr(f, "__dict__", 3))
        for dtype in (complex, object):
            e = x + 1
            e._const = np.full(4, 1j if dtype is complex else None, dtype=dtype)
            for use in (lambda: 2.0 * e, lambda: -e, lambda: np.ones((4, 4)) @ e, lambda: e @ np.ones(4)):
                refused(use)
        unset = np.empty_like(np.array([None] * 4))  # holds no objects at all
        for e in (x + 1, (x + 1)._to_full()):
            refused(lambda: e.__iadd__(unset))
            refused(lambda: e.__imul__(unset))
        gc.collect()
    """)


def test_without_assertions_the_constructor_takes_what_it_is_given():
    run_child("""
        e = MLinExpr(matmulparts=[(sp.csc_matrix(np.eye(2)), x[:2])], b=np.zeros(2))
        assert False, "assertions are off"
        if str(e[0].item()) != "1.0 x[0]":
            raise SystemExit(3)
        MLinExpr([])._learr.append(1)
    """, "-O")  # fmt: skip


def test_a_constant_resized_by_its_user_is_noticed_at_every_use():
    run_child("""
        uses = [
            lambda e, n: e.__imul__(np.ones(n)), lambda e, n: e * np.ones(n), lambda e, n: e.__iadd__(1).sum(),
            lambda e, n: e.copy(), lambda e, n: e + x[:2], lambda e, n: e._concat_matmulparts(), lambda e, n: repr(e),
            lambda e, n: e.getValue(), lambda e, n: np.ones((2, n)) @ e, lambda e, n: e._convert_to_full(),
            lambda e, n: model.addConstr(e <= 1),
        ]
        for n in (2, 6):
            for use in uses:
                e = x + 1
                e._const.resize(n, refcheck=False)
                refused(lambda: use(e, n))
    """)


def test_a_number_that_is_none_is_refused_with_its_place_and_changes_nothing(mode):
    x = tarvopy.Model().addMVar((2, 3))
    numbers = np.ones((2, 3))
    numbers[1, 2] = np.nan
    for expression in (2 * x + 1, x * x, nlfunc.exp(x)):
        before = str(expression)
        for use in (operator.add, operator.sub, operator.iadd):
            with pytest.raises(tarvopy.TarvoError, match=r"^Constant is infinite or NaN: nan at \[1, 2\]$"):
                use(expression, numbers)
        with pytest.raises(tarvopy.TarvoError, match=r"^Constant is infinite or NaN: inf$"):
            expression + np.inf
        assert str(expression) == before
