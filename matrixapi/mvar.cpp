// MVar, n-dimensional arrays of variables: construction, structure, indexing, sums and text. Operators stand in
// mvar_operators.cpp.
//
//   x = m.addMVar((3, 4))        ids 0 .. 11; no Var exists
//   x[1:, 2], x.T, x.reshape(-1) views of the same ids
//   x[[0, 2]], x.copy()          ids of their own
//   x[0, 1].item()               the Var
#include "matrixapi/mvar.h"
#include "matrixapi/axes.h"

#include "matrixapi/handle.h"
#include "matrixapi/handle_index.h"
#include "matrixapi/mlinexpr.h"
#include "matrixapi/mvar_operators.h"
#include "matrixapi/printing.h"

#include "pysupport/args.h"
#include "pysupport/sparse.h"

#include <algorithm>

namespace tarvopy {

using namespace pysupport;

const HandleClass mvar_handle = {
    TRV_VAR, "MVar", "Var", &Names::_vararr, &Names::_colno, &CoreApi::Var, &Collaborators::MVar, "Var",
    "Var",   false,  true};

PyTypeObject *mvar_class = nullptr;

// ---- what the other files ask

bool mvar_ids(PyObject *mvar, VarIds &out) {
    return handle_ids(mvar, mvar_handle, out.ids, out.shape, out.model);
}

flat::Shape mvar_shape(PyObject *mvar) {
    return handle_shape(mvar, mvar_handle);
}

Ref vararr_of(PyObject *mvar) {
    Ref array = object_array(mvar, mvar_handle);
    if (!PyArray_Check(array.get()))
        fail(PyExc_TypeError, "_vararr is no array but a '%.200s'", Py_TYPE(array.get())->tp_name);
    return array;
}

Ref new_mvar(PyObject *cls, PyObject *model, PyObject *int32_array) {
    need_numpy();
    Ref ids = check(PyArray_FromAny(int32_array, PyArray_DescrFromType(NPY_INT32), 0, 0, NPY_ARRAY_CARRAY_RO, nullptr));
    PyArrayObject *array = as_array(ids);
    auto buffer =
        flat::Buffer<int32_t>::copy_of(static_cast<const int32_t *>(PyArray_DATA(array)), PyArray_SIZE(array));
    return new_handle(mvar_handle, cls, Ref::borrow(model), BlockRef(std::move(buffer)),
                      Layout::contiguous(PyArray_NDIM(array), PyArray_DIMS(array)));
}

Ref new_mvar_vector(PyObject *model, flat::Buffer<int32_t> ids) {
    npy_intp n = ids.size();
    return new_handle(mvar_handle, Ref::borrow(model), std::move(ids), 1, &n);
}

Ref new_mvar(PyObject *model, flat::Buffer<int32_t> ids, const flat::Shape &shape) {
    return new_handle(mvar_handle, Ref::borrow(model), std::move(ids), static_cast<int>(shape.size()), shape.data());
}

Ref wrap_mvar(PyObject *object) {
    return wrap_objects(mvar_handle, object);
}

// ---- construction

namespace {

// numpy.require(object, "O", "W").
Ref required_array(PyObject *object) {
    need_numpy();
    Ref array = check(PyArray_FromAny(object, PyArray_DescrFromType(NPY_OBJECT), 0, 0, NPY_ARRAY_ENSUREARRAY, nullptr));
    if (PyArray_ISWRITEABLE(as_array(array)))
        return array;
    return check(PyArray_NewCopy(as_array(array), NPY_ANYORDER));
}

PyObject *mvar_init(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"__init__", {"arr"}, 1};
        Arguments given(signature, 1, args, nargs, kwnames);
        adopt_array(self, mvar_handle, required_array(given[0]));
        return Ref::none();
    });
}

// numpy.fromiter(iterable, "O", len(iterable)): as many items as the length says, whatever the iterator would give.
Ref array_of_items(PyObject *iterable) {
    npy_intp n = check_value(PyObject_Size(iterable));
    Ref array = check(PyArray_SimpleNew(1, &n, NPY_OBJECT));
    auto **slots = static_cast<PyObject **>(PyArray_DATA(as_array(array)));
    Ref items = check(PyObject_GetIter(iterable));
    for (npy_intp i = 0; i < n; ++i) {
        Ref item = Ref::steal(PyIter_Next(items.get()));
        if (!item && PyErr_Occurred())
            throw PythonError{};
        if (!item)
            fail(PyExc_ValueError, "iterator too short: Expected %zd but iterator had only %zd items.",
                 static_cast<Py_ssize_t>(n), static_cast<Py_ssize_t>(i));
        Py_XSETREF(slots[i], item.release());
    }
    return array;
}

