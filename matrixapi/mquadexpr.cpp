// The class MQuadExpr: constructors, parts, element access and printing.
//
//   MQuadExpr.zeros((1, 1))       compact, no parts              MQuadExpr.zeros((2, 3))     full
//   x * y                         compact for one element, with a 1 x 1 matrix; full otherwise
//   q[1:3]                        full, shares its elements with q, which is full from then on; q[[1, 2]] is a copy
//
// The states stand in mquadexpr_state.cpp, sums and values in mquadexpr_values.cpp, assignment in
// mquadexpr_assign.cpp, x'Qy + c'z + d from arrays in mquadexpr_quadfun.cpp.
#include "matrixapi/methods.h"
#include "matrixapi/mlinexpr_operators.h"
#include "matrixapi/mquadexpr_dict.h"
#include "matrixapi/mvar.h"
#include "matrixapi/operands.h"
#include "matrixapi/printing.h"

#include "pysupport/args.h"
#include "pysupport/numpy.h"

namespace tarvopy {

using namespace pysupport;

bool keeps_compact_quad(PyObject *cls) {
    return check_status(PyObject_IsTrue(check(PyObject_GetAttr(cls, names._keep_compact)).get())) != 0;
}

namespace {

// ---- __init__ -----------------------------------------------------------------------------------------------------

PyObject *unpacked(const Ref &triple, Py_ssize_t place) {
    return PyTuple_GET_ITEM(triple.get(), place);
}

// As `x, Q, y = entry`.
Ref unpack(PyObject *entry) {
    refuse_sparse(entry, "a quadratic part is an MVar, a matrix and an MVar");
    Ref triple = Ref::steal(PySequence_Tuple(entry));
    if (!triple && PyErr_ExceptionMatches(PyExc_TypeError) && !Py_TYPE(entry)->tp_iter && !PySequence_Check(entry)) {
        PyErr_Clear();
        fail(PyExc_TypeError, "cannot unpack non-iterable %.200s object", Py_TYPE(entry)->tp_name);
    }
    if (!triple)
        throw PythonError{};
    Py_ssize_t count = PyTuple_GET_SIZE(triple.get());
    if (count > 3)
        fail(PyExc_ValueError, "too many values to unpack (expected %zd)", static_cast<Py_ssize_t>(3));
    if (count < 3)
        fail(PyExc_ValueError, "not enough values to unpack (expected 3, got %zd)", count);
    return triple;
}

bool has_shape(PyObject *object, const flat::Shape &shape) {
    Ref own = check(PyObject_GetAttr(object, names.shape)), wanted = shape_tuple(shape);
    return check_status(PyObject_RichCompareBool(own.get(), wanted.get(), Py_EQ)) != 0;
}

bool holds_integers(PyObject *indices) {
    return is_array(indices) && PyTypeNum_ISINTEGER(PyArray_TYPE(as_array(indices)));
}

void assert_triple(PyObject *entry) {
    Ref triple = unpack(entry);
    if (!assertions_on())
        return;
    PyObject *x = unpacked(triple, 0), *matrix = unpacked(triple, 1), *y = unpacked(triple, 2);
    Ref coo = check(PyObject_GetAttr(scipy_sparse(), names.coo_matrix));
    assert_that(check_status(PyObject_IsInstance(matrix, coo.get())));
    Ref data = check(PyObject_GetAttr(matrix, names.data));
    assert_that(is_array(data.get()) && PyArray_TYPE(as_array(data)) == NPY_DOUBLE);
    assert_that(holds_integers(check(PyObject_GetAttr(matrix, names.row)).get()));
    assert_that(holds_integers(check(PyObject_GetAttr(matrix, names.col)).get()));
    flat::Shape shape = shape_of_tuple(check(PyObject_GetAttr(matrix, names.shape)).get());
    assert_that(is_mvar(x) && has_shape(x, {shape.at(0)}));
    assert_that(is_mvar(y) && has_shape(y, {shape.at(1)}));
}

void assert_same_shape(PyObject *qearr, PyObject *ndle) {
    Ref a = check(PyObject_GetAttr(qearr, names.shape)), b = check(PyObject_GetAttr(ndle, names.shape));
    assert_that(check_status(PyObject_RichCompareBool(a.get(), b.get(), Py_EQ)));
}

void assert_parts(PyObject *parts, PyObject *ndle) {
    flat::Shape shape = shape_of_tuple(check(PyObject_GetAttr(ndle, names.shape)).get());
    assert_that(allows_compact_quad(shape));
    assert_that(flat::size_of(shape) > 0 || check_value(PyObject_Size(parts)) == 0);
    Ref entries = own_items(parts, "quadratic parts are a list");
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(entries.get()); ++i)
        assert_triple(PyTuple_GET_ITEM(entries.get(), i));
}

PyObject *init(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"__init__", {"qearr", "quadparts", "ndle"}, 0};
        Arguments given(signature, 1, args, nargs, kwnames);
        PyObject *qearr = given.get(0, Py_None), *parts = given.get(1, Py_None), *ndle = given.get(2, Py_None);
        need_numpy();
        assert_that(ndle != Py_None);
        if (qearr != Py_None) {
            assert_that(parts == Py_None);
            if (assertions_on())
                assert_same_shape(qearr, ndle);
        }
        if (parts != Py_None)
            assert_parts(parts, ndle);
        store_quad_documented(self, qearr, parts, ndle);
        return Ref::none();
    });
}

