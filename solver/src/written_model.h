// A model as the writers of model files need it: all by position, with names.
//
//     WrittenModel model(store, 1);          1: the matrix by columns, 0: by rows. Updates the model first
//     model.rows[3]                          "cap[3]"
//     model.refuse_doubled("MPS: ")          rows of all kinds and sets share one list of names
#ifndef TARVO_WRITTEN_MODEL_H
#define TARVO_WRITTEN_MODEL_H

#include <string>

#include "file_model.h"
#include "model_names.h"
#include "tarvo_engine.h"

namespace trv {

// A row that holds where the variable has the value: terms of the matrix of general constraints, from begin to end.
struct WrittenIndicator {
    std::int32_t gen, variable;
    double value, lower, upper;
    std::int64_t begin, end;
};

// Variables and weights of a set: the members begin .. end of the numbers and arguments of general constraints.
struct WrittenSet {
    std::int32_t gen;
    int type; // 1 or 2
    std::vector<std::int32_t> variable;
    const double *weight;
};

struct WrittenModel {
    WrittenModel(TRVmodel *model, int by_columns);
    ~WrittenModel();
    WrittenModel(const WrittenModel &) = delete;
    WrittenModel &operator=(const WrittenModel &) = delete;

    void refuse_doubled(const std::string &before);
    // A name for the objective that no row has: the stem, or the stem and a number.
    std::string objective_name(const std::string &stem) const;

    TRVdata data;
    std::string name;
    ModelNames columns, rows, qrows, gens;
    TRVmatrix matrix{};
    TRVqmatrix qmatrix{};
    QuadTerms qobjective;
    TRVgenmatrix genmatrix{};
    std::vector<WrittenIndicator> indicators;
    std::vector<WrittenSet> sets;

  private:
    void refuse_nonlinear() const;
    void read_matrices(TRVmodel *model, int by_columns);
    void read_general();
    void add_indicator(std::int32_t gen);
    void add_set(std::int32_t gen);
    void free_matrices();
    void read_quadratic(TRVmodel *model);
};

// -0.0 is not nothing: it is written, and comes back.
bool is_default(double value);

} // namespace trv
#endif
