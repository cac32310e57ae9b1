"""General constraints in SCIP: what a .nl file cannot say, added to the model that was read from one.

    general = GeneralConstraints(package, scip, problem, variables)    variables[j]: SCIP's variable j of the model
    general.add(problem.gens())                                        variables grows by what is added
    general.completed(start)                                           values for all of them from those of the model's

How each stands there, z being new binary variables and all implications SCIP's indicators:

    y = max(a, b, ...)       y >= a, y >= b, ...; z1 + z2 + ... = 1; z1 = 1 implies y <= a, ...     (min: signs turned)
    y = |a|                  y = max(a, -a)
    y = all / any of a, ...  SCIP's own and / or
    y = f(x), piecewise      x = x0 - l + w1 d1 + w2 d2 + ... + r, y = y0 - s0 l + h1 d1 + h2 d2 + ... + s1 r with steps
                             0 <= d <= 1 that are taken one after the other: d2 <= z1 <= d1. The rays l and r beyond the
                             ends stand there only where x has no bound; elsewhere its bounds are the end points
    SOS                      SCIP's own

An implication is never written as a row with a large constant alone: a binary variable that is off by 1e-6 would let
through a millionth of the constant. Where bounds are known SCIP gets them for the slack of the indicator and makes such
rows of them, to tighten its relaxation, and holds the implication itself besides. With special ordered sets for the
pieces of curves a random model of 12 variables took 14,000 nodes; with steps it takes one.

Adding takes 10 to 20 us a row or indicator.
"""

from __future__ import annotations

import math
from dataclasses import dataclass
from itertools import pairwise
from typing import TYPE_CHECKING, Any, ClassVar

from tarvopy._trv import TRV
from tarvopy.engines.scip_curves import Curve, take_steps

if TYPE_CHECKING:
    from collections.abc import Callable, Iterator

    import numpy as np

    from tarvopy.problem import Problem

#: More than this is no bound for a slack: what it cuts off drowns in the tolerances.
_LARGEST_SLACK = 1e7
#: For so many arguments of max and min all differences are bounded, their number being the square.
_FEW = 8

_INF = math.inf


@dataclass(slots=True)
class Linear:
    """constant + the sum of terms[j] * variable j; variables from nvars on are those that were added here."""

    constant: float
    terms: dict[int, float]

    def value(self, values: list[float]) -> float:
        return self.constant + sum(a * values[j] for j, a in self.terms.items())

    def __neg__(self) -> Linear:
        return Linear(-self.constant, {j: -a for j, a in self.terms.items()})

    def __sub__(self, other: Linear) -> Linear:
        terms = dict(self.terms)
        for j, a in other.terms.items():
            terms[j] = terms.get(j, 0.0) - a
        return Linear(self.constant - other.constant, {j: a for j, a in terms.items() if a})


