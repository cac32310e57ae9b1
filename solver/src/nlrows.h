// nlrows.h: NlRows, the nonlinear rows: sides by slot, linear terms in one piece of CSR form over ids, and one tape
// each, all tapes in one piece (see tape.h). NlObjective, the tape of the objective.
//
//   lower <= coef[k] * var[k], k in ptr[i] .. ptr[i+1]  +  tape of code[k], k in codeptr[i] .. codeptr[i+1] <= upper
#pragma once

#include "columns.h"
#include "names.h"
#include "registry.h"
#include "rows.h"
#include "tape.h"
#include "tarvo.h"
#include "uses.h"

namespace store {

struct NlRow {
    int64_t n;
    const int32_t *var;
    const double *coef;
    Tape tape;
};

class NlRows {
  public:
    Names names{'N'};
    Registry ids{TRV_NLCONSTR, names};
    Buffer<double> lower, upper; // +-INFINITY for none

    int32_t add(const Columns &columns, Uses &uses, int64_t nrows, const TRVnlrows &rows, const double *newlower,
                int lowerstep, const double *newupper, int upperstep, const TRVnames *newnames);
    // What the variables of these tapes count for, once more (1) or no longer (-1).
    void adduses(Uses &uses, const Buffer<int32_t> &slots, int64_t by) const noexcept;

    NlRow row(int32_t slot) const {
        const int64_t from = ptr_[slot];
        return {ptr_[slot + 1] - from, var_.data() + from, coef_.data() + from, tape(slot)};
    }
    Tape tape(int32_t slot) const {
        return {codeptr_[slot + 1] - codeptr_[slot], code_.data() + codeptr_[slot],
                constant_.data() + constantptr_[slot]};
    }
    TRVnlrows view(int32_t slot) const;
    // The rows in the model, of which there is one at least.
    TRVnlrows all() const;
    // The first row whose tape has the variable, neither marked as removed nor among those that leave: its slot, or -1.
    int32_t rowwith(int32_t variable, const Buffer<int32_t> &leaving) const;

    // Entries of tapes of the rows in the model.
    int64_t codes() const { return codeptr_.empty() ? 0 : codeptr_[ids.committed()]; }
    // f(slot, NlRow) for the rows in the model, in order.
    template <class F> void each(F f) const {
        for (int32_t i = 0; i < ids.committed(); i++)
            f(i, row(i));
    }

    // As in Rows.
    void variablesremoved() { stale_ = true; }
    void purge(const Columns &columns) noexcept;
    void update(const Columns &columns) noexcept;
    // What TRVgetdata points into.
    void guard(Yard *yard) {
        lower.guard(yard);
        upper.guard(yard);
    }

  private:
    void roomsides(int64_t nrows, const double *newlower, int lowerstep, const double *newupper, int upperstep,
                   const TRVnames *newnames);
    void roomlinear(const Columns &columns, const TRVnlrows &rows, Buffer<int64_t> &block);
    void roomtapes(const Columns &columns, const TRVnlrows &rows, const Buffer<int64_t> &codeblock,
                   Buffer<int64_t> &constantblock, const TRVnames *newnames);
    template <class Gone> void filterlinear(Gone gone, bool wholerows) noexcept;
    void compacttapes() noexcept;

    Buffer<int64_t> ptr_, codeptr_, constantptr_; // slots + 1, or empty
    Buffer<int32_t> var_;
    Buffer<double> coef_;
    Buffer<int32_t> code_;
    Buffer<double> constant_;
    bool stale_ = false;
    Marker marker_;
};

class NlObjective {
  public:
    NlObjective() = default;
    // Checked, and copied.
    NlObjective(const Columns &columns, const TRVnltape &tape);

    Tape tape() const { return {static_cast<int64_t>(code_.size()), code_.data(), constant_.data()}; }
    TRVnltape view() const {
        return {static_cast<int64_t>(code_.size()), code_.data(), static_cast<int64_t>(constant_.size()),
                constant_.data()};
    }
    bool equals(const NlObjective &other) const;

  private:
    Buffer<int32_t> code_;
    Buffer<double> constant_;
};

// A point by position as one by id, for tapes; 0 for variables that are not in the model (yet).
class PointById {
  public:
    PointById(const Registry &variables, const double *x, int32_t n);
    const double *data() const { return values_.data(); }

  private:
    Buffer<double> values_;
};

// Activities of the rows in the model.
void evaluate(const NlRows &nlrows, const PointById &point, double *activity);

} // namespace store
