// Building and changing linear expressions, below the operators and methods.
#include "linexpr.h"

#include <cmath>

namespace tarvopy::core {

namespace {

// Moves new contents in and drops the old ones when the expression is whole again.
void exchange(LinExprObject *self, double constant, Ref coeffs, Ref vars) {
    Ref old_coeffs = Ref::steal(std::exchange(self->coeffs, coeffs.release()));
    Ref old_vars = Ref::steal(std::exchange(self->vars, vars.release()));
    self->constant = constant;
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
        Ref coeffs = mult == 1.0 ? Ref::borrow(other->coeffs) : scaled_coeffs(terms_of(operand).coeffs, {mult, false});
        extend_all<2>({self->coeffs, self->vars}, {coeffs.get(), other->vars});
    }
}

} // namespace

Terms terms_of(const Operand &operand) {
    if (operand.kind == OperandKind::Var)
        return {{&state.one, 1}, {&operand.object, 1}};
    if (operand.kind != OperandKind::LinExpr)
        return {};
    auto *expr = as_linexpr(operand.object);
    return {items_of(expr->coeffs), items_of(expr->vars)};
}

double constant_of(const Operand &operand) {
    if (operand.kind == OperandKind::Number)
        return finite_constant(operand.object);
    return operand.kind == OperandKind::LinExpr ? as_linexpr(operand.object)->constant : 0.0;
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
    return make_linexpr(constant, scaled_coeffs(terms.coeffs, scaling), copied_vars(terms.vars));
}

Ref sum_of(const Operand &a, const Operand &b, double mult) {
    // A number is read first: its __float__ may change the expression on the other side.
    double number = b.kind == OperandKind::Number ? constant_of(b) : 0.0;
    double first = constant_of(a);
    double second = b.kind == OperandKind::Number ? number : constant_of(b);
    double constant = finite_constant(first + mult * second);
    Terms left = terms_of(a), right = terms_of(b);
    Ref coeffs = untracked_list(left.size() + right.size()), vars = untracked_list(left.size() + right.size());
    fill_coeffs(coeffs, 0, left.coeffs, {1.0, false});
    fill_coeffs(coeffs, left.size(), right.coeffs, {mult, false});
    fill_vars(vars, 0, left.vars);
    fill_vars(vars, left.size(), right.vars);
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
    Ref coeffs = scaled_coeffs(items_of(self->coeffs), scaling);
    Ref old = Ref::steal(std::exchange(self->coeffs, coeffs.release()));
    self->constant = constant;
}

void normalize(LinExprObject *self) {
    Terms terms = terms_of({OperandKind::LinExpr, as_object(self)});
    Merger<PyObject *, std::hash<PyObject *>> merged(terms.vars.size());
    for (size_t i = 0; i < terms.vars.size(); ++i)
        merged.add(terms.vars[i], terms.vars[i], PyFloat_AS_DOUBLE(terms.coeffs[i]));
    Py_ssize_t size = merged.nonzeros(), at = 0;
    Ref coeffs = untracked_list(size), vars = untracked_list(size);
    for (size_t i = 0; i < merged.kept.size(); ++i) {
        if (merged.coeffs[i] == 0.0)
            continue;
        PyList_SET_ITEM(coeffs.get(), at, check(PyFloat_FromDouble(merged.coeffs[i])).release());
        PyList_SET_ITEM(vars.get(), at++, Py_NewRef(merged.kept[i]));
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
