// The two sides of an MPS row from its type, right-hand side and range, and back (see mps_sides.h).
#include "mps_sides.h"

#include <charconv>
#include <cmath>

#include "text_scan.h"

namespace trv {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

// base + size * sign, with the digits that the range has: in double for a double, as any other reader does.
double moved(double base, double sign, MpsRange size) {
    if (std::isinf(size.value)) {
        return sign * kInfinity;
    }
    if (size.extended == static_cast<long double>(size.value)) {
        return base + sign * size.value;
    }
    return static_cast<double>(static_cast<long double>(base) + static_cast<long double>(sign) * size.extended);
}

bool same(Sides a, Sides b) {
    return a.lower == b.lower && a.upper == b.upper;
}

bool gives(Sides sides, const MpsRowForm &form, long double range) {
    return same(mps_sides(form.type, form.rhs, {static_cast<double>(range), range}), sides);
}

std::string extended_text(long double value) {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::scientific,
                                      std::numeric_limits<long double>::max_digits10 - 1);
    return {buffer, result.ptr};
}

// The right-hand side on the smaller of the two sides loses least.
bool ranged_form(Sides sides, MpsRowForm &form) {
    const MpsRowForm forms[] = {{'L', sides.upper, {}}, {'G', sides.lower, {}}};
    const double range = sides.upper - sides.lower;
    for (const MpsRowForm &candidate : forms) {
        if (gives(sides, candidate, range)) {
            char buffer[kNumberSize];
            form = candidate;
            form.range = number_text(range, buffer);
            return true;
        }
    }
    const long double extended = static_cast<long double>(sides.upper) - static_cast<long double>(sides.lower);
    for (const MpsRowForm &candidate : forms) {
        if (gives(sides, candidate, extended)) {
            form = candidate;
            form.range = extended_text(extended);
            return true;
        }
    }
    return false;
}

} // namespace

Sides mps_sides(char type, double rhs) {
    switch (type) {
    case 'E':
        return {rhs, rhs};
    case 'L':
        return {-kInfinity, rhs};
    case 'G':
        return {rhs, kInfinity};
    default:
        return {-kInfinity, kInfinity};
    }
}

Sides mps_sides(char type, double rhs, MpsRange range) {
    const MpsRange size{std::fabs(range.value), std::fabs(range.extended)};
    if (type == 'N') {
        return mps_sides(type, rhs);
    }
    const bool below = type == 'L' || (type == 'E' && range.value < 0);
    return below ? Sides{moved(rhs, -1, size), rhs} : Sides{rhs, moved(rhs, 1, size)};
}

bool mps_row_form(Sides sides, MpsRowForm &form) {
    const char types[] = {'N', 'E', 'L', 'G'};
    for (const char type : types) {
        const double rhs = type == 'N' ? 0 : type == 'G' ? sides.lower : sides.upper;
        if (same(mps_sides(type, rhs), sides)) {
            form = {type, rhs, {}};
            return true;
        }
    }
    return sides.lower < sides.upper && ranged_form(sides, form);
}

} // namespace trv
