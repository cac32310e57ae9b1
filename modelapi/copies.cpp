// relax() and fixed(): a copy of the store takes the place of an empty model's.

#include "modelapi.h"

namespace tarvopy::modelapi {

namespace {

// A model that nothing refers to yet: no element of it exists, so that its store can be exchanged.
ModelObject *fresh(PyObject *target) {
    Ref handle = check(PyObject_GetAttrString(target, "_cmodel"));
    if (!PyObject_TypeCheck(handle.get(), core().Model))
        fail(PyExc_TypeError, "expected a model to copy into, not '%.200s'", Py_TYPE(target)->tp_name);
    auto *model = reinterpret_cast<ModelObject *>(handle.get()); // the target's, which the caller holds
    TRVmodel *store = store_of(model);
    for (int kind : {TRV_VAR, TRV_CONSTR, TRV_QCONSTR, TRV_GENCONSTR, TRV_NLCONSTR})
        if (TRVidcount(store, kind) > 0)
            fail(PyExc_ValueError, "the model to copy into is not empty");
    return model;
}

PyObject *copy_into(const Signature &signature, int form, PyObject *self, PyObject *const *args, Py_ssize_t nargs,
                    PyObject *kwnames) {
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        ModelObject *target = fresh(given[0]);
        TRVmodel *store = store_of(handle_of(self)), *copy;
        succeed(store, TRVcopymodel(store, form, &copy));
        TRVfreemodel(std::exchange(target->store, copy));
        return Ref::none();
    });
}

} // namespace

TARVOPY_METHOD(model_relax_into) {
    static const Signature signature{"_relax_into", {"target"}, 1};
    return copy_into(signature, TRV_COPY_RELAXED, self, args, nargs, kwnames);
}

TARVOPY_METHOD(model_fix_into) {
    static const Signature signature{"_fix_into", {"target"}, 1};
    return copy_into(signature, TRV_COPY_FIXED, self, args, nargs, kwnames);
}

} // namespace tarvopy::modelapi
