// gens.h: Gens, the general constraints: types by slot, the arguments of each as linear expressions in one piece of CSR
// form over ids, and its numbers.
//
//   constraint g    arguments argptr[g] .. argptr[g+1], numbers data[dataptr[g]] .. data[dataptr[g+1]]
//   argument a      constant[a] + coef[k] * var[k], k in ptr[a] .. ptr[a+1]
#pragma once

#include "columns.h"
#include "names.h"
#include "registry.h"
#include "rows.h"
#include "tarvo.h"
#include "uses.h"

namespace store {

// One constraint; ptr has nargs + 1 entries, which count from the beginning of var and coef.
struct Gen {
    int type;
    int64_t nargs;
    const int64_t *ptr;
    const int32_t *var;
    const double *coef, *constant;
    int64_t ndata;
    const double *data;

    int64_t terms(int64_t arg) const { return ptr[arg + 1] - ptr[arg]; }
    // Whether the argument is one variable and nothing else.
    bool isvariable(int64_t arg) const { return terms(arg) == 1 && coef[ptr[arg]] == 1.0 && constant[arg] == 0.0; }
    // The id of that variable.
    int32_t variable(int64_t arg) const { return var[ptr[arg]]; }
};

// "MAX", "INDICATOR", ...
const char *gentypename(int type);
// What is wrong with the number of arguments and of numbers, with the form of an argument or with the numbers; empty
// where nothing is. The terms must be tidy.
std::string genrefusal(const Registry &variables, const Gen &gen);

class Gens {
  public:
    Names names{'G'};
    Registry ids{TRV_GENCONSTR, names};
    Buffer<int32_t> type;

    int32_t add(const Columns &columns, Uses &uses, int newtype, const TRVgens &gens, const TRVnames *newnames);
    // What the variables of these constraints count for, once more (1) or no longer (-1).
    void adduses(Uses &uses, const Buffer<int32_t> &slots, int64_t by) const noexcept;

    Gen gen(int32_t slot) const;
    TRVgens view(int32_t slot) const;
    // The first constraint that has the variable, neither marked as removed nor among those that leave: its slot, or
    // -1.
    int32_t genwith(int32_t variable, const Buffer<int32_t> &leaving) const;
    void update() noexcept;

    // f(slot, Gen) for the constraints in the model, in order.
    template <class F> void each(F f) const {
        for (int32_t i = 0; i < ids.committed(); i++)
            f(i, gen(i));
    }

  private:
    void compact() noexcept;

    Buffer<int64_t> argptr_, ptr_, dataptr_; // slots + 1, arguments + 1, slots + 1, or empty
    Buffer<int32_t> var_;
    Buffer<double> coef_, constant_, data_;
    Marker marker_;
};

} // namespace store
