// registry.h: Registry, the identities of one kind of element: which id stands where.
//
// Data of elements stand in arrays by slot. Slots 0 .. committed()-1 are the elements in the model, in model order:
// there the slot is the position. The slots after them are pending elements. As long as nothing was ever removed, slot
// == id and the registry holds two numbers; from the first removal on it holds two maps (8 bytes an element) and one
// byte of marks.
//
//   add 3, update, add 1            ids 0 1 2 | 3     slots the same
//   remove id 1 (marked), update    slots 0 1 2 hold ids 0 2 3; id 1 has slot -2
#pragma once

#include "values.h"

#include <string>

namespace store {

class Names;

enum : int32_t { kPending = -1, kRemoved = -2 };

class Registry {
  public:
    // The names are those of its elements, for the texts of errors.
    Registry(int kind, const Names &names) : kind_(kind), names_(names) {}
    Registry(const Registry &) = delete;

    int kind() const { return kind_; }
    int32_t count() const { return count_; }         // ids ever given
    int32_t slots() const { return slots_; }         // elements in the model and pending, removed pending ones included
    int32_t committed() const { return committed_; } // elements in the model
    bool identity() const { return identity_; }      // slot == id for all
    bool anygone() const { return gonecount_ != 0; }

    // -2 for ids that were removed or never given.
    int32_t slot(int64_t id) const {
        if (id < 0 || id >= count_)
            return kRemoved;
        return identity_ ? static_cast<int32_t>(id) : slotof_[id];
    }
    int32_t position(int64_t id) const {
        int32_t s = slot(id);
        return s < committed_ ? s : static_cast<int32_t>(kPending);
    }
    // The slot of the first of n ids in a row, the others following one by one; -1 where one has no slot. Slots ascend
    // as ids do, so the two ends tell; but until the next update a pending element that was removed leaves its slot
    // empty.
    int32_t run(int64_t first, int64_t n) const {
        const int32_t low = n > 0 && !gonepending_ ? slot(first) : -1;
        return low >= 0 && slot(first + n - 1) == low + n - 1 ? low : -1;
    }
    int32_t idat(int32_t slot) const { return identity_ ? slot : idat_[slot]; }
    // Removed at the next update, or removed while pending.
    bool gone(int32_t slot) const { return gonecount_ && static_cast<size_t>(slot) < gone_.size() && gone_[slot]; }
    // Whether new rows may use it: neither removed nor marked.
    bool usable(int64_t id) const {
        int32_t s = slot(id);
        return s >= 0 && !gone(s);
    }

    // As slot, but an error for what is not in the model.
    int32_t require(int64_t id, const char *what) const {
        int32_t s = slot(id);
        if (s < 0)
            failabsent(id, what);
        return s;
    }
    void requireusable(int64_t id, const char *what) const;
    // "the variable x[1]"; also of a removed one. Only for ids that were given.
    std::string called(int64_t id) const;
    // Why an element cannot be used: "the row demand was removed from the model", "the model has no row with id 9".
    std::string absence(int64_t id) const;

    // An error if n more would exceed 2^31-1 ids.
    void requireroom(int64_t n) const;
    // Allocates for n more; add then cannot fail.
    void reserve(int64_t n);
    int32_t add(int64_t n) noexcept;

    // Slots of those of the ids that are neither removed nor marked, ascending and each once; an error where one never
    // was. That of a single id stands in `one`, so that it takes no memory.
    Buffer<int32_t> leaving(int64_t n, const int32_t *ids, int32_t &one) const;
    // Pending elements are gone at once, others are marked. The ids are checked (see leaving) and prepareremoval has
    // allocated what it takes.
    void prepareremoval();
    // Allocates for that already before n elements are added; with n = 0 gives back what was not used.
    void expectremoval(int64_t n);
    void remove(int64_t n, const int32_t *ids) noexcept;

    // Whether an update would change the model (pending elements that were removed again do not).
    bool changes() const { return slots_ - committed_ - gonepending_ > 0 || gonecount_ - gonepending_ > 0; }
    // Takes the gone elements out of an array by slot; all arrays first, then commit.
    template <class T> void compact(Buffer<T> &array) const {
        if (!gonecount_)
            return;
        size_t kept = 0;
        for (size_t s = 0; s < array.size(); s++)
            if (!gone(static_cast<int32_t>(s)))
                array[kept++] = array[s];
        array.cut(kept);
    }
    void compact(Values &array) const noexcept {
        if (gonecount_)
            array.filter([&](size_t s) { return !gone(static_cast<int32_t>(s)); });
    }
    void commit() noexcept;

  private:
    [[noreturn]] void failabsent(int64_t id, const char *what) const;
    void makemaps();

    int kind_;
    const Names &names_;
    int32_t count_ = 0, slots_ = 0, committed_ = 0;
    int32_t gonecount_ = 0, gonepending_ = 0;
    bool identity_ = true;
    Buffer<int32_t> slotof_, idat_;
    Buffer<char> gone_; // by slot; may be shorter than slots_
};

} // namespace store
