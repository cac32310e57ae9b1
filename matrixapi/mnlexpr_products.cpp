// Matrix products and sums of nonlinear expressions.
//
//   e @ f    (5, 3) @ (3, 2)     Sum (5, 2) over 3   <-   Multiply (5, 2, 3)   <-   e, strides (3, 0, 1)
//                                                                              <-   f, strides (0, 1, 2)
//   A @ e    A sparse            Rows (5,): the entries of A by row and the places of e that they multiply
//   e.sum(axis=0)                Sum over the first axis
//
// A node each, whatever the size; the element trees are those that the kernels of _util make of trees.
#include "matrixapi/axes.h"
#include "matrixapi/methods.h"
#include "matrixapi/mnlexpr.h"

namespace tarvopy {

using namespace pysupport;

namespace {

struct NLOperand {
    NodeView view;
    flat::Shape shape;
};

NLOperand operand_of(PyObject *object, Operand kind) {
    NLOperand operand;
    nonlinear_operand(object, kind, operand.view, operand.shape);
    return operand;
}

bool is_dense(Operand kind) {
    return kind == Operand::Array || kind == Operand::MVar || kind == Operand::MLinExpr || kind == Operand::MQuadExpr ||
           kind == Operand::MNLExpr;
}

bool is_vector(const NLOperand &operand) {
    return operand.shape.size() == 1;
}

// The operand's strides over the axes of a stack.
std::vector<int64_t> stack_strides(const NLOperand &operand, const flat::Shape &stack) {
    flat::Shape own = leading(operand.shape);
    std::vector<int64_t> given(operand.view.strides.begin(),
                               operand.view.strides.begin() + static_cast<std::ptrdiff_t>(own.size()));
    return broadcast(NodeView{operand.view.node, 0, std::move(given)}, own, stack).strides;
}

NodeView with_strides(const NLOperand &operand, std::vector<int64_t> strides) {
    return {operand.view.node, operand.view.offset, std::move(strides)};
}

// ---- dense products -------------------------------------------------------------------------------------------------

Ref dense_product(const NLOperand &left, const NLOperand &right) {
    const flat::Shape shape = matmul_shape(left.shape, right.shape);
    const flat::Shape stack = broadcast_shapes(leading(left.shape), leading(right.shape));
    const int64_t inner = left.shape.back();
    std::vector<int64_t> rows = stack_strides(left, stack), columns = stack_strides(right, stack);
    // The axes of the products: the stack, the left side's rows, the right side's columns, the contracted one.
    const std::vector<int64_t> &a = left.view.strides, &b = right.view.strides;
    if (!is_vector(left)) {
        rows.push_back(a[a.size() - 2]);
        columns.push_back(0);
    }
    if (!is_vector(right)) {
        rows.push_back(0);
        columns.push_back(b.back());
    }
    rows.push_back(a.back());
    columns.push_back(is_vector(right) ? b.back() : b[b.size() - 2]);
    flat::Shape all = shape;
    all.push_back(inner);
    NodeRef products = operation_node(TreeOp::Multiply, std::move(all), with_strides(left, std::move(rows)),
                                      with_strides(right, std::move(columns)));
    return make_mnlexpr(mod.MNLExpr, sum_node(shape, {inner}, whole(products)));
}

// ---- sparse products ------------------------------------------------------------------------------------------------

enum class Side { Left, Right }; // where the sparse matrix stands

flat::Shape shape_of_sparse(PyObject *sparse) {
    flat::Shape shape = shape_of_tuple(check(PyObject_GetAttr(sparse, names.shape)).get());
    if (shape.empty() || shape.size() > 2)
        fail(PyExc_ValueError, "a sparse matrix must have one or two dimensions, not %zd",
             static_cast<Py_ssize_t>(shape.size()));
    return shape;
}

// The stored entries by row of the result (a right operand's by column), in ascending order, no place twice.
flat::Csr entries_of(PyObject *sparse, const flat::Shape &shape, Side side) {
    const bool by_row = side == Side::Left || shape.size() == 1; // a vector is stored as one row
    flat::Coo entries = entries_of(stored_matrix(sparse, shape));
    entries.sums = true;
    return flat::compressed(by_row ? entries : flat::transposed(std::move(entries)));
}

// The lines of the operand that meet the matrix: all but its contracted axis, in C order of the result.
struct Lines {
    flat::Shape before, after; // axes in front of the lines of the matrix in the result, and behind
    NodeView view;             // strides over before and after
    int64_t step;              // of the contracted axis
};

Lines lines_of(const NLOperand &operand, Side side) {
    const std::vector<int64_t> &strides = operand.view.strides;
    const size_t ndim = operand.shape.size(), contracted = side == Side::Right || ndim == 1 ? ndim - 1 : ndim - 2;
    Lines lines{{}, {}, with_strides(operand, {}), strides[contracted]};
    for (size_t d = 0; d < ndim; ++d)
        if (d != contracted) {
            (d < contracted ? lines.before : lines.after).push_back(operand.shape[d]);
            lines.view.strides.push_back(strides[d]);
        }
    return lines;
}

// Rows of the result: for each line in front, each line of the matrix, and each line behind.
NodeRef rows_of(const flat::Csr &matrix, const Lines &lines, const NodeRef &node, const flat::Shape &shape, Side side) {
    flat::Shape both = lines.before;
    both.insert(both.end(), lines.after.begin(), lines.after.end());
    const flat::Buffer<int64_t> starts = positions(lines.view, both);
    const int64_t behind = flat::size_of(lines.after), in_front = flat::size_of(lines.before);
    int64_t total;
    if (__builtin_mul_overflow(matrix.nnz(), in_front * behind, &total))
        throw std::bad_alloc();
    flat::Buffer<int64_t> ptr(flat::size_of(shape) + 1), source(total);
    flat::Buffer<double> coef(total);
    int64_t *next = ptr.write(), *place = source.write(), k = 0;
    double *value = coef.write();
    *next++ = 0;
    for (int64_t i = 0; i < in_front; ++i)
        for (int64_t row = 0; row < matrix.rows; ++row)
            for (int64_t j = 0; j < behind; ++j) {
                const int64_t start = starts[i * behind + j];
                for (int64_t entry = matrix.ptr[row]; entry < matrix.ptr[row + 1]; ++entry, ++k) {
                    place[k] = start + matrix.index[entry] * lines.step;
                    value[k] = matrix.value[entry];
                }
                *next++ = k;
            }
    return rows_node(shape, std::move(ptr), std::move(source), std::move(coef), node, side == Side::Left);
}

Ref sparse_product(PyObject *sparse, PyObject *object, Operand kind, Side side) {
    NLOperand operand = operand_of(object, kind);
    const flat::Shape own = shape_of_sparse(sparse);
    const flat::Shape shape = side == Side::Left ? matmul_shape(own, operand.shape) : matmul_shape(operand.shape, own);
    const flat::Csr matrix = entries_of(sparse, own, side);
    NodeRef node = rows_of(matrix, lines_of(operand, side), operand.view.node, shape, side);
    return make_mnlexpr(mod.MNLExpr, std::move(node));
}

// ---- operators ------------------------------------------------------------------------------------------------------

Ref product(PyObject *self, PyObject *other) {
    need_numpy();
    Operand kind = kind_of(other);
    if (is_dense(kind))
        return dense_product(operand_of(self, kind_of(self)), operand_of(other, kind));
    if (kind == Operand::Sparse)
        return sparse_product(other, self, kind_of(self), Side::Right);
    return Ref::borrow(Py_NotImplemented);
}

Ref reflected_product(PyObject *self, PyObject *other) {
    need_numpy();
    Operand kind = kind_of(other);
    if (is_dense(kind))
        return dense_product(operand_of(other, kind), operand_of(self, kind_of(self)));
    if (kind == Operand::Sparse)
        return sparse_product(other, self, kind_of(self), Side::Left);
    return Ref::borrow(Py_NotImplemented);
}

// ---- sums -----------------------------------------------------------------------------------------------------------

PyObject *sum(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"sum", {"axis"}, 0};
        Arguments given(signature, 1, args, nargs, kwnames);
        NLOperand operand = operand_of(self, kind_of(self));
        const std::vector<int> axes = result_axes(given.get(0, Py_None), operand.shape.size());
        flat::Shape extents;
        std::vector<int64_t> kept, summed;
        for (size_t d = 0; d < axes.size(); ++d) {
            (axes[d] < 0 ? summed : kept).push_back(operand.view.strides[d]);
            if (axes[d] < 0)
                extents.push_back(operand.shape[d]);
        }
        kept.insert(kept.end(), summed.begin(), summed.end());
        return make_mnlexpr(mod.MNLExpr, sum_node(kept_shape(operand.shape, axes), std::move(extents),
                                                  with_strides(operand, std::move(kept))));
    });
}

