"""Shape arithmetic of tarvopy._util, with NumPy as the oracle."""

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st

from tarvopy._util import _axis_to_axeslist, _broadcast_shapes, _matmul_shape

shapes = st.lists(st.sampled_from([0, 1, 2, 3]), max_size=4).map(tuple)


def outcome(function, *args):
    try:
        return function(*args)
    except ValueError:
        return ValueError


@given(shapes, shapes)
def test_broadcast_is_numpys(a, b):
    assert outcome(_broadcast_shapes, a, b) == outcome(np.broadcast_shapes, a, b)


@given(shapes, shapes)
def test_matrix_product_is_numpys(a, b):
    def oracle(a, b):
        return np.matmul(np.zeros(a), np.zeros(b)).shape

    expected = outcome(oracle, a, b)
    assert outcome(_matmul_shape, a, b) == expected
    assert _matmul_shape(a, b, do_raise=False) == (None if expected is ValueError else expected)


@given(st.integers(0, 5), st.data())
def test_axes_list_numbers_what_stays(ndim, data):
    axes = data.draw(
        st.lists(st.integers(-ndim, ndim - 1), unique_by=lambda a: a % max(ndim, 1)) if ndim else st.just([])
    )
    listed = _axis_to_axeslist(tuple(axes), ndim)
    kept = np.zeros(range(2, 2 + ndim)).sum(axis=tuple(axes)).shape
    assert tuple(d + 2 for d, entry in enumerate(listed) if entry >= 0) == kept
    assert [e for e in listed if e >= 0] == list(range(len(kept)))


def test_one_axis_and_all_axes():
    assert _axis_to_axeslist(None, 2) == [-1, -1]
    assert _axis_to_axeslist(np.int64(-1), 3) == [0, 1, -1]
    assert _axis_to_axeslist(axis=None, ndim=0) == []


@pytest.mark.parametrize(
    ("axis", "ndim", "error", "text"),
    [
        (2, 2, IndexError, "axis 2 is out of bounds for array of dimension 2"),
        (-3, 2, IndexError, "axis -3 is out of bounds for array of dimension 2"),
        (10**30, 2, IndexError, "cannot fit"),
        ((0, -2), 2, ValueError, "duplicate value in 'axis'"),
        ("a", 2, TypeError, "integer"),
        (0.0, 2, TypeError, "integer"),
    ],
)
def test_wrong_axes(axis, ndim, error, text):
    with pytest.raises(error, match=text):
        _axis_to_axeslist(axis, ndim)


@pytest.mark.parametrize(
    ("function", "args", "text"),
    [
        (_broadcast_shapes, ((2, 3), (4,)), "operands could not be broadcast together with shapes (2,3) (4,)"),
        (
            _broadcast_shapes,
            ((2**40, 1), (2**40,)),
            "broadcast dimensions too large: (1099511627776,1) (1099511627776,)",
        ),
        (_broadcast_shapes, ((-1,),), "negative dimensions are not allowed: (-1,)"),
        (_broadcast_shapes, ((2**62, 2**62),), "array is too big: (4611686018427387904,4611686018427387904)"),
        (_broadcast_shapes, ((1,) * 65, ()), "maximum supported dimension for an array is 64, found 65"),
        (_matmul_shape, ((2, 3), (4,)), "matrix product of shapes (2,3) (4,): the inner dimensions 3 and 4 differ"),
        (
            _matmul_shape,
            ((), (4,)),
            "matrix product of shapes () (4,): each operand needs at least one dimension (use *)",
        ),
        (
            _matmul_shape,
            ((2, 3, 4), (3, 4, 5)),
            "matrix product of shapes (2,3,4) (3,4,5): the leading dimensions cannot be broadcast together",
        ),
    ],
)
def test_messages_name_both_shapes(function, args, text):
    with pytest.raises(ValueError) as caught:  # noqa: PT011
        function(*args)
    assert str(caught.value) == text


def test_shapes_are_ints_or_tuples():
    assert _broadcast_shapes(3) == (3,)
    assert _broadcast_shapes(3, (2, 1)) == (2, 3)
    assert _broadcast_shapes((), ()) == ()
    assert _broadcast_shapes((np.int32(2), True), [2, 5]) == (2, 5)
    assert _broadcast_shapes((2**40, 0), (0,)) == (2**40, 0)
    for wrong in (2.5, "3", None, (1, None)):
        with pytest.raises(TypeError):
            _broadcast_shapes(wrong)
    with pytest.raises(TypeError, match=r"takes at most 2 positional arguments \(3 given\)"):
        _broadcast_shapes(1, 2, 3)


def test_extents_that_act_while_they_are_read():
    extents = []

    class Evil:
        def __index__(self):
            extents.clear()
            return 2

    extents += [Evil(), 3]
    assert _broadcast_shapes(extents) == (2, 3)
