"""libtarvo140 through ctypes: class Store, one method for each function of its two headers that the tests use.

>>> m = Store()
>>> x = m.addvars(2, ub=[4.0, INF])       # first id
>>> r = m.addrows([{0: 1.0, 1: 2.0}], lower=-INF, upper=8.0)
>>> m.update()
>>> m.dbls("UB", [0, 1])
array([ 4., inf])
"""

import ctypes as c

import numpy as np

from solver.store_general import GeneralConstraints
from solver.store_layout import (
    Changes,
    Cones,
    Data,
    Matrix,
    NlRows,
    NlTape,
    Offender,
    OpenRows,
    QMatrix,
    QRows,
    Removal,
    Residuals,
    Result,
    Steps,
    copied,
    f64_array,
    f64p,
    i32_array,
    i32p,
    i64p,
    ptr_to,
    step_of,
)
from solver.store_library import lib, makenames, textblock

INF = float("inf")
VAR, CONSTR, QCONSTR, GENCONSTR, NLCONSTR = 1, 2, 4, 5, 6
OUT_OF_MEMORY, INVALID, UNKNOWN_ATTRIBUTE, ATTRIBUTE_KIND, NO_DATA, NOT_IN_MODEL, SIZE_LIMIT = range(1, 8)
NOT_SOLVED, OPTIMAL, INFEASIBLE = 0, 1, 2
ROW, BOUND, INTEGRAL, DUAL, COMPLEMENTARITY = range(5)


class StoreError(Exception):
    def __init__(self, code, message):
        super().__init__(message)
        self.code = code


def qtermarrays(terms):
    """Arrays of first variables, second variables and coefficients from (id, id, coefficient)."""
    return i32_array([a for a, _, _ in terms]), i32_array([b for _, b, _ in terms]), f64_array([c for _, _, c in terms])


