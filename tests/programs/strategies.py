"""Programs: a few variables and operands, and statements over them, drawn with the reference at hand.

A statement names its operands by their place in the list of things made so far. The reference runs along while a
program is drawn, so that indices and shapes fit more often than not, and steps that mean nothing are left out.
"""

from hypothesis import strategies as st

from nonlinear_trees import FUNCTIONS
from programs.literals import SEEDS, SHAPES, fitting, keys, literals
from programs.reference import IN_PLACE, SIGNS, Meaningless, Reference, Refused, Thing


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


@st.composite
def operands(draw, program: Program, shape: tuple, for_product=False) -> int:
    """A thing that is there, or a new one that fits to this shape more often than not."""
    kind = draw(st.sampled_from(["old"] * 5 + ["literal"] * 5 + ["variables", "objects"]))
    if kind == "old":
        return draw(st.integers(0, len(program.things) - 1))
    if kind == "literal":
        program.add(("literal", draw(literals(shape, for_product))))
    elif kind == "variables":
        program.add(("mvar", draw(fitting(shape)), draw(st.booleans())))
    else:
        scalars = [place for place, thing in enumerate(program.things) if thing.is_scalar]
        members = draw(st.lists(st.sampled_from([None, *scalars]), min_size=1, max_size=3))
        program.add(("objects", draw(fitting(shape)), members, draw(SEEDS)))
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


@st.composite
def steps(draw, program: Program, kinds: list) -> tuple:
    arrays = [place for place, thing in enumerate(program.things) if thing.is_matrix]
    # The latest ones under the small numbers, which are drawn most often and come first when a failure is shrunk.
    i = arrays[-1 - draw(st.integers(0, len(arrays) - 1))]
    shape = program.things[i].shape
    kind = draw(st.sampled_from(kinds))
    if kind in ("assign", "in_place"):  # variables do not change
        changing = [place for place in arrays if program.things[place].kind != "MVar"]
        i = changing[-1 - draw(st.integers(0, len(changing) - 1))] if changing else i
        shape = program.things[i].shape
    if kind in ("binary", "in_place"):
        sign = draw(st.sampled_from(list(SIGNS if kind == "binary" else IN_PLACE)))
        j = draw(operands(program, shape, sign == "@"))
        backwards = kind == "binary" and draw(st.booleans())
        return (kind, sign, j, i) if backwards else (kind, sign, i, j)
    if kind == "index":
        return kind, i, draw(keys(shape))
    if kind == "assign":
        key = draw(keys(shape))
        selected = Reference.index(program.reference, i, key)
        if not isinstance(selected, Refused):
            shape = program.things.pop().shape
        return kind, i, key, draw(operands(program, shape))
    if kind == "sum":
        return kind, i, draw(st.sampled_from(AXES))
    if kind == "join":
        others = [draw(operands(program, shape)) for _ in range(draw(st.integers(0, 2)))]
        how = draw(st.sampled_from(["concatenate", "hstack", "vstack"]))
        return kind, how, draw(st.permutations([i, *others])), draw(st.sampled_from([0, -1, 1, None]))
    if kind == "view":
        return kind, i, *draw(st.sampled_from(VIEWS))
    if kind == "function":
        return kind, draw(st.sampled_from(list(FUNCTIONS))), i
    if kind == "constraint":
        sides = i, draw(operands(program, shape))
        return kind, draw(st.sampled_from(["<=", ">=", "=="])), *(sides[::-1] if draw(st.booleans()) else sides)
    return draw(
        st.sampled_from(
            [
                ("negative", i),
                ("positive", i),
                ("iterate", i, 1),
                ("item", i),
                ("copy", i, "copy"),
                ("copy", i, "deepcopy"),
                ("as_nonlinear", i),
                ("clear", i),
                ("show", i),
                ("tidy", i, "_normalize"),
                ("tidy", i, "_flatten"),
                ("scribble", draw(st.integers(0, len(program.things) - 1))),
                ("var",),
            ]
        )
    )


# What stands at the beginning besides variables: scalars, or an expression of each degree of which slices are taken.
SCALARS = [[], [], [("var",)], [("var",), ("binary", "*", -1, -1)]]
EXPRESSIONS = [[("binary", "+", 0, 0)], [("binary", "*", 0, 0)], [("function", "abs", 0)]]


@st.composite
def programs(draw) -> Program:
    program = Program()
    shape = draw(st.sampled_from(SHAPES))
    program.add(("mvar", shape, draw(st.booleans())))
    if draw(st.booleans()):
        program.add(("mvar", draw(fitting(shape)), draw(st.booleans())))
    kinds, beginnings, most = draw(st.sampled_from([(EVERYTHING, SCALARS, 8)] * 3 + [(SHARING, EXPRESSIONS, 12)]))
    for step in draw(st.sampled_from(beginnings)):
        program.add(step)
    for _ in range(draw(st.integers(1, most))):
        if draw(st.integers(0, 3)) == 0:
            program.looks[len(program.steps)] = draw(st.integers(0, len(program.things) - 1))
        program.add(draw(steps(program, kinds)))
    return program
