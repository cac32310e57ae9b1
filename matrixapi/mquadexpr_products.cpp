// Products of variables and linear expressions, which are quadratic: element by element and as matrix products.
//
//   x @ Q @ x   (n,) @ (n, n) @ (n,)   compact: one part whose entries are those of Q, none of them touched
//   e @ f       both compact            one part with the entries of A'B, for e = A x + a and f = B y + b
//   x * e, E @ F                        full: rows of terms paired with rows of terms, left-major
#include "matrixapi/mquadexpr_operators.h"

#include "matrixapi/flat_product.h"
#include "matrixapi/product_plan.h"

#include <numeric>
#include <stdexcept>

namespace tarvopy {

using namespace pysupport;

namespace {

// ---- the results of both kinds -------------------------------------------------------------------------------------

flat::Form normalized(flat::Form form) {
    if (form.summands.empty())
        return form;
    flat::Summand rows = flat::joined(form.summands, form.size);
    int32_t largest = -1;
    for (int64_t k = 0; k < rows.nnz(); ++k)
        largest = std::max(largest, rows.id(k));
    form.summands = {flat::normalized(rows, largest + 1)};
    return form;
}

Ref full_result(flat::Product product, const Ref &model) {
    need_finite(product.linear);
    Ref ndle = make_flat(mod.MLinExpr, normalized(std::move(product.linear)), model);
    return make_quad_flat(mod.MQuadExpr, std::move(product.quad), std::move(ndle), model);
}

// ---- element by element, over object arrays

// The linear part leaves the expression, which has the quadratic terms alone from then on.
Ref take_linear_part(PyObject *element) {
    if (!element || !PyObject_TypeCheck(element, mod.core->QuadExpr))
        fail(PyExc_TypeError, "a product of linear expressions gave a '%.200s', not a QuadExpr",
             element ? Py_TYPE(element)->tp_name : "NoneType");
    PyObject *linear = mod.core->quadexpr_linear(element); // borrowed
    if (!linear)
        throw PythonError{};
    Ref copy = check(mod.core->linexpr_copy(linear));
    check_status(mod.core->linexpr_normalize(copy.get()));
    check_status(mod.core->linexpr_clear(linear));
    return copy;
}

// The linear parts of an object array of products as an MLinExpr; the products keep their quadratic terms.
struct Split {
    Ref ndle, qearr;
};

Split split(Ref products) {
    need_numpy();
    if (!PyArray_Check(products.get()))
        products = object_scalar(products.get());
    Ref qearr = check(PyArray_FROM_OTF(products.get(), NPY_OBJECT, NPY_ARRAY_CARRAY | NPY_ARRAY_ENSUREARRAY));
    Ref learr = check(PyArray_SimpleNew(PyArray_NDIM(as_array(qearr)), PyArray_DIMS(as_array(qearr)), NPY_OBJECT));
    auto **from = static_cast<PyObject **>(PyArray_DATA(as_array(qearr)));
    auto **to = static_cast<PyObject **>(PyArray_DATA(as_array(learr)));
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(qearr)); ++i) {
        Ref linear = take_linear_part(from[i]);
        Py_XSETREF(to[i], linear.release());
    }
    return {make_objects(mod.MLinExpr, std::move(learr)), std::move(qearr)};
}

Ref split_result(Ref products) {
    Split halves = split(std::move(products));
    return make_quad_objects(mod.MQuadExpr, std::move(halves.qearr), std::move(halves.ndle));
}

Ref full_elements(PyObject *operand) {
    return element_operand(operand, kind_of(operand));
}

// ---- full values

// The dispatch's rule for the receiver: it becomes full for good where the compact rules are off; else its parts are
// joined, which it keeps. Any other operand is only read.
void settle_receiver(PyObject *expr) {
    if (!is_mlinexpr(expr))
        return;
    if (takes_compact_path(expr))
        join_parts(expr);
}

void settle_operand(PyObject *expr) {
    if (is_mlinexpr(expr) && is_compact(expr))
        join_parts(expr);
}

struct Pair {
    Value left, right;
    Ref model;
};

bool numeric_pair(PyObject *a, PyObject *b, Pair &pair) {
    if (!value_of(a, kind_of(a), pair.left) || !value_of(b, kind_of(b), pair.right))
        return false;
    pair.model = pair.left.model;
    return merge_models(pair.model, pair.right.model);
}

