"""Clarabel: convex problems of continuous variables, linear or quadratic, also in their rows, by its Python package.

What it is given stands in clarabel_form.py.

Its solve() lets go of the interpreter's lock (while one of 9 s ran, no other thread was kept waiting for more than 26
ms) and asks a callback after each iteration whether to stop, which is how an interrupt reaches it: within the time of
one iteration, but not while it sets up. Its log comes as a whole when a run is over, since it cannot be read meanwhile.
"""

from __future__ import annotations

import math
import os
from typing import TYPE_CHECKING, Any

from tarvopy._exception import TarvoError
from tarvopy._trv import TRV
from tarvopy.engines.base import Outcome, Progress, integral_parts, nonlinear_parts
from tarvopy.engines.clarabel_form import ClarabelForm
from tarvopy.engines.worker import Worker
from tarvopy.problem import CONE, NONCONVEX

if TYPE_CHECKING:
    from collections.abc import Callable
    from types import ModuleType

    import numpy as np
    from scipy import sparse

    from tarvopy.parameters import Parameters
    from tarvopy.problem import Changes, Problem

# The check of the answer allows ten times the model's tolerances; interior points come close at little cost.
_TIGHTER = 1e-2
_LARGEST_TOLERANCE = 1e-8
_SMALLEST_TOLERANCE = 1e-12
_REFINED = 1e-2
_PROOF = 1e-6
_MOST_ITERATIONS = 200
# A certificate of infeasibility rules out points up to the inverse of this tolerance only: with Clarabel's own one
# x >= 1e8 "is infeasible", so such a verdict has to stand a second run that asks for much more.
_INFEASIBLE, _SURELY_INFEASIBLE = 1e-8, 1e-14
# Near the boundary of a cone the usual settings stall at errors of 1e-6 in the multipliers. Of 150 random models with
# one to three quadratic rows 66 had to run a second time; with these none, and with fewer iterations in all (16 each):
# longer steps run into the boundary and creep along it.
_CONIC = 0.1
_CAREFUL = {
    "static_regularization_constant": 1e-10,
    "max_step_fraction": 0.9,
    "iterative_refinement_max_iter": 50,
    "iterative_refinement_stop_ratio": 1.5,
}

_STATUS = {
    "Solved": TRV.OPTIMAL,
    # A point that fell short of Clarabel's own tolerances: whether it holds is for the check to say.
    "AlmostSolved": TRV.OPTIMAL,
    "InsufficientProgress": TRV.IMPRECISE,
    "NumericalError": TRV.IMPRECISE,
    "PrimalInfeasible": TRV.INFEASIBLE,
    "AlmostPrimalInfeasible": TRV.INFEASIBLE,
    "DualInfeasible": TRV.INFEASIBLE_OR_UNBOUNDED,
    "AlmostDualInfeasible": TRV.INFEASIBLE_OR_UNBOUNDED,
    "MaxIterations": TRV.ITERATION_LIMIT,
    "MaxTime": TRV.TIME_LIMIT,
    "CallbackTerminated": TRV.INTERRUPTED,
}
_WITHOUT_OPTIMUM = (TRV.INFEASIBLE, TRV.INFEASIBLE_OR_UNBOUNDED)


_threads_made = _threads_lost = False


def _forked() -> None:
    """Clarabel's helper threads are made once for the process. A child has none of them, and would wait for ever."""
    global _threads_lost
    _threads_lost = _threads_made


os.register_at_fork(after_in_child=_forked)


def _package() -> ModuleType:
    try:
        import clarabel
    except ImportError:
        raise TarvoError(
            TRV.ERROR_UNSUPPORTED, "The engine Clarabel is not installed: pip install 'clarabel==0.11.*'"
        ) from None
    return clarabel


