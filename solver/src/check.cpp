// check.cpp: residuals of a solution in one pass over the rows.
//
// The worst element is the one whose violation is largest against its own scale, 1 + the largest term in it, and the
// figures reported are this element's violation and scale. So comparing violation <= tolerance * scale holds for all
// elements, and a row of large numbers hides no other.
#include "check.h"

#include "failure.h"

#include <algorithm>

namespace store {

namespace {

// Not a number counts as infinitely wrong.
struct Worst {
    double violation = 0.0, scale = 1.0;
    int32_t at = -1;

    void meet(double v, double s, int32_t element) {
        if (std::isnan(v))
            v = INFINITY;
        if (!(v * scale > violation * s) || v <= 0.0)
            return;
        violation = v;
        scale = s;
        at = element;
    }
};

double outside(double value, double lower, double upper) {
    if (std::isnan(value))
        return INFINITY;
    return std::max({lower - value, value - upper, 0.0});
}

double finiteabs(double v) {
    return std::isinf(v) ? 0.0 : std::fabs(v);
}

class Checker {
  public:
    Checker(const TRVmodel &model, bool hasduals) : model_(model), hasduals_(hasduals) {
        const Solution &s = model.solution;
        const bool open = s.isopen();
        if (!open && !s.hasx())
            fail(TRV_ERROR_NO_DATA, "check: there is no solution to check");
        if (!open && hasduals && !s.hasduals())
            fail(TRV_ERROR_NO_DATA, "check: the solution has no duals");
        x_ = (open ? s.openx() : s.x()).data();
        rc_ = (open ? s.openrc() : s.rc()).data();
        pi_ = (open ? s.openpi() : s.pi()).data();
        nvars_ = static_cast<int32_t>((open ? s.openx() : s.x()).size());
        const size_t nrows = open ? s.openpi().size() : s.nrows();
        if (nvars_ != model.columns.ids.committed() || static_cast<int32_t>(nrows) != model.rows.ids.committed())
            fail(TRV_ERROR_INVALID_ARGUMENT, "check: the solution was opened for another number of variables or rows");
    }

    TRVresiduals run() {
        if (hasduals_)
            prepareduals();
        checkrows();
        checkvariables();
        TRVresiduals r{};
        r.row = row_.violation;
        r.bound = bound_.violation;
        r.integral = integral_.violation;
        r.dual = dual_.violation;
        r.complementarity = complementarity_.violation;
        r.worstrow = row_.at;
        r.worstbound = bound_.at;
        r.worstintegral = integral_.at;
        r.worstdual = dual_.at;
        r.worstcomplementarity = complementarity_.at;
        r.rowscale = row_.scale;
        r.boundscale = bound_.scale;
        r.dualscale = dual_.scale;
        r.complementarityscale = objscale_;
        return r;
    }

  private:
    void prepareduals() {
        const Columns &columns = model_.columns;
        gradient_.resize(nvars_);
        largest_.resize(nvars_);
        for (int32_t v = 0; v < nvars_; v++) {
            gradient_[v] = columns.obj[v] - rc_[v];
            largest_[v] = std::max(std::fabs(columns.obj[v]), std::fabs(rc_[v]));
            objscale_ = std::max(objscale_, 1.0 + std::fabs(columns.obj[v] * x_[v]));
        }
    }

    // Positive multipliers (in a minimisation) belong to lower sides, negative ones to upper sides; one whose side is
    // missing is wrong by its size.
    void multiplier(double value, double activity, double lower, double upper, double scale, int32_t element) {
        const double m = value * model_.sense;
        const double side = m > 0.0 ? lower : upper;
        if (m == 0.0)
            return;
        if (std::isinf(side))
            return dual_.meet(std::fabs(m), scale, element);
        const double distance = std::max(m > 0.0 ? activity - side : side - activity, 0.0);
        complementarity_.meet(std::fabs(m) * distance, objscale_, element);
    }

    void checkrows() {
        const Rows &rows = model_.rows;
        const Registry &ids = model_.columns.ids;
        rows.each([&](int32_t r, const Row &row) {
            double activity = 0.0, largest = 0.0;
            const double pi = hasduals_ ? pi_[r] : 0.0;
            for (int64_t k = 0; k < row.n; k++) {
                const int32_t v = ids.position(row.var[k]);
                if (v < 0)
                    continue;
                const double term = row.coef[k] * x_[v];
                activity += term;
                largest = std::max(largest, std::fabs(term));
                if (pi != 0.0) {
                    const double share = row.coef[k] * pi;
                    gradient_[v] -= share;
                    largest_[v] = std::max(largest_[v], std::fabs(share));
                }
            }
            const double lower = rows.lower[r], upper = rows.upper[r];
            const double scale = 1.0 + std::max({largest, finiteabs(lower), finiteabs(upper)});
            row_.meet(outside(activity, lower, upper), scale, r);
            if (hasduals_)
                multiplier(pi, activity, lower, upper, 1.0 + std::fabs(pi), nvars_ + r);
        });
    }

    void checkvariables() {
        const Columns &columns = model_.columns;
        for (int32_t v = 0; v < nvars_; v++) {
            const double lower = columns.lb[v], upper = columns.ub[v];
            const char type = columns.vtype[v];
            double violation = outside(x_[v], lower, upper);
            if (type == 'S') // zero is allowed too
                violation = std::min(violation, std::fabs(x_[v]));
            bound_.meet(violation, 1.0 + std::max(finiteabs(lower), finiteabs(upper)), v);
            if (type == 'B' || type == 'I')
                integral_.meet(std::fabs(x_[v] - std::round(x_[v])), 1.0, v);
            if (!hasduals_)
                continue;
            dual_.meet(std::fabs(gradient_[v]), 1.0 + largest_[v], v);
            multiplier(rc_[v], x_[v], lower, upper, 1.0 + largest_[v], v);
        }
    }

    const TRVmodel &model_;
    const bool hasduals_;
    const double *x_ = nullptr, *rc_ = nullptr, *pi_ = nullptr;
    int32_t nvars_ = 0;
    double objscale_ = 1.0;
    Buffer<double> gradient_, largest_;
    Worst row_, bound_, integral_, dual_, complementarity_;
};

} // namespace

TRVresiduals checksolution(TRVmodel &model, bool hasduals) {
    model.rows.purge(model.columns);
    return Checker(model, hasduals).run();
}

} // namespace store
