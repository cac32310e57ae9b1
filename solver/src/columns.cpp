// columns.cpp: adding variables and their checks.
#include "columns.h"

#include "failure.h"

#include <algorithm>
#include <cinttypes>

namespace store {

double Columns::checkedlb(double value, int64_t id) {
    if (std::isnan(value) || value >= TRV_INFINITY)
        failf(TRV_ERROR_INVALID_ARGUMENT, "LB of variable %" PRId64 " is %s", id, number(value).c_str());
    return normalized(value);
}

double Columns::checkedub(double value, int64_t id) {
    if (std::isnan(value) || value <= -TRV_INFINITY)
        failf(TRV_ERROR_INVALID_ARGUMENT, "UB of variable %" PRId64 " is %s", id, number(value).c_str());
    return normalized(value);
}

double Columns::checkedobj(double value, int64_t id) {
    if (!isfinite(value))
        failf(TRV_ERROR_INVALID_ARGUMENT, "Obj of variable %" PRId64 " is %s", id, number(value).c_str());
    return value;
}

char Columns::checkedtype(char value, int64_t id) {
    if (value != 'C' && value != 'B' && value != 'I' && value != 'S')
        failf(TRV_ERROR_INVALID_ARGUMENT, "VType of variable %" PRId64 " is %s, not one of C B I S", id,
              character(value).c_str());
    return value;
}

int32_t Columns::add(int64_t n, const double *lower, int lbstep, const double *upper, int ubstep, const double *cost,
                     int objstep, const char *type, int typestep, const TRVnames *newnames) {
    ids.reserve(n);
    double *l = lb.room(n), *u = ub.room(n), *c = obj.room(n);
    char *t = vtype.room(n);
    int64_t first = ids.count();
    for (int64_t i = 0; i < n; i++)
        l[i] = checkedlb(lower[i * lbstep], first + i);
    for (int64_t i = 0; i < n; i++)
        u[i] = checkedub(upper[i * ubstep], first + i);
    for (int64_t i = 0; i < n; i++)
        c[i] = checkedobj(cost[i * objstep], first + i);
    for (int64_t i = 0; i < n; i++) {
        t[i] = checkedtype(type[i * typestep], first + i);
        if (t[i] == 'B') {
            l[i] = std::max(l[i], 0.0);
            u[i] = std::min(u[i], 1.0);
        }
    }
    names.add(static_cast<int32_t>(first), n, newnames);
    lb.grow(n);
    ub.grow(n);
    obj.grow(n);
    vtype.grow(n);
    return ids.add(n);
}

int32_t Columns::integral() const {
    return ids.committed() - static_cast<int32_t>(std::count(vtype.data(), vtype.data() + ids.committed(), 'C'));
}

void Columns::update() noexcept {
    ids.compact(lb);
    ids.compact(ub);
    ids.compact(obj);
    ids.compact(vtype);
    ids.compact(start);
    ids.commit();
}

} // namespace store
