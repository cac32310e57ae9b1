"""SCIP: everything that needs branching beyond linear models: integers with quadratics, nonconvex rows and objectives.

The model goes over as one binary .nl file, which the store writes in bulk (see TRVwritenl), so that no
Python object stands for a row or a term. The file lies in memory where the system has such a place. What the
file knows besides the model's variables (a variable for a quadratic objective, binary ones for semi-continuous
variables) stays here.

General constraints are added to what was read (scip_general.py), with values for a start.

SCIP keeps arguments of logarithms and negative powers 1e-9 away from 0, so that a minimum of log(x) at x = 0 comes out
as -20.7; where the objective leaps there, the answer is called imprecise. It takes u ** v with variables in v for
exp(v log(u)), which is defined for u > 0 alone.

SCIP keeps its tolerances absolute and one for rows and integrality alike. It has no multipliers for nonlinear models:
for convex continuous ones they are worked out at its point (multipliers.py).

The run is `optimizeNogil` on a thread of its own. What SCIP says while it runs is read from its log
(scip_log.py). Its limit of LP iterations is for each LP, so for params.IterationLimit they are added up after each one
(scip_limits.py).
"""

from __future__ import annotations

import math
import os
import tempfile
import time
import weakref
from typing import TYPE_CHECKING, Any

from tarvopy import _modelapi
from tarvopy._exception import TarvoError
from tarvopy._trv import TRV
from tarvopy.engines.base import NAN, WITHOUT_POINT, Outcome, Progress, seconds_of_second_look
from tarvopy.engines.scip_doubts import doubt_of
from tarvopy.engines.scip_general import GeneralConstraints, not_binary
from tarvopy.engines.scip_limits import stop_after_iterations
from tarvopy.engines.scip_log import ScipLog, memory_folder
from tarvopy.engines.worker import Worker

if TYPE_CHECKING:
    import numpy as np

    from tarvopy.parameters import Parameters
    from tarvopy.problem import Changes, Problem

_STATUS = {
    "optimal": TRV.OPTIMAL,
    "gaplimit": TRV.OPTIMAL,
    "infeasible": TRV.INFEASIBLE,
    "unbounded": TRV.UNBOUNDED,
    "inforunbd": TRV.INFEASIBLE_OR_UNBOUNDED,
    "timelimit": TRV.TIME_LIMIT,
    "nodelimit": TRV.NODE_LIMIT,
    "totalnodelimit": TRV.NODE_LIMIT,
    "stallnodelimit": TRV.NODE_LIMIT,
    "sollimit": TRV.SOLUTION_LIMIT,
    "bestsollimit": TRV.SOLUTION_LIMIT,
    "primallimit": TRV.SOLUTION_LIMIT,
    "duallimit": TRV.SOLUTION_LIMIT,
    "userinterrupt": TRV.INTERRUPTED,
    "terminate": TRV.INTERRUPTED,
}

_INFINITY = 1e20  # SCIP's own
_ENDLESS = 1e19  # objectives beyond it are its infinity, but for a tolerance
_EPSILON = 1e-9  # what it takes for 0
_NEXT_TO_ZERO = 1e-20  # where roots, and logarithms times their arguments, are 0 but for the rounding
# Fixing each binary variable of a chain in turn fixes all others: with 1000 pieces of a curve that took a minute, and
# the search half a second.
_MOST_PROBED = 100
_INT_MAX = 2**31 - 1
_OKAY = 1  # SCIP_RETCODE
_LONGEST = 1e20  # seconds: its largest time limit
_TOLERANCES = (1e-9, 1e-3)  # what it takes: its numerics/epsilon is 1e-9
_EXACT_GAP = 1e-9  # for convex continuous models, whose optimum is not a matter of enumeration


_runs: weakref.WeakSet[Worker] = weakref.WeakSet()
_locks_lost = False


def _forked() -> None:
    """SCIP's solvers share locks. Those that a run of the parent held stay locked in a child, and who asks for one
    waits for ever.
    """
    global _locks_lost
    _locks_lost = _locks_lost or any(run.running for run in _runs)


os.register_at_fork(after_in_child=_forked)


