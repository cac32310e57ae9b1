// All parts of a model by position, for the writers (see written_model.h).
#include "written_model.h"

#include <cmath>

#include "file_error.h"
#include "stop.h"

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
      rows(model, TRV_CONSTR, data.nrows), qrows(model, TRV_QCONSTR, data.nqrows),
      gens(model, TRV_GENCONSTR, data.ngens) {
    refuse_nonlinear();
    read_quadratic(model);
    try {
        read_matrices(model, by_columns);
        read_general();
    } catch (...) {
        free_matrices();
        throw;
    }
}

WrittenModel::~WrittenModel() {
    free_matrices();
}

void WrittenModel::free_matrices() {
    TRVfreematrix(&matrix);
    TRVfreeqmatrix(&qmatrix);
    TRVfreegenmatrix(&genmatrix);
}

void WrittenModel::read_matrices(TRVmodel *model, int by_columns) {
    check(model, TRVgetmatrix(model, by_columns, &matrix));
    check_stop();
    if (data.nqrows > 0) {
        check(model, TRVgetqmatrix(model, &qmatrix));
    }
    if (data.ngens > 0) {
        check(model, TRVgetgenmatrix(model, &genmatrix));
    }
}

void WrittenModel::read_general() {
    for (std::int32_t g = 0; g < data.ngens; ++g) {
        check_stop_at(g);
        switch (genmatrix.type[g]) {
        case TRV_GEN_INDICATOR:
            add_indicator(g);
            break;
        case TRV_GEN_SOS1:
        case TRV_GEN_SOS2:
            add_set(g);
            break;
        default:
            throw FileError{
                TRV_ERROR_UNSUPPORTED,
                joined("the general constraint ", shown(gens[g]),
                       " is neither an indicator nor a special ordered set: MPS and LP files cannot say it")};
        }
    }
}

// A constant among the terms goes to the sides, as it does when rows are read.
void WrittenModel::add_indicator(std::int32_t gen) {
    const std::int64_t condition = genmatrix.argptr[gen];
    const double *numbers = genmatrix.data + genmatrix.dataptr[gen];
    const double constant = genmatrix.constant[condition + 1];
    const auto shifted = [&](double side) { return constant == 0 ? side : side - constant; };
    indicators.push_back({gen, genmatrix.index[genmatrix.ptr[condition]], numbers[0], shifted(numbers[1]),
                          shifted(numbers[2]), genmatrix.ptr[condition + 1], genmatrix.ptr[condition + 2]});
}

void WrittenModel::add_set(std::int32_t gen) {
    const std::int64_t first = genmatrix.argptr[gen], last = genmatrix.argptr[gen + 1];
    WrittenSet set{gen, genmatrix.type[gen] == TRV_GEN_SOS1 ? 1 : 2, {}, genmatrix.data + genmatrix.dataptr[gen]};
    for (std::int64_t a = first; a < last; ++a) {
        set.variable.push_back(genmatrix.index[genmatrix.ptr[a]]);
    }
    sets.push_back(std::move(set));
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
    gens.refuse_doubled(before, "general constraint");
    for (std::int32_t i = 0; i < qrows.size(); ++i) {
        if (rows.find(qrows[i]) >= 0) {
            throw FileError{TRV_ERROR_UNSUPPORTED,
                            joined(before, "a linear and a quadratic row are called ", shown(qrows[i]))};
        }
    }
    for (std::int32_t i = 0; i < gens.size(); ++i) {
        if (rows.find(gens[i]) >= 0 || qrows.find(gens[i]) >= 0) {
            throw FileError{TRV_ERROR_UNSUPPORTED,
                            joined(before, "a row and a general constraint are called ", shown(gens[i]))};
        }
    }
}

std::string WrittenModel::objective_name(const std::string &stem) const {
    std::string found = stem;
    for (int i = 1; rows.find(found) >= 0 || qrows.find(found) >= 0 || gens.find(found) >= 0; ++i) {
        found = stem + std::to_string(i);
    }
    return found;
}

bool is_default(double value) {
    return value == 0 && !std::signbit(value);
}

} // namespace trv
