// api_build.cpp: the functions of tarvo.h that make, fill and change a model.
#include "border.h"
#include "copy.h"
#include "elementattr.h"
#include "fixgens.h"

#include <memory>

using namespace store;

int TRVnewmodel(const char *name, TRVmodel **out) {
    if (!out)
        return TRV_ERROR_INVALID_ARGUMENT;
    *out = nullptr;
    try {
        TRVmodel *model = new TRVmodel;
        *out = model;
        model->name = name ? name : "";
        return TRV_OK;
    } catch (const std::exception &) {
        delete *out;
        *out = nullptr;
        return TRV_ERROR_OUT_OF_MEMORY;
    }
}

void TRVfreemodel(TRVmodel *model) {
    delete model;
    blocks::trim();
}

void *TRVmalloc(size_t bytes) {
    return blocks::take(bytes);
}

const char *TRVgeterrormsg(const TRVmodel *model) {
    return model ? model->error.c_str() : "there is no model";
}

int TRVfail(TRVmodel *model, int code, const char *message) {
    return model ? keepmessage(model, code, message ? message : "") : code;
}

void TRVfree(void *memory) {
    blocks::give(memory);
}

int TRVcopymodel(TRVmodel *model, int form, TRVmodel **out) {
    return border(model, [&] {
        requirepointer("copy", out, 1);
        *out = nullptr;
        if (form != TRV_COPY_RELAXED && form != TRV_COPY_FIXED)
            failf(TRV_ERROR_INVALID_ARGUMENT, "%d is not a form of a copy", form);
        model->update();
        if (form == TRV_COPY_FIXED && !model->solution.hasx())
            failnodata(*model, "fixed()");
        auto copy = std::make_unique<TRVmodel>();
        copymodel(*model, *copy);
        if (form == TRV_COPY_RELAXED)
            relaxvariables(copy->columns);
        else {
            fixvariables(copy->columns, model->solution.x().data());
            fixgens(*model, *copy);
        }
        *out = copy.release();
    });
}

int TRVaddvars(TRVmodel *model, int64_t n, const double *lb, int lbstep, const double *ub, int ubstep,
               const double *obj, int objstep, const char *vtype, int vtypestep, const TRVnames *names,
               int32_t *firstid) {
    return border(model, [&] {
        requirecount("variables", n);
        requirepointer("LB", lb, n);
        requirepointer("UB", ub, n);
        requirepointer("Obj", obj, n);
        requirepointer("VType", vtype, n);
        const int32_t first = model->columns.add(n, lb, lbstep, ub, ubstep, obj, objstep, vtype, vtypestep, names);
        if (firstid)
            *firstid = first;
    });
}

int TRVsharerows(TRVmodel *model, int64_t nrows, const TRVsharedrows *rows, const double *lower, int lowerstep,
                 const double *upper, int upperstep, const TRVnames *names, int32_t *firstid) {
    return border(model, [&] {
        requirepointer("rows", rows, 1);
        const int32_t first =
            model->rows.share(model->columns, nrows, *rows, lower, lowerstep, upper, upperstep, names);
        if (firstid)
            *firstid = first;
    });
}

int TRVopenrows(TRVmodel *model, int64_t nrows, int64_t nnz, TRVrows *rows) {
    return border(model, [&] {
        requirepointer("rows", rows, 1);
        requirecount("rows", nrows);
        requirecount("terms", nnz);
        *rows = model->rows.open(nrows, nnz);
    });
}

int TRVopenside(TRVmodel *model, int64_t nrows, int upper, double **side) {
    return border(model, [&] {
        requirepointer("side", side, 1);
        requirecount("rows", nrows);
        *side = model->rows.openside(nrows, upper != 0);
    });
}

