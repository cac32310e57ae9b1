// Kernels over quadratic terms. What picks, repeats or regroups rows is done by the kernels of linear forms: a form of
// products is two forms of variables with the same rows, the first of which has the coefficients.
#include "flat_quad.h"

#include "flat_product.h"
#include "flat_rows.h"

namespace flat {

namespace {

// ---- halves --------------------------------------------------------------------------------------------------------

struct Halves {
    Form first, second;
};

Summand half(const QuadSummand &summand, const Buffer<int32_t> &ids) {
    Summand result;
    result.nrows = summand.nrows;
    result.width = summand.width;
    result.ptr = summand.ptr;
    result.cols = ids;
    return result;
}

Halves split(const QuadForm &form) {
    Halves halves{{form.shape, form.size, {}, {}}, {form.shape, form.size, {}, {}}};
    for (const QuadSummand &summand : form.summands) {
        Summand first = half(summand, summand.vars1);
        first.coef = summand.coef;
        first.scale = summand.scale;
        halves.first.summands.push_back(std::move(first));
        halves.second.summands.push_back(half(summand, summand.vars2));
    }
    return halves;
}

// Both went through the same kernel, so that their summands correspond.
QuadForm united(const Form &first, const Form &second) {
    QuadForm result{first.shape, first.size, {}};
    for (size_t s = 0; s < first.summands.size(); ++s) {
        const Summand &one = first.summands[s];
        result.summands.push_back(
            {one.nrows, one.width, one.ptr, one.cols, second.summands[s].cols, one.coef, one.scale});
    }
    return result;
}

template <class Kernel> QuadForm on_halves(const QuadForm &form, Kernel kernel) {
    Halves halves = split(form);
    return united(kernel(halves.first), kernel(halves.second));
}

} // namespace

QuadForm zero_quad(const Shape &shape) {
    return {shape, size_of(shape), {}};
}

QuadForm broadcast(const QuadForm &form, const Shape &to) {
    return on_halves(form, [&](const Form &one) { return broadcast(one, to); });
}

QuadForm gathered(const QuadForm &form, const int64_t *map, const Shape &shape) {
    return on_halves(form, [&](const Form &one) { return gathered(one, map, shape); });
}

QuadForm summed(const QuadForm &form, std::span<const int> axes) {
    QuadForm ordered = form;
    // Elements are added as a whole. The halves would interleave several summands alike, but each with coefficients.
    if (ordered.summands.size() > 1)
        ordered.summands = {joined(form.summands, form.size)};
    return on_halves(ordered, [&](const Form &one) { return summed(one, axes); });
}

QuadForm scaled(const QuadForm &form, double factor) {
    QuadForm result = form;
    Form first = scaled(split(form).first, factor);
    for (size_t s = 0; s < result.summands.size(); ++s) {
        result.summands[s].coef = first.summands[s].coef;
        result.summands[s].scale = first.summands[s].scale;
    }
    return result;
}

QuadForm scaled_rows(const QuadForm &form, const double *factors) {
    Halves halves = split(form);
    return united(scaled_rows(halves.first, factors), halves.second);
}

void add(QuadForm &form, const QuadForm &other, double factor) {
    QuadForm more = factor == 1.0 ? other : scaled(other, factor);
    form.summands.insert(form.summands.end(), more.summands.begin(), more.summands.end());
}

// ---- rows ----------------------------------------------------------------------------------------------------------

namespace {

void write_coefficients(const QuadSummand &summand, int64_t first, int64_t last, double *to) {
    if (summand.coef.empty())
        std::fill_n(to, last - first, summand.scale);
    else
        std::copy(summand.coef.data() + first, summand.coef.data() + last, to);
}

// One summand's terms already stand in the order of the result.
void write_one(const QuadSummand &summand, int32_t *ids1, int32_t *ids2, double *coef) {
    int64_t n = summand.nnz();
    std::copy_n(summand.vars1.data(), n, ids1);
    std::copy_n(summand.vars2.data(), n, ids2);
    write_coefficients(summand, 0, n, coef);
}

// One term a row, at a fixed place within rows of `stride` terms.
void write_column(const QuadSummand &summand, int64_t first, int64_t last, int64_t stride, int32_t *ids1, int32_t *ids2,
                  double *coef) {
    const int32_t *from1 = summand.vars1.data(), *from2 = summand.vars2.data();
    const double *from = summand.coef.data();
    for (int64_t row = first; row < last; ++row, ids1 += stride, ids2 += stride) {
        *ids1 = from1[row];
        *ids2 = from2[row];
    }
    for (int64_t row = first; row < last; ++row, coef += stride)
        *coef = from ? from[row] : summand.scale;
}

// Rows first..last of one summand, row r at place[r - first]; the places move on.
void write_block(const QuadSummand &summand, int64_t first, int64_t last, int64_t *place, int32_t *ids1, int32_t *ids2,
                 double *coef) {
    for (int64_t row = first; row < last; ++row) {
        int64_t begin = summand.begin(row), end = summand.end(row), p = place[row - first];
        std::copy(summand.vars1.data() + begin, summand.vars1.data() + end, ids1 + p);
        std::copy(summand.vars2.data() + begin, summand.vars2.data() + end, ids2 + p);
        write_coefficients(summand, begin, end, coef + p);
        place[row - first] = p + end - begin;
    }
}

} // namespace

void write_rows(std::span<const QuadSummand> summands, int64_t nrows, int64_t *ptr, int32_t *ids1, int32_t *ids2,
                double *coef) {
    write_pointers(summands, nrows, ptr);
    if (summands.size() == 1)
        return write_one(summands[0], ids1, ids2, coef);
    const bool single = all_single(summands);
    const int64_t stride = static_cast<int64_t>(summands.size());
    int64_t place[block_rows];
    for (int64_t first = 0; first < nrows; first += block_rows) {
        int64_t last = std::min(first + block_rows, nrows);
        std::copy(ptr + first, ptr + last, place);
        for (int64_t s = 0; s < stride; ++s) {
            const QuadSummand &summand = summands[static_cast<size_t>(s)];
            int64_t at = first * stride + s;
            if (single)
                write_column(summand, first, last, stride, ids1 + at, ids2 + at, coef + at);
            else
                write_block(summand, first, last, place, ids1, ids2, coef);
        }
    }
}

QuadSummand joined(std::span<const QuadSummand> summands, int64_t nrows) {
    if (summands.size() == 1)
        return summands[0];
    QuadSummand result;
    result.nrows = nrows;
    bool fixed = true;
    int64_t total = 0;
    for (const QuadSummand &summand : summands) {
        fixed = fixed && summand.ptr.empty();
        result.width += summand.width;
        total += summand.nnz();
    }
    Buffer<int64_t> ptr(nrows + 1);
    result.vars1 = Buffer<int32_t>(total);
    result.vars2 = Buffer<int32_t>(total);
    result.coef = Buffer<double>(total);
    write_rows(summands, nrows, ptr.write(), result.vars1.write(), result.vars2.write(), result.coef.write());
    if (!fixed) {
        result.ptr = std::move(ptr);
        result.width = 0;
    }
    return result;
}

QuadForm concatenated(std::span<const QuadForm> forms, const Shape &shape) {
    QuadForm result = zero_quad(shape);
    int64_t total = 0;
    for (const QuadForm &form : forms)
        total += form.nnz();
    if (total == 0)
        return result;
    QuadSummand rows;
    rows.nrows = result.size;
    rows.ptr = Buffer<int64_t>(result.size + 1);
    rows.vars1 = Buffer<int32_t>(total);
    rows.vars2 = Buffer<int32_t>(total);
    rows.coef = Buffer<double>(total);
    int64_t row = 0, k = 0;
    rows.ptr.write()[0] = 0;
    for (const QuadForm &form : forms) {
        int64_t *ptr = rows.ptr.write() + row;
        write_rows(form.summands, form.size, ptr, rows.vars1.write() + k, rows.vars2.write() + k,
                   rows.coef.write() + k);
        for (int64_t i = 0; i <= form.size; ++i)
            ptr[i] += k;
        row += form.size;
        k += form.nnz();
    }
    result.summands.push_back(std::move(rows));
    return result;
}

QuadForm combined(const QuadForm &form, const Shape &shape, const int64_t *start, const int64_t *source,
                  const double *factors) {
    QuadForm result = zero_quad(shape);
    if (form.summands.empty())
        return result;
    QuadForm one = form;
    one.summands = {joined(form.summands, form.size)};
    Halves halves = split(one);
    Summand first = combined(halves.first.summands[0], result.size, start, source, factors);
    Summand second = combined(halves.second.summands[0], result.size, start, source, factors);
    result.summands.push_back({result.size, 0, first.ptr, first.cols, second.cols, first.coef, 1.0});
    return result;
}

// ---- normalised ----------------------------------------------------------------------------------------------------

namespace {

uint64_t pair_key(int32_t a, int32_t b) {
    return static_cast<uint64_t>(static_cast<uint32_t>(std::min(a, b))) << 32 | static_cast<uint32_t>(std::max(a, b));
}

// Where in the result the pairs of the present row stand: open addressing, emptied between rows by a row number in each
// slot.
class PairTable {
  public:
    explicit PairTable(int64_t longest_row) {
        while (slots_.size() < 2 * static_cast<size_t>(longest_row) + 2)
            slots_.resize(2 * slots_.size());
    }
    // The place of a pair seen in this row before; else -1, and the pair is noted with `place`.
    int64_t find_or_note(uint64_t key, int64_t row, int64_t place) {
        size_t mask = slots_.size() - 1;
        for (size_t at = (key * 0x9E3779B97F4A7C15u >> 20) & mask;; at = (at + 1) & mask) {
            Slot &slot = slots_[at];
            if (slot.row != row) {
                slot = {key, row, place};
                return -1;
            }
            if (slot.key == key)
                return slot.place;
        }
    }

