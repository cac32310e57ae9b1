// api_general.cpp: the functions of tarvo.h for general constraints.
#include "border.h"

using namespace store;

int TRVaddgens(TRVmodel *model, int, const TRVgens *, const TRVnames *, int32_t *) {
    return border(model, [&] { fail(TRV_ERROR_UNSUPPORTED, "general constraints are not supported yet"); });
}

int TRVgetgen(TRVmodel *model, int32_t, int *, TRVgens *) {
    return border(model, [&] { fail(TRV_ERROR_UNSUPPORTED, "general constraints are not supported yet"); });
}

int TRVgetgenmatrix(TRVmodel *model, TRVgenmatrix *) {
    return border(model, [&] { fail(TRV_ERROR_UNSUPPORTED, "general constraints are not supported yet"); });
}

void TRVfreegenmatrix(TRVgenmatrix *) {}
