// addConstr of general functions: what the functions of tarvopy.genfunc hold becomes arguments over ids.
//
//   y == genfunc.max(x, 3.0)              arguments y, x, 3
//   y == genfunc.pwl(x, xpts, ypts)       arguments y, x, the points as numbers
//   genfunc.indicator(b, 1, e <= 2)       arguments b, e, the numbers 1, -inf, 2
//
// The store looks at what each type must look like, and names the constraint; whether variables are binary is for the
// engine to say, since their VType may still change.

#include "general.h"

#include "gen_block.h"
#include "new_handle.h"
#include "pysupport/numbers.h"

#include <algorithm>
#include <cmath>

namespace tarvopy::modelapi {

namespace {

GenExprObject *as_genexpr(PyObject *object) {
    return reinterpret_cast<GenExprObject *>(object);
}

const char *name_of(int type) {
    static const char *const names[] = {"max", "min", "abs", "all", "any", "pwl", "indicator"};
    return names[type];
}

// GenExpr can be made by hand, with any arguments.
PyObject *argument(const Ref &genexpr, Py_ssize_t i, Py_ssize_t count) {
    auto *self = genexpr.as<GenExprObject>();
    if (PyTuple_GET_SIZE(self->args) != count)
        fail(PyExc_TypeError, "genfunc.%s() has %zd arguments, not %zd", name_of(self->type), count,
             PyTuple_GET_SIZE(self->args));
    return PyTuple_GET_ITEM(self->args, i);
}

// ---- arguments

bool is_scalar(PyObject *object) {
    return PyObject_TypeCheck(object, core().Var) || PyObject_TypeCheck(object, core().LinExpr) ||
           pysupport::is_number(object);
}

using Operands = std::vector<GenOperand>;

// A list is read at once, which costs an array of objects: more than a few scalars do one by one.
constexpr Py_ssize_t worth_an_array = 16;

// The end of the arguments from `first` on that are read together.
Py_ssize_t end_of_run(PyObject *args, Py_ssize_t first) {
    Py_ssize_t last = first;
    while (last < PyTuple_GET_SIZE(args) && is_scalar(PyTuple_GET_ITEM(args, last)))
        ++last;
    return last - first >= worth_an_array ? last : first + 1;
}

void read_arguments(ModelObject *handle, PyObject *args, const char *what, Operands &operands) {
    for (Py_ssize_t first = 0, last; first < PyTuple_GET_SIZE(args); first = last) {
        last = end_of_run(args, first);
        Ref run = last == first + 1 ? Ref() : check(PyTuple_GetSlice(args, first, last));
        operands.push_back(run ? GenOperand::of_scalars(handle, run.get(), what)
                               : GenOperand::of(handle, PyTuple_GET_ITEM(args, first), what));
    }
}

void read_function(ModelObject *handle, const Ref &genexpr, Operands &operands) {
    auto *self = genexpr.as<GenExprObject>();
    std::string what = std::string("an argument of genfunc.") + name_of(self->type) + "()";
    if (self->type == TRV_GEN_PWL)
        operands.push_back(GenOperand::of(handle, argument(genexpr, 0, 3), what.c_str()));
    else if (self->type == TRV_GEN_ABS)
        operands.push_back(GenOperand::of(handle, argument(genexpr, 0, 1), what.c_str()));
    else if (self->axis != Py_None)
        operands.push_back(GenOperand::of(handle, argument(genexpr, 0, 1), what.c_str(), self->axis));
    else
        read_arguments(handle, self->args, what.c_str(), operands);
}

Shape common_shape(const Operands &operands) {
    Shape shape;
    for (const GenOperand &operand : operands)
        shape = shape.joined(operand.shape());
    return shape;
}

bool all_scalar(const Operands &operands) {
    return std::ranges::all_of(operands, &GenOperand::scalar);
}

// ---- equations

// All x, then all y, for each constraint.
void append_points(const Ref &genexpr, int64_t count, GenBlock &block) {
    std::vector<double> points;
    int64_t numbers[2];
    for (int i = 0; i < 2; ++i) {
        Doubles given("the points of genfunc.pwl()", argument(genexpr, i + 1, 3), 0.0);
        Shape shape = given.shape();
        given.spread(shape);
        numbers[i] = shape.size;
        for (int64_t k = 0; k < shape.size; ++k)
            points.push_back(given.at(k));
    }
    if (numbers[0] != numbers[1])
        fail(PyExc_ValueError, "genfunc.pwl() needs as many xpts as ypts, not %zd and %zd",
             static_cast<Py_ssize_t>(numbers[0]), static_cast<Py_ssize_t>(numbers[1]));
    for (int64_t i = 0; i < count; ++i)
        block.append_data(points.data(), static_cast<int64_t>(points.size()));
}

[[noreturn]] void not_an_equation(int type) {
    if (type == TRV_GEN_INDICATOR)
        fail(PyExc_TypeError, "genfunc.indicator() is a constraint already: give it to addConstr() as it is");
    fail(PyExc_TypeError,
         "addConstr() takes genfunc.%s() as one side of an equation, v == genfunc.%s(...), where v is a variable, a "
         "linear expression or a number",
         name_of(type), name_of(type));
}

Ref add_block(ModelObject *handle, GenBlock &block, int type, const Shape &shape, bool scalar, Names &names) {
    const TRVnames *own_names = names.block(shape);
    NewHandle made(handle, TRV_GENCONSTR, shape, scalar);
    return made.take(block.commit(store_of(handle), type, own_names));
}

} // namespace

Ref add_general_equation(ModelObject *handle, PyObject *lhs, PyObject *rhs, Sense sense, Names &names) {
    Ref genexpr = Ref::borrow(is_general(lhs) ? lhs : rhs), other = Ref::borrow(is_general(lhs) ? rhs : lhs);
    int type = genexpr.as<GenExprObject>()->type;
    if (sense != Sense::Equal || is_general(other.get()) || type == TRV_GEN_INDICATOR)
        not_an_equation(type);
    std::string what = std::string("the other side of an equation with genfunc.") + name_of(type) + "()";
    Operands operands;
    operands.push_back(GenOperand::of(handle, other.get(), what.c_str()));
    read_function(handle, genexpr, operands);
    if (std::ranges::none_of(operands, &GenOperand::has_variables))
        fail(PyExc_TypeError, "addConstr() takes an equation with a variable or an expression in it, not of numbers");
    Shape shape = common_shape(operands);
    GenBlock block(shape);
    for (const GenOperand &operand : operands)
        block.append(operand);
    if (type == TRV_GEN_PWL)
        append_points(genexpr, shape.size, block);
    return add_block(handle, block, type, shape, all_scalar(operands), names);
}

// ---- indicators

namespace {

// The constants of the rows as bounds, broadcast to one an indicator, which has them among its numbers; the rows
// themselves lose them.
Scratch<double> take_bounds(GenOperand &rows, const Shape &shape) {
    to_bounds(rows.nrows(), rows.constants());
    Ref own = check(PyArray_SimpleNewFromData(rows.shape().ndim, const_cast<npy_intp *>(rows.shape().dims), NPY_DOUBLE,
                                              rows.constants()));
    Ref spread = broadcast(pysupport::as_array(own), shape, NPY_DOUBLE);
    Scratch<double> bounds = scratch<double>(shape.size);
    std::copy_n(static_cast<const double *>(PyArray_DATA(pysupport::as_array(spread))), shape.size, bounds.get());
    std::fill_n(rows.constants(), rows.nrows(), 0.0);
    return bounds;
}

} // namespace

Ref add_indicator(ModelObject *handle, PyObject *object, Names &names) {
    Ref genexpr = Ref::borrow(object);
    if (as_genexpr(object)->type != TRV_GEN_INDICATOR)
        not_an_equation(as_genexpr(object)->type);
    PyObject *comparison = argument(genexpr, 2, 3);
    if (!PyObject_TypeCheck(comparison, core().TempConstr))
        not_a_comparison("genfunc.indicator", comparison);
    auto *implied = reinterpret_cast<TempConstrObject *>(comparison);
    Sense sense = sense_of(implied->sense);

    need_numpy();
    Doubles value("value", argument(genexpr, 1, 3), 0.0);
    Operands operands;
    operands.push_back(GenOperand::of(handle, argument(genexpr, 0, 3), "the first argument of genfunc.indicator()"));
    operands.push_back(
        GenOperand::of_sides(handle, implied->lhs, implied->rhs, "a side of the comparison in genfunc.indicator()"));
    if (!operands[1].has_variables())
        fail(PyExc_TypeError, "genfunc.indicator() takes a comparison with a variable or an expression in it, not of "
                              "two numbers");
    Shape shape = common_shape(operands).joined(value.shape());
    value.spread(shape);
    Scratch<double> bounds = take_bounds(operands[1], shape);
    GenBlock block(shape);
    block.append(operands[0]);
    block.append(operands[1]);
    for (int64_t i = 0; i < shape.size; ++i)
        block.append_data({value.at(i), sense == Sense::Less ? -HUGE_VAL : bounds[i],
                           sense == Sense::Greater ? HUGE_VAL : bounds[i]});
    return add_block(handle, block, TRV_GEN_INDICATOR, shape, all_scalar(operands) && !value.given_array(), names);
}

} // namespace tarvopy::modelapi
