"""MLinExpr: states and attributes, elements and text, copies, hostile data."""

import copy
import gc
import operator
import tracemalloc
import weakref

import numpy as np
import pytest
import scipy.sparse as sp

import tarvopy
from linear_values import COMPACT, FULL, state, terms, variables
from tarvopy import _debug
from tarvopy._core import LinExpr
from tarvopy._matrixapi import MLinExpr


@pytest.fixture
def model():
    return tarvopy.Model()


@pytest.fixture
def switch():
    """Sets the class switch for compact results, and puts it back."""
    yield lambda value: setattr(MLinExpr, "_keep_compact", value)
    MLinExpr._keep_compact = 1


# ---- states --------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("shape", [(), 3, (3,), (1, 4), (4, 1), (1, 1), 0, (0,), (1, 0)])
def test_zeros_of_compact_shapes_have_no_parts(mode, shape):
    e = MLinExpr.zeros(shape)
    assert e._is_compact()
    assert (e._matmulparts, e._learr) == ([], None)
    assert e._const.dtype == np.float64
    assert e.shape == e._const.shape == np.zeros(shape).shape
    assert e._leading_adim() == e.size == np.zeros(shape).size


@pytest.mark.parametrize("shape", [(2, 3), (1, 1, 1), (0, 2, 2), (2, 2)])
def test_zeros_of_other_shapes_are_full_with_an_object_in_every_slot(mode, shape):
    e = MLinExpr.zeros(shape)
    assert not e._is_compact()
    assert (e._matmulparts, e._const) == (None, None)
    assert e._learr.dtype == object
    assert e.shape == e._learr.shape == shape
    assert len({id(le) for le in e._learr.flat}) == e.size
    assert terms(e) == [(0.0, [])] * e.size


@pytest.mark.parametrize("shape", [(-1,), (2, -3), (10**10, 10**10), (1,) * 65])
def test_impossible_shapes_are_refused(mode, shape):
    for constructor in (MLinExpr.zeros, MLinExpr._zeros_full):
        with pytest.raises(ValueError, match=r"."):
            constructor(shape)


@pytest.mark.parametrize("off", [0, 2, False, "1"])
def test_without_the_switch_everything_is_full(mode, model, switch, off):
    switch(off)
    x = variables(model, 3)
    assert not MLinExpr.zeros(3)._is_compact()
    assert not MLinExpr._from_mvar(x)._is_compact()


@pytest.mark.parametrize("on", [1, True, 1.0, np.int64(1)])
def test_the_switch_is_compared_with_the_number_one_and_looked_up_on_the_class_that_is_asked(mode, model, switch, on):
    switch(on)
    x = variables(model, 3)

    class Child(MLinExpr):
        _keep_compact = 0

    assert MLinExpr.zeros(3)._is_compact()
    assert type(Child._from_mvar(x)) is Child
    assert not Child._from_mvar(x)._is_compact()


@pytest.mark.parametrize(
    "operation",
    [
        lambda e: e + 1.0,
        lambda e: 1.0 - e,
        lambda e: e + e.item() * e.item(),
        lambda e: 2.0 * e,
        lambda e: e * np.ones((1, 2), dtype=object),
        lambda e: e / np.ones(1),
        lambda e: -e,
        lambda e: e @ np.eye(1),
        lambda e: sp.csr_matrix(np.eye(1)) @ e,
        lambda e: e * e,
        lambda e: e @ e,
    ],
)
@pytest.mark.filterwarnings("ignore:Chained matrix multiplications")
def test_without_compact_results_an_operator_makes_its_receiver_full_for_good(mode, model, switch, operation):
    e = variables(model, 1) + 1.0
    before = terms(e.copy())
    switch(0)
    assert not operation(e)._is_compact()
    assert not e._is_compact()
    assert terms(e) == before


def test_state_moves_from_compact_to_full_and_attributes_follow(mode, model):
    x = variables(model, 4)
    e = MLinExpr._from_mvar(x)
    assert state(e) == COMPACT
    assert list(vars(e)) == ["_learr", "_matmulparts", "_const"]
    before = terms(e)
    assert e._convert_to_full() is None
    assert state(e) == FULL
    assert list(vars(e)) == ["_learr", "_matmulparts", "_const"]
    made = e._learr
    e._convert_to_full()
    assert e._learr is made
    assert terms(e) == before


