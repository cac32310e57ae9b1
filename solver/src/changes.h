// changes.h: Changes, what an engine that keeps its model has to be told: positions of changed elements, each once.
//
// Nothing is written down while everything is to be loaded anew (at the start, and after a change of structure), so
// building a model costs nothing here.
#pragma once

#include "buffer.h"
#include "tarvo_engine.h"

namespace store {

class Changes {
  public:
    enum Kind { kBounds = 0, kCosts = 1, kSides = 2, kKinds = 3 };

    bool structure() const { return structure_; }
    void loadanew() noexcept; // forgets the lists
    // Short of memory for a list, all is to be loaded anew: a value that was written must never go unmentioned.
    void element(Kind kind, int32_t position) noexcept;
    // True when the list has doubled since repetitions were last taken out, and limitcoefficients is due.
    bool coefficient(int32_t row, int32_t column) noexcept;
    // Takes repetitions out; beyond a quarter of the matrix all is loaded anew.
    void limitcoefficients(int64_t nonzeros);
    void objconstant() { objconstant_ = true; }
    void sense() { sense_ = true; }
    void quadratic() { quadratic_ = true; }

    TRVchanges list();
    void clear() noexcept;

  private:
    struct Pair {
        int32_t row, column;
    };
    void mergepairs();
    void forget() noexcept;

    bool structure_ = true, objconstant_ = false, sense_ = false, quadratic_ = false;
    Buffer<int32_t> lists_[kKinds];
    Buffer<char> listed_[kKinds]; // by position; may be shorter than the kind
    Buffer<Pair> pairs_;
    size_t merged_ = 0; // how many of pairs_ are known to be different
    Buffer<int32_t> pairrows_, paircolumns_;
};

} // namespace store
