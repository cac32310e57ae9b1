// factor_order.cpp: approximate minimum degree ordering.
#include "factor_order.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace store {

namespace {

// Nodes by degree: a doubly linked list for each.
class Buckets {
  public:
    explicit Buckets(int32_t n)
        : head_(static_cast<size_t>(n) + 1, -1), next_(static_cast<size_t>(n), -1), before_(static_cast<size_t>(n), -1),
          degree_(static_cast<size_t>(n)) {}
    int32_t degree(int32_t node) const { return degree_[node]; }
    void insert(int32_t node, int32_t degree) {
        degree_[node] = degree;
        next_[node] = head_[degree];
        before_[node] = -1;
        if (next_[node] >= 0)
            before_[next_[node]] = node;
        head_[degree] = node;
        least_ = std::min(least_, degree);
    }
    void erase(int32_t node) {
        const int32_t before = before_[node], next = next_[node];
        (before >= 0 ? next_[before] : head_[degree_[node]]) = next;
        if (next >= 0)
            before_[next] = before;
    }
    // There must be one.
    int32_t least() {
        while (head_[least_] < 0)
            least_++;
        return head_[least_];
    }

  private:
    std::vector<int32_t> head_, next_, before_, degree_;
    int32_t least_ = 0;
};

class Elimination {
  public:
    explicit Elimination(const Adjacency &graph)
        : n_(graph.n), near_(size()), elements_(size()), reach_(size()), buckets_(n_), state_(size(), free),
          tag_(size(), -1), wtag_(size(), -1), outside_(size(), 0) {
        const double limit = 16.0 + 10.0 * std::sqrt(static_cast<double>(n_));
        for (int32_t i = 0; i < n_; i++)
            if (static_cast<double>(graph.start[i + 1] - graph.start[i]) > limit)
                state_[i] = postponed;
        for (int32_t i = 0; i < n_; i++)
            if (state_[i] == free)
                enter(graph, i);
    }
    std::vector<int32_t> run(int64_t clique, int64_t entries) {
        std::vector<int32_t> order;
        order.reserve(size());
        while (left_ > 0) {
            const int32_t pivot = buckets_.least();
            if (buckets_.degree(pivot) >= left_ - 1)
                break; // what is left is a clique: any order will do
            eliminate(pivot);
            order.push_back(pivot);
            const int64_t column = static_cast<int64_t>(reach_[pivot].size());
            entries -= column;
            if (column > clique || entries < 0)
                return {};
        }
        for (const State last : {free, postponed})
            for (int32_t i = 0; i < n_; i++)
                if (state_[i] == last)
                    order.push_back(i);
        return order;
    }

  private:
    enum State : char { free, postponed, element, absorbed };

    size_t size() const { return static_cast<size_t>(n_); }
    void enter(const Adjacency &graph, int32_t i) {
        for (int64_t k = graph.start[i]; k < graph.start[i + 1]; k++)
            if (state_[graph.index[k]] == free)
                near_[i].push_back(graph.index[k]);
        buckets_.insert(i, static_cast<int32_t>(near_[i].size()));
        left_++;
    }
    // The neighbours of the pivot, directly or through the elements that it absorbs.
    void collect(int32_t pivot) {
        std::vector<int32_t> &reach = reach_[pivot];
        tag_[pivot] = pivot;
        auto take = [&](int32_t i) {
            if (state_[i] == free && tag_[i] != pivot) {
                tag_[i] = pivot;
                reach.push_back(i);
            }
        };
        for (const int32_t i : near_[pivot])
            take(i);
        for (const int32_t e : elements_[pivot]) {
            if (state_[e] != element)
                continue;
            for (const int32_t i : reach_[e])
                take(i);
            absorb(e);
        }
    }
    void absorb(int32_t e) {
        state_[e] = absorbed;
        std::vector<int32_t>().swap(reach_[e]);
    }
    // outside_[e]: how much of element e lies outside the pivot's reach.
    void countoutside(int32_t pivot) {
        for (const int32_t i : reach_[pivot])
            for (const int32_t e : elements_[i]) {
                if (state_[e] != element)
                    continue;
                if (wtag_[e] != pivot) {
                    wtag_[e] = pivot;
                    outside_[e] = static_cast<int32_t>(reach_[e].size());
                }
                outside_[e]--;
            }
    }
    void update(int32_t pivot, int32_t i) {
        int64_t degree = static_cast<int64_t>(reach_[pivot].size()) - 1;
        size_t kept = 0;
        for (const int32_t e : elements_[i]) {
            if (state_[e] == element && outside_[e] == 0)
                absorb(e); // it lies within the new one
            if (state_[e] != element)
                continue;
            elements_[i][kept++] = e;
            degree += outside_[e];
        }
        elements_[i].resize(kept);
        elements_[i].push_back(pivot);
        std::erase_if(near_[i], [&](int32_t j) { return tag_[j] == pivot || state_[j] != free; });
        degree += static_cast<int64_t>(near_[i].size());
        buckets_.insert(i, static_cast<int32_t>(std::min<int64_t>(degree, left_ - 1)));
    }
    void eliminate(int32_t pivot) {
        buckets_.erase(pivot);
        left_--;
        collect(pivot);
        countoutside(pivot);
        for (const int32_t i : reach_[pivot])
            buckets_.erase(i);
        for (const int32_t i : reach_[pivot])
            update(pivot, i);
        state_[pivot] = element;
        std::vector<int32_t>().swap(near_[pivot]);
        std::vector<int32_t>().swap(elements_[pivot]);
    }

    int32_t n_, left_ = 0;
    std::vector<std::vector<int32_t>> near_, elements_, reach_; // neighbours; elements around; nodes of an element
    Buckets buckets_;
    std::vector<State> state_;
    std::vector<int32_t> tag_, wtag_, outside_;
};

} // namespace

std::vector<int32_t> minimumdegree(const Adjacency &graph, int64_t clique, int64_t entries) {
    const int64_t n = graph.n;
    if (n <= 8 || static_cast<int64_t>(graph.index.size()) >= n * n / 2) {
        std::vector<int32_t> order(static_cast<size_t>(n));
        std::iota(order.begin(), order.end(), 0);
        return order;
    }
    return Elimination(graph).run(clique, entries);
}

} // namespace store
