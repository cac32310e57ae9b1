// What an engine reads of a model: views of the store, the matrix, what changed.

#include "views.h"

namespace tarvopy::modelapi {

using pysupport::as_array;

namespace {

void put(PyObject *dict, const char *name, Ref value) {
    check_status(PyDict_SetItemString(dict, name, value.get()));
}

Ref whole(int64_t value) {
    return check(PyLong_FromLongLong(value));
}
Ref truth(bool value) {
    return Ref::borrow(value ? Py_True : Py_False);
}

Ref doubles(PyObject *owner, npy_intp count, const double *data) {
    return view(owner, NPY_DOUBLE, count, data);
}

// A step of 0 is one value for all, which the array keeps itself.
Ref stepped(PyObject *owner, npy_intp count, const double *data, int step) {
    if (step)
        return doubles(owner, count, data);
    npy_intp one = 1, stride = 0;
    Ref value = check(PyArray_SimpleNew(1, &one, NPY_DOUBLE));
    void *memory = PyArray_DATA(as_array(value));
    *static_cast<double *>(memory) = *data;
    Ref array = check(
        PyArray_NewFromDescr(&PyArray_Type, PyArray_DescrFromType(NPY_DOUBLE), 1, &count, &stride, memory, 0, nullptr));
    check_status(PyArray_SetBaseObject(as_array(array), value.release()));
    return array;
}

Ref copy_of(npy_intp count, const int32_t *data) {
    Ref array = check(PyArray_SimpleNew(1, &count, NPY_INT32));
    if (count)
        std::copy(data, data + count, static_cast<int32_t *>(PyArray_DATA(as_array(array))));
    return array;
}

constexpr const char *pin_capsule = "tarvopy._modelapi.pin";

void unpin(PyObject *capsule) {
    TRVunpin(static_cast<TRVpinned *>(PyCapsule_GetPointer(capsule, pin_capsule)));
}

} // namespace

TRVdata figures_of(TRVmodel *store) {
    TRVdata data;
    TRVsteps steps;
    succeed(store, TRVviewdata(store, &data, &steps));
    return data;
}

Ref pinned(TRVmodel *store, int (*take)(TRVmodel *, TRVpinned **)) {
    TRVpinned *pin;
    succeed(store, take(store, &pin));
    PyObject *made = PyCapsule_New(pin, pin_capsule, unpin);
    if (!made) {
        TRVunpin(pin);
        throw PythonError{};
    }
    return Ref::steal(made);
}

TARVOPY_METHOD(function_problem) {
    static const Signature signature{"problem", {"handle"}, 1};
    (void)self;
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        TRVmodel *store = engine_store(given[0]);
        TRVdata data;
        TRVsteps steps;
        succeed(store, TRVviewdata(store, &data, &steps));
        Ref pin = pinned(store);
        PyObject *owner = pin.get();
        Ref fields = check(PyDict_New());
        PyObject *dict = fields.get();
        put(dict, "nvars", whole(data.nvars));
        put(dict, "nrows", whole(data.nrows));
        put(dict, "nnz", whole(data.nnz));
        put(dict, "lb", stepped(owner, data.nvars, data.lb, steps.lb));
        put(dict, "ub", stepped(owner, data.nvars, data.ub, steps.ub));
        put(dict, "obj", doubles(owner, data.nvars, data.obj));
        put(dict, "vtype", letters_view(owner, data.nvars, data.vtype));
        put(dict, "lower", stepped(owner, data.nrows, data.lower, steps.lower));
        put(dict, "upper", stepped(owner, data.nrows, data.upper, steps.upper));
        put(dict, "objconstant", check(PyFloat_FromDouble(data.objconstant)));
        put(dict, "sense", whole(data.sense));
        put(dict, "nintegral", whole(data.nintegral));
        put(dict, "nsemi", whole(data.nsemi));
        put(dict, "nqobj", whole(data.nqobj));
        put(dict, "nqrows", whole(data.nqrows));
        put(dict, "nqlinear", whole(data.nqlinear));
        put(dict, "nqterms", whole(data.nqterms));
        put(dict, "nqlinterms", whole(data.nqlinterms));
        put(dict, "qsense", letters_view(owner, data.nqrows, data.qsense));
        put(dict, "qrhs", doubles(owner, data.nqrows, data.qrhs));
        put(dict, "nnlrows", whole(data.nnlrows));
        put(dict, "nnlcodes", whole(data.nnlcodes));
        put(dict, "nnlobj", whole(data.nnlobj));
        put(dict, "nllower", doubles(owner, data.nnlrows, data.nllower));
        put(dict, "nlupper", doubles(owner, data.nnlrows, data.nlupper));
        put(dict, "ngens", whole(data.ngens));
        put(dict, "start", data.start ? doubles(owner, data.nvars, data.start) : Ref::none());
        return fields;
    });
}

