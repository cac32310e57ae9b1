"""LinExpr beyond its operators: construction, terms, values, text, and memory in hostile hands."""

import copy
import gc
import pickle

import numpy as np
import pytest

from native import VAR, NativeModel, api
from tarvopy import TRV
from tarvopy._core import LinExpr, TempConstr
from tarvopy._exception import NoDataError, TarvoError


@pytest.fixture
def model():
    return NativeModel(4)


def test_construction(model):
    x, y = model.vars[:2]
    assert [str(LinExpr(a)) for a in (2, x, 2 * x + 1)] == ["2.0", "1.0 C0", "2.0 C0 + 1.0"]
    assert str(LinExpr()) == "0.0"
    source = x + 1
    source_copy = LinExpr(source)
    source_copy += y
    assert str(source) == "1.0 C0 + 1.0"
    assert str(LinExpr([1, 2], [x, y])) == "1.0 C0 + 2.0 C1"
    for wrong in ("x", None, [x], np.ones(2), 1j):
        with pytest.raises(TypeError):
            LinExpr(wrong)
    with pytest.raises(TypeError):
        LinExpr(vars=[x, y])


def test_text_puts_the_constant_last_and_shows_signs(model):
    x, y = model.vars[:2]
    assert str(2 * x + 3 * y - 1) == "2.0 C0 + 3.0 C1 - 1.0"
    assert repr(-1.5 * x - y) == "<LinExpr: -1.5 C0 - 1.0 C1>"
    assert str(0 * x + 1e-9) == "0.0 C0 + 1e-09"
    model.remove(VAR, 0)
    model.update()
    assert str(x + y) == "1.0 (removed) + 1.0 C1"


@pytest.mark.parametrize(
    ("coeffs", "count"),
    [([1, 2], 2), ((1.0, np.float32(2)), 2), (np.array([1, 2]), 2), (np.array([[1.0], [2.0]]), 2), (iter([1, 2]), 2)],
)
def test_add_terms_takes_sequences_arrays_and_iterators(model, coeffs, count):
    expr = LinExpr(1.0)
    expr.addTerms(coeffs, model.vars[:count])
    assert list(expr.terms()) == [(1.0, model.vars[0]), (2.0, model.vars[1])]


def test_add_terms_takes_single_ones_and_object_arrays(model):
    x, y = model.vars[:2]
    expr = LinExpr()
    expr.addTerms(2, x)
    expr.addTerms([3], y)
    expr.addTerms(4, np.array([[x], [y]], dtype=object))
    assert str(expr) == "2.0 C0 + 3.0 C1 + 4.0 C0 + 4.0 C1"


@pytest.mark.filterwarnings("ignore:the matrix subclass:PendingDeprecationWarning")
def test_add_terms_takes_matrix_variables_in_c_order(model):
    from tarvopy._matrixapi import MVar

    expr = LinExpr()
    expr.addTerms(np.matrix([[1, 2], [3, 4]]), MVar.fromlist(model.vars).reshape(2, 2))
    assert str(expr) == "1.0 C0 + 2.0 C1 + 3.0 C2 + 4.0 C3"


@pytest.mark.parametrize(
    ("coeffs", "variables", "error"),
    [
        ([1.0], [0, 1], ValueError),
        ([1.0, "a"], [0, 1], TypeError),
        ([1.0, 2.0], [0, "x"], TypeError),
        ("12", [0, 1], TypeError),
        ([1.0, 1j], [0, 1], TypeError),
        (None, [0], TypeError),
    ],
)
def test_add_terms_changes_nothing_on_an_error(model, coeffs, variables, error):
    expr = model.vars[0] + 1
    with pytest.raises(error):
        expr.addTerms(coeffs, [model.vars[v] if isinstance(v, int) else v for v in variables])
    assert str(expr) == "1.0 C0 + 1.0"


