// copy.cpp: a model written into another one, part by part and in bulk.
//
// Terms go through the same doors as those of any caller, which costs a check of each and keeps one truth of what the
// stored form is; ids are turned into positions on the way. Sides and bounds are written over what these doors made of
// neutral ones: attributes may have brought them to values that no new element is let in with.
#include "copy.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

namespace store {

namespace {

// The names that the elements in the model have now, where they are not those that the copy's have by default.
class NameList {
  public:
    NameList(const Registry &ids, const Names &names) {
        if (ids.identity() && !names.any())
            return;
        offset_.reserve(static_cast<size_t>(ids.committed()) + 1);
        offset_.push_back(0);
        for (int32_t s = 0; s < ids.committed(); s++) {
            names.append(ids.idat(s), text_);
            offset_.push_back(static_cast<int64_t>(text_.size()));
        }
        list_.form = TRV_NAMES_LIST;
        list_.text = text_.data();
        list_.offset = offset_.data();
    }
    const TRVnames *get() const { return list_.form == TRV_NAMES_LIST ? &list_ : nullptr; }

  private:
    std::string text_;
    std::vector<int64_t> offset_;
    TRVnames list_{};
};

// Ids as positions; variables that are in the model all have one.
Buffer<int32_t> positions(const Registry &ids, int64_t n, const int32_t *var) {
    Buffer<int32_t> out;
    int32_t *to = out.room(n);
    for (int64_t k = 0; k < n; k++)
        to[k] = ids.slot(var[k]);
    out.grow(n);
    return out;
}

template <class T> void overwrite(Buffer<T> &to, const Buffer<T> &from, int64_t n) {
    moveterms(to.data(), from.data(), static_cast<size_t>(n));
}

constexpr double kNone = INFINITY, kMinusNone = -INFINITY, kZero = 0.0;

void copycolumns(const Columns &from, Columns &to) {
    const int32_t n = from.ids.committed();
    const NameList names(from.ids, from.names);
    to.add(n, &kMinusNone, 0, &kNone, 0, &kZero, 0, "C", 0, names.get());
    to.lb.assign(from.lb, n);
    to.ub.assign(from.ub, n);
    overwrite(to.obj, from.obj, n);
    overwrite(to.vtype, from.vtype, n);
    const size_t given = std::min(from.start.size(), static_cast<size_t>(n));
    moveterms(to.start.room(given), from.start.data(), given);
    to.start.grow(given);
}

// Chunk by chunk, since one block takes no more than 2^31-1 terms.
void copychunk(const TRVmodel &from, TRVmodel &to, const Chunk &chunk) {
    const int32_t nrows = std::min(chunk.nrows, from.rows.ids.committed() - chunk.first);
    if (nrows <= 0)
        return;
    TRVrows block = to.rows.open(nrows, chunk.nnz);
    int64_t n = 0;
    block.ptr[0] = 0;
    for (int32_t i = 0; i < nrows; i++) {
        const Row row = chunk.row(i);
        for (int64_t k = 0; k < row.n; k++) {
            block.var[n] = from.columns.ids.slot(row.var[k]);
            block.coef[n++] = row.coef[k];
        }
        block.ptr[i + 1] = n;
    }
    to.rows.commit(to.columns, &kMinusNone, 0, &kNone, 0, nullptr);
}

void copyrows(const TRVmodel &from, TRVmodel &to) {
    for (const Chunk &chunk : from.rows.chunks())
        copychunk(from, to, chunk);
    const int32_t n = from.rows.ids.committed();
    to.rows.names.add(0, n, NameList(from.rows.ids, from.rows.names).get());
    to.rows.lower.assign(from.rows.lower, n);
    to.rows.upper.assign(from.rows.upper, n);
    overwrite(to.rows.sense, from.rows.sense, n);
}

void copyqrows(const TRVmodel &from, TRVmodel &to) {
    const int32_t n = from.qrows.ids.committed();
    if (n == 0)
        return;
    const Registry &ids = from.columns.ids;
    const TRVqrows view = from.qrows.view(0);
    const Buffer<int32_t> var = positions(ids, view.ptr[n], view.var), var1 = positions(ids, view.qptr[n], view.var1),
                          var2 = positions(ids, view.qptr[n], view.var2);
    const TRVqrows rows{view.ptr, var.data(), view.coef, view.qptr, var1.data(), var2.data(), view.qcoef};
    const NameList names(from.qrows.ids, from.qrows.names);
    to.qrows.add(to.columns, n, rows, "<", 0, &kNone, 0, names.get());
    overwrite(to.qrows.sense, from.qrows.sense, n);
    overwrite(to.qrows.rhs, from.qrows.rhs, n);
}

Buffer<int32_t> copiedcodes(const Registry &ids, int64_t n, const int32_t *code) {
    Buffer<int32_t> out;
    int32_t *to = out.room(n);
    for (int64_t k = 0; k < n; k++)
        to[k] = code[k] < 0 ? code[k] : ids.slot(code[k]);
    out.grow(n);
    return out;
}

void copynlrows(const TRVmodel &from, TRVmodel &to) {
    const int32_t n = from.nlrows.ids.committed();
    if (n == 0)
        return;
    TRVnlrows rows = from.nlrows.all();
    const Buffer<int32_t> var = positions(from.columns.ids, rows.ptr[n], rows.var),
                          code = copiedcodes(from.columns.ids, rows.codeptr[n], rows.code);
    rows.var = var.data();
    rows.code = code.data();
    const NameList names(from.nlrows.ids, from.nlrows.names);
    to.nlrows.add(to.columns, to.uses, n, rows, &kMinusNone, 0, &kNone, 0, names.get());
    overwrite(to.nlrows.lower, from.nlrows.lower, n);
    overwrite(to.nlrows.upper, from.nlrows.upper, n);
}

// Obj comes with the columns, later: replacing the objective sets it to 0.
void copyobjective(const TRVmodel &from, TRVmodel &to) {
    const Registry &ids = from.columns.ids;
    const QuadTerms &terms = from.qobjective.terms();
    const Buffer<int32_t> var1 = positions(ids, terms.size(), terms.var1.data()),
                          var2 = positions(ids, terms.size(), terms.var2.data());
    TRVnltape tape = from.nlobjective.view();
    const Buffer<int32_t> code = copiedcodes(ids, tape.ncodes, tape.code);
    tape.code = code.data();
    to.setobjective(0, nullptr, nullptr,
                    sortedpairs(to.columns.ids, terms.size(), var1.data(), var2.data(), terms.coef.data()),
                    tape.ncodes ? NlObjective(to.columns, tape) : NlObjective(), from.objconstant, from.sense);
    overwrite(to.columns.obj, from.columns.obj, from.columns.ids.committed());
}

} // namespace

void copymodel(TRVmodel &from, TRVmodel &to) {
    from.purge();
    to.name = from.name;
    copycolumns(from.columns, to.columns);
    copyobjective(from, to);
    copyrows(from, to);
    copyqrows(from, to);
    copynlrows(from, to);
    to.update();
}

void relaxvariables(Columns &columns) {
    for (int32_t v = 0; v < columns.ids.slots(); v++) {
        if (columns.vtype[v] == 'S') {
            columns.lb.set(v, std::min(columns.lb[v], 0.0));
            columns.ub.set(v, std::max(columns.ub[v], 0.0));
        }
        columns.vtype[v] = 'C';
    }
}

namespace {

bool nearerzero(double x, double lb, double ub) {
    if (lb > 0.0)
        return x < lb / 2.0;
    return ub < 0.0 && x > ub / 2.0;
}

} // namespace

void fixvariables(Columns &columns, const double *x) {
    for (int32_t v = 0; v < columns.ids.slots(); v++) {
        const char type = columns.vtype[v];
        const bool integral = type == 'I' || type == 'B';
        if (integral || (type == 'S' && nearerzero(x[v], columns.lb[v], columns.ub[v]))) {
            const double value = integral ? std::round(x[v]) + 0.0 : 0.0; // no -0.0
            columns.lb.set(v, value);
            columns.ub.set(v, value);
        }
        columns.vtype[v] = 'C';
    }
}

} // namespace store
