// elementattr.cpp: double attributes of variables and rows, by id. Writers check every id and value first and change
// afterwards.
#include "elementattr.h"

#include <algorithm>
#include <iterator>

namespace store {

namespace {

// As TRV has them.
const char *statusname(int status) {
    static const char *const names[] = {
        "NOT_SOLVED", "OPTIMAL",         "INFEASIBLE", "UNBOUNDED",      "INFEASIBLE_OR_UNBOUNDED",
        "TIME_LIMIT", "ITERATION_LIMIT", "NODE_LIMIT", "SOLUTION_LIMIT", "INTERRUPTED",
        "IMPRECISE",  "FAILED"};
    const bool known = status >= 0 && status < static_cast<int>(std::size(names));
    return known ? names[status] : "unknown";
}

} // namespace

void failnodata(const TRVmodel &model, const char *what) {
    const Solution &solution = model.solution;
    if (solution.status() == TRV_NOT_SOLVED)
        failf(TRV_ERROR_NO_DATA, "%s: %s (Status NOT_SOLVED); call optimize() first", what,
              solution.outdated() ? "the model has changed since the last solve" : "the model has no solution yet");
    failf(TRV_ERROR_NO_DATA, "%s: the last solve ended with Status %s and left no value", what,
          statusname(solution.status()));
}

namespace {

[[noreturn]] void failnoduals(const TRVmodel &model, const char *what) {
    const Solution &solution = model.solution;
    if (solution.status() == TRV_NOT_SOLVED || (model.columns.integral() == 0 && solution.noduals().empty()))
        failnodata(model, what);
    if (!solution.noduals().empty())
        failf(TRV_ERROR_NO_DATA, "%s: there are no duals: %s", what, solution.noduals().c_str());
    failf(TRV_ERROR_NO_DATA,
          "%s: there are no duals of a model with integer variables; those of fixed(), the model with these fixed at "
          "their values, can be asked for once that is solved",
          what);
}

void getsolution(const Registry &registry, Attr attr, const Selection &which, int32_t solved,
                 const Buffer<double> &from, double *out) {
    const char *what = infoof(attr).name;
    const int32_t block = blockof(registry, which);
    if (block >= 0 && block + which.n <= solved)
        return moveterms(out, from.data() + block, which.n);
    eachslot(registry, what, which, [&](int64_t i, int32_t s) {
        if (s >= solved)
            fail(TRV_ERROR_NO_DATA, std::string(what) + ": " + registry.called(which.id(i)) +
                                        " was added after the last solve; call optimize() first");
        out[i] = from[s];
    });
}

void getstart(const Columns &columns, const Selection &which, double *out) {
    eachslot(columns.ids, "Start", which, [&](int64_t i, int32_t s) {
        out[i] = static_cast<size_t>(s) < columns.start.size() ? columns.start[s] : NAN;
    });
}

double rhsof(const Rows &rows, int32_t s) {
    return rows.sense[s] == '>' ? rows.lower[s] : rows.upper[s];
}

void getslack(TRVmodel &model, const Selection &which, double *out) {
    const Solution &solution = model.solution;
    const Buffer<double> &activity = model.solution.activity(model.columns, model.rows);
    getsolution(model.rows.ids, Attr::Slack, which, solution.nrows(), activity, out);
    eachslot(model.rows.ids, "Slack", which, [&](int64_t i, int32_t s) { out[i] = rhsof(model.rows, s) - out[i]; });
}

void getvariables(TRVmodel &model, Attr attr, const Selection &which, double *out) {
    const Columns &columns = model.columns;
    const Solution &solution = model.solution;
    const char *what = infoof(attr).name;
    switch (attr) {
    case Attr::LB:
        return gather(columns.ids, what, which, columns.lb, out);
    case Attr::UB:
        return gather(columns.ids, what, which, columns.ub, out);
    case Attr::Obj:
        return gather(columns.ids, what, which, columns.obj, out);
    case Attr::Start:
        return getstart(columns, which, out);
    case Attr::X:
        if (!solution.hasx())
            failnodata(model, what);
        return getsolution(columns.ids, attr, which, solution.nvars(), solution.x(), out);
    default:
        if (!solution.hasduals())
            failnoduals(model, what);
        return getsolution(columns.ids, attr, which, solution.nvars(), solution.rc(), out);
    }
}

void getrows(TRVmodel &model, Attr attr, const Selection &which, double *out) {
    const Rows &rows = model.rows;
    const Solution &solution = model.solution;
    const char *what = infoof(attr).name;
    switch (attr) {
    case Attr::Lower:
        return gather(rows.ids, what, which, rows.lower, out);
    case Attr::Upper:
        return gather(rows.ids, what, which, rows.upper, out);
    case Attr::RHS:
        return eachslot(rows.ids, what, which, [&](int64_t i, int32_t s) { out[i] = rhsof(rows, s); });
    case Attr::Slack:
        if (!solution.hasx())
            failnodata(model, what);
        return getslack(model, which, out);
    default:
        if (!solution.hasduals())
            failnoduals(model, what);
        return getsolution(rows.ids, attr, which, solution.nrows(), solution.pi(), out);
    }
}

void getqrows(TRVmodel &model, Attr attr, const Selection &which, double *out) {
    const QRows &qrows = model.qrows;
    Solution &solution = model.solution;
    const char *what = infoof(attr).name;
    if (attr == Attr::QRHS)
        return gather(qrows.ids, what, which, qrows.rhs, out);
    if (attr == Attr::QSlack) {
        if (!solution.hasx())
            failnodata(model, what);
        getsolution(qrows.ids, attr, which, solution.nqrows(), solution.qactivity(model.columns, qrows), out);
        return eachslot(qrows.ids, what, which, [&](int64_t i, int32_t s) { out[i] = qrows.rhs[s] - out[i]; });
    }
    if (!solution.hasduals())
        failnoduals(model, what);
    getsolution(qrows.ids, attr, which, solution.nqrows(), solution.qpi(), out);
}

// Against the side that RHS would name.
double nlrhsof(const NlRows &rows, int32_t s) {
    return std::isinf(rows.upper[s]) && !std::isinf(rows.lower[s]) ? rows.lower[s] : rows.upper[s];
}

// NLSlack is the only one. An update that changes the rows ends the solution, so that it is known for all in the model.
void getnlrows(TRVmodel &model, Attr attr, const Selection &which, double *out) {
    const NlRows &rows = model.nlrows;
    if (!model.solution.hasx())
        failnodata(model, infoof(attr).name);
    model.nlrows.purge(model.columns);
    const Buffer<double> &activity = model.solution.nlactivity(model.columns, rows);
    getsolution(rows.ids, attr, which, rows.ids.committed(), activity, out);
    eachslot(rows.ids, infoof(attr).name, which, [&](int64_t i, int32_t s) { out[i] = nlrhsof(rows, s) - out[i]; });
}

} // namespace

void getdoubles(TRVmodel &model, Attr attr, const Selection &which, double *out) {
    switch (infoof(attr).kind) {
    case TRV_VAR:
        return getvariables(model, attr, which, out);
    case TRV_CONSTR:
        return getrows(model, attr, which, out);
    case TRV_QCONSTR:
        return getqrows(model, attr, which, out);
    case TRV_NLCONSTR:
        return getnlrows(model, attr, which, out);
    default: // kinds without elements: every id is unknown
        eachslot(model.registry(infoof(attr).kind), infoof(attr).name, which, [](int64_t, int32_t) {});
    }
}

// ---- writing

namespace {

// check(value, id, slot) gives the value to store or fails; put(slot, value) stores it. What several puts need memory
// for, so that one may fail after another, is the check's to take; an array of one number is written out by the first
// put that changes it.
template <class T, class Check, class Put>
void checkthenset(const Registry &registry, const char *what, const Selection &which, const T *values, int step,
                  Check check, Put put) {
    eachslot(registry, what, which, [&](int64_t i, int32_t s) { check(values[i * step], which.id(i), s); });
    for (int64_t i = 0; i < which.n; i++) {
        const int32_t s = registry.slot(which.id(i));
        put(s, check(values[i * step], which.id(i), s));
    }
}

// The element with this id as an error calls it: made only where one is.
auto calling(const Registry &registry, int64_t id) {
    return [&registry, id] { return registry.called(id); };
}

double checkedstart(const Registry &variables, double value, int64_t id) {
    if (!std::isnan(value) && !isfinite(value))
        failvalue("Start", calling(variables, id), value, "it must be finite");
    return value;
}

void setvariables(TRVmodel &model, Attr attr, const Selection &which, const double *values, int step) {
    Columns &columns = model.columns;
    const char *what = infoof(attr).name;
    switch (attr) {
    case Attr::LB:
        return checkthenset(
            columns.ids, what, which, values, step,
            [&](double v, int64_t id, int32_t) { return Columns::checkedlb(v, calling(columns.ids, id)); },
            [&](int32_t s, double v) {
                model.write(columns.lb, s, columns.vtype[s] == 'B' ? std::max(v, 0.0) : v, Changes::kBounds);
            });
    case Attr::UB:
        return checkthenset(
            columns.ids, what, which, values, step,
            [&](double v, int64_t id, int32_t) { return Columns::checkedub(v, calling(columns.ids, id)); },
            [&](int32_t s, double v) {
                model.write(columns.ub, s, columns.vtype[s] == 'B' ? std::min(v, 1.0) : v, Changes::kBounds);
            });
    case Attr::Obj:
        return checkthenset(
            columns.ids, what, which, values, step,
            [&](double v, int64_t id, int32_t) { return Columns::checkedobj(v, calling(columns.ids, id)); },
            [&](int32_t s, double v) { model.write(columns.obj[s], v, Changes::kCosts, s); });
    default:
        return checkthenset(
            columns.ids, what, which, values, step,
            [&](double v, int64_t id, int32_t) { return checkedstart(columns.ids, v, id); },
            [&](int32_t s, double v) {
                columns.start.pad(columns.ids.slots(), NAN);
                columns.start[s] = v;
            });
    }
}

void putsides(TRVmodel &model, int32_t s, double lower, double upper) {
    model.write(model.rows.lower, s, lower, Changes::kSides);
    model.write(model.rows.upper, s, upper, Changes::kSides);
}

template <class Who> double checkedrhs(double value, Who who, char sense) {
    if (std::isnan(value) || (sense == '=' && !isfinite(value)))
        failvalue("RHS", who, value);
    return sense == '>' ? Rows::checkedlower(value, who, "RHS") : Rows::checkedupper(value, who, "RHS");
}

// The sense stays; only a two-sided row that loses its upper side turns into '>'.
void putrhs(TRVmodel &model, int32_t s, double value) {
    Rows &rows = model.rows;
    char &sense = rows.sense[s];
    putsides(model, s, sense == '>' || sense == '=' ? value : rows.lower[s], sense == '>' ? rows.upper[s] : value);
    if (sense == 'R' && std::isinf(value))
        sense = '>';
}

void setrows(TRVmodel &model, Attr attr, const Selection &which, const double *values, int step) {
    Rows &rows = model.rows;
    const char *what = infoof(attr).name;
    switch (attr) {
    case Attr::RHS:
        return checkthenset(
            rows.ids, what, which, values, step,
            [&](double v, int64_t id, int32_t s) {
                v = checkedrhs(v, calling(rows.ids, id), rows.sense[s]);
                if (rows.sense[s] != '<') // that of a two-sided row may turn before another value of it comes
                    rows.lower.expect(v);
                if (rows.sense[s] != '>')
                    rows.upper.expect(v);
                return v;
            },
            [&](int32_t s, double v) { putrhs(model, s, normalized(v)); });
    case Attr::Lower:
        return checkthenset(
            rows.ids, what, which, values, step,
            [&](double v, int64_t id, int32_t) {
                v = Rows::checkedlower(v, calling(rows.ids, id), what);
                rows.lower.expect(v);
                return v;
            },
            [&](int32_t s, double v) {
                putsides(model, s, v, rows.upper[s]);
                rows.sense[s] = Rows::senseof(v, rows.upper[s]);
            });
    default:
        return checkthenset(
            rows.ids, what, which, values, step,
            [&](double v, int64_t id, int32_t) {
                v = Rows::checkedupper(v, calling(rows.ids, id), what);
                rows.upper.expect(v);
                return v;
            },
            [&](int32_t s, double v) {
                putsides(model, s, rows.lower[s], v);
                rows.sense[s] = Rows::senseof(rows.lower[s], v);
            });
    }
}

// QRHS is what can be set.
void setqrows(TRVmodel &model, const Selection &which, const double *values, int step) {
    QRows &qrows = model.qrows;
    checkthenset(
        qrows.ids, "QRHS", which, values, step,
        [&](double v, int64_t id, int32_t s) {
            return QRows::checkedrhs(v, qrows.sense[s], calling(qrows.ids, id), "QRHS");
        },
        [&](int32_t s, double v) { model.writeqrhs(s, v); });
}

} // namespace

void setdoubles(TRVmodel &model, Attr attr, const Selection &which, const double *values, int step) {
    switch (infoof(attr).kind) {
    case TRV_VAR:
        return setvariables(model, attr, which, values, step);
    case TRV_CONSTR:
        return setrows(model, attr, which, values, step);
    case TRV_QCONSTR:
        return setqrows(model, which, values, step);
    default:
        eachslot(model.registry(infoof(attr).kind), infoof(attr).name, which, [](int64_t, int32_t) {});
    }
}

} // namespace store
