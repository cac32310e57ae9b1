"""What the example shows of the portfolios: key figures on the terminal and one picture."""

from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np

from .data import Market
from .model import CAP, FEW, LOT, RISK_FREE, Portfolio

INK, ALL, SOME, MARK = "#22313f", "#1f6f8b", "#d1603d", "#8a97a3"
# Where a label stands beside its dot: (to the right, up) in points.
ABOVE, LEFT, RIGHT = (0, 9), (-8, -3), (9, -3)
CROWDED = {"PG": (-17, -8), "PEP": (0, 6), "WMT": (-25, 4), "XOM": (-10, -12), "PFE": (-22, 4)}  # in a crowd of dots


def figures(market: Market, portfolios: dict[str, Portfolio]) -> str:
    """A line for each named portfolio: return, risk, ratio, and the largest holdings."""
    lines = [f"{'':<26}{'return %':>9}{'risk %':>8}{'ratio':>7}   holdings"]
    for name, p in portfolios.items():
        lines.append(f"{name:<26}{p.mean:>9.2f}{p.risk:>8.2f}{p.ratio:>7.2f}   {holdings(market, p)}")
    mean, risk = market.index
    lines.append(f"{'S&P 500 (no dividends)':<26}{mean:>9.2f}{risk:>8.2f}{(mean - RISK_FREE) / risk:>7.2f}")
    return "\n".join(lines)


def engines(portfolios: dict[str, Portfolio]) -> str:
    """Which engine solved each portfolio, and why that one."""
    return "\n".join(f"{name:<26}{portfolio.engine}" for name, portfolio in portfolios.items())


def holdings(market: Market, portfolio: Portfolio, most: int = 6) -> str:
    """The largest holdings in %, as `JNJ 22, WMT 17, ... 9 more`."""
    order = [stock for stock in np.argsort(-portfolio.weights) if portfolio.weights[stock] >= 5e-4]
    shown = ", ".join(f"{market.names[stock]} {100 * portfolio.weights[stock]:.0f}" for stock in order[:most])
    return shown + (f", {len(order) - most} more" if len(order) > most else "")


def equal_weights(market: Market) -> tuple[float, float]:
    """Return and risk of the same share of every stock."""
    weights = np.full(len(market.names), 1 / len(market.names))
    return float(market.mean @ weights), float(np.sqrt(weights @ market.covariance @ weights))


def picture(market: Market, frontier: list[Portfolio], few: list[Portfolio], best: Portfolio, path: Path) -> None:
    """Efficient frontier above, what its portfolios hold below, as a PNG."""
    figure, (above, below) = plt.subplots(
        2, 1, figsize=(11.5, 11.5), height_ratios=[1.75, 1], layout="constrained", facecolor="white"
    )
    _draw_frontier(above, market, frontier, few, best)
    _draw_composition(below, market, frontier, best)
    years = f"{market.first.astype('datetime64[Y]')} to {market.last.astype('datetime64[Y]')}"
    figure.suptitle(
        f"Twenty stocks of the S&P 500, daily prices {years}: no short selling, at most {100 * CAP:.0f} % in one",
        fontsize=13, color=INK,
    )  # fmt: skip
    for axes in (above, below):
        axes.spines[["top", "right"]].set_visible(False)
        axes.tick_params(colors=INK)
    path.parent.mkdir(parents=True, exist_ok=True)
    figure.savefig(path, dpi=130)
    plt.close(figure)


def _draw_frontier(axes, market: Market, frontier: list[Portfolio], few: list[Portfolio], best: Portfolio) -> None:
    axes.plot(market.risk, market.mean, "o", color=MARK, markersize=5, label="single stocks", zorder=2)
    for name, risk, mean in zip(market.names, market.risk, market.mean, strict=True):
        axes.annotate(name, (risk, mean), CROWDED.get(name, (5, 3)), textcoords="offset points", fontsize=8, color=MARK)
    line = np.array([0.0, 1.35 * best.risk])
    axes.plot(line, RISK_FREE + best.ratio * line, ":", color=INK, linewidth=1, label="riskless money and max Sharpe")
    axes.plot(*_points(frontier), "-", color=ALL, linewidth=2.5, label="efficient frontier", zorder=3)
    axes.plot(
        *_points(few), "s--", color=SOME, markersize=5, linewidth=1.2, zorder=4,
        label=f"at most {FEW} stocks, each {100 * LOT:.0f} % or more",
    )  # fmt: skip
    for text, (mean, risk), colour, marker, place in (
        ("least variance", (frontier[0].mean, frontier[0].risk), ALL, "D", LEFT),
        ("max Sharpe", (best.mean, best.risk), ALL, "*", ABOVE),
        ("equal weights", equal_weights(market), INK, "^", RIGHT),
        ("S&P 500\n(no dividends)", market.index, INK, "v", RIGHT),
    ):
        axes.plot(risk, mean, marker, color=colour, markersize=15 if marker == "*" else 8, zorder=5)
        side = "left" if place == RIGHT else "right"
        axes.annotate(text, (risk, mean), place, textcoords="offset points", ha=side, color=colour, weight="bold")
    axes.set(xlim=(0, 1.06 * market.risk.max()), ylim=(0, 1.08 * max(market.mean.max(), frontier[-1].mean)))
    axes.set_xlabel("risk: standard deviation (% a year)", color=INK)
    axes.set_ylabel("mean return (% a year)", color=INK)
    axes.grid(color="#e6eaee", linewidth=0.8)
    axes.set_axisbelow(True)
    axes.legend(loc="lower right", frameon=False)


def _points(portfolios: list[Portfolio]) -> tuple[list[float], list[float]]:
    return [p.risk for p in portfolios], [p.mean for p in portfolios]


def _draw_composition(axes, market: Market, frontier: list[Portfolio], best: Portfolio) -> None:
    """Shares along the frontier, the stocks that are held longest at the bottom."""
    weights = 100 * np.array([portfolio.weights for portfolio in frontier]).T
    held = np.flatnonzero(weights.max(axis=1) > 0.5)
    means = [portfolio.mean for portfolio in frontier]
    centre = (weights[held] @ means) / weights[held].sum(axis=1)  # a stock's place along the frontier
    order = held[np.argsort(centre)]
    colours = plt.get_cmap("Spectral")(np.linspace(0.98, 0.02, len(order)))
    axes.stackplot(
        means, weights[order], labels=[market.names[stock] for stock in order], colors=colours, edgecolor="white",
        linewidth=0.6,
    )  # fmt: skip
    axes.axvline(best.mean, color=INK, linestyle=":", linewidth=1)
    axes.annotate("max Sharpe", (best.mean, 100), (4, 4), textcoords="offset points", fontsize=9, color=INK)
    axes.set(xlim=(means[0], means[-1]), ylim=(0, 100))
    axes.set_xlabel("mean return of the portfolio along the frontier (% a year)", color=INK)
    axes.set_ylabel("share (%)", color=INK)
    handles, labels = axes.get_legend_handles_labels()
    axes.legend(handles[::-1], labels[::-1], loc="center left", bbox_to_anchor=(1.0, 0.5), frameon=False)
