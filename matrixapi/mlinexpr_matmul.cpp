// MLinExpr: products of a numeric matrix with variables, and the parts of the compact state.
//
//   A @ x   (5, 3) @ (3,)      compact, one part: a copy of A's rows, the ids of x, a zero constant of shape (5,)
//   x @ A   (3,) @ (3, 5)      the same with A transposed, so that rows are result elements again
//   A @ X   (5, 3) @ (3, 2)    full: one flat summand, a term for each entry of A's row (zeros of a dense A too)
#include "mlinexpr_operators.h"

#include "flat_product.h"
#include "names.h"
#include "printing.h"
#include "pysupport/args.h"

#include <optional>

namespace tarvopy {

using namespace pysupport;

namespace {

enum class Side { Right, Left }; // where the variables stand: A @ x, x @ A

// ---- the numeric matrix ---------------------------------------------------------------------------------------------

// A matrix with its rows on the result's side: A itself for A @ x, its transpose for x @ A. A vector is one row (one
// column).
struct Matrix {
    bool sparse = false;
    StoredMatrix stored; // a sparse one
    Ref array;           // a dense one, float64; empty where only the element-wise path applies
    flat::Shape shape;   // as given
};

flat::Shape operand_shape(PyObject *operand) {
    Ref tuple = check(PyObject_GetAttr(operand, names.shape));
    return shape_of_tuple(tuple.get());
}

Matrix read_dense(PyObject *given) {
    Matrix matrix;
    matrix.array = as_doubles(given);
    matrix.shape = shape_of_array(given);
    return matrix;
}

Matrix read_matrix(PyObject *given, bool sparse) {
    if (!sparse)
        return read_dense(given);
    Matrix matrix;
    matrix.sparse = true;
    matrix.shape = operand_shape(given);
    matrix.stored = stored_matrix(given, matrix.shape);
    return matrix;
}

// One row for a vector on the left, one column for a vector on the right.
flat::Dense as_rows(const Matrix &matrix, Side side) {
    if (matrix.shape.size() == 2)
        return dense_of(matrix.array);
    int64_t n = matrix.shape[0];
    return side == Side::Right ? flat::Dense{doubles(matrix.array), 1, n, n, 1}
                               : flat::Dense{doubles(matrix.array), n, 1, 1, 1};
}

flat::Dense turned(const flat::Dense &m) {
    return {m.data, m.cols, m.rows, m.col_step, m.row_step};
}

// Whether the rows of a sparse matrix are the result's elements. A one-dimensional one was read as one row, which is
// the transposed column that the left side wants.
bool gives_rows(const Matrix &matrix, Side side) {
    return side == Side::Right || matrix.shape.size() == 1;
}

// Whether they are stored as compressed rows.
bool rows_at_hand(const Matrix &matrix, Side side) {
    return matrix.stored.layout == (gives_rows(matrix, side) ? StoredMatrix::Rows : StoredMatrix::Columns);
}

// The sparse matrix whose rows produce the result's elements.
flat::Coo result_entries(const Matrix &matrix, Side side) {
    flat::Coo entries = entries_of(matrix.stored);
    return gives_rows(matrix, side) ? entries : flat::transposed(std::move(entries));
}

// The compressed rows that produce the result's elements.
flat::Csr result_rows(const Matrix &matrix, Side side) {
    if (matrix.sparse)
        return rows_at_hand(matrix, side) ? matrix.stored.csr : flat::compressed(result_entries(matrix, side));
    flat::Dense rows = as_rows(matrix, side);
    return flat::nonzeros(side == Side::Right ? rows : turned(rows));
}

flat::Summand summand_of(flat::Csr csr) {
    flat::Summand summand;
    summand.nrows = csr.rows;
    summand.ptr = std::move(csr.ptr);
    summand.cols = std::move(csr.index);
    summand.coef = std::move(csr.value);
    return summand;
}

// Reading a matrix may run Python code, which may give the variables another array: what was read must still make the
// product whose shape was computed before.
void need_product(const Matrix &matrix, const VarIds &vars, Side side, const flat::Shape &product) {
    bool right = side == Side::Right;
    if ((right ? matmul_shape(matrix.shape, vars.shape) : matmul_shape(vars.shape, matrix.shape)) != product)
        fail(PyExc_ValueError, "the operands of a matrix product changed their shapes while they were read");
}

// ---- compact

// The one entry of a (1, 1) matrix; a missing one is 0.
double only_entry(const flat::Csr &csr) {
    double total = 0.0;
    for (int64_t k = 0; k < csr.nnz(); ++k)
        total += csr.value[k];
    return total;
}

// The extent that is summed away.
int64_t inner_extent(const flat::Shape &matrix, Side side) {
    return side == Side::Right ? matrix.back() : matrix[matrix.size() == 1 ? 0 : matrix.size() - 2];
}

// One entry against a row (a column) of variables, (1, 1) @ (1, n): a diagonal, since each result element has its own
// variable.
bool spreads_one_entry(const flat::Shape &matrix, int64_t variables, Side side) {
    return inner_extent(matrix, side) != variables;
}

Part compact_part(const Matrix &matrix, VarIds vars, int64_t size, Side side) {
    flat::Csr rows = result_rows(matrix, side);
    if (spreads_one_entry(matrix.shape, vars.ids.size(), side))
        return identity_part(std::move(vars.ids), only_entry(rows));
    // A constant may be larger than the product, which then stands in every row.
    return spread_part(make_part(summand_of(std::move(rows)), std::move(vars.ids)), size);
}

// The matrix as it was given, where its rows can be laid out when somebody asks. Empty where they are at hand, or are
// spread over the result.
std::optional<flat::Coo> kept_as_given(const Matrix &matrix, int64_t variables, int64_t size, Side side) {
    bool right = side == Side::Right;
    if (matrix.shape.size() != 2 || matrix.shape[right ? 0 : 1] != size ||
        spreads_one_entry(matrix.shape, variables, side) || (matrix.sparse ? rows_at_hand(matrix, side) : right))
        return {};
    if (matrix.sparse)
        return result_entries(matrix, side);
    return flat::transposed(flat::entries_of(flat::nonzeros(as_rows(matrix, side))));
}

// The numbers of an array that the kernels do not take as it is: a part's matrix is float64 whatever was given.
Ref converted_doubles(PyObject *given) {
    Ref factors = factor_matrix(given, false);
    return check(PyArray_FROMANY(factors.get(), NPY_DOUBLE, 0, 0,
                                 NPY_ARRAY_CARRAY_RO | NPY_ARRAY_ENSUREARRAY | NPY_ARRAY_FORCECAST));
}

Matrix read_part_matrix(PyObject *given) {
    Matrix matrix = read_matrix(given, is_sparse(given));
    if (!matrix.sparse && !matrix.array)
        matrix.array = converted_doubles(given);
    return matrix;
}

// The documented pair itself, for variables that have no ids in common; the part is laid out with stand-ins for them.
Ref compact_pair(const Matrix &matrix, PyObject *mvar, int64_t size, Side side, const flat::Shape &product) {
    Ref elements = vararr_of(mvar);
    Ref vector = wrap_mvar(check(PyArray_Ravel(as_array(elements), NPY_CORDER)).get());
    flat::Buffer<int32_t> stand_ins(PyArray_SIZE(as_array(elements)));
    std::fill_n(stand_ins.write(), stand_ins.size(), 0);
    VarIds laid_out{stand_ins, shape_of_array(elements.get()), {}};
    need_product(matrix, laid_out, side, product);
    Part part = compact_part(matrix, std::move(laid_out), size, side);
    part.vector = std::make_shared<VarVector>(VarVector{std::move(stand_ins), std::move(vector)});
    return part_pair(part, {});
}

Ref construct_compact(PyObject *cls, Ref parts, Ref constant) {
    Ref keywords = check(PyDict_New());
    check_status(PyDict_SetItemString(keywords.get(), "matmulparts", parts.get()));
    check_status(PyDict_SetItemString(keywords.get(), "b", constant.get()));
    Ref none = check(PyTuple_New(0));
    return check(PyObject_Call(cls, none.get(), keywords.get()));
}

// constant: an owned float64 array of the result's shape, which may be larger than the product's.
Ref compact_product(PyObject *cls, PyObject *given, PyObject *mvar, Side side, const flat::Shape &product,
                    Ref constant) {
    Matrix matrix = read_part_matrix(given);
    const int64_t size = PyArray_SIZE(as_array(constant));
    VarIds vars;
    if (mvar_ids(mvar, vars)) {
        need_product(matrix, vars, side, product);
        Ref model = vars.model;
        if (auto entries = kept_as_given(matrix, vars.ids.size(), size, side))
            return make_compact_given(cls, std::move(*entries), std::move(vars.ids), std::move(constant),
                                      std::move(model));
        std::vector<Part> parts;
        parts.push_back(compact_part(matrix, std::move(vars), size, side));
        return make_compact(cls, std::move(parts), std::move(constant), std::move(model));
    }
    Ref list = check(PyList_New(0));
    check_status(PyList_Append(list.get(), compact_pair(matrix, mvar, size, side, product).get()));
    return construct_compact(cls, std::move(list), std::move(constant));
}

// ---- full

// A stack of matrices over the leading axes: offsets of the k-th matrix, broadcast along the result's leading axes.
struct Stack {
    std::vector<int64_t> maps; // empty: matrix k is the k-th
    int64_t item;              // elements of one matrix
    int64_t offset(int64_t k) const { return (maps.empty() ? k : maps[static_cast<size_t>(k)]) * item; }
};

Stack stack_of(const flat::Shape &operand, const flat::Shape &lead) {
    flat::Shape own = leading(operand);
    return {flat::broadcast_map(own, lead), flat::size_of(operand) / std::max<int64_t>(1, flat::size_of(own))};
}

// One matrix of a stack; a vector is a column (right) or a row (left).
template <class View, class Item> View view_of(const Item *data, const flat::Shape &shape, bool as_column) {
    if (shape.size() == 1)
        return as_column ? View{data, shape[0], 1, 1, 1} : View{data, 1, shape[0], shape[0], 1};
    int64_t rows = shape[shape.size() - 2], cols = shape.back();
    return View{data, rows, cols, cols, 1};
}

flat::Shape product_lead(const flat::Shape &a, const flat::Shape &b) {
    return broadcast_shapes(leading(a), leading(b));
}

flat::Summand dense_product(const Matrix &matrix, const VarIds &vars, Side side, int64_t size) {
    bool right = side == Side::Right;
    flat::Shape lead = product_lead(matrix.shape, vars.shape);
    Stack matrices = stack_of(matrix.shape, lead), variables = stack_of(vars.shape, lead);
    int64_t width = right ? matrix.shape.back() : vars.shape.back();
    flat::RowBuilder rows(size, width);
    for (int64_t k = 0; k < flat::size_of(lead); ++k) {
        auto numbers = view_of<flat::Dense>(doubles(matrix.array) + matrices.offset(k), matrix.shape, !right);
        auto ids = view_of<flat::Ids>(vars.ids.data() + variables.offset(k), vars.shape, right);
        right ? rows.dense_right(numbers, ids) : rows.dense_left(ids, numbers);
    }
    return rows.finish();
}

flat::Summand sparse_product(const Matrix &matrix, const VarIds &vars, Side side, int64_t size) {
    bool right = side == Side::Right;
    flat::Csr csr = result_rows(matrix, side);
    flat::Shape lead = leading(vars.shape);
    Stack variables = stack_of(vars.shape, lead);
    auto ids_at = [&](int64_t k) {
        return view_of<flat::Ids>(vars.ids.data() + variables.offset(k), vars.shape, right);
    };
    int64_t copies = flat::size_of(lead) * (right ? ids_at(0).cols : ids_at(0).rows);
    flat::RowBuilder rows(size, csr.nnz() * copies, true);
    for (int64_t k = 0; k < flat::size_of(lead); ++k)
        right ? rows.sparse_right(csr, ids_at(k)) : rows.sparse_left(ids_at(k), csr);
    return rows.finish();
}

// NumPy's own product of the numbers with LinExpr objects.
Ref element_product(PyObject *cls, PyObject *given, PyObject *mvar, Side side) {
    Ref numbers = is_sparse(given) ? to_dense(given) : factor_matrix(given, true);
    Ref variables = element_operand(mvar, Operand::MVar);
    Ref product = check(side == Side::Right ? PyNumber_MatrixMultiply(numbers.get(), variables.get())
                                            : PyNumber_MatrixMultiply(variables.get(), numbers.get()));
    return make_objects(cls, polynomial_elements(std::move(product)));
}

// The result has no extent of zero, but the inner one may be: then rows are empty.
Ref full_product(PyObject *cls, PyObject *given, PyObject *mvar, Side side, const flat::Shape &shape) {
    Matrix matrix = read_matrix(given, is_sparse(given));
    VarIds vars;
    if ((!matrix.sparse && !matrix.array) || !mvar_ids(mvar, vars))
        return element_product(cls, given, mvar, side);
    need_product(matrix, vars, side, shape);
    flat::Form form{shape, flat::size_of(shape), {}, {}};
    Ref model = vars.model;
    form.summands.push_back(matrix.sparse ? sparse_product(matrix, vars, side, form.size)
                                          : dense_product(matrix, vars, side, form.size));
    return make_flat(cls, std::move(form), std::move(model));
}

// ---- dispatch

// ValueError "Cannot construct MLinExpr from <text>"; a pending exception gives its own text.
[[noreturn]] void cannot_construct(PyObject *object) {
    Ref text = text_of(object);
    fail(PyExc_ValueError, "Cannot construct MLinExpr from %U", text.get());
}

flat::Shape product_shape(PyObject *given, PyObject *mvar, Side side) {
    try {
        flat::Shape a = operand_shape(given), x = mvar_shape(mvar);
        return side == Side::Right ? matmul_shape(a, x) : matmul_shape(x, a);
    } catch (const PythonError &) {
        if (!PyErr_ExceptionMatches(PyExc_Exception) || PyErr_ExceptionMatches(PyExc_MemoryError))
            throw; // an interrupt is no failure of the shapes, nor is a lack of memory
        Ref raised = Ref::steal(PyErr_GetRaisedException());
        cannot_construct(raised.get());
    } catch (const std::invalid_argument &error) {
        fail(PyExc_ValueError, "Cannot construct MLinExpr from %s", error.what());
    }
}

bool has_zero(const flat::Shape &shape) {
    return std::find(shape.begin(), shape.end(), 0) != shape.end();
}

Ref from_matmul(PyObject *cls, PyObject *given, PyObject *mvar, Side side) {
    need_numpy();
    if (kind_of(mvar) != Operand::MVar)
        cannot_construct(mvar);
    flat::Shape shape = product_shape(given, mvar, side);
    bool known = is_array(given) || is_sparse(given);
    // Without variables, (3, 0) @ (0,), there is nothing that a part could hold.
    if (has_zero(shape) || (known && has_zero(mvar_shape(mvar))))
        return make_zeros(cls, shape);
    bool stacked = known && operand_shape(given).size() > 2; // a stack of matrices is not one matrix of a part
    if (known && !stacked && keep_compact(cls) && allows_compact(mvar_shape(mvar)) && allows_compact(shape))
        return compact_product(cls, given, mvar, side, shape, float_array(shape));
    if (!known)
        cannot_construct(given);
    return full_product(cls, given, mvar, side, shape);
}

// ---- _from_compact_affine_expr

void need_compact(const flat::Shape &shape, const char *before, const char *after) {
    if (!allows_compact(shape))
        fail(PyExc_ValueError, "%s%R%s", before, shape_tuple(shape).get(), after);
}

Ref own_doubles(PyObject *given) {
    return check(PyArray_FROM_OTF(given, NPY_DOUBLE, NPY_ARRAY_CARRAY | NPY_ARRAY_ENSUREARRAY | NPY_ARRAY_ENSURECOPY));
}

// b broadcast to the shape, as an owned array.
Ref spread_constant(const Ref &b, const flat::Shape &shape) {
    if (shape_of_array(b.get()) == shape)
        return b;
    Ref constant = float_array(shape);
    check_status(PyArray_CopyInto(as_array(constant), as_array(b)));
    return constant;
}

Ref compact_affine(PyObject *cls, PyObject *left, PyObject *given, PyObject *right, PyObject *b) {
    need_numpy();
    if (left && right)
        fail(PyExc_ValueError, "Matmul expression has too many variables");
    if (!left && !right && given)
        fail(PyExc_ValueError, "Matmul expression has no variables");
    PyObject *mvar = right ? right : left;
    Side side = right ? Side::Right : Side::Left;
    if (!mvar) { // the constant alone
        if (!b)
            fail(PyExc_ValueError, "Matmul expression has no variables");
        Ref constant = own_doubles(b);
        need_compact(shape_of_array(constant.get()), "Compact state cannot have shape ", "");
        return make_compact(cls, {}, std::move(constant), {});
    }
    if (kind_of(mvar) != Operand::MVar || !given || !(is_array(given) || is_sparse(given)))
        cannot_construct(given && kind_of(mvar) == Operand::MVar ? given : mvar);
    flat::Shape x = mvar_shape(mvar), a = operand_shape(given);
    flat::Shape product = side == Side::Right ? matmul_shape(a, x) : matmul_shape(x, a), shape = product;
    Ref constant;
    if (b) {
        constant = own_doubles(b);
        shape = broadcast_shapes(product, shape_of_array(constant.get()));
    }
    need_compact(shape, "Compact state cannot have shape ", "");
    need_compact(x, side == Side::Right ? "Right variable's shape " : "Left variable's shape ", " is not compact");
    constant = constant ? spread_constant(constant, shape) : float_array(shape);
    return compact_product(cls, given, mvar, side, product, std::move(constant));
}

// ---- parts

Ref first_pair(PyObject *self) {
    join_parts(self);
    Ref list = check(PyObject_GetAttr(self, names._matmulparts));
    return check(PySequence_GetItem(list.get(), 0));
}

Part checked_part(PyObject *self, PyObject *given, PyObject *mvar) {
    VarIds vars;
    assert_that(kind_of(mvar) == Operand::MVar && mvar_shape(mvar).size() == 1);
    assert_that(operand_shape(given).size() == 2);
    Matrix matrix = read_part_matrix(given); // first, since it may run Python code
    flat::Shape shape = matrix.shape;
    assert_that(shape.size() == 2);
    assert_that(shape[0] == flat::size_of(shape_of(self)));
    assert_that(shape[1] == flat::size_of(mvar_shape(mvar)));
    if (!mvar_ids(mvar, vars)) // stand-ins: only their number matters to the pair that is made of the part
        std::fill_n((vars.ids = flat::Buffer<int32_t>(shape[1])).write(), shape[1], 0);
    // The part shows the very MVar that was given.
    auto vector = std::make_shared<VarVector>(VarVector{std::move(vars.ids), Ref::borrow(mvar)});
    return make_part(summand_of(result_rows(matrix, Side::Right)), std::move(vector));
}

PyObject *add_matmul_part(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature("_add_matmul_part", {"A", "x"}, 2);
        Arguments given(signature, 1, args, nargs, kwnames);
        need_numpy();
        Part part = checked_part(self, given[0], given[1]);
        append_pair(self, part_pair(part, {}));
        return Ref::none();
    });
}

