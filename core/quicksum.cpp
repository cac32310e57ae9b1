// quicksum(iterable): a sum in one pass that accumulates in place.
#include "nlexpr.h"
#include "quadexpr.h"

#include "pysupport/args.h"
#include "pysupport/sparse.h"

namespace tarvopy::core {

using pysupport::Arguments;
using pysupport::Signature;

namespace {

bool same_shape(PyObject *a, PyObject *b) {
    Ref left = Ref::steal(PyObject_GetAttrString(a, "shape")), right;
    if (left)
        right = Ref::steal(PyObject_GetAttrString(b, "shape"));
    if (!right) {
        PyErr_Clear();
        return false;
    }
    return check_status(PyObject_RichCompareBool(left.get(), right.get(), Py_EQ)) == 1;
}

// Matrix objects and whatever else adds up. The total is nobody else's from its second term on, so it may be added to
// in place; in place shapes do not grow, hence the test.
Ref add_general(const Ref &total, PyObject *item, bool own) {
    if (own && same_shape(total.get(), item))
        return check(PyNumber_InPlaceAdd(total.get(), item));
    return check(PyNumber_Add(total.get(), item));
}

// The total becomes quadratic with the first quadratic term, and keeps its linear part.
void add_scalar(Ref &total, const Operand &operand) {
    if (operand.kind == OperandKind::QuadExpr && is_linexpr(total.get()))
        total = make_quadexpr(total, untracked_list(0), untracked_list(0), untracked_list(0));
    if (is_quadexpr(total.get()))
        add_to(as_quadexpr(total), operand, 1.0);
    else
        add_to(as_linexpr(total), operand, 1.0);
}

// Scalars: numbers, linear and quadratic terms in `polynomial`, the trees of nonlinear ones beside it, so that a sum of
// n nonlinear expressions is one node and not n.
struct ScalarSum {
    Ref polynomial = empty_linexpr(0.0);
    std::vector<Ref> trees;

    void add(const Operand &operand) {
        if (operand.kind == OperandKind::NLExpr)
            trees.push_back(tree_of(operand));
        else
            add_scalar(polynomial, operand);
    }
    Ref total() const {
        if (trees.empty())
            return polynomial;
        Ref terms = term_trees(classify(polynomial.get()));
        std::vector<PyObject *> all(items_of(terms.get()).begin(), items_of(terms.get()).end());
        for (const Ref &tree : trees)
            all.push_back(tree.get());
        return make_nlexpr(sum_tree(all));
    }
};

} // namespace

PyObject *quicksum(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"quicksum", {"iterable"}, 1};
        Arguments given(signature, 0, args, nargs, kwnames);
        PyObject *iterable = given[0];
        // SciPy iterates over the rows of a matrix without a look at what it holds.
        Ref rows = pysupport::is_sparse(iterable) ? pysupport::checked_copy(iterable) : Ref::borrow(iterable);
        Ref items = check(PyObject_GetIter(rows.get()));
        ScalarSum scalars;
        Ref total; // once matrix objects are among them
        for (int64_t count = 0; Ref item = Ref::steal(PyIter_Next(items.get())); ++count) {
            if (count % 4096 == 0) // an array's own iteration hears no Ctrl-C, and a view of one number may be endless
                check_status(PyErr_CheckSignals());
            Operand operand = total ? Operand{OperandKind::Foreign, item.get()} : classify(item.get());
            if (operand.kind == OperandKind::Number || operand.is_expression())
                scalars.add(operand);
            else
                total = total ? add_general(total, item.get(), true) : add_general(scalars.total(), item.get(), false);
        }
        if (PyErr_Occurred())
            throw PythonError{};
        return total ? total : scalars.total();
    });
}

} // namespace tarvopy::core
