"""MQuadExpr: states and attributes, `__init__`, parts, elements and text, copies, memory, hostile data."""

import copy
import gc
import subprocess
import sys
import tracemalloc
import weakref

import numpy as np
import pytest
import scipy.sparse as sp

import tarvopy
from linear_values import Point, variables
from quadratic_values import MATRIX, coo, everything, function, quad_terms, value, with_foreign_elements, zero
from tarvopy import _debug
from tarvopy._core import QuadExpr
from tarvopy._matrixapi import MQuadExpr, MVar


@pytest.fixture
def model():
    return tarvopy.Model()


@pytest.fixture
def x(model):
    return variables(model, 3)


@pytest.fixture
def switch():
    """Sets the class switch for compact results, and puts it back."""
    yield lambda value: setattr(MQuadExpr, "_keep_compact", value)
    MQuadExpr._keep_compact = 1


def with_parts(*triples):
    """A compact expression of one element."""
    return MQuadExpr(quadparts=list(triples), ndle=zero())


# ---- states --------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("shape", [(), 0, 1, (0,), (1,), (0, 0), (0, 1), (1, 0), (1, 1)])
def test_zeros_of_at_most_one_element_and_two_dimensions_are_compact(mode, shape):
    q = MQuadExpr.zeros(shape)
    assert q._is_compact()
    assert (q._quadparts, q._qearr) == ([], None)
    assert q.shape == q._ndle.shape == np.zeros(shape).shape
    assert (q.ndim, q.size) == (np.ndim(np.zeros(shape)), np.size(np.zeros(shape)))


@pytest.mark.parametrize("shape", [(2,), (1, 1, 1), (2, 3), (0, 2), (0, 0, 0)])
def test_zeros_of_other_shapes_are_full_with_an_object_in_every_slot(mode, shape):
    q = MQuadExpr.zeros(shape)
    assert not q._is_compact()
    assert q._quadparts is None
    assert q._qearr.dtype == object
    assert q._qearr.shape == q.shape == shape
    assert len({id(qe) for qe in q._qearr.flat}) == q.size


def test_the_switch_makes_every_constructor_full(mode, switch, model):
    z = variables(model, 1)
    switch(0)
    assert not MQuadExpr.zeros(())._is_compact()
    assert not MQuadExpr._from_mvar_times_mvar(z, z)._is_compact()
    assert not MQuadExpr._from_mlinexpr(zero())._is_compact()


def test_the_attributes_and_their_order_are_an_ordinary_objects(mode, x):
    for q in (x * x, MQuadExpr.zeros(())):
        q.note = "mine"
        assert list(vars(q)) == ["_qearr", "_quadparts", "_ndle", "note"]
        assert list(q.__getstate__()) == list(vars(q))


def test_looking_makes_the_objects_once(mode, x):
    q = x * x
    array = q._qearr
    assert q._qearr is array
    assert q._qearr[0] is array[0]
    p = MQuadExpr.zeros(())
    p._add_quadpart(x, coo(np.eye(3)), x)
    assert p._quadparts is p._quadparts
    assert p._quadparts[0][0] is x


def test_what_is_stored_in_the_attributes_is_the_expression(mode, x):
    q, other = x * x, MQuadExpr._from_mvar_times_mvar(x, x[::-1])
    q._qearr = other._qearr
    assert q[0].item().terms().__next__()[2] is x[2].item()
    q._ndle = 1.0 + x
    assert [qe.getLinExpr().getConstant() for qe in (q[i].item() for i in range(3))] == [1.0] * 3
    for name in ("_qearr", "_quadparts", "_ndle"):
        delattr(q, name)
        with pytest.raises(AttributeError, match=name):
            getattr(q, name)


def test_numbers_of_the_array_can_be_cleared_by_hand(mode, x):
    q = x * x
    MQuadExpr._clear_quad_array(q._qearr[:2])
    assert [qe.size() for qe in q._qearr] == [0, 0, 1]


# ---- __init__ ------------------------------------------------------------------------------------------------------


