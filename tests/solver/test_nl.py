"""The .nl file that an engine reads: parsed by an evaluator of its own, and held against the model at random points."""

import struct

import numpy as np
import pytest

import tarvopy
from solver.store import INVALID, NLCONSTR, VAR, Store, StoreError
from solver.tapes import UNARY, evaluate, op, random_expression, sumof, tape, variables_of
from tarvopy import TRV, TarvoError, _modelapi

INF = np.inf
# By the codes of the format: those that every reader knows.
OPERATORS = {1: np.subtract, 2: np.multiply, 3: np.divide, 5: np.power}
FUNCTIONS = {
    15: np.abs,
    16: np.negative,
    39: np.sqrt,
    41: np.sin,
    42: np.log10,
    43: np.log,
    44: np.exp,
    46: np.cos,
}


class NlFile:
    """The sections of a binary .nl file with little-endian numbers."""

    def __init__(self, data: bytes) -> None:
        lines = data.split(b"\n", 10)
        assert lines[0].split()[0] == b"b3"
        self.head = [[int(word) for word in line.split()] for line in lines[1:10]]
        self.data, self.at = lines[10], 0
        self.nvars, self.nrows = self.head[0][:2]
        self.bodies, self.linear, self.start, self.cost = {}, {}, {}, {}
        while self.at < len(self.data):
            getattr(self, "read_" + self.letter())()

    def take(self, form):
        (value,) = struct.unpack_from("<" + form, self.data, self.at)
        self.at += struct.calcsize(form)
        return value

    def letter(self):
        return self.take("c").decode()

    def expression(self):
        """A function of the point."""
        kind = self.letter()
        if kind == "n":
            number = self.take("d")
            return lambda x: number
        if kind == "v":
            place = self.take("i")
            return lambda x: x[place]
        code = self.take("i")
        if code in FUNCTIONS:
            function, operand = FUNCTIONS[code], self.expression()
            return lambda x: function(operand(x))
        parts = [self.expression() for _ in range(self.take("i") if code == 54 else 2)]
        if code in (0, 54):
            return lambda x: sum(part(x) for part in parts)
        operator = OPERATORS[code]
        return lambda x: operator(parts[0](x), parts[1](x))

    def terms(self, count):
        return {self.take("i"): self.take("d") for _ in range(count)}

    def sides(self):
        kind = self.letter()
        lower = self.take("d") if kind in "024" else -INF
        return lower, lower if kind == "4" else self.take("d") if kind in "01" else INF

    def read_C(self):
        row = self.take("i")
        self.bodies[row] = self.expression()

    def read_O(self):
        assert self.take("i") == 0
        self.maximise = self.take("i")
        assert self.expression()(None) == 0

    def read_x(self):
        self.start = self.terms(self.take("i"))

    def read_r(self):
        self.row_sides = [self.sides() for _ in range(self.nrows)]

    def read_b(self):
        self.bounds = [self.sides() for _ in range(self.nvars)]

    def read_k(self):
        self.column_sums = [self.take("i") for _ in range(self.take("i"))]

    def read_J(self):
        row, count = self.take("i"), self.take("i")
        self.linear[row] = self.terms(count)

    def read_G(self):
        assert self.take("i") == 0
        self.cost = self.terms(self.take("i"))

    def row(self, i, x):
        return self.bodies[i](x) + sum(value * x[place] for place, value in self.linear.get(i, {}).items())


def written(m, tmp_path):
    m.update()
    path = tmp_path / "model.nl"
    position = _modelapi.write_nl(m._cmodel, path)
    return NlFile(path.read_bytes()), position


