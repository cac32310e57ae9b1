"""Random programs over variables, expressions of every degree and numbers, with NumPy as the oracle.

Every variable stands for a number. Whatever a program does, its results have the values and shapes that NumPy gives on
the numbers; where NumPy refuses, the package refuses; operands keep their values; and no way of looking tells another.
"""

import pytest
from hypothesis import given, settings

from programs.literals import every_kind
from programs.runner import run
from programs.strategies import RECEIVERS, meeting, programs


def agree(program):
    expected = run(program, "eager")
    assert run(program, "flat") == expected
    assert not program.looks or run(program, "looked") == expected


@pytest.mark.parametrize("receiver", RECEIVERS)
def test_every_kind_of_operand_meets_every_operator(receiver):
    for literal in every_kind():
        program = meeting(receiver, literal)
        assert sum(step[0] in ("binary", "in_place") for step in program.steps) >= 8, literal
        agree(program)


@settings(max_examples=30 * settings.default.max_examples)
@given(programs())
def test_programs_give_what_numpy_gives_and_never_tell_whether_objects_exist(program):
    agree(program)
