// Writes a model as MPS: free form, or fixed form where a name has blanks.
//
// Nothing is written before everything is known to fit. One entry stands in a line, so that the number of a fixed line
// may run on to the right of its twelve columns (readers take the rest of the line), and every double is written
// exactly.
#include <cmath>
#include <limits>

#include "file_stream.h"
#include "mps_sides.h"
#include "stop.h"
#include "text_scan.h"
#include "written_model.h"

namespace trv {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr std::size_t kFixedName = 8;

[[noreturn]] void refuse(const std::string &what) {
    throw FileError{TRV_ERROR_UNSUPPORTED, "MPS: " + what};
}

class MpsWriter {
  public:
    explicit MpsWriter(TRVmodel *model)
        : model_(model, 1), data_(model_.data), columns_(model_.columns), rows_(model_.rows), qrows_(model_.qrows),
          matrix_(model_.matrix), qmatrix_(model_.qmatrix) {
        check_model_name();
        model_.refuse_doubled("MPS: ");
        check_names(columns_, "variable");
        check_names(rows_, "row");
        check_names(qrows_, "row");
        check_names(model_.gens, "general constraint");
        check_sets();
        choose_objective_name();
        make_row_forms();
        check_quadratic_rows();
        transpose_other_rows();
    }

    void write(const std::string &path) {
        FileWriter file(path);
        file_ = &file;
        put_head();
        put_rows();
        put_columns();
        put_sides();
        put_bounds();
        put_quadratic_objective();
        put_quadratic_rows();
        put_sets();
        put_indicators();
        file.put("ENDATA\n");
        file.commit();
    }

  private:
    // ---- what fits

    void check_model_name() const {
        if (has_control(model_.name) || trimmed(model_.name).size() != model_.name.size()) {
            refuse("the model's name " + shown(model_.name) + " has control characters, or blanks at an end");
        }
    }

    void check_names(const ModelNames &names, const std::string &kind) {
        for (std::int32_t i = 0; i < names.size(); ++i) {
            check_stop_at(i);
            const std::string_view name = names[i];
            if (name.empty()) {
                refuse(joined("the ", kind, " ", std::to_string(i), " has an empty name"));
            }
            if (has_control(name)) {
                refuse(joined("the name ", shown(name), " of a ", kind, " has control characters"));
            }
            if (name.find(' ') != std::string_view::npos) {
                check_blanks(name, kind);
            }
            longest_ = name.size() > longest_.size() ? name : longest_;
        }
    }

    void check_blanks(std::string_view name, const std::string &kind) {
        if (trimmed(name).size() != name.size() || name.size() > kFixedName) {
            refuse(joined("the name ", shown(name), " of a ", kind, " has blanks, and ",
                          name.size() > kFixedName ? "more than 8 bytes" : "some at an end"));
        }
        with_blanks_ = with_blanks_.empty() ? name : with_blanks_;
    }

    void choose_objective_name() {
        if (fixed() && longest_.size() > kFixedName) {
            refuse(joined("the name ", shown(with_blanks_), " has blanks, which only the fixed form can say, and ",
                          shown(longest_), " has more than its 8 bytes"));
        }
        objective_ = model_.objective_name("OBJ");
    }

    // In the free form a member is told from the beginning of a set by its first field.
    void check_sets() const {
        for (const WrittenSet &set : model_.sets) {
            for (const std::int32_t member : set.variable) {
                if (columns_[member] == "S1" || columns_[member] == "S2") {
                    refuse(joined("the variable ", shown(columns_[member]), " is a member of the set ",
                                  shown(model_.gens[set.gen]), ", where its name means a type of sets"));
                }
            }
        }
    }

    void make_row_forms() {
        for (std::int32_t i = 0; i < data_.nrows; ++i) {
            check_stop_at(i);
            make_row_form(rows_[i], data_.lower[i], data_.upper[i]);
        }
        for (const WrittenIndicator &indicator : model_.indicators) {
            make_row_form(model_.gens[indicator.gen], indicator.lower, indicator.upper);
        }
    }

