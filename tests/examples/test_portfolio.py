"""The portfolio example: its frontier against other solutions of the same problem, and against what a frontier is."""

import dataclasses
import itertools

import numpy as np
import pytest
from scipy import optimize

pytest.importorskip("matplotlib")
from examples.portfolio import data, model, report
from tarvopy import TRV

try:
    data.load()
except ModuleNotFoundError as missing:
    pytest.skip(str(missing), allow_module_level=True)


@pytest.fixture(scope="module")
def market():
    return data.load()


@pytest.fixture(scope="module")
def frontier(market):
    return list(model.frontier(market, points=12))


def slsqp(market, required, choice=None, lot=0.0):
    """The least risk for a required return by SciPy's general-purpose method, over the stocks in `choice`; infinite
    where there is none.
    """
    choice = np.arange(len(market.names)) if choice is None else np.array(choice)
    mean, covariance = market.mean[choice], market.covariance[np.ix_(choice, choice)] / 1000
    rows = [
        {"type": "eq", "fun": lambda w: w.sum() - 1, "jac": np.ones_like},
        {"type": "ineq", "fun": lambda w: mean @ w - required, "jac": lambda w: mean},
    ]
    found = optimize.minimize(
        lambda w: w @ covariance @ w,
        np.full(len(choice), 1 / len(choice)),
        jac=lambda w: 2 * covariance @ w,
        bounds=[(lot, model.CAP)] * len(choice),
        constraints=rows,
        method="SLSQP",
        options={"ftol": 1e-12, "maxiter": 500},
    )
    return (1000 * found.fun) ** 0.5 if found.success else np.inf


def equality_solution(market, held):
    """The least variance over the stocks in `held` by its linear optimality system: weights sum to 1, no bounds."""
    count = len(held)
    system = np.zeros((count + 1, count + 1))
    system[:count, :count] = 2 * market.covariance[np.ix_(held, held)]
    system[count, :count] = system[:count, count] = 1
    return np.linalg.solve(system, np.r_[np.zeros(count), 1])[:count]


def test_data_are_the_prices_of_twenty_companies(market):
    assert len(market.names) == 20
    assert market.days == 8312
    assert np.linalg.eigvalsh(market.covariance)[0] > 0
    apple = market.names.index("AAPL")
    assert (market.mean[apple], market.risk[apple]) == pytest.approx((28.3, 43.4), abs=0.05)
    assert market.index == pytest.approx((8.81, 18.29), abs=0.01)
    assert data.load("2013-01-01").days == 2515


def test_frontier_is_convex_and_its_weights_obey_the_rules(market, frontier):
    weights = np.array([portfolio.weights for portfolio in frontier])
    assert [portfolio.status for portfolio in frontier] == [TRV.OPTIMAL] * 12
    assert weights.min() >= -1e-7
    assert weights.max() <= model.CAP + 1e-7
    np.testing.assert_allclose(weights.sum(axis=1), 1, atol=1e-7)
    mean, variance = np.array([(portfolio.mean, portfolio.risk**2) for portfolio in frontier]).T
    slopes = np.diff(variance) / np.diff(mean)
    assert (slopes > 0).all()
    assert (np.diff(slopes) > 0).all()


def test_the_price_of_return_is_the_slope_of_the_frontier(frontier):
    """Variance is convex in the required return: each price lies between the slopes on either side."""
    mean, variance = np.array([(portfolio.mean, portfolio.risk**2) for portfolio in frontier]).T
    slopes = np.diff(variance) / np.diff(mean)
    prices = np.array([portfolio.price for portfolio in frontier])
    assert prices[0] == pytest.approx(0, abs=1e-4)
    assert (prices[1:-1] >= slopes[:-1] - 1e-4).all()
    assert (prices[1:-1] <= slopes[1:] + 1e-4).all()


def test_least_variance_solves_its_linear_optimality_system(market, frontier):
    weights = frontier[0].weights
    held = np.flatnonzero(weights > 1e-4)
    assert weights.max() < model.CAP - 1e-3
    np.testing.assert_allclose(weights[held], equality_solution(market, held), atol=1e-5)


@pytest.mark.parametrize("place", [0, 4, 8, 10])
def test_risk_is_what_another_method_finds(market, frontier, place):
    assert frontier[place].risk == pytest.approx(slsqp(market, frontier[place].mean), rel=1e-6)


def test_quadratic_row_and_ratio_lead_to_the_same_frontier(market, frontier):
    bold = model.most_return(market, frontier[5].risk)
    assert bold.mean == pytest.approx(frontier[5].mean, rel=1e-5)
    np.testing.assert_allclose(bold.weights, frontier[5].weights, atol=1e-3)
    best = model.best_ratio(market)
    assert best.risk == pytest.approx(slsqp(market, best.mean), rel=1e-6)
    assert best.ratio >= max(portfolio.ratio for portfolio in frontier)


def test_few_stocks_are_the_best_of_all_choices(market):
    some = dataclasses.replace(
        market, names=market.names[:8], mean=market.mean[:8], covariance=market.covariance[:8, :8]
    )
    required = 22.0
    (few,) = model.few_stocks(some, [required])
    held = few.weights[few.weights > 1e-6]
    assert few.status == TRV.OPTIMAL
    assert len(held) <= model.FEW
    assert held.min() >= model.LOT - 1e-6
    assert few.mean >= required - 1e-6
    choices = (choice for size in (4, 5) for choice in itertools.combinations(range(8), size))
    least = min(slsqp(some, required, choice, model.LOT) for choice in choices)
    assert few.risk**2 == pytest.approx(least**2, rel=1.1 * model.RELATIVE_GAP)


def test_engines_are_picked_by_what_each_problem_holds(market, frontier):
    assert frontier[0].engine.startswith("Clarabel: convex quadratic objective")
    assert frontier[-1].engine.startswith("HiGHS: linear")


def test_report_and_picture(market, frontier, tmp_path):
    text = report.figures(market, {"least variance": frontier[0]})
    assert f"{frontier[0].risk:.2f}" in text
    assert report.holdings(market, frontier[-1]) == "AAPL 25, AMD 25, BBY 25, UNH 25"
    report.picture(market, frontier, frontier[2:5], frontier[6], tmp_path / "portfolio.png")
    assert (tmp_path / "portfolio.png").read_bytes().startswith(b"\x89PNG")
