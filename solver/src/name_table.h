// Names of one kind in the order in which a file brings them, each to its number. All names stand in one block of text,
// so a million of them are three allocations, and the block is what TRVaddvars and TRVaddrows take.
//
//     NameTable table;
//     table.add("x1")      0, or -1 if the name is there already
//     table.find("x1")     0, or -1
#ifndef TARVO_NAME_TABLE_H
#define TARVO_NAME_TABLE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tarvo.h"

namespace trv {

class NameTable {
  public:
    std::int32_t size() const { return static_cast<std::int32_t>(offset_.size()) - 1; }
    std::string_view operator[](std::int32_t i) const {
        return {text_.data() + offset_[i], static_cast<std::size_t>(offset_[i + 1] - offset_[i])};
    }
    std::int32_t find(std::string_view name) const;
    // Throws FileError (TRV_ERROR_SIZE_LIMIT) when 32-bit numbers run out.
    std::int32_t add(std::string_view name);
    // The number of the name, which is added if it is not there.
    std::int32_t find_or_add(std::string_view name);
    // One more number, without a name.
    void add_unnamed();
    TRVnames list() const;

  private:
    struct Slot {
        std::uint32_t hash; // its upper bits spare most comparisons of the text
        std::int32_t name;  // -1: free
    };
    bool is_next(std::string_view name) const;
    std::size_t place(std::string_view name, std::uint32_t hash) const;
    std::int32_t append(std::string_view name, Slot &slot, std::uint32_t hash);
    void check_room() const;
    void grow();

    std::string text_;
    std::vector<std::int64_t> offset_{0};
    mutable std::int32_t next_ = 0;                                  // behind the name found last
    std::vector<Slot> slots_ = std::vector<Slot>(1024, Slot{0, -1}); // a power of two, at most half full
};

} // namespace trv
#endif
