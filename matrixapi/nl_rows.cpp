// What the model reads of nonlinear expressions (collaborators/matrix_rows.h): sides of any degree as linear terms and
// tapes.
//
//   x[1:] - x[:-1] - 0.5 * h * nlfunc.sin(t[1:]) == 0       row i: two linear terms, the tape of the product
//
// A row is lhs - rhs: what its sums and differences are made of goes to the linear terms and the constant where it is
// linear. Array nodes are written element by element, and no tree is made; of scalar expressions and of elements that
// exist, the trees are read. Nothing is changed in the operands.
#include "matrixapi/rows.h"

#include "matrixapi/mlinexpr.h"
#include "matrixapi/mnlexpr.h"
#include "matrixapi/nl_node_tapes.h"
#include "matrixapi/operands.h"
#include "matrixapi/row_sides.h"

#include "pysupport/numpy.h"

namespace tarvopy {

using namespace pysupport;

namespace {

// ---- one side -------------------------------------------------------------------------------------------------------

struct NonlinearSide {
    flat::Shape shape;
    bool scalar = false;
    flat::Constant constant; // infinite ones are bounds

    // What the elements are beside their constants, one of the three, and where element i of the shape stands there.
    QuadSide lower;                // up to degree two
    NodeRef node;                  // of an array of nonlinear expressions
    std::vector<PyObject *> trees; // of scalar objects; NULL where an element is a number
    std::vector<int64_t> strides;
    int64_t offset = 0;

    std::vector<Ref> owned; // the trees
};

std::vector<int64_t> c_order_strides(const flat::Shape &shape) {
    std::vector<int64_t> strides(shape.size());
    int64_t stride = 1;
    for (size_t d = shape.size(); d-- > 0; stride *= shape[d])
        strides[d] = stride;
    return strides;
}

void own_tree(NonlinearSide &side, Ref tree) {
    side.trees.push_back(tree.get());
    side.owned.push_back(std::move(tree));
}

NonlinearSide tree_side(PyObject *nlexpr) {
    NonlinearSide side;
    side.scalar = true;
    own_tree(side, Ref::borrow(reinterpret_cast<NLExprObject *>(nlexpr)->root));
    return side;
}

// Scalar objects and numbers of any degree in one array.
NonlinearSide element_side(PyObject *array) {
    Ref elements = contiguous_objects(array);
    NonlinearSide side;
    side.shape = shape_of_array(elements.get());
    side.strides = c_order_strides(side.shape);
    const npy_intp size = PyArray_SIZE(as_array(elements));
    side.constant.values = flat::Buffer<double>(size);
    for (npy_intp i = 0; i < size; ++i) {
        PyObject *found = static_cast<PyObject **>(PyArray_DATA(as_array(elements)))[i];
        Ref element = Ref::borrow(found ? found : Py_None); // a number's own code may put another object there
        const bool plain = is_scalar(element.get());
        side.constant.values.write()[i] = plain ? number(element.get()) : 0.0;
        if (plain)
            side.trees.push_back(nullptr);
        else
            own_tree(side, check(mod.core->tree_of(element.get())));
    }
    return side;
}

// The constants are taken out of the form: they may be bounds.
NonlinearSide lower_side(PyObject *object) {
    NonlinearSide side;
    side.lower = quadratic_side(object);
    flat::Form &linear = side.lower.linear.form;
    side.shape = linear.shape;
    side.strides = c_order_strides(side.shape);
    side.scalar = side.lower.linear.scalar;
    side.constant = std::exchange(linear.constant, {});
    return side;
}

NonlinearSide expression_side(PyObject *expr) {
    NonlinearSide side;
    NodeView view;
    nonlinear_operand(expr, Operand::MNLExpr, view, side.shape);
    side.node = std::move(view.node);
    side.strides = std::move(view.strides);
    side.offset = view.offset;
    return side;
}

bool holds_nlexpr(PyObject *array) {
    if (PyArray_TYPE(as_array(array)) != NPY_OBJECT)
        return false;
    Ref elements = contiguous_objects(array);
    auto **from = static_cast<PyObject **>(PyArray_DATA(as_array(elements)));
    return std::any_of(from, from + PyArray_SIZE(as_array(elements)),
                       [](PyObject *element) { return element && PyObject_TypeCheck(element, mod.core->NLExpr); });
}

NonlinearSide side_of(PyObject *object) {
    switch (kind_of(object)) {
    case Operand::NLExpr:
        return tree_side(object);
    case Operand::MNLExpr:
        return expression_side(object);
    case Operand::Array:
        return holds_nlexpr(object) ? element_side(plain_array(object).get()) : lower_side(object);
    case Operand::Other:
        fail(PyExc_TypeError, "'%.200s' is no side of a nonlinear constraint", Py_TYPE(object)->tp_name);
    default:
        return lower_side(object);
    }
}

// ---- both sides -----------------------------------------------------------------------------------------------------

struct TapeBlock {
    Tapes tapes;
    Ref model; // of all variables
};

// How a side's elements are written into the rows of a shape.
struct SideRows {
    const NonlinearSide &side;
    int32_t step; // -1 where there are constants alone
    ElementMap elements, constants;
    bool negative;

