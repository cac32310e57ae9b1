#include "flat_product.h"

#include <type_traits>

namespace flat {

Csr transposed(const Csr &matrix) {
    Csr result{matrix.cols, matrix.rows, Buffer<int64_t>(matrix.cols + 1), Buffer<int32_t>(matrix.nnz()),
               Buffer<double>(matrix.nnz())};
    int64_t *ptr = result.ptr.write();
    std::fill_n(ptr, matrix.cols + 1, 0);
    for (int64_t k = 0; k < matrix.nnz(); ++k)
        ++ptr[matrix.index[k] + 1];
    for (int64_t j = 0; j < matrix.cols; ++j)
        ptr[j + 1] += ptr[j];
    std::vector<int64_t> place(ptr, ptr + matrix.cols);
    for (int64_t i = 0; i < matrix.rows; ++i)
        for (int64_t k = matrix.ptr[i]; k < matrix.ptr[i + 1]; ++k) {
            int64_t to = place[static_cast<size_t>(matrix.index[k])]++;
            result.index.write()[to] = static_cast<int32_t>(i);
            result.value.write()[to] = matrix.value[k];
        }
    return result;
}

Csr nonzeros(const Dense &matrix) {
    Csr result{matrix.rows, matrix.cols, Buffer<int64_t>(matrix.rows + 1), {}, {}};
    int64_t *ptr = result.ptr.write();
    ptr[0] = 0;
    for (int64_t i = 0; i < matrix.rows; ++i) {
        int64_t count = 0;
        for (int64_t j = 0; j < matrix.cols; ++j)
            count += matrix.at(i, j) != 0.0;
        ptr[i + 1] = ptr[i] + count;
    }
    const bool whole_row = matrix.rows == 1 && ptr[1] == matrix.cols;
    result.index = whole_row ? Buffer<int32_t>::counting_from(0, matrix.cols) : Buffer<int32_t>(ptr[matrix.rows]);
    result.value = Buffer<double>(ptr[matrix.rows]);
    int32_t *index = result.index.write();
    double *value = result.value.write();
    for (int64_t i = 0; i < matrix.rows; ++i) {
        const bool all = ptr[i + 1] - ptr[i] == matrix.cols; // the common case, without a test for each entry
        for (int64_t j = 0; all && !whole_row && j < matrix.cols; ++j)
            *index++ = static_cast<int32_t>(j);
        for (int64_t j = 0; all && j < matrix.cols; ++j)
            *value++ = matrix.at(i, j);
        for (int64_t j = 0; !all && j < matrix.cols; ++j)
            if (double entry = matrix.at(i, j); entry != 0.0) {
                *index++ = static_cast<int32_t>(j);
                *value++ = entry;
            }
    }
    return result;
}

Buffer<int32_t> row_numbers(const Csr &matrix) {
    constexpr int64_t step = 8;
    Buffer<int32_t> numbers(matrix.nnz());
    int32_t *to = numbers.write();
    for (int64_t row = 0; row < matrix.rows; ++row) {
        int64_t k = matrix.ptr[row];
        const int64_t end = matrix.ptr[row + 1];
        // Short rows in whole steps: what they write too much, the next rows write over.
        for (; k < end && end + step <= matrix.nnz(); k += step)
            std::fill_n(to + k, step, static_cast<int32_t>(row));
        if (k < end)
            std::fill(to + k, to + end, static_cast<int32_t>(row));
    }
    return numbers;
}

Coo transposed(Coo entries) {
    std::swap(entries.rows, entries.cols);
    std::swap(entries.row, entries.col);
    return entries;
}

Coo entries_of(const Csr &matrix) {
    return {matrix.rows, matrix.cols, row_numbers(matrix), matrix.index, matrix.value, false};
}

namespace {

bool is_ascending(const Buffer<int32_t> &indices) {
    const int32_t *index = indices.data();
    int64_t descents = 0; // one loop without a branch
    for (int64_t k = 1; k < indices.size(); ++k)
        descents += index[k] < index[k - 1];
    return descents == 0;
}

bool stand_by_rows(const Coo &entries) {
    const int32_t *row = entries.row.data(), *col = entries.col.data();
    int64_t descents = 0;
    for (int64_t k = 1; k < entries.nnz(); ++k)
        descents += row[k] < row[k - 1] || (row[k] == row[k - 1] && col[k] < col[k - 1]);
    return descents == 0;
}

// ptr has room for rows + 1.
void count_rows(const Coo &entries, int64_t *ptr) {
    std::fill_n(ptr, entries.rows + 1, 0);
    for (int64_t k = 0; k < entries.nnz(); ++k)
        ++ptr[entries.row[k] + 1];
    for (int64_t i = 0; i < entries.rows; ++i)
        ptr[i + 1] += ptr[i];
}

// Stable: entries of one row keep their order.
Csr by_rows(const Coo &entries) {
    Csr result{entries.rows, entries.cols, Buffer<int64_t>(entries.rows + 1), entries.col, entries.value};
    count_rows(entries, result.ptr.write());
    if (is_ascending(entries.row))
        return result;
    result.index = Buffer<int32_t>(entries.nnz());
    result.value = Buffer<double>(entries.nnz());
    std::vector<int64_t> place(result.ptr.data(), result.ptr.data() + entries.rows);
    int32_t *index = result.index.write();
    double *value = result.value.write();
    for (int64_t k = 0; k < entries.nnz(); ++k) {
        int64_t to = place[static_cast<size_t>(entries.row[k])]++;
        index[to] = entries.col[k];
        value[to] = entries.value[k];
    }
    return result;
}

// Equal columns, which stand side by side, are added up.
Csr summed(const Csr &matrix) {
    Csr result{matrix.rows, matrix.cols, Buffer<int64_t>(matrix.rows + 1), Buffer<int32_t>(matrix.nnz()),
               Buffer<double>(matrix.nnz())};
    int64_t *ptr = result.ptr.write(), end = 0;
    int32_t *index = result.index.write();
    double *value = result.value.write();
    ptr[0] = 0;
    for (int64_t row = 0; row < matrix.rows; ++row) {
        for (int64_t k = matrix.ptr[row]; k < matrix.ptr[row + 1]; ++k) {
            if (end > ptr[row] && index[end - 1] == matrix.index[k]) {
                value[end - 1] += matrix.value[k];
                continue;
            }
            index[end] = matrix.index[k];
            value[end++] = matrix.value[k];
        }
        ptr[row + 1] = end;
    }
    if (end == matrix.nnz())
        return matrix;
    result.index = Buffer<int32_t>::copy_of(index, end);
    result.value = Buffer<double>::copy_of(value, end);
    result.index.cut(end);
    result.value.cut(end);
    return result;
}

} // namespace

Csr compressed(const Coo &entries) {
    bool sorted = is_ascending(entries.col) || stand_by_rows(entries);
    Csr rows = by_rows(sorted ? entries : transposed(entries_of(by_rows(transposed(entries)))));
    return entries.sums ? summed(rows) : rows;
}

namespace {

template <class Index> bool copy_checked(const Index *from, int64_t n, int64_t cols, int32_t *to) {
    using Bits = std::make_unsigned_t<Index>;
    const Bits bound = static_cast<Bits>(cols);
    Bits bad = 0;
    for (int64_t k = 0; k < n; ++k) {
        to[k] = static_cast<int32_t>(from[k]);
        bad |= static_cast<Bits>(static_cast<Bits>(from[k]) >= bound);
    }
    return !bad;
}

} // namespace

bool copy_columns(const int32_t *from, int64_t n, int64_t cols, int32_t *to) {
    return copy_checked(from, n, cols, to);
}
bool copy_columns(const int64_t *from, int64_t n, int64_t cols, int32_t *to) {
    return copy_checked(from, n, cols, to);
}

RowBuilder::RowBuilder(int64_t nrows, int64_t width) {
    summand_.nrows = nrows;
    summand_.width = width;
    summand_.cols = Buffer<int32_t>(nrows * width);
    summand_.coef = Buffer<double>(nrows * width);
    ids_ = summand_.cols.write();
    coef_ = summand_.coef.write();
}

RowBuilder::RowBuilder(int64_t nrows, int64_t nnz, bool) {
    summand_.nrows = nrows;
    summand_.ptr = Buffer<int64_t>(nrows + 1);
    summand_.cols = Buffer<int32_t>(nnz);
    summand_.coef = Buffer<double>(nnz);
    ptr_ = summand_.ptr.write();
    ptr_[0] = 0;
    ids_ = summand_.cols.write();
    coef_ = summand_.coef.write();
}

void RowBuilder::end_row() {
    ++row_;
    if (ptr_)
        ptr_[row_] = k_;
}

void RowBuilder::dense_right(const Dense &matrix, const Ids &vars) {
    for (int64_t i = 0; i < matrix.rows; ++i)
        for (int64_t j = 0; j < vars.cols; ++j, end_row())
            for (int64_t l = 0; l < matrix.cols; ++l, ++k_) {
                ids_[k_] = vars.at(l, j);
                coef_[k_] = matrix.at(i, l);
            }
}

void RowBuilder::dense_left(const Ids &vars, const Dense &matrix) {
    for (int64_t i = 0; i < vars.rows; ++i)
        for (int64_t j = 0; j < matrix.cols; ++j, end_row())
            for (int64_t l = 0; l < matrix.rows; ++l, ++k_) {
                ids_[k_] = vars.at(i, l);
                coef_[k_] = matrix.at(l, j);
            }
}

void RowBuilder::sparse_right(const Csr &matrix, const Ids &vars) {
    for (int64_t i = 0; i < matrix.rows; ++i)
        for (int64_t j = 0; j < vars.cols; ++j, end_row())
            for (int64_t p = matrix.ptr[i]; p < matrix.ptr[i + 1]; ++p, ++k_) {
                ids_[k_] = vars.at(matrix.index[p], j);
                coef_[k_] = matrix.value[p];
            }
}

void RowBuilder::sparse_left(const Ids &vars, const Csr &columns) {
    for (int64_t i = 0; i < vars.rows; ++i)
        for (int64_t j = 0; j < columns.rows; ++j, end_row())
            for (int64_t p = columns.ptr[j]; p < columns.ptr[j + 1]; ++p, ++k_) {
                ids_[k_] = vars.at(i, columns.index[p]);
                coef_[k_] = columns.value[p];
            }
}

Summand RowBuilder::finish() {
    return std::move(summand_);
}

Summand combined(const Summand &summand, int64_t nrows, const int64_t *start, const int64_t *source,
                 const double *factors) {
    Summand result;
    result.nrows = nrows;
    result.ptr = Buffer<int64_t>(nrows + 1);
    int64_t *ptr = result.ptr.write();
    ptr[0] = 0;
    for (int64_t i = 0; i < nrows; ++i) {
        ptr[i + 1] = ptr[i];
        for (int64_t t = start[i]; t < start[i + 1]; ++t)
            ptr[i + 1] += summand.end(source[t]) - summand.begin(source[t]);
    }
    result.cols = Buffer<int32_t>(ptr[nrows]);
    result.coef = Buffer<double>(ptr[nrows]);
    int32_t *ids = result.cols.write();
    double *coef = result.coef.write();
    for (int64_t t = start[0]; t < start[nrows]; ++t)
        for (int64_t k = summand.begin(source[t]), end = summand.end(source[t]); k < end; ++k) {
            *ids++ = summand.id(k);
            *coef++ = summand.coefficient(k) * factors[t];
        }
    return result;
}

Summand normalized(const Summand &summand, int32_t id_count) {
    // seen[id]: where in the result the variable stands, if that is within the present row.
    std::vector<int64_t> seen(static_cast<size_t>(id_count), -1);
    Summand result;
    result.nrows = summand.nrows;
    result.ptr = Buffer<int64_t>(summand.nrows + 1);
    result.cols = Buffer<int32_t>(summand.nnz());
    result.coef = Buffer<double>(summand.nnz());
    int64_t *ptr = result.ptr.write();
    int32_t *ids = result.cols.write();
    double *coef = result.coef.write();
    int64_t end = 0;
    for (int64_t row = 0; row < summand.nrows; ++row) {
        int64_t first = ptr[row] = end;
        for (int64_t k = summand.begin(row), last = summand.end(row); k < last; ++k) {
            int32_t id = summand.id(k);
            int64_t &place = seen[static_cast<size_t>(id)];
            if (place >= first && place < end && ids[place] == id) {
                coef[place] += summand.coefficient(k);
            } else {
                place = end;
                ids[end] = id;
                coef[end++] = summand.coefficient(k);
            }
        }
        int64_t kept = first;
        for (int64_t k = first; k < end; ++k)
            if (coef[k] != 0.0) {
                ids[kept] = ids[k];
                coef[kept++] = coef[k];
            }
        end = kept;
    }
    ptr[summand.nrows] = end;
    result.cols.cut(end);
    result.coef.cut(end);
    return result;
}

} // namespace flat
