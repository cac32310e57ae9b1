"""Random programs over variables, expressions of every degree and numbers, with NumPy as the oracle.

Every variable stands for a number. Whatever a program does, its results have the values and shapes that NumPy gives on
the numbers; where NumPy refuses, the package refuses; operands keep their values; and no way of looking tells another.
"""

from hypothesis import given, settings

from programs.runner import run
from programs.strategies import programs


@settings(max_examples=max(3000, settings.default.max_examples))
@given(programs())
def test_programs_give_what_numpy_gives_and_never_tell_whether_objects_exist(program):
    expected = run(program, "eager")
    assert run(program, "flat") == expected
    assert run(program, "looked") == expected