PyObject *concat_matmulparts(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature("_concat_matmulparts", {}, 0);
        Arguments given(signature, 1, args, nargs, kwnames);
        return first_pair(self);
    });
}

PyObject *extract_Axb(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature("_extract_Axb", {}, 0);
        Arguments given(signature, 1, args, nargs, kwnames);
        assert_that(is_compact(self));
        Ref list = check(PyObject_GetAttr(self, names._matmulparts));
        PyObject *constant = const_array(self);
        if (check_value(PyObject_Length(list.get())) == 0)
            return check(PyTuple_Pack(3, Py_None, Py_None, constant));
        Ref pair = first_pair(self);
        Ref a = check(PySequence_GetItem(pair.get(), 0)), x = check(PySequence_GetItem(pair.get(), 1));
        return check(PyTuple_Pack(3, a.get(), x.get(), constant));
    });
}

// ---- class methods

PyObject *from_matmul_right(PyObject *cls, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature("_from_matmul_right", {"A", "x"}, 2);
        Arguments given(signature, 1, args, nargs, kwnames);
        return from_matmul(cls, given[0], given[1], Side::Right);
    });
}

PyObject *from_matmul_left(PyObject *cls, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature("_from_matmul_left", {"x", "A"}, 2);
        Arguments given(signature, 1, args, nargs, kwnames);
        return from_matmul(cls, given[1], given[0], Side::Left);
    });
}