// ---- constructors -------------------------------------------------------------------------------------------------

flat::QuadForm products(const VarIds &left, const VarIds &right, const flat::Shape &shape) {
    auto spread = [&](const VarIds &given) {
        std::vector<int64_t> map = flat::broadcast_map(given.shape, shape);
        if (map.empty())
            return given.ids;
        flat::Buffer<int32_t> ids(flat::size_of(shape));
        int32_t *to = ids.write();
        for (int64_t i = 0; i < ids.size(); ++i)
            to[i] = given.ids[map[static_cast<size_t>(i)]];
        return ids;
    };
    flat::QuadForm form = flat::zero_quad(shape);
    if (form.size == 0)
        return form;
    flat::QuadSummand summand;
    summand.nrows = form.size;
    summand.width = 1;
    summand.vars1 = spread(left);
    summand.vars2 = left.ids.same(right.ids) && left.shape == right.shape ? summand.vars1 : spread(right);
    form.summands.push_back(std::move(summand));
    return form;
}

// Over foreign elements or several models: what the scalar objects' own product gives.
Ref elementwise_products(PyObject *left, PyObject *right, const flat::Shape &shape) {
    Ref given = check(PyNumber_Multiply(vararr_of(left).get(), vararr_of(right).get()));
    Ref factors = is_array(given.get()) ? contiguous_objects(given.get()) : object_scalar(given.get());
    Ref array = quadexpr_array(flat::zero_quad(shape), {});
    auto **from = static_cast<PyObject **>(PyArray_DATA(as_array(factors)));
    auto **to = static_cast<PyObject **>(PyArray_DATA(as_array(array)));
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(factors)); ++i)
        check_status(mod.core->quadexpr_add(to[i], from[i] ? from[i] : Py_None, 1.0));
    return array;
}

Ref single_triple(PyObject *left, PyObject *right) {
    auto vector = [](PyObject *mvar) {
        Ref array = contiguous_objects(vararr_of(mvar).get());
        return wrap_mvar(check(PyArray_Flatten(as_array(array), NPY_CORDER)).get());
    };
    QuadPart unit;
    unit.nnz = 1;
    unit.x = unit.y = std::make_shared<VarVector>(VarVector{flat::Buffer<int32_t>(1), {}});
    unit.x->mvar = Ref::none();
    Ref matrix = Ref::borrow(PyTuple_GET_ITEM(part_triple(unit, {}).get(), 1));
    return check(PyTuple_Pack(3, vector(left).get(), matrix.get(), vector(right).get()));
}

Ref compact_product_of_foreign(PyObject *cls, PyObject *left, PyObject *right, const flat::Shape &shape) {
    Ref result = make_quad_compact(cls, {}, make_zeros(mod.MLinExpr, shape), {});
    if (flat::size_of(shape) > 0)
        check_status(PyList_Append(quadparts(result.get()).get(), single_triple(left, right).get()));
    return result;
}

Ref compact_product(PyObject *cls, VarIds left, VarIds right, const flat::Shape &shape, Ref model) {
    QuadPart part; // the identity of one variable
    part.nnz = 1;
    part.x = std::make_shared<VarVector>(VarVector{std::move(left.ids), {}});
    part.y = std::make_shared<VarVector>(VarVector{std::move(right.ids), {}});
    return make_quad_compact(cls, {std::move(part)}, make_zeros(mod.MLinExpr, shape), std::move(model));
}

} // namespace

