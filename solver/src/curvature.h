// curvature.h: whether sums of quadratic terms are convex, and their factors.
//
//   Forms forms(nvars);
//   forms.take({n, var1, var2, coef}, 1.0)       coef[k] * x[var1[k]] * x[var2[k]], each pair once
//   forms.convex()                               as positive semidefinite as semidefinite_shift says
//   forms.squares(&out)                          the same as a sum of squares of linear forms
//
// One object serves many forms: a small one costs its own terms, not the number of variables.
#pragma once

#include "factor.h"

#include <cstdint>
#include <vector>

namespace store {

// A form counts as convex where it is so with this share of its own diagonal added. Rounding while Q is put together
// (F F' of a few thousand factors) leaves 1e-13 and less, data printed with eight digits 1e-8; on the other side lie
// eigenvalues of -1e-6 against the diagonal, which are meant. What is let through changes the objective by less than
// 1e-8 of the squares in it, less than engines' tolerances.
constexpr double semidefinite_shift = 1e-8;

// Coefficients that were rounded to q (a printed correlation matrix, q = 1e-6) leave a semidefinite matrix of n rows
// with eigenvalues down to -q sqrt(n): errors at random have a norm of 0.6 q sqrt(n), and those of real data are not
// quite at random. Such an objective is meant to be convex, and spatial branching would never end on it. Rows get no
// such leave: it would move their feasible set.
enum class Strictness { exact, rounded };

struct Terms {
    int64_t n;
    const int32_t *var1, *var2;
    const double *coef;
};

// Linear forms, form k with the terms start[k] .. start[k + 1].
struct LinearForms {
    std::vector<int64_t> start{0};
    std::vector<int32_t> index;
    std::vector<double> value;

    int64_t count() const { return static_cast<int64_t>(start.size()) - 1; }
    void add(int32_t var, double coef) {
        index.push_back(var);
        value.push_back(coef);
    }
    void close() { start.push_back(static_cast<int64_t>(index.size())); }
    void clear() {
        start.resize(1);
        index.clear();
        value.clear();
    }
};

class Forms {
  public:
    explicit Forms(int32_t nvars) : local_(static_cast<size_t>(nvars), -1) {}

    // The form sign * sum; read by what follows until the next one.
    void take(const Terms &terms, double sign);

    bool convex(Strictness strictness = Strictness::exact);
    // Appends forms whose squares sum up to this one, which is convex.
    void squares(LinearForms *out);

    // The variables of the form, and for each the coefficient of its square and the number of its products.
    const std::vector<int32_t> &variables() const { return var_; }
    double square(size_t i) const { return diagonal_[i]; }
    int32_t products(size_t i) const { return products_[i]; }
    // Where a variable of the form stands among these.
    int32_t place(int32_t var) const { return local_[var]; }

  private:
    struct Pair {
        int32_t i, j;
        double value; // of the matrix: half the coefficient
    };

    int32_t local(int32_t var);
    double rounding() const;
    bool quicklynot(double shift) const;
    bool dominant(double shift);
    void connect();
    const UnitMatrix &scaled(int32_t first, int32_t last);
    void squaresof(int32_t first, int32_t last, LinearForms *out);
    double scale(int32_t i) const;

    std::vector<int32_t> local_; // of each variable of the model; -1 but for those of the form
    std::vector<int32_t> var_, products_;
    std::vector<double> diagonal_, rowsum_;
    std::vector<Pair> pairs_;
    // Both triangles by rows, and the variables component by component: member_[component_[c] .. component_[c + 1]].
    std::vector<int64_t> start_;
    std::vector<int32_t> other_, member_, component_, place_;
    std::vector<double> entry_;
    UnitMatrix matrix_;
};

} // namespace store
