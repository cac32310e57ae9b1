// dict_members.h: __dict__ and __getstate__ of an expression class, whose documented attributes are made when somebody
// looks at them all. `make` makes the attributes of an instance.
#pragma once

#include "matrixapi/base.h"
#include "matrixapi/methods.h"

#include "pysupport/classes.h"

namespace tarvopy {

template <void (*make)(PyObject *)> PyObject *get_made_dict(PyObject *self, void *) {
    return pysupport::border([&] {
        make(self);
        return Ref::borrow(instance_dict(self));
    });
}

inline int set_dict(PyObject *self, PyObject *value, void *) {
    return pysupport::border_status([&] { replace_dict(self, value); });
}

template <void (*make)(PyObject *)> Ref made_state(PyObject *self) {
    make(self);
    return pysupport::check(PyDict_Copy(instance_dict(self)));
}

template <void (*make)(PyObject *)> pysupport::Member dict_member() {
    return pysupport::property("__dict__", get_made_dict<make>, set_dict,
                               "The documented attributes, all of them made.");
}

template <void (*make)(PyObject *)> pysupport::Member state_member() {
    return plain<"__getstate__", made_state<make>>("__getstate__($self)\n--\n\nWhat copying and pickling take over.");
}

} // namespace tarvopy
