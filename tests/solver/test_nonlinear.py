"""Nonlinear rows and a nonlinear objective: tapes against NumPy, gradients against complex steps, what is refused, and
the life of rows and variables."""

import numpy as np
import pytest

from solver.store import (
    CONSTR,
    DUAL,
    INF,
    INVALID,
    NLCONSTR,
    NO_DATA,
    NOT_IN_MODEL,
    NOT_SOLVED,
    OPTIMAL,
    ROW,
    VAR,
    Store,
    StoreError,
)
from solver.tapes import UNARY, evaluate, op, random_expression, sumof, tape, variables_of

NAN = float("nan")
STEP = 1e-30  # of a complex step: no difference is taken, so nothing is lost


@pytest.fixture
def store():
    m = Store()
    m.addvars(4, lb=-INF)
    return m


def refusal(call):
    """The error of a call, None where it is taken."""
    try:
        call()
    except StoreError as error:
        return error
    return None


def gradient_by_complex_steps(code, constants, x):
    """Entries for the variables that occur, in the order of first occurrence."""
    out = []
    for v in variables_of(code):
        z = x.astype(complex)
        z[v] += STEP * 1j
        out.append(evaluate(code, constants, z).imag / STEP)
    return np.array(out)


# ---- values and gradients


@pytest.mark.parametrize("seed", range(4))
def test_random_tapes_have_numpys_values_and_gradients(seed):
    rng = np.random.default_rng(seed)
    n, m = 6, Store()
    m.addvars(n + 3)
    m.remove(VAR, [0, 4, 7])  # so that ids are no positions
    ids = np.delete(np.arange(n + 3), [0, 4, 7])
    tapes = []
    while len(tapes) < 150:
        code, constants = tape(random_expression(rng, n, int(rng.integers(1, 6))))
        code = [int(ids[k]) if k >= 0 else k for k in code]
        refused = refusal(lambda row=([], code, constants): m.addnlrows([row]))
        if refused is None:
            tapes.append((code, constants))
        else:  # constants alone, out of a function's domain
            assert "no finite value" in str(refused) or "constant 0" in str(refused)
    m.update()
    x = rng.uniform(0.2, 1.6, n)
    byid = np.zeros(n + 3)
    byid[ids] = x
    expected = np.array([evaluate(*one, byid) for one in tapes])
    np.testing.assert_allclose(m.evalnlrows(x), expected, rtol=1e-9, atol=1e-12)
    start, index, value = m.nljacobian(x)
    assert len(start) == len(tapes) + 2
    compared = 0
    for i, (code, constants) in enumerate(tapes):
        row = slice(start[i], start[i + 1])
        found = dict(zip(ids[index[row]].tolist(), value[row].tolist(), strict=True))
        assert sorted(found) == sorted(variables_of(code))
        mine = np.array([found[v] for v in variables_of(code)])
        with np.errstate(all="ignore"):
            gradient = gradient_by_complex_steps(code, constants, byid)
        if np.isfinite(expected[i]) and np.isfinite(gradient).all() and np.isfinite(mine).all():
            scale = 1e-12 * (1 + np.abs(gradient).max(initial=0))
            np.testing.assert_allclose(mine, gradient, rtol=1e-8, atol=scale)
            compared += 1
    assert compared > 90


@pytest.mark.parametrize("name", UNARY)
def test_each_function_and_its_derivative(store, name):
    code, constants = tape(name, 2)
    store.addnlrows([([], code, constants)])
    store.update()
    for at in (0.3, 1.0, 2.5):
        x = np.array([0.0, 0.0, at, 0.0])
        assert store.evalnlrows(x)[0] == pytest.approx(evaluate(code, constants, x), rel=1e-14)
        assert store.nljacobian(x)[2] == pytest.approx(gradient_by_complex_steps(code, constants, x), rel=1e-13)


def test_functions_far_out_and_where_they_are_not_defined(store):
    for name in ("logistic", "log", "sqrt", "abs"):
        store.addnlrows([([], *tape(name, 0))])
    store.update()
    assert store.evalnlrows([-800.0, 0, 0, 0])[0] == 0.0
    assert store.evalnlrows([800.0, 0, 0, 0])[0] == 1.0
    values = store.evalnlrows([-1.0, 0, 0, 0])
    assert np.isnan(values[1:3]).all()
    assert values[3] == 1.0
    assert store.nljacobian([0.0, 0, 0, 0])[2][3] == 0.0  # abs at its kink


