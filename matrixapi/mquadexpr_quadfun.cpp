// x'Qy + c'z + d from arrays: the class method _from_quadfun and its two builders.
//
//   MQuadExpr._from_quadfun(x, Q, x, c, x, 1.0)    one element: compact, the entries of Q copied as they stand
//
// Cost of the compact builder: one copy of Q's arrays, its indices in 32 bits.
#include "matrixapi/mlinexpr_operators.h"
#include "matrixapi/mquadexpr_dict.h"
#include "matrixapi/mvar.h"
#include "matrixapi/operands.h"

#include "pysupport/args.h"
#include "pysupport/numpy.h"

namespace tarvopy {

using namespace pysupport;

namespace {

flat::Shape shape_attribute(PyObject *object) {
    return shape_of_tuple(check(PyObject_GetAttr(object, names.shape)).get());
}

constexpr const char *entry_of_q = "An entry of Q";

// The numbers of Q in stored order: all of a dense matrix, the stored ones of a sparse one.
void need_finite_matrix(PyObject *matrix) {
    if (is_sparse(matrix)) {
        flat::Coo entries = entries_of(stored_matrix(matrix, shape_attribute(matrix)));
        return need_finite(entries.value.data(), entries.nnz(), entry_of_q);
    }
    Ref data = check(PyArray_FROMANY(matrix, NPY_DOUBLE, 0, 0, NPY_ARRAY_CARRAY_RO | NPY_ARRAY_ENSUREARRAY));
    need_finite(doubles(data), PyArray_SIZE(as_array(data)), entry_of_q);
}

// NumPy's rule for a vector that a row or a column stands for.
void assert_vector(PyObject *mvar) {
    if (!assertions_on())
        return;
    flat::Shape shape = mvar_shape(mvar);
    if (shape.empty())
        fail(PyExc_ValueError, "a quadratic function needs variables of one dimension at least");
    assert_that(flat::size_of(shape) == *std::max_element(shape.begin(), shape.end()));
}

// The same variables in a vector of its own.
Ref flattened(PyObject *mvar) {
    Ref array = contiguous_objects(vararr_of(mvar).get());
    return wrap_mvar(check(PyArray_Flatten(as_array(array), NPY_CORDER)).get());
}

Ref compact_over_foreign(PyObject *cls, PyObject *x, PyObject *matrix, PyObject *y, PyObject *ndle) {
    Ref coo = check(PyObject_GetAttr(scipy_sparse(), names.coo_matrix)), arguments = check(PyTuple_Pack(1, matrix));
    Ref keywords = check(Py_BuildValue("{s:O,s:s}", "copy", Py_True, "dtype", "float64"));
    Ref copy = check(PyObject_Call(coo.get(), arguments.get(), keywords.get()));
    Ref list = check(Py_BuildValue("[(NNN)]", flattened(x).release(), copy.release(), flattened(y).release()));
    Ref keyword_names = check(Py_BuildValue("(ss)", "quadparts", "ndle"));
    PyObject *values[] = {list.get(), ndle};
    return check(PyObject_Vectorcall(cls, values, 0, keyword_names.get()));
}

Ref quadfun_compact(PyObject *cls, PyObject *x, PyObject *matrix, PyObject *y, PyObject *ndle) {
    assert_vector(x);
    assert_vector(y);
    assert_that(allows_compact_quad(shape_of(ndle)));
    VarIds left, right;
    Ref model;
    if (!mvar_ids(x, left) || !mvar_ids(y, right) || !merge_models(model, left.model) ||
        !merge_models(model, right.model)) {
        need_finite_matrix(matrix);
        return compact_over_foreign(cls, x, matrix, y, ndle);
    }
    QuadPart part = entries_of(matrix, left.ids.size(), right.ids.size());
    need_finite(part.coef.data(), part.nnz, entry_of_q);
    part.x = std::make_shared<VarVector>(VarVector{std::move(left.ids), {}});
    part.y = std::make_shared<VarVector>(VarVector{std::move(right.ids), {}});
    return make_quad_compact(cls, {std::move(part)}, Ref::borrow(ndle), std::move(model));
}

// The product by the operators, spread over ndle's shape. Its own linear part is zero.
Ref quadfun_full(PyObject *cls, PyObject *x, PyObject *matrix, PyObject *y, PyObject *ndle) {
    need_finite_matrix(matrix);
    Ref product = check(PyNumber_MatrixMultiply(check(PyNumber_MatrixMultiply(x, matrix)).get(), y));
    if (!is_mquadexpr(product.get()))
        fail(PyExc_TypeError, "the product of x, Q and y is no quadratic expression but a '%.200s'",
             Py_TYPE(product.get())->tp_name);
    quad_convert_to_full(product.get());
    flat::QuadForm form;
    flat::Form inner;
    Ref model;
    if (quad_value(product.get(), form, model, inner) && is_zero(inner))
        return make_quad_flat(cls, flat::broadcast(form, shape_of(ndle)), Ref::borrow(ndle), std::move(model));
    Ref zeros = float_array(shape_of(ndle));
    Ref spread = check(PyNumber_Add(qearr(product.get()).get(), zeros.get()));
    return make_quad_objects(cls, is_array(spread.get()) ? std::move(spread) : object_scalar(spread.get()),
                             Ref::borrow(ndle));
}

// zeros + c z + d, where None stands for nothing.
Ref linear_half(const flat::Shape &shape, PyObject *c, PyObject *z, PyObject *d) {
    Ref ndle = make_zeros(mod.MLinExpr, shape);
    if (c != Py_None && z != Py_None)
        ndle = check(PyNumber_Add(ndle.get(), check(PyNumber_MatrixMultiply(c, z)).get()));
    if (d != Py_None)
        ndle = check(PyNumber_Add(ndle.get(), d));
    if (!is_mlinexpr(ndle.get()))
        fail(PyExc_TypeError, "c, z and d do not make a linear expression but a '%.200s'",
             Py_TYPE(ndle.get())->tp_name);
    return ndle;
}

bool has_zero(const flat::Shape &shape) {
    return std::find(shape.begin(), shape.end(), 0) != shape.end();
}

Ref quadfun(PyObject *cls, const Arguments &given) {
    PyObject *x = given[0], *matrix = given[1], *y = given[2];
    for (PyObject *operand : {x, y})
        if (!is_mvar(operand))
            fail(PyExc_TypeError, "a quadratic function is over MVar objects, not '%.200s'", Py_TYPE(operand)->tp_name);
    flat::Shape inside = shape_attribute(matrix), left = matmul_shape(mvar_shape(x), inside);
    flat::Shape shape = matmul_shape(left, mvar_shape(y));
    Ref ndle = linear_half(shape, given[3], given[4], given[5]);
    // No element of a sum over nothing has a term.
    if (has_zero(mvar_shape(x)) || has_zero(mvar_shape(y)))
        return quad_from_mlinexpr(cls, ndle.get());
    bool vectors =
        inside.size() == 2 && flat::size_of(mvar_shape(x)) == inside[0] && flat::size_of(mvar_shape(y)) == inside[1];
    if (vectors && keeps_compact_quad(cls) && allows_compact_quad(shape_of(ndle.get())))
        return quadfun_compact(cls, x, matrix, y, ndle.get());
    return quadfun_full(cls, x, matrix, y, ndle.get());
}

using Builder = Ref (*)(PyObject *cls, PyObject *x, PyObject *matrix, PyObject *y, PyObject *ndle);

Ref build(Builder builder, PyObject *cls, const Arguments &given) {
    need_numpy();
    for (int i : {0, 2})
        if (!is_mvar(given[i]))
            fail(PyExc_TypeError, "a quadratic function is over MVar objects, not '%.200s'",
                 Py_TYPE(given[i])->tp_name);
    if (!is_mlinexpr(given[3]))
        fail(PyExc_TypeError, "ndle must be an MLinExpr, not '%.200s'", Py_TYPE(given[3])->tp_name);
    return builder(cls, given[0], given[1], given[2], given[3]);
}

PyObject *from_quadfun(PyObject *cls, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_from_quadfun", {"x", "Q", "y", "c", "z", "d"}, 6};
        need_numpy();
        return quadfun(cls, Arguments(signature, 1, args, nargs, kwnames));
    });
}

