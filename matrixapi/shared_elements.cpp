// Elements that several flat expressions share, linear and quadratic ones alike: shared_elements.h.
#include "matrixapi/shared_elements.h"

#include "matrixapi/mlinexpr_dict.h"
#include "matrixapi/mquadexpr_dict.h"
#include "matrixapi/operands.h"

#include "pysupport/numpy.h"

#include <algorithm>
#include <unordered_map>

namespace tarvopy {

using namespace pysupport;

template <class Native> struct SharedElements {
    decltype(Native::form) form; // of all elements; nobody changes it
    Ref places;                  // 0, 1, 2, ... in its shape
    Ref model;                   // also where one of them has no variable
    std::vector<Native *> members;
    bool made = false;
};

template <class Native> void Membership<Native>::leave() {
    if (!shared)
        return;
    auto &members = shared->members;
    members.back()->membership.index = index;
    std::swap(members[index], members.back());
    members.pop_back();
    shared.reset();
    places = Ref();
}

LinearNative::~LinearNative() {
    membership.leave();
}

QuadNative::~QuadNative() {
    membership.leave();
}

namespace {

// ---- what the two kinds of expressions do differently ---------------------------------------------------------------

struct Linear {
    using Native = LinearNative;
    static constexpr bool slices_are_views = false; // a selection owns its array
    static Native *native_of(PyObject *expr) { return linear_of(expr); }
    static Ref objects(const flat::Form &form, const Ref &model) { return linexpr_array(form, model); }
    static void show_elements(PyObject *expr, PyObject *elements) {
        show(expr, elements, Py_None, Py_None);
        drop_native(expr);
    }
};

struct Quadratic {
    using Native = QuadNative;
    static constexpr bool slices_are_views = true;
    static Native *native_of(PyObject *expr) { return quadratic_of(expr); }
    static Ref objects(const flat::QuadForm &form, const Ref &model) { return quadexpr_array(form, model); }
    static void show_elements(PyObject *expr, PyObject *elements) {
        Ref ndle = Ref::borrow(documented(expr, names._ndle));
        store_quad_documented(expr, elements, Py_None, ndle.get());
    }
};

// ---- places ---------------------------------------------------------------------------------------------------------

// 0, 1, 2, ... in the shape.
Ref numbering(const flat::Shape &shape) {
    std::vector<npy_intp> dims(shape.begin(), shape.end());
    Ref array = check(PyArray_SimpleNew(static_cast<int>(dims.size()), dims.data(), NPY_INT64));
    auto *number = static_cast<int64_t *>(PyArray_DATA(as_array(array)));
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(array)); ++i)
        number[i] = i;
    return array;
}

// The elements of the whole at the places.
Ref taken(const Ref &whole, const Ref &places) {
    return check(PyArray_TakeFrom(as_array(whole), places.get(), NPY_RAVEL_AXIS, nullptr, NPY_RAISE));
}

Ref contiguous_places(PyObject *chosen) {
    return check(PyArray_FROMANY(chosen, NPY_INT64, 0, 0, NPY_ARRAY_CARRAY_RO | NPY_ARRAY_ENSUREARRAY));
}

// The array that holds the places: the numbering of the whole, or that of a single element picked out of it.
Ref owner_of(const Ref &places) {
    PyObject *owner = places.get();
    while (PyObject *base = PyArray_BASE(reinterpret_cast<PyArrayObject *>(owner)))
        owner = base;
    return Ref::borrow(owner);
}

// Whether NumPy gave a view of the numbers, not an array of its own (which may be hidden behind a transposed view).
bool is_inside(PyObject *chosen, const Ref &numbered) {
    const char *begin = PyArray_BYTES(as_array(numbered)),
               *data = PyArray_BYTES(reinterpret_cast<PyArrayObject *>(chosen));
    return data >= begin && data < begin + PyArray_NBYTES(as_array(numbered));
}

// The elements at the places, which are a view of the numbers of these elements: the same view of them.
Ref same_view(const Ref &whole, const Ref &numbered, const Ref &places) {
    static_assert(sizeof(PyObject *) == sizeof(int64_t), "an element and its number have one stride");
    PyArrayObject *view = as_array(places);
    auto offset = PyArray_BYTES(view) - PyArray_BYTES(as_array(numbered));
    Ref elements = check(PyArray_NewFromDescr(&PyArray_Type, PyArray_DescrFromType(NPY_OBJECT), PyArray_NDIM(view),
                                              PyArray_DIMS(view), PyArray_STRIDES(view),
                                              PyArray_BYTES(as_array(whole)) + offset, NPY_ARRAY_WRITEABLE, nullptr));
    check_status(PyArray_SetBaseObject(as_array(elements), Ref(whole).release()));
    return elements;
}

// Whether an index array chose an element more than once.
bool has_repeats(const Ref &chosen) {
    Ref places = contiguous_places(chosen.get());
    const auto *place = static_cast<const int64_t *>(PyArray_DATA(as_array(places)));
    std::vector<int64_t> sorted(place, place + PyArray_SIZE(as_array(places)));
    std::sort(sorted.begin(), sorted.end());
    return std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end();
}

// ---- members --------------------------------------------------------------------------------------------------------

template <class Native>
void join(PyObject *expr, Native *native, std::shared_ptr<SharedElements<Native>> shared, Ref places) {
    size_t index = shared->members.size();
    shared->members.push_back(native);
    native->membership = {std::move(shared), std::move(places), expr, index};
}

