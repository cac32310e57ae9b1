// Special ordered sets on their way from a file into the store (see file_model.h).
#include <algorithm>
#include <cmath>

#include "file_error.h"
#include "file_model.h"
#include "text_scan.h"

namespace trv {
namespace {

// The place of an element that equals another one, -1 if all differ.
template <class Value> std::ptrdiff_t doubled(const std::vector<Value> &values, std::size_t begin) {
    std::vector<Value> sorted(values.begin() + static_cast<std::ptrdiff_t>(begin), values.end());
    std::sort(sorted.begin(), sorted.end());
    const auto found = std::adjacent_find(sorted.begin(), sorted.end());
    return found == sorted.end() ? -1 : std::find(values.begin(), values.end(), *found) - values.begin();
}

} // namespace

void OrderedSets::add(int newtype, std::string_view name) {
    if (name.empty()) {
        names.add_unnamed();
    } else if (!valid_utf8(name)) {
        throw LineError{joined("the name ", shown(name), " is not UTF-8")};
    } else if (names.add(name) < 0) {
        throw LineError{joined("a second set ", shown(name))};
    }
    type.push_back(newtype);
    start.push_back(static_cast<std::int64_t>(column.size()));
}

void OrderedSets::add_member(std::int32_t member, double its_weight) {
    column.push_back(member);
    weight.push_back(its_weight);
}

std::string OrderedSets::flaw_of_last(const NameTable &columns) const {
    if (type.empty()) {
        return {};
    }
    const auto begin = static_cast<std::size_t>(start.back());
    const std::string_view name = names[names.size() - 1];
    const std::string set = name.empty() ? std::string("the set") : joined("the set ", shown(name));
    if (begin == column.size()) {
        return joined(set, " has no members");
    }
    if (const std::ptrdiff_t twice = doubled(column, begin); twice >= 0) {
        return joined(set, " has the variable ", shown(columns[column[static_cast<std::size_t>(twice)]]), " twice");
    }
    if (const std::ptrdiff_t twice = doubled(weight, begin); twice >= 0) {
        char buffer[kNumberSize];
        return joined(set, " has two members of weight ", number_text(weight[static_cast<std::size_t>(twice)], buffer));
    }
    return {};
}

} // namespace trv
