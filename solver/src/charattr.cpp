// charattr.cpp: VType of variables, Sense of rows, and QSense of quadratic rows, which cannot be set.
#include "elementattr.h"

#include <algorithm>

namespace store {

namespace {

// 'B' cuts the bounds to [0, 1]; going back to another type does not widen them again.
void puttype(TRVmodel &model, int32_t s, char type) {
    Columns &columns = model.columns;
    if (columns.vtype[s] != type) {
        columns.vtype[s] = type;
        if (s < columns.ids.committed()) {
            model.changed = true;
            model.changes.loadanew();
        }
    }
    if (type != 'B')
        return;
    model.write(columns.lb, s, std::max(columns.lb[s], 0.0), Changes::kBounds);
    model.write(columns.ub, s, std::min(columns.ub[s], 1.0), Changes::kBounds);
}

void settypes(TRVmodel &model, const Selection &which, const char *values, int step) {
    Columns &columns = model.columns;
    const Registry &ids = columns.ids;
    eachslot(ids, "VType", which, [&](int64_t i, int32_t s) {
        if (Columns::checkedtype(values[i * step], [&] { return ids.called(which.id(i)); }) != 'B')
            return;
        columns.lb.expect(std::max(columns.lb[s], 0.0));
        columns.ub.expect(std::min(columns.ub[s], 1.0));
    });
    for (int64_t i = 0; i < which.n; i++)
        puttype(model, ids.slot(which.id(i)), values[i * step]);
}

void checksense(const Rows &rows, int64_t id, int32_t s, char sense) {
    const char now = rows.sense[s];
    if (sense != '<' && sense != '>' && sense != '=' && !(sense == 'R' && now == 'R'))
        fail(TRV_ERROR_INVALID_ARGUMENT, "Sense of " + rows.ids.called(id) + " is " + character(sense) +
                                             ", not one of '<', '>', '='" +
                                             (sense == 'R' ? ": set Lower and Upper to make a row two-sided" : ""));
    const double rhs = now == '>' ? rows.lower[s] : rows.upper[s];
    if (sense == '=' && std::isinf(rhs))
        fail(TRV_ERROR_INVALID_ARGUMENT, "Sense of " + rows.ids.called(id) +
                                             ": a row without a right-hand side cannot become an equation; set RHS");
}

struct Sides {
    double lower, upper;
};

// The right-hand side stays, the other side follows the sense. A free row stays free.
Sides sideswith(const Rows &rows, int32_t s, char sense) {
    if (sense == 'R')
        return {rows.lower[s], rows.upper[s]};
    const double rhs = rows.sense[s] == '>' ? rows.lower[s] : rows.upper[s];
    return {sense == '<' || std::isinf(rhs) ? -INFINITY : rhs, sense == '>' || std::isinf(rhs) ? INFINITY : rhs};
}

void putsense(TRVmodel &model, int32_t s, char sense) {
    Rows &rows = model.rows;
    const Sides sides = sideswith(rows, s, sense);
    model.write(rows.lower, s, sides.lower, Changes::kSides);
    model.write(rows.upper, s, sides.upper, Changes::kSides);
    rows.sense[s] = sense;
}

void setsenses(TRVmodel &model, const Selection &which, const char *values, int step) {
    Rows &rows = model.rows;
    eachslot(rows.ids, "Sense", which, [&](int64_t i, int32_t s) {
        checksense(rows, which.id(i), s, values[i * step]);
        const Sides sides = sideswith(rows, s, values[i * step]);
        rows.lower.expect(sides.lower);
        rows.upper.expect(sides.upper);
    });
    for (int64_t i = 0; i < which.n; i++)
        putsense(model, rows.ids.slot(which.id(i)), values[i * step]);
}

} // namespace

void getchars(TRVmodel &model, Attr attr, const Selection &which, char *out) {
    if (attr == Attr::VType)
        return gather(model.columns.ids, "VType", which, model.columns.vtype, out);
    if (attr == Attr::Sense)
        return gather(model.rows.ids, "Sense", which, model.rows.sense, out);
    gather(model.qrows.ids, "QSense", which, model.qrows.sense, out);
}

void setchars(TRVmodel &model, Attr attr, const Selection &which, const char *values, int step) {
    if (attr == Attr::VType)
        return settypes(model, which, values, step);
    setsenses(model, which, values, step);
}

} // namespace store
