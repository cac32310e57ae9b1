// worst.cpp: a heap of the worst elements met so far.
#include "worst.h"

#include <algorithm>

namespace store {

namespace {

bool worse(const Worst::Entry &a, const Worst::Entry &b) {
    const double left = a.violation * b.scale, right = b.violation * a.scale;
    return left != right ? left > right : a.order < b.order;
}

} // namespace

void Worst::keep(Entry entry) {
    if (kept_.size() == wanted_) {
        std::pop_heap(kept_.begin(), kept_.end(), worse);
        kept_.back() = entry;
    } else {
        kept_.push_back(entry);
    }
    std::push_heap(kept_.begin(), kept_.end(), worse);
    if (kept_.size() == wanted_)
        mildest_ = kept_.front();
}

std::vector<Worst::Entry> Worst::sorted() const {
    std::vector<Entry> entries = kept_;
    std::sort(entries.begin(), entries.end(), worse);
    return entries;
}

Worst::Entry Worst::first() const {
    const auto found = std::min_element(kept_.begin(), kept_.end(), worse);
    return found == kept_.end() ? Entry() : *found;
}

} // namespace store
