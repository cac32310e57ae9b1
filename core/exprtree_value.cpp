// The value of an expression tree at the last solution, without recursion: the tree is laid out as steps in postfix
// order, which a stack of numbers runs through. A node with several holders may be met again, so it stands among the
// steps once and is looked up afterwards: a tree that was doubled sixty times has sixty steps, not 2^60.
#include "exprtree.h"

#include "term_lists.h"

#include "collaborators/operation_values.h"

#include <unordered_map>

namespace tarvopy::core {

namespace {

struct Step {
    const ExprTreeObject *node;
    int64_t shared; // where the value of a shared node is kept, -1 for others
    bool again;     // the value is there already
};

class Steps {
  public:
    explicit Steps(const ExprTreeObject *root) {
        enter(root);
        while (!open_.empty()) {
            Open &top = open_.back();
            if (top.next < top.node->child_count()) {
                enter(top.node->child(top.next++));
            } else {
                leave(top.node);
                open_.pop_back();
            }
        }
    }
    std::vector<Step> list;
    size_t shared_count() const { return places_.size(); }

  private:
    struct Open {
        const ExprTreeObject *node;
        Py_ssize_t next;
    };
    void enter(const ExprTreeObject *node) {
        if (node->child_count() == 0) {
            list.push_back({node, -1, false});
        } else if (auto place = is_shared(node) ? places_.find(node) : places_.end(); place != places_.end()) {
            list.push_back({node, place->second, true});
        } else {
            open_.push_back({node, 0});
        }
    }
    void leave(const ExprTreeObject *node) {
        int64_t place = -1;
        if (is_shared(node)) {
            place = static_cast<int64_t>(places_.size());
            places_.emplace(node, place);
        }
        list.push_back({node, place, false});
    }
    static bool is_shared(const ExprTreeObject *node) { return Py_REFCNT(as_object(node)) > 1; }

    std::vector<Open> open_;
    std::unordered_map<const ExprTreeObject *, int64_t> places_;
};

// args: the children's values, at least one.
double value_of_children(TreeOp op, std::span<const double> args) {
    if (op != TreeOp::Plus)
        return operation_value(op, args[0], args[args.size() - 1]);
    double total = args[0];
    for (double term : args.subspan(1))
        total += term;
    return total;
}

std::vector<double> values_of_variables(const std::vector<Step> &steps) {
    std::vector<PyObject *> vars;
    for (const Step &step : steps)
        if (step.node->op == TreeOp::Variable)
            vars.push_back(step.node->slots[0].object);
    return solution_of(vars);
}

double run(const Steps &steps) {
    std::vector<double> x = values_of_variables(steps.list), shared(steps.shared_count()), stack;
    auto next_x = x.begin();
    for (const auto &[node, place, again] : steps.list) {
        if (again) {
            stack.push_back(shared[static_cast<size_t>(place)]);
        } else if (node->op == TreeOp::Variable) {
            stack.push_back(*next_x++);
        } else if (node->op == TreeOp::Constant) {
            stack.push_back(node->slots[0].number);
        } else {
            size_t left = stack.size() - static_cast<size_t>(node->child_count());
            double value = value_of_children(node->op, std::span(stack).subspan(left));
            stack.resize(left + 1);
            stack[left] = value;
            if (place >= 0)
                shared[static_cast<size_t>(place)] = value;
        }
    }
    return stack.back();
}

} // namespace

double value_of(const ExprTreeObject *root) {
    Ref held = Ref::borrow(as_object(root));
    return run(Steps(root));
}

} // namespace tarvopy::core