def test_to_full_leaves_a_compact_receiver_as_it_is(mode, model):
    x = variables(model, 4)
    e = np.arange(4.0) @ np.diag([1.0, 2.0, 0.0, 4.0]) @ x + 1
    full = e._to_full()
    assert e._is_compact()
    assert not full._is_compact()
    full += 1
    assert terms(e) != terms(full)


def test_the_documented_attributes_are_made_once_and_then_rule(mode, model):
    x = variables(model, 3)
    e = sp.csr_matrix(np.eye(3)) @ x
    parts, constant = e._matmulparts, e._const
    assert e._matmulparts is parts
    assert e._const is constant
    parts[0][0].data[:] = [2.0, 3.0, 4.0]
    constant[:] = [5.0, 6.0, 7.0]
    assert terms(e) == [(5.0, [(2.0, 0)]), (6.0, [(3.0, 1)]), (7.0, [(4.0, 2)])]
    parts.append((sp.csr_matrix(np.ones((3, 1))), x[2:]))
    assert terms(e)[0] == (5.0, [(2.0, 0), (1.0, 2)])


def test_constants_in_the_users_hands_rule_while_the_parts_are_native(mode, model):
    e = variables(model, 3) + 0
    e._const += [1.0, 2.0, 3.0]
    assert e.getConstant().tolist() == [1.0, 2.0, 3.0]
    e._const.resize((3, 1), refcheck=False)
    assert e.shape == (3, 1)
    assert e[2, 0].item().getConstant() == 3.0


def test_attributes_are_set_and_deleted_as_on_any_object(mode, model):
    x = variables(model, 2)
    e = MLinExpr._from_mvar(x)
    e.remark = "mine"
    e._matmulparts = []
    assert terms(e) == [(0.0, []), (0.0, [])]
    e._const = np.array([1.0, 2.0])
    assert e.getConstant().tolist() == [1.0, 2.0]
    assert list(vars(e)) == ["_learr", "_matmulparts", "_const", "remark"]

    f = MLinExpr._from_mvar_full(x)
    learr = np.array([LinExpr(3.0), LinExpr(4.0)])
    f._learr = learr
    assert f._learr is learr
    assert state(f) == FULL
    del f._learr
    for attribute in ("_learr", "shape", "size"):
        with pytest.raises(AttributeError, match="'MLinExpr' object has no attribute '_learr'"):
            getattr(f, attribute)
    with pytest.raises(AttributeError):
        del f._learr
    del e._const
    with pytest.raises(AttributeError, match="'MLinExpr' object has no attribute '_const'"):
        e.getConstant()
    with pytest.raises(AttributeError):
        MLinExpr.__new__(MLinExpr).shape


def test_setting_one_attribute_leaves_what_the_others_showed(mode, model):
    x = variables(model, 2)
    e = MLinExpr._from_mvar(x)
    e._learr = None
    assert state(e) == COMPACT
    assert len(e._matmulparts) == 1
    f = MLinExpr._from_mvar_full(x)
    f._const = None
    assert terms(f) == [(0.0, [(1.0, 0)]), (0.0, [(1.0, 1)])]


def test_a_dictionary_that_somebody_holds_shows_later_states(mode, model):
    e = MLinExpr._from_mvar(variables(model, 2))
    shown = vars(e)
    e._convert_to_full()
    assert shown["_learr"] is e._learr
    assert shown["_matmulparts"] is None
    shown["_learr"] = np.array([LinExpr(1.0), LinExpr(2.0)])
    assert e.getConstant().tolist() == [1.0, 2.0]


def test_inconsistent_states_fail_the_assertions(mode):
    e = MLinExpr.zeros(2)
    e._learr = np.zeros(2, object)
    with pytest.raises(AssertionError):
        e._is_compact()
    f = MLinExpr._zeros_full(2)
    f._const = np.zeros(2)
    with pytest.raises(AssertionError):
        f._is_compact()


# ---- elements ------------------------------------------------------------------------------------------------------

KEYS = [
    0, -1, (1, 2), (0, slice(None)),
    slice(1, None), (slice(None), [2, 0, 2]), np.array([[True, False, True], [False] * 3]),
    Ellipsis,
    None, (slice(None, None, -1), slice(0, 0)), [0, 0], 5, (0, 0, 0), "a", 1.5, [3],
]  # fmt: skip


