// The element trees of array nodes, made on demand: operands first, by a stack of our own, then the node's elements in
// bulk. Every node's trees are made once, so elements share what the same elementwise operations would have shared.
#include "matrixapi/mlinexpr.h"
#include "matrixapi/mquadexpr_dict.h"
#include "matrixapi/nl_program.h"
#include "matrixapi/nlnode.h"

#include "pysupport/numpy.h"

namespace tarvopy {

using namespace pysupport;

namespace {

// A one-dimensional object array while it is filled from the front: slots not reached yet hold NULL, which its
// deallocation allows for.
class NewTrees {
  public:
    explicit NewTrees(int64_t size) {
        npy_intp n = size;
        array_ = check(PyArray_SimpleNew(1, &n, NPY_OBJECT));
        next_ = static_cast<PyObject **>(PyArray_DATA(as_array(array_)));
    }
    void put(Ref tree) { *next_++ = tree.release(); }
    // For functions that fill n slots or none.
    template <class Fill> void put_many(int64_t n, Fill fill) {
        check_status(fill(next_));
        next_ += n;
    }
    Ref array() { return std::move(array_); }

  private:
    Ref array_;
    PyObject **next_;
};

PyObject **elements_of_array(const Ref &array) {
    return static_cast<PyObject **>(PyArray_DATA(as_array(array)));
}

PyObject **trees_of(const NodeView &view) {
    return elements_of_array(view.node->trees);
}

Ref tree_node(TreeOp op, const std::vector<PyObject *> &children) {
    return check(mod.core->tree_node(op, static_cast<int64_t>(children.size()), children.data()));
}

// ---- leaves ---------------------------------------------------------------------------------------------------------

void number_trees(const NLNode &node, NewTrees &out) {
    for (int64_t i = 0; i < node.size; ++i)
        out.put(check(mod.core->tree_constant(node.numbers.empty() ? node.number : node.numbers[i])));
}

void variable_trees(const NLNode &node, NewTrees &out) {
    if (node.size > 0)
        out.put_many(node.size, [&](PyObject **slots) {
            return mod.core->tree_variables(node.model.as<ModelObject>(), node.size, node.ids.data(), 1, slots);
        });
}

void linear_trees(const NLNode &node, NewTrees &out) {
    Ref elements = linexpr_array(node.linear, node.model);
    for (int64_t i = 0; i < node.size; ++i)
        out.put(check(mod.core->tree_of(elements_of_array(elements)[i])));
}

void quadratic_trees(const NLNode &node, NewTrees &out) {
    Ref linear = linexpr_array(node.linear, node.model), quadratic = quadexpr_array(node.quadratic, node.model);
    for (int64_t i = 0; i < node.size; ++i)
        out.put(quadratic_tree(elements_of_array(linear)[i], elements_of_array(quadratic)[i]));
}

// ---- inner nodes ----------------------------------------------------------------------------------------------------

constexpr int64_t chunk = 4096; // children of so many elements are laid side by side at a time

void operation_trees(const NLNode &node, NewTrees &out) {
    const size_t arity = node.operands.size();
    std::vector<Walk> walks;
    std::vector<PyObject **> trees;
    for (const NodeView &operand : node.operands) {
        walks.emplace_back(operand, node.shape);
        trees.push_back(trees_of(operand));
    }
    std::vector<PyObject *> children(static_cast<size_t>(std::min(chunk, node.size)) * arity);
    for (int64_t done = 0, n; done < node.size; done += n) {
        n = std::min(chunk, node.size - done);
        auto child = children.begin();
        for (int64_t i = 0; i < n; ++i)
            for (size_t k = 0; k < arity; ++k, walks[k - 1].next())
                *child++ = trees[k][walks[k].at()];
        out.put_many(n, [&](PyObject **slots) {
            return mod.core->tree_nodes(node.op, n, static_cast<int64_t>(arity), children.data(), slots);
        });
    }
}

void sum_trees(const NLNode &node, NewTrees &out) {
    const NodeView &operand = node.operands[0];
    PyObject **trees = trees_of(operand);
    const auto outer = static_cast<std::ptrdiff_t>(node.shape.size());
    NodeView first{operand.node, operand.offset, {operand.strides.begin(), operand.strides.begin() + outer}};
    NodeView inner{operand.node, 0, {operand.strides.begin() + outer, operand.strides.end()}};
    flat::Buffer<int64_t> steps = positions(inner, node.extents);
    std::vector<PyObject *> children(static_cast<size_t>(steps.size()));
    for (Walk walk(first, node.shape); !walk.done(); walk.next()) {
        for (int64_t k = 0; k < steps.size(); ++k)
            children[static_cast<size_t>(k)] = trees[walk.at() + steps[k]];
        out.put(tree_node(TreeOp::Plus, children));
    }
}

Ref product_term(double coefficient, PyObject *tree, bool constant_first) {
    Ref constant = check(mod.core->tree_constant(coefficient));
    return constant_first ? tree_node(TreeOp::Multiply, {constant.get(), tree})
                          : tree_node(TreeOp::Multiply, {tree, constant.get()});
}

void row_trees(const NLNode &node, NewTrees &out) {
    PyObject **trees = trees_of(node.operands[0]);
    std::vector<Ref> products;
    std::vector<PyObject *> children;
    for (int64_t i = 0; i < node.size; ++i) {
        products.clear();
        children.clear();
        for (int64_t k = node.ptr[i]; k < node.ptr[i + 1]; ++k) {
            products.push_back(product_term(node.coef[k], trees[node.source[k]], node.constant_first));
            children.push_back(products.back().get());
        }
        out.put(tree_node(TreeOp::Plus, children));
    }
}

void picked_trees(const NLNode &node, NewTrees &out) {
    std::vector<int64_t> ends; // of the operands, counted on
    for (const NodeView &operand : node.operands)
        ends.push_back((ends.empty() ? 0 : ends.back()) + operand.node->size);
    for (int64_t i = 0; i < node.size; ++i) {
        auto k = std::upper_bound(ends.begin(), ends.end(), node.source[i]) - ends.begin();
        const NodeView &operand = node.operands[static_cast<size_t>(k)];
        int64_t start = ends[static_cast<size_t>(k)] - operand.node->size;
        out.put(Ref::borrow(trees_of(operand)[node.source[i] - start]));
    }
}

// ---- the whole graph ------------------------------------------------------------------------------------------------

Ref make_trees(const NLNode &node) {
    NewTrees out(node.size);
    switch (node.kind) {
    case NLNode::Numbers:
        number_trees(node, out);
        break;
    case NLNode::Variables:
        variable_trees(node, out);
        break;
    case NLNode::Linear:
        linear_trees(node, out);
        break;
    case NLNode::Quadratic:
        quadratic_trees(node, out);
        break;
    case NLNode::Trees: // has them from the beginning
        break;
    case NLNode::Operation:
        operation_trees(node, out);
        break;
    case NLNode::Sum:
        sum_trees(node, out);
        break;
    case NLNode::Rows:
        row_trees(node, out);
        break;
    case NLNode::Picked:
        picked_trees(node, out);
        break;
    }
    return out.array();
}

// Trees of single elements that exist already take the places of their copies.
void keep_some(NLNode &node, const Ref &made) {
    auto kept = std::exchange(node.some_trees, nullptr);
    if (kept)
        for (auto &[i, tree] : *kept)
            Py_SETREF(elements_of_array(made)[i], tree.release());
}

// Pushes the operands that have no trees yet; false where all have.
bool push_operands(const NLNode &node, std::vector<NodeRef> &stack) {
    size_t before = stack.size();
    for (const NodeView &operand : node.operands)
        if (!operand.node->trees)
            stack.push_back(operand.node);
    return stack.size() > before;
}

} // namespace

Ref quadratic_tree(PyObject *linexpr, PyObject *quadexpr) {
    Ref terms = check(mod.core->linexpr_terms(linexpr)), products = check(mod.core->quadexpr_terms(quadexpr));
    std::vector<PyObject *> children;
    for (PyObject *list : {terms.get(), products.get()})
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(list); ++i)
            children.push_back(PyList_GET_ITEM(list, i));
    return tree_node(TreeOp::Plus, children);
}

