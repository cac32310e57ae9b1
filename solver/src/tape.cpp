// tape.cpp: the check of tapes, their values, and their gradients by reverse differentiation.
#include "tape.h"

#include "failure.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <numbers>

namespace store {

namespace {

constexpr const char *kNames[TRV_NL_OPERATIONS] = {"constant", "sum",  "minus", "multiply", "divide", "pow",   "uminus",
                                                   "square",   "sqrt", "exp",   "log",      "log2",   "log10", "sin",
                                                   "cos",      "tan",  "tanh",  "logistic", "abs"};

bool isbinary(int op) {
    return op >= TRV_NL_MINUS && op <= TRV_NL_POW;
}

// exp of what is large never comes up, so that nothing overflows on the way to 0 or 1.
double logistic(double v) {
    if (v >= 0.0)
        return 1.0 / (1.0 + std::exp(-v));
    const double e = std::exp(v);
    return e / (1.0 + e);
}

std::string text(const char *format, int64_t one, int64_t other = 0) {
    char written[160];
    // NOLINTNEXTLINE: the formats stand below
    std::snprintf(written, sizeof written, format, one, other);
    return written;
}

} // namespace

int operandsof(int32_t code) {
    const int op = operationof(code);
    if (op == TRV_NL_SUM)
        return arityof(code);
    return op == TRV_NL_CONSTANT ? 0 : isbinary(op) ? 2 : 1;
}

double operate(int op, double left, double right) {
    switch (op) {
    case TRV_NL_MINUS:
        return left - right;
    case TRV_NL_MULTIPLY:
        return left * right;
    case TRV_NL_DIVIDE:
        return left / right;
    case TRV_NL_POW:
        return std::pow(left, right);
    case TRV_NL_UMINUS:
        return -left;
    case TRV_NL_SQUARE:
        return left * left;
    case TRV_NL_SQRT:
        return std::sqrt(left);
    case TRV_NL_EXP:
        return std::exp(left);
    case TRV_NL_LOG:
        return std::log(left);
    case TRV_NL_LOG2:
        return std::log2(left);
    case TRV_NL_LOG10:
        return std::log10(left);
    case TRV_NL_SIN:
        return std::sin(left);
    case TRV_NL_COS:
        return std::cos(left);
    case TRV_NL_TAN:
        return std::tan(left);
    case TRV_NL_TANH:
        return std::tanh(left);
    case TRV_NL_LOGISTIC:
        return logistic(left);
    default: // TRV_NL_ABS
        return std::fabs(left);
    }
}

// ---- the check

// What is not known stays NaN, and so do all parts that need it.
bool TapeCheck::fold(int op, double *left, double right, std::string &why) {
    if (op == TRV_NL_DIVIDE && right == 0.0) {
        why = "a division by the constant 0";
        return false;
    }
    if (std::isnan(*left) || std::isnan(right)) {
        *left = NAN;
        return true;
    }
    const double value = operate(op, *left, right);
    if (!std::isfinite(value)) {
        why = std::string(kNames[op]) + " of the constant" + (isbinary(op) ? "s " : " ") + number(*left) +
              (isbinary(op) ? " and " + number(right) : "") + " has no finite value";
        return false;
    }
    *left = value;
    return true;
}

bool TapeCheck::operation(int32_t code, std::string &why) {
    const int op = operationof(code);
    const int32_t arity = arityof(code);
    if (op >= TRV_NL_OPERATIONS || (op == TRV_NL_SUM ? arity < 1 : arity != 0)) {
        why = text("%" PRId64 " is no code of a tape", code);
        return false;
    }
    const int64_t operands = operandsof(code);
    if (operands > depth_) {
        why =
            std::string(kNames[op]) + text(" takes %" PRId64 " operands where %" PRId64 " are left", operands, depth_);
        return false;
    }
    depth_ -= operands - 1;
    double *left = stack_.data() + depth_ - 1;
    if (op != TRV_NL_SUM)
        return fold(op, left, isbinary(op) ? left[1] : 0.0, why);
    for (int64_t k = 1; k < operands; k++)
        *left += left[k];
    if (std::isinf(*left))
        why = "a sum of constants has no finite value";
    return !std::isinf(*left);
}

int64_t TapeCheck::check(int64_t n, const int32_t *code, int64_t nconstants, const double *constant, std::string &why) {
    const bool plain = variables_.identity() && !variables_.anygone();
    const int32_t count = variables_.count();
    int64_t taken = 0;
    stack_.resize(std::max<size_t>(stack_.size(), n));
    depth_ = 0;
    for (int64_t k = 0; k < n; k++) {
        if (code[k] >= 0) {
            if (code[k] >= count || (!plain && !variables_.usable(code[k]))) {
                why = variables_.absence(code[k]);
                return -1;
            }
            stack_[depth_++] = NAN;
        } else if (operationof(code[k]) == TRV_NL_CONSTANT && arityof(code[k]) == 0) {
            if (taken == nconstants) {
                why = text("the tape takes more constants than the %" PRId64 " that are left", nconstants);
                return -1;
            }
            if (!isfinite(constant[taken])) {
                why = "a constant is " + number(constant[taken]);
                return -1;
            }
            stack_[depth_++] = constant[taken++];
        } else if (!operation(code[k], why)) {
            return -1;
        }
    }
    if (n > 0 && depth_ != 1) {
        why = text("the tape leaves %" PRId64 " values, not one", depth_);
        return -1;
    }
    return taken;
}

// ---- values

TapeRun::Value TapeRun::value(const Tape &tape) {
    if (tape.n == 0)
        return {0.0, 0.0};
    const double *constant = tape.constant;
    Value *top = stack_.room(tape.n + 1); // the last value; the first place stays empty
    for (int64_t k = 0; k < tape.n; k++) {
        const int32_t code = tape.code[k];
        if (code >= 0) {
            *++top = {x_[code], std::fabs(x_[code])};
            continue;
        }
        const int op = operationof(code);
        if (op == TRV_NL_CONSTANT) {
            *++top = {*constant, std::fabs(*constant)};
            constant++;
        } else if (op == TRV_NL_SUM) {
            const int32_t arity = arityof(code);
            top -= arity - 1;
            for (int32_t i = 1; i < arity; i++)
                *top = {top->value + top[i].value, std::max(top->largest, top[i].largest)};
        } else if (op == TRV_NL_UMINUS) {
            top->value = -top->value;
        } else {
            top -= isbinary(op);
            const double value = operate(op, top->value, isbinary(op) ? top[1].value : 0.0);
            *top = {value, op == TRV_NL_MINUS ? std::max(top->largest, top[1].largest) : std::fabs(value)};
        }
    }
    return *top;
}

namespace {

// d/d left of an operation with one operand, from the operand and the value.
double derivative(int op, double left, double value) {
    switch (op) {
    case TRV_NL_UMINUS:
        return -1.0;
    case TRV_NL_SQUARE:
        return 2.0 * left;
    case TRV_NL_SQRT:
        return 0.5 / value;
    case TRV_NL_EXP:
        return value;
    case TRV_NL_LOG:
        return 1.0 / left;
    case TRV_NL_LOG2:
        return std::numbers::log2e / left;
    case TRV_NL_LOG10:
        return std::numbers::log10e / left;
    case TRV_NL_SIN:
        return std::cos(left);
    case TRV_NL_COS:
        return -std::sin(left);
    case TRV_NL_TAN:
        return 1.0 + value * value;
    case TRV_NL_TANH:
        return 1.0 - value * value;
    case TRV_NL_LOGISTIC:
        return value * (1.0 - value);
    default: // TRV_NL_ABS
        return left > 0.0 ? 1.0 : left < 0.0 ? -1.0 : 0.0;
    }
}

} // namespace

double TapeRun::forward(const Tape &tape) {
    if (tape.n == 0)
        return 0.0;
    const double *constant = tape.constant;
    partials_.room(tape.n);
    double *top = values_.room(tape.n + 1); // as in value
    for (int64_t k = 0; k < tape.n; k++) {
        const int32_t code = tape.code[k];
        const int op = operationof(code);
        if (code >= 0) {
            *++top = x_[code];
        } else if (op == TRV_NL_CONSTANT) {
            *++top = *constant++;
        } else if (op == TRV_NL_SUM) {
            const int32_t arity = arityof(code);
            top -= arity - 1;
            for (int32_t i = 1; i < arity; i++)
                *top += top[i];
        } else if (isbinary(op)) {
            const double left = *--top, right = top[1];
            *top = operate(op, left, right);
            partials_[k] = op == TRV_NL_MINUS      ? Partials{1.0, -1.0}
                           : op == TRV_NL_MULTIPLY ? Partials{right, left}
                           : op == TRV_NL_DIVIDE   ? Partials{1.0 / right, -*top / right}
                                                   : Partials{right == 0.0 ? 0.0 : right * std::pow(left, right - 1.0),
                                                              left == 0.0 ? 0.0 : *top * std::log(left)};
        } else {
            const double left = *top;
            *top = operate(op, left, 0.0);
            partials_[k].left = derivative(op, left, *top);
        }
    }
    return *top;
}

// The operands' adjoints, the last operand's on top: it is met next. What the result does not depend on stays 0 where a
// partial is infinite.
void TapeRun::backward(int32_t code, double adjoint, const Partials &partials) {
    const int op = operationof(code);
    if (op == TRV_NL_CONSTANT)
        return;
    if (op == TRV_NL_SUM)
        return adjoint_.pad(adjoint_.size() + arityof(code), adjoint);
    adjoint_.push(adjoint == 0.0 ? 0.0 : adjoint * partials.left);
    if (isbinary(op))
        adjoint_.push(adjoint == 0.0 ? 0.0 : adjoint * partials.right);
}

} // namespace store
