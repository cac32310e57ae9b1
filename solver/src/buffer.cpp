// buffer.cpp: the advice that large blocks get.
#include "buffer.h"

#include <sys/mman.h>

namespace store {

void adviselarge(void *memory, size_t bytes) noexcept {
#ifdef MADV_HUGEPAGE
    constexpr size_t page = size_t(2) << 20;
    if (bytes < 2 * page)
        return;
    const size_t from = (reinterpret_cast<uintptr_t>(memory) + page - 1) & ~(page - 1);
    const size_t to = (reinterpret_cast<uintptr_t>(memory) + bytes) & ~(page - 1);
    if (from < to)
        ::madvise(reinterpret_cast<void *>(from), to - from, MADV_HUGEPAGE); // only advice: a refusal does not matter
#else
    (void)memory;
    (void)bytes;
#endif
}

} // namespace store
