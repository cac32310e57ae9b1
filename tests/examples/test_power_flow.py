"""A DC optimal power flow with quadratic costs, 118 buses, against a reference program."""

import numpy as np
import pytest
import scipy.sparse as sp

pytest.importorskip("pypower")
from pypower.api import case118, ext2int, makeBdc, ppoption, rundcopf
from pypower.idx_brch import RATE_A
from pypower.idx_bus import BUS_TYPE, GS, PD, REF, VA
from pypower.idx_cost import COST
from pypower.idx_gen import GEN_BUS, PG, PMAX, PMIN

import tarvopy


def optimal_power_flow(case):
    """(cost in $/h, outputs in MW) of the case: angles in radians, powers in units of the base power."""
    base, bus, gen = case["baseMVA"], case["bus"], case["gen"]
    at_bus, flow, injection, shift = makeBdc(base, bus, case["branch"])
    quadratic, linear, fixed = case["gencost"][: len(gen), COST : COST + 3].T
    units = len(gen)
    feeds = sp.csr_array((np.ones(units), (gen[:, GEN_BUS].astype(int), np.arange(units))), shape=(len(bus), units))

    m = tarvopy.Model("power flow")
    m.params.LogLevel = 0
    output = m.addMVar(units, lb=gen[:, PMIN] / base, ub=gen[:, PMAX] / base, name="output")
    angle = m.addMVar(len(bus), lb=-np.inf, name="angle")
    reference = bus[:, BUS_TYPE] == REF
    m.addConstr(angle[reference] == np.radians(bus[reference, VA]))
    balance = m.addConstr(feeds @ output - at_bus @ angle == injection + (bus[:, PD] + bus[:, GS]) / base)
    limited = np.flatnonzero((case["branch"][:, RATE_A] > 0) & (case["branch"][:, RATE_A] < 1e10))
    if limited.size:
        limit = case["branch"][limited, RATE_A] / base
        m.addRange(flow[limited] @ angle + shift[limited], -limit, limit)
    cost = (quadratic * base**2 * output) @ output + (linear * base) @ output + fixed.sum()
    m.setObjective(cost)
    m.optimize()
    return m, base * output.X, balance.Pi / base


def test_cost_outputs_and_prices_are_those_of_the_reference_program():
    case = case118()
    m, output, price = optimal_power_flow(ext2int(case))
    wanted = rundcopf(case, ppoption(VERBOSE=0, OUT_ALL=0))
    assert wanted["success"]
    assert m.Status == tarvopy.TRV.OPTIMAL
    assert m.EngineName.startswith("Clarabel")
    assert m.ObjVal == pytest.approx(125947.8727, rel=1e-7)
    assert m.ObjVal == pytest.approx(wanted["f"], rel=1e-7)
    np.testing.assert_allclose(output, wanted["gen"][:, PG], atol=1e-3)
    np.testing.assert_allclose(price, wanted["bus"][:, 13], rtol=1e-5)