class Store(GeneralConstraints):
    def __init__(self, name="m"):
        self.handle = c.c_void_p()
        assert lib.TRVnewmodel(name.encode(), c.byref(self.handle)) == 0

    def __del__(self):
        lib.TRVfreemodel(self.handle)

    def call(self, function, *arguments):
        code = getattr(lib, function)(self.handle, *arguments)
        if code:
            raise StoreError(code, lib.TRVgeterrormsg(self.handle).decode())

    # ---- building
    def addvars(self, n, lb=0.0, ub=INF, obj=0.0, vtype="C", names=None):
        lb, ub, obj = f64_array(lb), f64_array(ub), f64_array(obj)
        vtype = vtype.encode()
        struct, _keep = makenames(names)
        first = c.c_int32(-7)
        self.call(
            "TRVaddvars",
            c.c_int64(n),
            ptr_to(lb, f64p),
            step_of(lb, n),
            ptr_to(ub, f64p),
            step_of(ub, n),
            ptr_to(obj, f64p),
            step_of(obj, n),
            vtype,
            step_of(vtype, n),
            struct and c.byref(struct),
            c.byref(first),
        )
        return first.value

    def addrows(self, rows, lower=-INF, upper=INF, names=None):
        """rows: dictionaries from id to coefficient, or lists of (id, coefficient)."""
        rows = [list(row.items()) if isinstance(row, dict) else row for row in rows]
        ptr = np.concatenate([[0], np.cumsum([len(row) for row in rows])]).astype(np.int64)
        return self.addcsr(
            ptr, [v for row in rows for v, _ in row], [a for row in rows for _, a in row], lower, upper, names
        )

    def addcsr(self, ptr, var, coef, lower=-INF, upper=INF, names=None):
        ptr, n = np.asarray(ptr, dtype=np.int64), len(ptr) - 1
        var, coef = np.asarray(var, dtype=np.int32), np.asarray(coef, dtype=np.float64)
        lower, upper = f64_array(lower), f64_array(upper)
        struct, _keep = makenames(names)
        first = c.c_int32(-7)
        self.call(
            "TRVaddrows",
            c.c_int64(n),
            ptr_to(ptr, i64p),
            ptr_to(var, i32p),
            ptr_to(coef, f64p),
            ptr_to(lower, f64p),
            step_of(lower, n),
            ptr_to(upper, f64p),
            step_of(upper, n),
            struct and c.byref(struct),
            c.byref(first),
        )
        return first.value

    def openrows(self, nrows, nnz):
        rows = OpenRows()
        self.call("TRVopenrows", c.c_int64(nrows), c.c_int64(nnz), c.byref(rows))
        return rows

    def commitrows(self, lower=-INF, upper=INF):
        first = c.c_int32(-7)
        lower, upper = c.c_double(lower), c.c_double(upper)
        self.call("TRVcommitrows", c.byref(lower), c.c_int(0), c.byref(upper), c.c_int(0), None, c.byref(first))
        return first.value

    def setobjective(self, terms, constant=0.0, sense=0):
        var, coef = i32_array([v for v, _ in terms]), f64_array([a for _, a in terms])
        self.call(
            "TRVsetobjective",
            c.c_int64(len(terms)),
            ptr_to(var, i32p),
            ptr_to(coef, f64p),
            c.c_double(constant),
            c.c_int(sense),
        )

    def setqobjective(self, terms, qterms, constant=0.0, sense=0):
        """terms: (id, coefficient); qterms: (id, id, coefficient)."""
        var, coef = i32_array([v for v, _ in terms]), f64_array([a for _, a in terms])
        self.setqobjectivearrays(var, coef, *qtermarrays(qterms), constant, sense)

    def setqobjectivearrays(self, var, coef, var1, var2, qcoef, constant=0.0, sense=0):
        self.call(
            "TRVsetqobjective",
            c.c_int64(len(var)),
            ptr_to(var, i32p),
            ptr_to(coef, f64p),
            c.c_int64(len(qcoef)),
            ptr_to(var1, i32p),
            ptr_to(var2, i32p),
            ptr_to(qcoef, f64p),
            c.c_double(constant),
            c.c_int(sense),
        )

    def addqrows(self, rows, sense="<", rhs=0.0, names=None):
        """rows: pairs (list of (id, coefficient), list of (id, id, coefficient))."""
        ptr, qptr = ([0, *np.cumsum([len(row[part]) for row in rows])] for part in (0, 1))
        linear = [term for row in rows for term in row[0]]
        arrays = i32_array([v for v, _ in linear]), f64_array([a for _, a in linear])
        quadratic = qtermarrays([term for row in rows for term in row[1]])
        return self.addqrowarrays(ptr, *arrays, qptr, *quadratic, sense, rhs, names)

    def addqrowarrays(self, ptr, var, coef, qptr, var1, var2, qcoef, sense="<", rhs=0.0, names=None):
        """The arrays of TRVqrows; ptr or qptr None: no such terms."""
        n = len(qptr if ptr is None else ptr) - 1
        ptr, qptr = (p if p is None else np.asarray(p, np.int64) for p in (ptr, qptr))
        rows = QRows(
            ptr_to(ptr, i64p),
            ptr_to(var, i32p),
            ptr_to(coef, f64p),
            ptr_to(qptr, i64p),
            ptr_to(var1, i32p),
            ptr_to(var2, i32p),
            ptr_to(qcoef, f64p),
        )
        rhs = f64_array(rhs)
        struct, _keep = makenames(names)
        first = c.c_int32(-7)
        self.call(
            "TRVaddqrows",
            c.c_int64(n),
            c.byref(rows),
            sense.encode(),
            step_of(sense, n),
            ptr_to(rhs, f64p),
            step_of(rhs, n),
            struct and c.byref(struct),
            c.byref(first),
        )
        return first.value

    def addnlrows(self, rows, lower=-INF, upper=INF, names=None):
        """rows: triples (list of (id, coefficient), list of codes, list of constants)."""
        ptr, codeptr = ([0, *np.cumsum([len(row[part]) for row in rows])] for part in (0, 1))
        linear = [term for row in rows for term in row[0]]
        code, constant = i32_array([k for row in rows for k in row[1]]), f64_array([v for row in rows for v in row[2]])
        terms = i32_array([v for v, _ in linear]), f64_array([a for _, a in linear])
        return self.addnlarrays(ptr, *terms, codeptr, code, constant, lower, upper, names)

    def addnlarrays(self, ptr, var, coef, codeptr, code, constant, lower=-INF, upper=INF, names=None):
        """The arrays of TRVnlrows; ptr or codeptr None: no such terms."""
        n = len(codeptr if ptr is None else ptr) - 1
        ptr, codeptr = (p if p is None else np.asarray(p, np.int64) for p in (ptr, codeptr))
        rows = NlRows(
            ptr_to(ptr, i64p),
            ptr_to(var, i32p),
            ptr_to(coef, f64p),
            ptr_to(codeptr, i64p),
            ptr_to(code, i32p),
            len(constant),
            ptr_to(constant, f64p),
        )
        lower, upper = f64_array(lower), f64_array(upper)
        struct, _keep = makenames(names)
        first = c.c_int32(-7)
        self.call(
            "TRVaddnlrows",
            c.c_int64(n),
            c.byref(rows),
            ptr_to(lower, f64p),
            step_of(lower, n),
            ptr_to(upper, f64p),
            step_of(upper, n),
            struct and c.byref(struct),
            c.byref(first),
        )
        return first.value

    def setnlobjective(self, terms, qterms, code, constant=(), shift=0.0, sense=0):
        """terms: (id, coefficient); qterms: (id, id, coefficient); shift: the objective's constant."""
        var, coef = i32_array([v for v, _ in terms]), f64_array([a for _, a in terms])
        var1, var2, qcoef = qtermarrays(qterms)
        code, constant = i32_array(code), f64_array(constant)
        tape = NlTape(len(code), ptr_to(code, i32p), len(constant), ptr_to(constant, f64p))
        self.call(
            "TRVsetnlobjective",
            c.c_int64(len(terms)),
            ptr_to(var, i32p),
            ptr_to(coef, f64p),
            c.c_int64(len(qterms)),
            ptr_to(var1, i32p),
            ptr_to(var2, i32p),
            ptr_to(qcoef, f64p),
            c.byref(tape),
            c.c_double(shift),
            c.c_int(sense),
        )

    def remove(self, kind, ids):
        ids = i32_array(ids)
        self.call("TRVremove", c.c_int(kind), c.c_int64(len(ids)), ptr_to(ids, i32p))

    def removeall(self, kinds):
        """kinds: pairs (kind, ids)."""
        kinds = [(kind, i32_array(ids)) for kind, ids in kinds]
        removals = (Removal * len(kinds))(*[(kind, len(ids), ptr_to(ids, i32p)) for kind, ids in kinds])
        self.call("TRVremoveall", c.c_int32(len(kinds)), removals)

    def update(self):
        self.call("TRVupdatemodel")

    # ---- identity
    def idcount(self, kind):
        return lib.TRVidcount(self.handle, c.c_int(kind))

    def positions(self, kind, ids):
        ids = i32_array(ids)
        out = np.empty(len(ids), np.int32)
        lib.TRVpositions(
            self.handle, c.c_int(kind), c.c_int64(len(ids)), ptr_to(ids, i32p), c.c_int32(0), ptr_to(out, i32p)
        )
        return out.tolist()

    def idsat(self, kind, positions):
        positions = i32_array(positions)
        out = np.empty(len(positions), np.int32)
        self.call("TRVidsat", c.c_int(kind), c.c_int64(len(positions)), ptr_to(positions, i32p), ptr_to(out, i32p))
        return out.tolist()

    def findname(self, kind, name):
        out = c.c_int32(-7)
        self.call("TRVfindname", c.c_int(kind), name.encode(), c.byref(out))
        return out.value

    # ---- attributes
    def _selection(self, name, ids):
        """Ids, or a range: handed over as first, first+1, ... without an array."""
        if isinstance(ids, range):
            return name.encode(), c.c_int64(len(ids)), None, c.c_int32(ids.start), len(ids)
        ids = i32_array(ids)
        self._keep = ids
        return name.encode(), c.c_int64(len(ids)), ptr_to(ids, i32p), c.c_int32(0), len(ids)

    def dbls(self, name, ids):
        *head, n = self._selection(name, ids)
        out = np.empty(n)
        self.call("TRVgetdbls", *head, ptr_to(out, f64p))
        return out

    def setdbls(self, name, ids, values):
        *head, n = self._selection(name, ids)
        values = f64_array(values)
        self.call("TRVsetdbls", *head, ptr_to(values, f64p), step_of(values, n))

    def chars(self, name, ids):
        *head, n = self._selection(name, ids)
        out = c.create_string_buffer(n + 1)
        self.call("TRVgetchars", *head, out)
        return out.raw[:n].decode()

    def ints(self, name, ids):
        *head, n = self._selection(name, ids)
        out = np.full(n, -7, np.int32)
        self.call("TRVgetints", *head, ptr_to(out, i32p))
        return out.tolist()

    def setchars(self, name, ids, values):
        *head, n = self._selection(name, ids)
        self.call("TRVsetchars", *head, values.encode(), step_of(values, n))

    def strs(self, name, ids):
        *head, n = self._selection(name, ids)
        text, offset = c.c_void_p(), i64p()
        self.call("TRVgetstrs", *head, c.byref(text), c.byref(offset))
        raw = c.string_at(text, offset[n])
        out = [raw[offset[i] : offset[i + 1]].decode() for i in range(n)]
        lib.TRVfree(text)
        lib.TRVfree(offset)
        return out

    def setstrs(self, name, ids, values):
        *head, _n = self._selection(name, ids)
        text, offset = textblock(values)
        self.call("TRVsetstrs", *head, text, ptr_to(offset, i64p))

    def int(self, name):
        out = c.c_int(-7)
        self.call("TRVgetintattr", name.encode(), c.byref(out))
        return out.value

    def dbl(self, name):
        out = c.c_double()
        self.call("TRVgetdblattr", name.encode(), c.byref(out))
        return out.value

    def str(self, name):
        out = c.c_char_p()
        self.call("TRVgetstrattr", name.encode(), c.byref(out))
        return out.value.decode()

    # ---- coefficients
    def row(self, row):
        """Terms in stored order: [(id, coefficient), ...]."""
        nnz, var, coef = c.c_int64(), i32p(), f64p()
        self.call("TRVgetrow", c.c_int32(row), c.byref(nnz), c.byref(var), c.byref(coef))
        return [(var[k], coef[k]) for k in range(nnz.value)]

    def qrow(self, qrow):
        """Terms in stored order: [(id, coefficient), ...], [(id, id, coefficient), ...]."""
        row = QRows()
        self.call("TRVgetqrow", c.c_int32(qrow), c.byref(row))
        linear = [(row.var[k], row.coef[k]) for k in range(row.ptr[0], row.ptr[1])]
        return linear, [(row.var1[k], row.var2[k], row.qcoef[k]) for k in range(row.qptr[0], row.qptr[1])]

    def nlrow(self, nlrow):
        """[(id, coefficient), ...], [code, ...], [constant, ...]."""
        row = NlRows()
        self.call("TRVgetnlrow", c.c_int32(nlrow), c.byref(row))
        linear = [(row.var[k], row.coef[k]) for k in range(row.ptr[0], row.ptr[1])]
        code = [row.code[k] for k in range(row.codeptr[0], row.codeptr[1])]
        return linear, code, [row.constant[k] for k in range(row.nconstants)]

    def nlobjective(self):
        """[code, ...], [constant, ...]."""
        tape = NlTape()
        self.call("TRVgetnlobjective", c.byref(tape))
        return [tape.code[k] for k in range(tape.ncodes)], [tape.constant[k] for k in range(tape.nconstants)]

    def evalnlrows(self, x):
        x, out = f64_array(x), np.empty(self.int("NumNLConstrs"))
        self.call("TRVevalnlrows", ptr_to(x, f64p), ptr_to(out, f64p))
        return out

    def nljacobian(self, x):
        """(start, index, value); the last row is the gradient of the objective."""
        x = f64_array(x)
        return self._matrix("TRVgetnljacobian", ptr_to(x, f64p))

    def stop_when(self, decide):
        """decide() is the answer whenever the reader or writer of a file asks whether to stop."""
        self._stop = c.CFUNCTYPE(c.c_int, c.c_void_p)(lambda _: decide())
        lib.TRVsetstop(self.handle, self._stop, None)

    def writenl(self, path):
        """The position of each variable of the file."""
        n, position = c.c_int32(), i32p()
        self.call("TRVwritenl", str(path).encode(), c.byref(n), c.byref(position))
        out = copied(position, n.value, np.int32)
        lib.TRVfree(position)
        return out

    def qobjective(self):
        """[(id, id, coefficient), ...] in stored order."""
        nq, var1, var2, qcoef = c.c_int64(), i32p(), i32p(), f64p()
        self.call("TRVgetqobjective", c.byref(nq), c.byref(var1), c.byref(var2), c.byref(qcoef))
        return [(var1[k], var2[k], qcoef[k]) for k in range(nq.value)]

    def coefs(self, rows, vars):
        rows, vars = i32_array(rows), i32_array(vars)
        out = np.empty(len(rows))
        self.call("TRVgetcoefs", c.c_int64(len(rows)), ptr_to(rows, i32p), ptr_to(vars, i32p), ptr_to(out, f64p))
        return out.tolist()

    def setcoefs(self, rows, vars, values):
        rows, vars, values = i32_array(rows), i32_array(vars), f64_array(values)
        self.call(
            "TRVsetcoefs",
            c.c_int64(len(rows)),
            ptr_to(rows, i32p),
            ptr_to(vars, i32p),
            ptr_to(values, f64p),
        )

    # ---- the engine's side
    def data(self):
        data = Data()
        self.call("TRVgetdata", c.byref(data))
        n, m = data.nvars, data.nrows
        return {
            "nvars": n,
            "nrows": m,
            "nnz": data.nnz,
            "lb": copied(data.lb, n, float),
            "ub": copied(data.ub, n, float),
            "obj": copied(data.obj, n, float),
            "vtype": data.vtype[:n].decode() if n else "",
            "lower": copied(data.lower, m, float),
            "upper": copied(data.upper, m, float),
            "objconstant": data.objconstant,
            "sense": data.sense,
            "nintegral": data.nintegral,
            "start": copied(data.start, n, float) if data.start else None,
            "nqobj": data.nqobj,
            "nqrows": data.nqrows,
            "nqlinear": data.nqlinear,
            "nqterms": data.nqterms,
            "nqlinterms": data.nqlinterms,
            "qsense": data.qsense[: data.nqrows].decode() if data.nqrows else "",
            "qrhs": copied(data.qrhs, data.nqrows, float),
            "nnlrows": data.nnlrows,
            "nnlcodes": data.nnlcodes,
            "nnlobj": data.nnlobj,
            "nllower": copied(data.nllower, data.nnlrows, float),
            "nlupper": copied(data.nlupper, data.nnlrows, float),
            "ngens": data.ngens,
        }

    def view(self):
        """Bounds and sides without having them written out: arrays, or one number for all."""
        data, steps = Data(), Steps()
        self.call("TRVviewdata", c.byref(data), c.byref(steps))
        counts = {"lb": data.nvars, "ub": data.nvars, "lower": data.nrows, "upper": data.nrows}
        return {
            name: copied(getattr(data, name), n, float) if getattr(steps, name) else getattr(data, name)[0]
            for name, n in counts.items()
        }

    def matrix(self, csc):
        """(start, index, value), by columns or by rows."""
        return self._matrix("TRVgetmatrix", c.c_int(csc))

    def hessian(self):
        """(start, index, value) of the upper triangle, by columns."""
        return self._matrix("TRVgethessian")

    def _matrix(self, function, *arguments):
        matrix = Matrix()
        self.call(function, *arguments, c.byref(matrix))
        out = (
            copied(matrix.start, matrix.nmajor + 1, np.int32),
            copied(matrix.index, matrix.nnz, np.int32),
            copied(matrix.value, matrix.nnz, float),
        )
        lib.TRVfreematrix(c.byref(matrix))
        return out

    def curvature(self):
        """(of the objective, [of each quadratic row])."""
        objective, rows = c.c_int(), np.empty(self.int("NumQConstrs"), np.int8)
        self.call("TRVcurvature", c.byref(objective), rows.ctypes.data_as(c.c_void_p))
        return objective.value, rows.tolist()

    def cones(self):
        """[(quadratic row, offset, matrix)], dense: s = offset - matrix @ x."""
        cones, nvars = Cones(), self.int("NumVars")
        self.call("TRVgetcones", c.byref(cones))
        matrix = np.zeros((cones.nrows, nvars))
        for k in range(cones.nrows):
            for p in range(cones.start[k], cones.start[k + 1]):
                matrix[k, cones.index[p]] += cones.value[p]
        offset = copied(cones.offset, cones.nrows, np.float64)
        bounds = [slice(cones.cone[i], cones.cone[i + 1]) for i in range(cones.ncones)]
        out = [(cones.qrow[i], offset[rows], matrix[rows]) for i, rows in enumerate(bounds)]
        lib.TRVfreecones(c.byref(cones))
        return out

    def qmatrix(self):
        """The arrays of TRVqmatrix: start, index, value, qstart, qvar1, qvar2, qvalue."""
        matrix = QMatrix()
        self.call("TRVgetqmatrix", c.byref(matrix))
        n, nnz, nquad = matrix.nrows, matrix.nnz, matrix.nquad
        out = (
            copied(matrix.start, n + 1, np.int32),
            copied(matrix.index, nnz, np.int32),
            copied(matrix.value, nnz, float),
            copied(matrix.qstart, n + 1, np.int32),
            copied(matrix.qvar1, nquad, np.int32),
            copied(matrix.qvar2, nquad, np.int32),
            copied(matrix.qvalue, nquad, float),
        )
        lib.TRVfreeqmatrix(c.byref(matrix))
        return out

    def changes(self):
        ch = Changes()
        self.call("TRVgetchanges", c.byref(ch))
        pairs = zip(
            copied(ch.coefrows, ch.ncoefs, np.int32).tolist(),
            copied(ch.coefvars, ch.ncoefs, np.int32).tolist(),
            strict=True,
        )
        return {
            "structure": bool(ch.structure),
            "quadratic": bool(ch.quadratic),
            "objconstant": bool(ch.objconstant),
            "sense": bool(ch.sense),
            "bounds": copied(ch.bounds, ch.nbounds, np.int32).tolist(),
            "costs": copied(ch.costs, ch.ncosts, np.int32).tolist(),
            "sides": copied(ch.sides, ch.nsides, np.int32).tolist(),
            "coefs": list(pairs),
        }

    def clearchanges(self):
        lib.TRVclearchanges(self.handle)

    def opensolution(self, x=None, rc=None, pi=None, qpi=None):
        pointers = f64p(), f64p(), f64p(), f64p()
        wanted = pointers if qpi is not None else pointers[:3]
        self.call("TRVopensolution", *(c.byref(p) for p in wanted), *([None] if qpi is None else []))
        for pointer, values in zip(pointers, (x, rc, pi, qpi), strict=True):
            for i, value in enumerate(values if values is not None else ()):
                pointer[i] = value

    def commitsolution(
        self, status=OPTIMAL, has_x=False, has_duals=False, objval=np.nan, bound=np.nan, gap=np.nan, engine="E 1"
    ):
        result = Result(status, has_x, has_duals, objval, bound, gap, 0.5, 3, 1, engine.encode())
        self.call("TRVcommitsolution", c.byref(result))

    def solved(self, x, rc=None, pi=None, qpi=None, **figures):
        """As if an engine had found these values."""
        self.opensolution(x, rc, pi, qpi)
        self.commitsolution(has_x=True, has_duals=rc is not None, **figures)

    def check(self, has_duals=False):
        out = Residuals()
        self.call("TRVcheck", c.c_int(has_duals), c.byref(out))
        return out

    def offenders(self, figure, n, has_duals=False):
        """[(element, violation, scale), ...], worst first. figure: ROW, BOUND, ..."""
        out, count = (Offender * max(n, 1))(), c.c_int(-7)
        self.call("TRVoffenders", c.c_int(has_duals), c.c_int(figure), c.c_int(n), out, c.byref(count))
        return [(out[i].element, out[i].violation, out[i].scale) for i in range(count.value)]

    def evalobjective(self, x):
        x, value = f64_array(x), c.c_double()
        self.call("TRVevalobjective", ptr_to(x, f64p), c.byref(value))
        return value.value
