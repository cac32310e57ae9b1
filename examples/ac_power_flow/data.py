"""The data of the example: a network out of pypower's collection as arrays of one entry a bus, line or unit.

`load("case9")` gives one `System`. Powers are in units of the case's base power (100 MVA in the cases used here),
voltages in units of each bus's rated voltage, angles in radians, costs in $/h for powers in those units.

A line's ends are called first and second. With complex voltages V the power that enters a line is

    at its first end    V1 * conj(self_first * V1 + mutual_first * V2)
    at its second end   V2 * conj(self_second * V2 + mutual_second * V1)

with complex admittances that hold the line, its charging and its transformer (taps and phase shifts).
"""

from dataclasses import dataclass

import numpy as np
import scipy.sparse as sp
from pypower import api
from pypower.idx_brch import BR_B, BR_R, BR_STATUS, BR_X, F_BUS, RATE_A, SHIFT, T_BUS, TAP
from pypower.idx_bus import BS, BUS_I, BUS_TYPE, GS, PD, QD, REF, VMAX, VMIN
from pypower.idx_cost import COST, MODEL, NCOST, POLYNOMIAL
from pypower.idx_gen import GEN_BUS, GEN_STATUS, PMAX, PMIN, QMAX, QMIN

UNLIMITED = 9900  # MVA: how the cases write that a line has no limit, besides 0


@dataclass
class System:
    """A network. Pairs of rows are active and reactive power."""

    base: float  # MVA
    demand: np.ndarray  # (2, buses)
    shunt: np.ndarray  # (buses,), complex admittance to ground
    vmin: np.ndarray  # (buses,)
    vmax: np.ndarray
    reference: int  # the bus whose angle is 0
    line_from: np.ndarray  # (lines,), position of the first bus
    line_to: np.ndarray
    limit: np.ndarray  # (lines,), apparent power at either end; infinite where there is none
    self_first: np.ndarray  # (lines,), complex
    mutual_first: np.ndarray
    self_second: np.ndarray
    mutual_second: np.ndarray
    unit_bus: np.ndarray  # (units,), position of its bus
    pmin: np.ndarray  # (2, units)
    pmax: np.ndarray
    cost: np.ndarray  # (3, units): quadratic, linear, fixed

    @property
    def buses(self) -> int:
        return len(self.vmin)

    @property
    def lines(self) -> int:
        return len(self.limit)

    @property
    def units(self) -> int:
        return len(self.unit_bus)

    @property
    def at_bus(self) -> sp.csr_array:
        """(buses, units): which unit feeds which bus."""
        return _choice(self.unit_bus, self.buses).T.tocsr()

    @property
    def first(self) -> sp.csr_array:
        """(lines, buses): picks each line's first bus."""
        return _choice(self.line_from, self.buses)

    @property
    def second(self) -> sp.csr_array:
        return _choice(self.line_to, self.buses)

    @property
    def line_names(self) -> list[str]:
        return [f"{a}-{b}" for a, b in zip(self.line_from + 1, self.line_to + 1, strict=True)]


def _choice(column: np.ndarray, columns: int) -> sp.csr_array:
    """A matrix with a single 1 in each row."""
    return sp.csr_array((np.ones(len(column)), (np.arange(len(column)), column)), (len(column), columns))


def case(name: str, rating: float = 1.0) -> dict:
    """The case as pypower has it, lines at `rating` times their ratings."""
    found = getattr(api, name)()
    found["branch"][:, RATE_A] *= rating
    return found


def load(name: str, rating: float = 1.0) -> System:
    """The network of one of pypower's cases that has quadratic costs, lines at `rating` times their ratings."""
    tables = case(name, rating)
    base, bus = tables["baseMVA"], tables["bus"]
    line = tables["branch"][tables["branch"][:, BR_STATUS] == 1]
    running = tables["gen"][:, GEN_STATUS] > 0
    unit = tables["gen"][running]
    position = {number: place for place, number in enumerate(bus[:, BUS_I])}
    limited = (line[:, RATE_A] > 0) & (line[:, RATE_A] < UNLIMITED)
    self_first, mutual_first, self_second, mutual_second = _admittances(line)
    return System(
        base=base,
        demand=bus[:, [PD, QD]].T / base,
        shunt=(bus[:, GS] + 1j * bus[:, BS]) / base,
        vmin=bus[:, VMIN],
        vmax=bus[:, VMAX],
        reference=int(np.flatnonzero(bus[:, BUS_TYPE] == REF)[0]),
        line_from=np.array([position[number] for number in line[:, F_BUS]]),
        line_to=np.array([position[number] for number in line[:, T_BUS]]),
        limit=np.where(limited, line[:, RATE_A] / base, np.inf),
        self_first=self_first,
        mutual_first=mutual_first,
        self_second=self_second,
        mutual_second=mutual_second,
        unit_bus=np.array([position[number] for number in unit[:, GEN_BUS]]),
        pmin=unit[:, [PMIN, QMIN]].T / base,
        pmax=unit[:, [PMAX, QMAX]].T / base,
        cost=_costs(tables["gencost"][: len(running)][running], base),
    )


def _admittances(line: np.ndarray) -> tuple[np.ndarray, ...]:
    """What the two ends of each line make of the voltages, see the top of the file; a transformer is at the first."""
    series = 1 / (line[:, BR_R] + 1j * line[:, BR_X])
    ratio = np.where(line[:, TAP] == 0, 1.0, line[:, TAP]) * np.exp(1j * np.radians(line[:, SHIFT]))
    at_second = series + 0.5j * line[:, BR_B]
    return at_second / np.abs(ratio) ** 2, -series / ratio.conj(), at_second, -series / ratio


def _costs(cost: np.ndarray, base: float) -> np.ndarray:
    if (cost[:, MODEL] != POLYNOMIAL).any() or (cost[:, NCOST] != 3).any():
        raise ValueError("this example takes quadratic costs only")
    return cost[:, COST : COST + 3].T * base ** np.array([[2], [1], [0]])