Ref node_trees(const NodeRef &root) {
    need_numpy();
    std::vector<NodeRef> stack{root};
    while (!stack.empty()) {
        NodeRef node = stack.back();
        if (!node->trees && push_operands(*node, stack))
            continue;
        stack.pop_back();
        if (node->trees)
            continue;
        Ref made = make_trees(*node);
        if (!node->trees) { // making them may have run Python code that looked, too
            keep_some(*node, made);
            node->trees = std::move(made);
        }
    }
    return root->trees;
}

// ---- single elements ------------------------------------------------------------------------------------------------

namespace {

struct Wanted {
    NLNode *node;
    int64_t element;
};

// NULL where it is not made yet.
PyObject *known_tree(const Wanted &wanted) {
    if (wanted.node->trees)
        return elements_of_array(wanted.node->trees)[wanted.element];
    const auto &some = wanted.node->some_trees;
    auto found = some ? some->find(wanted.element) : decltype(some->end())();
    return some && found != some->end() ? found->second.get() : nullptr;
}

// Finding the operand of a join of very many again and again would cost more than all trees.
bool is_long_join(const NLNode &node) {
    return node.kind == NLNode::Picked && node.operands.size() > 64;
}

Wanted picked_child(const NLNode &node, int64_t number) {
    size_t k = 0;
    for (; number >= node.operands[k].node->size; ++k)
        number -= node.operands[k].node->size;
    return {node.operands[k].node.get(), number};
}

// What an element's tree is made of, in order.
std::vector<Wanted> children_of(const Wanted &wanted) {
    const NLNode &node = *wanted.node;
    std::vector<Wanted> children;
    if (node.kind == NLNode::Operation)
        for (const NodeView &view : node.operands)
            children.push_back(
                {view.node.get(), ElementMap(node.shape, view.strides.data(), view.offset)(wanted.element)});
    if (node.kind == NLNode::Sum) {
        flat::Shape all = node.shape;
        all.insert(all.end(), node.extents.begin(), node.extents.end());
        const ElementMap place(all, node.operands[0].strides.data(), node.operands[0].offset);
        const int64_t extent = flat::size_of(node.extents);
        for (int64_t j = 0; j < extent; ++j)
            children.push_back({node.operands[0].node.get(), place(wanted.element * extent + j)});
    }
    if (node.kind == NLNode::Rows)
        for (int64_t k = node.ptr[wanted.element]; k < node.ptr[wanted.element + 1]; ++k)
            children.push_back({node.operands[0].node.get(), node.source[k]});
    if (node.kind == NLNode::Picked)
        children.push_back(picked_child(node, node.source[wanted.element]));
    return children;
}

// A leaf of one element of another.
NodeRef leaf_of(const NLNode &leaf, int64_t i) {
    switch (leaf.kind) {
    case NLNode::Numbers:
        return number_node(leaf.numbers.empty() ? leaf.number : leaf.numbers[i]);
    case NLNode::Variables:
        return variables_node(flat::Buffer<int32_t>::copy_of(leaf.ids.data() + i, 1), {1}, leaf.model);
    default:
        break;
    }
    flat::Form linear = flat::gathered(leaf.linear, &i, {1});
    if (!linear.summands.empty())
        linear.summands = {flat::joined(linear.summands, 1)}; // which has no variables but those of its terms
    if (leaf.kind == NLNode::Linear)
        return linear_node(std::move(linear), leaf.model);
    return quadratic_node(std::move(linear), flat::gathered(leaf.quadratic, &i, {1}), leaf.model);
}

Ref make_tree(const Wanted &wanted, const std::vector<Wanted> &made_of) {
    const NLNode &node = *wanted.node;
    if (node.operands.empty())
        return Ref::borrow(elements_of_array(make_trees(*leaf_of(node, wanted.element)))[0]);
    std::vector<Ref> owned;
    std::vector<PyObject *> children;
    for (size_t k = 0; k < made_of.size(); ++k) {
        Ref child = Ref::borrow(known_tree(made_of[k]));
        if (node.kind == NLNode::Rows)
            child = product_term(node.coef[node.ptr[wanted.element] + static_cast<int64_t>(k)], child.get(),
                                 node.constant_first);
        children.push_back(child.get());
        owned.push_back(std::move(child));
    }
    if (node.kind == NLNode::Picked)
        return std::move(owned[0]);
    return tree_node(node.kind == NLNode::Operation ? node.op : TreeOp::Plus, children);
}

void keep_tree(const Wanted &wanted, Ref tree) {
    if (known_tree(wanted)) // making it may have run Python code that looked, too
        return;
    if (!wanted.node->some_trees)
        wanted.node->some_trees = std::make_unique<std::unordered_map<int64_t, Ref>>();
    wanted.node->some_trees->emplace(wanted.element, std::move(tree));
}

Ref element_tree(const NodeRef &root, int64_t element) {
    std::vector<Wanted> stack{{root.get(), element}};
    while (!stack.empty()) {
        const Wanted wanted = stack.back();
        if (known_tree(wanted)) {
            stack.pop_back();
            continue;
        }
        if (is_long_join(*wanted.node)) {
            ++wanted.node->count; // of the reference that follows
            node_trees(NodeRef(wanted.node));
            continue;
        }
        const std::vector<Wanted> children = children_of(wanted);
        const size_t before = stack.size();
        for (const Wanted &child : children)
            if (!known_tree(child))
                stack.push_back(child);
        if (stack.size() > before)
            continue;
        stack.pop_back();
        keep_tree(wanted, make_tree(wanted, children));
    }
    return Ref::borrow(known_tree({root.get(), element}));
}

// Trees one by one cost several times what they cost in bulk: not where most of them will be made.
bool is_small_part(const NLNode &node, int64_t elements) {
    const auto made = static_cast<int64_t>(node.some_trees ? node.some_trees->size() : 0);
    return !node.trees && elements + made < node.size / 8;
}

} // namespace

Ref view_trees(const NodeView &view, const flat::Shape &shape) {
    need_numpy();
    const int64_t size = flat::size_of(shape);
    const bool some = is_small_part(*view.node, size);
    Ref all = some ? Ref() : node_trees(view.node);
    NewTrees out(size);
    for (Walk walk(view, shape); !walk.done(); walk.next())
        out.put(some ? element_tree(view.node, walk.at()) : Ref::borrow(elements_of_array(all)[walk.at()]));
    return out.array();
}

} // namespace tarvopy
