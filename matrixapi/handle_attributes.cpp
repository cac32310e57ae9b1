// Attributes of the model's elements, read and written on a whole handle: one transfer by ids, shaped like the handle.
#include "matrixapi/handle.h"
#include "pysupport/sparse.h"

namespace tarvopy {

using namespace pysupport;

namespace {

struct AttributeInfo {
    int kind, type;
    bool settable;
};

bool is_model(PyObject *handle) {
    return PyObject_TypeCheck(handle, mod.core->Model);
}

// model: a handle, or None, for which names are known as well.
AttributeInfo attribute_info(PyObject *model, PyObject *name) {
    PyObject *arguments[] = {model, name};
    Ref info = check(PyObject_Vectorcall(mod.getattrinfo, arguments, 2, nullptr));
    AttributeInfo result{};
    int settable = 0;
    if (!PyArg_ParseTuple(info.get(), "iip", &result.kind, &result.type, &settable))
        throw PythonError{};
    result.settable = settable != 0;
    return result;
}

void check_kind(PyObject *self, const HandleClass &of, const AttributeInfo &info, const char *owner, PyObject *name) {
    Ref wanted = type_number(self, of);
    Ref given = check(PyLong_FromLong(info.kind));
    if (!check_status(PyObject_RichCompareBool(wanted.get(), given.get(), Py_EQ)))
        fail(PyExc_AttributeError, "'tarvopy.%s' object has no attribute '%U'", owner, name);
}

void check_membership(PyObject *self, const HandleClass &of) {
    if (!of.checks_membership)
        return;
    Ref indices = index_array(self, of);
    indices = check(PyArray_FromAny(indices.get(), nullptr, 0, 0, NPY_ARRAY_CARRAY_RO, nullptr));
    const auto *at = static_cast<const int32_t *>(PyArray_DATA(as_array(indices)));
    const int32_t *end = at + PyArray_SIZE(as_array(indices));
    Ref text;
    if (std::find(at, end, -1) != end)
        text = check(PyUnicode_FromFormat("%s has not yet been added to the model", of.element));
    else if (std::any_of(at, end, [](int32_t index) { return index < -1; }))
        text = check(PyUnicode_FromFormat("%s was removed from the model", of.element));
    else
        return;
    Ref codes = check(PyObject_GetAttrString(mod.TRV, "Error"));
    Ref code = check(PyObject_GetAttrString(codes.get(), "NOT_IN_MODEL"));
    Ref error = check(PyObject_CallFunctionObjArgs(mod.TarvoError, code.get(), text.get(), nullptr));
    PyErr_SetObject(mod.TarvoError, error.get());
    throw PythonError{};
}

Ref result_dtype(int type) {
    int number = type == TRV_INT ? NPY_INT32 : type == TRV_DOUBLE ? NPY_DOUBLE : NPY_OBJECT;
    if (type != TRV_CHAR)
        return check(reinterpret_cast<PyObject *>(PyArray_DescrFromType(number)));
    PyArray_Descr *descr = PyArray_DescrNewFromType(NPY_UNICODE);
    if (!descr)
        throw PythonError{};
    PyDataType_SET_ELSIZE(descr, 4); // one character
    return Ref::steal(reinterpret_cast<PyObject *>(descr));
}

Ref shape_of_handle(PyObject *self) {
    return check(PyObject_GetAttr(self, names.shape));
}

// Elements that have no id in one common model: each is asked by itself.
Ref read_by_name(PyObject *self, const HandleClass &of, PyObject *name, const AttributeInfo *info) {
    Ref elements = check(PyObject_GetAttr(object_array(self, of).get(), names.flat));
    Ref values = check(PySequence_List(elements.get()));
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(values.get()); ++i) {
        Ref value = check(PyObject_GetAttr(PyList_GET_ITEM(values.get(), i), name));
        check_status(PyList_SetItem(values.get(), i, value.release()));
    }
    Ref dtype = info ? result_dtype(info->type) : Ref();
    Ref array = check(PyArray_FromAny(values.get(), reinterpret_cast<PyArray_Descr *>(dtype.release()), 0, 0,
                                      NPY_ARRAY_DEFAULT, nullptr));
    return check(PyObject_CallMethodOneArg(array.get(), names.reshape, shape_of_handle(self).get()));
}

Ref model_of_handle(PyObject *self) {
    return check(PyObject_GetAttr(self, names._cmodel));
}

const char *text_of(PyObject *name) {
    const char *text = PyUnicode_AsUTF8(name);
    if (!text)
        throw PythonError{};
    return text;
}

} // namespace

