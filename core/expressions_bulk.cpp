// Linear and quadratic expressions in bulk: one object per row of CSR arrays.
//
// Costs: 30 to 100 ns (all coefficients different, variables at random) and 16 bytes a term for the list entries, and a
// float object (32 bytes) for each coefficient value that is not in the cache; 190 bytes a row. Variables are made once
// per id and shared. Quadratic ones: 24 bytes a term, 250 a row; 10 to 40 ns a term more.
#include "model_handle.h"
#include "quadexpr.h"
#include "scalars.h"

#include <algorithm>
#include <bit>
#include <vector>

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

struct Coefficients {
    const double *values; // NULL: `shared` each
    Ref shared;
    FloatCache cache;
    Coefficients(const double *coef, double scale, int64_t terms)
        : values(coef), shared(scale == 1.0 ? Ref::borrow(state.one) : check(PyFloat_FromDouble(scale))),
          cache(coef ? terms : 0) {}

    Ref list(int64_t begin, int64_t size) {
        Ref list = untracked_list(size);
        for (int64_t i = 0; i < size; ++i)
            PyList_SET_ITEM(list.get(), i, values ? cache.get(values[begin + i]) : Py_NewRef(shared.get()));
        return list;
    }
};

// The variables of all rows, one after the other, looked up in blocks: with thousands of look-ups at a time the tables'
// memory can be asked for ahead.
class Variables {
  public:
    Variables(ModelObject *model, const int32_t *ids, int64_t terms) : model_(model), ids_(ids), left_(terms) {}
    Variables(const Variables &) = delete;
    ~Variables() {
        while (at_ < block_.size())
            Py_DECREF(block_[at_++]);
    }

    Ref list(int64_t size) { // of the next `size` ids
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
        scalars_of(model_, TRV_VAR, size, ids_ + done_, 1, next.data());
        block_ = std::move(next);
        at_ = 0;
        done_ += size;
        left_ -= size;
    }

    ModelObject *model_;
    const int32_t *ids_;
    int64_t done_ = 0, left_;
    std::vector<PyObject *> block_; // references not handed out yet from at_ on
    size_t at_ = 0;
};

// out[row] = make(row, its first term, its size); on failure no reference is kept.
template <class Make> void make_rows(int64_t nrows, const int64_t *ptr, PyObject **out, Make make) {
    fill_slots(out, nrows, [&](int64_t row) { return make(row, ptr[row] - ptr[0], ptr[row + 1] - ptr[row]); });
}

} // namespace

void make_linexprs(ModelObject *model, int64_t nrows, const int64_t *ptr, const int32_t *ids, const double *coef,
                   double scale, const double *constants, PyObject **out) {
    int64_t terms = ptr[nrows] - ptr[0];
    Coefficients coefficients(coef, scale, terms);
    Variables variables(model, ids, terms);
    make_rows(nrows, ptr, out, [&](int64_t row, int64_t begin, int64_t size) {
        Ref coeffs = coefficients.list(begin, size), vars = variables.list(size);
        return make_linexpr(constants ? constants[row] : 0.0, std::move(coeffs), std::move(vars));
    });
}

void make_quadexprs(ModelObject *model, int64_t nrows, const int64_t *ptr, const int32_t *ids1, const int32_t *ids2,
                    const double *coef, double scale, PyObject **out) {
    int64_t terms = ptr[nrows] - ptr[0];
    Coefficients coefficients(coef, scale, terms);
    Variables first(model, ids1, terms), second(model, ids2, terms);
    make_rows(nrows, ptr, out, [&](int64_t, int64_t begin, int64_t size) {
        Ref coeffs = coefficients.list(begin, size), vars1 = first.list(size), vars2 = second.list(size);
        return make_quadexpr(Ref(), std::move(coeffs), std::move(vars1), std::move(vars2));
    });
}

} // namespace tarvopy::core
