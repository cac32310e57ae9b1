"""The constants of TRV are those of the store's header, which numbers them a second time."""

import re
from pathlib import Path

from tarvopy._trv import TRV

HEADER = Path(__file__).parents[2] / "solver/include/tarvo.h"


def test_codes_and_statuses_agree_with_the_store():
    numbers = {name: int(n) for name, n in re.findall(r"TRV_(\w+) = (-?\d+)", HEADER.read_text())}
    errors = {name.removeprefix("ERROR_"): n for name, n in numbers.items() if name.startswith("ERROR_")}
    del errors["INTERRUPTED"]  # what the signal's handler raised stands in its place
    assert errors == {name: n for name, n in vars(TRV.Error).items() if name.isupper()}
    assert errors == {name: getattr(TRV, f"ERROR_{name}") for name in errors}
    statuses = {n for name, n in numbers.items() if name in ("NOT_SOLVED", "OPTIMAL", "IMPRECISE", "FAILED")}
    kinds = {name: n for name, n in numbers.items() if name.startswith("GEN_") and name != "GEN_TYPES"}
    assert kinds == {name: n for name, n in vars(TRV).items() if name.startswith("GEN_")}
    assert statuses == {TRV.NOT_SOLVED, TRV.OPTIMAL, TRV.IMPRECISE, TRV.FAILED}
    named = (
        "INFEASIBLE UNBOUNDED INFEASIBLE_OR_UNBOUNDED TIME_LIMIT ITERATION_LIMIT NODE_LIMIT SOLUTION_LIMIT INTERRUPTED"
    )
    assert [getattr(TRV, name) for name in named.split()] == [numbers[name] for name in named.split()]
