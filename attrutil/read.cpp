// From the store to Python.
#include "transfer.h"

#include "pysupport/numpy.h"

#include <memory>

namespace tarvopy::attrutil {

using namespace pysupport;

namespace {

struct StoreFree {
    void operator()(void *memory) const { TRVfree(memory); }
};

// The strings of some elements as the store gives them: one block with offsets.
struct Strings {
    std::unique_ptr<char, StoreFree> text;
    std::unique_ptr<int64_t, StoreFree> offset;

    Strings(TRVmodel *store, const char *name, const Ids &ids) {
        char *block = nullptr;
        int64_t *offsets = nullptr;
        check_store(store, TRVgetstrs(store, name, ids.size, ids.ids, ids.first, &block, &offsets));
        text.reset(block);
        offset.reset(offsets);
    }
    Ref item(int64_t i) const {
        const int64_t *o = offset.get();
        return check(PyUnicode_DecodeUTF8(text.get() + o[i], o[i + 1] - o[i], "replace"));
    }
};

template <class Make> Ref list_of(int64_t n, Make make) {
    Ref list = check(PyList_New(n));
    for (int64_t i = 0; i < n; ++i)
        PyList_SET_ITEM(list.get(), i, make(i).release());
    return list;
}

Ref character(char c) {
    return check(PyUnicode_FromStringAndSize(&c, 1));
}

PyArray_Descr *descr_of(int type) {
    if (type == TRV_INT || type == TRV_DOUBLE || type == TRV_STRING)
        return PyArray_DescrFromType(type == TRV_INT ? NPY_INT32 : type == TRV_DOUBLE ? NPY_FLOAT64 : NPY_OBJECT);
    PyArray_Descr *descr = PyArray_DescrNewFromType(NPY_UNICODE);
    if (descr)
        PyDataType_SET_ELSIZE(descr, sizeof(Py_UCS4)); // "U1"
    return descr;
}

Ref empty_like(PyObject *shape_of, int type) {
    PyArray_Descr *descr = descr_of(type);
    if (!descr)
        throw PythonError{};
    PyArrayObject *like = as_array(shape_of);
    return check(PyArray_NewFromDescr(&PyArray_Type, descr, PyArray_NDIM(like), PyArray_DIMS(like), nullptr, nullptr, 0,
                                      nullptr));
}

} // namespace

Ref read_list(TRVmodel *store, const TRVattrinfo *info, const Ids &ids) {
    auto n = static_cast<size_t>(ids.size);
    if (info->type == TRV_DOUBLE) {
        std::vector<double> values(n);
        check_store(store, TRVgetdbls(store, info->name, ids.size, ids.ids, ids.first, values.data()));
        return list_of(ids.size, [&](int64_t i) { return check(PyFloat_FromDouble(values[static_cast<size_t>(i)])); });
    }
    if (info->type == TRV_INT) {
        std::vector<int32_t> values(n);
        check_store(store, TRVgetints(store, info->name, ids.size, ids.ids, ids.first, values.data()));
        return list_of(ids.size, [&](int64_t i) { return check(PyLong_FromLong(values[static_cast<size_t>(i)])); });
    }
    if (info->type == TRV_CHAR) {
        std::vector<char> values(n);
        check_store(store, TRVgetchars(store, info->name, ids.size, ids.ids, ids.first, values.data()));
        return list_of(ids.size, [&](int64_t i) { return character(values[static_cast<size_t>(i)]); });
    }
    Strings strings(store, info->name, ids);
    return list_of(ids.size, [&](int64_t i) { return strings.item(i); });
}

Ref read_array(TRVmodel *store, const TRVattrinfo *info, const Ids &ids, PyObject *shape_of) {
    Ref array = empty_like(shape_of, info->type);
    void *data = PyArray_DATA(as_array(array));
    if (info->type == TRV_DOUBLE) {
        check_store(store, TRVgetdbls(store, info->name, ids.size, ids.ids, ids.first, static_cast<double *>(data)));
    } else if (info->type == TRV_INT) {
        check_store(store, TRVgetints(store, info->name, ids.size, ids.ids, ids.first, static_cast<int32_t *>(data)));
    } else if (info->type == TRV_CHAR) {
        std::vector<char> values(static_cast<size_t>(ids.size));
        check_store(store, TRVgetchars(store, info->name, ids.size, ids.ids, ids.first, values.data()));
        std::copy(values.begin(), values.end(), static_cast<Py_UCS4 *>(data));
    } else {
        Strings strings(store, info->name, ids);
        for (int64_t i = 0; i < ids.size; ++i)
            Py_XSETREF(static_cast<PyObject **>(data)[i], strings.item(i).release());
    }
    return array;
}

} // namespace tarvopy::attrutil
