// factor.cpp: up-looking sparse LDL' that ends in a dense one. Rows are eliminated one by one along the elimination
// tree, until what is left would fill most of a square; there the blocked dense kernel takes over. Without this end
// each multiplication would cost an indirect store.
#include "factor.h"

#include "factor_dense.h"

#include <algorithm>

namespace store {

namespace {

constexpr int64_t most_sparse = 200'000'000; // entries of L, 12 bytes each
constexpr int64_t most_dense = 8'000;        // rows of the dense end: 500 MB, and half a minute
constexpr double dense_share = 0.6;          // of the entries below a column's diagonal

class Factorisation {
  public:
    Factorisation(const UnitMatrix &matrix, const PivotRule &rule)
        : matrix_(matrix), rule_(rule), n_(matrix.graph.n),
          order_(minimumdegree(matrix.graph, most_dense, most_sparse)), place_(size(n_)), parent_(size(n_), -1),
          mark_(size(n_), -1), count_(size(n_), 0) {
        for (size_t k = 0; k < order_.size(); k++)
            place_[order_[k]] = static_cast<int32_t>(k);
    }

    // The elimination tree, how long the columns get, and where the dense end begins.
    bool analyse() {
        if (order_.empty())
            return false;
        int64_t total = 0;
        for (int32_t k = 0; k < n_; k++) {
            mark_[k] = k;
            eachbelow(k, [&](int32_t i, double) {
                for (; mark_[i] != k; i = parent_[i]) {
                    if (parent_[i] < 0)
                        parent_[i] = k;
                    count_[i]++;
                    total++;
                    mark_[i] = k;
                }
            });
            if (total > most_sparse)
                return false;
        }
        end_ = 0;
        while (end_ < n_ && count_[end_] < dense_share * (n_ - 1 - end_))
            end_++;
        return n_ - end_ <= most_dense;
    }

    bool run() {
        start_.resize(size(end_) + 1);
        for (int32_t k = 0; k < end_; k++)
            start_[k + 1] = start_[k] + count_[k];
        index_.resize(size(start_[end_]));
        value_.resize(size(start_[end_]));
        filled_.assign(start_.begin(), start_.end() - 1);
        pivot_.resize(size(n_));
        y_.assign(size(n_), 0.0);
        path_.resize(size(n_));
        stack_.resize(size(n_));
        std::fill(mark_.begin(), mark_.end(), -1);
        dense_.assign(size(m()) * size(m()), 0.0);
        for (int32_t k = 0; k < end_; k++)
            if (!rule_.accept(eliminaterow(k), &pivot_[k], &dropped_))
                return false;
        for (int32_t k = end_; k < n_; k++)
            takerow(k, eliminaterow(k));
        return factordense(dense_.data(), m(), rule_, pivot_.data() + end_, &dropped_);
    }

    void store(Factor *out) {
        out->start.assign(1, 0);
        out->index.clear();
        out->value.clear();
        for (int32_t k = 0; k < n_; k++) {
            if (pivot_[k] != 0.0)
                k < end_ ? storesparse(k, out) : storedense(k - end_, out);
            out->start.push_back(static_cast<int64_t>(out->index.size()));
        }
        out->order = std::move(order_);
        out->pivot = std::move(pivot_);
        out->dropped = dropped_;
    }

  private:
    static size_t size(int64_t n) { return static_cast<size_t>(n); }
    int64_t m() const { return n_ - end_; }

    // f(place, value) for the entries of row k before the diagonal.
    template <class F> void eachbelow(int32_t k, F f) const {
        const Adjacency &graph = matrix_.graph;
        for (int64_t p = graph.start[order_[k]]; p < graph.start[order_[k] + 1]; p++)
            if (place_[graph.index[p]] < k)
                f(place_[graph.index[p]], matrix_.value[p]);
    }
    // The columns that row k meets, each before its ancestors, at the end of path_; returns where they begin.
    int32_t reach(int32_t k) {
        int32_t top = n_;
        mark_[k] = k;
        eachbelow(k, [&](int32_t i, double value) {
            y_[i] = value;
            int32_t length = 0;
            for (; i < end_ && mark_[i] != k; i = parent_[i]) {
                stack_[length++] = i;
                mark_[i] = k;
            }
            while (length)
                path_[--top] = stack_[--length];
        });
        return top;
    }
    // Row k of L up to the dense end; y_ then holds what is left of the row behind it. Returns the diagonal entry.
    double eliminaterow(int32_t k) {
        double diagonal = 1.0 + rule_.shift;
        for (int32_t p = reach(k); p < n_; p++) {
            const int32_t i = path_[p];
            const double y = y_[i];
            y_[i] = 0.0;
            if (pivot_[i] == 0.0) {
                dropped_ = std::fmax(dropped_, std::fabs(y));
                continue;
            }
            for (int64_t q = start_[i]; q < filled_[i]; q++)
                y_[index_[q]] -= value_[q] * y;
            const double entry = y / pivot_[i];
            diagonal -= entry * y;
            index_[filled_[i]] = k;
            value_[filled_[i]++] = entry;
        }
        return diagonal;
    }
    void takerow(int32_t k, double diagonal) {
        double *row = dense_.data() + (k - end_) * m();
        std::copy(y_.begin() + end_, y_.begin() + k, row);
        std::fill(y_.begin() + end_, y_.begin() + k, 0.0);
        row[k - end_] = diagonal;
    }
    void storesparse(int32_t k, Factor *out) const {
        for (int64_t q = start_[k]; q < filled_[k]; q++) {
            out->index.push_back(order_[index_[q]]);
            out->value.push_back(value_[q]);
        }
    }
    void storedense(int64_t column, Factor *out) const {
        for (int64_t i = column + 1; i < m(); i++) {
            const double value = dense_[size(i * m() + column)];
            if (value == 0.0)
                continue;
            out->index.push_back(order_[size(end_ + i)]);
            out->value.push_back(value);
        }
    }

    const UnitMatrix &matrix_;
    const PivotRule rule_;
    const int32_t n_;
    int32_t end_ = 0; // where the dense end begins
    std::vector<int32_t> order_, place_, parent_, mark_;
    std::vector<int32_t> count_;
    std::vector<int64_t> start_, filled_;
    std::vector<int32_t> index_, path_, stack_;
    std::vector<double> value_, pivot_, y_, dense_;
    double dropped_ = 0.0;
};

} // namespace

Factored factorise(const UnitMatrix &matrix, const PivotRule &rule, Factor *factor) {
    Factorisation work(matrix, rule);
    if (!work.analyse())
        return Factored::toolarge;
    if (!work.run())
        return Factored::no;
    if (factor)
        work.store(factor);
    return Factored::yes;
}

} // namespace store
