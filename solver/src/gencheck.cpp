// gencheck.cpp: the residual of each type of general constraint.
#include "gencheck.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace store {

namespace {

double finiteabs(double v) {
    return std::isinf(v) ? 0.0 : std::fabs(v);
}

bool istrue(double v) {
    return v >= 0.5;
}

// The distance of (x, y), in the larger of the two directions, from the piece between u = from and u = to of the line
// through (x0, y0) and (x1, y1). Measured so, and not along y, a steep piece and a jump are alike: an error of x is
// as good as one of y, and no slope makes it larger.
double piecedistance(double x, double y, double x0, double y0, double x1, double y1, double from, double to) {
    const double slope = (y1 - y0) / (x1 - x0);
    if (!std::isfinite(slope)) // a jump, or as good as one
        return std::max({std::fabs(x - x0), std::min(y0, y1) - y, y - std::max(y0, y1)});
    const double above = y - (y0 + slope * (x - x0));
    const double nearest = slope == 0.0 ? x : x + above / (slope + std::copysign(1.0, slope));
    const double u = std::min(std::max(nearest, from), to);
    return std::max(std::fabs(x - u), std::fabs(y - (y0 + slope * (u - x0))));
}

// Of piece i, from point i - 1 to point i; the outer ones have no outer end.
double distanceto(int64_t i, const double *xs, const double *ys, int64_t n, double x, double y) {
    const double from = i == 1 ? -INFINITY : xs[i - 1], to = i == n - 1 ? INFINITY : xs[i];
    return piecedistance(x, y, xs[i - 1], ys[i - 1], xs[i], ys[i], from, to);
}

} // namespace

int64_t nearestpiece(const double *xs, const double *ys, int64_t n, double x, double y) {
    int64_t best = 1;
    double distance = INFINITY;
    for (int64_t i = 1; i < n; i++)
        if (const double own = distanceto(i, xs, ys, n, x, y); own < distance) {
            distance = own;
            best = i;
        }
    return best;
}

GenCheck::Value GenCheck::argument(const Gen &gen, int64_t arg) const {
    Value sum{gen.constant[arg], std::fabs(gen.constant[arg])};
    for (int64_t k = gen.ptr[arg]; k < gen.ptr[arg + 1]; k++) {
        const double term = gen.coef[k] * x_[variables_.position(gen.var[k])];
        sum.value += term;
        sum.largest = std::max(sum.largest, finiteabs(term));
    }
    return sum;
}

// The scale knows the argument that decides, and no others: a large one that is far from being the smallest would
// excuse any error.
GenCheck::Residual GenCheck::extreme(const Gen &gen) const {
    Value best = argument(gen, 1);
    if (gen.type == TRV_GEN_ABS)
        best.value = std::fabs(best.value);
    const double sign = gen.type == TRV_GEN_MIN ? -1.0 : 1.0;
    for (int64_t a = 2; a < gen.nargs; a++) {
        const Value other = argument(gen, a);
        if (!(sign * other.value <= sign * best.value))
            best = other;
    }
    const Value result = argument(gen, 0);
    return {std::fabs(result.value - best.value), 1.0 + std::max(result.largest, best.largest)};
}

// How far binary variables are from 0 and 1 is the integrality's figure; here is asked what they mean.
GenCheck::Residual GenCheck::logical(const Gen &gen) const {
    const bool decides = gen.type == TRV_GEN_OR; // the argument that settles the matter
    bool truth = !decides;
    for (int64_t a = 1; a < gen.nargs; a++)
        if (istrue(argument(gen, a).value) == decides)
            truth = decides;
    const double result = argument(gen, 0).value;
    return {istrue(result) == truth ? 0.0 : std::fabs(result - truth), 1.0};
}

GenCheck::Residual GenCheck::graph(const Gen &gen) const {
    const int64_t n = gen.ndata / 2;
    const double *xs = gen.data, *ys = gen.data + n;
    const Value y = argument(gen, 0), x = argument(gen, 1);
    const double distance = distanceto(nearestpiece(xs, ys, n, x.value, y.value), xs, ys, n, x.value, y.value);
    return {distance, 1.0 + std::max(x.largest, y.largest)};
}

GenCheck::Residual GenCheck::indicator(const Gen &gen) const {
    const Value binary = argument(gen, 0);
    if (istrue(binary.value) != istrue(gen.data[0]))
        return {0.0, 1.0};
    const Value row = argument(gen, 1);
    const double lower = gen.data[1], upper = gen.data[2];
    return {std::max({lower - row.value, row.value - upper, 0.0}),
            1.0 + std::max({row.largest, finiteabs(lower), finiteabs(upper)})};
}

// The largest member that ought to be 0, where those stay that leave it smallest. Its scale is 1: how large the
// members that may stay are says nothing about the others.
GenCheck::Residual GenCheck::set(const Gen &gen) {
    const int64_t n = gen.nargs, stay = gen.type == TRV_GEN_SOS1 ? 1 : 2;
    order_.resize(n);
    std::iota(order_.begin(), order_.end(), 0);
    if (stay == 2)
        std::sort(order_.begin(), order_.end(), [&](int32_t a, int32_t b) { return gen.data[a] < gen.data[b]; });
    magnitude_.resize(n);
    before_.assign(n + 1, 0.0);
    for (int64_t i = 0; i < n; i++) {
        magnitude_[i] = std::fabs(argument(gen, order_[i]).value);
        before_[i + 1] = std::max(before_[i], magnitude_[i]);
    }
    double worst = n <= stay ? 0.0 : INFINITY, after = 0.0;
    for (int64_t i = n - stay; i >= 0; i--) { // the members i .. i + stay - 1 stay
        worst = std::min(worst, std::max(before_[i], after));
        after = std::max(after, magnitude_[i + stay - 1]);
    }
    return {worst, 1.0};
}

GenCheck::Residual GenCheck::residual(const Gen &gen) {
    for (int64_t k = gen.ptr[0]; k < gen.ptr[gen.nargs]; k++)
        if (!std::isfinite(x_[variables_.position(gen.var[k])]))
            return {INFINITY, 1.0};
    switch (gen.type) {
    case TRV_GEN_AND:
    case TRV_GEN_OR:
        return logical(gen);
    case TRV_GEN_PWL:
        return graph(gen);
    case TRV_GEN_INDICATOR:
        return indicator(gen);
    case TRV_GEN_SOS1:
    case TRV_GEN_SOS2:
        return set(gen);
    default:
        return extreme(gen);
    }
}

} // namespace store
