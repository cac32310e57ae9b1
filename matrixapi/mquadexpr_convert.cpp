// The ways from one state of MQuadExpr to another: joining parts, compact to full, copies, new values in place.
//
//   x @ Q @ x + y @ y     two parts         merged                 one block-diagonal part
//   x @ Q @ x             CompactNative     quad_convert_to_full   Flat, one row of terms
#include "matrixapi/mquadexpr_dict.h"
#include "matrixapi/mvar.h"
#include "matrixapi/operands.h"

#include "pysupport/numpy.h"

#include <numeric>

namespace tarvopy {

using namespace pysupport;

// ---- parts --------------------------------------------------------------------------------------------------------

NewQuadParts new_quad_parts(PyObject *expr, std::vector<QuadPart> parts, Ref model) {
    NewQuadParts made{std::make_unique<QuadNative>(), {}};
    if (eager || is_watched(expr)) {
        made.list = check(PyList_New(0));
        for (const QuadPart &part : parts)
            check_status(PyList_Append(made.list.get(), part_triple(part, model).get()));
    }
    made.native->compact = true;
    made.native->parts = std::move(parts);
    made.native->model = std::move(model);
    return made;
}

void set_quad_parts(PyObject *expr, NewQuadParts parts) {
    Ref old = Ref::borrow(stored(expr, names._quadparts)); // outlives the change of state
    if (parts.list) {
        Ref ndle = Ref::borrow(documented(expr, names._ndle));
        return store_quad_documented(expr, Py_None, parts.list.get(), ndle.get());
    }
    install_quad(expr, std::move(parts.native));
    forget(expr, names._quadparts);
    forget(expr, names._qearr);
}

namespace {

SharedVector joined_vectors(const std::vector<QuadPart> &parts, SharedVector QuadPart::*side) {
    int64_t length = 0;
    for (const QuadPart &part : parts)
        length += (part.*side)->ids.size();
    if (length > INT32_MAX)
        fail(PyExc_ValueError, "the parts have too many variables to be joined: %lld", static_cast<long long>(length));
    flat::Buffer<int32_t> ids(length);
    int32_t *to = ids.write();
    for (const QuadPart &part : parts)
        to = std::copy_n((part.*side)->ids.data(), (part.*side)->ids.size(), to);
    return std::make_shared<VarVector>(VarVector{std::move(ids), {}});
}

int32_t *write_indices(const QuadPart &part, const flat::Buffer<int32_t> &indices, int64_t shift, int32_t *to) {
    for (int64_t k = 0; k < part.nnz; ++k)
        to[k] = static_cast<int32_t>((indices.empty() ? k : indices[k]) + shift);
    return to + part.nnz;
}

double *write_coefficients(const QuadPart &part, double *to) {
    return part.coef.empty() ? std::fill_n(to, part.nnz, part.scale) : std::copy_n(part.coef.data(), part.nnz, to);
}

bool is_uniform(const std::vector<QuadPart> &parts) {
    return std::all_of(parts.begin(), parts.end(), [&](const QuadPart &part) {
        return part.coef.empty() && flat::same_bits(part.scale, parts[0].scale);
    });
}

} // namespace

QuadPart laid_out(QuadPart part) {
    if (part.order == QuadPart::AsStored || part.rows.empty())
        return part;
    flat::Csr rows = flat::compressed(
        {part.x->ids.size(), part.y->ids.size(), part.rows, part.cols, part.coef, part.order == QuadPart::Summed});
    part.nnz = rows.nnz();
    part.rows = flat::row_numbers(rows);
    part.cols = std::move(rows.index);
    part.coef = std::move(rows.value);
    part.order = QuadPart::AsStored;
    return part;
}

QuadPart merged(const std::vector<QuadPart> &given) {
    if (given.size() == 1)
        return own_quad_parts(given)[0];
    std::vector<QuadPart> parts = given;
    // Blocks along the diagonal: what puts all of them in order, puts each in order.
    bool alike =
        std::all_of(parts.begin(), parts.end(), [&](const QuadPart &part) { return part.order == parts[0].order; });
    if (!alike)
        std::transform(parts.begin(), parts.end(), parts.begin(), laid_out);
    QuadPart all;
    all.order = parts[0].order;
    all.x = joined_vectors(parts, &QuadPart::x);
    all.y = joined_vectors(parts, &QuadPart::y);
    for (const QuadPart &part : parts)
        all.nnz += part.nnz;
    all.rows = flat::Buffer<int32_t>(all.nnz);
    all.cols = flat::Buffer<int32_t>(all.nnz);
    if (is_uniform(parts))
        all.scale = parts[0].scale;
    else
        all.coef = flat::Buffer<double>(all.nnz);
    int32_t *row = all.rows.write(), *col = all.cols.write();
    double *coef = all.coef.write();
    int64_t down = 0, across = 0;
    for (const QuadPart &part : parts) {
        row = write_indices(part, part.rows, down, row);
        col = write_indices(part, part.cols, across, col);
        coef = coef ? write_coefficients(part, coef) : coef;
        down += part.x->ids.size();
        across += part.y->ids.size();
    }
    return all;
}

void merge_quad_parts(PyObject *expr) {
    if (!is_compact_quad(expr))
        fail(PyExc_TypeError, "a full MQuadExpr has no parts");
    if (number_of_quad_parts(expr) == 0)
        return;
    std::vector<QuadPart> parts;
    Ref model;
    if (quad_parts(expr, parts, model)) {
        set_quad_parts(expr, new_quad_parts(expr, {merged(parts)}, std::move(model)));
        return;
    }
    Ref joined = joined_triples(quadparts(expr).get()), old = Ref::borrow(stored(expr, names._quadparts));
    store(expr, names._quadparts, joined.get());
}

// ---- compact to full, and new values ------------------------------------------------------------------------------

void quad_become_flat(PyObject *expr, flat::QuadForm form, Ref model) {
    Ref ndle = Ref::borrow(ndle_of(expr));
    if (is_watched(expr)) {
        store_quad_documented(expr, quadexpr_array(form, model).get(), Py_None, ndle.get());
        return;
    }
    auto native = std::make_unique<QuadNative>();
    native->form = std::move(form);
    native->model = std::move(model);
    // Old values die only after the new state stands.
    Ref old_array = Ref::borrow(stored(expr, names._qearr)), old_parts = Ref::borrow(stored(expr, names._quadparts));
    install_quad(expr, std::move(native));
    forget(expr, names._qearr);
    forget(expr, names._quadparts);
    if (eager)
        qearr(expr);
}

void quad_take_over(PyObject *expr, flat::QuadForm form, Ref model) {
    prepare_quad_change(expr);
    if (quad_state_of(expr) != State::Objects)
        return quad_become_flat(expr, std::move(form), std::move(model));
    Ref contents = quadexpr_array(form, model);
    QuadExchange(qearr(expr).get(), contents.get()).run();
}

namespace {

// The one element of a compact expression over variables without ids, in an array of its shape.
Ref elementwise_full(PyObject *expr) {
    Ref array = quadexpr_array(flat::zero_quad(quad_shape_of(expr)), {});
    if (PyArray_SIZE(as_array(array)) == 1) {
        Ref sum = elementwise_sum_of(quadparts(expr).get());
        Py_SETREF(*static_cast<PyObject **>(PyArray_DATA(as_array(array))), sum.release());
    }
    return array;
}

// What a full expression of the same value has as its quadratic half.
Ref full_version(PyObject *expr, Ref ndle) {
    flat::QuadForm form;
    flat::Form inner;
    Ref model;
    if (quad_value(expr, form, model, inner))
        return make_quad_flat(mod.MQuadExpr, std::move(form), std::move(ndle), std::move(model));
    return make_quad_objects(mod.MQuadExpr, elementwise_full(expr), std::move(ndle));
}

Ref ndle_copy(PyObject *expr) {
    return copy_of(ndle_of(expr));
}

} // namespace

void quad_convert_to_full(PyObject *expr) {
    if (!is_compact_quad(expr))
        return;
    merge_quad_parts(expr);
    Ref ndle = ndle_copy(expr), full = full_version(expr, ndle);
    if (!is_compact_quad(expr)) // reading a list runs Python code
        return;
    Ref old_ndle = Ref::borrow(stored(expr, names._ndle));
    if (QuadNative *native = quadratic_of(full.get())) {
        store(expr, names._ndle, ndle.get());
        quad_become_flat(expr, native->form, native->model);
    } else {
        store_quad_documented(expr, qearr(full.get()).get(), Py_None, ndle.get());
    }
}

Ref quad_to_full(PyObject *expr) {
    if (!is_compact_quad(expr))
        return quad_copy(expr);
    merge_quad_parts(expr);
    return full_version(expr, ndle_copy(expr));
}

// ---- copies -------------------------------------------------------------------------------------------------------

namespace {

// Vectors of its own, so that no MVar is shared; the numbers are immutable.
QuadPart own_part(QuadPart part) {
    part.x = std::make_shared<VarVector>(VarVector{part.x->ids, {}});
    part.y = std::make_shared<VarVector>(VarVector{part.y->ids, {}});
    return part;
}

} // namespace

std::vector<QuadPart> own_quad_parts(std::vector<QuadPart> parts) {
    for (QuadPart &part : parts)
        part = own_part(std::move(part));
    return parts;
}

Ref copied_triples(PyObject *expr) {
    Ref items = check(PySequence_Tuple(quadparts(expr).get())), result = check(PyList_New(0));
    Ref cls = check(PyObject_GetAttr(scipy_sparse(), names.coo_matrix));
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(items.get()); ++i) {
        PyObject *x, *matrix, *y;
        Ref triple = check(PySequence_Tuple(PyTuple_GET_ITEM(items.get(), i)));
        if (!PyArg_ParseTuple(triple.get(), "OOO", &x, &matrix, &y))
            throw PythonError{};
        Ref arguments = check(PyTuple_Pack(1, matrix)), keywords = check(Py_BuildValue("{s:O}", "copy", Py_True));
        Ref copy = check(PyObject_Call(cls.get(), arguments.get(), keywords.get()));
        Ref own_x = check(PyObject_CallMethodNoArgs(x, names.copy)),
            own_y = check(PyObject_CallMethodNoArgs(y, names.copy));
        check_status(PyList_Append(result.get(), check(PyTuple_Pack(3, own_x.get(), copy.get(), own_y.get())).get()));
    }
    return result;
}

