// Writes elements of array nodes into tapes, without making their trees.
//
//   NodeTapes nodes(program, tapes);
//   nodes.add(root, i, false);             adds element i of a step to the row, as TreeTapes::add does with its tree
//
// Rows that come of nodes are those that come of the nodes' trees, entry by entry, but where a part that stands for a
// single constant or variable does so in a roundabout way (the sum of one element).
#pragma once

#include "matrixapi/nl_program.h"
#include "matrixapi/nl_tapes.h"

namespace tarvopy {

class NodeTapes {
  public:
    NodeTapes(const Program &program, Tapes &out) : program_(program), out_(out), trees_(out) {}
    void add(int32_t step, int64_t element, bool negative);

  private:
    // An element, and how far it is written: operands, summands, or halves of a row's terms.
    struct Frame {
        Element of;
        int64_t next;
        bool negative; // of `add` alone
    };

    void enter_sum(const Element &element, bool negative);
    bool next_summand(Frame &frame);
    void add_leaf(const Element &leaf, bool negative);
    void add_linear(const flat::Form &form, int64_t element, bool negative);
    void add_quadratic(const flat::QuadForm &form, int64_t element, bool negative);
    void add_product(const Element &product, bool negative);
    void add_row_term(const Step &rows, int64_t k, bool negative);

    void put(const Element &element);
    void enter(const Element &element);
    bool next_operand(Frame &frame);
    bool next_of_operation(Frame &frame);
    bool next_of_sum(Frame &frame);
    bool next_of_row(Frame &frame);
    void put_sum(int64_t terms); // of what was written last
    void put_pair(int32_t first, int32_t second);
    // A factor of 1 makes no product.
    template <class Put> void put_scaled(double coefficient, Put put_rest) {
        if (coefficient != 1.0)
            out_.number(coefficient);
        put_rest();
        if (coefficient != 1.0)
            out_.operation(TreeOp::Multiply);
    }
    int64_t put_linear(const flat::Form &form, int64_t element);
    int64_t put_quadratic(const flat::QuadForm &form, int64_t element);

    bool is_constant(const Element &element, double &value) const;
    bool is_variable(const Element &element, int32_t &id) const;

    const Program &program_;
    Tapes &out_;
    TreeTapes trees_;
    std::vector<Frame> sums_, open_;
};

} // namespace tarvopy
