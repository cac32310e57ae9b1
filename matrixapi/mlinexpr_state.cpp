// The states of MLinExpr: the documented attributes over the native form, and the ways from one state to the next.
//
//   e._matmulparts     CompactNative: makes the pairs, drops the native parts, and the list rules from then on
//   e._learr           Flat: makes the LinExpr objects, drops the form, and the array rules
//   e._learr = a       drops the native form; what the other attributes showed stays
#include "matrixapi/mlinexpr.h"

#include "matrixapi/dict_members.h"
#include "matrixapi/methods.h"
#include "matrixapi/mlinexpr_dict.h"
#include "matrixapi/mlinexpr_operators.h"
#include "matrixapi/mvar.h"
#include "matrixapi/operands.h"

#include "pysupport/args.h"
#include "pysupport/numpy.h"

namespace tarvopy {

using namespace pysupport;

int LinearNative::traverse(visitproc visit, void *arg) {
    Py_VISIT(model.get());
    // A vector that several expressions share is one reference counted once: only its single owner may show it to the
    // collector.
    for (const Part &part : parts)
        if (part.vector.use_count() == 1)
            Py_VISIT(part.vector->mvar.get());
    return 0;
}

void LinearNative::lay_out() {
    flat::Csr rows = flat::compressed(given);
    flat::Summand &summand = parts[0].summand;
    summand.nrows = rows.rows;
    summand.ptr = std::move(rows.ptr);
    summand.cols = std::move(rows.index);
    summand.coef = std::move(rows.value);
    given = {};
}

Part make_part(flat::Summand summand, flat::Buffer<int32_t> ids) {
    return make_part(std::move(summand), std::make_shared<VarVector>(VarVector{std::move(ids), {}}));
}

Part make_part(flat::Summand summand, SharedVector vector) {
    summand.vars = vector->ids;
    return {std::move(summand), std::move(vector)};
}

Part identity_part(flat::Buffer<int32_t> ids, double scale) {
    flat::Summand summand;
    summand.nrows = ids.size();
    summand.width = 1;
    summand.scale = scale;
    return make_part(std::move(summand), std::move(ids));
}

bool merge_models(Ref &model, const Ref &other) {
    if (!other || model.is(other.get()))
        return true;
    if (model)
        return false;
    model = other;
    return true;
}

// ---- the dictionary -----------------------------------------------------------------------------------------------

PyObject *documented(PyObject *expr, PyObject *name) {
    PyObject *value = stored(expr, name);
    if (!value)
        fail(PyExc_AttributeError, "'%.200s' object has no attribute '%U'", Py_TYPE(expr)->tp_name, name);
    return value;
}

void show(PyObject *expr, PyObject *learr, PyObject *parts, PyObject *constant) {
    Ref entries = check(PyDict_New());
    check_status(PyDict_SetItem(entries.get(), names._learr, learr));
    check_status(PyDict_SetItem(entries.get(), names._matmulparts, parts));
    check_status(PyDict_SetItem(entries.get(), names._const, constant));
    check_status(PyDict_Update(entries.get(), instance_dict(expr)));
    refill(expr, entries);
}

void store_documented(PyObject *expr, PyObject *learr, PyObject *parts, PyObject *constant) {
    // Old values die only after the new state stands.
    Ref old[] = {Ref::borrow(stored(expr, names._learr)), Ref::borrow(stored(expr, names._matmulparts)),
                 Ref::borrow(stored(expr, names._const))};
    if (linear_of(expr) || !old[0] || !old[1] || !old[2]) {
        for (PyObject *name : {names._learr, names._matmulparts, names._const})
            forget(expr, name);
        show(expr, learr, parts, constant);
    } else {
        store(expr, names._learr, learr);
        store(expr, names._matmulparts, parts);
        store(expr, names._const, constant);
    }
    drop_native(expr);
}

void forget(PyObject *expr, PyObject *name) {
    if (stored(expr, name))
        check_status(PyDict_DelItem(instance_dict(expr), name));
}

bool is_watched(PyObject *expr) {
    return matrix(expr)->dict && Py_REFCNT(matrix(expr)->dict) > 1;
}

void install(PyObject *expr, std::unique_ptr<LinearNative> native) {
    drop_native(expr);
    matrix(expr)->native = native.release();
}

void make_all(PyObject *expr) {
    LinearNative *native = linear_of(expr);
    if (native && native->compact)
        matmulparts(expr);
    else if (native)
        learr(expr);
}

Py_ssize_t number_of_parts(PyObject *expr) {
    if (LinearNative *native = linear_of(expr))
        return static_cast<Py_ssize_t>(native->parts.size());
    return check_value(PyObject_Size(documented(expr, names._matmulparts)));
}

bool assertions_on() {
    static const bool on = [] {
        PyObject *flags = PySys_GetObject("flags"); // borrowed
        Ref level = Ref::steal(flags ? PyObject_GetAttrString(flags, "optimize") : nullptr);
        bool optimised = level && PyLong_AsLong(level.get()) > 0;
        PyErr_Clear();
        return !optimised;
    }();
    return on;
}

State state_of(PyObject *expr) {
    if (LinearNative *native = native_linear(expr))
        return native->compact ? State::CompactNative : State::Flat;
    return documented(expr, names._matmulparts) == Py_None ? State::Objects : State::CompactMade;
}

PyObject *const_array(PyObject *expr) {
    PyObject *array = documented(expr, names._const);
    need_numpy();
    if (!PyArray_Check(array))
        fail(PyExc_TypeError, "_const of a compact MLinExpr must be a numpy.ndarray, not '%.200s'",
             Py_TYPE(array)->tp_name);
    return array;
}

flat::Shape shape_of(PyObject *expr) {
    switch (state_of(expr)) {
    case State::Flat:
        return linear_of(expr)->form.shape;
    case State::Objects:
        return shape_of_array(learr(expr).get());
    default:
        return shape_of_array(const_array(expr));
    }
}

bool allows_compact(const flat::Shape &shape) {
    return shape.size() < 3 && std::count_if(shape.begin(), shape.end(), [](int64_t extent) { return extent > 1; }) < 2;
}

Ref shape_tuple(const flat::Shape &shape) {
    Ref tuple = check(PyTuple_New(static_cast<Py_ssize_t>(shape.size())));
    for (size_t d = 0; d < shape.size(); ++d)
        PyTuple_SET_ITEM(tuple.get(), static_cast<Py_ssize_t>(d), check(PyLong_FromLongLong(shape[d])).release());
    return tuple;
}

bool keep_compact(PyObject *cls) {
    Ref value = check(PyObject_GetAttr(cls, names._keep_compact));
    if (value.is(Py_True))
        return true;
    static PyObject *const one = PyLong_FromLong(1);
    return check_status(PyObject_RichCompareBool(value.get(), one, Py_EQ)) != 0;
}

// ---- making expressions -------------------------------------------------------------------------------------------

Ref make_flat(PyObject *cls, flat::Form form, Ref model) {
    auto native = std::make_unique<LinearNative>();
    native->form = std::move(form);
    native->model = std::move(model);
    Ref expr = new_instance(cls, std::move(native));
    if (eager)
        learr(expr.get());
    return expr;
}

Ref make_compact(PyObject *cls, std::vector<Part> parts, Ref const_array, Ref model) {
    auto native = std::make_unique<LinearNative>();
    native->compact = true;
    if (PyArray_SIZE(as_array(const_array)) > 0) {
        native->parts = std::move(parts);
        native->model = std::move(model);
    }
    Ref expr = new_instance(cls, std::move(native));
    store(expr.get(), names._const, const_array.get());
    if (eager)
        matmulparts(expr.get());
    return expr;
}

Ref make_compact_given(PyObject *cls, flat::Coo matrix, flat::Buffer<int32_t> ids, Ref const_array, Ref model) {
    auto native = std::make_unique<LinearNative>();
    native->compact = true;
    native->parts.push_back(make_part(flat::Summand(), std::move(ids)));
    native->given = std::move(matrix);
    native->model = std::move(model);
    Ref expr = new_instance(cls, std::move(native));
    store(expr.get(), names._const, const_array.get());
    if (eager)
        matmulparts(expr.get());
    return expr;
}

Ref make_compact_pairs(PyObject *cls, const Ref &list, const Ref &const_array) {
    Ref expr = new_instance(cls, nullptr);
    show(expr.get(), Py_None, list.get(), const_array.get());
    return expr;
}

Ref make_objects(PyObject *cls, Ref learr) {
    Ref expr = new_instance(cls, nullptr);
    show(expr.get(), learr.get(), Py_None, Py_None);
    return expr;
}

Ref make_zeros(PyObject *cls, const flat::Shape &shape) {
    if (keep_compact(cls) && allows_compact(shape))
        return make_compact(cls, {}, float_array(shape), {});
    flat::Form form;
    form.shape = shape;
    form.size = flat::size_of(shape);
    return make_flat(cls, std::move(form), {});
}

// ---- the documented attributes, made ------------------------------------------------------------------------------

Ref learr(PyObject *expr) {
    convert_to_full(expr);
    while (LinearNative *native = linear_of(expr)) {
        if (native->membership.shared) {
            make_shared_elements(expr);
            continue;
        }
        flat::Form form = native->form;
        Ref model = native->model;
        uint64_t stamp = native->stamp;
        Ref made = linexpr_array(form, model);
        // What was made is right only if nobody looked or changed the expression meanwhile.
        native = linear_of(expr);
        if (native && native->stamp == stamp) {
            show(expr, made.get(), Py_None, Py_None);
            drop_native(expr);
            return made;
        }
    }
    Ref array = Ref::borrow(documented(expr, names._learr));
    need_numpy();
    if (!PyArray_Check(array.get()))
        fail(PyExc_TypeError, "_learr of an MLinExpr must be a numpy.ndarray, not '%.200s'",
             Py_TYPE(array.get())->tp_name);
    return array;
}

namespace {

Ref int32_indices(const flat::Summand &summand) {
    npy_intp n = summand.nnz();
    Ref array = check(PyArray_SimpleNew(1, &n, NPY_INT32));
    auto *to = static_cast<int32_t *>(PyArray_DATA(as_array(array)));
    for (int64_t k = 0; k < n; ++k)
        to[k] = summand.column(k);
    return array;
}

// Row pointers as narrow as they can be: SciPy would otherwise copy the columns to 64 bits.
Ref pointers(const flat::Summand &summand) {
    npy_intp n = summand.nrows + 1;
    bool narrow = summand.nnz() <= INT32_MAX;
    Ref array = check(PyArray_SimpleNew(1, &n, narrow ? NPY_INT32 : NPY_INT64));
    void *data = PyArray_DATA(as_array(array));
    for (int64_t i = 0; i < n; ++i)
        if (narrow)
            static_cast<int32_t *>(data)[i] = static_cast<int32_t>(summand.begin(i));
        else
            static_cast<int64_t *>(data)[i] = summand.begin(i);
    return array;
}

Ref coefficients(const flat::Summand &summand) {
    npy_intp n = summand.nnz();
    Ref array = check(PyArray_SimpleNew(1, &n, NPY_DOUBLE));
    auto *to = static_cast<double *>(PyArray_DATA(as_array(array)));
    if (summand.coef.empty())
        std::fill_n(to, n, summand.scale);
    else
        std::copy_n(summand.coef.data(), n, to);
    return array;
}

Ref csr_matrix(const Part &part) {
    need_numpy();
    Ref data = coefficients(part.summand), indices = int32_indices(part.summand), indptr = pointers(part.summand);
    Ref triple = check(PyTuple_Pack(3, data.get(), indices.get(), indptr.get()));
    Ref shape = shape_tuple({part.summand.nrows, part.columns()});
    Ref cls = check(PyObject_GetAttr(scipy_sparse(), names.csr_matrix));
    Ref keywords = check(PyTuple_Pack(1, names.shape));
    PyObject *arguments[] = {triple.get(), shape.get()};
    return check(PyObject_Vectorcall(cls.get(), arguments, 1, keywords.get()));
}

} // namespace

Ref vector_mvar(const SharedVector &vector, const Ref &model) {
    if (!vector->mvar) {
        Ref made = new_mvar_vector(vector->ids.size() > 0 ? model.get() : nullptr, vector->ids);
        if (!vector->mvar)
            vector->mvar = made;
    }
    return vector->mvar;
}

Ref part_pair(const Part &part, const Ref &model) {
    Ref matrix = csr_matrix(part), mvar = vector_mvar(part.vector, model);
    return check(PyTuple_Pack(2, matrix.get(), mvar.get()));
}

namespace {

Ref pairs(const std::vector<Part> &parts, const Ref &model) {
    Ref list = check(PyList_New(0));
    for (const Part &part : parts)
        check_status(PyList_Append(list.get(), part_pair(part, model).get()));
    return list;
}

} // namespace

Ref matmulparts(PyObject *expr) {
    for (LinearNative *native = linear_of(expr); native && native->compact; native = linear_of(expr)) {
        std::vector<Part> parts = native->parts;
        Ref model = native->model;
        uint64_t stamp = native->stamp;
        Ref made = pairs(parts, model);
        native = linear_of(expr);
        if (native && native->stamp == stamp) {
            Ref constant = Ref::borrow(documented(expr, names._const));
            show(expr, Py_None, made.get(), constant.get());
            drop_native(expr);
            return made;
        }
    }
    if (!is_compact(expr))
        fail(PyExc_TypeError, "a full MLinExpr has no parts");
    return Ref::borrow(documented(expr, names._matmulparts));
}

// ---- members ------------------------------------------------------------------------------------------------------

namespace {

PyObject *get_documented(PyObject *self, PyObject *name) {
    return border([&] {
        if (LinearNative *native = linear_of(self)) {
            if (name == names._learr)
                return native->compact ? Ref::none() : learr(self);
            if (name == names._matmulparts)
                return native->compact ? matmulparts(self) : Ref::none();
            if (!native->compact)
                return Ref::none();
        }
        return Ref::borrow(documented(self, name));
    });
}

int set_documented(PyObject *self, PyObject *name, PyObject *value) {
    return border_status([&] {
        LinearNative *native = linear_of(self);
        if (native && value && name == (native->compact ? names._matmulparts : names._learr)) {
            // The one that would have to be made is replaced.
            if (native->compact)
                store_documented(self, Py_None, value, Ref::borrow(documented(self, names._const)).get());
            else
                store_documented(self, value, Py_None, Py_None);
            return;
        }
        make_all(self);
        if (value) {
            store(self, name, value);
            return;
        }
        documented(self, name);
        forget(self, name);
    });
}

PyObject *get_learr(PyObject *self, void *) {
    return get_documented(self, names._learr);
}
PyObject *get_matmulparts(PyObject *self, void *) {
    return get_documented(self, names._matmulparts);
}
PyObject *get_const(PyObject *self, void *) {
    return get_documented(self, names._const);
}
int set_learr(PyObject *self, PyObject *value, void *) {
    return set_documented(self, names._learr, value);
}
int set_matmulparts(PyObject *self, PyObject *value, void *) {
    return set_documented(self, names._matmulparts, value);
}
int set_const(PyObject *self, PyObject *value, void *) {
    return set_documented(self, names._const, value);
}

void expect_attribute(PyObject *self, PyObject *name, bool wanted) {
    if (assertions_on())
        assert_that((documented(self, name) != Py_None) == wanted);
}

PyObject *is_compact_method(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_is_compact", {}, 0};
        Arguments(signature, 1, args, nargs, kwnames);
        bool compact = is_compact(self);
        if (!linear_of(self)) {
            expect_attribute(self, names._const, compact);
            expect_attribute(self, names._learr, !compact);
        }
        return Ref::borrow(compact ? Py_True : Py_False);
    });
}

