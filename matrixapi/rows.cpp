// How the model reads expressions: both sides of a constraint as rows over ids (collaborators/matrix_rows.h).
//
//   x + y <= b      lhs: two summands, rhs: an array; the block is lhs - rhs, one row an element of the broadcast shape
//   rows_write      one pass from the native form straight into the store's arrays
//
// Nothing is changed in the operands: a compact side is read from its parts, a full one from its form or from its
// LinExpr.
#include "matrixapi/rows.h"

#include "matrixapi/flat_rows.h"
#include "matrixapi/mlinexpr.h"
#include "matrixapi/mvar.h"
#include "matrixapi/operands.h"
#include "matrixapi/row_sides.h"

#include "pysupport/numpy.h"

namespace tarvopy {

using namespace pysupport;

namespace {

// ---- both sides ---------------------------------------------------------------------------------------------------

struct Block {
    flat::Form form;
    Ref model;
    Ref subtracted; // numbers that broadcast to the block's shape, taken off the constants when they are written; often
                    // the caller's own
};

void subtract(Block &block, Side right) {
    flat::Shape shape = common_shape(block.form.shape, right.form.shape);
    if (!merge_models(block.model, right.model))
        fail_models();
    block.form = flat::broadcast(block.form, shape);
    if (right.numbers) {
        block.subtracted = right.numbers;
        return;
    }
    flat::add(block.form, flat::broadcast(right.form, shape), -1.0);
}

// lhs - rhs.
std::unique_ptr<Block> difference(PyObject *lhs, PyObject *rhs, bool *scalar) {
    Side left = linear_side(lhs);
    *scalar = left.scalar;
    take_numbers(left);
    common_shape(left.form.shape, {});
    auto block = std::make_unique<Block>(Block{std::move(left.form), std::move(left.model), {}});
    if (rhs) {
        Side right = linear_side(rhs);
        *scalar = *scalar && right.scalar;
        subtract(*block, std::move(right));
    }
    return block;
}

// The array was looked at when the block was opened, and whoever holds it may have changed it since.
void write_constants(const Block &held, double *constants) {
    const flat::Form &form = held.form;
    if (!held.subtracted) {
        for (int64_t i = 0; i < form.size; ++i)
            constants[i] = form.constant[i];
        return;
    }
    flat::Shape own = shape_of_array(held.subtracted.get());
    if (broadcast_shapes(own, form.shape) != form.shape)
        fail(PyExc_ValueError, "the array of a constraint's side was resized while its rows were added");
    flat::broadcast_values(doubles(held.subtracted), own, form.shape, constants);
    for (int64_t i = 0; i < form.size; ++i)
        constants[i] = form.constant[i] - constants[i];
}

int degree_of_elements(PyObject *array) {
    Ref elements = contiguous_objects(array);
    auto **from = static_cast<PyObject **>(PyArray_DATA(as_array(elements)));
    int highest = 0;
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(elements)); ++i) {
        int degree = degree_of(from[i] ? from[i] : Py_None);
        if (degree < 0)
            return degree;
        highest = std::max(highest, degree);
    }
    return highest;
}

int degree_of_array(PyObject *array) {
    int type = PyArray_TYPE(as_array(array));
    if (type == NPY_OBJECT)
        return degree_of_elements(array);
    return PyTypeNum_ISBOOL(type) || PyTypeNum_ISINTEGER(type) || PyTypeNum_ISFLOAT(type) ? 0 : -2;
}

} // namespace

int degree_of(PyObject *object) {
    int degree = -2;
    int failed = border_status([&] {
        switch (kind_of(object)) {
        case Operand::Scalar:
        case Operand::Sparse:
            degree = 0;
            break;
        case Operand::Array:
            degree = degree_of_array(object);
            break;
        case Operand::Var:
        case Operand::LinExpr:
        case Operand::MVar:
        case Operand::MLinExpr:
            degree = 1;
            break;
        case Operand::QuadExpr:
        case Operand::MQuadExpr:
            degree = 2;
            break;
        case Operand::NLExpr:
        case Operand::MNLExpr:
            degree = 3;
            break;
        case Operand::Other:
            break;
        }
    });
    return failed < 0 ? -1 : degree;
}

int rows_open(PyObject *lhs, PyObject *rhs, RowBlock *block) {
    *block = {};
    return border_status([&] {
        need_numpy();
        std::unique_ptr<Block> held = difference(lhs, rhs, &block->scalar);
        block->model = held->model.as<ModelObject>();
        block->ndim = static_cast<int>(held->form.shape.size());
        std::copy(held->form.shape.begin(), held->form.shape.end(), block->shape);
        block->nrows = held->form.size;
        block->nnz = held->form.nnz();
        block->held = held.release();
    });
}

