#include "arguments.h"

#include <cmath>
#include <cstring>

namespace tarvopy::modelapi {

using pysupport::as_array;
using pysupport::check_value;
using pysupport::is_array;

// ---- shapes

namespace {

// Also bounds the extents beside a zero, whose product NumPy could not address.
void measure(Shape &shape) {
    constexpr int64_t addressable = int64_t(1) << 58;
    bool empty = false;
    int64_t product = 1;
    for (int d = 0; d < shape.ndim; ++d) {
        int64_t extent = shape.dims[d];
        if (extent < 0)
            fail(PyExc_ValueError, "negative dimensions are not allowed: shape %s", shape.text().c_str());
        if (extent == 0)
            empty = true;
        else if (product > addressable / extent)
            fail(PyExc_ValueError, "shape %s is too large", shape.text().c_str());
        else
            product *= extent;
    }
    if (!empty && product > max_elements)
        fail(PyExc_ValueError, "shape %s has more than 2**31 - 1 elements", shape.text().c_str());
    shape.size = empty ? 0 : product;
}

npy_intp extent(PyObject *object) {
    if (!PyIndex_Check(object))
        fail(PyExc_TypeError, "a shape is an int or a tuple of ints, not '%.200s'", Py_TYPE(object)->tp_name);
    return check_value(PyNumber_AsSsize_t(object, PyExc_ValueError));
}

} // namespace

Shape::Shape(PyObject *object) {
    if (PyLong_Check(object) || (PyIndex_Check(object) && !PySequence_Check(object))) {
        ndim = 1;
        dims[0] = extent(object);
    } else {
        // A tuple of its own: __index__ of an element may change the caller's list.
        if (!PySequence_Check(object) || PyUnicode_Check(object) || PyBytes_Check(object) ||
            PyByteArray_Check(object) || pysupport::is_sparse(object))
            fail(PyExc_TypeError, "a shape is an int or a tuple of ints, not '%.200s'", Py_TYPE(object)->tp_name);
        Py_ssize_t announced =
            pysupport::check_value(PyObject_LengthHint(object, 0)); // a view of 2**40 elements is none
        if (announced > NPY_MAXDIMS)
            fail(PyExc_ValueError, "a shape has at most %d dimensions, not %zd", NPY_MAXDIMS, announced);
        Ref extents = check(PySequence_Tuple(object));
        Py_ssize_t count = PyTuple_GET_SIZE(extents.get());
        if (count > NPY_MAXDIMS)
            fail(PyExc_ValueError, "a shape has at most %d dimensions, not %zd", NPY_MAXDIMS, count);
        for (Py_ssize_t d = 0; d < count; ++d)
            dims[d] = extent(PyTuple_GET_ITEM(extents.get(), d));
        ndim = static_cast<int>(count);
    }
    measure(*this);
}

Shape::Shape(int count, const npy_intp *extents) : ndim(count) {
    std::copy(extents, extents + count, dims);
    measure(*this);
}

bool Shape::operator==(const Shape &other) const {
    return ndim == other.ndim && std::equal(dims, dims + ndim, other.dims);
}

bool Shape::takes(const Shape &smaller) const {
    if (smaller.ndim > ndim)
        return false;
    const npy_intp *mine = dims + (ndim - smaller.ndim);
    for (int d = 0; d < smaller.ndim; ++d)
        if (smaller.dims[d] != mine[d] && smaller.dims[d] != 1)
            return false;
    return true;
}

Shape Shape::joined(const Shape &other) const {
    npy_intp extents[NPY_MAXDIMS];
    int count = std::max(ndim, other.ndim);
    double product = 1; // whole below 2**53, and only compared with less
    for (int d = 1; d <= count; ++d) {
        npy_intp a = d <= ndim ? dims[ndim - d] : 1, b = d <= other.ndim ? other.dims[other.ndim - d] : 1;
        if (a != b && a != 1 && b != 1)
            fail(PyExc_ValueError, "shapes %s and %s do not broadcast", text().c_str(), other.text().c_str());
        extents[count - d] = a == 1 ? b : a;
        product *= static_cast<double>(extents[count - d]);
    }
    if (product > max_elements)
        fail(PyExc_ValueError, "shapes %s and %s broadcast to more than 2**31 - 1 elements", text().c_str(),
             other.text().c_str());
    return Shape(count, extents);
}

std::string Shape::text() const {
    std::string out = "(";
    for (int d = 0; d < ndim; ++d)
        out += std::to_string(dims[d]) + (d + 1 < ndim ? ", " : ndim == 1 ? "," : "");
    return out + ")";
}

Shape shape_of(PyArrayObject *array) {
    return Shape(PyArray_NDIM(array), PyArray_DIMS(array));
}

Ref broadcast(PyArrayObject *array, const Shape &shape, int type) {
    bool flexible = PyTypeNum_ISFLEXIBLE(PyArray_TYPE(array));
    if (shape_of(array) == shape && PyArray_ISCARRAY_RO(array) && PyArray_ISNOTSWAPPED(array) &&
        (flexible || PyArray_TYPE(array) == type))
        return Ref::borrow(reinterpret_cast<PyObject *>(array));
    PyArray_Descr *descr;
    if (flexible)
        descr = PyArray_DescrNewByteorder(PyArray_DESCR(array), NPY_NATIVE);
    else
        descr = PyArray_DescrFromType(type);
    if (!descr)
        throw PythonError{};
    Ref spread = check(PyArray_Empty(shape.ndim, shape.dims, descr, 0)); // takes over descr
    check_status(PyArray_CopyInto(as_array(spread), array));
    return spread;
}

// ---- numbers

namespace {

[[noreturn]] void not_numbers(const char *what, PyObject *object) {
    fail(PyExc_TypeError, "%s must be a number or an array of numbers, not '%.200s'", what, Py_TYPE(object)->tp_name);
}

bool is_plain_number(PyObject *object) {
    return PyFloat_Check(object) || PyLong_Check(object);
}

// A float64 array of anything that NumPy takes for an array of real numbers.
Ref number_array(const char *what, PyObject *object) {
    need_numpy();
    Ref array = check(PyArray_FromAny(object, nullptr, 0, 0, NPY_ARRAY_ENSUREARRAY, nullptr));
    int type = PyArray_TYPE(as_array(array));
    if (PyTypeNum_ISCOMPLEX(type) || !(PyTypeNum_ISNUMBER(type) || type == NPY_BOOL || type == NPY_OBJECT))
        fail(PyExc_TypeError, "%s must be a number or an array of numbers, not an array of dtype %S", what,
             reinterpret_cast<PyObject *>(PyArray_DESCR(as_array(array))));
    if (type == NPY_OBJECT && PyArray_NDIM(as_array(array)) == 0)
        not_numbers(what, object); // what NumPy could not look into: None, a sparse matrix, an expression
    return check(PyArray_FromArray(as_array(array), PyArray_DescrFromType(NPY_DOUBLE),
                                   NPY_ARRAY_FORCECAST | NPY_ARRAY_ALIGNED | NPY_ARRAY_NOTSWAPPED));
}

} // namespace

double number(const char *what, PyObject *object) {
    if (PyFloat_CheckExact(object))
        return PyFloat_AS_DOUBLE(object);
    if (is_array(object) && PyArray_NDIM(as_array(object)) > 0)
        fail(PyExc_TypeError, "%s must be a single number, not an array", what);
    double value = PyFloat_AsDouble(object);
    if (value == -1.0 && PyErr_Occurred()) {
        if (!PyErr_ExceptionMatches(PyExc_TypeError))
            throw PythonError{};
        PyErr_Clear();
        fail(PyExc_TypeError, "%s must be a number, not '%.200s'", what, Py_TYPE(object)->tp_name);
    }
    return value;
}

Doubles::Doubles(const char *what, PyObject *object, double otherwise) : what_(what), single_(otherwise) {
    if (!object)
        return;
    if (is_plain_number(object)) {
        single_ = number(what, object);
        return;
    }
    array_ = number_array(what, object);
    was_array_ = is_array(object) || PyArray_NDIM(as_array(array_)) > 0;
    if (PyArray_NDIM(as_array(array_)) == 0) {
        single_ = *static_cast<double *>(PyArray_DATA(as_array(array_)));
        array_ = Ref();
    }
}

void Doubles::spread(const Shape &shape) {
    size_ = shape.size;
    if (!array_)
        return;
    Shape own = shape_of(as_array(array_));
    if (!shape.takes(own))
        fail(PyExc_ValueError, "%s of shape %s does not broadcast to shape %s", what_, own.text().c_str(),
             shape.text().c_str());
    if (own.size == 1) {
        single_ = *static_cast<double *>(PyArray_DATA(as_array(array_)));
        array_ = Ref();
        return;
    }
    array_ = broadcast(as_array(array_), shape, NPY_DOUBLE);
    data_ = static_cast<const double *>(PyArray_DATA(as_array(array_)));
}

const double *Doubles::data() const {
    return array_ ? data_ : &single_;
}

// ---- letters

namespace {

[[noreturn]] void not_letters(const char *what, PyObject *object) {
    fail(PyExc_TypeError, "%s must be a letter or an array of letters, not '%.200s'", what, Py_TYPE(object)->tp_name);
}

bool is_letter(Py_UCS4 character) {
    return character == 'C' || character == 'B' || character == 'I' || character == 'S';
}

char one_letter(const char *what, PyObject *text) {
    if (PyUnicode_GET_LENGTH(text) != 1 || !is_letter(PyUnicode_READ_CHAR(text, 0)))
        fail(PyExc_ValueError, "%s must be one of 'C', 'B', 'I', 'S', not %R", what, text);
    return static_cast<char>(PyUnicode_READ_CHAR(text, 0));
}

// An array of dtype U or S; objects become their text.
Ref text_array(PyObject *object) {
    need_numpy();
    Ref array = check(PyArray_FromAny(object, nullptr, 0, 0, NPY_ARRAY_ENSUREARRAY, nullptr));
    if (PyArray_TYPE(as_array(array)) != NPY_OBJECT || PyArray_NDIM(as_array(array)) == 0)
        return array;
    return check(PyObject_CallMethod(array.get(), "astype", "s", "U"));
}

// One letter of every element; what follows it in a wider dtype is zero.
template <class Character> void read_letters(const char *what, PyArrayObject *array, std::vector<char> &out) {
    npy_intp width = PyArray_ITEMSIZE(array) / npy_intp(sizeof(Character));
    auto *text = static_cast<const Character *>(PyArray_DATA(array));
    npy_intp count = PyArray_SIZE(array);
    out.resize(count);
    for (npy_intp i = 0; i < count; ++i, text += width) {
        if (width == 0 || !is_letter(text[0]) || (width > 1 && text[1] != 0)) {
            Ref bad = check(PyArray_GETITEM(array, PyArray_BYTES(array) + i * PyArray_ITEMSIZE(array)));
            fail(PyExc_ValueError, "%s must be one of 'C', 'B', 'I', 'S', not %R", what, bad.get());
        }
        out[i] = static_cast<char>(text[0]);
    }
}

} // namespace

Letters::Letters(const char *what, PyObject *object, char otherwise) : what_(what), single_(otherwise) {
    if (!object)
        return;
    if (PyUnicode_Check(object)) {
        single_ = one_letter(what, object);
        return;
    }
    array_ = text_array(object);
    int type = PyArray_TYPE(as_array(array_));
    // An empty list becomes an array of float64.
    if (type != NPY_UNICODE && type != NPY_STRING && PyArray_SIZE(as_array(array_)) > 0)
        not_letters(what, object);
}

void Letters::spread(const Shape &shape) {
    if (!array_)
        return;
    Shape own = shape_of(as_array(array_));
    if (!shape.takes(own))
        fail(PyExc_ValueError, "%s of shape %s does not broadcast to shape %s", what_, own.text().c_str(),
             shape.text().c_str());
    array_ = broadcast(as_array(array_), shape, PyArray_TYPE(as_array(array_)));
    if (PyArray_TYPE(as_array(array_)) == NPY_UNICODE)
        read_letters<npy_ucs4>(what_, as_array(array_), letters_);
    else if (PyArray_TYPE(as_array(array_)) == NPY_STRING)
        read_letters<unsigned char>(what_, as_array(array_), letters_);
}

// ---- names

namespace {

// The bytes stay the string object's own.
std::string_view utf8(PyObject *text) {
    Py_ssize_t size;
    const char *bytes = PyUnicode_AsUTF8AndSize(text, &size);
    if (!bytes)
        throw PythonError{};
    if (std::memchr(bytes, 0, size))
        fail(PyExc_ValueError, "a name holds a null character: %R", text);
    return {bytes, static_cast<size_t>(size)};
}

} // namespace

Names::Names(PyObject *object) {
    if (!object || object == Py_None)
        return;
    if (PyUnicode_Check(object)) {
        std::string_view prefix = utf8(object);
        if (prefix.empty())
            return;
        prefix_ = Ref::borrow(object);
        names_.form = TRV_NAMES_SHAPE;
        names_.prefix = prefix.data(); // ends with a null character, as all text that Python gives
        return;
    }
    need_numpy();
    Ref array = check(PyArray_FromAny(object, nullptr, 0, 0, NPY_ARRAY_ENSUREARRAY, nullptr));
    PyArrayObject *elements = as_array(array);
    int type = PyArray_TYPE(elements);
    bool text = type == NPY_UNICODE || type == NPY_OBJECT || PyArray_SIZE(elements) == 0;
    if (!text || (type == NPY_OBJECT && PyArray_NDIM(elements) == 0 && !PyUnicode_Check(object) && !is_array(object)))
        fail(PyExc_TypeError, "name must be a string or an array of strings, not '%.200s'", Py_TYPE(object)->tp_name);
    list_ = true;
    shape_ = shape_of(elements);
    Ref flat = check(PyArray_FromArray(elements, nullptr, NPY_ARRAY_CARRAY_RO));
    names_.form = TRV_NAMES_LIST;
    numbers_.push_back(0);
    for (int64_t i = 0; i < shape_.size; ++i) {
        // Reading an element of dtype object makes nothing and runs no code, so the array cannot change under the loop.
        Ref name = check(
            PyArray_GETITEM(as_array(flat), PyArray_BYTES(as_array(flat)) + i * PyArray_ITEMSIZE(as_array(flat))));
        if (!PyUnicode_Check(name.get()))
            fail(PyExc_TypeError, "name must be a string or an array of strings; element %lld is %R",
                 static_cast<long long>(i), name.get());
        text_ += utf8(name.get());
        numbers_.push_back(static_cast<int64_t>(text_.size()));
    }
}

const TRVnames *Names::block(const Shape &shape) {
    if (list_) {
        if (!(shape_ == shape))
            fail(PyExc_ValueError, "names of shape %s do not name elements of shape %s", shape_.text().c_str(),
                 shape.text().c_str());
        names_.text = text_.data();
        names_.offset = numbers_.data();
        return &names_;
    }
    if (!prefix_)
        return nullptr;
    numbers_.assign(shape.dims, shape.dims + shape.ndim);
    names_.ndim = shape.ndim;
    names_.shape = numbers_.data();
    return &names_;
}

} // namespace tarvopy::modelapi