    SideRows(const NonlinearSide &given, Program &program, const flat::Shape &shape, bool subtracted)
        : side(given), step(step_in(program)), elements(shape, spread(shape).data(), given.offset),
          constants(ElementMap::broadcast(given.shape, shape)), negative(subtracted) {}

    double constant(int64_t row) const {
        double value = side.constant[side.constant.values.empty() ? 0 : constants(row)];
        return negative ? -value : value;
    }

  private:
    int32_t step_in(Program &program) const {
        if (side.node)
            return program.add(*side.node);
        if (!side.trees.empty())
            return program.add_trees(side.trees.data(), static_cast<int64_t>(side.trees.size()));
        const auto &[linear, quadratic] = side.lower;
        if (linear.form.nnz() == 0 && quadratic.nnz() == 0)
            return -1;
        return program.add_quadratic(linear.form, quadratic, linear.model.as<ModelObject>());
    }
    std::vector<int64_t> spread(const flat::Shape &shape) const {
        std::vector<int64_t> strides(shape.size(), 0);
        for (size_t d = 0, missing = shape.size() - side.shape.size(); d < side.shape.size(); ++d)
            strides[missing + d] = side.shape[d] == 1 ? 0 : side.strides[d];
        return strides;
    }
};

void check_models(const Program &program, Tapes &tapes) {
    for (const Step &step : program.steps)
        if (step.model)
            tapes.belongs_to(step.model);
}

void write_rows(const std::vector<SideRows> &sides, const Program &program, int64_t nrows, Tapes &tapes) {
    NodeTapes nodes(program, tapes);
    for (const SideRows &side : sides)
        if (side.step >= 0 && nrows > 0)
            tapes.check_entries(program.least_entries(side.step));
    tapes.reserve_rows(nrows);
    for (int64_t row = 0; row < nrows; ++row) {
        double constant = sides[0].constant(row);
        if (sides.size() > 1)
            constant += sides[1].constant(row);
        tapes.begin_row(constant);
        for (const SideRows &side : sides)
            if (side.step >= 0)
                nodes.add(side.step, side.elements(row), side.negative);
        tapes.end_row();
    }
}

// lhs - rhs; rhs may be NULL.
std::unique_ptr<TapeBlock> difference(PyObject *lhs, PyObject *rhs, flat::Shape &shape, bool &scalar) {
    NonlinearSide left = side_of(lhs), right;
    if (rhs)
        right = side_of(rhs);
    shape = common_shape(left.shape, right.shape);
    scalar = left.scalar && (!rhs || right.scalar);
    Program program;
    std::vector<SideRows> sides;
    sides.emplace_back(left, program, shape, false);
    if (rhs)
        sides.emplace_back(right, program, shape, true);
    auto block = std::make_unique<TapeBlock>();
    check_models(program, block->tapes);
    write_rows(sides, program, flat::size_of(shape), block->tapes);
    block->model = Ref::borrow(reinterpret_cast<PyObject *>(block->tapes.model));
    return block;
}

} // namespace

int nonlinear_open(PyObject *lhs, PyObject *rhs, NonlinearBlock *block) {
    *block = {};
    return border_status([&] {
        need_numpy();
        flat::Shape shape;
        std::unique_ptr<TapeBlock> held = difference(lhs, rhs, shape, block->scalar);
        Tapes &tapes = held->tapes;
        block->model = tapes.model;
        block->ndim = static_cast<int>(shape.size());
        std::copy(shape.begin(), shape.end(), block->shape);
        block->nrows = tapes.rows();
        block->rows = {tapes.ptr.data(),     tapes.var.data(),  tapes.coef.data(),
                       tapes.codeptr.data(), tapes.code.data(), static_cast<int64_t>(tapes.constant.size()),
                       tapes.constant.data()};
        block->constants = tapes.constants.data();
        block->held = held.release();
    });
}

void nonlinear_close(NonlinearBlock *block) {
    delete static_cast<TapeBlock *>(std::exchange(block->held, nullptr));
}

} // namespace tarvopy
