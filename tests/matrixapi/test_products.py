"""Matrix products with variables: matrices of every number type, variables of several models, matrices that lie."""

import subprocess
import sys
import textwrap

import numpy as np
import pytest
import scipy.sparse as sp

import tarvopy
from linear_values import terms
from tarvopy._matrixapi import MLinExpr, MVar

NUMBERS = np.array([[1.0, 0.0], [3.0, 4.0], [0.0, 2.0]])


@pytest.fixture
def x():
    model = tarvopy.Model()
    x = model.addMVar(2, name="x")
    model.update()
    return x


def pairs(expr):
    return [(matrix.toarray().tolist(), vector.tolist()) for matrix, vector in expr._matmulparts]


@pytest.mark.parametrize("dtype", [object, np.longdouble, np.float32, np.int8, np.uint64, np.float16])
def test_a_matrix_of_any_real_numbers_becomes_a_part_of_float64(mode, x, dtype):
    matrix = NUMBERS.astype(dtype)
    given = [lambda: matrix @ x, lambda: x @ matrix.T, lambda: matrix.view(np.ma.MaskedArray) @ x]
    if dtype not in (object, np.float16):  # SciPy has no sparse matrices of these
        given.append(lambda: sp.coo_array(matrix) @ x)
    for product in given:
        e = product()
        assert e._is_compact()
        assert pairs(e) == [(NUMBERS.tolist(), x.tolist())]
        assert e._matmulparts[0][0].dtype == np.float64


@pytest.mark.parametrize("dtype", [complex, "U3", "M8[s]"])
def test_what_is_no_real_number_is_refused(mode, x, dtype):
    with pytest.raises(TypeError, match="real numbers is needed"):
        NUMBERS.astype(dtype) @ x
    for entry in (None, "1", x[0].item()):
        with pytest.raises(TypeError, match="matrix of numbers"):
            np.array([[entry, 1.0]], dtype=object) @ x
    with pytest.raises(TypeError, match="array of real numbers, not of dtype"):
        sp.csr_matrix(NUMBERS.astype(complex)) @ x


def test_a_sparse_vector_keeps_its_doubled_entries(mode, x):
    """SciPy's conversion to rows adds them up in the matrix itself."""
    vector = sp.coo_array(([1.0, 2.0, 3.0], ([0, 1, 0],)), shape=(x.size,))
    expected = vector.toarray()
    x @ vector
    np.testing.assert_array_equal(vector.toarray(), expected)


def test_variables_of_several_models_form_parts_of_themselves(mode, x):
    other = tarvopy.Model()
    y = other.addMVar(1, name="y")
    other.update()
    both = MVar.fromlist(x.tolist() + y.tolist())
    matrix = np.arange(6.0).reshape(2, 3)
    for e in (matrix @ both, both @ matrix.T, sp.csr_array(matrix) @ both):
        assert pairs(e) == [(matrix.tolist(), both.tolist())]
        with pytest.raises(tarvopy.TarvoError) as refused:
            other.addConstr(e <= 1)
        assert refused.value.code == tarvopy.TRV.Error.NOT_IN_MODEL
    assert pairs(both @ np.array([1.0, 2.0, 3.0])) == [([[1.0, 2.0, 3.0]], both.tolist())]
    spread = np.array([[2.0]]) @ both.reshape(1, 3)
    assert pairs(spread) == [((2.0 * np.eye(3)).tolist(), both.tolist())]
    added = MLinExpr.zeros(2)
    added._add_matmul_part(matrix, both)
    assert pairs(added) == [(matrix.tolist(), both.tolist())]


def test_elements_of_any_type_stand_in_a_part(mode):
    class Element:
        _cmodel = "model"

    elements = MVar(np.array([Element(), Element()]))
    assert pairs(NUMBERS @ elements) == [(NUMBERS.tolist(), elements.tolist())]


def test_a_matrix_that_changes_while_it_is_read_is_an_error_and_no_crash():
    code = textwrap.dedent("""
        import numpy as np, scipy.sparse as sp, tarvopy
        from tarvopy._matrixapi import MLinExpr
        model = tarvopy.Model()
        x, X = model.addMVar(4), model.addMVar((4, 3))
        class Liar(sp.lil_matrix):
            def tocsr(self, copy=False):
                return self.answer
        def steal(victim):
            victim._vararr = np.array(victim._vararr.ravel()[:1])
        class Thief(sp.lil_matrix):
            def tocsr(self, copy=False):
                steal(self.victim)
                return sp.csr_matrix(np.ones(self.shape))
        class EntryThief(sp.coo_matrix):
            @property
            def data(self):
                if hasattr(self, "victim"):
                    steal(self.victim)
                return self.numbers
            @data.setter
            def data(self, numbers):
                self.numbers = numbers
        def refused(function):
            try:
                repr(function())
            except ValueError:
                return
            raise SystemExit("not refused")
        def liar(shape, answer):
            matrix = Liar(np.ones(shape))
            matrix.answer = sp.csr_matrix(np.ones(answer))
            return matrix
        for n, k in ((2, 400), (400, 4), (0, 4), (2, 0), (1, 1)):
            for variables in (x, X, x + 1, X + 1):
                refused(lambda: variables.__rmatmul__(liar((2, 4), (n, k))))
            for variables in (x, X.T, x + 1, X.T + 1):
                refused(lambda: variables @ liar((4, 2), (k, n)))
            refused(lambda: MLinExpr.zeros(2)._add_matmul_part(liar((2, 4), (n, k)), x))
        for shape in ((4,), (4, 3)):
            for thief in (Thief, EntryThief):
                matrix = thief(np.ones((2, 4)))
                matrix.victim = model.addMVar(shape)
                refused(lambda: matrix.victim.__rmatmul__(matrix))
    """)
    done = subprocess.run([sys.executable, "-W", "ignore", "-c", code], capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stderr


def test_a_sparse_row_of_long_doubles_keeps_its_order(mode, x):
    matrix = sp.csr_matrix((np.array([2, 1], np.longdouble), np.array([1, 0]), np.array([0, 2])), shape=(1, 2))
    assert terms(matrix @ x) == [(0.0, [(2.0, 1), (1.0, 0)])]
