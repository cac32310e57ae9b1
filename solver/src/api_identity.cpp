// api_identity.cpp: ids, positions and names.
#include "border.h"

using namespace store;

namespace {

bool iskind(int kind) {
    return kind >= TRV_VAR && kind <= TRV_NLCONSTR && kind != 3;
}

} // namespace

int32_t TRVidcount(const TRVmodel *model, int kind) {
    return model && iskind(kind) ? model->registry(kind).count() : 0;
}

int32_t TRVposition(const TRVmodel *model, int kind, int32_t id) {
    return model && iskind(kind) ? model->registry(kind).position(id) : static_cast<int32_t>(kRemoved);
}

void TRVpositions(const TRVmodel *model, int kind, int64_t n, const int32_t *ids, int32_t first, int32_t *out) {
    if (!model || !iskind(kind)) {
        for (int64_t i = 0; i < n; i++)
            out[i] = kRemoved;
        return;
    }
    const Registry &registry = model->registry(kind);
    for (int64_t i = 0; i < n; i++)
        out[i] = registry.position(ids ? ids[i] : static_cast<int64_t>(first) + i);
}

int TRVidsat(TRVmodel *model, int kind, int64_t n, const int32_t *positions, int32_t *ids) {
    return border(model, [&] {
        requirecount("positions", n);
        requirepointer("positions", positions, n);
        requirepointer("ids", ids, n);
        const Registry &registry = model->registry(kind);
        for (int64_t i = 0; i < n; i++)
            if (positions[i] < 0 || positions[i] >= registry.committed())
                failf(TRV_ERROR_NOT_IN_MODEL, "position %d: the model has %d %s", positions[i], registry.committed(),
                      kindsname(kind));
        for (int64_t i = 0; i < n; i++)
            ids[i] = registry.idat(positions[i]);
    });
}

int TRVfindname(TRVmodel *model, int kind, const char *name, int32_t *id) {
    return border(model, [&] {
        requirepointer("name", name, 1);
        requirepointer("id", id, 1);
        *id = model->names(kind).find(model->registry(kind), name);
    });
}