Ref quad_from_mvars(PyObject *cls, PyObject *left, PyObject *right, bool force_full) {
    for (PyObject *operand : {left, right})
        if (!is_mvar(operand))
            fail(PyExc_TypeError, "expected an MVar, not '%.200s'", Py_TYPE(operand)->tp_name);
    flat::Shape shape = broadcast_shapes(mvar_shape(left), mvar_shape(right));
    bool compact = !force_full && keeps_compact_quad(cls) && allows_compact_quad(shape);
    VarIds a, b;
    Ref model;
    bool numeric =
        mvar_ids(left, a) && mvar_ids(right, b) && merge_models(model, a.model) && merge_models(model, b.model);
    if (numeric && broadcast_shapes(a.shape, b.shape) != shape) // a child class may make its array anew each time
        fail(PyExc_ValueError, "the variables changed their shape while they were multiplied");
    if (compact)
        return numeric ? compact_product(cls, std::move(a), std::move(b), shape, std::move(model))
                       : compact_product_of_foreign(cls, left, right, shape);
    Ref ndle = make_zeros(mod.MLinExpr, shape);
    if (numeric)
        return make_quad_flat(cls, products(a, b, shape), std::move(ndle), std::move(model));
    return make_quad_objects(cls, elementwise_products(left, right, shape), std::move(ndle));
}

Ref quad_from_quadexpr(PyObject *cls, PyObject *quadexpr) {
    if (!PyObject_TypeCheck(quadexpr, mod.core->QuadExpr))
        fail(PyExc_TypeError, "expected a QuadExpr, not '%.200s'", Py_TYPE(quadexpr)->tp_name);
    flat::QuadForm form;
    flat::Form linear;
    Ref model;
    if (quad_of_quadexpr(quadexpr, form, linear, model))
        return make_quad_flat(cls, std::move(form), make_flat(mod.MLinExpr, std::move(linear), model), model);
    Ref copy = check(mod.core->quadexpr_copy(quadexpr));
    PyObject *part = mod.core->quadexpr_linear(copy.get());
    if (!part)
        throw PythonError{};
    Ref ndle = from_linexpr(mod.MLinExpr, part);
    check_status(mod.core->linexpr_clear(part));
    return make_quad_objects(cls, object_scalar(copy.get()), std::move(ndle));
}

namespace {

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
    return make_quad_zeros(cls, asked_shape(shape));
}
Ref zeros_full_of(PyObject *cls, PyObject *shape) {
    return make_quad_zeros(cls, asked_shape(shape), true);
}

PyObject *zeros(PyObject *cls, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    static const Signature signature{"zeros", {"shape"}, 1};
    return construction<zeros_of>(cls, signature, args, nargs, kwnames);
}

PyObject *zeros_full(PyObject *cls, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    static const Signature signature{"_zeros_full", {"shape"}, 1};
    return construction<zeros_full_of>(cls, signature, args, nargs, kwnames);
}

PyObject *from_quad_expr(PyObject *cls, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    static const Signature signature{"_from_quad_expr", {"qe"}, 1};
    return construction<quad_from_quadexpr>(cls, signature, args, nargs, kwnames);
}

PyObject *from_mvars(PyObject *cls, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_from_mvar_times_mvar", {"mvar_left", "mvar_right", "force_full"}, 2};
        Arguments given(signature, 1, args, nargs, kwnames);
        return quad_from_mvars(cls, given[0], given[1], check_status(PyObject_IsTrue(given.get(2, Py_False))) != 0);
    });
}

PyObject *from_mlinexpr(PyObject *cls, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_from_mlinexpr", {"ndle", "force_full"}, 1};
        Arguments given(signature, 1, args, nargs, kwnames);
        return quad_from_mlinexpr(cls, given[0], check_status(PyObject_IsTrue(given.get(1, Py_False))) != 0);
    });
}

PyObject *allows_compact_method(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_allows_compact", {"shape"}, 1};
        Arguments given(signature, 0, args, nargs, kwnames);
        Ref shape = own_items(given[0], "a shape is a tuple of ints");
        return Ref::borrow(allows_compact_quad(shape_of_tuple(shape.get())) ? Py_True : Py_False);
    });
}

// ---- parts --------------------------------------------------------------------------------------------------------

Ref add_quadpart(PyObject *self, PyObject *x, PyObject *given, PyObject *y) {
    Ref cls = check(PyObject_GetAttr(scipy_sparse(), names.coo_matrix));
    flat::Shape shape = shape_of_tuple(check(PyObject_GetAttr(given, names.shape)).get());
    assert_that(is_compact_quad(self));
    if (shape.size() != 2) {
        assert_that(false);
        fail(PyExc_ValueError, "the matrix of a part must have two dimensions, not %zu", shape.size());
    }
    assert_that(is_mvar(x) && is_mvar(y));
    assert_that(has_shape(x, {shape[0]}) && has_shape(y, {shape[1]}));
    assert_that(shape[0] > 0 && shape[1] > 0);
    Ref arguments = check(PyTuple_Pack(1, given));
    Ref keywords = check(Py_BuildValue("{s:s,s:O}", "dtype", "float64", "copy", Py_False));
    Ref matrix = check(PyObject_Call(cls.get(), arguments.get(), keywords.get()));
    Ref triple = check(PyTuple_Pack(3, x, matrix.get(), y)), list = part_list(self);
    check_status(PyList_Append(list.get(), triple.get()));
    return Ref::none();
}

