"""Programs: a few variables and operands, and statements over them, drawn with the reference at hand.

A statement names its operands by their place in the list of things made so far. The reference runs along while a
program is drawn, so that indices and shapes fit more often than not, and steps that mean nothing are left out.
"""

from hypothesis import strategies as st

from nonlinear_trees import FUNCTIONS
from programs.literals import SEEDS, SHAPES, Dice, fitting, index_into, literal
from programs.reference import SIGNS, Meaningless, Reference, Refused, Thing


class Program:
    def __init__(self, looks=()):
        self.steps: list[tuple] = []
        self.expected: list = []  # of a step: Refused, (kind, shape) of a new thing, the place of a changed one, None
        self.looks: dict[int, int] = dict(looks)  # before which step at what
        self.reference = Reference()

    def __repr__(self) -> str:
        return f"Program.of({self.steps}, {self.looks})"

    @classmethod
    def of(cls, steps, looks=()) -> "Program":
        """One that was printed."""
        program = cls(looks)
        for step in steps:
            program.add(step)
        return program

    @property
    def things(self) -> list[Thing]:
        return self.reference.things

    @property
    def rows(self) -> list:
        return self.reference.rows

    @property
    def variables(self) -> int:
        return self.reference.variables

    def add(self, step) -> bool:
        before = len(self.things)
        try:
            outcome = self.reference.apply(step)
        except Meaningless:
            return False
        if isinstance(outcome, Thing):
            if len(self.things) > before:
                outcome = outcome.kind, outcome.shape
            else:
                outcome = next(place for place, thing in enumerate(self.things) if thing is outcome)
        self.steps.append(step)
        self.expected.append(outcome)
        return True


def operand(dice: Dice, program: Program, shape: tuple, for_product=False) -> int:
    """A thing that is there, or a new one that fits to this shape more often than not."""
    kind = dice.pick(["old"] * 5 + ["literal"] * 5 + ["variables", "objects"])
    if kind == "old":
        return dice.below(len(program.things))
    if kind == "literal":
        program.add(("literal", literal(dice, shape, for_product)))
    elif kind == "variables":
        program.add(("mvar", fitting(dice, shape), dice.coin()))
    else:
        scalars = [None, *(place for place, thing in enumerate(program.things) if thing.is_scalar)]
        members = [dice.pick(scalars) for _ in range(1 + dice.below(3))]
        program.add(("objects", fitting(dice, shape), members, dice.below(SEEDS)))
    return len(program.things) - 1


AXES = [None, 0, -1, 1, (), (0, 1), (-1, 0), 2, (0, 0)]
VIEWS = [
    ("T", (), {}),
    ("transpose", (), {}),
    ("transpose", (1, 0), {}),
    ("transpose", ((0, 2, 1),), {}),
    ("reshape", (-1,), {}),
    ("reshape", (3, -1), {}),
    ("reshape", ((-1, 1),), {"order": "F"}),
    ("reshape", (-1, 3), {"order": "F"}),
    ("reshape", ((),), {}),
    ("diagonal", (), {}),
    ("diagonal", (1,), {}),
    ("diagonal", (), {"offset": -1, "axis1": 1, "axis2": 0}),
    ("_squeeze", (), {}),
    ("_squeeze", (0,), {}),
]
EVERYTHING = ["binary"] * 6 + ["in_place"] * 4 + ["index"] * 3 + ["assign"] * 3
EVERYTHING += ["sum", "join", "view", "function", "constraint", "other"]
SHARING = ["index"] * 4 + ["in_place"] * 3 + ["assign", "other"]


def others(i: int, kind: str) -> list[tuple]:
    """Statements without a second operand about a thing of this kind."""
    if kind == "Array":
        return [("scribble", i)]
    found = [(name, i) for name in ("negative", "positive", "item", "show")]
    found += [("copy", i, how) for how in ("copy", "deepcopy")] + [("iterate", i, 1), ("var",)]
    if kind == "MVar":
        found.append(("as_nonlinear", i))
    if kind in ("MLinExpr", "MQuadExpr"):
        found += [("clear", i), ("tidy", i, "_normalize"), ("tidy", i, "_flatten")]
    return found


