// failure.h: how the store fails inside. Failure carries one of the codes of tarvo.h and the text; the border
// (border.h) turns it into a return code. Here stand also the texts that recur, and what the store takes for infinite.
#pragma once

#include "tarvo.h"

#include <cmath>
#include <cstdint>
#include <string>

namespace store {

struct Failure {
    int code;
    std::string text;
};

// What is wrong with one row of a block: whoever knows the block's names says which (see names.h).
struct RowFailure : Failure {
    int64_t row;
};

[[noreturn]] void fail(int code, std::string text);
// printf's formats, since the messages are mostly numbers.
[[noreturn]] void failf(int code, const char *format, ...) __attribute__((format(printf, 2, 3)));

// "variable", "row", ... and their plural.
const char *kindname(int kind);
const char *kindsname(int kind);

// "1e+20" instead of 20 digits, "nan", "inf".
std::string number(double value);
// "'Z'", or "character 200" where it does not print.
std::string character(char value);

inline bool isfinite(double v) {
    return std::fabs(v) < TRV_INFINITY; // false for NaN as well
}
inline double normalized(double v) {
    if (v >= TRV_INFINITY)
        return INFINITY;
    return v <= -TRV_INFINITY ? -INFINITY : v;
}

// "UB of the variable x is -inf: no value meets it", where who() is asked for only now. why: what is wrong with an
// infinite one.
template <class Who>
[[noreturn]] void failvalue(const char *what, Who who, double value, const char *why = "no value meets it") {
    std::string text = std::string(what) + " of " + who() + " is " + number(value);
    fail(TRV_ERROR_INVALID_ARGUMENT, std::isnan(value) ? text : text + ": " + why);
}

// A count handed over by the caller.
void requirecount(const char *what, int64_t n);
// Names are C strings to some callers.
void requirenonull(const char *what, const char *text, int64_t length);
void requirepointer(const char *what, const void *p, int64_t n);

} // namespace store
