// columns.cpp: adding variables and their checks.
#include "columns.h"

#include <algorithm>

namespace store {

namespace {

// n values where a caller has them; step 0 is one for all.
struct Given {
    const double *from;
    int step;
    int64_t n;
};

// Copies what is given to the end of an array, each value as `checked` has it. Finite values are the rule: only where
// there are others is each looked at. Zeros are not written over memory that holds them.
template <class Checked> double *place(Buffer<double> &array, const Given &given, Checked checked) {
    if (given.n && given.step == 0) {
        const double value = checked(*given.from, 0);
        if (value == 0.0 && !std::signbit(value))
            return array.zeros(given.n);
        double *to = array.room(given.n);
        std::fill_n(to, given.n, value);
        return to;
    }
    double *to = array.room(given.n);
    bool finite = true;
    for (int64_t i = 0; i < given.n; i++) {
        to[i] = given.from[i * given.step];
        finite &= isfinite(to[i]);
    }
    for (int64_t i = 0; !finite && i < given.n; i++)
        to[i] = checked(given.from[i], i);
    return to;
}

} // namespace

int32_t Columns::add(int64_t n, const double *lower, int lbstep, const double *upper, int ubstep, const double *cost,
                     int objstep, const char *type, int typestep, const TRVnames *newnames) {
    ids.reserve(n);
    const int32_t first = ids.count();
    const auto who = [&](int64_t i) { return [=] { return calledinblock(TRV_VAR, first, n, i, newnames); }; };
    const bool binary = n && typestep == 0 && *type == 'B'; // all of them
    double *l = place(lb, {lower, lbstep, n}, [&](double value, int64_t i) {
        value = checkedlb(value, who(i));
        return binary && lbstep == 0 ? std::max(value, 0.0) : value;
    });
    double *u = place(ub, {upper, ubstep, n}, [&](double value, int64_t i) {
        value = checkedub(value, who(i));
        return binary && ubstep == 0 ? std::min(value, 1.0) : value;
    });
    place(obj, {cost, objstep, n}, [&](double value, int64_t i) { return checkedobj(value, who(i)); });
    char *t = vtype.room(n);
    if (n && typestep == 0)
        std::fill_n(t, n, checkedtype(*type, who(0)));
    for (int64_t i = 0; typestep && i < n; i++)
        t[i] = checkedtype(type[i * typestep], who(i));
    for (int64_t i = 0; (typestep || (binary && (lbstep || ubstep))) && i < n; i++)
        if (t[i] == 'B') {
            l[i] = std::max(l[i], 0.0);
            u[i] = std::min(u[i], 1.0);
        }
    names.add(first, n, newnames);
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