def test_linear_terms_and_tape_of_a_row_add_up(store):
    store.addnlrows([([(1, 2.0), (0, 3.0), (1, 1.0), (3, 0.0)], *tape("*", 0, 2)), ([(3, 4.0)], [], [])])
    store.update()
    assert store.nlrow(0)[0] == [(1, 3.0), (0, 3.0)]
    assert store.evalnlrows([5.0, 7.0, 11.0, 13.0]).tolist() == [15.0 + 21.0 + 55.0, 52.0]
    start, index, value = store.nljacobian([5.0, 7.0, 11.0, 13.0])
    assert [start.tolist(), index.tolist(), value.tolist()] == [[0, 3, 4, 4], [1, 0, 2, 3], [3.0, 14.0, 5.0, 4.0]]


def test_a_chain_of_a_million_operations_is_a_loop_and_no_recursion(store):
    n = 1_000_000
    code = [0] + [op("neg")] * n
    store.addnlrows([([], code, []), ([], [1] * n + [sumof(n)], [])])
    store.update()
    assert store.evalnlrows([2.0, 3.0, 0, 0]).tolist() == [2.0, 3.0 * n]
    assert store.nljacobian([2.0, 3.0, 0, 0])[2].tolist() == [1.0, n]


# ---- the objective


def test_objective_is_the_sum_of_its_parts(store):
    store.setnlobjective([(0, 2.0)], [(0, 1, 3.0)], *tape("exp", ("*", 0.5, 1)), shift=7.0)
    store.update()
    x = np.array([2.0, 0.8, 0, 0])
    assert store.evalobjective(x) == pytest.approx(4.0 + 4.8 + np.exp(0.4) + 7.0)
    _, index, value = store.nljacobian(x)
    assert dict(zip(index.tolist(), value.tolist(), strict=True)) == pytest.approx(
        {0: 2.0 + 3.0 * 0.8, 1: 6.0 + 0.5 * np.exp(0.4)}
    )
    assert store.data()["nnlobj"] == 5 - 1
    assert store.nlobjective() == tape("exp", ("*", 0.5, 1))


@pytest.mark.parametrize("replace", [lambda m: m.setobjective([(0, 1.0)]), lambda m: m.setqobjective([(0, 1.0)], [])])
def test_other_objectives_drop_the_tape(store, replace):
    store.setnlobjective([], [], *tape("sin", 1))
    replace(store)
    assert store.nlobjective() == ([], [])
    store.update()
    assert store.evalobjective([3.0, 1, 1, 1]) == 3.0
    store.remove(VAR, [1])


def test_a_pending_variable_is_zero_in_the_tape_and_no_column_of_the_gradient(store, tmp_path):
    store.update()
    pending = store.addvars(1)
    store.setnlobjective([], [], *tape("*", ("exp", pending), 1))
    assert store.evalobjective([0.0, 3.0, 0, 0]) == 3.0
    assert [a.tolist() for a in store.nljacobian([0.0, 3.0, 0, 0])] == [[0, 1], [1], [1.0]]
    with pytest.raises(StoreError, match="the nonlinear objective has a variable that is pending"):
        store.writenl(tmp_path / "model.nl")
    store.setqobjective([], [(0, pending, 1.0), (pending, pending, 1.0)])
    store.writenl(tmp_path / "model.nl")
    quadratic = (tmp_path / "model.nl").read_bytes()
    store.setqobjective([], [])
    store.writenl(tmp_path / "model.nl")
    assert (tmp_path / "model.nl").read_bytes() == quadratic


# ---- what is refused changes nothing


