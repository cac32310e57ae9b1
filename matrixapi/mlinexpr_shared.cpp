// MLinExpr: elements that several flat expressions share, as e[1:] and e[:-1] share those of e.
//
// Each has a form of its own, gathered from the whole's, so that whoever reads one needs to know nothing of this. The
// first look at the elements of one makes the objects of the whole, once, and shows all of them theirs; so does a
// change in place, which all of them must see. Costs 8 bytes an element for the numbering, against some 200 of objects.
#include "matrixapi/mlinexpr_dict.h"
#include "matrixapi/operands.h"

#include "pysupport/numpy.h"

#include <algorithm>

namespace tarvopy {

using namespace pysupport;

namespace {

void join(PyObject *expr, std::shared_ptr<SharedElements> shared, Ref places) {
    LinearNative *native = linear_of(expr);
    size_t index = shared->members.size();
    shared->members.push_back(native);
    native->membership = {std::move(shared), std::move(places), expr, index};
}

// 0, 1, 2, ... in the shape of the form.
Ref numbering(const flat::Form &form) {
    std::vector<npy_intp> dims(form.shape.begin(), form.shape.end());
    Ref array = check(PyArray_SimpleNew(static_cast<int>(dims.size()), dims.data(), NPY_INT64));
    auto *number = static_cast<int64_t *>(PyArray_DATA(as_array(array)));
    for (int64_t i = 0; i < form.size; ++i)
        number[i] = i;
    return array;
}

// The elements of the whole at the places.
Ref taken(const Ref &whole, const Ref &places) {
    return check(PyArray_TakeFrom(as_array(whole), places.get(), NPY_RAVEL_AXIS, nullptr, NPY_RAISE));
}

// Whether an index array chose an element more than once.
bool has_repeats(const Ref &places) {
    const auto *place = static_cast<const int64_t *>(PyArray_DATA(as_array(places)));
    std::vector<int64_t> sorted(place, place + PyArray_SIZE(as_array(places)));
    std::sort(sorted.begin(), sorted.end());
    return std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end();
}

// Whether all others are gone and its elements are different ones, so that nothing needs to be shared any more.
bool is_alone(const Membership &membership) {
    return membership.shared->members.size() == 1 && !has_repeats(membership.places);
}

} // namespace

void Membership::leave() {
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

Ref shared_selection(PyObject *expr, PyObject *key) {
    LinearNative *native = linear_of(expr);
    if (!native || native->compact || eager)
        return {};
    need_numpy();
    if (!native->membership.shared) {
        auto shared = std::make_shared<SharedElements>();
        shared->form = native->form;
        shared->places = numbering(native->form);
        Ref places = shared->places;
        join(expr, std::move(shared), std::move(places));
    }
    std::shared_ptr<SharedElements> shared = native->membership.shared;
    Ref places = native->membership.places, model = native->model;
    Ref chosen = check(PyObject_GetItem(places.get(), key));
    // Reading the key may have run code that looked at the expression or changed it.
    native = linear_of(expr);
    if (!native || native->membership.shared != shared)
        return {};
    chosen = check(PyArray_FROMANY(chosen.get(), NPY_INT64, 0, 0, NPY_ARRAY_CARRAY_RO | NPY_ARRAY_ENSUREARRAY));
    const auto *map = static_cast<const int64_t *>(PyArray_DATA(as_array(chosen)));
    Ref selection = make_flat(mod.MLinExpr, flat::gathered(shared->form, map, shape_of_array(chosen.get())), model);
    join(selection.get(), std::move(shared), std::move(chosen));
    return selection;
}

void make_shared_elements(PyObject *expr) {
    LinearNative *native = linear_of(expr);
    if (is_alone(native->membership))
        return native->membership.leave();
    std::shared_ptr<SharedElements> shared = native->membership.shared;
    Ref model = native->model;
    Ref whole = linexpr_array(shared->form, model);
    // What was made is right only if nobody looked meanwhile.
    native = linear_of(expr);
    if (!native || native->membership.shared != shared)
        return;
    if (shared->made) // memory ran out while the others got theirs
        return native->membership.leave();
    std::vector<std::pair<Ref, Ref>> shown;
    shown.reserve(shared->members.size());
    for (LinearNative *member : shared->members) {
        const Membership &own = member->membership;
        if (Py_REFCNT(own.expr) == 0) // being freed, which may run Python code
            continue;
        Ref elements = own.places.is(shared->places.get()) ? whole : taken(whole, own.places);
        instance_dict(own.expr);
        shown.emplace_back(Ref::borrow(own.expr), std::move(elements));
    }
    shared->made = true;
    for (auto &[member, elements] : shown) {
        show(member.get(), elements.get(), Py_None, Py_None);
        drop_native(member.get());
    }
}

void prepare_change(PyObject *expr) {
    LinearNative *native = linear_of(expr);
    if (!native || !native->membership.shared)
        return;
    if (is_alone(native->membership))
        native->membership.leave();
    else
        learr(expr);
}

} // namespace tarvopy
