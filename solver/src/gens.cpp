// gens.cpp: general constraints come in and are taken out.
#include "gens.h"

#include "blockpointers.h"
#include "failure.h"

#include <algorithm>

namespace store {

namespace {

// A block on its way in: everything checked here, before the store changes.
class Block {
  public:
    Block(const Columns &columns, int type, const TRVgens &gens, int32_t first, const TRVnames *names)
        : argptr(blockpointers(gens.ngens, gens.argptr)), dataptr(blockpointers(gens.ngens, gens.dataptr)),
          columns_(columns), type_(type), gens_(gens), first_(first), names_(names) {
        requirepointers(gens.ngens, INT64_MAX, argptr.data());
        requirepointers(gens.ngens, INT64_MAX, dataptr.data());
        ptr = blockpointers(nargs(), gens.ptr);
        nterms_ = requireterms("terms of general constraints", ptr);
        requirepointers(nargs(), nterms_, ptr.data());
        requirepointer("variables of terms", gens.var, nterms_);
        requirepointer("coefficients", gens.coef, nterms_);
        requirepointer("data", gens.data, ndata());
    }

    Buffer<int64_t> argptr, ptr, dataptr;

    int64_t nargs() const { return argptr[gens_.ngens]; }
    int64_t nterms() const { return ptr[nargs()]; } // what tidying leaves
    int64_t ndata() const { return dataptr[gens_.ngens]; }
    int64_t termsgiven() const { return nterms_; }

    // var, coef: copies of all terms, which are tidied.
    void tidy(Marker &marker, int32_t *var, double *coef) {
        try {
            tidyterms(columns_.ids, marker, nargs(), nterms_, ptr.data(), var, coef);
        } catch (const RowFailure &failure) {
            const int64_t *from = std::upper_bound(argptr.data(), argptr.data() + gens_.ngens + 1, failure.row) - 1;
            refuse(from - argptr.data(), failure.code, argument(failure.row - *from) + ": " + failure.text);
        }
    }
    void requireconstants() const {
        if (gens_.constant)
            each([&](int64_t g, int64_t from, int64_t to) {
                for (int64_t a = from; a < to; a++)
                    if (!isfinite(gens_.constant[a]))
                        refuse(g, TRV_ERROR_INVALID_ARGUMENT,
                               "the constant of " + argument(a - from) + " is " + number(gens_.constant[a]));
            });
    }
    void requireforms(const int32_t *var, const double *coef, const double *constant, double *data) const {
        each([&](int64_t g, int64_t from, int64_t to) {
            const int64_t at = dataptr[g];
            const Gen gen{type_, to - from,       ptr.data() + from,   var,
                          coef,  constant + from, dataptr[g + 1] - at, data + at};
            const std::string why = genrefusal(columns_.ids, gen);
            if (!why.empty())
                refuse(g, TRV_ERROR_INVALID_ARGUMENT, why);
            if (type_ == TRV_GEN_INDICATOR)
                for (double *side : {data + at + 1, data + at + 2})
                    *side = normalized(*side);
        });
    }

  private:
    static std::string argument(int64_t a) { return "argument " + std::to_string(a); }