[[noreturn]] void fail_not_a_var(PyObject *element) {
    Ref text = text_of(element);
    fail(PyExc_ValueError, "MVar.fromlist expects a list of Vars, '%U' is not valid input", text.get());
}

PyObject *mvar_fromlist(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"fromlist", {"varlist"}, 1};
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        Ref array = array_of_items(given[0]);
        auto **slots = static_cast<PyObject **>(PyArray_DATA(as_array(array)));
        for (npy_intp i = 0; i < PyArray_SIZE(as_array(array)); ++i)
            if (!PyObject_TypeCheck(slots[i], mod.core->Var))
                fail_not_a_var(slots[i]);
        return wrap_mvar(array.get());
    });
}

PyObject *mvar_fromvar(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"fromvar", {"var"}, 1};
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        return wrap_mvar(
            check(PyArray_FromAny(given[0], PyArray_DescrFromType(NPY_OBJECT), 0, 0, NPY_ARRAY_ENSURECOPY, nullptr))
                .get());
    });
}

// ---- structure

Ref wrap_structure(const Elements &source, const Ref &result) {
    return source.flat ? handle_from_ids(source, mvar_handle, result) : wrap_mvar(result.get());
}

// A method of the element array with the caller's own arguments.
PyObject *structural(PyObject *self, PyObject *method, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        for (Py_ssize_t i = 0; i < nargs; ++i)
            refuse_sparse(args[i], "extents and axes are ints or one tuple of them");
        Elements source = elements_of(self, mvar_handle);
        Ref function = check(PyObject_GetAttr(source.array.get(), method));
        return wrap_structure(source,
                              check(PyObject_Vectorcall(function.get(), args, static_cast<size_t>(nargs), kwnames)));
    });
}

PyObject *mvar_copy(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"copy", {}, 0};
        Arguments(signature, 1, args, nargs, kwnames);
        return Ref::steal(structural(self, names.copy, nullptr, 0, nullptr));
    });
}

void refuse_keywords(const char *function, PyObject *kwnames, PyObject *but = nullptr) {
    for (Py_ssize_t i = 0; kwnames && i < PyTuple_GET_SIZE(kwnames); ++i) {
        PyObject *keyword = PyTuple_GET_ITEM(kwnames, i);
        if (!but || check_status(PyObject_RichCompareBool(keyword, but, Py_NE)))
            fail(PyExc_TypeError, "%.200s() got an unexpected keyword argument '%U'", function, keyword);
    }
}

PyObject *mvar_transpose(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        refuse_keywords("transpose", kwnames);
        return Ref::steal(structural(self, names.transpose, args, nargs, nullptr));
    });
}

PyObject *mvar_T(PyObject *self, void *) {
    return structural(self, names.transpose, nullptr, 0, nullptr);
}

PyObject *mvar_reshape(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        refuse_keywords("reshape", kwnames, names.order);
        return Ref::steal(structural(self, names.reshape, args, nargs, kwnames));
    });
}

PyObject *mvar_diagonal(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"diagonal", {"offset", "axis1", "axis2"}, 0};
        Arguments given(signature, 1, args, nargs, kwnames);
        Ref zero = check(PyLong_FromLong(0)), one = check(PyLong_FromLong(1));
        PyObject *values[] = {given.get(0, zero.get()), given.get(1, zero.get()), given.get(2, one.get())};
        return Ref::steal(structural(self, names.diagonal, values, 3, nullptr));
    });
}

PyObject *mvar_squeeze(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_squeeze", {"axis"}, 0};
        Arguments given(signature, 1, args, nargs, kwnames);
        PyObject *axis = given.get(0, Py_None);
        return Ref::steal(structural(self, names.squeeze, &axis, 1, nullptr));
    });
}

// ---- indexing

// An element found in an object array becomes a 0-dimensional array; a part of the array stays what it is.
Ref wrap_indexed(const Ref &result) {
    if (!PyObject_TypeCheck(result.get(), mod.core->Var))
        return wrap_mvar(result.get());
    return wrap_mvar(
        check(PyArray_FromAny(result.get(), PyArray_DescrFromType(NPY_OBJECT), 0, 0, NPY_ARRAY_DEFAULT, nullptr))
            .get());
}

