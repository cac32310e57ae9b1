// cones.h: what each quadratic row is, and rows as second-order cones.
#pragma once

#include "curvature.h"
#include "tarvo_engine.h"

namespace store {

// One quadratic row as the set  sum of its quadratic and linear terms <= rhs  (signs turned for '>').
struct RowShape {
    int curve = TRV_CURVE_LINEAR;
    bool bounding = true; // false: no rhs, so no cone
    // CONE: the variables whose product (or square, when they are the same) stands on the large side.
    int32_t head1 = -1, head2 = -1;
    double head = 0.0;               // coefficient of  turn1 * head1 * turn2 * head2, positive
    double turn1 = 1.0, turn2 = 1.0; // +1 where the variable is nonnegative, -1 where nonpositive
};

class Shapes {
  public:
    Shapes(const TRVdata &data, const TRVqmatrix &rows) : data_(data), rows_(rows), forms_(data.nvars) {}

    RowShape shape(int32_t row);
    // All rows as cones; where one is not convex, its position goes to nonconvex, else -1.
    TRVcones cones(int32_t *nonconvex);

  private:
    Terms terms(int32_t row) const;
    double sign(int32_t row) const { return data_.qsense[row] == '>' ? -1.0 : 1.0; }
    bool findhead(int32_t row, RowShape *out);
    bool headsquare(RowShape *out) const;
    bool headproduct(int32_t row, RowShape *out) const;
    double boundsign(int32_t var) const;
    void withouthead(int32_t row, const RowShape &shape);

    const TRVdata &data_;
    const TRVqmatrix &rows_;
    Forms forms_;
    std::vector<int32_t> var1_, var2_; // the row without its head
    std::vector<double> coef_;
};

// As TRVconeduals.
void coneduals(const TRVdata &data, const TRVcones &cones, const double *s, const double *z, double *qpi);

} // namespace store