PyObject *from_compact_affine_expr(PyObject *cls, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature("_from_compact_affine_expr", {"x_left", "A", "x_right", "b"}, 0);
        Arguments given(signature, 1, args, nargs, kwnames);
        auto or_null = [&](int i) { return given[i] == Py_None ? nullptr : given[i]; };
        return compact_affine(cls, or_null(0), or_null(1), or_null(2), or_null(3));
    });
}

// The four builders of full products, by side and kind of matrix.
Ref build_full(PyObject *cls, PyObject *given, PyObject *mvar, Side side, bool sparse) {
    need_numpy();
    if (kind_of(mvar) != Operand::MVar)
        cannot_construct(mvar);
    if (sparse ? !is_sparse(given) : !is_array(given))
        cannot_construct(given);
    flat::Shape shape = product_shape(given, mvar, side);
    if (has_zero(shape)) {
        flat::Form empty{shape, 0, {}, {}};
        return make_flat(cls, std::move(empty), {});
    }
    return full_product(cls, given, mvar, side, shape);
}

template <Side side, bool sparse>
PyObject *full_builder(PyObject *cls, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature right(sparse ? "_from_matmul_right_spmatrix" : "_from_matmul_right_ndarray", {"A", "x"},
                                     2);
        static const Signature left(sparse ? "_from_matmul_left_spmatrix" : "_from_matmul_left_ndarray", {"x", "A"}, 2);
        constexpr bool is_right = side == Side::Right;
        Arguments given(is_right ? right : left, 1, args, nargs, kwnames);
        return build_full(cls, given[is_right ? 0 : 1], given[is_right ? 1 : 0], side, sparse);
    });
}

} // namespace

