// chunk.cpp: single coefficients of a chunk of rows set, added and taken away.
#include "rows.h"

#include "failure.h"

#include <algorithm>

namespace store {

void Chunk::own() {
    if (!keeper)
        return;
    Buffer<int32_t> newvar;
    Buffer<double> newcoef;
    moveterms(newvar.room(var.size()), var.data(), var.size());
    moveterms(newcoef.room(coef.size()), coef.data(), coef.size());
    newvar.grow(var.size());
    newcoef.grow(coef.size());
    var.swap(newvar);
    coef.swap(newcoef);
    keeper = Keeper();
}

void Chunk::layout() {
    if (!striped())
        return;
    Buffer<int32_t> newptr, newvar;
    Buffer<double> newcoef;
    int32_t *starts = newptr.room(int64_t{nrows} + 1);
    layrows(strips.all(), nrows, newvar.room(nnz), newcoef.room(nnz));
    for (int32_t i = 0; i <= nrows; i++)
        starts[i] = i * strips.width();
    newptr.grow(int64_t{nrows} + 1);
    newvar.grow(nnz);
    newcoef.grow(nnz);
    ptr.swap(newptr);
    var.swap(newvar);
    coef.swap(newcoef);
    strips.clear();
    keeper = Keeper();
}

void Chunk::makeloose() {
    if (loose() || nrows == 0)
        return;
    stop.room(nrows);
    int32_t *bound = limit.room(nrows);
    for (int32_t i = 0; i < nrows; i++)
        stop.data()[i] = bound[i] = ptr[i + 1];
    stop.grow(nrows);
    limit.grow(nrows);
}

void Chunk::maketight() {
    if (!loose())
        return;
    Buffer<int32_t> newvar;
    Buffer<double> newcoef;
    newvar.room(nnz);
    newcoef.room(nnz);
    int64_t at = 0;
    for (int32_t i = 0; i < nrows; i++) {
        Row r = row(i);
        moveterms(newvar.data() + at, r.var, r.n);
        moveterms(newcoef.data() + at, r.coef, r.n);
        ptr[i] = static_cast<int32_t>(at); // only later rows are still read
        at += r.n;
    }
    ptr[nrows] = static_cast<int32_t>(at);
    newvar.grow(nnz);
    newcoef.grow(nnz);
    var.swap(newvar);
    coef.swap(newcoef);
    stop.free();
    limit.free();
}

// To the end of the chunk, with room for n terms more, and half as many as there are, so that filling rows one term at
// a time is linear in all.
void Chunk::moverow(int32_t i, int64_t n) {
    const Row old = row(i);
    const int64_t from = ptr[i], to = ptr[nrows], space = old.n + std::max(old.n / 2 + 4, n);
    if (to + space > INT32_MAX)
        fail(TRV_ERROR_SIZE_LIMIT, "a block of rows with 2147483647 terms can take no more");
    var.room(space);
    coef.room(space);
    moveterms(var.data() + to, var.data() + from, old.n);
    moveterms(coef.data() + to, coef.data() + from, old.n);
    var.grow(space);
    coef.grow(space);
    ptr[i] = static_cast<int32_t>(to);
    stop[i] = static_cast<int32_t>(to + old.n);
    limit[i] = ptr[nrows] = static_cast<int32_t>(to + space);
}

void Chunk::prepare(int32_t i, int64_t n) {
    own();
    makeloose();
    if (limit[i] - stop[i] < n)
        moverow(i, n);
}

void Chunk::append(int32_t i, int32_t id, double value) {
    var[stop[i]] = id;
    coef[stop[i]] = value;
    stop[i]++;
    nnz++;
}

void Chunk::set(int32_t i, int64_t k, double value) {
    if (value != 0.0) {
        coef[ptr[i] + k] = value;
        return;
    }
    const int64_t at = ptr[i] + k, rest = stop[i] - at - 1;
    moveterms(var.data() + at, var.data() + at + 1, rest);
    moveterms(coef.data() + at, coef.data() + at + 1, rest);
    stop[i]--;
    nnz--;
}

} // namespace store
