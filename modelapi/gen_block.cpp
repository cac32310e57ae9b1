#include "gen_block.h"

namespace tarvopy::modelapi {

// ---- operands

GenOperand::GenOperand(ModelObject *handle, PyObject *lhs, PyObject *rhs, int degree) : degree_(degree) {
    Rows rows(lhs, rhs);
    const RowBlock &block = rows.block();
    require_model(block.model, handle, "the general constraint has variables");
    nrows_ = block.nrows;
    scalar_ = block.scalar;
    shape_ = rows.shape();
    ptr_ = scratch<int64_t>(nrows_);
    var_ = scratch<int32_t>(block.nnz);
    coef_ = scratch<double>(block.nnz);
    constant_ = scratch<double>(nrows_);
    rows.write(ptr_.get(), var_.get(), coef_.get(), constant_.get());
    stride_.resize(shape_.ndim);
    int64_t rows_below = 1;
    for (int d = shape_.ndim; d-- > 0; rows_below *= shape_.dims[d])
        stride_[d] = rows_below;
    offset_ = {0};
}

namespace {

int linear_degree(Ref &side, const char *what) {
    int degree = settle_degree(side);
    if (degree > 1)
        fail(PyExc_TypeError,
             "%s must be a variable, a linear expression or a number, not '%.200s': add a variable v with "
             "addConstr(v == expression) and use v",
             what, Py_TYPE(side.get())->tp_name);
    return degree;
}

} // namespace

GenOperand GenOperand::of(ModelObject *handle, PyObject *object, const char *what, PyObject *axes) {
    Ref side = Ref::borrow(object);
    int degree = linear_degree(side, what);
    GenOperand operand(handle, side.get(), nullptr, degree);
    if (axes != Py_None)
        operand.move_to_positions(axes);
    return operand;
}

GenOperand GenOperand::of_scalars(ModelObject *handle, PyObject *scalars, const char *what) {
    Ref axes = check(Py_BuildValue("(i)", 0));
    return of(handle, scalars, what, axes.get());
}

GenOperand GenOperand::of_sides(ModelObject *handle, PyObject *lhs, PyObject *rhs, const char *what) {
    Ref left = Ref::borrow(lhs), right = Ref::borrow(rhs);
    int degree = std::max(linear_degree(left, what), linear_degree(right, what));
    return GenOperand(handle, left.get(), right.get(), degree);
}

void GenOperand::move_to_positions(PyObject *axes) {
    std::vector<bool> moves(shape_.ndim, false);
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(axes); ++i) {
        long axis = pysupport::check_value(PyLong_AsLong(PyTuple_GET_ITEM(axes, i)));
        if (axis >= shape_.ndim)
            fail(PyExc_ValueError, "axis %ld is none of an array of shape %s", axis, shape_.text().c_str());
        moves[axis] = true;
    }
    npy_intp kept[NPY_MAXDIMS];
    std::vector<int64_t> strides;
    for (int d = 0; d < shape_.ndim; ++d) {
        if (!moves[d]) {
            kept[strides.size()] = shape_.dims[d];
            strides.push_back(stride_[d]);
            continue;
        }
        std::vector<int64_t> spread;
        for (int64_t before : offset_)
            for (npy_intp i = 0; i < shape_.dims[d]; ++i)
                spread.push_back(before + i * stride_[d]);
        offset_ = std::move(spread);
    }
    shape_ = Shape(static_cast<int>(strides.size()), kept);
    stride_ = std::move(strides);
    scalar_ = shape_.ndim == 0;
}

// ---- blocks

void GenBlock::append(const GenOperand &operand) {
    std::vector<int64_t> stride(shape_.ndim, 0);
    const Shape &own = operand.shape();
    for (int d = 0; d < own.ndim; ++d)
        if (own.dims[d] != 1)
            stride[shape_.ndim - own.ndim + d] = operand.stride_[d];
    positions_.push_back({&operand, std::move(stride)});
}

void GenBlock::append_data(const double *data, int64_t n) {
    data_.insert(data_.end(), data, data + n);
    dataptr_.push_back(static_cast<int64_t>(data_.size()));
}

void GenBlock::append_data(std::initializer_list<double> data) {
    append_data(data.begin(), static_cast<int64_t>(data.size()));
}

void GenBlock::write_row(const GenOperand &operand, int64_t row) {
    int64_t begin = operand.ptr_[row], end = operand.ptr_[row + 1];
    var_.insert(var_.end(), operand.var_.get() + begin, operand.var_.get() + end);
    coef_.insert(coef_.end(), operand.coef_.get() + begin, operand.coef_.get() + end);
    ptr_.push_back(static_cast<int64_t>(var_.size()));
    constant_.push_back(operand.constant_[row]);
}

void GenBlock::write_constraint(int64_t element) {
    for (const Position &position : positions_) {
        int64_t row = 0, rest = element;
        for (int d = shape_.ndim; d-- > 0; rest /= shape_.dims[d])
            row += rest % shape_.dims[d] * position.stride[d];
        for (int64_t offset : position.operand->offset_)
            write_row(*position.operand, row + offset);
    }
    argptr_.push_back(static_cast<int64_t>(constant_.size()));
}

int32_t GenBlock::commit(TRVmodel *store, int type, const TRVnames *names) {
    for (int64_t element = 0; element < shape_.size; ++element)
        write_constraint(element);
    // An empty vector's pointer may be NULL, which would say that there are no such arrays at all.
    var_.push_back(0);
    coef_.push_back(0);
    constant_.push_back(0);
    data_.push_back(0);
    const TRVgens gens{shape_.size,
                       argptr_.data(),
                       ptr_.data(),
                       var_.data(),
                       coef_.data(),
                       constant_.data(),
                       dataptr_.size() > 1 ? dataptr_.data() : nullptr,
                       data_.data()};
    int32_t first;
    succeed(store, TRVaddgens(store, type, &gens, names, &first));
    return first;
}

} // namespace tarvopy::modelapi