def step(dice: Dice, program: Program, kinds: list) -> tuple:
    arrays = [place for place, thing in enumerate(program.things) if thing.is_matrix]
    kind = dice.pick(kinds)
    if kind in ("assign", "in_place"):  # variables do not change
        arrays = [place for place in arrays if program.things[place].kind != "MVar"] or arrays
    i = arrays[-1 - dice.below(len(arrays))]  # the latest first, to which a failure shrinks
    shape = program.things[i].shape
    if kind in ("binary", "in_place"):
        sign = dice.pick(list(SIGNS))
        j = operand(dice, program, shape, sign == "@")
        return (kind, sign, j, i) if kind == "binary" and dice.coin() else (kind, sign, i, j)
    if kind == "index":
        return kind, i, index_into(dice, shape)
    if kind == "assign":
        key = index_into(dice, shape)
        selected = program.reference.index(i, key)
        if not isinstance(selected, Refused):
            shape = program.things.pop().shape
        return kind, i, key, operand(dice, program, shape)
    if kind == "sum":
        return kind, i, dice.pick(AXES)
    if kind == "join":
        more = [operand(dice, program, shape) for _ in range(dice.below(3))]
        members = [i, *more] if dice.coin() else [*more, i]
        return kind, dice.pick(["concatenate", "hstack", "vstack"]), members, dice.pick([0, -1, 1, None])
    if kind == "view":
        return kind, i, *dice.pick(VIEWS)
    if kind == "function":
        return kind, dice.pick(list(FUNCTIONS)), i
    if kind == "constraint":
        sides = i, operand(dice, program, shape)
        return kind, dice.pick(["<=", ">=", "=="]), *(sides[::-1] if dice.coin() else sides)
    if dice.below(4) == 3:
        i = dice.below(len(program.things))
    return dice.pick(others(i, program.things[i].kind))


# What stands at the beginning besides variables: scalars, or an expression of each degree of which slices are taken.
SCALARS = [[], [], [("var",)], [("var",), ("binary", "*", -1, -1)]]
EXPRESSIONS = [[("binary", "+", 0, 0)], [("binary", "*", 0, 0)], [("function", "abs", 0)]]


def thrown(dice: Dice) -> Program:
    program = Program()
    shape = dice.pick(SHAPES)
    program.add(("mvar", shape, dice.coin()))
    if dice.coin():
        program.add(("mvar", fitting(dice, shape), dice.coin()))
    kinds, beginnings, most = dice.pick([(EVERYTHING, SCALARS, 8)] * 3 + [(SHARING, EXPRESSIONS, 12)])
    for beginning in dice.pick(beginnings):
        program.add(beginning)
    for _ in range(1 + dice.below(most)):
        if dice.below(4) == 3:
            program.looks[len(program.steps)] = dice.below(len(program.things))
        program.add(step(dice, program, kinds))
    return program


# What every kind of operand meets; thing 1 has two rows and columns.
RECEIVERS = {
    "variables": [],
    "a pending vector": [("mvar", (2,), True)],
    "a compact expression": [("mvar", (2,), True), ("binary", "+", 2, 2)],
    "a linear expression": [("binary", "+", 1, 1)],
    "a quadratic expression": [("binary", "*", 1, 1)],
    "a single quadratic expression": [("mvar", (), False), ("binary", "*", 2, 2)],
    "a nonlinear expression": [("function", "abs", 1)],
}


def meeting(receiver: str, literal) -> Program:
    """Every operator on either side, in place, comparisons and assignment, with one operand."""
    program = Program.of([("var",), ("mvar", (2, 2), False), *RECEIVERS[receiver], ("literal", literal)])
    i, j = len(program.things) - 2, len(program.things) - 1
    for sign in SIGNS:
        program.add(("binary", sign, i, j))
        program.add(("binary", sign, j, i))
        program.add(("copy", i, "copy"))
        program.add(("in_place", sign, len(program.things) - 1, j))
        program.add(("tidy", len(program.things) - 1, "_normalize" if sign in "+*" else "_flatten"))
    for sense in ("<=", ">=", "=="):
        program.add(("constraint", sense, i, j))
        program.add(("constraint", sense, j, i))
    program.add(("copy", i, "copy"))
    program.add(("assign", len(program.things) - 1, (), j))
    return program


@st.composite
def programs(draw) -> Program:
    return thrown(Dice(draw))
