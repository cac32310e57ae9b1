// The members that all matrix handles have in common, made once for each class from its description.
#include "matrixapi/handle.h"

#include "pysupport/args.h"

namespace tarvopy {

using namespace pysupport;

namespace {

Ref dimensions(const Layout &layout) {
    Ref tuple = check(PyTuple_New(layout.ndim()));
    for (int d = 0; d < layout.ndim(); ++d)
        PyTuple_SET_ITEM(tuple.get(), d, check(PyLong_FromSsize_t(layout.shape()[d])).release());
    return tuple;
}

// ---- the stored attributes as ordinary ones

Ref stored_or_error(PyObject *self, PyObject *name) {
    PyObject *value = stored(self, name);
    if (!value)
        fail(PyExc_AttributeError, "'%.100s' object has no attribute '%U'", Py_TYPE(self)->tp_name, name);
    return Ref::borrow(value);
}

void delete_stored(PyObject *self, PyObject *name) {
    stored_or_error(self, name);
    check_status(PyDict_DelItem(instance_dict(self), name));
}

template <const HandleClass &of> Ref make(PyObject *self) {
    if (auto *native = static_cast<IdsNative *>(native_of(self, Native::Ids)); native && &native->of == &of)
        make_handle_objects(self, of);
    return Ref();
}

template <const HandleClass &of> PyObject *get_array(PyObject *self, void *) {
    return border([&] {
        make<of>(self);
        return stored_or_error(self, of.array_name());
    });
}

// The ids go, the model stays.
template <const HandleClass &of> int set_array(PyObject *self, PyObject *value, void *) {
    return border_status([&] {
        auto *native = static_cast<IdsNative *>(native_of(self, Native::Ids));
        if (native && &native->of == &of) {
            replace_handle_objects(self, of, value);
        } else if (value) {
            store(self, of.array_name(), value);
        } else {
            delete_stored(self, of.array_name());
        }
    });
}

template <const HandleClass &of> PyObject *get_model(PyObject *self, void *) {
    return border([&] {
        auto *native = static_cast<IdsNative *>(native_of(self, Native::Ids));
        if (native && &native->of == &of)
            return native->model ? native->model : Ref::none();
        return stored_or_error(self, names._cmodel);
    });
}

template <const HandleClass &of> int set_model(PyObject *self, PyObject *value, void *) {
    return border_status([&] {
        make<of>(self);
        if (value)
            store(self, names._cmodel, value);
        else
            delete_stored(self, names._cmodel);
    });
}

template <const HandleClass &of> PyObject *get_dict(PyObject *self, void *) {
    return border([&] {
        make<of>(self);
        return Ref::borrow(instance_dict(self));
    });
}

template <const HandleClass &of> int set_dict(PyObject *self, PyObject *value, void *) {
    return border_status([&] { replace_dict(self, value); });
}

template <const HandleClass &of>
PyObject *get_state(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"__getstate__", {}, 0};
        Arguments(signature, 1, args, nargs, kwnames);
        make<of>(self);
        PyObject *dict = matrix(self)->dict;
        return dict && PyDict_GET_SIZE(dict) ? check(PyDict_Copy(dict)) : Ref::none();
    });
}

// ---- shape ---------------------------------------------------------------------------------------------------------

template <const HandleClass &of> PyObject *get_shape(PyObject *self, void *) {
    return border([&] {
        if (IdsNative *native = ids_of(self, of))
            return dimensions(native->layout);
        return check(PyObject_GetAttr(object_array(self, of).get(), names.shape));
    });
}

template <const HandleClass &of> PyObject *get_ndim(PyObject *self, void *) {
    return border([&] {
        if (IdsNative *native = ids_of(self, of))
            return check(PyLong_FromLong(native->layout.ndim()));
        return check(PyObject_GetAttr(object_array(self, of).get(), names.ndim));
    });
}

template <const HandleClass &of> PyObject *get_size(PyObject *self, void *) {
    return border([&] {
        if (IdsNative *native = ids_of(self, of))
            return check(PyLong_FromSsize_t(native->layout.size()));
        return check(PyObject_GetAttr(object_array(self, of).get(), names.size));
    });
}

template <const HandleClass &of>
PyObject *iterate(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"__iter__", {}, 0};
        Arguments(signature, 1, args, nargs, kwnames);
        if (handle_shape(self, of).empty())
            fail(PyExc_TypeError, "iteration over a 0-d array");
        return check(PySeqIter_New(self)); // asks __getitem__ for 0, 1, ... until IndexError
    });
}

template <const HandleClass &of>
PyObject *item(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"item", {}, 0};
        Arguments(signature, 1, args, nargs, kwnames);
        return check(PyObject_CallMethodNoArgs(element_array(self, of, 1).get(), names.item));
    });
}

template <const HandleClass &of>
PyObject *tolist(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"tolist", {}, 0};
        Arguments(signature, 1, args, nargs, kwnames);
        return check(PyObject_CallMethodNoArgs(element_array(self, of).get(), names.tolist));
    });
}

// ---- attributes of the model's elements

template <const HandleClass &of>
PyObject *idxarr(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_idxarr", {}, 0};
        Arguments(signature, 1, args, nargs, kwnames);
        return index_array(self, of);
    });
}

template <const HandleClass &of>
PyObject *get_attr(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"getAttr", {"attrname"}, 1};
        Arguments given(signature, 1, args, nargs, kwnames);
        return get_attribute(self, of, given[0]);
    });
}