    // f(constraint, its arguments from, to)
    template <class F> void each(F f) const {
        for (int64_t g = 0; g < gens_.ngens; g++)
            f(g, argptr[g], argptr[g + 1]);
    }
    [[noreturn]] void refuse(int64_t g, int code, const std::string &why) const {
        const std::string who = calledinblock(TRV_GENCONSTR, first_, gens_.ngens, g, names_);
        fail(code, who + " (" + gentypename(type_) + "): " + why);
    }
    const Columns &columns_;
    const int type_;
    const TRVgens &gens_;
    const int32_t first_;
    const TRVnames *names_;
    int64_t nterms_ = 0;
};

} // namespace

// All is written behind what is there, and seen only when the last step that can fail has not.
int32_t Gens::add(const Columns &columns, Uses &uses, int newtype, const TRVgens &gens, const TRVnames *newnames) {
    const int64_t n = gens.ngens;
    ids.reserve(n);
    Block block(columns, newtype, gens, ids.count(), newnames);
    const int64_t nargs = block.nargs(), ndata = block.ndata(), given = block.termsgiven();
    roompointers({&argptr_, &ptr_, &dataptr_}, std::max(n, nargs));
    int32_t *var = var_.room(given);
    double *coef = coef_.room(given), *constant = constant_.room(nargs), *data = data_.room(ndata);
    moveterms(var, gens.var, given);
    moveterms(coef, gens.coef, given);
    moveterms(data, gens.data, ndata);
    std::fill_n(constant, nargs, 0.0);
    if (gens.constant)
        moveterms(constant, gens.constant, nargs);
    block.requireconstants();
    block.tidy(marker_, var, coef);
    block.requireforms(var, coef, constant, data);
    std::fill_n(type.room(n), n, newtype);
    uses.reserve(columns.ids);
    names.add(ids.count(), n, newnames);
    const int64_t nterms = block.nterms();
    uses.add(nterms, var, 1);
    type.grow(n);
    growpointers(argptr_, block.argptr);
    growpointers(ptr_, block.ptr);
    growpointers(dataptr_, block.dataptr);
    var_.grow(nterms);
    coef_.grow(nterms);
    constant_.grow(nargs);
    data_.grow(ndata);
    return ids.add(n);
}

Gen Gens::gen(int32_t slot) const {
    const int64_t arg = argptr_[slot], at = dataptr_[slot];
    return {type[slot],   argptr_[slot + 1] - arg, ptr_.data() + arg,       var_.data(),
            coef_.data(), constant_.data() + arg,  dataptr_[slot + 1] - at, data_.data() + at};
}

TRVgens Gens::view(int32_t slot) const {
    return {1,
            argptr_.data() + slot,
            ptr_.data(),
            var_.data(),
            coef_.data(),
            constant_.data(),
            dataptr_.data() + slot,
            data_.data()};
}

int32_t Gens::genwith(int32_t variable, const Buffer<int32_t> &leaving) const {
    for (int32_t i = 0; i < ids.slots(); i++) {
        const int32_t *from = var_.data() + ptr_[argptr_[i]], *to = var_.data() + ptr_[argptr_[i + 1]];
        if (std::find(from, to, variable) != to && !ids.gone(i) && !among(leaving, i))
            return i;
    }
    return -1;
}

// ---- removal and update

void Gens::adduses(Uses &uses, const Buffer<int32_t> &slots, int64_t by) const noexcept {
    for (size_t k = 0; k < slots.size(); k++) {
        const int64_t from = ptr_[argptr_[slots[k]]], to = ptr_[argptr_[slots[k] + 1]];
        uses.add(to - from, var_.data() + from, by);
    }
}

void Gens::compact() noexcept {
    if (!ids.anygone())
        return;
    int64_t args = 0, terms = 0, numbers = 0, argfrom = 0, from = 0, numberfrom = 0;
    int32_t kept = 0;
    for (int32_t i = 0; i < ids.slots(); i++) {
        const int64_t argto = argptr_[i + 1], to = ptr_[argto], numberto = dataptr_[i + 1];
        if (!ids.gone(i)) {
            moveterms(var_.data() + terms, var_.data() + from, to - from);
            moveterms(coef_.data() + terms, coef_.data() + from, to - from);
            moveterms(constant_.data() + args, constant_.data() + argfrom, argto - argfrom);
            moveterms(data_.data() + numbers, data_.data() + numberfrom, numberto - numberfrom);
            for (int64_t a = argfrom; a < argto; a++)
                ptr_[++args] = terms + ptr_[a + 1] - from;
            terms += to - from;
            numbers += numberto - numberfrom;
            argptr_[++kept] = args;
            dataptr_[kept] = numbers;
        }
        argfrom = argto;
        from = to;
        numberfrom = numberto;
    }
    argptr_.cut(kept + 1);
    dataptr_.cut(kept + 1);
    ptr_.cut(args + 1);
    var_.cut(terms);
    coef_.cut(terms);
    constant_.cut(args);
    data_.cut(numbers);
}

void Gens::update() noexcept {
    compact();
    ids.compact(type);
    ids.commit();
}

} // namespace store