// A flat expression begins to share.
template <class Native> void open(PyObject *expr, Native *native) {
    auto shared = std::make_shared<SharedElements<Native>>();
    shared->form = native->form;
    shared->places = numbering(native->form.shape);
    shared->model = native->model;
    Ref places = shared->places;
    join(expr, native, std::move(shared), std::move(places));
}

// Whether all others are gone and its elements are different ones, so that nothing needs to be shared any more.
template <class Native> bool is_alone(const Membership<Native> &membership) {
    return membership.shared->members.size() == 1 && !has_repeats(membership.places);
}

// The places that a key selects, as NumPy gives them (a view, a copy or a number); empty where the expression is not
// flat, also after reading the key, which may have run code that looked at it or changed it.
template <class Kind> Ref chosen_places(PyObject *expr, PyObject *key) {
    auto *native = Kind::native_of(expr);
    if (!native || native->compact || eager)
        return {};
    need_numpy();
    if (!native->membership.shared)
        open(expr, native);
    auto shared = native->membership.shared;
    Ref places = native->membership.places;
    Ref chosen = check(PyObject_GetItem(places.get(), key));
    native = Kind::native_of(expr);
    return native && native->membership.shared == shared ? chosen : Ref();
}

template <class Form> Form gathered_at(const Form &whole, const Ref &places) {
    const auto *map = static_cast<const int64_t *>(PyArray_DATA(as_array(places)));
    return flat::gathered(whole, map, shape_of_array(places.get()));
}

// The elements at the numbers that an array holds, for each such array: views of one are views of the other.
using Laid = std::unordered_map<PyObject *, Ref>;

template <class Kind> Ref elements_at(const Ref &whole, Laid &laid, const Ref &places) {
    Ref owner = Kind::slices_are_views ? owner_of(places) : places;
    Ref &elements = laid[owner.get()];
    if (!elements)
        elements = taken(whole, owner);
    return places.is(owner.get()) ? elements : same_view(elements, owner, places);
}

template <class Kind> void make_elements(PyObject *expr) {
    auto *native = Kind::native_of(expr);
    if (is_alone(native->membership))
        return native->membership.leave();
    auto shared = native->membership.shared;
    Ref whole = Kind::objects(shared->form, shared->model);
    // What was made is right only if nobody looked meanwhile.
    native = Kind::native_of(expr);
    if (!native || native->membership.shared != shared)
        return;
    if (shared->made) // memory ran out while the others got theirs
        return native->membership.leave();
    Laid laid{{shared->places.get(), whole}};
    std::vector<std::pair<Ref, Ref>> shown;
    shown.reserve(shared->members.size());
    for (auto *member : shared->members) {
        const auto &own = member->membership;
        if (Py_REFCNT(own.expr) == 0) // being freed, which may run Python code
            continue;
        Ref elements = elements_at<Kind>(whole, laid, own.places);
        instance_dict(own.expr);
        shown.emplace_back(Ref::borrow(own.expr), std::move(elements));
    }
    shared->made = true;
    for (auto &[member, elements] : shown)
        Kind::show_elements(member.get(), elements.get());
}

// Whether the expression still shares elements: then its objects have to be made.
template <class Native> bool still_shares(Native *native) {
    if (!native || !native->membership.shared)
        return false;
    if (is_alone(native->membership))
        native->membership.leave();
    return native->membership.shared != nullptr;
}

} // namespace

// ---- linear expressions: index arrays share elements, too -----------------------------------------------------------

Ref shared_selection(PyObject *expr, PyObject *key) {
    Ref chosen = chosen_places<Linear>(expr, key);
    if (!chosen)
        return {};
    Ref places = contiguous_places(chosen.get());
    auto shared = linear_of(expr)->membership.shared;
    Ref selection = make_flat(mod.MLinExpr, gathered_at(shared->form, places), shared->model);
    if (shared->made)
        return {};
    join(selection.get(), linear_of(selection.get()), std::move(shared), std::move(places));
    return selection;
}

void make_shared_elements(PyObject *expr) {
    make_elements<Linear>(expr);
}

void prepare_change(PyObject *expr) {
    if (still_shares(linear_of(expr)))
        learr(expr);
}

// ---- quadratic expressions: index arrays give copies ----------------------------------------------------------------

Ref shared_quad_selection(PyObject *expr, PyObject *key, const Ref &ndle) {
    Ref chosen = chosen_places<Quadratic>(expr, key);
    if (!chosen)
        return {};
    auto shared = quadratic_of(expr)->membership.shared;
    Ref owner = owner_of(quadratic_of(expr)->membership.places);
    bool one = !PyArray_Check(chosen.get()), shares = one || is_inside(chosen.get(), owner);
    Ref places = contiguous_places(chosen.get());
    Ref selection = make_quad_flat(mod.MQuadExpr, gathered_at(shared->form, places),
                                   shares ? ndle : copy_of(ndle.get()), shared->model);
    if (shared->made)
        return {};
    if (shares)
        join(selection.get(), quadratic_of(selection.get()), std::move(shared),
             one ? std::move(places) : std::move(chosen));
    return selection;
}

void make_shared_quad_elements(PyObject *expr) {
    make_elements<Quadratic>(expr);
}

void prepare_quad_change(PyObject *expr) {
    if (still_shares(quadratic_of(expr)))
        qearr(expr);
}

} // namespace tarvopy