def hostile_arguments(x):
    eye = coo(np.eye(3))
    two = MVar(x._vararr[:2])
    yield {"ndle": None}
    yield {"qearr": np.array([QuadExpr()]), "ndle": zero()}
    yield {"qearr": np.array(QuadExpr()), "quadparts": [], "ndle": zero()}
    yield {"quadparts": [], "ndle": zero(2)}
    yield {"quadparts": [], "ndle": zero((1, 1, 1))}
    yield {"quadparts": [(x, eye, x)], "ndle": zero(0)}
    yield {"quadparts": [(x, eye.tocsr(), x)], "ndle": zero()}
    yield {"quadparts": [(x, eye.astype(np.float32), x)], "ndle": zero()}
    yield {"quadparts": [(x, eye.toarray(), x)], "ndle": zero()}
    yield {"quadparts": [(two, eye, x)], "ndle": zero()}
    yield {"quadparts": [(x, eye, two)], "ndle": zero()}
    yield {"quadparts": [(x._vararr, eye, x)], "ndle": zero()}
    yield {"quadparts": [(x.reshape(1, 3), eye, x)], "ndle": zero()}


def test_what_does_not_fit_together_is_a_bare_assertion_error(x):
    for arguments in hostile_arguments(x):
        with pytest.raises(AssertionError) as caught:
            MQuadExpr(**arguments)
        assert str(caught.value) == ""


@pytest.mark.parametrize(
    ("part", "error", "text"),
    [
        ((1, 2, 3, 4), ValueError, "too many values to unpack (expected 3)"),
        ((1, 2), ValueError, "not enough values to unpack (expected 3, got 2)"),
        (7, TypeError, "cannot unpack non-iterable int object"),
    ],
)
def test_a_part_is_unpacked_into_three(part, error, text):
    with pytest.raises(error) as caught:
        MQuadExpr(quadparts=[part], ndle=zero())
    assert str(caught.value) == text


def test_wrapping_copies_nothing(mode, x):
    array, ndle, parts = (x * x)._qearr, zero(3), [(x, coo(np.eye(3)), x)]
    q = MQuadExpr(array, None, ndle)
    assert (q._qearr is array, q._ndle is ndle) == (True, True)
    p = MQuadExpr(quadparts=parts, ndle=zero())
    assert p._quadparts is parts


def test_without_assertions_broken_expressions_raise_and_do_not_crash():
    program = """
import numpy as np, tarvopy
from tarvopy._core import QuadExpr
from tarvopy._matrixapi import MLinExpr, MQuadExpr
m = tarvopy.Model(); x = m.addMVar(3); m.update()
q = x * x
q._ndle = MLinExpr.zeros(2)
made = x * x
made._qearr
made._ndle = MLinExpr.zeros((2, 2))
small = x @ x
small._ndle = MLinExpr.zeros(5000)
broken = [small, MQuadExpr(), MQuadExpr(ndle=7), MQuadExpr(np.array([QuadExpr()]), None, MLinExpr.zeros(2)), q, made,
          MQuadExpr(quadparts=[(x, np.eye(2), x)], ndle=MLinExpr.zeros(())),
          MQuadExpr(np.array([None]), None, MLinExpr.zeros(1))]
uses = [lambda e: e.copy(), repr, lambda e: e[0], lambda e: e.item(), lambda e: e.getValue(), lambda e: e._to_full(),
        lambda e: e.sum(), lambda e: m.addConstr(x[0] <= e), lambda e: e.__setitem__(0, e),
        lambda e: e._normalize(), lambda e: e._extract_xQy()]
refused = 0
for e in broken:
    for use in uses:
        try:
            use(e)
        except Exception:
            refused += 1
for use in (repr, MQuadExpr.getValue, lambda e: 2 * e, lambda e: m.addConstr(e <= 1)):
    try:
        use(small)
    except ValueError:
        refused += 1000
print(refused // 1000, refused % 1000 > len(broken))
"""
    done = subprocess.run([sys.executable, "-O", "-c", program], capture_output=True, text=True)
    assert (done.returncode, done.stdout, done.stderr) == (0, "4 True\n", "")


