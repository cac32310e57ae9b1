// check.cpp: residuals of a solution in one pass over the rows, linear, quadratic and nonlinear, and over the general
// constraints.
//
// The worst element is the one whose violation is largest against its own scale, 1 + the largest term in it, and the
// figures reported are this element's violation and scale. So comparing violation <= tolerance * scale holds for all
// elements, and a row of large numbers hides no other.
#include "check.h"

#include "failure.h"
#include "gencheck.h"
#include "worst.h"

#include <algorithm>
#include <array>

namespace store {

namespace {

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
    // How many elements are wanted of each figure.
    using Wanted = std::array<size_t, 5>;

    Checker(const TRVmodel &model, bool hasduals, Wanted wanted)
        : model_(model), hasduals_(hasduals), row_(wanted[TRV_CHECK_ROW]), bound_(wanted[TRV_CHECK_BOUND]),
          integral_(wanted[TRV_CHECK_INTEGRAL]), dual_(wanted[TRV_CHECK_DUAL]),
          complementarity_(wanted[TRV_CHECK_COMPLEMENTARITY]) {
        const Solution &s = model.solution;
        const bool open = s.isopen();
        if (!open && !s.hasx())
            fail(TRV_ERROR_NO_DATA, "check: there is no solution to check");
        if (!open && hasduals && !s.hasduals())
            fail(TRV_ERROR_NO_DATA, "check: the solution has no duals");
        x_ = (open ? s.openx() : s.x()).data();
        rc_ = (open ? s.openrc() : s.rc()).data();
        pi_ = (open ? s.openpi() : s.pi()).data();
        qpi_ = (open ? s.openqpi() : s.qpi()).data();
        nvars_ = static_cast<int32_t>((open ? s.openx() : s.x()).size());
        nrows_ = model.rows.ids.committed();
        const int32_t nrows = open ? static_cast<int32_t>(s.openpi().size()) : s.nrows();
        const int32_t nqrows = open ? static_cast<int32_t>(s.openqpi().size()) : s.nqrows();
        if (nvars_ != model.columns.ids.committed() || nrows != nrows_ || nqrows != model.qrows.ids.committed())
            fail(TRV_ERROR_INVALID_ARGUMENT, "check: the solution was opened for another number of variables or rows");
    }

    void run() {
        if (hasduals_)
            prepareduals();
        checkrows();
        checkqrows();
        checknlrows();
        checkgens();
        checkvariables();
    }

    TRVresiduals residuals() const {
        const Worst::Entry row = row_.first(), bound = bound_.first(), integral = integral_.first(),
                           dual = dual_.first(), complementarity = complementarity_.first();
        TRVresiduals r{};
        r.row = row.violation;
        r.bound = bound.violation;
        r.integral = integral.violation;
        r.dual = dual.violation;
        r.complementarity = complementarity.violation;
        r.worstrow = row.element;
        r.worstbound = bound.element;
        r.worstintegral = integral.element;
        r.worstdual = dual.element;
        r.worstcomplementarity = complementarity.element;
        r.rowscale = row.scale;
        r.boundscale = bound.scale;
        r.dualscale = dual.scale;
        r.complementarityscale = objscale_;
        return r;
    }

    const Worst &worst(int figure) const {
        const Worst *figures[] = {&row_, &bound_, &integral_, &dual_, &complementarity_};
        return *figures[figure];
    }

  private:
    void prepareduals() {
        const Columns &columns = model_.columns;
        gradient_.resize(nvars_);
        for (int32_t v = 0; v < nvars_; v++) {
            gradient_[v] = {columns.obj[v] - rc_[v], std::max(std::fabs(columns.obj[v]), std::fabs(rc_[v]))};
            objscale_ = std::max(objscale_, 1.0 + std::fabs(columns.obj[v] * x_[v]));
        }
        model_.qobjective.each(columns, [&](int32_t i, int32_t j, double coef) {
            addgradient(i, coef * x_[j]);
            addgradient(j, coef * x_[i]);
            objscale_ = std::max(objscale_, 1.0 + std::fabs(coef * x_[i] * x_[j]));
        });
        addtapegradient();
    }

    void addtapegradient() {
        const Tape tape = model_.nlobjective.tape();
        if (tape.n == 0)
            return;
        const Registry &ids = model_.columns.ids;
        const PointById point(ids, x_, nvars_);
        TapeRun run(point.data());
        const double value = run.gradient(tape, [&](int32_t id, double share) {
            const int32_t v = ids.position(id);
            if (v >= 0)
                addgradient(v, share);
        });
        objscale_ = std::max(objscale_, 1.0 + finiteabs(value));
    }

    void addgradient(int32_t v, double share) {
        Sum &sum = gradient_[v];
        sum.value += share;
        sum.largest = std::max(sum.largest, std::fabs(share));
    }

    // Positive multipliers (in a minimisation) belong to lower sides, negative ones to upper sides. Returns by how much
    // the sign is wrong: one whose side is missing is wrong by its size.
    double multiplier(double value, double activity, double lower, double upper, int32_t element) {
        const double m = value * model_.sense;
        const double side = m > 0.0 ? lower : upper;
        if (m == 0.0)
            return 0.0;
        if (std::isinf(side))
            return std::fabs(m);
        const double distance = std::max(m > 0.0 ? activity - side : side - activity, 0.0);
        complementarity_.meet(std::fabs(m) * distance, objscale_, element);
        return 0.0;
    }