// ---- the callbacks of the kernels -----------------------------------------------------------------------------------

PyObject *sum_terms(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_sum_terms", {"terms"}, 1};
        Ref terms = own_items(Arguments(signature, 0, args, nargs, kwnames)[0], "terms are a list");
        std::vector<PyObject *> trees;
        for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(terms.get()); ++i)
            trees.push_back(PyTuple_GET_ITEM(terms.get(), i));
        const auto count = static_cast<int64_t>(trees.size());
        Ref tree = check(mod.core->tree_node(TreeOp::Plus, count, trees.data()));
        return check(mod.core->nlexpr_new(tree.get()));
    });
}

Ref product_tree(PyObject *left, PyObject *right) {
    PyObject *factors[] = {left, right};
    return check(mod.core->tree_node(TreeOp::Multiply, 2, factors));
}

Ref constant_tree(PyObject *value) {
    return check(mod.core->tree_constant(number(value)));
}

PyObject *multiply_right(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_multiply_term_sparse_right", {"left_tree", "right"}, 2};
        Arguments given(signature, 0, args, nargs, kwnames);
        return product_tree(given[0], constant_tree(given[1]).get());
    });
}

PyObject *multiply_left(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_multiply_term_sparse_left", {"left", "right_tree"}, 2};
        Arguments given(signature, 0, args, nargs, kwnames);
        return product_tree(constant_tree(given[0]).get(), given[1]);
    });
}

} // namespace

