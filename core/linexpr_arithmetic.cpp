// Building and changing linear expressions, below the operators and methods.
#include "linexpr.h"

#include <algorithm>
#include <cmath>
#include <unordered_map>
#include <vector>

namespace tarvopy::core {

namespace {

// The terms of an operand, as pointers into its lists: valid as long as nothing else happens to it.
struct Terms {
    Py_ssize_t size = 0;
    PyObject *const *coeffs = nullptr;
    PyObject *const *vars = nullptr;
};

Terms terms_of(const Operand &operand) {
    if (operand.kind == OperandKind::Var)
        return {1, &state.one, &operand.object};
    if (operand.kind != OperandKind::LinExpr)
        return {};
    auto *expr = as_linexpr(operand.object);
    return {term_count(expr), PySequence_Fast_ITEMS(expr->coeffs), PySequence_Fast_ITEMS(expr->vars)};
}

// Runs the __float__ of unusual numbers, so it comes before anything looks at terms.
double constant_of(const Operand &operand) {
    if (operand.kind == OperandKind::Number)
        return finite_number(operand.object, "Constant");
    return operand.kind == OperandKind::LinExpr ? as_linexpr(operand.object)->constant : 0.0;
}

double finite_constant(double value) {
    if (!std::isfinite(value))
        fail_code(TRV_ERROR_INVALID_ARGUMENT, "Constant is infinite or NaN");
    return value;
}

void fill_vars(PyObject *list, Py_ssize_t at, const Terms &terms) {
    for (Py_ssize_t i = 0; i < terms.size; ++i)
        PyList_SET_ITEM(list, at + i, Py_NewRef(terms.vars[i]));
}

// Neighbours that share one float object share the scaled one too.
void fill_coeffs(PyObject *list, Py_ssize_t at, const Terms &terms, const Scaling &scaling) {
    if (scaling.is_identity()) {
        for (Py_ssize_t i = 0; i < terms.size; ++i)
            PyList_SET_ITEM(list, at + i, Py_NewRef(terms.coeffs[i]));
        return;
    }
    PyObject *last = nullptr, *last_scaled = nullptr; // borrowed
    for (Py_ssize_t i = 0; i < terms.size; ++i) {
        if (terms.coeffs[i] != last) {
            last = terms.coeffs[i];
            last_scaled = check(PyFloat_FromDouble(scaling(PyFloat_AS_DOUBLE(last)))).release();
        } else {
            Py_INCREF(last_scaled);
        }
        PyList_SET_ITEM(list, at + i, last_scaled);
    }
}

// Moves new contents in and drops the old ones when the expression is whole again.
void exchange(LinExprObject *self, double constant, Ref coeffs, Ref vars) {
    Ref old_coeffs = Ref::steal(std::exchange(self->coeffs, coeffs.release()));
    Ref old_vars = Ref::steal(std::exchange(self->vars, vars.release()));
    self->constant = constant;
}

void truncate(PyObject *list, Py_ssize_t size) {
    if (PyList_SetSlice(list, size, PyList_GET_SIZE(list), nullptr) < 0)
        PyErr_Clear(); // shrinking does not fail
}

// Appends to both lists or to none.
void extend(LinExprObject *self, PyObject *coeffs, PyObject *vars) {
    Py_ssize_t size = term_count(self);
    check_status(PyList_Extend(self->coeffs, coeffs));
    if (PyList_Extend(self->vars, vars) < 0) {
        truncate(self->coeffs, size);
        throw PythonError{};
    }
}

void append(LinExprObject *self, PyObject *coeff, PyObject *var) {
    Py_ssize_t size = term_count(self);
    check_status(PyList_Append(self->coeffs, coeff));
    if (PyList_Append(self->vars, var) < 0) {
        truncate(self->coeffs, size);
        throw PythonError{};
    }
}

void add_terms_of(LinExprObject *self, const Operand &operand, double mult) {
    if (operand.kind == OperandKind::Var) {
        Ref coeff = mult == 1.0 ? Ref::borrow(state.one) : check(PyFloat_FromDouble(mult));
        append(self, coeff.get(), operand.object);
    } else if (operand.kind == OperandKind::LinExpr) {
        auto *other = as_linexpr(operand.object);
        if (mult == 1.0) {
            extend(self, other->coeffs, other->vars);
        } else {
            Ref coeffs = untracked_list(term_count(other));
            fill_coeffs(coeffs.get(), 0, terms_of(operand), {mult, false});
            extend(self, coeffs.get(), other->vars);
        }
    }
}

// Sums by variable, in order of first occurrence. Short expressions are searched, long ones hashed.
class Merger {
  public:
    explicit Merger(Py_ssize_t size) : hashed_(size > 16) {
        if (hashed_)
            places_.reserve(static_cast<size_t>(size));
    }
    void add(PyObject *var, double coeff) {
        size_t i = place(var);
        if (i == vars.size()) {
            vars.push_back(var);
            coeffs.push_back(coeff);
        } else {
            coeffs[i] += coeff;
        }
    }
    std::vector<PyObject *> vars;
    std::vector<double> coeffs;

