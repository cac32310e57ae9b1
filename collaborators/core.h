// What the siblings know of tarvopy._core: the native layouts of the scalar objects and the functions behind them.
//
// _core exports one CoreApi in a capsule named "tarvopy._core._C_API" (attribute `_C_API` of the module);
// CoreApi::load() fetches it and refuses a version or a layout other than this header's. All functions follow the
// C-API's habits: NULL or -1 with the error indicator set, results are new references, arguments are borrowed.
#pragma once

#include "pysupport/error.h"
#include "tarvo.h"

namespace tarvopy {

// What keeps everybody else away from a model.
constexpr int being_solved = 1, in_file = 2;

// The model handle: owner of the store. Everything of one model holds a reference to the same handle; identity of
// handles is identity of models. `store` is NULL once the model was closed.
struct ModelObject {
    PyObject_HEAD TRVmodel *store;
    // Tables of borrowed pointers to the living scalar objects, by id (core/'s own business).
    void *tables;
    // Not 0 while an engine runs on this model (being_solved), or a file is read or written (in_file): other threads, a
    // second Ctrl-C and handlers of signals may come in, and are refused by CoreApi::store, as is every attribute read.
    // Whoever runs the engine works on the store pointer it took before, and clears the flag before it reads anything
    // through Python objects.
    int solving;
    PyObject *weakrefs;
    // So many elements are about to be added: their objects may be made already (modelapi/new_handle.h).
    int64_t ahead;
};

// Var, Constr, QConstr, GenConstr, NLConstr: one object per id while it lives; no __dict__, no collector.
struct ScalarObject {
    PyObject_HEAD ModelObject *cmodel; // owned
    int32_t id;
};
using VarObject = ScalarObject;

// coeffs and vars have equal length; coeffs holds exact Python floats, vars holds VarObjects. Nobody hands these lists
// to Python code, so they stay outside the collector.
struct LinExprObject {
    PyObject_HEAD double constant;
    PyObject *coeffs; // list of float
    PyObject *vars;   // list of Var
};

// A quadratic expression: three term lists of equal length and its own linear part. The lists are as LinExpr's: exact
// floats and Vars, outside the collector, never handed to Python code.
//
// Terms stand as they were appended. A product of sums appends left-major: (a + b) * (c + d) has the terms ac ad bc bd,
// and its linear part first the left side's terms times the right constant, then the right side's times the left one; a
// constant of zero appends nothing.
struct QuadExprObject {
    PyObject_HEAD PyObject *linear; // LinExpr, or NULL while it is zero and nobody has asked for it
    PyObject *coeffs;               // list of float
    PyObject *vars1;                // list of Var
    PyObject *vars2;                // list of Var
};

// What a node of an expression tree does. The operations have the numbers that they have in the store's tapes; Variable
// comes after them.
enum class TreeOp : int32_t {
    Constant,
    Plus, // of two or more
    Minus,
    Multiply,
    Divide,
    Pow,
    Uminus,
    Square,
    Sqrt,
    Exp,
    Log,
    Log2,
    Log10,
    Sin,
    Cos,
    Tan,
    Tanh,
    Logistic,
    Abs,
    Variable,
};
constexpr int tree_op_count = 20;

// A node of an expression tree: immutable, shared freely, outside the collector (a node refers to nodes and variables,
// and is made after what it refers to). ob_size is the number of children.
// Leaves, unary and binary nodes take 48 bytes, further children 8 each.
struct ExprTreeObject {
    PyObject_VAR_HEAD TreeOp op;
    union Slot {
        double number;    // of a Constant, which has one slot and no children
        PyObject *object; // owned: the Var of a Variable (one slot, no children), else a child, an ExprTreeObject
    } slots[1];

    Py_ssize_t child_count() const { return ob_base.ob_size; }
    const ExprTreeObject *child(Py_ssize_t i) const {
        return reinterpret_cast<const ExprTreeObject *>(slots[i].object);
    }
};

// A nonlinear expression: the mutable holder of a tree.
struct NLExprObject {
    PyObject_HEAD PyObject *root; // owned, an ExprTreeObject
};

struct TempConstrObject {
    PyObject_HEAD PyObject *lhs;
    PyObject *sense; // one of the TRV senses, as given
    PyObject *rhs;
};

// A general function of its arguments (genfunc.max(x, 3.0)): immutable. args holds what was given, in the function's
// own order; axis is None, or a tuple of ints, the axes of the one array argument over which the function goes.
struct GenExprObject {
    PyObject_HEAD int type; // TRV_GEN_MAX, ...; AND is `all`, OR is `any`
    PyObject *args;
    PyObject *axis;
};

// The table that a sibling exports as its attribute `_C_API`; imports the sibling (PyCapsule_Import alone does not
// import submodules).
inline void *import_table(const char *module_name, const char *capsule_name) {
    using pysupport::Ref;
    Ref module = Ref::steal(PyImport_ImportModule(module_name));
    Ref capsule = module ? Ref::steal(PyObject_GetAttrString(module.get(), "_C_API")) : Ref();
    return capsule ? PyCapsule_GetPointer(capsule.get(), capsule_name) : nullptr;
}

struct CoreApi {
    int version;
    Py_ssize_t linexpr_size, quadexpr_size, exprtree_size, nlexpr_size;

    PyTypeObject *Model, *Var, *Constr, *QConstr, *GenConstr, *NLConstr;
    PyTypeObject *LinExpr, *QuadExpr, *TempConstr, *NLExpr, *GenExpr, *ExprTree;
    PyObject *TarvoError;

