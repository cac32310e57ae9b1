#include "turn.h"

#include <algorithm>

namespace store {

namespace {

constexpr int kMaxShift = 16;         // columns of a bin are told apart by 16 bits
constexpr int64_t kBinEntries = 4096; // on average, at least: a block for each bin costs more than small bins bring
// The entries of a bin are copied out before they are placed: fresh memory, which for a bin of most entries is no less
// than a second matrix takes.
bool outgrown(int64_t largest, int64_t nnz) {
    return largest > nnz / 4 * 3;
}

} // namespace

Turn::Turn(int32_t ncols, int64_t nnz) : ncols_(ncols), whole_(static_cast<int32_t>(nnz / kBlock)), nnz_(nnz) {
    const int32_t enough = static_cast<int32_t>(std::clamp<int64_t>(nnz / kBinEntries, 1, kBins));
    while (ncols > 0 && (ncols - 1) >> shift_ >= (shift_ < kMaxShift ? enough : kBins))
        shift_++;
    nbins_ = ncols > 0 ? ((ncols - 1) >> shift_) + 1 : 0;
}

void Turn::count(const Piece &piece) {
    const int64_t n = piece.ptr[piece.n];
    // Two counters in turn: neighbouring entries often share a bin, and one would wait for the other.
    int64_t other[kBins] = {};
    int64_t k = 0;
    for (; k + 1 < n; k += 2) {
        size_[piece.index[k] >> shift_]++;
        other[piece.index[k + 1] >> shift_]++;
    }
    if (k < n)
        size_[piece.index[k] >> shift_]++;
    for (int32_t bin = 0; bin < nbins_; bin++)
        size_[bin] += other[bin];
}

bool Turn::prepare(int32_t *index, double *value, int64_t held) {
    const int64_t largest = *std::max_element(size_, size_ + kBins);
    if (shift_ > kMaxShift || outgrown(largest, nnz_))
        return false;
    index_ = index;
    value_ = value;
    held_ = held;
    firstblock_[0] = 0;
    for (int32_t bin = 0; bin < nbins_; bin++)
        firstblock_[bin + 1] = firstblock_[bin] + static_cast<int32_t>(size_[bin] / kBlock);
    const int32_t slots = whole_ + kSpare;
    const size_t filling = static_cast<size_t>(nbins_) * kBlock;
    columns_.room(static_cast<size_t>(slots) * kBlock);
    sparerow_.room(kSpare * kBlock);
    sparevalue_.room(kSpare * kBlock);
    fillcolumn_.room(filling);
    fillrow_.room(filling);
    fillvalue_.room(filling);
    bincolumn_.room(largest);
    binrow_.room(largest);
    binvalue_.room(largest);
    next_.room(size_t{1} << shift_);
    slotof_.room(firstblock_[nbins_]);
    std::fill_n(blockin_.room(slots), slots, -1);
    free_.room(slots);
    // The last ones first, so that the front, where the first bins go, stays clear for long.
    for (int32_t s = static_cast<int32_t>((held + kBlock - 1) / kBlock); s < slots; s++)
        free_.data()[nfree_++] = s;
    return true;
}

// The full block of a bin goes to a free slot. `overwritten`: so many entries at the front of the result's arrays are
// read. As every entry of a full block was read and two spare slots make up for what does not fill a slot at either end
// of the held entries, there always is one.
void Turn::flush(int32_t bin, int64_t overwritten) noexcept {
    const bool front = (frontier_ + int64_t{1}) * kBlock <= overwritten;
    const int32_t s = front ? frontier_++ : free_.data()[--nfree_];
    const int32_t block = firstblock_[bin] + full_[bin]++;
    slotof_.data()[block] = s;
    blockin_.data()[s] = block;
    copy(slot(s), filling(bin), kBlock);
    filled_[bin] = 0;
}

void Turn::read(int32_t first, const Piece &piece) noexcept {
    const bool inside = piece.index == index_;
    const int32_t mask = (1 << shift_) - 1;
    int32_t *fillrow = fillrow_.data();
    double *fillvalue = fillvalue_.data();
    uint16_t *fillcolumn = fillcolumn_.data();
    for (int32_t i = 0; i < piece.n; i++)
        for (int64_t k = piece.ptr[i]; k < piece.ptr[i + 1]; k++) {
            const int32_t column = piece.index[k], bin = column >> shift_;
            const size_t at = static_cast<size_t>(bin) * kBlock + filled_[bin];
            fillrow[at] = first + i;
            fillvalue[at] = piece.value[k];
            fillcolumn[at] = static_cast<uint16_t>(column & mask);
            if (++filled_[bin] == kBlock)
                flush(bin, inside ? k + 1 : 0);
        }
    if (!inside)
        return;
    const int32_t end = std::min(whole_, static_cast<int32_t>((held_ + kBlock - 1) / kBlock));
    while (frontier_ < end)
        free_.data()[nfree_++] = frontier_++;
}

// All entries of a bin, in their order, to where they can be read while their places are written.
void Turn::gather(int32_t bin) noexcept {
    Entries to{binrow_.data(), binvalue_.data(), bincolumn_.data()};
    for (int32_t b = firstblock_[bin]; b < firstblock_[bin] + full_[bin]; b++) {
        const int32_t s = slotof_.data()[b];
        copy(to, slot(s), kBlock);
        to = {to.row + kBlock, to.value + kBlock, to.column + kBlock};
        blockin_.data()[s] = -1;
        free_.data()[nfree_++] = s;
    }
    copy(to, filling(bin), filled_[bin]);
}

// Blocks of later bins leave these entries of the result. Slots before the end of them are not used again.
void Turn::clear(int64_t from, int64_t to) noexcept {
    const int32_t end = std::min(whole_, static_cast<int32_t>((to + kBlock - 1) / kBlock));
    for (int32_t s = static_cast<int32_t>(from / kBlock); s < end; s++) {
        const int32_t block = blockin_.data()[s];
        if (block < 0)
            continue;
        int32_t other;
        do
            other = free_.data()[--nfree_];
        while (other < end);
        copy(slot(other), slot(s), kBlock);
        slotof_.data()[block] = other;
        blockin_.data()[other] = block;
        blockin_.data()[s] = -1;
    }
}

void Turn::place(int64_t at, int64_t n, int32_t ncols, int32_t *start) noexcept {
    const uint16_t *column = bincolumn_.data();
    int32_t *next = next_.data();
    std::fill_n(next, ncols, 0);
    for (int64_t k = 0; k < n; k++)
        next[column[k]]++;
    int32_t to = static_cast<int32_t>(at);
    for (int32_t c = 0; c < ncols; c++) {
        start[c] = to;
        to += std::exchange(next[c], to);
    }
    const int32_t *row = binrow_.data();
    const double *value = binvalue_.data();
    for (int64_t k = 0; k < n; k++) {
        const int32_t place = next[column[k]]++;
        index_[place] = row[k];
        value_[place] = value[k];
    }
}

void Turn::finish(int32_t *start) noexcept {
    int64_t at = 0;
    for (int32_t bin = 0; bin < nbins_; bin++) {
        const int32_t first = bin << shift_;
        gather(bin);
        clear(at, at + size_[bin]);
        place(at, size_[bin], std::min(1 << shift_, ncols_ - first), start + first);
        at += size_[bin];
    }
    start[ncols_] = static_cast<int32_t>(nnz_);
}

} // namespace store
