"""The optimisation models of the example: unit commitment over a day, and the one-hour optimal power flow.

`commit(system)` decides which units run in each hour (`on`), what they give, and prices the result: `Schedule`.
`dispatch(system)` has all units on and costs linear; it is what a DC optimal power flow program solves and serves as a
check. Both put the same network around the units' output (`add_network`). Arrays are (units, hours), (lines, hours) or
(buses, hours), powers in MW.

The formulation is kept tight, so that the relaxation is within 2 % of the answer and the solver needs few nodes: output
above the minimum is bounded by `on` segment by segment, starts are summed over the minimum up time instead of compared
pairwise, and only ramps that can bind have rows.
"""

from dataclasses import dataclass

import numpy as np
import scipy.sparse as sp

import tarvopy

from .data import System, Units

SEGMENTS = 3
RELATIVE_GAP = 1e-3


@dataclass
class Schedule:
    """A solved day. `price` is what one more MW costs at a bus in an hour with the same units running ($/MWh)."""

    status: int
    cost: float
    gap: float
    seconds: float
    on: np.ndarray
    output: np.ndarray
    flow: np.ndarray
    price: np.ndarray


def segments(units: Units) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    """The quadratic running costs as straight pieces between minimum and maximum output.

    Returns the cost at minimum output (units,), the width of a unit's equal pieces (units,) and their slopes (pieces,
    units). Costs are convex, so the solver fills cheap pieces first by itself.
    """
    width = (units.pmax - units.pmin) / SEGMENTS
    power = units.pmin + np.arange(SEGMENTS + 1)[:, None] * width
    cost = units.quadratic * power**2 + units.linear * power + units.fixed
    return cost[0], width, np.diff(cost, axis=0) / width


def add_network(m: tarvopy.Model, system: System, output: tarvopy.MVar) -> tuple[tarvopy.MVar, tarvopy.MConstr]:
    """DC power flow: units' output, loads and flows balance at every bus. Returns the flows and the balance rows."""
    buses, hours = system.load.shape
    limit = system.limit[:, None]
    angle = m.addMVar((buses, hours), lb=-np.inf, name="angle")
    flow = m.addMVar((len(system.limit), hours), lb=-limit, ub=limit, name="flow")
    m.addConstr(angle[system.reference] == 0, name="reference")
    m.addConstr(flow == system.flow_matrix @ angle + system.flow_shift[:, None], name="flow")
    balance = m.addConstr(system.at_bus @ output - system.incidence.T @ flow == system.load, name="balance")
    return flow, balance


def started_within(hours: int, day: int) -> sp.csr_array:
    """(day, day) matrix W: `start @ W` sums, for each hour, the starts of the last `hours` hours; the day is cyclic."""
    before = np.arange(min(hours, day))
    now = np.repeat(np.arange(day), len(before))
    then = (now - np.tile(before, day)) % day
    return sp.csr_array((np.ones(len(now)), (then, now)), shape=(day, day))


def add_units(m: tarvopy.Model, units: Units, hours: int) -> tuple[tarvopy.MVar, tarvopy.MVar]:
    """On/off variables and outputs of all units with start-up costs, minimum up times and ramps, on a cyclic day."""
    minimum_cost, width, slope = segments(units)
    shape = len(units), hours
    on = m.addMVar(shape, obj=minimum_cost[:, None], vtype="B", name="on")
    start = m.addMVar(
        shape, ub=1, obj=units.startup[:, None], name="start"
    )  # integral by itself: it is as small as rows allow
    piece = m.addMVar((SEGMENTS, *shape), ub=width[:, None], obj=slope[:, :, None], name="piece")
    output = m.addMVar(shape, name="output")
    m.addConstr(output == units.pmin[:, None] * on + piece.sum(axis=0), name="output")

    before = np.arange(hours) - 1  # the hour before the first one is the last one
    m.addConstr(start >= on - on[:, before], name="start")
    for min_up in np.unique(units.min_up):
        group = np.flatnonzero(units.min_up == min_up)
        m.addConstr(start[group] @ started_within(min_up, hours) <= on[group], name=f"up{min_up}h")
    m.addConstr(piece <= width[:, None] * on, name="piece")

    slow = np.flatnonzero(units.ramp < units.pmax)
    ramp = units.ramp[slow, None]
    rise = output[slow] - output[slow][:, before]
    m.addConstr(rise <= ramp * on[slow], name="rise")
    m.addConstr(-rise <= ramp * on[slow][:, before], name="fall")
    return on, output


def commit(system: System, log_level: int = 0, time_limit: float = 120.0) -> Schedule:
    """The cheapest day: on/off decisions from the mixed-integer model, prices from a second solve with them fixed."""
    m = tarvopy.Model("unit commitment")
    on, output = add_units(m, system.units, system.load.shape[1])
    flow, balance = add_network(m, system, output)
    m.params.LogLevel = log_level
    m.params.RelGap = RELATIVE_GAP
    m.params.TimeLimit = time_limit
    m.optimize()
    status, cost, gap, seconds = m.Status, m.ObjVal, m.Gap, m.Runtime

    running = on.X.round()
    on.VType = "C"
    on.LB = running
    on.UB = running
    m.params.LogLevel = 0
    m.optimize()
    return Schedule(status, cost, gap, seconds, running, output.X, flow.X, balance.Pi)


def dispatch(system: System) -> tuple[float, np.ndarray]:
    """Optimal power flow with all units on and linear costs: the cost over all hours in $, output (units, hours)."""
    units, hours = system.units, system.load.shape[1]
    m = tarvopy.Model("dispatch")
    m.params.LogLevel = 0
    output = m.addMVar(
        (len(units), hours), lb=units.pmin[:, None], ub=units.pmax[:, None], obj=units.linear[:, None], name="output"
    )
    add_network(m, system, output)
    m.optimize()
    return m.ObjVal + hours * units.fixed.sum(), output.X
