"""General constraints: what is kept of them, what is refused, and the life of their variables."""

import numpy as np
import pytest

from solver.store import GENCONSTR, INF, INVALID, NOT_IN_MODEL, NOT_SOLVED, OPTIMAL, VAR, Store, StoreError
from solver.store_general import ABS, AND, INDICATOR, MAX, MIN, OR, PWL, SOS1, SOS2, expression

NAN = float("nan")
JUMP = [0.0, 1.0, 1.0, 2.0, 0.0, 1.0, 3.0, 3.0]


@pytest.fixture
def store():
    m = Store()
    m.addvars(6, lb=-INF)
    return m


def full(*arguments):
    return [expression(argument) for argument in arguments]


EACH = [
    (MAX, (0, 1, 2.5, ([(1, 3.0), (2, -1.0)], 4.0)), []),
    (MIN, (([(0, 2.0)], 1.0), 1, 2), []),
    (ABS, (0, ([(1, 1.0), (2, -1.0)], 0.0)), []),
    (AND, (0, 1, 2, 1.0), []),
    (OR, (0.0, 1, 2), []),
    (PWL, (0, ([(1, 2.0)], 0.0)), JUMP),
    (INDICATOR, (0, ([(1, 1.0), (2, 1.0)], 0.5)), [1.0, -INF, 4.0]),
    (SOS1, (0, 1, 2), [1.0, 3.0, 2.0]),
    (SOS2, (4, 3, 2), [-1.0, 0.0, 7.5]),
]
GOOD = {kind: (arguments, numbers) for kind, arguments, numbers in EACH}


# ---- what is kept


@pytest.mark.parametrize(("kind", "arguments", "numbers"), EACH)
def test_each_type_is_kept_as_it_was_given(store, kind, arguments, numbers):
    first = store.addgens(kind, [arguments] * 2, [numbers] * 2)
    assert store.int("NumGenConstrs") == 0
    for g in (first, first + 1):  # pending ones too
        assert store.gen(g) == (kind, full(*arguments), numbers)
    store.update()
    assert store.int("NumGenConstrs") == store.data()["ngens"] == 2
    assert store.genmatrix() == [(kind, full(*arguments), numbers)] * 2
    assert store.ints("GenType", range(2)) == store.ints("GenType", [1, 0]) == [kind] * 2
    assert store.strs("GenName", range(2)) == ["G0", "G1"]


def test_terms_of_arguments_are_tidied(store):
    store.addgens(MAX, [(([(2, 1.0), (1, 4.0), (2, 2.0), (0, 0.0)], -1.0), ([(3, 1.0), (3, -1.0)], 0.0), 5)])
    assert store.gen(0)[1] == [([(2, 3.0), (1, 4.0)], -1.0), ([], 0.0), ([(5, 1.0)], 0.0)]
    store.addgens(SOS1, [(([(2, 3.0), (2, -2.0)], 0.0), 1)], [[1.0, 2.0]])
    assert store.gen(1)[1] == full(2, 1)
    store.remove(VAR, [0, 3])  # nothing is left of them


def test_sides_of_an_indicator_of_1e20_are_none(store):
    store.addgens(INDICATOR, [(0, 1), (0, 2)], [[0.0, -1e20, 1e30], [1.0, -2.0, 1e20]])
    assert [store.gen(g)[2] for g in (0, 1)] == [[0.0, -INF, INF], [1.0, -2.0, INF]]


def test_names(store):
    store.addgens(ABS, [(0, 1), (0, 2)], names=("magnitude", (2,)))
    store.addgens(SOS1, [(0, 1)], [[1.0, 2.0]], names=["pick one"])
    assert store.strs("GenName", range(3)) == ["magnitude[0]", "magnitude[1]", "pick one"]
    assert store.findname(GENCONSTR, "magnitude[1]") == 1
    store.setstrs("GenName", [1], ["other"])
    assert [store.findname(GENCONSTR, name) for name in ("magnitude[1]", "other", "G1")] == [-1, 1, -1]


def test_nothing_is_an_empty_block(store):
    assert store.addgens(MAX, []) == 0
    store.update()
    assert store.genmatrix() == []
    assert store.int("NumGenConstrs") == 0


# ---- what is refused