PyObject *add_quadpart_method(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_add_quadpart", {"x", "Q", "y"}, 3};
        Arguments given(signature, 1, args, nargs, kwnames);
        need_numpy();
        return add_quadpart(self, given[0], given[1], given[2]);
    });
}

Ref concat_quadparts(PyObject *self) {
    merge_quad_parts(self);
    return Ref::none();
}

// Merged, as documented; None three times where there is no part.
Ref extract_xQy(PyObject *self) {
    merge_quad_parts(self);
    if (number_of_quad_parts(self) == 0)
        return check(PyTuple_Pack(3, Py_None, Py_None, Py_None));
    return check(PySequence_GetItem(quadparts(self).get(), 0));
}

Ref extract_quadexpr(PyObject *self) {
    merge_quad_parts(self);
    std::vector<QuadPart> parts;
    flat::QuadForm form;
    flat::Form inner;
    Ref model;
    if (number_of_quad_parts(self) == 0)
        return check(mod.core->quadexpr_new());
    if (!quad_value(self, form, model, inner))
        return elementwise_sum_of(quadparts(self).get());
    form.shape = {};
    return Ref::borrow(*static_cast<PyObject **>(PyArray_DATA(as_array(quadexpr_array(form, model)))));
}

Ref copy_quadparts(PyObject *self) {
    merge_quad_parts(self);
    std::vector<QuadPart> parts;
    Ref model;
    if (!quad_parts(self, parts, model))
        return copied_triples(self);
    Ref list = check(PyList_New(0));
    for (const QuadPart &part : own_quad_parts(std::move(parts)))
        check_status(PyList_Append(list.get(), part_triple(part, model).get()));
    return list;
}

// ---- elements -----------------------------------------------------------------------------------------------------

Ref item_of(PyObject *self) {
    if (flat::size_of(quad_shape_of(self)) != 1)
        fail(PyExc_ValueError, "can only convert an array of size 1 to a Python scalar");
    if (is_compact_quad(self))
        merge_quad_parts(self);
    return Ref::borrow(*static_cast<PyObject **>(PyArray_DATA(as_array(whole_elements(self)))));
}

// Whether NumPy gave elements where they stand, not an array of its own (which may be hidden behind a transposed view).
bool is_view(PyObject *selected, PyObject *source) {
    Ref shared = check(PyObject_CallMethod(numpy_module(), "may_share_memory", "OO", selected, source));
    return check_status(PyObject_IsTrue(shared.get())) != 0;
}

Ref select(PyObject *self, PyObject *key) {
    quad_convert_to_full(self);
    Ref ndle = check(PyObject_GetItem(ndle_of(self), key));
    if (Ref shared = shared_quad_selection(self, key, ndle))
        return shared;
    Ref elements = qearr(self), selected = check(PyObject_GetItem(elements.get(), key));
    if (!PyArray_Check(selected.get()))
        return make_quad_objects(mod.MQuadExpr, object_scalar(selected.get()), std::move(ndle));
    bool view = is_view(selected.get(), elements.get());
    Ref result = make_quad_objects(mod.MQuadExpr, std::move(selected), std::move(ndle));
    return view ? result : quad_copy(result.get());
}

PyObject *getitem(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"__getitem__", {"obj"}, 1};
        Arguments given(signature, 1, args, nargs, kwnames);
        return select(self, given[0]);
    });
}

Ref iterate(PyObject *self) {
    if (quad_shape_of(self).empty())
        fail(PyExc_TypeError, "iteration over a 0-d array");
    return check(PySeqIter_New(self));
}

// ---- printing -----------------------------------------------------------------------------------------------------

const char *marker(PyObject *expr) {
    if (!is_compact_quad(expr))
        return "";
    Py_ssize_t parts = number_of_quad_parts(expr);
    return parts == 0 ? " " : parts == 1 ? "  " : "   ";
}

Ref repr_of(PyObject *self) {
    const char *parts = marker(self);
    if (is_compact_quad(self))
        merge_quad_parts(self); // printing reads the full value, which joins the parts
    Ref text = printed_elements(whole_elements(self));
    Ref shape = check(PyObject_GetAttr(self, names.shape));
    return check(PyUnicode_FromFormat("<MQuadExpr %S%s>\n%U)", shape.get(), parts, text.get()));
}

