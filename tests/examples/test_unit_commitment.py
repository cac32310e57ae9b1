"""The unit commitment example against a reference program, and against the rules that its answer must obey."""

import numpy as np
import pytest

pytest.importorskip("pypower")
from pypower.api import case24_ieee_rts, ppoption, rundcopf
from pypower.idx_brch import RATE_A
from pypower.idx_cost import COST

from examples.unit_commitment import data, model, report
from tarvopy import TRV


def reference_cost(rating):
    """pypower's optimal DC power flow of the case with the quadratic costs left out."""
    case = case24_ieee_rts()
    case["gencost"][:, COST] = 0
    case["branch"][:, RATE_A] *= rating
    result = rundcopf(case, ppoption(VERBOSE=0, OUT_ALL=0))
    assert result["success"]
    return result["f"]


@pytest.mark.parametrize("rating", [1.0, 0.7])
def test_one_hour_dispatch_costs_what_pypower_says(rating):
    cost, output = model.dispatch(data.load(np.array([100.0]), rating))
    assert cost == pytest.approx(reference_cost(rating), rel=1e-6)
    assert output.sum() == pytest.approx(2850)
    if rating == 1.0:
        assert cost == pytest.approx(58448.6388, rel=1e-6)


@pytest.fixture(scope="module")
def short_day():
    """Six hours out of the day, cyclic like the whole one."""
    system = data.load(data.WINTER_WEEKDAY[[3, 7, 10, 17, 20, 23]])
    return system, model.commit(system)


def test_schedule_obeys_units_and_network(short_day):
    system, day = short_day
    units = system.units
    assert day.status == TRV.OPTIMAL
    assert day.gap <= model.RELATIVE_GAP
    assert np.isin(day.on, (0, 1)).all()
    assert (day.output >= units.pmin[:, None] * day.on - 1e-6).all()
    assert (day.output <= units.pmax[:, None] * day.on + 1e-6).all()
    change = np.abs(day.output - np.roll(day.output, 1, axis=1))
    assert (change <= units.ramp[:, None] + 1e-6).all()
    injected = system.at_bus @ day.output - system.load
    np.testing.assert_allclose(system.incidence.T @ day.flow, injected, atol=1e-5)
    assert (np.abs(day.flow) <= system.limit[:, None] + 1e-6).all()


def test_units_stay_on_for_their_minimum_up_time(short_day):
    system, day = short_day
    hours = day.on.shape[1]
    started = day.on > np.roll(day.on, 1, axis=1)
    for unit, hour in zip(*np.nonzero(started), strict=True):
        stay = min(system.units.min_up[unit], hours)
        assert day.on[unit, (hour + np.arange(stay)) % hours].all()


def test_cost_is_what_units_cost_and_price_is_what_a_mw_more_costs(short_day):
    system, day = short_day
    units = system.units
    base, width, slope = model.segments(units)
    above = (day.output - units.pmin[:, None] * day.on)[None]
    edges = width[:, None] * np.arange(model.SEGMENTS)[:, None, None]
    pieces = np.clip(above - edges, 0, width[:, None])
    starts = (day.on > np.roll(day.on, 1, axis=1)).sum(axis=1)
    running = (base[:, None] * day.on).sum() + (slope[:, :, None] * pieces).sum() + units.startup @ starts
    assert day.cost == pytest.approx(running, rel=1e-6)
    assert day.price.shape == system.load.shape
    assert 0 < np.median(day.price) < 150


def test_report_names_every_unit_and_draws_a_picture(short_day, tmp_path):
    system, day = short_day
    text = report.table(system, day)
    assert all(name in text for name in system.units.names)
    assert f"{day.cost:,.0f} $" in text
    report.picture(system, day, tmp_path / "day.png")
    assert (tmp_path / "day.png").read_bytes().startswith(b"\x89PNG")
