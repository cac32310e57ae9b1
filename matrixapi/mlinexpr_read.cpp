// Between objects and numbers: LinExpr and CSR matrices read into forms, forms made into LinExpr.
//
// Costs, a term: 10 to 40 ns to read an object's lists, 50 to 100 ns and about 50 bytes to make them (of which the
// lists of _core have the larger share). Reading changes nothing and runs no Python code, except for the attributes of
// SciPy's matrices.
#include "matrixapi/mlinexpr.h"

#include "matrixapi/mvar.h"
#include "matrixapi/operands.h"

#include "pysupport/numpy.h"

#include <cmath>

namespace tarvopy {

using namespace pysupport;

// ---- object arrays ------------------------------------------------------------------------------------------------

Ref contiguous_objects(PyObject *array) {
    need_numpy();
    PyArray_Descr *object = PyArray_DescrFromType(NPY_OBJECT); // stolen by the call
    return check(PyArray_FromArray(as_array(array), object, NPY_ARRAY_CARRAY_RO | NPY_ARRAY_ENSUREARRAY));
}

namespace {

bool is_linexpr(PyObject *object) {
    return object && PyObject_TypeCheck(object, mod.core->LinExpr);
}
LinExprObject *linexpr(PyObject *object) {
    return reinterpret_cast<LinExprObject *>(object);
}

// Constants of rows; one number for all where they agree.
flat::Constant constants_of(PyObject *const *elements, int64_t n) {
    flat::Constant constant;
    if (n == 0)
        return constant;
    constant.uniform = linexpr(elements[0])->constant;
    int64_t first = 1;
    while (first < n && linexpr(elements[first])->constant == constant.uniform)
        ++first;
    if (first < n) {
        constant.values = flat::Buffer<double>(n);
        double *to = constant.values.write();
        for (int64_t i = 0; i < n; ++i)
            to[i] = linexpr(elements[i])->constant;
    }
    return constant;
}

// Row pointers of the term lists; equal lengths need none.
void measure(PyObject *const *elements, flat::Summand &summand) {
    int64_t n = summand.nrows;
    summand.width = n > 0 ? PyList_GET_SIZE(linexpr(elements[0])->vars) : 0;
    bool ragged = false;
    for (int64_t i = 0; i < n && !ragged; ++i)
        ragged = PyList_GET_SIZE(linexpr(elements[i])->vars) != summand.width;
    if (!ragged)
        return;
    summand.width = 0;
    summand.ptr = flat::Buffer<int64_t>(n + 1);
    int64_t *ptr = summand.ptr.write();
    ptr[0] = 0;
    for (int64_t i = 0; i < n; ++i)
        ptr[i + 1] = ptr[i] + PyList_GET_SIZE(linexpr(elements[i])->vars);
}

} // namespace

bool read_linexprs(PyObject *const *elements, const flat::Shape &shape, flat::Form &form, Ref &model) {
    form = {};
    form.shape = shape;
    form.size = flat::size_of(shape);
    if (!std::all_of(elements, elements + form.size, is_linexpr))
        return false;
    form.constant = constants_of(elements, form.size);
    flat::Summand summand;
    summand.nrows = form.size;
    measure(elements, summand);
    int64_t nnz = summand.nnz();
    if (nnz == 0)
        return true;
    summand.cols = flat::Buffer<int32_t>(nnz);
    summand.coef = flat::Buffer<double>(nnz);
    int32_t *ids = summand.cols.write();
    double *coef = summand.coef.write();
    ModelObject *handle = nullptr;
    bool mixed = false;
    for (int64_t i = 0; i < form.size; ++i) {
        LinExprObject *row = linexpr(elements[i]);
        Py_ssize_t terms = PyList_GET_SIZE(row->vars);
        for (Py_ssize_t k = 0; k < terms; ++k) {
            auto *var = reinterpret_cast<VarObject *>(PyList_GET_ITEM(row->vars, k));
            handle = handle ? handle : var->cmodel;
            mixed |= var->cmodel != handle;
            *ids++ = var->id;
            *coef++ = PyFloat_AS_DOUBLE(PyList_GET_ITEM(row->coeffs, k));
        }
    }
    form.summands.push_back(std::move(summand));
    model = Ref::borrow(reinterpret_cast<PyObject *>(handle));
    return !mixed;
}

bool read_array(PyObject *learr, flat::Form &form, Ref &model) {
    need_numpy();
    if (!PyArray_Check(learr) || PyArray_TYPE(as_array(learr)) != NPY_OBJECT)
        return false;
    Ref array = contiguous_objects(learr);
    return read_linexprs(static_cast<PyObject **>(PyArray_DATA(as_array(array))), shape_of_array(learr), form, model);
}

bool flat_linexpr(PyObject *object, flat::Form &form, Ref &model) {
    if (!PyObject_TypeCheck(object, mod.core->Var))
        return read_linexprs(&object, {}, form, model);
    form = {};
    auto *var = reinterpret_cast<VarObject *>(object);
    form.summands.push_back(flat::single(flat::Buffer<int32_t>::copy_of(&var->id, 1)));
    model = Ref::borrow(reinterpret_cast<PyObject *>(var->cmodel));
    return true;
}

// ---- compact data -------------------------------------------------------------------------------------------------

Ref constant_doubles(PyObject *expr) {
    return check(PyArray_FROMANY(const_array(expr), NPY_DOUBLE, 0, 0, NPY_ARRAY_CARRAY_RO | NPY_ARRAY_ENSUREARRAY));
}

namespace {

flat::Constant compact_constant(PyObject *expr, int64_t size) {
    Ref array = constant_doubles(expr);
    const double *values = doubles(array);
    flat::Constant constant;
    if (size == 0)
        return constant;
    constant.uniform = values[0];
    if (std::any_of(values, values + size, [&](double value) { return value != values[0]; }))
        constant.values = flat::Buffer<double>::copy_of(values, size);
    return constant;
}

void expect_rows(int64_t rows, int64_t size) {
    if (rows != size)
        fail(PyExc_ValueError, "a part has a matrix of %lld rows, but the expression has %lld elements",
             static_cast<long long>(rows), static_cast<long long>(size));
}

Part part_of(flat::Csr csr, SharedVector vector) {
    flat::Summand summand;
    summand.nrows = csr.rows;
    summand.ptr = std::move(csr.ptr);
    summand.cols = std::move(csr.index);
    summand.coef = std::move(csr.value);
    return make_part(std::move(summand), std::move(vector));
}

// The vector of an MVar; parts over the same MVar share it. Empty where ids do not exist.
SharedVector vector_of(PyObject *mvar, const std::vector<Part> &parts, Ref &model) {
    for (const Part &part : parts)
        if (part.vector->mvar.is(mvar))
            return part.vector;
    VarIds given;
    if (!is_mvar(mvar) || !mvar_ids(mvar, given) || !merge_models(model, given.model))
        return nullptr;
    return std::make_shared<VarVector>(VarVector{std::move(given.ids), Ref::borrow(mvar)});
}

bool read_parts(PyObject *list, int64_t size, std::vector<Part> &parts, Ref &model) {
    Ref items = check(PySequence_Tuple(list)); // a list may change while SciPy's attributes are read
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(items.get()); ++i) {
        Ref pair = check(PySequence_Tuple(PyTuple_GET_ITEM(items.get(), i)));
        if (PyTuple_GET_SIZE(pair.get()) != 2)
            fail(PyExc_ValueError, "a part must be a pair (A, x), not %zd values", PyTuple_GET_SIZE(pair.get()));
        flat::Csr csr = csr_of(PyTuple_GET_ITEM(pair.get(), 0));
        expect_rows(csr.rows, size);
        SharedVector vector = vector_of(PyTuple_GET_ITEM(pair.get(), 1), parts, model);
        if (!vector)
            return false;
        if (csr.cols != vector->ids.size())
            fail(PyExc_ValueError, "a part has a matrix of %lld columns for %lld variables",
                 static_cast<long long>(csr.cols), static_cast<long long>(vector->ids.size()));
        parts.push_back(part_of(std::move(csr), std::move(vector)));
    }
    return true;
}

} // namespace

