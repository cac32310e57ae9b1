// nlrows.cpp: nonlinear rows come in and are taken out; the tape of the objective.
#include "nlrows.h"

#include "blockpointers.h"
#include "failure.h"

#include <algorithm>
#include <cinttypes>

namespace store {

namespace {

[[noreturn]] void refuse(int code, int32_t first, int64_t nrows, int64_t row, const TRVnames *names,
                         const std::string &why) {
    fail(code, calledinblock(TRV_NLCONSTR, first, nrows, row, names) + ": " + why);
}

// A variable that is gone is an error of its own kind.
int refusalcode(const Registry &variables, int64_t n, const int32_t *code) {
    const bool gone = std::any_of(code, code + n, [&](int32_t c) { return c >= 0 && !variables.usable(c); });
    return gone ? TRV_ERROR_NOT_IN_MODEL : TRV_ERROR_INVALID_ARGUMENT;
}

void requirelinear(const TRVnlrows &rows, const Buffer<int64_t> &block) {
    const int64_t n = requireterms("linear terms", block);
    requirepointers(static_cast<int64_t>(block.size()) - 1, n, block.data());
    requirepointer("variables of terms", rows.var, n);
    requirepointer("coefficients", rows.coef, n);
}

} // namespace

// ---- adding

void NlRows::roomsides(int64_t nrows, const double *newlower, int lowerstep, const double *newupper, int upperstep,
                       const TRVnames *newnames) {
    double *l = lower.room(nrows), *u = upper.room(nrows);
    for (int64_t i = 0; i < nrows; i++) {
        l[i] = normalized(newlower[i * lowerstep]);
        u[i] = normalized(newupper[i * upperstep]);
        const auto who = [&] { return calledinblock(TRV_NLCONSTR, ids.count(), nrows, i, newnames); };
        if (std::isnan(l[i]) || l[i] == INFINITY)
            failvalue("the lower side", who, newlower[i * lowerstep]);
        if (std::isnan(u[i]) || u[i] == -INFINITY)
            failvalue("the upper side", who, newupper[i * upperstep]);
    }
}

void NlRows::roomlinear(const Columns &columns, const TRVnlrows &rows, Buffer<int64_t> &block) {
    const int64_t nrows = static_cast<int64_t>(block.size()) - 1, n = block[nrows];
    int32_t *var = var_.room(n);
    double *coef = coef_.room(n);
    moveterms(var, rows.var, n);
    moveterms(coef, rows.coef, n);
    tidyterms(columns.ids, marker_, nrows, n, block.data(), var, coef);
}

void NlRows::roomtapes(const Columns &columns, const TRVnlrows &rows, const Buffer<int64_t> &codeblock,
                       Buffer<int64_t> &constantblock, const TRVnames *newnames) {
    const int64_t nrows = static_cast<int64_t>(codeblock.size()) - 1, n = codeblock[nrows];
    requirepointers(nrows, n, codeblock.data());
    requirecount("constants", rows.nconstants);
    requirepointer("codes", rows.code, n);
    requirepointer("constants", rows.constant, rows.nconstants);
    TapeCheck check(columns.ids);
    std::string why;
    int64_t taken = 0;
    for (int64_t i = 0; i < nrows; i++) {
        const int64_t more = check.check(codeblock[i + 1] - codeblock[i], rows.code + codeblock[i],
                                         rows.nconstants - taken, rows.constant + taken, why);
        if (more < 0)
            refuse(refusalcode(columns.ids, codeblock[i + 1] - codeblock[i], rows.code + codeblock[i]), ids.count(),
                   nrows, i, newnames, why);
        taken += more;
        constantblock[i + 1] = taken;
    }
    if (taken != rows.nconstants)
        failf(TRV_ERROR_INVALID_ARGUMENT, "the tapes take %" PRId64 " of %" PRId64 " constants", taken,
              rows.nconstants);
    moveterms(code_.room(n), rows.code, n);
    moveterms(constant_.room(taken), rows.constant, taken);
}

// All is written behind what is there, and seen only when the last step that can fail has not.
int32_t NlRows::add(const Columns &columns, Uses &uses, int64_t nrows, const TRVnlrows &rows, const double *newlower,
                    int lowerstep, const double *newupper, int upperstep, const TRVnames *newnames) {
    ids.reserve(nrows);
    roompointers({&ptr_, &codeptr_, &constantptr_}, nrows);
    Buffer<int64_t> block = blockpointers(nrows, rows.ptr), codeblock = blockpointers(nrows, rows.codeptr),
                    constantblock = blockpointers(nrows, nullptr);
    roomsides(nrows, newlower, lowerstep, newupper, upperstep, newnames);
    requirelinear(rows, block);
    namingrows(TRV_NLCONSTR, ids.count(), nrows, newnames, [&] { roomlinear(columns, rows, block); });
    roomtapes(columns, rows, codeblock, constantblock, newnames);
    uses.reserve(columns.ids);
    names.add(ids.count(), nrows, newnames);
    lower.grow(nrows);
    upper.grow(nrows);
    growpointers(ptr_, block);
    growpointers(codeptr_, codeblock);
    growpointers(constantptr_, constantblock);
    var_.grow(block[nrows]);
    coef_.grow(block[nrows]);
    code_.grow(codeblock[nrows]);
    constant_.grow(constantblock[nrows]);
    uses.add(codeblock[nrows], code_.end() - codeblock[nrows], 1);
    return ids.add(nrows);
}

TRVnlrows NlRows::view(int32_t slot) const {
    return {ptr_.data() + slot,
            var_.data(),
            coef_.data(),
            codeptr_.data() + slot,
            code_.data(),
            constantptr_[slot + 1] - constantptr_[slot],
            constant_.data() + constantptr_[slot]};
}

TRVnlrows NlRows::all() const {
    return {ptr_.data(),     var_.data(), coef_.data(), codeptr_.data(), code_.data(), constantptr_[ids.committed()],
            constant_.data()};
}

int32_t NlRows::rowwith(int32_t variable, const Buffer<int32_t> &leaving) const {
    for (int32_t i = 0; i < ids.slots(); i++) {
        const Tape one = tape(i);
        const bool has = std::find(one.code, one.code + one.n, variable) != one.code + one.n;
        if (has && !ids.gone(i) && !among(leaving, i))
            return i;
    }
    return -1;
}

// ---- removal and update

void NlRows::adduses(Uses &uses, const Buffer<int32_t> &slots, int64_t by) const noexcept {
    for (size_t k = 0; k < slots.size(); k++) {
        const Tape gone = tape(slots[k]);
        uses.add(gone.n, gone.code, by);
    }
}

// Takes out linear terms over variables that are gone, and with wholerows those of rows that are.
template <class Gone> void NlRows::filterlinear(Gone gone, bool wholerows) noexcept {
    if (ptr_.empty())
        return;
    int64_t kept = 0, from = 0;
    int32_t keptrows = 0;
    for (int32_t i = 0; i < ids.slots(); i++) {
        const int64_t to = ptr_[i + 1];
        const bool keep = !wholerows || !ids.gone(i);
        for (int64_t k = from; keep && k < to; k++) {
            if (gone(var_[k]))
                continue;
            var_[kept] = var_[k];
            coef_[kept++] = coef_[k];
        }
        keptrows += keep;
        ptr_[keptrows] = kept;
        from = to;
    }
    ptr_.cut(keptrows + 1);
    var_.cut(kept);
    coef_.cut(kept);
}

void NlRows::compacttapes() noexcept {
    if (!ids.anygone())
        return;
    int64_t codes = 0, constants = 0, from = 0, constantfrom = 0;
    int32_t keptrows = 0;
    for (int32_t i = 0; i < ids.slots(); i++) {
        const int64_t to = codeptr_[i + 1], constantto = constantptr_[i + 1];
        if (!ids.gone(i)) {
            moveterms(code_.data() + codes, code_.data() + from, to - from);
            moveterms(constant_.data() + constants, constant_.data() + constantfrom, constantto - constantfrom);
            codes += to - from;
            constants += constantto - constantfrom;
            codeptr_[++keptrows] = codes;
            constantptr_[keptrows] = constants;
        }
        from = to;
        constantfrom = constantto;
    }
    codeptr_.cut(keptrows + 1);
    constantptr_.cut(keptrows + 1);
    code_.cut(codes);
    constant_.cut(constants);
}

void NlRows::purge(const Columns &columns) noexcept {
    if (stale_)
        filterlinear([&](int32_t id) { return columns.ids.slot(id) < 0; }, false);
    stale_ = false;
}

void NlRows::update(const Columns &columns) noexcept {
    if (columns.ids.anygone() || ids.anygone())
        filterlinear([&](int32_t id) { return !columns.ids.usable(id); }, true);
    compacttapes();
    ids.compact(lower);
    ids.compact(upper);
    ids.commit();
    stale_ = false;
}

// ---- the objective

NlObjective::NlObjective(const Columns &columns, const TRVnltape &tape) {
    std::string why;
    const int64_t taken = TapeCheck(columns.ids).check(tape.ncodes, tape.code, tape.nconstants, tape.constant, why);
    if (taken < 0)
        fail(refusalcode(columns.ids, tape.ncodes, tape.code), "objective: " + why);
    if (taken != tape.nconstants)
        failf(TRV_ERROR_INVALID_ARGUMENT, "objective: the tape takes %" PRId64 " of %" PRId64 " constants", taken,
              tape.nconstants);
    moveterms(code_.room(tape.ncodes), tape.code, tape.ncodes);
    moveterms(constant_.room(taken), tape.constant, taken);
    code_.grow(tape.ncodes);
    constant_.grow(taken);
}

bool NlObjective::equals(const NlObjective &other) const {
    const auto same = [](const auto &a, const auto &b) {
        return a.size() == b.size() && std::equal(a.data(), a.data() + a.size(), b.data());
    };
    return same(code_, other.code_) && same(constant_, other.constant_);
}

// ---- points

PointById::PointById(const Registry &variables, const double *x, int32_t n) {
    if (variables.identity() && variables.count() <= n) {
        values_ = Buffer<double>::borrow(x, n);
        return;
    }
    values_.pad(variables.count(), 0.0);
    for (int32_t p = 0; p < n; p++)
        values_[variables.idat(p)] = x[p];
}

void evaluate(const NlRows &nlrows, const PointById &point, double *activity) {
    const double *x = point.data();
    TapeRun run(x);
    nlrows.each([&](int32_t r, const NlRow &row) {
        double sum = 0.0;
        for (int64_t k = 0; k < row.n; k++)
            sum += row.coef[k] * x[row.var[k]];
        activity[r] = sum + run.value(row.tape).value;
    });
}

} // namespace store