Ref nonlinear_matrix_product(PyObject *left, PyObject *right) {
    need_numpy();
    Operand a = kind_of(left), b = kind_of(right);
    if (a == Operand::Sparse)
        return sparse_product(left, right, b, Side::Left);
    if (b == Operand::Sparse)
        return sparse_product(right, left, a, Side::Right);
    return dense_product(operand_of(left, a), operand_of(right, b));
}

std::span<Member> nonlinear_product_members() {
    static Member members[] = {
        operator_of<"__matmul__", product>(
            "__matmul__($self, other)\n--\n\nMatrix product by NumPy's rules with arrays of numbers, variables and "
            "expressions, and with SciPy matrices, of which the\nstored entries count alone. ValueError naming both "
            "shapes."),
        operator_of<"__rmatmul__", reflected_product>("__rmatmul__($self, other)\n--\n\nother @ self, as __matmul__."),
        method("sum", sum,
               "sum($self, axis=None)\n--\n\nThe sum over the given axes (None: all). TarvoError for an axis out of "
               "range."),
        static_method("_sum_terms", sum_terms,
                      "_sum_terms(terms)\n--\n\nThe NLExpr of the sum of a list of trees; of one alone, without a sum "
                      "node."),
        static_method("_multiply_term_sparse_right", multiply_right,
                      "_multiply_term_sparse_right(left_tree, right)\n--\n\nThe tree of a tree times a number."),
        static_method("_multiply_term_sparse_left", multiply_left,
                      "_multiply_term_sparse_left(left, right_tree)\n--\n\nThe tree of a number times a tree."),
    };
    return members;
}

} // namespace tarvopy
