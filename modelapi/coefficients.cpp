// Coefficients of linear rows: one or arrays of them, a row as an expression, the whole matrix.

#include "arguments.h"

namespace tarvopy::modelapi {

using pysupport::as_array;

namespace {

// The ids of a scalar or matrix handle of one kind, ready to broadcast.
class Ids {
  public:
    Ids(ModelObject *handle, PyObject *object, PyTypeObject *scalar, PyTypeObject *array, const char *what) {
        if (Py_TYPE(object) == scalar) {
            auto *element = reinterpret_cast<ScalarObject *>(object);
            require_model(element->cmodel, handle, what);
            single_ = element->id;
            return;
        }
        if (!PyObject_TypeCheck(object, array))
            fail(PyExc_TypeError, "expected %s, not '%.200s'", what, Py_TYPE(object)->tp_name);
        ModelObject *model = nullptr;
        ids_ = check(matrix().ids(object, &model));
        require_model(model, handle, what);
    }
    bool is_array() const { return static_cast<bool>(ids_); }
    Shape shape() const { return ids_ ? shape_of(as_array(ids_)) : Shape(); }

    // The ids of this shape; the array stays this object's own.
    const int32_t *spread(const Shape &shape) {
        if (!ids_ && shape.size == 1)
            return &single_;
        if (!ids_) {
            ids_ = check(PyArray_SimpleNew(0, nullptr, NPY_INT32));
            *static_cast<int32_t *>(PyArray_DATA(as_array(ids_))) = single_;
        }
        ids_ = broadcast(as_array(ids_), shape, NPY_INT32);
        return static_cast<const int32_t *>(PyArray_DATA(as_array(ids_)));
    }

  private:
    int32_t single_ = -1;
    Ref ids_;
};

bool is_quadratic_row(PyObject *object) {
    return Py_TYPE(object) == core().QConstr || PyObject_TypeCheck(object, matrix().MQConstr);
}

Ids row_ids(const char *function, ModelObject *handle, PyObject *object) {
    if (is_quadratic_row(object))
        fail(PyExc_TypeError,
             "%s() works on linear rows: getRow() shows a quadratic row's terms, and to change them "
             "remove the row and add it anew",
             function);
    return {handle, object, core().Constr, matrix().MConstr, "a Constr or MConstr"};
}

Ids quadratic_row_ids(ModelObject *handle, PyObject *object) {
    return {handle, object, core().QConstr, matrix().MQConstr, "a QConstr or MQConstr"};
}

Ids var_ids(ModelObject *handle, PyObject *object) {
    return {handle, object, core().Var, matrix().MVar, "a Var or MVar"};
}

} // namespace

TARVOPY_METHOD(model_setCoeff) {
    static const Signature signature{"setCoeff", {"constr", "var", "value"}, 3};
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        ModelObject *handle = handle_of(self);
        Doubles values("value", given[2], 0.0);
        Ids rows = row_ids("setCoeff", handle, given[0]), vars = var_ids(handle, given[1]);
        Shape shape = rows.shape().joined(vars.shape()).joined(values.shape());
        values.spread(shape);
        const int32_t *row = rows.spread(shape), *var = vars.spread(shape);
        std::vector<double> spread;
        const double *value = values.data();
        if (values.step() == 0) {
            spread.assign(shape.size, *value);
            value = spread.data();
        }
        TRVmodel *store = store_of(handle);
        succeed(store, TRVsetcoefs(store, shape.size, row, var, value));
        return Ref::none();
    });
}

TARVOPY_METHOD(model_getCoeff) {
    static const Signature signature{"getCoeff", {"constr", "var"}, 2};
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        ModelObject *handle = handle_of(self);
        Ids rows = row_ids("getCoeff", handle, given[0]), vars = var_ids(handle, given[1]);
        Shape shape = rows.shape().joined(vars.shape());
        bool single = !rows.is_array() && !vars.is_array();
        const int32_t *row = rows.spread(shape), *var = vars.spread(shape);
        TRVmodel *store = store_of(handle);
        if (single) {
            double value;
            succeed(store, TRVgetcoefs(store, 1, row, var, &value));
            return check(PyFloat_FromDouble(value));
        }
        Ref values = check(PyArray_SimpleNew(shape.ndim, shape.dims, NPY_DOUBLE));
        succeed(store, TRVgetcoefs(store, shape.size, row, var, static_cast<double *>(PyArray_DATA(as_array(values)))));
        return values;
    });
}

