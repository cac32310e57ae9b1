// jacobian.cpp: gradients by rows. The shares of a row's variables are summed in an array by position; a second one
// says where in the row an entry stands, so that a row costs its own terms and no more.
#include "jacobian.h"

#include "failure.h"

namespace store {

namespace {

class MakingRows {
  public:
    MakingRows(const TRVmodel &model, const double *x)
        : model_(model), x_(x), point_(model.columns.ids, x, model.columns.ids.committed()), run_(point_.data()) {
        place_.pad(model.columns.ids.committed(), -1);
        start_.reserve(static_cast<size_t>(model.nlrows.ids.committed()) + 2);
        start_.push(0);
    }

    TRVmatrix make() {
        model_.nlrows.each([&](int32_t, const NlRow &row) {
            for (int64_t k = 0; k < row.n; k++)
                addbyid(row.var[k], row.coef[k]);
            addtape(row.tape);
            endrow();
        });
        addobjective();
        const int64_t nrows = static_cast<int64_t>(start_.size()) - 1, nnz = start_[nrows];
        index_.room(1);
        value_.room(1);
        return {nrows, nnz, start_.release(), index_.release(), value_.release()};
    }

  private:
    void addobjective() {
        const Columns &columns = model_.columns;
        for (int32_t v = 0; v < columns.ids.committed(); v++)
            if (columns.obj[v] != 0.0)
                add(v, columns.obj[v]);
        model_.qobjective.each(columns, [&](int32_t i, int32_t j, double coef) {
            add(i, coef * x_[j]);
            add(j, coef * x_[i]);
        });
        addtape(model_.nlobjective.tape());
        endrow();
    }
    void addtape(const Tape &tape) {
        run_.gradient(tape, [&](int32_t id, double share) { addbyid(id, share); });
    }
    // A pending variable is no column yet.
    void addbyid(int32_t id, double share) {
        const int32_t v = model_.columns.ids.position(id);
        if (v >= 0)
            add(v, share);
    }
    void add(int32_t v, double share) {
        if (place_[v] >= 0) {
            value_[place_[v]] += share;
            return;
        }
        if (index_.size() >= INT32_MAX)
            fail(TRV_ERROR_SIZE_LIMIT, "the Jacobian has more than 2147483647 entries");
        place_[v] = static_cast<int32_t>(index_.size());
        index_.push(v);
        value_.push(share);
    }
    void endrow() {
        for (size_t k = start_[start_.size() - 1]; k < index_.size(); k++)
            place_[index_[k]] = -1;
        start_.push(static_cast<int32_t>(index_.size()));
    }

    const TRVmodel &model_;
    const double *x_;
    PointById point_;
    TapeRun run_;
    Buffer<int32_t> place_; // by position of variable, -1 where the row has none yet
    Buffer<int32_t> start_, index_;
    Buffer<double> value_;
};

} // namespace

TRVmatrix nonlinearjacobian(TRVmodel &model, const double *x) {
    model.purge();
    return MakingRows(model, x).make();
}

} // namespace store