Ref row_arrays(TRVmodel *store) {
    TRVmatrix matrix;
    succeed(store, TRVgetmatrix(store, 0, &matrix));
    return matrix_arrays(matrix);
}

namespace {

// (start, index, value, by columns or not)
Ref for_reading(PyObject *owner, PyObject *value_owner, const TRVmatrix &matrix, const double *values,
                bool by_columns) {
    Ref start = view(owner, NPY_INT32, matrix.nmajor + 1, matrix.start);
    Ref index = view(owner, NPY_INT32, matrix.nnz, matrix.index);
    Ref value = doubles(value_owner, matrix.nnz, values);
    return check(PyTuple_Pack(4, start.get(), index.get(), value.get(), truth(by_columns).get()));
}

} // namespace

TARVOPY_METHOD(function_cheapest_matrix) {
    static const Signature signature{"cheapest_matrix", {"handle"}, 1};
    (void)self;
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        TRVmodel *store = engine_store(given[0]);
        TRVmatrix columns;
        const double *values;
        int owned;
        succeed(store, TRVviewcolumns(store, &columns, &values, &owned));
        Ref keeper;
        if (columns.start && owned)
            keeper = kept<TRVmatrix, TRVfreematrix>(columns, "tarvopy._modelapi.matrix");
        TRVmatrix rows{};
        if (!columns.start)
            succeed(store, TRVviewrows(store, &rows));
        Ref pin = pinned(store, TRVpinmatrix); // what is seen from here on stays
        if (rows.start)
            return for_reading(pin.get(), pin.get(), rows, rows.value, false);
        const Ref &owner = keeper ? keeper : pin;
        return for_reading(owner.get(), (values == columns.value ? owner : pin).get(), columns, values, true);
    });
}

TARVOPY_METHOD(function_matrix) {
    static const Signature signature{"matrix", {"handle"}, 1};
    (void)self;
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        return row_arrays(engine_store(given[0]));
    });
}

TARVOPY_METHOD(function_changes) {
    static const Signature signature{"changes", {"handle"}, 1};
    (void)self;
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        TRVmodel *store = engine_store(given[0]);
        TRVchanges changes;
        succeed(store, TRVgetchanges(store, &changes));
        Ref fields = check(PyDict_New());
        PyObject *dict = fields.get();
        put(dict, "structure", truth(changes.structure));
        put(dict, "quadratic", truth(changes.quadratic));
        put(dict, "objconstant", truth(changes.objconstant));
        put(dict, "sense", truth(changes.sense));
        put(dict, "bounds", copy_of(changes.nbounds, changes.bounds));
        put(dict, "costs", copy_of(changes.ncosts, changes.costs));
        put(dict, "sides", copy_of(changes.nsides, changes.sides));
        Ref rows = copy_of(changes.ncoefs, changes.coefrows), vars = copy_of(changes.ncoefs, changes.coefvars);
        npy_intp count = changes.ncoefs;
        Ref row_ids = copy_of(count, changes.coefrows), var_ids = copy_of(count, changes.coefvars);
        Ref coefs = check(PyArray_SimpleNew(1, &count, NPY_DOUBLE));
        auto *row = static_cast<int32_t *>(PyArray_DATA(as_array(row_ids)));
        auto *var = static_cast<int32_t *>(PyArray_DATA(as_array(var_ids)));
        auto *coef = static_cast<double *>(PyArray_DATA(as_array(coefs)));
        if (count) {
            const auto *row_position = static_cast<const int32_t *>(PyArray_DATA(as_array(rows)));
            const auto *var_position = static_cast<const int32_t *>(PyArray_DATA(as_array(vars)));
            succeed(store, TRVidsat(store, TRV_CONSTR, count, row_position, row));
            succeed(store, TRVidsat(store, TRV_VAR, count, var_position, var));
            succeed(store, TRVgetcoefs(store, count, row, var, coef));
        }
        put(dict, "coefrows", std::move(rows));
        put(dict, "coefvars", std::move(vars));
        put(dict, "coefs", std::move(coefs));
        return fields;
    });
}

TARVOPY_METHOD(function_clear_changes) {
    static const Signature signature{"clear_changes", {"handle"}, 1};
    (void)self;
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        TRVclearchanges(engine_store(given[0]));
        return Ref::none();
    });
}

} // namespace tarvopy::modelapi
