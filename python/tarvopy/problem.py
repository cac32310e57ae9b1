"""What an engine gets to see of a model: one frozen Problem.

    problem = Problem.of(model._cmodel)        after update(); NumPy views of the store, nothing is copied
    start, index, value = problem.csr()        the matrix by rows, made for the caller and freed with the arrays
    problem.is_quadratic, problem.curvature()  whether quadratic terms are left, and how they are curved
    problem.is_nonlinear                       nonlinear rows or objective, or general constraints

The views are read-only and show the store as it is: they hold until the model's next change (while an engine runs,
changes are refused). Bounds and sides that are one number throughout stand once, in an array with a stride of 0.
Infinite bounds are +-inf. Positions, not ids, count everything here.
"""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import TYPE_CHECKING, Any

from tarvopy import _modelapi

if TYPE_CHECKING:
    import numpy as np


#: Kinds of element, as tarvo.h numbers them.
TRV_VAR, TRV_CONSTR, TRV_QCONSTR, TRV_GENCONSTR, TRV_NLCONSTR = 1, 2, 4, 5, 6
#: What curvature() says: see tarvo_engine.h.
LINEAR, CONVEX, CONE, NONCONVEX, ROUNDED = 0, 1, 2, 3, 4


@dataclass(frozen=True, slots=True, eq=False)
class Problem:
    """minimise (or maximise) obj x + x'Hx/2 + f(x) + objconstant, lower <= A x <= upper, quadratic rows,
    nllower <= g(x) <= nlupper, general constraints, lb <= x <= ub, some x integral.
    """

    handle: Any
    """The model handle the views belong to."""
    nvars: int
    nrows: int
    nnz: int
    """Nonzeros of A."""
    lb: np.ndarray
    ub: np.ndarray
    obj: np.ndarray
    vtype: np.ndarray
    """dtype "S1": b"C" continuous, b"B" binary, b"I" integer, b"S" semi-continuous."""
    lower: np.ndarray
    upper: np.ndarray
    objconstant: float
    sense: int
    """1 minimise, -1 maximise."""
    nintegral: int
    """How many variables are not continuous (semi-continuous ones count)."""
    nsemi: int
    """How many are semi-continuous."""
    nqobj: int
    """Quadratic terms of the objective."""
    nqrows: int
    """Quadratic rows; they are no part of A, nrows, lower and upper."""
    nqlinear: int
    """How many of them hold no quadratic term (any more): linear rows in all but name."""
    nqterms: int
    """Quadratic terms in rows."""
    nqlinterms: int
    """Linear terms in quadratic rows."""
    qsense: np.ndarray
    """dtype "S1": b"<", b">", b"=" for each quadratic row."""
    qrhs: np.ndarray
    nnlrows: int
    """Nonlinear rows, g; they are no part of A and of the quadratic rows."""
    nnlcodes: int
    """Entries of their tapes: what an engine has to read."""
    nnlobj: int
    """Entries of the objective's tape, f; 0 where it has none."""
    nllower: np.ndarray
    nlupper: np.ndarray
    ngens: int
    """General constraints."""
    start: np.ndarray | None
    """A value for each variable, NaN where there is none; None without any."""
    _curvature: list[tuple[int, np.ndarray]] = field(default_factory=list, init=False, repr=False)

    @classmethod
    def of(cls, handle: Any) -> Problem:
        """The model as it stands; what is pending is left out, so update first."""
        return cls(handle, **_modelapi.problem(handle))

    @property
    def entries(self) -> int:
        """What there is to read: nonzeros, quadratic terms, entries of tapes; general constraints are a hundred."""
        quadratic, nonlinear = self.nqobj + self.nqterms + self.nqlinterms, self.nnlcodes + self.nnlobj
        return self.nnz + quadratic + nonlinear + 100 * self.ngens

    @property
    def is_quadratic(self) -> bool:
        """A quadratic term is left somewhere; without any the quadratic rows are further linear ones."""
        return self.nqobj > 0 or self.nqrows > self.nqlinear

    @property
    def is_nonlinear(self) -> bool:
        """There are nonlinear rows, a nonlinear objective or general constraints: nothing is known of its curvature."""
        return self.nnlrows > 0 or self.nnlobj > 0 or self.ngens > 0

    def csr(self) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
        """A by rows: (start int32 of nrows + 1, column index int32, value float64), in stored order."""
        return _modelapi.matrix(self.handle)

    def cheapest_matrix(self) -> tuple[np.ndarray, np.ndarray, np.ndarray, bool]:
        """A in the form that costs least to hand over: (start, index, value, by columns or not), for reading only; not
        copied where the store has it like that.
        """
        return _modelapi.cheapest_matrix(self.handle)

    def hessian(self) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
        """H of the objective, its upper triangle by columns: (start of nvars + 1, row index, value).

        A term c*x*y is an entry c, a term c*x*x an entry 2c.
        """
        return _modelapi.hessian(self.handle)

    def qmatrix(self) -> tuple[np.ndarray, ...]:
        """The quadratic rows: (start, index, value, qstart, qvar1, qvar2, qvalue).

        Row i has the linear terms value[k] * x[index[k]], k in start[i] .. start[i+1], and the quadratic ones
        qvalue[k] * x[qvar1[k]] * x[qvar2[k]], k in qstart[i] .. qstart[i+1], qvar1 <= qvar2, each pair once.
        """
        return _modelapi.qmatrix(self.handle)

    def curvature(self) -> tuple[int, np.ndarray]:
        """LINEAR, CONVEX, ROUNDED (convex but for rounding) or NONCONVEX for the objective's linear and quadratic
        terms; LINEAR, CONVEX, CONE or NONCONVEX (int8) for each quadratic row; worked out once.
        """
        if not self._curvature:
            self._curvature.append(self._find_curvature())
        return self._curvature[0]

    def _find_curvature(self) -> tuple[int, np.ndarray]:
        if self.is_quadratic:
            return _modelapi.curvature(self.handle)
        import numpy as np

        return LINEAR, np.zeros(self.nqrows, np.int8)

    @property
    def is_convex(self) -> bool:
        """Known to be convex: nothing nonlinear, and no quadratic part is nonconvex (whatever the variables' types)."""
        if self.is_nonlinear:
            return False
        objective, rows = self.curvature()
        return objective != NONCONVEX and not (rows == NONCONVEX).any()

    @property
    def known_curvature(self) -> tuple[int, np.ndarray] | None:
        """What curvature() has found, None where nobody asked."""
        return self._curvature[0] if self._curvature else None

    def assume_curvature(self, known: tuple[int, np.ndarray]) -> None:
        """Takes over what was found for an earlier state in which nothing that matters for it was any different."""
        self._curvature.append(known)

    def cones(self) -> Cones:
        """The quadratic rows as second-order cones; TarvoError (UNSUPPORTED) naming a row that is nonconvex."""
        return Cones(self.handle, **_modelapi.cones(self.handle))

    def gens(self) -> tuple[np.ndarray, ...]:
        """The general constraints: (type, argptr, ptr, index, value, constant, dataptr, data).

        Constraint g, of the kind type[g] (TRV_GEN_... in tarvo.h), has the arguments argptr[g] .. argptr[g+1] and the
        numbers data[dataptr[g] .. dataptr[g+1]]; argument a is constant[a] + the sum of value[k] * x[index[k]], k in
        ptr[a] .. ptr[a+1].
        """
        return _modelapi.genmatrix(self.handle)

    def var_name(self, position: int) -> str:
        return _modelapi.element_name(self.handle, TRV_VAR, position)

    def row_name(self, position: int) -> str:
        return _modelapi.element_name(self.handle, TRV_CONSTR, position)

    def qrow_name(self, position: int) -> str:
        return _modelapi.element_name(self.handle, TRV_QCONSTR, position)

    def nlrow_name(self, position: int) -> str:
        return _modelapi.element_name(self.handle, TRV_NLCONSTR, position)

    def gen_name(self, position: int) -> str:
        return _modelapi.element_name(self.handle, TRV_GENCONSTR, position)


