// api_attributes.cpp: attributes of elements by id, one function for each type of value.
#include "border.h"
#include "elementattr.h"

using namespace store;

namespace {

Selection select(const char *name, int64_t n, const int32_t *ids, int32_t first, const void *values) {
    requirecount(name, n);
    requirepointer(name, values, n);
    return {n, ids, first};
}

void getstrings(TRVmodel &model, Attr attr, const Selection &which, Buffer<char> &text, Buffer<int64_t> &offset) {
    const int kind = infoof(attr).kind;
    const Names &names = model.names(kind);
    std::string one;
    offset.reserve(which.n + 1);
    offset.push(0);
    eachslot(model.registry(kind), infoof(attr).name, which, [&](int64_t i, int32_t) {
        one.clear();
        names.append(static_cast<int32_t>(which.id(i)), one);
        std::memcpy(text.room(one.size() + 1), one.data(), one.size());
        text.grow(one.size());
        offset.push(text.size());
    });
    text.push('\0'); // never NULL, and a single string is a C string
}

void setstrings(TRVmodel &model, Attr attr, const Selection &which, const char *text, const int64_t *offset) {
    const int kind = infoof(attr).kind;
    eachslot(model.registry(kind), infoof(attr).name, which, [&](int64_t i, int32_t) {
        if (offset[i] < 0 || offset[i + 1] < offset[i])
            failf(TRV_ERROR_INVALID_ARGUMENT, "%s: offset %lld decreases", infoof(attr).name,
                  static_cast<long long>(i + 1));
    });
    if (which.n) {
        requirepointer(infoof(attr).name, text, offset[which.n]);
        requirenonull(infoof(attr).name, text + offset[0], offset[which.n] - offset[0]);
    }
    std::vector<int32_t> ids(static_cast<size_t>(which.n));
    std::vector<std::string> names(ids.size());
    for (size_t i = 0; i < ids.size(); i++) {
        ids[i] = static_cast<int32_t>(which.id(static_cast<int64_t>(i)));
        names[i].assign(text + offset[i], static_cast<size_t>(offset[i + 1] - offset[i]));
    }
    model.names(kind).rename(ids, std::move(names));
}

} // namespace

const TRVattrinfo *TRVfindattr(const char *name) {
    const int i = findattribute(name);
    return i < 0 ? nullptr : attributes() + i;
}

const TRVattrinfo *TRVattrat(int i) {
    return i >= 0 && i < attributecount() ? attributes() + i : nullptr;
}

int TRVgetdbls(TRVmodel *model, const char *name, int64_t n, const int32_t *ids, int32_t first, double *out) {
    return border(model, [&] {
        const Attr attr = requireattribute(name, TRV_DOUBLE, true, Access::kRead);
        getdoubles(*model, attr, select(name, n, ids, first, out), out);
    });
}

int TRVsetdbls(TRVmodel *model, const char *name, int64_t n, const int32_t *ids, int32_t first, const double *values,
               int step) {
    return border(model, [&] {
        const Attr attr = requireattribute(name, TRV_DOUBLE, true, Access::kWrite);
        setdoubles(*model, attr, select(name, n, ids, first, values), values, step);
    });
}

int TRVgetints(TRVmodel *model, const char *name, int64_t n, const int32_t *ids, int32_t first, int32_t *out) {
    return border(model, [&] {
        const Attr attr = requireattribute(name, TRV_INT, true, Access::kRead);
        const Selection which = select(name, n, ids, first, out);
        if (attr != Attr::GenType) // of elements it is the only one
            failf(TRV_ERROR_ATTRIBUTE_KIND, "%s cannot be read", name);
        gather(model->gens.ids, name, which, model->gens.type, out);
    });
}

int TRVgetchars(TRVmodel *model, const char *name, int64_t n, const int32_t *ids, int32_t first, char *out) {
    return border(model, [&] {
        const Attr attr = requireattribute(name, TRV_CHAR, true, Access::kRead);
        getchars(*model, attr, select(name, n, ids, first, out), out);
    });
}

int TRVsetchars(TRVmodel *model, const char *name, int64_t n, const int32_t *ids, int32_t first, const char *values,
                int step) {
    return border(model, [&] {
        const Attr attr = requireattribute(name, TRV_CHAR, true, Access::kWrite);
        setchars(*model, attr, select(name, n, ids, first, values), values, step);
    });
}

int TRVgetstrs(TRVmodel *model, const char *name, int64_t n, const int32_t *ids, int32_t first, char **text,
               int64_t **offset) {
    return border(model, [&] {
        const Attr attr = requireattribute(name, TRV_STRING, true, Access::kRead);
        requirepointer(name, text, 1);
        Buffer<char> madetext;
        Buffer<int64_t> madeoffset;
        getstrings(*model, attr, select(name, n, ids, first, offset), madetext, madeoffset);
        *text = madetext.release();
        *offset = madeoffset.release();
    });
}

int TRVsetstrs(TRVmodel *model, const char *name, int64_t n, const int32_t *ids, int32_t first, const char *text,
               const int64_t *offset) {
    return border(model, [&] {
        const Attr attr = requireattribute(name, TRV_STRING, true, Access::kWrite);
        setstrings(*model, attr, select(name, n, ids, first, offset), text, offset);
    });
}
