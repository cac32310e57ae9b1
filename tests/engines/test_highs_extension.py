"""tarvopy._highs: arrays in, arrays out, and a run beside the interpreter."""

import os
import subprocess
import sys
import time

import numpy as np
import pytest
import scipy.sparse as sp

from tarvopy import _highs
from tarvopy.engines.highs import HighsEngine

OPTIMAL, TIME_LIMIT, INTERRUPTED = 7, 13, 17


@pytest.fixture
def solver():
    HighsEngine.full_name()  # opens the library
    return _highs.Solver()


def doubles(*values):
    return np.array(values, dtype=float)


def positions(*values):
    return np.array(values, dtype=np.int32)


def small(**other):
    """max x + 2 y + 10: x + y <= 2, x <= 1.5."""
    return {
        **{"sense": -1, "offset": 10.0, "obj": doubles(1, 2), "lb": doubles(0, 0), "ub": doubles(1.5, np.inf)},
        **{"vtype": None, "lower": doubles(-np.inf), "upper": doubles(2)},
        **{"start": positions(0, 1, 2), "index": positions(0, 0), "value": doubles(1, 1)},
        **other,
    }


def market_split(markets=6):
    """Needs minutes, and any point is feasible (see mps_text.py)."""
    rng = np.random.default_rng(1)
    n = 10 * (markets - 1)
    D = rng.integers(0, 100, (markets, n)).astype(float)
    A = sp.hstack([sp.csc_array(D), sp.eye_array(markets), -sp.eye_array(markets)], format="csc")
    half = np.floor(D.sum(axis=1) / 2)
    return {
        **{"sense": 1, "offset": 0.0, "obj": np.r_[np.zeros(n), np.ones(2 * markets)]},
        **{"lb": np.zeros(n + 2 * markets), "ub": np.r_[np.ones(n), np.full(2 * markets, np.inf)]},
        **{"vtype": np.array([b"B"] * n + [b"C"] * (2 * markets)), "lower": half, "upper": half},
        **{"start": A.indptr.astype(np.int32), "index": A.indices.astype(np.int32), "value": A.data},
    }


def run(solver, seconds=60):
    solver.start()
    assert solver.wait(seconds)
    return solver.result()


def test_columns_and_rows_give_the_same_model(solver):
    A = sp.random_array((30, 20), density=0.2, rng=np.random.default_rng(3), format="csc")
    model = small(obj=np.arange(20.0), lb=np.zeros(20), ub=np.full(20, 9.0), lower=np.zeros(30), upper=np.ones(30))
    held = []
    for matrix, by_columns in ((A, True), (A.tocsr(), False)):
        arrays = {"start": matrix.indptr.astype(np.int32), "index": matrix.indices.astype(np.int32)}
        solver.load(**{**model, **arrays, "value": matrix.data}, by_columns=by_columns)
        assert solver.counts() == (20, 30, A.nnz, 0)
        m = solver.model()
        held.append(sp.csc_array((m["value"], m["index"], m["start"]), shape=A.shape).toarray())
    assert (held[0] == A.toarray()).all()
    assert (held[1] == held[0]).all()


def test_variable_types_reach_the_engine_and_a_pure_lp_has_none(solver):
    five = {"obj": np.ones(4), "lb": np.zeros(4), "ub": np.ones(4), "lower": doubles(), "upper": doubles()}
    empty = {"start": np.zeros(5, np.int32), "index": positions(), "value": doubles()}
    solver.load(**small(**five, **empty, vtype=np.array([b"C", b"B", b"I", b"S"])))
    assert solver.model()["integrality"].tolist() == [0, 1, 1, 2]
    solver.load(**small(**five, **empty, vtype=np.array([b"C"] * 4)))
    run(solver)
    assert solver.result()["dual"] == 2  # an LP has duals


