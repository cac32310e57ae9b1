// The states of MQuadExpr: the documented attributes over the native form, and the way to a new one.
//
//   q._quadparts     CompactNative: makes the triples, drops the native parts, and the list rules from then on
//   q._qearr         Flat: makes the QuadExpr objects, drops the form, and the array rules
//   q._ndle          a real attribute at any time
#include "matrixapi/dict_members.h"
#include "matrixapi/methods.h"
#include "matrixapi/mquadexpr_dict.h"
#include "matrixapi/mvar.h"
#include "matrixapi/operands.h"

#include "pysupport/args.h"
#include "pysupport/numpy.h"

#include "matrixapi/mlinexpr_operators.h"

namespace tarvopy {

using namespace pysupport;

namespace {

int visit_vector(const SharedVector &vector, long owners, visitproc visit, void *arg) {
    if (vector && vector.use_count() == owners)
        Py_VISIT(vector->mvar.get());
    return 0;
}

} // namespace

int QuadNative::traverse(visitproc visit, void *arg) {
    Py_VISIT(model.get());
    // A vector that several expressions share is one reference counted once: only its single owner may show it to the
    // collector.
    for (const QuadPart &part : parts) {
        bool one = part.x == part.y;
        if (int result = visit_vector(part.x, one ? 2 : 1, visit, arg))
            return result;
        if (int result = one ? 0 : visit_vector(part.y, 1, visit, arg))
            return result;
    }
    return 0;
}

// ---- the dictionary -----------------------------------------------------------------------------------------------

void store_quad_documented(PyObject *expr, PyObject *qearr, PyObject *quadparts, PyObject *ndle) {
    PyObject *documented_names[] = {names._qearr, names._quadparts, names._ndle};
    PyObject *values[] = {qearr, quadparts, ndle};
    Ref old[3]; // alive until the expression is whole again
    for (int i = 0; i < 3; ++i)
        old[i] = Ref::borrow(stored(expr, documented_names[i]));
    if (old[0] && old[1] && old[2]) {
        for (int i = 0; i < 3; ++i)
            check_status(PyDict_SetItem(instance_dict(expr), documented_names[i], values[i]));
    } else {
        // Rebuilt, so that the documented attributes stand before what users stored.
        Ref entries = check(PyDict_New());
        for (int i = 0; i < 3; ++i)
            check_status(PyDict_SetItem(entries.get(), documented_names[i], values[i]));
        check_status(PyDict_Merge(entries.get(), instance_dict(expr), 0));
        refill(expr, entries);
    }
    drop_native(expr);
}

void install_quad(PyObject *expr, std::unique_ptr<QuadNative> native) {
    drop_native(expr);
    matrix(expr)->native = native.release();
}

void make_all_quad(PyObject *expr) {
    if (QuadNative *native = quadratic_of(expr))
        native->compact ? quadparts(expr) : qearr(expr);
}

Py_ssize_t number_of_quad_parts(PyObject *expr) {
    if (QuadNative *native = quadratic_of(expr))
        return static_cast<Py_ssize_t>(native->parts.size());
    return check_value(PyObject_Size(documented(expr, names._quadparts)));
}

PyObject *ndle_of(PyObject *expr) {
    PyObject *ndle = documented(expr, names._ndle);
    if (is_mlinexpr(ndle))
        return ndle;
    assert_that(ndle != Py_None);
    fail(PyExc_TypeError, "_ndle of an MQuadExpr must be an MLinExpr, not '%.200s'", Py_TYPE(ndle)->tp_name);
}

flat::Shape quad_shape_of(PyObject *expr) {
    return shape_of(ndle_of(expr));
}

bool allows_compact_quad(const flat::Shape &shape) {
    return shape.size() < 3 && std::all_of(shape.begin(), shape.end(), [](int64_t extent) { return extent <= 1; });
}

namespace {

State stored_state(PyObject *expr) {
    if (QuadNative *native = quadratic_of(expr))
        return native->compact ? State::CompactNative : State::Flat;
    return documented(expr, names._quadparts) == Py_None ? State::Objects : State::CompactMade;
}

void assert_full(PyObject *expr, State state, const flat::Shape &shape) {
    if (state == State::Flat)
        return assert_that(quadratic_of(expr)->form.shape == shape);
    PyObject *array = documented(expr, names._qearr);
    assert_that(array != Py_None);
    if (is_array(array))
        assert_that(shape_of_array(array) == shape);
}

void assert_compact(PyObject *expr, State state, const flat::Shape &shape) {
    assert_that(allows_compact_quad(shape));
    if (state == State::CompactMade)
        assert_that(documented(expr, names._qearr) == Py_None);
}

} // namespace

State quad_state_of(PyObject *expr) {
    State state = stored_state(expr);
    if (!assertions_on())
        return state;
    flat::Shape shape = quad_shape_of(expr);
    is_compact(state) ? assert_compact(expr, state, shape) : assert_full(expr, state, shape);
    return state;
}

// ---- making expressions -------------------------------------------------------------------------------------------

namespace {

Ref new_quad(PyObject *cls, std::unique_ptr<QuadNative> native, const Ref &ndle) {
    Ref expr = new_instance(cls, std::move(native));
    store(expr.get(), names._ndle, ndle.get());
    if (eager)
        make_all_quad(expr.get());
    return expr;
}

} // namespace

Ref make_quad_flat(PyObject *cls, flat::QuadForm form, Ref ndle, Ref model) {
    auto native = std::make_unique<QuadNative>();
    native->form = std::move(form);
    if (native->form.nnz() == 0)
        native->form.summands.clear();
    else
        native->model = std::move(model);
    return new_quad(cls, std::move(native), ndle);
}

Ref make_quad_compact(PyObject *cls, std::vector<QuadPart> parts, Ref ndle, Ref model) {
    auto native = std::make_unique<QuadNative>();
    native->compact = true;
    if (flat::size_of(shape_of(ndle.get())) > 0) {
        native->parts = std::move(parts);
        native->model = std::move(model);
    }
    return new_quad(cls, std::move(native), ndle);
}

Ref make_quad_objects(PyObject *cls, Ref qearr, Ref ndle) {
    Ref expr = new_instance(cls, nullptr);
    store_quad_documented(expr.get(), qearr.get(), Py_None, ndle.get());
    return expr;
}

Ref make_quad_zeros(PyObject *cls, const flat::Shape &shape, bool force_full) {
    Ref ndle = make_zeros(mod.MLinExpr, shape);
    if (!force_full && keep_compact(cls) && allows_compact_quad(shape))
        return make_quad_compact(cls, {}, std::move(ndle), {});
    return make_quad_flat(cls, flat::zero_quad(shape), std::move(ndle), {});
}

Ref quad_from_mlinexpr(PyObject *cls, PyObject *mlinexpr, bool force_full) {
    if (!is_mlinexpr(mlinexpr))
        fail(PyExc_TypeError, "expected an MLinExpr, not '%.200s'", Py_TYPE(mlinexpr)->tp_name);
    Ref result = make_quad_zeros(cls, shape_of(mlinexpr), force_full);
    iadd(ndle_of(result.get()), mlinexpr, 1.0);
    return result;
}

// ---- the documented attributes, made ------------------------------------------------------------------------------

Ref qearr(PyObject *expr) {
    quad_convert_to_full(expr);
    while (QuadNative *native = quadratic_of(expr)) {
        if (native->membership.shared) {
            make_shared_quad_elements(expr);
            continue;
        }
        flat::QuadForm form = native->form;
        Ref model = native->model;
        uint64_t stamp = native->stamp;
        Ref made = quadexpr_array(form, model);
        // What was made is right only if nobody looked or changed the expression meanwhile.
        native = quadratic_of(expr);
        if (native && native->stamp == stamp) {
            Ref ndle = Ref::borrow(documented(expr, names._ndle));
            store_quad_documented(expr, made.get(), Py_None, ndle.get());
            return made;
        }
    }
    Ref array = Ref::borrow(documented(expr, names._qearr));
    need_numpy();
    if (!PyArray_Check(array.get()))
        fail(PyExc_TypeError, "_qearr of an MQuadExpr must be a numpy.ndarray, not '%.200s'",
             Py_TYPE(array.get())->tp_name);
    return array;
}

Ref quadparts(PyObject *expr) {
    for (QuadNative *native = quadratic_of(expr); native && native->compact; native = quadratic_of(expr)) {
        std::vector<QuadPart> parts = native->parts;
        Ref model = native->model;
        uint64_t stamp = native->stamp;
        Ref made = check(PyList_New(0));
        for (const QuadPart &part : parts)
            check_status(PyList_Append(made.get(), part_triple(part, model).get()));
        native = quadratic_of(expr);
        if (native && native->stamp == stamp) {
            Ref ndle = Ref::borrow(documented(expr, names._ndle));
            store_quad_documented(expr, Py_None, made.get(), ndle.get());
            return made;
        }
    }
    if (!is_compact(stored_state(expr)))
        fail(PyExc_TypeError, "a full MQuadExpr has no parts");
    return Ref::borrow(documented(expr, names._quadparts));
}

// ---- members ------------------------------------------------------------------------------------------------------

namespace {

PyObject *get_documented(PyObject *self, PyObject *name) {
    return border([&] {
        if (QuadNative *native = quadratic_of(self); native && name != names._ndle) {
            if (native->compact != (name == names._quadparts))
                return Ref::none();
            return native->compact ? quadparts(self) : qearr(self);
        }
        return Ref::borrow(documented(self, name));
    });
}

// The native half is replaced by what is stored, made or not.
void replace_half(PyObject *self, PyObject *value) {
    bool compact = quadratic_of(self)->compact;
    Ref ndle = Ref::borrow(documented(self, names._ndle));
    store_quad_documented(self, compact ? Py_None : value, compact ? value : Py_None, ndle.get());
}

int set_documented(PyObject *self, PyObject *name, PyObject *value) {
    return border_status([&] {
        QuadNative *native = quadratic_of(self);
        if (native && value && name == (native->compact ? names._quadparts : names._qearr))
            return replace_half(self, value);
        if (name != names._ndle || !value)
            make_all_quad(self);
        if (value) {
            Ref old = Ref::borrow(stored(self, name));
            store(self, name, value);
            return;
        }
        documented(self, name);
        forget(self, name);
    });
}

PyObject *get_qearr(PyObject *self, void *) {
    return get_documented(self, names._qearr);
}
PyObject *get_quadparts(PyObject *self, void *) {
    return get_documented(self, names._quadparts);
}
PyObject *get_ndle(PyObject *self, void *) {
    return get_documented(self, names._ndle);
}
int set_qearr(PyObject *self, PyObject *value, void *) {
    return set_documented(self, names._qearr, value);
}
int set_quadparts(PyObject *self, PyObject *value, void *) {
    return set_documented(self, names._quadparts, value);
}
int set_ndle(PyObject *self, PyObject *value, void *) {
    return set_documented(self, names._ndle, value);
}

PyObject *is_compact_method(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_is_compact", {}, 0};
        Arguments(signature, 1, args, nargs, kwnames);
        return Ref::borrow(is_compact_quad(self) ? Py_True : Py_False);
    });
}

