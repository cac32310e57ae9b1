// A model as the writers of model files need it: all by position, with names.
//
//     WrittenModel model(store, 1);          1: the matrix by columns, 0: by rows. Updates the model first
//     model.rows[3]                          "cap[3]"
//     model.refuse_doubled("MPS: ")          linear and quadratic rows share one list of names in every format
#ifndef TARVO_WRITTEN_MODEL_H
#define TARVO_WRITTEN_MODEL_H

#include <string>

#include "file_model.h"
#include "model_names.h"

namespace trv {

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
    ModelNames columns, rows, qrows;
    TRVmatrix matrix{};
    TRVqmatrix qmatrix{};
    QuadTerms qobjective;

  private:
    void refuse_nonlinear() const;
    void read_quadratic(TRVmodel *model);
};

// -0.0 is not nothing: it is written, and comes back.
bool is_default(double value);

} // namespace trv
#endif
