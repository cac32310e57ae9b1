"""What the example shows: costs against another program's, a table of buses, and one picture of two operations."""

from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np
from matplotlib.colors import Normalize
from pypower.api import ppoption, runopf

import tarvopy

from . import data
from .data import System
from .model import Operation

INK, LABEL = "#22313f", "#5b6b79"
# Where the nine buses are drawn, a ring of six with a unit at every second one, and on which side their labels stand.
PLACES = np.array([[0, -3.2], [-2.8, 2.3], [2.8, 2.3], [0, -1.9], [1.6, -1], [1.6, 1], [0, 1.9], [-1.6, 1], [-1.6, -1]])
SIDES = np.array([[1, 0], [0, 1], [0, 1], [0, 1], [1, 0], [1, 0], [0, 1], [-1, 0], [-1, 0]])
STATUS_NAMES = {tarvopy.TRV.OPTIMAL: "optimal", tarvopy.TRV.TIME_LIMIT: "time limit"}
HEADING = (
    f"{'network':<24}{'status':<12}{'cost $/h':>12}{'bound':>12}{'gap':>10}{'time':>8}{'pypower':>12}{'losses MW':>11}"
)

Panel = tuple[str, System, Operation, np.ndarray]  # title, network, its operation, prices


def local_cost(name: str, rating: float) -> float:
    """The cost that pypower's interior-point method ends at, NaN where it fails."""
    found = runopf(data.case(name, rating), ppoption(VERBOSE=0, OUT_ALL=0))
    return float(found["f"]) if found["success"] else np.nan


def line(name: str, rating: float, operation: Operation, local: float) -> str:
    """A line below HEADING."""
    what = f"{name}, lines at {100 * rating:.0f} %"
    status = STATUS_NAMES.get(operation.status, str(operation.status))
    proven = f"{operation.cost:>12.3f}{operation.bound:>12.3f}{100 * operation.gap:>8.4f} %{operation.seconds:>6.1f} s"
    return f"{what:<24}{status:<12}{proven}{local:>12.3f}{100 * operation.losses.sum():>11.2f}"


def buses(system: System, operation: Operation, price: np.ndarray) -> str:
    """A line a bus: voltage, angle, what is fed in and taken out, price."""
    fed, taken = system.base * (system.at_bus @ operation.output[0]), system.base * system.demand[0]
    lines = [f"{'bus':>4}{'voltage':>9}{'angle °':>9}{'output MW':>11}{'demand MW':>11}{'$/MWh':>8}"]
    rows = zip(operation.voltage, np.degrees(operation.angle), fed, taken, price, strict=True)
    lines += [f"{i:>4}{v:>9.4f}{a:>9.2f}{f:>11.1f}{t:>11.1f}{p:>8.2f}" for i, (v, a, f, t, p) in enumerate(rows, 1)]
    return "\n".join(lines)


def picture(panels: list[Panel], path: Path) -> None:
    """The nine-bus network once for each panel: flows and how far lines are loaded, voltages, prices, as a PNG."""
    figure, axes = plt.subplots(1, len(panels), figsize=(7.6 * len(panels), 7.8), layout="constrained", squeeze=False)
    prices = np.concatenate([price for *_, price in panels])
    price_scale, load_scale = Normalize(prices.min(), prices.max()), Normalize(0, 100)
    for place, panel in zip(axes[0], panels, strict=True):
        _draw_lines(place, panel, load_scale)
        _draw_buses(place, panel, price_scale)
        _, _, operation, _ = panel
        place.set_title(f"{panel[0]}: {operation.cost:,.1f} \\$/h, gap {100 * operation.gap:.3f} %", color=INK)
        place.set(xlim=(-3.9, 3.9), ylim=(-3.6, 3.4), aspect="equal")
        place.axis("off")
    shown = {"ax": axes[0].tolist(), "shrink": 0.6, "pad": 0.01}
    figure.colorbar(plt.cm.ScalarMappable(load_scale, "YlOrRd"), label="line loading (% of its limit)", **shown)
    figure.colorbar(plt.cm.ScalarMappable(price_scale, "viridis"), label="price ($/MWh) at a bus", **shown)
    figure.suptitle(
        "Nine-bus network, optimal power flow of alternating current\n"
        "at each bus: its price, voltage (share of the rated one) and angle",
        fontsize=13, color=INK,
    )  # fmt: skip
    path.parent.mkdir(parents=True, exist_ok=True)
    figure.savefig(path, dpi=110)
    plt.close(figure)


def _draw_lines(axes, panel: Panel, scale: Normalize) -> None:
    """Lines in the colour of their loading, an arrow where active power goes, and how much."""
    _, system, operation, _ = panel
    loading = 100 * operation.apparent / system.limit
    sent = system.base * operation.entering_first[0]
    for number, (first, second) in enumerate(zip(system.line_from, system.line_to, strict=True)):
        ends = PLACES[[first, second]] if sent[number] >= 0 else PLACES[[second, first]]
        axes.plot(*ends.T, color=plt.cm.YlOrRd(scale(loading[number])), linewidth=9, solid_capstyle="butt", zorder=1)
        middle, along = ends.mean(axis=0), (ends[1] - ends[0]) / np.hypot(*(ends[1] - ends[0]))
        axes.annotate(
            "", middle + 0.16 * along, middle - 0.16 * along, arrowprops={"arrowstyle": "-|>", "color": INK, "lw": 1.6},
            zorder=2,
        )  # fmt: skip
        beside = np.array([along[1], -along[0]])
        beside *= np.sign(beside @ (middle - PLACES.mean(axis=0)) + 1e-9)
        full = "\nat its limit" if loading[number] > 100 - 1e-3 else ""
        sided = "center" if abs(beside[0]) < 0.3 else "left" if beside[0] > 0 else "right"
        axes.text(*(middle + 0.22 * beside), f"{abs(sent[number]):.0f} MW{full}", ha=sided, va="center", color=INK)


def _draw_buses(axes, panel: Panel, scale: Normalize) -> None:
    """Buses in the colour of their price, with voltage and angle; outside, what is fed in or taken out."""
    _, system, operation, price = panel
    fed = system.base * (system.at_bus @ operation.output[0])
    angle = np.degrees(operation.angle)
    axes.scatter(*PLACES.T, s=1500, c=price, cmap="viridis", norm=scale, edgecolors=INK, linewidths=1.2, zorder=3)
    for bus, place in enumerate(PLACES):
        shade = "black" if scale(price[bus]) > 0.6 else "white"
        axes.text(*place, f"{price[bus]:.2f}", ha="center", va="center", color=shade, fontsize=9, zorder=4)
        sided = {-1: "right", 0: "center", 1: "left"}[SIDES[bus, 0]]
        told = f"bus {bus + 1}: {operation.voltage[bus]:.3f}, {angle[bus]:.1f}°"
        if fed[bus] > 0:
            told += f"\nunit {fed[bus]:.1f} MW"
        if system.demand[0, bus] > 0:
            told += f"\ndemand {system.base * system.demand[0, bus]:.0f} MW"
        where = place + [0.38, 0.66] * SIDES[bus]
        axes.text(*where, told, ha=sided, va="center", color=LABEL, fontsize=9.5, zorder=4)
