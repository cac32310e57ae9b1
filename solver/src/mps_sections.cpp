// What each section of an MPS file means (see mps_parser.h).
//
// Where the format's descriptions differ, this is the rule here, the same as in HiGHS' reader unless a line says
// otherwise:
//   - the first N row is the objective (or the one that OBJNAME names); other N rows are free rows, kept as rows;
//   - a right-hand side of the objective is minus its constant; one of a free row, and a range of any N row, mean
//   nothing;
//   - an upper bound below zero leaves a lower bound of zero alone (the model is infeasible then);
//   - an integer column between markers without any bound has [0, 1]; with any bound its other side is 0 or infinite;
//   - BV gives the sides that nothing else gives; SC needs its upper bound, 1e30 for none;
//   - of several sets in RHS, RANGES or BOUNDS the first one counts, the others are checked and left out (HiGHS mixes
//   them);
//   - anything given twice is an error (HiGHS keeps the first and warns).
#include <algorithm>
#include <cmath>
#include <limits>

#include "mps_parser.h"
#include "mps_sides.h"
#include "text_scan.h"

namespace trv {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr unsigned char kLower = 1, kUpper = 2, kBound = 4, kMarked = 8;

double number(std::string_view text) {
    double value;
    if (!scan_number(text, value)) {
        throw LineError{joined(shown(text), " is not a number")};
    }
    return value;
}

double side(double value) {
    return std::fabs(value) < TRV_INFINITY ? value : std::copysign(kInfinity, value);
}

double finite(std::string_view text) {
    const double value = number(text);
    if (std::fabs(value) >= TRV_INFINITY) {
        throw LineError{joined("the coefficient ", shown(text), " is infinite")};
    }
    return value;
}

// A right-hand side may be infinite where it then says nothing, as in "<= 1e30", but not where nothing could hold.
double rhs_number(char type, std::string_view text) {
    const double value = side(number(text));
    if (std::isinf(value) && (type == 'E' || (type == 'L' && value < 0) || (type == 'G' && value > 0))) {
        throw LineError{
            joined("the right-hand side ", shown(text), " of a row of type ", std::string(1, type), " is infinite")};
    }
    return value;
}

void check_name(std::string_view name) {
    if (!valid_utf8(name)) {
        throw LineError{joined("the name ", shown(name), " is not UTF-8")};
    }
}

} // namespace

// ---- NAME, OBJSENSE, OBJNAME ----------------------------------------------------------------------------------------

void MpsParser::begin_name(std::string_view rest) {
    check_name(rest);
    model_.name = rest;
}

void MpsParser::begin_sense(std::string_view rest) {
    if (!rest.empty()) {
        sense_line(rest);
    }
}

void MpsParser::sense_line(std::string_view line) {
    const std::string_view word = mps_word_line(line);
    const auto is = [&](std::string_view keyword) { return equal_ignoring_case(word, keyword); };
    const bool maximize = is("MAX") || is("MAXIMIZE") || is("MAXIMISE");
    if (!maximize && !is("MIN") && !is("MINIMIZE") && !is("MINIMISE")) {
        throw LineError{joined("the objective sense ", shown(word), " is neither MIN nor MAX")};
    }
    if (sense_given_) {
        throw LineError{"a second objective sense"};
    }
    sense_given_ = true;
    model_.sense = maximize ? TRV_MAXIMIZE : TRV_MINIMIZE;
}

void MpsParser::begin_objective(std::string_view rest) {
    if (was_open("COLUMNS")) {
        throw LineError{joined(section_->name, " behind COLUMNS")};
    }
    if (!rest.empty()) {
        objective_line(rest);
    }
}

void MpsParser::objective_line(std::string_view line) {
    if (!objective_name_.empty()) {
        throw LineError{"a second name of the objective"};
    }
    objective_name_ = trimmed(line);
}

void MpsParser::choose_objective() {
    const auto first = std::find(model_.row_type.begin(), model_.row_type.end(), 'N');
    if (first != model_.row_type.end()) {
        model_.objective = static_cast<std::int32_t>(first - model_.row_type.begin());
    }
    if (!objective_name_.empty()) {
        model_.objective = model_.rows.find(objective_name_);
        if (model_.objective < 0 || model_.row_type[static_cast<std::size_t>(model_.objective)] != 'N') {
            throw LineError{joined("the objective ", shown(objective_name_), " is not an N row")};
        }
    }
}

// ---- ROWS -----------------------------------------------------------------------------------------------------------

void MpsParser::row_line(std::string_view line) {
    const MpsRowLine record = mps_row_line(form_, line);
    if (record.type.size() != 1 || std::string_view("NELG").find(record.type.front()) == std::string_view::npos) {
        throw LineError{joined("the row type ", shown(record.type), " is none of N, E, L, G")};
    }
    check_name(record.name);
    if (model_.rows.add(record.name) < 0) {
        throw LineError{joined("a second row ", shown(record.name))};
    }
    model_.row_type.push_back(record.type.front());
}

std::int32_t MpsParser::known_row(std::string_view name) const {
    const std::int32_t row = model_.rows.find(name);
    if (row < 0) {
        throw LineError{joined("unknown row ", shown(name))};
    }
    return row;
}