# ---- parts ---------------------------------------------------------------------------------------------------------


def test_parts_merge_block_diagonally_in_order(mode, model):
    a, b, c = variables(model, 2), variables(model, 3), variables(model, 1)
    first = np.array([[1.0, 0.0, 2.0], [0.0, 3.0, 0.0]])
    q = with_parts((a, coo(first), b), (c, coo([[4.0]]), c))
    terms = quad_terms(q._to_full())
    x, matrix, y = q._extract_xQy()
    assert len(q._quadparts) == 1
    assert matrix.shape == (3, 4)
    np.testing.assert_array_equal(matrix.toarray(), sp.block_diag([coo(first), coo([[4.0]])]).toarray())
    assert list(x._vararr) == [*a._vararr, *c._vararr]
    assert list(y._vararr) == [*b._vararr, *c._vararr]
    assert quad_terms(q) == terms == [[(1.0, 0, 2), (2.0, 0, 4), (3.0, 1, 3), (4.0, 5, 5)]]


def test_without_parts_there_is_nothing_to_extract(mode):
    q = MQuadExpr.zeros(())
    assert q._extract_xQy() == (None, None, None)
    assert q._extract_quadexpr().size() == 0


def test_the_sum_of_the_parts_comes_as_a_new_object_without_linear_terms(mode, x):
    q = function(x, MATRIX, 7.0)
    qe = q._extract_quadexpr()
    assert (qe.size(), qe.getLinExpr().getConstant()) == (6, 0.0)
    assert q._extract_quadexpr() is not qe
    assert q._is_compact()


def test_empty_and_ill_fitting_parts_are_refused(x, model):
    q, empty = MQuadExpr.zeros(()), variables(model, 0)
    for part in [(empty, np.ones((0, 0)), empty), (x, np.ones((2, 3)), x), (x, np.ones(3), x)]:
        with pytest.raises(AssertionError):
            q._add_quadpart(*part)
    assert q._quadparts == []


@pytest.mark.parametrize(
    "damage",
    [
        lambda m: setattr(m, "row", np.array([0, 1, 7], dtype=np.int32)),
        lambda m: setattr(m, "col", np.array([0, -1, 2], dtype=np.int32)),
        lambda m: setattr(m, "row", np.array([0, 1], dtype=np.int32)),
        lambda m: setattr(m, "data", np.array([1.0])),
        lambda m: setattr(m, "data", np.array([1.0, 2.0, 1j])),
    ],
)
def test_a_damaged_matrix_is_an_error_and_no_crash(x, damage):
    matrix = coo(np.eye(3))
    q = with_parts((x, matrix, x))
    damage(matrix)
    for use in (q.copy, q._to_full, q.getValue, q.item, lambda: q._convert_to_full(), lambda: repr(q)):
        with pytest.raises((ValueError, TypeError)):
            use()


def test_parts_over_two_models_and_foreign_elements(x):
    other = variables(tarvopy.Model(), 3)
    q = with_parts((x, coo(np.eye(3)), x), (other, coo(np.eye(3)), x))
    assert [b for _, _, b in q._to_full().item().terms()] == [*x._vararr, *x._vararr]
    assert len(q._quadparts) == 1
    assert q.copy()._quadparts[0][1].shape == (6, 6)
    strange = with_parts((with_foreign_elements(x), coo(np.eye(3)), x))
    with pytest.raises(TypeError):
        strange._to_full()
    assert strange._is_compact()


# ---- compact to full -----------------------------------------------------------------------------------------------


def test_conversion_keeps_the_value_and_stays(mode, x):
    q = function(x, MATRIX, 2.0)
    before = everything(q)
    full = q._to_full()
    assert q._is_compact()
    assert not full._is_compact()
    assert everything(full) == before
    q._convert_to_full()
    array = q._qearr
    q._convert_to_full()
    assert q._qearr is array
    assert everything(q) == before