@dataclass(frozen=True, slots=True, eq=False)
class Cones:
    """Quadratic rows as second-order cones: cone c, of the rows cone[c] .. cone[c+1], stands for quadratic row qrow[c]:

    s_k = offset[k] - sum value[j] * x[index[j]], j in start[k] .. start[k+1],  s_first >= norm of the others.
    """

    handle: Any
    native: Any
    """What the arrays are views of."""
    qrow: np.ndarray
    cone: np.ndarray
    start: np.ndarray
    index: np.ndarray
    value: np.ndarray
    offset: np.ndarray

    def duals(self, s: np.ndarray, z: np.ndarray, qpi: np.ndarray) -> None:
        """Writes the multipliers of the rows that are cones into qpi (nqrows entries): s the slacks and z the duals of
        all rows of the cones, of the minimisation.
        """
        _modelapi.cone_duals(self.handle, self.native, s, z, qpi)


@dataclass(frozen=True, slots=True, eq=False)
class Changes:
    """What changed since the last Changes.clear: what an engine that keeps its model has to be told.

    All arrays are the caller's own: positions as int32, each once.
    """

    structure: bool
    """Something was added, removed or retyped, or too much changed: load the model anew."""
    quadratic: bool
    """Quadratic terms of the objective, quadratic rows or their sides."""
    objconstant: bool
    sense: bool
    bounds: np.ndarray
    """Variables whose lb or ub changed."""
    costs: np.ndarray
    """Variables whose obj changed."""
    sides: np.ndarray
    """Rows whose lower or upper changed."""
    coefrows: np.ndarray
    coefvars: np.ndarray
    coefs: np.ndarray
    """Changed entries of A as (row, variable, present value)."""

    @classmethod
    def of(cls, handle: Any) -> Changes:
        return cls(**_modelapi.changes(handle))

    def keep_curvature(self, problem: Problem) -> bool:
        """Nothing changed that may change the curvature; bounds decide over cones only."""
        return not (self.structure or self.quadratic or self.sense or (problem.nqrows and len(self.bounds)))

    @staticmethod
    def clear(handle: Any) -> None:
        """From here on changes count anew: call it when the engine has been told."""
        _modelapi.clear_changes(handle)
