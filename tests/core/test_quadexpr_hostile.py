"""QuadExpr under numbers that are none, or that act while they are read, and what it leaves in memory."""

import gc
import math
import numbers
import operator
import sys
from decimal import Decimal

import numpy as np
import pytest

from native import NativeModel
from tarvopy import TRV
from tarvopy._core import LinExpr, QuadExpr, _counts
from tarvopy._exception import TarvoError

MODEL = NativeModel(4)
X, Y, *_ = MODEL.vars


# ---- hostile numbers


@pytest.mark.parametrize("bad", [float("nan"), float("inf"), np.float64("-inf"), Decimal("NaN")])
def test_numbers_that_are_not_finite_are_refused_and_change_nothing(bad):
    expr = X * Y + 1
    before = str(expr)
    uses = [
        lambda: expr + bad,
        lambda: bad - expr,
        lambda: bad * expr,
        lambda: expr / bad,
        lambda: QuadExpr(bad),
        lambda: operator.iadd(expr, bad),
        lambda: operator.imul(expr, bad),
        lambda: expr.add(X * X, bad),
        lambda: expr.add(bad, 0.0),
        lambda: expr._mul(bad),
    ]
    for use in uses:
        with pytest.raises(TarvoError, match="is infinite or NaN") as caught:
            use()
        assert caught.value.code == TRV.ERROR_INVALID_ARGUMENT
    assert str(expr) == before


def test_what_overflows_is_refused_and_changes_nothing():
    huge = X * Y + 1e308
    before = str(huge)
    uses = [
        lambda: huge + huge,
        lambda: operator.iadd(huge, huge),
        lambda: operator.imul(huge, 10),
        lambda: huge.add(X * X + 1e308),
        lambda: (X + 1e200) * (Y + 1e200),
    ]
    for use in uses:
        with pytest.raises(TarvoError, match=r"^Constant is infinite or NaN: (nan|inf)( at \[1\])?$"):
            use()
    with pytest.raises(OverflowError):
        huge += 10**400
    assert str(huge) == before
    wide = LinExpr(np.ones(50_000), [X] * 50_000)
    with pytest.raises(ValueError, match=r"^a product of 50000 by 50000 terms is too large$"):
        wide * wide


class Evil:
    """A number whose conversion runs code."""

    def __init__(self, act):
        self.act = act

    def __float__(self):
        self.act()
        return 2.0


numbers.Real.register(Evil)


class Subclass(float):
    """A float whose conversion must not be asked."""

    def __float__(self):
        raise AssertionError


def test_numbers_that_act_while_they_are_read():
    expr = X * Y + X + 1
    linear = expr.getLinExpr()
    for use in (
        lambda: expr + Evil(expr.clear),
        lambda: Evil(expr.clear) * expr,
        lambda: expr.add(X * X, Evil(lambda: expr.add(expr))),
        lambda: expr.__iadd__(Evil(lambda: expr.addTerms([1] * 1000, [X] * 1000, [Y] * 1000))),
        lambda: expr.__imul__(Evil(expr._normalize)),
        lambda: Evil(lambda: linear.addTerms([1] * 1000, [X] * 1000)) - expr,
        lambda: QuadExpr(Evil(gc.collect)),
        lambda: X ** Evil(expr.clear),
    ):
        use()
        assert expr.size() == len(list(expr.terms()))
    variables = [X, Y]
    with pytest.raises(ValueError, match="2 coefficients for 1 pairs"):
        expr.addTerms([Evil(variables.clear), 1.0], variables[:1], [Y])
    assert str(X * Y + Subclass(2.5)) == "1.0 C0*C1 + 2.5"
    assert [type(c) for c, _, _ in (X * Y * Subclass(2.5)).terms()] == [float]
    added = QuadExpr()
    added.addTerms([Subclass(2.0)], X, Y)
    assert [type(c) for c, _, _ in added.terms()] == [float]

    def fail():
        raise KeyError("no")

    before = str(added)
    for use in (lambda: operator.iadd(added, Evil(fail)), lambda: added.add(X * X, Evil(fail))):
        with pytest.raises(KeyError):
            use()
    assert str(added) == before


# ---- memory


def test_expressions_leave_nothing_behind():
    gc.collect()
    before = _counts()
    references = sys.getrefcount(X), sys.getrefcount(1.0)
    expr = (X + Y + 1) * (X - 2)
    for _ in range(50):
        expr = expr + X * Y - 2 * expr / 3 + expr.getLinExpr()
        expr._normalize()
        expr += expr
        expr *= 0.5
        expr.clear()
        for failing in (lambda e=expr: e * math.inf, lambda e=expr: e + "a", lambda e=expr: e + math.nan):
            with pytest.raises((TypeError, TarvoError)):
                failing()
        expr = (X + 1) ** 2
        str(expr)
        list(expr.terms())
    assert not gc.is_tracked(expr)
    assert not gc.is_tracked(expr.getLinExpr())
    del expr, failing
    gc.collect()
    assert _counts() == before
    assert abs(sys.getrefcount(X) - references[0]) <= 1


def test_expressions_keep_the_model_alive_and_its_end_may_run_code():
    import weakref

    model = NativeModel(2)
    expr = model.vars[0] * model.vars[1] + model.vars[0]
    linear = expr.getLinExpr()
    seen = []
    reference = weakref.ref(model.handle, lambda _: seen.append((expr.size(), str(expr), list(linear.terms()))))
    del model
    gc.collect()
    assert str(expr) == "1.0 C0*C1 + 1.0 C0"
    expr.clear()
    assert reference() is None
    assert seen == [(0, "0.0", [])]


def test_a_product_of_variables_costs_no_linear_expression():
    before = _counts()["LinExpr"]
    products = [a * b for a in MODEL.vars for b in MODEL.vars]
    products = [p + 0.0 for p in products] + [2 * p for p in products] + [p.copy() for p in products]
    assert _counts()["LinExpr"] == before
    assert len(products) == 48
