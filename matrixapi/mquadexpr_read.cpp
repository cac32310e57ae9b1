// Between objects and numbers: QuadExpr read into forms, forms made into QuadExpr, and the documented triples
// (MVar, coo_matrix, MVar) of the compact state.
//
// Reading changes nothing and runs no Python code, except for the attributes of SciPy's matrices.
#include "matrixapi/mquadexpr_dict.h"
#include "matrixapi/mvar.h"
#include "matrixapi/operands.h"

#include "pysupport/numpy.h"

#include <numeric>

namespace tarvopy {

using namespace pysupport;

namespace {

bool is_quadexpr(PyObject *object) {
    return object && PyObject_TypeCheck(object, mod.core->QuadExpr);
}
QuadExprObject *quadexpr(PyObject *object) {
    return reinterpret_cast<QuadExprObject *>(object);
}
PyObject **elements_in(const Ref &contiguous) {
    return static_cast<PyObject **>(PyArray_DATA(as_array(contiguous)));
}
Ref object_array(const flat::Shape &shape) {
    need_numpy();
    std::vector<npy_intp> dims(shape.begin(), shape.end());
    return check(PyArray_SimpleNew(static_cast<int>(dims.size()), dims.data(), NPY_OBJECT));
}

[[noreturn]] void fail_shapes(const flat::Shape &qearr, const flat::Shape &ndle) {
    fail(PyExc_ValueError, "_qearr and _ndle of an MQuadExpr have different shapes: %S and %S",
         shape_tuple(qearr).get(), shape_tuple(ndle).get());
}

// ---- QuadExpr objects ---------------------------------------------------------------------------------------------

bool has_linear(PyObject *element) {
    auto *linear = reinterpret_cast<LinExprObject *>(quadexpr(element)->linear);
    return linear && (linear->constant != 0.0 || PyList_GET_SIZE(linear->vars) > 0);
}

// The linear parts of all elements; an empty expression stands for those that have none.
bool read_inner(PyObject *const *elements, const flat::Shape &shape, flat::Form &inner, Ref &model) {
    inner = {};
    inner.shape = shape;
    inner.size = flat::size_of(shape);
    if (std::none_of(elements, elements + inner.size, has_linear))
        return true;
    Ref zero = check(mod.core->linexpr_new(0.0)), inner_model;
    std::vector<PyObject *> linear(elements, elements + inner.size);
    for (PyObject *&element : linear)
        element = quadexpr(element)->linear ? quadexpr(element)->linear : zero.get();
    return read_linexprs(linear.data(), shape, inner, inner_model) && merge_models(model, inner_model);
}

// Row pointers of the term lists; equal lengths need none.
void measure(PyObject *const *elements, flat::QuadSummand &summand) {
    int64_t n = summand.nrows;
    auto length = [&](int64_t i) { return PyList_GET_SIZE(quadexpr(elements[i])->coeffs); };
    summand.width = n > 0 ? length(0) : 0;
    int64_t same = 0;
    while (same < n && length(same) == summand.width)
        ++same;
    if (same == n)
        return;
    summand.width = 0;
    summand.ptr = flat::Buffer<int64_t>(n + 1);
    int64_t *ptr = summand.ptr.write();
    ptr[0] = 0;
    for (int64_t i = 0; i < n; ++i)
        ptr[i + 1] = ptr[i] + length(i);
}

VarObject *variable(PyObject *list, Py_ssize_t k) {
    return reinterpret_cast<VarObject *>(PyList_GET_ITEM(list, k));
}

// Writes all terms; false where two models meet.
bool read_terms(PyObject *const *elements, flat::QuadSummand &summand, Ref &model) {
    int64_t nnz = summand.nnz();
    summand.vars1 = flat::Buffer<int32_t>(nnz);
    summand.vars2 = flat::Buffer<int32_t>(nnz);
    summand.coef = flat::Buffer<double>(nnz);
    int32_t *ids1 = summand.vars1.write(), *ids2 = summand.vars2.write();
    double *coef = summand.coef.write();
    ModelObject *handle = nullptr;
    bool mixed = false;
    for (int64_t i = 0; i < summand.nrows; ++i) {
        QuadExprObject *row = quadexpr(elements[i]);
        for (Py_ssize_t k = 0, terms = PyList_GET_SIZE(row->coeffs); k < terms; ++k) {
            VarObject *first = variable(row->vars1, k), *second = variable(row->vars2, k);
            handle = handle ? handle : first->cmodel;
            mixed |= first->cmodel != handle || second->cmodel != handle;
            *ids1++ = first->id;
            *ids2++ = second->id;
            *coef++ = PyFloat_AS_DOUBLE(PyList_GET_ITEM(row->coeffs, k));
        }
    }
    model = Ref::borrow(reinterpret_cast<PyObject *>(handle));
    return !mixed;
}

} // namespace

bool is_zero(const flat::Form &form) {
    return form.nnz() == 0 && form.constant.values.empty() && form.constant.uniform == 0.0;
}

bool read_quadexprs(PyObject *const *elements, const flat::Shape &shape, flat::QuadForm &form, flat::Form &inner,
                    Ref &model) {
    form = flat::zero_quad(shape);
    model = {};
    if (!std::all_of(elements, elements + form.size, is_quadexpr))
        return false;
    flat::QuadSummand summand;
    summand.nrows = form.size;
    measure(elements, summand);
    if (summand.nnz() > 0) {
        if (!read_terms(elements, summand, model))
            return false;
        form.summands.push_back(std::move(summand));
    }
    return read_inner(elements, shape, inner, model);
}

bool quad_of_quadexpr(PyObject *object, flat::QuadForm &form, flat::Form &linear, Ref &model) {
    return read_quadexprs(&object, {}, form, linear, model);
}

Ref quadexpr_array(const flat::QuadForm &form, const Ref &model) {
    Ref array = object_array(form.shape);
    if (form.size == 0)
        return array;
    int64_t nnz = form.nnz();
    flat::Buffer<int64_t> ptr(form.size + 1);
    flat::Buffer<int32_t> ids1(nnz), ids2(nnz);
    flat::Buffer<double> coef(nnz);
    flat::write_rows(form.summands, form.size, ptr.write(), ids1.write(), ids2.write(), coef.write());
    check_status(mod.core->quadexprs(model.as<ModelObject>(), form.size, ptr.data(), ids1.data(), ids2.data(),
                                     coef.data(), 1.0, elements_in(array)));
    return array;
}

void expect_quadexprs(PyObject *region) {
    Ref targets = contiguous_objects(region);
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(targets)); ++i)
        if (PyObject *element = elements_in(targets)[i]; !is_quadexpr(element))
            fail(PyExc_TypeError, "an element of an MQuadExpr is no QuadExpr but '%.200s'",
                 Py_TYPE(element ? element : Py_None)->tp_name);
}

