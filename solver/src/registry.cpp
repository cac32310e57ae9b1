// registry.cpp: ids, slots and positions of one kind of element.
#include "registry.h"

#include "failure.h"
#include "names.h"

#include <algorithm>
#include <cinttypes>

namespace store {

void Registry::requireusable(int64_t id, const char *what) const {
    if (gone(require(id, what)))
        failabsent(id, what);
}

std::string Registry::called(int64_t id) const {
    std::string text = std::string("the ") + kindname(kind_) + " ";
    names_.append(static_cast<int32_t>(id), text);
    return text;
}

std::string Registry::absence(int64_t id) const {
    if (id >= 0 && id < count_)
        return called(id) + " was removed from the model";
    return std::string("the model has no ") + kindname(kind_) + " with id " + std::to_string(id);
}

void Registry::failabsent(int64_t id, const char *what) const {
    fail(TRV_ERROR_NOT_IN_MODEL, std::string(what) + ": " + absence(id));
}

void Registry::requireroom(int64_t n) const {
    if (n > INT32_MAX - static_cast<int64_t>(count_))
        failf(TRV_ERROR_SIZE_LIMIT, "%" PRId64 " more %s on top of %d exceed the limit of 2147483647", n,
              kindsname(kind_), count_);
}

void Registry::reserve(int64_t n) {
    requireroom(n);
    if (!identity_) {
        slotof_.room(n);
        idat_.room(n);
    }
}

int32_t Registry::add(int64_t n) noexcept {
    int32_t first = count_;
    if (!identity_) {
        for (int64_t i = 0; i < n; i++) {
            slotof_.end()[i] = static_cast<int32_t>(slots_ + i);
            idat_.end()[i] = static_cast<int32_t>(first + i);
        }
        slotof_.grow(n);
        idat_.grow(n);
    }
    count_ += static_cast<int32_t>(n);
    slots_ += static_cast<int32_t>(n);
    return first;
}

void Registry::makemaps() {
    if (!identity_)
        return;
    slotof_.resize(count_);
    idat_.resize(slots_);
    for (int32_t i = 0; i < count_; i++)
        slotof_[i] = idat_[i] = i;
    identity_ = false;
}

Buffer<int32_t> Registry::leaving(int64_t n, const int32_t *ids, int32_t &one) const {
    for (int64_t i = 0; i < n; i++)
        if (ids[i] < 0 || ids[i] >= count_)
            failabsent(ids[i], "remove");
    if (n == 1) {
        one = slot(*ids);
        return Buffer<int32_t>::borrow(&one, usable(*ids));
    }
    Buffer<int32_t> slots;
    slots.reserve(n);
    for (int64_t i = 0; i < n; i++)
        if (usable(ids[i]))
            slots.push(slot(ids[i]));
    std::sort(slots.data(), slots.end());
    slots.cut(std::unique(slots.data(), slots.end()) - slots.data());
    return slots;
}

void Registry::prepareremoval() {
    gone_.pad(slots_, 0);
    makemaps();
}

void Registry::expectremoval(int64_t n) {
    requireroom(n);
    if (n == 0) {
        if (identity_)
            for (Buffer<int32_t> *map : {&slotof_, &idat_})
                map->free();
        if (!gonecount_)
            gone_.free();
        return;
    }
    slotof_.reserve(count_ + n);
    idat_.reserve(slots_ + n);
    gone_.reserve(slots_ + n);
}

void Registry::remove(int64_t n, const int32_t *ids) noexcept {
    for (int64_t i = 0; i < n; i++) {
        int32_t s = slotof_[ids[i]];
        if (s < 0 || gone_[s])
            continue;
        gone_[s] = 1;
        gonecount_++;
        if (s >= committed_) {
            gonepending_++;
            slotof_[ids[i]] = kRemoved;
        }
    }
}

void Registry::commit() noexcept {
    if (gonecount_) {
        int32_t kept = 0;
        for (int32_t s = 0; s < slots_; s++) {
            int32_t id = idat_[s];
            if (gone(s)) {
                slotof_[id] = kRemoved;
                continue;
            }
            slotof_[id] = kept;
            idat_[kept++] = id;
        }
        idat_.cut(kept);
        slots_ = kept;
        gone_.free();
        gonecount_ = gonepending_ = 0;
    }
    committed_ = slots_;
}

} // namespace store