def test_add_and_clear_and_copy(model):
    x, y = model.vars[:2]
    expr = x + 1
    expr.add(2 * y + 3, mult=-2)
    expr.add(x)
    expr.add(5, 2)
    assert str(expr) == "1.0 C0 - 4.0 C1 + 1.0 C0 + 5.0"
    twin = copy.deepcopy(expr)
    expr.clear()
    assert (str(expr), str(twin)) == ("0.0", "1.0 C0 - 4.0 C1 + 1.0 C0 + 5.0")
    with pytest.raises(TypeError, match=r"add\(\) takes"):
        expr.add()
    with pytest.raises(TypeError, match="cannot pickle"):
        pickle.dumps(twin)
    with pytest.raises(TypeError, match="unhashable"):
        hash(twin)


def test_terms_are_as_they_were_at_the_call(model):
    x, y = model.vars[:2]
    expr = x + y
    terms = expr.terms()
    expr.clear()
    assert list(terms) == [(1.0, x), (1.0, y)]


def test_value_comes_from_the_solution(model):
    x, y = model.vars[:2]
    expr = 2 * x - y + 1
    with pytest.raises(NoDataError):
        expr.getValue()
    model.solve_with([3.0, 4.0, 0.0, 0.0])
    assert expr.getValue() == 3.0
    assert LinExpr(5.0).getValue() == 5.0


class Evil:
    """A number whose conversion runs code."""

    def __init__(self, act):
        self.act = act

    def __float__(self):
        self.act()
        return 2.0


def test_numbers_that_act_while_they_are_read(model):
    import numbers

    numbers.Real.register(Evil)
    x, y = model.vars[:2]
    expr = x + y + 1
    for use in (
        lambda: expr + Evil(expr.clear),
        lambda: Evil(expr.clear) * expr,
        lambda: expr.add(y, Evil(lambda: expr.add(expr))),
        lambda: expr.__iadd__(Evil(lambda: expr.addTerms([1] * 1000, [x] * 1000))),
        lambda: expr.__imul__(Evil(expr._normalize)),
        lambda: LinExpr(Evil(gc.collect)),
    ):
        use()
        assert expr.size() == len(list(expr.terms()))
    variables = [x, y]
    with pytest.raises(ValueError, match=r"^2 coefficients for 1 variables$"):
        expr.addTerms([Evil(variables.clear), 1.0], variables[:1])
    coefs = [Evil(lambda: coefs.clear()), 1.0]
    fresh = LinExpr()
    fresh.addTerms(coefs, [x, y])
    assert str(fresh) == "2.0 C0 + 1.0 C1"

    def fail():
        raise KeyError("no")

    before = str(fresh)
    with pytest.raises(KeyError):
        fresh += Evil(fail)
    with pytest.raises(KeyError):
        fresh.addTerms([1.0, Evil(fail)], [x, y])
    assert str(fresh) == before


def test_dropping_the_last_variable_of_a_model_may_run_code():
    import weakref

    model = NativeModel(2)
    expr = LinExpr([1.0, 2.0], model.vars)
    seen = []
    reference = weakref.ref(model.handle, lambda _: seen.append((expr.size(), list(expr.terms()))))
    del model
    gc.collect()
    assert reference() is not None
    expr.clear()
    assert reference() is None
    assert seen == [(0, [])]


def test_expressions_keep_the_model_alive_and_leave_nothing_behind():
    from tarvopy._core import _counts

    gc.collect()
    before = _counts()
    model = NativeModel(3)
    expr = LinExpr([1.0] * 3, model.vars)
    del model
    gc.collect()
    assert str(expr) == "1.0 C0 + 1.0 C1 + 1.0 C2"
    assert not gc.is_tracked(expr)
    del expr
    gc.collect()
    assert _counts() == before


def test_closed_model_refuses_every_use(model):
    x = model.vars[0]
    expr = x + 1
    model.handle._close()
    model.handle._close()
    for use in (lambda: x.LB, lambda: setattr(x, "LB", 1), lambda: x.index, lambda: expr.getValue()):
        with pytest.raises(TarvoError, match=r"^the model is closed$") as caught:
            use()
        assert caught.value.code == TRV.Error.CLOSED
    assert (repr(x), str(expr)) == ("<Var (model closed)>", "1.0 (model closed) + 1.0")
    assert (x + expr).size() == 2