namespace {

// A linear part that somebody got from getLinExpr() stays this expression's own and shows the new contents.
void exchange_linear(QuadExprObject *target, QuadExprObject *source) {
    if (!target->linear || !source->linear)
        return std::swap(target->linear, source->linear);
    auto *a = reinterpret_cast<LinExprObject *>(target->linear);
    auto *b = reinterpret_cast<LinExprObject *>(source->linear);
    std::swap(a->constant, b->constant);
    std::swap(a->coeffs, b->coeffs);
    std::swap(a->vars, b->vars);
}

} // namespace

QuadExchange::QuadExchange(PyObject *region, PyObject *contents) : sources_(contiguous_objects(contents)) {
    expect_quadexprs(region);
    Ref targets = contiguous_objects(region);
    const npy_intp n = PyArray_SIZE(as_array(targets));
    targets_.reserve(static_cast<size_t>(n));
    bool any_linear = false; // a target that comes twice may get its linear part on the way
    for (npy_intp i = 0; i < n; ++i) {
        targets_.push_back(Ref::borrow(elements_in(targets)[i]));
        any_linear |= quadexpr(elements_in(targets)[i])->linear || quadexpr(elements_in(sources_)[i])->linear;
    }
    for (npy_intp i = 0; any_linear && i < n; ++i)
        if (!mod.core->quadexpr_linear(elements_in(sources_)[i]))
            throw PythonError{};
}

void QuadExchange::run() {
    PyObject **source = elements_in(sources_);
    for (const Ref &target : targets_) {
        QuadExprObject *a = quadexpr(target.get()), *b = quadexpr(*source++);
        exchange_linear(a, b);
        std::swap(a->coeffs, b->coeffs);
        std::swap(a->vars1, b->vars1);
        std::swap(a->vars2, b->vars2);
    }
}

Ref copied_quadexprs(PyObject *array) {
    Ref from = contiguous_objects(array), to = object_array(shape_of_array(array));
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(from)); ++i) {
        PyObject *element = elements_in(from)[i] ? elements_in(from)[i] : Py_None;
        Py_XSETREF(elements_in(to)[i], is_quadexpr(element)
                                           ? check(mod.core->quadexpr_copy(element)).release()
                                           : check(PyObject_CallMethodNoArgs(element, names.copy)).release());
    }
    return to;
}

