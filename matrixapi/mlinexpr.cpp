// The class MLinExpr: constructors, structure, element access and printing.
//
//   MLinExpr.zeros((1, 4))        compact, no parts              MLinExpr.zeros((2, 3))     full
//   x + 0                         compact for a vector x         _from_mvar(x, force_full=True)
//   e[1:3]                        full, shares its elements with e, which is full from then on
//
// The states stand in mlinexpr_state.cpp, sums and values in mlinexpr_values.cpp, assignment in mlinexpr_assign.cpp,
// the operators in the mlinexpr_ files named after them.
#include "matrixapi/mlinexpr.h"

#include "matrixapi/mlinexpr_dict.h"
#include "matrixapi/mlinexpr_operators.h"
#include "matrixapi/mvar.h"
#include "matrixapi/operands.h"
#include "matrixapi/printing.h"

#include "pysupport/args.h"
#include "pysupport/numpy.h"

namespace tarvopy {

using namespace pysupport;

// ---- constructors -------------------------------------------------------------------------------------------------

flat::Shape asked_shape(PyObject *given) {
    refuse_sparse(given, "a shape is an int or a tuple of ints");
    Ref tuple = check(PyObject_CallOneArg(mod.broadcast_shapes, given));
    flat::Shape shape = shape_of_tuple(tuple.get());
    if (shape.size() > NPY_MAXDIMS)
        fail(PyExc_ValueError, "maximum supported dimension for an ndarray is currently %d, found %zd", NPY_MAXDIMS,
             static_cast<Py_ssize_t>(shape.size()));
    int64_t bytes = sizeof(double);
    for (int64_t extent : shape) {
        if (extent < 0)
            fail(PyExc_ValueError, "negative dimensions are not allowed: %R", given);
        if (__builtin_mul_overflow(bytes, std::max<int64_t>(extent, 1), &bytes))
            fail(PyExc_ValueError, "the shape %R is too large for an array", given);
    }
    return shape;
}

namespace {

flat::Form zero_form(const flat::Shape &shape) {
    flat::Form form;
    form.shape = shape;
    form.size = flat::size_of(shape);
    return form;
}

// Over foreign elements or several models: one LinExpr for each variable, as LinExpr takes it.
Ref elementwise_from_mvar(PyObject *cls, PyObject *mvar) {
    Ref vars = contiguous_objects(vararr_of(mvar).get());
    Ref array = linexpr_array(zero_form(shape_of_array(vars.get())), {});
    auto **from = static_cast<PyObject **>(PyArray_DATA(as_array(vars)));
    auto **to = static_cast<PyObject **>(PyArray_DATA(as_array(array)));
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(vars)); ++i)
        check_status(mod.core->linexpr_add(to[i], from[i] ? from[i] : Py_None, 1.0));
    return make_objects(cls, std::move(array));
}

// The documented pair over an MVar that has no ids.
Ref compact_from_foreign(PyObject *cls, PyObject *mvar) {
    Ref vars = contiguous_objects(vararr_of(mvar).get());
    flat::Shape shape = shape_of_array(vars.get());
    Ref vector = wrap_mvar(check(PyArray_Ravel(as_array(vars), NPY_CORDER)).get());
    Ref eye = check(PyObject_GetAttrString(scipy_sparse(), "eye"));
    Ref arguments = check(Py_BuildValue("(n)", static_cast<Py_ssize_t>(flat::size_of(shape))));
    Ref keywords = check(Py_BuildValue("{s:s}", "format", "csr"));
    Ref identity = check(PyObject_Call(eye.get(), arguments.get(), keywords.get()));
    // From any later version of SciPy too: a csr_matrix, not a sparse array.
    identity =
        check(PyObject_CallOneArg(check(PyObject_GetAttr(scipy_sparse(), names.csr_matrix)).get(), identity.get()));
    Ref list = check(Py_BuildValue("[(OO)]", identity.get(), vector.get()));
    return make_compact_pairs(cls, list, float_array(shape));
}

void expect_mvar(PyObject *object) {
    if (!is_mvar(object))
        fail(PyExc_TypeError, "expected an MVar, not '%.200s'", Py_TYPE(object)->tp_name);
}

Ref compact_from_mvar(PyObject *cls, PyObject *mvar) {
    VarIds given;
    if (!mvar_ids(mvar, given))
        return compact_from_foreign(cls, mvar);
    std::vector<Part> parts;
    if (given.ids.size() > 0)
        parts.push_back(identity_part(std::move(given.ids)));
    return make_compact(cls, std::move(parts), float_array(given.shape), std::move(given.model));
}

