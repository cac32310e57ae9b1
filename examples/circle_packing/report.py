"""What the example shows of the packings: a line for each on the terminal, and one picture."""

from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np
from matplotlib.patches import Circle

from .model import Packing

INK, PROVEN, OPEN = "#22313f", "#1f6f8b", "#d1603d"
TOUCHING = 2e-3  # how far from touching circles count as touching, in radii: their distance is known to half the gap
COLUMNS = 4
HEADING = f"{'circles':>7}{'radius':>11}{'bound':>11}{'gap':>10}{'covered':>10}{'time':>8}"


def line(packing: Packing) -> str:
    """A line below HEADING."""
    told = "proven" if packing.proven else f"{100 * packing.gap:.2f} %"
    return (
        f"{len(packing.centres):>7}{packing.radius:>11.6f}{packing.bound:>11.6f}{told:>10}"
        f"{100 * covered(packing):>8.1f} %{packing.seconds:>6.1f} s"
    )


def covered(packing: Packing) -> float:
    """The share of the square that the circles cover."""
    return len(packing.centres) * np.pi * packing.radius**2


def picture(packings: list[Packing], path: Path) -> None:
    """The circles, a line between the centres of each two that touch, as a PNG."""
    rows = -(-len(packings) // COLUMNS)
    figure, places = plt.subplots(
        rows, COLUMNS, figsize=(3.3 * COLUMNS, 3.7 * rows + 0.4), layout="constrained", squeeze=False
    )
    for axes in places.flat:
        axes.axis("off")
    for axes, packing in zip(places.flat, packings, strict=False):
        _draw(axes, packing)
    figure.suptitle("Equal circles in a square, as large as can be", fontsize=14, color=INK)
    path.parent.mkdir(parents=True, exist_ok=True)
    figure.savefig(path, dpi=110)
    plt.close(figure)


def _draw(axes, packing: Packing) -> None:
    colour = PROVEN if packing.proven else OPEN
    axes.add_patch(plt.Rectangle((0, 0), 1, 1, fill=False, edgecolor=INK, linewidth=1.5))
    for centre in packing.centres:
        axes.add_patch(Circle(centre, packing.radius, facecolor=colour, alpha=0.35, edgecolor=colour, linewidth=1.5))
    for first, second in touching(packing):
        axes.plot(*packing.centres[[first, second]].T, color=INK, linewidth=1, marker=".", markersize=5)
    told = "proven" if packing.proven else f"at most {100 * packing.gap:.1f} % larger"
    axes.set_title(f"{len(packing.centres)} circles: {packing.radius:.5f}\n{told}", color=colour, fontsize=11)
    axes.set(xlim=(-0.02, 1.02), ylim=(-0.02, 1.02), aspect="equal")


def touching(packing: Packing) -> list[tuple[int, int]]:
    """The pairs of circles that touch."""
    first, second = np.triu_indices(len(packing.centres), k=1)
    apart = np.hypot(*(packing.centres[first] - packing.centres[second]).T)
    close = apart <= (2 + TOUCHING) * packing.radius
    return list(zip(first[close].tolist(), second[close].tolist(), strict=True))