int rows_write(RowBlock *block, int64_t *ptr, int32_t *var, double *coef, double *constants) {
    return border_status([&] {
        const Block &held = *static_cast<Block *>(block->held);
        const flat::Form &form = held.form;
        flat::write_rows(form.summands, form.size, ptr, var, coef);
        write_constants(held, constants);
    });
}

namespace {

// Variable j of the vector has the id j, as in a model whose first variables these are.
bool counts_up(const flat::Buffer<int32_t> &ids) {
    if (ids.counts())
        return ids.counting() == 0;
    for (int64_t j = 0; j < ids.size(); ++j)
        if (ids[j] != j)
            return false;
    return true;
}

// The same terms with their ids in `cols`: a new array only where columns are not ids already.
flat::Summand with_ids(const flat::Summand &summand) {
    flat::Summand result = summand;
    result.vars = {};
    if (summand.cols.counts() && summand.cols.counting() == 0 && summand.cols.size() == summand.vars.size()) {
        // One row over a vector: its ids as they stand. Ids that count up are written into a block of the store's own,
        // which it gives back when it no longer needs them.
        result.cols = summand.vars.counts()
                          ? flat::Buffer<int32_t>::counting_from(summand.vars.counting(), summand.nnz())
                          : summand.vars;
        return result;
    }
    if (summand.vars.empty() || counts_up(summand.vars))
        return result;
    int64_t nnz = summand.nnz();
    result.cols = flat::Buffer<int32_t>(nnz);
    int32_t *ids = result.cols.write();
    const int32_t *vars = summand.vars.data(), *cols = summand.cols.data();
    for (int64_t k = 0; k < nnz; ++k)
        ids[k] = vars[cols[k]];
    return result;
}

void release_summand(void *keeper) {
    delete static_cast<flat::Summand *>(keeper);
}

int only_holder(void *keeper) {
    const auto &summand = *static_cast<flat::Summand *>(keeper);
    return summand.cols.alone() && summand.coef.alone();
}

// Below this many terms a copy costs nothing that anybody would notice.
constexpr int64_t worth_sharing = 10'000;

// ---- strips: one term a row in each summand ---

struct Striped {
    std::vector<flat::Summand> summands;
    std::vector<TRVstrip> strips;
};

void release_strips(void *keeper) {
    delete static_cast<Striped *>(keeper);
}

TRVstrip strip_of(flat::Summand &summand) {
    const double *coef = summand.coef.data();
    if (const auto first = flat::counting_ids(summand))
        return {nullptr, coef, *first, summand.scale};
    const bool cols_are_ids = summand.vars.empty() || counts_up(summand.vars);
    if (!cols_are_ids && !summand.cols.empty()) {
        flat::Buffer<int32_t> ids(summand.nrows);
        for (int64_t i = 0; i < summand.nrows; ++i)
            ids.write()[i] = summand.vars[summand.cols[i]];
        summand.cols = std::move(ids);
    }
    const bool own = cols_are_ids || !summand.cols.empty();
    return {(own ? summand.cols : summand.vars).data(), coef, 0, summand.scale};
}

bool share_strips(const flat::Form &form, TRVsharedrows *rows) {
    if (form.summands.size() > 8 || !flat::all_single(std::span<const flat::Summand>(form.summands)))
        return false;
    auto keeper = std::make_unique<Striped>();
    keeper->summands = form.summands;
    for (flat::Summand &summand : keeper->summands)
        keeper->strips.push_back(strip_of(summand));
    *rows = {};
    rows->nstrips = static_cast<int32_t>(keeper->strips.size());
    rows->strips = keeper->strips.data();
    rows->release = release_strips;
    rows->keeper = keeper.release();
    return true;
}

// The terms of a single summand where they stand.
bool share_summand(const flat::Summand &only, TRVsharedrows *rows) {
    if (only.cols.empty() || only.coef.empty())
        return false;
    auto keeper = std::make_unique<flat::Summand>(with_ids(only));
    keeper->ptr = {}; // the store makes pointers of its own; until then those of the block serve
    *rows = {only.ptr.data(),     only.width, keeper->cols.data(),
             keeper->coef.data(), nullptr,    release_summand,
             only_holder,         0,          nullptr};
    rows->keeper = keeper.release();
    return true;
}

} // namespace

int rows_share(RowBlock *block, TRVsharedrows *rows, double *constants) {
    bool shared = false;
    int failed = border_status([&] {
        const Block &held = *static_cast<Block *>(block->held);
        if (block->nnz < worth_sharing)
            return;
        if (!share_strips(held.form, rows) &&
            !(held.form.summands.size() == 1 && share_summand(held.form.summands[0], rows)))
            return;
        shared = true;
        write_constants(held, constants);
    });
    return failed < 0 ? -1 : shared;
}

void rows_close(RowBlock *block) {
    delete static_cast<Block *>(std::exchange(block->held, nullptr));
}

} // namespace tarvopy
