// Expressions and rows of LP files (see lp_parser.h).
//
// A row may begin with its number ("5 >= x + y"); a row that begins with variables ends with the number behind its
// sense, so that no end of line must be told from a blank. Variables on both sides are an error, as are numbers that
// stand for nothing: two in a row, or a bracket's coefficient.
#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <utility>

#include "lp_parser.h"
#include "text_scan.h"

namespace trv {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

double side(double value) {
    return std::fabs(value) < TRV_INFINITY ? value : std::copysign(kInfinity, value);
}

} // namespace

void LpParser::Rest::add(double value) {
    const double sum = has_constant ? constant + value : value;
    if (std::isnan(sum)) {
        throw LineError{"inf - inf among the constants has no value"};
    }
    constant = sum;
    has_constant = true;
}

// ---- expressions ----------------------------------------------------------------------------------------------------

bool LpParser::take_signs(double &sign) {
    sign = 1;
    bool any = false;
    for (LpKind kind = lexer_.peek().kind; kind == LpKind::plus || kind == LpKind::minus; kind = lexer_.peek().kind) {
        sign = kind == LpKind::minus ? -sign : sign;
        any = true;
        lexer_.take();
    }
    return any;
}

// The name that comes next, new ones included.
std::int32_t LpParser::enter_column() {
    const LpToken token = lexer_.take();
    if (lp_is_infinity(token.text) || equal_ignoring_case(token.text, "nan")) {
        throw LineError{joined(shown(token.text), " stands where a variable is expected")};
    }
    const std::int32_t known = model_.columns.size();
    const std::int32_t column = model_.columns.find_or_add(token.text);
    if (column == known) {
        if (!valid_utf8(token.text)) {
            throw LineError{joined("the name ", shown(token.text), " is not UTF-8")};
        }
        model_.cost.push_back(0);
        model_.lb.push_back(0);
        model_.ub.push_back(kInfinity);
        model_.vtype.push_back('C');
    }
    return column;
}

void LpParser::want_finite(double coefficient, std::string_view variable) const {
    if (std::fabs(coefficient) >= TRV_INFINITY) {
        char buffer[kNumberSize];
        throw LineError{joined("the coefficient ", number_text(coefficient, buffer), " of ", shown(variable),
                               " is infinite (from 1e20 on)"),
                        TRV_ERROR_SYNTAX, lexer_.taken_line()};
    }
}

void LpParser::linear(Target target, double coefficient) {
    const std::int32_t known = model_.columns.size();
    const std::int32_t column = enter_column();
    if (target == Target::row) {
        model_.entry.push_back(column);
        model_.entry_value.push_back(coefficient);
        return;
    }
    // Not added to the zero of a new variable: it may be -0.0.
    double &cost = model_.cost[static_cast<std::size_t>(column)];
    cost = column == known ? coefficient : cost + coefficient;
    if (std::fabs(cost) >= TRV_INFINITY) {
        throw LineError{joined("the coefficients of ", shown(model_.columns[column]), " add up to infinity")};
    }
}

// The store adds up what names the same variables, and knows no lines. `names` gives the two variables of a term. Only
// terms that are too large together are looked at one by one.
template <class Names>
void LpParser::want_finite_sums(const std::vector<double> &values, std::size_t begin, Names names) const {
    double all = 0;
    for (std::size_t k = begin; k < values.size(); ++k) {
        all += std::fabs(values[k]);
    }
    if (all < TRV_INFINITY) {
        return;
    }
    std::map<std::pair<std::int32_t, std::int32_t>, double> sums;
    for (std::size_t k = begin; k < values.size(); ++k) {
        const auto [one, other] = names(k);
        const double sum = sums[std::minmax(one, other)] += values[k];
        if (std::fabs(sum) >= TRV_INFINITY) {
            throw LineError{joined("the coefficients of ", shown(model_.columns[one]),
                                   one == other ? std::string() : joined(" * ", shown(model_.columns[other])),
                                   " add up to infinity"),
                            TRV_ERROR_SYNTAX, lexer_.taken_line()};
        }
    }
}

void LpParser::want_finite_products(const QuadTerms &terms, std::size_t begin) const {
    want_finite_sums(terms.value, begin, [&](std::size_t k) { return std::pair(terms.first[k], terms.second[k]); });
}

