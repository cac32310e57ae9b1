// curvature.cpp: Forms. What can be told from single entries is told so; the rest is factorised, one connected
// component after the other.
#include "curvature.h"

#include "failure.h"
#include "lanczos.h"

#include <algorithm>
#include <cmath>

namespace store {

namespace {

// Pivots of a unit diagonal that are no larger are what rounding leaves of zero.
constexpr double zero_pivot = 1e-11;
// Of what was to be eliminated in their columns this much may be lost; else the form is shifted instead.
constexpr double most_dropped = 1e-9;

} // namespace

void Forms::take(const Terms &terms, double sign) {
    for (const int32_t var : var_)
        local_[var] = -1;
    var_.clear();
    diagonal_.clear();
    products_.clear();
    pairs_.clear();
    for (int64_t k = 0; k < terms.n; k++) {
        const int32_t i = local(terms.var1[k]);
        const double coef = sign * terms.coef[k];
        if (terms.var1[k] == terms.var2[k]) {
            diagonal_[i] += coef;
            continue;
        }
        const int32_t j = local(terms.var2[k]);
        products_[i]++;
        products_[j]++;
        pairs_.push_back({i, j, 0.5 * coef});
    }
}

int32_t Forms::local(int32_t var) {
    if (local_[var] < 0) {
        local_[var] = static_cast<int32_t>(var_.size());
        var_.push_back(var);
        diagonal_.push_back(0.0);
        products_.push_back(0);
    }
    return local_[var];
}

namespace {

bool semidefinite(const UnitMatrix &matrix, double shift) {
    const Factored done = factorise(matrix, PivotRule::test(shift), nullptr);
    return done == Factored::toolarge ? !seemsindefinite(matrix, shift) : done == Factored::yes;
}

} // namespace

// A negative square, or a product that outweighs its two squares: some direction of one or two variables goes down.
bool Forms::quicklynot(double shift) const {
    if (std::any_of(diagonal_.begin(), diagonal_.end(), [](double d) { return d < 0.0; }))
        return true;
    const double slack = 1.0 + shift;
    return std::any_of(pairs_.begin(), pairs_.end(), [&](const Pair &pair) {
        return std::fabs(pair.value) > slack * std::sqrt(diagonal_[pair.i]) * std::sqrt(diagonal_[pair.j]);
    });
}

// By Gershgorin's circles.
bool Forms::dominant(double shift) {
    rowsum_.assign(var_.size(), 0.0);
    for (const Pair &pair : pairs_) {
        rowsum_[pair.i] += std::fabs(pair.value);
        rowsum_[pair.j] += std::fabs(pair.value);
    }
    for (size_t i = 0; i < var_.size(); i++)
        if (rowsum_[i] > (1.0 + shift) * diagonal_[i])
            return false;
    return true;
}

double Forms::scale(int32_t i) const {
    return std::sqrt(diagonal_[i]);
}

namespace {

bool endswith(double value, double digit) {
    const double units = value / digit;
    return std::fabs(units - std::round(units)) <= 1e-6 + 1e-13 * std::fabs(units);
}

} // namespace

// The last decimal digit of all coefficients of x'Hx / 2, against the largest square; 0 where they have none, or one
// that is too coarse to be a rounding: 1.1 is meant as it stands.
double Forms::rounding() const {
    constexpr double coarsest = 1e-5, finest = 1e-9;
    double largest = 0.0;
    for (const double d : diagonal_)
        largest = std::max(largest, 2.0 * d);
    if (!(largest > 0.0))
        return 0.0;
    auto allendwith = [&](double digit) {
        return std::all_of(diagonal_.begin(), diagonal_.end(), [&](double d) { return endswith(2.0 * d, digit); }) &&
               std::all_of(pairs_.begin(), pairs_.end(), [&](const Pair &p) { return endswith(2.0 * p.value, digit); });
    };
    double digit = std::pow(10.0, std::floor(std::log10(coarsest * largest)) + 1.0);
    if (allendwith(digit))
        return 0.0;
    for (digit /= 10.0; digit >= finest * largest; digit /= 10.0)
        if (allendwith(digit))
            return digit / largest;
    return 0.0;
}

bool Forms::convex(Strictness strictness) {
    double shift = semidefinite_shift;
    if (strictness == Strictness::rounded) {
        // Of the whole form: components of one model come from one source.
        shift = rounding() * std::sqrt(static_cast<double>(var_.size()));
        if (shift <= semidefinite_shift)
            return false; // as strictly as it was judged before
    }
    if (quicklynot(shift))
        return false;
    if (dominant(shift))
        return true;
    connect();
    for (size_t c = 0; c + 1 < component_.size(); c++) {
        const int32_t first = component_[c], last = component_[c + 1];
        // Two variables are told by their entries above.
        if (last - first > 2 && !semidefinite(scaled(first, last), shift))
            return false;
    }
    return true;
}

// Rows and components from the pairs.
void Forms::connect() {
    const size_t n = var_.size();
    start_.assign(n + 1, 0);
    for (size_t i = 0; i < n; i++)
        start_[i + 1] = start_[i] + products_[i];
    other_.resize(static_cast<size_t>(start_[n]));
    entry_.resize(other_.size());
    for (const Pair &pair : pairs_) {
        other_[static_cast<size_t>(start_[pair.i])] = pair.j;
        entry_[static_cast<size_t>(start_[pair.i]++)] = pair.value;
        other_[static_cast<size_t>(start_[pair.j])] = pair.i;
        entry_[static_cast<size_t>(start_[pair.j]++)] = pair.value;
    }
    std::copy_backward(start_.begin(), start_.end() - 1, start_.end());
    start_[0] = 0;
    member_.clear();
    component_.assign(1, 0);
    place_.assign(n, -1);
    for (size_t root = 0; root < n; root++) {
        if (place_[root] >= 0)
            continue;
        const size_t first = member_.size();
        auto take = [&](int32_t i) {
            if (place_[i] < 0) {
                place_[i] = static_cast<int32_t>(member_.size() - first);
                member_.push_back(i);
            }
        };
        take(static_cast<int32_t>(root));
        for (size_t next = first; next < member_.size(); next++) {
            const int32_t i = member_[next];
            for (int64_t p = start_[i]; p < start_[i + 1]; p++)
                take(other_[p]);
        }
        component_.push_back(static_cast<int32_t>(member_.size()));
    }
}

// One component with a unit diagonal.
const UnitMatrix &Forms::scaled(int32_t first, int32_t last) {
    Adjacency &graph = matrix_.graph;
    graph.n = last - first;
    graph.start.assign(1, 0);
    graph.index.clear();
    matrix_.value.clear();
    for (int32_t at = first; at < last; at++) {
        const int32_t i = member_[at];
        for (int64_t p = start_[i]; p < start_[i + 1]; p++) {
            graph.index.push_back(place_[other_[p]]);
            matrix_.value.push_back(entry_[p] / scale(i) / scale(other_[p]));
        }
        graph.start.push_back(static_cast<int64_t>(graph.index.size()));
    }
    return matrix_;
}

void Forms::squares(LinearForms *out) {
    connect();
    for (size_t c = 0; c + 1 < component_.size(); c++) {
        const int32_t first = component_[c], last = component_[c + 1];
        if (last - first > 1) {
            squaresof(first, last, out);
        } else if (const int32_t i = member_[first]; diagonal_[i] > 0.0) {
            out->add(var_[i], scale(i));
            out->close();
        }
    }
}

void Forms::squaresof(int32_t first, int32_t last, LinearForms *out) {
    Factor factor;
    const UnitMatrix &matrix = scaled(first, last);
    Factored done = factorise(matrix, PivotRule::semidefinite(zero_pivot), &factor);
    if (done == Factored::yes && factor.dropped > most_dropped)
        done = factorise(matrix, PivotRule::test(semidefinite_shift), &factor);
    if (done == Factored::toolarge)
        fail(TRV_ERROR_UNSUPPORTED, "the factor of a quadratic row takes too much memory");
    for (int32_t k = 0; k < last - first; k++) {
        if (!(factor.pivot[k] > 0.0))
            continue;
        const double root = std::sqrt(factor.pivot[k]);
        const int32_t own = member_[first + factor.order[k]];
        out->add(var_[own], root * scale(own));
        for (int64_t p = factor.start[k]; p < factor.start[k + 1]; p++) {
            const int32_t i = member_[first + factor.index[p]];
            out->add(var_[i], root * factor.value[p] * scale(i));
        }
        out->close();
    }
}

} // namespace store
