"""The circle packing example against published radii, and its packings against what a packing is."""

import numpy as np
import pytest

pytest.importorskip("matplotlib")
pytest.importorskip("pyscipopt")
from examples.circle_packing import model, report

#: The best radii in the unit square, proven (E. Specht, Packomania, table csq; closed forms for 2 to 5).
BEST = {
    2: 1 / (2 + np.sqrt(2)),
    3: 0.254333095030,
    4: 0.25,
    5: (np.sqrt(2) - 1) / 2,
    6: 0.187680601147,
    7: 0.174457630187,
}


def is_packing(packing):
    """Whether circles lie inside the square and apart, but for the tolerance of rows."""
    inside = np.minimum(packing.centres, 1 - packing.centres).min() >= packing.radius - 2e-6
    first, second = np.triu_indices(len(packing.centres), k=1)
    apart = np.hypot(*(packing.centres[first] - packing.centres[second]).T)
    return inside and (apart >= 2 * packing.radius - 1e-5).all()


@pytest.mark.parametrize("circles", [2, 3, 4, 5])
def test_few_circles_reach_their_published_radius_by_proof(circles):
    packing = model.pack(circles)
    assert packing.proven
    assert packing.gap <= model.RELATIVE_GAP
    assert packing.radius == pytest.approx(BEST[circles], rel=1e-5)
    assert is_packing(packing)


def test_what_a_limit_stops_says_how_much_is_left_open():
    packing = model.pack(7, time_limit=1.5)
    assert not packing.proven
    assert is_packing(packing)
    assert packing.radius <= BEST[7] * (1 + 1e-5)
    assert packing.bound >= BEST[7] * (1 - 1e-5)
    assert f"{100 * packing.gap:.2f} %" in report.line(packing)


def test_picture_joins_the_circles_that_touch(tmp_path):
    packings = [model.pack(circles) for circles in (4, 5)]
    assert len(report.touching(packings[0])) == 4
    assert len(report.touching(packings[1])) == 4  # the one in the middle touches all others, which touch none
    assert report.covered(packings[0]) == pytest.approx(np.pi / 4, rel=1e-4)
    report.picture(packings, tmp_path / "circles.png")
    assert (tmp_path / "circles.png").read_bytes().startswith(b"\x89PNG")