LpParser::Rest LpParser::expression(Target target) {
    Rest rest;
    for (bool first = true;; first = false) {
        double sign;
        const bool signs = take_signs(sign);
        const LpKind kind = lexer_.peek().kind;
        const bool begins = kind == LpKind::number || kind == LpKind::name || kind == LpKind::open;
        if (signs && !begins) {
            unexpected("a term");
        }
        if (!begins || (!first && !signs)) {
            return rest;
        }
        if (kind == LpKind::open) {
            bracket(target, sign);
            rest.has_bracket = true;
        } else {
            term(target, sign, rest);
        }
    }
}

void LpParser::term(Target target, double sign, Rest &rest) {
    const LpToken &token = lexer_.peek();
    if (token.kind == LpKind::name) {
        if (lp_is_infinity(token.text)) {
            rest.add(sign * kInfinity);
            lexer_.take();
        } else {
            linear(target, sign);
            rest.has_terms = true;
        }
        return;
    }
    const LpToken number = lexer_.take();
    const double value = number.value;
    const bool times = lexer_.peek().kind == LpKind::times;
    if (times) {
        lexer_.take();
    }
    if (lexer_.peek().kind == LpKind::name) {
        want_finite(value, lexer_.peek().text);
        linear(target, sign * value);
        rest.has_terms = true;
    } else if (times || lexer_.peek().kind == LpKind::open) {
        unexpected("a variable");
    } else {
        rest.add(sign * side(value));
    }
}

void LpParser::bracket(Target target, double sign) {
    QuadTerms &terms = target == Target::objective ? model_.qobjective : model_.qterms;
    const std::size_t begin = terms.size();
    lexer_.take();
    for (bool first = true; lexer_.peek().kind != LpKind::close; first = false) {
        double term_sign;
        if (!take_signs(term_sign) && !first) {
            unexpected("a sign or ]");
        }
        product(terms, sign * term_sign);
    }
    lexer_.take();
    if (lexer_.peek().kind == LpKind::divide) {
        lexer_.take();
        if (lexer_.peek().kind != LpKind::number || lexer_.peek().value != 2) {
            unexpected("2");
        }
        lexer_.take();
        for (std::size_t k = begin; k < terms.size(); ++k) {
            terms.value[k] /= 2;
        }
    }
    for (std::size_t k = begin; k < terms.size(); ++k) {
        want_finite(terms.value[k], model_.columns[terms.first[k]]);
    }
}

// x ^2,  3 x * y,  3 * x * y
void LpParser::product(QuadTerms &terms, double sign) {
    double coefficient = sign;
    if (lexer_.peek().kind == LpKind::number) {
        coefficient *= lexer_.take().value;
        if (lexer_.peek().kind == LpKind::times) {
            lexer_.take();
        }
    }
    if (lexer_.peek().kind != LpKind::name) {
        unexpected("a variable");
    }
    const std::int32_t one = enter_column();
    if (lexer_.peek().kind == LpKind::caret) {
        lexer_.take();
        if (lexer_.peek().kind != LpKind::number || lexer_.peek().value != 2) {
            unexpected("the exponent 2");
        }
        lexer_.take();
        terms.add(one, one, coefficient);
        return;
    }
    if (lexer_.peek().kind != LpKind::times) {
        unexpected("^ 2 or * and a variable (linear terms stand outside of the bracket)");
    }
    lexer_.take();
    if (lexer_.peek().kind != LpKind::name) {
        unexpected("a variable");
    }
    terms.add(one, enter_column(), coefficient);
}

// ---- objective and rows ---------------------------------------------------------------------------------------------

void LpParser::objective() {
    if (lexer_.peek().kind == LpKind::label) {
        lexer_.take();
    }
    const Rest rest = expression(Target::objective);
    if (std::fabs(rest.constant) >= TRV_INFINITY) {
        throw LineError{"the constant of the objective is infinite", TRV_ERROR_SYNTAX, lexer_.taken_line()};
    }
    want_finite_products(model_.qobjective, 0);
    model_.constant = rest.constant;
    if (lexer_.peek().kind != LpKind::section) {
        unexpected("a sign or a section");
    }
}

void LpParser::enter_row() {
    if (lexer_.peek().kind == LpKind::label) {
        const std::string_view name = lexer_.take().text;
        if (!valid_utf8(name)) {
            throw LineError{joined("the name ", shown(name), " is not UTF-8")};
        }
        if (model_.rows.add(name) < 0) {
            throw LineError{joined("a second row ", shown(name))};
        }
    } else {
        model_.rows.add_unnamed();
    }
    model_.start.push_back(static_cast<std::int64_t>(model_.entry.size()));
}