Ref full_from_mvar(PyObject *cls, PyObject *mvar) {
    VarIds given;
    if (!mvar_ids(mvar, given))
        return elementwise_from_mvar(cls, mvar);
    flat::Form form = zero_form(given.shape);
    if (form.size > 0)
        form.summands.push_back(flat::single(std::move(given.ids)));
    return make_flat(cls, std::move(form), std::move(given.model));
}

Ref item_of(PyObject *expr);

// LinExpr objects as they are; anything else through LinExpr's own constructor.
Ref as_linexpr(PyObject *object) {
    if (PyObject_TypeCheck(object, mod.core->LinExpr))
        return Ref::borrow(object);
    if (is_mlinexpr(object))
        return item_of(object);
    return check(PyObject_CallOneArg(reinterpret_cast<PyObject *>(mod.core->LinExpr), object));
}

Ref from_linexprs(PyObject *cls, PyObject *les) {
    need_numpy();
    Ref given =
        check(PyArray_FROMANY(les, NPY_OBJECT, 0, 0, NPY_ARRAY_CARRAY | NPY_ARRAY_ENSURECOPY | NPY_ARRAY_ENSUREARRAY));
    auto **elements = static_cast<PyObject **>(PyArray_DATA(as_array(given)));
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(given)); ++i) {
        Ref converted = as_linexpr(elements[i] ? elements[i] : Py_None);
        Ref old = Ref::steal(std::exchange(elements[i], converted.release()));
    }
    flat::Form form;
    Ref model;
    if (read_array(given.get(), form, model))
        return make_flat(cls, std::move(form), std::move(model));
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(given)); ++i) {
        Ref copied = check(mod.core->linexpr_copy(elements[i]));
        Ref old = Ref::steal(std::exchange(elements[i], copied.release()));
    }
    return make_objects(cls, std::move(given));
}

} // namespace

Ref from_mvar(PyObject *cls, PyObject *mvar, bool force_full) {
    expect_mvar(mvar);
    bool compact = !force_full && keep_compact(cls) && allows_compact(mvar_shape(mvar));
    return compact ? compact_from_mvar(cls, mvar) : full_from_mvar(cls, mvar);
}

Ref from_var(PyObject *cls, PyObject *var) {
    flat::Form form;
    Ref model;
    flat_linexpr(var, form, model);
    return make_flat(cls, std::move(form), std::move(model));
}

Ref from_linexpr(PyObject *cls, PyObject *linexpr) {
    flat::Form form;
    Ref model;
    if (flat_linexpr(linexpr, form, model))
        return make_flat(cls, std::move(form), std::move(model));
    return make_objects(cls, object_scalar(check(mod.core->linexpr_copy(linexpr)).get()));
}

