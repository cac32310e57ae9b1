"""The store against a model of it in plain Python: random sequences of adding, removing, changing and updating."""

import numpy as np
import pytest
from hypothesis import HealthCheck, settings
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, invariant, precondition, rule
from scipy.sparse import csc_matrix

from solver.store import CONSTR, GENCONSTR, NLCONSTR, QCONSTR, VAR, Store, StoreError
from solver.store_general import MAX
from solver.tapes import evaluate, tape

PENDING, PRESENT, MARKED, REMOVED = "pending", "present", "marked", "removed"
values = st.integers(-3, 3).map(float)


def expressions(usable):
    """Of operations that are exact on small integers, for tapes."""
    leaf = st.sampled_from(usable) | values if usable else values
    return st.recursive(
        leaf,
        lambda part: (
            st.tuples(st.sampled_from(["*", "-"]), part, part)
            | st.tuples(st.just("neg"), part)
            | st.tuples(st.just("sum"), part, part, part)
        ),
        max_leaves=6,
    )


def summed(pairs):
    """One coefficient for each unordered pair, zeros dropped, in the order of first occurrence."""
    terms = {}
    for v, w, a in pairs:
        key = min(v, w), max(v, w)
        terms[key] = terms.get(key, 0.0) + a
    return {key: a for key, a in terms.items() if a}


class Element:
    def __init__(self, **fields):
        self.state = PENDING
        self.__dict__.update(fields)


