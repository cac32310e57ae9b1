// Array operations on nonlinear expressions: one node for a whole operation over whole operands.
//
//   nlfunc.sin(t[1:]) * 2.0     Operation Multiply (n,)  <-  Operation Sin (n,)  <-  Variables, the ids of t[1:]
//                                                        <-  Numbers (), stride 0
//
// Element i of a node, in C order of its shape, stands for an expression tree. A node is immutable and shared by all
// that are made of it; it costs some hundred bytes and what its leaves hold, whatever its size. The trees are made when
// somebody looks (once per element, so that all consumers share them as they would have, had every operation
// made them at once); the store's tapes are written from the nodes (nl_rows.cpp), values are computed from them.
//
// Nodes are freed without recursion: a chain of a hundred thousand operations is fine. They belong to one model or to
// none; who hands them over checks the leaves.
#pragma once

#include "matrixapi/base.h"
#include "matrixapi/flat.h"
#include "matrixapi/flat_quad.h"

#include "collaborators/core.h"

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tarvopy {

struct NLNode;

// Counted under the interpreter's lock. The last one frees the node and, in a loop, what only it held.
class NodeRef {
  public:
    NodeRef() = default;
    explicit NodeRef(NLNode *node) noexcept : node_(node) {} // takes over the count of a new node
    NodeRef(const NodeRef &other) noexcept;
    NodeRef(NodeRef &&other) noexcept : node_(std::exchange(other.node_, nullptr)) {}
    NodeRef &operator=(NodeRef other) noexcept {
        std::swap(node_, other.node_);
        return *this;
    }
    ~NodeRef();
    NLNode *operator->() const { return node_; }
    NLNode &operator*() const { return *node_; }
    NLNode *get() const { return node_; }
    explicit operator bool() const { return node_ != nullptr; }
    NLNode *release() noexcept { return std::exchange(node_, nullptr); }

  private:
    NLNode *node_ = nullptr;
};

// Which element of `node` an index (i, j, ...) means: offset + i * strides[0] + j * strides[1] + ..., counted in C
// order of the node's shape. Broadcasting is a stride of 0; a slice of an array of expressions is an operand, too.
struct NodeView {
    NodeRef node;
    int64_t offset = 0;
    std::vector<int64_t> strides;
};

// One pass over the elements that a view of a shape shows, in C order.
class Walk {
  public:
    Walk(const NodeView &view, const flat::Shape &shape)
        : at_(view.offset), left_(flat::size_of(shape)), shape_(&shape), strides_(&view.strides),
          index_(shape.size(), 0) {}
    bool done() const { return left_ == 0; }
    int64_t at() const { return at_; }
    void next() {
        --left_;
        for (size_t d = index_.size(); d-- > 0;) {
            at_ += (*strides_)[d];
            if (++index_[d] < (*shape_)[d])
                return;
            at_ -= (*strides_)[d] * (*shape_)[d];
            index_[d] = 0;
        }
    }

  private:
    int64_t at_, left_;
    const flat::Shape *shape_;
    const std::vector<int64_t> *strides_;
    std::vector<int64_t> index_;
};

struct NLNode {
    enum Kind {
        // leaves
        Numbers,   // `numbers`, one an element; empty: `number` for all. Finite.
        Variables, // `ids`, one an element
        Linear,    // `linear`: trees as _ExprTree._from_linexpr makes them
        Quadratic, // `linear` and `quadratic`: trees as _coerce_to_exprtree_array makes them of an MQuadExpr
        Trees,     // `trees` from the beginning: the elements' trees at the time of the operation, of any models
        // inner nodes
        Operation, // `op` of the operands' elements, one or two operands, strides over `shape`
        Sum,       // the plus node over the elements of operands[0], over `extents` in C order; its strides are over
                   // shape, then extents. Of one element: itself; of none: the constant 0.
        Rows,      // element i is the sum over k in ptr[i] .. ptr[i+1] of the product of the constant coef[k] and
                   // element source[k] of operands[0]; constant first where constant_first. Of one term without sum
                   // node, of none the constant 0. A sparse matrix product.
        Picked,    // element i is element source[i] of the operands, whole nodes whose elements are counted on from
                   // one to the next in C order. Index arrays, and joined arrays.
    };
    int64_t count = 1; // of references; in a node that is being freed, see free_nodes
    NLNode *next_dead = nullptr;
    const Kind kind;
    flat::Shape shape;
    int64_t size = 1;
    Ref model; // the handle that ids belong to (leaves; empty where there is none)

    double number = 0.0;
    flat::Buffer<double> numbers;
    flat::Buffer<int32_t> ids;
    flat::Form linear;
    flat::QuadForm quadratic;

    TreeOp op = TreeOp::Plus;
    std::vector<NodeView> operands;
    flat::Shape extents; // Sum

    flat::Buffer<int64_t> ptr, source; // Rows; Picked: source alone
    flat::Buffer<double> coef;
    bool constant_first = false;

    // A one-dimensional object array of ExprTree, C order, once made: see node_trees.
    Ref trees;
    // Until then the trees of single elements that somebody looked at, by element; see view_trees.
    std::unique_ptr<std::unordered_map<int64_t, Ref>> some_trees;

    NLNode(Kind k, flat::Shape node_shape) : kind(k), shape(std::move(node_shape)), size(flat::size_of(shape)) {}
};

// Takes over a node that nobody refers to any more: frees it, and in a loop what only it held.
void free_nodes(NLNode *dead) noexcept;

inline NodeRef::~NodeRef() {
    if (node_ && --node_->count == 0)
        free_nodes(node_);
}

inline NodeRef::NodeRef(const NodeRef &other) noexcept : node_(other.node_) {
    if (node_)
        ++node_->count;
}

// ---- leaves (nlnode.cpp) --------------------------------------------------------------------------------------------
NodeRef number_node(double value);                                    // shape (); refuses what is not finite
NodeRef numbers_node(flat::Buffer<double> values, flat::Shape shape); // the same
NodeRef variables_node(flat::Buffer<int32_t> ids, flat::Shape shape, Ref model);
NodeRef linear_node(flat::Form form, Ref model);
NodeRef quadratic_node(flat::Form linear, flat::QuadForm quadratic, Ref model);
NodeRef trees_node(Ref trees, flat::Shape shape); // C order; see NLNode::trees

// ---- inner nodes ----------------------------------------------------------------------------------------------------
// The whole node, its strides over its own shape; broadcast to a shape that its own broadcasts to.
NodeView whole(const NodeRef &node);
NodeView broadcast(NodeView view, const flat::Shape &from, const flat::Shape &to);
// Whether the view shows the whole node, element by element in C order.
bool is_whole(const NodeView &view, const flat::Shape &shape);
// Positions in the node of the elements that a view of this shape shows, in C order.
flat::Buffer<int64_t> positions(const NodeView &view, const flat::Shape &shape);
// A node of exactly the view's elements: the node itself where the view is whole.
NodeRef node_of(const NodeView &view, const flat::Shape &shape);
NodeRef operation_node(TreeOp op, flat::Shape shape, NodeView operand);
NodeRef operation_node(TreeOp op, flat::Shape shape, NodeView left, NodeView right); // strides over shape, both
NodeRef sum_node(flat::Shape shape, flat::Shape extents, NodeView operand);          // strides over shape, then extents
NodeRef rows_node(flat::Shape shape, flat::Buffer<int64_t> ptr, flat::Buffer<int64_t> source, flat::Buffer<double> coef,
                  NodeRef operand, bool constant_first);
// `operands` whole, whatever their shapes; the caller sees to it that source fits.
NodeRef picked_node(flat::Shape shape, flat::Buffer<int64_t> source, std::vector<NodeRef> operands);

// ---- trees ----------------------------------------------------------------------------------------------------------
// All trees of a node, made where they are not yet: a one-dimensional object array in C order. Works without recursion.
Ref node_trees(const NodeRef &node);
// The trees of the elements that a view shows, in C order: of a small part of a large node these alone are made, and
// kept with the nodes, so that every element has one tree whoever looks first.
Ref view_trees(const NodeView &view, const flat::Shape &shape);
// The sum of the terms of a LinExpr and a QuadExpr, linear ones first: the tree of an element of an MQuadExpr.
Ref quadratic_tree(PyObject *linexpr, PyObject *quadexpr);

// ---- values (nl_values.cpp) -----------------------------------------------------------------------------------------
// The value of every element at the last solution, C order; domain errors are NaN or infinity. Where an inner node's
// trees exist already it is still computed from the node: both have the same value.
Ref node_values(const NodeRef &node);

} // namespace tarvopy