@pytest.mark.parametrize("key", KEYS, ids=str)
def test_indexing_selects_as_numpy_does_and_shares_elements(mode, model, key):
    e = variables(model, (2, 3)) + 0.0
    try:
        expected = e.copy()._learr[key]
    except Exception as refused:
        with pytest.raises(type(refused)) as error:
            e[key]
        assert error.value.args == refused.args  # noqa: PT017
        return
    got = e[key]
    assert type(got) is MLinExpr
    assert got.shape == np.shape(expected)
    assert got._learr.base is None
    chosen = e._learr[key]
    assert all(a is b for a, b in zip(got._learr.flat, np.asarray(chosen, object).flat, strict=True))


def test_indexing_brings_a_compact_receiver_to_the_full_state(mode, model):
    e = variables(model, 3) + 1
    part = e[1:]
    assert not e._is_compact()
    part += 5
    assert e.getConstant().tolist() == [1.0, 6.0, 6.0]


def test_item_is_a_copy_and_leaves_the_state(mode, model):
    e = variables(model, 1) + 1
    le = e.item()
    le.add(1.0)
    assert e._is_compact()
    assert e.getConstant().tolist() == [1.0]
    f = e._to_full()
    assert f.item() is not f._learr[0]
    for wrong in (MLinExpr.zeros(2), MLinExpr.zeros((2, 2)), MLinExpr._zeros_full(0)):
        with pytest.raises(ValueError, match="can only convert an array of size 1 to a Python scalar"):
            wrong.item()


def test_iteration_runs_over_the_first_axis(mode, model):
    x = variables(model, (3, 2))
    e = x + 0.0
    assert [terms(row) for row in e] == [[(0.0, [(1.0, 2 * i)]), (0.0, [(1.0, 2 * i + 1)])] for i in range(3)]
    assert [row.shape for row in e] == [(2,)] * 3
    with pytest.raises(TypeError, match="iteration over a 0-d array"):
        iter(MLinExpr.zeros(()))
    with pytest.raises(TypeError):
        len(e)


# ---- text ----------------------------------------------------------------------------------------------------------


def test_text_marks_the_number_of_parts_and_does_not_look(mode, model):
    x, y = variables(model, 2), variables(model, 2, "y")
    e = MLinExpr.zeros(2)
    assert repr(e) == "<MLinExpr (2,) >\narray([ 0.0,  0.0])"
    e += x
    assert repr(e) == "<MLinExpr (2,)  >\narray([ 1.0 x[0],  1.0 x[1]])"
    e += 2 * y
    body = "array([ 1.0 x[0] + 2.0 y[0],  1.0 x[1] + 2.0 y[1]])"
    assert repr(e) == f"<MLinExpr (2,)   >\n{body}"
    assert e._is_compact()
    e._convert_to_full()
    assert repr(e) == f"<MLinExpr (2,)>\n{body}"
    assert repr(MLinExpr.zeros(())) == "<MLinExpr () >\narray( 0.0)"
    assert repr(MLinExpr._zeros_full((0, 2))) == "<MLinExpr (0, 2)>\narray([], shape=(0, 2))"


def test_printing_makes_no_objects_that_stay(model):
    x = variables(model, (20, 20))
    e = x + 1
    gc.collect()
    before = _debug.counts()["LinExpr"]
    repr(e)
    assert _debug.counts()["LinExpr"] == before


# ---- copies and life -----------------------------------------------------------------------------------------------


def test_copies_share_nothing_but_variables(mode, model):
    x = variables(model, 3)
    for e in (2 * x + 1, (2 * x + 1)._to_full()):
        c = e.copy()
        assert c._is_compact() == e._is_compact()
        c += x[0].item()
        c *= 5
        assert terms(e) == [(1.0, [(2.0, i)]) for i in range(3)]
        assert terms(c) == [(5.0, [(10.0, i), (5.0, 0)]) for i in range(3)]
    compact = (2 * x + 1)._copy_compact()
    assert compact._is_compact()
    assert not np.shares_memory(compact._const, (2 * x + 1)._const)


def test_a_compact_copy_keeps_the_variable_vector(mode, model):
    e = variables(model, 3) + 0
    e._matmulparts
    c = e._copy_compact()
    assert c._matmulparts[0][1] is e._matmulparts[0][1]
    assert c._matmulparts[0][0] is not e._matmulparts[0][0]