    // A row's activity and multiplier against its sides. largest: of its terms.
    void checksides(int32_t row, double activity, double largest, double lower, double upper, double pi) {
        const double scale = 1.0 + std::max({largest, finiteabs(lower), finiteabs(upper)});
        row_.meet(outside(activity, lower, upper), scale, row);
        if (hasduals_)
            dual_.meet(multiplier(pi, activity, lower, upper, nvars_ + row), 1.0 + std::fabs(pi), nvars_ + row);
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
                if (pi != 0.0)
                    addgradient(v, -row.coef[k] * pi);
            }
            checksides(r, activity, largest, rows.lower[r], rows.upper[r], pi);
        });
    }

    // All variables of a quadratic row in the model are in the model: its terms never change.
    void checkqrows() {
        const QRows &qrows = model_.qrows;
        const Registry &ids = model_.columns.ids;
        qrows.each([&](int32_t r, const QRow &row) {
            double activity = 0.0, largest = 0.0;
            const double pi = hasduals_ ? qpi_[r] : 0.0;
            for (int64_t k = 0; k < row.n; k++) {
                const int32_t v = ids.position(row.var[k]);
                const double term = row.coef[k] * x_[v];
                activity += term;
                largest = std::max(largest, std::fabs(term));
                if (pi != 0.0)
                    addgradient(v, -row.coef[k] * pi);
            }
            for (int64_t k = 0; k < row.nq; k++) {
                const int32_t v = ids.position(row.var1[k]), w = ids.position(row.var2[k]);
                const double term = row.qcoef[k] * x_[v] * x_[w];
                activity += term;
                largest = std::max(largest, std::fabs(term));
                if (pi == 0.0)
                    continue;
                addgradient(v, -row.qcoef[k] * pi * x_[w]);
                addgradient(w, -row.qcoef[k] * pi * x_[v]);
            }
            checksides(nrows_ + r, activity, largest, qrows.lower(r), qrows.upper(r), pi);
        });
    }

    // Rows without multipliers. What has no finite value says nothing about its sides, so it is wrong.
    void checknlrows() {
        const NlRows &nlrows = model_.nlrows;
        if (nlrows.ids.committed() == 0)
            return;
        const PointById point(model_.columns.ids, x_, nvars_);
        TapeRun run(point.data());
        const int32_t before = nrows_ + model_.qrows.ids.committed();
        nlrows.each([&](int32_t r, const NlRow &row) {
            const TapeRun::Value body = run.value(row.tape);
            double activity = body.value, largest = finiteabs(body.largest);
            for (int64_t k = 0; k < row.n; k++) {
                const double term = row.coef[k] * point.data()[row.var[k]];
                activity += term;
                largest = std::max(largest, finiteabs(term));
            }
            const double lower = nlrows.lower[r], upper = nlrows.upper[r];
            const double scale =
                1.0 + std::max({std::isnan(largest) ? 0.0 : largest, finiteabs(lower), finiteabs(upper)});
            row_.meet(std::isinf(activity) ? INFINITY : outside(activity, lower, upper), scale, before + r);
        });
    }

    void checkgens() {
        const int32_t before = nrows_ + model_.qrows.ids.committed() + model_.nlrows.ids.committed();
        GenCheck check(model_.columns.ids, x_);
        model_.gens.each([&](int32_t g, const Gen &gen) {
            const GenCheck::Residual residual = check.residual(gen);
            row_.meet(residual.violation, residual.scale, before + g);
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
            const double wrongsign = multiplier(rc_[v], x_[v], lower, upper, v);
            const double rest = std::fabs(gradient_[v].value);
            dual_.meet(rest < wrongsign ? wrongsign : rest, 1.0 + gradient_[v].largest, v);
        }
    }

    const TRVmodel &model_;
    const bool hasduals_;
    const double *x_ = nullptr, *rc_ = nullptr, *pi_ = nullptr, *qpi_ = nullptr;
    int32_t nvars_ = 0, nrows_ = 0;
    double objscale_ = 1.0;
    // Of the Lagrangian, by variable, and the largest term in it: side by side, since both are wanted at once.
    struct Sum {
        double value, largest;
    };
    Buffer<Sum> gradient_;
    Worst row_, bound_, integral_, dual_, complementarity_;
};

} // namespace

TRVresiduals checksolution(TRVmodel &model, bool hasduals) {
    model.purge();
    Checker checker(model, hasduals, {1, 1, 1, 1, 1});
    checker.run();
    return checker.residuals();
}

std::vector<TRVoffender> offenders(TRVmodel &model, bool hasduals, int figure, int n) {
    if (figure < TRV_CHECK_ROW || figure > TRV_CHECK_COMPLEMENTARITY)
        failf(TRV_ERROR_INVALID_ARGUMENT, "%d is not a figure of the check", figure);
    model.purge();
    Checker::Wanted wanted{};
    wanted[figure] = static_cast<size_t>(n);
    Checker checker(model, hasduals, wanted);
    checker.run();
    std::vector<TRVoffender> found;
    for (const Worst::Entry &entry : checker.worst(figure).sorted())
        found.push_back({entry.violation, entry.scale, entry.element});
    return found;
}

} // namespace store