namespace {

// The elements of one half in C order, new or the expression's own; they are only read.
Ref linear_elements(PyObject *ndle) {
    flat::Form form;
    Ref model;
    if (flat_value(ndle, form, model))
        return linexpr_array(form, model);
    Ref full = is_compact(ndle) ? to_full(ndle) : Ref::borrow(ndle);
    return contiguous_objects(learr(full.get()).get());
}

Ref quadratic_elements(PyObject *expr) {
    flat::QuadForm form;
    flat::Form inner;
    Ref model;
    if (!quadratic_of(expr) && !is_compact_quad(expr))
        return contiguous_objects(qearr(expr).get());
    if (quad_value(expr, form, model, inner))
        return quadexpr_array(form, model);
    return contiguous_objects(qearr(quad_to_full(expr).get()).get());
}

} // namespace

Ref whole_elements(PyObject *expr) {
    Ref quad = quadratic_elements(expr), linear = linear_elements(ndle_of(expr));
    Ref sums = object_array(shape_of_array(quad.get()));
    if (PyArray_SIZE(as_array(quad)) != PyArray_SIZE(as_array(linear)))
        fail_shapes(shape_of_array(quad.get()), shape_of_array(linear.get()));
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(quad)); ++i) {
        PyObject *q = elements_in(quad)[i], *e = elements_in(linear)[i];
        Py_XSETREF(elements_in(sums)[i], check(PyNumber_Add(q ? q : Py_None, e ? e : Py_None)).release());
    }
    return sums;
}

// ---- parts as SciPy's matrices ------------------------------------------------------------------------------------

namespace {

Ref index_array(const flat::Buffer<int32_t> &given, int64_t n) {
    npy_intp dims = n;
    Ref array = check(PyArray_SimpleNew(1, &dims, NPY_INT32));
    auto *to = static_cast<int32_t *>(PyArray_DATA(as_array(array)));
    given.empty() ? std::iota(to, to + n, 0) : static_cast<void>(std::copy_n(given.data(), n, to));
    return array;
}

Ref coefficient_array(const QuadPart &part) {
    npy_intp dims = part.nnz;
    Ref array = check(PyArray_SimpleNew(1, &dims, NPY_DOUBLE));
    auto *to = static_cast<double *>(PyArray_DATA(as_array(array)));
    part.coef.empty() ? std::fill_n(to, dims, part.scale) : std::copy_n(part.coef.data(), dims, to);
    return array;
}

Ref coo_matrix(const QuadPart &part) {
    need_numpy();
    Ref rows = index_array(part.rows, part.nnz), cols = index_array(part.cols, part.nnz);
    Ref data = coefficient_array(part), indices = check(PyTuple_Pack(2, rows.get(), cols.get()));
    Ref pair = check(PyTuple_Pack(2, data.get(), indices.get()));
    Ref shape = shape_tuple({part.x->ids.size(), part.y->ids.size()});
    Ref cls = check(PyObject_GetAttr(scipy_sparse(), names.coo_matrix)), keywords = check(PyTuple_Pack(1, names.shape));
    PyObject *arguments[] = {pair.get(), shape.get()};
    return check(PyObject_Vectorcall(cls.get(), arguments, 1, keywords.get()));
}

QuadPart part_of(flat::Coo entries) {
    QuadPart part;
    part.nnz = entries.nnz();
    part.rows = std::move(entries.row);
    part.cols = std::move(entries.col);
    part.coef = std::move(entries.value);
    return part;
}

flat::Coo dense_entries(PyObject *matrix) {
    Ref array = check(PyArray_FROMANY(matrix, NPY_DOUBLE, 2, 2, NPY_ARRAY_CARRAY_RO | NPY_ARRAY_ENSUREARRAY));
    return flat::entries_of(flat::nonzeros(dense_of(array)));
}

} // namespace

QuadPart entries_of(PyObject *matrix, int64_t rows, int64_t cols) {
    need_numpy();
    Ref given = check(PyObject_GetAttr(matrix, names.shape));
    flat::Shape shape = shape_of_tuple(given.get());
    if (shape != flat::Shape{rows, cols})
        fail(PyExc_ValueError, "a matrix of shape %S for %lld and %lld variables", shape_tuple(shape).get(),
             static_cast<long long>(rows), static_cast<long long>(cols));
    return part_of(is_sparse(matrix) ? entries_of(stored_matrix(matrix, shape)) : dense_entries(matrix));
}

