// The class MNLExpr: constructors, element access, values and printing.
//
//   nlfunc.exp(x)[1:]        flat, another layout over the same block
//   e[i]                     0-dimensional, the same element
//   e[[2, 0, 2]]             copies of elements, independent of e
//   e.item()                 a copy of the single NLExpr
#include "matrixapi/mnlexpr.h"
#include "matrixapi/handle_index.h"
#include "matrixapi/methods.h"
#include "matrixapi/mlinexpr_operators.h"
#include "matrixapi/printing.h"

namespace tarvopy {

using namespace pysupport;

namespace {

// ---- constructors ---------------------------------------------------------------------------------------------------

PyObject *init(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"__init__", {"nlearr"}, 1};
        Arguments given(signature, 1, args, nargs, kwnames);
        need_numpy();
        check_status(PyObject_SetAttr(self, names._nlearr, given[0]));
        return Ref::none();
    });
}

Ref from_operand(PyObject *cls, PyObject *object) {
    NodeView view;
    flat::Shape shape;
    nonlinear_operand(object, kind_of(object), view, shape);
    return make_mnlexpr(cls, node_of(view, shape));
}

bool is_matrix_operand(Operand kind) {
    return kind == Operand::Array || kind == Operand::MVar || kind == Operand::MLinExpr || kind == Operand::MQuadExpr ||
           kind == Operand::MNLExpr;
}

void need_matrix_operand(PyObject *object) {
    if (is_matrix_operand(kind_of(object)))
        return;
    Ref text = text_of(object);
    fail(PyExc_TypeError, "Unsupported operand '%U'", text.get());
}

Ref from_ndarray(PyObject *cls, PyObject *object) {
    if (is_array(object))
        return from_operand(cls, object);
    Ref array = check(PyArray_FromAny(object, nullptr, 0, 0, 0, nullptr));
    return from_operand(cls, array.get());
}

Ref from_mvar(PyObject *cls, PyObject *object) {
    if (!is_mvar(object))
        fail(PyExc_TypeError, "expected an MVar, not '%.200s'", Py_TYPE(object)->tp_name);
    return from_operand(cls, object);
}

Ref from_matrix(PyObject *cls, PyObject *object) {
    need_matrix_operand(object);
    return from_operand(cls, object);
}

template <Text name, Ref (*work)(PyObject *cls, PyObject *object)>
PyObject *construction(PyObject *cls, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature(name.chars, {"fromobj"}, 1);
        Arguments given(signature, 1, args, nargs, kwnames);
        need_numpy();
        return work(cls, given[0]);
    });
}

PyObject *coerce(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_coerce_to_exprtree_array", {"value"}, 1};
        Arguments given(signature, 0, args, nargs, kwnames);
        need_matrix_operand(given[0]);
        NodeView view;
        flat::Shape shape;
        nonlinear_operand(given[0], kind_of(given[0]), view, shape);
        return tree_array(view, shape);
    });
}

// ---- structure ------------------------------------------------------------------------------------------------------

PyObject *get_shape(PyObject *self, void *) {
    return border([&] {
        if (NonlinearNative *native = nonlinear_of(self))
            return shape_tuple(native->shape());
        return check(PyObject_GetAttr(nlearr(self).get(), names.shape));
    });
}

PyObject *get_ndim(PyObject *self, void *) {
    return border([&] {
        if (NonlinearNative *native = nonlinear_of(self))
            return check(PyLong_FromLong(native->layout.ndim()));
        return check(PyObject_GetAttr(nlearr(self).get(), names.ndim));
    });
}

PyObject *get_size(PyObject *self, void *) {
    return border([&] {
        if (NonlinearNative *native = nonlinear_of(self))
            return check(PyLong_FromSsize_t(native->layout.size()));
        return check(PyObject_GetAttr(nlearr(self).get(), names.size));
    });
}

Ref iterate(PyObject *self) {
    if (nonlinear_shape_of(self).empty())
        fail(PyExc_TypeError, "iteration over a 0-d array");
    return check(PySeqIter_New(self)); // asks __getitem__ for 0, 1, ... until IndexError
}

// ---- indexing -------------------------------------------------------------------------------------------------------

// The places of a layout's elements in their block, as an array that NumPy can index. What it is made of is kept, so
// that many small selections of a large array cost what they select.
Ref place_array(NLBlock &block, const Layout &layout) {
    if (!block.places)
        block.places = check(PyArray_Arange(0, static_cast<double>(block.size), 1, NPY_INT64));
    return strided_array(NPY_INT64, layout, PyArray_BYTES(as_array(block.places)), block.places);
}

// The layout of a view that NumPy made of place_array's, which begin at `start`.
Layout layout_of(PyArrayObject *view, const char *start) {
    constexpr npy_intp item = sizeof(int64_t);
    Layout layout(PyArray_NDIM(view));
    for (int d = 0; d < layout.ndim(); ++d) {
        layout.shape()[d] = PyArray_DIM(view, d);
        layout.strides()[d] = PyArray_STRIDE(view, d) / item;
    }
    layout.offset = (PyArray_BYTES(view) - start) / item;
    return layout;
}

