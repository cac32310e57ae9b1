#include "blocks.h"

#include "tarvo.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include <sys/mman.h>

namespace blocks {

namespace {

// In front of every block.
struct alignas(16) Head {
    std::size_t mapped; // bytes of the mapping, this head included; 0 for a small block, which is of the C heap
    std::size_t bytes;  // as asked for
    std::size_t used;   // bytes, this head included, that may hold what an earlier taker wrote
};

constexpr std::size_t page = 4096;
#ifdef __SANITIZE_ADDRESS__
constexpr std::size_t large = SIZE_MAX; // all blocks are of the C heap, where an overrun and a late use are seen
#else
constexpr std::size_t large = 256 * 1024;
#endif
constexpr std::size_t always_kept = 64 * 1024 * 1024;
constexpr int places = 32;

Head *head_of(void *block) {
    return static_cast<Head *>(block) - 1;
}

std::size_t mapping_for(std::size_t bytes) {
    return (bytes + sizeof(Head) + page - 1) / page * page;
}

void *map(std::size_t mapped, bool large_pages = false) {
    void *memory = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED)
        return nullptr;
    if (large_pages)
        madvise(memory, mapped, MADV_HUGEPAGE); // where the system has none, small ones do
    return memory;
}

// Address space taken in advance, from which blocks are cut one after the other: large pages then serve neighbours, and
// a block need not be as large as one. Each block is unmapped and moved by itself (so it must not lie across two
// regions), and what was cut never comes back here.
//
// Large pages are for the first 64 MB in use. Writing them costs a fifth (0.12 instead of 0.6 ns a byte) where the
// system has them at hand, but three times as much in a virtual machine that has given its free memory back to the
// host, which is the likelier the more of them are asked for. A small model gains most: what it uses of its last one is
// all that it keeps when it goes to an engine.
class Region {
  public:
    void *cut(std::size_t mapped, std::size_t in_use) {
        if (mapped > kLarge / 2)
            return map(mapped, mapped <= kLarge && in_use < kLarge);
        if (mapped > left_ && !renew(mapped, in_use))
            return map(mapped);
        void *memory = next_;
        next_ += mapped;
        left_ -= mapped;
        return memory;
    }
    // What was not cut yet of a large page that is in memory for the sake of what was: up to 2 MB.
    void trim() {
        const auto at = reinterpret_cast<uintptr_t>(next_);
        const std::size_t rest = (kLargePage - at % kLargePage) % kLargePage;
        if (left_ && rest)
            madvise(next_, std::min(rest, left_), MADV_DONTNEED); // a failure costs memory only
    }

  private:
    static constexpr std::size_t kLarge = 64 * 1024 * 1024, kLargePage = 2 * 1024 * 1024;

    bool renew(std::size_t mapped, std::size_t in_use) {
        if (mapped > kLarge)
            return false;
        void *memory = map(kLarge, in_use < kLarge);
        if (!memory)
            return false;
        if (left_)
            munmap(next_, left_);
        next_ = static_cast<char *>(memory);
        left_ = kLarge;
        return true;
    }
    char *next_ = nullptr;
    std::size_t left_ = 0;
};

void unmap(Head *head) noexcept {
    munmap(static_cast<void *>(head), head->mapped);
}

// Blocks given back and not yet asked for again. A fixed number of places: giving a block back never allocates.
class Shelf {
  public:
    // The smallest kept block that holds the mapping and wastes little of itself.
    Head *find(std::size_t mapped) {
        int best = -1;
        for (int i = 0; i < count_; i++) {
            const std::size_t size = kept_[i]->mapped;
            if (size >= mapped && size - mapped <= mapped / 4 && (best < 0 || size < kept_[best]->mapped))
                best = i;
        }
        return best < 0 ? nullptr : remove(best);
    }
    bool keep(Head *head) {
        if (count_ == places || bytes_ + head->mapped > std::max(always_kept, in_use))
            return false;
        head->used = head->mapped;
        kept_[count_++] = head;
        bytes_ += head->mapped;
        return true;
    }
    void clear() {
        while (count_ > 0)
            unmap(remove(count_ - 1));
    }
    std::size_t in_use = 0;

