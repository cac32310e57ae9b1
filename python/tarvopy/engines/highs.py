"""HiGHS: linear and mixed-integer linear problems, through tarvopy._highs.

HiGHS stores columns. It reads columns in 25 ns and 28 bytes a nonzero, rows in 45 to 60 ns and 35 bytes, most of it its
own transposition. The store's takes place in the memory of the rows, in 10 to 15 ns a nonzero, and nothing where the
values stand in the order of columns. So columns go over wherever the store can do that; else rows in one piece go as
they stand. Adding rows or columns to an empty model instead costs 45 ns and 54 bytes.

Quadratic rows whose quadratic terms have all cancelled follow the linear rows.

Parameters are mapped here, each solve from HiGHS' defaults; EngineOptions come last and may override.
"""

from __future__ import annotations

import math
from typing import TYPE_CHECKING, Any

from tarvopy import _highs
from tarvopy._exception import TarvoError
from tarvopy._trv import TRV
from tarvopy.check import gap_closed
from tarvopy.engines.base import (
    NAN,
    WITHOUT_POINT,
    Outcome,
    Progress,
    counted,
    nonlinear_parts,
    seconds_of_second_look,
)

if TYPE_CHECKING:
    import numpy as np

    from tarvopy.parameters import Parameters
    from tarvopy.problem import Changes, Problem

_INT_MAX = 2**31 - 1

# HiGHS' model statuses (HighsModelStatus).
_OPTIMAL, _INFEASIBLE, _EITHER, _UNBOUNDED, _UNKNOWN, _INTERRUPT = 7, 8, 9, 10, 15, 17
_STATUS = {
    6: TRV.OPTIMAL,  # an empty model
    _OPTIMAL: TRV.OPTIMAL,
    _INFEASIBLE: TRV.INFEASIBLE,
    _EITHER: TRV.INFEASIBLE_OR_UNBOUNDED,
    _UNBOUNDED: TRV.UNBOUNDED,
    11: TRV.SOLUTION_LIMIT,  # objective_bound and objective_target, which only EngineOptions set
    12: TRV.SOLUTION_LIMIT,
    13: TRV.TIME_LIMIT,
    14: TRV.ITERATION_LIMIT,
    16: TRV.SOLUTION_LIMIT,
    _INTERRUPT: TRV.INTERRUPTED,
}
_FEASIBLE = 2  # primal_solution_status

# Beyond this upper bound of a semi-continuous variable HiGHS cuts it and then fails at the end of a solve that reaches
# it.
_LARGEST_SEMI_UB = 1e5
_LARGEST_COEFFICIENT = 1e15

_SMALLEST_TOLERANCE = 1e-10

# By how much a value of a start may be beyond its bounds to be taken for the bound.
_START_TOLERANCE = 1e-6


def open_library() -> None:
    """Opens the library of the installed highsbox, once for the process."""
    if _highs.version() is not None:
        return
    try:
        import highsbox
    except ImportError:
        raise TarvoError(
            TRV.ERROR_UNSUPPORTED, "The engine HiGHS is not installed: pip install 'highsbox==1.15.*'"
        ) from None
    path = highsbox.highs_lib_dir() + "/libhighs.so"
    try:
        _highs.open_library(path)
    except _highs.HighsError as error:
        raise TarvoError(
            TRV.ERROR_UNSUPPORTED, f"The engine HiGHS cannot be opened ({error}): pip install 'highsbox==1.15.*'"
        ) from None


