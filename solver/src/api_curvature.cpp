// api_curvature.cpp: the functions of tarvo.h that say what is convex, and hand quadratic rows over as cones.
#include "border.h"

using namespace store;

namespace {
int later(TRVmodel *model) {
    return border(model, [] { failf(TRV_ERROR_UNSUPPORTED, "quadratic terms are not supported yet"); });
}
} // namespace

int TRVcurvature(TRVmodel *m, int *, char *) {
    return later(m);
}
int TRVgetcones(TRVmodel *m, TRVcones *) {
    return later(m);
}
void TRVfreecones(TRVcones *) {}
int TRVconeduals(TRVmodel *m, const TRVcones *, const double *, const double *, double *) {
    return later(m);
}