PyObject *structure(PyObject *self, PyObject *name) {
    return border([&] {
        if (name == names.shape)
            quad_state_of(self);
        return check(PyObject_GetAttr(documented(self, names._ndle), name));
    });
}

PyObject *get_shape(PyObject *self, void *) {
    return structure(self, names.shape);
}
PyObject *get_ndim(PyObject *self, void *) {
    return structure(self, names.ndim);
}
PyObject *get_size(PyObject *self, void *) {
    return structure(self, names.size);
}

} // namespace

std::span<Member> quad_state_members() {
    static Member members[] = {
        property("_qearr", get_qearr, set_qearr,
                 "The QuadExpr objects, an object array of the expression's shape; None in the compact state.\n\n"
                 "They are made when this is first read; from then on the array is the expression's quadratic half."),
        property("_quadparts", get_quadparts, set_quadparts,
                 "The compact state's list of parts (x, Q, y), two MVar and a coo_matrix: the sum of x'Qy. None in the "
                 "full state."),
        property("_ndle", get_ndle, set_ndle, "The linear and constant part, an MLinExpr that carries the shape."),
        dict_member<make_all_quad>(),
        property("shape", get_shape, "The shape, a tuple."),
        property("ndim", get_ndim, "The number of dimensions."),
        property("size", get_size, "The number of elements."),
        state_member<make_all_quad>(),
        method("_is_compact", is_compact_method,
               "_is_compact($self)\n--\n\nWhether the expression is in the compact state."),
        plain<"_to_full", quad_to_full>("_to_full($self)\n--\n\nA new full expression of the same value."),
        plain<"_convert_to_full", quad_convert_to_full>(
            "_convert_to_full($self)\n--\n\nBrings the expression itself to the full state, which it never leaves."),
    };
    return members;
}

} // namespace tarvopy
