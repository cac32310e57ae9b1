// turn.h: Turn, a matrix by rows made one by columns (or back) within the memory in which it stands.
//
//   Turn turn(ncols, nnz);
//   turn.count(piece);                     each piece of the rows, in order
//   if (turn.prepare(index, value, 0))     false: it does not pay, and nothing has changed
//       turn.read(0, piece);               each piece again: from here on nothing fails
//       turn.finish(start);                index and value now hold the columns, rows ascending in each
//
// Fresh memory for a second matrix costs more than all the arithmetic of turning one, and doubles what is held. Here
// entries go to bins of neighbouring columns. A full block of a bin is written over entries that were read already.
// Then each bin in turn is taken out, the blocks in its way are moved aside, and its entries go to their places, which
// fit the nearest cache. Beside the matrix it takes 2 bytes an entry (the column within its bin) and some 2 MB.
#pragma once

#include "buffer.h"

namespace store {

// Some neighbouring rows: row i is index[ptr[i]] .. index[ptr[i+1]], ptr[0] == 0.
struct Piece {
    int32_t n;
    const int32_t *ptr;
    const int32_t *index;
    const double *value;
};

class Turn {
  public:
    Turn(int32_t ncols, int64_t nnz);
    void count(const Piece &piece);
    // The arrays of nnz entries that the result goes to. Their first `held` entries are those of one of the pieces.
    // Takes all memory that is needed; false where a few columns hold most of the entries, or there are too many.
    bool prepare(int32_t *index, double *value, int64_t held);
    // Row numbers begin with `first`. A piece that does not stand in the result's arrays is done with afterwards.
    void read(int32_t first, const Piece &piece) noexcept;
    // start: as many as there are columns, and one more.
    void finish(int32_t *start) noexcept;

  private:
    static constexpr int32_t kBins = 256, kBlock = 256, kSpare = 3;

    struct Entries {
        int32_t *row;
        double *value;
        uint16_t *column; // within its bin
    };

    Entries slot(int32_t s) {
        uint16_t *column = columns_.data() + static_cast<size_t>(s) * kBlock;
        if (s < whole_)
            return {index_ + static_cast<size_t>(s) * kBlock, value_ + static_cast<size_t>(s) * kBlock, column};
        const size_t at = static_cast<size_t>(s - whole_) * kBlock;
        return {sparerow_.data() + at, sparevalue_.data() + at, column};
    }
    Entries filling(int32_t bin) {
        const size_t at = static_cast<size_t>(bin) * kBlock;
        return {fillrow_.data() + at, fillvalue_.data() + at, fillcolumn_.data() + at};
    }
    static void copy(const Entries &to, const Entries &from, size_t n) {
        moveterms(to.row, from.row, n);
        moveterms(to.value, from.value, n);
        moveterms(to.column, from.column, n);
    }
    void flush(int32_t bin, int64_t overwritten) noexcept;
    void gather(int32_t bin) noexcept;
    void clear(int64_t from, int64_t to) noexcept;
    void place(int64_t at, int64_t n, int32_t ncols, int32_t *start) noexcept;

    int32_t ncols_, nbins_ = 0, shift_ = 0, whole_; // whole_: slots within the arrays
    int64_t nnz_, held_ = 0;
    int32_t *index_ = nullptr;
    double *value_ = nullptr;
    int64_t size_[kBins] = {};      // entries of each bin
    int32_t firstblock_[kBins + 1]; // full blocks are numbered bin by bin
    int32_t full_[kBins] = {};      // so many of them are written
    int32_t filled_[kBins] = {};    // entries of the block being filled
    int32_t frontier_ = 0;          // slots before this one have been used, of those that are read
    int32_t nfree_ = 0;
    Buffer<int32_t> slotof_, blockin_, free_; // slot of a block; block in a slot, -1 for none; free slots
    Buffer<uint16_t> columns_, fillcolumn_, bincolumn_;
    Buffer<int32_t> sparerow_, fillrow_, binrow_, next_;
    Buffer<double> sparevalue_, fillvalue_, binvalue_;
};

} // namespace store