std::span<Member> matmul_members() {
    static Member members[] = {
        class_method("_from_matmul_right", from_matmul_right,
                     "_from_matmul_right($type, A, x)\n--\n\nA @ x for an ndarray or sparse matrix A and an MVar x. "
                     "ValueError where shapes do not fit."),
        class_method("_from_matmul_left", from_matmul_left,
                     "_from_matmul_left($type, x, A)\n--\n\nx @ A, the mirror of A @ x."),
        class_method("_from_matmul_right_ndarray", full_builder<Side::Right, false>,
                     "_from_matmul_right_ndarray($type, A, x)\n--\n\nFull A @ x, A dense."),
        class_method("_from_matmul_right_spmatrix", full_builder<Side::Right, true>,
                     "_from_matmul_right_spmatrix($type, A, x)\n--\n\nFull A @ x, A sparse."),
        class_method("_from_matmul_left_ndarray", full_builder<Side::Left, false>,
                     "_from_matmul_left_ndarray($type, x, A)\n--\n\nFull x @ A, A dense."),
        class_method("_from_matmul_left_spmatrix", full_builder<Side::Left, true>,
                     "_from_matmul_left_spmatrix($type, x, A)\n--\n\nFull x @ A, A sparse."),
        class_method("_from_compact_affine_expr", from_compact_affine_expr,
                     "_from_compact_affine_expr($type, x_left=None, A=None, x_right=None, b=None)\n--\n\nCompact "
                     "x_left @ A + b or A @ x_right + b."),
        method("_add_matmul_part", add_matmul_part,
               "_add_matmul_part($self, A, x)\n--\n\nAppend one part to a compact expression."),
        method("_concat_matmulparts", concat_matmulparts,
               "_concat_matmulparts($self)\n--\n\nAll parts joined into one pair (A, x), which the expression keeps."),
        method("_extract_Axb", extract_Axb,
               "_extract_Axb($self)\n--\n\n(A, x, b) of a compact expression; A and x are None where it has no parts."),
    };
    return members;
}

} // namespace tarvopy
