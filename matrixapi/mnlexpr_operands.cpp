// What stands on the other side of nonlinear arithmetic: every kind of operand as a view of an array node.
//
//   MVar, Var              Variables                     MLinExpr, LinExpr     Linear
//   MQuadExpr, QuadExpr    Quadratic                     numbers and arrays    Numbers
//   MNLExpr                its own node; its elements' roots as Trees where its objects exist
//
// Elements of several models, and arrays of objects, become Trees, element by element.
#include "matrixapi/mlinexpr_operators.h"
#include "matrixapi/mnlexpr.h"
#include "matrixapi/mquadexpr_dict.h"

namespace tarvopy {

using namespace pysupport;

namespace {

struct Side {
    NodeView view;
    flat::Shape shape;
};

Side side_of(NodeRef node) {
    NodeView view = whole(node);
    return {std::move(view), node->shape};
}

Ref tree_array_of(int64_t size) {
    npy_intp n = size;
    return check(PyArray_SimpleNew(1, &n, NPY_OBJECT));
}

PyObject **slots_of(const Ref &array) {
    return static_cast<PyObject **>(PyArray_DATA(as_array(array)));
}

// Trees of all elements of an object array, by a function of ours.
template <class MakeTree> Side trees_of_elements(PyObject *array, MakeTree make_tree) {
    Ref elements = contiguous_objects(array);
    const npy_intp n = PyArray_SIZE(as_array(elements));
    Ref trees = tree_array_of(n);
    for (npy_intp i = 0; i < n; ++i) {
        PyObject *element = slots_of(elements)[i];
        slots_of(trees)[i] = make_tree(element ? element : Py_None).release();
    }
    return side_of(trees_node(std::move(trees), shape_of_array(array)));
}

PyObject *need_type(PyObject *element, PyTypeObject *type, const char *function, const char *name) {
    if (!PyObject_TypeCheck(element, type))
        fail(PyExc_TypeError, "%s() takes a %s, not '%.200s'", function, name, Py_TYPE(element)->tp_name);
    return element;
}

Ref tree_of(PyObject *operand) {
    return check(mod.core->tree_of(operand));
}

Side tree_side(Ref tree) {
    Ref trees = tree_array_of(1);
    slots_of(trees)[0] = tree.release();
    return side_of(trees_node(std::move(trees), {}));
}

// ---- arrays of variables and polynomials ----------------------------------------------------------------------------

Side mvar_side(PyObject *mvar) {
    VarIds vars;
    if (mvar_ids(mvar, vars))
        return side_of(variables_node(std::move(vars.ids), std::move(vars.shape), std::move(vars.model)));
    return trees_of_elements(vararr_of(mvar).get(), [](PyObject *element) {
        return tree_of(need_type(element, mod.core->Var, "_from_var", "Var"));
    });
}

// The object array of a full expression, or of a full copy.
Ref full_learr(PyObject *mlinexpr) {
    Ref full = is_compact(mlinexpr) ? to_full(mlinexpr) : Ref::borrow(mlinexpr);
    Ref array = learr(full.get());
    if (!is_array(array.get()))
        fail(PyExc_TypeError, "_learr is no array but a %.200s", Py_TYPE(array.get())->tp_name);
    return array;
}

Side mlinexpr_side(PyObject *expr) {
    if (is_compact(expr))
        join_parts(expr);
    flat::Form form;
    Ref model;
    if (flat_value(expr, form, model))
        return side_of(linear_node(std::move(form), std::move(model)));
    return trees_of_elements(full_learr(expr).get(), [](PyObject *element) {
        return tree_of(need_type(element, mod.core->LinExpr, "_from_linexpr", "LinExpr"));
    });
}

Side elementwise_quadratic(PyObject *expr, const flat::Shape &shape) {
    Ref full = is_compact_quad(expr) ? quad_to_full(expr) : Ref::borrow(expr);
    Ref quadratic = contiguous_objects(qearr(full.get()).get());
    Ref linear = contiguous_objects(full_learr(ndle_of(full.get())).get());
    if (shape_of_array(quadratic.get()) != shape || shape_of_array(linear.get()) != shape)
        fail(PyExc_ValueError, "the halves of an MQuadExpr have the shapes %S and %S",
             shape_tuple(shape_of_array(quadratic.get())).get(), shape_tuple(shape_of_array(linear.get())).get());
    Ref trees = tree_array_of(flat::size_of(shape));
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(trees)); ++i) {
        PyObject *le = slots_of(linear)[i], *qe = slots_of(quadratic)[i];
        need_type(le ? le : Py_None, mod.core->LinExpr, "_linexpr_terms", "LinExpr");
        need_type(qe ? qe : Py_None, mod.core->QuadExpr, "_quadexpr_terms", "QuadExpr");
        slots_of(trees)[i] = quadratic_tree(le, qe).release();
    }
    return side_of(trees_node(std::move(trees), shape));
}

