// The ways from one state of MLinExpr to another: joining parts, compact to full, copies, new values in place.
//
//   A @ x + y       two parts          join_parts          one part over both variable vectors
//   A @ x           CompactNative      convert_to_full     Flat, over the same buffers
//
// Where parts are of several models or over foreign elements there is no native form: then the documented Python
// operations run.
#include "matrixapi/mlinexpr_dict.h"
#include "matrixapi/mvar.h"
#include "matrixapi/operands.h"

#include "pysupport/numpy.h"

namespace tarvopy {

using namespace pysupport;

// ---- parts --------------------------------------------------------------------------------------------------------

void set_parts(PyObject *expr, std::vector<Part> parts, Ref model) {
    LinearNative *native = linear_of(expr);
    if (native && native->compact) {
        native->parts = std::move(parts);
        native->model = std::move(model);
        native->stamp = LinearNative::next_stamp();
    } else {
        auto made = std::make_unique<LinearNative>();
        made->compact = true;
        made->parts = std::move(parts);
        made->model = std::move(model);
        Ref old = Ref::borrow(stored(expr, names._matmulparts)); // outlives the change of state
        install(expr, std::move(made));
        forget(expr, names._matmulparts);
        forget(expr, names._learr);
    }
    if (eager || is_watched(expr))
        matmulparts(expr);
}

namespace {

bool is_uniform(const std::vector<Part> &parts) {
    return std::all_of(parts.begin(), parts.end(), [&](const Part &part) {
        return part.summand.coef.empty() && flat::same_bits(part.summand.scale, parts[0].summand.scale);
    });
}

// Where the rows of the joined matrix begin; equal lengths need no pointers.
void measure(const std::vector<Part> &parts, flat::Summand &result) {
    bool ragged = std::any_of(parts.begin(), parts.end(), [](const Part &part) { return !part.summand.ptr.empty(); });
    if (!ragged) {
        for (const Part &part : parts)
            result.width += part.summand.width;
        return;
    }
    result.ptr = flat::Buffer<int64_t>(result.nrows + 1);
    int64_t *ptr = result.ptr.write();
    std::fill_n(ptr, result.nrows + 1, 0);
    for (const Part &part : parts)
        for (int64_t row = 0; row <= result.nrows; ++row)
            ptr[row] += part.summand.begin(row);
}

// Row by row, so that every part is read and the result written as one stream.
void fill(const std::vector<Part> &parts, flat::Summand &result) {
    int32_t *cols = result.cols.write();
    double *coef = result.coef.write();
    for (int64_t row = 0; row < result.nrows; ++row) {
        int32_t shift = 0;
        for (const Part &part : parts) {
            for (int64_t k = part.summand.begin(row), end = part.summand.end(row); k < end; ++k) {
                *cols++ = part.summand.column(k) + shift;
                if (coef)
                    *coef++ = part.summand.coefficient(k);
            }
            shift += static_cast<int32_t>(part.columns());
        }
    }
}

flat::Buffer<int32_t> all_ids(const std::vector<Part> &parts) {
    int64_t columns = 0;
    for (const Part &part : parts)
        columns += part.columns();
    if (columns > INT32_MAX)
        fail(PyExc_ValueError, "the parts have too many variables to be joined: %lld", static_cast<long long>(columns));
    flat::Buffer<int32_t> ids(columns);
    int32_t *to = ids.write();
    for (const Part &part : parts)
        to = std::copy_n(part.vector->ids.data(), part.columns(), to);
    return ids;
}

} // namespace

Part joined(const std::vector<Part> &parts) {
    if (parts.size() == 1)
        return parts[0];
    flat::Buffer<int32_t> ids = all_ids(parts);
    int64_t total = 0;
    for (const Part &part : parts)
        total += part.summand.nnz();
    flat::Summand result;
    result.nrows = parts[0].summand.nrows;
    measure(parts, result);
    result.cols = flat::Buffer<int32_t>(total);
    if (is_uniform(parts))
        result.scale = parts[0].summand.scale;
    else
        result.coef = flat::Buffer<double>(total);
    fill(parts, result);
    return make_part(std::move(result), std::move(ids));
}

namespace {

// Parts of several models or with foreign elements: SciPy and NumPy join what is there.
void join_made(PyObject *expr, const Ref &given) {
    Ref list = check(PySequence_Fast(given.get(), "_matmulparts must be a list"));
    Ref matrices = check(PyList_New(0)), vectors = check(PyList_New(0));
    for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(list.get()); ++i) {
        Ref pair = check(PySequence_Tuple(PySequence_Fast_GET_ITEM(list.get(), i)));
        if (PyTuple_GET_SIZE(pair.get()) != 2)
            fail(PyExc_ValueError, "a part must be a pair (A, x)");
        check_status(PyList_Append(matrices.get(), PyTuple_GET_ITEM(pair.get(), 0)));
        check_status(PyList_Append(vectors.get(), vararr_of(PyTuple_GET_ITEM(pair.get(), 1)).get()));
    }
    Ref hstack = check(PyObject_GetAttr(scipy_sparse(), names.hstack));
    Ref arguments = check(PyTuple_Pack(1, matrices.get()));
    Ref keywords = check(Py_BuildValue("{s:s}", "format", "csr"));
    Ref matrix = check(PyObject_Call(hstack.get(), arguments.get(), keywords.get()));
    Ref vector = check(PyObject_CallOneArg(numpy_function(names.concatenate).get(), vectors.get()));
    Ref mvar = wrap_mvar(vector.get());
    Ref joined_list = check(Py_BuildValue("[(OO)]", matrix.get(), mvar.get()));
    store(expr, names._matmulparts, joined_list.get());
}

} // namespace