@pytest.mark.parametrize(
    ("code", "constants", "why"),
    [
        ([0, op("*")], [], "multiply takes 2 operands where 1 are left"),
        ([op("sin")], [], "sin takes 1 operands where 0 are left"),
        ([0, sumof(2)], [], "sum takes 2 operands where 1 are left"),
        ([0, 1], [], "the tape leaves 2 values, not one"),
        ([9], [], "the model has no variable with id 9"),
        ([3], [], "the variable C3 was removed from the model"),
        ([~19], [], "-20 is no code of a tape"),
        ([0, ~(7 | 1 << 5)], [], "-40 is no code of a tape"),
        ([sumof(0)], [], "-2 is no code of a tape"),
        ([-(2**31)], [], "-2147483648 is no code of a tape"),
        ([op("constant"), 0, op("*")], [], "the tape takes more constants than the 0 that are left"),
        ([op("constant")], [NAN], "a constant is nan"),
        ([op("constant")], [1e20], "a constant is 1e+20"),
        (*tape("log", 0.0), "log of the constant 0 has no finite value"),
        (*tape("log2", ("-", 1.0, 3.0)), "log2 of the constant -2 has no finite value"),
        (*tape("sqrt", -1.0), "sqrt of the constant -1 has no finite value"),
        (*tape("/", 0, 0.0), "a division by the constant 0"),
        (*tape("/", 0, ("-", 1.0, 1.0)), "a division by the constant 0"),
        (*tape("**", -8.0, 0.5), "pow of the constants -8 and 0.5 has no finite value"),
        (*tape("exp", 1000.0), "exp of the constant 1000 has no finite value"),
    ],
)
def test_bad_tapes_are_refused_with_the_row_named(store, code, constants, why):
    store.addnlrows([([(0, 1.0)], *tape("sin", 1))])
    store.remove(VAR, [3])
    with pytest.raises(StoreError) as caught:
        store.addnlrows([([], [2], []), ([(1, 1.0)], code, constants)], names=("ball", (2,)))
    expected = NOT_IN_MODEL if "variable" in why else INVALID
    assert (caught.value.code, str(caught.value)) == (expected, "the nonlinear constraint ball[1]: " + why)
    with pytest.raises(StoreError) as caught:
        store.setnlobjective([(0, 5.0)], [], code, constants)
    assert (caught.value.code, str(caught.value)) == (expected, "objective: " + why)
    for terms, flaw in (
        ([(0, 9e19), (0, 2e19)], "coefficient"),
        ([(1, 1.0), (3, 1.0)], "variable C3 was removed"),
    ):
        with pytest.raises(StoreError, match=rf"nonlinear constraint ball\[1\]: the {flaw}"):
            store.addnlrows([([], [2], []), (terms, [1], [])], names=("ball", (2,)))
    assert store.idcount(NLCONSTR) == 1
    assert store.addnlrows([([], [2], [])]) == 1
    assert [store.nlrow(i) for i in range(2)] == [([(0, 1.0)], *tape("sin", 1)), ([], [2], [])]
    assert store.dbls("Obj", [0]).tolist() == [0.0]
    store.remove(NLCONSTR, [1])
    store.remove(VAR, [2])  # a refused block holds nothing


@pytest.mark.parametrize(
    ("arguments", "message"),
    [
        ({"lower": NAN}, "the lower side of the nonlinear constraint N0 is nan"),
        ({"lower": INF}, "the lower side of the nonlinear constraint N0 is inf: no value meets it"),
        ({"upper": -1e20}, "the upper side of the nonlinear constraint N0 is -1e+20: no value meets it"),
        ({"constant": np.ones(1)}, "the tapes take 0 of 1 constants"),
        ({"codeptr": [0, 2, 1]}, "row pointers decrease from 2 to 1 at row 1"),
        ({"codeptr": [1, 1]}, "row pointers begin with 1, not with 0"),
        ({"ptr": [0, 1], "var": np.array([7], np.int32), "coef": np.ones(1), "codeptr": None}, "id 7"),
    ],
)
def test_bad_blocks_are_refused(store, arguments, message):
    good = {"ptr": None, "var": None, "coef": None, "codeptr": [0, 1], "code": np.zeros(2, np.int32)}
    with pytest.raises(StoreError, match=message.replace("+", r"\+")):
        store.addnlarrays(**{**good, "constant": np.empty(0), **arguments})
    assert store.idcount(NLCONSTR) == 0
    store.remove(VAR, [0])


def test_random_codes_are_refused_or_evaluated(store):
    """Whatever the codes: an error or a tape that evaluates, and nothing else."""
    rng = np.random.default_rng(5)
    alphabet = [*range(5), *(~k for k in range(20)), *(sumof(k) for k in range(4)), -(2**31), 2**31 - 1]
    taken = 0
    for _ in range(20_000):
        code = [int(k) for k in rng.choice(alphabet, rng.integers(1, 7))]
        constants = rng.choice([0.0, -1.0, 2.5], code.count(op("constant"))).tolist()
        refused = refusal(lambda row=([], code, constants): store.addnlrows([row]))
        if refused is not None:
            assert refused.code in (INVALID, NOT_IN_MODEL)
            continue
        taken += 1
        assert store.nlrow(taken - 1) == ([], code, constants)
    assert taken > 100
    store.update()
    assert len(store.evalnlrows(np.ones(4))) == taken == store.int("NumNLConstrs")
    store.nljacobian(np.ones(4))


# ---- the life of rows and variables