void LpParser::row() {
    enter_row();
    const std::size_t entries = model_.entry.size(), products = model_.qterms.size();
    const Rest left = expression(Target::row);
    if (left.is_number() && !left.has_constant) {
        unexpected("a row");
    }
    Rest middle;
    const LpKind op = at_sense() ? lexer_.peek().kind : sense();
    Sides both = sides(left, middle);
    const bool indicator = lexer_.peek().kind == LpKind::arrow;
    if (indicator) {
        condition(entries, left, op, both.lower);
        const Rest behind = expression(Target::row);
        if (behind.is_number() && !behind.has_constant) {
            unexpected("a row behind ->");
        }
        both = sides(behind, middle);
    }
    if (indicator && middle.has_bracket) {
        fail_row("has quadratic terms behind ->", TRV_ERROR_UNSUPPORTED);
    }
    add_sides(both, middle);
    want_finite_sums(model_.entry_value, entries,
                     [this](std::size_t k) { return std::pair(model_.entry[k], model_.entry[k]); });
    if (middle.has_bracket) {
        want_finite_products(model_.qterms, products);
        model_.qrow.push_back(model_.rows.size() - 1);
        model_.qstart.push_back(static_cast<std::int64_t>(products));
    }
}

// What follows the first expression of a row. middle: the expression with the terms.
LpParser::Sides LpParser::sides(const Rest &left, Rest &middle) {
    const LpKind op = sense();
    middle = left;
    return left.is_number() ? sides_around(left.constant, op, middle) : sides_of(op, number("a number"));
}

LpParser::Sides LpParser::sides_of(LpKind op, double value) {
    return {op == LpKind::less ? -kInfinity : value, op == LpKind::greater ? kInfinity : value,
            op == LpKind::less      ? 'L'
            : op == LpKind::greater ? 'G'
                                    : 'E'};
}

// What follows "-5 <=": the expression, and another number if there are two sides.
LpParser::Sides LpParser::sides_around(double left, LpKind op, Rest &middle) {
    middle = expression(Target::row);
    if (middle.is_number() && !middle.has_constant) {
        unexpected("an expression");
    }
    const LpKind mirrored = op == LpKind::less ? LpKind::greater : op == LpKind::greater ? LpKind::less : op;
    if (!at_sense()) {
        return sides_of(mirrored, left);
    }
    if (sense() != op || op == LpKind::equal) {
        throw LineError{joined("the two signs of ", row_text(), " do not agree")};
    }
    const double right = number("a number");
    return {op == LpKind::less ? left : right, op == LpKind::less ? right : left, 'R'};
}

// The constant that stands among the terms moves to the other side.
void LpParser::add_sides(Sides sides, const Rest &middle) {
    if (middle.has_bracket && sides.type == 'R') {
        fail_row("has quadratic terms and two sides: write it as two rows", TRV_ERROR_UNSUPPORTED);
    }
    if (std::isinf(middle.constant)) {
        fail_row("has an infinite constant", TRV_ERROR_SYNTAX);
    }
    if (middle.constant != 0) {
        sides.lower = side(sides.lower - middle.constant);
        sides.upper = side(sides.upper - middle.constant);
    }
    if (sides.lower == kInfinity || sides.upper == -kInfinity) {
        fail_row("has an infinite side that nothing meets", TRV_ERROR_SYNTAX);
    }
    model_.row_type.push_back(sides.type);
    model_.lower.push_back(sides.lower);
    model_.upper.push_back(sides.upper);
}

// The row is complete, and the next line may be in hand already.
void LpParser::fail_row(const std::string &what, int code) const {
    throw LineError{joined(row_text(), " ", what), code, lexer_.taken_line()};
}

std::string LpParser::row_text() const {
    const std::string_view name = model_.rows[model_.rows.size() - 1];
    return name.empty() ? std::string("the row") : joined("the row ", shown(name));
}

bool LpParser::at_sense() {
    const LpKind kind = lexer_.peek().kind;
    return kind == LpKind::less || kind == LpKind::greater || kind == LpKind::equal;
}

LpKind LpParser::sense() {
    if (!at_sense()) {
        unexpected("<=, >= or =");
    }
    return lexer_.take().kind;
}

double LpParser::number(const char *wanted) {
    double sign;
    take_signs(sign);
    const LpToken &token = lexer_.peek();
    if (token.kind == LpKind::number) {
        return sign * side(lexer_.take().value);
    }
    if (token.kind != LpKind::name || !lp_is_infinity(token.text)) {
        unexpected(wanted);
    }
    lexer_.take();
    return sign * kInfinity;
}

} // namespace trv
