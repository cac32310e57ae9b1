// Indexing by ints and slices without NumPy: arithmetic on shape, strides and offset.
#include "matrixapi/handle_index.h"

#include <algorithm>
#include <span>

namespace tarvopy {

using namespace pysupport;

namespace {

struct Axis {
    npy_intp extent, stride;
};

struct Cut {
    npy_intp offset;
    int ndim = 0; // of the result
    bool only_ints = true;
    Axis axes[NPY_MAXDIMS];
};

// Only exact ints and slices of exact ints or None: nothing here runs Python code.
bool plain_bound(PyObject *bound) {
    return bound == Py_None || PyLong_CheckExact(bound);
}

bool plain_slice(PyObject *key) {
    if (!PySlice_Check(key))
        return false;
    auto *slice = reinterpret_cast<PySliceObject *>(key);
    return plain_bound(slice->start) && plain_bound(slice->stop) && plain_bound(slice->step);
}

bool cut_int(Cut &cut, PyObject *key, Axis axis) {
    int overflow = 0;
    long long index = PyLong_AsLongLongAndOverflow(key, &overflow);
    if (index < 0)
        index += axis.extent;
    if (overflow || index < 0 || index >= axis.extent)
        return false;
    cut.offset += index * axis.stride;
    return true;
}

bool cut_slice(Cut &cut, PyObject *key, Axis axis) {
    Py_ssize_t start, stop, step;
    if (PySlice_Unpack(key, &start, &stop, &step) < 0) {
        PyErr_Clear(); // a step of 0: NumPy says so
        return false;
    }
    npy_intp count = PySlice_AdjustIndices(axis.extent, &start, &stop, step);
    cut.offset += count > 0 ? start * axis.stride : 0;
    cut.axes[cut.ndim++] = {count, axis.stride * step};
    cut.only_ints = false;
    return true;
}

void keep_axes(Cut &cut, const Layout &layout, int from, int to) {
    for (int d = from; d < to; ++d)
        cut.axes[cut.ndim++] = {layout.shape()[d], layout.strides()[d]};
    cut.only_ints = false;
}

bool cut_by(Cut &cut, const Layout &layout, std::span<PyObject *const> keys) {
    auto ellipses = std::count(keys.begin(), keys.end(), Py_Ellipsis);
    auto added = std::count(keys.begin(), keys.end(), Py_None);
    int given = static_cast<int>(keys.size()) - static_cast<int>(ellipses + added);
    if (ellipses > 1 || given > layout.ndim() || layout.ndim() + added > NPY_MAXDIMS)
        return false;
    int d = 0;
    for (PyObject *key : keys) {
        if (key == Py_Ellipsis) {
            keep_axes(cut, layout, d, d + layout.ndim() - given);
            d += layout.ndim() - given;
            continue;
        }
        if (key == Py_None) {
            cut.axes[cut.ndim++] = {1, 0};
            cut.only_ints = false;
            continue;
        }
        Axis axis{layout.shape()[d], layout.strides()[d]};
        bool done = PyLong_CheckExact(key) ? cut_int(cut, key, axis) : plain_slice(key) && cut_slice(cut, key, axis);
        if (!done)
            return false;
        ++d;
    }
    if (d < layout.ndim())
        keep_axes(cut, layout, d, layout.ndim());
    return true;
}

} // namespace

bool basic_cut(const Layout &layout, PyObject *key, Layout &part, bool &element) {
    Cut cut;
    cut.offset = layout.offset;
    auto keys = PyTuple_CheckExact(key) ? std::span<PyObject *const>(reinterpret_cast<PyTupleObject *>(key)->ob_item,
                                                                     static_cast<size_t>(PyTuple_GET_SIZE(key)))
                                        : std::span<PyObject *const>(&key, 1);
    if (!cut_by(cut, layout, keys))
        return false;
    element = cut.ndim == 0 && cut.only_ints;
    part = Layout(cut.ndim);
    for (int d = 0; d < cut.ndim; ++d) {
        part.shape()[d] = cut.axes[d].extent;
        part.strides()[d] = cut.axes[d].stride;
    }
    part.offset = cut.offset;
    return true;
}

Ref basic_index(const IdsNative &native, PyObject *key) {
    Layout part;
    bool element = false;
    if (!native.block || !basic_cut(native.layout, key, part, element))
        return Ref();
    PyObject *cls = native.of.class_object();
    if (!element)
        return new_handle(native.of, cls, native.model, native.block, std::move(part));
    auto id = flat::Buffer<int32_t>(1);
    *id.write() = native.block->ids[part.offset];
    return new_handle(native.of, cls, native.model, BlockRef(std::move(id)), Layout(0));
}

namespace {

// The indices, or nothing where the model cannot be asked: a closed model's handles still print.
Ref indices_for_text(PyObject *self, const HandleClass &of) {
    try {
        return index_array(self, of);
    } catch (const PythonError &) {
        if (!PyErr_ExceptionMatches(mod.TarvoError))
            throw;
        PyErr_Clear();
        return Ref();
    }
}

} // namespace

IndexMarks index_marks(PyObject *self, const HandleClass &of) {
    Ref indices = indices_for_text(self, of);
    if (!indices)
        return {};
    indices = check(PyArray_FromAny(indices.get(), nullptr, 0, 0, NPY_ARRAY_CARRAY_RO, nullptr));
    IndexMarks marks;
    const auto *index = static_cast<const int32_t *>(PyArray_DATA(as_array(indices)));
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(indices)); ++i) {
        marks.pending |= index[i] == -1;
        marks.removed |= index[i] <= -2;
        marks.largest = std::max(marks.largest, index[i]);
    }
    return marks;
}

} // namespace tarvopy