// ---- members ------------------------------------------------------------------------------------------------------

std::span<Member> constructor_members() {
    static Member members[] = {
        method("__init__", init,
               "__init__($self, qearr=None, quadparts=None, ndle=None)\n--\n\nWraps an array of QuadExpr, or a list of "
               "parts (x, Q, y), without copying; ndle is the\nMLinExpr with the linear part. AssertionError for what "
               "does not fit together."),
        class_method("zeros", zeros,
                     "zeros($type, shape)\n--\n\nThe all-zero expression of a shape (an int or a tuple)."),
        class_method("_zeros_full", zeros_full,
                     "_zeros_full($type, shape)\n--\n\nA full expression of empty QuadExpr."),
        class_method("_from_mvar_times_mvar", from_mvars,
                     "_from_mvar_times_mvar($type, mvar_left, mvar_right, force_full=False)\n--\n\nThe element-wise "
                     "product of two MVar, by NumPy's broadcasting."),
        class_method("_from_quad_expr", from_quad_expr,
                     "_from_quad_expr($type, qe)\n--\n\nA copy of a QuadExpr as a 0-dimensional expression."),
        class_method("_from_mlinexpr", from_mlinexpr,
                     "_from_mlinexpr($type, ndle, force_full=False)\n--\n\nA copy of an MLinExpr as a quadratic "
                     "expression."),
        static_method("_allows_compact", allows_compact_method,
                      "_allows_compact(shape)\n--\n\nFewer than three dimensions, every extent at most 1."),
    };
    return members;
}

std::span<Member> structure_members() {
    static Member members[] = {
        method("_add_quadpart", add_quadpart_method,
               "_add_quadpart($self, x, Q, y)\n--\n\nAppends one part; Q is not copied where it is a float64 "
               "coo_matrix."),
        plain<"_concat_quadparts", concat_quadparts>(
            "_concat_quadparts($self)\n--\n\nJoins all parts into one, block-diagonal."),
        plain<"_extract_xQy", extract_xQy>(
            "_extract_xQy($self)\n--\n\nThe parts joined into one (x, Q, y); (None, None, None) without parts."),
        plain<"_extract_quadexpr", extract_quadexpr>(
            "_extract_quadexpr($self)\n--\n\nA new QuadExpr equal to the sum of the parts, which are joined."),
        plain<"copy", quad_copy>("copy($self)\n--\n\nAn independent expression of the same shape, value and state."),
        plain<"_copy_compact", quad_copy_compact>("_copy_compact($self)\n--\n\nA compact copy with at most one part."),
        plain<"_copy_full", quad_copy_full>("_copy_full($self)\n--\n\nA full copy of a full expression."),
        plain<"_copy_quadparts", copy_quadparts>(
            "_copy_quadparts($self)\n--\n\nA list of copied parts, at most one: they are joined first."),
        plain<"item", item_of>(
            "item($self)\n--\n\nThe single element, linear part included, as a new QuadExpr. ValueError for another "
            "size."),
        method(
            "__getitem__", getitem,
            "__getitem__($self, obj)\n--\n\nNumPy's indexing; slices share their elements, index arrays give copies. "
            "Brings the\nexpression to the full state."),
        plain<"__iter__", iterate>("__iter__($self)\n--\n\nOver the first axis."),
        plain<"__repr__", repr_of>("__repr__($self)\n--\n\nShape, and every element as text."),
    };
    return members;
}

constexpr const char *class_doc =
    "Array of quadratic expressions over variables, with the meaning of NumPy's arrays.\n\n"
    "Products of MVar and MLinExpr objects give such expressions; model.addConstr takes their comparisons,\n"
    "model.setObjective those of one element.";

} // namespace

Ref build_mquadexpr_class() {
    Ref dict = new_namespace("tarvopy._matrixapi", "MQuadExpr", class_doc);
    for (auto members : {constructor_members(), structure_members(), quad_state_members(), quad_value_members(),
                         quad_assign_members(), quadfun_members(), quad_operator_members(), quad_worker_members()})
        add_members(dict.get(), matrix_base, members);
    Ref priority = check(PyLong_FromLong(100)), one = check(PyLong_FromLong(1));
    check_status(PyDict_SetItemString(dict.get(), "__array_priority__", priority.get()));
    check_status(PyDict_SetItem(dict.get(), names._keep_compact, one.get()));
    Ref cls = build_class("MQuadExpr", matrix_base, dict.get());
    mod.MQuadExpr = Ref(cls).release();
    return cls;
}

} // namespace tarvopy