Ref part_triple(const QuadPart &part, const Ref &model) {
    Ref matrix = coo_matrix(laid_out(part)), x = vector_mvar(part.x, model), y = vector_mvar(part.y, model);
    return check(PyTuple_Pack(3, x.get(), matrix.get(), y.get()));
}

namespace {

// The vector of an MVar; parts over the same MVar share it. Empty where ids do not exist.
SharedVector vector_of(PyObject *mvar, const std::vector<QuadPart> &parts, Ref &model) {
    for (const QuadPart &part : parts)
        for (const SharedVector &vector : {part.x, part.y})
            if (vector && vector->mvar.is(mvar))
                return vector;
    VarIds given;
    if (!is_mvar(mvar) || !mvar_ids(mvar, given) || !merge_models(model, given.model))
        return nullptr;
    return std::make_shared<VarVector>(VarVector{std::move(given.ids), Ref::borrow(mvar)});
}

Ref as_triple(PyObject *object) {
    Ref triple = check(PySequence_Tuple(object));
    if (PyTuple_GET_SIZE(triple.get()) != 3)
        fail(PyExc_ValueError, "a part must be a triple (x, Q, y), not %zd values", PyTuple_GET_SIZE(triple.get()));
    return triple;
}

} // namespace

bool read_triple(PyObject *object, std::vector<QuadPart> &parts, Ref &model) {
    Ref triple = as_triple(object);
    SharedVector x = vector_of(PyTuple_GET_ITEM(triple.get(), 0), parts, model);
    if (!x)
        return false;
    bool same = PyTuple_GET_ITEM(triple.get(), 0) == PyTuple_GET_ITEM(triple.get(), 2);
    SharedVector y = same ? x : vector_of(PyTuple_GET_ITEM(triple.get(), 2), parts, model);
    if (!y)
        return false;
    QuadPart part = entries_of(PyTuple_GET_ITEM(triple.get(), 1), x->ids.size(), y->ids.size());
    part.x = std::move(x);
    part.y = std::move(y);
    parts.push_back(std::move(part));
    return true;
}

bool quad_parts(PyObject *expr, std::vector<QuadPart> &parts, Ref &model) {
    parts.clear();
    model = {};
    if (QuadNative *native = quadratic_of(expr); native && native->compact) {
        parts = native->parts;
        model = native->model;
        return true;
    }
    Ref triples = check(PySequence_Tuple(quadparts(expr).get())); // a list may change while SciPy's attributes are read
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(triples.get()); ++i)
        if (!read_triple(PyTuple_GET_ITEM(triples.get(), i), parts, model))
            return false;
    return true;
}

namespace {

flat::QuadSummand summand_of(const QuadPart &given) {
    QuadPart part = laid_out(given);
    flat::QuadSummand summand;
    summand.nrows = 1;
    summand.width = part.nnz;
    summand.coef = part.coef;
    summand.scale = part.scale;
    summand.vars1 = flat::Buffer<int32_t>(part.nnz);
    summand.vars2 = flat::Buffer<int32_t>(part.nnz);
    int32_t *first = summand.vars1.write(), *second = summand.vars2.write();
    for (int64_t k = 0; k < part.nnz; ++k) {
        first[k] = part.x->ids[part.row(k)];
        second[k] = part.y->ids[part.col(k)];
    }
    return summand;
}

bool compact_value(PyObject *expr, flat::QuadForm &form, Ref &model) {
    std::vector<QuadPart> parts;
    if (!quad_parts(expr, parts, model))
        return false;
    for (const QuadPart &part : parts)
        if (part.nnz > 0 && form.size > 0)
            form.summands.push_back(summand_of(part));
    return true;
}

bool object_value(PyObject *expr, flat::QuadForm &form, flat::Form &inner, Ref &model) {
    Ref array = qearr(expr);
    if (PyArray_TYPE(as_array(array)) != NPY_OBJECT)
        return false;
    Ref elements = contiguous_objects(array.get());
    flat::Shape shape = form.shape;
    return read_quadexprs(elements_in(elements), shape, form, inner, model);
}

} // namespace

flat::Shape consistent_shape(PyObject *expr) {
    flat::Shape shape = quad_shape_of(expr);
    if (is_compact_quad(expr)) {
        if (!allows_compact_quad(shape) || (flat::size_of(shape) == 0 && number_of_quad_parts(expr) > 0))
            fail(PyExc_ValueError, "a compact MQuadExpr cannot have the shape %S of its _ndle",
                 shape_tuple(shape).get());
        return shape;
    }
    QuadNative *native = quadratic_of(expr);
    flat::Shape own = native ? native->form.shape : shape_of_array(qearr(expr).get());
    if (own != shape)
        fail_shapes(own, shape);
    return shape;
}