class HighsEngine:
    """One HiGHS instance and the model it holds."""

    name = "HiGHS"

    def __init__(self) -> None:
        open_library()
        self._solver = _highs.Solver()
        self._first: dict[str, Any] | None = None  # result of the first run while a second look is under way
        self._time_left = self._node_limit = math.inf
        self._keep_log = False
        self._presolves = True
        self._tree_iterations = math.inf
        self._told = False  # to stop, by interrupt()
        self.loads = 0
        self.changes_sent = 0  # calls, each of which may carry many

    @classmethod
    def full_name(cls) -> str:
        open_library()
        return f"{cls.name} {_highs.version()}"

    @classmethod
    def refusal(cls, problem: Problem) -> str | None:
        if problem.is_nonlinear:
            return ", ".join(nonlinear_parts(problem))
        if problem.nqobj:
            return "the objective is quadratic"
        if problem.is_quadratic:
            return counted(problem.nqrows - problem.nqlinear, "quadratic row")
        if not problem.nsemi:
            return None
        semi = problem.vtype.view("u1") == ord("S")  # texts are compared twenty times as slowly
        lb, ub = problem.lb[semi], problem.ub[semi]
        if math.isinf(ub.max()):
            return "a semi-continuous variable needs a finite upper bound"
        if lb.min() < 0:
            return f"a semi-continuous variable has the negative lower bound {lb.min():g}"
        if ((ub > _LARGEST_SEMI_UB) & (lb > 0)).any():
            return f"a semi-continuous variable has the upper bound {ub.max():g}, above {_LARGEST_SEMI_UB:g}"
        return None

    # ---- the model

    def load(self, problem: Problem) -> None:
        self.loads += 1
        start, index, value, by_columns = _matrix(problem)
        vtype = problem.vtype if problem.nintegral else None
        columns = (problem.obj, problem.lb, problem.ub, vtype)
        try:
            self._solver.load(
                problem.sense, problem.objconstant, *columns, *_sides(problem), start, index, value, by_columns
            )
        except _highs.HighsError as error:
            raise TarvoError(TRV.ERROR_UNSUPPORTED, f"{error}{_reason(problem, value)}") from None

    def change(self, problem: Problem, changes: Changes) -> bool:
        import numpy as np

        if changes.structure or (changes.quadratic and problem.nqrows):
            return False
        solver = self._solver
        if len(changes.bounds):
            self._send(solver.change_bounds, np.sort(changes.bounds), problem.lb, problem.ub)
        if len(changes.costs):
            self._send(solver.change_costs, np.sort(changes.costs), problem.obj)
        if len(changes.sides):
            self._send(solver.change_sides, np.sort(changes.sides), *_sides(problem))
        if len(changes.coefrows):
            self._send(solver.change_coefs, changes.coefrows, changes.coefvars, changes.coefs)
        if changes.sense or changes.objconstant:
            self._send(solver.change_objective, problem.sense, problem.objconstant)
        return True

    def counts(self) -> dict[str, int]:
        return dict(zip(("vars", "rows", "nz", "qnz"), self._solver.counts(), strict=True))

    def _send(self, call: Any, *args: Any) -> None:
        self.changes_sent += 1
        try:
            call(*args)
        except _highs.HighsError as error:
            raise TarvoError(TRV.ERROR_UNSUPPORTED, str(error)) from None

    # ---- the run

    def start(self, problem: Problem, params: Parameters) -> None:
        self._first = None
        self._time_left = params.TimeLimit
        self._node_limit = params.NodeLimit
        self._keep_log = params.LogLevel >= 2
        self._set_options(problem, params)
        if problem.nintegral and problem.start is not None:
            self._solver.set_start(_usable_start(problem))
        self._run()

    def _run(self) -> None:
        self._told = False
        self._solver.start(self._keep_log, self._tree_iterations)

    def _set_options(self, problem: Problem, params: Parameters) -> None:
        # HiGHS' limits stand for one LP; in a tree search, where one that is cut short says nothing, all are counted.
        self._tree_iterations = params.IterationLimit if problem.nintegral else math.inf
        iterations = _INT_MAX if problem.nintegral else min(params.IterationLimit, _INT_MAX)
        options = {
            "time_limit": params.TimeLimit,
            "mip_rel_gap": params.RelGap,
            "mip_abs_gap": params.AbsGap,
            "primal_feasibility_tolerance": params.FeasibilityTol,
            "dual_feasibility_tolerance": params.OptimalityTol,
            "mip_feasibility_tolerance": params.IntegralityTol,
            "threads": params.Threads,
            "random_seed": params.Seed,
            "mip_max_nodes": min(params.NodeLimit, _INT_MAX),
            "mip_max_improving_sols": min(params.SolutionLimit, _INT_MAX),
            "simplex_iteration_limit": iterations,
            "ipm_iteration_limit": iterations,
            "pdlp_iteration_limit": iterations,
        }
        self._presolves = params.EngineOptions.get("presolve") != "off"
        self._solver.reset_options()
        for name, value in [*options.items(), *params.EngineOptions.items()]:
            try:
                self._solver.set_option(name, value)
            except (ValueError, TypeError) as error:
                raise TarvoError(TRV.ERROR_INVALID_ARGUMENT, str(error)) from None

    @property
    def running(self) -> bool:
        return self._solver.running

    def wait(self, seconds: float) -> bool:
        return self._solver.wait(seconds)

    def progress(self) -> Progress:
        return Progress(*self._solver.progress())

    def take_log(self) -> str:
        return self._solver.take_log()

    def interrupt(self) -> None:
        self._told = True
        self._solver.interrupt()

    # ---- the answer

    def again(self, problem: Problem) -> bool:
        """Infeasible or unbounded: without an objective any feasible point tells which, so that is asked for. An
        infeasible MIP: HiGHS' presolve calls feasible ones so, one of a thousand small ones that are rich in equations,
        so that it is left out once. Each within a time of its own.
        """
        if self._first is not None:
            return False
        result = self._solver.result()
        left = seconds_of_second_look(self._time_left, result["seconds"])
        either = result["model_status"] == _EITHER
        in_doubt = result["model_status"] == _INFEASIBLE and problem.nintegral and self._presolves
        if not (either or in_doubt) or left <= 0:
            return False
        import numpy as np

        self._first = result
        if either:
            self._set_costs(np.zeros(problem.nvars))
            self._solver.set_option("mip_max_improving_sols", 1)
        else:
            self._solver.set_option("presolve", "off")
            left = min(left, 1.0 + result["seconds"])
        self._solver.set_option("time_limit", left)
        self._run()
        return True

    def refine(self, problem: Problem, params: Parameters) -> bool:
        """A MIP with tolerances a tenth as large, and without presolve where that has lost the optimum; an LP by the
        interior point method with crossover, from scratch.
        """
        tolerances = {
            "primal_feasibility_tolerance": max(_SMALLEST_TOLERANCE, 0.1 * params.FeasibilityTol),
            "dual_feasibility_tolerance": max(_SMALLEST_TOLERANCE, 0.1 * params.OptimalityTol),
            "mip_feasibility_tolerance": max(_SMALLEST_TOLERANCE, 0.1 * params.IntegralityTol),
        }
        self._first = None
        self._time_left = params.TimeLimit
        self._set_options(problem, params)
        result = self._solver.result()
        if problem.nintegral and not gap_closed(result["objective"], result["bound"], params):
            tolerances["presolve"] = "off"
        if not problem.nintegral:
            tolerances["solver"] = "simplex" if params.EngineOptions.get("solver") == "ipm" else "ipm"
        for name, value in tolerances.items():
            self._solver.set_option(name, value)
        self._run()
        return True

    def _set_costs(self, obj: np.ndarray) -> None:
        import numpy as np

        self._solver.change_costs(np.arange(len(obj), dtype=np.int32), obj)

    def outcome(self, problem: Problem) -> Outcome:
        try:
            result = self._solver.result()
        except _highs.HighsError as error:
            return Outcome(TRV.FAILED, message=str(error))
        if self._first is not None:
            if self._first["model_status"] == _EITHER:
                self._set_costs(problem.obj)
            result = _combined(self._first, result)
            self._first = None
        outcome = Outcome(
            self._status(result),
            runtime=result["seconds"],
            itercount=result["iterations"],
            nodecount=result["nodes"],
        )
        if outcome.status in (TRV.FAILED, TRV.IMPRECISE):
            outcome.message = f"HiGHS ended with its model status {result['model_status']}"
        if outcome.status not in WITHOUT_POINT and (result["primal"] == _FEASIBLE or outcome.status == TRV.IMPRECISE):
            outcome.has_x = True
            outcome.has_duals = not problem.nintegral and outcome.status in (TRV.OPTIMAL, TRV.IMPRECISE)
            outcome.objval = result["objective"]
        outcome.bound = _bound(problem, outcome, result["bound"])
        return outcome

    def _status(self, result: dict[str, Any]) -> int:
        status = _STATUS.get(result["model_status"], TRV.FAILED)
        if status == TRV.SOLUTION_LIMIT and result["nodes"] >= self._node_limit:
            return TRV.NODE_LIMIT  # HiGHS has one status for both
        if status == TRV.INTERRUPTED and not self._told:
            return TRV.ITERATION_LIMIT  # nobody else interrupts
        if result["model_status"] == _UNKNOWN and result["primal"]:
            return TRV.IMPRECISE
        return status

    def write_solution(self, outcome: Outcome, x: np.ndarray, rc: np.ndarray, pi: np.ndarray, qpi: np.ndarray) -> None:
        if not outcome.has_x:
            return
        if not outcome.has_duals:
            self._solver.solution(x, None, None)
        elif not len(qpi):
            self._solver.solution(x, rc, pi)
        else:
            import numpy as np

            duals = np.empty(len(pi) + len(qpi))
            self._solver.solution(x, rc, duals)
            pi[:], qpi[:] = duals[: len(pi)], duals[len(pi) :]

    def close(self) -> None:
        """Frees HiGHS' memory; of a run that is still under way when that ends."""
        del self._solver