Ref leading_extent(PyObject *self) {
    PyObject *array = documented(self, names._const);
    return check(PyObject_GetAttr(array, names.size));
}

} // namespace

std::span<Member> state_members() {
    static Member members[] = {
        property("_learr", get_learr, set_learr,
                 "The LinExpr objects, an object array of the expression's shape; None in the compact state.\n\n"
                 "They are made when this is first read; from then on the array is the expression."),
        property("_matmulparts", get_matmulparts, set_matmulparts,
                 "The compact state's list of (csr_matrix, MVar) pairs, one row per element in C order; None in the "
                 "full state."),
        property("_const", get_const, set_const,
                 "The compact state's constants, a float64 array that carries the shape; None in the full state."),
        dict_member<make_all>(),
        state_member<make_all>(),
        method("_is_compact", is_compact_method,
               "_is_compact($self)\n--\n\nWhether the expression is in the compact state."),
        plain<"_to_full", to_full>("_to_full($self)\n--\n\nA new full expression of the same value."),
        plain<"_convert_to_full", convert_to_full>(
            "_convert_to_full($self)\n--\n\nBrings the expression itself to the full state, which it never leaves."),
        plain<"_leading_adim", leading_extent>(
            "_leading_adim($self)\n--\n\nThe number of rows of every part's matrix: the number of elements."),
        plain<"copy", copy_of>(
            "copy($self)\n--\n\nAn independent expression of the same shape and value, compact where this one is."),
        plain<"_copy_full", copy_full>("_copy_full($self)\n--\n\nA full copy; a compact receiver is converted first."),
        plain<"_copy_compact", copy_compact>("_copy_compact($self)\n--\n\nA compact copy with at most one part."),
    };
    return members;
}

} // namespace tarvopy