def _package() -> Any:
    try:
        import pyscipopt
    except ImportError:
        raise TarvoError(
            TRV.ERROR_UNSUPPORTED, "The engine SCIP is not installed: pip install 'pyscipopt==6.3.*'"
        ) from None
    return pyscipopt


def _read(package: Any, model: Any, path: str) -> None:
    """Reads a .nl file, 10 us an operation, as `readProblem` does, but without the interpreter's lock: the thread that
    waits would not hear of Ctrl-C.
    """
    import ctypes

    library = ctypes.CDLL(package.scip.__file__)  # and what it is linked with
    pointer = ctypes.pythonapi.PyCapsule_GetPointer
    pointer.restype, pointer.argtypes = ctypes.c_void_p, (ctypes.py_object, ctypes.c_char_p)
    scip = pointer(model.to_ptr(give_ownership=False), b"scip")
    read = library.SCIPreadProb
    read.restype, read.argtypes = ctypes.c_int, (ctypes.c_void_p, ctypes.c_char_p, ctypes.c_char_p)
    if read(scip, os.fsencode(path), b"nl") != _OKAY:
        raise TarvoError(TRV.ERROR_UNSUPPORTED, "SCIP cannot read the model")


class ScipEngine:
    """One SCIP instance and the model it holds."""

    name = "SCIP"

    def __init__(self) -> None:
        self._package = _package()
        self._model: Any = None
        self._worker: Worker | None = None
        self._stop = False
        self._first: dict[str, Any] | None = None  # result of the first run while a second look is under way
        self._objective_dropped = False
        self._log: ScipLog | None = None
        self.loads = 0

    @classmethod
    def full_name(cls) -> str:
        model = _package().Model("version")
        return f"{cls.name} {model.getMajorVersion()}.{model.getMinorVersion()}.{model.getTechVersion()}"

    @classmethod
    def refusal(cls, problem: Problem) -> str | None:
        import numpy as np

        endless = (problem.vtype == b"S") & (np.isinf(problem.ub) | (problem.ub < 0) & np.isinf(problem.lb))
        if endless.any():
            name = problem.var_name(int(endless.nonzero()[0][0]))
            return f"the semi-continuous variable {name!r} needs finite bounds"
        return _endless_side(problem) or (not_binary(problem) if problem.ngens else None)

    # ---- the model

    def load(self, problem: Problem) -> None:
        if _locks_lost:
            raise TarvoError(
                TRV.ERROR_UNSUPPORTED,
                "SCIP cannot run in this process, which was forked while SCIP was running in its parent: fork before "
                "or after the solve, or spawn the process",
            )
        self.loads += 1
        self._handle, self._nonlinear = problem.handle, problem.is_nonlinear
        self._model = model = self._package.Model()
        model.hideOutput()
        model.setParam("misc/catchctrlc", False)
        with tempfile.TemporaryDirectory(prefix="tarvopy-", dir=memory_folder()) as folder:
            path = os.path.join(folder, "model.nl")
            position = _modelapi.write_nl(problem.handle, path)
            _read(self._package, model, path)
        if problem.objconstant:
            model.addObjoffset(problem.objconstant)
        self._map_variables(position)
        self._most_switches = self._add_general(problem) if problem.ngens else 0
        self._counts = {
            "vars": model.getNVars(False),
            "rows": model.getNConss(False),
            "nz": problem.nnz + problem.nqlinterms,
            "qnz": problem.nqobj + problem.nqterms,
        }

    def _map_variables(self, position: np.ndarray) -> None:
        """SCIP sorts variables by type; their names ("x0", "i1", "b2") keep their places in the file."""
        import numpy as np

        variables = self._model.getVars()
        place = np.fromiter((int(v.name[1:]) for v in variables), np.int64, len(variables))
        where = position[place]
        kept = where >= 0
        self._extras = [variables[i] for i in np.argsort(place).tolist() if not kept[i]]
        self._positions = where[kept]
        self._variables = [v for v, keep in zip(variables, kept.tolist(), strict=True) if keep]

    def _add_general(self, problem: Problem) -> int:
        """Returns the most binary variables that one of them has."""
        variables = [None] * problem.nvars
        for position, variable in zip(self._positions.tolist(), self._variables, strict=True):
            variables[position] = variable
        general = GeneralConstraints(self._package, self._model, problem, variables)
        general.add(problem.gens())
        if problem.start is None:
            return general.most_switches
        # The start in the file lacks the variables that came after it.
        values = general.completed(problem.start.tolist())
        self._give_start([*variables, *self._extras], [*values, *self._extra_values(problem)])
        return general.most_switches

    def _extra_values(self, problem: Problem) -> list[float]:
        """At the start: of the variable for a nonlinear objective, and of those for semi-continuous variables."""
        import numpy as np

        start, values = problem.start, []
        if problem.nqobj or problem.nnlobj:
            linear = problem.obj @ start + problem.objconstant
            values.append(_modelapi.evaluate_objective(problem.handle, start) - linear)
        away = (problem.vtype == b"S") & ((problem.lb > 0) | (problem.ub < 0))
        return values + np.where(np.isnan(start), np.nan, start != 0)[away].tolist()

    def _give_start(self, variables: list[Any], values: list[float]) -> None:
        """A solution where each variable has a value; else SCIP completes it in a search of its own."""
        whole = all(map(math.isfinite, values))
        solution = self._model.createOrigSol() if whole else self._model.createPartialSol()
        for variable, value in zip(variables, values, strict=True):
            if math.isfinite(value):
                self._model.setSolVal(solution, variable, value)
        self._model.addSol(solution)

    def change(self, problem: Problem, changes: Changes) -> bool:
        """Always anew: SCIP presolves again in any case, and the start lies in the file."""
        return False

    def counts(self) -> dict[str, int]:
        return dict(self._counts)

    # ---- the run

    def start(self, problem: Problem, params: Parameters) -> None:
        self._first = None
        self._params = params
        self._set_options(problem, params)
        self._log = ScipLog(self._model) if params.LogLevel >= 1 else None
        if math.isfinite(params.IterationLimit):
            stop_after_iterations(self._package, self._model, params.IterationLimit)
        self._run()

    def _run(self) -> None:
        self._stop = False
        self._began = time.monotonic()
        self._worker = Worker(self._model.optimizeNogil)
        _runs.add(self._worker)

    def _set_options(self, problem: Problem, params: Parameters, tighter: float = 1.0) -> None:
        low, high = _TOLERANCES
        feasibility = params.FeasibilityTol
        if problem.nintegral:
            feasibility = min(params.IntegralityTol, max(feasibility, 1e-6))
        exact = not problem.nintegral and problem.is_convex
        endless = math.isinf(params.IterationLimit)
        options = {
            "limits/time": min(params.TimeLimit, _LONGEST),
            "limits/gap": min(params.RelGap, _EXACT_GAP) if exact else params.RelGap,
            "limits/absgap": min(params.AbsGap, _EXACT_GAP) if exact else params.AbsGap,
            "limits/nodes": int(min(params.NodeLimit, 2**53)),
            "limits/bestsol": int(min(params.SolutionLimit, _INT_MAX)),
            "lp/rootiterlim": -1 if endless else int(min(params.IterationLimit, _INT_MAX)),
            "lp/iterlim": -1 if endless else int(min(params.IterationLimit, _INT_MAX)),
            "numerics/feastol": min(max(tighter * feasibility, low), high),
            "numerics/dualfeastol": min(max(tighter * params.OptimalityTol, low), high),
            "randomization/randomseedshift": params.Seed,
            "lp/threads": min(params.Threads, 64),
            # SCIP 10.0.2 fixes variables by wrong signs of quadratic rows with products of binaries, and calls what
            # is left optimal (one in 2500 random integer models). In nonlinear models it fixes variables at bounds
            # where a logarithm, a root or a broken power is not defined, and calls points elsewhere optimal.
            # Its LP solver tells stderr, whatever the verbosity, that it cannot go below 1e-10. Of 190 random models
            # none ended otherwise without. Quadratic ones keep it: without it the convex QPCBLEND, 83 variables, has no
            # proof of its optimum after 88,000 nodes, with it after one.
            "constraints/nonlinear/tightenlpfeastol": not problem.is_nonlinear,
            "heuristics/completesol/maxunknownrate": 1.0,  # a start without values for what was added is worth it
            "misc/allowstrongdualreds": not (problem.nintegral or problem.is_nonlinear),
        }
        if any(name.startswith("presolving/") for name in params.EngineOptions):
            # SCIP 10.0.2 writes past its arrays while it looks for symmetries of models that it was kept from
            # presolving: one in 400 random ones crashed. Of 180 that it had presolved none did, nor wrote there unseen.
            options["misc/usesymmetry"] = 0
        if self._most_switches > _MOST_PROBED:
            options["propagating/probing/maxprerounds"] = 0
        self._model.resetParams()
        self._model.setParam("misc/catchctrlc", False)
        for name, value in [*options.items(), *params.EngineOptions.items()]:
            self._set_option(name, value)

    def _set_option(self, name: str, value: Any) -> None:
        try:
            self._model.setParam(name, value)
        except LookupError:
            raise TarvoError(TRV.ERROR_INVALID_ARGUMENT, f"SCIP has no option {name!r}") from None
        except Exception as error:
            raise TarvoError(TRV.ERROR_INVALID_ARGUMENT, f"SCIP's option {name!r}, {value!r}: {error}") from None

    @property
    def running(self) -> bool:
        return self._worker is not None and self._worker.running

    def wait(self, seconds: float) -> bool:
        if self._worker is None:
            return True
        if self._stop and self.running:
            self.interrupt()  # a request that came while SCIP was setting out is forgotten by it
        return self._worker.wait(seconds)

    def interrupt(self) -> None:
        self._stop = True
        if self.running:
            try:
                self._model.interruptSolve()
            except Exception:  # not solving yet, or not any more: wait() asks again
                return

    def progress(self) -> Progress:
        said = self._log.figures() if self._log is not None else {}
        figures = (said.get(head) for head in ("node", "primalbound", "dualbound"))
        return Progress(time.monotonic() - self._began, said.get("LP iter"), *figures)

    def take_log(self) -> str:
        return self._log.take() if self._log is not None else ""

    # ---- the answer

    def again(self, problem: Problem) -> bool:
        """Infeasible or unbounded: without an objective any feasible point tells which, so that is asked for, within a
        time of its own.
        """
        if self._first is not None or self._worker.error is not None:
            return False
        result = self._result()
        left = seconds_of_second_look(self._params.TimeLimit, result["seconds"])
        if result["status"] != TRV.INFEASIBLE_OR_UNBOUNDED or left <= 0 or self._stop:
            return False
        self._first = result
        self._model.freeTransform()
        self._model.setObjective(0.0)
        self._objective_dropped = True
        self._model.setParam("limits/time", left)
        self._model.setParam("limits/bestsol", 1)
        self._run()
        return True

    def refine(self, problem: Problem, params: Parameters) -> bool:
        """Again with tolerances a tenth as large, from the solution that is there."""
        if self._objective_dropped or self._worker.error is not None:
            return False
        self._first = None
        self._params = params
        self._model.freeTransform()
        self._set_options(problem, params, 0.1)
        self._run()
        return True

    def _result(self) -> dict[str, Any]:
        model = self._model
        found = model.getNSols() > 0
        status = _STATUS.get(model.getStatus(), TRV.FAILED)
        if status == TRV.INTERRUPTED and not self._stop:
            status = TRV.ITERATION_LIMIT  # nobody else interrupts
        return {
            "status": status,
            "said": model.getStatus(),
            "found": found,
            "objective": model.getObjVal() if found else NAN,
            "bound": model.getDualbound(),
            "seconds": model.getSolvingTime(),
            "iterations": model.getNLPIterations(),
            "nodes": model.getNTotalNodes(),
        }

    def outcome(self, problem: Problem) -> Outcome:
        if self._worker.error is not None:
            return Outcome(TRV.FAILED, message=f"SCIP failed: {self._worker.error}")
        result = self._result()
        if self._first is not None:
            result = _combined(self._first, result)
        outcome = Outcome(
            result["status"],
            runtime=result["seconds"],
            itercount=result["iterations"],
            nodecount=result["nodes"],
        )
        if outcome.status == TRV.OPTIMAL and problem.sense * result["objective"] <= -_ENDLESS:
            outcome.status = TRV.UNBOUNDED  # SCIP takes its infinity for a value where a function goes on beyond it
        if outcome.status == TRV.FAILED:
            outcome.message = f"SCIP ended with its status {result['said']!r}"
        if outcome.status not in WITHOUT_POINT:
            outcome.has_x = result["found"]
            outcome.objval = result["objective"]
            if abs(result["bound"]) < _INFINITY:
                outcome.bound = result["bound"]
        self._with_duals = None
        if outcome.status == TRV.OPTIMAL and outcome.has_x and self._nonlinear:
            x = self._point(problem.nvars)
            doubt = doubt_of(problem, x)
            if doubt is not None:
                outcome.status, outcome.bound, outcome.message = TRV.IMPRECISE, NAN, doubt
        if outcome.status == TRV.OPTIMAL and outcome.has_x and not problem.nintegral and problem.is_convex:
            self._add_multipliers(outcome, problem)
        return outcome

    def _add_multipliers(self, outcome: Outcome, problem: Problem) -> None:
        """(x, rc, pi, qpi) at the optimum of a convex continuous model, where they hold."""
        from tarvopy.check import SLACK
        from tarvopy.engines.multipliers import recover

        params = self._params
        try:
            self._with_duals = recover(
                problem, self._point(problem.nvars), params.FeasibilityTol, SLACK * params.OptimalityTol
            )
        except TarvoError as error:  # what works them out is not installed
            outcome.no_duals = f"SCIP gives none, and to work them out: {error.message}"
        outcome.has_duals = self._with_duals is not None

    def _point(self, nvars: int) -> np.ndarray:
        import numpy as np

        x = np.empty(nvars)
        value, best = self._model.getSolVal, self._model.getBestSol()
        x[self._positions] = np.fromiter((value(best, v) for v in self._variables), float, len(self._variables))
        return x

    def write_solution(self, outcome: Outcome, x: np.ndarray, rc: np.ndarray, pi: np.ndarray, qpi: np.ndarray) -> None:
        if outcome.has_duals:
            x[:], rc[:], pi[:], qpi[:] = self._with_duals
        elif outcome.has_x:
            x[:] = self._point(len(x))
            if self._nonlinear and not self._is_defined(x):
                self._step_into_domain(x)

    def _is_defined(self, x: np.ndarray) -> bool:
        """Whether the objective and all rows have values at x, which stands in the open solution."""
        row = _modelapi.residuals(self._handle, False)["row"]
        return math.isfinite(row) and math.isfinite(_modelapi.evaluate_objective(self._handle, x))

    def _step_into_domain(self, x: np.ndarray) -> None:
        """SCIP takes the root of -1e-10 for that of 0, and x log(x) for 0 at x = 0."""
        import numpy as np

        given, zeros = x.copy(), np.abs(x) < _EPSILON
        for instead in (0.0, _NEXT_TO_ZERO):
            x[zeros] = instead
            if self._is_defined(x):
                return
        x[:] = given

    def close(self) -> None:
        """Frees SCIP's memory; of a run that is still under way when that ends."""
        self._model = self._variables = None


