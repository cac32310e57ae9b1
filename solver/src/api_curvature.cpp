// api_curvature.cpp: the functions of tarvo_engine.h that say what is convex, and hand quadratic rows over as cones.
#include "blocks.h"
#include "border.h"
#include "cones.h"

#include <memory>

using namespace store;

namespace {

void succeed(TRVmodel *model, int code) {
    if (code != TRV_OK)
        fail(code, model->error);
}

// What the getters allocate, given back at the end.
struct Quadratic {
    TRVdata data{};
    TRVqmatrix rows{};

    explicit Quadratic(TRVmodel *model) {
        succeed(model, TRVgetdata(model, &data));
        succeed(model, TRVgetqmatrix(model, &rows));
    }
    Quadratic(const Quadratic &) = delete;
    Quadratic &operator=(const Quadratic &) = delete;
    ~Quadratic() { TRVfreeqmatrix(&rows); }
};

struct Hessian {
    TRVmatrix upper{};

    explicit Hessian(TRVmodel *model) { succeed(model, TRVgethessian(model, &upper)); }
    Hessian(const Hessian &) = delete;
    Hessian &operator=(const Hessian &) = delete;
    ~Hessian() { TRVfreematrix(&upper); }
};

int objectivecurve(TRVmodel *model, const TRVdata &data) {
    if (data.nqobj == 0)
        return TRV_CURVE_LINEAR;
    const Hessian hessian(model);
    const TRVmatrix &upper = hessian.upper;
    std::vector<int32_t> column(static_cast<size_t>(upper.nnz));
    std::vector<double> coef(upper.value, upper.value + upper.nnz);
    for (int32_t j = 0; j < upper.nmajor; j++)
        for (int32_t p = upper.start[j]; p < upper.start[j + 1]; p++) {
            column[static_cast<size_t>(p)] = j;
            if (upper.index[p] == j)
                coef[static_cast<size_t>(p)] *= 0.5; // as the coefficient of a square
        }
    Forms forms(data.nvars);
    forms.take({upper.nnz, upper.index, column.data(), coef.data()}, data.sense);
    if (forms.convex())
        return TRV_CURVE_CONVEX;
    return forms.convex(Strictness::rounded) ? TRV_CURVE_ROUNDED : TRV_CURVE_NONCONVEX;
}

std::string rowname(TRVmodel *model, int32_t row) {
    int32_t id;
    char *text;
    int64_t *offset;
    succeed(model, TRVidsat(model, TRV_QCONSTR, 1, &row, &id));
    succeed(model, TRVgetstrs(model, "QName", 1, &id, 0, &text, &offset));
    std::unique_ptr<char, void (*)(void *)> keeptext(text, TRVfree);
    std::unique_ptr<int64_t, void (*)(void *)> keepoffset(offset, TRVfree);
    return std::string(text, static_cast<size_t>(offset[1]));
}

} // namespace

int TRVcurvature(TRVmodel *m, int *objective, char *rows) {
    return border(m, [&] {
        requirepointer("objective", objective, 1);
        const Quadratic model(m);
        *objective = objectivecurve(m, model.data);
        if (!rows)
            return;
        Shapes shapes(model.data, model.rows);
        for (int32_t i = 0; i < model.rows.nrows; i++)
            rows[i] = static_cast<char>(shapes.shape(i).curve);
    });
}

int TRVgetcones(TRVmodel *m, TRVcones *out) {
    return border(m, [&] {
        requirepointer("cones", out, 1);
        const Quadratic model(m);
        int32_t nonconvex;
        const TRVcones cones = Shapes(model.data, model.rows).cones(&nonconvex);
        if (nonconvex >= 0)
            fail(TRV_ERROR_UNSUPPORTED, "quadratic row " + rowname(m, nonconvex) + " is not convex");
        *out = cones;
    });
}

void TRVfreecones(TRVcones *cones) {
    if (!cones)
        return;
    for (void *part :
         {static_cast<void *>(cones->qrow), static_cast<void *>(cones->cone), static_cast<void *>(cones->start),
          static_cast<void *>(cones->index), static_cast<void *>(cones->value), static_cast<void *>(cones->offset),
          static_cast<void *>(cones->form), static_cast<void *>(cones->weight)})
        if (part)
            blocks::give(part);
    *cones = {};
}

int TRVconeduals(TRVmodel *m, const TRVcones *cones, const double *s, const double *z, double *qpi) {
    return border(m, [&] {
        requirepointer("cones", cones, 1);
        requirepointer("slacks", s, cones->nrows);
        requirepointer("dual variables", z, cones->nrows);
        requirepointer("qpi", qpi, cones->ncones);
        TRVdata data;
        succeed(m, TRVgetdata(m, &data));
        coneduals(data, *cones, s, z, qpi);
    });
}