Ref quad_copy_compact(PyObject *expr) {
    merge_quad_parts(expr);
    std::vector<QuadPart> parts;
    Ref model, ndle = ndle_copy(expr);
    if (quad_parts(expr, parts, model))
        return make_quad_compact(mod.MQuadExpr, own_quad_parts(std::move(parts)), std::move(ndle), std::move(model));
    Ref triples = copied_triples(expr), result = new_instance(mod.MQuadExpr, nullptr);
    store_quad_documented(result.get(), Py_None, triples.get(), ndle.get());
    return result;
}

Ref quad_copy_full(PyObject *expr) {
    flat::QuadForm form;
    flat::Form inner;
    Ref model;
    // Linear terms inside the objects stay where they are: then the objects themselves are copied.
    if (quad_value(expr, form, model, inner) && is_zero(inner))
        return make_quad_flat(mod.MQuadExpr, std::move(form), ndle_copy(expr), std::move(model));
    Ref copies = copied_quadexprs(qearr(expr).get());
    return make_quad_objects(mod.MQuadExpr, std::move(copies), ndle_copy(expr));
}

Ref quad_copy(PyObject *expr) {
    return is_compact_quad(expr) ? quad_copy_compact(expr) : quad_copy_full(expr);
}

} // namespace tarvopy
