"""Solves three networks, holds each against pypower's local method, and draws the first two into out/."""

from pathlib import Path

from . import data, model, report

OUT = Path("out/ac_power_flow.png")
CASES = (("case9", 1.0), ("case9", 0.5), ("case14", 1.0))
DRAWN = ("lines as they are rated", "lines at half their ratings")


def main() -> None:
    print("alternating-current optimal power flow: proven cost, and what pypower's local method finds")
    print(report.HEADING)
    solved = []
    for name, rating in CASES:
        system = data.load(name, rating)
        operation = model.solve(system)
        print(report.line(name, rating, operation, report.local_cost(name, rating)), flush=True)
        solved.append((system, operation))
    print(f"\n{solved[0][1].engine}")
    panels = [(title, *pair, model.prices(pair[0])) for title, pair in zip(DRAWN, solved, strict=False)]
    for title, system, operation, price in panels:
        print(f"\n{CASES[0][0]}, {title}\n{report.buses(system, operation, price)}")
    report.picture(panels, OUT)
    print(f"\npicture: {OUT}")


main()
