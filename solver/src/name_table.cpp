// Names to numbers by open addressing (see name_table.h).
#include "name_table.h"

#include <cstring>
#include <limits>

#include "file_error.h"
#include "name_hash.h"

namespace trv {

std::size_t NameTable::place(std::string_view name, std::uint32_t hash) const {
    const std::size_t mask = slots_.size() - 1;
    std::size_t i = hash & mask;
    while (slots_[i].name >= 0 && !(slots_[i].hash == hash && (*this)[slots_[i].name] == name)) {
        i = (i + 1) & mask;
    }
    return i;
}

// Files often name what stands next to the name before: that needs no look-up, which far from the cache costs as much
// as all other work on a term.
bool NameTable::is_next(std::string_view name) const {
    return next_ < size() && (*this)[next_] == name;
}

std::int32_t NameTable::find(std::string_view name) const {
    if (is_next(name)) {
        return next_++;
    }
    const std::int32_t found = slots_[place(name, name_hash(name))].name;
    next_ = found >= 0 ? found + 1 : next_;
    return found;
}

std::int32_t NameTable::add(std::string_view name) {
    const std::uint32_t hash = name_hash(name);
    Slot &slot = slots_[place(name, hash)];
    return slot.name >= 0 ? -1 : append(name, slot, hash);
}

std::int32_t NameTable::find_or_add(std::string_view name) {
    if (is_next(name)) {
        return next_++;
    }
    const std::uint32_t hash = name_hash(name);
    Slot &slot = slots_[place(name, hash)];
    const std::int32_t found = slot.name >= 0 ? slot.name : append(name, slot, hash);
    next_ = found + 1;
    return found;
}

void NameTable::add_unnamed() {
    check_room();
    offset_.push_back(static_cast<std::int64_t>(text_.size()));
}

std::int32_t NameTable::append(std::string_view name, Slot &slot, std::uint32_t hash) {
    check_room();
    const std::int32_t number = size();
    text_.append(name);
    offset_.push_back(static_cast<std::int64_t>(text_.size()));
    slot = {hash, number};
    if (static_cast<std::size_t>(number) * 2 >= slots_.size()) {
        grow();
    }
    return number;
}

void NameTable::check_room() const {
    if (size() == std::numeric_limits<std::int32_t>::max() - 1) {
        throw FileError{TRV_ERROR_SIZE_LIMIT, "more than 2^31 names of one kind"};
    }
}

void NameTable::grow() {
    std::vector<Slot> old(slots_.size() * 2, Slot{0, -1});
    old.swap(slots_);
    const std::size_t mask = slots_.size() - 1;
    for (const Slot slot : old) {
        if (slot.name >= 0) {
            std::size_t i = slot.hash & mask;
            while (slots_[i].name >= 0) {
                i = (i + 1) & mask;
            }
            slots_[i] = slot;
        }
    }
}

TRVnames NameTable::list() const {
    TRVnames names{};
    names.form = TRV_NAMES_LIST;
    names.text = text_.data();
    names.offset = offset_.data();
    return names;
}

} // namespace trv