class GeneralConstraints:
    """Adds the general constraints of a problem to SCIP's model of its other parts."""

    def __init__(self, package: Any, scip: Any, problem: Problem, variables: list[Any]) -> None:
        self._row, self._sum = package.scip.ExprCons, package.quicksum
        self._scip = scip
        self._variables = variables
        self._numbers: dict[int, int] = {}
        self._nvars = problem.nvars
        #: The most binary variables that one constraint has.
        self.most_switches = 0
        self._completions: list[Callable[[list[float]], None]] = []
        # What is known of the variables' values: bounds, and the ranges of the functions that they are results of.
        switchable = (problem.vtype == b"S").tolist()
        self._lb = [min(v, 0.0) if s else v for v, s in zip(problem.lb.tolist(), switchable, strict=True)]
        self._ub = [max(v, 0.0) if s else v for v, s in zip(problem.ub.tolist(), switchable, strict=True)]

    def add(self, gens: tuple[np.ndarray, ...]) -> None:
        """All of them; gens as Problem.gens() gives them."""
        for kind, args, data in _each(gens):
            self._ADD[kind](self, args, data)

    def completed(self, start: list[float]) -> list[float]:
        """The values of the model's variables with those that follow for what was added, NaN where a start has gaps."""
        if any(map(math.isnan, start)):
            return start + [math.nan] * (len(self._variables) - self._nvars)
        values = start + [0.0] * (len(self._variables) - self._nvars)
        for complete in self._completions:
            complete(values)
        return values

    # ---- one constraint of each type

    def _add_max(self, args: list[Linear], _: list[float]) -> None:
        result, *others = args
        self._maximum(result, others)

    def _add_min(self, args: list[Linear], _: list[float]) -> None:
        result, *others = args
        self._maximum(-result, [-a for a in others])

    def _add_abs(self, args: list[Linear], _: list[float]) -> None:
        result, of = args
        self._maximum(result, [of, -of])

    def _add_and(self, args: list[Linear], _: list[float]) -> None:
        result, *others = map(self._binary, args)
        self._scip.addConsAnd(others, result)

    def _add_or(self, args: list[Linear], _: list[float]) -> None:
        result, *others = map(self._binary, args)
        self._scip.addConsOr(others, result)

    def _add_indicator(self, args: list[Linear], data: list[float]) -> None:
        (switch,) = args[0].terms
        value, lower, upper = int(data[0]), *data[1:]
        self._implies(switch, value, args[1], upper)
        self._implies(switch, value, -args[1], -lower)

    def _add_sos1(self, args: list[Linear], weights: list[float]) -> None:
        self._scip.addConsSOS1([self._variables[j] for a in args for j in a.terms], weights)

    def _add_sos2(self, args: list[Linear], weights: list[float]) -> None:
        self._scip.addConsSOS2([self._variables[j] for a in args for j in a.terms], weights)

    def _add_pwl(self, args: list[Linear], data: list[float]) -> None:
        half = len(data) // 2
        y, x = args
        curve = Curve(data[:half], data[half:], *self._range(x))
        self._narrow(y, *curve.range())
        if curve.is_line:
            slope, (x0, y0) = curve.left_slope, curve.points[0]
            line = Linear(y0 + slope * (x.constant - x0), {j: slope * a for j, a in x.terms.items()})
            self._add_row(y - line, 0.0, 0.0)
        else:
            self._steps(y, x, curve)

    # ---- what they are made of

    def _maximum(self, result: Linear, args: list[Linear]) -> None:
        ranges = [self._range(a) for a in args]
        lowest, highest = max(low for low, _ in ranges), max(high for _, high in ranges)
        self._narrow(result, lowest, highest)
        # What never exceeds another argument cannot be the largest alone.
        live = [a for a, (_, high) in zip(args, ranges, strict=True) if high >= lowest]
        above = [self._most_above(a, live, highest) for a in live]
        if min(above) <= 0.0:
            self._add_row(result - live[above.index(min(above))], 0.0, 0.0)
            return
        for a in live:
            self._add_row(result - a, 0.0, _INF)
        switches = self._one_of(len(live))

        def complete(values: list[float]) -> None:
            of_args = [a.value(values) for a in live]
            switch, value = switches[of_args.index(max(of_args))]
            values[switch] = float(value)

        self._completions.append(complete)
        for (switch, value), a, most in zip(switches, live, above, strict=True):
            self._implies(switch, value, result - a, 0.0, most)

    def _most_above(self, arg: Linear, args: list[Linear], highest: float) -> float:
        """By how much the largest of args may exceed arg; 0 and less: arg is always the largest."""
        if len(args) <= _FEW:
            return max((self._range(other - arg)[1] for other in args if other is not arg), default=0.0)
        return highest - self._range(arg)[0]

    def _steps(self, y: Linear, x: Linear, curve: Curve) -> None:
        (x0, y0), along, up = curve.points[0], dict(x.terms), dict(y.terms)
        phases = []
        for width, height, is_ray in curve.phases():
            phases.append((self._new("C", 0.0, _INF if is_ray else 1.0), is_ray))
            along[phases[-1][0]], up[phases[-1][0]] = -width, -height
        self._add_row(Linear(x.constant - x0, along), 0.0, 0.0)
        self._add_row(Linear(y.constant - y0, up), 0.0, 0.0)
        self.most_switches = max(self.most_switches, len(phases) - 1)
        switches = []
        self._completions.append(
            lambda values: take_steps(values, curve, x.value(values), y.value(values), [v for v, _ in phases], switches)
        )
        for (before, left_ray), (after, right_ray) in pairwise(phases):
            switch = self._new("B", 0.0, 1.0)
            switches.append(switch)
            if left_ray:
                self._implies(switch, 1, Linear(0.0, {before: 1.0}), 0.0)
            else:
                self._add_row(Linear(0.0, {before: 1.0, switch: -1.0}), 0.0, _INF)
            if right_ray:
                self._implies(switch, 0, Linear(0.0, {after: 1.0}), 0.0)
            else:
                self._add_row(Linear(0.0, {after: 1.0, switch: -1.0}), -_INF, 0.0)

    def _one_of(self, n: int) -> list[tuple[int, int]]:
        """(binary variable, its value) of which exactly one holds."""
        if n == 2:
            switch = self._new("B", 0.0, 1.0)
            return [(switch, 1), (switch, 0)]
        self.most_switches = max(self.most_switches, n)
        switches = [self._new("B", 0.0, 1.0) for _ in range(n)]
        self._add_row(Linear(-1.0, dict.fromkeys(switches, 1.0)), 0.0, 0.0)
        return [(switch, 1) for switch in switches]

    def _implies(self, switch: int, value: int, body: Linear, upper: float, beyond: float | None = None) -> None:
        """The switch being value implies body <= upper; beyond: by how much it may be exceeded otherwise."""
        if upper == -_INF:
            self._add_row(Linear(0.0, {switch: 1.0}), 1.0 - value, 1.0 - value)
            return
        if upper == _INF:
            return
        if beyond is None:
            beyond = self._range(body)[1] - upper
            if beyond <= 0.0:  # holds anyway
                return
        row = self._row(self._expression(body), None, upper - body.constant)
        indicator = self._scip.addConsIndicator(row, self._variables[switch], activeone=value == 1)
        slack = self._note(self._scip.getSlackVarIndicator(indicator), 0.0, beyond)
        if beyond <= _LARGEST_SLACK:
            self._scip.chgVarUb(self._variables[slack], beyond)

        def complete(values: list[float]) -> None:
            values[slack] = max(0.0, body.value(values) - upper)

        self._completions.append(complete)

    def _add_row(self, body: Linear, lower: float, upper: float) -> None:
        lhs = None if lower == -_INF else lower - body.constant
        rhs = None if upper == _INF else upper - body.constant
        self._scip.addCons(self._row(self._expression(body), lhs, rhs))

    def _expression(self, body: Linear) -> Any:
        if not body.terms:  # SCIP's rows have variables
            return 0.0 * self._variables[self._number(0)]
        variables = self._variables
        return self._sum(a * variables[j] for j, a in body.terms.items())

    def _new(self, kind: str, lb: float, ub: float) -> int:
        return self._note(self._scip.addVar(vtype=kind, lb=lb, ub=None if ub == _INF else ub), lb, ub)

    def _note(self, variable: Any, lb: float, ub: float) -> int:
        self._variables.append(variable)
        self._lb.append(lb)
        self._ub.append(ub)
        return len(self._variables) - 1

    def _number(self, value: int) -> int:
        """A variable with the value 0 or 1."""
        if value not in self._numbers:
            self._numbers[value] = number = self._new("B", float(value), float(value))
            self._completions.append(lambda values: values.__setitem__(number, float(value)))
        return self._numbers[value]

    def _binary(self, arg: Linear) -> Any:
        j = next(iter(arg.terms)) if arg.terms else self._number(int(arg.constant))
        return self._variables[j]

    # ---- ranges of values

    def _range(self, body: Linear) -> tuple[float, float]:
        low = high = body.constant
        for j, a in body.terms.items():
            one, other = a * self._lb[j], a * self._ub[j]
            low += min(one, other)
            high += max(one, other)
        return low, high

    def _narrow(self, result: Linear, low: float, high: float) -> None:
        """Notes the range of a function for the variable that takes its value."""
        if len(result.terms) != 1:
            return
        ((j, a),) = result.terms.items()
        one, other = sorted(((low - result.constant) / a, (high - result.constant) / a))
        self._lb[j], self._ub[j] = max(self._lb[j], one), min(self._ub[j], other)

    _ADD: ClassVar = {
        TRV.GEN_MAX: _add_max,
        TRV.GEN_MIN: _add_min,
        TRV.GEN_ABS: _add_abs,
        TRV.GEN_AND: _add_and,
        TRV.GEN_OR: _add_or,
        TRV.GEN_PWL: _add_pwl,
        TRV.GEN_INDICATOR: _add_indicator,
        TRV.GEN_SOS1: _add_sos1,
        TRV.GEN_SOS2: _add_sos2,
    }


