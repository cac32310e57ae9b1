// Matrix products of expressions with numeric matrices, self @ M and M @ self, as plans.
//
// Element (i, j) of the result is a sum of elements of the receiver, each times a number. A Plan lists them, whatever
// the expressions are: rows of linear terms, of quadratic terms, or constants.
#pragma once

#include "matrixapi/operands.h"

namespace tarvopy {

enum class Side { Right, Left }; // where the matrix stands: self @ M, M @ self

struct Plan {
    int64_t size = 0;
    std::vector<int64_t> start{0}, source; // of result element i: start[i] .. start[i + 1]
    std::vector<double> factor;

    void add(int64_t row, double number) {
        source.push_back(row);
        factor.push_back(number);
    }
    void end_element() {
        start.push_back(static_cast<int64_t>(source.size()));
        ++size;
    }
};

// expr: the receiver's shape. numbers: a float64 array in C order.
Plan plan_dense(const flat::Shape &expr, const Ref &numbers, Side side);
// given: the matrix' shape. Missing entries are zeros and add nothing.
Plan plan_sparse(const flat::Shape &expr, PyObject *matrix, const flat::Shape &given, Side side);

// A zero times something would hide a NaN or an infinity, so they are refused where they stand. numbers: the matrix as
// doubles; empty for a sparse one.
void need_finite_matrix(PyObject *matrix, const Ref &numbers);

// The UserWarning of products that are made element by element.
void warn_chained();

} // namespace tarvopy