flat::Shape operand_shape(PyObject *operand) {
    if (is_mvar(operand))
        return mvar_shape(operand);
    return is_mlinexpr(operand) ? shape_of(operand) : flat::Shape();
}

// ---- compact matrix products ---------------------------------------------------------------------------------------

// One operand of a compact product, a vector of n elements: A x + c.
struct Vector {
    bool plain = false; // variables themselves: A is the identity
    flat::Summand rows; // A over columns, n rows; empty where the entries are given
    flat::Coo given;    // A, in any order
    SharedVector vars;  // x; empty where there are no variables
    Ref constants;      // n doubles; empty: zeros
    Ref model;
    int64_t size = 0;
};

bool is_identity(const flat::Summand &rows) {
    return rows.ptr.empty() && rows.width == 1 && rows.cols.empty() && rows.coef.empty();
}

bool vector_of_mvar(PyObject *mvar, Vector &vector) {
    VarIds ids;
    if (!mvar_ids(mvar, ids))
        return false;
    vector.plain = true;
    vector.size = ids.ids.size();
    Part part = identity_part(std::move(ids.ids));
    vector.rows = std::move(part.summand);
    vector.vars = std::move(part.vector);
    vector.model = std::move(ids.model);
    return true;
}

bool vector_of_expr(PyObject *expr, Vector &vector) {
    std::vector<Part> parts;
    if (!is_compact(expr))
        return false;
    if (LinearNative *native = native_linear(expr); native && !native->is_laid_out()) {
        vector.size = native->given.rows;
        vector.given = native->given;
        vector.vars = native->parts[0].vector;
        vector.model = native->model;
        vector.constants = constant_doubles(expr);
        return true;
    }
    join_parts(expr);
    if (!native_parts(expr, parts, vector.model) || parts.size() > 1)
        return false;
    vector.size = flat::size_of(shape_of(expr));
    vector.constants = constant_doubles(expr);
    if (!parts.empty()) {
        vector.rows = std::move(parts[0].summand);
        vector.vars = std::move(parts[0].vector);
    }
    return true;
}

bool vector_of(PyObject *operand, Vector &vector) {
    bool numeric = is_mvar(operand) ? vector_of_mvar(operand, vector) : vector_of_expr(operand, vector);
    vector.rows.vars = {}; // columns, not ids
    return numeric;
}

flat::Buffer<int32_t> column_numbers(const flat::Summand &rows) {
    if (!rows.cols.empty())
        return rows.cols;
    flat::Buffer<int32_t> numbers(rows.nnz());
    if (!numbers.empty())
        std::iota(numbers.write(), numbers.write() + numbers.size(), 0);
    return numbers;
}

flat::Csr compressed(const flat::Summand &rows, int64_t columns) {
    flat::Csr csr{rows.nrows, columns, rows.ptr, column_numbers(rows), rows.coef};
    if (rows.ptr.empty()) {
        csr.ptr = flat::Buffer<int64_t>(rows.nrows + 1);
        for (int64_t row = 0; row <= rows.nrows; ++row)
            csr.ptr.write()[row] = rows.begin(row);
    }
    if (rows.coef.empty()) {
        csr.value = flat::Buffer<double>(rows.nnz());
        std::fill_n(csr.value.write(), csr.value.size(), rows.scale);
    }
    return csr;
}

// A and A' as matrices.
flat::Csr rows_of(const Vector &vector) {
    return vector.given.rows ? flat::compressed(vector.given) : compressed(vector.rows, vector.vars->ids.size());
}
flat::Csr columns_of(const Vector &vector) {
    return vector.given.rows ? flat::compressed(flat::transposed(vector.given)) : flat::transposed(rows_of(vector));
}

QuadPart part_of(flat::Coo entries, QuadPart::Order order) {
    QuadPart part;
    part.nnz = entries.nnz();
    part.rows = std::move(entries.row);
    part.cols = std::move(entries.col);
    part.coef = std::move(entries.value);
    part.order = order;
    return part;
}