@pytest.mark.parametrize("sense", [TRV.MINIMIZE, TRV.MAXIMIZE])
@pytest.mark.parametrize("seed", range(3))
def test_file_says_what_the_model_says(sense, seed, tmp_path):
    rng = np.random.default_rng(seed)
    n = 9
    kinds = rng.choice(list("CIBS"), n)
    m = tarvopy.Model()
    xs = [m.addVar(lb=-1.5 if k == "C" else 0, ub=4, obj=float(i), vtype=str(k)) for i, k in enumerate(kinds)]
    pairs = rng.integers(0, n, (3, 2, 3))
    scale = rng.normal(size=(3, 3))
    scale[0, 0] = 1.0

    def products(k, x):
        return sum(float(s) * x[i] * x[j] for s, i, j in zip(scale[k], *pairs[k], strict=True))

    m.addConstr(products(0, xs) + 2 * xs[0] <= 3)
    m.addConstr(products(1, xs) == -1.5)
    m.addConstr(xs[0] * xs[1] - xs[1] * xs[0] + 4 * xs[2] >= 0.25)  # its products cancel
    m.addRange(xs[3] - xs[4], -2, 7)
    m.addRange(xs[5] + 0.1 * xs[0], -INF, INF)
    m.setObjective(products(2, xs) + 3 * xs[0] - xs[8] + 11, sense)
    m.update()
    nl, position = written(m, tmp_path)

    assert sorted(position) == [-1, *range(n)]
    assert nl.maximise == (sense == TRV.MAXIMIZE)
    x = rng.normal(size=n)
    z = np.where(position >= 0, x[position], 0.0)
    objective_variable = int(np.flatnonzero(position < 0)[0])
    z[objective_variable] = products(2, x)
    expected = [
        (products(0, x) + 2 * x[0], -INF, 3),
        (products(1, x), -1.5, -1.5),
        (0.0, 0 if sense == TRV.MAXIMIZE else -INF, INF if sense == TRV.MAXIMIZE else 0),
        (4 * x[2], 0.25, INF),
        (x[3] - x[4], -2, 7),
        (x[5] + 0.1 * x[0], -INF, INF),
    ]
    assert nl.nrows == len(expected)
    for i, (value, lower, upper) in enumerate(expected):
        assert nl.row(i, z) == pytest.approx(value, abs=1e-12)
        assert nl.row_sides[i] == (lower, upper)
    assert sum(value * z[place] for place, value in nl.cost.items()) == pytest.approx(products(2, x) + 3 * x[0] - x[8])


def test_order_and_counts_of_the_head(tmp_path):
    m = tarvopy.Model()
    b, c, i, nb, nc = (m.addVar(ub=1, vtype=k) for k in "BCIBC")
    m.addConstr(nb * nc <= 1)
    m.addRange(b + c + i, 0, 2)
    m.addConstr(c - i == 0)
    nl, position = written(m, tmp_path)
    assert position.tolist() == [4, 3, 1, 0, 2]  # nonlinear: continuous, integral; linear: continuous, binary, integer
    assert nl.head[0] == [5, 3, 1, 1, 1]  # variables, rows, objectives, two-sided rows, equations
    assert nl.head[1][:2] == [1, 0]
    assert nl.head[3] == [2, 0, 0]
    assert nl.head[5] == [1, 1, 0, 1, 0]
    entries = [place for terms in nl.linear.values() for place in terms]
    assert nl.head[6][0] == len(entries) == 7
    assert nl.column_sums == np.cumsum(np.bincount(entries, minlength=5))[:-1].tolist()
    assert nl.linear[0] == {0: 0.0, 1: 0.0}  # named, though in the products alone


def test_semicontinuous_variable_has_a_switch_only_where_zero_is_outside(tmp_path):
    m = tarvopy.Model()
    m.addVar(lb=2, ub=5, vtype="S").Start = 3
    m.addVar(lb=0, ub=5, vtype="S")
    m.addVar(lb=-5, ub=-2, vtype="S").Start = 0
    nl, position = written(m, tmp_path)
    places = [position.tolist().index(j) for j in range(3)]
    assert [nl.bounds[at] for at in places] == [(0, 5), (0, 5), (-5, 0)]
    switches = np.flatnonzero(position < 0)
    assert [nl.bounds[at] for at in switches] == [(0, 1)] * 2
    assert nl.head[5][0] == 2
    assert {nl.start[at] for at in switches} == {0.0, 1.0}
    assert places[1] not in nl.start
    for x, on, fits in [(0, 0, True), (2, 1, True), (5, 1, True), (1, 1, False), (1, 0, False)]:
        z = np.zeros(nl.nvars)
        z[places[0]], z[switches[0]] = x, on
        inside = [low <= nl.row(i, z) <= high for i, (low, high) in enumerate(nl.row_sides[:2])]
        assert all(inside) == fits


def test_start_has_the_value_of_the_quadratic_objective(tmp_path):
    m = tarvopy.Model()
    x, y = m.addVar(vtype="I"), m.addVar()
    m.setObjective(2 * x * y + x * x + y)
    x.Start, y.Start = 3, 0.5
    nl, position = written(m, tmp_path)
    assert nl.start[int(np.flatnonzero(position < 0)[0])] == 12.0
    y.Start = np.nan
    nl, position = written(m, tmp_path)
    assert {int(position[at]) for at in nl.start} == {0}


def test_path_that_cannot_be_written_is_an_error(tmp_path):
    m = tarvopy.Model()
    with pytest.raises(TarvoError, match="nowhere"):
        _modelapi.write_nl(m._cmodel, tmp_path / "nowhere" / "model.nl")


# ---- tapes


def written_store(m, tmp_path):
    m.update()
    path = tmp_path / "model.nl"
    position = m.writenl(path)
    return NlFile(path.read_bytes()), position