bool quad_value(PyObject *expr, flat::QuadForm &form, Ref &model, flat::Form &inner) {
    State state = quad_state_of(expr);
    flat::Shape shape = consistent_shape(expr);
    form = flat::zero_quad(shape);
    inner = {};
    inner.shape = shape;
    inner.size = form.size;
    model = {};
    if (state == State::Objects)
        return object_value(expr, form, inner, model);
    if (is_compact(state))
        return compact_value(expr, form, model);
    QuadNative *native = quadratic_of(expr);
    form = native->form;
    model = native->model;
    return true;
}

// ---- parts over variables without ids: what NumPy, SciPy and the scalar objects make of them ------------------------

Ref part_list(PyObject *expr) {
    Ref list = quadparts(expr);
    if (!PyList_Check(list.get()))
        fail(PyExc_TypeError, "_quadparts of an MQuadExpr must be a list, not '%.200s'", Py_TYPE(list.get())->tp_name);
    return list;
}

std::vector<Ref> triples_in(PyObject *list) {
    Ref items = check(PySequence_Tuple(list));
    std::vector<Ref> triples;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(items.get()); ++i) {
        triples.push_back(as_triple(PyTuple_GET_ITEM(items.get(), i)));
        for (Py_ssize_t place : {0, 2})
            if (PyObject *mvar = PyTuple_GET_ITEM(triples.back().get(), place); !is_mvar(mvar))
                fail(PyExc_TypeError, "a part must be a triple (MVar, coo_matrix, MVar), not with a '%.200s'",
                     Py_TYPE(mvar)->tp_name);
    }
    return triples;
}

namespace {

Ref joined_vararrs(const std::vector<Ref> &triples, Py_ssize_t place) {
    Ref arrays = check(PyList_New(0));
    for (const Ref &triple : triples)
        check_status(PyList_Append(arrays.get(), vararr_of(PyTuple_GET_ITEM(triple.get(), place)).get()));
    return wrap_mvar(check(PyObject_CallOneArg(numpy_function(names.concatenate).get(), arrays.get())).get());
}

void add_part(PyObject *sum, const Ref &triple) {
    Ref x = contiguous_objects(vararr_of(PyTuple_GET_ITEM(triple.get(), 0)).get());
    Ref y = contiguous_objects(vararr_of(PyTuple_GET_ITEM(triple.get(), 2)).get());
    QuadPart part = entries_of(PyTuple_GET_ITEM(triple.get(), 1), PyArray_SIZE(as_array(x)), PyArray_SIZE(as_array(y)));
    for (int64_t k = 0; k < part.nnz; ++k) {
        PyObject *first = elements_in(x)[part.row(k)], *second = elements_in(y)[part.col(k)];
        Ref product = check(PyNumber_Multiply(first ? first : Py_None, second ? second : Py_None));
        check_status(mod.core->quadexpr_add(sum, product.get(), part.coefficient(k)));
    }
}

} // namespace

Ref joined_triples(PyObject *list) {
    std::vector<Ref> triples = triples_in(list);
    Ref matrices = check(PyList_New(0));
    for (const Ref &triple : triples)
        check_status(PyList_Append(matrices.get(), PyTuple_GET_ITEM(triple.get(), 1)));
    Ref block_diag = check(PyObject_GetAttrString(scipy_sparse(), "block_diag"));
    Ref arguments = check(PyTuple_Pack(1, matrices.get())), keywords = check(Py_BuildValue("{s:s}", "format", "coo"));
    Ref matrix = check(PyObject_Call(block_diag.get(), arguments.get(), keywords.get()));
    // From any later version of SciPy too: a coo_matrix, not a sparse array.
    matrix = check(PyObject_CallOneArg(check(PyObject_GetAttr(scipy_sparse(), names.coo_matrix)).get(), matrix.get()));
    Ref x = joined_vararrs(triples, 0), y = joined_vararrs(triples, 2);
    return check(Py_BuildValue("[(OOO)]", x.get(), matrix.get(), y.get()));
}

Ref elementwise_sum_of(PyObject *list) {
    Ref sum = check(mod.core->quadexpr_new());
    for (const Ref &triple : triples_in(list))
        add_part(sum.get(), triple);
    return sum;
}

} // namespace tarvopy
