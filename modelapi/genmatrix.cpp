// What an engine reads of general constraints.

#include "views.h"

namespace tarvopy::modelapi {

TARVOPY_METHOD(function_genmatrix) {
    static const Signature signature{"genmatrix", {"handle"}, 1};
    (void)self;
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        TRVmodel *store = engine_store(given[0]);
        TRVgenmatrix gens;
        succeed(store, TRVgetgenmatrix(store, &gens));
        Ref keeper = kept<TRVgenmatrix, TRVfreegenmatrix>(gens, "tarvopy._modelapi.genmatrix");
        PyObject *owner = keeper.get();
        Ref type = owned(owner, NPY_INT32, gens.ngens, gens.type);
        Ref argptr = owned(owner, NPY_INT64, gens.ngens + 1, gens.argptr);
        Ref ptr = owned(owner, NPY_INT64, gens.nargs + 1, gens.ptr);
        Ref index = owned(owner, NPY_INT32, gens.nnz, gens.index);
        Ref value = owned(owner, NPY_DOUBLE, gens.nnz, gens.value);
        Ref constant = owned(owner, NPY_DOUBLE, gens.nargs, gens.constant);
        Ref dataptr = owned(owner, NPY_INT64, gens.ngens + 1, gens.dataptr);
        Ref data = owned(owner, NPY_DOUBLE, gens.ndata, gens.data);
        return check(PyTuple_Pack(8, type.get(), argptr.get(), ptr.get(), index.get(), value.get(), constant.get(),
                                  dataptr.get(), data.get()));
    });
}

} // namespace tarvopy::modelapi
