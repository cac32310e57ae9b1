// The operators of MNLExpr: which operand goes where, and the five ways to apply a builder of trees.
//
//   e + y         _dispatch_binary_op(y, _ExprTree._from_plus)      one node over e's node and y
//   2 - e         _rdispatch_binary_op(2, _from_minus)              minus(2, element)
//   e += y        _idispatch_binary_op(y, _from_plus)               a flat array's block gets another node; else the
//                                                                   elements' roots change
//
// A builder may be any callable that takes trees and gives one; those of _ExprTree are recognised, and make no tree.
#include "matrixapi/methods.h"
#include "matrixapi/mlinexpr_operators.h"
#include "matrixapi/mnlexpr.h"
#include "matrixapi/printing.h"

#include <optional>

namespace tarvopy {

using namespace pysupport;

namespace {

struct Side {
    NodeView view;
    flat::Shape shape;
};

std::optional<Side> side_of(PyObject *object) {
    Side side;
    if (!nonlinear_operand(object, kind_of(object), side.view, side.shape))
        return std::nullopt;
    return side;
}

Side needed_side(PyObject *object) {
    std::optional<Side> side = side_of(object);
    if (!side) {
        Ref text = text_of(object);
        fail(PyExc_TypeError, "Unsupported operand '%U'", text.get());
    }
    return std::move(*side);
}

// ---- builders -------------------------------------------------------------------------------------------------------

// A node's operation, or a function of trees.
struct Builder {
    TreeOp op = TreeOp::Plus;
    PyObject *function = nullptr;