def test_one_number_for_all_is_an_array_of_stride_0(solver):
    def all_of(value, n):
        return np.broadcast_to(value, n)

    solver.load(**small(lb=all_of(0.25, 2), ub=all_of(np.inf, 2), lower=all_of(-3.0, 1), upper=all_of(np.inf, 1)))
    solver.change_bounds(positions(1), all_of(-4.0, 2), all_of(4.0, 2))
    m = solver.model()
    assert (m["lb"].tolist(), m["ub"].tolist()) == ([0.25, -4.0], [np.inf, 4.0])
    assert (m["lower"].tolist(), m["upper"].tolist()) == ([-3.0], [np.inf])
    for wrong in (all_of(1.0, 3), all_of(1, 2), all_of(1.0, (2, 2))):
        with pytest.raises((TypeError, ValueError), match="lb"):
            solver.load(**small(lb=wrong))


def test_tiny_coefficients_stay(solver):
    solver.load(**small(value=doubles(1e-11, 1)))
    solver.reset_options()
    solver.change_coefs(positions(0), positions(1), doubles(1e-11))
    assert solver.model()["value"].tolist() == [1e-11, 1e-11]


def test_changes_reach_the_engine(solver):
    solver.load(**small())
    solver.change_bounds(positions(1), doubles(7, 0.5), doubles(7, 0.75))
    solver.change_costs(positions(0), doubles(3, 7))
    solver.change_sides(positions(0), doubles(-5), doubles(5))
    solver.change_coefs(positions(0), positions(1), doubles(4))
    solver.change_objective(1, -1.0)
    m = solver.model()
    assert (m["lb"].tolist(), m["ub"].tolist()) == ([0, 0.5], [1.5, 0.75])
    assert (m["obj"].tolist(), m["sense"], m["offset"]) == ([3, 2], 1, -1.0)
    assert (m["lower"].tolist(), m["upper"].tolist(), m["value"].tolist()) == ([-5], [5], [1, 4])


@pytest.mark.parametrize(
    ("changed", "error"),
    [
        ({"obj": [1.0, 2.0]}, TypeError),
        ({"obj": np.ones(2, np.float32)}, TypeError),
        ({"obj": np.ones((2, 1))}, TypeError),
        ({"obj": np.ones(4)[::2]}, TypeError),
        ({"lb": np.zeros(3)}, ValueError),
        ({"vtype": np.array([b"CC", b"CC"])}, TypeError),
        ({"vtype": np.array([b"C"])}, ValueError),
        ({"start": positions(0, 1)}, ValueError),
        ({"start": positions(0, 1, 3)}, ValueError),
        ({"start": positions(0, 1, -1)}, ValueError),
        ({"start": positions(0, 10**8, 2)}, _highs.HighsError),
        ({"start": positions(0, -5, 2)}, _highs.HighsError),
        ({"start": positions(1, 1, 2)}, _highs.HighsError),
        ({"index": positions(0, 7)}, _highs.HighsError),
        ({"index": positions(0, -7)}, _highs.HighsError),
        ({"start": positions(0, 2, 2)}, _highs.HighsError),  # a row twice in a column
        ({"value": doubles(1e16, 1)}, _highs.HighsError),
    ],
)
def test_arrays_that_do_not_fit_are_refused(solver, changed, error):
    with pytest.raises(error):
        solver.load(**small(**changed))


def test_positions_of_changes_are_checked(solver):
    solver.load(**small())
    for wrong in (positions(1, 0), positions(0, 0), positions(2), positions(-1)):
        with pytest.raises(ValueError, match="ascending positions"):
            solver.change_costs(wrong, doubles(1, 1))
    with pytest.raises(ValueError, match=r"row 1 is outside 0 \.\. 0"):
        solver.change_coefs(positions(1), positions(0), doubles(1))
    x = np.zeros(2)
    x.flags.writeable = False
    with pytest.raises(ValueError, match="cannot be written to"):
        solver.solution(x, None, None)
    assert solver.model()["obj"].tolist() == [1, 2]