def test_names_counts_and_sides(store):
    store.addnlrows([([], [0], [])] * 2, lower=[-INF, 1.0], upper=[2.0, 1e25], names=("n", (2,)))
    store.addnlrows([([], *tape("exp", 1))], lower=-3.0)
    assert store.int("NumNLConstrs") == 0
    store.update()
    assert (store.int("NumNLConstrs"), store.int("NumConstrs"), store.idcount(CONSTR)) == (3, 0, 0)
    assert store.strs("NLName", range(3)) == ["n[0]", "n[1]", "N2"]
    store.setstrs("NLName", [0], ["flow"])
    assert store.findname(NLCONSTR, "flow") == 0
    data = store.data()
    assert [data["nnlrows"], data["nnlcodes"]] == [3, 4]
    assert [data["nllower"].tolist(), data["nlupper"].tolist()] == [[-INF, 1.0, -3.0], [2.0, INF, INF]]


def test_variables_in_tapes_stay_until_the_tapes_go(store):
    store.addnlrows([([(1, 1.0), (2, 1.0)], *tape("sin", 0)), ([], *tape("*", 0, 0))], names=("n", (2,)))
    store.setnlobjective([], [], *tape("exp", 3))
    store.update()
    message = r"remove: the variable C0 stands in the nonlinear constraint n\[0\]; remove that first"
    with pytest.raises(StoreError, match=message):
        store.remove(VAR, [1, 0])
    with pytest.raises(StoreError, match="remove: the variable C3 stands in the nonlinear objective; replace that"):
        store.remove(VAR, [3])
    assert store.positions(VAR, range(4)) == [0, 1, 2, 3]
    store.remove(VAR, [1])
    store.remove(NLCONSTR, [0, 0])
    with pytest.raises(StoreError, match=r"constraint n\[1\]"):
        store.remove(VAR, [0])
    store.remove(NLCONSTR, [1, 0])
    store.remove(VAR, [0])
    store.update()
    assert store.positions(VAR, range(4)) == [-2, -2, 0, 1]
    assert store.evalobjective([0.0, 2.0]) == pytest.approx(np.exp(2.0))


def test_linear_terms_go_with_their_variables(store):
    pending = store.addvars(1)
    store.addnlrows([([(pending, 1.0), (1, 2.0), (0, 3.0)], *tape("sin", 0))])
    store.remove(VAR, [pending])
    assert store.nlrow(0)[0] == [(1, 2.0), (0, 3.0)]
    store.update()
    store.remove(VAR, [1])
    store.update()
    assert store.nlrow(0) == ([(0, 3.0)], *tape("sin", 0))


def test_random_adding_and_removing_agrees_with_a_list():
    rng = np.random.default_rng(11)
    m, live, n = Store(), {}, 5
    m.addvars(n)
    for _ in range(60):
        block = []
        for _ in range(rng.integers(0, 4)):
            linear = [(int(v), float(v + 1)) for v in rng.permutation(n)[: rng.integers(0, 3)]]
            code, constants = tape(random_expression(rng, n, 2))
            if not {op("/"), op("**")} & set(code):  # which constants could break
                block.append((linear, code, [abs(v) for v in constants]))
        first = m.idcount(NLCONSTR)
        refused = refusal(lambda block=block: m.addnlrows(block, lower=-1.0))
        assert refused is None or "no finite value" in str(refused)
        if refused is None:
            live |= {first + i: row for i, row in enumerate(block)}
            assert m.idcount(NLCONSTR) == first + len(block)
        gone = [i for i in live if rng.random() < 0.2]
        m.remove(NLCONSTR, gone)
        for i in gone:
            del live[i]
        if rng.random() < 0.5:
            m.update()
            assert m.idsat(NLCONSTR, range(len(live))) == sorted(live)
        for i, row in live.items():
            assert m.nlrow(i) == row
    m.update()
    x = rng.uniform(0.5, 1.5, n)
    expected = [
        evaluate(code, constants, x) + sum(a * x[v] for v, a in linear) for linear, code, constants in live.values()
    ]
    np.testing.assert_allclose(m.evalnlrows(x), expected, rtol=1e-12)
    used = {k for _, code, _ in live.values() for k in code if k >= 0}
    for v in range(n):
        if v in used:
            with pytest.raises(StoreError, match=f"the variable C{v} stands in"):
                m.remove(VAR, [v])
        else:
            m.remove(VAR, [v])


# ---- changes, results and the check