    void make_row_form(std::string_view name, double lower, double upper) {
        MpsRowForm form;
        if (!mps_row_form({lower, upper}, form)) {
            char left[kNumberSize], right[kNumberSize];
            refuse(joined("the row ", shown(name), " has its lower side ", number_text(lower, left),
                          " above its upper side ", number_text(upper, right)));
        }
        forms_.push_back({name, std::move(form)});
    }

    void check_quadratic_rows() const {
        for (std::int32_t i = 0; i < data_.nqrows; ++i) {
            const double rhs = data_.qrhs[i];
            if (std::isinf(rhs) && (data_.qsense[i] == '=' || (data_.qsense[i] == '<') != (rhs > 0))) {
                refuse(joined("the quadratic row ", shown(qrows_[i]), " has an infinite right-hand side"));
            }
            for (std::int32_t k = qmatrix_.qstart[i]; k < qmatrix_.qstart[i + 1]; ++k) {
                const double value = qmatrix_.qvalue[k];
                if (qmatrix_.qvar1[k] != qmatrix_.qvar2[k] && value / 2 * 2 != value) {
                    char buffer[kNumberSize];
                    refuse(joined("the quadratic row ", shown(qrows_[i]), " has the coefficient ",
                                  number_text(value, buffer), ", which has no half"));
                }
            }
        }
    }

    // The linear terms of quadratic rows and of indicators stand with the columns, too.
    void transpose_other_rows() {
        by_column_.resize(static_cast<std::size_t>(data_.nvars) + 1);
        each_other_term(
            [&](std::int32_t column, const Entry &) { ++by_column_[static_cast<std::size_t>(column) + 1]; });
        for (std::size_t j = 1; j < by_column_.size(); ++j) {
            by_column_[j] += by_column_[j - 1];
        }
        entries_.resize(static_cast<std::size_t>(by_column_.back()));
        std::vector<std::int64_t> next(by_column_.begin(), by_column_.end() - 1);
        each_other_term([&](std::int32_t column, const Entry &entry) {
            entries_[static_cast<std::size_t>(next[static_cast<std::size_t>(column)]++)] = entry;
        });
    }

    template <class F> void each_other_term(F f) const {
        for (std::int32_t i = 0; i < data_.nqrows; ++i) {
            for (std::int32_t k = qmatrix_.start[i]; k < qmatrix_.start[i + 1]; ++k) {
                f(qmatrix_.index[k], Entry{qrows_[i], qmatrix_.value[k]});
            }
        }
        for (const WrittenIndicator &indicator : model_.indicators) {
            for (std::int64_t k = indicator.begin; k < indicator.end; ++k) {
                f(model_.genmatrix.index[k], Entry{model_.gens[indicator.gen], model_.genmatrix.value[k]});
            }
        }
    }

    // ---- lines

    bool fixed() const { return !with_blanks_.empty(); }

    void pad(std::size_t used, std::size_t width) {
        static constexpr std::string_view blanks = "            ";
        file_->put(fixed() && used < width ? blanks.substr(0, width - used) : std::string_view());
    }

    // Fields: two of type, name of 8 and 2 blanks, name of 8 and 2 blanks, number.
    void put_line(std::string_view type, std::string_view head, std::string_view name, std::string_view number) {
        file_->put(" ");
        file_->put(type);
        pad(type.size(), 2);
        file_->put(" ");
        file_->put(head);
        if (!name.empty()) {
            pad(head.size(), kFixedName);
            file_->put("  ");
            file_->put(name);
        }
        if (!number.empty()) {
            pad(name.size(), kFixedName);
            file_->put("  ");
            file_->put(number);
        }
        file_->put("\n");
    }

    void put_line(std::string_view type, std::string_view head, std::string_view name, double number) {
        char buffer[kNumberSize];
        const bool infinite = std::isinf(number);
        put_line(type, head, name, !infinite ? number_text(number, buffer) : number > 0 ? "1e30" : "-1e30");
    }

    // ---- sections