def _each(gens: tuple[np.ndarray, ...]) -> Iterator[tuple[int, list[Linear], list[float]]]:
    """(type, arguments, numbers) of each constraint."""
    kinds, argptr, ptr, index, value, constant, dataptr, data = (array.tolist() for array in gens)
    for g, kind in enumerate(kinds):
        args = [
            Linear(constant[a], dict(zip(index[ptr[a] : ptr[a + 1]], value[ptr[a] : ptr[a + 1]], strict=True)))
            for a in range(argptr[g], argptr[g + 1])
        ]
        yield kind, args, data[dataptr[g] : dataptr[g + 1]]


def not_binary(problem: Problem) -> str | None:
    """The first variable that must be binary and is not, with its constraint."""
    import numpy as np

    kinds, argptr, ptr, index, *_ = problem.gens()
    concerned = np.repeat(np.isin(kinds, (TRV.GEN_AND, TRV.GEN_OR)), np.diff(argptr))
    concerned[argptr[:-1][kinds == TRV.GEN_INDICATOR]] = True
    args = (concerned & (np.diff(ptr) > 0)).nonzero()[0]  # the others are the numbers 0 and 1
    variables = index[ptr[args]]
    between = (problem.lb >= 0) & (problem.ub <= 1)
    fits = (problem.vtype == b"B") | ((problem.vtype == b"I") & between)
    wrong = (~fits[variables]).nonzero()[0]
    if not len(wrong):
        return None
    gen = int(np.searchsorted(argptr, args[wrong[0]], side="right")) - 1
    name = problem.var_name(int(variables[wrong[0]]))
    return f"general constraint {problem.gen_name(gen)!r} takes binary variables only, not {name!r}"
