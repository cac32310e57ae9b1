// The type LinExpr: construction, methods, value and text.
#include "expression_methods.h"

#include "pysupport/args.h"
#include "scalars.h"

#include <string>

namespace tarvopy::core {

using pysupport::Arguments;
using pysupport::Signature;

namespace {

Operand linear_operand(PyObject *object, const char *function) {
    Operand operand = classify(object);
    if (operand.kind != OperandKind::Number && !operand.is_linear())
        fail(PyExc_TypeError, "%.200s takes a number, a Var or a LinExpr, not '%.200s'", function,
             Py_TYPE(object)->tp_name);
    return operand;
}

// ---- methods

PyObject *linexpr_new(PyTypeObject *, PyObject *args, PyObject *kwargs) {
    return border([&] {
        static const char *keywords[] = {"arg", "vars", "coeffs", nullptr};
        PyObject *arg = nullptr, *vars = nullptr, *coeffs = nullptr;
        if (!PyArg_ParseTupleAndKeywords(args, kwargs, "|OO$O:LinExpr", const_cast<char **>(keywords), &arg, &vars,
                                         &coeffs))
            throw PythonError{};
        if (coeffs && (arg || !vars))
            fail(PyExc_TypeError, "LinExpr() takes coeffs together with vars and with nothing else");
        if (coeffs)
            arg = coeffs;
        if (vars == Py_None)
            vars = nullptr;
        if (!arg && vars)
            fail(PyExc_TypeError, "LinExpr() takes variables behind their coefficients: LinExpr(coeffs, vars)");
        if (!arg)
            return empty_linexpr(0.0);
        if (!vars)
            return scaled(linear_operand(arg, "LinExpr()"), {1.0, false});
        Ref self = empty_linexpr(0.0);
        add_terms(as_linexpr(self), arg, vars);
        return self;
    });
}

void linexpr_dealloc(PyObject *object) {
    LinExprObject *self = as_linexpr(object);
    PyTypeObject *type = Py_TYPE(object);
    PyObject *coeffs = self->coeffs, *vars = self->vars;
    PyObject_Free(object);
    --counts.linexprs;
    Py_DECREF(coeffs);
    Py_DECREF(vars);
    Py_DECREF(type);
}

PyObject *get_terms(PyObject *object, PyObject *) {
    return border([&] {
        LinExprObject *self = as_linexpr(object);
        Ref coeffs = check(PyList_AsTuple(self->coeffs)), vars = check(PyList_AsTuple(self->vars));
        return check(PyObject_CallFunctionObjArgs(as_object(&PyZip_Type), coeffs.get(), vars.get(), nullptr));
    });
}

PyObject *get_size(PyObject *self, PyObject *) {
    return PyLong_FromSsize_t(term_count(as_linexpr(self)));
}
PyObject *get_constant(PyObject *self, PyObject *) {
    return PyFloat_FromDouble(as_linexpr(self)->constant);
}

PyObject *add_method(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"add", {"expr", "mult"}, 1};
        Arguments given(signature, 1, args, nargs, kwnames);
        double mult = given[1] ? finite_number(given[1], "Multiplier") : 1.0;
        add_to(as_linexpr(self), linear_operand(given[0], "add()"), mult);
        return Ref::none();
    });
}

PyObject *add_terms_method(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"addTerms", {"coeffs", "vars"}, 2};
        Arguments given(signature, 1, args, nargs, kwnames);
        add_terms(as_linexpr(self), given[0], given[1]);
        return Ref::none();
    });
}

PyObject *linexpr_repr(PyObject *self) {
    return border([&] {
        Ref text = text_of(as_linexpr(self));
        return check(PyUnicode_FromFormat("<LinExpr: %U>", text.get()));
    });
}

using Methods = ExpressionMethods<LinExprObject>;