    explicit Builder(TreeOp operation) : op(operation) {}
    Builder(PyObject *callable, int operands) {
        int found = mod.core->tree_builder(callable);
        const auto first = operands == 1 ? TreeOp::Uminus : TreeOp::Plus;
        const auto last = operands == 1 ? TreeOp::Abs : TreeOp::Pow;
        if (found >= static_cast<int>(first) && found <= static_cast<int>(last))
            op = static_cast<TreeOp>(found);
        else
            function = callable;
    }
    Ref operator()(PyObject *left, PyObject *right) const {
        PyObject *operands[] = {left, right};
        const int count = right ? 2 : 1;
        return check(function ? PyObject_Vectorcall(function, operands, static_cast<size_t>(count), nullptr)
                              : mod.core->tree_node(op, count, operands));
    }
};

// ---- new arrays -----------------------------------------------------------------------------------------------------

// What NLExpr(result) takes, as its tree.
Ref tree_of_result(const Ref &result) {
    return check(mod.core->tree_of(result.get()));
}

NodeRef called(const Builder &builder, const flat::Shape &shape, const NodeView &left, const NodeView *right) {
    Ref a = node_trees(left.node), b = right ? node_trees(right->node) : Ref();
    npy_intp n = flat::size_of(shape);
    Ref trees = check(PyArray_SimpleNew(1, &n, NPY_OBJECT));
    auto at = [](const Ref &array, int64_t i) { return static_cast<PyObject **>(PyArray_DATA(as_array(array)))[i]; };
    auto **to = static_cast<PyObject **>(PyArray_DATA(as_array(trees)));
    Walk other(right ? *right : left, shape);
    for (Walk walk(left, shape); !walk.done(); walk.next(), other.next())
        *to++ = tree_of_result(builder(at(a, walk.at()), right ? at(b, other.at()) : nullptr)).release();
    return trees_node(std::move(trees), shape);
}

NodeRef applied(const Builder &builder, const Side &operand) {
    if (builder.function)
        return called(builder, operand.shape, operand.view, nullptr);
    return operation_node(builder.op, operand.shape, operand.view);
}

NodeRef applied(const Builder &builder, const Side &left, const Side &right) {
    flat::Shape shape = broadcast_shapes(left.shape, right.shape);
    NodeView a = broadcast(left.view, left.shape, shape), b = broadcast(right.view, right.shape, shape);
    if (builder.function)
        return called(builder, shape, a, &b);
    return operation_node(builder.op, std::move(shape), std::move(a), std::move(b));
}

Ref dispatch(PyObject *self, const Builder &builder) {
    return make_mnlexpr(mod.MNLExpr, applied(builder, needed_side(self)));
}

Ref dispatch(PyObject *self, PyObject *other, const Builder &builder) {
    std::optional<Side> operand = side_of(other);
    if (!operand)
        return not_implemented();
    return make_mnlexpr(mod.MNLExpr, applied(builder, needed_side(self), *operand));
}

// The other operand is on the left. Two of our own are served by the left one's method.
Ref reflected_dispatch(PyObject *self, PyObject *other, const Builder &builder) {
    std::optional<Side> operand;
    if (!is_mnlexpr(other))
        operand = side_of(other);
    if (!operand)
        return not_implemented();
    return make_mnlexpr(mod.MNLExpr, applied(builder, *operand, needed_side(self)));
}

// ---- in place -------------------------------------------------------------------------------------------------------

Ref updated_root(void *context, PyObject *root, PyObject *tree) {
    return (*static_cast<const Builder *>(context))(root, tree);
}

void update_objects(PyObject *self, const Ref &trees, Builder builder) {
    update_roots(nlearr(self).get(), trees, updated_root, &builder);
}

// The whole array of a flat block may change its node; on a part of one, elements change.
NonlinearNative *whole_block(PyObject *self, const Builder &builder) {
    NonlinearNative *native = nonlinear_of(self);
    return native && !builder.function && is_whole(native->view(), native->shape()) ? native : nullptr;
}

void replace_node(NonlinearNative *native, NodeRef node) {
    std::shared_ptr<NLBlock> block = native->block;
    std::swap(block->node, node);
}

Ref dispatch_in_place(PyObject *self, const Builder &builder) {
    if (NonlinearNative *native = whole_block(self, builder))
        replace_node(native, applied(builder, {native->view(), native->shape()}));
    else
        update_objects(self, Ref(), builder);
    return Ref::borrow(self);
}

Ref dispatch_in_place(PyObject *self, PyObject *other, const Builder &builder) {
    std::optional<Side> operand = side_of(other);
    if (!operand)
        return not_implemented();
    need_in_place_fit(nonlinear_shape_of(self), operand->shape);
    if (NonlinearNative *native = whole_block(self, builder))
        replace_node(native, applied(builder, {native->view(), native->shape()}, *operand));
    else
        update_objects(self, tree_array(operand->view, operand->shape), builder);
    return Ref::borrow(self);
}

// ---- operators ------------------------------------------------------------------------------------------------------

template <TreeOp op> Ref forward(PyObject *self, PyObject *other) {
    return dispatch(self, other, Builder(op));
}
template <TreeOp op> Ref reflected(PyObject *self, PyObject *other) {
    return reflected_dispatch(self, other, Builder(op));
}
template <TreeOp op> Ref in_place(PyObject *self, PyObject *other) {
    return dispatch_in_place(self, other, Builder(op));
}

Ref negative(PyObject *self) {
    return dispatch(self, Builder(TreeOp::Uminus));
}

// The shape grows by the unit axes that an exponent of one element may have in front.
NodeRef squared(const Side &base, const flat::Shape &exponent) {
    Side spread{{}, broadcast_shapes(base.shape, exponent)};
    spread.view = broadcast(base.view, base.shape, spread.shape);
    return applied(Builder(TreeOp::Square), spread);
}

Ref power(PyObject *self, PyObject *other) {
    if (kind_of(other) == Operand::Other)
        return not_implemented();
    return nonlinear_power(self, other);
}

Ref power_in_place(PyObject *self, PyObject *other) {
    if (is_two(other))
        return dispatch_in_place(self, Builder(TreeOp::Square));
    return dispatch_in_place(self, other, Builder(TreeOp::Pow));
}

Ref not_equal(PyObject *, PyObject *) {
    fail_tarvo(TRV_ERROR_INVALID_ARGUMENT, "Inequality constraints not supported");
}

// ---- the documented dispatch methods --------------------------------------------------------------------------------

Ref dispatch_unary(PyObject *self, PyObject *function) {
    return dispatch(self, Builder(function, 1));
}
Ref dispatch_unary_in_place(PyObject *self, PyObject *function) {
    return dispatch_in_place(self, Builder(function, 1));
}

using Dispatch = Ref (*)(PyObject *self, PyObject *other, const Builder &builder);

template <Text name, Dispatch work>
PyObject *binary_dispatch(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature(name.chars, {"other", "func"}, 2);
        Arguments given(signature, 1, args, nargs, kwnames);
        return work(self, given[0], Builder(given[1], 2));
    });
}

std::span<Member> dispatch_members() {
    static Member members[] = {
        taking<"_dispatch_unary_op", dispatch_unary, "func">(
            "_dispatch_unary_op($self, func)\n--\n\nA new array: func of each element's tree."),
        method("_dispatch_binary_op", binary_dispatch<"_dispatch_binary_op", dispatch>,
               "_dispatch_binary_op($self, other, func)\n--\n\nA new array: func of each element's tree and the "
               "operand's."),
        method("_rdispatch_binary_op", binary_dispatch<"_rdispatch_binary_op", reflected_dispatch>,
               "_rdispatch_binary_op($self, other, func)\n--\n\nA new array: func of the operand's tree and each "
               "element's."),
        taking<"_idispatch_unary_op", dispatch_unary_in_place, "func">(
            "_idispatch_unary_op($self, func)\n--\n\nEach element's tree becomes func of it."),
        method("_idispatch_binary_op", binary_dispatch<"_idispatch_binary_op", dispatch_in_place>,
               "_idispatch_binary_op($self, other, func)\n--\n\nEach element's tree becomes func of it and the "
               "operand's; the shape stays. On failure nothing has\nchanged."),
    };
    return members;
}

} // namespace

