// What every file of this module shares: the types, the exceptions and the few constant objects, filled once when the
// module is executed.
#pragma once

#include "collaborators/core.h"

namespace tarvopy::core {

using pysupport::border;
using pysupport::border_status;
using pysupport::check;
using pysupport::check_status;
using pysupport::clear_slots;
using pysupport::fail;
using pysupport::fill_slots;
using pysupport::PythonError;
using pysupport::Ref;

struct State {
    PyTypeObject *Model, *Var, *Constr, *QConstr, *GenConstr, *NLConstr;
    PyTypeObject *LinExpr, *QuadExpr, *TempConstr, *NLExpr, *GenExpr, *ExprTree;
    PyObject *TarvoError, *NoDataError;
    PyObject *less_equal, *greater_equal, *equal; // the senses, as in TRV
    PyObject *one;                                // the coefficient of a variable on its own
    PyObject *zero;
};
extern State state;

// Living objects, for tests that promise that none are made.
struct Counts {
    Py_ssize_t vars, constrs, linexprs, quadexprs, trees, nlexprs;
};
extern Counts counts;

inline PyObject *as_object(void *object) {
    return static_cast<PyObject *>(object);
}
inline bool is_var(PyObject *object) {
    return Py_TYPE(object) == state.Var;
}
inline bool is_linexpr(PyObject *object) {
    return Py_TYPE(object) == state.LinExpr;
}

inline bool is_quadexpr(PyObject *object) {
    return Py_TYPE(object) == state.QuadExpr;
}
inline bool is_nlexpr(PyObject *object) {
    return Py_TYPE(object) == state.NLExpr;
}
inline bool is_genexpr(PyObject *object) {
    return Py_TYPE(object) == state.GenExpr;
}
inline bool is_tree(PyObject *object) {
    return Py_TYPE(object) == state.ExprTree;
}

// The slots of a type specification hold void pointers for functions too.
template <class Function> void *slot(Function *function) {
    return reinterpret_cast<void *>(function);
}

// PyMethodDef has one field for functions of every calling convention.
template <class Function> PyCFunction method(Function *function) {
    return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function));
}

// ---- errors (errors.cpp)
// TarvoError(code, message).
void set_error(int code, PyObject *message);
[[noreturn]] void fail_code(int code, const char *format, ...);
int raise_code(int code, const char *message); // -1
// What a failed store call left.
int raise_store(TRVmodel *store, int code); // -1
inline void check_store(TRVmodel *store, int code) {
    if (code != TRV_OK) {
        raise_store(store, code);
        throw PythonError{};
    }
}

// ---- types, one function per file that defines them
PyTypeObject *make_type(PyObject *module, PyType_Spec *spec, const char *name);
void add_model_type(PyObject *module);
void add_scalar_types(PyObject *module);
void add_linexpr_type(PyObject *module);
void add_quadexpr_type(PyObject *module);
void add_tempconstr_type(PyObject *module);
void add_exprtree_type(PyObject *module);
void add_nlexpr_type(PyObject *module);
void add_nlfunctions(PyObject *module);
void add_genexpr_type(PyObject *module);
void add_api(PyObject *module);

Ref new_tempconstr(PyObject *lhs, PyObject *sense, PyObject *rhs);

PyObject *quicksum(PyObject *module, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames);

} // namespace tarvopy::core
