// Quadratic terms as numbers: the flat form of MQuadExpr's quadratic half, without Python. The linear half is a Form.
//
// A QuadForm is an array of sums of products of two variables. Element i in C order has, one summand after the other,
//   coefficient(k) * variable(vars1[k]) * variable(vars2[k])        for the terms k of row i
// in the order in which the scalar objects would append them (collaborators/core.h says which).
//
//   x * y   (1000, 1000)    one summand of width 1: vars1 shared with x, vars2 with y, no coefficients
//   e * e                   the product kernel: rows of e paired with themselves
#pragma once

#include "flat.h"

namespace flat {

struct QuadSummand {
    int64_t nrows = 0;
    int64_t width = 0;            // terms in each row, when ptr is empty
    Buffer<int64_t> ptr;          // nrows + 1 row pointers from 0; empty: every row has `width` terms
    Buffer<int32_t> vars1, vars2; // ids, one a term
    Buffer<double> coef;          // empty: `scale` each
    double scale = 1.0;

    int64_t nnz() const { return ptr.empty() ? nrows * width : ptr[nrows]; }
    int64_t begin(int64_t row) const { return ptr.empty() ? row * width : ptr[row]; }
    int64_t end(int64_t row) const { return begin(row + 1); }
    double coefficient(int64_t k) const { return coef.empty() ? scale : coef[k]; }
};

struct QuadForm {
    Shape shape;
    int64_t size = 1; // the product of shape
    std::vector<QuadSummand> summands;

    int64_t nnz() const {
        int64_t total = 0;
        for (const QuadSummand &summand : summands)
            total += summand.nnz();
        return total;
    }
};

// ---- as their namesakes of flat.h
QuadForm zero_quad(const Shape &shape);
QuadForm broadcast(const QuadForm &form, const Shape &to);
void add(QuadForm &form, const QuadForm &other, double factor = 1.0);
QuadForm scaled(const QuadForm &form, double factor);
QuadForm scaled_rows(const QuadForm &form, const double *factors);
QuadForm gathered(const QuadForm &form, const int64_t *map, const Shape &shape);
QuadForm summed(const QuadForm &form, std::span<const int> axes);
QuadForm concatenated(std::span<const QuadForm> forms, const Shape &shape);
QuadSummand joined(std::span<const QuadSummand> summands, int64_t nrows);
void write_rows(std::span<const QuadSummand> summands, int64_t nrows, int64_t *ptr, int32_t *ids1, int32_t *ids2,
                double *coef);
// Merges equal pairs, in either order, within each row (the first one keeps its place and its order) and drops zero
// coefficients.
QuadSummand normalized(const QuadSummand &summand);

// ---- products: the quadratic terms, and the linear terms and constants beside them
struct Product {
    QuadForm quad;
    Form linear;
};
// Element by element; both of one shape.
Product multiply(const Form &a, const Form &b);
// The matrix product by NumPy's rules (shapes checked before, no contracted extent of zero); terms in the order of the
// contracted index.
Product matmul(const Form &a, const Form &b);

// Row i of the result is the sum of factors[t] * (row source[t] of the form) for t in start[i] .. start[i + 1], as a
// product with a matrix of numbers asks for it.
QuadForm combined(const QuadForm &form, const Shape &shape, const int64_t *start, const int64_t *source,
                  const double *factors);

} // namespace flat