@pytest.fixture
def solved():
    """min exp(x): 1 <= x*y + 2z, sqrt(x) <= 3, a free row, an equation."""
    m = Store()
    m.addvars(3, lb=-INF)
    rows = [([(2, 2.0)], *tape("*", 0, 1)), ([], *tape("sqrt", 0)), ([], [1], []), ([], *tape("log", 1))]
    m.addnlrows(rows, lower=[1.0, -INF, -INF, 0.5], upper=[INF, 3.0, INF, 0.5])
    m.setnlobjective([], [], *tape("exp", 0))
    m.update()
    m.clearchanges()
    m.solved([4.0, 1.0, 0.25], objval=1.0)
    return m


def test_slack_is_the_side_minus_the_activity(solved):
    assert solved.dbls("NLSlack", range(4)).tolist() == [1.0 - 4.5, 1.0, INF, 0.5]
    solved.addnlrows([([], [0], [])])
    with pytest.raises(StoreError, match="NLSlack: the nonlinear constraint N4 was added after") as caught:
        solved.dbls("NLSlack", [4])
    assert caught.value.code == NO_DATA
    solved.update()
    with pytest.raises(StoreError, match="the model has changed since the last solve"):
        solved.dbls("NLSlack", [0])


@pytest.mark.parametrize(
    "change",
    [
        lambda m: m.addnlrows([([], [0], [])]),
        lambda m: m.remove(NLCONSTR, [1]),
        lambda m: m.setnlobjective([], [], *tape("exp", 1)),
        lambda m: m.setobjective([]),
    ],
    ids=["row", "removal", "tape", "no tape"],
)
def test_changes_are_told_and_outdate_the_solution(solved, change):
    change(solved)
    solved.update()
    assert solved.changes()["structure"]
    assert solved.int("Status") == NOT_SOLVED


def test_what_changes_nothing_keeps_the_solution(solved):
    solved.setnlobjective([], [], *tape("exp", 0))
    solved.remove(NLCONSTR, [solved.addnlrows([([], [0], [])])])
    solved.update()
    assert solved.int("Status") == OPTIMAL
    assert not solved.changes()["structure"]


def test_residuals_of_nonlinear_rows(solved):
    solved.addrows([{0: 1.0}], upper=10.0)
    solved.addqrows([([], [(0, 0, 1.0)])], "<", 1e6)
    solved.update()
    solved.opensolution([9.61, 1.0, -4.81])
    found = {row: (violation, scale) for row, violation, scale in solved.offenders(ROW, 9)}
    assert found == {
        2: (pytest.approx(1.0 + 0.01), pytest.approx(1 + 9.62)),
        3: (pytest.approx(0.1), pytest.approx(1 + 3.1)),
        5: (0.5, 1.5),
    }
    for x in ([-1.0, np.e**0.5, 2.0], [1.0, -1.0, 2.0], [1.0, 0.0, 2.0]):  # sqrt and log of what they do not take
        solved.opensolution(x)
        assert solved.check().row == INF


def test_scale_of_a_row_is_its_largest_summand(store):
    store.addnlrows([([], *tape("-", ("square", 0), ("neg", ("square", 1))))], upper=0.0)
    store.update()
    store.opensolution([1e4, 1.0, 0, 0])
    assert store.check().rowscale == 1 + 1e8


def test_stationarity_has_the_gradient_of_the_tape(solved):
    solved.opensolution([0.5, 1.0, 0.25], [np.exp(0.5), 0.0, 0.0], [])
    offenders = {v for v, violation, _ in solved.offenders(DUAL, 9, has_duals=True) if violation > 1e-12}
    assert offenders == {0}  # of a free variable: nothing is left, but the sign is wrong
    solved.opensolution([0.5, 1.0, 0.25], [0.0, 0.0, 0.0], [])
    assert solved.check(has_duals=True).dual == pytest.approx(np.exp(0.5))


# ---- files


@pytest.mark.parametrize("ending", ["mps", "lp"])
def test_files_that_know_no_nonlinear_functions_refuse_them(store, tmp_path, ending):
    path = str(tmp_path / f"model.{ending}").encode()
    store.setnlobjective([], [], *tape("exp", 0))
    with pytest.raises(StoreError, match="the model has a nonlinear objective, which MPS and LP files cannot say"):
        store.call("TRVwritemodel", path)
    store.setobjective([])
    store.addnlrows([([], [0], [])])
    with pytest.raises(StoreError, match=r"the model has nonlinear constraints \(1\)"):
        store.call("TRVwritemodel", path)
    assert not list(tmp_path.iterdir())
