// Sections of LP files, their bounds and types (see lp_parser.h).
//
// Where the format's descriptions differ, this is the rule here:
//   - a variable is known once the objective or a row names it: one that only bounds or types name is an error, for
//   misspelt it would change the model without a word;
//   - an upper bound below zero leaves a lower bound of zero alone (the model is infeasible then);
//   - a binary variable has the bounds that the file gives, cut to [0, 1];
//   - a bound given twice is an error.
#include "lp_parser.h"

#include <cmath>
#include <limits>

#include "text_scan.h"

namespace trv {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr unsigned char kLower = 1, kUpper = 2;

LpKind mirrored(LpKind sense) {
    return sense == LpKind::less ? LpKind::greater : sense == LpKind::greater ? LpKind::less : LpKind::equal;
}

} // namespace

void LpParser::unexpected(const std::string &wanted) {
    const LpToken &token = lexer_.peek();
    if (token.kind == LpKind::colon) {
        throw LineError{"':' without a name before it"};
    }
    if (token.kind == LpKind::end) {
        throw LineError{joined("the file ends where ", wanted, " is expected")};
    }
    const std::string text = token.kind == LpKind::label ? joined(token.text, ":") : std::string(token.text);
    throw LineError{joined(shown(text), " stands where ", wanted, " is expected")};
}

void LpParser::run() {
    model_.by_rows = true;
    const LpSection first = lexer_.peek().section;
    if (first != LpSection::minimize && first != LpSection::maximize) {
        unexpected("Minimize or Maximize");
    }
    lexer_.take();
    model_.sense = first == LpSection::maximize ? TRV_MAXIMIZE : TRV_MINIMIZE;
    model_.name = lexer_.title();
    objective();
    bool rows_read = false;
    while (lexer_.peek().section != LpSection::end) {
        if (lexer_.peek().kind != LpKind::section) {
            unexpected(rows_read ? "a section or End" : "Subject To or another section");
        }
        const LpToken header = lexer_.take();
        const auto each = [&](auto line) {
            while (lexer_.peek().kind != LpKind::section && lexer_.peek().kind != LpKind::end) {
                line();
            }
        };
        switch (header.section) {
        case LpSection::rows:
            if (rows_read) {
                throw LineError{joined("a second section ", shown(header.text))};
            }
            rows_read = true;
            each([&] { row(); });
            break;
        case LpSection::bounds:
            each([&] { bound(); });
            break;
        case LpSection::general:
            each([&] { typed_column('I'); });
            break;
        case LpSection::binary:
            each([&] { typed_column('B'); });
            break;
        case LpSection::semi:
            each([&] { typed_column('S'); });
            break;
        case LpSection::sets:
            sets();
            break;
        case LpSection::unsupported:
            throw LineError{joined("section ", header.text, " is not supported yet"), TRV_ERROR_UNSUPPORTED};
        default:
            throw LineError{joined("a second section ", shown(header.text))};
        }
    }
    lexer_.drain();
    close_columns();
}

// ---- bounds ---------------------------------------------------------------------------------------------------------

std::int32_t LpParser::known_column() {
    if (lexer_.peek().kind != LpKind::name) {
        unexpected("a variable");
    }
    const std::string_view name = lexer_.take().text;
    const std::int32_t column = model_.columns.find(name);
    if (column < 0) {
        throw LineError{joined("unknown variable ", shown(name), " (neither the objective nor a row names it)")};
    }
    return column;
}

void LpParser::bound() {
    given_.resize(static_cast<std::size_t>(model_.columns.size()), 0);
    const LpToken &first = lexer_.peek();
    if (first.kind == LpKind::name && !lp_is_infinity(first.text)) {
        const std::int32_t column = known_column();
        if (lexer_.peek().kind == LpKind::name && equal_ignoring_case(lexer_.peek().text, "free")) {
            lexer_.take();
            set_bound(model_.lb, kLower, column, -kInfinity);
            set_bound(model_.ub, kUpper, column, kInfinity);
            return;
        }
        const LpKind op = sense();
        apply_bound(column, op, number("a bound"));
        return;
    }
    const double left = number("a variable or a bound");
    const LpKind op = sense();
    const std::int32_t column = known_column();
    apply_bound(column, mirrored(op), left);
    if (at_sense()) {
        const LpKind second = sense();
        if (second != op || op == LpKind::equal) {
            throw LineError{joined("the two signs of the bounds of ", shown(model_.columns[column]), " do not agree")};
        }
        apply_bound(column, second, number("a bound"));
    }
}

void LpParser::apply_bound(std::int32_t column, LpKind sense, double value) {
    if ((sense != LpKind::less && value == kInfinity) || (sense != LpKind::greater && value == -kInfinity)) {
        throw LineError{joined("no value of ", shown(model_.columns[column]), " meets its infinite bound")};
    }
    if (sense != LpKind::less) {
        set_bound(model_.lb, kLower, column, value);
    }
    if (sense != LpKind::greater) {
        set_bound(model_.ub, kUpper, column, value);
    }
}

void LpParser::set_bound(std::vector<double> &side, unsigned char bit, std::int32_t column, double value) {
    const auto at = static_cast<std::size_t>(column);
    if (given_[at] & bit) {
        throw LineError{
            joined("a second ", bit == kLower ? "lower" : "upper", " bound of ", shown(model_.columns[column]))};
    }
    given_[at] |= bit;
    side[at] = value;
}

// ---- types ----------------------------------------------------------------------------------------------------------

void LpParser::typed_column(char vtype) {
    const std::int32_t column = known_column();
    char &present = model_.vtype[static_cast<std::size_t>(column)];
    if (present != 'C' && (vtype == 'S') != (present == 'S')) {
        throw LineError{joined("the variable ", shown(model_.columns[column]),
                               " is integer and semi-continuous: semi-integer variables are not supported"),
                        TRV_ERROR_UNSUPPORTED};
    }
    present = present == 'B' ? 'B' : vtype;
}

void LpParser::close_columns() {
    given_.resize(static_cast<std::size_t>(model_.columns.size()), 0);
    for (std::size_t i = 0; i < given_.size(); ++i) {
        if (model_.vtype[i] == 'B' && !(given_[i] & kUpper)) {
            model_.ub[i] = 1;
        }
    }
}

// ---- the file -------------------------------------------------------------------------------------------------------

FileModel read_lp(const std::string &path) {
    LpParser parser(path);
    try {
        parser.run();
        return parser.take();
    } catch (const LineError &error) {
        throw FileError{error.code, placed(path, error.line > 0 ? error.line : parser.line(), error.text)};
    }
}

} // namespace trv
