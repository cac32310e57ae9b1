// elementattr.h: helpers to read and write attributes of elements in bulk.
#pragma once

#include "attributes.h"
#include "failure.h"
#include "model.h"

namespace store {

// The elements of a call: ids, or first, first+1, ... where ids is NULL.
struct Selection {
    int64_t n;
    const int32_t *ids;
    int32_t first;

    int64_t id(int64_t i) const { return ids ? ids[i] : static_cast<int64_t>(first) + i; }
};

// The slot of the first element where the others follow one by one: a block to be copied, at a tenth of the cost of
// asking for each. Else -1.
inline int32_t blockof(const Registry &registry, const Selection &which) {
    return which.ids ? -1 : registry.run(which.first, which.n);
}

// f(i, slot) for each; an error where one is not in the model.
template <class F> void eachslot(const Registry &registry, const char *what, const Selection &which, F f) {
    const int32_t block = blockof(registry, which);
    if (block >= 0) {
        for (int64_t i = 0; i < which.n; i++)
            f(i, static_cast<int32_t>(block + i));
        return;
    }
    for (int64_t i = 0; i < which.n; i++)
        f(i, registry.require(which.id(i), what));
}

template <class T>
void gather(const Registry &registry, const char *what, const Selection &which, const Buffer<T> &from, T *out) {
    const int32_t block = blockof(registry, which);
    if (block >= 0)
        moveterms(out, from.data() + block, which.n);
    else
        eachslot(registry, what, which, [&](int64_t i, int32_t s) { out[i] = from[s]; });
}

inline void gather(const Registry &registry, const char *what, const Selection &which, const Values &from,
                   double *out) {
    if (!from.same())
        return gather(registry, what, which, from.all(), out);
    eachslot(registry, what, which, [&, value = from.value()](int64_t i, int32_t) { out[i] = value; });
}

void getdoubles(TRVmodel &model, Attr attr, const Selection &which, double *out);
void setdoubles(TRVmodel &model, Attr attr, const Selection &which, const double *values, int step);
void getchars(TRVmodel &model, Attr attr, const Selection &which, char *out);
void setchars(TRVmodel &model, Attr attr, const Selection &which, const char *values, int step);

// The solve has left no such figure: says what to do.
[[noreturn]] void failnodata(const TRVmodel &model, const char *what);

} // namespace store
