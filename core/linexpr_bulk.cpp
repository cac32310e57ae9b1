// Linear expressions in bulk: one object per row of CSR arrays.
//
// Costs: 30 to 100 ns (all coefficients different, variables at random) and 16 bytes a term for the list entries, and a
// float object (32 bytes) for each coefficient value that is not in the cache; 190 bytes a row. Variables are made once
// per id and shared.
#include "linexpr.h"

#include "model_handle.h"
#include "scalars.h"

#include <algorithm>
#include <bit>

namespace tarvopy::core {

namespace {

// Float objects by bit pattern, direct mapped, so that repeated coefficients share one object. Pointers are borrowed
// from the lists that are being built, which nobody can change during the call.
class FloatCache {
  public:
    explicit FloatCache(int64_t terms) : slots_(terms >= 64 ? table_size : 1) {}

    PyObject *get(double value) { // new reference
        auto bits = std::bit_cast<uint64_t>(value);
        Slot &slot = slots_[slots_.size() == 1 ? 0 : (bits * 0x9e3779b97f4a7c15u) >> shift];
        if (slot.object && slot.bits == bits)
            return Py_NewRef(slot.object);
        PyObject *made = PyFloat_FromDouble(value);
        if (!made)
            throw PythonError{};
        slot = {bits, made};
        return made;
    }

  private:
    static constexpr int shift = 64 - 10;
    static constexpr size_t table_size = 1u << 10;
    struct Slot {
        uint64_t bits = 0;
        PyObject *object = nullptr;
    };
    std::vector<Slot> slots_;
};

struct Rows {
    ModelObject *model;
    const int64_t *ptr;
    const int32_t *ids;
    const double *coef; // NULL: `scale` each
    const double *constants;
};

Ref coefficients(const Rows &rows, int64_t row, FloatCache &cache, PyObject *scale) {
    int64_t begin = rows.ptr[row] - rows.ptr[0], size = rows.ptr[row + 1] - rows.ptr[row];
    Ref list = untracked_list(size);
    for (int64_t i = 0; i < size; ++i)
        PyList_SET_ITEM(list.get(), i, rows.coef ? cache.get(rows.coef[begin + i]) : Py_NewRef(scale));
    return list;
}

// The variables of all rows, one after the other, looked up in blocks: with thousands of look-ups at a time the tables'
// memory can be asked for ahead.
class Variables {
  public:
    Variables(const Rows &rows, int64_t terms) : rows_(rows), left_(terms) {}
    Variables(const Variables &) = delete;
    ~Variables() {
        while (at_ < block_.size())
            Py_DECREF(block_[at_++]);
    }

    Ref list(int64_t row) {
        int64_t size = rows_.ptr[row + 1] - rows_.ptr[row];
        Ref list = untracked_list(size);
        for (int64_t i = 0; i < size; ++i) {
            if (at_ == block_.size())
                refill();
            PyList_SET_ITEM(list.get(), i, block_[at_++]);
        }
        return list;
    }

  private:
    static constexpr int64_t block_size = 4096;

    void refill() {
        auto size = std::min(block_size, left_);
        std::vector<PyObject *> next(static_cast<size_t>(size));
        scalars_of(rows_.model, TRV_VAR, size, rows_.ids + done_, 1, next.data());
        block_ = std::move(next);
        at_ = 0;
        done_ += size;
        left_ -= size;
    }

    const Rows &rows_;
    int64_t done_ = 0, left_;
    std::vector<PyObject *> block_; // references not handed out yet from at_ on
    size_t at_ = 0;
};

} // namespace

void make_linexprs(ModelObject *model, int64_t nrows, const int64_t *ptr, const int32_t *ids, const double *coef,
                   double scale, const double *constants, PyObject **out) {
    Rows rows{model, ptr, ids, coef, constants};
    int64_t terms = ptr[nrows] - ptr[0];
    FloatCache cache(coef ? terms : 0);
    Variables variables(rows, terms);
    Ref shared = scale == 1.0 ? Ref::borrow(state.one) : check(PyFloat_FromDouble(scale));
    int64_t made = 0;
    try {
        for (; made < nrows; ++made) {
            Ref coeffs = coefficients(rows, made, cache, shared.get());
            Ref vars = variables.list(made);
            out[made] = make_linexpr(constants ? constants[made] : 0.0, std::move(coeffs), std::move(vars)).release();
        }
    } catch (...) {
        while (made > 0)
            Py_DECREF(out[--made]);
        throw;
    }
}

} // namespace tarvopy::core
