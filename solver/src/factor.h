// factor.h: sparse LDL' of a symmetric matrix that is meant to be positive semidefinite.
//
//   Unit matrix{graph, value};                 unit diagonal, off-diagonal entries value[k] at graph.index[k]
//   Factor factor;
//   factorise(matrix, PivotRule::test(1e-8), &factor)        Factored::no where matrix + 1e-8 I is not definite
//
// Matrices come scaled to a unit diagonal, which changes no sign of an eigenvalue and makes all tolerances relative.
#pragma once

#include "factor_order.h"

#include <cmath>
#include <cstdint>
#include <vector>

namespace store {

struct UnitMatrix {
    Adjacency graph;
    std::vector<double> value;
};

// What becomes of a pivot.
struct PivotRule {
    double shift;    // added to the diagonal
    double smallest; // what is not larger counts as zero
    bool drop;       // a zero pivot's column is left out; otherwise it ends the factorisation

    static PivotRule test(double shift) { return {shift, 0.0, false}; }
    static PivotRule semidefinite(double smallest) { return {0.0, smallest, true}; }

    bool accept(double value, double *pivot, double *dropped) const {
        if (value > smallest) {
            *pivot = value;
            return true;
        }
        *pivot = 0.0;
        *dropped = std::fmax(*dropped, std::fabs(value));
        return drop;
    }
};

// matrix = L D L' in the order `order`: column k of L has a one at order[k] and value[j] at index[j], original
// numbering, j in start[k] .. start[k + 1]. A dropped column has the pivot 0 and no entries.
struct Factor {
    std::vector<int32_t> order;
    std::vector<double> pivot;
    std::vector<int64_t> start;
    std::vector<int32_t> index;
    std::vector<double> value;
    double dropped = 0.0; // largest entry of what was left to eliminate in dropped columns
};

enum class Factored { no, yes, toolarge };

// factor NULL: only the question. toolarge: it would take gigabytes or minutes.
Factored factorise(const UnitMatrix &matrix, const PivotRule &rule, Factor *factor);

} // namespace store
