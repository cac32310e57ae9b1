// What an engine writes back, and the marking of a model as being solved.

#include "modelapi.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace tarvopy::modelapi {

using pysupport::as_array;
using pysupport::check_value;

namespace {

Ref writable(PyObject *owner, npy_intp count, double *data) {
    static double nothing;
    Ref array = check(PyArray_SimpleNewFromData(1, &count, NPY_DOUBLE, data ? data : &nothing));
    check_status(PyArray_SetBaseObject(as_array(array), Py_NewRef(owner)));
    return array;
}

double figure(PyObject *object, double otherwise) {
    return object ? check_value(PyFloat_AsDouble(object)) : otherwise;
}

int small(PyObject *object) {
    return check_value(PyLong_AsInt(object));
}

bool flag(PyObject *object) {
    return object && check_status(PyObject_IsTrue(object));
}

const char *name_attribute(int kind) {
    switch (kind) {
    case TRV_VAR:
        return "VarName";
    case TRV_QCONSTR:
        return "QName";
    case TRV_GENCONSTR:
        return "GenName";
    case TRV_NLCONSTR:
        return "NLName";
    default:
        return "ConstrName";
    }
}

} // namespace

TARVOPY_METHOD(function_open_solution) {
    static const Signature signature{"open_solution", {"handle"}, 1};
    (void)self;
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        TRVmodel *store = engine_store(given[0]);
        const TRVdata data = figures_of(store);
        double *x, *rc, *pi, *qpi = nullptr;
        succeed(store, TRVopensolution(store, &x, &rc, &pi, &qpi));
        Ref pin = pinned(store);
        Ref values = writable(pin.get(), data.nvars, x), reduced = writable(pin.get(), data.nvars, rc);
        Ref duals = writable(pin.get(), data.nrows, pi), qduals = writable(pin.get(), data.nqrows, qpi);
        return check(PyTuple_Pack(4, values.get(), reduced.get(), duals.get(), qduals.get()));
    });
}

// Eleven keywords are more than pysupport's reader takes, and one call a solve needs no speed.
TARVOPY_METHOD(function_commit_solution) {
    (void)self;
    return border([&] {
        Ref positional = check(PyTuple_New(nargs)), named = check(PyDict_New());
        for (Py_ssize_t i = 0; i < nargs; ++i)
            PyTuple_SET_ITEM(positional.get(), i, Py_NewRef(args[i]));
        for (Py_ssize_t k = 0; kwnames && k < PyTuple_GET_SIZE(kwnames); ++k)
            check_status(PyDict_SetItem(named.get(), PyTuple_GET_ITEM(kwnames, k), args[nargs + k]));
        static const char *keywords[] = {"handle",  "status",    "has_x",     "has_duals", "objval",  "bound", "gap",
                                         "runtime", "itercount", "nodecount", "engine",    "noduals", nullptr};
        PyObject *handle, *has_x = nullptr, *has_duals = nullptr, *objval = nullptr, *bound = nullptr, *gap = nullptr;
        PyObject *runtime = nullptr, *itercount = nullptr, *nodecount = nullptr;
        const char *engine = "", *noduals = nullptr;
        TRVresult result{};
        result.status = -1;
        if (!PyArg_ParseTupleAndKeywords(positional.get(), named.get(), "O|$iOOOOOOOOsz:commit_solution",
                                         const_cast<char **>(keywords), &handle, &result.status, &has_x, &has_duals,
                                         &objval, &bound, &gap, &runtime, &itercount, &nodecount, &engine, &noduals))
            throw PythonError{};
        if (result.status < 0)
            fail(PyExc_TypeError, "commit_solution() needs a status");
        const double none = std::nan("");
        result.has_x = flag(has_x);
        result.has_duals = flag(has_duals);
        result.objval = figure(objval, none);
        result.bound = figure(bound, none);
        result.gap = figure(gap, none);
        result.runtime = figure(runtime, 0.0);
        result.itercount = figure(itercount, 0.0);
        result.nodecount = figure(nodecount, 0.0);
        result.engine = engine;
        result.noduals = noduals;
        TRVmodel *store = engine_store(handle);
        succeed(store, TRVcommitsolution(store, &result));
        return Ref::none();
    });
}