class StoreMachine(RuleBasedStateMachine):
    def __init__(self):
        super().__init__()
        self.store, self.vars, self.rows, self.qrows, self.gens, self.nlrows = Store(), [], [], [], [], []
        self.qobj, self.nlobj = {}, ([], [])

    def ids(self, elements, *states):
        return [i for i, e in enumerate(elements) if e.state in states]

    def drawid(self, data, elements, *states):
        return data.draw(st.sampled_from(self.ids(elements, *states)))

    # ---- what is done to both
    @rule(obj=st.lists(values, max_size=4))
    def add_variables(self, obj):
        first = self.store.addvars(len(obj), obj=obj or 0.0)
        assert first == len(self.vars)
        self.vars += [Element(obj=c, lb=0.0) for c in obj]

    @rule(data=st.data(), n=st.integers(0, 3), upper=values)
    def add_rows(self, data, n, upper):
        usable = self.ids(self.vars, PENDING, PRESENT)
        term = st.tuples(st.sampled_from(usable), values) if usable else st.nothing()
        rows = [data.draw(st.lists(term, max_size=12 if usable else 0)) for _ in range(n)]
        assert self.store.addrows(rows, upper=upper) == len(self.rows)
        for row in rows:
            terms = {}
            for v, a in row:
                terms[v] = terms.get(v, 0.0) + a
            self.rows.append(Element(terms={v: a for v, a in terms.items() if a}, upper=upper))

    def drawpairs(self, data):
        usable = self.ids(self.vars, PENDING, PRESENT)
        variable = st.sampled_from(usable) if usable else st.nothing()
        return data.draw(st.lists(st.tuples(variable, variable, values), max_size=14 if usable else 0))

    @rule(data=st.data(), n=st.integers(0, 3), rhs=values, sense=st.sampled_from("<>="))
    def add_quadratic_rows(self, data, n, rhs, sense):
        usable = self.ids(self.vars, PENDING, PRESENT)
        linear = [dict.fromkeys(usable[:k], 2.0) for k in range(n)]
        pairs = [self.drawpairs(data) for _ in range(n)]
        rows = [(list(terms.items()), p) for terms, p in zip(linear, pairs, strict=True)]
        assert self.store.addqrows(rows, sense, rhs) == len(self.qrows)
        for terms, p in zip(linear, pairs, strict=True):
            self.qrows.append(Element(terms=terms, pairs=summed(p), rhs=rhs, sense=sense))

    @rule(data=st.data(), n=st.integers(0, 3), constant=values)
    def add_general_constraints(self, data, n, constant):
        usable = self.ids(self.vars, PENDING, PRESENT)
        terms = st.dictionaries(st.sampled_from(usable), values.filter(bool), max_size=3) if usable else st.just({})
        arguments = [[data.draw(terms) for _ in range(data.draw(st.integers(2, 3)))] for _ in range(n)]
        gens = [[(list(argument.items()), constant) for argument in one] for one in arguments]
        assert self.store.addgens(MAX, gens) == len(self.gens)
        self.gens += [Element(arguments=one) for one in gens]

    def drawtape(self, data):
        return tape(data.draw(expressions(self.ids(self.vars, PENDING, PRESENT))))

    @rule(data=st.data(), n=st.integers(0, 3), upper=values)
    def add_nonlinear_rows(self, data, n, upper):
        usable = self.ids(self.vars, PENDING, PRESENT)
        rows = [(dict.fromkeys(usable[k:], 3.0), *self.drawtape(data)) for k in range(n)]
        arrays = [(list(terms.items()), *whole) for terms, *whole in rows]
        assert self.store.addnlrows(arrays, upper=upper) == len(self.nlrows)
        self.nlrows += [Element(terms=terms, tape=tuple(whole), upper=upper) for terms, *whole in rows]

    @rule(data=st.data(), nonlinear=st.booleans())
    def set_objective(self, data, nonlinear):
        pairs = self.drawpairs(data)
        terms = [(v, self.vars[v].obj) for v in self.ids(self.vars, PENDING, PRESENT)]
        self.nlobj = self.drawtape(data) if nonlinear else ([], [])
        if nonlinear:
            self.store.setnlobjective(terms, pairs, *self.nlobj)
        else:
            self.store.setqobjective(terms, pairs)
        for v in self.ids(self.vars, MARKED):
            self.vars[v].obj = 0.0
        self.qobj = summed(pairs)

    def drop_terms(self, gone):
        gone = set(gone)
        for row in self.rows + self.qrows + self.nlrows:
            row.terms = {v: a for v, a in row.terms.items() if v not in gone}
        for row in self.qrows:
            row.pairs = {key: a for key, a in row.pairs.items() if gone.isdisjoint(key)}
        self.qobj = {key: a for key, a in self.qobj.items() if gone.isdisjoint(key)}

    def leave(self, elements, ids):
        for e in (elements[i] for i in ids):
            e.state = {PENDING: REMOVED, PRESENT: MARKED}.get(e.state, e.state)

    def remove(self, kind, elements, ids):
        self.store.remove(kind, ids)
        self.leave(elements, ids)

    def drawids(self, data, elements):
        return data.draw(st.lists(st.integers(0, len(elements) - 1), max_size=3)) if elements else []

    @rule(data=st.data(), together=st.booleans())
    def remove_variables(self, data, together):
        """Alone, or with nonlinear rows and general constraints that may hold them."""
        ids = self.drawids(data, self.vars)
        gens, rows = (self.drawids(data, elements) if together else [] for elements in (self.gens, self.nlrows))
        held = {k for k in self.nlobj[0] if k >= 0}
        for g in set(self.ids(self.gens, PENDING, PRESENT)) - set(gens):
            held |= {v for terms, _ in self.gens[g].arguments for v, _ in terms}
        for r in set(self.ids(self.nlrows, PENDING, PRESENT)) - set(rows):
            held |= {k for k in self.nlrows[r].tape[0] if k >= 0}
        kinds = [(VAR, ids), (GENCONSTR, gens), (NLCONSTR, rows)]
        if held & set(ids):
            with pytest.raises(StoreError, match=r"stands in the (general|nonlinear) (constraint|objective)"):
                self.store.removeall(kinds)
            return
        self.store.removeall(kinds)
        for elements, gone in (self.vars, ids), (self.gens, gens), (self.nlrows, rows):
            self.leave(elements, gone)
        self.drop_terms(self.ids(self.vars, REMOVED))

    @rule(data=st.data())
    def remove_rows(self, data):
        self.remove(CONSTR, self.rows, self.drawids(data, self.rows))

    @rule(data=st.data())
    def remove_general_constraints(self, data):
        self.remove(GENCONSTR, self.gens, self.drawids(data, self.gens))

    @rule(data=st.data())
    def remove_quadratic_rows(self, data):
        self.remove(QCONSTR, self.qrows, self.drawids(data, self.qrows))

    @precondition(lambda self: self.ids(self.qrows, PENDING, PRESENT, MARKED))
    @rule(data=st.data(), value=values)
    def set_quadratic_side(self, data, value):
        i = self.drawid(data, self.qrows, PENDING, PRESENT, MARKED)
        self.store.setdbls("QRHS", [i], value)
        self.qrows[i].rhs = value

    @precondition(lambda self: self.ids(self.vars, PENDING, PRESENT, MARKED))
    @rule(data=st.data(), value=values)
    def set_bound(self, data, value):
        i = self.drawid(data, self.vars, PENDING, PRESENT, MARKED)
        self.store.setdbls("LB", [i], value)
        self.vars[i].lb = value

    @precondition(lambda self: self.ids(self.vars, PENDING, PRESENT) and self.ids(self.rows, PENDING, PRESENT, MARKED))
    @rule(data=st.data(), n=st.integers(1, 6))
    def set_coefficients(self, data, n):
        rows = [self.drawid(data, self.rows, PENDING, PRESENT, MARKED) for _ in range(n)]
        vars = [self.drawid(data, self.vars, PENDING, PRESENT) for _ in range(n)]
        coefs = data.draw(st.lists(values, min_size=n, max_size=n))
        self.store.setcoefs(rows, vars, coefs)
        for r, v, a in zip(rows, vars, coefs, strict=True):
            if a:
                self.rows[r].terms[v] = a
            else:
                self.rows[r].terms.pop(v, None)

    @rule()
    def update(self):
        self.store.update()
        for elements in (self.vars, self.rows, self.qrows, self.gens, self.nlrows):
            for e in elements:
                e.state = {PENDING: PRESENT, MARKED: REMOVED}.get(e.state, e.state)
        self.drop_terms(self.ids(self.vars, REMOVED))

    # ---- what must agree at all times
    def expected_positions(self, elements):
        present = self.ids(elements, PRESENT, MARKED)
        return {
            i: present.index(i) if i in present else -1 if e.state == PENDING else -2 for i, e in enumerate(elements)
        }

    @invariant()
    def rows_agree(self):
        for r in self.ids(self.rows, PENDING, PRESENT, MARKED):
            assert self.store.row(r) == list(self.rows[r].terms.items())
        for r in self.ids(self.qrows, PENDING, PRESENT, MARKED):
            row = self.qrows[r]
            linear, quadratic = self.store.qrow(r)
            assert linear == list(row.terms.items())
            assert quadratic == [(v, w, a) for (v, w), a in row.pairs.items()]
        assert self.store.qobjective() == [(v, w, self.qobj[v, w]) for v, w in sorted(self.qobj, key=lambda p: p[::-1])]

    @invariant()
    def general_constraints_agree(self):
        for g in self.ids(self.gens, PENDING, PRESENT, MARKED):
            assert self.store.gen(g) == (MAX, self.gens[g].arguments, [])
        column = self.expected_positions(self.vars)
        assert self.store.genmatrix() == [
            (MAX, [([(column[v], a) for v, a in terms], c) for terms, c in self.gens[g].arguments], [])
            for g in self.ids(self.gens, PRESENT, MARKED)
        ]

    @invariant()
    def nonlinear_rows_agree(self):
        for r in self.ids(self.nlrows, PENDING, PRESENT, MARKED):
            row = self.nlrows[r]
            assert self.store.nlrow(r) == (list(row.terms.items()), *row.tape)
        assert self.store.nlobjective() == tuple(self.nlobj)

    @invariant()
    def positions_agree(self):
        linear = (VAR, self.vars), (CONSTR, self.rows)
        for kind, elements in (*linear, (QCONSTR, self.qrows), (GENCONSTR, self.gens), (NLCONSTR, self.nlrows)):
            expected = self.expected_positions(elements)
            assert self.store.positions(kind, list(expected)) == list(expected.values())
            present = self.ids(elements, PRESENT, MARKED)
            assert self.store.idsat(kind, range(len(present))) == present

    @invariant()
    def matrices_agree(self):
        column, data = self.expected_positions(self.vars), self.store.data()
        present = self.ids(self.rows, PRESENT, MARKED)
        dense = np.zeros((len(present), data["nvars"]))
        for i, r in enumerate(present):
            for v, a in self.rows[r].terms.items():
                if column[v] >= 0:
                    dense[i, column[v]] = a
        start, index, value = self.store.matrix(csc=1)
        expected = csc_matrix(dense)
        assert [start.tolist(), index.tolist(), value.tolist()] == [
            expected.indptr.tolist(),
            expected.indices.tolist(),
            expected.data.tolist(),
        ]
        start, index, value = self.store.matrix(csc=0)
        byrow = np.zeros_like(dense)
        byrow[np.repeat(np.arange(len(present)), np.diff(start)), index] = value
        assert (byrow == dense).all()
        assert data["nnz"] == self.store.int("NumNZs") == len(value) == np.count_nonzero(dense)

    @invariant()
    def values_agree(self):
        """Objective, quadratic and nonlinear rows, as engines read them, at a point."""
        column = {i: p for i, p in self.expected_positions(self.vars).items() if p >= 0}
        x = np.arange(1.0, len(column) + 1)
        at = {i: x[p] for i, p in column.items()}

        def value(terms, pairs):
            whole = sum(a * at[v] for v, a in terms.items() if v in at)
            return whole + sum(a * at[v] * at[w] for (v, w), a in pairs.items() if v in at and w in at)

        start, index, entry = self.store.hessian()
        upper = csc_matrix((entry, index, start), (len(x), len(x))).toarray()
        assert (np.triu(upper) == upper).all()
        hessian = upper + np.triu(upper, 1).T
        objective = value({i: v.obj for i, v in enumerate(self.vars)}, self.qobj)
        data = self.store.data()
        byid = np.array([at.get(i, 0.0) for i in range(len(self.vars))])  # pending ones are 0 in a tape
        nonlinear = evaluate(*self.nlobj, byid) if self.nlobj[0] else 0.0
        assert data["obj"] @ x + x @ hessian @ x / 2 == objective
        assert self.store.evalobjective(x) == objective + nonlinear
        rows = [self.nlrows[i] for i in self.ids(self.nlrows, PRESENT, MARKED)]
        assert self.store.evalnlrows(x).tolist() == [value(r.terms, {}) + evaluate(*r.tape, byid) for r in rows]
        assert data["nqobj"] == len(entry) == np.count_nonzero(upper)

        start, index, entry, qstart, v, w, qentry = self.store.qmatrix()
        assert (v <= w).all()
        assert (data["nqlinterms"], data["nqterms"]) == (len(entry), len(qentry))
        activity = [
            entry[start[i] : start[i + 1]] @ x[index[start[i] : start[i + 1]]]
            + (qentry * x[v] * x[w])[qstart[i] : qstart[i + 1]].sum()
            for i in range(data["nqrows"])
        ]
        rows = [self.qrows[i] for i in self.ids(self.qrows, PRESENT, MARKED)]
        assert activity == [value(row.terms, row.pairs) for row in rows]

    @invariant()
    def arrays_agree(self):
        data = self.store.data()
        present = [self.vars[i] for i in self.ids(self.vars, PRESENT, MARKED)]
        assert data["lb"].tolist() == [v.lb for v in present]
        assert data["obj"].tolist() == [v.obj for v in present]
        qrows = [self.qrows[i] for i in self.ids(self.qrows, PRESENT, MARKED)]
        assert data["qrhs"].tolist() == [row.rhs for row in qrows]
        assert data["qsense"] == "".join(row.sense for row in qrows)
        assert data["nqlinear"] == sum(not row.pairs for row in qrows)
        assert data["upper"].tolist() == [self.rows[i].upper for i in self.ids(self.rows, PRESENT, MARKED)]


StoreMachine.TestCase.settings = settings(
    max_examples=60, stateful_step_count=30, deadline=None, suppress_health_check=list(HealthCheck)
)
TestRandomModels = StoreMachine.TestCase