def test_a_full_expression_gives_an_equal_full_copy(mode, x):
    q = x * x
    full = q._to_full()
    assert everything(full) == everything(q)
    assert full._qearr[0] is not q._qearr[0]


# ---- elements ------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("key", [0, -1, slice(0, 2), (0, 1), ..., (..., 0), None, (slice(None), slice(None, None, -1))])
def test_slices_share_their_elements(mode, model, key):
    y = variables(model, (2, 3))
    q = y * y
    part = q[key]
    chosen = np.asarray(q._qearr[key], dtype=object)
    assert part.shape == chosen.shape
    assert all(a is b for a, b in zip(part._qearr.flat, chosen.flat, strict=True))
    assert np.shares_memory(part._qearr, q._qearr) == (part.ndim > 0)


def test_a_view_of_a_single_element_is_a_view_of_its_own_array(mode, model):
    y = variables(model, (2, 3))
    q = y * y
    one = q[0, 1]
    again, whole, view = one[()], one[...], q[0, 1, ...]
    assert all(part._qearr[()] is q._qearr[0, 1] for part in (one, again, whole, view))
    arrays = (again._qearr, whole._qearr, view._qearr, q._qearr)
    assert [np.shares_memory(one._qearr, array) for array in arrays] == [False, True, False, False]
    assert np.shares_memory(view._qearr, q._qearr)


@pytest.mark.parametrize("key", [[0, 1], ([0, 1], [1, 1]), (slice(None), [0, 1]), np.array([[True, False, True]] * 2)])
def test_index_arrays_give_independent_copies(mode, model, key):
    y = variables(model, (2, 3))
    q = y * y
    part = q[key]
    point = Point(model)
    np.testing.assert_array_equal(value(point, part), value(point, q)[key])
    own = {id(qe) for qe in q._qearr.flat}
    assert not any(id(qe) in own for qe in part._qearr.flat)
    part.clear()
    np.testing.assert_array_equal(value(point, q), point.of(y) ** 2)


def test_indexing_makes_a_compact_expression_full(mode, x):
    q = function(x, MATRIX)
    q[()]
    assert not q._is_compact()


def test_an_index_out_of_range_is_numpys_error(x):
    for key in (3, (0, 0), "a", 1.5):
        with pytest.raises(IndexError):
            (x * x)[key]


def test_items_are_new_and_hold_the_whole_value(mode, x):
    q = function(x, MATRIX, 7.0)
    for expr in (q, q._to_full()):
        item = expr.item()
        assert (item.size(), item.getLinExpr().getConstant()) == (6, 7.0)
        item.clear()
        assert expr.item().size() == 6
    assert q._is_compact()
    with pytest.raises(ValueError, match="size 1"):
        (x * x).item()


def test_iteration_is_over_the_first_axis(mode, model):
    y = variables(model, (2, 3))
    assert [row.shape for row in y * y] == [(3,), (3,)]
    with pytest.raises(TypeError, match="0-d"):
        iter(MQuadExpr.zeros(()))


# ---- text ----------------------------------------------------------------------------------------------------------


def test_the_text_shows_shape_state_and_elements(mode, model):
    y = variables(model, 2, "y")
    eye = coo(np.eye(2))
    assert repr(y * y) == "<MQuadExpr (2,)>\narray([ 1.0 y[0]^2,  1.0 y[1]^2])"
    assert repr(MQuadExpr.zeros(())) == "<MQuadExpr () >\narray( 0.0)"
    assert repr(with_parts((y, eye, y))) == "<MQuadExpr ()  >\narray( 1.0 y[0]^2 + 1.0 y[1]^2)"
    three = with_parts(*[(y, eye, y)] * 3)
    assert repr(three).startswith("<MQuadExpr ()   >\n")


def test_printing_changes_no_state(x):
    q, p = x * x, function(x, MATRIX)
    before = _debug.counts()["QuadExpr"]
    repr(q), repr(p)
    gc.collect()
    assert _debug.counts()["QuadExpr"] == before
    assert p._is_compact()


