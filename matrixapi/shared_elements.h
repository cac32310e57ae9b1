// Elements that several flat expressions share, as e[1:] and e[:-1] share those of e.
//
// Each has a form of its own, gathered from the whole's, so that whoever reads one needs to know nothing of this. The
// first look at the elements of one makes the objects of the whole, once, and shows all of them theirs; so does a
// change in place, which all of them must see. Costs 8 bytes an element for the numbering, against some 200 of objects.
#pragma once

#include "pysupport/ref.h"

#include <memory>

namespace tarvopy {

template <class Native> struct SharedElements;

// What the native form of one of them knows; Native is LinearNative or QuadNative.
template <class Native> struct Membership {
    std::shared_ptr<SharedElements<Native>> shared; // empty: the elements are the expression's own
    pysupport::Ref places;                          // int64 array of the expression's shape: which elements
    PyObject *expr = nullptr;                       // who has the native form (borrowed)
    size_t index = 0;                               // among the members
    void leave();
};

} // namespace tarvopy
