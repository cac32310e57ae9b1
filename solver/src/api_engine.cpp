// api_engine.cpp: the functions of tarvo_engine.h for the linear model, what changed, and the solution.
#include "border.h"
#include "check.h"
#include "elementattr.h"
#include "matrix.h"

#include <algorithm>
#include <memory>

using namespace store;

namespace {

void readquadratic(TRVmodel &model, TRVdata &d) {
    model.purge();
    const QRows &qrows = model.qrows;
    d.nqobj = model.qobjective.count(model.columns);
    d.nqrows = qrows.ids.committed();
    d.nqlinear = qrows.linearrows();
    d.nqterms = qrows.quadraticterms();
    d.nqlinterms = qrows.linearterms();
    d.qsense = qrows.sense.data();
    d.qrhs = qrows.rhs.data();
}

void readnonlinear(const TRVmodel &model, TRVdata &d) {
    d.nnlrows = model.nlrows.ids.committed();
    d.nnlcodes = model.nlrows.codes();
    d.nnlobj = model.nlobjective.tape().n;
    d.nllower = model.nlrows.lower.data();
    d.nlupper = model.nlrows.upper.data();
}

// All but bounds and sides.
TRVdata readdata(TRVmodel &model) {
    const Columns &columns = model.columns;
    TRVdata d{};
    d.nvars = columns.ids.committed();
    d.nrows = model.rows.ids.committed();
    d.nnz = model.rows.nonzeros(columns);
    d.obj = columns.obj.data();
    d.vtype = columns.vtype.data();
    d.objconstant = model.objconstant;
    d.sense = model.sense;
    d.nintegral = columns.integral();
    d.nsemi = d.nintegral ? columns.semicontinuous() : 0;
    d.start = model.solution.start(columns);
    readquadratic(model, d);
    readnonlinear(model, d);
    d.ngens = model.gens.ids.committed();
    return d;
}

int view(const Values &values, const double *&data) {
    data = values.same() ? &values.value() : values.data();
    return values.same() ? 0 : 1;
}

} // namespace

int TRVgetdata(TRVmodel *model, TRVdata *data) {
    return border(model, [&] {
        requirepointer("data", data, 1);
        TRVdata d = readdata(*model);
        d.lb = model->columns.lb.data();
        d.ub = model->columns.ub.data();
        d.lower = model->rows.lower.data();
        d.upper = model->rows.upper.data();
        *data = d;
    });
}

int TRVviewdata(TRVmodel *model, TRVdata *data, TRVsteps *steps) {
    return border(model, [&] {
        requirepointer("data", data, 1);
        requirepointer("steps", steps, 1);
        TRVdata d = readdata(*model);
        *steps = {view(model->columns.lb, d.lb), view(model->columns.ub, d.ub), view(model->rows.lower, d.lower),
                  view(model->rows.upper, d.upper)};
        *data = d;
    });
}

struct TRVpinned {
    Yard *yard;
};

namespace {

TRVpinned *pinned(Yard *yard) {
    auto made = std::make_unique<TRVpinned>(TRVpinned{yard});
    yard->pin();
    return made.release();
}

} // namespace

int TRVpin(TRVmodel *model, TRVpinned **pin) {
    return border(model, [&] {
        requirepointer("pin", pin, 1);
        Yard *yard = model->yard.get();
        model->columns.guard(yard);
        model->rows.guard(yard);
        model->qrows.guard(yard);
        model->nlrows.guard(yard);
        model->solution.guard(yard);
        *pin = pinned(yard);
    });
}

int TRVpinmatrix(TRVmodel *model, TRVpinned **pin) {
    return border(model, [&] {
        requirepointer("pin", pin, 1);
        Yard *yard = model->termyard.get();
        model->rows.guardterms(yard);
        *pin = pinned(yard);
    });
}

void TRVunpin(TRVpinned *pin) {
    if (!pin)
        return;
    pin->yard->unpin();
    delete pin;
}

int TRVgetmatrix(TRVmodel *model, int csc, TRVmatrix *matrix) {
    return border(model, [&] {
        requirepointer("matrix", matrix, 1);
        *matrix = csc ? matrixbycolumns(*model) : matrixbyrows(*model);
        blocks::trim(); // the engine's own copy comes next, and wants the memory
    });
}

int TRVviewrows(TRVmodel *model, TRVmatrix *matrix) {
    return border(model, [&] {
        requirepointer("matrix", matrix, 1);
        *matrix = rowsinplace(*model);
        blocks::trim();
    });
}

int TRVviewcolumns(TRVmodel *model, TRVmatrix *matrix, const double **value, int *owned) {
    return border(model, [&] {
        requirepointer("matrix", matrix, 1);
        requirepointer("value", value, 1);
        requirepointer("owned", owned, 1);
        bool made;
        *matrix = columnsinplace(*model, *value, made);
        *owned = made;
        blocks::trim();
    });
}

void TRVfreematrix(TRVmatrix *matrix) {
    if (!matrix)
        return;
    blocks::give(matrix->start);
    blocks::give(matrix->index);
    blocks::give(matrix->value);
    blocks::trim();
    *matrix = TRVmatrix{};
}

int TRVgetchanges(TRVmodel *model, TRVchanges *changes) {
    return border(model, [&] {
        requirepointer("changes", changes, 1);
        *changes = model->changes.list();
    });
}

void TRVclearchanges(TRVmodel *model) {
    if (model)
        model->changes.clear();
}

int TRVopensolution(TRVmodel *model, double **x, double **rc, double **pi, double **qpi) {
    return border(model, [&] {
        Solution &solution = model->solution;
        requirepointer("x, rc, pi", x && rc && pi ? x : nullptr, 1);
        solution.open(model->columns.ids.committed(), model->rows.ids.committed(), model->qrows.ids.committed());
        *x = solution.openx().data();
        *rc = solution.openrc().data();
        *pi = solution.openpi().data();
        if (qpi)
            *qpi = solution.openqpi().data();
    });
}

int TRVcommitsolution(TRVmodel *model, const TRVresult *result) {
    return border(model, [&] {
        requirepointer("result", result, 1);
        model->solution.commit(*result, model->columns.ids.committed(), model->rows.ids.committed(),
                               model->qrows.ids.committed());
    });
}

int TRVcheck(TRVmodel *model, int has_duals, TRVresiduals *residuals) {
    return border(model, [&] {
        requirepointer("residuals", residuals, 1);
        *residuals = checksolution(*model, has_duals != 0);
    });
}

int TRVoffenders(TRVmodel *model, int has_duals, int figure, int n, TRVoffender *out, int *count) {
    return border(model, [&] {
        requirecount("offenders", n);
        requirepointer("offenders", out, n);
        requirepointer("count", count, 1);
        const std::vector<TRVoffender> found = offenders(*model, has_duals != 0, figure, n);
        std::copy(found.begin(), found.end(), out);
        *count = static_cast<int>(found.size());
    });
}

int TRVevalobjective(TRVmodel *model, const double *x, double *value) {
    return border(model, [&] {
        const int32_t n = model->columns.ids.committed();
        requirepointer("x", x, n);
        requirepointer("value", value, 1);
        model->purge();
        double sum = model->objconstant;
        for (int32_t i = 0; i < n; i++)
            sum += model->columns.obj[i] * x[i];
        model->qobjective.each(model->columns, [&](int32_t i, int32_t j, double coef) { sum += coef * x[i] * x[j]; });
        const PointById point(model->columns.ids, x, n);
        *value = sum + TapeRun(point.data()).value(model->nlobjective.tape()).value;
    });
}
