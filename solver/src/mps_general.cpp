// The sections SOS and INDICATORS of an MPS file (see mps_parser.h).
//
//   SOS                         INDICATORS
//    S1 pick                     IF row b 1        the row holds where the column b is 1
//       x  1
//       y  2
#include <cmath>

#include "mps_parser.h"
#include "text_scan.h"

namespace trv {

void MpsParser::set_line(std::string_view line) {
    const MpsSetLine record = mps_set_line(form_, line);
    if (!record.type.empty()) {
        if (record.type != "S1" && record.type != "S2") {
            throw LineError{joined("the type ", shown(record.type), " of a set is neither S1 nor S2")};
        }
        close_set();
        model_.sets.add(record.type == "S1" ? TRV_GEN_SOS1 : TRV_GEN_SOS2, record.name);
        return;
    }
    if (model_.sets.type.empty()) {
        throw LineError{joined("a member before the first set: ", shown(trimmed(line)))};
    }
    double weight;
    if (!scan_number(record.weight, weight)) {
        throw LineError{joined(shown(record.weight), " is not a number")};
    }
    if (std::fabs(weight) >= TRV_INFINITY) {
        throw LineError{joined("the weight ", shown(record.weight), " is infinite")};
    }
    model_.sets.add_member(entered_column(record.name), weight);
}

// Before the next set or section.
void MpsParser::close_set() {
    const std::string flaw = model_.sets.flaw_of_last(model_.columns);
    if (!flaw.empty()) {
        throw LineError{flaw};
    }
}

void MpsParser::indicator_line(std::string_view line) {
    const MpsBoundLine record = mps_bound_line(form_, line);
    if (record.type != "IF") {
        throw LineError{joined("the type ", shown(record.type), " of an indicator is not IF")};
    }
    if (record.set.empty() || record.column.empty() || record.number.empty()) {
        throw LineError{joined("an indicator has 4 fields (IF, row, column, value): ", shown(trimmed(line)))};
    }
    const std::int32_t row = known_row(record.set), column = entered_column(record.column);
    double value;
    if (!scan_number(record.number, value) || (value != 0 && value != 1)) {
        throw LineError{joined("the value ", shown(record.number), " of an indicator is neither 0 nor 1")};
    }
    if (row == model_.objective) {
        throw LineError{joined("the objective ", shown(record.set), " cannot be the row of an indicator")};
    }
    is_indicator_.resize(model_.row_type.size(), 0);
    char &known = is_indicator_[static_cast<std::size_t>(row)];
    if (known) {
        throw LineError{joined("a second indicator of row ", shown(record.set))};
    }
    known = 1;
    model_.indicators.row.push_back(row);
    model_.indicators.column.push_back(column);
    model_.indicators.value.push_back(value);
}

// Either section may come first.
void MpsParser::check_indicators() const {
    for (std::size_t i = 0; i < is_indicator_.size() && i < is_quadratic_.size(); ++i) {
        if (is_indicator_[i] && is_quadratic_[i]) {
            throw LineError{joined("the row ", shown(model_.rows[static_cast<std::int32_t>(i)]),
                                   " has quadratic terms and an indicator"),
                            TRV_ERROR_UNSUPPORTED};
        }
    }
}

} // namespace trv
