// columns.cpp: adding variables and their checks.
#include "columns.h"

#include "scan.h"

#include <algorithm>

namespace store {

namespace {

// n values where a caller has them; step 0 is one for all.
struct Given {
    const double *from;
    int step;
    int64_t n;
};

void fill(Values &array, int64_t n, double value) {
    array.fill(n, value);
}
// Zeros are not written over memory that holds them.
void fill(Buffer<double> &array, int64_t n, double value) {
    if (value == 0.0 && !std::signbit(value))
        array.zeros(n);
    else
        std::fill_n(array.room(n), n, value);
}

// Copies what is given to the end of an array, each value as `checked` has it. Finite values are the rule: only where
// there are others is each looked at.
template <class Array, class Checked> void place(Array &array, const Given &given, Checked checked) {
    if (given.n && given.step == 0)
        return fill(array, given.n, checked(*given.from, 0));
    double *to = array.room(given.n);
    const bool finite = copyfinite(given.n, given.from, given.step, to);
    for (int64_t i = 0; !finite && i < given.n; i++)
        to[i] = checked(given.from[i], i);
}

// Those of the n bounds to come that are of binary variables, as `cut` has them.
template <class Cut> void cutbinaries(Values &bounds, const char *type, int64_t n, Cut cut) {
    if (!bounds.coming()) {
        const double value = bounds.coming(0);
        if (cut(value) == value)
            return;
        std::fill_n(bounds.room(n), n, value);
    }
    double *to = bounds.coming();
    for (int64_t i = 0; i < n; i++)
        if (type[i] == 'B')
            to[i] = cut(to[i]);
}

} // namespace

int32_t Columns::add(int64_t n, const double *lower, int lbstep, const double *upper, int ubstep, const double *cost,
                     int objstep, const char *type, int typestep, const TRVnames *newnames) {
    ids.reserve(n);
    const int32_t first = ids.count();
    const auto who = [&](int64_t i) { return [=] { return calledinblock(TRV_VAR, first, n, i, newnames); }; };
    const bool binary = n && typestep == 0 && *type == 'B'; // all of them
    place(lb, {lower, lbstep, n}, [&](double value, int64_t i) {
        value = checkedlb(value, who(i));
        return binary && lbstep == 0 ? std::max(value, 0.0) : value;
    });
    place(ub, {upper, ubstep, n}, [&](double value, int64_t i) {
        value = checkedub(value, who(i));
        return binary && ubstep == 0 ? std::min(value, 1.0) : value;
    });
    place(obj, {cost, objstep, n}, [&](double value, int64_t i) { return checkedobj(value, who(i)); });
    char *t = vtype.room(n);
    if (n && typestep == 0)
        std::fill_n(t, n, checkedtype(*type, who(0)));
    for (int64_t i = 0; typestep && i < n; i++)
        t[i] = checkedtype(type[i * typestep], who(i));
    if (binary ? lbstep || ubstep : typestep && std::find(t, t + n, 'B') != t + n) {
        cutbinaries(lb, t, n, [](double value) { return std::max(value, 0.0); });
        cutbinaries(ub, t, n, [](double value) { return std::min(value, 1.0); });
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

int32_t Columns::semicontinuous() const {
    return static_cast<int32_t>(std::count(vtype.data(), vtype.data() + ids.committed(), 'S'));
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