@pytest.mark.parametrize(
    ("kind", "arguments", "numbers", "text"),
    [
        (MAX, (0,), [], "MAX): takes at least 2 arguments, not 1"),
        (AND, (), [], "AND): takes at least 2 arguments, not 0"),
        (ABS, (0, 1, 2), [], "ABS): takes 2 arguments, not 3"),
        (MIN, (0, 1), [1.0], "MIN): takes no numbers, not 1"),
        (MAX, (0, NAN), [], "MAX): the constant of argument 1 is nan"),
        (MAX, (0, 1e20), [], "MAX): the constant of argument 1 is 1e+20"),
        (MAX, (0, ([(1, INF)], 0.0)), [], "argument 1: the coefficient of the variable C1 is inf"),
        (
            MAX,
            (0, ([(1, 9e19), (1, 9e19)], 0.0)),
            [],
            "coefficient of the variable C1 is 1.8e+20",
        ),
        (MAX, (0, 6), [], "argument 1: the model has no variable with id 6"),
        (MAX, (-1, 0), [], "argument 0: the model has no variable with id -1"),
        (MAX, (0, 5), [], "argument 1: the variable C5 was removed from the model"),
        (AND, (0, 1, 0.5), [], "AND): argument 2 is neither a variable nor the number 0 or 1"),
        (OR, (0, ([(1, -1.0)], 1.0)), [], "OR): argument 1 is neither a variable nor the number 0 or 1"),
        (PWL, (0, 1), [0.0, 1.0], "PWL): takes at least two points, all x and then all y, not 2 numbers"),
        (PWL, (0, 1), [0.0, 1.0, 2.0, 0.0, 1.0], "PWL): takes at least two points"),
        (PWL, (0, 1), [0.0, 1.0, 0.0, INF], "PWL): the y of point 1 is inf"),
        (PWL, (0, 1), [0.0, -1.0, 0.0, 1.0], "PWL): the x of its points decrease from 0 to -1"),
        (PWL, (0, 1), [0.0, 1.0, 1.0, 0.0, 1.0, 2.0], "last two points have the same x, 1"),
        (PWL, (0, 1), [0.0, 0.0, 1.0, 0.0, 1.0, 2.0], "first two or last two points have the same x, 0"),
        (PWL, (0, 1), [0.0, 1.0, 1.0, 1.0, 2.0, 0.0, 1.0, 2.0, 3.0, 4.0], "three of its points have the same x, 1"),
        (INDICATOR, (0, 1), [1.0, 0.0], "INDICATOR): takes 3 numbers, not 2"),
        (
            INDICATOR,
            (0, 1),
            [2.0, 0.0, 1.0],
            "the value that its binary variable is to have is 2, not 0 or 1",
        ),
        (INDICATOR, (0, 1), [1.0, NAN, 1.0], "INDICATOR): its lower side is nan"),
        (INDICATOR, (0, 1), [1.0, 0.0, -INF], "INDICATOR): its upper side is -inf"),
        (INDICATOR, (1.0, 1), [1.0, 0.0, 1.0], "INDICATOR): argument 0 is not one variable with coefficient 1"),
        (SOS1, (), [], "SOS1): takes at least 1 argument, not 0"),
        (SOS2, (0, 1), [1.0], "SOS2): takes one weight for each of its 2 variables, not 1"),
        (SOS1, (0, ([(1, 2.0)], 0.0)), [1.0, 2.0], "SOS1): argument 1 is not one variable with coefficient 1"),
        (SOS2, (0, ([(1, 1.0)], 1.0)), [1.0, 2.0], "SOS2): argument 1 is not one variable with coefficient 1"),
        (SOS2, (0, 1, 2), [1.0, 2.0, 1.0], "SOS2): two of its weights are 1"),
        (SOS1, (0, 1, 0), [1.0, 2.0, 3.0], "SOS1): the variable C0 stands in it more than once"),
        (SOS1, (0, 1), [1.0, NAN], "SOS1): weight 1 is nan"),
    ],
)
def test_what_is_refused_is_named_and_changes_nothing(store, kind, arguments, numbers, text):
    store.remove(VAR, [5])
    good = GOOD[kind]
    for names, called in ((None, "G1"), (("bad", (2,)), r"bad[1]")):
        with pytest.raises(StoreError) as caught:
            store.addgens(kind, [good[0], arguments], [good[1], numbers], names)
        assert str(caught.value).startswith(f"the general constraint {called} (")
        assert text in str(caught.value)
        assert caught.value.code == (NOT_IN_MODEL if "model" in text else INVALID)
    assert store.idcount(GENCONSTR) == 0
    store.remove(VAR, range(5))


def test_pointers_that_do_not_hold(store):
    var, coef, constant = np.zeros(2, np.int32), np.ones(2), np.zeros(2)
    for argptr, ptr, dataptr in (
        ([0, 2], [0, 2, 1], None),
        ([0, 2], [1, 1, 2], None),
        ([1, 2], [0, 1, 2], None),
        ([0, -1], [0, 1, 2], None),
        ([0, 2], [0, 1, 2], [1, 0]),
    ):
        arrays = [None if p is None else np.array(p, np.int64) for p in (argptr, ptr, dataptr)]
        with pytest.raises(StoreError) as caught:
            store.addgenarrays(ABS, arrays[0], arrays[1], var, coef, constant, arrays[2], np.zeros(2))
        assert caught.value.code == INVALID
    for kind in (-1, 9):
        with pytest.raises(StoreError, match=f"{kind} is not a type of general constraint"):
            store.addgens(kind, [(0, 1)])
    with pytest.raises(StoreError, match="GenType cannot be set"):
        store.setdbls("GenType", [0], 1.0)
    with pytest.raises(StoreError) as caught:
        store.gen(0)
    assert caught.value.code == NOT_IN_MODEL


