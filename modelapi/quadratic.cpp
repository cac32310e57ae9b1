// The quadratic half of what an engine reads: the objective's Hessian, the quadratic rows, curvature, cones.

#include "views.h"

namespace tarvopy::modelapi {

using pysupport::as_array;

namespace {

constexpr const char *cones_name = "tarvopy._modelapi.cones";

// float64, one-dimensional, contiguous and of this length; a mistake of the caller otherwise.
double *numbers_of(PyObject *object, const char *what, int64_t count, bool writable) {
    if (!pysupport::is_array(object) || PyArray_TYPE(as_array(object)) != NPY_DOUBLE ||
        PyArray_NDIM(as_array(object)) != 1 || !PyArray_ISCARRAY_RO(as_array(object)))
        fail(PyExc_TypeError, "%s must be a contiguous array of float64", what);
    if (PyArray_DIM(as_array(object), 0) != count)
        fail(PyExc_ValueError, "%s has %zd entries, not %lld", what,
             static_cast<Py_ssize_t>(PyArray_DIM(as_array(object), 0)), static_cast<long long>(count));
    if (writable && !PyArray_ISWRITEABLE(as_array(object)))
        fail(PyExc_ValueError, "%s is read-only", what);
    return static_cast<double *>(PyArray_DATA(as_array(object)));
}

} // namespace

TARVOPY_METHOD(function_hessian) {
    static const Signature signature{"hessian", {"handle"}, 1};
    (void)self;
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        TRVmodel *store = engine_store(given[0]);
        TRVmatrix upper;
        succeed(store, TRVgethessian(store, &upper));
        return matrix_arrays(upper);
    });
}

TARVOPY_METHOD(function_qmatrix) {
    static const Signature signature{"qmatrix", {"handle"}, 1};
    (void)self;
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        TRVmodel *store = engine_store(given[0]);
        TRVqmatrix rows;
        succeed(store, TRVgetqmatrix(store, &rows));
        Ref keeper = kept<TRVqmatrix, TRVfreeqmatrix>(rows, "tarvopy._modelapi.qmatrix");
        PyObject *owner = keeper.get();
        Ref start = owned(owner, NPY_INT32, rows.nrows + 1, rows.start);
        Ref index = owned(owner, NPY_INT32, rows.nnz, rows.index),
            value = owned(owner, NPY_DOUBLE, rows.nnz, rows.value);
        Ref qstart = owned(owner, NPY_INT32, rows.nrows + 1, rows.qstart);
        Ref qvar1 = owned(owner, NPY_INT32, rows.nquad, rows.qvar1);
        Ref qvar2 = owned(owner, NPY_INT32, rows.nquad, rows.qvar2);
        Ref qvalue = owned(owner, NPY_DOUBLE, rows.nquad, rows.qvalue);
        return check(PyTuple_Pack(7, start.get(), index.get(), value.get(), qstart.get(), qvar1.get(), qvar2.get(),
                                  qvalue.get()));
    });
}

TARVOPY_METHOD(function_curvature) {
    static const Signature signature{"curvature", {"handle"}, 1};
    (void)self;
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        TRVmodel *store = engine_store(given[0]);
        const TRVdata data = figures_of(store);
        npy_intp nqrows = data.nqrows;
        Ref rows = check(PyArray_SimpleNew(1, &nqrows, NPY_INT8));
        int objective;
        succeed(store, TRVcurvature(store, &objective, static_cast<char *>(PyArray_DATA(as_array(rows)))));
        return check(Py_BuildValue("(iO)", objective, rows.get()));
    });
}

TARVOPY_METHOD(function_cones) {
    static const Signature signature{"cones", {"handle"}, 1};
    (void)self;
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        TRVmodel *store = engine_store(given[0]);
        TRVcones cones;
        succeed(store, TRVgetcones(store, &cones));
        Ref native = kept<TRVcones, TRVfreecones>(cones, cones_name);
        PyObject *owner = native.get();
        Ref fields = check(PyDict_New());
        auto put = [&](const char *name, int type, int64_t count, const void *data) {
            Ref array = view(owner, type, count, data);
            check_status(PyDict_SetItemString(fields.get(), name, array.get()));
        };
        put("qrow", NPY_INT32, cones.ncones, cones.qrow);
        put("cone", NPY_INT32, cones.ncones + 1, cones.cone);
        put("start", NPY_INT32, cones.nrows + 1, cones.start);
        put("index", NPY_INT32, cones.nnz, cones.index);
        put("value", NPY_DOUBLE, cones.nnz, cones.value);
        put("offset", NPY_DOUBLE, cones.nrows, cones.offset);
        check_status(PyDict_SetItemString(fields.get(), "native", owner));
        return fields;
    });
}

TARVOPY_METHOD(function_cone_duals) {
    static const Signature signature{"cone_duals", {"handle", "native", "s", "z", "qpi"}, 5};
    (void)self;
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        TRVmodel *store = engine_store(given[0]);
        auto *cones = static_cast<TRVcones *>(PyCapsule_GetPointer(given[1], cones_name));
        if (!cones)
            throw PythonError{};
        const TRVdata data = figures_of(store);
        const double *s = numbers_of(given[2], "s", cones->nrows, false);
        const double *z = numbers_of(given[3], "z", cones->nrows, false);
        double *qpi = numbers_of(given[4], "qpi", data.nqrows, true);
        succeed(store, TRVconeduals(store, cones, s, z, qpi));
        return Ref::none();
    });
}

} // namespace tarvopy::modelapi
