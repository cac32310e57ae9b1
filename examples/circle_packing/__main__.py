"""Packs two to nine circles, the last three against the clock, prints how sure each is, and draws them into out/."""

from pathlib import Path

from . import model, report

OUT = Path("out/circle_packing.png")
CIRCLES = range(2, 10)
PROVABLE, BRIEFLY = 6, 5.0  # up to so many circles the proof takes seconds; more get so many seconds


def main() -> None:
    print("equal circles in the unit square, as large as can be")
    print(report.HEADING)
    packings = []
    for circles in CIRCLES:
        packings.append(model.pack(circles, time_limit=60.0 if circles <= PROVABLE else BRIEFLY))
        print(report.line(packings[-1]), flush=True)
    report.picture(packings, OUT)
    print(f"\npicture: {OUT}")


main()
