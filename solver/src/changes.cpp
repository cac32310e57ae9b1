// changes.cpp: lists of changed elements without repetitions.
#include "changes.h"

#include <algorithm>

namespace store {

void Changes::element(Kind kind, int32_t position) noexcept {
    if (structure_)
        return;
    Buffer<char> &listed = listed_[kind];
    try {
        listed.pad(static_cast<size_t>(position) + 1, 0);
        if (!listed[position])
            lists_[kind].push(position);
        listed[position] = 1;
    } catch (const std::bad_alloc &) {
        loadanew();
    }
}

// Pairs have no flag each, so repetitions are taken out from time to time.
bool Changes::coefficient(int32_t row, int32_t column) noexcept {
    if (structure_)
        return false;
    try {
        pairs_.push({row, column});
    } catch (const std::bad_alloc &) {
        loadanew();
    }
    return pairs_.size() >= 2 * merged_ + 1024;
}

void Changes::limitcoefficients(int64_t nonzeros) {
    mergepairs();
    if (static_cast<int64_t>(merged_) > nonzeros / 4)
        loadanew();
}

void Changes::mergepairs() {
    auto before = [](const Pair &a, const Pair &b) { return a.row != b.row ? a.row < b.row : a.column < b.column; };
    auto equal = [](const Pair &a, const Pair &b) { return a.row == b.row && a.column == b.column; };
    std::sort(pairs_.data(), pairs_.end(), before);
    pairs_.cut(std::unique(pairs_.data(), pairs_.end(), equal) - pairs_.data());
    merged_ = pairs_.size();
}

TRVchanges Changes::list() {
    mergepairs();
    pairrows_.resize(merged_);
    paircolumns_.resize(merged_);
    for (size_t k = 0; k < merged_; k++) {
        pairrows_[k] = pairs_[k].row;
        paircolumns_[k] = pairs_[k].column;
    }
    TRVchanges c{};
    c.structure = structure_;
    c.objconstant = objconstant_;
    c.sense = sense_;
    c.quadratic = quadratic_;
    c.nbounds = lists_[kBounds].size();
    c.ncosts = lists_[kCosts].size();
    c.nsides = lists_[kSides].size();
    c.ncoefs = merged_;
    c.bounds = lists_[kBounds].data();
    c.costs = lists_[kCosts].data();
    c.sides = lists_[kSides].data();
    c.coefrows = pairrows_.data();
    c.coefvars = paircolumns_.data();
    return c;
}

void Changes::forget() noexcept {
    for (int kind = 0; kind < kKinds; kind++) {
        lists_[kind].free();
        listed_[kind].free();
    }
    pairs_.free();
    pairrows_.free();
    paircolumns_.free();
    merged_ = 0;
    objconstant_ = sense_ = quadratic_ = false;
}

void Changes::loadanew() noexcept {
    forget();
    structure_ = true;
}

void Changes::clear() noexcept {
    forget();
    structure_ = false;
}

} // namespace store