def test_copying_without_the_switch_makes_the_receiver_full(mode, model, switch):
    e = variables(model, 3) + 0
    switch(0)
    assert not e.copy()._is_compact()
    assert not e._is_compact()


def test_the_copy_module_takes_over_the_attributes(mode, model):
    x = variables(model, (2, 2))
    e = x + 1
    e.remark = ["mine"]
    shallow, deep = copy.copy(e), copy.deepcopy(e)
    assert shallow._learr is e._learr
    assert shallow.remark is e.remark
    assert deep._learr[0, 0] is not e._learr[0, 0]
    assert deep.remark == ["mine"]
    assert terms(deep) == terms(e)
    assert next(deep._learr[0, 0].terms())[1] is x[0, 0].item()


def test_subclasses_carry_attributes_and_die_with_their_cycles(mode, model):
    class Named(MLinExpr):
        def __init__(self, name, *arguments, **keywords):
            super().__init__(*arguments, **keywords)
            self.name = name

    x = variables(model, 2)
    e = Named("n", matmulparts=[(sp.csr_matrix(np.eye(2)), x)], b=np.zeros(2))
    assert (e.name, e._is_compact()) == ("n", True)
    z = Named.zeros(2)
    z.myself = z
    dies = weakref.ref(z)
    del z
    gc.collect()
    assert dies() is None


def test_models_never_mix_silently(mode, model):
    x, y = variables(model, 2), variables(tarvopy.Model(), 2)
    parts = [(sp.csr_matrix(np.eye(2)), x), (sp.csr_matrix(np.eye(2)), y)]
    e = MLinExpr(matmulparts=parts, b=np.ones(2))
    assert e._is_compact()
    with pytest.raises(tarvopy.TarvoError) as error:
        model.addConstr(e <= 1)
    assert error.value.code == tarvopy.TRV.Error.NOT_IN_MODEL
    assert e.getConstant().tolist() == [1.0, 1.0]


@pytest.mark.parametrize("side", ["left", "right"])
def test_one_entry_times_a_row_or_column_of_variables_is_a_diagonal(mode, model, side):
    variables(model, 7)
    y = variables(model, (1, 3) if side == "right" else (3, 1), "y")
    e = np.array([[2.0]]) @ y if side == "right" else y @ np.array([[2.0]])
    assert e._is_compact()
    assert e.shape == y.shape
    assert terms(e) == [(0.0, [(2.0, i)]) for i in (7, 8, 9)]
    ((matrix, vector),) = e._matmulparts
    assert np.array_equal(matrix.toarray(), 2 * np.eye(3))
    assert vector.shape == (3,)


def test_a_tuple_of_parts_is_as_good_as_a_list(mode, model):
    x = variables(model, 2)
    e = MLinExpr(matmulparts=((sp.csr_matrix(np.eye(2)), x),), b=np.zeros(2))
    e += x[::-1]
    assert terms(e) == [(0.0, [(1.0, 0), (1.0, 1)]), (0.0, [(1.0, 1), (1.0, 0)])]
    assert e._is_compact()


def test_a_part_is_added_to_a_list_or_a_tuple_and_to_nothing_else(mode, model):
    x, eye = variables(model, 2), sp.csr_matrix(np.eye(2))
    shared = [(eye, x)]
    e = MLinExpr(matmulparts=shared, b=np.zeros(2))
    e._add_matmul_part(A=eye, x=x)
    assert e._matmulparts is shared
    assert len(shared) == 2
    e = MLinExpr(matmulparts=((eye, x),), b=np.zeros(2))
    e._add_matmul_part(eye, x)
    assert terms(e) == [(0.0, [(1.0, 0), (1.0, 0)]), (0.0, [(1.0, 1), (1.0, 1)])]
    with pytest.raises(TypeError, match="a full MLinExpr has no parts"):
        (x + 1)._to_full()._add_matmul_part(eye, x)


def test_a_product_over_no_variables_has_no_parts(mode, model):
    none = variables(model, 2)[:0]
    for product in (np.zeros((3, 0)) @ none, sp.csr_matrix((3, 0)) @ none, none @ np.zeros((0, 3))):
        assert (product.shape, product._matmulparts) == ((3,), [])
    assert (np.zeros(0) @ none)._matmulparts == []


