"""The alternating-current example against pypower, and its answers against Kirchhoff's laws in complex numbers."""

import numpy as np
import pytest

pytest.importorskip("pypower")
pytest.importorskip("matplotlib")
pytest.importorskip("pyscipopt")
from pypower.api import ppoption, runopf
from pypower.idx_bus import LAM_P, VA, VM
from pypower.idx_gen import PG

from examples.ac_power_flow import data, model, report
from tarvopy import TRV


def reference(name, rating):
    found = runopf(data.case(name, rating), ppoption(VERBOSE=0, OUT_ALL=0))
    assert found["success"]
    return found


@pytest.fixture(scope="module")
def congested():
    """Nine buses with lines at half their ratings: one of them is full."""
    system = data.load("case9", 0.5)
    return system, model.solve(system)


@pytest.mark.parametrize(("name", "cost"), [("case9", 5296.6862), ("case14", 8081.5263)])
def test_cost_and_voltages_are_those_of_the_reference_program(name, cost):
    system = data.load(name)
    operation = model.solve(system)
    wanted = reference(name, 1.0)
    assert operation.status == TRV.OPTIMAL
    assert operation.gap <= model.RELATIVE_GAP
    assert operation.bound <= cost + 1e-3
    assert operation.cost == pytest.approx(cost, rel=1e-4)
    assert operation.cost == pytest.approx(wanted["f"], rel=1e-4)
    np.testing.assert_allclose(system.base * operation.output[0], wanted["gen"][:, PG], atol=2)
    np.testing.assert_allclose(operation.voltage, wanted["bus"][:, VM], atol=5e-3)
    np.testing.assert_allclose(np.degrees(operation.angle), wanted["bus"][:, VA], atol=0.3)


def test_powers_follow_from_voltages_and_balance_at_every_bus(congested):
    system, operation = congested
    voltage = operation.voltage * np.exp(1j * operation.angle)
    at_first, at_second = voltage[system.line_from], voltage[system.line_to]
    first = at_first * np.conj(system.self_first * at_first + system.mutual_first * at_second)
    second = at_second * np.conj(system.self_second * at_second + system.mutual_second * at_first)
    np.testing.assert_allclose([first.real, first.imag], operation.entering_first, atol=2e-4)
    np.testing.assert_allclose([second.real, second.imag], operation.entering_second, atol=2e-4)
    output = operation.output[0] + 1j * operation.output[1]
    leaving = system.first.T @ first + system.second.T @ second + np.conj(system.shunt) * np.abs(voltage) ** 2
    balance = system.at_bus @ output - leaving - (system.demand[0] + 1j * system.demand[1])
    np.testing.assert_allclose(np.abs(balance), 0, atol=1e-3)


def test_answer_keeps_to_its_limits_and_one_line_is_full(congested):
    system, operation = congested
    assert (operation.voltage >= system.vmin - 1e-6).all()
    assert (operation.voltage <= system.vmax + 1e-6).all()
    assert (operation.output >= system.pmin - 1e-6).all()
    assert (operation.output <= system.pmax + 1e-6).all()
    loading = operation.apparent / system.limit
    assert [name for name, share in zip(system.line_names, loading, strict=True) if share > 1 - 1e-4] == ["8-2"]
    assert loading.max() <= 1 + 1e-5
    assert (operation.losses >= -1e-6).all()
    difference = operation.angle[system.line_from] - operation.angle[system.line_to]
    assert np.abs(difference).max() < model.WIDEST - 0.1  # the assumed bound is not what shapes the answer


def test_prices_are_the_multipliers_of_the_reference_program():
    price = model.prices(data.load("case9"))
    np.testing.assert_allclose(price, reference("case9", 1.0)["bus"][:, LAM_P], rtol=5e-3)


def test_tables_and_picture(congested, tmp_path):
    system, operation = congested
    price = np.linspace(22, 26, system.buses)
    assert "26.00" in report.buses(system, operation, price).splitlines()[-1]
    assert f"{operation.cost:.3f}" in report.line("case9", 0.5, operation, 5309.8)
    report.picture([("half", system, operation, price)], tmp_path / "flow.png")
    assert (tmp_path / "flow.png").read_bytes().startswith(b"\x89PNG")


def test_data_refuse_costs_that_are_no_quadratics():
    with pytest.raises(ValueError, match="quadratic costs only"):
        data.load("case30pwl")