// ---- COLUMNS --------------------------------------------------------------------------------------------------------

void MpsParser::begin_columns(std::string_view rest) {
    no_rest(rest);
    choose_objective();
    const auto nrows = static_cast<std::size_t>(model_.rows.size());
    last_column_.assign(nrows, -1);
    rhs_.assign(nrows, 0);
    has_rhs_.assign(nrows, 0);
}

void MpsParser::column_line(std::string_view line) {
    const MpsPairsLine record = mps_column_line(form_, line);
    if (watch_forms_ && mps_ambiguous_column(line)) {
        throw AmbiguousForm{};
    }
    if (!record.marker.empty()) {
        marker(record.marker);
        return;
    }
    const std::int32_t count = model_.columns.size();
    if (count == 0 || model_.columns[count - 1] != record.head) {
        enter_column(record.head);
    }
    for (int i = 0; i < record.npairs; ++i) {
        add_entry(record.pair[i]);
    }
}

void MpsParser::marker(std::string_view word) {
    const bool opens = word == "'INTORG'";
    if (!opens && word != "'INTEND'") {
        throw LineError{joined("the marker ", shown(word), " is neither 'INTORG' nor 'INTEND'")};
    }
    if (opens == integer_block_) {
        throw LineError{
            joined("the marker ", word, opens ? " inside of an integer block" : " outside of an integer block")};
    }
    integer_block_ = opens;
}

void MpsParser::enter_column(std::string_view name) {
    check_name(name);
    if (model_.columns.add(name) < 0) {
        throw LineError{joined("the column ", shown(name), " again (its lines must stand together)")};
    }
    model_.cost.push_back(0);
    model_.lb.push_back(0);
    model_.ub.push_back(kInfinity);
    model_.vtype.push_back(integer_block_ ? 'I' : 'C');
    model_.start.push_back(static_cast<std::int64_t>(model_.entry.size()));
    given_.push_back(integer_block_ ? kMarked : 0);
}

void MpsParser::add_entry(MpsPair pair) {
    const std::int32_t row = known_row(pair.name);
    const double value = finite(pair.number);
    const std::int32_t column = model_.columns.size() - 1;
    std::int32_t &last = last_column_[static_cast<std::size_t>(row)];
    if (last == column) {
        throw LineError{
            joined("a second coefficient of column ", shown(model_.columns[column]), " in row ", shown(pair.name))};
    }
    last = column;
    if (row == model_.objective) {
        model_.cost.back() = value;
    } else if (value != 0) {
        model_.entry.push_back(row);
        model_.entry_value.push_back(value);
    }
}

// ---- RHS, RANGES ----------------------------------------------------------------------------------------------------

void MpsParser::begin_set(std::string_view rest) {
    no_rest(rest);
    set_.clear();
}

bool MpsParser::in_first_set(std::string_view set) {
    if (set_.empty()) {
        set_ = set;
    }
    return set.empty() || set == set_;
}

void MpsParser::rhs_line(std::string_view line) {
    const MpsPairsLine record = mps_pairs_line(form_, line);
    const bool counts = in_first_set(record.head);
    for (int i = 0; i < record.npairs; ++i) {
        const std::int32_t row = known_row(record.pair[i].name);
        const auto at = static_cast<std::size_t>(row);
        const double value = row == model_.objective ? finite(record.pair[i].number)
                                                     : rhs_number(model_.row_type[at], record.pair[i].number);
        if (!counts) {
            continue;
        }
        if (has_rhs_[at]) {
            throw LineError{joined("a second right-hand side of row ", shown(record.pair[i].name))};
        }
        has_rhs_[at] = 1;
        rhs_[at] = value;
    }
}

void MpsParser::range_line(std::string_view line) {
    const MpsPairsLine record = mps_pairs_line(form_, line);
    const bool counts = in_first_set(record.head);
    range_.resize(model_.row_type.size(), {std::nan(""), 0});
    for (int i = 0; i < record.npairs; ++i) {
        const std::int32_t row = known_row(record.pair[i].name);
        MpsRange range{number(record.pair[i].number), 0};
        scan_extended(record.pair[i].number, range.extended);
        if (!counts) {
            continue;
        }
        MpsRange &place = range_[static_cast<std::size_t>(row)];
        if (!std::isnan(place.value)) {
            throw LineError{joined("a second range of row ", shown(record.pair[i].name))};
        }
        place = range;
    }
}

void MpsParser::close_rows() {
    if (model_.objective >= 0 && has_rhs_[static_cast<std::size_t>(model_.objective)]) {
        model_.constant = -rhs_[static_cast<std::size_t>(model_.objective)];
    }
    for (std::size_t i = 0; i < rhs_.size(); ++i) {
        const bool ranged = !range_.empty() && !std::isnan(range_[i].value);
        if (ranged && !is_quadratic_.empty() && is_quadratic_[i]) {
            throw LineError{joined("the row ", shown(model_.rows[static_cast<std::int32_t>(i)]),
                                   " has quadratic terms and a range: a quadratic row has one side")};
        }
        const Sides sides =
            ranged ? mps_sides(model_.row_type[i], rhs_[i], range_[i]) : mps_sides(model_.row_type[i], rhs_[i]);
        if (side(sides.lower) == kInfinity || side(sides.upper) == -kInfinity) {
            throw LineError{joined("the sides of row ", shown(model_.rows[static_cast<std::int32_t>(i)]),
                                   " from its right-hand side and range are infinite")};
        }
        model_.lower.push_back(sides.lower);
        model_.upper.push_back(sides.upper);
    }
}