    void put_head() {
        file_->put("NAME");
        if (!model_.name.empty()) {
            file_->put("          ");
            file_->put(model_.name);
        }
        file_->put(data_.sense == TRV_MAXIMIZE ? "\nOBJSENSE\n    MAX\n" : "\n");
    }

    void put_rows() {
        file_->put("ROWS\n");
        put_line("N", objective_, {}, std::string_view());
        for (const auto &[name, form] : forms_) {
            put_line({&form.type, 1}, name, {}, std::string_view());
        }
        for (std::int32_t i = 0; i < data_.nqrows; ++i) {
            const char sense = data_.qsense[i];
            put_line(sense == '<' ? "L" : sense == '>' ? "G" : "E", qrows_[i], {}, std::string_view());
        }
    }

    void put_marker(bool opens) {
        file_->put(opens ? "    MARKER                 'MARKER'                 'INTORG'\n"
                         : "    MARKER                 'MARKER'                 'INTEND'\n");
    }

    void put_columns() {
        file_->put("COLUMNS\n");
        bool integer_block = false;
        for (std::int32_t j = 0; j < data_.nvars; ++j) {
            const bool integer = data_.vtype[j] == 'I' || data_.vtype[j] == 'B';
            if (integer != integer_block) {
                put_marker(integer);
                integer_block = integer;
            }
            const std::int32_t begin = matrix_.start[j], end = matrix_.start[j + 1];
            const auto qbegin = static_cast<std::size_t>(by_column_[static_cast<std::size_t>(j)]),
                       qend = static_cast<std::size_t>(by_column_[static_cast<std::size_t>(j) + 1]);
            // A column without entries must stand somewhere.
            if (!is_default(data_.obj[j]) || (begin == end && qbegin == qend)) {
                put_line({}, columns_[j], objective_, data_.obj[j]);
            }
            for (std::int32_t k = begin; k < end; ++k) {
                put_line({}, columns_[j], rows_[matrix_.index[k]], matrix_.value[k]);
            }
            for (std::size_t k = qbegin; k < qend; ++k) {
                put_line({}, columns_[j], entries_[k].row, entries_[k].value);
            }
        }
        if (integer_block) {
            put_marker(false);
        }
    }

    void put_sides() {
        file_->put("RHS\n");
        if (!is_default(data_.objconstant)) {
            put_line({}, "RHS", objective_, -data_.objconstant);
        }
        for (const auto &[name, form] : forms_) {
            if (!is_default(form.rhs)) {
                put_line({}, "RHS", name, form.rhs);
            }
        }
        for (std::int32_t i = 0; i < data_.nqrows; ++i) {
            if (!is_default(data_.qrhs[i])) {
                put_line({}, "RHS", qrows_[i], data_.qrhs[i]);
            }
        }
        bool any = false;
        for (const auto &[name, form] : forms_) {
            if (!form.range.empty()) {
                file_->put(any ? "" : "RANGES\n");
                any = true;
                put_line({}, "RNG", name, form.range);
            }
        }
    }

    void put_bounds() {
        file_->put("BOUNDS\n");
        for (std::int32_t j = 0; j < data_.nvars; ++j) {
            switch (data_.vtype[j]) {
            case 'B':
                put_binary(j);
                break;
            case 'S':
                put_lower(j);
                bound("SC", j, data_.ub[j]);
                break;
            default:
                put_both(j);
            }
        }
    }

    void bound(std::string_view type, std::int32_t j) { put_line(type, "BND", columns_[j], std::string_view()); }
    void bound(std::string_view type, std::int32_t j, double value) { put_line(type, "BND", columns_[j], value); }

    void put_lower(std::int32_t j) {
        if (data_.lb[j] == -kInfinity) {
            bound("MI", j);
        } else if (!is_default(data_.lb[j])) {
            bound("LO", j, data_.lb[j]);
        }
    }

    // BV comes last and both other sides before it: readers that know no order keep the sides that came first.
    void put_binary(std::int32_t j) {
        if (!is_default(data_.lb[j]) || data_.ub[j] != 1) {
            put_lower(j);
            bound("UP", j, data_.ub[j]);
        }
        bound("BV", j);
    }