Ref copied_elements(const NLBlock &block, const Ref &places) {
    Ref ordered = check(PyArray_FROMANY(places.get(), NPY_INT64, 0, 0, NPY_ARRAY_CARRAY_RO | NPY_ARRAY_ENSUREARRAY));
    flat::Shape shape = shape_of_array(ordered.get());
    if (block.objects) {
        Ref elements = check(PyArray_Ravel(as_array(block.objects), NPY_CORDER));
        Ref selected = check(PyObject_GetItem(elements.get(), ordered.get()));
        return make_mnlexpr(mod.MNLExpr, trees_node(roots_of(selected.get()), std::move(shape)));
    }
    auto source =
        flat::Buffer<int64_t>::copy_of(static_cast<int64_t *>(PyArray_DATA(as_array(ordered))), flat::size_of(shape));
    return make_mnlexpr(mod.MNLExpr, picked_node(std::move(shape), std::move(source), {block.node}));
}

// Indexing the places instead of the elements, once: a key may be an object of any kind, and running its code may make
// the objects.
Ref select_by_numpy(const NonlinearNative &native, PyObject *key) {
    std::shared_ptr<NLBlock> block = native.block;
    Ref all = place_array(*block, native.layout), base = block->places;
    Ref selected = check(PyObject_GetItem(all.get(), key));
    if (!PyArray_Check(selected.get())) {
        Layout element(0);
        element.offset = check_value(PyNumber_AsSsize_t(selected.get(), nullptr));
        return part_of(block, std::move(element), true);
    }
    PyArrayObject *places = as_array(selected);
    const char *start = PyArray_BYTES(as_array(base)), *data = PyArray_BYTES(places);
    bool view = PyArray_SIZE(places) > 0 && data >= start && data < start + PyArray_NBYTES(as_array(base));
    return view ? part_of(block, layout_of(places, start), false) : copied_elements(*block, selected);
}

bool shares_memory(PyObject *selected, PyObject *source) {
    Ref shared = check(PyObject_CallMethod(numpy_module(), "may_share_memory", "OO", selected, source));
    return check_status(PyObject_IsTrue(shared.get())) != 0;
}

Ref select_objects(PyObject *self, PyObject *key) {
    Ref elements = nlearr(self), selected = check(PyObject_GetItem(elements.get(), key));
    if (PyObject_TypeCheck(selected.get(), mod.core->NLExpr))
        return wrap_nlexprs(mod.MNLExpr, object_scalar(selected.get()));
    if (!is_array(selected.get()) || !is_array(elements.get()) || shares_memory(selected.get(), elements.get()))
        return wrap_nlexprs(mod.MNLExpr, std::move(selected));
    flat::Shape shape = shape_of_array(selected.get());
    return make_mnlexpr(mod.MNLExpr, trees_node(roots_of(selected.get()), std::move(shape)));
}

Ref select(PyObject *self, PyObject *key) {
    need_numpy();
    if (NonlinearNative *native = nonlinear_of(self)) {
        Layout part;
        bool element = false;
        if (basic_cut(native->layout, key, part, element))
            return part_of(native->block, std::move(part), element);
        return select_by_numpy(*native, key);
    }
    return select_objects(self, key);
}

// ---- copies ---------------------------------------------------------------------------------------------------------

Ref single_tree(const NonlinearNative &native) {
    NodeView view = native.view();
    if (flat::size_of(native.shape()) != 1)
        fail(PyExc_ValueError, "can only convert an array of size 1 to a Python scalar");
    Ref trees = view_trees(view, native.shape());
    return Ref::borrow(*static_cast<PyObject **>(PyArray_DATA(as_array(trees))));
}

Ref item_of(PyObject *self) {
    need_numpy();
    if (NonlinearNative *native = nonlinear_of(self))
        return check(mod.core->nlexpr_new(single_tree(*native).get()));
    Ref element = check(PyObject_CallMethodNoArgs(nlearr(self).get(), names.item));
    return check(PyObject_CallMethodNoArgs(element.get(), names.copy));
}

Ref copy_of_expr(PyObject *self) {
    return from_operand(mod.MNLExpr, self);
}

// ---- values ---------------------------------------------------------------------------------------------------------

double tree_value(PyObject *tree) {
    double value = 0.0;
    check_status(mod.core->tree_value(tree, &value));
    return value;
}

// A few elements of a large node: their trees are kept, so that a loop over all elements stays linear.
bool is_small_part(const NodeView &view, const flat::Shape &shape) {
    return flat::size_of(shape) < view.node->size / 4;
}