// ---- BOUNDS ---------------------------------------------------------------------------------------------------------

struct MpsParser::BoundType {
    std::string_view name;
    bool takes_number;
    unsigned char sides; // which ones it gives
    char vtype;          // which type, 0 for none
};

const MpsParser::BoundType MpsParser::kBoundTypes[] = {
    {"UP", true, kUpper, 0},
    {"LO", true, kLower, 0},
    {"FX", true, kLower | kUpper, 0},
    {"FR", false, kLower | kUpper, 0},
    {"MI", false, kLower, 0},
    {"PL", false, kUpper, 0},
    {"BV", false, 0, 'B'},
    {"LI", true, kLower, 'I'},
    {"UI", true, kUpper, 'I'},
    {"SC", true, kUpper, 'S'},
};

std::int32_t MpsParser::known_column(MpsBoundLine &record) const {
    std::int32_t column = model_.columns.find(record.column);
    if (column < 0 && record.maybe_without_set) {
        column = model_.columns.find(record.set);
        if (column >= 0) {
            record.number = record.column.starts_with('$') ? std::string_view() : record.column;
            record.set = {};
        }
    }
    if (column < 0) {
        throw LineError{joined("unknown column ", shown(record.column))};
    }
    return column;
}

void MpsParser::bound_line(std::string_view line) {
    MpsBoundLine record = mps_bound_line(form_, line);
    const auto type = std::find_if(std::begin(kBoundTypes), std::end(kBoundTypes),
                                   [&](const BoundType &row) { return row.name == record.type; });
    if (record.type == "SI") {
        throw LineError{"semi-integer columns are not supported", TRV_ERROR_UNSUPPORTED};
    }
    if (type == std::end(kBoundTypes)) {
        throw LineError{joined("unknown bound type ", shown(record.type))};
    }
    const std::int32_t column = known_column(record);
    if (type->takes_number && record.number.empty()) {
        throw LineError{
            joined("the bound ", type->name, " of column ", shown(model_.columns[column]), " has no number")};
    }
    const double value = record.number.empty() ? 0 : side(number(record.number));
    const bool nothing_holds =
        (type->sides & kLower && value == kInfinity) || (type->sides & kUpper && value == -kInfinity);
    if (type->takes_number && nothing_holds) {
        throw LineError{joined("the bound ", type->name, " ", shown(record.number), " of column ",
                               shown(model_.columns[column]), " is infinite")};
    }
    if (in_first_set(record.set)) {
        apply_bound(*type, column, value);
    }
}

void MpsParser::apply_bound(const BoundType &type, std::int32_t column, double value) {
    if (type.sides & kLower) {
        set_side(model_.lb, kLower, column, type.takes_number ? value : -kInfinity);
    }
    if (type.sides & kUpper) {
        set_side(model_.ub, kUpper, column, type.takes_number ? value : kInfinity);
    }
    if (type.vtype != 0) {
        set_type(column, type.vtype);
    }
    given_[static_cast<std::size_t>(column)] |= kBound;
}

void MpsParser::set_side(std::vector<double> &side, unsigned char bit, std::int32_t column, double value) {
    unsigned char &given = given_[static_cast<std::size_t>(column)];
    if (given & bit) {
        throw LineError{
            joined("a second ", bit == kLower ? "lower" : "upper", " bound of column ", shown(model_.columns[column]))};
    }
    given |= bit;
    side[static_cast<std::size_t>(column)] = value;
}

void MpsParser::set_type(std::int32_t column, char vtype) {
    char &present = model_.vtype[static_cast<std::size_t>(column)];
    if ((vtype == 'S') != (present == 'S') && present != 'C') {
        throw LineError{joined("the column ", shown(model_.columns[column]),
                               " is integer and semi-continuous: semi-integer columns are not supported"),
                        TRV_ERROR_UNSUPPORTED};
    }
    if (vtype == 'B' && present == 'B') {
        throw LineError{joined("a second BV of column ", shown(model_.columns[column]))};
    }
    present = present == 'B' ? 'B' : vtype;
}

void MpsParser::close_columns() {
    for (std::size_t i = 0; i < given_.size(); ++i) {
        const bool binary = model_.vtype[i] == 'B' || ((given_[i] & kMarked) && !(given_[i] & kBound));
        if (binary && !(given_[i] & kUpper)) {
            model_.ub[i] = 1;
        }
    }
}

// ---- ENDATA ---------------------------------------------------------------------------------------------------------

void MpsParser::finish(std::string_view) {
    check_indicators();
    close_rows();
    close_columns();
    done_ = true;
}

} // namespace trv
