// The type QuadExpr: construction, methods, value and text.
#include "expression_methods.h"

#include "pysupport/args.h"
#include "scalars.h"

#include <string>

namespace tarvopy::core {

using pysupport::Arguments;
using pysupport::Signature;

namespace {

Operand quadratic_operand(PyObject *object, const char *function) {
    Operand operand = classify(object);
    if (operand.kind != OperandKind::Number && !operand.is_polynomial())
        fail(PyExc_TypeError, "%.200s takes a number, a Var, a LinExpr or a QuadExpr, not '%.200s'", function,
             Py_TYPE(object)->tp_name);
    return operand;
}

PyObject *quadexpr_new(PyTypeObject *, PyObject *args, PyObject *kwargs) {
    return border([&] {
        static const char *keywords[] = {"arg", nullptr};
        PyObject *arg = nullptr;
        if (!PyArg_ParseTupleAndKeywords(args, kwargs, "|O:QuadExpr", const_cast<char **>(keywords), &arg))
            throw PythonError{};
        return arg ? quad_scaled(quadratic_operand(arg, "QuadExpr()"), {1.0, false}) : empty_quadexpr();
    });
}

void quadexpr_dealloc(PyObject *object) {
    QuadExprObject contents = *as_quadexpr(object);
    PyTypeObject *type = Py_TYPE(object);
    PyObject_Free(object);
    --counts.quadexprs;
    Py_XDECREF(contents.linear);
    Py_DECREF(contents.coeffs);
    Py_DECREF(contents.vars1);
    Py_DECREF(contents.vars2);
    Py_DECREF(type);
}

PyObject *get_terms(PyObject *object, PyObject *) {
    return border([&] {
        QuadExprObject *self = as_quadexpr(object);
        Ref coeffs = check(PyList_AsTuple(self->coeffs));
        Ref vars1 = check(PyList_AsTuple(self->vars1)), vars2 = check(PyList_AsTuple(self->vars2));
        return check(
            PyObject_CallFunctionObjArgs(as_object(&PyZip_Type), coeffs.get(), vars1.get(), vars2.get(), nullptr));
    });
}

PyObject *get_size(PyObject *self, PyObject *) {
    return PyLong_FromSsize_t(term_count(as_quadexpr(self)));
}

PyObject *get_linexpr(PyObject *self, PyObject *) {
    return border([&] { return Ref::borrow(as_object(linear_of(as_quadexpr(self)))); });
}

PyObject *add_method(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"add", {"expr", "mult"}, 1};
        Arguments given(signature, 1, args, nargs, kwnames);
        double mult = given[1] ? finite_number(given[1], "Multiplier") : 1.0;
        add_to(as_quadexpr(self), quadratic_operand(given[0], "add()"), mult);
        return Ref::none();
    });
}

PyObject *add_terms_method(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"addTerms", {"coeffs", "vars1", "vars2"}, 3};
        Arguments given(signature, 1, args, nargs, kwnames);
        add_terms(as_quadexpr(self), given[0], given[1], given[2]);
        return Ref::none();
    });
}

PyObject *quadexpr_repr(PyObject *self) {
    return border([&] {
        Ref text = text_of(as_quadexpr(self));
        return check(PyUnicode_FromFormat("<QuadExpr: %U>", text.get()));
    });
}

using Methods = ExpressionMethods<QuadExprObject>;

PyMethodDef methods[] = {
    {"terms", get_terms, METH_NOARGS,
     "terms($self)\n--\n\nAn iterator over (coefficient, first Var, second Var) of the quadratic terms in stored "
     "order, as "
     "they are now."},
    {"size", get_size, METH_NOARGS,
     "size($self)\n--\n\nThe number of stored quadratic terms, duplicates and zeros counted."},
    {"getLinExpr", get_linexpr, METH_NOARGS,
     "getLinExpr($self)\n--\n\nThe linear part, constant included: the expression's own LinExpr, not a copy, so "
     "changes of "
     "it "
     "are changes of this expression."},
    {"getValue", Methods::get_value, METH_NOARGS,
     "getValue($self)\n--\n\nThe value at the last solution, linear part included; NoDataError where there is none."},
    {"add", method(add_method), METH_FASTCALL | METH_KEYWORDS,
     "add($self, expr, mult=1.0)\n--\n\nAdds mult * expr (a number, Var, LinExpr or QuadExpr) in place."},
    {"addTerms", method(add_terms_method), METH_FASTCALL | METH_KEYWORDS,
     "addTerms($self, coeffs, vars1, vars2)\n--\n\nAppends the terms coeffs[k] * vars1[k] * vars2[k] in place: lists "
     "or "
     "arrays "
     "of equal length, or one coefficient for all pairs, or single ones.\nOn an error nothing is appended."},
    {"clear", Methods::clear_contents, METH_NOARGS, "clear($self)\n--\n\nMakes the expression 0, its linear part too."},
    {"copy", Methods::make_copy, METH_NOARGS,
     "copy($self)\n--\n\nA new expression with the same terms and a linear part of its own."},
    {"_flatten", Methods::flatten, METH_NOARGS,
     "_flatten($self)\n--\n\nBrings the terms to plain lists, where they always are."},
    {"_normalize", Methods::merge_terms, METH_NOARGS,
     "_normalize($self)\n--\n\nMerges the terms of each pair of variables, in either order, at its first occurrence, "
     "and "
     "those "
     "of each variable in the linear part; drops zero coefficients."},
    {"_mul", Methods::multiply_by, METH_O, "_mul($self, factor)\n--\n\nScales in place."},
    {"__copy__", Methods::make_copy, METH_NOARGS, nullptr},
    {"__deepcopy__", Methods::make_copy, METH_O, nullptr},
    {"__reduce_ex__", Methods::refuse_pickling, METH_O, nullptr},
    {}};