namespace {

bool is_instance(PyObject *object, PyObject *cls) {
    return check_status(PyObject_IsInstance(object, cls)) != 0;
}

Ref attribute(const Ref &object, const char *name) {
    return check(PyObject_GetAttrString(object.get(), name));
}

// `a, b = pair`, with its errors.
std::pair<Ref, Ref> unpacked(PyObject *pair) {
    refuse_sparse(pair, "a part is a matrix and an MVar");
    Ref tuple = PyTuple_Check(pair) || PyList_Check(pair) || Py_TYPE(pair)->tp_iter || PySequence_Check(pair)
                    ? check(PySequence_Tuple(pair))
                    : Ref();
    if (!tuple)
        fail(PyExc_TypeError, "cannot unpack non-iterable %.200s object", Py_TYPE(pair)->tp_name);
    if (PyTuple_GET_SIZE(tuple.get()) > 2)
        fail(PyExc_ValueError, "too many values to unpack (expected %zd)", static_cast<Py_ssize_t>(2));
    if (PyTuple_GET_SIZE(tuple.get()) < 2)
        fail(PyExc_ValueError, "not enough values to unpack (expected %zd, got %zd)", static_cast<Py_ssize_t>(2),
             PyTuple_GET_SIZE(tuple.get()));
    return {Ref::borrow(PyTuple_GET_ITEM(tuple.get(), 0)), Ref::borrow(PyTuple_GET_ITEM(tuple.get(), 1))};
}

void expect_integral(const Ref &matrix) {
    Ref dtype = attribute(attribute(matrix, "indptr"), "dtype");
    Ref integer = check(PyObject_GetAttrString(numpy_module(), "integer"));
    Ref answer = check(PyObject_CallMethod(numpy_module(), "issubdtype", "OO", dtype.get(), integer.get()));
    assert_that(check_status(PyObject_IsTrue(answer.get())) != 0);
}

void expect_part(PyObject *pair) {
    auto [matrix, vector] = unpacked(pair);
    if (!assertions_on())
        return;
    assert_that(is_instance(matrix.get(), check(PyObject_GetAttr(scipy_sparse(), names.csr_matrix)).get()));
    Ref dtype = attribute(attribute(matrix, "data"), "dtype");
    Ref float64 = check(PyObject_GetAttrString(numpy_module(), "float64"));
    assert_that(check_status(PyObject_RichCompareBool(dtype.get(), float64.get(), Py_EQ)) != 0);
    expect_integral(matrix); // the row pointers alone: columns of any dtype are converted when they are read
    auto [rows, columns] = unpacked(attribute(matrix, "shape").get());
    assert_that(is_mvar(vector.get()));
    Ref wanted = check(PyTuple_Pack(1, columns.get()));
    Ref shape = check(PyObject_GetAttr(vector.get(), names.shape));
    assert_that(check_status(PyObject_RichCompareBool(shape.get(), wanted.get(), Py_EQ)) != 0);
}

void expect_compact(PyObject *parts, PyObject *constant) {
    assert_that(parts != Py_None);
    assert_that(constant != Py_None);
    assert_that(is_array(constant));
    if (assertions_on() && PyArray_SIZE(as_array(constant)) == 0)
        assert_that(check_status(static_cast<int>(std::min<Py_ssize_t>(PyObject_Size(parts), 1))) == 0);
    refuse_sparse(parts, "parts are pairs of a matrix and an MVar");
    Ref iterator = check(PyObject_GetIter(parts));
    while (Ref pair = Ref::steal(PyIter_Next(iterator.get())))
        expect_part(pair.get());
    if (PyErr_Occurred())
        throw PythonError{};
}

PyObject *init(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"__init__", {"wraponly", "matmulparts", "b"}, 0};
        Arguments given(signature, 1, args, nargs, kwnames);
        PyObject *wraponly = given.get(0, Py_None), *parts = given.get(1, Py_None), *constant = given.get(2, Py_None);
        if (wraponly != Py_None) {
            assert_that(parts == Py_None && constant == Py_None && is_array(wraponly));
            parts = constant = Py_None;
        } else {
            expect_compact(parts, constant);
        }
        store_documented(self, wraponly, parts, constant);
        return Ref::none();
    });
}

// A class method of one argument.
template <Ref (*work)(PyObject *cls, PyObject *argument)>
PyObject *construction(PyObject *cls, const Signature &signature, PyObject *const *args, Py_ssize_t nargs,
                       PyObject *kwnames) {
    return border([&] {
        Arguments given(signature, 1, args, nargs, kwnames);
        return work(cls, given[0]);
    });
}

Ref zeros_of(PyObject *cls, PyObject *shape) {
    return make_zeros(cls, asked_shape(shape));
}
Ref zeros_full_of(PyObject *cls, PyObject *shape) {
    return make_flat(cls, zero_form(asked_shape(shape)), {});
}

Ref from_mvar_compact(PyObject *cls, PyObject *mvar) {
    expect_mvar(mvar);
    flat::Shape shape = mvar_shape(mvar);
    if (!allows_compact(shape))
        fail(PyExc_ValueError, "Compact state cannot have shape %S", shape_tuple(shape).get());
    return compact_from_mvar(cls, mvar);
}

Ref from_mvar_full(PyObject *cls, PyObject *mvar) {
    expect_mvar(mvar);
    return full_from_mvar(cls, mvar);
}

void expect_type(PyObject *object, PyTypeObject *type) {
    if (!PyObject_TypeCheck(object, type))
        fail(PyExc_Exception, "Wrong type");
}

Ref checked_from_var(PyObject *cls, PyObject *var) {
    expect_type(var, mod.core->Var);
    return from_var(cls, var);
}

Ref checked_from_linexpr(PyObject *cls, PyObject *linexpr) {
    expect_type(linexpr, mod.core->LinExpr);
    return from_linexpr(cls, linexpr);
}

PyObject *zeros(PyObject *cls, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    static const Signature signature{"zeros", {"shape"}, 1};
    return construction<zeros_of>(cls, signature, args, nargs, kwnames);
}

PyObject *zeros_full(PyObject *cls, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    static const Signature signature{"_zeros_full", {"shape"}, 1};
    return construction<zeros_full_of>(cls, signature, args, nargs, kwnames);
}

