// All parts of a model by position, for the writers (see written_model.h).
#include "written_model.h"

#include <cmath>

#include "file_error.h"

namespace trv {
namespace {

TRVdata data_of(TRVmodel *model) {
    TRVdata data;
    check(model, TRVupdatemodel(model));
    check(model, TRVgetdata(model, &data));
    return data;
}

std::string name_of(TRVmodel *model) {
    const char *name;
    check(model, TRVgetstrattr(model, "ModelName", &name));
    return name;
}

std::vector<std::int32_t> positions_of(TRVmodel *model, std::int64_t count, const std::int32_t *ids) {
    std::vector<std::int32_t> positions(static_cast<std::size_t>(count));
    TRVpositions(model, TRV_VAR, count, ids, 0, positions.data());
    return positions;
}

} // namespace

WrittenModel::WrittenModel(TRVmodel *model, int by_columns)
    : data(data_of(model)), name(name_of(model)), columns(model, TRV_VAR, data.nvars),
      rows(model, TRV_CONSTR, data.nrows), qrows(model, TRV_QCONSTR, data.nqrows) {
    refuse_nonlinear();
    read_quadratic(model);
    check(model, TRVgetmatrix(model, by_columns, &matrix));
    if (data.nqrows > 0) {
        const int code = TRVgetqmatrix(model, &qmatrix);
        if (code != TRV_OK) {
            TRVfreematrix(&matrix);
        }
        check(model, code);
    }
}

WrittenModel::~WrittenModel() {
    TRVfreematrix(&matrix);
    if (data.nqrows > 0) {
        TRVfreeqmatrix(&qmatrix);
    }
}

void WrittenModel::refuse_nonlinear() const {
    if (data.nnlrows > 0) {
        throw FileError{TRV_ERROR_UNSUPPORTED,
                        joined("the model has nonlinear constraints (", std::to_string(data.nnlrows),
                               "), which MPS and LP files cannot say")};
    }
    if (data.nnlobj > 0) {
        throw FileError{TRV_ERROR_UNSUPPORTED,
                        "the model has a nonlinear objective, which MPS and LP files cannot say"};
    }
    if (data.ngens > 0) {
        throw FileError{TRV_ERROR_UNSUPPORTED, joined("the model has general constraints (", std::to_string(data.ngens),
                                                      "), which MPS and LP files cannot say")};
    }
}

void WrittenModel::read_quadratic(TRVmodel *model) {
    if (data.nqobj == 0) {
        return;
    }
    std::int64_t count;
    const std::int32_t *first, *second;
    const double *value;
    check(model, TRVgetqobjective(model, &count, &first, &second, &value));
    qobjective.first = positions_of(model, count, first);
    qobjective.second = positions_of(model, count, second);
    qobjective.value.assign(value, value + count);
}

void WrittenModel::refuse_doubled(const std::string &before) {
    columns.refuse_doubled(before, "variable");
    rows.refuse_doubled(before, "row");
    qrows.refuse_doubled(before, "row");
    for (std::int32_t i = 0; i < qrows.size(); ++i) {
        if (rows.find(qrows[i]) >= 0) {
            throw FileError{TRV_ERROR_UNSUPPORTED,
                            joined(before, "a linear and a quadratic row are called ", shown(qrows[i]))};
        }
    }
}

std::string WrittenModel::objective_name(const std::string &stem) const {
    std::string found = stem;
    for (int i = 1; rows.find(found) >= 0 || qrows.find(found) >= 0; ++i) {
        found = stem + std::to_string(i);
    }
    return found;
}

bool is_default(double value) {
    return value == 0 && !std::signbit(value);
}

} // namespace trv