bool native_parts(PyObject *expr, std::vector<Part> &parts, Ref &model) {
    int64_t size = PyArray_SIZE(as_array(const_array(expr)));
    parts.clear();
    model = {};
    if (LinearNative *native = linear_of(expr)) {
        // The array is in the user's hands, and can be given another shape there.
        for (const Part &part : native->parts)
            expect_rows(part.summand.nrows, size);
        parts = native->parts;
        model = native->model;
        return true;
    }
    return read_parts(matmulparts(expr).get(), size, parts, model);
}

bool flat_value(PyObject *expr, flat::Form &form, Ref &model) {
    switch (state_of(expr)) {
    case State::Flat:
        form = linear_of(expr)->form;
        model = linear_of(expr)->model;
        return true;
    case State::Objects:
        return read_array(learr(expr).get(), form, model);
    default:
        break;
    }
    std::vector<Part> parts;
    if (!native_parts(expr, parts, model))
        return false;
    form = {};
    form.shape = shape_of_array(const_array(expr));
    form.size = flat::size_of(form.shape);
    form.constant = compact_constant(expr, form.size);
    for (Part &part : parts) {
        expect_rows(part.summand.nrows, form.size);
        form.summands.push_back(std::move(part.summand));
    }
    return true;
}

Ref float_array(const flat::Shape &shape, const double *values) {
    need_numpy();
    static_assert(sizeof(npy_intp) == sizeof(int64_t));
    auto *dims = reinterpret_cast<npy_intp *>(const_cast<int64_t *>(shape.data())); // NumPy copies them
    int ndim = static_cast<int>(shape.size());
    if (!values)
        return check(PyArray_ZEROS(ndim, dims, NPY_DOUBLE, 0));
    Ref array = check(PyArray_SimpleNew(ndim, dims, NPY_DOUBLE));
    std::copy_n(values, flat::size_of(shape), static_cast<double *>(PyArray_DATA(as_array(array))));
    return array;
}

