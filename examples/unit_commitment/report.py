"""What the example shows of a solved day: a short table on the terminal and one picture."""

from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np

import tarvopy

from .data import System
from .model import Schedule

# Units of one size use one fuel; the stack goes from what runs always at the bottom to what peaks at the top.
FUELS = {
    50: ("hydro, 6 x 50 MW", "#4c9ed9"),
    400: ("nuclear, 2 x 400 MW", "#8e6bbf"),
    350: ("coal, 350 MW", "#3d3d3d"),
    155: ("coal, 4 x 155 MW", "#6b6b6b"),
    76: ("coal, 4 x 76 MW", "#a0a0a0"),
    197: ("oil, 3 x 197 MW", "#c8553d"),
    100: ("oil, 3 x 100 MW", "#e08e45"),
    12: ("oil, 5 x 12 MW", "#f2c14e"),
    20: ("gas turbine, 4 x 20 MW", "#7fb069"),
}
TIGHTEST = 4
STATUS_NAMES = {
    getattr(tarvopy.TRV, name): name.lower().replace("_", " ")
    for name in ("OPTIMAL", "INFEASIBLE", "TIME_LIMIT", "INTERRUPTED", "IMPRECISE", "FAILED")
}


def table(system: System, day: Schedule) -> str:
    """Cost, status, gap, hours on for each unit, prices and lines, as text."""
    loading = line_loading(system, day)
    full = [system.line_names[line] for line in np.flatnonzero(loading > 1 - 1e-6)]
    lines = [
        f"status        {STATUS_NAMES.get(day.status, day.status)} (gap {100 * day.gap:.3f} %, {day.seconds:.1f} s)",
        f"cost          {day.cost:,.0f} $ for the day, {day.cost / day.output.sum():.2f} $/MWh",
        f"nodal prices  {day.price.min():.2f} to {day.price.max():.2f} $/MWh",
        f"full lines    {', '.join(full) or 'none'}",
        "",
        f"{'unit':<18}{'hours on':>9}{'MWh':>9}",
    ]
    hours, energy = day.on.sum(axis=1), day.output.sum(axis=1)
    lines += [
        f"{name:<18}{on:>9.0f}{mwh:>9.0f}" for name, on, mwh in zip(system.units.names, hours, energy, strict=True)
    ]
    return "\n".join(lines)


def line_loading(system: System, day: Schedule) -> np.ndarray:
    """Each line's largest flow of the day as a share of its limit (lines,)."""
    return (np.abs(day.flow) / system.limit[:, None]).max(axis=1)


def picture(system: System, day: Schedule, path: Path) -> None:
    """Dispatch stack, on/off map, nodal prices, and the tightest lines against their limits, as a PNG."""
    figure = plt.figure(figsize=(15, 10.5), layout="constrained")
    left, right = figure.subfigures(1, 2, width_ratios=[1.25, 1])
    stack, running = left.subplots(2, 1, height_ratios=[1, 1.15], sharex=True)
    price, *flows = right.subplots(1 + TIGHTEST, 1, height_ratios=[1.5] + [1] * TIGHTEST, sharex=True)
    _draw_stack(stack, system, day)
    shades = _draw_running(running, system, day)
    left.colorbar(shades, ax=(stack, running), label="output / capacity", shrink=0.5, anchor=(0, 0), pad=0.02)
    _draw_prices(price, day)
    order = np.argsort(-line_loading(system, day), kind="stable")
    _draw_flows(flows, system, day, order[:TIGHTEST])
    hours = system.load.shape[1]
    for axes in (stack, running, price, *flows):
        axes.set_xlim(0, hours)
        axes.set_xticks(range(0, hours + 1, 3))
    for axes in (running, flows[-1]):
        axes.set_xlabel("hour of the day")
    figure.suptitle(
        f"IEEE 24-bus reliability test system, winter weekday, lines at 70 % of their ratings: "
        f"{day.cost:,.0f} \\$, gap {100 * day.gap:.2f} %",
        fontsize=13,
    )
    path.parent.mkdir(parents=True, exist_ok=True)
    figure.savefig(path, dpi=110)
    plt.close(figure)


