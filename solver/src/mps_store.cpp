// From a read MPS file into the model store, in bulk: one call for all variables, one for all rows.
#include <limits>
#include <utility>

#include "file_error.h"
#include "mps_model.h"

namespace trv {
namespace {

// The objective is a row of the file, not of the model.
void drop_objective(MpsModel &source) {
    const std::int32_t objective = source.objective;
    if (objective < 0) {
        return;
    }
    source.rows.erase(objective);
    source.lower.erase(source.lower.begin() + objective);
    source.upper.erase(source.upper.begin() + objective);
    for (std::int32_t &row : source.entry_row) {
        row -= row > objective;
    }
}

// The file brings the matrix by columns, the store takes it by rows: counted, placed, and every row is in column order.
void fill_rows(const MpsModel &source, std::int32_t first, const TRVrows &block) {
    const auto nrows = static_cast<std::size_t>(source.rows.size());
    std::fill(block.ptr, block.ptr + nrows + 1, 0);
    for (const std::int32_t row : source.entry_row) {
        ++block.ptr[row + 1];
    }
    std::vector<std::int64_t> next(nrows);
    for (std::size_t i = 0; i < nrows; ++i) {
        next[i] = block.ptr[i];
        block.ptr[i + 1] += block.ptr[i];
    }
    for (std::size_t column = 0; column < source.start.size(); ++column) {
        const std::size_t last = column + 1 < source.start.size() ? static_cast<std::size_t>(source.start[column + 1])
                                                                  : source.entry_row.size();
        for (auto k = static_cast<std::size_t>(source.start[column]); k < last; ++k) {
            const auto place = next[static_cast<std::size_t>(source.entry_row[k])]++;
            block.var[place] = first + static_cast<std::int32_t>(column);
            block.coef[place] = source.entry_value[k];
        }
    }
}

void add_rows(TRVmodel *target, MpsModel &source, std::int32_t first) {
    const std::int32_t nrows = source.rows.size();
    if (nrows == 0) {
        return;
    }
    TRVrows block;
    check(target, TRVopenrows(target, nrows, static_cast<std::int64_t>(source.entry_row.size()), &block));
    try {
        fill_rows(source, first, block);
    } catch (...) {
        TRVdroprows(target);
        throw;
    }
    std::vector<std::int32_t>().swap(source.entry_row);
    std::vector<double>().swap(source.entry_value);
    const TRVnames names = source.rows.list();
    std::int32_t row;
    check(target, TRVcommitrows(target, source.lower.data(), 1, source.upper.data(), 1, &names, &row));
}

void add_all(TRVmodel *target, MpsModel &source) {
    const std::int32_t nvars = source.columns.size();
    std::int32_t first = 0;
    if (nvars > 0) {
        const TRVnames names = source.columns.list();
        check(target, TRVaddvars(target, nvars, source.lb.data(), 1, source.ub.data(), 1, source.cost.data(), 1,
                                 source.vtype.data(), 1, &names, &first));
    }
    try {
        add_rows(target, source, first);
    } catch (...) {
        std::vector<std::int32_t> added(static_cast<std::size_t>(nvars));
        for (std::int32_t i = 0; i < nvars; ++i) {
            added[static_cast<std::size_t>(i)] = first + i;
        }
        TRVremove(target, TRV_VAR, nvars, added.data());
        throw;
    }
}

} // namespace

// All was checked while reading, so what can still fail is memory; the pending variables are taken back then.
void store_mps(TRVmodel *target, MpsModel source) {
    drop_objective(source);
    add_all(target, source);
    check(target, TRVsetdblattr(target, "ObjConstant", source.constant));
    check(target, TRVsetintattr(target, "ModelSense", source.sense));
    check(target, TRVsetstrattr(target, "ModelName", source.name.c_str()));
    check(target, TRVupdatemodel(target));
}

} // namespace trv
