// api_quadratic.cpp: the functions of tarvo.h for quadratic rows and objectives.
#include "border.h"

using namespace store;

namespace {
int later(TRVmodel *model) {
    return border(model, [] { failf(TRV_ERROR_UNSUPPORTED, "quadratic terms are not supported yet"); });
}
} // namespace

int TRVsetqobjective(TRVmodel *m, int64_t, const int32_t *, const double *, int64_t, const int32_t *, const int32_t *,
                     const double *, double, int) {
    return later(m);
}
int TRVaddqrows(TRVmodel *m, int64_t, const TRVqrows *, const char *, int, const double *, int, const TRVnames *,
                int32_t *) {
    return later(m);
}
int TRVgetqrow(TRVmodel *m, int32_t, TRVqrows *) {
    return later(m);
}
int TRVgetqobjective(TRVmodel *m, int64_t *, const int32_t **, const int32_t **, const double **) {
    return later(m);
}
int TRVgetqmatrix(TRVmodel *m, TRVqmatrix *) {
    return later(m);
}
void TRVfreeqmatrix(TRVqmatrix *) {}
int TRVgethessian(TRVmodel *m, TRVmatrix *) {
    return later(m);
}
int TRVoffenders(TRVmodel *m, int, int, int, TRVoffender *, int *) {
    return later(m);
}