Side mquadexpr_side(PyObject *expr) {
    flat::Shape shape = consistent_shape(expr);
    if (is_compact_quad(expr))
        merge_quad_parts(expr);
    Ref ndle = Ref::borrow(ndle_of(expr));
    if (is_compact(ndle.get()))
        join_parts(ndle.get());
    flat::Form linear, inner;
    flat::QuadForm quadratic;
    Ref model, other;
    if (quad_value(expr, quadratic, model, inner) && is_zero(inner) && flat_value(ndle.get(), linear, other) &&
        merge_models(model, other)) {
        quadratic.shape = linear.shape = shape;
        return side_of(quadratic_node(std::move(linear), std::move(quadratic), std::move(model)));
    }
    return elementwise_quadratic(expr, shape);
}

Side mnlexpr_side(PyObject *expr) {
    if (NonlinearNative *native = nonlinear_of(expr))
        return {native->view(), native->shape()};
    Ref array = nlearr(expr);
    Ref trees = roots_of(array.get());
    return side_of(trees_node(std::move(trees), shape_of_array(array.get())));
}

// ---- scalars --------------------------------------------------------------------------------------------------------

Side var_side(PyObject *var) {
    auto *scalar = reinterpret_cast<VarObject *>(var);
    auto *model = reinterpret_cast<PyObject *>(scalar->cmodel);
    return side_of(variables_node(flat::Buffer<int32_t>::copy_of(&scalar->id, 1), {}, Ref::borrow(model)));
}

Side linexpr_side(PyObject *linexpr) {
    flat::Form form;
    Ref model;
    if (flat_linexpr(linexpr, form, model))
        return side_of(linear_node(std::move(form), std::move(model)));
    return tree_side(tree_of(linexpr));
}

Side quadexpr_side(PyObject *quadexpr) {
    flat::Form linear;
    flat::QuadForm quadratic;
    Ref model;
    if (quad_of_quadexpr(quadexpr, quadratic, linear, model))
        return side_of(quadratic_node(std::move(linear), std::move(quadratic), std::move(model)));
    return tree_side(tree_of(quadexpr));
}

// ---- numbers --------------------------------------------------------------------------------------------------------

// What an array of objects holds may be anything that a scalar operand may be.
Side array_side(PyObject *array) {
    flat::Shape shape = shape_of_array(array);
    if (Ref numbers = as_doubles(array)) {
        auto values = flat::Buffer<double>::copy_of(doubles(numbers), flat::size_of(shape));
        return side_of(numbers_node(std::move(values), std::move(shape)));
    }
    return trees_of_elements(plain_array(array).get(), tree_of);
}

Side side_of_kind(PyObject *object, Operand kind) {
    switch (kind) {
    case Operand::MVar:
        return mvar_side(object);
    case Operand::MLinExpr:
        return mlinexpr_side(object);
    case Operand::MQuadExpr:
        return mquadexpr_side(object);
    case Operand::MNLExpr:
        return mnlexpr_side(object);
    case Operand::Var:
        return var_side(object);
    case Operand::LinExpr:
        return linexpr_side(object);
    case Operand::QuadExpr:
        return quadexpr_side(object);
    case Operand::NLExpr:
        return tree_side(tree_of(object));
    case Operand::Array:
        return array_side(object);
    case Operand::Sparse:
        return array_side(to_dense(object).get());
    default:
        return side_of(number_node(number(object)));
    }
}

} // namespace

bool nonlinear_operand(PyObject *object, Operand kind, NodeView &view, flat::Shape &shape) {
    if (kind == Operand::Other)
        return false;
    need_numpy();
    Side side = side_of_kind(object, kind);
    view = std::move(side.view);
    shape = std::move(side.shape);
    return true;
}

Ref roots_of(PyObject *array) {
    if (!is_array(array))
        fail(PyExc_TypeError, "_nlearr is no array but a %.200s", Py_TYPE(array)->tp_name);
    Ref elements = contiguous_objects(array);
    const npy_intp n = PyArray_SIZE(as_array(elements));
    Ref trees = tree_array_of(n);
    for (npy_intp i = 0; i < n; ++i) {
        PyObject *element = slots_of(elements)[i] ? slots_of(elements)[i] : Py_None;
        if (!PyObject_TypeCheck(element, mod.core->NLExpr))
            fail(PyExc_TypeError, "an MNLExpr holds NLExpr objects, not '%.200s'", Py_TYPE(element)->tp_name);
        slots_of(trees)[i] = Ref::borrow(reinterpret_cast<NLExprObject *>(element)->root).release();
    }
    return trees;
}

Ref tree_array(const NodeView &view, const flat::Shape &shape) {
    need_numpy();
    Ref trees = view_trees(view, shape);
    std::vector<npy_intp> dimensions(shape.begin(), shape.end());
    PyArray_Dims dims{dimensions.data(), static_cast<int>(dimensions.size())};
    return check(PyArray_Newshape(as_array(trees), &dims, NPY_CORDER));
}

} // namespace tarvopy