# ---- life


def test_a_variable_stays_as_long_as_its_constraint(store):
    store.addgens(MAX, [(0, 1, 2), (3, 1)], names=["top", "same"])
    text = "remove: the variable C1 stands in the general constraint top; remove that first"
    for _ in range(2):  # pending, and in the model
        with pytest.raises(StoreError) as caught:
            store.remove(VAR, [5, 1])
        assert str(caught.value) == text
        assert caught.value.code == INVALID
        store.update()
    assert store.int("NumVars") == 6
    store.remove(GENCONSTR, [0, 0])
    store.remove(GENCONSTR, [0])
    with pytest.raises(StoreError, match="C1 stands in the general constraint same"):
        store.remove(VAR, [1])
    store.remove(VAR, [0, 2])
    assert store.gen(0)[1] == full(0, 1, 2)  # marked only
    store.update()
    assert store.genmatrix() == [(MAX, full(1, 0), [])]  # by position now
    assert store.gen(1)[1] == full(3, 1)
    assert store.positions(GENCONSTR, [0, 1]) == [-2, 0]
    store.remove(GENCONSTR, [1])
    store.remove(VAR, [1, 3])
    store.update()
    assert [store.int("NumVars"), store.int("NumGenConstrs"), store.genmatrix()] == [2, 0, []]


def test_pending_constraint_removed_frees_its_variables(store):
    store.update()
    g = store.addgens(SOS2, [(0, 1)], [[1.0, 2.0]])
    store.remove(GENCONSTR, [g])
    with pytest.raises(StoreError) as caught:
        store.gen(g)
    assert caught.value.code == NOT_IN_MODEL
    store.remove(VAR, [0, 1])
    store.update()
    assert store.int("NumVars") == 4


def test_random_adding_and_removing_agrees_with_a_list():
    rng = np.random.default_rng(5)
    m, live, n = Store(), {}, 8
    m.addvars(n + 2)
    m.remove(VAR, [0, 4])  # so that ids are no positions
    ids = np.delete(np.arange(n + 2), [0, 4]).tolist()
    for _ in range(80):
        kind = int(rng.choice([MAX, SOS1, PWL, INDICATOR]))
        block, data = [], []
        for _ in range(rng.integers(0, 4)):
            chosen = [ids[k] for k in rng.permutation(n)[: rng.integers(2, 5)]]
            if kind in (PWL, INDICATOR):
                rest = [(v, float(v + 1)) for v in chosen[1:]]
                chosen = [chosen[0], (rest, float(rng.integers(3)))]
            block.append(chosen)
            data.append({MAX: [], SOS1: [float(v) for v in range(len(chosen))], PWL: JUMP}.get(kind, [0.0, -1.0, 2.0]))
        first = m.addgens(kind, block, data)
        live |= {first + i: (kind, full(*args), data[i]) for i, args in enumerate(block)}
        gone = [i for i in live if rng.random() < 0.2]
        m.remove(GENCONSTR, gone)
        for i in gone:
            del live[i]
        if rng.random() < 0.5:
            m.update()
            assert m.idsat(GENCONSTR, range(len(live))) == sorted(live)
        for i, gen in live.items():
            assert m.gen(i) == gen
    m.update()
    position = {v: p for p, v in enumerate(ids)}
    expected = [
        (kind, [([(position[v], a) for v, a in linear], constant) for linear, constant in arguments], numbers)
        for kind, arguments, numbers in live.values()
    ]
    assert m.genmatrix() == expected
    used = {v for _, arguments, _ in live.values() for linear, _ in arguments for v, _ in linear}
    for v in ids:
        if v in used:
            with pytest.raises(StoreError, match=f"C{v} stands in the general constraint"):
                m.remove(VAR, [v])
        else:
            m.remove(VAR, [v])


@pytest.mark.parametrize("change", ["add", "remove"])
def test_changes_are_told_and_outdate_the_solution(store, change):
    store.addgens(ABS, [(0, 1)])
    store.update()
    store.clearchanges()
    store.solved([0.0] * 6)
    store.remove(GENCONSTR, [store.addgens(ABS, [(1, 2)])])
    store.update()  # nothing has changed
    assert store.int("Status") == OPTIMAL
    assert not store.changes()["structure"]
    store.addgens(ABS, [(1, 2)]) if change == "add" else store.remove(GENCONSTR, [0])
    store.update()
    assert store.int("Status") == NOT_SOLVED
    assert store.changes()["structure"]
