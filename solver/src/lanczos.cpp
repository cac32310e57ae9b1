// lanczos.cpp: Lanczos' iteration without reorthogonalisation. What rounding adds are copies of eigenvalues that are
// found already, which does no harm to the question whether a negative one is among them.
#include "lanczos.h"

#include <cmath>
#include <random>

namespace store {

namespace {

constexpr int most_steps = 300;
constexpr int between_looks = 20;

double dot(const std::vector<double> &a, const std::vector<double> &b) {
    double sum = 0.0;
    for (size_t i = 0; i < a.size(); i++)
        sum += a[i] * b[i];
    return sum;
}

// to -= factor * from
void subtract(std::vector<double> &to, double factor, const std::vector<double> &from) {
    for (size_t i = 0; i < to.size(); i++)
        to[i] -= factor * from[i];
}

std::vector<double> product(const UnitMatrix &matrix, const std::vector<double> &x) {
    std::vector<double> out(x);
    const Adjacency &graph = matrix.graph;
    for (int32_t i = 0; i < graph.n; i++)
        for (int64_t p = graph.start[i]; p < graph.start[i + 1]; p++)
            out[i] += matrix.value[p] * x[graph.index[p]];
    return out;
}

// Whether the tridiagonal matrix has an eigenvalue below -shift: a negative pivot (Sturm).
bool negative(const std::vector<double> &diagonal, const std::vector<double> &beside, double shift) {
    double pivot = 1.0;
    for (size_t i = 0; i < diagonal.size(); i++) {
        pivot = diagonal[i] + shift - (i ? beside[i - 1] * beside[i - 1] / pivot : 0.0);
        if (pivot <= 0.0)
            return true;
    }
    return false;
}

std::vector<double> startvector(int32_t n) {
    std::mt19937_64 random(1);
    std::vector<double> x(static_cast<size_t>(n));
    for (double &value : x)
        value = static_cast<double>(random() >> 11) * 0x1p-52 - 1.0;
    const double norm = std::sqrt(dot(x, x));
    for (double &value : x)
        value /= norm;
    return x;
}

} // namespace

bool seemsindefinite(const UnitMatrix &matrix, double shift) {
    std::vector<double> now = startvector(matrix.graph.n), before(now.size(), 0.0);
    std::vector<double> diagonal, beside;
    for (int step = 1; step <= most_steps; step++) {
        std::vector<double> next = product(matrix, now);
        if (!beside.empty())
            subtract(next, beside.back(), before);
        diagonal.push_back(dot(next, now));
        subtract(next, diagonal.back(), now);
        const double norm = std::sqrt(dot(next, next));
        if (norm <= 1e-14 || step % between_looks == 0 || step == most_steps) {
            if (negative(diagonal, beside, shift))
                return true;
            if (norm <= 1e-14)
                return false; // the vectors span all that the start leads to
        }
        beside.push_back(norm);
        for (double &value : next)
            value /= norm;
        before = std::move(now);
        now = std::move(next);
    }
    return false;
}

} // namespace store