  private:
    size_t place(PyObject *var) {
        if (hashed_)
            return places_.try_emplace(var, vars.size()).first->second;
        size_t i = 0;
        while (i < vars.size() && vars[i] != var)
            ++i;
        return i;
    }
    bool hashed_;
    std::unordered_map<PyObject *, size_t> places_;
};

} // namespace

Ref untracked_list(Py_ssize_t n) {
    Ref list = check(PyList_New(n));
    PyObject_GC_UnTrack(list.get());
    return list;
}

Scaling divisor(PyObject *number) {
    double value = finite_number(number, "Divisor");
    if (value == 0.0)
        fail(PyExc_ZeroDivisionError, "division of an expression by zero");
    return {value, true};
}

Ref make_linexpr(double constant, Ref coeffs, Ref vars) {
    LinExprObject *self = PyObject_New(LinExprObject, state.LinExpr);
    if (!self)
        throw PythonError{};
    self->constant = constant;
    self->coeffs = coeffs.release();
    self->vars = vars.release();
    ++counts.linexprs;
    return Ref::steal(as_object(self));
}

Ref empty_linexpr(double constant) {
    return make_linexpr(constant, untracked_list(0), untracked_list(0));
}

Ref scaled(const Operand &operand, const Scaling &scaling) {
    double constant = finite_constant(scaling(constant_of(operand)));
    Terms terms = terms_of(operand);
    Ref coeffs = untracked_list(terms.size), vars = untracked_list(terms.size);
    fill_coeffs(coeffs.get(), 0, terms, scaling);
    fill_vars(vars.get(), 0, terms);
    return make_linexpr(constant, std::move(coeffs), std::move(vars));
}

Ref sum_of(const Operand &a, const Operand &b, double mult) {
    // A number is read first: its __float__ may change the expression on the other side.
    double number = b.kind == OperandKind::Number ? constant_of(b) : 0.0;
    double first = constant_of(a);
    double second = b.kind == OperandKind::Number ? number : constant_of(b);
    double constant = finite_constant(first + mult * second);
    Terms left = terms_of(a), right = terms_of(b);
    Ref coeffs = untracked_list(left.size + right.size), vars = untracked_list(left.size + right.size);
    fill_coeffs(coeffs.get(), 0, left, {1.0, false});
    fill_coeffs(coeffs.get(), left.size, right, {mult, false});
    fill_vars(vars.get(), 0, left);
    fill_vars(vars.get(), left.size, right);
    return make_linexpr(constant, std::move(coeffs), std::move(vars));
}

void add_to(LinExprObject *self, const Operand &operand, double mult) {
    double constant = constant_of(operand);
    constant = finite_constant(self->constant + mult * constant);
    add_terms_of(self, operand, mult);
    self->constant = constant;
}

void scale(LinExprObject *self, const Scaling &scaling) {
    double constant = finite_constant(scaling(self->constant));
    Terms terms = terms_of({OperandKind::LinExpr, as_object(self)});
    Ref coeffs = untracked_list(terms.size);
    fill_coeffs(coeffs.get(), 0, terms, scaling);
    Ref old = Ref::steal(std::exchange(self->coeffs, coeffs.release()));
    self->constant = constant;
}

void normalize(LinExprObject *self) {
    Terms terms = terms_of({OperandKind::LinExpr, as_object(self)});
    Merger merged(terms.size);
    for (Py_ssize_t i = 0; i < terms.size; ++i)
        merged.add(terms.vars[i], PyFloat_AS_DOUBLE(terms.coeffs[i]));
    auto zeros = std::count(merged.coeffs.begin(), merged.coeffs.end(), 0.0);
    auto size = static_cast<Py_ssize_t>(merged.vars.size()) - zeros;
    Ref coeffs = untracked_list(size), vars = untracked_list(size);
    Py_ssize_t at = 0;
    for (size_t i = 0; i < merged.vars.size(); ++i) {
        if (merged.coeffs[i] == 0.0)
            continue;
        PyList_SET_ITEM(coeffs.get(), at, check(PyFloat_FromDouble(merged.coeffs[i])).release());
        PyList_SET_ITEM(vars.get(), at++, Py_NewRef(merged.vars[i]));
    }
    exchange(self, self->constant, std::move(coeffs), std::move(vars));
}

void clear(LinExprObject *self) {
    exchange(self, 0.0, untracked_list(0), untracked_list(0));
}

void assign(LinExprObject *self, const Operand &operand) {
    Ref contents = scaled(operand, {1.0, false});
    auto *source = as_linexpr(contents);
    exchange(self, source->constant, Ref::borrow(source->coeffs), Ref::borrow(source->vars));
}

Ref copy(const LinExprObject *self) {
    return scaled({OperandKind::LinExpr, as_object(const_cast<LinExprObject *>(self))}, {1.0, false});
}

} // namespace tarvopy::core
