// From Python to the store.
#include "transfer.h"

#include "pysupport/numbers.h"
#include "pysupport/numpy.h"

namespace tarvopy::attrutil {

using namespace pysupport;

namespace {

[[noreturn]] void wrong_value(const TRVattrinfo *info, const char *wanted, PyObject *value) {
    fail(PyExc_TypeError, "attribute '%s' takes %s, not %R", info->name, wanted, value);
}

bool is_double_array(PyObject *source) {
    return is_array(source) && PyArray_TYPE(as_array(source)) == NPY_FLOAT64 &&
           PyArray_IS_C_CONTIGUOUS(as_array(source)) && PyArray_ISALIGNED(as_array(source)) &&
           PyArray_ISNOTSWAPPED(as_array(source));
}

Ref list_of_array(PyObject *source) {
    Ref flat = check(PyArray_Ravel(as_array(source), NPY_CORDER));
    return check(PyArray_ToList(as_array(flat)));
}

} // namespace

Values::Values(const TRVattrinfo *info, PyObject *source, int64_t count) : info_(info) {
    if (info->type == TRV_DOUBLE && is_double_array(source)) {
        array_ = Ref::borrow(source);
        size_ = PyArray_SIZE(as_array(source));
    } else if (is_array(source) || PyList_Check(source) || PyTuple_Check(source)) {
        // A tuple, since reading an item may run code that changes the caller's list.
        Ref list = is_array(source) ? list_of_array(source) : Ref::borrow(source);
        Ref items = check(PySequence_Tuple(list.get()));
        for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(items.get()); ++i)
            read_item(PyTuple_GET_ITEM(items.get(), i));
    } else {
        read_item(source);
    }
    if (size_ != count && size_ != 1)
        fail(PyExc_ValueError, "%lld values for %lld elements of attribute '%s'", static_cast<long long>(size_),
             static_cast<long long>(count), info->name);
}

void Values::read_item(PyObject *item) {
    if (info_->type == TRV_DOUBLE)
        read_double(item);
    else
        read_text(item);
    ++size_;
}

void Values::read_double(PyObject *item) {
    double value;
    if (!number_value(item, &value))
        wrong_value(info_, "numbers", item);
    doubles_.push_back(value);
}

void Values::read_text(PyObject *item) {
    const char *wanted = info_->type == TRV_CHAR ? "one character" : "strings";
    if (!PyUnicode_Check(item))
        wrong_value(info_, wanted, item);
    Py_ssize_t length;
    const char *utf8 = PyUnicode_AsUTF8AndSize(item, &length);
    if (!utf8)
        throw PythonError{};
    if (info_->type == TRV_CHAR && length != 1)
        wrong_value(info_, wanted, item);
    text_.append(utf8, static_cast<size_t>(length));
    offsets_.push_back(static_cast<int64_t>(text_.size()));
}

void Values::write(TRVmodel *store, const Ids &ids) const {
    int step = size_ == ids.size && ids.size != 1;
    if (info_->type == TRV_DOUBLE) {
        const double *data = array_ ? static_cast<const double *>(PyArray_DATA(as_array(array_))) : doubles_.data();
        check_store(store, TRVsetdbls(store, info_->name, ids.size, ids.ids, ids.first, data, step));
    } else if (info_->type == TRV_CHAR) {
        check_store(store, TRVsetchars(store, info_->name, ids.size, ids.ids, ids.first, text_.data(), step));
    } else {
        write_texts(store, ids);
    }
}

void Values::write_texts(TRVmodel *store, const Ids &ids) const {
    if (size_ == ids.size) {
        check_store(store, TRVsetstrs(store, info_->name, ids.size, ids.ids, ids.first, text_.data(), offsets_.data()));
        return;
    }
    std::string text;
    std::vector<int64_t> offsets{0};
    for (int64_t i = 0; i < ids.size; ++i) {
        text += text_;
        offsets.push_back(static_cast<int64_t>(text.size()));
    }
    check_store(store, TRVsetstrs(store, info_->name, ids.size, ids.ids, ids.first, text.data(), offsets.data()));
}

} // namespace tarvopy::attrutil