    // ---- the model handle
    // The store of a handle, or TarvoError (CLOSED) / TypeError for another object / the refusal while an engine runs.
    TRVmodel *(*store)(PyObject *handle);
    // Raises what a failed store call left: TarvoError(code, text), NoDataError for NO_DATA, AttributeError for unknown
    // attributes, MemoryError. Always returns -1.
    int (*raise)(TRVmodel *store, int code);
    // TarvoError(code, message); message is UTF-8. Always returns -1.
    int (*raise_error)(int code, const char *message);

    // ---- scalar handles by id
    // kind: TRV_VAR, TRV_CONSTR, ...
    PyObject *(*scalar)(ModelObject *model, int kind, int32_t id);
    // out receives n new references; on failure none. ids has a step in elements.
    int (*scalars)(ModelObject *model, int kind, int64_t n, const int32_t *ids, int64_t step, PyObject **out);

    // ---- LinExpr in bulk
    PyObject *(*linexpr_new)(double constant);
    // One LinExpr per row: terms coef[ptr[i] - ptr[0] ...] (coef NULL: `scale` each), constants[i] (NULL: 0). Float and
    // Var objects are shared where values repeat. out receives nrows new references; on failure none.
    int (*linexprs)(ModelObject *model, int64_t nrows, const int64_t *ptr, const int32_t *ids, const double *coef,
                    double scale, const double *constants, PyObject **out);
    // self += mult * other (Var, LinExpr or number); self may be other. Refuses non-finite mult and numbers.
    int (*linexpr_add)(PyObject *self, PyObject *other, double mult);
    int (*linexpr_scale)(PyObject *self, double factor); // self *= factor
    PyObject *(*linexpr_copy)(PyObject *self);
    int (*linexpr_clear)(PyObject *self);
    int (*linexpr_normalize)(PyObject *self);
    int (*linexpr_assign)(PyObject *self, PyObject *other); // self takes over the contents of a copy of other

    // ---- QuadExpr in bulk
    PyObject *(*quadexpr_new)(void); // zero
    // One QuadExpr per row, without linear parts: terms ptr[i] - ptr[0] ... of ids1, ids2 and coef (NULL: `scale`
    // each). Float and Var objects are shared where values repeat. out receives nrows new references; on failure none.
    int (*quadexprs)(ModelObject *model, int64_t nrows, const int64_t *ptr, const int32_t *ids1, const int32_t *ids2,
                     const double *coef, double scale, PyObject **out);
    // The linear part by reference (borrowed; made if there is none yet).
    PyObject *(*quadexpr_linear)(PyObject *self);
    // self += mult * other (Var, LinExpr, QuadExpr or number); self may be other.
    int (*quadexpr_add)(PyObject *self, PyObject *other, double mult);
    int (*quadexpr_scale)(PyObject *self, double factor); // self *= factor
    PyObject *(*quadexpr_copy)(PyObject *self);
    int (*quadexpr_clear)(PyObject *self); // linear part included
    int (*quadexpr_normalize)(
        PyObject *self); // merges pairs (either order, first occurrence keeps its place and order)
    int (*quadexpr_assign)(PyObject *self, PyObject *other); // self takes over the contents of a copy of other

    // ---- expression trees and NLExpr
    PyObject *(*tree_constant)(double value); // refuses infinity and NaN
    // out receives n new leaves; ids has a step in elements. On failure none.
    int (*tree_variables)(ModelObject *model, int64_t n, const int32_t *ids, int64_t step, PyObject **out);
    // The tree of a number, Var, LinExpr, QuadExpr or NLExpr; a tree itself.
    PyObject *(*tree_of)(PyObject *operand);
    // Lists of the trees of a LinExpr's or QuadExpr's terms, the constant last among the linear ones, which come first.
    PyObject *(*linexpr_terms)(PyObject *linexpr);
    PyObject *(*quadexpr_terms)(PyObject *quadexpr);
    // A node over n trees, as many as the operation takes. A Plus of one is that one, of none the constant 0.
    PyObject *(*tree_node)(TreeOp op, int64_t n, PyObject *const *children);
    // count nodes of the same operation and number of children each, which stand node by node. On failure none.
    int (*tree_nodes)(TreeOp op, int64_t count, int64_t n, PyObject *const *children, PyObject **out);
    // The value at the last solution.
    int (*tree_value)(PyObject *tree, double *value);
    PyObject *(*nlexpr_new)(PyObject *tree);
    int (*nlexprs)(int64_t count, PyObject *const *trees, PyObject **out); // on failure none
    int (*nlexpr_set_root)(PyObject *self, PyObject *tree);

    // ---- others
    PyObject *(*tempconstr)(PyObject *lhs, PyObject *sense, PyObject *rhs);
    // The operation of which a callable is the builder (_ExprTree._from_plus, ...), -1 for any other object.
    int (*tree_builder)(PyObject *callable);

    static const CoreApi *load() {
        auto *api = static_cast<const CoreApi *>(import_table("tarvopy._core", "tarvopy._core._C_API"));
        if (api && (api->version != current_version || api->linexpr_size != sizeof(LinExprObject) ||
                    api->quadexpr_size != sizeof(QuadExprObject) || api->exprtree_size != sizeof(ExprTreeObject) ||
                    api->nlexpr_size != sizeof(NLExprObject))) {
            PyErr_SetString(PyExc_ValueError,
                            "tarvopy._core has a layout other than the one this module was built against");
            return nullptr;
        }
        return api;
    }
    static constexpr int current_version = 4;
};

} // namespace tarvopy
