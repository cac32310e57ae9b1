// Linear expressions as numbers: the flat form, without Python.
//
// A Form is an array of linear expressions. Its value, element by element in C order, is
//   constant[i] + sum over the summands s, over the terms k of row i of s:  coefficient(s, k) * variable(s, k)
// and the terms stand in that order, as if somebody had appended them one by one.
//
//   x + 2 * y   (1000, 1000)    two summands of width 1, ids shared with x and y, scale 1 and 2, no coefficients
//   A @ x       one summand: the row pointers, columns and values of A, and the ids of x as `vars`
//
// Buffers are immutable once shared: copies of a form, scaled forms and sums share them. A form belongs to variables of
// one model, whose handle its holder keeps.
#pragma once

#include "tarvo.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <new>
#include <span>
#include <utility>
#include <vector>

namespace flat {

// A reference-counted block of plain values, not cleared when allocated. Counted without atomics: the interpreter's
// lock is held wherever one is copied or freed.
//
// Ids of new elements count up: first, first + 1, ... Such a block has no values before somebody asks for data(), which
// may then find no memory; whoever can reads `counting()` instead.
template <class T> class Buffer {
  public:
    Buffer() = default;
    explicit Buffer(int64_t size) {
        if (size > 0) {
            if (static_cast<uint64_t>(size) > (SIZE_MAX - sizeof(Head)) / sizeof(T))
                throw std::bad_alloc();
            head_ = new_head(sizeof(T) * static_cast<size_t>(size));
            head_->size = size;
            head_->values = reinterpret_cast<T *>(head_ + 1);
        }
    }
    static Buffer counting_from(T first, int64_t size) {
        Buffer buffer;
        if (size > 0) {
            buffer.head_ = new_head(0);
            buffer.head_->size = size;
            buffer.head_->first = first;
            buffer.head_->counts = true;
        }
        return buffer;
    }
    static Buffer copy_of(const T *values, int64_t size) {
        Buffer buffer(size);
        std::copy_n(values, size, buffer.write());
        return buffer;
    }
    Buffer(const Buffer &other) : head_(other.head_) {
        if (head_)
            ++head_->count;
    }
    Buffer(Buffer &&other) noexcept : head_(std::exchange(other.head_, nullptr)) {}
    Buffer &operator=(Buffer other) noexcept {
        std::swap(head_, other.head_);
        return *this;
    }
    ~Buffer() {
        if (!head_ || --head_->count > 0)
            return;
        if (head_->counts)
            TRVfree(head_->values);
        TRVfree(head_);
    }
    // An empty buffer means "none" in a summand: a block of size 0 is empty too.
    bool empty() const { return !head_; }
    int64_t size() const { return head_ ? head_->size : 0; }
    const T *data() const {
        if (!head_)
            return nullptr;
        return head_->values ? head_->values : written();
    }
    T operator[](int64_t i) const {
        return head_->values ? head_->values[i] : static_cast<T>(head_->first + static_cast<T>(i));
    }
    // Whether element i is counting() + i, by the way it was made: other blocks may count up too.
    bool counts() const { return head_ && head_->counts; }
    T counting() const { return head_->first; }
    // Only for who has just made it.
    T *write() { return head_ ? head_->values : nullptr; }
    // Fewer than there was room for: who takes the size for the number of terms must not meet what was never written.
    void cut(int64_t size) {
        if (head_)
            head_->size = size;
    }
    bool same(const Buffer &other) const { return head_ == other.head_; }
    // Nobody else holds it.
    bool alone() const { return head_ && head_->count == 1; }

  private:
    struct alignas(16) Head {
        int64_t count, size;
        T *values; // behind the head; of a counting block NULL, or a block of their own
        T first;
        bool counts;
    };
    static Head *new_head(size_t more) {
        auto *head = static_cast<Head *>(TRVmalloc(sizeof(Head) + more));
        if (!head)
            throw std::bad_alloc();
        *head = {1, 0, nullptr, T(), false};
        return head;
    }
    const T *written() const {
        auto *values = static_cast<T *>(TRVmalloc(sizeof(T) * static_cast<size_t>(head_->size)));
        if (!values)
            throw std::bad_alloc();
        for (int64_t i = 0; i < head_->size; ++i)
            values[i] = static_cast<T>(head_->first + static_cast<T>(i));
        return head_->values = values;
    }
    Head *head_ = nullptr;
};

// One addend of every row. Term k of the whole summand (rows one after the other) has
//   column       cols[k], or k itself when cols is empty
//   variable id  vars[column], or the column itself when vars is empty
//   coefficient  coef[k], or scale when coef is empty
struct Summand {
    int64_t nrows = 0;
    int64_t width = 0;   // terms in each row, when ptr is empty
    Buffer<int64_t> ptr; // nrows + 1 row pointers from 0; empty: every row has `width` terms
    Buffer<int32_t> cols;
    Buffer<int32_t> vars;
    Buffer<double> coef;
    double scale = 1.0;

