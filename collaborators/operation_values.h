// The value of one operation of an expression tree. It stands here since trees and array nodes (of two siblings)
// must agree on it to the last bit.
#pragma once

#include "collaborators/core.h"

#include <cmath>

namespace tarvopy {

inline double logistic(double u) {
    if (u >= 0)
        return 1 / (1 + std::exp(-u));
    double power = std::exp(u); // the other form overflows here
    return power / (1 + power);
}

// Outside of a function's domain NaN or infinite, as C has it. `right` is read by operations of two.
inline double operation_value(TreeOp op, double left, double right) {
    switch (op) {
    case TreeOp::Plus:
        return left + right;
    case TreeOp::Minus:
        return left - right;
    case TreeOp::Multiply:
        return left * right;
    case TreeOp::Divide:
        return left / right;
    case TreeOp::Pow:
        return std::pow(left, right);
    case TreeOp::Uminus:
        return -left;
    case TreeOp::Square:
        return left * left;
    case TreeOp::Sqrt:
        return std::sqrt(left);
    case TreeOp::Exp:
        return std::exp(left);
    case TreeOp::Log:
        return std::log(left);
    case TreeOp::Log2:
        return std::log2(left);
    case TreeOp::Log10:
        return std::log10(left);
    case TreeOp::Sin:
        return std::sin(left);
    case TreeOp::Cos:
        return std::cos(left);
    case TreeOp::Tan:
        return std::tan(left);
    case TreeOp::Tanh:
        return std::tanh(left);
    case TreeOp::Logistic:
        return logistic(left);
    default:
        return std::fabs(left);
    }
}

} // namespace tarvopy