def _endless_side(problem: Problem) -> str | None:
    """A row that asks for an infinite value, which no file can say."""
    import numpy as np

    rows = np.isposinf(problem.lower) | np.isneginf(problem.upper)
    if rows.any():
        return f"row {problem.row_name(int(rows.nonzero()[0][0]))!r} asks for an infinite value"
    above, below = np.isposinf(problem.qrhs), np.isneginf(problem.qrhs)
    qrows = (above & (problem.qsense != b"<")) | (below & (problem.qsense != b">"))
    if qrows.any():
        return f"quadratic row {problem.qrow_name(int(qrows.nonzero()[0][0]))!r} asks for an infinite value"
    return None


def _combined(first: dict[str, Any], second: dict[str, Any]) -> dict[str, Any]:
    """What two runs together say of a problem that is infeasible or unbounded."""
    answers = (TRV.INFEASIBLE, TRV.INTERRUPTED, TRV.ITERATION_LIMIT)
    answer = second["status"] if second["status"] in answers else TRV.INFEASIBLE_OR_UNBOUNDED
    if second["found"]:
        answer = TRV.UNBOUNDED
    together = {key: first[key] + second[key] for key in ("seconds", "iterations", "nodes")}
    return {**first, **together, "status": answer, "found": False, "objective": NAN, "bound": math.inf}


ENGINE = ScipEngine