@pytest.mark.parametrize("op", [operator.iadd, operator.isub, operator.imul])
@pytest.mark.parametrize("bad", [None, np.nan, "3"])
def test_an_operand_refused_half_way_changes_nothing(mode, model, op, bad):
    x = variables(model, 3)
    for e in (x + 1, (x + 1)._to_full()):
        with pytest.raises((TypeError, tarvopy.TarvoError)):
            op(e, np.array([1.0, 2.0, bad], dtype=object))
        assert terms(e) == [(1.0, [(1.0, i)]) for i in range(3)]


@pytest.mark.parametrize(("op", "sign"), [(operator.iadd, 1.0), (operator.isub, -1.0)])
def test_an_array_of_expressions_is_added_in_place_in_both_states(mode, model, op, sign):
    x = variables(model, 3)
    mixed = np.array([x[1].item(), 2.0, x[2].item() + 1.0], dtype=object)
    for e in (x + 1, (x + 1)._to_full()):
        assert op(e, mixed) is e
        assert terms(e) == [
            (1.0, [(1.0, 0), (sign, 1)]),
            (1.0 + 2.0 * sign, [(1.0, 1)]),
            (1.0 + sign, [(1.0, 2), (sign, 2)]),
        ]


COMPACT_WORKERS = {
    "_add_compact_mlinexpr": "other",
    "_add_compact_mlinexpr_compact": "other",
    "_iadd_compact_var": "var",
    "_iadd_compact_linexpr": "le",
    "_iadd_compact_mlinexpr": "other",
    "_iadd_compact_mlinexpr_compact": "other",
    "_imul_compact_scalar": "value",
    "_imul_compact_ndarray": "other",
    "_imul_compact_spmatrix": "spmat",
    "_mul_compact_ndarray": "other",
}
FULL_WORKERS = {
    "_add_full_mlinexpr": "other",
    "_add_full_ndarray": "other",
    "_iadd_full_scalar": "c",
    "_iadd_full_ndarray": "a",
    "_iadd_full_mlinexpr": "other",
    "_mul_ndarray_numpy": "other",
    "_imul_scalar": "c",
    "_imul_ndarray": "a",
    "_imul_full_spmatrix": "spmat",
}


@pytest.mark.parametrize(("name", "parameter"), [*COMPACT_WORKERS.items(), *FULL_WORKERS.items()])
def test_workers_know_their_names_their_parameters_and_their_state(mode, model, name, parameter):
    x = variables(model, (1, 2))
    receiver, other = (x + 1, (x + 1)._to_full())[:: 1 if name in COMPACT_WORKERS else -1]
    operands = {
        "var": x[0, 0].item(),
        "le": x[0, 0].item() + 1,
        "spmat": sp.csr_matrix([[2.0, 3.0]]),
        "other": x + 1 if name.endswith(("mlinexpr", "mlinexpr_compact")) else np.array([[2.0, 3.0]]),
    }
    operand = operands.get(parameter, 2.0 if parameter in ("c", "value") else np.array([[2.0, 3.0]]))
    result = getattr(receiver, name)(**{parameter: operand})
    assert (result is None) == name.startswith("_i")
    with pytest.raises(TypeError, match=rf"{name}\(\) takes"):
        getattr(receiver, name)(operand, operand)
    with pytest.raises(AssertionError):
        getattr(other, name)(operand)
    if name.endswith("compact_mlinexpr_compact"):
        with pytest.raises(AssertionError):
            getattr(receiver, name)((x + 1)._to_full())


def test_made_objects_cost_50_bytes_a_term_and_210_a_row(model):
    """Coefficients that all differ, so that no float object is shared."""
    rows, terms_each = 2000, 10
    x = variables(model, 100)
    x._vararr
    columns = np.tile(np.arange(terms_each), rows) * 7 % 100
    matrix = sp.csr_matrix((np.arange(rows * terms_each) + 0.5, columns, np.arange(rows + 1) * terms_each), (rows, 100))
    e = (matrix @ x)._to_full()
    tracemalloc.start()
    try:
        made = e._learr
        used = tracemalloc.get_traced_memory()[0]
    finally:
        tracemalloc.stop()
    assert made.shape == (rows,)
    assert used <= 50 * rows * terms_each + 210 * rows


def test_a_compact_product_makes_no_object_for_a_row_or_a_variable(model):
    x = variables(model, 5000)
    before = _debug.counts()
    e = sp.random(3000, 5000, 0.01, "csr", random_state=0) @ x - 1.0
    e._matmulparts
    assert _debug.counts() == before