PyMethodDef methods[] = {
    {"terms", get_terms, METH_NOARGS,
     "terms($self)\n--\n\nAn iterator over (coefficient, Var) in stored order, as they are now."},
    {"size", get_size, METH_NOARGS, "size($self)\n--\n\nThe number of stored terms, duplicates and zeros counted."},
    {"getConstant", get_constant, METH_NOARGS, "getConstant($self)\n--\n\nThe constant term."},
    {"getValue", Methods::get_value, METH_NOARGS,
     "getValue($self)\n--\n\nThe value at the last solution; NoDataError where there is none."},
    {"add", method(add_method), METH_FASTCALL | METH_KEYWORDS,
     "add($self, expr, mult=1.0)\n--\n\nAdds mult * expr (a number, Var or LinExpr) in place."},
    {"addTerms", method(add_terms_method), METH_FASTCALL | METH_KEYWORDS,
     "addTerms($self, coeffs, vars)\n--\n\nAppends terms in place: lists or arrays of equal length, or one coefficient "
     "for "
     "one or all "
     "variables.\nOn an error nothing is appended."},
    {"clear", Methods::clear_contents, METH_NOARGS, "clear($self)\n--\n\nMakes the expression 0."},
    {"copy", Methods::make_copy, METH_NOARGS, "copy($self)\n--\n\nA new expression with the same terms."},
    {"_flatten", Methods::flatten, METH_NOARGS,
     "_flatten($self)\n--\n\nBrings the terms to plain lists, where they always are."},
    {"_normalize", Methods::merge_terms, METH_NOARGS,
     "_normalize($self)\n--\n\nMerges the terms of each variable at its first occurrence and drops zero coefficients."},
    {"_mul", Methods::multiply_by, METH_O, "_mul($self, factor)\n--\n\nScales in place."},
    {"__copy__", Methods::make_copy, METH_NOARGS, nullptr},
    {"__deepcopy__", Methods::make_copy, METH_O, nullptr},
    {"__reduce_ex__", Methods::refuse_pickling, METH_O, nullptr},
    {}};

PyType_Slot slots[] = {
    {Py_tp_doc,
     const_cast<char *>(
         "LinExpr(arg=0.0, vars=None)\n--\n\nA linear expression of scalar variables: LinExpr(number), LinExpr(Var), "
         "LinExpr(LinExpr) (a copy), LinExpr(coeffs, vars).")},
    {Py_tp_new, slot(linexpr_new)},
    {Py_tp_dealloc, slot(linexpr_dealloc)},
    {Py_tp_methods, methods},
    {Py_tp_str, slot(Methods::str)},
    {Py_tp_repr, slot(linexpr_repr)},
    {Py_tp_hash, slot(PyObject_HashNotImplemented)}, // mutable, and == makes a constraint
    {Py_nb_inplace_add, slot(operator_inplace_add)},
    {Py_nb_inplace_subtract, slot(operator_inplace_subtract)},
    {Py_nb_inplace_multiply, slot(operator_inplace_multiply)},
    {Py_nb_inplace_true_divide, slot(operator_inplace_divide)},
    TARVOPY_OPERATOR_SLOTS{}};

PyType_Spec spec = {"tarvopy.LinExpr", sizeof(LinExprObject), 0, Py_TPFLAGS_DEFAULT | Py_TPFLAGS_IMMUTABLETYPE, slots};

} // namespace

void add_terms(LinExprObject *self, PyObject *coeffs, PyObject *vars) {
    Ref variables = variables_given(vars);
    Py_ssize_t n = PyList_GET_SIZE(variables.get());
    Ref numbers = coefficients_given(coeffs, n);
    if (PyList_GET_SIZE(numbers.get()) != n)
        fail(PyExc_ValueError, "%zd coefficients for %zd variables", PyList_GET_SIZE(numbers.get()), n);
    Ref terms = make_linexpr(0.0, std::move(numbers), std::move(variables));
    add_to(self, {OperandKind::LinExpr, terms.get()}, 1.0);
}

double value_of(const LinExprObject *self) {
    std::vector<double> x = solution_of(items_of(self->vars));
    double value = self->constant;
    for (size_t i = 0; i < x.size(); ++i)
        value += PyFloat_AS_DOUBLE(PyList_GET_ITEM(self->coeffs, static_cast<Py_ssize_t>(i))) * x[i];
    return value;
}

void append_text(const LinExprObject *self, std::string &text) {
    for (Py_ssize_t i = 0; i < term_count(self); ++i) {
        append_signed(text, PyFloat_AS_DOUBLE(PyList_GET_ITEM(self->coeffs, i)));
        text += ' ';
        text += label_of(PyList_GET_ITEM(self->vars, i)).text;
    }
    if (self->constant != 0.0)
        append_signed(text, self->constant);
}

Ref text_of(const LinExprObject *self) {
    std::string text;
    append_text(self, text);
    return text_object(text.empty() ? "0.0" : text);
}

void add_linexpr_type(PyObject *module) {
    state.LinExpr = make_type(module, &spec, "LinExpr");
}

} // namespace tarvopy::core
