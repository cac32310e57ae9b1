// The functions of tarvopy.nlfunc, here under their names with an underscore before them. A scalar operand becomes an
// NLExpr; a matrix operand becomes an MNLExpr, whose own elementwise dispatch goes on.
#include "nlexpr.h"

namespace tarvopy::core {

namespace {

struct MatrixForm {
    const char *cls, *maker; // maker: the class method of MNLExpr that takes the class; NULL for an MNLExpr itself
};
constexpr MatrixForm matrix_forms[] = {
    {"MVar", "_from_mvar"}, {"MLinExpr", "_from_mlinexpr"}, {"MQuadExpr", "_from_mquadexpr"}, {"MNLExpr", nullptr}};

bool is_instance(PyObject *object, const Ref &module, const char *cls_name) {
    Ref cls = check(PyObject_GetAttrString(module.get(), cls_name));
    return check_status(PyObject_IsInstance(object, cls.get())) == 1;
}

// Empty for what is no matrix object. Nobody has one before their module is imported.
Ref as_nonlinear_matrix(PyObject *object) {
    Ref module = Ref::borrow(PyDict_GetItemString(PyImport_GetModuleDict(), "tarvopy._matrixapi"));
    if (!module)
        return {};
    for (auto [cls, maker] : matrix_forms) {
        if (!is_instance(object, module, cls))
            continue;
        if (!maker)
            return Ref::borrow(object);
        Ref nonlinear = check(PyObject_GetAttrString(module.get(), "MNLExpr"));
        return check(PyObject_CallMethod(nonlinear.get(), maker, "O", object));
    }
    return {};
}

// What to write instead, for what looks like an operand.
const char *advice_for(PyObject *object) {
    if (classify(object).kind == OperandKind::Array || PyList_Check(object) || PyTuple_Check(object))
        return ": NumPy's functions take arrays of numbers; tarvopy.hstack([array]) makes an expression of an array of "
               "variables or expressions";
    if (Py_TYPE(object) == state.GenExpr)
        return ": add a variable v with addConstr(v == genfunc...) and use v";
    return "";
}

Ref apply_to_matrix(TreeOp op, PyObject *object) {
    const char *name = info_of(op).name;
    Ref matrix = as_nonlinear_matrix(object);
    if (!matrix)
        fail(PyExc_TypeError, "nlfunc.%s() takes numbers and expressions, not '%.200s'%s", name,
             Py_TYPE(object)->tp_name, advice_for(object));
    std::string builder_name = std::string("_from_") + name;
    Ref builder = check(PyObject_GetAttrString(as_object(state.ExprTree), builder_name.c_str()));
    return check(PyObject_CallMethod(matrix.get(), "_dispatch_unary_op", "O", builder.get()));
}

template <TreeOp op> PyObject *apply(PyObject *, PyObject *object) {
    return border([&] {
        Operand operand = classify(object);
        if (operand.kind == OperandKind::Foreign || operand.kind == OperandKind::Array)
            return apply_to_matrix(op, object);
        return make_nlexpr(unary_node(op, tree_of(operand)));
    });
}

#define TARVOPY_NLFUNCTION(Name, name, meaning)                                                                        \
    {name, apply<TreeOp::Name>, METH_O,                                                                                \
     name "(x, /)\n--\n\n" meaning " of a number, variable or expression, scalar or matrix, as a nonlinear "           \
          "expression: NLExpr, or elementwise MNLExpr of the same shape."}

PyMethodDef functions[] = {
    TARVOPY_NLFUNCTION(Exp, "exp", "e to the power"),
    TARVOPY_NLFUNCTION(Log, "log", "The natural logarithm"),
    TARVOPY_NLFUNCTION(Log2, "log2", "The logarithm to base 2"),
    TARVOPY_NLFUNCTION(Log10, "log10", "The logarithm to base 10"),
    TARVOPY_NLFUNCTION(Sqrt, "sqrt", "The square root"),
    TARVOPY_NLFUNCTION(Sin, "sin", "The sine (radians)"),
    TARVOPY_NLFUNCTION(Cos, "cos", "The cosine (radians)"),
    TARVOPY_NLFUNCTION(Tan, "tan", "The tangent (radians)"),
    TARVOPY_NLFUNCTION(Tanh, "tanh", "The hyperbolic tangent"),
    TARVOPY_NLFUNCTION(Logistic, "logistic", "The logistic function 1 / (1 + exp(-x))"),
    TARVOPY_NLFUNCTION(Abs, "abs", "The absolute value"),
};

} // namespace

void add_nlfunctions(PyObject *module) {
    Ref home = check(PyUnicode_FromString("tarvopy.nlfunc"));
    for (PyMethodDef &definition : functions) {
        Ref function = check(PyCFunction_NewEx(&definition, nullptr, home.get()));
        std::string name = std::string("_") + definition.ml_name;
        check_status(PyModule_AddObjectRef(module, name.c_str(), function.get()));
    }
}

} // namespace tarvopy::core
