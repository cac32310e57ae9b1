// worst.h: Worst, the elements of a check that violate one of its figures most against their own scale.
//
//   Worst row(3);                     the three worst
//   row.meet(1e-3, 2.0, 17);          element 17 is violated by 1e-3, to be measured against 2
//   row.sorted()                      worst first; of equally bad ones the first met
//
// Meeting an element that is no candidate costs two multiplications and a comparison.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

namespace store {

class Worst {
  public:
    struct Entry {
        double violation = 0.0, scale = 1.0;
        int32_t element = -1;
        int64_t order = 0; // in which they were met
    };

    explicit Worst(size_t wanted = 1) : wanted_(wanted) {
        if (wanted == 0)
            mildest_.violation = INFINITY;
    }

    // Not a number counts as infinitely wrong.
    void meet(double violation, double scale, int32_t element) {
        if (std::isnan(violation))
            violation = INFINITY;
        if (violation * mildest_.scale > mildest_.violation * scale && violation > 0.0)
            keep({violation, scale, element, met_++});
    }
    // The worst of all; element -1 where nothing is violated.
    Entry first() const;
    std::vector<Entry> sorted() const;

  private:
    void keep(Entry entry);

    size_t wanted_;
    int64_t met_ = 0;
    Entry mildest_;           // what is milder need not be kept
    std::vector<Entry> kept_; // a heap, the mildest on top
};

} // namespace store