int TRVcommitrows(TRVmodel *model, const double *lower, int lowerstep, const double *upper, int upperstep,
                  const TRVnames *names, int32_t *firstid) {
    return border(model, [&] {
        const int32_t first = model->rows.commit(model->columns, lower, lowerstep, upper, upperstep, names);
        if (firstid)
            *firstid = first;
    });
}

void TRVdroprows(TRVmodel *model) {
    if (model)
        model->rows.drop();
}

int TRVaddrows(TRVmodel *model, int64_t nrows, const int64_t *ptr, const int32_t *var, const double *coef,
               const double *lower, int lowerstep, const double *upper, int upperstep, const TRVnames *names,
               int32_t *firstid) {
    return border(model, [&] {
        requirecount("rows", nrows);
        requirepointer("row pointers", ptr, 1);
        const int64_t nnz = ptr[nrows];
        requirecount("terms", nnz);
        requirepointer("variables of terms", var, nnz);
        requirepointer("coefficients", coef, nnz);
        TRVrows open = model->rows.open(nrows, nnz);
        moveterms(open.ptr, ptr, nrows + 1);
        moveterms(open.var, var, nnz);
        moveterms(open.coef, coef, nnz);
        const int32_t first = model->rows.commit(model->columns, lower, lowerstep, upper, upperstep, names);
        if (firstid)
            *firstid = first;
    });
}

int TRVsetobjective(TRVmodel *model, int64_t n, const int32_t *var, const double *coef, double constant, int sense) {
    return border(model, [&] { model->setobjective(n, var, coef, {}, {}, constant, sense); });
}

int TRVremove(TRVmodel *model, int kind, int64_t n, const int32_t *ids) {
    const TRVremoval removal{kind, n, ids};
    return TRVremoveall(model, 1, &removal);
}

int TRVremoveall(TRVmodel *model, int32_t count, const TRVremoval *removals) {
    return border(model, [&] {
        requirecount("removals", count);
        requirepointer("removals", removals, count);
        unsigned kinds = 0;
        for (int32_t k = 0; k < count; k++) {
            requirecount("elements", removals[k].n);
            requirepointer("ids", removals[k].ids, removals[k].n);
            (void)model->registry(removals[k].kind); // refuses what is no kind
            if (kinds & 1u << removals[k].kind)
                failf(TRV_ERROR_INVALID_ARGUMENT, "the kind of element %d stands twice", removals[k].kind);
            kinds |= 1u << removals[k].kind;
        }
        model->remove(count, removals);
    });
}

int TRVexpectremoval(TRVmodel *model, int kind, int64_t n) {
    return border(model, [&] {
        requirecount("elements", n);
        model->registry(kind).expectremoval(n);
    });
}

int TRVupdatemodel(TRVmodel *model) {
    return border(model, [&] { model->update(); });
}

int TRVgetrow(TRVmodel *model, int32_t row, int64_t *nnz, const int32_t **var, const double **coef) {
    return border(model, [&] {
        requirepointer("row", nnz && var && coef ? nnz : nullptr, 1);
        const int32_t slot = model->rows.ids.require(row, "row");
        model->rows.purge(model->columns);
        const Row terms = model->rows.row(slot);
        *nnz = terms.n;
        *var = terms.var;
        *coef = terms.coef;
    });
}

int TRVgetcoefs(TRVmodel *model, int64_t n, const int32_t *rows, const int32_t *vars, double *out) {
    return border(model, [&] {
        requirecount("coefficients", n);
        requirepointer("rows", rows, n);
        requirepointer("variables", vars, n);
        requirepointer("coefficients", out, n);
        model->getcoefficients(n, rows, vars, out);
    });
}

int TRVsetcoefs(TRVmodel *model, int64_t n, const int32_t *rows, const int32_t *vars, const double *values) {
    return border(model, [&] {
        requirecount("coefficients", n);
        requirepointer("rows", rows, n);
        requirepointer("variables", vars, n);
        requirepointer("coefficients", values, n);
        model->setcoefficients(n, rows, vars, values);
    });
}