Ref get_attribute(PyObject *self, const HandleClass &of, PyObject *name) {
    need_numpy();
    Ref handle = model_of_handle(self);
    if (handle.is_none()) {
        Ref shape = shape_of_handle(self);
        npy_intp none = 0;
        Ref empty = check(PyArray_SimpleNew(1, &none, NPY_DOUBLE));
        return check(PyObject_CallMethodOneArg(empty.get(), names.reshape, shape.get()));
    }
    if (!is_model(handle.get()))
        return read_by_name(self, of, name, nullptr);
    AttributeInfo info = attribute_info(handle.get(), name);
    check_kind(self, of, info, of.get_refusal, name);
    check_membership(self, of);
    flat::Buffer<int32_t> ids;
    flat::Shape shape;
    Ref model;
    if (!handle_ids(self, of, ids, shape, model))
        return read_by_name(self, of, name, &info);
    if (!model)
        model = handle;
    Ref array = array_over(ids, static_cast<int>(shape.size()), shape.data());
    return check(mod.attr->get(model.as<ModelObject>(), of.kind, text_of(name), array.get()));
}

// ---- writing

namespace {

[[noreturn]] void mismatch() {
    fail(PyExc_AttributeError, "Shape mismatch");
}

bool same_shape(PyArrayObject *array, const flat::Shape &shape) {
    return PyArray_NDIM(array) == static_cast<int>(shape.size()) &&
           std::equal(shape.begin(), shape.end(), PyArray_DIMS(array));
}

// Numbers that float64 holds go as one array; everything else as a list, which the transfer checks one by one.
bool goes_as_doubles(PyArrayObject *array, int type) {
    int number = PyArray_TYPE(array);
    bool plain = PyTypeNum_ISBOOL(number) || PyTypeNum_ISINTEGER(number) || PyTypeNum_ISFLOAT(number);
    return type == TRV_DOUBLE && plain && PyArray_ITEMSIZE(array) <= 8;
}

Ref values_of_array(PyArrayObject *array, const flat::Shape &shape, int type) {
    auto *object = reinterpret_cast<PyObject *>(array);
    if (PyArray_SIZE(array) == 1)
        return check(PyObject_CallMethodNoArgs(object, names.item));
    if (!same_shape(array, shape))
        mismatch();
    if (goes_as_doubles(array, type))
        return check(PyArray_FromAny(object, PyArray_DescrFromType(NPY_DOUBLE), 0, 0,
                                     NPY_ARRAY_CARRAY | NPY_ARRAY_ENSUREARRAY, nullptr));
    return check(PySequence_List(check(PyObject_GetAttr(object, names.flat)).get()));
}

Ref values_of_iterable(PyObject *iterable, const flat::Shape &shape) {
    refuse_sparse(iterable, "values are a number, a list or an array");
    Ref list = check(PySequence_List(iterable));
    Ref array = check(PyArray_FromAny(list.get(), PyArray_DescrFromType(NPY_OBJECT), 0, 0, NPY_ARRAY_DEFAULT, nullptr));
    if (!same_shape(as_array(array), shape))
        mismatch();
    return check(PySequence_List(check(PyObject_GetAttr(array.get(), names.flat)).get()));
}

bool is_true_call(PyObject *function, PyObject *argument) {
    return check_status(PyObject_IsTrue(check(PyObject_CallOneArg(function, argument)).get()));
}

// What the transfer takes: one value for all, an array of float64, or a list of as many values as elements.
Ref transfer_values(PyObject *value, const flat::Shape &shape, int type) {
    if (is_true_call(mod.isstr, value))
        return Ref::borrow(value);
    if (is_array(value))
        return values_of_array(as_array(value), shape, type);
    if (is_true_call(mod.isscalar, value))
        return Ref::borrow(value);
    if (check_status(PyObject_IsInstance(value, mod.Iterable)))
        return values_of_iterable(value, shape);
    fail(PyExc_AttributeError, "Use scalar or ndarray to set attribute");
}

void write_by_name(PyObject *self, const HandleClass &of, PyObject *name, const Ref &values) {
    Ref elements = check(PySequence_List(check(PyObject_GetAttr(object_array(self, of).get(), names.flat)).get()));
    Ref list = values;
    if (is_array(values.get()))
        list = check(PySequence_List(check(PyObject_GetAttr(values.get(), names.flat)).get()));
    bool one = !PyList_Check(list.get());
    if (!one && PyList_GET_SIZE(list.get()) != PyList_GET_SIZE(elements.get()))
        mismatch();
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(elements.get()); ++i) {
        Ref value = Ref::borrow(one ? list.get() : PyList_GET_ITEM(list.get(), i));
        check_status(PyObject_SetAttr(PyList_GET_ITEM(elements.get(), i), name, value.get()));
    }
}