    void put_both(std::int32_t j) {
        const double lower = data_.lb[j], upper = data_.ub[j];
        const bool integer = data_.vtype[j] == 'I';
        if (lower == -kInfinity && upper == kInfinity) {
            bound("FR", j);
        } else if (lower == upper && std::signbit(lower) == std::signbit(upper)) {
            bound("FX", j, upper);
        } else if (upper == kInfinity) {
            put_lower(j);
            if (integer && is_default(lower)) {
                bound("PL", j); // without any bound it would be read as [0, 1]
            }
        } else {
            if (upper < 0 && is_default(lower)) {
                bound("LO", j, lower); // many readers take the zero away, unless it is said
            }
            put_lower(j);
            bound("UP", j, upper);
        }
    }

    // One triangle of Q in x'Qx / 2, so a square's entry is twice its coefficient.
    void put_quadratic_objective() {
        const QuadTerms &q = model_.qobjective;
        file_->put(q.size() > 0 ? "QUADOBJ\n" : "");
        for (std::size_t k = 0; k < q.size(); ++k) {
            const double factor = q.first[k] == q.second[k] ? 2 : 1;
            put_line({}, columns_[q.first[k]], columns_[q.second[k]], factor * q.value[k]);
        }
    }

    // All of Q in x'Qx, so each product has its coefficient in two halves.
    void put_quadratic_rows() {
        for (std::int32_t i = 0; i < data_.nqrows; ++i) {
            file_->put("QCMATRIX   ");
            file_->put(qrows_[i]);
            file_->put("\n");
            for (std::int32_t k = qmatrix_.qstart[i]; k < qmatrix_.qstart[i + 1]; ++k) {
                const std::int32_t first = qmatrix_.qvar1[k], second = qmatrix_.qvar2[k];
                if (first == second) {
                    put_line({}, columns_[first], columns_[first], qmatrix_.qvalue[k]);
                } else {
                    put_line({}, columns_[first], columns_[second], qmatrix_.qvalue[k] / 2);
                    put_line({}, columns_[second], columns_[first], qmatrix_.qvalue[k] / 2);
                }
            }
        }
    }

    // Each set, and a line for each of its members: readers take no third field.
    void put_sets() {
        file_->put(model_.sets.empty() ? "" : "SOS\n");
        for (const WrittenSet &set : model_.sets) {
            put_line(set.type == 1 ? "S1" : "S2", model_.gens[set.gen], {}, std::string_view());
            for (std::size_t i = 0; i < set.variable.size(); ++i) {
                char buffer[kNumberSize];
                const std::string_view member = columns_[set.variable[i]];
                file_->put("    ");
                file_->put(member);
                pad(member.size(), kFixedName);
                file_->put("  ");
                pad(0, kFixedName + 2);
                file_->put(number_text(set.weight[i], buffer));
                file_->put("\n");
            }
        }
    }

    void put_indicators() {
        file_->put(model_.indicators.empty() ? "" : "INDICATORS\n");
        for (const WrittenIndicator &indicator : model_.indicators) {
            put_line("IF", model_.gens[indicator.gen], columns_[indicator.variable], indicator.value == 0 ? "0" : "1");
        }
    }

    struct Entry {
        std::string_view row;
        double value;
    };
    // A linear row, or that of an indicator.
    struct RowForm {
        std::string_view name;
        MpsRowForm form;
    };

    WrittenModel model_;
    const TRVdata &data_;
    const ModelNames &columns_, &rows_, &qrows_;
    const TRVmatrix &matrix_;
    const TRVqmatrix &qmatrix_;
    std::string objective_;
    std::vector<std::int64_t> by_column_; // of each column: its first linear term in quadratic rows and indicators
    std::vector<Entry> entries_;
    std::string_view with_blanks_, longest_; // the first name with blanks, empty if there is none; the longest name
    std::vector<RowForm> forms_;
    FileWriter *file_ = nullptr;
};

} // namespace

void write_mps(TRVmodel *model, const std::string &path) {
    MpsWriter(model).write(path);
}

} // namespace trv