template <const HandleClass &of>
PyObject *set_attr(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"setAttr", {"attrname", "value"}, 2};
        Arguments given(signature, 1, args, nargs, kwnames);
        set_attribute(self, of, given[0], given[1]);
        return Ref::none();
    });
}

template <const HandleClass &of>
PyObject *prefetch(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"prefetchAttr", {"attrname"}, 1};
        Arguments given(signature, 1, args, nargs, kwnames);
        prefetch_attribute(self, of, given[0]);
        return Ref::none();
    });
}

bool is_private(PyObject *name) {
    return PyUnicode_Check(name) && PyUnicode_GET_LENGTH(name) && PyUnicode_READ_CHAR(name, 0) == '_';
}

template <const HandleClass &of>
PyObject *getattr(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"__getattr__", {"name"}, 1};
        Arguments given(signature, 1, args, nargs, kwnames);
        if (is_private(given[0])) {
            Ref cls = check(PyType_GetName(Py_TYPE(self)));
            fail(PyExc_AttributeError, "'tarvopy.%U' object has no attribute '%U'", cls.get(), given[0]);
        }
        return check(PyObject_CallMethodOneArg(self, names.getAttr, given[0]));
    });
}

template <const HandleClass &of>
PyObject *setattr(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"__setattr__", {"name", "value"}, 2};
        Arguments given(signature, 1, args, nargs, kwnames);
        PyObject *name = given[0];
        if (!is_private(name))
            check(PyObject_CallMethodObjArgs(self, names.setAttr, name, given[1], nullptr));
        else if (check_status(PyObject_RichCompareBool(name, of.array_name(), Py_EQ)))
            check_status(set_array<of>(self, given[1], nullptr));
        else if (check_status(PyObject_RichCompareBool(name, names._cmodel, Py_EQ)))
            check_status(set_model<of>(self, given[1], nullptr));
        else
            store(self, name, given[1]);
        return Ref::none();
    });
}

template <const HandleClass &of>
PyObject *dir(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"__dir__", {}, 0};
        Arguments(signature, 1, args, nargs, kwnames);
        return attribute_names(self, of);
    });
}

template <const HandleClass &of> PyObject *get_typename(PyObject *, void *) {
    return PyUnicode_FromString(of.name);
}

template <const HandleClass &of> PyObject *get_typeenum(PyObject *self, void *) {
    return border([&] { return type_number(self, of); });
}

} // namespace

template <const HandleClass &of> void add_handle_members(PyObject *namespace_dict) {
    static const char *array_attribute = PyUnicode_AsUTF8(of.array_name());
    static Member members[] = {
        property("shape", get_shape<of>, "Extents of all axes, a tuple."),
        property("ndim", get_ndim<of>, "Number of axes."),
        property("size", get_size<of>, "Number of elements."),
        method("item", item<of>,
               "item($self)\n--\n\nThe scalar object of a handle of one element; ValueError for any other size."),
        method("tolist", tolist<of>,
               "tolist($self)\n--\n\nThe scalar objects as nested lists; makes those that do not exist yet."),
        method("getAttr", get_attr<of>,
               "getAttr($self, attrname)\n--\n\nAttribute values of all elements, a new array of the handle's shape "
               "(float64, int32 or strings): X.getAttr('UB') is\nX.UB. NoDataError for what only a solve gives and "
               "none gave; TarvoError (NOT_IN_MODEL) for removed elements."),
        method("setAttr", set_attr<of>,
               "setAttr($self, attrname, value)\n--\n\nSets an attribute of all elements: one value for all, or an "
               "array of the "
               "handle's shape.\nA failed call changes nothing."),
        method("_idxarr", idxarr<of>,
               "_idxarr($self)\n--\n\nIndices in the model (int32): -1 awaits the model's update, -2 and less was "
               "removed."),
        method("__iter__", iterate<of>, "__iter__($self)\n--\n\nIterates over the first axis."),
        method("__getattr__", getattr<of>,
               "__getattr__($self, name)\n--\n\nAn attribute of the elements, as getAttr gives it."),
        method("__setattr__", setattr<of>,
               "__setattr__($self, name, value)\n--\n\nSets an attribute of the elements, as setAttr does."),
        method("__dir__", dir<of>,
               "__dir__($self)\n--\n\nNames for completion, those of the elements' attributes among them."),
        method("__getstate__", get_state<of>, "__getstate__($self)\n--\n\nThe instance dictionary, for copying."),
        property("_typename", get_typename<of>, "Name of the class."),
        property("_typeenum", get_typeenum<of>, "Kind number of the elements in the model."),
        property(array_attribute, get_array<of>, set_array<of>,
                 "The elements as an object array; made when first read."),
        property("_cmodel", get_model<of>, set_model<of>, "The model handle; None without elements."),
        property("__dict__", get_dict<of>, set_dict<of>, "The instance dictionary."),
    };
    add_members(namespace_dict, matrix_base, members);
    if (of.prefetches) {
        static Member more[] = {
            method("prefetchAttr", prefetch<of>,
                   "prefetchAttr($self, attrname)\n--\n\nSays that an attribute will be read. Attributes stand in "
                   "arrays, so there is nothing to prepare:\nonly the name is checked (AttributeError)."),
        };
        add_members(namespace_dict, matrix_base, more);
    }
}

template void add_handle_members<mvar_handle>(PyObject *);
template void add_handle_members<mconstr_handle>(PyObject *);
template void add_handle_members<mqconstr_handle>(PyObject *);
template void add_handle_members<mgenconstr_handle>(PyObject *);
template void add_handle_members<mnlconstr_handle>(PyObject *);

} // namespace tarvopy