void join_parts(PyObject *expr) {
    if (!is_compact(expr))
        fail(PyExc_TypeError, "a full MLinExpr has no parts");
    if (!linear_of(expr) && number_of_parts(expr) < 2)
        return;
    std::vector<Part> parts;
    Ref model;
    if (!native_parts(expr, parts, model)) // checks the rows of a single part too
        join_made(expr, matmulparts(expr));
    else if (parts.size() > 1)
        set_parts(expr, {joined(parts)}, model);
}

void become_flat(PyObject *expr, flat::Form form, Ref model) {
    auto native = std::make_unique<LinearNative>();
    native->form = std::move(form);
    native->model = std::move(model);
    // Old values die only after the new state stands.
    Ref old_learr = Ref::borrow(stored(expr, names._learr)), old_parts = Ref::borrow(stored(expr, names._matmulparts)),
        old_const = Ref::borrow(stored(expr, names._const));
    if (is_watched(expr)) {
        become_objects(expr, linexpr_array(native->form, native->model));
        return;
    }
    install(expr, std::move(native));
    forget(expr, names._learr);
    forget(expr, names._matmulparts);
    forget(expr, names._const);
    if (eager)
        learr(expr);
}

void become_objects(PyObject *expr, Ref learr) {
    store_documented(expr, learr.get(), Py_None, Py_None);
}

namespace {

// Element by element, for parts over foreign elements or several models: LinExpr decides what it takes.
Ref elementwise_full(PyObject *expr) {
    Ref list = matmulparts(expr);
    Ref items = check(PySequence_Fast(list.get(), "_matmulparts must be a list"));
    flat::Form form;
    Ref model;
    form.shape = shape_of(expr);
    form.size = flat::size_of(form.shape);
    Ref constant =
        check(PyArray_FROMANY(const_array(expr), NPY_DOUBLE, 0, 0, NPY_ARRAY_CARRAY_RO | NPY_ARRAY_ENSUREARRAY));
    form.constant.values = flat::Buffer<double>::copy_of(doubles(constant), form.size);
    Ref array = linexpr_array(form, model);
    auto **elements = static_cast<PyObject **>(PyArray_DATA(as_array(array)));
    for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(items.get()); ++i) {
        Ref pair = check(PySequence_Tuple(PySequence_Fast_GET_ITEM(items.get(), i)));
        if (PyTuple_GET_SIZE(pair.get()) != 2 || !is_mvar(PyTuple_GET_ITEM(pair.get(), 1)))
            fail(PyExc_ValueError, "a part must be a pair (csr_matrix, MVar)");
        flat::Csr csr = csr_of(PyTuple_GET_ITEM(pair.get(), 0));
        Ref vars = contiguous_objects(vararr_of(PyTuple_GET_ITEM(pair.get(), 1)).get());
        if (csr.rows != form.size || csr.cols != PyArray_SIZE(as_array(vars)))
            fail(PyExc_ValueError,
                 "a part has a matrix of %lld rows and %lld columns for %lld elements and %lld variables",
                 static_cast<long long>(csr.rows), static_cast<long long>(csr.cols), static_cast<long long>(form.size),
                 static_cast<long long>(PyArray_SIZE(as_array(vars))));
        auto **columns = static_cast<PyObject **>(PyArray_DATA(as_array(vars)));
        for (int64_t row = 0; row < csr.rows; ++row)
            for (int64_t k = csr.ptr[row]; k < csr.ptr[row + 1]; ++k) {
                PyObject *var = columns[csr.index[k]] ? columns[csr.index[k]] : Py_None;
                check_status(mod.core->linexpr_add(elements[row], var, csr.value[k]));
            }
    }
    return array;
}

} // namespace