// With these a traceback asks whether another name was meant, as the interpreter sees to where an attribute is read.
void complete_error(PyObject *self, PyObject *name) {
    Ref error = Ref::steal(PyErr_GetRaisedException());
    if (PyErr_GivenExceptionMatches(error.get(), PyExc_AttributeError)) {
        check_status(PyObject_SetAttrString(error.get(), "name", name));
        check_status(PyObject_SetAttrString(error.get(), "obj", self));
    }
    PyErr_SetRaisedException(error.release());
}

AttributeInfo settable_info(PyObject *model, PyObject *self, const HandleClass &of, PyObject *name) {
    try {
        AttributeInfo info = attribute_info(model, name);
        check_kind(self, of, info, of.set_refusal, name);
        if (info.settable)
            return info;
    } catch (const PythonError &) {
        complete_error(self, name);
        throw;
    }
    fail(PyExc_AttributeError, "Attribute '%U' cannot be set", name);
}

} // namespace

void set_attribute(PyObject *self, const HandleClass &of, PyObject *name, PyObject *value) {
    need_numpy();
    Ref handle = model_of_handle(self);
    bool known = handle.is_none() || is_model(handle.get());
    AttributeInfo info{of.kind, -1, true};
    if (known)
        info = settable_info(handle.get(), self, of, name);
    if (handle.is_none())
        return;
    flat::Shape shape = handle_shape(self, of);
    Ref values = transfer_values(value, shape, info.type);
    if (known)
        check_membership(self, of);
    flat::Buffer<int32_t> ids;
    flat::Shape now;
    Ref model;
    if (!known || !handle_ids(self, of, ids, now, model))
        return write_by_name(self, of, name, values);
    if (now != shape) // reading the values ran Python code
        mismatch();
    if (ids.empty())
        return;
    Ref array = array_over(ids, static_cast<int>(shape.size()), shape.data());
    check_status(mod.attr->set(model.as<ModelObject>(), of.kind, text_of(name), array.get(), values.get()));
}

void prefetch_attribute(PyObject *self, const HandleClass &of, PyObject *name) {
    Ref handle = model_of_handle(self);
    if (handle.is_none() && of.kind != TRV_VAR)
        return;
    PyObject *arguments[] = {handle.get(), name};
    check(PyObject_Vectorcall(mod.prefetchattr, arguments, 2, nullptr));
}

namespace {

// The keys that the instance dictionary shows; nothing is made.
void append_stored_names(PyObject *self, const HandleClass &of, const Ref &list) {
    if (ids_of(self, of)) {
        check_status(PyList_Append(list.get(), of.array_name()));
        check_status(PyList_Append(list.get(), names._cmodel));
    }
    if (PyObject *dict = matrix(self)->dict)
        check(PySequence_InPlaceConcat(list.get(), check(PyDict_Keys(dict)).get()));
}

} // namespace

Ref attribute_names(PyObject *self, const HandleClass &of) {
    Ref list = check(PyObject_Dir(reinterpret_cast<PyObject *>(Py_TYPE(self))));
    append_stored_names(self, of, list);
    Ref handle = model_of_handle(self);
    if (!is_model(handle.get()))
        handle = Ref::none();
    Ref kind = type_number(self, of);
    PyObject *arguments[] = {handle.get(), kind.get()};
    Ref more = check(PyObject_Vectorcall(mod.attrlist, arguments, 2, nullptr));
    check(PySequence_InPlaceConcat(list.get(), more.get()));
    check_status(PyList_Sort(list.get()));
    return list;
}

Ref type_number(PyObject *self, const HandleClass &of) {
    if (&of == &mnlconstr_handle)
        return check(PyObject_GetAttr(self, names._attrtype));
    return check(PyLong_FromLong(of.kind));
}

} // namespace tarvopy
