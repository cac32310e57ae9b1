// names.h: Names, what the elements of one kind are called.
//
// A block that one call added keeps its prefix and shape ("x", (3,4)) or its list; the text x[1,2] is made when
// somebody asks. Scalars that are added one by one with a name of their own share one growing list. Renamed single
// elements stand in a side table, and an element with neither has the default name, C17.
#pragma once

#include "buffer.h"
#include "failure.h"
#include "registry.h"
#include "tarvo.h"

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace store {

class Names {
  public:
    explicit Names(char letter) : letter_(letter) {}

    // Names of the elements first .. first+n-1; NULL for default names. Failing changes nothing.
    void add(int32_t first, int64_t n, const TRVnames *names);
    bool any() const { return !blocks_.empty() || !renamed_.empty(); } // or all have their default names
    // Puts the name at the end of a string.
    void append(int32_t id, std::string &out) const;
    // The elements with these ids are called names. An empty name gives the default name back. Failing changes nothing.
    void rename(const std::vector<int32_t> &ids, std::vector<std::string> names);
    // The first element in the registry with this name, -1 for none. The first call makes an index of 16 bytes an
    // element and later ones extend it; renaming drops it.
    int32_t find(const Registry &registry, std::string_view name);

  private:
    struct Block {
        int32_t first;
        int32_t count;
        std::string prefix; // with a shape
        std::vector<int64_t> shape;
        Buffer<char> text; // or a list: offset is not empty
        Buffer<int64_t> offset;
    };
    struct Entry {
        uint32_t hash;
        int32_t id; // -1: free
    };

    void addshape(int32_t first, int64_t n, const TRVnames &names);
    void addlist(int32_t first, int64_t n, const char *text, const int64_t *offset);
    Block &listat(int32_t first);
    const Block *blockof(int32_t id) const;
    void appenddefault(int32_t id, std::string &out) const;
    void extendindex(int32_t count);
    void enter(Entry entry) noexcept;

    char letter_;
    std::vector<Block> blocks_; // by ascending id; ids without a block have default names
    std::unordered_map<int32_t, std::string> renamed_;
    Buffer<Entry> index_; // open addressing; a power of two
    int32_t indexed_ = 0; // ids below are in it
};

// What element i of a block would be called, "the row cap[1]": blocks are refused before their names are kept. A
// default name says little of which element is meant: "the row R17 (element 1 of 3)".
std::string calledinblock(int kind, int32_t first, int64_t n, int64_t i, const TRVnames *names);

// Does the work; of what is wrong with one row it says which row of the block that is.
template <class Work> auto namingrows(int kind, int32_t first, int64_t n, const TRVnames *names, Work work) {
    try {
        return work();
    } catch (const RowFailure &failure) {
        fail(failure.code, calledinblock(kind, first, n, failure.row, names) + ": " + failure.text);
    }
}

} // namespace store
