"""The data of the example: the IEEE 24-bus reliability test system over one winter weekday.

`load()` gives one `System`: buses, lines and units as NumPy arrays, powers in MW, costs in $ and $/h. The network, the
limits and the costs are `case24_ieee_rts` of the package pypower. The case has no ramps, minimum up times and hourly
loads; they are those that the test system's authors published (IEEE Reliability Test System, IEEE Trans. Power
Apparatus and Systems 98 (6), 1979, tables 1, 4, 5, 8 and 9), by unit size.
"""

from dataclasses import dataclass

import numpy as np
import scipy.sparse as sp
from pypower.case24_ieee_rts import case24_ieee_rts
from pypower.idx_brch import BR_STATUS, BR_X, F_BUS, RATE_A, SHIFT, T_BUS, TAP
from pypower.idx_bus import BUS_I, BUS_TYPE, GS, PD, REF
from pypower.idx_cost import COST, STARTUP
from pypower.idx_gen import GEN_BUS, PMAX, PMIN

# Hourly load of a winter weekday in % of the day's peak, from midnight on.
WINTER_WEEKDAY = np.array(
    [67, 63, 60, 59, 59, 60, 74, 86, 95, 96, 96, 95, 95, 95, 93, 94, 99, 100, 100, 96, 91, 83, 73, 63], dtype=float
)
# Unit size in MW: (minimum up time in h, ramp in MW a minute). A hydro unit of 50 MW is free in both.
FLEXIBILITY = {
    12: (4, 1.0),
    20: (1, 3.0),
    50: (1, np.inf),
    76: (8, 2.0),
    100: (8, 7.0),
    155: (8, 3.0),
    197: (12, 3.0),
    350: (24, 4.0),
    400: (1, 20.0),
}


@dataclass
class Units:
    """One entry a unit, in the order of the case."""

    bus: np.ndarray  # position of its bus
    pmin: np.ndarray  # output when on, MW
    pmax: np.ndarray
    startup: np.ndarray  # $ a start
    quadratic: np.ndarray  # running cost: quadratic p**2 + linear p + fixed, $/h
    linear: np.ndarray
    fixed: np.ndarray
    min_up: np.ndarray  # h
    ramp: np.ndarray  # MW an hour

    def __len__(self) -> int:
        return len(self.bus)

    @property
    def names(self) -> list[str]:
        """`bus 7, 100 MW b`: bus, size, and a letter where equal units share a bus."""
        kinds = [f"bus {bus}, {size:.0f} MW" for bus, size in zip(self.bus + 1, self.pmax, strict=True)]
        letters = [f" {chr(ord('a') + kinds[:place].count(kind))}" for place, kind in enumerate(kinds)]
        return [kind + letter * (kinds.count(kind) > 1) for kind, letter in zip(kinds, letters, strict=True)]


@dataclass
class System:
    """A network with its units and a load for each bus and hour.

    Flows over lines are `flow_matrix @ angle + flow_shift`; what leaves each bus into lines is `incidence.T @ flow`.
    Angles are in radians times the case's base power, so that flows come out in MW and the numbers of a model stay near
    each other.
    """

    units: Units
    line_from: np.ndarray  # position of a line's first bus
    line_to: np.ndarray
    limit: np.ndarray  # MW, either way
    incidence: sp.csr_array  # (lines, buses): +1 first bus, -1 second bus
    flow_matrix: sp.csr_array  # (lines, buses), reactances and transformer ratios
    flow_shift: np.ndarray  # MW, of phase shifters
    at_bus: sp.csr_array  # (buses, units): which unit feeds which bus
    reference: int  # the bus whose angle is 0
    load: np.ndarray  # (buses, hours), MW

    @property
    def line_names(self) -> list[str]:
        return [f"{a}-{b}" for a, b in zip(self.line_from + 1, self.line_to + 1, strict=True)]


def load(profile: np.ndarray = WINTER_WEEKDAY, rating: float = 0.7) -> System:
    """The system under load `profile` (hourly, % of the case's load), lines at `rating` times their ratings."""
    case = case24_ieee_rts()
    bus, branch, units = case["bus"], case["branch"], _units(case)
    branch = branch[branch[:, BR_STATUS] == 1]
    position = {number: place for place, number in enumerate(bus[:, BUS_I])}
    first = np.array([position[number] for number in branch[:, F_BUS]])
    second = np.array([position[number] for number in branch[:, T_BUS]])
    lines, buses = np.arange(len(branch)), len(bus)

    ones = np.ones(len(branch))
    incidence = sp.csr_array((np.r_[ones, -ones], (np.r_[lines, lines], np.r_[first, second])), (len(branch), buses))
    ratio = np.where(branch[:, TAP] == 0, 1.0, branch[:, TAP])
    susceptance = 1 / (branch[:, BR_X] * ratio)
    return System(
        units=units,
        line_from=first,
        line_to=second,
        limit=rating * branch[:, RATE_A],
        incidence=incidence,
        flow_matrix=sp.csr_array(incidence.multiply(susceptance[:, None])),
        flow_shift=-susceptance * np.radians(branch[:, SHIFT]) * case["baseMVA"],
        at_bus=sp.csr_array((np.ones(len(units)), (units.bus, np.arange(len(units)))), (buses, len(units))),
        reference=int(np.flatnonzero(bus[:, BUS_TYPE] == REF)[0]),
        load=np.outer(bus[:, PD], profile / 100) + bus[:, GS][:, None],
    )


def _units(case: dict) -> Units:
    """All units but the condenser at bus 14, which gives no active power."""
    keep = case["gen"][:, PMAX] > 0
    gen, cost = case["gen"][keep], case["gencost"][keep]
    position = {number: place for place, number in enumerate(case["bus"][:, BUS_I])}
    flexibility = np.array([FLEXIBILITY[int(size)] for size in gen[:, PMAX]])
    quadratic, linear, fixed = cost[:, COST : COST + 3].T
    return Units(
        bus=np.array([position[number] for number in gen[:, GEN_BUS]]),
        pmin=gen[:, PMIN],
        pmax=gen[:, PMAX],
        startup=cost[:, STARTUP],
        quadratic=quadratic,
        linear=linear,
        fixed=fixed,
        min_up=flexibility[:, 0].astype(int),
        ramp=60 * flexibility[:, 1],
    )
