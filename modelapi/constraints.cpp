// addConstr and addRange: the rows of a comparison are written straight where the store keeps them.
//
// lhs - rhs arrives as terms + constant per row, so the bound of a row is minus its constant; an infinite right-hand
// side survives that as "no bound".

#include "general.h"
#include "new_handle.h"
#include "row_blocks.h"

#include <algorithm>

namespace tarvopy::modelapi {

namespace {

Ref add_linear(ModelObject *handle, PyObject *lhs, PyObject *rhs, Sense sense, Names &names) {
    Rows rows(lhs, rhs);
    require_model(rows.block().model, handle, "the comparison has variables");
    Shape shape = rows.shape();
    const TRVnames *block = names.block(shape);
    NewHandle made(handle, TRV_CONSTR, shape, rows.block().scalar);
    TRVmodel *store = store_of(handle);
    double *bounds = rows.write_into(store, sense == Sense::Less ? Side::Upper : Side::Lower);
    to_bounds(shape.size, bounds);
    OneSided sides(sense, bounds);
    int32_t first = rows.commit(sides.lower, sides.lowerstep, sides.upper, sides.upperstep, block);
    return made.take(first);
}

Ref add_quadratic(ModelObject *handle, PyObject *lhs, PyObject *rhs, Sense sense, Names &names) {
    QuadRows rows(lhs, rhs);
    require_model(rows.block().model, handle, "the comparison has variables");
    Shape shape = rows.shape();
    const TRVnames *block = names.block(shape);
    rows.write();
    to_bounds(shape.size, rows.constants());
    NewHandle made(handle, TRV_QCONSTR, shape, rows.block().scalar);
    TRVmodel *store = store_of(handle);
    int32_t first = rows.commit(store, sense, block);
    return made.take(first);
}

Ref add_nonlinear(ModelObject *handle, PyObject *lhs, PyObject *rhs, Sense sense, Names &names) {
    NonlinearRows rows(lhs, rhs);
    require_model(rows.block().model, handle, "the comparison has variables");
    Shape shape = rows.shape();
    const TRVnames *block = names.block(shape);
    to_bounds(shape.size, rows.constants());
    OneSided sides(sense, rows.constants());
    NewHandle made(handle, TRV_NLCONSTR, shape, rows.block().scalar);
    TRVmodel *store = store_of(handle);
    int32_t first = rows.commit(store, sides.lower, sides.lowerstep, sides.upper, sides.upperstep, block);
    return made.take(first);
}

} // namespace

TARVOPY_METHOD(model_addConstr) {
    static const Signature signature{"addConstr", {"tempconstr", "name"}, 1};
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        ModelObject *handle = handle_of(self);
        if (is_general(given[0])) {
            Names names(given[1]);
            return add_indicator(handle, given[0], names);
        }
        if (!PyObject_TypeCheck(given[0], core().TempConstr))
            not_a_comparison("addConstr", given[0]);
        // Owned here: reading the sides may run code that lets go of the comparison.
        auto *comparison = reinterpret_cast<TempConstrObject *>(given[0]);
        Ref lhs = Ref::borrow(comparison->lhs), rhs = Ref::borrow(comparison->rhs);
        Sense sense = sense_of(comparison->sense);
        Names names(given[1]);
        if (is_general(lhs.get()) || is_general(rhs.get()))
            return add_general_equation(handle, lhs.get(), rhs.get(), sense, names);
        int degree = std::max(settle_degree(lhs), settle_degree(rhs));
        if (degree == 0)
            fail(PyExc_TypeError,
                 "addConstr() takes a comparison with a variable or an expression in it, not of two numbers");
        if (degree == 3)
            return add_nonlinear(handle, lhs.get(), rhs.get(), sense, names);
        if (degree == 2)
            return add_quadratic(handle, lhs.get(), rhs.get(), sense, names);
        return add_linear(handle, lhs.get(), rhs.get(), sense, names);
    });
}

namespace {

// Zeros that broadcast an expression to this shape; one number in memory.
Ref zeros_of(const Shape &shape) {
    static double zero = 0.0;
    npy_intp strides[NPY_MAXDIMS] = {};
    return check(PyArray_New(&PyArray_Type, shape.ndim, shape.dims, NPY_DOUBLE, strides, &zero, 0, 0, nullptr));
}

// The constants of the rows become their lower sides in place, and the upper ones stand in what is returned. lb and ub
// are spread over the shape.
Scratch<double> to_ranges(const Shape &shape, Doubles &lb, Doubles &ub, double *constants) {
    Scratch<double> upper = scratch<double>(shape.size);
    for (int64_t i = 0; i < shape.size; ++i) {
        double constant = constants[i];
        constants[i] = lb.at(i) - constant;
        upper[i] = ub.at(i) - constant;
    }
    return upper;
}

Ref add_linear_range(ModelObject *handle, PyObject *expr, PyObject *zeros, Doubles &lb, Doubles &ub, Names &names) {
    Rows rows(expr, zeros);
    require_model(rows.block().model, handle, "the expression has variables");
    Shape shape = rows.shape();
    const TRVnames *block = names.block(shape);
    NewHandle made(handle, TRV_CONSTR, shape, rows.block().scalar);
    TRVmodel *store = store_of(handle);
    lb.spread(shape);
    ub.spread(shape);
    double *lower = rows.write_into(store, Side::Lower);
    Scratch<double> upper = to_ranges(shape, lb, ub, lower);
    int32_t first = rows.commit(lower, 1, upper.get(), 1, block);
    return made.take(first);
}

Ref add_nonlinear_range(ModelObject *handle, PyObject *expr, PyObject *zeros, Doubles &lb, Doubles &ub, Names &names) {
    NonlinearRows rows(expr, zeros);
    require_model(rows.block().model, handle, "the expression has variables");
    Shape shape = rows.shape();
    const TRVnames *block = names.block(shape);
    lb.spread(shape);
    ub.spread(shape);
    Scratch<double> upper = to_ranges(shape, lb, ub, rows.constants());
    NewHandle made(handle, TRV_NLCONSTR, shape, rows.block().scalar);
    TRVmodel *store = store_of(handle);
    int32_t first = rows.commit(store, rows.constants(), 1, upper.get(), 1, block);
    return made.take(first);
}

} // namespace

TARVOPY_METHOD(model_addRange) {
    static const Signature signature{"addRange", {"expr", "lb", "ub", "name"}, 3};
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        ModelObject *handle = handle_of(self);
        int degree = matrix().degree(given[0]);
        require_expression("addRange", degree, given[0]);
        if (degree == 2)
            fail(PyExc_TypeError,
                 "addRange() takes linear and nonlinear expressions, not '%.200s': a quadratic row has one side, so "
                 "add two with addConstr()",
                 Py_TYPE(given[0])->tp_name);
        if (degree == 0)
            fail(PyExc_TypeError, "addRange() takes an expression with variables, not '%.200s'",
                 Py_TYPE(given[0])->tp_name);
        Doubles lb("lb", given[1], 0.0), ub("ub", given[2], 0.0);
        Names names(given[3]);
        Shape sides = lb.shape().joined(ub.shape());
        // A scalar expression between numbers is a scalar row, so it gets no array beside it.
        bool arrays = lb.given_array() || ub.given_array();
        Ref zeros = arrays ? zeros_of(sides) : Ref();
        if (degree == 3)
            return add_nonlinear_range(handle, given[0], zeros.get(), lb, ub, names);
        return add_linear_range(handle, given[0], zeros.get(), lb, ub, names);
    });
}

} // namespace tarvopy::modelapi