// Against plain variables the entries are A's own: nothing but row numbers is written.
QuadPart against_variables(const Vector &expr, bool expr_left) {
    if (expr.given.rows)
        return part_of(expr_left ? flat::transposed(expr.given) : expr.given,
                       expr.given.sums ? QuadPart::Summed : QuadPart::ByRows);
    if (!is_identity(expr.rows)) {
        flat::Coo rows = flat::entries_of(rows_of(expr));
        return expr_left ? part_of(flat::transposed(std::move(rows)), QuadPart::ByRows)
                         : part_of(std::move(rows), QuadPart::AsStored);
    }
    QuadPart part;
    part.nnz = expr.size;
    part.scale = expr.rows.scale;
    return part;
}

// A'B: the outer products of corresponding rows added up, so that there is one entry for each pair of variables. One
// line of the result at a time, in a dense row that remembers which line wrote where.
class TransposeProduct {
  public:
    TransposeProduct(flat::Csr turned_a, flat::Csr b)
        : columns_(std::move(turned_a)), b_(std::move(b)), place_(static_cast<size_t>(b_.cols), -1) {}

    QuadPart entries() {
        for (int64_t i = 0; i < columns_.rows; ++i)
            add_line(static_cast<int32_t>(i));
        QuadPart part;
        part.nnz = static_cast<int64_t>(value_.size());
        part.rows = flat::Buffer<int32_t>::copy_of(row_.data(), part.nnz);
        part.cols = flat::Buffer<int32_t>::copy_of(col_.data(), part.nnz);
        part.coef = flat::Buffer<double>::copy_of(value_.data(), part.nnz);
        return part;
    }

  private:
    void add_line(int32_t i) {
        int64_t first = static_cast<int64_t>(value_.size());
        for (int64_t p = columns_.ptr[i]; p < columns_.ptr[i + 1]; ++p) {
            int32_t row = columns_.index[p];
            for (int64_t k = b_.ptr[row]; k < b_.ptr[row + 1]; ++k)
                add_entry(i, b_.index[k], columns_.value[p] * b_.value[k], first);
        }
    }
    void add_entry(int32_t i, int32_t j, double value, int64_t first) {
        int64_t &place = place_[static_cast<size_t>(j)];
        if (place >= first) {
            value_[static_cast<size_t>(place)] += value;
            return;
        }
        place = static_cast<int64_t>(value_.size());
        if (place > INT32_MAX)
            throw std::invalid_argument("a product of expressions with over 2**31 pairs of variables is too large");
        row_.push_back(i);
        col_.push_back(j);
        value_.push_back(value);
    }

    flat::Csr columns_, b_;
    std::vector<int64_t> place_; // of column j in the present line, where that is not before the line
    std::vector<int32_t> row_, col_;
    std::vector<double> value_;
};

QuadPart paired(const Vector &a, const Vector &b) {
    QuadPart part;
    if (b.plain)
        part = against_variables(a, true);
    else if (a.plain)
        part = against_variables(b, false);
    else
        part = TransposeProduct(columns_of(a), rows_of(b)).entries();
    part.x = a.vars;
    part.y = b.vars;
    return part;
}

// c'(A x), where c are the other operand's constants: one row, equal variables merged. No row where c is zero.
void append_weighted(std::vector<Part> &parts, const Vector &vector, const Vector &weights) {
    if (!vector.vars || !weights.constants)
        return;
    std::vector<int64_t> source;
    std::vector<double> factors;
    for (int64_t i = 0; i < vector.size; ++i)
        if (double weight = doubles(weights.constants)[i]; weight != 0.0) {
            source.push_back(i);
            factors.push_back(weight);
        }
    if (source.empty())
        return;
    int64_t start[] = {0, static_cast<int64_t>(source.size())};
    flat::Summand rows = vector.rows;
    if (vector.given.rows) {
        flat::Csr matrix = rows_of(vector);
        rows.nrows = matrix.rows;
        rows.ptr = matrix.ptr;
        rows.cols = matrix.index;
        rows.coef = matrix.value;
    }
    flat::Summand row = flat::combined(rows, 1, start, source.data(), factors.data());
    parts.push_back(make_part(flat::normalized(row, static_cast<int32_t>(vector.vars->ids.size())), vector.vars));
}

double dot(const Vector &a, const Vector &b) {
    if (!a.constants || !b.constants)
        return 0.0;
    return std::inner_product(doubles(a.constants), doubles(a.constants) + a.size, doubles(b.constants), 0.0);
}