  private:
    Head *remove(int i) {
        Head *head = kept_[i];
        bytes_ -= head->mapped;
        kept_[i] = kept_[--count_];
        return head;
    }
    Head *kept_[places] = {};
    int count_ = 0;
    std::size_t bytes_ = 0;
};

// Engines and their callers run on several threads.
std::mutex mutex;
Shelf shelf;
Region region;

// What is to be zero stays apart, in small pages: there a page that is only read takes no memory.
Head *new_mapping(std::size_t mapped, bool zero) {
    void *memory = zero ? map(mapped) : region.cut(mapped, shelf.in_use);
    if (!memory)
        return nullptr;
    Head *head = static_cast<Head *>(memory);
    head->mapped = mapped;
    head->used = 0;
    return head;
}

// What comes from the shelf holds what it held; a new mapping is zero throughout.
void *take_large(std::size_t bytes, bool zero) {
    const std::size_t mapped = mapping_for(bytes);
    std::lock_guard<std::mutex> lock(mutex);
    Head *head = zero ? nullptr : shelf.find(mapped);
    if (!head && !(head = new_mapping(mapped, zero))) {
        shelf.clear(); // what is kept may be what is missing
        if (!(head = new_mapping(mapped, zero)))
            return nullptr;
    }
    head->bytes = bytes;
    shelf.in_use += head->mapped;
    return head + 1;
}

// From the C heap; old is NULL or a small block.
void *small_block(Head *old, std::size_t bytes) {
    Head *head = static_cast<Head *>(std::realloc(static_cast<void *>(old), sizeof(Head) + bytes));
    if (!head)
        return nullptr;
    *head = {0, bytes, sizeof(Head) + bytes};
    return head + 1;
}

// Large to large: the system moves pages, not bytes.
void *remap(Head *head, std::size_t bytes) {
    const std::size_t mapped = mapping_for(bytes), before = head->mapped;
    void *moved = mremap(static_cast<void *>(head), before, mapped, MREMAP_MAYMOVE);
    if (moved == MAP_FAILED)
        return nullptr;
    Head *now = static_cast<Head *>(moved);
    now->mapped = mapped;
    now->bytes = bytes;
    now->used = std::min(now->used, before);
    std::lock_guard<std::mutex> lock(mutex);
    shelf.in_use += mapped - before;
    return now + 1;
}

void *moved(Head *head, std::size_t bytes) {
    void *place = take(bytes);
    if (!place)
        return nullptr;
    std::memcpy(place, head + 1, std::min(bytes, head->bytes));
    give(head + 1);
    return place;
}

} // namespace

void *take(std::size_t bytes) {
    if (bytes > SIZE_MAX / 2)
        return nullptr;
    return bytes < large ? small_block(nullptr, bytes) : take_large(bytes, false);
}

void *zeros(std::size_t bytes) {
    if (bytes > SIZE_MAX / 2)
        return nullptr;
    if (bytes >= large)
        return take_large(bytes, true);
    void *block = small_block(nullptr, bytes);
    return block ? std::memset(block, 0, bytes) : nullptr;
}

void *resize(void *block, std::size_t bytes) {
    if (!block || bytes > SIZE_MAX / 2)
        return block ? nullptr : take(bytes);
    Head *head = head_of(block);
    if (head->mapped == 0 && bytes < large)
        return small_block(head, bytes);
    return head->mapped != 0 && bytes >= large ? remap(head, bytes) : moved(head, bytes);
}

void give(void *block) noexcept {
    if (!block)
        return;
    Head *head = head_of(block);
    if (head->mapped == 0)
        return std::free(static_cast<void *>(head));
    std::lock_guard<std::mutex> lock(mutex);
    shelf.in_use -= head->mapped;
    if (!shelf.keep(head))
        unmap(head);
}

std::size_t clean_from(const void *block) noexcept {
    const Head *head = head_of(const_cast<void *>(block));
    return head->used > sizeof(Head) ? head->used - sizeof(Head) : 0;
}

void trim() noexcept {
    std::lock_guard<std::mutex> lock(mutex);
    shelf.clear();
    region.trim();
}

} // namespace blocks
