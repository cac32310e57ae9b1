// failure.cpp: the recurring texts of the store's errors.
#include "failure.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

namespace store {

void fail(int code, std::string text) {
    throw Failure{code, std::move(text)};
}

void failf(int code, const char *format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    throw Failure{code, text};
}

const char *kindname(int kind) {
    switch (kind) {
    case TRV_MODEL:
        return "model";
    case TRV_VAR:
        return "variable";
    case TRV_CONSTR:
        return "row";
    case TRV_QCONSTR:
        return "quadratic row";
    case TRV_GENCONSTR:
        return "general constraint";
    case TRV_NLCONSTR:
        return "nonlinear constraint";
    }
    return "element";
}

const char *kindsname(int kind) {
    switch (kind) {
    case TRV_MODEL:
        return "the model";
    case TRV_VAR:
        return "variables";
    case TRV_CONSTR:
        return "rows";
    case TRV_QCONSTR:
        return "quadratic rows";
    case TRV_GENCONSTR:
        return "general constraints";
    case TRV_NLCONSTR:
        return "nonlinear constraints";
    }
    return "elements";
}

std::string number(double value) {
    if (std::isnan(value))
        return "nan"; // printf shows the sign that some have
    char text[40];
    std::snprintf(text, sizeof text, "%.15g", value);
    return text;
}

std::string character(char value) {
    if (value > ' ' && value <= '~')
        return std::string("'") + value + "'";
    return "character " + std::to_string(static_cast<unsigned char>(value));
}

void requirecount(const char *what, int64_t n) {
    if (n < 0)
        failf(TRV_ERROR_INVALID_ARGUMENT, "%s: a negative count, %" PRId64, what, n);
}

void requirenonull(const char *what, const char *text, int64_t length) {
    if (length > 0 && std::memchr(text, 0, static_cast<size_t>(length)))
        failf(TRV_ERROR_INVALID_ARGUMENT, "%s: a name holds a null character", what);
}

void requirepointer(const char *what, const void *p, int64_t n) {
    if (!p && n > 0)
        failf(TRV_ERROR_INVALID_ARGUMENT, "%s: an array is missing", what);
}

} // namespace store
