"""MLinExpr made of parts, of arrays and of what converts to it."""

import numpy as np
import pytest
import scipy.sparse as sp

import tarvopy
from linear_values import FULL, state, terms, variables
from tarvopy._core import LinExpr
from tarvopy._matrixapi import MLinExpr


@pytest.fixture
def model():
    return tarvopy.Model()


# ---- the constructor -----------------------------------------------------------------------------------------------


def test_the_constructor_wraps_without_copying(mode, model):
    x = variables(model, 2)
    matrix, constant, learr = sp.csr_matrix(np.eye(2)), np.ones(2), np.array([LinExpr(1.0), LinExpr(x[0].item())])
    parts = [(matrix, x)]
    e = MLinExpr(matmulparts=parts, b=constant)
    assert (e._matmulparts is parts, e._const is constant, e._learr) == (True, True, None)
    f = MLinExpr(learr)
    assert f._learr is learr
    f += 1
    assert learr[0].getConstant() == 2.0
    e.__init__(learr)
    assert state(e) == FULL
    assert MLinExpr(matmulparts=tuple(parts), b=constant)._is_compact()


def hostile_parts(model):
    x = model.addMVar(2)
    model.update()
    good = sp.csr_matrix(np.eye(2))
    return {
        "no csr_matrix": [(sp.csc_matrix(good), x)],
        "sparse array": [(sp.csr_array(good), x)],
        "integer data": [(good.astype(int), x)],
        "no MVar": [(good, x._vararr)],
        "two-dimensional": [(good, x.reshape(1, 2))],
        "too many variables": [(good, model.addMVar(3))],
    }


@pytest.mark.parametrize("case", hostile_parts(tarvopy.Model()))
def test_broken_parts_fail_the_constructors_assertions(mode, model, case):
    with pytest.raises(AssertionError) as error:
        MLinExpr(matmulparts=hostile_parts(model)[case], b=np.zeros(2))
    assert str(error.value) == ""


def test_broken_arguments_fail_the_constructors_assertions(mode, model):
    x = variables(model, 2)
    part = (sp.csr_matrix(np.eye(2)), x)
    for arguments in (
        {}, {"matmulparts": []}, {"b": np.zeros(2)}, {"matmulparts": [], "b": [0.0]}, {"wraponly": []},
        {"wraponly": np.empty(0, object), "b": np.zeros(0)}, {"wraponly": np.empty(0, object), "matmulparts": []},
        {"matmulparts": [part], "b": np.zeros(0)},
    ):  # fmt: skip
        with pytest.raises(AssertionError):
            MLinExpr(**arguments)


def test_a_part_must_unpack_into_two(mode, model):
    x = variables(model, 2)
    matrix = sp.csr_matrix(np.eye(2))
    with pytest.raises(ValueError, match=r"^too many values to unpack \(expected 2\)$"):
        MLinExpr(matmulparts=[(matrix, x, x)], b=np.zeros(2))
    with pytest.raises(ValueError, match=r"^not enough values to unpack \(expected 2, got 1\)$"):
        MLinExpr(matmulparts=[(matrix,)], b=np.zeros(2))
    with pytest.raises(TypeError, match="cannot unpack non-iterable int object"):
        MLinExpr(matmulparts=[3], b=np.zeros(2))


# ---- conversions ---------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("shape", [(), (4,), (1, 4), (4, 1), (0,)])
def test_a_vector_of_variables_is_one_identity_part(mode, model, shape):
    x = variables(model, shape)
    e = MLinExpr._from_mvar(x)
    assert e._is_compact()
    assert e.shape == shape
    if x.size:
        ((matrix, vector),) = e._matmulparts
        assert isinstance(matrix, sp.csr_matrix)
        assert matrix.dtype == np.float64
        assert np.array_equal(matrix.toarray(), np.eye(x.size))
        assert vector._idxarr().tolist() == list(range(x.size))
    assert terms(e) == terms(MLinExpr._from_mvar(x, force_full=True)) == terms(MLinExpr._from_mvar_full(x))


def test_a_matrix_of_variables_is_full(mode, model):
    x = variables(model, (2, 3))
    e = MLinExpr._from_mvar(x)
    assert not e._is_compact()
    assert terms(e) == [(0.0, [(1.0, i)]) for i in range(6)]
    assert terms(MLinExpr._from_mvar(x.T)) == [(0.0, [(1.0, i)]) for i in (0, 3, 1, 4, 2, 5)]
    with pytest.raises(ValueError, match=r"^Compact state cannot have shape \(2, 3\)$"):
        MLinExpr._from_mvar_compact(x)


def test_scalars_become_zero_dimensional_copies(mode, model):
    x = variables(model, 2)
    var = x[1].item()
    le = 2 * var + 3
    for e, expected in ((MLinExpr._from_var(var), (0.0, [(1.0, 1)])), (MLinExpr._from_linexpr(le), (3.0, [(2.0, 1)]))):
        assert not e._is_compact()
        assert e.shape == ()
        assert terms(e) == [expected]
    e += 1
    assert le.getConstant() == 3.0
    for constructor in (MLinExpr._from_var, MLinExpr._from_linexpr):
        with pytest.raises(Exception, match=r"^Wrong type$") as error:
            constructor(3.0)
        assert type(error.value) is Exception


def test_array_likes_of_expressions_are_copied_element_by_element(mode, model):
    x = variables(model, 3)
    le = 2 * x[0].item()
    nested = [[le, 1 + x[1].item()], [x[2] + 5, (x + 1)[0]]]
    e = MLinExpr._from_linexprs(nested)
    assert e.shape == (2, 2)
    assert terms(e) == [(0.0, [(2.0, 0)]), (1.0, [(1.0, 1)]), (5.0, [(1.0, 2)]), (1.0, [(1.0, 0)])]
    e += 1
    assert le.getConstant() == 0.0
    assert MLinExpr._from_linexprs([]).shape == (0,)
    assert MLinExpr._from_linexprs(le).shape == ()
    with pytest.raises((TypeError, tarvopy.TarvoError)):
        MLinExpr._from_linexprs(["a"])