// Empty: the full path.
Ref compact_product(PyObject *left, PyObject *right, const flat::Shape &shape) {
    Vector a, b;
    if (!vector_of(left, a) || !vector_of(right, b) || a.size != b.size)
        return {};
    Ref model = a.model;
    if (!merge_models(model, b.model))
        return {};
    double constant = dot(a, b);
    need_finite_constants(&constant, 1);
    std::vector<Part> linear;
    append_weighted(linear, a, b);
    append_weighted(linear, b, a);
    if (linear.size() > 1)
        linear = {joined(linear)};
    Ref ndle = make_compact(mod.MLinExpr, std::move(linear), float_array(shape, &constant), model);
    std::vector<QuadPart> parts;
    if (a.vars && b.vars)
        parts.push_back(paired(a, b));
    return make_quad_compact(mod.MQuadExpr, std::move(parts), std::move(ndle), std::move(model));
}

bool has_zero(const flat::Shape &shape) {
    return std::find(shape.begin(), shape.end(), 0) != shape.end();
}

bool may_be_compact(PyObject *receiver, PyObject *other, const flat::Shape &shape) {
    bool other_fits = is_mvar(other) ? allows_compact(mvar_shape(other)) : is_mlinexpr(other) && is_compact(other);
    return other_fits && allows_compact_quad(shape) && takes_compact_path(receiver) && keep_compact(mod.MQuadExpr);
}

Ref full_matrix_product(PyObject *left, PyObject *right) {
    Pair pair;
    if (numeric_pair(left, right, pair))
        return full_result(flat::matmul(pair.left.form, pair.right.form), pair.model);
    return split_result(check(PyNumber_MatrixMultiply(full_elements(left).get(), full_elements(right).get())));
}

Ref matrix_product_of(PyObject *left, PyObject *right, PyObject *receiver, PyObject *other) {
    flat::Shape a = operand_shape(left), b = operand_shape(right), shape = matmul_shape(a, b);
    // No element of a sum over nothing has a term.
    if (has_zero(shape) || a.back() == 0)
        return make_quad_zeros(mod.MQuadExpr, shape);
    if (may_be_compact(receiver, other, shape))
        if (Ref compact = compact_product(left, right, shape))
            return compact;
    if (is_mlinexpr(other))
        warn_chained();
    settle_receiver(receiver);
    settle_operand(other);
    return full_matrix_product(left, right);
}

} // namespace

Ref quadratic_product(PyObject *a, PyObject *b) {
    settle_receiver(a);
    settle_operand(b);
    Pair pair;
    if (!numeric_pair(a, b, pair))
        return split_result(check(PyNumber_Multiply(full_elements(a).get(), full_elements(b).get())));
    flat::Shape shape = broadcast_shapes(pair.left.form.shape, pair.right.form.shape);
    return full_result(flat::multiply(flat::broadcast(pair.left.form, shape), flat::broadcast(pair.right.form, shape)),
                       pair.model);
}

Ref quadratic_matrix_product(PyObject *a, PyObject *b) {
    if (is_mvar(a) && is_mvar(b))
        return quadratic_matrix_product(from_mvar(mod.MLinExpr, a).get(), b);
    // Of variables and an expression, the expression's rules decide.
    bool a_receives = is_mlinexpr(a);
    return matrix_product_of(a, b, a_receives ? a : b, a_receives ? b : a);
}

Ref quad_from_elements(PyObject *array) {
    Ref given = contiguous_objects(array);
    Ref elements = check(PyArray_SimpleNew(PyArray_NDIM(as_array(array)), PyArray_DIMS(as_array(array)), NPY_OBJECT));
    auto **from = static_cast<PyObject **>(PyArray_DATA(as_array(given)));
    auto **to = static_cast<PyObject **>(PyArray_DATA(as_array(elements)));
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(elements)); ++i) {
        Ref element = Ref::borrow(from[i] ? from[i] : Py_None);
        if (is_mvar(element.get()) || is_mlinexpr(element.get()) || is_mquadexpr(element.get()))
            element = check(PyObject_CallMethodNoArgs(element.get(), names.item));
        Ref copy = check(mod.core->quadexpr_new());
        check_status(mod.core->quadexpr_add(copy.get(), element.get(), 1.0));
        Py_XSETREF(to[i], copy.release());
    }
    return split_result(std::move(elements));
}

Ref split_lin_quad(PyObject *products) {
    Split halves = split(Ref::borrow(products));
    return check(PyTuple_Pack(2, halves.ndle.get(), halves.qearr.get()));
}

} // namespace tarvopy
