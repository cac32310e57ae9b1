// General constraints on their way into the store: arguments read once as rows over ids, broadcast, and laid out
// constraint by constraint.
//
//   GenOperand y = GenOperand::of(handle, lhs, "...");        X of shape (2, 3): six rows
//   GenOperand x = GenOperand::of(handle, X, "...", axes);    over axis 1: two elements of three rows each
//   GenBlock block(common_shape, {&y, &x});                   (y[i], X[i,0], X[i,1], X[i,2]) for each i
//   int32_t first = block.commit(store, TRV_GEN_MAX, names);
#pragma once

#include "row_blocks.h"

#include <vector>

namespace tarvopy::modelapi {

// What stands at one or more argument positions, element by element.
class GenOperand {
  public:
    // A variable, linear expression, number, array or list of these; TypeError for what is of a higher degree, in which
    // `what` names its role. axes: those of the array that become positions (in C order), the others are its shape;
    // None: all are its shape. Over all axes it is a scalar, as NumPy's reductions give.
    static GenOperand of(ModelObject *handle, PyObject *object, const char *what, PyObject *axes = Py_None);
    // The positions of one element each that a tuple of scalar objects fills.
    static GenOperand of_scalars(ModelObject *handle, PyObject *scalars, const char *what);
    // The rows of lhs - rhs.
    static GenOperand of_sides(ModelObject *handle, PyObject *lhs, PyObject *rhs, const char *what);

    const Shape &shape() const { return shape_; }
    bool scalar() const { return scalar_; }
    bool has_variables() const { return degree_ > 0; } // by its type; an empty array may hold none
    int64_t nrows() const { return nrows_; }
    double *constants() const { return constant_.get(); } // one a row; may be changed

  private:
    friend class GenBlock;
    GenOperand(ModelObject *handle, PyObject *lhs, PyObject *rhs, int degree);
    void move_to_positions(PyObject *axes);

    Scratch<int64_t> ptr_;
    Scratch<int32_t> var_;
    Scratch<double> coef_, constant_;
    int64_t nrows_;
    int degree_;
    bool scalar_;
    Shape shape_;
    std::vector<int64_t> stride_; // in rows, for each axis of the shape
    std::vector<int64_t> offset_; // from an element's first row, for each position
};

class GenBlock {
  public:
    explicit GenBlock(const Shape &shape) : shape_(shape) {}
    // The next argument positions; its shape broadcasts to the block's.
    void append(const GenOperand &operand);
    // The numbers of the next constraint.
    void append_data(std::initializer_list<double> data);
    void append_data(const double *data, int64_t n);

    int32_t commit(TRVmodel *store, int type, const TRVnames *names);

  private:
    // The operands' rows of one constraint.
    struct Position {
        const GenOperand *operand;
        std::vector<int64_t> stride; // for each axis of the block; 0 where it is spread
    };
    void write_constraint(int64_t element);
    void write_row(const GenOperand &operand, int64_t row);

    Shape shape_;
    std::vector<Position> positions_;
    std::vector<int64_t> argptr_{0}, ptr_{0}, dataptr_{0};
    std::vector<int32_t> var_;
    std::vector<double> coef_, constant_, data_;
};

} // namespace tarvopy::modelapi
