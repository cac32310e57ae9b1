// Matrix products of numbers with arrays of variables and of expressions, as flat forms.
//
// Everything is a product of (m, k) with (k, n) matrices; stacks of matrices are the caller's loop. A dense matrix
// keeps a term for each of its entries, zeros too; a sparse one a term for each stored entry, in stored order. Nothing
// is merged.
#pragma once

#include "flat.h"

namespace flat {

// A dense matrix of any memory order; steps in elements.
struct Dense {
    const double *data;
    int64_t rows, cols, row_step, col_step;
    double at(int64_t i, int64_t j) const { return data[i * row_step + j * col_step]; }
};

// An array of variable ids, read as a matrix.
struct Ids {
    const int32_t *data;
    int64_t rows, cols, row_step, col_step;
    int32_t at(int64_t i, int64_t j) const { return data[i * row_step + j * col_step]; }
};

// Compressed rows, checked by who made it: pointers from 0 that do not decrease, columns in range.
struct Csr {
    int64_t rows = 0, cols = 0;
    Buffer<int64_t> ptr;
    Buffer<int32_t> index;
    Buffer<double> value;
    int64_t nnz() const { return rows ? ptr[rows] : 0; }
};

// Entries in any order, as they were given; checked like compressed rows.
struct Coo {
    int64_t rows = 0, cols = 0;
    Buffer<int32_t> row, col;
    Buffer<double> value;
    bool sums = false; // several entries at one place count as one
    int64_t nnz() const { return value.size(); }
};

Csr transposed(const Csr &matrix); // columns ascending in each row
Coo transposed(Coo entries);       // nothing is moved
Coo entries_of(const Csr &matrix); // in stored order
// By rows, columns ascending; of entries at one place the first stays first. Costs ten times a copy, unless the entries
// stand so already.
Csr compressed(const Coo &entries);
Csr nonzeros(const Dense &matrix); // NaN counts as a nonzero

Buffer<int32_t> row_numbers(const Csr &matrix); // the row of each entry
// Copies column numbers; false where one is negative or not below `cols`.
bool copy_columns(const int32_t *from, int64_t n, int64_t cols, int32_t *to);
bool copy_columns(const int64_t *from, int64_t n, int64_t cols, int32_t *to);

// Where the rows of a product go, so that stacks of matrices fill one summand: pieces are appended one after the other.
class RowBuilder {
  public:
    // Every row will have `width` terms.
    RowBuilder(int64_t nrows, int64_t width);
    // Rows of any length, nnz terms in all.
    RowBuilder(int64_t nrows, int64_t nnz, bool ragged);

    void dense_right(const Dense &matrix, const Ids &vars); // matrix @ vars
    void dense_left(const Ids &vars, const Dense &matrix);  // vars @ matrix
    void sparse_right(const Csr &matrix, const Ids &vars);
    void sparse_left(const Ids &vars, const Csr &columns); // columns: the matrix transposed
    Summand finish();

  private:
    void end_row();
    Summand summand_;
    int64_t row_ = 0, k_ = 0;
    int64_t *ptr_ = nullptr;
    int32_t *ids_;
    double *coef_;
};

// Row i of the result is the sum of factors[t] * (row source[t] of the summand) for t in start[i] .. start[i + 1].
Summand combined(const Summand &summand, int64_t nrows, const int64_t *start, const int64_t *source,
                 const double *factors);

// Merges equal variables within each row (the first one keeps its place) and drops zero coefficients.
Summand normalized(const Summand &summand, int32_t id_count);

} // namespace flat
