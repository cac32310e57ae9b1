// Blocks of rows on their way from an expression into the store.
//
//   Rows rows(lhs, rhs);                               lhs - rhs, broadcast: terms + constant for each row
//   double *bounds = rows.write_into(store, side);     the constants, where the store will have this side
//   int32_t first = rows.commit(...);                  ids first, first + 1, ...
//   QuadRows quad(lhs, rhs);                           the same where a side is quadratic: written beside the store,
//   quad.write();  quad.commit(store, ...);            which copies once
//   NonlinearRows nonlinear(lhs, rhs);                 the same where a side is nonlinear: linear terms and tapes
#pragma once

#include "arguments.h"
#include "sides.h"

#include <memory>

namespace tarvopy::modelapi {

// Arrays on their way into the store, in memory that the next block of rows uses again; not cleared.
struct Freed {
    void operator()(void *memory) const { TRVfree(memory); }
};
template <class T> using Scratch = std::unique_ptr<T[], Freed>;

// At least one entry, so that the pointer is one for zero rows too.
template <class T> Scratch<T> scratch(int64_t n) {
    auto *memory = static_cast<T *>(TRVmalloc(sizeof(T) * (static_cast<size_t>(n) + 1)));
    if (!memory)
        throw std::bad_alloc();
    return Scratch<T>(memory);
}

enum class Side { Lower, Upper };

class Rows {
  public:
    Rows(PyObject *lhs, PyObject *rhs);
    Rows(const Rows &) = delete;
    Rows &operator=(const Rows &) = delete;
    ~Rows();
    const RowBlock &block() const { return block_; }
    Shape shape() const { return Shape(block_.ndim, block_.shape); }

    void write(int64_t *ptr, int32_t *var, double *coef, double *constants);

    // Writes the terms into a block of the store, which this object drops unless it is committed, or holds them ready
    // for the store where they stand; returns the constants, which stand in the store's room for this side: nothing but
    // commit may be called of the store until then.
    double *write_into(TRVmodel *store, Side side);
    int32_t commit(const double *lower, int lowerstep, const double *upper, int upperstep, const TRVnames *names);

  private:
    RowBlock block_{};
    TRVsharedrows shared_{};
    TRVmodel *store_ = nullptr;
};

class QuadRows {
  public:
    QuadRows(PyObject *lhs, PyObject *rhs);
    QuadRows(const QuadRows &) = delete;
    QuadRows &operator=(const QuadRows &) = delete;
    ~QuadRows() { matrix().quad_close(&block_); }
    const QuadBlock &block() const { return block_; }
    Shape shape() const { return Shape(block_.ndim, block_.shape); }

    void write();
    // After write(): constants[i] belongs to row i, and may be turned into its right-hand side in place.
    double *constants() const { return constants_.get(); }
    int32_t commit(TRVmodel *store, Sense sense, const TRVnames *names) const;
    void commit_objective(TRVmodel *store, int sense) const;

  private:
    QuadBlock block_{};
    Scratch<int64_t> ptr_, qptr_;
    Scratch<int32_t> var_, var1_, var2_;
    Scratch<double> coef_, qcoef_, constants_;
};

class NonlinearRows {
  public:
    NonlinearRows(PyObject *lhs, PyObject *rhs);
    NonlinearRows(const NonlinearRows &) = delete;
    NonlinearRows &operator=(const NonlinearRows &) = delete;
    ~NonlinearRows() { matrix().nonlinear_close(&block_); }
    const NonlinearBlock &block() const { return block_; }
    Shape shape() const { return Shape(block_.ndim, block_.shape); }

    // constants[i] belongs to row i, and may be turned into its side in place.
    double *constants() const { return block_.constants; }
    int32_t commit(TRVmodel *store, const double *lower, int lowerstep, const double *upper, int upperstep,
                   const TRVnames *names) const;
    void commit_objective(TRVmodel *store, int sense) const;

  private:
    NonlinearBlock block_{};
};

// The sides of rows whose bounds stand in one array: where a sense has no side, one infinite number for all.
struct OneSided {
    const double *lower, *upper;
    int lowerstep, upperstep;
    OneSided(Sense sense, const double *bounds);
};

// The constants of a block become bounds in place. The store, which knows the names, refuses those that can never hold.
void to_bounds(int64_t nrows, double *constants);

} // namespace tarvopy::modelapi
