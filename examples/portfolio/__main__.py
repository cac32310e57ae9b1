"""Draws the frontier and the portfolios on it, prints the figures, and holds one answer against its model."""

from pathlib import Path
from time import perf_counter

import numpy as np

from . import data, model, report

OUT = Path("out/portfolio.png")
LIMITED = 6  # portfolios of few stocks


def main() -> None:
    market = data.load()
    print(f"{len(market.names)} stocks, {market.days} daily returns from {market.first} to {market.last}")
    start = perf_counter()
    frontier = list(model.frontier(market))
    print(f"frontier: {len(frontier)} portfolios from one model in {perf_counter() - start:.2f} s")
    start = perf_counter()
    few = list(model.few_stocks(market, np.linspace(frontier[0].mean, frontier[-1].mean, LIMITED)))
    print(f"at most {model.FEW} stocks: {len(few)} portfolios in {perf_counter() - start:.2f} s")
    best = model.best_ratio(market)
    print("\nmost return at the risk of the S&P 500, held against its model")
    bold = model.most_return(market, market.index[1], check=True)
    named = {
        "least variance": frontier[0],
        f"least variance, {model.FEW} stocks": few[0],
        "max Sharpe": best,
        "the S&P 500's risk": bold,
        "highest return": frontier[-1],
    }
    print("\n" + report.figures(market, named))
    print("\n" + report.engines(named))
    report.picture(market, frontier, few, best, OUT)
    print(f"\npicture: {OUT}")


main()