def taken(m, row):
    """Adds a row, unless its constants break a function."""
    try:
        m.addnlrows([row])
    except StoreError as error:
        if error.code == INVALID:
            return False
        raise
    return True


def has_broken_base(expression):
    """A power of a constant that is not positive, with variables in the exponent, stands somewhere."""
    if not isinstance(expression, tuple):
        return False
    if expression[0] == "**":
        (base, constants), (exponent, _) = tape(expression[1]), tape(expression[2])
        if not variables_of(base) and variables_of(exponent) and not evaluate(base, constants, np.zeros(0)) > 0:
            return True
    return any(has_broken_base(part) for part in expression[1:])


@pytest.mark.parametrize("seed", range(3))
def test_tapes_say_in_the_file_what_they_say_in_the_store(seed, tmp_path):
    rng = np.random.default_rng(seed)
    m, n = Store(), 6
    m.addvars(n + 1, lb=-INF)
    m.remove(VAR, [2])
    ids = np.delete(np.arange(n + 1), 2)
    rows = []
    while len(rows) < 80:
        expression = random_expression(rng, n, int(rng.integers(1, 6)))
        if has_broken_base(expression):
            continue
        code, constants = tape(expression)
        linear = [(int(v), float(rng.normal())) for v in rng.permutation(ids)[:2]]
        row = linear, [int(ids[k]) if k >= 0 else k for k in code], constants
        if taken(m, row):
            rows.append(row)
    m.addqrows([([], [(0, 1, 1.0)])], "<", 5.0)
    m.addrows([{1: 1.0, 3: 2.0}], upper=4.0)
    m.setnlobjective([(0, 2.0)], [(1, 3, 0.5)], *tape("exp", ("*", 0.5, 1)), sense=-1)
    nl, position = written_store(m, tmp_path)

    x = rng.uniform(0.2, 1.6, n)
    byid = np.zeros(n + 1)
    byid[ids] = x
    z = np.where(position >= 0, x[position], 0.0)
    with np.errstate(all="ignore"):
        expected = [sum(a * byid[v] for v, a in row[0]) + evaluate(row[1], row[2], byid) for row in rows]
        found = [nl.row(1 + i, z) for i in range(len(rows))]
    np.testing.assert_allclose(found, expected, rtol=1e-7, atol=1e-9)
    objective_row = 1 + len(rows)
    at_objective = int(np.flatnonzero(position < 0)[0])
    assert nl.row(objective_row, z) == pytest.approx(0.5 * byid[1] * byid[3] + np.exp(0.5 * byid[1]))
    assert nl.linear[objective_row][at_objective] == -1.0
    assert nl.row_sides[objective_row] == (0, INF)
    assert nl.head[1][0] == objective_row + 1  # nonlinear rows
    assert nl.nrows == objective_row + 2
    for i, (linear, code, _) in enumerate(rows):
        named = {position[place] for place in nl.linear.get(1 + i, {})}
        assert {int(ids[p]) for p in named} == {v for v, _ in linear} | {k for k in code if k >= 0}
    in_tapes = {k for _, code, _ in rows for k in code if k >= 0} | {0, 1, 3}
    assert nl.head[3] == [len(in_tapes), 0, 0]
    assert {int(ids[p]) for p in position[: len(in_tapes)]} == in_tapes


def test_sides_of_nonlinear_rows_and_the_start_of_a_nonlinear_objective(tmp_path):
    m = Store()
    m.addvars(2)
    m.addnlrows([([], *tape("sin", 0)), ([], [], [])], lower=[-INF, 1.0], upper=[0.5, 2.0])
    m.setnlobjective([(0, 1.0)], [(0, 0, 1.0)], *tape("exp", 1))
    m.setdbls("Start", [0, 1], [3.0, 0.0])
    nl, position = written_store(m, tmp_path)
    assert nl.row_sides == [(-INF, 0.5), (1.0, 2.0), (-INF, 0)]
    assert nl.row(1, np.zeros(3)) == 0.0
    assert nl.start[int(np.flatnonzero(position < 0)[0])] == 9.0 + 1.0


def test_sums_built_term_by_term_become_one_sum(tmp_path):
    n, m = 100_000, Store()
    m.addvars(1)
    plus, minus = [0] + [0, sumof(2)] * n, [0] + [0, op("-")] * n
    mixed = tape("sum", ("-", ("sum", 0, 0), ("-", 0, ("*", 0, 0))), ("neg", 0))
    m.addnlrows([([], plus, []), ([], minus, []), ([], *mixed)])
    nl, _ = written_store(m, tmp_path)
    x = np.array([2.0])
    assert [nl.row(i, x) for i in range(3)] == [2.0 * (n + 1), 2.0 - 2.0 * n, 2 + 2 - (2 - 4) - 2]


