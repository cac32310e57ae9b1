"""Solves the day with progress shown, prints the table, and draws the picture into out/."""

from pathlib import Path

from . import data, model, report

OUT = Path("out/unit_commitment.png")


def main() -> None:
    system = data.load()
    buses, hours = system.load.shape
    print(f"{len(system.units)} units, {buses} buses, {len(system.limit)} lines, {hours} hours; solving to 0.1 %")
    day = model.commit(system, log_level=1)
    print("\n" + report.table(system, day))
    report.picture(system, day, OUT)
    print(f"\npicture: {OUT}")


main()