  private:
    struct Slot {
        uint64_t key = 0;
        int64_t row = -1, place = 0;
    };
    std::vector<Slot> slots_ = std::vector<Slot>(16);
};

} // namespace

QuadSummand normalized(const QuadSummand &summand) {
    int64_t longest = 0;
    for (int64_t row = 0; row < summand.nrows; ++row)
        longest = std::max(longest, summand.end(row) - summand.begin(row));
    PairTable table(longest);
    QuadSummand result;
    result.nrows = summand.nrows;
    result.ptr = Buffer<int64_t>(summand.nrows + 1);
    result.vars1 = Buffer<int32_t>(summand.nnz());
    result.vars2 = Buffer<int32_t>(summand.nnz());
    result.coef = Buffer<double>(summand.nnz());
    int64_t *ptr = result.ptr.write();
    int32_t *ids1 = result.vars1.write(), *ids2 = result.vars2.write();
    double *coef = result.coef.write();
    int64_t end = 0;
    for (int64_t row = 0; row < summand.nrows; ++row) {
        const int64_t first = ptr[row] = end;
        for (int64_t k = summand.begin(row), last = summand.end(row); k < last; ++k) {
            int32_t a = summand.vars1[k], b = summand.vars2[k];
            int64_t seen = table.find_or_note(pair_key(a, b), row, end);
            if (seen >= 0) {
                coef[seen] += summand.coefficient(k);
                continue;
            }
            ids1[end] = a;
            ids2[end] = b;
            coef[end++] = summand.coefficient(k);
        }
        int64_t kept = first;
        for (int64_t k = first; k < end; ++k)
            if (coef[k] != 0.0) {
                ids1[kept] = ids1[k];
                ids2[kept] = ids2[k];
                coef[kept++] = coef[k];
            }
        end = kept;
    }
    ptr[summand.nrows] = end;
    result.vars1.cut(end);
    result.vars2.cut(end);
    result.coef.cut(end);
    return result;
}

} // namespace flat
