#include "row_blocks.h"

#include <cmath>

namespace tarvopy::modelapi {

// ---- linear rows

Rows::Rows(PyObject *lhs, PyObject *rhs) {
    if (matrix().rows_open(lhs, rhs, &block_) < 0)
        throw PythonError{};
}

Rows::~Rows() {
    matrix().rows_close(&block_);
    if (store_ && !shared_.release)
        TRVdroprows(store_);
    if (shared_.release)
        shared_.release(shared_.keeper);
}

void Rows::write(int64_t *ptr, int32_t *var, double *coef, double *constants) {
    if (matrix().rows_write(&block_, ptr, var, coef, constants) < 0)
        throw PythonError{};
}

double *Rows::write_into(TRVmodel *store, Side side) {
    double *constants;
    succeed(store, TRVopenside(store, block_.nrows, side == Side::Upper, &constants));
    int shared = check_status(matrix().rows_share(&block_, &shared_, constants));
    store_ = store;
    if (shared)
        return constants;
    store_ = nullptr;
    TRVrows rows;
    succeed(store, TRVopenrows(store, block_.nrows, block_.nnz, &rows));
    store_ = store;
    write(rows.ptr, rows.var, rows.coef, constants);
    return constants;
}

int32_t Rows::commit(const double *lower, int lowerstep, const double *upper, int upperstep, const TRVnames *names) {
    TRVmodel *store = std::exchange(store_, nullptr); // a failed commit leaves nothing open
    int32_t first;
    if (shared_.release) {
        TRVsharedrows shared = std::exchange(shared_, {}); // the store's from here on
        succeed(store, TRVsharerows(store, block_.nrows, &shared, lower, lowerstep, upper, upperstep, names, &first));
        return first;
    }
    succeed(store, TRVcommitrows(store, lower, lowerstep, upper, upperstep, names, &first));
    return first;
}

// ---- quadratic rows

QuadRows::QuadRows(PyObject *lhs, PyObject *rhs) {
    if (matrix().quad_open(lhs, rhs, &block_) < 0)
        throw PythonError{};
}

void QuadRows::write() {
    ptr_ = scratch<int64_t>(block_.nrows);
    qptr_ = scratch<int64_t>(block_.nrows);
    var_ = scratch<int32_t>(block_.nnz);
    coef_ = scratch<double>(block_.nnz);
    var1_ = scratch<int32_t>(block_.nqnz);
    var2_ = scratch<int32_t>(block_.nqnz);
    qcoef_ = scratch<double>(block_.nqnz);
    constants_ = scratch<double>(block_.nrows);
    check_status(matrix().quad_write(&block_, ptr_.get(), var_.get(), coef_.get(), constants_.get(), qptr_.get(),
                                     var1_.get(), var2_.get(), qcoef_.get()));
}

int32_t QuadRows::commit(TRVmodel *store, Sense sense, const TRVnames *names) const {
    const TRVqrows rows{ptr_.get(), var_.get(), coef_.get(), qptr_.get(), var1_.get(), var2_.get(), qcoef_.get()};
    const char letter = sense == Sense::Less ? '<' : sense == Sense::Greater ? '>' : '=';
    int32_t first;
    succeed(store, TRVaddqrows(store, block_.nrows, &rows, &letter, 0, constants_.get(), 1, names, &first));
    return first;
}

void QuadRows::commit_objective(TRVmodel *store, int sense) const {
    succeed(store, TRVsetqobjective(store, ptr_[1], var_.get(), coef_.get(), qptr_[1], var1_.get(), var2_.get(),
                                    qcoef_.get(), constants_[0], sense));
}

// ---- nonlinear rows

NonlinearRows::NonlinearRows(PyObject *lhs, PyObject *rhs) {
    if (matrix().nonlinear_open(lhs, rhs, &block_) < 0)
        throw PythonError{};
}

int32_t NonlinearRows::commit(TRVmodel *store, const double *lower, int lowerstep, const double *upper, int upperstep,
                              const TRVnames *names) const {
    int32_t first;
    succeed(store, TRVaddnlrows(store, block_.nrows, &block_.rows, lower, lowerstep, upper, upperstep, names, &first));
    return first;
}

void NonlinearRows::commit_objective(TRVmodel *store, int sense) const {
    const TRVnlrows &row = block_.rows;
    const TRVnltape tape{row.codeptr ? row.codeptr[1] : 0, row.code, row.nconstants, row.constant};
    succeed(store, TRVsetnlobjective(store, row.ptr ? row.ptr[1] : 0, row.var, row.coef, 0, nullptr, nullptr, nullptr,
                                     &tape, block_.constants[0], sense));
}

// ---- bounds

OneSided::OneSided(Sense sense, const double *bounds)
    : lower(bounds), upper(bounds), lowerstep(sense != Sense::Less), upperstep(sense != Sense::Greater) {
    static const double minus = -HUGE_VAL, plus = HUGE_VAL;
    if (sense == Sense::Less)
        lower = &minus;
    if (sense == Sense::Greater)
        upper = &plus;
}

void to_bounds(int64_t nrows, double *constants) {
    for (int64_t i = 0; i < nrows; ++i)
        constants[i] = 0.0 - constants[i]; // so that no bound becomes -0.0
}

} // namespace tarvopy::modelapi