PyObject *mvar_getitem(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        PyObject *key;
        if (nargs == 1 && !kwnames) {
            key = args[0];
        } else {
            static const Signature signature{"__getitem__", {"obj"}, 1};
            key = Arguments(signature, 1, args, nargs, kwnames)[0];
        }
        if (IdsNative *native = ids_of(self, mvar_handle))
            if (Ref part = basic_index(*native, key))
                return part;
        Elements source = elements_of(self, mvar_handle);
        Ref result = check(PyObject_GetItem(source.array.get(), key));
        return source.flat ? handle_from_ids(source, mvar_handle, result) : wrap_indexed(result);
    });
}

// ---- text

// NumPy's text of an object array without the dtype at its end.
Ref array_text(PyObject *array) {
    Ref text = check(PyObject_Repr(array));
    Py_ssize_t comma = PyUnicode_FindChar(text.get(), ',', 0, PyUnicode_GET_LENGTH(text.get()), -1);
    if (comma == -2)
        throw PythonError{};
    // Without a comma (-1) the last character goes, as slicing with -1 does.
    Py_ssize_t end = comma >= 0 ? comma : PyUnicode_GET_LENGTH(text.get()) - 1;
    return check(PyUnicode_Substring(text.get(), 0, std::max<Py_ssize_t>(end, 0)));
}

PyObject *mvar_repr(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"__repr__", {}, 0};
        Arguments(signature, 1, args, nargs, kwnames);
        Ref shape = check(PyObject_GetAttr(self, names.shape));
        IndexMarks marks = index_marks(self, mvar_handle);
        Ref body = array_text(element_array(self, mvar_handle).get());
        return check(PyUnicode_FromFormat("<MVar %S%s%s>\n%U)", shape.get(), marks.pending ? " *awaiting update*" : "",
                                          marks.removed ? " (some removed)" : "", body.get()));
    });
}

// ---- sums and data

[[noreturn]] void fail_changed_shape() {
    fail(PyExc_RuntimeError, "the variables changed their shape while they were summed");
}

// Elements of several models: one LinExpr a cell, one term a variable, in C order.
Ref sum_objects(PyObject *self, const flat::Shape &shape, const std::vector<int> &axes) {
    flat::Shape kept = kept_shape(shape, axes);
    Ref cells = check(PyArray_SimpleNew(static_cast<int>(kept.size()), kept.data(), NPY_OBJECT));
    auto **slots = static_cast<PyObject **>(PyArray_DATA(as_array(cells)));
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(cells)); ++i)
        slots[i] = check(mod.core->linexpr_new(0.0)).release();
    Ref elements = check(PySequence_List(check(PyObject_GetAttr(vararr_of(self).get(), names.flat)).get()));
    std::vector<int64_t> places = places_of_sums(shape, axes);
    if (static_cast<size_t>(PyList_GET_SIZE(elements.get())) != places.size())
        fail_changed_shape();
    for (size_t i = 0; i < places.size(); ++i) {
        PyObject *variable = PyList_GET_ITEM(elements.get(), static_cast<Py_ssize_t>(i));
        if (!PyObject_TypeCheck(variable, mod.core->Var))
            fail(PyExc_TypeError, "MVar.sum expects Var elements, not '%.200s'", Py_TYPE(variable)->tp_name);
        check_status(mod.core->linexpr_add(slots[places[i]], variable, 1.0));
    }
    return make_objects(mod.MLinExpr, cells);
}

PyObject *mvar_sum(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"sum", {"axis"}, 0};
        Arguments given(signature, 1, args, nargs, kwnames);
        int ndim = static_cast<int>(mvar_shape(self).size());
        std::vector<int> axes = result_axes(given.get(0, Py_None), ndim);
        VarIds vars;
        bool flat_ids = mvar_ids(self, vars);
        flat::Shape shape = flat_ids ? vars.shape : mvar_shape(self);
        if (shape.size() != axes.size())
            fail_changed_shape();
        if (!flat_ids)
            return sum_objects(self, shape, axes);
        flat::Form form;
        form.shape = shape;
        form.size = flat::size_of(shape);
        form.summands.push_back(flat::single(vars.ids));
        return make_flat(mod.MLinExpr, flat::summed(form, axes), vars.model);
    });
}

