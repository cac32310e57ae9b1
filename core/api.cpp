// The functions that the siblings call (collaborators/core.h): each turns this module's exceptions into NULL or -1.
#include "model_handle.h"
#include "nlexpr.h"
#include "quadexpr.h"
#include "scalars.h"

#include <cmath>

namespace tarvopy::core {

namespace {

TRVmodel *api_store(PyObject *handle) {
    TRVmodel *store = nullptr;
    border_status([&] {
        if (Py_TYPE(handle) != state.Model)
            fail(PyExc_TypeError, "a model handle is needed, not '%.200s'", Py_TYPE(handle)->tp_name);
        store = open_store(reinterpret_cast<ModelObject *>(handle));
    });
    return store;
}

PyObject *api_scalar(ModelObject *model, int kind, int32_t id) {
    return border([&] { return scalar_of(model, kind, id); });
}

int api_scalars(ModelObject *model, int kind, int64_t n, const int32_t *ids, int64_t step, PyObject **out) {
    return border_status([&] { scalars_of(model, kind, n, ids, step, out); });
}

PyObject *api_linexpr_new(double constant) {
    return border([&] { return empty_linexpr(constant); });
}

int api_linexprs(ModelObject *model, int64_t nrows, const int64_t *ptr, const int32_t *ids, const double *coef,
                 double scale, const double *constants, PyObject **out) {
    return border_status([&] { make_linexprs(model, nrows, ptr, ids, coef, scale, constants, out); });
}

// Arguments of the wrong type come from arrays that Python code filled, so they are an error and no crash.
LinExprObject *checked_linexpr(PyObject *object) {
    if (!is_linexpr(object))
        fail(PyExc_TypeError, "a LinExpr is needed, not '%.200s'", Py_TYPE(object)->tp_name);
    return as_linexpr(object);
}

QuadExprObject *checked_quadexpr(PyObject *object) {
    if (!is_quadexpr(object))
        fail(PyExc_TypeError, "a QuadExpr is needed, not '%.200s'", Py_TYPE(object)->tp_name);
    return as_quadexpr(object);
}

Operand checked_linear(PyObject *object) {
    Operand operand = classify(object);
    if (operand.kind != OperandKind::Number && !operand.is_linear())
        fail(PyExc_TypeError, "a number, a Var or a LinExpr is needed, not '%.200s'", Py_TYPE(object)->tp_name);
    return operand;
}

Operand checked_quadratic(PyObject *object) {
    Operand operand = classify(object);
    if (operand.kind != OperandKind::Number && !operand.is_polynomial())
        fail(PyExc_TypeError, "a number, a Var, a LinExpr or a QuadExpr is needed, not '%.200s'",
             Py_TYPE(object)->tp_name);
    return operand;
}

double checked_factor(double factor) {
    if (!std::isfinite(factor))
        fail_code(TRV_ERROR_INVALID_ARGUMENT, "Multiplier is infinite or NaN");
    return factor;
}

int api_linexpr_add(PyObject *self, PyObject *other, double mult) {
    return border_status([&] { add_to(checked_linexpr(self), checked_linear(other), checked_factor(mult)); });
}

int api_linexpr_scale(PyObject *self, double factor) {
    return border_status([&] { core::scale(checked_linexpr(self), {checked_factor(factor), false}); });
}

PyObject *api_linexpr_copy(PyObject *self) {
    return border([&] { return core::copy(checked_linexpr(self)); });
}

int api_linexpr_clear(PyObject *self) {
    return border_status([&] { core::clear(checked_linexpr(self)); });
}

int api_linexpr_normalize(PyObject *self) {
    return border_status([&] { normalize(checked_linexpr(self)); });
}

int api_linexpr_assign(PyObject *self, PyObject *other) {
    return border_status([&] { assign(checked_linexpr(self), checked_linear(other)); });
}

PyObject *api_quadexpr_new() {
    return border([] { return empty_quadexpr(); });
}

int api_quadexprs(ModelObject *model, int64_t nrows, const int64_t *ptr, const int32_t *ids1, const int32_t *ids2,
                  const double *coef, double scale, PyObject **out) {
    return border_status([&] { make_quadexprs(model, nrows, ptr, ids1, ids2, coef, scale, out); });
}

PyObject *api_quadexpr_linear(PyObject *self) {
    PyObject *linear = nullptr;
    border_status([&] { linear = as_object(linear_of(checked_quadexpr(self))); });
    return linear;
}

int api_quadexpr_add(PyObject *self, PyObject *other, double mult) {
    return border_status([&] { add_to(checked_quadexpr(self), checked_quadratic(other), checked_factor(mult)); });
}

int api_quadexpr_scale(PyObject *self, double factor) {
    return border_status([&] { core::scale(checked_quadexpr(self), {checked_factor(factor), false}); });
}

PyObject *api_quadexpr_copy(PyObject *self) {
    return border([&] { return core::copy(checked_quadexpr(self)); });
}

int api_quadexpr_clear(PyObject *self) {
    return border_status([&] { core::clear(checked_quadexpr(self)); });
}

int api_quadexpr_normalize(PyObject *self) {
    return border_status([&] { normalize(checked_quadexpr(self)); });
}

int api_quadexpr_assign(PyObject *self, PyObject *other) {
    return border_status([&] { assign(checked_quadexpr(self), checked_quadratic(other)); });
}

// ---- expression trees

PyObject *api_tree_constant(double value) {
    return border([&] { return constant_tree(finite_constant(value)); });
}

int api_tree_variables(ModelObject *model, int64_t n, const int32_t *ids, int64_t step, PyObject **out) {
    return border_status([&] {
        scalars_of(model, TRV_VAR, n, ids, step, out);
        try {
            for (int64_t i = 0; i < n; ++i) {
                Ref leaf = variable_tree(out[i]);
                Py_SETREF(out[i], leaf.release());
            }
        } catch (...) {
            clear_slots(out, n);
            throw;
        }
    });
}

PyObject *api_tree_of(PyObject *operand) {
    return border([&] { return coerced_tree(operand); });
}

PyObject *api_linexpr_terms(PyObject *linexpr) {
    return border([&] {
        checked_linexpr(linexpr);
        return term_trees(classify(linexpr));
    });
}

PyObject *api_quadexpr_terms(PyObject *quadexpr) {
    return border([&] {
        checked_quadexpr(quadexpr);
        return term_trees(classify(quadexpr));
    });
}

PyObject *api_tree_node(TreeOp op, int64_t n, PyObject *const *children) {
    return border([&] { return checked_node(op, children, n); });
}

int api_tree_nodes(TreeOp op, int64_t count, int64_t n, PyObject *const *children, PyObject **out) {
    return border_status(
        [&] { fill_slots(out, count, [&](int64_t i) { return checked_node(op, children + i * n, n); }); });
}

int api_tree_builder(PyObject *callable) {
    return builder_operation(callable);
}

int api_tree_value(PyObject *tree, double *value) {
    return border_status([&] { *value = value_of(checked_tree(tree)); });
}

PyObject *api_nlexpr_new(PyObject *tree) {
    return border([&] { return make_nlexpr(Ref::borrow(as_object(checked_tree(tree)))); });
}

int api_nlexprs(int64_t count, PyObject *const *trees, PyObject **out) {
    return border_status([&] {
        fill_slots(out, count, [&](int64_t i) { return make_nlexpr(Ref::borrow(as_object(checked_tree(trees[i])))); });
    });
}

int api_nlexpr_set_root(PyObject *self, PyObject *tree) {
    return border_status([&] {
        if (!is_nlexpr(self))
            fail(PyExc_TypeError, "an NLExpr is needed, not '%.200s'", Py_TYPE(self)->tp_name);
        set_root(as_nlexpr(self), Ref::borrow(as_object(checked_tree(tree))));
    });
}

PyObject *api_tempconstr(PyObject *lhs, PyObject *sense, PyObject *rhs) {
    return border([&] { return new_tempconstr(lhs, sense, rhs); });
}

CoreApi api;

} // namespace

void add_api(PyObject *module) {
    api = {.version = CoreApi::current_version,
           .linexpr_size = sizeof(LinExprObject),
           .quadexpr_size = sizeof(QuadExprObject),
           .exprtree_size = sizeof(ExprTreeObject),
           .nlexpr_size = sizeof(NLExprObject),
           .Model = state.Model,
           .Var = state.Var,
           .Constr = state.Constr,
           .QConstr = state.QConstr,
           .GenConstr = state.GenConstr,
           .NLConstr = state.NLConstr,
           .LinExpr = state.LinExpr,
           .QuadExpr = state.QuadExpr,
           .TempConstr = state.TempConstr,
           .NLExpr = state.NLExpr,
           .GenExpr = state.GenExpr,
           .ExprTree = state.ExprTree,
           .TarvoError = state.TarvoError,
           .store = api_store,
           .raise = raise_store,
           .raise_error = raise_code,
           .scalar = api_scalar,
           .scalars = api_scalars,
           .linexpr_new = api_linexpr_new,
           .linexprs = api_linexprs,
           .linexpr_add = api_linexpr_add,
           .linexpr_scale = api_linexpr_scale,
           .linexpr_copy = api_linexpr_copy,
           .linexpr_clear = api_linexpr_clear,
           .linexpr_normalize = api_linexpr_normalize,
           .linexpr_assign = api_linexpr_assign,
           .quadexpr_new = api_quadexpr_new,
           .quadexprs = api_quadexprs,
           .quadexpr_linear = api_quadexpr_linear,
           .quadexpr_add = api_quadexpr_add,
           .quadexpr_scale = api_quadexpr_scale,
           .quadexpr_copy = api_quadexpr_copy,
           .quadexpr_clear = api_quadexpr_clear,
           .quadexpr_normalize = api_quadexpr_normalize,
           .quadexpr_assign = api_quadexpr_assign,
           .tree_constant = api_tree_constant,
           .tree_variables = api_tree_variables,
           .tree_of = api_tree_of,
           .linexpr_terms = api_linexpr_terms,
           .quadexpr_terms = api_quadexpr_terms,
           .tree_node = api_tree_node,
           .tree_nodes = api_tree_nodes,
           .tree_value = api_tree_value,
           .nlexpr_new = api_nlexpr_new,
           .nlexprs = api_nlexprs,
           .nlexpr_set_root = api_nlexpr_set_root,
           .tempconstr = api_tempconstr,
           .tree_builder = api_tree_builder};
    Ref capsule = check(PyCapsule_New(&api, "tarvopy._core._C_API", nullptr));
    check_status(PyModule_AddObjectRef(module, "_C_API", capsule.get()));
}

} // namespace tarvopy::core
