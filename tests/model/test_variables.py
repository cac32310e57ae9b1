"""addVar and addMVar: what arrives in the model, and what is refused."""

import inspect

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st

import tarvopy
from model_arrays import arrays, shape_of
from tarvopy import TRV, TarvoError

inf = tarvopy.inf


def test_addVar_has_the_documented_defaults():
    m = tarvopy.Model()
    x = m.addVar()
    y = m.addVar(-1, 2.5, np.float32(3), "I", "y")
    a = arrays(m)
    assert (a.lb.tolist(), a.ub.tolist(), a.obj.tolist(), a.vtype) == ([0, -1], [inf, 2.5], [0, 3], "CI")
    assert (str(x), str(y), x.index, y.index) == ("C0", "y", 0, 1)


def test_bounds_of_binaries_are_cut_and_large_ones_mean_none():
    m = tarvopy.Model()
    m.addMVar(3, lb=[-5, 0.5, -inf], ub=[7, 0.75, inf], vtype="B")
    m.addMVar(2, lb=-1e20, ub=1e25)
    a = arrays(m)
    assert a.lb.tolist() == [0, 0.5, 0, -inf, -inf]
    assert a.ub.tolist() == [1, 0.75, 1, inf, inf]


def filled(values, spread):
    """The arrays of a model with two blocks of five variables, or the refusal of the second."""
    m = tarvopy.Model()
    m.addMVar(2)
    given_values = {k: np.full(5, v) if k in spread else v for k, v in values.items()}
    try:
        m.addMVar(5, **given_values)
    except TarvoError as error:
        return str(error)
    a = arrays(m)
    return [np.array(v).tobytes() for v in (a.lb, a.ub, a.obj)], a.vtype


_NUMBERS = st.sampled_from([0.0, -0.0, 1.0, -2.5, inf, -inf, 1e20, -1e30, np.nan])


@given(
    st.fixed_dictionaries(
        {}, optional={"lb": _NUMBERS, "ub": _NUMBERS, "obj": _NUMBERS, "vtype": st.sampled_from("CBIS")}
    ),
    st.sets(st.sampled_from(["lb", "ub", "obj", "vtype"])),
)
def test_one_value_is_the_same_value_for_each(values, spread):
    assert filled(values, spread) == filled(values, ())


def test_crossed_bounds_are_stored_as_they_are():
    m = tarvopy.Model()
    m.addVar(lb=2, ub=1)
    assert (arrays(m).lb[0], arrays(m).ub[0]) == (2, 1)


@st.composite
def shapes_that_broadcast(draw):
    """A shape and two that broadcast to it: leading extents left out, others replaced by 1."""
    shape = tuple(draw(st.lists(st.integers(0, 4), max_size=3)))

    def smaller():
        kept = shape[draw(st.integers(0, len(shape))) :]
        return tuple(extent if draw(st.booleans()) else 1 for extent in kept)

    return shape, smaller(), smaller()


@given(shapes_that_broadcast(), st.integers(0, 2**32 - 1))
def test_addMVar_broadcasts_values_as_numpy_does(shapes, seed):
    shape, first, second = shapes
    rng = np.random.default_rng(seed)
    lb, ub, obj = rng.normal(size=first), rng.normal(size=second), rng.integers(-3, 3, first)
    vtype = np.array(list("CIS"))[rng.integers(0, 3, second)]
    m = tarvopy.Model()
    x = m.addMVar(shape, lb, ub, obj, vtype)
    a = arrays(m)
    assert x.shape == shape
    for got, value in ((a.lb, lb), (a.ub, ub), (a.obj, obj), (list(a.vtype), vtype)):
        np.testing.assert_array_equal(got, np.broadcast_to(value, shape).ravel())
    m.close()


@pytest.mark.parametrize(
    "values",
    [
        np.arange(6.0).reshape(2, 3),
        np.arange(6).reshape(2, 3),
        np.arange(6.0).reshape(3, 2).T.copy("F").reshape(2, 3, order="A"),
        np.arange(12.0).reshape(2, 6)[:, ::2],
        np.arange(6.0).reshape(2, 3).astype(">f8"),
        np.arange(6).reshape(2, 3) > 2,
        np.arange(6).reshape(2, 3).astype(object),
        np.arange(6, dtype=np.float16).reshape(2, 3)[::-1],
        [[1, 2, 3], [4, 5, 6]],
        range(3),
    ],
    ids=lambda v: f"{type(v).__name__}-{getattr(v, 'dtype', '')}",
)
def test_values_come_in_every_layout_and_type(values):
    m = tarvopy.Model()
    m.addMVar((2, 3), obj=values)
    np.testing.assert_array_equal(arrays(m).obj.reshape(2, 3), np.broadcast_to(np.array(values, float), (2, 3)))