PyType_Slot slots[] = {{Py_tp_doc, const_cast<char *>("QuadExpr(arg=0.0)\n--\n\nA quadratic expression of scalar "
                                                      "variables, with a linear part of its own: a copy of "
                                                      "a number, Var, LinExpr or QuadExpr.")},
                       {Py_tp_new, slot(quadexpr_new)},
                       {Py_tp_dealloc, slot(quadexpr_dealloc)},
                       {Py_tp_methods, methods},
                       {Py_tp_str, slot(Methods::str)},
                       {Py_tp_repr, slot(quadexpr_repr)},
                       {Py_tp_hash, slot(PyObject_HashNotImplemented)}, // mutable, and == makes a constraint
                       {Py_nb_inplace_add, slot(operator_inplace_add)},
                       {Py_nb_inplace_subtract, slot(operator_inplace_subtract)},
                       {Py_nb_inplace_multiply, slot(operator_inplace_multiply)},
                       {Py_nb_inplace_true_divide, slot(operator_inplace_divide)},
                       TARVOPY_OPERATOR_SLOTS{}};

PyType_Spec spec = {"tarvopy.QuadExpr", sizeof(QuadExprObject), 0, Py_TPFLAGS_DEFAULT | Py_TPFLAGS_IMMUTABLETYPE,
                    slots};

void append_term(std::string &text, double coeff, PyObject *first, PyObject *second) {
    append_signed(text, coeff);
    text += ' ';
    text += label_of(first).text;
    text += first == second ? "^2" : "*" + label_of(second).text;
}

} // namespace

void add_terms(QuadExprObject *self, PyObject *coeffs, PyObject *vars1, PyObject *vars2) {
    Ref first = variables_given(vars1), second = variables_given(vars2);
    Py_ssize_t n = PyList_GET_SIZE(first.get());
    if (PyList_GET_SIZE(second.get()) != n)
        fail(PyExc_ValueError, "%zd first variables for %zd second ones", n, PyList_GET_SIZE(second.get()));
    Ref numbers = coefficients_given(coeffs, n);
    if (PyList_GET_SIZE(numbers.get()) != n)
        fail(PyExc_ValueError, "%zd coefficients for %zd pairs of variables", PyList_GET_SIZE(numbers.get()), n);
    Ref terms = make_quadexpr(Ref(), std::move(numbers), std::move(first), std::move(second));
    add_to(self, {OperandKind::QuadExpr, terms.get()}, 1.0);
}

double value_of(const QuadExprObject *self) {
    std::vector<double> x = solution_of(items_of(self->vars1)), y = solution_of(items_of(self->vars2));
    double value = self->linear ? value_of(as_linexpr(self->linear)) : 0.0;
    for (size_t i = 0; i < x.size(); ++i)
        value += PyFloat_AS_DOUBLE(PyList_GET_ITEM(self->coeffs, static_cast<Py_ssize_t>(i))) * x[i] * y[i];
    return value;
}

Ref text_of(const QuadExprObject *self) {
    std::string text;
    for (Py_ssize_t i = 0; i < term_count(self); ++i)
        append_term(text, PyFloat_AS_DOUBLE(PyList_GET_ITEM(self->coeffs, i)), PyList_GET_ITEM(self->vars1, i),
                    PyList_GET_ITEM(self->vars2, i));
    if (self->linear)
        append_text(as_linexpr(self->linear), text);
    return text_object(text.empty() ? "0.0" : text);
}

void add_quadexpr_type(PyObject *module) {
    state.QuadExpr = make_type(module, &spec, "QuadExpr");
}

} // namespace tarvopy::core