Ref constants_array(const flat::Form &form) {
    Ref array = float_array(form.shape, form.constant.values.data());
    if (form.constant.values.empty() && form.constant.uniform != 0.0)
        std::fill_n(static_cast<double *>(PyArray_DATA(as_array(array))), form.size, form.constant.uniform);
    return array;
}

// ---- making and filling objects -----------------------------------------------------------------------------------

namespace {

// Rows written out so that one call makes all objects; -0.0 and 0.0 are one constant.
struct Rows {
    flat::Buffer<int64_t> ptr;
    flat::Buffer<int32_t> ids;
    flat::Buffer<double> coef, constants;
    explicit Rows(const flat::Form &form)
        : ptr(form.size + 1), ids(form.nnz()), coef(form.nnz()), constants(form.constant.values) {
        flat::write_rows(form.summands, form.size, ptr.write(), ids.write(), coef.write());
        if (constants.empty() && form.constant.uniform != 0.0) {
            constants = flat::Buffer<double>(form.size);
            std::fill_n(constants.write(), form.size, form.constant.uniform);
        }
    }
};

} // namespace

Ref linexpr_array(const flat::Form &form, const Ref &model) {
    need_numpy();
    std::vector<npy_intp> dims(form.shape.begin(), form.shape.end());
    Ref array = check(PyArray_SimpleNew(static_cast<int>(dims.size()), dims.data(), NPY_OBJECT));
    if (form.size > 0) {
        Rows rows(form);
        auto **elements = static_cast<PyObject **>(PyArray_DATA(as_array(array)));
        check_status(mod.core->linexprs(model.as<ModelObject>(), form.size, rows.ptr.data(), rows.ids.data(),
                                        rows.coef.data(), 1.0, rows.constants.data(), elements));
    }
    return array;
}

void exchange_contents(PyObject *region, PyObject *contents) {
    Ref targets = contiguous_objects(region), sources = contiguous_objects(contents);
    int64_t n = PyArray_SIZE(as_array(targets));
    auto **to = static_cast<PyObject **>(PyArray_DATA(as_array(targets)));
    auto **from = static_cast<PyObject **>(PyArray_DATA(as_array(sources)));
    for (int64_t i = 0; i < n; ++i)
        if (!is_linexpr(to[i]))
            fail(PyExc_TypeError, "cannot assign to an element that is no LinExpr but '%.200s'",
                 Py_TYPE(to[i] ? to[i] : Py_None)->tp_name);
    for (int64_t i = 0; i < n; ++i) {
        LinExprObject *a = linexpr(to[i]), *b = linexpr(from[i]);
        std::swap(a->constant, b->constant);
        std::swap(a->coeffs, b->coeffs);
        std::swap(a->vars, b->vars);
    }
}

} // namespace tarvopy
