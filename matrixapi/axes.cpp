#include "matrixapi/axes.h"

#include "matrixapi/names.h"
#include "matrixapi/printing.h"

namespace tarvopy {

using namespace pysupport;

namespace {

[[noreturn]] void invalid_axes(PyObject *axis) {
    PyErr_Clear();
    Ref text = text_of(axis);
    Ref message = check(PyUnicode_FromFormat("Invalid axis specifications: %U", text.get()));
    const char *utf8 = PyUnicode_AsUTF8(message.get());
    if (!utf8)
        throw PythonError{};
    fail_tarvo(-1, utf8);
}

bool is_rejection() {
    return PyErr_ExceptionMatches(PyExc_IndexError) || PyErr_ExceptionMatches(PyExc_ValueError) ||
           PyErr_ExceptionMatches(PyExc_TypeError);
}

} // namespace

std::vector<int> result_axes(PyObject *axis, size_t ndim) {
    Ref number = check(PyLong_FromSize_t(ndim));
    PyObject *arguments[] = {axis, number.get()};
    Ref list = Ref::steal(PyObject_Vectorcall(mod.axis_to_axeslist, arguments, 2, nullptr));
    if (!list && is_rejection())
        invalid_axes(axis);
    if (!list)
        throw PythonError{};
    std::vector<int> axes;
    Ref items = check(PySequence_Tuple(list.get()));
    for (Py_ssize_t d = 0; d < PyTuple_GET_SIZE(items.get()); ++d)
        axes.push_back(static_cast<int>(check_value(PyLong_AsLong(PyTuple_GET_ITEM(items.get(), d)))));
    if (axes.size() != ndim)
        invalid_axes(axis);
    return axes;
}

flat::Shape kept_shape(const flat::Shape &shape, const std::vector<int> &axes) {
    flat::Shape kept;
    for (size_t d = 0; d < shape.size(); ++d)
        if (axes[d] >= 0)
            kept.push_back(shape[d]);
    return kept;
}

std::vector<int64_t> places_of_sums(const flat::Shape &shape, const std::vector<int> &axes) {
    std::vector<int64_t> step(shape.size(), 0), index(shape.size(), 0);
    int64_t stride = 1;
    for (size_t d = shape.size(); d-- > 0;)
        if (axes[d] >= 0) {
            step[d] = stride;
            stride *= shape[d];
        }
    std::vector<int64_t> places(static_cast<size_t>(flat::size_of(shape)));
    int64_t target = 0;
    for (int64_t &place : places) {
        place = target;
        for (size_t d = shape.size(); d-- > 0;) {
            target += step[d];
            if (++index[d] < shape[d])
                break;
            target -= step[d] * index[d];
            index[d] = 0;
        }
    }
    return places;
}

} // namespace tarvopy