Ref values_of_view(const NodeView &view, const flat::Shape &shape) {
    if (!is_small_part(view, shape))
        return node_values(node_of(view, shape));
    Ref values = float_array(shape), trees = view_trees(view, shape);
    auto *to = static_cast<double *>(PyArray_DATA(as_array(values)));
    for (int64_t i = 0; i < flat::size_of(shape); ++i)
        to[i] = tree_value(static_cast<PyObject **>(PyArray_DATA(as_array(trees)))[i]);
    return values;
}

Ref value_of(PyObject *self) {
    need_numpy();
    if (NonlinearNative *native = nonlinear_of(self))
        return values_of_view(native->view(), native->shape());
    Ref array = nlearr(self), trees = roots_of(array.get()), values = float_array(shape_of_array(array.get()));
    auto *to = static_cast<double *>(PyArray_DATA(as_array(values)));
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(trees)); ++i)
        to[i] = tree_value(static_cast<PyObject **>(PyArray_DATA(as_array(trees)))[i]);
    return values;
}

// ---- printing -------------------------------------------------------------------------------------------------------

// Objects that are made for the text are gone with it.
Ref elements_to_print(PyObject *self) {
    NonlinearNative *native = nonlinear_of(self);
    if (!native)
        return nlearr(self);
    NodeView view = native->view();
    flat::Shape shape = native->shape();
    return nlexpr_array(tree_array(view, shape), shape);
}

Ref repr_of(PyObject *self) {
    need_numpy();
    Ref text = printed_elements(elements_to_print(self));
    Ref shape = check(PyObject_GetAttr(self, names.shape));
    return check(PyUnicode_FromFormat("<MNLExpr %S>\n%U)", shape.get(), text.get()));
}

// ---- members --------------------------------------------------------------------------------------------------------

Member own_members[] = {
    method("__init__", init, "__init__($self, nlearr)\n--\n\nWraps an object array of NLExpr, without copying it."),
    static_method("_coerce_to_exprtree_array", coerce,
                  "_coerce_to_exprtree_array(value)\n--\n\nThe trees of an array's elements, an object array of its "
                  "shape. TypeError for anything but an\narray of numbers, variables or expressions."),
    class_method("_from_ndarray", construction<"_from_ndarray", from_ndarray>,
                 "_from_ndarray($type, fromobj)\n--\n\nThe numbers of an array as expressions."),
    class_method("_from_mvar", construction<"_from_mvar", from_mvar>,
                 "_from_mvar($type, fromobj)\n--\n\nThe variables of an MVar as expressions."),
    class_method("_from_mlinexpr", construction<"_from_mlinexpr", from_matrix>,
                 "_from_mlinexpr($type, fromobj)\n--\n\nThe elements of an MLinExpr as nonlinear expressions."),
    class_method("_from_mquadexpr", construction<"_from_mquadexpr", from_matrix>,
                 "_from_mquadexpr($type, fromobj)\n--\n\nThe elements of an MQuadExpr as nonlinear expressions."),
    property("shape", get_shape, "Extents of all axes, a tuple."),
    property("ndim", get_ndim, "Number of axes."),
    property("size", get_size, "Number of elements."),
    plain<"__repr__", repr_of>("__repr__($self)\n--\n\nShape, and every element as text."),
    taking<"__getitem__", select, "obj">(
        "__getitem__($self, obj)\n--\n\nNumPy's indexing; single elements and slices share their elements, index "
        "arrays give copies."),
    plain<"__iter__", iterate>("__iter__($self)\n--\n\nOver the first axis."),
    plain<"item", item_of>("item($self)\n--\n\nA copy of the single element, an NLExpr. ValueError for another size."),
    plain<"copy", copy_of_expr>("copy($self)\n--\n\nAn independent expression of the same shape and value."),
    plain<"getValue", value_of>(
        "getValue($self)\n--\n\nThe value in the last solution, a float64 array of this shape; outside a function's "
        "domain NaN or\ninfinite. NoDataError without a solution."),
};

constexpr const char *class_doc = R"(
    Matrix nonlinear expression handle, acting as an array of NLExpr objects.
    You create such objects through operations with MVar objects (add,
    multiply, matrix multiply, divide, power, etc) or by applying nonlinear
    functions from the nlfunc module.

    Many concepts, properties and methods of the MNLExpr class lean on
    equivalents in NumPy's ndarray class.  For explanations of concepts like
    shape, dimensions, or broadcasting, we refer you to the NumPy
    documentation.
    )";

} // namespace

Ref build_mnlexpr_class() {
    Ref space = new_namespace("tarvopy._matrixapi", "MNLExpr", class_doc);
    for (auto members : {std::span<Member>(own_members), nonlinear_state_members(), nonlinear_assign_members(),
                         nonlinear_operator_members(), nonlinear_product_members()})
        add_members(space.get(), matrix_base, members);
    Ref priority = check(PyLong_FromLong(100));
    check_status(PyDict_SetItemString(space.get(), "__array_priority__", priority.get()));
    Ref cls = build_class("MNLExpr", matrix_base, space.get());
    mod.MNLExpr = Ref(cls).release();
    return cls;
}

} // namespace tarvopy