PyObject *from_mvar_method(PyObject *cls, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_from_mvar", {"fromobj", "force_full"}, 1};
        Arguments given(signature, 1, args, nargs, kwnames);
        return from_mvar(cls, given[0], check_status(PyObject_IsTrue(given.get(1, Py_False))) != 0);
    });
}

PyObject *from_mvar_compact_method(PyObject *cls, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    static const Signature signature{"_from_mvar_compact", {"fromobj"}, 1};
    return construction<from_mvar_compact>(cls, signature, args, nargs, kwnames);
}

PyObject *from_mvar_full_method(PyObject *cls, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    static const Signature signature{"_from_mvar_full", {"fromobj"}, 1};
    return construction<from_mvar_full>(cls, signature, args, nargs, kwnames);
}

PyObject *from_var_method(PyObject *cls, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    static const Signature signature{"_from_var", {"fromobj"}, 1};
    return construction<checked_from_var>(cls, signature, args, nargs, kwnames);
}

PyObject *from_linexpr_method(PyObject *cls, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    static const Signature signature{"_from_linexpr", {"fromobj"}, 1};
    return construction<checked_from_linexpr>(cls, signature, args, nargs, kwnames);
}

PyObject *from_linexprs_method(PyObject *cls, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    static const Signature signature{"_from_linexprs", {"les"}, 1};
    return construction<from_linexprs>(cls, signature, args, nargs, kwnames);
}

PyObject *allows_compact_method(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_allows_compact", {"shape"}, 1};
        Arguments given(signature, 0, args, nargs, kwnames);
        Ref shape = own_items(given[0], "a shape is a tuple of ints");
        return Ref::borrow(allows_compact(shape_of_tuple(shape.get())) ? Py_True : Py_False);
    });
}

// ---- structure ----------------------------------------------------------------------------------------------------

void expect_no_matrix(PyObject *constant) {
    if (!PyArray_CheckExact(constant)) {
        Ref matrix = check(PyObject_GetAttrString(numpy_module(), "matrix"));
        assert_that(!is_instance(constant, matrix.get()));
    }
}

// shape, ndim and size of the array that carries them.
PyObject *structure(PyObject *self, PyObject *name) {
    return border([&] {
        State state = state_of(self);
        if (state == State::Objects)
            return check(PyObject_GetAttr(learr(self).get(), name));
        if (is_compact(state)) {
            PyObject *constant = const_array(self);
            if (name == names.shape)
                expect_no_matrix(constant);
            return check(PyObject_GetAttr(constant, name));
        }
        const flat::Form &form = linear_of(self)->form;
        if (name == names.shape)
            return shape_tuple(form.shape);
        return check(PyLong_FromLongLong(name == names.ndim ? static_cast<long long>(form.shape.size()) : form.size));
    });
}

PyObject *get_shape(PyObject *self, void *) {
    return structure(self, names.shape);
}
PyObject *get_ndim(PyObject *self, void *) {
    return structure(self, names.ndim);
}
PyObject *get_size(PyObject *self, void *) {
    return structure(self, names.size);
}

// ---- elements -----------------------------------------------------------------------------------------------------

Ref item_of(PyObject *expr) {
    if (is_compact(expr))
        return item_of(to_full(expr).get());
    if (state_of(expr) == State::Objects) {
        Ref element = check(PyObject_CallMethodNoArgs(learr(expr).get(), names.item));
        return check(PyObject_CallMethodNoArgs(element.get(), names.copy));
    }
    const flat::Form &form = linear_of(expr)->form;
    if (form.size != 1)
        fail(PyExc_ValueError, "can only convert an array of size 1 to a Python scalar");
    Ref array = linexpr_array(form, linear_of(expr)->model);
    return Ref::borrow(*static_cast<PyObject **>(PyArray_DATA(as_array(array))));
}

PyObject *item(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"item", {}, 0};
        Arguments(signature, 1, args, nargs, kwnames);
        return item_of(self);
    });
}

PyObject *getitem(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"__getitem__", {"obj"}, 1};
        Arguments given(signature, 1, args, nargs, kwnames);
        convert_to_full(self);
        if (Ref shared = shared_selection(self, given[0]))
            return shared;
        Ref selected = check(PyObject_GetItem(learr(self).get(), given[0]));
        if (!PyArray_Check(selected.get()))
            selected = object_scalar(selected.get());
        else if (PyArray_BASE(as_array(selected)))
            selected = check(PyArray_NewCopy(as_array(selected), NPY_CORDER));
        return make_objects(mod.MLinExpr, std::move(selected));
    });
}