// ---- hand-overs -----------------------------------------------------------------------------------------------------

Ref nonlinear_operation(TreeOp op, PyObject *left, PyObject *right) {
    Side a = needed_side(left), b = needed_side(right);
    return make_mnlexpr(mod.MNLExpr, applied(Builder(op), a, b));
}

Ref nonlinear_function(TreeOp op, PyObject *operand) {
    return make_mnlexpr(mod.MNLExpr, applied(Builder(op), needed_side(operand)));
}

Ref nonlinear_power(PyObject *left, PyObject *right) {
    if (is_sparse(right))
        return nonlinear_power(left, to_dense(right).get());
    if (is_array_of_two(right))
        return make_mnlexpr(mod.MNLExpr, squared(needed_side(left), shape_of_array(right)));
    if (is_two(right))
        return nonlinear_function(TreeOp::Square, left);
    return nonlinear_operation(TreeOp::Pow, left, right);
}

// ---- members --------------------------------------------------------------------------------------------------------

std::span<Member> nonlinear_operator_members() {
    static Member operators[] = {
        plain<"__neg__", negative>("__neg__($self)\n--\n\nThe negative of every element."),
        operator_of<"__add__", forward<TreeOp::Plus>>(
            "__add__($self, other)\n--\n\nSum with numbers, variables or expressions, by NumPy's broadcasting."),
        operator_of<"__radd__", reflected<TreeOp::Plus>>("__radd__($self, other)\n--\n\nother + self"),
        operator_of<"__iadd__", in_place<TreeOp::Plus>>(
            "__iadd__($self, other)\n--\n\nAdds to every element in place; the shape stays. On failure nothing has "
            "changed."),
        operator_of<"__sub__", forward<TreeOp::Minus>>("__sub__($self, other)\n--\n\nDifference, as __add__."),
        operator_of<"__rsub__", reflected<TreeOp::Minus>>("__rsub__($self, other)\n--\n\nother - self"),
        operator_of<"__isub__", in_place<TreeOp::Minus>>("__isub__($self, other)\n--\n\nIn place, as __iadd__."),
        operator_of<"__mul__", forward<TreeOp::Multiply>>(
            "__mul__($self, other)\n--\n\nElement-wise product, as __add__."),
        operator_of<"__rmul__", reflected<TreeOp::Multiply>>("__rmul__($self, other)\n--\n\nother * self"),
        operator_of<"__imul__", in_place<TreeOp::Multiply>>("__imul__($self, other)\n--\n\nIn place, as __iadd__."),
        operator_of<"__truediv__", forward<TreeOp::Divide>>(
            "__truediv__($self, other)\n--\n\nElement-wise quotient, as __add__."),
        operator_of<"__rtruediv__", reflected<TreeOp::Divide>>("__rtruediv__($self, other)\n--\n\nother / self"),
        operator_of<"__itruediv__", in_place<TreeOp::Divide>>(
            "__itruediv__($self, other)\n--\n\nIn place, as __iadd__."),
        operator_of<"__pow__", power>("__pow__($self, other)\n--\n\nElement-wise power, as __add__; with the exponent "
                                      "2 a square."),
        operator_of<"__rpow__", reflected<TreeOp::Pow>>("__rpow__($self, other)\n--\n\nother ** self"),
        operator_of<"__ipow__", power_in_place>("__ipow__($self, other)\n--\n\nIn place, as __iadd__."),
        operator_of<"__le__", less_equal>("__le__($self, other)\n--\n\nA TempConstr for Model.addConstr."),
        operator_of<"__ge__", greater_equal>("__ge__($self, other)\n--\n\nA TempConstr for Model.addConstr."),
        operator_of<"__eq__", equal>("__eq__($self, other)\n--\n\nA TempConstr for Model.addConstr."),
        operator_of<"__ne__", not_equal>("__ne__($self, other)\n--\n\nNot a constraint: raises TarvoError."),
    };
    static std::vector<Member> all = [] {
        std::vector<Member> rows(std::begin(operators), std::end(operators));
        auto more = dispatch_members();
        rows.insert(rows.end(), more.begin(), more.end());
        return rows;
    }();
    return all;
}

} // namespace tarvopy
