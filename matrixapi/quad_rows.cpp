// What the model reads of quadratic expressions (collaborators/matrix_rows.h): sides of degree two as rows over ids.
//
//   x * x + y * y <= s * s      three summands of width 1, one row an element; no element object is made
//
// A side's linear terms come from `_ndle` and from inside its QuadExpr objects, and are counted together. Nothing is
// changed in the operands.
#include "matrixapi/rows.h"

#include "matrixapi/mquadexpr_dict.h"
#include "matrixapi/operands.h"
#include "matrixapi/row_sides.h"

#include "pysupport/numpy.h"

namespace tarvopy {

using namespace pysupport;

namespace {

void take_model(Side &side, const Ref &model) {
    if (!merge_models(side.model, model))
        fail_models();
}

// ---- one side -----------------------------------------------------------------------------------------------------

QuadSide scalar_side(PyObject *quadexpr) {
    QuadSide side;
    side.linear.scalar = true;
    if (!quad_of_quadexpr(quadexpr, side.quad, side.linear.form, side.linear.model))
        fail_models();
    return side;
}

bool is_quadexpr(PyObject *element) {
    return PyObject_TypeCheck(element, mod.core->QuadExpr);
}

// Scalar objects and numbers of any degree up to two in one array.
QuadSide element_side(PyObject *array) {
    Ref elements = contiguous_objects(array);
    auto **from = static_cast<PyObject **>(PyArray_DATA(as_array(elements)));
    Ref no_quad = check(mod.core->quadexpr_new()), no_linear = check(mod.core->linexpr_new(0.0));
    std::vector<Ref> owned;
    std::vector<PyObject *> quads, linear;
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(elements)); ++i) {
        PyObject *element = from[i] ? from[i] : Py_None;
        bool quadratic = is_quadexpr(element);
        owned.push_back(quadratic ? Ref::borrow(element) : element_linexpr(element));
        quads.push_back(quadratic ? element : no_quad.get());
        linear.push_back(quadratic ? no_linear.get() : owned.back().get());
    }
    QuadSide side;
    flat::Shape shape = shape_of_array(elements.get());
    flat::Form inner;
    Ref model;
    if (!read_linexprs(linear.data(), shape, side.linear.form, side.linear.model) ||
        !read_quadexprs(quads.data(), shape, side.quad, inner, model))
        fail_models();
    take_model(side.linear, model);
    flat::add(side.linear.form, inner);
    return side;
}

// Elements that have no common ids: those of the whole value.
QuadSide made_side(PyObject *expr) {
    if (is_compact_quad(expr))
        fail_models();
    return element_side(whole_elements(expr).get());
}

QuadSide expression_side(PyObject *expr) {
    QuadSide side;
    flat::Form inner;
    Ref model;
    if (!quad_value(expr, side.quad, model, inner))
        return made_side(expr);
    side.linear = linear_side(ndle_of(expr));
    take_model(side.linear, model);
    if (!is_zero(inner))
        flat::add(side.linear.form, inner);
    return side;
}

QuadSide lower_side(PyObject *object) {
    QuadSide side;
    side.linear = linear_side(object);
    take_numbers(side.linear);
    side.quad = flat::zero_quad(side.linear.form.shape);
    return side;
}

bool holds_quadexpr(PyObject *array) {
    if (PyArray_TYPE(as_array(array)) != NPY_OBJECT)
        return false;
    Ref elements = contiguous_objects(array);
    auto **from = static_cast<PyObject **>(PyArray_DATA(as_array(elements)));
    return std::any_of(from, from + PyArray_SIZE(as_array(elements)),
                       [](PyObject *element) { return element && is_quadexpr(element); });
}

} // namespace

QuadSide quadratic_side(PyObject *object) {
    switch (kind_of(object)) {
    case Operand::QuadExpr:
        return scalar_side(object);
    case Operand::MQuadExpr:
        return expression_side(object);
    case Operand::Array:
        if (holds_quadexpr(object))
            return element_side(plain_array(object).get());
        return lower_side(object);
    case Operand::NLExpr:
    case Operand::MNLExpr:
    case Operand::Other:
        fail(PyExc_TypeError, "'%.200s' is no side of a quadratic constraint", Py_TYPE(object)->tp_name);
    default:
        return lower_side(object);
    }
}

// ---- both sides ---------------------------------------------------------------------------------------------------

namespace {

struct Block {
    flat::Form linear;
    flat::QuadForm quad;
    Ref model;
};

void subtract(QuadSide &left, const QuadSide &right) {
    flat::Shape shape = common_shape(left.linear.form.shape, right.linear.form.shape);
    take_model(left.linear, right.linear.model);
    left.linear.form = flat::broadcast(left.linear.form, shape);
    flat::add(left.linear.form, flat::broadcast(right.linear.form, shape), -1.0);
    left.quad = flat::broadcast(left.quad, shape);
    flat::add(left.quad, flat::broadcast(right.quad, shape), -1.0);
}

// lhs - rhs.
std::unique_ptr<Block> difference(PyObject *lhs, PyObject *rhs, bool *scalar) {
    QuadSide left = quadratic_side(lhs);
    common_shape(left.linear.form.shape, {});
    *scalar = left.linear.scalar;
    if (rhs) {
        QuadSide right = quadratic_side(rhs);
        *scalar = *scalar && right.linear.scalar;
        subtract(left, right);
    }
    return std::make_unique<Block>(
        Block{std::move(left.linear.form), std::move(left.quad), std::move(left.linear.model)});
}

} // namespace

int quad_open(PyObject *lhs, PyObject *rhs, QuadBlock *block) {
    *block = {};
    return border_status([&] {
        need_numpy();
        std::unique_ptr<Block> held = difference(lhs, rhs, &block->scalar);
        block->model = held->model.as<ModelObject>();
        block->ndim = static_cast<int>(held->linear.shape.size());
        std::copy(held->linear.shape.begin(), held->linear.shape.end(), block->shape);
        block->nrows = held->linear.size;
        block->nnz = held->linear.nnz();
        block->nqnz = held->quad.nnz();
        block->held = held.release();
    });
}

int quad_write(QuadBlock *block, int64_t *ptr, int32_t *var, double *coef, double *constants, int64_t *qptr,
               int32_t *var1, int32_t *var2, double *qcoef) {
    return border_status([&] {
        const Block &held = *static_cast<Block *>(block->held);
        flat::write_rows(held.linear.summands, held.linear.size, ptr, var, coef);
        flat::write_rows(held.quad.summands, held.quad.size, qptr, var1, var2, qcoef);
        for (int64_t i = 0; i < held.linear.size; ++i)
            constants[i] = held.linear.constant[i];
    });
}

void quad_close(QuadBlock *block) {
    delete static_cast<Block *>(std::exchange(block->held, nullptr));
}

} // namespace tarvopy