TARVOPY_METHOD(model_getA) {
    static const Signature signature{"getA", {}, 0};
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        ModelObject *handle = handle_of(self);
        Ref sparse = check(PyImport_ImportModule("scipy.sparse"));
        TRVmodel *store = store_of(handle);
        int nrows = 0, nvars = 0;
        succeed(store, TRVgetintattr(store, "NumConstrs", &nrows));
        succeed(store, TRVgetintattr(store, "NumVars", &nvars));
        Ref arrays = row_arrays(store);
        PyObject *start = PyTuple_GET_ITEM(arrays.get(), 0), *index = PyTuple_GET_ITEM(arrays.get(), 1);
        PyObject *value = PyTuple_GET_ITEM(arrays.get(), 2);
        return check(PyObject_CallMethod(sparse.get(), "csr_matrix", "(OOO)(ii)", value, index, start, nrows, nvars));
    });
}

namespace {

int32_t one_row(Ids &&rows) {
    if (rows.shape().size != 1)
        fail(PyExc_ValueError, "getRow() takes one row, not %s of them", rows.shape().text().c_str());
    return *rows.spread(rows.shape());
}

// The terms are copied, since making objects may set off a collection and with it any code.
Ref linear_expression(ModelObject *handle, int64_t count, const int32_t *var, const double *coef) {
    std::vector<int32_t> vars(var, var + count);
    std::vector<double> coefs(coef, coef + count);
    int64_t ptr[2] = {0, count};
    PyObject *expression = nullptr;
    check_status(core().linexprs(handle, 1, ptr, vars.data(), coefs.data(), 1.0, nullptr, &expression));
    return Ref::steal(expression);
}

Ref linear_row(ModelObject *handle, int32_t row) {
    TRVmodel *store = store_of(handle);
    int64_t count;
    const int32_t *var;
    const double *coef;
    succeed(store, TRVgetrow(store, row, &count, &var, &coef));
    return linear_expression(handle, count, var, coef);
}

Ref quadratic_row(ModelObject *handle, int32_t row) {
    TRVmodel *store = store_of(handle);
    TRVqrows terms;
    succeed(store, TRVgetqrow(store, row, &terms));
    const int64_t begin = terms.qptr[0], end = terms.qptr[1];
    std::vector<int32_t> var1(terms.var1 + begin, terms.var1 + end), var2(terms.var2 + begin, terms.var2 + end);
    std::vector<double> coefs(terms.qcoef + begin, terms.qcoef + end);
    const int64_t first = terms.ptr[0], ptr[2] = {0, end - begin};
    Ref linear = linear_expression(handle, terms.ptr[1] - first, terms.var + first, terms.coef + first);
    PyObject *made = nullptr;
    check_status(core().quadexprs(handle, 1, ptr, var1.data(), var2.data(), coefs.data(), 1.0, &made));
    Ref expression = Ref::steal(made);
    check_status(core().quadexpr_add(expression.get(), linear.get(), 1.0));
    return expression;
}

} // namespace

TARVOPY_METHOD(model_getRow) {
    static const Signature signature{"getRow", {"constr"}, 1};
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        ModelObject *handle = handle_of(self);
        need_numpy();
        if (is_quadratic_row(given[0]))
            return quadratic_row(handle, one_row(quadratic_row_ids(handle, given[0])));
        return linear_row(handle, one_row({handle, given[0], core().Constr, matrix().MConstr,
                                           "a Constr, MConstr, QConstr or MQConstr"}));
    });
}

} // namespace tarvopy::modelapi