# ---- copies --------------------------------------------------------------------------------------------------------


def test_copies_keep_the_state_and_share_nothing(mode, x):
    eye = coo(np.eye(3))
    q = with_parts((x, eye, x), (x, eye, x))
    other = q.copy()
    assert (len(other._quadparts), len(q._quadparts)) == (1, 1)
    ((a, matrix, b),), ((own, own_matrix, _),) = other._quadparts, q._quadparts
    assert a is not own
    assert a is not b
    assert not np.shares_memory(matrix.data, own_matrix.data)
    assert other._ndle is not q._ndle
    full = x * x
    twin = full.copy()
    assert everything(twin) == everything(full)
    twin.clear()
    assert quad_terms(full)[0] == [(1.0, 0, 0)]


def test_copied_parts_come_in_a_list(mode, x):
    assert MQuadExpr.zeros(())._copy_quadparts() == []
    q = with_parts((x, coo(MATRIX), x))
    ((a, matrix, _),) = q._copy_quadparts()
    assert a is not x
    np.testing.assert_array_equal(matrix.toarray(), MATRIX)


def test_linear_terms_inside_the_objects_survive_copies(mode, x):
    q = x * x
    q._qearr[0].add(x[1].item(), 5.0)
    twin = q.copy()
    assert [(c, v.index) for c, v in twin._qearr[0].getLinExpr().terms()] == [(5.0, 1)]
    assert q[[0]].item().getLinExpr().size() == 1
    assert q._to_full()._qearr[0].getLinExpr() is not q._qearr[0].getLinExpr()


def test_copy_module_copies_the_attributes(mode, x):
    for q in (x * x, function(x, MATRIX)):
        twin = copy.copy(q)
        assert all(getattr(twin, name) is getattr(q, name) for name in ("_qearr", "_quadparts", "_ndle"))


# ---- memory --------------------------------------------------------------------------------------------------------


def test_a_product_shares_the_ids_of_its_factors(model):
    y = model.addMVar((500, 500))
    model.update()
    tracemalloc.start()
    before = _debug.counts()
    q = y * y
    copies = [q.copy() for _ in range(10)]
    assert _debug.counts() == before
    assert tracemalloc.get_traced_memory()[0] < 10 * q.size
    tracemalloc.stop()
    assert all(c.shape == q.shape for c in copies)


def test_objects_cost_at_most_64_bytes_a_term_and_320_an_element(model):
    y = model.addMVar(20_000)
    model.update()
    y._vararr
    q = (y * y).copy()
    wide = MQuadExpr._from_mvar_times_mvar(model.addMVar((200, 100)), y[:100]).sum(axis=1)
    for expr, terms in ((q, q.size), (wide, 20_000)):
        model.update()
        expr[0].item()  # the variables of its first element
        gc.collect()
        twin = expr.copy()
        tracemalloc.start()
        elements = twin._qearr
        used = tracemalloc.get_traced_memory()[0]
        tracemalloc.stop()
        assert used <= 64 * terms + 320 * elements.size


def test_no_expression_is_kept_alive(mode, model):
    y = variables(model, 2)
    gc.collect()
    before = _debug.counts()["QuadExpr"]
    q = y * y
    q._qearr
    q.me = q
    ghost = weakref.ref(q)
    del q
    gc.collect()
    assert ghost() is None
    p = function(y, np.eye(2))
    p._quadparts.append(p)
    ghost = weakref.ref(p)
    del p
    gc.collect()
    assert ghost() is None
    assert _debug.counts()["QuadExpr"] == before


def test_subclasses_are_made_by_their_class_methods(mode, x):
    class Own(MQuadExpr):
        pass

    made = [
        Own.zeros(2),
        Own._zeros_full(()),
        Own._from_mlinexpr(zero()),
        Own._from_quad_expr(QuadExpr()),
        Own._from_quadfun(x, MATRIX, x, None, None, 0.0),
    ]
    assert all(type(q) is Own for q in made)
