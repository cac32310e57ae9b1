// gencheck.h: GenCheck, how well general constraints hold at a point.
//
//   GenCheck check(model.columns.ids, x);
//   GenCheck::Residual r = check.residual(gen);       r.violation is 0 where it holds, else > 0, measured against
//   r.scale
#pragma once

#include "gens.h"

#include <vector>

namespace store {

class GenCheck {
  public:
    // x by position.
    GenCheck(const Registry &variables, const double *x) : variables_(variables), x_(x) {}

    struct Residual {
        double violation, scale; // infinite where an argument has no value
    };
    Residual residual(const Gen &gen);

  private:
    struct Value {
        double value, largest; // magnitude of a term
    };
    Value argument(const Gen &gen, int64_t arg) const;
    Residual extreme(const Gen &gen) const;
    Residual logical(const Gen &gen) const;
    Residual graph(const Gen &gen) const;
    Residual indicator(const Gen &gen) const;
    Residual set(const Gen &gen);

    const Registry &variables_;
    const double *x_;
    std::vector<int32_t> order_; // of a set's members, by weight
    std::vector<double> magnitude_, before_;
};

// The piece of a piecewise-linear function of n points that (x, y) is nearest to, the k-th going from point k - 1 to
// point k.
int64_t nearestpiece(const double *xs, const double *ys, int64_t n, double x, double y);

} // namespace store
