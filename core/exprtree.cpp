// The type _ExprTree: making, freeing and looking at nodes.
#include "exprtree.h"

#include "term_lists.h"

namespace tarvopy::core {

namespace {

constexpr TreeOpInfo infos[tree_op_count] = {
    {"constant", 0}, {"plus", -1}, {"minus", 2}, {"multiply", 2}, {"divide", 2}, {"pow", 2},      {"uminus", 1},
    {"square", 1},   {"sqrt", 1},  {"exp", 1},   {"log", 1},      {"log2", 1},   {"log10", 1},    {"sin", 1},
    {"cos", 1},      {"tan", 1},   {"tanh", 1},  {"logistic", 1}, {"abs", 1},    {"variable", 0},
};

static_assert(static_cast<int>(TreeOp::Plus) == TRV_NL_SUM && static_cast<int>(TreeOp::Pow) == TRV_NL_POW &&
                  static_cast<int>(TreeOp::Uminus) == TRV_NL_UMINUS && static_cast<int>(TreeOp::Sqrt) == TRV_NL_SQRT &&
                  static_cast<int>(TreeOp::Log10) == TRV_NL_LOG10 && static_cast<int>(TreeOp::Abs) == TRV_NL_ABS &&
                  static_cast<int>(TreeOp::Variable) == TRV_NL_OPERATIONS,
              "trees and the store's tapes number the operations alike");

constexpr size_t size_with(Py_ssize_t slots) {
    return offsetof(ExprTreeObject, slots) + static_cast<size_t>(slots) * sizeof(ExprTreeObject::Slot);
}

// The slots are still empty.
ExprTreeObject *allocate(TreeOp op, Py_ssize_t children) {
    auto *self = static_cast<ExprTreeObject *>(PyObject_Malloc(size_with(std::max<Py_ssize_t>(children, 1))));
    if (!self)
        throw std::bad_alloc();
    PyObject_InitVar(reinterpret_cast<PyVarObject *>(self), state.ExprTree, children);
    self->op = op;
    ++counts.trees;
    return self;
}

Ref owned(ExprTreeObject *tree) {
    return Ref::steal(as_object(tree));
}

// ---- freeing

// A dead node on the way to being freed: nobody reads its reference count any more, which holds the next one.
ExprTreeObject *next_dead(const ExprTreeObject *node) {
    return reinterpret_cast<ExprTreeObject *>(node->ob_base.ob_base.ob_refcnt);
}
void set_next_dead(ExprTreeObject *node, ExprTreeObject *next) {
    node->ob_base.ob_base.ob_refcnt = reinterpret_cast<Py_ssize_t>(next);
}
static_assert(sizeof(Py_ssize_t) == sizeof(ExprTreeObject *));

// Children that nobody else holds join the chain instead of being freed from here, one inside the other.
void tree_dealloc(PyObject *object) {
    auto *chain = reinterpret_cast<ExprTreeObject *>(object);
    set_next_dead(chain, nullptr);
    while (chain) {
        ExprTreeObject *node = chain;
        chain = next_dead(node);
        for (Py_ssize_t i = 0; i < node->child_count(); ++i) {
            PyObject *child = node->slots[i].object;
            if (Py_REFCNT(child) > 1) {
                Py_DECREF(child);
            } else {
                auto *dead = reinterpret_cast<ExprTreeObject *>(child);
                set_next_dead(dead, chain);
                chain = dead;
            }
        }
        PyObject *var = node->op == TreeOp::Variable ? node->slots[0].object : nullptr;
        PyObject_Free(node);
        --counts.trees;
        Py_XDECREF(var); // may end the model and run Python code, which cannot reach the chain
        Py_DECREF(state.ExprTree);
    }
}

// ---- members

PyObject *get_op(PyObject *self, void *) {
    return PyUnicode_InternFromString(info_of(as_tree(self)->op).name);
}

PyObject *get_args(PyObject *object, void *) {
    const ExprTreeObject *self = as_tree(object);
    PyObject *args = PyTuple_New(self->child_count());
    for (Py_ssize_t i = 0; args && i < self->child_count(); ++i)
        PyTuple_SET_ITEM(args, i, Py_NewRef(self->slots[i].object));
    return args;
}

PyObject *get_data(PyObject *object, void *) {
    const ExprTreeObject *self = as_tree(object);
    if (self->op == TreeOp::Constant)
        return PyFloat_FromDouble(self->slots[0].number);
    return Py_NewRef(self->op == TreeOp::Variable ? self->slots[0].object : Py_None);
}

PyObject *get_sizeof(PyObject *self, PyObject *) {
    return PyLong_FromSize_t(size_with(std::max<Py_ssize_t>(as_tree(self)->child_count(), 1)));
}

PyObject *return_self(PyObject *self, PyObject *) {
    return Py_NewRef(self);
}

PyObject *refuse_pickling(PyObject *, PyObject *) {
    PyErr_SetString(PyExc_TypeError,
                    "cannot pickle 'tarvopy._ExprTree' object: its variables belong to a model of this process");
    return nullptr;
}

PyObject *tree_str(PyObject *self) {
    return border([&] { return text_object(infix_text(as_tree(self))); });
}

PyObject *tree_repr(PyObject *self) {
    return PyUnicode_FromFormat("<_ExprTree %s>", info_of(as_tree(self)->op).name);
}

PyObject *from_constant(PyObject *, PyObject *value) {
    return border([&] { return constant_tree(finite_constant(value)); });
}

PyObject *from_var(PyObject *, PyObject *var) {
    return border([&] {
        if (!is_var(var))
            fail(PyExc_TypeError, "_from_var() takes a Var, not '%.200s'", Py_TYPE(var)->tp_name);
        return variable_tree(var);
    });
}

Operand linexpr_operand(PyObject *object, const char *function) {
    if (!is_linexpr(object))
        fail(PyExc_TypeError, "%s() takes a LinExpr, not '%.200s'", function, Py_TYPE(object)->tp_name);
    return {OperandKind::LinExpr, object};
}
Operand quadexpr_operand(PyObject *object, const char *function) {
    if (!is_quadexpr(object))
        fail(PyExc_TypeError, "%s() takes a QuadExpr, not '%.200s'", function, Py_TYPE(object)->tp_name);
    return {OperandKind::QuadExpr, object};
}

PyObject *from_linexpr(PyObject *, PyObject *expr) {
    return border([&] { return tree_of(linexpr_operand(expr, "_from_linexpr")); });
}
PyObject *from_quadexpr(PyObject *, PyObject *expr) {
    return border([&] { return tree_of(quadexpr_operand(expr, "_from_quadexpr")); });
}
PyObject *linexpr_terms(PyObject *, PyObject *expr) {
    return border([&] { return term_trees(linexpr_operand(expr, "_linexpr_terms")); });
}
PyObject *quadexpr_terms(PyObject *, PyObject *expr) {
    return border([&] { return term_trees(quadexpr_operand(expr, "_quadexpr_terms")); });
}

template <TreeOp op> PyObject *from_children(PyObject *, PyObject *const *args, Py_ssize_t nargs) {
    return border([&] { return checked_node(op, args, nargs); });
}

template <TreeOp op> constexpr PyMethodDef builder(const char *name, const char *doc) {
    return {name, method(from_children<op>), METH_FASTCALL | METH_STATIC, doc};
}
#define TARVOPY_UNARY_BUILDER(Name, name)                                                                              \
    builder<TreeOp::Name>("_from_" name, "_from_" name "(tree, /)\n--\n\nThe node " name "(tree).")

PyMethodDef methods[] = {
    {"_from_constant", from_constant, METH_O | METH_STATIC,
     "_from_constant(value, /)\n--\n\nThe leaf of a finite number."},
    {"_from_var", from_var, METH_O | METH_STATIC, "_from_var(var, /)\n--\n\nThe leaf of a variable."},
    {"_from_linexpr", from_linexpr, METH_O | METH_STATIC,
     "_from_linexpr(expr, /)\n--\n\nThe sum of a LinExpr's terms; one term alone, or the constant 0, without a sum."},
    {"_from_quadexpr", from_quadexpr, METH_O | METH_STATIC,
     "_from_quadexpr(expr, /)\n--\n\nThe sum of a QuadExpr's terms, its linear part first."},
    {"_linexpr_terms", linexpr_terms, METH_O | METH_STATIC,
     "_linexpr_terms(expr, /)\n--\n\nThe trees of a LinExpr's terms, a constant other than 0 last."},
    {"_quadexpr_terms", quadexpr_terms, METH_O | METH_STATIC,
     "_quadexpr_terms(expr, /)\n--\n\nThe trees of a QuadExpr's terms, its linear part first."},
    builder<TreeOp::Plus>("_from_plus", "_from_plus(*trees)\n--\n\nThe sum of the trees: of one that tree itself, of "
                                        "none the constant 0."),
    builder<TreeOp::Minus>("_from_minus", "_from_minus(left, right, /)\n--\n\nThe node left - right."),
    builder<TreeOp::Multiply>("_from_multiply", "_from_multiply(left, right, /)\n--\n\nThe node left * right."),
    builder<TreeOp::Divide>("_from_divide", "_from_divide(left, right, /)\n--\n\nThe node left / right."),
    builder<TreeOp::Pow>("_from_pow", "_from_pow(base, exponent, /)\n--\n\nThe node base ** exponent."),
    TARVOPY_UNARY_BUILDER(Uminus, "uminus"),
    TARVOPY_UNARY_BUILDER(Square, "square"),
    TARVOPY_UNARY_BUILDER(Sqrt, "sqrt"),
    TARVOPY_UNARY_BUILDER(Exp, "exp"),
    TARVOPY_UNARY_BUILDER(Log, "log"),
    TARVOPY_UNARY_BUILDER(Log2, "log2"),
    TARVOPY_UNARY_BUILDER(Log10, "log10"),
    TARVOPY_UNARY_BUILDER(Sin, "sin"),
    TARVOPY_UNARY_BUILDER(Cos, "cos"),
    TARVOPY_UNARY_BUILDER(Tan, "tan"),
    TARVOPY_UNARY_BUILDER(Tanh, "tanh"),
    TARVOPY_UNARY_BUILDER(Logistic, "logistic"),
    TARVOPY_UNARY_BUILDER(Abs, "abs"),
    {"__copy__", return_self, METH_NOARGS, nullptr},
    {"__deepcopy__", return_self, METH_O, nullptr},
    {"__reduce_ex__", refuse_pickling, METH_O, nullptr},
    {"__sizeof__", get_sizeof, METH_NOARGS, nullptr},
    {}};

PyGetSetDef properties[] = {
    {"op", get_op, nullptr, "The operation: \"constant\", \"variable\", \"plus\", \"multiply\", \"exp\", ...", nullptr},
    {"args", get_args, nullptr, "The operands, a tuple of trees; empty for a leaf.", nullptr},
    {"data", get_data, nullptr, "The number of a constant, the Var of a variable, else None.", nullptr},
    {}};

PyType_Slot slots[] = {{Py_tp_doc, const_cast<char *>("A node of an expression tree; it never changes.")},
                       {Py_tp_dealloc, slot(tree_dealloc)},
                       {Py_tp_methods, methods},
                       {Py_tp_getset, properties},
                       {Py_tp_str, slot(tree_str)},
                       {Py_tp_repr, slot(tree_repr)},
                       {}};

PyType_Spec spec = {"tarvopy._ExprTree", static_cast<int>(offsetof(ExprTreeObject, slots)),
                    sizeof(ExprTreeObject::Slot),
                    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION | Py_TPFLAGS_IMMUTABLETYPE, slots};

} // namespace

const TreeOpInfo &info_of(TreeOp op) {
    return infos[static_cast<int>(op)];
}

Ref constant_tree(double value) {
    ExprTreeObject *self = allocate(TreeOp::Constant, 0);
    self->slots[0].number = value;
    return owned(self);
}

Ref variable_tree(PyObject *var) {
    ExprTreeObject *self = allocate(TreeOp::Variable, 0);
    self->slots[0].object = Py_NewRef(var);
    return owned(self);
}

Ref node_over(TreeOp op, std::span<PyObject *const> children) {
    ExprTreeObject *self = allocate(op, static_cast<Py_ssize_t>(children.size()));
    for (size_t i = 0; i < children.size(); ++i)
        self->slots[i].object = Py_NewRef(children[i]);
    return owned(self);
}

Ref sum_tree(std::span<PyObject *const> terms) {
    if (terms.empty())
        return constant_tree(0.0);
    return terms.size() == 1 ? Ref::borrow(terms[0]) : node_over(TreeOp::Plus, terms);
}

const ExprTreeObject *checked_tree(PyObject *object) {
    if (!is_tree(object))
        fail(PyExc_TypeError, "an _ExprTree is needed, not '%.200s'", Py_TYPE(object)->tp_name);
    return as_tree(object);
}

Ref checked_node(TreeOp op, PyObject *const *children, Py_ssize_t n) {
    const TreeOpInfo &info = info_of(op);
    if (info.children >= 0 && n != info.children)
        fail(PyExc_TypeError, "_from_%s() takes exactly %d positional argument%s (%zd given)", info.name, info.children,
             info.children == 1 ? "" : "s", n);
    for (Py_ssize_t i = 0; i < n; ++i)
        checked_tree(children[i]);
    std::span<PyObject *const> given(children, static_cast<size_t>(n));
    return op == TreeOp::Plus ? sum_tree(given) : node_over(op, given);
}

int builder_operation(PyObject *callable) {
    constexpr std::string_view prefix = "_from_";
    if (!PyCFunction_CheckExact(callable))
        return -1;
    for (const PyMethodDef *row = methods; row->ml_name; ++row)
        if (row->ml_meth == PyCFunction_GET_FUNCTION(callable) && std::string_view(row->ml_name).starts_with(prefix))
            for (int op = 0; op < tree_op_count; ++op)
                if (std::string_view(row->ml_name).substr(prefix.size()) == infos[op].name)
                    return op;
    return -1;
}

void add_exprtree_type(PyObject *module) {
    state.ExprTree = make_type(module, &spec, "_ExprTree");
}

} // namespace tarvopy::core