def test_options_take_values_of_their_type_only(solver):
    for name, given, stored in (
        ("threads", 2.0, 2),
        ("presolve", False, "off"),
        ("time_limit", 5, 5.0),
        ("mip_detect_symmetry", 0, False),
        ("solver", "ipm", "ipm"),
    ):
        solver.set_option(name, given)
        assert solver.get_option(name) == stored
    for name, wrong, error, text in (
        ("no_such", 1, ValueError, "HiGHS has no option 'no_such'"),
        ("mip_rel_gap", -1, ValueError, "HiGHS refuses -1 for its option 'mip_rel_gap'"),
        ("presolve", "maybe", ValueError, "HiGHS refuses 'maybe' for its option 'presolve'"),
        ("threads", 1.5, TypeError, "HiGHS' option 'threads' takes an integer of 32 bits, not 1.5"),
        ("threads", 2**31, TypeError, "HiGHS' option 'threads' takes an integer of 32 bits, not 2147483648"),
        ("time_limit", "1", TypeError, "HiGHS' option 'time_limit' takes a number, not '1'"),
        ("time_limit", float("nan"), TypeError, "HiGHS' option 'time_limit' takes a number, not nan"),
        ("solver", 1, TypeError, "HiGHS' option 'solver' takes a string, not 1"),
    ):
        with pytest.raises(error) as caught:
            solver.set_option(name, wrong)
        assert str(caught.value) == text


def test_every_run_has_its_own_clock_and_its_own_interrupt(solver):
    solver.load(**market_split())
    solver.set_option("time_limit", 0.3)
    for _ in range(2):  # HiGHS adds its clock up over runs
        result = run(solver)
        assert result["model_status"] == TIME_LIMIT
        assert 0.2 < result["seconds"] < 5
    solver.set_option("time_limit", 30)
    solver.start()
    solver.interrupt()
    assert solver.wait(20)
    assert solver.result()["model_status"] == INTERRUPTED
    solver.set_option("time_limit", 0.3)
    assert run(solver)["model_status"] == TIME_LIMIT  # and keeps an interrupt


def test_the_number_of_threads_may_differ_from_run_to_run(solver):
    for threads in (1, 3, 2):
        solver.load(**small(vtype=np.array([b"I", b"C"])))
        solver.set_option("threads", threads)
        assert run(solver)["model_status"] == OPTIMAL


def test_a_running_solver_refuses_all_but_the_listed_calls(solver):
    solver.load(**market_split())
    solver.set_option("time_limit", 30)
    solver.start(True)
    for call in (solver.counts, solver.result, solver.start, lambda: solver.set_option("threads", 1)):
        with pytest.raises(_highs.HighsError, match="still running"):
            call()
    assert not solver.wait(0.3)
    seconds, _, nodes, incumbent, bound = solver.progress()
    assert seconds > 0
    assert nodes >= 0
    assert incumbent > 0 == bound
    assert "Presolving model" in solver.take_log()
    assert solver.running
    solver.interrupt()
    assert solver.wait(20)
    assert not solver.running


def test_letting_go_of_a_running_solver_ends_its_run():
    HighsEngine.full_name()

    def threads():
        return len(os.listdir("/proc/self/task"))

    time.sleep(0.2)  # the threads of earlier tests have ended
    before = threads()
    solver = _highs.Solver()
    solver.load(**market_split())
    solver.start()
    assert threads() > before
    del solver  # waits for nothing
    deadline = time.monotonic() + 20
    while threads() > before and time.monotonic() < deadline:
        time.sleep(0.02)
    assert threads() <= before


def child(code):
    return subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=60, check=False)


def test_the_extension_needs_neither_the_engine_nor_numpy_to_be_imported():
    asked = "_highs.version(), 'numpy' in sys.modules, 'highsbox' in sys.modules"
    code = f"import sys; from tarvopy import _highs; print({asked})"
    assert child(code).stdout.split() == ["None", "False", "False"]


@pytest.mark.parametrize(
    ("arrange", "text"),
    [
        ("sys.modules['highsbox'] = None", "The engine HiGHS is not installed: pip install 'highsbox==1.15.*'"),
        ("import highsbox; highsbox.highs_lib_dir = lambda: '/nowhere'", "The engine HiGHS cannot be opened"),
    ],
)
def test_a_missing_engine_is_an_error_that_names_its_package(arrange, text):
    code = f"""
import sys, tarvopy
{arrange}
assert tarvopy.engines()["highs"] is None
m = tarvopy.Model()
m.params.Engine = "highs"
m.addVar(obj=1.0)
try:
    m.optimize()
except tarvopy.TarvoError as error:
    print(error)
print(m.Status, m.NumVars)
"""
    said = child(code)
    assert said.stdout.startswith(text), said.stderr
    assert said.stdout.split()[-2:] == ["0", "1"]