def long_sum(*special):
    """The tape of a sum that is longer than what is looked at in one piece, with the special operands in it."""
    ordinary = [("sin", 0), ("sum", 1, ("neg", 0), 2.0), ("-", 1, ("*", 0.5, 0)), 3.0, ("exp", 1.0), 1]
    return tape("sum", *ordinary * 2000, *special, *ordinary * 4000)


def test_long_sums_say_in_the_file_what_they_say_in_the_store(tmp_path):
    m = Store()
    m.addvars(2)
    rows = [long_sum(("tan", 0), ("sum", 0, 1)), tape("sum", *[2.0] * 70_000)]
    m.addnlrows([([], *row) for row in rows])
    nl, _ = written_store(m, tmp_path)
    x = np.array([0.7, -0.2])
    assert [nl.row(i, x) for i in range(2)] == pytest.approx([evaluate(*row, x) for row in rows], rel=1e-12)


def test_long_sums_are_refused_for_what_is_in_them(tmp_path):
    chain = 0
    for _ in range(9):
        chain = ("tan", chain)
    for special, message in ((chain, "has 9 tangents in each other"), (("**", -2.0, 0), "raises the number -2 to")):
        m = Store()
        m.addvars(2)
        m.setnlobjective([], [], *long_sum(special))
        m.update()
        with pytest.raises(StoreError, match=f"the nonlinear objective {message}"):
            m.writenl(tmp_path / "model.nl")


def test_what_nests_too_deep_for_a_reader_is_refused_by_name(tmp_path):
    deep, tangents = ([0] + [op(name)] * n for name, n in (("sin", 800), ("tan", 9)))
    for code, message in ((deep, "nests 801 levels deep"), (tangents, "has 9 tangents in each other")):
        m = Store()
        m.addvars(1)
        m.addnlrows([([], [0], []), ([], code, [])], names=("chain", (2,)))
        m.update()
        with pytest.raises(StoreError, match=rf"the nonlinear constraint 'chain\[1\]' {message}"):
            m.writenl(tmp_path / "model.nl")
        m.remove(NLCONSTR, [1])
        m.update()
        m.setnlobjective([], [], code)
        with pytest.raises(StoreError, match=f"the nonlinear objective {message}"):
            m.writenl(tmp_path / "model.nl")
        assert not list(tmp_path.iterdir())


def test_parts_of_constants_become_numbers(tmp_path):
    """A reader takes what is no number for a power that is e to a logarithm."""
    m = Store()
    m.addvars(2)
    m.addnlrows(
        [
            ([], *tape("**", 0, ("/", ("sum", 1.0, 2.0, 3.0), ("-", 4.0, 2.0)))),
            ([], *tape("sum", ("*", 2.0, ("square", 3.0)), ("sum", 1.0, 1.0), 1)),
            ([], *tape("sum", 1.0, 2.0)),
        ]
    )
    m.update()
    m.writenl(tmp_path / "model.nl")
    data = (tmp_path / "model.nl").read_bytes()
    number = [b"n" + struct.pack("<d", value) for value in (3.0, 18.0, 2.0)]
    assert b"o" + struct.pack("<i", 5) + b"v" + struct.pack("<i", 0) + number[0] in data
    assert number[1] in data
    nl = NlFile(data)
    assert [nl.row(i, np.array([-2.0, 5.0])) for i in range(3)] == [-8.0, 25.0, 3.0]


@pytest.mark.parametrize("base", [-2.0, ("-", 1.0, 1.0)])
def test_power_of_what_is_not_positive_is_refused_by_name(base, tmp_path):
    m = Store()
    m.addvars(1)
    m.addnlrows([([], *tape("exp", ("**", base, 0)))], names=("decay", (1,)))
    m.update()
    with pytest.raises(StoreError, match=r"'decay\[0\]' raises the number (-2|0) to a power with variables"):
        m.writenl(tmp_path / "model.nl")


@pytest.mark.parametrize("name", [*UNARY, "**", "/"])
def test_the_engine_reads_each_function(name, tmp_path):
    pyscipopt = pytest.importorskip("pyscipopt")
    m = Store()
    m.addvars(2, lb=[1.3, 0.7], ub=[1.3, 0.7])
    code, constants = tape(name, 0) if name in UNARY else tape(name, 0, 1)
    m.setnlobjective([], [], code, constants)
    m.update()
    m.writenl(tmp_path / "model.nl")
    scip = pyscipopt.Model()
    scip.hideOutput()
    scip.readProblem(str(tmp_path / "model.nl"))
    scip.optimize()
    assert scip.getObjVal() == pytest.approx(evaluate(code, constants, np.array([1.3, 0.7])), abs=1e-6)
