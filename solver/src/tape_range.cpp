// tape_range.cpp: ranges of the parts of tapes (see tape_range.h).
#include "tape_range.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

namespace store {

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
// What the rounding of a few operations may take from a value that is 0.
constexpr double kRounding = 1e-9;

// 0 times what has no end is 0: the end is not reached.
double times(double a, double b) {
    return a == 0.0 || b == 0.0 ? 0.0 : a * b;
}

} // namespace

std::string TapeRange::nowhere(const Tape &tape) {
    found_.clear();
    Interval *top = stack_.room(tape.n + 1);
    const double *constant = tape.constant;
    for (int64_t k = 0; k < tape.n && found_.empty(); k++) {
        const int32_t code = tape.code[k];
        const int op = operationof(code);
        if (code >= 0) {
            *++top = {lower_[code], upper_[code]};
        } else if (op == TRV_NL_CONSTANT) {
            const double value = *constant++;
            *++top = {value, value};
        } else if (op == TRV_NL_SUM) {
            const int32_t arity = arityof(code);
            top -= arity - 1;
            for (int32_t i = 1; i < arity; i++)
                *top = {top->low + top[i].low, top->high + top[i].high};
        } else {
            top -= operandsof(code) - 1;
            *top = of(op, top[0], top[1]);
        }
        if (std::isnan(top->low) || std::isnan(top->high))
            *top = {-kInfinity, kInfinity};
    }
    return found_;
}

TapeRange::Interval TapeRange::of(int op, Interval left, Interval right) {
    switch (op) {
    case TRV_NL_MINUS:
        return {left.low - right.high, left.high - right.low};
    case TRV_NL_MULTIPLY: {
        const double ends[] = {times(left.low, right.low), times(left.low, right.high), times(left.high, right.low),
                               times(left.high, right.high)};
        return {*std::min_element(ends, ends + 4), *std::max_element(ends, ends + 4)};
    }
    case TRV_NL_DIVIDE:
        if (right.low == 0.0 && right.high == 0.0)
            return undefined("a division by", right);
        if (right.low <= 0.0 && right.high >= 0.0)
            return {-kInfinity, kInfinity};
        return of(TRV_NL_MULTIPLY, left, {1.0 / right.high, 1.0 / right.low});
    case TRV_NL_POW:
        return right.low == right.high ? ofpower(left, right.low) : Interval{-kInfinity, kInfinity};
    case TRV_NL_UMINUS:
        return {-left.high, -left.low};
    case TRV_NL_SQUARE:
        return ofpower(left, 2.0);
    case TRV_NL_SQRT:
        if (left.high < -kRounding)
            return undefined("the square root of", left);
        return monotone(op, {std::max(left.low, 0.0), std::max(left.high, 0.0)});
    case TRV_NL_LOG:
    case TRV_NL_LOG2:
    case TRV_NL_LOG10:
        if (left.high <= 0.0)
            return undefined("the logarithm of", left);
        return monotone(op, {std::max(left.low, 0.0), left.high});
    case TRV_NL_SIN:
    case TRV_NL_COS:
        return {-1.0, 1.0};
    case TRV_NL_TAN:
        return {-kInfinity, kInfinity};
    case TRV_NL_ABS:
        return {std::max({left.low, -left.high, 0.0}), std::max(-left.low, left.high)};
    default: // EXP, TANH, LOGISTIC
        return monotone(op, left);
    }
}

TapeRange::Interval TapeRange::ofpower(Interval base, double exponent) {
    const bool whole = exponent == std::floor(exponent), even = std::fmod(exponent, 2.0) == 0.0;
    if (!whole && (base.high < -kRounding || (base.high <= 0.0 && exponent < 0.0)))
        return undefined("a broken power of", base);
    if (exponent < 0.0 && base.low == 0.0 && base.high == 0.0)
        return undefined("a negative power of", base);
    if (!whole)
        base = {std::max(base.low, 0.0), std::max(base.high, 0.0)};
    else if (even)
        base = of(TRV_NL_ABS, base, base);
    else if (exponent < 0.0 && base.low <= 0.0 && base.high >= 0.0)
        return {-kInfinity, kInfinity};
    const double one = std::pow(base.low, exponent), other = std::pow(base.high, exponent);
    return {std::min(one, other), std::max(one, other)};
}

TapeRange::Interval TapeRange::monotone(int op, Interval of) const {
    return {operate(op, of.low, 0.0), operate(op, of.high, 0.0)};
}

TapeRange::Interval TapeRange::undefined(const char *what, Interval of) {
    char text[96];
    if (of.low == of.high)
        std::snprintf(text, sizeof text, "%s %g", what, of.low);
    else
        std::snprintf(text, sizeof text, "%s what lies in [%g, %g]", what, of.low, of.high);
    found_ = text;
    return {-kInfinity, kInfinity};
}

} // namespace store
