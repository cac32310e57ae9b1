// blockpointers.h: row pointers of a block of rows on their way into the store, shared by quadratic and nonlinear rows.
//
//   Buffer<int64_t> block = blockpointers(nrows, rows.ptr);       0 <= block[1] <= ..., tidied with the terms
//   roompointers({&ptr_, &qptr_}, nrows);                         of all arrays of pointers of one kind of rows
//   growpointers(ptr_, block);                                    behind the pointers that are there
#pragma once

#include "buffer.h"
#include "failure.h"

#include <cinttypes>
#include <initializer_list>

namespace store {

// A block's own row pointers, to be tidied; none are all 0.
inline Buffer<int64_t> blockpointers(int64_t nrows, const int64_t *ptr) {
    Buffer<int64_t> block;
    block.pad(nrows + 1, 0);
    if (ptr)
        moveterms(block.data(), ptr, nrows + 1);
    return block;
}

// Terms of a block are counted with 32 bits where duplicates are looked for, as in linear rows.
inline int64_t requireterms(const char *what, const Buffer<int64_t> &block) {
    const int64_t n = block[block.size() - 1];
    requirecount(what, n);
    if (n > INT32_MAX)
        failf(TRV_ERROR_SIZE_LIMIT, "%" PRId64 " %s exceed the limit of 2147483647 for one block of rows", n, what);
    return n;
}

// Row pointers begin with 0, do not decrease and stay within nnz.
inline void requirepointers(int64_t nrows, int64_t nnz, const int64_t *ptr) {
    if (ptr[0] != 0)
        failf(TRV_ERROR_INVALID_ARGUMENT, "row pointers begin with %" PRId64 ", not with 0", ptr[0]);
    for (int64_t i = 0; i < nrows; i++)
        if (ptr[i + 1] < ptr[i])
            failf(TRV_ERROR_INVALID_ARGUMENT, "row pointers decrease from %" PRId64 " to %" PRId64 " at row %" PRId64,
                  ptr[i], ptr[i + 1], i);
    if (ptr[nrows] > nnz)
        failf(TRV_ERROR_INVALID_ARGUMENT, "row pointer %" PRId64 " is beyond the %" PRId64 " terms", ptr[nrows], nnz);
}

// Room for n more in each. Where there were none all get their first 0 together: who finds one looks into the others.
inline void roompointers(std::initializer_list<Buffer<int64_t> *> all, int64_t n) {
    for (Buffer<int64_t> *pointers : all)
        pointers->room(n + 1);
    for (Buffer<int64_t> *pointers : all)
        pointers->pad(1, 0);
}

// Into the room behind the pointers that are there.
inline void growpointers(Buffer<int64_t> &ptr, const Buffer<int64_t> &block) noexcept {
    const int64_t base = ptr[ptr.size() - 1], nrows = static_cast<int64_t>(block.size()) - 1;
    int64_t *fresh = ptr.end();
    for (int64_t i = 0; i < nrows; i++)
        fresh[i] = base + block[i + 1];
    ptr.grow(nrows);
}

} // namespace store