PyObject *iter(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"__iter__", {}, 0};
        Arguments(signature, 1, args, nargs, kwnames);
        if (shape_of(self).empty())
            fail(PyExc_TypeError, "iteration over a 0-d array");
        return check(PySeqIter_New(self));
    });
}

// ---- printing -----------------------------------------------------------------------------------------------------

const char *marker(PyObject *expr) {
    if (!is_compact(expr))
        return "";
    Py_ssize_t parts = number_of_parts(expr);
    return parts == 0 ? " " : parts == 1 ? "  " : "   ";
}

// The element array, made for the printing alone where the expression has none.
Ref printed_array(PyObject *expr) {
    if (is_compact(expr))
        return learr(to_full(expr).get());
    if (LinearNative *native = linear_of(expr))
        return linexpr_array(native->form, native->model);
    return learr(expr);
}

PyObject *repr(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"__repr__", {}, 0};
        Arguments(signature, 1, args, nargs, kwnames);
        const char *leinfo = marker(self);
        Ref text = printed_elements(printed_array(self));
        Ref shape = check(PyObject_GetAttr(self, names.shape));
        return check(PyUnicode_FromFormat("<MLinExpr %S%s>\n%U)", shape.get(), leinfo, text.get()));
    });
}

std::span<Member> own_members() {
    static Member members[] = {
        method("__init__", init,
               "__init__($self, wraponly=None, matmulparts=None, b=None)\n--\n\nWraps arrays without copying them."),
        property("shape", get_shape, "The shape, a tuple."),
        property("ndim", get_ndim, "The number of dimensions."),
        property("size", get_size, "The number of elements."),
        class_method("zeros", zeros,
                     "zeros($type, shape)\n--\n\nThe all-zero expression of a shape (an int or a tuple)."),
        class_method("_zeros_full", zeros_full, "_zeros_full($type, shape)\n--\n\nA full expression of empty LinExpr."),
        class_method("_from_mvar", from_mvar_method,
                     "_from_mvar($type, fromobj, force_full=False)\n--\n\nThe variables of an MVar, each with the "
                     "coefficient 1."),
        class_method("_from_mvar_compact", from_mvar_compact_method,
                     "_from_mvar_compact($type, fromobj)\n--\n\nThe variables of an MVar in the compact state."),
        class_method("_from_mvar_full", from_mvar_full_method,
                     "_from_mvar_full($type, fromobj)\n--\n\nThe variables of an MVar in the full state."),
        class_method("_from_var", from_var_method,
                     "_from_var($type, fromobj)\n--\n\nA Var as a 0-dimensional expression."),
        class_method("_from_linexpr", from_linexpr_method,
                     "_from_linexpr($type, fromobj)\n--\n\nA copy of a LinExpr as a 0-dimensional expression."),
        class_method("_from_linexprs", from_linexprs_method,
                     "_from_linexprs($type, les)\n--\n\nCopies of an array-like of LinExpr or 0-dimensional MLinExpr."),
        static_method("_allows_compact", allows_compact_method,
                      "_allows_compact(shape)\n--\n\nFewer than three dimensions, at most one extent above 1."),
        method("item", item,
               "item($self)\n--\n\nA copy of the single element, a LinExpr. ValueError for another size."),
        method("__getitem__", getitem,
               "__getitem__($self, obj)\n--\n\nNumPy's indexing; the result shares its elements. Brings the expression "
               "to the full state."),
        method("__iter__", iter, "__iter__($self)\n--\n\nOver the first axis."),
        method("__repr__", repr, "__repr__($self)\n--\n\nShape, and every element as text."),
    };
    return members;
}

constexpr const char *class_doc =
    "Array of linear expressions over variables, with the meaning of NumPy's arrays.\n\n"
    "Arithmetic on MVar objects and matrix products with them give such expressions; model.addConstr takes their\n"
    "comparisons, model.setObjective those of one element.";

} // namespace

Ref build_mlinexpr_class() {
    Ref dict = new_namespace("tarvopy._matrixapi", "MLinExpr", class_doc);
    for (auto members : {own_members(), state_members(), value_members(), assign_members(), matmul_members(),
                         addition_members(), multiplication_members(), product_members(), worker_members()})
        add_members(dict.get(), matrix_base, members);
    Ref priority = check(PyLong_FromLong(100)), one = check(PyLong_FromLong(1));
    check_status(PyDict_SetItemString(dict.get(), "__array_priority__", priority.get()));
    check_status(PyDict_SetItem(dict.get(), names._keep_compact, one.get()));
    return build_class("MLinExpr", matrix_base, dict.get());
}

} // namespace tarvopy
