"""Any model, for hypothesis: with products in the objective and in rows, bounds and sides of every kind.

models(names)            a Store, its variables and rows called as the strategy `names` draws
models(a, b)             names of a model all drawn from a, or all from b
"""

import math

from hypothesis import strategies as st

from solver.model_file import built

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
def models(draw, *names):
    name = draw(st.sampled_from(names))
    columns = draw(st.lists(name, unique=True, max_size=6))
    rows = draw(st.lists(name, unique=True, max_size=5))
    nlinear = draw(st.integers(0, len(rows)))
    some = len(columns) > 0
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
            for r in rows[nlinear:]
        ],
    )