    int64_t nnz() const { return ptr.empty() ? nrows * width : ptr[nrows]; }
    int64_t begin(int64_t row) const { return ptr.empty() ? row * width : ptr[row]; }
    int64_t end(int64_t row) const { return begin(row + 1); }
    int32_t column(int64_t k) const { return cols.empty() ? static_cast<int32_t>(k) : cols[k]; }
    int32_t id(int64_t k) const { return vars.empty() ? column(k) : vars[column(k)]; }
    double coefficient(int64_t k) const { return coef.empty() ? scale : coef[k]; }
};

// Constants of all elements: one value for all while `values` is empty.
struct Constant {
    double uniform = 0.0;
    Buffer<double> values;
    double operator[](int64_t i) const { return values.empty() ? uniform : values[i]; }
};

using Shape = std::vector<int64_t>;

struct Form {
    Shape shape;
    int64_t size = 1; // the product of shape
    Constant constant;
    std::vector<Summand> summands;

    int64_t nnz() const {
        int64_t total = 0;
        for (const Summand &summand : summands)
            total += summand.nnz();
        return total;
    }
};

int64_t size_of(const Shape &shape);

// ---- one summand ---------------------------------------------------------------------------------------------------
// One variable a row, coefficient `scale`.
Summand single(Buffer<int32_t> ids, double scale = 1.0);
// Whether two coefficients may stand for each other: 0.0 and -0.0 print differently.
inline bool same_bits(double a, double b) {
    return std::bit_cast<uint64_t>(a) == std::bit_cast<uint64_t>(b);
}

Summand scaled(const Summand &summand, double factor);
// Row i times factors[i].
Summand scaled_rows(const Summand &summand, const double *factors);
// New row i is old row map[i].
Summand gathered(const Summand &summand, const int64_t *map, int64_t nrows);
// All summands joined into one, terms of a row in the order of the summands; ids and coefficients explicit.
Summand joined(std::span<const Summand> summands, int64_t nrows);
// The same, written where the caller wants it (ptr has nrows + 1 entries).
void write_rows(std::span<const Summand> summands, int64_t nrows, int64_t *ptr, int32_t *ids, double *coef);

// ---- whole forms ---------------------------------------------------------------------------------------------------
// Row map that spreads `from` over `to` (NumPy's broadcasting rule, checked before); empty when the rows stay as they
// are.
std::vector<int64_t> broadcast_map(const Shape &from, const Shape &to);
Form broadcast(const Form &form, const Shape &to);
// The same of plain numbers; out has one entry for each element of `to`.
void broadcast_values(const double *values, const Shape &from, const Shape &to, double *out);
// Appends other's terms and constants (factor 1 or -1 or any number), both of one shape.
void add(Form &form, const Form &other, double factor = 1.0);
void add_constant(Form &form, const double *values); // one per element
void add_constant(Form &form, double value);
Form scaled(const Form &form, double factor);
Form scaled_rows(const Form &form, const double *factors);
// Element i of the result is element map[i].
Form gathered(const Form &form, const int64_t *map, const Shape &shape);
// Sums over the axes with axes[d] < 0 (util's list of op_axes); terms in logical C order of the summed elements.
Form summed(const Form &form, std::span<const int> axes);
// Forms one after the other along their rows (C order blocks): the result has the given shape.
Form concatenated(std::span<const Form> forms, const Shape &shape);

} // namespace flat