PyObject *mvar_indexed_data(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_indexed_data", {"a", "dtype"}, 2};
        Arguments given(signature, 1, args, nargs, kwnames);
        PyArray_Descr *dtype = nullptr;
        need_numpy();
        if (PyArray_DescrConverter(given[1], &dtype) == NPY_FAIL)
            throw PythonError{};
        Ref held = Ref::borrow(reinterpret_cast<PyObject *>(dtype)); // FromAny below takes the converter's reference
        Ref data = check(PyArray_FromAny(given[0], dtype, 0, 0, NPY_ARRAY_ENSURECOPY | NPY_ARRAY_FORCECAST, nullptr));
        Ref indices = index_array(self, mvar_handle);
        Ref out = check(PyArray_NewLikeArray(as_array(indices), NPY_KEEPORDER,
                                             reinterpret_cast<PyArray_Descr *>(held.release()), 0));
        Ref picked = check(PyObject_GetItem(data.get(), indices.get()));
        check_status(PyArray_CopyAnyInto(as_array(out), as_array(picked)));
        return out;
    });
}

PyObject *mvar_toexpr(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_toexpr", {}, 0};
        Arguments(signature, 1, args, nargs, kwnames);
        return linear_form(self);
    });
}

PyObject *mvar_nl(PyObject *self, void *) {
    return border([&] { return nonlinear_form(self); });
}

// ---- the class

constexpr const char *mvar_doc = "\n    Matrix variable handle, acting as an array of Var objects.\n"
                                 "    You create such objects through Model.addMVar() or MVar.fromlist().\n\n"
                                 "    Many concepts, properties and methods of the MVar class lean on equivalents\n"
                                 "    in NumPy's ndarray class.  For explanations of concepts like shape,\n"
                                 "    dimensions, or broadcasting, we refer you to the NumPy documentation.\n    ";

Member members[] = {
    method("__init__", mvar_init,
           "__init__($self, arr)\n--\n\nWraps anything that NumPy can turn into an array of objects."),
    static_method("fromlist", mvar_fromlist,
                  "fromlist(varlist)\n--\n\nA vector of the given Vars; ValueError for anything else in the list."),
    static_method("fromvar", mvar_fromvar, "fromvar(var)\n--\n\nA 0-dimensional MVar of one Var."),
    method("copy", mvar_copy, "copy($self)\n--\n\nA handle of its own over the same variables; no variable is added."),
    method("transpose", mvar_transpose,
           "transpose($self, *axes)\n--\n\nPermutes the axes, as numpy.ndarray.transpose; none given: reverses them."),
    property("T", mvar_T, "The handle with its axes reversed."),
    method("reshape", mvar_reshape,
           "reshape($self, *shape, order='C')\n--\n\nGives a new shape, as numpy.ndarray.reshape; ints or one tuple, "
           "one extent may be -1."),
    method("diagonal", mvar_diagonal,
           "diagonal($self, offset=0, axis1=0, axis2=1)\n--\n\nA diagonal, as numpy.ndarray.diagonal."),
    method("_squeeze", mvar_squeeze, "_squeeze($self, axis=None)\n--\n\nWithout axes of extent 1."),
    method("__getitem__", mvar_getitem, "__getitem__($self, obj)\n--\n\nA part, by any NumPy index; always an MVar."),
    method("__repr__", mvar_repr, "__repr__($self)\n--\n\nShape, state in the model, and the variables."),
    method("sum", mvar_sum,
           "sum($self, axis=None)\n--\n\nSum over the given axes (None: all), an MLinExpr; TarvoError for an axis out "
           "of range."),
    method("_indexed_data", mvar_indexed_data,
           "_indexed_data($self, a, dtype)\n--\n\nThis handle's entries of a vector over the whole model."),
    method("_toexpr", mvar_toexpr, "_toexpr($self)\n--\n\nThe linear expression 1.0 * self."),
    property("nl", mvar_nl, "The variables as a nonlinear expression, an MNLExpr of the same shape."),
};

} // namespace

Ref build_mvar_class() {
    Ref space = new_namespace("tarvopy._matrixapi", "MVar", mvar_doc);
    add_handle_members<mvar_handle>(space.get());
    add_members(space.get(), matrix_base, members);
    add_mvar_operators(space.get());
    Ref priority = check(PyLong_FromLong(100));
    check_status(PyDict_SetItemString(space.get(), "__array_priority__", priority.get()));
    Ref cls = build_class("MVar", matrix_base, space.get());
    mvar_class = cls.as<PyTypeObject>();
    mod.MVar = Ref(cls).release();
    return cls;
}

} // namespace tarvopy