def _matrix(problem: Problem) -> tuple[np.ndarray, np.ndarray, np.ndarray, bool]:
    """(start, index, value, by columns or not) of all rows."""
    if not problem.nqrows:
        return problem.cheapest_matrix()
    import numpy as np

    start, index, value = problem.csr()
    qstart, qindex, qvalue = problem.qmatrix()[:3]
    return (
        np.concatenate([start, start[-1] + qstart[1:]], dtype=np.int32),
        *(np.concatenate([index, qindex]), np.concatenate([value, qvalue])),
        False,
    )


def _sides(problem: Problem) -> tuple[np.ndarray, np.ndarray]:
    """Lower and upper sides of all rows."""
    if not problem.nqrows:
        return problem.lower, problem.upper
    import numpy as np

    lower = np.where(problem.qsense == b"<", -np.inf, problem.qrhs)
    upper = np.where(problem.qsense == b">", np.inf, problem.qrhs)
    return np.concatenate([problem.lower, lower]), np.concatenate([problem.upper, upper])


def _usable_start(problem: Problem) -> np.ndarray:
    """The start as HiGHS takes it: an incomplete one must lie within the bounds, which the last solution need not do
    once a bound was moved. A complete one it repairs itself.
    """
    import numpy as np

    start = problem.start
    if not np.isnan(start).any():
        return start
    nearest = np.clip(start, problem.lb, problem.ub)
    return np.where(np.abs(nearest - start) <= _START_TOLERANCE, nearest, np.nan)