TARVOPY_METHOD(function_residuals) {
    static const Signature signature{"residuals", {"handle", "has_duals"}, 2};
    (void)self;
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        int has_duals = check_status(PyObject_IsTrue(given[1]));
        TRVmodel *store = engine_store(given[0]);
        TRVresiduals r;
        succeed(store, TRVcheck(store, has_duals, &r));
        return check(Py_BuildValue("{s:d,s:d,s:d,s:d,s:d,s:i,s:i,s:i,s:i,s:i,s:d,s:d,s:d,s:d}", "row", r.row, "bound",
                                   r.bound, "integral", r.integral, "dual", r.dual, "complementarity",
                                   r.complementarity, "worstrow", r.worstrow, "worstbound", r.worstbound,
                                   "worstintegral", r.worstintegral, "worstdual", r.worstdual, "worstcomplementarity",
                                   r.worstcomplementarity, "rowscale", r.rowscale, "boundscale", r.boundscale,
                                   "dualscale", r.dualscale, "complementarityscale", r.complementarityscale));
    });
}

TARVOPY_METHOD(function_undefined) {
    static const Signature signature{"undefined", {"handle"}, 1};
    (void)self;
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        TRVmodel *store = engine_store(given[0]);
        TRVundefined found;
        succeed(store, TRVfindundefined(store, &found));
        return found.row < 0 ? Ref::none() : check(Py_BuildValue("(is)", static_cast<int>(found.row), found.why));
    });
}

TARVOPY_METHOD(function_evaluate_objective) {
    static const Signature signature{"evaluate_objective", {"handle", "x"}, 2};
    (void)self;
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        Ref x = check(PyArray_FROMANY(given[1], NPY_DOUBLE, 1, 1, NPY_ARRAY_CARRAY_RO | NPY_ARRAY_ENSUREARRAY));
        TRVmodel *store = engine_store(given[0]);
        const TRVdata data = figures_of(store);
        if (PyArray_SIZE(as_array(x)) != data.nvars)
            fail(PyExc_ValueError, "x has %zd entries for %d variables",
                 static_cast<Py_ssize_t>(PyArray_SIZE(as_array(x))), static_cast<int>(data.nvars));
        double value;
        succeed(store, TRVevalobjective(store, static_cast<const double *>(PyArray_DATA(as_array(x))), &value));
        return check(PyFloat_FromDouble(value));
    });
}

TARVOPY_METHOD(function_offenders) {
    static const Signature signature{"offenders", {"handle", "has_duals", "figure", "n"}, 4};
    (void)self;
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        int has_duals = check_status(PyObject_IsTrue(given[1])), figure = small(given[2]), n = small(given[3]);
        TRVmodel *store = engine_store(given[0]);
        std::vector<TRVoffender> worst(std::max(n, 0));
        int count = 0;
        succeed(store, TRVoffenders(store, has_duals, figure, n, worst.data(), &count));
        Ref list = check(PyList_New(count));
        for (int i = 0; i < count; ++i)
            PyList_SET_ITEM(
                list.get(), i,
                check(Py_BuildValue("(ddi)", worst[i].violation, worst[i].scale, worst[i].element)).release());
        return list;
    });
}

TARVOPY_METHOD(function_element_name) {
    static const Signature signature{"element_name", {"handle", "kind", "position"}, 3};
    (void)self;
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        int kind = small(given[1]);
        int32_t position = small(given[2]), id;
        const char *attribute = name_attribute(kind);
        TRVmodel *store = engine_store(given[0]);
        succeed(store, TRVidsat(store, kind, 1, &position, &id));
        char *text;
        int64_t *offset;
        succeed(store, TRVgetstrs(store, attribute, 1, &id, 0, &text, &offset));
        PyObject *name = PyUnicode_DecodeUTF8(text, static_cast<Py_ssize_t>(offset[1]), "replace");
        TRVfree(text);
        TRVfree(offset);
        return check(name);
    });
}

TARVOPY_METHOD(function_set_solving) {
    static const Signature signature{"set_solving", {"handle", "flag"}, 2};
    (void)self;
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        int solving = check_status(PyObject_IsTrue(given[1]));
        engine_store(given[0]);
        reinterpret_cast<ModelObject *>(given[0])->solving = solving;
        return Ref::none();
    });
}

TARVOPY_METHOD(function_is_solving) {
    static const Signature signature{"is_solving", {"handle"}, 1};
    (void)self;
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        if (!PyObject_TypeCheck(given[0], core().Model))
            fail(PyExc_TypeError, "expected a model handle, not '%.200s'", Py_TYPE(given[0])->tp_name);
        return Ref::borrow(reinterpret_cast<ModelObject *>(given[0])->solving ? Py_True : Py_False);
    });
}

} // namespace tarvopy::modelapi
