"""The check of a solution over general constraints: what counts as violated, by how much and on what scale."""

import itertools

import numpy as np
import pytest

from solver.store import INF, ROW, Store
from solver.store_general import ABS, AND, INDICATOR, MAX, MIN, OR, PWL, SOS1, SOS2


def residual(kind, arguments, numbers, x):
    """(violation, scale) of one constraint at x."""
    m = Store()
    m.addvars(len(x), lb=-INF)
    m.addgens(kind, [arguments], [numbers])
    m.update()
    m.opensolution(x)
    found = m.offenders(ROW, 5)
    assert [element for element, _, _ in found] == [0] * len(found)
    return found[0][1:] if found else (0.0, None)


@pytest.mark.parametrize(
    ("kind", "x", "expected"),
    [
        (MAX, [3.0, 1.0, 3.0], (0.0, None)),
        (MAX, [2.0, 1.0, 3.0], (1.0, 4.0)),
        (MAX, [4.0, -1e9, 3.0], (1.0, 5.0)),  # the large one has no say
        (MIN, [-5.0, 7.0, -4.0], (1.0, 6.0)),
        (MIN, [7.0, 7.0, 1e9], (0.0, None)),
        (MIN, [7.5, 7.0, 1e9], (0.5, 8.5)),
    ],
)
def test_extremes(kind, x, expected):
    assert residual(kind, (0, 1, 2), [], x) == expected


def test_arguments_are_expressions():
    shifted = ([(1, 2.0), (2, -1.0)], 10.0)
    assert residual(MAX, (0, shifted, 4.0), [], [6.0, 1.0, 7.0]) == (1.0, 11.0)
    assert residual(ABS, (([(0, 3.0)], 0.0), shifted), [], [4.0, -5.0, 12.0]) == (0.0, None)
    assert residual(ABS, (0, 1), [], [-4.0, -4.0]) == (8.0, 5.0)


def test_logic_asks_what_the_binary_variables_mean():
    for values in itertools.product((0.0, 1e-6, 1.0 - 1e-6, 1.0), repeat=3):
        result, *arguments = (round(v) for v in values)
        for kind, truth in ((AND, all(arguments)), (OR, any(arguments))):
            violation, scale = residual(kind, (0, 1, 2), [], values)
            if result == truth:
                assert (violation, scale) == (0.0, None)
            else:
                assert violation == pytest.approx(1.0, abs=1e-5)
                assert scale == 1.0
    assert residual(AND, (1.0, 0, 1.0), [], [0.0])[0] == 1.0
    assert residual(OR, (0, 0.0, 0.0), [], [0.0])[0] == 0.0


@pytest.mark.parametrize("seed", range(3))
def test_piecewise_linear_is_the_distance_from_the_graph(seed):
    """Against the nearest of many points of the graph, outer pieces and jumps included."""
    rng = np.random.default_rng(seed)
    xs = np.sort(rng.uniform(-2, 2, 5))
    xs[2] = xs[1]
    ys = rng.uniform(-3, 3, 5)
    ends = [(xs[0] - 8 * (xs[1] - xs[0]), ys[0] - 8 * (ys[1] - ys[0]))]
    ends += [(xs[4] + 8 * (xs[4] - xs[3]), ys[4] + 8 * (ys[4] - ys[3]))]
    corners = np.array([ends[0], *zip(xs, ys, strict=True), ends[1]])
    steps = np.linspace(0, 1, 20001)[:, None]
    graph = np.concatenate([a + steps * (b - a) for a, b in itertools.pairwise(corners)])
    for x, y in rng.uniform(-3, 3, (40, 2)):
        nearest = np.abs(graph - (x, y)).max(axis=1).min()
        violation, scale = residual(PWL, (0, 1), [*xs, *ys], [y, x])
        assert violation == pytest.approx(nearest, abs=2e-3)
        assert scale == 1 + max(abs(x), abs(y))
    for x, y in [*corners, (xs[1], ys[1:3].mean()), *corners[:2].mean(axis=0, keepdims=True)]:
        assert residual(PWL, (0, 1), [*xs, *ys], [y, x])[0] < 1e-12


def test_a_steep_piece_is_as_forgiving_as_a_jump():
    for width in (0.0, 1e-12, 1e-6):
        points = [0.0, 1.0, 1.0 + width, 2.0, 0.0, 0.0, 1.0, 1.0]
        assert residual(PWL, (0, 1), points, [0.5, 1.0 - 1e-7])[0] <= 1.1e-6
        assert residual(PWL, (0, 1), points, [0.5, 0.9])[0] == pytest.approx(0.1, abs=1e-5)


def test_indicator_holds_where_the_binary_variable_is_elsewhere():
    row = ([(1, 2.0), (2, 1.0)], 1.0)
    for value in (0.0, 1.0):
        sides = [value, -3.0, 4.0]
        for binary in (value, abs(value - 1e-6)):
            assert residual(INDICATOR, (0, row), sides, [binary, 3.0, 1.0]) == (4.0, 7.0)
            assert residual(INDICATOR, (0, row), sides, [binary, -3.0, 1.0]) == (1.0, 7.0)
            assert residual(INDICATOR, (0, row), sides, [binary, 1.0, 1.0]) == (0.0, None)
        assert residual(INDICATOR, (0, row), sides, [1.0 - value, 3.0, 1.0]) == (0.0, None)
    assert residual(INDICATOR, (0, row), [1.0, -INF, INF], [1.0, 1e9, 0.0]) == (0.0, None)


def test_sets_are_wrong_by_what_ought_to_be_zero():
    rng = np.random.default_rng(3)
    for n in (1, 2, 3, 5):
        for _ in range(20):
            x = rng.integers(-3, 4, n) * rng.integers(0, 2, n).astype(float)
            weights = rng.permutation(n).astype(float)
            ordered = np.abs(x[np.argsort(weights)])
            single = min(np.delete(ordered, i).max(initial=0) for i in range(n))
            pair = min(np.delete(ordered, [i, min(i + 1, n - 1)]).max(initial=0) for i in range(n))
            for kind, expected in ((SOS1, single), (SOS2, pair)):
                violation, scale = residual(kind, range(n), weights.tolist(), x)
                assert violation == expected
                assert scale in (1.0, None)
    assert residual(SOS1, (0, 1), [1.0, 2.0], [1e6, 1e-3]) == (1e-3, 1.0)


@pytest.mark.parametrize("x", [INF, -INF, float("nan")])
@pytest.mark.parametrize("kind", [MAX, ABS, AND, PWL, INDICATOR, SOS1])
def test_what_has_no_value_is_infinitely_wrong(kind, x):
    numbers = {PWL: [0.0, 1.0, 0.0, 1.0], INDICATOR: [1.0, -INF, 1.0], SOS1: [1.0, 2.0]}.get(kind, [])
    assert residual(kind, (0, 1), numbers, [1.0, x])[0] == INF


def test_elements_count_on_after_the_rows_and_ids_are_no_positions():
    m = Store()
    m.addvars(4, lb=-INF)
    m.addrows([{1: 1.0}], upper=0.0)
    m.addqrows([([], [(1, 1, 1.0)])], "<", 0.0)
    m.addnlrows([([(1, 1.0)], [], [])] * 2, upper=0.0)
    m.addgens(ABS, [(2, 3), (3, 2)])
    m.remove(1, [0])
    m.update()
    m.opensolution([0.0, -2.0, 5.0])
    assert m.offenders(ROW, 9) == [(4, 7.0, 6.0), (5, 3.0, 6.0)]
    assert m.check().worstrow == 4
