// model.cpp: the steps that concern several parts of a model: removal, update, objective, coefficients.
#include "model.h"

#include "failure.h"

#include <unordered_map>

using namespace store;

Registry &TRVmodel::registry(int kind) {
    switch (kind) {
    case TRV_VAR:
        return columns.ids;
    case TRV_CONSTR:
        return rows.ids;
    case TRV_QCONSTR:
        return qrows.ids;
    case TRV_GENCONSTR:
        return gens.ids;
    case TRV_NLCONSTR:
        return nlrows.ids;
    }
    failf(TRV_ERROR_INVALID_ARGUMENT, "%d is not a kind of element", kind);
}

const Registry &TRVmodel::registry(int kind) const {
    return const_cast<TRVmodel *>(this)->registry(kind);
}

Names &TRVmodel::names(int kind) {
    switch (kind) {
    case TRV_VAR:
        return columns.names;
    case TRV_CONSTR:
        return rows.names;
    case TRV_QCONSTR:
        return qrows.names;
    case TRV_GENCONSTR:
        return gens.names;
    case TRV_NLCONSTR:
        return nlrows.names;
    }
    failf(TRV_ERROR_INVALID_ARGUMENT, "%d is not a kind of element", kind);
}

// A tape has no term that could go with its variable, and a general constraint without it would be another one.
void TRVmodel::requireunused(int64_t n, const int32_t *variables, const Buffer<int32_t> &leavingrows,
                             const Buffer<int32_t> &leavinggens) {
    for (int64_t i = 0; i < n; i++) {
        const int32_t id = variables[i];
        if (id < 0 || !uses.any(id))
            continue;
        const std::string what = "remove: " + columns.ids.called(id);
        const int32_t nlrow = nlrows.rowwith(id, leavingrows), gen = nlrow < 0 ? gens.genwith(id, leavinggens) : -1;
        if (nlrow < 0 && gen < 0)
            fail(TRV_ERROR_INVALID_ARGUMENT, what + " stands in the nonlinear objective; replace that first");
        const std::string where =
            nlrow >= 0 ? nlrows.ids.called(nlrows.ids.idat(nlrow)) : gens.ids.called(gens.ids.idat(gen));
        fail(TRV_ERROR_INVALID_ARGUMENT, what + " stands in " + where + "; remove that first");
    }
}

// The uses by what leaves are taken off before the variables are looked at, so that these may go with it.
void TRVmodel::remove(int32_t count, const TRVremoval *removals) {
    Buffer<int32_t> leavingrows, leavinggens;
    int32_t onerow = -1, onegen = -1, another = -1;
    for (int32_t k = 0; k < count; k++) {
        const TRVremoval &r = removals[k];
        int32_t &one = r.kind == TRV_NLCONSTR ? onerow : r.kind == TRV_GENCONSTR ? onegen : another;
        Buffer<int32_t> slots = registry(r.kind).leaving(r.n, r.ids, one); // a check for the other kinds
        if (r.kind == TRV_NLCONSTR)
            leavingrows = std::move(slots);
        else if (r.kind == TRV_GENCONSTR)
            leavinggens = std::move(slots);
    }
    const auto adduses = [&](int64_t by) {
        nlrows.adduses(uses, leavingrows, by);
        gens.adduses(uses, leavinggens, by);
    };
    adduses(-1);
    try {
        for (int32_t k = 0; k < count; k++)
            if (removals[k].kind == TRV_VAR)
                requireunused(removals[k].n, removals[k].ids, leavingrows, leavinggens);
        for (int32_t k = 0; k < count; k++)
            if (removals[k].n) // without any the registry keeps its short form
                registry(removals[k].kind).prepareremoval();
    } catch (...) {
        adduses(1);
        throw;
    }
    for (int32_t k = 0; k < count; k++) {
        registry(removals[k].kind).remove(removals[k].n, removals[k].ids);
        if (removals[k].kind == TRV_VAR && removals[k].n)
            variablesremoved();
    }
}

void TRVmodel::variablesremoved() {
    nlrows.variablesremoved();
    rows.variablesremoved();
    qrows.variablesremoved();
    qobjective.variablesremoved();
}

void TRVmodel::purge() {
    rows.purge(columns);
    qrows.purge(columns);
    nlrows.purge(columns);
    qobjective.purge(columns);
}

void TRVmodel::update() {
    rows.prepareupdate(columns);
    const bool structure = columns.ids.changes() || rows.ids.changes() || qrows.ids.changes() || nlrows.ids.changes() ||
                           gens.ids.changes();
    if (structure) {
        changes.loadanew();
        changed = true;
    }
    if (changed)
        solution.outdate();
    changed = false;
    solution.compact(columns.ids);
    rows.update(columns);
    qrows.update(columns);
    nlrows.update(columns);
    gens.update();
    qobjective.update(columns);
    columns.update();
}

void TRVmodel::touched(Changes::Kind kind, int32_t slot) {
    const Registry &ids = kind == Changes::kSides ? rows.ids : columns.ids;
    if (slot >= ids.committed())
        return;
    changed = true;
    changes.element(kind, slot);
}

void TRVmodel::writeqrhs(int32_t slot, double value) {
    if (qrows.rhs[slot] == value)
        return;
    qrows.rhs[slot] = value;
    if (slot >= qrows.ids.committed())
        return;
    changed = true;
    changes.quadratic();
}

void TRVmodel::setobjconstant(double value) {
    if (value == objconstant)
        return;
    objconstant = value;
    changed = true;
    changes.objconstant();
}

