"""Draws the frontier and the portfolios on it, prints the figures, and holds one answer against its model."""

from pathlib import Path
from time import perf_counter

import numpy as np

from . import data, model, report

OUT = Path("out/portfolio.png")
LIMITED = 8  # portfolios of few stocks


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
    bold = model.most_return(market, market.index[1])
    print("\nwhich engine, and why")
    for name, portfolio in (("highest return", frontier[-1]), ("least variance", frontier[0]), ("few", few[0]), ("risk of the S&P 500", bold)):
        print(f"  {name:<21}{portfolio.engine}")
    print("\n" + report.figures(market, {
        "least variance": frontier[0], f"  of {model.FEW} stocks": few[0], "max Sharpe": best,
        "S&P 500's risk at most": bold, "highest return": frontier[-1],
    }))  # fmt: skip
    report.picture(market, frontier, few, best, OUT)
    print(f"\npicture: {OUT}")


main()
