"""Any model, for hypothesis: with products in the objective and in rows, indicators, sets, bounds and sides of every
kind.

models(names)            a Store, its variables and rows called as the strategy `names` draws
models(a, b)             names of a model all drawn from a, or all from b
"""

import math

from hypothesis import strategies as st

from solver.model_file import built
from solver.store_general import INDICATOR, SOS1, SOS2

INF = math.inf

# A product's coefficient has a half, for MPS says it as two.
finite = st.floats(allow_nan=False, allow_infinity=False).filter(lambda v: abs(v) < 1e20)
nonzero = finite.filter(lambda v: v != 0)
halved = nonzero.filter(lambda v: v / 2 * 2 == v)
lower = st.one_of(st.just(0.0), st.just(-INF), finite)
upper = st.one_of(st.just(INF), st.just(1.0), finite)
sides = st.tuples(lower, upper).map(lambda pair: (min(pair), max(pair)))


def products(columns):
    """Each pair at most once: the store adds up what names the same one."""
    pairs = st.tuples(*[st.integers(0, columns - 1)] * 2).map(sorted)
    return st.lists(st.tuples(pairs, halved), unique_by=lambda term: tuple(term[0]), max_size=4).map(
        lambda terms: [(*pair, value) for pair, value in terms]
    )


@st.composite
def generals(draw, called, columns):
    """Indicators, then sets: the order in which files have them."""
    column = st.integers(0, columns - 1)
    terms = st.dictionaries(column, nonzero).map(lambda terms: (list(terms.items()), 0.0))
    indicators = draw(st.integers(0, len(called)))
    found = []
    for name in called[:indicators]:
        numbers = [draw(st.sampled_from([0.0, 1.0])), *draw(sides)]
        found.append((name, INDICATOR, [draw(column), draw(terms)], numbers))
    for name in called[indicators:]:
        members = draw(st.lists(column, min_size=1, max_size=5, unique=True))
        weights = draw(st.lists(finite, min_size=len(members), max_size=len(members), unique=True))
        found.append((name, draw(st.sampled_from([SOS1, SOS2])), members, weights))
    return found


@st.composite
def models(draw, *names):
    name = draw(st.sampled_from(names))
    columns = draw(st.lists(name, unique=True, max_size=6))
    rows = draw(st.lists(name, unique=True, max_size=5))
    some = len(columns) > 0
    nrows = draw(st.integers(0, len(rows))) if some else len(rows)
    nlinear = draw(st.integers(0, nrows))
    terms = st.dictionaries(st.integers(0, len(columns) - 1), nonzero) if some else st.just({})
    squares = products(len(columns)) if some else st.just([])
    return built(
        [(c, draw(st.sampled_from("CIBS")), draw(lower), draw(upper), draw(finite)) for c in columns],
        [(r, *draw(sides), draw(terms)) for r in rows[:nlinear]],
        name=draw(name),
        sense=draw(st.sampled_from([1, -1])),
        constant=draw(finite),
        qobj=draw(squares),
        qrows=[
            (r, draw(st.sampled_from("<>=")), draw(finite), list(draw(terms).items()), draw(squares))
            for r in rows[nlinear:nrows]
        ],
        gens=draw(generals(rows[nrows:], len(columns))) if nrows < len(rows) else [],
    )