PyObject *from_quadfun_compact(PyObject *cls, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_from_quadfun_compact", {"x", "Q", "y", "ndle"}, 4};
        return build(quadfun_compact, cls, Arguments(signature, 1, args, nargs, kwnames));
    });
}

PyObject *from_quadfun_full(PyObject *cls, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_from_quadfun_full", {"x", "Q", "y", "ndle"}, 4};
        return build(quadfun_full, cls, Arguments(signature, 1, args, nargs, kwnames));
    });
}

} // namespace

std::span<Member> quadfun_members() {
    static Member members[] = {
        class_method(
            "_from_quadfun", from_quadfun,
            "_from_quadfun($type, x, Q, y, c, z, d)\n--\n\nThe matrix product x Q y, plus c z, plus d: MVar x, "
            "y and z, a matrix Q of numbers (dense or\nsparse, copied), numbers c and d. ValueError for "
            "shapes that do not fit, TarvoError for NaN or\ninfinity in Q."),
        class_method("_from_quadfun_compact", from_quadfun_compact,
                     "_from_quadfun_compact($type, x, Q, y, ndle)\n--\n\nOne part (x, Q, y) beside the linear part "
                     "ndle."),
        class_method(
            "_from_quadfun_full", from_quadfun_full,
            "_from_quadfun_full($type, x, Q, y, ndle)\n--\n\nThe product x Q y element by element, spread over "
            "the shape of ndle."),
    };
    return members;
}

} // namespace tarvopy