class ClarabelEngine:
    """One Clarabel solver and the model it holds."""

    name = "Clarabel"

    def __init__(self) -> None:
        _package()
        self.loads = 0
        self._data: ClarabelForm | None = None
        self._solver: Any = None  # made with the first run, whose settings it keeps
        self._settings: Any = None
        self._run: Worker | None = None
        self._verdict: int | None = None  # infeasible or unbounded, which further runs look into
        self._before = (0, 0.0)  # iterations and seconds of the runs before the one under way
        self._without_objective = False
        self._iterations = 0
        self._stop = False
        self._duals: tuple[np.ndarray, np.ndarray, np.ndarray] | None = None  # RC, Pi, QPi of the last outcome
        self._log = ""
        self._user_limit = False

    @classmethod
    def full_name(cls) -> str:
        return f"{cls.name} {_package().__version__}"

    @classmethod
    def refusal(cls, problem: Problem) -> str | None:
        if problem.is_nonlinear:
            return ", ".join(nonlinear_parts(problem))
        if problem.nintegral:
            return integral_parts(problem)
        objective, rows = problem.curvature()
        if objective == NONCONVEX:
            return "the quadratic objective is not convex"
        where = (rows == NONCONVEX).nonzero()[0]
        if len(where):
            return f"quadratic row {problem.qrow_name(int(where[0]))!r} is not convex"
        return None

    # ---- the model

    def load(self, problem: Problem) -> None:
        self.loads += 1
        self._solver = None
        self._data = ClarabelForm.of(problem)

    def change(self, problem: Problem, changes: Changes) -> bool:
        """Costs, bounds and sides, as long as the same ones are finite; the rest is loaded anew."""
        old = self._data
        if old is None or changes.structure or changes.quadratic or len(changes.coefrows):
            return False
        if changes.sense and problem.nqobj:
            return False
        if len(changes.bounds) and (problem.curvature()[1] == CONE).any():
            return False  # which side of a cone is meant is read from bounds
        if not old.retell(problem):
            return False
        if self._solver is not None and self._solver.is_data_update_allowed():
            self._solver.update(q=old.q, b=old.b)
        else:
            self._solver = None
        return True

    def counts(self) -> dict[str, int]:
        data = self._data
        rows, variables = data.a.shape
        return {"vars": variables, "rows": rows, "nz": data.a.nnz, "qnz": data.p.nnz}

    # ---- the run

    def start(self, problem: Problem, params: Parameters) -> None:
        self._begin()
        self._log = ""
        conic = self._data.conic is not None
        self._settings = self._with_options(params, _CONIC if conic else 1.0)
        if conic:
            self._be_careful(params)
        self._launch(self._solve)

    def _begin(self) -> None:
        self._verdict, self._without_objective, self._before = None, False, (0, 0.0)

    def _with_options(self, params: Parameters, tighter: float) -> Any:
        """Clarabel's settings; the engine options come last."""
        settings = _package().DefaultSettings()
        feasibility = _tolerance(params.FeasibilityTol, tighter)
        gap = _tolerance(params.OptimalityTol, tighter)
        options = {
            "verbose": params.LogLevel >= 2,
            "time_limit": params.TimeLimit,
            "max_iter": int(min(params.IterationLimit, _MOST_ITERATIONS)),
            "max_threads": params.Threads,
            "tol_feas": feasibility,
            "tol_gap_abs": gap,
            "tol_gap_rel": gap,
            "reduced_tol_infeas_rel": _INFEASIBLE,  # where it gets no further; its own 5e-5 proves nothing
            # Both would forbid that data is updated; neither has anything to do here.
            "presolve_enable": False,
            "chordal_decomposition_enable": False,
        }
        for name, value in [*options.items(), *params.EngineOptions.items()]:
            if not hasattr(settings, name):
                raise TarvoError(TRV.ERROR_INVALID_ARGUMENT, f"Clarabel has no option {name!r}")
            try:
                setattr(settings, name, value)
            except (TypeError, ValueError, OverflowError) as error:
                text = f"Clarabel does not take the option {name!r} with the value {value!r}: {error}"
                raise TarvoError(TRV.ERROR_INVALID_ARGUMENT, text) from None
        if params.EngineOptions:
            _try_out(settings, params.EngineOptions)
        if _threads_lost:
            settings.max_threads = 1
        self._user_limit = settings.max_iter != _MOST_ITERATIONS
        return settings

    def _launch(self, job: Callable[[], Any]) -> None:
        global _threads_made
        _threads_made = _threads_made or self._settings.max_threads != 1
        self._stop = False
        self._iterations = 0
        self._run = Worker(job)

    def _solve(self) -> Any:
        if self._settings.time_limit <= 0:
            return _NotBegun()
        if self._solver is None or not self._retuned():
            self._solver = self._made(self._data.p, self._data.q)
        return self._solved(self._solver)

    def _retuned(self) -> bool:
        """Whether the solver that is there goes by the settings; some it takes only when it is made."""
        try:
            self._solver.update(settings=self._settings)
        except Exception:  # Clarabel knows no other
            return False
        return True

    def _solve_for_feasibility(self) -> Any:
        """A point without an objective."""
        import numpy as np
        from scipy import sparse

        if self._settings.time_limit <= 0:
            return _NotBegun()
        n = len(self._data.q)
        return self._solved(self._made(sparse.csc_matrix((n, n)), np.zeros(n)))

    def _made(self, p: sparse.csc_matrix, q: np.ndarray) -> Any:
        data = self._data
        return _package().DefaultSolver(p, q, data.a, data.b, data.cones(_package()), self._settings)

    def _solved(self, solver: Any) -> Any:
        if self._settings.verbose:
            solver.print_to_buffer()
        solver.set_termination_callback(self._after_iteration)
        try:
            solution = solver.solve()
        finally:
            solver.unset_termination_callback()  # the collector sees no cycle through Clarabel's objects
        if self._settings.verbose:
            self._log += solver.get_print_buffer()
        return solution

    def _after_iteration(self, info: Any) -> bool:
        self._iterations = info.iterations
        return self._stop

    @property
    def running(self) -> bool:
        return self._run is not None and self._run.running

    def wait(self, seconds: float) -> bool:
        return self._run is None or self._run.wait(seconds)

    def progress(self) -> Progress:
        return Progress(self._run.seconds if self._run else 0.0, float(self._iterations), None, None, None)

    def take_log(self) -> str:
        if self.running:
            return ""
        text, self._log = self._log, ""
        return text

    def interrupt(self) -> None:
        self._stop = True

    # ---- the answer

    def again(self, problem: Problem) -> bool:
        """A verdict of infeasibility is looked into, and where a direction improves without end, whether there is a
        point to start from.
        """
        if self._run.error is not None or self._stop:
            return False
        status = self._status()
        if self._verdict is None and status in _WITHOUT_OPTIMUM:
            self._verdict = status
            self._run_further(self._solve, tol_infeas_rel=_SURELY_INFEASIBLE)
            return True
        unbounded = self._verdict == TRV.INFEASIBLE_OR_UNBOUNDED and not self._overruled()
        if unbounded and not self._without_objective:
            self._without_objective = True
            self._run_further(self._solve_for_feasibility)
            return True
        return False

    def _overruled(self) -> bool:
        """Whether the second run found an optimum: a point that falls short of its tolerances says nothing against
        infeasibility.
        """
        if self._verdict == TRV.INFEASIBLE:
            return str(self._run.result().status) == "Solved"
        return self._status() == TRV.OPTIMAL

    def _run_further(self, job: Callable[[], Any], **settings: float) -> None:
        """In the time that is left."""
        iterations, seconds = self._before
        self._before = iterations + self._run.result().iterations, seconds + self._run.seconds
        self._settings.time_limit = max(0.0, self._settings.time_limit - self._run.seconds)
        for name, value in settings.items():
            setattr(self._settings, name, value)
        self._launch(job)

    def _status(self) -> int:
        return _STATUS.get(str(self._run.result().status), TRV.FAILED)

    def refine(self, problem: Problem, params: Parameters) -> bool:
        """The same with tolerances of a hundredth, shorter steps and less regularisation. The solver is made anew: one
        that was told of other costs and sides is still scaled for the old ones.
        """
        self._begin()
        self._solver = None
        self._settings = self._with_options(params, _REFINED)
        self._be_careful(params)
        self._launch(self._solve)
        return True

    def _be_careful(self, params: Parameters) -> None:
        for name, value in _CAREFUL.items():
            if name not in params.EngineOptions:
                setattr(self._settings, name, value)

    def outcome(self, problem: Problem) -> Outcome:
        try:
            solution = self._run.result()
        except BaseException as error:  # of whatever kind: a panic of Rust is no Exception
            return Outcome(TRV.FAILED, message=f"Clarabel: {error}")
        iterations, seconds = self._before
        outcome = Outcome(
            self._status(), itercount=iterations + solution.iterations, runtime=seconds + self._run.seconds
        )
        if self._without_objective:
            second = {TRV.OPTIMAL: TRV.UNBOUNDED, TRV.INFEASIBLE: TRV.INFEASIBLE}
            outcome.status = second.get(outcome.status, TRV.INFEASIBLE_OR_UNBOUNDED)
            return outcome
        if self._verdict is not None and not self._overruled():
            outcome.status = self._verdict
            return outcome
        if outcome.status == TRV.ITERATION_LIMIT and not self._user_limit:
            outcome.status = TRV.IMPRECISE
        if outcome.status in (TRV.FAILED, TRV.IMPRECISE):
            outcome.message = f"Clarabel ended with its status {solution.status}"
        self._add_point(outcome, solution, problem)
        return outcome

    def _add_point(self, outcome: Outcome, solution: Any, problem: Problem) -> None:
        """Says which parts of the solution can be used."""
        complete = outcome.status in (TRV.OPTIMAL, TRV.IMPRECISE)
        # On the way to an optimum interior points break rows; one that does not is worth having.
        feasible = outcome.status not in (TRV.INFEASIBLE, TRV.INFEASIBLE_OR_UNBOUNDED, TRV.FAILED)
        feasible = feasible and solution.r_prim <= 100.0 * self._settings.tol_feas
        outcome.has_x = (complete or feasible) and all(map(math.isfinite, (solution.obj_val, solution.r_prim)))
        if not outcome.has_x:
            return
        if complete:
            self._add_duals(outcome, solution, problem)
        outcome.objval = problem.sense * solution.obj_val + problem.objconstant
        if outcome.status == TRV.OPTIMAL:
            outcome.bound = outcome.objval

    def _add_duals(self, outcome: Outcome, solution: Any, problem: Problem) -> None:
        """Works the multipliers out, and says so where a quadratic row has none."""
        import numpy as np

        self._duals = self._data.duals(np.asarray(solution.s), np.asarray(solution.z))
        without = np.isnan(self._duals[2]).nonzero()[0]
        outcome.has_duals = not len(without)
        if outcome.has_duals:
            return
        name = problem.qrow_name(int(without[0]))
        outcome.no_duals = f"quadratic row {name!r} is at the tip of its cone, where it has no multiplier"
        # Without multipliers the check cannot tell an optimum, so Clarabel's own residuals must.
        gap = abs(solution.obj_val - solution.obj_val_dual) / max(1.0, abs(solution.obj_val))
        if outcome.status == TRV.OPTIMAL and max(gap, solution.r_prim, solution.r_dual) > _PROOF:
            outcome.status = TRV.IMPRECISE

    def write_solution(self, outcome: Outcome, x: np.ndarray, rc: np.ndarray, pi: np.ndarray, qpi: np.ndarray) -> None:
        if not outcome.has_x:
            return
        import numpy as np

        x[:] = np.asarray(self._run.result().x)
        if outcome.has_duals:
            rc[:], pi[:], qpi[:] = self._duals

    def close(self) -> None:
        """Frees Clarabel's memory; of a run that is still under way when that ends."""
        self._solver = self._data = self._run = self._duals = None


class _NotBegun:
    """The solution where no time was left: setting up, which may take seconds, heeds no limit."""

    status, iterations = "MaxTime", 0
    obj_val = r_prim = math.nan


def _try_out(settings: Any, options: dict[str, Any]) -> None:
    """Clarabel checks settings when a solver is made: one of a single variable, before the real one is built."""
    import numpy as np
    from scipy import sparse

    package, one = _package(), np.ones(1)
    try:
        package.DefaultSolver(
            sparse.csc_matrix((1, 1)), one, sparse.csc_matrix([[1.0]]), one, [package.NonnegativeConeT(1)], settings
        )
    except Exception as error:  # Clarabel knows no other
        raise TarvoError(TRV.ERROR_INVALID_ARGUMENT, f"Clarabel refuses the options {options!r}: {error}") from None


def _tolerance(wanted: float, tighter: float) -> float:
    return max(_SMALLEST_TOLERANCE, tighter * min(_LARGEST_TOLERANCE, _TIGHTER * wanted))


ENGINE = ClarabelEngine