def test_the_model_keeps_its_own_copy_of_values():
    m, lb = tarvopy.Model(), np.zeros(3)
    m.addMVar(3, lb=lb)
    lb[:] = 5
    assert arrays(m).lb.tolist() == [0, 0, 0]


def test_names_by_shape_by_list_and_by_default():
    m = tarvopy.Model()
    x = m.addMVar((2, 2), name="x")
    y = m.addMVar(2, name=["first", "zweite Größe"])
    m.addMVar((), name="z")
    m.addMVar(1)
    m.addMVar((0, 3), name="empty")
    m.update()
    names = [str(v) for v in m.getVars()]
    assert names == ["x[0,0]", "x[0,1]", "x[1,0]", "x[1,1]", "first", "zweite Größe", "z", "C7"]
    assert m.getVarByName("x[1,0]") is x.tolist()[1][0]
    assert m.getVarByName("zweite Größe").index == 5
    assert m.getVarByName("x") is None
    assert m.getVarByName("first\0") is None
    assert y.shape == (2,)


@pytest.mark.parametrize("shape", [4, (4,), [2, 2], np.int64(4), (np.int32(2), 2), (), (0,), (2, 0, 3)], ids=str)
def test_shapes_are_ints_or_sequences_of_ints(shape):
    m = tarvopy.Model()
    x = m.addMVar(shape)
    expected = np.empty(shape).shape
    assert (x.shape, m.NumVars) == (expected, int(np.prod(expected)))


@pytest.mark.parametrize(
    ("arguments", "error", "message"),
    [
        ({"shape": -1}, ValueError, r"negative dimensions are not allowed: shape \(-1,\)"),
        ({"shape": (2, 2.0)}, TypeError, "a shape is an int or a tuple of ints, not 'float'"),
        ({"shape": "23"}, TypeError, "a shape is an int or a tuple of ints, not 'str'"),
        ({"shape": b"23"}, TypeError, "a shape is an int or a tuple of ints, not 'bytes'"),
        ({"shape": None}, TypeError, "a shape is an int or a tuple of ints, not 'NoneType'"),
        ({"shape": 2**31}, ValueError, r"shape \(2147483648,\) has more than 2\*\*31 - 1 elements"),
        ({"shape": (2**40, 2**40)}, ValueError, "is too large"),
        ({"shape": 2**70}, ValueError, "cannot fit"),
        ({"shape": (1,) * 65}, ValueError, "at most 64 dimensions, not 65"),
        ({"shape": (2, 3), "lb": [1, 2]}, ValueError, r"lb of shape \(2,\) does not broadcast to shape \(2, 3\)"),
        ({"shape": 3, "ub": np.ones((1, 3))}, ValueError, r"ub of shape \(1, 3\) does not broadcast to shape \(3,\)"),
        ({"shape": 3, "vtype": ["C", "B"]}, ValueError, r"vtype of shape \(2,\) does not broadcast to shape \(3,\)"),
        ({"shape": 3, "lb": [0, 0, np.nan]}, TarvoError, "nan"),
        ({"shape": 3, "lb": float("nan")}, TarvoError, "nan"),
        ({"shape": 3, "ub": np.nan}, TarvoError, "nan"),
        ({"shape": 3, "obj": [0, inf, 0]}, TarvoError, "inf"),
        ({"shape": 3, "lb": "0"}, TypeError, "lb must be a number or an array of numbers"),
        ({"shape": 3, "lb": None}, TypeError, "lb must be a number or an array of numbers, not 'NoneType'"),
        ({"shape": 3, "lb": 1j}, TypeError, "lb must be a number or an array of numbers"),
        ({"shape": 3, "lb": ["a", "b", "c"]}, TypeError, "not an array of dtype <U1"),
        ({"shape": 3, "vtype": "X"}, ValueError, "vtype must be one of 'C', 'B', 'I', 'S', not 'X'"),
        ({"shape": 3, "vtype": "CBI"}, ValueError, "vtype must be one of 'C', 'B', 'I', 'S', not 'CBI'"),
        ({"shape": 3, "vtype": ["C", "B", "BB"]}, ValueError, "vtype must be one of 'C', 'B', 'I', 'S', not 'BB'"),
        ({"shape": 3, "vtype": ["C", "B", ""]}, ValueError, "vtype must be one of 'C', 'B', 'I', 'S', not ''"),
        ({"shape": 3, "vtype": 7}, TypeError, "vtype must be a letter or an array of letters, not 'int'"),
        ({"shape": 3, "name": ["a", "b"]}, ValueError, r"names of shape \(2,\) do not name elements of shape \(3,\)"),
        ({"shape": 3, "name": np.array(["a", "b", 3.0], object)}, TypeError, "element 2 is 3.0"),
        ({"shape": 3, "name": 5}, TypeError, "name must be a string or an array of strings, not 'int'"),
        ({"shape": 3, "name": "a\0b"}, ValueError, "null character"),
        ({"shape": 3, "name": "\ud800"}, UnicodeEncodeError, None),
    ],
)
def test_refused_arguments_add_nothing(arguments, error, message):
    m = tarvopy.Model()
    m.addVar()
    with pytest.raises(error, match=message):
        m.addMVar(**arguments)
    assert shape_of(m) == (1, 0, 0)


