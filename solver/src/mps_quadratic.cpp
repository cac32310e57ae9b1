// The quadratic sections of an MPS file (see mps_parser.h).
//
//   section          entry (x, y, v)                            objective or row
//   QUADOBJ          one triangle of Q, either one              x'Qx / 2: v times x y, or v/2 times x x
//   QMATRIX          all of the symmetric Q                     x'Qx / 2
//   QCMATRIX row     all of the symmetric Q                     x'Qx: 2v times x y, or v times x x
//
// Where all of Q is wanted, a file that gives one triangle alone would be off by a factor of two, and one that gives
// both triangles where one is wanted as well: both are errors, never a guess.
#include <cmath>

#include "mps_parser.h"
#include "text_scan.h"

namespace trv {

void MpsParser::begin_quadratic(std::string_view rest) {
    no_rest(rest);
    if (was_open("QUADOBJ") && was_open("QMATRIX")) {
        throw LineError{"QUADOBJ and QMATRIX in one file"};
    }
    open_quadratic(model_.qobjective, section_->name == "QUADOBJ" ? QuadForm::triangle : QuadForm::half_square);
}

void MpsParser::begin_quadratic_row(std::string_view rest) {
    const std::int32_t row = known_row(rest);
    const auto at = static_cast<std::size_t>(row);
    if (model_.row_type[at] == 'N') {
        throw LineError{joined("quadratic terms of row ", shown(rest), ", which is of type N")};
    }
    is_quadratic_.resize(model_.row_type.size(), 0);
    if (is_quadratic_[at]) {
        throw LineError{joined("a second section QCMATRIX of row ", shown(rest))};
    }
    is_quadratic_[at] = 1;
    model_.qrow.push_back(row);
    model_.qstart.push_back(static_cast<std::int64_t>(model_.qterms.size()));
    open_quadratic(model_.qterms, QuadForm::square);
}

void MpsParser::open_quadratic(QuadTerms &terms, QuadForm form) {
    quad_ = &terms;
    quad_form_ = form;
    quad_section_ = section_->name;
    quad_first_ = terms.size();
    pairs_.clear();
    half_.clear();
}

void MpsParser::quadratic_line(std::string_view line) {
    const MpsPairsLine record = mps_column_line(form_, line);
    if (!record.marker.empty()) {
        throw LineError{joined("a marker in section ", section_->name)};
    }
    const std::int32_t one = entered_column(record.head);
    for (int i = 0; i < record.npairs; ++i) {
        double value;
        if (!scan_number(record.pair[i].number, value)) {
            throw LineError{joined(shown(record.pair[i].number), " is not a number")};
        }
        const std::int32_t other = entered_column(record.pair[i].name);
        // Of x'Qx / 2 each square gets half of its entry; of x'Qx each product gets both of its entries.
        const double factor = quad_form_ == QuadForm::square ? (one == other ? 1 : 2) : (one == other ? 0.5 : 1);
        if (!(std::fabs(value * factor) < TRV_INFINITY)) {
            throw LineError{joined("the coefficient ", shown(record.pair[i].number), " is infinite")};
        }
        add_quadratic(one, other, value * factor);
    }
}

std::int32_t MpsParser::entered_column(std::string_view name) const {
    const std::int32_t column = model_.columns.find(name);
    if (column < 0) {
        throw LineError{joined("unknown column ", shown(name))};
    }
    return column;
}

// half_ has an entry for each term of the section: whether its mirror image is still to come.
void MpsParser::add_quadratic(std::int32_t one, std::int32_t other, double value) {
    std::int64_t &place = pairs_.place(one, other);
    const bool mirrored = quad_form_ != QuadForm::triangle && one != other;
    if (place < 0) {
        place = static_cast<std::int64_t>(half_.size());
        half_.push_back(mirrored);
        quad_->add(one, other, value);
        return;
    }
    const auto local = static_cast<std::size_t>(place);
    const std::size_t term = quad_first_ + local;
    if (!half_[local] || quad_->first[term] == one) {
        throw LineError{joined("a second coefficient of ", quadratic_pair(one, other), " in section ", section_->name,
                               quad_form_ == QuadForm::triangle ? ", which holds one triangle" : "")};
    }
    if (quad_->value[term] != value) {
        throw LineError{joined("the two coefficients of ", quadratic_pair(one, other), " in section ", section_->name,
                               " differ: it holds a symmetric matrix")};
    }
    half_[local] = 0;
}

std::string MpsParser::quadratic_pair(std::int32_t one, std::int32_t other) const {
    return joined(shown(model_.columns[one]), " and ", shown(model_.columns[other]));
}

// Before the next section.
void MpsParser::close_quadratic() {
    for (std::size_t i = 0; i < half_.size(); ++i) {
        if (half_[i]) {
            const std::size_t term = quad_first_ + i;
            throw LineError{joined("section ", quad_section_, " ends with one coefficient of ",
                                   quadratic_pair(quad_->first[term], quad_->second[term]),
                                   ": it holds both triangles of a symmetric matrix")};
        }
    }
    half_.clear();
}

} // namespace trv