void TRVmodel::setsense(int value) {
    if (value == sense)
        return;
    sense = value;
    changed = true;
    changes.sense();
}

namespace {

void requirecost(const Registry &variables, int32_t id, double cost) {
    if (!isfinite(cost))
        fail(TRV_ERROR_INVALID_ARGUMENT,
             "objective: the coefficient of " + variables.called(id) + " is " + number(cost));
}

// Coefficients of one row. Asking a long row for many is done by an index, so that reading whole rows is not quadratic.
void readrow(const Row &row, int64_t n, const int32_t *vars, double *out) {
    if (n < 8 || row.n < 64) {
        for (int64_t i = 0; i < n; i++) {
            const int64_t k = Rows::find(row, vars[i]);
            out[i] = k < 0 ? 0.0 : row.coef[k];
        }
        return;
    }
    std::unordered_map<int32_t, double> coefs;
    coefs.reserve(row.n);
    for (int64_t k = 0; k < row.n; k++)
        coefs.emplace(row.var[k], row.coef[k]);
    for (int64_t i = 0; i < n; i++) {
        const auto found = coefs.find(vars[i]);
        out[i] = found == coefs.end() ? 0.0 : found->second;
    }
}

} // namespace

// Ascending ids have ascending slots: no array in between is needed.
void TRVmodel::writecosts(int64_t n, const int32_t *var, const double *coef) {
    int64_t k = 0;
    for (int32_t s = 0; s < columns.ids.slots(); s++) {
        const bool has = k < n && columns.ids.slot(var[k]) == s;
        write(columns.obj[s], has ? coef[k] : 0.0, Changes::kCosts, s);
        k += has;
    }
}

void TRVmodel::sumcosts(int64_t n, const int32_t *var, const double *coef) {
    Buffer<double> costs;
    costs.pad(columns.ids.slots(), 0.0);
    for (int64_t k = 0; k < n; k++) {
        double &cost = costs[columns.ids.slot(var[k])];
        cost += coef[k];
        requirecost(columns.ids, var[k], cost);
    }
    for (int32_t s = 0; s < columns.ids.slots(); s++)
        write(columns.obj[s], costs[s], Changes::kCosts, s);
}

// No engine keeps a model with a tape: another one is another model.
void TRVmodel::replacetape(NlObjective &&nonlinear) noexcept {
    if (nonlinear.equals(nlobjective))
        return;
    uses.add(nlobjective.tape().n, nlobjective.tape().code, -1);
    nlobjective = std::move(nonlinear);
    uses.add(nlobjective.tape().n, nlobjective.tape().code, 1);
    changed = true;
    changes.loadanew();
}

void TRVmodel::setobjective(int64_t n, const int32_t *var, const double *coef, QuadTerms &&quadratic,
                            NlObjective &&nonlinear, double constant, int newsense) {
    requirecount("terms", n);
    requirepointer("variables of terms", var, n);
    requirepointer("coefficients", coef, n);
    if (newsense != TRV_MINIMIZE && newsense != TRV_MAXIMIZE && newsense != 0)
        failf(TRV_ERROR_INVALID_ARGUMENT, "sense %d is not 1 (minimize), -1 (maximize) or 0 (as it is)", newsense);
    if (!isfinite(constant))
        failf(TRV_ERROR_INVALID_ARGUMENT, "the constant of the objective is %s", number(constant).c_str());
    bool ascending = true;
    for (int64_t k = 0; k < n; k++) {
        columns.ids.requireusable(var[k], "objective");
        requirecost(columns.ids, var[k], coef[k]);
        ascending &= k == 0 || var[k] > var[k - 1];
    }
    if (nonlinear.tape().n)
        uses.reserve(columns.ids);
    ascending ? writecosts(n, var, coef) : sumcosts(n, var, coef);
    setobjconstant(constant);
    if (qobjective.replace(std::move(quadratic))) {
        changed = true;
        changes.quadratic();
    }
    replacetape(std::move(nonlinear));
    if (newsense)
        setsense(newsense);
}

void TRVmodel::getcoefficients(int64_t n, const int32_t *rowids, const int32_t *vars, double *out) {
    rows.purge(columns);
    for (int64_t i = 0, end = 0; i < n; i = end) {
        for (end = i + 1; end < n && rowids[end] == rowids[i];)
            end++;
        const Row row = rows.row(rows.ids.require(rowids[i], "coefficient"));
        for (int64_t j = i; j < end; j++)
            columns.ids.require(vars[j], "coefficient");
        readrow(row, end - i, vars + i, out + i);
    }
}

void TRVmodel::setcoefficients(int64_t n, const int32_t *rowids, const int32_t *vars, const double *values) {
    for (int64_t i = 0; i < n; i++) {
        rows.ids.require(rowids[i], "coefficient");
        columns.ids.requireusable(vars[i], "coefficient");
        if (!isfinite(values[i]))
            fail(TRV_ERROR_INVALID_ARGUMENT, "the coefficient of " + columns.ids.called(vars[i]) + " in " +
                                                 rows.ids.called(rowids[i]) + " is " + number(values[i]));
    }
    if (n)
        rows.purge(columns);
    rows.prepareset(n, rowids, vars, values);
    for (int64_t i = 0; i < n; i++) {
        const int32_t r = rows.ids.slot(rowids[i]), c = columns.ids.slot(vars[i]);
        if (!rows.set(r, columns, vars[i], values[i]) || r >= rows.ids.committed())
            continue;
        changed = true;
        solution.coefficientschanged();
        if (c < columns.ids.committed() && changes.coefficient(r, c))
            changes.limitcoefficients(rows.nonzeros(columns));
    }
}
