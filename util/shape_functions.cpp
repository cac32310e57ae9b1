// Shapes as Python tuples: broadcasting, matrix products, axes of reductions.
#include "functions.h"

#include "pysupport/args.h"

namespace tarvopy::util {

using namespace pysupport;
using shapes::Shape;

namespace {

Ref shape_tuple(const Shape &shape) {
    Ref tuple = check(PyTuple_New(static_cast<Py_ssize_t>(shape.size())));
    for (size_t d = 0; d < shape.size(); ++d)
        PyTuple_SET_ITEM(tuple.get(), d, check(PyLong_FromLongLong(shape[d])).release());
    return tuple;
}

int64_t read_extent(PyObject *object) {
    return check_value(PyNumber_AsSsize_t(object, PyExc_ValueError));
}

// An int, or a tuple or list of ints.
Shape read_shape(PyObject *object) {
    Shape shape;
    if (PyTuple_Check(object) || PyList_Check(object)) {
        Ref extents = check(PySequence_Tuple(object)); // of its own: an __index__ may change a list
        for (Py_ssize_t d = 0; d < PyTuple_GET_SIZE(extents.get()); ++d)
            shape.push_back(read_extent(PyTuple_GET_ITEM(extents.get(), d)));
    } else {
        shape.push_back(read_extent(object));
    }
    shapes::validate(shape);
    return shape;
}

// Marks an axis in place: -1 in the list. Several axes are given as a tuple or a list.
void sum_away(std::vector<int> &axes, PyObject *axis) {
    auto ndim = static_cast<Py_ssize_t>(axes.size());
    Py_ssize_t number = check_value(PyNumber_AsSsize_t(axis, PyExc_IndexError));
    if (number < -ndim || number >= ndim)
        fail(PyExc_IndexError, "axis %zd is out of bounds for array of dimension %zd", number, ndim);
    int &entry = axes[static_cast<size_t>(number < 0 ? number + ndim : number)];
    if (entry == -1)
        fail(PyExc_ValueError, "duplicate value in 'axis'");
    entry = -1;
}

std::vector<int> axes_list(PyObject *axis, Py_ssize_t ndim) {
    std::vector<int> axes(static_cast<size_t>(ndim), axis == Py_None ? -1 : 0);
    if (PyTuple_Check(axis) || PyList_Check(axis)) {
        Ref numbers = check(PySequence_Tuple(axis)); // an axis is read by Python code, which may change a list
        for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(numbers.get()); ++i)
            sum_away(axes, PyTuple_GET_ITEM(numbers.get(), i));
    } else if (axis != Py_None) {
        sum_away(axes, axis);
    }
    int next = 0;
    for (int &entry : axes)
        if (entry != -1)
            entry = next++;
    return axes;
}

} // namespace

PyObject *broadcast_shapes(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_broadcast_shapes", {"s1", "s2"}, 1};
        Arguments given(signature, 0, args, nargs, kwnames);
        Shape first = read_shape(given[0]);
        return shape_tuple(given[1] ? shapes::broadcast(first, read_shape(given[1])) : first);
    });
}

PyObject *axis_to_axeslist(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_axis_to_axeslist", {"axis", "ndim"}, 2};
        Arguments given(signature, 0, args, nargs, kwnames);
        Py_ssize_t ndim = check_value(PyNumber_AsSsize_t(given[1], PyExc_ValueError));
        if (ndim < 0 || ndim > static_cast<Py_ssize_t>(shapes::max_dimensions))
            fail(PyExc_ValueError, "an array has 0 to 64 dimensions, not %zd", ndim);
        std::vector<int> axes = axes_list(given[0], ndim);
        Ref list = check(PyList_New(ndim));
        for (Py_ssize_t d = 0; d < ndim; ++d)
            PyList_SET_ITEM(list.get(), d, check(PyLong_FromLong(axes[static_cast<size_t>(d)])).release());
        return list;
    });
}

PyObject *matmul_shape(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_matmul_shape", {"s1", "s2", "do_raise"}, 2};
        Arguments given(signature, 0, args, nargs, kwnames);
        Shape first = read_shape(given[0]), second = read_shape(given[1]);
        if (check_status(PyObject_IsTrue(given.get(2, Py_True))))
            return shape_tuple(shapes::matmul(first, second));
        std::optional<Shape> shape = shapes::try_matmul(first, second);
        return shape ? shape_tuple(*shape) : Ref::none();
    });
}

} // namespace tarvopy::util
