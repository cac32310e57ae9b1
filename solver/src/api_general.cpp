// api_general.cpp: the functions of tarvo.h for general constraints.
#include "border.h"

using namespace store;

namespace {

// All by position, in one pass over each array.
TRVgenmatrix genmatrix(const TRVmodel &model) {
    const Gens &gens = model.gens;
    const Registry &ids = model.columns.ids;
    const int32_t n = gens.ids.committed();
    TRVgenmatrix m{};
    m.ngens = n;
    const TRVgens all = n ? gens.view(0) : TRVgens{};
    m.nargs = n ? all.argptr[n] : 0;
    m.nnz = n ? all.ptr[m.nargs] : 0;
    m.ndata = n ? all.dataptr[n] : 0;
    Buffer<int32_t> type, index;
    Buffer<int64_t> argptr, ptr, dataptr;
    Buffer<double> value, constant, data;
    type.room(n);
    index.room(m.nnz);
    value.room(m.nnz);
    constant.room(m.nargs);
    data.room(m.ndata);
    for (Buffer<int64_t> *start : {&argptr, &ptr, &dataptr})
        start->pad(1, 0); // where there is nothing
    argptr.room(n);
    ptr.room(m.nargs);
    dataptr.room(n);
    if (n) {
        moveterms(type.data(), gens.type.data(), n);
        moveterms(argptr.data(), all.argptr, n + 1);
        moveterms(ptr.data(), all.ptr, m.nargs + 1);
        moveterms(dataptr.data(), all.dataptr, n + 1);
    }
    for (int64_t k = 0; k < m.nnz; k++)
        index.data()[k] = ids.position(all.var[k]);
    moveterms(value.data(), all.coef, m.nnz);
    moveterms(constant.data(), all.constant, m.nargs);
    moveterms(data.data(), all.data, m.ndata);
    m.type = type.release();
    m.argptr = argptr.release();
    m.ptr = ptr.release();
    m.dataptr = dataptr.release();
    m.index = index.release();
    m.value = value.release();
    m.constant = constant.release();
    m.data = data.release();
    return m;
}

} // namespace

int TRVaddgens(TRVmodel *model, int type, const TRVgens *gens, const TRVnames *names, int32_t *firstid) {
    return border(model, [&] {
        requirepointer("general constraints", gens, 1);
        requirecount("general constraints", gens->ngens);
        requirepointer("pointers to arguments", gens->argptr, gens->ngens);
        if (type < 0 || type >= TRV_GEN_TYPES)
            failf(TRV_ERROR_INVALID_ARGUMENT, "%d is not a type of general constraint", type);
        const int32_t first = model->gens.add(model->columns, model->uses, type, *gens, names);
        if (firstid)
            *firstid = first;
    });
}

int TRVgetgen(TRVmodel *model, int32_t gen, int *type, TRVgens *view) {
    return border(model, [&] {
        requirepointer("general constraint", type && view ? view : nullptr, 1);
        const int32_t slot = model->gens.ids.require(gen, "general constraint");
        *type = model->gens.type[slot];
        *view = model->gens.view(slot);
    });
}

int TRVgetgenmatrix(TRVmodel *model, TRVgenmatrix *matrix) {
    return border(model, [&] {
        requirepointer("matrix", matrix, 1);
        *matrix = genmatrix(*model);
    });
}

void TRVfreegenmatrix(TRVgenmatrix *matrix) {
    if (!matrix)
        return;
    for (int64_t *start : {matrix->argptr, matrix->ptr, matrix->dataptr})
        blocks::give(start);
    for (int32_t *index : {matrix->type, matrix->index})
        blocks::give(index);
    for (double *numbers : {matrix->value, matrix->constant, matrix->data})
        blocks::give(numbers);
    *matrix = TRVgenmatrix{};
}
