// setObjective: one expression of any degree takes the place of the whole objective.

#include "row_blocks.h"

namespace tarvopy::modelapi {

namespace {

int objective_sense(PyObject *sense) {
    if (!sense || sense == Py_None)
        return 0;
    if (PyIndex_Check(sense)) {
        long value = pysupport::check_value(PyNumber_AsSsize_t(sense, PyExc_OverflowError));
        if (value == TRV_MINIMIZE || value == TRV_MAXIMIZE)
            return static_cast<int>(value);
    }
    fail(PyExc_ValueError, "sense is TRV.MINIMIZE (1), TRV.MAXIMIZE (-1) or None, not %R", sense);
}

void require_one(const Shape &shape) {
    if (shape.size != 1)
        fail(PyExc_ValueError, "an objective has one element, not shape %s: sum it", shape.text().c_str());
}

void set_linear(ModelObject *handle, PyObject *expression, int sense) {
    Rows rows(expression, nullptr);
    require_model(rows.block().model, handle, "the objective has variables");
    require_one(rows.shape());
    int64_t terms = rows.block().nnz;
    Scratch<int32_t> vars = scratch<int32_t>(terms);
    Scratch<double> coefs = scratch<double>(terms);
    int64_t ptr[2];
    double constant;
    rows.write(ptr, vars.get(), coefs.get(), &constant);
    TRVmodel *store = store_of(handle);
    succeed(store, TRVsetobjective(store, ptr[1], vars.get(), coefs.get(), constant, sense));
}

void set_quadratic(ModelObject *handle, PyObject *expression, int sense) {
    QuadRows rows(expression, nullptr);
    require_model(rows.block().model, handle, "the objective has variables");
    require_one(rows.shape());
    rows.write();
    rows.commit_objective(store_of(handle), sense);
}

void set_nonlinear(ModelObject *handle, PyObject *expression, int sense) {
    NonlinearRows rows(expression, nullptr);
    require_model(rows.block().model, handle, "the objective has variables");
    require_one(rows.shape());
    rows.commit_objective(store_of(handle), sense);
}

} // namespace

TARVOPY_METHOD(model_setObjective) {
    static const Signature signature{"setObjective", {"expr", "sense"}, 1};
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        ModelObject *handle = handle_of(self);
        int sense = objective_sense(given[1]);
        int degree = matrix().degree(given[0]);
        require_expression("setObjective", degree, given[0]);
        if (degree == 3)
            set_nonlinear(handle, given[0], sense);
        else if (degree == 2)
            set_quadratic(handle, given[0], sense);
        else
            set_linear(handle, given[0], sense);
        return Ref::none();
    });
}

} // namespace tarvopy::modelapi
