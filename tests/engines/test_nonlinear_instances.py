"""Nonlinear instances of the literature, built one scalar expression at a time, give their known values."""

import json

import pytest

import nl_reader
import osil_reader
from tarvopy import TRV

pytest.importorskip("pyscipopt")
READERS = {"nl": nl_reader.read, "osil": osil_reader.read}


@pytest.mark.parametrize(
    ("name", "why"),
    [
        ("gastrans.nl", "SCIP: 15 nonlinear rows, 9 quadratic rows, 15 integer variables"),
        ("meanvarx.nl", "SCIP: quadratic objective, 12 integer variables"),
        ("m3.osil", "SCIP: 6 nonlinear rows, 6 integer variables"),
        ("parincQuadratic.osil", "Clarabel: convex quadratic objective, all variables continuous"),
    ],
)
@pytest.mark.filterwarnings("error")
def test_instances_give_their_known_values(instances, name, why):
    known = json.loads((instances / "known_optimal_values.json").read_text())["instances"][f"scip_minlp/{name}"]
    with READERS[name.rpartition(".")[2]](instances / "scip_minlp" / name) as m:
        m.params.LogLevel = 0
        m.params.RelGap = 1e-7
        m.optimize()
        assert m.Status == TRV.OPTIMAL
        assert m.why_engine == why
        assert m.ObjVal == pytest.approx(known["optimal"], rel=1e-6)
        assert m.report().holds