@pytest.mark.parametrize(
    ("arguments", "error"),
    [
        ({"lb": [1, 2]}, TypeError),
        ({"lb": np.ones(1)}, TypeError),
        ({"ub": "1"}, TypeError),
        ({"ub": float("nan")}, TarvoError),
        ({"obj": inf}, TarvoError),
        ({"vtype": "c"}, ValueError),
        ({"vtype": ["C", "B"]}, ValueError),
        ({"name": ["a", "b"]}, ValueError),
        ({"shape": 3}, TypeError),
    ],
)
def test_addVar_refuses_what_is_not_single(arguments, error):
    m = tarvopy.Model()
    with pytest.raises(error):
        m.addVar(**arguments)
    assert m.NumVars == 0


def test_pending_until_update_and_never_by_looking():
    m = tarvopy.Model()
    x = m.addVar(name="x")
    X = m.addMVar(2)
    assert x.index == -1
    assert m.getVars() == []
    repr(m), repr(x), repr(X)
    assert x.index == -1
    assert m.NumVars == 3
    assert x.index == 0
    assert [v.index for v in m.getVars()] == [0, 1, 2]


def test_code_of_a_refused_value_is_invalid_argument():
    with pytest.raises(TarvoError) as caught:
        tarvopy.Model().addVar(lb=float("nan"))
    assert caught.value.code == TRV.Error.INVALID_ARGUMENT


def test_signatures_can_be_read():
    for method in (tarvopy.Model.addVar, tarvopy.Model.addMVar):
        parameters = inspect.signature(method).parameters
        assert (parameters["lb"].default, parameters["ub"].default, parameters["vtype"].default) == (0.0, inf, "C")


def callables_and_what_they_belong_to():
    """Public functions, and public methods of one object of each kind, nlfunc aside, whose one argument has no name."""
    m = tarvopy.Model()
    x = m.addMVar(2)
    v = x[0].item()
    rows = m.addConstr(x <= 1)
    kinds = (m, v, rows[0], v + 1, v * v, tarvopy.nlfunc.exp(v), x, x + 1, x * x, tarvopy.nlfunc.exp(x), rows)
    yield from (getattr(kind, name) for kind in kinds for name in dir(type(kind)) if name[0] != "_" and name != "close")
    yield from (getattr(tarvopy, name) for name in ("concatenate", "hstack", "vstack", "quicksum", "read", "LinExpr"))
    yield from (getattr(tarvopy.genfunc, name) for name in ("abs", "pwl", "indicator"))


def test_what_a_signature_names_can_be_given_by_keyword():
    tried, refused = 0, []
    for function in filter(callable, callables_and_what_they_belong_to()):
        try:
            parameters = inspect.signature(function).parameters.values()
        except ValueError:
            continue
        names = [p.name for p in parameters if p.kind in (p.POSITIONAL_OR_KEYWORD, p.KEYWORD_ONLY)]
        try:
            function(**dict.fromkeys(names))
        except Exception as error:  # None is seldom a right value, but a name that is refused is a fault
            refused += [(function, names)] if "keyword" in str(error) else []
        tried += bool(names)
    assert tried > 40
    assert refused == []
    x = tarvopy.Model().addVar()
    assert str(tarvopy.LinExpr(coeffs=[2.0], vars=[x])) == "2.0 C0"


def test_names_hold_no_null_character_however_they_are_given():
    m = tarvopy.Model()
    x = m.addMVar(2, name="x")
    for name_them in (
        lambda: m.addVar(name="a\0"),
        lambda: m.addMVar(2, name=np.array(["a", "b\0c"], dtype=object)),
        lambda: setattr(x, "VarName", np.array(["a", "b\0c"], dtype=object)),
        lambda: setattr(x[0].item(), "VarName", "b\0c"),
    ):
        with pytest.raises((TarvoError, ValueError), match="null character"):
            name_them()
    assert (m.NumVars, x.VarName.tolist()) == (2, ["x[0]", "x[1]"])