void convert_to_full(PyObject *expr) {
    if (!is_compact(expr))
        return;
    flat::Form form;
    Ref model;
    if (flat_value(expr, form, model)) {
        if (is_compact(expr)) // reading a list runs Python code
            become_flat(expr, std::move(form), std::move(model));
        return;
    }
    Ref array = elementwise_full(expr);
    if (is_compact(expr))
        become_objects(expr, std::move(array));
}

Ref to_full(PyObject *expr) {
    if (!is_compact(expr))
        return copy_full(expr);
    join_parts(expr);
    flat::Form form;
    Ref model;
    if (flat_value(expr, form, model))
        return make_flat(mod.MLinExpr, std::move(form), std::move(model));
    return make_objects(mod.MLinExpr, elementwise_full(expr));
}

Ref copy_full(PyObject *expr) {
    convert_to_full(expr);
    flat::Form form;
    Ref model;
    if (flat_value(expr, form, model))
        return make_flat(mod.MLinExpr, std::move(form), std::move(model));
    Ref from = contiguous_objects(learr(expr).get());
    flat::Shape shape = shape_of_array(from.get());
    std::vector<npy_intp> dims(shape.begin(), shape.end());
    Ref to = check(PyArray_SimpleNew(static_cast<int>(dims.size()), dims.data(), NPY_OBJECT));
    auto **source = static_cast<PyObject **>(PyArray_DATA(as_array(from)));
    auto **target = static_cast<PyObject **>(PyArray_DATA(as_array(to)));
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(from)); ++i)
        target[i] = check(PyObject_CallMethodNoArgs(source[i] ? source[i] : Py_None, names.copy)).release();
    return make_objects(mod.MLinExpr, std::move(to));
}

Ref copy_compact(PyObject *expr) {
    join_parts(expr);
    Ref constant = check(PyArray_NewCopy(as_array(const_array(expr)), NPY_CORDER));
    std::vector<Part> parts;
    Ref model;
    if (native_parts(expr, parts, model))
        return make_compact(mod.MLinExpr, std::move(parts), std::move(constant), std::move(model));
    Ref list = matmulparts(expr);
    Ref pair = check(PySequence_GetItem(list.get(), 0));
    Ref given = check(PySequence_Tuple(pair.get()));
    if (PyTuple_GET_SIZE(given.get()) != 2)
        fail(PyExc_ValueError, "a part must be a pair (A, x)");
    Ref matrix = check(PyObject_CallMethodNoArgs(PyTuple_GET_ITEM(given.get(), 0), names.copy));
    Ref copied = check(Py_BuildValue("[(OO)]", matrix.get(), PyTuple_GET_ITEM(given.get(), 1)));
    return make_compact_pairs(mod.MLinExpr, copied, constant);
}

Ref copy_of(PyObject *expr) {
    return is_compact(expr) && keep_compact(mod.MLinExpr) ? copy_compact(expr) : copy_full(expr);
}

void take_over(PyObject *expr, flat::Form form, Ref model) {
    prepare_change(expr);
    if (state_of(expr) != State::Objects)
        return become_flat(expr, std::move(form), std::move(model));
    Ref contents = linexpr_array(form, model);
    exchange_contents(learr(expr).get(), contents.get());
}

} // namespace tarvopy
