// tape.h: Tape, a nonlinear function in postfix order (the encoding is told in tarvo.h), how it is checked, and its
// value and gradient at a point.
//
//   2*sin(x*y) + z      codes  CONSTANT x y MULTIPLY SIN MULTIPLY z SUM(2),  constants 2
//
// An entry takes 4 bytes and a constant 8 more. Everything is a pass over the entries with a stack of values: nothing
// recurses, so that a chain of a million operations costs memory and no more.
#pragma once

#include "buffer.h"
#include "registry.h"
#include "tarvo.h"

#include <string>

namespace store {

struct Tape {
    int64_t n;
    const int32_t *code;
    const double *constant;
};

inline int operationof(int32_t code) {
    return ~code & 31;
}
inline int32_t arityof(int32_t code) {
    return ~code >> 5;
}
// 0 for what is no operation of its own: a constant.
int operandsof(int32_t code);

// f(op, left, right); of one operand the left one.
double operate(int op, double left, double right);

// Checks tapes one after the other, with the stack kept in between.
class TapeCheck {
  public:
    explicit TapeCheck(const Registry &variables) : variables_(variables) {}

    // The number of constants that the tape takes; what is wrong goes to why, and then it is -1.
    int64_t check(int64_t n, const int32_t *code, int64_t nconstants, const double *constant, std::string &why);

  private:
    bool operation(int32_t code, std::string &why);
    bool fold(int op, double *left, double right, std::string &why);

    const Registry &variables_;
    Buffer<double> stack_; // values of parts that are made of constants alone, NaN for others
    int64_t depth_ = 0;
};

// Values and gradients at one point, given by id of variable.
class TapeRun {
  public:
    explicit TapeRun(const double *x) : x_(x) {}

    struct Value {
        double value;
        double largest; // magnitude of a summand, through sums, differences and signs
    };
    // {0, 0} for an empty tape.
    Value value(const Tape &tape);
    // The value, and f(id, share) for each occurrence of a variable: the gradient's entry is the sum of its shares.
    template <class F> double gradient(const Tape &tape, F f) {
        const double result = forward(tape);
        adjoint_.cut(0);
        if (tape.n)
            adjoint_.push(1.0);
        for (int64_t k = tape.n; k-- > 0;) {
            const int32_t code = tape.code[k];
            adjoint_.cut(adjoint_.size() - 1);
            const double adjoint = *adjoint_.end();
            if (code >= 0)
                f(code, adjoint);
            else
                backward(code, adjoint, partials_[k]);
        }
        return result;
    }

  private:
    struct Partials {
        double left, right;
    };

    double forward(const Tape &tape);
    void backward(int32_t code, double adjoint, const Partials &partials);

    const double *x_;
    Buffer<Value> stack_;
    Buffer<double> values_, adjoint_;
    Buffer<Partials> partials_;
};

} // namespace store