def _steps(values: np.ndarray) -> np.ndarray:
    """Hourly values with the last one repeated, so that a step plot reaches the end of the day."""
    return np.append(values, values[..., -1:], axis=-1)


def _draw_stack(axes, system: System, day: Schedule) -> None:
    edges = np.arange(system.load.shape[1] + 1)
    below = np.zeros(len(edges))
    for size, (label, colour) in FUELS.items():
        output = day.output[system.units.pmax == size].sum(axis=0)
        if not output.any():
            continue
        above = below + _steps(output)
        axes.fill_between(edges, below, above, step="post", color=colour, label=label, linewidth=0)
        below = above
    axes.step(edges, _steps(system.load.sum(axis=0)), where="post", color="black", linewidth=1.5, label="load")
    axes.set_ylim(0, 1.08 * system.load.sum(axis=0).max())
    axes.set(title="Dispatch", ylabel="output (MW)")
    handles, labels = axes.get_legend_handles_labels()
    axes.legend(
        handles[::-1], labels[::-1], loc="upper center", bbox_to_anchor=(0.5, -0.04), ncol=4, frameon=False, fontsize=9
    )


def _draw_running(axes, system: System, day: Schedule):
    """Units by fuel as in the stack; shades say how far a running unit is loaded, and are returned for their scale."""
    units = system.units
    order = np.concatenate([np.flatnonzero(units.pmax == size) for size in FUELS])
    load = np.where(day.on > 0.5, day.output / units.pmax[:, None], np.nan)[order]
    hours = np.arange(system.load.shape[1] + 1)
    image = axes.pcolormesh(hours, np.arange(len(order) + 1), load, cmap="YlGnBu", vmin=0, vmax=1, edgecolors="white")
    axes.set_facecolor("#efefef")
    axes.set_yticks(np.arange(len(order)) + 0.5, [units.names[unit] for unit in order], fontsize=7)
    axes.set(title="Running units (grey: off)")
    return image


def _draw_prices(axes, day: Schedule) -> None:
    edges = np.arange(day.price.shape[1] + 1)
    low, middle, high = (_steps(level) for level in np.percentile(day.price, [0, 50, 100], axis=0))
    axes.fill_between(
        edges, low, high, step="post", color="#c8553d", alpha=0.3, label="lowest to highest bus", linewidth=0
    )
    axes.step(edges, middle, where="post", color="#c8553d", label="median bus")
    axes.set(title="Nodal prices", ylabel="price ($/MWh)", ylim=(min(0, 1.1 * low.min()), 1.3 * high.max()))
    axes.legend(loc="upper left", ncol=2, fontsize=9)


def _draw_flows(panels, system: System, day: Schedule, lines: np.ndarray) -> None:
    edges = np.arange(day.flow.shape[1] + 1)
    for axes, line in zip(panels, lines, strict=True):
        sign = np.sign(day.flow[line][np.abs(day.flow[line]).argmax()])  # drawn in the direction of the largest flow
        limit, flow = system.limit[line], sign * day.flow[line]
        first, second = system.line_names[line].split("-")[:: int(sign) or 1]
        axes.axhline(limit, color="black", linestyle="--", linewidth=1, label=f"limit {limit:g} MW")
        axes.step(edges, _steps(flow), where="post", color="#2a6f97", label="flow")
        full = np.flatnonzero(np.abs(flow) > limit * (1 - 1e-6))
        if full.size:
            axes.plot(full + 0.5, flow[full], "o", color="#c8553d", markersize=4, label=f"at the limit, {len(full)} h")
        axes.set_ylim(min(0, 1.15 * flow.min()), 1.2 * limit)
        axes.set(title=f"Line from bus {first} to bus {second}", ylabel="flow (MW)")
        axes.title.set_fontsize(10)
        axes.legend(loc="center left", bbox_to_anchor=(1.0, 0.5), fontsize=8, frameon=False)
