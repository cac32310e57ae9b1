// Building and changing quadratic expressions, below the operators and methods.
#include "quadexpr.h"

namespace tarvopy::core {

namespace {

// A number as an exact float, which runs no Python code when it is read later; other operands as they are. What the
// __float__ of a number does to the other operand is done when this returns.
struct Plain {
    Ref number;
    Operand operand;
    explicit Plain(const Operand &given) : operand(given) {
        if (given.kind == OperandKind::Number && !PyFloat_CheckExact(given.object)) {
            number = check(PyFloat_FromDouble(finite_constant(given.object)));
            operand.object = number.get();
        }
    }
};

// Of a quadratic expression its linear part, the number 0 where it has none; a linear operand or a number as it is.
Operand linear_part(const Operand &operand) {
    if (operand.kind != OperandKind::QuadExpr)
        return operand;
    PyObject *linear = as_quadexpr(operand.object)->linear;
    return linear ? Operand{OperandKind::LinExpr, linear} : Operand{OperandKind::Number, state.zero};
}

// Whether nothing would be added. Numbers are plain ones here.
bool is_zero(const Operand &linear) {
    if (linear.kind == OperandKind::Number)
        return PyFloat_AS_DOUBLE(linear.object) == 0.0;
    return linear.kind == OperandKind::LinExpr && as_linexpr(linear.object)->constant == 0.0 &&
           term_count(as_linexpr(linear.object)) == 0;
}

Ref joined_vars(Items a, Items b) {
    Ref list = untracked_list(static_cast<Py_ssize_t>(a.size() + b.size()));
    fill_vars(list, 0, a);
    fill_vars(list, static_cast<Py_ssize_t>(a.size()), b);
    return list;
}

// An object for each pair of variables in either order.
using Pair = std::pair<PyObject *, PyObject *>;
Pair ordered(PyObject *a, PyObject *b) {
    return std::less<>{}(b, a) ? Pair{b, a} : Pair{a, b};
}
struct PairHash {
    size_t operator()(const Pair &pair) const {
        auto a = reinterpret_cast<uintptr_t>(pair.first), b = reinterpret_cast<uintptr_t>(pair.second);
        uint64_t z = (a * 0x9e3779b97f4a7c15u) ^ (b * 0xbf58476d1ce4e5b9u);
        return z ^ (z >> 32);
    }
};

// The quadratic terms of `source` move in; the old ones are dropped when the expression is whole again.
void exchange_terms(QuadExprObject *self, Ref coeffs, Ref vars1, Ref vars2) {
    Ref old_coeffs = Ref::steal(std::exchange(self->coeffs, coeffs.release()));
    Ref old_vars1 = Ref::steal(std::exchange(self->vars1, vars1.release()));
    Ref old_vars2 = Ref::steal(std::exchange(self->vars2, vars2.release()));
}

void add_quad_terms(QuadExprObject *self, const QuadExprObject *other, double mult) {
    Ref coeffs = mult == 1.0 ? Ref::borrow(other->coeffs) : scaled_coeffs(items_of(other->coeffs), {mult, false});
    extend_all<3>({self->coeffs, self->vars1, self->vars2}, {coeffs.get(), other->vars1, other->vars2});
}

} // namespace

QuadTerms quad_terms_of(const Operand &operand) {
    if (operand.kind != OperandKind::QuadExpr)
        return {};
    auto *expr = as_quadexpr(operand.object);
    return {items_of(expr->coeffs), items_of(expr->vars1), items_of(expr->vars2)};
}

Ref make_quadexpr(Ref linear, Ref coeffs, Ref vars1, Ref vars2) {
    QuadExprObject *self = PyObject_New(QuadExprObject, state.QuadExpr);
    if (!self)
        throw PythonError{};
    self->linear = linear.release();
    self->coeffs = coeffs.release();
    self->vars1 = vars1.release();
    self->vars2 = vars2.release();
    ++counts.quadexprs;
    return Ref::steal(as_object(self));
}

Ref empty_quadexpr() {
    return make_quadexpr(Ref(), untracked_list(0), untracked_list(0), untracked_list(0));
}

LinExprObject *linear_of(QuadExprObject *self) {
    if (!self->linear)
        self->linear = empty_linexpr(0.0).release();
    return as_linexpr(self->linear);
}

Ref quad_scaled(const Operand &operand, const Scaling &scaling) {
    Plain plain(operand);
    Operand part = linear_part(plain.operand);
    Ref linear = is_zero(part) ? Ref() : scaled(part, scaling);
    QuadTerms terms = quad_terms_of(operand);
    Ref coeffs = scaled_coeffs(terms.coeffs, scaling);
    return make_quadexpr(std::move(linear), std::move(coeffs), copied_vars(terms.vars1), copied_vars(terms.vars2));
}

Ref quad_sum(const Operand &a, const Operand &b, double mult) {
    Plain plain_a(a), plain_b(b);
    Operand x = linear_part(plain_a.operand), y = linear_part(plain_b.operand);
    Ref linear = is_zero(x) && is_zero(y) ? Ref() : sum_of(x, y, mult);
    QuadTerms left = quad_terms_of(a), right = quad_terms_of(b);
    Ref coeffs = untracked_list(left.size() + right.size());
    fill_coeffs(coeffs, 0, left.coeffs, {1.0, false});
    fill_coeffs(coeffs, left.size(), right.coeffs, {mult, false});
    return make_quadexpr(std::move(linear), std::move(coeffs), joined_vars(left.vars1, right.vars1),
                         joined_vars(left.vars2, right.vars2));
}

void add_to(QuadExprObject *self, const Operand &operand, double mult) {
    Plain plain(operand);
    Operand part = linear_part(plain.operand);
    Py_ssize_t size = term_count(self);
    if (operand.kind == OperandKind::QuadExpr)
        add_quad_terms(self, as_quadexpr(operand.object), mult);
    if (is_zero(part))
        return;
    try {
        add_to(linear_of(self), part, mult);
    } catch (...) {
        for (PyObject *list : {self->coeffs, self->vars1, self->vars2})
            truncate(list, size);
        throw;
    }
}

void scale(QuadExprObject *self, const Scaling &scaling) {
    Ref coeffs = scaled_coeffs(items_of(self->coeffs), scaling); // nothing fails after the linear part has changed
    if (self->linear)
        scale(as_linexpr(self->linear), scaling);
    Ref old = Ref::steal(std::exchange(self->coeffs, coeffs.release()));
}

void normalize(QuadExprObject *self) {
    QuadTerms terms = quad_terms_of({OperandKind::QuadExpr, as_object(self)});
    Merger<Pair, PairHash> merged(terms.coeffs.size());
    for (size_t i = 0; i < terms.coeffs.size(); ++i)
        merged.add(ordered(terms.vars1[i], terms.vars2[i]), {terms.vars1[i], terms.vars2[i]},
                   PyFloat_AS_DOUBLE(terms.coeffs[i]));
    Py_ssize_t size = merged.nonzeros(), at = 0;
    Ref coeffs = untracked_list(size), vars1 = untracked_list(size), vars2 = untracked_list(size);
    for (size_t i = 0; i < merged.kept.size(); ++i) {
        if (merged.coeffs[i] == 0.0)
            continue;
        PyList_SET_ITEM(coeffs.get(), at, check(PyFloat_FromDouble(merged.coeffs[i])).release());
        PyList_SET_ITEM(vars1.get(), at, Py_NewRef(merged.kept[i].first));
        PyList_SET_ITEM(vars2.get(), at++, Py_NewRef(merged.kept[i].second));
    }
    if (self->linear)
        normalize(as_linexpr(self->linear));
    exchange_terms(self, std::move(coeffs), std::move(vars1), std::move(vars2));
}

void clear(QuadExprObject *self) {
    Ref coeffs = untracked_list(0), vars1 = untracked_list(0), vars2 = untracked_list(0);
    if (self->linear)
        clear(as_linexpr(self->linear));
    exchange_terms(self, std::move(coeffs), std::move(vars1), std::move(vars2));
}

void assign(QuadExprObject *self, const Operand &operand) {
    Ref contents = quad_scaled(operand, {1.0, false});
    auto *source = as_quadexpr(contents);
    if (self->linear)
        assign(as_linexpr(self->linear), linear_part({OperandKind::QuadExpr, contents.get()}));
    else
        std::swap(self->linear, source->linear);
    exchange_terms(self, Ref::borrow(source->coeffs), Ref::borrow(source->vars1), Ref::borrow(source->vars2));
}

Ref copy(const QuadExprObject *self) {
    return quad_scaled({OperandKind::QuadExpr, as_object(const_cast<QuadExprObject *>(self))}, {1.0, false});
}

// ---- products of linear operands

namespace {

// A slip (the sum of everything squared) would otherwise fill the memory before anybody can stop it.
Py_ssize_t product_size(Py_ssize_t n, Py_ssize_t m) {
    Py_ssize_t size;
    if (__builtin_mul_overflow(n, m, &size) || size > INT32_MAX)
        fail(PyExc_ValueError, "a product of %zd by %zd terms is too large", n, m);
    return size;
}

// left's terms times the right constant, then right's terms times the left one; empty when all of it is zero.
Ref linear_of_product(const Terms &left, double left_constant, const Terms &right, double right_constant) {
    double constant = finite_constant(left_constant * right_constant);
    Py_ssize_t from_left = right_constant == 0.0 ? 0 : left.size();
    Py_ssize_t from_right = left_constant == 0.0 ? 0 : right.size();
    if (from_left + from_right == 0 && constant == 0.0)
        return Ref();
    Ref coeffs = untracked_list(from_left + from_right), vars = untracked_list(from_left + from_right);
    if (from_left > 0) {
        fill_coeffs(coeffs, 0, left.coeffs, {right_constant, false});
        fill_vars(vars, 0, left.vars);
    }
    if (from_right > 0) {
        fill_coeffs(coeffs, from_left, right.coeffs, {left_constant, false});
        fill_vars(vars, from_left, right.vars);
    }
    return make_linexpr(constant, std::move(coeffs), std::move(vars));
}

} // namespace

Ref product_of(const Operand &a, const Operand &b) {
    Terms left = terms_of(a), right = terms_of(b);
    Ref linear = linear_of_product(left, constant_of(a), right, constant_of(b));
    Py_ssize_t size = product_size(left.size(), right.size()), at = 0;
    Ref coeffs = untracked_list(size), vars1 = untracked_list(size), vars2 = untracked_list(size);
    for (size_t i = 0; i < left.vars.size(); ++i, at += right.size()) {
        fill_coeffs(coeffs, at, right.coeffs, {PyFloat_AS_DOUBLE(left.coeffs[i]), false});
        for (Py_ssize_t k = at; k < at + right.size(); ++k)
            PyList_SET_ITEM(vars1.get(), k, Py_NewRef(left.vars[i]));
        fill_vars(vars2, at, right.vars);
    }
    return make_quadexpr(std::move(linear), std::move(coeffs), std::move(vars1), std::move(vars2));
}

} // namespace tarvopy::core
