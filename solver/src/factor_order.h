// factor_order.h: the order in which a sparse symmetric matrix is eliminated so that little fill arises.
#pragma once

#include <cstdint>
#include <vector>

namespace store {

// The off-diagonal entries of a symmetric matrix, both triangles, by columns. Its diagonal stands elsewhere.
struct Adjacency {
    int32_t n = 0;
    std::vector<int64_t> start; // n + 1
    std::vector<int32_t> index;
};

// Approximate minimum degree over the quotient graph (Amestoy, Davis, Duff 1996), without supervariables: what they
// would save, the dense end of the factorisation saves here. Rows with far more entries than the square root of n come
// last, since each visit of such a row costs its length. Time is about linear in the entries where there is little
// fill. Empty where the factor would hold more than `entries` entries, or a clique of more than `clique` nodes.
std::vector<int32_t> minimumdegree(const Adjacency &graph, int64_t clique, int64_t entries);

} // namespace store
