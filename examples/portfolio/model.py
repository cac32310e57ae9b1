"""The optimisation models of the example, after Markowitz: the least variance for a required return.

    frontier(market)         one model, solved again for each required return: QPs, the last one an LP
    few_stocks(market, ...)  the same with at most FEW stocks in lots of LOT and more: binary variables
    most_return(market, r)   the highest return at risk r: a linear objective and a quadratic row
    best_ratio(market)       the highest ratio of excess return to risk

Weights are shares of the money: none negative (no short selling), none above CAP, 1 in all.

The risk is `w @ covariance @ w`: with twenty stocks and thousands of days the covariance has 210 numbers, the matrix of
returns 166,240. With thousands of stocks and a hundred factors it is the other way round: there one writes
`y == factors.T @ w` and `y @ y`, as benchmarks/families.py does (`factors`).
"""

from collections.abc import Iterator
from dataclasses import dataclass

import numpy as np

import tarvopy
from tarvopy import TRV

from .data import Market

CAP = 0.25
FEW, LOT = 5, 0.15
RELATIVE_GAP = 1e-3  # of the variance, where stocks are chosen
RISK_FREE = 2.5  # % a year: about what three-month treasury bills paid from 1990 to 2022


@dataclass
class Portfolio:
    """A solved portfolio: weights (stocks,), return and risk in % a year."""

    weights: np.ndarray
    mean: float
    risk: float
    status: int
    engine: str  # why it was solved by which engine
    price: float = np.nan  # what one more % of required return adds to the variance; none with binary variables

    @property
    def ratio(self) -> float:
        """Excess return per unit of risk."""
        return (self.mean - RISK_FREE) / self.risk


def holding(market: Market, weights: np.ndarray, m: tarvopy.Model, price: float = np.nan) -> Portfolio:
    """The portfolio that m was solved for."""
    mean, risk = market.mean @ weights, np.sqrt(weights @ market.covariance @ weights)
    return Portfolio(weights, float(mean), float(risk), m.Status, m.why_engine, price)


def new_model(name: str, market: Market) -> tuple[tarvopy.Model, tarvopy.MVar]:
    """A silent model with the weights in it."""
    m = tarvopy.Model(name)
    m.params.LogLevel = 0
    weights = m.addMVar(len(market.names), ub=CAP, name=np.array(market.names))
    m.addConstr(weights.sum() == 1, name="budget")
    return m, weights


def frontier(market: Market, points: int = 40) -> Iterator[Portfolio]:
    """Portfolios of least variance, from the least return worth having to the highest that the weights allow."""
    m, weights = new_model("frontier", market)
    required = m.addConstr(market.mean @ weights >= market.mean.min(), name="required")  # as good as nothing required

    m.setObjective(market.mean @ weights, TRV.MAXIMIZE)
    m.optimize()
    highest = holding(market, weights.X, m)

    m.setObjective(weights @ market.covariance @ weights, TRV.MINIMIZE)
    m.optimize()
    lowest = holding(market, weights.X, m, required.Pi)

    yield lowest
    for mean in np.linspace(lowest.mean, highest.mean, points)[1:-1]:
        required.RHS = mean
        m.optimize()
        yield holding(market, weights.X, m, required.Pi)
    yield highest


def few_stocks(market: Market, means: np.ndarray, time_limit: float = 60.0) -> Iterator[Portfolio]:
    """For each required return the least variance with at most FEW stocks, each with LOT of the money or more."""
    m, weights = new_model("few stocks", market)
    held = m.addMVar(len(market.names), vtype="B", name="held")
    m.addConstr(weights <= CAP * held, name="cap")
    m.addConstr(weights >= LOT * held, name="lot")
    m.addConstr(held.sum() <= FEW, name="few")
    required = m.addConstr(market.mean @ weights >= 0, name="required")
    m.setObjective(weights @ market.covariance @ weights)
    m.params.RelGap = RELATIVE_GAP
    m.params.TimeLimit = time_limit
    for mean in means:
        required.RHS = mean
        m.optimize()
        yield holding(market, weights.X, m)


def most_return(market: Market, risk: float, check: bool = False) -> Portfolio:
    """The highest return at a standard deviation of at most `risk` (% a year); check: prints how well it holds."""
    m, weights = new_model("most return", market)
    m.addConstr(weights @ market.covariance @ weights <= risk**2, name="risk")
    m.setObjective(market.mean @ weights, TRV.MAXIMIZE)
    m.optimize()
    if check:
        m.report()
    return holding(market, weights.X, m)


def best_ratio(market: Market) -> Portfolio:
    """The portfolio with the highest ratio of excess return to risk.

    The ratio does not change when all amounts are multiplied, so they are scaled until the excess return is 1; what is
    left is the least variance. The weights are the amounts' shares.
    """
    m = tarvopy.Model("best ratio")
    m.params.LogLevel = 0
    amount = m.addMVar(len(market.names), name=np.array(market.names))
    m.addConstr((market.mean - RISK_FREE) @ amount == 1, name="excess")
    m.addConstr(amount <= CAP * amount.sum(), name="cap")
    m.setObjective(amount @ market.covariance @ amount)
    m.optimize()
    return holding(market, amount.X / amount.X.sum(), m)