def _reason(problem: Problem, value: np.ndarray) -> str:
    """Why HiGHS may have refused a model, which itself it does not say."""
    if len(value):
        largest = max(value.max(), -value.min())
        if largest >= _LARGEST_COEFFICIENT:
            return f": a coefficient of {largest:g} is beyond its limit of {_LARGEST_COEFFICIENT:g}"
    return ""


def _combined(first: dict[str, Any], second: dict[str, Any]) -> dict[str, Any]:
    """What two runs together say of a problem that the first called infeasible, or infeasible or unbounded."""
    together = {key: first[key] + second[key] for key in ("seconds", "iterations", "nodes")}
    if first["model_status"] == _INFEASIBLE:
        refuted = second["primal"] == _FEASIBLE or second["model_status"] == _UNBOUNDED
        return {**(second if refuted else first), **together}
    answer = {_INFEASIBLE: _INFEASIBLE, _INTERRUPT: _INTERRUPT}.get(second["model_status"], _EITHER)
    if second["primal"] == _FEASIBLE:
        answer = _UNBOUNDED
    return {**first, **together, "model_status": answer, "primal": 0}


def _bound(problem: Problem, outcome: Outcome, mip_bound: float) -> float:
    if not problem.nintegral:
        return outcome.objval if outcome.status == TRV.OPTIMAL else NAN
    # Infinite where none was proven yet, and where there is no problem to bound.
    return mip_bound if math.isfinite(mip_bound) and outcome.status not in WITHOUT_POINT else NAN


ENGINE = HighsEngine