def test_model_that_is_being_solved_refuses_until_it_is_done(model):
    x = model.vars[0]
    model.handle._solving = True
    for use in (lambda: x.LB, lambda: x.index, model.handle._close):
        with pytest.raises(TarvoError, match="is being solved"):
            use()
    assert repr(x) == "<Var (being solved)>"
    model.handle._solving = False
    assert x.LB == 0.0


def test_rows_in_bulk(model):
    exprs = model.linexprs([0, 2, 2, 3], [0, 1, 3], [1.0, 2.0, 3.0], constants=[1.0, 0.0, -2.0])
    assert [str(e) for e in exprs] == ["1.0 C0 + 2.0 C1 + 1.0", "0.0", "3.0 C3 - 2.0"]
    assert [str(e) for e in model.linexprs([5, 6, 7], [0, 1], scale=-2.0)] == ["-2.0 C0", "-2.0 C1"]
    assert next(exprs[0].terms())[1] is model.vars[0]
    with pytest.raises(TarvoError) as caught:
        model.linexprs([0, 2], [0, 4])
    assert caught.value.code == TRV.Error.NOT_IN_MODEL
    with pytest.raises(TarvoError):
        model.linexprs([0, 2], [0, -1])


def test_rows_in_bulk_share_equal_coefficients(model):
    coefs = np.tile([1.0, -2.0, 0.0, -0.0], 100)
    (expr,) = model.linexprs([0, 400], [0] * 400, coefs)
    objects = [c for c, _ in expr.terms()]
    assert np.signbit(objects).tolist() == np.signbit(coefs).tolist()
    assert len({id(c) for c in objects}) == 4
    expr *= 3.0
    assert [c for c, _ in expr.terms()] == (coefs * 3.0).tolist()


def test_native_functions_refuse_foreign_objects(model):
    expr = model.vars[0] + 1
    for use in (
        lambda: api.linexpr_add(3, expr, 1.0),
        lambda: api.linexpr_add(expr, "a", 1.0),
        lambda: api.linexpr_scale(model.vars[0], 2.0),
        lambda: api.linexpr_copy(None),
        lambda: api.linexpr_clear(object()),
    ):
        with pytest.raises(TypeError):
            use()
    api.linexpr_assign(expr, 2 * expr)
    assert str(expr) == "2.0 C0 + 2.0"
    api.linexpr_assign(expr, expr)
    api.linexpr_add(expr, expr, -0.5)
    api.linexpr_normalize(expr)
    assert str(expr) == "1.0 C0 + 1.0"


def test_tempconstr_keeps_what_it_is_given_and_is_collected():
    import weakref

    class Side:
        pass

    side = Side()
    constraint = TempConstr(side, "<", [1])
    assert (constraint.lhs, constraint.sense, constraint.rhs) == (side, "<", [1])
    assert [repr(TempConstr(1, sense, 2))[13:-1] for sense in ("<", "=", "<=")] == ["1 <= 2", "1 == 2", "1 <= 2"]
    side.cycle = constraint
    reference = weakref.ref(side)
    del side, constraint
    gc.collect()
    assert reference() is None
    loop = []
    loop.append(TempConstr(loop, "=", 1))
    assert "..." in repr(loop[0])
    chain = 0
    for _ in range(200_000):  # each the side of the next
        chain = TempConstr(chain, "<", 1)
    del chain
    with pytest.raises(TypeError):
        TempConstr(1, 2)


def test_second_initialisation_is_refused():
    import subprocess
    import sys

    code = """
import sys, tarvopy._core
x = sys.modules.pop("tarvopy._core")
try:
    import tarvopy._core
except RuntimeError as error:
    assert str(error) == "'_core' has already been imported. Re-initialisation is not supported.", error
else:
    raise SystemExit("imported twice")
"""
    result = subprocess.run([sys.executable, "-c", code], check=False, capture_output=True, text=True)
    assert (result.returncode, result.stderr) == (0, "")
