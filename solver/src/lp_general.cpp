// Indicators and special ordered sets of LP files (see lp_parser.h).
#include <cmath>

#include "lp_parser.h"
#include "text_scan.h"

namespace trv {

// "b = 1" stands before the arrow, and was read as a row: its term is taken out, and becomes the row's condition.
// entries: where the row's terms begin.
void LpParser::condition(std::size_t entries, const Rest &left, LpKind op, double value) {
    const bool variable = model_.entry.size() == entries + 1 && model_.entry_value.back() == 1 && !left.has_constant &&
                          !left.has_bracket && !left.is_number();
    if (!variable || op != LpKind::equal || (value != 0 && value != 1)) {
        throw LineError{joined(row_text(), " has something else than a variable = 0 or 1 before ->")};
    }
    lexer_.take();
    model_.indicators.row.push_back(model_.rows.size() - 1);
    model_.indicators.column.push_back(model_.entry.back());
    model_.indicators.value.push_back(value);
    model_.entry.pop_back();
    model_.entry_value.pop_back();
}

// A label begins a set or a member, and only what comes next tells: a second colon where it was a set's type, another
// label where it was a set's name, a number where it was a member.
void LpParser::sets() {
    std::string name;
    while (lexer_.peek().kind == LpKind::label) {
        const std::string word(lexer_.take().text);
        const LpKind next = lexer_.peek().kind;
        if (next == LpKind::colon) {
            lexer_.take();
            open_set(name, word);
            name.clear();
        } else if (next == LpKind::label && name.empty()) {
            name = word;
        } else if (!name.empty() || model_.sets.type.empty()) {
            throw LineError{joined(shown(word), ": stands where S1:: or S2:: is expected")};
        } else {
            const std::int32_t column = model_.columns.find(word);
            if (column < 0) {
                throw LineError{
                    joined("unknown variable ", shown(word), " (neither the objective nor a row names it)")};
            }
            const double weight = number("a weight");
            if (std::isinf(weight)) {
                throw LineError{joined("the weight of ", shown(word), " is infinite"), TRV_ERROR_SYNTAX,
                                lexer_.taken_line()};
            }
            model_.sets.add_member(column, weight);
        }
    }
    const LpKind after = lexer_.peek().kind;
    if (after != LpKind::section && after != LpKind::end) {
        unexpected("a set, a member with its weight or a section");
    }
    close_set();
}

void LpParser::open_set(std::string_view name, std::string_view type) {
    const bool one = equal_ignoring_case(type, "S1");
    if (!one && !equal_ignoring_case(type, "S2")) {
        throw LineError{joined("the type ", shown(type), " of a set is neither S1 nor S2")};
    }
    close_set();
    model_.sets.add(one ? TRV_GEN_SOS1 : TRV_GEN_SOS2, name);
}

void LpParser::close_set() {
    const std::string flaw = model_.sets.flaw_of_last(model_.columns);
    if (!flaw.empty()) {
        throw LineError{flaw, TRV_ERROR_SYNTAX, lexer_.taken_line()};
    }
}

} // namespace trv
